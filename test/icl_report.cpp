// The integrity-list printer: the driver's own dump format, kept byte for byte.
#include "icl_report.h"

#include <cstdio>

void print_indent(int level) {
  for (int i = 0; i < level; i++)
    printf("  ");
}

void print_icl_hash(const uint8_t *hash) {
  putchar('[');
  for (int i = 0; i < FS_OCL_HASH_SIZE; i++)
    printf("%02x", hash[i]);
  putchar(']');
}

void print_icl_object_flags(uint32_t flags) {
  putchar('[');
  if (flags & EACH_FILE)
    printf(" EACH_FILE");
  if (flags & RECURSIVE)
    printf(" RECURSIVE");
  if (flags & CONTROL_DATA)
    printf(" CONTROL_DATA");
  if (flags & CONTROL_ATTRS)
    printf(" CONTROL_ATTRS");
  printf(" ]");
}

void print_icl_dir_masks(char *const *masks) {
  putchar('[');
  for (char *const *m = masks; m && *m; m++)
    printf(" '%s'", *m);
  printf(" ]");
}

// The group id is labelled "git": the program's own spelling, kept.
void print_icl_file_attrs(const fs_ocl_file_attrs *attrs) {
  printf("[mode: %04o, uid: %d, git: %d, size: %d, mtime: %d]", attrs->mode, attrs->uid, attrs->gid,
         static_cast<int>(attrs->size), static_cast<int>(attrs->mtime));
}

void print_icl_dir_attrs(const fs_ocl_dir_attrs *attrs) {
  printf("[mode: %04o, uid: %d, git: %d]", attrs->mode, attrs->uid, attrs->gid);
}

void print_volume_id(const fs_volume_id *id) {
  switch (fs_volume_id_type(id)) {
    case FS_VOLUME_PARTITION:
    case FS_VOLUME_IMAGE_PARTITION: {
      auto *p = reinterpret_cast<const fs_partition_id *>(id);
      printf("%s partition %d\n", p->disk_serial, static_cast<int>(p->number));
      break;
    }
    case FS_VOLUME_LVM: {
      auto *l = reinterpret_cast<const fs_lvm_volume_id *>(id);
      printf("%s/%s\n", l->group_name, l->volume_name);
      break;
    }
    default:
      break;
  }
}

// Subdirectories first, each followed by its own info one level deeper; then files.
void print_icl_dir_info(int level, const fs_ocl_dir_info *info, uint32_t flags) {
  for (int32_t i = 0; i < info->subdir_count; i++) {
    print_indent(level);
    printf("+%s", info->subdir_names[i]);
    if (info->subdir_attrs) {
      putchar(' ');
      print_icl_dir_attrs(&info->subdir_attrs[i]);
    }
    putchar('\n');
    print_icl_dir_info(level + 1, info->subdir_infos[i], flags);
  }
  for (int32_t i = 0; i < info->file_count; i++) {
    print_indent(level);
    printf(" %s", info->file_names[i]);
    if (info->file_hashes) {
      putchar(' ');
      print_icl_hash(info->file_hashes[i]);
    }
    if (info->file_attrs) {
      putchar(' ');
      print_icl_file_attrs(&info->file_attrs[i]);
    }
    putchar('\n');
  }
}

void print_icl_file_object(const fs_ocl_file_object *obj) {
  uint32_t flags = obj->head.flags;
  printf("  F %s ", obj->head.path);
  print_icl_object_flags(flags);
  putchar('\n');
  if (!(flags & (CONTROL_DATA | CONTROL_ATTRS)))
    return;
  printf("    ");
  if (flags & CONTROL_DATA) {
    print_icl_hash(obj->hash);
    putchar(' ');
  }
  if (flags & CONTROL_ATTRS) {
    print_icl_file_attrs(obj->attrs);
    putchar(' ');
  }
  putchar('\n');
}

void print_icl_dir_object(const fs_ocl_dir_object *obj) {
  uint32_t flags = obj->head.flags;
  printf("  D %s ", obj->head.path);
  print_icl_object_flags(flags);
  putchar(' ');
  print_icl_dir_masks(obj->masks);
  putchar('\n');
  if (flags & EACH_FILE) {
    if (flags & CONTROL_ATTRS) {
      printf("    <root> ");
      print_icl_dir_attrs(obj->attrs);
      putchar('\n');
    }
    print_icl_dir_info(3, obj->info, flags);
  } else {
    printf("    ");
    print_icl_hash(obj->hash);
    putchar('\n');
  }
}

void print_icl_object(const fs_ocl_object *obj) {
  if (obj->type != FS_OCL_FILE)
    print_icl_dir_object(reinterpret_cast<const fs_ocl_dir_object *>(obj));
  else
    print_icl_file_object(reinterpret_cast<const fs_ocl_file_object *>(obj));
}

void print_icl_volume(fs_icl_volume *entry) {
  print_volume_id(entry->id);
  for (fs_ocl_object *o = fs_icl_volume_first_object(entry); o; o = fs_icl_volume_next_object(o))
    print_icl_object(o);
}

void print_icl(fs_icl *list) {
  for (fs_icl_volume *e = fs_icl_first_volume(list); e; e = fs_icl_next_volume(list, e))
    print_icl_volume(e);
}
