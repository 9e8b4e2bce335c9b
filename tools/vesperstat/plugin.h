// The report for monitoring systems that run plugins.
#pragma once

#include <string>
#include <vector>

#include "report.h"

// One line with performance data.
std::string report_check(const std::vector<report_t> &reports, const limits_t &limits, double now);

// The exit status of a plugin: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.
int check_status(level_t level) noexcept;
