#include "account.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>

namespace {

constexpr std::string_view MARK = "soak#";
constexpr size_t MAX_RANDOM_BYTES = 100;

// FNV-1a.
uint32_t check_of(std::string_view bytes) {
    uint32_t sum = 2'166'136'261;
    for (const char byte : bytes) {
        sum = (sum ^ static_cast<uint8_t>(byte)) * 16'777'619;
    }
    return sum;
}

// "soak#NUMBER:CHECK:" and the bytes that the check is of. Returns the number, or -1.
int number_of(const std::string &text) {
    const size_t check = text.find(':');
    const size_t bytes = check != std::string::npos ? text.find(':', check + 1) : check;
    if (!text.starts_with(MARK) || bytes == std::string::npos) {
        return -1;
    }
    const auto wanted = strtoul(text.c_str() + check + 1, nullptr, 10);
    return wanted == check_of(std::string_view(text).substr(bytes + 1))
               ? atoi(text.c_str() + MARK.size())
               : -1;
}

// What ISO 8859-1 has for a text in UTF-8, as far as it goes.
std::string as_latin(const std::string &text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        const auto lead = static_cast<uint8_t>(text[i]);
        if ((lead == 0xC2 || lead == 0xC3) && i + 1 < text.size()) {
            bytes += static_cast<char>((lead & 3) << 6 | (text[++i] & 0x3F));
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

// Hands out the lines that were written to a file since it was taken away the last time.
void take_lines(const std::string &path, const std::function<void(const std::string &)> &count) {
    const std::string portion = path + ".counted";
    std::error_code none;
    std::filesystem::rename(path, portion, none);
    if (none) {
        return;
    }
    // A line that was being written goes to the file moved away.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::ifstream file(portion);
    for (std::string line; std::getline(file, line);) {
        count(line);
    }
}

}  // namespace

std::string numbered_message(int number, std::mt19937 *random) {
    constexpr std::string_view ENDS("\0\x03\x04\x1E\r\n", 6);
    std::string bytes((*random)() % MAX_RANDOM_BYTES, '\0');
    for (char &byte : bytes) {
        do {
            byte = static_cast<char>((*random)());
        } while (ENDS.find(byte) != std::string_view::npos);
    }
    return std::string(MARK) + std::to_string(number) + ":" + std::to_string(check_of(bytes)) +
           ":" + bytes;
}

void account_t::count_portion() {
    take_lines(journal_, [this](const std::string &line) { count_object(line); });
    take_lines(log_, [this](const std::string &line) {
        fallbacks_ += line.find("Trying to swap to ASCII") != std::string::npos;
    });
}

int account_t::missing(int first, int count, int step) const {
    int unseen = 0;
    for (int i = 0; i < count; i++) {
        unseen += seen_[static_cast<size_t>(first + i * step)] == 0;
    }
    return unseen;
}

int account_t::repeated() const {
    return static_cast<int>(
        std::count_if(seen_.begin(), seen_.end(), [](int times) { return times > 1; }));
}

// Bytes that were not valid UTF-8 were read as ISO 8859-1; the check tells which it was.
void account_t::count_object(const std::string &line) {
    const auto object = nlohmann::json::parse(line, nullptr, false);
    if (!object.is_object()) {
        wrong_++;
        return;
    }
    if (object.value("event", "") != "message") {
        return;
    }
    const std::string text = object.value("text", "");
    int number = number_of(text);
    if (number < 0) {
        number = number_of(as_latin(text));
    }
    if (number < 0 || static_cast<size_t>(number) >= seen_.size()) {
        wrong_++;
        return;
    }
    seen_[static_cast<size_t>(number)]++;
}
