#include "hosts.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "clock.h"
#include "lookup.h"

namespace {

constexpr size_t MAX_THREADS = 32;

std::string seconds_text(int64_t microseconds) {
    char text[32];
    snprintf(text, sizeof text, "%.1f s", static_cast<double>(microseconds) / 1e6);
    return text;
}

host_t ask(const std::string &name) {
    host_t host{name, false, true, "", {}};
    const int64_t began = microseconds_passed();
    int fault = 0;
    const auto addresses = look_up(name, &fault);
    host.is_found = addresses.has_value();
    if (host.is_found) {
        host.address.s_addr = addresses->front();
    } else {
        host.reason = fault == 0 ? "it has no IPv4 address" : hstrerror(fault);
        host.reason += ", after " + seconds_text(microseconds_passed() - began);
    }
    return host;
}

// What the threads share, for as long as the last of them lives.
struct search_t {
    std::mutex lock;
    std::condition_variable all_answered;
    std::vector<host_t> hosts;
    size_t next = 0;
    size_t answered = 0;
    bool is_over = false;
};

void answer_some(const std::shared_ptr<search_t> &search) {
    std::unique_lock held(search->lock);
    while (!search->is_over && search->next < search->hosts.size()) {
        const size_t index = search->next++;
        const std::string name = search->hosts[index].name;
        held.unlock();
        host_t host = ask(name);
        held.lock();
        search->hosts[index] = std::move(host);
        search->answered++;
        search->all_answered.notify_one();
    }
}

// A search takes as many threads as there are.
void start_threads(const std::shared_ptr<search_t> &search) {
    try {
        for (size_t i = std::min(search->hosts.size(), MAX_THREADS); i > 0; i--) {
            std::thread(answer_some, search).detach();
        }
    } catch (const std::system_error &) {
    }
}

}  // namespace

std::vector<host_t> ask_hosts(const std::vector<std::string> &names, double seconds) {
    const auto search = std::make_shared<search_t>();
    for (const std::string &name : names) {
        const std::string unanswered =
            "no answer within " + std::to_string(static_cast<int>(HOSTS_LIMIT_SECONDS)) + " s";
        search->hosts.push_back({name, false, true, unanswered, {}});
    }
    if (seconds > 0) {
        start_threads(search);
    }
    std::unique_lock held(search->lock);
    search->all_answered.wait_for(held, std::chrono::duration<double>(std::max(seconds, 0.0)),
                                  [&] { return search->answered == search->hosts.size(); });
    search->is_over = true;
    return search->hosts;
}

std::vector<host_t> take_hosts(const std::vector<std::string> &names, double /*seconds*/) {
    std::vector<host_t> hosts;
    for (const std::string &name : names) {
        host_t host{name, !name.empty(), false, "", {}};
        host.is_asked = inet_aton(name.c_str(), &host.address) != 0;
        hosts.push_back(host);
    }
    return hosts;
}
