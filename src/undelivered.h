// Messages that nobody of a whole chain of rules answered, kept for an hour to be shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct undelivered_message_t {
    size_t line;  // the position of its pager in the table
    std::string call, text;
    int64_t at_ms;  // since the epoch
};

// Keeps the latest eight of each line. For any thread, as is the next.
void keep_undelivered(const undelivered_message_t &message);

// Forgets those of a line that is gone.
void forget_undelivered(size_t line);

// Those of the last hour.
std::vector<undelivered_message_t> recently_undelivered();
