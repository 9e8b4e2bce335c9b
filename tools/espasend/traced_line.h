// One end of a connected line, which prints what goes over it.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "recording.h"

// Every operation returns false when the line failed or the expected answer did not come; error() then
// says why in one line.
class traced_line_t {
  public:
    // fd           socket or serial device, owned by the caller
    // wait_seconds the longest wait for an answer
    // trace        where each exchange is printed, or null
    traced_line_t(int fd, int wait_seconds, FILE *trace) noexcept
        : fd_(fd), wait_seconds_(wait_seconds), trace_(trace) {}

    // From now on what is printed goes to a recording too; it outlives the line.
    void set_recorder(recorder_t *recorder) { recorder_ = recorder; }

    // Sends bytes as they stand.
    bool send_bytes(std::string_view bytes);

    // Waits for exactly these bytes.
    bool expect(std::string_view bytes);

    // Whether the other end has closed the connection.
    bool is_closed() const;

    const std::string &error() const { return error_; }

  protected:
    // A byte, or -1 with error() set.
    int read_byte() { return read_byte(wait_seconds_); }
    int read_byte(int wait_seconds);
    // What comes within a time, up to the first pause.
    std::string read_pending(int milliseconds);

    void show(const char *what, std::string_view bytes) const;
    FILE *trace() const { return trace_; }
    bool fail(const std::string &why);

  private:
    int fd_;
    int wait_seconds_;
    FILE *trace_;
    recorder_t *recorder_ = nullptr;
    std::string error_;
};
