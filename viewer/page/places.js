// SPDX-License-Identifier: MIT
// Which record stands at which place of the list. A place is a number from 0 to total - 1.
//
// Each class has total, isExact (whether total is final for the records known so far), seqAt(place), placeOf(seq) (the place of
// the first record of the list at or above seq) and resolve(first, last) (async: makes seqAt answer for these places;
// false if the server did not answer).

import { ask } from "./api.js";
import * as cache from "./record_cache.js";

// All records. Their seqs follow each other without gaps, because only the oldest are ever deleted.
export class AllRecords {
  isExact = true;
  constructor(first, last) {
    this.first = first;
    this.last = last;
  }
  get total() {
    return this.first > 0 ? Math.max(0, this.last - this.first + 1) : 0;
  }
  seqAt(place) {
    return this.first + place;
  }
  placeOf(seq) {
    return Math.min(Math.max(0, seq - this.first), this.total);
  }
  isResolved() {
    return true;
  }
  async grow(first, last) {
    const before = this.last;
    this.first = first;
    this.last = last;
    return Math.max(0, last - before);
  }
}

// The first answers to a question, while their number is not known: all matches from the seq `from` to the seq `to`.
export class FewRecords {
  isExact = false;
  constructor(seqs, from, to) {
    this.seqs = seqs;
    this.from = from;
    this.to = to;
  }
  get total() {
    return this.seqs.length;
  }
  seqAt(place) {
    return this.seqs[place];
  }
  placeOf(seq) {
    const place = this.seqs.findIndex((known) => known >= seq);
    return place < 0 ? this.seqs.length : place;
  }
  isResolved() {
    return true;
  }
  async grow() {
    return 0;
  }
}

const LISTED = 4096; // the largest block whose matches are asked for one by one
const KEPT = 300; // blocks with listed matches; more than the list shows rows, each of which may be in a block of its own
const LISTED_AT_ONCE = 100_000; // seqs, the server's limit
const RARE = 500; // matches that are listed at once wherever they stand, the server's limit

// The matches of a question. The server counts them per block of seqs; where the list shows a block, its matches are
// listed.
export class Matches {
  isExact = true;
  #filter;
  #size;
  #blocks = []; // {first, count, place}, ascending; place is that of the first match of the block
  #listed = new Map(); // first seq of a block → seqs of its matches; the latest used stand last
  #last = 0; // seqs up to this one are counted
  #placed = true; // whether every `place` is right

  static sizeFor(records) {
    let size = 256;
    while (size < LISTED && records / size > 2000) size *= 2;
    return size;
  }

  // Counts the matches of `filter` in [first, last]. Null if the question was cancelled or failed.
  static async count(filter, first, last) {
    const size = Matches.sizeFor(last - first + 1);
    const answer = await ask("blocks", "blocks", { ...filter, first, last, size }, { slow: true });
    if (!answer) return null;
    const matches = new Matches();
    matches.#filter = filter;
    matches.#size = answer.size ?? size;
    matches.#last = last;
    matches.#blocks = answer.blocks.map(([begin, count]) => ({ first: begin, count, place: 0 }));
    matches.#placed = false;
    return matches;
  }

  // Lists all matches if they are few.
  async knowRare() {
    if (this.total === 0 || this.total > RARE || this.isResolved(0, this.total - 1)) return;
    const answer = await ask("listed", "records", { ...this.#filter, before: this.#last + 1, limit: RARE });
    if (!answer) return;
    cache.add(answer.records);
    this.know({ seqs: answer.records.map(({ seq }) => seq), from: -Infinity, to: Infinity });
  }
  // Takes over matches that are known already, so that their blocks need not be listed.
  know({ seqs, from, to }) {
    for (const { first, count } of this.#blocks) {
      const end = first + this.#size - 1;
      if (first < from || end > to) continue;
      const known = seqs.filter((seq) => seq >= first && seq <= end);
      if (known.length === count) this.#listed.set(first, known);
    }
  }

  #place() {
    if (this.#placed) return;
    let place = 0;
    for (const block of this.#blocks) {
      block.place = place;
      place += block.count;
    }
    this.#placed = true;
  }
  get total() {
    this.#place();
    const last = this.#blocks.at(-1);
    return last ? last.place + last.count : 0;
  }
  // The number of the last block that `isBefore` holds for, or -1. It must hold for a first part of the blocks.
  #lastBlock(isBefore) {
    let low = 0;
    let high = this.#blocks.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (isBefore(this.#blocks[middle])) low = middle + 1;
      else high = middle;
    }
    return low - 1;
  }
  seqAt(place) {
    this.#place();
    const block = this.#blocks[this.#lastBlock((candidate) => candidate.place <= place)];
    return block && this.#listed.get(block.first)?.[place - block.place];
  }
  placeOf(seq) {
    this.#place();
    const block = this.#blocks[this.#lastBlock((candidate) => candidate.first <= seq)];
    if (!block) return 0;
    const seqs = this.#listed.get(block.first);
    if (!seqs) {
      const share = Math.min(1, (seq - block.first) / this.#size);
      return block.place + Math.round(share * block.count);
    }
    const within = seqs.findIndex((known) => known >= seq);
    return block.place + (within < 0 ? block.count : within);
  }
  #blocksOf(first, last) {
    this.#place();
    const begin = Math.max(0, this.#lastBlock((block) => block.place <= first));
    const end = this.#lastBlock((block) => block.place <= last);
    return this.#blocks.slice(begin, end + 1);
  }
  // A block that grew keeps its list, which then ends too early.
  isResolved(first, last) {
    return this.#blocksOf(first, last).every((block) => (this.#listed.get(block.first)?.length ?? 0) >= Math.min(block.count, last - block.place + 1));
  }
  async resolve(first, last) {
    const missing = this.#blocksOf(first, last).filter((block) => this.#listed.get(block.first)?.length !== block.count);
    const isNear = ({ first: begin }) => begin + this.#size - missing[0].first <= LISTED_AT_ONCE;
    return this.#list(missing.filter(isNear));
  }
  // Makes placeOf(seq) exact.
  async resolveSeq(seq) {
    const block = this.#blocks[this.#lastBlock((candidate) => candidate.first <= seq)];
    return !block || this.#listed.has(block.first) || this.#list([block]);
  }
  async #list(blocks) {
    if (blocks.length === 0) return true;
    const last = Math.min(this.#last, blocks.at(-1).first + this.#size - 1);
    const answer = await ask("listed", "blocks", { ...this.#filter, first: blocks[0].first, last, size: 1 });
    if (!answer) return false;
    for (const block of blocks) {
      const seqs = answer.blocks.map(([seq]) => seq).filter((seq) => seq >= block.first && seq < block.first + this.#size);
      block.count = seqs.length;
      this.#listed.set(block.first, seqs);
    }
    this.#placed = false;
    for (const key of this.#listed.keys()) {
      if (this.#listed.size <= KEPT) break;
      this.#listed.delete(key);
    }
    return true;
  }
  // Counts what was added up to `last`, and forgets what was deleted below `first`. Returns the number of new matches.
  async grow(first, last) {
    const before = this.total;
    if (last > this.#last) {
      const size = last - this.#last <= LISTED ? 1 : this.#size;
      const answer = await ask("grown", "blocks", { ...this.#filter, first: this.#last + 1, last, size });
      if (!answer) return 0;
      this.#last = last;
      for (const [begin, count] of answer.blocks) this.#add(begin, count, size === 1);
      this.#placed = false;
    }
    const added = this.total - before;
    await this.#forgetBelow(first);
    return added;
  }
  #add(seq, count, isOne) {
    const first = seq - ((seq - 1) % this.#size);
    if (this.#blocks.at(-1)?.first !== first) {
      this.#blocks.push({ first, count: 0, place: 0 });
      this.#listed.set(first, []);
    }
    const block = this.#blocks.at(-1);
    const seqs = this.#listed.get(first);
    if (isOne && seqs?.length === block.count) seqs.push(seq);
    block.count += count;
  }
  async #forgetBelow(first) {
    const gone = this.#lastBlock((block) => block.first + this.#size <= first);
    if (gone >= 0) {
      for (const block of this.#blocks.splice(0, gone + 1)) this.#listed.delete(block.first);
      this.#placed = false;
    }
    const oldest = this.#blocks[0];
    if (!oldest || oldest.first >= first || oldest.counted === first) return;
    const answer = await ask("oldest", "blocks", { ...this.#filter, first, last: Math.min(this.#last, oldest.first + this.#size - 1), size: this.#size });
    if (!answer) return;
    oldest.count = answer.blocks.reduce((sum, [, count]) => sum + count, 0);
    oldest.counted = first;
    this.#listed.delete(oldest.first);
    this.#placed = false;
  }
}
