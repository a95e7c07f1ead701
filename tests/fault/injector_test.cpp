// The injector counts and fails what it claims to, and the driver reports what goes
// wrong: a leak, a wrong status, a state check that fails. Without these the other
// fault tests would prove nothing.
#include <dirent.h>
#include <stdlib.h>
#include <string.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <fsic/gost_r3411_94.h>
#include <fsic/util.h>

#include "fault_gtest.h"

namespace {

// The test's own allocations go through these pointers, which the compiler cannot see
// through: it may otherwise drop a block that is freed again unused (clang does), and
// the counts checked below would never see it.
void *(*volatile test_malloc)(size_t) = malloc;
void *(*volatile test_realloc)(void *, size_t) = realloc;
char *(*volatile test_strdup)(const char *) = strdup;

TEST(FaultInjector, CountsAndFailsTheLibrarysAllocations) {
  fault::arm(fault::scope::library, 0);
  void *p = ic_util_zalloc(40);
  fault::report r = fault::disarm();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(r.allocations, 1);
  EXPECT_FALSE(r.fired());
  free(p);

  fault::arm(fault::scope::library, 1);
  p = ic_util_zalloc(40);
  r = fault::disarm();
  EXPECT_EQ(p, nullptr);
  EXPECT_TRUE(r.fired());
  EXPECT_STREQ(r.function, "calloc");
  EXPECT_EQ(r.size, 40u);
  EXPECT_TRUE(r.from_library);
  EXPECT_FALSE(r.in_hash_context);
}

TEST(FaultInjector, FailsExactlyTheNthOrEveryOneFromIt) {
  // ic_str_zarray_create: the array (calloc), then one strdup per string.
  fault::arm(fault::scope::library, 3);
  char **a = ic_str_zarray_create("one", "two", "three", nullptr);
  fault::report r = fault::disarm();
  EXPECT_EQ(a, nullptr);
  EXPECT_STREQ(r.function, "strdup");
  EXPECT_EQ(r.size, 4u); // "two"
  EXPECT_EQ(r.allocations, 3);
  EXPECT_EQ(r.failed, 1);

  // Only the third fails: a later call goes through.
  fault::arm(fault::scope::library, 3);
  void *first = test_malloc(1), *second = test_malloc(2), *third = test_malloc(3),
       *fourth = test_malloc(4);
  r = fault::disarm();
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(third, nullptr);
  EXPECT_NE(fourth, nullptr);
  free(first);
  free(second);
  free(fourth);

  fault::arm(fault::scope::library, 2, fault::mode::from);
  first = test_malloc(1), second = test_malloc(2), third = test_malloc(3);
  r = fault::disarm();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(third, nullptr);
  EXPECT_EQ(r.failed, 2);
  EXPECT_EQ(r.allocations, 3);
  free(first);
}

TEST(FaultInjector, SetsErrnoLikeTheRealAllocator) {
  errno = 0;
  fault::arm(fault::scope::library, 1);
  char *s = test_strdup("text");
  fault::disarm();
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(FaultInjector, CountsBlocksInUse) {
  const fault::live_counts before = fault::live();
  void *p = test_malloc(100);
  char *s = test_strdup("abc");
  const fault::live_counts during = fault::live();
  EXPECT_EQ(during.blocks, before.blocks + 2);
  EXPECT_GE(during.bytes, before.bytes + 104);
  p = test_realloc(p, 5000);
  EXPECT_EQ(fault::live().blocks, before.blocks + 2);
  free(p);
  free(s);
  EXPECT_EQ(fault::live(), before);
}

TEST(FaultInjector, MarksTheHashContext) {
  fault::arm(fault::scope::library, 1);
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  const fault::report r = fault::disarm();
  EXPECT_EQ(ctx, nullptr);
  EXPECT_TRUE(r.in_hash_context);
  gost_r3411_94_free_context(ctx);
}

TEST(FaultInjector, TheLibraryScopeLeavesLibcAlone) {
  fault::arm(fault::scope::library, 1);
  DIR *d = opendir("/");
  const fault::report r = fault::disarm();
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(r.allocations, 0);
  closedir(d);
}

TEST(FaultInjector, TheProcessScopeReachesAllocationsInsideLibc) {
  FAULT_REQUIRE_PROCESS_SCOPE();
  const fault::live_counts before = fault::live();
  fault::arm(fault::scope::process, 0);
  DIR *d = opendir("/");
  fault::report r = fault::disarm();
  ASSERT_NE(d, nullptr);
  EXPECT_GE(r.allocations, 1);
  EXPECT_GT(fault::live().blocks, before.blocks);
  closedir(d);
  EXPECT_EQ(fault::live(), before);

  errno = 0;
  fault::arm(fault::scope::process, 1);
  d = opendir("/");
  r = fault::disarm();
  EXPECT_EQ(d, nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_FALSE(r.from_library);
  EXPECT_NE(std::string(r.object).find("libc.so"), std::string::npos) << r.object;

  // A wrapped call counts once, not again inside libc.
  fault::arm(fault::scope::process, 0);
  char *s = test_strdup("once");
  r = fault::disarm();
  EXPECT_EQ(r.allocations, 1);
  free(s);
}

TEST(FaultInjector, ExemptObjectsAreNotCounted) {
  FAULT_REQUIRE_PROCESS_SCOPE();
  fault::exempt_objects_named("libc.so");
  fault::arm(fault::scope::process, 1);
  DIR *d = opendir("/");
  const fault::report r = fault::disarm();
  fault::clear_exempt_objects();
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(r.allocations, 0);
  closedir(d);
}

// Under LeakSanitizer the driver's last check finds a block that nothing points to.
TEST(FaultInjector, TheLeakCheckFindsAnUnreachableBlock) {
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_FALSE(fault::leak_check_found_leaks());
  // The only pointer to the block is hidden from the scan, then restored and freed.
  static volatile uintptr_t hidden;
  hidden = reinterpret_cast<uintptr_t>(test_malloc(24)) ^ 0x5a5a5a5aul;
  EXPECT_TRUE(fault::leak_check_found_leaks());
  free(reinterpret_cast<void *>(hidden ^ 0x5a5a5a5aul));
  EXPECT_FALSE(fault::leak_check_found_leaks());
#else
  GTEST_SKIP() << "no LeakSanitizer in this build: the block counts are the check";
#endif
}

// ---- the driver finds what is wrong --------------------------------------------------

// Makes two blocks; on a failed second allocation it keeps the first.
void *g_kept = nullptr;
void *g_second = nullptr;

fsic_status leaky_pair() {
  void *a = test_malloc(16);
  if (!a)
    return FSIC_ERR_NO_MEMORY;
  void *b = test_malloc(16);
  if (!b) {
    g_kept = a; // not released: still reachable, but a leak of the operation
    return FSIC_ERR_NO_MEMORY;
  }
  free(a);
  g_second = b;
  return FSIC_OK;
}

TEST(FaultDriver, ReportsABlockLeftBehindByAFailedCall) {
  fault::operation op;
  op.name = "leaky pair";
  op.modes = {fault::mode::once};
  op.call = leaky_pair;
  op.teardown = [] {
    free(g_second);
    g_second = nullptr;
  };
  const fault::outcome o = fault::exercise(op);
  free(g_kept);
  g_kept = nullptr;
  EXPECT_EQ(o.points, 2);
  ASSERT_FALSE(o.problems.empty());
  EXPECT_NE(o.problems[0].find("in use after the call"), std::string::npos) << o.problems[0];
}

TEST(FaultDriver, ReportsAStatusOtherThanExhaustedMemory) {
  fault::operation op;
  op.name = "wrong status";
  op.call = [] {
    char *s = ic_util_dupstrs("a", "b", nullptr);
    if (!s)
      return FSIC_ERR_FAILED;
    free(s);
    return FSIC_OK;
  };
  const fault::outcome o = fault::exercise(op);
  EXPECT_EQ(o.points, 1);
  ASSERT_FALSE(o.problems.empty());
  EXPECT_NE(o.problems[0].find("expected 3"), std::string::npos) << o.problems[0];
}

TEST(FaultDriver, ReportsAStateCheckThatFails) {
  fault::operation op;
  op.name = "state";
  op.call = [] {
    char *s = test_strdup("x");
    if (!s)
      return FSIC_ERR_NO_MEMORY;
    free(s);
    return FSIC_OK;
  };
  op.after_failure = [](fault::checks &c, const fault::attempt &) {
    c.equal(1, 2, "a state that changed");
  };
  const fault::outcome o = fault::exercise(op);
  ASSERT_FALSE(o.problems.empty());
  EXPECT_NE(o.problems[0].find("a state that changed: 1, expected 2"), std::string::npos)
      << o.problems[0];
}

TEST(FaultDriver, FailsEveryAllocationOfAnOperationInTurn) {
  fault::operation op;
  op.name = "three strings";
  op.call = [] {
    char **a = ic_str_zarray_create("a", "b", "c", nullptr);
    if (!a)
      return FSIC_ERR_NO_MEMORY;
    ic_str_zarray_destroy(a);
    return FSIC_OK;
  };
  const fault::outcome o = fault::run(op);
  EXPECT_EQ(o.points, 4);
  fault::expect_exercised(o, op);
  EXPECT_EQ(o.endings.at("3"), 4);
}

} // namespace
