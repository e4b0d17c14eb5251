// SPDX-License-Identifier: MIT
// The text of a query: its tokens, and adding, negating and removing a condition `name:value` (docs/query-language.md).

// Cuts a query into tokens {start, end, text, kind, inQuotes}: text without its quotes; kind is "word", "(", ")", "AND",
// "OR" or "NOT"; inQuotes says that the closing quote is missing.
export function tokens(query) {
  const found = [];
  let word = null;
  let inQuotes = false;
  const end = (at) => {
    if (!word) return;
    const kind = !word.wasQuoted && ["AND", "OR", "NOT"].includes(word.text) ? word.text : "word";
    if (word.text !== "") found.push({ start: word.start, end: at, text: word.text, kind, inQuotes });
    word = null;
  };
  for (let at = 0; at < query.length; at += 1) {
    const character = query[at];
    if (!inQuotes && /[\s()]/.test(character)) {
      end(at);
      if (character === "(" || character === ")") found.push({ start: at, end: at + 1, text: character, kind: character, inQuotes: false });
      continue;
    }
    word ??= { start: at, text: "", wasQuoted: false };
    if (character === '"') {
      word.wasQuoted = true;
      inQuotes = !inQuotes;
    } else {
      word.text += character;
    }
  }
  end(query.length);
  return found;
}

// The condition as it is typed. Null for a value that the language cannot express.
export function condition(name, value) {
  if (value === "" || value.includes('"') || /[\u0000]/.test(value)) return null;
  return /[\s()]/.test(value) ? `${name}:"${value}"` : `${name}:${value}`;
}

// Finds `name:value` among the conditions that every match must fulfil: outside of parentheses, in a query without an
// OR outside of them. A value of undefined finds any. Returns {start, end, value, isNegated}, or null.
export function find(query, name, value) {
  const all = tokens(query);
  let depth = 0;
  let found = null;
  for (const [index, token] of all.entries()) {
    if (token.kind === "(") depth += 1;
    else if (token.kind === ")") depth = Math.max(0, depth - 1);
    else if (token.kind === "OR" && depth === 0) return null;
    const colon = token.text.indexOf(":");
    if (depth > 0 || token.kind !== "word" || colon < 1 || found) continue;
    const given = token.text.slice(colon + 1);
    if (token.text.slice(0, colon).toLowerCase() !== name.toLowerCase()) continue;
    if (value !== undefined ? given !== value : given === "") continue;
    let negations = 0;
    while (all[index - 1 - negations]?.kind === "NOT") negations += 1;
    found = { start: all[index - negations].start, end: token.end, value: given, isNegated: negations % 2 === 1 };
  }
  return found;
}

function replace(query, { start, end }, text) {
  const before = query.slice(0, start).trimEnd();
  const after = query.slice(end).trimStart();
  return [before, text, after].filter((part) => part !== "").join(" ");
}

// Adds a condition to what the whole query asks.
export function add(query, text) {
  const trimmed = query.trim();
  if (trimmed === "") return text;
  let depth = 0;
  let hasOr = false;
  for (const token of tokens(trimmed)) {
    if (token.kind === "(") depth += 1;
    else if (token.kind === ")") depth = Math.max(0, depth - 1);
    else if (token.kind === "OR" && depth === 0) hasOr = true;
  }
  const closed = `${trimmed}${isOpenQuote(trimmed) ? '"' : ""}${")".repeat(depth)}`;
  return hasOr ? `(${closed}) ${text}` : `${closed} ${text}`;
}
const isOpenQuote = (query) => (query.match(/"/g) ?? []).length % 2 === 1;

// The next of the three states of a condition: absent, present, negated. A field of which only one value makes sense
// (`isSingle`: the level) replaces its value.
export function cycle(query, name, value, isSingle = false) {
  const text = condition(name, value);
  if (text === null) return query;
  const present = find(query, name, isSingle ? undefined : value);
  if (!present) return add(query, text);
  if (isSingle && present.value.toLowerCase() !== value.toLowerCase()) return replace(query, present, text);
  return replace(query, present, present.isNegated ? "" : `NOT ${text}`);
}

// What is being typed at the cursor: {start, end, name, value}, name null while it has no colon. Null between words.
export function typedAt(query, cursor) {
  const token = tokens(query).find(({ start, end, kind }) => kind !== "(" && kind !== ")" && start < cursor && cursor <= end);
  if (!token) return null;
  const typed = query.slice(token.start, cursor).replaceAll('"', "");
  const colon = typed.indexOf(":");
  if (colon < 0) return { start: token.start, end: token.end, name: null, value: typed };
  return { start: token.start, end: token.end, name: typed.slice(0, colon), value: typed.slice(colon + 1) };
}
