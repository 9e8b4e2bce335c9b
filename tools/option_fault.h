// What getopt_long() would print itself, which prints arguments as they are.
#pragma once

#include <getopt.h>

#include <string>

// What is wrong with the argument at which getopt_long() has just returned `letter`, '?' or ':'.
// Its option string begins with ':'.
inline std::string option_fault(int letter, char **argv) {
    constexpr int FIRST_LONG = 256;  // the values of options that have no letter
    const bool has_letter = optopt > 0 && optopt < FIRST_LONG;
    const std::string name =
        has_letter ? "-" + std::string(1, static_cast<char>(optopt)) : argv[optind - 1];
    return "option '" + name + (letter == ':' ? "' needs an argument" : "' is none");
}
