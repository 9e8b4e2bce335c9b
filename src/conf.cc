#include "conf.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "callfile.h"
#include "charset.h"
#include "ini.h"
#include "instance.h"
#include "journal.h"
#include "keys.h"
#include "logger.h"
#include "re.h"
#include "roster.h"
#include "settings.h"
#include "status.h"
#include "text.h"

char *logfile;
uint8_t logtype;
uint16_t loglevel;
host_finder_t find_host = gethostbyname;

namespace {

constexpr size_t MAX_PAGER_LOOKUP = 255;  // a pager with a longer name is left without its keys
constexpr size_t MAX_READ_PAGERS = 64;    // the hosts of some may not be found
constexpr size_t SHORT_NAME_LENGTH = 8;   // of a pager's name only this much is cleared on a reload

// One section's typed look-ups, with what the table of keys says for absent ones. A look-up text that
// is cut can come out as the name of a section, which has no value; such keys are absent.
template <section_kind_t KIND>
class section_t {
  public:
    // max_lookup  where a look-up text is cut
    section_t(const dictionary *dict, const char *name,
              size_t max_lookup = std::string::npos) noexcept
        : dict_(dict), prefix_(std::string(name) + ":"), max_lookup_(max_lookup) {}

    const char *text(known_key_t<KIND> known) const {
        const char *found = iniparser_getstr(dict_, entry(known).c_str());
        return found != nullptr ? found : absent_text(*known.key);
    }
    int integer(known_key_t<KIND> known) const { return number(known, iniparser_getint); }
    // Decided by the first character: 1, y, t or 0, n, f in either case; else as if absent.
    int boolean(known_key_t<KIND> known) const { return number(known, iniparser_getboolean); }

  private:
    std::string entry(known_key_t<KIND> known) const {
        return (prefix_ + known.key->name).substr(0, max_lookup_);
    }
    int number(known_key_t<KIND> known, int (*get)(const dictionary *, const char *, int)) const {
        const std::string name = entry(known);
        const int absent = known.key->number;
        return iniparser_getstr(dict_, name.c_str()) != nullptr ? get(dict_, name.c_str(), absent)
                                                                : absent;
    }

    const dictionary *dict_;
    std::string prefix_;
    size_t max_lookup_;
};

template <size_t N>
void copy_if_present(char (&field)[N], const char *text) {
    if (text != nullptr) {
        copy_text(field, text);
    }
}

// The name goes over the old one without a terminating zero, and only the first eight characters
// were cleared: a name shorter than the one before it runs on into its rest.
void rename_pager(pager_t *pager, std::string_view name) {
    memset(pager->name, 0, SHORT_NAME_LENGTH);
    memcpy(pager->name, name.data(), std::min(name.size(), sizeof pager->name - 1));
}

// Logs on behalf of load_pager(). Returns the name of a character set if it can be converted from,
// else an empty one.
const char *known_charset(const char *name) {
    if (charset_t().open(name)) {
        return name;
    }
    LOG_AS(LEVEL_ERROR, "load_pager", "Unknown charset %s, messages are not converted\n", name);
    return "";
}

// Logs on behalf of load_pager().
void load_station(int address, int control, pager_t *pager) {
    pager->espa_address = espa_digit(address);
    pager->espa_control = espa_digit(control);
    if (pager->protocol == PROTOCOL_ASCII) {
        pager->espa_address = '\0';
    } else if (address != NO_STATION &&
               (pager->espa_address == '\0' || pager->espa_control == '\0')) {
        LOG_AS(LEVEL_ERROR, "load_pager",
               "espa_address and espa_control take a digit, not %d and %d\n", address, control);
        pager->espa_address = '\0';
    }
}

// Logs on behalf of load_pager().
void load_listening(int listens, const char *address, pager_t *pager) {
    pager->listen = listens;
    in_addr on{};
    if (listens != 0 && address[0] != '\0' && inet_pton(AF_INET, address, &on) != 1) {
        LOG_AS(LEVEL_ERROR, "load_pager",
               "listen_address takes an IPv4 address, not %s: listening on all\n", address);
    }
    pager->listen_address = on.s_addr;
    if (listens != 0) {
        pager->recover_link = 1;  // who connects by itself comes back in the same way
    }
}

// Logs on behalf of load_pager().
void load_following(int follows, pager_t *pager) {
    pager->follow_calls = follows;
    if (follows != 0 && (pager->staging_dir[0] == '\0' ||
                         are_on_different_disks(pager->staging_dir, pager->spool_dir))) {
        LOG_AS(LEVEL_ERROR, "load_pager",
               "follow_calls needs a staging_dir on the file system of spool_dir: calls are not "
               "followed\n");
        pager->follow_calls = 0;
    }
}

// Logs on behalf of load_pager(). Returns false when the host does not resolve.
bool resolve_host(pager_t *pager) {
    const std::optional<addresses_t> found = addresses_of(find_host(pager->host));
    if (!found) {
        LOG_AS(LEVEL_ERROR, "load_pager", "Unable to find host %s\n", pager->host);
        return false;
    }
    settings_set_addresses(pager, *found);
    return true;
}

void load_conditions(const section_t<section_kind_t::RULE> &keys, rule_t *rule) {
    const char *const texts[CALL_FIELDS] = {keys.text("match_address"), keys.text("match_priority"),
                                            keys.text("match_type"), keys.text("match_beep"),
                                            keys.text("match_transmissions")};
    for (size_t i = 0; i < CALL_FIELDS; i++) {
        if (texts[i] != nullptr) {
            rule->conditions[i].is_given = 1;
            compile_regex(&rule->conditions[i].pattern, texts[i]);
        }
    }
}

// Logs on behalf of load_rule().
void load_values(const dictionary *dict, const char *section, rule_t *rule) {
    const std::string prefix = std::string(section) + ":" + VALUE_KEY_PREFIX.data();
    const char *key = nullptr;
    const char *text = nullptr;
    int cursor = 0;
    for (value_t &value : rule->values) {
        cursor = iniparser_get_next_kv(dict, prefix.c_str(), cursor, &key, &text);
        if (cursor < 1) {
            return;
        }
        copy_text(value.name, value_name(key));
        compile_regex(&value.pattern, text);
    }
    LOG_AS(LEVEL_NOTICE, "load_rule", "Max values per rule reached for rule %s\n", section);
}

void start_logging(const dictionary *dict) {
    logger_init(logfile, loglevel, logtype == 1, 0);
    const section_t<section_kind_t::LOGGER> logger(dict, "logger");
    logger_escape(logger.boolean("log_escape") != 0);
    status_init(logger.text("status_file"));
    journal_init(logger.text("journal_file"));
    roster_live(logger.boolean("live_reload") != 0);
}

// The records of a load, made aside: the tables stay in use until all of it is replaced.
struct staged_t {
    std::vector<pager_t> pagers;
    std::vector<rule_t> rules;
    bool slot_0_emptied =
        false;  // by a first pager that failed; else a reload merges into the slot
};

// Logs on behalf of load_conf().
void stage_pager(const dictionary *dict, const char *name, staged_t *staged) {
    const bool merges = staged->pagers.empty() && !staged->slot_0_emptied;
    pager_t &pager = staged->pagers.emplace_back();
    if (merges) {
        copy_shared(&pager, pagers[0]);
    }
    if (load_pager(dict, name, &pager) != 0) {
        LOG_AS(LEVEL_ERROR, "load_conf", "Error loading pager %s\n", name);
        status_load_failed();
        staged->pagers.pop_back();
        staged->slot_0_emptied = staged->slot_0_emptied || merges;
    }
}

// Logs on behalf of load_conf().
void stage_rule(const dictionary *dict, const char *name, staged_t *staged) {
    if (load_rule(dict, name, &staged->rules.emplace_back()) != 0) {
        LOG_AS(LEVEL_ERROR, "load_conf", "Unable to load rule %s\n", name);
        staged->rules.pop_back();
    }
}

// Hands the sections that a load is about on in file order, each with a dictionary of its own, until
// `take` says that there is enough.
//   take  called with the dictionary, the name and the kind of a section
template <typename taker_t>
void visit_sections(const dictionary *dict, taker_t take) {
    for (const ini_section_t &section : ini_sections(dict)) {
        const section_kind_t kind = section_kind(section.name);
        if (kind != section_kind_t::RULE && kind != section_kind_t::PAGER) {
            continue;
        }
        const unique_dictionary_t own = ini_section_alone(dict, section);
        if (!take(own.get(), section.name, kind)) {
            return;
        }
    }
}

// Stages the sections in file order until one of the tables is full.
staged_t stage_sections(const dictionary *dict) {
    staged_t staged;
    staged.pagers.reserve(MAX_PAGERS);  // growing would hold the records twice
    staged.rules.reserve(MAX_RULES);
    visit_sections(dict, [&](const dictionary *own, const char *name, section_kind_t kind) {
        if (kind == section_kind_t::RULE) {
            stage_rule(own, name, &staged);
        } else {
            stage_pager(own, name, &staged);
        }
        return staged.pagers.size() < MAX_PAGERS && staged.rules.size() < MAX_RULES;
    });
    return staged;
}

// Copies the staged records over a table from slot `first` on and empties the slot behind them,
// unless nothing was staged for the table at all.
template <typename record_t, size_t SIZE>
void store_records(record_t (&table)[SIZE], const std::vector<record_t> &staged, size_t first,
                   bool slot_0_emptied) {
    for (size_t i = first; i < staged.size(); i++) {
        copy_shared(&table[i], staged[i]);
    }
    if (staged.size() < SIZE && (!staged.empty() || slot_0_emptied)) {
        copy_shared(&table[staged.size()], record_t{});
    }
}

// A line that is gone would keep its port, which another one may have by now.
void stop_listening_behind(size_t count) {
    for (size_t i = count; i < MAX_PAGERS; i++) {
        if (pagers[i].listen != 0) {
            copy_shared(&pagers[i], pager_t{});
        }
    }
}

// Rewrites the tables. A table without a count: what an earlier, longer load put behind the emptied
// slot stays there and is found by name.
void publish(const staged_t &staged) {
    const bool merges = !staged.pagers.empty() && !staged.slot_0_emptied;
    const auto renumber = [] {
        for (pager_t &pager : pagers) {
            settings_renumber(&pager);
        }
    };
    table_generation.begin_writing();
    renumber();  // before anybody can connect in the new way and take it for the old one
    store_records(rules, staged.rules, 0, false);
    if (merges) {
        settings_store(&pagers[0], staged.pagers[0]);
        settings_reconnect(&pagers[0], staged.pagers[0].protocol);
    }
    store_records(pagers, staged.pagers, merges ? 1 : 0, staged.slot_0_emptied);
    if (!staged.pagers.empty() || staged.slot_0_emptied) {
        stop_listening_behind(staged.pagers.size());
    }
    num_pagers = static_cast<int>(staged.pagers.size());
    renumber();  // the records that were replaced
    table_generation.end_writing();
}

// Names are cut, and so two can come out as one.
void read_pager(const dictionary *dict, const char *name, read_conf_t *conf) {
    pager_t fresh{};
    load_pager_settings(dict, name, &fresh);
    const bool is_known =
        std::any_of(conf->pagers.begin(), conf->pagers.end(),
                    [&](const pager_t &other) { return strcmp(other.name, fresh.name) == 0; });
    if (is_known) {
        LOG_AS(LEVEL_ERROR, "read_conf", "There is a pager %s already\n", fresh.name);
        conf->is_whole = false;
    } else {
        conf->pagers.push_back(fresh);
    }
}

}  // namespace

int load_conf(const char *path) noexcept {
    init_defaults();
    const unique_dictionary_t dict(ini_load(path));
    if (!dict) {
        return -1;
    }
    apply_logger_settings(dict.get());
    load_tables(dict.get());
    return 0;
}

void load_logger_settings(const dictionary *dict) noexcept {
    const section_t<section_kind_t::LOGGER> logger(dict, "logger");
    logtype = is_syslog(logger.text("log_type")) ? 1 : 0;
    loglevel = static_cast<uint16_t>(logger.integer("log_level"));
    free(logfile);
    logfile = strdup(logger.text("log_file"));
}

void apply_logger_settings(const dictionary *dict) noexcept {
    load_logger_settings(dict);
    start_logging(dict);
}

read_conf_t read_conf(const char *path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        return {};  // whoever opens a FIFO waits
    }
    read_conf_t conf{unique_dictionary_t(ini_load(path))};
    if (!conf.dict) {
        return conf;
    }
    begin_patterns();
    visit_sections(conf.dict.get(),
                   [&](const dictionary *own, const char *name, section_kind_t kind) {
                       if (kind == section_kind_t::RULE) {
                           load_rule(own, name, &conf.rules.emplace_back());
                           conf.lines_before.push_back(conf.pagers.size());
                       } else {
                           read_pager(own, name, &conf);
                       }
                       return conf.pagers.size() < MAX_READ_PAGERS && conf.rules.size() < MAX_RULES;
                   });
    return conf;
}

void load_tables(const dictionary *dict) noexcept {
    begin_patterns();
    publish(stage_sections(dict));
}

int load_pager(const dictionary *dict, const char *section, pager_t *pager) noexcept {
    pager_t fresh = *pager;
    load_pager_settings(dict, section, &fresh);
    if (!resolve_host(&fresh)) {
        return -1;
    }
    settings_store(pager, fresh);
    settings_reconnect(pager, fresh.protocol);
    return 0;
}

void load_pager_settings(const dictionary *dict, const char *section, pager_t *pager) noexcept {
    const section_t<section_kind_t::PAGER> keys(dict, section, MAX_PAGER_LOOKUP);
    pager_t &fresh = *pager;
    rename_pager(&fresh, section);
    copy_if_present(fresh.host, keys.text("host"));
    fresh.port = static_cast<int16_t>(keys.integer("port"));
    fresh.no_check_bcc = keys.boolean("no_check_bcc");
    copy_if_present(fresh.callscript, keys.text("callscript"));
    copy_text(fresh.spool_dir, keys.text("spool_dir"));
    fresh.protocol = parse_protocol(keys.text("protocol"));
    copy_if_present(fresh.default_rule, keys.text("default_rule"));
    copy_if_present(fresh.rules, keys.text("rules"));
    fresh.espa_poll = keys.boolean("espa_poll");
    fresh.send_service_actions = keys.boolean("send_service_actions");
    fresh.read_timeout = keys.boolean("read_timeout");
    fresh.recover_link = keys.boolean("recover_link");
    fresh.ack_when_done = keys.boolean("ack_when_done");
    copy_text(fresh.staging_dir, keys.text("staging_dir"));
    copy_text(fresh.charset, known_charset(keys.text("charset")));
    load_station(keys.integer("espa_address"), keys.integer("espa_control"), &fresh);
    load_listening(keys.boolean("listen"), keys.text("listen_address"), &fresh);
    load_following(keys.boolean("follow_calls"), &fresh);
    copy_text(fresh.status_called, keys.text("status_called"));
    copy_text(fresh.status_answered, keys.text("status_answered"));
    copy_text(fresh.status_unanswered, keys.text("status_unanswered"));
    fresh.configured_protocol = fresh.protocol;
}

int load_rule(const dictionary *dict, const char *section, rule_t *rule) noexcept {
    const section_t<section_kind_t::RULE> keys(dict, section);
    rule_t fresh{};
    copy_text(fresh.name, section);
    load_values(dict, section, &fresh);
    copy_text(fresh.context, keys.text("context"));
    copy_text(fresh.channel, keys.text("channel"));
    copy_text(fresh.extension, keys.text("extension"));
    copy_text(fresh.callerid, keys.text("callerid"));
    fresh.action = parse_action(keys.text("action"));
    if (fresh.action == SCRIPT) {
        copy_text(fresh.callscript, keys.text("callscript"));
    }
    compile_regex(&fresh.pattern, keys.text("pattern"));
    fresh.quote = keys.boolean("quote");
    fresh.ack_when_run = keys.boolean("ack_when_run");
    load_conditions(keys, &fresh);
    fresh.record_fields = keys.boolean("record_fields");
    fresh.wait_time = keys.integer("wait_time");
    fresh.max_retries = keys.integer("max_retries");
    fresh.retry_time = keys.integer("retry_time");
    fresh.confirm = keys.boolean("confirm");
    fresh.give_up = keys.integer("give_up");
    copy_text(fresh.otherwise, keys.text("otherwise"));
    *rule = fresh;
    return 0;
}

void init_defaults() noexcept {
    logtype = 0;
    logfile = strdup(DEFAULT_LOG_FILE);
    loglevel = DEFAULT_LOG_LEVEL;
}

void free_confvals() noexcept {
    free(logfile);
}
