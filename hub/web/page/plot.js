// Moving plots on a canvas. They draw when the browser has time for it, so not at all in a tab in the background.

const waiting = new Set();

// draw() of the view runs before the next frame, once.
export function drawSoon(view) {
  if (waiting.size === 0) {
    requestAnimationFrame(() => {
      const views = [...waiting];
      waiting.clear();
      for (const each of views) each.draw();
    });
  }
  waiting.add(view);
}

const MOST_POINTS = 12000;
const SERIES = ["--s1", "--s2", "--s3", "--s4", "--s5", "--s6"];
const style = name => getComputedStyle(document.documentElement).getPropertyValue(name);

// Fits the canvas to its place and the screen's density. Null if it is not shown.
function contextOf(canvas) {
  const density = window.devicePixelRatio || 1;
  const width = Math.round(canvas.clientWidth * density), height = Math.round(canvas.clientHeight * density);
  if (width === 0 || height === 0) return null;
  if (canvas.width !== width || canvas.height !== height) { canvas.width = width; canvas.height = height; }
  const context = canvas.getContext("2d");
  context.setTransform(density, 0, 0, density, 0, 0);
  context.clearRect(0, 0, canvas.clientWidth, canvas.clientHeight);
  return context;
}

// Round values between low and high, about four.
function ticksOf(low, high) {
  const rough = (high - low) / 4, power = 10 ** Math.floor(Math.log10(rough));
  const step = [1, 2, 5, 10].map(factor => factor * power).find(size => size >= rough);
  const ticks = [];
  for (let tick = Math.ceil(low / step) * step; tick <= high + step / 1e6; tick += step) ticks.push(Number(tick.toPrecision(6)));
  return ticks;
}

export class Plot {
  // seconds: the time that it shows. small: without an axis, from 0 on.
  constructor(canvas, {seconds = 60, small = false} = {}) {
    Object.assign(this, {canvas, seconds, small, series: new Map()});
  }

  // Values that came faster than 200 a second push out older ones before their time.
  add(name, value, time = performance.now()) {
    if (!this.series.has(name)) {
      if (this.series.size === SERIES.length) return;
      this.series.set(name, []);
    }
    const points = this.series.get(name);
    points.push([time, value]);
    const oldest = time - this.seconds * 1000;
    // Two points more than are shown, in batches: the line goes on to the left edge.
    if (points.length > MOST_POINTS || points[0][0] < oldest - 5000) {
      points.splice(0, Math.max(points.length - MOST_POINTS, points.findIndex(point => point[0] >= oldest) - 1, 0));
    }
    drawSoon(this);
  }

  range() {
    let low = Infinity, high = -Infinity;
    for (const points of this.series.values()) {
      for (const [, value] of points) { low = Math.min(low, value); high = Math.max(high, value); }
    }
    if (this.small) low = 0;
    if (!(high > low)) { high = low + (Math.abs(low) || 1) * (this.small ? 1 : 0.5); low -= this.small ? 0 : (Math.abs(low) || 1) * 0.5; }
    const margin = (high - low) * 0.06;
    return [this.small ? 0 : low - margin, high + margin];
  }

  draw() {
    const context = contextOf(this.canvas);
    if (context === null || this.series.size === 0) return;
    const width = this.canvas.clientWidth, height = this.canvas.clientHeight;
    const [low, high] = this.range();
    const left = this.small ? 0 : 48, bottom = this.small ? height - 1 : height - 20;
    const y = value => bottom - (value - low) / (high - low) * (bottom - 4);
    const now = performance.now();
    const x = time => width - (now - time) / (this.seconds * 1000) * (width - left);
    if (!this.small) this.drawAxes(context, low, high, y, left, bottom, width);
    context.save();
    context.beginPath();
    context.rect(left, 0, width - left, height);
    context.clip();
    let index = 0;
    for (const points of this.series.values()) {
      context.strokeStyle = style(SERIES[index++]);
      context.lineWidth = this.small ? 1.5 : 2;
      context.lineJoin = "round";
      context.beginPath();
      for (const [time, value] of points) context.lineTo(x(time), y(value));
      context.stroke();
    }
    context.restore();
  }

  drawAxes(context, low, high, y, left, bottom, width) {
    context.font = "12px system-ui, sans-serif";
    context.fillStyle = style("--soft");
    context.strokeStyle = style("--line");
    context.textBaseline = "middle";
    context.textAlign = "right";
    for (const tick of ticksOf(low, high)) {
      context.beginPath();
      context.moveTo(left, Math.round(y(tick)) + 0.5);
      context.lineTo(width, Math.round(y(tick)) + 0.5);
      context.stroke();
      context.fillText(String(tick), left - 6, y(tick));
    }
    context.textAlign = "left";
    context.fillText(`${this.seconds} s ago`, left, bottom + 12);
    context.textAlign = "right";
    context.fillText("now", width, bottom + 12);
  }
}
