// Allocation failures in the foundation: zeroed allocation, joined strings, string
// arrays, the string buffer, and the write and read buffers of blobs. A failed call
// gives nothing out and leaves the caller's buffer exactly as it was.
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/buffer.h>
#include <fsic/util.h>

#include "fault_gtest.h"
#include "util/str_buf.h"

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;

std::vector<std::string> strings_of(char **array) {
  std::vector<std::string> r;
  for (size_t i = 0; array[i]; i++)
    r.emplace_back(array[i]);
  return r;
}

std::string join(const std::vector<std::string> &v) {
  std::string r;
  for (const auto &s : v)
    r += (r.empty() ? "" : ",") + s;
  return r;
}

TEST(FaultUtil, ZeroedAllocation) {
  void *p = nullptr;
  operation op;
  op.name = "ic_util_zalloc";
  op.call = [&] { return (p = ic_util_zalloc(48)) ? FSIC_OK : FSIC_ERR_NO_MEMORY; };
  op.after_success = [&](checks &c, const attempt &) {
    const std::vector<unsigned char> zeros(48, 0);
    c.that(memcmp(p, zeros.data(), 48) == 0, "the block is not zero-filled");
  };
  op.after_failure = [&](checks &c, const attempt &) { c.that(p == nullptr, "a block came out"); };
  op.teardown = [&] {
    free(p);
    p = nullptr;
  };
  fault::expect_exercised(fault::run(op), op);
}

TEST(FaultUtil, JoinedStrings) {
  char *s = nullptr;
  operation op;
  op.name = "ic_util_dupstrs";
  op.call = [&] {
    return (s = ic_util_dupstrs("/tmp/fs.x", "/", "sda1", nullptr)) ? FSIC_OK : FSIC_ERR_NO_MEMORY;
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(std::string(s), std::string("/tmp/fs.x/sda1"), "joined");
  };
  op.after_failure = [&](checks &c, const attempt &) { c.that(s == nullptr, "a string came out"); };
  op.teardown = [&] {
    free(s);
    s = nullptr;
  };
  fault::expect_exercised(fault::run(op), op);
}

// The three ways to make a string array; each gives none, and leaves no string, when a
// copy fails.
TEST(FaultUtil, StringArrays) {
  char *first[] = {const_cast<char *>("*.exe"), const_cast<char *>("*.dll"), nullptr};
  char *second[] = {const_cast<char *>("*.sys"), nullptr};
  char *empty[] = {nullptr};
  struct maker {
    const char *name;
    std::function<char **()> make;
    std::string want;
  };
  const std::vector<maker> makers = {
      {"ic_str_zarray_create 3 strings",
       [] { return ic_str_zarray_create("*.exe", "*.dll", "*.sys", nullptr); },
       "*.exe,*.dll,*.sys"},
      {"ic_str_zarray_create 0 strings", [] { return ic_str_zarray_create(nullptr); }, ""},
      {"ic_str_zarray_create2 2+0+1 strings",
       [&] { return ic_str_zarray_create2(first, empty, second, nullptr); }, "*.exe,*.dll,*.sys"},
      {"ic_str_zarray_copy 2 strings", [&] { return ic_str_zarray_copy(first); }, "*.exe,*.dll"},
      {"ic_str_zarray_copy 0 strings", [&] { return ic_str_zarray_copy(empty); }, ""},
  };
  for (const maker &m : makers) {
    char **array = nullptr;
    operation op;
    op.name = m.name;
    op.call = [&] { return (array = m.make()) ? FSIC_OK : FSIC_ERR_NO_MEMORY; };
    op.after_success = [&](checks &c, const attempt &) {
      c.equal(join(strings_of(array)), m.want, "the strings");
    };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(array == nullptr, "an array came out");
    };
    op.teardown = [&] {
      if (array)
        ic_str_zarray_destroy(array);
      array = nullptr;
    };
    fault::expect_exercised(fault::run(op), op);
  }
}

TEST(FaultUtil, StringBufferInit) {
  fs_str_buf buf;
  bool made = false;
  operation op;
  op.name = "_fs_str_buf_init";
  op.call = [&] {
    const fsic_status s = _fs_str_buf_init(&buf, "/tmp/fs.x/sda1", "/WINDOWS", nullptr);
    made = s == FSIC_OK;
    return s;
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(std::string(buf.data), std::string("/tmp/fs.x/sda1/WINDOWS"), "text");
    c.equal(buf.len, 22u, "length");
    c.equal(buf.capacity, 23u, "capacity");
  };
  // Nothing to free after a failure (the buffer must not be freed then).
  op.teardown = [&] {
    if (made)
      _fs_str_buf_free(&buf);
    made = false;
  };
  fault::expect_exercised(fault::run(op), op);
}

// Appending past the block reallocates it; a failure leaves the buffer as it was.
TEST(FaultUtil, StringBufferAppend) {
  fs_str_buf buf;
  char *data_before = nullptr;
  operation op;
  op.name = "_fs_str_buf_append growing";
  op.setup = [&] {
    ASSERT_EQ(_fs_str_buf_init(&buf, "/mnt", nullptr), FSIC_OK);
    data_before = buf.data;
  };
  op.call = [&] { return _fs_str_buf_append(&buf, "/", "Program Files", nullptr); };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(std::string(buf.data), std::string("/mnt/Program Files"), "text");
    c.equal(buf.len, 18u, "length");
  };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(buf.data == data_before, "the block moved");
    c.equal(std::string(buf.data), std::string("/mnt"), "text");
    c.equal(buf.len, 4u, "length");
    c.equal(buf.capacity, 5u, "capacity");
  };
  op.teardown = [&] { _fs_str_buf_free(&buf); };
  fault::expect_exercised(fault::run(op), op);

  // A text that fits allocates nothing.
  operation fits = op;
  fits.name = "_fs_str_buf_append fitting";
  fits.setup = [&] {
    ASSERT_EQ(_fs_str_buf_init(&buf, "/mnt/Program Files", nullptr), FSIC_OK);
    _fs_str_buf_setlen(&buf, 4);
  };
  const fault::outcome o = fault::run(fits);
  EXPECT_EQ(o.points, 0);
}

// ---- write buffers ----------------------------------------------------------------------

std::string contents(const wb &w) {
  return std::string(reinterpret_cast<const char *>(w.data), w.used);
}

TEST(FaultBuffer, WriteBufferInit) {
  wb w;
  bool made = false;
  operation op;
  op.name = "wb_init";
  op.call = [&] {
    const fsic_status s = wb_init(&w, 0);
    made = s == FSIC_OK;
    return s;
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(w.capacity, 64u, "capacity");
    c.equal(w.used, 0u, "used");
  };
  op.teardown = [&] {
    if (made)
      wb_finalize(&w, 1);
    made = false;
  };
  fault::expect_exercised(fault::run(op), op);
}

// Each writer, called when the block is too small: a failure writes nothing and keeps
// the block and the bytes written before.
TEST(FaultBuffer, WritesThatGrowTheBlock) {
  struct writer {
    const char *name;
    uint32_t prefill; // bytes already written into a block of 8
    std::function<fsic_status(wb *)> write;
    std::string added;
  };
  const std::string text = "hello, world";
  const std::vector<writer> writers = {
      {"wb_write", 6, [](wb *w) { return wb_write(w, "0123456789", 10); }, "0123456789"},
      {"wb_write_uint16", 7, [](wb *w) { return wb_write_uint16(w, 0x0102); },
       std::string("\x02\x01", 2)},
      {"wb_write_uint32", 5, [](wb *w) { return wb_write_uint32(w, 0x01020304); },
       std::string("\x04\x03\x02\x01", 4)},
      // The length fits, the text does not: one reallocation.
      {"wb_write_str text grows", 4, [&](wb *w) { return wb_write_str(w, text.c_str()); },
       std::string("\x0c\x00", 2) + text},
      // The length and then the text grow the block: two reallocations.
      {"wb_write_str length and text grow", 7,
       [&](wb *w) { return wb_write_str(w, (text + text).c_str()); },
       std::string("\x18\x00", 2) + text + text},
  };
  for (const writer &wr : writers) {
    wb w;
    std::string before;
    uint8_t *data_before = nullptr;
    operation op;
    op.name = wr.name;
    op.setup = [&] {
      ASSERT_EQ(wb_init(&w, 8), FSIC_OK);
      ASSERT_EQ(wb_write(&w, "ABCDEFGH", wr.prefill), FSIC_OK);
      before = contents(w);
      data_before = w.data;
    };
    op.call = [&] { return wr.write(&w); };
    op.after_success = [&](checks &c, const attempt &) {
      c.equal(contents(w), before + wr.added, "contents");
    };
    op.after_failure = [&](checks &c, const attempt &) {
      c.equal(w.used, wr.prefill, "bytes used");
      c.equal(contents(w), before, "contents");
      // The first of two reallocations may have moved the block; it stays usable.
      if (wr.name != std::string("wb_write_str length and text grow"))
        c.that(w.data == data_before && w.capacity == 8, "the block changed");
    };
    // A failure may come after the block grew (the length's write before the text's).
    op.held = [&] { return fault::live_counts{1, fault::block_bytes(w.data)}; };
    op.teardown = [&] { wb_finalize(&w, 1); };
    fault::expect_exercised(fault::run(op), op);
  }
}

TEST(FaultBuffer, ReadAndCopyAString) {
  const std::string blob = std::string("\x05\x00hello\x02\x00", 9) + "ok";
  rb r;
  char *out = nullptr;
  char sentinel = 0;
  operation op;
  op.name = "rb_read_and_alloc_zstr";
  op.setup = [&] {
    rb_init(&r, blob.data(), static_cast<uint32_t>(blob.size()));
    out = &sentinel;
  };
  op.call = [&] { return rb_read_and_alloc_zstr(&r, &out); };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(std::string(out), std::string("hello"), "string");
    c.equal(r.pos, 7u, "position");
  };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(out == &sentinel, "a string came out");
    // The string's bytes stay consumed, as the header says.
    c.equal(r.pos, 7u, "position");
  };
  op.teardown = [&] {
    if (out != &sentinel)
      free(out);
    out = nullptr;
  };
  fault::expect_exercised(fault::run(op), op);
}

} // namespace
