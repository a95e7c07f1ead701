// Entries of integrity control lists, shared by the container and its blob reader.
#ifndef FSIC_FS_ICL_INTERNAL_H
#define FSIC_FS_ICL_INTERNAL_H

#include <fsic/icl.h>

FSIC_BEGIN_DECLS

// Makes an entry at the front of the list that takes ownership of `id` and of `ocl`
// (a new empty list when `ocl` is nullptr). 0, or 3 with neither consumed.
fsic_status _fs_icl_create_volume(fs_icl *list, fs_volume_id *id, fs_ocl *ocl,
                                  fs_icl_volume **out) FSIC_NOEXCEPT;

// The first entry of the list whose identifier equals `id`, or null.
fs_icl_volume *_fs_icl_find_volume(const fs_icl *list, const fs_volume_id *id) FSIC_NOEXCEPT;

// Destroys an entry with its list and identifier and unlinks it.
void _fs_icl_destroy_volume(fs_icl *list, fs_icl_volume *entry) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif // FSIC_FS_ICL_INTERNAL_H
