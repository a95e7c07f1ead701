// GOST R 34.11-94 digests and HMACs of whole byte strings.
#include "cli/digest.h"

#include <fsic/gost_r3411_94.h>

#include <memory>

namespace fsic::cli {

namespace {

constexpr unsigned cryptopro = 1;
constexpr size_t block = GOST_R3411_94_BLOCK_SIZE;

struct context_free {
  void operator()(gost_r3411_94_ctx *c) const noexcept { gost_r3411_94_free_context(c); }
};
using context_ptr = std::unique_ptr<gost_r3411_94_ctx, context_free>;

// Feeds data of any size (the hash takes at most UINT_MAX bytes a call).
void feed(gost_r3411_94_ctx *c, std::string_view data) {
  constexpr size_t chunk = 1u << 30;
  while (!data.empty()) {
    size_t n = data.size() < chunk ? data.size() : chunk;
    gost_r3411_94_update(c, data.data(), static_cast<unsigned>(n));
    data.remove_prefix(n);
  }
}

} // namespace

bool gost_digest(std::string_view data, digest32 *out) {
  context_ptr c(gost_r3411_94_create_context());
  if (!c)
    return false;
  gost_r3411_94_init(c.get(), cryptopro);
  feed(c.get(), data);
  gost_r3411_94_final(c.get(), out->data());
  return true;
}

bool gost_hmac(std::string_view key, std::string_view data, digest32 *out) {
  // A key longer than a block is replaced by its digest; a shorter one is padded with
  // zero bytes.
  uint8_t k[block] = {};
  if (key.size() > block) {
    digest32 d;
    if (!gost_digest(key, &d))
      return false;
    std::copy(d.begin(), d.end(), k);
  } else {
    std::copy(key.begin(), key.end(), k);
  }
  uint8_t pad[block];
  context_ptr c(gost_r3411_94_create_context());
  if (!c)
    return false;
  for (size_t i = 0; i < block; i++)
    pad[i] = static_cast<uint8_t>(k[i] ^ 0x36);
  gost_r3411_94_init(c.get(), cryptopro);
  gost_r3411_94_update(c.get(), pad, block);
  feed(c.get(), data);
  digest32 inner;
  gost_r3411_94_final(c.get(), inner.data());
  for (size_t i = 0; i < block; i++)
    pad[i] = static_cast<uint8_t>(k[i] ^ 0x5c);
  gost_r3411_94_init(c.get(), cryptopro);
  gost_r3411_94_update(c.get(), pad, block);
  gost_r3411_94_update(c.get(), inner.data(), static_cast<unsigned>(inner.size()));
  gost_r3411_94_final(c.get(), out->data());
  return true;
}

bool same_digest(const uint8_t *a, const uint8_t *b) {
  uint8_t diff = 0;
  for (size_t i = 0; i < 32; i++)
    diff = static_cast<uint8_t>(diff | (a[i] ^ b[i]));
  return diff == 0;
}

} // namespace fsic::cli
