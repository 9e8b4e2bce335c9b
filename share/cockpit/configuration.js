// The configuration of a daemon: an editor that shows what vespercheck finds while one types, the versions
// before, and what the daemon says to a reload.

import { decoded } from "./coding.js";
import { accessIsKnown, follow, isAdministrator, onAccessChanged, run } from "./commands.js";
import { judge, listDaemons } from "./daemons.js";
import { badge, bdi, button, confirmed, el, field, notice, select, setChoices } from "./dom.js";
import { Editor } from "./editor.js";
import { followed, sizeOf } from "./journal.js";
import { act, isActive } from "./systemd.js";
import { timeWords, visible } from "./text.js";

const _ = cockpit.gettext;

const KEEPER = "/usr/share/cockpit/vesperd/keep-configuration";
const CHANGED_MEANWHILE = 3;
const NO_FILE = "-";
const LARGEST = 16 << 20;
const NOT_LOADABLE = "not-loadable"; // is no question
const TYPING_MS = 400;
const LOG_MS = 5000; // for which the log is watched after a reload

const KINDS = { error: "danger", warning: "warning", note: "info" };
const SEVERITIES = { error: _("Error"), warning: _("Warning"), note: _("Note") };

// The SHA-256 of a file's content, as the keeper has it.
const sumOf = async bytes => (await run(["sha256sum"], { input: bytes })).output.slice(0, 64);

const keep = (command, daemon, rest, options) => run([KEEPER, command, daemon.config, ...rest], { superuser: "require", ...options });

// What a daemon and systemd say from now on until the returned function is called, a line at a time.
async function followLogs(daemon, onLine) {
    const stops = [];
    const start = (command, options) => stops.push(follow(command, lines => lines.forEach(onLine), undefined, options));
    const unit = ["journalctl", `--unit=${daemon.unit}`, "--output=cat"];
    const { output } = await run([...unit, "--lines=0", "--show-cursor"], { superuser: "try" });
    const cursor = /^-- cursor: (.*)$/m.exec(output)?.[1];
    start([...unit, "--follow", cursor === undefined ? "--lines=0" : `--after-cursor=${cursor}`], { superuser: "try" });
    const log = (await judge(daemon)).summary?.log;
    if (log?.startsWith("/"))
        start(...followed(log, await sizeOf(log)));
    return () => stops.forEach(stop => stop());
}

const pause = ms => new Promise(resolve => { setTimeout(resolve, ms) });

export class ConfigurationView {
    constructor() {
        this.daemon = select([], { onchange: () => this.change() });
        this.daemonField = field(_("Daemon"), this.daemon);
        this.editor = new Editor(_("Configuration"), () => this.edited());
        this.saveButton = button(_("Save"), () => this.only(() => this.save()), "secondary");
        this.reloadButton = button(_("Save and reload"), () => this.only(() => this.saveAndReload()), "primary");
        this.undoButton = button(_("Undo all changes"), () => this.load(), "plain");
        this.access = el("div");
        this.result = el("div", { "aria-live": "polite" });
        this.findings = el("div", { class: "findings", "aria-live": "polite" });
        this.versions = el("div");
        this.element = el("section", {}, this.daemonField, this.access, this.editor.element,
            el("div", { class: "actions" }, this.reloadButton, this.saveButton, this.undoButton),
            this.result, el("h2", {}, _("Findings")), this.findings, el("h2", {}, _("Versions before")), this.versions);
        onAccessChanged(() => {
            this.showAccess();
            this.showVersions();
        });
        this.shownDaemon = null;
        this.file = null;
        this.isBusy = false;
        this.showAccess();
    }

    // An edited text outlives a look at another view.
    async start() {
        await accessIsKnown;
        const daemons = await listDaemons();
        this.daemons = daemons;
        setChoices(this.daemon, daemons.map(daemon => [daemon.unit, `${daemon.title} (${daemon.config})`]));
        this.daemonField.hidden = daemons.length < 2;
        if (!this.isEdited() && !this.isBusy)
            await this.load();
    }

    stop() {
        clearTimeout(this.timer);
    }

    isEdited() {
        return this.file !== null && this.file.text !== null && this.editor.text !== this.file.text;
    }

    // One thing at a time: until it is done nothing can be typed, chosen or pressed.
    async only(action) {
        if (this.isBusy)
            return;
        this.isBusy = true;
        this.showAccess();
        try {
            await action();
        } finally {
            this.isBusy = false;
            this.showAccess();
        }
    }

    async mayLose() {
        return !this.isEdited() || confirmed(_("Give up what has been changed and not saved?"), _("Give it up"));
    }

    async change() {
        if (await this.mayLose())
            await this.load();
        else
            this.daemon.value = this.shownDaemon.unit;
    }

    load() {
        return this.only(() => this.read());
    }

    // Shows the file as it is now.
    async read() {
        const daemon = this.daemons.find(other => other.unit === this.daemon.value);
        const read = await run(["head", "-c", String(LARGEST), daemon.config], { binary: true, superuser: "try" });
        const isThere = read.status === 0;
        this.shownDaemon = daemon;
        this.file = isThere ? decoded(read.output) : { text: "", name: "UTF-8", encode: text => new TextEncoder().encode(text) };
        this.sum = isThere ? await sumOf(read.output) : NO_FILE;
        this.editor.text = this.file.text ?? "";
        this.showState(isThere ? "" : read.message);
        this.result.replaceChildren();
        await Promise.all([this.check(), this.showVersions()]);
    }

    showState(why) {
        this.trouble = why !== "" ? notice("warning", cockpit.format(_("$0 cannot be read."), this.shownDaemon.config), " ", visible(why))
            : this.file.text === null ? notice("warning", _("The file has line ends of several kinds and cannot be edited here."))
                : this.file.name !== "UTF-8" ? notice("info", cockpit.format(_("The file is not UTF-8 and is shown, and saved, as $0."), this.file.name)) : null;
        this.showAccess();
    }

    showAccess() {
        const may = isAdministrator() && !this.isBusy && this.file !== null && this.file.text !== null;
        this.access.replaceChildren(...[
            isAdministrator() ? null : notice("info", _("You can look, but not save."), " ", _("Turn on administrative access at the top of the page.")),
            this.trouble ?? null,
        ].filter(box => box !== null));
        this.editor.isReadOnly = !may;
        this.saveButton.disabled = this.reloadButton.disabled = this.undoButton.disabled = !may;
        this.daemon.disabled = this.isBusy;
        this.versions.querySelectorAll("button").forEach(node => { node.disabled = !may });
    }

    edited() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => this.check(), TYPING_MS);
    }

    // The bytes of the text; null, after saying so, when the file's coding has none for it.
    bytes() {
        const bytes = this.file.encode(this.editor.text);
        if (bytes === null)
            this.result.replaceChildren(notice("danger", cockpit.format(_("There are characters that $0 does not have."), this.file.name)));
        return bytes;
    }

    // Shows what vespercheck finds in the text as it is. Returns the findings; null when nobody could tell.
    async check() {
        const text = this.editor.text;
        const bytes = this.bytes();
        if (bytes === null)
            return null;
        const { findings, message } = await judge(this.shownDaemon, bytes);
        if (text === this.editor.text)
            this.showFindings(findings, message);
        return findings;
    }

    showFindings(findings, message) {
        if (findings === null) {
            this.findings.replaceChildren(notice("danger", _("The text cannot be checked."), " ", visible(message)));
            return;
        }
        const marks = new Map();
        for (const { line, severity } of [...findings].reverse()) {
            if (marks.get(line) !== "danger" && !(marks.get(line) === "warning" && severity === "note"))
                marks.set(line, KINDS[severity]);
        }
        this.editor.mark(marks);
        this.findings.replaceChildren(findings.length === 0 ? notice("success", _("vespercheck finds nothing."))
            : el("ul", {}, ...findings.map(({ line, severity, text }) => el("li", {},
                button(cockpit.format(_("Line $0"), line), () => this.editor.goTo(line), "link"),
                " ", badge(KINDS[severity], SEVERITIES[severity]), " ", bdi(visible(text))))));
    }

    // Returns whether what the editor holds is in the file now.
    async save() {
        const bytes = this.bytes();
        if (bytes === null)
            return false;
        const sum = await sumOf(bytes);
        const said = await keep("save", this.shownDaemon, [this.sum, sum], { input: bytes });
        if (said.status !== 0) {
            this.result.replaceChildren(said.status === CHANGED_MEANWHILE
                ? notice("danger", _("Not saved: somebody else has changed the file meanwhile."), " ", button(_("Load theirs, and lose mine"), () => this.load(), "danger"))
                : notice("danger", _("Not saved."), " ", visible(said.message)));
            return false;
        }
        [this.sum, this.file.text] = [sum, this.editor.text];
        this.result.replaceChildren(notice("success", cockpit.format(_("$0 is saved."), this.shownDaemon.config), " ", _("The daemon reads it with the next reload.")));
        await this.showVersions();
        return true;
    }

    async saveAndReload() {
        const findings = await this.check();
        if (findings === null)
            return;
        const errors = findings.filter(finding => finding.severity === "error" && finding.kind !== NOT_LOADABLE);
        const question = cockpit.format(cockpit.ngettext("There is $0 error, which may leave lines unserved. Reload all the same?", "There are $0 errors, which may leave lines unserved. Reload all the same?", errors.length), errors.length);
        if (errors.length > 0 && !await confirmed(question, _("Reload all the same")))
            return;
        // Without changes too: it tells whether somebody else has made some.
        if (!await this.save())
            return;
        const loadable = await run(["vespercheck", "--loadable", ...this.shownDaemon.asked], { superuser: "require" });
        if (loadable.status !== 0)
            this.result.replaceChildren(notice("danger", _("Not reloaded: the daemon could not load it and would end."), " ", visible(loadable.message)));
        else if (!await isActive(this.shownDaemon.unit))
            this.result.replaceChildren(notice("warning", _("Saved. The daemon does not run: start it in the view Service.")));
        else
            await this.reload();
    }

    async reload() {
        const log = el("pre", { class: "log", tabindex: 0, "aria-label": _("What the daemon says") });
        this.result.replaceChildren(notice("info", _("The daemon reloads it ...")), log);
        const stop = await followLogs(this.shownDaemon, line => log.append(visible(line) + "\n"));
        const [first] = this.result.children;
        try {
            await act("ReloadUnit", this.shownDaemon.unit);
            await pause(LOG_MS);
            first.replaceWith(notice("success", _("Saved and reloaded."), " ", log.textContent === "" ? _("The daemon had nothing to say.") : _("The daemon says:")));
        } catch (error) {
            first.replaceWith(notice("danger", _("Saved, but the reload failed."), " ", visible(error.message)));
        }
        stop();
    }

    async showVersions() {
        if (this.shownDaemon === null)
            return;
        if (!isAdministrator()) {
            this.versions.replaceChildren(_("Administrators see them."));
            return;
        }
        const said = await keep("list", this.shownDaemon, []);
        const versions = said.output.trim().split("\n").filter(line => line !== "").map(line => line.split(" ").map(Number));
        this.versions.replaceChildren(versions.length === 0 ? el("p", {}, _("None yet: the last ten are kept when it is saved here."))
            : el("ul", {}, ...versions.map(([name, seconds, size]) => el("li", {},
                cockpit.format(_("of $0, $1 bytes"), timeWords(new Date(seconds * 1000)), size), " ",
                button(_("Put it back"), () => this.only(() => this.putBack(name)), "link", { disabled: !isAdministrator() })))));
    }

    // The version becomes the file; what was there is kept as any other.
    async putBack(name) {
        if (!await this.mayLose())
            return;
        const said = await keep("show", this.shownDaemon, [String(name)], { binary: true });
        if (said.status !== 0) {
            this.result.replaceChildren(notice("danger", _("The version cannot be read."), " ", visible(said.message)));
            return;
        }
        this.file = decoded(said.output);
        this.editor.text = this.file.text ?? "";
        this.showState("");
        if (await this.save())
            await this.check();
    }
}
