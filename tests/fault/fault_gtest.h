// GoogleTest glue of the allocation fault tests: runs an operation through the driver,
// prints its number of injection points and turns its problems into test failures.
#ifndef FSIC_TESTS_FAULT_FAULT_GTEST_H
#define FSIC_TESTS_FAULT_FAULT_GTEST_H

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "fault_driver.h"

namespace fault {

inline outcome run(const operation &op) {
  const outcome o = exercise(op);
  std::printf("%s\n", summary(op.name, op, o).c_str());
  std::fflush(stdout);
  for (const auto &p : o.problems)
    ADD_FAILURE() << op.name << ": " << p;
  return o;
}

// For an operation that must allocate: at least one injection point was met and every
// one of them was failed.
inline void expect_exercised(const outcome &o, const operation &op) {
  EXPECT_GT(o.points, 0) << op.name << " made no allocation";
  if (op.stride == 1 && o.problems.empty()) {
    EXPECT_EQ(o.runs, o.points * static_cast<long>(op.modes.size())) << op.name;
  }
}

// The process scope replaces the allocator, which AddressSanitizer owns.
#define FAULT_REQUIRE_PROCESS_SCOPE()                                               \
  do {                                                                              \
    if (!::fault::process_scope_available())                                        \
      GTEST_SKIP() << "every allocation of the process can only be failed without " \
                      "AddressSanitizer (it owns the allocator)";                   \
  } while (0)

} // namespace fault

#endif // FSIC_TESTS_FAULT_FAULT_GTEST_H
