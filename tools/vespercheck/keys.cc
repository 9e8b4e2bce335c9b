#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "checks.h"

namespace {

constexpr int MAX_PORT = 65535;

const char *kind_name(section_kind_t kind) {
    if (kind == section_kind_t::LOGGER) {
        return "the logger";
    }
    return kind == section_kind_t::RULE ? "a rule" : "a pager";
}

std::vector<std::string> key_names(section_kind_t kind) {
    std::vector<std::string> names;
    for (const config_key_t &key : keys::TABLE) {
        if (key.kind == kind) {
            names.emplace_back(key.name);
        }
    }
    return names;
}

const config_key_t *find_elsewhere(std::string_view name) {
    for (const section_kind_t kind :
         {section_kind_t::LOGGER, section_kind_t::PAGER, section_kind_t::RULE}) {
        if (const config_key_t *key = find_key(kind, name)) {
            return key;
        }
    }
    return nullptr;
}

void check_unknown(const file_section_t &section, const file_entry_t &entry, findings_t *findings) {
    if (const config_key_t *other = find_elsewhere(entry.key)) {
        const char *hint = other->kind == section_kind_t::RULE
                               ? ", because its name does not begin with 'rule_'"
                               : "";
        findings->warn(entry.line, "wrong-section", entry.key, " is a key of ",
                       kind_name(other->kind), ", but [", section.name, "] is ",
                       kind_name(section.kind), section.kind == section_kind_t::PAGER ? hint : "",
                       ": nothing reads it");
        return;
    }
    const std::string near = findings->hint(entry.key, [&] { return key_names(section.kind); });
    if (near.empty()) {
        findings->warn(entry.line, "unknown-key", "unknown key ", entry.key, ": nothing reads it");
    } else {
        findings->warn(entry.line, "unknown-key", "unknown key ", entry.key, ": did you mean ",
                       near, "?");
    }
}

// What a value that is one of a few words comes to.
std::string meaning(const config_key_t &key, const std::string &value) {
    const std::string_view name(key.name);
    if (name == "protocol") {
        return parse_protocol(value) == PROTOCOL_ASCII ? "ascii" : "espa";
    }
    if (name == "log_type") {
        return is_syslog(value.c_str()) ? "syslog" : "file";
    }
    constexpr const char *ACTIONS[] = {"skip", "call", "script"};
    return ACTIONS[parse_action(value)];
}

void check_word(const config_key_t &key, const file_entry_t &entry, findings_t *findings) {
    const std::string meant = meaning(key, entry.value);
    if (lower_case(entry.value) == meant) {
        return;
    }
    const bool is_begun = entry.value.starts_with(meant) || meant.starts_with(entry.value);
    if (is_begun) {
        findings->note(entry.line, "value", key.name, " = '", entry.value, "' means ", meant);
        return;
    }
    const std::string words(key.words);
    const auto spaced = [](const std::string &text) {
        std::string between = " ";
        between += text;
        between += ' ';
        return between;
    };
    const bool is_word = spaced(words).find(spaced(lower_case(entry.value))) != std::string::npos;
    findings->warn(entry.line, "value", key.name, " = ", entry.value,
                   is_word ? " is not read in capital letters" : " is none of its words",
                   ": it means ", meant, " (", words, ")");
}

// The words that somebody who writes yes or no writes.
bool is_yes_or_no(const std::string &value) {
    for (const char *word : {"yes", "y", "true", "t", "1", "no", "n", "false", "f", "0"}) {
        if (strcasecmp(value.c_str(), word) == 0) {
            return true;
        }
    }
    return false;
}

void check_yes_no(const config_key_t &key, const file_entry_t &entry, int read,
                  findings_t *findings) {
    if (is_yes_or_no(entry.value) || entry.value == std::to_string(read)) {
        return;
    }
    if (key.number > 1) {
        findings->warn(entry.line, "value", key.name, " is a yes/no key: ", entry.value, " means ",
                       read, read == 1 ? " second" : " seconds");
    } else {
        findings->warn(entry.line, "value", key.name, " = '", entry.value,
                       "' is neither yes nor no: it means ", read != 0 ? "yes" : "no");
    }
}

void check_range(const config_key_t &key, const file_entry_t &entry, int read,
                 findings_t *findings) {
    const bool is_port = key.name == std::string_view("port");
    const bool is_address = std::string_view(key.name).starts_with("espa_");
    if (is_port && (read < 1 || read > MAX_PORT)) {
        findings->warn(entry.line, "port", "port ", entry.value,
                       " is not within 1 and 65535: the line connects to port ",
                       static_cast<int>(static_cast<uint16_t>(read)));
    } else if (is_address) {
        if (espa_digit(read) == '\0') {
            findings->error(entry.line, "address", key.name, " = ", entry.value,
                            " is no digit: the line follows no procedure");
        }
    } else if (key.kind == section_kind_t::LOGGER && read < 0) {
        findings->warn(entry.line, "value", "log_level = ", entry.value,
                       " lets everything through, as 5 does");
    } else if (key.kind == section_kind_t::RULE && read < 0) {
        findings->warn(entry.line, "value", key.name, " = ", entry.value, " is no number of ",
                       std::string_view(key.name) == "max_retries" ? "attempts" : "seconds");
    }
}

void check_number(const config_key_t &key, const file_entry_t &entry, int read,
                  findings_t *findings) {
    const char *text = entry.value.c_str();
    char *end = nullptr;
    const long number = strtol(text, &end, 0);
    const bool is_octal = text[0] == '0' && text[1] >= '0' && text[1] <= '9';
    if (end == text || *end != '\0' || is_octal || number != read) {
        findings->warn(entry.line, "value", key.name, " = '", entry.value,
                       is_octal ? "' is octal" : "' is not a number", ": it means ", read);
    }
    check_range(key, entry, read, findings);
}

void check_value(const config_key_t &key, const file_section_t &section, const file_entry_t &entry,
                 findings_t *findings) {
    if (key.reading == reading_t::NUMBER) {
        check_number(key, entry, section.number(key), findings);
    } else if (key.reading == reading_t::YES_NO) {
        check_yes_no(key, entry, section.number(key), findings);
    } else if (key.words[0] != '\0') {
        check_word(key, entry, findings);
    }
    if (key.size > 0 && entry.value.size() >= key.size) {
        findings->warn(entry.line, "too-long", entry.key, " is ", entry.value.size(),
                       " characters long: it is cut at ", key.size - 1);
    }
}

// Whether a key that is no template is for the call files of a rule.
bool is_of_calls(std::string_view key) {
    constexpr std::array<std::string_view, 6> KEYS = {"wait_time", "max_retries", "retry_time",
                                                      "confirm",   "otherwise",   "give_up"};
    return std::find(KEYS.begin(), KEYS.end(), key) != KEYS.end();
}

// What is legal and of no use.
void check_use(const file_section_t &section, const file_entry_t &entry, findings_t *findings) {
    if (section.kind == section_kind_t::PAGER && entry.key == "callscript") {
        findings->note(entry.line, "unused", "callscript of a pager is used by nothing");
        return;
    }
    const bool is_of_script = entry.key == "callscript" || entry.key == "ack_when_run";
    if (!is_of_script && !is_of_calls(entry.key) &&
        find_key(section.kind, entry.key)->reading != reading_t::TEMPLATE) {
        return;
    }
    const int action = parse_action(section.text("action"));
    const int wanted = is_of_script ? SCRIPT : CALL;
    if (action != wanted) {
        findings->note(entry.line, "unused", entry.key,
                       " is used by action = ", wanted == SCRIPT ? "script" : "call", " only");
    }
}

void check_section(const file_section_t &section, findings_t *findings) {
    for (const file_entry_t &entry : section.entries) {
        const config_key_t *key = find_key(section.kind, entry.key);
        if (section.name.empty()) {
            findings->warn(entry.line, "no-section", entry.key,
                           " stands before the first section: nothing reads it");
        } else if (key != nullptr) {
            check_value(*key, section, entry, findings);
            check_use(section, entry, findings);
        } else if (section.kind != section_kind_t::UNLISTED &&
                   section.kind != section_kind_t::SKIPPED) {
            check_unknown(section, entry, findings);
        }
    }
}

}  // namespace

void check_keys(const site_t &site, findings_t *findings) {
    for (const file_section_t &section : site.outline.sections) {
        check_section(section, findings);
    }
}
