#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "clock.h"

namespace {

constexpr std::chrono::hours LONGEST_WORK(
    1);  // sixteen names, and name servers that answer nothing

// Written once, by notify_init().
sockaddr_un manager;
socklen_t manager_size = 0;
int sock = -1;
long limit_us = 0;

// Returns the variable's value, which is not in the environment any more.
std::string take_variable(const char *name) {
    const char *value = getenv(name);
    const std::string text = value != nullptr ? value : "";
    if (value != nullptr) {
        unsetenv(name);
    }
    return text;
}

}  // namespace

void notify_init() noexcept {
    const std::string path = take_variable("NOTIFY_SOCKET");
    const std::string limit = take_variable("WATCHDOG_USEC");
    const bool is_path = path.size() > 1 && (path[0] == '/' || path[0] == '@');
    if (!is_path || path.size() >= sizeof manager.sun_path) {
        return;
    }
    manager.sun_family = AF_UNIX;
    memcpy(manager.sun_path, path.data(), path.size());
    if (path[0] == '@') {
        manager.sun_path[0] = '\0';  // a name that is no file's
    }
    manager_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    limit_us = sock >= 0 ? std::max(strtol(limit.c_str(), nullptr, 10), 0L) : 0;
}

bool notify_is_wanted() noexcept {
    return sock >= 0;
}

void notify_alive() noexcept {
    if (limit_us > 0) {
        notify("WATCHDOG=1");
    }
}

long sign_of_life_every_us() noexcept {
    return limit_us > 0 ? std::max(limit_us / 2, 1'000L) : std::numeric_limits<long>::max();
}

void notify(std::string_view lines) noexcept {
    if (sock >= 0) {
        sendto(sock, lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr *>(&manager), manager_size);
    }
}

void notify_reloading() noexcept {
    char lines[64];
    const int length = snprintf(lines, sizeof lines, "RELOADING=1\nMONOTONIC_USEC=%" PRId64,
                                microseconds_passed());
    notify({lines, static_cast<size_t>(length)});
}

void pause_alive_us(long microseconds) noexcept {
    while (microseconds > 0) {
        const long piece = std::min(microseconds, sign_of_life_every_us());
        notify_alive();
        pause_us(piece);
        microseconds -= piece;
    }
    notify_alive();
}

struct kept_alive_t::state_t {
    std::mutex lock;
    std::condition_variable has_ended;
    bool is_over = false;
    std::thread thread;

    void give_signs() {
        const auto end = std::chrono::steady_clock::now() + LONGEST_WORK;
        std::unique_lock held(lock);
        while (!is_over && std::chrono::steady_clock::now() < end) {
            notify_alive();
            has_ended.wait_for(held, std::chrono::microseconds(sign_of_life_every_us()));
        }
    }
};

kept_alive_t::kept_alive_t() {
    if (limit_us == 0) {
        return;
    }
    state_ = std::make_unique<state_t>();
    try {
        state_->thread = std::thread([this] { state_->give_signs(); });
    } catch (const std::system_error &) {  // no thread to be had: one sign has to do
        notify_alive();
    }
}

kept_alive_t::~kept_alive_t() {
    if (state_ == nullptr) {
        return;
    }
    {
        const std::lock_guard held(state_->lock);
        state_->is_over = true;
    }
    state_->has_ended.notify_one();
    if (state_->thread.joinable()) {
        state_->thread.join();
    }
}
