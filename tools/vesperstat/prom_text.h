// Reader of the Prometheus text format, version 0.0.4.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct sample_t {
    // The value of the label of this name; empty when there is none.
    std::string_view label(std::string_view wanted) const noexcept;

    std::string_view metric;  // like the names of the labels part of the text that was parsed
    std::vector<std::pair<std::string_view, std::string>> labels;  // with their values unescaped
    double value = 0;
};

// Appends the samples of a text, which they refer to, in the order in which they stand there. Comments, HELP and TYPE
// among them, and timestamps are passed over. Returns false when the text does not follow the format
// or its last line has no end, with the reason in `*error`.
bool parse_samples(std::string_view text, std::vector<sample_t> *samples, std::string *error);
