// Units, by systemd's own D-Bus interface, org.freedesktop.systemd1.

const _ = cockpit.gettext;

const NAME = "org.freedesktop.systemd1";
const PATH = "/org/freedesktop/systemd1";
const MANAGER = "org.freedesktop.systemd1.Manager";
const UNIT = "org.freedesktop.systemd1.Unit";
const PROPERTIES = "org.freedesktop.DBus.Properties";
const JOB_MS = 90000;
const SETTLE_MS = 200;

// Signals come to those who have asked for them; who has done so before on the same connection is told so.
const subscribe = client => client.call(PATH, MANAGER, "Subscribe", []).catch(() => {});

// Does something with a unit: method is "StartUnit", "StopUnit", "ReloadUnit" or "RestartUnit". Resolves when it
// is done, rejects with an error that says why not.
export async function act(method, unit) {
    const client = cockpit.dbus(NAME, { superuser: "require" });
    const ended = new Map();
    let heard = () => {};
    client.subscribe({ interface: MANAGER, member: "JobRemoved" }, (_path, _interface, _signal, [, job, , result]) => {
        ended.set(job, result);
        heard();
    });
    try {
        await subscribe(client);
        const [job] = await client.call(PATH, MANAGER, method, [unit, "replace"]);
        const result = await new Promise((resolve, reject) => {
            setTimeout(() => reject(new Error(_("it is not done yet"))), JOB_MS);
            heard = () => ended.has(job) && resolve(ended.get(job));
            heard();
        });
        if (result !== "done")
            throw new Error(cockpit.format(_("systemd says: $0"), result));
    } finally {
        client.close();
    }
}

// Lets a unit start with the machine, or no longer.
export async function enable(unit, isWanted) {
    const client = cockpit.dbus(NAME, { superuser: "require" });
    try {
        await (isWanted ? client.call(PATH, MANAGER, "EnableUnitFiles", [[unit], false, false])
            : client.call(PATH, MANAGER, "DisableUnitFiles", [[unit], false]));
        await client.call(PATH, MANAGER, "Reload", []);
    } finally {
        client.close();
    }
}

async function stateOf(client, unit) {
    const [path] = await client.call(PATH, MANAGER, "LoadUnit", [unit]);
    const [properties] = await client.call(path, PROPERTIES, "GetAll", [UNIT]);
    const value = name => properties[name].v;
    return { unit, active: value("ActiveState"), sub: value("SubState"), file: value("UnitFileState"), since: value("ActiveEnterTimestamp") / 1000 };
}

// Whether a unit runs.
export async function isActive(unit) {
    const client = cockpit.dbus(NAME);
    try {
        return (await stateOf(client, unit)).active === "active";
    } finally {
        client.close();
    }
}

// Gives `onStates` the states of units, [{ unit, active, sub, file, since }], now and after every change, until
// the returned function is called. `active`, `sub` and `file` are systemd's words, `since` is in milliseconds.
export function watchUnits(units, onStates, onEnd) {
    const client = cockpit.dbus(NAME);
    let [timer, isWanted] = [null, true];
    const look = () => {
        timer = null;
        Promise.all(units.map(unit => stateOf(client, unit)))
            .then(states => isWanted && onStates(states), error => isWanted && onEnd(error.message));
    };
    const lookSoon = () => { timer ??= setTimeout(look, SETTLE_MS) };
    subscribe(client);
    client.subscribe({ interface: PROPERTIES, member: "PropertiesChanged", arg0: UNIT }, path => path.includes("/vesperd") && lookSoon());
    client.subscribe({ interface: MANAGER, member: "UnitFilesChanged" }, lookSoon);
    client.subscribe({ interface: MANAGER, member: "Reloading" }, lookSoon);
    look();
    return () => {
        isWanted = false;
        clearTimeout(timer);
        client.close();
    };
}
