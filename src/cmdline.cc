#include "cmdline.h"

#include <getopt.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "conf.h"
#include "rule.h"
#include "template.h"

char *config_file;
int foreground;
int console_log;
char *test_message;

namespace {

constexpr const char *TEST_NUMBER = "1000";
constexpr call_fields_t TEST_FIELDS = {{TEST_NUMBER, "", "", "", ""}};  // of an ESPA line
constexpr call_fields_t NO_FIELDS;
constexpr int EXPANSION_SIZE = 1024;

constexpr std::array<option, 6> longopts = {{{"help", no_argument, nullptr, 'h'},
                                             {"config", required_argument, nullptr, 'c'},
                                             {"foreground", no_argument, nullptr, 'f'},
                                             {"log-to-console", no_argument, nullptr, 'd'},
                                             {"test-message", required_argument, nullptr, 'm'},
                                             {nullptr, 0, nullptr, 0}}};

[[noreturn]] void refuse_options(char **argv) {
    usage(argv);
    exit(0);
}

const char *action_name(int action) {
    if (action == CALL) {
        return "CALL";
    }
    return action == SCRIPT ? "SCRIPT" : "SKIP";
}

void print_expansion(const char *label, const char *fmt, const rule_t *rule, quoting_t quoting) {
    char text[EXPANSION_SIZE];
    const bool quotes = rule->quote != 0;
    const int size = quotes && quoting != quoting_t::COMMAND ? QUOTED_FIELD_SIZE : EXPANSION_SIZE;
    placeholders_t with{ALARM_MESSAGE, TEST_NUMBER, test_message, rule->values};
    if (rule->record_fields != 0) {
        with.fields = &TEST_FIELDS;
        with.line = pagers[0].name;
    }
    const bool fits = expand_template(text, size, fmt, with, quotes ? quoting : quoting_t::NONE);
    fprintf(stderr, "%s%s\n", label, text);
    if (quotes && quoting == quoting_t::COMMAND && !fits) {
        fprintf(stderr, "\tToo long, it would not be run\n");
    }
}

}  // namespace

void usage(char **argv) noexcept {
    fprintf(stderr,
            "\n"
            "vesperd: ESPA 4.4.4 to PBX application daemon.\n\n"
            "Usage:\n"
            "%s [options]\n\n"
            "Where options are:\n"
            "\t-c <path>, --config=<path>\tuse custom config file \n"
            "\t-f, --foreground \t\trun in foreground mode\n"
            "\t-d, --log-to-console\t\tlog to console (requires -f)\n"
            "\t-m <message>,\n\t--test-message=<message>\tto test message against configured "
            "patterns\n"
            "\t-h, --help\t\t\tshow this text\n"
            "\n\n",
            argv[0]);
}

void get_options(int argc, char **argv) noexcept {
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "c:fdsm:h", longopts.data(), nullptr)) != -1) {
        switch (letter) {
            case 'c':
                config_file = strdup(optarg);
                break;
            case 'f':
                foreground = 1;
                break;
            case 'd':
                console_log = 1;
                break;
            case 'm':
                test_message = strdup(optarg);
                break;
            case 'h':
            case '?':
                refuse_options(argv);
            default:
                break;  // -s is accepted and does nothing
        }
    }
    if (console_log != 0 && foreground == 0) {
        refuse_options(argv);
    }
}

void run_test_mode() noexcept {
    const pager_t &pager = pagers[0];
    fprintf(stderr, "Running test over message: '%s' at pager '%s'\n", test_message, pager.name);
    fprintf(stderr, "Rules: %s\n", pager.rules);
    fprintf(stderr, "default rule: %s\n", pager.default_rule);
    rule_t *rule = select_rule(&pager, test_message,
                               pager.protocol == PROTOCOL_ASCII ? NO_FIELDS : TEST_FIELDS);
    if (rule == nullptr) {
        fprintf(stderr, "No matching rules found. Just skip\n");
        return;
    }
    fprintf(stderr, "Selected rule %s\n", rule->name);
    fprintf(stderr, "\tAction:\t%s\n", action_name(rule->action));
    if (rule->action == CALL) {
        print_expansion("\t\tCallerID: ", rule->callerid, rule, quoting_t::CALLER_ID);
        print_expansion("\t\tChannel: ", rule->channel, rule, quoting_t::NAME);
        print_expansion("\t\tContext: ", rule->context, rule, quoting_t::NAME);
        print_expansion("\t\tExtension: ", rule->extension, rule, quoting_t::NAME);
    } else if (rule->action == SCRIPT) {
        print_expansion("\tFollowing command to launch: \n\t\t", rule->callscript, rule,
                        quoting_t::COMMAND);
    }
}
