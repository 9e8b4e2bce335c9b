// What was paged, and what became of it: the journals of all daemons as one history, the newest first.

import { JournalReader } from "./journal.js";

const MOST_OUTCOMES = 50000; // that are remembered for calls further back
const MOST_EMPTY = 64; // pieces of a journal that hold no entry, before it is given up

// A call goes from rule to rule, and each outcome names the call that came next.
class Outcomes {
    constructor() {
        this.byCall = new Map();
    }

    add(entry) {
        this.byCall.set(entry.call, entry);
        if (this.byCall.size > MOST_OUTCOMES)
            this.byCall.delete(this.byCall.keys().next().value);
    }

    // What became of an entry, in the order in which it happened.
    of(entry) {
        const steps = [];
        let step = this.byCall.get(entry.file);
        while (step !== undefined && !steps.includes(step)) {
            steps.push(step);
            step = step.next === null ? undefined : this.byCall.get(step.file);
        }
        return steps;
    }
}

// How an entry ended, in a word: "answered" (or confirmed), "unanswered", "lost", "ok" as far as the daemon
// did it, "failed", "none" where there was nothing to do.
export const endOf = (entry, steps) => {
    const result = String((steps.at(-1) ?? entry).result);
    return result === "confirmed" ? "answered" : result;
};

export const isMessage = entry => entry.event === "message";

const holds = (text, wanted) => String(text ?? "").toLowerCase().includes(wanted);

// Whether an item is one of those that are asked for: { line, text, address, result, day }, each of which may
// be empty; `day` is two times.
export function matches({ entry, steps }, filter) {
    return (filter.line === "" || entry.line === filter.line) &&
        (filter.text === "" || holds(entry.text ?? entry.event, filter.text.toLowerCase())) &&
        (filter.address === "" || String(entry.address ?? "").startsWith(filter.address)) &&
        (filter.result === "" || endOf(entry, steps) === filter.result) &&
        (filter.day === null || (entry.at >= filter.day[0] && entry.at < filter.day[1]));
}

export class History {
    // `sources`: [{ title, journal, ... }]
    constructor(sources) {
        this.queues = sources.map(source => ({ source, reader: new JournalReader(source.journal), outcomes: new Outcomes(), entries: [], isOver: false }));
        this.reached = null; // the time to which it has been read
    }

    // Opens the journals, at their end or at the end of a day. Returns the size of each.
    async open(day) {
        return Promise.all(this.queues.map(async queue => {
            const size = await queue.reader.open();
            if (day !== null)
                await queue.reader.seek(day[1]);
            return size;
        }));
    }

    queueOf(source) {
        return this.queues.find(queue => queue.source === source);
    }

    // What became of an item, as it is known now.
    refresh(item) {
        item.steps = this.queueOf(item.source).outcomes.of(item.entry);
        return item;
    }

    // Takes an entry as it comes. Returns its item, { source, entry, steps }; null for an outcome, which belongs to
    // an earlier one.
    take(source, entry) {
        if (entry.event === "outcome") {
            this.queueOf(source).outcomes.add(entry);
            return null;
        }
        return this.refresh({ source, entry });
    }

    // Looks for entries of a journal, but not through any number of pieces without one.
    async fill(queue) {
        for (let pieces = 0; pieces < MOST_EMPTY && queue.entries.length === 0 && !queue.isOver; pieces++) {
            const entries = await queue.reader.older();
            queue.isOver = entries === null;
            queue.entries = entries ?? [];
        }
        queue.isOver ||= queue.entries.length === 0;
    }

    // The next older item; undefined when there is none, null for an entry that is part of another one.
    async next() {
        await Promise.all(this.queues.map(queue => this.fill(queue)));
        const newest = this.queues.filter(queue => !queue.isOver)
            .reduce((best, queue) => best === null || queue.entries[0].at > best.entries[0].at ? queue : best, null);
        if (newest === null)
            return undefined;
        const entry = newest.entries.shift();
        this.reached = entry.at;
        return this.take(newest.source, entry);
    }

    // Looks back until it has found `wanted` items or has looked at `most`. Returns { items, isOver }.
    async older(filter, wanted, most) {
        const items = [];
        for (let looked = 0; looked < most && items.length < wanted; looked++) {
            const item = await this.next();
            if (item === undefined || (item !== null && filter.day !== null && item.entry.at < filter.day[0]))
                return { items, isOver: true };
            if (item !== null && matches(item, filter))
                items.push(item);
        }
        return { items, isOver: false };
    }
}
