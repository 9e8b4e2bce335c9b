// A line's thread: from connecting to handing on what the line says.
#pragma once

#include <atomic>
#include <cstddef>

// A shorter line of an ASCII line is no message.
constexpr size_t MIN_ASCII_LENGTH = 5;

// Shutdown: set once, polled by every service thread.
extern std::atomic<int> doexit;

// Start routine of a service thread; `pager` is the thread's pager_t. Connects, reads, dispatches
// and reconnects until `doexit` is set or the line is dismissed. Returns null.
void *service_proc(void *pager) noexcept;
