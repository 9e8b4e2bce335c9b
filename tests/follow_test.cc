// Calls that are followed to their end: what their files say, what the daemon makes of it, and that
// whoever kills it neither doubles nor loses one. The tests write what a PBX writes.

#include "follow.h"

#include "action.h"
#include "clock.h"
#include "espasend/standard_station.h"
#include "outcome.h"
#include "report.h"
#include "running_daemon.h"

namespace {

const std::string KEYS =
    "espa_address = 2\nack_when_done = y\nstaging_dir = @staging\nfollow_calls = y\n"
    "status_called = c\nstatus_answered = a\nstatus_unanswered = u\n"
    "rules = rule_plain,rule_sure,rule_lost,rule_last\n";
const std::string RULES =
    "[logger]\nstatus_file = @status\njournal_file = @journal\n"
    "[rule_plain]\npattern = PLAIN\naction = call\nextension = plain\notherwise = rule_run\n"
    "[rule_sure]\npattern = SURE\naction = call\nextension = sure\nconfirm = y\n"
    "otherwise = rule_next\nwait_time = 7\nmax_retries = 2\nretry_time = 9\nrecord_fields = y\n"
    "[rule_next]\naction = call\nextension = next$p\notherwise = rule_gone\n"
    "value[p] = [^0-9]*([0-9])\n"
    "[rule_lost]\npattern = LOST\naction = call\nextension = lost\ngive_up = 1\n"
    "[rule_run]\naction = script\nquote = y\ncallscript = 'echo %message% >> @ran'\n"
    "[rule_gone]\naction = script\nquote = y\ncallscript = 'exit 127'\notherwise = rule_shut\n"
    "[rule_shut]\naction = script\nquote = y\ncallscript = 'exit 126'\notherwise = rule_bare\n"
    "[rule_bare]\naction = script\ncallscript = 'echo bare >> @ran'\notherwise = rule_run\n"
    "[rule_last]\npattern = LAST\naction = call\nextension = last\notherwise = rule_none\n";

struct Follow : Installed {
    Follow() : daemon({{"ward", KEYS}}, RULES) { daemon.dir.make("staging"); }
    void start() {
        daemon.run_in_foreground();
        line = daemon.accept();
        station = std::make_unique<standard_station_t>(line.get(), 60, nullptr, '1');
    }
    void kill_daemon() {
        daemon.foreground.reset();
        line.reset();
    }
    // Has a call made; returns the name of its file.
    std::string call(const std::string &message, const std::string &extension) {
        EXPECT_TRUE(station->send_call('2', to("47", message))) << station->error();
        const texts_t names = daemon.dir.list("call_" + extension + "_");
        EXPECT_FALSE(names.empty()) << message;
        return names.empty() ? "" : names.back();
    }
    // What a PBX adds to a call file.
    void add(const std::string &name, const std::string &text) const {
        std::ofstream(daemon.dir.path(name), std::ios::app) << "\nStartRetry: 1 1 (1)\n" << text;
    }
    texts_t links() const {
        texts_t names;
        for (const auto &entry : fs::directory_iterator(daemon.dir.path("staging/followed"))) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
    // The call statuses that wait for the control station, sorted.
    std::string reports() {
        std::string all, report;
        while (station->poll_station('2', &report) && !report.empty()) {
            EXPECT_THAT(report, StartsWith(wire("<SOH>2<STX>1<US>47<RS>7<US>")));
            all += report.substr(report.size() - 3, 1);
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    std::string next_call(const std::string &extension) const {
        texts_t names;
        EXPECT_TRUE(eventually([&] {
            names = daemon.dir.list("call_" + extension + "_");
            return !names.empty();
        })) << extension;
        return names.empty() ? "" : names[0];
    }
    // What the journal says of a call: its result, the rule that went on and the file it made.
    std::string outcome(const std::string &call) const {
        std::string journal, found;
        const std::string text = "\"[^\"]*\"";
        const std::regex form("\\{\"time\":" + text + ",\"line\":" + text +
                              ",\"event\":\"outcome\",\"call\":\"" +
                              call.substr(0, call.find('=')) + "\",\"address\":" + text +
                              ",\"text\":" + text + ",\"rule\":" + text +
                              ",\"result\":\"(\\w+)\",\"attempts\":(\\d+),\"seconds\":\\d+,"
                              "\"next\":([^,}]*)");
        EXPECT_TRUE(eventually([&] {
            found.clear();
            journal = daemon.dir.read("journal");
            for (std::sregex_iterator at(journal.begin(), journal.end(), form), end; at != end;
                 ++at) {
                found += (*at)[1].str() + " " + (*at)[2].str() + " " + (*at)[3].str() + ";";
            }
            return !found.empty();
        })) << call
            << "\n"
            << journal << daemon.log();
        return found;
    }

    daemon_t daemon;
    unique_fd_t line;
    std::unique_ptr<standard_station_t> station;
};

TEST_F(Follow, ToTheEndOfTheChain) {
    start();
    const std::string answered = call("PLAIN 1", "plain");
    const std::string sure = call("SURE 2", "sure");
    EXPECT_THAT(daemon.dir.read(sure),
                AllOf(HasSubstr("MaxRetries: 2\r\nWaitTime: 7\r\nRetryTime: 9\r\nArchive: yes\r\n"
                                "SetVar: VESPERD_CALL=" +
                                sure + "\r\n; vesperd: daemon \r\n"),
                      HasSubstr("; vesperd: text SURE 2\r\n"), EndsWith("; vesperd: end\r\n")));
    const auto shows = [&](const std::string &sample) {
        return eventually(
            [&] { return daemon.dir.read("status").find(sample) != std::string::npos; });
    };
    EXPECT_TRUE(shows("calls_open{line=\"ward\"} 2\n"));
    add(answered, "Answered: 5\n");
    add(sure, "Answered: 5\n\nStatus: Completed\n");  // by a mailbox
    EXPECT_EQ(outcome(answered), "answered 1 null;");
    EXPECT_EQ(outcome(sure), "unanswered 1 \"rule_next\";");
    const std::string next = next_call("next2");
    EXPECT_THAT(daemon.dir.read(next), HasSubstr("after " + sure +
                                                 "\r\n; vesperd: alarm 16\r\n"
                                                 "; vesperd: passed_on 1\r\n"));
    add(next, "\nStatus: Expired\n");
    EXPECT_EQ(outcome(next), "unanswered 1 \"rule_run\";");
    const std::string lost = call("LOST 9", "lost");
    EXPECT_EQ(outcome(lost), "lost 0 null;");
    EXPECT_FALSE(fs::exists(daemon.dir.path(lost)));
    const std::string confirmed = call("SURE 3", "sure");
    const std::string last = call("LAST\x07 4", "last");
    add(confirmed, "Confirmed: 1\n");
    add(last, "\nStatus: Expired\n");
    EXPECT_EQ(outcome(confirmed), "confirmed 1 null;");
    EXPECT_EQ(outcome(last), "unanswered 1 null;");
    EXPECT_EQ(daemon.dir.read("ran"), "SURE 2\n");
    daemon.expect_logged("Nobody answered call " + last + " of line ward for LAST");
    EXPECT_EQ(daemon.count("otherwise of rule rule_last finds no rule: rule_none"), 1);
    EXPECT_EQ(daemon.count("Rule rule_bare needs quote = yes to be an otherwise"), 1);
    EXPECT_TRUE(shows("calls_open{line=\"ward\"} 0\n") && shows("undelivered_time_seconds{"));
    EXPECT_FALSE(links().empty());  // until the station has heard of it
    EXPECT_EQ(reports(), "aacccccuuu");
    EXPECT_TRUE(eventually([&] { return links().empty(); }));
    EXPECT_EQ(joined(daemon.count("WARNING"), daemon.count("ERROR")), "1|3|") << daemon.log();
    EXPECT_THAT(daemon.log(),
                AllOf(ContainsRegex("rule_sure: unanswered after [0-9]+ s, 1 attempt, next is "
                                    "rule_next\n"),
                      ContainsRegex("rule_lost: lost after [0-9]+ s, 0 attempts\n")));
    for (const char *sample :
         {"outcome=\"answered\"} 1\n", "outcome=\"unanswered\"} 3\n", "outcome=\"lost\"} 1\n",
          "answer_seconds_count{line=\"ward\"} 2\n", "line_undelivered_total{line=\"ward\"} 2\n"}) {
        EXPECT_THAT(daemon.dir.read("status"), HasSubstr(sample));
    }
    EXPECT_THAT(run(2, "vesperstat --check -s " + daemon.dir.path("status")),
                HasSubstr("ward: nobody answered " + last + " for LAST? 4, "));
}

// What a killed process leaves at any point is taken up where it is.
TEST_F(Follow, ThroughSigkill) {
    start();
    const std::string open = call("PLAIN 1", "plain"), ended = call("SURE 2", "sure");
    const std::string halfway = call("SURE 3", "sure"), told = call("PLAIN 4", "plain");
    const std::string passed = call("SURE 5", "sure"), nobodys = call("PLAIN 6", "plain");
    const std::string reported = call("PLAIN 7", "plain");
    kill_daemon();
    const auto rename_link = [&](const std::string &from, const std::string &name) {
        fs::rename(daemon.dir.path("staging/followed/" + from),
                   daemon.dir.path("staging/followed/" + name));
    };
    add(ended, "\nStatus: Failed\n");
    rename_link(halfway, halfway + "=unanswered=3");
    rename_link(told, told + "=unanswered=3");
    daemon.dir.write("journal",
                     "{\"line\":\"ward\",\"event\":\"outcome\",\"call\":\"" + told + "\"}\n");
    rename_link(passed, passed + "=unanswered=3");
    rename_link(reported, reported + "=unanswered=3=told");
    // Its successor is linked, and not yet in the spool directory.
    followed_call_t successor{
        .line = "ward", .rule = "rule_next", .text = "SURE 5", .after = passed};
    successor.placed_ms = milliseconds_now();
    successor.address = "47";
    successor.passed_on = 1;
    daemon.dir.write("staging/vesperd-call-1-1", to_comments(successor));
    fs::create_hard_link(daemon.dir.path("staging/vesperd-call-1-1"),
                         daemon.dir.path("staging/followed/call_next5_1_0"));
    daemon.dir.write("staging/followed/call_x_1_0",
                     to_comments({.line = "ward", .rule = "rule_x"}));
    daemon.dir.write("staging/followed/call_g_1_0",
                     to_comments({.line = "gone", .rule = "rule_sure"}));
    daemon.dir.write("staging/followed/call_y_1_0", to_comments({.daemon = "other", .line = "w"}));
    daemon.dir.write("staging/followed/call_z_1_0", "");
    daemon.dir.write(
        "staging/followed/call_m_1_0=unanswered=3",
        to_comments({.line = "ward", .rule = "rule_sure", .passed_on = MAX_PASSED_ON}));
    fs::remove(daemon.dir.path("staging/followed/" + nobodys));
    start();
    EXPECT_EQ(outcome(ended), "unanswered 1 \"rule_next\";");
    EXPECT_EQ(outcome(halfway), "unanswered 0 \"rule_next\";");
    EXPECT_EQ(outcome(passed), "unanswered 0 \"rule_next\";");
    EXPECT_TRUE(fs::exists(daemon.dir.path("call_next5_1_0")));
    add(open, "Answered: 5\n");
    EXPECT_EQ(outcome(open), "answered 1 null;");
    add("call_next5_1_0", "\nStatus: Expired\n");
    EXPECT_EQ(outcome("call_next5_1_0"), "unanswered 1 \"rule_run\";");
    EXPECT_EQ(daemon.dir.list("call_next5_").size(), 1U);  // there was one already
    for (const char *extension : {"next2", "next3"}) {
        add(next_call(extension), "Answered: 5\n");
    }
    std::string heard;
    EXPECT_TRUE(eventually([&] {
        heard += reports();
        return links() == texts_t{"call_y_1_0"};
    })) << heard;
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, "aaaccuuu");
    for (const char *name : {"call_g_1_0", "call_m_1_0", "call_x_1_0", "call_z_1_0"}) {
        EXPECT_EQ(outcome(name), "unanswered 0 null;");  // once
    }
    EXPECT_EQ(daemon.count("The line of call call_g_1_0 is no more"), 1);
    EXPECT_EQ(daemon.count("does not say whose call it is"), 1);
    EXPECT_EQ(daemon.count("The rule of call call_x_1_0 is no more"), 1);
    std::string ran = daemon.dir.read("ran");
    EXPECT_THAT(ran, AllOf(HasSubstr("SURE 5\n"), Not(HasSubstr("PLAIN 4\n"))));
    const std::string journal = daemon.dir.read("journal");
    EXPECT_EQ(journal.find(told), journal.rfind(told));  // its outcome had been written
    for (const std::string &name : {nobodys, reported}) {
        EXPECT_EQ(journal.find(name + "\",\"addr"), std::string::npos);
    }
}

TEST(Followed, CallTellsOfItselfWhateverItHolds) {
    followed_call_t call{.daemon = "north", .line = "w;#", .rule = "rule_a"};
    for (int byte = 1; byte < 256; byte++) {
        call.text += static_cast<char>(byte);
    }
    call.text += std::string(500, ' ') + "\r\nStatus: Completed\r\n; vesperd: end\r\n";
    call.fields = {"", "1", "", "7", "100"};
    call.after = "call_1";
    call.alrm = 128;
    call.passed_on = 9;
    call.placed_ms = 1'795'356'069'123;
    const std::string comments = to_comments(call);
    std::istringstream lines(comments);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_THAT(line, MatchesRegex("; vesperd: [a-z_]+( [!-~][ -~]*)?\r"));
        EXPECT_LT(line.size(), 250U) << "the PBX takes the rest for a setting";
    }
    const std::string smuggled =
        to_comments({.rule = "rule_b"}) + "\nStatus: Completed\nConfirmed: 1\n";
    const std::string content = "Channel: x\r\n" + smuggled + comments;
    followed_call_t read;
    EXPECT_TRUE(read_comments(content + "\nStartRetry: 1\n", &read));
    EXPECT_EQ(to_comments(read), comments);
    EXPECT_EQ(read.text, call.text);
    EXPECT_FALSE(read_comments("; vesperd: end\r\n", &read));
    EXPECT_FALSE(read_comments("; vesperd: daemon \r\n", &read));
    const std::pair<std::string, std::string> rows[] = {
        {"", "0000"},
        {"\nStartRetry: 1 1 (1)\n\nEndRetry: 1\n\nStartRetry: 1 2 (9)\nAnswered: 9\n", "2100"},
        {"Confirmed: 1\n", "0110"},
        {"\nStatus: Comp", "0000"},
        {"\nStatus: Completed\n", "0101"},
        {"\nStatus: Expired\n", "0001"},
        {"; Answered:\n Confirmed:\nX Status: Completed\n", "0000"},
    };
    for (const auto &[text, expected] : rows) {
        const progress_t progress = progress_of(content + text);
        std::string bits = std::to_string(progress.attempts);
        for (const bool bit : {progress.is_answered, progress.is_confirmed, progress.is_over}) {
            bits += bit ? '1' : '0';
        }
        EXPECT_EQ(bits, expected) << text;
    }
}

TEST(Followed, NamesOfCallsAndLinks) {
    for (const char *name : {"a", "a=lost=12", "a=confirmed=0=told"}) {
        EXPECT_EQ(parse_link(name).text(), name);
    }
    EXPECT_EQ(parse_link("a=b=c").text(), "a");
    EXPECT_TRUE(can_be_followed("call_8003*+.-_1795273340_0"));
    EXPECT_TRUE(can_be_followed(std::string(200, 'a')));
    for (const std::string &name : {"a b"s, "a/b"s, "a=b"s, "a$b"s, std::string(201, 'a')}) {
        EXPECT_FALSE(can_be_followed(name)) << name;
    }
}

TEST_F(Tables, WhatIsFollowedAndWhatTheStationHearsOfIt) {
    dir.make("staging/followed");
    dir.write("staging/followed/call_z", "");
    pager_t &pager = pagers[0];
    copy_text(pager.spool_dir, dir.path(""));
    copy_text(pager.staging_dir, dir.path("staging"));
    follow_start();
    EXPECT_EQ(log(), "");  // as no line follows
    copy_text(pager.status_called, "c");
    pager.espa_address = '2';
    const struct {
        const char *extension, *address;
        int alrm = ALARM_MESSAGE, passed_on = 0, follows = 1;
        bool is_followed = true, is_heard = false;
    } rows[] = {
        {"a b", "47", ALARM_MESSAGE, 0, 0, false},
        {"a b", "47", ALARM_MESSAGE, 0, 1, false},
        {"a", " ~", ALARM_MESSAGE, 0, 1, true, true},
        {"a", "1234567890123456789", ALARM_MESSAGE, 0, 1, true, true},
        {"a", "12345678901234567890"},
        {"a", "\x7F"},
        {"a", ""},
        {"a", "47", ALARM_STARTED},
        {"a", "47", ALARM_MESSAGE, 1},
    };
    for (const auto &row : rows) {
        rule_t rule{};
        rule.action = CALL;
        rule.retry_time = -1;
        copy_text(rule.extension, row.extension);
        pager.follow_calls = row.follows;
        const outcome_t outcome = perform_action(&pager, row.alrm, row.address, "FIRE", &rule,
                                                 {{"", "1", "", "", ""}}, {row.passed_on});
        EXPECT_TRUE(outcome.was_done);
        EXPECT_EQ(outcome.is_followed, row.is_followed) << row.extension;
        const std::string call = dir.read(outcome.file);
        EXPECT_THAT(call, HasSubstr("MaxRetries: 0\r\nWaitTime: 0\r\n"));
        EXPECT_EQ(call.find("; vesperd: priority 1\r\n") != std::string::npos, row.is_followed);
        EXPECT_EQ(next_report(&pager).empty(), !row.is_heard) << row.address;
        drop_report(&pager, next_report(&pager));
    }
    EXPECT_THAT(log(), MatchesRegex("ERROR: Call call_a b_[0-9]+ is not followed: .*\n+"));
}

}  // namespace
