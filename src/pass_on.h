// Who is next when nobody has answered.
#pragma once

#include "open_call.h"

// What has become of the message of a call that nobody answered.
struct passing_t {
    bool is_over = true;
    std::string rule = {};  // that has it now; empty: nobody
    outcome_t outcome = {};
};

// Does the action of the next rule of the chain, in as many turns as it has to be waited for. A call file
// that cannot be written is tried again for the time of its rule, then, as for a command that cannot be
// run, that rule's own `otherwise` is next. A command runs in a thread of its own, a few at a time, and
// only where its rule has `quote`: the PBX, and who may write what it may, could have changed the text.
passing_t pass_on(open_call_t *open, const pager_t *pager, int64_t now_us) noexcept;
