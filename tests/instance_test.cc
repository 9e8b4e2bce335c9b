// Further daemons on one machine: their names, what they have of their own, and who looks at them.

#include "instance.h"

#include "running_daemon.h"
#include "vespercheck/checks.h"
#include "vesperstat/sources.h"

namespace {

TEST(Instance, Names) {
    for (const std::string &name :
         texts_t{"east", "azAZ09", "E-2_b.c:d", "9", std::string(64, 'n')}) {
        EXPECT_TRUE(is_instance_name(name)) << name;
        EXPECT_EQ(instance_of_config("/etc/quillet/" + name + ".conf"), name);
    }
    for (const std::string &name : texts_t{"", ".east", "..", "a/b", "a b", "a\\x2d", "a;b",
                                           "status", "staging", std::string(65, 'n')}) {
        EXPECT_FALSE(is_instance_name(name)) << name;
        EXPECT_EQ(instance_of_config("/etc/quillet/" + name + ".conf"), "");
    }
    for (const char *path : {"/etc/quillet.conf", "/etc/quillet/east.conf.old", "/x/east.conf"}) {
        EXPECT_EQ(instance_of_config(path), "") << path;
    }
}

// The daemon's directories are those of the test, in a mount namespace.
TEST_F(Installed, AnInstanceHasFilesOfItsOwn) {
    daemon_t daemon("", "");
    daemon.listeners.clear();
    const temp_dir_t &dir = daemon.dir;
    for (const char *name :
         {"log/quillet", "spool/quillet/east", "spool/quillet/own", "run/vesperd"}) {
        dir.make(name, 0755);
    }
    run(0, "chown -R ovo " + dir.path());
    const std::string port = daemon.ports[0];
    dir.write("conf", "[ward]\nhost = 127.0.0.1\nport = " + port +
                          "\ndefault_rule = rule_x\n[rule_x]\naction = call\n");
    const std::string inside = "unshare --mount sh -c 'cd " + dir.path() +
                               " && mount --bind log /var/log && mount --bind spool /var/spool && "
                               "mount --bind run /run && ";
    const std::string program = "exec " + dir.path(daemon.name) + " -f -c " + dir.path("conf'");
    std::string error;
    const unique_fd_t listener = listen_on("127.0.0.1", std::stoi(port), &error);
    program_t east(inside + "export VESPERD_INSTANCE=east && " + program);
    unique_fd_t sock = accept_within(listener.get(), 90, &error);
    control_station_t station(sock.get(), 30, nullptr);
    EXPECT_TRUE(station.send_packet(compose_packet(to("4711", "FIRE")))) << station.error();

    const std::string journal = "log/quillet/east.journal", status = "run/vesperd/east.prom";
    EXPECT_TRUE(eventually([&] { return dir.read(journal).ends_with("}\n"); })) << east.output();
    EXPECT_THAT(dir.read(journal), HasSubstr("\"address\":\"4711\",\"text\":\"FIRE\""));
    EXPECT_EQ(dir.read("log/quillet/east.log").empty(), false);
    EXPECT_FALSE(fs::exists(dir.path("log/quillet.log")));
    EXPECT_FALSE(fs::is_empty(dir.path("spool/quillet/east")));
    EXPECT_TRUE(eventually([&] {
        const std::string text = dir.read(status);
        return text.find("vesperd_up{daemon=\"east\"} 1\n") != std::string::npos &&
               text.find("messages_total{line=\"ward\",daemon=\"east\"} 1\n") != std::string::npos;
    })) << dir.read(status);
    EXPECT_EQ(read_file("/proc/" + std::to_string(east.child_.pid) + "/comm"), "vesperd-east\n");
    EXPECT_THAT(run(0, inside + "exec " PROGRAM_DIR "/vesperstat'"), HasSubstr("ward "));

    const std::string own = "/var/spool/quillet/own";
    dir.write("conf",
              "[logger]\njournal_file = ''\nlog_file = " + own + "/log\nstatus_file = " + own +
                  "/status\n[ward]\nhost = 127.0.0.1\nport = " + port + "\nspool_dir = " + own +
                  "\ndefault_rule = rule_x\n[rule_x]\naction = call\n");
    program_t west(inside + "export VESPERD_INSTANCE=west && " + program);
    for (const char *file : {"status", "log"}) {
        EXPECT_TRUE(eventually([&] { return fs::exists(dir.path("spool/quillet/own/"s + file)); }));
    }
    EXPECT_FALSE(fs::exists(dir.path("log/quillet/west.journal")));
    EXPECT_THAT(run(0, inside + "VESPERD_INSTANCE=a/b " + program),
                HasSubstr("No instance can have the name a/b"));
}

struct Neighbours : Tables {};

// What is known as a host by its name is not asked for.
TEST_F(Neighbours, AreFoundByHostAndPort) {
    const std::string other =
        dir.write("other",
                  "[a]\nhost = 192.0.2.1\n[b]\nhost = Converter\nport = 4001\n[c]\nport = 4001\n"
                  "[d]\nhost = x\nport = 4002\nlisten = y\n");
    const std::pair<const char *, const char *> rows[] = {
        {"192.0.2.1", "\\[p\\] connects .* \\[a\\] of .*other .line 1.:"},
        {"192.0.2.1\nport = 0x8b9", "\\[p\\] connects .* \\[a\\] of "},
        {"192.0.2.1\nport = 2234", ""},
        {"192.0.2.2", ""},
        {"192.0.513", "\\[a\\] of "},
        {"converter\nport = 4001", "\\[b\\] of .*other .line 3."},
        {"converter", ""},
        {"192.0.2.1\nlisten = y", ""},
        {"y\nlisten = y\nport = 4002", "\\[p\\] listens on the port of \\[d\\] of "},
        {"x\nport = 4002", ""},
    };
    for (const auto &[host, expected] : rows) {
        memset(pagers, 0, sizeof pagers);
        site_t site;
        findings_t findings;
        const auto path = dir.write("conf", "[p]\nhost = "s + host + "\n");
        EXPECT_EQ(load_site(path.c_str(), take_hosts, &site, &findings), 0);
        EXPECT_TRUE(configurations_beside(path).empty());
        site.neighbours = {other, dir.path("missing")};
        findings_t found;
        check_neighbours(site, &found);
        const std::string text = found.sorted().empty() ? "" : found.sorted()[0].text;
        EXPECT_TRUE(std::regex_search(text, std::regex(expected))) << host << ": " << text;
        EXPECT_EQ(text.empty(), expected[0] == '\0') << text;
    }
}

TEST(StatusFiles, ThoseThatExistAndThoseOfEnabledInstances) {
    const temp_dir_t dir, wants;
    const auto found = [&] {
        std::string names;
        const sources_t sources = find_status_files(dir.path_, wants.path_);
        for (const std::string &file : sources.files) {
            EXPECT_TRUE(file.starts_with(dir.path()));
            names += file.substr(dir.path().size()) + " ";
        }
        return names + std::to_string(sources.passed_over);
    };
    EXPECT_EQ(found(), "status.prom 0");
    wants.write("vesperd@west.service", "");
    wants.write("vesperd.service", "");
    wants.write("other@north.service", "");
    EXPECT_EQ(found(), "west.prom 0");
    dir.make("west.prom");
    dir.make("gone.prom");
    EXPECT_EQ(found(), "west.prom 0");
    fs::remove(dir.path("west.prom"));
    dir.write("west.prom", "");
    dir.write("west.prom.new", "");
    dir.write("east.prom", "");
    EXPECT_EQ(found(), "east.prom west.prom 0");
    dir.write("status.prom", "");
    EXPECT_EQ(found(), "status.prom east.prom west.prom 0");
    dir.write(std::string(65, 'x') + ".prom", "");
    dir.write(std::string(64, 'a') + ".prom", "");
    dir.write(".prom", "");
    EXPECT_EQ(found(), "status.prom " + std::string(64, 'a') + ".prom east.prom west.prom 1");
    for (int i = 0; i < 300; i++) {
        dir.write(std::to_string(i) + ".prom", "");
    }
    EXPECT_THAT(found(), AllOf(StartsWith("status.prom 0.prom "), EndsWith("west.prom 48")));
}

}  // namespace
