#include "link.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "clock.h"
#include "fd.h"

namespace {

// A converter that vanished without a word is noticed after two minutes.
constexpr int KEEPALIVE_IDLE_SECONDS = 60;
constexpr int KEEPALIVE_INTERVAL_SECONDS = 15;
constexpr int KEEPALIVE_PROBES = 4;

// An attempt that was begun goes on by itself; returns whether it succeeded in the end.
bool finish_connect(int sock, int seconds, const knock_t *heard) {
    pollfd waiting[] = {{sock, POLLOUT, 0}, {heard != nullptr ? heard->fd : -1, POLLIN, 0}};
    const int64_t until_us = microseconds_passed() + seconds * int64_t{1'000'000};
    for (;;) {
        const int64_t left_us = std::max<int64_t>(until_us - microseconds_passed(), 0);
        const int ready = poll(waiting, 2, seconds < 0 ? -1 : static_cast<int>(left_us / 1000) + 1);
        if (ready > 0 && waiting[0].revents != 0) {
            break;
        }
        const bool is_over = ready == 0 || (ready < 0 && errno != EINTR);
        if (is_over || (ready > 0 && heard->heed(heard->context))) {
            return false;
        }
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

}  // namespace

int link_socket() noexcept {
    unique_fd_t sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return link_prepare(sock.get()) ? sock.release() : -1;
}

bool link_prepare(int sock) noexcept {
    if (sock < 0 || sock >= FD_SETSIZE) {
        return false;
    }
    const auto set = [sock](int level, int name, int value) {
        setsockopt(sock, level, name, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE_SECONDS);
    set(IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL_SECONDS);
    set(IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_PROBES);
    return true;
}

bool link_connect(int sock, const sockaddr_in &address, int seconds,
                  const knock_t *heard) noexcept {
    const auto set_blocking = [sock](bool is_blocking) {
        const int flags = fcntl(sock, F_GETFL);
        fcntl(sock, F_SETFL, is_blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
    };
    const bool blocks = seconds < 0 && heard == nullptr;
    if (!blocks) {
        set_blocking(false);
    }
    const bool connected =
        connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        ((errno == EINTR || errno == EINPROGRESS) && finish_connect(sock, seconds, heard));
    if (!blocks) {
        set_blocking(true);
    }
    return connected;
}

bool link_is_short_of_descriptors(int sock) noexcept {
    const long limit = sysconf(_SC_OPEN_MAX);
    return sock < 0 || sock >= (limit < 0 ? FD_SETSIZE : std::min<long>(limit, FD_SETSIZE)) / 2;
}
