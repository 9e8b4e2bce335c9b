#include "options.h"

#include <algorithm>
#include <cctype>

#include "arguments.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int MAX_PORT = 65535;
constexpr int MAX_SECONDS = 86400;
constexpr int MAX_COUNT = 1'000'000'000;

constexpr const char *USAGE =
    "Usage: espasend --listen PORT [options] --message TEXT ...\n"
    "       espasend --connect HOST:PORT [options] --message TEXT ...\n"
    "       espasend --device PATH [options] --message TEXT ...\n"
    "       espasend --listen PORT ... --replay FILE\n"
    "\n"
    "Plays the paging system of a vesperd line and delivers calls over it. With --standard\n"
    "it follows the link procedure of ESPA 4.4.4, which a line with espa_address expects.\n"
    "\n";

constexpr const char *EXAMPLES =
    "\n"
    "Examples:\n"
    "  espasend --listen 2233 --address 4711 --message 'FIRE ZONE 3'\n"
    "  espasend --connect 192.0.2.5:4001 --standard --to 2 --message 'FIRE ZONE 3'\n"
    "  espasend --device /dev/ttyS0 --baud 1200 --message 'Pump 2 stopped' --priority 1\n"
    "  espasend --listen 2233 --replay line.txt\n"
    "  espasend --listen 2233 --ascii --count 10 --interval 2 --message 'ALARM 12'\n"
    "\n"
    "Exit status: 0 everything was delivered, or answered as recorded, 1 it was not,\n"
    "2 an argument is wrong.\n";

void add_line_options(arguments_t *arguments, options_t *options) {
    arguments->text("Where the line is:\n");
    arguments->number("-l, --listen PORT",
                      "wait for vesperd to connect, as a converter does;\nport 0 picks a free one",
                      0, MAX_PORT, &options->port);
    arguments->text_option("--bind ADDRESS", "IPv4 address to wait on (127.0.0.1)", &options->bind);
    arguments->text_option("-c, --connect HOST:PORT",
                           "connect to vesperd, to a line with listen = yes", &options->connect);
    arguments->text_option("-D, --device PATH", "use a serial device or pseudo-terminal",
                           &options->device);
    serial_settings_t *serial = &options->serial;
    arguments->number("--baud RATE", "1200 to 115200 (9600)", 1200, 115200, &serial->baud);
    arguments->number("--bits N", "7 or 8 data bits (8)", 7, 8, &serial->bits);
    arguments->text_option("--parity KIND", "none, even or odd (none)", &serial->parity);
    arguments->number("--stop N", "1 or 2 stop bits (1)", 1, 2, &serial->stop);
}

void add_standard_options(arguments_t *arguments, options_t *options) {
    arguments->text("\nHow ESPA 4.4.4 is spoken:\n");
    arguments->flag("--standard", "follow the link procedure, as a control station",
                    &options->standard);
    arguments->text_option("--own DIGIT", "the control station's address (1)", &options->own);
    arguments->text_option("--to DIGIT", "the station that is called and polled (2)", &options->to);
    arguments->text_option("--also-poll DIGITS", "other stations that are polled, as in 4,5",
                           &options->also_poll);
    arguments->text_option("--also-select DIGITS",
                           "other stations, whose answers are not heard, that get each\n"
                           "call too",
                           &options->also_select);
    arguments->number("--poll SECONDS", "pause between two polls (2); 0: none", 0, MAX_SECONDS,
                      &options->poll);
    arguments->flag("--enq", "ask for each answer to a packet once more", &options->enq);
}

void add_call_options(arguments_t *arguments, options_t *options) {
    call_t *call = &options->call;
    arguments->text("\nWhat is sent:\n");
    arguments->option("-m, --message TEXT", "display message; repeat it for several calls",
                      [=](const std::string &text) { options->messages.push_back(text); });
    arguments->text_option("-a, --address A", "call address", &call->address);
    arguments->text_option("--beep B", "beep coding", &call->beep);
    arguments->text_option("--type T", "call type", &call->type);
    arguments->text_option("--transmissions N", "number of transmissions", &call->transmissions);
    arguments->text_option("--priority P", "priority", &call->priority);
    arguments->flag("-A, --ascii", "send plain lines instead of ESPA 4.4.4", &options->ascii);
    arguments->number("--count N", "send everything N times (1)", 1, MAX_COUNT, &options->count);
    arguments->number("--interval SECONDS", "pause between two calls (0)", 0, MAX_SECONDS,
                      &options->interval);
    arguments->number("--repeat N",
                      "repeat a call that is answered with NAK N times (3; with\n--standard 2)", 0,
                      MAX_COUNT, &options->repeat);
    arguments->number("--garble N",
                      "give the first N packets of each call a wrong block\ncheck character (0)", 0,
                      MAX_COUNT, &options->garble);
}

bool has_control(const std::string &text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return iscntrl(c) != 0; });
}

// One digit, or with commas between them several.
bool is_address_list(const std::string &text) {
    for (size_t i = 0; i < text.size(); i++) {
        const bool is_right =
            i % 2 == 0 ? isdigit(static_cast<unsigned char>(text[i])) != 0 : text[i] == ',';
        if (!is_right) {
            return false;
        }
    }
    return text.size() % 2 == 1;
}

void check_addresses(const arguments_t &arguments, const options_t &options) {
    for (const auto &[name, text] : {std::pair("--own", &options.own), {"--to", &options.to}}) {
        if (text->size() != 1 || !is_address_list(*text)) {
            arguments.refuse(name + (" takes a digit, not '" + *text + "'"));
        }
    }
    for (const auto &[name, text] :
         {std::pair("--also-poll", &options.also_poll), {"--also-select", &options.also_select}}) {
        if (!text->empty() && !is_address_list(*text)) {
            arguments.refuse(name +
                             (" takes digits with commas between them, not '" + *text + "'"));
        }
    }
}

void check_replay(const arguments_t &arguments, const options_t &options) {
    if (options.replay.empty() && options.messages.empty()) {
        arguments.refuse("give at least one --message");
    }
    if (!options.replay.empty() &&
        (!options.messages.empty() || options.ascii || options.standard || options.hold > 0)) {
        arguments.refuse("--replay sends what was recorded, and nothing else");
    }
    if (!options.replay.empty() && options.replay == options.record) {
        arguments.refuse("--record would write over what --replay reads");
    }
}

// What the options say together.
void check_options(const arguments_t &arguments, const options_t &options) {
    const int ways = (options.port >= 0 ? 1 : 0) + (options.connect.empty() ? 0 : 1) +
                     (options.device.empty() ? 0 : 1);
    if (ways != 1) {
        arguments.refuse("give one of --listen, --connect and --device");
    }
    const std::string &parity = options.serial.parity;
    if (parity != "none" && parity != "even" && parity != "odd") {
        arguments.refuse("--parity takes none, even or odd, not '" + parity + "'");
    }
    check_addresses(arguments, options);
    if (options.ascii && options.standard) {
        arguments.refuse("give either --ascii or --standard");
    }
    if (options.ascii && options.garble > 0) {
        arguments.refuse("--garble needs a block check character, which lines have not");
    }
    check_replay(arguments, options);
    const call_t &call = options.call;
    std::vector<std::string> sent = options.messages;
    sent.insert(sent.end(),
                {call.address, call.beep, call.type, call.transmissions, call.priority});
    if (std::any_of(sent.begin(), sent.end(), has_control)) {
        arguments.refuse("what is sent must not contain control characters");
    }
}

}  // namespace

options_t parse_options(int argc, char **argv) {
    options_t options;
    arguments_t arguments("espasend", EXIT_USAGE);
    arguments.text(USAGE);
    add_line_options(&arguments, &options);
    add_standard_options(&arguments, &options);
    add_call_options(&arguments, &options);
    arguments.text("\nRecordings:\n");
    arguments.text_option("--record FILE", "write what is sent and answered, with times, to FILE",
                          &options.record);
    arguments.text_option("--replay FILE",
                          "send what a recording has, and tell where answers differ;\n"
                          "-: standard input, as from tshark",
                          &options.replay);
    arguments.text("\n");
    arguments.number("--wait SECONDS", "longest wait for a connection and for each answer (30)", 1,
                     MAX_SECONDS, &options.wait);
    arguments.number("--hold SECONDS", "keep the line up after the last call (0)", 0, MAX_SECONDS,
                     &options.hold);
    arguments.help_flag();
    arguments.text(EXAMPLES);
    arguments.parse(argc, argv, 0);
    check_options(arguments, options);
    if (options.repeat < 0) {
        options.repeat = options.standard ? 2 : 3;
    }
    return options;
}

std::string digits_of(const std::string &list) {
    std::string digits = list;
    std::erase(digits, ',');
    return digits;
}
