// HMAC key files: 32 random bytes, mode 0600.
#ifndef FSIC_CLI_KEY_FILE_H
#define FSIC_CLI_KEY_FILE_H

#include <string>

namespace fsic::cli {

constexpr size_t key_size = 32;

// Writes a new key file from the kernel's random generator: 0 (EXIT_OK), 16 when the
// file exists (it is never overwritten), 22 when it cannot be written. Says why on
// standard error.
int generate_key_file(const std::string &path);

// Reads a key file: 0; 19 (with the reason on standard error) when it cannot be read,
// is not a regular file of 32 bytes or more (at most 4096), or group or others may
// read or write it.
int read_key_file(const std::string &path, std::string *key);

} // namespace fsic::cli

#endif // FSIC_CLI_KEY_FILE_H
