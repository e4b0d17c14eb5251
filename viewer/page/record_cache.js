// SPDX-License-Identifier: MIT
// Records that the page has loaded, at most a few thousand. Marks belong to a query: after it changes, a record is
// still shown as it was, but counts as missing.

import { ask } from "./api.js";

const KEPT = 2000;
const AT_ONCE = 500; // the server's limit

const records = new Map(); // seq → record, oldest loaded first
let version = 0;

export function outdate() {
  version += 1;
}
export function forget() {
  version += 1;
  records.clear();
}
export const get = (seq) => records.get(seq);
export const isMissing = (seq) => records.get(seq)?.version !== version;

export function add(loaded, loadedVersion = version) {
  for (const record of loaded) {
    record.version = loadedVersion;
    records.delete(record.seq);
    records.set(record.seq, record);
  }
  for (const seq of records.keys()) {
    if (records.size <= KEPT) break;
    records.delete(seq);
  }
}

// Loads the records of `seqs` (ascending) that are missing. True if something was loaded. `name` is that of the question.
export async function load(seqs, query, name = "rows") {
  const missing = seqs.filter(isMissing).slice(0, AT_ONCE);
  if (missing.length === 0) return false;
  const asked = version;
  const isRange = missing.at(-1) - missing[0] < AT_ONCE && missing.length * 3 > missing.at(-1) - missing[0];
  const which = isRange ? { first: missing[0], last: missing.at(-1) } : { seqs: missing.join(",") };
  const answer = await ask(name, "records", { ...which, ...query });
  if (!answer) return false;
  add(answer.records, asked);
  for (const seq of missing) {
    if (records.get(seq)?.version !== asked) add([{ seq, isGone: true }], asked);
  }
  return true;
}
