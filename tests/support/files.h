// Small file helpers of the tests: whole files read and written, and existence.
#ifndef FSIC_TESTS_SUPPORT_FILES_H
#define FSIC_TESTS_SUPPORT_FILES_H

#include <sys/types.h>

#include <string>

namespace support {

// The whole file ("" when it cannot be read).
std::string read_text(const std::string &path);

// Writes the file (truncating it) and gives it `mode`; false when either fails.
bool write_text(const std::string &path, const std::string &text, mode_t mode = 0644);

// Writes the file (truncating it) after making its missing parent directories; throws
// std::runtime_error when that fails.
void write_file(const std::string &path, const std::string &content);

// Makes the directory and its missing parents (throws on failure).
void make_dirs(const std::string &path);

// Whether anything (a dangling symbolic link included) is at `path`.
bool exists(const std::string &path);

} // namespace support

#endif // FSIC_TESTS_SUPPORT_FILES_H
