// Patterns and the selection of a rule.

#include "rule.h"

#include "support.h"
#include "text.h"

namespace {

int index_of(const char *pattern, const char *text, std::string *out = nullptr, int size = 256) {
    pattern_t compiled{};
    compile_regex(&compiled, pattern);
    std::string buffer(static_cast<size_t>(size) + 1, '\0');
    buffer.back() = '#';
    const int index = match_regex(&compiled, text, out != nullptr ? buffer.data() : nullptr, size);
    EXPECT_EQ(buffer.back(), '#');
    if (out != nullptr) {
        *out = buffer.c_str();
    }
    return index;
}

TEST(Pattern, LengthOfTheLastMatch) {
    struct {
        const char *pattern;
        const char *text;
        int index;
    } const rows[] = {
        {"[0-9]+", "12 345", 3}, {"[0-9]+", "none", 0},   {".*", "all of it", 9}, {".*", "", 0},
        {"^A", "AAA", 1},        {"^A", "BAA", 0},        {"x*", "xxb", 2},       {"x*", "bxx", 0},
        {".*", "ab\ncd", 2},     {"b$", "ab\ncb", 1},     {"[^x]*", "a\nb", 1},   {"abc", "ABC", 0},
        {"(a|b)c", "bc", 2},     {"FIRE|$", "FIRE a", 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(index_of(row.pattern, row.text), row.index) << row.pattern << " on " << row.text;
    }
}

TEST(Pattern, TextsOfTheGroups) {
    std::string out;
    EXPECT_EQ(index_of("([0-9]+)-([0-9]+)", "1-2 x 3-4", &out), 3);
    EXPECT_EQ(out, "1234");
    EXPECT_EQ(index_of("[0-9]+", "1-2", &out), 1);
    EXPECT_EQ(out, "");
    index_of("(a)|(b)(c)", "bc", &out);  // the first group that took no part ends the list
    EXPECT_EQ(out, "");
    index_of("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)", "abcdefghij", &out);
    EXPECT_EQ(out, "abcdefghi");
    EXPECT_EQ(index_of("([a-z]+) ", "abcdef ghij ", &out, 8), 5);
    EXPECT_EQ(out, "abcdefg");
    EXPECT_EQ(index_of("(a)", "aa", &out, 0), 1);
}

TEST(Pattern, FailedOnesMatchNothing) {
    const captured_log_t log;
    pattern_t pattern{};
    for (const char *text : {"(", "a{2", "x{32767}{32767}", "((x{1000}y){1000}){1000}", "x{0,32767}", "(){2000}",
                             "([[:alpha:])]x{900}){9}"}) {
        EXPECT_EQ(compile_regex(&pattern, text), 1);
        EXPECT_EQ(index_of(text, "xxxx"), 0);
    }
    EXPECT_THAT(log.text(), testing::HasSubstr("re:"));
    EXPECT_THAT(log.messages(), testing::StartsWith("Regex error compiling '(': Unmatched ( or \\(\n"));
    for (const char *text : {"[^]{999}{999}]{3}\\{x{200}", "[A-Z]{1,20}[0-9]{1,20}.{0,200}"}) {
        EXPECT_EQ(compile_regex(&pattern, text), 0) << text;
    }
}

TEST(Pattern, EqualTextsShareACompilation) {
    pattern_t first{};
    pattern_t second{};
    compile_regex(&first, "abc");
    compile_regex(&second, "abc");
    EXPECT_EQ(first.compiled, second.compiled);
}

class Selection : public testing::Test {
  protected:
    Selection() {
        memset(rules, 0, sizeof rules);
        set_rule(0, "rule_fire", "FIRE");
        set_rule(1, "rule_zone", "ZONE [0-9]+");
        set_rule(3, "rule_same", "EZIF|ERIF|FIRE");
        set_rule(255, "rule_last", "last");
        set_rule(4, "rule_rest", "never");
    }
    static void set_rule(int slot, const char *name, const char *pattern) {
        copy_text(rules[slot].name, name);
        compile_regex(&rules[slot].pattern, pattern);
    }
    std::string select(const char *list, const char *message, const char *fallback = "rule_rest") {
        copy_text(pager.rules, list);
        copy_text(pager.default_rule, fallback);
        copy_text(pager.name, "ward");
        const rule_t *rule = select_rule(&pager, message);
        return rule != nullptr ? rule->name : "none";
    }
    pager_t pager{};
};

TEST_F(Selection, ByName) {
    EXPECT_EQ(get_rule_by_name(""), nullptr);
    EXPECT_EQ(get_rule_by_name("rule_x"), nullptr);
    EXPECT_EQ(get_rule_by_name("RULE_ZONE"), &rules[1]);
    EXPECT_EQ(get_rule_by_name("rule_f"), &rules[0]);
    EXPECT_EQ(get_rule_by_name("rule_fire2"), &rules[0]);
    EXPECT_EQ(get_rule_by_name("r"), &rules[0]);
    EXPECT_EQ(get_rule_by_name("rule_last"), &rules[255]);
}

TEST_F(Selection, LongestLastMatchWins) {
    EXPECT_EQ(select("rule_fire,rule_zone", "FIRE ZONE 3"), "rule_zone");
    EXPECT_EQ(select("rule_fire;;rule_same", "FIRE"), "rule_fire");
    EXPECT_EQ(select("rule_same:rule_fire", "FIRE"), "rule_same");
    EXPECT_EQ(select("rule_fire, rule_zone", "ZONE 3"), "rule_rest");
    EXPECT_EQ(select("rule_none,rule_last", "at last"), "rule_last");
    EXPECT_STREQ(pager.rules, "rule_none,rule_last");
}

TEST_F(Selection, FallsBackToTheDefaultRule) {
    const captured_log_t log;
    EXPECT_EQ(select("rule_fire", "never"), "rule_rest");
    EXPECT_EQ(select("rule_fire", ""), "rule_rest");
    EXPECT_EQ(select("rule_fire", nullptr), "rule_rest");
    EXPECT_EQ(select(",;", "FIRE"), "rule_rest");
    EXPECT_EQ(select("rule_fire", "x", ""), "none");
    EXPECT_EQ(select("rule_fire", "x", "rule_none"), "none");
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(select("", "FIRE"), "rule_rest");
    EXPECT_EQ(select("rule_fire", "FIRE"), "rule_fire");
    EXPECT_EQ(log.messages(),
              "No rules set up in pager 'ward', using default rule\n\n"
              "For message 'FIRE' selected rule 'rule_fire' with match index 4\n\n");
}

}  // namespace
