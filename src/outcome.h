// What becomes of a call that is followed, as it is worded and kept.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

enum class call_result_t : int {
    ANSWERED,
    CONFIRMED,   // at the telephone's keypad
    UNANSWERED,  // the PBX has given up, or nobody confirmed
    LOST,        // no outcome in time
};
constexpr int CALL_RESULTS = 4;

// By the result's number.
constexpr std::array<const char *, CALL_RESULTS> CALL_RESULT_NAMES = {"answered", "confirmed",
                                                                      "unanswered", "lost"};

constexpr const char *name_of(call_result_t result) noexcept {
    return CALL_RESULT_NAMES[static_cast<size_t>(result)];
}

constexpr bool is_reached(call_result_t result) noexcept {
    return result == call_result_t::ANSWERED || result == call_result_t::CONFIRMED;
}

// The name of a followed call's link, which holds what has been decided, so that a process that is killed
// then decides nothing a second time: "CALL", "CALL=unanswered=42" and, once everybody but the control
// station knows, "CALL=unanswered=42=told".
struct followed_link_t {
    std::string call;  // the name of its file
    std::optional<call_result_t> result = {};
    int seconds = 0;  // until then
    bool is_told = false;

    std::string text() const;
};
followed_link_t parse_link(std::string_view text);
