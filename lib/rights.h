// The rights of another account, for a process with root's rights that opens what that account can
// have put in its way.
#pragma once

#include <sys/types.h>

#include <vector>

// For as long as it lives, the calling thread opens files with the user and group id of an account, and
// without supplementary groups where it can give them up. For a process with one thread.
class rights_t {
  public:
    rights_t(uid_t uid, gid_t gid) noexcept;
    ~rights_t();
    rights_t(const rights_t &) = delete;
    rights_t &operator=(const rights_t &) = delete;

    // Whether the ids are the account's; when not, nothing should be opened.
    bool are_taken() const noexcept { return are_taken_; }

  private:
    uid_t had_uid_;
    gid_t had_gid_;
    std::vector<gid_t> had_groups_;
    bool are_taken_;
};
