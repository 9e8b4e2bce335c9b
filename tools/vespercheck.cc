// vespercheck: tells what a configuration of vesperd does, before a reload does it.

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "check.h"
#include "files.h"
#include "instance.h"
#include "option_fault.h"
#include "printable.h"
#include "report_json.h"

namespace {

constexpr int EXIT_WARNINGS = 1;
constexpr int EXIT_ERRORS = 2;
constexpr int EXIT_UNREADABLE = 3;
constexpr int EXIT_USAGE = 64;

constexpr const char *DEFAULT_ADDRESS = "1000";  // as vesperd -m has it

struct options_t {
    std::optional<std::string> asked_path;
    std::string path;
    bool quiet = false;
    bool json = false;
    bool loadable = false;
    bool resolve = true;
    const char *message = nullptr;
    const char *address = DEFAULT_ADDRESS;
    std::vector<std::string> lines;
};

enum : int { LOADABLE = 256, NO_RESOLVE };

constexpr std::array<option, 10> longopts = {{{"quiet", no_argument, nullptr, 'q'},
                                              {"json", no_argument, nullptr, 'j'},
                                              {"instance", required_argument, nullptr, 'i'},
                                              {"loadable", no_argument, nullptr, LOADABLE},
                                              {"no-resolve", no_argument, nullptr, NO_RESOLVE},
                                              {"message", required_argument, nullptr, 'm'},
                                              {"line", required_argument, nullptr, 'l'},
                                              {"address", required_argument, nullptr, 'a'},
                                              {"help", no_argument, nullptr, 'h'},
                                              {nullptr, 0, nullptr, 0}}};

constexpr const char *HELP =
    "Usage: vespercheck [options] [-i INSTANCE | FILE]\n"
    "       vespercheck -m MESSAGE [-l LINE]... [-a ADDRESS] [options]\n"
    "                   [-i INSTANCE | FILE]\n"
    "       vespercheck --loadable [-i INSTANCE | FILE]\n"
    "\n"
    "Tells what a configuration of vesperd does (/etc/quillet.conf): what is wrong with\n"
    "it, line by line, and what would be served. Nothing is changed and nothing is run.\n"
    "\n"
    "  -i, --instance NAME    the configuration of the instance vesperd@NAME,\n"
    "                         /etc/quillet/NAME.conf\n"
    "  -q, --quiet            print what is wrong only\n"
    "  -j, --json             print JSON, for programs\n"
    "      --no-resolve       do not look up the names of hosts\n"
    "      --loadable         only tell whether the daemon can load the file; everything\n"
    "                         else that is wrong is printed and not counted\n"
    "\n"
    "  -m, --message MESSAGE  show which rule a message selects and what it does\n"
    "  -l, --line LINE        on this line, instead of on all; can be repeated\n"
    "  -a, --address A        with this call address (1000)\n"
    "\n"
    "  -h, --help             show this text\n"
    "\n"
    "Exit status: 0 nothing or only notes, 1 warnings, 2 errors, 3 the file cannot be\n"
    "read, 64 an argument is wrong.\n";

void say(const std::string &what) {
    fprintf(stderr, "vespercheck: %s\n", printable(what).c_str());
}

[[noreturn]] void refuse(const std::string &why) {
    say(why + " (try --help)");
    exit(EXIT_USAGE);
}

void set_option(options_t *options, int letter, char **argv) {
    switch (letter) {
        case 'q':
            options->quiet = true;
            break;
        case 'j':
            options->json = true;
            break;
        case 'i':
            if (!is_instance_name(optarg)) {
                refuse(std::string("no instance can have the name '") + optarg + "'");
            }
            options->asked_path = config_path_of(optarg);
            break;
        case LOADABLE:
            options->loadable = true;
            break;
        case NO_RESOLVE:
            options->resolve = false;
            break;
        case 'm':
            options->message = optarg;
            break;
        case 'l':
            options->lines.push_back(lower_case(optarg));
            break;
        case 'a':
            options->address = optarg;
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
    while ((letter = getopt_long(argc, argv, ":qjm:l:a:i:h", longopts.data(), nullptr)) != -1) {
        set_option(&options, letter, argv);
    }
    if (optind < argc && !options.asked_path) {
        options.asked_path = argv[optind++];
    }
    if (optind < argc) {
        refuse(std::string("one file at a time, not ") + argv[optind] + " too");
    }
    options.path = options.asked_path.value_or(config_path_of(""));
    if (options.message == nullptr && !options.lines.empty()) {
        refuse("--line needs --message");
    }
    return options;
}

int unreadable(const std::string &path) {
    say(text_of("cannot read ", path, ": ", file_fault(errno, MAX_CONFIGURATION_SIZE)));
    return EXIT_UNREADABLE;
}

int try_on_lines(const options_t &options, const site_t &site) {
    for (const std::string &name : options.lines) {
        const auto has_name = [&](const site_line_t &line) { return line.section->name == name; };
        if (std::none_of(site.lines.begin(), site.lines.end(), has_name)) {
            refuse("there is no line " + name + " in " + options.path);
        }
    }
    std::vector<trial_t> trials;
    for (const site_line_t &line : site.lines) {
        const bool is_wanted =
            options.lines.empty() || std::find(options.lines.begin(), options.lines.end(),
                                               line.section->name) != options.lines.end();
        if (is_wanted && line.pager == nullptr) {
            say(text_of("line ", line.section->name, " has no host and is left out"));
        } else if (is_wanted) {
            trials.push_back(try_message(*line.pager, options.message, options.address));
        }
    }
    if (options.json) {
        fputs(trials_json(options.path, options.message, options.address, trials).c_str(), stdout);
        return EXIT_SUCCESS;
    }
    for (const trial_t &trial : trials) {
        fputs(trial_text(trial).c_str(), stdout);
    }
    return EXIT_SUCCESS;
}

std::vector<finding_t> check(const site_t &site, findings_t *findings) {
    check_site(site, findings);
    return findings->sorted();
}

void print_findings(const options_t &options, const std::vector<finding_t> &findings) {
    const std::string path = printable(options.path);
    for (const finding_t &finding : findings) {
        printf("%s:%d: %s: %s\n", path.c_str(), finding.line, severity_name(finding.severity),
               printable(finding.text).c_str());
    }
}

void print_report(const options_t &options, const std::vector<finding_t> &findings) {
    const std::string not_judged = why_files_are_not_judged();
    if (options.json) {
        fputs(report_json(options.path, findings, not_judged.empty(), summarize()).c_str(), stdout);
        return;
    }
    print_findings(options, findings);
    if (!options.quiet) {
        fputs(summary_text(summarize()).c_str(), stdout);
        if (!not_judged.empty()) {
            printf("Files and directories are not judged: %s\n", printable(not_judged).c_str());
        }
    }
}

int status_of(const std::vector<finding_t> &findings) {
    severity_t worst = severity_t::NOTE;
    for (const finding_t &finding : findings) {
        worst = std::max(worst, finding.severity);
    }
    if (worst == severity_t::NOTE) {
        return EXIT_SUCCESS;
    }
    return worst == severity_t::WARNING ? EXIT_WARNINGS : EXIT_ERRORS;
}

// For a reload: whatever else is wrong, the daemon goes on with it.
int check_loadable(const options_t &options) {
    const std::string why = why_not_loadable(options.path.c_str());
    if (!why.empty()) {
        say(why + ". Not reloaded: the daemon goes on with what it has");
        return EXIT_UNREADABLE;
    }
    site_t site;
    findings_t findings;
    if (load_site(options.path.c_str(), take_hosts, &site, &findings) != 0) {
        return unreadable(options.path);
    }
    site.neighbours = configurations_beside(options.path);
    print_findings(options, check(site, &findings));
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char **argv) {
    const options_t options = parse_options(argc, argv);
    std::error_code error;  // without a working directory a relative path names no instance
    const auto absolute = std::filesystem::absolute(options.path, error).lexically_normal();
    set_instance(instance_of_config(absolute.string()));
    if (options.loadable) {
        return check_loadable(options);
    }
    site_t site;
    findings_t findings;
    const bool asks_names = options.resolve && options.message == nullptr;
    if (load_site(options.path.c_str(), asks_names ? ask_hosts : take_hosts, &site, &findings) !=
        0) {
        return unreadable(options.path);
    }
    site.neighbours = configurations_beside(options.path);
    if (options.message != nullptr) {
        return try_on_lines(options, site);
    }
    const std::vector<finding_t> found = check(site, &findings);
    print_report(options, found);
    return status_of(found);
}
