// What went over a line, as text that people read and edit:
//
//     # seconds since the first; what is sent to vesperd; what it answers
//     0.000  -> '2' ENQ
//     0.012  <- EOT
//     2.000  -> '2' ENQ, -> EOT
//
// Bytes stand as control characters by name, text in single quotes and "0x7f". Several exchanges at one time
// have commas between them, as where tshark prints the fields frame.time_relative and espa.trace of a segment.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "files.h"

// Bytes in readable form.
std::string describe_bytes(std::string_view bytes);

// The bytes of a readable form; false when it is none.
bool parse_bytes(std::string_view text, std::string *bytes);

struct exchange_t {
    int64_t time_us;
    bool is_sent;  // to vesperd
    std::string bytes;
};

// The exchanges of a recording. Returns false, with the line and the reason in `error`, when it is none.
bool parse_recording(std::string_view text, std::vector<exchange_t> *exchanges, std::string *error);

// Reads a recording from a file; "-" is the standard input. Returns false, with the reason in `error`, when
// it cannot be read or is none.
bool read_recording(const std::string &path, std::vector<exchange_t> *exchanges,
                    std::string *error);

// Writes a recording while it is made: after each exchange the file has it.
class recorder_t {
  public:
    // Begins a new file. Returns false, with the reason in `error`, when it cannot.
    bool open(const std::string &path, std::string *error);

    void note(bool is_sent, std::string_view bytes);

    // Whether everything has been written.
    bool is_whole() const { return is_whole_; }

  private:
    unique_file_t file_;
    int64_t begun_us_ = -1;  // with the first exchange
    bool is_whole_ = true;
};
