// The serial path with parts that others wrote: line tool, pseudo-terminals, a real converter, daemon, call file.

#include <random>

#include "support.h"

namespace {

struct Serial : Test {
    void SetUp() override {
        if (geteuid() != 0 || getpwnam("ovo") == nullptr) { GTEST_SKIP() << "needs root and the daemon's account"; }
        if (!fs::exists("/usr/bin/socat") || !fs::exists("/usr/sbin/ser2net")) {
            GTEST_SKIP() << "needs socat and ser2net";
        }
        dir.write("ser2net.yaml", "connection: &line\n  accepter: tcp,127.0.0.1," + port + "\n  connector: serialdev," +
                                      dir.path("converter") + ",9600n81,local\n  options:\n    kickolduser: true\n");
        cable = std::make_unique<program_t>(std::vector<std::string>{"/usr/bin/socat",
            "pty,raw,echo=0,link=" + dir.path("station"), "pty,raw,echo=0,link=" + dir.path("converter")});
        ASSERT_TRUE(eventually([&] { return fs::exists(dir.path("station")) && fs::exists(dir.path("converter")); }));
        start_converter();
    }
    void start_converter() {
        converter = std::make_unique<program_t>(std::vector<std::string>{
            "/usr/sbin/ser2net", "-n", "-d", "-c", dir.path("ser2net.yaml"), "-P", dir.path("ser2net.pid")});
    }
    void start_daemon(const std::string &protocol) {
        const std::string conf =
            dir.write("conf", "[logger]\nlog_level = 0\n[line]\nhost = 127.0.0.1\nport = " + port +
                                  "\nprotocol = " + protocol + "\nread_timeout = no\nspool_dir = " + dir.path() +
                                  "\nrules = rule_x\n[rule_x]\npattern = ^CALL\naction = call\n"
                                  "extension = $n\nvalue[n] = CALL ([0-9]+)\n");
        daemon = std::make_unique<program_t>(std::vector{"vesperd"s, "-f"s, "-d"s, "-c"s, conf});
    }
    // Until the call arrives: nobody knows when the daemon has found a restarted converter again.
    void send(const std::vector<std::string> &options, const std::string &number) {
        std::vector<std::string> tool = {
            "espasend", "--wait", "3", "--device", dir.path("station"), "--message", "CALL " + number};
        tool.insert(tool.end(), options.begin(), options.end());
        EXPECT_TRUE(eventually([&] {
            program_t(tool).wait();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            return !dir.list("call_" + number + "_").empty();
        })) << daemon->output();
    }

    temp_dir_t dir;
    const std::string port = std::to_string(20000 + std::random_device()() % 12000);
    std::unique_ptr<program_t> cable, converter, daemon;
};

TEST_F(Serial, FromDeviceToCallFileAndBackAfterARestartOfTheConverter) {
    start_daemon("espa");
    send({}, "1");
    send({"--address", "4711"}, "2");
    converter.reset();
    start_converter();
    send({"--ascii"}, "3");  // what an ESPA line speaks after its link was lost
}

TEST_F(Serial, AsciiLines) {
    start_daemon("ascii");
    send({"--ascii"}, "1");
    converter.reset();
    start_converter();
    send({"--ascii"}, "2");
}

}  // namespace
