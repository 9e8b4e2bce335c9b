// Placeholder expansion, call files, command lines, service alarms and their suppression.

#include "action.h"

#include <ctime>

#include "alarm.h"
#include "clock.h"
#include "proto.h"
#include "support.h"
#include "text.h"

namespace {

class Action : public testing::Test {
  protected:
    Action() {
        memset(rules, 0, sizeof rules);
        copy_text(pager.spool_dir, dir.path("").substr(0, dir.path("").size() - 1));
        copy_text(pager.default_rule, "rule_a");
        set_rule(CALL, "2001", "default", "1234", "SIP/2001");
    }
    void set_rule(int action, const char *extension, const char *context, const char *callerid, const char *channel) {
        copy_text(rule.name, "rule_a");
        rule.action = action;
        copy_text(rule.extension, extension);
        copy_text(rule.context, context);
        copy_text(rule.callerid, callerid);
        copy_text(rule.channel, channel);
    }
    void set_value(int slot, const char *name, const char *pattern) {
        copy_text(rule.values[slot].name, name);
        compile_regex(&rule.values[slot].pattern, pattern);
    }
    std::string expand(const std::string &fmt, const char *message = "FIRE ZONE 3 ROOM 12", int size = 1024,
                       int alrm = ALARM_MESSAGE, const char *number = "4711") {
        std::string line(static_cast<size_t>(size) + 1, '#');
        const int length = format_string(line.data(), size, fmt.c_str(), alrm, number, message, &pager, rule.values);
        EXPECT_EQ(line.back(), '#');
        EXPECT_EQ(line.substr(static_cast<size_t>(length), static_cast<size_t>(size - length)),
                  std::string(static_cast<size_t>(size - length), '\0'));
        return line.substr(0, static_cast<size_t>(length));
    }
    temp_dir_t dir;
    pager_t pager{};
    rule_t &rule = rules[0];
};

TEST_F(Action, Placeholders) {
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand("Call %number%: %message%", "FIRE"), "Call 4711: FIRE");
    EXPECT_EQ(expand("%number %foo% 100% %Number%"), "%number %foo% 100% %Number%");
    EXPECT_EQ(expand("%message%", "%number% $zone"), "%number% $zone");
    EXPECT_EQ(expand("%number%%message%", nullptr, 64, 16, nullptr), "");
    EXPECT_EQ(expand("%message%", "0123456789", 8), "0123456");
    EXPECT_EQ(expand("%espa_if% %alarm%", "", 64, 4), "%espa_if% message");
    struct {
        int code;
        const char *name;
    } const names[] = {{1, "connection_lost"}, {2, "connected"},     {4, "message"},     {8, ""},
                       {16, "message"},        {32, "started"},      {64, "terminated"}, {128, "general_error"},
                       {999, "general_error"}, {-1, "general_error"}};
    for (const auto &row : names) {
        EXPECT_EQ(expand("%alarm%", "", 64, row.code), row.name) << row.code;
    }
}

TEST_F(Action, ValuePlaceholders) {
    set_value(0, "a", "ZONE ([0-9]+)");
    set_value(1, "ab", "(FIRE)");
    set_value(2, "room", "ROOM ([0-9]+)");
    EXPECT_EQ(expand("room $room"), "room 12");
    EXPECT_EQ(expand("$a$room%number%."), "312%number%.");
    EXPECT_EQ(expand("$room$a"), "12$a");
    EXPECT_EQ(expand("$ab"), "3b");
    EXPECT_EQ(expand("$x $ $room $"), "$x $ 12 $");
    EXPECT_EQ(expand("[$a]", nullptr), "[]");
    EXPECT_EQ(expand("$a$room", "ZONE 1 ROOM 22 ZONE 3"), "1322");
    set_value(1, "", "x");
    EXPECT_EQ(expand("$a $room"), "3 $room");
    const std::string name(255, 'n');
    set_value(1, name.c_str(), "(FIRE)");
    EXPECT_EQ(expand("$" + name + "$" + name.substr(1)), "FIRE$" + name.substr(1));
    set_value(0, "", "x");
    EXPECT_EQ(expand("$room $a"), "$room $a");
}

TEST_F(Action, CallFileByteForByte) {
    const int before = seconds_now();
    call_action(&pager, ALARM_MESSAGE, "4711", "text", &rule);
    const auto names = dir.list("call_2001_");
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(dir.read(names[0]), call_file("SIP/2001", "default", "2001", "1234"));
    const int stamp = std::stoi(names[0].substr("call_2001_"s.size()));
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, seconds_now());
    set_rule(SKIP, "2002", "", "", "");
    call_action(&pager, ALARM_MESSAGE, "", "", &rule);
    EXPECT_EQ(dir.list().size(), 1u);
}

TEST_F(Action, CallFileThatCannotBeWritten) {
    const captured_log_t log;
    pager.send_service_actions = 1;
    set_rule(CALL, "no/dir", "", "", "");
    call_action(&pager, ALARM_MESSAGE, "", "", &rule);
    EXPECT_EQ(log.messages(),
              "Unable to open file for writing\n\nCall service action general_error\n\n"
              "No rules set up in pager '', using default rule\n\n"
              "Unable to open file for writing\n\n");
    EXPECT_EQ(alarm_slot(&pager, ALARM_GENERAL_ERROR).index[0], 1);
}

TEST_F(Action, ScriptRunsThroughTheShell) {
    const captured_log_t log;
    rule.action = SCRIPT;
    copy_text(rule.callscript, "echo %number% %alarm% '%message%' > " + dir.path("out") + "; exit 3");
    call_action(&pager, ALARM_MESSAGE, "4711", "FIRE", &rule);
    EXPECT_EQ(dir.read("out"), "4711 message FIRE\n");
    EXPECT_THAT(log.messages(), testing::StartsWith("Calling cmd line: echo 4711 message 'FIRE' > "));
}

TEST_F(Action, AlarmIntervals) {
    struct {
        int level;
        int seconds_ago;
        int result;
    } const rows[] = {{0, 0, 1},   {1, 4, 0},   {1, 5, 2},    {2, 24, 0}, {2, 25, 3},
                      {3, 299, 0}, {3, 300, 4}, {9, 301, 10}, {1, -50, 0}};
    for (const auto &row : rows) {
        int result = 0;
        int now = 0;
        do {  // once more when the second changed in between
            now = seconds_now();
            pager.alarms[4] = {row.level, now - row.seconds_ago};
            result = alarm_time(&pager, ALARM_CONNECTED);
        } while (now != seconds_now());
        EXPECT_EQ(result, row.result) << row.level << " after " << row.seconds_ago;
        EXPECT_EQ(pager.alarms[4].index, result != 0 ? result : row.level);
        EXPECT_EQ(pager.alarms[4].last, result != 0 ? now : now - row.seconds_ago);
    }
    EXPECT_EQ(alarm_time(&pager, ALARM_MESSAGE), 1);
    EXPECT_EQ(alarm_time(&pager, ALARM_MESSAGE), 1);
}

TEST_F(Action, AlarmSlots) {
    pager.polls = 1;
    pager.last_packet = seconds_now() - 10;
    EXPECT_EQ(alarm_time(&pager, ALARM_TRANSMISSION_ERROR), 2);
    EXPECT_EQ(pager.polls, 2);
    EXPECT_NEAR(pager.last_packet, seconds_now(), 2);
    EXPECT_EQ(alarm_time(&pager, ALARM_NO_RESPONSE), 1);
    EXPECT_EQ(pager.alarms[1].index, 1);
    std::vector<int *> slots;
    for (const int code : {1, 2, 4, 8, 16, 32, 64, 128}) {
        slots.push_back(alarm_slot(&pager, code).index);
    }
    std::sort(slots.begin(), slots.end());
    EXPECT_EQ(std::unique(slots.begin(), slots.end()), slots.end());
}

TEST_F(Action, SuppressionFiles) {
    const captured_log_t log;
    for (const char *line : {"0", "5", "abc", "", "\n-1", "0x7fffffff"}) {
        dir.write("message", line);
        pager.alarms[4] = {};
        EXPECT_EQ(alarm_time(&pager, ALARM_CONNECTED), 1) << line;
    }
    EXPECT_EQ(log.text(), "");
    for (const char *line : {"-1", "0xffffffff", " -5 # off", "-1\n0"}) {
        dir.write("message", line);
        pager.alarms[4] = {};
        EXPECT_EQ(alarm_time(&pager, ALARM_CONNECTED), 0) << line;
        EXPECT_EQ(pager.alarms[4].index, 0);
    }
    EXPECT_THAT(log.messages(), testing::StartsWith("Alarm message  supressed\n\n"));
    dir.write("general_error", "-1");
    EXPECT_EQ(alarm_time(&pager, ALARM_GENERAL_ERROR), 0);
    EXPECT_EQ(alarm_time(&pager, ALARM_STARTED), 1);
    dir.write("connection_lost", "-1");
    EXPECT_EQ(alarm_time(&pager, ALARM_NO_RESPONSE), 0);
    EXPECT_EQ(alarm_time(&pager, ALARM_TRANSMISSION_ERROR),
              1);  // the directory itself cannot be read
}

TEST_F(Action, ServiceAlarmsRunTheDefaultRule) {
    const captured_log_t log;
    set_rule(CALL, "x%alarm%", "[%number%%message%]", "", "");
    call_service_action(&pager, ALARM_NO_RESPONSE);
    EXPECT_EQ(log.messages(), "Call service action connection_lost\n\nService actions disabled\n\n");
    EXPECT_EQ(pager.alarms[1].index, 1);
    EXPECT_EQ(dir.list("call_").size(), 0u);
    pager.send_service_actions = 1;
    call_service_action(&pager, ALARM_STARTED);
    call_service_action(&pager, ALARM_STARTED);
    ASSERT_EQ(dir.list("call_").size(), 1u);
    EXPECT_THAT(dir.read(dir.list("call_xstarted_").at(0)), testing::HasSubstr("Context: []\r\n"));
    copy_text(pager.default_rule, "none");
    call_service_action(&pager, ALARM_TERMINATED);
    espa_p packet{'1', {}};
    copy_text(packet.record.call_address, "47");
    copy_text(packet.record.display_message, "FIRE");
    compile_regex(&rule.pattern, "FIRE");
    copy_text(pager.rules, "rule_a");
    call_script(&pager, ALARM_GENERAL_ERROR, &packet);
    ASSERT_EQ(dir.list("call_").size(), 2u);
    EXPECT_THAT(dir.read(dir.list("call_xgeneral").at(0)), testing::HasSubstr("Context: [47FIRE]\r\n"));
}

TEST_F(Action, StatusFeedback) {
    const captured_log_t log;
    const pair_t line = make_socketpair();
    pager.socket = line.near.get();
    const auto feedback = [&](const std::string &status, const std::string &call) {
        dir.write("status_42", status);
        dir.write("call_42", call);
        process_status_feedbacks(&pager);
        EXPECT_EQ(dir.list(), std::vector({"call_42"s}));
        return read_available(line.far);
    };
    const std::string opening =
        "\x04"
        "1\x05"
        "2\x05\x01"
        "2\x02"
        "1\x1F";
    EXPECT_EQ(feedback("3\nrest", "1234\r\nFIRE\nmore\n"), opening +
                                                               "1234\x1E"
                                                               "2\x1F"
                                                               "FIRE\x1E"
                                                               "7\x1F"
                                                               "3\n\x03");
    EXPECT_EQ(feedback("3", "\nFIRE"), opening +
                                           "\x1E"
                                           "2\x1F"
                                           "FIRE\x1E"
                                           "7\x1F"
                                           "3\0\x03"s);
    EXPECT_EQ(feedback("", ""), opening +
                                    "\x1E"
                                    "2\x1F\x1E"
                                    "7\x1F\0\0\x03"s);
    EXPECT_THAT(log.messages(), testing::StartsWith("send call status 3 to 1234\n"));
    dir.write("status_x", "1\n");
    process_status_feedbacks(&pager);
    EXPECT_EQ(dir.list(), std::vector({"call_42"s}));
    EXPECT_EQ(read_available(line.far), "");
    copy_text(pager.spool_dir, "/missing");
    process_status_feedbacks(&pager);
    EXPECT_THAT(log.messages(), testing::HasSubstr("Unable to open directory\n\nCall service action general_error\n"));
}

}  // namespace
