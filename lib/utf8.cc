#include "utf8.h"

#include <cstdint>

size_t utf8_length(std::string_view text) noexcept {
    const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    // Overlong forms, surrogates and what lies beyond U+10FFFF show in the second byte.
    const uint8_t low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const uint8_t high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (size_t i = 2; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

namespace {

bool is_valid(std::string_view text) {
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace

std::string as_utf8(std::string_view text) {
    if (is_valid(text)) {
        return std::string(text);
    }
    std::string converted;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte < 0x80) {
            converted += c;
        } else {
            converted += static_cast<char>(0xC0 | byte >> 6);
            converted += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return converted;
}
