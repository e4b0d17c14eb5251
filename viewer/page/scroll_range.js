// SPDX-License-Identifier: MIT
// A scroll position in a list that may be higher than browsers allow an element to be (16 to 33 million pixels).
//
// `top` is the position in pixels of the whole list. The element that scrolls is at most LIMIT pixels high. Near both
// ends its pixels are those of the list; in between they are stretched. A short movement (wheel, keys, touch) moves
// `top` by the same number of pixels, so that every row can be reached. A long one (the scroll bar) goes to the place
// that it stands for. When movement ends, the scroll bar is put where `top` belongs.

const LIMIT = 6_000_000;
const EXACT = 20_000; // pixels at each end that are not stretched

export class ScrollRange {
  top = 0;
  length = 0; // of the whole list, in pixels
  height = 0; // of the part that is shown
  #scroller;
  #spacer;
  #dom = 0; // the scroll position that was last seen or set
  #header = 0;
  #timer = 0;

  // `header` is the height of what sticks to the top of the scroller, above the list. `moved` is called after a
  // movement by the user.
  constructor(scroller, spacer, moved) {
    this.#scroller = scroller;
    this.#spacer = spacer;
    scroller.addEventListener("scroll", () => {
      const dom = scroller.scrollTop;
      const delta = dom - this.#dom;
      if (delta === 0) return;
      this.#dom = dom;
      this.height = Math.max(0, scroller.clientHeight - this.#header); // the browser may just have changed it
      const isShort = Math.abs(delta) <= 2 * this.height;
      this.top = this.#clamp(this.#isStretched && isShort ? this.top + delta : this.#toTop(dom));
      clearTimeout(this.#timer);
      if (this.#isStretched) this.#timer = setTimeout(() => this.#settle(), 150);
      moved(delta);
    });
  }
  measure(header) {
    this.#header = header;
    this.height = Math.max(0, this.#scroller.clientHeight - header);
    this.setLength(this.length);
  }
  get max() {
    return Math.max(0, this.length - this.height);
  }
  // Where a row that stands at `top` of the list has to be put in the element that scrolls.
  get origin() {
    return this.#dom - this.top;
  }
  get isAtEnd() {
    return this.top >= this.max - 2;
  }
  setLength(length) {
    this.length = length;
    const dom = `${Math.min(length, LIMIT) + this.#header}px`;
    if (this.#spacer.style.height !== dom) this.#spacer.style.height = dom;
    this.top = this.#clamp(this.top);
  }
  moveTo(top) {
    this.top = this.#clamp(top);
    this.#settle();
  }
  #clamp(top) {
    return Math.min(Math.max(0, top), this.max);
  }
  get #isStretched() {
    return this.length > LIMIT;
  }
  get #domMax() {
    return Math.max(0, Math.min(this.length, LIMIT) - this.height);
  }
  #toTop(dom) {
    if (!this.#isStretched || dom <= EXACT) return dom;
    if (dom >= this.#domMax - EXACT) return this.max - (this.#domMax - dom);
    return EXACT + ((dom - EXACT) * (this.max - 2 * EXACT)) / (this.#domMax - 2 * EXACT);
  }
  #toDom(top) {
    if (!this.#isStretched || top <= EXACT) return top;
    if (top >= this.max - EXACT) return this.#domMax - (this.max - top);
    return EXACT + ((top - EXACT) * (this.#domMax - 2 * EXACT)) / (this.max - 2 * EXACT);
  }
  #settle() {
    clearTimeout(this.#timer);
    const dom = Math.round(this.#toDom(this.top));
    if (Math.abs(dom - this.#scroller.scrollTop) >= 1) this.#scroller.scrollTop = dom;
    this.#dom = this.#scroller.scrollTop; // the browser may round
    this.settled?.();
  }
}
