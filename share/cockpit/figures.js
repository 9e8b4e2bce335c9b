// Figures of the last day, hour by hour, from the journals: for each line of a daemon what came and what
// nobody answered.

import { isMessage } from "./history.js";
import { followJournal, JournalReader, whyUnreadable } from "./journal.js";
import { HOURS } from "./plot.js";

const HOUR_MS = 3600e3;
const MOST_PIECES = 8; // of a megabyte, of each journal

const hourOf = date => Math.floor(date / HOUR_MS);

// Counts in a ring of hours.
class Hours {
    constructor() {
        this.byHour = new Map();
    }

    add(date) {
        this.byHour.set(hourOf(date), (this.byHour.get(hourOf(date)) ?? 0) + 1);
    }

    // The last day's, the hour of now at the end; what is older is forgotten.
    counts() {
        const last = hourOf(Date.now());
        for (const hour of this.byHour.keys()) {
            if (hour <= last - HOURS)
                this.byHour.delete(hour);
        }
        return Array.from({ length: HOURS }, (_none, i) => this.byHour.get(last - HOURS + 1 + i) ?? 0);
    }
}

const newLine = () => ({ messages: new Hours(), failed: new Hours() });

export class Figures {
    constructor() {
        this.lines = new Map();
        this.unanswered = new Hours();
        this.since = new Map(); // by daemon, where a day was too much to read
        this.stops = [];
        this.run = 0;
    }

    add(daemon, entry) {
        if (entry.event === "outcome") {
            if ((entry.result === "unanswered" || entry.result === "lost") && entry.next === null)
                this.unanswered.add(entry.at);
        } else if (isMessage(entry)) {
            const key = `${daemon}/${entry.line}`;
            if (!this.lines.has(key))
                this.lines.set(key, newLine());
            this.lines.get(key).messages.add(entry.at);
            if (entry.result === "failed")
                this.lines.get(key).failed.add(entry.at);
        }
    }

    // Of a line, or null when its daemon keeps no journal that can be read.
    of(daemon, line) {
        return this.since.has(daemon) ? this.lines.get(`${daemon}/${line}`) ?? newLine() : null;
    }

    async readDay(daemon, reader, run) {
        const begin = Date.now() - HOURS * HOUR_MS;
        for (let pieces = 0; pieces < MOST_PIECES; pieces++) {
            const entries = await reader.older();
            if (entries === null || run !== this.run)
                return null;
            entries.filter(entry => entry.at >= begin).forEach(entry => this.add(daemon, entry));
            if (entries.length > 0 && entries.at(-1).at < begin)
                return null;
            if (pieces + 1 === MOST_PIECES)
                return entries.at(-1)?.at ?? null;
        }
        return null;
    }

    async startOne({ name, journal }, onChange) {
        const run = this.run;
        if (journal === null || await whyUnreadable(journal) !== "")
            return;
        const reader = new JournalReader(journal);
        const size = await reader.open();
        if (run !== this.run)
            return;
        const since = await this.readDay(name, reader, run);
        if (run !== this.run)
            return;
        this.since.set(name, since);
        this.stops.push(followJournal(journal, size, entries => entries.forEach(entry => this.add(name, entry))));
        onChange();
    }

    start(daemons, onChange) {
        this.stop();
        daemons.forEach(daemon => this.startOne(daemon, onChange));
    }

    stop() {
        this.run++;
        this.stops.splice(0).forEach(stop => stop());
        [this.lines, this.since, this.unanswered] = [new Map(), new Map(), new Hours()];
    }
}
