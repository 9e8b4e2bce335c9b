// What a line can be doing. The daemon writes the names, its companions read them.
#pragma once

#include <array>

enum class line_state_t : int {
    CONNECTING,
    IDLE,       // connected, between packets
    RECEIVING,  // in a packet or line
    ACTING,     // a call file is written or a command runs
    ENDED,
};

// By the state's number.
constexpr std::array<const char *, 5> LINE_STATES = {"connecting", "idle", "receiving", "acting",
                                                     "ended"};
