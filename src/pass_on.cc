#include "pass_on.h"

#include <atomic>
#include <system_error>
#include <thread>

#include "follow.h"
#include "logger.h"
#include "rule.h"

struct aside_t {
    std::atomic<bool> is_over = false;
    outcome_t outcome = {};
};

namespace {

constexpr int MAX_ASIDE = 16;
constexpr int64_t SECOND_US = 1'000'000;
constexpr int NOT_EXECUTABLE = 126;  // the shell's exit statuses
constexpr int NOT_FOUND = 127;

std::atomic<int> running_aside = 0;

call_fields_t fields_of(const followed_call_t &call) {
    call_fields_t fields;
    for (size_t i = 0; i < CALL_FIELDS; i++) {
        fields.texts[i] = call.fields[i].c_str();
    }
    fields.texts[static_cast<size_t>(call_field_t::ADDRESS)] = call.address.c_str();
    return fields;
}

outcome_t act(const pager_t *pager, const followed_call_t &call, const rule_t &rule) {
    return perform_action(pager, call.alrm, call.address.c_str(), call.text.c_str(), &rule,
                          fields_of(call), {call.passed_on + 1, call.name.c_str()});
}

// A command may take as long as it likes, and other calls must not wait for it. Null when as many run as
// may; another turn comes.
std::shared_ptr<aside_t> run_aside(const pager_t *pager, const followed_call_t &call,
                                   const rule_t &rule) {
    if (running_aside >= MAX_ASIDE) {
        return nullptr;
    }
    auto aside = std::make_shared<aside_t>();
    running_aside++;
    try {
        std::thread([=] {
            aside->outcome = act(pager, call, rule);
            running_aside--;
            aside->is_over = true;
        }).detach();
    } catch (const std::system_error &) {  // no thread to be had
        running_aside--;
        return nullptr;
    }
    return aside;
}

bool has_run(const outcome_t &outcome) {
    return outcome.was_done && outcome.exit_status != NOT_EXECUTABLE &&
           outcome.exit_status != NOT_FOUND;
}

passing_t run_next(open_call_t *open, const pager_t *pager, const rule_t &rule) {
    if (rule.quote == 0) {
        LOG_AS(LEVEL_ERROR, "follow_calls", "Rule %s needs quote = yes to be an otherwise\n",
               rule.name);
        return {};
    }
    if (!open->aside) {
        open->aside = run_aside(pager, open->call, rule);
    }
    if (!open->aside || !open->aside->is_over) {
        return {.is_over = false};
    }
    const outcome_t outcome = std::exchange(open->aside, nullptr)->outcome;
    return {.rule = has_run(outcome) ? rule.name : "", .outcome = outcome};
}

passing_t call_next(const open_call_t &open, const pager_t *pager, const rule_t &rule,
                    int64_t now_us) {
    const outcome_t outcome = act(pager, open.call, rule);
    if (outcome.was_done) {
        return {.rule = rule.name, .outcome = outcome};
    }
    return {.is_over = now_us - open.decided_us >= rule.give_up * SECOND_US};
}

}  // namespace

passing_t pass_on(open_call_t *open, const pager_t *pager, int64_t now_us) noexcept {
    rule_t rule;
    if (open->otherwise.empty() || open->call.passed_on >= MAX_PASSED_ON) {
        return {};
    }
    if (!find_rule(open->otherwise.c_str(), &rule)) {
        LOG_AS(LEVEL_WARNING, "follow_calls", "otherwise of rule %s finds no rule: %s\n",
               open->call.rule.c_str(), open->otherwise.c_str());
        return {};
    }
    passing_t passing;
    if (rule.action == SCRIPT) {
        passing = run_next(open, pager, rule);
    } else if (rule.action == CALL) {
        passing = call_next(*open, pager, rule, now_us);
    }
    if (passing.is_over && passing.rule.empty() && rule.action != SKIP) {
        open->otherwise = rule.otherwise;
        open->call.passed_on++;
        open->decided_us = now_us;
        passing.is_over = open->otherwise.empty();
    }
    return passing;
}
