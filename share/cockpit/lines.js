// The lines of all daemons, what is wrong first, as vesperstat says it every second.

import { follow, isAdministrator } from "./commands.js";
import { describeDaemons } from "./daemons.js";
import { badge, bdi, cell, el, notice, table } from "./dom.js";
import { Figures } from "./figures.js";
import { plot } from "./plot.js";
import { durationWords, timeWords, visible } from "./text.js";

const _ = cockpit.gettext;

const MAX_AGE_SECONDS = "20"; // the daemon writes its status every 15 seconds
const RETRY_MS = 5000;
const PLOTS_MS = 10000;

const LEVELS = ["ok", "notice", "warning", "unknown", "critical"];
const KINDS = { ok: "success", notice: "info", warning: "warning", unknown: "warning", critical: "danger" };
const LEVEL_WORDS = { ok: _("Good"), notice: _("Working"), warning: _("Warning"), unknown: _("Unknown"), critical: _("Failed") };

const PROBLEMS = {
    down: _("no connection for $0"),
    packet: _("in a packet for $0"),
    action: _("a command runs for $0"),
    fell_back: _("no longer ESPA but ASCII lines for $0"),
    silent: _("no message for $0"),
    gone: _("the daemon is gone, its status is $0 old"),
    stopped: _("the daemon ended $0 ago"),
};

// Those that tell more than a kind and a time come in the program's own words.
const problemWords = problem => problem.kind in PROBLEMS
    ? cockpit.format(PROBLEMS[problem.kind], durationWords(problem.seconds)) : visible(problem.text);

// A line without a connection is shown as failed at once; vesperstat gives it the time of a converter's start.
const levelOf = problem => problem.kind === "down" ? "critical" : problem.level;
const worst = problems => LEVELS[Math.max(0, ...problems.map(problem => LEVELS.indexOf(levelOf(problem))))];

// A line can be in order when nobody answers its calls.
function levelWords(level, problems) {
    const isOfCalls = level === "critical" && problems.every(problem => problem.kind === "unanswered" || levelOf(problem) !== "critical");
    return isOfCalls ? _("Not answered") : LEVEL_WORDS[level];
}

// The name that the file of a daemon has by itself.
const nameOfFile = file => {
    const name = file.replace(/^.*\//, "").replace(/\.prom$/, "");
    return name === "status" ? "" : name;
};

const sum = counts => counts.reduce((total, count) => total + count, 0);

class LineRow {
    constructor() {
        this.cells = [_("State"), _("Line"), _("Converter"), _("Last message"), _("Messages, 24 h"), _("Per hour")].map(label => cell(label));
        this.node = el("tr", {}, ...this.cells);
        this.said = [];
    }

    // Puts content into a cell if what it says is not there yet.
    put(place, said, make) {
        if (this.said[place] !== said) {
            this.said[place] = said;
            this.cells[place].firstChild.replaceChildren(...make());
        }
    }

    show({ daemon, line, level, problems }, figures, withDaemon, now) {
        const words = problems.map(problemWords).join("; ");
        this.put(0, level + words, () => [badge(KINDS[level], levelWords(level, problems)), words === "" ? "" : el("span", { class: "problem" }, bdi(words))]);
        const name = visible(withDaemon ? `${daemon || "vesperd"} / ${line.line}` : line.line);
        this.put(1, name, () => [el("strong", {}, bdi(name))]);
        const converter = `${visible(line.host)} : ${line.port}`;
        this.put(2, converter + line.protocol, () => [bdi(converter), el("small", {}, line.protocol === "espa" ? "ESPA 4.4.4" : _("ASCII lines"))]);
        const last = line.last_message === null ? _("none yet") : cockpit.format(_("$0 ago"), durationWords(now - line.last_message));
        this.put(3, last, () => [last]);
        this.showFigures(line, figures);
    }

    showFigures(line, figures) {
        if (figures === null) {
            const since = cockpit.format(_("$0 since the start"), line.messages);
            this.put(4, since, () => [since]);
            this.put(5, "", () => []);
            return;
        }
        const [counts, failed] = [figures.messages.counts(), sum(figures.failed.counts())];
        const words = sum(counts) + (failed > 0 ? ", " + cockpit.format(_("$0 failed"), failed) : "");
        this.put(4, words, () => [failed > 0 ? badge("danger", words) : words]);
        this.put(5, counts.join(), () => [plot(counts, _("Messages"))]);
    }
}

export class LinesView {
    constructor() {
        this.summary = el("div", { "aria-live": "polite" });
        this.problems = el("div");
        this.calls = el("div", { class: "calls-plot" });
        this.table = table(_("Lines, what is wrong first"), [_("State"), _("Line"), _("Converter"), _("Last message"), _("Messages, 24 h"), _("Per hour")], { class: "lines" });
        this.element = el("section", {}, this.summary, this.problems, this.calls, this.table.node);
        this.rows = new Map();
        this.daemons = [];
        this.figures = new Figures();
        this.run = 0;
    }

    async start() {
        this.stop();
        const run = this.run;
        this.watch();
        const daemons = await describeDaemons();
        if (run !== this.run)
            return;
        this.daemons = daemons;
        this.figures.start(daemons, () => this.showCalls());
        this.plots = setInterval(() => this.showCalls(), PLOTS_MS);
    }

    stop() {
        this.run++;
        clearInterval(this.plots);
        clearTimeout(this.retry);
        this.stopWatching?.();
        this.figures.stop();
    }

    watch() {
        this.stopWatching = follow(["vesperstat", "--json", "--watch", "--max-age", MAX_AGE_SECONDS], lines => this.show(lines.at(-1)), message => {
            this.summary.replaceChildren(notice("danger", _("The state of the lines is not known."), " ", visible(message)));
            this.retry = setTimeout(() => this.watch(), RETRY_MS);
        });
    }

    show(json) {
        const { time, instances } = JSON.parse(json);
        const items = instances.flatMap(instance => instance.lines.map(line => this.itemOf(instance, line)));
        items.sort((a, b) => LEVELS.indexOf(b.level) - LEVELS.indexOf(a.level));
        const withDaemon = instances.length > 1;
        this.showProblems(instances, withDaemon);
        this.showSummary(instances, items);
        const nodes = items.map(item => {
            const key = `${item.daemon}/${item.line.line}`;
            if (!this.rows.has(key))
                this.rows.set(key, new LineRow());
            const row = this.rows.get(key);
            row.show(item, this.figures.of(item.daemon, item.line.line), withDaemon, time);
            return row.node;
        });
        // Rows that stay in their places keep the focus and what is selected.
        if (nodes.length !== this.table.body.childElementCount || nodes.some((node, i) => this.table.body.children[i] !== node))
            this.table.body.replaceChildren(...nodes);
        this.table.node.hidden = nodes.length === 0;
    }

    daemonOf(instance) {
        return this.daemons.find(daemon => daemon.status === instance.file)?.name ?? nameOfFile(instance.file);
    }

    // Of a daemon that does not run, what its lines did last says nothing.
    itemOf(instance, line) {
        const isGone = instance.problems.some(problem => problem.kind === "gone" || problem.kind === "stopped");
        const level = isGone ? "unknown" : worst(line.problems);
        return { daemon: this.daemonOf(instance), line, level, problems: isGone ? [] : line.problems };
    }

    // Those of the daemons themselves, one under the other.
    showProblems(instances, withDaemon) {
        const problems = instances.flatMap(instance => instance.problems.map(problem => ({ problem, daemon: this.daemonOf(instance) || "vesperd" })));
        const words = problems.map(({ problem, daemon }) => (withDaemon ? `${daemon}: ` : "") + problemWords(problem));
        const said = JSON.stringify(words);
        if (said === this.saidProblems)
            return;
        this.saidProblems = said;
        const kind = problems.some(({ problem }) => problem.level === "critical") ? "danger" : "warning";
        this.problems.replaceChildren(...words.length === 0 ? [] : [notice(kind, "", ...words.map(text => el("div", {}, el("strong", {}, text))))]);
    }

    showSummary(instances, items) {
        const bad = items.filter(item => LEVELS.indexOf(item.level) >= LEVELS.indexOf("warning")).length;
        const isWell = bad === 0 && instances.every(instance => instance.problems.length === 0);
        const count = cockpit.format(cockpit.ngettext("$0 line", "$0 lines", items.length), items.length);
        const words = items.length === 0 ? _("No line is served.")
            : bad > 0 ? cockpit.format(_("$0 of $1 need attention."), bad, count)
                : isWell ? cockpit.format(_("$0, all are good."), count) : count;
        if (words !== this.saidSummary || this.summary.childElementCount === 0) {
            this.saidSummary = words;
            const help = items.length === 0 ? [" ", isAdministrator() ? _("Lines are set up in the configuration, and shown when [logger] has this line:") : _("An administrator can set up lines in the configuration, whose [logger] needs this line to show them:"), el("pre", {}, "status_file = /run/vesperd/status.prom")] : [];
            this.summary.replaceChildren(notice(bad > 0 ? "danger" : isWell && items.length > 0 ? "success" : "info", words, ...help));
        }
    }

    showCalls() {
        if (this.figures.since.size === 0) {
            this.calls.replaceChildren();
            return;
        }
        const counts = this.figures.unanswered.counts();
        const since = [...this.figures.since.values()].filter(date => date !== null).sort((a, b) => b - a)[0];
        this.calls.replaceChildren(
            el("span", {}, _("Calls that nobody answered, 24 h:"), " ", el("strong", {}, String(sum(counts)))),
            plot(counts, _("Calls that nobody answered"), "danger"),
            since ? el("small", {}, cockpit.format(_("Figures since $0: there is too much for a day."), timeWords(since))) : "");
    }
}
