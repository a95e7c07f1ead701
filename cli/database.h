// The database file (little-endian):
//   "FSICDB"                      magic, 6 bytes
//   u16 format version            1
//   u16 hash parameter set        1: GOST R 34.11-94 with the CryptoPro parameters
//   u16 authentication            0: digest of the file; 1: HMAC with a key
//   u64 creation time             seconds since the epoch
//   string host name
//   u32 image count, per image:   string name, volume identifier record, string path
//   u32 length, the integrity list's blob (fs_icl_write_to_mem)
//   32 bytes                      digest or HMAC of every byte before them
// Strings are a u16 length and the bytes. The format is checked first (18): the
// lengths, and the images' identifier records, which tell their own lengths (read by
// the library's bounded reader); then the digest or HMAC (19); only then is the
// integrity list read.
#ifndef FSIC_CLI_DATABASE_H
#define FSIC_CLI_DATABASE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/handles.h"

namespace fsic::cli {

constexpr uint16_t db_version = 1;
constexpr uint16_t db_hash_parameters = 1;
constexpr uint16_t db_auth_digest = 0;
constexpr uint16_t db_auth_hmac = 1;

// An image disk to attach before the volumes are looked up: the image file `path` on
// the volume `volume`, attached as `name`.
struct db_image {
  std::string name;
  volume_id_ptr volume;
  std::string path;
};

struct database {
  uint16_t authentication = db_auth_digest;
  uint64_t created = 0;
  std::string host;
  std::vector<db_image> images;
  icl_ptr list;
};

// Encodes the database, with an HMAC when `key` is not empty (authentication 1), else
// with a digest. 0, 3 (memory) or 1 (a string longer than 65535 bytes, more than 2^32
// bytes in all).
fsic_status encode_database(const database &db, std::string_view key, std::string *out);

// Decodes a database. 0 (EXIT_OK); 18 when the bytes are not a database (*why says
// what is wrong); 19 when the digest or HMAC does not hold, when it is keyed and `key`
// is empty, or not keyed and `key` is given; 23 when memory is exhausted.
int decode_database(std::string_view bytes, std::string_view key, database *out, std::string *why);

} // namespace fsic::cli

#endif // FSIC_CLI_DATABASE_H
