// The running of command lines.
#pragma once

// Runs a command line through the shell (sh -c) and waits for its end, as system() does. The shell leads
// a session of its own, so no command can type into the terminal from which the daemon was started,
// and has /dev/null for its standard input; it inherits the environment, the working directory, and
// standard output and standard error.
// Returns the exit status; 128 and the signal for a shell that a signal ended, as the shell says it of
// its commands; 127 when there is no shell; -1 when none could be started or, with SIGCHLD ignored,
// its end is not told.
int command_run(const char *line) noexcept;
