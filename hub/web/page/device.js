// The page of one device: its services live, and what can be sent to it.
import {bytesText, contentOf, element, measureText, setText, sinceText} from "./text.js";
import {openStream, sendBlock, sendCommand} from "./network.js";
import {Plot} from "./plot.js";
import {viewOf} from "./views.js";

const CHANNEL = {idle: "no channel", connecting: "connecting", connected: "connected", failed: "not reachable"};
const LARGEST_BLOCK = 5242880;

export const stateOf = device => device.present ? device.channel : "absent";
export const stateText = device => device.present ? CHANNEL[device.channel] : "gone";

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
    this.title = element("h3", {textContent: service.name});
    this.state = element("span", {textContent: "connecting"});
    this.badge = element("span", {className: "badge"}, element("span", {className: "dot", "aria-hidden": "true"}), this.state);
    this.place = element("div", {className: "view"}, element("p", {className: "waiting", textContent: "Waiting for a block"}));
    this.rate = new Measure("Rate");
    this.delay = new Measure("Latency");
    this.losses = new Measure("Lost");
    this.node = element("section", {className: "card service", "aria-label": `Service ${service.name}`},
      element("header", {}, this.title, this.badge), this.place,
      element("dl", {className: "measures"}, this.rate.node, this.delay.node, this.losses.node));
    this.node.dataset.service = service.name;
    Object.assign(this, {kind: "", view: null, blocks: 0, bytes: 0, lost: 0, lostBefore: 0, gaps: 0, last: null, skew: 0, delays: []});
    this.stream = openStream(device, service.name, block => this.take(block), state => this.onState(state));
    this.ticked = performance.now();
  }

  onState(state) {
    this.badge.dataset.state = state;
    setText(this.state, state);
    // A new stream counts its losses anew.
    if (state === "lost") { this.lostBefore += this.lost; this.lost = 0; this.last = null; }
  }

  take(block) {
    this.blocks++;
    this.bytes += block.bytes.length;
    this.lost = block.lost;
    const age = Date.now() - block.time;
    this.skew = Math.min(this.skew, age);  // the clock of another host may be ahead
    this.delays.push(age - this.skew);
    if (document.hidden) return;
    const {kind, value} = contentOf(block.bytes);
    if (kind !== this.kind) {
      this.kind = this.node.dataset.kind = kind;
      this.view = viewOf(kind, this.name);
      this.place.replaceChildren(this.view.node);
    }
    this.view.show(value, block.bytes);
  }

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
  }

  close() { this.stream.stop(); }
}

function resultOf(output, action) {
  output.dataset.result = "";
  setText(output, "Sending …");
  return action.then(text => { output.dataset.result = "good"; setText(output, text); },
                     error => { output.dataset.result = "bad"; setText(output, `Not sent: ${error.message}`); });
}

function commandForm(device) {
  const name = element("input", {id: "command-name", required: true, maxLength: 400, autocomplete: "off", spellcheck: false});
  const parameter = element("input", {id: "command-parameter", maxLength: 400, autocomplete: "off", spellcheck: false});
  const output = element("output", {id: "command-result"});
  const form = element("form", {className: "card", id: "command-form", "aria-labelledby": "command-title"},
    element("h3", {id: "command-title", textContent: "Send a command"}),
    element("label", {htmlFor: name.id, textContent: "Name"}), name,
    element("label", {htmlFor: parameter.id, textContent: "Parameter (may be empty)"}), parameter,
    element("button", {textContent: "Send command"}), output);
  form.addEventListener("submit", event => {
    event.preventDefault();
    resultOf(output, sendCommand(device, name.value, parameter.value).then(() => `The device has done "${name.value}".`));
  });
  return form;
}

function blockForm(device) {
  const text = element("textarea", {id: "block-text", spellcheck: false});
  const file = element("input", {id: "block-file", type: "file"});
  const output = element("output", {id: "block-result"});
  const drop = element("div", {className: "drop"}, element("label", {htmlFor: file.id, textContent: "Or a file: choose it, or drop it here"}), file);
  const form = element("form", {className: "card", id: "block-form", "aria-labelledby": "block-title"},
    element("h3", {id: "block-title", textContent: "Send a block"}),
    element("label", {htmlFor: text.id, textContent: "Text"}), text, drop,
    element("button", {textContent: "Send block"}), output);
  const send = body => {
    const size = body.size;
    if (size === 0 || size > LARGEST_BLOCK) {
      return resultOf(output, Promise.reject(new Error(`a block has 1 to ${LARGEST_BLOCK} bytes`)));
    }
    return resultOf(output, sendBlock(device, body).then(() => `${bytesText(size)} sent.`));
  };
  form.addEventListener("submit", event => {
    event.preventDefault();
    send(file.files.length > 0 ? file.files[0] : new Blob([text.value]));
  });
  drop.addEventListener("dragover", event => { event.preventDefault(); drop.classList.add("over"); });
  drop.addEventListener("dragleave", () => drop.classList.remove("over"));
  drop.addEventListener("drop", event => {
    event.preventDefault();
    drop.classList.remove("over");
    if (event.dataTransfer.files.length > 0) send(event.dataTransfer.files[0]);
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
      element("a", {className: "back", href: "#/", textContent: "‹ All devices"}),
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
        const card = new ServiceCard(this.id, service);
        this.cards.set(service.name, card);
        this.services.append(card.node);
      }
    }
    const offered = new Set(device.services.map(service => service.name));
    for (const [name, card] of this.cards) {
      if (!offered.has(name) && device.present) { card.close(); card.node.remove(); this.cards.delete(name); }
    }
  }

  describe() {
    const {address, port, version, since, identity, present, reconnects} = this.device;
    const parts = [`${address}:${port}`, version && `version ${version}`, this.device.private && `private, key ${identity}`,
                   `${present ? "here" : "gone"} since ${sinceText(since)}`, reconnects > 0 && `${reconnects} reconnects`];
    setText(this.about, parts.filter(Boolean).join(" · "));
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
