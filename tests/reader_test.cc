// The ESPA and ASCII readers on socket pairs, the block check and the parser.

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <future>
#include <thread>

#include "proto.h"
#include "support.h"

namespace {

struct exchange_t {
    const char *name;
    std::string sent;
    int result;
    std::string replies;
    int espa_poll = 0;
    int polls_before = 0;
    int polls_after = 0;
    std::string buffer = "";  // what the packet buffer must begin with
    std::string unread = "";
    int maxlen = 1024;
};

const exchange_t exchanges[] = {
    {"select", "1\x05", 1, "\x06", 0, 0, 1},
    {"select, extended", "1\x05", 1, "\x06\x06", 1, 0, 1},
    {"poll", "2\x05", 1, "\x06", 0, 4, 5},
    {"poll, extended", "2\x05", 1, "2\x05\x1F\x06", 1, 0, 1},
    {"another address, extended", "7\x05", 1, "\x06", 1, 0, 1},
    {"EOT with no request open", "\x04", 1, "\x04"},
    {"EOT closes a request", "\x04", 1, "\x04", 0, 2, 1},
    {"digit and EOT", "3\x04", 1, "\x04"},
    {"digit and anything else", "3X", -2, ""},
    {"lone ACK", "\x06", -2, ""},
    {"lone NAK", "\x15", -2, ""},
    {"lone ETX", "\x03", -2, ""},
    {"packet",
     "\x01"
     "1\x02"
     "1\x1F"
     "123\x03qX",
     8, "\x06", 0, 0, 0,
     "\x01"
     "1\x02"
     "1\x1F"
     "123\x03q\0"s,
     "X"},
    {"empty packet", "\x01\x03q", 1, "\x06", 0, 0, 0, "\x01\x03q\0"s},
    {"packet ended by EOT",
     "\x01"
     "ab\x04",
     2, "", 0, 3, 3,
     "\x01"
     "ab\x03"},
    {"every byte is kept", "\x01\x01\x00\xFF\x1E\x05\x03q"s, 6, "\x06", 0, 0, 0, "\x01\x01\x00\xFF\x1E\x05\x03q\0"s},
    {"full buffer",
     "\x01"
     "abcdefghij",
     7, "", 0, 0, 0,
     "\x01"
     "abcdefg\0"s,
     "hij", 8},
    {"longest packet for the buffer",
     "\x01"
     "abcdef\x03q",
     7, "\x06", 0, 0, 0,
     "\x01"
     "abcdef\x03q\0"s,
     "", 8},
    {"smallest buffer",
     "\x01"
     "ab",
     0, "", 0, 0, 0, "\x01\0"s, "ab", 1},
    {"no buffer", "\x01", 0, "", 0, 0, 0, "", "\x01", 0},
};

TEST(EspaReader, AnswersAndResults) {
    for (const exchange_t &row : exchanges) {
        SCOPED_TRACE(row.name);
        const pair_t line = make_socketpair();
        send_all(line.far, row.sent);
        std::string buffer(static_cast<size_t>(row.maxlen) + 2, '?');
        int polls = row.polls_before;
        EXPECT_EQ(espa_read_packet(line.near.get(), buffer.data(), row.maxlen, &polls, row.espa_poll), row.result);
        EXPECT_EQ(read_available(line.far), row.replies);
        EXPECT_EQ(polls, row.polls_after);
        EXPECT_EQ(buffer.substr(0, row.buffer.size()), row.buffer);
        EXPECT_EQ(read_available(line.near), row.unread);
    }
}

TEST(EspaReader, SurvivesAPeerThatIsGone) {
    pair_t line = make_socketpair();
    send_all(line.far, "1\x05");
    line.far.reset();
    char buffer[16];
    int polls = 0;
    EXPECT_EQ(espa_read_packet(line.near.get(), buffer, 14, &polls, 1), 1);
    EXPECT_EQ(espa_read_packet(line.near.get(), buffer, 14, &polls, 1), -1);
    EXPECT_EQ(espa_read_packet(-1, buffer, 14, &polls, 1), -1);
    EXPECT_EQ(espa_read_packet(FD_SETSIZE, buffer, 14, &polls, 1), -1);
}

// The reader never comes back from this, so it runs in a process of its own.
TEST(EspaReader, GoesOnSlowlyAfterACloseInMidPacket) {
    const captured_log_t log;
    pair_t line = make_socketpair();
    send_all(line.far,
             "\x01"
             "1");
    line.far.reset();
    const pid_t reader = fork();
    if (reader == 0) {
        char buffer[16];
        int polls = 0;
        _exit(espa_read_packet(line.near.get(), buffer, 14, &polls, 0));
    }
    const auto lines = [&] {
        const std::string text = log.messages();
        return std::count(text.begin(), text.end(), '\n');
    };
    EXPECT_TRUE(eventually([&] { return lines() > 12; }));
    EXPECT_LT(lines(), 100);
    kill(reader, SIGKILL);
    int status = 0;
    waitpid(reader, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
}

// All silences at once: each takes the reader's fifteen seconds.
TEST(Readers, GiveUpAfterSilence) {
    const auto espa = [](const std::string &sent) {
        const pair_t line = make_socketpair();
        send_all(line.far, sent);
        char buffer[1026];
        int polls = 0;
        const int result = espa_read_packet(line.near.get(), buffer, 1024, &polls, 0);
        return std::to_string(result) + read_available(line.far);
    };
    const auto ascii = [](const std::string &sent) {
        const pair_t line = make_socketpair();
        send_all(line.far, sent);
        char buffer[1024];
        return std::to_string(ascii_read_packet(line.near.get(), buffer, 1024, nullptr));
    };
    std::vector<std::future<std::string>> results;
    for (const char *sent : {"", "1",
                             "\x01"
                             "12",
                             "\x01"
                             "1\x03"}) {
        results.push_back(std::async(std::launch::async, espa, sent));
    }
    results.push_back(std::async(std::launch::async, ascii, ""));
    results.push_back(std::async(std::launch::async, ascii, "ALARM"));
    for (auto &result : results) {
        EXPECT_EQ(result.get(), "0");
    }
}

TEST(Readers, ASignalDoesNotEndTheWait) {
    signal(SIGUSR1, [](int) {});
    const pair_t line = make_socketpair();
    int ready = -1;
    std::thread reader([&] { ready = wait_data(line.near.get()); });
    for (int i = 0; i < 5; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    send_all(line.far, "x");
    reader.join();
    EXPECT_EQ(ready, 1);
}

TEST(AsciiReader, Lines) {
    const pair_t line = make_socketpair();
    send_all(line.far, "ALARM 12\r\nA\n\0\x01\xE9\nABCDEFG\n"s);
    char buffer[1024];
    const auto read = [&](int maxlen) {
        const int result = ascii_read_packet(line.near.get(), buffer, maxlen, nullptr);
        return std::pair(result, std::string(buffer, static_cast<size_t>(std::max(result, 0))));
    };
    EXPECT_EQ(read(0), std::pair(0, ""s));
    EXPECT_EQ(read(1024), std::pair(8, "ALARM 12"s));
    EXPECT_STREQ(buffer, "ALARM 12");
    EXPECT_EQ(read(1024), std::pair(0, ""s));
    EXPECT_EQ(read(1024), std::pair(1, "A"s));
    EXPECT_EQ(read(1024), std::pair(3, "\0\x01\xE9"s));
    EXPECT_EQ(read(5), std::pair(4, "ABCD"s));
    EXPECT_EQ(read(5), std::pair(3, "EFG"s));
    shutdown(line.far.get(), SHUT_WR);
    EXPECT_EQ(read(1024).first, -1);
}

TEST(Espa, BlockCheckCharacter) {
    struct {
        std::string packet;
        int right;
    } const rows[] = {
        {"\x01\x31\x03\x32", 1},
        {"\x01\x31\x03\xB2", 1},
        {"\x01\xB1\x03\x32", 1},
        {"\x01\x31\x03\x33", 0},
        {"\x02\x31\x03\x32", 0},
        {"\x01"
         "123456\x03",
         0},
        {"\x01"
         "12345678\x03",
         0},
    };
    for (const auto &row : rows) {
        std::string packet = row.packet + std::string(16, '\0');
        EXPECT_EQ(checkBCC(packet.data(), 4), row.right) << describe_bytes(row.packet);
    }
    std::string last =
        "\x01"
        "1234\x03?";  // ETX at index 5, the last that a size of 4 reaches
    EXPECT_EQ(appendBCC(last.data(), 4), 1);
    EXPECT_EQ(checkBCC(last.data(), 4), 1);
    EXPECT_EQ(appendBCC(last.data(), 3), 0);
}

TEST(Espa, ParsesCallRecords) {
    const std::string long_text(200, 'm');
    struct {
        const char *name;
        std::string packet;
        char type;
        std::string address;
        std::string message;
    } const rows[] = {
        {"call",
         "\x01"
         "1\x02"
         "1\x1F"
         "4711\x1E"
         "2\x1F"
         "Fire alarm\x03q",
         '1', "4711", "Fire alarm"},
        {"other order",
         "\x01"
         "1\x02"
         "2\x1F"
         "Fire\x1E"
         "1\x1F"
         "47\x03q",
         '1', "47", "Fire"},
        {"empty address",
         "\x01"
         "1\x02"
         "1\x1F\x1E"
         "2\x1FText\x03q",
         '1', "", "Text"},
        {"empty last value",
         "\x01"
         "1\x02"
         "2\x1F\x03q",
         '1', "", ""},
        {"unused identifier",
         "\x01"
         "1\x02"
         "6\x1F"
         "3\x1E"
         "2\x1FText\x03q",
         '1', "", "Text"},
        {"any separator",
         "\x01"
         "1\x02"
         "1x55\x03q",
         '1', "55", ""},
        {"bytes between",
         "\x01"
         "1zz\x02"
         "1\x1F"
         "55\x03q",
         '1', "55", ""},
        {"overwriting",
         "\x01"
         "1\x02"
         "1\x1F"
         "ABCDE\x1E"
         "1\x1FXY\x03q",
         '1', "XYCDE", ""},
        {"no header",
         "\x01\0\x02"
         "1\x1F"
         "5\x03"s,
         '\0', "", ""},
        {"second SOH",
         "\x01"
         "1\x01"
         "2\x02"
         "1\x1F"
         "5\x03q",
         '2', "5", ""},
        {"NUL in a value",
         "\x01"
         "1\x02"
         "1\x1F"
         "a\0b\x03q"s,
         '1', "a\0b"s, ""},
        {"too long",
         "\x01"
         "1\x02"
         "1\x1F" +
             long_text +
             "\x1E"
             "2\x1F" +
             long_text + "\x03q",
         '1', std::string(19, 'm'), std::string(128, 'm')},
        {"no ETX",
         "\x01"
         "1\x02"
         "2\x1F" +
             long_text,
         '1', "", std::string(128, 'm')},
        {"check character STX",
         "\x01"
         "1\x02"
         "1\x1F"
         "5\x03\x02",
         '1', "5", ""},
        {"cut short",
         "\x01"
         "1\x02",
         '1', "", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::string buffer = row.packet + '\0';  // exactly as large as stated, for the sanitizer
        espa_p p{};
        EXPECT_EQ(parse_espa_packet(&p, buffer.data(), static_cast<int>(buffer.size())), 0);
        EXPECT_EQ(p.header_type, row.type);
        EXPECT_EQ(std::string(p.record.call_address, row.address.size() + 1), row.address + '\0');
        EXPECT_EQ(std::string(p.record.display_message, row.message.size() + 1), row.message + '\0');
        EXPECT_EQ(p.record.priority, 0);
    }
}

}  // namespace
