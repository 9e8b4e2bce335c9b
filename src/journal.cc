#include "journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "alarm.h"
#include "clock.h"
#include "fd.h"
#include "files.h"
#include "kept_text.h"
#include "logger.h"
#include "printable.h"
#include "utf8.h"

namespace {

std::atomic<const char *> journal_file = "";
std::atomic<bool> failed = false;  // has been logged for this load
std::atomic<bool> torn = false;    // the file ends in a part of a line

void report_failure(const char *path, int error) {
    if (!failed.exchange(true)) {
        LOG_AS(LEVEL_ERROR, "journal_write", "Unable to write journal %s: %s\n", path,
               strerror(error));
    }
}

// A JSON object on one line. Put together here because a library's object takes three times as long
// as opening, writing and closing the file.
class object_t {
  public:
    object_t() { text_.reserve(RESERVED); }

    // `value` as it stands: a number or null.
    void add(std::string_view key, std::string_view value) {
        text_ += text_.empty() ? '{' : ',';
        add_string(key);
        text_ += ':';
        text_ += value;
    }
    void add_text(std::string_view key, std::string_view value) {
        add(key, "");
        add_string(value);
    }
    // Text of unknown origin.
    void add_bytes(std::string_view key, std::string_view value) { add_text(key, as_utf8(value)); }

    std::string ended() && {
        text_ += "}\n";
        return std::move(text_);
    }

  private:
    static constexpr size_t RESERVED = 512;

    // A quick look that spares most characters a closer one.
    static bool can_begin_control(char c) {
        return (c >= 0 && c < ' ') || c == '\x7F' || c == '\xC2';
    }

    void add_string(std::string_view text) {
        text_ += '"';
        while (!text.empty()) {
            const char c = text[0];
            const size_t control = can_begin_control(c) ? control_length(text) : 0;
            if (control > 0) {
                char escaped[8];  // the last byte of a control character of C1 is its number
                snprintf(escaped, sizeof escaped, "\\u%04x",
                         static_cast<unsigned char>(text[control - 1]));
                text_ += escaped;
            } else {
                text_ += c == '"' || c == '\\' ? "\\" : "";
                text_ += c;
            }
            text.remove_prefix(std::max<size_t>(control, 1));
        }
        text_ += '"';
    }

    std::string text_;
};

// "2026-11-21T15:04:05.123+01:00", in local time. Most entries come in the same second as others.
std::string time_text(int64_t milliseconds) {
    thread_local time_t second = -1;
    thread_local char date[32];
    thread_local char offset[48];
    const auto now = static_cast<time_t>(milliseconds / 1000);
    if (now != second) {
        tm local{};
        localtime_r(&now, &local);
        const long minutes = local.tm_gmtoff / 60;
        strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
        snprintf(offset, sizeof offset, "%c%02ld:%02ld", minutes < 0 ? '-' : '+',
                 std::labs(minutes) / 60, std::labs(minutes) % 60);
        second = now;
    }
    char text[96];
    snprintf(text, sizeof text, "%s.%03d%s", date, static_cast<int>(milliseconds % 1000), offset);
    return text;
}

// Milliseconds to a tenth.
std::string duration_text(int64_t microseconds) {
    const int64_t tenths = (microseconds + 50) / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

const char *action_word(int action) {
    if (action == CALL) {
        return "call";
    }
    return action == SCRIPT ? "script" : "skip";
}

const char *result_word(const journal_entry_t &entry) {
    if (entry.rule == nullptr || (entry.rule->action != CALL && entry.rule->action != SCRIPT)) {
        return "none";
    }
    return entry.outcome.succeeded ? "ok" : "failed";
}

void add_fields(const call_fields_t &fields, object_t *object) {
    const std::pair<const char *, call_field_t> names[] = {
        {"priority", call_field_t::PRIORITY},
        {"type", call_field_t::TYPE},
        {"beep", call_field_t::BEEP},
        {"transmissions", call_field_t::TRANSMISSIONS},
    };
    for (const auto &[name, field] : names) {
        if (fields[field][0] != '\0') {
            object->add_bytes(name, fields[field]);
        }
    }
}

void add_action(const outcome_t &outcome, object_t *object) {
    if (outcome.file[0] != '\0') {
        object->add_bytes("file", outcome.file);
    }
    if (outcome.exit_status >= 0) {
        object->add("exit", std::to_string(outcome.exit_status));
    }
}

std::string as_json(const journal_entry_t &entry) {
    const bool is_ascii = load_shared(entry.pager->protocol) == PROTOCOL_ASCII;
    object_t object;
    object.add_text("time", time_text(milliseconds_now()));
    object.add_bytes("line", table_text(entry.pager->name).text);
    object.add_text("event", alarms[alarm_row(entry.alrm)].name);
    object.add_text("protocol", is_ascii ? "ascii" : "espa");
    if (entry.alrm == ALARM_MESSAGE) {
        object.add_bytes("address", entry.address);
        object.add_bytes("text", entry.text);
    }
    if (entry.rule != nullptr) {
        object.add_bytes("rule", entry.rule->name);
        object.add_text("action", action_word(entry.rule->action));
    } else {
        object.add("rule", "null");
        object.add("action", "null");
    }
    object.add_text("result", result_word(entry));
    add_action(entry.outcome, &object);
    object.add("ms", duration_text(microseconds_passed() - entry.began_us));
    add_fields(entry.fields, &object);
    return std::move(object).ended();
}

void add_call(const followed_call_t &call, object_t *object) {
    object->add_bytes("line", call.line);
    object->add_text("event", "outcome");
    object->add_bytes("call", call.name);
}

// By which an outcome is found, as it stands in the journal.
std::string name_of_outcome(const followed_call_t &call) {
    object_t object;
    add_call(call, &object);
    const std::string text = std::move(object).ended();
    return text.substr(1, text.size() - 3);  // without the braces and the line end
}

std::string as_json(const outcome_entry_t &entry) {
    object_t object;
    object.add_text("time", time_text(milliseconds_now()));
    add_call(entry.call, &object);
    object.add_bytes("address", entry.call.address);
    object.add_bytes("text", entry.call.text);
    object.add_bytes("rule", entry.call.rule);
    object.add_text("result", entry.result);
    object.add("attempts", std::to_string(entry.attempts));
    object.add("seconds", std::to_string(entry.seconds));
    if (entry.next.empty()) {
        object.add("next", "null");
    } else {
        object.add_bytes("next", entry.next);
    }
    add_action(entry.outcome, &object);
    return std::move(object).ended();
}

// Appends a line, in one write.
void append_line(const std::string &json) {
    const char *path = journal_file;
    // What a full disk has cut is at least not continued.
    const bool was_torn = torn.exchange(false);
    const std::string line = (was_torn ? "\n" : "") + json;
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const unique_fd_t file(open(path, FLAGS, 0640));
    const ssize_t written = file ? write(file.get(), line.data(), line.size()) : -1;
    if (written != std::ssize(line)) {
        report_failure(path, written < 0 ? errno : ENOSPC);
        torn = torn || was_torn || written > 0;
    }
}

}  // namespace

void journal_init(const char *file) noexcept {
    journal_file = kept_text(file);
    failed = false;
}

bool journal_is_kept() noexcept {
    return journal_file.load()[0] != '\0';
}

void journal_write(const journal_entry_t &entry) noexcept {
    if (journal_is_kept()) {
        append_line(as_json(entry));
    }
}

void journal_write_outcome(const outcome_entry_t &entry) noexcept {
    if (journal_is_kept()) {
        append_line(as_json(entry));
    }
}

std::string journal_outcome_of(const followed_call_t &call) noexcept {
    constexpr off_t LOOKED_AT = 1 << 20;
    const unique_fd_t file = open_regular(journal_file, O_RDONLY);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return "";
    }
    std::string text(LOOKED_AT, '\0');
    const ssize_t got =
        pread(file.get(), text.data(), text.size(), std::max<off_t>(status.st_size - LOOKED_AT, 0));
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    const size_t at = text.find(name_of_outcome(call));
    return at != std::string::npos ? text.substr(at, text.find('\n', at) - at) : "";
}
