// SPDX-License-Identifier: MIT
// Builds the parts of the page and connects them: which part acts on which change.

import { hideError, showError } from "./announce.js";
import * as api from "./api.js";
import * as cache from "./record_cache.js";
import * as clock from "./clock.js";
import { byId, press } from "./dom.js";
import { Detail } from "./detail.js";
import { Facets } from "./facets.js";
import { listenForKeys } from "./keys.js";
import { RecordList } from "./list.js";
import { QueryBox } from "./query_box.js";
import { Search } from "./search.js";
import { Selection } from "./selection.js";
import * as session from "./session.js";
import { Sources } from "./sources.js";
import { Timeline } from "./timeline.js";

const grid = document.querySelector("[role=grid]");
const list = new RecordList(grid);
const selection = new Selection(list, grid);
const search = new Search(list);
const queryBox = new QueryBox(grid);
const timeline = new Timeline();
const facets = new Facets();
const detail = new Detail(showInContext);
const sources = new Sources(restart);
listenForKeys(list, selection, grid);

const questionParts = ["q", "matchCase", "filters", "span"];
let isRestarting = false;
const CHANGED = "The database was cleared or replaced. This is what it holds now.";
const NEAR = 40; // rows: less than a page of a high window
let newest; // generation that startOver() was last called for

// Loads the description of the database and starts over. False if the server did not answer.
async function restart(generation) {
  api.setGeneration(generation ?? null);
  const info = await ask();
  if (!info) return false;
  api.setGeneration(info.generation);
  cache.forget();
  detail.forget();
  session.setInfo(info);
  return true;
}
const ask = () => api.ask("info", "info");

function showInfo() {
  const { info } = session;
  byId("database").textContent = [info.database, info.source?.name].filter(Boolean).join(" · ");
  document.title = [info.database, "runeflow"].filter(Boolean).join(" · ");
  clock.setZone(info.zone ?? "UTC");
  byId("zone").textContent = info.zone ?? "";
  byId("zone").title = "Times are those of the machine that runs runeflow view";
  list.setColumns(info.columns ?? []);
  if (info.error) showGone(info.error);
  sources.show();
  if (!info.database) sources.open();
}

// Tells scripts and tests that the first rows stand.
function setReady() {
  if (document.body.dataset.ready === "true") return;
  document.body.dataset.ready = "true";
  performance.mark("ready");
}

// The record that stays in view when the list changes: the one that the address names, the selected one, or the topmost.
function anchor() {
  const { view } = session;
  if (view.follows) return null;
  if (selection.seq !== null && list.isSeen(selection.seq)) return list.anchor(selection.seq);
  return list.anchor() ?? (view.at === null ? null : { seq: view.at, offset: 0 });
}

async function showInContext(seq) {
  session.change({ filters: false, span: null, follows: false, at: seq, open: seq }, "new");
  selection.select(seq);
  await list.goTo(seq, true);
  grid.focus();
}

async function searchFrom(place) {
  const start = performance.now();
  queryBox.read();
  timeline.refresh(true);
  facets.refresh(true);
  const done = search.start(place);
  list.addEventListener("drawn", () => queryBox.noteAnswer(performance.now() - start), { once: true });
  await done;
}

// The panel of an opened record may have come before the rows, and taken the place where its row would be.
async function seeOpened() {
  const { open, at } = session.view;
  const { places } = list;
  if (open === null || at === null) return;
  await places.resolveSeq?.(open);
  await places.resolveSeq?.(at);
  if (Math.abs(places.placeOf(open) - places.placeOf(at)) < NEAR) await list.goTo(open);
}

session.events.addEventListener("restart", async () => {
  showInfo();
  queryBox.show();
  press(byId("follow"), session.view.follows);
  const { view } = session;
  if (view.open !== null) selection.seq ??= view.open;
  if (view.open !== null) selection.select(view.open);
  detail.show();
  await searchFrom(view.at === null ? null : { seq: view.at, offset: 0 });
  await seeOpened();
  setReady();
});

session.events.addEventListener("view", ({ changed, isBack }) => {
  const { view } = session;
  queryBox.show();
  press(byId("follow"), view.follows);
  if (changed.has("microseconds")) list.setMicroseconds(view.microseconds);
  if (changed.has("open") && view.open !== null) selection.select(view.open);
  if (changed.has("open") || changed.has("q") || changed.has("matchCase")) detail.show();
  const place = isBack && view.at !== null ? { seq: view.at, offset: 0 } : anchor();
  if (questionParts.some((name) => changed.has(name))) {
    facets.show();
    searchFrom(place);
  } else if (view.follows && changed.has("follows")) {
    search.seeEnd();
    list.goToEnd();
  } else if (isBack && place) {
    list.use(list.places, place);
  }
});

session.events.addEventListener("grown", () => {
  sources.show();
  search.grow();
  timeline.refresh();
  facets.refresh();
});

list.addEventListener("moved", ({ delta }) => {
  const { view } = session;
  if (view.follows && delta < 0 && !list.isAtEnd) session.change({ follows: false, at: list.topSeq ?? null });
  else if (!view.follows && delta > 0 && list.isAtEnd) session.change({ follows: true });
});
list.addEventListener("drawn", () => {
  if (!session.view.follows && list.topSeq !== undefined) session.noteTop(list.topSeq);
  if (document.body.dataset.ready !== "true" && document.querySelector(".rows [data-tone]")) setReady();
});
byId("follow").addEventListener("click", () => session.change({ follows: !session.view.follows, at: list.topSeq ?? null }));
byId("dismiss").addEventListener("click", () => hideError());

async function startOver(generation, sentence) {
  newest = generation;
  if (isRestarting) return;
  isRestarting = true;
  const before = session.info?.database;
  selection.seq = null;
  session.change({ open: null, follows: true, at: null });
  let isRead;
  do isRead = await restart(newest);
  while (isRead && session.info.generation < (newest ?? 0));
  isRestarting = false;
  if (sentence && before === session.info.database && !api.hasTold()) showError(sentence);
}

// The database is not there any more. Perhaps another one has taken its place.
function showGone(sentence) {
  const act = async () => {
    const answer = await api.tell("open", { database: session.info.database });
    if (answer.error) {
      showError(answer.error);
      return;
    }
    hideError();
    await startOver(answer.generation);
  };
  showError(sentence, session.info?.database ? { label: "Open again", act } : undefined);
}

api.listen({
  onError: showError,
  onGeneration: (generation) => startOver(generation, CHANGED),
});

await restart();
api.watch({
  onState: (state) => {
    const isOther = state.generation !== undefined && session.info && state.generation !== session.info.generation;
    if (isOther) startOver(state.generation, CHANGED);
    else session.setLive(state);
  },
  onGone: ({ error }) => showGone(error),
  onLost: () => showError(api.NO_ANSWER),
  onFound: () => hideError(api.NO_ANSWER),
});
