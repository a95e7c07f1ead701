// fsic: baseline and check files and directories of the machine's volumes, mounted or
// not, against an authenticated database.
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/signals.h"

namespace {

using namespace fsic::cli;

int dispatch(const options &o) {
  if (o.version) {
    printf("fsic %s\n", FSIC_CLI_VERSION);
    return EXIT_OK;
  }
  if (o.help) {
    fputs(usage_text(o.command).c_str(), stdout);
    return EXIT_OK;
  }
  const std::pair<const char *, int (*)(const options &)> table[] = {
      {"volumes", command_volumes}, {"init", command_init},       {"check", command_check},
      {"update", command_check},    {"compare", command_compare}, {"show", command_show},
      {"keygen", command_keygen}};
  for (const auto &[name, run] : table)
    if (o.command == name)
      return run(o);
  return EXIT_USAGE;
}

} // namespace

int main(int argc, char **argv) {
  // Interrupted before anything is written or mounted: 25 at once. The commands that
  // mount run in a worker process with handlers of its own (isolation.h).
  install_interrupt_handlers();
  try {
    std::vector<std::string> args(argv + 1, argv + argc);
    options o;
    std::string message;
    if (!parse_args(args, &o, &message)) {
      fprintf(stderr, "fsic: %s\n", message.c_str());
      return EXIT_USAGE;
    }
    return finish_output(dispatch(o));
  } catch (const std::bad_alloc &) {
    return out_of_memory();
  }
}
