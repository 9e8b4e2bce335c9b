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
    const std::string station = dir.path("station"), port = dir.path("converter");
    const std::string pty = " pty,raw,echo=0,link=";
    const program_t cable("socat" + pty + station + pty + port);
    ASSERT_TRUE(eventually([&] { return fs::exists(station) && fs::exists(port); }));
    const std::string settings =
        dir.write("ser2net.yaml", "connection: &line\n  accepter: tcp,127.0.0.1," +
                                      daemon.ports[0] + "\n  connector: serialdev," + port +
                                      ",9600n81,local\n  options:\n    kickolduser: true\n");
    const std::string ser2net = "/usr/sbin/ser2net -n -d -c " + settings + " -P " + dir.path("pid");
    auto converter = std::make_unique<program_t>(ser2net);
    daemon.run_in_foreground();
    // Until the call arrives: nobody knows when the daemon has found a converter again.
    const std::string sender = "espasend --wait 3 --device " + station;
    const auto send = [&](const char *option, const std::string &number) {
        EXPECT_TRUE(eventually([&] {
            program_t(sender + option + " --message 'CALL " + number + "'").wait();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            return !dir.list("call_" + number + "_").empty();
        })) << daemon.log();
    };
    send(" --address 4711", "1");
    converter.reset();
    converter = std::make_unique<program_t>(ser2net);
    send(" --ascii", "2");  // what an ESPA line speaks after its link was lost
}

}  // namespace
