// Policy files: which files and directories of which volumes to keep under control.
//
//   image NAME VOLUME PATH        attach the image file PATH of VOLUME as image disk NAME
//   [VOLUME] [optional]           the volume of the lines below; an optional one is
//                                 passed over at init when the machine has no such volume
//   file PATH [WORD...]           a file
//   dir PATH [WORD...]            a directory
//
// Words: each-file, recursive, data, attrs (the control flags), flags=N (the flags as a
// number, added to the words) and, for directories, mask=PATTERN (repeatable). `#` at the
// start of a token begins a comment; tokens are separated by blanks; double quotes keep
// blanks in a token and take \" and \\ as escapes.
#ifndef FSIC_CLI_POLICY_H
#define FSIC_CLI_POLICY_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/volume_name.h"

namespace fsic::cli {

struct policy_object {
  int line = 0;
  bool dir = false;
  std::string path;
  uint32_t flags = 0;
  std::vector<std::string> masks; // empty: every file
};

struct policy_image {
  int line = 0;
  std::string name;
  std::string volume_text; // the selector as written
  selector volume;
  std::string path;
};

struct policy_section {
  int line = 0;
  std::string volume_text;
  selector volume;
  bool optional = false; // passed over when the machine has no such volume
  std::vector<policy_object> objects;
};

struct policy {
  std::vector<policy_image> images;     // in the file's order
  std::vector<policy_section> sections; // in the file's order
};

// Parses policy text. true; false with the offending line's number and the reason.
bool parse_policy(std::string_view text, policy *out, int *error_line, std::string *error);

// Reads and parses a policy file. true; false with a message that names the file (and
// the line).
bool read_policy(const std::string &path, policy *out, std::string *message);

} // namespace fsic::cli

#endif // FSIC_CLI_POLICY_H
