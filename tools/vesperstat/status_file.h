// vesperd's status file as records.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "line_state.h"

// How often something ended in a certain way: "call" and "failed", "no_response" and "raised".
struct tally_t {
    std::string what;
    std::string result;
    int64_t count = 0;
};

// A message that nobody answered.
struct undelivered_t {
    std::string call;  // the name of its call file
    std::string text;
    double time = 0;
};

// Times are seconds since the epoch; 0 stands for never, and for a time that the file does not tell.
struct line_status_t {
    std::string line;
    std::string host;
    std::string port;
    line_state_t state = line_state_t::CONNECTING;
    double state_since = 0;
    std::string protocol;
    std::string configured;  // another one than `protocol` on a line that fell back
    double protocol_since = 0;
    int64_t connects = 0;
    int64_t received_bytes = 0;
    int64_t silence_seconds = 0;  // of its connections, without what is shorter than 15
    int64_t polls = 0;
    int64_t packets = 0;
    int64_t check_errors = 0;
    int64_t messages = 0;
    int64_t unmatched = 0;
    int64_t noise_bytes = 0;
    std::string address;            // the station that the line is; empty: none
    std::string control;            // and its control station
    std::vector<tally_t> requests;  // by their address
    std::vector<tally_t> actions;
    std::vector<tally_t> alarms;
    std::vector<tally_t> calls;              // that were followed, by their outcome
    std::vector<undelivered_t> undelivered;  // of the last hour
    int64_t calls_open = 0;
    double last_message = 0;
};

struct status_t {
    bool is_up = false;
    std::string version;
    double start = 0;
    double written = 0;  // when the daemon wrote this version of the file
    double load = 0;
    int64_t reloads = 0;
    bool is_load_whole = true;         // the last load took all of the configuration
    std::vector<line_status_t> lines;  // in the order of the file
};

// Larger files, files with more lines and longer values of labels are none of vesperd's.
constexpr size_t MAX_STATUS_SIZE = 1 << 20;
constexpr size_t MAX_STATUS_LINES = 64;
constexpr size_t MAX_LABEL_LENGTH = 255;

// What to do with a link that has the name of a file.
enum class links_t { FOLLOW, REFUSE };

// Reads a status file that somebody else may have put there. Returns false when it cannot be read
// or is no status file, with the reason in `*error`.
bool read_status(const std::string &path, links_t links, status_t *status, std::string *error);

// Reads status files again and again: what has not changed is not parsed anew.
class status_files_t {
  public:
    // As read_status().
    bool read(const std::string &path, links_t links, status_t *status, std::string *error);

  private:
    struct known_t {
        dev_t device;
        ino_t inode;
        timespec changed;
        status_t status;
    };
    std::map<std::string, known_t> known_;
};

// The same for its content. Metrics that are not known are passed over.
bool parse_status(std::string_view text, status_t *status, std::string *error);

// The sum of those tallies of a line that have this result.
int64_t sum_of(const std::vector<tally_t> &tallies, std::string_view result) noexcept;
