// A daemon, or another program in its place, at work on a number of lines.
#pragma once

#include <sys/resource.h>

#include <string>
#include <vector>

#include "fd.h"

// What a program took while it ran.
struct usage_t {
    double cpu_seconds = 0;
    long peak_kilobytes = 0;
};

class site_t {
  public:
    // Makes a working directory in memory and `lines` listening sockets.
    explicit site_t(int lines);
    ~site_t();

    const std::string &dir() const { return dir_; }
    std::string spool_dir() const { return dir_ + "/spool"; }
    std::string log_file() const { return dir_ + "/log"; }
    std::string journal_file() const { return dir_ + "/journal"; }
    std::string status_file() const { return dir_ + "/status.prom"; }
    // The section that switches on both, to stand among the rules.
    std::string monitoring() const {
        return "[logger]\njournal_file = " + journal_file() + "\nstatus_file = " + status_file() +
               "\n";
    }
    const std::vector<std::string> &ports() const { return ports_; }

    // Writes a configuration with one pager per line, named line0, line1, ...; `sections` holds the
    // rules, `pager_keys` what every pager has besides host, port and spool directory.
    std::string write_conf(int log_level, const std::string &pager_keys,
                           const std::string &sections) const;

    // Starts a program of the build, or one given by its path.
    void start(const std::vector<std::string> &arguments);
    // Starts the daemon in the background, with so many descriptors at its disposal.
    void start_in_background(const std::string &conf, int max_descriptors);
    // Accepts the connection on a line.
    unique_fd_t accept(int line) const;
    // Leaves the ports to the program, which listens on them itself.
    void stop_listening() { listeners_.clear(); }
    // Connects to a line's port from one of the machine's addresses; no descriptor while nobody listens.
    unique_fd_t connect_from(const char *address, int line) const;
    // The listening socket of a line.
    int listener(int line) const { return listeners_[static_cast<size_t>(line)].get(); }
    // The running program, -1 when it has ended.
    pid_t pid() const { return pid_; }
    // The CPU seconds of the running program so far.
    double cpu_seconds() const;
    // Its resident memory; the same with its share only of what other processes use too; its open
    // descriptors.
    long resident_kilobytes() const;
    long proportional_kilobytes() const;
    long descriptors() const;
    // Ends the program with a signal, SIGTERM when none is given, and waits for it.
    usage_t stop();
    usage_t stop(int signo);

  private:
    long kilobytes(const std::string &file, const std::string &field) const;

    std::string dir_;
    std::vector<unique_fd_t> listeners_;
    std::vector<std::string> ports_;
    pid_t pid_ = -1;
};

[[noreturn]] void give_up(const std::string &why);

// Lets the calling thread go before every program, as what stands on another machine would.
void go_first();
