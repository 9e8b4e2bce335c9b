// What the fuzz targets share.
#pragma once

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "logger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline std::string_view as_text(const uint8_t *data, size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}

// Inputs stay short, because short ones run quickly; what is longer than any field or line is
// written with DEL, which repeats the byte before it.
inline std::string stretched(std::string_view text) {
    constexpr char DEL = '\x7F';
    constexpr size_t REPETITIONS = 250;
    constexpr size_t ENOUGH = 4000;
    std::string out;
    for (const char byte : text) {
        if (byte != DEL || out.empty()) {
            out += byte;
        } else if (out.size() < ENOUGH) {
            out.append(REPETITIONS, out.back());
        }
    }
    return out;
}

// Nothing is written, but every line is formatted when `FUZZ_LOG` is set.
inline void quiet_log() {
    static const int result = logger_init("/dev/null", 5, 0, getenv("FUZZ_LOG") != nullptr ? 0 : 1);
    static_cast<void>(result);
}

// Ends the process where an expectation does not hold, which the fuzzer reports.
inline void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// The C library's own function behind one that a target defines.
template <typename function_t>
function_t *in_libc(function_t * /*defined*/, const char *name) {
    return reinterpret_cast<function_t *>(dlsym(RTLD_NEXT, name));
}

// Takes what stands before the next zero byte, or everything.
inline std::string next_piece(std::string_view *rest) {
    const size_t end = std::min(rest->find('\0'), rest->size());
    std::string piece(rest->substr(0, end));
    rest->remove_prefix(std::min(end + 1, rest->size()));
    return piece;
}
