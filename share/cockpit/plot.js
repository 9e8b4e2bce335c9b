// Bars for the hours of a day, drawn as SVG.

import { svg } from "./dom.js";

const _ = cockpit.gettext;

export const HOURS = 24;
const BAR = 5; // units of the drawing, as are these
const GAP = 1;
const HEIGHT = 28;

const hourWords = hoursAgo => `${String(new Date(Date.now() - hoursAgo * 3600e3).getHours()).padStart(2, "0")}:00`;

// `counts`: HOURS numbers, the last of which is that of this hour. `words`: what is counted, "messages".
export function plot(counts, words, kind = "") {
    const top = Math.max(1, ...counts);
    const sum = counts.reduce((total, count) => total + count, 0);
    const most = counts.indexOf(Math.max(...counts));
    const label = sum === 0 ? cockpit.format(_("$0 in the last 24 hours: none"), words)
        : cockpit.format(_("$0 in the last 24 hours: $1, most of them in the hour of $2: $3"), words, sum, hourWords(HOURS - 1 - most), counts[most]);
    return svg("svg", { class: `plot ${kind}`, viewBox: `0 0 ${HOURS * (BAR + GAP)} ${HEIGHT}`, role: "img", "aria-label": label },
        ...counts.map((count, hour) => {
            const height = count === 0 ? 1 : Math.max(2, Math.round(count / top * HEIGHT));
            return svg("rect", { x: hour * (BAR + GAP), y: HEIGHT - height, width: BAR, height, class: count === 0 ? "none" : "some" },
                svg("title", {}, `${hourWords(HOURS - 1 - hour)} ${words}: ${count}`));
        }));
}
