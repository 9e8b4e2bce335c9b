#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "alarm.h"
#include "clock.h"
#include "fd.h"
#include "kept_text.h"
#include "logger.h"
#include "utf8.h"

namespace {

using json_t = nlohmann::ordered_json;

std::atomic<const char *> journal_file = "";
std::atomic<bool> failed = false;  // has been logged for this load
std::atomic<bool> torn = false;    // the file ends in a part of a line

void report_failure(const char *path, int error) {
    if (!failed.exchange(true)) {
        LOG_AS(LEVEL_ERROR, "journal_write", "Unable to write journal %s: %s\n", path,
               strerror(error));
    }
}

// "2026-11-21T15:04:05.123+01:00", in local time.
std::string time_text(int64_t milliseconds) {
    const time_t seconds = static_cast<time_t>(milliseconds / 1000);
    tm local{};
    localtime_r(&seconds, &local);
    const long offset = local.tm_gmtoff / 60;
    char text[64];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02ld:%02ld",
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
             local.tm_sec, static_cast<int>(milliseconds % 1000), offset < 0 ? '-' : '+',
             std::labs(offset) / 60, std::labs(offset) % 60);
    return text;
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

json_t as_json(const journal_entry_t &entry) {
    json_t object;
    object["time"] = time_text(milliseconds_now());
    object["line"] = as_utf8(table_text(entry.pager->name).text);
    object["event"] = alarms[alarm_row(entry.alrm)].name;
    object["protocol"] = load_shared(entry.pager->protocol) == PROTOCOL_ASCII ? "ascii" : "espa";
    if (entry.alrm == ALARM_MESSAGE) {
        object["address"] = as_utf8(entry.address);
        object["text"] = as_utf8(entry.text);
    }
    object["rule"] = nullptr;
    object["action"] = nullptr;
    if (entry.rule != nullptr) {
        object["rule"] = as_utf8(entry.rule->name);
        object["action"] = action_word(entry.rule->action);
    }
    object["result"] = result_word(entry);
    if (entry.outcome.file[0] != '\0') {
        object["file"] = as_utf8(entry.outcome.file);
    }
    if (entry.outcome.exit_status >= 0) {
        object["exit"] = entry.outcome.exit_status;
    }
    object["ms"] =
        std::round(static_cast<double>(microseconds_passed() - entry.began_us) / 100) / 10;
    return object;
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
    const char *path = journal_file;
    if (path[0] == '\0') {
        return;
    }
    // What a full disk has cut is at least not continued.
    const std::string line = (torn.exchange(false) ? "\n" : "") + as_json(entry).dump() + "\n";
    const unique_fd_t file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    const ssize_t written = file ? write(file.get(), line.data(), line.size()) : -1;
    if (written != std::ssize(line)) {
        report_failure(path, written < 0 ? errno : ENOSPC);
        torn = written > 0;
    }
}
