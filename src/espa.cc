#include "espa.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr int CHECK_MASK = 0x7F;  // a line with 7 data bits may put anything into the eighth

// The exclusive-or up to and including ETX, and where ETX stands; index 0 when there is none.
struct block_check_t {
    int sum;
    int etx;
};

block_check_t scan_block(const char *packet, int maxPacketSize) {
    if (packet[0] != SOH) {
        return {0, 0};
    }
    int sum = 0;
    for (int i = 1; i < maxPacketSize + 2; i++) {
        sum ^= packet[i];
        if (packet[i] == ETX) {
            return {sum & CHECK_MASK, i};
        }
    }
    return {0, 0};
}

// Copies a value over the start of its field and leaves the field's last byte alone.
template <size_t N>
void overwrite(char (&field)[N], std::string_view value) {
    memcpy(field, value.data(), std::min(value.size(), N - 1));
}

template <size_t N>
void replace(char (&field)[N], std::string_view value) {
    memset(field, 0, N);
    overwrite(field, value);
}

void store_value(espa_record_t *record, char identifier, std::string_view value) {
    if (identifier == '1') {
        overwrite(record->call_address, value);
    } else if (identifier == '2') {
        overwrite(record->display_message, value);
    } else if (identifier == '3') {
        replace(record->beep_text, value);
    } else if (identifier == '4') {
        replace(record->type_text, value);
    } else if (identifier == '5') {
        replace(record->transmissions_text, value);
    } else if (identifier == '6') {
        replace(record->priority_text, value);
    }
}

}  // namespace

int checkBCC(const char *packet, int maxPacketSize) noexcept {
    const block_check_t block = scan_block(packet, maxPacketSize);
    return block.etx > 0 && (packet[block.etx + 1] & CHECK_MASK) == block.sum ? 1 : 0;
}

bool is_packet_formed(std::string_view packet) noexcept {
    constexpr size_t LEAST = 5;  // SOH, header, STX, ETX, check character
    return packet.size() >= LEAST && packet[1] >= ' ' && packet[2] == STX &&
           packet[packet.size() - 2] == ETX;
}

int appendBCC(char *packet, int maxPacketSize) noexcept {
    const block_check_t block = scan_block(packet, maxPacketSize);
    if (block.etx == 0) {
        return 0;
    }
    packet[block.etx + 1] = static_cast<char>(block.sum);
    return 1;
}

std::string compose_status(std::string_view address, char status) {
    std::string packet = {SOH, '2', STX, '1', US};
    packet.append(address).append({RS, '7', US, status, ETX, '\0'});
    appendBCC(packet.data(), static_cast<int>(packet.size()));
    return packet;
}

// The walk does not stop behind an ETX that ends a value: the block check character is looked at
// like any other byte, and one that equals STX or RS opens a block whose value nobody keeps.
int parse_espa_packet(espa_p *p, const char *buf, int size) noexcept {
    constexpr std::string_view VALUE_ENDS("\x1E\x03", 2);  // RS and ETX
    const std::string_view packet(buf, static_cast<size_t>(std::max(size, 0)));
    size_t at = 0;
    while (at < packet.size() && packet[at] != '\0' && packet[at] != ETX) {
        const char c = packet[at];
        const char next = at + 1 < packet.size() ? packet[at + 1] : '\0';
        if (c == SOH) {
            if (next == '\0') {
                break;
            }
            p->header_type = next;
            at += 2;
        } else if (c == STX || c == RS) {
            const size_t value = std::min(at + 3, packet.size());  // past identifier and separator
            const size_t end = std::min(packet.find_first_of(VALUE_ENDS, value), packet.size());
            store_value(&p->record, next, packet.substr(value, end - value));
            at = end < packet.size() && packet[end] == RS ? end : end + 1;
        } else {
            at++;
        }
    }
    return 0;
}
