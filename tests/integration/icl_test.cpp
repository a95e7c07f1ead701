// Integrity control lists over real ext4 images on real loop devices (root).
//
// Each test makes sparse ext4 images (filled with mkfs.ext4 -d from a tree of its own),
// attaches them to loop devices and builds its own disk list with hand-made partition
// records whose device node is the loop device and whose create_id makes a partition
// identifier (the disk's serial and the partition number) and counts its calls. The
// driver's integrity-list scenario runs on such a list too. Whatever a test makes
// (mounts, loop devices, images, base directories of this process under /tmp) is taken
// down by the fixture, also when an assertion fails half-way.
#include <fsic/icl.h>
#include <fsic/list.h>
#include <fsic/mount.h>
#include <fsic/volume_id.h>

#include "icl_report.h"
#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"
#include "tests/unit/driver/icl_scenario_tree.h"
#include "tests/unit/driver/stdio_capture.h"
#include "tests/unit/icl/icl_test_util.h"
#include "tests/unit/ocl/ocl_test_util.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using ocltest::Bytes;
using ocltest::Obj;
using support::count_mounts_of;
using support::exists;
using support::test_volume;

int g_create_id_calls = 0;

// The partition identifier of the disk's serial and the record's number, counted.
fsic_status counted_create_id(fs_volume *volume, fs_volume_id **out) {
  ++g_create_id_calls;
  return support::partition_create_id(volume, out);
}

const fs_volume_ops icl_volume_ops = {FS_VOLUME_PARTITION, counted_create_id,
                                      support::test_get_disk_list};

using icl_ptr = icltest::IclPtr;
using id_ptr = icltest::IdPtr;
using icltest::blob_of;
using icltest::entries_of;
using icltest::new_icl;
using icltest::partition_id;
using icltest::paths_of;

// A disk list of its own with one disk (linked into the list, with a serial), whose
// partitions are made by hand.
using icl_disk_list = support::serial_disk_list;

class IclTest : public ::testing::Test {
public: // also used by the sandbox test below
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
    ASSERT_TRUE(work_.ok()) << work_.error();
  }

  ~IclTest() override {
    // Mounts and base directories first, then the loop devices under them, then the
    // images (with the work directory).
    guard_.clean();
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  // The default tree of a volume.
  std::string default_tree() {
    const std::string src = work_ / ("src" + std::to_string(trees_++));
    ocltest::write_file(src + "/hello.txt", "hello from the image\n");
    ocltest::write_file(src + "/sub/data.bin", drivertest::pattern(70000, 9));
    ocltest::write_file(src + "/sub/lib.dll", "a library");
    ocltest::write_file(src + "/sub/deep/tool.EXE", "a tool");
    ocltest::write_file(src + "/sub/deep/readme.txt", "not listed");
    ocltest::make_dirs(src + "/sub/empty");
    return src;
  }

  // A new ext4 image with the tree under `src`, attached to a free loop device; returns
  // the loop device's node ("" after a failed assertion).
  std::string attach_image(const std::string &src) { return images_.attach(src); }

  // Partition `number` of the list's disk on the loop device (at the end of the disk's
  // partitions); the library's texts in it are freed at the end of the test.
  test_volume *make_volume(icl_disk_list &list, const std::string &devnode, int number,
                           std::optional<std::string> fs_type = "ext4") {
    auto v = std::make_unique<test_volume>(list, devnode, std::move(fs_type),
                                           support::syspath_of(devnode));
    v->part.volume.ops = &icl_volume_ops;
    v->part.number = number;
    list_add_tail(&v->part.link, &list.disk.partitions);
    volumes_.push_back(std::move(v));
    return volumes_.back().get();
  }

  // A disk list of the test's own, kept until the fixture ends.
  icl_disk_list &new_disks(const std::string &serial) {
    lists_.push_back(std::make_unique<icl_disk_list>(serial));
    return *lists_.back();
  }

  // Nothing of the library's mounting is left: the volume is not held and not mounted,
  // and no base directory of this process was left behind.
  void expect_released(test_volume *v, const std::string &dev) {
    EXPECT_EQ(v->volume()->mount_count, 0);
    EXPECT_EQ(v->volume()->mount_point, nullptr);
    EXPECT_EQ(count_mounts_of(dev), 0);
    EXPECT_TRUE(guard_.made_since().empty()) << "a base directory was left behind";
  }

  // Frees what the library still owns in the records (after a failed assertion), so that
  // a failure shows as one and not also as a leak.
  void TearDown() override {
    for (auto &v : volumes_)
      support::drop_hold(v->volume());
    for (auto &l : lists_)
      support::drop_base_dir(&l->list);
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-icl-test", std::nothrow};
  support::loop_images images_{work_.path()};
  std::vector<std::unique_ptr<test_volume>> volumes_;
  std::vector<std::unique_ptr<icl_disk_list>> lists_;
  int trees_ = 0;
};

// ---- failures leave the list as it was ---------------------------------------------

TEST_F(IclTest, AMountFailureOnAnUnlistedVolumeLeavesTheListAsItWas) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER-A");
  test_volume *a = make_volume(disks, dev, 1);
  test_volume *xfs = make_volume(disks, dev, 2, "xfs");
  test_volume *nodev = make_volume(disks, "/dev/fsic-no-such-device", 3);

  // An empty list stays empty.
  icl_ptr empty = new_icl();
  EXPECT_EQ(fs_icl_add_file(empty.get(), xfs->volume(), "/hello.txt", 12, nullptr),
            FSIC_ERR_FAILED);
  EXPECT_EQ(empty->count, 0u);
  EXPECT_EQ(fs_icl_first_volume(empty.get()), nullptr);
  EXPECT_EQ(blob_of(empty.get()), (Bytes{0x00, 0x00}));
  expect_released(xfs, dev);

  // A list with another volume keeps exactly that.
  icl_ptr list = new_icl();
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  const Bytes before = blob_of(list.get());
  for (test_volume *v : {xfs, nodev}) {
    SCOPED_TRACE(v->devnode + " as " + v->fs_type.value_or("?"));
    fs_ocl_object *out = reinterpret_cast<fs_ocl_object *>(&disks);
    EXPECT_EQ(fs_icl_add_file(list.get(), v->volume(), "/hello.txt", 12, &out), FSIC_ERR_FAILED);
    EXPECT_EQ(fs_icl_add_dir(list.get(), v->volume(), "/sub", nullptr, 15, &out), FSIC_ERR_FAILED);
    EXPECT_EQ(out, reinterpret_cast<fs_ocl_object *>(&disks));
    EXPECT_EQ(list->count, 1u);
    EXPECT_EQ(entries_of(list.get()), (std::vector<fs_icl_volume *>{entry}));
    EXPECT_EQ(blob_of(list.get()), before);
    id_ptr id = partition_id("SER-A", static_cast<uint32_t>(v->part.number));
    EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/hello.txt"), nullptr);
    expect_released(v, dev);
  }
  expect_released(a, dev);
}

TEST_F(IclTest, AFailingObjectOnAListedVolumeKeepsTheEntryAndItsObjects) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER-A");
  test_volume *a = make_volume(disks, dev, 1);

  icl_ptr list = new_icl();
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/sub", nullptr, 15, nullptr), FSIC_OK);
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  const Bytes before = blob_of(list.get());

  EXPECT_EQ(fs_icl_add_file(list.get(), a->volume(), "/missing", 12, nullptr),
            FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/missing", nullptr, 15, nullptr),
            FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/hello.txt", nullptr, 15, nullptr),
            FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_add_file(list.get(), a->volume(), "/sub", 12, nullptr), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_first_volume(list.get()), entry);
  EXPECT_EQ(list->count, 1u);
  EXPECT_EQ(paths_of(entry), (std::vector<std::string>{"/hello.txt", "/sub"}));
  EXPECT_EQ(blob_of(list.get()), before);
  expect_released(a, dev);

  // The volume cannot be mounted any more: the entry stays as it was too.
  std::string xfs = "xfs";
  a->part.volume.fs_type = xfs.data();
  EXPECT_EQ(fs_icl_add_file(list.get(), a->volume(), "/sub/lib.dll", 12, nullptr), FSIC_ERR_FAILED);
  EXPECT_EQ(blob_of(list.get()), before);
  expect_released(a, dev);
  a->part.volume.fs_type = a->fs_type->data();

  // And it still takes new objects.
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/sub/lib.dll", 12, nullptr), FSIC_OK);
  EXPECT_EQ(paths_of(entry), (std::vector<std::string>{"/hello.txt", "/sub", "/sub/lib.dll"}));
  expect_released(a, dev);
}

TEST_F(IclTest, RemovingTheLastObjectOfAVolumeDropsItsEntry) {
  const std::string dev_a = attach_image(default_tree());
  const std::string dev_b = attach_image(default_tree());
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev_a, 1);
  test_volume *b = make_volume(disks, dev_b, 2);

  icl_ptr list = new_icl();
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/sub", nullptr, 4, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), b->volume(), "/sub/lib.dll", 4, nullptr), FSIC_OK);
  id_ptr id_a = partition_id("SER", 1), id_b = partition_id("SER", 2);
  fs_icl_volume *ea = entries_of(list.get())[1];

  EXPECT_EQ(fs_icl_remove_object(list.get(), id_b.get(), "/hello.txt"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(list->count, 2u);
  EXPECT_EQ(fs_icl_remove_object(list.get(), id_b.get(), "/sub/lib.dll"), FSIC_OK);
  EXPECT_EQ(entries_of(list.get()), (std::vector<fs_icl_volume *>{ea}));
  EXPECT_EQ(list->count, 1u);
  EXPECT_EQ(fs_icl_remove_object(list.get(), id_a.get(), "/sub"), FSIC_OK);
  EXPECT_EQ(fs_icl_first_volume(list.get()), ea);
  EXPECT_EQ(fs_icl_remove_object(list.get(), id_a.get(), "/hello.txt"), FSIC_OK);
  EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(blob_of(list.get()), (Bytes{0x00, 0x00}));
  expect_released(a, dev_a);
  expect_released(b, dev_b);
}

// ---- order, paths, holds -------------------------------------------------------------

TEST_F(IclTest, TwoVolumesAddedAThenBIterateBThenA) {
  const std::string dev_a = attach_image(default_tree());
  const std::string dev_b = attach_image(default_tree());
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev_a, 1);
  test_volume *b = make_volume(disks, dev_b, 2);

  icl_ptr list = new_icl();
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), b->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/sub/lib.dll", 12, nullptr), FSIC_OK);
  std::vector<fs_icl_volume *> es = entries_of(list.get());
  ASSERT_EQ(es.size(), 2u);
  EXPECT_EQ(list->count, 2u);
  id_ptr id_a = partition_id("SER", 1), id_b = partition_id("SER", 2);
  EXPECT_EQ(fs_volume_id_compare(es[0]->id, id_b.get()), 0);
  EXPECT_EQ(fs_volume_id_compare(es[1]->id, id_a.get()), 0);
  EXPECT_EQ(paths_of(es[0]), (std::vector<std::string>{"/hello.txt"}));
  EXPECT_EQ(paths_of(es[1]), (std::vector<std::string>{"/hello.txt", "/sub/lib.dll"}));

  // The blob starts with B's identifier; read back the entries come A, B, and each
  // finds its volume again in the disk list.
  const Bytes b_first{0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 'S', 'E', 'R', 0x02, 0x00};
  const Bytes blob = blob_of(list.get());
  EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 11), b_first);
  fs_icl *back_raw = nullptr;
  ASSERT_EQ(fs_icl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &back_raw),
            FSIC_OK);
  icl_ptr back(back_raw);
  std::vector<fs_icl_volume *> bs = entries_of(back.get());
  ASSERT_EQ(bs.size(), 2u);
  EXPECT_EQ(fs_disk_list_find_volume(&disks.list, bs[0]->id), a->volume());
  EXPECT_EQ(fs_disk_list_find_volume(&disks.list, bs[1]->id), b->volume());
  EXPECT_EQ(ocltest::blob_of(bs[0]->ocl), ocltest::blob_of(es[1]->ocl));
  EXPECT_EQ(ocltest::blob_of(bs[1]->ocl), ocltest::blob_of(es[0]->ocl));
  expect_released(a, dev_a);
  expect_released(b, dev_b);
}

TEST_F(IclTest, ARelativePathIsRefusedBeforeAnyLookupOrMount) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev, 1);
  test_volume *bad = make_volume(disks, "/dev/fsic-no-such-device", 2, "xfs");
  icl_ptr list = new_icl();
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  const Bytes before = blob_of(list.get());

  g_create_id_calls = 0;
  for (const char *path : {"", "hello.txt", "sub", "./hello.txt", " /hello.txt", "\\hello.txt"}) {
    SCOPED_TRACE(std::string("path '") + path + "'");
    for (test_volume *v : {a, bad}) {
      fs_ocl_object *out = reinterpret_cast<fs_ocl_object *>(&disks);
      EXPECT_EQ(fs_icl_add_file(list.get(), v->volume(), path, 12, &out), FSIC_ERR_RELATIVE_PATH);
      EXPECT_EQ(fs_icl_add_dir(list.get(), v->volume(), path, nullptr, 15, &out),
                FSIC_ERR_RELATIVE_PATH);
      EXPECT_EQ(out, reinterpret_cast<fs_ocl_object *>(&disks));
    }
  }
  EXPECT_EQ(g_create_id_calls, 0) << "no identifier may be made for a relative path";
  EXPECT_EQ(blob_of(list.get()), before);
  EXPECT_EQ(list->count, 1u);
  expect_released(a, dev);
  expect_released(bad, dev);
  EXPECT_EQ(disks.list.base_dir_count, 0);
  EXPECT_EQ(disks.list.base_dir, nullptr);
}

TEST_F(IclTest, TheMountIsHeldOnlyForTheCall) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev, 1);
  icl_ptr list = new_icl();

  g_create_id_calls = 0;
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  EXPECT_EQ(g_create_id_calls, 2) << "a look-up, then the new entry's identifier";
  expect_released(a, dev);
  EXPECT_EQ(disks.list.base_dir_count, 0);
  EXPECT_EQ(disks.list.base_dir, nullptr);

  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/sub", nullptr, 15, nullptr), FSIC_OK);
  EXPECT_EQ(g_create_id_calls, 3);
  expect_released(a, dev);
  EXPECT_EQ(fs_icl_add_file(list.get(), a->volume(), "/nope", 12, nullptr), FSIC_ERR_UNAVAILABLE);
  expect_released(a, dev);

  // And again after all that: the next add mounts anew and reads the file.
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 4, &obj), FSIC_OK);
  EXPECT_EQ(ocltest::hash_at(reinterpret_cast<fs_ocl_file_object *>(obj)->hash),
            ocltest::gost("hello from the image\n"));
  expect_released(a, dev);
  EXPECT_EQ(disks.list.base_dir_count, 0);
}

TEST_F(IclTest, AVolumeHeldByTheCallerStaysMountedAfterAnAdd) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev, 1);
  icl_ptr list = new_icl();

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = disks.list.base_dir;
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/sub", nullptr, 15, nullptr), FSIC_OK);
  EXPECT_EQ(fs_icl_add_file(list.get(), a->volume(), "/nope", 12, nullptr), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(a->volume()->mount_count, 1);
  ASSERT_NE(a->volume()->mount_point, nullptr);
  EXPECT_EQ(std::string(a->volume()->mount_point), dir);
  auto m = support::find_mount(dir);
  ASSERT_TRUE(m.has_value());
  EXPECT_EQ(support::device_under(m->source), dev);
  EXPECT_EQ(count_mounts_of(dev), 1) << "no second mount";
  EXPECT_EQ(support::read_text(dir + "/hello.txt"), "hello from the image\n");
  EXPECT_TRUE(exists(base));
  EXPECT_EQ(disks.list.base_dir_count, 1);

  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  expect_released(a, dev);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
}

// ---- objects -------------------------------------------------------------------------

TEST_F(IclTest, AddDirWithMasksOnARealTree) {
  const std::string src = work_ / "tree";
  ocltest::write_file(src + "/apps/a.dll", "a");
  ocltest::write_file(src + "/apps/B.EXE", "bb");
  ocltest::write_file(src + "/apps/c.exe", "not listed: the masks are *.dll and *.EXE");
  ocltest::write_file(src + "/apps/d.txt", "not listed");
  ocltest::write_file(src + "/apps/x/e.dll", drivertest::pattern(40000, 7));
  ocltest::write_file(src + "/apps/x/y/f.EXE", "f");
  ocltest::write_file(src + "/apps/txtonly/g.txt", "a subdirectory without listed files");
  ocltest::make_dirs(src + "/apps/empty");
  const std::string dev = attach_image(src);
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev, 1);
  icl_ptr list = new_icl();

  char m1[] = "*.dll", m2[] = "*.EXE";
  char *masks[] = {m1, m2, nullptr};
  fs_ocl_object *each = nullptr, *hash = nullptr, *flat = nullptr;
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/apps", masks, 15, &each), FSIC_OK);
  ASSERT_EQ(
      fs_icl_add_dir(list.get(), a->volume(), "/apps/x", masks, RECURSIVE | CONTROL_DATA, &hash),
      FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/apps/x/y", nullptr, EACH_FILE | CONTROL_DATA,
                           &flat),
            FSIC_OK);
  expect_released(a, dev);

  // The expected objects, from the files on the volume (held here for stat).
  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp), FSIC_OK);
  const std::string root = mp;
  auto fattrs = [&](const std::string &rel) {
    struct stat st {};
    EXPECT_EQ(stat((root + rel).c_str(), &st), 0) << rel;
    return ocltest::file_attrs_of(st);
  };
  auto dattrs = [&](const std::string &rel) {
    struct stat st {};
    EXPECT_EQ(stat((root + rel).c_str(), &st), 0) << rel;
    return ocltest::dir_attrs_of(st);
  };
  Obj m;
  m.type = FS_OCL_DIR;
  m.path = "/apps";
  m.flags = 15;
  m.has_masks = true;
  m.masks = {"*.dll", "*.EXE"};
  m.dattrs = dattrs("/apps");
  ocltest::Sub y{"y", {}, dattrs("/apps/x/y")};
  y.info.files.push_back({"f.EXE", ocltest::gost("f"), fattrs("/apps/x/y/f.EXE")});
  ocltest::Sub x{"x", {}, dattrs("/apps/x")};
  x.info.subs.push_back(y);
  x.info.files.push_back(
      {"e.dll", ocltest::gost(drivertest::pattern(40000, 7)), fattrs("/apps/x/e.dll")});
  m.info.subs.push_back(x);
  m.info.files.push_back({"B.EXE", ocltest::gost("bb"), fattrs("/apps/B.EXE")});
  m.info.files.push_back({"a.dll", ocltest::gost("a"), fattrs("/apps/a.dll")});
  ocltest::expect_object(each, m);

  Obj n;
  n.type = FS_OCL_DIR;
  n.path = "/apps/x/y";
  n.flags = EACH_FILE | CONTROL_DATA;
  n.info.files.push_back({"f.EXE", ocltest::gost("f"), {}});
  ocltest::expect_object(flat, n);

  // The directory hash is the one the object list makes of the same directory.
  ocltest::OclPtr direct = ocltest::new_list();
  fs_ocl_object *d = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(direct.get(), mp, "/apps/x", masks, RECURSIVE | CONTROL_DATA, &d),
            FSIC_OK);
  EXPECT_EQ(ocltest::hash_at(reinterpret_cast<fs_ocl_dir_object *>(hash)->hash),
            ocltest::hash_at(reinterpret_cast<fs_ocl_dir_object *>(d)->hash));
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  expect_released(a, dev);

  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  EXPECT_EQ(paths_of(entry), (std::vector<std::string>{"/apps", "/apps/x", "/apps/x/y"}));
}

TEST_F(IclTest, TheOutObjectIsTheOneInTheList) {
  const std::string dev = attach_image(default_tree());
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("SER");
  test_volume *a = make_volume(disks, dev, 1);
  icl_ptr list = new_icl();
  id_ptr id = partition_id("SER", 1);

  fs_ocl_object *file = nullptr, *dir = nullptr, *again = nullptr;
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, &file), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), a->volume(), "/sub", nullptr, 15, &dir), FSIC_OK);
  ASSERT_NE(file, nullptr);
  ASSERT_NE(dir, nullptr);
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/hello.txt"), file);
  EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/sub"), dir);
  EXPECT_EQ(fs_icl_volume_find_object(entry, "/hello.txt"), file);
  EXPECT_EQ(fs_icl_volume_first_object(entry), file);
  EXPECT_EQ(fs_icl_volume_next_object(file), dir);
  EXPECT_EQ(std::string(file->path), "/hello.txt");
  EXPECT_EQ(file->type, FS_OCL_FILE);
  EXPECT_EQ(file->flags, 12u);
  EXPECT_EQ(dir->type, FS_OCL_DIR);
  EXPECT_EQ(dir->flags, 15u);

  // Adding the path again replaces the object; the new one is handed out and listed.
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 8, &again), FSIC_OK);
  EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/hello.txt"), again);
  EXPECT_EQ(again->flags, 8u);
  EXPECT_EQ(entry->ocl->count, 2u);

  // Without an out parameter the object is listed all the same.
  ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/sub/lib.dll", 4, nullptr), FSIC_OK);
  EXPECT_NE(fs_icl_find_object(list.get(), id.get(), "/sub/lib.dll"), nullptr);
  expect_released(a, dev);
}

// ---- the driver's scenario -----------------------------------------------------------

TEST_F(IclTest, TheScenarioStopsAtAMissingNtldr) {
  const std::string src = work_ / "windows";
  drivertest::make_scenario_tree(src, {"ntldr"});
  const std::string dev = attach_image(src);
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("WD-WCAV12345678");
  test_volume *p1 = make_volume(disks, dev, 1);

  g_create_id_calls = 0;
  const auto c = drivertest::capture_stdio([&] { test_icl(&disks.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't add file '/ntldr' to icl\n");
  EXPECT_EQ(g_create_id_calls, 2) << "one add only";
  expect_released(p1, dev);
}

TEST_F(IclTest, TheScenarioPrintsTheListAndItsCopy) {
  const std::string src = work_ / "windows";
  drivertest::make_scenario_tree(src);
  const std::string dev = attach_image(src);
  ASSERT_FALSE(dev.empty());
  icl_disk_list &disks = new_disks("WD-WCAV12345678");
  // Partition 2 comes first on the disk and cannot be mounted: the scenario takes
  // partition 1 by its number.
  test_volume *p2 = make_volume(disks, "/dev/fsic-no-such-device", 2, "xfs");
  test_volume *p1 = make_volume(disks, dev, 1);

  // The listing worked out from the files on the volume.
  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(p1->volume(), &mp), FSIC_OK);
  const std::string expected = drivertest::scenario_output(mp, "WD-WCAV12345678 partition 1\n");
  ASSERT_EQ(fs_volume_release_mount_point(p1->volume()), FSIC_OK);
  expect_released(p1, dev);

  const auto c = drivertest::capture_stdio([&] { test_icl(&disks.list); });
  EXPECT_EQ(c.err, "");
  EXPECT_EQ(c.out, expected);
  expect_released(p1, dev);
  expect_released(p2, dev);
}

// The fixture itself: after a test that fails half-way (simulated here by leaving a
// volume held and a list undestroyed), nothing of it is left on the host.
TEST(IclSandbox, AnAbandonedTestLeavesNothingBehind) {
  FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
  std::string dev, work, dir, base;
  {
    struct abandoned : IclTest {
      void TestBody() override {}
    } t;
    t.SetUp();
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    dev = t.attach_image(t.default_tree());
    ASSERT_FALSE(dev.empty());
    work = t.work_.path();
    icl_disk_list &disks = t.new_disks("SER");
    test_volume *a = t.make_volume(disks, dev, 1);
    icl_ptr list = new_icl();
    ASSERT_EQ(fs_icl_add_file(list.get(), a->volume(), "/hello.txt", 12, nullptr), FSIC_OK);
    const char *mp = nullptr;
    ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp), FSIC_OK);
    dir = mp;
    base = disks.list.base_dir;
    EXPECT_EQ(count_mounts_of(dev), 1);
    t.TearDown();
  }
  EXPECT_EQ(count_mounts_of(dev), 0);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_FALSE(exists(work));
  const auto lo = support::run({"losetup", "-a"});
  EXPECT_EQ(lo.out.find(work), std::string::npos) << lo.out;
}

} // namespace
