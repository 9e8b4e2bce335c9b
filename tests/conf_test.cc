// Loading the tables, also while other threads select rules.

#include <arpa/inet.h>

#include "rule.h"
#include "settings.h"
#include "support.h"

namespace {

std::string describe(const pager_t &p) {
    return joined(p.port, ntohs(p.sin.sin_port), p.protocol, p.no_check_bcc, p.espa_poll,
                  p.send_service_actions, p.read_timeout, p.socket, inet_ntoa(p.sin.sin_addr),
                  p.name, p.host, p.spool_dir, p.callscript, p.rules, p.default_rule);
}

std::string describe(const rule_t &r) {
    return joined(r.name, r.action, r.callscript, r.callerid, r.context, r.extension, r.channel,
                  r.values[0].name, r.values[1].name);
}

std::string pager(const std::string &name, const std::string &keys = "") {
    return "[" + name + "]\nhost = 127.0.0.1\n" + keys + "\n";
}

TEST_F(Tables, ReadsEveryKey) {
    load(
        "log_type = SysLog\nlog_level = 0x3\n"
        "[Ward1]\nhost = 127.0.0.1\nport = 0x8ba\nprotocol = asc\nno_check_bcc = Yes\n"
        "espa_poll = true\nsend_service_actions = 1\nread_timeout = no\nspool_dir = ''\n"
        "callscript = /bin/x\nrules = a,b\ndefault_rule = c\n"
        "[Rule_Fire]\npattern = 'a;b'\naction = calling\nchannel = C\ncontext = X\nextension = E\n"
        "callerid = I\ncallscript = x\nvalue[Zone] = ([0-9])\nvalue[a[b]] = x\n"
        "[rule_script]\naction = scripts\nvalue[zone = x\nvalue[] = y\n"
        "[loggerx]\nhost = 127.0.0.1\n[rule_bad]\naction = Script\nextension = " +
        std::string(400, 'e') + "\n");
    EXPECT_EQ(joined(int{logtype}, loglevel, num_pagers), "1|3|1|");
    EXPECT_EQ(describe(pagers[0]),
              "2234|2234|1|1|1|1|0|-1|127.0.0.1|ward1|127.0.0.1||/bin/x|a,b|c|");
    EXPECT_EQ(describe(rules[0]), "rule_fire|1||I|X|E|C|zone|b|");
    EXPECT_EQ(match_regex(&rules[0].pattern, "a;b", nullptr, 0), 3);
    EXPECT_EQ(describe(rules[1]),
              "rule_script|2|/usr/share/quillet/mkcall.sh %espa_if% %alarm% %number% %message%|"
              "\"%number%\" <%number%>|alarm|s|Local/1234@users|zone||");
    EXPECT_EQ(match_regex(&rules[1].pattern, "any text", nullptr, 0), 8);
    EXPECT_EQ(rules[2].action, SKIP);
    EXPECT_EQ(rules[2].extension, std::string(255, 'e'));
    EXPECT_STREQ(rules[3].name, "");
}

TEST_F(Tables, DefaultsAndOddValues) {
    const std::pair<const char *, const char *> rows[] = {
        {"", "2233|2233|0|0|0|0|30|-1|127.0.0.1|p|127.0.0.1|/tmp/||||"},
        {"read_timeout = 10", "2233|2233|0|0|0|0|1|"},
        {"port = 010", "8|8|"},
        {"port = abc", "0|0|"},
        {"port = 40000", "-25536|40000|"},
        {"protocol = ASCII", "2233|2233|0|"},
        {"protocol = ''", "2233|2233|1|"},
        {"espa_poll = on", "2233|2233|0|0|0|"},
    };
    for (const auto &[keys, expected] : rows) {
        load(pager("p", keys));
        EXPECT_THAT(describe(pagers[0]), StartsWith(expected)) << keys;
    }
    free_confvals();
    EXPECT_EQ(load_conf(SOURCE_DIR "/conf/quillet.conf"), 0);  // as shipped: it serves nothing
    EXPECT_EQ(joined(num_pagers, int{logtype}, loglevel, logfile), "0|0|1|/var/log/quillet.log|");
}

TEST_F(Tables, PagersThatFail) {
    load("[bad]\nhost = no such host\n" + pager(std::string(100, 'n')) +
         pager(std::string(251, 'l')));
    EXPECT_EQ(joined(num_pagers, pagers[0].name, pagers[1].name),
              "1|" + std::string(63, 'n') + "||");
    EXPECT_THAT(log(), StartsWith("ERROR: Unable to find host no such host\n\n"
                                  "ERROR: Error loading pager bad\n\n"));
    load(pager("p", "rules = a"));
    pagers[0].polls = 3;
    load("[bad]\nhost = no such host\n");
    EXPECT_EQ(joined(num_pagers, pagers[0].name, pagers[0].polls), "0||0|");
}

TEST_F(Tables, FullTablesEndTheLoading) {
    std::string many_pagers, many_rules, many_values;
    for (int i = 0; i < 257; i++) {
        const std::string number = std::to_string(i);
        many_pagers += pager("p" + number) + "[rule_" + number + "]\n";
        many_rules += "[rule_" + number + "]\n";
        many_values += "value[n" + number + "] = x\n";
    }
    load(many_pagers);
    EXPECT_EQ(joined(num_pagers, pagers[15].name, rules[14].name, rules[15].name),
              "16|p15|rule_14||");
    read_conf_t read = read_conf(dir.path("conf").c_str());
    EXPECT_EQ(joined(read.pagers.size(), read.rules.size(), read.is_whole), "64|63|1|");
    load(many_rules + pager("p"));
    EXPECT_EQ(joined(num_pagers, rules[255].name), "0|rule_255|");
    read = read_conf(dir.path("conf").c_str());
    EXPECT_EQ(joined(read.pagers.size(), read.rules.size()), "0|256|");
    const std::string name(63, 'n');
    read = read_conf(dir.write("twice", pager(name + "1") + pager(name + "2")).c_str());
    EXPECT_EQ(joined(read.pagers.size(), read.is_whole), "1|0|");
    load("[rule_v]\n" + many_values);
    EXPECT_STREQ(rules[0].values[15].name, "n15");
    EXPECT_THAT(log(), HasSubstr("NOTICE: Max values per rule reached for rule rule_v"));
}

TEST_F(Tables, WhatAReloadKeeps) {
    load(pager("first_long_name", "rules = a\nspool_dir = /x\n") + pager("second", "rules = b\n") +
         "[rule_a]\n[rule_b]\n[rule_c]\n[rule_d]\n");
    for (pager_t *p : {&pagers[0], &pagers[1]}) {
        p->alarms[4] = {2, 100};
        p->socket = 3;
    }
    load(pager("new_name") + pager("other") + "[rule_e]\n[rule_f]\n");
    EXPECT_EQ(describe(pagers[0]),
              "2233|2233|0|0|0|0|30|-1|127.0.0.1|new_nameng_name|127.0.0.1|/tmp/||a||");
    EXPECT_EQ(describe(pagers[1]), "2233|2233|0|0|0|0|30|-1|127.0.0.1|other|127.0.0.1|/tmp/||||");
    EXPECT_EQ(joined(pagers[0].alarms[4].index, pagers[1].alarms[4].index), "2|0|");
    EXPECT_EQ(joined(rules[0].name, rules[1].name, rules[2].name, rules[3].name),
              "rule_e|rule_f||rule_d|");
    load(pager("a") + pager("b") + pager("kept"));
    load(pager("short"));
    EXPECT_EQ(joined(pagers[0].name, pagers[1].name, pagers[2].name), "short||kept|");
    for (const std::string &rest : {pager("p"), "[bad]\nhost = no such host\n"s}) {
        load(pager("a") + pager("b") + pager("listens", "listen = y"));
        EXPECT_EQ(pagers[2].listen, 1);
        load(rest);  // what goes on to listen would keep its port
        EXPECT_EQ(joined(pagers[2].listen, pagers[2].name), "0||");
    }
}

TEST_F(Tables, KeysThatNeedOthers) {
    const struct {
        const char *keys, *outcome, *said = "";  // address, control and whether calls are followed
    } rows[] = {
        {"", "0|49|0|"},
        {"espa_control = 12", "0|0|0|"},
        {"espa_address = 2", "50|49|0|"},
        {"espa_address = 12", "0|49|0|", "take a digit, not 12 and 1"},
        {"espa_address = 2\nespa_control = 12", "0|0|0|", "take a digit, not 2 and 12"},
        {"espa_address = 12\nprotocol = asc", "0|49|0|"},
        {"follow_calls = y\nstaging_dir = /tmp", "0|49|1|"},
        {"follow_calls = y", "0|49|0|", "follow_calls needs a staging_dir"},
        {"follow_calls = y\nstaging_dir = /proc", "0|49|0|", "follow_calls needs a staging_dir"},
    };
    for (const auto &row : rows) {
        dir.write("log", "");
        load(pager("p", row.keys));
        EXPECT_EQ(joined(int{pagers[0].espa_address}, int{pagers[0].espa_control},
                         pagers[0].follow_calls),
                  row.outcome);
        EXPECT_THAT(log(), *row.said == '\0' ? Matcher<std::string>("") : HasSubstr(row.said));
    }
    load("log_escape = y\n");
    LOG(LEVEL_VERBOSE, "\r\n");
    EXPECT_THAT(log(), EndsWith("\\x0D\n"));
    load("");
}

// What a reload compares, what it stores, and whether it has to connect anew for it.
TEST_F(Tables, EveryKeyOfALineIsASetting) {
    const auto read = [&](const std::string &keys) {
        pager_t line{};
        const std::string text = "[p]\nhost = 127.0.0.1\nstaging_dir = /tmp\n" + keys + "\n";
        const unique_dictionary_t dict(ini_load(dir.write("line", text).c_str()));
        EXPECT_EQ(load_pager(dict.get(), "p", &line), 0);
        return line;
    };
    const pager_t before = read("");
    const std::pair<const char *, const char *> rows[] = {
        {"host = 127.0.0.2", "other host"},
        {"port = 1", "other port"},
        {"protocol = ascii", "other protocol"},
        {"port = 1\nlisten = y", "other port and listen"},
        {"listen = y\nlisten_address = 127.0.0.1", "other listen and addresses"},
        {"espa_address = 3", "other addresses"},
        {"espa_control = 3", "other addresses"},
        {"callscript = x", ""},
        {"spool_dir = x", ""},
        {"default_rule = x", ""},
        {"rules = x", ""},
        {"no_check_bcc = y", ""},
        {"espa_poll = y", ""},
        {"read_timeout = y", ""},
        {"send_service_actions = y", ""},
        {"recover_link = y", ""},
        {"ack_when_done = y", ""},
        {"staging_dir = x", ""},
        {"charset = UTF-8", ""},
        {"follow_calls = y", ""},
        {"status_called = x", ""},
        {"status_answered = x", ""},
        {"status_unanswered = x", ""},
    };
    for (const auto &[keys, moved] : rows) {
        const pager_t after = read(keys);
        EXPECT_FALSE(settings_are_same(before, after)) << keys;
        EXPECT_EQ(settings_moved(before, after), moved);
        pager_t stored = before;
        settings_store(&stored, after);
        settings_reconnect(&stored, after.protocol);
        EXPECT_EQ(memcmp(&stored, &after, sizeof stored), 0) << keys;
    }
}

// Two files that share nothing: pager names, rule lists, rules and their number all differ.
std::string configuration(char mark, int num_rules) {
    std::string text = "[logger]\nlog_level = 0\nlog_file = /dev/null\n", list;
    for (int i = 0; i < num_rules; i++) {
        const std::string name = "rule_"s + mark + std::to_string(i);
        list += name + ",";
        text += "[" + name + "]\nextension = " + std::string(200, mark) +
                "\npattern = " + std::string(size_t(i % 3 + 1), mark) + "|M\n";
    }
    for (const char number : {'0', '1', '2'}) {
        text += pager("pager_"s + mark + number, "rules = " + list);
    }
    return text;
}

TEST(Reload, EveryMessageFindsARuleOfTheOldOrTheNewFile) {
    const temp_dir_t dir;
    const std::string files[] = {dir.write("a", configuration('a', 40)),
                                 dir.write("b", configuration('b', 12))};
    ASSERT_EQ(load_conf(files[0].c_str()), 0);
    std::atomic<bool> done = false;
    std::atomic<long> handled = 0, lost = 0;
    const auto dispatch = [&](pager_t *pager) {
        rule_t rule;
        while (!done) {
            const bool found = choose_rule(pager, "bbM", &rule);
            lost += !found || rule.extension != std::string(200, rule.name[5]);
            handled++;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back(dispatch, &pagers[i]);
    }
    for (int i = 0; i < 1000; i++) {
        free_confvals();
        EXPECT_EQ(load_conf(files[i % 2].c_str()), 0);
    }
    EXPECT_TRUE(eventually([&] { return handled > 1000; }));
    done = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lost, 0) << "of " << handled;
    free_confvals();
}

}  // namespace
