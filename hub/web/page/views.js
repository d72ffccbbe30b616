// How blocks of each kind are shown. Each view has a node, show(value, bytes), draw() for the next frame, and refresh(),
// which is called each second while the page is seen, and when it is seen again.
import {bytesText, element, numberText, setText} from "./text.js";
import {Plot, drawSoon} from "./plot.js";

class PictureView {
  constructor(name) {
    this.node = element("canvas", {className: "picture", role: "img", "aria-label": `Live picture of ${name}`});
    this.isDecoding = false;
    this.next = null;     // the newest picture that is not decoded
    this.bitmap = null;   // the newest that is not drawn
    this.drawn = 0;
  }

  show(type, bytes) {
    // A picture that came while another one is decoded replaces the one that waits.
    this.next = new Blob([bytes], {type});
    this.refresh();
  }

  // In the background the newest picture waits until the page is seen again.
  refresh() { if (this.next !== null && !this.isDecoding && !document.hidden) this.decode(); }

  async decode() {
    this.isDecoding = true;
    while (this.next !== null && !document.hidden) {
      const blob = this.next;
      this.next = null;
      try {
        const bitmap = await createImageBitmap(blob);
        this.bitmap?.close();
        this.bitmap = bitmap;
        drawSoon(this);
      } catch {
        setText(this.node, "This picture is damaged");
      }
    }
    this.isDecoding = false;
  }

  draw() {
    if (this.bitmap === null) return;
    const {width, height} = this.bitmap;
    if (this.node.width !== width || this.node.height !== height) { this.node.width = width; this.node.height = height; }
    this.node.getContext("2d").drawImage(this.bitmap, 0, 0);
    this.bitmap.close();
    this.bitmap = null;
    this.node.dataset.drawn = ++this.drawn;
  }
}

class TextView {
  constructor(name) {
    this.node = element("pre", {className: "text", tabIndex: 0, role: "region", "aria-label": `Latest texts of ${name}`});
    this.lines = [];
  }
  show(text) {
    const line = text.replace(/\r?\n$/, "");
    this.lines.unshift(line.length > 4000 ? `${line.slice(0, 4000)}…` : line);
    this.lines.length = Math.min(this.lines.length, 30);
    drawSoon(this);
  }
  draw() { setText(this.node, this.lines.join("\n")); }
  refresh() {}
}

class BytesView {
  constructor(name) {
    this.node = element("pre", {className: "hex", tabIndex: 0, role: "region", "aria-label": `First bytes of the latest block of ${name}`});
  }
  show(bytes) { this.bytes = bytes; drawSoon(this); }
  draw() {
    const rows = [`${bytesText(this.bytes.length)} (${this.bytes.length} bytes)`];
    for (let at = 0; at < Math.min(this.bytes.length, 128); at += 8) {
      const row = [...this.bytes.subarray(at, at + 8)];
      const hex = row.map(byte => byte.toString(16).padStart(2, "0")).join(" ");
      const letters = row.map(byte => byte > 31 && byte < 127 ? String.fromCharCode(byte) : "·").join("");
      rows.push(`${at.toString(16).padStart(4, "0")}  ${hex.padEnd(23)}  ${letters}`);
    }
    setText(this.node, rows.join("\n"));
  }
  refresh() {}
}

class NumbersView {
  constructor(name) {
    this.canvas = element("canvas", {className: "plot", role: "img", "aria-label": `Plot of ${name}`});
    this.legend = element("ul", {className: "legend"});
    this.node = element("div", {}, this.canvas, this.legend);
    this.plot = new Plot(this.canvas);
    this.marks = new Map();
  }
  show(numbers) {
    this.latest = numbers;
    for (const [name, value] of Object.entries(numbers)) this.plot.add(name, value);
    drawSoon(this);
  }
  draw() {
    for (const name of this.plot.series.keys()) {
      if (!this.marks.has(name)) {
        const mark = element("li", {className: `l${this.marks.size + 1}`});
        this.marks.set(name, mark);
        this.legend.append(mark);
      }
      if (name in this.latest) setText(this.marks.get(name), `${name} ${numberText(this.latest[name])}`);
    }
    this.canvas.dataset.points = [...this.plot.series.values()].reduce((sum, points) => sum + points.length, 0);
  }
  // Time goes on without blocks, too.
  refresh() { drawSoon(this.plot); }
}

const MOST_FIELDS = 40;

// Names and texts of an object, and of objects inside of it.
function* flat(value, prefix = "", depth = 0) {
  for (const [name, inner] of Object.entries(value)) {
    if (inner !== null && typeof inner === "object" && depth < 2) yield* flat(inner, `${prefix}${name}.`, depth + 1);
    else yield [`${prefix}${name}`, inner];
  }
}

class FieldsView {
  constructor(name) {
    this.list = element("dl", {className: "fields", tabIndex: 0, role: "region", "aria-label": `Fields of ${name}`});
    this.numbers = new NumbersView(name);
    this.node = element("div", {}, this.list);
    this.names = "";
  }
  show(value) {
    const all = [...flat(value)];
    this.fields = all.slice(0, MOST_FIELDS);
    this.left = all.length - this.fields.length;
    const numbers = this.fields.filter(([, inner]) => Number.isFinite(inner)).slice(0, 6);
    if (numbers.length > 0) {
      if (!this.numbers.node.isConnected) this.node.append(this.numbers.node);
      this.numbers.show(Object.fromEntries(numbers));
    }
    drawSoon(this);
  }
  draw() {
    const rows = this.fields.map(([name, value]) => [name, typeof value === "string" ? value : JSON.stringify(value)]);
    if (this.left > 0) rows.push(["…", `${this.left} more`]);
    const names = JSON.stringify(rows.map(([name]) => name));
    if (names !== this.names) {
      this.names = names;
      this.list.replaceChildren(...rows.flatMap(([name]) => [element("dt", {textContent: name}), element("dd")]));
    }
    rows.forEach(([, text], at) => setText(this.list.children[2 * at + 1], text));
  }
  refresh() { this.numbers.refresh(); }
}

const VIEWS = {picture: PictureView, text: TextView, bytes: BytesView, numbers: NumbersView, fields: FieldsView};
export const viewOf = (kind, name) => new VIEWS[kind](name);
