#include "command.h"

#include <fcntl.h>
#include <paths.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int NO_SHELL = 127;

// How a shell is started.
class shell_start_t {
  public:
    shell_start_t() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, _PATH_DEVNULL, O_RDONLY, 0);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID);
    }
    ~shell_start_t() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    shell_start_t(const shell_start_t &) = delete;
    shell_start_t &operator=(const shell_start_t &) = delete;

    // Returns 0 or the number of the error.
    int start(const char *line, pid_t *shell) const {
        const char *const arguments[] = {"sh", "-c", "--", line, nullptr};
        return posix_spawn(shell, _PATH_BSHELL, &actions_, &attributes_,
                           const_cast<char *const *>(arguments), environ);
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

int exit_status_of(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int command_run(const char *line) noexcept {
    pid_t shell = 0;
    const int error = shell_start_t().start(line, &shell);
    if (error != 0) {
        return error == ENOENT || error == EACCES ? NO_SHELL : -1;
    }
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(shell, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == shell ? exit_status_of(status) : -1;
}
