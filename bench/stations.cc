// Paging stations on pseudo-terminals, for a converter at their other ends:
//
//   bench_stations DIRECTORY LINES
//
// makes DIRECTORY/line1, DIRECTORY/line2, ... and calls on each of them once a second, under a number
// that no other call has, "CALL 3000017", until that call is acknowledged. Every call and every
// acknowledgement is a row of DIRECTORY/events: seconds since the epoch, line, number, and "sent" or
// "acknowledged". SIGTERM ends it.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "espasend/control_station.h"
#include "fd.h"
#include "site.h"

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds CALL_EVERY(1000);
constexpr int STEPS = 16;
constexpr int ANSWER_SECONDS = 2;
constexpr int NUMBERS_PER_LINE = 1'000'000;

void note(FILE *events, int line, int number, const char *what) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    fprintf(events, "%.3f %d %d %s\n", std::chrono::duration<double>(now).count(), line, number,
            what);
}

// The station's end of a line whose other end is `link`. Raw from the beginning: an echo would be
// taken for an answer. Not blocking: a converter that closes and opens its end between a poll and a read
// takes away what there was to read.
unique_fd_t make_line(const std::string &link) {
    unique_fd_t station(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (!station || grantpt(station.get()) != 0 || unlockpt(station.get()) != 0 ||
        tcgetattr(station.get(), &settings) != 0 ||
        fcntl(station.get(), F_SETFL, O_NONBLOCK) != 0) {
        give_up("cannot make a pseudo-terminal");
    }
    cfmakeraw(&settings);
    tcsetattr(station.get(), TCSANOW, &settings);
    std::filesystem::create_symlink(ptsname(station.get()), link);
    return station;
}

// One attempt, which leaves the line as silent as a line without converter would.
bool call(int fd, const std::string &packet) {
    const auto end = steady_clock::now() + std::chrono::seconds(ANSWER_SECONDS);
    tcflush(fd, TCIFLUSH);  // late answers to an earlier attempt
    control_station_t station(fd, ANSWER_SECONDS, nullptr);
    if (station.end_transmission() && station.send_bytes("1\x05") && station.expect("\x06") &&
        station.send_packet(packet)) {
        return true;
    }
    std::this_thread::sleep_until(end);
    return false;
}

// The lines begin at different moments: what happens to them finds each at another point.
[[noreturn]] void play(int line, int fd, FILE *events) {
    std::this_thread::sleep_for(CALL_EVERY * (line % STEPS) / STEPS);
    for (int number = line * NUMBERS_PER_LINE;; number++) {
        const auto next = steady_clock::now() + CALL_EVERY;
        const std::string packet =
            compose_packet({"1", "CALL " + std::to_string(number), "", "", "", ""});
        note(events, line, number, "sent");
        while (!call(fd, packet)) {
        }
        note(events, line, number, "acknowledged");
        control_station_t(fd, ANSWER_SECONDS, nullptr).end_transmission();
        std::this_thread::sleep_until(next);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        give_up("usage: bench_stations DIRECTORY LINES");
    }
    const std::string directory = argv[1];
    FILE *events = fopen((directory + "/events").c_str(), "we");
    if (events == nullptr) {
        give_up("cannot write in " + directory);
    }
    setvbuf(events, nullptr, _IOLBF, 0);
    std::vector<unique_fd_t> lines;
    for (int line = 1; line <= atoi(argv[2]); line++) {
        lines.push_back(make_line(directory + "/line" + std::to_string(line)));
        std::thread(play, line, lines.back().get(), events).detach();
    }
    pause();
}
