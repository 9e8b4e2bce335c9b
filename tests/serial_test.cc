// The serial path with parts that others wrote: line tool, pseudo-terminals, a real converter,
// daemon, call file.

#include "running_daemon.h"

namespace {

TEST_F(Installed, SerialPathAndBackAfterARestartOfTheConverter) {
    if (!fs::exists("/usr/bin/socat") || !fs::exists("/usr/sbin/ser2net")) {
        GTEST_SKIP() << "needs socat and ser2net";
    }
    daemon_t daemon("rules = rule_x\n",
                    "[rule_x]\npattern = ^CALL\naction = call\nextension = $n\n"
                    "value[n] = CALL ([0-9]+)\n");
    daemon.listeners.clear();
    const temp_dir_t &dir = daemon.dir;
    const texts_t ends = {dir.path("station"), dir.path("converter")};
    const std::string pty = "pty,raw,echo=0,link=";
    const program_t cable({"/usr/bin/socat", pty + ends[0], pty + ends[1]});
    ASSERT_TRUE(eventually([&] { return fs::exists(ends[0]) && fs::exists(ends[1]); }));
    const std::string settings =
        dir.write("ser2net.yaml", "connection: &line\n  accepter: tcp,127.0.0.1," +
                                      daemon.ports[0] + "\n  connector: serialdev," + ends[1] +
                                      ",9600n81,local\n  options:\n    kickolduser: true\n");
    const texts_t ser2net = {"/usr/sbin/ser2net", "-n", "-d", "-c", settings, "-P",
                             dir.path("pid")};
    auto converter = std::make_unique<program_t>(ser2net);
    daemon.run_in_foreground();
    // Until the call arrives: nobody knows when the daemon has found a converter again.
    const auto send = [&](const char *option, const std::string &number) {
        EXPECT_TRUE(eventually([&] {
            program_t({"espasend", "--wait", "3", "--device", ends[0], "--message",
                       "CALL " + number, option})
                .wait();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            return !dir.list("call_" + number + "_").empty();
        })) << daemon.log();
    };
    send("--address=4711", "1");
    converter.reset();
    converter = std::make_unique<program_t>(ser2net);
    send("--ascii", "2");  // what an ESPA line speaks after its link was lost
}

}  // namespace
