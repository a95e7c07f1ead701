// Allocation failures in object control lists: creation, adds of files and directories
// with all 16 flag combinations (directories with and without masks) on a real tree,
// and the list's blob both ways. A failed add leaves the list byte for byte as it was
// (an object of the same path is kept), gives no object out and leaves nothing
// allocated; a failed read gives no list out; a failed write gives no blob out. Also
// the heap blocks that replacing an object and reading a cut blob leave in use.
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <fsic/check.h>
#include <fsic/ocl.h>

#include "fault_gtest.h"
#include "fault_tree.h"

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;
using faulttest::blob_of;
using faulttest::Bytes;

// The tree lives in <dir>/tree; the lists take <dir> as the base and "/tree/..." paths.
class FaultOcl : public faulttest::tree_suite {
protected:
  // A list holding "/tree/readme.txt" and an older object at `path` (of the same kind,
  // with other flags), which a failed add must keep.
  static fs_ocl *list_with_old(const std::string &path, bool dir) {
    fs_ocl *ocl = nullptr;
    EXPECT_EQ(fs_ocl_create(&ocl), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_file(ocl, base(), "/tree/readme.txt", CONTROL_DATA, nullptr), FSIC_OK);
    // Flag 16 means nothing but is kept: no add below makes the same object.
    if (dir)
      EXPECT_EQ(fs_ocl_add_dir(ocl, base(), path.c_str(), nullptr, 16, nullptr), FSIC_OK);
    else
      EXPECT_EQ(fs_ocl_add_file(ocl, base(), path.c_str(), 16, nullptr), FSIC_OK);
    return ocl;
  }

  // An add of `path` into list_with_old(): its state after a failure, and after a
  // success the same blob as every other successful run.
  static void exercise_add(const std::string &name, const std::string &path, bool dir,
                           std::function<fsic_status(fs_ocl *, fs_ocl_object **)> add,
                           fault::scope sc = fault::scope::library) {
    fs_ocl *ocl = nullptr;
    fs_ocl_object *old = nullptr, *out = nullptr;
    fs_ocl_object sentinel{};
    Bytes before, reference;
    operation op;
    op.name = name;
    op.sc = sc;
    op.setup = [&] {
      ocl = list_with_old(path, dir);
      old = fs_ocl_find_object(ocl, path.c_str());
      before = blob_of(ocl);
      out = &sentinel;
    };
    op.call = [&] { return add(ocl, &out); };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(blob_of(ocl) == before, "the list's blob changed");
      c.equal(ocl->count, 2u, "objects");
      c.that(fs_ocl_find_object(ocl, path.c_str()) == old, "the older object is gone");
      c.that(out == &sentinel, "an object came out");
    };
    op.after_success = [&](checks &c, const attempt &) {
      const Bytes now = blob_of(ocl);
      if (reference.empty())
        reference = now;
      c.that(now == reference, "the list differs from an undisturbed add's");
      c.that(now != before, "the list did not change");
      c.equal(ocl->count, 2u, "objects");
      c.that(out == fs_ocl_find_object(ocl, path.c_str()), "the new object did not come out");
    };
    op.teardown = [&] {
      fs_ocl_destroy(ocl);
      ocl = nullptr;
    };
    const fault::outcome o = fault::run(op);
    fault::expect_exercised(o, op);
  }

  // A list with every kind of object, for the blob tests.
  static fs_ocl *rich_list() {
    fs_ocl *ocl = nullptr;
    EXPECT_EQ(fs_ocl_create(&ocl), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_file(ocl, base(), "/tree/data.bin", 12, nullptr), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_file(ocl, base(), "/tree/readme.txt", 0, nullptr), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_dir(ocl, base(), "/tree", faulttest::test_masks(), 15, nullptr), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_dir(ocl, base(), "/tree/sub", nullptr, 14, nullptr), FSIC_OK);
    EXPECT_EQ(fs_ocl_add_dir(ocl, base(), "/tree/to_sub", nullptr, 9, nullptr), FSIC_OK);
    return ocl;
  }
};

TEST_F(FaultOcl, Create) {
  faulttest::exercise_create("fs_ocl_create", fs_ocl_create, fs_ocl_destroy, "objects");
}

// Destroying and removing allocate nothing; the runs show that they free everything.
TEST_F(FaultOcl, DestroyAndRemoveAllocateNothing) {
  fs_ocl *ocl = nullptr;
  operation destroy;
  destroy.name = "fs_ocl_destroy";
  destroy.setup = [&] { ocl = rich_list(); };
  destroy.call = [&] {
    fs_ocl_destroy(ocl);
    return FSIC_OK;
  };
  EXPECT_EQ(fault::run(destroy).points, 0);

  operation remove;
  remove.name = "fs_ocl_remove_object";
  remove.setup = [&] { ocl = rich_list(); };
  remove.call = [&] { return fs_ocl_remove_object(ocl, "/tree"); };
  remove.after_success = [&](checks &c, const attempt &) {
    c.equal(ocl->count, 4u, "objects");
    c.that(fs_ocl_find_object(ocl, "/tree") == nullptr, "the object is still there");
  };
  remove.teardown = [&] { fs_ocl_destroy(ocl); };
  EXPECT_EQ(fault::run(remove).points, 0);
}

TEST_F(FaultOcl, AddFileWithEveryFlagCombination) {
  for (uint32_t flags = 0; flags < 16; flags++) {
    exercise_add("fs_ocl_add_file flags=" + std::to_string(flags), "/tree/data.bin", false,
                 [flags](fs_ocl *ocl, fs_ocl_object **out) {
                   return fs_ocl_add_file(ocl, base(), "/tree/data.bin", flags, out);
                 });
  }
}

TEST_F(FaultOcl, AddDirWithEveryFlagCombination) {
  for (bool with_masks : {false, true}) {
    for (uint32_t flags = 0; flags < 16; flags++) {
      char *const *masks = with_masks ? faulttest::test_masks() : nullptr;
      exercise_add("fs_ocl_add_dir flags=" + std::to_string(flags) +
                       " masks=" + std::to_string(with_masks ? 2 : 0),
                   "/tree", true, [flags, masks](fs_ocl *ocl, fs_ocl_object **out) {
                     return fs_ocl_add_dir(ocl, base(), "/tree", masks, flags, out);
                   });
    }
  }
}

// Every allocation of the process, libc's own included (opendir's buffer, stdio): a
// failure there ends in 1 or 3, or is absorbed by libc, and leaves nothing behind.
TEST_F(FaultOcl, AddsWithEveryAllocationOfTheProcess) {
  FAULT_REQUIRE_PROCESS_SCOPE();
  exercise_add(
      "fs_ocl_add_file flags=12", "/tree/data.bin", false,
      [](fs_ocl *ocl, fs_ocl_object **out) {
        return fs_ocl_add_file(ocl, base(), "/tree/data.bin", 12, out);
      },
      fault::scope::process);
  exercise_add(
      "fs_ocl_add_dir flags=15 masks=2", "/tree", true,
      [](fs_ocl *ocl, fs_ocl_object **out) {
        return fs_ocl_add_dir(ocl, base(), "/tree", faulttest::test_masks(), 15, out);
      },
      fault::scope::process);
  exercise_add(
      "fs_ocl_add_dir flags=6 masks=0", "/tree", true,
      [](fs_ocl *ocl, fs_ocl_object **out) {
        return fs_ocl_add_dir(ocl, base(), "/tree", nullptr, 6, out);
      },
      fault::scope::process);
}

TEST_F(FaultOcl, WriteTheBlob) {
  fs_ocl *ocl = rich_list();
  faulttest::exercise_write_to_mem("fs_ocl_write_to_mem", fs_ocl_write_to_mem, ocl);
  fs_ocl_destroy(ocl);
}

TEST_F(FaultOcl, ReadTheBlob) {
  fs_ocl *source = rich_list();
  const Bytes blob = blob_of(source);
  fs_ocl_destroy(source);
  fs_ocl sentinel{};
  fs_ocl *ocl = nullptr;
  operation op;
  op.name = "fs_ocl_read_from_mem";
  op.setup = [&] { ocl = &sentinel; };
  op.call = [&] {
    return fs_ocl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &ocl);
  };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(ocl == &sentinel, "a list came out");
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(ocl->count, 5u, "objects");
    c.that(blob_of(ocl) == blob, "the list read back differs");
  };
  op.teardown = [&] {
    if (ocl != &sentinel)
      fs_ocl_destroy(ocl);
  };
  fault::expect_exercised(fault::run(op), op);
}

// Comparing two lists: a failure gives 3 and leaves nothing allocated; the records of a
// run that succeeds are those of an undisturbed one.
TEST_F(FaultOcl, CompareTwoLists) {
  fs_ocl *a = rich_list(), *b = rich_list();
  EXPECT_EQ(fs_ocl_remove_object(b, "/tree/readme.txt"), FSIC_OK);
  EXPECT_EQ(fs_ocl_add_dir(b, base(), "/tree/sub", nullptr, 15, nullptr), FSIC_OK);
  EXPECT_EQ(fs_ocl_add_file(b, base(), "/tree/sub/deeper/and/deeper/file", 12, nullptr),
            FSIC_ERR_UNAVAILABLE);
  faulttest::record_text got;
  std::string reference;
  operation op;
  op.name = "fs_ocl_compare";
  op.setup = [&] { got.used = 0; };
  op.call = [&] {
    return fs_ocl_compare(a, b, nullptr, faulttest::record_text::take, &got, nullptr);
  };
  op.after_failure = [&](checks &c, const attempt &at) {
    c.equal(at.status, FSIC_ERR_NO_MEMORY, "status");
  };
  op.after_success = [&](checks &c, const attempt &) {
    const std::string now = got.str();
    if (reference.empty())
      reference = now;
    c.that(now == reference, "the records differ from an undisturbed compare's");
    c.that(!now.empty(), "no records");
  };
  fault::expect_exercised(fault::run(op), op);
  fs_ocl_destroy(a);
  fs_ocl_destroy(b);
}

// Comparing a list with an equal one allocates one block, the entry path's, whatever
// the number of entries.
TEST_F(FaultOcl, ComparingEqualListsAllocatesOneBlock) {
  fs_ocl *a = rich_list(), *b = rich_list();
  int records = 0;
  auto count = [](const fs_change *, void *ctx) { ++*static_cast<int *>(ctx); };
  fault::arm(fault::scope::library, 0);
  EXPECT_EQ(fs_ocl_compare(a, b, nullptr, count, &records, nullptr), FSIC_OK);
  EXPECT_EQ(fault::disarm().allocations, 1);
  EXPECT_EQ(records, 0);
  fs_ocl_destroy(a);
  fs_ocl_destroy(b);
}

// Replacing an object frees the older one: the blocks in use depend only on what the
// list holds, not on how often an object was added.
TEST_F(FaultOcl, ReplacingAnObjectFreesTheOlderOne) {
  fs_ocl *ocl = rich_list();
  const Bytes snapshot = blob_of(ocl);
  const long start = fault::live().blocks;
  // A file object with hash and attributes is four blocks: object, path, hash, attrs.
  ASSERT_EQ(fs_ocl_add_file(ocl, base(), "/tree/sub/inner.txt", 12, nullptr), FSIC_OK);
  const long one = fault::live().blocks;
  EXPECT_EQ(one - start, 4);
  ASSERT_EQ(fs_ocl_add_file(ocl, base(), "/tree/sub/inner.txt", 12, nullptr), FSIC_OK);
  EXPECT_EQ(fault::live().blocks, one);
  ASSERT_EQ(fs_ocl_add_file(ocl, base(), "/tree/sub/inner.txt", 0, nullptr), FSIC_OK);
  EXPECT_EQ(fault::live().blocks, one - 2);
  ASSERT_EQ(fs_ocl_remove_object(ocl, "/tree/sub/inner.txt"), FSIC_OK);
  EXPECT_EQ(fault::live().blocks, start);
  // A directory object with its whole info tree, replaced by the same one.
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(fs_ocl_add_dir(ocl, base(), "/tree", faulttest::test_masks(), 15, nullptr), FSIC_OK);
    EXPECT_EQ(fault::live().blocks, start) << "add " << i;
  }
  EXPECT_EQ(blob_of(ocl), snapshot);
  fs_ocl_destroy(ocl);
}

// A blob cut anywhere ends in 1, gives no list out and leaves nothing allocated: every
// partly read object and list is released.
TEST_F(FaultOcl, CutBlobsLeaveNothingBehind) {
  fs_ocl *source = rich_list();
  const Bytes blob = blob_of(source);
  fs_ocl_destroy(source);
  fs_ocl sentinel{};
  for (size_t n = 0; n < blob.size(); n++) {
    fs_ocl *out = &sentinel;
    const fault::live_counts before = fault::live();
    ASSERT_EQ(fs_ocl_read_from_mem(blob.data(), static_cast<uint32_t>(n), &out), FSIC_ERR_FAILED)
        << "prefix of " << n << " bytes";
    ASSERT_EQ(fault::live().blocks, before.blocks) << "prefix of " << n << " bytes";
    ASSERT_EQ(out, &sentinel) << "prefix of " << n << " bytes";
  }
  EXPECT_FALSE(fault::leak_check_found_leaks());
}

} // namespace
