// The built daemon in the foreground against a scripted line.

#include <sys/socket.h>

#include "support.h"

namespace {

const std::string RULES =
    "[rule_fire]\npattern = ^FIRE\naction = call\nextension = 1$zone\nchannel = C/%number%\n"
    "context = x\ncallerid = '%message%'\nvalue[zone] = ZONE ([0-9]+)\n"
    "[rule_script]\npattern = SCRIPT.*\naction = script\n"
    "[rule_rest]\naction = call\nextension = rest\nchannel = R\ncontext = %alarm%\ncallerid = "
    "%message%\n";
const std::string LISTED = "rules = rule_fire,rule_script\ndefault_rule = rule_rest\n";

class Daemon : public testing::Test {
  protected:
    void SetUp() override { SKIP_UNLESS_DAEMON_RUNS(); }
};

std::string run(const std::vector<std::string> &arguments) {
    program_t program(arguments);
    EXPECT_EQ(program.wait(), 0);
    return program.output();
}

TEST_F(Daemon, CommandLine) {
    EXPECT_THAT(
        run({"vesperd", "-d"}),
        testing::StartsWith("\nvesperd: ESPA 4.4.4 to PBX application daemon.\n\nUsage:\nvesperd [options]\n\n"));
    EXPECT_THAT(run({"vesperd", "--config"}), testing::EndsWith("\t-h, --help\t\t\tshow this text\n\n\n"));
    EXPECT_THAT(run({"vesperd", "-sh"}), testing::HasSubstr("use custom config file \n"));
    EXPECT_EQ(run({"vesperd", "-f", "-c", "/missing/file"}),
              "\nUnable to open configuration file /missing/file. Exiting...\n\n");
}

TEST_F(Daemon, TestMode) {
    EXPECT_EQ(run({"vesperd", "-m", "FIRE ZONE 3", "-c", SOURCE_DIR "/examples/nurse-call.conf", "-s"}),
              "Running test over message: 'FIRE ZONE 3' at pager 'ward3'\n"
              "Rules: rule_fire,rule_arrest,rule_room\ndefault rule: rule_desk\n"
              "Selected rule rule_fire\n\tAction:\tCALL\n"
              "\t\tCallerID: \"Fire zone 3\" <8003>\n\t\tChannel: Local/fire@pagers\n"
              "\t\tContext: fire-team\n\t\tExtension: 8003\n");
    daemon_t daemon("default_rule = rule_s\n",
                    "[logger]\nlog_level = 0\n[rule_s]\naction = script\ncallscript = run %number% "
                    "%alarm%\n[rule_k]\n");
    const std::string file = daemon.dir.path("quillet.conf");
    EXPECT_EQ(run({"vesperd", "-m", "x", "-c", file}),
              "Running test over message: 'x' at pager 'line'\nRules: \ndefault rule: "
              "rule_s\nSelected rule rule_s\n"
              "\tAction:\tSCRIPT\n\tFollowing command to launch: \n\t\trun 1000 message\n");
    daemon.dir.write("empty", "[logger]\nlog_level = 0\n");
    EXPECT_THAT(run({"vesperd", "-m", "x", "-c", daemon.dir.path("empty")}),
                testing::HasSubstr("pager ''\nRules: \ndefault rule: \nNo matching rules found. Just skip\n"));
}

TEST_F(Daemon, FromRequestToCallFile) {
    daemon_t daemon(LISTED, RULES);
    daemon.start();
    const unique_fd_t line = daemon.converter.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_call({"4711", "FIRE ZONE 3", "1", "3", "1", "2"})) << station.error();
    ASSERT_TRUE(eventually([&] { return daemon.calls("13").size() == 1; }));
    EXPECT_TRUE(daemon.logs("\tSend message 'FIRE ZONE 3' to '4711'\n"));
    EXPECT_THAT(daemon.calls("13"), testing::ElementsAre(call_file("C/4711", "x", "13", "FIRE ZONE 3")));

    // A wrong check character is acknowledged, logged and dropped; another type is only logged.
    std::string packet = compose_packet({"4711", "FIRE ZONE 4", "", "", "", ""});
    packet.back() ^= 1;
    EXPECT_TRUE(station.send_packet(packet));
    EXPECT_TRUE(daemon.logs("vesperd:") && daemon.logs(" in service_proc: ESPA packet BCC is WRONG. won't process\n"));
    EXPECT_TRUE(
        station.send_packet("\x01"
                            "2\x02"
                            "1\x1F"
                            "5\x03("));
    EXPECT_TRUE(daemon.logs("Got ESPA packet of type 32\n"));

    ASSERT_TRUE(station.send_call({"4712", "other", "", "", "", ""})) << station.error();
    ASSERT_TRUE(eventually([&] { return daemon.calls("rest").size() == 1; }));
    EXPECT_THAT(daemon.calls("rest"), testing::ElementsAre(call_file("R", "message", "rest", "other")));
    EXPECT_EQ(daemon.calls("14").size(), 0u);
    EXPECT_THAT(daemon.log(), testing::HasSubstr("in service_proc: 0x1f\n"));
}

TEST_F(Daemon, CheckCharacterSwitchedOff) {
    daemon_t daemon("no_check_bcc = yes\n" + LISTED, RULES);
    daemon.start();
    const unique_fd_t line = daemon.converter.accept();
    send_all(line,
             "\x01"
             "1\x02"
             "2\x1F"
             "FIRE ZONE 5\x03?");
    EXPECT_TRUE(daemon.logs("ESPA packet BCC check is OFF"));
    EXPECT_TRUE(eventually([&] { return daemon.calls("15").size() == 1; }));
    send_all(line,
             "\x01"
             "1\x02"
             "2\x1F" +
                 std::string(1500, 'x') + "\n");
    EXPECT_TRUE(daemon.logs("Send message '" + std::string(128, 'x') + "' to ''"));
}

// One connection after the other: a stream that is not ESPA, then lines.
TEST_F(Daemon, FallsBackToAsciiLines) {
    daemon_t daemon(LISTED + "read_timeout = no\n", RULES);
    daemon.start();
    send_all(daemon.converter.accept(), "x");
    EXPECT_TRUE(daemon.logs("Trying to swap to ASCII. PLEASE check configuration\n"));
    EXPECT_TRUE(daemon.logs("Call service action connected\n"));
    EXPECT_LT(daemon.log().find("Read started but not a SOH\n"),
              daemon.log().find("Perhaps protocol selection is wrong\n"));
    const unique_fd_t line = daemon.converter.accept();
    send_all(line,
             "ABCD\r\n\x01"
             "1ABCDEF\nFIRE ZONE \xE9\r\nFIRE ZONE 7\r\n");
    EXPECT_TRUE(eventually([&] { return daemon.calls("17").size() == 1; }));
    EXPECT_THAT(daemon.calls("17"), testing::ElementsAre(call_file("C/", "x", "17", "FIRE ZONE 7")));
    EXPECT_TRUE(daemon.logs("message=FIRE ZONE 7"));
    EXPECT_TRUE(daemon.logs("ASCII message is too small"));
    EXPECT_TRUE(daemon.logs("trying to swap protocols.\nPLEASE double check configuration\n"));
    EXPECT_TRUE(daemon.logs("non-ASCII character 0xffffffe9 in ASCII packet"));
    EXPECT_EQ(daemon.calls("1").size(), 1u);  // "FIRE ZONE \xE9" has no number
}

TEST_F(Daemon, RefusedConnectionsAndServiceAlarms) {
    daemon_t daemon("send_service_actions = yes\ndefault_rule = rule_rest\n", RULES);
    daemon.dir.write("started", "-1\n");
    daemon.converter.close();
    daemon.start();
    EXPECT_TRUE(daemon.logs("Error connecting to 127.0.0.1:" + std::to_string(daemon.converter.port()) + "\n", 2));
    EXPECT_TRUE(daemon.logs("in alarm_time: Alarm started  supressed\n"));
    EXPECT_TRUE(daemon.logs("Call service action connection_lost\n"));
    EXPECT_THAT(daemon.calls("rest").at(0), call_file("R", "connection_lost", "rest", ""));
}

TEST_F(Daemon, ScriptsDoNotHoldTheLine) {
    temp_dir_t out;
    daemon_t daemon(LISTED, RULES + "[rule_script]\ncallscript = \"ls -l /proc/self/fd > " + out.path("fds") +
                                "; echo %number% > " + out.path("number") + "\"\n");
    daemon.start();
    const unique_fd_t line = daemon.converter.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_call({"99", "SCRIPT please", "", "", "", ""}));
    EXPECT_TRUE(eventually([&] { return out.read("number") == "99\n"; }));
    EXPECT_THAT(out.read("fds"), testing::Not(testing::HasSubstr("socket:")));
}

// Silence takes down an ESPA line after the reader's wait, an ASCII line only when it is
// configured.
TEST_F(Daemon, SilentLines) {
    daemon_t espa("", "");
    daemon_t ascii("protocol = ascii\nread_timeout = yes\n", "");
    daemon_t patient("protocol = ascii\nread_timeout = no\n", "");
    espa.start();
    ascii.start();
    patient.start();
    const unique_fd_t kept = patient.converter.accept();
    const unique_fd_t first = espa.converter.accept();
    const unique_fd_t second = ascii.converter.accept();
    const unique_fd_t espa_again = espa.converter.accept();
    const unique_fd_t ascii_again = ascii.converter.accept();
    EXPECT_TRUE(espa.logs("Call service action \n"));
    EXPECT_TRUE(ascii.logs("Call service action \n"));
    EXPECT_FALSE(control_station_t(kept.get(), 1, nullptr).is_closed());
    EXPECT_THAT(patient.log(), testing::Not(testing::HasSubstr("Call service action \n")));
    EXPECT_THAT(espa.log(), testing::Not(testing::HasSubstr("swap to ASCII")));
}

TEST_F(Daemon, EspasendDelivers) {
    daemon_t daemon("espa_poll = yes\n" + LISTED, RULES);
    const std::string port = std::to_string(daemon.converter.port());
    daemon.converter.close();
    program_t tool({"espasend", "--listen", port, "--address", "47", "--message", "FIRE ZONE 1", "--message",
                    "FIRE ZONE 2", "--count", "2"});
    daemon.start();
    EXPECT_EQ(tool.wait(), 0) << tool.output();
    EXPECT_THAT(tool.output(), testing::HasSubstr("<- ACK ACK\n"));
    EXPECT_THAT(tool.output(), testing::EndsWith("4 of 4 calls acknowledged\n"));
    EXPECT_TRUE(eventually([&] { return !daemon.calls("11").empty() && !daemon.calls("12").empty(); }));
    program_t lines({"espasend", "--listen", port, "--ascii", "--message", "FIRE ZONE 8", "--hold", "2"});
    EXPECT_EQ(lines.wait(), 0) << lines.output();
    EXPECT_THAT(lines.output(), testing::HasSubstr("-> 'FIRE ZONE 8' CR LF\n1 of 1 lines sent\n"));
    EXPECT_TRUE(eventually([&] { return daemon.calls("18").size() == 1; }));
}

}  // namespace
