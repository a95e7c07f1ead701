// Device-mapper names: LVM joins group and volume names with '-' and doubles every
// '-' inside them, so that the join stays unambiguous.
#include <cstdlib>

#include "fs/lvm_internal.h"

namespace fsic::detail {

size_t quote_hyphens_len(const char *name) noexcept {
  size_t len = 0;
  for (const char *p = name; *p; p++)
    len += (*p == '-') ? 2 : 1;
  return len;
}

void quote_hyphens(char **cursor, const char *name) noexcept {
  char *out = *cursor;
  for (const char *p = name; *p; p++) {
    if (*p == '-')
      *out++ = '-';
    *out++ = *p;
  }
  *cursor = out;
}

char *alloc_name(const char *vg, const char *lv) noexcept {
  auto *name = static_cast<char *>(malloc(quote_hyphens_len(vg) + quote_hyphens_len(lv) + 2));
  if (!name)
    return nullptr;
  char *cursor = name;
  quote_hyphens(&cursor, vg);
  *cursor++ = '-';
  quote_hyphens(&cursor, lv);
  *cursor = '\0';
  return name;
}

} // namespace fsic::detail
