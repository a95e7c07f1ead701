// Volume identifiers: records byte for byte, comparison, copies, reading errors.
#include <fsic/buffer.h>
#include <fsic/volume_id.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

struct id_deleter {
  void operator()(fs_volume_id *id) const { fs_volume_id_destroy(id); }
};
using id_ptr = std::unique_ptr<fs_volume_id, id_deleter>;

id_ptr partition_id(const char *serial, uint32_t number) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_partition_id_create(serial, number, &id), FSIC_OK);
  return id_ptr(id);
}

id_ptr image_id(const char *name, uint32_t number) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_image_partition_id_create(name, number, &id), FSIC_OK);
  return id_ptr(id);
}

id_ptr lvm_id(const char *group, const char *volume) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_lvm_volume_id_create(group, volume, &id), FSIC_OK);
  return id_ptr(id);
}

id_ptr uuid_id(const char *uuid) {
  fs_volume_id *id = nullptr;
  EXPECT_EQ(fs_uuid_volume_id_create(uuid, &id), FSIC_OK);
  return id_ptr(id);
}

std::vector<uint8_t> serialise(const fs_volume_id *id) {
  wb buf;
  EXPECT_EQ(wb_init(&buf, 0), FSIC_OK);
  EXPECT_EQ(fs_volume_id_write_to_wbuf(id, &buf), FSIC_OK);
  std::vector<uint8_t> bytes(buf.data, buf.data + buf.used);
  wb_finalize(&buf, 1);
  return bytes;
}

fsic_status parse(const std::vector<uint8_t> &bytes, id_ptr *out, uint32_t *consumed = nullptr) {
  rb buf;
  rb_init(&buf, bytes.data(), static_cast<uint32_t>(bytes.size()));
  fs_volume_id *id = nullptr;
  fsic_status status = fs_volume_id_read_from_rbuf(&buf, &id);
  if (status == FSIC_OK)
    out->reset(id);
  if (consumed)
    *consumed = buf.pos;
  rb_finalize(&buf, 0);
  return status;
}

TEST(VolumeId, PartitionRecordIsByteExact) {
  auto id = partition_id("ABC", 1);
  EXPECT_EQ(serialise(id.get()),
            (std::vector<uint8_t>{0x00, 0x00, 0x03, 0x00, 0x41, 0x42, 0x43, 0x01, 0x00}));
}

TEST(VolumeId, ImagePartitionRecordHasKindOne) {
  auto id = image_id("test", 5);
  EXPECT_EQ(serialise(id.get()),
            (std::vector<uint8_t>{0x01, 0x00, 0x04, 0x00, 't', 'e', 's', 't', 0x05, 0x00}));
}

TEST(VolumeId, LvmRecordIsByteExact) {
  auto id = lvm_id("vg", "lv");
  EXPECT_EQ(serialise(id.get()),
            (std::vector<uint8_t>{0x02, 0x00, 0x02, 0x00, 0x76, 0x67, 0x02, 0x00, 0x6C, 0x76}));
}

TEST(VolumeId, RecordsReadBackEqual) {
  id_ptr ids[] = {partition_id("WD-WCAV12345678", 2), image_id("esx", 7),
                  lvm_id("vg-data", "lv_home"), partition_id("", 0), lvm_id("", "")};
  for (auto &id : ids) {
    auto bytes = serialise(id.get());
    id_ptr back;
    uint32_t consumed = 0;
    ASSERT_EQ(parse(bytes, &back, &consumed), FSIC_OK);
    EXPECT_EQ(consumed, bytes.size());
    EXPECT_EQ(fs_volume_id_type(back.get()), fs_volume_id_type(id.get()));
    EXPECT_EQ(fs_volume_id_compare(back.get(), id.get()), 0);
    EXPECT_EQ(serialise(back.get()), bytes);
  }
}

TEST(VolumeId, PartitionAndImageIdsWithSameMembersDiffer) {
  auto part = partition_id("same", 3);
  auto image = image_id("same", 3);
  EXPECT_LT(fs_volume_id_compare(part.get(), image.get()), 0);
  EXPECT_GT(fs_volume_id_compare(image.get(), part.get()), 0);
}

TEST(VolumeId, CompareOrdersByStringThenNumber) {
  auto a1 = partition_id("A", 1), a2 = partition_id("A", 2), b1 = partition_id("B", 1);
  EXPECT_EQ(fs_volume_id_compare(a1.get(), partition_id("A", 1).get()), 0);
  EXPECT_LT(fs_volume_id_compare(a1.get(), a2.get()), 0);
  EXPECT_GT(fs_volume_id_compare(a2.get(), a1.get()), 0);
  EXPECT_LT(fs_volume_id_compare(a2.get(), b1.get()), 0);
  auto l1 = lvm_id("vg", "a"), l2 = lvm_id("vg", "b"), l3 = lvm_id("vh", "a");
  EXPECT_LT(fs_volume_id_compare(l1.get(), l2.get()), 0);
  EXPECT_LT(fs_volume_id_compare(l2.get(), l3.get()), 0);
  EXPECT_EQ(fs_volume_id_compare(l1.get(), lvm_id("vg", "a").get()), 0);
  EXPECT_GT(fs_volume_id_compare(l1.get(), a1.get()), 0);
}

TEST(VolumeId, CopyIsIndependentAndEqual) {
  id_ptr originals[] = {partition_id("S", 9), image_id("I", 4), lvm_id("g", "v")};
  for (auto &id : originals) {
    fs_volume_id *raw = nullptr;
    ASSERT_EQ(id->ops->copy(id.get(), &raw), FSIC_OK);
    id_ptr copy(raw);
    EXPECT_NE(copy.get(), id.get());
    EXPECT_EQ(copy->ops, id->ops);
    EXPECT_EQ(fs_volume_id_compare(copy.get(), id.get()), 0);
    EXPECT_EQ(serialise(copy.get()), serialise(id.get()));
  }
  // The strings are the copy's own.
  auto *orig = reinterpret_cast<fs_lvm_volume_id *>(originals[2].get());
  fs_volume_id *raw = nullptr;
  ASSERT_EQ(fs_lvm_volume_id_create(orig->group_name, orig->volume_name, &raw), FSIC_OK);
  id_ptr copy(raw);
  EXPECT_NE(reinterpret_cast<fs_lvm_volume_id *>(raw)->group_name, orig->group_name);
}

TEST(VolumeId, NumbersAboveSixteenBitsAreCutWhenWritten) {
  auto id = partition_id("S", 65536 + 5);
  auto bytes = serialise(id.get());
  id_ptr back;
  ASSERT_EQ(parse(bytes, &back), FSIC_OK);
  EXPECT_EQ(reinterpret_cast<fs_partition_id *>(back.get())->number, 5u);
  EXPECT_NE(fs_volume_id_compare(back.get(), id.get()), 0);
}

TEST(VolumeId, UuidRecordIsByteExact) {
  auto id = uuid_id("0b1c-2d");
  EXPECT_EQ(fs_volume_id_type(id.get()), FS_VOLUME_ID_UUID);
  EXPECT_EQ(serialise(id.get()),
            (std::vector<uint8_t>{0x03, 0x00, 0x07, 0x00, '0', 'b', '1', 'c', '-', '2', 'd'}));
}

TEST(VolumeId, UuidIdsReadBackEqualAndCopiesAreIndependent) {
  for (const char *uuid : {"", "0b1c2d3e-6101-4a5b-8c6d-7e8f90a1b2c1", "1234-ABCD"}) {
    auto id = uuid_id(uuid);
    id_ptr back;
    ASSERT_EQ(parse(serialise(id.get()), &back), FSIC_OK) << uuid;
    EXPECT_EQ(fs_volume_id_compare(back.get(), id.get()), 0);
    EXPECT_STREQ(reinterpret_cast<fs_uuid_volume_id *>(back.get())->uuid, uuid);
    fs_volume_id *copy = nullptr;
    ASSERT_EQ(id->ops->copy(id.get(), &copy), FSIC_OK);
    id_ptr owned(copy);
    EXPECT_NE(reinterpret_cast<fs_uuid_volume_id *>(copy)->uuid,
              reinterpret_cast<fs_uuid_volume_id *>(id.get())->uuid);
    EXPECT_EQ(fs_volume_id_compare(copy, id.get()), 0);
  }
}

TEST(VolumeId, UuidIdsCompareByKindThenUuid) {
  auto a = uuid_id("aaaa"), b = uuid_id("bbbb");
  EXPECT_LT(fs_volume_id_compare(a.get(), b.get()), 0);
  EXPECT_GT(fs_volume_id_compare(b.get(), a.get()), 0);
  // A partition id whose serial is the same text is another kind: kind 0 sorts first.
  auto p = partition_id("aaaa", 0);
  EXPECT_LT(fs_volume_id_compare(p.get(), a.get()), 0);
  EXPECT_GT(fs_volume_id_compare(a.get(), p.get()), 0);
  auto l = lvm_id("aaaa", "");
  EXPECT_GT(fs_volume_id_compare(a.get(), l.get()), 0);
}

TEST(VolumeId, UnknownKindFailsWithoutConsumingMore) {
  for (uint8_t kind : {4, 5, 0xFF}) {
    std::vector<uint8_t> bytes{kind, 0x00, 0x01, 0x00, 'x', 0x01, 0x00};
    id_ptr back;
    uint32_t consumed = 0;
    EXPECT_EQ(parse(bytes, &back, &consumed), FSIC_ERR_FAILED);
    EXPECT_EQ(consumed, 2u);
    EXPECT_EQ(back, nullptr);
  }
}

TEST(VolumeId, EveryTruncatedRecordFailsWithOne) {
  id_ptr ids[] = {partition_id("ABC", 1), image_id("img", 2), lvm_id("vg", "lv"),
                  uuid_id("0b1c2d3e")};
  for (auto &id : ids) {
    auto bytes = serialise(id.get());
    for (size_t len = 0; len < bytes.size(); len++) {
      std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<long>(len));
      id_ptr back;
      EXPECT_EQ(parse(cut, &back), FSIC_ERR_FAILED) << "length " << len;
      EXPECT_EQ(back, nullptr);
    }
  }
}

TEST(VolumeId, TrailingBytesAreLeftUnread) {
  auto bytes = serialise(lvm_id("vg", "lv").get());
  size_t record = bytes.size();
  bytes.push_back(0xAA);
  id_ptr back;
  uint32_t consumed = 0;
  ASSERT_EQ(parse(bytes, &back, &consumed), FSIC_OK);
  EXPECT_EQ(consumed, record);
}

} // namespace
