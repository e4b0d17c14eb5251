// SPDX-License-Identifier: MIT
// How many records when: bars stacked by level, the matches in front of all records. Dragging chooses a span of time,
// which the axis then shows; a click goes back to all times. With the keyboard: arrows move a bar, Shift extends the
// choice, Enter takes it, Delete clears it.

import { announce } from "./announce.js";
import { ask } from "./api.js";
import { byId, element } from "./dom.js";
import * as clock from "./clock.js";
import * as numbers from "./numbers.js";
import { paced } from "./paced.js";
import * as session from "./session.js";

const BAR = 7; // pixels a bar takes, at least
const MOST = 400; // bars
const HEIGHT = 64; // of the drawing, in its own units
const DRAG = 4; // pixels that make a click a drag
const SVG = "http://www.w3.org/2000/svg";

const sum = (counts) => counts.reduce((total, count) => total + count, 0);

export class Timeline {
  #section = byId("timeline");
  #svg = document.createElementNS(SVG, "svg");
  #chosen = element("div", { class: "chosen", hidden: true });
  #hint = element("div", { class: "hint", hidden: true });
  #plot;
  #axis = element("div", { class: "axis", "aria-hidden": "true" });
  #data = null;
  #drag = null; // {from, to} in bars, and {x} in pixels
  #cursor = -1; // bars, by keyboard
  #start = -1;
  #soon = paced(() => this.#load(), 700, 8);

  constructor() {
    this.#svg.setAttribute("aria-hidden", "true");
    this.#svg.setAttribute("preserveAspectRatio", "none");
    this.#plot = element("div", {
      class: "plot", tabindex: "0", role: "slider", "aria-label": "Time span", "aria-valuemin": "0", "aria-valuemax": "0", "aria-valuenow": "0",
    }, this.#svg, this.#chosen, this.#hint);
    this.#section.append(this.#plot, this.#axis);
    this.#plot.addEventListener("pointerdown", (event) => this.#press(event));
    this.#plot.addEventListener("pointermove", (event) => this.#move(event));
    this.#plot.addEventListener("pointerup", (event) => this.#release(event));
    this.#plot.addEventListener("pointercancel", () => this.#endDrag());
    this.#plot.addEventListener("pointerleave", () => {
      if (!this.#drag) this.#hint.hidden = true;
    });
    this.#plot.addEventListener("blur", () => this.#endDrag());
    this.#plot.addEventListener("keydown", (event) => this.#key(event));
    let width = 0;
    new ResizeObserver(([{ contentRect }]) => {
      if (Math.abs(contentRect.width - width) < BAR * 3) return;
      width = contentRect.width;
      if (this.#data) this.#soon();
    }).observe(this.#plot);
  }

  // Asks again: at once after a change of the question, else when there is time.
  refresh(isUrgent = false) {
    this.#soon(isUrgent);
  }
  async #load() {
    if (!session.info || session.live.lastSeq === 0) {
      this.#show(null);
      return;
    }
    const bars = Math.max(20, Math.min(MOST, Math.floor(this.#plot.clientWidth / BAR)));
    const answer = await ask("timeline", "timeline", { ...session.question(), bars }, { slow: true });
    if (answer) this.#show(answer.bars?.length ? answer : null);
  }

  #show(data) {
    this.#data = data;
    if (!data) {
      this.#svg.replaceChildren();
      this.#axis.replaceChildren();
      this.#section.setAttribute("aria-label", "Records over time, no records");
      return;
    }
    const { bars, matches } = data;
    const total = data.total ?? sum(bars.map(sum));
    const matched = data.matched ?? (matches && sum(matches.map(sum)));
    const span = `${clock.moment(data.from, data)} to ${clock.moment(data.until, data)}`;
    const inAll = matches ? `, ${numbers.plural(matched, "match")}` : "";
    this.#section.setAttribute("aria-label", `Records over time, ${span}, ${numbers.plural(total, "record")} in all${inAll}`);
    this.#plot.setAttribute("aria-valuemax", bars.length - 1);
    this.#draw(bars, matches);
    this.#drawAxis(data);
  }
  // One path for all records of a query, and one for each level: a few elements, however many bars.
  #draw(bars, matches) {
    const highest = Math.max(1, ...bars.map(sum));
    this.#svg.setAttribute("viewBox", `0 0 ${bars.length} ${HEIGHT}`);
    const paths = [];
    if (matches) paths.push(this.#path(bars.map((bar) => [0, sum(bar)]), highest));
    const stacked = matches ?? bars;
    const base = stacked.map(() => 0);
    for (let level = 0; level < 6; level += 1) {
      const pieces = stacked.map((bar, index) => {
        const below = base[index];
        base[index] += bar[level];
        return [below, base[index]];
      });
      if (pieces.some(([below, top]) => top > below)) paths.push(this.#path(pieces, highest, level));
    }
    this.#svg.replaceChildren(...paths);
  }
  #path(pieces, highest, level) {
    const path = document.createElementNS(SVG, "path");
    const y = (count) => (HEIGHT - (count / highest) * (HEIGHT - 2)).toFixed(2);
    const thin = HEIGHT - 1; // a bar with a few records is seen beside one with many
    const outlines = pieces.map(([below, top], index) => {
      if (top <= below) return "";
      const upper = Math.min(Number(y(top)), below === 0 ? thin : HEIGHT);
      return `M${index + 0.1} ${y(below)}V${upper}h.8V${y(below)}z`;
    });
    path.setAttribute("d", outlines.join(""));
    if (level !== undefined) path.setAttribute("data-tone", level);
    return path;
  }
  #drawAxis(data) {
    const ticks = this.#plot.clientWidth > 620 ? 5 : 3;
    const times = Array.from({ length: ticks }, (_, index) => data.from + ((data.until - data.from) * index) / (ticks - 1));
    this.#axis.replaceChildren(...times.map((time) => element("span", {}, clock.moment(Math.round(time), data))));
  }

  #barAt(event) {
    const { left, width } = this.#plot.getBoundingClientRect();
    const bars = this.#data.bars.length;
    return Math.min(bars - 1, Math.max(0, Math.floor(((event.clientX - left) / width) * bars)));
  }
  #time(bar) {
    return Math.round(this.#data.from + ((this.#data.until - this.#data.from) * bar) / this.#data.bars.length);
  }
  #press(event) {
    if (!this.#data || event.button !== 0) return;
    this.#plot.setPointerCapture(event.pointerId);
    const bar = this.#barAt(event);
    this.#drag = { x: event.clientX, from: bar, to: bar, isDrag: false, data: this.#data };
  }
  #move(event) {
    if (!this.#data) return;
    const bar = this.#barAt(event);
    if (this.#drag) {
      this.#drag.to = bar;
      this.#drag.isDrag ||= Math.abs(event.clientX - this.#drag.x) > DRAG;
      if (this.#drag.isDrag) this.#mark(this.#drag.from, bar);
    }
    this.#explain(this.#drag?.isDrag ? this.#drag.from : bar, bar);
  }
  #release(event) {
    const drag = this.#drag;
    if (!drag) return;
    drag.to = this.#barAt(event);
    this.#endDrag();
    if (drag.isDrag) this.#choose(drag.from, drag.to);
    else session.change({ span: null }, "new");
  }
  #endDrag() {
    this.#drag = null;
    this.#start = -1;
    this.#cursor = -1;
    this.#chosen.hidden = true;
    this.#hint.hidden = true;
  }
  #choose(one, other) {
    const from = this.#time(Math.min(one, other));
    const until = Math.max(from + 1, this.#time(Math.max(one, other) + 1));
    session.change({ span: { from, until } }, "new");
    announce(`Chosen span ${clock.moment(from, this.#data)} to ${clock.moment(until, this.#data)}`);
  }
  #mark(one, other) {
    const bars = this.#data.bars.length;
    this.#chosen.hidden = false;
    this.#chosen.style.left = `${(Math.min(one, other) / bars) * 100}%`;
    this.#chosen.style.width = `${((Math.abs(other - one) + 1) / bars) * 100}%`;
  }
  // Says what stands in the bars.
  #explain(one, other) {
    const first = Math.min(one, other);
    const last = Math.max(one, other);
    const within = (bars) => sum(bars.slice(first, last + 1).map(sum));
    const matches = this.#data.matches ? `${numbers.count(within(this.#data.matches))} of ` : "";
    const text = `${clock.moment(this.#time(first), this.#data)} – ${clock.moment(this.#time(last + 1), this.#data)}: ${matches}${numbers.plural(within(this.#data.bars), "record")}`;
    this.#hint.textContent = text;
    this.#hint.hidden = false;
    const width = this.#plot.clientWidth;
    const middle = ((other + 0.5) / this.#data.bars.length) * width;
    this.#hint.style.left = `${Math.max(0, Math.min(width - this.#hint.offsetWidth, middle - this.#hint.offsetWidth / 2))}px`;
    return text;
  }
  #key(event) {
    if (!this.#data || event.ctrlKey || event.metaKey || event.altKey) return;
    const bars = this.#data.bars.length;
    const steps = { ArrowLeft: -1, ArrowRight: 1, PageUp: -10, PageDown: 10, Home: -bars, End: bars };
    if (event.key in steps) {
      const before = this.#cursor < 0 ? (steps[event.key] > 0 ? -1 : bars) : this.#cursor;
      this.#cursor = Math.min(bars - 1, Math.max(0, before + steps[event.key]));
      if (!event.shiftKey || this.#start < 0) this.#start = this.#cursor;
      this.#mark(this.#start, this.#cursor);
      this.#plot.setAttribute("aria-valuenow", this.#cursor);
      this.#plot.setAttribute("aria-valuetext", this.#explain(this.#start, this.#cursor));
    } else if (event.key === "Enter" && this.#cursor >= 0) {
      const { start, cursor } = { start: this.#start, cursor: this.#cursor };
      this.#endDrag();
      this.#choose(start, cursor);
    } else if (event.key === "Delete" || event.key === "Backspace") {
      session.change({ span: null }, "new");
    } else if (event.key === "Escape" && this.#cursor >= 0) {
      this.#endDrag();
    } else {
      return;
    }
    event.preventDefault();
    event.stopPropagation();
  }
}
