// Encoding and decoding of the database file.
#include "cli/database.h"

#include <fsic/buffer.h>

#include <cstdlib>
#include <cstring>

#include "cli/digest.h"
#include "cli/exit_status.h"

namespace fsic::cli {

namespace {

constexpr char magic[6] = {'F', 'S', 'I', 'C', 'D', 'B'};
constexpr size_t trailer = 32;

void put16(std::string *out, uint16_t v) {
  out->push_back(static_cast<char>(v & 0xff));
  out->push_back(static_cast<char>(v >> 8));
}

void put32(std::string *out, uint32_t v) {
  for (int i = 0; i < 4; i++)
    out->push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

void put64(std::string *out, uint64_t v) {
  for (int i = 0; i < 8; i++)
    out->push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

bool put_string(std::string *out, const std::string &s) {
  if (s.size() > UINT16_MAX)
    return false;
  put16(out, static_cast<uint16_t>(s.size()));
  out->append(s);
  return true;
}

// The identifier's record, as the library writes it.
fsic_status put_volume_id(std::string *out, const fs_volume_id *id) {
  wb buf;
  fsic_status status = wb_init(&buf, 0);
  if (status != FSIC_OK)
    return status;
  status = fs_volume_id_write_to_wbuf(id, &buf);
  if (status == FSIC_OK)
    out->append(reinterpret_cast<const char *>(buf.data), buf.used);
  wb_finalize(&buf, 1);
  return status;
}

// Reads the bytes; every read past the end sets `short_` and gives zeros.
struct reader {
  std::string_view bytes;
  size_t pos = 0;
  bool short_ = false;

  bool take(size_t n, const char **p) {
    if (short_ || bytes.size() - pos < n) {
      short_ = true;
      return false;
    }
    *p = bytes.data() + pos;
    pos += n;
    return true;
  }
  uint64_t get(int width) {
    const char *p = nullptr;
    if (!take(static_cast<size_t>(width), &p))
      return 0;
    uint64_t v = 0;
    for (int i = width - 1; i >= 0; i--)
      v = (v << 8) | static_cast<uint8_t>(p[i]);
    return v;
  }
  std::string_view string() {
    size_t n = static_cast<size_t>(get(2));
    const char *p = nullptr;
    if (!take(n, &p))
      return {};
    return {p, n};
  }
};

// A volume identifier record at the reader's position: 0, 1 (not a record) or 3.
fsic_status get_volume_id(reader *r, volume_id_ptr *out) {
  rb buf;
  rb_init(&buf, r->bytes.data() + r->pos, static_cast<uint32_t>(r->bytes.size() - r->pos));
  fs_volume_id *id = nullptr;
  fsic_status status = fs_volume_id_read_from_rbuf(&buf, &id);
  r->pos += buf.pos;
  rb_finalize(&buf, 0);
  if (status == FSIC_OK)
    out->reset(id);
  return status;
}

} // namespace

fsic_status encode_database(const database &db, std::string_view key, std::string *out) {
  std::string bytes(magic, sizeof magic);
  put16(&bytes, db_version);
  put16(&bytes, db_hash_parameters);
  put16(&bytes, key.empty() ? db_auth_digest : db_auth_hmac);
  put64(&bytes, db.created);
  if (!put_string(&bytes, db.host) || db.images.size() > UINT32_MAX)
    return FSIC_ERR_FAILED;
  put32(&bytes, static_cast<uint32_t>(db.images.size()));
  for (const db_image &image : db.images) {
    if (!put_string(&bytes, image.name))
      return FSIC_ERR_FAILED;
    fsic_status status = put_volume_id(&bytes, image.volume.get());
    if (status != FSIC_OK)
      return status;
    if (!put_string(&bytes, image.path))
      return FSIC_ERR_FAILED;
  }
  uint8_t *blob = nullptr;
  uint32_t length = 0;
  fsic_status status = fs_icl_write_to_mem(db.list.get(), &blob, &length);
  if (status != FSIC_OK)
    return status;
  put32(&bytes, length);
  bytes.append(reinterpret_cast<const char *>(blob), length);
  free(blob);
  digest32 tag;
  bool ok = key.empty() ? gost_digest(bytes, &tag) : gost_hmac(key, bytes, &tag);
  if (!ok)
    return FSIC_ERR_NO_MEMORY;
  bytes.append(reinterpret_cast<const char *>(tag.data()), tag.size());
  if (bytes.size() > UINT32_MAX)
    return FSIC_ERR_FAILED;
  *out = std::move(bytes);
  return FSIC_OK;
}

int decode_database(std::string_view bytes, std::string_view key, database *out, std::string *why) {
  reader r{bytes};
  const char *p = nullptr;
  if (!r.take(sizeof magic, &p) || memcmp(p, magic, sizeof magic) != 0) {
    *why = "not an fsic database (no FSICDB magic)";
    return EXIT_DB_FORMAT;
  }
  uint16_t version = static_cast<uint16_t>(r.get(2));
  uint16_t parameters = static_cast<uint16_t>(r.get(2));
  uint16_t authentication = static_cast<uint16_t>(r.get(2));
  if (!r.short_ && version != db_version) {
    *why = "format version " + std::to_string(version) + " is not known (1 is)";
    return EXIT_DB_FORMAT;
  }
  if (!r.short_ && parameters != db_hash_parameters) {
    *why = "hash parameter set " + std::to_string(parameters) + " is not known (1 is)";
    return EXIT_DB_FORMAT;
  }
  if (!r.short_ && authentication != db_auth_digest && authentication != db_auth_hmac) {
    *why = "authentication " + std::to_string(authentication) + " is not known (0 or 1)";
    return EXIT_DB_FORMAT;
  }
  database db;
  db.authentication = authentication;
  db.created = r.get(8);
  db.host = std::string(r.string());
  uint32_t images = static_cast<uint32_t>(r.get(4));
  // Each image takes at least 2 + 6 + 2 bytes: a count beyond the bytes is refused
  // before anything is made for it.
  if (!r.short_ && images > (bytes.size() - r.pos) / 10)
    r.short_ = true;
  for (uint32_t i = 0; i < images && !r.short_; i++) {
    db_image image;
    image.name = std::string(r.string());
    if (r.short_)
      break;
    fsic_status status = get_volume_id(&r, &image.volume);
    if (status == FSIC_ERR_NO_MEMORY)
      return EXIT_NO_MEMORY;
    if (status != FSIC_OK) {
      *why = "image " + std::to_string(i + 1) + " has no volume identifier record";
      return EXIT_DB_FORMAT;
    }
    image.path = std::string(r.string());
    db.images.push_back(std::move(image));
  }
  size_t length = static_cast<size_t>(r.get(4));
  const char *blob = nullptr;
  r.take(length, &blob);
  if (r.short_ || bytes.size() - r.pos != trailer) {
    *why = r.short_ ? "the file ends before its own lengths say"
                    : "the integrity list's length does not match the file's";
    return EXIT_DB_FORMAT;
  }
  std::string_view signed_part = bytes.substr(0, r.pos);
  const uint8_t *stored = reinterpret_cast<const uint8_t *>(bytes.data() + r.pos);
  digest32 tag;
  if (authentication == db_auth_hmac) {
    if (key.empty()) {
      *why = "the database is keyed: give its key with --key";
      return EXIT_AUTH;
    }
    if (!gost_hmac(key, signed_part, &tag))
      return EXIT_NO_MEMORY;
    if (!same_digest(tag.data(), stored)) {
      *why = "the HMAC does not match: the database was changed, or the key is not its key";
      return EXIT_AUTH;
    }
  } else {
    if (!key.empty()) {
      *why = "the database is not keyed, but a key was given (--no-key reads it)";
      return EXIT_AUTH;
    }
    if (!gost_digest(signed_part, &tag))
      return EXIT_NO_MEMORY;
    if (!same_digest(tag.data(), stored)) {
      *why = "the digest does not match: the database is damaged";
      return EXIT_AUTH;
    }
  }
  fs_icl *list = nullptr;
  fsic_status status = fs_icl_read_from_mem(reinterpret_cast<const uint8_t *>(blob),
                                            static_cast<uint32_t>(length), &list);
  if (status == FSIC_ERR_NO_MEMORY)
    return EXIT_NO_MEMORY;
  if (status != FSIC_OK) {
    *why = "the integrity list in it cannot be read";
    return EXIT_DB_FORMAT;
  }
  db.list.reset(list);
  *out = std::move(db);
  return EXIT_OK;
}

} // namespace fsic::cli
