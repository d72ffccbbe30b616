// The list of devices, and which of them is shown. The address of a device's page is #/ and its id.
import {element, setText} from "./text.js";
import {hasLogin, needsLogin, watchDevices} from "./network.js";
import {DevicePage, stateOf, stateText} from "./device.js";

const byId = id => document.getElementById(id);
const devices = new Map();
const items = new Map();
let page = null;

function announce(text) {
  const line = element("p", {textContent: text});
  byId("announcer").append(line);
  setTimeout(() => line.remove(), 8000);
}

const wantedId = () => {
  try { return decodeURIComponent(location.hash.replace(/^#\/?/, "")); } catch { return ""; }
};

function makeItem(device) {
  const link = element("a", {href: `#/${encodeURIComponent(device.id)}`},
    element("span", {className: "dot", "aria-hidden": "true"}), element("span", {className: "type"}), element("span", {className: "about"}));
  const item = element("li", {}, link);
  item.dataset.device = device.id;
  return item;
}

function showItem(device) {
  let item = items.get(device.id);
  if (!item) {
    item = makeItem(device);
    items.set(device.id, item);
    const next = [...items.keys()].sort().find(id => id > device.id && items.get(id).isConnected);
    byId("device-list").insertBefore(item, next ? items.get(next) : null);
  }
  item.firstChild.dataset.state = stateOf(device);
  setText(item.querySelector(".type"), device.type);
  const services = device.services.map(service => service.name).join(", ");
  setText(item.querySelector(".about"), `${device.address} · ${stateText(device)}${services && ` · ${services}`}`);
}

function showList() {
  for (const [id, item] of items) {
    if (!devices.has(id)) { item.remove(); items.delete(id); }
  }
  for (const device of devices.values()) showItem(device);
  for (const [id, item] of items) {
    if (id === wantedId()) item.firstChild.setAttribute("aria-current", "page");
    else item.firstChild.removeAttribute("aria-current");
  }
  const present = [...devices.values()].filter(device => device.present).length;
  setText(byId("device-count"), devices.size > 0 ? `(${present})` : "");
  byId("no-devices").hidden = devices.size > 0;
}

function showPage(moveFocus) {
  const device = devices.get(wantedId());
  document.body.classList.toggle("has-device", wantedId() !== "" && wantedId() !== "main");
  const former = page?.id;
  if (page && page.id !== device?.id) { page.close(); page = null; }
  if (device && !page) {
    page = new DevicePage(device);
    byId("main").append(page.node);
    document.title = `${device.type} - Lumora hub`;
    if (moveFocus) page.title.focus();
  } else if (device) {
    page.update(device);
  } else {
    document.title = "Lumora hub";
  }
  // On a phone the link back has vanished with the device, and the focus with it.
  if (moveFocus && former && byId("main").offsetParent === null) items.get(former)?.firstChild.focus();
  byId("no-device").hidden = page !== null || (devices.size === 0 && wantedId() === "");
  setText(byId("no-device"), wantedId() === "" ? "Choose a device to see what its services send." : `${wantedId()} is not in the network.`);
}

const CHANGES = {appeared: "appeared", left: "has left", forgotten: null, changed: null};

function onMessage(message) {
  if (message.type === "counts") return;
  if (message.type === "devices") {
    devices.clear();
    for (const device of message.devices) devices.set(device.id, device);
  } else if (message.kind === "forgotten") {
    devices.delete(message.device.id);
  } else {
    devices.set(message.device.id, message.device);
    if (CHANGES[message.kind]) announce(`${message.device.type} at ${message.device.address} ${CHANGES[message.kind]}`);
  }
  showList();
  showPage(false);
}

async function onState(state) {
  byId("link").dataset.state = document.body.dataset.link = state;
  setText(byId("link-text"), state === "lost" ? "the hub does not answer" : state);
  if (state === "lost" && await needsLogin()) location.assign("/login");
}

hasLogin().then(has => { byId("logout").hidden = !has; });
document.querySelector(".skip").addEventListener("click", event => { event.preventDefault(); byId("main").focus(); });
window.addEventListener("hashchange", () => { showList(); showPage(true); });
document.addEventListener("visibilitychange", () => page?.refresh());
// A file that misses its place would otherwise open in the place of this page.
for (const kind of ["dragover", "drop"]) window.addEventListener(kind, event => event.preventDefault());
watchDevices(onMessage, onState);
