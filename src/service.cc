#include "service.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "action.h"
#include "answer.h"
#include "charset.h"
#include "clock.h"
#include "connection.h"
#include "espa.h"
#include "message.h"
#include "proto.h"
#include "roster.h"
#include "service_log.h"
#include "station_reader.h"
#include "stats.h"

std::atomic<int> doexit;

namespace {

constexpr long ASCII_MESSAGE_PAUSE_US = 10'000;
constexpr int SILENCE_LIMIT_SECONDS = 10;  // on an ESPA line; read_timeout is for ASCII lines
constexpr char CALL_HEADER = '1';
constexpr int HIGH_BIT = 0x80;

// What a service thread keeps of its line.
struct line_t {
    connection_t connection;
    char buffer[PACKET_BUFFER_SIZE];
    charset_t charset;
    std::optional<station_line_t> station;  // while the pager has an espa_address
};

bool is_silent_for_more_than(const pager_t *pager, int seconds) {
    return seconds_between(load_shared(pager->last_packet), seconds_now()) > seconds;
}

// Every second byte of a packet, up to the first of them that is NUL or ETX.
void dump_packet(const line_t *line) {
    for (size_t i = 0; i < sizeof line->buffer; i += 2) {
        const char byte = line->buffer[i];
        if (byte == '\0' || byte == ETX) {
            return;
        }
        LOG_SERVICE(LEVEL_DEBUG, "0x%.02x\n", shown_byte(byte));
    }
}

// What came from the line as rules, templates and log see it.
std::string decoded(line_t *line, const char *bytes) {
    line->charset.open(table_text(line->connection.pager->charset).text);
    return line->charset.to_utf8(bytes);
}

void handle_call_record(line_t *line, const espa_record_t &record, owed_answer_t *answer) {
    const std::string message = decoded(line, record.display_message);
    const std::string address = decoded(line, record.call_address);
    LOG_SERVICE(LEVEL_VERBOSE, "\tSend message '%s' to '%s'\n", message.c_str(), address.c_str());
    process_message(line->connection.pager, ALARM_MESSAGE, address.c_str(), message.c_str(), answer,
                    {{"", record.priority_text, record.type_text, record.beep_text,
                      record.transmissions_text}});
}

void handle_espa_packet(line_t *line, owed_answer_t *answer) {
    pager_t *pager = line->connection.pager;
    my_stats().packets.add();
    dump_packet(line);
    store_shared(&pager->last_packet, seconds_now());
    if (load_shared(pager->no_check_bcc) != 0) {
        LOG_SERVICE(LEVEL_EVENT, "ESPA packet BCC check is OFF");
    } else if (checkBCC(line->buffer, PACKET_SIZE) == 0) {
        answer->give(verdict_t::GARBLED);
        my_stats().check_errors.add();
        call_service_action(pager, ALARM_TRANSMISSION_ERROR);
        LOG_SERVICE(LEVEL_ERROR, "ESPA packet BCC is WRONG. won't process\n");
        return;
    } else {
        LOG_SERVICE(LEVEL_EVENT, "ESPA packet BCC is OK\n");
    }
    espa_p packet{};
    parse_espa_packet(&packet, line->buffer);
    LOG_SERVICE(LEVEL_VERBOSE, "Got ESPA packet of type %x\n", shown_byte(packet.header_type));
    if (packet.header_type == CALL_HEADER) {
        handle_call_record(line, packet.record, answer);
    } else {
        answer->give(verdict_t::TAKEN);
    }
}

void swap_to_ascii(line_t *line) {
    LOG_SERVICE(LEVEL_ERROR, "Read started but not a SOH\n");
    LOG_SERVICE(LEVEL_ERROR, "Perhaps protocol selection is wrong\n");
    LOG_SERVICE(LEVEL_ERROR, "Trying to swap to ASCII. PLEASE check configuration\n");
    store_shared(&line->connection.pager->protocol, PROTOCOL_ASCII);
}

void report_failure(const line_t *line, int result) {
    const endpoint_t to = endpoint_of(line->connection.pager);
    const bool listens = load_shared(line->connection.pager->listen) != 0;
    LOG_SERVICE(LEVEL_ERROR, "Line of pager %s to %s:%u %s. %s\n",
                table_text(line->connection.pager->name).text, to.host, to.shown_port,
                result == ESPA_UNEXPECTED ? "brought a byte out of place" : "was closed or failed",
                listens ? "Waiting for a connection" : "Connecting again");
}

void drop_when_silent(line_t *line) {
    if (is_silent_for_more_than(line->connection.pager, SILENCE_LIMIT_SECONDS)) {
        connection_drop(&line->connection, ALARM_TRANSMISSION_ERROR);
    }
}

void serve_espa(line_t *line) {
    pager_t *pager = line->connection.pager;
    const espa_options_t options{&pager->recover_link, load_shared(pager->ack_when_done) != 0};
    const int result = espa_read_packet(line->connection.sock, line->buffer, PACKET_SIZE,
                                        &pager->polls, load_shared(pager->espa_poll), options);
    if (result > 1) {
        owed_answer_t answer(line->connection.sock,
                             options.leaves_answer && line->buffer[result] == ETX,
                             microseconds_passed());
        handle_espa_packet(line, &answer);
    } else if (connection_is_called_away(&line->connection)) {
        return;  // what became of the abandoned connection says nothing about the new one
    } else if (result < 0) {
        if (connection_recovers(&line->connection)) {
            report_failure(line, result);
        } else {
            swap_to_ascii(line);
        }
        connection_drop(&line->connection, ALARM_CONNECTION_LOST);
    } else if (result == 0) {
        drop_when_silent(line);
    }
}

// Takes a packet of a line that follows the procedure, which is answered as the packet deserves.
void handle_addressed_packet(line_t *line, int etx) {
    const pager_t *pager = line->connection.pager;
    owed_answer_t answer(line->connection.sock, &line->station->station, microseconds_passed());
    const std::string_view packet(line->buffer, static_cast<size_t>(etx) + 2);
    const bool is_right =
        load_shared(pager->no_check_bcc) != 0 || checkBCC(line->buffer, PACKET_SIZE) != 0;
    if (is_right && !is_packet_formed(packet)) {
        LOG_SERVICE(LEVEL_ERROR, "ESPA packet makes no sense. won't process\n");
        answer.give(verdict_t::SENSELESS);
        return;
    }
    if (is_right && load_shared(pager->ack_when_done) == 0) {
        answer.give(verdict_t::TAKEN);
    }
    handle_espa_packet(line, &answer);
}

void serve_station(line_t *line) {
    pager_t *pager = line->connection.pager;
    if (!line->station || !line->station->is_current()) {
        line->station.emplace(pager);
    }
    const int result = station_read_packet(&*line->station, line->connection.sock, line->buffer);
    if (result > 1) {
        handle_addressed_packet(line, result);
    } else if (connection_is_called_away(&line->connection)) {
        return;
    } else if (result < 0) {
        report_failure(line, result);
        connection_drop(&line->connection, ALARM_CONNECTION_LOST);
    } else if (result == 0) {
        drop_when_silent(line);
    }
}

void report_non_ascii(const char *text) {
    const char *found =
        std::find_if(text, text + strlen(text), [](char c) { return (c & HIGH_BIT) != 0; });
    if (*found != '\0') {
        LOG_SERVICE(LEVEL_ERROR,
                    "Read non-ASCII character 0x%.02x in ASCII packet. Possible wrong serial "
                    "settings\n",
                    shown_byte(*found));
    }
}

void handle_ascii_line(line_t *line) {
    pager_t *pager = line->connection.pager;
    const char *text = line->buffer;
    const int64_t received_us = microseconds_passed();
    my_stats().packets.add();
    LOG_SERVICE(LEVEL_DEBUG, "ASCII Read packet: %s", text);
    store_shared(&pager->last_packet, seconds_now());
    if (text[0] == SOH) {
        LOG_SERVICE(LEVEL_ERROR,
                    "Got ESPA SOH when ASCII protocol selected. trying to swap protocols.\n"
                    "PLEASE double check configuration\n");
        return;  // the way back from ASCII is a reload
    }
    if (load_shared(pager->charset[0]) == '\0') {
        report_non_ascii(text);
    }
    if (strlen(text) < MIN_ASCII_LENGTH) {
        LOG_SERVICE(LEVEL_WARNING, "ASCII message is too small");
        return;
    }
    const std::string message = decoded(line, text);
    owed_answer_t none(-1, false, received_us);
    process_message(pager, ALARM_MESSAGE, "", message.c_str(), &none);
    LOG_SERVICE(LEVEL_VERBOSE, "message=%s", message.c_str());
    pause_us(ASCII_MESSAGE_PAUSE_US);
}

void serve_ascii(line_t *line) {
    pager_t *pager = line->connection.pager;
    const int result =
        ascii_read_packet(line->connection.sock, line->buffer, PACKET_SIZE, &pager->polls);
    if (result > 1) {
        handle_ascii_line(line);
    } else if (connection_is_called_away(&line->connection)) {
        return;
    } else if (result < 0) {
        connection_drop(&line->connection, ALARM_CONNECTION_LOST);
    } else if (result == 0) {
        const int limit = load_shared(pager->read_timeout);
        if (limit > 0 && is_silent_for_more_than(pager, limit)) {
            connection_drop(&line->connection, ALARM_TRANSMISSION_ERROR);
        }
    }
}

bool connect_line(line_t *line) {
    if (line->station) {
        line->station->forget();
    }
    if (load_shared(line->connection.pager->listen) == 0) {
        connection_stop_listening(&line->connection);
        return connection_open(&line->connection);
    }
    return connection_await(&line->connection);
}

void serve_turn(line_t *line) {
    memset(line->buffer, 0, sizeof line->buffer);
    connection_begin_turn(&line->connection);
    if (connection_is_reloaded(&line->connection)) {
        connection_abandon(&line->connection);
    }
    if (roster_is_dismissed(line->connection.pager) ||
        (line->connection.sock < 0 && !connect_line(line))) {
        return;
    }
    const int protocol = load_shared(line->connection.pager->protocol);
    note_protocol(protocol);
    if (protocol == PROTOCOL_ESPA && load_shared(line->connection.pager->espa_address) != '\0') {
        serve_station(line);
    } else if (protocol == PROTOCOL_ESPA) {
        serve_espa(line);
    } else {
        serve_ascii(line);
    }
    enter_state(line->connection.sock < 0 ? line_state_t::CONNECTING : line_state_t::IDLE);
}

}  // namespace

void *service_proc(void *argument) noexcept {
    pager_t *pager = static_cast<pager_t *>(argument);
    line_t line{{pager, load_shared(pager->socket)}, {}, {}, {}};
    stats_serve(pager);
    LOG_SERVICE(LEVEL_VERBOSE, "Starting thread for pager %s\n", table_text(pager->name).text);
    call_service_action(pager, ALARM_STARTED);
    while (doexit == 0 && !roster_is_dismissed(pager)) {
        serve_turn(&line);
    }
    call_service_action(pager, ALARM_TERMINATED);
    enter_state(line_state_t::ENDED);
    if (doexit == 0) {
        connection_end(&line.connection);
        roster_end(pager);
    }
    return nullptr;
}
