// What vespercheck says, for programs.
#pragma once

#include <string>
#include <vector>

#include "findings.h"
#include "summary.h"
#include "trial.h"

// One JSON object (RFC 8259), in several lines:
//   {"file": PATH, "findings": [{"line", "severity", "kind", "text"}...],
//    "files_judged": BOOL, "summary": {...}}
// A byte that is no UTF-8 becomes U+FFFD.
std::string report_json(const std::string &path, const std::vector<finding_t> &findings,
                        bool files_are_judged, const summary_t &summary);

// One JSON object: {"file": PATH, "message", "address", "lines": [{...}...]}
std::string trials_json(const std::string &path, const std::string &message,
                        const record_texts_t &record, const std::vector<trial_t> &trials);
