#include "conf.h"

#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "ini.h"
#include "logger.h"
#include "re.h"
#include "text.h"

pager_t pagers[MAX_PAGERS];
int num_pagers;
rule_t rules[MAX_RULES];
char *logfile;
uint8_t logtype;
uint16_t loglevel;

namespace {

constexpr const char *DEFAULT_LOG_FILE = "/var/log/quillet.log";
constexpr int DEFAULT_LOG_LEVEL = 5;
constexpr int DEFAULT_PORT = 2233;
constexpr int DEFAULT_READ_TIMEOUT = 30;
constexpr const char *DEFAULT_SPOOL_DIR = "/tmp/";
constexpr const char *DEFAULT_CALLSCRIPT =
    "/usr/share/quillet/mkcall.sh %espa_if% %alarm% %number% %message%";
constexpr const char *DEFAULT_CALLERID = "\"%number%\" <%number%>";
constexpr const char *DEFAULT_CONTEXT = "alarm";
constexpr const char *DEFAULT_EXTENSION = "s";
constexpr const char *DEFAULT_CHANNEL = "Local/1234@users";
constexpr const char *DEFAULT_PATTERN = ".*";

constexpr int LOOKUP_SIZE = 256;
constexpr size_t SHORT_NAME_LENGTH = 8;  // of a pager's name only this much is cleared on a reload

struct dictionary_releaser_t {
    void operator()(dictionary *dict) const noexcept { iniparser_freedict(dict); }
};

// One section's typed look-ups. The look-up text is cut at 255 characters, so the keys of a section
// with a longer name are absent.
class section_t {
  public:
    section_t(const dictionary *dict, const char *name) noexcept : dict_(dict), name_(name) {}

    const char *text(const char *key, const char *absent = nullptr) const {
        const char *found = iniparser_getstr(dict_, entry(key).c_str());
        return found != nullptr ? found : absent;
    }
    int integer(const char *key, int absent) const {
        return text(key) != nullptr ? iniparser_getint(dict_, entry(key).c_str(), absent) : absent;
    }
    // Decided by the first character: 1, y, t or 0, n, f in either case; anything else counts as
    // absent.
    int boolean(const char *key, int absent) const {
        return text(key) != nullptr ? iniparser_getboolean(dict_, entry(key).c_str(), absent)
                                    : absent;
    }

  private:
    std::string entry(const char *key) const {
        return (std::string(name_) + ":" + key).substr(0, LOOKUP_SIZE - 1);
    }

    const dictionary *dict_;
    const char *name_;
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

// Any beginning of "ascii", the empty text included, selects ASCII lines.
int parse_protocol(const char *text) {
    constexpr std::string_view ASCII = "ascii";
    return text != nullptr && ASCII.starts_with(text) ? PROTOCOL_ASCII : PROTOCOL_ESPA;
}

int parse_action(std::string_view text) {
    if (text.starts_with("call")) {
        return CALL;
    }
    return text.starts_with("script") ? SCRIPT : SKIP;
}

// Logs on behalf of load_pager(). Returns false when the host does not resolve.
bool resolve_host(pager_t *pager) {
    const hostent *host = gethostbyname(pager->host);
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) {
        LOG_AS(LEVEL_ERROR, "load_pager", "Unable to find host %s\n", pager->host);
        return false;
    }
    pager->sin = {};
    pager->sin.sin_family = AF_INET;
    pager->sin.sin_port = htons(static_cast<uint16_t>(pager->port));
    memcpy(&pager->sin.sin_addr, host->h_addr_list[0], sizeof pager->sin.sin_addr);
    return true;
}

// Copies what loading sets and nothing of what the service thread keeps. The socket comes last: the
// thread connects again once everything else is in place.
void store_settings(pager_t *pager, const pager_t &fresh) {
    memcpy(pager->name, fresh.name, sizeof pager->name);
    memcpy(pager->host, fresh.host, sizeof pager->host);
    pager->port = fresh.port;
    memcpy(pager->callscript, fresh.callscript, sizeof pager->callscript);
    memcpy(pager->spool_dir, fresh.spool_dir, sizeof pager->spool_dir);
    memcpy(pager->default_rule, fresh.default_rule, sizeof pager->default_rule);
    memcpy(pager->rules, fresh.rules, sizeof pager->rules);
    pager->sin = fresh.sin;
    pager->no_check_bcc = fresh.no_check_bcc;
    pager->protocol = fresh.protocol;
    pager->espa_poll = fresh.espa_poll;
    pager->read_timeout = fresh.read_timeout;
    pager->send_service_actions = fresh.send_service_actions;
    pager->socket = -1;
}

// The text between the last '[' and the next ']' of a value key, of which 255 characters are looked
// at.
std::string value_name(const char *key) {
    const std::string_view seen = std::string_view(key).substr(0, LOOKUP_SIZE - 1);
    const size_t open = seen.rfind('[');
    const std::string_view name = seen.substr(open == std::string_view::npos ? 0 : open + 1);
    return std::string(name.substr(0, name.find(']')));
}

// Logs on behalf of load_rule().
void load_values(const dictionary *dict, const char *section, rule_t *rule) {
    const std::string prefix = std::string(section) + ":value[";
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

bool is_logger_section(std::string_view name) {
    return name.starts_with("logger");
}

bool is_rule_section(std::string_view name) {
    return name.starts_with("rule_");
}

void load_logger_settings(const dictionary *dict) {
    const section_t logger(dict, "logger");
    logtype = strcasecmp(logger.text("log_type", ""), "syslog") == 0 ? 1 : 0;
    loglevel = static_cast<uint16_t>(logger.integer("log_level", DEFAULT_LOG_LEVEL));
    const char *file = logger.text("log_file");
    if (file != nullptr) {
        free(logfile);
        logfile = strdup(file);
    }
    logger_init(logfile, loglevel, logtype == 1, 0);
}

// Fills one of the tables from its first slot. A slot after a loaded or failed one counts as
// emptied: its record is made aside from zeros, and what is in the table stays in use until it is
// replaced.
template <typename record_t, int SIZE>
class table_loader_t {
  public:
    explicit table_loader_t(record_t (&table)[SIZE]) noexcept : table_(table) {}

    // Returns whether the record loaded.
    bool load(int (*load_record)(const dictionary *, const char *, record_t *),
              const dictionary *dict, const char *section) {
        if (!emptied_) {
            if (load_record(dict, section, &table_[0]) != 0) {
                emptied_ = true;
                return false;
            }
        } else {
            record_t fresh{};
            if (load_record(dict, section, &fresh) != 0) {
                return false;
            }
            memcpy(&table_[count_], &fresh, sizeof fresh);
        }
        emptied_ = true;
        count_++;
        return true;
    }
    void empty_next() {
        if (emptied_ && !is_full()) {
            table_[count_] = record_t{};
        }
    }
    bool is_full() const { return count_ == SIZE; }
    int count() const { return count_; }

  private:
    record_t (&table_)[SIZE];
    bool emptied_ = false;
    int count_ = 0;
};

// Loads the sections in file order until one of the tables is full. Logs on behalf of load_conf().
void load_sections(const dictionary *dict) {
    table_loader_t pager_table(pagers);
    table_loader_t rule_table(rules);
    const int sections = iniparser_getnsec(dict);
    for (int i = 0; i < sections && !pager_table.is_full() && !rule_table.is_full(); i++) {
        const char *name = iniparser_getsecname(dict, i);
        if (name == nullptr || is_logger_section(name)) {
            continue;
        }
        if (is_rule_section(name)) {
            if (!rule_table.load(load_rule, dict, name)) {
                LOG_AS(LEVEL_ERROR, "load_conf", "Unable to load rule %s\n", name);
            }
        } else if (!pager_table.load(load_pager, dict, name)) {
            LOG_AS(LEVEL_ERROR, "load_conf", "Error loading pager %s\n", name);
        }
    }
    rule_table.empty_next();
    pager_table.empty_next();
    num_pagers = pager_table.count();
}

}  // namespace

int load_conf(const char *path) noexcept {
    init_defaults();
    const std::unique_ptr<dictionary, dictionary_releaser_t> dict(ini_load(path));
    if (!dict) {
        return -1;
    }
    load_logger_settings(dict.get());
    load_sections(dict.get());
    return 0;
}

int load_pager(const dictionary *dict, const char *section, pager_t *pager) noexcept {
    const section_t keys(dict, section);
    pager_t fresh = *pager;
    rename_pager(&fresh, section);
    copy_if_present(fresh.host, keys.text("host"));
    fresh.port = static_cast<int16_t>(keys.integer("port", DEFAULT_PORT));
    fresh.no_check_bcc = keys.boolean("no_check_bcc", 0);
    copy_if_present(fresh.callscript, keys.text("callscript"));
    copy_text(fresh.spool_dir, keys.text("spool_dir", DEFAULT_SPOOL_DIR));
    fresh.protocol = parse_protocol(keys.text("protocol"));
    copy_if_present(fresh.default_rule, keys.text("default_rule"));
    copy_if_present(fresh.rules, keys.text("rules"));
    fresh.espa_poll = keys.boolean("espa_poll", 0);
    fresh.send_service_actions = keys.boolean("send_service_actions", 0);
    // A yes/no key that sets seconds: yes gives 1, no gives 0, any other word or number gives 30.
    fresh.read_timeout = keys.boolean("read_timeout", DEFAULT_READ_TIMEOUT);
    if (!resolve_host(&fresh)) {
        return -1;
    }
    store_settings(pager, fresh);
    return 0;
}

int load_rule(const dictionary *dict, const char *section, rule_t *rule) noexcept {
    const section_t keys(dict, section);
    rule_t fresh{};
    copy_text(fresh.name, section);
    load_values(dict, section, &fresh);
    copy_text(fresh.context, keys.text("context", DEFAULT_CONTEXT));
    copy_text(fresh.channel, keys.text("channel", DEFAULT_CHANNEL));
    copy_text(fresh.extension, keys.text("extension", DEFAULT_EXTENSION));
    copy_text(fresh.callerid, keys.text("callerid", DEFAULT_CALLERID));
    fresh.action = parse_action(keys.text("action", ""));
    if (fresh.action == SCRIPT) {
        copy_text(fresh.callscript, keys.text("callscript", DEFAULT_CALLSCRIPT));
    }
    compile_regex(&fresh.pattern, keys.text("pattern", DEFAULT_PATTERN));
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
