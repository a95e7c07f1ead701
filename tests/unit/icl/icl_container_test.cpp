// The integrity control list as a container: entries made by hand and read from blobs,
// look-ups, removal and iteration; and adding objects through volumes that are already
// held on a temporary directory (no mounting, no root).
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/icl.h>

#include "held_volume.h"
#include "icl_test_util.h"

namespace {

using namespace icltest;
using ocltest::FileAttrs;
using ocltest::TempDir;

Obj file_obj(const std::string &path, uint32_t flags, uint8_t seed) {
  Obj o;
  o.type = FS_OCL_FILE;
  o.path = path;
  o.flags = flags;
  for (size_t i = 0; i < o.hash.size(); i++)
    o.hash[i] = static_cast<uint8_t>(seed * 3 + i);
  o.fattrs = FileAttrs{0100600u, seed, seed, seed, seed};
  return o;
}

Obj dir_obj(const std::string &path, uint32_t flags) {
  Obj o;
  o.type = FS_OCL_DIR;
  o.path = path;
  o.flags = flags;
  o.has_masks = true;
  o.masks = {"*.dll"};
  return o;
}

// Three entries, iterated P (partition), I (image partition), L (LVM volume).
struct ThreeEntries {
  Entry p{Id{0, "SER-1", 1, ""}, {file_obj("/a", 12, 1), file_obj("/b", 4, 2)}};
  Entry i{Id{1, "disk.img", 1, ""}, {dir_obj("/d", CONTROL_DATA)}};
  Entry l{Id{2, "vg", 0, "lv"}, {file_obj("/only", 8, 3)}};
  IclPtr list = new_icl();
  fs_icl_volume *ep, *ei, *el;

  ThreeEntries() {
    el = add_entry(list.get(), l.id.make(), ocl_of(l));
    ei = add_entry(list.get(), i.id.make(), ocl_of(i));
    ep = add_entry(list.get(), p.id.make(), ocl_of(p));
  }
};

// ---------------------------------------------------------------- hand-built lists

TEST(IclContainer, ANewListIsEmpty) {
  IclPtr list = new_icl();
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
  IdPtr id = partition_id("X", 1);
  EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/a"), nullptr);
  EXPECT_EQ(fs_icl_remove_object(list.get(), id.get(), "/a"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(list->count, 0u);
}

TEST(IclContainer, EntriesIterateNewestFirstAndObjectsInPathOrder) {
  ThreeEntries t;
  EXPECT_EQ(t.list->count, 3u);
  EXPECT_EQ(entries_of(t.list.get()), (std::vector<fs_icl_volume *>{t.ep, t.ei, t.el}));
  EXPECT_EQ(fs_icl_next_volume(t.list.get(), t.el), nullptr);
  expect_list(t.list.get(), {t.p, t.i, t.l});
  EXPECT_EQ(paths_of(t.ep), (std::vector<std::string>{"/a", "/b"}));
  fs_ocl_object *a = fs_icl_volume_first_object(t.ep);
  ASSERT_NE(a, nullptr);
  fs_ocl_object *b = fs_icl_volume_next_object(a);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(fs_icl_volume_next_object(b), nullptr);
  EXPECT_EQ(a, fs_ocl_first_object(t.ep->ocl));
}

TEST(IclContainer, FindObjectNeedsAnEqualIdentifierAndPath) {
  ThreeEntries t;
  IdPtr p = partition_id("SER-1", 1), i = image_id("disk.img", 1), l = lvm_id("vg", "lv");
  EXPECT_EQ(fs_icl_find_object(t.list.get(), p.get(), "/a"), fs_ocl_find_object(t.ep->ocl, "/a"));
  EXPECT_NE(fs_icl_find_object(t.list.get(), p.get(), "/a"), nullptr);
  EXPECT_EQ(fs_icl_find_object(t.list.get(), i.get(), "/d"), fs_ocl_find_object(t.ei->ocl, "/d"));
  EXPECT_NE(fs_icl_find_object(t.list.get(), l.get(), "/only"), nullptr);
  EXPECT_EQ(fs_icl_volume_find_object(t.el, "/only"), fs_ocl_find_object(t.el->ocl, "/only"));
  EXPECT_EQ(fs_icl_volume_find_object(t.el, "/a"), nullptr);

  // A path of another entry, or one nobody has.
  EXPECT_EQ(fs_icl_find_object(t.list.get(), p.get(), "/only"), nullptr);
  EXPECT_EQ(fs_icl_find_object(t.list.get(), p.get(), "/A"), nullptr);
  EXPECT_EQ(fs_icl_find_object(t.list.get(), p.get(), "/a/"), nullptr);

  // Unknown identifiers: another kind with the same members, another number, serial,
  // group or volume name.
  IdPtr unknown[] = {image_id("SER-1", 1),         partition_id("disk.img", 1),
                     partition_id("SER-1", 2),     partition_id("SER-2", 1),
                     partition_id("SER-1", 65537), lvm_id("vg", "lv2"),
                     lvm_id("vg2", "lv"),          lvm_id("lv", "vg")};
  for (const IdPtr &u : unknown) {
    EXPECT_EQ(fs_icl_find_object(t.list.get(), u.get(), "/a"), nullptr);
    EXPECT_EQ(fs_icl_find_object(t.list.get(), u.get(), "/d"), nullptr);
    EXPECT_EQ(fs_icl_find_object(t.list.get(), u.get(), "/only"), nullptr);
  }
}

TEST(IclContainer, RemovingAnAbsentObjectYields4AndChangesNothing) {
  ThreeEntries t;
  const Bytes before = blob_of(t.list.get());
  IdPtr p = partition_id("SER-1", 1), other = partition_id("SER-9", 1), l = lvm_id("vg", "lv");
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/c"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/only"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), other.get(), "/a"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), l.get(), "/a"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), l.get(), ""), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(t.list->count, 3u);
  EXPECT_EQ(entries_of(t.list.get()), (std::vector<fs_icl_volume *>{t.ep, t.ei, t.el}));
  EXPECT_EQ(blob_of(t.list.get()), before);
}

TEST(IclContainer, RemovingOneOfTwoObjectsKeepsTheEntry) {
  ThreeEntries t;
  IdPtr p = partition_id("SER-1", 1);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/a"), FSIC_OK);
  EXPECT_EQ(t.list->count, 3u);
  EXPECT_EQ(fs_icl_first_volume(t.list.get()), t.ep);
  EXPECT_EQ(paths_of(t.ep), (std::vector<std::string>{"/b"}));
  EXPECT_EQ(fs_icl_find_object(t.list.get(), p.get(), "/a"), nullptr);
  EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/a"), FSIC_ERR_NOT_FOUND);
  Entry rest = t.p;
  rest.objects.erase(rest.objects.begin());
  expect_list(t.list.get(), {rest, t.i, t.l});
}

TEST(IclContainer, RemovingTheLastObjectDropsTheEntry) {
  {
    ThreeEntries t; // an entry in the middle
    IdPtr i = image_id("disk.img", 1);
    EXPECT_EQ(fs_icl_remove_object(t.list.get(), i.get(), "/d"), FSIC_OK);
    EXPECT_EQ(t.list->count, 2u);
    EXPECT_EQ(entries_of(t.list.get()), (std::vector<fs_icl_volume *>{t.ep, t.el}));
    EXPECT_EQ(blob_of(t.list.get()), encode_list({t.p, t.l}));
    EXPECT_EQ(fs_icl_remove_object(t.list.get(), i.get(), "/d"), FSIC_ERR_NOT_FOUND);
  }
  {
    ThreeEntries t; // the first and the last
    IdPtr p = partition_id("SER-1", 1), l = lvm_id("vg", "lv");
    EXPECT_EQ(fs_icl_remove_object(t.list.get(), l.get(), "/only"), FSIC_OK);
    EXPECT_EQ(entries_of(t.list.get()), (std::vector<fs_icl_volume *>{t.ep, t.ei}));
    EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/b"), FSIC_OK);
    EXPECT_EQ(fs_icl_remove_object(t.list.get(), p.get(), "/a"), FSIC_OK);
    EXPECT_EQ(entries_of(t.list.get()), (std::vector<fs_icl_volume *>{t.ei}));
    EXPECT_EQ(t.list->count, 1u);
  }
  {
    IclPtr list = new_icl(); // the only entry
    Entry e{Id{2, "g", 0, "v"}, {file_obj("/f", 0, 1)}};
    add_entry(list.get(), e.id.make(), ocl_of(e));
    IdPtr id = lvm_id("g", "v");
    EXPECT_EQ(fs_icl_remove_object(list.get(), id.get(), "/f"), FSIC_OK);
    EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
    EXPECT_EQ(list->count, 0u);
    EXPECT_EQ(blob_of(list.get()), (Bytes{0x00, 0x00}));
  }
}

TEST(IclContainer, WithDuplicateEntriesRemovalWorksOnTheFirst) {
  Entry older{Id{0, "S", 1, ""}, {file_obj("/x", 0, 1)}};
  Entry newer{Id{0, "S", 1, ""}, {file_obj("/x", 4, 2)}};
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list({older, newer}), &list), FSIC_OK); // iterates newer, older
  IdPtr id = partition_id("S", 1);
  EXPECT_EQ(fs_icl_remove_object(list.get(), id.get(), "/x"), FSIC_OK);
  expect_list(list.get(), {older});
  EXPECT_EQ(fs_icl_remove_object(list.get(), id.get(), "/x"), FSIC_OK);
  EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
}

TEST(IclContainer, ACreatedEntryOwnsAnEmptyListWhenGivenNone) {
  IclPtr list = new_icl();
  IdPtr id = lvm_id("a", "b");
  fs_volume_id *raw = id.get();
  fs_icl_volume *entry = nullptr;
  ASSERT_EQ(_fs_icl_create_volume(list.get(), raw, nullptr, &entry), FSIC_OK);
  id.release();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->id, raw);
  ASSERT_NE(entry->ocl, nullptr);
  EXPECT_EQ(entry->ocl->count, 0u);
  EXPECT_EQ(list->count, 1u);

  _fs_icl_destroy_volume(list.get(), entry);
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
}

TEST(IclContainer, DestroyingAListFreesEverything) {
  const long before = heap_in_use();
  {
    ThreeEntries t;
    OclPtr extra = ocltest::new_list();
    add_entry(t.list.get(), partition_id("more", 9), std::move(extra));
  }
  EXPECT_EQ(heap_in_use(), before);
}

// ---------------------------------------------------------------- adding through held volumes

class IclAdd : public ::testing::Test {
protected:
  void SetUp() override {
    g_id_calls = IdCalls{};
    ocltest::write_file(root / "hello.txt", "hello\n");
    ocltest::write_file(root / "sys/kernel.bin", std::string(20000, '\x7f'));
    ocltest::write_file(root / "lib/a.dll", "a");
    ocltest::write_file(root / "lib/b.txt", "b");
    ocltest::write_file(root / "lib/deep/c.dll", "c");
  }

  TempDir root;
  HeldVolume vol{"SER-HELD", 1, root.path().c_str()};
  HeldVolume vol2{"SER-HELD", 2, root.path().c_str()};
  IclPtr list = new_icl();
};

TEST_F(IclAdd, ARelativePathIsRefusedBeforeAnyLookup) {
  HeldVolume unheld{"SER-X", 1, nullptr};
  for (const char *path :
       {"", "hello.txt", "./hello.txt", " /hello.txt", "\\hello.txt", "~/hello.txt"}) {
    SCOPED_TRACE(std::string("path '") + path + "'");
    for (fs_volume *v : {vol.volume(), unheld.volume()}) {
      fs_ocl_object *out = reinterpret_cast<fs_ocl_object *>(&vol);
      EXPECT_EQ(fs_icl_add_file(list.get(), v, path, 12, &out), FSIC_ERR_RELATIVE_PATH);
      EXPECT_EQ(fs_icl_add_dir(list.get(), v, path, nullptr, 15, &out), FSIC_ERR_RELATIVE_PATH);
      EXPECT_EQ(out, reinterpret_cast<fs_ocl_object *>(&vol));
    }
  }
  EXPECT_EQ(g_id_calls.count, 0) << "no identifier may be made for a relative path";
  EXPECT_EQ(vol.volume()->mount_count, 1);
  EXPECT_EQ(unheld.volume()->mount_count, 0);
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(blob_of(list.get()), (Bytes{0x00, 0x00}));
}

TEST_F(IclAdd, AFileGoesIntoANewEntryAndTheOutObjectIsTheListed) {
  fs_ocl_object *out = nullptr;
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, &out), FSIC_OK);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(vol.volume()->mount_count, 1) << "the hold taken for the call is given back";
  ASSERT_EQ(list->count, 1u);
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  expect_id(entry->id, Id{0, "SER-HELD", 1, ""});
  IdPtr id = partition_id("SER-HELD", 1);
  EXPECT_EQ(fs_icl_find_object(list.get(), id.get(), "/hello.txt"), out);
  EXPECT_EQ(fs_icl_volume_first_object(entry), out);

  struct stat st;
  ASSERT_EQ(stat((root / "hello.txt").c_str(), &st), 0);
  Obj m = file_obj("/hello.txt", 12, 0);
  m.hash = ocltest::gost("hello\n");
  m.fattrs = ocltest::file_attrs_of(st);
  ocltest::expect_object(out, m);

  // The same through the object list directly gives the same bytes.
  OclPtr direct = ocltest::new_list();
  ASSERT_EQ(fs_ocl_add_file(direct.get(), root.path().c_str(), "/hello.txt", 12, nullptr), FSIC_OK);
  EXPECT_EQ(ocltest::blob_of(entry->ocl), ocltest::blob_of(direct.get()));
}

TEST_F(IclAdd, ADirectoryWithMasksGoesIntoTheSameEntry) {
  char dll[] = "*.dll";
  char *masks[] = {dll, nullptr};
  fs_ocl_object *f = nullptr, *d = nullptr;
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/sys/kernel.bin", 4, &f), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), vol.volume(), "/lib", masks, EACH_FILE | RECURSIVE | 4, &d),
            FSIC_OK);
  ASSERT_EQ(list->count, 1u) << "one volume, one entry";
  EXPECT_EQ(g_id_calls.count, 3) << "one look-up each, one identifier for the new entry";
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  EXPECT_EQ(paths_of(entry), (std::vector<std::string>{"/lib", "/sys/kernel.bin"}));
  EXPECT_EQ(fs_icl_volume_find_object(entry, "/lib"), d);
  EXPECT_EQ(fs_icl_volume_find_object(entry, "/sys/kernel.bin"), f);

  Obj m = dir_obj("/lib", EACH_FILE | RECURSIVE | 4);
  ocltest::Sub deep{"deep", {}, {}};
  deep.info.files.push_back(ocltest::FileEnt{"c.dll", ocltest::gost("c"), {}});
  m.info.subs.push_back(deep);
  m.info.files.push_back(ocltest::FileEnt{"a.dll", ocltest::gost("a"), {}});
  ocltest::expect_object(d, m);
  EXPECT_EQ(vol.volume()->mount_count, 1);
}

TEST_F(IclAdd, TwoVolumesAreTwoEntriesNewestFirst) {
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 0, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), vol2.volume(), "/hello.txt", 8, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/lib/a.dll", 0, nullptr), FSIC_OK);
  std::vector<fs_icl_volume *> es = entries_of(list.get());
  ASSERT_EQ(es.size(), 2u);
  expect_id(es[0]->id, Id{0, "SER-HELD", 2, ""});
  expect_id(es[1]->id, Id{0, "SER-HELD", 1, ""});
  EXPECT_EQ(paths_of(es[0]), (std::vector<std::string>{"/hello.txt"}));
  EXPECT_EQ(paths_of(es[1]), (std::vector<std::string>{"/hello.txt", "/lib/a.dll"}));

  // Another record naming the same volume finds the same entry.
  HeldVolume again{"SER-HELD", 2, root.path().c_str()};
  ASSERT_EQ(fs_icl_add_file(list.get(), again.volume(), "/lib/b.txt", 0, nullptr), FSIC_OK);
  EXPECT_EQ(entries_of(list.get()), es);
  EXPECT_EQ(paths_of(es[0]), (std::vector<std::string>{"/hello.txt", "/lib/b.txt"}));
}

TEST_F(IclAdd, AddingAPathAgainReplacesTheObject) {
  fs_ocl_object *first = nullptr, *second = nullptr;
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 4, &first), FSIC_OK);
  ocltest::write_file(root / "hello.txt", "changed\n");
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, &second), FSIC_OK);
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  EXPECT_EQ(entry->ocl->count, 1u);
  EXPECT_EQ(fs_icl_volume_find_object(entry, "/hello.txt"), second);
  EXPECT_EQ(second->flags, 12u);
  auto *f = reinterpret_cast<fs_ocl_file_object *>(second);
  EXPECT_EQ(ocltest::hash_at(f->hash), ocltest::gost("changed\n"));
}

TEST_F(IclAdd, AFailedFirstAddLeavesNoEntry) {
  // Another volume is listed already; the failing volume is not.
  ASSERT_EQ(fs_icl_add_file(list.get(), vol2.volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  const Bytes before = blob_of(list.get());
  fs_icl_volume *kept = fs_icl_first_volume(list.get());
  struct failing {
    bool dir;
    const char *path;
  };
  for (const failing &c :
       {failing{false, "/missing"}, failing{false, "/lib"}, failing{true, "/hello.txt"},
        failing{true, "/missing"}, failing{false, "/hello.txt/x"}}) {
    SCOPED_TRACE(c.path);
    fs_ocl_object *out = reinterpret_cast<fs_ocl_object *>(&vol);
    const fsic_status status =
        c.dir ? fs_icl_add_dir(list.get(), vol.volume(), c.path, nullptr, 15, &out)
              : fs_icl_add_file(list.get(), vol.volume(), c.path, 12, &out);
    EXPECT_EQ(status, FSIC_ERR_UNAVAILABLE);
    EXPECT_EQ(out, reinterpret_cast<fs_ocl_object *>(&vol));
    EXPECT_EQ(list->count, 1u);
    EXPECT_EQ(entries_of(list.get()), (std::vector<fs_icl_volume *>{kept}));
    EXPECT_EQ(blob_of(list.get()), before);
    EXPECT_EQ(vol.volume()->mount_count, 1);
  }
}

TEST_F(IclAdd, AFailedSecondAddKeepsTheEntryAndItsObjects) {
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_icl_add_dir(list.get(), vol.volume(), "/lib", nullptr, 1, nullptr), FSIC_OK);
  const Bytes before = blob_of(list.get());
  fs_icl_volume *entry = fs_icl_first_volume(list.get());
  EXPECT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/missing", 12, nullptr),
            FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_add_dir(list.get(), vol.volume(), "/hello.txt", nullptr, 1, nullptr),
            FSIC_ERR_UNAVAILABLE);
  // Failing on an object already listed leaves the listed one alone.
  EXPECT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/lib", 12, nullptr), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(fs_icl_first_volume(list.get()), entry);
  EXPECT_EQ(list->count, 1u);
  EXPECT_EQ(blob_of(list.get()), before);
}

TEST_F(IclAdd, AFailingIdentifierIsPassedUpAndChangesNothing) {
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  const Bytes before = blob_of(list.get());
  for (fsic_status s : {FSIC_ERR_NO_MEMORY, FSIC_ERR_FAILED}) {
    g_id_calls.fail_with = s;
    g_id_calls.count = 0;
    EXPECT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/lib/a.dll", 12, nullptr), s);
    EXPECT_EQ(fs_icl_add_dir(list.get(), vol2.volume(), "/lib", nullptr, 12, nullptr), s);
    EXPECT_EQ(g_id_calls.count, 2);
    EXPECT_EQ(blob_of(list.get()), before);
    EXPECT_EQ(vol.volume()->mount_count, 1) << "no hold is taken";
    EXPECT_EQ(vol2.volume()->mount_count, 1);
  }
}

TEST_F(IclAdd, AVolumeThatCannotBeMountedLeavesTheListAsBefore) {
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  const Bytes before = blob_of(list.get());
  // Not held and without a file-system type: the mount fails with 1 before anything is
  // made on the system.
  HeldVolume unheld{"SER-NEW", 1, nullptr};
  EXPECT_EQ(fs_icl_add_file(list.get(), unheld.volume(), "/hello.txt", 12, nullptr),
            FSIC_ERR_FAILED);
  EXPECT_EQ(fs_icl_add_dir(list.get(), unheld.volume(), "/lib", nullptr, 12, nullptr),
            FSIC_ERR_FAILED);
  EXPECT_EQ(list->count, 1u);
  EXPECT_EQ(blob_of(list.get()), before);
  EXPECT_EQ(unheld.volume()->mount_count, 0);
  EXPECT_EQ(unheld.volume()->mount_point, nullptr);

  // The same for a volume that is listed already: its entry stays as it was.
  HeldVolume listed_unheld{"SER-HELD", 1, nullptr};
  EXPECT_EQ(fs_icl_add_file(list.get(), listed_unheld.volume(), "/lib/a.dll", 12, nullptr),
            FSIC_ERR_FAILED);
  EXPECT_EQ(blob_of(list.get()), before);
}

TEST_F(IclAdd, AddingToAListReadFromABlobUsesItsEntry) {
  ASSERT_EQ(fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", 12, nullptr), FSIC_OK);
  IclPtr back;
  ASSERT_EQ(read_icl(blob_of(list.get()), &back), FSIC_OK);
  ASSERT_EQ(fs_icl_add_file(back.get(), vol.volume(), "/lib/a.dll", 12, nullptr), FSIC_OK);
  EXPECT_EQ(back->count, 1u);
  EXPECT_EQ(paths_of(fs_icl_first_volume(back.get())),
            (std::vector<std::string>{"/hello.txt", "/lib/a.dll"}));
}

} // namespace
