// The report for programs.
#pragma once

#include <string>
#include <vector>

#include "report.h"

// One JSON object on one line.
std::string report_json(const std::vector<report_t> &reports, double now);
