// Calls as comma-separated values (RFC 4180), which spreadsheet programs open.

import { endOf } from "./history.js";
import { visible } from "./text.js";

const COLUMNS = {
    time: ({ entry }) => entry.time,
    daemon: ({ source }) => source.title,
    line: ({ entry }) => entry.line,
    event: ({ entry }) => entry.event,
    address: ({ entry }) => entry.address,
    text: ({ entry }) => entry.text,
    rule: ({ entry }) => entry.rule,
    action: ({ entry }) => entry.action,
    file: ({ entry }) => entry.file,
    result: ({ entry, steps }) => endOf(entry, steps),
    attempts: ({ steps }) => steps.reduce((sum, step) => sum + step.attempts, 0) || "",
    seconds: ({ steps }) => steps.length > 0 ? steps.reduce((sum, step) => sum + step.seconds, 0) : "",
    rules_after: ({ steps }) => steps.map(step => step.next).filter(next => next !== null).join(" "),
};

// A spreadsheet program takes what begins with one of these for a formula, and a message can.
const IS_FORMULA = /^[=+\-@]/;

function quoted(value) {
    const text = visible(value);
    return `"${IS_FORMULA.test(text) ? "'" : ""}${text.replaceAll('"', '""')}"`;
}

const lineOf = values => values.map(quoted).join(",") + "\r\n";

// The mark in front tells spreadsheet programs that it is UTF-8.
export const csvOf = {
    head: () => "\ufeff" + lineOf(Object.keys(COLUMNS)),
    row: item => lineOf(Object.values(COLUMNS).map(column => column(item))),
};
