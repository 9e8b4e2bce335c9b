// Follows calls until somebody has answered, and passes them on where nobody has.
//
// One thread looks once a second at the further name that every followed call file has in the staging
// directory (callfile.h), and at nothing while there is none. What has been decided is written into that
// name (outcome.h) before anything follows from it, so that a call has one outcome whoever is killed when:
//
//  the link     what has happened                       what is next
//  CALL         the call file is linked and renamed     its outcome, from what the file says
//  CALL=R=S     the outcome is decided                  the rule's `otherwise`, once: a call file names the
//                                                       call before it; then log, journal and counters,
//                                                       once: the journal is asked
//  CALL=R=S=told  everybody knows but the control       the control station's acknowledgement
//               station
//  none         everybody knows
//
// A command that is killed with the process is run again.
#pragma once

#include <functional>

#include "followed.h"

// How often a message may be passed on.
constexpr int MAX_PASSED_ON = 10;

// Takes up what earlier processes have left, and starts the thread, once there is a pager that follows
// its calls. For the main thread, after each load of the configuration and with the account's rights,
// before the staging directories are cleaned.
void follow_start() noexcept;

// Calls `change` while no call is looked at, so that it may take a line's record away, unless one is being
// looked at now. Returns whether it was called.
bool follow_between_turns(const std::function<void()> &change) noexcept;

// Follows a call whose file lies in the spool directory. For any thread.
//   staging_dir  of the pager, where its link is
//   size         of the file, in bytes
void follow_call(const pager_t *pager, const char *staging_dir, const followed_call_t &call,
                 size_t size) noexcept;
