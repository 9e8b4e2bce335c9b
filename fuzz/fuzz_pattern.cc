// Any pattern, message and template, separated by zero bytes.

#include <cstring>
#include <vector>

#include "action.h"
#include "fuzz.h"
#include "text.h"

namespace {

constexpr size_t MAX_SIZE = 512;

// Matching back-references and deep repetitions takes the C library exponential time, and long
// intervals take memory that is kept: operators are trusted with those, the fuzzer is not.
bool is_tame(const std::string &pattern) {
    size_t repetitions = 0;
    for (size_t i = 0; i < pattern.size(); i++) {
        if (pattern[i] == '\\' && i + 1 < pattern.size() && isdigit(pattern[i + 1]) != 0) {
            return false;
        }
        if (pattern[i] == '{' && pattern.find_first_not_of("0123456789,", i + 1) > i + 3) {
            return false;
        }
        repetitions += strchr("*+?{", pattern[i]) != nullptr;
    }
    return repetitions <= 3 && pattern.size() < 64;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    quiet_log();
    if (size < 1 || size > MAX_SIZE) {
        return 0;
    }
    std::string_view rest = as_text(data + 1, size - 1);
    const std::string pattern = next_piece(&rest);
    const std::string message = next_piece(&rest);
    const std::string fmt = next_piece(&rest);
    if (!is_tame(pattern)) {
        return 0;
    }
    static rule_t rule;
    rule = {};
    copy_text(rule.values[0].name, "v");
    copy_text(rule.values[1].name, rest);
    compile_regex(&rule.values[0].pattern, pattern.c_str());
    rule.values[1].pattern = rule.values[0].pattern;
    const int out_size = data[0];
    std::vector<char> line(static_cast<size_t>(out_size) + 1);
    const int length = format_string(line.data(), out_size, fmt.c_str(), data[0], "4711",
                                     message.c_str(), nullptr, rule.values);
    require(length == 0 || length < out_size);
    std::vector<char> out(static_cast<size_t>(out_size));
    const int index = match_regex(&rule.values[0].pattern, message.c_str(), out.data(), out_size);
    require(index >= 0 && index <= static_cast<int>(message.size()));
    return 0;
}
