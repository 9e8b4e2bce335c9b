// When the call files of numbered calls became complete.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"

// Watches spool directories for files whose extension is the number of a call.
class call_watch_t {
  public:
    explicit call_watch_t(const std::vector<std::string> &spool_dirs);
    ~call_watch_t() { stop(); }

    // Takes what was written so far, and no more.
    void stop();
    // By number: when the file was closed, in microseconds by clock.h's monotonic clock, or 0. To be
    // read when the watch has stopped, and possibly shorter than the calls are many.
    const std::vector<int64_t> &closed_us() const { return closed_us_; }

  private:
    void run();
    void take_events();

    unique_fd_t events_;
    std::vector<int64_t> closed_us_;
    std::atomic<bool> done_ = false;
    std::thread watcher_;
};

// The number of the call that a file is of, or -1.
int call_number(const std::string &file_name);
