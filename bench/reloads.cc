// Sixteen lines under traffic and a reload every four seconds, in a process that may open 128 files:
// no acknowledged message is lost, none is handled twice, and no line turns to ASCII.
//
//   bench_reloads RELOADS
//
// Every reload takes each line to a new connection. A station, as a converter would that serves the
// latest of its clients, goes over to it and repeats what was not acknowledged on the one before.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "account.h"
#include "espa.h"
#include "espasend/control_station.h"
#include "espasend/line.h"
#include "site.h"

namespace {

constexpr int LINES = 16;
constexpr int MAX_DESCRIPTORS = 128;
constexpr int PATIENCE_MS = 60'000;
constexpr int MESSAGES_PER_LINE = 1'000'000;  // more than a line sends
constexpr std::chrono::seconds RELOAD_EVERY(4);
constexpr std::chrono::milliseconds MESSAGE_EVERY(20);
constexpr const char *RULES = "[rule_all]\naction = skip\n";
constexpr const char *PAGER_KEYS = "rules = rule_all\n";

std::atomic<bool> done = false;

struct station_t {
    const site_t &site;
    int line;
    unique_fd_t sock;
    int connections = 0;

    void go_over() {
        sock = site.accept(line);
        connections++;
    }

    // Sends a packet until it is acknowledged on one of the line's connections.
    void deliver(const std::string &packet) {
        for (;;) {
            send(sock.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
            pollfd waiting[] = {{sock.get(), POLLIN, 0}, {site.listener(line), POLLIN, 0}};
            if (poll(waiting, 2, PATIENCE_MS) <= 0) {
                give_up("line " + std::to_string(line) + " has lost its daemon");
            }
            // What the daemon answered before it went on to a new connection is there by now.
            char answer = 0;
            if (recv(sock.get(), &answer, 1, MSG_DONTWAIT) == 1) {
                if (answer != ACK) {
                    give_up("line " + std::to_string(line) + " was not acknowledged");
                }
                return;
            }
            go_over();
        }
    }
};

// Sends numbers until all is done. Returns how many were acknowledged.
int play_line(station_t *station) {
    std::mt19937 random(static_cast<unsigned>(station->line));
    int sent = 0;
    station->go_over();
    while (!done && sent < MESSAGES_PER_LINE) {
        const int number = sent * LINES + station->line;
        station->deliver(compose_packet({"1", numbered_message(number, &random), "", "", "", ""}));
        sent++;
        std::this_thread::sleep_for(MESSAGE_EVERY);
    }
    return sent;
}

}  // namespace

int main(int argc, char **argv) {
    const int reloads = argc > 1 ? atoi(argv[1]) : 200;
    site_t site(LINES);
    site.start_in_background(site.write_conf(0, PAGER_KEYS, site.monitoring() + RULES),
                             MAX_DESCRIPTORS);
    std::vector<station_t> stations;
    for (int line = 0; line < LINES; line++) {
        stations.push_back({site, line, unique_fd_t()});
    }
    std::vector<int> sent(LINES);
    std::vector<std::thread> lines;
    for (size_t line = 0; line < LINES; line++) {
        lines.emplace_back([&, line] { sent[line] = play_line(&stations[line]); });
    }
    account_t account(site.journal_file(), site.log_file(), LINES * MESSAGES_PER_LINE);
    for (int i = 0; i < reloads; i++) {
        std::this_thread::sleep_for(RELOAD_EVERY);
        kill(site.pid(), SIGHUP);
        account.count_portion();
    }
    std::this_thread::sleep_for(2 * RELOAD_EVERY);
    done = true;
    int messages = 0;
    int connections = 0;
    int lost = 0;
    for (size_t line = 0; line < LINES; line++) {
        lines[line].join();
        messages += sent[line];
        connections += stations[line].connections;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    account.count_portion();
    for (int line = 0; line < LINES; line++) {
        lost += account.missing(line, sent[static_cast<size_t>(line)], LINES);
    }
    const usage_t used = site.stop();
    printf("%d reloads with %d descriptors: %d messages over %d lines and %d connections\n",
           reloads, MAX_DESCRIPTORS, messages, LINES, connections);
    printf("%d lost, %d duplicated, %d lines turned to ASCII; peak memory %ld kB\n", lost,
           account.repeated(), account.fallbacks(), used.peak_kilobytes);
    return lost == 0 && account.repeated() == 0 && account.fallbacks() == 0 ? 0 : 1;
}
