// Fuzz target: log format strings (format_to_desc) and the records laid out after them.
//
// The input, NUL-terminated (so it ends at its first NUL byte), is compiled as a format
// string. Properties:
//  1. format_to_desc returns 0 or -1, and 0 exactly when the model (log_model.h) keeps
//     within 32 items and 256 text bytes; on success the description is the model's
//     byte for byte (items, literal runs, zero padding).
//  2. With that description as the current format, every record handed to the writer is
//     at most 1024 bytes and is what the layout model predicts: strings, numbers and raw
//     messages cut at the record's end, times and formatted messages kept only whole,
//     and one time shared by the time placeholders of a record.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

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

  const std::string format(reinterpret_cast<const char *>(data), size);
  format_desc got;
  const int rc = format_to_desc(format.c_str(), &got);
  format_desc want;
  const bool fits = fuzz::model_compile(format.c_str(), &want);
  FUZZ_CHECK(rc == 0 || rc == -1);
  FUZZ_CHECK((rc == 0) == fits);
  if (rc != 0)
    return 0;
  FUZZ_CHECK(memcmp(&got, &want, sizeof got) == 0);

  _ic_log_reset();
  *get_format() = got;
  fuzz::check_records(want);
  _ic_log_reset();
  return 0;
}
