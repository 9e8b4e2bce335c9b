// What the fuzz targets share.
#pragma once

#include <stdlib.h>
#include <unistd.h>

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

// Nothing is written, but every line is formatted when `FUZZ_LOG` is set.
inline void quiet_log() {
    static const bool formats = getenv("FUZZ_LOG") != nullptr;
    logger_init("/dev/null", 5, 0, formats ? 0 : 1);
}

// Ends the process where an expectation does not hold, which the fuzzer reports.
inline void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// A directory of this process, made once.
inline const std::string &scratch_dir() {
    static const std::string path = [] {
        const char *parent = getenv("TMPDIR");
        std::string name = std::string(parent != nullptr ? parent : "/tmp") + "/vesper-fuzz-XXXXXX";
        require(mkdtemp(name.data()) != nullptr);
        return name;
    }();
    return path;
}

inline std::string scratch_file(const std::string &name, std::string_view content) {
    const std::string path = scratch_dir() + "/" + name;
    FILE *file = fopen(path.c_str(), "we");
    require(file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size());
    fclose(file);
    return path;
}
