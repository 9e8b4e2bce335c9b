// vesperstat: shows the lines of a running vesperd, by its status file.

#include <getopt.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "option_fault.h"
#include "printable.h"
#include "status_check.h"
#include "status_json.h"
#include "status_report.h"
#include "status_sources.h"
#include "status_table.h"

namespace {

constexpr int EXIT_UNKNOWN = 3;  // a monitoring system takes lower ones for an answer
constexpr int MAX_SECONDS = 366 * 86400;
constexpr unsigned WATCH_SECONDS = 1;

enum class output_t { TABLE, JSON, CHECK };

struct options_t {
    std::vector<std::string> files;
    output_t output = output_t::TABLE;
    bool watch = false;
    limits_t limits;
    bool critical_all = false;
};

enum : int { WATCH = 256, JSON, CHECK, WARN_SILENCE, CRITICAL_DOWN, CRITICAL_ALL, MAX_AGE };

constexpr std::array<option, 10> longopts = {
    {{"status-file", required_argument, nullptr, 's'},
     {"watch", no_argument, nullptr, WATCH},
     {"json", no_argument, nullptr, JSON},
     {"check", no_argument, nullptr, CHECK},
     {"warn-silence", required_argument, nullptr, WARN_SILENCE},
     {"critical-down", required_argument, nullptr, CRITICAL_DOWN},
     {"critical-all", no_argument, nullptr, CRITICAL_ALL},
     {"max-age", required_argument, nullptr, MAX_AGE},
     {"help", no_argument, nullptr, 'h'},
     {nullptr, 0, nullptr, 0}}};

constexpr const char *HELP =
    "Usage: vesperstat [-s FILE ...] [--watch] [--json] [limits]\n"
    "       vesperstat [-s FILE ...] --check [limits]\n"
    "\n"
    "Shows the lines of vesperd, what is wrong first.\n"
    "\n"
    "  -s, --status-file FILE       what status_file of a daemon says; repeat it for\n"
    "                               several (/run/vesperd/status.prom and those of all\n"
    "                               instances, /run/vesperd/NAME.prom)\n"
    "      --watch                  show it again every second\n"
    "      --json                   print one JSON object\n"
    "      --check                  be a plugin of a monitoring system\n"
    "\n"
    "Limits:\n"
    "      --warn-silence SECONDS   a line without a message for longer is a warning\n"
    "                               (never)\n"
    "      --critical-down SECONDS  a line that has no connection, is in a packet or\n"
    "                               runs a command for longer is critical (60)\n"
    "      --critical-all           what is critical is so only when no line works,\n"
    "                               and else a warning\n"
    "      --max-age SECONDS        a status that is older is that of a daemon that is\n"
    "                               gone (60)\n"
    "  -h, --help                   show this text\n"
    "\n"
    "Examples:\n"
    "  vesperstat --watch\n"
    "  vesperstat --check --warn-silence 86400 --critical-down 120\n"
    "  vesperstat --json | jq -r '.instances[].lines[] | [.line, .state] | @tsv'\n"
    "\n"
    "Exit status: 0, or 3 when a file cannot be read or an argument is wrong.\n"
    "With --check: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.\n";

[[noreturn]] void refuse(const std::string &why) {
    fprintf(stderr, "vesperstat: %s (try --help)\n", printable(why).c_str());
    exit(EXIT_UNKNOWN);
}

int parse_seconds(const char *name, const char *text) {
    int seconds = 0;
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, seconds);
    if (error != std::errc() || stop != end || seconds < 0 || seconds > MAX_SECONDS) {
        refuse(std::string("--") + name + " takes seconds, at most " + std::to_string(MAX_SECONDS) +
               ", not '" + text + "'");
    }
    return seconds;
}

void set_output(options_t *options, output_t output) {
    if (options->output != output_t::TABLE && options->output != output) {
        refuse("give either --json or --check");
    }
    options->output = output;
}

void set_option(options_t *options, int letter, char **argv) {
    switch (letter) {
        case 's':
            options->files.emplace_back(optarg);
            break;
        case WATCH:
            options->watch = true;
            break;
        case JSON:
            set_output(options, output_t::JSON);
            break;
        case CHECK:
            set_output(options, output_t::CHECK);
            break;
        case WARN_SILENCE:
            options->limits.silence = parse_seconds("warn-silence", optarg);
            break;
        case CRITICAL_DOWN:
            options->limits.down = parse_seconds("critical-down", optarg);
            break;
        case CRITICAL_ALL:
            options->critical_all = true;
            break;
        case MAX_AGE:
            options->limits.age = parse_seconds("max-age", optarg);
            break;
        case 'h':
            fputs(HELP, stdout);
            exit(EXIT_SUCCESS);
        default:
            refuse(option_fault(letter, argv));
    }
}

options_t parse_options(int argc, char **argv) {
    options_t options;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, ":s:h", longopts.data(), nullptr)) != -1) {
        set_option(&options, letter, argv);
    }
    if (optind < argc) {
        refuse(std::string("unexpected argument '") + argv[optind] + "'");
    }
    if (options.watch && options.output == output_t::CHECK) {
        refuse("--check is done once, without --watch");
    }
    return options;
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::vector<report_t> make_reports(const options_t &options, double time) {
    const bool are_named = !options.files.empty();
    const sources_t sources = are_named ? sources_t{options.files, 0} : find_status_files();
    // The directory is the account's: what it links to is not for everybody who looks.
    const links_t links = are_named ? links_t::FOLLOW : links_t::REFUSE;
    const std::vector<std::string> names = instance_names(sources.files);
    std::vector<report_t> reports;
    for (size_t i = 0; i < names.size(); i++) {
        reports.push_back(make_report(sources.files[i], links, options.limits, time));
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
int show(const options_t &options) {
    const double time = now();
    const std::vector<report_t> reports = make_reports(options, time);
    std::string text;
    switch (options.output) {
        case output_t::TABLE:
            text = report_table(reports, time, with_colour());
            break;
        case output_t::JSON:
            text = report_json(reports, time);
            break;
        case output_t::CHECK:
            text = report_check(reports, options.limits, time);
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
    for (;;) {
        fputs(is_screen ? "\033[H\033[2J" : "", stdout);
        show(options);
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
    return show(options);
}
