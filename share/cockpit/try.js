// What would happen with a message: vespercheck says it, and nothing is executed.

import { run } from "./commands.js";
import { describeDaemons } from "./daemons.js";
import { badge, bdi, button, cell, el, field, notice, select, setChoices, table } from "./dom.js";
import { visible } from "./text.js";

const _ = cockpit.gettext;

const FIELDS = { address: _("Call address"), priority: _("Priority"), type: _("Call type"), beep: _("Beep coding"), transmissions: _("Transmissions") };
const ACTIONS = { call: _("writes a call file"), script: _("runs a command"), skip: _("does nothing") };
const CONDITIONS = { match_address: _("its call address does not match"), match_priority: _("its priority does not match"), match_type: _("its call type does not match"), match_beep: _("its beep coding does not match"), match_transmissions: _("its transmissions do not match") };

// The line ends of a call file are shown by lines of the page.
const shownFile = content => content.split("\r\n").map(visible).join("\n");

function triedRow(tried, selected) {
    const outcome = tried.rule === null ? [badge("warning", _("no such rule"))]
        : tried.unmet !== undefined ? [CONDITIONS[tried.unmet] ?? visible(tried.unmet)]
            : tried.index === 0 ? [_("does not match")]
                : [badge(tried.rule === selected ? "success" : "info", tried.rule === selected ? _("selected") : _("matches"))];
    return el("tr", {},
        cell(_("In the list"), bdi(visible(tried.listed))), cell(_("Rule"), bdi(visible(tried.rule))),
        cell(_("Outcome"), ...outcome), cell(_("Groups"), bdi(visible(tried.groups))));
}

function actionOf(trial) {
    if (trial.call_file !== undefined) {
        const { path, content, is_written } = trial.call_file;
        return [
            is_written ? null : notice("danger", _("Not written: outside of the spool directory.")),
            el("p", {}, _("Call file"), " ", el("code", {}, bdi(visible(path)))), el("pre", {}, shownFile(content)),
            trial.otherwise === undefined ? null : el("p", {}, _("When nobody answers:"), " ",
                bdi([...trial.otherwise.map(rule => visible(rule.name)), _("an error in the log")].join(" \u2192 "))),
        ];
    }
    if (trial.command === undefined)
        return [];
    return [
        trial.command.is_run ? null : notice("danger", _("Not run: it is too long.")),
        el("p", {}, _("Command")), el("pre", {}, visible(trial.command.line)),
    ];
}

function trialOf(trial) {
    const rules = table(_("Rules that are tried"), [_("In the list"), _("Rule"), _("Outcome"), _("Groups")]);
    rules.body.append(...trial.tried.map(tried => triedRow(tried, trial.selected)));
    const values = Object.entries(trial.values ?? {});
    const verdict = trial.selected === null
        ? notice("warning", _("No rule: the message is dropped."), ` (${visible(trial.why)})`)
        : notice("success", `${visible(trial.selected)} ${ACTIONS[trial.action] ?? ""}`, ` (${visible(trial.why)})`);
    return el("article", { class: "card" },
        el("h2", {}, cockpit.format(_("On line $0"), visible(trial.line))), verdict,
        trial.tried.length > 0 ? rules.node : null,
        values.length > 0 ? el("dl", {}, ...values.map(([name, value]) => [el("dt", {}, `$${visible(name)}`), el("dd", {}, bdi(visible(value)))]).flat()) : null,
        ...actionOf(trial));
}

export class TryView {
    constructor() {
        this.daemon = select([], { onchange: () => this.showLines() });
        this.line = select([]);
        this.message = el("textarea", { rows: 2, required: true, maxlength: 4096, spellcheck: "false" });
        this.fields = Object.keys(FIELDS).map(name => [name, el("input", { type: "text", maxlength: 128 })]);
        this.result = el("div", { "aria-live": "polite" });
        this.daemonField = field(_("Daemon"), this.daemon);
        this.button = button(_("Try it"), () => {}, "primary", { type: "submit", disabled: true });
        const [address, ...others] = this.fields.map(([name, input]) => field(FIELDS[name], input));
        this.element = el("section", {},
            el("form", { class: "card form", onsubmit: event => this.submit(event) },
                field(_("Message"), this.message, _("As the paging system would send it")), address,
                this.daemonField, field(_("Line"), this.line),
                el("details", {}, el("summary", {}, _("Other fields of the call record")), ...others),
                el("div", {}, this.button,
                    el("small", {}, _("Nothing is executed, and nobody is called.")))),
            this.result);
    }

    async start() {
        this.daemons = await describeDaemons();
        setChoices(this.daemon, this.daemons.map(daemon => [daemon.name, daemon.title]));
        this.daemonField.hidden = this.daemons.length < 2;
        this.button.disabled = false;
        this.showLines();
    }

    stop() {}

    chosen() {
        return this.daemons.find(daemon => daemon.name === this.daemon.value);
    }

    showLines() {
        setChoices(this.line, [["", _("all")], ...this.chosen().lines.map(line => [line, visible(line)])]);
    }

    async submit(event) {
        event.preventDefault();
        const daemon = this.chosen();
        const options = this.fields.filter(([, input]) => input.value !== "").map(([name, input]) => `--${name}=${input.value}`);
        const line = this.line.value === "" ? [] : [`--line=${this.line.value}`];
        const command = ["vespercheck", "--json", `--message=${this.message.value}`, ...options, ...line, ...daemon.asked];
        if (command.some(word => word.includes("\0"))) {
            this.result.replaceChildren(notice("danger", _("A NUL cannot be typed into a message here.")));
            return;
        }
        const said = await run(command, { superuser: "try" });
        this.show(daemon, said);
    }

    show(daemon, said) {
        if (said.status !== 0) {
            this.result.replaceChildren(notice("danger", cockpit.format(_("$0 cannot be tried."), daemon.config), " ", visible(said.message)));
            return;
        }
        const { lines } = JSON.parse(said.output);
        this.result.replaceChildren(...lines.length > 0 ? lines.map(trialOf) : [notice("info", _("No line is served: there is nothing to try."))]);
    }
}
