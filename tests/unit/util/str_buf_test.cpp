// String buffer and string arrays.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include <fsic/util.h>

#include "util/str_buf.h"

namespace {

// ---------------------------------------------------------------- fs_str_buf

TEST(StrBuf, InitAllocatesExactlyTotalPlusOne) {
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, "/mnt", "/", "vol", (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "/mnt/vol");
  EXPECT_EQ(buf.len, 8u);
  EXPECT_EQ(_fs_str_buf_len(&buf), 8u);
  EXPECT_EQ(buf.capacity, 9u);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, InitWithNoStringsHoldsEmptyStringInOneByte) {
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "");
  EXPECT_EQ(buf.len, 0u);
  EXPECT_EQ(buf.capacity, 1u);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, CutBackAndLongerNameGivesPathLenPlusFourCapacity) {
  const std::string path = "/tmp/fs.20240101000000000.42/sda1/dir";
  const uint32_t len = static_cast<uint32_t>(path.size());
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, path.c_str(), (char *)NULL), FSIC_OK);

  const uint32_t mark = _fs_str_buf_len(&buf);
  ASSERT_EQ(_fs_str_buf_append(&buf, "/", "a", (char *)NULL), FSIC_OK);
  EXPECT_EQ(std::string(buf.data), path + "/a");
  EXPECT_EQ(buf.capacity, len + 3);

  _fs_str_buf_setlen(&buf, mark);
  EXPECT_EQ(std::string(buf.data), path);
  EXPECT_EQ(buf.len, len);

  ASSERT_EQ(_fs_str_buf_append(&buf, "/", "bc", (char *)NULL), FSIC_OK);
  EXPECT_EQ(std::string(buf.data), path + "/bc");
  EXPECT_EQ(buf.len, len + 3);
  EXPECT_EQ(buf.capacity, len + 4);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, ShorterPathAfterLongerOneDoesNotReallocate) {
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, "/d", (char *)NULL), FSIC_OK);
  ASSERT_EQ(_fs_str_buf_append(&buf, "/", "long-name", (char *)NULL), FSIC_OK);
  const uint32_t capacity = buf.capacity;
  const char *data = buf.data;
  EXPECT_EQ(capacity, 13u);

  _fs_str_buf_setlen(&buf, 2);
  ASSERT_EQ(_fs_str_buf_append(&buf, "/", "s", (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "/d/s");
  EXPECT_EQ(buf.capacity, capacity);
  EXPECT_EQ(buf.data, data);

  // An exact fit does not grow either.
  _fs_str_buf_setlen(&buf, 2);
  ASSERT_EQ(_fs_str_buf_append(&buf, "/long-nam", "e", (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "/d/long-name");
  EXPECT_EQ(buf.capacity, capacity);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, AppendWithNoStringsKeepsTextAndOnlyRoomForNul) {
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, "abc", (char *)NULL), FSIC_OK);
  ASSERT_EQ(_fs_str_buf_append(&buf, (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "abc");
  EXPECT_EQ(buf.len, 3u);
  EXPECT_EQ(buf.capacity, 4u);

  // Also after a cut back: the larger block stays as it is.
  ASSERT_EQ(_fs_str_buf_append(&buf, "defg", (char *)NULL), FSIC_OK);
  _fs_str_buf_setlen(&buf, 1);
  ASSERT_EQ(_fs_str_buf_append(&buf, (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "a");
  EXPECT_EQ(buf.len, 1u);
  EXPECT_EQ(buf.capacity, 8u);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, AppendOfEmptyStringsKeepsText) {
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, "", "x", "", (char *)NULL), FSIC_OK);
  ASSERT_EQ(_fs_str_buf_append(&buf, "", "", (char *)NULL), FSIC_OK);
  EXPECT_STREQ(buf.data, "x");
  EXPECT_EQ(buf.len, 1u);
  EXPECT_EQ(buf.capacity, 2u);
  _fs_str_buf_free(&buf);
}

TEST(StrBuf, RepeatedBuildsMatchStdString) {
  // Property: any sequence of appends and cut-backs gives the same text as a
  // std::string, and the capacity is always exactly the longest text so far + 1.
  srand(12345);
  fs_str_buf buf;
  ASSERT_EQ(_fs_str_buf_init(&buf, "/base", (char *)NULL), FSIC_OK);
  std::string model = "/base";
  size_t longest = model.size();
  for (int step = 0; step < 2000; step++) {
    if (rand() % 3 == 0) {
      const uint32_t len = static_cast<uint32_t>(rand() % (model.size() + 1));
      _fs_str_buf_setlen(&buf, len);
      model.resize(len);
    } else {
      const std::string name(static_cast<size_t>(rand() % 20), static_cast<char>('a' + step % 26));
      ASSERT_EQ(_fs_str_buf_append(&buf, "/", name.c_str(), (char *)NULL), FSIC_OK);
      model += "/" + name;
    }
    longest = std::max(longest, model.size());
    ASSERT_EQ(std::string(buf.data), model);
    ASSERT_EQ(buf.len, model.size());
    ASSERT_EQ(buf.capacity, longest + 1);
  }
  _fs_str_buf_free(&buf);
}

// ---------------------------------------------------------------- string arrays

TEST(StrZarray, CreateCopiesStringsInOrder) {
  const char a[] = "*.exe", b[] = "*.dll";
  char **arr = ic_str_zarray_create(a, b, (char *)NULL);
  ASSERT_NE(arr, nullptr);
  ASSERT_EQ(ic_str_zarray_len(arr), 2u);
  EXPECT_STREQ(arr[0], a);
  EXPECT_STREQ(arr[1], b);
  EXPECT_NE(arr[0], a); // own copies
  EXPECT_NE(arr[1], b);
  EXPECT_EQ(arr[2], nullptr);
  ic_str_zarray_destroy(arr);
}

TEST(StrZarray, CreateWithNoStringsGivesEmptyArray) {
  char **arr = ic_str_zarray_create((char *)NULL);
  ASSERT_NE(arr, nullptr);
  EXPECT_EQ(arr[0], nullptr);
  EXPECT_EQ(ic_str_zarray_len(arr), 0u);
  ic_str_zarray_destroy(arr);
}

TEST(StrZarray, Create2OfTwoAndZeroStringsGivesTwo) {
  char **two = ic_str_zarray_create("a", "b", (char *)NULL);
  char **none = ic_str_zarray_create((char *)NULL);
  ASSERT_NE(two, nullptr);
  ASSERT_NE(none, nullptr);

  char **both = ic_str_zarray_create2(two, none, (char **)NULL);
  ASSERT_NE(both, nullptr);
  ASSERT_EQ(ic_str_zarray_len(both), 2u);
  EXPECT_STREQ(both[0], "a");
  EXPECT_STREQ(both[1], "b");
  EXPECT_NE(both[0], two[0]);

  ic_str_zarray_destroy(both);
  ic_str_zarray_destroy(none);
  ic_str_zarray_destroy(two);
}

TEST(StrZarray, Create2OfNoArraysGivesEmptyArray) {
  char **arr = ic_str_zarray_create2((char **)NULL);
  ASSERT_NE(arr, nullptr);
  EXPECT_EQ(arr[0], nullptr);
  ic_str_zarray_destroy(arr);
}

TEST(StrZarray, Create2ConcatenatesInOrder) {
  char **x = ic_str_zarray_create("1", (char *)NULL);
  char **y = ic_str_zarray_create((char *)NULL);
  char **z = ic_str_zarray_create("2", "3", (char *)NULL);
  char **all = ic_str_zarray_create2(z, y, x, z, (char **)NULL);
  ASSERT_NE(all, nullptr);
  ASSERT_EQ(ic_str_zarray_len(all), 5u);
  const char *expected[] = {"2", "3", "1", "2", "3"};
  for (size_t i = 0; i < 5; i++)
    EXPECT_STREQ(all[i], expected[i]) << i;
  EXPECT_EQ(all[5], nullptr);
  EXPECT_NE(all[0], all[3]); // every string is a separate copy
  ic_str_zarray_destroy(all);
  ic_str_zarray_destroy(z);
  ic_str_zarray_destroy(y);
  ic_str_zarray_destroy(x);
}

TEST(StrZarray, LenOfEmptyArrayIsZero) {
  char *empty[] = {nullptr};
  EXPECT_EQ(ic_str_zarray_len(empty), 0u);
}

TEST(StrZarray, CopyOfEmptyArrayIsNewEmptyArray) {
  char *empty[] = {nullptr};
  char **copy = ic_str_zarray_copy(empty);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, empty);
  EXPECT_EQ(copy[0], nullptr);
  ic_str_zarray_destroy(copy);
}

TEST(StrZarray, CopyIsDeep) {
  char s1[] = "one", s2[] = "";
  char *src[] = {s1, s2, nullptr};
  char **copy = ic_str_zarray_copy(src);
  ASSERT_NE(copy, nullptr);
  ASSERT_EQ(ic_str_zarray_len(copy), 2u);
  EXPECT_STREQ(copy[0], "one");
  EXPECT_STREQ(copy[1], "");
  EXPECT_NE(copy[0], s1);
  EXPECT_NE(copy[1], s2);
  s1[0] = 'X'; // the copy does not follow the source
  EXPECT_STREQ(copy[0], "one");
  ic_str_zarray_destroy(copy);
}

} // namespace
