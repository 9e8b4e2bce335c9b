// Any packet in a buffer of exactly its size.

#include <cstring>
#include <vector>

#include "espa.h"
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) {
        return 0;
    }
    std::vector<char> buffer(data, data + size);
    espa_p p{};
    parse_espa_packet(&p, buffer.data(), static_cast<int>(size));
    require(memchr(p.record.call_address, 0, sizeof p.record.call_address) != nullptr);
    require(memchr(p.record.display_message, 0, sizeof p.record.display_message) != nullptr);
    require(p.record.beep_coding == 0 && p.record.system_status == 0);

    const int max_packet =
        static_cast<int>(size) - 3;  // the byte behind the last ETX is in the buffer
    checkBCC(buffer.data(), max_packet);
    if (appendBCC(buffer.data(), max_packet) == 1) {
        require(checkBCC(buffer.data(), max_packet) == 1);
    }
    return 0;
}
