// Loading and saving the database file, with its key.
#ifndef FSIC_CLI_STORE_H
#define FSIC_CLI_STORE_H

#include <string>

#include "cli/database.h"

namespace fsic::cli {

// Reads the key file when `key_path` is not empty: 0, or 19 (said on standard error).
int load_key(const std::string &key_path, std::string *key);

// Reads and decodes the database: 0, or 18, 19 or 23 (said on standard error).
int load_database(const std::string &path, const std::string &key, database *out);

// Stamps the database with the time and the host name, encodes it (keyed when `key` is
// not empty) and replaces the file: 0, or 22 or 23 (said on standard error).
int save_database(const std::string &path, const std::string &key, database *db);

// Takes the writers' lock of the database: 0, or 21 or 22 (said).
int lock_database(const std::string &path, class file_lock *lock);

} // namespace fsic::cli

#endif // FSIC_CLI_STORE_H
