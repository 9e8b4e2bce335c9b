// What a chosen rule does, and the service alarms that link events raise.
#pragma once

#include "espa.h"
#include "tables.h"

// Expands a template into `line`.
//   line, size  the caller's buffer and its size in bytes; filled with zeros first, and what does
//               not fit into size - 1 bytes is cut
//   fmt         template: %number%, %alarm%, %message%, and "$" followed by the name of a value;
//               everything else, "%espa_if%" included, is copied
//   alrm        alarm code, named as alarm_name() does
//   number, msg call address and message, each may be null
//   pager       not consulted
//   values      the rule's MAX_VALUES values, used up to the first one without a name
// Returns the length of the text in `line`.
//
// At a "$" every value is tried once in table order, so values that stand next to each other in
// that order are all replaced; the byte after the last one is copied as it is and starts no
// placeholder.
int format_string(char *line, int size, const char *fmt, int alrm, const char *number,
                  const char *msg, pager_t *pager, value_t *values) noexcept;

// Runs a rule's action. CALL writes a call file (the Asterisk call-file format) named
// call_EXTENSION_SECONDS into the pager's spool directory, directly under that name; a file that
// cannot be written raises general_error. SCRIPT runs a command line through the shell and waits
// for it; its status is not looked at. SKIP does nothing.
//   alrm, number, message  for the templates; number and message may be null
void call_action(pager_t *pager, int alrm, const char *number, const char *message,
                 rule_t *rule) noexcept;

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
