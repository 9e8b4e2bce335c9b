#include "report.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <mutex>

#include "logger.h"

namespace {

struct report_t {
    report_id_t id;
    std::string line;
    std::string packet;
    int offers = 0;
};

struct queue_t {
    std::mutex lock;
    std::deque<report_t> reports;
    std::atomic<bool> is_empty = true;  // spares every byte of a line the lock
};
std::array<queue_t, MAX_PAGERS> queues;  // by the position of the pager in its table

queue_t &queue_of(const pager_t *pager) {
    return queues[static_cast<size_t>(pager - pagers)];
}

void drop_oldest(queue_t *queue) {
    queue->reports.pop_front();
    queue->is_empty = queue->reports.empty();
}

}  // namespace

report_id_t espa_report(const pager_t *pager, std::string_view packet) noexcept {
    static std::atomic<report_id_t> last_id = 0;
    queue_t &queue = queue_of(pager);
    const std::lock_guard held(queue.lock);
    if (queue.reports.size() == MAX_REPORTS) {
        drop_oldest(&queue);
    }
    queue.reports.push_back({++last_id, table_text(pager->name).text, std::string(packet)});
    queue.is_empty = false;
    return queue.reports.back().id;
}

bool is_report_waiting(report_id_t id) noexcept {
    return std::any_of(queues.begin(), queues.end(), [&](queue_t &queue) {
        const std::lock_guard held(queue.lock);
        return std::any_of(queue.reports.begin(), queue.reports.end(),
                           [&](const report_t &report) { return report.id == id; });
    });
}

void offer_report(const pager_t *pager) noexcept {
    queue_t &queue = queue_of(pager);
    if (queue.is_empty) {
        return;
    }
    const std::string line = table_text(pager->name).text;
    bool is_refused = false;
    {
        const std::lock_guard held(queue.lock);
        std::erase_if(queue.reports, [&](const report_t &report) { return report.line != line; });
        is_refused = !queue.reports.empty() && queue.reports.front().offers == MAX_OFFERS;
        if (is_refused) {
            queue.reports.pop_front();
        }
        if (!queue.reports.empty()) {
            queue.reports.front().offers++;
        }
        queue.is_empty = queue.reports.empty();
    }
    if (is_refused) {
        LOG(LEVEL_WARNING, "A report of line %s was not taken in %d polls, it is dropped\n",
            line.c_str(), MAX_OFFERS);
    }
}

std::string next_report(const pager_t *pager) noexcept {
    queue_t &queue = queue_of(pager);
    if (queue.is_empty) {
        return "";
    }
    const std::lock_guard held(queue.lock);
    return queue.reports.empty() ? "" : queue.reports.front().packet;
}

void drop_report(const pager_t *pager, const std::string &packet) noexcept {
    queue_t &queue = queue_of(pager);
    const std::lock_guard held(queue.lock);
    if (!queue.reports.empty() && queue.reports.front().packet == packet) {
        drop_oldest(&queue);
    }
}

void drop_reports(const pager_t *pager) noexcept {
    queue_t &queue = queue_of(pager);
    const std::lock_guard held(queue.lock);
    queue.reports.clear();
    queue.is_empty = true;
}
