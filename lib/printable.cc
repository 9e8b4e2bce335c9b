#include "printable.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "utf8.h"

namespace {

constexpr unsigned DELETE = 0x7F;
constexpr unsigned LAST_C1 = 0x9F;

struct range_t {
    unsigned first;
    unsigned last;
};

// ALM, LRM and RLM, line and paragraph separator, embeddings and overrides, isolates.
constexpr std::array<range_t, 4> MISLEADING = {
    {{0x061C, 0x061C}, {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}}};

bool is_control(unsigned character) {
    return character < ' ' || (character >= DELETE && character <= LAST_C1);
}

bool is_misleading(unsigned character) {
    return std::any_of(MISLEADING.begin(), MISLEADING.end(), [character](const range_t &range) {
        return character >= range.first && character <= range.last;
    });
}

// The character of a valid UTF-8 sequence.
unsigned decoded(std::string_view sequence) {
    constexpr std::array<unsigned, 5> LEAD_MASKS = {0, 0x7F, 0x1F, 0x0F, 0x07};
    unsigned character = static_cast<uint8_t>(sequence[0]) & LEAD_MASKS[sequence.size()];
    for (const char byte : sequence.substr(1)) {
        character = character << 6 | (static_cast<uint8_t>(byte) & 0x3F);
    }
    return character;
}

}  // namespace

size_t control_length(std::string_view text) noexcept {
    const size_t length = utf8_length(text);
    const unsigned character =
        length > 0 ? decoded(text.substr(0, length)) : static_cast<uint8_t>(text[0]);
    return is_control(character) ? std::max<size_t>(length, 1) : 0;
}

size_t length_before_control(std::string_view text) noexcept {
    size_t at = 0;
    while (at < text.size() && control_length(text.substr(at)) == 0) {
        at += std::max<size_t>(utf8_length(text.substr(at)), 1);
    }
    return at;
}

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
        const bool is_shown =
            length > 0 && !is_control(decoded(sequence)) && !is_misleading(decoded(sequence));
        shown += is_shown ? sequence : "?";
        text.remove_prefix(sequence.size());
    }
    return shown;
}
