#include "station_reader.h"

#include <cstring>
#include <string>

#include "clock.h"
#include "logger.h"
#include "proto.h"
#include "report.h"
#include "stats.h"

namespace {

using heard_t = station_t::heard_t;

void note_noise(station_line_t *line, char byte, uint64_t noise_before) {
    const uint64_t dropped = line->station.noise_bytes() - noise_before;
    if (dropped == 0) {
        return;
    }
    my_stats().noise_bytes.add(dropped);
    if (line->noise_warning.is_first()) {
        LOG_AS(LEVEL_NOTICE, "station_read_packet",
               "Bytes that belong to nothing on the line of pager %s, the last of them %.02x: "
               "dropped\n",
               table_text(line->pager->name).text, shown_byte(byte));
    }
}

void note_report(station_line_t *line, heard_t heard, const std::string &report) {
    if (heard == heard_t::REPORTED) {
        LOG_AS(LEVEL_EVENT, "station_read_packet", "A report was acknowledged\n");
        drop_report(line->pager, report);
    } else if (heard == heard_t::REFUSED) {
        LOG_AS(LEVEL_WARNING, "station_read_packet", "A report was refused, it waits for a poll\n");
    }
}

// Returns 1 with a byte of the line, or as station_read_packet(). Reads what there is at once: the
// procedure tells apart what belongs together, whoever reads it.
int next_byte(station_line_t *line, int sock, char *byte) {
    if (line->next == line->end) {
        const int ready = wait_data(sock);
        if (ready <= 0) {
            return ready < 0 ? -1 : 0;
        }
        const ssize_t got = read_bytes(sock, line->bytes, sizeof line->bytes);
        if (got <= 0) {
            return -1;
        }
        line->next = 0;
        line->end = static_cast<size_t>(got);
    }
    *byte = line->bytes[line->next++];
    return 1;
}

}  // namespace

station_line_t::station_line_t(const pager_t *owner) noexcept
    : pager(owner),
      own(load_shared(owner->espa_address)),
      control(load_shared(owner->espa_control)),
      station(own, control) {}

bool station_line_t::is_current() const noexcept {
    return own == load_shared(pager->espa_address) && control == load_shared(pager->espa_control);
}

int station_read_packet(station_line_t *line, int sock, char *packet) noexcept {
    station_t &station = line->station;
    for (;;) {
        char byte = 0;
        const int result = next_byte(line, sock, &byte);
        if (result <= 0) {
            return result;
        }
        LOG(LEVEL_DEBUG, "Read %.02x\n", shown_byte(byte));
        if (station.is_polled_by(byte)) {
            offer_report(line->pager);
        }
        const std::string report = next_report(line->pager);
        const uint64_t noise_before = station.noise_bytes();
        std::string reply;
        const heard_t heard = station.take(byte, microseconds_passed(), report, &reply);
        write_reply(sock, reply);
        note_noise(line, byte, noise_before);
        note_report(line, heard, report);
        if (heard == heard_t::REQUEST) {
            LOG(LEVEL_DEBUG, "Got ENQ request address %c\n", station.requested());
            count_request(station.requested());
        }
        if (heard == heard_t::PACKET) {
            const std::string_view whole = station.packet();
            packet[whole.copy(packet, PACKET_BUFFER_SIZE - 1)] = '\0';
            return static_cast<int>(whole.size()) - 2;
        }
        if (station.is_in_packet()) {
            enter_state(line_state_t::RECEIVING);
        } else {
            return 1;
        }
    }
}
