// SPDX-License-Identifier: MIT
// Values that come as they are stored, because they become part of a query, are shown as on a terminal: control and
// format characters escaped.

const hidden = /(?![\u200c\u200d])[\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Cs}]/gu; // two join letters of some scripts

export function shown(text) {
  return text.replace(hidden, (character) => {
    const code = character.codePointAt(0);
    if (code === 9) return "\\t";
    if (code === 10) return "\\n";
    if (code === 13) return "\\r";
    if (code < 0x80) return `\\x${code.toString(16).padStart(2, "0")}`;
    return code < 0x10000 ? `\\u${code.toString(16).padStart(4, "0")}` : `\\U${code.toString(16).padStart(8, "0")}`;
  });
}
