#include "undelivered.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "clock.h"

namespace {

constexpr std::ptrdiff_t MAX_OF_LINE = 8;
constexpr int64_t SHOWN_MS = 3'600'000;

struct kept_t {
    std::mutex lock;
    std::vector<undelivered_message_t> messages;
};
kept_t &kept = *std::make_unique<kept_t>().release();  // lives as long as any thread

}  // namespace

void keep_undelivered(const undelivered_message_t &message) {
    const std::lock_guard held(kept.lock);
    const auto is_of_line = [&](const undelivered_message_t &other) {
        return other.line == message.line;
    };
    std::vector<undelivered_message_t> &all = kept.messages;
    if (std::count_if(all.begin(), all.end(), is_of_line) == MAX_OF_LINE) {
        all.erase(std::find_if(all.begin(), all.end(), is_of_line));
    }
    all.push_back(message);
}

void forget_undelivered(size_t line) {
    const std::lock_guard held(kept.lock);
    std::erase_if(kept.messages,
                  [&](const undelivered_message_t &message) { return message.line == line; });
}

std::vector<undelivered_message_t> recently_undelivered() {
    const std::lock_guard held(kept.lock);
    const int64_t now = milliseconds_now();
    std::erase_if(kept.messages, [&](const undelivered_message_t &message) {
        return now - message.at_ms >= SHOWN_MS;
    });
    return kept.messages;
}
