// The daemons as services: which run, which start with the machine.

import { isAdministrator, onAccessChanged } from "./commands.js";
import { listDaemons } from "./daemons.js";
import { badge, button, cell, confirmed, el, notice, table } from "./dom.js";
import { act, enable, watchUnits } from "./systemd.js";
import { timeWords, visible } from "./text.js";

const _ = cockpit.gettext;

const TARGET = "vesperd.target";
const STATES = {
    active: ["success", _("Runs")], reloading: ["info", _("Reloads")], activating: ["info", _("Starts")],
    deactivating: ["warning", _("Stops")], inactive: ["warning", _("Stopped")], failed: ["danger", _("Failed")],
};
const LABELS = [_("Service"), _("State"), _("Starts with the machine"), _("Actions")];

export class ServiceView {
    constructor() {
        this.access = el("div");
        this.result = el("div", { "aria-live": "polite" });
        this.table = table(_("Daemons and what starts all of them"), LABELS);
        this.element = el("section", {}, this.access, this.result, this.table.node);
        onAccessChanged(() => this.draw());
        this.states = [];
        this.run = 0;
    }

    async start() {
        this.stop();
        const run = this.run;
        const daemons = await listDaemons();
        if (run !== this.run)
            return;
        this.daemons = daemons;
        const units = [TARGET, ...this.daemons.map(daemon => daemon.unit)];
        this.stopWatching = watchUnits(units, states => {
            this.states = states;
            this.draw();
        }, message => this.result.replaceChildren(notice("danger", _("systemd does not answer."), " ", message)));
    }

    stop() {
        this.run++;
        this.stopWatching?.();
    }

    draw() {
        this.access.replaceChildren(...isAdministrator() ? [] : [notice("info", _("Only administrators can start, stop and reload."), " ", _("Turn on administrative access at the top of the page."))]);
        const rows = this.states.map(state => this.row(state));
        const focused = document.activeElement?.dataset;
        this.table.body.replaceChildren(...rows);
        if (focused?.unit !== undefined) {
            const buttons = [...this.table.body.querySelectorAll("button")].filter(other => other.dataset.unit === focused.unit);
            (buttons.find(other => other.dataset.label === focused.label) ?? buttons[0])?.focus();
        }
    }

    row(state) {
        const [kind, label] = STATES[state.active] ?? ["info", state.active];
        const daemon = this.daemons.find(other => other.unit === state.unit);
        const about = daemon === undefined ? _("all daemons") : daemon.name === "" ? _("the daemon without a name") : cockpit.format(_("instance $0"), daemon.name);
        const since = state.active === "active" && state.since > 0 ? el("small", {}, cockpit.format(_("since $0"), timeWords(new Date(state.since)))) : null;
        return el("tr", {},
            cell(LABELS[0], el("strong", {}, visible(state.unit)), el("small", {}, about)),
            cell(LABELS[1], badge(kind, label), since),
            cell(LABELS[2], this.startWords(state)),
            cell(LABELS[3], el("div", { class: "actions" }, ...this.actions(state))));
    }

    // The target starts them, when it starts itself.
    startWords(state) {
        if (state.file !== "enabled")
            return _("no");
        const isStarted = this.states.some(other => other.unit === TARGET && other.file === "enabled");
        return isStarted ? _("yes") : cockpit.format(_("with $0"), TARGET);
    }

    actions(state) {
        const does = (label, action, kind) => button(label, () => this.perform(label, state.unit, action), kind,
            { disabled: !isAdministrator(), "data-unit": state.unit, "data-label": label, "aria-label": `${label}: ${state.unit}` });
        const runs = state.active === "active" || state.active === "reloading";
        return [
            runs ? does(_("Reload"), () => this.reload(state.unit)) : does(_("Start"), () => act("StartUnit", state.unit), "primary"),
            runs || state.active === "activating" ? does(_("Stop"), () => this.halt(state.unit), "danger") : null,
            state.file === "enabled" ? does(_("Disable"), () => enable(state.unit, false)) : does(_("Enable"), () => enable(state.unit, true)),
        ];
    }

    // The target itself has nothing to reload.
    async reload(unit) {
        const running = this.states.filter(state => state.unit !== TARGET && state.active === "active").map(state => state.unit);
        await Promise.all((unit === TARGET ? running : [unit]).map(one => act("ReloadUnit", one)));
    }

    async halt(unit) {
        const question = unit === TARGET ? _("Stop all daemons? No paging request of any line becomes a call until they are started again.")
            : cockpit.format(_("Stop $0? No paging request of its lines becomes a call until it is started again."), unit);
        if (!await confirmed(question, _("Stop")))
            return false;
        return act("StopUnit", unit);
    }

    async perform(label, unit, action) {
        try {
            const done = await action();
            this.result.replaceChildren(...done === false ? [] : [notice("success", cockpit.format(_("$0: $1 is done."), unit, label))]);
        } catch (error) {
            this.result.replaceChildren(notice("danger", cockpit.format(_("$0: $1 failed."), unit, label), " ", visible(error.message)));
        }
    }
}
