// The lines that are served: which slots of the table of pagers have a thread, from its start to its end.
//
//  a slot is     and then
//  free          roster_start(): served
//  served        roster_dismiss(): dismissed; the end of its thread without that: over
//  dismissed     its thread finishes what it is acting on and ends: over
//  over          roster_clear(): free, or served anew where its record was loaded again meanwhile
//
// Without `live_reload` every slot that was loaded at first is served for as long as the process lives.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "tables.h"

// Whether lines come and go while others are served, `live_reload` of the configuration. For any thread;
// set by the main thread, and from then on lines can be called.
void roster_live(bool is_live) noexcept;
bool roster_is_live() noexcept;

// Starts the thread of a pager of the table, whose slot is free. For the main thread.
//   routine  of the thread, which gets the pager
// Returns whether it runs; when not, the slot is free as before.
bool roster_start(pager_t *pager, void *(*routine)(void *)) noexcept;

// Whether a pager of the table has a thread which goes on.
bool roster_serves(const pager_t *pager) noexcept;

// Whether the slot of a pager can be loaded anew.
bool roster_is_free(const pager_t *pager) noexcept;

// The rules that a line which is dismissed can choose from, for a message that it has acknowledged and for
// its last alarm: those of the table are for the others.
struct parting_rules_t {
    std::vector<rule_t> listed;  // in the order of its list
    std::optional<rule_t> fallback;
};

// Asks a line's thread to end, or to look at what was loaded for it: whatever it waits for, it hears. For the
// main thread.
void roster_dismiss(const pager_t *pager, parting_rules_t parting) noexcept;
void roster_call(const pager_t *pager) noexcept;

// Takes back what dismissed lines were asked, where they have not heard it yet. For the main thread.
void roster_keep_all() noexcept;

// Joins the threads that are over: calls `empty` with those whose line was dismissed, whose slots are free
// then, and starts the others again. For the main thread.
void roster_clear(const std::function<void(pager_t *)> &empty) noexcept;

// The rules of a line that is dismissed, which stay until its thread is over; null: it is not. For any thread and
// any record.
parting_rules_t *roster_parting_rules(const pager_t *pager) noexcept;

// The thread's side: whether it was asked to end, what becomes readable when it is called (-1: nothing does),
// that it has heard it, and that it is over.
bool roster_is_dismissed(const pager_t *pager) noexcept;
int roster_fd(const pager_t *pager) noexcept;
void roster_hear(const pager_t *pager) noexcept;
void roster_end(const pager_t *pager) noexcept;
