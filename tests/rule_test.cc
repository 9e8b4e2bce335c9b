// From a message to what is done: patterns, selection of a rule, placeholders and service alarms.

#include "rule.h"
#include "re_memory.h"

#include "action.h"
#include "alarm.h"
#include "alarm_limit.h"
#include "clock.h"
#include "stats.h"
#include "support.h"
#include "text.h"

namespace {

TEST(Pattern, LengthOfTheLastMatchAndTextsOfTheGroups) {
    const struct {
        const char *pattern, *text;
        int index;
        std::string groups = "#########";  // what a buffer of eight then holds, and the byte behind
    } rows[] = {
        {"[0-9]+", "12 345", 3},
        {".*", "", 0},
        {"^A", "AAA", 1},
        {"x*", "bxx", 0},
        {".*", "ab\ncd", 2},
        {"b$", "ab\ncb", 1},
        {"([0-9]+)-([0-9]+)", "1-2 x 3-4", 3, "1234\0####"s},
        {"(a)(b)(c)(d)(e)(f)(g)(h)(i)", "abcdefghi", 9, "abcdefg\0#"s},
        {"()()()()()()()(h)(i)", "hi", 2, "hi\0######"s},
        {"(a)(x)?(b)", "ab", 2, "a\0#######"s},
    };
    for (const auto &[pattern, text, index, groups] : rows) {
        pattern_t compiled{};
        std::string out(9, '#');
        EXPECT_EQ(compile_regex(&compiled, pattern), 0);
        EXPECT_EQ(match_regex(&compiled, text, out.data(), 8), index) << pattern << " on " << text;
        EXPECT_EQ(out, groups) << pattern << " on " << text;
    }
}

TEST(Pattern, LongRepetitionsCompile) {
    const std::pair<const char *, std::string> rows[] = {
        {"x{1000}", std::string(1000, 'x')},
        {"([A-Za-z0-9 ]{1,40},){1,30}", "FIRE 3,ZONE 4,"},
        {"([A-Z][a-z]{0,30} ?){1,100}", "Fire In Zone"},
        {"x{32767}", std::string(32767, 'x')},
        {"(x{1000}){100}|ZONE", "ZONE"},
    };
    for (const auto &[text, match] : rows) {
        pattern_t pattern{};
        begin_patterns();
        EXPECT_EQ(compile_regex(&pattern, text), 0) << text;
        EXPECT_EQ(match_regex(&pattern, match.c_str(), nullptr, 0), std::ssize(match)) << text;
    }
}

TEST_F(Tables, PatternsThatDoNotCompileMatchNothing) {
    pattern_t pattern{};
    const std::string pluses = "x" + std::string(30, '+');  // each doubles what stands before it
    const texts_t texts = {
        "(",
        "a{2",
        "x{0,10000}",
        "x{0,32767}",
        "0+??????????????++++++++",
        pluses,
        "(|\\b)?{0,7}*b?",
    };
    begin_patterns();
    for (const std::string &text : texts) {
        EXPECT_EQ(compile_regex(&pattern, text.c_str()), 1) << text;
        EXPECT_EQ(match_regex(&pattern, "xxxx", nullptr, 0), 0) << text;
    }
    EXPECT_THAT(log(), StartsWith("ERROR: Regex error compiling '(': Unmatched ( or \\(\n"));
    begin_patterns();
    pattern_t same{};  // equal texts share a compilation, or reloads would grow without end
    for (pattern_t *p : {&pattern, &same}) {
        EXPECT_EQ(compile_regex(p, "[^]{999}{999}]{3}\\{x{200}"), 0);
    }
    EXPECT_EQ(same.compiled, pattern.compiled);
}

TEST_F(Tables, PatternsOfOneConfigurationShareWhatThereIs) {
    const auto compiles = [](int number) {
        pattern_t pattern{};
        const std::string text = "(a|b){0,1500}" + std::to_string(number);
        return compile_regex(&pattern, text.c_str()) == 0;
    };
    pattern_t ordinary{};
    begin_patterns();
    int first_refused = 0;
    constexpr int FAR_TOO_MANY = 200;
    while (first_refused < FAR_TOO_MANY && compiles(first_refused)) {
        first_refused++;
    }
    EXPECT_THAT(first_refused, AllOf(Ge(1), Lt(FAR_TOO_MANY)));
    EXPECT_TRUE(compiles(0));  // is counted once
    EXPECT_EQ(compile_regex(&ordinary, "FIRE ZONE [0-9]+"), 0);
    EXPECT_THAT(log(), HasSubstr(": Too large together with the patterns before it"));
    load("");
    EXPECT_TRUE(compiles(first_refused));
}

TEST_F(Tables, LongestLastMatchWinsElseTheDefaultRule) {
    load(
        "[rule_fire]\npattern = FIRE\n[rule_zone]\npattern = ZONE [0-9]+\n"
        "[rule_same]\npattern = EZIF|ERIF|FIRE\n[rule_rest]\npattern = never\n");
    const struct {
        const char *list, *message, *selected, *fallback = "rule_rest";
    } rows[] = {
        {"rule_fire,rule_zone", "FIRE ZONE 3", "rule_zone"},
        {"rule_fire;;rule_same", "FIRE", "rule_fire"},
        {"rule_same:rule_fire", "FIRE", "rule_same"},
        {"rule_none,RULE_ZONE", "ZONE 3", "rule_zone"},
        {"r[le_zone,r@le_zone", "ZONE 3", "rule_rest"},
        {"rule_fire, rule_zone", "ZONE 3", "rule_rest"},
        {"rule_f", "FIRE", "rule_fire"},  // names are equal over the length of the shorter one
        {"rule_zone2", "ZONE 3", "rule_zone"},
        {"rule_fire", nullptr, "rule_rest"},
        {"rule_fire", "x", "none", ""},
        {"rule_fire", "x", "none", "none"},
        {"", "FIRE", "rule_rest"},
    };
    for (const auto &[list, message, selected, fallback] : rows) {
        copy_text(pagers[0].rules, list);
        copy_text(pagers[0].default_rule, fallback);
        const rule_t *rule = select_rule(&pagers[0], message);
        EXPECT_STREQ(rule != nullptr ? rule->name : "none", selected) << list;
    }
    EXPECT_THAT(log(), EndsWith("DEBUG: For message 'ZONE 3' selected rule 'rule_zone' with match "
                                "index 6\n\nDEBUG: No rules set up in pager '', using default "
                                "rule\n\n"));
}

TEST_F(Tables, ConditionsOnTheFieldsOfARecord) {
    load(
        "[rule_a]\npattern = FIRE ZONE\nmatch_priority = ^1$\nmatch_type = 3\n"
        "[rule_b]\npattern = FIRE\nmatch_address = ^4\n"
        "[rule_c]\npattern = FIRE\nmatch_beep = x*\n"
        "[rule_d]\npattern = FIRE\nmatch_transmissions = (\n"
        "[rule_e]\nmatch_priority = 9\npattern = never\n");
    const std::pair<std::array<const char *, CALL_FIELDS>, const char *> rows[] = {
        {{"", "1", "3", "", ""}, "rule_a"},   {{"41", "1", "03", "", ""}, "rule_a"},
        {{"41", "2", "3", "", ""}, "rule_b"}, {{"", "1", "2", "", ""}, "rule_e"},
        {{"14", "", "", "y", "("}, "rule_e"}, {{"", "", "", "xx", ""}, "rule_c"},
        {{"", "", "", "", ""}, "rule_e"},
    };
    copy_text(pagers[0].rules, "rule_c,rule_d,rule_b,rule_a");
    copy_text(pagers[0].default_rule, "rule_e");  // which has no conditions
    for (const auto &[texts, selected] : rows) {
        call_fields_t fields;
        std::copy(texts.begin(), texts.end(), fields.texts);
        EXPECT_STREQ(select_rule(&pagers[0], "FIRE ZONE 3", fields)->name, selected)
            << joined(texts[0], texts[1], texts[2], texts[3]);
    }
    EXPECT_EQ(unmet_condition(rules[0], {{"", "1", "2", "", ""}}), int(call_field_t::TYPE));
}

struct Action : Tables {
    // Also tests that the rest of the buffer is zero and the byte after it untouched.
    std::string expand(const char *fmt, const char *message = "FIRE ZONE 3 ROOM 12",
                       int alrm = ALARM_MESSAGE, size_t size = 1024) {
        std::string line(size + 1, '#');
        const int length = format_string(line.data(), int(size), fmt, alrm, "4711", message, &pager,
                                         rules[0].values);
        const std::string expanded = line.substr(0, size_t(length));
        EXPECT_EQ(line, expanded + std::string(size - expanded.size(), '\0') + '#');
        return expanded;
    }
    pager_t &pager = pagers[0];
};

TEST_F(Action, Placeholders) {
    EXPECT_EQ(expand("%message%", "0123456789", 16, 8), "0123456");
    EXPECT_EQ(expand("Call %number%: %message%", "%number% $a"), "Call 4711: %number% $a");
    EXPECT_EQ(expand("%number %foo% 100% %Number%"), "%number %foo% 100% %Number%");
    const std::map<int, std::string> names = {
        {1, "connection_lost"}, {2, "connected"},       {4, "message"},         {8, ""},
        {0, "no_response"},     {-1, "general_error"},  {16, "message"},        {32, "started"},
        {64, "terminated"},     {128, "general_error"}, {999, "general_error"},
    };
    for (const auto &[code, name] : names) {
        EXPECT_EQ(expand("%alarm%", "", code), name) << code;
    }
}

TEST_F(Action, PlaceholdersForTheFieldsOfARecord) {
    const std::string all = "%priority%|%type%|%beep%|%transmissions%|%line%|%Type%|%number%";
    const call_fields_t fields{{"", "1'", "3", "", "10"}};
    placeholders_t with{ALARM_MESSAGE, "7", "m", nullptr};
    char text[256];
    expand_template(text, sizeof text, all, with, quoting_t::NONE);
    EXPECT_EQ(text, replaced(all, "%number%", "7"));
    with.fields = &fields;
    with.line = "ward";
    expand_template(text, sizeof text, all, with, quoting_t::NONE);
    EXPECT_STREQ(text, "1'|3||10|ward|%Type%|7");
    expand_template(text, sizeof text, "%priority%%line%", with, quoting_t::COMMAND);
    EXPECT_STREQ(text, "'1'\\''''ward'");
}

TEST_F(Action, NamedValues) {
    load(
        "[rule_x]\nvalue[a] = ZONE ([0-9]+)\nvalue[ab] = (FIRE)\nvalue[room] = ROOM ([0-9]+)\n"
        "value[] = x\nvalue[x] = x\n");
    const std::pair<const char *, const char *> rows[] = {
        {"$a$room%number%.", "312%number%."},
        {"$room$a", "12$a"},
        {"$ab", "3b"},
        {"$x $ $room $", "$x $ 12 $"},
    };
    for (const auto &[fmt, expanded] : rows) {
        EXPECT_EQ(expand(fmt), expanded);
    }
    EXPECT_EQ(expand("[$a]", nullptr), "[]");
    EXPECT_EQ(expand("$a$room", "ZONE 1 ROOM 22 ZONE 3"), "1322");
}

TEST_F(Action, AlarmIntervals) {
    const struct {
        int level, seconds_ago;
        const char *outcome;  // result, new level and age
    } rows[] = {
        {0, 0, "1|1|0|"},  {1, 4, "0|1|4|"},     {1, 5, "2|2|0|"},   {2, 24, "0|2|24|"},
        {2, 25, "3|3|0|"}, {3, 299, "0|3|299|"}, {3, 300, "4|4|0|"}, {1, -50, "0|1|-50|"},
    };
    for (const auto &[level, seconds_ago, outcome] : rows) {
        int result = 0;
        int now = 0;
        do {  // once more when the second changed in between
            now = seconds_now();
            pager.alarms[4] = {level, now - seconds_ago};
            result = alarm_time(&pager, ALARM_CONNECTED);
        } while (now != seconds_now());
        EXPECT_EQ(joined(result, pager.alarms[4].index, now - pager.alarms[4].last), outcome);
    }
    EXPECT_EQ(alarm_time(&pager, ALARM_MESSAGE) + alarm_time(&pager, ALARM_MESSAGE), 2);
    EXPECT_GT(pager.event_alarms[0].last, 0);
    EXPECT_EQ(my_stats().alarms[2][size_t(alarm_result_t::LIMITED)].get(), 4U);
}

TEST_F(Action, AlarmSlots) {
    std::set<int *> slots;
    int row = 0;
    for (const int code : {1, 2, 4, 8, 16, 32, 64, 128}) {
        slots.insert(alarm_slot(&pager, code).index);
        EXPECT_EQ(alarm_row(code), row++);
    }
    EXPECT_EQ(slots.size(), 8u);
    EXPECT_EQ(alarm_slot(&pager, ALARM_MESSAGE).index, &pager.event_alarms[0].index);
    EXPECT_EQ(alarm_slot(&pager, ALARM_GENERAL_ERROR).last, &pager.event_alarms[3].last);
}

TEST_F(Action, SuppressionFiles) {
    copy_text(pager.spool_dir, dir.path("."));
    const std::pair<const char *, int> rows[] = {
        {"5", 1}, {"abc", 1}, {"", 1}, {"\n-1", 1}, {"-1", 0}, {"0xffffffff", 0}, {" -5 # off", 0},
    };
    for (const auto &[content, level] : rows) {
        dir.write("message", content);
        pager.alarms[4] = {};
        EXPECT_EQ(alarm_time(&pager, ALARM_CONNECTED), level) << content;
        EXPECT_EQ(pager.alarms[4].index, level) << content;
    }
    EXPECT_THAT(log(), StartsWith("WARNING: Alarm message  supressed\n\n"));
    EXPECT_EQ(my_stats().alarms[2][size_t(alarm_result_t::SUPPRESSED)].get(), 3U);
    EXPECT_EQ(alarm_time(&pager, ALARM_TRANSMISSION_ERROR), 1);  // no name: reads a directory
}

TEST_F(Action, StatusFeedback) {
    const pair_t line;
    pager.socket = line.near.get();
    copy_text(pager.spool_dir, dir.path("."));
    dir.write("status_42", "3");
    dir.write("call_42", "1234\r\nFIRE\nmore\n");
    dir.write("status_x", "1\n");  // has no companion
    process_status_feedbacks(&pager);
    EXPECT_THAT(dir.list(), ElementsAre("call_42", "log"));
    EXPECT_EQ(read_available(line.far),
              wire("<EOT>1<ENQ>2<ENQ><SOH>2<STX>1<US>1234<RS>2<US>FIRE<RS>7<US>3<NUL><ETX>"));
    copy_text(pager.spool_dir, "/missing");
    process_status_feedbacks(&pager);
    EXPECT_THAT(log(), StartsWith("DEBUG: send call status 3 to 1234\n"));
    EXPECT_THAT(log(), HasSubstr("ERROR: Unable to open directory\n\n"
                                 "VERBOSE: Call service action general_error\n"));
}

TEST_F(Action, AlarmForACall) {
    load("[p]\nhost = 1.2.3.4\nsend_service_actions = y\ndefault_rule = rule_a\nspool_dir = " +
         dir.path() + "\n[rule_a]\naction = call\nextension = %alarm%_%number%_%message%\n");
    espa_p packet{};
    copy_text(packet.record.call_address, "47");
    copy_text(packet.record.display_message, "FIRE");
    call_script(&pagers[0], ALARM_GENERAL_ERROR, &packet);
    EXPECT_THAT(dir.list("call_"), ElementsAre(StartsWith("call_general_error_47_FIRE_")));
    copy_text(pagers[0].spool_dir, "/missing");
    pagers[0].event_alarms[3] = {};
    call_service_action(&pagers[0], ALARM_CONNECTED);
    EXPECT_THAT(log(), HasSubstr("Unable to open file for writing\n\n"
                                 "VERBOSE: Call service action general_error\n"));
    pagers[0].send_service_actions = 0;
    call_service_action(&pagers[0], ALARM_STARTED);
    EXPECT_EQ(my_stats().alarms[5][size_t(alarm_result_t::DISABLED)].get(), 1U);
}

TEST(Quoting, KeepsReplacementsFromTheTextAroundThem) {
    const struct {
        quoting_t quoting;
        const char *fmt, *message, *expanded;
        int size = 64;
        bool fits = true;
    } rows[] = {
        {quoting_t::COMMAND, "x $%message%$", "it's; `y` $z", "x $'it'\\''s; `y` $z'$"},
        {quoting_t::COMMAND, "%number% %message%", "", "'4711' ''"},
        {quoting_t::COMMAND, "%message%", "1234567", "'1234567", 9, false},
        {quoting_t::NAME, "/%message%;", "../a,B 1*+_.-&zZA09\x80", "/..aB1*+_.-zZA09;"},
        {quoting_t::CALLER_ID, "#\"%message%\" <%number%>", "a\n;#\"<>b\x7F\xC3\xA4",
         "#\"a \\;b \xC3\xA4\" <4711>"},
        {quoting_t::CALLER_ID, "12%message%", ";;", "12\\;", 6, false},
        {quoting_t::COMMAND, "%message%", "a\xC3", "'a\xC3'"},
        {quoting_t::CALLER_ID, "12%message%", "\xC3\xA4", "12", 4, false},
        {quoting_t::CALLER_ID, "12%message%", "\xE2\x82\xAC", "12", 5, false},
        {quoting_t::CALLER_ID, "1%message%", "\xF0\x9F\x98\x80", "1", 5, false},
        {quoting_t::CALLER_ID, "1%message%", "\xF0\x9F\x98\x80x", "1\xF0\x9F\x98\x80", 6, false},
    };
    for (const auto &[quoting, fmt, message, expanded, size, fits] : rows) {
        char line[64];
        const placeholders_t with{ALARM_MESSAGE, "4711", message, nullptr};
        EXPECT_EQ(expand_template(line, size, fmt, with, quoting), fits) << fmt;
        EXPECT_STREQ(line, expanded) << fmt;
    }
}

TEST(Pattern, IsCompiledWithoutATrialWhereItIsPlainlyHarmless) {
    // What each is counted to come to, in pieces; 0: it has to be tried.
    const std::pair<std::string, size_t> rows[] = {
        {"", 1},
        {"^ab$", 5},
        {"^a|b$|c", 8},
        {"a+", 3},
        {"a{0}", 3},
        {"\\.+", 3},
        {"ab{2,3}", 20},
        {"a{,12}c", 290},
        {"a{2", 9},
        {"(ab)c", 5},
        {"(a+b)?", 9},
        {"(ab)?c?", 9},
        {"((a))+", 7},
        {"a)", 3},
        {"[^]a+]+", 3},
        {"[[:alpha:](|*]", 2},
        {"[[.].]*]b", 3},
        {"[[:a", 2},
        {"\\(\\|\\.", 4},
        {"\\", 2},
        {"a\\b", 0},
        {"a^", 0},
        {"(^a)", 0},
        {"(a$)", 0},
        {"a$b", 0},
        {"a||b", 0},
        {"|a", 0},
        {"(|a)", 0},
        {"(a|)", 0},
        {"a++", 0},
        {"(a(b)+)*", 0},
        {"(a+)(b)*", 8},
        {std::string(499, 'a'), 500},
        {std::string(500, 'a'), 0},
    };
    for (const auto &[text, pieces] : rows) {
        const regex_cost_t cost = regex_cost(text.c_str(), false);
        EXPECT_EQ(joined(cost.error == 0, cost.is_final, cost.bytes / 2'000),
                  joined(pieces > 0, pieces > 0, pieces))
            << text;
    }
}

}  // namespace
