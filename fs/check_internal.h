// Verification internals shared by the list compare and the live check: the state of
// one comparison, which keeps the entry path in one buffer across all objects.
#ifndef FSIC_FS_CHECK_INTERNAL_H
#define FSIC_FS_CHECK_INTERNAL_H

#include <fsic/check.h>

#include "fs/ocl_internal.h"
#include "util/str_buf.h"

namespace fsic::detail {

struct comparer {
  const fs_volume_id *volume; // put in every record
  fs_change_fn fn;
  void *ctx;
  fs_check_summary sum;
  const char *object_path; // of the object being compared; null for a volume's record
  fs_str_buf path;         // the entry path; zero-filled until the first object
  // A check's entries of the new side that could not be measured (sorted), or null:
  // each is reported as unreadable, and given the old side's matching entry.
  fs_ocl_unreadable_set *unreadable;
};

// Compares an object of the old list with the new list's object of the same path;
// either may be null (the object was added or removed). 0, or 3.
fsic_status compare_object(comparer &c, const fs_ocl_object *a, const fs_ocl_object *b) noexcept;

// One record of kind `kind` for the old list's object, whose live side is `now` (the
// status of its reading with FS_CHANGE_UNREADABLE).
fsic_status report_object(comparer &c, const fs_ocl_object *obj, uint32_t kind,
                          const fs_entry_values &now, fsic_status why) noexcept;

// One record of kind `kind` for the volume as a whole (no object or entry path).
void report_volume(comparer &c, uint32_t kind, fsic_status why) noexcept;

void comparer_free(comparer &c) noexcept;

// Whether two objects have the same type, flags and masks.
bool same_settings(const fs_ocl_object *a, const fs_ocl_object *b) noexcept;

} // namespace fsic::detail

#endif // FSIC_FS_CHECK_INTERNAL_H
