// Call files in a PBX's spool directory (the Asterisk call-file format).
#pragma once

#include <string_view>

#include "files.h"

// How writing a call file went.
enum class call_file_t { WRITTEN, NOT_OPENED, NOT_WRITTEN };

struct call_file_result_t {
    call_file_t outcome;
    int error;  // errno, 0 for an incomplete write
};

// Writes a file directly under its path, over an earlier one. An incomplete file is removed: the PBX
// would take it for a broken call.
call_file_result_t call_file_write(const char *path, std::string_view content) noexcept;

// What staging a call file needs and tells.
struct staged_call_t {
    const char *staging_dir;
    const char *spool_dir;
    const char *name;  // "call_EXTENSION_SECONDS"

    char path[PATH_SIZE];   // receives the path of the file
    int staging_error = 0;  // receives errno when staging failed and the file was written directly
};

// Writes a file in the staging directory and renames it to "NAME_N" in the spool directory, N
// counting the calls of that name from 0 on. A name that exists is never taken. When that is
// impossible the file is written directly under such a name. Nothing stays behind in the staging
// directory.
call_file_result_t call_file_stage(staged_call_t *call, std::string_view content) noexcept;

// Removes what killed processes left in a staging directory; what others are writing there at the
// moment stays.
void call_file_clean(const char *staging_dir) noexcept;
