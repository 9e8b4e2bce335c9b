// What ends a pause of the main thread before its time.
#pragma once

// Makes wake() count. Opens a descriptor, once. Returns whether it does.
bool wake_init() noexcept;

// Ends the pause, or the next one at once. Does nothing before wake_init(). For any thread and any signal
// context.
void wake() noexcept;

// Sleeps until then, but `microseconds` at most.
void wake_wait(long microseconds) noexcept;
