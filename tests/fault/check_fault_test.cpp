// Allocation failures in checks and accepts (root, on the fault tests' tree in an ext4
// image on a loop device). The image is changed after the baseline is taken: a file
// rewritten, one removed, files added, a file of a per-file tree and a subdirectory
// made unreadable, and an unreadable file added in a new subdirectory, so that every
// path of a check allocates: records of each kind, objects carried over, entries of a
// tree kept from the baseline or left out. A failed check gives no live list out and
// leaves the volume unmounted; a failed accept gives no list out; either leaves the
// baseline as it was and nothing allocated. A run that succeeds gives exactly what an
// undisturbed one gives.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/check.h>
#include <fsic/icl.h>

#include "fault_gtest.h"
#include "fault_mounted.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;
using faulttest::Bytes;
using icltest::blob_of;

constexpr uint32_t kAll = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> v;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    v.push_back(text.substr(at, end - at));
  return v;
}

// Whether the records `got` are those of `want`, or those but for one entry reported
// as unreadable with status 1 ("6 <path> 0 1"), in place of its record or where it had
// none.
bool only_made_unreadable(const std::string &got, const std::string &want) {
  std::vector<std::string> g = lines_of(got), w = lines_of(want);
  if (g == w)
    return true; // the entry was unreadable anyway
  auto extra = std::find_if(g.begin(), g.end(), [&](const std::string &l) {
    return std::find(w.begin(), w.end(), l) == w.end();
  });
  if (extra == g.end() || extra->rfind("6 ", 0) != 0 || extra->size() < 6 ||
      extra->compare(extra->size() - 4, 4, " 0 1") != 0)
    return false;
  // The entry's own record, if it had one, stood at the same place.
  const std::string path = extra->substr(2, extra->size() - 6);
  const size_t at = static_cast<size_t>(extra - g.begin());
  g.erase(extra);
  if (at < w.size() && w[at].find(" " + path + " ") == 1)
    w.erase(w.begin() + static_cast<std::ptrdiff_t>(at));
  return g == w;
}

class FaultCheck : public faulttest::mounted_image_suite {
protected:
  void SetUp() override {
    mounted_image_suite::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    baseline_ = icltest::new_icl();
    ASSERT_EQ(fs_icl_add_file(baseline_.get(), volume(), "/tree/readme.txt", 15, nullptr), FSIC_OK);
    ASSERT_EQ(fs_icl_add_file(baseline_.get(), volume(), "/tree/notes.log", 12, nullptr), FSIC_OK);
    ASSERT_EQ(
        fs_icl_add_dir(baseline_.get(), volume(), "/tree", faulttest::test_masks(), kAll, nullptr),
        FSIC_OK);
    ASSERT_EQ(fs_icl_add_dir(baseline_.get(), volume(), "/tree/sub", nullptr,
                             RECURSIVE | CONTROL_DATA, nullptr),
              FSIC_OK);
    change_the_image();
  }

  void change_the_image() {
    const std::string dir = work_ / "rw";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(mount(dev_.c_str(), dir.c_str(), "ext4", 0, nullptr), 0) << strerror(errno);
    const std::string t = dir + "/tree";
    const bool written = support::write_text(t + "/readme.txt", "read me again\n") &&
                         support::write_text(t + "/added.txt", "added\n") &&
                         support::write_text(t + "/broken.bin", std::string(5000, 'b')) &&
                         mkdir((t + "/fresh").c_str(), 0755) == 0 &&
                         support::write_text(t + "/fresh/only.txt", std::string(5000, 'o'));
    const timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
    const bool removed = unlink((t + "/notes.log").c_str()) == 0 &&
                         utimensat(AT_FDCWD, (t + "/readme.txt").c_str(), times, 0) == 0;
    ASSERT_EQ(umount(dir.c_str()), 0);
    ASSERT_TRUE(written && removed);
    for (const char *path : {"/tree/data.bin", "/tree/sub/deeper", "/tree/fresh/only.txt"}) {
      const auto broken = support::run(
          {"debugfs", "-w", "-R", std::string("set_inode_field ") + path + " block[0] 0", dev_});
      ASSERT_EQ(broken.status, 0) << broken.describe();
    }
  }

  icltest::IclPtr baseline_;
};

TEST_F(FaultCheck, Check) {
  const Bytes before = blob_of(baseline_.get());
  fs_icl sentinel{};
  fs_icl *live = nullptr;
  faulttest::record_text lines;
  std::string reference_lines;
  Bytes reference;
  operation op;
  op.name = "fs_icl_check";
  op.modes = {fault::mode::once};
  op.setup = [&] {
    live = &sentinel;
    lines.used = 0;
  };
  op.call = [&] {
    return fs_icl_check(baseline_.get(), &disks_.list, faulttest::record_text::take, &lines,
                        nullptr, &live);
  };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(live == &sentinel, "a live list came out");
    c.that(blob_of(baseline_.get()) == before, "the baseline changed");
    check_released(c);
  };
  // A hash context that cannot be made fails the measuring of one file (1, by design):
  // a check reports that file as unreadable and goes on.
  op.allowed = [](const fault::report &r) -> std::vector<fsic_status> {
    return {r.in_hash_context ? FSIC_OK : FSIC_ERR_NO_MEMORY};
  };
  op.after_success = [&](checks &c, const attempt &a) {
    const Bytes now = blob_of(live);
    if (reference.empty()) {
      reference = now;
      reference_lines = lines.str();
    }
    if (a.r.fired() && a.r.in_hash_context) {
      c.that(only_made_unreadable(lines.str(), reference_lines),
             "records other than one entry made unreadable:\n" + lines.str());
    } else {
      c.that(now == reference, "the live list differs from an undisturbed check's");
      c.that(lines.str() == reference_lines, "the records differ from an undisturbed check's");
    }
    c.that(blob_of(baseline_.get()) == before, "the baseline changed");
    check_released(c);
  };
  op.teardown = [&] {
    if (live != &sentinel)
      fs_icl_destroy(live);
  };
  fault::expect_exercised(fault::run(op), op);
  // Every kind of record that the changes make, the tree's unreadable entries among them.
  const std::string changed = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  EXPECT_EQ(reference_lines, "1 /tree/added.txt 0 0\n"
                             "1 /tree/broken.bin 0 0\n"
                             "6 /tree/data.bin 0 1\n"
                             "1 /tree/fresh 0 0\n"
                             "6 /tree/fresh/only.txt 0 1\n"
                             "3 /tree/link.txt " +
                                 changed +
                                 " 0\n"
                                 "3 /tree/readme.txt " +
                                 changed +
                                 " 0\n"
                                 "6 /tree/sub/deeper 0 1\n"
                                 "6 /tree/to_sub/deeper 0 1\n"
                                 "2 /tree/notes.log 0 0\n"
                                 "3 /tree/readme.txt " +
                                 changed +
                                 " 0\n"
                                 "6 /tree/sub 0 1\n")
      << "the records of the undisturbed check";
}

// Accepting everything, some objects, and entries inside the per-file tree (one that
// was added, one that could not be read, a new subdirectory left out of the live tree),
// from a live list of the image.
TEST_F(FaultCheck, Accept) {
  fs_icl *made = nullptr;
  ASSERT_EQ(fs_icl_check(baseline_.get(), &disks_.list, nullptr, nullptr, nullptr, &made), FSIC_OK);
  icltest::IclPtr live(made);
  const icltest::IdPtr id = icltest::partition_id("FAULT-SER-1", 1);
  char readme[] = "/tree/readme.txt", notes[] = "/tree/notes.log", sub[] = "/tree/sub",
       added[] = "/tree/added.txt", data[] = "/tree/data.bin", fresh[] = "/tree/fresh";
  char *objects[] = {readme, notes, sub, nullptr};
  char *entries[] = {added, data, fresh, nullptr};
  struct accept_case {
    const char *name;
    const fs_volume_id *volume;
    char *const *paths;
  } cases[] = {{"everything", nullptr, nullptr},
               {"objects", id.get(), objects},
               {"tree entries", id.get(), entries}};
  const Bytes baseline_blob = blob_of(baseline_.get()), live_blob = blob_of(live.get());
  for (const accept_case &k : cases) {
    fs_icl sentinel{};
    fs_icl *out = nullptr;
    Bytes reference;
    operation op;
    op.name = std::string("fs_icl_accept ") + k.name;
    op.setup = [&] { out = &sentinel; };
    op.call = [&] { return fs_icl_accept(baseline_.get(), live.get(), k.volume, k.paths, &out); };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(out == &sentinel, "a list came out");
    };
    op.after_success = [&](checks &c, const attempt &) {
      const Bytes now = blob_of(out);
      if (reference.empty())
        reference = now;
      c.that(now == reference, "the list differs from an undisturbed accept's");
    };
    op.teardown = [&] {
      if (out != &sentinel)
        fs_icl_destroy(out);
    };
    fault::expect_exercised(fault::run(op), op);
    EXPECT_EQ(blob_of(baseline_.get()), baseline_blob) << k.name;
    EXPECT_EQ(blob_of(live.get()), live_blob) << k.name;
    EXPECT_NE(reference, baseline_blob) << k.name << ": nothing was accepted";
  }
}

} // namespace
