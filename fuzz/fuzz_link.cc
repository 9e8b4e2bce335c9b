// A station of a line that follows the link procedure, at any bytes, pauses, verdicts and reports: it says
// nothing but what the procedure has, and nothing while others are addressed.
//
// The first byte of an input chooses whether a report waits; PAUSE in front of a byte lets eleven seconds
// pass, VERDICT and a byte choose the next verdicts.

#include <string>
#include <utility>

#include "fuzz.h"
#include "station.h"

namespace {

constexpr char OWN = '2';
constexpr char CONTROL = '1';
constexpr uint8_t PAUSE = 0xFF;
constexpr uint8_t VERDICT = 0xFE;
const std::string REPORT = {SOH, '2', STX, '7', US, '6', ETX, 0x1A};

// Whether others are being spoken to: from the control station's address on, unless this one's follows,
// until EOT, the next address or ten seconds.
class silence_t {
  public:
    void hear(char byte, station_t::heard_t heard) {
        if (heard == station_t::heard_t::REQUEST) {
            const bool is_selected = std::exchange(is_control_, last_ == CONTROL);
            holds_ = is_control_ || (is_selected && last_ != OWN);
        } else if (byte == EOT) {
            end();
        } else if (heard != station_t::heard_t::NOISE) {
            is_control_ = false;
        }
        last_ = byte;
    }
    void end() { holds_ = is_control_ = false; }
    bool holds() const { return holds_; }

  private:
    char last_ = '\0';
    bool is_control_ = false;
    bool holds_ = false;
};

bool is_answer(const std::string &said) {
    const std::string bid = {CONTROL, ENQ};
    return said.empty() || said == std::string(1, ACK) || said == std::string(1, EOT) ||
           said == bid || said == REPORT ||
           (said.size() == 2 && said[0] >= '1' && said[0] <= '3' && said[1] == NAK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    station_t station(OWN, CONTROL);
    silence_t silence;
    int64_t now = 1'000'000'000;
    auto verdict = verdict_t::TAKEN;
    std::string report = size > 0 && data[0] % 2 != 0 ? REPORT : "";
    for (size_t i = 1; i < size; i++) {
        if (data[i] == PAUSE) {
            now += 11'000'000;
            silence.end();
            continue;
        }
        if (data[i] == VERDICT && i + 1 < size) {
            verdict = static_cast<verdict_t>(data[++i] % 4);
            continue;
        }
        const char byte = static_cast<char>(data[i]);
        const bool was_in_packet = station.is_in_packet();
        const uint64_t noise_before = station.noise_bytes();
        std::string said;
        const station_t::heard_t heard = station.take(byte, now, report, &said);
        silence.hear(byte, heard);
        require(station.noise_bytes() >= noise_before);
        require(station.packet().size() <= PACKET_SIZE + 1);
        if (heard == station_t::heard_t::PACKET) {
            require(was_in_packet && said.empty() && station.packet()[0] == SOH);
            said = station.answer(verdict);
        } else if (heard == station_t::heard_t::REPORTED) {
            require(!report.empty() && byte == ACK);
            report.clear();
        } else if (heard == station_t::heard_t::REQUEST) {
            require(byte == ENQ && said.empty() == (station.requested() != OWN));
        }
        require(is_answer(said));
        require(said.empty() || !silence.holds());
    }
    return 0;
}
