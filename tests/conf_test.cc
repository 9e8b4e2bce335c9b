// The INI dialect and the loading of the tables.

#include "conf.h"

#include <arpa/inet.h>

#include <map>

#include "ini.h"
#include "logger.h"
#include "support.h"

namespace {

class Ini : public testing::Test {
  protected:
    ~Ini() override { iniparser_freedict(dict); }
    void load(const std::string &text) {
        iniparser_freedict(dict);
        dict = ini_load(dir.write("ini", text).c_str());
        ASSERT_NE(dict, nullptr);
    }
    std::string get(const std::string &key) {
        const char *found = iniparser_getstr(dict, key.c_str());
        return found != nullptr ? found : "(absent)";
    }
    temp_dir_t dir;
    dictionary *dict = nullptr;
};

TEST_F(Ini, KeyLines) {
    const std::map<std::string, std::string> rows = {
        {"k = plain value  ", "plain value"},
        {"  K\t=v ; comment", "v"},
        {"k = a;b", "a"},
        {"k = 'a;b' ; c", "a;b"},
        {"k = \"a#b\"", "a#b"},
        {"k = \"it's\"", "it's"},
        {"k = '\"quoted\" <x>'", "\"quoted\" <x>"},
        {"k = \"blanks  \"", "blanks"},
        {"k = \"open", "open"},
        {"k = ''", ""},
        {"k = \"\" ; empty", ""},
        {"k =", "(absent)"},
        {"k = ; nothing", "(absent)"},
        {"k", "(absent)"},
        {"# k = 1", "(absent)"},
        {"k = a=b", "a=b"},
        {"k = ends in \\\nl = 2", "ends in \\"},
        {"k = first\nk = last", "last"},
        {"k = Case\r", "Case"},
    };
    for (const auto &[line, value] : rows) {
        load("[s]\n" + line + "\n");
        EXPECT_EQ(get("S:k"), value) << line;
    }
}

TEST_F(Ini, Sections) {
    load(
        "free = 1\n[ Two Words ] ; comment\nk=1\n[b]\nk=2\n[]\n[ two words "
        "]\nl=3\n[x:y]\nk=4\nnonsense\n");
    EXPECT_EQ(get(":free"), "1");
    EXPECT_EQ(get(" two words :k"), "1");
    EXPECT_EQ(get(" two words :l"), "3");
    ASSERT_EQ(iniparser_getnsec(dict), 2);
    EXPECT_STREQ(iniparser_getsecname(dict, 0), " two words ");
    EXPECT_STREQ(iniparser_getsecname(dict, 1), "b");
    EXPECT_EQ(ini_load(dir.path("missing").c_str()), nullptr);
}

TEST_F(Ini, LongLinesAreReadInPieces) {
    load("[s]\nk = " + std::string(1019, 'v') + "l = 2\n");
    EXPECT_EQ(get("s:k"), std::string(1019, 'v'));
    EXPECT_EQ(get("s:l"), "2");
}

TEST_F(Ini, NextKeyAndValue) {
    load("[s]\nvalue[b] = 1\nother = 2\nvalue[a] = 3\n");
    const char *key = nullptr;
    const char *value = nullptr;
    int cursor = iniparser_get_next_kv(dict, "s:value[", 0, &key, &value);
    EXPECT_EQ(cursor, 1);
    EXPECT_STREQ(key, "s:value[b]");
    cursor = iniparser_get_next_kv(dict, "s:value[", cursor, &key, &value);
    EXPECT_EQ(cursor, 3);
    EXPECT_STREQ(value, "3");
    EXPECT_EQ(iniparser_get_next_kv(dict, "s:value[", cursor, &key, &value), 0);
    EXPECT_STREQ(key, "s:value[a]");
    EXPECT_EQ(iniparser_get_next_kv(nullptr, "s", 0, &key, &value), -1);
}

class Conf : public testing::Test {
  protected:
    Conf() {
        memset(pagers, 0, sizeof pagers);
        memset(rules, 0, sizeof rules);
    }
    ~Conf() override { free_confvals(); }
    int load(const std::string &text) {
        dir.write("log", "");
        const std::string logger = "[logger]\nlog_file = " + dir.path("log") + "\n";
        return load_file(dir.write("conf", logger + text));
    }
    int load_file(const std::string &path) {
        if (loaded_) {
            free_confvals();
        }
        loaded_ = true;
        return load_conf(path.c_str());
    }
    std::string log() { return dir.read("log"); }
    static std::string pager(const std::string &name, const std::string &keys = "") {
        return "[" + name + "]\nhost = 127.0.0.1\n" + keys + "\n";
    }
    static bool is_zero(const void *record, size_t size) {
        return std::string(static_cast<const char *>(record), size) == std::string(size, '\0');
    }
    temp_dir_t dir;

  private:
    bool loaded_ = false;
};

TEST_F(Conf, ReadsEveryKey) {
    ASSERT_EQ(load("log_type = SysLog\nlog_level = 0x3\n"
                   "[Ward1]\nhost = 127.0.0.1\nport = 0x8b9\nprotocol = asc\nno_check_bcc = Yes\n"
                   "espa_poll = true\nsend_service_actions = 1\nread_timeout = no\n"
                   "spool_dir = ''\ncallscript = /bin/x\nrules = a,b\ndefault_rule = c\n"
                   "[Rule_Fire]\npattern = 'a;b'\naction = calling\nchannel = C\ncontext = X\n"
                   "extension = E\ncallerid = I\nvalue[Zone] = ([0-9])\nvalue[a[b]] = x\n"
                   "[rule_script]\naction = scripts\nvalue[zone = x\nvalue[] = y\n"
                   "[loggerx]\nhost = 127.0.0.1\n[rule_bad]\naction = Script\nextension = "s +
                   std::string(400, 'e') + "\n"),
              0);
    EXPECT_EQ(logtype, 1);
    EXPECT_EQ(loglevel, 3);
    EXPECT_EQ(num_pagers, 1);
    const pager_t &p = pagers[0];
    EXPECT_STREQ(p.name, "ward1");
    EXPECT_EQ(p.port, 2233);
    EXPECT_EQ(ntohs(p.sin.sin_port), 2233);
    EXPECT_EQ(ntohl(p.sin.sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(p.socket, -1);
    EXPECT_EQ(std::vector({p.protocol, p.no_check_bcc, p.espa_poll, p.send_service_actions, p.read_timeout}),
              std::vector({1, 1, 1, 1, 0}));
    EXPECT_STREQ(p.spool_dir, "");
    EXPECT_STREQ(p.callscript, "/bin/x");
    EXPECT_STREQ(p.rules, "a,b");
    EXPECT_STREQ(p.default_rule, "c");
    EXPECT_STREQ(rules[0].name, "rule_fire");
    EXPECT_EQ(match_regex(&rules[0].pattern, "a;b", nullptr, 0), 3);
    EXPECT_EQ(rules[0].action, CALL);
    EXPECT_STREQ(rules[0].callscript, "");
    EXPECT_STREQ(rules[0].values[0].name, "zone");
    EXPECT_STREQ(rules[0].values[1].name, "b");
    EXPECT_EQ(rules[1].action, SCRIPT);
    EXPECT_STREQ(rules[1].callscript, "/usr/share/quillet/mkcall.sh %espa_if% %alarm% %number% %message%");
    EXPECT_STREQ(rules[1].values[0].name, "zone");
    EXPECT_STREQ(rules[1].values[1].name, "");
    EXPECT_STREQ(rules[1].callerid, "\"%number%\" <%number%>");
    EXPECT_STREQ(rules[1].context, "alarm");
    EXPECT_STREQ(rules[1].channel, "Local/1234@users");
    EXPECT_EQ(rules[2].action, SKIP);
    EXPECT_EQ(rules[2].extension, std::string(255, 'e'));
    EXPECT_TRUE(is_zero(&rules[3], sizeof rules[3]));
}

TEST_F(Conf, DefaultsAndOddValues) {
    struct {
        std::string key;
        std::function<int()> field;
        int expected;
    } const rows[] = {
        {"", [] { return pagers[0].read_timeout; }, 30},
        {"read_timeout = 60", [] { return pagers[0].read_timeout; }, 30},
        {"read_timeout = 10", [] { return pagers[0].read_timeout; }, 1},
        {"port = 010", [] { return int{pagers[0].port}; }, 8},
        {"port = abc", [] { return int{pagers[0].port}; }, 0},
        {"port = 40000", [] { return int{pagers[0].port}; }, -25536},
        {"port = 40000", [] { return int{ntohs(pagers[0].sin.sin_port)}; }, 40000},
        {"protocol = ASCII", [] { return pagers[0].protocol; }, 0},
        {"protocol = ''", [] { return pagers[0].protocol; }, 1},
        {"protocol = ascii", [] { return pagers[0].protocol; }, 1},
        {"protocol = asciix", [] { return pagers[0].protocol; }, 0},
        {"espa_poll = on", [] { return pagers[0].espa_poll; }, 0},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(load(pager("p", row.key)), 0);
        EXPECT_EQ(row.field(), row.expected) << row.key;
    }
    EXPECT_STREQ(pagers[0].spool_dir, "/tmp/");
    load("log_level = -1\n");
    EXPECT_EQ(loglevel, 65535);
    load("log_type = file\n");
    EXPECT_EQ(loglevel, 5);
    EXPECT_EQ(num_pagers, 0);
    EXPECT_EQ(load_file(dir.path("missing")), -1);
}

TEST_F(Conf, SixteenValuesPerRule) {
    std::string text = "[rule_v]\n";
    for (int i = 0; i < 17; i++) {
        text += "value[n" + std::to_string(i) + "] = x\n";
    }
    load(text);
    EXPECT_STREQ(rules[0].values[15].name, "n15");
    EXPECT_THAT(log(), testing::HasSubstr("in load_rule: Max values per rule reached for rule rule_v\n"));
}

TEST_F(Conf, TheSixteenthPagerEndsLoading) {
    std::string text;
    for (int i = 0; i < 17; i++) {
        text += pager("p" + std::to_string(i)) + (i == 14 ? "[rule_a]\n" : i == 15 ? "[rule_b]\n" : "");
    }
    load(text);
    EXPECT_EQ(num_pagers, 16);
    EXPECT_STREQ(pagers[15].name, "p15");
    EXPECT_STREQ(rules[0].name, "rule_a");
    EXPECT_STREQ(rules[1].name, "");
    text = "";
    for (int i = 0; i < 257; i++) {
        text += "[rule_" + std::to_string(i) + "]\n";
    }
    load(text + pager("p"));
    EXPECT_STREQ(rules[255].name, "rule_255");
    EXPECT_EQ(num_pagers, 0);
}

TEST_F(Conf, PagersThatDoNotResolveAreLeftOut) {
    load("[bad]\nhost = no such host\n" + pager("good") + "[worse]\nport = 1\n");
    EXPECT_EQ(num_pagers, 1);
    EXPECT_STREQ(pagers[0].name, "good");
    EXPECT_TRUE(is_zero(&pagers[1], sizeof pagers[1]));
    EXPECT_THAT(log(), testing::ContainsRegex("in load_pager: Unable to find host no such host\n\n.*in "
                                              "load_conf: Error loading pager bad\n\n"));
    EXPECT_THAT(log(), testing::HasSubstr("Unable to find host \n\n"));
}

TEST_F(Conf, LongNamesAreCut) {
    const std::string name(300, 'n');
    load(pager(name) + "[rule_" + name + "]\naction = call\nvalue[x] = y\n");
    EXPECT_EQ(pagers[0].name, ""s);  // its keys cannot be looked up, so it has no host
    EXPECT_EQ(rules[0].name, "rule_" + std::string(250, 'n'));
    EXPECT_EQ(rules[0].action, CALL);
    load(pager(std::string(100, 'n')));
    EXPECT_EQ(pagers[0].name, std::string(63, 'n'));
}

TEST_F(Conf, WhatAReloadKeeps) {
    load(pager("first_long_name", "rules = a\nspool_dir = /x\n") + pager("second", "rules = b\n") +
         "[rule_a]\n[rule_b]\n[rule_c]\n[rule_d]\n");
    for (pager_t &p : {std::ref(pagers[0]), std::ref(pagers[1])}) {
        p.socket = 7;
        p.protocol = PROTOCOL_ASCII;
        p.alarms[4] = {2, 100};
        p.polls = 3;
    }
    load(pager("new_name") + pager("other") + "[rule_e]\n[rule_f]\n");
    EXPECT_STREQ(pagers[0].name, "new_nameng_name");
    EXPECT_STREQ(pagers[0].rules, "a");
    EXPECT_STREQ(pagers[0].spool_dir, "/tmp/");
    EXPECT_EQ(pagers[0].alarms[4].index, 2);
    EXPECT_EQ(pagers[0].polls, 3);
    EXPECT_STREQ(pagers[1].name, "other");
    EXPECT_STREQ(pagers[1].rules, "");
    EXPECT_EQ(pagers[1].alarms[4].index, 0);
    EXPECT_EQ(pagers[1].polls, 0);
    for (const pager_t &p : {pagers[0], pagers[1]}) {
        EXPECT_EQ(p.socket, -1);
        EXPECT_EQ(p.protocol, PROTOCOL_ESPA);
    }
    EXPECT_STREQ(rules[1].name, "rule_f");
    EXPECT_TRUE(is_zero(&rules[2], sizeof rules[2]));
    EXPECT_STREQ(rules[3].name, "rule_d");
}

TEST_F(Conf, ShippedFiles) {
    EXPECT_EQ(load_file(SOURCE_DIR "/conf/quillet.conf"), 0);
    EXPECT_EQ(num_pagers, 0);
    EXPECT_STREQ(logfile, "/var/log/quillet.log");
    EXPECT_EQ(rules[0].name[0], '\0');
    logger_init("", 0, 0, 1);
}

}  // namespace
