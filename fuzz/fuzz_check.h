// Shared by the fuzz targets: the property check that stops the run.
#ifndef FSIC_FUZZ_FUZZ_CHECK_H
#define FSIC_FUZZ_FUZZ_CHECK_H

#include <stdint.h>
#include <stdio.h>

#include <vector>

// A property that does not hold is a finding: say which one and stop at once, so that
// libFuzzer keeps the input as a crash artefact (and a replay run fails).
#define FUZZ_CHECK(cond)                                                                 \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      fprintf(stderr, "fuzz property failed: %s at %s:%d\n", #cond, __FILE__, __LINE__); \
      fflush(stderr);                                                                    \
      __builtin_trap();                                                                  \
    }                                                                                    \
  } while (0)

namespace fuzz {

using Bytes = std::vector<uint8_t>;

} // namespace fuzz

#endif // FSIC_FUZZ_FUZZ_CHECK_H
