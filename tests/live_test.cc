// Reloads with `live_reload`: the built daemon, and what its lines and its service manager see of them.

#include <poll.h>

#include "running_daemon.h"

namespace {

const std::string HEAD = "[logger]\nlive_reload = yes\nstatus_file = @status\n";
const std::string ALARMS =
    "[rule_alarm]\naction = script\ncallscript = 'echo %alarm% >> @alarms'\n";
const std::string KEYS = "rules = rule_fire\n";

std::string fire(const std::string &number) {
    return "[rule_fire]\npattern = FIRE\naction = call\nextension = " + number + "\n";
}

bool is_closed(const unique_fd_t &line) {
    char byte = 0;
    return recv(line.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

struct Live : Installed {
    using lines_t = std::vector<daemon_t::line_t>;

    // Loads the file anew. Returns the log's line about it.
    std::string reload(const child_t &process) {
        const size_t seen = daemon.log().size();
        process.send(SIGHUP);
        std::string line;
        EXPECT_TRUE(eventually([&] {
            const std::string log = messages(daemon.log().substr(seen));
            const size_t at = std::min(log.find("EVENT: "), log.find("ERROR: "));
            line = at != std::string::npos ? log.substr(at, log.find('\n', at) - at) : "";
            return !line.empty();
        }));
        return line;
    }
    bool status_has(const std::string &text) const {
        return eventually(
            [&] { return daemon.dir.read("status").find(text) != std::string::npos; });
    }
    // Whether these lines are shown in the end, and no others.
    bool shows(const texts_t &lines) const {
        return eventually([&] {
            return names_in(daemon.dir.read("status"), "state\\{line=\"([^\"]+)\"") == lines;
        });
    }
    child_t start(const lines_t &lines, const std::string &rest, const std::string &prefix = "") {
        daemon.configure(lines, HEAD + rest);
        daemon.conf = daemon.dir.path("conf");
        return daemon.start(prefix);
    }
    void configure(const lines_t &lines, const std::string &rest) {
        daemon.configure(lines, HEAD + rest);
    }

    daemon_t daemon{lines_t(4, {"spare", ""}), ""};
};

TEST_F(Live, ChangesWhatDiffersAndNothingElse) {
    const std::string alarms = "send_service_actions = yes\ndefault_rule = rule_alarm\n" + KEYS;
    child_t process = start({{"ward1", KEYS}, {"ward2", alarms}},
                            fire("1") + "[rule_old]\npattern = OLD\n" + ALARMS);
    const unique_fd_t ward1 = daemon.accept(0);
    const unique_fd_t ward2 = daemon.accept(1);

    // Half a call, and a rule: the rest of it takes the new one, also where the line has changed.
    const std::string packet = compose_packet(to("1", "FIRE"));
    send_bytes(ward1, packet.substr(0, 8));
    configure({{"ward1", KEYS + "espa_poll = y\n"}, {"ward2", alarms}}, fire("2") + ALARMS);
    EXPECT_EQ(reload(process),
              "EVENT: 1 line as it was, ward1: changed, rules: 1 as they were, 1 changed, 1 gone");
    send_bytes(ward1, packet.substr(8));
    EXPECT_NE(daemon.call("2"), "");
    EXPECT_TRUE(status_has("\nvesperd_reloads_total 1\n"));

    // A line whose connection was closed in mid-packet is moved, one is new, one has other rules from its next
    // message on.
    send_bytes(ward2, packet.substr(0, 8));
    shutdown(ward2.get(), SHUT_WR);
    const std::string left = daemon.dir.write("vesperd-call-1-1", "left behind");
    configure({{"ward1", KEYS + "default_rule = rule_rest\n"},
               {"ward3", KEYS + "staging_dir = @\n"},
               {"ward2", alarms}},
              fire("3") + ALARMS);
    EXPECT_EQ(
        reload(process),
        "EVENT: ward3 added, ward1: changed, ward2: other port, rules: 1 as they were, 1 changed");
    const unique_fd_t moved = daemon.accept(2);
    const unique_fd_t ward3 = daemon.accept(1);
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(eventually([&] { return is_closed(ward2); }));
    EXPECT_TRUE(delivers(ward3, "1"));
    EXPECT_NE(daemon.call("3"), "");
    EXPECT_FALSE(is_closed(ward1));

    // What cannot be loaded changes nothing.
    fs::rename(daemon.dir.path("conf"), daemon.dir.path("away"));
    EXPECT_THAT(reload(process), StartsWith("ERROR: Unable to open configuration file"));
    EXPECT_TRUE(status_has("\nvesperd_load_success 0\n"));
    daemon.dir.write("conf", "[rule_x]\npattern = x\n");
    EXPECT_THAT(reload(process), StartsWith("ERROR: No line is left in configuration file"));
    daemon.dir.write("conf", "[x]\nhost = no.such.host.invalid\n");
    EXPECT_THAT(reload(process), StartsWith("ERROR: No line is left in configuration file"));
    EXPECT_TRUE(delivers(ward3, "1"));

    // A line is gone, with an alarm, and no longer shown. The others must not fall silent meanwhile.
    send_bytes(ward1, wire("<EOT>"));
    send_bytes(ward3, wire("<EOT>"));
    daemon.dir.write("alarms", "");
    configure({{"ward1", KEYS}, {"ward3", KEYS}}, fire("3") + ALARMS);
    EXPECT_THAT(reload(process), HasSubstr("ward2 gone"));
    EXPECT_TRUE(eventually([&] { return is_closed(moved); }));
    EXPECT_EQ(daemon.dir.read("alarms"), "terminated\n");
    EXPECT_TRUE(status_has("\nvesperd_load_success 1\n"));
    EXPECT_TRUE(
        eventually([&] { return daemon.dir.read("status").find("ward2") == std::string::npos; }));
    EXPECT_FALSE(is_closed(ward1) || is_closed(ward3));
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// What is an address at a second glance, "127.1", is a name at the first.
TEST_F(Live, FindsHostsWhileItServes) {
    const std::string named = KEYS + "host = 127.1\n";
    child_t process = start({{"a", named}, {"b", KEYS}}, fire("1"));
    const unique_fd_t a = daemon.accept(0);
    const unique_fd_t b = daemon.accept(1);
    configure({{"a", named + "espa_poll = y\n"}, {"b", KEYS}, {"c", named}}, fire("1"));
    EXPECT_EQ(reload(process),
              "EVENT: 1 line as it was, c added, a: changed, rules: 1 as they were");
    unique_fd_t c = daemon.accept(2);
    configure({{"a", named},
               {"b", KEYS + "host = 127.0.1\n"},
               {"c", KEYS + "host = no.such.host.invalid\nport = 1\n"},
               {"d", KEYS + "host = 0177.1\n"}},
              fire("2"));
    reload(process);
    daemon.expect_logged("no.such.host.invalid: line c stays where it was");
    daemon.expect_logged("b: other host");
    daemon.expect_logged("d added");
    const unique_fd_t moved = daemon.accept(1);
    daemon.accept(3);
    EXPECT_TRUE(eventually([&] { return is_closed(b); }));
    if (is_closed(c)) {  // the search took so long that it was silent for more than 15 seconds
        c = daemon.accept(2);
    }
    EXPECT_TRUE(delivers(c, "1"));
    EXPECT_NE(daemon.call("2"), "");
    EXPECT_TRUE(status_has("\nvesperd_load_success 0\n"));
    configure({{"e", KEYS + "host = 127.0.0.01\n"}}, fire("3"));  // the only one
    process.send(SIGHUP);
    daemon.expect_logged("e added, a gone, b gone, c gone, d gone, rules: 1 changed");
    EXPECT_TRUE(shows({"e"}));
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// The key's absence in a file holds from the reload after it; then every line has a thread again.
TEST_F(Live, IsTurnedOff) {
    child_t process = start({{"a", KEYS}, {"b", KEYS}}, fire("1"));
    const unique_fd_t a = daemon.accept(0);
    const unique_fd_t b = daemon.accept(1);
    configure({{"b", KEYS}}, fire("1"));
    EXPECT_EQ(reload(process), "EVENT: b: other port, a gone, rules: 1 as they were");
    EXPECT_TRUE(eventually([&] { return is_closed(a) && is_closed(b); }));
    const unique_fd_t moved = daemon.accept(0);
    daemon.configure({{"b", KEYS}, {"c", KEYS}}, fire("1"));
    EXPECT_THAT(reload(process), HasSubstr("c added"));
    const unique_fd_t c = daemon.accept(1);
    EXPECT_FALSE(is_closed(moved));
    process.send(SIGHUP);
    daemon.accept(0);
    daemon.accept(1);
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// Whoever asks while a file is read, which these patterns take a while for, has it read once more.
TEST_F(Live, ReadsOnceMoreForWhoeverAsksMeanwhile) {
    child_t process = start({{"a", KEYS}}, fire("1"));
    const unique_fd_t a = daemon.accept(0);
    const auto slow = [](const std::string &names) {
        std::string rules;
        for (const char name : names) {
            rules += "[rule_"s + name + "]\npattern = (((" + name + "?){20}){20}){20}\n";
        }
        return rules;
    };
    // The daemon takes a repeat together with what it is just beginning, and not with what it reads already.
    const auto ask_twice = [&](const std::string &first) {
        process.send(SIGHUP);
        daemon.expect_logged("'(((" + first + "?)");
        process.send(SIGHUP);
    };
    configure({{"a", KEYS}}, fire("2") + slow("bcdefg"));
    ask_twice("b");
    EXPECT_TRUE(eventually([&] { return daemon.count("1 line as it was, ") == 2; }));
    daemon.configure({{"a", KEYS}}, fire("3") + slow("hijklm"));
    ask_twice("h");
    // Once while the lines go on, and once as it is without the key.
    EXPECT_TRUE(eventually([&] { return daemon.count("'(((m?)") == 2; }));
    EXPECT_EQ(daemon.count("1 line as it was, "), 3);
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// A line keeps its slot while others come and go; without the key the slots are in the order of the file again.
TEST_F(Live, SlotsAreTheLoadersBusiness) {
    const auto lines = [](const std::string &names) {
        lines_t all;
        for (const char name : names) {
            all.push_back({std::string(1, name), KEYS});
        }
        return all;
    };
    child_t process = start(lines("abcd"), fire("1"));
    std::vector<unique_fd_t> before;
    for (size_t line = 0; line < 4; line++) {
        before.push_back(daemon.accept(line));
    }
    // One that comes again while it still acts, two of the same name, and a host that nobody knows.
    const std::string slow =
        "[rule_fire]\npattern = FIRE\naction = script\ncallscript = 'touch @begun; sleep 6'\n";
    configure(lines("abcd"), slow);
    EXPECT_THAT(reload(process), HasSubstr("4 lines as they were, rules: 1 changed"));
    send_bytes(before[3], compose_packet(to("1", "FIRE")));
    EXPECT_TRUE(eventually([&] { return fs::exists(daemon.dir.path("begun")); }));
    configure(lines("abc"), slow);
    EXPECT_THAT(reload(process), HasSubstr("3 lines as they were, d gone"));
    const std::string long_name(63, 'n');
    const std::string port = "\nhost = 127.0.0.1\nport = " + daemon.ports[3] + "\n";
    configure(lines("abcd"), slow + "[" + long_name + "1]" + port + "[" + long_name + "2]" + port +
                                 "[none]\nhost = no.such.host.invalid\n");
    EXPECT_THAT(reload(process), StartsWith("ERROR: There is a pager nnn"));
    EXPECT_TRUE(eventually([&] { return daemon.count("d waits for its turn") == 1; }));
    EXPECT_TRUE(status_has("\nvesperd_load_success 0\n"));
    EXPECT_TRUE(shows({"a", "b", "c", "d", long_name}));
    daemon.expect_logged(": d added");
    EXPECT_TRUE(status_has("line_messages_total{line=\"d\"} 0\n"));
    daemon.expect_logged("Unable to find host no.such.host.invalid: line none is not served");

    daemon.configure(lines("cd"), "[logger]\nstatus_file = @status\n" + fire("1"));
    EXPECT_THAT(reload(process), HasSubstr(" gone"));
    EXPECT_TRUE(shows({"c", "d"}));
    daemon.accept(0);
    daemon.accept(1);
    process.send(SIGHUP);
    EXPECT_TRUE(eventually([&] { return daemon.count("Hangup") == 5; }));
    daemon.accept(0);
    daemon.accept(1);
    EXPECT_TRUE(shows({"c", "d"}));
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// Sixteen lines that can be served end a file, however many others stand among them.
TEST_F(Live, SixteenLinesEndAFile) {
    std::string text = HEAD + "log_level = 4\nlog_file = @log\n";
    const auto line = [&](const std::string &name, const std::string &host) {
        return "[" + name + "]\nhost = " + host + "\nport = " + daemon.ports[0] + "\n";
    };
    for (char name = 'a'; name < 'p'; name++) {
        text += line(std::string(1, name), "127.0.0.1");
    }
    text += line("none", "no.such.host.invalid") + line("p", "127.0.0.1") + fire("1");
    text = replaced(text, "@", daemon.dir.path());
    daemon.conf = daemon.dir.write("conf", text);
    child_t process = daemon.start();
    process.send(SIGHUP);
    daemon.expect_logged("16 lines as they were, ");
    daemon.dir.write("conf", replaced(text, "\\[b\\]", "[bb]"));
    process.send(SIGHUP);
    daemon.expect_logged("15 lines as they were, bb waits for its turn, ");
    daemon.expect_logged("b gone, ");
    daemon.expect_logged(": bb added");
    EXPECT_EQ(process.end(SIGTERM), 0);
}

// The service manager hears that the daemon is there, how its lines fare, and signs of life, while it loads and
// while it ends.
TEST_F(Live, TellsTheServiceManager) {
    const std::string path = daemon.dir.path("notify");
    const unique_fd_t manager = hear_datagrams(path);
    fs::permissions(path, fs::perms(0777));
    child_t process = start({{"a", KEYS}, {"b", KEYS}}, fire("1"),
                            "env NOTIFY_SOCKET=" + path + " WATCHDOG_USEC=400000 ");
    texts_t heard;
    const auto hears = [&](const std::string &text) {
        char datagram[256];
        ssize_t size = 0;
        while ((size = recv(manager.get(), datagram, sizeof datagram, MSG_DONTWAIT)) > 0) {
            heard.emplace_back(datagram, std::find(datagram, datagram + size, '\n'));
        }
        return std::count(heard.begin(), heard.end(), text);
    };
    const auto comes_to_hear = [&](const std::string &text) {
        heard.clear();
        return eventually([&] { return hears(text) > 0; });
    };
    EXPECT_TRUE(comes_to_hear("READY=1"));
    EXPECT_TRUE(comes_to_hear("STATUS=2 lines, 2 without connection"));
    const unique_fd_t a = daemon.accept(0);
    const unique_fd_t b = daemon.accept(1);
    EXPECT_TRUE(comes_to_hear("STATUS=2 lines"));
    daemon.configure({{"a", KEYS}, {"b", KEYS}}, fire("1"));
    for (int i = 0; i < 2; i++) {  // without the key from the second time on
        process.send(SIGHUP);
        EXPECT_TRUE(comes_to_hear("RELOADING=1"));
        EXPECT_TRUE(eventually([&] { return hears("READY=1") > 0; }));
    }
    process.send(SIGTERM);
    EXPECT_TRUE(comes_to_hear("STOPPING=1"));
    EXPECT_TRUE(eventually([&] { return hears("WATCHDOG=1") > 20; }));  // in ten seconds
    EXPECT_EQ(process.wait(), 0);
}

}  // namespace
