#include "report.h"

#include <array>
#include <atomic>
#include <deque>
#include <mutex>

namespace {

struct queue_t {
    std::mutex lock;
    std::deque<std::string> packets;
    std::atomic<bool> is_empty = true;  // spares every byte of a line the lock
};
std::array<queue_t, MAX_PAGERS> queues;  // by the position of the pager in its table

queue_t &queue_of(const pager_t *pager) {
    return queues[static_cast<size_t>(pager - pagers)];
}

}  // namespace

void espa_report(const pager_t *pager, std::string_view packet) noexcept {
    queue_t &queue = queue_of(pager);
    const std::lock_guard held(queue.lock);
    if (queue.packets.size() == MAX_REPORTS) {
        queue.packets.pop_front();
    }
    queue.packets.emplace_back(packet);
    queue.is_empty = false;
}

std::string next_report(const pager_t *pager) noexcept {
    queue_t &queue = queue_of(pager);
    if (queue.is_empty) {
        return "";
    }
    const std::lock_guard held(queue.lock);
    return queue.packets.empty() ? "" : queue.packets.front();
}

void drop_report(const pager_t *pager, const std::string &packet) noexcept {
    queue_t &queue = queue_of(pager);
    const std::lock_guard held(queue.lock);
    if (!queue.packets.empty() && queue.packets.front() == packet) {
        queue.packets.pop_front();
    }
    queue.is_empty = queue.packets.empty();
}
