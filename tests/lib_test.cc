// The library: log lines, the INI dialect, detaching, pidfiles and deferred signals.

#include <sched.h>
#include <sys/stat.h>

#include "daemon.h"
#include "ini.h"
#include "sig.h"
#include "support.h"

namespace {

// What `body` says when it runs in a child process, which may detach or close every descriptor.
std::string in_child(const std::function<std::string()> &body) {
    const temp_dir_t dir;
    child_t child(fork());
    if (child.pid() == 0) {
        _exit(dir.write("said", body() + ".").empty());
    }
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(eventually([&] { return dir.read("said").ends_with('.'); }));
    return dir.read("said").substr(0, dir.read("said").size() - 1);
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
    const auto under_inetd = [] {
        return dup2(socket(AF_UNIX, SOCK_STREAM, 0), 0), close(2), detached();
    };
    const auto under_init = [] {
        return unshare(CLONE_NEWPID) != 0 ? "" : in_child([] { return in_child(detached); });
    };
    EXPECT_EQ(in_child([] { return setsid(), detached(); }), "0 forked session / 0 0 1 2");
    EXPECT_EQ(in_child([] { return close_range(0, 2, 0), detached(); }),
              "0 forked session / 0 0 1 2");
    EXPECT_EQ(in_child(under_inetd), "0 same / 0 0 1");
    if (geteuid() == 0) {
        EXPECT_EQ(in_child(under_init), "0 same / 0 0 1 2");
    }
}

TEST(Pidfile, WrittenOverAnOlderOneAndRemoved) {
    const temp_dir_t dir;
    const std::string old = "999999999999\n", mine = std::to_string(getpid()) + "\n";
    const std::string file = dir.write("x.pid", old);
    EXPECT_EQ(daemon_pidfile(file.c_str()), 0);
    const auto other = [&] {
        return daemon_pidfile(file.c_str()) == -1 && daemon_close() == 0 ? "refused"s : ""s;
    };
    EXPECT_EQ(in_child(other), "refused");
    // The other instance has left the file alone. Reading it gives up this process's lock.
    EXPECT_EQ(dir.read("x.pid"), mine + old.substr(mine.size()));
    EXPECT_EQ((ints_t{daemon_close(), fs::exists(file), daemon_close()}), (ints_t{0, 0, 0}));
}

std::string handled;

void note_signal(int signo) {
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    handled += std::to_string(signo) + (sigismember(&blocked, signo) ? "b" : "") +
               (sigismember(&blocked, SIGWINCH) ? "w" : "") + " ";
}

TEST(Signals, AreCountedAndHandledLater) {
    for (const int signo : {SIGTERM, SIGHUP, SIGRTMIN}) {
        ASSERT_EQ(signal_set_handler(signo, 0, note_signal), 0);
    }
    EXPECT_EQ(signal_addset(SIGTERM, SIGWINCH), 0);
    for (const int signo : {SIGRTMIN, SIGTERM, SIGHUP, SIGHUP, SIGHUP}) {
        raise(signo);
    }
    EXPECT_EQ(handled, "");
    EXPECT_EQ((ints_t{signal_received(SIGHUP), signal_raise(SIGHUP)}), (ints_t{3, 4}));
    signal_handle_all();
    signal_handle_all();  // has none left
    EXPECT_EQ(handled, "1b 15bw " + std::to_string(SIGRTMIN) + "b ");
}

TEST(Signals, DispositionsFaultsAndBadNumbers) {
    handled = "";
    EXPECT_EQ((ints_t{signal_set_handler(SIGABRT, 0, note_signal), raise(SIGABRT)}), ints_t(2));
    EXPECT_EQ(handled, "6b ");  // at once
    EXPECT_EQ((ints_t{signal_set_handler(SIGUSR1, 0, SIG_IGN), signal_raise(SIGUSR1)}),
              (ints_t{0, 1}));
    signal_handle_all();  // an ignored signal has nothing to call
    for (const int no : {-1, 65}) {
        EXPECT_EQ((ints_t{signal_received(no), signal_raise(no), signal_handle(no)}), ints_t(3, -1))
            << no;
    }
}

TEST(Logger, LevelsLetThrough) {
    for (const auto &[log_level, letters] :
         std::map<int, std::string>{{0, "v"}, {2, "wrv"}, {5, "denwrv"}}) {
        const captured_log_t log(log_level);
        for (int level = LEVEL_DEBUG; level <= LEVEL_VERBOSE; level++) {
            LOG(level, "%c", "denwrv"[level]);
        }
        EXPECT_EQ(std::regex_replace(log.messages(), std::regex("\n"), ""), letters) << log_level;
    }
}

TEST(Logger, LayoutAndCut) {
    const captured_log_t log;
    LOG(LEVEL_ERROR, "text %d", 7);
    write_log(LEVEL_VERBOSE, "file", 185, "function", "ends in a newline\n");
    const std::string text = log.text(), id = std::to_string(getpid());
    const std::string head = "[0-9/]{8} [0-9:]{8}:  ";
    EXPECT_THAT(text,
                MatchesRegex(head + "ERROR\\[" + id + "\\]: lib_test:[0-9]+ in TestBody: text 7\n" +
                             head + "VERBOSE\\[" + id + "\\]: ends in a newline\n\n"));
    LOG(LEVEL_VERBOSE, "%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(log.text().size(), text.size() + "11/15/26 12:14:45: "s.size() + 1023 + "\n"s.size());
}

struct Ini : Test {
    ~Ini() override { iniparser_freedict(dict); }
    void load(const std::string &text) {
        iniparser_freedict(dict);
        ASSERT_NE(dict = ini_load(dir.write("ini", text).c_str()), nullptr);
    }
    std::string get(const char *key) {
        const char *found = iniparser_getstr(dict, key);
        return found != nullptr ? found : "(absent)";
    }
    temp_dir_t dir;
    dictionary *dict = nullptr;
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
    load(
        "free = 1\n[ Two Words ] ; comment\nk=1\n[b]\nk=2\n[]\n[ two words "
        "]\nl=3\n[x:y]\nk=4\nnonsense\n");
    EXPECT_EQ(get(":free") + get(" two words :k") + get(" two words :l"), "113");
    EXPECT_EQ(joined(iniparser_getnsec(dict), iniparser_getsecname(dict, 0),
                     iniparser_getsecname(dict, 1)),
              "2| two words |b|");
    EXPECT_EQ(ini_load(dir.path("missing").c_str()), nullptr);

    load("[s]\nvalue[b] = 1\nother = 2\nvalue[a] = 3\n");
    const char *key = nullptr, *value = nullptr;
    std::string found;
    for (int at = 0; (at = iniparser_get_next_kv(dict, "s:value[", at, &key, &value)) > 0;) {
        found += joined(at, key, value);
    }
    EXPECT_EQ(found, "1|s:value[b]|1|3|s:value[a]|3|");
}

}  // namespace
