// The calls: what came over the lines, the newest first, with what became of it.

import { isAdministrator, onAccessChanged } from "./commands.js";
import { csvOf } from "./csv.js";
import { describeDaemons } from "./daemons.js";
import { badge, bdi, button, cell, el, field, notice, select, setChoices, table } from "./dom.js";
import { endOf, History, isMessage, matches } from "./history.js";
import { followJournal, whyUnreadable } from "./journal.js";
import { dayOf, durationWords, timeWords, visible } from "./text.js";

const _ = cockpit.gettext;

const PAGE_ROWS = 100;
const MOST_ROWS = 2000; // in the table; the oldest go
const MOST_RECENT = 1000; // calls that came while one looks, of which an outcome may come
const MOST_LOOKED = 20000; // entries at a time
const MOST_SAVED = 100000; // rows of a CSV file
const LATE_OUTCOME_MS = 3600e3; // of a call, after its day
const TYPING_MS = 300;

const ENDS = {
    answered: ["success", _("Answered")],
    unanswered: ["danger", _("Not answered")],
    lost: ["danger", _("Nothing heard of it")],
    failed: ["danger", _("Failed")],
    ok: ["info", _("Done")],
    none: ["warning", _("No action")],
};

const ALARMS = {
    no_response: _("No connection to the converter"),
    connection_lost: _("Connection lost"),
    connected: _("Connected"),
    transmission_error: _("Transmission error"),
    started: _("Line started"),
    terminated: _("Line ended"),
    general_error: _("General error"),
};

function endBadge(entry, steps) {
    const end = endOf(entry, steps);
    const [kind, label] = Object.hasOwn(ENDS, end) ? ENDS[end] : ["info", visible(end)];
    return badge(kind, label);
}

function actionWords(entry) {
    const rule = visible(entry.rule);
    switch (entry.action) {
    case "call":
        return entry.result === "ok" ? cockpit.format(_("$0 wrote the call file $1"), rule, visible(entry.file))
            : cockpit.format(_("$0 could not write a call file"), rule);
    case "script":
        return "exit" in entry ? cockpit.format(_("$0 ran its command, which ended with status $1"), rule, visible(entry.exit))
            : cockpit.format(_("$0 could not run its command"), rule);
    default:
        return rule === "" ? _("No rule takes it: nothing is done") : cockpit.format(_("$0 does nothing"), rule);
    }
}

const OUTCOMES = {
    answered: _("answered after $0"),
    confirmed: _("answered and confirmed after $0"),
    unanswered: _("not answered within $0"),
    lost: _("nothing was heard of it for $0"),
};

function outcomeWords(step) {
    const words = Object.hasOwn(OUTCOMES, step.result) ? cockpit.format(OUTCOMES[step.result], durationWords(step.seconds)) : visible(step.result);
    const tries = cockpit.format(cockpit.ngettext("$0 attempt", "$0 attempts", step.attempts), visible(step.attempts));
    const next = step.next === null ? "" : " \u2192 " + cockpit.format(_("next: $0"), visible(step.next));
    const done = step.next === null ? "" : step.file !== undefined ? `, ${visible(step.file)}`
        : "exit" in step ? ", " + cockpit.format(_("status $0"), visible(step.exit)) : "";
    return `${visible(step.call)}: ${words}, ${tries}${next}${done}`;
}

function storyOf({ entry, steps }) {
    const about = [
        [_("Protocol"), entry.protocol], [_("Priority"), entry.priority], [_("Type"), entry.type],
        [_("Beep coding"), entry.beep], [_("Transmissions"), entry.transmissions], [_("Rule"), entry.rule],
    ].filter(([, value]) => value !== undefined && value !== null && value !== "");
    const moment = (date, words) => el("li", {}, el("time", {}, timeWords(date)), " ", bdi(words));
    return el("div", { class: "story" },
        isMessage(entry) ? el("p", { class: "whole-text" }, bdi(visible(entry.text))) : null,
        el("ol", {},
            moment(entry.at, cockpit.format(_("received on $0"), visible(entry.line))),
            moment(entry.at, `${actionWords(entry)} (${visible(entry.ms)} ms)`),
            ...steps.map(step => moment(step.at, outcomeWords(step)))),
        el("dl", {}, ...about.map(([name, value]) => [el("dt", {}, name), el("dd", {}, bdi(visible(value)))]).flat()));
}

// A row, and under it its story once somebody has asked for it.
class Row {
    constructor(item, withDaemon) {
        this.item = item;
        this.toggle = button("", () => this.open(this.story === null), "plain toggle");
        this.story = null;
        this.withDaemon = withDaemon;
        this.node = el("tr");
        this.draw();
    }

    draw() {
        const { entry, steps, source } = this.item;
        const text = isMessage(entry) ? entry.text : Object.hasOwn(ALARMS, entry.event) ? ALARMS[entry.event] : entry.event;
        this.toggle.replaceChildren(el("span", { class: "arrow", "aria-hidden": "true" }), el("time", { datetime: entry.time }, timeWords(entry.at)));
        this.node.replaceChildren(
            cell(_("Time"), this.toggle),
            cell(_("Line"), bdi(visible(this.withDaemon ? `${source.title} / ${entry.line}` : entry.line))),
            cell(_("Address"), bdi(visible(entry.address))),
            cell(_("Message"), bdi(visible(text), { class: isMessage(entry) ? "clamped" : "clamped alarm" })),
            cell(_("Result"), endBadge(entry, steps)));
        this.toggle.setAttribute("aria-expanded", String(this.story !== null));
        if (this.story !== null)
            this.story.replaceChildren(this.storyCell());
    }

    storyCell() {
        return el("td", { colspan: 5 }, storyOf(this.item));
    }

    open(isWanted) {
        this.story?.remove();
        this.story = isWanted ? el("tr", { class: "details" }, this.storyCell()) : null;
        if (isWanted)
            this.node.after(this.story);
        this.toggle.setAttribute("aria-expanded", String(isWanted));
    }

    remove() {
        this.open(false);
        this.node.remove();
    }
}

export class CallsView {
    constructor() {
        const changed = () => this.startSoon();
        this.inputs = {
            daemon: select([["", _("all")]], { onchange: changed }),
            line: select([["", _("all")]], { onchange: changed }),
            text: el("input", { type: "search", oninput: changed }),
            address: el("input", { type: "search", inputmode: "numeric", oninput: changed }),
            result: select([["", _("all")], ...Object.entries(ENDS).map(([value, [, label]]) => [value, label])], { onchange: changed }),
            day: el("input", { type: "date", onchange: changed, max: dayOf(new Date()) }),
        };
        this.daemonField = field(_("Daemon"), this.inputs.daemon);
        this.notices = el("div");
        this.table = table(_("Calls and alarms, the newest first"), [_("Time"), _("Line"), _("Address"), _("Message"), _("Result")], { class: "calls" });
        this.reach = el("p", { class: "reach", "aria-live": "polite" });
        this.more = button(_("Show older ones"), () => this.showOlder());
        this.save = button(_("Download as CSV"), () => this.download(), "secondary", { disabled: true });
        this.element = el("section", {},
            el("form", { class: "filters", onsubmit: event => event.preventDefault(), role: "search" },
                this.daemonField, field(_("Line"), this.inputs.line), field(_("Text"), this.inputs.text),
                field(_("Address begins with"), this.inputs.address), field(_("Result"), this.inputs.result),
                field(_("Day"), this.inputs.day), this.save),
            this.notices, this.table.node, this.reach, this.more);
        this.stops = [];
        this.run = 0;
        onAccessChanged(() => { this.sources = null });
    }

    filter() {
        const value = name => this.inputs[name].value.trim();
        const midnight = days => {
            const [year, month, day] = value("day").split("-").map(Number);
            return new Date(year, month - 1, day + days);
        };
        return {
            daemon: this.inputs.daemon.value, line: value("line"), text: value("text"), address: value("address"),
            result: value("result"), day: value("day") === "" ? null : [midnight(0), midnight(1)],
        };
    }

    startSoon() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => this.start(), TYPING_MS);
    }

    stop() {
        this.halt();
        this.sources = null;
    }

    halt() {
        clearTimeout(this.timer);
        this.run++;
        this.stops.splice(0).forEach(stop => stop());
    }

    // Reads anew, with the filter as it is now.
    async start() {
        this.halt();
        const run = this.run;
        this.isBusy(true);
        const sources = this.sources ?? await this.readable(await describeDaemons());
        if (run !== this.run)
            return;
        this.sources = sources;
        this.rows = [];
        this.recent = [];
        this.current = this.filter();
        this.table.body.replaceChildren();
        this.withDaemon = sources.length > 1;
        this.chosen = sources.filter(source => this.current.daemon === "" || source.unit === this.current.daemon);
        this.history = new History(this.chosen);
        const sizes = await this.history.open(this.openingDay());
        if (run !== this.run)
            return;
        this.stops = this.chosen.map((source, i) => followJournal(source.journal, sizes[i], entries => this.live(source, entries), message => this.broken(source, message)));
        this.save.disabled = false;
        await this.showOlder();
    }

    // A day's calls may be answered a little later.
    openingDay() {
        const day = this.current.day;
        return day && [day[0], new Date(day[1].getTime() + LATE_OUTCOME_MS)];
    }

    // The journals that can be read, after saying why others cannot.
    async readable(daemons) {
        const kept = daemons.filter(daemon => daemon.journal !== null);
        const reasons = await Promise.all(kept.map(daemon => whyUnreadable(daemon.journal)));
        const boxes = kept.map((daemon, i) => reasons[i] === "" ? null : this.refusal(daemon, reasons[i]));
        if (kept.length === 0)
            boxes.push(daemons.every(daemon => !daemon.isReadable) ? notice("warning", _("You may not read the configuration."), " ", _("Turn on administrative access at the top of the page."))
                : notice("info", _("No journal is kept."), " ", _("Calls are listed when [logger] of the configuration has this line, and after a reload:"), el("pre", {}, "journal_file = /var/log/quillet.journal")));
        this.notices.replaceChildren(...boxes.filter(box => box !== null));
        const sources = kept.filter((_daemon, i) => reasons[i] === "");
        this.daemonField.hidden = sources.length < 2;
        setChoices(this.inputs.daemon, [["", _("all")], ...sources.map(({ unit, title }) => [unit, title])]);
        setChoices(this.inputs.line, [["", _("all")], ...[...new Set(sources.flatMap(source => source.lines))].sort().map(line => [line, visible(line)])]);
        return sources;
    }

    refusal(daemon, reason) {
        return notice("warning", cockpit.format(_("You may not read the journal of $0, $1."), daemon.title, daemon.journal), " ",
            isAdministrator() ? visible(reason) : _("Members of the group adm may, and whoever has turned on administrative access at the top of the page."));
    }

    broken(source, message) {
        this.notices.append(notice("danger", cockpit.format(_("$0 is no longer followed: $1"), source.journal, visible(message))));
    }

    live(source, entries) {
        for (const entry of entries) {
            const item = this.history.take(source, entry);
            if (item === null) {
                this.hear(source, entry.call);
                continue;
            }
            this.recent.push(item);
            this.recent.splice(0, this.recent.length - MOST_RECENT);
            if (matches(item, this.current))
                this.prepend(item);
        }
    }

    // An outcome belongs to the call where it began, which may begin or cease to be one of those asked for.
    hear(source, call) {
        const isOf = item => item.source === source && (item.entry.file === call || item.steps.some(step => step.file === call));
        const known = [...this.rows.map(row => row.item), ...this.recent].filter(isOf);
        for (const item of new Set(known)) {
            this.history.refresh(item);
            const row = this.rows.find(other => other.item === item);
            if (!matches(item, this.current)) {
                row?.remove();
                this.rows = this.rows.filter(other => other !== row);
            } else if (row !== undefined) {
                row.draw();
            } else {
                this.prepend(item);
            }
        }
    }

    prepend(item) {
        const row = new Row(item, this.withDaemon);
        const below = this.rows.findIndex(other => other.item.entry.at <= item.entry.at);
        const place = below < 0 ? this.rows.length : below;
        this.table.body.insertBefore(row.node, this.rows[place]?.node ?? null);
        this.rows.splice(place, 0, row);
        if (this.rows.length > MOST_ROWS) {
            this.rows.pop().remove();
            this.showReach(false);
        }
    }

    append(items) {
        const rows = items.map(item => new Row(item, this.withDaemon));
        this.rows.push(...rows);
        this.table.body.append(...rows.map(row => row.node));
    }

    isBusy(isIt) {
        this.more.disabled = isIt;
        this.table.node.setAttribute("aria-busy", String(isIt));
    }

    async showOlder() {
        const run = this.run;
        this.isBusy(true);
        const { items, isOver } = await this.history.older(this.current, PAGE_ROWS, MOST_LOOKED);
        if (run !== this.run)
            return;
        this.append(items);
        this.isBusy(false);
        this.showReach(isOver);
    }

    showReach(isOver) {
        const isFull = this.rows.length >= MOST_ROWS;
        this.more.hidden = isOver || isFull;
        this.reach.textContent = this.reachWords(isOver, isFull);
    }

    reachWords(isOver, isFull) {
        const count = cockpit.format(cockpit.ngettext("$0 entry", "$0 entries", this.rows.length), this.rows.length);
        if (isOver)
            return this.rows.length === 0 ? _("Nothing that was asked for.") : cockpit.format(_("$0, that is all."), count);
        const reached = cockpit.format(_("$0, back to $1."), count, timeWords(this.history.reached));
        return isFull ? `${reached} ${_("Choose a day or a line to see others.")}` : reached;
    }

    // All that the filter takes, not only what is shown, from journals opened anew.
    async download() {
        this.save.disabled = true;
        const [filter, day] = [this.current, this.inputs.day.value];
        const history = new History(this.chosen);
        await history.open(this.openingDay());
        const pieces = [csvOf.head()];
        let rows = 0;
        let isOver = false;
        while (!isOver && rows < MOST_SAVED) {
            const found = await history.older(filter, PAGE_ROWS, MOST_LOOKED);
            pieces.push(found.items.map(csvOf.row).join(""));
            rows += found.items.length;
            isOver = found.isOver;
        }
        const address = URL.createObjectURL(new Blob(pieces, { type: "text/csv;charset=utf-8" }));
        el("a", { href: address, download: `calls-${day || dayOf(new Date())}.csv` }).click();
        setTimeout(() => URL.revokeObjectURL(address), 60000);
        if (!isOver)
            this.notices.append(notice("warning", cockpit.format(_("The file ends with $0 rows, at $1."), rows, timeWords(history.reached))));
        this.save.disabled = false;
    }
}
