// SPDX-License-Identifier: MIT
// Counts and sizes as text.

const grouped = new Intl.NumberFormat("en");

export const count = (number) => grouped.format(number);

export const plural = (number, one) => `${count(number)} ${one}${number === 1 ? "" : one.endsWith("h") ? "es" : "s"}`;

// A size in units of 1,024, as the command prints and reads them.
export function bytes(number) {
  const units = ["bytes", "KiB", "MiB", "GiB", "TiB"];
  let unit = 0;
  let size = number;
  while (size >= 1024 && unit < units.length - 1) {
    size /= 1024;
    unit += 1;
  }
  return unit === 0 ? plural(number, "byte") : `${size.toFixed(size < 10 ? 1 : 0)} ${units[unit]}`;
}

// Reads "500M", "2 GiB" or a plain number of bytes. Undefined if the text is no size, null if it is empty.
export function parseBytes(text) {
  if (text.trim() === "") return null;
  const parts = /^\s*(\d+(?:\.\d+)?)\s*([kmgt]?)(?:i?b)?\s*$/i.exec(text);
  if (!parts) return undefined;
  const size = Math.round(Number(parts[1]) * 1024 ** " kmgt".indexOf(parts[2].toLowerCase() || " "));
  return size > 0 && Number.isSafeInteger(size) ? size : undefined;
}
