// SPDX-License-Identifier: MIT
// Requests to the server (docs/view.md, "HTTP interface").
//
// ask() never gives an answer that is out of date: a newer question of the same name cancels the older one, here and in
// the server, and the older call returns null. It also returns null if the request fails; the failure has then been
// reported through `onError`. Browsers write every answer with an error status on the console: the page asks the server
// to answer refusals quietly, with the status 200 and a member `status`.

export const NO_ANSWER = "The server does not answer. Is runeflow view still running?";

const base = location.pathname.replace(/[^/]*$/, "");
const page = Array.from(crypto.getRandomValues(new Uint32Array(2)), (part) => part.toString(16)).join("");
const asked = new Map(); // name of a question → AbortController of its latest request

let generation = null; // of the database; the server refuses questions about an older one
let listeners = { onError: () => {}, onGeneration: () => {} };

export function listen(given) {
  listeners = { ...listeners, ...given };
}

export function setGeneration(number) {
  generation = number;
}

function address(path, parameters) {
  const text = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters)) {
    if (value !== undefined && value !== null && value !== "" && value !== false) text.set(name, value === true ? "1" : String(value));
  }
  return `${base}api/v1/${path}${text.size ? `?${text}` : ""}`;
}

async function bodyOf(response) {
  try {
    return await response.json();
  } catch {
    return { error: response.status === 403 ? "The server does not know this page any more. Open the address that runeflow view printed." : `The server answered with status ${response.status}.` };
  }
}

// Browsers allow six connections to a host. Questions whose cost grows with the database take at most two of them, so
// that rows are never held up.
const SLOW_AT_ONCE = 2;
let slowRunning = 0;
const slowWaiting = [];

async function enterSlowLane() {
  if (slowRunning < SLOW_AT_ONCE) slowRunning += 1;
  else await new Promise((enter) => slowWaiting.push(enter));
}
function leaveSlowLane() {
  const next = slowWaiting.shift();
  if (next) next();
  else slowRunning -= 1;
}

export async function ask(name, path, parameters = {}, { quiet = false, slow = false } = {}) {
  asked.get(name)?.abort();
  const controller = new AbortController();
  asked.set(name, controller);
  const isLatest = () => asked.get(name) === controller && !controller.signal.aborted;
  if (slow) await enterSlowLane();
  try {
    if (!isLatest()) return null;
    const response = await fetch(address(path, { ...parameters, g: generation, page, ask: name, quiet: 1 }), { signal: controller.signal });
    const body = await bodyOf(response);
    if (!isLatest()) return null;
    if (body.cancelled) return null;
    if (response.ok && body.status === undefined) return body;
    if (body.generation === undefined) throw new Error(body.error);
    listeners.onGeneration(body.generation);
    return null;
  } catch (error) {
    if (isLatest() && !quiet) listeners.onError(error instanceof TypeError ? NO_ANSWER : error.message);
    return null;
  } finally {
    if (slow) leaveSlowLane();
    if (asked.get(name) === controller) asked.delete(name);
  }
}

export function cancel(name) {
  asked.get(name)?.abort();
  asked.delete(name);
}

// Asks for a change. Returns the answer's body; a refusal has a member `error`.
let told = 0;
export async function tell(path, body = {}) {
  told += 1;
  try {
    const response = await fetch(address(path, { quiet: 1 }), {
      method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body),
    });
    return await bodyOf(response);
  } catch {
    return { error: NO_ANSWER };
  } finally {
    setTimeout(() => { told -= 1; }, 500);
  }
}
// Whether this page has asked for a change that the stream of changes may now report.
export const hasTold = () => told > 0;

// Opens the stream of changes. Browsers allow six connections to a host, and each stream keeps one: a page that is not
// shown closes its stream.
export function watch({ onState, onGone, onLost, onFound }) {
  let source = null;
  let lost = 0; // timer
  const open = () => {
    if (source) return;
    source = new EventSource(address("events", { page }));
    source.addEventListener("state", (event) => onState(JSON.parse(event.data)));
    source.addEventListener("gone", (event) => onGone(JSON.parse(event.data)));
    source.addEventListener("error", () => {
      lost ||= setTimeout(onLost, 2000);
      // The browser gives up after an answer that is no stream.
      if (source?.readyState === EventSource.CLOSED) source = null;
    });
    source.addEventListener("open", () => {
      clearTimeout(lost);
      lost = 0;
      onFound();
    });
  };
  const close = () => {
    clearTimeout(lost);
    lost = 0;
    source?.close();
    source = null;
  };
  const follow = () => (document.hidden ? close() : open());
  document.addEventListener("visibilitychange", follow);
  addEventListener("pagehide", close);
  addEventListener("pageshow", follow);
  follow();
}
