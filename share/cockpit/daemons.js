// The daemons of this machine: the one without a name, and an instance for every /etc/quillet/NAME.conf.

import { accessIsKnown, run } from "./commands.js";

const _ = cockpit.gettext;

const INSTANCES = "/etc/quillet";
const IS_NAME = /^[A-Za-z0-9_:-][A-Za-z0-9_.:-]{0,63}$/;

function daemonOf(name) {
    return {
        name,
        title: name === "" ? _("vesperd") : name,
        unit: name === "" ? "vesperd.service" : `vesperd@${name}.service`,
        config: name === "" ? "/etc/quillet.conf" : `${INSTANCES}/${name}.conf`,
        asked: name === "" ? [] : ["--instance", name], // for vespercheck
    };
}

// Their names and units, without a look into their configurations.
export async function listDaemons() {
    const found = await run(["find", INSTANCES, "-maxdepth", "1", "-name", "*.conf", "-printf", "%f\\n"], { err: "ignore" });
    const names = found.output.split("\n").map(file => file.replace(/\.conf$/, "")).filter(name => IS_NAME.test(name));
    return ["", ...names.sort()].map(daemonOf);
}

// What a configuration comes to by vespercheck, or null when it cannot be read: { findings, summary }, with
// `text` instead of the file where it is given.
export async function judge(daemon, text) {
    const extra = text === undefined ? ["--no-resolve"] : ["--no-resolve", "--stdin"];
    const said = await run(["vespercheck", "--json", ...extra, ...daemon.asked], { input: text, superuser: "try" });
    try {
        return JSON.parse(said.output);
    } catch {
        return { findings: null, summary: null, message: said.message };
    }
}

// The same daemons with what their configurations say: { journal, status, log, lines }, null and empty when
// whoever is logged in may not read them.
export async function describeDaemons() {
    await accessIsKnown;
    const daemons = await listDaemons();
    return Promise.all(daemons.map(async daemon => {
        const summary = (await judge(daemon)).summary;
        return {
            ...daemon,
            isReadable: summary !== null,
            journal: summary?.journal ?? null,
            status: summary?.status ?? null,
            log: summary?.log ?? null,
            lines: summary?.lines.map(line => line.name) ?? [],
        };
    }));
}
