// Files that change while they are hashed, alone (a file object) and among other files
// of a directory, which are read with it at once. The executable is linked with
// --wrap=pread64 and --wrap=read, so the library's reads go through the wrappers below,
// which let the test rewrite, grow or shrink the file being read right after a read of
// it. A file that changes once must give the hash of one whole version with that
// version's size; one that changes on every pass must give 13; never a hash of neither.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include <fsic/ocl.h>

#include "ocl_test_support.h"

using namespace ocltest;

namespace {
// Called after each read of the library with the descriptor, the offset (-1 for read)
// and the result.
std::function<void(int, long long, ssize_t)> after_read;
// When set, the length that each read of the library asks for is cut to what it returns
// for the asked length.
std::function<size_t(size_t)> read_length;
bool in_hook = false;

void run_hook(int fd, long long off, ssize_t n) {
  if (after_read && !in_hook) {
    in_hook = true;
    after_read(fd, off, n);
    in_hook = false;
  }
}
} // namespace

extern "C" ssize_t __real_pread64(int fd, void *buf, size_t n, off_t off);
extern "C" ssize_t __wrap_pread64(int fd, void *buf, size_t n, off_t off) {
  if (read_length && n > 1)
    n = std::min(n, read_length(n));
  ssize_t r = __real_pread64(fd, buf, n, off);
  run_hook(fd, off, r);
  return r;
}

extern "C" ssize_t __real_read(int fd, void *buf, size_t n);
extern "C" ssize_t __wrap_read(int fd, void *buf, size_t n) {
  ssize_t r = __real_read(fd, buf, n);
  run_hook(fd, -1, r);
  return r;
}

namespace {

const size_t kSize = 300 * 1024; // several reads long, alone and among other files

class OclTornRead : public ::testing::Test {
protected:
  void SetUp() override {
    v1_ = random_bytes(kSize, 1);
    v2_ = random_bytes(kSize / 2 + 7, 2);
    t_.file("f", v1_);
    ino_ = t_.stat_of("f").st_ino;
    // Other files beside "f" (after it in name order), so that the directory's files
    // are read many at once, "f" among them.
    for (int i = 0; i < 12; ++i)
      t_.file("g" + std::to_string(i), random_bytes(1000 * i + 5, 10 + i));
  }
  void TearDown() override {
    after_read = nullptr;
    read_length = nullptr;
  }

  bool is_target(int fd) const {
    struct stat st;
    return fstat(fd, &st) == 0 && st.st_ino == ino_;
  }
  // Replaces the file's bytes in place (same inode, new size, new mtime and ctime).
  void rewrite(const std::string &content) const {
    int fd = open(t_.path("f").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, content.data(), content.size()), (ssize_t)content.size());
    close(fd);
  }
  void append(const std::string &more) const {
    int fd = open(t_.path("f").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, more.data(), more.size()), (ssize_t)more.size());
    close(fd);
  }

  // Adds the file and its directory (EACH_FILE) with both controls; `check` sees each
  // object's status, hash and size.
  void add_both(const std::function<void()> &arm,
                const std::function<void(fsic_status, const uint8_t *, uint32_t)> &check) {
    fs_ocl *ocl = nullptr;
    ASSERT_EQ(fs_ocl_create(&ocl), 0u);
    const uint32_t flags = CONTROL_DATA | CONTROL_ATTRS;
    arm();
    fs_ocl_object *obj = nullptr;
    fsic_status status = fs_ocl_add_file(ocl, t_.root().c_str(), "/f", flags, &obj);
    after_read = nullptr;
    {
      SCOPED_TRACE("file object");
      auto *f = reinterpret_cast<fs_ocl_file_object *>(obj);
      check(status, status == 0 ? f->hash : nullptr, status == 0 ? f->attrs->size : 0);
    }
    t_.file("f", v1_);
    ino_ = t_.stat_of("f").st_ino;
    arm();
    status = fs_ocl_add_dir(ocl, t_.root().c_str(), "/", nullptr, EACH_FILE | flags, &obj);
    after_read = nullptr;
    {
      SCOPED_TRACE("directory object");
      auto *d = reinterpret_cast<fs_ocl_dir_object *>(obj);
      check(status, status == 0 ? d->info->file_hashes[0] : nullptr,
            status == 0 ? d->info->file_attrs[0].size : 0);
    }
    fs_ocl_destroy(ocl);
  }

  TempTree t_;
  std::string v1_, v2_;
  ino_t ino_ = 0;
};

// Rewritten once, after the first read: the hash and size are those of one whole
// version (13 would be allowed too, and is not what a second, quiet pass gives).
TEST_F(OclTornRead, AFileRewrittenOnceGivesOneWholeVersionWithItsSize) {
  auto arm = [&] {
    auto fired = std::make_shared<bool>(false);
    after_read = [=, this](int fd, long long, ssize_t n) {
      if (!*fired && n > 0 && is_target(fd)) {
        *fired = true;
        rewrite(v2_);
      }
    };
  };
  add_both(arm, [&](fsic_status status, const uint8_t *hash, uint32_t size) {
    ASSERT_TRUE(status == 0 || status == 13) << status;
    if (status != 0)
      return;
    const std::string got = bytes(hash);
    const bool is_v1 = got == bytes(gost(v1_)) && size == v1_.size();
    const bool is_v2 = got == bytes(gost(v2_)) && size == v2_.size();
    EXPECT_TRUE(is_v1 || is_v2) << "size " << size;
  });
}

// Growing while it is read: the size stored is that of the bytes hashed.
TEST_F(OclTornRead, AFileThatGrowsWhileItIsReadKeepsSizeAndHashTogether) {
  const std::string more = random_bytes(1000, 3);
  auto arm = [&] {
    auto fired = std::make_shared<bool>(false);
    after_read = [=, this](int fd, long long, ssize_t n) {
      if (!*fired && n > 0 && is_target(fd)) {
        *fired = true;
        append(more);
      }
    };
  };
  add_both(arm, [&](fsic_status status, const uint8_t *hash, uint32_t size) {
    ASSERT_EQ(status, 0u);
    const std::string got = bytes(hash);
    EXPECT_TRUE((got == bytes(gost(v1_)) && size == v1_.size()) ||
                (got == bytes(gost(v1_ + more)) && size == v1_.size() + more.size()))
        << "size " << size;
  });
}

// Rewritten after the first read of every pass: the add fails with 13, "file changed
// while it was read", and the list is left as it was.
TEST_F(OclTornRead, AFileThatKeepsChangingFailsWithThirteen) {
  auto arm = [&] {
    auto round = std::make_shared<int>(0);
    after_read = [=, this](int fd, long long off, ssize_t n) {
      // The first read of each pass (offset 0, or every read without an offset).
      if (n > 0 && (off == 0 || off == -1) && is_target(fd))
        rewrite(++*round % 2 ? v2_ : v1_);
    };
  };
  add_both(arm, [&](fsic_status status, const uint8_t *, uint32_t) { EXPECT_EQ(status, 13u); });
}

// A file that changes while nobody reads it is not read twice.
TEST_F(OclTornRead, AQuietFileIsReadOnce) {
  int reads_at_zero = 0;
  auto arm = [&] {
    reads_at_zero = 0;
    after_read = [&](int fd, long long off, ssize_t) {
      if (off == 0 && is_target(fd))
        ++reads_at_zero;
    };
  };
  add_both(arm, [&](fsic_status status, const uint8_t *hash, uint32_t size) {
    ASSERT_EQ(status, 0u);
    EXPECT_EQ(bytes(hash), bytes(gost(v1_)));
    EXPECT_EQ(size, v1_.size());
    EXPECT_EQ(reads_at_zero, 1);
  });
}

// Short reads of odd lengths (as some file systems give): every file, alone and among
// others, has the hash of its bytes, whatever pieces they came in.
TEST_F(OclTornRead, ShortReadsOfAnyLengthGiveTheSameHashes) {
  auto count = std::make_shared<size_t>(0);
  read_length = [count](size_t n) { return 1 + (++*count * 7919) % std::min<size_t>(n, 4099); };
  add_both([] {},
           [&](fsic_status status, const uint8_t *hash, uint32_t size) {
             ASSERT_EQ(status, 0u);
             EXPECT_EQ(bytes(hash), bytes(gost(v1_)));
             EXPECT_EQ(size, v1_.size());
           });
  EXPECT_GT(*count, 100u);
  // The other files of the directory, read with "f".
  fs_ocl *ocl = nullptr;
  ASSERT_EQ(fs_ocl_create(&ocl), 0u);
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(ocl, t_.root().c_str(), "/", nullptr,
                           EACH_FILE | CONTROL_DATA | CONTROL_ATTRS, &obj),
            0u);
  read_length = nullptr;
  const fs_ocl_dir_info *info = reinterpret_cast<fs_ocl_dir_object *>(obj)->info;
  ASSERT_EQ(info->file_count, 13);
  for (int i = 1; i < info->file_count; ++i) {
    const int k = std::stoi(std::string(info->file_names[i]).substr(1)); // "g<k>"
    const std::string content = random_bytes(1000 * k + 5, 10 + k);
    EXPECT_EQ(bytes(info->file_hashes[i]), bytes(gost(content))) << info->file_names[i];
  }
  fs_ocl_destroy(ocl);
}

} // namespace
