#include "trial.h"

#include <algorithm>

#include "action.h"
#include "espa.h"
#include "findings.h"
#include "follow.h"
#include "keys.h"
#include "printable.h"
#include "rule.h"
#include "service.h"
#include "summary.h"

namespace {

constexpr int GROUPS_SIZE = 256;

std::string groups_of(const pattern_t &pattern, const std::string &message) {
    char groups[GROUPS_SIZE] = "";
    match_regex(&pattern, message.c_str(), groups, sizeof groups);
    return groups;
}

std::vector<tried_rule_t> try_list(const pager_t &pager, const std::string &message,
                                   const call_fields_t &fields) {
    std::vector<tried_rule_t> tried;
    std::string list(pager.rules);
    visit_rule_list(list.data(), [&](const char *name, const rule_t *rule) {
        tried_rule_t &one = tried.emplace_back(tried_rule_t{name, "", 0, "", ""});
        if (rule != nullptr) {
            one.name = rule->name;
            one.index = match_regex(&rule->pattern, message.c_str(), nullptr, 0);
            one.groups = groups_of(rule->pattern, message);
            const int unmet = unmet_condition(*rule, fields);
            one.unmet = unmet >= 0 ? CONDITION_KEYS[static_cast<size_t>(unmet)] : "";
        }
    });
    return tried;
}

std::string why_selected(const trial_t &trial) {
    int best = 0;
    int equals = 0;
    for (const tried_rule_t &tried : trial.tried) {
        if (!tried.unmet.empty()) {
            continue;
        }
        equals = tried.index > best ? 0 : equals;
        equals += tried.index >= best && tried.index > 0 ? 1 : 0;
        best = std::max(best, tried.index);
    }
    if (best > 0) {
        return text_of(equals > 1 ? "the first of those with the longest last match, "
                                  : "its last match is the longest, ",
                       best, best == 1 ? " character" : " characters");
    }
    const char *reason = trial.tried.empty() ? "the list names no rule" : "no listed rule matches";
    return text_of(
        reason, trial.selected.empty() ? ", and there is no default rule" : ": the default rule");
}

// The fields as they come from a record: cut to the room that it has for them.
record_texts_t cut_texts(const record_texts_t &record, bool is_ascii) {
    record_texts_t texts;
    for (size_t i = 0; i < texts.size() && !is_ascii; i++) {
        const bool is_address = i == static_cast<size_t>(call_field_t::ADDRESS);
        texts[i] = record[i].substr(0, (is_address ? sizeof espa_record_t::call_address
                                                   : sizeof espa_record_t::priority_text) -
                                           1);
    }
    return texts;
}

call_fields_t fields_of(const record_texts_t &texts) {
    call_fields_t fields;
    for (size_t i = 0; i < texts.size(); i++) {
        fields.texts[i] = texts[i].c_str();
    }
    return fields;
}

// As far as the daemon takes it.
std::vector<rule_summary_t> chain_of(const rule_t &first) {
    std::vector<rule_summary_t> chain;
    const rule_t *rule = get_rule_by_name(first.otherwise);
    while (rule != nullptr && std::ssize(chain) < MAX_PASSED_ON) {
        chain.push_back({rule->name, action_name(rule->action)});
        rule = rule->action == CALL ? get_rule_by_name(rule->otherwise) : nullptr;
    }
    return chain;
}

void expand(const pager_t &pager, const rule_t &rule, const placeholders_t &with, trial_t *trial) {
    trial->action = action_name(rule.action);
    for (const value_t &value : rule.values) {
        if (value.name[0] == '\0') {
            break;
        }
        trial->values.emplace_back(value.name, groups_of(value.pattern, with.message));
    }
    if (rule.action == CALL) {
        call_text_t call;
        trial->is_done = compose_call(&call, &rule, with);
        trial->file =
            text_of(pager.spool_dir, "/", call.name, pager.staging_dir[0] != '\0' ? "_0" : "");
        trial->text = call.content;
        trial->is_followed = pager.follow_calls != 0 && can_be_followed(call.name);
        if (trial->is_followed) {
            trial->text += text_of("Archive: yes\r\nSetVar: VESPERD_CALL=", call.name, "_0\r\n");
            trial->chain = chain_of(rule);
        }
    } else if (rule.action == SCRIPT) {
        command_text_t command;
        trial->is_done = compose_command(&command, &rule, with);
        trial->text = command.line;
    }
}

std::string escaped(std::string_view text) {
    std::string shown;
    escape_controls(text, [&](std::string_view piece) { shown += piece; });
    return shown;
}

// The lines of a call file.
std::string with_line_ends(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const bool is_returned = line.ends_with('\r');
        shown += text_of("    ", escaped(line.substr(0, line.size() - (is_returned ? 1 : 0))),
                         is_returned ? "\\r" : "", "\n");
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return shown;
}

std::string chain_text(const trial_t &trial) {
    if (!trial.is_followed) {
        return "";
    }
    std::string text = "  When nobody answers: ";
    for (const rule_summary_t &rule : trial.chain) {
        text += text_of(printable(rule.name), " (", rule.action, "), then ");
    }
    const bool ends_in_action = !trial.chain.empty() && trial.chain.back().action == "script";
    return text + (ends_in_action ? "nothing\n" : "an ERROR in the log\n");
}

std::string action_text(const trial_t &trial) {
    if (trial.action == "call") {
        return text_of(
            trial.is_done ? "  Call file " : "  Call file outside of spool_dir, not written, ",
            printable(trial.file), ":\n", with_line_ends(trial.text), chain_text(trial));
    }
    if (trial.action == "script") {
        return text_of(
            trial.is_done ? "  Command:\n    " : "  Command, too long and not run:\n    ",
            escaped(trial.text), "\n");
    }
    return trial.selected.empty() ? "  The message is dropped\n" : "  Nothing is done\n";
}

}  // namespace

trial_t try_message(const pager_t &pager, const std::string &received,
                    const record_texts_t &record) {
    const bool is_ascii = pager.protocol == PROTOCOL_ASCII;
    // A character of a character set can be several in UTF-8: how much fits cannot be told then.
    const bool is_cut = !is_ascii && pager.charset[0] == '\0';
    const std::string message =
        is_cut ? received.substr(0, sizeof espa_record_t::display_message - 1) : received;
    const record_texts_t texts = cut_texts(record, is_ascii);
    const call_fields_t fields = fields_of(texts);

    trial_t trial{pager.name, try_list(pager, message, fields), "", "", "", {}, "", "", true};
    if (is_ascii && message.size() < MIN_ASCII_LENGTH) {
        trial.why =
            text_of("an ASCII line takes messages of ", MIN_ASCII_LENGTH, " characters and more");
        return trial;
    }
    rule_t rule;
    const bool found = choose_rule(&pager, message.c_str(), &rule, fields);
    trial.selected = found ? rule.name : "";
    trial.why = why_selected(trial);
    if (found) {
        placeholders_t with{ALARM_MESSAGE, fields[call_field_t::ADDRESS], message.c_str(),
                            rule.values};
        with.fields = rule.record_fields != 0 ? &fields : nullptr;
        with.line = pager.name;
        expand(pager, rule, with, &trial);
    }
    return trial;
}

std::string trial_text(const trial_t &trial) {
    std::string text = text_of("Line ", printable(trial.line), ":\n");
    for (const tried_rule_t &tried : trial.tried) {
        text += text_of("  ", printable(tried.listed));
        if (tried.name.empty()) {
            text += " finds no rule\n";
            continue;
        }
        text += tried.name != tried.listed ? text_of(" (", printable(tried.name), ")") : "";
        text += text_of(": match index ", tried.index);
        text += tried.groups.empty() ? "" : text_of(", groups '", printable(tried.groups), "'");
        text += tried.unmet.empty() ? "\n" : text_of(", ", tried.unmet, " does not match\n");
    }
    text += text_of("  Selected: ", trial.selected.empty() ? "none" : printable(trial.selected),
                    ", ", trial.why, "\n");
    for (const auto &[name, value] : trial.values) {
        text += text_of("  $", printable(name), " = '", printable(value), "'\n");
    }
    return text + action_text(trial);
}
