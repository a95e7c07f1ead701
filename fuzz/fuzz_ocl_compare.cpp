// Fuzz target: comparing object control lists (fs_ocl_compare). The input is two list
// blobs one after the other; the first is read from the front (its end is where the
// reader stops) and the second from what follows.
//
// Properties, for every two lists a and b read from the input:
//  1. A list compared with itself, and with its own blob read back, reports nothing.
//  2. compare(a, b) and compare(b, a) report the same entries in the same order, each
//     with the mirrored kind (added and removed swapped, the other kinds kept) and the
//     old and new values swapped.
//  3. Every record's entry path begins with its object's path; the object paths of the
//     records never go back in strcmp order; the summary's added, removed and changed
//     counts add up to the records.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <fsic/buffer.h>
#include <fsic/check.h>
#include <fsic/ocl.h>

#include "fs/ocl_internal.h"
#include "fuzz_check.h"

namespace {

struct record {
  uint32_t kind, fields;
  std::string object, entry;
  fs_entry_values old_values, new_values;
  std::string old_hash, new_hash;
};

std::string hash_text(const uint8_t *h) {
  return h ? std::string(reinterpret_cast<const char *>(h), FS_OCL_HASH_SIZE) : "-";
}

void take(const fs_change *c, void *ctx) {
  FUZZ_CHECK(c->object_path && c->entry_path);
  auto *out = static_cast<std::vector<record> *>(ctx);
  out->push_back({c->kind, c->fields, c->object_path, c->entry_path, c->old_values, c->new_values,
                  hash_text(c->old_values.hash), hash_text(c->new_values.hash)});
}

std::vector<record> compare(const fs_ocl *a, const fs_ocl *b, fs_check_summary *sum) {
  std::vector<record> r;
  FUZZ_CHECK(fs_ocl_compare(a, b, nullptr, take, &r, sum) == FSIC_OK);
  return r;
}

uint32_t mirrored(uint32_t kind) {
  return kind == FS_CHANGE_ADDED     ? FS_CHANGE_REMOVED
         : kind == FS_CHANGE_REMOVED ? FS_CHANGE_ADDED
                                     : kind;
}

bool same_values(const fs_entry_values &x, const fs_entry_values &y) {
  return x.present == y.present && x.type == y.type && x.has_attrs == y.has_attrs &&
         x.mode == y.mode && x.uid == y.uid && x.gid == y.gid && x.size == y.size &&
         x.mtime == y.mtime;
}

void check_order(const std::vector<record> &r, const fs_check_summary &sum) {
  for (size_t i = 0; i < r.size(); i++) {
    FUZZ_CHECK(r[i].entry.compare(0, r[i].object.size(), r[i].object) == 0);
    FUZZ_CHECK(i == 0 || strcmp(r[i - 1].object.c_str(), r[i].object.c_str()) <= 0);
  }
  FUZZ_CHECK(sum.added + sum.removed + sum.changed == r.size());
}

void check_pair(const fs_ocl *a, const fs_ocl *b) {
  fs_check_summary ab_sum{}, ba_sum{};
  const std::vector<record> ab = compare(a, b, &ab_sum), ba = compare(b, a, &ba_sum);
  check_order(ab, ab_sum);
  check_order(ba, ba_sum);
  FUZZ_CHECK(ab.size() == ba.size());
  for (size_t i = 0; i < ab.size(); i++) {
    FUZZ_CHECK(ab[i].entry == ba[i].entry && ab[i].object == ba[i].object);
    FUZZ_CHECK(ba[i].kind == mirrored(ab[i].kind) && ba[i].fields == ab[i].fields);
    FUZZ_CHECK(same_values(ab[i].old_values, ba[i].new_values));
    FUZZ_CHECK(same_values(ab[i].new_values, ba[i].old_values));
    FUZZ_CHECK(ab[i].old_hash == ba[i].new_hash && ab[i].new_hash == ba[i].old_hash);
  }
  FUZZ_CHECK(ab_sum.entries == ba_sum.entries && ab_sum.objects == ba_sum.objects);
}

void check_self(const fs_ocl *a) {
  fs_check_summary sum{};
  FUZZ_CHECK(compare(a, a, &sum).empty());
  uint8_t *blob = nullptr;
  uint32_t size = 0;
  FUZZ_CHECK(fs_ocl_write_to_mem(a, &blob, &size) == FSIC_OK);
  fs_ocl *again = nullptr;
  FUZZ_CHECK(fs_ocl_read_from_mem(blob, size, &again) == FSIC_OK);
  free(blob);
  FUZZ_CHECK(compare(a, again, &sum).empty());
  fs_ocl_destroy(again);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > UINT32_MAX)
    return 0;
  rb buf;
  rb_init(&buf, data, static_cast<uint32_t>(size));
  fs_ocl *a = nullptr, *b = nullptr;
  if (_fs_ocl_read_from_rbuf(&buf, &a) != FSIC_OK)
    return 0;
  if (_fs_ocl_read_from_rbuf(&buf, &b) != FSIC_OK) {
    fs_ocl_destroy(a);
    return 0;
  }
  check_self(a);
  check_self(b);
  check_pair(a, b);
  fs_ocl_destroy(a);
  fs_ocl_destroy(b);
  return 0;
}
