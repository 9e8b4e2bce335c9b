// What a line has to tell its paging system, until the control station polls for it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tables.h"

// Reports of a line that wait; a further one takes the place of the oldest.
constexpr size_t MAX_REPORTS = 64;

// How many polls a report is offered to.
constexpr int MAX_OFFERS = 3;

using report_id_t = uint64_t;  // 0: none

// Lets a data packet, SOH to block check character, wait for the next poll of the line of a pager of the
// table, which needs an espa_address. For any thread.
report_id_t espa_report(const pager_t *pager, std::string_view packet) noexcept;

// Whether it waits still: it is neither acknowledged nor given up.
bool is_report_waiting(report_id_t id) noexcept;

// The station is being polled. Gives up, with a warning, what has been offered to as many polls as it may,
// and what was meant for the line that had the pager's place in the table before a reload.
void offer_report(const pager_t *pager) noexcept;

// The one that waits longest; empty when none does.
std::string next_report(const pager_t *pager) noexcept;

// Drops all of a line that is gone.
void drop_reports(const pager_t *pager) noexcept;

// It has been acknowledged, and waits no more, if it is still the one that waits longest.
void drop_report(const pager_t *pager, const std::string &packet) noexcept;
