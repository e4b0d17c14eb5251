// SPDX-License-Identifier: MIT
// The opened record: all its fields, the context map, the time in three forms, and the message with its line breaks. A
// long message is loaded in pieces.

import { copyText } from "./selection.js";
import { ask } from "./api.js";
import { byId, element, marked } from "./dom.js";
import * as address from "./address.js";
import * as numbers from "./numbers.js";
import * as session from "./session.js";

const PIECE = 100_000; // characters

export class Detail {
  #section = byId("detail");
  #showInContext;
  #shown = ""; // the question that the shown record answers
  #record = null;

  constructor(showInContext) {
    this.#showInContext = showInContext;
  }

  async show() {
    const { open, q, matchCase } = session.view;
    const question = `${open} ${matchCase} ${q}`;
    if (question === this.#shown) return;
    this.#shown = question;
    if (open === null) {
      const hadFocus = this.#section.contains(document.activeElement);
      this.#section.hidden = true;
      this.#record = null;
      if (hadFocus) document.querySelector("[role=grid]").focus();
      return;
    }
    const record = await ask("record", `record/${open}`, { q, case: matchCase });
    if (record) this.#draw(record);
    else if (this.#shown === question && this.#record?.seq !== open) this.#section.hidden = true;
  }
  forget() {
    this.#shown = "";
  }

  #draw(record) {
    const isSame = this.#record?.seq === record.seq;
    this.#record = record;
    const focused = document.activeElement?.dataset?.action;
    const pre = element("pre", { dir: "auto" }, marked(record.text, record.marks));
    const message = element("div", { class: "whole" }, pre, this.#more(record, pre));
    this.#section.replaceChildren(this.#actions(record), message, this.#facts(record));
    this.#section.setAttribute("aria-label", `Record ${record.seq}`);
    this.#section.dataset.seq = record.seq;
    this.#section.hidden = false;
    if (!isSame) this.#section.scrollTop = 0;
    if (focused) this.#section.querySelector(`[data-action="${focused}"]`)?.focus();
  }
  #actions(record) {
    const action = (name, label, title, click) => element("button", { "data-action": name, title, click }, label);
    return element("div", { class: "do" },
      element("h2", {}, `Record ${record.seq}`),
      action("context", "Show in context", "Show the record among all records", () => this.#showInContext(record.seq)),
      action("copy", "Copy", "Copy the tab-separated line (c)", () => copyLine(record)),
      action("link", "Link", "Copy the address of this view", () => copyText(linkTo(record.seq), "Copied the link")),
      element("button", { class: "small", "data-action": "close", "aria-label": "Close", title: "Close (Esc)", click: () => session.change({ open: null }, "new") }, "✕"));
  }
  #facts(record) {
    const level = session.info.levels[record.level] ?? String(record.level);
    const hasLevel = record.fields.some(({ name }) => name === "level");
    const facts = [
      ["seq", String(record.seq), "seq"],
      ["Local time", record.local, "local"],
      ["UTC", record.utc, "utc"],
      ["Microseconds", String(record.microseconds), "microseconds"],
      ...(hasLevel ? [] : [["Level", level, "level"]]),
      ...record.fields.filter(({ value }) => value !== null && value !== undefined).map(({ name, label, value }) => [label, value, name]),
    ];
    const list = element("dl", {}, ...facts.flatMap(([label, value, name]) => [
      element("dt", {}, label),
      element("dd", { "data-name": name, "data-tone": name === "level" ? record.level : null }, value),
    ]));
    const context = Object.entries(record.context ?? {});
    if (context.length === 0) return list;
    const map = element("dl", { class: "context" }, ...context.flatMap(([key, value]) => [element("dt", {}, element("bdi", {}, key)), element("dd", {}, value)]));
    return element("div", {}, list, element("h3", {}, "Context"), map);
  }
  #more(record, pre) {
    let at = record.loaded ?? Math.min(record.length, 20_000);
    if (record.length <= at) return null;
    const button = element("button", { class: "more plain", "data-action": "more" });
    const label = () => {
      button.textContent = `Show ${numbers.count(Math.min(PIECE, record.length - at))} more of ${numbers.count(record.length)} characters`;
    };
    button.addEventListener("click", async () => {
      button.disabled = true;
      const piece = await ask("piece", `record/${record.seq}/text`, { from: at, characters: PIECE });
      button.disabled = false;
      if (!piece || this.#record !== record) return;
      pre.append(piece.text);
      at += PIECE;
      if (at >= record.length) button.remove();
      else label();
    });
    label();
    return button;
  }
}

// The answer has no line if the message is long.
async function copyLine(record) {
  const line = record.line ?? (await ask("line", "lines", { seqs: record.seq }))?.text;
  if (line !== undefined) await copyText(line.endsWith("\n") ? line : `${line}\n`, "Copied the record");
}

function linkTo(seq) {
  const view = { ...session.view, open: seq, follows: false, at: session.view.at ?? seq };
  return location.origin + location.pathname + address.hashOf(view);
}
