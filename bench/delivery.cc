// Acknowledged is delivered: sixteen lines that all call one extension, with ack_when_done and
// staging_dir, beside a reader that takes call files away as a PBX does.
//
//   bench_delivery SECONDS [CALLS]
//
// First a thousand calls as fast as they go; then a thousand with a SIGKILL and a restart in the
// middle; then, for so many seconds, calls with a garbled packet now and then, a spool directory that
// is full or gone for seconds at a time, and SIGKILL with a restart every few seconds. Then the same on
// lines that follow the link procedure: as many CALLS as are asked for, 10,000 if nothing is said, beside
// polls and calls for other stations, and again with SIGKILL. At last on lines that listen, whose paging
// systems break off and come back every few seconds, while a stranger knocks a thousand times a second at
// every port. Exits with 1 when an acknowledged call has no file, or a file is incomplete or of another
// station, or something stays behind.

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
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
#include "espasend/standard_station.h"
#include "site.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

constexpr int LINES = 16;
constexpr int PATIENCE_MS = 60'000;
constexpr int GARBLED_ONE_IN = 40;
constexpr int OTHERS_FROM = 1'000'000;  // the numbers of calls for other stations
constexpr std::chrono::milliseconds POLL_EVERY(100);
constexpr int LISTENING_PAUSE_MS = 20;  // leaves the stranger some of the machine
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

// How a world's lines are: as ever, following the procedure, or that and waiting for their systems.
enum class kind_t { USUAL, STANDARD, LISTENING };

call_t numbered_call(int number) {
    return {"1", "CALL " + std::to_string(number) + ".", "", "", "", ""};
}

// One line's station, which repeats a call until it is acknowledged.
class station_t {
  public:
    station_t(const site_t &site, int line, kind_t kind)
        : site_(site), line_(line), kind_(kind), random_(static_cast<unsigned>(line) + 1) {}

    void deliver(int number) {
        if (kind_ != kind_t::USUAL) {
            deliver_by_standard(number);
            return;
        }
        const std::string packet = compose_packet(numbered_call(number));
        while (!try_once(packet)) {
        }
    }
    int repeats() const { return repeats_; }
    int breaks() const { return breaks_; }

  private:
    // As a control station, beside polls and calls for the stations 4 and 5, which are not there.
    void deliver_by_standard(int number) {
        for (;; repeats_++) {
            if (!sock_) {
                connect();
            }
            if (kind_ == kind_t::LISTENING && std::chrono::steady_clock::now() >= next_break_) {
                break_off(number);
            }
            standard_station_t station(sock_.get(), PATIENCE_MS / 1000, nullptr, '1');
            station.set_repeats(2, random_() % GARBLED_ONE_IN == 0 ? 1 : 0);
            const char other = random_() % 2 == 0 ? '4' : '5';
            if (poll_when_due(&station) &&
                station.send_unheard(other, numbered_call(OTHERS_FROM + number)) &&
                station.send_call('2', numbered_call(number))) {
                pause(kind_ == kind_t::LISTENING ? LISTENING_PAUSE_MS : 0);
                return;
            }
            if (station.is_closed()) {
                sock_.reset();  // the daemon was killed
            } else {
                pause(200);  // the spool directory needs a while
            }
        }
    }
    void connect() {
        while (!sock_) {
            sock_ = kind_ == kind_t::LISTENING ? site_.connect_from("127.0.0.1", line_)
                                               : site_.accept(line_);
            pause(sock_ ? 0 : 100);
        }
    }
    // In the middle of a packet, and half of the times without a word, as a power cut does it.
    void break_off(int number) {
        const auto now = std::chrono::steady_clock::now();
        if (next_break_ != std::chrono::steady_clock::time_point{}) {
            const std::string packet = compose_packet(numbered_call(number));
            const std::string begun =
                "1\x05"
                "2\x05" +
                packet.substr(0, random_() % packet.size());
            send(sock_.get(), begun.data(), begun.size(), MSG_NOSIGNAL);
            if (random_() % 2 == 0) {
                silent_.push_back(std::move(sock_));
            }
            sock_.reset();
            connect();
            breaks_++;
        }
        next_break_ = now + std::chrono::milliseconds(2000 + random_() % 3000);
    }
    bool poll_when_due(standard_station_t *station) {
        const auto now = std::chrono::steady_clock::now();
        std::string report;
        if (now < next_poll_) {
            return true;
        }
        next_poll_ = now + POLL_EVERY;
        return station->send_bytes("4\x05") && station->poll_station('2', &report) &&
               station->send_bytes("5\x05\x04");
    }

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
    kind_t kind_;
    std::mt19937 random_;
    std::chrono::steady_clock::time_point next_poll_ = {};
    unique_fd_t sock_;
    int repeats_ = 0;
    int breaks_ = 0;
    std::chrono::steady_clock::time_point next_break_ = {};
    std::vector<unique_fd_t> silent_;  // connections that nobody has closed
};

struct world_t {
    static constexpr std::array<const char *, 3> KEYS = {"", "espa_address = 2\n",
                                                         "espa_address = 2\nlisten = yes\n"};

    site_t site{LINES};
    fs::path disk = site.dir() + "/disk";
    fs::path spool = disk / "outgoing";
    fs::path staging = disk / "staging";
    std::vector<station_t> stations;
    std::string conf;
    int kills = 0;

    // The mounts are this process's and its children's alone.
    explicit world_t(kind_t kind) {
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
                               "rules = rule_call\nrecover_link = yes\nack_when_done = yes\n"s +
                                   KEYS[static_cast<size_t>(kind)] + "staging_dir = " +
                                   staging.string() + "\nspool_dir = " + spool.string() + "\n",
                               RULES);
        for (int line = 0; line < LINES; line++) {
            stations.emplace_back(site, line, kind);
        }
        if (kind == kind_t::LISTENING) {
            site.stop_listening();
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
    const auto others = pbx->taken().lower_bound(OTHERS_FROM);
    if (others != pbx->taken().end()) {
        give_up("call " + std::to_string(others->first) + " of another station was taken");
    }
    int repeats = 0;
    int breaks = 0;
    for (const station_t &station : world->stations) {
        repeats += station.repeats();
        breaks += station.breaks();
    }
    printf(
        "%-22s %6d acknowledged, %d without a file, %d with two, %d incomplete files; "
        "%d repeats, %d breaks and %d kills so far\n",
        name, acknowledged, lost, twice, pbx->incomplete(), repeats, breaks, world->kills);
    fflush(stdout);
    return lost == 0 && pbx->incomplete() == 0 && (twice == 0 || world->kills + breaks > 0);
}

bool call_often(const char *name, int calls, world_t *world,
                const std::function<void()> &meanwhile) {
    pbx_t pbx(world->spool);
    const auto wants_more = [calls](int number) { return number < calls; };
    const int acknowledged = world->call(wants_more, meanwhile);
    return print_phase(name, world, &pbx, acknowledged) && acknowledged == calls;
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

// Knocks at every port, from an address that may not connect.
class stranger_t {
  public:
    explicit stranger_t(const site_t &site) : site_(site) {
        for (int line = 0; line < LINES; line++) {
            knockers_.emplace_back([this, line] { knock_at(line); });
        }
    }
    int64_t stop() {
        done_ = true;
        for (std::thread &knocker : knockers_) {
            knocker.join();
        }
        return knocks_;
    }

  private:
    void knock_at(int line) {
        const auto begin = std::chrono::steady_clock::now();
        for (int round = 0; !done_; round++) {
            std::this_thread::sleep_until(begin + round * std::chrono::milliseconds(1));
            knocks_ += site_.connect_from("127.0.0.2", line) ? 1 : 0;
        }
    }

    const site_t &site_;
    std::atomic<int64_t> knocks_ = 0;
    std::atomic<bool> done_ = false;
    std::vector<std::thread> knockers_;
};

bool call_beside_a_stranger(int seconds) {
    world_t world(kind_t::LISTENING);
    pbx_t pbx(world.spool);
    stranger_t stranger(world.site);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const auto wants_more = [end](int) { return std::chrono::steady_clock::now() < end; };
    const auto begin = std::chrono::steady_clock::now();
    const int acknowledged = world.call(wants_more, [] {});
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    const int64_t knocks = stranger.stop();
    printf("a stranger knocked %.0f times a second at each of %d ports for %.0f s\n",
           static_cast<double>(knocks) / LINES / taken.count(), LINES, taken.count());
    return print_phase("listening", &world, &pbx, acknowledged) && acknowledged > 0;
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
    const int standard_calls = argc > 2 ? atoi(argv[2]) : 10'000;
    bool good = true;
    {
        world_t world(kind_t::USUAL);
        const auto kill_early = [&world] {
            pause(100);
            world.kill_and_restart();
        };
        good &= call_often("a thousand", 1000, &world, [] {});
        good &= call_often("killed in the middle", 1000, &world, kill_early);
        good &= call_through_trouble(&world, seconds);
        good &= leaves_nothing_behind(&world);
    }
    {
        world_t world(kind_t::STANDARD);
        good &= call_often("by the procedure", standard_calls, &world, [] {});
        good &= call_through_trouble(&world, seconds / 2);
    }
    good &= call_beside_a_stranger(seconds);
    return good ? 0 : 1;
}
