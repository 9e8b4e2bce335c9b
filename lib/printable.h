// Text of unknown origin on its way to a terminal, a log or a report.
//
// Control characters are those of C0, DEL and those of C1, U+0080 to U+009F in UTF-8 (RFC 3629) or one
// of these bytes where it belongs to no UTF-8 character.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

// The length in bytes of the control character that `text`, which is not empty, begins with; 0 when it
// begins with none.
size_t control_length(std::string_view text) noexcept;

// How many bytes at the front of `text` come before its first control character.
size_t length_before_control(std::string_view text) noexcept;

// Hands the text on in pieces, with every byte of a control character other than TAB written as "\xNN".
// A piece is either one such byte or does not have any. No memory is taken.
template <typename append_t>
void escape_controls(std::string_view text, append_t append) {
    while (!text.empty()) {
        const size_t plain = length_before_control(text);
        if (plain > 0) {
            append(text.substr(0, plain));
            text.remove_prefix(plain);
            continue;
        }
        for (size_t left = control_length(text); left > 0; left--) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(text[0]));
            append(text[0] == '\t' ? std::string_view("\t") : std::string_view(escaped));
            text.remove_prefix(1);
        }
    }
}

// The text with "?" in the place of every control character, of every character that changes the
// direction or the line of what follows, and of every byte that belongs to no UTF-8 character.
std::string printable(std::string_view text);
