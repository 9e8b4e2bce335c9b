// Follows calls until somebody has answered, and passes them on where nobody has.
//
// One thread looks once a second at the further name that every followed call file has in the staging
// directory (callfile.h), and at nothing while there is none. A call has one outcome: that is decided by
// giving the link another name (outcome.h), then the message is passed on to the rule's `otherwise`, then
// log, journal and counters tell, then the control station is told, and with that the link goes. Whoever
// is killed in between goes on from there: a call is passed on once, for a successor names the call
// before it; a command may run again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "followed.h"

// How often a message may be passed on.
constexpr int MAX_PASSED_ON = 10;

// Takes up what earlier processes have left, and starts the thread, once there is a pager that follows
// its calls. For the main thread, after each load of the configuration and with the account's rights,
// before the staging directories are cleaned.
void follow_start() noexcept;

// Follows a call whose file lies in the spool directory. For any thread.
//   staging_dir  of the pager, where its link is
void follow_call(const pager_t *pager, const char *staging_dir,
                 const followed_call_t &call) noexcept;

// A message that nobody answered, the last rule of its chain included.
struct undelivered_t {
    size_t line;  // the position of its pager in the table
    std::string call, text;
    int64_t at_ms;  // since the epoch
};

// Those of the last hour, at most eight for each line, the latest.
std::vector<undelivered_t> recently_undelivered();
