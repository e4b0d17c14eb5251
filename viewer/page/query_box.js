// SPDX-License-Identifier: MIT
// The query line: asks while typing, says what the query was understood as and how long the answer took.

import { ask } from "./api.js";
import { Completion } from "./completion.js";
import { byId, press } from "./dom.js";
import * as clock from "./clock.js";
import * as session from "./session.js";

const PAUSE = 60; // milliseconds after the last letter

export class QueryBox {
  #input = byId("query");
  #completion;
  #timer = 0;
  #hasPlan = false;

  constructor(grid) {
    const input = this.#input;
    this.#completion = new Completion(input, () => this.#commit("typing"));
    input.addEventListener("input", () => {
      byId("clear-query").hidden = input.value === "";
      this.#completion.offer();
      clearTimeout(this.#timer);
      this.#timer = setTimeout(() => this.#commit("typing"), PAUSE);
    });
    input.addEventListener("keydown", (event) => {
      if (event.isComposing) return;
      if (this.#completion.key(event.key)) {
        event.preventDefault();
        event.stopPropagation();
      } else if (event.key === "Enter") {
        this.#completion.close();
        this.#commit("typing");
        session.endTyping();
      } else if (event.key === "Escape" || event.key === "ArrowDown") {
        event.preventDefault();
        event.stopPropagation();
        if (event.key === "Escape" && input.value !== "") this.#set("");
        else grid.focus();
      }
    });
    byId("clear-query").addEventListener("click", () => {
      this.#set("");
      input.focus();
    });
    byId("match-case").addEventListener("click", () => session.change({ matchCase: !session.view.matchCase }, "new"));
    byId("filter").addEventListener("click", () => session.change({ filters: !session.view.filters }, "new"));
    byId("microseconds").addEventListener("click", () => session.change({ microseconds: !session.view.microseconds }, "new"));
    byId("span").addEventListener("click", () => session.change({ span: null }, "new"));
    byId("show-plan").addEventListener("click", () => {
      this.#hasPlan = !this.#hasPlan;
      this.read();
    });
  }

  #set(text) {
    this.#input.value = text;
    this.#commit("new");
  }
  #commit(entry) {
    clearTimeout(this.#timer);
    session.change({ q: this.#input.value }, entry);
    byId("clear-query").hidden = this.#input.value === "";
  }

  // Shows the state that the address or another part of the page has set.
  show() {
    const { view } = session;
    if (this.#input.value !== view.q) {
      clearTimeout(this.#timer);
      this.#input.value = view.q;
    }
    byId("clear-query").hidden = view.q === "";
    press(byId("match-case"), view.matchCase);
    press(byId("filter"), view.filters);
    press(byId("microseconds"), view.microseconds);
    const chip = byId("span");
    chip.hidden = view.span === null;
    if (view.span) {
      const text = `${clock.moment(view.span.from, view.span)} – ${clock.moment(view.span.until, view.span)}`;
      chip.textContent = `${text} ✕`;
      chip.setAttribute("aria-label", `Chosen span ${text}. Show all times`);
    }
  }

  // Asks what the query means.
  async read() {
    const words = byId("words");
    const hasQuery = session.view.q.trim() !== "";
    document.querySelector("#reading .read").classList.toggle("unused", !hasQuery);
    press(byId("show-plan"), this.#hasPlan);
    byId("plan").hidden = !this.#hasPlan;
    if (!hasQuery && !this.#hasPlan) {
      words.textContent = "";
      byId("took").textContent = "";
      return;
    }
    const start = performance.now();
    const answer = await ask("query", "query", { ...session.question(), plan: this.#hasPlan });
    if (!answer) return;
    words.textContent = answer.error ?? answer.reading;
    words.classList.toggle("error", Boolean(answer.error));
    byId("plan").textContent = (answer.plan ?? []).join("\n");
    this.#start = start;
  }
  #start = 0;
  // Notes that the first matches stand.
  noteAnswer(milliseconds) {
    byId("took").textContent = session.view.q.trim() ? `${Math.max(1, Math.round(milliseconds))} ms` : "";
  }
}
