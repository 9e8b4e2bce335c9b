// ESPA 4.4.4 data packets: the control characters, the block check character and the call record.
//
// A data packet is SOH, header type, one or more data blocks, ETX, block check character. A data
// block is STX (the first) or RS (each further one), a data identifier digit, US and the value:
//   SOH '1' STX '1' US 4711 RS '2' US Fire alarm ETX bcc
#pragma once

#include <string>
#include <string_view>

enum : char {
    SOH = 0x01,
    STX = 0x02,
    ETX = 0x03,
    EOT = 0x04,
    ENQ = 0x05,
    ACK = 0x06,
    NAK = 0x15,
    RS = 0x1E,
    US = 0x1F,
};

// The size of the buffer in which a service thread receives packets: the 1024 bytes that it offers
// the readers, and two for a block check character and its terminating zero.
constexpr int PACKET_SIZE = 1024;
constexpr int PACKET_BUFFER_SIZE = PACKET_SIZE + 2;

// A call record. The text fields are zero-terminated; those of one character are never filled.
struct espa_record_t {
    char call_address[20];         // data identifier '1'
    char display_message[129];     // data identifier '2'
    char beep_coding;              // data identifier '3'
    char call_type;                // data identifier '4'
    char number_of_transmissions;  // data identifier '5'
    char priority;                 // data identifier '6'
    char call_status;              // data identifier '7'
    char system_status;            // data identifier '8'
    char beep_text[16];            // data identifiers '3' to '6', whole
    char type_text[16];
    char transmissions_text[16];
    char priority_text[16];
};

// A decoded packet.
struct espa_p {
    char header_type;  // the byte after SOH; '1' is a call
    espa_record_t record;
};

// Tests the block check character of a packet: the exclusive-or of all bytes after SOH up to and
// including ETX, of which the low seven bits count, as does the check character's.
//   packet         starts with SOH; must be readable up to the byte after its ETX
//   maxPacketSize  ETX is searched up to index maxPacketSize + 1
// Returns 1 when it is right, 0 when it is wrong, SOH is missing or no ETX is found.
int checkBCC(const char *packet, int maxPacketSize) noexcept;

// Whether a packet has what makes it one: a header, STX behind it, and ETX before the check character at
// its end.
bool is_packet_formed(std::string_view packet) noexcept;

// Stores the block check character of a packet in the byte after its ETX. Arguments as for
// checkBCC(). Returns 1, or 0 when SOH is missing or no ETX is found.
int appendBCC(char *packet, int maxPacketSize) noexcept;

// A status record: header 2 with the call address and, as identifier 7, what has become of the call.
// SOH to block check character.
std::string compose_status(std::string_view address, char status);

// Decodes a packet into `p`, which the caller has cleared.
//   buf   the packet, ended by a zero byte outside of a value or by the buffer's end
//   size  the buffer's size; nothing beyond it is read
// A value ends at RS or ETX and is cut to its field (19, 128 and 15 characters). A repeated identifier
// writes over the start of the earlier call address or message. Returns 0 always.
int parse_espa_packet(espa_p *p, const char *buf, int size = PACKET_BUFFER_SIZE) noexcept;
