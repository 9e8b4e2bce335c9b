// A journal, one JSON object a line, read from its end towards its beginning, through the files that were put
// away too, and followed while it grows. Never more than a piece of it is in memory.

import { asReader, follow, joined, run } from "./commands.js";

const FIRST_PIECE = 128 << 10;
const PIECE = 1 << 20;
const PACKED_PIECE = 16 << 20; // each is unpacked from its beginning
const PROBE = 64 << 10; // longer than any line
const PUT_AWAY = 9;     // files, by logrotate
const MOST_PACKED = 1 << 30;
const NEWLINE = 10;

const decoder = new TextDecoder();

// The account writes the journal: what is neither text nor number is none of the daemon's.
const isPlain = value => value === null || typeof value === "string" || Number.isFinite(value);

function entryOf(line) {
    try {
        const entry = Object.fromEntries(Object.entries(JSON.parse(line)).filter(([, value]) => isPlain(value)));
        entry.at = new Date(entry.time);
        return isNaN(entry.at) || typeof entry.event !== "string" ? null : entry;
    } catch {
        return null;
    }
}

// The entries of some lines, in their order; what is none is left out.
export const entriesOf = lines => lines.map(entryOf).filter(entry => entry !== null);

// The names that a journal can have after it was put away so many times.
const namesOf = (path, times) => times === 0 ? [path] : [`${path}.${times}`, `${path}.${times}.gz`];

const isPacked = path => path.endsWith(".gz");

async function statOf(path) {
    const [command, options] = asReader(["stat", "-L", "-c", "%i %s %F", path]);
    const said = await run(command, options);
    const [inode, size, ...kind] = said.output.trim().split(" ");
    if (said.status !== 0)
        return { inode: null, size: 0, why: said.message };
    return { inode, size: Number(size), why: kind[0] === "regular" ? "" : `${path}: ${kind.join(" ")}` };
}

async function unpackedSizeOf(path) {
    const [command, options] = asReader(["sh", "-c", 'zcat <"$1" | head -c "$2" | wc -c', "sh", path, String(MOST_PACKED)]);
    return Number((await run(command, options)).output);
}

async function bytesOf(path, from, count) {
    const script = 'zcat <"$1" | tail -c "+$2" | head -c "$3"';
    const [command, options] = asReader(isPacked(path)
        ? ["sh", "-c", script, "sh", path, String(from + 1), String(count)]
        : ["dd", `if=${path}`, "bs=64K", `skip=${from}`, `count=${count}`,
            "iflag=skip_bytes,count_bytes,fullblock,nonblock", "status=none"]);
    return (await run(command, { ...options, binary: true })).output;
}

// Why whoever is logged in cannot read it, "" when he can.
export async function whyUnreadable(path) {
    const { why } = await statOf(path);
    if (why !== "")
        return why;
    const [command, options] = asReader(["dd", `if=${path}`, "iflag=nonblock", "count=0", "status=none"]);
    const said = await run(command, options);
    return said.status === 0 ? "" : said.message;
}

// The size of a file; 0 when it is not there.
export const sizeOf = async path => (await statOf(path)).size;

export class JournalReader {
    constructor(path) {
        this.journal = path;
        this.newest = null; // the inode of the file with this name
        this.times = -1;    // how often the one that is being read was put away
        this.path = null;
        this.position = 0; // what lies before it has not been read
        this.carry = new Uint8Array(); // the end of a line that begins before the position
        this.isFirst = true;
    }

    // To be called first. Returns the size of the journal: what comes behind it is for followJournal().
    async open() {
        const { inode, size } = await statOf(this.journal);
        this.newest = inode;
        if (size > 0)
            this.begin(0, this.journal, size);
        else
            await this.turn();
        return size;
    }

    begin(times, path, size) {
        [this.times, this.path, this.position, this.carry] = [times, path, size, new Uint8Array()];
    }

    // Goes on with the next older file that is there. Returns whether there is one.
    async turn() {
        for (let times = Math.max(this.times + 1, 1); times <= PUT_AWAY; times++) {
            for (const path of namesOf(this.journal, times)) {
                const { size, why } = await statOf(path);
                if (why !== "" || size === 0)
                    continue;
                this.begin(times, path, isPacked(path) ? await unpackedSizeOf(path) : size);
                return true;
            }
        }
        [this.times, this.position] = [PUT_AWAY, 0];
        return false;
    }

    // While one reads, logrotate may give every file its next name, and pack it: the content is the same.
    async followNames() {
        const { inode } = await statOf(this.journal);
        if (inode === null || inode === this.newest)
            return;
        [this.newest, this.times] = [inode, this.times + 1];
        for (const path of namesOf(this.journal, this.times)) {
            if ((await statOf(path)).why === "")
                this.path = path;
        }
    }

    // The entries of the next older piece, the newest first; null when there is none.
    async older() {
        if (this.position === 0 && !await this.turn())
            return null;
        await this.followNames();
        const piece = this.isFirst ? FIRST_PIECE : isPacked(this.path) ? PACKED_PIECE : PIECE;
        const from = Math.max(0, this.position - piece);
        const bytes = joined([await bytesOf(this.path, from, this.position - from), this.carry]);
        const whole = from === 0 ? 0 : bytes.indexOf(NEWLINE) + 1;
        [this.position, this.isFirst, this.carry] = [from, false, bytes.slice(0, whole)];
        // No line is as long as a piece without an end of one.
        return from > 0 && whole === 0 ? [] : entriesOf(decoder.decode(bytes.subarray(whole)).split("\n")).reverse();
    }

    // The time of the first entry behind a place of the file, before another; null when there is none.
    async timeBehind(place, end) {
        for (let at = place; at < end; at += PROBE / 2) {
            const lines = decoder.decode(await bytesOf(this.path, at, PROBE)).split("\n");
            const entry = entriesOf(at > 0 ? lines.slice(1) : lines)[0];
            if (entry !== undefined)
                return entry.at;
        }
        return null;
    }

    // Passes over what is not older than `time`: entries are in the order of time.
    async seek(time) {
        for (let isThere = this.path !== null; isThere; isThere = await this.turn()) {
            let [before, behind] = [0, this.position];
            const first = await this.timeBehind(before, behind);
            if (first === null || first >= time)
                continue;
            while (behind - before > PROBE) {
                const middle = Math.floor((before + behind) / 2);
                const found = await this.timeBehind(middle, behind);
                if (found !== null && found < time)
                    before = middle;
                else
                    behind = middle;
            }
            this.position = Math.min(this.position, behind + PROBE);
            return;
        }
    }
}

// What follows a file that grows, and may be put away, from behind its first `size` bytes on: a command and the
// options to run it with.
export const followed = (path, size) => asReader(["tail", "--quiet", `--bytes=+${size + 1}`, "--follow=name", "--retry", path]);

// Gives the entries that come behind the first `size` bytes to `onEntries`, until the returned function is
// called.
export function followJournal(path, size, onEntries, onEnd) {
    const [command, options] = followed(path, size);
    return follow(command, lines => onEntries(entriesOf(lines)), onEnd, options);
}
