// SPDX-License-Identifier: MIT
'use strict';

const PLOT_SECONDS = 10;

/** The colour of a joint, everywhere on the page. */
function jointColour(joint, joints) {
  return `hsl(${Math.round(joint * 360 / joints)} 70% ${joint % 2 ? 42 : 56}%)`;
}

/** The last seconds of some fields of all joints, in rings that are allocated once. */
class History {
  constructor(joints, fields, hz) {
    this.joints = joints;
    this.size = Math.ceil(PLOT_SECONDS * hz * 1.5);
    this.times = new Float64Array(this.size);
    this.rings = Object.fromEntries(fields.map((field) =>
      [field, Array.from({length: joints}, () => new Float32Array(this.size))]));
    this.count = 0;
  }

  /** @param value value(field, joint) of the newest status */
  add(time, value) {
    const at = this.count++ % this.size;
    this.times[at] = time;
    for (const [field, rings] of Object.entries(this.rings)) {
      for (let joint = 0; joint < this.joints; ++joint) rings[joint][at] = value(field, joint);
    }
  }

  /** Where the last seconds begin, as a count. */
  first(now) {
    let first = Math.max(0, this.count - this.size);
    while (first < this.count && this.times[first % this.size] < now - PLOT_SECONDS) ++first;
    return first;
  }
}

/**
 * One field of all joints over the last seconds, on a canvas that scrolls: what is drawn is shifted to the left, and only
 * what is new is drawn. All is drawn anew when the scale changes, which therefore keeps to round numbers.
 */
class Plot {
  constructor(figure, field) {
    this.figure = figure;
    this.canvas = figure.querySelector('canvas');
    this.range = figure.querySelector('.range');
    this.context = this.canvas.getContext('2d', {alpha: false});  // opaque: nothing has to be blended with the page
    this.select = figure.querySelector('select');
    this.field = field;
    this.low = this.high = NaN;  // of the scale
    this.last = null;            // what was drawn last
    this.reset();
    new ResizeObserver(() => this.reset()).observe(this.canvas);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.reset());
  }

  /** Gives the canvas the pixels that it has on the screen, and the colour of the page. */
  reset() {
    const {canvas, context, last} = this;
    this.ratio = window.devicePixelRatio || 1;
    canvas.width = Math.round(canvas.clientWidth * this.ratio);
    canvas.height = Math.round(canvas.clientHeight * this.ratio);
    context.fillStyle = this.background = getComputedStyle(this.figure).backgroundColor;
    context.fillRect(0, 0, canvas.width, canvas.height);
    this.last = null;
    if (last) this.draw(last.history, last.now);
  }

  /** Fits the scale to what is shown, unless it fits well enough already. @return whether there is anything */
  fit(history, first, rings) {
    let low = Infinity, high = -Infinity;
    for (const ring of rings) {
      for (let i = first; i < history.count; ++i) {
        const value = ring[i % history.size];
        if (value < low) low = value;
        if (value > high) high = value;
      }
    }
    if (low > high) return false;
    if (high - low < 1e-3) { low -= 0.5; high += 0.5; }
    if (low >= this.low && high <= this.high && high - low > 0.6 * (this.high - this.low)) return true;
    const power = 10 ** Math.floor(Math.log10(high - low)), span = (high - low) / power;
    const step = span < 2 ? power / 5 : span < 5 ? power / 2 : power;
    this.low = Math.floor(low / step) * step;
    this.high = Math.ceil(high / step) * step;
    const digits = Math.max(0, -Math.floor(Math.log10(step) + 1e-9));
    const shown = `${this.low.toFixed(digits)} … ${this.high.toFixed(digits)}`;
    if (this.range.textContent !== shown) this.range.textContent = shown;
    return true;
  }

  draw(history, now) {
    const {canvas, context, field, last} = this, {width, height} = canvas, rings = history.rings[field];
    if (width === 0 || !this.fit(history, history.first(now), rings)) return;
    const {low, high} = this, margin = 0.04 * height, scale = (height - 2 * margin) / (high - low);
    const pixels = width / PLOT_SECONDS, begin = Math.floor(now * pixels) - width;  // whole columns, for a clean shift
    const across = (time) => time * pixels - begin, down = (value) => margin + (high - value) * scale;
    const isShifted = last && last.history === history && last.field === field && last.low === low && last.high === high;
    let from = 0;
    if (isShifted && begin - last.begin < width) {
      if (begin > last.begin) context.drawImage(canvas, last.begin - begin, 0);
      from = Math.max(0, Math.floor(across(last.time)) - 4);  // some old columns too, so that the lines have no seams
    }
    let first = history.count - 1;
    while (first > 0 && history.count - first < history.size && across(history.times[first % history.size]) > from - 4) --first;

    context.save();
    context.beginPath();
    context.rect(from, 0, width - from, height);
    context.clip();
    context.fillStyle = this.background;
    context.fillRect(from, 0, width - from, height);
    context.strokeStyle = '#8884';
    context.lineWidth = this.ratio;  // wider lines cost several times as much to draw
    context.beginPath();
    for (let time = 2 * Math.floor((begin + from) / pixels / 2); across(time) <= width; time += 2) {
      context.moveTo(Math.floor(across(time)) + 0.5, 0);
      context.lineTo(Math.floor(across(time)) + 0.5, height);
    }
    if (low < 0 && high > 0) {
      context.moveTo(from, Math.round(down(0)) + 0.5);
      context.lineTo(width, Math.round(down(0)) + 0.5);
    }
    context.stroke();
    for (let joint = 0; joint < rings.length; ++joint) {
      context.strokeStyle = jointColour(joint, rings.length);
      context.beginPath();
      for (let i = first; i < history.count; ++i) {
        const value = rings[joint][i % history.size];
        if (!isNaN(value)) context.lineTo(across(history.times[i % history.size]), down(value));
      }
      context.stroke();
    }
    context.restore();
    this.last = {history, now, field, low, high, begin, time: history.times[(history.count - 1) % history.size]};
  }
}
