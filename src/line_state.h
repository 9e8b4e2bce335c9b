// What a line can be doing. The daemon writes the names, its companions read them.
#pragma once

#include <array>

enum class line_state_t : int {
    CONNECTING,
    IDLE,       // connected, between packets
    RECEIVING,  // in a packet or line
    ACTING,     // a call file is written or a command runs
    ENDED,
    WAITING,  // for the paging system, which connects by itself
};

// By the state's number.
constexpr std::array<const char *, 6> LINE_STATES = {
    "connecting", "idle", "receiving", "acting", "ended", "waiting for a connection"};

// Whether a line in this state has no connection, for as long as somebody serves it.
constexpr bool is_unconnected(line_state_t state) noexcept {
    return state == line_state_t::CONNECTING || state == line_state_t::WAITING;
}
