// The built programs: the daemon against a line, in the foreground and in the background, and the line tool.

#include <stdlib.h>
#include <sys/prctl.h>

#include "support.h"

namespace {

// The daemon with a converter to connect to and with a spool directory, a configuration and a name of its own.
struct daemon_t {
    // keys: further keys of the only pager and what follows them; "@" stands for the spool directory and "/".
    explicit daemon_t(const std::string &keys) {
        listener = listen_anywhere(&port);
        configure(keys);
        fs::create_symlink(PROGRAM_DIR "/vesperd", dir.path("vesper-" + port));
    }
    ~daemon_t() {
        while (has_pidfile()) {
            fs::remove(pidfile());
        }
    }
    void configure(const std::string &keys) const {
        const std::string text =
            "[logger]\nlog_file = @log\n[line]\nhost = 127.0.0.1\nspool_dir = @\nport = " + port +
            "\n";
        dir.write("conf", std::regex_replace(text + keys, std::regex("@"), dir.path()));
    }
    void run_in_foreground() {
        foreground_ = std::make_unique<program_t>(
            std::vector{"vesperd"s, "-f"s, "-d"s, "-c"s, dir.path("conf")});
    }
    // Starts an instance, `command` in front; the log tells its process, which becomes a child of this one.
    child_t start(std::vector<std::string> command = {}) const {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const size_t seen = log().size();
        command.insert(command.end(), {dir.path("vesper-" + port), "-c", dir.path("conf")});
        run(0, command);
        size_t at = 0;
        EXPECT_TRUE(eventually(
            [&] { return (at = log().find("Starting thread", seen)) != std::string::npos; }));
        const pid_t pid = std::stoi(log().substr(log().rfind('[', at) + 1));
        siginfo_t unused;  // it is a child from the moment when the processes in between have ended
        const auto is_child = [&] {
            return waitid(P_PID, id_t(pid), &unused, WEXITED | WNOHANG | WNOWAIT) == 0;
        };
        EXPECT_TRUE(eventually(is_child));
        EXPECT_EQ(getsid(pid), pid);
        return child_t(pid);
    }
    unique_fd_t accept(int wait_seconds = 60) const {
        std::string error;
        unique_fd_t line = accept_within(listener.get(), wait_seconds, &error);
        EXPECT_TRUE(line || wait_seconds == 0) << error;
        return line;
    }
    std::string log() const { return foreground_ ? foreground_->output() : dir.read("log"); }
    int count(const std::string &text) const {
        int found = 0;
        for (std::string seen = log(); seen.find(text) != std::string::npos; found++) {
            seen.erase(0, seen.find(text) + 1);
        }
        return found;
    }
    bool logs(const std::string &text) const {
        return eventually([&] { return count(text) > 0; });
    }
    // The values of the call files named call_`extension`_..., from the moment when there is one and it is complete.
    std::string call(const std::string &extension) const {
        std::string content;
        EXPECT_TRUE(eventually([&] {
            content = "";
            for (const std::string &name : dir.list("call_" + extension + "_")) {
                content += dir.read(name);
            }
            return content.ends_with("MaxRetries: 0\r\n");
        })) << extension;
        return std::regex_replace(content, std::regex("[A-Za-z]+: ([^\r]*)\r\n"), "$1|");
    }
    std::string pidfile() const {
        return (fs::exists("/var/run/vesper-" + port + ".pid") ? "/var/run/vesper-"
                                                               : "/tmp/vesper-") +
               port + ".pid";
    }
    bool has_pidfile() const { return fs::exists(pidfile()); }

    temp_dir_t dir;
    std::string port;
    unique_fd_t listener;

    std::unique_ptr<program_t> foreground_;
};

call_t to(const std::string &address, const std::string &message) {
    return {address, message, "", "", "", ""};
}

// What happens on the line is noted in the file "alarms"; rule_x is up to the test.
const std::string NOTING_ALARMS =
    "send_service_actions = yes\nrules = rule_x\ndefault_rule = rule_default\n"
    "[rule_default]\naction = script\ncallscript = 'echo alarm %alarm% >> @alarms'\n";

const std::vector<std::string> AS_ACCOUNT = {"/usr/bin/setpriv", "--reuid=ovo", "--regid=ovo",
                                             "--clear-groups"};

struct Daemon : Installed {};

TEST_F(Daemon, CommandLinesOfBothPrograms) {
    const unique_fd_t deaf(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(deaf.get()) | unlockpt(deaf.get()), 0);
    const struct {
        int status;
        std::vector<std::string> arguments;
        const char *output;
    } rows[] = {
        {0,
         {"vesperd", "-d"},
         "\nvesperd: ESPA 4.4.4 to PBX application daemon.\n\nUsage:\nvesperd [options]\n\n"},
        {0,
         {"vesperd", "-f", "-c", "/missing"},
         "\nUnable to open configuration file /missing. Exiting...\n\n"},
        {0,
         {"vesperd", "-m", "FIRE ZONE 3", "-c", SOURCE_DIR "/examples/nurse-call.conf", "-s"},
         "Running test over message: 'FIRE ZONE 3' at pager 'ward3'\n"
         "Rules: rule_fire,rule_arrest,rule_room\ndefault rule: rule_desk\nSelected rule "
         "rule_fire\n"
         "\tAction:\tCALL\n\t\tCallerID: \"Fire zone 3\" <8003>\n"
         "\t\tChannel: Local/fire@pagers\n\t\tContext: fire-team\n\t\tExtension: 8003\n"},
        {2, {"espasend", "--message", "x"}, "either --listen or --device"},
        {2, {"espasend", "--listen", "70000"}, "--listen takes a number from 0 to 65535"},
        {1,
         {"espasend", "--listen", "0", "--wait", "1", "--message", "x"},
         "nobody connected within 1 seconds\n"},
        {1,
         {"espasend", "--device", ptsname(deaf.get()), "--wait", "1", "--message", "x"},
         "no answer within 1 seconds\n"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(run(row.status, row.arguments), HasSubstr(row.output));
    }
}

TEST_F(Daemon, FromRequestToAction) {
    daemon_t daemon(
        "rules = rule_fire,rule_script\ndefault_rule = rule_rest\n"
        "[rule_fire]\npattern = ^FIRE\naction = call\nextension = 1$zone\nchannel = C/%number%\n"
        "context = x\ncallerid = '%message%'\nvalue[zone] = ZONE ([0-9]+)\n"
        "[rule_script]\npattern = SCRIPT.*\naction = script\n"
        "callscript = \"ls -l /proc/self/fd > @fds; echo %number% > @number\"\n"
        "[rule_rest]\naction = call\nextension = rest\nchannel = R\ncontext = %alarm%\ncallerid = "
        "%message%\n");
    daemon.run_in_foreground();
    const unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_call({"4711", "FIRE ZONE 3", "1", "3", "1", "2"})) << station.error();
    EXPECT_EQ(daemon.call("13"), "C/4711|x|13|FIRE ZONE 3|1|0|");
    ASSERT_TRUE(station.send_call(to("4712", "other"))) << station.error();
    EXPECT_EQ(daemon.call("rest"), "R|message|rest|other|1|0|");
    ASSERT_TRUE(station.send_call(to("99", "SCRIPT please"))) << station.error();
    EXPECT_TRUE(eventually([&] { return daemon.dir.read("number") == "99\n"; }));
    EXPECT_THAT(daemon.dir.read("fds"), Not(HasSubstr("socket:")));  // scripts do not hold the line
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
    EXPECT_TRUE(daemon.count("Exiting.") == 1 && !daemon.has_pidfile());
}

TEST_F(Daemon, RunsAsTheAccountWithStandardDescriptorsAndLeavesRootsPidfile) {
    const daemon_t daemon(NOTING_ALARMS);
    child_t process = daemon.start({"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-"});
    const unique_fd_t line = daemon.accept();
    const std::string proc = "/proc/" + std::to_string(process.pid()),
                      uid = "\t" + std::to_string(getpwnam("ovo")->pw_uid);
    for (const char *fd : {"/fd/0", "/fd/1", "/fd/2"}) {
        EXPECT_EQ(fs::read_symlink(proc + fd), "/dev/null");
    }
    EXPECT_THAT(read_file(proc + "/status"), HasSubstr("Uid:" + uid + uid + uid + uid + "\n"));
    EXPECT_EQ(process.end(SIGABRT), 0);  // at once, in whichever thread takes it
    EXPECT_EQ(daemon.count("Caught signal 6. Exiting."), 1);
    EXPECT_TRUE(daemon.has_pidfile());
}

TEST_F(Daemon, TwoInstancesUnderOneNameAndAReloadAfterTheFileIsGone) {
    daemon_t daemon(NOTING_ALARMS);
    child_t first = daemon.start(AS_ACCOUNT), second = daemon.start(AS_ACCOUNT);
    EXPECT_EQ(second.end(SIGTERM), 0);
    EXPECT_TRUE(daemon.has_pidfile());
    fs::remove(daemon.dir.path("conf"));
    EXPECT_EQ(first.end(SIGHUP), 0);
    EXPECT_TRUE(daemon.logs("in sig_hup: Unable to open configuration file " +
                            daemon.dir.path("conf") + ". Exi"));
    EXPECT_TRUE(daemon.count("Caught signal") == 1 && daemon.has_pidfile());
}

// Every reload takes the connected line to a new connection; what was sent before and after arrives.
TEST_F(Daemon, ReloadsUnderTraffic) {
    const auto keys = [](const std::string &n) {
        return NOTING_ALARMS + "[rule_x]\naction = call\nextension = " + n + "\npattern = M" + n +
               "\n";
    };
    const daemon_t daemon(keys("0"));
    const child_t process = daemon.start();
    unique_fd_t line = daemon.accept();
    for (int n = 0; n <= 10; n++) {
        control_station_t station(line.get(), 30, nullptr);
        EXPECT_TRUE(station.send_call(to("1", "M" + std::to_string(n)))) << station.error();
        EXPECT_EQ(daemon.call(std::to_string(n)),
                  "Local/1234@users|alarm|" + std::to_string(n) + "|\"1\" <1>|1|0|");
        if (n == 10) {
            break;
        }
        daemon.configure(keys(std::to_string(n + 1)));
        for (int i = 0; i < 3; i++) {
            kill(process.pid(), SIGHUP);
        }
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
    const std::string script = "callscript = 'touch @begun; sleep 3; touch @ended'\n";
    const daemon_t daemon(NOTING_ALARMS + "[rule_x]\npattern = slow\naction = script\n" + script);
    child_t process = daemon.start();
    const unique_fd_t line = daemon.accept();
    send_wire(line, compose_packet(to("1", "slow")));
    EXPECT_TRUE(eventually([&] { return daemon.dir.list("begun").size() == 1; }));
    kill(process.pid(), SIGUSR1);
    kill(process.pid(), SIGHUP);
    EXPECT_EQ(process.end(SIGTERM), 0);  // the reload comes first, then the shutdown
    EXPECT_EQ(daemon.dir.list("ended").size(), 1u);
    EXPECT_LT(daemon.log().find("Hangup."), daemon.log().find("Caught signal 15. Exiting."));
    EXPECT_THAT(daemon.dir.read("alarms"), HasSubstr("alarm terminated\n"));
}

}  // namespace
