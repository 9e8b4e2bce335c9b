// The passive side of the ESPA 4.4.4 link on a TCP stream, and the ASCII line reader.
//
// Both readers take one byte per wait and never read ahead: every byte after a packet or line stays
// in the socket for the next call.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "espa.h"
#include "knock.h"
#include "tables.h"

// Waits up to 15 seconds until `sock` can be read. A signal does not shorten the wait.
// Returns a positive number when it can, 0 when nothing arrived, negative on an error or an
// exceptional condition.
int wait_data(int sock) noexcept;

// Whom wait_data() hears from now on in the calling thread where there is nothing to read; it returns -1 when the wait is given up. Null:
// nobody, as in the beginning.
void hear_while_waiting(const knock_t *knock) noexcept;

// Reads a byte, whatever signals come, and counts it. Returns as read(2) does.
ssize_t read_byte(int sock, char *byte) noexcept;

// The same for as many bytes as there are, up to `size`.
ssize_t read_bytes(int sock, char *bytes, size_t size) noexcept;

// Writes bytes to a line, one write each. Errors are ignored, and bytes that the peer leaves no
// room for are dropped: neither a peer that reset the connection nor one that never reads may hold
// the daemon up.
void write_reply(int sock, std::string_view bytes) noexcept;

constexpr int ESPA_UNEXPECTED = -2;

// What a line may have otherwise than the rest of espa_read_packet() says.
struct espa_options_t {
    // While non-zero, a connection closed in mid-packet is a failure, -1. Null: 0.
    const int *recover_link = nullptr;
    // The caller answers a packet that ended by ETX.
    bool leaves_answer = false;
};

// Reads one link exchange or one data packet and answers it.
//   packet     the caller's buffer, at least maxlen + 2 bytes: a block check character and its
//              terminating zero may lie past maxlen
//   maxlen     bytes offered to the packet
//   polls      count of outstanding requests: up by one for every address and ENQ, down by one for
//              every EOT, never below 0
//   espa_poll  non-zero: a select (address '1') is answered with two ACKs and a poll (address '2')
//              with '2' ENQ US ACK, instead of one ACK each
// Returns
//   -2     the stream does not look like ESPA 4.4.4 (ESPA_UNEXPECTED)
//   -1     the wait or a read failed, or the connection was closed between exchanges
//    0     15 seconds of silence (a packet begun is dropped), or maxlen is not positive
//    1     link traffic was answered; also an empty packet
//   n > 1  a packet. Ended by ETX: n is the index of ETX, followed by the block check character
//          and a zero; it has been acknowledged, whatever its check character. Ended by EOT: n
//          bytes lie between SOH and the ETX stored in the EOT's place. Too long: n is maxlen - 1,
//          and a zero stands at index maxlen
// A connection closed in mid-packet is not noticed: the reader goes on reading, once a second.
int espa_read_packet(int sock, char *packet, int maxlen, int *polls, int espa_poll,
                     const espa_options_t &options = {}) noexcept;

// Reads one line, ended by CR or LF.
//   packet  the caller's buffer of maxlen bytes; receives the line, with a zero in place of its end
//   polls   not used, may be null
// Returns
//   -1     the wait or a read failed, or the connection was closed
//    0     15 seconds of silence (a line begun is dropped), an empty line, or no positive maxlen
//   n      the length of the line, at most maxlen - 1; the rest of a longer line is the next line
int ascii_read_packet(int sock, char *packet, int maxlen, int *polls) noexcept;
