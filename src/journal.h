// The journal: one JSON object (RFC 8259, UTF-8) a line for every message and every raised alarm,
// written after its action has ended.
//
//   {"time":"2026-11-21T15:04:05.123+01:00","line":"ward3","event":"message","protocol":"espa",
//    "address":"4711","text":"FIRE ZONE 3","rule":"rule_fire","action":"call","result":"ok",
//    "file":"call_8003_1795273340","ms":0.4}
//
// `event` is "message" or the alarm's own name, whatever its table position says; `address` and
// `text` belong to messages; `rule` and `action` are null where there was none; `result` is "ok",
// "failed", or "none" for skip and for no rule; `file` belongs to call files, `exit` to commands;
// `ms` is the time from the last byte of the message to the end of the action. Control characters are
// escaped, DEL and those of C1 too. Behind `ms` stand `priority`, `type`, `beep` and `transmissions` of a
// call whose record had them.
#pragma once

#include "action.h"
#include "followed.h"

// Sets the file; empty: no journal. It is opened for every line, as the log is.
void journal_init(const char *file) noexcept;

// Whether there is a journal.
bool journal_is_kept() noexcept;

// One entry.
struct journal_entry_t {
    const pager_t *pager;
    int alrm;             // ALARM_MESSAGE or the alarm's code
    const char *address;  // messages only
    const char *text;
    const rule_t *rule;  // null: none
    outcome_t outcome;
    int64_t began_us;  // by clock.h's monotonic clock
    call_fields_t fields = {};
};

// The outcome of a call that is followed:
//
//   {"time":"...","line":"ward3","event":"outcome","call":"call_8003_1795273340_0","address":"4711",
//    "text":"FIRE ZONE 3","rule":"rule_nurse","result":"unanswered","attempts":2,"seconds":41,
//    "next":"rule_doctor","file":"call_8004_1795273381_0"}
//
// `next` is the rule that went on with it, null for none, `file` and `exit` what that did.
struct outcome_entry_t {
    const followed_call_t &call;
    const char *result;
    int attempts;
    int seconds;
    const std::string &next;  // empty: none
    const outcome_t &outcome;
};
void journal_write_outcome(const outcome_entry_t &entry) noexcept;

// What the last megabyte of the journal has of the outcome of a call, from its line on; empty when nothing.
std::string journal_outcome_of(const followed_call_t &call) noexcept;

// Appends an entry, in one write; a file that is not there is made for its owner and group alone. Without a journal does nothing; one that cannot be written is
// logged as an ERROR once per load.
void journal_write(const journal_entry_t &entry) noexcept;
