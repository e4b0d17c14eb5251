// SPDX-License-Identifier: MIT
// The list: of any number of records, only the rows that are seen (and a few beside them) exist.
//
// Every row is ROW pixels high. The scroll position says which places are seen, `places` which records stand there, and
// the cache which of them are loaded. Whatever is missing is asked for, one request at a time, and the rows are drawn
// again when it has come.

import { element } from "./dom.js";
import * as cache from "./record_cache.js";
import * as clock from "./clock.js";
import * as session from "./session.js";
import { AllRecords } from "./places.js";
import { Columns, Row } from "./row.js";
import { ScrollRange } from "./scroll_range.js";

const ROW = 22; // pixels; --row-height in list.css
const BESIDE = 12; // rows beyond each end of what is seen
const AHEAD = 40; // records loaded beyond each end

export class RecordList extends EventTarget {
  places = new AllRecords(0, -1);
  isMatching = () => false; // whether the row of a seq matches a query that is only marked
  isSelected = () => false;
  selected = () => null; // the seq that a change of the list's size keeps in view
  #grid;
  #canvas = element("div", { class: "canvas", role: "presentation" });
  #head = element("div", { class: "head", role: "rowgroup" });
  #rows = element("div", { class: "rows", role: "rowgroup" });
  #scroll;
  #columns = new Columns([]);
  #drawn = new Map(); // key of a row → Row
  #spare = [];
  #isFilling = false;
  #retry = 0;

  // Events: "moved" (by the user; event.delta in pixels), "drawn".
  constructor(grid) {
    super();
    this.#grid = grid;
    this.#canvas.append(this.#head, this.#rows);
    grid.append(this.#canvas);
    this.#scroll = new ScrollRange(grid, this.#canvas, (delta) => {
      this.draw();
      this.dispatchEvent(Object.assign(new Event("moved"), { delta }));
    });
    this.#scroll.settled = () => this.draw();
    new ResizeObserver(() => {
      const selected = this.selected();
      const wasSeen = selected !== null && this.isSeen(selected);
      this.#scroll.measure(this.#head.offsetHeight);
      if (session.view.follows) this.goToEnd();
      else if (wasSeen) this.goTo(selected);
      else this.draw();
    }).observe(grid);
  }

  setColumns(columns) {
    this.#columns = new Columns(columns);
    this.#columns.hasMicroseconds = session.view.microseconds;
    this.#columns.apply(this.#grid, this.#head);
    this.#grid.setAttribute("aria-colcount", this.#columns.count);
    this.#scroll.measure(this.#head.offsetHeight);
  }
  setMicroseconds(isOn) {
    this.#columns.hasMicroseconds = isOn;
    this.#columns.apply(this.#grid, this.#head);
    this.draw();
  }

  get isAtEnd() {
    return this.#scroll.isAtEnd;
  }
  get rowsPerPage() {
    return Math.max(1, Math.floor(this.#scroll.height / ROW) - 1);
  }
  // Undefined while it is not known.
  get topSeq() {
    return this.places.total === 0 ? undefined : this.places.seqAt(Math.ceil(this.#scroll.top / ROW - 0.5));
  }
  // A record and its distance from the upper edge, to be kept when the places change.
  anchor(seq = this.topSeq) {
    if (seq === undefined) return null;
    return { seq, offset: this.places.placeOf(seq) * ROW - this.#scroll.top };
  }
  isSeen(seq) {
    const y = this.places.placeOf(seq) * ROW - this.#scroll.top;
    return y >= 0 && y + ROW <= this.#scroll.height;
  }

  // Shows other places. The anchor's record (or the next one) stays where it was; without an anchor the end is shown.
  async use(places, anchor) {
    this.places = places;
    if (anchor && places.resolveSeq) {
      await places.resolveSeq(anchor.seq);
      if (this.places !== places) return;
    }
    this.#scroll.setLength(places.total * ROW);
    this.#scroll.moveTo(anchor ? places.placeOf(anchor.seq) * ROW - anchor.offset : this.#scroll.max);
    this.#grid.setAttribute("aria-rowcount", places.isExact ? places.total + 1 : -1);
    this.draw();
  }
  // Loads what use() will show, so that no row vanishes in between.
  async prepare(places, anchor) {
    if (anchor) await places.resolveSeq?.(anchor.seq);
    const count = this.rowsPerPage + 2;
    const end = Math.max(0, places.total - count);
    const top = anchor ? Math.min(end, places.placeOf(anchor.seq) - Math.ceil(anchor.offset / ROW)) : end;
    const first = Math.max(0, top - AHEAD);
    const last = Math.min(places.total, Math.max(0, top) + count + AHEAD) - 1;
    if (!places.isResolved(first, last)) await places.resolve(first, last);
    await this.#loadPlaces(places, first, last, "prepared");
  }
  // After `places` grew: keeps the anchor's record where it was, or the end in view.
  refresh(anchor) {
    this.#scroll.setLength(this.places.total * ROW);
    this.#grid.setAttribute("aria-rowcount", this.places.isExact ? this.places.total + 1 : -1);
    if (anchor) {
      const top = this.places.placeOf(anchor.seq) * ROW - anchor.offset;
      if (Math.abs(top - this.#scroll.top) >= 1) this.#scroll.moveTo(top);
    } else {
      this.#scroll.moveTo(this.#scroll.max);
    }
    this.draw();
  }
  goToEnd() {
    this.#scroll.moveTo(this.#scroll.max);
    this.draw();
  }
  // Brings a record into view: by the least movement, or to the middle.
  async goTo(seq, isCentred = false) {
    await this.places.resolveSeq?.(seq);
    const y = this.places.placeOf(seq) * ROW;
    const { top, height } = this.#scroll;
    if (isCentred) this.#scroll.moveTo(y - Math.floor(height / 2 / ROW) * ROW);
    else if (y < top) this.#scroll.moveTo(y);
    else if (y + ROW > top + height) this.#scroll.moveTo(y + ROW - height);
    this.draw();
  }
  scrollBy(rows) {
    this.#scroll.moveTo(this.#scroll.top + rows * ROW);
    this.draw();
  }

  #window(beside) {
    const { top, height } = this.#scroll;
    const first = Math.max(0, Math.floor(top / ROW) - beside);
    const last = Math.min(this.places.total, Math.ceil((top + height) / ROW) + beside) - 1;
    return { first, last };
  }

  draw() {
    const { first, last } = this.#window(BESIDE);
    const kept = this.#drawn;
    this.#drawn = new Map();
    const wanted = [];
    let isMissing = !this.places.isResolved(first, last);
    for (let place = first; place <= last; place += 1) {
      const seq = this.places.seqAt(place);
      if (seq !== undefined && cache.isMissing(seq)) isMissing = true;
      wanted.push({ place, seq, key: seq ?? -1 - place });
    }
    const keys = new Set(wanted.map(({ key }) => key));
    for (const [key, row] of kept) {
      if (!keys.has(key)) this.#spare.push(row);
    }
    const records = wanted.map(({ seq }) => (seq === undefined ? undefined : cache.get(seq)));
    if (this.#columns.fit(records)) this.#columns.apply(this.#grid, this.#head);
    let previous = cache.get(this.places.seqAt(first - 1) ?? -1);
    let next = this.#rows.firstElementChild;
    wanted.forEach(({ place, seq, key }, index) => {
      const row = kept.get(key) ?? this.#spare.pop() ?? new Row();
      this.#drawn.set(key, row);
      const record = records[index];
      const newDay = this.#newDay(previous, record);
      row.show(place, seq, record, this.#columns, session.info?.levels ?? [], newDay, seq !== undefined && this.isMatching(seq));
      row.node.setAttribute("aria-selected", String(seq !== undefined && this.isSelected(seq)));
      if (row.node === next) next = next.nextElementSibling;
      else this.#rows.insertBefore(row.node, next);
      previous = record;
    });
    while (next) {
      const gone = next;
      next = next.nextElementSibling;
      gone.remove();
    }
    this.#spare.length = Math.min(this.#spare.length, 100);
    this.#rows.style.transform = `translateY(${this.#scroll.origin + first * ROW}px)`;
    this.#showDate();
    if (isMissing) this.#fill();
    this.dispatchEvent(new Event("drawn"));
  }
  #newDay(previous, record) {
    if (!record || record.isGone || !previous || previous.isGone) return "";
    return clock.dayNumber(previous.time) === clock.dayNumber(record.time) ? "" : clock.date(record.time);
  }
  // The head of the time column is the date of the topmost record.
  #showDate() {
    const cell = this.#head.querySelector(".time");
    const record = cache.get(this.topSeq);
    if (!cell || !record || record.isGone) return;
    const [weekday, day, month, year] = clock.date(record.time).split(" ");
    const text = year ? `${day} ${month.slice(0, 3)} ${year}` : "Time";
    if (cell.textContent === text) return;
    cell.textContent = text;
    cell.title = `${weekday} ${day} ${month} ${year}`;
    cell.setAttribute("aria-label", `Time, ${cell.title}`);
  }

  async #fill() {
    if (this.#isFilling) return;
    this.#isFilling = true;
    let hasLoaded = false;
    try {
      hasLoaded = await this.#load();
    } finally {
      this.#isFilling = false;
    }
    clearTimeout(this.#retry);
    if (hasLoaded) this.draw();
    else this.#retry = setTimeout(() => this.draw(), 500);
  }
  async #load() {
    const { places } = this;
    const { first, last } = this.#window(AHEAD);
    if (!places.isResolved(first, last)) {
      const anchor = session.view.follows ? null : this.anchor();
      const total = places.total;
      if (!(await places.resolve(first, last))) return false;
      if (places === this.places && places.total !== total) this.refresh(anchor);
    }
    return (await this.#loadPlaces(this.places, first, last, "rows")) || places !== this.places;
  }
  #loadPlaces(places, first, last, name) {
    const seqs = [];
    for (let place = first; place <= last; place += 1) {
      const seq = places.seqAt(place);
      if (seq !== undefined) seqs.push(seq);
    }
    return cache.load(seqs, { q: session.view.q, case: session.view.matchCase }, name);
  }
  // Loads the last records, before refresh() shows them: what follows does not flicker.
  async prepareEnd() {
    const last = this.places.total - 1;
    const first = Math.max(0, last - this.rowsPerPage - 2);
    if (!this.places.isResolved(first, last)) await this.places.resolve(first, last);
    await this.#loadPlaces(this.places, first, last, "end");
  }
  // Loads what the list shows at the moment. Resolves when the rows stand.
  async settle() {
    if (!this.#isFilling && (await this.#load())) this.draw();
  }
}
