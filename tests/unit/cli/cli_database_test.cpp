// The database format: round trips with and without a key, and every truncation and
// every single-bit flip refused, the format (18) before the authentication (19).
#include <gtest/gtest.h>

#include "cli/database.h"
#include "cli/digest.h"
#include "cli/exit_status.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using namespace fsic::cli;

const std::string key_a(32, 'a');
const std::string key_b = std::string(31, 'a') + "b";

// A list of two volumes measured from a small real tree, and two images.
database sample() {
  ocltest::TempDir tree;
  ocltest::make_dirs(tree.path() + "/etc/sub");
  ocltest::write_file(tree.path() + "/etc/passwd", "root:x:0:0::/root:/bin/sh\n");
  ocltest::write_file(tree.path() + "/etc/sub/a.conf", "a = 1\n");
  ocltest::write_file(tree.path() + "/vmlinuz", std::string(5000, 'k'));
  icltest::OclPtr first = ocltest::new_list();
  EXPECT_EQ(fs_ocl_add_dir(first.get(), tree.path().c_str(), "/etc", nullptr,
                           EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS, nullptr),
            FSIC_OK);
  EXPECT_EQ(fs_ocl_add_file(first.get(), tree.path().c_str(), "/vmlinuz",
                            CONTROL_DATA | CONTROL_ATTRS, nullptr),
            FSIC_OK);
  icltest::OclPtr second = ocltest::new_list();
  EXPECT_EQ(
      fs_ocl_add_dir(second.get(), tree.path().c_str(), "/etc", nullptr, CONTROL_DATA, nullptr),
      FSIC_OK);
  database db;
  db.created = 1795576789;
  db.host = "host-1";
  icltest::IclPtr list = icltest::new_icl();
  icltest::add_entry(list.get(), icltest::partition_id("SER-1", 5), std::move(first));
  icltest::add_entry(list.get(), icltest::lvm_id("vg0", "root"), std::move(second));
  db.list.reset(list.release());
  db.images.push_back(
      {"win", volume_id_ptr(icltest::partition_id("SER-1", 1).release()), "/images/win.img"});
  db.images.push_back({"inner", volume_id_ptr(icltest::image_id("win", 2).release()), "/x.img"});
  return db;
}

std::string encoded(const database &db, const std::string &key) {
  std::string bytes;
  EXPECT_EQ(encode_database(db, key, &bytes), FSIC_OK);
  return bytes;
}

int decode(const std::string &bytes, const std::string &key, database *out = nullptr) {
  database db;
  std::string why;
  int status = decode_database(bytes, key, &db, &why);
  if (out)
    *out = std::move(db);
  return status;
}

void expect_same(const database &a, const database &b) {
  EXPECT_EQ(a.created, b.created);
  EXPECT_EQ(a.host, b.host);
  ASSERT_EQ(a.images.size(), b.images.size());
  for (size_t i = 0; i < a.images.size(); i++) {
    EXPECT_EQ(a.images[i].name, b.images[i].name);
    EXPECT_EQ(fs_volume_id_compare(a.images[i].volume.get(), b.images[i].volume.get()), 0);
    EXPECT_EQ(a.images[i].path, b.images[i].path);
  }
  fs_check_summary summary{};
  ASSERT_EQ(fs_icl_compare(a.list.get(), b.list.get(), nullptr, nullptr, &summary), FSIC_OK);
  EXPECT_EQ(summary.added + summary.removed + summary.changed + summary.errors, 0u);
  EXPECT_EQ(a.list->count, b.list->count);
}

TEST(Database, TheHeaderIsLaidOutAsDocumented) {
  std::string bytes = encoded(sample(), "");
  ASSERT_GT(bytes.size(), 22u);
  EXPECT_EQ(bytes.substr(0, 6), "FSICDB");
  EXPECT_EQ(bytes.substr(6, 6), std::string("\x01\x00\x01\x00\x00\x00", 6));
  EXPECT_EQ(bytes.substr(12, 8), std::string("\xd5\x53\x06\x6b\x00\x00\x00\x00", 8));
  EXPECT_EQ(bytes.substr(20, 8), std::string("\x06\x00host-1", 8));
  EXPECT_EQ(bytes.substr(28, 4), std::string("\x02\x00\x00\x00", 4));
  // The trailer is the digest of everything before it.
  digest32 d;
  ASSERT_TRUE(gost_digest(std::string_view(bytes).substr(0, bytes.size() - 32), &d));
  EXPECT_EQ(bytes.substr(bytes.size() - 32), std::string(d.begin(), d.end()));
  std::string keyed = encoded(sample(), key_a);
  EXPECT_EQ(keyed[10], '\x01');
  ASSERT_TRUE(gost_hmac(key_a, std::string_view(keyed).substr(0, keyed.size() - 32), &d));
  EXPECT_EQ(keyed.substr(keyed.size() - 32), std::string(d.begin(), d.end()));
}

TEST(Database, TheBlobIsTheListsOwnBlob) {
  database db = sample();
  std::string bytes = encoded(db, "");
  uint8_t *blob = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(fs_icl_write_to_mem(db.list.get(), &blob, &length), FSIC_OK);
  std::string own(reinterpret_cast<char *>(blob), length);
  free(blob);
  size_t at = bytes.size() - 32 - length;
  EXPECT_EQ(bytes.substr(at), own + bytes.substr(bytes.size() - 32));
  uint32_t stored = 0;
  memcpy(&stored, bytes.data() + at - 4, 4);
  EXPECT_EQ(stored, length);
}

TEST(Database, RoundTripsWithAndWithoutAKey) {
  database db = sample();
  for (const std::string &key :
       {std::string(), key_a, std::string(100, 'k'), std::string(32, '\0')}) {
    std::string bytes = encoded(db, key);
    database back;
    ASSERT_EQ(decode(bytes, key, &back), EXIT_OK);
    expect_same(db, back);
    EXPECT_EQ(back.authentication, key.empty() ? db_auth_digest : db_auth_hmac);
    // Read back, the list iterates in reverse; written again it is its own image.
    database again;
    ASSERT_EQ(decode(encoded(back, key), key, &again), EXIT_OK);
    EXPECT_EQ(encoded(again, key), bytes);
  }
}

TEST(Database, AnEmptyDatabaseRoundTrips) {
  database db;
  db.list.reset(icltest::new_icl().release());
  database back;
  ASSERT_EQ(decode(encoded(db, ""), "", &back), EXIT_OK);
  EXPECT_EQ(back.list->count, 0u);
  EXPECT_TRUE(back.images.empty());
  EXPECT_TRUE(back.host.empty());
}

TEST(Database, AKeyedDatabaseNeedsItsKey) {
  std::string bytes = encoded(sample(), key_a);
  EXPECT_EQ(decode(bytes, ""), EXIT_AUTH);
  EXPECT_EQ(decode(bytes, key_b), EXIT_AUTH);
  EXPECT_EQ(decode(bytes, key_a), EXIT_OK);
}

TEST(Database, AKeyRefusesADatabaseThatIsNotKeyedSoTheHmacCannotBeStripped) {
  std::string keyed = encoded(sample(), key_a);
  // What an attacker without the key can make: authentication 0 and a fresh digest.
  std::string stripped = keyed.substr(0, keyed.size() - 32);
  stripped[10] = '\0';
  digest32 d;
  ASSERT_TRUE(gost_digest(stripped, &d));
  stripped.append(d.begin(), d.end());
  EXPECT_EQ(decode(stripped, ""), EXIT_OK);
  EXPECT_EQ(decode(stripped, key_a), EXIT_AUTH);
}

TEST(Database, TheFormatIsCheckedBeforeTheAuthentication) {
  std::string bytes = encoded(sample(), key_a);
  std::string bad_magic = bytes;
  bad_magic[0] = 'X';
  EXPECT_EQ(decode(bad_magic, key_b), EXIT_DB_FORMAT);
  std::string version = bytes;
  version[6] = 2;
  EXPECT_EQ(decode(version, key_a), EXIT_DB_FORMAT);
  std::string parameters = bytes;
  parameters[8] = 0;
  EXPECT_EQ(decode(parameters, key_a), EXIT_DB_FORMAT);
  std::string authentication = bytes;
  authentication[10] = 2;
  EXPECT_EQ(decode(authentication, key_a), EXIT_DB_FORMAT);
  std::string longer = bytes + "x";
  EXPECT_EQ(decode(longer, key_a), EXIT_DB_FORMAT);
  EXPECT_EQ(decode("", ""), EXIT_DB_FORMAT);
  EXPECT_EQ(decode("FSICDB", ""), EXIT_DB_FORMAT);
}

TEST(Database, AnImageCountBeyondTheBytesIsRefusedBeforeAnythingIsMade) {
  std::string bytes = encoded(sample(), "");
  bytes[28] = '\xff';
  bytes[29] = '\xff';
  bytes[30] = '\xff';
  bytes[31] = '\x7f';
  EXPECT_EQ(decode(bytes, ""), EXIT_DB_FORMAT);
}

TEST(Database, EveryTruncationIsRefused) {
  for (const std::string &key : {std::string(), key_a}) {
    std::string bytes = encoded(sample(), key);
    for (size_t n = 0; n < bytes.size(); n++) {
      int status = decode(bytes.substr(0, n), key);
      EXPECT_TRUE(status == EXIT_DB_FORMAT || status == EXIT_AUTH) << n << ": " << status;
    }
  }
}

TEST(Database, EverySingleBitFlipIsRefused) {
  for (const std::string &key : {std::string(), key_a}) {
    std::string bytes = encoded(sample(), key);
    int format = 0;
    int auth = 0;
    for (size_t i = 0; i < bytes.size(); i++) {
      for (int bit = 0; bit < 8; bit++) {
        std::string flipped = bytes;
        flipped[i] = static_cast<char>(flipped[i] ^ (1 << bit));
        int status = decode(flipped, key);
        ASSERT_TRUE(status == EXIT_DB_FORMAT || status == EXIT_AUTH)
            << "byte " << i << " bit " << bit << ": " << status;
        (status == EXIT_DB_FORMAT ? format : auth)++;
      }
    }
    // Both kinds of refusal occur: lengths and magic give 18, contents 19.
    EXPECT_GT(format, 0);
    EXPECT_GT(auth, 0);
  }
}

TEST(Database, StringsAboveSixteenBitsAreNotEncoded) {
  database db = sample();
  db.host = std::string(65536, 'h');
  std::string bytes;
  EXPECT_EQ(encode_database(db, "", &bytes), FSIC_ERR_FAILED);
  db.host = std::string(65535, 'h');
  EXPECT_EQ(encode_database(db, "", &bytes), FSIC_OK);
}

} // namespace
