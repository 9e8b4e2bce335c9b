#include "live.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "callfile.h"
#include "clock.h"
#include "conf.h"
#include "follow.h"
#include "logger.h"
#include "lookup.h"
#include "notify.h"
#include "report.h"
#include "roster.h"
#include "rule.h"
#include "service.h"
#include "settings.h"
#include "sig.h"
#include "stats.h"
#include "status.h"
#include "undelivered.h"
#include "wake.h"

namespace {

constexpr long PAUSE_US = 1'000'000;
constexpr int64_t NO_THREAD_PAUSE_US = 10'000'000;
constexpr int64_t LONGEST_READING_US = 60'000'000;

// A line that cannot be as the file says yet.
struct late_t {
    pager_t fresh;
    bool has_addresses;
    int64_t no_thread_us = 0;  // when it got none
};

// A file that is being read.
struct reading_t {
    int64_t since_us = microseconds_passed();
    std::atomic<bool> is_done = false;
    read_conf_t conf = {};
};

struct live_t {
    std::string path;
    std::shared_ptr<reading_t> reading = {};
    bool is_asked_again = false;
    std::optional<read_conf_t> held = {};  // a file of which every line waits for its host
    std::vector<late_t> late = {};
    bool has_changed_lines = false;  // ever
};
live_t &live = *std::make_unique<live_t>().release();  // a file may be read when the process ends

// What a load comes to, in words.
class summary_t {
  public:
    void add(const std::string &words) { text_ += (text_.empty() ? "" : ", ") + words; }
    void add_count(size_t count, const std::string &what) {
        if (count > 0) {
            add(std::to_string(count) + " " + what);
        }
    }
    const std::string &text() const { return text_; }

  private:
    std::string text_;
};

void log_change(const std::string &words) {
    LOG_AS(LEVEL_EVENT, "live_load", "%s\n", words.c_str());
}

template <typename rewriter_t>
void rewrite_tables(rewriter_t rewrite) {
    table_generation.begin_writing();
    rewrite();
    table_generation.end_writing();
}

// The served line of a name; null: none.
pager_t *served_line(const char *name) {
    for (pager_t &pager : pagers) {
        if (roster_serves(&pager) && strcmp(pager.name, name) == 0) {
            return &pager;
        }
    }
    return nullptr;
}

pager_t *free_slot() {
    pager_t *slot = std::find_if(std::begin(pagers), std::end(pagers),
                                 [](const pager_t &pager) { return roster_is_free(&pager); });
    return slot != std::end(pagers) ? slot : nullptr;
}

// The addresses of a host: those that a served line has for it, else what is known by now.
host_answer_t addresses_for(const pager_t &fresh) {
    const pager_t *before = served_line(fresh.name);
    for (const pager_t &pager : pagers) {
        const bool is_at_it =
            roster_serves(&pager) && fresh.host[0] != '\0' && strcmp(pager.host, fresh.host) == 0;
        if (is_at_it &&
            (before == nullptr || before == &pager || strcmp(before->host, fresh.host) != 0)) {
            return {host_state_t::FOUND, settings_addresses(pager)};
        }
    }
    return lookup_ask(fresh.host);
}

// -------------------------------------------------------------------------------------------------
// A line of the file

void report_not_found(const pager_t &fresh, bool is_served) {
    LOG_AS(LEVEL_ERROR, "live_load", "Unable to find host %s: line %s %s\n", fresh.host, fresh.name,
           is_served ? "stays where it was" : "is not served");
    status_load_failed();
}

// Changes a served line. Within a rewriting of the tables. Returns what was changed, empty for nothing.
std::string change_line(pager_t *line, const pager_t &fresh) {
    if (settings_are_same(*line, fresh)) {
        return "";
    }
    const std::string moved = settings_moved(*line, fresh);
    settings_store(line, fresh);
    if (!moved.empty()) {
        settings_renumber(line);
        settings_reconnect(line, fresh.configured_protocol);
    }
    roster_call(line);
    return line->name + (": " + (moved.empty() ? std::string("changed") : moved));
}

// Whether a line that is gone, and not over yet, has what a new one needs.
bool is_in_the_way(const pager_t &old, const pager_t &fresh) {
    const bool is_leaving = !roster_is_free(&old) && !roster_serves(&old);
    const bool has_port = old.listen != 0 && fresh.listen != 0 && old.port == fresh.port;
    return is_leaving && (has_port || strcmp(old.name, fresh.name) == 0);
}

// Serves a new line. Returns whether it is served now.
bool add_line(late_t *late) {
    pager_t *slot = free_slot();
    const int64_t now = microseconds_passed();
    const bool has_failed = late->no_thread_us != 0;
    if (slot == nullptr || (has_failed && now - late->no_thread_us < NO_THREAD_PAUSE_US) ||
        std::any_of(std::begin(pagers), std::end(pagers),
                    [&](const pager_t &old) { return is_in_the_way(old, late->fresh); })) {
        return false;
    }
    late->fresh.socket = -1;
    rewrite_tables([&] {
        copy_shared(slot, late->fresh);
        settings_renumber(slot);
    });
    follow_start();  // before what an earlier process has left is removed
    if (slot->staging_dir[0] != '\0') {
        call_file_clean(slot->staging_dir);
    }
    if (roster_start(slot, service_proc)) {
        return true;
    }
    if (!has_failed) {
        LOG_AS(LEVEL_ERROR, "live_load", "No thread for line %s yet\n", slot->name);
    }
    late->no_thread_us = now;
    stats_hide(slot);
    rewrite_tables([&] { copy_shared(slot, pager_t{}); });
    return false;
}

// -------------------------------------------------------------------------------------------------
// A file

void report_failure(const char *what) {
    LOG_AS(LEVEL_ERROR, "live_load", "%s %s. Going on with what is loaded\n", what,
           live.path.c_str());
    status_load_failed();
}

// What the addresses of a file's lines are by now, in the order of the lines.
std::vector<host_state_t> find_hosts(std::vector<pager_t> *fresh) {
    std::vector<host_state_t> states;
    for (pager_t &pager : *fresh) {
        const host_answer_t answer = addresses_for(pager);
        states.push_back(answer.state);
        if (answer.state == host_state_t::FOUND) {
            settings_set_addresses(&pager, answer.addresses);
        }
    }
    return states;
}

// Whether a line stays or can come; undecided while that depends on hosts that are being asked for.
std::optional<bool> has_lines(const std::vector<pager_t> &fresh,
                              const std::vector<host_state_t> &states) {
    bool is_decided = true;
    for (size_t i = 0; i < fresh.size(); i++) {
        if (states[i] == host_state_t::FOUND || served_line(fresh[i].name) != nullptr) {
            return true;
        }
        is_decided = is_decided && states[i] != host_state_t::ASKED;
    }
    return is_decided ? std::optional(false) : std::nullopt;
}

const rule_t *rule_of(const std::vector<rule_t> &all, const char *name) {
    const auto found = std::find_if(
        all.begin(), all.end(), [&](const rule_t &rule) { return strcmp(rule.name, name) == 0; });
    return found != all.end() ? &*found : nullptr;
}

// Within a rewriting of the tables. Returns what was changed.
std::string replace_rules(const std::vector<rule_t> &fresh) {
    std::vector<rule_t> before;
    std::copy_if(std::begin(rules), std::end(rules), std::back_inserter(before),
                 [](const rule_t &rule) { return rule.name[0] != '\0'; });
    size_t same = 0;
    size_t added = 0;
    for (const rule_t &rule : fresh) {
        const rule_t *old = rule_of(before, rule.name);
        added += old == nullptr ? 1 : 0;
        same += old != nullptr && *old == rule ? 1 : 0;
    }
    for (size_t i = 0; i < std::size(rules); i++) {
        if (i < fresh.size()) {
            copy_shared(&rules[i], fresh[i]);
        } else if (rules[i].name[0] != '\0') {
            copy_shared(&rules[i], rule_t{});
        }
    }
    const auto gone = std::count_if(before.begin(), before.end(), [&](const rule_t &rule) {
        return rule_of(fresh, rule.name) == nullptr;
    });
    summary_t summary;
    summary.add_count(same, "as they were");
    summary.add_count(fresh.size() - same - added, "changed");
    summary.add_count(added, "added");
    summary.add_count(static_cast<size_t>(gone), "gone");
    return "rules: " + (summary.text().empty() ? "none" : summary.text());
}

// As the file says but for its place, which is not known yet.
pager_t where_it_was(const pager_t &fresh, const pager_t &line) {
    pager_t settings = fresh;
    copy_text(settings.host, line.host);
    settings.port = line.port;
    settings_set_addresses(&settings, settings_addresses(line));
    return settings;
}

// What a file changes, in words.
struct changes_t {
    size_t same_lines = 0;
    std::vector<std::string> lines = {};
    std::string rules = {};

    std::string text() const {
        summary_t summary;
        summary.add_count(same_lines, same_lines == 1 ? "line as it was" : "lines as they were");
        for (const std::string &line : lines) {
            summary.add(line);
        }
        summary.add(rules);
        return summary.text();
    }
};

// Changes what is served by now. Within a rewriting of the tables.
void change_lines(const std::vector<pager_t> &fresh, const std::vector<host_state_t> &states,
                  changes_t *changes) {
    for (size_t i = 0; i < fresh.size(); i++) {
        pager_t *line = served_line(fresh[i].name);
        if (line == nullptr) {
            continue;
        }
        const bool is_found = states[i] == host_state_t::FOUND;
        const std::string change =
            change_line(line, is_found ? fresh[i] : where_it_was(fresh[i], *line));
        changes->same_lines += change.empty() && is_found ? 1 : 0;
        if (!change.empty()) {
            changes->lines.push_back(change);
        }
    }
}

parting_rules_t parting_rules_of(const pager_t &pager) {
    parting_rules_t parting;
    text_copy_t list(pager.rules);
    visit_rule_list(list.text, [&](const char * /*name*/, const rule_t *rule) {
        if (rule != nullptr) {
            parting.listed.push_back(*rule);
        }
    });
    const rule_t *fallback = get_rule_by_name(pager.default_rule);
    if (fallback != nullptr) {
        parting.fallback = *fallback;
    }
    return parting;
}

// To be called while the table has the rules of these lines still.
std::vector<std::string> dismiss_lines(const std::vector<pager_t> &fresh) {
    std::vector<std::string> gone;
    for (const pager_t &pager : pagers) {
        const bool is_in_file = std::any_of(fresh.begin(), fresh.end(), [&](const pager_t &other) {
            return strcmp(other.name, pager.name) == 0;
        });
        // A load of the other kind can leave a second one of a name behind, or one without.
        if (roster_serves(&pager) && (!is_in_file || served_line(pager.name) != &pager)) {
            roster_dismiss(&pager, parting_rules_of(pager));
            if (pager.name[0] != '\0') {
                gone.push_back(std::string(pager.name) + " gone");
            }
        }
    }
    return gone;
}

// What has to come yet, of which new lines come at once if they can.
void add_lines(const std::vector<pager_t> &fresh, const std::vector<host_state_t> &states,
               changes_t *changes) {
    std::vector<std::string> added;
    for (size_t i = 0; i < fresh.size(); i++) {
        const bool is_served = served_line(fresh[i].name) != nullptr;
        late_t late{fresh[i], states[i] == host_state_t::FOUND};
        if (states[i] == host_state_t::NOT_FOUND) {
            report_not_found(fresh[i], is_served);
        } else if (!late.has_addresses) {
            added.push_back(std::string(fresh[i].name) + ": host is being looked for");
            live.late.push_back(late);
        } else if (!is_served && add_line(&late)) {
            added.push_back(std::string(fresh[i].name) + " added");
        } else if (!is_served) {
            added.push_back(std::string(fresh[i].name) + " waits for its turn");
            live.late.push_back(late);
        }
    }
    changes->lines.insert(changes->lines.begin(), added.begin(), added.end());
}

// The sixteenth line that can be served is the last of a file, and so it ends the rules.
void drop_what_is_too_much(read_conf_t *conf, std::vector<host_state_t> *states) {
    size_t count = 0;
    size_t last = 0;
    for (; last < conf->pagers.size() && count < MAX_PAGERS; last++) {
        const bool is_served = served_line(conf->pagers[last].name) != nullptr;
        count += is_served || (*states)[last] == host_state_t::FOUND ? 1 : 0;
    }
    if (count < MAX_PAGERS) {
        return;
    }
    conf->pagers.resize(last);
    states->resize(last);
    const auto first_behind =
        std::find_if(conf->lines_before.begin(), conf->lines_before.end(),
                     [&](size_t lines_before) { return lines_before >= last; });
    conf->rules.resize(static_cast<size_t>(first_behind - conf->lines_before.begin()));
}

// Returns whether it was applied; when not, it was refused or is kept for later.
bool apply(read_conf_t conf) {
    if (!conf.dict) {
        report_failure("Unable to open configuration file");
        return false;
    }
    std::vector<host_state_t> states = find_hosts(&conf.pagers);
    drop_what_is_too_much(&conf, &states);
    const std::optional<bool> can_serve = has_lines(conf.pagers, states);
    if (!can_serve) {
        live.held = std::move(conf);
        return false;
    }
    if (!*can_serve) {
        report_failure("No line is left in configuration file");
        return false;
    }
    apply_logger_settings(conf.dict.get());
    if (!conf.is_whole) {
        status_load_failed();
    }
    changes_t changes;
    rewrite_tables([&] {
        const std::vector<std::string> gone = dismiss_lines(conf.pagers);
        changes.rules = replace_rules(conf.rules);
        change_lines(conf.pagers, states, &changes);
        changes.lines.insert(changes.lines.end(), gone.begin(), gone.end());
    });
    live.has_changed_lines = true;
    add_lines(conf.pagers, states, &changes);
    log_change(changes.text());
    return true;
}

// -------------------------------------------------------------------------------------------------
// What is late

// Returns whether the line is as the file says now, or never will be.
bool settle(late_t *late) {
    pager_t *line = served_line(late->fresh.name);
    if (!late->has_addresses) {
        const host_answer_t answer = lookup_ask(late->fresh.host);
        if (answer.state == host_state_t::NOT_FOUND) {
            report_not_found(late->fresh, line != nullptr);
        }
        if (answer.state != host_state_t::FOUND) {
            return answer.state == host_state_t::NOT_FOUND;
        }
        settings_set_addresses(&late->fresh, answer.addresses);
        late->has_addresses = true;
    }
    if (line == nullptr) {
        const bool is_added = add_line(late);
        if (is_added) {
            log_change(std::string(late->fresh.name) + " added");
        }
        return is_added;
    }
    std::string change;
    rewrite_tables([&] { change = change_line(line, late->fresh); });
    if (!change.empty()) {
        log_change(change);
    }
    return true;
}

bool settle_late() {
    const size_t before = live.late.size();
    std::erase_if(live.late, [](late_t &late) { return settle(&late); });
    return live.late.size() != before;
}

// A slot's line is gone.
void empty_slot(pager_t *pager) {
    stats_end(pager);
    drop_reports(pager);
    forget_undelivered(static_cast<size_t>(pager - pagers));
    rewrite_tables([&] {
        copy_shared(pager, pager_t{});
        settings_renumber(pager);
    });
}

void begin_reading() {
    const auto reading = std::make_shared<reading_t>();
    try {
        std::thread([reading, path = live.path] {
            reading->conf = read_conf(path.c_str());
            reading->is_done = true;
            wake();
        }).detach();
    } catch (const std::system_error &) {
        live.is_asked_again = true;  // no thread to be had now
        return;
    }
    notify_reloading();
    lookup_forget();
    live.is_asked_again = false;
    live.reading = reading;
}

}  // namespace

void live_load(const char *path) noexcept {
    if (live.reading != nullptr) {
        live.is_asked_again = true;
        if (microseconds_passed() - live.reading->since_us > LONGEST_READING_US) {
            report_failure("Still reading configuration file");
        }
        return;
    }
    live.path = path;
    begin_reading();
}

bool live_update() noexcept {
    bool has_changed = false;
    if (live.reading != nullptr && live.reading->is_done) {
        live.late.clear();
        live.held.reset();
        has_changed = apply(std::move(std::exchange(live.reading, nullptr)->conf));
        notify(READY);
    } else if (live.held) {
        has_changed = apply(*std::exchange(live.held, std::nullopt));
    }
    if (live.is_asked_again && live.reading == nullptr) {
        live.is_asked_again = false;
        if (roster_is_live()) {
            begin_reading();
        } else {
            signal_raise(SIGHUP);  // the key is turned off: this one is of the other kind
        }
    }
    if (!live.has_changed_lines) {
        return has_changed;
    }
    follow_between_turns([] { roster_clear(empty_slot); });
    return settle_late() || has_changed;
}

void live_pause() noexcept {
    if (roster_is_live() && wake_init()) {
        notify_alive();
        wake_wait(std::min(PAUSE_US, sign_of_life_every_us()));
    } else {
        pause_alive_us(PAUSE_US);
    }
}

void live_forget() noexcept {
    live.late.clear();
    live.held.reset();
    roster_keep_all();
}

void live_serve_all() noexcept {
    if (!live.has_changed_lines) {
        return;
    }
    for (int i = 0; i < MAX_PAGERS; i++) {
        if (i < num_pagers && roster_is_free(&pagers[i])) {
            roster_start(&pagers[i], service_proc);
        } else if (i >= num_pagers && roster_serves(&pagers[i])) {
            roster_dismiss(&pagers[i], parting_rules_of(pagers[i]));
        }
    }
}
