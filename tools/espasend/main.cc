// espasend: plays the paging station at the other end of vesperd's line.

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "arguments.h"
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

constexpr const char *USAGE =
    "Usage: espasend --listen PORT [options] --message TEXT ...\n"
    "       espasend --device PATH [options] --message TEXT ...\n"
    "\n"
    "Plays the paging station of a vesperd line and delivers calls over it.\n"
    "\n";

constexpr const char *EXAMPLES =
    "\n"
    "Examples:\n"
    "  espasend --listen 2233 --address 4711 --message 'FIRE ZONE 3'\n"
    "  espasend --device /dev/ttyS0 --baud 1200 --message 'Pump 2 stopped' --priority 1\n"
    "  espasend --listen 2233 --ascii --count 10 --interval 2 --message 'ALARM 12'\n"
    "\n"
    "Exit status: 0 everything was delivered, 1 it was not, 2 an argument is wrong.\n";

void add_line_options(arguments_t *arguments, options_t *options) {
    arguments->text("Where the line is:\n");
    arguments->number("-l, --listen PORT",
                      "wait for vesperd to connect, as a converter does;\nport 0 picks a free one",
                      0, MAX_PORT, &options->port);
    arguments->text_option("--bind ADDRESS", "IPv4 address to wait on (127.0.0.1)", &options->bind);
    arguments->text_option("-D, --device PATH", "use a serial device or pseudo-terminal, 8N1",
                           &options->device);
    arguments->number("--baud RATE", "1200 to 115200 (9600)", 1200, 115200, &options->baud);
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
    arguments->number("--repeat N", "repeat a call that is answered with NAK N times (3)", 0,
                      MAX_COUNT, &options->repeat);
    arguments->number("--garble N",
                      "give the first N packets of each call a wrong block\ncheck character (0)", 0,
                      MAX_COUNT, &options->garble);
}

bool has_control(const std::string &text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return iscntrl(c) != 0; });
}

// What the options say together.
void check_options(const arguments_t &arguments, const options_t &options) {
    if ((options.port >= 0) == !options.device.empty()) {
        arguments.refuse("give either --listen or --device");
    }
    if (options.ascii && options.garble > 0) {
        arguments.refuse("--garble needs a block check character, which lines have not");
    }
    if (options.messages.empty()) {
        arguments.refuse("give at least one --message");
    }
    const call_t &call = options.call;
    std::vector<std::string> sent = options.messages;
    sent.insert(sent.end(),
                {call.address, call.beep, call.type, call.transmissions, call.priority});
    if (std::any_of(sent.begin(), sent.end(), has_control)) {
        arguments.refuse("what is sent must not contain control characters");
    }
}

options_t parse_options(int argc, char **argv) {
    options_t options;
    arguments_t arguments("espasend", EXIT_USAGE);
    arguments.text(USAGE);
    add_line_options(&arguments, &options);
    add_call_options(&arguments, &options);
    arguments.text("\n");
    arguments.number("--wait SECONDS", "longest wait for a connection and for each answer (30)", 1,
                     MAX_SECONDS, &options.wait);
    arguments.number("--hold SECONDS", "keep the line up after the last call (0)", 0, MAX_SECONDS,
                     &options.hold);
    arguments.help_flag();
    arguments.text(EXAMPLES);
    arguments.parse(argc, argv, 0);
    check_options(arguments, options);
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
