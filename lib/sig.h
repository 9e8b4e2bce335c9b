// Deferred signal handling: a signal is only counted when it arrives, and its handler runs later as
// ordinary code, from the thread that calls signal_handle_all().
//
// Signals that report a fault in the running code (SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV,
// SIGSYS) are not deferred: their handlers run at once, in the signal context.
#pragma once

// A handler, or one of the dispositions SIG_DFL and SIG_IGN.
using signal_handler_t = void (*)(int signo);

// Installs `handler` for `signo` with the given sigaction flags, resets the signal's blocking mask
// to the signal itself and its count to 0. Dispositions are handed to the system as they are.
// Returns what sigaction() does: 0, or -1 with errno set.
int signal_set_handler(int signo, int flags, signal_handler_t handler) noexcept;

// Also blocks `signo_blocked` while the handler of `signo_handled` runs. To be called after
// signal_set_handler(). Returns 0, or -1 with errno EINVAL.
int signal_addset(int signo_handled, int signo_blocked) noexcept;

// Returns how often `signo` arrived since it was last handled, or -1 with errno EINVAL when it is
// not 0 to 64.
int signal_received(int signo) noexcept;

// Counts `signo` as if it had arrived. Returns the new count, or -1 with errno EINVAL.
int signal_raise(int signo) noexcept;

// Runs the handler of `signo` once, with its mask blocked in this thread, and resets its count.
// Returns 0, or -1 with errno set; the handler has not run when blocking failed.
int signal_handle(int signo) noexcept;

// Handles every signal that has arrived, lower numbers first, each once however often it arrived.
void signal_handle_all() noexcept;

// The system's handler of deferred signals: counts, and wakes the main thread (wake.h).
void signal_catcher(int signo) noexcept;
