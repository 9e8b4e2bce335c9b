// Misbehaving lines and broken surroundings, many at once against one daemon: whatever happens on
// one line, it, or where it stays broken every other one, delivers the next message.

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "running_daemon.h"

namespace {

const std::string LISTED = "rules = rule_good,rule_endless\n";
const std::string IN_ASCII = "protocol = ascii\n";
const std::string RULES =
    "[rule_good]\npattern = GOOD\naction = call\nextension = $line\nvalue[line] = GOOD ([0-9]+)\n"
    "[rule_endless]\npattern = ENDLESS\naction = script\n"
    "callscript = 'echo $$ > @pid; exec sleep 1000'\n";

// What becomes of the first connection. It ends, or else the good message comes on the same one.
enum first_t { STAYS, IS_QUIET, IS_SLOW, IS_POLLED, IS_CLOSED, IS_RESET, IS_GIVEN_UP, IS_URGENT };
enum good_t { NONE, ESPA, ASCII };

struct fault_t {
    const char *name;
    std::string keys, sent;
    first_t first;
    good_t good;
    std::string logged = "";
};

void deliver(const unique_fd_t &sock, const fault_t &fault, const daemon_t &daemon, size_t line) {
    const std::string text = "GOOD " + std::to_string(line);
    if (fault.first == IS_QUIET) {
        std::this_thread::sleep_for(std::chrono::seconds(17));
    }
    std::string bytes = fault.good == ESPA ? compose_packet(to("1", text)) : text + "\n";
    for (int i = 0; i < 2 && (fault.first == IS_SLOW || fault.first == IS_POLLED); i++) {
        std::this_thread::sleep_for(std::chrono::seconds(8));
        send_bytes(sock, fault.first == IS_POLLED ? "1\x05" : bytes.substr(0, 1));
        bytes.erase(0, fault.first == IS_POLLED ? 0 : 1);
    }
    send_bytes(sock, bytes);
    daemon.call(std::to_string(line));
}

void play(const fault_t &fault, const daemon_t *daemon, size_t line) {
    unique_fd_t sock = daemon->accept(line);
    const int small = 1024;  // replies that nobody reads soon fill it
    setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const linger at_once{fault.first == IS_RESET, 0};
    setsockopt(sock.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    const int urgent = fault.first == IS_URGENT ? MSG_OOB : 0;
    // The daemon may give up before the last byte.
    send(sock.get(), fault.sent.data(), fault.sent.size(), urgent | MSG_NOSIGNAL);
    char byte = 0;
    while (fault.first >= IS_GIVEN_UP && recv(sock.get(), &byte, 1, 0) > 0) {
    }
    if (fault.first >= IS_CLOSED) {
        sock.reset();
    }
    if (fault.good != NONE) {
        deliver(sock ? std::move(sock) : daemon->accept(line), fault, *daemon, line);
    }
    std::string logged = fault.logged;
    if (const size_t port = logged.find('#'); port != std::string::npos) {
        logged.replace(port, 1, daemon->ports[line]);
    }
    daemon->expect_logged(logged);
}

struct Faults : Installed {};

// Every line of a table at once.
void play_all(const std::vector<fault_t> &faults, const std::string &more_keys) {
    std::vector<daemon_t::line_t> keys;
    for (const fault_t &fault : faults) {
        keys.push_back({fault.name, LISTED + more_keys + fault.keys});
    }
    daemon_t daemon(keys, RULES);
    daemon.dir.make("log");  // a file by that name cannot be written
    daemon.run_in_foreground("");
    std::vector<std::thread> lines;
    for (size_t i = 0; i < faults.size(); i++) {
        lines.emplace_back(play, faults[i], &daemon, i);
    }
    for (std::thread &line : lines) {
        line.join();
    }
    EXPECT_TRUE(daemon.dir.list("call_99").empty());
}

std::vector<fault_t> line_faults() {
    const std::string swapped = "Trying to swap to ASCII";
    std::string requests;
    for (int i = 0; i < 50000; i++) {
        requests += "1\x05";
    }
    std::mt19937 random(1);
    std::string noise(65536, '\0');
    std::generate(noise.begin(), noise.end(), random);
    return {
        {"closed", "", "", IS_CLOSED, ASCII, swapped},
        {"reset", "", "", IS_RESET, ASCII, swapped},
        {"reset_in_packet", "", wire("<SOH>1<STX>"), IS_RESET, ASCII},
        // This one waits for ever; that the others deliver is what can be asked of it.
        {"closed_in_packet", "", wire("<SOH>1"), IS_CLOSED, NONE},
        {"silent", "", "", IS_GIVEN_UP, ESPA, "Call service action \n"},
        {"silent_ascii", IN_ASCII + "read_timeout = yes", "", IS_GIVEN_UP, ASCII},
        {"slow", "", "", IS_SLOW, ESPA},
        {"wrong_check", "", wire("<SOH>1<STX>2<US>GOOD 99<ETX><00>"), IS_POLLED, ESPA,
         "ESPA packet BCC is WRONG. won't process"},
        {"too_long", "", "\x01" + std::string(1500, 'x'), IS_GIVEN_UP, ASCII},
        {"without_etx", "no_check_bcc = yes", wire("<SOH>1<STX>2<US>" + std::string(1019, 'x')),
         STAYS, ESPA, "ESPA packet BCC check is OFF"},
        {"random", "", noise, IS_GIVEN_UP, ASCII},
        {"urgent", "", "!", IS_URGENT, ASCII},
        {"nul_bytes", IN_ASCII + "read_timeout = no", wire("GO<NUL>D<NUL><NUL> 98\n"), IS_QUIET,
         ASCII},
        {"long_line", IN_ASCII, std::string(5000, 'x') + "\n", STAYS, ASCII, "message=xxxxx"},
        {"deaf", "", requests, STAYS, ESPA},
    };
}

TEST_F(Faults, OnTheLine) {
    play_all(line_faults(), "");
}

// Whatever took an ESPA line down, it comes back as one.
TEST_F(Faults, OnALineThatRecovers) {
    std::vector<fault_t> faults = line_faults();
    for (fault_t &fault : faults) {
        if (!fault.keys.starts_with(IN_ASCII) && fault.good != ESPA) {
            fault.good = ESPA;
            const bool is_odd = fault.name == "random"s || fault.name == "too_long"s;
            fault.logged = "Line of pager "s + fault.name + " to 127.0.0.1:# " +
                           (is_odd ? "brought a byte out of place" : "was closed or failed");
        }
    }
    play_all(faults, "recover_link = yes\n");
}

TEST_F(Faults, ConnectionRefused) {
    daemon_t daemon(LISTED, RULES);
    daemon.listeners[0].reset();
    const auto start = std::chrono::steady_clock::now();
    daemon.run_in_foreground();
    daemon.expect_logged("Error connecting to 127.0.0.1:" + daemon.ports[0]);
    daemon.expect_logged("Call service action connection_lost\n");
    std::string error;
    daemon.listeners[0] = listen_on("127.0.0.1", std::stoi(daemon.ports[0]), &error);
    play({"", "", "", STAYS, ESPA}, &daemon, 0);
    // Three seconds before each attempt and after the one that failed.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(9));
}

TEST_F(Faults, AroundTheDaemon) {
    daemon_t daemon({{"missing", LISTED + "spool_dir = @missing"},
                     {"locked", LISTED + "spool_dir = @locked"},
                     {"odd", LISTED + "spool_dir = @odd"},
                     {"full", LISTED + "spool_dir = @full"},
                     {"endless", LISTED}},
                    RULES);
    const fs::path spool = daemon.dir.path("");
    for (const char *name : {"locked", "full", "odd"}) {
        daemon.dir.make(name, 0755);
    }
    // Nobody else sees what is mounted here.
    const std::string full = spool / "full";
    ASSERT_EQ(unshare(CLONE_NEWNS) + mount("", "/", "", MS_REC | MS_PRIVATE, ""), 0);
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k,mode=777"), 0);
    daemon.dir.write("full/rest", std::string(4096, 'x'));
    for (time_t now = time(nullptr), later = 0; later < 300; later++) {
        const std::string name = spool / "odd/call_1_" += std::to_string(now + later);
        EXPECT_EQ(mkfifo(name.c_str(), 0666), 0);  // holds nobody up
    }
    daemon.run_in_foreground();
    unique_fd_t lines[5];
    for (size_t i = 0; i < 5; i++) {
        lines[i] = daemon.accept(i);
    }
    send_bytes(lines[4], compose_packet(to("1", "ENDLESS")));
    EXPECT_TRUE(eventually([&] { return daemon.dir.read("pid").ends_with("\n"); }));
    const auto deliver_to_all = [&] {
        for (size_t i = 0; i < 4; i++) {
            control_station_t station(lines[i].get(), 60, nullptr);
            EXPECT_TRUE(station.send_call(to("1", "GOOD 1"))) << station.error();
        }
    };
    deliver_to_all();
    EXPECT_EQ(daemon.count("Unable to open file for writing\n"), 3);
    EXPECT_EQ(daemon.count("No space left on device"), 1);
    EXPECT_EQ(daemon.count("Call service action general_error\n"), 4);
    fs::remove(spool / "full/rest");
    for (const char *name : {"missing", "locked", "odd"}) {  // mended
        fs::remove_all(spool / name);
        daemon.dir.make(name);
    }
    deliver_to_all();
    for (const char *name : {"missing", "locked", "odd", "full"}) {
        EXPECT_TRUE(eventually([&] { return !fs::is_empty(spool / name); })) << name;
    }
    kill(std::stoi(daemon.dir.read("pid")), SIGKILL);
    EXPECT_EQ(umount(full.c_str()), 0);
}

}  // namespace
