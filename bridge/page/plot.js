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

/** One field of all joints over the last seconds, on a canvas. */
class Plot {
  constructor(figure, field) {
    this.figure = figure;
    this.canvas = figure.querySelector('canvas');
    this.range = figure.querySelector('.range');
    this.context = this.canvas.getContext('2d');
    this.select = figure.querySelector('select');
    this.field = field;
  }

  /** Gives the canvas the pixels that it has on the screen. @return [width, height] in CSS pixels */
  fit() {
    const width = this.canvas.clientWidth, height = this.canvas.clientHeight, ratio = window.devicePixelRatio || 1;
    if (this.canvas.width !== Math.round(width * ratio) || this.canvas.height !== Math.round(height * ratio)) {
      this.canvas.width = Math.round(width * ratio);
      this.canvas.height = Math.round(height * ratio);
    }
    this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
    return [width, height];
  }

  /** One joint's line; what keeps within half a pixel of a straight stretch is drawn as one, which costs far less. */
  trace(history, first, across, ring, down) {
    const {context} = this;
    let fromX = NaN, fromY = NaN, lastX = NaN, lastY = NaN, least = -Infinity, most = Infinity;  // slopes of the stretch
    context.beginPath();
    for (let i = first; i < history.count; ++i) {
      const x = across(history.times[i % history.size]), y = down(ring[i % history.size]);
      if (isNaN(y)) continue;
      if (isNaN(fromX)) context.moveTo(fromX = x, fromY = y);
      const slope = (y - fromY) / Math.max(x - fromX, 1e-6);
      if (slope < least || slope > most) {
        context.lineTo(fromX = lastX, fromY = lastY);
        least = -Infinity;
        most = Infinity;
      }
      const way = Math.max(x - fromX, 1e-6);
      least = Math.max(least, (y - 0.5 - fromY) / way);
      most = Math.min(most, (y + 0.5 - fromY) / way);
      lastX = x;
      lastY = y;
    }
    context.lineTo(lastX, lastY);
    context.stroke();
  }

  draw(history, now) {
    const [width, height] = this.fit();
    if (width === 0) return;
    const {context} = this, rings = history.rings[this.field], first = history.first(now);
    let low = Infinity, high = -Infinity;
    for (const ring of rings) {
      for (let i = first; i < history.count; ++i) {
        const value = ring[i % history.size];
        if (value < low) low = value;
        if (value > high) high = value;
      }
    }
    context.clearRect(0, 0, width, height);
    if (low > high) return;
    if (high - low < 1e-3) { low -= 0.5; high += 0.5; }
    const margin = 0.06 * (high - low), top = high + margin, scale = height / (high - low + 2 * margin);
    context.strokeStyle = '#8884';
    context.lineWidth = 1;  // wider lines cost several times as much to draw
    context.beginPath();
    for (let s = 0; s <= PLOT_SECONDS; s += 2) {
      const x = Math.round(width * s / PLOT_SECONDS) + 0.5;
      context.moveTo(x, 0);
      context.lineTo(x, height);
    }
    if (low < 0 && high > 0) {
      context.moveTo(0, Math.round(top * scale) + 0.5);
      context.lineTo(width, Math.round(top * scale) + 0.5);
    }
    context.stroke();
    const pixels = width / PLOT_SECONDS, begin = now - PLOT_SECONDS;
    for (let joint = 0; joint < rings.length; ++joint) {
      context.strokeStyle = jointColour(joint, rings.length);
      this.trace(history, first, (time) => (time - begin) * pixels, rings[joint], (value) => (top - value) * scale);
    }
    const digits = high - low < 10 ? 2 : 1;
    const shown = `${low.toFixed(digits)} … ${high.toFixed(digits)}`;
    if (this.range.textContent !== shown) this.range.textContent = shown;
  }
}
