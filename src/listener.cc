#include "listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "clock.h"
#include "link.h"
#include "service_log.h"
#include "stats.h"

namespace {

constexpr int WAITING_CONNECTIONS = SOMAXCONN;  // while a command runs, strangers queue up too
constexpr int MOST_REFUSED_AT_ONCE = 32;
constexpr size_t MOST_LOGGED_ADDRESSES = 64;  // per load
constexpr long FAILED_ACCEPT_PAUSE_US = 100'000;

sockaddr_in wanted_address(const pager_t *pager) {
    sockaddr_in where{};
    read_tables([&] {
        where.sin_port = htons(static_cast<uint16_t>(load_shared(pager->port)));
        where.sin_addr.s_addr = load_shared(pager->listen_address);
    });
    where.sin_family = AF_INET;
    return where;
}

bool is_same(const sockaddr_in &a, const sockaddr_in &b) {
    return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

bool is_peer(const pager_t *pager, in_addr from) {
    bool found = false;
    read_tables([&] {
        found =
            std::any_of(std::begin(pager->peers), std::end(pager->peers),
                        [&](const in_addr_t &peer) { return load_shared(peer) == from.s_addr; });
    });
    return found && from.s_addr != 0;
}

// Leaves nothing behind that the system would have to keep for a minute.
void close_at_once(int sock) {
    const linger none{1, 0};
    setsockopt(sock, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close(sock);
}

}  // namespace

bool listener_t::open(const pager_t *pager) {
    const sockaddr_in wanted = wanted_address(pager);
    if (sock_ && is_same(where_, wanted)) {
        return true;
    }
    sock_.reset();
    unique_fd_t sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!sock || setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(sock.get(), reinterpret_cast<const sockaddr *>(&wanted), sizeof wanted) != 0 ||
        listen(sock.get(), WAITING_CONNECTIONS) != 0) {
        LOG_SERVICE(LEVEL_ERROR, "Unable to listen on %s:%u for pager %s: %s. Trying again\n",
                    inet_ntoa(wanted.sin_addr), static_cast<unsigned>(ntohs(wanted.sin_port)),
                    table_text(pager->name).text, strerror(errno));
        return false;
    }
    sock_ = std::move(sock);
    where_ = wanted;
    return true;
}

int listener_t::take(const pager_t *pager) {
    for (int refused = 0; refused < MOST_REFUSED_AT_ONCE; refused++) {
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const int sock = accept4(fd(), reinterpret_cast<sockaddr *>(&from), &size, SOCK_CLOEXEC);
        if (sock < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                pause_us(FAILED_ACCEPT_PAUSE_US);  // the connection goes on waiting
            }
            return -1;
        }
        if (!is_peer(pager, from.sin_addr)) {
            refuse(sock, pager, from.sin_addr);
        } else if (link_prepare(sock)) {
            return sock;
        } else {
            LOG_SERVICE(LEVEL_ERROR, "No descriptor for a connection of pager %s\n",
                        table_text(pager->name).text);
            close_at_once(sock);
        }
    }
    return -1;
}

void listener_t::refuse(int sock, const pager_t *pager, in_addr from) {
    close_at_once(sock);
    my_stats().refused.add();
    const unsigned load = table_generation.number();
    if (load_ != load) {
        load_ = load;
        refused_.clear();
    }
    if (refused_.size() < MOST_LOGGED_ADDRESSES && refused_.insert(from.s_addr).second) {
        char address[INET_ADDRSTRLEN];
        LOG_SERVICE(LEVEL_WARNING,
                    "A connection of %s for pager %s was closed: only %s may connect\n",
                    inet_ntop(AF_INET, &from, address, sizeof address),
                    table_text(pager->name).text, table_text(pager->host).text);
    }
}
