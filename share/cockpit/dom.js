// Elements of the page. Whatever text they are given is text: nothing here takes HTML.

const SVG = "http://www.w3.org/2000/svg";

function fill(node, properties, children) {
    for (const [name, value] of Object.entries(properties)) {
        if (name.startsWith("on"))
            node.addEventListener(name.slice(2), value);
        else if (value === true)
            node.setAttribute(name, "");
        else if (value !== false && value !== null && value !== undefined)
            node.setAttribute(name, value);
    }
    node.append(...children.flat().filter(child => child !== null && child !== undefined));
    return node;
}

// An element: el("button", { type: "button", onclick: save }, "Save"). Children are nodes and texts.
export const el = (tag, properties = {}, ...children) => fill(document.createElement(tag), properties, children);

// The same of a drawing.
export const svg = (tag, properties = {}, ...children) =>
    fill(document.createElementNS(SVG, tag), properties, children);

export function button(label, onclick, kind = "secondary", properties = {}) {
    return el("button", { type: "button", class: `button ${kind}`, onclick, ...properties }, label);
}

// A field of a form with its label in front of it.
export const field = (label, control, hint) =>
    el("label", { class: "field" }, el("span", {}, label), control, hint ? el("small", {}, hint) : null);

export function select(choices, properties = {}) {
    const node = el("select", properties);
    setChoices(node, choices);
    return node;
}

// Gives a select other choices, [value, label], and keeps what is chosen if it is still there.
export function setChoices(node, choices) {
    const before = node.value;
    node.replaceChildren(...choices.map(([value, label]) => el("option", { value }, label)));
    if (choices.some(([value]) => value === before))
        node.value = before;
}

// What happened, in a box: kind is "info", "success", "warning" or "danger".
export const notice = (kind, title, ...rest) =>
    el("div", { class: `notice ${kind}`, role: kind === "danger" ? "alert" : "status" }, el("strong", {}, title), ...rest);

export const badge = (kind, label) => el("span", { class: `badge ${kind}` }, label);

// A table whose cells become lines of a card where the page is narrow. `columns`: labels of the columns.
export function table(caption, columns, properties = {}) {
    const body = el("tbody");
    const node = el("table", properties, el("caption", { class: "hidden-text" }, caption),
        el("thead", {}, el("tr", {}, ...columns.map(label => el("th", { scope: "col" }, label)))), body);
    return { node, body };
}

// Its cells: cell("Line", "ward3").
export const cell = (label, ...children) => el("td", { "data-label": label }, el("div", {}, ...children));

// Text from outside, apart from the direction of what stands around it.
export const bdi = (text, properties = {}) => el("bdi", properties, text);

// Asks a question that stays until it is answered. Returns whether the answer is yes.
export function confirmed(question, yes) {
    return new Promise(resolve => {
        const dialog = el("dialog", { "aria-label": question, onclose: () => { dialog.remove(); resolve(dialog.returnValue === "yes") } },
            el("p", {}, question),
            el("div", { class: "actions" }, button(yes, () => dialog.close("yes"), "danger"),
                button(cockpit.gettext("Cancel"), () => dialog.close("no"))));
        document.body.append(dialog);
        dialog.showModal();
    });
}
