// The commands of fsic; each returns the exit status.
#ifndef FSIC_CLI_COMMANDS_H
#define FSIC_CLI_COMMANDS_H

#include "cli/args.h"

namespace fsic::cli {

int command_volumes(const options &o);
int command_init(const options &o);
int command_check(const options &o); // check and update
int command_compare(const options &o);
int command_show(const options &o);
int command_keygen(const options &o);

} // namespace fsic::cli

#endif // FSIC_CLI_COMMANDS_H
