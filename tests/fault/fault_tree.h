// The directory tree that the fault tests add to their lists: a few small files (the
// allocations do not depend on file sizes), files that the masks "*.txt" and "*.bin"
// admit and one they do not, a kept and a pruned subdirectory, and symbolic links to a
// file and to a directory (the scanner follows them). Also the lists' blobs and the
// operation that writes one to memory, which the object and integrity list tests share.
#ifndef FSIC_TESTS_FAULT_FAULT_TREE_H
#define FSIC_TESTS_FAULT_FAULT_TREE_H

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <fsic/check.h>
#include <fsic/ocl.h>

#include "fault_gtest.h"
#include "tests/support/files.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/ocl/ocl_test_util.h"

namespace faulttest {

using Bytes = std::vector<uint8_t>;
using support::temp_dir;
using support::write_file;

// Makes the tree in the directory `root` (created).
inline void make_tree(const std::string &root) {
  namespace fs = std::filesystem;
  write_file(root + "/readme.txt", "read me\n");
  write_file(root + "/data.bin", std::string(700, 'd'));
  write_file(root + "/notes.log", "not admitted by the masks\n");
  write_file(root + "/sub/inner.txt", "inner\n");
  write_file(root + "/sub/deeper/deep.bin", "deep");
  write_file(root + "/sub/deeper/other.log", "other");
  write_file(root + "/logs_only/x.log", "pruned under the masks");
  fs::create_directories(root + "/empty");
  fs::create_symlink("readme.txt", root + "/link.txt");
  fs::create_symlink("sub", root + "/to_sub");
}

// The list's blob (the checks that use it run with the injector disarmed).
using ocltest::blob_of;

// `write` (fs_ocl_write_to_mem, fs_icl_write_to_mem) of the list, run with every
// allocation failing in turn: a failure gives no blob out and leaves the list as it
// was, a success gives the blob of an undisturbed write.
template <class Write, class List>
void exercise_write_to_mem(const std::string &name, Write write, const List *list) {
  const Bytes reference = ocltest::blob_by(write, list);
  uint8_t sentinel = 0;
  uint8_t *data = nullptr;
  uint32_t size = 0;
  fault::operation op;
  op.name = name;
  op.setup = [&] {
    data = &sentinel;
    size = 12345;
  };
  op.call = [&] { return write(list, &data, &size); };
  op.after_failure = [&](fault::checks &c, const fault::attempt &) {
    c.that(data == &sentinel && size == 12345, "a blob came out");
    c.that(ocltest::blob_by(write, list) == reference, "the list changed");
  };
  op.after_success = [&](fault::checks &c, const fault::attempt &) {
    c.that(Bytes(data, data + size) == reference, "the blob differs");
  };
  op.teardown = [&] {
    if (data != &sentinel)
      free(data);
  };
  fault::expect_exercised(fault::run(op), op);
}

// A test suite whose tests share one tree, made in <dir>/tree before its first test and
// removed after its last; the lists take <dir> as the base and "/tree/..." paths.
class tree_suite : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    dir_ = new temp_dir("fsic-fault");
    make_tree(dir_->path() + "/tree");
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static const char *base() { return dir_->path().c_str(); }

private:
  static inline temp_dir *dir_ = nullptr;
};

// `create` (fs_ocl_create, fs_icl_create) run with every allocation failing in turn: a
// failure gives no list out, a success an empty one (`count` members: `what`).
template <class List>
void exercise_create(const std::string &name, fsic_status (*create)(List **),
                     void (*destroy)(List *), const char *what) {
  List sentinel{};
  List *list = nullptr;
  fault::operation op;
  op.name = name;
  op.setup = [&] { list = &sentinel; };
  op.call = [&] { return create(&list); };
  op.after_failure = [&](fault::checks &c, const fault::attempt &) {
    c.that(list == &sentinel, "a list came out");
  };
  op.after_success = [&](fault::checks &c, const fault::attempt &) {
    c.equal(list->count, 0u, what);
  };
  op.teardown = [&] {
    if (list != &sentinel)
      destroy(list);
  };
  fault::expect_exercised(fault::run(op), op);
}

// The records of a compare or check as text, one line each ("<kind> <entry path>
// <fields> <status>"), in a fixed buffer: the callback allocates nothing of its own.
struct record_text {
  char bytes[8192];
  size_t used = 0;

  static void take(const fs_change *change, void *ctx) {
    auto *t = static_cast<record_text *>(ctx);
    const int n =
        snprintf(t->bytes + t->used, sizeof t->bytes - t->used, "%u %s %u %u\n", change->kind,
                 change->entry_path ? change->entry_path : "-", change->fields, change->status);
    if (n > 0)
      t->used = std::min(sizeof t->bytes - 1, t->used + static_cast<size_t>(n));
  }
  std::string str() const { return std::string(bytes, used); }
};

// The masks of the tests: "*.txt" and "*.bin".
inline char *const *test_masks() {
  static char txt[] = "*.txt", bin[] = "*.bin";
  static char *const masks[] = {txt, bin, nullptr};
  return masks;
}

} // namespace faulttest

#endif // FSIC_TESTS_FAULT_FAULT_TREE_H
