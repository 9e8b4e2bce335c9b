// A call that is followed, as its call file tells of it: in comment lines what the daemon has to know to go
// on with it, and behind them what the PBX and its dialplan have written since.
//
//   ; vesperd: line ward3
//   ; vesperd: text FIRE ZONE 3%0D
//   ; vesperd: end
//
//   StartRetry: 5094 1 (1795356069)
//   Answered: 1795356071
//   Confirmed: 1
//   Status: Completed
//
// A value is continued by a further line of its name: the PBX reads a line in pieces of 255 characters.
// Bytes that are not printable ASCII, and "%", are "%" and two hexadecimal digits.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "tables.h"

// What has to be known of a call.
struct followed_call_t {
    std::string name = {};    // of its file, which is not among the comments
    std::string daemon = {};  // the instance
    std::string line = {}, rule = {}, address = {}, text = {};
    std::array<std::string, CALL_FIELDS> fields = {};  // by call_field_t; the address is `address`
    std::string after = {};  // the name of the call that nobody answered before; empty: none
    int alrm = ALARM_MESSAGE;
    int passed_on = 0;      // how often its message was, before
    int64_t placed_ms = 0;  // since the epoch
};

// Whether a call file of this name can be followed: of letters, digits and * + _ . -, which no shell that
// appends to the file takes for something else, and not too long.
bool can_be_followed(std::string_view name) noexcept;

// The comment lines of a call.
std::string to_comments(const followed_call_t &call);

// Reads the comment lines of a call file's content; what a message has smuggled in before them does not
// count. Returns whether there are any.
bool read_comments(std::string_view content, followed_call_t *call);

// How far a call is.
struct progress_t {
    int attempts = 0;
    bool is_answered = false;   // the dialplan says so, or an answered call has ended
    bool is_confirmed = false;  // the dialplan says so
    bool is_over = false;       // the PBX does nothing more
};
progress_t progress_of(std::string_view content) noexcept;
