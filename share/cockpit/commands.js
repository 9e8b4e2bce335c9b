// Programs on the server, and what whoever is logged in may do there.

// The account of the daemon, to which root steps down for files that the account can replace.
const AS_ACCOUNT = ["setpriv", "--reuid=ovo", "--regid=ovo", "--clear-groups", "--"];

const MOST_REST = 1 << 16; // of a line of output without an end

const permission = cockpit.permission({ admin: true });

// Resolves when it is known whether administrative access is on.
export const accessIsKnown = new Promise(resolve => {
    if (permission.allowed !== null)
        resolve();
    permission.addEventListener("changed", resolve, { once: true });
});

// Whether administrative access is on; false as long as it is not known.
export const isAdministrator = () => permission.allowed === true;
export const onAccessChanged = callback => permission.addEventListener("changed", callback);

// Whatever somebody has put into the way, no program that is to end runs on.
const LIMITED = ["timeout", "60"];

// In one language, whatever that of the page is.
const SETTINGS = { binary: true, err: "message", environ: ["LC_ALL=C.UTF-8"] };

const whyOf = error => error.message || error.problem;

// Runs a program to its end. Returns { status, output, message }: its exit status, null when it could not be
// run, what it wrote, and what it complained of. Rejects nothing.
//   input    text or bytes for its standard input
//   binary   whether the output is bytes, not text
//   options  of cockpit.spawn
export function run(command, { input, binary, ...options } = {}) {
    return new Promise(resolve => {
        const pieces = [];
        const process = cockpit.spawn([...LIMITED, ...command], { ...SETTINGS, ...options });
        const end = (status, message) => {
            const bytes = joined(pieces);
            resolve({ status, output: binary ? bytes : new TextDecoder().decode(bytes), message });
        };
        process.stream(data => { pieces.push(data) });
        if (input !== undefined)
            process.input(typeof input === "string" ? new TextEncoder().encode(input) : input);
        process.then(() => end(0, ""), error => end(error.exit_status ?? null, whyOf(error)));
    });
}

// Where the account can say what lies at a path, nothing of root's reads it: the account does.
export const asReader = command =>
    isAdministrator() ? [[...AS_ACCOUNT, ...command], { superuser: "require" }] : [command, {}];

export function joined(pieces) {
    const bytes = new Uint8Array(pieces.reduce((sum, piece) => sum + piece.length, 0));
    let at = 0;
    for (const piece of pieces) {
        bytes.set(piece, at);
        at += piece.length;
    }
    return bytes;
}

// Runs a program until the returned function is called, and gives every whole line of its output to
// `onLines`, an array at a time; `onEnd` hears why it ended by itself.
export function follow(command, onLines, onEnd = () => {}, options = {}) {
    const decoder = new TextDecoder();
    const process = cockpit.spawn(command, { ...SETTINGS, ...options });
    let rest = "";
    let isWanted = true;
    process.stream(data => {
        const lines = (rest + decoder.decode(data, { stream: true })).split("\n");
        rest = lines.pop().slice(0, MOST_REST);
        if (isWanted && lines.length > 0)
            onLines(lines);
    });
    process.catch(whyOf).then(message => isWanted && onEnd(message));
    return () => {
        isWanted = false;
        process.close("cancelled");
    };
}
