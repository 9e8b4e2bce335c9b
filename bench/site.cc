#include "site.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "espasend/line.h"

namespace {

std::set<pid_t> started;  // the programs that must not outlive this one

constexpr int FIRST_PORT = 21000;
constexpr int LAST_PORT = 31000;
constexpr int ACCEPT_SECONDS = 1800;  // an ASCII line first works off what is in its buffers

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// A tracer passes no signal on, so its child is the one to end.
pid_t innermost_process(pid_t pid) {
    const std::string number = std::to_string(pid);
    std::ifstream children("/proc/" + number + "/task/" + number + "/children");
    pid_t child = 0;
    return children >> child ? child : pid;
}

}  // namespace

[[noreturn]] void give_up(const std::string &why) {
    fprintf(stderr, "bench: %s\n", why.c_str());
    for (const pid_t pid : started) {
        kill(innermost_process(pid), SIGKILL);
    }
    exit(EXIT_FAILURE);
}

void go_first() {
    sched_param priority{};
    priority.sched_priority = 1;
    sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &priority);
}

site_t::site_t(int lines) {
    char name[] = "/dev/shm/vesper-bench-XXXXXX";
    const passwd *account = getpwnam("ovo");
    if (geteuid() != 0 || account == nullptr) {
        give_up("needs root and the account ovo");
    }
    if (mkdtemp(name) == nullptr || chown(name, account->pw_uid, account->pw_gid) != 0) {
        give_up("cannot make a directory in /dev/shm");
    }
    chmod(name, 0777);
    dir_ = name;
    std::filesystem::create_directory(spool_dir());
    chmod(spool_dir().c_str(), 0777);
    std::string error;
    for (int port = FIRST_PORT; port < LAST_PORT && std::ssize(listeners_) < lines; port++) {
        unique_fd_t listener = listen_on("127.0.0.1", port, &error);
        if (listener) {
            ports_.push_back(std::to_string(port));
            listeners_.push_back(std::move(listener));
        }
    }
}

site_t::~site_t() {
    stop();
    std::filesystem::remove_all(dir_);
}

std::string site_t::write_conf(int log_level, const std::string &pager_keys,
                               const std::string &sections) const {
    const std::string path = dir_ + "/conf";
    std::ofstream conf(path);
    conf << "[logger]\nlog_level = " << log_level << "\nlog_file = " << log_file() << "\n"
         << sections;
    int number = 0;
    for (const std::string &port : ports()) {
        conf << "[line" << number++ << "]\nhost = 127.0.0.1\nport = " << port
             << "\nspool_dir = " << spool_dir() << "\n"
             << pager_keys;
    }
    return path;
}

void site_t::start(const std::vector<std::string> &arguments) {
    const std::string path =
        arguments[0].starts_with('/') ? arguments[0] : PROGRAM_DIR "/" + arguments[0];
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_ = fork();
    started.insert(pid_);
    if (pid_ == 0) {
        execv(path.c_str(), argv.data());
        _exit(127);
    }
}

// The pidfile, named after the program, tells the process, which becomes a child of this one when
// those in between have ended.
void site_t::start_in_background(const std::string &conf, int max_descriptors) {
    const std::string name = "vesper-bench-" + std::to_string(getpid());
    const std::string pidfile = "/var/run/" + name + ".pid";
    std::error_code exists;
    std::filesystem::create_symlink(PROGRAM_DIR "/vesperd", dir_ + "/" + name, exists);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    start({"/usr/bin/prlimit", "--nofile=" + std::to_string(max_descriptors), dir_ + "/" + name,
           "-c", conf});
    waitpid(pid_, nullptr, 0);
    started.erase(pid_);
    pid_ = -1;
    while (pid_ < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::ifstream(pidfile) >> pid_;
    }
    started.insert(pid_);
    std::filesystem::remove(pidfile);  // which the account cannot do
}

unique_fd_t site_t::accept(int line) const {
    std::string error;
    unique_fd_t sock =
        accept_within(listeners_[static_cast<size_t>(line)].get(), ACCEPT_SECONDS, &error);
    if (!sock) {
        give_up(error);
    }
    return sock;
}

unique_fd_t site_t::connect_from(const char *address, int line) const {
    const int port = atoi(ports_[static_cast<size_t>(line)].c_str());
    const sockaddr_in from{AF_INET, 0, {inet_addr(address)}, {}};
    const sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    unique_fd_t sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(sock.get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    setsockopt(sock.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0 ||
        connect(sock.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        return unique_fd_t();
    }
    return sock;
}

long site_t::kilobytes(const std::string &file, const std::string &field) const {
    std::ifstream fields("/proc/" + std::to_string(pid_) + "/" + file);
    for (std::string line; std::getline(fields, line);) {
        if (line.starts_with(field)) {
            return atol(line.c_str() + field.size());
        }
    }
    return 0;
}

double site_t::cpu_seconds() const {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        give_up("a program has ended by itself");
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

long site_t::resident_kilobytes() const {
    return kilobytes("status", "VmRSS:");
}

long site_t::proportional_kilobytes() const {
    return kilobytes("smaps_rollup", "Pss:");
}

long site_t::descriptors() const {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
    return std::distance(begin(all), end(all));
}

usage_t site_t::stop() {
    return stop(SIGTERM);
}

usage_t site_t::stop(int signo) {
    if (pid_ <= 0) {
        return {};
    }
    usage_t used;
    used.peak_kilobytes = kilobytes("status", "VmHWM:");
    kill(innermost_process(pid_), signo);
    rusage taken{};
    int status = 0;
    wait4(pid_, &status, 0, &taken);
    started.erase(pid_);
    pid_ = -1;
    used.cpu_seconds = seconds(taken.ru_utime) + seconds(taken.ru_stime);
    return used;
}
