// The run's private mount namespace. Everything that mounts (init, check, update) runs
// in a child process that has a mount namespace of its own, private to it: no mount it
// makes is ever seen by the system, and all of them vanish with it, however it ends.
// The parent only waits, passes SIGINT and SIGTERM on, and afterwards removes the
// empty mount directories that a child killed in the middle of its work left under
// /tmp, and the temporary database file it may have left.
#ifndef FSIC_CLI_ISOLATION_H
#define FSIC_CLI_ISOLATION_H

#include <functional>
#include <string>

namespace fsic::cli {

// Runs `work` so, and gives its exit status (25 when SIGINT or SIGTERM ended it, 128 +
// the signal for another one). `database` is the database that the child may write
// (empty: none), whose temporary file a killed child may have left. 20 when no
// namespace can be made (not root).
int run_isolated(const std::function<int()> &work, const std::string &database);

} // namespace fsic::cli

#endif // FSIC_CLI_ISOLATION_H
