// Call files in a PBX's spool directory (the Asterisk call-file format).
#pragma once

#include <string>
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
    int follow_error = 0;   // receives errno when a call to follow could not be linked
    size_t size = 0;        // receives how large the file of a followed call is
    bool is_followed = false;  // receives whether it was
};

// Writes a file in the staging directory and renames it to "NAME_N" in the spool directory, N
// counting the calls of that name from 0 on. A name that exists is never taken. When that is
// impossible the file is written directly under such a name. Nothing stays behind in the staging
// directory.
call_file_result_t call_file_stage(staged_call_t *call, std::string_view content) noexcept;

// The directory in a staging directory with a further name, the same, of every call file that is
// followed.
std::string followed_dir(const char *staging_dir);

// Stages a call that is followed: the file gets the settings, "Archive: yes", its name as the variable
// VESPERD_CALL and the comments, is open to the PBX's account for writing, and has its name in
// followed_dir() before it has it in the spool directory. Without that link it is staged with the
// settings alone.
call_file_result_t call_file_follow(staged_call_t *call, std::string_view settings,
                                    std::string_view comments) noexcept;

// Puts a call into the spool directory that a killed process had linked and not yet renamed. Returns
// whether there was one of this name.
bool call_file_finish(const char *staging_dir, const char *spool_dir,
                      const std::string &name) noexcept;

// Whether both directories exist, on different file systems.
bool are_on_different_disks(const char *one, const char *other) noexcept;

// Removes what killed processes left in a staging directory; what others are writing there at the
// moment stays.
void call_file_clean(const char *staging_dir) noexcept;
