// Looking volumes up in a disk list, over lists built by hand (no devices needed).
#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>

namespace {

struct id_deleter {
  void operator()(fs_volume_id *id) const { fs_volume_id_destroy(id); }
};
using id_ptr = std::unique_ptr<fs_volume_id, id_deleter>;

// A disk list whose records live in this object; texts point at literals.
class HandList {
public:
  HandList() {
    INIT_LIST_HEAD(&list.disks);
    INIT_LIST_HEAD(&list.image_disks);
    INIT_LIST_HEAD(&list.lvm_groups);
  }
  HandList(const HandList &) = delete;
  HandList &operator=(const HandList &) = delete;

  fs_disk *disk(const char *serial) {
    fs_disk &d = disks_.emplace_back();
    d.serial = const_cast<char *>(serial);
    d.disk_list = &list;
    INIT_LIST_HEAD(&d.partitions);
    list_add_tail(&d.link, &list.disks);
    return &d;
  }
  fs_partition *partition(fs_disk *d, int number) {
    fs_partition &p = parts_.emplace_back();
    p.number = number;
    p.disk = d;
    list_add_tail(&p.link, &d->partitions);
    return &p;
  }
  fs_image_disk *image(const char *name) {
    fs_image_disk &i = images_.emplace_back();
    i.name = const_cast<char *>(name);
    i.disk_list = &list;
    INIT_LIST_HEAD(&i.partitions);
    list_add_tail(&i.link, &list.image_disks);
    return &i;
  }
  fs_partition *partition(fs_image_disk *i, int number) {
    fs_partition &p = parts_.emplace_back();
    p.number = number;
    p.disk = i;
    list_add_tail(&p.link, &i->partitions);
    return &p;
  }
  fs_lvm_group *group(const char *name) {
    fs_lvm_group &g = groups_.emplace_back();
    g.name = const_cast<char *>(name);
    g.disk_list = &list;
    INIT_LIST_HEAD(&g.volumes);
    list_add_tail(&g.link, &list.lvm_groups);
    return &g;
  }
  fs_lvm_volume *volume(fs_lvm_group *g, const char *name) {
    fs_lvm_volume &v = volumes_.emplace_back();
    v.name = const_cast<char *>(name);
    v.group = g;
    list_add_tail(&v.link, &g->volumes);
    return &v;
  }

  fs_disk_list list{};

private:
  std::deque<fs_disk> disks_;
  std::deque<fs_partition> parts_;
  std::deque<fs_image_disk> images_;
  std::deque<fs_lvm_group> groups_;
  std::deque<fs_lvm_volume> volumes_;
};

fs_volume *find(HandList &h, fs_volume_id *id) { return fs_disk_list_find_volume(&h.list, id); }

id_ptr partition_id(const char *serial, uint32_t n) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_partition_id_create(serial, n, &id), FSIC_OK);
  return id_ptr(id);
}

TEST(DiskListLookup, EmptyListFindsNothing) {
  HandList h;
  EXPECT_EQ(fs_disk_list_first_disk(&h.list), nullptr);
  EXPECT_EQ(fs_disk_list_first_image_disk(&h.list), nullptr);
  EXPECT_EQ(fs_disk_list_first_lvm_group(&h.list), nullptr);
  EXPECT_EQ(find(h, partition_id("S", 1).get()), nullptr);
}

TEST(DiskListLookup, PartitionIsFoundBySerialAndNumber) {
  HandList h;
  fs_disk *a = h.disk("A");
  h.partition(a, 1);
  fs_disk *b = h.disk("B");
  h.partition(b, 1);
  fs_partition *b2 = h.partition(b, 2);
  EXPECT_EQ(find(h, partition_id("B", 2).get()), &b2->volume);
  EXPECT_EQ(find(h, partition_id("B", 3).get()), nullptr);
  EXPECT_EQ(find(h, partition_id("C", 1).get()), nullptr);
}

TEST(DiskListLookup, FirstDiskWithTheSerialDecides) {
  HandList h;
  fs_disk *first = h.disk("DUP");
  h.partition(first, 1);
  fs_disk *second = h.disk("DUP");
  h.partition(second, 2);
  // The second disk has partition 2, but only the first disk is searched.
  EXPECT_EQ(find(h, partition_id("DUP", 2).get()), nullptr);
}

TEST(DiskListLookup, PartitionByNumberReturnsTheFirstMatch) {
  HandList h;
  fs_disk *d = h.disk("S");
  fs_partition *p5a = h.partition(d, 5);
  h.partition(d, 5);
  EXPECT_EQ(fs_disk_partition_by_number(d, 5), p5a);
  EXPECT_EQ(fs_disk_partition_by_number(d, 6), nullptr);
}

TEST(DiskListLookup, IterationFollowsListOrder) {
  HandList h;
  fs_disk *a = h.disk("A");
  fs_disk *b = h.disk("B");
  fs_partition *p1 = h.partition(a, 2);
  fs_partition *p2 = h.partition(a, 1);
  EXPECT_EQ(fs_disk_list_first_disk(&h.list), a);
  EXPECT_EQ(fs_disk_list_next_disk(&h.list, a), b);
  EXPECT_EQ(fs_disk_list_next_disk(&h.list, b), nullptr);
  EXPECT_EQ(fs_disk_first_partition(a), p1);
  EXPECT_EQ(fs_disk_next_partition(a, p1), p2);
  EXPECT_EQ(fs_disk_next_partition(a, p2), nullptr);
  EXPECT_EQ(fs_disk_first_partition(b), nullptr);
}

TEST(DiskListLookup, ImagePartitionIsFoundByImageName) {
  HandList h;
  fs_disk *d = h.disk("test");
  h.partition(d, 1);
  fs_image_disk *img = h.image("test");
  fs_partition *ip = h.partition(img, 1);
  fs_volume_id *raw = nullptr;
  ASSERT_EQ(fs_image_partition_id_create("test", 1, &raw), FSIC_OK);
  id_ptr id(raw);
  EXPECT_EQ(find(h, id.get()), &ip->volume);
  EXPECT_EQ(fs_image_disk_partition_by_number(img, 1), ip);
  EXPECT_EQ(fs_disk_list_next_image_disk(&h.list, img), nullptr);
  EXPECT_EQ(fs_image_disk_next_partition(img, ip), nullptr);
}

TEST(DiskListLookup, LvmVolumeIsSearchedInEveryGroupOfThatName) {
  HandList h;
  fs_lvm_group *g1 = h.group("vg");
  h.volume(g1, "root");
  h.group("other");
  fs_lvm_group *g3 = h.group("vg");
  fs_lvm_volume *home = h.volume(g3, "home");
  fs_volume_id *raw = nullptr;
  ASSERT_EQ(fs_lvm_volume_id_create("vg", "home", &raw), FSIC_OK);
  id_ptr id(raw);
  EXPECT_EQ(find(h, id.get()), &home->volume);
  ASSERT_EQ(fs_lvm_volume_id_create("other", "home", &raw), FSIC_OK);
  id_ptr missing(raw);
  EXPECT_EQ(find(h, missing.get()), nullptr);
  EXPECT_EQ(fs_lvm_group_first_volume(g1)->name, std::string("root"));
  EXPECT_EQ(fs_lvm_group_next_volume(g3, home), nullptr);
}

} // namespace

// ---- file-system UUIDs (disks without a serial) ------------------------------------------

namespace {

id_ptr uuid_id(const char *uuid) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_uuid_volume_id_create(uuid, &id), FSIC_OK);
  return id_ptr(id);
}

fs_partition *with_uuid(fs_partition *p, const char *uuid) {
  p->uuid = const_cast<char *>(uuid);
  return p;
}

TEST(DiskListLookup, UuidFindsTheFirstPartitionWithItDisksBeforeImages) {
  HandList h;
  fs_disk *nameless = h.disk(nullptr);
  h.partition(nameless, 1); // no file system: no UUID
  fs_partition *a = with_uuid(h.partition(nameless, 2), "U-A");
  fs_disk *serial = h.disk("S");
  fs_partition *b = with_uuid(h.partition(serial, 1), "U-B");
  with_uuid(h.partition(serial, 2), "U-A"); // a copy of a file system: the first one wins
  fs_image_disk *img = h.image("img");
  fs_partition *c = with_uuid(h.partition(img, 1), "U-C");
  fs_partition *d = with_uuid(h.partition(img, 2), "U-B");
  (void)d;
  EXPECT_EQ(find(h, uuid_id("U-A").get()), &a->volume);
  EXPECT_EQ(find(h, uuid_id("U-B").get()), &b->volume);
  EXPECT_EQ(find(h, uuid_id("U-C").get()), &c->volume);
  EXPECT_EQ(find(h, uuid_id("U-D").get()), nullptr);
  EXPECT_EQ(find(h, uuid_id("").get()), nullptr);
}

TEST(DiskListLookup, ADiskWithoutASerialNeverMatchesAPartitionId) {
  HandList h;
  fs_disk *nameless = h.disk(nullptr);
  h.partition(nameless, 1);
  fs_disk *serial = h.disk("S");
  fs_partition *p = h.partition(serial, 1);
  EXPECT_EQ(find(h, partition_id("S", 1).get()), &p->volume);
  EXPECT_EQ(find(h, partition_id("", 1).get()), nullptr);
}

} // namespace
