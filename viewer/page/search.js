// SPDX-License-Identifier: MIT
// Decides which records the list holds: all, or those that match the query within the chosen span. Counts the matches,
// and adds what arrives.

import { announce } from "./announce.js";
import { ask, cancel } from "./api.js";
import * as cache from "./record_cache.js";
import { byId } from "./dom.js";
import * as numbers from "./numbers.js";
import { AllRecords, FewRecords, Matches } from "./places.js";
import * as session from "./session.js";

const FIRST = 100; // matches that are shown before all are counted

export class Search {
  #list;
  #latest = 0; // the number of the latest search
  #isSearching = false;
  #isGrowing = false;
  #isStale = false; // more arrived meanwhile
  #isFinding = false;
  #hasMoved = false; // the user has scrolled since the search began
  #missed = 0; // records that arrived while the end was not shown
  #marked = null; // counts of a query that is only marked: Matches
  #matching = { first: 1, last: 0, seqs: new Set() }; // of the marked query, near what is seen

  constructor(list) {
    this.#list = list;
    list.isMatching = (seq) => !session.view.filters && this.#matching.seqs.has(seq);
    list.addEventListener("drawn", () => this.#findMatching());
    list.addEventListener("moved", () => { this.#hasMoved = true; });
    byId("new").addEventListener("click", () => session.change({ follows: true }));
  }

  // Starts over with the present query. `anchor` is the record to keep in view; null shows the end.
  async start(anchor) {
    const number = ++this.#latest;
    const { lastSeq } = session.live;
    this.#isSearching = true;
    await this.#search(anchor, () => number === this.#latest);
    if (number !== this.#latest) return;
    this.#isSearching = false;
    if (session.live.lastSeq > lastSeq) this.grow();
  }
  async #search(anchor, isLatest) {
    cache.outdate();
    this.#marked = null;
    this.#matching = { first: 1, last: 0, seqs: new Set() };
    this.#setMissed(0);
    const { firstSeq, lastSeq } = session.live;
    for (const name of ["blocks", "listed", "grown", "oldest", "first", "matching"]) cancel(name);
    if (!session.isFiltered() || lastSeq === 0) {
      const all = new AllRecords(firstSeq, lastSeq);
      await this.#list.prepare(all, anchor);
      if (!isLatest()) return;
      await this.#list.use(all, anchor);
      this.#showCount();
      await this.#list.settle();
      if (isLatest()) this.#countMarked(isLatest);
      return;
    }
    this.#showCount("…");
    let isCounted = false;
    const counted = Matches.count(session.filter(), firstSeq, lastSeq);
    counted.then((matches) => { isCounted = matches !== null; });
    const few = await this.#firstMatches(anchor, lastSeq);
    if (!isLatest()) return;
    this.#hasMoved = false;
    if (few && !isCounted) await this.#list.use(few, anchor);
    const matches = await counted;
    if (!isLatest() || !matches) return;
    if (few) matches.know(few);
    await matches.knowRare();
    if (!isLatest()) return;
    const place = session.view.follows ? null : (this.#hasMoved && this.#list.anchor()) || anchor;
    await this.#list.prepare(matches, place);
    if (!isLatest()) return;
    await this.#list.use(matches, session.view.follows ? null : place);
    this.#showCount();
    announce(`${numbers.plural(matches.total, "match")} of ${numbers.count(this.#stored)}`);
    await this.#list.settle();
  }
  async #firstMatches(anchor, lastSeq) {
    const which = anchor ? { after: anchor.seq - 1 } : { before: lastSeq + 1 };
    const answer = await ask("first", "records", { ...session.filter(), ...which, limit: FIRST });
    if (!answer) return null;
    cache.add(answer.records);
    const seqs = answer.records.map(({ seq }) => seq);
    const isAll = seqs.length < FIRST; // that there are on this side of the anchor
    const from = anchor ? anchor.seq : isAll ? -Infinity : seqs[0];
    const to = anchor && !isAll ? seqs.at(-1) : Infinity;
    return new FewRecords(seqs, from, to);
  }

  // A marked query does not narrow the list, but has a count.
  async #countMarked(isLatest) {
    if (!session.view.q.trim() || this.#stored === 0) return;
    this.#showCount("…");
    const matches = await Matches.count(session.question(), session.live.firstSeq, session.live.lastSeq);
    if (!matches || !isLatest()) return;
    this.#marked = matches;
    this.#showCount();
    announce(`${numbers.plural(matches.total, "match")} of ${numbers.count(this.#stored)}`);
  }
  async #findMatching() {
    if (session.view.filters || !session.view.q.trim() || this.#isFinding) return;
    const rows = document.querySelectorAll(".rows [data-seq]");
    if (rows.length === 0) return;
    const first = Number(rows[0].dataset.seq);
    const last = Number(rows[rows.length - 1].dataset.seq);
    if (first >= this.#matching.first && last <= this.#matching.last) return;
    this.#isFinding = true;
    const wide = { first: Math.max(1, first - 200), last: Math.min(session.live.lastSeq, last + 200) };
    const answer = await ask("matching", "blocks", { ...session.question(), ...wide, size: 1 });
    this.#isFinding = false;
    if (!answer) return;
    this.#matching = { ...wide, seqs: new Set(answer.blocks.map(([seq]) => seq)) };
    this.#list.draw();
  }

  // Adds what arrived since the last call.
  async grow() {
    this.#isStale = this.#isGrowing;
    if (this.#isGrowing || this.#isSearching) return;
    this.#isGrowing = true;
    const number = this.#latest;
    try {
      const { firstSeq, lastSeq } = session.live;
      const { places } = this.#list;
      const anchor = session.view.follows ? null : this.#list.anchor();
      const wasEmpty = places instanceof AllRecords && places.total === 0;
      if (lastSeq > 0 && session.isFiltered() && wasEmpty) {
        await this.start(anchor);
        return;
      }
      const [added] = await Promise.all([places.grow(firstSeq, lastSeq), this.#marked?.grow(firstSeq, lastSeq)]);
      if (number !== this.#latest || places !== this.#list.places) return;
      if (session.view.follows) await this.#list.prepareEnd();
      if (number !== this.#latest || places !== this.#list.places) return;
      if (session.view.follows) this.#setMissed(0);
      else this.#setMissed(this.#missed + added);
      this.#list.refresh(session.view.follows ? null : anchor);
      this.#showCount();
    } finally {
      this.#isGrowing = false;
      if (this.#isStale) setTimeout(() => this.grow(), 0);
    }
  }

  seeEnd() {
    this.#setMissed(0);
  }
  #setMissed(number) {
    this.#missed = number;
    const button = byId("new");
    button.hidden = number === 0;
    const text = `↓ ${numbers.count(number)} new`;
    if (button.textContent !== text) button.textContent = text;
  }

  get #stored() {
    const { firstSeq, lastSeq } = session.live;
    return firstSeq > 0 ? lastSeq - firstSeq + 1 : 0;
  }
  // Shows the number of matches, or `waiting` while it is not known.
  #showCount(waiting) {
    const field = byId("count");
    const { places } = this.#list;
    const hasQuery = session.isFiltered() || session.view.q.trim() !== "";
    const exact = this.#stored === 0 ? 0 : session.isFiltered() || !hasQuery ? places.isExact && places.total : this.#marked?.total;
    if (waiting || exact === false || exact === undefined) {
      field.removeAttribute("data-count");
      field.textContent = hasQuery ? `… of ${numbers.count(this.#stored)}` : "";
      return;
    }
    field.dataset.count = exact;
    field.textContent = hasQuery ? `${numbers.count(exact)} of ${numbers.count(this.#stored)}` : numbers.plural(exact, "record");
    byId("empty").hidden = places.total > 0;
    byId("empty").textContent = this.#stored === 0 ? "No records yet" : `No record matches.\nEsc clears the query.`;
  }
}
