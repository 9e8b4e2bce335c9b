// The report for people.
#pragma once

#include <string>
#include <vector>

#include "report.h"

// What is wrong, in words, and a table of all lines, those with a problem first. A column tells the
// instance where there are several.
std::string report_table(const std::vector<report_t> &reports, double now, bool with_colour);
