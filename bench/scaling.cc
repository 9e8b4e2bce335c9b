// What more lines cost than one daemon serves: 1 to 32 daemons with sixteen lines each, and a call on
// every line every ten seconds, which comes at the speed of a serial line. Then calls twice as often
// from row to row on all lines, until the machine keeps up no more.
//
//   bench_scaling [-o FIGURES.tsv] [SECONDS]
//
// SECONDS, 30 when not given, is how long a row is measured; half of it where calls come more often.
// Exits with 1 when an acknowledged call has no complete call file.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "call_watch.h"
#include "clock.h"
#include "espasend/control_station.h"
#include "paced_stations.h"
#include "site.h"

namespace fs = std::filesystem;

namespace {

constexpr int LINES = 16;  // of a daemon
constexpr std::array<int, 4> INSTANCES = {1, 4, 16, 32};
constexpr std::array<int, 2> LOG_LEVELS = {0, 5};
constexpr double CALL_EVERY_SECONDS = 10;
constexpr double FASTER_FROM_SECONDS = 2;
constexpr double FASTEST_SECONDS = 0.1;  // a packet alone takes 0.077 s
constexpr double KEPT_UP = 0.95;         // the part of the calls that must come in time
constexpr double SHORTEST_WARM_UP_SECONDS = 2;
constexpr int PATIENCE_SECONDS = 60;
constexpr const char *PAGER_KEYS = "rules = rule_room\n";
constexpr const char *RULES =
    "[rule_room]\npattern = ROOM [0-9]+\naction = call\nchannel = Local/%number%@pagers\n"
    "context = nurse-call\nextension = $call\nvalue[call] = CALL ([0-9]+)\n";

struct load_t {
    int instances;
    int log_level;
    double call_every_seconds;

    int lines() const { return instances * LINES; }
    double calls_per_second() const { return lines() / call_every_seconds; }
};

struct figures_t {
    double seconds = 0;
    double calls_per_second = 0;
    double cpu_percent = 0;      // of one core, the daemons'
    double station_percent = 0;  // this program's
    double machine_percent = 0;  // everybody's
    long resident_kilobytes = 0;
    long proportional_kilobytes = 0;
    long descriptors = 0;
    std::vector<double> delays_ms;  // sorted
    double bytes_per_send = 0;
    int missing = 0;
};

// What has been used up to a moment, in seconds.
struct sample_t {
    int64_t at_us = 0;
    double daemons = 0;
    double station = 0;
    double idle = 0;
};

void pause(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// 60 characters, a call file of its own.
std::string packet_of(int number) {
    char message[64];
    snprintf(message, sizeof message, "FIRE ZONE 12 FLOOR 3 ROOM 311 SMOKE DETECTOR 17 CALL %07d",
             number);
    return compose_packet({"4711", message, "", "", "", ""});
}

// Both ends of the listeners and connections would not fit into what a program usually may open.
void allow_descriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

double cores() {
    return static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
}

double idle_seconds() {
    std::ifstream stat("/proc/stat");
    std::string name;
    double user = 0;
    double nice = 0;
    double system = 0;
    double idle = 0;
    double waiting = 0;
    stat >> name >> user >> nice >> system >> idle >> waiting;
    return (idle + waiting) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

sample_t take_sample(const std::deque<site_t> &sites) {
    sample_t sample;
    sample.at_us = microseconds_passed();
    for (const site_t &site : sites) {
        sample.daemons += site.cpu_seconds();
    }
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    sample.station = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    sample.idle = idle_seconds();
    return sample;
}

// The daemons, and what is sent to them.
class world_t {
  public:
    explicit world_t(const load_t &load) {
        for (int i = 0; i < load.instances; i++) {
            site_t &site = sites_.emplace_back(LINES);
            spool_dirs_.push_back(site.spool_dir());
            site.start({"vesperd", "-f", "-c", site.write_conf(load.log_level, PAGER_KEYS, RULES)});
        }
    }
    // Without the time that a daemon leaves its threads for their ends.
    ~world_t() {
        for (site_t &site : sites_) {
            site.stop(SIGKILL);
        }
    }

    const std::deque<site_t> &sites() const { return sites_; }
    const std::vector<std::string> &spool_dirs() const { return spool_dirs_; }

    // Neighbours in the order of calls belong to different daemons.
    std::vector<unique_fd_t> accept_all() const {
        std::vector<unique_fd_t> socks;
        for (int line = 0; line < LINES; line++) {
            for (const site_t &site : sites_) {
                socks.push_back(site.accept(line));
            }
        }
        return socks;
    }

    // How many acknowledged calls have no complete call file; waits for those that are on their way.
    int missing(const std::vector<sent_call_t> &calls) const {
        int missing = 0;
        for (int second = 0; second < PATIENCE_SECONDS; second++) {
            const std::vector<bool> found = complete_files(calls.size());
            missing = 0;
            for (size_t number = 0; number < calls.size(); number++) {
                missing += calls[number].acknowledged_us != 0 && !found[number];
            }
            if (missing == 0) {
                break;
            }
            pause(1);
        }
        return missing;
    }

  private:
    std::vector<bool> complete_files(size_t calls) const {
        std::vector<bool> found(calls);
        for (const std::string &directory : spool_dirs_) {
            for (const auto &entry : fs::directory_iterator(directory)) {
                const int number = call_number(entry.path().filename().string());
                if (number >= 0 && static_cast<size_t>(number) < calls) {
                    found[static_cast<size_t>(number)] = is_complete(entry.path());
                }
            }
        }
        return found;
    }
    static bool is_complete(const fs::path &path) {
        std::ostringstream content;
        content << std::ifstream(path, std::ios::binary).rdbuf();
        return content.str().ends_with("\r\nMaxRetries: 0\r\n");
    }

    std::deque<site_t> sites_;
    std::vector<std::string> spool_dirs_;
};

// What the calls between two moments came to.
void judge_calls(const std::vector<sent_call_t> &calls, const std::vector<int64_t> &closed_us,
                 int64_t begin_us, int64_t end_us, figures_t *figures) {
    for (size_t number = 0; number < std::min(calls.size(), closed_us.size()); number++) {
        const int64_t sent_us = calls[number].last_byte_us;
        if (sent_us >= begin_us && sent_us < end_us && closed_us[number] != 0) {
            figures->delays_ms.push_back(static_cast<double>(closed_us[number] - sent_us) / 1000);
        }
    }
    std::sort(figures->delays_ms.begin(), figures->delays_ms.end());
    figures->calls_per_second = static_cast<double>(figures->delays_ms.size()) / figures->seconds;
}

void judge_cpu(const sample_t &begin, const sample_t &end, figures_t *figures) {
    figures->seconds = static_cast<double>(end.at_us - begin.at_us) / 1e6;
    figures->cpu_percent = 100 * (end.daemons - begin.daemons) / figures->seconds;
    figures->station_percent = 100 * (end.station - begin.station) / figures->seconds;
    figures->machine_percent = 100 * (cores() - (end.idle - begin.idle) / figures->seconds);
}

void add_memory(const std::deque<site_t> &sites, figures_t *figures) {
    for (const site_t &site : sites) {
        figures->resident_kilobytes += site.resident_kilobytes();
        figures->proportional_kilobytes += site.proportional_kilobytes();
        figures->descriptors += site.descriptors();
    }
}

figures_t measure(const load_t &load, double seconds) {
    figures_t figures;
    const world_t world(load);
    call_watch_t watch(world.spool_dirs());
    paced_stations_t stations(world.accept_all(),
                              static_cast<int64_t>(load.call_every_seconds * 1e6), packet_of);
    pause(std::max(SHORTEST_WARM_UP_SECONDS, load.call_every_seconds));
    const sample_t begin = take_sample(world.sites());
    pause(seconds);
    const sample_t end = take_sample(world.sites());
    add_memory(world.sites(), &figures);
    stations.stop();
    figures.missing = world.missing(stations.calls());
    watch.stop();
    judge_cpu(begin, end, &figures);
    judge_calls(stations.calls(), watch.closed_us(), begin.at_us, end.at_us, &figures);
    figures.bytes_per_send = stations.bytes_per_send();
    return figures;
}

double percentile(const std::vector<double> &sorted, double part) {
    const auto at = static_cast<size_t>(part * static_cast<double>(sorted.size()));
    return sorted.empty() ? 0 : sorted[std::min(at, sorted.size() - 1)];
}

struct cell_t {
    const char *name;
    std::string text;
};

std::string rounded(double value, int decimals) {
    char text[32];
    snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::vector<cell_t> cells_of(const load_t &load, const figures_t &figures) {
    const double cpu_us = 1e4 * figures.cpu_percent / std::max(figures.calls_per_second, 1e-9);
    return {{"daemons", std::to_string(load.instances)},
            {"lines", std::to_string(load.lines())},
            {"log_level", std::to_string(load.log_level)},
            {"call_every_s", rounded(load.call_every_seconds, 3)},
            {"due_per_s", rounded(load.calls_per_second(), 1)},
            {"calls_per_s", rounded(figures.calls_per_second, 1)},
            {"cpu_percent", rounded(figures.cpu_percent, 2)},
            {"cpu_us_per_call", rounded(cpu_us, 0)},
            {"station_percent", rounded(figures.station_percent, 1)},
            {"machine_percent", rounded(figures.machine_percent, 1)},
            {"rss_kB", std::to_string(figures.resident_kilobytes)},
            {"pss_kB", std::to_string(figures.proportional_kilobytes)},
            {"descriptors", std::to_string(figures.descriptors)},
            {"median_ms", rounded(percentile(figures.delays_ms, 0.5), 2)},
            {"p99_ms", rounded(percentile(figures.delays_ms, 0.99), 2)},
            {"worst_ms", rounded(percentile(figures.delays_ms, 1), 2)},
            {"bytes_per_send", rounded(figures.bytes_per_send, 2)},
            {"missing", std::to_string(figures.missing)}};
}

// The table on standard output, and the same with tabs in a file.
class report_t {
  public:
    explicit report_t(const char *path) {
        if (path != nullptr) {
            file_.open(path);
            if (!file_) {
                give_up(std::string("cannot write ") + path);
            }
        }
    }

    void add(const std::vector<cell_t> &cells) {
        if (!has_head_) {
            std::vector<cell_t> head = cells;
            for (cell_t &cell : head) {
                cell.text = cell.name;
            }
            add_row(head);
            has_head_ = true;
        }
        add_row(cells);
    }

  private:
    void add_row(const std::vector<cell_t> &cells) {
        std::string row;
        for (const cell_t &cell : cells) {
            printf("%*s  ", std::max(static_cast<int>(strlen(cell.name)), 6), cell.text.c_str());
            row += (row.empty() ? "" : "\t") + cell.text;
        }
        printf("\n");
        fflush(stdout);
        file_ << row << std::endl;
    }

    std::ofstream file_;
    bool has_head_ = false;
};

// Returns whether every acknowledged call has its file; `figures` may be of no interest.
bool add_row(const load_t &load, double seconds, report_t *report, figures_t *figures) {
    *figures = measure(load, seconds);
    report->add(cells_of(load, *figures));
    return figures->missing == 0;
}

// Calls come twice as often from row to row, until they do not come in time any more.
bool add_faster_rows(int log_level, double seconds, report_t *report) {
    bool good = true;
    load_t load{INSTANCES.back(), log_level, FASTER_FROM_SECONDS};
    for (; load.call_every_seconds >= FASTEST_SECONDS; load.call_every_seconds /= 2) {
        figures_t figures;
        good &= add_row(load, seconds, report, &figures);
        if (figures.calls_per_second < KEPT_UP * load.calls_per_second()) {
            break;
        }
    }
    return good;
}

}  // namespace

int main(int argc, char **argv) {
    const char *path = nullptr;
    for (int option = getopt(argc, argv, "o:"); option != -1; option = getopt(argc, argv, "o:")) {
        if (option != 'o') {
            give_up("usage: bench_scaling [-o FIGURES.tsv] [SECONDS]");
        }
        path = optarg;
    }
    const double seconds = optind < argc ? atof(argv[optind]) : 30;
    allow_descriptors();
    report_t report(path);
    printf("%.0f cores, %.0f s a row, %.0f s where calls come more often; percent of one core\n",
           cores(), seconds, seconds / 2);
    bool good = true;
    for (const int log_level : LOG_LEVELS) {
        for (const int instances : INSTANCES) {
            figures_t figures;
            good &= add_row({instances, log_level, CALL_EVERY_SECONDS}, seconds, &report, &figures);
        }
    }
    for (const int log_level : LOG_LEVELS) {
        good &= add_faster_rows(log_level, seconds / 2, &report);
    }
    return good ? 0 : 1;
}
