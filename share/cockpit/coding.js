// The bytes of a file as text that can be edited, and back to the same bytes.

const latin1 = {
    name: "ISO 8859-1",
    decode: bytes => Array.from(bytes, byte => String.fromCharCode(byte)).join(""),
    encode: text => /^[\u0000-\u00ff]*$/.test(text) ? Uint8Array.from(text, character => character.charCodeAt(0)) : null,
};

// ignoreBOM keeps one.
const utf8 = {
    name: "UTF-8",
    decode: bytes => new TextDecoder("utf-8", { fatal: true, ignoreBOM: true }).decode(bytes),
    encode: text => new TextEncoder().encode(text),
};

// Returns { text, name, encode }; encode(text) is null when the coding has no bytes for it. A text field has no line
// ends but "\n": text is null when there are others beside each other.
export function decoded(bytes) {
    let coding = utf8;
    let whole;
    try {
        whole = utf8.decode(bytes);
    } catch {
        coding = latin1;
        whole = latin1.decode(bytes);
    }
    const isDos = whole.includes("\r\n") && !/(^|[^\r])\n/.test(whole);
    const text = isDos ? whole.replaceAll("\r\n", "\n") : whole;
    return {
        name: coding.name,
        text: text.includes("\r") ? null : text,
        encode: edited => coding.encode(isDos ? edited.replaceAll("\n", "\r\n") : edited),
    };
}
