// SPDX-License-Identifier: MIT
// The keyboard. Keys of the list work while the list (or nothing in particular) has the focus.

import { byId } from "./dom.js";
import * as session from "./session.js";

export function listenForKeys(list, selection, grid) {
  const page = () => list.rowsPerPage;
  const inList = {
    ArrowDown: (event) => selection.move(1, event.shiftKey),
    ArrowUp: (event) => selection.move(-1, event.shiftKey),
    PageDown: (event) => selection.move(page(), event.shiftKey),
    PageUp: (event) => selection.move(-page(), event.shiftKey),
    Home: (event) => selection.move(-Infinity, event.shiftKey),
    End: (event) => selection.move(Infinity, event.shiftKey),
    Enter: () => selection.open(),
  };
  const anywhere = {
    "/": () => {
      byId("query").focus();
      byId("query").select();
    },
    n: () => selection.findNext(1),
    N: () => selection.findNext(-1),
    f: () => session.change({ follows: !session.view.follows, at: list.topSeq ?? null }),
    c: () => selection.copy(),
    Escape: () => escape(selection),
  };

  document.addEventListener("keydown", (event) => {
    if (event.defaultPrevented || event.isComposing || event.altKey || document.querySelector("dialog[open]")) return;
    const { target } = event;
    const isText = target.matches("input, textarea, select");
    if (event.ctrlKey || event.metaKey) {
      const isCopy = event.key.toLowerCase() === "c" && !isText && document.getSelection().isCollapsed;
      if (isCopy && selection.seq !== null) {
        event.preventDefault();
        selection.copy();
      }
      return;
    }
    const isInList = target === grid || target === document.body;
    const action = (isInList && inList[event.key]) || (!isText && anywhere[event.key]);
    if (!action) return;
    event.preventDefault();
    action(event);
  });
}

// Leaves, one after the other: the facets over the list, the opened record, the selection, the span, the query.
function escape(selection) {
  const { view } = session;
  if (document.body.dataset.facets === "true") byId("open-facets").click();
  else if (view.open !== null) session.change({ open: null }, "new");
  else if (selection.seq !== null) selection.clear();
  else if (view.span) session.change({ span: null }, "new");
  else if (view.q) session.change({ q: "" }, "new");
}
