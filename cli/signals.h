// SIGINT and SIGTERM: the run ends at once with status 25, removing the temporary file
// of a database write that has not been renamed into place. Mounts need no undoing:
// they live in the run's private mount namespace (isolation.h) and vanish with it.
#ifndef FSIC_CLI_SIGNALS_H
#define FSIC_CLI_SIGNALS_H

namespace fsic::cli {

// Installs the handlers of SIGINT and SIGTERM.
void install_interrupt_handlers();

// The temporary file that an interrupt removes (a path shorter than PATH_MAX); forget
// it once it is renamed or gone.
void register_temporary_file(const char *path);
void forget_temporary_file();

// Holds SIGINT and SIGTERM back (blocked), and lets them through again.
void block_interrupts();
void unblock_interrupts();

} // namespace fsic::cli

#endif // FSIC_CLI_SIGNALS_H
