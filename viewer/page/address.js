// SPDX-License-Identifier: MIT
// The state of the view in the address, behind the "#": what a reload, Back and a copied link restore.
//
//   q      the query            case=1   match case         show=all  mark matches instead of filtering
//   from, until  the chosen span, microseconds, half-open   us=1      microseconds in the list
//   at     the seq of the topmost row; absent while following         open  the seq of the opened record

const number = (text) => (text !== null && /^-?\d{1,16}$/.test(text) ? Number(text) : null);

export function read() {
  const text = new URLSearchParams(location.hash.slice(1));
  const from = number(text.get("from"));
  const until = number(text.get("until"));
  const at = number(text.get("at"));
  return {
    q: (text.get("q") ?? "").slice(0, 8000),
    matchCase: text.get("case") === "1",
    filters: text.get("show") !== "all",
    span: from !== null && until !== null && from < until ? { from, until } : null,
    microseconds: text.get("us") === "1",
    at,
    open: number(text.get("open")),
    follows: at === null,
  };
}

export function hashOf(view) {
  const text = new URLSearchParams();
  if (view.q) text.set("q", view.q);
  if (view.matchCase) text.set("case", "1");
  if (!view.filters) text.set("show", "all");
  if (view.span) {
    text.set("from", view.span.from);
    text.set("until", view.span.until);
  }
  if (view.microseconds) text.set("us", "1");
  if (!view.follows && view.at !== null) text.set("at", view.at);
  if (view.open !== null) text.set("open", view.open);
  return text.size ? `#${text}` : location.pathname;
}

// Browsers refuse more than about six changes of the address a second, with a message on the console. Changes that need
// no entry of their own in the history are written at most twice a second.
let pending = null;
let timer = 0;

export function write(view, isNewEntry) {
  pending = view;
  if (isNewEntry) {
    flush("pushState");
  } else if (!timer) {
    timer = setTimeout(() => flush("replaceState"), 500);
  }
}

export function flush(how = "replaceState") {
  clearTimeout(timer);
  timer = 0;
  if (!pending) return;
  const hash = hashOf(pending);
  pending = null;
  if (hash !== (location.hash || location.pathname)) history[how](null, "", hash);
}
