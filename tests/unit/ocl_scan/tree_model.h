// An independent model of the directory hash and the directory control info, written
// from the feeding rules with std::filesystem, stat() and the oracle hash of
// ocl_test_support.h (libgcrypt or the slow reference), to check the library's values
// against. Each level's message is built in memory and hashed whole.
#ifndef FSIC_TESTS_UNIT_OCL_SCAN_TREE_MODEL_H
#define FSIC_TESTS_UNIT_OCL_SCAN_TREE_MODEL_H

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include <fsic/ocl.h>

#include "ocl_test_support.h"

namespace ocltest {

// Shell wildcard match with "*" and "?" (no brackets, no escapes); "*" and "?" match
// any byte, a leading "." and "/" included.
bool glob_match(const char *pattern, const char *name);

struct ModelScan {
  std::vector<std::string> files;   // regular files (links followed) that the masks admit
  std::vector<std::string> subdirs; // directories (links followed), when asked for
};

// Lists `dir`, byte-sorted; throws std::runtime_error when an entry cannot be stat'ed.
ModelScan model_scan(const std::string &dir, const Masks &masks, bool want_subdirs);

// The hashed attribute bytes: mode, uid, gid (and size, mtime for files), little-endian,
// truncated to the record widths.
std::string model_file_attrs(const struct stat &st);
std::string model_dir_attrs(const struct stat &st);

// GOST of the whole content of a file.
Digest model_file_hash(const std::string &path);

Digest model_inner_hash(const std::string &dir, const Masks &masks, uint32_t flags, bool *empty);
Digest model_dir_hash(const std::string &dir, const Masks &masks, uint32_t flags);

struct ModelInfo {
  std::vector<std::string> subdir_names;
  std::vector<std::unique_ptr<ModelInfo>> subdirs;
  std::vector<struct stat> subdir_stats;
  std::vector<std::string> file_names;
  std::vector<Digest> file_hashes;
  std::vector<struct stat> file_stats;
};

// NULL for an empty non-root level.
std::unique_ptr<ModelInfo> model_dir_info(const std::string &dir, const Masks &masks,
                                          uint32_t flags, bool root);

// GoogleTest expectations that `info` equals the model, field by field, with the
// arrays present exactly as `flags` ask. `where` names the level in messages.
void expect_info_matches(const fs_ocl_dir_info *info, const ModelInfo &model, uint32_t flags,
                         const std::string &where);

} // namespace ocltest

#endif
