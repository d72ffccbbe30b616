// The hub's interface: the list of devices, streams of blocks, commands and blocks to devices.

const HEAD = 24;  // bytes before each block, see docs/hub.md
const FIRST_PAUSE = 250, LONGEST_PAUSE = 2000;

// A name in a path is encoded twice: the server decodes a path before it is cut at its slashes.
export function pathName(name) {
  if (/^[\w@:-][\w.@:-]*$/.test(name)) return name;
  return encodeURIComponent(encodeURIComponent(name).replaceAll(".", "%2E"));
}

const socketUrl = path => `${location.protocol === "https:" ? "wss" : "ws"}://${location.host}${path}`;

// Opens a WebSocket, and opens it again until stop() of the result is called. onState gets "connecting" once, then
// "live" or "lost": a state that changes with each try would be read out each time.
function keepOpen(path, onMessage, onState) {
  let pause = FIRST_PAUSE, socket = null, timer = 0, stopped = false;
  const open = () => {
    socket = new WebSocket(socketUrl(path));
    socket.binaryType = "arraybuffer";
    socket.onopen = () => { pause = FIRST_PAUSE; onState("live"); };
    socket.onmessage = event => onMessage(event.data);
    socket.onclose = () => {
      if (stopped) return;
      onState("lost");
      timer = setTimeout(open, pause);
      pause = Math.min(pause * 2, LONGEST_PAUSE);
    };
  };
  onState("connecting");
  open();
  return {stop() { stopped = true; clearTimeout(timer); socket.close(); }};
}

export const watchDevices = (onMessage, onState) => keepOpen("/api/events", text => onMessage(JSON.parse(text)), onState);

// onBlock gets {number, time (ms), lost, bytes}.
export function openStream(device, service, onBlock, onState) {
  const path = `/api/devices/${pathName(device)}/services/${pathName(service)}/stream?blocks=8`;
  return keepOpen(path, data => {
    const head = new DataView(data, 0, HEAD);
    onBlock({lost: head.getUint32(4), number: head.getBigUint64(8), time: Number(head.getBigUint64(16)) / 1000,
             bytes: new Uint8Array(data, HEAD)});
  }, onState);
}

async function post(path, type, body) {
  const reply = await fetch(path, {method: "POST", headers: {"Content-Type": type}, body})
    .catch(() => { throw new Error("the hub does not answer"); });
  if (reply.status === 401) location.assign("/login");
  const result = await reply.json().catch(() => ({}));
  if (!reply.ok) throw new Error(result.error ?? `the hub answered ${reply.status}`);
}

export const sendCommand = (device, name, parameter) =>
  post(`/api/devices/${pathName(device)}/commands`, "application/json", JSON.stringify({name, parameter}));

export const sendBlock = (device, bytes) =>
  post(`/api/devices/${pathName(device)}/data`, "application/octet-stream", bytes);

const isRefused = async credentials => (await fetch("/api/devices", {credentials}).catch(() => null))?.status === 401;

// When the list cannot be watched: whether that is for want of a login.
export const needsLogin = () => isRefused("same-origin");

// Whether the hub has a token, so that there is a login to end.
export const hasLogin = () => isRefused("omit");
