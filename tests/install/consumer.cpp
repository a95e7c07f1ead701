// The C++ view of the installed SDK: the same headers compiled as C++20, every entry
// point noexcept, linked through the CMake package (find_package(fsic)).
#include <fsic/disk_list.h>
#include <fsic/fsic.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

static_assert(noexcept(gost_r3411_94_create_context()), "entry points are noexcept");
static_assert(noexcept(ic_util_zalloc(1)), "entry points are noexcept");

int main() {
  std::array<uint8_t, GOST_R3411_94_DIGEST_SIZE> digest{};
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  if (!ctx)
    return 1;
  gost_r3411_94_init(ctx, 0);
  gost_r3411_94_update(ctx, "", 0);
  gost_r3411_94_final(ctx, digest.data());
  gost_r3411_94_free_context(ctx);
  // Empty message, test parameter set.
  constexpr std::string_view expected =
      "ce85b99cc46752fffee35cab9a7b0278abb4c2d2055cff685af4912c49490f8d";
  char hex[2 * GOST_R3411_94_DIGEST_SIZE + 1];
  for (size_t i = 0; i < digest.size(); i++)
    std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  if (expected != hex) {
    std::fprintf(stderr, "hash: %s\n", hex);
    return 1;
  }

  // Pulls in the inventory, and with it udev and libblockdev, for the static link.
  fs_disk_list_destroy(nullptr);

  list_head head;
  INIT_LIST_HEAD(&head);
  if (!list_empty(&head))
    return 1;
  std::puts("consumer++: ok");
  return 0;
}
