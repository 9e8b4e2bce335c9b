// The keys of the configuration file: the one table from which files are loaded and checked.
#pragma once

#include <array>
#include <stdexcept>
#include <string_view>

#include "tables.h"

// The kinds of sections, told apart by their names.
enum class section_kind_t {
    LOGGER,
    PAGER,
    RULE,
    SKIPPED,   // another name that begins with "logger"
    UNLISTED,  // with a colon in its name, or before the first section: nothing looks there
};

// How a value is read.
enum class reading_t {
    TEXT,
    NUMBER,   // decimal, 0x hexadecimal, 0 octal
    YES_NO,   // by its first character
    PATTERN,  // regular expression
    TEMPLATE,
};

struct config_key_t {
    section_kind_t kind;
    const char *name;
    reading_t reading;
    size_t size;             // of a text's field, its terminating zero included; 0: of any length
    const char *text;        // what an absent text stands for; null: none
    int number = 0;          // what an absent number or yes/no stands for
    const char *words = "";  // what a text can be, separated by blanks
};

// The prefix of the keys that name an extra pattern of a rule.
constexpr std::string_view VALUE_KEY_PREFIX = "value[";

constexpr const char *DEFAULT_LOG_FILE = "/var/log/quillet.log";
constexpr int DEFAULT_LOG_LEVEL = 5;
constexpr int NO_STATION = -1;  // of an ESPA line that follows no procedure

namespace keys {

using enum section_kind_t;
using enum reading_t;

// In the order of the manual.
constexpr std::array<config_key_t, 52> TABLE = {{
    {LOGGER, "log_type", TEXT, 0, "file", 0, "file syslog"},
    {LOGGER, "log_level", NUMBER, 0, nullptr, DEFAULT_LOG_LEVEL},
    {LOGGER, "log_file", TEXT, 0, DEFAULT_LOG_FILE},
    {LOGGER, "status_file", TEXT, 0, ""},
    {LOGGER, "journal_file", TEXT, 0, ""},
    {LOGGER, "log_escape", YES_NO, 0, nullptr, 0},
    {LOGGER, "live_reload", YES_NO, 0, nullptr, 0},

    {PAGER, "host", TEXT, sizeof pager_t::host, nullptr},
    {PAGER, "port", NUMBER, 0, nullptr, 2233},
    {PAGER, "protocol", TEXT, 0, "espa", 0, "espa ascii"},
    {PAGER, "no_check_bcc", YES_NO, 0, nullptr, 0},
    {PAGER, "espa_poll", YES_NO, 0, nullptr, 0},
    {PAGER, "espa_address", NUMBER, 0, nullptr, NO_STATION},
    {PAGER, "espa_control", NUMBER, 0, nullptr, 1},
    {PAGER, "listen", YES_NO, 0, nullptr, 0},
    {PAGER, "listen_address", TEXT, 0, ""},
    // Seconds: yes gives 1, no gives 0, any other word or number gives 30.
    {PAGER, "read_timeout", YES_NO, 0, nullptr, 30},
    {PAGER, "spool_dir", TEXT, sizeof pager_t::spool_dir, "/tmp/"},
    {PAGER, "rules", TEXT, sizeof pager_t::rules, nullptr},
    {PAGER, "default_rule", TEXT, sizeof pager_t::default_rule, nullptr},
    {PAGER, "send_service_actions", YES_NO, 0, nullptr, 0},
    {PAGER, "recover_link", YES_NO, 0, nullptr, 0},
    {PAGER, "ack_when_done", YES_NO, 0, nullptr, 0},
    {PAGER, "staging_dir", TEXT, sizeof pager_t::staging_dir, ""},
    {PAGER, "charset", TEXT, sizeof pager_t::charset, ""},
    {PAGER, "follow_calls", YES_NO, 0, nullptr, 0},
    {PAGER, "status_called", TEXT, sizeof pager_t::status_called, ""},
    {PAGER, "status_answered", TEXT, sizeof pager_t::status_answered, ""},
    {PAGER, "status_unanswered", TEXT, sizeof pager_t::status_unanswered, ""},
    {PAGER, "callscript", TEXT, sizeof pager_t::callscript, nullptr},

    {RULE, "pattern", PATTERN, 0, ".*"},
    {RULE, "action", TEXT, 0, "skip", 0, "skip call script"},
    {RULE, "channel", TEMPLATE, sizeof rule_t::channel, "Local/1234@users"},
    {RULE, "context", TEMPLATE, sizeof rule_t::context, "alarm"},
    {RULE, "extension", TEMPLATE, sizeof rule_t::extension, "s"},
    {RULE, "callerid", TEMPLATE, sizeof rule_t::callerid, "\"%number%\" <%number%>"},
    {RULE, "callscript", TEMPLATE, sizeof rule_t::callscript,
     "/usr/share/quillet/mkcall.sh %espa_if% %alarm% %number% %message%"},
    {RULE, "quote", YES_NO, 0, nullptr, 0},
    {RULE, "ack_when_run", YES_NO, 0, nullptr, 0},
    {RULE, "match_address", PATTERN, 0, nullptr},
    {RULE, "match_priority", PATTERN, 0, nullptr},
    {RULE, "match_type", PATTERN, 0, nullptr},
    {RULE, "match_beep", PATTERN, 0, nullptr},
    {RULE, "match_transmissions", PATTERN, 0, nullptr},
    {RULE, "record_fields", YES_NO, 0, nullptr, 0},
    {RULE, "wait_time", NUMBER, 0, nullptr, NOT_GIVEN},
    {RULE, "max_retries", NUMBER, 0, nullptr, NOT_GIVEN},
    {RULE, "retry_time", NUMBER, 0, nullptr, NOT_GIVEN},
    {RULE, "confirm", YES_NO, 0, nullptr, 0},
    {RULE, "otherwise", TEXT, sizeof rule_t::otherwise, ""},
    {RULE, "give_up", NUMBER, 0, nullptr, 300},
    {RULE, VALUE_KEY_PREFIX.data(), PATTERN, 0, nullptr},
}};

}  // namespace keys

// The row of a key. Null when sections of this kind have none of this name; a value key has the row
// of its prefix.
constexpr const config_key_t *find_key(section_kind_t kind, std::string_view name) noexcept {
    if (name.starts_with(VALUE_KEY_PREFIX)) {
        name = VALUE_KEY_PREFIX;
    }
    for (const config_key_t &key : keys::TABLE) {
        if (key.kind == kind && name == key.name) {
            return &key;
        }
    }
    return nullptr;
}

// A key of the program's own text, which does not compile unless the table has it.
template <section_kind_t KIND>
struct known_key_t {
    const config_key_t *key;

    consteval known_key_t(const char *name) : key(find_key(KIND, name)) {
        if (key == nullptr) {
            throw std::logic_error("the table has no such key");
        }
    }
};

// The kind of the section of this name.
section_kind_t section_kind(std::string_view name) noexcept;

// What the words of a text stand for.
int parse_protocol(std::string_view text) noexcept;  // any beginning of "ascii", the empty one too
int parse_action(std::string_view text) noexcept;    // what begins with "call", "script"
bool is_syslog(const char *log_type) noexcept;

// The address that a number is on an ESPA line, '0' to '9'; zero for any other number.
char espa_digit(int number) noexcept;

// The keys of a rule's conditions, by call_field_t.
constexpr std::array<const char *, CALL_FIELDS> CONDITION_KEYS = {
    "match_address", "match_priority", "match_type", "match_beep", "match_transmissions"};

// The name that a value key gives: the text between the last '[' and the next ']' of its first 255
// characters, which the section's name and a colon are counted in.
std::string_view value_name(std::string_view entry) noexcept;
