// Lines whose paging systems connect by themselves.

#include <arpa/inet.h>

#include "espasend/standard_station.h"
#include "running_daemon.h"
#include "service.h"
#include "stats.h"

namespace {

using Listening = Installed;

const std::string RULES =
    "[rule_x]\npattern = .*\naction = call\nextension = %number%\nrecord_fields = yes\n"
    "context = %line%-%priority%\n[rule_a]\naction = call\nextension = $n\n"
    "value[n] = LINE ([0-9]+)\n[logger]\nstatus_file = @status\njournal_file = @journal\n";

// An address on which no other test listens.
const std::string HERE = [] {
    std::random_device random;
    const auto byte = [&] { return "." + std::to_string(1 + random() % 254); };
    return "127" + byte() + byte() + byte();
}();
const std::string LISTENS = "listen = yes\nlisten_address = " + HERE + "\n";

// From an address of the machine to a port of that one.
unique_fd_t connect_from(const char *address, const std::string &port) {
    unique_fd_t sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in from{AF_INET, 0, {inet_addr(address)}, {}};
    const sockaddr_in to{AF_INET, htons(uint16_t(std::stoi(port))), {inet_addr(HERE.c_str())}, {}};
    EXPECT_EQ(bind(sock.get(), reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
    const auto connects = [&] {
        return connect(sock.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
    };
    EXPECT_TRUE(eventually(connects)) << port;
    return sock;
}

bool is_closed_at_once(const unique_fd_t &sock) {
    char byte = 0;
    return recv(sock.get(), &byte, 1, 0) <= 0;
}

// Delivers a call as the control station of the line, whose station is 2.
bool calls(const unique_fd_t &sock, const std::string &number) {
    standard_station_t station(sock.get(), 60, nullptr, '1');
    call_t call = to(number, "FIRE");
    call.priority = "03";
    const bool is_delivered = station.send_call('2', call);
    EXPECT_TRUE(is_delivered) << station.error();
    return is_delivered;
}

TEST_F(Listening, ServesWhoeverMayConnect) {
    const std::string espa = LISTENS + "rules = rule_x\nespa_address = 2\n";
    const std::string ascii = LISTENS + "rules = rule_a\nprotocol = ascii\n";
    daemon_t daemon({{"espa", espa}, {"ascii", ascii}, {"taken", espa}}, RULES);
    const std::string &port = daemon.ports[0];
    std::string error;
    unique_fd_t taken = listen_on(HERE, std::stoi(daemon.ports[2]), &error);
    daemon.run_in_foreground("-d");
    daemon.expect_logged("Unable to listen on " + HERE + ":" + daemon.ports[2] +
                         " for pager taken");
    daemon.expect_logged("Call service action general_error");
    const unique_fd_t first = connect_from("127.0.0.1", port);
    EXPECT_TRUE(calls(first, "1"));
    EXPECT_THAT(daemon.call("1"), HasSubstr("Context: espa-03\r"));
    for (int i = 0; i < 100; i++) {  // more than are taken in one go
        EXPECT_TRUE(is_closed_at_once(connect_from("127.0.0.2", port)));
    }
    EXPECT_TRUE(is_closed_at_once(connect_from("127.0.0.3", port)));
    EXPECT_TRUE(calls(first, "2"));
    EXPECT_EQ(daemon.count("A connection of 127.0.0."), 2);
    send_bytes(first, wire("1<ENQ>2<ENQ><SOH>1<STX>"));  // and loses its power
    const unique_fd_t second = connect_from("127.0.0.1", port);
    EXPECT_TRUE(calls(second, "3"));
    for (int i = 0; i < 5; i++) {  // a connection for each line, as some systems make them
        send_bytes(connect_from("127.0.0.1", daemon.ports[1]),
                   "LINE " + std::to_string(i) + "\r\n");
    }
    for (int i = 0; i < 5; i++) {
        EXPECT_FALSE(daemon.call(std::to_string(i)).empty());
    }
    taken.reset();
    EXPECT_TRUE(calls(connect_from("127.0.0.1", daemon.ports[2]), "4"));
    const std::string said = run(
        0, "espasend --connect " + HERE + ":" + daemon.ports[2] +
               " --standard --message FIRE --address 5 --also-poll 4,5 --also-select 6 --count 2 "
               "--interval 2 --poll 1");
    EXPECT_THAT(said,
                AllOf(HasSubstr("\n-> '4' ENQ\nstation 4 does not answer\n-> EOT\n-> '5' ENQ\n"
                                "station 5 does not answer\n-> EOT\n-> '1' ENQ '6' ENQ\n"),
                      HasSubstr("1 of 2 calls acknowledged\n-> '2' ENQ\n<- EOT\n-> '4'"),
                      EndsWith("2 of 2 calls acknowledged\n")));
    EXPECT_THAT(daemon.dir.read("journal"), ContainsRegex("\"ms\":[0-9.]+,\"priority\":\"03\"}\n"));
    EXPECT_TRUE(eventually([&] {
        const std::string status = daemon.dir.read("status");
        return status.find("refused_total{line=\"espa\"} 101\n") != std::string::npos &&
               status.find("\",state=\"waiting for a connection\"} 1\n") != std::string::npos;
    })) << daemon.dir.read("status");
    EXPECT_THAT(run(0, "vesperstat --json -s " + daemon.dir.path("status")),
                HasSubstr("waiting for a connection"));
}

TEST_F(Listening, ReloadMovesALine) {
    daemon_t daemon({{"line", LISTENS + "rules = rule_x\n"}, {"nobody", LISTENS}}, RULES);
    const child_t process = daemon.start();
    const unique_fd_t before = connect_from("127.0.0.1", daemon.ports[0]);
    EXPECT_TRUE(delivers(before, "1"));
    const std::string old = daemon.ports[0];
    const unique_fd_t elsewhere = listen_anywhere(&daemon.ports[0]);
    daemon.configure({{"line", LISTENS + "host = 127.0.0.4\nrules = rule_x\n"}}, RULES);
    daemon.expect_logged("No connection of 127.0.0.1 on port " + daemon.ports[1]);
    EXPECT_EQ(daemon.count("Call service action connection_lost"), 1);  // the name of no_response
    EXPECT_TRUE(process.send(SIGHUP));
    const unique_fd_t after = connect_from("127.0.0.4", daemon.ports[0]);
    EXPECT_TRUE(delivers(after, "2"));
    EXPECT_TRUE(is_closed_at_once(before));
    EXPECT_TRUE(is_closed_at_once(connect_from("127.0.0.1", daemon.ports[0])));
    EXPECT_EQ(daemon.count("Trying to swap to ASCII"), 0);
    std::string error;
    EXPECT_TRUE(listen_on(HERE, std::stoi(old), &error)) << error;
    daemon.configure({{"line", "rules = rule_x\n"}}, RULES);
    EXPECT_TRUE(process.send(SIGHUP));
    EXPECT_TRUE(eventually([&] {  // it connects by itself now, and has left its port
        return bool(listen_on(HERE, std::stoi(daemon.ports[0]), &error));
    })) << error;
}

TEST_F(Listening, LiveReloadLetsALineBe) {
    const std::string keys = LISTENS + "rules = rule_x\n";
    const std::string rest = RULES + "live_reload = yes\n";
    daemon_t daemon({{"stays", keys}, {"moves", keys}}, rest);
    const child_t process = daemon.start();
    const unique_fd_t stays = connect_from("127.0.0.1", daemon.ports[0]);
    const unique_fd_t moves = connect_from("127.0.0.1", daemon.ports[1]);
    EXPECT_TRUE(delivers(moves, "1"));
    const unique_fd_t elsewhere = listen_anywhere(&daemon.ports[1]);
    daemon.configure({{"stays", keys}, {"moves", keys}}, rest);
    EXPECT_TRUE(process.send(SIGHUP));
    const unique_fd_t moved = connect_from("127.0.0.1", daemon.ports[1]);
    EXPECT_TRUE(delivers(moved, "2"));
    EXPECT_TRUE(is_closed_at_once(moves));
    EXPECT_TRUE(delivers(stays, "3"));
    std::swap(daemon.ports[0], daemon.ports[1]);
    daemon.configure({{"moves", keys}, {"heir", keys}}, rest);
    EXPECT_TRUE(process.send(SIGHUP));
    EXPECT_TRUE(is_closed_at_once(stays));
    const unique_fd_t heir = connect_from("127.0.0.1", daemon.ports[1]);
    EXPECT_TRUE(delivers(heir, "5"));
    EXPECT_EQ(daemon.count("Unable to listen"), 0);
    EXPECT_TRUE(delivers(moved, "4"));
}

// What a line's thread answers, counts and logs.
TEST_F(Tables, ThreadOfALine) {
    const std::string fire = compose_packet(to("7", "FIRE")), x = compose_packet(to("7", "x"));
    const std::string other = wire("<SOH>2<ETX>1"), wrong = wire("<SOH>2<ETX>2");
    const std::string closed = "was closed or failed. Waiting for a connection;";
    const std::string end = "connected again;" + closed + closed;
    const struct {
        std::string keys, sent, seen;
    } rows[] = {
        {"ack_when_done = y", x + other + "X",
         wire("<ACK><ACK>|3|0|2|0|1|1|") +
             "0x01;BCC is OK;send ACK;empty rules for pager;0x01;BCC is OK;send ACK;brought a byte "
             "out of place. Waiting for a connection;" +
             end},
        {"no_check_bcc = y\nespa_address = 2", wire("2<ENQ>") + wrong + x + wire("<SOH><ETX>1"),
         wire("<EOT>3<NAK><ACK>|3|1|1|0|1|0|") +
             "makes no sense. won't process;send NAK;send ACK;0x01;BCC check is OFF;empty rules "
             "for pager;" +
             closed + end},
        {"espa_address = 2\nack_when_done = y", wrong + other + wire("4ab<ENQ>") + fire,
         wire("1<NAK>3<NAK>1<NAK>2<NAK>|3|0|2|1|0|3|") +
             "0x01;send NAK;BCC is WRONG. won't process;makes no sense. won't process;send NAK;"
             "Bytes that belong to nothing on the line of pager p, the last of them 61: dropped;"
             "0x01;BCC is OK;Unable to open file for writing;send NAK;" +
             closed + end},
    };
    std::string port;
    for (const auto &[keys, sent, expected] : rows) {
        unique_fd_t(listen_anywhere(&port)).reset();
        load("[rule_x]\npattern = FIRE\naction = call\n[p]\nhost = 127.0.0.1\nport = " + port +
             "\nspool_dir = /missing\nrules = rule_x\n" + LISTENS + keys + "\n");
        logger_init(dir.write("log", "").c_str(), 5, 0, 0);
        doexit = 0;
        std::thread thread(service_proc, &pagers[0]);
        auto line = connect_from("127.0.0.1", port);
        send_bytes(line, sent);
        shutdown(line.get(), SHUT_WR);
        std::string seen;
        for (char byte = 0; recv(line.get(), &byte, 1, 0) > 0;) {
            seen += byte;
        }
        line = connect_from("127.0.0.1", port);
        const auto last = connect_from("127.0.0.1", port);
        EXPECT_TRUE(is_closed_at_once(line));
        shutdown(last.get(), SHUT_WR);
        EXPECT_TRUE(is_closed_at_once(last));
        const auto &stats = line_stats[0];
        seen += joined("", stats.connects.get(), stats.polls.get(), stats.packets.get(),
                       stats.check_errors.get(), stats.unmatched.get(), stats.noise_bytes.get());
        std::string logged = log();
        for (const auto &[pattern, text] :
             {std::pair("\n+", ";"),
              {"DEBUG: (?!0x0[01]|P)[^;]*;|VERBOSE: [^;]*;", ""},
              {"[A-Z]+: (Packet is done. |ESPA packet |Line of .*? to \\S+ |The .*? p )?", ""}}) {
            logged = replaced(logged, pattern, text);
        }
        EXPECT_EQ(seen + logged, expected);
        doexit = 1;
        connect_from("127.0.0.1", port);
        thread.join();
        EXPECT_EQ(stats.state, line_state_t::ENDED);
        stats_end(&pagers[0]);
    }
}

TEST_F(Tables, ListeningIsLoaded) {
    find_host = [](const char *) {
        static char first[] = "\x0A\x00\x00\x01", second[] = "\x0A\x00\x00\x02";
        static char *addresses[] = {first, second, nullptr};
        static hostent host{nullptr, nullptr, AF_INET, 4, addresses};
        return &host;
    };
    load(
        "[p]\nhost = h\nlisten = yes\nlisten_address = 127.0.0.300\n[q]\nhost = h\n"
        "listen_address = 127.0.0.1\n");
    find_host = gethostbyname;
    EXPECT_EQ(joined(pagers[0].listen, pagers[0].listen_address, pagers[0].recover_link), "1|0|1|");
    EXPECT_EQ(joined(pagers[1].listen, pagers[1].recover_link), "0|0|");
    EXPECT_EQ(pagers[0].peers[1], inet_addr("10.0.0.2"));
    EXPECT_EQ(pagers[0].peers[2], 0U);
    EXPECT_THAT(log(), HasSubstr("listen_address takes an IPv4 address, not 127.0.0.300"));
}

}  // namespace
