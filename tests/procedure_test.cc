// A line that follows the link procedure, on a socket pair: what it answers to what is said on it.

#include "report.h"
#include "station_reader.h"
#include "stats.h"
#include "support.h"

namespace {

const std::string CALL = "<SOH>1<STX>1<US>7<ETX><37>";
const std::string REPORT = "<SOH>2<STX>7<US>6<ETX><1A>";

struct Procedure : Tables {
    Procedure() {
        pagers[0].espa_address = '2';
        pagers[0].espa_control = '1';
        stats_serve(&pagers[0]);
    }
    // Everything that is answered to bytes, and "{" "}" around each packet that is taken, with this
    // verdict.
    std::string answers(const std::string &bytes, verdict_t verdict = verdict_t::TAKEN) {
        const pair_t line;
        station_line_t station(&pagers[0]);
        send_bytes(line.far, wire(bytes));
        shutdown(line.far.get(), SHUT_WR);
        std::string all;
        char packet[PACKET_BUFFER_SIZE];
        for (int result = 0; result >= 0;) {
            result = station_read_packet(&station, line.near.get(), packet);
            all += read_available(line.far);
            if (result > 1) {
                all += "{" + std::string(packet + 1, size_t(result) - 1) + "}" +
                       station.station.answer(verdict);
            }
        }
        return all;
    }
};

TEST_F(Procedure, AnswersAsTheOthersExpect) {
    const std::string taken = "{1<STX>1<US>7}<ACK>";
    const std::string select = "1<ENQ>2<ENQ>";
    const std::pair<std::string, std::string> rows[] = {
        {CALL, taken},  // between two
        {select + CALL + CALL + "<EOT>" + CALL, "<ACK>" + taken + taken + taken},
        {"4<ENQ>" + select + CALL, "<ACK>" + taken},  // whose answer was not heard
        {"1<ENQ>4<ENQ>" + CALL + "<ACK><EOT>2<ENQ>", "<EOT>"},
        {"1<ENQ>4<ENQ>" + CALL + "2<ENQ>" + CALL, "<EOT>" + taken},  // its EOT is lost
        {"1<ENQ>4<ENQ>" + CALL + "5<ENQ>" + CALL, taken},
        {"1<ENQ><EOT>", ""},
        {"1<ENQ>" + CALL + CALL, ""},
        {"4<ENQ><ACK>" + CALL + "<ACK><EOT>" + select, "<ACK>"},
        {"4<ENQ>1<ENQ><ACK>" + CALL + "<ACK><EOT>2<ENQ>", "<EOT>"},
        {select + "1<ENQ>4<ENQ>" + CALL, "<ACK>"},
        {select + "4<ENQ>2<ENQ>", "<ACK><EOT>"},
        {select + "<ACK><ACK>" + CALL, "<ACK>"},  // the first is an echo
        {select + "<ACK>" + CALL, "<ACK>" + taken},
        {"<ENQ>", ""},
        {"2<ENQ><ENQ>", "<EOT><EOT>"},
        {CALL + "<ENQ><ENQ>", taken + "<ACK><ACK>"},
        {CALL + "<ENQ><ACK>" + CALL, taken + "<ACK>" + taken},  // an echo again
        {CALL + "<EOT><ENQ>", taken},
        {CALL + "xyz<ENQ><ENQ>", taken + "1<NAK>1<NAK>"},  // of a packet in which nothing was whole
        {select + "1<STX>1<US>x<ETX>x<ENQ>", "<ACK>1<NAK>"},
        {select + "<SOH>1<STX>1<US>x<ENQ>" + CALL, "<ACK>1<NAK>" + taken},
        {"<SOH>1<STX>1<US>x<EOT>" + CALL, taken},
        {"<SOH>1<STX>1<US>x" + CALL, taken},
        {"<SOH>1<STX>1<US>2<ENQ>", "<EOT>"},
        {"2<ENQ>xy<ENQ>", "<EOT>"},
        {"22<ENQ>1<NAK><NAK>2x", "<EOT>"},
        {"<SOH>" + std::string(1022, 'x') + "<ETX><00>", "{" + std::string(1022, 'x') + "}<ACK>"},
        {"<SOH>" + std::string(1023, 'x') + "<ETX><00>", "{" + std::string(1022, 'x') + "}<ACK>"},
    };
    for (const auto &[bytes, expected] : rows) {
        EXPECT_EQ(answers(bytes), wire(expected)) << bytes;
    }
    EXPECT_EQ(answers(CALL, verdict_t::GARBLED), wire("{1<STX>1<US>7}1<NAK>"));
    EXPECT_EQ(answers(CALL, verdict_t::CANNOT_TAKE), wire("{1<STX>1<US>7}2<NAK>"));
    EXPECT_EQ(answers(CALL, verdict_t::SENSELESS), wire("{1<STX>1<US>7}3<NAK>"));
    enter_state(line_state_t::IDLE);
    answers("<SOH>");
    EXPECT_EQ(my_stats().state, line_state_t::RECEIVING);
}

TEST_F(Procedure, ReportsWhenItIsPolled) {
    const std::pair<std::string, int> rows[] = {
        {"2<ENQ>;1<ENQ>|<ACK>;" + REPORT + "|<ACK>;<EOT>|<ACK>;|2<ENQ>;<EOT>", 0},
        {"2<ENQ>;1<ENQ>|<ACK>;" + REPORT + "|2<NAK>;" + REPORT + "|<NAK>;" + REPORT +
             "|1<NAK>;<EOT>|2<ENQ>;1<ENQ>",
         1},
        {"2<ENQ>;1<ENQ>|<NAK>;<EOT>", 1},
        {"2<ENQ>;1<ENQ>|<EOT>;", 1},
        {"<ACK>;|2<ENQ>;1<ENQ>", 1},
        {"2<ENQ>;1<ENQ>|1<ENQ>2<ENQ>;<ACK>", 1},
        {"2<ENQ>;1<ENQ>|<ACK>;" + REPORT + "|<ENQ>;" + REPORT + "|2<ENQ>;1<ENQ>", 1},
    };
    for (const auto &[dialogue, left] : rows) {
        espa_report(&pagers[0], wire(REPORT));
        std::string said, answered;
        std::istringstream turns(dialogue);
        for (std::string turn; std::getline(turns, turn, '|');) {
            said += turn.substr(0, turn.find(';'));
            answered += turn.substr(turn.find(';') + 1);
        }
        EXPECT_EQ(answers(said), wire(answered)) << dialogue;
        const std::string waiting = next_report(&pagers[0]);
        EXPECT_EQ(waiting.empty() ? 0 : 1, left) << dialogue;
        drop_report(&pagers[0], waiting);
    }
    const std::string refused = "WARNING: A report was refused, it waits for a poll\n\n";
    EXPECT_EQ(replaced(log(), "DEBUG: .*\n+", ""),
              "EVENT: A report was acknowledged\n\n" + refused + refused);
}

TEST_F(Procedure, ReportsToThreePollsAndOf64) {
    const report_id_t refused = espa_report(&pagers[0], wire(REPORT));
    const report_id_t next = espa_report(&pagers[0], wire(REPORT));
    for (const char *poll : {"2<ENQ>", "<EOT>2<ENQ>", "2<ENQ>"}) {
        EXPECT_EQ(answers(poll), wire("1<ENQ>"));
        EXPECT_TRUE(is_report_waiting(refused));
    }
    EXPECT_EQ(answers("1<ENQ>2<ENQ>2<ENQ><ACK><ACK>"), wire("<ACK>1<ENQ>" + REPORT + "<EOT>"));
    EXPECT_FALSE(is_report_waiting(refused) || is_report_waiting(next));
    EXPECT_THAT(log(), HasSubstr("WARNING: A report of line  was not taken in 3 polls"));
    const report_id_t first = espa_report(&pagers[0], "x");
    for (int i = 0; i < 64; i++) {
        EXPECT_EQ(is_report_waiting(first), true) << i;
        espa_report(&pagers[0], "y");
    }
    EXPECT_FALSE(is_report_waiting(first));
    drop_reports(&pagers[0]);
    EXPECT_EQ(next_report(&pagers[0]), "");
    espa_report(&pagers[0], "z");
    EXPECT_EQ(next_report(&pagers[0]), "z");
    copy_text(pagers[0].name, "another line");
    EXPECT_EQ(answers("2<ENQ>"), wire("<EOT>"));
}

TEST(Station, CountsWhatBelongsToNothing) {
    const std::pair<const char *, uint64_t> rows[] = {
        {"x", 1},
        {"4x", 2},
        {"0<NAK>", 0},
        {"44<ENQ>", 1},
        {"<ACK>", 0},
        {"4<EOT>", 1},
        {"<SOH>1<STX><EOT>", 3},
        {"<SOH>14<ENQ>", 2},
        {"4<SOH>1<EOT>", 3},
        {"<NAK><ENQ>", 0},
        {"1<ENQ>4<ENQ>", 0},
    };
    for (const auto &[bytes, dropped] : rows) {
        station_t station('2', '1');
        std::string reply;
        for (const char byte : wire(bytes)) {
            station.take(byte, 1, "", &reply);
        }
        EXPECT_EQ(station.noise_bytes(), dropped) << bytes;
    }
}

TEST(Station, ForgetsAfterTenSecondsOfSilence) {
    const int64_t second = 1'000'000;
    for (const auto &[seconds, expected] : {std::pair(10, "<ACK>"), {11, "<EOT>"}}) {
        station_t station('2', '1');
        std::string reply;
        for (const char byte : wire("1<ENQ>")) {
            station.take(byte, 100 * second, "", &reply);
        }
        for (const char byte : wire("2<ENQ>")) {
            station.take(byte, (100 + seconds) * second, "", &reply);
        }
        EXPECT_EQ(reply, wire(expected));
    }
}

}  // namespace
