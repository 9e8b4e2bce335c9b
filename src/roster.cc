#include "roster.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <iterator>
#include <memory>
#include <utility>

#include "stats.h"
#include "wake.h"

namespace {

struct slot_t {
    bool has_thread = false;  // known to the main thread alone, as the next two
    pthread_t thread = {};
    void *(*routine)(void *) = nullptr;
    std::atomic<parting_rules_t *> parting = nullptr;  // not null: dismissed
    std::vector<std::unique_ptr<parting_rules_t>> kept_for_thread = {};
    std::atomic<bool> is_over = false;
    std::atomic<int> wake = -1;  // an eventfd, which stays
};

using slots_t = std::array<slot_t, MAX_PAGERS>;
slots_t &slots = *std::make_unique<slots_t>().release();  // lives as long as any thread
std::atomic<bool> lives = false;

slot_t &slot_of(const pager_t *pager) {
    return slots[static_cast<size_t>(pager - pagers)];
}

void make_callable(slot_t *slot) {
    if (slot->wake < 0) {
        slot->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
}

}  // namespace

void roster_live(bool is_live) noexcept {
    lives = is_live;
    for (slot_t &slot : slots) {
        if (is_live && slot.has_thread) {
            make_callable(&slot);
        }
    }
}

bool roster_is_live() noexcept {
    return lives;
}

bool roster_start(pager_t *pager, void *(*routine)(void *)) noexcept {
    slot_t &slot = slot_of(pager);
    slot.routine = routine;
    slot.parting = nullptr;
    slot.is_over = false;
    if (lives) {
        make_callable(&slot);
    }
    pthread_mutex_init(&pager->lock, nullptr);
    stats_begin(pager);
    slot.has_thread = pthread_create(&slot.thread, nullptr, routine, pager) == 0;
    pager->bg = slot.thread;
    return slot.has_thread;
}

bool roster_serves(const pager_t *pager) noexcept {
    const slot_t &slot = slot_of(pager);
    return slot.has_thread && slot.parting == nullptr;
}

bool roster_is_free(const pager_t *pager) noexcept {
    return !slot_of(pager).has_thread;
}

void roster_dismiss(const pager_t *pager, parting_rules_t parting) noexcept {
    slot_t &slot = slot_of(pager);
    slot.kept_for_thread.push_back(std::make_unique<parting_rules_t>(std::move(parting)));
    slot.parting = slot.kept_for_thread.back().get();
    roster_call(pager);
}

void roster_call(const pager_t *pager) noexcept {
    const slot_t &slot = slot_of(pager);
    if (slot.wake >= 0) {
        eventfd_write(slot.wake, 1);
    }
}

void roster_keep_all() noexcept {
    for (slot_t &slot : slots) {
        slot.parting = nullptr;
    }
}

void roster_clear(const std::function<void(pager_t *)> &empty) noexcept {
    for (pager_t &pager : pagers) {
        slot_t &slot = slot_of(&pager);
        if (!slot.has_thread || !slot.is_over) {
            continue;
        }
        pthread_join(slot.thread, nullptr);
        slot.has_thread = false;
        slot.kept_for_thread.clear();
        if (slot.parting.exchange(nullptr) != nullptr) {
            empty(&pager);
        } else {
            store_shared(&pager.socket, -1);  // that of the thread before is closed
            roster_start(&pager, slot.routine);
        }
    }
}

parting_rules_t *roster_parting_rules(const pager_t *pager) noexcept {
    const bool is_in_table =
        std::less_equal<>()(std::begin(pagers), pager) && std::less<>()(pager, std::end(pagers));
    return is_in_table ? slot_of(pager).parting.load() : nullptr;
}

bool roster_is_dismissed(const pager_t *pager) noexcept {
    return slot_of(pager).parting != nullptr;
}

int roster_fd(const pager_t *pager) noexcept {
    return lives ? slot_of(pager).wake.load() : -1;
}

void roster_hear(const pager_t *pager) noexcept {
    eventfd_t count = 0;
    eventfd_read(slot_of(pager).wake, &count);
}

void roster_end(const pager_t *pager) noexcept {
    slot_of(pager).is_over = true;
    wake();
}
