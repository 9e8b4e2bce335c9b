#include "answer.h"

#include "espa.h"
#include "proto.h"
#include "service_log.h"

void owed_answer_t::give(verdict_t verdict) noexcept {
    if (is_owed_) {
        const bool accepted = verdict == verdict_t::TAKEN;
        const char byte = accepted ? ACK : NAK;
        LOG_SERVICE(LEVEL_DEBUG, "Packet is done. send %s", accepted ? "ACK" : "NAK");
        if (station_ == nullptr) {
            write_reply(sock_, {&byte, 1});
        } else {
            write_reply(sock_, station_->answer(verdict));
        }
    }
    is_owed_ = false;
}

void owed_answer_t::give_before(const rule_t &rule) noexcept {
    const bool waits = rule.action == CALL || (rule.action == SCRIPT && rule.ack_when_run != 0);
    if (!waits) {
        give(verdict_t::TAKEN);
    }
}

void owed_answer_t::give_for(const rule_t &rule, const outcome_t &outcome) noexcept {
    const bool is_done = rule.action == SCRIPT ? outcome.succeeded : outcome.was_done;
    give(is_done ? verdict_t::TAKEN : verdict_t::CANNOT_TAKE);
}
