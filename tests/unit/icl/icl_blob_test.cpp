// Blob format of the integrity control list: exact bytes, the alternating order of
// entries on save and restore, round trips of random lists of all identifier kinds,
// truncated and padded blobs, duplicates, the 16-bit entry count, and the refusal of
// paths and names that no list may hold and of counts that the blob cannot back.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/icl.h>

#include "icl_test_util.h"

namespace {

using namespace icltest;
using ocltest::FileAttrs;
using ocltest::Hash;
using ocltest::reset_largest_block;
using ocltest::TempDir;

fs_icl *const kUntouched = reinterpret_cast<fs_icl *>(0x4321);

// Reads `b` expecting failure: the status, with the out-pointer checked untouched and
// the heap checked back where it was.
fsic_status read_fails(const Bytes &b) {
  fs_icl *out = kUntouched;
  const long before = heap_in_use();
  fsic_status status = fs_icl_read_from_mem(b.data(), static_cast<uint32_t>(b.size()), &out);
  const long after = heap_in_use();
  EXPECT_NE(status, FSIC_OK);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(after, before) << "a failed read must leave nothing allocated";
  if (status == FSIC_OK && out != kUntouched)
    fs_icl_destroy(out);
  return status;
}

Obj file_obj(const std::string &path, uint32_t flags, uint8_t seed) {
  Obj o;
  o.type = FS_OCL_FILE;
  o.path = path;
  o.flags = flags;
  for (size_t i = 0; i < o.hash.size(); i++)
    o.hash[i] = static_cast<uint8_t>(seed + i);
  o.fattrs = FileAttrs{0100644u + seed, seed, static_cast<uint16_t>(seed + 1), 1000u + seed,
                       1700000000u + seed};
  return o;
}

// Builds the list of the model's entries with the library, in the model's iteration
// order (the last one is made first, as each new entry goes to the front).
IclPtr build(const std::vector<Entry> &model) {
  IclPtr list = new_icl();
  for (auto it = model.rbegin(); it != model.rend(); ++it)
    add_entry(list.get(), it->id.make(), ocl_of(*it));
  return list;
}

// ---------------------------------------------------------------- worked examples

TEST(IclBlob, EmptyListIsTwoZeroBytesAndReadsBackEmpty) {
  IclPtr list = new_icl();
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(blob_of(list.get()), (Bytes{0x00, 0x00}));

  IclPtr back;
  ASSERT_EQ(read_icl(Bytes{0x00, 0x00}, &back), FSIC_OK);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->count, 0u);
  EXPECT_EQ(fs_icl_first_volume(back.get()), nullptr);
  EXPECT_EQ(blob_of(back.get()), (Bytes{0x00, 0x00}));
}

TEST(IclBlob, BlobsShorterThanTheCountFailWith1) {
  EXPECT_EQ(read_fails(Bytes{}), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(Bytes{0x00}), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(Bytes{0x01}), FSIC_ERR_FAILED);
}

TEST(IclBlob, ACountOfTwoWithOneEntryFailsWith1AndAllocatesNothing) {
  Entry a{Id{0, "ABC", 1, ""}, {file_obj("/a", 12, 1)}};
  Bytes b = encode_list({a}, 2);
  EXPECT_EQ(read_fails(b), FSIC_ERR_FAILED);

  // The same entry with the right count is fine: the failure came from the count.
  IclPtr back;
  ASSERT_EQ(read_icl(encode_list({a}, 1), &back), FSIC_OK);
  expect_list(back.get(), {a});
}

TEST(IclBlob, TwoEntriesAreWrittenNewestFirstAndReadBackReversed) {
  // A is created first, then B: B is at the front.
  IclPtr list = new_icl();
  Entry a{Id{0, "ABC", 1, ""}, {}};
  Entry b{Id{2, "vg", 0, "lv"}, {file_obj("/x", 0, 7)}};
  fs_icl_volume *ea = add_entry(list.get(), a.id.make());
  fs_icl_volume *eb = add_entry(list.get(), b.id.make(), ocl_of(b));
  ASSERT_EQ(list->count, 2u);
  EXPECT_EQ(fs_icl_first_volume(list.get()), eb);
  EXPECT_EQ(fs_icl_next_volume(list.get(), eb), ea);
  EXPECT_EQ(fs_icl_next_volume(list.get(), ea), nullptr);

  const Bytes written = blob_of(list.get());
  const Bytes expected{0x02, 0x00,                                              // N
                       0x02, 0x00, 0x02, 0x00, 'v', 'g', 0x02, 0x00, 'l',  'v', // B's identifier
                       0x01, 0x00, 0x00, 0x00,                             // B's list: 1 object
                       0x00, 0x00, 0x02, 0x00, '/', 'x', 0x00, 0x00,       //   file /x, flags 0
                       0x00, 0x00, 0x03, 0x00, 'A', 'B', 'C',  0x01, 0x00, // A's identifier
                       0x00, 0x00, 0x00, 0x00};                            // A's list: empty
  EXPECT_EQ(written, expected);

  IclPtr back;
  ASSERT_EQ(read_icl(written, &back), FSIC_OK);
  expect_list(back.get(), {a, b}); // iterates A, B

  const Bytes again = blob_of(back.get());
  EXPECT_EQ(again, encode_list({a, b})); // A before B
  const Bytes a_first{0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 'A', 'B', 'C', 0x01, 0x00};
  EXPECT_EQ(Bytes(again.begin(), again.begin() + 11), a_first);
}

TEST(IclBlob, BytesAfterTheLastEntryAreRefusedWith1) {
  Entry a{Id{1, "image", 3, ""}, {file_obj("/f", 12, 9)}};
  Bytes b = encode_list({a});
  for (const Bytes &tail : {Bytes{0x00}, Bytes{0xFF, 0xFF, 0xFF}, encode_list({a})}) {
    Bytes padded = b;
    padded.insert(padded.end(), tail.begin(), tail.end());
    EXPECT_EQ(read_fails(padded), FSIC_ERR_FAILED) << tail.size() << " bytes more";

    // Read from a buffer, the list ends where its last entry does.
    rb in;
    rb_init(&in, padded.data(), static_cast<uint32_t>(padded.size()));
    fs_icl *list = nullptr;
    ASSERT_EQ(fs_icl_read_from_rbuf(&in, &list), FSIC_OK);
    EXPECT_EQ(in.pos, b.size());
    IclPtr owned(list);
    expect_list(owned.get(), {a});
  }
  EXPECT_EQ(read_fails(Bytes{0x00, 0x00, 0x12, 0x34}), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(Bytes{0x00, 0x00, 0x00}), FSIC_ERR_FAILED);
}

TEST(IclBlob, ACountLowerThanTheEntriesPresentIsRefusedWith1) {
  Entry a{Id{0, "ABC", 1, ""}, {file_obj("/a", 12, 1)}};
  Entry b{Id{2, "vg", 0, "lv"}, {file_obj("/b", 0, 2)}};
  EXPECT_EQ(read_fails(encode_list({a, b}, 1)), FSIC_ERR_FAILED);
  EXPECT_EQ(read_fails(encode_list({a, b}, 0)), FSIC_ERR_FAILED);
  IclPtr back;
  ASSERT_EQ(read_icl(encode_list({a, b}, 2), &back), FSIC_OK);
}

// Blobs of one entry whose object list holds one object, as encoded.
Bytes one_object(const Bytes &object) {
  Enc e;
  e.u16(1).u16(0).str("S").u16(1).u32(1).raw(object);
  return e.b;
}

TEST(IclBlob, PathsOutsideTheVolumeAndPathsWithANulAreRefusedWith1) {
  for (const std::string path :
       {"../../etc/shadow", "/../../..", "/a/./b", "/a/..", "relative", ""}) {
    Obj f = file_obj(path, 12, 1);
    EXPECT_EQ(read_fails(one_object(ocltest::encode_object(f))), FSIC_ERR_FAILED) << path;
    Obj d;
    d.type = FS_OCL_DIR;
    d.path = path;
    EXPECT_EQ(read_fails(one_object(ocltest::encode_object(d))), FSIC_ERR_FAILED) << path;
  }
  // Once cut at the NUL and read as "/etc".
  Obj cut = file_obj(std::string("/etc\0/passwd", 12), 0, 1);
  EXPECT_EQ(read_fails(one_object(ocltest::encode_object(cut))), FSIC_ERR_FAILED);
}

TEST(IclBlob, NamesThatAreNoFileNamesAndNamesOutOfOrderAreRefusedWith1) {
  const std::vector<std::vector<std::string>> refused{
      {".."},     {"."},     {""}, {"a/b"}, {"../../etc"}, {std::string("a\0b", 3)},
      {"b", "a"}, {"a", "a"}};
  for (const auto &names : refused) {
    for (bool as_subdirs : {false, true}) {
      SCOPED_TRACE(names[0] + (as_subdirs ? " as subdirectories" : " as files"));
      Obj d;
      d.type = FS_OCL_DIR;
      d.path = "/d";
      d.flags = EACH_FILE | RECURSIVE;
      for (const std::string &name : names) {
        if (as_subdirs)
          d.info.subs.push_back(ocltest::Sub{name, {}, {}});
        else
          d.info.files.push_back(ocltest::FileEnt{name, {}, {}});
      }
      EXPECT_EQ(read_fails(one_object(ocltest::encode_object(d))), FSIC_ERR_FAILED);
    }
  }
}

TEST(IclBlob, AHugeFileCountAllocatesNothingLargeAndIsRefusedWith1) {
  // An info record of 2^31 - 1 files with hashes and attributes: once some 110 GB of
  // arrays asked for by a 30-byte blob.
  Enc e;
  e.u16(1).u16(0).str("").u16(1);                         // one entry, partition "" 1
  e.u32(1).u16(FS_OCL_DIR).str("/d").u16(0);              // one directory, no masks
  e.u16(EACH_FILE | CONTROL_DATA | CONTROL_ATTRS).u32(0); // flags, no subdirectories
  e.u32(0x7FFFFFFFu);                                     // the file count
  ASSERT_EQ(e.b.size(), 30u);
  EXPECT_EQ(read_fails(e.b), FSIC_ERR_FAILED);
  reset_largest_block();
  fs_icl *out = nullptr;
  EXPECT_EQ(fs_icl_read_from_mem(e.b.data(), static_cast<uint32_t>(e.b.size()), &out),
            FSIC_ERR_FAILED);
  EXPECT_LT(ocltest::largest_block_since_reset(), 1024u);
}

TEST(IclBlob, AnEntryCountTooLargeForTheBlobIsRefusedWith1) {
  // The smallest entry is 10 bytes: an identifier of 6 and an empty list of 4. Refused
  // before the first entry is read: that entry would end the read with 3.
  Enc entry;
  entry.u16(0).str("S").u16(1).u32(1).raw(ocltest::deep_dir_object(4097));
  EXPECT_EQ(read_fails(Enc().u16(1).raw(entry.b).b), FSIC_ERR_NO_MEMORY);
  EXPECT_EQ(read_fails(Enc().u16(0xFFFF).raw(entry.b).b), FSIC_ERR_FAILED);
  const uint16_t too_many = static_cast<uint16_t>(entry.b.size() / 10 + 1);
  EXPECT_EQ(read_fails(Enc().u16(too_many).raw(entry.b).b), FSIC_ERR_FAILED);

  // Three smallest entries fill 30 bytes: read; a count of 4 over them is refused.
  Enc three;
  three.u16(3);
  for (int i = 0; i < 3; i++)
    three.u16(2).str("").str("").u32(0);
  ASSERT_EQ(three.b.size(), 32u);
  IclPtr back;
  ASSERT_EQ(read_icl(three.b, &back), FSIC_OK);
  EXPECT_EQ(back->count, 3u);
  three.b[0] = 4;
  EXPECT_EQ(read_fails(three.b), FSIC_ERR_FAILED);
}

TEST(IclBlob, ACountAbove65535IsStoredInSixteenBits) {
  // 65536 entries: N is written as 0 and all entries follow. This is the defined
  // behaviour of the 16-bit count. As a blob of its own the list is refused (bytes
  // follow its end); read from a buffer, it is empty and ends after the count.
  IclPtr list = new_icl();
  const uint32_t n = 65536;
  for (uint32_t i = 0; i < n; i++)
    add_entry(list.get(), partition_id("S", i));
  ASSERT_EQ(list->count, n);

  const Bytes b = blob_of(list.get());
  // Each entry: identifier 00 00 01 00 'S' + u16 number (7 bytes), empty list (4 bytes).
  ASSERT_EQ(b.size(), 2u + n * 11u);
  EXPECT_EQ(b[0], 0x00);
  EXPECT_EQ(b[1], 0x00);
  bool all_match = true;
  for (uint32_t k = 0; k < n && all_match; k++) {
    const uint32_t number = n - 1 - k; // newest first
    const Bytes rec{0x00,
                    0x00,
                    0x01,
                    0x00,
                    'S',
                    static_cast<uint8_t>(number),
                    static_cast<uint8_t>(number >> 8),
                    0x00,
                    0x00,
                    0x00,
                    0x00};
    all_match = std::equal(rec.begin(), rec.end(), b.begin() + 2 + k * 11);
    EXPECT_TRUE(all_match) << "entry " << k;
  }

  IclPtr back;
  EXPECT_EQ(read_icl(b, &back), FSIC_ERR_FAILED);
  rb in;
  rb_init(&in, b.data(), static_cast<uint32_t>(b.size()));
  fs_icl *raw = nullptr;
  ASSERT_EQ(fs_icl_read_from_rbuf(&in, &raw), FSIC_OK);
  back.reset(raw);
  EXPECT_EQ(in.pos, 2u);
  EXPECT_EQ(back->count, 0u);
  EXPECT_EQ(fs_icl_first_volume(back.get()), nullptr);

  // One more entry: N is 1 and only the first written entry is read.
  add_entry(list.get(), lvm_id("g", "v"));
  const Bytes b2 = blob_of(list.get());
  EXPECT_EQ(b2[0], 0x01);
  EXPECT_EQ(b2[1], 0x00);
  IclPtr back2;
  EXPECT_EQ(read_icl(b2, &back2), FSIC_ERR_FAILED);
  rb_init(&in, b2.data(), static_cast<uint32_t>(b2.size()));
  ASSERT_EQ(fs_icl_read_from_rbuf(&in, &raw), FSIC_OK);
  back2.reset(raw);
  EXPECT_EQ(in.pos, 2u + 12u); // N, the identifier of 8 bytes and the empty list
  expect_list(back2.get(), {Entry{Id{2, "g", 0, "v"}, {}}});
}

// ---------------------------------------------------------------- round trips

TEST(IclBlob, RandomListsOfAllKindsRoundTripAndAlternate) {
  Gen g(20240611);
  for (int round = 0; round < 60; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::vector<Entry> model;
    const uint32_t n = g.below(6);
    for (uint32_t i = 0; i < n; i++)
      model.push_back(g.entry(4));
    if (round < 3) { // every kind at least once
      model.push_back(Entry{Id{static_cast<uint16_t>(round), "first", 65535, "second"}, {}});
      if (round == 2)
        model.back().id.number = 0;
    }

    // The blob in model order reads back reversed.
    const Bytes blob = encode_list(model);
    IclPtr first;
    ASSERT_EQ(read_icl(blob, &first), FSIC_OK);
    expect_list(first.get(), reversed(model));

    // Written again: the reversed blob; read again: the model's order; and so on.
    const Bytes blob2 = blob_of(first.get());
    ASSERT_EQ(blob2, encode_list(reversed(model)));
    IclPtr second;
    ASSERT_EQ(read_icl(blob2, &second), FSIC_OK);
    expect_list(second.get(), model);
    EXPECT_EQ(blob_of(second.get()), blob);

    // A list built entry by entry writes the same bytes as the model.
    IclPtr built = build(model);
    expect_list(built.get(), model);
    EXPECT_EQ(blob_of(built.get()), blob);
  }
}

TEST(IclBlob, ListsOfRealFilesRoundTrip) {
  TempDir t;
  ocltest::write_file(t / "boot.ini", "[boot loader]\ntimeout=30\n");
  ocltest::write_file(t / "WINDOWS/explorer.exe", std::string(40000, 'x') + "MZ");
  ocltest::write_file(t / "WINDOWS/Installer/a.dll", "a");
  ocltest::write_file(t / "WINDOWS/Installer/B.EXE", "bb");
  ocltest::write_file(t / "WINDOWS/Installer/sub/c.dll", "ccc");
  ocltest::write_file(t / "WINDOWS/Installer/notes.txt", "skipped by the masks");
  char mask_dll[] = "*.dll", mask_exe[] = "*.EXE";
  char *masks[] = {mask_dll, mask_exe, nullptr};

  OclPtr first = ocltest::new_list(), second = ocltest::new_list();
  ASSERT_EQ(fs_ocl_add_file(first.get(), t.path().c_str(), "/boot.ini", 12, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_file(first.get(), t.path().c_str(), "/WINDOWS/explorer.exe", 4, nullptr),
            FSIC_OK);
  ASSERT_EQ(fs_ocl_add_dir(first.get(), t.path().c_str(), "/WINDOWS/Installer", masks, 15, nullptr),
            FSIC_OK);
  ASSERT_EQ(
      fs_ocl_add_dir(second.get(), t.path().c_str(), "/WINDOWS", nullptr, CONTROL_DATA, nullptr),
      FSIC_OK);
  const Bytes ocl1 = ocltest::blob_of(first.get()), ocl2 = ocltest::blob_of(second.get());

  IclPtr list = new_icl();
  add_entry(list.get(), partition_id("WD-1234", 1), std::move(first));
  add_entry(list.get(), image_id("esx.img", 2), std::move(second));
  add_entry(list.get(), lvm_id("vg0", "root"));

  Enc expected;
  expected.u16(3);
  expected.u16(2).str("vg0").str("root").u32(0);
  expected.u16(1).str("esx.img").u16(2).raw(ocl2);
  expected.u16(0).str("WD-1234").u16(1).raw(ocl1);
  const Bytes b = blob_of(list.get());
  ASSERT_EQ(b, expected.b);

  IclPtr back;
  ASSERT_EQ(read_icl(b, &back), FSIC_OK);
  std::vector<fs_icl_volume *> es = entries_of(back.get());
  ASSERT_EQ(es.size(), 3u);
  expect_id(es[0]->id, Id{0, "WD-1234", 1, ""});
  expect_id(es[1]->id, Id{1, "esx.img", 2, ""});
  expect_id(es[2]->id, Id{2, "vg0", 0, "root"});
  EXPECT_EQ(ocltest::blob_of(es[0]->ocl), ocl1);
  EXPECT_EQ(ocltest::blob_of(es[1]->ocl), ocl2);
  EXPECT_EQ(es[2]->ocl->count, 0u);
  EXPECT_EQ(paths_of(es[0]),
            (std::vector<std::string>{"/WINDOWS/Installer", "/WINDOWS/explorer.exe", "/boot.ini"}));
}

TEST(IclBlob, EveryTruncatedPrefixFailsWith1AndLeaksNothing) {
  Gen g(77);
  for (int round = 0; round < 8; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::vector<Entry> model;
    for (uint16_t kind = 0; kind < 3; kind++) {
      Entry e = g.entry(3);
      e.id.kind = kind;
      if (kind == 2 && e.id.second.empty())
        e.id.second = "lv";
      model.push_back(e);
    }
    const Bytes blob = encode_list(model);
    for (size_t len = 0; len < blob.size(); len++) {
      SCOPED_TRACE("prefix of " + std::to_string(len) + " of " + std::to_string(blob.size()));
      ASSERT_EQ(read_fails(Bytes(blob.begin(), blob.begin() + static_cast<long>(len))),
                FSIC_ERR_FAILED);
    }
    IclPtr whole;
    ASSERT_EQ(read_icl(blob, &whole), FSIC_OK);
    expect_list(whole.get(), reversed(model));
  }
}

TEST(IclBlob, AnUnknownIdentifierKindFailsWith1) {
  Entry a{Id{0, "ABC", 1, ""}, {}};
  Bytes b = encode_list({a, a});
  Bytes bad = b;
  bad[2 + 9 + 4] = 0x03; // the second entry's kind
  EXPECT_EQ(read_fails(bad), FSIC_ERR_FAILED);
  bad[2 + 9 + 4] = 0xFF;
  bad[2 + 9 + 4 + 1] = 0xFF;
  EXPECT_EQ(read_fails(bad), FSIC_ERR_FAILED);
}

TEST(IclBlob, AnUnknownObjectTypeFailsWith1) {
  Entry a{Id{2, "vg", 0, "lv"}, {file_obj("/a", 12, 3)}};
  Entry b{Id{0, "S", 1, ""}, {file_obj("/b", 0, 4)}};
  Bytes blob = encode_list({a, b});
  // The type of B's object: N, A's entry, B's identifier (2 + 1 + 2 + 2), B's count.
  const size_t a_size = encode_list({a}).size() - 2;
  const size_t at = 2 + a_size + 7 + 4;
  ASSERT_EQ(blob[at], 0x00);
  blob[at] = 0x02;
  EXPECT_EQ(read_fails(blob), FSIC_ERR_FAILED);
}

TEST(IclBlob, DuplicateIdentifiersGiveTwoEntries) {
  Entry first{Id{0, "SER", 1, ""}, {file_obj("/only-in-first", 12, 1)}};
  Entry second{Id{0, "SER", 1, ""}, {file_obj("/only-in-second", 4, 2)}};
  const Bytes blob = encode_list({first, second});
  IclPtr back;
  ASSERT_EQ(read_icl(blob, &back), FSIC_OK);
  EXPECT_EQ(back->count, 2u);
  expect_list(back.get(), {second, first});
  EXPECT_EQ(blob_of(back.get()), encode_list({second, first}));

  // Look-ups stop at the first entry with an equal identifier.
  IdPtr id = partition_id("SER", 1);
  fs_icl_volume *front = fs_icl_first_volume(back.get());
  EXPECT_EQ(fs_icl_find_object(back.get(), id.get(), "/only-in-second"),
            fs_icl_volume_find_object(front, "/only-in-second"));
  EXPECT_NE(fs_icl_find_object(back.get(), id.get(), "/only-in-second"), nullptr);
  EXPECT_EQ(fs_icl_find_object(back.get(), id.get(), "/only-in-first"), nullptr);
}

TEST(IclBlob, TheWriteBufferVariantAppends) {
  Entry a{Id{1, "img", 4, ""}, {file_obj("/z", 8, 5)}};
  IclPtr list = build({a});
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint32(&buf, 0xDEADBEEF), FSIC_OK);
  ASSERT_EQ(fs_icl_write_to_wbuf(list.get(), &buf), FSIC_OK);
  Bytes got(buf.data, buf.data + buf.used);
  wb_finalize(&buf, 1);
  Bytes expected{0xEF, 0xBE, 0xAD, 0xDE};
  const Bytes body = encode_list({a});
  expected.insert(expected.end(), body.begin(), body.end());
  EXPECT_EQ(got, expected);

  // The read buffer variant starts at the buffer's position and stops after the list.
  Bytes twice = body;
  twice.insert(twice.end(), body.begin(), body.end());
  rb in;
  rb_init(&in, twice.data(), static_cast<uint32_t>(twice.size()));
  fs_icl *one = nullptr, *two = nullptr;
  ASSERT_EQ(fs_icl_read_from_rbuf(&in, &one), FSIC_OK);
  EXPECT_EQ(in.pos, body.size());
  ASSERT_EQ(fs_icl_read_from_rbuf(&in, &two), FSIC_OK);
  EXPECT_EQ(in.pos, twice.size());
  rb_finalize(&in, 0);
  IclPtr p1(one), p2(two);
  expect_list(p1.get(), {a});
  expect_list(p2.get(), {a});
}

} // namespace
