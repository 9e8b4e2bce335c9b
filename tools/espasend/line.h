// The two ways to a line: waiting as a serial-to-network converter would, or opening a serial
// device.
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

// Opens a serial device or pseudo-terminal in raw mode: 8 data bits, no parity, one stop bit.
//   baud  1200 to 115200
// Returns no descriptor, with the reason in `error`, on failure.
unique_fd_t open_serial(const std::string &path, int baud, std::string *error);
