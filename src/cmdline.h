// The command line and the test mode that it can ask for.
#pragma once

// Settings of the command line.
extern char *config_file;   // heap text, path of the configuration file, or null
extern int foreground;      // stay in the foreground, without signal handlers
extern int console_log;     // log to standard error, only together with `foreground`
extern char *test_message;  // heap text, or null

// Writes the help text to standard error.
void usage(char **argv) noexcept;

// Parses the command line into the settings. Prints the help and exits with status 0 when it is not
// acceptable.
void get_options(int argc, char **argv) noexcept;

// Prints to standard error which rule of the first pager `test_message` selects and what its
// templates expand to, with "1000" as the call address. Nothing is executed.
void run_test_mode() noexcept;
