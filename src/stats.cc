#include "stats.h"

#include "alarm.h"
#include "clock.h"

std::array<line_stats_t, MAX_PAGERS> line_stats;

namespace {

thread_local line_stats_t *mine = nullptr;

}  // namespace

void stats_serve(const pager_t *pager) noexcept {
    mine = &line_stats[static_cast<size_t>(pager - pagers)];
    mine->state_since_ms = milliseconds_now();
    mine->is_served = true;
}

line_stats_t &my_stats() noexcept {
    static line_stats_t nobodys;
    return mine != nullptr ? *mine : nobodys;
}

line_state_t enter_state(line_state_t state) noexcept {
    line_stats_t &stats = my_stats();
    const line_state_t before = stats.state.load(std::memory_order_relaxed);
    if (before != state) {
        stats.state_since_ms.store(milliseconds_now(), std::memory_order_relaxed);
        stats.state.store(state, std::memory_order_relaxed);
    }
    return before;
}

void count_alarm(int alrm, alarm_result_t result) noexcept {
    my_stats().alarms[static_cast<size_t>(alarm_row(alrm))][static_cast<size_t>(result)].add();
}
