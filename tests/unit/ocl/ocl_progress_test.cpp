// Progress reports: at most one every 100 ms, with the path inside the volume of the
// file measured last, and a last one with a null path.
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fs/ocl_internal.h"
#include "tests/support/temp_dir.h"

namespace {

struct reports {
  std::vector<fs_progress> calls;
  std::vector<std::string> paths;
  static void take(const fs_progress *p, void *ctx) {
    auto *r = static_cast<reports *>(ctx);
    r->calls.push_back(*p);
    r->paths.push_back(p->path ? p->path : "(end)");
  }
};

class OclProgress : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(base_.ok()) << base_.error();
    ASSERT_EQ(_fs_ocl_walk_init(&w_, base_.path().c_str(), "/etc/ssh"), FSIC_OK);
    pr_ = {reports::take, &r_, {}, 0};
    pr_.now.files_total = 7;
    pr_.now.bytes_total = 700;
    _fs_ocl_progress_begin(&pr_);
  }
  void TearDown() override { _fs_ocl_walk_free(&w_); }

  support::temp_dir base_{"fsic-progress-test", std::nothrow};
  fs_ocl_walk w_;
  reports r_;
  fs_ocl_progress pr_;
};

TEST_F(OclProgress, ReportsAtMostEvery100Milliseconds) {
  for (int i = 0; i < 1000; i++)
    _fs_ocl_progress_file(&pr_, &w_, "sshd_config", 1);
  // A thousand files in far less than 100 ms: no report yet.
  EXPECT_TRUE(r_.calls.empty());
  usleep(120 * 1000);
  _fs_ocl_progress_file(&pr_, &w_, "moduli", 100);
  ASSERT_EQ(r_.calls.size(), 1u);
  EXPECT_EQ(r_.paths[0], "/etc/ssh/moduli");
  EXPECT_EQ(r_.calls[0].files, 1001u);
  EXPECT_EQ(r_.calls[0].bytes, 1100u);
  EXPECT_EQ(r_.calls[0].files_total, 7u);
  EXPECT_EQ(r_.calls[0].bytes_total, 700u);
  _fs_ocl_progress_file(&pr_, &w_, "ssh_config", 1);
  EXPECT_EQ(r_.calls.size(), 1u) << "within 100 ms of the last report";
  _fs_ocl_progress_end(&pr_);
  ASSERT_EQ(r_.calls.size(), 2u);
  EXPECT_EQ(r_.paths[1], "(end)");
  EXPECT_EQ(r_.calls[1].files, 1002u);
}

TEST_F(OclProgress, AFileObjectIsReportedByItsOwnPath) {
  usleep(120 * 1000);
  _fs_ocl_progress_file(&pr_, &w_, nullptr, 5);
  ASSERT_EQ(r_.calls.size(), 1u);
  EXPECT_EQ(r_.paths[0], "/etc/ssh");
}

TEST_F(OclProgress, BeginCountsFromZeroAndKeepsTheTotals) {
  _fs_ocl_progress_file(&pr_, &w_, "a", 3);
  _fs_ocl_progress_begin(&pr_);
  _fs_ocl_progress_end(&pr_);
  ASSERT_EQ(r_.calls.size(), 1u);
  EXPECT_EQ(r_.calls[0].files, 0u);
  EXPECT_EQ(r_.calls[0].bytes, 0u);
  EXPECT_EQ(r_.calls[0].files_total, 7u);
}

} // namespace
