// The built programs: the daemon against a line, in the foreground and in the background, and the
// line tool.

#include <sys/stat.h>

#include "running_daemon.h"
#include "status.h"

namespace {

// What happens on the line is noted in the file "alarms"; rule_x is up to the test.
const std::string KEYS = "send_service_actions = yes\nrules = rule_x\ndefault_rule = rule_alarm\n";
const std::string ALARM_RULE =
    "[rule_alarm]\naction = script\ncallscript = 'echo %alarm% >> @alarms'\n";
const std::string AS_ACCOUNT = "setpriv --reuid=ovo --regid=ovo --clear-groups ";

// The system ignores SIGINT while a script runs. The echo comes after those of the first alarms.
void wait_for_scripts(const unique_fd_t &line) {
    EXPECT_TRUE(control_station_t(line.get(), 30, nullptr).end_transmission());
}

struct Daemon : Installed {};

TEST_F(Daemon, CommandLinesOfBothPrograms) {
    const temp_dir_t dir;
    const std::string log_file = dir.path("log");
    const std::string conf = dir.write(
        "conf", "[logger]\nlog_file = " + log_file +
                    "\n[p]\nhost = 127.0.0.1\nrules = rule_script,rule_skip,rule_q,rule_c\n"
                    "[rule_q]\npattern = QUOTED\naction = script\nquote = y\nrecord_fields = y\n"
                    "callscript = %line%%message%\n[rule_c]\npattern = CALL\nmatch_address = 1000\n"
                    "action = call\nquote = y\nextension = %message%\n[rule_skip]\npattern = "
                    "SKIP\n[rule_script]\npattern = SCRIPT\naction = script\n"
                    "callscript = %number% %line% %message%\n");
    const std::string ascii =
        dir.write("ascii", dir.read("conf") + "[p]\nprotocol = asc\nhost = 127.0.0.1\n");
    const auto logging_to = [](const std::string &file) {
        return "[logger]\nlog_file = " + file + "\n[p]\nhost = 127.0.0.1\n";
    };
    dir.make("locked", 0755);  // of root's alone
    fs::create_symlink("locked/linked", dir.path("link"));
    const std::string only_root =
        "unshare -m sh -c 'mount -t tmpfs -o mode=755 none /var/log && cd /var/log && mkdir -m 755 "
        "x && "
        "mkdir -m 775 open; umask 027; exec \"$@\"' sh ";
    fs::permissions(dir.write("own", logging_to("/dev/null")), fs::perms(0600));
    EXPECT_EQ(chown(dir.path("own").c_str(), getpwnam("ovo")->pw_uid, gid_t(-1)), 0);
    const std::string usage = "\t-h, --help\t\t\tshow this text\n\n\n";
    const std::string head =
        "' at pager 'p'\nRules: rule_script,rule_skip,rule_q,rule_c\ndefault rule: \n";
    const std::string quoted = " 'QUOTED" + std::string(1100, 'x') + "'";
    const struct {
        int status;
        std::string command, output;  // ends in this
    } rows[] = {
        {0, "vesperd -d", usage},
        {0, "vesperd -c", usage},
        {0, "vesperd -fc /missing", "\nUnable to open configuration file /missing. Exiting...\n\n"},
        {0, "vesperd -m 'FIRE ZONE 3' -s -c " SOURCE_DIR "/examples/nurse-call.conf",
         "Running test over message: 'FIRE ZONE 3' at pager 'ward3'\n"
         "Rules: rule_fire,rule_arrest,rule_room\ndefault rule: rule_desk\nSelected rule "
         "rule_fire\n"
         "\tAction:\tCALL\n\t\tCallerID: \"Fire zone 3\" <8003>\n"
         "\t\tChannel: Local/fire@pagers\n\t\tContext: fire-team\n\t\tExtension: 8003\n"},
        {0, "vesperd --test-message=SCRIPT --config " + conf,
         head + "Selected rule rule_script\n\tAction:\tSCRIPT\n"
                "\tFollowing command to launch: \n\t\t1000 %line% SCRIPT\n"},
        {0, "vesperd -m QUOTED -c " + conf, "\n\t\t'p''QUOTED'\n"},
        {0, "vesperd -m" + quoted + " -c " + conf, "x\n\tToo long, it would not be run\n"},
        {0, "vesperd -m CALL" + std::string(400, 'x') + " -c " + conf,
         "Extension: CALL" + std::string(236, 'x') + "\n"},
        {0, "vesperd -m CALL -c " + ascii, "No matching rules found. Just skip\n"},
        {0, "vesperd -m SKIP -c " + conf, head + "Selected rule rule_skip\n\tAction:\tSKIP\n"},
        {0, "vesperd -m x -c " + conf, head + "No matching rules found. Just skip\n"},
        {0, "unshare -m sh -c 'mount --bind /dev/null /etc/passwd; exec vesperd -m x'",
         "No user ovo\n"},
        {0, "setpriv --reuid=nobody --clear-groups vesperd -fdc " + conf,
         "Unable to set uid to user ovo\n\n"},
        {0,
         "setpriv --bounding-set=-dac_override,-dac_read_search vesperd -m x -c " + dir.path("own"),
         "No matching rules found. Just skip\n"},
        {0, only_root + "vesperd -m x -c " + dir.write("linked", logging_to(dir.path("link"))),
         "No matching rules found. Just skip\n"},
        {0, only_root + "vesperd -m x -c " + dir.write("named", logging_to(dir.path("locked/x"))),
         "No matching rules found. Just skip\n"},
        {0,
         only_root + "sh -c 'vesperd -m x -c " + dir.write("system", logging_to("/var/log/x/log")) +
             "; vesperd -m x -c " + dir.write("open", logging_to("/var/log/open/log")) +
             "; vesperd -m x -c " + dir.write("lib", logging_to("/var/lib/y")) +
             "; cd /var/log; find -type f -printf \"%p %u %m\\\\n\" | sort'",
         "./x/log ovo 640\n"},
    };
    for (const auto &[status, command, output] : rows) {
        EXPECT_THAT(run(status, command), EndsWith(output)) << command;
    }
    struct stat log {};
    EXPECT_EQ(stat(log_file.c_str(), &log), 0);  // made by root
    EXPECT_EQ(log.st_uid, getpwnam("ovo")->pw_uid);
    EXPECT_TRUE(fs::is_empty(dir.path("locked")));
}

TEST_F(Daemon, FromRequestToActionAndEveryLineOfItsLog) {
    daemon_t daemon(
        "send_service_actions = 1\nrules = rule_fire,rule_script\n"
        "default_rule = rule_rest\n",
        "[rule_fire]\npattern = ^FIRE\naction = call\nextension = 1$zone\nchannel = C/%number%\n"
        "context = x\ncallerid = '%message%'\nvalue[zone] = ZONE ([0-9]+)\n"
        "[rule_script]\npattern = SCRIPT\naction = script\n"
        "callscript = 'ls -l /proc/self/fd > @fds; cut -d\" \" -f1,6 /proc/$$/stat > @ids; exit "
        "3'\n"
        "[rule_rest]\naction = script\ncallscript = 'echo %alarm% %message% >> @rest'\n");
    const std::string before = std::to_string(time(nullptr));
    daemon.run_in_foreground();
    unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    ASSERT_TRUE(station.send_call({"4711", "FIRE ZONE 3", "1", "3", "1", "2"})) << station.error();
    EXPECT_EQ(daemon.call("13"),
              "Channel: C/4711\r\nContext: x\r\nExtension: 13\r\nCallerID: FIRE ZONE 3\r\n"
              "Priority: 1\r\nMaxRetries: 0\r\n");
    EXPECT_GE(daemon.dir.list("call_")[0], "call_13_" + before);
    EXPECT_TRUE(station.send_packet(wire("<SOH>2<ETX>1")));                   // no call
    EXPECT_TRUE(station.send_packet(wire("<SOH>1<STX>2<US>FIRE<ETX><07>")));  // wrong check
    send_bytes(line, "X");                                                    // not ESPA
    line = daemon.accept();
    send_bytes(line, wire("SCRIPT<E9>\r\nfour\n<SOH>1234\n12345\n"));
    daemon.expect_logged("message=12345");
    EXPECT_THAT(daemon.dir.read("fds"),
                AllOf(Not(HasSubstr("socket:")),
                      ContainsRegex(" 0 -> /dev/null\n")));  // scripts do not hold the line
    int shell = 0, session = -1;
    std::istringstream(daemon.dir.read("ids")) >> shell >> session;
    EXPECT_EQ(shell, session);
    EXPECT_EQ(daemon.dir.read("rest"), "started\nmessage\n\nconnected\nmessage 12345\n");
    std::string log = messages(daemon.log());
    const std::pair<std::string, std::string> edits[] = {
        {daemon.dir.path(), "@"},
        {daemon.ports[0], "PORT"},
        {"\\s*\n", "\n"},
    };
    for (const auto &[pattern, text] : edits) {
        log = replaced(log, pattern, text);
    }
    EXPECT_EQ(log, wire(R"(VERBOSE: Starting thread for pager line
VERBOSE: Call service action started
VERBOSE: Trying to connect 127.0.0.1:PORT
VERBOSE: Call service action message
EVENT: ESPA packet BCC is OK
VERBOSE: Got ESPA packet of type 31
VERBOSE: <09>Send message 'FIRE ZONE 3' to '4711'
EVENT: ESPA packet BCC is OK
VERBOSE: Got ESPA packet of type 32
VERBOSE: Call service action
ERROR: ESPA packet BCC is WRONG. won't process
ERROR: Read started but not a SOH
ERROR: Perhaps protocol selection is wrong
ERROR: Trying to swap to ASCII. PLEASE check configuration
VERBOSE: Call service action connected
VERBOSE: Trying to connect 127.0.0.1:PORT
ERROR: Read non-ASCII character 0xffffffe9 in ASCII packet. Possible wrong serial settings
VERBOSE: message=SCRIPT<E9>
WARNING: ASCII message is too small
ERROR: Got ESPA SOH when ASCII protocol selected. trying to swap protocols.
PLEASE double check configuration
VERBOSE: message=12345
)"));
}

std::string answer_to(const unique_fd_t &line, const std::string &packet) {
    char answer = 0;
    send_bytes(line, packet);
    EXPECT_TRUE(eventually([&] { return recv(line.get(), &answer, 1, MSG_DONTWAIT) == 1; }));
    return {answer};
}

TEST_F(Daemon, AcknowledgesWhatIsDone) {
    daemon_t daemon(
        "ack_when_done = yes\nspool_dir = @spool\nstaging_dir = @staging\n"
        "charset = DIN_66003\nrules = rule_x,rule_y,rule_z\n",
        "[rule_x]\npattern = FEUER\naction = call\nextension = %number%\n"
        "callerid = %message%\nquote = yes\n"
        "[rule_y]\npattern = NOTE.*\naction = script\nquote = yes\n"
        "callscript = 'sleep 1; echo %message% >@note; exit 3'\n"
        "[rule_z]\npattern = RUN\naction = script\nack_when_run = yes\n"
        "callscript = 'echo >> @ran; rm @allowed'\n");
    const fs::path spool = daemon.dir.path("spool");
    for (const char *name : {"staging", "spool"}) {
        daemon.dir.make(name);
    }
    daemon.dir.write("staging/vesperd-call-1-1", "left by a process that was killed");
    daemon.run_in_foreground();
    const unique_fd_t line = daemon.accept();
    EXPECT_TRUE(fs::is_empty(daemon.dir.path("staging")));
    const std::string packet = compose_packet(to("../4711", "FEUER T]R; 3"));
    fs::rename(spool, daemon.dir.path("away"));
    EXPECT_EQ(answer_to(line, packet), wire("<NAK>"));
    fs::rename(daemon.dir.path("away"), spool);
    EXPECT_TRUE(fs::is_empty(spool));
    for (const int calls : {1, 2, 3}) {
        EXPECT_EQ(answer_to(line, packet), wire("<ACK>"));
        EXPECT_EQ(std::distance(fs::directory_iterator(spool), {}), calls);
    }
    for (const auto &call : fs::directory_iterator(spool)) {
        EXPECT_THAT(call.path().filename(),
                    AllOf(StartsWith("call_..4711_"), Not(EndsWith("711_"))));
        EXPECT_THAT(read_file(call.path()), HasSubstr("\r\nCallerID: FEUER T\xC3\x9CR\\; 3\r\n"));
    }
    EXPECT_TRUE(fs::is_empty(daemon.dir.path("staging")));
    EXPECT_EQ(answer_to(line, compose_packet(to("1", "NOTE 'x'"))), wire("<ACK>"));
    EXPECT_EQ(daemon.dir.read("note"), "");  // a command comes after the answer
    EXPECT_EQ(answer_to(line, wire("<SOH>2<ETX>1")), wire("<ACK>"));
    EXPECT_EQ(daemon.dir.read("note"), "NOTE 'x'\n");
    EXPECT_EQ(answer_to(line, compose_packet(to("1", "RUN"))), wire("<NAK>"));
    daemon.dir.write("allowed", "");
    EXPECT_EQ(answer_to(line, compose_packet(to("1", "RUN"))), wire("<ACK>"));
    EXPECT_EQ(daemon.dir.read("ran"), "\n\n");
}

// The spool directory is on another file system, and neither journal nor status can be written.
TEST_F(Daemon, WritesDirectlyWhatItCannotStage) {
    const temp_dir_t elsewhere;
    const std::string spool = "/dev/shm" + elsewhere.path_;
    fs::create_directories(spool);
    fs::permissions(spool, fs::perms(0777));
    daemon_t daemon("staging_dir = @\nrules = rule_x\nspool_dir = " + spool + "\n",
                    "[rule_x]\npattern = FIRE\naction = call\n"
                    "[logger]\njournal_file = /dev/full\nstatus_file = @missing/status\n");
    daemon.run_in_foreground();
    const unique_fd_t line = daemon.accept();
    control_station_t station(line.get(), 30, nullptr);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(station.send_call(to("1", "FIRE")));
    }
    EXPECT_TRUE(station.end_transmission());
    EXPECT_EQ(std::distance(fs::directory_iterator(spool), {}), 3);
    EXPECT_EQ(daemon.count("Unable to stage call files"), 1);
    // Of each file that cannot be written the log says so once.
    EXPECT_EQ(daemon.count("Unable to write journal /dev/full: No space left on device"), 1);
    daemon.expect_logged("Unable to write status file " + daemon.dir.path("missing/status"));
    EXPECT_EQ(daemon.count("Unable to write status file"), 1);
    status_init(daemon.dir.path_.c_str());  // a directory: the last step fails
    status_end();
    EXPECT_FALSE(fs::exists(daemon.dir.path_ + ".new"));
    status_init("");
    fs::remove_all(spool);
}

TEST_F(Daemon, RunsAsTheAccountUnderRootsPidfileUntilTheConfigurationIsGone) {
    const daemon_t daemon(KEYS, ALARM_RULE);
    child_t first = daemon.start("sh -c 'exec \"$0\" \"$@\" <&- >&- 2>&-' ");
    const unique_fd_t line = daemon.accept();
    wait_for_scripts(line);
    const std::string pid = std::to_string(first.pid);
    const std::string proc = "/proc/" + pid;
    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), "/");
    const std::string uid = "\t" + std::to_string(getpwnam("ovo")->pw_uid);
    const std::string status = read_file(proc + "/status");
    EXPECT_THAT(status, HasSubstr("\nUmask:\t0000\n"));
    EXPECT_THAT(status, HasSubstr("Uid:" + uid + uid + uid + uid + "\n"));
    // SIGUSR1, SIGUSR2, SIGCHLD; SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM and a sanitizer's.
    EXPECT_THAT(status, ContainsRegex("SigIgn:\t0+10a00\nSigCgt:\t0+.?00004[04][2e]7\n"));

    child_t second = daemon.start();
    for (const pid_t process : {first.pid, second.pid}) {
        for (const char *fd : {"/fd/0", "/fd/1", "/fd/2"}) {
            EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(process) + fd), "/dev/null");
        }
    }
    EXPECT_EQ(second.end(SIGABRT), 0);  // at once, in whichever thread takes it
    EXPECT_EQ(daemon.count("Caught signal 6. Exiting."), 1);
    fs::remove(daemon.dir.path("conf"));
    EXPECT_EQ(first.end(SIGHUP), 0);
    EXPECT_EQ(daemon.count("in sig_hup: Unable to open configuration file " +
                           daemon.dir.path("conf") + ". Exiting..."),
              1);
    EXPECT_EQ(read_file("/var/run/" + daemon.name + ".pid"), pid + "\n");
}

// Every reload takes the connected line to a new connection; what is sent before and after arrives.
TEST_F(Daemon, ReloadsUnderTrafficAndOrderlyShutdown) {
    const auto rules = [](const std::string &number) {
        return ALARM_RULE + "[rule_x]\naction = call\nextension = " + number + "\npattern = M" +
               number + "\n";
    };
    daemon_t daemon(KEYS, rules("0"));
    daemon.conf = daemon.dir.path("conf");
    const std::string pidfile = "/tmp/" + daemon.name + ".pid";
    std::ofstream(pidfile) << "999999999999\n";
    EXPECT_EQ(chown(pidfile.c_str(), getpwnam("ovo")->pw_uid, 0), 0);
    child_t process = daemon.start(AS_ACCOUNT);
    EXPECT_THAT(read_file(pidfile), StartsWith(std::to_string(process.pid) + "\n9"));
    unique_fd_t line = daemon.accept();
    for (int n = 0; n < 5; n++) {
        control_station_t station(line.get(), 30, nullptr);
        EXPECT_TRUE(station.send_call(to("1", "M" + std::to_string(n)))) << station.error();
        daemon.call(std::to_string(n));
        daemon.configure({{"line", KEYS}}, rules(std::to_string(n + 1)));
        for (int i = 0; i < 3; i++) {
            process.send(SIGHUP);
        }
        unique_fd_t next;
        EXPECT_TRUE(eventually([&] {
            send(line.get(), "\x04", 1, MSG_NOSIGNAL);  // ends the reader's turn
            next = daemon.accept(0, 0);
            return bool(next);
        }));
        line = std::move(next);  // and closes the abandoned one
    }
    EXPECT_EQ(daemon.count("Hangup."), 5);
    EXPECT_EQ(daemon.count("swap to ASCII") + daemon.count("empty rules"), 0);

    wait_for_scripts(line);
    const time_t before = time(nullptr);
    process.send(SIGINT);
    daemon.expect_logged("in sig_term: Caught signal 2. Exiting.");
    send_bytes(line, wire("<EOT>"));     // ends the turn
    EXPECT_EQ(process.end(SIGTERM), 0);  // changes nothing any more
    EXPECT_GE(time(nullptr) - before, 10);
    EXPECT_THAT(daemon.dir.read("alarms"), EndsWith("terminated\n"));
    EXPECT_EQ(daemon.count("Exiting."), 1);
    EXPECT_FALSE(fs::exists(pidfile));
}

}  // namespace
