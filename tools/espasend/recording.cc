#include "recording.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "clock.h"
#include "espa.h"

namespace {

constexpr size_t MAX_RECORDING = 64 << 20;
constexpr double MAX_SECONDS = 1e9;

struct control_name_t {
    char byte;
    std::string_view name;
};
constexpr std::array<control_name_t, 11> control_names = {{{SOH, "SOH"},
                                                           {STX, "STX"},
                                                           {ETX, "ETX"},
                                                           {EOT, "EOT"},
                                                           {ENQ, "ENQ"},
                                                           {ACK, "ACK"},
                                                           {NAK, "NAK"},
                                                           {RS, "RS"},
                                                           {US, "US"},
                                                           {'\r', "CR"},
                                                           {'\n', "LF"}}};

// A backslash is none, because newer versions of tshark print two for one.
bool is_text(char byte) {
    return byte >= ' ' && byte <= '~' && byte != '\'' && byte != '\\';
}

std::string control_name(char byte) {
    for (const control_name_t &known : control_names) {
        if (known.byte == byte) {
            return std::string(known.name);
        }
    }
    char hex[8];
    snprintf(hex, sizeof hex, "0x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return hex;
}

bool skip(std::string_view *text, std::string_view what) {
    const bool is_there = text->starts_with(what);
    text->remove_prefix(is_there ? what.size() : 0);
    return is_there;
}

void skip_blanks(std::string_view *text) {
    text->remove_prefix(std::min(text->find_first_not_of(" \t\r"), text->size()));
}

// A name, or a byte in hexadecimal.
bool parse_control(std::string_view word, char *byte) {
    for (const control_name_t &known : control_names) {
        if (known.name == word) {
            *byte = known.byte;
            return true;
        }
    }
    unsigned value = 0;
    const bool is_hex = skip(&word, "0x") && word.size() == 2;
    const auto [end, error] =
        std::from_chars(word.data(), word.data() + word.size(), value, is_hex ? 16 : 10);
    *byte = static_cast<char>(value);
    return is_hex && error == std::errc() && end == word.data() + word.size();
}

// Up to the comma that stands outside of quotes.
std::string_view next_exchange(std::string_view *line) {
    bool is_quoted = false;
    size_t end = 0;
    while (end < line->size() && (is_quoted || (*line)[end] != ',')) {
        is_quoted = is_quoted != ((*line)[end] == '\'');
        end++;
    }
    const std::string_view exchange = line->substr(0, end);
    line->remove_prefix(std::min(end + 1, line->size()));
    return exchange;
}

// Returns what is wrong with a line, or null.
const char *parse_line(std::string_view line, std::vector<exchange_t> *exchanges) {
    skip_blanks(&line);
    if (line.empty() || line.starts_with('#')) {
        return nullptr;
    }
    double seconds = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), seconds);
    if (error != std::errc() || !(seconds >= 0 && seconds < MAX_SECONDS)) {
        return "it does not begin with a time in seconds";
    }
    const int64_t time_us = static_cast<int64_t>(seconds * 1e6);
    if (!exchanges->empty() && time_us < exchanges->back().time_us) {
        return "its time is earlier than that of the line before";
    }
    line.remove_prefix(static_cast<size_t>(end - line.data()));
    do {
        std::string_view exchange = next_exchange(&line);
        skip_blanks(&exchange);
        const bool is_sent = skip(&exchange, "->");
        std::string bytes;
        if (!is_sent && !skip(&exchange, "<-")) {
            return "there is no -> or <- before the bytes";
        }
        if (!parse_bytes(exchange, &bytes) || bytes.empty()) {
            return "its bytes are not names, 'text' or 0x00 to 0xff";
        }
        exchanges->push_back({time_us, is_sent, bytes});
    } while (!line.empty());
    return nullptr;
}

}  // namespace

std::string describe_bytes(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        size_t length = 0;
        while (length < bytes.size() && is_text(bytes[length])) {
            length++;
        }
        if (!text.empty()) {
            text += ' ';
        }
        if (length > 0) {
            text += '\'' + std::string(bytes.substr(0, length)) + '\'';
        } else {
            text += control_name(bytes.front());
            length = 1;
        }
        bytes.remove_prefix(length);
    }
    return text;
}

bool parse_bytes(std::string_view text, std::string *bytes) {
    bytes->clear();
    for (skip_blanks(&text); !text.empty(); skip_blanks(&text)) {
        if (skip(&text, "'")) {
            const size_t end = text.find('\'');
            if (end == std::string_view::npos) {
                return false;
            }
            *bytes += text.substr(0, end);
            text.remove_prefix(end + 1);
            continue;
        }
        const std::string_view word = text.substr(0, text.find_first_of(" \t\r'"));
        char byte = 0;
        if (!parse_control(word, &byte)) {
            return false;
        }
        *bytes += byte;
        text.remove_prefix(word.size());
    }
    return true;
}

bool parse_recording(std::string_view text, std::vector<exchange_t> *exchanges,
                     std::string *error) {
    exchanges->clear();
    skip(&text, "\xEF\xBB\xBF");  // of some editors
    for (int number = 1; !text.empty(); number++) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const char *const fault = parse_line(line, exchanges);
        if (fault != nullptr) {
            *error = "line " + std::to_string(number) + ": " + fault;
            return false;
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    *error = "it has no exchange";
    return !exchanges->empty();
}

bool read_recording(const std::string &path, std::vector<exchange_t> *exchanges,
                    std::string *error) {
    std::string text;
    const int status = path == "-" ? read_to_end(stdin, MAX_RECORDING, &text)
                                   : read_whole(path.c_str(), 0, MAX_RECORDING, &text);
    const bool is_read = status == 0 && parse_recording(text, exchanges, error);
    if (status != 0) {
        *error = file_fault(errno, MAX_RECORDING);
    }
    *error = path + ": " + *error;
    return is_read;
}

bool recorder_t::open(const std::string &path, std::string *error) {
    constexpr mode_t MODE = 0666;
    unique_fd_t fd = open_regular(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, MODE);
    file_.reset(fd ? fdopen(fd.get(), "w") : nullptr);
    if (!file_) {
        *error = path + ": " + file_fault(errno);
        return false;
    }
    fd.release();
    fputs("# seconds since the first; -> what is sent to vesperd, <- what it answers\n",
          file_.get());
    return true;
}

void recorder_t::note(bool is_sent, std::string_view bytes) {
    if (!file_) {
        return;
    }
    const int64_t now_us = microseconds_passed();
    begun_us_ = begun_us_ < 0 ? now_us : begun_us_;
    const int printed =
        fprintf(file_.get(), "%9.3f  %s %s\n", static_cast<double>(now_us - begun_us_) / 1e6,
                is_sent ? "->" : "<-", describe_bytes(bytes).c_str());
    is_whole_ = printed > 0 && fflush(file_.get()) == 0 && is_whole_;
}
