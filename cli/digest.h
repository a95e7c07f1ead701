// The database's trailer: a GOST R 34.11-94 digest (CryptoPro parameters) of the bytes,
// or their HMAC with that hash (RFC 2104 with a 32-byte block, as RFC 4357 defines
// HMAC_GOSTR3411 and libgcrypt's GCRY_MAC_HMAC_GOSTR3411_CP computes it).
#ifndef FSIC_CLI_DIGEST_H
#define FSIC_CLI_DIGEST_H

#include <array>
#include <cstdint>
#include <string_view>

namespace fsic::cli {

using digest32 = std::array<uint8_t, 32>;

// false only when no hash context can be allocated.
bool gost_digest(std::string_view data, digest32 *out);
bool gost_hmac(std::string_view key, std::string_view data, digest32 *out);

// Compares in time independent of where the first difference is.
bool same_digest(const uint8_t *a, const uint8_t *b);

} // namespace fsic::cli

#endif // FSIC_CLI_DIGEST_H
