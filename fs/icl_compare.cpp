// Comparing two integrity control lists: entries matched by volume identifier, each
// pair of object lists compared; an entry on one side only is compared with an empty
// list, so that each of its objects is one added or removed record.
#include <fsic/check.h>
#include <fsic/icl.h>

#include "fs/icl_internal.h"

namespace {

void add_up(fs_check_summary *total, const fs_check_summary &part) noexcept {
  total->objects += part.objects;
  total->entries += part.entries;
  total->added += part.added;
  total->removed += part.removed;
  total->changed += part.changed;
  total->errors += part.errors;
}

} // namespace

extern "C" fsic_status fs_icl_compare(const fs_icl *old_list, const fs_icl *new_list,
                                      fs_change_fn fn, void *ctx,
                                      fs_check_summary *summary) noexcept {
  fs_check_summary total = {}, part;
  const fs_ocl empty = {};
  fsic_status status = FSIC_OK;
  auto *a = const_cast<fs_icl *>(old_list);
  auto *b = const_cast<fs_icl *>(new_list);
  for (fs_icl_volume *e = fs_icl_first_volume(a); e && status == FSIC_OK;
       e = fs_icl_next_volume(a, e)) {
    // The first entry of an identifier counts; a later one with the same is not a
    // volume of its own.
    if (_fs_icl_find_volume(a, e->id) != e)
      continue;
    const fs_icl_volume *other = _fs_icl_find_volume(b, e->id);
    status = fs_ocl_compare(e->ocl, other ? other->ocl : &empty, e->id, fn, ctx, &part);
    add_up(&total, part);
  }
  for (fs_icl_volume *e = fs_icl_first_volume(b); e && status == FSIC_OK;
       e = fs_icl_next_volume(b, e)) {
    if (_fs_icl_find_volume(b, e->id) != e || _fs_icl_find_volume(a, e->id))
      continue;
    status = fs_ocl_compare(&empty, e->ocl, e->id, fn, ctx, &part);
    add_up(&total, part);
  }
  if (summary)
    *summary = total;
  return status;
}
