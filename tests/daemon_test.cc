// The built programs: the daemon against a line, in the foreground and in the background, and the line tool.

#include <stdlib.h>
#include <sys/prctl.h>

#include <random>

#include "line.h"
#include "support.h"

namespace {

// The daemon with a converter to connect to and with a spool directory, a configuration and a name of its own.
struct daemon_t {
    // keys: further keys of the only pager and what follows them; "@" stands for the spool directory and "/".
    explicit daemon_t(const std::string &keys) {
        for (std::string error; !listener;) {
            port =
                std::to_string(20000 + std::random_device()() % 12000);  // the configuration holds no more than 32767
            listener = listen_on("127.0.0.1", std::stoi(port), &error);
        }
        configure(keys);
        fs::create_symlink(PROGRAM_DIR "/vesperd", dir.path("vesper-" + port));
    }
    ~daemon_t() {
        while (has_pidfile()) { fs::remove(pidfile()); }
    }
    void configure(const std::string &keys) const {
        const std::string text =
            "[logger]\nlog_file = @log\n[line]\nhost = 127.0.0.1\nport = " + port + "\nspool_dir = @\n";
        dir.write("conf", std::regex_replace(text + keys, std::regex("@"), dir.path()));
    }
    void run_in_foreground() {
        foreground_ = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-d"s, "-c"s, dir.path("conf")});
    }
    // Starts an instance, `command` in front; the log tells its process, which becomes a child of this one.
    child_t start(std::vector<std::string> command = {}) const {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const size_t seen = log().size();
        command.insert(command.end(), {dir.path("vesper-" + port), "-c", dir.path("conf")});
        run(0, command);
        size_t at = 0;
        EXPECT_TRUE(eventually([&] { return (at = log().find("Starting thread", seen)) != std::string::npos; }));
        const pid_t pid = std::stoi(log().substr(log().rfind('[', at) + 1));
        siginfo_t unused;  // it is a child from the moment when the processes in between have ended
        EXPECT_TRUE(eventually(
            [&] { return waitid(P_PID, static_cast<id_t>(pid), &unused, WEXITED | WNOHANG | WNOWAIT) == 0; }));
        return child_t(pid);
    }
    // Waits for the daemon's connection.
    unique_fd_t accept(int wait_seconds = 60) const {
        std::string error;
        unique_fd_t line = accept_within(listener.get(), wait_seconds, &error);
        EXPECT_TRUE(line || wait_seconds == 0) << error;
        return line;
    }
    std::string log() const { return foreground_ ? foreground_->output() : dir.read("log"); }
    int count(const std::string &text) const {
        int found = 0;
        const std::string seen = log();
        for (size_t at = seen.find(text); at != std::string::npos; at = seen.find(text, at + 1)) { found++; }
        return found;
    }
    bool logs(const std::string &text, int times = 1) {
        return eventually([&] { return count(text) >= times; });
    }
    // The values of the call files named call_`extension`_..., from the moment when there is one and it is complete.
    std::string call(const std::string &extension) const {
        std::string content;
        EXPECT_TRUE(eventually([&] {
            content = "";
            for (const std::string &name : dir.list("call_" + extension + "_")) { content += dir.read(name); }
            return content.ends_with("MaxRetries: 0\r\n");
        })) << extension;
        return std::regex_replace(content, std::regex("[A-Za-z]+: ([^\r]*)\r\n"), "$1|");
    }
    std::string pidfile() const {
        const std::string name = "vesper-" + port + ".pid";
        return (fs::exists("/var/run/" + name) ? "/var/run/" : "/tmp/") + name;
    }
    bool has_pidfile() const { return fs::exists(pidfile()); }

    temp_dir_t dir;
    std::string port;
    unique_fd_t listener;

    std::unique_ptr<program_t> foreground_;
};

call_t to(const std::string &address, const std::string &message) { return {address, message, "", "", "", ""}; }

const std::string RULES =
    "[rule_fire]\npattern = ^FIRE\naction = call\nextension = 1$zone\nchannel = C/%number%\n"
    "context = x\ncallerid = '%message%'\nvalue[zone] = ZONE ([0-9]+)\n"
    "[rule_script]\npattern = SCRIPT.*\naction = script\n"
    "callscript = \"ls -l /proc/self/fd > @fds; echo %number% > @number\"\n"
    "[rule_rest]\naction = call\nextension = rest\nchannel = R\ncontext = %alarm%\ncallerid = %message%\n";
const std::string LISTED_RULES = "rules = rule_fire,rule_script\ndefault_rule = rule_rest\n" + RULES;

// What happens on the line is noted in the file "alarms"; rule_x is up to the test.
const std::string NOTING_ALARMS =
    "send_service_actions = yes\nrules = rule_x\ndefault_rule = rule_default\n"
    "[rule_default]\naction = script\ncallscript = 'echo alarm %alarm% >> @alarms'\n";

const std::vector<std::string> AS_ACCOUNT = {"/usr/bin/setpriv", "--reuid=ovo", "--regid=ovo", "--clear-groups"};

struct Daemon : Test {
    void SetUp() override {
        if (geteuid() != 0 || getpwnam("ovo") == nullptr) { GTEST_SKIP() << "needs root and the daemon's account"; }
    }
};

TEST_F(Daemon, CommandLinesOfBothPrograms) {
    const temp_dir_t dir;
    const std::string quiet = "[logger]\nlog_level = 0\n",
                      script =
                          "[p]\nhost = 127.0.0.1\ndefault_rule = rule_s\n"
                          "[rule_s]\naction = script\ncallscript = run %number% %alarm%\n[rule_k]\n";
    const struct {
        int status;
        std::vector<std::string> arguments;
        const char *output;
    } rows[] = {
        {0, {"vesperd", "-d"}, "\nvesperd: ESPA 4.4.4 to PBX application daemon.\n\nUsage:\nvesperd [options]\n\n"},
        {0, {"vesperd", "--config"}, "\t-h, --help\t\t\tshow this text\n\n\n"},
        {0, {"vesperd", "-sh"}, "use custom config file \n"},
        {0, {"vesperd", "-f", "-c", "/missing"}, "\nUnable to open configuration file /missing. Exiting...\n\n"},
        {0, {"vesperd", "-m", "FIRE ZONE 3", "-c", SOURCE_DIR "/examples/nurse-call.conf", "-s"},
            "Running test over message: 'FIRE ZONE 3' at pager 'ward3'\n"
            "Rules: rule_fire,rule_arrest,rule_room\ndefault rule: rule_desk\nSelected rule "
            "rule_fire\n\tAction:\tCALL\n"
            "\t\tCallerID: \"Fire zone 3\" <8003>\n\t\tChannel: Local/fire@pagers\n"
            "\t\tContext: fire-team\n\t\tExtension: 8003\n"},
        {0, {"vesperd", "-m", "x", "-c", dir.write("script", quiet + script)},
            "Running test over message: 'x' at pager 'p'\nRules: \ndefault rule: rule_s\nSelected rule rule_s\n"
            "\tAction:\tSCRIPT\n\tFollowing command to launch: \n\t\trun 1000 message\n"},
        {0, {"vesperd", "-m", "x", "-c", dir.write("empty", quiet)},
            "pager ''\nRules: \ndefault rule: \nNo matching rules found. Just skip\n"},
        {0, {"espasend", "--help"}, "Examples:"},
        {2, {"espasend", "--message", "x"}, "either --listen or --device"},
        {2, {"espasend", "--listen", "1"}, "at least one --message"},
        {2, {"espasend", "--listen", "70000"}, "--listen takes a number from 0 to 65535"},
        {2, {"espasend", "--count", "3x"}, "--count takes a number"},
        {2, {"espasend", "--message", "a\x03"}, "control characters"},
        {2, {"espasend", "--unknown"}, "unrecognized option"},
        {1, {"espasend", "--listen", "0", "--wait", "1", "--message", "x"}, "nobody connected within 1 seconds\n"},
        {1, {"espasend", "--device", "/dev/null", "--message", "x"}, "cannot open serial device /dev/null"},
        {1, {"espasend", "--device", "/dev/null", "--baud", "1201", "--message", "x"}, "no such baud rate: 1201"},
    };
    for (const auto &row : rows) { EXPECT_THAT(run(row.status, row.arguments), HasSubstr(row.output)); }
}

TEST_F(Daemon, FromRequestToAction) {
    daemon_t daemon(LISTED_RULES);
    daemon.run_in_foreground();
    const unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_call({"4711", "FIRE ZONE 3", "1", "3", "1", "2"})) << station.error();
    EXPECT_EQ(daemon.call("13"), "C/4711|x|13|FIRE ZONE 3|1|0|");
    EXPECT_TRUE(daemon.logs("\tSend message 'FIRE ZONE 3' to '4711'\n"));
    EXPECT_TRUE(daemon.logs(" in service_proc: 0x1f\n"));

    // A wrong check character is acknowledged, logged and dropped; another type is only logged.
    std::string packet = compose_packet(to("4711", "FIRE ZONE 4"));
    packet.back() ^= 1;
    EXPECT_TRUE(station.send_packet(packet));
    EXPECT_TRUE(daemon.logs("vesperd:") && daemon.logs(" in service_proc: ESPA packet BCC is WRONG. won't process\n"));
    EXPECT_TRUE(station.send_packet(wire("<SOH>2<STX>1<US>5<ETX>(")));
    EXPECT_TRUE(daemon.logs("Got ESPA packet of type 32\n"));
    ASSERT_TRUE(station.send_call(to("4712", "other"))) << station.error();
    EXPECT_EQ(daemon.call("rest"), "R|message|rest|other|1|0|");
    EXPECT_TRUE(daemon.dir.list("call_14").empty());

    ASSERT_TRUE(station.send_call(to("99", "SCRIPT please"))) << station.error();
    EXPECT_TRUE(eventually([&] { return daemon.dir.read("number") == "99\n"; }));
    EXPECT_THAT(daemon.dir.read("fds"), Not(HasSubstr("socket:")));  // scripts do not hold the line
}

// Without the block check; then one connection after the other: a stream that is not ESPA, and lines.
TEST_F(Daemon, FallsBackToAsciiLines) {
    daemon_t daemon("no_check_bcc = yes\nread_timeout = no\n" + LISTED_RULES);
    daemon.run_in_foreground();
    unique_fd_t line = daemon.accept();
    send_wire(line, "<SOH>1<STX>2<US>FIRE ZONE 5<ETX>?<SOH>1<STX>2<US>" + std::string(1500, 'x') + "\n");
    EXPECT_EQ(daemon.call("15"), "C/|x|15|FIRE ZONE 5|1|0|");
    line = daemon.accept();
    send_wire(line, "ABCD\r\n<SOH>1ABCDEF\nFIRE ZONE <E9>\r\nFIRE ZONE 7\r\n");
    EXPECT_EQ(daemon.call("17"), "C/|x|17|FIRE ZONE 7|1|0|");
    for (const char *text : {"ESPA packet BCC check is OFF", "Trying to swap to ASCII. PLEASE check configuration\n",
             "Call service action connected\n", "message=FIRE ZONE 7", "ASCII message is too small",
             "trying to swap protocols.\nPLEASE double check configuration\n",
             "non-ASCII character 0xffffffe9 in ASCII packet"}) {
        EXPECT_TRUE(daemon.logs(text)) << text;
    }
    EXPECT_LT(
        daemon.log().find("Read started but not a SOH\n"), daemon.log().find("Perhaps protocol selection is wrong\n"));
    EXPECT_THAT(daemon.call("1"), MatchesRegex("C/\\|x\\|1\\|[^|]*\\|1\\|0\\|"));  // "FIRE ZONE \xE9" has no number
}

TEST_F(Daemon, RefusedConnectionsAndServiceAlarms) {
    daemon_t daemon("send_service_actions = yes\ndefault_rule = rule_rest\n" + RULES);
    daemon.dir.write("started", "-1\n");
    daemon.listener.reset();
    daemon.run_in_foreground();
    EXPECT_TRUE(daemon.logs("Error connecting to 127.0.0.1:" + daemon.port + "\n", 2));
    EXPECT_TRUE(daemon.logs("in alarm_time: Alarm started  supressed\n"));
    EXPECT_TRUE(daemon.logs("Call service action connection_lost\n"));
    EXPECT_THAT(daemon.call("rest"), StartsWith("R|connection_lost|rest||1|0|"));
}

// Silence takes down an ESPA line after the reader's wait, an ASCII line only when it is configured.
TEST_F(Daemon, SilentLines) {
    daemon_t espa(""), ascii("protocol = ascii\nread_timeout = yes\n"),
        patient("protocol = ascii\nread_timeout = no\n");
    for (daemon_t *daemon : {&espa, &ascii, &patient}) { daemon->run_in_foreground(); }
    const unique_fd_t kept = patient.accept(), first = espa.accept(), second = ascii.accept();
    const unique_fd_t espa_again = espa.accept(), ascii_again = ascii.accept();
    EXPECT_TRUE(espa.logs("Call service action \n") && ascii.logs("Call service action \n"));
    EXPECT_FALSE(control_station_t(kept.get(), 1, nullptr).is_closed());
    EXPECT_EQ(patient.count("Call service action \n") + espa.count("swap to ASCII"), 0);
}

TEST_F(Daemon, EspasendDelivers) {
    daemon_t daemon("espa_poll = yes\n" + LISTED_RULES);
    daemon.listener.reset();
    program_t tool({"espasend", "--listen", daemon.port, "--address", "47", "--message", "FIRE ZONE 1", "--message",
        "FIRE ZONE 2", "--count", "2"});
    daemon.run_in_foreground();
    EXPECT_EQ(tool.wait(), 0) << tool.output();
    EXPECT_THAT(tool.output(), ContainsRegex("<- ACK ACK\n(.*\n)*4 of 4 calls acknowledged\n$"));
    EXPECT_TRUE(eventually([&] { return !daemon.dir.list("call_11").empty() && !daemon.dir.list("call_12").empty(); }));
    const std::string lines =
        run(0, {"espasend", "--listen", daemon.port, "--ascii", "--message", "FIRE ZONE 8", "--hold", "2"});
    EXPECT_THAT(lines, HasSubstr("-> 'FIRE ZONE 8' CR LF\n1 of 1 lines sent\n"));
    EXPECT_EQ(daemon.call("18"), "C/|x|18|FIRE ZONE 8|1|0|");
}

// The other end of a pseudo-terminal plays the daemon.
TEST(Espasend, DeliversOverASerialDevice) {
    const unique_fd_t daemon(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(daemon.get()) | unlockpt(daemon.get()), 0);
    const std::string device = ptsname(daemon.get());
    const unique_fd_t keep(open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    program_t tool({"espasend", "--device", device, "--wait", "5", "--address", "47", "--message", "FIRE", "--beep",
        "2", "--type", "3", "--transmissions", "4", "--priority", "1"});
    control_station_t line(daemon.get(), 30, nullptr);
    const std::string packet = "<SOH>1<STX>1<US>47<RS>2<US>FIRE<RS>3<US>2<RS>4<US>3<RS>5<US>4<RS>6<US>1<ETX>";
    for (const std::string &sent : {"<EOT>"s, "1<ENQ>"s, "<EOT>"s, "1<ENQ>"s, packet}) {
        ASSERT_TRUE(line.expect(wire(sent))) << line.error();
        line.send_bytes(wire(sent == "1<ENQ>" ? "<ACK><ACK>" : sent == "<EOT>" ? sent : ""));
    }
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_THAT(tool.output(), HasSubstr("-> SOH '1' STX '1' US '47' RS '2' US 'FIRE' RS '3'"));
    EXPECT_THAT(tool.output(), EndsWith("espasend: no ACK: no answer within 5 seconds\n"));
}

TEST_F(Daemon, OrderlyShutdown) {
    daemon_t daemon(NOTING_ALARMS);
    child_t process = daemon.start(AS_ACCOUNT);
    const unique_fd_t line = daemon.accept();
    EXPECT_EQ(read_file(daemon.pidfile()), std::to_string(process.pid()) + "\n");
    const time_t before = time(nullptr);
    // The system ignores SIGINT while a script runs; the echo comes after the connected alarm's.
    EXPECT_TRUE(control_station_t(line.get(), 30, nullptr).end_transmission());
    kill(process.pid(), SIGINT);
    EXPECT_TRUE(daemon.logs("in sig_term: Caught signal 2. Exiting."));
    send_wire(line, "<EOT>");            // ends the turn
    EXPECT_EQ(process.end(SIGTERM), 0);  // changes nothing any more
    EXPECT_GE(time(nullptr) - before, 10);
    EXPECT_THAT(daemon.dir.read("alarms"), EndsWith("alarm terminated\n"));
    EXPECT_EQ(daemon.count("Exiting."), 1);
    EXPECT_FALSE(daemon.has_pidfile());
}

TEST_F(Daemon, RunsAsTheAccountWithStandardDescriptorsAndLeavesRootsPidfile) {
    const daemon_t daemon(NOTING_ALARMS);
    child_t process = daemon.start({"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-"});
    const unique_fd_t line = daemon.accept();
    const std::string proc = "/proc/" + std::to_string(process.pid()),
                      uid = "\t" + std::to_string(getpwnam("ovo")->pw_uid);
    for (const char *fd : {"/fd/0", "/fd/1", "/fd/2"}) { EXPECT_EQ(fs::read_symlink(proc + fd), "/dev/null"); }
    EXPECT_THAT(read_file(proc + "/status"), HasSubstr("Uid:" + uid + uid + uid + uid + "\n"));
    EXPECT_EQ(process.end(SIGABRT), 0);  // at once, in whichever thread takes it
    EXPECT_EQ(daemon.count("Caught signal 6. Exiting."), 1);
    EXPECT_TRUE(daemon.has_pidfile());
}

TEST_F(Daemon, TwoInstancesUnderOneNameAndAReloadAfterTheFileIsGone) {
    daemon_t daemon(NOTING_ALARMS);
    child_t first = daemon.start(AS_ACCOUNT), second = daemon.start(AS_ACCOUNT);
    EXPECT_NE(first.pid(), second.pid());
    EXPECT_EQ(second.end(SIGTERM), 0);
    EXPECT_TRUE(daemon.has_pidfile());
    fs::remove(daemon.dir.path("conf"));
    EXPECT_EQ(first.end(SIGHUP), 0);
    EXPECT_TRUE(
        daemon.logs("in sig_hup: Unable to open configuration file " + daemon.dir.path("conf") + ". Exiting..."));
    EXPECT_EQ(daemon.count("Caught signal"), 1);
    EXPECT_TRUE(daemon.has_pidfile());
}

// Every reload takes the connected line to a new connection; what was sent before and after arrives.
TEST_F(Daemon, ReloadsUnderTraffic) {
    const auto keys = [](int n) {
        const std::string number = std::to_string(n);
        return NOTING_ALARMS + "[rule_x]\naction = call\nextension = " + number + "\npattern = M" + number + "\n";
    };
    const daemon_t daemon(keys(0));
    const child_t process = daemon.start();
    unique_fd_t line = daemon.accept();
    for (int n = 0; n <= 10; n++) {
        control_station_t station(line.get(), 30, nullptr);
        EXPECT_TRUE(station.send_call(to("1", "M" + std::to_string(n)))) << station.error();
        EXPECT_EQ(daemon.call(std::to_string(n)), "Local/1234@users|alarm|" + std::to_string(n) + "|\"1\" <1>|1|0|");
        if (n == 10) { break; }
        daemon.configure(keys(n + 1));
        for (int i = 0; i < 3; i++) { kill(process.pid(), SIGHUP); }
        unique_fd_t next;
        EXPECT_TRUE(eventually([&] {
            send(line.get(), "\x04", 1, MSG_NOSIGNAL);  // ends the reader's turn
            return bool(next = daemon.accept(0));
        }));
        line = std::move(next);  // and closes the abandoned one
    }
    EXPECT_EQ(daemon.count("Hangup."), 10);
    EXPECT_EQ(daemon.count("swap to ASCII") + daemon.count("empty rules"), 0);
}

TEST_F(Daemon, SignalsDuringAScript) {
    const daemon_t daemon(
        NOTING_ALARMS +
        "[rule_x]\npattern = slow\naction = script\ncallscript = 'touch @begun; sleep 3; touch @ended'\n");
    child_t process = daemon.start();
    const unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_packet(compose_packet(to("1", "slow"))));
    EXPECT_TRUE(eventually([&] { return daemon.dir.list("begun").size() == 1; }));
    kill(process.pid(), SIGUSR1);
    kill(process.pid(), SIGHUP);
    EXPECT_EQ(process.end(SIGTERM), 0);  // the reload comes first, then the shutdown
    EXPECT_EQ(daemon.dir.list("ended").size(), 1u);
    EXPECT_LT(daemon.log().find("Hangup."), daemon.log().find("Caught signal 15. Exiting."));
    EXPECT_THAT(daemon.dir.read("alarms"), HasSubstr("alarm terminated\n"));
}

}  // namespace
