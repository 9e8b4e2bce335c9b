// The records, codes and global tables that the modules share.
//
// The tables are plain fixed-size records without a lock. A reload rewrites them while the service
// threads read them, so a thread reads a field of a table through lib/shared.h, and fields that have
// to belong together within read_tables(). Every text field ends in a zero byte at all times, and a
// compiled pattern lives as long as the process.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string_view>

#include "files.h"
#include "re.h"
#include "shared.h"

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

// The fields of a call record beside its message, in the order of a rule's conditions.
enum class call_field_t : int { ADDRESS, PRIORITY, TYPE, BEEP, TRANSMISSIONS };
constexpr int CALL_FIELDS = 5;

// Their texts, which are empty where a record has none of them, as for an ASCII line or an alarm.
struct call_fields_t {
    const char *texts[CALL_FIELDS] = {"", "", "", "", ""};

    const char *operator[](call_field_t field) const noexcept {
        return texts[static_cast<int>(field)];
    }
};

// What a field has to match for a rule to be chosen.
struct condition_t {
    int is_given;
    pattern_t pattern;

    bool operator==(const condition_t &) const = default;
};

// A named extra pattern of a rule; "$" and the name stand for what it extracts from the message.
struct value_t {
    char name[256];  // lower case
    pattern_t pattern;

    bool operator==(const value_t &) const = default;
};

constexpr int NOT_GIVEN = -1;  // of a number that has no default

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
    int quote;         // replacements cannot change the meaning of the text around them
    int ack_when_run;  // a command's exit status answers the packet, with the pager's ack_when_done
    condition_t conditions[CALL_FIELDS];  // by call_field_t
    int record_fields;                    // templates have placeholders for the fields too
    int wait_time;                        // seconds that a call file lets the telephone ring
    int max_retries;                      // further attempts of its call
    int retry_time;                       // seconds between them; NOT_GIVEN: not in the call file
    int confirm;                          // answered is what was confirmed at the telephone
    int give_up;                          // seconds until a call without an outcome is lost
    char otherwise[256];                  // the rule that takes what nobody answered; empty: none

    bool operator==(const rule_t &) const = default;
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
    int recover_link;               // an ESPA line that fails is connected again as ESPA
    int ack_when_done;              // a call is acknowledged when its call file is complete
    char staging_dir[1024];         // where call files are written; empty: in `spool_dir`
    int configured_protocol;        // what `protocol` was loaded as
    char charset[64];               // of messages and call addresses; empty: bytes as they are
    char
        espa_address;  // the station that an ESPA line is, a digit; zero: none, whoever sends is heard
    char espa_control;         // and its control station, a digit
    int listen;                // `port` is this machine's, and `host` connects to it
    in_addr_t listen_address;  // on which of its addresses; 0: all
    in_addr_t peers[8];        // the addresses of `host`; 0: no further one
    int follow_calls;          // call files are watched until somebody has answered
    char status_called[2];     // what the control station is told of a call; empty: nothing
    char status_answered[2];
    char status_unanswered[2];
    unsigned load;  // another number after every load that gives it another connection
};

extern pager_t pagers[MAX_PAGERS];
extern int num_pagers;
extern rule_t rules[MAX_RULES];  // no count: a slot with an empty name is unused

// The rewritings of the tables.
extern generation_t table_generation;

// Tells the first time since a load of the configuration from later ones: for what would be logged with
// every message.
class once_per_load_t {
  public:
    bool is_first() noexcept {
        const unsigned load = table_generation.number();
        return last_.exchange(load) != load;
    }

  private:
    std::atomic<unsigned> last_ = ~0U;
};

// Calls `read`, and again if the tables were rewritten meanwhile: what it copied last belongs
// together.
template <typename reader_t>
void read_tables(reader_t read) noexcept {
    table_generation.read(read);
}

// A copy of a text field of a table, untorn by a rewriting.
template <size_t N>
text_copy_t<N> table_text(const char (&field)[N]) noexcept {
    text_copy_t<N> copy;
    read_tables([&] { copy = text_copy_t<N>(field); });
    return copy;
}

// Forms the path of a file in a pager's spool directory.
void spool_path(char (&path)[PATH_SIZE], const pager_t *pager, std::string_view name) noexcept;
