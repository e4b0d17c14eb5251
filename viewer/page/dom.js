// SPDX-License-Identifier: MIT
// Builds elements. Text from logs only ever becomes a text node: nothing here reads markup.

// Properties that are functions become event listeners; the others become attributes, unless they are absent or false.
export function element(tag, properties = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (typeof value === "function") node.addEventListener(name, value);
    else if (value === true) node.setAttribute(name, "");
    else if (value !== undefined && value !== null && value !== false) node.setAttribute(name, value);
  }
  node.append(...children.filter((child) => child !== null && child !== undefined && child !== false));
  return node;
}

export const byId = (id) => document.getElementById(id);

// Text with the words [begin, end) of `marks` (UTF-16 units, ascending) inside mark elements.
export function marked(text, marks) {
  const parts = document.createDocumentFragment();
  let at = 0;
  for (const [begin, end] of marks ?? []) {
    if (begin < at || end > text.length) continue;
    if (begin > at) parts.append(text.slice(at, begin));
    parts.append(element("mark", {}, text.slice(begin, end)));
    at = end;
  }
  parts.append(text.slice(at));
  return parts;
}

export function press(button, isPressed) {
  button.setAttribute("aria-pressed", String(Boolean(isPressed)));
}
