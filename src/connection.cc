#include "connection.h"

#include <poll.h>
#include <unistd.h>

#include "action.h"
#include "clock.h"
#include "link.h"
#include "service_log.h"
#include "stats.h"
#include "text.h"

namespace {

constexpr long CONNECT_PAUSE_US = 3'000'000;
constexpr long SOCKET_FAILURE_PAUSE_US = 1'000'000;
constexpr int CONNECT_LIMIT_SECONDS = 10;  // with recover_link

constexpr int64_t SILENCE_US = 15'000'000;  // of a line that is connected
constexpr int64_t NOBODY_LIMIT_US = 15'000'000;

void set_socket(connection_t *connection, int sock) {
    connection->sock = sock;
    store_shared(&connection->pager->socket, sock);
}

void close_socket(connection_t *connection) {
    close(connection->sock);
    set_socket(connection, -1);
}

void close_abandoned(connection_t *connection) {
    for (const int sock : connection->abandoned) {
        close(sock);
    }
    connection->abandoned.clear();
}

void begin_connection(const connection_t *connection) {
    store_shared(&connection->pager->last_packet, seconds_now());
    my_stats().connects.add();
    enter_state(line_state_t::IDLE);
    call_service_action(connection->pager, ALARM_CONNECTED);
}

// Waits for one of two descriptors, of which the second may be -1. Returns whether the first is ready.
bool wait_for(int first, int second, int milliseconds) {
    pollfd waiting[] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
    return poll(waiting, 2, milliseconds) > 0 && waiting[0].revents != 0;
}

void report_nobody(connection_t *connection) {
    const int64_t now = microseconds_passed();
    if (connection->waiting_since_us == 0) {
        connection->waiting_since_us = now;
    }
    if (now - connection->waiting_since_us >= NOBODY_LIMIT_US) {
        const endpoint_t of = endpoint_of(connection->pager);
        LOG_SERVICE(LEVEL_ERROR, "No connection of %s on port %u for 15 seconds\n", of.host,
                    static_cast<unsigned>(static_cast<uint16_t>(of.shown_port)));
        call_service_action(connection->pager, ALARM_NO_RESPONSE);
        connection->waiting_since_us = now;
    }
}

}  // namespace

endpoint_t endpoint_of(const pager_t *pager) noexcept {
    endpoint_t endpoint{};
    read_tables([&] {
        copy_text(endpoint.host, text_copy_t(pager->host).text);
        endpoint.shown_port = static_cast<unsigned>(load_shared(pager->port));
        copy_shared(&endpoint.address, pager->sin);
    });
    endpoint.address.sin_family = AF_INET;  // an emptied record has none: it means "disconnect"
    return endpoint;
}

bool connection_recovers(const connection_t *connection) noexcept {
    return load_shared(connection->pager->recover_link) != 0 ||
           load_shared(connection->pager->espa_address) != '\0';
}

bool connection_is_reloaded(const connection_t *connection) noexcept {
    return load_shared(connection->pager->socket) != connection->sock;
}

bool connection_open(connection_t *connection) noexcept {
    pager_t *pager = connection->pager;
    enter_state(line_state_t::CONNECTING);
    set_socket(connection, link_socket());
    if (link_is_short_of_descriptors(connection->sock)) {
        close_abandoned(connection);
    }
    pause_us(CONNECT_PAUSE_US);
    const endpoint_t to = endpoint_of(pager);
    if (connection->sock < 0) {
        call_service_action(pager, ALARM_GENERAL_ERROR);
        LOG_SERVICE(LEVEL_ERROR, "Error connecting to %s:%u\n", to.host, to.shown_port);
        pause_us(SOCKET_FAILURE_PAUSE_US);
        return false;
    }
    LOG_SERVICE(LEVEL_VERBOSE, "Trying to connect %s:%u\n", to.host, to.shown_port);
    if (!link_connect(connection->sock, to.address,
                      connection_recovers(connection) ? CONNECT_LIMIT_SECONDS
                                                      : AS_LONG_AS_THE_SYSTEM_TRIES)) {
        LOG_SERVICE(LEVEL_ERROR, "Error connecting to %s:%u\n", to.host, to.shown_port);
        call_service_action(pager, ALARM_NO_RESPONSE);
        close_socket(connection);
        pause_us(CONNECT_PAUSE_US);
        return false;
    }
    if (connection_is_reloaded(connection)) {
        close_socket(connection);  // perhaps connected to where the pager no longer is
        return false;
    }
    begin_connection(connection);
    return true;
}

bool connection_await(connection_t *connection) noexcept {
    pager_t *pager = connection->pager;
    listener_t *listener = &connection->listener;
    if (!listener->open(pager)) {
        enter_state(line_state_t::CONNECTING);
        call_service_action(pager, ALARM_GENERAL_ERROR);
        pause_us(CONNECT_PAUSE_US);
        return false;
    }
    enter_state(line_state_t::WAITING);
    const unsigned load = table_generation.number();
    const int sock = wait_for(listener->fd(), -1, 1000) ? listener->take(pager) : -1;
    if (sock < 0) {
        report_nobody(connection);
        return false;
    }
    set_socket(connection, sock);
    if (table_generation.number() != load) {
        close_socket(connection);  // perhaps of a host that may not connect any more
        return false;
    }
    connection->waiting_since_us = 0;
    begin_connection(connection);
    return true;
}

bool connection_has_data(connection_t *connection) noexcept {
    const int64_t until = microseconds_passed() + SILENCE_US;
    listener_t *listener = &connection->listener;
    while (!connection_is_reloaded(connection) && microseconds_passed() < until) {
        if (wait_for(connection->sock, listener->fd(), 1000)) {
            return true;
        }
        const unsigned load = table_generation.number();
        const int sock = listener->take(connection->pager);
        if (sock < 0) {
            continue;
        }
        LOG_SERVICE(LEVEL_NOTICE, "The paging system of pager %s connected again\n",
                    table_text(connection->pager->name).text);
        connection_drop(connection, ALARM_CONNECTION_LOST);
        set_socket(connection, sock);
        if (table_generation.number() != load) {
            close_socket(connection);
            return false;
        }
        begin_connection(connection);
        return false;
    }
    return false;
}

void connection_drop(connection_t *connection, int alrm) noexcept {
    call_service_action(connection->pager, alrm);
    close_socket(connection);
}

void connection_abandon(connection_t *connection) noexcept {
    if (connection->sock >= 0) {
        connection->abandoned.push_back(connection->sock);
    }
    connection->sock = -1;
    if (connection_recovers(connection)) {
        close_abandoned(connection);
    }
}
