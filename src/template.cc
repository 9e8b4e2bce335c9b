#include "template.h"

#include <cstring>
#include <utility>

#include "alarm.h"

namespace {

constexpr int SUBSTITUTION_SIZE = 256;

int count_values(const value_t *values) {
    int count = 0;
    while (values != nullptr && count < MAX_VALUES && values[count].name[0] != '\0') {
        count++;
    }
    return count;
}

void append_caller_id_character(text_writer_t *line, char c) {
    const bool is_control = (c >= 0 && c < ' ') || c == '\x7F';
    if (is_control) {
        line->append(" ");
    } else if (c == ';') {
        line->append_whole("\\;");
    } else if (strchr("#\"<>", c) == nullptr) {
        line->append({&c, 1});
    }
}

// Takes away the beginning of a UTF-8 character whose rest did not fit.
void drop_cut_character(char *line) {
    constexpr int CONTINUATION_MASK = 0xC0;
    size_t length = strlen(line);
    size_t behind = 0;
    while (behind < length && behind < 3 &&
           (line[length - 1 - behind] & CONTINUATION_MASK) == 0x80) {
        behind++;
    }
    const auto lead = static_cast<unsigned char>(behind < length ? line[length - 1 - behind] : 0);
    const size_t wanted = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    if (behind < wanted) {
        memset(line + length - 1 - behind, 0, behind + 1);
    }
}

// A template on its way into a line.
class expander_t {
  public:
    expander_t(text_writer_t *line, const placeholders_t &with, quoting_t quoting)
        : line_(line), with_(with), num_values_(count_values(with.values)), quoting_(quoting) {}

    // Expands what stands at the start of `fmt`, which is not empty. Returns the rest.
    std::string_view expand_next(std::string_view fmt) {
        constexpr std::string_view NUMBER = "%number%";
        constexpr std::string_view ALARM = "%alarm%";
        constexpr std::string_view MESSAGE = "%message%";
        if (fmt.starts_with(NUMBER)) {
            replace(with_.number);
            return fmt.substr(NUMBER.size());
        }
        if (fmt.starts_with(ALARM)) {
            replace(alarm_name(with_.alrm));
            return fmt.substr(ALARM.size());
        }
        if (fmt.starts_with(MESSAGE)) {
            replace(with_.message);
            return fmt.substr(MESSAGE.size());
        }
        if (const size_t length = expand_field(fmt); length > 0) {
            return fmt.substr(length);
        }
        if (fmt.front() == '$') {
            fmt = expand_values(fmt);
        }
        line_->append(fmt.substr(0, 1));
        return fmt.substr(fmt.empty() ? 0 : 1);
    }

  private:
    void replace(const char *text) { append_quoted(line_, text != nullptr ? text : "", quoting_); }

    // Replaces the word for a field or the line that `fmt` begins with. Returns its length, or 0.
    size_t expand_field(std::string_view fmt) {
        if (with_.fields == nullptr || fmt.front() != '%') {
            return 0;
        }
        const call_fields_t &fields = *with_.fields;
        const std::pair<std::string_view, const char *> words[] = {
            {"%priority%", fields[call_field_t::PRIORITY]},
            {"%type%", fields[call_field_t::TYPE]},
            {"%beep%", fields[call_field_t::BEEP]},
            {"%transmissions%", fields[call_field_t::TRANSMISSIONS]},
            {"%line%", with_.line},
        };
        for (const auto &[word, text] : words) {
            if (fmt.starts_with(word)) {
                replace(text);
                return word.size();
            }
        }
        return 0;
    }

    // Replaces the values that `fmt`, which begins with "$", names one after the other in table
    // order. Returns the rest.
    std::string_view expand_values(std::string_view fmt) {
        for (int i = 0; i < num_values_; i++) {
            const value_t &value = with_.values[i];
            const std::string_view name(value.name);
            if (fmt.starts_with('$') && fmt.substr(1).starts_with(name)) {
                char text[SUBSTITUTION_SIZE] = "";
                match_regex(&value.pattern, with_.message != nullptr ? with_.message : "", text,
                            sizeof text);
                replace(text);
                fmt.remove_prefix(1 + name.size());
            }
        }
        return fmt;
    }

    text_writer_t *line_;
    const placeholders_t &with_;
    int num_values_;
    quoting_t quoting_;
};

}  // namespace

bool is_name_character(char c) noexcept {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("*+_.-", c) != nullptr);
}

void append_quoted(text_writer_t *line, std::string_view text, quoting_t quoting) noexcept {
    if (quoting == quoting_t::NONE) {
        line->append(text);
        return;
    }
    if (quoting == quoting_t::COMMAND) {
        line->append("'");
    }
    for (const char c : text) {
        if (quoting == quoting_t::CALLER_ID) {
            append_caller_id_character(line, c);
        } else if (quoting == quoting_t::COMMAND) {
            line->append(c == '\'' ? std::string_view("'\\''") : std::string_view(&c, 1));
        } else if (is_name_character(c)) {
            line->append({&c, 1});
        }
    }
    if (quoting == quoting_t::COMMAND) {
        line->append("'");
    }
}

bool expand_template(char *line, int size, std::string_view fmt, const placeholders_t &with,
                     quoting_t quoting) noexcept {
    memset(line, 0, static_cast<size_t>(size));
    text_writer_t writer(line, size);
    expander_t expander(&writer, with, quoting);
    while (!fmt.empty()) {
        fmt = expander.expand_next(fmt);
    }
    if (writer.is_cut() && quoting != quoting_t::NONE) {
        drop_cut_character(line);
    }
    return !writer.is_cut();
}

int format_string(char *line, int size, const char *fmt, int alrm, const char *number,
                  const char *msg, pager_t * /*pager*/, value_t *values) noexcept {
    if (size <= 0) {
        return 0;
    }
    expand_template(line, size, fmt, {alrm, number, msg, values}, quoting_t::NONE);
    return static_cast<int>(strlen(line));
}
