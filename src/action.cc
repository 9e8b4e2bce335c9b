#include "action.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "alarm.h"
#include "clock.h"
#include "fd.h"
#include "files.h"
#include "logger.h"
#include "proto.h"
#include "rule.h"
#include "text.h"

namespace {

constexpr int FIELD_SIZE = 256;     // an expanded field of a call file
constexpr int COMMAND_SIZE = 1024;  // an expanded command line
constexpr int SUBSTITUTION_SIZE = 256;
constexpr int PATH_SIZE = 1024;

// What the placeholders of one expansion stand for.
struct expansion_t {
    int alrm;
    const char *number;
    const char *message;
    const value_t *values;
    int num_values;
};

int count_values(const value_t *values) {
    int count = 0;
    while (values != nullptr && count < MAX_VALUES && values[count].name[0] != '\0') {
        count++;
    }
    return count;
}

// Replaces the values that `fmt`, which begins with "$", names one after the other in table order.
// Returns the rest of the template.
std::string_view expand_values(text_writer_t *line, std::string_view fmt, const expansion_t &with) {
    for (int i = 0; i < with.num_values; i++) {
        const value_t &value = with.values[i];
        const std::string_view name(value.name);
        if (fmt.starts_with('$') && fmt.substr(1).starts_with(name)) {
            char text[SUBSTITUTION_SIZE] = "";
            match_regex(&value.pattern, with.message, text, sizeof text);
            line->append(text);
            fmt.remove_prefix(1 + name.size());
        }
    }
    return fmt;
}

// Expands what stands at the start of `fmt`, which is not empty. Returns the rest of the template.
std::string_view expand_next(text_writer_t *line, std::string_view fmt, const expansion_t &with) {
    constexpr std::string_view NUMBER = "%number%";
    constexpr std::string_view ALARM = "%alarm%";
    constexpr std::string_view MESSAGE = "%message%";
    if (fmt.starts_with(NUMBER)) {
        line->append(with.number);
        return fmt.substr(NUMBER.size());
    }
    if (fmt.starts_with(ALARM)) {
        line->append(alarm_name(with.alrm));
        return fmt.substr(ALARM.size());
    }
    if (fmt.starts_with(MESSAGE)) {
        line->append(with.message);
        return fmt.substr(MESSAGE.size());
    }
    if (fmt.front() == '$') {
        fmt = expand_values(line, fmt, with);
    }
    line->append(fmt.substr(0, 1));
    return fmt.substr(fmt.empty() ? 0 : 1);
}

// An expanded template in a buffer of its own.
template <int SIZE>
struct expanded_t {
    char text[SIZE];

    expanded_t(const char *fmt, pager_t *pager, int alrm, const char *number, const char *message,
               rule_t *rule) {
        format_string(text, SIZE, fmt, alrm, number, message, pager, rule->values);
    }
};

// Returns false with errno set.
bool write_file(const char *path, std::string_view content) {
    const unique_fd_t file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file) {
        LOG_AS(LEVEL_ERROR, "call_action", "Unable to open file for writing\n");
        return false;
    }
    const ssize_t written = write(file.get(), content.data(), content.size());
    if (written == static_cast<ssize_t>(content.size())) {
        return true;
    }
    LOG_AS(LEVEL_ERROR, "call_action", "Unable to write call file %s: %s\n", path,
           written < 0 ? strerror(errno) : "file is incomplete");
    unlink(path);  // the PBX would take an incomplete file for a broken call
    return false;
}

void write_call_file(pager_t *pager, int alrm, const char *number, const char *message,
                     rule_t *rule) {
    using field_t = expanded_t<FIELD_SIZE>;
    const field_t extension(rule->extension, pager, alrm, number, message, rule);
    const field_t context(rule->context, pager, alrm, number, message, rule);
    const field_t callerid(rule->callerid, pager, alrm, number, message, rule);
    const field_t channel(rule->channel, pager, alrm, number, message, rule);

    char name[FIELD_SIZE + 32];
    char path[PATH_SIZE];
    snprintf(name, sizeof name, "call_%s_%d", extension.text, seconds_now());
    join_path(path, pager->spool_dir, name);

    char content[4 * FIELD_SIZE + 128];
    const int length = snprintf(content, sizeof content,
                                "Channel: %s\r\nContext: %s\r\nExtension: %s\r\nCallerID: %s\r\n"
                                "Priority: 1\r\nMaxRetries: 0\r\n",
                                channel.text, context.text, extension.text, callerid.text);
    if (!write_file(path, {content, static_cast<size_t>(length)})) {
        call_script(pager, ALARM_GENERAL_ERROR, nullptr);
    }
}

void run_command(pager_t *pager, int alrm, const char *number, const char *message, rule_t *rule) {
    const expanded_t<COMMAND_SIZE> command(rule->callscript, pager, alrm, number, message, rule);
    LOG_AS(LEVEL_DEBUG, "call_action", "Calling cmd line: %s\n", command.text);
    const int status = system(command.text);
    static_cast<void>(status);  // whether a command succeeds is its own business
}

// Passes an alarm through the rate limit and the pager's switch; logs on behalf of `function`.
bool service_action_is_due(pager_t *pager, int alrm, const char *function) {
    if (alarm_time(pager, alrm) == 0) {
        return false;
    }
    LOG_AS(LEVEL_VERBOSE, function, "Call service action %s\n", alarm_name(alrm));
    if (pager->send_service_actions == 0) {
        LOG_AS(LEVEL_VERBOSE, function, "Service actions disabled\n");
        return false;
    }
    return true;
}

void run_rule_for(pager_t *pager, int alrm, const char *number, const char *message) {
    rule_t *rule = select_rule(pager, message);
    if (rule != nullptr) {
        call_action(pager, alrm, number, message, rule);
    }
}

}  // namespace

int format_string(char *line, int size, const char *fmt, int alrm, const char *number,
                  const char *msg, pager_t * /*pager*/, value_t *values) noexcept {
    if (size <= 0) {
        return 0;
    }
    memset(line, 0, static_cast<size_t>(size));
    const expansion_t with{alrm, number != nullptr ? number : "", msg != nullptr ? msg : "", values,
                           count_values(values)};
    text_writer_t writer(line, size);
    std::string_view rest(fmt);
    while (!rest.empty()) {
        rest = expand_next(&writer, rest, with);
    }
    return static_cast<int>(strlen(line));
}

void call_action(pager_t *pager, int alrm, const char *number, const char *message,
                 rule_t *rule) noexcept {
    if (rule->action == CALL) {
        write_call_file(pager, alrm, number, message, rule);
    } else if (rule->action == SCRIPT) {
        run_command(pager, alrm, number, message, rule);
    }
}

void call_service_action(pager_t *pager, int alrm) noexcept {
    if (service_action_is_due(pager, alrm, __func__)) {
        run_rule_for(pager, alrm, nullptr, nullptr);
    }
}

void call_script(pager_t *pager, int alrm, const espa_p *p) noexcept {
    if (!service_action_is_due(pager, alrm, __func__)) {
        return;
    }
    if (p != nullptr) {
        run_rule_for(pager, alrm, p->record.call_address, p->record.display_message);
    } else {
        run_rule_for(pager, alrm, nullptr, nullptr);
    }
}
