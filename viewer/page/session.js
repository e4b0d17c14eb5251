// SPDX-License-Identifier: MIT
// What the parts of the page share: the database, what is asked of it, and who wants to know about a change.
//
// Events: "view" (event.changed: a Set of the names that changed in `view`), "grown" (new records or captures),
// "restart" (another database, or the same one after a clear: everything loaded is out of date), "position" (the
// topmost row changed).

import * as address from "./address.js";

export const events = new EventTarget();
export let info = null; // api/v1/info
export let live = { firstSeq: 0, lastSeq: 0, usedBytes: 0, captures: [] }; // the newest state
export let view = address.read();

let isTyping = false; // the history gets one entry for a query that is typed, not one for each letter

function emit(type, members = {}) {
  events.dispatchEvent(Object.assign(new Event(type), members));
}

// A database without a first record is empty. While it is being cleared, both numbers are not always of the same moment.
const rangeOf = ({ firstSeq, lastSeq }) => (firstSeq > 0 && lastSeq >= firstSeq ? { firstSeq, lastSeq } : { firstSeq: 0, lastSeq: 0 });

export function setInfo(given) {
  info = given;
  live = { usedBytes: given.usedBytes ?? 0, captures: given.capturing ?? given.captures ?? [], ...rangeOf(given) };
  emit("restart");
}

export function setLive(state) {
  live = { ...live, ...state, ...rangeOf({ ...live, ...state }) };
  emit("grown");
}

const isSame = (one, other) => JSON.stringify(one) === JSON.stringify(other);

function apply(changes) {
  const changed = new Set(Object.keys(changes).filter((name) => !isSame(view[name], changes[name])));
  view = { ...view, ...changes };
  return changed;
}

// Changes the view. `entry`: "new" adds an entry to the history, "typing" adds one at the first of several changes.
export function change(changes, entry = "same") {
  const changed = apply(changes);
  if (changed.size === 0) return;
  const isNew = entry === "new" || (entry === "typing" && !isTyping);
  isTyping = entry === "typing" || (isTyping && entry === "same");
  if (isNew) address.flush(); // the entry that is left keeps its place
  address.write(view, isNew);
  emit("view", { changed });
}

// Notes the topmost row, without telling anybody: the list knows.
export function noteTop(seq) {
  if (view.at === seq) return;
  view = { ...view, at: seq };
  address.write(view, false);
}

export function endTyping() {
  isTyping = false;
}

addEventListener("popstate", () => {
  const changed = apply(address.read());
  isTyping = false;
  if (changed.size) emit("view", { changed, isBack: true });
});
addEventListener("pagehide", () => address.flush());

// The parameters of a question about the query, within the chosen span.
export const question = () => ({ q: view.q, case: view.matchCase, ...(view.span ?? {}) });
// The parameters of the records that the list holds. The query may be marked only.
export const filter = () => (view.filters ? question() : { ...(view.span ?? {}) });
export const isFiltered = () => Boolean((view.filters && view.q.trim()) || view.span);
