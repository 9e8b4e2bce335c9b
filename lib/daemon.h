// Detaching into the background with a locked pidfile.
#pragma once

// Turns the process into a daemon: forks and starts a session, unless it was started by init (its
// parent's id is 1) or by inetd (descriptor 0 is a socket); changes to "/", clears the
// file-creation mask, closes every descriptor and puts "/dev/null" on 0, 1 and 2 (an inetd's 0 to 2
// are kept), and claims the pidfile of `name`. The parent does not return.
//   name  see daemon_construct_pidfile(); null: no pidfile
// Returns 0, or -1 with errno set; a daemon whose pidfile is held by another one is detached all
// the same.
int daemon_init(const char *name) noexcept;

// Removes the pidfile, when one is held. Its lock ends with the process. Returns 0, or -1 with
// errno set when the module's mutex cannot be taken or released.
int daemon_close() noexcept;

// The steps of daemon_init(), each returning -1 with errno set on failure.

// Forms, locks and writes the pidfile: the process id and a newline at the start of the file, which
// is not truncated. When another process holds the lock, its file is left alone. Returns 0.
int daemon_pidfile(const char *name) noexcept;

// Forms the path of the pidfile: `name` itself when it begins with "/", else "/var/run/NAME.pid"
// for the super-user and "/tmp/NAME.pid" for everybody else.
//   pidfile  heap text of the system's path limit, allocated here when null; the caller's to free
// Returns 0; ENAMETOOLONG when the path does not fit.
int daemon_construct_pidfile(const char *name, char **pidfile) noexcept;

// Creates or opens the file and locks the whole of it. Returns its descriptor, which carries the
// lock and is closed in programs that the process runs.
int daemon_lock_pidfile(const char *pidfile) noexcept;
