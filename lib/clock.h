// Seconds as the records keep them, and sleeping for the whole of a stated time.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

// Seconds since the epoch, cut to 32 bits.
inline int seconds_now() noexcept {
    return static_cast<int>(time(nullptr));
}

// Seconds from `from` to `to` as a signed 32-bit difference; negative when the clock went back.
inline int seconds_between(int from, int to) noexcept {
    return static_cast<int>(static_cast<unsigned>(to) - static_cast<unsigned>(from));
}

// Milliseconds since the epoch.
inline int64_t milliseconds_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Microseconds on a clock that nobody sets, since some moment.
inline int64_t microseconds_passed() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

// Sleeps `microseconds`; a signal that interrupts the sleep does not shorten it.
inline void pause_us(long microseconds) noexcept {
    timespec left{microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
