#include "answer.h"

#include "espa.h"
#include "proto.h"
#include "service_log.h"

void owed_answer_t::give(bool accepted) noexcept {
    if (is_owed_) {
        const char byte = accepted ? ACK : NAK;
        LOG_SERVICE(LEVEL_DEBUG, "Packet is done. send %s", accepted ? "ACK" : "NAK");
        write_reply(sock_, {&byte, 1});
    }
    is_owed_ = false;
}

void owed_answer_t::give_before(const rule_t &rule) noexcept {
    const bool waits = rule.action == CALL || (rule.action == SCRIPT && rule.ack_when_run != 0);
    if (!waits) {
        give(true);
    }
}

void owed_answer_t::give_for(const rule_t &rule, const outcome_t &outcome) noexcept {
    give(rule.action == SCRIPT ? outcome.succeeded : outcome.was_done);
}
