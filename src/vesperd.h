// The daemon core: start-up, service threads, reload and shutdown.
#pragma once

#include <atomic>

#include "tables.h"

// A shorter line of an ASCII line is no message.
constexpr size_t MIN_ASCII_LENGTH = 5;

// Shutdown: set once, polled by every service thread.
extern std::atomic<int> doexit;

// Chooses the rule for a message of `pager` and runs its action.
//   alrm     alarm code, ALARM_MESSAGE for messages
//   number   call address, or null
//   message  message text
void process_message(pager_t *pager, int alrm, const char *number, const char *message) noexcept;

// Handler of the terminating signals: lets the service threads finish for ten seconds, removes the
// pidfile and exits with status 0.
[[noreturn]] void sig_term(int signo) noexcept;

// Handler of SIGHUP: loads the configuration file again and starts the logger anew. When the file
// cannot be opened, exits with status 0 at once and leaves the pidfile behind.
void sig_hup(int signo) noexcept;

// Start routine of a service thread; `pager` is the thread's pager_t. Connects, reads, dispatches
// and reconnects until `doexit` is set. Returns null.
void *service_proc(void *pager) noexcept;

// The program: options, account, configuration, test mode or service. Every way out is exit(0).
[[noreturn]] void vesperd_run(int argc, char **argv) noexcept;
