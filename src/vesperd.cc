#include "vesperd.h"

#include <fcntl.h>
#include <libgen.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "action.h"
#include "callfile.h"
#include "charset.h"
#include "clock.h"
#include "cmdline.h"
#include "conf.h"
#include "daemon.h"
#include "espa.h"
#include "instance.h"
#include "journal.h"
#include "link.h"
#include "logger.h"
#include "proto.h"
#include "rule.h"
#include "sig.h"
#include "stats.h"
#include "status.h"
#include "text.h"

std::atomic<int> doexit;

namespace {

constexpr const char *ACCOUNT = "ovo";

constexpr long CONNECT_PAUSE_US = 3'000'000;
constexpr long SOCKET_FAILURE_PAUSE_US = 1'000'000;
constexpr long ASCII_MESSAGE_PAUSE_US = 10'000;
constexpr long SHUTDOWN_GRACE_US = 10'000'000;
constexpr long MAIN_LOOP_PAUSE_US = 1'000'000;

constexpr int SILENCE_LIMIT_SECONDS = 10;  // on an ESPA line; read_timeout is for ASCII lines
constexpr int CONNECT_LIMIT_SECONDS = 10;  // with recover_link
constexpr char CALL_HEADER = '1';
constexpr int HIGH_BIT = 0x80;

#define LOG_SERVICE(level, ...) LOG_AS(level, "service_proc", __VA_ARGS__)

// A service thread's side of its pager. The thread knows its connection by `sock`; a record whose
// `socket` differs has been loaded again, and its connection is abandoned: it stays open unused for
// as long as descriptors allow.
struct line_t {
    pager_t *pager;
    int sock;
    char buffer[PACKET_BUFFER_SIZE];
    std::vector<int> abandoned;
    charset_t charset;
};

bool recovers(const line_t *line) {
    return load_shared(line->pager->recover_link) != 0;
}

bool is_reloaded(const line_t *line) {
    return load_shared(line->pager->socket) != line->sock;
}

void set_socket(line_t *line, int sock) {
    line->sock = sock;
    store_shared(&line->pager->socket, sock);
}

void close_line(line_t *line) {
    close(line->sock);
    set_socket(line, -1);
}

void close_abandoned(line_t *line) {
    for (const int sock : line->abandoned) {
        close(sock);
    }
    line->abandoned.clear();
}

void abandon_line(line_t *line) {
    if (line->sock >= 0) {
        line->abandoned.push_back(line->sock);
    }
    line->sock = -1;
    if (recovers(line)) {
        close_abandoned(line);
    }
}

void drop_line(line_t *line, int alrm) {
    call_service_action(line->pager, alrm);
    close_line(line);
}

// Where a pager's converter is, read from its record.
struct endpoint_t {
    char host[sizeof pager_t::host];
    unsigned shown_port;  // in the log: a signed 16-bit number printed as unsigned
    sockaddr_in address;
};

endpoint_t endpoint_of(const pager_t *pager) {
    endpoint_t endpoint{};
    read_tables([&] {
        copy_text(endpoint.host, text_copy_t(pager->host).text);
        endpoint.shown_port = static_cast<unsigned>(load_shared(pager->port));
        copy_shared(&endpoint.address, pager->sin);
    });
    endpoint.address.sin_family = AF_INET;  // an emptied record has none: it means "disconnect"
    return endpoint;
}

// Returns whether the line is connected.
bool connect_line(line_t *line) {
    pager_t *pager = line->pager;
    enter_state(line_state_t::CONNECTING);
    set_socket(line, link_socket());
    if (link_is_short_of_descriptors(line->sock)) {
        close_abandoned(line);
    }
    pause_us(CONNECT_PAUSE_US);
    const endpoint_t to = endpoint_of(pager);
    if (line->sock < 0) {
        call_service_action(pager, ALARM_GENERAL_ERROR);
        LOG_SERVICE(LEVEL_ERROR, "Error connecting to %s:%u\n", to.host, to.shown_port);
        pause_us(SOCKET_FAILURE_PAUSE_US);
        return false;
    }
    LOG_SERVICE(LEVEL_VERBOSE, "Trying to connect %s:%u\n", to.host, to.shown_port);
    if (!link_connect(line->sock, to.address,
                      recovers(line) ? CONNECT_LIMIT_SECONDS : AS_LONG_AS_THE_SYSTEM_TRIES)) {
        LOG_SERVICE(LEVEL_ERROR, "Error connecting to %s:%u\n", to.host, to.shown_port);
        call_service_action(pager, ALARM_NO_RESPONSE);
        close_line(line);
        pause_us(CONNECT_PAUSE_US);
        return false;
    }
    if (is_reloaded(line)) {
        close_line(line);  // perhaps connected to where the pager no longer is
        return false;
    }
    store_shared(&pager->last_packet, seconds_now());
    my_stats().connects.add();
    enter_state(line_state_t::IDLE);
    call_service_action(pager, ALARM_CONNECTED);
    return true;
}

bool is_silent_for_more_than(const pager_t *pager, int seconds) {
    return seconds_between(load_shared(pager->last_packet), seconds_now()) > seconds;
}

// Every second byte of a packet, up to the first of them that is NUL or ETX.
void dump_packet(const line_t *line) {
    for (size_t i = 0; i < sizeof line->buffer; i += 2) {
        const char byte = line->buffer[i];
        if (byte == '\0' || byte == ETX) {
            return;
        }
        LOG_SERVICE(LEVEL_DEBUG, "0x%.02x\n", shown_byte(byte));
    }
}

// When a message was received, and the answer that its packet is still waiting for, if any.
class owed_answer_t {
  public:
    owed_answer_t(int sock, bool is_owed, int64_t received_us)
        : sock_(sock), is_owed_(is_owed), received_us_(received_us) {}

    int64_t received_us() const { return received_us_; }

    void give(bool accepted) {
        if (is_owed_) {
            const char byte = accepted ? ACK : NAK;
            LOG_SERVICE(LEVEL_DEBUG, "Packet is done. send %s", accepted ? "ACK" : "NAK");
            write_reply(sock_, {&byte, 1});
        }
        is_owed_ = false;
    }

  private:
    int sock_;
    bool is_owed_;
    int64_t received_us_;  // by clock.h's monotonic clock
};

void count_message() {
    my_stats().messages.add();
    my_stats().last_message_ms.store(milliseconds_now(), std::memory_order_relaxed);
}

// A packet is answered when its call file is complete, and where the rule wants it when its command has
// succeeded; whatever else its message leads to may take long and comes after the answer.
bool is_answered_before(const rule_t &rule) {
    return rule.action != CALL && (rule.action != SCRIPT || rule.ack_when_run == 0);
}

bool is_acknowledged(const rule_t &rule, const outcome_t &outcome) {
    return rule.action == SCRIPT ? outcome.succeeded : outcome.was_done;
}

// process_message(), on whose behalf it logs.
void dispatch_message(pager_t *pager, int alrm, const char *number, const char *message,
                      owed_answer_t *answer) {
    count_message();
    rule_t rule;
    if (!choose_rule(pager, message, &rule)) {
        answer->give(true);
        LOG_AS(LEVEL_ERROR, "process_message", "empty rules for pager");
        my_stats().unmatched.add();
        journal_write({pager, alrm, number, message, nullptr, {}, answer->received_us()});
        return;
    }
    if (is_answered_before(rule)) {
        answer->give(true);
    }
    const outcome_t outcome = perform_action(pager, alrm, number, message, &rule);
    answer->give(is_acknowledged(rule, outcome));
    journal_write({pager, alrm, number, message, &rule, outcome, answer->received_us()});
    raise_if_not_done(pager, outcome);
}

// What came from the line as rules, templates and log see it.
std::string decoded(line_t *line, const char *bytes) {
    line->charset.open(table_text(line->pager->charset).text);
    return line->charset.to_utf8(bytes);
}

void handle_call_record(line_t *line, const espa_record_t &record, owed_answer_t *answer) {
    const std::string message = decoded(line, record.display_message);
    const std::string address = decoded(line, record.call_address);
    LOG_SERVICE(LEVEL_VERBOSE, "\tSend message '%s' to '%s'\n", message.c_str(), address.c_str());
    dispatch_message(line->pager, ALARM_MESSAGE, address.c_str(), message.c_str(), answer);
}

void handle_espa_packet(line_t *line, owed_answer_t *answer) {
    pager_t *pager = line->pager;
    my_stats().packets.add();
    dump_packet(line);
    store_shared(&pager->last_packet, seconds_now());
    if (load_shared(pager->no_check_bcc) != 0) {
        LOG_SERVICE(LEVEL_EVENT, "ESPA packet BCC check is OFF");
    } else if (checkBCC(line->buffer, PACKET_SIZE) == 0) {
        answer->give(false);
        my_stats().check_errors.add();
        call_service_action(pager, ALARM_TRANSMISSION_ERROR);
        LOG_SERVICE(LEVEL_ERROR, "ESPA packet BCC is WRONG. won't process\n");
        return;
    } else {
        LOG_SERVICE(LEVEL_EVENT, "ESPA packet BCC is OK\n");
    }
    espa_p packet{};
    parse_espa_packet(&packet, line->buffer);
    LOG_SERVICE(LEVEL_VERBOSE, "Got ESPA packet of type %x\n", shown_byte(packet.header_type));
    if (packet.header_type == CALL_HEADER) {
        handle_call_record(line, packet.record, answer);
    } else {
        answer->give(true);
    }
}

void swap_to_ascii(line_t *line) {
    LOG_SERVICE(LEVEL_ERROR, "Read started but not a SOH\n");
    LOG_SERVICE(LEVEL_ERROR, "Perhaps protocol selection is wrong\n");
    LOG_SERVICE(LEVEL_ERROR, "Trying to swap to ASCII. PLEASE check configuration\n");
    store_shared(&line->pager->protocol, PROTOCOL_ASCII);
    note_protocol(PROTOCOL_ASCII);
}

void report_failure(const line_t *line, int result) {
    const endpoint_t to = endpoint_of(line->pager);
    LOG_SERVICE(LEVEL_ERROR, "Line of pager %s to %s:%u %s. Connecting again\n",
                table_text(line->pager->name).text, to.host, to.shown_port,
                result == ESPA_UNEXPECTED ? "brought a byte out of place" : "was closed or failed");
}

void serve_espa(line_t *line) {
    pager_t *pager = line->pager;
    const espa_options_t options{&pager->recover_link, load_shared(pager->ack_when_done) != 0};
    const int result = espa_read_packet(line->sock, line->buffer, PACKET_SIZE, &pager->polls,
                                        load_shared(pager->espa_poll), options);
    if (result > 1) {
        owed_answer_t answer(line->sock, options.leaves_answer && line->buffer[result] == ETX,
                             microseconds_passed());
        handle_espa_packet(line, &answer);
    } else if (is_reloaded(line)) {
        return;  // what became of the abandoned connection says nothing about the new one
    } else if (result < 0) {
        if (recovers(line)) {
            report_failure(line, result);
        } else {
            swap_to_ascii(line);
        }
        drop_line(line, ALARM_CONNECTION_LOST);
    } else if (result == 0 && is_silent_for_more_than(pager, SILENCE_LIMIT_SECONDS)) {
        drop_line(line, ALARM_TRANSMISSION_ERROR);
    }
}

void report_non_ascii(const char *text) {
    const char *found =
        std::find_if(text, text + strlen(text), [](char c) { return (c & HIGH_BIT) != 0; });
    if (*found != '\0') {
        LOG_SERVICE(LEVEL_ERROR,
                    "Read non-ASCII character 0x%.02x in ASCII packet. Possible wrong serial "
                    "settings\n",
                    shown_byte(*found));
    }
}

void handle_ascii_line(line_t *line) {
    pager_t *pager = line->pager;
    const char *text = line->buffer;
    const int64_t received_us = microseconds_passed();
    my_stats().packets.add();
    LOG_SERVICE(LEVEL_DEBUG, "ASCII Read packet: %s", text);
    store_shared(&pager->last_packet, seconds_now());
    if (text[0] == SOH) {
        LOG_SERVICE(LEVEL_ERROR,
                    "Got ESPA SOH when ASCII protocol selected. trying to swap protocols.\n"
                    "PLEASE double check configuration\n");
        return;  // the way back from ASCII is a reload
    }
    if (load_shared(pager->charset[0]) == '\0') {
        report_non_ascii(text);
    }
    if (strlen(text) < MIN_ASCII_LENGTH) {
        LOG_SERVICE(LEVEL_WARNING, "ASCII message is too small");
        return;
    }
    const std::string message = decoded(line, text);
    owed_answer_t none(-1, false, received_us);
    dispatch_message(pager, ALARM_MESSAGE, "", message.c_str(), &none);
    LOG_SERVICE(LEVEL_VERBOSE, "message=%s", message.c_str());
    pause_us(ASCII_MESSAGE_PAUSE_US);
}

void serve_ascii(line_t *line) {
    pager_t *pager = line->pager;
    const int result = ascii_read_packet(line->sock, line->buffer, PACKET_SIZE, &pager->polls);
    if (result > 1) {
        handle_ascii_line(line);
    } else if (is_reloaded(line)) {
        return;
    } else if (result < 0) {
        drop_line(line, ALARM_CONNECTION_LOST);
    } else if (result == 0) {
        const int limit = load_shared(pager->read_timeout);
        if (limit > 0 && is_silent_for_more_than(pager, limit)) {
            drop_line(line, ALARM_TRANSMISSION_ERROR);
        }
    }
}

void serve_turn(line_t *line) {
    memset(line->buffer, 0, sizeof line->buffer);
    if (is_reloaded(line)) {
        abandon_line(line);
    }
    if (line->sock < 0 && !connect_line(line)) {
        return;
    }
    const int protocol = load_shared(line->pager->protocol);
    note_protocol(protocol);
    if (protocol == PROTOCOL_ESPA) {
        serve_espa(line);
    } else {
        serve_ascii(line);
    }
    enter_state(line->sock < 0 ? line_state_t::CONNECTING : line_state_t::IDLE);
}

void clean_staging_directories() {
    for (int i = 0; i < num_pagers; i++) {
        if (pagers[i].staging_dir[0] != '\0') {
            call_file_clean(pagers[i].staging_dir);
        }
    }
}

void start_service_threads() {
    for (int i = 0; i < num_pagers; i++) {
        pthread_mutex_init(&pagers[i].lock, nullptr);
        stats_begin(&pagers[i]);
        pthread_create(&pagers[i].bg, nullptr, service_proc, &pagers[i]);
    }
}

void start_logger() {
    logger_init(logfile, loglevel, logtype == 1, 0);
}

// In this order. Registering SIGTERM twice does no harm, and the system refuses SIGKILL.
void install_signal_handlers() {
    struct {
        int signo;
        signal_handler_t handler;
    } const handlers[] = {
        {SIGHUP, sig_hup},   {SIGTERM, sig_term}, {SIGTERM, sig_term}, {SIGCHLD, SIG_IGN},
        {SIGUSR1, SIG_IGN},  {SIGUSR2, SIG_IGN},  {SIGINT, sig_term},  {SIGABRT, sig_term},
        {SIGQUIT, sig_term}, {SIGKILL, sig_term},
    };
    for (const auto &entry : handlers) {
        signal_set_handler(entry.signo, 0, entry.handler);
    }
}

bool answers_by_exit_status() {
    return std::any_of(std::begin(rules), std::end(rules),
                       [](const rule_t &rule) { return rule.ack_when_run != 0; });
}

// A process that ignores the signal never learns how its commands ended.
void heed_children() {
    static bool heeds = false;
    const bool tells = status_is_kept() || journal_is_kept() || answers_by_exit_status();
    if (tells != heeds) {
        signal_set_handler(SIGCHLD, 0, tells ? SIG_DFL : SIG_IGN);
    }
    heeds = tells;
}

// The daemon works in "/", from where a reload would not find a relative path.
void make_config_path_absolute() {
    char *directory = config_file[0] != '/' ? getcwd(nullptr, 0) : nullptr;
    if (directory != nullptr) {
        const std::string path = std::string(directory) + "/" + config_file;
        free(directory);
        free(config_file);
        config_file = strdup(path.c_str());
    }
}

// Only the child returns. The parent stays until the child has closed its descriptors: a child whose
// parent is gone takes itself for started by init and would remain in the caller's session.
void go_to_background(const char *program) {
    int detached[2];
    if (pipe2(detached, O_CLOEXEC) != 0) {
        detached[0] = detached[1] = -1;
    }
    if (fork() != 0) {
        char none = 0;
        close(detached[1]);
        while (read(detached[0], &none, 1) > 0) {
        }
        free_confvals();
        exit(0);  // also when the fork failed
    }
    install_signal_handlers();
    heed_children();
    make_config_path_absolute();
    std::string path(program);
    if (daemon_init(basename(path.data())) != 0) {
        close(detached[1]);  // goes on, if need be without a pidfile: another instance may hold it
    }
}

[[noreturn]] void run_daemon(const char *program, uid_t uid, gid_t gid) {
    if (console_log != 0) {
        logfile[0] = '\0';  // an empty file name stands for standard error
    }
    if (foreground == 0) {
        go_to_background(program);
    }
    start_logger();
    // The group id in the place of the effective user id: the account has the two equal.
    if (setreuid(uid, gid) != 0) {
        LOG_AS(LEVEL_ERROR, "main", "Unable to set uid to user ovo\n");
        exit(0);
    }
    logger_own_files(NOBODY, NOBODY);
    clean_staging_directories();
    start_service_threads();
    for (;;) {
        signal_handle_all();
        status_update();
        pause_us(MAIN_LOOP_PAUSE_US);  // signals that come in the meantime are handled together
    }
}

// Does nothing for the daemon without a name.
void become_instance() {
    const char *name = getenv(INSTANCE_VARIABLE);
    if (name == nullptr || name[0] == '\0') {
        return;
    }
    if (!is_instance_name(name)) {
        fprintf(stderr, "No instance can have the name %s\n", name);
        exit(0);
    }
    set_instance(name);
    prctl(PR_SET_NAME, process_name().c_str());  // cut to 15 characters
}

// A line's socket must not come out as a descriptor that the log is written to.
void occupy_standard_descriptors() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

}  // namespace

void process_message(pager_t *pager, int alrm, const char *number, const char *message) noexcept {
    owed_answer_t none(-1, false, microseconds_passed());
    dispatch_message(pager, alrm, number != nullptr ? number : "", message, &none);
}

void *service_proc(void *argument) noexcept {
    pager_t *pager = static_cast<pager_t *>(argument);
    line_t line{pager, load_shared(pager->socket), {}, {}, {}};
    stats_serve(pager);
    LOG(LEVEL_VERBOSE, "Starting thread for pager %s\n", table_text(pager->name).text);
    call_service_action(pager, ALARM_STARTED);
    while (doexit == 0) {
        serve_turn(&line);
    }
    call_service_action(pager, ALARM_TERMINATED);
    enter_state(line_state_t::ENDED);
    return nullptr;
}

void sig_term(int signo) noexcept {
    LOG(LEVEL_NOTICE, "Caught signal %d. Exiting.", signo);
    doexit = 1;
    pause_us(SHUTDOWN_GRACE_US);
    if (signo != SIGABRT) {
        status_end();  // takes memory, which a signal context must not
    }
    free_confvals();
    if (foreground == 0) {
        daemon_close();
    }
    exit(0);
}

void sig_hup(int /*signo*/) noexcept {
    const std::string path(config_file);
    LOG(LEVEL_NOTICE, "Hangup. Reloading configuration.");
    free_confvals();
    if (load_conf(path.c_str()) < 0) {
        LOG(LEVEL_ERROR, "Unable to open configuration file %s. Exiting...", path.c_str());
        doexit = 1;
        exit(0);
    }
    start_logger();
    heed_children();
}

void vesperd_run(int argc, char **argv) noexcept {
    occupy_standard_descriptors();
    if (argc > 1) {
        get_options(argc, argv);
    }
    become_instance();
    if (config_file == nullptr) {
        config_file = strdup(config_path_of(instance()).c_str());
    }
    const passwd *account = getpwnam(ACCOUNT);
    if (account == nullptr) {
        fprintf(stderr, "No user ovo\n");
        exit(0);
    }
    const uid_t uid = account->pw_uid;
    const gid_t gid = account->pw_gid;
    if (geteuid() == 0) {
        logger_own_files(uid, gid);
    }
    if (load_conf(config_file) < 0) {
        fprintf(stderr, "\nUnable to open configuration file %s. Exiting...\n\n", config_file);
        exit(0);
    }
    if (test_message != nullptr) {
        run_test_mode();
        free_confvals();
        exit(0);
    }
    run_daemon(argv[0], uid, gid);
}
