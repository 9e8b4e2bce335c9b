// What a message would come to on a line. Nothing is executed.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "summary.h"
#include "tables.h"

// A rule of the line's list, tried against the message.
struct tried_rule_t {
    std::string listed;  // the name in the list
    std::string name;    // of the rule that it finds; empty: none
    int index;           // the length of the last match, 0: none
    std::string groups;  // what groups 1 to 9 hold, of all matches, one behind the other
    std::string unmet;   // the key of the first condition that the record does not meet
};

struct trial_t {
    std::string line;
    std::vector<tried_rule_t> tried;
    std::string selected;  // empty: none
    std::string why;
    std::string action;                                       // of the selected rule
    std::vector<std::pair<std::string, std::string>> values;  // what its values come to
    std::string file;                                         // "call": the call file's path
    std::string text;  // "call": its content; "script": the command
    bool is_done;      // false: a quoted command that is too long, a quoted name that leads out
    bool is_followed = false;                // the call is, until somebody has answered
    std::vector<rule_summary_t> chain = {};  // rules that take it next as long as nobody answers
};

// What a record carries beside its message, by call_field_t.
using record_texts_t = std::array<std::string, CALL_FIELDS>;

// Tries a message with the other fields of its record, which an ASCII line has not. On a line with a charset
// message and address are what they were converted to, UTF-8. What an ESPA record has no room for is cut.
trial_t try_message(const pager_t &pager, const std::string &received,
                    const record_texts_t &record);

// In lines of text: control characters of the call file and the command as "\xNN", the carriage
// return at the end of a line as "\r", and everything else printable.
std::string trial_text(const trial_t &trial);
