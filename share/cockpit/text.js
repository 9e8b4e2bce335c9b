// Texts that came from outside, and how times and numbers are said.

const _ = cockpit.gettext;

// What a text may hold that is not seen, or that turns what stands around it: controls, DEL and C1, blanks of
// no width, marks and overrides of the direction of writing, and separators of lines.
const UNSEEN =
    /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/gu;

const shown = character => `\u2039U+${character.codePointAt(0).toString(16).toUpperCase().padStart(4, "0")}\u203a`;

// The text with a sign in the place of everything that cannot be seen.
export const visible = text => String(text ?? "").replace(UNSEEN, shown);

const two = number => String(number).padStart(2, "0");
export const dayOf = date => `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
export const clockOf = date => `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;

// "14:03:07" of today, with the day of every other.
export function timeWords(date) {
    return dayOf(date) === dayOf(new Date()) ? clockOf(date) : `${dayOf(date)} ${clockOf(date)}`;
}

// "45 s", "12 min", "3 h", "5 d".
export function durationWords(seconds) {
    const units = [[86400, _("$0 d")], [3600, _("$0 h")], [60, _("$0 min")], [1, _("$0 s")]];
    const [size, words] = units.find(([size]) => seconds >= size * (size > 1 ? 2 : 1)) ?? units[3];
    return cockpit.format(words, Math.max(0, Math.floor(seconds / size)));
}
