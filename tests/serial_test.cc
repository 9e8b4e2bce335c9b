// The serial path with parts that others wrote: line tool, pseudo-terminals, a real converter, daemon, call file.

#include "support.h"

namespace {

struct Serial : Installed {
    void SetUp() override {
        Installed::SetUp();
        listen_anywhere(&port);
        if (IsSkipped() || !fs::exists("/usr/bin/socat") || !fs::exists("/usr/sbin/ser2net")) {
            GTEST_SKIP() << "needs root, socat and ser2net";
        }
        dir.write("ser2net.yaml", "connection: &line\n  accepter: tcp,127.0.0.1," + port +
                                      "\n  connector: serialdev," + dir.path("converter") +
                                      ",9600n81,local\n  options:\n    kickolduser: true\n");
        cable = std::make_unique<program_t>(
            std::vector<std::string>{"/usr/bin/socat", "pty,raw,echo=0,link=" + dir.path("station"),
                                     "pty,raw,echo=0,link=" + dir.path("converter")});
        ASSERT_TRUE(eventually(
            [&] { return fs::exists(dir.path("station")) && fs::exists(dir.path("converter")); }));
        start_converter();
    }
    void start_converter() {
        converter.reset();
        converter = std::make_unique<program_t>(std::vector{"/usr/sbin/ser2net"s, "-n"s, "-d"s,
                                                            "-c"s, dir.path("ser2net.yaml"), "-P"s,
                                                            dir.path("pid")});
    }
    void start_daemon(const std::string &protocol) {
        const std::string text =
            "[logger]\nlog_level = 0\n[line]\nhost = 127.0.0.1\nread_timeout = no\nrules = "
            "rule_x\nport = ";
        const std::string conf = dir.write(
            "conf", text + port + "\nprotocol = " + protocol + "\nspool_dir = " + dir.path() +
                        "\n[rule_x]\npattern = ^CALL\naction = call\nextension = $n\nvalue[n] = "
                        "CALL ([0-9]+)\n");
        daemon = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-d"s, "-c"s, conf});
    }
    // Until the call arrives: nobody knows when the daemon has found a restarted converter again.
    void send(const std::vector<std::string> &options, const std::string &number) {
        std::vector<std::string> tool = {
            "espasend",  "--wait",        "3", "--device", dir.path("station"),
            "--message", "CALL " + number};
        tool.insert(tool.end(), options.begin(), options.end());
        EXPECT_TRUE(eventually([&] {
            program_t(tool).wait();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            return !dir.list("call_" + number + "_").empty();
        })) << daemon->output();
    }

    temp_dir_t dir;
    std::string port;
    std::unique_ptr<program_t> cable, converter, daemon;
};

TEST_F(Serial, FromDeviceToCallFileAndBackAfterARestartOfTheConverter) {
    start_daemon("espa");
    send({"--address", "4711"}, "1");
    start_converter();
    send({"--ascii"}, "2");  // what an ESPA line speaks after its link was lost
}

TEST_F(Serial, AsciiLines) {
    start_daemon("ascii");
    send({"--ascii"}, "1");
    start_converter();
    send({"--ascii"}, "2");
}

}  // namespace
