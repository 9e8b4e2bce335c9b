// Any call address and message in any template with quoting: a shell takes a command line apart, and
// a reader that follows the PBX's rules the call file. An input is a recipe for the command's
// template, call address and message, separated by zero bytes.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <vector>

#include "action.h"
#include "call_file_reader.h"
#include "fuzz.h"
#include "text.h"

namespace {

constexpr std::string_view SPOOL = "/in/memory";

std::string call_path;

// What is written there: a file without a name, of which the caller gets another descriptor each time.
const int call_file = memfd_create("call", MFD_CLOEXEC);

int open_call_file() {
    require(ftruncate(call_file, 0) == 0 && lseek(call_file, 0, SEEK_SET) == 0);
    return dup(call_file);
}

std::string call_content() {
    char content[4096];
    const ssize_t size = pread(call_file, content, sizeof content, 0);
    require(size >= 0);
    return {content, static_cast<size_t>(size)};
}

using words_t = std::vector<std::string>;

// A shell that runs for as long as the target.
class shell_t {
  public:
    shell_t() {
        int to_shell[2];
        int from_shell[2];
        require(pipe2(to_shell, O_CLOEXEC) == 0 && pipe2(from_shell, O_CLOEXEC) == 0);
        if (fork() == 0) {
            dup2(to_shell[0], STDIN_FILENO);
            dup2(from_shell[1], STDOUT_FILENO);
            execl("/bin/sh", "sh", nullptr);
            _exit(127);
        }
        script_ = fdopen(to_shell[1], "w");
        answer_ = fdopen(from_shell[0], "r");
    }

    // What the shell makes of the words of a command line.
    words_t split(const std::string &words) {
        fprintf(script_, "set -- %s\nprintf '%%s\\0' \"$#\" \"$@\"\n", words.c_str());
        fflush(script_);
        words_t found(static_cast<size_t>(atoi(next().c_str())));
        for (std::string &word : found) {
            word = next();
        }
        return found;
    }

  private:
    std::string next() {
        std::string word;
        int c = 0;
        while ((c = fgetc(answer_)) > 0) {
            word += static_cast<char>(c);
        }
        require(c == 0);
        return word;
    }

    FILE *script_;
    FILE *answer_;
};

std::string value_of(const rule_t &rule, const std::string &message) {
    char text[256] = "";
    match_regex(&rule.values[0].pattern, message.c_str(), text, sizeof text);
    return text;
}

// Every letter of a recipe is a piece of the template. A literal point goes behind a value, because
// what follows one is copied.
void check_command(const rule_t &rule, const std::string &recipe, const placeholders_t &with) {
    static shell_t shell;
    const std::string value = value_of(rule, with.message);
    std::string fmt;
    words_t expected;
    bool in_word = false;
    for (const char piece : recipe) {
        if (piece == ' ') {
            fmt += ' ';
            in_word = false;
            continue;
        }
        if (!in_word) {
            expected.emplace_back();
        }
        in_word = true;
        std::string &word = expected.back();
        if (piece == 'n') {
            fmt += "%number%";
            word += with.number;
        } else if (piece == 'm') {
            fmt += "%message%";
            word += with.message;
        } else if (piece == 'v') {
            fmt += "$v.";
            word += value + ".";
        } else {
            fmt += 'x';
            word += 'x';
        }
    }
    char line[1024];
    if (expand_template(line, sizeof line, fmt, with, quoting_t::COMMAND)) {
        require(shell.split(line) == expected);
    }
}

// A caller id's text as the PBX has it in the end.
std::string without_form(std::string text) {
    std::erase_if(text, [](char c) { return strchr("#\"<>", c) != nullptr; });
    for (char &c : text) {
        c = (c >= 0 && c < ' ') || c == '\x7F' ? ' ' : c;
    }
    return text;
}

void check_call_file(rule_t *rule, const placeholders_t &with) {
    static pager_t pager;
    copy_text(pager.spool_dir, SPOOL);
    call_path.clear();
    const outcome_t outcome =
        perform_action(&pager, ALARM_MESSAGE, with.number, with.message, rule);
    require(outcome.succeeded && call_path.starts_with(std::string(SPOOL) + "/call_"));
    require(call_path.rfind('/') == SPOOL.size());
    const words_t settings = read_as_pbx(call_content());
    require(settings.size() == 6);
    const char *keys[] = {
        "Channel:", "Context:", "Extension:", "CallerID:", "Priority:1", "MaxRetries:0"};
    for (size_t i = 0; i < settings.size(); i++) {
        require(settings[i].starts_with(keys[i]));
    }
    require(settings[0].starts_with("Channel:Local/"));
    require(std::count(settings[0].begin(), settings[0].end(), '/') == 1);
    const std::string caller =
        "CallerID:\"" + without_form(with.message) + "\" <" + without_form(with.number) + ">";
    require(caller.starts_with(settings[3]));
    require(caller.size() > 120 || caller == settings[3]);
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...) {
    static const auto real = in_libc(&open, "open");
    if (std::string_view(path).starts_with(SPOOL)) {
        call_path = path;
        return open_call_file();
    }
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return real(path, flags, mode);
}
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    quiet_log();
    const std::string text = stretched(as_text(data, size));
    std::string_view rest = text;
    const std::string recipe = next_piece(&rest);
    const std::string number = next_piece(&rest);
    const std::string message = next_piece(&rest);
    static rule_t rule;
    rule.action = CALL;
    rule.quote = 1;
    rule.wait_time = rule.max_retries = rule.retry_time = NOT_GIVEN;
    copy_text(rule.values[0].name, "v");
    compile_regex(&rule.values[0].pattern, "([^x])");
    copy_text(rule.channel, "Local/%number%@$v.");
    copy_text(rule.context, "%message%");
    copy_text(rule.extension, "$v.%number%");
    copy_text(rule.callerid, "\"%message%\" <%number%>");
    const placeholders_t with{ALARM_MESSAGE, number.c_str(), message.c_str(), rule.values};
    check_command(rule, recipe, with);
    check_call_file(&rule, with);
    return 0;
}
