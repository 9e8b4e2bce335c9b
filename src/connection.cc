#include "connection.h"

#include <poll.h>
#include <unistd.h>

#include <utility>

#include "action.h"
#include "clock.h"
#include "link.h"
#include "roster.h"
#include "service_log.h"
#include "stats.h"
#include "text.h"

namespace {

constexpr long CONNECT_PAUSE_US = 3'000'000;
constexpr long SOCKET_FAILURE_PAUSE_US = 1'000'000;
constexpr int CONNECT_LIMIT_SECONDS = 10;  // with recover_link

constexpr int KNOCK_WAIT_MS = 1000;
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

// A call of the loader ends the wait too.
bool has_knock(const connection_t &connection) {
    pollfd waiting[] = {{connection.listener.fd(), POLLIN, 0},
                        {roster_fd(connection.pager), POLLIN, 0}};
    return poll(waiting, 2, KNOCK_WAIT_MS) > 0 && waiting[0].revents != 0;
}

// Whether the loader wants the line elsewhere, or not at all any more.
bool heed_farewell(void *context) {
    const auto *connection = static_cast<const connection_t *>(context);
    if (connection->call.fd < 0) {
        return false;
    }
    roster_hear(connection->pager);
    return connection_is_reloaded(connection) || roster_is_dismissed(connection->pager);
}

// A change that lets the line be holds from the next message on: a turn that has not begun to read one ends.
bool heed_call(void *context) {
    auto *connection = static_cast<connection_t *>(context);
    connection->is_called =
        heed_farewell(connection) || my_stats().received_bytes.get() == connection->received_before;
    return connection->is_called;
}

// The paging system connects while its line is silent: whoever lost his power has closed nothing.
bool heed_knock(void *context) {
    auto *connection = static_cast<connection_t *>(context);
    const unsigned load = load_shared(connection->pager->load);
    if (connection_is_reloaded(connection)) {
        return true;  // it may be another's by now, or at another port
    }
    const int sock = connection->listener.take(connection->pager);
    if (sock < 0) {
        return false;
    }
    LOG_SERVICE(LEVEL_NOTICE, "The paging system of pager %s connected again\n",
                table_text(connection->pager->name).text);
    connection->next = sock;
    connection->next_load = load;
    return true;
}

void hear_loader_and_knocks(connection_t *connection) {
    const knock_t *call = connection->call.fd >= 0 ? &connection->call : nullptr;
    connection->knock = {connection->listener.fd(), heed_knock, connection, call};
    hear_while_waiting(connection->knock.fd >= 0 ? &connection->knock : call);
}

// The connection that came while there was another one, if it still may.
int take_next(connection_t *connection) {
    const int next = std::exchange(connection->next, -1);
    if (next >= 0 && connection->next_load != load_shared(connection->pager->load)) {
        close(next);
        return -1;
    }
    return next;
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

void connection_begin_turn(connection_t *connection) noexcept {
    connection->is_called = false;
    connection->received_before = my_stats().received_bytes.get();
    if (connection->call.fd != roster_fd(connection->pager)) {
        connection->call = {roster_fd(connection->pager), heed_call, connection};
        hear_loader_and_knocks(connection);
    }
    if (connection->call.fd >= 0) {
        roster_hear(connection->pager);
    }
}

bool connection_is_called_away(const connection_t *connection) noexcept {
    return connection->is_called || connection_is_reloaded(connection);
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
    const knock_t leave{connection->call.fd, heed_farewell, connection};
    if (!link_connect(
            connection->sock, to.address,
            connection_recovers(connection) ? CONNECT_LIMIT_SECONDS : AS_LONG_AS_THE_SYSTEM_TRIES,
            leave.fd >= 0 ? &leave : nullptr)) {
        if (heed_farewell(connection)) {
            close_socket(connection);
            return false;
        }
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
    const unsigned load = load_shared(pager->load);
    if (!listener->open(pager)) {
        connection_stop_listening(connection);
        enter_state(line_state_t::CONNECTING);
        call_service_action(pager, ALARM_GENERAL_ERROR);
        pause_us(CONNECT_PAUSE_US);
        return false;
    }
    hear_loader_and_knocks(connection);
    enter_state(line_state_t::WAITING);
    int sock = take_next(connection);
    if (sock < 0 && has_knock(*connection) && load_shared(pager->load) == load) {
        sock = listener->take(pager);
    }
    if (sock < 0) {
        report_nobody(connection);
        return false;
    }
    set_socket(connection, sock);
    if (load_shared(pager->load) != load) {
        close_socket(connection);  // perhaps of a host that may not connect any more
        return false;
    }
    connection->waiting_since_us = 0;
    begin_connection(connection);
    return true;
}

void connection_stop_listening(connection_t *connection) noexcept {
    connection->listener.close();
    hear_loader_and_knocks(connection);
    connection->waiting_since_us = 0;
    if (connection->next >= 0) {
        close(std::exchange(connection->next, -1));
    }
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
    if (connection_recovers(connection) || connection->listener.fd() >= 0 || roster_is_live()) {
        close_abandoned(connection);
    }
}

void connection_end(connection_t *connection) noexcept {
    connection_stop_listening(connection);
    close_abandoned(connection);
    if (connection->sock >= 0) {
        close(connection->sock);
    }
}
