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

#include "callfile.h"
#include "clock.h"
#include "cmdline.h"
#include "conf.h"
#include "daemon.h"
#include "follow.h"
#include "instance.h"
#include "journal.h"
#include "live.h"
#include "logger.h"
#include "notify.h"
#include "rights.h"
#include "roster.h"
#include "service.h"
#include "sig.h"
#include "stats.h"
#include "status.h"

namespace {

constexpr const char *ACCOUNT = "ovo";

constexpr int64_t SHOW_EVERY_US = 1'000'000;
constexpr long SHUTDOWN_GRACE_US = 10'000'000;

void clean_staging_directories() {
    for (int i = 0; i < num_pagers; i++) {
        if (pagers[i].staging_dir[0] != '\0') {
            call_file_clean(pagers[i].staging_dir);
        }
    }
}

void start_service_threads() {
    for (int i = 0; i < num_pagers; i++) {
        roster_start(&pagers[i], service_proc);
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

// What a load of the configuration changes beyond the tables.
void heed_load() {
    heed_children();
    follow_start();
}

// How the lines fare, for those who ask the service manager, which drops what comes before it knows whom
// it has started.
void tell_manager() {
    if (!notify_is_wanted()) {
        return;
    }
    const line_count_t lines = count_lines();
    std::string text = std::to_string(lines.served) + (lines.served == 1 ? " line" : " lines");
    if (lines.unconnected > 0) {
        text += ", " + std::to_string(lines.unconnected) + " without connection";
    }
    notify("STATUS=" + text);
}

// Once a second, however often the main thread is woken.
void show_status() {
    static int64_t shown_us = 0;
    const int64_t now = microseconds_passed();
    if (shown_us == 0 || now - shown_us >= SHOW_EVERY_US) {
        status_update();
        tell_manager();
        shown_us = now;
    }
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
    notify_init();
    start_logger();
    // The group id in the place of the effective user id: the account has the two equal.
    if (setreuid(uid, gid) != 0) {
        LOG_AS(LEVEL_ERROR, "main", "Unable to set uid to user ovo\n");
        exit(0);
    }
    logger_own_files(NOBODY, NOBODY);
    follow_start();
    clean_staging_directories();
    start_service_threads();
    notify(READY);
    for (;;) {
        signal_handle_all();
        if (live_update()) {
            heed_load();
        }
        show_status();
        live_pause();  // signals that come in the meantime are handled together
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

// The first load. A service unit may leave root without the right to open what is the account's alone.
int load_as_root(uid_t uid, gid_t gid) {
    const int result = load_conf(config_file);
    if (result == 0 || errno != EACCES || geteuid() != 0) {
        return result;
    }
    free_confvals();
    const rights_t of_account(uid, gid);
    return load_conf(config_file);
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

void sig_term(int signo) noexcept {
    LOG(LEVEL_NOTICE, "Caught signal %d. Exiting.", signo);
    doexit = 1;
    notify("STOPPING=1");
    pause_alive_us(SHUTDOWN_GRACE_US);
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
    if (roster_is_live()) {
        live_load(path.c_str());
        return;
    }
    const kept_alive_t alive;
    notify_reloading();
    live_forget();
    free_confvals();
    if (load_conf(path.c_str()) < 0) {
        LOG(LEVEL_ERROR, "Unable to open configuration file %s. Exiting...", path.c_str());
        doexit = 1;
        exit(0);
    }
    start_logger();
    heed_load();
    live_serve_all();
    notify(READY);
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
    if (load_as_root(uid, gid) < 0) {
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
