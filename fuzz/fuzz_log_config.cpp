// Fuzz target: the log configuration file (load_config_from_stream).
//
// The input is the file's bytes, read from a memory stream after the logging state is
// reset to that of a new process (no LOG_LEVEL, no LOG_CONFIG in the environment).
// Properties:
//  1. No crash, no undefined behaviour, nothing leaks.
//  2. Every mask in the table, and the default mask, is one that the level rule can
//     give: (1 << k) - 1 for k in 0..31, so never bit 31 (the "unresolved" mark).
//  3. The table is sorted strictly by strcmp, holds at most 256 entries, and every
//     name is a letter followed by letters and digits, shorter than 32 characters.
//  4. The table, the default mask and the current format are exactly what the model of
//     the file's rules (log_model.h) makes of the same bytes; channels resolve to their
//     entry's mask or to the default.
//  5. Records laid out after the resulting format fit the 1024-byte record and are
//     what the layout model predicts.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz_check.h"
#include "log_model.h"
#include "util/log_internal.h"

using namespace fsic::detail;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool clean_environment = [] {
    unsetenv("LOG_LEVEL");
    unsetenv("LOG_CONFIG");
    return true;
  }();
  (void)clean_environment;

  _ic_log_reset();
  fuzz::ConfigModel model;
  model.apply(data, size);

  if (size > 0) {
    // fmemopen wants a writable buffer even for reading.
    std::vector<uint8_t> copy(data, data + size);
    FILE *file = fmemopen(copy.data(), copy.size(), "r");
    FUZZ_CHECK(file != nullptr);
    load_config_from_stream(file);
    fclose(file);
  }

  unsigned count = 0;
  const log_options *options = _ic_log_options(&count);
  FUZZ_CHECK(count <= LOG_MAX_OPTIONS);
  FUZZ_CHECK(count == model.entries().size());
  for (unsigned i = 0; i < count; i++) {
    const char *name = options[i].name;
    const size_t len = strnlen(name, LOG_NAME_SIZE);
    FUZZ_CHECK(len > 0 && len < LOG_NAME_SIZE);
    FUZZ_CHECK((name[0] >= 'a' && name[0] <= 'z') || (name[0] >= 'A' && name[0] <= 'Z'));
    for (size_t k = 1; k < len; k++) {
      const char c = name[k];
      FUZZ_CHECK((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'));
    }
    FUZZ_CHECK(i == 0 || strcmp(options[i - 1].name, name) < 0);
    FUZZ_CHECK(fuzz::is_level_mask(options[i].flags));
    FUZZ_CHECK(model.entries()[i].first == name);
    FUZZ_CHECK(model.entries()[i].second == options[i].flags);
  }

  // Resolving loads nothing more (the environment is clean): "fuzz_probe" cannot name
  // an entry ("_" ends a name), so it takes the default mask.
  ic_log_channel probe = IC_LOG_CHANNEL_INIT("fuzz_probe");
  const uint32_t default_flags = get_channel_flags(&probe);
  FUZZ_CHECK(fuzz::is_level_mask(default_flags));
  FUZZ_CHECK(default_flags == model.default_flags());
  FUZZ_CHECK(get_channel_flags(&__ic_log_fs) == model.resolve("fs"));
  for (unsigned i = 0; i < count; i++) {
    ic_log_channel channel = IC_LOG_CHANNEL_INIT("");
    memcpy(channel.name, options[i].name, LOG_NAME_SIZE);
    FUZZ_CHECK(get_channel_flags(&channel) == options[i].flags);
  }

  fuzz::check_records(model.format());
  _ic_log_reset();
  return 0;
}
