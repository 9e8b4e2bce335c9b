// What the daemon tells about its lines while something is wrong with them, and what it notes down.

#include <sys/stat.h>

#include "running_daemon.h"

namespace {

const std::string FILES = "[logger]\nstatus_file = @status\njournal_file = @journal\n";
const std::string RULES =
    "[rule_call]\npattern = CALL\naction = call\n[rule_slow]\npattern = SLOW\naction = script\n"
    "callscript = 'echo $$ > @pid; exec sleep 1000'\n";

struct Monitoring : Installed {};

// Every fault shows while it lasts, and not any more when it is over.
TEST_F(Monitoring, FaultsComeAndGo) {
    const struct {
        const char *name, *sent, *words;
    } faults[] = {
        {"refused", "", "refused: no connection for "},
        {"in_packet", "\x01", "in_packet: in a packet for "},
        {"slow", "SLOW", "slow: a command runs for "},
        {"fell_back", "", "fell_back: fell back to ASCII "},
    };
    std::vector<daemon_t::line_t> keys;
    for (const auto &fault : faults) {
        keys.push_back({fault.name, "rules = rule_call,rule_slow\n"});
    }
    daemon_t daemon(keys, FILES + RULES);
    const std::string check =
        "vesperstat --check --critical-down 1 -s " + daemon.dir.path("status");
    const auto shows = [&](int status, const std::string &words) {
        program_t program(check);
        return program.wait() == status && program.output().find(words) != std::string::npos;
    };
    daemon.listeners[0].reset();
    child_t process = daemon.start();
    unique_fd_t lines[4];
    for (size_t i = 1; i < 4; i++) {
        lines[i] = daemon.accept(i);
    }
    send_bytes(lines[1], faults[1].sent);
    send_bytes(lines[2], compose_packet(to("1", faults[2].sent)));
    lines[3] = unique_fd_t();
    lines[3] = daemon.accept(3);
    for (const auto &fault : faults) {
        EXPECT_TRUE(eventually([&] { return shows(2, fault.words); })) << fault.words;
    }
    std::string error;
    daemon.listeners[0] = listen_on("127.0.0.1", std::stoi(daemon.ports[0]), &error);
    send_bytes(lines[1], wire("<EOT>"));
    kill(std::stoi(daemon.dir.read("pid")), SIGTERM);
    lines[0] = daemon.accept(0);
    process.send(SIGHUP);  // makes an ESPA line of the one that fell back
    for (size_t i = 0; i < 4; i++) {
        send(lines[i].get(), "\n\x04", 2, MSG_NOSIGNAL);
        lines[i] = daemon.accept(i);
    }
    EXPECT_TRUE(eventually([&] { return shows(0, "OK - 4 lines"); })) << run(2, check);
    EXPECT_EQ(process.end(SIGTERM), 0);
    EXPECT_TRUE(shows(2, "vesperd ended "));
}

// Of every metric: how many samples it has, and what they come to; of times, how many there are.
std::string sums(const std::string &status) {
    std::map<std::string, std::pair<int, double>> metrics;
    std::istringstream text(status);
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("vesperd_")) {
            const std::string name = line.substr(8, line.find_first_of("{ ") - 8);
            const double value = std::stod(line.substr(line.rfind(' ')));
            metrics[name].first++;
            metrics[name].second += name.ends_with("_seconds") ? value > 0 : value;
        }
    }
    std::string all;
    for (const auto &[name, sum] : metrics) {
        all += joined(name, sum.first, sum.second);
    }
    return all;
}

TEST_F(Monitoring, CountersAndJournal) {
    daemon_t daemon({{"a\"\\\xE9",
                      "rules = rule_call,rule_exit\nspool_dir = @spool\n"
                      "send_service_actions = yes\n"}},
                    FILES + RULES +
                        "[rule_exit]\npattern = EXIT.*\naction = script\n"
                        "callscript = 'kill -9 $$; exit 0'\n");
    daemon.dir.make("spool");
    for (const char *name : {"spool/started", "spool/message", "status.new"}) {
        EXPECT_EQ(mkfifo(daemon.dir.path(name).c_str(), 0666), 0);  // holds nobody up
    }
    const child_t process = daemon.start("env TZ=XXX3:15 ");
    const unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    EXPECT_TRUE(station.send_call(to("47\x11", "CALL \xC3\xA4 \"\x7F\xC2\x9B")));
    EXPECT_TRUE(station.send_call(to("", "EXIT \xFF")));
    EXPECT_TRUE(station.send_call(to("1", "other")));
    EXPECT_TRUE(station.send_packet(wire("<SOH>1<STX>2<US>CALL<ETX><07>")));
    EXPECT_TRUE(station.end_transmission());
    const std::string label = "{line=\"a\\\"\\\\\xC3\xA9\"";
    std::string status;
    EXPECT_TRUE(eventually([&] {
        status = daemon.dir.read("status");
        return sums(status) ==
               "build_info|1|1|line_actions_total|6|2|line_alarms_total|28|3|"
               "line_answer_seconds_count|1|0|line_answer_seconds_sum|1|0|"
               "line_calls_open|1|0|line_calls_total|4|0|line_check_errors_total|1|1|"
               "line_connects_total|1|1|line_last_message_time_seconds|1|1|"
               "line_messages_total|1|3|line_noise_bytes_total|1|0|line_packets_total|1|4|"
               "line_polls_total|1|4|line_protocol|1|1|line_protocol_since_seconds|1|1|"
               "line_received_bytes_total|1|81|line_refused_total|1|0|"
               "line_requests_total|1|4|line_silence_seconds_total|1|0|line_state|6|1|line_state_"
               "since_seconds|1|1|"
               "line_undelivered_total|1|0|line_unmatched_total|1|1|load_success|1|1|"
               "load_time_seconds|1|1|reloads_total|1|0|start_time_seconds|1|1|"
               "status_time_seconds|1|1|up|1|1|";
    })) << sums(status);
    for (const char *sample : {"actions_total#,action=\"skip\",result=\"ok\"} 0",
                               "actions_total#,action=\"call\",result=\"ok\"} 1",
                               "actions_total#,action=\"script\",result=\"failed\"} 1",
                               "alarms_total#,event=\"transmission_error\",result=\"raised\"} 1",
                               "requests_total#,address=\"1\"} "}) {
        EXPECT_THAT(status, HasSubstr(replaced(sample, "#", label)));
    }
    status += "vesperd_line_undelivered_time_seconds{\nvesperd_line_station{";
    const auto names = names_in(status, "\n(vesperd_[a-z_]+?)(?:_sum|_count)?[{ ]");
    EXPECT_EQ(names_in("\n" + status, "\n# TYPE (vesperd_[a-z_]+) "), names);
    EXPECT_EQ(names_in(read_file(SOURCE_DIR "/man/quillet.conf.5"), "\n.It Li (vesperd_[a-z_]+)"),
              names);
    EXPECT_EQ(fs::status(daemon.dir.path("journal")).permissions(), fs::perms(0640));
    EXPECT_EQ(daemon.count("is no regular file and suppresses nothing"), 1);
    const std::string head = "\"line\":\"a\\\"\\\\\xC3\xA9\",\"event\":\"";
    std::string journal = daemon.dir.read("journal");
    const std::pair<const char *, const char *> edits[] = {
        {"\\{\"time\":\"20\\d\\d-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}-03:15\",", ""},
        {",\"ms\":[0-9.]+\\}", ""},
        {"call_s_[0-9]+", "FILE"},
    };
    for (const auto &[pattern, text] : edits) {
        journal = replaced(journal, pattern, text);
    }
    const std::string none = ",\"rule\":null,\"action\":null,\"result\":\"none\"\n";
    const std::string espa = "\",\"protocol\":\"espa\"";
    const std::string message = head + "message" + espa + ",\"address\":\"";
    EXPECT_EQ(journal, head + "started" + espa + none + head + "connected" + espa + none + message +
                           "47\\u0011\",\"text\":\"CALL \xC3\xA4 "
                           "\\\"\\u007f\\u009b\",\"rule\":\"rule_call\",\"action\":"
                           "\"call\",\"result\":\"ok\",\"file\":\"FILE\"\n" +
                           message +
                           "\",\"text\":\"EXIT \xC3\xBF\",\"rule\":\"rule_exit\",\"action\":"
                           "\"script\",\"result\":\"failed\",\"exit\":137\n" +
                           message + "1\",\"text\":\"other\"" + none + head + "transmission_error" +
                           espa + none);
}

}  // namespace
