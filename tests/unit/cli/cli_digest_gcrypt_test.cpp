// The database's digest and HMAC against libgcrypt's GOST R 34.11-94 (CryptoPro
// parameters) and its HMAC_GOSTR3411_CP, on random keys and messages.
#include <gcrypt.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "cli/digest.h"

namespace {

using fsic::cli::digest32;

class DigestGcrypt : public testing::Test {
protected:
  static void SetUpTestSuite() {
    ASSERT_NE(gcry_check_version(GCRYPT_VERSION), nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  }
};

std::string random_bytes(std::mt19937_64 &rng, size_t n) {
  std::string s(n, '\0');
  for (char &c : s)
    c = static_cast<char>(rng());
  return s;
}

digest32 gcrypt_hmac(const std::string &key, const std::string &data) {
  gcry_mac_hd_t h = nullptr;
  EXPECT_EQ(gcry_mac_open(&h, GCRY_MAC_HMAC_GOSTR3411_CP, 0, nullptr), 0u);
  EXPECT_EQ(gcry_mac_setkey(h, key.data(), key.size()), 0u);
  EXPECT_EQ(gcry_mac_write(h, data.data(), data.size()), 0u);
  digest32 out{};
  size_t n = out.size();
  EXPECT_EQ(gcry_mac_read(h, out.data(), &n), 0u);
  EXPECT_EQ(n, out.size());
  gcry_mac_close(h);
  return out;
}

TEST_F(DigestGcrypt, TheDigestIsGcryptsGostR341194WithTheCryptoProParameters) {
  std::mt19937_64 rng(0x6057d16e57);
  for (size_t length : {0, 1, 31, 32, 33, 64, 1000, 65537}) {
    std::string data = random_bytes(rng, length);
    digest32 ours;
    ASSERT_TRUE(fsic::cli::gost_digest(data, &ours));
    digest32 theirs;
    gcry_md_hash_buffer(GCRY_MD_GOSTR3411_CP, theirs.data(), data.data(), data.size());
    EXPECT_EQ(ours, theirs) << length;
  }
}

TEST_F(DigestGcrypt, TheHmacIsGcryptsHmacGostR3411CpForKeysShorterLongerAndOfABlock) {
  std::mt19937_64 rng(0x4d4ac);
  for (int i = 0; i < 300; i++) {
    size_t key_length = i < 100 ? 32 : static_cast<size_t>(rng() % 100 + 1);
    std::string key = random_bytes(rng, key_length);
    std::string data = random_bytes(rng, rng() % 3000);
    digest32 ours;
    ASSERT_TRUE(fsic::cli::gost_hmac(key, data, &ours));
    EXPECT_EQ(ours, gcrypt_hmac(key, data)) << "key " << key_length << " data " << data.size();
  }
}

TEST_F(DigestGcrypt, SameDigestTellsEveryByteApart) {
  digest32 a{};
  for (size_t i = 0; i < a.size(); i++) {
    digest32 b = a;
    b[i] = 1;
    EXPECT_FALSE(fsic::cli::same_digest(a.data(), b.data()));
  }
  EXPECT_TRUE(fsic::cli::same_digest(a.data(), a.data()));
}

} // namespace
