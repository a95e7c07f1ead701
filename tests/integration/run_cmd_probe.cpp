// Runs one command through the library's command runner in a process of its own, so
// that the logging configuration is loaded afresh from this process's environment
// (LOG_LEVEL, LOG_CONFIG) and the records reach the real standard error.
//
//   run_cmd_probe <program> [arguments...]
//
// Prints "status=<runner status> flags=<0x channel mask word after the call>" on
// standard output and exits with 0; 2 on a usage error.
#include <fsic/log.h>

#include "fs/mount_internal.h"

#include <cstdio>
#include <vector>

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: run_cmd_probe <program> [arguments...]\n");
    return 2;
  }
  std::vector<char *> args(argv + 1, argv + argc);
  args.push_back(nullptr);
  const fsic_status status = fsic::detail::run_cmd(argv[1], args.data());
  printf("status=%u flags=%#x\n", static_cast<unsigned>(status),
         static_cast<unsigned>(__ic_log_fs.flags));
  return 0;
}
