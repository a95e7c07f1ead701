// Blob format of the object control list: exact bytes of lists built from real files
// and by hand, reading back into the right records, and the reader's failure rules:
// short blobs, unknown types, paths and names that no list may hold, names out of
// order, trailing bytes and counts that the blob cannot back.
#include <string.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/buffer.h>
#include <fsic/ocl.h>

#include "fs/ocl_internal.h"
#include "ocl_test_util.h"

namespace {

using namespace ocltest;

fs_ocl *const kUntouched = reinterpret_cast<fs_ocl *>(0x1234);

// Reads `b` expecting failure: the status, with the out-pointer checked untouched and
// the heap checked back where it was.
fsic_status read_fails(const Bytes &b) {
  fs_ocl *out = kUntouched;
  const long before = heap_in_use();
  fsic_status status = fs_ocl_read_from_mem(b.data(), static_cast<uint32_t>(b.size()), &out);
  const long after = heap_in_use();
  EXPECT_NE(status, FSIC_OK);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(after, before) << "a failed read must leave nothing allocated";
  if (status == FSIC_OK && out != kUntouched)
    fs_ocl_destroy(out);
  return status;
}

// The largest block that reading `b` asks for, whatever the outcome.
size_t largest_block_reading(const Bytes &b) {
  fs_ocl *out = nullptr;
  reset_largest_block();
  const fsic_status status = fs_ocl_read_from_mem(b.data(), static_cast<uint32_t>(b.size()), &out);
  const size_t largest = largest_block_since_reset();
  if (status == FSIC_OK)
    fs_ocl_destroy(out);
  return largest;
}

Bytes list_blob(const std::vector<Obj> &objs, uint32_t count) {
  Enc e;
  e.u32(count);
  for (const Obj &o : objs)
    encode_object(e, o);
  return e.b;
}
Bytes list_blob(const std::vector<Obj> &objs) {
  return list_blob(objs, static_cast<uint32_t>(objs.size()));
}

// ---------------------------------------------------------------- worked examples

TEST(OclBlob, EmptyListIsFourZeroBytesAndReadsBackEmpty) {
  OclPtr ocl = new_list();
  EXPECT_EQ(blob_of(ocl.get()), (Bytes{0, 0, 0, 0}));

  OclPtr back;
  ASSERT_EQ(read_blob(Bytes{0, 0, 0, 0}, &back), FSIC_OK);
  EXPECT_EQ(back->count, 0u);
  EXPECT_EQ(fs_ocl_first_object(back.get()), nullptr);
}

TEST(OclBlob, FileObjectWithDataAndAttrsIs60Bytes) {
  TempDir t;
  const std::string content = "hello, integrity\n";
  write_file(t / "a", content);
  struct stat st;
  ASSERT_EQ(stat((t / "a").c_str(), &st), 0);

  OclPtr ocl = new_list();
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), t.path().c_str(), "/a", 12, nullptr), FSIC_OK);
  Bytes b = blob_of(ocl.get());
  ASSERT_EQ(b.size(), 60u);

  const Bytes head{0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x2F, 0x61, 0x0C, 0x00};
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 12), head);
  const Hash h = gost(content);
  EXPECT_EQ(Bytes(b.begin() + 12, b.begin() + 44), Bytes(h.begin(), h.end()));
  Enc attrs;
  encode_fattrs(attrs, file_attrs_of(st));
  EXPECT_EQ(Bytes(b.begin() + 44, b.end()), attrs.b);

  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  Obj m;
  m.type = FS_OCL_FILE;
  m.path = "/a";
  m.flags = 12;
  m.hash = h;
  m.fattrs = file_attrs_of(st);
  expect_object(fs_ocl_first_object(back.get()), m);
  EXPECT_EQ(blob_of(back.get()), b);
}

TEST(OclBlob, EachFileDirectoryWithOneFileIs25Bytes) {
  TempDir t;
  write_file(t / "d/f", "x");
  OclPtr ocl = new_list();
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), t.path().c_str(), "/d", nullptr, EACH_FILE, nullptr),
            FSIC_OK);
  const Bytes expected{0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00, 0x2F, 0x64, 0x00, 0x00, 0x01,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x66};
  EXPECT_EQ(blob_of(ocl.get()), expected);

  OclPtr back;
  ASSERT_EQ(read_blob(expected, &back), FSIC_OK);
  Obj m;
  m.type = FS_OCL_DIR;
  m.path = "/d";
  m.flags = EACH_FILE;
  m.info.files.push_back(FileEnt{"f", {}, {}});
  expect_object(fs_ocl_first_object(back.get()), m);
  EXPECT_EQ(blob_of(back.get()), expected);
}

// ---------------------------------------------------------------- field layout

TEST(OclBlob, FileBodyStartsWithFlagsDirectoryBodyWithMasks) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/d";
  d.flags = CONTROL_DATA; // no EACH_FILE: a directory hash
  d.has_masks = true;
  d.masks = {"*.exe", "*.EXE"};
  for (size_t i = 0; i < 32; i++)
    d.hash[i] = static_cast<uint8_t>(0xA0 + i);
  Obj f;
  f.type = FS_OCL_FILE;
  f.path = "/f";
  f.flags = 0;

  Bytes b = list_blob({d, f});
  Bytes expected{0x02, 0x00, 0x00, 0x00,                          // count
                 0x01, 0x00, 0x02, 0x00, '/', 'd',                // dir, path
                 0x02, 0x00,                                      // mask_count
                 0x05, 0x00, '*',  '.',  'e', 'x', 'e',           // mask 1
                 0x05, 0x00, '*',  '.',  'E', 'X', 'E',           // mask 2
                 0x04, 0x00};                                     // flags
  expected.insert(expected.end(), d.hash.begin(), d.hash.end());  // hash
  const Bytes file{0x00, 0x00, 0x02, 0x00, '/', 'f', 0x00, 0x00}; // file: flags only
  expected.insert(expected.end(), file.begin(), file.end());
  ASSERT_EQ(b, expected);

  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  ASSERT_EQ(back->count, 2u);
  expect_object(fs_ocl_find_object(back.get(), "/d"), d);
  expect_object(fs_ocl_find_object(back.get(), "/f"), f);
  EXPECT_EQ(blob_of(back.get()), b);
}

TEST(OclBlob, AttributeRecordsAreFieldByFieldLittleEndian) {
  Obj f;
  f.type = FS_OCL_FILE;
  f.path = "/f";
  f.flags = CONTROL_ATTRS;
  f.fattrs = FileAttrs{0x11223344, 0x5566, 0x7788, 0x99AABBCC, 0xDDEEFF01};
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/g";
  d.flags = EACH_FILE | CONTROL_ATTRS;
  d.dattrs = DirAttrs{0x01020304, 0x0506, 0x0708};

  Bytes b = list_blob({f, d});
  const Bytes file_attrs{0x44, 0x33, 0x22, 0x11, 0x66, 0x55, 0x88, 0x77,
                         0xCC, 0xBB, 0xAA, 0x99, 0x01, 0xFF, 0xEE, 0xDD};
  EXPECT_EQ(Bytes(b.begin() + 12, b.begin() + 28), file_attrs);
  const Bytes dir_attrs{0x04, 0x03, 0x02, 0x01, 0x06, 0x05, 0x08, 0x07};
  EXPECT_EQ(Bytes(b.end() - 8, b.end()), dir_attrs);

  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  expect_object(fs_ocl_find_object(back.get(), "/f"), f);
  expect_object(fs_ocl_find_object(back.get(), "/g"), d);
}

TEST(OclBlob, InfoRecordOrderSubdirsDepthFirstThenFiles) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/r";
  d.flags = EACH_FILE | RECURSIVE | CONTROL_ATTRS;
  Sub s{"s", {}, DirAttrs{0xAABBCCDD, 1, 2}};
  s.info.files.push_back(FileEnt{"in", {}, FileAttrs{1, 2, 3, 4, 5}});
  d.info.subs.push_back(s);
  d.info.files.push_back(FileEnt{"top", {}, FileAttrs{6, 7, 8, 9, 10}});
  d.dattrs = DirAttrs{0x41, 3, 4};

  const Bytes expected{
      0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00, '/', 'r', // count, type, path
      0x00, 0x00, 0x0B, 0x00,                                   // masks, flags
      0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 's',                  // subdir_count, name
      0x00, 0x00, 0x00, 0x00,                                   //   its subdir_count
      0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 'i',  'n',            //   its file
      1,    0,    0,    0,    2,    0,    3,    0,    4,   0,   0, 0, 5,  0, 0, 0, //   file attrs
      0xDD, 0xCC, 0xBB, 0xAA, 1,    0,    2,    0,                                 // subdir attrs
      0x01, 0x00, 0x00, 0x00, 0x03, 0x00, 't',  'o',  'p', // file_count, name
      6,    0,    0,    0,    7,    0,    8,    0,    9,   0,   0, 0, 10, 0, 0, 0, // file attrs
      0x41, 0,    0,    0,    3,    0,    4,    0};                                // own attrs
  EXPECT_EQ(list_blob({d}), expected);
  OclPtr back;
  ASSERT_EQ(read_blob(expected, &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d);
  EXPECT_EQ(blob_of(back.get()), expected);
}

// ---------------------------------------------------------------- reader rules

TEST(OclBlob, NonNullEmptyMaskArrayIsWrittenAsZeroAndReadBackAsNull) {
  TempDir t;
  write_file(t / "d/f", "1");
  char *empty[] = {nullptr};
  OclPtr ocl = new_list();
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), t.path().c_str(), "/d", empty, EACH_FILE, &obj), FSIC_OK);
  auto *d = reinterpret_cast<fs_ocl_dir_object *>(obj);
  ASSERT_NE(d->masks, nullptr);
  EXPECT_EQ(d->masks[0], nullptr);
  EXPECT_EQ(d->info->file_count, 0); // an empty array admits no file

  Bytes b = blob_of(ocl.get());
  // count, type, path "/d", then mask_count 0
  EXPECT_EQ(b[10], 0);
  EXPECT_EQ(b[11], 0);
  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  EXPECT_EQ(reinterpret_cast<fs_ocl_dir_object *>(fs_ocl_first_object(back.get()))->masks, nullptr);
  EXPECT_EQ(blob_of(back.get()), b);
}

TEST(OclBlob, NullMasksAreWrittenAsZero) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/n";
  d.flags = 0;
  Bytes b = list_blob({d});
  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d);
  EXPECT_EQ(blob_of(back.get()), b);
}

TEST(OclBlob, FlagsAboveSixteenBitsAreLostDefinedBitsSurvive) {
  TempDir t;
  write_file(t / "f", "data");
  const uint32_t flags = 0xABCD0000u | 0x0030u | CONTROL_DATA | CONTROL_ATTRS;
  OclPtr ocl = new_list();
  fs_ocl_object *obj = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), t.path().c_str(), "/f", flags, &obj), FSIC_OK);
  EXPECT_EQ(obj->flags, flags); // stored unchanged in the list

  Bytes b = blob_of(ocl.get());
  EXPECT_EQ(b[10], 0x3C);
  EXPECT_EQ(b[11], 0x00);
  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  fs_ocl_object *o = fs_ocl_first_object(back.get());
  EXPECT_EQ(o->flags, 0x003Cu);
  auto *f = reinterpret_cast<fs_ocl_file_object *>(o);
  EXPECT_NE(f->hash, nullptr);
  EXPECT_NE(f->attrs, nullptr);
}

TEST(OclBlob, ReaderKeepsEmptySubdirectoryInfos) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/e";
  d.flags = EACH_FILE | RECURSIVE;
  Sub deeper{"deeper", {}, {}};
  deeper.info.subs.push_back(Sub{"also-empty", {}, {}});
  d.info.subs.push_back(deeper);
  d.info.subs.push_back(Sub{"empty", {}, {}});
  Bytes b = list_blob({d});

  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d); // nothing pruned, arrays null
  EXPECT_EQ(blob_of(back.get()), b);
}

TEST(OclBlob, InfoArraysFollowTheOwningObjectsFlags) {
  // RECURSIVE is not consulted by the reader: a subdirectory count is read anyway.
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/x";
  d.flags = EACH_FILE;
  Sub s{"s", {}, {}};
  s.info.files.push_back(FileEnt{"f", {}, {}});
  d.info.subs.push_back(s);
  d.info.files.push_back(FileEnt{"g", {}, {}});
  d.info.files.push_back(FileEnt{"h", {}, {}});
  Bytes b = list_blob({d});
  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d);
}

TEST(OclBlob, RepeatedPathKeepsTheLaterObject) {
  Obj first;
  first.type = FS_OCL_FILE;
  first.path = "/x";
  first.flags = CONTROL_ATTRS;
  first.fattrs = FileAttrs{1, 2, 3, 4, 5};
  Obj mid;
  mid.type = FS_OCL_FILE;
  mid.path = "/y";
  Obj later;
  later.type = FS_OCL_DIR;
  later.path = "/x";
  later.flags = EACH_FILE | CONTROL_ATTRS;
  later.info.files.push_back(FileEnt{"f", {}, FileAttrs{9, 9, 9, 9, 9}});
  later.dattrs = DirAttrs{7, 7, 7};

  OclPtr back;
  ASSERT_EQ(read_blob(list_blob({first, mid, later}), &back), FSIC_OK);
  EXPECT_EQ(back->count, 2u); // recounted by the links, not taken from the header
  EXPECT_EQ(paths_of(back.get()), (std::vector<std::string>{"/x", "/y"}));
  expect_object(fs_ocl_find_object(back.get(), "/x"), later);
  EXPECT_EQ(blob_of(back.get()), list_blob({later, mid}));
}

TEST(OclBlob, ObjectsOutOfOrderInTheBlobAreSortedByTheTree) {
  Obj b1, a1, c1;
  b1.path = "/b";
  a1.path = "/a";
  c1.path = "/A";
  Bytes blob = list_blob({b1, a1, c1});
  OclPtr back;
  ASSERT_EQ(read_blob(blob, &back), FSIC_OK);
  EXPECT_EQ(paths_of(back.get()), (std::vector<std::string>{"/A", "/a", "/b"}));
  EXPECT_EQ(blob_of(back.get()), list_blob({c1, a1, b1}));
}

TEST(OclBlob, TheListOnItsOwnMustBeTheWholeBlobInsideALargerOneTheReadStopsAtItsEnd) {
  Gen g(7);
  std::vector<Obj> objs{g.object("/one"), g.object("/two")};
  Bytes b = list_blob(objs);
  OclPtr exact;
  ASSERT_EQ(read_blob(b, &exact), FSIC_OK);
  EXPECT_EQ(blob_of(exact.get()), b);

  Bytes longer = b;
  for (int i = 0; i < 37; i++)
    longer.push_back(static_cast<uint8_t>(0xFF - i));

  // Inside a larger blob the buffer's position ends right after the list.
  rb buf;
  rb_init(&buf, longer.data(), static_cast<uint32_t>(longer.size()));
  fs_ocl *ocl = nullptr;
  ASSERT_EQ(_fs_ocl_read_from_rbuf(&buf, &ocl), FSIC_OK);
  EXPECT_EQ(buf.pos, b.size());
  EXPECT_EQ(blob_of(ocl), b);
  fs_ocl_destroy(ocl);

  // Two lists back to back.
  Bytes two = b;
  Bytes second = list_blob({g.object("/three")});
  two.insert(two.end(), second.begin(), second.end());
  rb_init(&buf, two.data(), static_cast<uint32_t>(two.size()));
  fs_ocl *l1 = nullptr, *l2 = nullptr;
  ASSERT_EQ(_fs_ocl_read_from_rbuf(&buf, &l1), FSIC_OK);
  ASSERT_EQ(_fs_ocl_read_from_rbuf(&buf, &l2), FSIC_OK);
  EXPECT_EQ(buf.pos, two.size());
  EXPECT_EQ(blob_of(l2), second);
  fs_ocl_destroy(l1);
  fs_ocl_destroy(l2);
}

// ---------------------------------------------------------------- refusals

// One file object at `path`, flags 0.
Bytes file_at(const std::string &path) { return Enc().u32(1).u16(FS_OCL_FILE).str(path).u16(0).b; }

// One directory object at `path` with its directory hash (flags 0, no masks).
Bytes dir_at(const std::string &path) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = path;
  return list_blob({d});
}

// One directory object /d with EACH_FILE | RECURSIVE, whose root level holds files and
// subdirectories (empty ones) of these names, in this order.
Bytes level_with(const std::vector<std::string> &files, const std::vector<std::string> &subdirs) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/d";
  d.flags = EACH_FILE | RECURSIVE;
  for (const std::string &name : subdirs)
    d.info.subs.push_back(Sub{name, {}, {}});
  for (const std::string &name : files)
    d.info.files.push_back(FileEnt{name, {}, {}});
  return list_blob({d});
}

// The same names one level down, in the subdirectory "s" of the root.
Bytes sublevel_with(const std::vector<std::string> &files,
                    const std::vector<std::string> &subdirs) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/d";
  d.flags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  Sub s{"s", {}, {}};
  for (const std::string &name : subdirs)
    s.info.subs.push_back(Sub{name, {}, {}});
  for (const std::string &name : files)
    s.info.files.push_back(FileEnt{name, {}, {}});
  d.info.subs.push_back(s);
  return list_blob({d});
}

const std::string kNulInPath("/a\0b", 4);
const std::string kNulInName("a\0b", 3);

TEST(OclBlob, ARelativePathIsRefusedWith1) {
  for (const std::string path : {"../../etc/shadow", "relative", "", "a/b"}) {
    EXPECT_EQ(read_fails(file_at(path)), FSIC_ERR_FAILED) << path;
    EXPECT_EQ(read_fails(dir_at(path)), FSIC_ERR_FAILED) << path;
  }
}

TEST(OclBlob, APathUpOnlyDotDotIsRefusedWith1) {
  EXPECT_EQ(read_fails(file_at("/../../..")), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(dir_at("/../../..")), FSIC_ERR_FAILED);
}

TEST(OclBlob, APathWithADotComponentIsRefusedWith1) {
  for (const std::string path : {"/a/./b", "/.", "/./a", "/a/."}) {
    EXPECT_EQ(read_fails(file_at(path)), FSIC_ERR_FAILED) << path;
    EXPECT_EQ(read_fails(dir_at(path)), FSIC_ERR_FAILED) << path;
  }
}

TEST(OclBlob, APathWithADotDotComponentIsRefusedWith1) {
  for (const std::string path : {"/a/..", "/..", "/a/../b", "/../a"}) {
    EXPECT_EQ(read_fails(file_at(path)), FSIC_ERR_FAILED) << path;
    EXPECT_EQ(read_fails(dir_at(path)), FSIC_ERR_FAILED) << path;
  }
}

TEST(OclBlob, APathWithANulIsRefusedWith1) {
  EXPECT_EQ(read_fails(file_at(kNulInPath)), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(dir_at(kNulInPath)), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(file_at(std::string("/a\0", 3))), FSIC_ERR_FAILED);
}

TEST(OclBlob, PathsThatOnlyLookLikeDotsAreRead) {
  const std::vector<std::string> paths{"/",     "/...",  "/.a",      "/a.", "/a/..b",
                                       "/a//b", "/a/b/", "/.hidden", "/..."};
  for (const std::string &path : paths) {
    OclPtr file, dir;
    ASSERT_EQ(read_blob(file_at(path), &file), FSIC_OK) << path;
    EXPECT_EQ(paths_of(file.get()), std::vector<std::string>{path});
    EXPECT_EQ(blob_of(file.get()), file_at(path));
    ASSERT_EQ(read_blob(dir_at(path), &dir), FSIC_OK) << path;
    EXPECT_EQ(blob_of(dir.get()), dir_at(path));
  }
}

TEST(OclBlob, AnEmptyNameIsRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({""}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {""})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({""}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {""})), FSIC_ERR_FAILED);
}

TEST(OclBlob, ADotNameIsRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({"."}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {"."})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({"."}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {"."})), FSIC_ERR_FAILED);
}

TEST(OclBlob, ADotDotNameIsRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({".."}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {".."})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({".."}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {".."})), FSIC_ERR_FAILED);
}

TEST(OclBlob, ANameWithASlashIsRefusedWith1) {
  for (const std::string name : {"a/b", "/", "a/", "/a", "../x"}) {
    EXPECT_EQ(read_fails(level_with({name}, {})), FSIC_ERR_FAILED) << name;
    EXPECT_EQ(read_fails(level_with({}, {name})), FSIC_ERR_FAILED) << name;
    EXPECT_EQ(read_fails(sublevel_with({name}, {})), FSIC_ERR_FAILED) << name;
    EXPECT_EQ(read_fails(sublevel_with({}, {name})), FSIC_ERR_FAILED) << name;
  }
}

TEST(OclBlob, ANameWithANulIsRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({kNulInName}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {kNulInName})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({kNulInName}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {kNulInName})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({std::string("\0", 1)}, {})), FSIC_ERR_FAILED);
}

TEST(OclBlob, NamesThatOnlyLookLikeDotsAreRead) {
  const std::vector<std::string> names{"...", ".a", ".hidden", "a.", "a..b"};
  for (const Bytes &b : {level_with(names, names), sublevel_with(names, names)}) {
    OclPtr back;
    ASSERT_EQ(read_blob(b, &back), FSIC_OK);
    EXPECT_EQ(blob_of(back.get()), b);
  }
}

TEST(OclBlob, UnsortedFileNamesAreRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({"b", "a"}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({"a", "c", "b"}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({"ab", "a"}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({"b", "a"}, {})), FSIC_ERR_FAILED);
  // Bytes compare as unsigned: 0xC3 comes after 'z'.
  EXPECT_EQ(read_fails(level_with({"\xc3\xa9", "z"}, {})), FSIC_ERR_FAILED);
}

TEST(OclBlob, UnsortedSubdirectoryNamesAreRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({}, {"b", "a"})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {"a", "c", "b"})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {"b", "a"})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {"\xc3\xa9", "z"})), FSIC_ERR_FAILED);
}

TEST(OclBlob, EqualAdjacentNamesAreRefusedWith1) {
  EXPECT_EQ(read_fails(level_with({"a", "a"}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(level_with({}, {"a", "a"})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({"x", "y", "y"}, {})), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(sublevel_with({}, {"x", "y", "y"})), FSIC_ERR_FAILED);
}

TEST(OclBlob, AscendingNamesAreReadAndEachArrayIsOrderedOnItsOwn) {
  // Files and subdirectories are two arrays: a file may share a subdirectory's name and
  // come before it; each array ascends by unsigned bytes.
  const std::vector<std::string> files{"A", "a", "ab", "b", "z", "\xc3\xa9"};
  const std::vector<std::string> subdirs{"a", "b"};
  for (const Bytes &b : {level_with(files, subdirs), sublevel_with(files, subdirs)}) {
    OclPtr back;
    ASSERT_EQ(read_blob(b, &back), FSIC_OK);
    EXPECT_EQ(blob_of(back.get()), b);
  }
  // The order holds within one level: names of different levels do not meet.
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/d";
  d.flags = EACH_FILE | RECURSIVE;
  Sub first{"m", {}, {}}, second{"n", {}, {}};
  first.info.files.push_back(FileEnt{"z", {}, {}});
  second.info.files.push_back(FileEnt{"a", {}, {}});
  d.info.subs = {first, second};
  d.info.files.push_back(FileEnt{"b", {}, {}});
  OclPtr back;
  ASSERT_EQ(read_blob(list_blob({d}), &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d);
}

TEST(OclBlob, AMaskWithANulIsRefusedWith1EmptyMasksAreRead) {
  Obj d;
  d.type = FS_OCL_DIR;
  d.path = "/d";
  d.has_masks = true;
  d.masks = {"*.exe", std::string("*.dll\0.exe", 10)};
  EXPECT_EQ(read_fails(list_blob({d})), FSIC_ERR_FAILED);
  d.masks = {std::string("\0", 1)};
  EXPECT_EQ(read_fails(list_blob({d})), FSIC_ERR_FAILED);

  d.masks = {"", "*.exe", ""};
  OclPtr back;
  ASSERT_EQ(read_blob(list_blob({d}), &back), FSIC_OK);
  expect_object(fs_ocl_first_object(back.get()), d);
  EXPECT_EQ(blob_of(back.get()), list_blob({d}));
}

TEST(OclBlob, BytesAfterAListReadOnItsOwnAreRefusedWith1) {
  Gen g(7);
  const Bytes b = list_blob({g.object("/one"), g.object("/two")});
  for (const Bytes &tail : {Bytes{0x00}, Bytes{0xFF, 0xFF, 0xFF}, b}) {
    Bytes longer = b;
    longer.insert(longer.end(), tail.begin(), tail.end());
    EXPECT_EQ(read_fails(longer), FSIC_ERR_FAILED) << tail.size() << " bytes more";
  }
  EXPECT_EQ(read_fails(Bytes{0, 0, 0, 0, 0}), FSIC_ERR_FAILED);
  // A count lower than the objects present leaves the others over.
  EXPECT_EQ(read_fails(list_blob({g.object("/one"), g.object("/two")}, 1)), FSIC_ERR_FAILED);
}

TEST(OclBlob, WriteToWbufAppendsAfterExistingBytes) {
  Gen g(11);
  Bytes b = list_blob({g.object("/p")});
  OclPtr ocl;
  ASSERT_EQ(read_blob(b, &ocl), FSIC_OK);
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint16(&buf, 0xBEEF), FSIC_OK);
  ASSERT_EQ(_fs_ocl_write_to_wbuf(ocl.get(), &buf), FSIC_OK);
  Bytes got(buf.data, buf.data + buf.used);
  wb_finalize(&buf, 1);
  Bytes expected{0xEF, 0xBE};
  expected.insert(expected.end(), b.begin(), b.end());
  EXPECT_EQ(got, expected);
}

TEST(OclBlob, UnknownObjectTypeFailsWith1) {
  for (uint16_t type : {2, 3, 0xFFFF}) {
    Enc e;
    e.u32(1).u16(type).str("/x").u16(0);
    EXPECT_EQ(read_fails(e.b), FSIC_ERR_FAILED) << type;
  }
  // After good objects too: the partly read list goes.
  Gen g(3);
  Bytes b = list_blob({g.object("/a"), g.object("/b")}, 3);
  Enc e;
  e.raw(b).u16(7);
  EXPECT_EQ(read_fails(e.b), FSIC_ERR_FAILED);
}

TEST(OclBlob, EveryTruncatedPrefixFailsWith1AndLeaksNothing) {
  Gen g(2024);
  std::vector<Obj> objs;
  std::map<std::string, Obj> sorted;
  for (int i = 0; i < 6; i++) {
    Obj o = g.object("/obj" + std::to_string(i));
    sorted[o.path] = o;
  }
  // Every kind of body, whatever the generator drew.
  Obj full;
  full.type = FS_OCL_DIR;
  full.path = "/z";
  full.flags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  full.has_masks = true;
  full.masks = {"*.a", "*.b"};
  full.info = g.info(3);
  sorted[full.path] = full;
  for (auto &kv : sorted)
    objs.push_back(kv.second);
  const Bytes b = list_blob(objs);

  // Leaks are caught by the sanitizer build's leak checker and counted exactly by the
  // allocation-failure test.
  for (size_t n = 0; n < b.size(); n++) {
    Bytes prefix(b.begin(), b.begin() + static_cast<long>(n));
    fs_ocl *out = kUntouched;
    ASSERT_EQ(fs_ocl_read_from_mem(prefix.data(), static_cast<uint32_t>(n), &out), FSIC_ERR_FAILED)
        << "prefix of " << n << " bytes";
    ASSERT_EQ(out, kUntouched);
  }

  OclPtr back;
  ASSERT_EQ(read_blob(b, &back), FSIC_OK);
  EXPECT_EQ(blob_of(back.get()), b);
}

// A directory object /d with the flags and an info record that starts with these
// counts; `files` is written only when `subdirs` is 0, and nothing follows.
Bytes dir_with_counts(uint32_t subdirs, uint32_t files, uint16_t flags) {
  Enc e;
  e.u32(1).u16(FS_OCL_DIR).str("/d").u16(0).u16(flags).u32(subdirs);
  if (subdirs == 0)
    e.u32(files);
  return e.b;
}

// Nothing of 1 KiB or more is asked for: a count is checked against the blob before
// anything is allocated for its entries.
constexpr size_t kSmallBlock = 1024;

TEST(OclBlob, TheEighteenByteBlobOfAHugeSubdirectoryCountAllocatesNothingLarge) {
  // A subdirectory count of 2^31 - 1 with attributes: once some 48 GB of arrays.
  const Bytes b{1, 0, 0, 0, 1, 0, 2, 0, '/', 'd', 0, 0, 0x0F, 0, 0xFF, 0xFF, 0xFF, 0x7F};
  ASSERT_EQ(b, dir_with_counts(0x7FFFFFFFu, 0, 0x0F));
  EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED);
  EXPECT_LT(largest_block_reading(b), kSmallBlock);
}

TEST(OclBlob, AnObjectCountTooLargeForTheBlobIsRefusedWith1) {
  EXPECT_EQ(read_fails(Enc().u32(0xFFFFFFFFu).b), FSIC_ERR_FAILED);
  // Refused before the first object is read: that object would end the read with 3.
  const Bytes deep = deep_dir_object(4097);
  EXPECT_EQ(read_fails(Enc().u32(1).raw(deep).b), FSIC_ERR_NO_MEMORY);
  const uint32_t too_many = static_cast<uint32_t>(deep.size() / 7 + 1);
  EXPECT_EQ(read_fails(Enc().u32(too_many).raw(deep).b), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(Enc().u32(0x7FFFFFFFu).raw(deep).b), FSIC_ERR_FAILED);
  // 4096 levels are read.
  OclPtr back;
  ASSERT_EQ(read_blob(Enc().u32(1).raw(deep_dir_object(4096)).b, &back), FSIC_OK);
}

TEST(OclBlob, AMaskCountTooLargeForTheBlobIsRefusedWith1) {
  const Bytes b = Enc().u32(1).u16(FS_OCL_DIR).str("/d").u16(0xFFFF).b;
  EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED);
  EXPECT_LT(largest_block_reading(b), kSmallBlock);
}

TEST(OclBlob, ASubdirectoryCountTooLargeForTheBlobIsRefusedWith1) {
  for (uint16_t flags = EACH_FILE; flags < 16; flags += 2) {
    SCOPED_TRACE("flags " + std::to_string(flags));
    for (uint32_t count : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x10000000u, 0x01000000u, 2u}) {
      const Bytes b = dir_with_counts(count, 0, flags);
      EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED) << count;
      EXPECT_LT(largest_block_reading(b), kSmallBlock) << count;
    }
  }
}

TEST(OclBlob, AFileCountTooLargeForTheBlobIsRefusedWith1) {
  for (uint16_t flags = EACH_FILE; flags < 16; flags += 2) {
    SCOPED_TRACE("flags " + std::to_string(flags));
    for (uint32_t count : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x10000000u, 0x01000000u, 2u}) {
      const Bytes b = dir_with_counts(0, count, flags);
      EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED) << count;
      EXPECT_LT(largest_block_reading(b), kSmallBlock) << count;
    }
  }
}

// Exactly where the check lies: a count whose smallest entries fill the rest of the
// blob exactly is taken (its array is allocated before the entries, here zero bytes,
// turn out wrong), one more is refused before anything is allocated for it. The
// smallest object is 7 bytes (type, path "/", flags), a mask 2 (an empty string), a
// file 3 (a one-byte name), 32 more with CONTROL_DATA, 16 more with CONTROL_ATTRS, a
// subdirectory 11 (a name and an empty info record), 8 more with CONTROL_ATTRS.
TEST(OclBlob, ACountIsCheckedAgainstTheSmallestEntriesThatTheRestOfTheBlobCouldHold) {
  const uint32_t n = 1000; // an array of n pointers is far more than kSmallBlock
  auto at_limit = [](const Bytes &head, uint32_t count, uint32_t entry_size, size_t count_at,
                     size_t count_size) {
    Bytes b = head;
    b.resize(b.size() + static_cast<size_t>(count) * entry_size, 0);
    EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED);
    EXPECT_GE(largest_block_reading(b), count * sizeof(char *)) << "the count was refused";
    // One more than fits.
    const uint32_t more = count + 1;
    for (size_t i = 0; i < count_size; i++)
      b[count_at + i] = static_cast<uint8_t>(more >> (8 * i));
    EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED);
    EXPECT_LT(largest_block_reading(b), kSmallBlock) << "the count was taken";
  };

  {
    SCOPED_TRACE("masks");
    at_limit(Enc().u32(1).u16(FS_OCL_DIR).str("/d").u16(n).b, n, 2, 10, 2);
  }
  for (uint16_t flags = EACH_FILE; flags < 16; flags += 2) {
    SCOPED_TRACE("flags " + std::to_string(flags));
    const uint32_t file_size =
        3 + ((flags & CONTROL_DATA) ? 32 : 0) + ((flags & CONTROL_ATTRS) ? 16 : 0);
    const uint32_t subdir_size = 11 + ((flags & CONTROL_ATTRS) ? 8 : 0);
    at_limit(dir_with_counts(n, 0, flags), n, subdir_size, 14, 4);
    at_limit(dir_with_counts(0, n, flags), n, file_size, 18, 4);
  }

  // The object count allocates nothing: the objects of the count are read until the
  // blob runs out, or refused at once when they cannot fit.
  Bytes objects = Enc().u32(2).u16(FS_OCL_FILE).str("/").u16(0).u16(FS_OCL_FILE).str("/").u16(0).b;
  OclPtr back;
  ASSERT_EQ(read_blob(objects, &back), FSIC_OK);
  objects[0] = 3;
  EXPECT_EQ(read_fails(objects), FSIC_ERR_FAILED);
}

// ---------------------------------------------------------------- random round trips

TEST(OclBlob, RandomListsReadBackAsModelledAndWriteIdenticalBytes) {
  for (uint32_t seed = 1; seed <= 150; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Gen g(seed);
    std::map<std::string, Obj> model;
    uint32_t n = g.below(12);
    for (uint32_t i = 0; i < n; i++) {
      std::string p = g.path();
      model[p] = g.object(p);
    }
    std::vector<Obj> objs;
    for (auto &kv : model)
      objs.push_back(kv.second);
    const Bytes b = list_blob(objs);

    OclPtr back;
    ASSERT_EQ(read_blob(b, &back), FSIC_OK);
    ASSERT_EQ(back->count, model.size());
    fs_ocl_object *o = fs_ocl_first_object(back.get());
    for (const Obj &m : objs) {
      expect_object(o, m);
      if (HasFatalFailure())
        return;
      o = fs_ocl_next_object(o);
    }
    EXPECT_EQ(o, nullptr);
    ASSERT_EQ(blob_of(back.get()), b);

    // A second generation is identical too.
    OclPtr again;
    ASSERT_EQ(read_blob(blob_of(back.get()), &again), FSIC_OK);
    EXPECT_EQ(blob_of(again.get()), b);

    // Every prefix fails, and so do trailing bytes.
    if (seed % 10 == 0) {
      for (size_t k = 0; k < b.size(); k++) {
        ASSERT_EQ(read_fails(Bytes(b.begin(), b.begin() + static_cast<long>(k))), FSIC_ERR_FAILED)
            << k;
      }
    }
    Bytes longer = b;
    longer.insert(longer.end(), {1, 2, 3, 4, 5, 6, 7});
    ASSERT_EQ(read_fails(longer), FSIC_ERR_FAILED);
  }
}

} // namespace
