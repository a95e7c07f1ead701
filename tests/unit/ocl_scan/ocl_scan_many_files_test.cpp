// Many files hashed at once give what one file at a time gives: the same blob, the same
// directory hash, the same status when a file cannot be read, also with the streams
// capped (FSIC_HASH_STREAMS) and with too few descriptors to open them all.

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <fsic/ocl.h>

#include "ocl_test_support.h"

using namespace ocltest;

namespace {

constexpr uint32_t kEachFile = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
constexpr uint32_t kDirHash = RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;

// FSIC_HASH_STREAMS for a scope ("" unsets it).
class Streams : public support::scoped_env {
public:
  explicit Streams(const std::string &value)
      : scoped_env("FSIC_HASH_STREAMS",
                   value.empty() ? std::nullopt : std::optional<std::string>(value)) {}
};

// "f0000", "f0001", ...: names whose order is their number's.
std::string name(const char *prefix, int i) {
  char buf[32];
  snprintf(buf, sizeof buf, "%s%04d", prefix, i);
  return buf;
}

// What an add of the tree gives: its status and the list's blob.
struct Added {
  fsic_status status = 0;
  std::string blob;
};

Added add(const TempTree &t, const std::string &path, uint32_t flags) {
  Added a;
  fs_ocl *ocl = nullptr;
  if (fs_ocl_create(&ocl) != 0)
    throw std::runtime_error("fs_ocl_create");
  fs_ocl_object *obj = nullptr;
  a.status = fs_ocl_add_dir(ocl, t.root().c_str(), path.c_str(), nullptr, flags, &obj);
  uint8_t *data = nullptr;
  uint32_t size = 0;
  if (a.status == 0 && fs_ocl_write_to_mem(ocl, &data, &size) == 0) {
    a.blob.assign(reinterpret_cast<const char *>(data), size);
    free(data);
  }
  fs_ocl_destroy(ocl);
  return a;
}

Added add_one_at_a_time(const TempTree &t, const std::string &path, uint32_t flags) {
  Streams s("1");
  return add(t, path, flags);
}

// Under the sanitizers (unoptimised) the larger files are smaller.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kLarge = 40000;
#else
constexpr size_t kLarge = 400000;
#endif

// Sizes around the block (32 bytes) and the read (128 KiB), empty files, and others.
size_t pick_size(std::mt19937 &rng) {
  static const size_t edges[] = {0,      1,          31,          32,         33,
                                 64,     4095,       4096,        131071,     131072,
                                 131073, 262144 + 5, 131072 - 32, 131072 + 32};
  if (rng() % 3 == 0)
    return edges[rng() % (sizeof edges / sizeof edges[0])];
  return rng() % (rng() % 4 == 0 ? kLarge : 9000);
}

// Directories of 0 to 600 files (more than one window of results), some alone.
void make_tree(const TempTree &t, uint32_t seed) {
  std::mt19937 rng(seed);
  const int counts[] = {600, 1, 2, 8, 9, 10, 31, 32, 33, 65, 100, 0};
  t.dir("top");
  for (size_t d = 0; d < sizeof counts / sizeof counts[0]; ++d) {
    const std::string dir = "top/d" + std::to_string(d);
    t.dir(dir);
    for (int i = 0; i < counts[d]; ++i)
      t.file(dir + "/" + name("f", i), random_bytes(pick_size(rng), rng()));
  }
  for (int i = 0; i < 5; ++i)
    t.file("top/" + name("g", i), random_bytes(pick_size(rng), rng()));
}

// Counts this process's open descriptors.
int open_descriptors() {
  int n = 0;
  DIR *d = opendir("/proc/self/fd");
  if (!d)
    return -1;
  while (readdir(d))
    ++n;
  closedir(d);
  return n - 3; // ".", ".." and the directory's own
}

TEST(OclManyFiles, AddsTheSameAsOneFileAtATime) {
  TempTree t;
  make_tree(t, 1);
  for (uint32_t flags : {kEachFile, kDirHash}) {
    const Added one = add_one_at_a_time(t, "/top", flags);
    Added many;
    {
      Streams s("");
      many = add(t, "/top", flags);
    }
    ASSERT_EQ(one.status, 0u);
    ASSERT_EQ(many.status, 0u);
    ASSERT_FALSE(one.blob.empty());
    EXPECT_TRUE(one.blob == many.blob) << "flags " << flags;
  }
}

TEST(OclManyFiles, EachFileHashIsTheOracles) {
  TempTree t;
  std::mt19937 rng(2);
  std::vector<std::string> contents;
  for (int i = 0; i < 150; ++i) {
    contents.push_back(random_bytes(pick_size(rng), rng()));
    t.file(name("f", i), contents.back());
  }
  fs_ocl *ocl = nullptr;
  ASSERT_EQ(fs_ocl_create(&ocl), 0u);
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(ocl, t.root().c_str(), "/", nullptr, kEachFile, &obj), 0u);
  const fs_ocl_dir_info *info = reinterpret_cast<fs_ocl_dir_object *>(obj)->info;
  ASSERT_EQ(info->file_count, 150);
  for (int i = 0; i < 150; ++i) {
    EXPECT_EQ(std::string(info->file_names[i]), name("f", i));
    const Digest d = gost(contents[i].data(), contents[i].size());
    EXPECT_EQ(hex(info->file_hashes[i], 32), hex(d.data(), 32)) << "file " << i;
    EXPECT_EQ(info->file_attrs[i].size, contents[i].size());
  }
  fs_ocl_destroy(ocl);
}

TEST(OclManyFiles, AnyStreamCapGivesTheSameList) {
  TempTree t;
  make_tree(t, 3);
  const Added one = add_one_at_a_time(t, "/top", kEachFile);
  ASSERT_EQ(one.status, 0u);
  for (const char *cap : {"2", "8", "9", "33", "64", "1000", "0", "-3", "junk", "7x"}) {
    Streams s(cap);
    const Added a = add(t, "/top", kEachFile);
    EXPECT_EQ(a.status, 0u) << cap;
    EXPECT_TRUE(a.blob == one.blob) << "FSIC_HASH_STREAMS=" << cap;
  }
}

// A file that cannot be opened among many (no permission, for a user other than root)
// fails the add with 1, as one file at a time does, and leaves nothing open.
TEST(OclManyFiles, AnUnreadableFileAmongManyFailsTheAdd) {
  TempTree t;
  ASSERT_EQ(chmod(t.root().c_str(), 0755), 0);
  t.dir("d", 0755);
  for (int i = 0; i < 60; ++i)
    t.file("d/" + name("f", i), random_bytes(1000 + 37 * i, i), i == 40 ? 0000 : 0644);
  for (uint32_t flags : {kEachFile, kDirHash}) {
    for (const char *cap : {"1", ""}) {
      SCOPED_TRACE(std::to_string(flags) + " FSIC_HASH_STREAMS=" + cap);
      const int code = run_unprivileged([&] {
        Streams s(cap);
        const int before = open_descriptors();
        const Added a = add(t, "/d", flags);
        return open_descriptors() == before ? int(a.status) : 100;
      });
      ASSERT_NE(code, -1) << "the child could not give up root";
      EXPECT_EQ(code, 1);
    }
  }
}

// Restores the descriptor limit when it goes out of scope.
class FdLimit {
public:
  explicit FdLimit(rlim_t soft) {
    if (getrlimit(RLIMIT_NOFILE, &saved_) != 0)
      throw std::runtime_error("getrlimit");
    struct rlimit r = saved_;
    r.rlim_cur = soft;
    if (setrlimit(RLIMIT_NOFILE, &r) != 0)
      throw std::runtime_error("setrlimit");
  }
  ~FdLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
  FdLimit(const FdLimit &) = delete;
  FdLimit &operator=(const FdLimit &) = delete;

private:
  struct rlimit saved_ {};
};

// With descriptors for only a few files besides the walk's own, the files that cannot
// be opened while others are open are read when the others are done.
TEST(OclManyFiles, TooFewDescriptorsStillAddsEveryFile) {
  TempTree t;
  make_tree(t, 4);
  const Added one = add_one_at_a_time(t, "/top", kEachFile);
  ASSERT_EQ(one.status, 0u);
  const int open_now = open_descriptors();
  ASSERT_GT(open_now, 0);
  Added many;
  {
    // The walk holds the base, the directories on its way down and the files it reads.
    FdLimit limit(rlim_t(open_now + 8));
    many = add(t, "/top", kEachFile);
  }
  EXPECT_EQ(many.status, 0u);
  EXPECT_TRUE(many.blob == one.blob);
  EXPECT_EQ(open_descriptors(), open_now);
}

} // namespace
