#include "keys.h"

#include <strings.h>

namespace {

constexpr size_t MAX_VALUE_KEY = 255;

}  // namespace

section_kind_t section_kind(std::string_view name) noexcept {
    if (name.empty() || name.find(':') != std::string_view::npos) {
        return section_kind_t::UNLISTED;
    }
    if (name.starts_with("logger")) {
        return name == "logger" ? section_kind_t::LOGGER : section_kind_t::SKIPPED;
    }
    return name.starts_with("rule_") ? section_kind_t::RULE : section_kind_t::PAGER;
}

int parse_protocol(std::string_view text) noexcept {
    constexpr std::string_view ASCII = "ascii";
    return ASCII.starts_with(text) ? PROTOCOL_ASCII : PROTOCOL_ESPA;
}

int parse_action(std::string_view text) noexcept {
    if (text.starts_with("call")) {
        return CALL;
    }
    return text.starts_with("script") ? SCRIPT : SKIP;
}

bool is_syslog(const char *log_type) noexcept {
    return strcasecmp(log_type, "syslog") == 0;
}

char espa_digit(int number) noexcept {
    return number >= 0 && number <= 9 ? static_cast<char>('0' + number) : '\0';
}

std::string_view value_name(std::string_view entry) noexcept {
    const std::string_view seen = entry.substr(0, MAX_VALUE_KEY);
    const size_t open = seen.rfind('[');
    const std::string_view name = seen.substr(open == std::string_view::npos ? 0 : open + 1);
    return name.substr(0, name.find(']'));
}
