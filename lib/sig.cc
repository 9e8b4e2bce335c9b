#include "sig.h"

#include <signal.h>

#include <atomic>
#include <cerrno>

#include "wake.h"

namespace {

constexpr int LAST_SIGNAL = 64;

struct real_signal_handler_t {
    struct sigaction action;
    signal_handler_t handler;
};

real_signal_handler_t g_handler[LAST_SIGNAL + 1];
std::atomic<int> g_received[LAST_SIGNAL + 1];  // any thread may take a signal
static_assert(std::atomic<int>::is_always_lock_free, "counted in signal context");

bool is_signal(int signo) {
    if (signo >= 0 && signo <= LAST_SIGNAL) {
        return true;
    }
    errno = EINVAL;
    return false;
}

bool is_function(signal_handler_t handler) {
    return handler != SIG_DFL && handler != SIG_IGN;
}

bool reports_a_fault(int signo) {
    switch (signo) {
        case SIGILL:
        case SIGABRT:
        case SIGBUS:
        case SIGFPE:
        case SIGSEGV:
        case SIGSYS:
            return true;
        default:
            return false;
    }
}

}  // namespace

int signal_set_handler(int signo, int flags, signal_handler_t handler) noexcept {
    if (!is_signal(signo)) {
        return -1;
    }
    real_signal_handler_t &entry = g_handler[signo];
    sigemptyset(&entry.action.sa_mask);
    sigaddset(&entry.action.sa_mask, signo);
    entry.action.sa_flags = flags;
    entry.action.sa_handler =
        is_function(handler) && !reports_a_fault(signo) ? signal_catcher : handler;
    entry.handler = handler;
    g_received[signo] = 0;
    return sigaction(signo, &entry.action, nullptr);
}

int signal_addset(int signo_handled, int signo_blocked) noexcept {
    return is_signal(signo_handled)
               ? sigaddset(&g_handler[signo_handled].action.sa_mask, signo_blocked)
               : -1;
}

int signal_received(int signo) noexcept {
    return is_signal(signo) ? g_received[signo].load() : -1;
}

int signal_raise(int signo) noexcept {
    if (!is_signal(signo)) {
        return -1;
    }
    return ++g_received[signo];
}

int signal_handle(int signo) noexcept {
    if (!is_signal(signo)) {
        return -1;
    }
    const real_signal_handler_t &entry = g_handler[signo];
    sigset_t before;
    if (sigprocmask(SIG_BLOCK, &entry.action.sa_mask, &before) != 0) {
        return -1;
    }
    if (is_function(entry.handler)) {
        entry.handler(signo);
    }
    g_received[signo] = 0;
    return sigprocmask(SIG_SETMASK, &before, nullptr);
}

void signal_handle_all() noexcept {
    for (int signo = 0; signo <= LAST_SIGNAL; signo++) {
        if (g_received[signo] != 0) {
            signal_handle(signo);
        }
    }
}

void signal_catcher(int signo) noexcept {
    ++g_received[signo];
    wake();
}
