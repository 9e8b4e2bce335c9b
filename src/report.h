// What a line has to tell its paging system, until the control station polls for it.
#pragma once

#include <string>
#include <string_view>

#include "tables.h"

// Reports of a line that wait; a further one takes the place of the oldest.
constexpr size_t MAX_REPORTS = 64;

// Lets a data packet, SOH to block check character, wait for the next poll of the line of a pager of the
// table, which needs an espa_address. For any thread.
void espa_report(const pager_t *pager, std::string_view packet) noexcept;

// The one that waits longest; empty when none does.
std::string next_report(const pager_t *pager) noexcept;

// It has been acknowledged, and waits no more, if it is still the one that waits longest.
void drop_report(const pager_t *pager, const std::string &packet) noexcept;
