// What the service threads count, and the state that each of them is in.
//
// A thread adds to counters of its own: no lock, no system call, no memory is taken. Whoever shows
// them reads them meanwhile.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "line_state.h"
#include "outcome.h"
#include "tables.h"

// Counted by one thread, read by any.
class counter_t {
  public:
    void add(uint64_t count = 1) noexcept {
        value_.store(get() + count, std::memory_order_relaxed);
    }
    uint64_t get() const noexcept { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> value_ = 0;
};

// What became of an alarm.
enum class alarm_result_t : int { RAISED, LIMITED, SUPPRESSED, DISABLED };
constexpr int ALARM_RESULTS = 4;

constexpr int RULE_ACTIONS = 3;  // SKIP, CALL, SCRIPT
constexpr int ALARM_EVENTS = 8;  // by the rows of `alarms`

struct alignas(64) line_stats_t {  // threads do not share cache lines
    counter_t connects;
    counter_t received_bytes;
    counter_t polls;  // requests, that is an address and ENQ
    counter_t packets;
    counter_t check_errors;
    counter_t messages;
    counter_t unmatched;
    counter_t silence_seconds;           // in which a connection brought nothing, 15 in a row
    counter_t noise_bytes;               // that belong to nothing, on an ESPA line
    std::array<counter_t, 10> requests;  // by their address
    counter_t refused;                   // connections of others than the line's host
    std::array<std::array<counter_t, 2>, RULE_ACTIONS> actions;  // failed, ok
    std::array<std::array<counter_t, ALARM_RESULTS>, ALARM_EVENTS> alarms;
    std::array<counter_t, CALL_RESULTS> calls;  // that were followed, by their outcome
    counter_t undelivered;                      // messages that nobody of a whole chain answered
    counter_t answer_seconds;                   // until then, of those that somebody answered
    std::atomic<int> calls_open = 0;            // that have no outcome yet
    std::atomic<int64_t> last_message_ms = 0;   // since the epoch, 0: none yet
    std::atomic<line_state_t> state = line_state_t::CONNECTING;
    std::atomic<int64_t> state_since_ms = 0;
    std::atomic<int> protocol = -1;
    std::atomic<int64_t> protocol_since_ms = 0;
    std::atomic<bool> is_served = false;  // has a thread, or had one
};

// By the position of the pager in its table.
extern std::array<line_stats_t, MAX_PAGERS> line_stats;

// A pager of the table gets a thread: its line is shown from now on.
void stats_begin(const pager_t *pager) noexcept;

// It got none: its line is not shown.
void stats_hide(const pager_t *pager) noexcept;

// It has none any more: its line is not shown, and its counters begin anew.
void stats_end(const pager_t *pager) noexcept;

// How many lines are served, and how many of them have no connection at the moment.
struct line_count_t {
    int served;
    int unconnected;
};
line_count_t count_lines() noexcept;

// Makes the calling thread the one that counts for a pager of the table.
void stats_serve(const pager_t *pager) noexcept;

// The counters of the calling thread; of no line when it serves none.
line_stats_t &my_stats() noexcept;

// Puts the calling thread's line into a state, now if it is another one.
void enter_state(line_state_t state) noexcept;

// For as long as it lives, the calling thread's line is acting; then it is again in the state in
// which it was, since the time since which it was.
class acting_t {
  public:
    acting_t() noexcept;
    ~acting_t();
    acting_t(const acting_t &) = delete;
    acting_t &operator=(const acting_t &) = delete;

  private:
    line_state_t state_;
    int64_t since_ms_;
};

// Notes the protocol that the calling thread's line speaks, and since when.
void note_protocol(int protocol) noexcept;

// Counts a request, that is an address and ENQ.
//   address  '0' to '9'
void count_request(char address) noexcept;

// Counts what became of an alarm of the calling thread's line.
void count_alarm(int alrm, alarm_result_t result) noexcept;
