// The status file: what the lines are doing and have done, in the Prometheus text format 0.0.4.
#pragma once

// Sets the file; empty: no status file. Counts as a load of the configuration.
void status_init(const char *file) noexcept;

// A load, or a part of one, failed after status_init(), or there was none because of that.
void status_load_failed() noexcept;

// Whether there is a status file.
bool status_is_kept() noexcept;

// Rewrites the file, under a temporary name in the same directory and renamed, if something has
// changed or the last time was 15 seconds ago. One that cannot be written is logged as an ERROR once
// per load. For the main loop, once a second.
void status_update() noexcept;

// Writes the last version, of a daemon that is not up any more.
void status_end() noexcept;
