#include "callfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "fd.h"

namespace {

constexpr mode_t CALL_FILE_MODE = 0666;
constexpr mode_t FOLLOWED_MODE = 0700;
constexpr std::string_view STAGED_PREFIX = "vesperd-call-";

// Writes the whole content and removes the file if that fails; it stays open.
call_file_result_t fill(const unique_fd_t &file, const char *path, std::string_view content) {
    errno = 0;
    if (write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size())) {
        return {call_file_t::WRITTEN, 0};
    }
    const int error = errno;
    unlink(path);
    return {call_file_t::NOT_WRITTEN, error};
}

call_file_result_t write_with(int flags, const char *path, std::string_view content) {
    unique_fd_t file = open_regular(path, O_WRONLY | O_CREAT | flags, CALL_FILE_MODE);
    if (!file) {
        return {call_file_t::NOT_OPENED, errno};
    }
    const call_file_result_t result = fill(file, path, content);
    if (result.outcome == call_file_t::WRITTEN && close(file.release()) != 0) {
        const int error = errno;
        unlink(path);
        return {call_file_t::NOT_WRITTEN, error};
    }
    return result;
}

// The numbers that names have come to. A name holds the second of its call, so what is older than a
// period is of no use any more; a period's names are forgotten together. Names with the same hash share
// a counter, which leaves out a number and does no harm.
class name_counter_t {
  public:
    int next(size_t name) {
        counts_t forgotten;  // goes when the lock has gone
        const std::lock_guard lock(mutex_);
        const time_t now = time(nullptr);
        if (now - since_ > PERIOD_SECONDS || now < since_) {
            forgotten = std::exchange(before_, std::exchange(current_, {}));
            since_ = now;
        }
        const auto earlier = before_.find(name);
        return current_.try_emplace(name, earlier != before_.end() ? earlier->second : 0)
            .first->second++;
    }

  private:
    using counts_t = std::unordered_map<size_t, int>;
    static constexpr time_t PERIOD_SECONDS = 10;

    std::mutex mutex_;
    time_t since_ = time(nullptr);
    counts_t current_;
    counts_t before_;
};

// The next number of a name. Counted rather than looked for: the PBX may have taken the files with
// the earlier ones already.
int next_number(const std::string &name) {
    static name_counter_t &counter = *std::make_unique<name_counter_t>().release();
    return counter.next(std::hash<std::string>()(name));
}

// Forms the next path of a call. Returns whether it fits.
bool next_path(staged_call_t *call) {
    const std::string name = std::string(call->spool_dir) + "/" + call->name;
    const int length =
        snprintf(call->path, sizeof call->path, "%s_%d", name.c_str(), next_number(name));
    return length < PATH_SIZE;
}

// Takes the lock that keeps call_file_clean() away, which may have come first.
bool lock_against_cleaning(const unique_fd_t &file) {
    if (flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        return false;
    }
    struct stat status {};
    return fstat(file.get(), &status) != 0 || status.st_nlink > 0;
}

// A file in the staging directory, locked for as long as it is being written, and removed unless it
// is renamed.
class staged_file_t {
  public:
    staged_file_t(const char *staging_dir, std::string_view content) {
        static std::atomic<unsigned> count;
        do {
            path_ = std::string(staging_dir) + "/" + std::string(STAGED_PREFIX) +
                    std::to_string(getpid()) + "-" + std::to_string(count++);
            file_.reset(
                open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, CALL_FILE_MODE));
        } while (file_ ? !lock_against_cleaning(file_) : errno == EEXIST);
        was_opened_ = bool(file_);
        if (!file_) {
            error_ = errno;
            return;
        }
        const call_file_result_t filled = fill(file_, path_.c_str(), content);
        if (filled.outcome != call_file_t::WRITTEN) {
            file_.reset();
            error_ = filled.error != 0 ? filled.error : EIO;
        } else if (close(dup(file_.get())) != 0) {  // tells of errors that come late
            error_ = errno;
            unlink(path_.c_str());
            file_.reset();
        }
    }
    staged_file_t(const staged_file_t &) = delete;
    staged_file_t &operator=(const staged_file_t &) = delete;
    ~staged_file_t() {
        if (file_) {
            unlink(path_.c_str());
        }
    }

    const std::string &path() const { return path_; }
    bool is_complete() const { return bool(file_); }
    // Why the file could not be opened, written or, after rename_to(), renamed; errno.
    int error() const { return error_; }
    // Whether it was opened; when not, no other call can be staged either.
    bool was_opened() const { return was_opened_; }

    // The PBX's account is to write into a file that is ours.
    void open_to_all() const { fchmod(file_.get(), CALL_FILE_MODE); }
    // Returns whether it now has that path, which did not exist.
    bool rename_to(const char *path) {
        if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, path, RENAME_NOREPLACE) != 0) {
            error_ = errno;
            return false;
        }
        file_.reset();
        return true;
    }

  private:
    std::string path_;
    unique_fd_t file_;
    int error_ = 0;
    bool was_opened_ = false;
};

// Whether the way over the staging directory is closed for good, rather than for want of space. Only
// then is a call file written where the PBX may see a part of it.
bool cannot_be_staged(const staged_file_t &staged, const staged_call_t &call) {
    switch (staged.error()) {
        case ENOSPC:
        case EDQUOT:
            return are_on_different_disks(call.staging_dir, call.spool_dir);
        case EIO:
        case EMFILE:
        case ENFILE:
            return false;
        case EXDEV:
        case EINVAL:
        case ENOSYS:
        case EPERM:
        case EOPNOTSUPP:
            return true;
        default:
            return !staged.was_opened();
    }
}

// Calls `visit` with the path of every file that a killed process left in a staging directory.
template <typename visitor_t>
void visit_staged(const char *staging_dir, visitor_t visit) {
    const unique_dir_t directory(opendir(staging_dir));
    while (const dirent *entry = directory ? readdir(directory.get()) : nullptr) {
        if (!std::string_view(entry->d_name).starts_with(STAGED_PREFIX)) {
            continue;
        }
        const std::string path = std::string(staging_dir) + "/" + entry->d_name;
        const unique_fd_t file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (file && flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            visit(path, file);
        }
    }
}

// Makes a further name of a file in the directory for calls that are followed. Returns 0 or errno.
int link_followed(const std::string &staged, const std::string &directory, const char *name) {
    const std::string path = directory + "/" + name;
    if (link(staged.c_str(), path.c_str()) == 0) {
        return 0;
    }
    if (errno == ENOENT && mkdir(directory.c_str(), FOLLOWED_MODE) == 0 &&
        link(staged.c_str(), path.c_str()) == 0) {
        return 0;
    }
    return errno;
}

}  // namespace

bool are_on_different_disks(const char *one, const char *other) noexcept {
    struct stat one_status {};
    struct stat other_status {};
    return stat(one, &one_status) == 0 && stat(other, &other_status) == 0 &&
           one_status.st_dev != other_status.st_dev;
}

std::string followed_dir(const char *staging_dir) {
    char resolved[PATH_MAX];  // one directory may have several names
    const char *directory = realpath(staging_dir, resolved);
    return std::string(directory != nullptr ? directory : staging_dir) + "/followed";
}

call_file_result_t call_file_write(const char *path, std::string_view content) noexcept {
    return write_with(O_TRUNC, path, content);
}

call_file_result_t call_file_stage(staged_call_t *call, std::string_view content) noexcept {
    staged_file_t staged(call->staging_dir, content);
    if (!staged.is_complete() && !cannot_be_staged(staged, *call)) {
        copy_text(call->path, staged.path());
        return {call_file_t::NOT_WRITTEN, staged.error()};
    }
    while (next_path(call)) {
        if (staged.is_complete() && staged.rename_to(call->path)) {
            return {call_file_t::WRITTEN, 0};
        }
        if (staged.is_complete() && staged.error() == EEXIST) {
            continue;
        }
        if (!cannot_be_staged(staged, *call)) {
            return {call_file_t::NOT_WRITTEN, staged.error()};
        }
        const call_file_result_t direct = write_with(O_EXCL, call->path, content);
        if (direct.outcome != call_file_t::NOT_OPENED || direct.error != EEXIST) {
            call->staging_error = staged.error();
            return direct;
        }
    }
    return {call_file_t::NOT_OPENED, ENAMETOOLONG};
}

call_file_result_t call_file_follow(staged_call_t *call, std::string_view settings,
                                    std::string_view comments) noexcept {
    const std::string directory = followed_dir(call->staging_dir);
    while (next_path(call)) {
        const char *name = call->path + strlen(call->spool_dir) + 1;
        std::string content(settings);
        content.append("Archive: yes\r\nSetVar: VESPERD_CALL=").append(name).append("\r\n");
        staged_file_t staged(call->staging_dir, content.append(comments));
        if (!staged.is_complete()) {
            call->follow_error = staged.error();
            break;
        }
        staged.open_to_all();
        call->follow_error = link_followed(staged.path(), directory, name);
        if (call->follow_error == EEXIST) {
            continue;
        }
        if (call->follow_error != 0) {
            break;
        }
        if (staged.rename_to(call->path)) {
            call->is_followed = true;
            call->size = content.size();
            return {call_file_t::WRITTEN, 0};
        }
        unlink((directory + "/" + name).c_str());
        if (staged.error() != EEXIST) {
            call->follow_error = staged.error();
            break;
        }
    }
    return call_file_stage(call, settings);
}

bool call_file_finish(const char *staging_dir, const char *spool_dir,
                      const std::string &name) noexcept {
    const std::string link = followed_dir(staging_dir) + "/" + name;
    struct stat followed {};
    if (lstat(link.c_str(), &followed) != 0 || followed.st_nlink < 2) {
        return false;
    }
    bool is_finished = false;
    visit_staged(staging_dir, [&](const std::string &path, const unique_fd_t &file) {
        struct stat staged {};
        const bool is_it = fstat(file.get(), &staged) == 0 && staged.st_ino == followed.st_ino &&
                           staged.st_dev == followed.st_dev;
        is_finished |= is_it && renameat2(AT_FDCWD, path.c_str(), AT_FDCWD,
                                          (std::string(spool_dir) + "/" + name).c_str(),
                                          RENAME_NOREPLACE) == 0;
    });
    return is_finished;
}

void call_file_clean(const char *staging_dir) noexcept {
    visit_staged(staging_dir,
                 [](const std::string &path, const unique_fd_t &) { unlink(path.c_str()); });
}
