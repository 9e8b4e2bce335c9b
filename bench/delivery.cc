// Acknowledged is delivered: sixteen lines that all call one extension, with ack_when_done and
// staging_dir, beside a reader that takes call files away as a PBX does.
//
//   bench_delivery SECONDS
//
// First a thousand calls as fast as they go; then a thousand with a SIGKILL and a restart in the
// middle; then, for so many seconds, calls with a garbled packet now and then, a spool directory that
// is full or gone for seconds at a time, and SIGKILL with a restart every few seconds. Exits with 1
// when an acknowledged call has no file, or a file is incomplete, or something stays behind.

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "espa.h"
#include "espasend/control_station.h"
#include "espasend/line.h"
#include "site.h"

namespace fs = std::filesystem;

namespace {

constexpr int LINES = 16;
constexpr int PATIENCE_MS = 60'000;
constexpr int GARBLED_ONE_IN = 40;
constexpr const char *SMALL_DISK = "size=8m,mode=0777";
constexpr const char *RULES =
    "[rule_call]\naction = call\nextension = 8003\ncallerid = %message%\nquote = yes\n";

void pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Takes complete call files out of the spool directory and remembers the calls that they place.
class pbx_t {
  public:
    explicit pbx_t(fs::path spool) : spool_(std::move(spool)), reader_([this] { run(); }) {}
    ~pbx_t() { stop(); }

    void stop() {
        done_ = true;
        if (reader_.joinable()) {
            reader_.join();
            take_all();
        }
    }
    const std::map<int, int> &taken() const { return taken_; }
    int incomplete() const { return incomplete_; }

  private:
    void run() {
        while (!done_) {
            take_all();
            pause(5);
        }
    }
    void take_all() {
        std::error_code gone;
        for (const auto &entry : fs::directory_iterator(spool_, gone)) {
            if (entry.path().filename().string().starts_with("call_8003_")) {
                take(entry.path());
            }
        }
    }
    void take(const fs::path &path) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            return;  // gone with the directory
        }
        std::ostringstream content;
        content << file.rdbuf();
        const std::string text = content.str();
        const size_t at = text.find("CallerID: CALL ");
        const bool complete = at != std::string::npos && text.ends_with("\r\nMaxRetries: 0\r\n");
        std::error_code gone;
        if (!fs::remove(path, gone)) {
            return;
        }
        if (complete) {
            taken_[atoi(text.c_str() + at + 15)]++;
        } else {
            incomplete_++;
        }
    }

    fs::path spool_;
    std::map<int, int> taken_;
    int incomplete_ = 0;
    std::atomic<bool> done_ = false;
    std::thread reader_;
};

// One line's station, which repeats a call until it is acknowledged.
class station_t {
  public:
    station_t(const site_t &site, int line)
        : site_(site), line_(line), random_(static_cast<unsigned>(line) + 1) {}

    void deliver(int number) {
        const std::string message = "CALL " + std::to_string(number) + ".";
        const std::string packet = compose_packet({"1", message, "", "", "", ""});
        while (!try_once(packet)) {
        }
    }
    int repeats() const { return repeats_; }

  private:
    bool try_once(std::string packet) {
        if (!sock_) {
            sock_ = site_.accept(line_);
        }
        const bool garbled = random_() % GARBLED_ONE_IN == 0;
        packet.back() ^= static_cast<char>(garbled);
        send(sock_.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
        pollfd waiting{sock_.get(), POLLIN, 0};
        char answer = 0;
        if (poll(&waiting, 1, PATIENCE_MS) <= 0) {
            give_up("line " + std::to_string(line_) + " gets no answer");
        }
        if (recv(sock_.get(), &answer, 1, 0) != 1) {
            sock_.reset();  // the daemon was killed
        }
        if (answer == ACK && garbled) {
            give_up("a garbled packet was acknowledged");
        }
        repeats_ += answer != ACK;
        if (answer == NAK && !garbled) {
            pause(200);  // the spool directory needs a while
        }
        return answer == ACK;
    }

    const site_t &site_;
    int line_;
    std::mt19937 random_;
    unique_fd_t sock_;
    int repeats_ = 0;
};

struct world_t {
    site_t site{LINES};
    fs::path disk = site.dir() + "/disk";
    fs::path spool = disk / "outgoing";
    fs::path staging = disk / "staging";
    std::vector<station_t> stations;
    std::string conf;
    int kills = 0;

    // The mounts are this process's and its children's alone.
    world_t() {
        fs::create_directory(disk);
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
            mount("vesper", disk.c_str(), "tmpfs", 0, SMALL_DISK) != 0) {
            give_up("cannot mount a file system of its own");
        }
        for (const fs::path &directory : {spool, staging}) {
            fs::create_directory(directory);
            fs::permissions(directory, fs::perms::all);
        }
        conf = site.write_conf(0,
                               "rules = rule_call\nrecover_link = yes\nack_when_done = yes\n"
                               "staging_dir = " +
                                   staging.string() + "\nspool_dir = " + spool.string() + "\n",
                               RULES);
        for (int line = 0; line < LINES; line++) {
            stations.emplace_back(site, line);
        }
        start();
    }
    ~world_t() {
        site.stop();
        umount(disk.c_str());
    }

    void start() { site.start({"vesperd", "-f", "-c", conf}); }
    void kill_and_restart() {
        site.stop(SIGKILL);
        kills++;
        start();
    }
    // Calls from all lines at once, `wants_more` deciding about each, while `meanwhile` happens.
    // Returns how many were acknowledged.
    int call(const std::function<bool(int)> &wants_more, const std::function<void()> &meanwhile) {
        std::atomic<int> next = 0;
        std::atomic<int> playing = LINES;
        std::vector<std::thread> lines;
        for (station_t &station : stations) {
            lines.emplace_back([&] {
                for (int number = next++; wants_more(number); number = next++) {
                    station.deliver(number);
                }
                playing--;
            });
        }
        meanwhile();
        for (std::thread &line : lines) {
            line.join();
        }
        return next - LINES;
    }
};

// Prints what became of the calls of a phase. Returns whether each has its file.
bool print_phase(const char *name, world_t *world, pbx_t *pbx, int acknowledged) {
    pbx->stop();
    int lost = 0;
    int twice = 0;
    for (int number = 0; number < acknowledged; number++) {
        const auto found = pbx->taken().find(number);
        lost += found == pbx->taken().end();
        twice += found != pbx->taken().end() && found->second > 1;
    }
    int repeats = 0;
    for (const station_t &station : world->stations) {
        repeats += station.repeats();
    }
    printf(
        "%-22s %6d acknowledged, %d without a file, %d with two, %d incomplete files; "
        "%d repeats and %d kills so far\n",
        name, acknowledged, lost, twice, pbx->incomplete(), repeats, world->kills);
    fflush(stdout);
    return lost == 0 && pbx->incomplete() == 0 && (twice == 0 || world->kills > 0);
}

bool call_a_thousand(const char *name, world_t *world, const std::function<void()> &meanwhile) {
    pbx_t pbx(world->spool);
    const auto wants_more = [](int number) { return number < 1000; };
    const int acknowledged = world->call(wants_more, meanwhile);
    return print_phase(name, world, &pbx, acknowledged) && acknowledged == 1000;
}

// One trouble after the other until the time is over.
void make_trouble(world_t *world, std::chrono::steady_clock::time_point end) {
    std::mt19937 random(1);
    const fs::path filler = world->disk / "filler";
    const fs::path gone = world->disk / "gone";
    while (std::chrono::steady_clock::now() < end) {
        pause(4000 + static_cast<int>(random() % 3000));
        const unsigned kind = random() % 4;
        if (kind == 0) {
            std::ofstream(filler) << std::string(16 << 20, 'x');
            pause(2000);
            fs::remove(filler);
        } else if (kind == 1) {
            fs::rename(world->spool, gone);
            pause(2000);
            fs::rename(gone, world->spool);
        } else {
            world->kill_and_restart();
        }
    }
}

bool call_through_trouble(world_t *world, int seconds) {
    pbx_t pbx(world->spool);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const auto wants_more = [end](int) { return std::chrono::steady_clock::now() < end; };
    const int acknowledged = world->call(wants_more, [world, end] { make_trouble(world, end); });
    return print_phase("with trouble", world, &pbx, acknowledged);
}

// What a killed process left in the staging directory is gone after the next start.
bool leaves_nothing_behind(world_t *world) {
    std::ofstream(world->staging / "vesperd-call-1-1") << "left by a process that was killed";
    world->kill_and_restart();
    for (int i = 0; i < 100 && !fs::is_empty(world->staging); i++) {
        pause(100);
    }
    const bool empty = fs::is_empty(world->staging);
    printf("the staging directory is %s\n", empty ? "empty" : "NOT empty");
    return empty;
}

}  // namespace

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 300;
    world_t world;
    bool good = call_a_thousand("a thousand", &world, [] {});
    good &= call_a_thousand("killed in the middle", &world, [&world] {
        pause(100);
        world.kill_and_restart();
    });
    good &= call_through_trouble(&world, seconds);
    good &= leaves_nothing_behind(&world);
    return good ? 0 : 1;
}
