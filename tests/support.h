// What the tests share: temporary directories, log capture, lines and running programs.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "control_station.h"
#include "fd.h"
#include "line.h"

using namespace std::string_literals;

// A directory that the daemon's account can write, removed with everything in it.
class temp_dir_t {
  public:
    temp_dir_t();
    ~temp_dir_t();
    std::string path(const std::string &name = "") const { return path_ + "/" + name; }
    std::string write(const std::string &name, std::string_view content) const;
    std::string read(const std::string &name) const;
    // The names that begin with `prefix`, in order.
    std::vector<std::string> list(const std::string &prefix = "") const;

  private:
    std::string path_;
};

// Sends the log of this process to a file of its own until it goes.
class captured_log_t {
  public:
    explicit captured_log_t(int level = 5);
    ~captured_log_t();
    std::string text() const { return dir_.read("log"); }
    // The messages alone, one per line, without time, level and place.
    std::string messages() const;

  private:
    temp_dir_t dir_;
};

struct pair_t {
    unique_fd_t near;
    unique_fd_t far;
};
pair_t make_socketpair();
void send_all(const unique_fd_t &fd, std::string_view bytes);
// Everything that can be read at this moment.
std::string read_available(const unique_fd_t &fd);

// Waits until `condition` holds; false after far more time than it should take.
bool eventually(const std::function<bool()> &condition);

// A program of the build, started with its output in a file; ended with the object.
class program_t {
  public:
    explicit program_t(const std::vector<std::string> &arguments);
    ~program_t();
    std::string output() const { return dir_.read("output"); }
    pid_t pid() const { return pid_; }
    // Waits for the end; the exit status, or 128 and the signal.
    int wait();
    bool is_running();

  private:
    temp_dir_t dir_;
    pid_t pid_;
    bool ended_ = false;
    int status_ = 0;
};
std::string program_path(const std::string &name);

// A converter for the daemon to connect to: a listening socket on a free port below 32768.
class converter_t {
  public:
    converter_t();
    int port() const { return port_; }
    // Waits for the daemon's connection.
    unique_fd_t accept(int wait_seconds = 60) const;
    void close() { listener_.reset(); }

  private:
    int port_ = 0;
    unique_fd_t listener_;
};

// Why the built daemon cannot be run here, or empty.
std::string daemon_obstacle();
#define SKIP_UNLESS_DAEMON_RUNS()          \
    if (!daemon_obstacle().empty()) {      \
        GTEST_SKIP() << daemon_obstacle(); \
    }

// The daemon in the foreground with log level 5, on a spool directory and configuration of its own.
class daemon_t {
  public:
    // `pager` holds further keys of the only pager, `sections` the rules.
    daemon_t(const std::string &pager, const std::string &sections);
    converter_t converter;
    temp_dir_t dir;  // also the spool directory
    void start();
    std::string log() const { return program_->output(); }
    bool logs(const std::string &text, int times = 1) const;
    program_t &program() { return *program_; }
    // The contents of the call files named call_`extension`_...
    std::vector<std::string> calls(const std::string &extension) const;

  private:
    std::unique_ptr<program_t> program_;
};

// What a call file holds.
std::string call_file(const std::string &channel, const std::string &context, const std::string &extension,
                      const std::string &callerid);
