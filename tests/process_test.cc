// Detaching, pidfiles and deferred signals, each in a process of its own.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "daemon.h"
#include "sig.h"
#include "support.h"

namespace {

// What `body` says when it runs in a child process, which may detach or close every descriptor.
std::string in_child(const temp_dir_t &dir, const std::function<std::string()> &body) {
    dir.write("said", "");
    const pid_t child = fork();
    if (child == 0) {
        dir.write("said", body() + ".");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    std::string said;
    EXPECT_TRUE(eventually([&] { return (said = dir.read("said")).ends_with('.'); }));
    return said;
}

std::string open_descriptors() {
    std::string open;
    for (int fd = 0; fd < 100; fd++) {
        open += fcntl(fd, F_GETFD) >= 0 ? std::to_string(fd) + " " : "";
    }
    return open;
}

// How a process came out of daemon_init().
std::string describe_daemon(const std::function<void()> &prepare) {
    prepare();
    const pid_t before = getpid();
    const int result = daemon_init(nullptr);
    const bool has_session = getsid(0) == getpid();
    return std::to_string(result) + (getpid() == before ? " same" : " forked") + (has_session ? " session " : " ") +
           std::filesystem::current_path().string() + " " + std::to_string(umask(0)) + " " + open_descriptors();
}

TEST(DaemonInit, DetachesUnlessStartedByInitOrInetd) {
    const temp_dir_t dir;
    EXPECT_EQ(in_child(dir, [] { return describe_daemon([] { setsid(); }); }), "0 forked session / 0 0 1 2 .");
    EXPECT_EQ(in_child(dir, [] { return describe_daemon([] { close_range(0, 2, 0); }); }),
              "0 forked session / 0 0 1 2 .");
    const auto socket_as_input = [] {
        dup2(socket(AF_UNIX, SOCK_STREAM, 0), STDIN_FILENO);
        close(STDERR_FILENO);
    };
    EXPECT_EQ(in_child(dir, [&] { return describe_daemon(socket_as_input); }), "0 same / 0 0 1 .");
    if (geteuid() == 0) {
        const auto under_init = [&] {  // the child of a new process id namespace's first process
            if (unshare(CLONE_NEWPID) != 0) {
                return "cannot"s;
            }
            if (fork() == 0) {
                if (fork() == 0) {
                    dir.write("inner", describe_daemon([] {}) + ".");
                    _exit(0);
                }
                wait(nullptr);
                _exit(0);
            }
            wait(nullptr);
            return ""s;
        };
        EXPECT_EQ(in_child(dir, under_init), ".");
        EXPECT_EQ(dir.read("inner"), "0 same / 0 0 1 2 .");
    }
}

TEST(Pidfile, Path) {
    char *path = nullptr;
    EXPECT_EQ(daemon_construct_pidfile("/run/x.pid", &path), 0);
    EXPECT_STREQ(path, "/run/x.pid");
    EXPECT_EQ(daemon_construct_pidfile("vesperd", &path), 0);
    EXPECT_STREQ(path, getuid() == 0 ? "/var/run/vesperd.pid" : "/tmp/vesperd.pid");
    errno = 0;
    EXPECT_EQ(daemon_construct_pidfile(std::string(4085, 'x').c_str(), &path), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(daemon_construct_pidfile(std::string(4084, 'x').c_str(), &path), 0);
    EXPECT_EQ(daemon_construct_pidfile(("/" + std::string(4097, 'x')).c_str(), &path), -1);
    free(path);
}

TEST(Pidfile, WrittenOverAnOlderOneAndRemoved) {
    const temp_dir_t dir;
    const std::string old(12, '9');
    const std::string file = dir.write("x.pid", old + "\n");
    EXPECT_EQ(daemon_pidfile(file.c_str()), 0);
    EXPECT_EQ(in_child(dir,
                       [&] {
                           const int result = daemon_pidfile(file.c_str());
                           return std::to_string(result) + std::to_string(daemon_close());
                       }),
              "-10.");
    // The other instance has left the file alone. Reading it gives up this process's lock.
    const std::string mine = std::to_string(getpid()) + "\n";
    EXPECT_EQ(dir.read("x.pid"), mine + (old + "\n").substr(mine.size()));
    EXPECT_EQ(daemon_close(), 0);
    EXPECT_EQ(dir.list("x.pid").size(), 0u);
    EXPECT_EQ(daemon_close(), 0);
    EXPECT_EQ(daemon_pidfile(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(daemon_pidfile(dir.path("missing/x.pid").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Pidfile, RemovedWhenItCannotBeWritten) {
    const temp_dir_t dir;
    const std::string said = in_child(dir, [&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit before{RLIM_INFINITY, RLIM_INFINITY};
        const rlimit nothing{0, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &nothing);
        const int result = daemon_pidfile(dir.path("x.pid").c_str());
        const int error = errno;
        setrlimit(RLIMIT_FSIZE, &before);
        return std::to_string(result) + (error == EFBIG ? " EFBIG" : "") + std::to_string(daemon_close());
    });
    EXPECT_EQ(said, "-1 EFBIG0.");
    EXPECT_EQ(dir.list("x.pid").size(), 0u);
}

std::string handled;

void note_signal(int signo) {
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    handled += std::to_string(signo) + (sigismember(&blocked, signo) ? "b" : "") +
               (sigismember(&blocked, SIGWINCH) ? "w" : "") + " ";
}

TEST(Signals, AreCountedAndHandledLater) {
    handled = "";
    for (const int signo : {SIGTERM, SIGHUP, SIGRTMIN}) {
        ASSERT_EQ(signal_set_handler(signo, 0, note_signal), 0);
    }
    EXPECT_EQ(signal_addset(SIGTERM, SIGWINCH), 0);
    raise(SIGRTMIN);
    raise(SIGTERM);
    for (int i = 0; i < 3; i++) {
        raise(SIGHUP);
    }
    EXPECT_EQ(handled, "");
    EXPECT_EQ(signal_received(SIGHUP), 3);
    EXPECT_EQ(signal_raise(SIGHUP), 4);
    signal_handle_all();
    EXPECT_EQ(handled, "1b 15bw " + std::to_string(SIGRTMIN) + "b ");
    EXPECT_EQ(signal_received(SIGHUP), 0);
    signal_handle_all();
    EXPECT_EQ(handled.size(), "1b 15bw 34b "s.size());
}

TEST(Signals, DispositionsFaultsAndBadNumbers) {
    handled = "";
    ASSERT_EQ(signal_set_handler(SIGABRT, 0, note_signal), 0);
    raise(SIGABRT);  // at once
    EXPECT_EQ(handled, "6b ");
    EXPECT_EQ(signal_received(SIGABRT), 0);
    ASSERT_EQ(signal_set_handler(SIGUSR1, 0, SIG_IGN), 0);
    raise(SIGUSR1);
    EXPECT_EQ(signal_raise(SIGUSR1), 1);
    signal_handle_all();  // an ignored signal has nothing to call
    EXPECT_EQ(signal_received(SIGUSR1), 0);
    EXPECT_EQ(signal_set_handler(SIGKILL, 0, note_signal), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const int signo : {-1, 65}) {
        errno = 0;
        EXPECT_EQ(signal_received(signo), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(signal_raise(signo), -1);
        EXPECT_EQ(signal_handle(signo), -1);
        EXPECT_EQ(signal_addset(signo, SIGHUP), -1);
        EXPECT_EQ(signal_set_handler(signo, 0, note_signal), -1);
    }
}

}  // namespace
