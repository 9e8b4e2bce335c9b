// A text with the numbers of its lines, and marks at those of which something is to be said.

import { el } from "./dom.js";

// `onInput` hears of every change.
export class Editor {
    constructor(label, onInput) {
        this.numbers = el("div", { class: "numbers", "aria-hidden": "true" });
        this.area = el("textarea", { wrap: "off", spellcheck: "false", autocapitalize: "off", autocomplete: "off", "aria-label": label, oninput: () => { this.number(); onInput() }, onscroll: () => { this.numbers.scrollTop = this.area.scrollTop } });
        this.element = el("div", { class: "editor" }, this.numbers, this.area);
        this.marks = new Map();
    }

    get text() {
        return this.area.value;
    }

    set text(text) {
        this.area.value = text;
        this.mark(new Map());
    }

    set isReadOnly(isIt) {
        this.area.readOnly = isIt;
    }

    number() {
        const count = this.area.value.split("\n").length;
        if (this.numbers.childElementCount === count)
            return;
        this.numbers.replaceChildren(...Array.from({ length: count }, (_none, i) => el("div", { class: this.marks.get(i + 1) ?? "" }, String(i + 1))));
    }

    // `marks`: the kind of mark, "danger", "warning" or "info", by the number of the line.
    mark(marks) {
        this.marks = marks;
        this.numbers.replaceChildren();
        this.number();
        this.numbers.scrollTop = this.area.scrollTop;
    }

    // Puts the cursor on a line.
    goTo(line) {
        const before = this.area.value.split("\n").slice(0, line - 1);
        const start = before.reduce((sum, text) => sum + text.length + 1, 0);
        const end = this.area.value.indexOf("\n", start);
        this.area.focus();
        this.area.setSelectionRange(start, end < 0 ? this.area.value.length : end);
        const height = this.area.scrollHeight / (this.numbers.childElementCount || 1);
        this.area.scrollTop = Math.max(0, (line - 5) * height);
    }
}
