// The station of espasend on a socket pair, and what the programs say of themselves.

#include "espasend/control_station.h"

#include <netinet/in.h>
#include <termios.h>

#include <numeric>

#include "espasend/line.h"
#include "espasend/replay.h"
#include "espasend/standard_station.h"
#include "support.h"

namespace {

std::string text_of(const unique_file_t &file) {
    std::string text(4096, '\0');
    rewind(file.get());
    text.resize(fread(text.data(), 1, text.size(), file.get()));
    return text;
}

TEST(Station, SendsCallsAndSaysWhatWentWrong) {
    const std::string select = "<EOT>1<ENQ><EOT>1<ENQ>";  // the first call asks how many ACKs
    const std::string packet =
        "<SOH>1<STX>1<US>7<RS>2<US>m<RS>3<US>b<RS>4<US>t<RS>5<US>n<RS>6<US>p";
    const struct {
        std::string message, answers, error, trace;
        int repeats = 0, garbled = 0;
    } rows[] = {
        {"m", "<EOT><ACK><EOT><ACK><ACK><EOT>", "", "-> EOT\n<- EOT\n-> '1' ENQ\n<- ACK\n"},
        {"m", "x<EOT><ACK><ACK><EOT><ACK><ACK><ACK><EOT>", "", "-> EOT\n<- 'x' EOT\n"},
        {"m", "<EOT><ACK><EOT><ACK><NAK><ACK><EOT>", "", "<- NAK\nnot acknowledged, rep", 1, 1},
        {"m", "<EOT><ACK><EOT><ACK><NAK><NAK>", "not acknowledged, after 1 repeats", "", 1},
        {"m", "<EOT><ACK><EOT><ACK><9B>", "expected ACK, got 0x9b", "<- 0x9b\n"},
        {"m", "<EOT><NUL>", "expected ACK, got 0x00", ""},
        {"m", "", "no echo of EOT: the line was closed", ""},
        {"m", "<EOT>", "no ACK: the line was closed", ""},
        {"m", "<EOT><ACK><EOT><ACK>", "no ACK: the line was closed", ""},
        {"m", "<EOT><ACK><EOT><ACK><ACK>", "no echo of EOT: the line was closed", ""},
        {std::string(997, 'm'), "<EOT><ACK><EOT><ACK><ACK><EOT>", "", ""},
        {std::string(998, 'm'), "", "the call does not fit into a packet of 1024 bytes", ""},
    };
    for (const auto &row : rows) {
        const pair_t line;
        send_bytes(line.far, wire(row.answers));
        shutdown(line.far.get(), SHUT_WR);
        const unique_file_t trace(tmpfile());
        control_station_t station(line.near.get(), 1, trace.get());
        station.set_repeats(row.repeats, row.garbled);
        const bool is_sent = station.send_call({"7", row.message, "b", "t", "n", "p"});
        EXPECT_EQ(joined(is_sent, station.error()), joined(row.error.empty(), row.error));
        EXPECT_THAT(text_of(trace), HasSubstr(row.trace));
        const std::string sent = read_available(line.far);
        if (is_sent && row.message == "m") {
            const std::string good = wire(packet + "<ETX>{");
            const std::string begun = row.garbled > 0 ? wire(packet + "<ETX>z") : "";
            EXPECT_EQ(sent, wire(select) + begun + good + wire("<EOT>"));
        }
        EXPECT_TRUE(station.is_closed());
    }
    const pair_t silent;
    control_station_t station(silent.near.get(), 1, nullptr);
    EXPECT_FALSE(station.send_line("a") && station.end_transmission());
    EXPECT_EQ(station.error(), "no echo of EOT: no answer within 1 seconds");
    EXPECT_EQ(read_available(silent.far), wire("a\r\n<EOT>"));
    EXPECT_FALSE(station.is_closed());
}

// The far end of a line: for each turn of "what is heard;what is answered|...".
void answer_by(const std::string &dialogue, const unique_fd_t &line) {
    std::istringstream turns(dialogue);
    for (std::string turn; std::getline(turns, turn, '|');) {
        const std::string heard = wire(turn.substr(0, turn.find(';')));
        std::string bytes(heard.size(), '\0');
        EXPECT_EQ(recv(line.get(), bytes.data(), bytes.size(), MSG_WAITALL), std::ssize(heard));
        EXPECT_EQ(bytes, heard) << dialogue;
        if (bytes != heard) {
            break;
        }
        // The last answer goes together with the end of the connection.
        const int flags = turns.peek() == EOF ? MSG_MORE : 0;
        send_bytes(line, wire(turn.substr(turn.find(';') + 1)), flags);
    }
    shutdown(line.get(), SHUT_WR);
}

TEST(Station, FollowsTheProcedure) {
    const std::string quiet = "2<ENQ>;<EOT>|", select = "1<ENQ>2<ENQ>;<ACK>|";
    const std::string refused = "1<ENQ>2<ENQ>;<NAK>|<EOT>;|";
    const std::string good = "<SOH>1<STX>1<US>7<ETX>);", bad = "<SOH>1<STX>1<US>7<ETX>(;";
    const std::string report = "<SOH>2<STX>7<US>6<ETX>-";
    const std::string rest = select + good + "<ACK>|<EOT>;";
    const struct {
        std::string dialogue, error, trace;
        int garbled = 0;
        bool asks = false;
    } rows[] = {
        {quiet + rest, "",
         "-> '2' ENQ\n<- EOT\n-> '1' ENQ '2' ENQ\n<- ACK\n"
         "-> SOH '1' STX '1' US '7' ETX ')'\n<- ACK\n-> EOT\n"},
        {quiet + select + good + "<ACK>|<EOT>;<EOT>|<EOT>;",
         "got EOT that nothing asked for: the other side does not follow the procedure", ""},
        {quiet + select + bad + "1<NAK>|" + good + "<ACK>|<EOT>;", "", "<- '1' NAK\nnot ack", 1},
        {quiet + select + good + "0<NAK>|" + good + "9<NAK>|" + good + "2<NAK>|<EOT>;",
         "not acknowledged, after 2 repeats", ""},
        {quiet + refused + rest, "", ""},
        {quiet + refused + refused + refused, "the station refuses its select", ""},
        {"2<ENQ>;1<ENQ>|<ACK>;" + report + "|<ACK>;<EOT>|" + rest, "",
         "<- '1' ENQ\n-> ACK\n<- SOH '2' STX '7' US '6' ETX '-'\n"
         "station 2 reports: SOH '2' STX '7' US '6' ETX '-'\n-> ACK\n<- EOT\n"},
        {"2<ENQ>;1<ENQ>|<ACK>;<ETX>x|1<NAK>;" + report + "|<ACK>;<EOT>|" + rest, "", ""},
        {"2<ENQ>;1<ENQ>|<ACK>;<SOH><ETX>x|1<NAK>;<SOH><ETX>x|1<NAK>;<SOH><ETX>x|1<NAK><EOT>;",
         "a report is garbled again and again", ""},
        {"2<ENQ>;1<ENQ>|<ACK>;" + std::string(1025, 'x') + "|<EOT>;", "a report without an end",
         ""},
        {"2<ENQ>;1x|<EOT>;", "no select behind a station's address", ""},
        {"2<ENQ>;<ACK>|<EOT>;", "got ACK for a poll: the other side does not", ""},
        {"2<ENQ>;2|<EOT>;", "got '2' for a poll: the other side does not", ""},
        {"2<ENQ>;x|<EOT>;", "got 'x' for a poll: an answer that", ""},
        {quiet + "1<ENQ>2<ENQ>;<9B>|<EOT>;", "got 0x9b for a select: an answer that", ""},
        {quiet + select + good + "<EOT>|<EOT>;", "got EOT for a packet", ""},
        {quiet + select + good + "<ACK>|<ENQ>;<ACK>|<EOT>;", "", "", 0, true},
        {quiet + select + good + "<ACK>|<ENQ>;1<NAK>|<EOT>;",
         "asked again it says '1' NAK and not ACK", "", 0, true},
        {quiet + "1<ENQ>2<ENQ>;", "the line was closed", ""},
        {quiet + select + good, "the line was closed", ""},
        {quiet + select + good + "<ACK>|<ENQ>;", "the line was closed", "", 0, true},
        {"2<ENQ>;", "the line was closed", ""},
    };
    for (const auto &row : rows) {
        const pair_t line;
        std::thread peer(answer_by, row.dialogue, std::cref(line.far));
        const unique_file_t trace(tmpfile());
        standard_station_t station(line.near.get(), 60, trace.get(), '1');
        station.set_repeats(2, row.garbled);
        station.set_asks_again(row.asks);
        std::string reported;
        const bool is_sent = station.poll_station('2', &reported) &&
                             station.send_call('2', {"7", "", "", "", "", ""});
        const bool is_over = is_sent && station.expect_silence();
        peer.join();
        EXPECT_EQ(is_over, row.error.empty()) << row.dialogue << station.error();
        EXPECT_THAT(is_over ? "" : station.error(), StartsWith(row.error));
        EXPECT_THAT(text_of(trace), HasSubstr(row.trace));
        EXPECT_EQ(read_available(line.far), "") << row.dialogue;
    }
    const pair_t silent;
    standard_station_t station(silent.near.get(), 1, nullptr, '1');
    station.set_repeats(0, 0);
    EXPECT_TRUE(station.poll_other('5') && station.send_unheard('4', {"7", "", "", "", "", ""}));
    EXPECT_FALSE(station.send_call('2', {"7", "", "", "", "", ""}));
    EXPECT_THAT(station.error(), StartsWith("connected, and nothing answers: is espa_address"));
    EXPECT_EQ(read_available(silent.far),
              wire("5<ENQ><EOT>1<ENQ>4<ENQ><SOH>1<STX>1<US>7<ETX>)<EOT>1<ENQ>2<ENQ><EOT>"));
}

TEST(Station, ReadsARecording) {
    const std::pair<std::string, std::string> rows[] = {
        {"# a\n\n 0.000  -> '2' ENQ\n0.012\t<- EOT\r\n", "0 -> '2' ENQ; 12000 <- EOT; "},
        {"\xEF\xBB\xBF"
         "0 -> 'a\\b'",
         "0 -> 'a' 0x5c 'b'; "},
        {"1.5 -> 'a,b' 0x27'c' CR,<- 0xfF,-> 0x0a",
         "1500000 -> 'a,b' 0x27 'c' CR; "
         "1500000 <- 0xff; 1500000 -> LF; "},
        {"0 -> EOT\nx", "line 2: it does not begin with a time in seconds"},
        {"-1 -> EOT", "line 1: it does not begin with a time in seconds"},
        {"1e9 -> EOT", "line 1: it does not begin with a time in seconds"},
        {"2 -> EOT\n1.999 <- EOT", "line 2: its time is earlier than that of the line before"},
        {"1 EOT", "line 1: there is no -> or <- before the bytes"},
        {"1 -> EOT, EOT", "line 1: there is no -> or <- before the bytes"},
        {"1 ->", "line 1: its bytes are not names, 'text' or 0x00 to 0xff"},
        {"1 -> 'a", "line 1: its bytes are not names, 'text' or 0x00 to 0xff"},
        {"1 -> EOTX", "line 1: its bytes are not names, 'text' or 0x00 to 0xff"},
        {"1 -> 0x1", "line 1: its bytes are not names, 'text' or 0x00 to 0xff"},
        {"1 -> 0x1g", "line 1: its bytes are not names, 'text' or 0x00 to 0xff"},
        {"# nothing\n", "it has no exchange"},
    };
    for (const auto &[text, wanted] : rows) {
        std::vector<exchange_t> exchanges;
        std::string read;
        if (parse_recording(text, &exchanges, &read)) {
            read.clear();
            for (const exchange_t &one : exchanges) {
                read += std::to_string(one.time_us) + (one.is_sent ? " -> " : " <- ") +
                        describe_bytes(one.bytes) + "; ";
            }
        }
        EXPECT_EQ(read, wanted) << text;
    }
    std::string bytes(256, '\0'), back;
    std::iota(bytes.begin(), bytes.end(), '\0');
    EXPECT_TRUE(parse_bytes(describe_bytes(bytes), &back));
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(describe_bytes(" ~\x7F"), "' ~' 0x7f");
}

TEST(Station, ReplaysARecordingAndTellsWhatDiffers) {
    const temp_dir_t dir;
    const std::string poll = "0 -> '2' ENQ\n0 <- EOT\n";
    const struct {
        std::string recording, dialogue, error, trace;
    } rows[] = {
        {poll + "0.3 -> 'a'\n0.3 <- 0x00 ACK\n", "2<ENQ>;<EOT>|a;<NUL><ACK>",
         "2 answers, 0 different", "-> '2' ENQ\n<- EOT\n-> 'a'\n<- 0x00 ACK\n"},
        {poll + "0 -> 'a'\n0 <- ACK\n0 -> 'b'\n", "2<ENQ>;<EOT>|a;1<NAK>|b;",
         "2 answers, 1 different",
         "-> '2' ENQ\n<- EOT\n-> 'a'\n<- '1' NAK\n   recorded: ACK\n-> 'b'\n"},
        {poll + "0 <- ACK\n0.1 -> 'b'\n", "2<ENQ>;<EOT>|b;", "2 answers, 1 different",
         "-> '2' ENQ\n<- EOT\n   recorded: ACK\n-> 'b'\n"},
        {"0 -> 'a'\n0.2 -> 'b'\n", "a;<ACK>|b;", "0 answers, 1 different",
         "-> 'a'\n<- ACK\n   recorded: nothing\n-> 'b'\n"},
        {poll, "2<ENQ>;<EOT><ACK>", "1 answers, 1 different",
         "-> '2' ENQ\n<- EOT\n<- ACK\n   recorded: nothing\n"},
        {poll, "2<ENQ>;", "the line was closed", "-> '2' ENQ\n"},
        {"0 -> 'a'\n60 -> 'b'\n", "a;", "the line was closed", "-> 'a'\n"},
    };
    for (const auto &row : rows) {
        std::vector<exchange_t> exchanges;
        std::string error;
        ASSERT_TRUE(read_recording(dir.write("line", row.recording), &exchanges, &error)) << error;
        const pair_t line;
        std::thread peer(answer_by, row.dialogue, std::cref(line.far));
        const unique_file_t trace(tmpfile());
        recorder_t recorder;
        ASSERT_TRUE(recorder.open(dir.path("again"), &error)) << error;
        replay_t replayed(line.near.get(), 1, trace.get());
        replayed.set_recorder(&recorder);
        const bool is_whole = replayed.run(exchanges);
        peer.join();
        EXPECT_EQ(is_whole ? std::to_string(replayed.answers()) + " answers, " +
                                 std::to_string(replayed.different()) + " different"
                           : replayed.error(),
                  row.error);
        EXPECT_EQ(text_of(trace), row.trace);
        // What is recorded of it has the same, with times.
        std::vector<exchange_t> again;
        EXPECT_TRUE(read_recording(dir.path("again"), &again, &error)) << error;
        EXPECT_TRUE(recorder.is_whole());
    }
    std::vector<exchange_t> none;
    std::string error;
    EXPECT_FALSE(read_recording(dir.path("missing"), &none, &error));
    EXPECT_EQ(error, dir.path("missing") + ": No such file or directory");
    EXPECT_FALSE(recorder_t().open(dir.path(""), &error));
    EXPECT_EQ(error, dir.path("") + ": Is a directory");
}

// Each connection of the program is answered as its dialogue says.
TEST(Station, ProgramDeliversWhatItIsGiven) {
    const temp_dir_t dir;
    const std::string eot = "<EOT>;<EOT>|", select = "<EOT>1<ENQ>;<ACK>|";
    const std::string packet = compose_packet({"7", "m", "", "", "", ""}) + ";<ACK>|";
    const std::string call = packet + eot;
    const std::string first = eot + "1<ENQ>;<ACK>|<EOT>;<EOT>|1<ENQ>;<ACK>|" + call;
    const std::string recording = dir.write("recording", "0 -> 'a'\n0 <- ACK\n");
    const std::string poll = "2<ENQ>;<EOT>|", ask = "1<ENQ>2<ENQ>;";
    const std::string standard = "--standard --address 7 --wait 1 --repeat 1 -m m ";
    const std::string whole = ask + "<ACK>|" + packet + "<EOT>;|";
    const struct {
        int status;
        std::string arguments;
        texts_t dialogues;
        std::string output;
    } rows[] = {
        {0,
         "-A -m a -m b --hold 1 --record " + dir.path("made"),
         {"a\r\nb\r\n;"},
         "\n2 of 2 lines sent\n"},
        {0,
         "--address 7 -m m --count 2 --interval 1 --hold 6",
         {first + eot + eot + "1<ENQ>;<ACK>|" + call + eot + eot},
         "2 of 2 calls acknowledged\n"},
        {0, "--address 7 -m m --count 2", {first, first}, "the line was closed\n"},
        {1, "--address 7 -m m", {"<EOT>;"}, "Is this machine the host of the line's section?\n"},
        {1,
         "--address 7 -m m --count 2",
         {first, "<EOT>;"},
         "no echo of EOT: the line was closed\n"},
        {0,
         "--replay " + recording + " --record " + dir.path("again"),
         {"a;<ACK>|"},
         "\n1 answers recorded, 0 different\n"},
        {1, "--replay " + recording, {"a;<NAK>|"}, "\nespasend: not all is answered as it"},
        {1, "--replay " + recording, {"a;"}, "\n1 answers recorded, 0 different\nespasend: the"},
        {0,
         standard + "--poll 1 --hold 2 --record " + dir.path("standard"),
         {poll + whole, poll + poll},
         "the line was closed\n"},
        {1, standard + "--poll 1", {"2<ENQ>;|2<ENQ>;|<EOT>;"}, "nothing answers: is espa_address"},
        {1, standard + "--poll 0 --also-poll 4", {ask + "<9B>|<EOT>;"}, "got 0x9b for a select"},
        {1, standard + "--also-poll 4", {poll + "4<ENQ>;1x|<EOT>;"}, "no select behind a station"},
    };
    for (const auto &row : rows) {
        std::string error;
        const unique_fd_t listener = listen_on("127.0.0.1", 0, &error);
        program_t program("espasend --connect 127.0.0.1:" +
                          std::to_string(bound_port(listener.get())) + " " + row.arguments);
        unique_fd_t line;
        for (const std::string &dialogue : row.dialogues) {
            line = accept_within(listener.get(), 60, &error);
            answer_by(dialogue, line);
        }
        EXPECT_EQ(program.wait(), row.status) << program.output();
        EXPECT_THAT(program.output(), HasSubstr(row.output));
        EXPECT_EQ(read_available(line), "") << row.arguments;
    }
    EXPECT_THAT(dir.read("again"), HasSubstr("-> 'a'\n"));
    EXPECT_THAT(dir.read("standard"), HasSubstr("-> '2' ENQ\n"));
    EXPECT_THAT(dir.read("made"),
                ContainsRegex("\n +0\\.000  -> 'a' CR LF\n +0\\.[0-9]+  -> 'b' CR LF\n$"));
}

TEST(Station, WaitsAgainWhereItHasJustClosed) {
    std::string error;
    unique_fd_t listener = listen_on("127.0.0.1", 0, &error);
    const int port = bound_port(listener.get());
    const sockaddr_in to{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_FALSE(listen_on("127.0.0.1", port, &error));
    const unique_fd_t peer(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(peer.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
    accept_within(listener.get(), 1, &error).reset();  // the system keeps the port for a while
    listener.reset();
    EXPECT_TRUE(listen_on("127.0.0.1", port, &error)) << error;
}

TEST(Station, SetsTheFrameOfASerialDevice) {
    const unique_fd_t other(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(other.get()) + unlockpt(other.get()), 0);
    const std::string path = ptsname(other.get());
    const std::pair<serial_settings_t, tcflag_t> rows[] = {
        {{1200, 8, "none", 1}, B1200},
        {{9600, 7, "odd", 2}, B9600 | PARODD | CSTOPB},
        {{115200, 7, "even", 1}, B115200},
    };
    for (const auto &[settings, flags] : rows) {  // a pseudo-terminal has 8 bits and no parity bit
        std::string error;
        const unique_fd_t device = open_serial(path, settings, &error);
        termios seen{};
        EXPECT_EQ(tcgetattr(device.get(), &seen), 0) << error;
        EXPECT_EQ(seen.c_lflag & (ICANON | ECHO), 0U);
        EXPECT_EQ(seen.c_cflag & (CBAUD | PARODD | CSTOPB), flags) << settings.baud;
    }
}

TEST(Programs, HelpManualPageAndCompletionAgree) {
    for (const char *program : {"espasend", "vesperstat", "vespercheck"}) {
        const std::string help = run(0, program + " --help"s);
        EXPECT_EQ(help, run(0, program + " -h"s));
        const texts_t options = names_in(help, "(?:^|\n)  (?:-[a-zA-Z], |    )--([a-z-]+)");
        EXPECT_GE(options.size(), 8U) << help;
        const std::string page = read_file(SOURCE_DIR "/man/"s + program + ".1");
        EXPECT_EQ(names_in(page, "\n\\.It Fl (?:[a-zA-Z] [^\n]*, )?(?:Fl )?-([a-z-]+)"), options);
        const std::string completion = read_file(SOURCE_DIR "/completion/"s + program);
        EXPECT_EQ(names_in(completion.substr(completion.rfind("compgen -W")), "--([a-z-]+)"),
                  options);
    }
    const std::string help = run(0, "espasend --help");
    EXPECT_THAT(help, StartsWith("Usage: espasend --listen PORT"));
    EXPECT_THAT(
        help, HasSubstr("\n  -l, --listen PORT         wait for vesperd to connect, as a converter "
                        "does;\n                            port 0 picks"));
    EXPECT_EQ(names_in(help, "\n\n([A-Z][^\n]+):\n"),
              (texts_t{"Examples", "How ESPA 4.4.4 is spoken", "Recordings", "What is sent",
                       "Where the line is"}));
}

TEST(Programs, RefuseArguments) {
    const struct {
        int status;
        std::string command, words;
    } rows[] = {
        {2, "espasend --message x", "give one of --listen, --connect and --device (try --help)\n"},
        {2, "espasend --listen 1 -m x --also-poll 4,", "--also-poll takes digits with commas"},
        {2, "espasend --listen 1 -m x --standard --own x", "--own takes a digit, not 'x'"},
        {2, "espasend --listen 1 -m x --parity mark", "--parity takes none, even or odd"},
        {2, "espasend --listen 1 -m x --standard -A", "give either --ascii or --standard"},
        {1, "espasend --connect 127.0.0.1:x -m x", "not a host and its port: 127.0.0.1:x\n"},
        {1, "espasend --connect 127.0.0.1:1 --wait 1 -m x",
         "no connection to 127.0.0.1:1. Look at host"},
        {2, "espasend --listen 70000", "a number from 0 to 65535, not '70000' (try --help)\n"},
        {2, "espasend --listen 1", "give at least one --message"},
        {2, "espasend --listen 1 -m x --replay f", "--replay sends what was recorded, and nothing"},
        {2, "espasend --listen 1 --replay f --record f", "--record would write over what"},
        {1, "espasend --listen 1 --replay /nonexistent", "/nonexistent: No such file or directory"},
        {2, "espasend --listen 1 -Am x --garble 1", "--garble needs a block check character"},
        {2, "espasend --listen 1 --message x --type \"$(printf 't\\t')\"", "control characters"},
        {2, "espasend -x", "option '-x' is none"},
        {2, "espasend --ascii=no", "option '--ascii=no' is none"},
        {1, "espasend --bind nowhere --listen 0 -m x", "not an IPv4 address: nowhere\n"},
        {1, "espasend --listen 0 --wait 1 --message x", "nobody connected within 1 seconds. Look"},
        {1, "espasend --device /dev/ptmx --wait 1 -m x", "no answer within 1 seconds\n"},
        {1, "espasend -D /dev/null --baud 1300 -m x", "no such baud rate: 1300"},
        {1, "espasend --device /dev/null -m x", "cannot open serial device /dev/null: "},
        {3, "vesperstat --check --json", "give either --json or --check"},
        {3, "vesperstat $(printf '\\302\\233')", "unexpected argument '?'"},
        {3, "vesperstat $(printf -- '--\\033x')", "option '--?x' is none"},
        {64, "vespercheck a b", "one file at a time, not b too"},
        {64, "vespercheck -i ../a", "no instance can have the name '../a'"},
        {64, "vespercheck -l a", "--line and the fields of a call need --message"},
        {64, "vespercheck --converters -m x", "--converters is asked alone"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(run(row.status, row.command), HasSubstr(row.words)) << row.command;
    }
}

}  // namespace
