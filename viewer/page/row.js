// SPDX-License-Identifier: MIT
// One row of the list, and the columns that all rows have.

import { element, marked } from "./dom.js";
import * as clock from "./clock.js";

export const LETTERS = "TDIWEF";
const SHOWN = 1000; // characters of a message that the server sends for a row
const LONGEST = 24; // of a column, in characters
const numeric = /^-?\d*$/;

// The columns of the list: the time, the descriptor's table fields in their order, the message.
export class Columns {
  constructor(columns) {
    const slots = columns.filter((column) => /^s\d$/.test(column.column));
    this.fields = columns
      .filter((column) => column.inTable)
      .map((column) => ({ ...column, index: slots.indexOf(column), isLevel: column.column === "level", width: Math.min(column.label.length, 8), isNumeric: true }));
    this.hasMicroseconds = false;
    const hero = slots.findIndex((column) => typeof column.hero === "string");
    this.isHero = (record) => hero >= 0 && record.fields[hero] === slots[hero].hero;
  }
  get count() {
    return this.fields.filter((field) => field.column !== "message" && field.column !== "ts").length + 2;
  }
  // Widens columns for these records. True if a column changed.
  fit(records) {
    let hasChanged = false;
    for (const field of this.fields) {
      for (const record of records) {
        const text = record?.fields?.[field.index] ?? "";
        if (text.length > field.width && field.width < LONGEST) {
          field.width = Math.min(LONGEST, text.length);
          hasChanged = true;
        }
        if (field.isNumeric && !numeric.test(text)) {
          field.isNumeric = false;
          hasChanged = true;
        }
      }
    }
    return hasChanged;
  }
  apply(grid, head) {
    head.replaceChildren(this.#head());
    const time = this.hasMicroseconds ? "16ch" : "13ch";
    const widths = this.fields.filter((field) => !["message", "ts"].includes(field.column))
      .map((field) => (field.isLevel ? "1.8rem" : `${field.width + (field.badge ? 3 : 0.5)}ch`));
    grid.style.setProperty("--columns", [time, ...widths, "minmax(20rem, max-content)"].join(" "));
    grid.style.setProperty("--narrow-columns", `${time} 1.2rem minmax(12rem, max-content)`);
  }
  #head() {
    const cell = (name, label, more = {}) => element("span", { role: "columnheader", class: name, ...more }, label);
    return element("div", { role: "row", "aria-rowindex": "1" },
      cell("time", "Time", { "aria-label": "Time" }),
      ...this.#shown().map((field) => field.isLevel
        ? cell("level", "L", { "aria-label": field.label, title: field.label })
        : cell(`field${field.isNumeric ? " number" : ""}`, field.label, { title: field.name })),
      cell("message", "Message"));
  }
  #shown() {
    return this.fields.filter((field) => !["message", "ts"].includes(field.column));
  }
  cells(record, levels, newDay) {
    return [
      element("span", { role: "gridcell", class: "time" }, clock.clockTime(record.time, this.hasMicroseconds)),
      ...this.#shown().map((field) => this.#cell(field, record, levels)),
      this.#message(record, newDay),
    ];
  }
  #cell(field, record, levels) {
    if (field.isLevel) {
      return element("span", { role: "gridcell", class: "level", "aria-label": levels[record.level], title: levels[record.level] }, LETTERS[record.level] ?? "?");
    }
    const text = record.fields[field.index] ?? "";
    const shown = field.badge && text ? element("span", { class: "badge", "data-glyph": field.badge }, text) : text;
    return element("span", { role: "gridcell", class: `field${field.isNumeric ? " number" : ""}`, title: text.length > LONGEST ? text : null }, shown);
  }
  // An isolated run of direction: a message in another script moves nothing beside it.
  #message(record, newDay) {
    return element("span", { role: "gridcell", class: "message" },
      newDay && element("span", { class: "day" }, newDay),
      element("bdi", {}, marked(record.text, record.marks)),
      record.length > SHOWN && element("span", { class: "cut" }, " …"));
  }
}

// A row element that is used for one record after another.
export class Row {
  node = element("div", { role: "row" });
  #shown = null;
  #key = "";

  show(place, seq, record, columns, levels, newDay, isMatch) {
    const { node } = this;
    node.setAttribute("aria-rowindex", place + 2);
    const key = `${columns.hasMicroseconds}${newDay}${isMatch}`;
    if (record && record === this.#shown && key === this.#key) return;
    this.#shown = record;
    this.#key = key;
    if (seq === undefined) {
      node.removeAttribute("data-seq");
      node.removeAttribute("id");
    } else {
      node.setAttribute("data-seq", seq);
      node.id = `row-${seq}`;
    }
    if (!record || record.isGone) {
      node.removeAttribute("data-tone");
      node.className = "waiting";
      node.replaceChildren(element("span", { role: "gridcell" }, record ? "deleted" : "…"));
      return;
    }
    node.setAttribute("data-tone", record.level);
    node.className = `${newDay ? "new-day" : ""}${isMatch ? " matching" : ""}${columns.isHero(record) ? " hero" : ""}`.trim();
    node.replaceChildren(...columns.cells(record, levels, newDay));
  }
}
