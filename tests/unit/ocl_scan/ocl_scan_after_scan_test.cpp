// Changes made between a directory's scan and the reads that follow it. The executable
// is linked with --wrap=_fs_ocl_scan_dir, so the hashing and info code reach the scanner
// through the wrapper below, which runs the test's hook after a successful scan.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "fs/ocl_internal.h"
#include "ocl_test_support.h"
#include "tests/support/process.h"

using namespace ocltest;

extern "C" fsic_status __real__fs_ocl_scan_dir(fs_ocl_walk *w, int dir, char *const *masks,
                                               char ***files, int *file_count, char ***subdirs,
                                               int *subdir_count) noexcept;

namespace {
// Called with the scanned directory after each successful scan.
std::function<void(const std::string &)> after_scan;
} // namespace

extern "C" fsic_status __wrap__fs_ocl_scan_dir(fs_ocl_walk *w, int dir, char *const *masks,
                                               char ***files, int *file_count, char ***subdirs,
                                               int *subdir_count) noexcept {
  fsic_status status =
      __real__fs_ocl_scan_dir(w, dir, masks, files, file_count, subdirs, subdir_count);
  if (status == 0 && after_scan)
    after_scan(std::string(w->name.data, w->name.len));
  return status;
}

namespace {

class OclAfterScan : public ::testing::Test {
protected:
  void TearDown() override { after_scan = nullptr; }

  // Runs `action` once, right after the scan of `dir`.
  static void once_after_scan_of(const std::string &dir, std::function<void()> action) {
    auto fired = std::make_shared<bool>(false);
    after_scan = [=](const std::string &scanned) {
      if (!*fired && scanned == dir) {
        *fired = true;
        action();
      }
    };
  }

  static fsic_status dir_hash(const std::string &dir, uint32_t flags) {
    Walk buf(dir);
    uint8_t h[32];
    fsic_status status = _fs_ocl_create_dir_hash(buf.get(), buf.fd(), nullptr, flags, h);
    EXPECT_EQ(buf.text(), dir);
    return status;
  }

  static fsic_status dir_info(const std::string &dir, uint32_t flags) {
    Walk buf(dir);
    fs_ocl_dir_info *info = reinterpret_cast<fs_ocl_dir_info *>(uintptr_t{8});
    fsic_status status = _fs_ocl_create_dir_info(buf.get(), buf.fd(), nullptr, flags, 1, &info);
    EXPECT_EQ(buf.text(), dir);
    if (status == 0)
      _fs_ocl_destroy_dir_info(info);
    else {
      EXPECT_EQ(info, reinterpret_cast<fs_ocl_dir_info *>(uintptr_t{8}));
    }
    return status;
  }

  TempTree t_;
};

TEST_F(OclAfterScan, AFileDeletedAfterTheScanFailsAttributeAndDataControl) {
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags);
    for (bool info : {false, true}) {
      t_.file("a", "a");
      t_.file("b", "b");
      t_.file("c", "c");
      once_after_scan_of(t_.root(), [&] { t_.remove("b"); });
      fsic_status status = info ? dir_info(t_.root(), flags) : dir_hash(t_.root(), flags);
      // The deleted name is still fed; only reading its data or attributes fails.
      bool reads = (flags & (CONTROL_DATA | CONTROL_ATTRS)) != 0;
      EXPECT_EQ(status, reads ? 1u : 0u) << (info ? "info" : "hash");
      t_.remove("a");
      t_.remove("c");
    }
  }
}

TEST_F(OclAfterScan, AFileReplacedByADanglingLinkFailsDataControl) {
  t_.dir("s");
  for (bool info : {false, true}) {
    t_.file("s/f", "f");
    once_after_scan_of(t_.path("s"), [&] {
      t_.remove("s/f");
      t_.link("s/f", "nowhere");
    });
    uint32_t flags = RECURSIVE | CONTROL_DATA | (info ? EACH_FILE : 0);
    EXPECT_EQ(info ? dir_info(t_.root(), flags) : dir_hash(t_.root(), flags), 1u);
    t_.remove("s/f");
  }
}

TEST_F(OclAfterScan, ASubdirectoryRemovedAfterItsParentsScanFails) {
  for (bool info : {false, true}) {
    t_.dir("s");
    t_.file("s/f");
    once_after_scan_of(t_.root(), [&] {
      t_.remove("s/f");
      t_.remove("s");
    });
    EXPECT_EQ(info ? dir_info(t_.root(), RECURSIVE) : dir_hash(t_.root(), RECURSIVE), 1u);
  }
}

// A failure in the last subdirectory, after earlier ones were kept or dropped: what was
// built is released (the sanitizer build checks for leaks) and nothing is handed out.
TEST_F(OclAfterScan, AFailureAfterKeptAndDroppedSubdirectoriesReleasesThem) {
  for (const char *layout : {"kept", "dropped", "both"}) {
    SCOPED_TRACE(layout);
    TempTree t;
    std::string l = layout;
    if (l != "dropped") {
      t.dir("a");
      t.file("a/f", "a");
    }
    if (l != "kept") {
      t.dir("b");
      t.dir("b/empty");
    }
    t.dir("c");
    t.file("c/f", "c");
    t.dir("d");
    t.file("d/f", "d");
    once_after_scan_of(t.path("c"), [&] { t.remove("c/f"); });
    Walk buf(t.root());
    fs_ocl_dir_info *info = nullptr;
    EXPECT_EQ(
        _fs_ocl_create_dir_info(buf.get(), buf.fd(), nullptr, RECURSIVE | CONTROL_ATTRS, 1, &info),
        1u);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(buf.text(), t.root());
    once_after_scan_of(t.path("c"), [&] { t.remove("c/g"); });
    t.file("c/g", "g");
    uint8_t h[32];
    EXPECT_EQ(_fs_ocl_create_dir_hash(buf.get(), buf.fd(), nullptr, RECURSIVE | CONTROL_DATA, h),
              1u);
    EXPECT_EQ(buf.text(), t.root());
  }
}

// A FIFO swapped in for a scanned file is opened without blocking and not read: the
// add fails with 1 at once. Run in a child with a time limit, so that a blocking open
// fails the test instead of hanging it.
TEST_F(OclAfterScan, AFifoSwappedInForAFileDoesNotBlock) {
  t_.dir("s");
  for (uint32_t flags : {CONTROL_DATA, CONTROL_DATA | CONTROL_ATTRS, EACH_FILE | CONTROL_DATA,
                         EACH_FILE | CONTROL_ATTRS, CONTROL_ATTRS}) {
    SCOPED_TRACE(flags);
    t_.file("s/f", "a file");
    once_after_scan_of(t_.path("s"), [&] {
      t_.remove("s/f");
      t_.fifo("s/f");
    });
    int code = support::run_in_child(
        [&] {
          fs_ocl *ocl = nullptr;
          if (fs_ocl_create(&ocl) != 0)
            return 100;
          fsic_status status =
              fs_ocl_add_dir(ocl, t_.root().c_str(), "/s", nullptr, flags, nullptr);
          fs_ocl_destroy(ocl);
          return static_cast<int>(status);
        },
        10);
    EXPECT_EQ(code, 1) << (code == support::kTimedOut ? "timed out" : "");
    after_scan = nullptr;
    t_.remove("s/f");
  }
}

// A subdirectory's attributes are taken from the descriptor it is entered with, when its
// info is built: removing it after its later sibling's scan changes nothing, with or
// without CONTROL_ATTRS.
TEST_F(OclAfterScan, ASubdirectorysAttributesAreTakenWhenItIsEntered) {
  for (uint32_t flags : {RECURSIVE | CONTROL_ATTRS, RECURSIVE | 0u}) {
    SCOPED_TRACE(flags);
    TempTree t;
    t.dir("s");
    t.dir("s/inner");
    t.file("s/inner/g");
    t.dir("s/later");
    t.file("s/later/h");
    const struct stat inner = t.stat_of("s/inner");
    once_after_scan_of(t.path("s/later"), [&] {
      t.remove("s/inner/g");
      t.remove("s/inner");
    });
    Walk buf(t.root());
    fs_ocl_dir_info *info = nullptr;
    ASSERT_EQ(_fs_ocl_create_dir_info(buf.get(), buf.fd(), nullptr, flags, 1, &info), 0u);
    ASSERT_EQ(info->subdir_count, 1);
    const fs_ocl_dir_info *s = info->subdir_infos[0];
    ASSERT_EQ(s->subdir_count, 2);
    EXPECT_STREQ(s->subdir_names[0], "inner");
    if (flags & CONTROL_ATTRS) {
      EXPECT_EQ(s->subdir_attrs[0].mode, inner.st_mode);
    } else {
      EXPECT_EQ(s->subdir_attrs, nullptr);
    }
    _fs_ocl_destroy_dir_info(info);
  }
}

} // namespace
