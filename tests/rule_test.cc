// From a message to what is done: patterns, selection of a rule, placeholders, actions and service alarms.

#include "rule.h"

#include "action.h"
#include "alarm.h"
#include "clock.h"
#include "proto.h"
#include "support.h"
#include "text.h"

namespace {

TEST(Pattern, LengthOfTheLastMatchAndTextsOfTheGroups) {
    const struct {
        const char *pattern, *text;
        int index;
        std::string groups = "##";  // untouched
    } rows[] = {{"[0-9]+", "12 345", 3},
                {"[0-9]+", "none", 0},
                {".*", "", 0},
                {"^A", "AAA", 1},
                {"x*", "bxx", 0},
                {".*", "ab\ncd", 2},
                {"b$", "ab\ncb", 1},
                {"abc", "ABC", 0},
                {"(a|b)c", "bc", 2, "b"},
                {"([0-9]+)-([0-9]+)", "1-2 x 3-4", 3, "1234"},
                {"([a-z]+) ", "abcdef ghij ", 5, "abcdefg"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern + " on "s + row.text);
        pattern_t compiled{};
        EXPECT_EQ(compile_regex(&compiled, row.pattern), 0);
        std::string out(9, '#');
        EXPECT_EQ(match_regex(&compiled, row.text, out.data(), 8), row.index);
        EXPECT_THAT(out, AllOf(StartsWith(row.groups[0] == '#' ? row.groups : row.groups + '\0'),
                               EndsWith("#")));
    }
}

TEST(Pattern, FailedOnesMatchNothing) {
    const captured_log_t log;
    pattern_t pattern{};
    for (const char *text :
         {"(", "a{2", "x{32767}{32767}", "((x{1000}y){1000}){1000}", "([[:alpha:])]x{900}){9}"}) {
        EXPECT_EQ(compile_regex(&pattern, text), 1) << text;
        EXPECT_EQ(match_regex(&pattern, "xxxx", nullptr, 0), 0) << text;
    }
    EXPECT_THAT(log.messages(), StartsWith("Regex error compiling '(': Unmatched ( or \\(\n"));
    pattern_t same{};  // equal texts share a compilation, or reloads would grow without end
    for (pattern_t *p : {&pattern, &same}) {
        EXPECT_EQ(compile_regex(p, "[^]{999}{999}]{3}\\{x{200}"), 0);
    }
    EXPECT_EQ(same.compiled, pattern.compiled);
}

struct Selection : Test {
    Selection() {
        memset(rules, 0, sizeof rules);
        const std::map<int, std::array<const char *, 2>> table = {
            {0, {"rule_fire", "FIRE"}},
            {4, {"rule_rest", "never"}},
            {1, {"rule_zone", "ZONE [0-9]+"}},
            {3, {"rule_same", "EZIF|ERIF|FIRE"}},
            {255, {"rule_last", "last"}}};
        for (const auto &[slot, row] : table) {
            copy_text(rules[slot].name, row[0]);
            compile_regex(&rules[slot].pattern, row[1]);
        }
    }
};

TEST_F(Selection, ByName) {
    const std::pair<const char *, const rule_t *> rows[] = {
        {"", nullptr},         {"rule_x", nullptr},       {"RULE_ZONE", &rules[1]},
        {"rule_f", &rules[0]}, {"rule_fire2", &rules[0]}, {"rule_last", &rules[255]}};
    for (const auto &[name, rule] : rows) {
        EXPECT_EQ(get_rule_by_name(name), rule) << name;
    }
}

TEST_F(Selection, LongestLastMatchWinsElseTheDefaultRule) {
    const struct {
        const char *list, *message, *selected, *log = "", *fallback = "rule_rest";
    } rows[] = {{"rule_fire,rule_zone", "FIRE ZONE 3", "rule_zone",
                 "selected rule 'rule_zone' with match index 6\n\n"},
                {"rule_fire;;rule_same", "FIRE", "rule_fire", "For"},
                {"rule_same:rule_fire", "FIRE", "rule_same", "For"},
                {"rule_none,rule_last", "at last", "rule_last", "For"},
                {"rule_fire, rule_zone", "ZONE 3", "rule_rest"},
                {"rule_fire", nullptr, "rule_rest"},
                {"rule_fire", "x", "none", "", ""},
                {"rule_fire", "x", "none", "", "none"},
                {"", "FIRE", "rule_rest", "No rules set up in pager '', using default rule\n\n"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.list);
        const captured_log_t log;
        pager_t pager{};
        copy_text(pager.rules, row.list);
        copy_text(pager.default_rule, row.fallback);
        const rule_t *rule = select_rule(&pager, row.message);
        EXPECT_STREQ(rule != nullptr ? rule->name : "none", row.selected);
        EXPECT_TRUE(row.log[0] != 0 ? log.messages().find(row.log) != std::string::npos
                                    : log.messages().empty());
    }
}

struct Action : Test {
    Action() {
        memset(rules, 0, sizeof rules);
        copy_text(pager.spool_dir, dir.path("."));
        copy_text(pager.default_rule, "rule_a");
        copy_text(rule.name, "rule_a");
        rule.action = CALL;
    }
    void set_value(int slot, const std::string &name, const char *pattern) {
        copy_text(rule.values[slot].name, name);
        compile_regex(&rule.values[slot].pattern, pattern);
    }
    // Also tests that the rest of the buffer is zero and the byte after it untouched.
    std::string expand(const std::string &fmt, const char *message = "FIRE ZONE 3 ROOM 12",
                       int alrm = ALARM_MESSAGE, int size = 1024) {
        std::string line(size_t(size) + 1, '#');
        const int length = format_string(line.data(), size, fmt.c_str(), alrm, "4711", message,
                                         &pager, rule.values);
        const std::string expanded = line.substr(0, size_t(length));
        EXPECT_EQ(line, expanded + std::string(size_t(size - length), '\0') + '#');
        return expanded;
    }
    temp_dir_t dir;
    captured_log_t log;
    pager_t pager{};
    rule_t &rule = rules[0];
};

TEST_F(Action, Placeholders) {
    EXPECT_EQ(expand("%message%", "0123456789", 16, 8), "0123456");
    EXPECT_EQ(expand("Call %number%: %message%", "%number% $a"), "Call 4711: %number% $a");
    EXPECT_EQ(expand("%espa_if% %number %foo% 100% %Number%"),
              "%espa_if% %number %foo% 100% %Number%");
    const std::map<int, std::string> names = {
        {1, "connection_lost"}, {2, "connected"}, {4, "message"},     {8, ""},
        {16, "message"},        {32, "started"},  {64, "terminated"}, {128, "general_error"},
        {999, "general_error"}};
    for (const auto &[code, name] : names) {
        EXPECT_EQ(expand("%alarm%", "", code), name) << code;
    }

    set_value(0, "a", "ZONE ([0-9]+)");
    set_value(1, "ab", "(FIRE)");
    set_value(2, "room", "ROOM ([0-9]+)");
    const std::pair<const char *, const char *> rows[] = {{"$a$room%number%.", "312%number%."},
                                                          {"$room$a", "12$a"},
                                                          {"$ab", "3b"},
                                                          {"$x $ $room $", "$x $ 12 $"}};
    for (const auto &[fmt, expanded] : rows) {
        EXPECT_EQ(expand(fmt), expanded);
    }
    EXPECT_EQ(expand("[$a]", nullptr) + expand("$a$room", "ZONE 1 ROOM 22 ZONE 3"), "[]1322");
    set_value(1, "", "x");
    EXPECT_EQ(expand("$a $room"), "3 $room");  // the first value without a name ends the list
}

TEST_F(Action, CallFileByteForByteAndScriptThroughTheShell) {
    copy_text(rule.extension, "2001");
    copy_text(rule.context, "default");
    copy_text(rule.callerid, "1234");
    copy_text(rule.channel, "SIP/2001");
    const int before = seconds_now();
    call_action(&pager, ALARM_MESSAGE, "4711", "text", &rule);
    const int after = seconds_now();
    ASSERT_EQ(dir.list().size(), 1u);
    const std::string name = dir.list().at(0), prefix = "call_2001_";
    const std::string content =
        "Channel: SIP/2001\r\nContext: default\r\nExtension: 2001\r\nCallerID: 1234\r\n";
    EXPECT_EQ(dir.read(name), content + "Priority: 1\r\nMaxRetries: 0\r\n");
    EXPECT_TRUE(prefix + std::to_string(before) <= name && name <= prefix + std::to_string(after))
        << name;
    rule.action = SCRIPT;
    copy_text(rule.callscript,
              "echo %number% %alarm% '%message%' > " + dir.path("out") + "; exit 3");
    call_action(&pager, ALARM_MESSAGE, "4711", "FIRE", &rule);
    EXPECT_EQ(dir.read("out"), "4711 message FIRE\n");
}

TEST_F(Action, AlarmIntervals) {
    const struct {
        int level, seconds_ago;
        const char *outcome;  // result, new level and age
    } rows[] = {{0, 0, "1|1|0|"},     {1, 4, "0|1|4|"},     {1, 5, "2|2|0|"},
                {2, 25, "3|3|0|"},    {3, 299, "0|3|299|"}, {3, 300, "4|4|0|"},
                {9, 301, "10|10|0|"}, {1, -50, "0|1|-50|"}};
    for (const auto &row : rows) {
        int result = 0, now = 0;
        do {  // once more when the second changed in between
            now = seconds_now();
            pager.alarms[4] = {row.level, now - row.seconds_ago};
            result = alarm_time(&pager, ALARM_CONNECTED);
        } while (now != seconds_now());
        EXPECT_EQ(joined(result, pager.alarms[4].index, now - pager.alarms[4].last), row.outcome)
            << row.seconds_ago;
    }
    EXPECT_EQ(alarm_time(&pager, ALARM_MESSAGE) + alarm_time(&pager, ALARM_MESSAGE),
              2);  // always at once
}

TEST_F(Action, AlarmSlots) {
    pager.polls = 1;
    EXPECT_EQ((ints_t{alarm_time(&pager, ALARM_TRANSMISSION_ERROR),
                      alarm_time(&pager, ALARM_NO_RESPONSE)}),
              (ints_t{2, 1}));
    EXPECT_EQ(joined(pager.polls, pager.alarms[1].index), "2|1|");
    std::set<int *> slots;
    for (const int code : {1, 2, 4, 8, 16, 32, 64, 128}) {
        slots.insert(alarm_slot(&pager, code).index);
    }
    EXPECT_EQ(slots.size(), 8u);
}

TEST_F(Action, SuppressionFiles) {
    const std::pair<const char *, int> rows[] = {{"5", 1},         {"abc", 1},  {"", 1},
                                                 {"\n-1", 1},      {"-1", 0},   {"0xffffffff", 0},
                                                 {" -5 # off", 0}, {"-1\n0", 0}};
    for (const auto &[line, level] : rows) {
        dir.write("message", line);
        pager.alarms[4] = {};
        EXPECT_EQ(alarm_time(&pager, ALARM_CONNECTED) * 10 + pager.alarms[4].index, level * 11)
            << line;
        EXPECT_EQ(log.messages().substr(0, 26), level == 1 ? "" : "Alarm message  supressed\n\n");
    }
    dir.write("connection_lost", "-1");
    EXPECT_EQ(alarm_time(&pager, ALARM_NO_RESPONSE), 0);
    EXPECT_EQ(alarm_time(&pager, ALARM_TRANSMISSION_ERROR),
              1);  // has no name: the directory cannot be read
}

TEST_F(Action, ServiceAlarmsRunTheDefaultRule) {
    copy_text(rule.extension, "x%alarm%");
    copy_text(rule.context, "[%number%%message%]");
    call_service_action(&pager, ALARM_NO_RESPONSE);
    EXPECT_EQ(log.messages(),
              "Call service action connection_lost\n\nService actions disabled\n\n");
    EXPECT_TRUE(dir.list().empty());
    pager.send_service_actions = 1;
    call_service_action(&pager, ALARM_STARTED);
    call_service_action(&pager, ALARM_STARTED);
    ASSERT_EQ(dir.list("call_xstarted_").size(), 1u);
    EXPECT_THAT(dir.read(dir.list().at(0)), HasSubstr("Context: []\r\n"));
}

TEST_F(Action, StatusFeedback) {
    const pair_t line;
    pager.socket = line.near.get();
    const struct {
        std::string status, call, record;
    } rows[] = {{"3\nrest", "1234\r\nFIRE\nmore\n", "1234<RS>2<US>FIRE<RS>7<US>3\n<ETX>"},
                {"3", "\nFIRE", "<RS>2<US>FIRE<RS>7<US>3<NUL><ETX>"},
                {"", "", "<RS>2<US><RS>7<US><NUL><NUL><ETX>"}};
    for (const auto &row : rows) {
        dir.write("status_42", row.status);
        dir.write("call_42", row.call);
        dir.write("status_x", "1\n");  // has no companion
        process_status_feedbacks(&pager);
        EXPECT_THAT(dir.list(), ElementsAre("call_42"));
        EXPECT_EQ(read_available(line.far), wire("<EOT>1<ENQ>2<ENQ><SOH>2<STX>1<US>" + row.record))
            << row.record;
    }
    EXPECT_THAT(log.messages(), StartsWith("send call status 3 to 1234\n"));
}

}  // namespace
