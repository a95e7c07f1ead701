// File and directory attribute records and the per-directory arrays of them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fs/ocl_internal.h"
#include "ocl_test_support.h"

using namespace ocltest;

namespace {

constexpr uint64_t four_gib = uint64_t{1} << 32;

// Files of 4 GiB and more, and files dated after January 2038, are stat()ed through the
// 64-bit interfaces (_FILE_OFFSET_BITS=64, _TIME_BITS=64), in a 32-bit build as well;
// with a 32-bit off_t or time_t their stat would fail with EOVERFLOW instead of giving
// the size's or the time's low bits.
static_assert(sizeof(off_t) == 8, "off_t is not 64 bits wide: large-file interfaces are off");
static_assert(sizeof(time_t) == 8, "time_t is not 64 bits wide: 64-bit time interfaces are off");

// The attributes of `path` as the scanners take them (links followed).
fs_ocl_file_attrs read_file_attrs(const std::string &path) {
  fs_ocl_file_attrs a{};
  struct stat st;
  EXPECT_EQ(stat_entry(path, &st), 0u) << path;
  _fs_ocl_stat_to_file_attrs(&st, &a);
  return a;
}

fsic_status read_dir_attrs(const std::string &path, fs_ocl_dir_attrs *d) {
  struct stat st;
  fsic_status status = stat_entry(path, &st);
  if (status == 0)
    _fs_ocl_stat_to_dir_attrs(&st, d);
  return status;
}

// Scans `dir` for its files and subdirectories.
fsic_status scan_all(const std::string &dir, char ***files, int *nfiles, char ***subdirs,
                     int *nsubdirs) {
  Walk w(dir);
  return _fs_ocl_scan_dir(w.get(), w.fd(), nullptr, files, nfiles, subdirs, nsubdirs);
}

TEST(OclAttrs, RecordSizes) {
  EXPECT_EQ(sizeof(fs_ocl_file_attrs), 16u);
  EXPECT_EQ(sizeof(fs_ocl_dir_attrs), 8u);
}

TEST(OclAttrs, StatToFileAttrsKeepsTheLowBits) {
  struct stat st {};
  st.st_mode = S_IFREG | 0640;
  st.st_uid = 0x12345;
  st.st_gid = 0x10002;
  st.st_size = static_cast<off_t>(four_gib + 5);
  st.st_mtime = static_cast<time_t>(1700000000);
  fs_ocl_file_attrs a{};
  _fs_ocl_stat_to_file_attrs(&st, &a);
  EXPECT_EQ(a.mode, static_cast<uint32_t>(S_IFREG | 0640));
  EXPECT_EQ(a.uid, 0x2345);
  EXPECT_EQ(a.gid, 2);
  EXPECT_EQ(a.size, 5u);
  EXPECT_EQ(a.mtime, 1700000000u);
}

TEST(OclAttrs, StatToFileAttrsWrapsAWideMtime) {
  struct stat st {};
  st.st_mtime = static_cast<time_t>(int64_t{0x100000007});
  fs_ocl_file_attrs a{};
  _fs_ocl_stat_to_file_attrs(&st, &a);
  EXPECT_EQ(a.mtime, 7u);
}

TEST(OclAttrs, FileAttrsFromTheFileSystem) {
  TempTree t;
  t.file("f", "hello", 0640);
  t.mtime("f", 1234567890);
  fs_ocl_file_attrs a = read_file_attrs(t.path("f"));
  struct stat st = t.stat_of("f");
  EXPECT_EQ(a.mode, static_cast<uint32_t>(S_IFREG | 0640));
  EXPECT_EQ(a.uid, st.st_uid & 0xFFFF);
  EXPECT_EQ(a.gid, st.st_gid & 0xFFFF);
  EXPECT_EQ(a.size, 5u);
  EXPECT_EQ(a.mtime, 1234567890u);
}

TEST(OclAttrs, SparseFileOfFourGibPlusFiveBytesHasSizeFive) {
  TempTree t;
  t.file("big");
  ASSERT_EQ(truncate(t.path("big").c_str(), static_cast<off_t>(four_gib + 5)), 0);
  ASSERT_EQ(static_cast<uint64_t>(t.stat_of("big").st_size), four_gib + 5);
  EXPECT_EQ(read_file_attrs(t.path("big")).size, 5u);
}

// The whole way of a large file: the scanner lists it with the regular files; the
// per-directory array, a file object and a directory object of a list (attributes
// only, nothing is read) take the low 32 bits of its size.
TEST(OclAttrs, SparseFileOfFourGibPlusFiveBytesThroughTheScanAndTheList) {
  TempTree t;
  t.dir("d");
  t.file("d/big");
  ASSERT_EQ(truncate(t.path("d/big").c_str(), static_cast<off_t>(four_gib + 5)), 0);

  char **files = nullptr, **subdirs = nullptr;
  int nfiles = 0, nsubdirs = 0;
  ASSERT_EQ(scan_all(t.path("d"), &files, &nfiles, &subdirs, &nsubdirs), 0u);
  ASSERT_EQ(nfiles, 1);
  EXPECT_STREQ(files[0], "big");
  EXPECT_EQ(nsubdirs, 0);
  Walk dir(t.path("d"));
  fs_ocl_file_attrs *fa = nullptr;
  ASSERT_EQ(_fs_ocl_create_file_attrs_array(dir.get(), dir.fd(), files, nfiles, nullptr, &fa), 0u);
  EXPECT_EQ(fa[0].size, 5u);
  free(fa);
  _fs_ocl_free_str_array(files, nfiles);
  _fs_ocl_free_str_array(subdirs, nsubdirs);

  fs_ocl *ocl = nullptr;
  ASSERT_EQ(fs_ocl_create(&ocl), 0u);
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl, t.root().c_str(), "/d/big", CONTROL_ATTRS, &obj), 0u);
  auto *file = reinterpret_cast<fs_ocl_file_object *>(obj);
  ASSERT_NE(file->attrs, nullptr);
  EXPECT_EQ(file->attrs->size, 5u);
  EXPECT_EQ(file->hash, nullptr);

  ASSERT_EQ(fs_ocl_add_dir(ocl, t.root().c_str(), "/d", nullptr, EACH_FILE | CONTROL_ATTRS, &obj),
            0u);
  auto *d = reinterpret_cast<fs_ocl_dir_object *>(obj);
  ASSERT_NE(d->info, nullptr);
  ASSERT_EQ(d->info->file_count, 1);
  ASSERT_NE(d->info->file_attrs, nullptr);
  EXPECT_EQ(d->info->file_attrs[0].size, 5u);
  EXPECT_EQ(d->info->file_hashes, nullptr);
  fs_ocl_destroy(ocl);
}

TEST(OclAttrs, MtimeBeyond32BitsWraps) {
  TempTree t;
  t.file("f");
  t.mtime("f", static_cast<time_t>(int64_t{0x100000009}));
  if (static_cast<int64_t>(t.stat_of("f").st_mtime) != int64_t{0x100000009})
    GTEST_SKIP() << "the file system does not keep times past 2106";
  EXPECT_EQ(read_file_attrs(t.path("f")).mtime, 9u);
}

// 2040-01-01 00:00:00 UTC: past the range of a 32-bit time_t, within that of the
// record's 32 bits.
TEST(OclAttrs, AFileDatedAfter2038IsAddedWithItsTime) {
  constexpr int64_t y2040 = 2208988800;
  TempTree t;
  t.file("f");
  t.mtime("f", static_cast<time_t>(y2040));
  if (static_cast<int64_t>(t.stat_of("f").st_mtime) != y2040)
    GTEST_SKIP() << "the file system does not keep times past 2038";
  EXPECT_EQ(read_file_attrs(t.path("f")).mtime, uint32_t{2208988800u});
  fs_ocl *ocl = nullptr;
  ASSERT_EQ(fs_ocl_create(&ocl), 0u);
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl, t.root().c_str(), "/f", CONTROL_ATTRS, &obj), 0u);
  EXPECT_EQ(reinterpret_cast<fs_ocl_file_object *>(obj)->attrs->mtime, uint32_t{2208988800u});
  fs_ocl_destroy(ocl);
}

TEST(OclAttrs, Uid65536IsStoredAsZero) {
  TempTree t;
  t.file("f");
  t.dir("d");
  if (chown(t.path("f").c_str(), 65536, 65537) != 0 ||
      chown(t.path("d").c_str(), 65536 + 7, 65536 + 9) != 0)
    GTEST_SKIP() << "cannot chown to ids above 65535 here: " << strerror(errno);
  fs_ocl_file_attrs a = read_file_attrs(t.path("f"));
  EXPECT_EQ(a.uid, 0);
  EXPECT_EQ(a.gid, 1);
  fs_ocl_dir_attrs d{};
  ASSERT_EQ(read_dir_attrs(t.path("d"), &d), 0u);
  EXPECT_EQ(d.uid, 7);
  EXPECT_EQ(d.gid, 9);
}

TEST(OclAttrs, ALinkGetsItsTargetsAttributes) {
  TempTree t;
  t.file("target", "12345678", 0600);
  t.dir("dir", 0750);
  t.link("file_link", "target");
  t.link("dir_link", "dir");
  fs_ocl_file_attrs a = read_file_attrs(t.path("file_link"));
  EXPECT_EQ(a.mode, static_cast<uint32_t>(S_IFREG | 0600));
  EXPECT_EQ(a.size, 8u);
  fs_ocl_dir_attrs d{};
  ASSERT_EQ(read_dir_attrs(t.path("dir_link"), &d), 0u);
  EXPECT_EQ(d.mode, static_cast<uint32_t>(S_IFDIR | 0750));
}

TEST(OclAttrs, StatFailureIsOne) {
  TempTree t;
  t.link("dangling", "nowhere");
  struct stat st;
  EXPECT_EQ(stat_entry(t.path("missing"), &st), 1u);
  EXPECT_EQ(stat_entry(t.path("dangling"), &st), 1u);
  fs_ocl_dir_attrs d{};
  EXPECT_EQ(read_dir_attrs(t.path("missing"), &d), 1u);
}

TEST(OclAttrs, StatToDirAttrs) {
  TempTree t;
  t.dir("d", 0710);
  struct stat st = t.stat_of("d");
  fs_ocl_dir_attrs out{};
  _fs_ocl_stat_to_dir_attrs(&st, &out);
  EXPECT_EQ(out.mode, static_cast<uint32_t>(S_IFDIR | 0710));
  EXPECT_EQ(out.uid, st.st_uid & 0xFFFF);
  EXPECT_EQ(out.gid, st.st_gid & 0xFFFF);
}

TEST(OclAttrs, FileAttrsArrayFollowsTheNames) {
  TempTree t;
  t.file("a", "1", 0600);
  t.file("b b", "22", 0644);
  t.file("c\xff", "333", 0755);
  t.mtime("b b", 1000);
  char *names[] = {const_cast<char *>("c\xff"), const_cast<char *>("a"), const_cast<char *>("b b")};
  Walk dir(t.root());
  fs_ocl_file_attrs *out = nullptr;
  ASSERT_EQ(_fs_ocl_create_file_attrs_array(dir.get(), dir.fd(), names, 3, nullptr, &out), 0u);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(dir.text(), t.root());
  EXPECT_EQ(out[0].mode, static_cast<uint32_t>(S_IFREG | 0755));
  EXPECT_EQ(out[0].size, 3u);
  EXPECT_EQ(out[1].mode, static_cast<uint32_t>(S_IFREG | 0600));
  EXPECT_EQ(out[1].size, 1u);
  EXPECT_EQ(out[2].size, 2u);
  EXPECT_EQ(out[2].mtime, 1000u);
  free(out);
}

TEST(OclAttrs, AnEmptyNameListGivesANullArray) {
  TempTree t;
  Walk dir(t.root());
  fs_ocl_file_attrs *files = reinterpret_cast<fs_ocl_file_attrs *>(uintptr_t{8});
  EXPECT_EQ(_fs_ocl_create_file_attrs_array(dir.get(), dir.fd(), nullptr, 0, nullptr, &files), 0u);
  EXPECT_EQ(files, nullptr);
  EXPECT_EQ(dir.text(), t.root());
}

// The names come from a real scan; one file is deleted before its attributes are read.
TEST(OclAttrs, AFileDeletedAfterTheScanFailsTheWholeArray) {
  TempTree t;
  t.file("a");
  t.file("b");
  t.file("c");
  t.dir("s");
  t.dir("u");
  char **files = nullptr, **subdirs = nullptr;
  int nfiles = 0, nsubdirs = 0;
  ASSERT_EQ(scan_all(t.root(), &files, &nfiles, &subdirs, &nsubdirs), 0u);
  ASSERT_EQ(nfiles, 3);
  ASSERT_EQ(nsubdirs, 2);
  t.remove("b");
  t.remove("u");

  Walk dir(t.root());
  fs_ocl_file_attrs *fa = reinterpret_cast<fs_ocl_file_attrs *>(uintptr_t{8});
  EXPECT_EQ(_fs_ocl_create_file_attrs_array(dir.get(), dir.fd(), files, nfiles, nullptr, &fa), 1u);
  EXPECT_EQ(fa, reinterpret_cast<fs_ocl_file_attrs *>(uintptr_t{8}));
  EXPECT_EQ(dir.text(), t.root());
  _fs_ocl_free_str_array(files, nfiles);
  _fs_ocl_free_str_array(subdirs, nsubdirs);
}

} // namespace
