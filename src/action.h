// What a chosen rule does, and the service alarms that link events raise.
#pragma once

#include "espa.h"
#include "tables.h"
#include "template.h"

// Runs a rule's action. CALL writes a call file (the Asterisk call-file format) named
// call_EXTENSION_SECONDS into the pager's spool directory, directly under that name; a file that
// cannot be written raises general_error. SCRIPT runs a command line through the shell and waits
// for it; its status is not looked at. SKIP does nothing.
//   alrm, number, message  for the templates; number and message may be null
void call_action(pager_t *pager, int alrm, const char *number, const char *message,
                 rule_t *rule) noexcept;

// What an action came to.
struct outcome_t {
    bool succeeded = true;     // the call file is complete, the command ended with 0, or SKIP
    bool was_done = true;      // the call file is complete, the command was run, or SKIP
    char file[320] = "";       // the name of the call file, if there is one
    bool is_followed = false;  // the call is
    int exit_status = -1;      // of a command, or 128 and the signal that ended it; -1: not known
};

// What a message went through before: empty for the first rule that takes it.
struct chain_t {
    int passed_on = 0;       // how often
    const char *after = "";  // the call that nobody answered
};

// call_action() without raising general_error. With the pager's staging directory a call file is
// written there first and gets a name of its own, call_EXTENSION_SECONDS_N, and with its `follow_calls`
// the call is followed. With the rule's `quote` a
// command line that does not fit is not run.
outcome_t perform_action(const pager_t *pager, int alrm, const char *number, const char *message,
                         const rule_t *rule, const call_fields_t &fields = {},
                         const chain_t &chain = {}) noexcept;

// The call file that a CALL rule comes to now: its name, which staging makes longer, and its bytes.
// Returns whether it would be written: with the rule's `quote` one whose name leads out of the spool
// directory is not.
struct call_text_t {
    char name[288];
    char content[1280];
};
bool compose_call(call_text_t *call, const rule_t *rule, const placeholders_t &with) noexcept;

// The command line that a SCRIPT rule comes to, cut where it is too long. Returns whether it would be
// run: with the rule's `quote` a cut one is not.
struct command_text_t {
    char line[1024];
};
bool compose_command(command_text_t *command, const rule_t *rule,
                     const placeholders_t &with) noexcept;

// Raises general_error for an action that could not be done.
void raise_if_not_done(pager_t *pager, const outcome_t &outcome) noexcept;

// Raises a service alarm: unless alarm_time() keeps it quiet or the pager has service actions
// switched off, runs the rule that is chosen for an empty message. Without such a rule nothing
// runs.
void call_service_action(pager_t *pager, int alrm) noexcept;

// The same with an optional packet, whose record supplies call address and message.
void call_script(pager_t *pager, int alrm, const espa_p *p) noexcept;

// Reports call statuses that an outside agent left in the pager's spool directory. For every file
// "status_NAME" with a companion "call_NAME" (first line call address, second line message), sends
// an ESPA 4.4.4 status record (header '2', data identifier '7') with the first two bytes of the
// status file over the pager's connection; then removes the status file, which goes without a
// companion too. A status line shorter than two bytes is padded with zero bytes. A spool directory
// that cannot be read raises general_error. For the pager's own thread.
void process_status_feedbacks(pager_t *pager) noexcept;
