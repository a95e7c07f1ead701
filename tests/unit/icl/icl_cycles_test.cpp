// Repeated save and restore: every read reverses the order of the entries, so the
// order alternates; through the library directly and through the driver's
// save_and_restore_icl with odd and even cycle counts.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/icl.h>

#include "icl_report.h"
#include "icl_test_util.h"
#include "tests/unit/driver/stdio_capture.h"

namespace {

using namespace icltest;

std::vector<Entry> random_model(uint32_t seed, uint32_t n) {
  Gen g(seed);
  std::vector<Entry> model;
  for (uint32_t i = 0; i < n; i++) {
    Entry e = g.entry(3);
    e.id.kind = static_cast<uint16_t>(i % 3);
    if (e.id.kind == 2)
      e.id.second = "lv" + std::to_string(i);
    e.id.first += std::to_string(i); // all distinct
    model.push_back(e);
  }
  return model;
}

TEST(IclCycles, EachSaveAndRestoreReversesTheEntries) {
  const std::vector<Entry> model = random_model(5, 4);
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list(reversed(model)), &list), FSIC_OK);
  expect_list(list.get(), model);
  const Bytes original = blob_of(list.get());
  ASSERT_EQ(original, encode_list(model));

  IclPtr current;
  ASSERT_EQ(read_icl(original, &current), FSIC_OK);
  for (int reads = 1; reads <= 7; reads++) {
    SCOPED_TRACE("after " + std::to_string(reads) + " reads");
    const bool odd = reads % 2 == 1;
    expect_list(current.get(), odd ? reversed(model) : model);
    const Bytes b = blob_of(current.get());
    EXPECT_EQ(b, encode_list(odd ? reversed(model) : model));
    IclPtr next;
    ASSERT_EQ(read_icl(b, &next), FSIC_OK);
    current = std::move(next);
  }
}

TEST(IclCycles, TheDriverRoundTripAlternatesWithTheCycleCount) {
  const std::vector<Entry> model = random_model(11, 5);
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list(reversed(model)), &list), FSIC_OK);
  const Bytes original = blob_of(list.get());

  for (int cycles : {0, 1, 2, 3, 10, 11, 100}) {
    SCOPED_TRACE("cycles " + std::to_string(cycles));
    fs_icl *out = nullptr;
    fsic_status status = FSIC_ERR_FAILED;
    const auto c =
        drivertest::capture_stdio([&] { status = save_and_restore_icl(list.get(), &out, cycles); });
    ASSERT_EQ(status, FSIC_OK);
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, "");
    ASSERT_NE(out, nullptr);
    ASSERT_NE(out, list.get());
    IclPtr copy(out);
    // cycles + 1 reads: an odd number reverses the list's order.
    const bool reversed_order = (cycles + 1) % 2 == 1;
    expect_list(copy.get(), reversed_order ? reversed(model) : model);
    EXPECT_EQ(blob_of(copy.get()), encode_list(reversed_order ? reversed(model) : model));
    // The caller's list is left as it was.
    EXPECT_EQ(blob_of(list.get()), original);
    expect_list(list.get(), model);
  }
}

TEST(IclCycles, TheDriverRoundTripOfAnEmptyListIsEmpty) {
  IclPtr list = new_icl();
  for (int cycles : {0, 1, 100}) {
    fs_icl *out = nullptr;
    fsic_status status = FSIC_ERR_FAILED;
    const auto c =
        drivertest::capture_stdio([&] { status = save_and_restore_icl(list.get(), &out, cycles); });
    ASSERT_EQ(status, FSIC_OK);
    EXPECT_EQ(c.err, "");
    IclPtr copy(out);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->count, 0u);
    EXPECT_EQ(fs_icl_first_volume(copy.get()), nullptr);
  }
}

TEST(IclCycles, TheDriverRoundTripLeavesNothingAllocatedButTheCopy) {
  const std::vector<Entry> model = random_model(3, 3);
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list(model), &list), FSIC_OK);
  const long before = heap_in_use();
  fs_icl *out = nullptr;
  ASSERT_EQ(save_and_restore_icl(list.get(), &out, 9), FSIC_OK);
  fs_icl_destroy(out);
  EXPECT_EQ(heap_in_use(), before);
}

} // namespace
