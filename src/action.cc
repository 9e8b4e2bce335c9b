#include "action.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
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
constexpr std::string_view STATUS_PREFIX = "status_";
constexpr int STATUS_LINE_SIZE = 256;

int count_values(const value_t *values) {
    int count = 0;
    while (values != nullptr && count < MAX_VALUES && values[count].name[0] != '\0') {
        count++;
    }
    return count;
}

// What the placeholders of an expansion stand for.
struct expansion_t {
    int alrm;
    const char *number;
    const char *message;
    const value_t *values;
    int num_values;

    expansion_t(int alarm_code, const char *call_number, const char *text, const value_t *of_rule)
        : alrm(alarm_code),
          number(call_number != nullptr ? call_number : ""),
          message(text != nullptr ? text : ""),
          values(of_rule),
          num_values(count_values(of_rule)) {}
};

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

void expand(char *line, int size, std::string_view fmt, const expansion_t &with) {
    memset(line, 0, static_cast<size_t>(size));
    text_writer_t writer(line, size);
    while (!fmt.empty()) {
        fmt = expand_next(&writer, fmt, with);
    }
}

// An expanded template in a buffer of its own.
template <int SIZE>
struct expanded_t {
    char text[SIZE];

    expanded_t(const char *fmt, const expansion_t &with) { expand(text, SIZE, fmt, with); }
};

// Logs on behalf of call_action(). Returns whether the whole file was written.
bool write_file(const char *path, std::string_view content) {
    unique_fd_t file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file) {
        LOG_AS(LEVEL_ERROR, "call_action", "Unable to open file for writing\n");
        return false;
    }
    errno = 0;
    const ssize_t written = write(file.get(), content.data(), content.size());
    if (close(file.release()) == 0 && written == static_cast<ssize_t>(content.size())) {
        return true;
    }
    LOG_AS(LEVEL_ERROR, "call_action", "Unable to write call file %s: %s\n", path,
           errno != 0 ? strerror(errno) : "incomplete");
    unlink(path);  // the PBX would take an incomplete file for a broken call
    return false;
}

void write_call_file(pager_t *pager, const rule_t *rule, const expansion_t &with) {
    const expanded_t<FIELD_SIZE> extension(rule->extension, with);
    const expanded_t<FIELD_SIZE> context(rule->context, with);
    const expanded_t<FIELD_SIZE> callerid(rule->callerid, with);
    const expanded_t<FIELD_SIZE> channel(rule->channel, with);

    char name[FIELD_SIZE + 32];
    char path[PATH_SIZE];
    snprintf(name, sizeof name, "call_%s_%d", extension.text, seconds_now());
    spool_path(path, pager, name);

    char content[4 * FIELD_SIZE + 128];
    const int length = snprintf(content, sizeof content,
                                "Channel: %s\r\nContext: %s\r\nExtension: %s\r\nCallerID: %s\r\n"
                                "Priority: 1\r\nMaxRetries: 0\r\n",
                                channel.text, context.text, extension.text, callerid.text);
    if (!write_file(path, {content, static_cast<size_t>(length)})) {
        call_script(pager, ALARM_GENERAL_ERROR, nullptr);
    }
}

void run_command(const rule_t *rule, const expansion_t &with) {
    const expanded_t<COMMAND_SIZE> command(rule->callscript, with);
    LOG_AS(LEVEL_DEBUG, "call_action", "Calling cmd line: %s\n", command.text);
    const int status = system(command.text);
    static_cast<void>(status);  // whether a command succeeds is its own business
}

// Raises a service alarm for a call record, or for none; logs on behalf of `function`.
void raise_alarm(pager_t *pager, int alrm, const espa_record_t *record, const char *function) {
    if (alarm_time(pager, alrm) == 0) {
        return;
    }
    LOG_AS(LEVEL_VERBOSE, function, "Call service action %s\n", alarm_name(alrm));
    if (load_shared(pager->send_service_actions) == 0) {
        LOG_AS(LEVEL_VERBOSE, function, "Service actions disabled\n");
        return;
    }
    const char *number = record != nullptr ? record->call_address : nullptr;
    const char *message = record != nullptr ? record->display_message : nullptr;
    rule_t rule;
    if (choose_rule(pager, message, &rule)) {
        call_action(pager, alrm, number, message, &rule);
    }
}

// The first lines of a file in the spool directory.
class spool_file_t {
  public:
    spool_file_t(const pager_t *pager, std::string_view name) {
        spool_path(path_, pager, name);
        file_.reset(fopen(path_, "re"));
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

int format_string(char *line, int size, const char *fmt, int alrm, const char *number,
                  const char *msg, pager_t * /*pager*/, value_t *values) noexcept {
    if (size <= 0) {
        return 0;
    }
    expand(line, size, fmt, expansion_t(alrm, number, msg, values));
    return static_cast<int>(strlen(line));
}

void call_action(pager_t *pager, int alrm, const char *number, const char *message,
                 rule_t *rule) noexcept {
    const expansion_t with(alrm, number, message, rule->values);
    if (rule->action == CALL) {
        write_call_file(pager, rule, with);
    } else if (rule->action == SCRIPT) {
        run_command(rule, with);
    }
}

void call_service_action(pager_t *pager, int alrm) noexcept {
    raise_alarm(pager, alrm, nullptr, __func__);
}

void call_script(pager_t *pager, int alrm, const espa_p *p) noexcept {
    raise_alarm(pager, alrm, p != nullptr ? &p->record : nullptr, __func__);
}

void process_status_feedbacks(pager_t *pager) noexcept {
    const unique_dir_t directory(opendir(text_copy_t(pager->spool_dir).text));
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
