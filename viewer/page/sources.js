// SPDX-License-Identifier: MIT
// The sources, the captures and the databases: a dialog in which captures are started, watched and ended.

import { announce } from "./announce.js";
import { ask, tell } from "./api.js";
import { byId, element } from "./dom.js";
import { confirmFirst } from "./confirm.js";
import * as numbers from "./numbers.js";
import * as session from "./session.js";

const KINDS = { adb: "Android", dlt: "DLT", "this-machine": "This machine", simulator: "Simulator", "apple-device": "Device" };

export class Sources {
  #dialog = byId("sources");
  #found = element("ul", { class: "found" });
  #captures = element("ul", { class: "captures" });
  #databases = element("ul", { class: "databases" });
  #problem = element("p", { class: "error", role: "alert", hidden: true });
  #look = element("button", { class: "small", click: () => this.#find() }, "Look again");
  #database = element("input", { id: "capture-database", "aria-label": "Database", spellcheck: "false", autocomplete: "off" });
  #cap = element("input", { id: "capture-cap", class: "size", "aria-label": "Size cap", placeholder: "none, or 500M", spellcheck: "false", autocomplete: "off" });
  #host = element("input", { id: "dlt-host", "aria-label": "DLT host", placeholder: "192.0.2.7 or host:port", spellcheck: "false", autocomplete: "off" });
  #rows = new Map(); // id of a capture → what shows it
  #restart;

  // `restart` loads the page's data again, after another database was opened.
  constructor(restart) {
    this.#restart = restart;
    const dlt = element("form", { submit: (event) => {
      event.preventDefault();
      this.#start({ source: "dlt", host: this.#host.value.trim() });
    } }, element("div", { class: "fields" }, element("label", {}, "Host", this.#host), element("button", { class: "plain", id: "start-dlt" }, "Capture DLT")));
    this.#dialog.append(
      element("header", {}, element("h2", {}, "Sources and captures"), element("button", { class: "small", "aria-label": "Close", id: "close-sources", click: () => this.#dialog.close() }, "✕")),
      element("section", {}, element("h3", {}, "Capture into"),
        element("div", { class: "fields" }, element("label", {}, "Database", this.#database), element("label", {}, "Size cap", this.#cap)), this.#problem),
      element("section", {}, element("h3", {}, "Running captures"), this.#captures),
      element("section", {}, element("h3", {}, "DLT daemon"), dlt),
      element("section", {}, element("h3", {}, "Found sources", this.#look), this.#found),
      element("section", {}, element("h3", {}, "Databases in this folder"), this.#databases));
    byId("open-sources").addEventListener("click", () => this.open());
    this.#dialog.addEventListener("click", (event) => {
      if (event.target === this.#dialog) this.#dialog.close();
    });
  }

  open() {
    if (this.#dialog.open) return;
    this.#database.value ||= session.info?.database ?? "log.db";
    this.#problem.hidden = true;
    this.show();
    this.#dialog.showModal();
    this.#find();
    this.#list();
  }

  async #find() {
    this.#look.disabled = true;
    this.#found.replaceChildren(element("li", { class: "looking" }, "Looking for sources …"));
    const answer = await ask("sources", "sources");
    this.#look.disabled = false;
    const items = (answer?.sources ?? []).map((source) => element("li", { "data-kind": source.kind },
      element("span", { class: "what" }, element("b", {}, element("bdi", {}, source.name)), " ", element("small", {}, element("bdi", {}, [KINDS[source.kind] ?? source.kind, source.detail].filter(Boolean).join(" · ")))),
      source.canCapture && element("button", { class: "plain", click: () => this.#start({ source: source.kind, serial: source.serial }) }, "Capture")));
    const errors = (answer?.errors ?? []).map((sentence) => element("li", { class: "note" }, sentence));
    this.#found.replaceChildren(...items, ...errors);
    if (items.length + errors.length === 0) this.#found.append(element("li", {}, "No sources were found."));
  }
  async #list() {
    const answer = await ask("databases", "databases");
    const items = (answer?.databases ?? []).map((database) => element("li", {},
      element("span", { class: "what" }, element("b", {}, element("bdi", {}, database.name)), " ", element("small", {}, numbers.bytes(database.bytes))),
      ...(database.open
        ? [element("small", {}, "open"), element("button", { class: "plain", "data-action": "clear", click: () => this.#clear(database.name) }, "Clear …")]
        : [element("button", { class: "plain", "data-action": "open", click: () => this.#open(database.name) }, "Open")])));
    this.#databases.replaceChildren(...items);
    if (items.length === 0) this.#databases.append(element("li", {}, element("small", {}, "There are none yet.")));
  }

  #complain(sentence) {
    this.#problem.textContent = sentence;
    this.#problem.hidden = !sentence;
    if (sentence) this.#problem.scrollIntoView({ block: "nearest" });
  }
  async #start(which) {
    const maxBytes = numbers.parseBytes(this.#cap.value);
    if (maxBytes === undefined) {
      this.#complain(`"${this.#cap.value}" is not a size. Write for example 500M or 2G.`);
      return;
    }
    this.#complain("");
    const database = this.#database.value.trim();
    const answer = await tell("captures", { ...which, database, ...(maxBytes ? { maxBytes } : {}) });
    if (answer.error) {
      this.#complain(answer.error);
      return;
    }
    announce("The capture has started");
    if (answer.generation !== session.info?.generation) await this.#restart(answer.generation);
    session.change({ follows: true });
    this.#list();
  }
  async #open(name) {
    const answer = await tell("open", { database: name });
    if (answer.error) {
      this.#complain(answer.error);
      return;
    }
    await this.#restart(answer.generation);
    this.#database.value = name;
    this.#list();
  }
  async #clear(name) {
    const number = session.live.firstSeq > 0 ? `all ${numbers.count(session.live.lastSeq - session.live.firstSeq + 1)} records` : "all records";
    const isSure = await confirmFirst(`Clear ${name}?`, `This deletes ${number} of ${name}. They cannot be brought back.`, "Delete the records");
    if (!isSure) return;
    const answer = await tell("clear", { database: name, sure: true });
    this.#complain(answer.error ?? "");
    if (!answer.error) announce(`Deleted ${numbers.plural(answer.deleted ?? 0, "record")}`);
    this.#list();
  }

  // Shows the captures of the newest state. Rows are kept, because the user may be typing in one.
  show() {
    const captures = session.live.captures ?? [];
    document.body.dataset.capturing = captures.some((capture) => capture.running);
    const ids = new Set(captures.map(({ id }) => String(id)));
    for (const [id, row] of this.#rows) {
      if (ids.has(id)) continue;
      row.node.remove();
      this.#rows.delete(id);
    }
    for (const capture of captures) {
      const id = String(capture.id);
      if (!this.#rows.has(id)) {
        this.#rows.set(id, this.#captureRow(capture));
        this.#captures.prepend(this.#rows.get(id).node);
      }
      this.#rows.get(id).show(capture);
    }
    this.#captures.dataset.number = captures.length;
    this.#none ??= element("li", { class: "none" }, element("small", {}, "None is running."));
    if (captures.length) this.#none.remove();
    else this.#captures.replaceChildren(this.#none);
  }
  #none;
  #captureRow({ id, source, database, maxBytes }) {
    const figures = element("span", { class: "figures" });
    const problem = element("span", { class: "what error" });
    const cap = element("input", { class: "size", "aria-label": "Size cap", placeholder: "no cap", value: maxBytes ? numbers.bytes(maxBytes).replace(/ (.)iB/, "$1") : null });
    const end = element("button", { class: "plain", "data-action": "end", click: async () => this.#complain((await tell(`captures/${id}/end`)).error ?? "") }, "End");
    const controls = element("form", { class: "fields", submit: async (event) => {
      event.preventDefault();
      const size = numbers.parseBytes(cap.value);
      if (size === undefined) this.#complain(`"${cap.value}" is not a size. Write for example 500M or 2G.`);
      else this.#complain((await tell(`captures/${id}/cap`, { maxBytes: size ?? 0 })).error ?? "");
    } }, element("label", {}, "Cap", cap), element("button", { class: "small" }, "Set"), end);
    const node = element("li", { "data-capture": id },
      element("span", { class: "what" }, element("b", {}, element("bdi", {}, KINDS[source] ?? source)), " ", element("small", {}, element("bdi", {}, `into ${database}`))),
      figures, controls, problem);
    const show = (capture) => {
      const lost = capture.lost ? ` · ${numbers.count(capture.lost)} lost` : "";
      figures.textContent = `${numbers.plural(capture.records ?? 0, "record")} · ${numbers.count(Math.round(capture.rate ?? 0))}/s · ${numbers.bytes(capture.usedBytes ?? 0)}${lost}${capture.running ? "" : " · ended"}`;
      node.dataset.running = Boolean(capture.running);
      node.dataset.records = capture.records ?? 0;
      controls.hidden = !capture.running;
      problem.textContent = capture.error ?? "";
      problem.hidden = !capture.error;
    };
    return { node, show };
  }
}
