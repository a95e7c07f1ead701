// The driver's dump of integrity control lists, byte for byte: flags, masks, hashes,
// attributes (with the group labelled "git"), identifiers of the three kinds, file
// and directory objects, nested directory info, and whole lists.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/icl.h>

#include "icl_report.h"
#include "stdio_capture.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using namespace icltest;
using drivertest::capture_stdio;
using ocltest::DirAttrs;
using ocltest::FileAttrs;
using ocltest::FileEnt;
using ocltest::Hash;
using ocltest::Sub;

// Standard output of `f`; anything on standard error fails the test.
template <typename F>
std::string out_of(F &&f) {
  const auto c = capture_stdio(f);
  EXPECT_EQ(c.err, "");
  return c.out;
}

Hash counting_hash(uint8_t start) {
  Hash h{};
  for (size_t i = 0; i < h.size(); i++)
    h[i] = static_cast<uint8_t>(start + i);
  return h;
}

const std::string kHash00 = "[000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f]";
const std::string kHashF0 = "[f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff000102030405060708090a0b0c0d0e0f]";

// The object list of one entry read from its blob, and its first object.
struct OneObject {
  OclPtr ocl;
  fs_ocl_object *obj = nullptr;
  explicit OneObject(const Obj &o) {
    ocl = ocl_of(Entry{Id{}, {o}});
    obj = fs_ocl_first_object(ocl.get());
  }
};

// ---------------------------------------------------------------- small pieces

TEST(IclPrinter, IndentIsTwoBlanksPerLevel) {
  EXPECT_EQ(out_of([] { print_indent(0); }), "");
  EXPECT_EQ(out_of([] { print_indent(1); }), "  ");
  EXPECT_EQ(out_of([] { print_indent(3); }), "      ");
  EXPECT_EQ(out_of([] { print_indent(-1); }), "");
}

TEST(IclPrinter, HashIsBracketedLowercaseHex) {
  const Hash a = counting_hash(0x00), b = counting_hash(0xF0);
  EXPECT_EQ(out_of([&] { print_icl_hash(a.data()); }), kHash00);
  EXPECT_EQ(out_of([&] { print_icl_hash(b.data()); }), kHashF0);
  const Hash zero{};
  EXPECT_EQ(out_of([&] { print_icl_hash(zero.data()); }), "[" + std::string(64, '0') + "]");
}

TEST(IclPrinter, FlagNamesInBitOrder) {
  EXPECT_EQ(out_of([] { print_icl_object_flags(0); }), "[ ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(1); }), "[ EACH_FILE ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(2); }), "[ RECURSIVE ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(4); }), "[ CONTROL_DATA ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(8); }), "[ CONTROL_ATTRS ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(12); }), "[ CONTROL_DATA CONTROL_ATTRS ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(15); }),
            "[ EACH_FILE RECURSIVE CONTROL_DATA CONTROL_ATTRS ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(9); }), "[ EACH_FILE CONTROL_ATTRS ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(6); }), "[ RECURSIVE CONTROL_DATA ]");
  // Other bits carry no name.
  EXPECT_EQ(out_of([] { print_icl_object_flags(0x10); }), "[ ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(0xFFFFFFF0u); }), "[ ]");
  EXPECT_EQ(out_of([] { print_icl_object_flags(0xFFFFu); }),
            "[ EACH_FILE RECURSIVE CONTROL_DATA CONTROL_ATTRS ]");

  // Every combination of the four bits.
  const char *names[] = {" EACH_FILE", " RECURSIVE", " CONTROL_DATA", " CONTROL_ATTRS"};
  for (uint32_t f = 0; f < 16; f++) {
    std::string expected = "[";
    for (int bit = 0; bit < 4; bit++)
      if (f & (1u << bit))
        expected += names[bit];
    expected += " ]";
    EXPECT_EQ(out_of([&] { print_icl_object_flags(f | 0x100); }), expected) << f;
  }
}

TEST(IclPrinter, MasksAreQuotedAndNoneIsEmptyBrackets) {
  EXPECT_EQ(out_of([] { print_icl_dir_masks(nullptr); }), "[ ]");
  char *none[] = {nullptr};
  EXPECT_EQ(out_of([&] { print_icl_dir_masks(none); }), "[ ]");
  char m1[] = "*.dll", m2[] = "*.EXE", m3[] = "a b", m4[] = "";
  char *masks[] = {m1, m2, m3, m4, nullptr};
  EXPECT_EQ(out_of([&] { print_icl_dir_masks(masks); }), "[ '*.dll' '*.EXE' 'a b' '' ]");
}

TEST(IclPrinter, FileAttributesLabelTheGroupGit) {
  fs_ocl_file_attrs a{0100644, 1000, 100, 12345, 1700000000};
  EXPECT_EQ(out_of([&] { print_icl_file_attrs(&a); }),
            "[mode: 100644, uid: 1000, git: 100, size: 12345, mtime: 1700000000]");
  fs_ocl_file_attrs small{07, 0, 0, 0, 0};
  EXPECT_EQ(out_of([&] { print_icl_file_attrs(&small); }),
            "[mode: 0007, uid: 0, git: 0, size: 0, mtime: 0]");
  // Ids are 16-bit and shown zero-extended; size and mtime are shown as signed.
  fs_ocl_file_attrs big{0xFFFFFFFFu, 65535, 65534, 0xFFFFFFFFu, 0x80000000u};
  EXPECT_EQ(out_of([&] { print_icl_file_attrs(&big); }),
            "[mode: 37777777777, uid: 65535, git: 65534, size: -1, mtime: -2147483648]");
}

TEST(IclPrinter, DirectoryAttributesLabelTheGroupGit) {
  fs_ocl_dir_attrs a{040755, 0, 0};
  EXPECT_EQ(out_of([&] { print_icl_dir_attrs(&a); }), "[mode: 40755, uid: 0, git: 0]");
  fs_ocl_dir_attrs b{0700, 65535, 42};
  EXPECT_EQ(out_of([&] { print_icl_dir_attrs(&b); }), "[mode: 0700, uid: 65535, git: 42]");
}

TEST(IclPrinter, VolumeIdentifiersOfTheThreeKinds) {
  IdPtr p = partition_id("WD-WCAV12345678", 1), i = image_id("esx.img", 3),
        l = lvm_id("vg0", "lv_root"), p0 = partition_id("", 65535);
  EXPECT_EQ(out_of([&] { print_volume_id(p.get()); }), "WD-WCAV12345678 partition 1\n");
  EXPECT_EQ(out_of([&] { print_volume_id(i.get()); }), "esx.img partition 3\n");
  EXPECT_EQ(out_of([&] { print_volume_id(l.get()); }), "vg0/lv_root\n");
  EXPECT_EQ(out_of([&] { print_volume_id(p0.get()); }), " partition 65535\n");

  // Any other kind prints nothing.
  static const fs_volume_id_ops other_ops = {7, nullptr, nullptr, nullptr, nullptr, nullptr};
  fs_partition_id other{&other_ops, const_cast<char *>("X"), 1};
  EXPECT_EQ(out_of([&] { print_volume_id(reinterpret_cast<fs_volume_id *>(&other)); }), "");
}

// ---------------------------------------------------------------- file objects

TEST(IclPrinter, AFileWithFlags12PrintsTwoLines) {
  Obj o;
  o.type = FS_OCL_FILE;
  o.path = "/ntldr";
  o.flags = 12;
  o.hash = counting_hash(0);
  o.fattrs = FileAttrs{0100444, 0, 0, 250048, 1081180800};
  OneObject one(o);
  const std::string expected =
      "  F /ntldr [ CONTROL_DATA CONTROL_ATTRS ]\n"
      "    " +
      kHash00 + " [mode: 100444, uid: 0, git: 0, size: 250048, mtime: 1081180800] \n";
  EXPECT_EQ(out_of([&] { print_icl_object(one.obj); }), expected);
  EXPECT_EQ(
      out_of([&] { print_icl_file_object(reinterpret_cast<const fs_ocl_file_object *>(one.obj)); }),
      expected);
}

TEST(IclPrinter, AFileWithFlags0PrintsOneLine) {
  Obj o;
  o.type = FS_OCL_FILE;
  o.path = "/boot.ini";
  o.flags = 0;
  OneObject one(o);
  EXPECT_EQ(out_of([&] { print_icl_object(one.obj); }), "  F /boot.ini [ ]\n");
}

TEST(IclPrinter, AFileWithOnlyDataOrOnlyAttributes) {
  Obj o;
  o.type = FS_OCL_FILE;
  o.path = "/a b";
  o.flags = CONTROL_DATA;
  o.hash = counting_hash(0xF0);
  OneObject data(o);
  EXPECT_EQ(out_of([&] { print_icl_object(data.obj); }),
            "  F /a b [ CONTROL_DATA ]\n    " + kHashF0 + " \n");

  o.flags = CONTROL_ATTRS;
  o.fattrs = FileAttrs{0100755, 1, 2, 3, 4};
  OneObject attrs(o);
  EXPECT_EQ(out_of([&] { print_icl_object(attrs.obj); }),
            "  F /a b [ CONTROL_ATTRS ]\n"
            "    [mode: 100755, uid: 1, git: 2, size: 3, mtime: 4] \n");

  // Directory bits on a file only show among the flags.
  o.flags = EACH_FILE | RECURSIVE;
  OneObject dirbits(o);
  EXPECT_EQ(out_of([&] { print_icl_object(dirbits.obj); }), "  F /a b [ EACH_FILE RECURSIVE ]\n");
}

// ---------------------------------------------------------------- directory objects

TEST(IclPrinter, ADirectoryWithoutEachFilePrintsItsHashOnTheSecondLine) {
  Obj o;
  o.type = FS_OCL_DIR;
  o.path = "/WINDOWS/system32";
  o.flags = RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  o.has_masks = true;
  o.masks = {"*.dll", "*.sys"};
  o.hash = counting_hash(0);
  OneObject one(o);
  EXPECT_EQ(out_of([&] { print_icl_object(one.obj); }),
            "  D /WINDOWS/system32 [ RECURSIVE CONTROL_DATA CONTROL_ATTRS ] [ '*.dll' '*.sys' ]\n"
            "    " +
                kHash00 + "\n");

  o.flags = 0;
  o.has_masks = false;
  o.masks.clear();
  OneObject bare(o);
  EXPECT_EQ(out_of([&] { print_icl_object(bare.obj); }),
            "  D /WINDOWS/system32 [ ] [ ]\n    " + kHash00 + "\n");
}

TEST(IclPrinter, ADirectoryWithEachFileAndAttributesPrintsItsRootAndNestedInfo) {
  Obj o;
  o.type = FS_OCL_DIR;
  o.path = "/WINDOWS/Installer";
  o.flags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  o.has_masks = true;
  o.masks = {"*.dll", "*.DLL", "*.exe", "*.EXE"};
  o.dattrs = DirAttrs{040755, 0, 0};
  Sub inner{"inner", {}, DirAttrs{040700, 5, 6}};
  inner.info.files.push_back(FileEnt{"x.exe", counting_hash(0xF0), FileAttrs{0100600, 5, 6, 7, 8}});
  Sub s1{"s1", {}, DirAttrs{040750, 1, 2}};
  s1.info.subs.push_back(inner);
  s1.info.files.push_back(FileEnt{"b.dll", counting_hash(0), FileAttrs{0100644, 1, 2, 10, 20}});
  Sub s2{"s2", {}, DirAttrs{040555, 3, 4}};
  s2.info.files.push_back(FileEnt{"c.DLL", counting_hash(0), FileAttrs{0100444, 3, 4, 30, 40}});
  o.info.subs = {s1, s2};
  o.info.files.push_back(FileEnt{"a.exe", counting_hash(0xF0), FileAttrs{0100755, 0, 0, 1, 2}});
  OneObject one(o);

  const std::string expected =
      "  D /WINDOWS/Installer [ EACH_FILE RECURSIVE CONTROL_DATA CONTROL_ATTRS ]"
      " [ '*.dll' '*.DLL' '*.exe' '*.EXE' ]\n"
      "    <root> [mode: 40755, uid: 0, git: 0]\n"
      "      +s1 [mode: 40750, uid: 1, git: 2]\n"
      "        +inner [mode: 40700, uid: 5, git: 6]\n"
      "           x.exe " +
      kHashF0 +
      " [mode: 100600, uid: 5, git: 6, size: 7, mtime: 8]\n"
      "         b.dll " +
      kHash00 +
      " [mode: 100644, uid: 1, git: 2, size: 10, mtime: 20]\n"
      "      +s2 [mode: 40555, uid: 3, git: 4]\n"
      "         c.DLL " +
      kHash00 +
      " [mode: 100444, uid: 3, git: 4, size: 30, mtime: 40]\n"
      "       a.exe " +
      kHashF0 + " [mode: 100755, uid: 0, git: 0, size: 1, mtime: 2]\n";
  EXPECT_EQ(out_of([&] { print_icl_object(one.obj); }), expected);
  EXPECT_EQ(
      out_of([&] { print_icl_dir_object(reinterpret_cast<const fs_ocl_dir_object *>(one.obj)); }),
      expected);
}

TEST(IclPrinter, EachFileWithoutAttributesHasNoRootLine) {
  Obj o;
  o.type = FS_OCL_DIR;
  o.path = "/d";
  o.flags = EACH_FILE | RECURSIVE | CONTROL_DATA;
  Sub s{"sub", {}, {}};
  s.info.files.push_back(FileEnt{"f", counting_hash(0), {}});
  o.info.subs.push_back(s);
  o.info.files.push_back(FileEnt{"g", counting_hash(0xF0), {}});
  OneObject one(o);
  EXPECT_EQ(out_of([&] { print_icl_object(one.obj); }),
            "  D /d [ EACH_FILE RECURSIVE CONTROL_DATA ] [ ]\n"
            "      +sub\n"
            "         f " +
                kHash00 +
                "\n"
                "       g " +
                kHashF0 + "\n");

  // Names only; and an empty info prints nothing after the first line.
  o.flags = EACH_FILE | RECURSIVE;
  OneObject names(o);
  EXPECT_EQ(out_of([&] { print_icl_object(names.obj); }), "  D /d [ EACH_FILE RECURSIVE ] [ ]\n"
                                                          "      +sub\n"
                                                          "         f\n"
                                                          "       g\n");
  o.info = {};
  OneObject empty(o);
  EXPECT_EQ(out_of([&] { print_icl_object(empty.obj); }), "  D /d [ EACH_FILE RECURSIVE ] [ ]\n");

  // Attributes only: the root line, then attributes without hashes.
  o.flags = EACH_FILE | CONTROL_ATTRS;
  o.dattrs = DirAttrs{040711, 7, 8};
  o.info.files.push_back(FileEnt{"h", {}, FileAttrs{0100000, 0, 0, 0, 0}});
  OneObject attrs(o);
  EXPECT_EQ(out_of([&] { print_icl_object(attrs.obj); }),
            "  D /d [ EACH_FILE CONTROL_ATTRS ] [ ]\n"
            "    <root> [mode: 40711, uid: 7, git: 8]\n"
            "       h [mode: 100000, uid: 0, git: 0, size: 0, mtime: 0]\n");
}

TEST(IclPrinter, DirInfoAtAnyLevel) {
  fs_ocl_dir_info leaf{};
  char f1[] = "leaf.dll";
  char *files[] = {f1};
  leaf.file_count = 1;
  leaf.file_names = files;
  fs_ocl_dir_info top{};
  char s1[] = "mid";
  char *subs[] = {s1};
  fs_ocl_dir_info *infos[] = {&leaf};
  top.subdir_count = 1;
  top.subdir_names = subs;
  top.subdir_infos = infos;
  EXPECT_EQ(out_of([&] { print_icl_dir_info(0, &top, EACH_FILE | RECURSIVE); }),
            "+mid\n   leaf.dll\n");
  EXPECT_EQ(out_of([&] { print_icl_dir_info(2, &top, EACH_FILE | RECURSIVE); }),
            "    +mid\n       leaf.dll\n");
}

TEST(IclPrinter, ANonZeroTypeIsADirectory) {
  char path[] = "/odd";
  fs_ocl_dir_object d{};
  d.head.path = path;
  d.head.type = 5;
  d.head.flags = CONTROL_DATA;
  Hash h = counting_hash(0);
  d.hash = h.data();
  EXPECT_EQ(out_of([&] { print_icl_object(&d.head); }),
            "  D /odd [ CONTROL_DATA ] [ ]\n    " + kHash00 + "\n");
}

// ---------------------------------------------------------------- whole lists

TEST(IclPrinter, AListPrintsEachEntryWithItsObjectsInPathOrder) {
  Obj b;
  b.type = FS_OCL_FILE;
  b.path = "/b";
  b.flags = 0;
  Obj a = b;
  a.path = "/a";
  a.flags = CONTROL_DATA;
  a.hash = counting_hash(0);
  Obj upper = b;
  upper.path = "/Z"; // 'Z' sorts before 'a'
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/dir";
  d.flags = CONTROL_DATA;
  d.hash = counting_hash(0xF0);
  Entry p{Id{0, "SERIAL", 2, ""}, {b, a, upper}};
  Entry i{Id{1, "disk.img", 1, ""}, {}};
  Entry l{Id{2, "vg", 0, "lv"}, {d}};

  IclPtr list = new_icl();
  add_entry(list.get(), l.id.make(), ocl_of(l));
  add_entry(list.get(), i.id.make(), ocl_of(i));
  add_entry(list.get(), p.id.make(), ocl_of(p));
  const std::string expected = "SERIAL partition 2\n"
                               "  F /Z [ ]\n"
                               "  F /a [ CONTROL_DATA ]\n"
                               "    " +
                               kHash00 +
                               " \n"
                               "  F /b [ ]\n"
                               "disk.img partition 1\n"
                               "vg/lv\n"
                               "  D /dir [ CONTROL_DATA ] [ ]\n"
                               "    " +
                               kHashF0 + "\n";
  EXPECT_EQ(out_of([&] { print_icl(list.get()); }), expected);

  std::string by_entry;
  for (fs_icl_volume *e = fs_icl_first_volume(list.get()); e; e = fs_icl_next_volume(list.get(), e))
    by_entry += out_of([&] { print_icl_volume(e); });
  EXPECT_EQ(by_entry, expected);

  IclPtr empty = new_icl();
  EXPECT_EQ(out_of([&] { print_icl(empty.get()); }), "");
}

} // namespace
