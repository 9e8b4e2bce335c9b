#include "stats.h"

#include <memory>

#include "alarm.h"
#include "clock.h"

std::array<line_stats_t, MAX_PAGERS> line_stats;

namespace {

thread_local line_stats_t *mine = nullptr;

line_stats_t &stats_of(const pager_t *pager) {
    return line_stats[static_cast<size_t>(pager - pagers)];
}

}  // namespace

void stats_begin(const pager_t *pager) noexcept {
    stats_of(pager).state_since_ms = milliseconds_now();
    stats_of(pager).is_served = true;
}

void stats_hide(const pager_t *pager) noexcept {
    stats_of(pager).is_served = false;
}

void stats_end(const pager_t *pager) noexcept {
    std::destroy_at(&stats_of(pager));
    std::construct_at(&stats_of(pager));
}

line_count_t count_lines() noexcept {
    line_count_t count{};
    for (const line_stats_t &stats : line_stats) {
        count.served += stats.is_served ? 1 : 0;
        count.unconnected += stats.is_served && is_unconnected(stats.state) ? 1 : 0;
    }
    return count;
}

void stats_serve(const pager_t *pager) noexcept {
    mine = &stats_of(pager);
}

line_stats_t &my_stats() noexcept {
    static line_stats_t nobodys;
    return mine != nullptr ? *mine : nobodys;
}

void enter_state(line_state_t state) noexcept {
    line_stats_t &stats = my_stats();
    if (stats.state.load(std::memory_order_relaxed) != state) {
        stats.state_since_ms.store(milliseconds_now(), std::memory_order_relaxed);
        stats.state.store(state, std::memory_order_relaxed);
    }
}

acting_t::acting_t() noexcept
    : state_(my_stats().state.load()), since_ms_(my_stats().state_since_ms.load()) {
    enter_state(line_state_t::ACTING);
}

acting_t::~acting_t() {
    my_stats().state_since_ms.store(since_ms_, std::memory_order_relaxed);
    my_stats().state.store(state_, std::memory_order_relaxed);
}

void note_protocol(int protocol) noexcept {
    line_stats_t &stats = my_stats();
    if (stats.protocol.load(std::memory_order_relaxed) != protocol) {
        stats.protocol_since_ms.store(milliseconds_now(), std::memory_order_relaxed);
        stats.protocol.store(protocol, std::memory_order_relaxed);
    }
}

void count_request(char address) noexcept {
    my_stats().polls.add();
    my_stats().requests[static_cast<size_t>(address - '0')].add();
}

void count_alarm(int alrm, alarm_result_t result) noexcept {
    my_stats().alarms[static_cast<size_t>(alarm_row(alrm))][static_cast<size_t>(result)].add();
}
