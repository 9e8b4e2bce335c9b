// The line tool as an installer meets it.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "support.h"

namespace {

std::string usage_error(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "espasend");
    program_t tool(arguments);
    EXPECT_EQ(tool.wait(), 2);
    return tool.output();
}

TEST(Espasend, RefusesBadArguments) {
    EXPECT_THAT(usage_error({"--message", "x"}), testing::HasSubstr("either --listen or --device"));
    EXPECT_THAT(usage_error({"--listen", "1"}), testing::HasSubstr("at least one --message"));
    EXPECT_THAT(usage_error({"--listen", "70000"}), testing::HasSubstr("--listen takes a number from 0 to 65535"));
    EXPECT_THAT(usage_error({"--count", "3x"}), testing::HasSubstr("--count takes a number"));
    EXPECT_THAT(usage_error({"--message", "a\x03"}), testing::HasSubstr("control characters"));
    EXPECT_THAT(usage_error({"--unknown"}), testing::HasSubstr("unrecognized option"));
    program_t help({"espasend", "--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_THAT(help.output(), testing::HasSubstr("Examples:"));
}

TEST(Espasend, SaysWhyNothingWasDelivered) {
    const auto error = [](const std::vector<std::string> &arguments) {
        program_t tool(arguments);
        EXPECT_EQ(tool.wait(), 1);
        return tool.output();
    };
    EXPECT_THAT(error({"espasend", "--listen", "0", "--wait", "1", "--message", "x"}),
                testing::EndsWith("espasend: nobody connected within 1 seconds\n"));
    EXPECT_THAT(error({"espasend", "--device", "/dev/null", "--message", "x"}),
                testing::HasSubstr("cannot open serial device /dev/null"));
    EXPECT_THAT(error({"espasend", "--device", "/dev/null", "--baud", "1201", "--message", "x"}),
                testing::HasSubstr("no such baud rate: 1201"));
}

// The other end of a pseudo-terminal plays the daemon.
TEST(Espasend, DeliversOverASerialDevice) {
    const unique_fd_t daemon(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(daemon.get()) | unlockpt(daemon.get()), 0);
    const std::string device = ptsname(daemon.get());
    const unique_fd_t keep(open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    program_t tool({"espasend", "--device", device, "--wait", "5", "--address", "47", "--message", "FIRE", "--beep",
                    "2", "--type", "3", "--transmissions", "4", "--priority", "1"});
    control_station_t line(daemon.get(), 30, nullptr);
    const std::string packet =
        "\x01"
        "1\x02"
        "1\x1F"
        "47\x1E"
        "2\x1F"
        "FIRE\x1E"
        "3\x1F"
        "2\x1E"
        "4\x1F"
        "3\x1E"
        "5\x1F"
        "4\x1E"
        "6\x1F"
        "1\x03";
    for (const std::string &sent : {"\x04"s, "1\x05"s, "\x04"s, "1\x05"s, packet}) {
        ASSERT_TRUE(line.expect(sent)) << line.error();
        line.send_bytes(sent == "\x04" ? "\x04" : sent == "1\x05" ? "\x06\x06" : "");
    }
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_THAT(tool.output(), testing::HasSubstr("-> SOH '1' STX '1' US '47' RS '2' US 'FIRE' RS '3'"));
    EXPECT_THAT(tool.output(), testing::HasSubstr("<- ACK ACK\n"));
    EXPECT_THAT(tool.output(), testing::EndsWith("espasend: no ACK: no answer within 5 seconds\n"));
}

}  // namespace
