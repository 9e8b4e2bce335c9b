// Misbehaving lines and broken surroundings, many at once against one daemon: whatever happens on one line, it, or
// where it stays broken every other one, delivers the next message.

#include <sys/mount.h>

#include <random>

#include "line.h"
#include "support.h"

namespace {

struct faults_t;

struct fault_t {
    const char *name;
    std::string keys;                          // of its pager, besides host and port
    std::function<void(faults_t &, int)> act;  // plays the line of this number, the good message included
    std::string logged;
};

struct faults_t {
    explicit faults_t(const std::vector<fault_t> &table) : faults(table) {
        std::string text =
            "[logger]\nlog_file = @missing/log\n[rule_good]\npattern = GOOD\naction = call\nextension = $line\n"
            "value[line] = GOOD ([0-9]+)\n[rule_endless]\naction = script\npattern = ENDLESS\n"
            "callscript = 'echo $$ > @pid; exec sleep 1000'\n";
        for (const fault_t &fault : faults) {
            std::string error;
            do {
                ports.push_back(20000 + static_cast<int>(std::random_device()() % 12000));
                listeners.push_back(listen_on("127.0.0.1", ports.back(), &error));
            } while (!listeners.back() && (ports.pop_back(), listeners.pop_back(), true));
            text += "[" + std::string(fault.name) + "]\nhost = 127.0.0.1\nport = " + std::to_string(ports.back()) +
                    "\nrules = rule_good,rule_endless\nspool_dir = @\n" + fault.keys + "\n";
        }
        const std::string conf = dir.write("conf", std::regex_replace(text, std::regex("@"), dir.path()));
        daemon = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-c"s, conf});
    }
    // Plays all lines side by side.
    void run() {
        std::vector<std::thread> lines;
        for (size_t i = 0; i < faults.size(); i++) {
            lines.emplace_back([this, i] { faults[i].act(*this, static_cast<int>(i)); });
        }
        for (std::thread &line : lines) { line.join(); }
        for (const fault_t &fault : faults) {
            EXPECT_TRUE(eventually([&] { return daemon->output().find(fault.logged) != std::string::npos; }))
                << fault.name;
        }
    }
    unique_fd_t accept(int line) const {
        std::string error;
        unique_fd_t sock = accept_within(listeners[static_cast<size_t>(line)].get(), 90, &error);
        EXPECT_TRUE(sock) << faults[static_cast<size_t>(line)].name << ": " << error;
        return sock;
    }
    void expect_call(int line, const std::string &directory = "") const {
        const std::string prefix = "call_" + std::to_string(line) + "_";
        EXPECT_TRUE(eventually([&] {
            for (const auto &entry : fs::directory_iterator(dir.path(directory))) {
                if (entry.path().filename().string().starts_with(prefix)) { return true; }
            }
            return false;
        })) << faults[static_cast<size_t>(line)].name;
    }
    static std::string good(int line) { return "GOOD " + std::to_string(line); }
    void deliver_packet(const unique_fd_t &sock, int line) const {
        EXPECT_TRUE(
            control_station_t(sock.get(), 60, nullptr).send_packet(compose_packet({"1", good(line), "", "", "", ""})))
            << faults[static_cast<size_t>(line)].name;
        expect_call(line);
    }
    void deliver_line(const unique_fd_t &sock, int line) const {
        send_wire(sock, good(line) + "\n");
        expect_call(line);
    }

    std::vector<fault_t> faults;
    std::vector<int> ports;
    std::vector<unique_fd_t> listeners;
    temp_dir_t dir;
    std::unique_ptr<program_t> daemon;
};

void reset_connection(unique_fd_t sock) {
    const linger at_once{1, 0};
    setsockopt(sock.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

// Sends text on a first connection and ends it with `end`; the line comes back as ASCII.
auto fall_back(const std::string &text, void (*end)(unique_fd_t)) {
    return [=](faults_t &site, int line) {
        unique_fd_t sock = site.accept(line);
        send_wire(sock, text);
        end(std::move(sock));
        site.deliver_line(site.accept(line), line);
    };
}

// Sends text that is no reason to give the connection up.
auto carry_on(const std::string &text, bool ascii) {
    return [=](faults_t &site, int line) {
        const unique_fd_t sock = site.accept(line);
        send_wire(sock, text);
        ascii ? site.deliver_line(sock, line) : site.deliver_packet(sock, line);
    };
}

// Waits for the daemon to give a connection up, and for the next one.
unique_fd_t next_connection(faults_t &site, int line) {
    const unique_fd_t silent = site.accept(line);
    return site.accept(line);
}

std::string random_bytes() {
    std::mt19937 random(1);
    std::string bytes(65536, '\0');
    for (char &byte : bytes) { byte = static_cast<char>(random()); }
    return bytes;
}

struct Faults : Test {
    void SetUp() override {
        if (geteuid() != 0 || getpwnam("ovo") == nullptr) { GTEST_SKIP() << "needs root and the daemon's account"; }
    }
};

TEST_F(Faults, OnTheLine) {
    const auto do_nothing = [](unique_fd_t) {};
    const std::string ascii = "protocol = ascii\nread_timeout = yes", swapped = "Trying to swap to ASCII";
    faults_t site({
        {"refused", "",
            [](faults_t &s, int line) {
                const auto number = static_cast<size_t>(line);
                s.listeners[number].reset();
                EXPECT_TRUE(
                    eventually([&] { return s.daemon->output().find("Error connecting to") != std::string::npos; }));
                std::string error;
                s.listeners[number] = listen_on("127.0.0.1", s.ports[number], &error);
                s.deliver_packet(s.accept(line), line);
            },
            "Error connecting to 127.0.0.1:"},
        {"closed", "", fall_back("", do_nothing), swapped},
        {"reset", "", fall_back("", reset_connection), swapped},
        {"reset_in_packet", "", fall_back("<SOH>1<STX>", reset_connection), swapped},
        // This one waits for ever; that the others deliver is what can be asked of it.
        {"closed_in_packet", "", [](faults_t &s, int line) { send_wire(s.accept(line), "<SOH>1"); }, "2 Read "},
        {"silent", "", [](faults_t &s, int line) { s.deliver_packet(next_connection(s, line), line); },
            "Call service action \n"},
        {"silent_ascii", ascii, [](faults_t &s, int line) { s.deliver_line(next_connection(s, line), line); }, ""},
        {"slow", "",
            [](faults_t &s, int line) {
                const unique_fd_t sock = s.accept(line);
                const std::string packet = compose_packet({"1", faults_t::good(line), "", "", "", ""});
                for (const size_t at : {0, 1, 2}) {
                    EXPECT_EQ(send(sock.get(), &packet[at], at < 2 ? 1 : packet.size() - 2, MSG_NOSIGNAL) > 0, true);
                    std::this_thread::sleep_for(std::chrono::seconds(at < 2 ? 14 : 0));
                }
                s.expect_call(line);
            },
            ""},
        {"wrong_check", "", carry_on("<SOH>1<STX>2<US>GOOD 99<ETX><00>", false),
            "ESPA packet BCC is WRONG. won't process"},
        {"too_long", "",
            fall_back("<SOH>" + std::string(1500, 'x'),
                [](unique_fd_t sock) {
                    char byte = 0;
                    EXPECT_LE(recv(sock.get(), &byte, 1, 0), 0);  // the daemon gives it up
                }),
            swapped},
        {"without_etx", "no_check_bcc = yes", carry_on("<SOH>1<STX>2<US>" + std::string(1019, 'x'), false),
            "ESPA packet BCC check is OFF"},
        {"random", "",
            [](faults_t &s, int line) {
                {
                    const unique_fd_t sock = s.accept(line);
                    const std::string bytes = random_bytes();
                    send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                    char byte = 0;
                    while (recv(sock.get(), &byte, 1, 0) > 0) {}
                }
                s.deliver_line(s.accept(line), line);
            },
            swapped},
        {"nul_bytes", ascii, carry_on("GO<NUL>D<NUL><NUL> 98\n", true), "ASCII message is too small"},
        {"long_line", ascii, carry_on(std::string(5000, 'x') + "\n", true), "message=xxxxx"},
        {"deaf", "",
            [](faults_t &s, int line) {
                const unique_fd_t sock = s.accept(line);
                const int small = 1024;
                setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
                std::string requests;
                for (int i = 0; i < 50000; i++) { requests += "1\x05"; }
                EXPECT_EQ(send(sock.get(), requests.data(), requests.size(), 0), std::ssize(requests));
                send_wire(sock, compose_packet({"1", faults_t::good(line), "", "", "", ""}));
                s.expect_call(line);
            },
            "Got ENQ request address 1"},
        {"endless_script", "",
            [](faults_t &s, int line) {
                control_station_t(s.accept(line).get(), 60, nullptr)
                    .send_packet(compose_packet({"1", "ENDLESS", "", "", "", ""}));
                EXPECT_TRUE(eventually([&] { return s.dir.read("pid").ends_with("\n"); }));
            },
            "Calling cmd line: echo $$"},
    });
    site.run();
    kill(std::stoi(site.dir.read("pid")), SIGKILL);
}

// The log of these goes to standard error, because its file cannot be made.
TEST_F(Faults, AroundTheDaemon) {
    const auto mend = [](const std::function<void(faults_t &, int)> &act) {
        return [=](faults_t &site, int line) {
            const unique_fd_t sock = site.accept(line);
            control_station_t station(sock.get(), 60, nullptr);
            EXPECT_TRUE(station.send_call({"1", faults_t::good(line), "", "", "", ""}));
            act(site, line);
            EXPECT_TRUE(station.send_call({"1", faults_t::good(line), "", "", "", ""}));
            site.expect_call(line, site.faults[static_cast<size_t>(line)].name);
        };
    };
    faults_t site({
        {"missing_spool", "spool_dir = @missing_spool", mend([](faults_t &s, int) {
             fs::create_directory(s.dir.path("missing_spool"));
             fs::permissions(s.dir.path("missing_spool"), fs::perms(0777));
         }),
            "Unable to open file for writing\n"},
        {"locked_spool", "spool_dir = @locked_spool",
            mend([](faults_t &s, int) { fs::permissions(s.dir.path("locked_spool"), fs::perms(0777)); }),
            "Call service action general_error\n"},
        {"full_spool", "spool_dir = @full_spool", mend([](faults_t &s, int line) {
             EXPECT_EQ(s.dir.list("full_spool/call_").size(), 0u) << line;
             fs::remove(s.dir.path("full_spool/filler"));
         }),
            "No space left on device"},
    });
    fs::create_directory(site.dir.path("locked_spool"));
    fs::permissions(site.dir.path("locked_spool"), fs::perms(0555));
    const std::string full = site.dir.path("full_spool");
    fs::create_directory(full);
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=16k,mode=777"), 0) << strerror(errno);
    std::ofstream(full + "/filler") << std::string(16384, 'x');
    site.run();
    site.daemon.reset();
    umount(full.c_str());
}

}  // namespace
