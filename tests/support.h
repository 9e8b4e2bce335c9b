// What the tests share: bytes in readable form, temporary directories, log capture, lines and processes.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <thread>

#include "control_station.h"
#include "espa.h"
#include "line.h"
#include "logger.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace testing;
using ints_t = std::vector<int>;  // results in the order of the calls that stand in its braces

// The bytes of a readable text: "<STX>" stands for a control character, "<E9>" for any other byte.
inline std::string wire(const std::string &text) {
    static const std::map<std::string, char> names = {
        {"<NUL>", '\0'}, {"<SOH>", SOH}, {"<STX>", STX}, {"<ETX>", ETX}, {"<EOT>", EOT},
        {"<ENQ>", ENQ},  {"<ACK>", ACK}, {"<NAK>", NAK}, {"<RS>", RS},   {"<US>", US}};
    std::string bytes;
    for (size_t at = 0, size = 0; at < text.size(); at += size) {
        size = text[at] == '<' ? text.find('>', at) - at + 1 : 1;
        const std::string name = text.substr(at, size);
        const bool hex = size == 4 && isxdigit(name[1]);
        bytes += size == 1 ? name[0]
                 : hex     ? char(std::stoi(name.substr(1), nullptr, 16))
                           : names.at(name);
    }
    return bytes;
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

// A directory that the daemon's account can write, removed with everything in it.
struct temp_dir_t {
    temp_dir_t() {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
        fs::permissions(path_, fs::perms(0755));
        const passwd *account = geteuid() == 0 ? getpwnam("ovo") : nullptr;
        EXPECT_TRUE(account == nullptr ||
                    chown(path_.c_str(), account->pw_uid, account->pw_gid) == 0);
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
    void make(const std::string &name, unsigned mode) const {
        fs::create_directory(path(name)), fs::permissions(path(name), fs::perms(mode));
    }
    std::vector<std::string> list(const std::string &prefix = "",
                                  const std::string &directory = "") const {
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(path(directory))) {
            names.insert(entry.path().filename());
        }
        std::erase_if(names, [&](const std::string &name) { return !name.starts_with(prefix); });
        return {names.begin(), names.end()};
    }

    std::string path_ = fs::temp_directory_path() / "vesper-test-XXXXXX";
};

struct captured_log_t {
    explicit captured_log_t(int level = 5) { logger_init(dir_.path("log").c_str(), level, 0, 0); }
    ~captured_log_t() { logger_init("", 0, 0, 1); }
    std::string text() const { return dir_.read("log"); }
    // The messages alone, one per line, without time, level and place.
    std::string messages() const {
        static const std::regex prefix(
            "(^|\n)[0-9/]+ [0-9:]+:  [A-Z]+\\[[0-9]+\\]: (\\w+:[0-9]+ in \\w+: )?");
        return std::regex_replace(text(), prefix, "$1");
    }

    temp_dir_t dir_;
};

struct pair_t {
    pair_t() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        near.reset(ends[0]), far.reset(ends[1]);
    }
    unique_fd_t near, far;
};

inline void send_wire(const unique_fd_t &fd, const std::string &text) {
    const std::string bytes = wire(text);
    EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

inline std::string read_available(const unique_fd_t &fd) {
    std::string bytes(4096, '?');
    bytes.resize(
        size_t(std::max<ssize_t>(recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT), 0)));
    return bytes;
}

// Waits until `condition` holds; false after far more time than it should take.
inline bool eventually(const std::function<bool()> &condition) {
    int tries = 0;
    while (!condition() && tries++ < 1800) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return tries <= 1800;
}

struct child_t {
    explicit child_t(pid_t pid) : pid_(pid) {}
    child_t(child_t &&other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
    ~child_t() { pid_ > 0 ? end(SIGKILL) : 0; }
    pid_t pid() const { return pid_; }
    int wait() {
        int status = 0;
        const pid_t pid = std::exchange(pid_, 0);
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int end(int signo) { return kill(pid_, signo), wait(); }

    pid_t pid_;
};

// A program of the build, or of the system, started with its output in a file.
struct program_t {
    explicit program_t(std::vector<std::string> arguments) : child_(fork()) {
        if (child_.pid() != 0) {
            return;
        }
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const int file = open(dir_.path("output").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(file, STDOUT_FILENO), dup2(file, STDERR_FILENO);
        execv(((arguments[0][0] == '/' ? "" : PROGRAM_DIR "/") + arguments[0]).c_str(),
              argv.data());
        _exit(127);
    }
    std::string output() const { return dir_.read("output"); }
    int wait() { return child_.wait(); }

    temp_dir_t dir_;
    child_t child_;
};

inline std::string run(int status, const std::vector<std::string> &arguments) {
    program_t program(arguments);
    EXPECT_EQ(program.wait(), status) << program.output();
    return program.output();
}

// A listening socket on a free port; a configuration holds no more than 32767.
inline unique_fd_t listen_anywhere(std::string *port) {
    *port = std::to_string(20000 + std::random_device()() % 12000);
    std::string error;
    unique_fd_t sock = listen_on("127.0.0.1", std::stoi(*port), &error);
    return sock ? std::move(sock) : listen_anywhere(port);
}

struct Installed : Test {
    void SetUp() override {
        if (geteuid() != 0 || getpwnam("ovo") == nullptr) {
            GTEST_SKIP() << "needs root and the daemon's account";
        }
    }
};
