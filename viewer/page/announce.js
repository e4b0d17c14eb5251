// SPDX-License-Identifier: MIT
// Sentences for screen readers, and the banner for what went wrong.

import { byId } from "./dom.js";

let timer = 0;

// Says a sentence once the page has been quiet for a moment. A newer sentence replaces one that was not said yet.
export function announce(sentence) {
  clearTimeout(timer);
  timer = setTimeout(() => {
    byId("announce").textContent = sentence;
  }, 400);
}

// Shows a sentence, and a button for what can be done about it: {label, act}.
export function showError(sentence, remedy) {
  const banner = byId("banner");
  const button = byId("remedy");
  banner.firstElementChild.textContent = sentence;
  banner.hidden = false;
  button.hidden = !remedy;
  button.textContent = remedy?.label ?? "";
  button.onclick = remedy?.act ?? null;
}

// Hides the banner; given a sentence, only if that is what it says.
export function hideError(sentence) {
  const banner = byId("banner");
  if (typeof sentence !== "string" || banner.firstElementChild.textContent === sentence) banner.hidden = true;
}
