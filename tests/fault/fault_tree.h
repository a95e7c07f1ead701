// The directory tree that the fault tests add to their lists: a few small files (the
// allocations do not depend on file sizes), files that the masks "*.txt" and "*.bin"
// admit and one they do not, a kept and a pruned subdirectory, and symbolic links to a
// file and to a directory (the scanner follows them).
#ifndef FSIC_TESTS_FAULT_FAULT_TREE_H
#define FSIC_TESTS_FAULT_FAULT_TREE_H

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <fsic/ocl.h>

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

// The masks of the tests: "*.txt" and "*.bin".
inline char *const *test_masks() {
  static char txt[] = "*.txt", bin[] = "*.bin";
  static char *const masks[] = {txt, bin, nullptr};
  return masks;
}

}  // namespace faulttest

#endif  // FSIC_TESTS_FAULT_FAULT_TREE_H
