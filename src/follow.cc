#include "follow.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "callfile.h"
#include "clock.h"
#include "espa.h"
#include "files.h"
#include "instance.h"
#include "journal.h"
#include "logger.h"
#include "open_call.h"
#include "pass_on.h"
#include "report.h"
#include "service.h"
#include "stats.h"
#include "undelivered.h"

namespace {

constexpr size_t MAX_CALL_FILE = 1 << 18;
constexpr int64_t SECOND_US = 1'000'000;
constexpr int64_t MAX_AGE_MS = 10LL * 365 * 86'400'000;
constexpr std::chrono::seconds PAUSE(1);

using calls_t = std::vector<open_call_t>;

// What the threads share; lives as long as any of them.
struct shared_t {
    std::mutex lock;
    std::mutex turn;  // held while calls are looked at
    std::condition_variable has_more;
    calls_t added;
    std::set<std::string> known;        // directory and name of every call that is followed
    std::set<std::string> directories;  // that have been taken up
};
shared_t &shared = *std::make_unique<shared_t>().release();

// Together: a call by which another knows that it was passed on must not come after it.
void add_calls(calls_t calls) {
    const std::lock_guard held(shared.lock);
    for (open_call_t &call : calls) {
        if (shared.known.insert(call.directory + "/" + call.call.name).second) {
            shared.added.push_back(std::move(call));
        }
    }
    shared.has_more.notify_one();
}

line_stats_t &stats_of(const pager_t *pager) {
    return line_stats[static_cast<size_t>(pager - pagers)];
}

// A converted address is not what the station has sent.
bool is_address(std::string_view text) {
    return !text.empty() && text.size() < sizeof espa_record_t::call_address &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < '\x7F'; });
}

report_id_t report(const pager_t *pager, const followed_call_t &call, const char (&status)[2]) {
    const char byte = load_shared(status[0]);
    if (byte == '\0' || call.alrm != ALARM_MESSAGE || !is_address(call.address) ||
        load_shared(pager->espa_address) == '\0') {
        return 0;
    }
    return espa_report(pager, compose_status(call.address, byte));
}

std::optional<call_result_t> result_of(const open_call_t &open) {
    if (open.progress.is_confirmed) {
        return call_result_t::CONFIRMED;
    }
    if (open.progress.is_answered && !open.confirms) {
        return call_result_t::ANSWERED;
    }
    return open.progress.is_over ? std::optional(call_result_t::UNANSWERED) : std::nullopt;
}

// A call that the PBX has not taken by now is not to be telephoned later.
void take_back(const open_call_t &open, const pager_t *pager) {
    const std::string spool_dir = table_text(pager->spool_dir).text;
    const std::string path = spool_dir + "/" + open.call.name;
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "Unable to take back %s: %s\n", path.c_str(),
               strerror(errno));
    }
}

void decide(open_call_t *open, call_result_t result, int64_t now) {
    followed_link_t link = open->link;
    link.result = result;
    link.seconds = static_cast<int>((now - open->placed_us) / SECOND_US);
    rename_link(open, link);
    open->decided_us = now;
}

void look_at(open_call_t *open, int64_t now) {
    const pager_t *pager = open->pager;
    if (pager == nullptr || !open->has_rule) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "The %s of call %s is no more: it is not followed\n",
               pager == nullptr ? "line" : "rule", open->call.name.c_str());
        decide(open, call_result_t::UNANSWERED, now);
        return;
    }
    const bool is_there = read_progress(open);
    std::optional<call_result_t> result = result_of(*open);
    if (!result && (!is_there || now - open->placed_us >= open->give_up * SECOND_US)) {
        take_back(*open, pager);
        read_progress(open);  // which may have come at the last moment
        result = result_of(*open).value_or(call_result_t::LOST);
    }
    if (result) {
        decide(open, *result, now);
    }
}

const open_call_t *successor_of(const open_call_t &open, const calls_t &calls) {
    const auto found = std::find_if(calls.begin(), calls.end(), [&](const open_call_t &other) {
        return other.call.after == open.call.name && other.directory == open.directory;
    });
    return found != calls.end() ? &*found : nullptr;
}

passing_t pass_on_once(open_call_t *open, const pager_t *pager, const calls_t &calls, int64_t now) {
    const open_call_t *successor = successor_of(*open, calls);
    if (successor == nullptr) {
        return pass_on(open, pager, now);
    }
    passing_t passing{.rule = successor->call.rule};
    copy_text(passing.outcome.file, successor->call.name);
    passing.outcome.is_followed = true;
    return passing;
}

void note_undelivered(const open_call_t &open, const pager_t *pager) {
    stats_of(pager).undelivered.add();
    LOG_AS(LEVEL_ERROR, "follow_calls", "Nobody answered call %s of line %s for %s\n",
           open.call.name.c_str(), open.call.line.c_str(), open.call.text.c_str());
    keep_undelivered(
        {static_cast<size_t>(pager - pagers), open.call.name, open.call.text, milliseconds_now()});
}

void count(const open_call_t &open, const pager_t *pager) {
    line_stats_t &stats = stats_of(pager);
    const call_result_t result = *open.link.result;
    stats.calls[static_cast<size_t>(result)].add();
    if (is_reached(result)) {
        stats.answer_seconds.add(static_cast<uint64_t>(std::max(open.link.seconds, 0)));
    }
}

void tell(const open_call_t &open, const pager_t *pager, const passing_t &passing) {
    const std::string next = passing.rule.empty() ? "" : ", next is " + passing.rule;
    const int attempts = open.progress.attempts;
    LOG_AS(LEVEL_EVENT, "follow_calls", "Call %s of line %s by rule %s: %s after %d s, %d %s%s\n",
           open.call.name.c_str(), open.call.line.c_str(), open.call.rule.c_str(),
           name_of(*open.link.result), open.link.seconds, attempts,
           attempts == 1 ? "attempt" : "attempts", next.c_str());
    journal_write_outcome({open.call, name_of(*open.link.result), open.progress.attempts,
                           open.link.seconds, passing.rule, passing.outcome});
    if (pager == nullptr) {
        return;
    }
    count(open, pager);
    if (!is_reached(*open.link.result) && passing.rule.empty()) {
        note_undelivered(open, pager);
    }
}

void report_result(open_call_t *open, const pager_t *pager) {
    const bool is_good = is_reached(*open->link.result);
    open->report =
        report(pager, open->call, is_good ? pager->status_answered : pager->status_unanswered);
}

// The control station hears of the last call of a chain; nobody knows of one that is not followed.
void let_station_know(open_call_t *open, const pager_t *pager, bool is_passed_on) {
    if (pager != nullptr && !is_passed_on) {
        report_result(open, pager);
    }
    if (open->report == 0) {
        end_call(open);
        return;
    }
    followed_link_t link = open->link;
    link.is_told = true;
    rename_link(open, link);
}

void settle(open_call_t *open, const calls_t &calls, int64_t now) {
    const pager_t *pager = open->pager;
    const std::string told = open->may_be_told ? journal_outcome_of(open->call) : "";
    if (!told.empty()) {
        let_station_know(open, pager, told.find(",\"file\":") != std::string::npos);
        return;
    }
    const bool has_both = pager != nullptr && open->has_rule;
    const passing_t passing = has_both && !is_reached(*open->link.result)
                                  ? pass_on_once(open, pager, calls, now)
                                  : passing_t{};
    if (passing.is_over) {
        tell(*open, pager, passing);
        let_station_know(open, pager, passing.outcome.is_followed);
    }
}

// What an earlier process had told everybody else waits for a poll again.
void await_report(open_call_t *open, bool is_new) {
    const pager_t *pager = open->pager;
    if (is_new && pager != nullptr) {
        report_result(open, pager);
    }
    if (pager == nullptr || !is_report_waiting(open->report)) {
        end_call(open);
    }
}

void take_turn(open_call_t *open, const calls_t &calls, int64_t now) {
    read_settings(open);
    if (open->link.is_told) {
        await_report(open, open->report == 0);
        return;
    }
    if (!open->link.result) {
        look_at(open, now);
    }
    if (open->link.result) {
        settle(open, calls, now);
    }
}

void show_open_calls(const calls_t &calls) {
    std::map<const pager_t *, int> open;
    for (const open_call_t &call : calls) {
        open[call.pager] += call.link.is_told || call.is_gone ? 0 : 1;
    }
    for (const pager_t &pager : pagers) {
        stats_of(&pager).calls_open = open[&pager];
    }
}

void forget_gone(calls_t *calls) {
    const std::lock_guard held(shared.lock);
    for (const open_call_t &call : *calls) {
        if (call.is_gone) {
            shared.known.erase(call.directory + "/" + call.call.name);
        }
    }
    std::erase_if(*calls, [](const open_call_t &call) { return call.is_gone; });
}

// Waits for something to do, and takes what has been added.
void wait_for_turn(calls_t *calls) {
    std::unique_lock held(shared.lock);
    if (calls->empty()) {
        shared.has_more.wait(held, [] { return !shared.added.empty(); });
    } else {
        held.unlock();
        std::this_thread::sleep_for(PAUSE);
        held.lock();
    }
    std::move(shared.added.begin(), shared.added.end(), std::back_inserter(*calls));
    shared.added.clear();
}

void follow_calls() {
    calls_t calls;
    while (doexit == 0) {
        wait_for_turn(&calls);
        const std::lock_guard held(shared.turn);
        const int64_t now = microseconds_passed();
        for (open_call_t &call : calls) {
            take_turn(&call, calls, now);
        }
        forget_gone(&calls);
        show_open_calls(calls);
    }
}

// What was linked and not yet renamed comes into the spool directory, unless it is too old by now.
void finish(open_call_t *open, const pager_t &pager) {
    if (microseconds_passed() - open->placed_us < open->give_up * SECOND_US) {
        call_file_finish(pager.staging_dir, pager.spool_dir, open->call.name);
    }
    if (open->call.passed_on == 0) {
        report(&pager, open->call, pager.status_called);
    }
}

void take_up_call(const std::string &directory, const std::string &name, calls_t *calls) {
    open_call_t open{.directory = directory, .link = parse_link(name), .linked_as = name};
    std::string content;
    if (read_whole(open.path().c_str(), O_NOFOLLOW, MAX_CALL_FILE, &content) != 0 &&
        errno == ENOENT) {
        return;  // another process has ended it
    }
    const bool is_known = read_comments(content, &open.call);
    open.call.name = open.link.call;
    if (!is_known) {
        LOG_AS(LEVEL_ERROR, "follow_calls", "%s does not say whose call it is: it is lost\n",
               open.path().c_str());
    } else if (open.call.daemon != instance()) {
        return;
    }
    const int64_t age_ms =
        std::clamp<int64_t>(milliseconds_now() - open.call.placed_ms, 0, MAX_AGE_MS);
    open.placed_us = microseconds_passed() - age_ms * 1000;
    open.progress = progress_of(content);
    open.decided_us = microseconds_passed();
    open.may_be_told = open.link.result.has_value();
    read_settings(&open);
    if (!open.link.result && open.pager != nullptr) {
        finish(&open, *open.pager);
    }
    calls->push_back(std::move(open));
}

// A call whose outcome is decided comes before its successor.
void take_up(const pager_t &pager) {
    const std::string directory = followed_dir(pager.staging_dir);
    if (!shared.directories.insert(directory).second) {
        return;
    }
    calls_t calls;
    for (const std::string &name : names_in(directory)) {
        if (name != "." && name != "..") {
            take_up_call(directory, name, &calls);
        }
    }
    std::stable_partition(calls.begin(), calls.end(),
                          [](const open_call_t &call) { return call.link.result.has_value(); });
    add_calls(std::move(calls));
}

// The name of a call has the second in which it was made, of which an earlier process may have used the
// first numbers.
void wait_for_next_second() {
    constexpr long PAUSE_US = 10'000;
    const int second = seconds_now();
    while (seconds_now() == second) {
        pause_us(PAUSE_US);
    }
}

}  // namespace

void follow_start() noexcept {
    static bool is_started = false;
    if (std::none_of(std::begin(pagers), std::end(pagers),
                     [](const pager_t &pager) { return pager.follow_calls != 0; })) {
        return;
    }
    if (!is_started) {
        wait_for_next_second();
    }
    for (const pager_t &pager : pagers) {
        if (pager.staging_dir[0] != '\0') {
            take_up(pager);
        }
    }
    if (!is_started) {
        std::thread(follow_calls).detach();
        is_started = true;
    }
}

bool follow_between_turns(const std::function<void()> &change) noexcept {
    const std::unique_lock held(shared.turn, std::try_to_lock);
    if (held) {
        change();
    }
    return bool(held);
}

void follow_call(const pager_t *pager, const char *staging_dir, const followed_call_t &call,
                 size_t size) noexcept {
    if (call.passed_on == 0) {
        report(pager, call, pager->status_called);
    }
    calls_t calls;
    calls.push_back({.call = call,
                     .directory = followed_dir(staging_dir),
                     .link = {call.name},
                     .linked_as = call.name,
                     .placed_us = microseconds_passed(),
                     .seen_size = static_cast<off_t>(size)});
    add_calls(std::move(calls));
}
