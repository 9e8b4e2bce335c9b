#include "outcome.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr char SEPARATOR = '=';  // in no name of a call that is followed
constexpr std::string_view TOLD = "told";

// Takes a part off the front of a text.
std::string_view next_part(std::string_view *text) {
    const size_t end = std::min(text->find(SEPARATOR), text->size());
    const std::string_view part = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return part;
}

}  // namespace

std::string followed_link_t::text() const {
    std::string name = call;
    if (result) {
        name += SEPARATOR + std::string(name_of(*result)) + SEPARATOR + std::to_string(seconds);
    }
    return is_told ? name + SEPARATOR + std::string(TOLD) : name;
}

followed_link_t parse_link(std::string_view text) {
    followed_link_t link{std::string(next_part(&text))};
    const auto known =
        std::find(CALL_RESULT_NAMES.begin(), CALL_RESULT_NAMES.end(), next_part(&text));
    if (known != CALL_RESULT_NAMES.end()) {
        link.result = static_cast<call_result_t>(known - CALL_RESULT_NAMES.begin());
    }
    const std::string_view seconds = next_part(&text);
    std::from_chars(seconds.data(), seconds.data() + seconds.size(), link.seconds);
    link.is_told = text == TOLD;
    return link;
}
