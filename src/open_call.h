// A call on its way to its outcome, and its link in the directory for those.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "action.h"
#include "followed.h"
#include "outcome.h"
#include "report.h"

struct aside_t;  // a command that runs, see pass_on.cc

struct open_call_t {
    followed_call_t call = {};
    std::string directory = {};  // where its link is
    followed_link_t link = {};
    std::string linked_as = {};  // the name that it has there
    int64_t placed_us = 0;       // by the monotonic clock

    off_t seen_size = -1;
    progress_t progress = {};
    int64_t decided_us = 0;
    bool may_be_told = false;  // decided by an earlier process
    std::shared_ptr<aside_t> aside = {};
    report_id_t report = 0;
    bool is_gone = false;

    // Its line and what its rule says, as of a load of the configuration.
    unsigned load = ~0U;
    pager_t *pager = nullptr;  // null: the line is no more
    bool has_rule = false;
    bool confirms = false;
    int give_up = 0;
    std::string otherwise = {};

    std::string path() const { return directory + "/" + linked_as; }
};

// Brings up to date what depends on the load. The rule is found by its whole name, other than in rule lists.
void read_settings(open_call_t *open) noexcept;

// Lets the call file show what it says by now. Returns whether the link is there.
bool read_progress(open_call_t *open) noexcept;

// Gives the link the name of its state. One that cannot be renamed keeps its name, with a WARNING: the
// call goes on, and a process that is started later may do again what this one has done.
void rename_link(open_call_t *open, const followed_link_t &link) noexcept;

// Removes the link: everybody knows what has become of the call.
void end_call(open_call_t *open) noexcept;
