// Strip charts of the last seconds of IMU data, drawn on a 2-D canvas.
'use strict';

const kGapSeconds = 0.1;  // samples further apart than this are not joined

class StripChart {
  // names and colours of the series; `seconds` of history are kept and shown.
  constructor(canvas, names, colours, seconds) {
    this.canvas = canvas;
    this.names = names;
    this.colours = colours;
    this.seconds = seconds;
    this.samples = [];  // [t, v0, v1, ...]
  }

  push(t, values) {
    const last = this.samples[this.samples.length - 1];
    if (last && t < last[0]) this.samples = [];  // the device clock started over (reconnect)
    this.samples.push([t, ...values]);
    const oldest = t - this.seconds;
    let drop = 0;
    while (drop < this.samples.length && this.samples[drop][0] < oldest) drop++;
    if (drop) this.samples.splice(0, drop);
  }

  draw() {
    const c = this.canvas, g = c.getContext('2d');
    const w = c.width, h = c.height, left = 44;
    g.fillStyle = '#111315';
    g.fillRect(0, 0, w, h);
    if (this.samples.length < 2) return;
    let lo = Infinity, hi = -Infinity;
    for (const s of this.samples) for (let i = 1; i < s.length; i++) { lo = Math.min(lo, s[i]); hi = Math.max(hi, s[i]); }
    if (hi - lo < 1e-3) { hi += 0.5; lo -= 0.5; }
    const pad = (hi - lo) * 0.1; lo -= pad; hi += pad;
    const t1 = this.samples[this.samples.length - 1][0], t0 = t1 - this.seconds;
    const x = t => left + (t - t0) / this.seconds * (w - left - 4);
    const y = v => h - 4 - (v - lo) / (hi - lo) * (h - 8);
    g.strokeStyle = '#333a42'; g.fillStyle = '#8a949e'; g.font = '11px monospace'; g.lineWidth = 1;
    for (const v of [lo + pad, (lo + hi) / 2, hi - pad]) {
      g.beginPath(); g.moveTo(left, y(v)); g.lineTo(w, y(v)); g.stroke();
      g.fillText(v.toFixed(2), 2, y(v) + 4);
    }
    for (let i = 0; i < this.names.length; i++) {
      g.strokeStyle = this.colours[i]; g.lineWidth = 1.5; g.beginPath();
      // A gap (frames the device dropped, with their samples) stays a gap, not a straight line.
      this.samples.forEach((s, k) => (k && s[0] - this.samples[k - 1][0] < kGapSeconds
        ? g.lineTo(x(s[0]), y(s[i + 1])) : g.moveTo(x(s[0]), y(s[i + 1]))));
      g.stroke();
      g.fillStyle = this.colours[i];
      g.fillText(this.names[i] + ' ' + this.samples[this.samples.length - 1][i + 1].toFixed(2), left + 8 + i * 110, 14);
    }
  }
}
