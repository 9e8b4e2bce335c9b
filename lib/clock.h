// Seconds as the records keep them, and sleeping for the whole of a stated time.
#pragma once

#include <cerrno>
#include <ctime>

// Seconds since the epoch, cut to 32 bits.
inline int seconds_now() noexcept {
    return static_cast<int>(time(nullptr));
}

// Seconds from `from` to `to` as a signed 32-bit difference; negative when the clock went back.
inline int seconds_between(int from, int to) noexcept {
    return static_cast<int>(static_cast<unsigned>(to) - static_cast<unsigned>(from));
}

// Sleeps `microseconds`; a signal that interrupts the sleep does not shorten it.
inline void pause_us(long microseconds) noexcept {
    timespec left{microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
