// What the tests share: bytes in readable form, temporary directories, logs, lines and processes.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "conf.h"
#include "espa.h"
#include "fd.h"
#include "logger.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace testing;
using texts_t = std::vector<std::string>;
using ints_t = std::vector<int>;  // results in the order of the calls that stand in its braces

// The bytes of a readable text: "<STX>" stands for a control character, "<E9>" for any other byte.
inline std::string wire(const std::string &text) {
    static const std::map<std::string, char> names = {
        {"NUL", '\0'}, {"SOH", SOH}, {"STX", STX}, {"ETX", ETX}, {"EOT", EOT},
        {"ENQ", ENQ},  {"ACK", ACK}, {"NAK", NAK}, {"RS", RS},   {"US", US},
    };
    std::string bytes;
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] != '<') {
            bytes += text[at];
            continue;
        }
        const size_t end = text.find('>', at);
        const std::string name = text.substr(at + 1, end - at - 1);
        bytes += names.contains(name) ? names.at(name) : char(std::stoi(name, nullptr, 16));
        at = end;
    }
    return bytes;
}

// The names that the group of a pattern finds in a text, each once and in order.
inline texts_t names_in(const std::string &text, const std::string &pattern) {
    const std::regex name(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return {found.begin(), found.end()};
}

inline std::string replaced(const std::string &text, const std::string &pattern,
                            const std::string &by) {
    return std::regex_replace(text, std::regex(pattern), by);
}

// A text again and again, with a number in the place of "#".
inline std::string repeated(int count, const std::string &text) {
    std::string all;
    for (int i = 0; i < count; i++) {
        all += replaced(text, "#", std::to_string(i));
    }
    return all;
}

template <typename... parts_t>
std::string joined(const parts_t &...parts) {
    std::ostringstream text;
    ((text << parts << '|'), ...);
    return text.str();
}

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Waits until `condition` holds; false after far more time than it should take.
inline bool eventually(const std::function<bool()> &condition) {
    for (int tries = 0; tries < 1800; tries++) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// A directory that the daemon's account can write, removed with everything in it.
struct temp_dir_t {
    temp_dir_t() {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
        fs::permissions(path_, fs::perms(0755));
        const passwd *account = geteuid() == 0 ? getpwnam("ovo") : nullptr;
        if (account != nullptr) {
            EXPECT_EQ(chown(path_.c_str(), account->pw_uid, account->pw_gid), 0);
        }
    }
    ~temp_dir_t() {  // again while a script of a daemon that has ended still writes
        std::error_code error;
        do {
            fs::remove_all(path_, error);
        } while (error);
    }
    std::string path(const std::string &name = "") const { return path_ + "/" + name; }
    std::string read(const std::string &name) const { return read_file(path(name)); }
    std::string write(const std::string &name, std::string_view content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }
    // Makes a directory; whose it is decides who has the rights.
    std::string make(const std::string &name, unsigned mode = 0777) const {
        fs::create_directories(path(name));
        fs::permissions(path(name), fs::perms(mode));
        return path(name);
    }
    texts_t list(const std::string &prefix = "") const {
        texts_t names;
        for (const auto &entry : fs::directory_iterator(path_)) {
            if (entry.path().filename().string().starts_with(prefix)) {
                names.push_back(entry.path().filename());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string path_ = fs::temp_directory_path() / "vesper-test-XXXXXX";
};

// A limit of the process that is lower for a while; what is written beyond it fails.
class lowered_t {
  public:
    lowered_t(decltype(RLIMIT_FSIZE) resource, rlim_t limit) : resource_(resource) {
        getrlimit(resource, &before_);
        const rlimit lowered{limit, before_.rlim_max};
        setrlimit(resource, &lowered);
    }
    ~lowered_t() {
        setrlimit(resource_, &before_);
        signal(SIGXFSZ, handler_);
    }

  private:
    decltype(RLIMIT_FSIZE) resource_;
    rlimit before_{};
    sighandler_t handler_ = signal(SIGXFSZ, SIG_IGN);
};

// A log without time, process and place: "ERROR: Unable to open directory".
inline std::string messages(const std::string &log) {
    static const std::regex prefix(
        "(^|\n)[0-9/]+ [0-9:]+:  ([A-Z]+)\\[[0-9]+\\]: (\\w+:[0-9]+ in \\w+: )?");
    return std::regex_replace(log, prefix, "$1$2: ");
}

// Empty tables, a directory, and the log in a file of it.
struct Tables : Test {
    Tables() {
        memset(pagers, 0, sizeof pagers);
        memset(rules, 0, sizeof rules);
        logfile = nullptr;
        EXPECT_EQ(logger_init(dir.path("log").c_str(), 5, 0, 0), 0);
    }
    ~Tables() override {
        free_confvals();
        logger_init("", 0, 0, 1);
    }
    void load(const std::string &text) {
        free_confvals();
        const std::string head = "[logger]\nlog_file = " + dir.path("log") + "\n";
        EXPECT_EQ(load_conf(dir.write("conf", head + text).c_str()), 0);
    }
    std::string log() const { return messages(dir.read("log")); }
    temp_dir_t dir;
};

struct pair_t {
    pair_t() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        near.reset(ends[0]);
        far.reset(ends[1]);
    }
    unique_fd_t near, far;
};

inline void send_bytes(const unique_fd_t &fd, const std::string &bytes, int flags = 0) {
    EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), flags | MSG_NOSIGNAL), std::ssize(bytes));
}

inline std::string read_available(const unique_fd_t &fd) {
    char bytes[4096];
    const ssize_t size = recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    return {bytes, size_t(std::max<ssize_t>(size, 0))};
}

// Hears datagrams to a path, or to a name that is no file's: one that begins with "@".
inline unique_fd_t hear_datagrams(const std::string &path) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    address.sun_path[0] = path[0] == '@' ? '\0' : path[0];
    const auto size = socklen_t(offsetof(sockaddr_un, sun_path) + path.size());
    unique_fd_t sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(sock.get(), reinterpret_cast<const sockaddr *>(&address), size), 0);
    return sock;
}

struct child_t {
    explicit child_t(pid_t child) : pid(child) {}
    ~child_t() {
        if (pid > 0) {
            end(SIGKILL);
        }
    }
    // The exit status, or 128 and the signal that ended it.
    int wait() {
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    // Process 0 would be the whole group.
    bool send(int signo) const {
        EXPECT_GT(pid, 0) << "there is no process";
        return pid > 0 && kill(pid, signo) == 0;
    }
    int end(int signo) { return send(signo) ? wait() : -1; }

    pid_t pid;
};

// A command of the system, or of the build, started with its output in a file.
struct program_t {
    explicit program_t(const std::string &command) : child_(fork()) {
        if (child_.pid == 0) {
            const std::string line = "PATH=" PROGRAM_DIR ":$PATH; exec " + command + " > " +
                                     dir_.path("output") + " 2>&1";
            execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
    }
    std::string output() const { return dir_.read("output"); }
    int wait() { return child_.wait(); }

    temp_dir_t dir_;
    child_t child_;
};

inline std::string run(int status, const std::string &command) {
    program_t program(command);
    EXPECT_EQ(program.wait(), status) << program.output();
    return program.output();
}
