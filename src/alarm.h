// The alarm table, and the way from an alarm code to a name and to a pager's slot.
#pragma once

#include "tables.h"

struct alarm_types_t {
    int alarm;  // code, -1 ends the table
    char name[32];
};

// Never written.
extern const alarm_types_t alarms[9];

// An alarm's rate-limit state on one pager.
struct alarm_slot_t {
    int *index;  // escalation level, 0 = never fired
    int *last;   // seconds since the epoch of the last firing
};

// The name of an alarm in log lines, suppression paths and "%alarm%". Codes 1, 2, 4 and 8 are
// themselves the table position, so 1 is named "connection_lost", 2 "connected", 4 "message" and 8
// ""; codes 16, 32, 64 and 128 lie beyond the table and carry the names of their own rows.
const char *alarm_name(int alrm) noexcept;

// The row of `alarms` that carries a code, and with it the alarm's own name, which no part of the
// daemon's rules uses; the row of general_error for a code that none carries.
int alarm_row(int alrm) noexcept;

// The slot of an alarm. Codes 1, 2 and 4 are the position in the pager's `alarms`; code 8 is the
// position just past it, the pair `polls` and `last_packet`; codes 16, 32, 64 and 128 have slots of
// their own. Any other code shares the slot and the name of general_error.
alarm_slot_t alarm_slot(pager_t *pager, int alrm) noexcept;
