// What a page costs while somebody looks at 512 lines in 32 instances, in parts of a core: all that it lets the server
// do. On the machine of the page's test, after it: scripts/web-test without --short. Nobody calls meanwhile.
import assert from "node:assert/strict";
import { writeFileSync } from "node:fs";

import { startBrowser, Visitor } from "./browser.mjs";
import { configuration, Converter, eventually, run } from "./machine.mjs";

const LINES = 16;
const PORT = 4001;
const INSTANCES = 32;
const MEASURED_SECONDS = 20;

const pause = seconds => new Promise(resolve => { setTimeout(resolve, seconds * 1000) });

// Of the bridges, which run what the page asks for, and of the server; in hundredths of a second.
async function ticks() {
    const command = "for p in $(pgrep 'cockpit|vesperstat|tail'); do cat /proc/$p/stat; done 2>/dev/null | sed 's/.*) //' | " +
        "awk '{ sum += $12 + $13 + $14 + $15 } END { print sum }'";
    return Number((await run("sh", "-c", command)).trim());
}

async function report(what) {
    await pause(10);
    const before = await ticks();
    await pause(MEASURED_SECONDS);
    console.log(`${what}: ${(await ticks() - before) / MEASURED_SECONDS} % of a core`);
}

const converters = Array.from({ length: LINES }, (_none, i) => new Converter(PORT + i));
const names = Array.from({ length: INSTANCES }, (_none, i) => `vesperd@i${i}`);
await Promise.all(converters.map(converter => converter.plug()));
await run("sh", "-c", "systemctl stop vesperd.target vesperd; rm -f /var/log/quillet.journal.* /run/vesperd/*");
for (let i = 0; i < INSTANCES; i++)
    writeFileSync(`/etc/quillet/i${i}.conf`, configuration(LINES, PORT).replace(/(status|journal)_file.*\n/g, ""));
await run("systemctl", "start", ...names);
const browser = await startBrowser();
const visitor = await Visitor.logIn(browser, "admin", { isAdministrator: true });
await eventually("all lines", async () => await visitor.frame.locator("tbody tr").count() === INSTANCES * LINES, 60000);
await report("while one looks");
await visitor.open("try");
await report("on another view");
assert.equal((await run("sh", "-c", "pgrep 'vesperstat|tail' || true")).trim(), "");
await browser.close();
await run("systemctl", "stop", ...names);
await Promise.all(converters.map(converter => converter.unplug()));
