// The library: log lines, the INI dialect, detaching, pidfiles and deferred signals.

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "daemon.h"
#include "ini.h"
#include "sig.h"
#include "support.h"

namespace {

// What `body` says when it runs in a child process, which may detach or close every descriptor.
std::string in_child(const std::function<std::string()> &body) {
    const temp_dir_t dir;
    child_t child(fork());
    if (child.pid == 0) {
        dir.write("said", body() + ".");
        _exit(0);
    }
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(eventually([&] { return dir.read("said").ends_with('.'); }));
    return dir.read("said");
}

// How a process came out of daemon_init(): result, process, directory, mask and open descriptors.
std::string detached() {
    const pid_t before = getpid();
    std::string text = std::to_string(daemon_init(nullptr));
    text += getpid() == before ? " same" : " forked";
    text += (getsid(0) == getpid() ? " session " : " ") + fs::current_path().string() + " " +
            std::to_string(umask(0));
    for (int fd = 0; fd < 100; fd++) {
        text += fcntl(fd, F_GETFD) >= 0 ? " " + std::to_string(fd) : "";
    }
    return text;
}

TEST(DaemonInit, DetachesUnlessStartedByInitOrInetd) {
    const auto from_shell = [] {
        close_range(0, 1, 0);
        return detached();
    };
    const auto from_inetd = [] {
        dup2(socket(AF_UNIX, SOCK_STREAM, 0), 0);
        close(2);
        return detached();
    };
    const auto from_init = [] {
        return unshare(CLONE_NEWPID) == 0 ? in_child([] { return in_child(detached); }) : "";
    };
    EXPECT_EQ(in_child(from_shell), "0 forked session / 0 0 1 2.");
    EXPECT_EQ(in_child(from_inetd), "0 same / 0 0 1.");
    if (geteuid() == 0) {
        EXPECT_EQ(in_child(from_init), "0 same / 0 0 1 2...");
    }
}

std::string handled;

void note_signal(int signo) {
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    handled += std::to_string(signo) + (sigismember(&blocked, signo) ? "b" : "") +
               (sigismember(&blocked, SIGWINCH) ? "w" : "") + " ";
}

TEST(Signals, AreCountedAndHandledLater) {
    for (const int signo : {SIGTERM, SIGHUP, SIGRTMAX}) {
        ASSERT_EQ(signal_set_handler(signo, 0, note_signal), 0);
    }
    EXPECT_EQ(signal_addset(SIGTERM, SIGWINCH), 0);
    for (const int signo : {SIGRTMAX, SIGTERM, SIGHUP, SIGHUP, SIGHUP}) {
        raise(signo);
    }
    EXPECT_EQ(handled, "");
    EXPECT_EQ((ints_t{signal_received(SIGHUP), signal_raise(SIGHUP)}), (ints_t{3, 4}));
    signal_handle_all();
    signal_handle_all();  // has none left
    EXPECT_EQ(handled, "1b 15bw 64b ");
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

TEST(Signals, DispositionsFaultsAndBadNumbers) {
    handled = "";
    for (const int signo : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
        signal_set_handler(signo, 0, note_signal);
        raise(signo);
        signal_set_handler(signo, 0, SIG_DFL);
    }
    EXPECT_EQ(handled, "4b 6b 7b 8b 11b 31b ");  // at once
    EXPECT_EQ(signal_set_handler(SIGUSR1, 0, SIG_IGN), 0);
    EXPECT_EQ(signal_raise(SIGUSR1), 1);
    signal_handle_all();  // an ignored signal has nothing to call
    for (const int no : {-1, 65}) {
        EXPECT_EQ((ints_t{signal_set_handler(no, 0, note_signal), signal_addset(no, 1),
                          signal_received(no), signal_raise(no), signal_handle(no)}),
                  ints_t(5, -1));
    }
}

void log_every_level() {
    for (int level = LEVEL_DEBUG; level <= LEVEL_VERBOSE; level++) {
        LOG(level, "%c", "denwrv"[level]);
    }
}

TEST_F(Tables, LevelsThatTheLoggerLetsThrough) {
    for (const int level : {-1, 0, 2, 5}) {
        set_log_level(level);
        log_every_level();
    }
    EXPECT_EQ(log(),
              "VERBOSE: v\n"
              "WARNING: w\nERROR: r\nVERBOSE: v\n"
              "DEBUG: d\nEVENT: e\nNOTICE: n\nWARNING: w\nERROR: r\nVERBOSE: v\n");
}

TEST_F(Tables, LogLayoutAndCut) {
    LOG(LEVEL_ERROR, "text %d", 7);
    write_log(LEVEL_VERBOSE, "file", 185, "function", "ends in a newline\n");
    const std::string text = dir.read("log"), id = "\\[" + std::to_string(getpid()) + "\\]: ";
    const std::string head = "[0-9/]{8} [0-9:]{8}:  ";
    EXPECT_THAT(text, MatchesRegex(head + "ERROR" + id + "lib_test:[0-9]+ in TestBody: text 7\n" +
                                   head + "VERBOSE" + id + "ends in a newline\n\n"));
    LOG(LEVEL_VERBOSE, "%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(dir.read("log").size(), text.size() + strlen("11/15/26 12:14:45: \n") + 1023);
}

TEST(Logger, IsNotSilentBeforeItIsStarted) {
    FLAGS_gtest_death_test_style = "threadsafe";  // in a new process
    const auto body = [] {
        log_every_level();
        exit(0);
    };
    EXPECT_EXIT(body(), ExitedWithCode(0), MatchesRegex("[^\n]*ERROR.*: r\n[^\n]*VERBOSE.*: v\n"));
}

TEST(Logger, Syslog) {
    const auto record = [] {
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        mount("tmpfs", "/dev", "tmpfs", 0, "");
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        const unique_fd_t sock(socket(AF_UNIX, SOCK_DGRAM, 0));
        bind(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        logger_init("", 0, 1, 0);
        LOG(LEVEL_VERBOSE, "text");
        return read_available(sock);
    };
    if (unshare(CLONE_NEWNS) != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_THAT(in_child(record),
                MatchesRegex("<31>.* quillet\\[[0-9]+\\]:  VERBOSE\\[[0-9]+\\]: text."));
}

struct Ini : Test {
    void load(const std::string &text) {
        dict.reset(ini_load(dir.write("ini", text).c_str()));
        ASSERT_NE(dict, nullptr);
    }
    std::string get(const char *key) {
        const char *found = iniparser_getstr(dict.get(), key);
        return found != nullptr ? found : "(absent)";
    }
    temp_dir_t dir;
    std::unique_ptr<dictionary, void (*)(dictionary *)> dict{nullptr, iniparser_freedict};
};

TEST_F(Ini, KeyLines) {
    const std::string long_value(1019, 'v');  // a line is read in pieces of 1023 characters
    const std::pair<std::string, std::string> rows[] = {
        {"k = plain value  ", "plain value"},
        {"  K\t=v ; comment", "v"},
        {"k = a;b", "a"},
        {"k = 'a;b' ; c", "a;b"},
        {"k = \"a#b\"", "a#b"},
        {"k = \"it's\"", "it's"},
        {"k = '\"quoted\" <x>'", "\"quoted\" <x>"},
        {"k = \"blanks  \"", "blanks"},
        {"k = \"open", "open"},
        {"k = ''", ""},
        {"k = \"\" ; empty", ""},
        {"k =", "(absent)"},
        {"k = ; nothing", "(absent)"},
        {"k", "(absent)"},
        {"# k = 1", "(absent)"},
        {"; k = 1", "(absent)"},
        {"k = a=b", "a=b"},
        {"k = ends in \\\nl = 2", "ends in \\"},
        {"k = first\nk = last", "last"},
        {"k = Case\r", "Case"},
        {"l = " + long_value + "k = 2", "2"},
        {"k = " + long_value + "l = 2", long_value}};
    for (const auto &[line, value] : rows) {
        load("[s]\n" + line + "\n");
        EXPECT_EQ(get("S:k"), value) << line;
    }
}

TEST_F(Ini, SectionsAndNextKeyAndValue) {
    load("free = 1\n[ Two Words ] ; comment\nk=1\n[b]\nk=2\n[]\n[ two words ]\nl=3\n[x:y]\nk=4\n");
    EXPECT_EQ(get(":free") + get(" two words :k") + get(" two words :l") + get("x:y:k"), "1134");
    EXPECT_EQ(joined(iniparser_getnsec(dict.get()), iniparser_getsecname(dict.get(), 0),
                     iniparser_getsecname(dict.get(), 1)),
              "2| two words |b|");

    load("[s]\nvalue[b] = 1\nother = 2\nvalue[a] = 3\n");
    const char *key = nullptr;
    const char *value = nullptr;
    std::string found;
    for (int at = 0; (at = iniparser_get_next_kv(dict.get(), "s:value[", at, &key, &value)) > 0;) {
        found += joined(at, key, value);
    }
    EXPECT_EQ(found, "1|s:value[b]|1|3|s:value[a]|3|");
}

}  // namespace
