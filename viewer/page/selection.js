// SPDX-License-Identifier: MIT
// The selected records: one, or the range between two. Moves the selection and copies it.

import { announce, showError } from "./announce.js";
import { ask } from "./api.js";
import { byId } from "./dom.js";
import * as session from "./session.js";

const AT_ONCE = 500; // the server's limit of lines
const MOST = 20_000; // lines of one copy

export class Selection {
  seq = null; // where the keyboard is
  #start = null; // the other end of the range
  #list;
  #grid;

  constructor(list, grid) {
    this.#list = list;
    this.#grid = grid;
    list.isSelected = (seq) => this.seq !== null && seq >= Math.min(this.seq, this.#start) && seq <= Math.max(this.seq, this.#start);
    list.selected = () => this.seq;
    list.addEventListener("drawn", () => this.#pointAtActive());
    grid.addEventListener("click", (event) => {
      const row = event.target.closest("[data-seq]");
      if (!row || !document.getSelection().isCollapsed) return;
      this.select(Number(row.dataset.seq), event.shiftKey);
      if (!event.shiftKey) this.open();
    });
  }

  select(seq, extends_ = false) {
    this.seq = seq;
    if (!extends_ || this.#start === null) this.#start = seq;
    this.#list.draw();
  }
  // Opens the selected record. Somebody who reads a record does not want the list to move.
  open() {
    if (this.seq === null) return;
    const stay = session.view.follows ? { follows: false, at: this.#list.topSeq ?? null } : {};
    session.change({ open: this.seq, ...stay }, session.view.open === null ? "new" : "same");
  }
  clear() {
    this.seq = null;
    this.#start = null;
    this.#list.draw();
  }
  // Moves by places (Infinity: to the end) and keeps the selected record in view.
  async move(places, extends_ = false) {
    const { places: shown } = this.#list;
    if (shown.total === 0) return;
    let place;
    if (this.seq === null || Math.abs(places) === Infinity) {
      place = places === -Infinity ? 0 : places === Infinity ? shown.total - 1 : shown.placeOf(this.#list.topSeq ?? 0);
    } else {
      await shown.resolveSeq?.(this.seq);
      const here = shown.placeOf(this.seq);
      const isBetween = places > 0 && shown.seqAt(here) !== this.seq; // the selected record is not in the list
      place = Math.min(Math.max(0, here + places - (isBetween ? 1 : 0)), shown.total - 1);
    }
    if (!shown.isResolved(place, place)) await shown.resolve(place, place);
    const seq = shown.seqAt(place);
    if (seq === undefined || shown !== this.#list.places) return;
    if (places < 0) session.change({ follows: false, at: this.#list.topSeq ?? null });
    this.select(seq, extends_);
    await this.#list.goTo(seq);
    if (this.#list.isAtEnd && places > 0) session.change({ follows: true });
    if (session.view.open !== null && !extends_) session.change({ open: seq });
  }
  // The next match above (1) or below (-1) the selected record.
  async findNext(direction) {
    if (!session.view.q.trim()) {
      announce("There is no query");
      return;
    }
    const from = this.seq ?? this.#list.topSeq ?? 0;
    const which = direction > 0 ? { after: this.seq === null ? from - 1 : from } : { before: from };
    const answer = await ask("next", "records", { ...session.question(), ...which, limit: 1 });
    const found = answer?.records[0];
    if (!found) {
      if (answer) announce(direction > 0 ? "No further match" : "No earlier match");
      return;
    }
    session.change({ follows: false, at: this.#list.topSeq ?? null });
    this.select(found.seq);
    await this.#list.goTo(found.seq);
    if (session.view.open !== null) session.change({ open: found.seq });
  }

  #pointAtActive() {
    const isDrawn = this.seq !== null && byId(`row-${this.seq}`);
    if (isDrawn) this.#grid.setAttribute("aria-activedescendant", `row-${this.seq}`);
    else this.#grid.removeAttribute("aria-activedescendant");
  }

  // Copies the selected records as the tab-separated lines that `runeflow query` prints.
  async copy() {
    if (this.seq === null) return;
    const { places } = this.#list;
    const first = places.placeOf(Math.min(this.seq, this.#start));
    const last = Math.min(places.placeOf(Math.max(this.seq, this.#start)), first + MOST - 1);
    const lines = [];
    for (let place = first; place <= last; place += AT_ONCE) {
      const end = Math.min(last, place + AT_ONCE - 1);
      if (!places.isResolved(place, end) && !(await places.resolve(place, end))) return;
      const seqs = [];
      for (let next = place; next <= end; next += 1) seqs.push(places.seqAt(next));
      const isAll = seqs.at(-1) - seqs[0] === seqs.length - 1;
      const answer = await ask("lines", "lines", isAll ? { first: seqs[0], last: seqs.at(-1) } : { seqs: seqs.filter((seq) => seq !== undefined).join(",") });
      if (!answer) return;
      lines.push(answer.text);
    }
    await copyText(lines.join(""), last === first ? "Copied the record" : `Copied ${last - first + 1} records`);
  }
}

export async function copyText(text, sentence) {
  try {
    await navigator.clipboard.writeText(text);
    announce(sentence);
  } catch {
    showError("The browser does not let this page write to the clipboard.");
  }
}
