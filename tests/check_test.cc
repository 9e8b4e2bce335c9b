// What vespercheck finds in a configuration, what it says of a message, and what it exits with.

#include "vespercheck/checks.h"

#include <grp.h>
#include <sys/prctl.h>

#include "instance.h"
#include "support.h"

namespace {

// A line that is complete; it begins at line 1 and has six.
const std::string LINE =
    "[ward]\nhost = 127.0.0.1\nspool_dir = /var/spool\nrecover_link = 1\n"
    "rules = rule_a\ndefault_rule = rule_d\n";
const std::string RULES = "[rule_a]\npattern = FIRE\n[rule_d]\n";  // from line 7 on
const std::string CALL = LINE + RULES + "action = call\n";         // the action is line 10
const std::string FOLLOWED = LINE + "follow_calls = y\nstaging_dir = /t\n";  // eight lines
const std::string SCRIPT_RULE = LINE + RULES + "action = script\n";
const std::string QUOTED = SCRIPT_RULE + "quote = yes\n";

struct Check : Tables {
    std::string findings_in(const std::string &text, host_asker_t ask = take_hosts) {
        memset(pagers, 0, sizeof pagers);
        memset(rules, 0, sizeof rules);
        site_t site;
        findings_t findings;
        const std::string path = dir.write("conf", text);
        EXPECT_EQ(load_site(path.c_str(), ask, &site, &findings), 0);
        check_site(site, &findings);
        std::string all = "\n";
        for (const finding_t &finding : findings.sorted()) {
            all += text_of(finding.line, " ", severity_name(finding.severity), " ", finding.kind,
                           ": ", finding.text, "\n");
        }
        return all;
    }
};

TEST_F(Check, FindsWithItsPlace) {
    const std::string longer(300, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {"[p]\nport = 1\n", "1 error host: .* has no host"},
        {CALL + "pattern = (a\n", "11 error pattern: .*Unmatched"},
        {"[p]\nhost = 1.2.3.4\nrules = a,b\n", "3 error no-rule: .* dropped"},
        {"[p]\nhost = 1.2.3.4\ndefault_rule = " + longer + "\n", "3 error no-rule: .*'x{255}'"},
        {"[p]\nhost = 1.2.3.4\n", "1 warning no-rule: .* neither rules"},
        {repeated(17, "[p#]\nhost = 10.0.0.#\n"), "33 error not-read: .*p15.* 16th pager"},
        {repeated(257, "[rule_#x]\n"), "257 error not-read: .* 256th rule"},
        {LINE + "charset = KLINGON\n", "7 error charset: .* KLINGON"},
        {"[p]\nhost = 1.2.3.4\nsend_service_actions = y\n", "3 error no-default-rule: "},
        {"[p]\nhost 1.2.3.4\n", "2 warning no-form: 'host 1.2.3.4' "},
        {"[p\n", "1 warning open-section: "},
        {"[p] one # two\n", "1 warning no-form: 'one # two' behind"},
        {"[p]\nrules =\n", "2 warning no-value: rules "},
        {"[rule_a]\npattern = # 1\n", "2 warning no-value: .*'#' begins"},
        {"; " + std::string(1022, 'x') + "\n[p\n", "1 warning long-line: .*\n.*2 warning open"},
        {"[p]\nrecover_lnik = 1\n", "2 warning unknown-key: .* did you mean recover_link"},
        {"[p]\nfrobnicate = 1\n", "2 warning unknown-key: .*nothing reads it"},
        {"[p]\npattern = x\n", "2 warning wrong-section: .*is a key of a rule.*a pager.*rule_"},
        {"[rule_a]\nlog_level = 1\n", "2 warning wrong-section: .*of the logger.* a rule: nothing"},
        {"[logger]\nhost = x\n", "2 warning wrong-section: .*of a pager.* the logger: nothing"},
        {"port = 1\n", "1 warning no-section: "},
        {"[p]\nport = 1\nPort = 2\n", "3 warning twice: port .*line 2.* port = 2"},
        {"[p]\n[q]\n[P]\n", "3 warning twice: section .p. .*line 1"},
        {LINE + "rules = rule_a, rule_d\n" + RULES, "7 warning name-finds.*blank.*rule_d .line 10"},
        {LINE + "rules = rule_a,d\n" + RULES, "7 warning name-finds.*did you mean rule_d"},
        {LINE + "rules = rule_ab,rule_a\n" + RULES + "[rule_ab]\n",
         "7 warning other-rule: .*rule_a .line 8.*rule_ab .line 11"},
        {LINE + "rules = rule_\n" + RULES, "7 warning other-rule: .*no .rule_.*rule_a"},
        {LINE + "default_rule = rule_\n" + RULES, "7 warning other-rule: default_rule: .*rule_a"},
        {LINE + "rules = rule_a,rule_a\n" + RULES, "7 warning listed-twice: "},
        {LINE + RULES + "[rule_aa]\naction = call\n",
         "10 warning not-reached: .*finds rule_a .line 7"},
        {LINE + "protocol = ASCII\n", "7 warning value: .*capital.* espa"},
        {LINE + "protocol = asc\n", "7 note value: .*ascii"},
        {LINE + RULES + "action = Call\n", "10 warning value: .*means skip"},
        {LINE + "read_timeout = 60\n", "7 warning value: .*60 means 30 seconds"},
        {LINE + "espa_poll = on\n", "7 warning value: .*'on' is neither.*means no"},
        {"[logger]\nlog_type = sys\n", "2 warning value: .*means file"},
        {"[logger]\nlog_level = abc\n", "2 warning value: .*means 0"},
        {LINE + "port = 70000\n", "7 warning port: .*port 4464"},
        {LINE + "port = 09\n", "7 warning value: .*'09' is octal: it means 0\n7 warning port: .*"},
        {"[logger]\nlog_level = -1\n", "2 warning value: .*lets everything through"},
        {LINE + RULES + "pattern = a;b\n", "10 warning cut: .*';' and is 'a'"},
        {LINE + RULES + "pattern = a ;b\n", "10 warning cut: .*';' and is 'a'"},
        {LINE + RULES + "pattern = 'it's'\n", "10 warning cut: .*second '.*s' is passed"},
        {LINE + RULES + "pattern = \"a\n", "10 warning cut: .*no closing"},
        {CALL + "context = " + longer + "\n", "11 warning too-long: context is 300.*255"},
        {"[" + longer.substr(0, 64) + "]\n", "1 warning section-name: .*64 .*cut at 63"},
        {"[a:b]\n", "1 warning section-name: .*colon"},
        {"[loggers]\n", "1 warning section-name: .*skipped"},
        {CALL + "context = %espa_if%\n", "11 warning placeholder: .*%espa_if% is no"},
        {CALL + "context = %Number%\n", "11 warning placeholder: .*mean %number%"},
        {CALL + "context = $zone\n", "11 warning placeholder: .*value.zone. for .zone"},
        {CALL + "value[zone] = (a)\ncontext = $zoen\n", "12 warning placeholder: .*mean .zone"},
        {CALL + "value[a] = (a)\nvalue[ab] = (b)\ncontext = $ab\n", "13 warning shadowed: "},
        {CALL + "value[a] = (a)\ncontext = $a%number%\n", "12 warning placeholder: .*behind"},
        {CALL + "value[a] = (a)\nvalue[b] = (b)\ncontext = $b$a\n",
         "13 w.*: .a directly behind .b"},
        {CALL + "value[" + std::string(256, 'v') + "] = (a)\n", "11 warning too-long: the name"},
        {CALL + "value[] = (a)\nvalue[b] = (b)\n", "11 warning unnamed-value: .*behind it"},
        {CALL + repeated(17, "value[v#] = (a)\n"), "27 warning too-many-values: value.v16"},
        {CALL + "value[a] = b\n", "11 warning no-group: "},
        {CALL + "value[a] = (\n", "11 error pattern: value.a. does not compile"},
        {CALL + "pattern = ^(|a{0})$\n", "11 warning empty-match: "},
        {CALL + "pattern = [[.].]]{0}[[=]=]]{0}\n", "11 warning empty-match: "},
        {CALL + "pattern = (a)\\1\n", "11 warning back-reference: "},
        {CALL + "pattern = ()()()()()()()()()\\9\n", "11 warning back-reference: "},
        {CALL + "pattern = .*[0-9].{12}x\n", "11 warning growing-match: "},
        {LINE + "rules = rule_a,rule_d\n" + RULES + "pattern = FIRE\n",
         "11 warning same-pattern: rule_d .*rule_a .line 8"},
        {SCRIPT_RULE, "9 warning quoting: .*%number% stands there without"},
        {SCRIPT_RULE + "callscript = x '%message%'\n", "11 warning quoting: .*in the text ends"},
        {QUOTED + "callscript = x \"%message%\"\n", "12 warning quoting: .*quotes of its own"},
        {QUOTED + "callscript = x `y %message%`\n", "12 warning quoting: .*in backquotes"},
        {QUOTED + "callscript = x \"`y '%message%'\n", "12 warning quoting: .*in backquotes"},
        {QUOTED + "callscript = x $(y `z $(a`) \"%message%\n", "12 warning quoting: .*of its own"},
        {SCRIPT_RULE + "value[v] = (a)\ncallscript = `y $v`\n",
         "12 warning quoting: .*.v stands in backquotes"},
        {QUOTED + "callscript = x $zone\n", "12 warning placeholder: .*no value.zone"},
        {SCRIPT_RULE + "callscript = x ; y\n", "11 warning cut: "},
        {QUOTED + "callscript = x %message% & \n", "12 warning background: callscript: "},
        {"[p]\nhost = 1.2.3.4\n", "1 warning spool-dir: "},
        {"[p]\nhost = ::1x\n[q]\nhost = ::1X\n", "4 warning same-converter: .*p. .line 1"},
        {LINE + "espa_address = 12\n", "7 error address: espa_address = 12 is no digit"},
        {LINE + "espa_address = 1\n", "7 warning station: .*control station, 1"},
        {LINE + "espa_address = 2\nprotocol = ascii\n", "7 warning station: .*ASCII line"},
        {LINE + "espa_address = 2\nespa_poll = y\n", "8 warning station: espa_poll: means nothing"},
        {LINE + "espa_control = 2\n", "7 warning station: .*without espa_address"},
        {LINE + "listen_address = 1.2.3.4\n", "7 warning listen: .*without listen"},
        {LINE + "listen = y\nlisten_address = here\n", "8 error listen: .*here is no IPv4"},
        {LINE + "listen = y\nport = 1023\n", "8 error listen: .*port 1023, which is for root"},
        {LINE + "listen = y\n[q]\nhost = 1.2.3.4\nlisten = y\nlisten_address = 1.1.1.1\n",
         "8 error same-port: .q. listens on the port of .ward. .line 1"},
        {LINE + "[rule_a]\nmatch_type = (\n", "8 error pattern: match_type does not compile"},
        {LINE + RULES + "match_type = 1\n", "10 warning condition: .*rule_d. is a default rule"},
        {LINE + "protocol = ascii\n[rule_a]\nmatch_beep = 1\n", "9 warning condition: .*ASCII"},
        {CALL + "context = %priority%\n", "11 warning placeholder: .*without record_fields"},
        {LINE + "callscript = x\n", "7 note unused: "},
        {CALL + "ack_when_run = y\n", "11 note unused: ack_when_run is used by action = script"},
        {QUOTED + "ack_when_run = yes\n", "12 warning no-effect: .*rule_d. has ack_when_done"},
        {"[logger]\nlog_file = /dev/null\nlog_level = 5\n" + LINE, "3 note log-level: .*2 lines"},
        {"[logger]\nlog_file = " + dir.path("log") + "\n[p]\nspool_dir = " + dir.path() + "\n",
         "1 warning log-level: .* the default, .* spool_dir of .p.: when it is full"},
        {"[logger]\nlog_file = " + dir.path("log") + "\n[p]\nspool_dir = /dev/shm\n",
         "1 note log-level: "},
        {LINE + "follow_calls = y\n", "7 error follow: .*needs a staging_dir"},
        {LINE + "status_called = 1\n", "7 warning follow: .*without follow_calls"},
        {FOLLOWED + "status_answered = 22\n", "9 warning too-long: "},
        {FOLLOWED + "status_answered = 2\n", "9 warning follow: .*without espa_address"},
        {CALL + "otherwise = rule_a\n", "11 warning follow: otherwise has no effect: no line"},
        {SCRIPT_RULE + "confirm = y\n", "11 note unused: confirm is used by action = call only"},
        {FOLLOWED + RULES + "action = call\notherwise = rule_x\n",
         "13 error no-rule: otherwise: 'rule_x' finds no rule"},
        {FOLLOWED + RULES + "action = call\notherwise = rule_a\n",
         "13 warning follow: .*rule_a .line 9. does nothing"},
        {FOLLOWED + RULES +
             "action = call\notherwise = rule_e\n[rule_e]\naction = call\n"
             "otherwise = rule_d\n",
         "13 note follow: .*rule_d. comes round again"},
        {FOLLOWED + RULES + "action = call\nwait_time = 60\nmax_retries = 1\n",
         "11 warning follow: .* after 300 s, and the PBX tries for 420 s"},
        {FOLLOWED + RULES + "action = call\nwait_time = -1\ngive_up = 44\n",
         "13 warning value: wait_time = -1 is no number of seconds\n14 warning follow: "},
        {FOLLOWED + RULES + "action = call\nextension = %number%\n",
         "13 warning follow: extension: without quote"},
        {FOLLOWED + RULES + "action = call\nquote = y\nextension = %number%&\n",
         "14 warning follow: extension: a call whose"},
        {FOLLOWED + RULES + "action = call\notherwise = rule_e\n[rule_e]\naction = script\n",
         "13 error follow: .*rule_e .line 14. needs quote"},
        {"[p]\nhost = 1.2.3.4\n", "1 note no-recovery: "},
        {"[p]\n" + repeated(1002, "a# = 1\n"), "1002 warning unknown-key: 2 more of the kind"},
    };
    for (const auto &[text, expected] : rows) {
        EXPECT_THAT(findings_in(text), ContainsRegex("\n" + expected)) << text;
    }
    EXPECT_THAT(findings_in("[p]\nhost = no such host\n", ask_hosts),
                AllOf(ContainsRegex("\n2 error host: .*does not resolve .*after [0-9.]+ s"),
                      Not(HasSubstr("it has no IPv4 address"))));
    const auto two = ask_hosts({"127.0.0.1", "no such host"}, 60);
    EXPECT_EQ((ints_t{two[0].is_found, two[1].is_found}), (ints_t{1, 0}));
    const host_t late = ask_hosts({"localhost"}, 0)[0];
    EXPECT_EQ(joined(late.is_found, late.reason), "0|no answer within 10 s|");
}

TEST_F(Check, FindsNothingInWhatIsMeant) {
    const std::string clean = findings_in(
        "[logger]\nlog_type = Syslog ;a comment\nlog_level = 3\nlog_escape = n\n" + LINE +
        "ack_when_done = y\nport = 65535;two\nread_timeout = 30\n[rule_a]\npattern = "
        "'(c{0})a;b{0}' ; "
        "c\naction = script\n"
        "quote = 1\nack_when_run = y\nvalue[ab] = (a)\nvalue[a] = (.+b.{11}c)\n"
        "callscript = x $HOME $(date +%H%M) %message% $ab '100 % of 10%' for i in $i "
        "`x \\`y\\``\"$(a '`' %message%)\" $a$1 '&' \\&\n[rule_d]\n");
    EXPECT_THAT(clean, Not(ContainsRegex("warning|note|error [^d]")));
    const std::string listening =
        findings_in(LINE +
                    "listen = y\nlisten_address = 127.0.0.1\nport = 1024\nespa_poll = y\n[q]\nhost "
                    "= 127.0.0.1\n"
                    "listen = y\nlisten_address = 127.0.0.2\nspool_dir = /s\nrules = rule_a\n"
                    "espa_address = 2\n[r]\nhost = 127.0.0.1\nrecover_link = y\nspool_dir = /s\n"
                    "rules = rule_a,rule_b\n[rule_b]\npattern = FIRE\nmatch_beep = \\.\n"
                    "[rule_a]\npattern = FIRE\naction = call\nmatch_beep = 1\n"
                    "record_fields = y\ncontext = %line%%priority%\n[rule_d]\n");
    const std::string followed = findings_in(
        "[logger]\nlog_level = 3\nlog_type = syslog\n" + FOLLOWED +
        "espa_address = 2\nstatus_called = 1\n" + RULES +
        "action = call\nquote = y\nextension = %number%\nwait_time = 20\nmax_retries = 2\n"
        "retry_time = 0\nconfirm = y\ngive_up = 60\notherwise = rule_e\n"
        "[rule_e]\naction = call\notherwise = rule_f\n[rule_f]\naction = script\n"
        "quote = y\ncallscript = x\n");
    EXPECT_THAT(followed, Not(ContainsRegex("warning|note|error [^d]")));
    EXPECT_THAT(listening, Not(ContainsRegex("[2-9] (warning|note|error [^d])")));
}

TEST(Findings, NameThatIsNearest) {
    const struct {
        const char *name;
        texts_t known;
        const char *nearest;
    } rows[] = {
        {"abc", {"xbc", "abd"}, "xbc"},  // the first of those that are as near
        {"abcdef", {"abdcfe", "bcdef"}, "bcdef"},
        {"abcdef", {"xbcdxx", "badcef"}, "badcef"},  // two swaps
        {"abcdef", {"xbcdxx", "abcd"}, "abcd"},
        {"ABCDEF", {"defabc"}, ""},
        {"abc", {"xabcy", "xxc", "abcdefghi"}, "abcdefghi"},  // what it begins
        {"ab", {"abcdef", "cd"}, ""},
        {"a", {"b"}, ""},
        {"ba", {"ab"}, "ab"},
        {"bax", {"abxx", "ab"}, ""},
    };
    for (const auto &[name, known, nearest] : rows) {
        EXPECT_EQ(nearest_name(name, known), nearest) << name;
    }
}

struct InstalledCheck : Check {};

TEST_F(InstalledCheck, JudgesFilesAsTheAccount) {
    if (geteuid() != 0 || getpwnam("ovo") == nullptr) {
        GTEST_SKIP() << "needs root and the daemon's account";
    }
    EXPECT_EQ(why_files_are_not_judged(), "");
    EXPECT_THAT(findings_in("[logger]\nlog_file = /dev/null\nstatus_file = /run/lock/s\n"),
                ContainsRegex("\n3 note unit: .*/run/lock has to be listed"));
    EXPECT_THAT(findings_in("[logger]\njournal_file = /run/lock/j\n"),
                ContainsRegex("\n2 note unit: journal_file: .*/j has to be listed"));
    const std::string closed = dir.make("closed", 0755);
    dir.write("locked", "");
    fs::permissions(dir.path("locked"), fs::perms(0600));
    const std::string found =
        findings_in("[logger]\nlog_file = " + dir.path("locked") + "\njournal_file = " + closed +
                    "/j\nstatus_file = " + closed + "/s\n" + LINE + "spool_dir = " + closed +
                    "\nstaging_dir = /none\n[q]\nhost = 1.2.3.4\nspool_dir = " + dir.path() +
                    "\nstaging_dir = " + dir.path() + "\n");
    for (const char *expected :
         {"2 error directory: .*cannot write .*locked", "3 error directory: .*no .*j, and",
          "4 error directory: .*closed: Perm", "11 error directory: .*closed: Perm",
          "12 error directory: .*No such", "16 warning staging: .*itself"}) {
        EXPECT_THAT(found, ContainsRegex("\n"s + expected));
    }
    const std::string away = LINE + "spool_dir = " + dir.path() + "\nstaging_dir = /dev/shm\n";
    EXPECT_THAT(findings_in(away), HasSubstr("\n8 warning staging: staging_dir is not on"));
    EXPECT_THAT(findings_in(away + "follow_calls = y\n"), HasSubstr("\n9 error follow: staging"));
    set_instance("east");  // whose directories its unit makes, but for those that it is given
    EXPECT_THAT(findings_in("[p]\nhost = 1.2.3.4\n"), Not(HasSubstr("error directory: spool")));
    EXPECT_THAT(findings_in(LINE + "staging_dir = /none\n"), HasSubstr("7 error directory"));
    set_instance("");
    fs::permissions(dir.path("conf"), fs::perms(0600));
    EXPECT_THAT(findings_in(LINE + "staging_dir = /none\n"),
                HasSubstr("\n1 error not-loadable: the account ovo cannot open"));
    const std::string said = run(3, "vespercheck --loadable " + dir.path("conf"));
    EXPECT_THAT(said, HasSubstr("ovo cannot open " + dir.path("conf") + ": Permission denied"));
    fs::permissions(dir.path("conf"), fs::perms(0644));
    EXPECT_THAT(run(0, "vespercheck --loadable " + dir.path("conf")), HasSubstr("conf:7: error"));
    EXPECT_THAT(run(3, "vespercheck --loadable " + closed), HasSubstr(closed + " is a directory"));
    const std::pair<const char *, const char *> open_files[] = {
        {"log_file = #made", "2 warning open-to-others: .*no .*made, and the daemon makes it"},
        {"journal_file = #open", "2 warning open-to-others: .*everybody can read .*open, which"},
        {"log_file = #far/made", ""},
        {"log_file = #locked", ""},
    };
    dir.write("open", "");
    fs::permissions(dir.path("open"), fs::perms(0644));
    dir.make("far", 0750);
    for (const char *own : {"open", "far", "locked"}) {
        EXPECT_EQ(chown(dir.path(own).c_str(), getpwnam("ovo")->pw_uid, gid_t(-1)), 0);
    }
    for (const auto &[key, expected] : open_files) {
        const std::string text = findings_in("[logger]\n" + replaced(key, "#", dir.path()) + "\n");
        EXPECT_THAT(text, ContainsRegex("\n"s + expected));
        EXPECT_EQ(text.find("open-to-others") == std::string::npos, expected[0] == '\0') << text;
    }
}

// Whatever groups the account has, the daemon has those that it was started with.
TEST_F(InstalledCheck, JudgesFilesByTheGroupsOfTheDaemon) {
    if (geteuid() != 0 || getpwnam("ovo") == nullptr) {
        GTEST_SKIP() << "needs root and the daemon's account";
    }
    set_instance("g" + std::to_string(getpid()));
    const std::string pidfile = "/run/" + process_name() + ".pid";
    const gid_t groups[] = {7, 8};
    dir.make("spool", 0070);
    EXPECT_EQ(chown(dir.path("spool").c_str(), 0, 8), 0);
    for (const std::string &name : {process_name(), "other"s}) {
        child_t process(fork());
        if (process.pid == 0) {
            prctl(PR_SET_NAME, name.c_str());
            _exit(setgroups(2, groups) + pause());
        }
        const std::string status = "/proc/" + std::to_string(process.pid) + "/status";
        EXPECT_TRUE(eventually([&] {
            const std::string text = read_file(status);
            return text.find("\t7 8") != std::string::npos && text.find(name.substr(0, 15)) == 6;
        }));
        std::ofstream(pidfile) << process.pid << "\n";
        const std::string found = findings_in(LINE + "spool_dir = " + dir.path("spool") + "\n");
        EXPECT_EQ(found.find("spool: Permission denied") == std::string::npos, name != "other");
    }
    fs::remove(pidfile);
    set_instance("");
}

TEST_F(Check, StatusAndReport) {
    const std::string head =
        "[logger]\nlog_file = /dev/null\nlog_level = 0\n[p]\nhost = 10.0.0.1\n";
    const std::string rest = "spool_dir = " + dir.path() + "\nrecover_link = y\nrules = rule_f\n";
    const std::string rule = "[rule_f]\naction = call\npattern = F([A-Z])\nextension = 9\n";
    const std::string path = dir.write("conf", head + rest + rule);
    EXPECT_THAT(run(0, "vespercheck --json " + path),
                AllOf(HasSubstr("\"name\": \"rule_f\""), HasSubstr("\"address\": \"10.0.0.1\"")));
    const std::string strange = dir.write(
        "\x1B", head + rest + rule + "callerid = %message%\n[\xE2\x80\xAE\x9B]\nhost = 10.0.0.2\n");
    EXPECT_THAT(run(1, "vespercheck --no-resolve " + strange),
                AllOf(HasSubstr("?:14: note: [??] becomes"), HasSubstr("\n  ??: 10.0.0.2 port")));
    EXPECT_THAT(run(0, "vespercheck -m \"$(printf 'FA\\033\\302\\233\\r\\t')\" " + strange),
                HasSubstr("CallerID: FA\\x1B\\xC2\\x9B\\x0D\t\\r\n"));
    dir.write("conf", head + "port = 010\n" + rest + rule);
    EXPECT_EQ(run(1, "vespercheck -q " + path),
              path + ":6: warning: port = '010' is octal: it means 8\n");
    dir.write("conf", head + "port = 1\n" + rest + rule + "[q]\nport = 1\n");
    EXPECT_EQ(run(2, "vespercheck -q " + path),
              path + ":14: error: [q] is taken for a pager and has no host: it is left out\n");
    fs::resize_file(dir.write("large", ""), MAX_CONFIGURATION_SIZE + 1);
    for (const char *unreadable : {"missing", "../../dev/zero", "large"}) {
        run(3, "vespercheck " + dir.path(unreadable));
    }
    run(64, "vespercheck -m x -l nobody " + path);
}

TEST_F(Check, WhatAMessageComesTo) {
    const std::string path = dir.write(
        "conf",
        "[logger]\nlog_file = /dev/null\nlog_level = 0\n"
        "[P]\nhost = 10.0.0.1\nspool_dir = /s\nstaging_dir = /t\nrules = rule_fx,rule_s,x,rule_e\n"
        "default_rule = rule_k\n[q]\nhost = 10.0.0.2\nprotocol = ascii\nport = 7\n"
        "default_rule = rule_s\n[r]\nhost = 10.0.0.1\n[n]\nport = 1\n"
        "[rule_f]\naction = call\npattern = F([A-Z])\nvalue[v] = (B)\nextension = $v\n"
        "[rule_s]\naction = script\npattern = SC\ncallscript = run %number% '%message%'\n"
        "[rule_e]\naction = call\npattern = B$\nquote = yes\nextension = /../%message%\n"
        "[rule_k]\n[rule_m]\npattern = PRIO.*\nmatch_address = ^4\nmatch_priority = 1\n"
        "match_beep = 5\nmatch_transmissions = 6\nrecord_fields = y\naction = call\n"
        "context = %priority%%type%%beep%%transmissions%%line%\n"
        "[m]\nhost = 10.0.0.3\nlisten = y\nport = 4001\nrules = rule_m\n"
        "[f]\nhost = 10.0.0.4\nstaging_dir = /t\nfollow_calls = y\ndefault_rule = rule_g\n"
        "[rule_g]\naction = call\notherwise = rule_h\n[rule_h]\naction = call\n");
    const std::string try_on = "vespercheck " + path + " -l ";
    const std::pair<std::string, std::string> rows[] = {
        {"p -m FAFB",
         "Line p:\n  rule_fx (rule_f): match index 2, groups 'AB'\n  rule_s: match index 0\n  x "
         "finds no "
         "rule\n  rule_e: match index 1\n  Selected: rule_f, its last match is the longest, 2 "
         "characters\n  $v = 'B'\n  Call file /s/call_B_#:\n    Channel: Local/1234@users\\r\n    "
         "Context: alarm\\r\n    Extension: B\\r\n    CallerID: \"1000\" <1000>\\r\n"
         "    Priority: 1\\r\n    MaxRetries: 0\\r\n"},
        {"p -m SC" + std::string(125, 'x') + "yz", "xy'\n"},
        {"p -m FASC",
         "  Selected: rule_f, the first of those with the longest last match, 2 "
         "characters\n"},
        {"p -m B",
         "  Selected: rule_e, its last match is the longest, 1 character\n"
         "  Call file outside of spool_dir, not written, /s/"},
        {"p -m x",
         "  Selected: rule_k, no listed rule matches: the default rule\n"
         "  Nothing is done\n"},
        {"Q -m \"$(printf 'a\\0042%0127d')\"",  // longer than an ESPA record has room for
         "Line q:\n  Selected: rule_s, the list names no rule: the default rule\n"
         "  Command:\n    run  'a\\x042" +
             std::string(127, '0') + "'\n"},
        {"q -m 12345", "  Selected: rule_s, "},
        {"q -m 1234",
         "Line q:\n  Selected: none, an ASCII line takes messages of 5 characters and "
         "more\n  The message is dropped\n"},
        {"r -a 1 -m SC",
         "Line r:\n  Selected: none, the list names no rule, and there is no "
         "default rule\n  The message is dropped\n"},
        {"p -a 12345678 -m SC --json",
         R"({"file": "#","message": "SC","address": "12345678","lines": [{"line": "p","tried": [)"
         R"({"listed": "rule_fx","rule": "rule_f","index": 0,"groups": ""},{"listed": "rule_s",)"
         R"("rule": "rule_s","index": 2,"groups": ""},{"listed": "x","rule": null,"index": )"
         R"(0,"groups": ""},{"listed": "rule_e","rule": "rule_e","index": 0,"groups": ""}])"
         R"(,"selected": "rule_s","why": "its last match is the longest, 2 characters",)"
         R"("action": "script","values": {},"command": {"line": "run 12345678 'SC'","is_run": true})"},
        {"m -m PRIO -a 1 --priority 1", ": match index 4, match_address does not match\n  Sel"},
        {"m -m PRIO -a 4 --beep 7 --json", R"("address": "4","beep": "7","lines")"},
        {"m -m PRIO -a 4 --json", R"("groups": "","unmet": "match_priority"}],"selected": null)"},
        {"m -m PRIO -a 4 --priority 01 --type 3 --beep 5 --transmissions 6",
         "    Context: 01356m\\r\n"},
        {"p -m FB --json", R"("values": {"v": "B"},"call_file": {"path": "/s/call_B_#","content")"},
        {"f -m x",
         "MaxRetries: 0\\r\n    Archive: yes\\r\n    SetVar: VESPERD_CALL=call_s_#\\r\n  When "
         "nobody answers: rule_h (call), then an "
         "ERROR in the log\n"},
        {"f -m x --json",
         R"("is_written": true},"otherwise": [{"name": "rule_h","action": "call"}])"},
        {"r -m FB --json", R"("selected": null,"why": "the list names)"},
    };
    for (const auto &[options, expected] : rows) {
        std::string shown = run(0, try_on + options);
        if (options.ends_with("--json")) {
            shown = replaced(shown, "\n *", "");
        }
        shown = replaced(shown, path + "|1[0-9]{9}_0", "#");
        const bool is_whole = expected.starts_with("Line ");
        EXPECT_THAT(shown, is_whole ? Matcher<std::string>(expected) : HasSubstr(expected));
    }
    EXPECT_EQ(run(0, "vespercheck --converters " + path),
              "10.0.0.1\n10.0.0.2\n10.0.0.3\n10.0.0.4\n");
    // Text that is not in the file yet; a journal belongs to an instance by itself.
    const std::string draft = "printf '[d]\\nhost = 10.0.0.5\\n' | vespercheck --stdin ";
    EXPECT_THAT(run(0, draft + "-m x " + path), HasSubstr("Line d:\n"));
    EXPECT_THAT(run(1, draft + "--json --no-resolve -i east"),
                AllOf(HasSubstr("\"journal\": \"/var/log/quillet/east.journal\""),
                      HasSubstr("\"status\": \"/run/vesperd/east.prom\"")));
    EXPECT_THAT(run(0, "vespercheck -m FB " + path),
                AllOf(HasSubstr("line n has no host and is left out\n"), HasSubstr("\nLine r:")));
    EXPECT_THAT(run(2, "vespercheck --no-resolve " + path),
                HasSubstr("\nLines:\n  p: 10.0.0.1 port 2233, ESPA 4.4.4\n    1. rule_f (call)\n"
                          "    2. rule_s (script)\n    3. rule_e (call)\n    otherwise rule_k "
                          "(skip)\n  q: 10.0.0.2 port 7, ASCII lines\n    otherwise rule_s "
                          "(script)\n  r: 10.0.0.1 port 2233, ESPA 4.4.4\n    otherwise messages "
                          "are dropped\n  m: 10.0.0.3 connects to port 4001, ESPA 4.4.4\n    1. "
                          "rule_m (call)\n    otherwise messages are dropped\n  f: 10.0.0.4 "
                          "port 2233, ESPA 4.4.4\n    otherwise rule_g (call)\nLog: /dev/null, "
                          "level 0\n"));
}

}  // namespace
