// The page: a view at a time, which works only while somebody looks at it.

import { CallsView } from "./calls.js";
import { ConfigurationView } from "./configuration.js";
import { el } from "./dom.js";
import { LinesView } from "./lines.js";
import { ServiceView } from "./service.js";
import { followTheme } from "./theme.js";
import { TryView } from "./try.js";

const _ = cockpit.gettext;

const VIEWS = [
    ["lines", _("Lines"), LinesView], ["calls", _("Calls"), CallsView], ["try", _("Try a message"), TryView],
    ["configuration", _("Configuration"), ConfigurationView], ["service", _("Service"), ServiceView],
];

const views = new Map();
const main = el("main");
const links = new Map(VIEWS.map(([name, label]) => [name, el("a", { href: `#/${name}`, onclick: event => { event.preventDefault(); cockpit.location.go([name]) } }, label)]));

let current = null;
let isRunning = false;

const viewOf = name => {
    if (!views.has(name))
        views.set(name, new (VIEWS.find(([other]) => other === name)[2])());
    return views.get(name);
};

function setRunning(isWanted) {
    if (current !== null && isRunning !== isWanted)
        isWanted ? current.start() : current.stop();
    isRunning = isWanted;
}

function show() {
    const asked = cockpit.location.path[0];
    const name = links.has(asked) ? asked : VIEWS[0][0];
    setRunning(false);
    current = viewOf(name);
    links.forEach((link, other) => other === name ? link.setAttribute("aria-current", "page") : link.removeAttribute("aria-current"));
    main.replaceChildren(el("h1", {}, links.get(name).textContent), current.element);
    setRunning(!cockpit.hidden);
}

cockpit.translate();
followTheme();
document.documentElement.lang = cockpit.language ?? "en";
document.body.append(el("nav", { "aria-label": _("Views") }, el("ul", {}, ...[...links.values()].map(link => el("li", {}, link)))), main);
cockpit.addEventListener("locationchanged", show);
cockpit.addEventListener("visibilitychange", () => setRunning(!cockpit.hidden));
show();
