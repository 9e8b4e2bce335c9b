#include "open_call.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "files.h"
#include "logger.h"
#include "roster.h"

namespace {

constexpr size_t MAX_CALL_FILE = 1 << 18;

}  // namespace

void read_settings(open_call_t *open) noexcept {
    const unsigned load = table_generation.number();
    if (open->load == load) {
        return;
    }
    read_tables([&] {
        open->pager = nullptr;
        for (pager_t &pager : pagers) {
            if (open->pager == nullptr && !open->call.line.empty() &&
                !roster_is_dismissed(&pager) && open->call.line == text_copy_t(pager.name).text) {
                open->pager = &pager;
            }
        }
        open->has_rule = false;
        for (const rule_t &rule : rules) {
            if (!open->has_rule && open->call.rule == text_copy_t(rule.name).text) {
                open->has_rule = true;
                open->confirms = load_shared(rule.confirm) != 0;
                open->give_up = load_shared(rule.give_up);
                open->otherwise = text_copy_t(rule.otherwise).text;
            }
        }
    });
    open->load = load;
}

bool read_progress(open_call_t *open) noexcept {
    struct stat status {};
    if (lstat(open->path().c_str(), &status) != 0) {
        return false;
    }
    std::string content;
    if (status.st_size != open->seen_size &&
        read_whole(open->path().c_str(), O_NOFOLLOW, MAX_CALL_FILE, &content) == 0) {
        open->seen_size = std::ssize(content);
        open->progress = progress_of(content);
    }
    return true;
}

void rename_link(open_call_t *open, const followed_link_t &link) noexcept {
    open->link = link;
    const std::string name = link.text();
    if (rename(open->path().c_str(), (open->directory + "/" + name).c_str()) == 0) {
        open->linked_as = name;
    } else {
        LOG_AS(LEVEL_WARNING, "follow_calls", "Unable to rename %s to %s: %s\n",
               open->path().c_str(), name.c_str(), strerror(errno));
    }
}

void end_call(open_call_t *open) noexcept {
    unlink(open->path().c_str());
    open->is_gone = true;
}
