// Checking integrity lists against live volumes on real ext4 images and loop devices
// (root): a baseline is taken, the image is tampered with (mounted read-write by the
// test, as a system would), and the check must report exactly the tampering, with old
// and new values; a vanished volume, an unreadable file and a file rewritten during the
// check are reported on their own and the check completes. Accepting one path leaves
// every other difference for the next check; accepting everything leaves none.
#include <fsic/check.h>
#include <fsic/icl.h>
#include <fsic/mount.h>

#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"
#include "tests/unit/icl/icl_test_util.h"
#include "tests/unit/ocl/ocl_test_util.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::test_volume;

const fs_volume_ops check_volume_ops = {FS_VOLUME_PARTITION, support::partition_create_id,
                                        support::test_get_disk_list};

constexpr uint32_t kFileFlags = CONTROL_DATA | CONTROL_ATTRS;
constexpr uint32_t kTreeFlags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;

std::string kind_name(uint32_t kind) {
  static const char *const names[] = {"?",    "added",    "removed",    "changed",
                                      "type", "settings", "unreadable", "missing"};
  return names[kind < 8 ? kind : 0];
}

std::string hex(const uint8_t *h) {
  if (!h)
    return "-";
  std::string s;
  char two[3];
  for (int i = 0; i < FS_OCL_HASH_SIZE; i++) {
    snprintf(two, sizeof two, "%02x", h[i]);
    s += two;
  }
  return s;
}

std::string hex(const ocltest::Hash &h) { return hex(h.data()); }

struct recorded {
  std::vector<std::string> lines; // "kind entry-path fields [status]"
  std::vector<fs_change> changes; // values as delivered (pointers valid during the call only)
  std::vector<std::string> old_hashes, new_hashes;
  std::vector<std::string> volumes; // the records' volume identifiers

  static void take(const fs_change *c, void *ctx) {
    auto *r = static_cast<recorded *>(ctx);
    std::string l = kind_name(c->kind) + " " + (c->entry_path ? c->entry_path : "-") + " " +
                    std::to_string(c->fields);
    if (c->kind == FS_CHANGE_UNREADABLE || c->kind == FS_CHANGE_VOLUME_MISSING)
      l += " status " + std::to_string(c->status);
    r->lines.push_back(l);
    r->changes.push_back(*c);
    r->old_hashes.push_back(hex(c->old_values.hash));
    r->new_hashes.push_back(hex(c->new_values.hash));
    std::string v = "-";
    if (c->volume && fs_volume_id_type(c->volume) == FS_VOLUME_PARTITION) {
      auto *p = reinterpret_cast<const fs_partition_id *>(c->volume);
      v = std::string("partition ") + p->disk_serial + " " + std::to_string(p->number);
    }
    r->volumes.push_back(v);
  }
};

class CheckTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
    ASSERT_TRUE(work_.ok()) << work_.error();
    src_ = work_ / "src";
    ocltest::write_file(src_ + "/hello.txt", "hello\n");
    ocltest::write_file(src_ + "/sub/a.txt", "file a\n");
    ocltest::write_file(src_ + "/sub/b.txt", "file b\n");
    ocltest::write_file(src_ + "/sub/deep/c.txt", "file c\n");
    ocltest::write_file(src_ + "/victim.txt", std::string(20000, 'v'));
    dev_ = images_.attach(src_);
    ASSERT_FALSE(dev_.empty());
    volume_ = make_volume(disks_, dev_, 1);
  }

  ~CheckTest() override {
    for (auto &v : volumes_)
      support::drop_hold(v->volume());
    support::drop_base_dir(&disks_.list);
    support::drop_base_dir(&other_disks_.list);
    guard_.clean();
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  test_volume *make_volume(support::serial_disk_list &list, const std::string &dev, int number) {
    auto v = std::make_unique<test_volume>(list, dev, "ext4", support::syspath_of(dev));
    v->part.volume.ops = &check_volume_ops;
    v->part.number = number;
    list_add_tail(&v->part.link, &list.disk.partitions);
    volumes_.push_back(std::move(v));
    return volumes_.back().get();
  }

  icltest::IclPtr baseline() {
    icltest::IclPtr list = icltest::new_icl();
    EXPECT_EQ(fs_icl_add_file(list.get(), volume_->volume(), "/hello.txt", kFileFlags, nullptr),
              FSIC_OK);
    EXPECT_EQ(fs_icl_add_dir(list.get(), volume_->volume(), "/sub", nullptr, kTreeFlags, nullptr),
              FSIC_OK);
    return list;
  }

  // The volume mounted read-write by the test, as the system would have it.
  std::string mount_rw() {
    const std::string dir = work_ / "system";
    mkdir(dir.c_str(), 0755);
    EXPECT_EQ(mount(dev_.c_str(), dir.c_str(), "ext4", 0, nullptr), 0) << strerror(errno);
    return dir;
  }

  void tamper(const std::string &sys) {
    ASSERT_TRUE(support::write_text(sys + "/hello.txt", "hello, tampered\n"));
    const timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (sys + "/hello.txt").c_str(), times, 0), 0);
    ASSERT_EQ(chmod((sys + "/sub/a.txt").c_str(), 0600), 0);
    ASSERT_EQ(unlink((sys + "/sub/deep/c.txt").c_str()), 0);
    ASSERT_TRUE(support::write_text(sys + "/sub/new.txt", "new\n"));
  }

  // Breaks the first block pointer of `path` on the (unmounted) image with debugfs, so
  // that its data (a file's bytes, a directory's entries) cannot be read any more, and
  // makes the page cache forget what it holds of the device.
  void break_blocks(const std::string &path) {
    const auto broken =
        support::run({"debugfs", "-w", "-R", "set_inode_field " + path + " block[0] 0", dev_});
    ASSERT_EQ(broken.status, 0) << broken.describe();
    const int fd = open(dev_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED), 0);
    close(fd);
  }

  // The hash that the tree object `object` of the list's first entry holds for the file
  // `name` at the level `dirs` below it ("-" when it holds no such file).
  static std::string tree_hash(const fs_icl *list, const char *object,
                               const std::vector<std::string> &dirs, const std::string &name) {
    fs_icl_volume *entry = fs_icl_first_volume(const_cast<fs_icl *>(list));
    fs_ocl_object *obj = entry ? fs_icl_volume_find_object(entry, object) : nullptr;
    if (!obj || obj->type != FS_OCL_DIR)
      return "-";
    const fs_ocl_dir_info *info = reinterpret_cast<fs_ocl_dir_object *>(obj)->info;
    for (const std::string &d : dirs) {
      const fs_ocl_dir_info *next = nullptr;
      for (int i = 0; info && i < info->subdir_count; i++)
        if (d == info->subdir_names[i])
          next = info->subdir_infos[i];
      info = next;
    }
    for (int i = 0; info && i < info->file_count; i++)
      if (name == info->file_names[i])
        return hex(info->file_hashes[i]);
    return "-";
  }

  recorded check(const fs_icl *list, fs_disk_list *disks, fs_check_summary *sum,
                 icltest::IclPtr *live = nullptr) {
    recorded r;
    fs_icl *got = nullptr;
    EXPECT_EQ(fs_icl_check(list, disks, recorded::take, &r, sum, live ? &got : nullptr), FSIC_OK);
    if (live)
      live->reset(got);
    return r;
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-check-test", std::nothrow};
  support::loop_images images_{work_.path()};
  support::serial_disk_list disks_{"CHK-1"}, other_disks_{"CHK-GONE"};
  std::vector<std::unique_ptr<test_volume>> volumes_;
  std::string src_, dev_;
  test_volume *volume_ = nullptr;
};

TEST_F(CheckTest, AnUntouchedVolumeHasNoChanges) {
  icltest::IclPtr list = baseline();
  fs_check_summary sum{};
  const recorded r = check(list.get(), &disks_.list, &sum);
  EXPECT_TRUE(r.lines.empty()) << r.lines.front();
  EXPECT_EQ(sum.objects, 2u);
  // The file object, and the tree: <root>, a.txt, b.txt, deep, deep/c.txt.
  EXPECT_EQ(sum.entries, 6u);
  EXPECT_EQ(sum.added + sum.removed + sum.changed + sum.errors, 0u);
  EXPECT_EQ(volume_->volume()->mount_count, 0);
  EXPECT_TRUE(guard_.made_since().empty());
}

TEST_F(CheckTest, ExactlyTheTamperingIsReportedWithOldAndNewValues) {
  icltest::IclPtr list = baseline();
  const std::string sys = mount_rw();
  tamper(sys);
  fs_check_summary sum{};
  const recorded r = check(list.get(), &disks_.list, &sum);
  const std::string fields = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  EXPECT_EQ(r.lines, (std::vector<std::string>{
                         "changed /hello.txt " + fields,
                         "changed /sub/a.txt " + std::to_string(FS_FIELD_MODE),
                         "removed /sub/deep 0",
                         "removed /sub/deep/c.txt 0",
                         "added /sub/new.txt 0",
                     }));
  ASSERT_EQ(r.changes.size(), 5u);
  EXPECT_EQ(r.old_hashes[0], hex(ocltest::gost("hello\n")));
  EXPECT_EQ(r.new_hashes[0], hex(ocltest::gost("hello, tampered\n")));
  EXPECT_EQ(r.changes[0].old_values.size, 6u);
  EXPECT_EQ(r.changes[0].new_values.size, 16u);
  EXPECT_EQ(r.changes[0].new_values.mtime, 1500000000u);
  EXPECT_EQ(r.changes[1].old_values.mode & 07777, 0644u);
  EXPECT_EQ(r.changes[1].new_values.mode & 07777, 0600u);
  EXPECT_EQ(r.old_hashes[4], "-");
  EXPECT_EQ(r.new_hashes[4], hex(ocltest::gost("new\n")));
  EXPECT_EQ(sum.changed, 2u);
  EXPECT_EQ(sum.removed, 2u);
  EXPECT_EQ(sum.added, 1u);
  EXPECT_EQ(sum.errors, 0u);
  EXPECT_EQ(r.volumes, std::vector<std::string>(5, "partition CHK-1 1"));
}

// A volume that is no longer there is one record; the others are checked as usual.
TEST_F(CheckTest, AVanishedVolumeIsOneRecordAndTheRestIsChecked) {
  const std::string other_dev = images_.attach(src_);
  ASSERT_FALSE(other_dev.empty());
  test_volume *gone = make_volume(other_disks_, other_dev, 2);
  icltest::IclPtr list = baseline();
  ASSERT_EQ(fs_icl_add_file(list.get(), gone->volume(), "/hello.txt", kFileFlags, nullptr),
            FSIC_OK);
  const std::string sys = mount_rw();
  tamper(sys);
  // Checked against the first disk list only: the other volume is not there.
  fs_check_summary sum{};
  const recorded r = check(list.get(), &disks_.list, &sum);
  ASSERT_FALSE(r.lines.empty());
  EXPECT_EQ(r.lines[0], "missing - 0 status 0");
  EXPECT_EQ(r.volumes[0], "partition CHK-GONE 2");
  EXPECT_EQ(r.changes[0].object_path, nullptr);
  EXPECT_EQ(r.lines.size(), 6u);
  EXPECT_EQ(sum.errors, 1u);
  EXPECT_EQ(sum.changed + sum.removed + sum.added, 5u);
}

// A volume that cannot be mounted is one "unreadable" record, and nothing of it counts
// as measured: accepting everything keeps its baseline as it was.
TEST_F(CheckTest, AVolumeThatCannotBeMountedKeepsItsBaselineWhenAccepted) {
  icltest::IclPtr list = baseline();
  const ocltest::Bytes before = icltest::blob_of(list.get());
  volume_->fs_type = "xfs"; // the device holds ext4: the mount fails
  volume_->part.volume.fs_type = volume_->fs_type->data();
  icltest::IclPtr live;
  fs_check_summary sum{};
  const recorded r = check(list.get(), &disks_.list, &sum, &live);
  EXPECT_EQ(r.lines, (std::vector<std::string>{"unreadable - 0 status 1"}));
  EXPECT_EQ(sum.errors, 1u);
  ASSERT_TRUE(live);
  EXPECT_EQ(fs_icl_first_volume(live.get()), nullptr) << "an unmeasured volume in the live list";
  fs_icl *accepted = nullptr;
  ASSERT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, nullptr, &accepted), FSIC_OK);
  icltest::IclPtr now(accepted);
  EXPECT_EQ(icltest::blob_of(now.get()), before);
  EXPECT_TRUE(guard_.made_since().empty());
}

// A file whose data cannot be read (its first block pointer broken with debugfs) is one
// "unreadable" record with status 1; the rest of the volume is checked.
TEST_F(CheckTest, AnUnreadableFileIsReportedAndTheCheckGoesOn) {
  icltest::IclPtr list = baseline();
  ASSERT_EQ(fs_icl_add_file(list.get(), volume_->volume(), "/victim.txt", kFileFlags, nullptr),
            FSIC_OK);
  {
    const std::string sys = mount_rw();
    tamper(sys);
    ASSERT_EQ(umount(sys.c_str()), 0);
  }
  break_blocks("/victim.txt");
  fs_check_summary sum{};
  icltest::IclPtr live;
  const recorded r = check(list.get(), &disks_.list, &sum, &live);
  const std::string fields = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  EXPECT_EQ(r.lines, (std::vector<std::string>{
                         "changed /hello.txt " + fields,
                         "changed /sub/a.txt " + std::to_string(FS_FIELD_MODE),
                         "removed /sub/deep 0",
                         "removed /sub/deep/c.txt 0",
                         "added /sub/new.txt 0",
                         "unreadable /victim.txt 0 status 1",
                     }));
  EXPECT_EQ(sum.errors, 1u);
  // The live list keeps the baseline's data for what could not be measured.
  ASSERT_TRUE(live);
  fs_icl_volume *entry = fs_icl_first_volume(live.get());
  ASSERT_NE(entry, nullptr);
  fs_ocl_object *victim = fs_icl_volume_find_object(entry, "/victim.txt");
  ASSERT_NE(victim, nullptr);
  EXPECT_EQ(hex(reinterpret_cast<fs_ocl_file_object *>(victim)->hash),
            hex(ocltest::gost(std::string(20000, 'v'))));
}

// Inside a per-file tree, a file whose data cannot be read is one "unreadable" record in
// its place among the tree's records, and the rest of the tree is checked. The live tree
// keeps the baseline's data for it; an unreadable file that the baseline does not have
// is left out of the live tree.
TEST_F(CheckTest, AnUnreadableFileInATreeIsReportedAloneAndKeepsItsBaseline) {
  icltest::IclPtr list = baseline();
  {
    const std::string sys = mount_rw();
    tamper(sys);
    ASSERT_TRUE(support::write_text(sys + "/sub/z.txt", std::string(9000, 'z')));
    ASSERT_EQ(umount(sys.c_str()), 0);
  }
  break_blocks("/sub/b.txt");
  break_blocks("/sub/z.txt");
  fs_check_summary sum{};
  icltest::IclPtr live;
  const recorded r = check(list.get(), &disks_.list, &sum, &live);
  const std::string fields = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  EXPECT_EQ(r.lines, (std::vector<std::string>{
                         "changed /hello.txt " + fields,
                         "changed /sub/a.txt " + std::to_string(FS_FIELD_MODE),
                         "unreadable /sub/b.txt 0 status 1",
                         "removed /sub/deep 0",
                         "removed /sub/deep/c.txt 0",
                         "added /sub/new.txt 0",
                         "unreadable /sub/z.txt 0 status 1",
                     }));
  EXPECT_EQ(sum.errors, 2u);
  // The old values of b.txt are the baseline's; z.txt has none.
  ASSERT_EQ(r.changes.size(), 7u);
  EXPECT_EQ(r.old_hashes[2], hex(ocltest::gost("file b\n")));
  EXPECT_EQ(r.new_hashes[2], "-");
  EXPECT_FALSE(r.changes[6].old_values.present);
  ASSERT_TRUE(live);
  EXPECT_EQ(tree_hash(live.get(), "/sub", {}, "b.txt"), hex(ocltest::gost("file b\n")));
  EXPECT_EQ(tree_hash(live.get(), "/sub", {}, "z.txt"), "-");
  EXPECT_EQ(tree_hash(live.get(), "/sub", {}, "new.txt"), hex(ocltest::gost("new\n")));
  // Accepting everything keeps b.txt as it was: the next check says the same of it.
  fs_icl *accepted = nullptr;
  ASSERT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, nullptr, &accepted), FSIC_OK);
  icltest::IclPtr now(accepted);
  EXPECT_EQ(check(now.get(), &disks_.list, nullptr).lines,
            (std::vector<std::string>{"unreadable /sub/b.txt 0 status 1",
                                      "unreadable /sub/z.txt 0 status 1"}));
}

// A subdirectory of a tree whose entries cannot be read is one "unreadable" record, with
// nothing reported below it; the live tree keeps the baseline's subtree for it.
TEST_F(CheckTest, AnUnreadableSubdirectoryIsReportedAloneAndKeepsItsBaselineSubtree) {
  icltest::IclPtr list = baseline();
  {
    const std::string sys = mount_rw();
    ASSERT_TRUE(support::write_text(sys + "/sub/a.txt", "file a, changed\n"));
    const timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (sys + "/sub/a.txt").c_str(), times, 0), 0);
    ASSERT_EQ(umount(sys.c_str()), 0);
  }
  break_blocks("/sub/deep");
  fs_check_summary sum{};
  icltest::IclPtr live;
  const recorded r = check(list.get(), &disks_.list, &sum, &live);
  const std::string fields = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  EXPECT_EQ(r.lines, (std::vector<std::string>{"changed /sub/a.txt " + fields,
                                               "unreadable /sub/deep 0 status 1"}));
  EXPECT_EQ(sum.errors, 1u);
  ASSERT_TRUE(live);
  EXPECT_EQ(tree_hash(live.get(), "/sub", {"deep"}, "c.txt"), hex(ocltest::gost("file c\n")));
  // Between the baseline and the live list only the change that was measured remains.
  recorded c;
  ASSERT_EQ(fs_icl_compare(list.get(), live.get(), recorded::take, &c, nullptr), FSIC_OK);
  EXPECT_EQ(c.lines, (std::vector<std::string>{"changed /sub/a.txt " + fields}));
}

// A file that the system keeps writing while it is checked cannot be measured (13); it
// is reported on its own and the rest is checked.
TEST_F(CheckTest, AFileRewrittenDuringTheCheckIsReportedAndTheCheckGoesOn) {
  const std::string sys = mount_rw();
  ASSERT_TRUE(support::write_text(sys + "/busy.log", std::string(8 << 20, 'b')));
  icltest::IclPtr list = baseline();
  ASSERT_EQ(fs_icl_add_file(list.get(), volume_->volume(), "/busy.log", CONTROL_DATA, nullptr),
            FSIC_OK);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    const int fd = open((sys + "/busy.log").c_str(), O_WRONLY | O_APPEND);
    while (fd >= 0 && !stop) {
      (void)!write(fd, "x", 1);
      usleep(200);
    }
    if (fd >= 0)
      close(fd);
  });
  fs_check_summary sum{};
  const recorded r = check(list.get(), &disks_.list, &sum);
  stop = true;
  writer.join();
  EXPECT_EQ(r.lines, (std::vector<std::string>{"unreadable /busy.log 0 status 13"}));
  EXPECT_EQ(sum.errors, 1u);
  EXPECT_EQ(sum.objects, 3u);
}

// ---- progress ------------------------------------------------------------------------

struct progress_calls {
  std::vector<fs_progress> calls;
  std::vector<std::string> paths;
  static void take(const fs_progress *p, void *ctx) {
    auto *r = static_cast<progress_calls *>(ctx);
    r->calls.push_back(*p);
    r->paths.push_back(p->path ? p->path : "(end)");
  }
};

// Each add and each check counts its files and bytes from 0 and ends with a call whose
// path is null; a check's totals come from the baseline.
TEST_F(CheckTest, ProgressCountsTheFilesAndBytesOfEachAddAndCheck) {
  icltest::IclPtr list = icltest::new_icl();
  progress_calls r;
  ASSERT_EQ(fs_icl_set_progress(list.get(), progress_calls::take, &r), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), volume_->volume(), "/hello.txt", kFileFlags, nullptr),
            FSIC_OK);
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.paths.back(), "(end)");
  EXPECT_EQ(r.calls.back().files, 1u);
  EXPECT_EQ(r.calls.back().bytes, 6u);
  EXPECT_EQ(r.calls.back().files_total, 0u);

  r = {};
  ASSERT_EQ(fs_icl_add_dir(list.get(), volume_->volume(), "/sub", nullptr, kTreeFlags, nullptr),
            FSIC_OK);
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.paths.back(), "(end)");
  EXPECT_EQ(r.calls.back().files, 3u);
  EXPECT_EQ(r.calls.back().bytes, 21u);

  r = {};
  const recorded changes = check(list.get(), &disks_.list, nullptr);
  EXPECT_TRUE(changes.lines.empty());
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.paths.back(), "(end)");
  const fs_progress &last = r.calls.back();
  EXPECT_EQ(last.files, 4u);
  EXPECT_EQ(last.bytes, 27u);
  EXPECT_EQ(last.files_total, 4u);
  EXPECT_EQ(last.bytes_total, 27u);
  // Every call before the last names a file of the volume, and the counts only grow.
  for (size_t i = 0; i + 1 < r.calls.size(); i++) {
    EXPECT_EQ(r.paths[i].rfind('/', 0), 0u) << r.paths[i];
    EXPECT_LE(r.calls[i].files, r.calls[i + 1].files);
  }
  // A list without a callback reports nothing.
  r = {};
  ASSERT_EQ(fs_icl_set_progress(list.get(), nullptr, nullptr), FSIC_OK);
  check(list.get(), &disks_.list, nullptr);
  EXPECT_TRUE(r.calls.empty());
}

// ---- accepting --------------------------------------------------------------------

TEST_F(CheckTest, AcceptingOnePathLeavesEveryOtherDifference) {
  icltest::IclPtr list = baseline();
  const std::string sys = mount_rw();
  tamper(sys);
  icltest::IclPtr live;
  check(list.get(), &disks_.list, nullptr, &live);
  ASSERT_TRUE(live);
  const icltest::IdPtr id_owner = icltest::partition_id("CHK-1", 1);
  const fs_volume_id *id = id_owner.get();
  const std::string fields = std::to_string(FS_FIELD_HASH | FS_FIELD_SIZE | FS_FIELD_MTIME);
  struct step {
    const char *path;
    std::vector<std::string> left;
  } steps[] = {
      {"/sub/deep",
       {"changed /hello.txt " + fields, "changed /sub/a.txt " + std::to_string(FS_FIELD_MODE),
        "added /sub/new.txt 0"}},
      {"/sub/a.txt", {"changed /hello.txt " + fields, "added /sub/new.txt 0"}},
      {"/hello.txt", {"added /sub/new.txt 0"}},
      {"/sub/new.txt", {}},
  };
  icltest::IclPtr current = std::move(list);
  for (const step &s : steps) {
    SCOPED_TRACE(s.path);
    char *paths[] = {const_cast<char *>(s.path), nullptr};
    fs_icl *accepted = nullptr;
    ASSERT_EQ(fs_icl_accept(current.get(), live.get(), id, paths, &accepted), FSIC_OK);
    current.reset(accepted);
    // What was accepted survives the blob.
    const ocltest::Bytes blob = icltest::blob_of(current.get());
    fs_icl *read = nullptr;
    ASSERT_EQ(fs_icl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &read),
              FSIC_OK);
    icltest::IclPtr reread(read);
    EXPECT_EQ(check(reread.get(), &disks_.list, nullptr).lines, s.left);
    EXPECT_EQ(check(current.get(), &disks_.list, nullptr).lines, s.left);
  }
}

TEST_F(CheckTest, AcceptingEverythingLeavesNothing) {
  icltest::IclPtr list = baseline();
  const std::string sys = mount_rw();
  tamper(sys);
  ASSERT_EQ(unlink((sys + "/hello.txt").c_str()), 0);
  icltest::IclPtr live;
  EXPECT_EQ(check(list.get(), &disks_.list, nullptr, &live).lines.size(), 5u);
  fs_icl *accepted = nullptr;
  ASSERT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, nullptr, &accepted), FSIC_OK);
  icltest::IclPtr now(accepted);
  EXPECT_TRUE(check(now.get(), &disks_.list, nullptr).lines.empty());
  // The removed object left control; the tree object stayed.
  fs_icl_volume *entry = fs_icl_first_volume(now.get());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(fs_icl_volume_find_object(entry, "/hello.txt"), nullptr);
  EXPECT_NE(fs_icl_volume_find_object(entry, "/sub"), nullptr);
}

TEST_F(CheckTest, APathInsideAnObjectThatCannotBeSplitIsRefused) {
  icltest::IclPtr list = icltest::new_icl();
  ASSERT_EQ(fs_icl_add_dir(list.get(), volume_->volume(), "/sub", nullptr, RECURSIVE | CONTROL_DATA,
                           nullptr),
            FSIC_OK);
  icltest::IclPtr live;
  check(list.get(), &disks_.list, nullptr, &live);
  ASSERT_TRUE(live);
  char sub_a[] = "/sub/a.txt", relative[] = "sub", dotdot[] = "/sub/../x";
  char *inside[] = {sub_a, nullptr}, *bad1[] = {relative, nullptr}, *bad2[] = {dotdot, nullptr};
  fs_icl *out = nullptr;
  EXPECT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, inside, &out), FSIC_ERR_FAILED);
  EXPECT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, bad1, &out), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(fs_icl_accept(list.get(), live.get(), nullptr, bad2, &out), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(out, nullptr);
}

// ---- comparing lists -----------------------------------------------------------------

// The baseline against the live list of a check says what the check said; an entry on
// one side only is every object of it added or removed.
TEST_F(CheckTest, ComparingTheBaselineWithTheLiveListSaysWhatTheCheckSaid) {
  icltest::IclPtr list = baseline();
  const std::string sys = mount_rw();
  tamper(sys);
  icltest::IclPtr live;
  fs_check_summary checked{}, compared{};
  const recorded r = check(list.get(), &disks_.list, &checked, &live);
  recorded c;
  ASSERT_EQ(fs_icl_compare(list.get(), live.get(), recorded::take, &c, &compared), FSIC_OK);
  EXPECT_EQ(c.lines, r.lines);
  EXPECT_EQ(c.volumes, r.volumes);
  EXPECT_EQ(c.old_hashes, r.old_hashes);
  EXPECT_EQ(c.new_hashes, r.new_hashes);
  EXPECT_EQ(compared.entries, checked.entries);
  EXPECT_EQ(compared.changed, checked.changed);

  icltest::IclPtr empty = icltest::new_icl();
  recorded gone, added;
  ASSERT_EQ(fs_icl_compare(list.get(), empty.get(), recorded::take, &gone, nullptr), FSIC_OK);
  EXPECT_EQ(gone.lines, (std::vector<std::string>{"removed /hello.txt 0", "removed /sub 0"}));
  ASSERT_EQ(fs_icl_compare(empty.get(), list.get(), recorded::take, &added, nullptr), FSIC_OK);
  EXPECT_EQ(added.lines, (std::vector<std::string>{"added /hello.txt 0", "added /sub 0"}));
  EXPECT_EQ(added.volumes, std::vector<std::string>(2, "partition CHK-1 1"));
}

} // namespace
