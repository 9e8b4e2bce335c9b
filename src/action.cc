#include "action.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "alarm.h"
#include "alarm_limit.h"
#include "callfile.h"
#include "clock.h"
#include "command.h"
#include "files.h"
#include "follow.h"
#include "instance.h"
#include "journal.h"
#include "logger.h"
#include "proto.h"
#include "rule.h"
#include "stats.h"
#include "text.h"

namespace {

constexpr int FIELD_SIZE = 256;  // an expanded field of a call file
constexpr std::string_view STATUS_PREFIX = "status_";
constexpr int STATUS_LINE_SIZE = 256;

// An expanded template in a buffer of its own.
template <int SIZE>
struct expanded_t {
    char text[SIZE];

    expanded_t(const char *fmt, const placeholders_t &with, quoting_t quoting, int size) {
        expand_template(text, size, fmt, with, quoting);
    }
};

// The staging directory fails every call in the same way.
void warn_of_direct_writing(const staged_call_t &call) {
    static once_per_load_t warning;
    if (warning.is_first()) {
        LOG_AS(LEVEL_WARNING, "call_action",
               "Unable to stage call files in %s: %s. Writing them directly\n", call.staging_dir,
               strerror(call.staging_error));
    }
}

void warn_of_not_following(const staged_call_t &call) {
    static once_per_load_t warning;
    if (call.follow_error != 0 && warning.is_first()) {
        LOG_AS(LEVEL_ERROR, "call_action", "Unable to follow call %s in %s: %s\n", call.name,
               followed_dir(call.staging_dir).c_str(), strerror(call.follow_error));
    }
}

// Whether a call of this name is to be followed.
bool is_followed(const pager_t *pager, const char *name) {
    static once_per_load_t warning;
    if (load_shared(pager->follow_calls) == 0 || can_be_followed(name)) {
        return load_shared(pager->follow_calls) != 0;
    }
    if (warning.is_first()) {
        LOG_AS(LEVEL_ERROR, "call_action",
               "Call %s is not followed: more than letters, digits and * + _ . - in its name, or "
               "too long\n",
               name);
    }
    return false;
}

// Stores a call file under its name, directly or by way of the pager's staging directory. Logs on
// behalf of call_action().
//   followed  what has to be known of a call to follow; null: it is not followed
outcome_t store_call_file(const pager_t *pager, const char *name, std::string_view content,
                          followed_call_t *followed) {
    char spool_dir[sizeof pager->spool_dir];
    char staging_dir[sizeof pager->staging_dir];
    read_tables([&] {
        copy_text(spool_dir, text_copy_t(pager->spool_dir).text);
        copy_text(staging_dir, text_copy_t(pager->staging_dir).text);
    });
    staged_call_t call{staging_dir, spool_dir, name, "", 0};
    call_file_result_t result{};
    if (staging_dir[0] == '\0') {
        join_path(call.path, spool_dir, name);
        result = call_file_write(call.path, content);
    } else if (followed != nullptr) {
        result = call_file_follow(&call, content, to_comments(*followed));
        warn_of_not_following(call);
    } else {
        result = call_file_stage(&call, content);
    }
    if (result.outcome == call_file_t::NOT_OPENED) {
        LOG_AS(LEVEL_ERROR, "call_action", "Unable to open file for writing\n");
    } else if (result.outcome == call_file_t::NOT_WRITTEN) {
        LOG_AS(LEVEL_ERROR, "call_action", "Unable to write call file %s: %s\n", call.path,
               result.error != 0 ? strerror(result.error) : "incomplete");
    } else if (call.staging_error != 0) {
        warn_of_direct_writing(call);
    }
    outcome_t outcome;
    outcome.succeeded = outcome.was_done = result.outcome == call_file_t::WRITTEN;
    if (outcome.succeeded) {
        copy_text(outcome.file, std::string_view(call.path).substr(strlen(spool_dir) + 1));
    }
    if (call.is_followed) {
        outcome.is_followed = true;
        followed->name = outcome.file;
        follow_call(pager, staging_dir, *followed, call.size);
    }
    return outcome;
}

followed_call_t call_to_follow(const pager_t *pager, const rule_t *rule, const placeholders_t &with,
                               const call_fields_t &fields, const chain_t &chain) {
    followed_call_t call;
    call.daemon = instance();
    call.line = table_text(pager->name).text;
    call.rule = rule->name;
    call.address = with.number != nullptr ? with.number : "";
    call.text = with.message != nullptr ? with.message : "";
    std::copy(std::begin(fields.texts), std::end(fields.texts), call.fields.begin());
    call.after = chain.after;
    call.alrm = with.alrm;
    call.passed_on = chain.passed_on;
    call.placed_ms = milliseconds_now();
    return call;
}

outcome_t place_call(const pager_t *pager, const rule_t *rule, const placeholders_t &with,
                     const call_fields_t &fields, const chain_t &chain) {
    call_text_t call;
    if (!compose_call(&call, rule, with)) {
        LOG_AS(LEVEL_ERROR, "call_action",
               "Extension of rule %s leads out of the spool directory\n", rule->name);
        return {false, false};
    }
    if (!is_followed(pager, call.name)) {
        return store_call_file(pager, call.name, call.content, nullptr);
    }
    followed_call_t followed = call_to_follow(pager, rule, with, fields, chain);
    return store_call_file(pager, call.name, call.content, &followed);
}

void add_seconds(call_text_t *call, const char *setting, int seconds) {
    if (seconds >= 0) {
        const size_t length = strlen(call->content);
        snprintf(call->content + length, sizeof call->content - length, "%s: %d\r\n", setting,
                 seconds);
    }
}

outcome_t run_command(const rule_t *rule, const placeholders_t &with) {
    command_text_t command;
    if (!compose_command(&command, rule, with)) {
        LOG_AS(LEVEL_ERROR, "call_action", "Command line of rule %s is too long, not run\n",
               rule->name);
        return {false, false};
    }
    LOG_AS(LEVEL_DEBUG, "call_action", "Calling cmd line: %s\n", command.line);
    const int status = command_run(command.line);
    outcome_t outcome;
    outcome.succeeded = status == 0;  // whether it succeeds is its own business
    outcome.exit_status = status;
    return outcome;
}

// Raises a service alarm for a call record, or for none; logs on behalf of `function`.
void raise_alarm(pager_t *pager, int alrm, const espa_record_t *record, const char *function) {
    if (alarm_time(pager, alrm) == 0) {
        return;
    }
    const int64_t began = microseconds_passed();
    LOG_AS(LEVEL_VERBOSE, function, "Call service action %s\n", alarm_name(alrm));
    if (load_shared(pager->send_service_actions) == 0) {
        LOG_AS(LEVEL_VERBOSE, function, "Service actions disabled\n");
        count_alarm(alrm, alarm_result_t::DISABLED);
        return;
    }
    const char *number = record != nullptr ? record->call_address : nullptr;
    const char *message = record != nullptr ? record->display_message : nullptr;
    count_alarm(alrm, alarm_result_t::RAISED);
    rule_t rule;
    const bool found = choose_rule(pager, message, &rule);
    outcome_t outcome;
    if (found) {
        outcome = perform_action(pager, alrm, number, message, &rule);
    }
    journal_write({pager, alrm, "", "", found ? &rule : nullptr, outcome, began});
    raise_if_not_done(pager, outcome);
}

// The first lines of a file in the spool directory.
class spool_file_t {
  public:
    spool_file_t(const pager_t *pager, std::string_view name) {
        spool_path(path_, pager, name);
        file_ = open_text(path_);
    }
    bool is_open() const { return file_ != nullptr; }
    // The next line, at most 255 bytes, in a buffer padded with zeros.
    void read_line(char (&line)[STATUS_LINE_SIZE]) {
        memset(line, 0, sizeof line);
        if (fgets(line, sizeof line, file_.get()) == nullptr) {
            line[0] = '\0';
        }
    }
    void remove() { unlink(path_); }

  private:
    char path_[PATH_SIZE];
    unique_file_t file_;
};

std::string_view without_line_end(const char *line) {
    return {line, strcspn(line, "\r\n")};
}

// No block check character follows, and no answer is waited for.
void send_status(int sock, std::string_view address, std::string_view message,
                 std::string_view status) {
    constexpr std::string_view OPENING =
        "\x04"
        "1\x05"
        "2\x05\x01"
        "2\x02"
        "1\x1F";
    constexpr std::string_view MESSAGE_BLOCK =
        "\x1E"
        "2\x1F";
    constexpr std::string_view STATUS_BLOCK =
        "\x1E"
        "7\x1F";
    for (const std::string_view bytes : {OPENING, address, MESSAGE_BLOCK, message, STATUS_BLOCK,
                                         status, std::string_view("\x03")}) {
        write_reply(sock, bytes);
    }
}

// Logs on behalf of process_status_feedbacks().
void process_status(const pager_t *pager, std::string_view name) {
    spool_file_t status(pager, name);
    spool_file_t call(pager, "call_" + std::string(name.substr(STATUS_PREFIX.size())));
    if (!call.is_open()) {
        status.remove();
        return;
    }
    if (!status.is_open()) {
        return;  // somebody else has taken it
    }
    char address_line[STATUS_LINE_SIZE];
    char message_line[STATUS_LINE_SIZE];
    char status_line[STATUS_LINE_SIZE];
    call.read_line(address_line);
    call.read_line(message_line);
    status.read_line(status_line);
    status.remove();
    status.remove();  // also one that the agent has put there since
    const std::string_view address = without_line_end(address_line);
    LOG_AS(LEVEL_DEBUG, "process_status_feedbacks", "send call status %c to %.*s", status_line[0],
           static_cast<int>(address.size()), address.data());
    send_status(load_shared(pager->socket), address, without_line_end(message_line),
                {status_line, 2});
}

}  // namespace

bool compose_call(call_text_t *call, const rule_t *rule, const placeholders_t &with) noexcept {
    const bool quotes = rule->quote != 0;
    const quoting_t of_names = quotes ? quoting_t::NAME : quoting_t::NONE;
    const quoting_t of_caller = quotes ? quoting_t::CALLER_ID : quoting_t::NONE;
    const int size = quotes ? QUOTED_FIELD_SIZE : FIELD_SIZE;
    const expanded_t<FIELD_SIZE> extension(rule->extension, with, of_names, size);
    const expanded_t<FIELD_SIZE> context(rule->context, with, of_names, size);
    const expanded_t<FIELD_SIZE> callerid(rule->callerid, with, of_caller, size);
    const expanded_t<FIELD_SIZE> channel(rule->channel, with, of_names, size);

    snprintf(call->name, sizeof call->name, "call_%s_%d", extension.text, seconds_now());
    snprintf(call->content, sizeof call->content,
             "Channel: %s\r\nContext: %s\r\nExtension: %s\r\nCallerID: %s\r\n"
             "Priority: 1\r\nMaxRetries: %d\r\n",
             channel.text, context.text, extension.text, callerid.text,
             std::max(rule->max_retries, 0));
    add_seconds(call, "WaitTime", rule->wait_time);
    add_seconds(call, "RetryTime", rule->retry_time);
    return !quotes || std::string_view(call->name).find("/../") == std::string_view::npos;
}

bool compose_command(command_text_t *command, const rule_t *rule,
                     const placeholders_t &with) noexcept {
    const bool quotes = rule->quote != 0;
    const bool fits = expand_template(command->line, sizeof command->line, rule->callscript, with,
                                      quotes ? quoting_t::COMMAND : quoting_t::NONE);
    return fits || !quotes;
}

outcome_t perform_action(const pager_t *pager, int alrm, const char *number, const char *message,
                         const rule_t *rule, const call_fields_t &fields,
                         const chain_t &chain) noexcept {
    placeholders_t with{alrm, number, message, rule->values};
    text_copy_t<sizeof pager->name> line;
    if (rule->record_fields != 0) {
        line = table_text(pager->name);
        with.fields = &fields;
        with.line = line.text;
    }
    outcome_t outcome;
    if (rule->action == CALL) {
        const acting_t acting;
        outcome = place_call(pager, rule, with, fields, chain);
    } else if (rule->action == SCRIPT) {
        const acting_t acting;
        outcome = run_command(rule, with);
    }
    my_stats().actions[static_cast<size_t>(rule->action)][outcome.succeeded ? 1 : 0].add();
    return outcome;
}

void raise_if_not_done(pager_t *pager, const outcome_t &outcome) noexcept {
    if (!outcome.was_done) {
        call_script(pager, ALARM_GENERAL_ERROR, nullptr);
    }
}

void call_action(pager_t *pager, int alrm, const char *number, const char *message,
                 rule_t *rule) noexcept {
    raise_if_not_done(pager, perform_action(pager, alrm, number, message, rule));
}

void call_service_action(pager_t *pager, int alrm) noexcept {
    raise_alarm(pager, alrm, nullptr, __func__);
}

void call_script(pager_t *pager, int alrm, const espa_p *p) noexcept {
    raise_alarm(pager, alrm, p != nullptr ? &p->record : nullptr, __func__);
}

void process_status_feedbacks(pager_t *pager) noexcept {
    const unique_dir_t directory(opendir(table_text(pager->spool_dir).text));
    if (!directory) {
        LOG(LEVEL_ERROR, "Unable to open directory\n");
        call_script(pager, ALARM_GENERAL_ERROR, nullptr);
        return;
    }
    while (const dirent *entry = readdir(directory.get())) {
        if (std::string_view(entry->d_name).starts_with(STATUS_PREFIX)) {
            process_status(pager, entry->d_name);
        }
    }
}
