#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <optional>

#include "checks.h"
#include "conf.h"
#include "fd.h"
#include "files.h"
#include "instance.h"

namespace {

constexpr const char *ACCOUNT = "ovo";

// The groups of the daemon with this process id, from its status file; none when it is no daemon.
std::vector<gid_t> groups_of(int pid) {
    char path[PATH_SIZE];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    const unique_file_t file(fopen(path, "re"));
    std::vector<gid_t> groups;
    char line[PATH_SIZE];
    while (file && fgets(line, sizeof line, file.get()) != nullptr) {
        const std::string_view field(line);
        if (field.starts_with("Name:") && !field.starts_with("Name:\tvesperd")) {
            return {};
        }
        if (!field.starts_with("Gid:") && !field.starts_with("Groups:")) {
            continue;
        }
        unsigned group = 0;
        int length = 0;
        for (const char *rest = strchr(line, ':') + 1; sscanf(rest, "%u%n", &group, &length) == 1;
             rest += length) {
            groups.push_back(group);
        }
    }
    return groups;
}

int running_daemon() {
    const std::string pidfile = "/run/" + process_name() + ".pid";
    const unique_file_t file(fopen(pidfile.c_str(), "re"));
    int pid = 0;
    return file && fscanf(file.get(), "%d", &pid) == 1 ? pid : 0;
}

// The daemon keeps the groups that it was started with, which the unit and its drop-ins choose; if it
// does not run, those that the account has are the best guess.
std::vector<gid_t> groups_of_daemon(const passwd &account) {
    std::vector<gid_t> groups = groups_of(running_daemon());
    if (groups.empty()) {
        int count = 64;
        groups.resize(static_cast<size_t>(count));
        getgrouplist(ACCOUNT, account.pw_gid, groups.data(), &count);
        groups.resize(static_cast<size_t>(std::clamp(count, 0, 64)));
    }
    return groups;
}

// While it lives, the process has the rights of the daemon's account, as far as it can take them.
class as_account_t {
  public:
    as_account_t() {
        const passwd *account = geteuid() == 0 ? getpwnam(ACCOUNT) : nullptr;
        if (account == nullptr) {
            return;
        }
        const std::vector<gid_t> wanted = groups_of_daemon(*account);
        had_groups_.resize(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
        getgroups(static_cast<int>(had_groups_.size()), had_groups_.data());
        had_gid_ = getegid();
        is_begun_ = true;
        is_taken_ = setgroups(wanted.size(), wanted.data()) == 0 &&
                    setegid(wanted.empty() ? account->pw_gid : wanted[0]) == 0 &&
                    seteuid(account->pw_uid) == 0;
    }
    as_account_t(const as_account_t &) = delete;
    as_account_t &operator=(const as_account_t &) = delete;
    ~as_account_t() {
        const bool is_back = !is_begun_ || (seteuid(0) == 0 && setegid(had_gid_) == 0 &&
                                            setgroups(had_groups_.size(), had_groups_.data()) == 0);
        static_cast<void>(is_back);  // nothing is written with either rights
    }

    bool is_taken() const { return is_taken_; }

  private:
    bool is_begun_ = false;
    bool is_taken_ = false;
    gid_t had_gid_ = 0;
    std::vector<gid_t> had_groups_;
};

// 0, or why the account cannot do this with the path.
int access_fault(const std::string &path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

int directory_fault(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return errno;
    }
    return S_ISDIR(status.st_mode) ? access_fault(path, R_OK | W_OK | X_OK) : ENOTDIR;
}

bool is_below_one_of(std::initializer_list<const char *> directories, const std::string &path) {
    return std::any_of(directories.begin(), directories.end(), [&](const std::string &directory) {
        return path == directory || path.starts_with(directory + "/");
    });
}

// Where the service unit lets the daemon write.
bool is_open_in_unit(const std::string &path) {
    return is_below_one_of({"/run/vesperd", "/var/run/vesperd", "/var/log", "/var/spool", "/tmp",
                            "/var/tmp", "/dev"},
                           path) &&
           !is_below_one_of({"/var/log/journal", "/var/log/audit", "/var/spool/cron",
                             "/var/spool/anacron", "/var/spool/at", "/var/spool/incron"},
                            path);
}

void note_unit(int at, const char *key, const std::string &path, findings_t *findings) {
    if (!is_open_in_unit(path)) {
        findings->note(at, "unit", key, ": ", path,
                       " has to be listed in a drop-in of the service unit (ReadWritePaths=)");
    }
}

// What an instance has by default its unit makes, when it is started for the first time.
bool is_made_later(const file_section_t &section, const char *key, const std::string &path) {
    return !instance().empty() && section.find(key) == nullptr &&
           access_fault(path, F_OK) == ENOENT;
}

bool check_directory(const file_section_t &section, const char *key, const std::string &path,
                     findings_t *findings) {
    const int fault = directory_fault(path);
    if (is_made_later(section, key, path)) {
        return false;
    }
    if (fault == 0) {
        note_unit(section.line_of(key), key, path, findings);
        return true;
    }
    findings->error(section.line_of(key), "directory", key, ": the account ", ACCOUNT,
                    " cannot use the directory ", path, ": ", strerror(fault));
    return false;
}

// Staged files are renamed into the spool directory.
void check_staging(const file_section_t &section, const std::string &staging,
                   const std::string &spool, findings_t *findings) {
    struct stat of_staging {};
    struct stat of_spool {};
    if (stat(staging.c_str(), &of_staging) != 0 || stat(spool.c_str(), &of_spool) != 0) {
        return;
    }
    const int at = section.line_of("staging_dir");
    const bool follows = section.number(*find_key(section_kind_t::PAGER, "follow_calls")) != 0;
    if (of_staging.st_dev != of_spool.st_dev && follows) {
        findings->error(section.line_of("follow_calls"), "follow",
                        "staging_dir is not on the file system of spool_dir: the calls of [",
                        section.name, "] are not followed");
    } else if (of_staging.st_dev != of_spool.st_dev) {
        findings->warn(at, "staging",
                       "staging_dir is not on the file system of spool_dir: call "
                       "files are written directly");
    } else if (of_staging.st_ino == of_spool.st_ino) {
        findings->warn(at, "staging",
                       "staging_dir is spool_dir itself: the PBX sees call files "
                       "before they are complete");
    }
}

void check_line(const file_section_t &section, findings_t *findings) {
    const std::string spool = from_root(section.text("spool_dir"));
    const std::string staging = section.text("staging_dir");
    const bool has_spool = check_directory(section, "spool_dir", spool, findings);
    if (!staging.empty() && check_directory(section, "staging_dir", from_root(staging), findings) &&
        has_spool) {
        check_staging(section, from_root(staging), spool, findings);
    }
}

// Whether everybody may go to a file's directory.
bool is_reached_by_others(const std::string &path) {
    struct stat status {};
    for (size_t end = path.rfind('/'); end != std::string::npos && end > 0;
         end = path.rfind('/', end - 1)) {
        if (stat(path.substr(0, end).c_str(), &status) == 0 && (status.st_mode & S_IXOTH) == 0) {
            return false;
        }
    }
    return true;
}

// Everybody's rights to a file that holds messages. The daemon makes a missing log for everybody.
void check_others(int at, const char *key, const std::string &path, const struct stat *status,
                  findings_t *findings) {
    constexpr const char *KIND = "open-to-others";
    if (!is_reached_by_others(path)) {
        return;
    }
    if (status == nullptr && key == std::string_view("log_file")) {
        findings->warn(at, KIND, key, ": there is no ", path,
                       ", and the daemon makes it for everybody to read and write: make one with "
                       "mode 640 that is the account's");
    } else if (status != nullptr && (status->st_mode & (S_IROTH | S_IWOTH)) != 0) {
        const bool is_written = (status->st_mode & S_IWOTH) != 0;
        findings->warn(at, KIND, key, ": everybody can ", is_written ? "write" : "read", " ", path,
                       ", which holds messages: chmod o= ", path);
    }
}

// A file that is opened for every line written to it.
void check_log(const file_section_t &section, const char *key, const std::string &path,
               findings_t *findings) {
    const int at = section.line_of(key);
    if (is_made_later(section, key, path)) {
        return;
    }
    struct stat status {};
    const bool exists = stat(path.c_str(), &status) == 0;
    const int fault =
        exists ? access_fault(path, R_OK | W_OK) : access_fault(directory_of(path), W_OK | X_OK);
    if (fault == 0 || S_ISCHR(status.st_mode)) {
        note_unit(at, key, path, findings);
        if (!exists || S_ISREG(status.st_mode)) {
            check_others(at, key, path, exists ? &status : nullptr, findings);
        }
    } else if (exists) {
        findings->error(at, "directory", key, ": the account ", ACCOUNT, " cannot write ", path,
                        ": ", strerror(fault));
    } else {
        findings->error(at, "directory", key, ": there is no ", path, ", and the account ", ACCOUNT,
                        " cannot make it in ", directory_of(path), ": ", strerror(fault));
    }
}

void check_logger(const file_section_t &logger, findings_t *findings) {
    if (logtype != 1) {
        check_log(logger, "log_file", from_root(logfile), findings);
    }
    const std::string journal = logger.text("journal_file");
    if (!journal.empty()) {
        check_log(logger, "journal_file", from_root(journal), findings);
    }
    const std::string status = logger.text("status_file");
    if (!status.empty()) {
        check_directory(logger, "status_file", directory_of(from_root(status)), findings);
    }
}

}  // namespace

std::string why_files_are_not_judged() {
    const passwd *account = getpwnam(ACCOUNT);
    if (account == nullptr) {
        return text_of("there is no account ", ACCOUNT, ", without which vesperd does not start");
    }
    if (geteuid() != 0 && geteuid() != account->pw_uid) {
        return text_of("only root can tell what the account ", ACCOUNT, " may");
    }
    if (geteuid() == 0 && !as_account_t().is_taken()) {
        return text_of("this root may not take the account ", ACCOUNT);
    }
    return "";
}

void check_files(const site_t &site, findings_t *findings) {
    if (!why_files_are_not_judged().empty()) {
        return;
    }
    struct stat status {};
    const bool is_file = stat(site.path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    const std::string why = is_file ? why_not_loadable(site.path.c_str()) : "";
    if (!why.empty()) {
        findings->error(1, "not-loadable", why, ": a reload ends the daemon");
    }
    const as_account_t account;
    check_logger(site.outline.logger(), findings);
    for (const site_line_t &line : site.lines) {
        check_line(*line.section, findings);
    }
}

std::string from_root(const std::string &path) {
    return path.starts_with('/') ? path : "/" + path;
}

std::string directory_of(const std::string &path) {
    return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
}

std::string why_not_loadable(const char *path) {
    const bool is_judged = why_files_are_not_judged().empty();
    const as_account_t account;
    struct stat status {};
    if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) {
        return text_of(path, " is a directory");
    }
    const int fault = access_fault(path, R_OK);
    if (fault == 0) {
        return "";
    }
    return text_of(is_judged ? "the account ovo" : "this account", " cannot open ", path, ": ",
                   strerror(fault));
}
