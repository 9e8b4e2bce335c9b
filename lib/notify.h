// The service manager's notification protocol: datagrams of "NAME=value" lines to the socket that the
// environment names, see sd_notify(3).
#pragma once

#include <memory>
#include <string_view>

// Takes NOTIFY_SOCKET and WATCHDOG_USEC out of the environment, where the process's own children would
// take them for theirs. Without them nothing below does anything. Opens a descriptor.
void notify_init() noexcept;

// Whether somebody is to be told how the process fares.
bool notify_is_wanted() noexcept;

// Gives a sign of life, if somebody waits for it, and how often that should be done at least.
void notify_alive() noexcept;
long sign_of_life_every_us() noexcept;

// That the process is there, or there again, for what it is for.
constexpr std::string_view READY = "READY=1";

// Sends one datagram, and drops it where that cannot be done at once. For any thread and any signal context.
void notify(std::string_view lines) noexcept;

// What a process says while it loads its configuration; "READY=1" follows.
void notify_reloading() noexcept;

// Sleeps, with the signs of life that belong to it; a signal does not shorten the sleep.
void pause_alive_us(long microseconds) noexcept;

// Gives the signs of life while another thread, which gives them as a rule, is busy; for an hour at most:
// what takes longer does not come back.
class kept_alive_t {
  public:
    kept_alive_t();
    ~kept_alive_t();
    kept_alive_t(const kept_alive_t &) = delete;
    kept_alive_t &operator=(const kept_alive_t &) = delete;

  private:
    struct state_t;
    std::unique_ptr<state_t> state_;  // null: nobody waits for signs of life
};
