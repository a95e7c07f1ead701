// Skipping a test that needs root when it runs as another user, with the reason.
#ifndef FSIC_TESTS_SUPPORT_REQUIRE_ROOT_H
#define FSIC_TESTS_SUPPORT_REQUIRE_ROOT_H

#include <unistd.h>

#include <gtest/gtest.h>

// In a test body or a fixture's SetUp: without an effective uid of 0 the test is
// skipped ("needs root: <why>") instead of failing on the first privileged step.
#define FSIC_REQUIRE_ROOT(why)                 \
  do {                                         \
    if (::geteuid() != 0)                      \
      GTEST_SKIP() << "needs root: " << (why); \
  } while (0)

#endif // FSIC_TESTS_SUPPORT_REQUIRE_ROOT_H
