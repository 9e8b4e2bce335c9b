// Sixteen lines, random calls and random reconnects, and every message accounted for exactly once.
//
//   bench_soak MESSAGES
//
// A line starts as ESPA 4.4.4 and speaks ASCII from its first reconnect on, as the daemon does. Every
// message carries a number of its own and random bytes; the daemon's journal, which tells each message
// once, is the account. Meanwhile a reader looks at the status file all the time. Exits with 1 when a
// message is lost, was handled twice or stands otherwise in the journal, or a status file is not whole.

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "account.h"
#include "espasend/control_station.h"
#include "site.h"
#include "vesperstat/status_file.h"

namespace {

constexpr int LINES = 16;
constexpr int WAIT_SECONDS = 60;
constexpr int RECONNECTS_PER_LINE = 4;
constexpr std::chrono::seconds QUIET(30);  // without progress for so long, the rest is lost
constexpr const char *RULES = "[rule_all]\naction = skip\n";
constexpr const char *PAGER_KEYS = "rules = rule_all\nread_timeout = no\n";

// Sends the numbers from `first` on over one line.
void play_line(const site_t &site, int line, int first, int count) {
    std::mt19937 random(static_cast<unsigned>(line));
    const unsigned reconnect_every =
        static_cast<unsigned>(std::max(1, count / RECONNECTS_PER_LINE));
    unique_fd_t sock = site.accept(line);
    control_station_t station(sock.get(), WAIT_SECONDS, nullptr);
    bool ascii = false;
    for (int number = first; number < first + count; number++) {
        if (random() % reconnect_every == 0) {
            sock.reset();
            sock = site.accept(line);
            station = control_station_t(sock.get(), WAIT_SECONDS, nullptr);
            ascii = true;
        }
        const std::string message = numbered_message(number, &random);
        const std::string address = std::to_string(random() % 100000);
        if (!(ascii ? station.send_line(message)
                    : station.send_call({address, message, "", "", "", ""}))) {
            give_up("line " + std::to_string(line) + ": " + station.error());
        }
    }
    shutdown(sock.get(), SHUT_WR);
    char rest[256];
    while (read(sock.get(), rest, sizeof rest) > 0) {  // until the daemon has read everything
    }
}

// Reads the status file for as long as messages are sent.
class status_reader_t {
  public:
    explicit status_reader_t(const std::string &path)
        : reader_([this, path] {
              while (!done_) {
                  read(path);
              }
          }) {}
    void stop() {
        done_ = true;
        reader_.join();
    }
    int versions() const { return versions_; }
    int broken() const { return broken_; }

  private:
    void read(const std::string &path) {
        status_t status;
        std::string error;
        if (read_status(path, links_t::REFUSE, &status, &error)) {
            versions_ += status.written != last_;
            last_ = status.written;
            broken_ += status.lines.size() != LINES;
        } else {
            broken_ += versions_ > 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    std::atomic<bool> done_ = false;
    double last_ = 0;
    int versions_ = 0;
    int broken_ = 0;
    std::thread reader_;
};

}  // namespace

int main(int argc, char **argv) {
    const int messages = argc > 1 ? atoi(argv[1]) : 20000;
    site_t site(LINES);
    site.start({"vesperd", "-f", "-c", site.write_conf(0, PAGER_KEYS, site.monitoring() + RULES)});
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<int> playing = LINES;
    std::vector<std::thread> lines;
    for (int line = 0; line < LINES; line++) {
        const int first = static_cast<int>(int64_t{messages} * line / LINES);
        const int next = static_cast<int>(int64_t{messages} * (line + 1) / LINES);
        lines.emplace_back([&site, &playing, line, first, next] {
            play_line(site, line, first, next - first);
            playing--;
        });
    }
    account_t account(site.journal_file(), site.log_file(), messages);
    status_reader_t reader(site.status_file());
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const long resident_at_start = site.resident_kilobytes();
    while (playing > 0) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        account.count_portion();
    }
    for (std::thread &line : lines) {
        line.join();
    }
    auto progress = std::chrono::steady_clock::now();
    for (int missing = account.missing();
         missing > 0 && std::chrono::steady_clock::now() - progress < QUIET;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        account.count_portion();
        if (account.missing() < missing) {
            missing = account.missing();
            progress = std::chrono::steady_clock::now();
        }
    }
    reader.stop();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    const long resident_at_end = site.resident_kilobytes();
    const usage_t used = site.stop();
    printf("%d messages over %d lines in %.0f s: %d lost, %d duplicated, %d with another text\n",
           messages, LINES, taken.count(), account.missing(), account.repeated(), account.wrong());
    printf("%d versions of the status file, %d of them broken\n", reader.versions(),
           reader.broken());
    printf("resident memory %ld kB after 5 s, %ld kB at the end, peak %ld kB; %.1f CPU seconds\n",
           resident_at_start, resident_at_end, used.peak_kilobytes, used.cpu_seconds);
    return account.missing() == 0 && account.repeated() == 0 && account.wrong() == 0 &&
                   reader.broken() == 0
               ? 0
               : 1;
}
