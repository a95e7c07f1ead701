// The driver's textual dump of integrity control lists, and its integrity-list
// scenario.
#ifndef FSIC_DRIVER_ICL_REPORT_H
#define FSIC_DRIVER_ICL_REPORT_H

#include <fsic/icl.h>

void print_indent(int level);
void print_icl_hash(const uint8_t *hash);
void print_icl_object_flags(uint32_t flags);
void print_icl_dir_masks(char *const *masks);
void print_icl_file_attrs(const fs_ocl_file_attrs *attrs);
void print_icl_dir_attrs(const fs_ocl_dir_attrs *attrs);
void print_volume_id(const fs_volume_id *id);
void print_icl_dir_info(int level, const fs_ocl_dir_info *info, uint32_t flags);
void print_icl_file_object(const fs_ocl_file_object *obj);
void print_icl_dir_object(const fs_ocl_dir_object *obj);
void print_icl_object(const fs_ocl_object *obj);
void print_icl_volume(fs_icl_volume *entry);
void print_icl(fs_icl *list);

// Writes the list to memory and reads it back, then `cycles` more write/read rounds on
// the copy. 0 and the last copy in *out, or the failing status (reported).
fsic_status save_and_restore_icl(fs_icl *list, fs_icl **out, int cycles);

// Builds an integrity list over partition 1 of the first disk, prints it, saves and
// restores it 100 times and prints the copy.
void test_icl(fs_disk_list *list);

#endif // FSIC_DRIVER_ICL_REPORT_H
