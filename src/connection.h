// A service thread's connection to the converter of its pager.
//
// The thread knows it by `sock`. A record whose `socket` differs has been loaded again, and what became of
// the connection says nothing about the new one: it is abandoned, and stays open unused for as long as
// descriptors allow; with `live_reload` it is closed.
#pragma once

#include <cstdint>
#include <vector>

#include "knock.h"
#include "listener.h"
#include "proto.h"
#include "tables.h"

struct connection_t {
    pager_t *pager;
    int sock;  // -1: none
    std::vector<int> abandoned = {};
    listener_t listener = {};      // of a pager that listens
    knock_t knock = {};            // what the listener's connections are for a wait on the line
    int next = -1;                 // a connection that takes the place of `sock`
    unsigned next_load = 0;        // the pager's `load` in which it may
    int64_t waiting_since_us = 0;  // for its paging system; 0: not waiting
    knock_t call = {-1, nullptr, nullptr};  // what the loader's calls are for a wait on the line
    uint64_t received_before = 0;           // bytes of the line, when this turn began
    bool is_called = false;                 // and the turn ended for it
};

// Where a pager's converter is, read from its record.
struct endpoint_t {
    char host[sizeof pager_t::host];
    unsigned shown_port;  // in the log: a signed 16-bit number printed as unsigned
    sockaddr_in address;
};
endpoint_t endpoint_of(const pager_t *pager) noexcept;

// Whether the pager asks for a line that comes back whatever happens to it.
bool connection_recovers(const connection_t *connection) noexcept;

// Whether the pager was loaded again since the connection was made.
bool connection_is_reloaded(const connection_t *connection) noexcept;

// Begins a turn: what the loader has called for is done by now, and from here on it is heard while the thread
// waits, which ends the turn unless something has been received in it.
void connection_begin_turn(connection_t *connection) noexcept;

// Whether a wait ended because the pager was loaded again or the loader called, rather than by what became
// of the connection.
bool connection_is_called_away(const connection_t *connection) noexcept;

// Waits three seconds and connects; raises connected, or why it could not. Returns whether there is a
// connection now.
bool connection_open(connection_t *connection) noexcept;

// The same for a pager that listens: waits for its paging system, for a second at most. Raises
// no_response when it has not come for 15 seconds, and general_error where nobody can come. From then on
// the system's next connection takes the place of this one, whenever the thread waits for the line.
bool connection_await(connection_t *connection) noexcept;

// Ends the listening of a pager that does not listen any more.
void connection_stop_listening(connection_t *connection) noexcept;

// Raises an alarm for the connection and closes it.
void connection_drop(connection_t *connection, int alrm) noexcept;

// Leaves the connection of a pager that was loaded again.
void connection_abandon(connection_t *connection) noexcept;

// Closes whatever is open.
void connection_end(connection_t *connection) noexcept;
