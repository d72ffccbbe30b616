// The page of one device: its services live, and what can be sent to it.
import {bytesText, contentOf, element, measureText, setText, sinceText} from "./text.js";
import {openStream, sendBlock, sendCommand} from "./network.js";
import {Plot} from "./plot.js";
import {viewOf} from "./views.js";

const CHANNEL = {idle: "idle", connecting: "connecting", connected: "connected", failed: "not reachable"};
const LARGEST_BLOCK = 5242880;

export const stateOf = device => device.present ? device.channel : "absent";
export const stateText = device => device.present ? CHANNEL[device.channel] : "gone";

// Of a service while the page has its stream: blocks can come only over a channel that is connected.
const FLOW = {connected: ["live", "live"], idle: ["connecting", "connecting"], connecting: ["connecting", "connecting"],
              failed: ["failed", "not reachable"], absent: ["absent", "device is gone"]};

class Measure {
  constructor(label) {
    this.value = element("dd", {textContent: "–"});
    this.canvas = element("canvas", {"aria-hidden": "true"});
    this.node = element("div", {}, element("dt", {textContent: label}), this.value, this.canvas);
    this.plot = new Plot(this.canvas, {small: true});
  }
  set(number, text) {
    this.plot.add("", number);
    setText(this.value, text);
  }
}

class ServiceCard {
  constructor(device, service) {
    this.name = service.name;
    this.title = element("h2", {textContent: service.name});
    this.state = element("span");
    this.badge = element("span", {className: "badge"}, element("span", {className: "dot", "aria-hidden": "true"}), this.state);
    this.place = element("div", {className: "view"}, element("p", {className: "waiting", textContent: "Waiting for a block"}));
    this.rate = new Measure("Rate");
    this.delay = new Measure("Latency");
    this.losses = new Measure("Lost");
    this.node = element("section", {className: "card service", "aria-label": `Service ${service.name}`},
      element("header", {}, this.title, this.badge), this.place,
      element("dl", {className: "measures"}, this.rate.node, this.delay.node, this.losses.node));
    this.node.dataset.service = service.name;
    Object.assign(this, {device, link: "connecting", kind: "", view: null, blocks: 0, bytes: 0, lost: 0, lostBefore: 0, skew: 0, delays: []});
    this.stream = openStream(device.id, service.name, block => this.take(block), state => this.onState(state));
    this.ticked = performance.now();
  }

  onState(link) {
    this.link = link;
    // A new stream counts its losses anew.
    if (link === "lost") { this.lostBefore += this.lost; this.lost = 0; }
    this.showState();
  }

  update(device) {
    this.device = device;
    this.showState();
  }

  showState() {
    const [state, text] = this.link === "live" ? FLOW[stateOf(this.device)]
      : this.link === "lost" ? ["lost", "interrupted"] : ["connecting", "connecting"];
    this.badge.dataset.state = state;
    setText(this.state, text);
  }

  take(block) {
    this.blocks++;
    this.bytes += block.bytes.length;
    this.lost = block.lost;
    const age = Date.now() - block.time;
    this.skew = Math.min(this.skew, age);  // the clock of another host may be ahead
    this.delays.push(age - this.skew);
    const {kind, value} = contentOf(block.bytes);
    if (kind !== this.kind) {
      this.kind = this.node.dataset.kind = kind;
      this.view = viewOf(kind, this.name);
      this.place.replaceChildren(this.view.node);
    }
    this.view.show(value, block.bytes);
  }

  refresh() { this.view?.refresh(); }

  tick() {
    const now = performance.now(), seconds = (now - this.ticked) / 1000;
    this.ticked = now;
    const rate = this.blocks / seconds;
    this.rate.set(rate, `${measureText(rate)}/s · ${bytesText(this.bytes / seconds)}/s`);
    if (this.delays.length > 0) {
      const middle = this.delays.sort((a, b) => a - b)[this.delays.length >> 1];
      this.delay.set(middle, `${measureText(middle)} ms`);
    }
    const lost = this.lostBefore + this.lost;
    this.losses.set(lost, `${lost}`);
    this.node.dataset.lost = lost;
    this.blocks = this.bytes = 0;
    this.delays = [];
    this.refresh();
  }

  close() { this.stream.stop(); }
}

// Tells how the latest action ended; an earlier one that ends later is not told.
class Result {
  constructor(id) {
    this.node = element("output", {id});
    this.latest = null;
  }

  show(result, text) {
    this.node.dataset.result = result;
    setText(this.node, text);
  }

  // Whether the action succeeded. It gives the text to show.
  async follow(action) {
    this.latest = action;
    this.show("", "Sending …");
    const [result, text] = await action.then(done => ["good", done], error => ["bad", `Not sent: ${error.message}`]);
    if (this.latest === action) this.show(result, text);
    return result === "good";
  }
}

function commandForm(device) {
  const name = element("input", {id: "command-name", required: true, maxLength: 400, autocomplete: "off", spellcheck: false});
  const parameter = element("input", {id: "command-parameter", maxLength: 400, autocomplete: "off", spellcheck: false});
  const result = new Result("command-result");
  const form = element("form", {className: "card", id: "command-form", "aria-labelledby": "command-title"},
    element("h2", {id: "command-title", textContent: "Send a command"}),
    element("label", {htmlFor: name.id, textContent: "Name"}), name,
    element("label", {htmlFor: parameter.id, textContent: "Parameter (may be empty)"}), parameter,
    element("button", {textContent: "Send command"}), result.node);
  form.addEventListener("submit", event => {
    event.preventDefault();
    const command = name.value;
    result.follow(sendCommand(device, command, parameter.value).then(() => `The device has done "${command}".`));
  });
  return form;
}

function blockForm(device) {
  const text = element("textarea", {id: "block-text", spellcheck: false});
  const file = element("input", {id: "block-file", type: "file"});
  const button = element("button", {textContent: "Send text"});
  const result = new Result("block-result");
  const drop = element("div", {className: "drop"}, element("label", {htmlFor: file.id, textContent: "Or a file: choose it, or drop it here"}), file);
  const form = element("form", {className: "card", id: "block-form", "aria-labelledby": "block-title"},
    element("h2", {id: "block-title", textContent: "Send a block"}),
    element("label", {htmlFor: text.id, textContent: "Text"}), text, drop,
    button, result.node);
  const send = async (body, what) => {
    if (body.size === 0 || body.size > LARGEST_BLOCK) throw new Error(`a block has 1 to ${LARGEST_BLOCK.toLocaleString("en")} bytes`);
    await sendBlock(device, body);
    return `${bytesText(body.size)} of ${what} sent.`;
  };
  const sendFile = chosen => result.follow(send(chosen, chosen.name));
  const nameButton = () => setText(button, file.files.length > 0 ? "Send file" : "Send text");
  file.addEventListener("change", nameButton);
  form.addEventListener("submit", async event => {
    event.preventDefault();
    const [chosen] = file.files;
    if (!chosen) { result.follow(send(new Blob([text.value]), "text")); return; }
    if (await sendFile(chosen) && file.files[0] === chosen) {
      file.value = "";  // the next one is a text again, unless another file is chosen
      nameButton();
    }
  });
  drop.addEventListener("dragover", event => { event.preventDefault(); drop.classList.add("over"); });
  drop.addEventListener("dragleave", () => drop.classList.remove("over"));
  drop.addEventListener("drop", event => {
    event.preventDefault();
    drop.classList.remove("over");
    if (event.dataTransfer.files.length > 0) sendFile(event.dataTransfer.files[0]);
  });
  return form;
}

export class DevicePage {
  constructor(device) {
    this.id = device.id;
    this.cards = new Map();
    this.title = element("h1", {textContent: device.type, tabIndex: -1});
    this.state = element("span");
    this.badge = element("span", {className: "badge"}, element("span", {className: "dot", "aria-hidden": "true"}), this.state);
    this.about = element("p", {className: "about-device"});
    this.trouble = element("p", {className: "trouble", role: "status", hidden: true});
    this.services = element("div", {className: "services"});
    this.node = element("article", {"aria-label": `Device ${device.type}`},
      element("div", {className: "head"}, this.title, this.badge), this.about, this.trouble, this.services,
      element("div", {className: "send"}, commandForm(device.id), blockForm(device.id)));
    this.update(device);
    this.timer = setInterval(() => this.tick(), 1000);
  }

  update(device) {
    this.device = device;
    this.badge.dataset.state = stateOf(device);
    setText(this.state, stateText(device));
    setText(this.trouble, device.trouble);
    this.trouble.hidden = device.trouble === "";
    this.describe();
    for (const service of device.services) {
      if (!this.cards.has(service.name)) {
        const card = new ServiceCard(device, service);
        this.cards.set(service.name, card);
        this.services.append(card.node);
      }
    }
    for (const card of this.cards.values()) card.update(device);
    const offered = new Set(device.services.map(service => service.name));
    for (const [name, card] of this.cards) {
      if (!offered.has(name) && device.present) { card.close(); card.node.remove(); this.cards.delete(name); }
    }
  }

  describe() {
    const {address, port, version, since, lastSeen, identity, present, reconnects} = this.device;
    const parts = [`${address}:${port}`, version && `version ${version}`, this.device.private && `private, key ${identity}`,
                   present ? `here for ${sinceText(since)}` : `last seen ${sinceText(lastSeen)} ago`,
                   reconnects > 0 && `${reconnects} ${reconnects === 1 ? "reconnect" : "reconnects"}`];
    setText(this.about, parts.filter(Boolean).join(" · "));
  }

  refresh() {
    for (const card of this.cards.values()) card.refresh();
  }

  tick() {
    this.describe();
    for (const card of this.cards.values()) card.tick();
  }

  close() {
    clearInterval(this.timer);
    for (const card of this.cards.values()) card.close();
    this.node.remove();
  }
}
