// The machine of the test: commands, converters that the daemon connects to, and configurations.
import { execFile } from "node:child_process";
import { writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { promisify } from "node:util";

const WAIT_MS = 30000;

export const run = async (command, ...words) =>
    (await promisify(execFile)(command, words, { maxBuffer: 1 << 26 })).stdout;

// Waits until a function's result is neither false nor an error; returns it.
export async function eventually(what, probe, limit = WAIT_MS) {
    const end = Date.now() + limit;
    for (;;) {
        const result = await Promise.resolve().then(probe).catch(error => Date.now() > end ? Promise.reject(error) : false);
        if (result !== false)
            return result;
        if (Date.now() > end)
            throw new Error(`waited for ${limit} ms: ${what}`);
        await new Promise(resolve => { setTimeout(resolve, 100) });
    }
}

// A converter with a line of text behind it.
export class Converter {
    constructor(port) {
        this.port = port;
        this.peers = new Set();
    }

    plug() {
        this.server = createServer(peer => {
            this.peers.add(peer);
            peer.on("error", () => {}).on("close", () => this.peers.delete(peer)).resume();
        });
        return new Promise((resolve, reject) => {
            this.server.on("error", reject).listen(this.port, "127.0.0.1", resolve);
        });
    }

    unplug() {
        this.peers.forEach(peer => peer.destroy());
        return new Promise(resolve => { this.server.close(resolve) });
    }

    // A message, once the daemon is connected.
    async send(text) {
        await eventually("a connection", () => this.peers.size > 0);
        this.peers.forEach(peer => peer.write(Buffer.concat([Buffer.from(text), Buffer.from("\r\n")])));
    }
}

const RULES = `
[rule_fire]
pattern = ^FIRE ZONE ([0-9]+)
action = call
channel = Local/fire@pagers
context = fire-team
extension = 8003
callerid = '"%message%" <%number%>'
quote = yes
value[zone] = ZONE ([0-9]+)
[rule_any]
action = script
callscript = /bin/true %message%
quote = yes
`;

// A configuration with ASCII lines at ports from `port` on; the first is an ESPA line. The rules come first: the
// sixteenth line ends the file.
export function configuration(lines, port, logger = "") {
    const sections = Array.from({ length: lines }, (_none, i) => `
[ward${i + 1}]
host = 127.0.0.1
port = ${port + i}
${i === 0 ? "recover_link = yes" : "protocol = ascii\nread_timeout = no"}
spool_dir = /var/spool/quillet
rules = rule_fire
default_rule = rule_any
`);
    return `[logger]
log_level = 3
log_escape = yes
status_file = /run/vesperd/status.prom
journal_file = /var/log/quillet.journal
${logger}${RULES}${sections.join("")}`;
}

// Entries of a journal, a minute apart, the last of which is of now.
export function writeJournal(path, entries) {
    const now = Date.now();
    const pad = "x".repeat(200);
    const lines = Array.from({ length: entries }, (_none, i) => JSON.stringify({
        time: new Date(now - (entries - i) * 60e3).toISOString().replace("Z", "+00:00"), line: "ward2", event: "message",
        protocol: "ascii", address: "", text: `OLD ${i} ${pad}`, rule: "rule_any", action: "script", result: "ok", exit: 0, ms: 2,
    }));
    writeFileSync(path, lines.join("\n") + "\n");
}
