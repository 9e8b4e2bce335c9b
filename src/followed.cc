#include "followed.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

#include "template.h"

namespace {

constexpr size_t MAX_NAME = 200;        // what becomes of a call is written behind it
constexpr size_t MAX_LINE_VALUE = 200;  // bytes of a line, which would be cut at 255
constexpr std::string_view PREFIX = "; vesperd: ";
constexpr std::string_view FIRST = "; vesperd: daemon ";
constexpr std::string_view LAST = "; vesperd: end\r\n";

const std::pair<const char *, std::string followed_call_t::*> TEXTS[] = {
    {"daemon", &followed_call_t::daemon}, {"line", &followed_call_t::line},
    {"rule", &followed_call_t::rule},     {"address", &followed_call_t::address},
    {"text", &followed_call_t::text},     {"after", &followed_call_t::after},
};
constexpr const char *FIELDS[CALL_FIELDS] = {"", "priority", "type", "beep", "transmissions"};

bool is_plain(char c) {
    return c > ' ' && c < '\x7F' && c != '%';
}

std::string encoded(char c) {
    char text[8];
    snprintf(text, sizeof text, "%%%02X", static_cast<unsigned char>(c));
    return text;
}

void add(std::string *comments, std::string_view name, std::string_view value) {
    std::string line;
    do {
        line.clear();
        while (!value.empty() && line.size() < MAX_LINE_VALUE) {
            const bool is_inner_blank = value[0] == ' ' && !line.empty();
            line +=
                is_plain(value[0]) || is_inner_blank ? std::string(1, value[0]) : encoded(value[0]);
            value.remove_prefix(1);
        }
        comments->append(PREFIX).append(name).append(" ").append(line).append("\r\n");
    } while (!value.empty());
}

std::string decoded(std::string_view value) {
    std::string text;
    while (!value.empty()) {
        unsigned byte = 0;
        const bool is_encoded =
            value[0] == '%' && value.size() > 2 &&
            std::from_chars(value.data() + 1, value.data() + 3, byte, 16).ptr == value.data() + 3;
        text += is_encoded ? static_cast<char>(byte) : value[0];
        value.remove_prefix(is_encoded ? 3 : 1);
    }
    return text;
}

// Takes a line off the front of a text, without its end.
std::string_view next_line(std::string_view *text) {
    const size_t end = std::min(text->find('\n'), text->size());
    std::string_view line = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

template <typename number_t>
void read_number(std::string_view value, number_t *number) {
    std::from_chars(value.data(), value.data() + value.size(), *number);
}

void take(std::string_view name, std::string_view value, followed_call_t *call) {
    for (const auto &[known, field] : TEXTS) {
        if (name == known) {
            call->*field += decoded(value);
        }
    }
    for (size_t i = 1; i < CALL_FIELDS; i++) {
        if (name == FIELDS[i]) {
            call->fields[i] += decoded(value);
        }
    }
    if (name == "alarm") {
        read_number(value, &call->alrm);
    } else if (name == "passed_on") {
        read_number(value, &call->passed_on);
        call->passed_on = std::max(call->passed_on, 0);
    } else if (name == "placed_ms") {
        read_number(value, &call->placed_ms);
    }
}

}  // namespace

bool can_be_followed(std::string_view name) noexcept {
    return name.size() <= MAX_NAME && std::all_of(name.begin(), name.end(), is_name_character);
}

std::string to_comments(const followed_call_t &call) {
    std::string comments;
    for (const auto &[name, field] : TEXTS) {  // the first of them always: it marks the beginning
        if (name == TEXTS[0].first || !(call.*field).empty()) {
            add(&comments, name, call.*field);
        }
    }
    for (size_t i = 1; i < CALL_FIELDS; i++) {
        if (!call.fields[i].empty()) {
            add(&comments, FIELDS[i], call.fields[i]);
        }
    }
    add(&comments, "alarm", std::to_string(call.alrm));
    add(&comments, "passed_on", std::to_string(call.passed_on));
    add(&comments, "placed_ms", std::to_string(call.placed_ms));
    return comments.append(LAST);
}

bool read_comments(std::string_view content, followed_call_t *call) {
    const size_t end = content.rfind(LAST);
    const size_t begin = end != std::string_view::npos ? content.rfind(FIRST, end) : end;
    if (begin == std::string_view::npos) {
        return false;
    }
    std::string_view left = content.substr(begin, end - begin);
    while (!left.empty()) {
        std::string_view line = next_line(&left);
        if (line.starts_with(PREFIX)) {
            line.remove_prefix(PREFIX.size());
            const size_t blank = std::min(line.find(' '), line.size());
            take(line.substr(0, blank), line.substr(std::min(blank + 1, line.size())), call);
        }
    }
    return true;
}

progress_t progress_of(std::string_view content) noexcept {
    const size_t end = content.rfind(LAST);
    std::string_view left = end != std::string_view::npos ? content.substr(end) : content;
    left = left.substr(0, left.rfind('\n') + 1);  // a line may be half written
    progress_t progress;
    while (!left.empty()) {
        const std::string_view line = next_line(&left);
        progress.attempts += line.starts_with("StartRetry:") ? 1 : 0;
        progress.is_confirmed |= line.starts_with("Confirmed:");
        progress.is_answered |= line.starts_with("Answered:") || line == "Status: Completed";
        progress.is_over |= line.starts_with("Status:");
    }
    progress.is_answered |= progress.is_confirmed;
    return progress;
}
