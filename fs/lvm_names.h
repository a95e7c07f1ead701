/* Device-mapper names of LVM logical volumes. */
#ifndef FSIC_FS_LVM_NAMES_H
#define FSIC_FS_LVM_NAMES_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

/* The length of `name` with every '-' counted twice. */
size_t quote_hyphens_len(const char *name) FSIC_NOEXCEPT;

/* Writes `name` at *cursor with every '-' doubled and advances the cursor; no NUL. */
void quote_hyphens(char **cursor, const char *name) FSIC_NOEXCEPT;

/* The device-mapper name of volume `lv` in group `vg`: both names with their hyphens
 * doubled, joined by one '-' (vg-data, lv_home: "vg--data-lv_home"). A new string of
 * exactly the needed size, or NULL when memory is exhausted. */
char *alloc_name(const char *vg, const char *lv) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_FS_LVM_NAMES_H */
