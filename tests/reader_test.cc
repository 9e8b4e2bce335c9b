// The ESPA and ASCII readers on socket pairs, the block check and the parser.

#include <netinet/tcp.h>

#include <future>

#include "command.h"
#include "link.h"
#include "proto.h"
#include "sig.h"
#include "stats.h"
#include "support.h"

namespace {

TEST(EspaReader, AnswersAndResults) {
    const int yes = 1;
    const struct {
        const char *sent;
        const char *outcome;      // result, replies, polls and unread bytes
        const char *buffer = "";  // must begin with this
        int espa_poll = 0;
        int polls = 0;
        int maxlen = 1024;
        espa_options_t options = {};
    } rows[] = {
        {"1<ENQ>", "1|<ACK>|1||"},  // select, plain and extended
        {"1<ENQ>", "1|<ACK><ACK>|1||", "", 1},
        {"2<ENQ>", "1|<ACK>|5||", "", 0, 4},
        {"2<ENQ>", "1|2<ENQ><US><ACK>|1||", "", 1},
        {"9<ENQ>", "1|<ACK>|1||", "", 1},
        {"0<EOT>", "1|<EOT>|0||"},
        {"<EOT>", "1|<EOT>|1||", "", 0, 2},
        {"", "-1||0||"},    // closed
        {"3X", "-2||0||"},  // not this protocol
        {"<ACK>", "-2||0||"},
        {":<ENQ>", "-2||0|<ENQ>|"},
        {"<SOH>1<STX>1<US>123<ETX>qX", "8|<ACK>|0|X|", "<SOH>1<STX>1<US>123<ETX>q<NUL>"},
        {"<SOH><ETX>q", "1|<ACK>|0||", "<SOH><ETX>q<NUL>"},
        {"<SOH>ab<EOT>", "2||3||", "<SOH>ab<ETX>", 0, 3},
        {"<SOH><SOH><NUL><FF><RS><ENQ><ETX>q", "6|<ACK>|0||", "<SOH><SOH><NUL><FF><RS><ENQ><ETX>q"},
        {"<SOH>abcdefghij", "7||0|hij|", "<SOH>abcdefg<NUL>", 0, 0, 8},
        {"<SOH>abcdef<ETX>q", "7|<ACK>|0||", "<SOH>abcdef<ETX>q<NUL>", 0, 0, 8},
        {"<SOH>ab", "0||0|ab|", "<SOH><NUL>", 0, 0, 1},
        {"<SOH>", "0||0|<SOH>|", "", 0, 0, 0},
        {"3", "-2||0||"},
        {"3", "-1||0||", "", 0, 0, 1024, {&yes}},
        {"<SOH>1", "-1||0||", "", 0, 0, 1024, {&yes}},
        {"<SOH>1<ETX>", "-1||0||", "", 0, 0, 1024, {&yes}},
        {"<SOH>1<ETX>q", "2||0||", "", 0, 0, 1024, {nullptr, true}},
        {"<SOH><ETX>q", "1|<ACK>|0||", "", 0, 0, 1024, {nullptr, true}},
    };
    for (const auto &[sent, outcome, begin, espa_poll, polls_before, maxlen, options] : rows) {
        const pair_t line;
        send_bytes(line.far, wire(sent));
        shutdown(line.far.get(), SHUT_WR);
        std::string buffer(size_t(maxlen) + 2, '?');
        int polls = polls_before;
        const uint64_t noise_before = my_stats().noise_bytes.get();
        const int result =
            espa_read_packet(line.near.get(), buffer.data(), maxlen, &polls, espa_poll, options);
        const std::string replies = read_available(line.far);
        const std::string unread = read_available(line.near);
        EXPECT_EQ(joined(result, replies, polls, unread), wire(outcome)) << sent;
        EXPECT_EQ(my_stats().noise_bytes.get() - noise_before,
                  result == ESPA_UNEXPECTED ? wire(sent).size() - unread.size() : 0);
        EXPECT_THAT(buffer, StartsWith(wire(begin))) << sent;
    }
}

// All silences at once, as of different lines: each takes the reader's fifteen seconds.
TEST(Readers, GiveUpAfterSilence) {
    const char *const begun[] = {"", "1", "<SOH>12", "<SOH>1<ETX>", "ALARM"};  // the last: ASCII
    std::vector<std::future<uint64_t>> silences;
    const pager_t *pager = pagers;
    const time_t before = time(nullptr);
    for (const char *sent : begun) {
        silences.push_back(std::async(std::launch::async, [sent, served = pager++] {
            const knock_t nobody{-1, nullptr, nullptr};
            hear_while_waiting(*sent == '<' ? &nobody : nullptr);
            stats_serve(served);
            const pair_t line;
            send_bytes(line.far, wire(sent));
            char buffer[PACKET_BUFFER_SIZE];
            int polls = 0;
            EXPECT_EQ(*sent == 'A' ? ascii_read_packet(line.near.get(), buffer, 1024, nullptr)
                                   : espa_read_packet(line.near.get(), buffer, 1024, &polls, 0),
                      0);
            return my_stats().silence_seconds.get();
        }));
    }
    for (auto &silence : silences) {
        EXPECT_EQ(silence.get(), 15U);
    }
    EXPECT_GE(time(nullptr) - before, 14);
}

TEST(Link, SocketNoticesAConverterThatIsGone) {
    const unique_fd_t sock(link_socket());
    const auto option = [&](int level, int name) {
        int value = 0;
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(sock.get(), level, name, &value, &size), 0);
        return value;
    };
    EXPECT_EQ((ints_t{option(IPPROTO_TCP, TCP_NODELAY), option(SOL_SOCKET, SO_KEEPALIVE),
                      option(IPPROTO_TCP, TCP_KEEPIDLE), option(IPPROTO_TCP, TCP_KEEPINTVL),
                      option(IPPROTO_TCP, TCP_KEEPCNT), fcntl(sock.get(), F_GETFD)}),
              (ints_t{1, 1, 60, 15, 4, FD_CLOEXEC}));
    EXPECT_TRUE(link_is_short_of_descriptors(-1) && link_is_short_of_descriptors(FD_SETSIZE / 2));
    EXPECT_FALSE(link_is_short_of_descriptors(3));
    EXPECT_FALSE(link_prepare(-1) || link_prepare(FD_SETSIZE));
}

TEST(Waits, AreNotEndedBySignals) {
    signal_set_handler(SIGALRM, 0, [](int) {});
    ualarm(5000, 5000);
    const pair_t line;
    const auto later = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        send_bytes(line.far, "x");
    });
    EXPECT_EQ(wait_data(line.near.get()), 1);
    EXPECT_EQ(wait_data(-1) + wait_data(FD_SETSIZE), -2);
    EXPECT_EQ(command_run("sleep 0.1; exit 7"), 7);
    pattern_t tried{};
    begin_patterns();
    EXPECT_EQ(compile_regex(&tried, "([a-z]{1,60} ?){1,100}"), 0);
    ualarm(0, 0);
}

TEST(Readers, HearWhoKnocks) {
    static int heard = 0;
    const pair_t line, loud, quiet;
    const auto leaves = [](void *) { return (heard += 10) > 0; };
    const auto sends = [](void *far) {
        return (heard++, write(*static_cast<int *>(far), "x", 1) != 1);
    };
    int far = line.far.get();
    send_bytes(loud.far, "k");
    const knock_t leave{loud.near.get(), leaves, nullptr}, send{loud.near.get(), sends, &far};
    const knock_t third{quiet.near.get(), leaves, nullptr, &send};
    const knock_t both{send.fd, sends, &far, &leave};
    const auto result = [&](const knock_t &knock) {
        hear_while_waiting(&knock);
        return wait_data(line.near.get());
    };
    EXPECT_EQ((ints_t{result(third), result(leave)}), (ints_t{1, 1}));
    read_available(line.near);
    EXPECT_EQ(result(both), -1);
    EXPECT_EQ(heard, 12);
    hear_while_waiting(nullptr);
}

TEST(AsciiReader, Lines) {
    enter_state(line_state_t::IDLE);
    const pair_t line;
    send_bytes(line.far, wire("ALARM 12\r\nA\n<NUL><SOH><E9>\nABCDEFG\n"));
    shutdown(line.far.get(), SHUT_WR);
    const struct {
        int maxlen, result;
        const char *text = "";
    } rows[] = {
        {0, 0},
        {1024, 8, "ALARM 12<NUL>"},
        {1024, 0, "<NUL>"},
        {1024, 1, "A<NUL>"},
        {1024, 3, "<NUL><SOH><E9><NUL>"},
        {5, 4, "ABCD<NUL>"},
        {5, 3, "EFG<NUL>"},
        {1024, -1},
    };
    for (const auto &[maxlen, result, text] : rows) {
        std::string buffer(1024, '?');
        EXPECT_EQ(ascii_read_packet(line.near.get(), buffer.data(), maxlen, nullptr), result);
        EXPECT_THAT(buffer, StartsWith(wire(text)));
    }
    EXPECT_EQ(my_stats().state, line_state_t::RECEIVING);
}

TEST(Espa, BlockCheckCharacter) {
    const std::pair<const char *, int> rows[] = {
        {"<SOH>1<ETX>2", 1},
        {"<SOH>1<ETX><B2>", 1},
        {"<SOH><B1><ETX>2", 1},
        {"<SOH>1<ETX>3", 0},
        {"<STX>1<ETX>2", 0},
        {"<SOH>123456<ETX>", 0},
        {"<STX>", 0},
        {"<SOH>1234<ETX><07>", 1},
        {"<SOH>12341<ETX>6", 0},  // beyond what a size of 4 reaches
    };
    for (const auto &[packet, is_right] : rows) {
        EXPECT_EQ(checkBCC((wire(packet) + std::string(16, '\0')).data(), 4), is_right) << packet;
    }
    std::string packet = wire("<SOH>1<ETX>?");
    EXPECT_EQ(appendBCC(packet.data(), 4), 1);
    EXPECT_EQ(packet[3], '2');
    EXPECT_EQ(appendBCC(packet.data() + 1, 2), 0);
    for (const char *formed : {"<SOH>1<STX><ETX>q", "<SOH> <STX>1<ETX>q"}) {
        EXPECT_TRUE(is_packet_formed(wire(formed))) << formed;
    }
    for (const char *bad :
         {"<SOH>1<STX><ETX>", "<SOH><1F><STX><ETX>q", "<SOH>1x<ETX>q", "<SOH>1<STX>xq"}) {
        EXPECT_FALSE(is_packet_formed(wire(bad))) << bad;
    }
}

TEST(Link, GivesUpWhoDoesNotAnswer) {
    const unique_fd_t listener(link_socket());
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    auto *const named = reinterpret_cast<sockaddr *>(&address);
    ASSERT_EQ(bind(listener.get(), named, size) + listen(listener.get(), 0), 0);
    getsockname(listener.get(), named, &size);
    const auto connects = [&](const unique_fd_t &sock, int seconds, const knock_t *heard) {
        const bool does = link_connect(sock.get(), address, seconds, heard);
        EXPECT_EQ(fcntl(sock.get(), F_GETFL) & O_NONBLOCK, 0);
        return does;
    };
    const unique_fd_t only(link_socket()), another(link_socket()), called(link_socket());
    EXPECT_TRUE(connects(only, AS_LONG_AS_THE_SYSTEM_TRIES, nullptr));
    EXPECT_FALSE(connects(another, 1, nullptr));
    const pair_t loader;
    int end = loader.near.get();
    const auto is_no = [](void *of) {
        char byte = 0;
        return recv(*static_cast<int *>(of), &byte, 1, 0) == 1 && byte == 'n';
    };
    const knock_t heard{end, is_no, &end};
    send_bytes(loader.far, "yn");
    EXPECT_FALSE(connects(called, AS_LONG_AS_THE_SYSTEM_TRIES, &heard));
    EXPECT_EQ(read_available(loader.near), "");
    const unique_fd_t served(accept(listener.get(), nullptr, nullptr)), late(link_socket());
    EXPECT_TRUE(connects(late, 60, &heard));
}

TEST(Espa, ParsesCallRecords) {
    const std::string m200(200, 'm'), m128(128, 'm'), m19(19, 'm');
    const std::pair<std::string, std::string> rows[] = {
        // packet; header type, call address, display message, and of the other fields those there are
        {"<SOH>1<STX>1<US>4711<RS>2<US>Fire alarm<ETX>q", "1|4711|Fire alarm|"},
        {"<SOH>1<STX>1<US><RS>2<US>Text<ETX>q", "1||Text|"},
        {"<SOH>1<STX>6<US>3<RS>2<US>Text<ETX>q", "1||Text|3|"},
        {"<SOH>1<STX>6<US>1234<RS>6<US>03<RS>5<US>10<RS>4<US>2<RS>3<US>" + m19 + "<ETX>q",
         "1|||03|2|" + m19.substr(4) + "|10|"},
        {"<SOH>1zz<STX>1x55<ETX>q", "1|55||"},
        {"<SOH>1<STX>1<US>ABCDE<RS>1<US>XY<ETX>q", "1|XYCDE||"},
        {"<SOH><NUL><STX>1<US>5<ETX>", "<NUL>|||"},
        {"<SOH>1<SOH>2<STX>1<US>5<ETX>q", "2|5||"},
        {"<SOH>1<STX>1<US>a<NUL>b<ETX>q", "1|a<NUL>b||"},
        {"<SOH>1<STX>1<US>" + m200 + "<RS>2<US>" + m200 + "<ETX>q", "1|" + m19 + "|" + m128 + "|"},
        {"<SOH>1<STX>1<US>5<ETX><STX>", "1|5||"},
        {"<SOH>1<STX>", "1|||"},
    };
    const auto field = []<size_t N>(const char(&bytes)[N]) {  // without the zeros that fill it
        EXPECT_EQ(bytes[N - 1], '\0');
        const std::string text(bytes, N);
        return text.substr(0, text.find_last_not_of('\0') + 1);
    };
    for (const auto &[packet, fields] : rows) {
        const std::string buffer = wire(packet + "<NUL>");  // as large as stated, for the sanitizer
        espa_p p{};
        EXPECT_EQ(parse_espa_packet(&p, buffer.data(), int(buffer.size())), 0);
        const espa_record_t &record = p.record;
        std::string found =
            joined(p.header_type, field(record.call_address), field(record.display_message));
        for (const char *other : {record.priority_text, record.type_text, record.beep_text,
                                  record.transmissions_text}) {
            found += other[0] != '\0' ? other + "|"s : "";
        }
        EXPECT_EQ(found, wire(fields));
    }
}

}  // namespace
