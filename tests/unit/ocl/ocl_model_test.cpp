// Random sequences of adds (real files and directories, and objects read from crafted
// blobs), replacements, removals, look-ups and iterations, checked after every step
// against a std::map from path to the object's expected blob encoding.
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/ocl.h>

#include "fs/ocl_internal.h"
#include "ocl_test_util.h"

namespace {

using namespace ocltest;

// A finished object taken out of a one-object blob, linked in nowhere.
fs_ocl_object *object_from_blob(const Obj &o) {
  Enc e;
  e.u32(1);
  encode_object(e, o);
  OclPtr tmp;
  if (read_blob(e.b, &tmp) != FSIC_OK)
    throw std::runtime_error("crafted object does not read");
  fs_ocl_object *obj = fs_ocl_first_object(tmp.get());
  rb_erase(&obj->node, &tmp->root);
  tmp->count--;
  return obj;
}

class OclModel : public ::testing::TestWithParam<uint32_t> {
protected:
  void SetUp() override {
    for (int i = 0; i < 6; i++)
      file_paths.push_back("/f" + std::to_string(i));
    for (int i = 0; i < 3; i++)
      dir_paths.push_back("/d" + std::to_string(i));
    pool = file_paths;
    pool.insert(pool.end(), dir_paths.begin(), dir_paths.end());
    for (const char *p : {"/v", "/v/", "/V", "/\xc3\xa9", "/a/b/c"})
      pool.push_back(p);
  }

  void rewrite_tree(Gen &g) {
    for (const auto &p : file_paths)
      write_file(t / p.substr(1), random_content(g));
    for (const auto &d : dir_paths) {
      std::filesystem::remove_all(t / d.substr(1));
      make_dirs(t / d.substr(1));
      uint32_t n = g.below(4);
      for (uint32_t i = 0; i < n; i++) {
        std::string name = g.name();
        if (name != "." && name != "..")
          write_file(t / (d.substr(1) + std::string("/") + name), random_content(g));
      }
    }
  }

  static std::string random_content(Gen &g) {
    std::string s(g.below(3000), '\0');
    for (auto &c : s)
      c = static_cast<char>(g.below(256));
    return s;
  }

  // What add_file must record for the real file.
  Obj expected_file(const std::string &path, uint32_t flags) {
    const std::string full = t / path.substr(1);
    struct stat st;
    EXPECT_EQ(stat(full.c_str(), &st), 0);
    std::ifstream in(full, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Obj o;
    o.type = FS_OCL_FILE;
    o.path = path;
    o.flags = flags;
    o.hash = gost(content);
    o.fattrs = file_attrs_of(st);
    return o;
  }

  // What add_dir with EACH_FILE (not RECURSIVE) must record for a flat directory.
  Obj expected_flat_dir(const std::string &path, uint32_t flags) {
    const std::string full = t / path.substr(1);
    Obj o;
    o.type = FS_OCL_DIR;
    o.path = path;
    o.flags = flags;
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(full))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    for (const auto &n : names) {
      Obj f = expected_file(path + std::string("/") + n, flags);
      o.info.files.push_back(FileEnt{n, f.hash, f.fattrs});
    }
    struct stat st;
    EXPECT_EQ(stat(full.c_str(), &st), 0);
    o.dattrs = dir_attrs_of(st);
    return o;
  }

  void check(fs_ocl *ocl, bool full) {
    ASSERT_EQ(ocl->count, model.size());
    std::vector<std::string> keys;
    for (const auto &kv : model)
      keys.push_back(kv.first);
    ASSERT_EQ(paths_of(ocl), keys);
    if (!full)
      return;
    Enc e;
    e.u32(static_cast<uint32_t>(model.size()));
    for (const auto &kv : model)
      e.raw(kv.second);
    ASSERT_EQ(blob_of(ocl), e.b);
  }

  TempDir t;
  std::vector<std::string> file_paths, dir_paths, pool;
  std::map<std::string, Bytes> model;
};

TEST_P(OclModel, RandomOperationsAgreeWithAMap) {
  Gen g(GetParam());
  rewrite_tree(g);
  OclPtr ocl = new_list();
  const std::string base = t.path();
  int replaced = 0, removed = 0, failed = 0;

  for (int step = 0; step < 400; step++) {
    SCOPED_TRACE("step " + std::to_string(step));
    const std::string path = pool[g.below(static_cast<uint32_t>(pool.size()))];
    const uint32_t op = g.below(100);
    const bool present = model.count(path) != 0;
    if (op < 30) { // a crafted object
      Obj o = g.object(path);
      _fs_ocl_add_object(ocl.get(), object_from_blob(o));
      model[path] = encode_object(o);
      replaced += present;
    } else if (op < 50) { // a real file, or a failed add of something else
      uint32_t flags = g.flags() | (g.chance(20) ? 0x10000u : 0);
      fs_ocl_object *out = nullptr;
      fsic_status s = fs_ocl_add_file(ocl.get(), base.c_str(), path.c_str(), flags, &out);
      if (std::find(file_paths.begin(), file_paths.end(), path) != file_paths.end()) {
        ASSERT_EQ(s, FSIC_OK);
        ASSERT_EQ(fs_ocl_find_object(ocl.get(), path.c_str()), out);
        model[path] = encode_object(expected_file(path, flags));
        replaced += present;
      } else {
        ASSERT_EQ(s, FSIC_ERR_UNAVAILABLE);
        failed++;
      }
    } else if (op < 62) { // a real flat directory with per-file info
      uint32_t flags = EACH_FILE | (g.flags() & (CONTROL_DATA | CONTROL_ATTRS));
      fsic_status s =
          fs_ocl_add_dir(ocl.get(), base.c_str(), path.c_str(), nullptr, flags, nullptr);
      if (std::find(dir_paths.begin(), dir_paths.end(), path) != dir_paths.end()) {
        ASSERT_EQ(s, FSIC_OK);
        model[path] = encode_object(expected_flat_dir(path, flags));
        replaced += present;
      } else {
        ASSERT_EQ(s, FSIC_ERR_UNAVAILABLE);
        failed++;
      }
    } else if (op < 65) { // relative paths never get in
      ASSERT_EQ(fs_ocl_add_file(ocl.get(), base.c_str(), path.c_str() + 1, 0, nullptr),
                FSIC_ERR_RELATIVE_PATH);
    } else if (op < 80) {
      fsic_status s = fs_ocl_remove_object(ocl.get(), path.c_str());
      ASSERT_EQ(s, present ? FSIC_OK : FSIC_ERR_NOT_FOUND);
      removed += present;
      model.erase(path);
    } else if (op < 97) {
      fs_ocl_object *o = fs_ocl_find_object(ocl.get(), path.c_str());
      ASSERT_EQ(o != nullptr, present);
      if (o) {
        ASSERT_EQ(std::string(o->path), path);
      }
    } else {
      rewrite_tree(g); // later real adds see new contents
    }
    check(ocl.get(), step % 5 == 0);
    if (HasFatalFailure())
      return;
  }
  check(ocl.get(), true);

  // The list survives its own blob.
  OclPtr back;
  ASSERT_EQ(read_blob(blob_of(ocl.get()), &back), FSIC_OK);
  check(back.get(), true);

  // Every kind of step happened.
  EXPECT_GT(replaced, 0);
  EXPECT_GT(removed, 0);
  EXPECT_GT(failed, 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, OclModel, ::testing::Range(1u, 13u));

} // namespace
