// The commands of fsic; each returns the exit status.
#ifndef FSIC_CLI_COMMANDS_H
#define FSIC_CLI_COMMANDS_H

#include <fsic/disk_list.h>

#include "cli/args.h"

namespace fsic::cli {

int command_volumes(const options &o);
int command_init(const options &o);
int command_check(const options &o); // check and update
int command_compare(const options &o);
int command_show(const options &o);
int command_keygen(const options &o);

// init and check (or update) in this process, on the volumes of `disks` rather than the
// machine's, without a private mount namespace: for programs that measure the commands
// on volumes of their own making (benchmarks). Mounts go where the caller's do.
int init_on(const options &o, fs_disk_list *disks);
int check_on(const options &o, fs_disk_list *disks);

} // namespace fsic::cli

#endif // FSIC_CLI_COMMANDS_H
