// The command line: fsic COMMAND [OPTION...] [ARGUMENT...].
#ifndef FSIC_CLI_ARGS_H
#define FSIC_CLI_ARGS_H

#include <string>
#include <vector>

namespace fsic::cli {

struct options {
  std::string command; // empty with --version or --help alone
  bool version = false;
  bool help = false;
  std::string policy;
  std::string db;
  std::string key;             // the default key file unless --no-key
  bool no_key = false;         // --no-key: no key file; the database is digested, not keyed
  bool key_is_default = false; // the key file is the default one (init makes it if absent)
  bool force = false;
  bool json = false;
  bool all = false;
  bool quiet = false;
  int progress = -1; // --progress 1, --no-progress 0, else -1
  std::vector<std::string> accept;
  std::vector<std::string> volumes;
  std::vector<std::string> operands; // compare: OLD_DB NEW_DB
};

// Parses the arguments after the program name, filling in the default policy, database
// and key files (FSIC_DEFAULT_POLICY, FSIC_DEFAULT_DB, FSIC_DEFAULT_KEY) where a command
// takes them and they are not given. true; false with a message for "fsic: MESSAGE"
// (status 16).
bool parse_args(const std::vector<std::string> &args, options *out, std::string *message);

// The usage text of one command, or of all of them for an empty name.
std::string usage_text(const std::string &command);

} // namespace fsic::cli

#endif // FSIC_CLI_ARGS_H
