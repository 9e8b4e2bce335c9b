#include "follow.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "action.h"
#include "callfile.h"
#include "clock.h"
#include "espa.h"
#include "files.h"
#include "instance.h"
#include "journal.h"
#include "logger.h"
#include "outcome.h"
#include "report.h"
#include "rule.h"
#include "service.h"
#include "stats.h"

namespace {

constexpr size_t MAX_CALL_FILE = 1 << 18;
constexpr size_t MAX_UNDELIVERED = 8;  // of a line
constexpr int64_t UNDELIVERED_MS = 3'600'000;
constexpr int64_t SECOND_US = 1'000'000;
constexpr std::chrono::seconds PAUSE(1);

// What an action came to that runs in a thread of its own.
struct running_t {
    std::atomic<bool> is_over = false;
    outcome_t outcome;
};

// A call on its way to its outcome.
struct open_call_t {
    followed_call_t call = {};
    std::string directory = {};  // where its link is
    followed_link_t link = {};
    int64_t placed_us = 0;  // by the monotonic clock

    off_t seen_size = -1;
    progress_t progress = {};
    int64_t decided_us = 0;
    bool may_be_told = false;  // decided by an earlier process
    std::shared_ptr<running_t> running = {};
    report_id_t report = 0;
    bool is_gone = false;

    // Of its rule, as of a load of the configuration.
    unsigned load = ~0U;
    bool has_rule = false;
    bool confirms = false;
    int give_up = 0;
    char otherwise[sizeof rule_t::otherwise] = "";

    std::string path() const { return directory + "/" + link.text(); }
    bool is_open() const { return !link.is_told && !is_gone; }
};

// What happened to the message of a call that nobody answered.
struct passing_t {
    bool is_over = true;
    bool is_done = false;  // somebody has it: a rule whose action was done
    std::string rule;
    outcome_t outcome = {};
};

// What the threads share; lives as long as any of them.
struct shared_t {
    std::mutex lock;
    std::condition_variable has_more;
    std::vector<open_call_t> added;
    std::set<std::string> known;        // directory and name of every call that is followed
    std::set<std::string> directories;  // that have been taken up
    std::vector<undelivered_t> undelivered;
};
shared_t &shared = *std::make_unique<shared_t>().release();

void add_call(open_call_t call) {
    const std::lock_guard held(shared.lock);
    if (shared.known.insert(call.directory + "/" + call.call.name).second) {
        shared.added.push_back(std::move(call));
        shared.has_more.notify_one();
    }
}

pager_t *pager_named(const std::string &name) {
    const auto found = std::find_if(
        std::begin(pagers), std::end(pagers),
        [&](const pager_t &pager) { return !name.empty() && name == table_text(pager.name).text; });
    return found != std::end(pagers) ? found : nullptr;
}

line_stats_t &stats_of(const pager_t *pager) {
    return line_stats[static_cast<size_t>(pager - pagers)];
}

// Finds the rule by its whole name, other than rule lists do, and what it says of its calls.
void read_rule(open_call_t *open) {
    const unsigned load = table_generation.number();
    if (open->load == load) {
        return;
    }
    read_tables([&] {
        open->has_rule = false;
        for (const rule_t &rule : rules) {
            if (!open->has_rule && open->call.rule == text_copy_t(rule.name).text) {
                open->has_rule = true;
                open->confirms = load_shared(rule.confirm) != 0;
                open->give_up = load_shared(rule.give_up);
                copy_text(open->otherwise, text_copy_t(rule.otherwise).text);
            }
        }
    });
    open->load = load;
}

report_id_t report(const pager_t *pager, const followed_call_t &call, const char (&status)[2]) {
    const char byte = load_shared(status[0]);
    if (byte == '\0' || call.alrm != ALARM_MESSAGE || call.address.empty() ||
        load_shared(pager->espa_address) == '\0') {
        return 0;
    }
    return espa_report(pager, compose_status(call.address, byte));
}

// What the call file says by now. Returns whether it could be read.
bool read_progress(open_call_t *open) {
    struct stat status {};
    if (lstat(open->path().c_str(), &status) != 0) {
        return false;
    }
    std::string content;
    if (status.st_size != open->seen_size &&
        read_whole(open->path().c_str(), O_NOFOLLOW, MAX_CALL_FILE, &content) == 0) {
        open->seen_size = std::ssize(content);
        open->progress = progress_of(content);
    }
    return true;
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
    unlink((spool_dir + "/" + open.call.name).c_str());
}

void rename_link(open_call_t *open, const followed_link_t &link) {
    const std::string from = open->path();
    open->link = link;
    if (rename(from.c_str(), open->path().c_str()) != 0) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "Unable to rename %s: %s\n", from.c_str(),
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
    const pager_t *pager = pager_named(open->call.line);
    read_rule(open);
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

using calls_t = std::vector<open_call_t>;

const open_call_t *successor_of(const open_call_t &open, const calls_t &calls) {
    const auto found = std::find_if(calls.begin(), calls.end(), [&](const open_call_t &other) {
        return other.call.after == open.call.name && other.directory == open.directory;
    });
    return found != calls.end() ? &*found : nullptr;
}

call_fields_t fields_of(const followed_call_t &call) {
    call_fields_t fields;
    for (size_t i = 0; i < CALL_FIELDS; i++) {
        fields.texts[i] = call.fields[i].c_str();
    }
    fields.texts[static_cast<size_t>(call_field_t::ADDRESS)] = call.address.c_str();
    return fields;
}

outcome_t act(const pager_t *pager, const followed_call_t &call, const rule_t &rule) {
    return perform_action(pager, call.alrm, call.address.c_str(), call.text.c_str(), &rule,
                          fields_of(call), {call.passed_on + 1, call.name.c_str()});
}

// A command may take as long as it likes, and other calls must not wait for it.
std::shared_ptr<running_t> run_aside(const pager_t *pager, const followed_call_t &call,
                                     const rule_t &rule) {
    auto running = std::make_shared<running_t>();
    std::thread([=] {
        running->outcome = act(pager, call, rule);
        running->is_over = true;
    }).detach();
    return running;
}

// Does the action of the rule that goes on, in several turns where it has to be waited for. A call file
// that cannot be written is tried again until the time of its rule is over.
passing_t take_next_rule(open_call_t *open, const pager_t *pager, const rule_t &rule, int64_t now) {
    passing_t passing{.rule = rule.name};
    if (rule.action == SCRIPT && !open->running) {
        open->running = run_aside(pager, open->call, rule);
    }
    if (open->running) {
        passing.is_over = open->running->is_over;
        passing.outcome = passing.is_over ? open->running->outcome : outcome_t{};
        passing.is_done = passing.is_over && passing.outcome.was_done;
    } else if (rule.action == CALL) {
        passing.outcome = act(pager, open->call, rule);
        passing.is_done = passing.outcome.was_done;
        passing.is_over = passing.is_done || now - open->decided_us >= rule.give_up * SECOND_US;
    }
    return passing;
}

passing_t pass_on(open_call_t *open, const pager_t *pager, const calls_t &calls, int64_t now) {
    if (const open_call_t *successor = successor_of(*open, calls)) {
        passing_t passing{.is_done = true, .rule = successor->call.rule};
        copy_text(passing.outcome.file, successor->call.name);
        return passing;
    }
    rule_t rule;
    if (open->otherwise[0] == '\0' || open->call.passed_on >= MAX_PASSED_ON) {
        return {};
    }
    if (!find_rule(open->otherwise, &rule)) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "otherwise of rule %s finds no rule: %s\n",
               open->call.rule.c_str(), open->otherwise);
        return {};
    }
    return take_next_rule(open, pager, rule, now);
}

void note_undelivered(const open_call_t &open, const pager_t *pager) {
    const auto line = static_cast<size_t>(pager - pagers);
    stats_of(pager).undelivered.add();
    LOG_AS(LEVEL_ERROR, "follow_calls", "Nobody answered call %s of line %s for %s\n",
           open.call.name.c_str(), open.call.line.c_str(), open.call.text.c_str());
    const std::lock_guard held(shared.lock);
    std::vector<undelivered_t> &all = shared.undelivered;
    const auto is_of_line = [&](const undelivered_t &other) { return other.line == line; };
    if (std::count_if(all.begin(), all.end(), is_of_line) == MAX_UNDELIVERED) {
        all.erase(std::find_if(all.begin(), all.end(), is_of_line));
    }
    all.push_back({line, open.call.name, open.call.text, milliseconds_now()});
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
    LOG_AS(LEVEL_EVENT, "follow_calls",
           "Call %s of line %s by rule %s: %s after %d s, %d attempts%s\n", open.call.name.c_str(),
           open.call.line.c_str(), open.call.rule.c_str(), name_of(*open.link.result),
           open.link.seconds, open.progress.attempts, next.c_str());
    journal_write_outcome({open.call, name_of(*open.link.result), open.progress.attempts,
                           open.link.seconds, passing.rule, passing.outcome});
    if (pager == nullptr) {
        return;
    }
    count(open, pager);
    if (!is_reached(*open.link.result) && !passing.is_done) {
        note_undelivered(open, pager);
    }
}

void report_result(open_call_t *open, const pager_t *pager) {
    const bool is_good = is_reached(*open->link.result);
    open->report =
        report(pager, open->call, is_good ? pager->status_answered : pager->status_unanswered);
}

void end(open_call_t *open) {
    unlink(open->path().c_str());
    open->is_gone = true;
}

// Whether the control station hears of an outcome: of one that went on as a call it hears later.
bool is_last(const open_call_t &open, const passing_t &passing) {
    return is_reached(*open.link.result) || passing.outcome.file[0] == '\0';
}

void settle(open_call_t *open, const calls_t &calls, int64_t now) {
    const pager_t *pager = pager_named(open->call.line);
    const bool has_both = pager != nullptr && open->has_rule;
    const passing_t passing = has_both && !is_reached(*open->link.result)
                                  ? pass_on(open, pager, calls, now)
                                  : passing_t{};
    if (!passing.is_over) {
        return;
    }
    if (!open->may_be_told || !journal_has_outcome(open->call.name)) {
        tell(*open, pager, passing);
    }
    if (pager != nullptr && is_last(*open, passing)) {
        report_result(open, pager);
    }
    if (open->report == 0) {
        end(open);
        return;
    }
    followed_link_t link = open->link;
    link.is_told = true;
    rename_link(open, link);
}

// What an earlier process had told everybody else waits for a poll again.
void await_report(open_call_t *open, bool is_new) {
    const pager_t *pager = pager_named(open->call.line);
    if (is_new && pager != nullptr) {
        report_result(open, pager);
    }
    if (pager == nullptr || !is_report_waiting(pager, open->report)) {
        end(open);
    }
}

void take_turn(open_call_t *open, const calls_t &calls, int64_t now) {
    if (open->link.is_told) {
        await_report(open, open->report == 0);
        return;
    }
    if (!open->link.result) {
        look_at(open, now);
    }
    if (open->link.result) {
        read_rule(open);
        settle(open, calls, now);
    }
}

void show_open_calls(const calls_t &calls) {
    std::map<const pager_t *, int> open;
    for (const open_call_t &call : calls) {
        open[pager_named(call.call.line)] += call.is_open() ? 1 : 0;
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
        const int64_t now = microseconds_passed();
        for (open_call_t &call : calls) {
            take_turn(&call, calls, now);
        }
        forget_gone(&calls);
        show_open_calls(calls);
    }
}

void take_up_call(const std::string &directory, const std::string &name, const pager_t &pager,
                  calls_t *calls) {
    const std::string path = directory + "/" + name;
    open_call_t open{.directory = directory, .link = parse_link(name)};
    std::string content;
    open.call.name = open.link.call;
    if (read_whole(path.c_str(), O_NOFOLLOW, MAX_CALL_FILE, &content) != 0 ||
        !read_comments(content, &open.call)) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "%s does not say whose call it is\n", path.c_str());
    } else if (open.call.daemon != instance()) {
        return;
    }
    const int64_t age_ms = std::max<int64_t>(milliseconds_now() - open.call.placed_ms, 0);
    open.placed_us = microseconds_passed() - age_ms * 1000;
    open.progress = progress_of(content);
    open.decided_us = microseconds_passed();
    open.may_be_told = open.link.result.has_value();
    if (!open.link.result) {
        call_file_finish(pager.staging_dir, pager.spool_dir, name);
        if (open.call.passed_on == 0) {
            report(&pager, open.call, pager.status_called);
        }
    }
    calls->push_back(std::move(open));
}

// A call whose outcome is decided comes before its successor, by which it knows that it was passed on.
void take_up(const pager_t &pager) {
    const std::string directory = followed_dir(pager.staging_dir);
    if (!shared.directories.insert(directory).second) {
        return;
    }
    calls_t calls;
    for (const std::string &name : names_in(directory)) {
        if (name != "." && name != "..") {
            take_up_call(directory, name, pager, &calls);
        }
    }
    std::stable_partition(calls.begin(), calls.end(),
                          [](const open_call_t &call) { return call.link.result.has_value(); });
    for (open_call_t &call : calls) {
        add_call(std::move(call));
    }
}

// The name of a call has the second in which it was made, of which an earlier process may have used the
// first numbers.
void wait_for_next_second() {
    const int64_t now = milliseconds_now();
    pause_us(static_cast<long>(1000 - now % 1000) * 1000);
}

}  // namespace

void follow_start() noexcept {
    static bool is_started = false;
    for (const pager_t &pager : pagers) {
        if (pager.follow_calls == 0) {
            continue;
        }
        if (!is_started) {
            wait_for_next_second();
            std::thread(follow_calls).detach();
            is_started = true;
        }
        take_up(pager);
    }
}

void follow_call(const pager_t *pager, const char *staging_dir,
                 const followed_call_t &call) noexcept {
    if (call.passed_on == 0) {
        report(pager, call, pager->status_called);
    }
    add_call({.call = call,
              .directory = followed_dir(staging_dir),
              .link = {call.name},
              .placed_us = microseconds_passed()});
}

std::vector<undelivered_t> recently_undelivered() {
    const std::lock_guard held(shared.lock);
    const int64_t now = milliseconds_now();
    std::erase_if(shared.undelivered, [&](const undelivered_t &message) {
        return now - message.at_ms >= UNDELIVERED_MS;
    });
    return shared.undelivered;
}
