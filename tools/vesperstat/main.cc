// vesperstat: shows the lines of a running vesperd, by its status file.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "arguments.h"
#include "json.h"
#include "plugin.h"
#include "report.h"
#include "sources.h"
#include "table.h"

namespace {

constexpr int EXIT_UNKNOWN = 3;  // a monitoring system takes lower ones for an answer
constexpr int MAX_SECONDS = 366 * 86400;
constexpr unsigned WATCH_SECONDS = 1;

enum class output_t { TABLE, JSON, CHECK };

struct options_t {
    std::vector<std::string> files;
    output_t output = output_t::TABLE;
    bool watch = false;
    int down = 60;
    int silence = 0;
    int age = 60;
    bool critical_all = false;

    limits_t limits() const { return {double(down), double(silence), double(age)}; }
};

constexpr const char *USAGE =
    "Usage: vesperstat [-s FILE ...] [--watch] [--json] [limits]\n"
    "       vesperstat [-s FILE ...] --check [limits]\n"
    "\n"
    "Shows the lines of vesperd, what is wrong first.\n"
    "\n";

constexpr const char *EXAMPLES =
    "\n"
    "Examples:\n"
    "  vesperstat --watch\n"
    "  vesperstat --check --warn-silence 86400 --critical-down 120\n"
    "  vesperstat --json | jq -r '.instances[].lines[] | [.line, .state] | @tsv'\n"
    "\n"
    "Exit status: 0, or 3 when a file cannot be read or an argument is wrong.\n"
    "With --check: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.\n";

void add_output_options(arguments_t *arguments, options_t *options) {
    const auto set_output = [=](output_t output) {
        if (options->output != output_t::TABLE && options->output != output) {
            arguments->refuse("give either --json or --check");
        }
        options->output = output;
    };
    arguments->option("-s, --status-file FILE",
                      "what status_file of a daemon says; repeat it for\n"
                      "several (/run/vesperd/status.prom and those of all\n"
                      "instances, /run/vesperd/NAME.prom)",
                      [=](const std::string &file) { options->files.push_back(file); });
    arguments->flag("--watch", "show it again every second", &options->watch);
    arguments->option("--json", "print one JSON object",
                      [=](const std::string &) { set_output(output_t::JSON); });
    arguments->option("--check", "be a plugin of a monitoring system",
                      [=](const std::string &) { set_output(output_t::CHECK); });
}

void add_limits(arguments_t *arguments, options_t *options) {
    arguments->text("\nLimits:\n");
    arguments->number("--warn-silence SECONDS",
                      "a line without a message for longer is a warning\n(never)", 0, MAX_SECONDS,
                      &options->silence);
    arguments->number("--critical-down SECONDS",
                      "a line that has no connection, is in a packet or\n"
                      "runs a command for longer is critical (60)",
                      0, MAX_SECONDS, &options->down);
    arguments->flag("--critical-all",
                    "what is critical is so only when no line works,\nand else a warning",
                    &options->critical_all);
    arguments->number("--max-age SECONDS",
                      "a status that is older is that of a daemon that is\ngone (60)", 0,
                      MAX_SECONDS, &options->age);
}

options_t parse_options(int argc, char **argv) {
    options_t options;
    arguments_t arguments("vesperstat", EXIT_UNKNOWN);
    arguments.text(USAGE);
    add_output_options(&arguments, &options);
    add_limits(&arguments, &options);
    arguments.help_flag();
    arguments.text(EXAMPLES);
    arguments.parse(argc, argv, 0);
    if (options.watch && options.output == output_t::CHECK) {
        arguments.refuse("--check is done once, without --watch");
    }
    return options;
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::vector<report_t> make_reports(const options_t &options, status_files_t *files, double time) {
    const bool are_named = !options.files.empty();
    const sources_t sources = are_named ? sources_t{options.files, 0} : find_status_files();
    // The directory is the account's: what it links to is not for everybody who looks.
    const links_t links = are_named ? links_t::FOLLOW : links_t::REFUSE;
    const std::vector<std::string> names = instance_names(sources.files);
    std::vector<report_t> reports;
    for (size_t i = 0; i < names.size(); i++) {
        reports.push_back(make_report(files, sources.files[i], links, options.limits(), time));
        reports.back().instance = names[i];
    }
    if (sources.passed_over > 0) {
        reports.push_back(report_passed_over(STATUS_DIR, sources.passed_over));
    }
    if (options.critical_all) {
        soften_while_a_line_works(&reports);
    }
    return reports;
}

bool is_terminal() {
    const char *kind = getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && kind != nullptr && strcmp(kind, "dumb") != 0;
}

bool with_colour() {
    return is_terminal() && getenv("NO_COLOR") == nullptr;
}

// Prints once. Returns the exit status.
int show(const options_t &options, status_files_t *files) {
    const double time = now();
    const std::vector<report_t> reports = make_reports(options, files, time);
    std::string text;
    switch (options.output) {
        case output_t::TABLE:
            text = report_table(reports, time, with_colour());
            break;
        case output_t::JSON:
            text = report_json(reports, time);
            break;
        case output_t::CHECK:
            text = report_check(reports, options.limits(), time);
            break;
    }
    fputs(text.c_str(), stdout);
    if (options.output == output_t::CHECK) {
        return check_status(worst_level(reports));
    }
    for (const report_t &report : reports) {
        if (worst_level(report.problems) == level_t::UNKNOWN) {
            return EXIT_UNKNOWN;
        }
    }
    return EXIT_SUCCESS;
}

// Prints again and again; ends with the output, or by a signal.
[[noreturn]] void watch(const options_t &options) {
    const bool is_screen = is_terminal() && options.output == output_t::TABLE;
    status_files_t files;
    for (;;) {
        fputs(is_screen ? "\033[H\033[2J" : "", stdout);
        show(options, &files);
        if (!is_screen && options.output == output_t::TABLE) {
            putchar('\n');
        }
        if (fflush(stdout) != 0) {
            exit(EXIT_FAILURE);
        }
        sleep(WATCH_SECONDS);
    }
}

}  // namespace

int main(int argc, char **argv) {
    const options_t options = parse_options(argc, argv);
    if (options.watch) {
        watch(options);
    }
    status_files_t files;
    return show(options, &files);
}
