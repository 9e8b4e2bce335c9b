// Any suppression file, status file and call description in a spool directory.

#include <sys/socket.h>

#include <cstring>

#include "action.h"
#include "alarm.h"
#include "fuzz.h"
#include "proto.h"
#include "text.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    quiet_log();
    int ends[2];
    if (size < 1 || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return 0;
    }
    const size_t half = std::min<size_t>(data[0], size - 1);
    static pager_t pager;
    pager = {};
    copy_text(pager.spool_dir, scratch_dir());
    pager.socket = ends[0];

    scratch_file("connected", as_text(data + 1, size - 1));
    const int level = alarm_time(&pager, ALARM_CONNECTION_LOST);
    require(level == alarm_slot(&pager, ALARM_CONNECTION_LOST).index[0]);

    scratch_file("call_1", as_text(data + 1, half));
    const std::string status = scratch_file("status_1", as_text(data + 1 + half, size - 1 - half));
    process_status_feedbacks(&pager);
    require(access(status.c_str(), F_OK) != 0);
    char record[2048];
    const ssize_t sent = recv(ends[1], record, sizeof record, MSG_DONTWAIT);
    require(sent > 10 && memcmp(record, "\x04\x31\x05\x32\x05\x01\x32\x02\x31\x1F", 10) == 0);
    require(record[sent - 1] == ETX);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
