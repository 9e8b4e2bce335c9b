#include "alarm.h"

#include <iterator>

const alarm_types_t alarms[9] = {
    {ALARM_NO_RESPONSE, "no_response"},
    {ALARM_CONNECTION_LOST, "connection_lost"},
    {ALARM_CONNECTED, "connected"},
    {ALARM_TRANSMISSION_ERROR, "transmission_error"},
    {ALARM_MESSAGE, "message"},
    {ALARM_STARTED, "started"},
    {ALARM_TERMINATED, "terminated"},
    {ALARM_GENERAL_ERROR, "general_error"},
    {-1, ""},
};

namespace {

constexpr int SLOTS = static_cast<int>(std::size(pager_t{}.alarms));
static_assert(SLOTS == ALARM_TRANSMISSION_ERROR, "the code lands just past the slots");
constexpr int FIRST_EVENT_ROW = 4;  // "message", the first row whose code is no position
constexpr int LAST_ROW = 7;

// Codes up to 8 are positions; the others take the row that carries them.
int alarm_position(int alrm) {
    if (alrm >= 0 && alrm <= SLOTS) {
        return alrm;
    }
    return alarm_row(alrm);
}

}  // namespace

int alarm_row(int alrm) noexcept {
    int row = 0;
    while (row < LAST_ROW && alarms[row].alarm != alrm) {
        row++;
    }
    return row;
}

const char *alarm_name(int alrm) noexcept {
    return alarms[alarm_position(alrm)].name;
}

alarm_slot_t alarm_slot(pager_t *pager, int alrm) noexcept {
    if (alrm == ALARM_TRANSMISSION_ERROR) {
        return {&pager->polls, &pager->last_packet};
    }
    alarm_times_t &times = alrm >= 0 && alrm < SLOTS
                               ? pager->alarms[alrm]
                               : pager->event_alarms[alarm_position(alrm) - FIRST_EVENT_ROW];
    return {&times.index, &times.last};
}
