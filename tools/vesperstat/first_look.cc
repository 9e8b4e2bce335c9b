#include "first_look.h"

#include <algorithm>

namespace {

// A nurse call system may take minutes to start; one that polls does so every few seconds.
constexpr int64_t SILENCE_SECONDS = 600;

// A converter that starts anew loses a few.
constexpr int64_t LOST_CONNECTIONS = 20;

// Plugging in and switching on leave less.
constexpr int64_t NOISE_BYTES = 100;

// One of 6,500 random bytes makes a request, and far fewer make a packet that is right.
constexpr int64_t NOISE_FOR_A_HIT = 1000;

// Twice around a line with all ten stations.
constexpr int64_t REQUESTS = 20;

// A wrong parity garbles some addresses and leaves others: with more noise none is surely missing.
constexpr int64_t REQUESTS_FOR_A_NOISE_BYTE = 10;

// One or two may have met the plugging in.
constexpr int64_t PACKETS = 3;

int64_t requests_of(const line_status_t &line) {
    return sum_of(line.requests, "");
}

int64_t lost_connections(const line_status_t &line) {
    int64_t count = 0;
    for (const tally_t &tally : line.alarms) {
        count += tally.what == "connection_lost" ? tally.count : 0;
    }
    return count;
}

bool is_requested(const line_status_t &line) {
    return std::any_of(line.requests.begin(), line.requests.end(),
                       [&](const tally_t &tally) { return tally.what == line.address; });
}

// "3", "3 and 4", "3, 4 and 5": the stations that are asked for; empty when the control station's
// own address is all that is heard.
std::string stations_asked_for(const line_status_t &line) {
    std::vector<std::string> addresses;
    for (const tally_t &tally : line.requests) {
        if (tally.what != line.control) {
            addresses.push_back(tally.what);
        }
    }
    std::string words;
    for (size_t i = 0; i < addresses.size(); i++) {
        const bool is_last = i + 1 == addresses.size();
        words += i == 0 ? "" : is_last ? " and " : ", ";
        words += addresses[i];
    }
    return words;
}

std::string mute_words(const line_status_t &line) {
    if (line.received_bytes > 0 || line.silence_seconds < SILENCE_SECONDS) {
        return "";
    }
    return "connected for " + duration_words(static_cast<double>(line.silence_seconds)) +
           ", not a byte: is the converter's serial side connected, is somebody else connected to "
           "it?";
}

std::string closed_words(const line_status_t &line) {
    const int64_t lost = lost_connections(line);
    if (line.received_bytes > 0 || lost < LOST_CONNECTIONS) {
        return "";
    }
    return "connection closed " + std::to_string(lost) +
           " times, not a byte: is somebody else connected to the converter?";
}

std::string noise_words(const line_status_t &line) {
    const int64_t hits = requests_of(line) + line.packets - line.check_errors;
    if (line.noise_bytes < NOISE_BYTES || hits > line.noise_bytes / NOISE_FOR_A_HIT) {
        return "";
    }
    return "noise only, " + std::to_string(line.noise_bytes) +
           " bytes: are baud rate, data bits and parity right, is it ESPA?";
}

std::string address_words(const line_status_t &line) {
    const int64_t requests = requests_of(line);
    if (line.address.empty() || is_requested(line) || requests < REQUESTS ||
        line.noise_bytes > requests / REQUESTS_FOR_A_NOISE_BYTE) {
        return "";
    }
    const std::string stations = stations_asked_for(line);
    if (stations.empty()) {
        return "addressed as " + line.control + " alone, never as " + line.address +
               ": a sender that has one address for all needs no espa_address";
    }
    return "addressed as " + stations + ", never as " + line.address +
           ": is espa_address the one that the paging system has for this station?";
}

std::string check_words(const line_status_t &line) {
    if (line.check_errors < PACKETS || line.check_errors < line.packets) {
        return "";
    }
    return "every check character is wrong, of " + std::to_string(line.check_errors) +
           " packets: are data bits and parity right, does the paging system reckon it otherwise?";
}

// Of a wrong parity some addresses come through, but no packet.
std::string garbled_words(const line_status_t &line) {
    if (line.packets > 0 || line.noise_bytes < NOISE_BYTES) {
        return "";
    }
    return "requests, but no packet, and " + std::to_string(line.noise_bytes) +
           " bytes that belong to nothing: are data bits and parity right?";
}

constexpr struct {
    std::string_view kind;
    std::string (*words)(const line_status_t &line);
} LOOKS[] = {
    {"mute", mute_words},       {"closed", closed_words}, {"noise", noise_words},
    {"address", address_words}, {"check", check_words},   {"garbled", garbled_words},
};

}  // namespace

std::optional<problem_t> first_look(const line_status_t &line) {
    if (line.messages > 0) {
        return std::nullopt;
    }
    const level_t level = line.configured == "ascii" ? level_t::NOTICE : level_t::WARNING;
    const auto seconds = static_cast<double>(line.received_bytes > 0 ? 0 : line.silence_seconds);
    for (const auto &look : LOOKS) {
        if (std::string words = look.words(line); !words.empty()) {
            return problem_t{level, look.kind, line.line, seconds, std::move(words)};
        }
    }
    return std::nullopt;
}
