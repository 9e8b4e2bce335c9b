// The process: start-up, reload and shutdown.
#pragma once

// Handler of the terminating signals: lets the service threads finish for ten seconds, removes the
// pidfile and exits with status 0.
[[noreturn]] void sig_term(int signo) noexcept;

// Handler of SIGHUP: loads the configuration file again and starts the logger anew. When the file
// cannot be opened, exits with status 0 at once and leaves the pidfile behind.
void sig_hup(int signo) noexcept;

// The program: options, account, configuration, test mode or service. Every way out is exit(0).
[[noreturn]] void vesperd_run(int argc, char **argv) noexcept;
