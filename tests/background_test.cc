// The built daemon in the background: pidfile, signals, reload and shutdown.

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "support.h"

namespace {

// A daemon under a name of its own, so that pidfiles do not collide; orphans come to this process.
class background_t {
  public:
    explicit background_t(const std::string &rules = "", bool as_account = false) : as_account_(as_account) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        configure(rules);
        name_ = "vesper-" + std::to_string(converter.port());
        std::filesystem::create_symlink(program_path("vesperd"), dir.path(name_));
    }
    ~background_t() {
        while (pid_ > 0 && ended_ < 0) {
            kill(pid_, SIGKILL);
            wait();
        }
        std::filesystem::remove(pidfile());
    }
    void configure(const std::string &rules) const {
        dir.write("conf", "[logger]\nlog_file = " + dir.path("log") + "\n[line]\nhost = 127.0.0.1\nport = " +
                              std::to_string(converter.port()) + "\nspool_dir = " + dir.path() +
                              "\nsend_service_actions = yes\nrules = rule_\ndefault_rule = rule_default\n" + rules +
                              "[rule_default]\naction = script\ncallscript = 'echo alarm %alarm% >> " +
                              dir.path("alarms") + "'\n");
    }
    // Starts an instance; returns its process id, which the log tells.
    pid_t start() {
        const std::string before = log();
        std::vector<std::string> arguments = {dir.path(name_), "-c", dir.path("conf")};
        if (as_account_) {
            arguments.insert(arguments.begin(), {"/usr/bin/setpriv", "--reuid=ovo", "--regid=ovo", "--clear-groups"});
        }
        program_t starter(arguments);
        EXPECT_EQ(starter.wait(), 0) << starter.output();
        std::string started;
        EXPECT_TRUE(eventually(
            [&] { return (started = log().substr(before.size())).find("Starting thread") != std::string::npos; }));
        pid_ = std::stoi(started.substr(started.find("VERBOSE[") + "VERBOSE["s.size()));
        ended_ = -1;
        return pid_;
    }
    bool logs(const std::string &text, int times = 1) const {
        return eventually([&] { return count(text) >= times; });
    }
    int count(const std::string &text) const {
        const std::string seen = log();
        int found = 0;
        for (size_t at = seen.find(text); at != std::string::npos; at = seen.find(text, at + 1)) {
            found++;
        }
        return found;
    }
    int wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        ended_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return ended_;
    }
    std::string log() const { return dir.read("log"); }
    std::string pidfile() const { return (as_account_ ? "/tmp/" : "/var/run/") + name_ + ".pid"; }
    std::string name() const { return name_; }
    bool has_pidfile() const { return std::filesystem::exists(pidfile()); }

    temp_dir_t dir;
    converter_t converter;

  private:
    bool as_account_;
    std::string name_;
    pid_t pid_ = 0;
    int ended_ = -1;
};

class Background : public testing::Test {
  protected:
    void SetUp() override { SKIP_UNLESS_DAEMON_RUNS(); }
};

TEST_F(Background, OrderlyShutdown) {
    background_t daemon("", true);
    const pid_t pid = daemon.start();
    const unique_fd_t line = daemon.converter.accept();
    std::ifstream file(daemon.pidfile());
    pid_t written = 0;
    file >> written;
    EXPECT_EQ(written, pid);
    const time_t before = time(nullptr);
    // The system ignores SIGINT while a script runs; the echo comes after the connected alarm's.
    EXPECT_TRUE(control_station_t(line.get(), 30, nullptr).end_transmission());
    kill(pid, SIGINT);
    EXPECT_TRUE(daemon.logs("in sig_term: Caught signal 2. Exiting."));
    send_all(line, "\x04");  // ends the turn
    kill(pid, SIGTERM);      // changes nothing any more
    EXPECT_TRUE(eventually([&] { return daemon.dir.read("alarms").ends_with("alarm terminated\n"); }));
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_GE(time(nullptr) - before, 10);
    EXPECT_EQ(daemon.count("Exiting."), 1);
    EXPECT_FALSE(daemon.has_pidfile());
}

TEST_F(Background, RunsAsTheAccountAndLeavesRootsPidfile) {
    background_t daemon;
    const pid_t pid = daemon.start();
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    const std::string text(std::istreambuf_iterator<char>(status), {});
    const std::string uid = "\t" + std::to_string(getpwnam("ovo")->pw_uid);
    EXPECT_THAT(text, testing::HasSubstr("Uid:" + uid + uid + uid + uid + "\n"));
    kill(pid, SIGABRT);  // at once, in whichever thread takes it
    EXPECT_TRUE(daemon.logs("Caught signal 6. Exiting."));
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_TRUE(daemon.has_pidfile());
}

TEST_F(Background, TwoInstancesUnderOneName) {
    background_t daemon("", true);
    const pid_t first = daemon.start();
    const pid_t second = daemon.start();
    EXPECT_NE(first, second);
    kill(second, SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_TRUE(daemon.has_pidfile());
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    std::filesystem::remove(daemon.pidfile());
}

TEST_F(Background, ReloadAfterTheFileIsGone) {
    background_t daemon;
    const pid_t pid = daemon.start();
    std::filesystem::remove(daemon.dir.path("conf"));
    kill(pid, SIGHUP);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_THAT(daemon.log(), testing::ContainsRegex("in sig_hup: Unable to open configuration file " +
                                                     daemon.dir.path("conf") + "\\. Exiting\\.\\.\\."));
    EXPECT_EQ(daemon.count("Caught signal"), 0);
    EXPECT_TRUE(daemon.has_pidfile());
}

// Every reload takes the connected line to a new connection; what was sent before and after
// arrives.
TEST_F(Background, ReloadsUnderTraffic) {
    const auto rule = [](int n) {
        return "[rule_x]\naction = call\nextension = " + std::to_string(n) + "\npattern = M" + std::to_string(n) + "\n";
    };
    background_t daemon(rule(0));
    const pid_t pid = daemon.start();
    unique_fd_t line = daemon.converter.accept();
    for (int n = 0; n <= 10; n++) {
        control_station_t station(line.get(), 30, nullptr);
        EXPECT_TRUE(station.send_call({"1", "M" + std::to_string(n), "", "", "", ""})) << station.error();
        const std::string call = "call_" + std::to_string(n) + "_";
        EXPECT_TRUE(eventually([&] { return daemon.dir.list(call).size() == 1; })) << n;
        daemon.configure(rule(n + 1));
        for (int i = 0; i < 3 && n < 10; i++) {
            kill(pid, SIGHUP);
        }
        unique_fd_t next;
        if (n < 10) {
            EXPECT_TRUE(eventually([&] {
                send(line.get(), "\x04", 1, MSG_NOSIGNAL);  // ends the reader's turn
                return bool(next = daemon.converter.accept(0));
            }));
            line = std::move(next);  // and closes the abandoned one
        }
    }
    EXPECT_EQ(daemon.count("Hangup."), 10);
    EXPECT_EQ(daemon.count("swap to ASCII"), 0);
    EXPECT_EQ(daemon.count("empty rules"), 0);
}

TEST_F(Background, SignalsDuringAScript) {
    background_t daemon(
        "[rule_s]\npattern = slow\naction = script\ncallscript = 'touch $started; sleep 3; touch "
        "$ended'\n"
        "value[started] = (/[^ ]*started)\nvalue[ended] = (/[^ ]*ended)\n");
    const pid_t pid = daemon.start();
    const unique_fd_t line = daemon.converter.accept();
    control_station_t station(line.get(), 30, nullptr);
    const std::string message = "slow " + daemon.dir.path("started") + " " + daemon.dir.path("ended");
    ASSERT_TRUE(station.send_packet(compose_packet({"1", message, "", "", "", ""})));
    EXPECT_TRUE(eventually([&] { return daemon.dir.list("started").size() == 1; }));
    kill(pid, SIGUSR1);
    kill(pid, SIGHUP);
    kill(pid, SIGTERM);  // the reload comes first, then the shutdown
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(daemon.dir.list("ended").size(), 1u);
    EXPECT_LT(daemon.log().find("Hangup."), daemon.log().find("Caught signal 15. Exiting."));
    EXPECT_THAT(daemon.dir.read("alarms"), testing::HasSubstr("alarm terminated\n"));
}

TEST_F(Background, StartsWithoutStandardDescriptors) {
    background_t daemon;
    program_t starter({"/bin/sh", "-c",
                       "exec " + daemon.dir.path(daemon.name()) + " -c " + daemon.dir.path("conf") + " <&- >&- 2>&-"});
    EXPECT_EQ(starter.wait(), 0);
    ASSERT_TRUE(daemon.logs("Starting thread"));
    std::ifstream file(daemon.pidfile());
    pid_t pid = 0;
    file >> pid;
    const unique_fd_t line = daemon.converter.accept();
    for (const char *fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd), "/dev/null");
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace
