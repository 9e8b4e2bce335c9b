// The way of a message: from its text to what its rule does.
#pragma once

#include "answer.h"
#include "tables.h"

// Chooses the rule for a message of `pager`, runs its action and notes both in the journal. An action
// that cannot be done raises general_error, and a message without a rule is logged.
//   alrm     alarm code, ALARM_MESSAGE for messages
//   number   call address, or null
//   message  message text
//   answer   to its packet, given as soon as it can be told; null: nobody waits for one
//   fields   the other fields of its record; their address is `number`
void process_message(pager_t *pager, int alrm, const char *number, const char *message,
                     owed_answer_t *answer = nullptr, call_fields_t fields = {}) noexcept;
