#include "alarm_limit.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "alarm.h"
#include "clock.h"
#include "files.h"
#include "logger.h"
#include "stats.h"

namespace {

constexpr int FIRST_INTERVAL_SECONDS = 4;
constexpr int SECOND_INTERVAL_SECONDS = 24;
constexpr int LATER_INTERVAL_SECONDS = 299;
constexpr int SUPPRESSION_LINE_SIZE = 1024;

// Logs on behalf of alarm_time().
void warn_of_no_file(const char *path) {
    static once_per_load_t warning;
    if (warning.is_first()) {
        LOG_FROM(LEVEL_WARNING, "proto", "alarm_time",
                 "%s is no regular file and suppresses nothing\n", path);
    }
}

// The number that an operator wrote into a suppression file; 0 when there is none.
int suppression_number(const char *path) {
    char line[SUPPRESSION_LINE_SIZE];
    const unique_file_t file = open_text(path);
    if (!file && errno == NOT_REGULAR) {
        warn_of_no_file(path);
    }
    if (!file || fgets(line, sizeof line, file.get()) == nullptr) {
        return 0;
    }
    return static_cast<int>(strtol(line, nullptr, 0));  // the low 32 bits, as documented
}

bool is_suppressed(const pager_t *pager, const char *name) {
    char path[PATH_SIZE];
    spool_path(path, pager, name);
    return suppression_number(path) < 0;
}

// Whether an alarm at this level may fire again.
bool interval_is_over(int index, int elapsed_seconds) {
    switch (index) {
        case 0:
            return true;
        case 1:
            return elapsed_seconds > FIRST_INTERVAL_SECONDS;
        case 2:
            return elapsed_seconds > SECOND_INTERVAL_SECONDS;
        default:
            return index > 2 && elapsed_seconds > LATER_INTERVAL_SECONDS;
    }
}

}  // namespace

int alarm_time(pager_t *pager, int alrm) noexcept {
    const int now = seconds_now();
    const alarm_slot_t slot = alarm_slot(pager, alrm);
    if (alrm == ALARM_MESSAGE) {
        count_up_shared(slot.index);
        store_shared(slot.last, now);
        return 1;
    }
    const char *name = alarm_name(alrm);
    if (is_suppressed(pager, name)) {
        LOG_FROM(LEVEL_WARNING, "proto", "alarm_time", "Alarm %s  supressed\n", name);
        count_alarm(alrm, alarm_result_t::SUPPRESSED);
        return 0;
    }
    const int elapsed = seconds_between(load_shared(*slot.last), now);
    if (!interval_is_over(load_shared(*slot.index), elapsed)) {
        count_alarm(alrm, alarm_result_t::LIMITED);
        return 0;
    }
    store_shared(slot.last, now);
    return count_up_shared(slot.index);
}
