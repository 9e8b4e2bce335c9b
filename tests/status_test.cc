// vesperstat on status files written by hand, with times that leave most of a minute to look at them.

#include <chrono>

#include "support.h"
#include "vesperstat/json.h"
#include "vesperstat/plugin.h"
#include "vesperstat/prom_text.h"
#include "vesperstat/report.h"
#include "vesperstat/table.h"

namespace {

std::string ago(double seconds) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return " " + std::to_string(std::chrono::duration<double>(now).count() - seconds) + "\n";
}

std::string served(int up, double age, const std::string &lines = "") {
    return "# TYPE vesperd_up gauge\nvesperd_up " + std::to_string(up) +
           "\nvesperd_start_time_seconds" + ago(12'000) + "vesperd_status_time_seconds" + ago(age) +
           lines;
}

std::string line(const std::string &name, const std::string &state, double since,
                 const std::string &protocol = "espa", double last = 12'000) {
    const std::string label = "{line=\"" + name + "\"";
    return "vesperd_line_state" + label + ",host=\"h\",port=\"4001\",state=\"" + state +
           "\"} 1\nvesperd_line_state" + label +
           ",port=\"4001\",state=\"idle\"} 0\nvesperd_line_state_since_seconds" + label + "}" +
           ago(since) + "vesperd_line_protocol" + label + ",protocol=\"" + protocol +
           "\",configured=\"espa\"} 1\nvesperd_line_protocol_since_seconds" + label + "}" +
           ago(10'900) + "vesperd_line_messages_total" + label + ",} +17 0\n" +
           "vesperd_line_last_message_time_seconds" + label + "}" + ago(last);
}

TEST(Status, IsJudged) {
    const struct {
        std::string file;
        const char *options;
        int status;
        const char *words;
    } rows[] = {
        {line("a", "idle", 9e5), "--warn-silence 13000", 0, "OK - 1 line, vesperd  runs for 3 h |"},
        {line("a", "idle", 9e5), "--warn-silence 9000", 1, "WARNING - a: no message for 3 h |"},
        {line("a", "connecting", 130), "--critical-down 600", 0,
         "OK - a: no connection for 2 min |"},
        {line("a", "connecting", 130), "", 2, "CRITICAL - a: no connection for 2 min |"},
        {line("a", "idle", 1, "ascii"), "", 1, "WARNING - a: fell back to ASCII 3 h ago |"},
        {line("a", "idle", 1, "ascii") + line("b", "acting", 2'410), "", 2,
         "CRITICAL - b: a command runs for 40 min, a: fell back to ASCII 3 h ago |"},
        {line("\\\\b\\\"c\\n|", "ended", 130), "", 2, "CRITICAL - \\b\"c?/: ended 2 min ago |"},
        {served(0, 130), "", 2, "CRITICAL - vesperd ended 2 min ago |"},
        {served(1, 130, line("a", "ended", 999)), "", 2,
         "CRITICAL - vesperd is gone, its status is 2 min old |"},
        {served(1, 130, line("a", "ended", 999)), "--max-age 200 --critical-all", 2,
         "CRITICAL - a: ended 16 min ago |"},
        {line("a", "ended", 130) + line("b", "idle", 130), "--critical-all", 1,
         "WARNING - a: ended 2 min ago |"},
        {served(1, 0, "vesperd_load_success 0\nvesperd_load_time_seconds" + ago(130)), "", 1,
         "WARNING - the configuration could not be loaded, at least a part of it: the log says "
         "why, "
         "and in force is what was loaded 2 min ago |"},
        {served(1, 0, "vesperd_reloads_total 1"), "", 3, "UNKNOWN - cannot read "},
        {served(1, 0, "vesperd_reloads_total NaN\n"), "", 3, "UNKNOWN - "},
        {served(1, 0, "node_procs{pid=1} 1\n"), "", 3, "UNKNOWN - "},
        {line("a", "asleep", 1), "", 3, "UNKNOWN - "},
        {"# of somebody else\n", "", 3, "UNKNOWN - "},
        {line("a", "idle", 1) +
             repeated(64, "vesperd_line_actions_total{line=\"a\",result=\"failed\"} 8.9e15\n"),
         "", 0, "OK - "},
        {line("a", "idle", 1) +
             "vesperd_line_undelivered_time_seconds{line=\"a\",call=\"c\",text=\"FIRE\"}" +
             ago(3580) + "vesperd_line_undelivered_time_seconds{line=\"a\",call=\"d\",text=\"x\"}" +
             ago(3601),
         "", 2, "CRITICAL - a: nobody answered c for FIRE, 59 min ago |"},
        {line("a\xC2\x9B\xE2\x80\xAE", "ended", 130), "", 2, "CRITICAL - a??: ended 2 min ago |"},
    };
    const temp_dir_t dir;
    for (const auto &row : rows) {
        const bool is_line = row.file.starts_with("vesperd_line");
        const auto file = dir.write("file", is_line ? served(1, 2, row.file) : row.file);
        EXPECT_THAT(run(row.status, "vesperstat --check -s " + file + " " + row.options),
                    StartsWith("VESPERD "s + row.words));
    }
}

TEST(Status, IsShown) {
    const temp_dir_t dir;
    const auto north = dir.write("north.prom", served(1, 2, line("a", "idle", 130)));
    const auto south = dir.write("south.prom", served(1, 2, line("Süd", "connecting", 7'500)));
    EXPECT_THAT(run(0, "vesperstat -s " + north), StartsWith("Nothing is wrong: 1 line, "));
    EXPECT_EQ(run(0, "vesperstat -s " + north + " -s " + south),
              "south: Süd: no connection for 2 h\n\n"
              "INSTANCE  LINE  ADDRESS  STATE           PROTOCOL  MESSAGES  LAST MESSAGE  ERRORS\n"
              "south     Süd   h:4001   connecting 2 h  espa      17        3 h ago       -\n"
              "north     a     h:4001   idle 2 min      espa      17        3 h ago       -\n");
    const auto west = dir.write("west.prom", served(1, 2, line("b", "idle", 1)));
    EXPECT_THAT(run(0, "vesperstat -s " + north + " -s " + west),
                StartsWith("Nothing is wrong: 2 lines of 2 daemons\n"));
    EXPECT_EQ(make_sentences({report_passed_over("/d", 2)}).at(0).text,
              "2 files of /d passed over: too many, or no names of instances");
    // None of the lines that are known works.
    const auto empty = dir.write("empty.prom", served(1, 2));
    const std::string all = "vesperstat --check --critical-all -s " + south + " -s " + empty;
    EXPECT_THAT(run(2, all + " -s " + dir.path("none")), StartsWith("VESPERD CRITICAL - "));
    EXPECT_THAT(run(1, all + " -s " + north), StartsWith("VESPERD WARNING - "));
    EXPECT_THAT(run(3, "vesperstat --json -s " + dir.path("none")),
                HasSubstr("\"kind\":\"unreadable\""));
}

TEST(Status, HoldsNoMoreThanADaemonWrites) {
    const auto error_of = [](const std::string &lines) {
        status_t status;
        std::string error;
        const bool is_read = parse_status(served(1, 0, lines), &status, &error);
        EXPECT_EQ(is_read, error.empty());
        return error;
    };
    for (const char *metric : {"actions_total", "alarms_total", "calls_total", "requests_total",
                               "undelivered_time_seconds"}) {
        const std::string one = "vesperd_line_"s + metric + "{line=\"a\"} 1\n";
        EXPECT_EQ(error_of(line("a", "idle", 1) + repeated(64, one)), "");
        EXPECT_THAT(error_of(repeated(65, one)), StartsWith("it tells of more than 64 actions"));
    }
    const std::string polls = "vesperd_line_polls_total{line=\"#\"} 1\n";
    EXPECT_EQ(error_of(repeated(64, polls)), "not a whole status file of vesperd");
    EXPECT_EQ(error_of(repeated(65, polls)), "it tells of more than 64 lines");
    EXPECT_EQ(error_of(line(std::string(255, 'a'), "idle", 1)), "");
    EXPECT_THAT(error_of(line(std::string(256, 'a'), "idle", 1)), EndsWith("that is too long"));
}

// At 100,000 seconds: a line that has its troubles, and one that has had nothing yet.
constexpr const char *WRITTEN = R"(vesperd_up 1
vesperd_build_info{version="1.2"} 1
vesperd_start_time_seconds 10000
vesperd_load_time_seconds 20000
vesperd_reloads_total 2
vesperd_status_time_seconds 99985
vesperd_line_state{line="a",host="h",port="1",state="acting"} 1
vesperd_line_state_since_seconds{line="a"} 99939
vesperd_line_protocol{line="a",protocol="ascii",configured="espa"} 1
vesperd_line_protocol{line="a",protocol="espa",configured="espa"} 0
vesperd_line_protocol_since_seconds{line="a"} 30000
vesperd_line_connects_total{line="a"} 3
vesperd_line_received_bytes_total{line="a"} 4
vesperd_line_silence_seconds_total{line="a"} 15
vesperd_line_noise_bytes_total{line="a"} 2
vesperd_line_station{line="a",address="2",control="1"} 1
vesperd_line_requests_total{line="a",address="3"} 4
vesperd_line_polls_total{line="a"} 5
vesperd_line_packets_total{line="a"} 6
vesperd_line_check_errors_total{line="a"} 7
vesperd_line_messages_total{line="a"} 8
vesperd_line_unmatched_total{line="a"} 9
vesperd_line_actions_total{line="a",action="call",result="failed"} 10
vesperd_line_actions_total{line="a",action="call",result="done"} 11
vesperd_line_actions_total{line="a",action="script",result="failed"} 12
vesperd_line_alarms_total{line="a",event="error",result="raised"} 13
vesperd_line_calls_open{line="a"} 2
vesperd_line_calls_total{line="a",outcome="lost"} 14
vesperd_line_undelivered_time_seconds{line="a",call="c",text="x"} 50000
vesperd_line_last_message_time_seconds{line="a"} 40000
vesperd_line_state{line="b",host="i",port="2",state="idle"} 1
vesperd_line_protocol{line="b",protocol="espa",configured="espa"} 1
)";

TEST(Status, IsReportedInEveryForm) {
    const temp_dir_t dir;
    const limits_t limits{60, 60'000, 15};
    const std::string path = dir.write("s", WRITTEN);
    status_files_t files;
    const auto look = [&] { return make_report(&files, path, links_t::FOLLOW, limits, 1e5); };
    look();
    auto report = look();
    report.file = "F";
    fs::rename(dir.write("new", "cut"), path);
    EXPECT_EQ(look().problems.front().kind, "unreadable");
    EXPECT_THAT(report_check({look()}, limits, 1e5), Not(HasSubstr("|")));
    fs::rename(dir.write("new", WRITTEN), path);
    EXPECT_EQ(look().problems.front().kind, "action");
    EXPECT_EQ(report_table({report}, 1e5, true),
              "\033[1;31ma: a command runs for 61 s\033[0m\n"
              "\033[33ma: fell back to ASCII 19 h ago\033[0m\n"
              "\033[33mb: no message since the start 25 h ago\033[0m\n\n"
              "\033[1mLINE  ADDRESS  STATE        PROTOCOL  MESSAGES  LAST MESSAGE  ERRORS\033[0m\n"
              "\033[1;31ma     h:1      acting 61 s  ascii     8         16 h ago      7 check, 22 "
              "action\033[0m\n"
              "\033[33mb     i:2      idle 27 h    espa      0         -             -\033[0m\n");
    EXPECT_EQ(report_check({report}, limits, 1e5),
              "VESPERD CRITICAL - a: a command runs for 61 s, a: fell back to ASCII 19 h ago, "
              "b: no message since the start 25 h ago | 'age'=15s;;15;0 'a_down'=0s;;60;0 "
              "'a_busy'=61s;;60;0 'a_silent'=60000s;60000;;0 'a_messages'=8c 'a_check_errors'=7c "
              "'a_failed_actions'=22c 'b_down'=0s;;60;0 'b_busy'=0s;;60;0 "
              "'b_silent'=90000s;60000;;0 'b_messages'=0c 'b_check_errors'=0c "
              "'b_failed_actions'=0c\n");
    const std::string json = replaced(report_json({report}, 1e5), "\"", "'");
    EXPECT_EQ(json,
              "{'time':100000.0,'level':'critical','instances':[{'file':'F','level':'critical',"
              "'problems':[],'up':true,'version':'1.2','start':10000.0,'written':99985.0,"
              "'load':20000.0,'reloads':2,'lines':[{'line':'a','host':'h','port':'1',"
              "'level':'critical','problems':[{'level':'critical','kind':'action','seconds':61.0,"
              "'text':'a command runs for 61 s'},{'level':'warning','kind':'fell_back',"
              "'seconds':70000.0,'text':'fell back to ASCII 19 h ago'}],'state':'acting',"
              "'state_since':99939.0,'protocol':'ascii','configured':'espa',"
              "'protocol_since':30000.0,'connects':3,'received_bytes':4,'silence_seconds':15,"
              "'noise_bytes':2,'station':{'address':'2','control':'1'},'requests':{'3':4},"
              "'polls':5,'packets':6,"
              "'check_errors':7,'messages':8,'unmatched':9,'last_message':40000.0,"
              "'actions':{'call':{'failed':10,'done':11},'script':{'failed':12}},"
              "'alarms':{'error':{'raised':13}},'calls':{'open':2,'lost':14,'undelivered':"
              "[{'call':'c','text':'x','time':50000.0}]}},{'line':'b','host':'i','port':'2',"
              "'level':'warning','problems':[{'level':'warning','kind':'silent','seconds':90000.0,"
              "'text':'no message since the start 25 h ago'}],'state':'idle','state_since':0.0,"
              "'protocol':'espa','configured':'espa','protocol_since':null,'connects':0,"
              "'received_bytes':0,'silence_seconds':0,'noise_bytes':0,'station':null,"
              "'requests':{},'polls':0,'packets':0,'check_errors':0,'messages':0,"
              "'unmatched':0,'last_message':null,'actions':{},'alarms':{},"
              "'calls':{'open':0,'undelivered':[]}}],'load_success':true}]}\n");
}

TEST(Status, IsJudgedAtItsLimits) {
    const limits_t limits{100, 50, 20};
    status_t status;
    status.is_up = true;
    status.lines.emplace_back().line = "l";
    const struct {
        double written, start, since;
        line_state_t state;
        const char *words;
    } rows[] = {
        {-20, -50, -100, line_state_t::CONNECTING, "1 no connection for 100 s"},
        {20, -50, -100.5, line_state_t::CONNECTING, "4 no connection for 100 s"},
        {0, -50, -10, line_state_t::ACTING, "0 "},
        {0, -50, -10.5, line_state_t::RECEIVING, "1 in a packet for 10 s"},
        {0, -51, 0, line_state_t::IDLE, "2 no message since the start 51 s ago"},
        {-20.5, 0, 0, line_state_t::IDLE, "4 vesperd is gone, its status is 20 s old"},
        {20.5, 0, 0, line_state_t::IDLE,
         "4 vesperd is gone or the clock was set, its status is 20 s ahead"},
    };
    for (const auto &row : rows) {
        status.written = 1e6 + row.written;
        status.start = 1e6 + row.start;
        status.lines[0].state_since = 1e6 + row.since;
        status.lines[0].state = row.state;
        const auto problems = judge(status, limits, 1e6);
        EXPECT_EQ(std::to_string(int(worst_level(problems))) + " " +
                      (problems.empty() ? "" : problems[0].words),
                  row.words);
    }
    status.start = status.written = 1e6;
    line_status_t &line = status.lines[0];
    line.line = "='";
    line.protocol = "ascii";
    line.configured = "espa";
    line.undelivered = {{"c", "x", 1e6 - 3600}};
    line.state_since = 1e6 - 5;
    for (const auto &[state, data] :
         {std::pair(line_state_t::CONNECTING, "'___down'=5s;;9;0 '___busy'=0s;;9;0"),
          {line_state_t::ENDED, "'___down'=5s;;9;0 '___busy'=0s;;9;0"},
          {line_state_t::RECEIVING, "'___down'=0s;;9;0 '___busy'=5s;;9;0"}}) {
        line.state = state;
        EXPECT_THAT(
            report_check({{"F", "", status, judge(status, {9, 0, 0}, 1e6)}}, {9, 0, 0}, 1e6),
            AllOf(StartsWith("VESPERD WARNING - =': fell back to ASCII"),
                  HasSubstr("| 'age'=0s;;0;0 "s + data + " '___silent'=0s;;;0 ")));
    }
    line.state = line_state_t::IDLE;
    EXPECT_EQ(judge(status, {9, 0, 0}, 1e6).at(0).words,
              "fell back to ASCII");  // nobody knows when
    texts_t words;
    for (const double seconds : {-1.0, 119.9, 120.0, 7'199.0, 7'200.0, 172'799.0, 172'800.0}) {
        words.push_back(duration_words(seconds));
    }
    EXPECT_EQ(words, (texts_t{"0 s", "119 s", "2 min", "119 min", "2 h", "47 h", "2 d"}));
}

TEST(Status, TellsWhyALineHasNeverWorked) {
    using counts_t = std::vector<tally_t>;
    const counts_t others = {{"1", "", 9}, {"3", "", 9}, {"5", "", 1}, {"4", "", 1}};
    const struct {
        int64_t silence, received, lost, noise, packets, wrong;
        counts_t requests;
        const char *words;
        const char *address = "2";
        const char *configured = "espa";
        int64_t messages = 0;
    } rows[] = {
        {600, 0, 20, 0, 0, 0, {}, "2 connected for 10 min, not a byte: is the converter's "},
        {600, 0, 0, 0, 0, 0, {}, "1 connected for 10 min, not a byte", "", "ascii"},
        {599, 0, 19, 0, 0, 0, {}, "0 "},
        {600, 1, 20, 0, 0, 0, {}, "0 "},
        {0, 0, 20, 0, 0, 0, {}, "2 connection closed 20 times, not a byte: is somebody else "},
        {0, 999, 0, 99, 0, 0, {}, "0 "},
        {0, 999, 0, 100, 9, 9, {}, "2 noise only, 100 bytes: are baud rate, ", ""},
        {0, 9999, 0, 9000, 0, 0, {{"2", "", 9}}, "2 noise only, 9000 bytes: "},
        {0, 9999, 0, 9000, 9, 8, {{"2", "", 9}}, "0 "},
        {0, 9999, 0, 100, 0, 0, {{"2", "", 9}}, "2 requests, but no packet, and 100 bytes that "},
        {0, 9999, 0, 99, 0, 0, {{"2", "", 9}}, "0 "},
        {0, 99, 0, 2, 0, 0, others, "2 addressed as 3, 5 and 4, never as 2: is espa_address "},
        {0, 99, 0, 2, 0, 0, others, "0 ", "5"},
        {0, 99, 0, 3, 0, 0, others, "0 "},
        {0, 99, 0, 0, 0, 0, {{"3", "", 19}}, "0 "},
        {0, 99, 0, 2, 0, 0, {{"1", "", 20}}, "2 addressed as 1 alone, never as 2: a sender "},
        {0, 99, 0, 0, 3, 3, {}, "2 every check character is wrong, of 3 packets: are data bits "},
        {0, 99, 0, 0, 4, 3, {}, "0 "},
        {0, 99, 0, 0, 3, 3, {}, "0 ", "2", "espa", 1},
    };
    for (const auto &row : rows) {
        status_t status;
        status.is_up = true;
        line_status_t &line = status.lines.emplace_back();
        line.state = line_state_t::IDLE;
        line.protocol = line.configured = row.configured;
        line.silence_seconds = row.silence;
        line.received_bytes = row.received;
        line.alarms = {{"connection_lost", "limited", row.lost}};
        line.noise_bytes = row.noise;
        line.packets = row.packets;
        line.check_errors = row.wrong;
        line.requests = row.requests;
        line.address = row.address;
        line.control = "1";
        line.messages = row.messages;
        const auto problems = judge(status, {}, 0);
        EXPECT_THAT(std::to_string(int(worst_level(problems))) + " " +
                        (problems.empty() ? "" : problems[0].words),
                    StartsWith(row.words));
        EXPECT_TRUE(problems.empty() ||
                    int64_t(problems[0].seconds) == (row.received > 0 ? 0 : row.silence));
        line.state_since = -61;
        line.state = line_state_t::ENDED;
        EXPECT_EQ(judge(status, {}, 0).size(), 1U);  // this is what is wrong now
    }
}

TEST(Status, SamplesAreReadByTheFormat) {
    std::vector<sample_t> samples;
    std::string error;
    const char *const good = " m:AZ_az09 { l9 = \"a\\\\b\\\"c\\nd\" , } -1.5 -7 \n\n # x\nm +1\n";
    ASSERT_TRUE(parse_samples(good, &samples, &error));
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_EQ(joined(samples[0].metric, samples[0].label("l9"), samples[0].label("x"),
                     samples[0].value, samples[1].metric, samples[1].value),
              "m:AZ_az09|a\\b\"c\nd||-1.5|m|1|");
    for (const char *bad :
         {"9m 1", "m", "m{", "m{ 1", "m{a 1", "m{a= 1", "m{a} 1", "m{:=\"\"} 1", "m{a=b} 1",
          "m{a=\"b} 1", "m{a=\"\\} 1", "m{a=\"b\" c=\"\"} 1", "m 1 1.5", "m 1 1 1", "m ++1"}) {
        EXPECT_FALSE(parse_samples("m 1\n"s + bad + "\n", &samples, &error)) << bad;
        EXPECT_EQ(error, "line 2 is no sample");
    }
    EXPECT_FALSE(parse_samples("m 1\nm 1\nm 1", &samples, &error));
    EXPECT_EQ(error, "line 3 is cut");
}

// Whoever can write the file, nobody who reads it waits for him, or reads what a link of his names.
TEST(Status, IsReadOutOfARegularFile) {
    const temp_dir_t dir;
    ASSERT_EQ(mkfifo(dir.path("fifo").c_str(), 0666), 0);
    fs::create_symlink(dir.write("large", std::string(MAX_STATUS_SIZE + 1, '\n')),
                       dir.path("link"));
    const struct {
        const char *name;
        links_t links;
        const char *error;
    } rows[] = {
        {"fifo", links_t::FOLLOW, "it is no regular file"},
        {"link", links_t::FOLLOW, "it is larger than 1 MB"},
        {"link", links_t::REFUSE, "it is a link"},
    };
    for (const auto &row : rows) {
        status_t status;
        std::string error;
        EXPECT_FALSE(read_status(dir.path(row.name), row.links, &status, &error));
        EXPECT_EQ(error, row.error) << row.name;
    }
}

}  // namespace
