// espasend: plays the paging station at the other end of vesperd's line.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "control_station.h"
#include "line.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int MAX_PORT = 65535;
constexpr int MAX_SECONDS = 86400;
constexpr int MAX_COUNT = 1'000'000'000;
constexpr int IDLE_SECONDS = 5;  // between two EOTs that tell vesperd that the line is alive

struct options_t {
    int port = -1;
    std::string bind = "127.0.0.1";
    std::string device;
    int baud = 9600;
    bool ascii = false;
    call_t call;
    std::vector<std::string> messages;
    int count = 1;
    int interval = 0;
    int wait = 30;
    int hold = 0;
    int repeat = 3;
    int garble = 0;
};

enum : int {
    BIND = 256,
    BAUD,
    BEEP,
    TYPE,
    TRANSMISSIONS,
    PRIORITY,
    COUNT,
    INTERVAL,
    WAIT,
    HOLD,
    REPEAT,
    GARBLE
};

constexpr std::array<option, 19> longopts = {
    {{"listen", required_argument, nullptr, 'l'},
     {"bind", required_argument, nullptr, BIND},
     {"device", required_argument, nullptr, 'D'},
     {"baud", required_argument, nullptr, BAUD},
     {"ascii", no_argument, nullptr, 'A'},
     {"address", required_argument, nullptr, 'a'},
     {"message", required_argument, nullptr, 'm'},
     {"beep", required_argument, nullptr, BEEP},
     {"type", required_argument, nullptr, TYPE},
     {"transmissions", required_argument, nullptr, TRANSMISSIONS},
     {"priority", required_argument, nullptr, PRIORITY},
     {"count", required_argument, nullptr, COUNT},
     {"interval", required_argument, nullptr, INTERVAL},
     {"wait", required_argument, nullptr, WAIT},
     {"hold", required_argument, nullptr, HOLD},
     {"repeat", required_argument, nullptr, REPEAT},
     {"garble", required_argument, nullptr, GARBLE},
     {"help", no_argument, nullptr, 'h'},
     {nullptr, 0, nullptr, 0}}};

constexpr const char *HELP =
    "Usage: espasend --listen PORT [options] --message TEXT ...\n"
    "       espasend --device PATH [options] --message TEXT ...\n"
    "\n"
    "Plays the paging station of a vesperd line and delivers calls over it.\n"
    "\n"
    "Where the line is:\n"
    "  -l, --listen PORT      wait for vesperd to connect, as a converter does;\n"
    "                         port 0 picks a free one\n"
    "      --bind ADDRESS     IPv4 address to wait on (127.0.0.1)\n"
    "  -D, --device PATH      use a serial device or pseudo-terminal, 8N1\n"
    "      --baud RATE        1200 to 115200 (9600)\n"
    "\n"
    "What is sent:\n"
    "  -m, --message TEXT     display message; repeat it for several calls\n"
    "  -a, --address A        call address\n"
    "      --beep B           beep coding\n"
    "      --type T           call type\n"
    "      --transmissions N  number of transmissions\n"
    "      --priority P       priority\n"
    "  -A, --ascii            send plain lines instead of ESPA 4.4.4\n"
    "      --count N          send everything N times (1)\n"
    "      --interval SECONDS pause between two calls (0)\n"
    "      --repeat N         repeat a call that is answered with NAK N times (3)\n"
    "      --garble N         give the first N packets of each call a wrong block\n"
    "                         check character (0)\n"
    "\n"
    "      --wait SECONDS     longest wait for a connection and for each answer (30)\n"
    "      --hold SECONDS     keep the line up after the last call (0)\n"
    "  -h, --help             show this text\n"
    "\n"
    "Examples:\n"
    "  espasend --listen 2233 --address 4711 --message 'FIRE ZONE 3'\n"
    "  espasend --device /dev/ttyS0 --baud 1200 --message 'Pump 2 stopped' --priority 1\n"
    "  espasend --listen 2233 --ascii --count 10 --interval 2 --message 'ALARM 12'\n"
    "\n"
    "Exit status: 0 everything was delivered, 1 it was not, 2 an argument is wrong.\n";

[[noreturn]] void refuse(const std::string &why) {
    fprintf(stderr, "espasend: %s (try --help)\n", why.c_str());
    exit(EXIT_USAGE);
}

int parse_number(const char *name, const char *text, int least, int most) {
    int number = 0;
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        refuse(std::string("--") + name + " takes a number from " + std::to_string(least) + " to " +
               std::to_string(most) + ", not '" + text + "'");
    }
    return number;
}

std::string parse_text(const char *name, const char *text) {
    const auto is_control = [](char c) { return iscntrl(static_cast<unsigned char>(c)) != 0; };
    if (std::any_of(text, text + strlen(text), is_control)) {
        refuse(std::string("--") + name + " must not contain control characters");
    }
    return text;
}

void set_option(options_t *options, int letter) {
    switch (letter) {
        case 'l':
            options->port = parse_number("listen", optarg, 0, MAX_PORT);
            break;
        case BIND:
            options->bind = optarg;
            break;
        case 'D':
            options->device = optarg;
            break;
        case BAUD:
            options->baud = parse_number("baud", optarg, 1200, 115200);
            break;
        case 'A':
            options->ascii = true;
            break;
        case 'a':
            options->call.address = parse_text("address", optarg);
            break;
        case 'm':
            options->messages.push_back(parse_text("message", optarg));
            break;
        case BEEP:
            options->call.beep = parse_text("beep", optarg);
            break;
        case TYPE:
            options->call.type = parse_text("type", optarg);
            break;
        case TRANSMISSIONS:
            options->call.transmissions = parse_text("transmissions", optarg);
            break;
        case PRIORITY:
            options->call.priority = parse_text("priority", optarg);
            break;
        case COUNT:
            options->count = parse_number("count", optarg, 1, MAX_COUNT);
            break;
        case INTERVAL:
            options->interval = parse_number("interval", optarg, 0, MAX_SECONDS);
            break;
        case WAIT:
            options->wait = parse_number("wait", optarg, 1, MAX_SECONDS);
            break;
        case HOLD:
            options->hold = parse_number("hold", optarg, 0, MAX_SECONDS);
            break;
        case REPEAT:
            options->repeat = parse_number("repeat", optarg, 0, MAX_COUNT);
            break;
        case GARBLE:
            options->garble = parse_number("garble", optarg, 0, MAX_COUNT);
            break;
        case 'h':
            fputs(HELP, stdout);
            exit(EXIT_SUCCESS);
        default:
            exit(EXIT_USAGE);  // getopt_long has said what is wrong
    }
}

options_t parse_options(int argc, char **argv) {
    options_t options;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "l:D:Aa:m:h", longopts.data(), nullptr)) != -1) {
        set_option(&options, letter);
    }
    if (optind < argc) {
        refuse(std::string("unexpected argument '") + argv[optind] + "'");
    }
    if ((options.port >= 0) == !options.device.empty()) {
        refuse("give either --listen or --device");
    }
    if (options.ascii && options.garble > 0) {
        refuse("--garble needs a block check character, which lines have not");
    }
    if (options.messages.empty()) {
        refuse("give at least one --message");
    }
    return options;
}

// The line, from a first connection over any number of later ones.
class delivery_t {
  public:
    explicit delivery_t(const options_t &options)
        : options_(options), station_(-1, options.wait, stdout) {}

    void run() {
        open_line();
        for (int round = 0; round < options_.count; round++) {
            for (const std::string &message : options_.messages) {
                if (delivered_ > 0) {
                    keep_up(options_.interval);
                }
                deliver(message);
            }
        }
        keep_up(options_.hold);
    }

  private:
    void print_result() const {
        const size_t wanted = options_.messages.size() * static_cast<size_t>(options_.count);
        printf("%d of %zu %s\n", delivered_, wanted,
               options_.ascii ? "lines sent" : "calls acknowledged");
        fflush(stdout);
    }

    [[noreturn]] void fail(const std::string &why) const {
        fflush(stdout);
        fprintf(stderr, "espasend: %s\n", why.c_str());
        exit(EXIT_FAILURE);
    }

    void open_line() {
        std::string error;
        if (!options_.device.empty()) {
            line_ = open_serial(options_.device, options_.baud, &error);
        } else {
            line_ = accept_connection(&error);
        }
        if (!line_) {
            fail(error);
        }
        station_ = control_station_t(line_.get(), options_.wait, stdout);
        station_.set_repeats(options_.repeat, options_.garble);
    }

    unique_fd_t accept_connection(std::string *error) {
        if (!listener_) {
            listener_ = listen_on(options_.bind, options_.port, error);
            if (!listener_) {
                return unique_fd_t();
            }
        }
        printf("waiting for a connection on %s:%d\n", options_.bind.c_str(),
               bound_port(listener_.get()));
        fflush(stdout);
        unique_fd_t line = accept_within(listener_.get(), options_.wait, error);
        if (line) {
            printf("connected\n");
        }
        return line;
    }

    void deliver(const std::string &message) {
        if (station_.is_closed()) {
            printf("the line was closed\n");
            open_line();
        }
        options_.call.message = message;
        if (!(options_.ascii ? station_.send_line(message) : station_.send_call(options_.call))) {
            fail(station_.error());
        }
        delivered_++;
        print_result();
    }

    // Waits; an ESPA line that stays quiet for long would be taken down by vesperd.
    void keep_up(int seconds) {
        for (int left = seconds; left > 0; left -= IDLE_SECONDS) {
            sleep(static_cast<unsigned>(std::min(left, IDLE_SECONDS)));
            if (!options_.ascii && !station_.is_closed() && !station_.end_transmission()) {
                fail(station_.error());
            }
        }
    }

    options_t options_;
    unique_fd_t listener_;
    unique_fd_t line_;
    control_station_t station_;
    int delivered_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
    delivery_t(parse_options(argc, argv)).run();
    return EXIT_SUCCESS;
}
