// A small program that logs as its arguments say, so that log_process_test.cpp can run
// each configuration case (LOG_LEVEL, LOG_CONFIG) in a fresh process. Records go to
// standard error; answers to queries go to standard output, one line each.
//
//   log CH CLASS FILE FUNC LINE MSG     ic_log(ch, class, file, func, line, "%s", MSG)
//   site CH CLASS FILE FUNC LINE MSG    the same behind the call-site pre-test
//   write CH CLASS FILE FUNC LINE DATA  ic_log_write(); prints "write N"
//   default LEVEL                       ic_log_set_default_level(); prints "default 0x.."
//   flags CH                            resolves the channel; prints "CH 0x.."
//   cached CH                           prints "CH cached 0x..", without resolving
//   entry NAME                          prints "entry NAME 0x.." or "entry NAME none"
//   setentry NAME HEX                   sets the flags of an existing entry
//   setenv VAR VALUE
//
// CH is "fs" or "fs_ocl" for the library's channels; any other name is a channel of
// this program, made unresolved on first mention.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/log_internal.h"

using namespace fsic::detail;

namespace {

ic_log_channel g_channels[64];
unsigned g_n_channels;

ic_log_channel *channel(const char *name) {
  if (strcmp(name, "fs") == 0)
    return &__ic_log_fs;
  if (strcmp(name, "fs_ocl") == 0)
    return &__ic_log_fs_ocl;
  for (unsigned i = 0; i < g_n_channels; ++i)
    if (strcmp(g_channels[i].name, name) == 0)
      return &g_channels[i];
  if (g_n_channels == 64 || strlen(name) >= sizeof g_channels[0].name) {
    fprintf(stderr, "probe: bad channel '%s'\n", name);
    exit(2);
  }
  ic_log_channel *ch = &g_channels[g_n_channels++];
  strcpy(ch->name, name);
  ch->flags = 0xFFFFFFFFu;
  return ch;
}

log_options *find_entry(const char *name) {
  ic_log_channel ch = IC_LOG_CHANNEL_INIT("");
  snprintf(ch.name, sizeof ch.name, "%s", name);
  return get_channel_options(&ch);
}

// Runs the command at argv[0]; returns how many arguments it took, or 0 when unknown.
int run(char **argv, int argc) {
  const char *cmd = argv[0];
  if (argc >= 7 && (strcmp(cmd, "log") == 0 || strcmp(cmd, "site") == 0)) {
    ic_log_channel *ch = channel(argv[1]);
    const int cls = atoi(argv[2]);
    if (cmd[0] == 'l' || IC_LOG_ENABLED(ch, cls))
      ic_log(ch, cls, argv[3], argv[4], atoi(argv[5]), "%s", argv[6]);
    return 7;
  }
  if (argc >= 7 && strcmp(cmd, "write") == 0) {
    const int r = ic_log_write(channel(argv[1]), atoi(argv[2]), argv[3], argv[4], atoi(argv[5]),
                               argv[6], (unsigned)strlen(argv[6]));
    printf("write %d\n", r);
    return 7;
  }
  if (argc >= 2 && strcmp(cmd, "default") == 0) {
    printf("default 0x%x\n", ic_log_set_default_level(atoi(argv[1])));
    return 2;
  }
  if (argc >= 2 && strcmp(cmd, "flags") == 0) {
    printf("%s 0x%x\n", argv[1], get_channel_flags(channel(argv[1])));
    return 2;
  }
  if (argc >= 2 && strcmp(cmd, "cached") == 0) {
    printf("%s cached 0x%x\n", argv[1], channel(argv[1])->flags);
    return 2;
  }
  if (argc >= 2 && strcmp(cmd, "entry") == 0) {
    const log_options *e = find_entry(argv[1]);
    if (e)
      printf("entry %s 0x%x\n", argv[1], e->flags);
    else
      printf("entry %s none\n", argv[1]);
    return 2;
  }
  if (argc >= 3 && strcmp(cmd, "setentry") == 0) {
    log_options *e = find_entry(argv[1]);
    if (!e)
      return 0;
    e->flags = (uint32_t)strtoul(argv[2], nullptr, 16);
    return 3;
  }
  if (argc >= 3 && strcmp(cmd, "setenv") == 0) {
    setenv(argv[1], argv[2], 1);
    return 3;
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc;) {
    const int used = run(argv + i, argc - i);
    if (used == 0) {
      fprintf(stderr, "probe: bad command at '%s'\n", argv[i]);
      return 2;
    }
    fflush(stdout);
    i += used;
  }
  return 0;
}
