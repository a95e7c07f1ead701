// Command-line parsing: each command accepts its own options and the common ones.
#include "cli/args.h"

#include <algorithm>
#include <cstring>

namespace fsic::cli {

namespace {

struct command_entry {
  const char *name;
  const char *usage;
  const char *options; // the options that take a value or are flags, blank-separated
  int operands;        // positional arguments
};

const command_entry commands[] = {
    {"volumes", "fsic volumes [--json] [--all]", "--json --all", 0},
    {"init", "fsic init [--policy FILE] [--db FILE] [--key FILE | --no-key] [--force]",
     "--policy --db --key --no-key --force", 0},
    {"check", "fsic check [--db FILE] [--key FILE | --no-key] [--json]",
     "--db --key --no-key --json", 0},
    {"update",
     "fsic update [--db FILE] [--key FILE | --no-key] [--accept PATH]... [--volume NAME]... "
     "[--json]",
     "--db --key --no-key --accept --volume --json", 0},
    {"compare", "fsic compare OLD_DB NEW_DB [--key FILE | --no-key] [--json]",
     "--key --no-key --json", 2},
    {"show", "fsic show [--db FILE] [--key FILE | --no-key] [--json]", "--db --key --no-key --json",
     0},
    {"keygen", "fsic keygen [--key FILE]", "--key", 0},
};

const char common_usage[] =
    "Common options: --progress, --no-progress (default: a progress line on a terminal),\n"
    "-q (no report: the exit status alone), --help.\n"
    "Defaults: --policy " FSIC_DEFAULT_POLICY ", --db " FSIC_DEFAULT_DB ",\n"
    "--key " FSIC_DEFAULT_KEY " (--no-key: a database authenticated by its digest alone).\n";

bool has_word(const char *list, const std::string &word) {
  size_t n = word.size();
  for (const char *p = list; *p;) {
    const char *end = strchr(p, ' ');
    size_t len = end ? static_cast<size_t>(end - p) : strlen(p);
    if (len == n && word.compare(0, n, p, n) == 0)
      return true;
    if (!end)
      break;
    p = end + 1;
  }
  return false;
}

const command_entry *find_command(const std::string &name) {
  for (const command_entry &c : commands)
    if (name == c.name)
      return &c;
  return nullptr;
}

bool takes_value(const std::string &option) {
  return option == "--policy" || option == "--db" || option == "--key" || option == "--accept" ||
         option == "--volume";
}

void set_value(options *o, const std::string &option, const std::string &value) {
  if (option == "--policy")
    o->policy = value;
  else if (option == "--db")
    o->db = value;
  else if (option == "--key")
    o->key = value;
  else if (option == "--accept")
    o->accept.push_back(value);
  else if (option == "--volume")
    o->volumes.push_back(value);
}

bool set_flag(options *o, const std::string &option) {
  if (option == "--force")
    o->force = true;
  else if (option == "--json")
    o->json = true;
  else if (option == "--all")
    o->all = true;
  else if (option == "--no-key")
    o->no_key = true;
  else
    return false;
  return true;
}

// Fills in the default files of the options that the command takes but were not given:
// true; false with a message when --key and --no-key are both given.
bool apply_defaults(const command_entry &c, options *o, std::string *message) {
  if (has_word(c.options, "--policy") && o->policy.empty())
    o->policy = FSIC_DEFAULT_POLICY;
  if (has_word(c.options, "--db") && o->db.empty())
    o->db = FSIC_DEFAULT_DB;
  if (o->no_key) {
    if (!o->key.empty()) {
      *message = "--key and --no-key exclude each other";
      return false;
    }
  } else if (has_word(c.options, "--key") && o->key.empty()) {
    o->key = FSIC_DEFAULT_KEY;
    o->key_is_default = true;
  }
  return true;
}

} // namespace

std::string usage_text(const std::string &command) {
  if (const command_entry *c = find_command(command))
    return std::string("Usage: ") + c->usage + "\n" + common_usage;
  std::string text = "Usage:\n";
  for (const command_entry &c : commands)
    text += std::string("  ") + c.usage + "\n";
  text += "  fsic --version | --help | COMMAND --help\n";
  text += common_usage;
  text += "See fsic(1).\n";
  return text;
}

bool parse_args(const std::vector<std::string> &args, options *out, std::string *message) {
  options o;
  if (args.empty()) {
    *message = "no command given (try fsic --help)";
    return false;
  }
  if (args[0] == "--version" || args[0] == "--help") {
    if (args.size() > 1) {
      *message = args[0] + " takes nothing after it";
      return false;
    }
    (args[0] == "--version" ? o.version : o.help) = true;
    *out = o;
    return true;
  }
  const command_entry *entry = find_command(args[0]);
  if (!entry) {
    *message = "unknown command \"" + args[0] + "\" (try fsic --help)";
    return false;
  }
  o.command = entry->name;
  bool options_end = false;
  for (size_t i = 1; i < args.size(); i++) {
    std::string arg = args[i];
    if (options_end || arg.empty() || arg[0] != '-' || arg == "-") {
      o.operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_end = true;
      continue;
    }
    if (arg == "--help") {
      o.help = true;
      continue;
    }
    if (arg == "-q") {
      o.quiet = true;
      continue;
    }
    if (arg == "--progress" || arg == "--no-progress") {
      o.progress = arg == "--progress" ? 1 : 0;
      continue;
    }
    std::string value;
    bool inline_value = false;
    size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      inline_value = true;
    }
    if (!has_word(entry->options, arg)) {
      *message =
          "fsic " + o.command + " has no option " + arg + " (try fsic " + o.command + " --help)";
      return false;
    }
    if (takes_value(arg)) {
      if (!inline_value) {
        if (i + 1 == args.size()) {
          *message = arg + " needs a value";
          return false;
        }
        value = args[++i];
      }
      if (value.empty()) {
        *message = arg + " needs a value that is not empty";
        return false;
      }
      set_value(&o, arg, value);
    } else {
      if (inline_value) {
        *message = arg + " takes no value";
        return false;
      }
      set_flag(&o, arg);
    }
  }
  if (o.help) {
    *out = o;
    return true;
  }
  if (static_cast<int>(o.operands.size()) != entry->operands) {
    *message =
        entry->operands
            ? "fsic " + o.command + " takes " + std::to_string(entry->operands) + " database files"
            : "fsic " + o.command + " takes no argument \"" + o.operands.front() + "\"";
    return false;
  }
  if (!apply_defaults(*entry, &o, message))
    return false;
  *out = std::move(o);
  return true;
}

} // namespace fsic::cli
