#include "roster.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <iterator>
#include <utility>

#include "stats.h"
#include "wake.h"

namespace {

struct slot_t {
    bool has_thread = false;  // known to the main thread alone, as the next two
    pthread_t thread = {};
    void *(*routine)(void *) = nullptr;
    std::atomic<bool> is_dismissed = false;
    parting_rules_t parting = {};
    std::atomic<bool> is_over = false;
    std::atomic<int> wake = -1;  // an eventfd, which stays
};

std::array<slot_t, MAX_PAGERS> slots;
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
    slot.is_dismissed = false;
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
    return slot.has_thread && !slot.is_dismissed;
}

bool roster_is_free(const pager_t *pager) noexcept {
    return !slot_of(pager).has_thread;
}

void roster_dismiss(const pager_t *pager, parting_rules_t parting) noexcept {
    slot_of(pager).parting = std::move(parting);
    slot_of(pager).is_dismissed = true;
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
        slot.is_dismissed = false;
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
        slot.parting = {};
        if (slot.is_dismissed) {
            empty(&pager);
        } else {
            roster_start(&pager, slot.routine);
        }
    }
}

parting_rules_t *roster_parting_rules(const pager_t *pager) noexcept {
    const bool is_in_table =
        std::less_equal<>()(std::begin(pagers), pager) && std::less<>()(pager, std::end(pagers));
    return is_in_table && slot_of(pager).is_dismissed ? &slot_of(pager).parting : nullptr;
}

bool roster_is_dismissed(const pager_t *pager) noexcept {
    return slot_of(pager).is_dismissed;
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
