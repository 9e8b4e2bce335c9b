#include "daemon.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fd.h"

namespace {

constexpr pid_t INIT_PROCESS = 1;
constexpr long DEFAULT_PATH_LIMIT = 4096;
constexpr long DEFAULT_DESCRIPTOR_LIMIT = 1024;
constexpr size_t RELATIVE_EXTRA = sizeof "/var/run/.pid";  // the longer directory counts for both
constexpr int PID_TEXT_SIZE = 32;

struct {
    pthread_mutex_t lock;
    char *pidfile;  // heap text, null when no pidfile is held
} held = {PTHREAD_MUTEX_INITIALIZER, nullptr};

// Both return 0, or -1 with errno set.
int lock_module() {
    errno = pthread_mutex_lock(&held.lock);
    return errno == 0 ? 0 : -1;
}

int unlock_module() {
    errno = pthread_mutex_unlock(&held.lock);
    return errno == 0 ? 0 : -1;
}

size_t path_limit() {
    const long limit = pathconf("/", _PC_PATH_MAX);
    return static_cast<size_t>(limit < 0 ? DEFAULT_PATH_LIMIT : limit + 2);
}

unsigned descriptor_limit() {
    const long limit = sysconf(_SC_OPEN_MAX);
    return static_cast<unsigned>(limit < 0 ? DEFAULT_DESCRIPTOR_LIMIT : limit);
}

bool is_socket(int fd) {
    int type = 0;
    socklen_t size = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

// One call in place of what may be a million.
void close_from(unsigned first) {
    const unsigned last = descriptor_limit() - 1;
    if (close_range(first, last, 0) != 0) {
        for (unsigned fd = first; fd <= last; fd++) {
            close(static_cast<int>(fd));
        }
    }
}

int open_null_device() {
    const int null = open("/dev/null", O_RDWR);
    if (null < 0) {
        return -1;
    }
    if (null != STDIN_FILENO) {
        if (dup2(null, STDIN_FILENO) < 0) {
            return -1;
        }
        close(null);
    }
    return dup2(STDIN_FILENO, STDOUT_FILENO) < 0 || dup2(STDIN_FILENO, STDERR_FILENO) < 0 ? -1 : 0;
}

// Returns -1 when the fork failed; the parent exits.
int detach() {
    const pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child > 0) {
        exit(0);
    }
    setsid();
    return 0;
}

void forget_pidfile() {
    free(held.pidfile);
    held.pidfile = nullptr;
}

void remove_pidfile() {
    if (held.pidfile != nullptr) {
        unlink(held.pidfile);
        forget_pidfile();
    }
}

int write_process_id(int fd) {
    char text[PID_TEXT_SIZE];
    const int length = snprintf(text, sizeof text, "%d\n", getpid());
    errno = ENOSPC;  // a short write sets no error code
    return write(fd, text, static_cast<size_t>(length)) == length ? 0 : -1;
}

// With the module locked.
int claim_pidfile(const char *name) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (daemon_construct_pidfile(name, &held.pidfile) != 0) {
        return -1;
    }
    unique_fd_t file(daemon_lock_pidfile(held.pidfile));
    if (!file) {
        forget_pidfile();  // the file is another instance's
        return -1;
    }
    if (write_process_id(file.get()) != 0) {
        remove_pidfile();
        return -1;
    }
    file.release();  // stays open: it carries the lock
    return 0;
}

}  // namespace

int daemon_init(const char *name) noexcept {
    const bool from_inetd = is_socket(STDIN_FILENO);
    if (getppid() != INIT_PROCESS && !from_inetd && detach() != 0) {
        return -1;
    }
    if (chdir("/") != 0) {
        return -1;
    }
    umask(0);
    if (from_inetd) {
        close_from(STDERR_FILENO + 1);
    } else {
        close_from(STDIN_FILENO);
        if (open_null_device() != 0) {
            return -1;
        }
    }
    return name != nullptr ? daemon_pidfile(name) : 0;
}

int daemon_close() noexcept {
    if (lock_module() != 0) {
        return -1;
    }
    remove_pidfile();
    return unlock_module();
}

int daemon_pidfile(const char *name) noexcept {
    if (lock_module() != 0) {
        return -1;
    }
    const int result = claim_pidfile(name);
    const int error = errno;
    unlock_module();
    errno = error;
    return result;
}

int daemon_construct_pidfile(const char *name, char **pidfile) noexcept {
    const size_t limit = path_limit();
    const bool is_absolute = name[0] == '/';
    if (strlen(name) + (is_absolute ? 1 : RELATIVE_EXTRA) > limit) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (*pidfile == nullptr) {
        *pidfile = static_cast<char *>(malloc(limit));
        if (*pidfile == nullptr) {
            return -1;
        }
    }
    if (is_absolute) {
        snprintf(*pidfile, limit, "%s", name);
    } else {
        snprintf(*pidfile, limit, "%s%c%s%s", getuid() == 0 ? "/var/run" : "/tmp", '/', name,
                 ".pid");
    }
    return 0;
}

int daemon_lock_pidfile(const char *pidfile) noexcept {
    unique_fd_t file(open(pidfile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file && errno == EEXIST) {
        file.reset(open(pidfile, O_RDWR | O_CLOEXEC));
    }
    struct flock whole_file {};
    whole_file.l_type = F_WRLCK;
    whole_file.l_whence = SEEK_SET;
    if (!file || fcntl(file.get(), F_SETLK, &whole_file) != 0) {
        return -1;
    }
    return file.release();
}
