// SPDX-License-Identifier: MIT
// Asks before something is deleted.

import { byId, element } from "./dom.js";

// Resolves to true if the user presses the button named `deed`.
export function confirmFirst(title, text, deed) {
  const dialog = byId("confirm");
  return new Promise((resolve) => {
    const close = (answer) => () => dialog.close(answer);
    dialog.replaceChildren(
      element("header", {}, element("h2", { id: "confirm-title" }, title)),
      element("section", {}, element("p", {}, text)),
      element("footer", {},
        element("button", { class: "plain", "data-action": "cancel", autofocus: true, click: close("") }, "Cancel"),
        element("button", { class: "bad", "data-action": "sure", click: close("sure") }, deed)));
    dialog.returnValue = "";
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "sure"), { once: true });
    dialog.showModal();
  });
}
