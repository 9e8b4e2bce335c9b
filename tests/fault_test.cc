// Misbehaving lines and broken surroundings, many at once against one daemon: whatever happens on one line, it, or
// where it stays broken every other one, delivers the next message.

#include <sys/mount.h>

#include "support.h"

namespace {

struct faults_t;

struct fault_t {
    const char *name;
    std::string keys;  // of its pager, besides host and port
    std::function<void(faults_t &, int)>
        act;  // plays the line of this number, the good message included
    std::string logged = "";
};

struct faults_t {
    explicit faults_t(const std::vector<fault_t> &table) : faults(table) {
        std::string text =
            "[logger]\nlog_file = @missing/log\n[rule_good]\npattern = GOOD\naction = "
            "call\nextension = $line\n"
            "value[line] = GOOD ([0-9]+)\n[rule_endless]\naction = script\npattern = ENDLESS\n"
            "callscript = 'echo $$ > @pid; exec sleep 1000'\n";
        for (const fault_t &fault : faults) {
            listeners.push_back(listen_anywhere(&ports.emplace_back()));
            text += "[" + std::string(fault.name) + "]\nhost = 127.0.0.1\nport = " + ports.back() +
                    "\nrules = rule_good,rule_endless\nspool_dir = @\n" + fault.keys + "\n";
        }
        const std::string conf =
            dir.write("conf", std::regex_replace(text, std::regex("@"), dir.path()));
        daemon = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-c"s, conf});
    }
    void run() {
        std::vector<std::thread> lines;
        for (size_t i = 0; i < faults.size(); i++) {
            lines.emplace_back(faults[i].act, std::ref(*this), int(i));
        }
        for (std::thread &line : lines) {
            line.join();
        }
        for (const fault_t &fault : faults) {
            expect_logged(fault.logged);
        }
    }
    void expect_logged(const std::string &text) const {
        EXPECT_TRUE(eventually([&] { return daemon->output().find(text) != std::string::npos; }))
            << text;
    }
    unique_fd_t accept(int line) const {
        std::string error;
        unique_fd_t sock = accept_within(listeners[size_t(line)].get(), 90, &error);
        EXPECT_TRUE(sock) << faults[size_t(line)].name << ": " << error;
        return sock;
    }
    void expect_call(int line, const std::string &directory = "") const {
        const std::string prefix = "call_" + std::to_string(line) + "_";
        EXPECT_TRUE(eventually([&] { return !dir.list(prefix, directory).empty(); }))
            << faults[size_t(line)].name;
    }
    static std::string packet(int n) {
        return compose_packet({"1", "GOOD " + std::to_string(n), "", "", "", ""});
    }
    void deliver(const unique_fd_t &sock, int line, bool ascii) const {
        send_wire(sock, ascii ? "GOOD " + std::to_string(line) + "\n" : packet(line));
        EXPECT_TRUE(ascii || control_station_t(sock.get(), 60, nullptr).expect(wire("<ACK>")))
            << line;
        expect_call(line);
    }

    std::vector<fault_t> faults;
    std::vector<std::string> ports;
    std::vector<unique_fd_t> listeners;
    temp_dir_t dir;
    std::unique_ptr<program_t> daemon;
};

void reset_connection(unique_fd_t sock) {
    const linger at_once{1, 0};
    setsockopt(sock.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void drain(unique_fd_t sock) {
    for (char byte; recv(sock.get(), &byte, 1, 0) > 0;) {
    }
}

std::string random_bytes() {  // none of them begins a name for wire()
    std::mt19937 random(1);
    std::string bytes(65536, 0);
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    std::replace(bytes.begin(), bytes.end(), '<', '>');
    return bytes;
}

// Sends text on a first connection and ends it with `end`; the line comes back, as ASCII unless silence was the reason.
auto fall_back(const std::string &text, void (*end)(unique_fd_t), bool ascii = true) {
    return [=](faults_t &site, int line) {
        unique_fd_t sock = site.accept(line);
        const std::string bytes = wire(text);
        send(sock.get(), bytes.data(), bytes.size(),
             MSG_NOSIGNAL);  // the daemon may give up before the last
        end(std::move(sock));
        site.deliver(site.accept(line), line, ascii);
    };
}

// Sends text that is no reason to give the connection up; the good message follows.
auto carry_on(const std::string &text, bool ascii) {
    return [=](faults_t &site, int line) {
        const unique_fd_t sock = site.accept(line);
        send_wire(sock, text);
        site.deliver(sock, line, ascii);
    };
}

struct Faults : Installed {};

TEST_F(Faults, OnTheLine) {
    const auto do_nothing = [](unique_fd_t) {};
    const std::string ascii = "protocol = ascii\nread_timeout = yes",
                      swapped = "Trying to swap to ASCII";
    faults_t site({
        {"refused", "",
         [](faults_t &s, int line) {
             s.listeners[size_t(line)].reset();
             s.expect_logged("Error connecting to");
             std::string error;
             s.listeners[size_t(line)] =
                 listen_on("127.0.0.1", std::stoi(s.ports[size_t(line)]), &error);
             s.deliver(s.accept(line), line, false);
         },
         "Error connecting to 127.0.0.1:"},
        {"closed", "", fall_back("", do_nothing), swapped},
        {"reset", "", fall_back("", reset_connection), swapped},
        {"reset_in_packet", "", fall_back("<SOH>1<STX>", reset_connection), swapped},
        // This one waits for ever; that the others deliver is what can be asked of it.
        {"closed_in_packet", "", [](faults_t &s, int line) { send_wire(s.accept(line), "<SOH>1"); },
         "2 Read "},
        {"silent", "", fall_back("", drain, false), "Call service action \n"},
        {"silent_ascii", ascii, fall_back("", drain)},
        {"slow", "",
         [](faults_t &s, int line) {
             const unique_fd_t sock = s.accept(line);
             for (const std::string &text : {"<SOH>"s, "1"s, s.packet(line).substr(2)}) {
                 send_wire(sock, text);
                 std::this_thread::sleep_for(std::chrono::seconds(14));
             }
             s.expect_call(line);
         }},
        {"wrong_check", "", carry_on("<SOH>1<STX>2<US>GOOD 99<ETX><00>", false),
         "ESPA packet BCC is WRONG. won't process"},
        {"too_long", "", fall_back("<SOH>" + std::string(1500, 'x'), drain), swapped},
        {"without_etx", "no_check_bcc = yes",
         carry_on("<SOH>1<STX>2<US>" + std::string(1019, 'x'), false),
         "ESPA packet BCC check is OFF"},
        {"random", "", fall_back(random_bytes(), drain), swapped},
        {"nul_bytes", ascii, carry_on("GO<NUL>D<NUL><NUL> 98\n", true),
         "ASCII message is too small"},
        {"long_line", ascii, carry_on(std::string(5000, 'x') + "\n", true), "message=xxxxx"},
        {"deaf", "",
         [](faults_t &s, int line) {
             const unique_fd_t sock = s.accept(line);
             const int small = 1024;
             setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
             std::string requests;
             for (int i = 0; i < 50000; i++) {
                 requests += "1\x05";
             }
             EXPECT_EQ(send(sock.get(), requests.data(), requests.size(), 0), std::ssize(requests));
             send_wire(sock, s.packet(line));
             s.expect_call(line);
         },
         "Got ENQ request address 1"},
        {"endless_script", "",
         [](faults_t &s, int line) {
             const unique_fd_t sock = s.accept(line);
             send_wire(sock, compose_packet({"1", "ENDLESS", "", "", "", ""}));
             EXPECT_TRUE(eventually([&] { return s.dir.read("pid").ends_with("\n"); }));
         },
         "Calling cmd line: echo $$"},
    });
    site.run();
    kill(std::stoi(site.dir.read("pid")), SIGKILL);
    EXPECT_EQ(site.dir.list("call_99").size() + site.dir.list("call_98").size(), 0u);
}

TEST_F(Faults, AroundTheDaemon) {
    const auto mend = [](void (*act)(const temp_dir_t &)) {
        return [=](faults_t &site, int line) {
            const unique_fd_t sock = site.accept(line);
            control_station_t station(sock.get(), 60, nullptr);
            EXPECT_TRUE(station.send_call({"1", "GOOD " + std::to_string(line), "", "", "", ""}));
            act(site.dir);
            EXPECT_TRUE(station.send_call({"1", "GOOD " + std::to_string(line), "", "", "", ""}));
            site.expect_call(line, site.faults[size_t(line)].name);
        };
    };
    faults_t site({
        {"missing_spool", "spool_dir = @missing_spool",
         mend([](const temp_dir_t &dir) { dir.make("missing_spool", 0777); }),
         "Unable to open file for writing\n"},
        {"locked_spool", "spool_dir = @locked_spool", mend([](const temp_dir_t &dir) {
             fs::permissions(dir.path("locked_spool"), fs::perms(0777));
         }),
         "Call service action general_error\n"},
        {"full_spool", "spool_dir = @full_spool", mend([](const temp_dir_t &dir) {
             EXPECT_TRUE(dir.list("call_", "full_spool").empty());
             fs::remove(dir.path("full_spool/filler"));
         }),
         "No space left on device"},
    });
    site.dir.make("locked_spool", 0555);
    site.dir.make("full_spool", 0777);
    const std::string full = site.dir.path("full_spool");
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=16k,mode=777"), 0) << strerror(errno);
    site.dir.write("full_spool/filler", std::string(16384, 'x'));
    site.run();
    site.daemon.reset();
    umount(full.c_str());
}

}  // namespace
