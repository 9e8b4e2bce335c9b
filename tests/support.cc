#include "support.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "logger.h"

namespace fs = std::filesystem;

temp_dir_t::temp_dir_t() {
    char name[] = "/tmp/vesper-test-XXXXXX";
    path_ = mkdtemp(name);
    if (const passwd *account = getpwnam("ovo"); account != nullptr && geteuid() == 0) {
        EXPECT_EQ(chown(name, account->pw_uid, account->pw_gid), 0);
    }
    fs::permissions(path_, fs::perms(0755));
}

temp_dir_t::~temp_dir_t() {
    fs::remove_all(path_);
}

std::string temp_dir_t::write(const std::string &name, std::string_view content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
}

std::string temp_dir_t::read(const std::string &name) const {
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
}

std::vector<std::string> temp_dir_t::list(const std::string &prefix) const {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(path_)) {
        if (entry.path().filename().string().starts_with(prefix)) {
            names.push_back(entry.path().filename());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

captured_log_t::captured_log_t(int level) {
    logger_init(dir_.path("log").c_str(), level, 0, 0);
}

captured_log_t::~captured_log_t() {
    logger_init("", 0, 0, 1);
}

std::string captured_log_t::messages() const {
    static const std::regex prefix("(^|\n)[0-9/]+ [0-9:]+:  [A-Z]+\\[[0-9]+\\]: (\\w+:[0-9]+ in \\w+: )?");
    return std::regex_replace(text(), prefix, "$1");
}

pair_t make_socketpair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {unique_fd_t(ends[0]), unique_fd_t(ends[1])};
}

void send_all(const unique_fd_t &fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        ASSERT_GT(sent, 0);
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

std::string read_available(const unique_fd_t &fd) {
    char bytes[4096];
    const ssize_t got = recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    return {bytes, static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

bool eventually(const std::function<bool()> &condition) {
    for (int tries = 0; tries < 1800; tries++) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

program_t::program_t(const std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const std::string output = dir_.path("output");
    pid_ = fork();
    if (pid_ == 0) {
        const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execv(program_path(arguments[0]).c_str(), argv.data());
        _exit(127);
    }
}

program_t::~program_t() {
    if (is_running()) {
        kill(pid_, SIGKILL);
        wait();
    }
}

int program_t::wait() {
    if (!ended_) {
        waitpid(pid_, &status_, 0);
        ended_ = true;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

bool program_t::is_running() {
    ended_ = ended_ || waitpid(pid_, &status_, WNOHANG) == pid_;
    return !ended_;
}

std::string program_path(const std::string &name) {
    return name.starts_with('/') ? name : PROGRAM_DIR "/"s + name;
}

converter_t::converter_t() {
    std::random_device random;
    std::string error;
    while (!listener_) {
        port_ = 20000 + static_cast<int>(random() % 12000);
        listener_ = listen_on("127.0.0.1", port_, &error);
    }
}

unique_fd_t converter_t::accept(int wait_seconds) const {
    std::string error;
    unique_fd_t line = accept_within(listener_.get(), wait_seconds, &error);
    EXPECT_TRUE(line || wait_seconds == 0) << error;
    return line;
}

std::string daemon_obstacle() {
    if (geteuid() != 0) {
        return "the daemon changes to its account, which needs root";
    }
    return getpwnam("ovo") == nullptr ? "there is no account ovo" : "";
}

daemon_t::daemon_t(const std::string &pager, const std::string &sections) {
    dir.write("quillet.conf", "[line]\nhost = 127.0.0.1\nport = " + std::to_string(converter.port()) +
                                  "\nspool_dir = " + dir.path() + "\n" + pager + "\n" + sections);
}

void daemon_t::start() {
    program_ = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-d"s, "-c"s, dir.path("quillet.conf")});
}

bool daemon_t::logs(const std::string &text, int times) const {
    return eventually([&] {
        const std::string seen = log();
        size_t at = 0;
        int found = 0;
        while ((at = seen.find(text, at)) != std::string::npos && found < times) {
            at += text.size();
            found++;
        }
        return found == times;
    });
}

std::vector<std::string> daemon_t::calls(const std::string &extension) const {
    std::vector<std::string> contents;
    for (const std::string &name : dir.list("call_" + extension + "_")) {
        contents.push_back(dir.read(name));
    }
    return contents;
}

std::string call_file(const std::string &channel, const std::string &context, const std::string &extension,
                      const std::string &callerid) {
    return "Channel: " + channel + "\r\nContext: " + context + "\r\nExtension: " + extension +
           "\r\nCallerID: " + callerid + "\r\nPriority: 1\r\nMaxRetries: 0\r\n";
}
