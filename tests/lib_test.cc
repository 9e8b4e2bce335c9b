// The library: detaching, pidfiles, deferred signals, log lines and the INI dialect.

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>

#include "clock.h"
#include "daemon.h"
#include "files.h"
#include "ini.h"
#include "notify.h"
#include "printable.h"
#include "rights.h"
#include "sig.h"
#include "support.h"

namespace {

void become_daemon_under_inetd() {
    dup2(socket(AF_UNIX, SOCK_STREAM, 0), STDIN_FILENO);
    const pid_t before = getpid();
    const bool is_ready = daemon_init(nullptr) == 0 && getpid() == before;
    const bool is_connected = fs::is_socket("/proc/self/fd/0");
    exit(is_ready && is_connected && fcntl(2, F_GETFD) >= 0 && fcntl(3, F_GETFD) < 0 ? 7 : 1);
}

TEST(DaemonInit, NeitherForksNorClosesStandardDescriptorsUnderInetd) {
    EXPECT_EXIT(become_daemon_under_inetd(), ExitedWithCode(7), "");  // a parent leaves with 0
}

TEST(Pidfile, OfAnotherInstanceIsLeftAlone) {
    const temp_dir_t dir;
    const std::string file = dir.path("x.pid");
    EXPECT_EQ(daemon_pidfile(file.c_str()), 0);
    child_t other(fork());
    if (other.pid == 0) {
        _exit(daemon_pidfile(file.c_str()) == -1 && daemon_close() == 0 ? 0 : 1);
    }
    EXPECT_EQ(other.wait(), 0);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(daemon_close(), 0);
    EXPECT_FALSE(fs::exists(file));
    dir.write("x.pid", "of another instance, since");
    EXPECT_EQ(daemon_close(), 0);
    EXPECT_TRUE(fs::exists(file));
    for (const std::string &name : {dir.path("none/x"), "/" + std::string(5000, 'x')}) {
        EXPECT_EQ(daemon_pidfile(name.c_str()), -1);
    }
    EXPECT_EQ(daemon_pidfile(nullptr), -1);
    const std::string full = dir.path("full.pid");
    {
        const lowered_t as_on_a_full_disk(RLIMIT_FSIZE, 0);
        EXPECT_EQ(daemon_pidfile(full.c_str()), -1);
    }
    EXPECT_FALSE(fs::exists(full));
    EXPECT_EQ(daemon_pidfile(full.c_str()) + daemon_close(), 0);
}

TEST(Notify, HearsWhoeverIsNamed) {
    const std::string name = "@vesper-test-" + std::to_string(getpid());
    const unique_fd_t manager = hear_datagrams(name);
    const struct {
        std::string path;
        const char *limit, *heard;
    } rows[] = {
        {name, "2000", "WATCHDOG=1x"}, {name, "-1", "x"}, {name, "", "x"},
        {name.substr(1), "2000", ""},  {"@", "2000", ""}, {"@" + std::string(107, 'x'), "2000", ""},
    };
    for (const auto &row : rows) {
        child_t child(fork());
        if (child.pid == 0) {
            setenv("NOTIFY_SOCKET", row.path.c_str(), 1);
            setenv("WATCHDOG_USEC", row.limit, 1);
            notify_init();
            notify_alive();
            notify("x");
            const bool is_taken = getenv("NOTIFY_SOCKET") == getenv("WATCHDOG_USEC");
            _exit(is_taken && notify_is_wanted() == (*row.heard != '\0') ? 0 : 1);
        }
        EXPECT_EQ(child.wait(), 0) << row.path;
        const std::string first = read_available(manager);
        EXPECT_EQ(first + read_available(manager), row.heard) << row.path << row.limit;
    }
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", "2000", 1);
    child_t alone(fork());
    if (alone.pid == 0) {
        notify_init();
        const lowered_t no_thread(RLIMIT_NPROC, 0);
        setuid(65534);  // root has as many as he wants
        kept_alive_t();
        _exit(0);
    }
    EXPECT_EQ(alone.wait(), 0);
    EXPECT_EQ(read_available(manager), "WATCHDOG=1");
    child_t brief(fork());
    if (brief.pid == 0) {
        setenv("WATCHDOG_USEC", "60000000000", 1);
        notify_init();
        alarm(60);
        kept_alive_t();
        _exit(0);
    }
    EXPECT_EQ(brief.wait(), 0);
    read_available(manager);
    const pair_t work;
    child_t child(fork());
    if (child.pid == 0) {
        notify_init();
        auto alive = std::make_unique<kept_alive_t>();
        char byte = 0;
        recv(work.near.get(), &byte, 1, 0);
        alive.reset();
        send_bytes(work.near, "x");
        pause_us(50'000);  // in which no more is said
        _exit(0);
    }
    const auto hears_five = [&, signs = 0]() mutable {
        signs += read_available(manager) == "WATCHDOG=1";
        return signs >= 5;
    };
    EXPECT_TRUE(eventually(hears_five));
    send_bytes(work.far, "x");
    char byte = 0;
    EXPECT_EQ(recv(work.far.get(), &byte, 1, 0), 1);
    while (!read_available(manager).empty()) {
    }
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(read_available(manager), "");
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
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
        signal_raise(signo);  // forgotten by the next call
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
    EXPECT_EQ((ints_t{signal_raise(0), signal_received(0)}), (ints_t{1, 1}));
    for (const int none : {-1, SIGRTMAX + 1}) {
        EXPECT_EQ((ints_t{signal_set_handler(none, 0, note_signal), signal_addset(none, SIGHUP),
                          signal_raise(none), signal_received(none)}),
                  (ints_t{-1, -1, -1, -1}));
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
    logger_init(dir.path("log").c_str(), 5, 0, 1);
    log_every_level();
    EXPECT_EQ(log(),
              "VERBOSE: v\n"
              "WARNING: w\nERROR: r\nVERBOSE: v\n"
              "DEBUG: d\nEVENT: e\nNOTICE: n\nWARNING: w\nERROR: r\nVERBOSE: v\n");
}

TEST_F(Tables, LogLinesAreCut) {
    LOG(LEVEL_VERBOSE, "%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(dir.read("log").size(), strlen("11/15/26 12:14:45: \n") + 1023);
}

TEST_F(Tables, LogLinesAreLines) {
    logger_escape(true);
    LOG(LEVEL_VERBOSE, "\ta%sz\n", "\r\n\x1B[2J");
    LOG(LEVEL_VERBOSE, "%s", "b\n");
    LOG(LEVEL_VERBOSE, "%s\n", std::string(2000, '\x01').c_str());
    logger_escape(false);
    LOG(LEVEL_VERBOSE, "c\x7F\n");
    EXPECT_THAT(log(),
                StartsWith("VERBOSE: \ta\\x0D\\x0A\\x1B[2Jz\nVERBOSE: b\\x0A\nVERBOSE: \\x01"));
    EXPECT_THAT(log(), EndsWith("\nVERBOSE: c\x7F\n\n"));
}

void log_without_a_start() {
    log_every_level();
    exit(0);
}

TEST(Logger, IsNotSilentBeforeItIsStarted) {
    FLAGS_gtest_death_test_style = "threadsafe";  // in a new process
    EXPECT_EXIT(log_without_a_start(), ExitedWithCode(0),
                MatchesRegex("[^\n]*ERROR.*: r\n[^\n]*VERBOSE.*: v\n"));
}

void log_to_syslog() {
    // No other process may see what is mounted here.
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, "") != 0) {
        exit(1);
    }
    const unique_fd_t sock = hear_datagrams("/dev/log");
    logger_init("", 0, 1, 0);
    LOG(LEVEL_VERBOSE, "text");
    std::cerr << read_available(sock);
    exit(0);
}

TEST(Logger, Syslog) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_EXIT(log_to_syslog(), ExitedWithCode(0),
                MatchesRegex("<31>.* quillet\\[[0-9]+\\]:  VERBOSE\\[[0-9]+\\]: text"));
}

TEST(Printable, ShowsWhatIsHidden) {
    const struct {
        std::string text, shown, escaped;
    } rows[] = {
        {"Süd \xE2\x82\xAC \xF0\x9F\x98\x80", "Süd \xE2\x82\xAC \xF0\x9F\x98\x80",
         "Süd \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\tb\r\n", "a?b??", "a\tb\\x0D\\x0A"},
        {"\x1B]0;x\x7F\0"s, "?]0;x??", "\\x1B]0;x\\x7F\\x00"},
        {"\xC2\x9B"
         "2J",
         "?2J", "\\xC2\\x9B2J"},  // C1 as UTF-8
        {"\x9B"
         "2J\xE4",
         "?2J?", "\\x9B2J\xE4"},  // and as a byte; a Latin letter is none
        {"\xC2\xA0\xC2", "\xC2\xA0?", "\xC2\xA0\xC2"},
        {"a\xE2\x80\xAE"
         "b\xE2\x81\xA6\xD8\x9C\xE2\x80\xA8",
         "a?b???",
         "a\xE2\x80\xAE"
         "b\xE2\x81\xA6\xD8\x9C\xE2\x80\xA8"},
    };
    for (const auto &[text, shown, escaped] : rows) {
        EXPECT_EQ(printable(text), shown);
        std::string pieces;
        escape_controls(text, [&](std::string_view piece) { pieces += piece; });
        EXPECT_EQ(pieces, escaped);
    }
}

TEST(Rights, AreThoseOfAnAccountForAWhile) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const gid_t groups[] = {7, 8};
    ASSERT_EQ(setgroups(2, groups), 0);
    const temp_dir_t dir;
    const std::string path = dir.write("file", "");
    fs::permissions(path, fs::perms(0060));
    EXPECT_EQ(chown(path.c_str(), 0, 7), 0);
    {
        const rights_t of_somebody(65534, 65534);
        EXPECT_TRUE(of_somebody.are_taken());
        EXPECT_FALSE(unique_fd_t(open(path.c_str(), O_RDWR)));
    }
    child_t other(fork());
    if (other.pid == 0) {  // a group that it has, an account that it may not take
        const bool is_other = setresgid(65534, 65534, 65534) + setresuid(65533, 65533, 65533) == 0;
        _exit(is_other && !rights_t(65534, 65534).are_taken() ? 0 : 1);
    }
    EXPECT_EQ(other.wait(), 0);
    EXPECT_TRUE(unique_fd_t(open(path.c_str(), O_RDWR)));
    gid_t after[4] = {};
    EXPECT_EQ(getgroups(4, after), 2);
    EXPECT_EQ(after[1], 8U);
}

TEST(Files, AreReadUpToALimit) {
    const temp_dir_t dir;
    const std::string path = dir.write("file", std::string(9000, 'x'));
    std::string text = "before";
    EXPECT_EQ(read_whole(path.c_str(), 0, 9000, &text), 0);
    EXPECT_EQ(text, std::string(9000, 'x'));
    EXPECT_EQ(read_whole(path.c_str(), 0, 8999, &text), -1);
    EXPECT_EQ(errno, EFBIG);
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
        {"k = 'a;b' ; c", "a;b"},
        {"k = \"it's\"", "it's"},
        {"k = '\"quoted\" <x>'", "\"quoted\" <x>"},
        {"k = \"blanks  \"", "blanks"},
        {"k = \"open", "open"},
        {"k = ''", ""},
        {"k = ' '", ""},
        {"k = \"\" ; empty", ""},
        {"k =", "(absent)"},
        {"k = ; nothing", "(absent)"},
        {"# k = 1", "(absent)"},
        {"; k = 1", "(absent)"},
        {"k = a=b", "a=b"},
        {"k = ends in \\\nl = 2", "ends in \\"},
        {"k = first\nk = last", "last"},
        {"k = Case\r", "Case"},
        {"l = " + long_value + "k = 2", "2"},
        {"k = " + long_value + "l = 2", long_value},
    };
    for (const auto &[line, value] : rows) {
        load("[s]\n" + line + "\n");
        EXPECT_EQ(get("S:k"), value) << line;
    }
}

TEST_F(Ini, Sections) {
    load("free = 1\n[ Two Words ] ; comment\nk=1\n[b]\nk=2\n[]\n[ two words ]\nl=3\n[x:y]\nk=4\n");
    EXPECT_EQ(get(":free") + get(" two words :k") + get(" two words :l") + get("x:y:k"), "1134");
    EXPECT_EQ(joined(iniparser_getnsec(dict.get()), iniparser_getsecname(dict.get(), 0),
                     iniparser_getsecname(dict.get(), 1)),
              "2| two words |b|");
}

TEST_F(Ini, SectionsAlone) {
    load("[a:b]\nk=0\n[a:c]\nk=1\n[x]\nk=2\n[a]\nk=3\nb:l=4\n[X]\nk=5\nm=6\n[aa]\n");
    std::string found;
    for (const ini_section_t &section : ini_sections(dict.get())) {
        const unique_dictionary_t alone = ini_section_alone(dict.get(), section);
        found += section.name + "{"s;
        const char *key = nullptr;
        const char *value = nullptr;
        for (int cursor = 0;
             (cursor = iniparser_get_next_kv(alone.get(), "", cursor, &key, &value)) > 0;) {
            found += joined(key, iniparser_getstr(alone.get(), key));
        }
        found += "}";
    }
    EXPECT_EQ(found, "x{x:k|5|x:m|6|}a{a:c:k|1|a:k|3|a:b:l|4|}aa{}");
}

}  // namespace
