// The ways to a line: waiting as a serial-to-network converter would, connecting as a paging system does
// that connects by itself, or opening a serial device.
#pragma once

#include <string>

#include "fd.h"

// Opens a TCP socket that waits for connections.
//   address  IPv4 address to bind, in dotted form
//   port     0 picks a free port
// Returns no descriptor, with the reason in `error`, on failure.
unique_fd_t listen_on(const std::string &address, int port, std::string *error);

// The port that a socket is bound to.
int bound_port(int sock);

// Waits for a connection for up to `wait_seconds`; a negative number waits for ever. Returns no
// descriptor, with the reason in `error`, when nobody connected.
unique_fd_t accept_within(int listener, int wait_seconds, std::string *error);

// Connects to "HOST:PORT", trying again for up to `wait_seconds`. Returns no descriptor, with the reason
// in `error`, on failure.
unique_fd_t connect_to(const std::string &where, int wait_seconds, std::string *error);

struct serial_settings_t {
    int baud = 9600;              // 1200 to 115200
    int bits = 8;                 // 7 or 8
    std::string parity = "none";  // "none", "even" or "odd"
    int stop = 1;                 // 1 or 2
};

// Opens a serial device or pseudo-terminal in raw mode. Returns no descriptor, with the reason in
// `error`, on failure.
unique_fd_t open_serial(const std::string &path, const serial_settings_t &settings,
                        std::string *error);
