#include "replay.h"

#include "clock.h"

namespace {

constexpr int REST_MS = 100;  // in which comes what is left of an answer, or one too many

}  // namespace

bool replay_t::run(const std::vector<exchange_t> &exchanges) {
    int64_t before_us = exchanges.empty() ? 0 : exchanges.front().time_us;
    for (const exchange_t &exchange : exchanges) {
        const bool is_done = exchange.is_sent
                                 ? pass(exchange.time_us - before_us) && send_bytes(exchange.bytes)
                                 : hear(exchange.bytes);
        if (!is_done) {
            return false;
        }
        before_us = exchange.time_us;
    }
    const std::string rest = read_pending(REST_MS);
    if (!rest.empty()) {
        show("<- ", rest);
        tell("");
    }
    return true;
}

// Nothing is to come within this time.
bool replay_t::pass(int64_t microseconds) {
    const int64_t until_us = microseconds_passed() + microseconds;
    for (;;) {
        const int64_t left_us = until_us - microseconds_passed();
        const std::string bytes = read_pending(left_us > 0 ? static_cast<int>(left_us / 1000) : 0);
        if (!bytes.empty()) {
            show("<- ", bytes);
            tell("");
        } else if (is_closed()) {
            return fail("the line was closed");
        } else if (left_us < 1000) {
            return true;
        }
    }
}

bool replay_t::hear(std::string_view recorded) {
    answers_++;
    std::string answer;
    while (answer.size() < recorded.size()) {
        const int byte = read_byte();
        if (byte < 0 && is_closed()) {
            return false;
        }
        if (byte >= 0) {
            answer += static_cast<char>(byte);
        }
        if (byte < 0 || !recorded.starts_with(answer)) {
            answer += byte < 0 ? "" : read_pending(REST_MS);
            break;
        }
    }
    if (!answer.empty()) {
        show("<- ", answer);
    }
    if (answer != recorded) {
        tell(recorded);
    }
    return true;
}

void replay_t::tell(std::string_view recorded) {
    different_++;
    if (trace() != nullptr) {
        fprintf(trace(), "   recorded: %s\n",
                recorded.empty() ? "nothing" : describe_bytes(recorded).c_str());
    }
}
