// vespercheck: tells what a configuration of vesperd does, before a reload does it.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "checks.h"
#include "files.h"
#include "instance.h"
#include "json.h"
#include "printable.h"

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
    bool converters = false;
    bool from_input = false;
    bool without_names = false;
    std::optional<std::string> message;
    record_texts_t record = {DEFAULT_ADDRESS, "", "", "", ""};
    std::vector<std::string> lines;
};

constexpr const char *USAGE =
    "Usage: vespercheck [options] [-i INSTANCE | FILE]\n"
    "       vespercheck -m MESSAGE [-l LINE]... [-a ADDRESS] [options]\n"
    "                   [-i INSTANCE | FILE]\n"
    "       vespercheck --loadable [-i INSTANCE | FILE]\n"
    "       vespercheck --converters [-i INSTANCE | FILE]\n"
    "\n"
    "Tells what a configuration of vesperd does (/etc/quillet.conf): what is wrong with\n"
    "it, line by line, and what would be served. Nothing is changed and nothing is run.\n"
    "\n";

constexpr const char *EXIT_STATUSES =
    "\n"
    "Exit status: 0 nothing or only notes, 1 warnings, 2 errors, 3 the file cannot be\n"
    "read, 64 an argument is wrong.\n";

void say(const std::string &what) {
    fprintf(stderr, "vespercheck: %s\n", printable(what).c_str());
}

void add_check_options(arguments_t *arguments, options_t *options) {
    arguments->option("-i, --instance NAME",
                      "the configuration of the instance vesperd@NAME,\n/etc/quillet/NAME.conf",
                      [=](const std::string &name) {
                          if (!is_instance_name(name.c_str())) {
                              arguments->refuse("no instance can have the name '" + name + "'");
                          }
                          options->asked_path = config_path_of(name);
                      });
    arguments->flag("-q, --quiet", "print what is wrong only", &options->quiet);
    arguments->flag("-j, --json", "print JSON, for programs", &options->json);
    arguments->flag("--no-resolve", "do not look up the names of hosts", &options->without_names);
    arguments->flag("--stdin",
                    "judge the text that comes on standard input as if the\nfile held it",
                    &options->from_input);
    arguments->flag("--loadable",
                    "only tell whether the daemon can load the file; everything\n"
                    "else that is wrong is printed and not counted",
                    &options->loadable);
    arguments->flag("--converters", "print the hosts of the lines, for scripts",
                    &options->converters);
}

void add_trial_options(arguments_t *arguments, options_t *options) {
    arguments->text("\n");
    arguments->option("-m, --message MESSAGE", "show which rule a message selects and what it does",
                      [=](const std::string &message) { options->message = message; });
    arguments->option("-l, --line LINE", "on this line, instead of on all; can be repeated",
                      [=](const std::string &line) { options->lines.push_back(lower_case(line)); });
    const auto field = [&](const char *form, const char *help, call_field_t which) {
        arguments->text_option(form, help, &options->record[static_cast<size_t>(which)]);
    };
    field("-a, --address A", "with this call address (1000)", call_field_t::ADDRESS);
    field("--priority P", "with this priority, as the call record has it", call_field_t::PRIORITY);
    field("--type T", "with this call type", call_field_t::TYPE);
    field("--beep B", "with this beep coding", call_field_t::BEEP);
    field("--transmissions N", "with this number of transmissions", call_field_t::TRANSMISSIONS);
}

options_t parse_options(int argc, char **argv) {
    options_t options;
    arguments_t arguments("vespercheck", EXIT_USAGE);
    arguments.text(USAGE);
    add_check_options(&arguments, &options);
    add_trial_options(&arguments, &options);
    arguments.text("\n");
    arguments.help_flag();
    arguments.text(EXIT_STATUSES);
    for (const std::string &file : arguments.parse(argc, argv, 2)) {
        if (options.asked_path) {
            arguments.refuse("one file at a time, not " + file + " too");
        }
        options.asked_path = file;
    }
    options.path = options.asked_path.value_or(config_path_of(""));
    if (options.converters && (options.loadable || options.message)) {
        arguments.refuse("--converters is asked alone");
    }
    if (options.from_input && options.loadable) {
        arguments.refuse("--loadable looks at the file itself, not at --stdin");
    }
    const record_texts_t unasked = options_t().record;
    if (!options.message && (!options.lines.empty() || options.record != unasked)) {
        arguments.refuse("--line and the fields of a call need --message");
    }
    return options;
}

int unreadable(const options_t &options) {
    const std::string what = options.from_input ? "standard input" : options.path;
    say(text_of("cannot read ", what, ": ", file_fault(errno, MAX_CONFIGURATION_SIZE)));
    return EXIT_UNREADABLE;
}

// Returns as read_configuration() does.
int read_text(const options_t &options, std::string *text) {
    return options.from_input ? read_to_end(stdin, MAX_CONFIGURATION_SIZE, text)
                              : read_configuration(options.path.c_str(), text);
}

int try_on_lines(const options_t &options, const site_t &site) {
    for (const std::string &name : options.lines) {
        const auto has_name = [&](const site_line_t &line) { return line.section->name == name; };
        if (std::none_of(site.lines.begin(), site.lines.end(), has_name)) {
            say(text_of("there is no line ", name, " in ", options.path, " (try --help)"));
            return EXIT_USAGE;
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
            trials.push_back(try_message(*line.pager, *options.message, options.record));
        }
    }
    if (options.json) {
        fputs(trials_json(options.path, *options.message, options.record, trials).c_str(), stdout);
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

void print_report(const options_t &options, const site_t &site,
                  const std::vector<finding_t> &findings) {
    const summary_t summary = summarize(site.outline.logger());
    const std::string not_judged = why_files_are_not_judged();
    if (options.json) {
        fputs(report_json(options.path, findings, not_judged.empty(), summary).c_str(), stdout);
        return;
    }
    print_findings(options, findings);
    if (!options.quiet) {
        fputs(summary_text(summary).c_str(), stdout);
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
        return unreadable(options);
    }
    site.neighbours = configurations_beside(options.path);
    print_findings(options, check(site, &findings));
    return EXIT_SUCCESS;
}

// For what else has to know the converters of a site, the health of a pair of machines for one.
int print_converters(const options_t &options) {
    std::string text;
    if (read_text(options, &text) != 0) {
        return unreadable(options);
    }
    outline_t outline;
    findings_t findings;
    outline_text(text, &outline, &findings);
    for (const std::string &host : hosts_of(outline)) {
        if (!host.empty()) {
            puts(printable(host).c_str());
        }
    }
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
    if (options.converters) {
        return print_converters(options);
    }
    site_t site;
    findings_t findings;
    std::string text;
    if (read_text(options, &text) != 0) {
        return unreadable(options);
    }
    const bool asks_names = !options.without_names && !options.message;
    load_site_text(options.path.c_str(), text, asks_names ? ask_hosts : take_hosts, &site,
                   &findings);
    site.neighbours = configurations_beside(options.path);
    if (options.message) {
        return try_on_lines(options, site);
    }
    const std::vector<finding_t> found = check(site, &findings);
    print_report(options, site, found);
    return status_of(found);
}
