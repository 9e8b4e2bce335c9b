// The page in a browser, on a booted machine with the packages as they are installed. It begins with what an
// installation leaves and goes on from there: the tests are one story.
//
//   SHORT=yes      without what takes minutes
//   PICTURES=DIR   leaves a picture of every view there
import assert from "node:assert/strict";
import { appendFileSync, readFileSync, statSync, writeFileSync } from "node:fs";
import { after, before, test } from "node:test";

import { NARROW, startBrowser, Visitor, WIDE } from "./browser.mjs";
import { configuration, Converter, eventually, run, writeJournal } from "./machine.mjs";

const CONF = "/etc/quillet.conf";
const JOURNAL = "/var/log/quillet.journal";
const LINES = 16;
const PORT = 4001;
const HOSTILE = [
    "<script>alert(1)</script>", '"><img src=x onerror=alert(2)>', "=HYPERLINK(\"http://127.0.0.1\")",
    "a\u202egnp.exe\u2066", "bell \u0007, erase \u001b[2J", "with a NUL: \u0000 inside", "\u0627\u0644\u0637\u0648\u0627\u0631\u0626", "{{7*7}}${7*7}",
];
const isShort = process.env.SHORT === "yes";

let browser;
let administrator;
let nurse;
const converters = Array.from({ length: LINES }, (_none, i) => new Converter(PORT + i));

const rowOf = (visitor, text) => visitor.frame.locator("tbody tr").filter({ hasText: text });
const isShown = locator => eventually(String(locator), () => locator.first().isVisible());
const textOf = (visitor, selector) => visitor.frame.locator(selector).first().innerText();
const fillEditor = (visitor, text) => visitor.frame.getByRole("textbox", { name: "Configuration" }).fill(text);
const press = (visitor, name) => visitor.frame.getByRole("button", { name, exact: true }).click();

async function says(visitor, text) {
    await isShown(visitor.frame.locator(".notice").filter({ hasText: text }));
}

async function saveAndReload(visitor, text) {
    await visitor.open("configuration");
    await fillEditor(visitor, text);
    await press(visitor, "Save and reload");
    await says(visitor, "Saved and reloaded.");
}

before(async () => {
    browser = await startBrowser();
    administrator = await Visitor.logIn(browser, "admin", { isAdministrator: true });
    nurse = await Visitor.logIn(browser, "nurse");
});

after(async () => {
    await browser.close();
    await Promise.all(converters.map(converter => converter.server && converter.unplug()));
});

test("an administrator gets from the installation to a first call", async () => {
    await says(administrator, "No line is served.");
    await administrator.open("calls");
    await says(administrator, "No journal is kept.");
    await administrator.open("configuration");
    const shipped = readFileSync(CONF, "utf8");
    await fillEditor(administrator, configuration(LINES, PORT).replace("protocol", "protocoll"));
    const finding = administrator.frame.locator(".findings li").filter({ hasText: "protocoll" });
    await isShown(finding);
    const line = (await finding.locator("button").innerText()).replace("Line ", "");
    assert.equal(await administrator.frame.locator(".numbers .warning").first().innerText(), line);
    await saveAndReload(administrator, configuration(LINES, PORT));
    assert.equal(readFileSync(CONF, "utf8"), configuration(LINES, PORT));
    await isShown(administrator.frame.locator("li").filter({ hasText: `${Buffer.byteLength(shipped)} bytes` }));

    // Lines that are new need a start.
    await administrator.open("service");
    const service = rowOf(administrator, "vesperd.service");
    await service.getByRole("button", { name: "Stop" }).click();
    await administrator.frame.locator("dialog").getByRole("button", { name: "Stop" }).click();
    await isShown(service.filter({ hasText: "Stopped" }));
    await Promise.all(converters.slice(1).map(converter => converter.plug()));
    await service.getByRole("button", { name: "Start" }).click();
    await isShown(service.filter({ hasText: "Runs" }));
    await administrator.open("calls");
    await run("espasend", "--listen", String(PORT), "--address", "4711", "--message", "FIRE ZONE 3");
    const call = rowOf(administrator, "FIRE ZONE 3");
    await isShown(call.filter({ hasText: "4711" }).filter({ hasText: "Done" }));
    await call.getByRole("button").press("Enter");
    await isShown(administrator.frame.locator(".story").filter({ hasText: "rule_fire wrote the call file call_8003_" }));
    await converters[0].plug();
});

test("a line's failure is red at once, and what is wrong comes first", async () => {
    for (const visitor of [administrator, nurse])
        await visitor.open("lines");
    await says(nurse, `${LINES} lines, all are good.`);
    await converters[8].unplug();
    const began = Date.now();
    const first = nurse.frame.locator("tbody tr").first();
    await isShown(first.filter({ hasText: "ward9" }).locator(".badge.danger"));
    console.log(`red after ${Date.now() - began} ms`);
    await says(nurse, `1 of ${LINES} lines need attention.`);
    await converters[8].plug();
    await says(nurse, `${LINES} lines, all are good.`);
    await run("systemctl", "kill", "--signal=KILL", "--kill-who=main", "vesperd");
    await says(nurse, `of ${LINES} lines need attention.`);
    await eventually("the lines again", () => nurse.frame.getByText(`${LINES} lines, all are good.`).isVisible(), 60000);
});

test("messages are text, whatever they hold", async () => {
    await administrator.open("calls");
    for (const text of HOSTILE)
        await converters[3].send(text);
    await converters[4].send("y".repeat(4096));
    await isShown(rowOf(administrator, "yyyy").filter({ hasText: "ward5" }));
    const shown = await administrator.frame.locator("tbody tr").filter({ hasText: "ward4" }).locator("td:nth-child(4)").allInnerTexts();
    const signs = ["\u2039U+202E\u203a", "\u2039U+2066\u203a", "\u2039U+0007\u203a", "\u2039U+001B\u203a", "<script>", "<img", "{{7*7}}${7*7}"];
    for (const sign of signs)
        assert.ok(shown.some(text => text.includes(sign)), `${sign} in ${shown}`);
    assert.equal(await administrator.frame.locator("td img, td script").count(), 0);
    // Nothing is wider than the page.
    const document = await administrator.document();
    assert.ok(await document.evaluate(() => globalThis.document.documentElement.scrollWidth <= innerWidth));
    await administrator.open("try");
    for (const [text, sign] of [[HOSTILE[0], "<script>"], ["-m --help", "-m --help"], [HOSTILE[3], "\u2039U+202E\u203a"]]) {
        await administrator.frame.getByLabel("Message").fill(text);
        await administrator.frame.getByRole("combobox", { name: "Line", exact: true }).selectOption("ward2");
        await press(administrator, "Try it");
        await isShown(administrator.frame.locator("pre").filter({ hasText: sign }));
    }
    assert.deepEqual(administrator.complaints, []);
});

test("calls are found again, with what became of them", async () => {
    const at = new Date().toISOString().replace("Z", "+00:00");
    const entry = rest => appendFileSync(JOURNAL, JSON.stringify({ time: at, line: "ward7", ...rest }) + "\n");
    const call = { event: "message", protocol: "espa", address: "815", text: "NURSE 12", rule: "rule_nurse", action: "call", result: "ok", ms: 1 };
    const outcome = { event: "outcome", address: "815", text: "NURSE 12", rule: "rule_nurse", attempts: 2, seconds: 41 };
    await administrator.open("calls");
    entry({ ...call, file: "call_1_1_0" });
    await isShown(rowOf(administrator, "NURSE 12").filter({ hasText: "Done" }));
    entry({ ...outcome, call: "call_1_1_0", result: "unanswered", next: "rule_doctor", file: "call_2_2_0" });
    await isShown(rowOf(administrator, "NURSE 12").filter({ hasText: "Not answered" }));
    entry({ ...outcome, call: "call_2_2_0", result: "confirmed", attempts: 1, seconds: 12, next: null });
    await isShown(rowOf(administrator, "NURSE 12").filter({ hasText: "Answered" }));
    appendFileSync(JOURNAL, 'no JSON\n{"time":"never","event":"message"}\n{"event":7}\n');

    const filter = (label, value) => administrator.frame.getByLabel(label, { exact: true }).fill(value);
    await administrator.frame.getByLabel("Result").selectOption("answered");
    await eventually("one row", async () => await rowOf(administrator, "ward").count() === 1);
    await rowOf(administrator, "NURSE 12").getByRole("button").click();
    const story = await textOf(administrator, ".story");
    assert.match(story, /not answered within 41 s, 2 attempts → next: rule_doctor[^]*confirmed after 12 s, 1 attempt/);
    const [download] = await Promise.all([administrator.page.waitForEvent("download"), press(administrator, "Download as CSV")]);
    const rows = readFileSync(await download.path(), "utf8").trim().split("\r\n");
    assert.equal(rows.length, 2);
    assert.match(rows[1], /"ward7","message","815","NURSE 12","rule_nurse","call","call_1_1_0","answered","3","53","rule_doctor"$/);
    await administrator.frame.getByLabel("Result").selectOption("");
    await filter("Text", "hyperlink");
    await eventually("one row", async () => await rowOf(administrator, "ward").count() === 1);
    const [other] = await Promise.all([administrator.page.waitForEvent("download"), press(administrator, "Download as CSV")]);
    assert.match(readFileSync(await other.path(), "utf8"), /"'=HYPERLINK/);
    await filter("Text", "");
    await filter("Address begins with", "47");
    await eventually("one row", async () => await rowOf(administrator, "ward").count() === 1);
    await filter("Address begins with", "");
    await filter("Day", "2020-02-29");
    await isShown(administrator.frame.getByText("Nothing that was asked for."));
});

test("a configuration is saved by one at a time, and put back", async () => {
    const other = await Visitor.logIn(browser, "admin", { isAdministrator: true });
    await run("chmod", "640", CONF);
    await run("chown", "root:ovo", CONF);
    for (const visitor of [administrator, other])
        await visitor.open("configuration");
    const mine = configuration(LINES, PORT, "; mine\n");
    await saveAndReload(other, mine);
    assert.match(await textOf(other, "pre.log"), /Reloading configuration/);
    await fillEditor(administrator, configuration(LINES, PORT, "; theirs\n"));
    await press(administrator, "Save");
    await says(administrator, "somebody else has changed the file meanwhile");
    assert.equal(readFileSync(CONF, "utf8"), mine);
    assert.equal((await run("stat", "-c", "%U:%G %a", CONF)).trim(), "root:ovo 640");
    await press(administrator, "Load theirs, and lose mine");
    await eventually("theirs", async () => await administrator.frame.getByRole("textbox", { name: "Configuration" }).inputValue() === mine);

    await fillEditor(administrator, mine.replace("host = 127.0.0.1", "host = "));
    await press(administrator, "Save and reload");
    await isShown(administrator.frame.locator("dialog").filter({ hasText: "1 error" }));
    await administrator.frame.locator("dialog").getByRole("button", { name: "Cancel" }).click();
    assert.equal(readFileSync(CONF, "utf8"), mine);
    await press(administrator, "Undo all changes");

    // What the account could not open would end the daemon.
    await run("chmod", "600", CONF);
    await press(administrator, "Save and reload");
    await says(administrator, "Not reloaded: the daemon could not load it");
    await run("chmod", "640", CONF);
    for (let i = 0; i < 11; i++) {
        await fillEditor(administrator, `; ${i}\n${mine}`);
        await press(administrator, "Save");
        await eventually("the file", () => readFileSync(CONF, "utf8").startsWith(`; ${i}\n`));
        await says(administrator, "is saved.");
    }
    await eventually("ten versions", async () => await administrator.frame.getByRole("button", { name: "Put it back" }).count() === 10);
    await administrator.frame.getByRole("button", { name: "Put it back" }).last().click();
    await eventually("the version", () => readFileSync(CONF, "utf8") === `; 0\n${mine}`);
    writeFileSync(CONF, Buffer.concat([Buffer.from("; \xe4\r\n", "latin1"), Buffer.from(mine.replaceAll("\n", "\r\n"))]));
    await press(administrator, "Undo all changes");
    await says(administrator, "The file is not UTF-8");
    await fillEditor(administrator, `; ü${mine}`);
    await press(administrator, "Save");
    await eventually("the same coding", () => readFileSync(CONF, "latin1") === `; ü${mine}`.replaceAll("\n", "\r\n"));
    writeFileSync(CONF, configuration(LINES, PORT));
    await run("chmod", "644", CONF);
    await other.logOut();
});

test("who is no administrator sees what permissions let him see", async () => {
    await nurse.open("calls");
    await says(nurse, "You may not read the journal of vesperd, /var/log/quillet.journal. Members of the group adm may");
    await nurse.open("configuration");
    await says(nurse, "You can look, but not save.");
    await eventually("the text", async () => await nurse.frame.getByRole("textbox", { name: "Configuration" }).inputValue() === configuration(LINES, PORT));
    assert.ok(await nurse.frame.getByRole("button", { name: "Save", exact: true }).isDisabled());
    await nurse.open("service");
    await says(nurse, "Only administrators can start, stop and reload.");
    assert.ok(await rowOf(nurse, "vesperd.service").getByRole("button", { name: "Stop" }).isDisabled());
    await nurse.open("try");
    await nurse.frame.getByLabel("Message").fill("FIRE ZONE 4");
    await press(nurse, "Try it");
    await isShown(nurse.frame.locator("pre").filter({ hasText: "Extension: 8003" }));
    await nurse.open("service");
    await administrator.open("service");
    await rowOf(administrator, "vesperd.service").getByRole("button", { name: "Disable" }).click();
    await isShown(rowOf(nurse, "vesperd.service").filter({ hasText: "no" }));
    await rowOf(administrator, "vesperd.service").getByRole("button", { name: "Enable" }).click();
    await isShown(rowOf(administrator, "vesperd.service").filter({ hasText: "yes" }));
    assert.equal((await run("systemctl", "is-enabled", "vesperd")).trim(), "enabled");
    await rowOf(administrator, "vesperd.target").getByRole("button", { name: "Reload" }).click();
    await says(administrator, "vesperd.target: Reload is done.");
    await run("usermod", "--append", "--groups", "adm", "nurse");
    await nurse.logOut();
    nurse = await Visitor.logIn(browser, "nurse");
    await nurse.open("calls");
    await isShown(rowOf(nurse, "NURSE 12"));
});

test("everybody can use it, and it is good to look at", async () => {
    const visitor = await Visitor.logIn(browser, "admin", { isAdministrator: true });
    await converters[12].unplug();
    for (const view of ["lines", "calls", "try", "configuration", "service"]) {
        await visitor.open(view);
        if (view === "try") {
            await visitor.frame.getByLabel("Message").fill("FIRE ZONE 7");
            await visitor.frame.getByRole("combobox", { name: "Line", exact: true }).selectOption("ward2");
            await press(visitor, "Try it");
        } else if (view === "calls") {
            await rowOf(visitor, "NURSE 12").getByRole("button").click();
        } else if (view === "configuration") {
            await fillEditor(visitor, configuration(LINES, PORT).replace("rules = rule_fire", "rules = rule_fier"));
        }
        await isShown(visitor.frame.locator({ lines: "td svg", calls: ".story", try: "article", configuration: ".findings li", service: "tbody tr" }[view]));
        if (view === "configuration")
            await visitor.frame.locator(".findings button").first().click();
        for (const style of ["light", "dark"]) {
            await visitor.chooseStyle(style);
            for (const [name, size] of [["wide", WIDE], ["narrow", NARROW]]) {
                await visitor.page.setViewportSize(size);
                assert.deepEqual(await visitor.violations(), [], `${view}, ${style}, ${name}`);
                const document = await visitor.document();
                assert.ok(await document.evaluate(() => globalThis.document.documentElement.scrollWidth <= innerWidth), `${view}, ${name}: something is too wide`);
                if (process.env.PICTURES)
                    await visitor.page.screenshot({ path: `${process.env.PICTURES}/${view}-${style}-${name}.png` });
            }
        }
        await visitor.page.setViewportSize(WIDE);
    }
    await converters[12].plug();
    // Without a mouse: from the views to a row, which opens.
    await visitor.open("calls");
    await isShown(visitor.frame.locator('table[aria-busy="false"]'));
    await visitor.frame.locator("nav a").first().focus();
    const focused = async () => (await visitor.document()).evaluate(() => globalThis.document.activeElement.className);
    for (let i = 0; i < 40 && !(await focused()).includes("toggle"); i++)
        await visitor.page.keyboard.press("Tab");
    await visitor.page.keyboard.press("Enter");
    await isShown(visitor.frame.locator(".story"));
    assert.deepEqual(visitor.complaints, []);
    await visitor.logOut();
});

test("it speaks German", async () => {
    const visitor = await Visitor.logIn(browser, "admin", { isAdministrator: true, language: "de-de" });
    assert.deepEqual(await visitor.frame.locator("nav a").allInnerTexts(), ["Linien", "Rufe", "Nachricht ausprobieren", "Konfiguration", "Dienste"]);
    await isShown(visitor.frame.getByText(`${LINES} Linien, alle in Ordnung.`));
    await isShown(visitor.page.getByText("Personenruf", { exact: true }));
    await visitor.logOut();
});

test("a large journal opens from its end", async () => {
    // 100 or 1000 MB.
    writeJournal("/root/piece", 30000);
    const piece = readFileSync("/root/piece", "utf8");
    const times = Math.ceil((isShort ? 1e8 : 1e9) / piece.length);
    await run("systemctl", "stop", "vesperd");
    await run("sh", "-c", `for i in $(seq ${times}); do cat /root/piece; done >${JOURNAL}`);
    await run("systemctl", "start", "vesperd");
    const visitor = await Visitor.logIn(browser, "admin", { isAdministrator: true });
    await visitor.open("lines");
    const began = Date.now();
    await visitor.frame.getByRole("link", { name: "Calls" }).click();
    await isShown(rowOf(visitor, "OLD 29999"));
    console.log(`a journal of ${Math.round(statSync(JOURNAL).size / 1e6)} MB is shown after ${Date.now() - began} ms`);
    assert.equal(await rowOf(visitor, "OLD").count(), 100);
    await press(visitor, "Show older ones");
    await eventually("older ones", async () => await rowOf(visitor, "OLD").count() === 200);
    await converters[1].send("NEW ONE");
    await isShown(visitor.frame.locator("tbody tr").first().filter({ hasText: "NEW ONE" }));
    // What logrotate put away is read too.
    await run("sh", "-c", `mv ${JOURNAL} ${JOURNAL}.1; head -n 50 /root/piece | gzip >${JOURNAL}.2.gz; chown ovo:adm ${JOURNAL}.*; mv /root/piece ${JOURNAL}; chown ovo:adm ${JOURNAL}; truncate --size=0 ${JOURNAL}`);
    await run("sh", "-c", `tail -n 5 ${JOURNAL}.1 >/root/end; mv /root/end ${JOURNAL}.1; chown ovo:adm ${JOURNAL}.1`);
    await visitor.page.reload();
    await eventually("all of them", async () => await rowOf(visitor, "ward").count() === 55);
    await visitor.logOut();
});
