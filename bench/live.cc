// Reloads with live_reload: sixteen lines under traffic, and a configuration that five times a second adds, removes,
// moves and renames lines and replaces rules.
//
//   bench_live SECONDS UNCHANGED
//
// then reloads a file that stays the same UNCHANGED times. A station repeats what was not acknowledged over its
// line's next connection. Exits with 1 when an acknowledged message was lost or handled by a rule that neither the
// file before nor the one after a reload has, when a line that stays lost its connection, or when
// descriptors, threads or memory are left behind.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "espa.h"
#include "espasend/control_station.h"
#include "site.h"

namespace fs = std::filesystem;

namespace {

constexpr int LINES = 16;
constexpr int STEADY_LINES = 4;  // which no file changes but in their rules
constexpr int PATIENCE_MS = 60'000;
constexpr int MAX_DESCRIPTORS = 256;
constexpr int MAX_GROWTH_KILOBYTES = 8'192;
constexpr std::chrono::milliseconds RELOAD_EVERY(200);
constexpr std::chrono::milliseconds MESSAGE_EVERY(5);

std::atomic<bool> done = false;

// One version of the configuration: the names of the lines at the stations, empty where there is none.
struct version_t {
    int number = 0;
    std::vector<std::string> names = std::vector<std::string>(LINES);
};

std::string numbered(const std::string &text, int number) {
    char digits[16];
    snprintf(digits, sizeof digits, "%06d", number);
    return text + digits;
}

// Every version has a rule of its own, which takes all messages, and one that all have.
void write_version(const site_t &site, const std::string &path, const version_t &version) {
    const std::string rule = numbered("rule_of_", version.number);
    std::ofstream file(path + ".new");
    file << "[logger]\nlive_reload = yes\nlog_level = 4\nlog_file = " << site.log_file()
         << "\njournal_file = " << site.journal_file() << "\nstatus_file = " << site.status_file()
         << "\n[rule_same]\npattern = ^never$\n[" << rule << "]\npattern = ^M[0-9]+$\n";
    for (size_t i = 0; i < LINES; i++) {
        if (!version.names[i].empty()) {
            file << "[" << version.names[i] << "]\nhost = 127.0.0.1\nport = " << site.ports()[i]
                 << "\nrecover_link = yes\nack_when_done = yes\nspool_dir = " << site.spool_dir()
                 << "\nrules = rule_same," << rule << "\n";
        }
    }
    file.close();
    fs::rename(path + ".new", path);
}

void reload(const site_t &site) {
    kill(site.pid(), SIGHUP);
}

// Changes some of the lines that are not steady.
void change(version_t *version, std::mt19937 *random) {
    std::vector<std::string> &names = version->names;
    for (size_t i = STEADY_LINES; i < LINES; i++) {
        const auto other = STEADY_LINES + (*random)() % (LINES - STEADY_LINES);
        switch ((*random)() % 20) {
            case 0:
                names[i] = names[i].empty()
                               ? numbered("new", version->number * LINES + static_cast<int>(i))
                               : "";
                break;
            case 1:
                names[i] = numbered("name", version->number * LINES + static_cast<int>(i));
                break;
            case 2:
                std::swap(names[i], names[other]);
                break;
            default:
                break;
        }
    }
    version->number++;
}

struct station_t {
    const site_t &site;
    int line;
    unique_fd_t sock = unique_fd_t();
    int connections = 0;

    // Returns whether there is a connection; not when all is done.
    bool connect() {
        pollfd waiting{site.listener(line), POLLIN, 0};
        while (!done && poll(&waiting, 1, 100) == 0) {
        }
        if (done) {
            return false;
        }
        sock = site.accept(line);
        connections++;
        return true;
    }

    // Sends a packet until it is acknowledged. Returns whether it was.
    bool deliver(const std::string &packet) {
        while (sock || connect()) {
            send(sock.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
            pollfd waiting{sock.get(), POLLIN, 0};
            if (poll(&waiting, 1, PATIENCE_MS) <= 0) {
                give_up("line " + std::to_string(line) + " has lost its daemon");
            }
            char answer = 0;
            if (recv(sock.get(), &answer, 1, 0) == 1) {
                return answer == ACK;
            }
            sock.reset();
        }
        return false;
    }
};

// Sends numbers until all is done. Returns how many were acknowledged.
int play_line(station_t *station) {
    int sent = 0;
    while (!done) {
        const std::string text = "M" + std::to_string(sent * LINES + station->line);
        if (!station->deliver(compose_packet({"1", text, "", "", "", ""}))) {
            break;
        }
        sent++;
        std::this_thread::sleep_for(MESSAGE_EVERY);
    }
    return sent;
}

// What the journal tells of the messages of the lines.
struct account_t {
    std::map<int, int> versions;  // of the rule that a message was handled by, by its number
    int unmatched = 0;

    explicit account_t(const std::string &path) {
        std::ifstream journal(path);
        for (std::string text; std::getline(journal, text);) {
            const auto object = nlohmann::json::parse(text);
            if (object.value("event", "") != "message") {
                continue;
            }
            const std::string rule = object["rule"].is_string() ? object["rule"] : "";
            const std::string message = object["text"];
            unmatched += rule.empty() ? 1 : 0;
            versions[atoi(message.c_str() + 1)] =
                rule.empty() ? -1 : atoi(rule.c_str() + rule.find_first_of("0123456789"));
        }
    }
    int lost(int line, int sent) const {
        int count = 0;
        for (int i = 0; i < sent; i++) {
            count += versions.contains(i * LINES + line) ? 0 : 1;
        }
        return count;
    }
    // Messages of a line that were handled by an older rule than the one before them.
    int backwards(int line, int sent) const {
        int count = 0;
        int last = 0;
        for (int i = 0; i < sent; i++) {
            const auto found = versions.find(i * LINES + line);
            count += found != versions.end() && found->second < last ? 1 : 0;
            last = found != versions.end() ? std::max(last, found->second) : last;
        }
        return count;
    }
};

struct resources_t {
    long descriptors;
    long threads;
    long kilobytes;
};

resources_t resources_of(const site_t &site) {
    const fs::path tasks = "/proc/" + std::to_string(site.pid()) + "/task";
    return {site.descriptors(),
            std::distance(fs::directory_iterator(tasks), fs::directory_iterator()),
            site.resident_kilobytes()};
}

// Reloads as fast as the daemon takes it, which logs what came of each.
void reload_unchanged(const site_t &site, int count) {
    const std::string outcome = std::to_string(LINES) + " lines as they were, rules: ";
    std::ifstream log(site.log_file());
    log.seekg(0, std::ios::end);
    std::string line;
    for (int i = 0; i < count; i++) {
        reload(site);
        for (int tries = 0; line.find(outcome) == std::string::npos; tries++) {
            if (tries > PATIENCE_MS) {
                give_up("a reload has no end");
            }
            if (!std::getline(log, line)) {
                log.clear();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        line.clear();
    }
}

}  // namespace

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 60;
    const int unchanged = argc > 2 ? atoi(argv[2]) : 10'000;
    site_t site(LINES);
    version_t version;
    for (size_t i = 0; i < LINES; i++) {
        version.names[i] = numbered("ward", static_cast<int>(i));
    }
    const version_t first = version;
    const std::string conf = site.dir() + "/conf";
    write_version(site, conf, version);
    site.start_in_background(conf, MAX_DESCRIPTORS);
    std::vector<station_t> stations;
    for (int line = 0; line < LINES; line++) {
        stations.push_back({site, line});
        stations.back().connect();
    }
    const resources_t before = resources_of(site);
    std::vector<int> sent(LINES);
    std::vector<std::thread> lines;
    for (size_t line = 0; line < LINES; line++) {
        lines.emplace_back([&, line] { sent[line] = play_line(&stations[line]); });
    }
    std::mt19937 random(20'260'000);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        change(&version, &random);
        write_version(site, conf, version);
        reload(site);
        std::this_thread::sleep_for(RELOAD_EVERY);
    }
    version.names = first.names;
    version.number++;
    write_version(site, conf, version);
    reload(site);
    const int last = version.number;
    std::this_thread::sleep_for(std::chrono::seconds(10));
    done = true;
    for (std::thread &line : lines) {
        line.join();
    }
    reload_unchanged(site, unchanged);
    const resources_t after = resources_of(site);
    site.stop();

    const account_t account(site.journal_file());
    int messages = 0;
    int lost = 0;
    int backwards = 0;
    int connections = 0;
    int steady_connections = 0;
    for (size_t line = 0; line < LINES; line++) {
        messages += sent[line];
        lost += account.lost(static_cast<int>(line), sent[line]);
        backwards += account.backwards(static_cast<int>(line), sent[line]);
        connections += stations[line].connections;
        steady_connections += line < STEADY_LINES ? stations[line].connections : 0;
    }
    const long grown = after.kilobytes - before.kilobytes;
    printf("%d versions in %d s: %d messages over %d connections\n", last, seconds, messages,
           connections);
    printf("%d lost, %d without a rule, %d by an older rule than the one before\n", lost,
           account.unmatched, backwards);
    printf("%d lines that stay had %d connections\n", STEADY_LINES, steady_connections);
    printf(
        "%d reloads of the same file; descriptors %ld before, %ld after; threads %ld, %ld; "
        "memory %ld kB more\n",
        unchanged, before.descriptors, after.descriptors, before.threads, after.threads, grown);
    const bool is_good = lost == 0 && account.unmatched == 0 && backwards == 0 &&
                         steady_connections == STEADY_LINES &&
                         after.descriptors <= before.descriptors &&
                         after.threads <= before.threads && grown <= MAX_GROWTH_KILOBYTES;
    return is_good ? 0 : 1;
}
