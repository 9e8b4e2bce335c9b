// A line that follows the link procedure, read as one of its stations.
#pragma once

#include "station.h"
#include "tables.h"

// What a service thread keeps of its line's station.
struct station_line_t {
    explicit station_line_t(const pager_t *owner) noexcept;

    // What was heard on a connection says nothing about the next.
    void forget() {
        station = station_t(own, control);
        next = end = 0;
    }

    // Whether it is the station that the pager asks for.
    bool is_current() const noexcept;

    const pager_t *pager;
    char own, control;
    station_t station;
    once_per_load_t noise_warning = {};
    char bytes[256] = {};  // of the line; those from `next` to `end` are not looked at yet
    size_t next = 0, end = 0;
};

// Reads a line until something has come of it, and answers all but packets.
//   packet  receives a packet, SOH to block check character and a zero; PACKET_BUFFER_SIZE bytes
// Returns
//   -1     the wait or a read failed, or the connection was closed
//    0     15 seconds of silence
//    1     link traffic, answered where it is for this station
//   n > 1  the index of a packet's ETX, or of its last byte where its ETX did not fit; it waits for its
//          answer, see station_t::answer()
int station_read_packet(station_line_t *line, int sock, char *packet) noexcept;
