#include "call_watch.h"

#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

#include "clock.h"
#include "site.h"

namespace {

constexpr std::string_view PREFIX = "call_";
constexpr int LOOK_MS = 100;
constexpr size_t EVENTS_SIZE = 65536;

}  // namespace

int call_number(const std::string &file_name) {
    return file_name.starts_with(PREFIX) ? atoi(file_name.c_str() + PREFIX.size()) : -1;
}

call_watch_t::call_watch_t(const std::vector<std::string> &spool_dirs)
    : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    for (const std::string &directory : spool_dirs) {
        if (inotify_add_watch(events_.get(), directory.c_str(), IN_CLOSE_WRITE) < 0) {
            give_up("cannot watch " + directory);
        }
    }
    watcher_ = std::thread([this] { run(); });
}

void call_watch_t::stop() {
    done_ = true;
    if (watcher_.joinable()) {
        watcher_.join();
        take_events();
    }
}

void call_watch_t::run() {
    go_first();
    while (!done_) {
        pollfd waiting{events_.get(), POLLIN, 0};
        poll(&waiting, 1, LOOK_MS);
        take_events();
    }
}

void call_watch_t::take_events() {
    alignas(inotify_event) std::array<char, EVENTS_SIZE> buffer;
    for (;;) {
        const ssize_t got = read(events_.get(), buffer.data(), buffer.size());
        const int64_t now = microseconds_passed();
        if (got <= 0) {
            return;
        }
        for (const char *at = buffer.data(); at < buffer.data() + got;) {
            const auto *event = reinterpret_cast<const inotify_event *>(at);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                give_up("more call files than inotify can tell of");
            }
            const int number = call_number(event->name);
            if (number >= 0) {
                closed_us_.resize(std::max(closed_us_.size(), static_cast<size_t>(number) + 1));
                closed_us_[static_cast<size_t>(number)] = now;
            }
            at += sizeof *event + event->len;
        }
    }
}
