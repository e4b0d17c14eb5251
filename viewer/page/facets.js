// SPDX-License-Identifier: MIT
// The number of records of each level and the most frequent values of each indexed field, under the present query. A
// click adds a condition, a second one negates it, a third one removes it.

import { ask } from "./api.js";
import { byId, element } from "./dom.js";
import * as numbers from "./numbers.js";
import { paced } from "./paced.js";
import { condition, cycle, find } from "./query_text.js";
import { shown } from "./safe_text.js";
import * as session from "./session.js";

const VALUES = 8;

export class Facets {
  #aside = byId("facets");
  #soon = paced(() => this.#load(), 2000, 12);
  #answer = null;
  #isBlank = true; // the answer holds no record

  constructor() {
    byId("open-facets").addEventListener("click", () => this.#toggle(document.body.dataset.facets !== "true"));
  }
  #toggle(isOpen) {
    document.body.dataset.facets = isOpen;
    byId("open-facets").setAttribute("aria-pressed", String(isOpen));
  }

  // The first records of a database that was empty are counted without a pause.
  refresh(isUrgent = false) {
    this.#soon(isUrgent || (this.#isBlank && session.live.lastSeq > 0));
    this.#isBlank = false;
  }
  async #load() {
    if (!session.info?.database) return;
    const answer = await ask("facets", "facets", { ...session.question(), limit: VALUES }, { slow: true });
    if (!answer) return;
    this.#answer = answer;
    this.#isBlank = !session.view.q && answer.levels.every((count) => count === 0);
    this.show();
  }

  // Draws what is known. Keeps the focus on the button that has it.
  show() {
    if (!this.#answer) return;
    const focused = document.activeElement?.closest?.(".facet")?.dataset.condition;
    const levelField = session.info.columns.find((column) => column.column === "level")?.name ?? "level";
    this.#aside.replaceChildren(...this.#levels(levelField), ...this.#answer.fields.flatMap((field) => this.#field(field)));
    if (focused) [...this.#aside.querySelectorAll(".facet")].find((button) => button.dataset.condition === focused)?.focus();
  }
  #levels(name) {
    const { levels: names, columns } = session.info;
    const label = columns.find((column) => column.column === "level")?.label ?? "Level";
    const present = find(session.view.q, name);
    const chosen = present ? names.findIndex((level) => level.toLowerCase() === canonical(present.value)) : -1;
    const most = Math.max(1, ...this.#answer.levels);
    const buttons = names.map((level, index) => {
      const isIncluded = chosen >= 0 && (present.isNegated ? index < chosen : index >= chosen);
      const button = this.#button(name, level.toLowerCase(), level, this.#answer.levels[index], most, true);
      button.dataset.level = level.toLowerCase();
      button.dataset.tone = index;
      button.setAttribute("aria-pressed", String(isIncluded));
      button.title = `${level} and more severe; a second click: less severe`;
      return button;
    });
    return [element("h2", {}, label), ...buttons];
  }
  #field({ name, label, values }) {
    const most = Math.max(1, ...values.map(({ count }) => count));
    const buttons = values.map(({ value, count }) => {
      const present = find(session.view.q, name, value);
      const button = this.#button(name, value, shown(value), count, most, false);
      button.setAttribute("aria-pressed", String(Boolean(present && !present.isNegated)));
      if (present?.isNegated) {
        button.classList.add("not");
        button.setAttribute("aria-label", `not ${shown(value)}, ${numbers.count(count)}`);
      }
      return button;
    });
    return [element("h2", {}, label), ...(buttons.length ? buttons : [element("p", {}, "no values")]), ...this.#negated(name, values, most)];
  }
  // A value that the query excludes is no longer among the frequent ones, but stays, so that a third click removes it.
  #negated(name, values, most) {
    const excluded = find(session.view.q, name);
    if (!excluded?.isNegated || values.some(({ value }) => value === excluded.value)) return [];
    const button = this.#button(name, excluded.value, shown(excluded.value), 0, most, false);
    button.classList.add("not");
    button.setAttribute("aria-pressed", "false");
    button.setAttribute("aria-label", `not ${shown(excluded.value)}`);
    return [button];
  }
  #button(name, value, text, count, most, isSingle) {
    const typed = condition(name, value);
    const amount = element("span", { class: "amount", "aria-hidden": "true" });
    amount.style.transform = `scaleX(${count / most})`;
    return element("button", {
      class: "facet", "data-condition": typed, disabled: typed === null,
      title: typed === null ? "The query language cannot express this value" : typed.length > 200 ? null : shown(typed),
      click: () => session.change({ q: cycle(session.view.q, name, value, isSingle) }, "new"),
    }, element("bdi", { class: "name" }, text || "(empty)"), element("span", { class: "number" }, numbers.count(count)), amount);
  }
}

// The other names of levels that the query language knows.
function canonical(level) {
  const names = { warn: "warning", err: "error", fault: "fatal", critical: "fatal" };
  return names[level.toLowerCase()] ?? level.toLowerCase();
}
