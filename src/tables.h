// The records, codes and global tables that the modules share, and the daemon core's own
// operations.
//
// The tables are plain fixed-size records without a lock. A reload rewrites them while the service
// threads read them; a thread sees a record's old or new contents, every text field ends in a zero
// byte at all times, and a compiled pattern lives as long as the process.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "re.h"

constexpr int MAX_PAGERS = 16;
constexpr int MAX_RULES = 256;
constexpr int MAX_VALUES = 16;

// Rule actions.
enum : int { SKIP = 0, CALL = 1, SCRIPT = 2 };

// Pager protocols.
enum : int { PROTOCOL_ESPA = 0, PROTOCOL_ASCII = 1 };

// Alarm codes. How a code leads to a name and to a slot is alarm.h's business.
enum : int {
    ALARM_NO_RESPONSE = 1,
    ALARM_CONNECTION_LOST = 2,
    ALARM_CONNECTED = 4,
    ALARM_TRANSMISSION_ERROR = 8,
    ALARM_MESSAGE = 16,
    ALARM_STARTED = 32,
    ALARM_TERMINATED = 64,
    ALARM_GENERAL_ERROR = 128,
};

// Rate-limit state of one alarm on one pager.
struct alarm_times_t {
    int index;  // times that the alarm has fired, 0 = never
    int last;   // seconds since the epoch of the last firing
};

// A named extra pattern of a rule; "$" and the name stand for what it extracts from the message.
struct value_t {
    char name[256];  // lower case
    pattern_t pattern;
};

// One rule.
struct rule_t {
    char name[256];  // the section name, lower case; empty: unused slot
    pattern_t pattern;
    int action;      // SKIP, CALL or SCRIPT
    int alarm_type;  // always 0
    value_t values[MAX_VALUES];
    char callscript[1024];  // command line template, SCRIPT only
    char callerid[1024];    // call file templates
    char context[256];
    char extension[256];
    char channel[256];
};

// One pager interface.
struct pager_t {
    char name[64];  // the section name, lower case
    char host[256];
    int16_t port;
    char callscript[1024];  // stored, consulted by nothing
    char spool_dir[1024];
    char default_rule[256];
    char rules[1024];      // rule names separated by ':', ',' or ';'
    sockaddr_in sin;       // address and port that host and port resolved to
    pthread_mutex_t lock;  // initialised, never locked
    pthread_t bg;          // the service thread
    int socket;            // the connection, -1 when there is none
    int no_check_bcc;
    alarm_times_t alarms[8];  // by alarm code
    int polls;                // link requests outstanding; also the level of alarm code 8
    int last_packet;          // seconds; also the last firing of alarm code 8
    int protocol;
    int espa_poll;
    int read_timeout;  // seconds, ASCII lines only; 0 or less: none
    int send_service_actions;
    alarm_times_t event_alarms[4];  // alarm codes 16, 32, 64 and 128, which lie beyond `alarms`
};

// Configuration (conf.cc).
extern pager_t pagers[MAX_PAGERS];
extern int num_pagers;
extern rule_t rules[MAX_RULES];  // no count: a slot with an empty name is unused
extern char *logfile;            // heap text
extern uint8_t logtype;          // 1 = syslog
extern uint16_t loglevel;

// Counts the beginnings and ends of rewriting the tables: odd while one is under way (conf.cc).
extern std::atomic<unsigned> table_generation;

// Calls `read`, and again if the tables were rewritten meanwhile: what it copied last belongs
// together.
template <typename reader_t>
void read_tables(reader_t read) noexcept {
    for (;;) {
        const unsigned before = table_generation.load(std::memory_order_acquire);
        if (before % 2 == 0) {
            read();
            std::atomic_thread_fence(std::memory_order_acquire);
            if (table_generation.load(std::memory_order_relaxed) == before) {
                return;
            }
        }
        std::this_thread::yield();
    }
}

// Shutdown (vesperd.cc): set once, polled by every service thread.
extern std::atomic<int> doexit;

// Chooses the rule for a message of `pager` and runs its action.
//   alrm     alarm code, ALARM_MESSAGE for messages
//   number   call address, or null
//   message  message text
void process_message(pager_t *pager, int alrm, const char *number, const char *message) noexcept;

// Handler of the terminating signals: lets the service threads finish for ten seconds, removes the
// pidfile and exits with status 0.
[[noreturn]] void sig_term(int signo) noexcept;

// Handler of SIGHUP: loads the configuration file again and starts the logger anew. When the file
// cannot be opened, exits with status 0 at once and leaves the pidfile behind.
void sig_hup(int signo) noexcept;

// Start routine of a service thread; `pager` is the thread's pager_t. Connects, reads, dispatches
// and reconnects until `doexit` is set. Returns null.
void *service_proc(void *pager) noexcept;

// The program: options, account, configuration, test mode or service. Every way out is exit(0).
[[noreturn]] void vesperd_run(int argc, char **argv) noexcept;
