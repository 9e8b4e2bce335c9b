#include "message.h"

#include "clock.h"
#include "journal.h"
#include "logger.h"
#include "rule.h"
#include "stats.h"

namespace {

void count_message() {
    my_stats().messages.add();
    my_stats().last_message_ms.store(milliseconds_now(), std::memory_order_relaxed);
}

// What a packet waits for comes first; whatever else its message leads to may take long.
void dispatch(pager_t *pager, int alrm, const char *number, const char *message,
              const call_fields_t &fields, owed_answer_t *answer) {
    count_message();
    rule_t rule;
    if (!choose_rule(pager, message, &rule, fields)) {
        answer->give(verdict_t::TAKEN);
        LOG_FROM(LEVEL_ERROR, "vesperd", "process_message", "empty rules for pager");
        my_stats().unmatched.add();
        journal_write({pager, alrm, number, message, nullptr, {}, answer->received_us(), fields});
        return;
    }
    answer->give_before(rule);
    const outcome_t outcome = perform_action(pager, alrm, number, message, &rule, fields);
    answer->give_for(rule, outcome);
    journal_write({pager, alrm, number, message, &rule, outcome, answer->received_us(), fields});
    raise_if_not_done(pager, outcome);
}

}  // namespace

void process_message(pager_t *pager, int alrm, const char *number, const char *message,
                     owed_answer_t *answer, call_fields_t fields) noexcept {
    owed_answer_t none(-1, false, microseconds_passed());
    const char *address = number != nullptr ? number : "";
    fields.texts[static_cast<int>(call_field_t::ADDRESS)] = address;
    dispatch(pager, alrm, address, message, fields, answer != nullptr ? answer : &none);
}
