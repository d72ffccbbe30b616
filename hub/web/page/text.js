// Small things: elements, numbers for people, and what a block of bytes holds. What devices send gets into the
// page as text only.

export function element(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name in made) made[name] = value; else made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

// Only a changed text is put in: screen readers and selections notice each change.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

export function bytesText(bytes) {
  const units = ["B", "kB", "MB", "GB"];
  let unit = 0;
  while (bytes >= 1000 && unit < units.length - 1) { bytes /= 1000; unit++; }
  return `${bytes.toFixed(bytes < 10 && unit > 0 ? 1 : 0)}\u00a0${units[unit]}`;
}

export function numberText(value) {
  if (!Number.isFinite(value)) return "–";
  const size = Math.abs(value);
  if (size !== 0 && (size < 0.001 || size >= 1e7)) return value.toExponential(2);
  return size >= 1000 ? value.toFixed(0) : String(Number(value.toPrecision(4)));
}

// Three digits are enough for a rate or a time.
export function measureText(value) {
  return value >= 100 ? value.toFixed(0) : String(Number(value.toPrecision(2 + (value >= 10))));
}

export function sinceText(milliseconds) {
  const seconds = Math.max(0, Math.round((Date.now() - milliseconds) / 1000));
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 5400) return `${Math.round(seconds / 60)} min`;
  return seconds < 172800 ? `${Math.round(seconds / 3600)} h` : `${Math.round(seconds / 86400)} d`;
}

const PNG = [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a];
const startsWith = (bytes, start) => bytes.length >= start.length && start.every((byte, at) => bytes[at] === byte);
const utf8 = new TextDecoder("utf-8", {fatal: true});

function textOf(bytes) {
  if (bytes.length > 262144) return null;
  try {
    const text = utf8.decode(bytes);
    return /[\u0000-\u0008\u000b\u000c\u000e-\u001f\u007f]/.test(text) ? null : text;
  } catch {
    return null;
  }
}

const isNumbers = value => Array.isArray(value) && value.length > 0 && value.length <= 6 && value.every(Number.isFinite);

// {kind, value}: "picture" (its content type), "numbers" (an object of numbers), "fields" (an object), "text", "bytes".
export function contentOf(bytes) {
  if (startsWith(bytes, [0xff, 0xd8, 0xff])) return {kind: "picture", value: "image/jpeg"};
  if (startsWith(bytes, PNG)) return {kind: "picture", value: "image/png"};
  const text = textOf(bytes);
  if (text === null) return {kind: "bytes", value: bytes};
  try {
    const value = JSON.parse(text);
    if (typeof value === "number") return {kind: "numbers", value: {value}};
    if (isNumbers(value)) return {kind: "numbers", value: Object.fromEntries(value.map((number, at) => [`${at}`, number]))};
    if (value !== null && typeof value === "object") return {kind: "fields", value};
  } catch {
    // A text as any other.
  }
  return {kind: "text", value: text};
}
