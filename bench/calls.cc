// Calls to their end, through a PBX that runs: sixteen lines whose stations call telephones that confirm,
// answer only, are mailboxes, are busy, ring until nobody comes or do not exist.
//
//   bench_calls CALLS PBX LOG CHANNELS [TROUBLE]
//
//   PBX      a command, run as "PBX start", "PBX stop" and "PBX kill"; it has the dialplan of
//            scripts/pbx/extensions.conf and takes call files from /var/spool/asterisk/outgoing
//   LOG      its log, with a line for every attempt
//   CHANNELS how a telephone is called: "Local/#@telephones", with "#" for its name
//   TROUBLE  "daemon": it is killed every few seconds; "both": the PBX is stopped and killed too
//
// Accounts for every call by the journal, by the PBX's archive of call files and its log, and by what the
// stations were told. Exits with 1 when a call has no outcome, two or a wrong one, one that nobody
// answered was not passed on once, a station was not told, or something stays behind.

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "clock.h"
#include "espasend/control_station.h"
#include "espasend/standard_station.h"
#include "followed.h"
#include "site.h"

namespace fs = std::filesystem;

namespace {

constexpr int LINES = 16;
constexpr int PATIENCE_SECONDS = 60;
constexpr int LAST_WAIT_SECONDS = 400;
const fs::path OUTGOING = "/var/spool/asterisk/outgoing";
const fs::path ARCHIVE = "/var/spool/asterisk/outgoing_done";
const fs::path STAGING = "/var/spool/quillet/staging";

// The telephones, each with a rule of its name and an extension of the dialplan.
struct telephone_t {
    const char *name;
    const char *keys;       // of its rule
    const char *otherwise;  // the telephone that is next; empty: none
    bool is_reached;        // in the end, by this one or those behind it
};
constexpr telephone_t TELEPHONES[] = {
    {"confirm", "confirm = yes\n", "", true},
    {"plain", "", "", true},
    {"answer", "confirm = yes\n", "second", true},
    {"mailbox", "confirm = yes\n", "second", true},
    {"busy", "", "second", true},
    {"ring", "wait_time = 2\nmax_retries = 1\nretry_time = 1\n", "deaf", false},
    {"none", "", "second", true},
    {"second", "confirm = yes\n", "", true},
    {"deaf", "wait_time = 1\n", "", false},
};
constexpr int CALLED_FIRST = 7;

void pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

const telephone_t &telephone_of(int number) {
    return TELEPHONES[number % CALLED_FIRST];
}

const telephone_t &telephone_named(const std::string &rule) {
    return *std::find_if(std::begin(TELEPHONES), std::end(TELEPHONES), [&](const telephone_t &one) {
        return rule == "rule_" + std::string(one.name);
    });
}

std::string all_of(const fs::path &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool holds_nothing(const fs::path &directory) {
    std::error_code none;
    return !fs::exists(directory, none) || fs::is_empty(directory, none);
}

// A line's station: makes its calls, and asks what has become of them.
class station_t {
  public:
    station_t(const site_t &site, int line)
        : site_(site), line_(line), random_(static_cast<unsigned>(line) + 1) {}

    void deliver(int number) {
        own_.push_back(number);
        for (bool is_taken = false; !is_taken;) {
            standard_station_t station = connected();
            sent_[number]++;
            is_taken = station.send_call(
                '2', {std::to_string(number), telephone_of(number).name, "", "", "", ""});
            drop_if_closed(station);
        }
        poll();
        pause(400 + static_cast<int>(random_() % 800));
    }
    void poll() {
        std::string report;
        do {
            standard_station_t station = connected();
            station.poll_station('2', &report);
            drop_if_closed(station);
            note(report);
        } while (!report.empty());
    }
    // Whether it knows of all its calls what has become of them.
    bool is_told() const {
        return std::all_of(own_.begin(), own_.end(), [&](int number) {
            const auto found = told_.find(number);
            return found != told_.end() && found->second.find_first_of("au") != std::string::npos;
        });
    }
    const std::map<int, int> &sent() const { return sent_; }
    const std::map<int, std::string> &told() const { return told_; }

  private:
    standard_station_t connected() {
        if (!sock_) {
            sock_ = site_.accept(line_);
        }
        return {sock_.get(), PATIENCE_SECONDS, nullptr, '1'};
    }
    void drop_if_closed(const standard_station_t &station) {
        if (station.is_closed()) {
            sock_.reset();  // the daemon was killed
        }
    }
    // SOH 2 STX 1 US address RS 7 US status ETX check
    void note(const std::string &report) {
        const size_t end = report.find('\x1E');
        if (end != std::string::npos && report.size() > end + 3) {
            told_[atoi(report.c_str() + 5)] += report[end + 3];
        }
    }

    const site_t &site_;
    int line_;
    std::mt19937 random_;
    unique_fd_t sock_;
    std::vector<int> own_;
    std::map<int, int> sent_;
    std::map<int, std::string> told_;
};

std::string rules_of(const std::string &channels) {
    std::string text;
    for (const telephone_t &telephone : TELEPHONES) {
        const std::string channel = std::regex_replace(channels, std::regex("#"), telephone.name);
        text += std::string("[rule_") + telephone.name + "]\npattern = ^" + telephone.name +
                "\naction = call\nquote = yes\nchannel = " + channel +
                "\ncontext = vesperd\nextension = %number%\n" + telephone.keys;
        if (telephone.otherwise[0] != '\0') {
            text += std::string("otherwise = rule_") + telephone.otherwise + "\n";
        }
    }
    return text;
}

std::string pager_keys() {
    std::string text =
        "espa_address = 2\nack_when_done = yes\nfollow_calls = yes\nstatus_called = c\n"
        "status_answered = a\nstatus_unanswered = u\nspool_dir = " +
        OUTGOING.string() + "\nstaging_dir = " + STAGING.string() + "\nrules = ";
    for (int i = 0; i < CALLED_FIRST; i++) {
        text += std::string(i > 0 ? "," : "") + "rule_" + TELEPHONES[i].name;
    }
    return text + "\n";
}

// What the journal says became of a call.
struct outcome_t {
    std::string rule, result, next;
    int number;
    int times = 0;
};

class account_of_calls_t {
  public:
    account_of_calls_t(const site_t &site, const std::string &log) {
        std::ifstream journal(site.journal_file());
        for (std::string line; std::getline(journal, line);) {
            const auto object = nlohmann::json::parse(line, nullptr, false);
            if (object.is_object() && object["event"] == "outcome") {
                outcome_t &outcome = outcomes_[object["call"]];
                outcome = {object["rule"], object["result"],
                           object["next"].is_null() ? "" : object["next"].get<std::string>(),
                           std::stoi(object["address"].get<std::string>()), outcome.times + 1};
            }
        }
        for (const auto &entry : fs::directory_iterator(ARCHIVE)) {
            archived_t call;
            const std::string content = all_of(entry.path());
            if (read_comments(content, &call.followed)) {
                call.progress = progress_of(content);
                struct stat status {};
                stat(entry.path().c_str(), &status);
                call.ended_ms = status.st_mtim.tv_sec * 1000 + status.st_mtim.tv_nsec / 1'000'000;
                archive_[entry.path().filename()] = call;
            }
        }
        std::ifstream attempts(log);
        for (std::string line; std::getline(attempts, line);) {
            attempts_ += line.find("Attempting call on ") != std::string::npos;
        }
    }

    // Prints what it has found. Returns whether everything is right.
    bool print(const std::vector<std::unique_ptr<station_t>> &stations, bool with_pbx_trouble) {
        for (const auto &[name, outcome] : outcomes_) {
            results_[outcome.result]++;
            doubled_ += outcome.times > 1;
            check_passing(name, outcome);
        }
        for (const auto &[name, call] : archive_) {
            check_archived(name, call);
            redialled_ += call.progress.attempts > 1 && call.followed.rule != "rule_ring";
        }
        for (const auto &station : stations) {
            check_station(*station);
        }
        std::sort(delays_ms_.begin(), delays_ms_.end());
        const int64_t middle = delays_ms_.empty() ? 0 : delays_ms_[delays_ms_.size() / 2];
        const int64_t most = delays_ms_.empty() ? 0 : delays_ms_.back();
        printf("%zu call files, %d attempts by the PBX's log:", outcomes_.size(), attempts_);
        for (const auto &[result, count] : results_) {
            printf(" %d %s", count, result.c_str());
        }
        printf(
            "\n%d without an outcome, %d with two, %d with a wrong one, %d not passed on once\n"
            "%d calls repeated by their station, %d files too many for one rule, %d dialled again\n"
            "%d stations' calls told wrongly or not at all\n"
            "from the end of a call to its successor: %" PRId64 " ms in the middle, %" PRId64
            " ms at most\n",
            missing_, doubled_, wrong_, passed_wrongly_, repeated_, too_many_, redialled_,
            told_wrongly_, middle, most);
        const bool is_lost = results_.count("lost") > 0 && !with_pbx_trouble;
        return missing_ + doubled_ + wrong_ + passed_wrongly_ + too_many_ + told_wrongly_ == 0 &&
               (redialled_ == 0 || with_pbx_trouble) && !is_lost;
    }

  private:
    struct archived_t {
        followed_call_t followed;
        progress_t progress;
        int64_t ended_ms = 0;
    };

    void check_archived(const std::string &name, const archived_t &call) {
        const auto found = outcomes_.find(name);
        if (found == outcomes_.end()) {
            printf("no outcome of %s\n", name.c_str());
            missing_++;
            return;
        }
        const std::string &result = found->second.result;
        const bool confirms =
            std::string(telephone_named(call.followed.rule).keys).starts_with("conf");
        const bool is_reached = confirms ? call.progress.is_confirmed : call.progress.is_answered;
        const bool says_reached = result == "confirmed" || result == "answered";
        if (result != "lost" && is_reached != says_reached) {
            printf("%s of %s is %s\n", name.c_str(), call.followed.rule.c_str(), result.c_str());
            wrong_++;
        }
    }
    // Once, and to the right rule.
    void check_passing(const std::string &name, const outcome_t &outcome) {
        const telephone_t &telephone = telephone_named(outcome.rule);
        const bool is_reached = outcome.result == "confirmed" || outcome.result == "answered";
        const std::string next = is_reached || telephone.otherwise[0] == '\0'
                                     ? ""
                                     : std::string("rule_") + telephone.otherwise;
        int successors = 0;
        for (const auto &[other, call] : archive_) {
            if (call.followed.after == name) {
                successors++;
                note_delay(name, call);
            }
        }
        const int wanted = next.empty() ? 0 : 1;
        if (outcome.next != next || successors > wanted ||
            (successors < wanted && results_.count("lost") == 0)) {
            printf("%s: %s, next is '%s', %d calls\n", name.c_str(), outcome.result.c_str(),
                   outcome.next.c_str(), successors);
            passed_wrongly_++;
        }
    }
    void note_delay(const std::string &name, const archived_t &successor) {
        if (const auto call = archive_.find(name); call != archive_.end()) {
            delays_ms_.push_back(successor.followed.placed_ms - call->second.ended_ms);
        }
    }
    void check_station(const station_t &station) {
        for (const auto &[number, times] : station.sent()) {
            repeated_ += times > 1;
            std::map<std::string, int> files;
            bool is_reached = false;
            for (const auto &[name, outcome] : outcomes_) {
                if (outcome.number == number) {
                    too_many_ += ++files[outcome.rule] > times;
                    is_reached |= outcome.result == "confirmed" || outcome.result == "answered";
                }
            }
            const auto told = station.told().find(number);
            const char *wanted = is_reached ? "a" : "u";
            if (told == station.told().end() || told->second.find(wanted) == std::string::npos) {
                printf("the station of call %d was told '%s'\n", number,
                       told != station.told().end() ? told->second.c_str() : "");
                told_wrongly_++;
            }
        }
    }

    std::map<std::string, outcome_t> outcomes_;
    std::map<std::string, archived_t> archive_;
    std::map<std::string, int> results_;
    std::vector<int64_t> delays_ms_;
    int attempts_ = 0, missing_ = 0, doubled_ = 0, wrong_ = 0, passed_wrongly_ = 0;
    int repeated_ = 0, too_many_ = 0, redialled_ = 0, told_wrongly_ = 0;
};

void order(const std::string &pbx, const char *what) {
    if (system((pbx + " " + what).c_str()) != 0) {
        give_up(pbx + " " + what + " failed");
    }
}

// Until the stations have made their calls, and heard of them.
void make_trouble(site_t *site, const std::string &conf, const std::string &pbx, bool with_pbx,
                  const std::atomic<bool> &is_over) {
    std::mt19937 random(1);
    int kills = 0;
    for (int round = 1; !is_over; round++) {
        pause(6000 + static_cast<int>(random() % 4000));
        site->stop(SIGKILL);
        site->start({"vesperd", "-f", "-c", conf});
        kills++;
        if (with_pbx && round % 5 == 1) {
            order(pbx, round % 2 == 0 ? "stop" : "kill");
            pause(3000);
            order(pbx, "start");
        }
    }
    printf("the daemon was killed %d times\n", kills);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 5) {
        give_up("usage: bench_calls CALLS PBX LOG CHANNELS [TROUBLE]");
    }
    const int calls = atoi(argv[1]);
    const std::string pbx = argv[2];
    const std::string channels = argv[4];
    const std::string trouble_of = argc > 5 ? argv[5] : "";
    const bool with_pbx = trouble_of == "both";
    site_t site(LINES);
    const std::string conf =
        site.write_conf(4, pager_keys(), site.monitoring() + rules_of(channels));
    order(pbx, "start");
    site.start({"vesperd", "-f", "-c", conf});

    std::vector<std::unique_ptr<station_t>> stations;
    std::vector<std::thread> lines;
    std::atomic<int> next = 0;
    std::atomic<bool> is_over = false;
    std::atomic<int> waiting = LINES;
    for (int line = 0; line < LINES; line++) {
        stations.push_back(std::make_unique<station_t>(site, line));
        lines.emplace_back([&, station = stations.back().get()] {
            for (int number = next++; number < calls; number = next++) {
                station->deliver(number);
            }
            const int64_t end = microseconds_passed() + LAST_WAIT_SECONDS * int64_t{1'000'000};
            while (!station->is_told() && microseconds_passed() < end) {
                station->poll();
                pause(300);
            }
            waiting--;
            while (waiting > 0 && microseconds_passed() < end) {
                station->poll();  // of a call that came twice it hears again
                pause(300);
            }
        });
    }
    std::thread trouble([&] {
        if (!trouble_of.empty()) {
            make_trouble(&site, conf, pbx, with_pbx, is_over);
        }
    });
    for (std::thread &line : lines) {
        line.join();
    }
    is_over = true;
    trouble.join();
    for (int i = 0; i < 300 && !holds_nothing(STAGING / "followed"); i++) {
        for (const auto &station : stations) {
            station->poll();
        }
        pause(100);
    }
    const bool is_clean = holds_nothing(STAGING / "followed") && holds_nothing(OUTGOING);
    printf("%d calls; followed/ and the spool directory are %s\n", calls,
           is_clean ? "empty" : "NOT empty");
    account_of_calls_t account(site, argv[3]);
    const bool is_right = account.print(stations, with_pbx);
    site.stop();
    order(pbx, "stop");
    return is_clean && is_right ? 0 : 1;
}
