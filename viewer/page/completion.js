// SPDX-License-Identifier: MIT
// Completes field names and their values in the query line: the list of a combobox.

import { announce } from "./announce.js";
import { ask, cancel } from "./api.js";
import { byId, element } from "./dom.js";
import * as numbers from "./numbers.js";
import { condition, typedAt } from "./query_text.js";
import { shown } from "./safe_text.js";
import * as session from "./session.js";

const MOST = 12;

export class Completion {
  #input;
  #list = byId("completions");
  #offers = []; // {text, label, note}
  #active = -1;
  #typed = null;
  #accepted;

  constructor(input, accepted) {
    this.#input = input;
    this.#accepted = accepted;
    input.addEventListener("blur", () => this.close());
    // The input keeps the focus.
    this.#list.addEventListener("pointerdown", (event) => event.preventDefault());
    this.#list.addEventListener("click", (event) => {
      const item = event.target.closest("li");
      if (item) this.#accept(Number(item.dataset.index));
    });
  }

  async offer() {
    const typed = typedAt(this.#input.value, this.#input.selectionEnd);
    this.#typed = typed;
    const offers = typed ? await this.#offersFor(typed) : [];
    if (offers === null || typed !== this.#typed) return;
    this.#show(offers.slice(0, MOST));
  }
  async #offersFor({ name, value }) {
    const fields = (session.info?.columns ?? []).filter((column) => column.queryable);
    if (name === null) {
      cancel("complete");
      const begins = value.toLowerCase();
      return fields.filter((field) => field.name.toLowerCase().startsWith(begins))
        .map((field) => ({ text: `${field.name}:`, label: `${field.name}:`, note: field.label, goesOn: true }));
    }
    const field = fields.find((candidate) => candidate.name.toLowerCase() === name.toLowerCase());
    if (!field) return [];
    if (field.column === "level") {
      return session.info.levels.filter((level) => level.toLowerCase().startsWith(value.toLowerCase()))
        .map((level) => ({ text: `${field.name}:${level.toLowerCase()}`, label: level.toLowerCase(), note: level === session.info.levels.at(-1) ? "" : "and more severe" }));
    }
    const answer = await ask("complete", "complete", { field: field.name, prefix: value, limit: MOST }, { quiet: true, slow: true });
    return answer && answer.values.map((offer) => ({ text: condition(field.name, offer.value), label: shown(offer.value), note: numbers.count(offer.count) }))
      .filter(({ text }) => text !== null);
  }

  #show(offers) {
    const typed = this.#typed && this.#input.value.slice(this.#typed.start, this.#typed.end);
    if (offers.length === 1 && offers[0].text === typed) offers = [];
    this.#offers = offers;
    this.#active = -1;
    this.#list.replaceChildren(...offers.map(({ label, note }, index) =>
      element("li", { role: "option", id: `completion-${index}`, "data-index": index, "aria-selected": "false" },
        element("span", {}, element("bdi", {}, label)), element("span", {}, note))));
    this.#list.hidden = offers.length === 0;
    this.#input.setAttribute("aria-expanded", String(offers.length > 0));
    this.#input.removeAttribute("aria-activedescendant");
    if (offers.length) announce(numbers.plural(offers.length, "completion"));
  }
  close() {
    cancel("complete");
    this.#typed = null;
    if (!this.#list.hidden) this.#show([]);
  }

  // Handles a key of the input. True if the list used it.
  key(key) {
    if (this.#list.hidden) return false;
    if (key === "ArrowDown" || key === "ArrowUp") {
      const step = key === "ArrowDown" ? 1 : -1;
      const number = this.#offers.length;
      this.#activate(this.#active < 0 && step < 0 ? number - 1 : (this.#active + step + number) % number);
      return true;
    }
    if (key === "Escape") {
      this.close();
      return true;
    }
    if (key === "Tab" && this.#active < 0 && this.#offers.length > 0) {
      this.#accept(0);
      return true;
    }
    if ((key === "Enter" || key === "Tab") && this.#active >= 0) {
      this.#accept(this.#active);
      return true;
    }
    return false;
  }
  #activate(index) {
    this.#list.children[this.#active]?.setAttribute("aria-selected", "false");
    this.#active = index;
    const item = this.#list.children[index];
    item.setAttribute("aria-selected", "true");
    item.scrollIntoView({ block: "nearest" });
    this.#input.setAttribute("aria-activedescendant", item.id);
  }
  #accept(index) {
    const { text, goesOn } = this.#offers[index];
    const { start, end } = this.#typed;
    const { value } = this.#input;
    const gap = goesOn || /^\s/.test(value.slice(end)) ? "" : " ";
    this.#input.value = value.slice(0, start) + text + gap + value.slice(end);
    const cursor = start + text.length + gap.length;
    this.#input.setSelectionRange(cursor, cursor);
    this.close();
    this.#accepted();
    if (goesOn) this.offer();
  }
}
