// The rate limit of service alarms, and the files with which an operator switches them off.
#pragma once

#include "tables.h"

// Decides whether an alarm fires now: at once the first time, then after more than 4, 24 and from
// there on 299 seconds. A suppression file named after the alarm in the pager's spool directory,
// whose first line is a negative number, keeps it quiet and leaves its level alone. ALARM_MESSAGE
// always fires. Returns the new level, which is stored together with the time, or 0 when the alarm
// stays quiet.
int alarm_time(pager_t *pager, int alrm) noexcept;
