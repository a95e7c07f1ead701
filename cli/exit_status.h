// The exit statuses of fsic. check, update and compare add up the flags of what they
// found; every error has a status of its own, above the flags.
#ifndef FSIC_CLI_EXIT_STATUS_H
#define FSIC_CLI_EXIT_STATUS_H

namespace fsic::cli {

enum exit_status : int {
  EXIT_OK = 0,
  EXIT_ADDED = 1,       // something was added
  EXIT_REMOVED = 2,     // something was removed
  EXIT_CHANGED = 4,     // something changed, changed its type or its settings
  EXIT_UNCHECKED = 8,   // something could not be checked: a volume missing, a file unreadable
  EXIT_USAGE = 16,      // bad command line; a file that must not be overwritten
  EXIT_POLICY = 17,     // the policy cannot be read or carried out
  EXIT_DB_FORMAT = 18,  // the database cannot be read or is not one
  EXIT_AUTH = 19,       // the database's digest or HMAC does not hold; a key is missing or unsafe
  EXIT_INVENTORY = 20,  // the machine's volumes cannot be listed or reached
  EXIT_LOCKED = 21,     // another fsic writes the database
  EXIT_WRITE = 22,      // the database could not be written (the previous one is intact)
  EXIT_NO_MEMORY = 23,  // memory exhausted
  EXIT_INTERRUPTED = 25 // SIGINT or SIGTERM: nothing written, nothing left mounted
};

} // namespace fsic::cli

#endif // FSIC_CLI_EXIT_STATUS_H
