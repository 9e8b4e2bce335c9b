// The whole daemon on one and on sixteen lines, beside a floor that does the least that such a program
// must: CPU time per message as a ratio, system calls per byte, messages per second, memory.
//
//   bench_lines [MESSAGES]

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "espasend/control_station.h"
#include "site.h"

namespace {

constexpr int USUAL_MESSAGES = 2000;
constexpr int USUAL_ROUNDS = 15;  // many short ones: the machine's own speed moves by the second
constexpr int MAX_LINES = 16;
constexpr int WAIT_SECONDS = 60;
constexpr const char *MESSAGE = "FIRE ZONE 12 FLOOR 3 ROOM 311 SMOKE DETECTOR 17 WEST WING   ";
constexpr const char *RULES =
    "[rule_room]\npattern = ROOM [0-9]+\naction = call\nchannel = Local/%number%@pagers\n"
    "context = nurse-call\nextension = %number%\n";
constexpr const char *PAGER_KEYS = "rules = rule_room\n";

const std::string packet = compose_packet({"4711", MESSAGE, "", "", "", ""});

struct result_t {
    double cpu_microseconds = 0;  // per message
    double messages_per_second = 0;
    long peak_kilobytes = 0;
};

// Sends the messages over all lines at once and waits for every ACK.
double drive(const site_t &site, int lines, int messages) {
    std::vector<unique_fd_t> socks;
    for (int i = 0; i < lines; i++) {
        socks.push_back(site.accept(i));
    }
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::thread> stations;
    for (const unique_fd_t &sock : socks) {
        stations.emplace_back([&sock, lines, messages] {
            control_station_t station(sock.get(), WAIT_SECONDS, nullptr);
            for (int i = 0; i < messages / lines; i++) {
                if (!station.send_packet(packet)) {
                    give_up(station.error());
                }
            }
        });
    }
    for (std::thread &station : stations) {
        station.join();
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    return taken.count();
}

result_t measure(const std::vector<std::string> &program, site_t *site, int lines, int messages) {
    site->start(program);
    result_t result;
    result.messages_per_second = messages / drive(*site, lines, messages);
    const usage_t used = site->stop(SIGKILL);  // an orderly end takes seconds
    result.cpu_microseconds = used.cpu_seconds * 1e6 / messages;
    result.peak_kilobytes = used.peak_kilobytes;
    std::filesystem::remove(site->log_file());
    return result;
}

std::vector<std::string> daemon_command(const site_t &site, int log_level) {
    return {"vesperd", "-f", "-c", site.write_conf(log_level, PAGER_KEYS, RULES)};
}

// How many lines the daemon logs for a byte, and for a packet besides.
struct log_lines_t {
    int per_byte;
    int per_packet;
};

std::vector<std::string> floor_command(const site_t &site, log_lines_t log_lines) {
    std::vector<std::string> command = {"bench_floor", site.spool_dir(), site.log_file(),
                                        std::to_string(log_lines.per_byte),
                                        std::to_string(log_lines.per_packet)};
    for (const std::string &port : site.ports()) {
        command.push_back(port);
    }
    return command;
}

// The number of log lines that so many messages make.
long count_log_lines(int log_level, int messages) {
    site_t site(1);
    site.start(daemon_command(site, log_level));
    drive(site, 1, messages);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::ifstream log(site.log_file());
    long lines = 0;
    for (std::string line; std::getline(log, line);) {
        lines += !line.empty();
    }
    return lines;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// How much is measured: the messages of a run, and the runs of which the median counts.
struct effort_t {
    int messages;
    int rounds;
};

void compare(int lines, int log_level, log_lines_t log_lines, const char *floor_name,
             effort_t effort) {
    std::vector<double> ratios;
    std::vector<double> daemon_cpu;
    std::vector<double> floor_cpu;
    result_t daemon;
    result_t floor;
    site_t site(lines);
    for (int round = 0; round < effort.rounds; round++) {
        daemon = measure(daemon_command(site, log_level), &site, lines, effort.messages);
        floor = measure(floor_command(site, log_lines), &site, lines, effort.messages);
        daemon_cpu.push_back(daemon.cpu_microseconds);
        floor_cpu.push_back(floor.cpu_microseconds);
        ratios.push_back(daemon.cpu_microseconds / floor.cpu_microseconds);
    }
    printf("%5d %5d  %-22s %9.1f %9.1f  %6.3f  %9.0f %9.0f %8ld\n", lines, log_level, floor_name,
           median(daemon_cpu), median(floor_cpu), median(ratios), daemon.messages_per_second,
           floor.messages_per_second, daemon.peak_kilobytes);
    fflush(stdout);
}

// What keys cost: the daemon with them against the daemon without, at log level 0.
struct keys_t {
    const char *name;
    std::string pager, rule;
    bool is_monitored = false;  // with status file and journal
};

void compare_keys(const keys_t &keys, int lines, effort_t effort) {
    std::vector<double> ratios;
    site_t site(lines);
    std::filesystem::create_directory(site.dir() + "/staging");
    std::filesystem::permissions(site.dir() + "/staging", std::filesystem::perms::all);
    const std::string pager_keys =
        std::regex_replace(keys.pager, std::regex("@"), site.dir() + "/staging");
    for (int round = 0; round < effort.rounds; round++) {
        const std::vector<std::string> with = {
            "vesperd", "-f", "-c",
            site.write_conf(0, PAGER_KEYS + pager_keys,
                            (keys.is_monitored ? site.monitoring() : "") + RULES + keys.rule)};
        const result_t changed = measure(with, &site, lines, effort.messages);
        std::filesystem::remove(site.journal_file());
        std::filesystem::remove_all(site.dir() + "/staging/followed");
        for (const auto &entry : std::filesystem::directory_iterator(site.spool_dir())) {
            std::filesystem::remove(entry.path());
        }
        const result_t plain = measure(daemon_command(site, 0), &site, lines, effort.messages);
        ratios.push_back(changed.cpu_microseconds / plain.cpu_microseconds);
    }
    printf("%5d  %-48s %6.3f times the CPU time without\n", lines, keys.name, median(ratios));
    fflush(stdout);
}

// System calls by name, as "strace -c -f" counts them.
std::map<std::string, double> count_calls(int log_level, int messages) {
    site_t site(1);
    const std::string table = site.dir() + "/strace";
    std::vector<std::string> command = {"/usr/bin/strace",     "-c", "-f", "-o", table,
                                        PROGRAM_DIR "/vesperd"};
    const auto daemon = daemon_command(site, log_level);
    command.insert(command.end(), daemon.begin() + 1, daemon.end());
    site.start(command);
    drive(site, 1, messages);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    site.stop();
    std::map<std::string, double> calls;
    std::ifstream file(table);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string word; words >> word;) {
            fields.push_back(word);
        }
        if (fields.size() >= 5 && isdigit(fields[0][0]) != 0 && fields.back() != "total") {
            calls[fields.back()] = atof(fields[3].c_str());
        }
    }
    return calls;
}

// Counted as the difference of two runs, so that start and stop do not count.
void print_calls(int log_level) {
    constexpr int FEW = 100;
    constexpr int MANY = 300;
    auto many = count_calls(log_level, MANY);
    const auto few = count_calls(log_level, FEW);
    for (const auto &[name, count] : few) {
        many[name] -= count;
    }
    const double messages = MANY - FEW;
    const double bytes = messages * static_cast<double>(packet.size());
    printf("log level %d: %.3f select and read per byte; per message", log_level,
           (many["pselect6"] + many["select"] + many["read"]) / bytes);
    for (const auto &[name, count] : many) {
        if (std::fabs(count / messages) > 0.2) {
            printf(" %s %.2f", name.c_str(), count / messages);
        }
    }
    printf("\n");
}

void print_memory() {
    site_t site(MAX_LINES);
    std::string rules;
    for (int i = 0; i < 256; i++) {
        rules += "[rule_" + std::to_string(i) + "]\npattern = ^ALARM " + std::to_string(i) +
                 " in\naction = call\nvalue[zone] = ZONE ([0-9]+)\n";
    }
    // The 256th rule would end the loading before the pagers.
    const size_t last = rules.rfind("[rule_255]");
    const std::string path = site.write_conf(0, "rules = rule_1\n", rules.substr(0, last));
    std::ofstream(path, std::ios::app) << rules.substr(last);
    site.start({"vesperd", "-f", "-c", path});
    drive(site, MAX_LINES, 16);
    printf("peak memory with 16 pagers and 255 rules: %ld kB\n", site.stop().peak_kilobytes);
}

}  // namespace

int main(int argc, char **argv) {
    const effort_t effort{argc > 1 ? atoi(argv[1]) : USUAL_MESSAGES,
                          argc > 2 ? atoi(argv[2]) : USUAL_ROUNDS};
    printf("%u cores, %d messages of %zu bytes in a run, median of %d runs\n",
           std::thread::hardware_concurrency(), effort.messages, packet.size(), effort.rounds);
    const long verbose = (count_log_lines(0, 60) - count_log_lines(0, 10)) / 50;
    const long all = (count_log_lines(5, 60) - count_log_lines(5, 10)) / 50;
    const int bytes = static_cast<int>(packet.size());
    const log_lines_t at_0 = {0, static_cast<int>(verbose)};
    const log_lines_t at_5 = {2, static_cast<int>(all) - 2 * bytes};
    printf("log lines per message: %ld at level 0, %ld at level 5\n\n", verbose, all);
    printf(
        "lines level  floor                  daemon us  floor us   ratio   daemon/s   floor/s  "
        "peak kB\n");
    for (const int lines : {1, MAX_LINES}) {
        compare(lines, 0, {0, 0}, "without log", effort);
        compare(lines, 0, at_0, "with the same log", effort);
        compare(lines, 5, at_5, "with the same log", {effort.messages / 4, effort.rounds});
    }
    printf("\n");
    for (const int lines : {1, MAX_LINES}) {
        compare_keys({"status_file and journal_file", "", "", true}, lines, effort);
        compare_keys(
            {"recover_link, ack_when_done, staging_dir, quote",
             "recover_link = yes\nack_when_done = yes\nstaging_dir = @\n", "quote = yes\n"},
            lines, effort);
        compare_keys({"staging_dir and quote", "staging_dir = @\n", "quote = yes\n"}, lines,
                     effort);
        compare_keys({"the same with follow_calls", "staging_dir = @\nfollow_calls = yes\n",
                      "quote = yes\n"},
                     lines, effort);
        compare_keys({"espa_address", "espa_address = 2\n", ""}, lines, effort);
    }
    printf("\n");
    print_calls(0);
    print_calls(5);
    print_memory();
}
