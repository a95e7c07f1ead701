// The walk over /sys/class/block: every entry is a link into the device tree, which is
// resolved before the visitor sees it, so that a path tells a device's parents (a
// partition lies below its disk) and its kind ("/virtual/" for loop, dm and ram).
#include <fsic/util.h>

#include "fs/inventory_internal.h"
#include "util/dir_iter.h"

namespace fsic::detail {

namespace {
constexpr const char *kLogSource = "sys_block";
} // namespace

fsic_status walk_block_devices(block_visitor visit, void *ctx) noexcept {
  fs_dir_iter iter;
  if (_fs_dir_iterate_begin(&iter, kSysClassBlock) != 0) {
    FSIC_LOG_FAILED("opendir /sys/class/block");
    return FSIC_ERR_FAILED;
  }
  fsic_status status = FSIC_OK;
  char path[1024];
  for (;;) {
    char *entry;
    if (_fs_dir_iterate_next(&iter, path, sizeof path, &entry) != 0) {
      FSIC_LOG_FAILED("readdir /sys/class/block");
      status = FSIC_ERR_FAILED;
      break;
    }
    if (!entry)
      break;
    if (ic_util_resolve_link(path, sizeof path) != 0) {
      FSIC_LOG_FAILED("readlink in /sys/class/block");
      status = FSIC_ERR_FAILED;
      break;
    }
    bool stop = false;
    status = visit(ctx, path, &stop);
    if (status != FSIC_OK || stop)
      break;
  }
  _fs_dir_iterate_end(&iter);
  return status;
}

} // namespace fsic::detail
