#include "account.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <thread>

namespace {

constexpr const char *MARK = "soak#";

}  // namespace

std::string numbered_message(int number, std::mt19937 *random) {
    constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ abcdef 0123456789 %$[]()*.";
    std::string message = MARK + std::to_string(number) + ".";
    for (size_t left = (*random)() % 110; left > 0; left--) {
        message += LETTERS[(*random)() % LETTERS.size()];
    }
    return message;
}

void account_t::count_portion() {
    const std::string portion = log_ + ".counted";
    std::error_code none;
    std::filesystem::rename(log_, portion, none);
    if (none) {
        return;
    }
    // A line that was being written goes to the file moved away.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::ifstream file(portion);
    for (std::string line; std::getline(file, line);) {
        count_line(line);
    }
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

// ESPA calls show as "Send message", ASCII lines as "message=".
void account_t::count_line(const std::string &line) {
    fallbacks_ += line.find("Trying to swap to ASCII") != std::string::npos;
    const size_t at = line.find(MARK);
    if (at == std::string::npos || (line.find("Send message '") == std::string::npos &&
                                    line.find("message=") == std::string::npos)) {
        return;
    }
    const size_t number = static_cast<size_t>(atoll(line.c_str() + at + strlen(MARK)));
    if (number < seen_.size()) {
        seen_[number]++;
    }
}
