#include "rights.h"

#include <grp.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Neither call tells whether it was refused; an id that none can have changes nothing.
constexpr unsigned ASK = static_cast<unsigned>(-1);

std::vector<gid_t> current_groups() {
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    return groups;
}

}  // namespace

rights_t::rights_t(uid_t uid, gid_t gid) noexcept : had_groups_(current_groups()) {
    if (setgroups(0, nullptr) != 0) {
        had_groups_.clear();  // they stay as they are: those that a service unit has chosen
    }
    had_gid_ = static_cast<gid_t>(setfsgid(gid));
    had_uid_ = static_cast<uid_t>(setfsuid(uid));
    are_taken_ =
        static_cast<gid_t>(setfsgid(ASK)) == gid && static_cast<uid_t>(setfsuid(ASK)) == uid;
}

rights_t::~rights_t() {
    setfsuid(had_uid_);
    setfsgid(had_gid_);
    const bool are_back =
        had_groups_.empty() || setgroups(had_groups_.size(), had_groups_.data()) == 0;
    static_cast<void>(are_back);  // it has fewer rights then
}
