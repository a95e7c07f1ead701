// Object control list: a red-black tree of file and directory objects ordered by
// path (strcmp), with the reference data computed when an object is added.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fsic/ocl.h>
#include <fsic/util.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"
#include "util/str_buf.h"

namespace {
fs_ocl_object *object_of(rb_node *node) noexcept { return rb_entry(node, fs_ocl_object, node); }
} // namespace

// Frees an object; the flags say which members it may have, and members not made yet
// are null, so a partly built object is freed as well.
extern "C" void _fs_ocl_destroy_object(fs_ocl_object *obj) noexcept {
  if (obj->type == FS_OCL_FILE) {
    auto *file = reinterpret_cast<fs_ocl_file_object *>(obj);
    free(file->hash);
    free(file->attrs);
  } else {
    auto *dir = reinterpret_cast<fs_ocl_dir_object *>(obj);
    if (obj->flags & EACH_FILE) {
      _fs_ocl_destroy_dir_info(dir->info);
      _fs_ocl_destroy_dir_attrs(dir->attrs);
    } else {
      free(dir->hash);
    }
    if (dir->masks)
      ic_str_zarray_destroy(dir->masks);
  }
  free(obj->path);
  free(obj);
}

namespace {

using namespace fsic::detail;

using object_owner = owner<fs_ocl_object, _fs_ocl_destroy_object>;

// Starts an object of the given size: zero-filled, with its own copy of the path, which
// must be absolute and free of "." and ".." components.
fsic_status start_object(size_t size, const char *path, uint32_t type, uint32_t flags,
                         object_owner *out) noexcept {
  if (!path || !_fs_ocl_path_is_valid(path, strlen(path)))
    return FSIC_ERR_RELATIVE_PATH;
  object_owner obj(static_cast<fs_ocl_object *>(ic_util_zalloc(size)));
  if (!obj)
    return FSIC_ERR_NO_MEMORY;
  obj->type = type;
  obj->flags = flags;
  fsic_status status = dup_into(&obj->path, path);
  if (status != FSIC_OK)
    return status;
  *out = std::move(obj);
  return FSIC_OK;
}

// Builds the reference data of a file object, resolved through `w`; what it makes
// belongs to the object. The file is opened for reading only under CONTROL_DATA, and
// then without blocking: anything but a regular file is not read.
fsic_status fill_file(fs_ocl_file_object *obj, fs_ocl_walk *w) noexcept {
  const uint32_t flags = obj->head.flags;
  const int open_flags = (flags & CONTROL_DATA) ? O_RDONLY | O_NONBLOCK | O_NOCTTY : O_PATH;
  int fd;
  struct stat st;
  FSIC_TRY(_fs_ocl_open_object(w, open_flags, S_IFREG, &fd, &st));
  fd_owner file(fd);

  if (flags & CONTROL_DATA) {
    obj->hash = static_cast<uint8_t *>(malloc(FS_OCL_HASH_SIZE));
    if (!obj->hash)
      return FSIC_ERR_NO_MEMORY;
    // The stat is replaced by the one that describes the bytes hashed.
    FSIC_TRY(_fs_ocl_fd_hash(fd, obj->hash, &st));
  }
  if (flags & CONTROL_ATTRS) {
    obj->attrs = static_cast<fs_ocl_file_attrs *>(malloc(sizeof(fs_ocl_file_attrs)));
    if (!obj->attrs)
      return FSIC_ERR_NO_MEMORY;
    _fs_ocl_stat_to_file_attrs(&st, obj->attrs);
  }
  _fs_ocl_walk_file_done(w, nullptr,
                         (flags & CONTROL_DATA) ? static_cast<uint64_t>(st.st_size) : 0);
  return FSIC_OK;
}

// Builds the reference data of a directory object, resolved through `w`, whose name is
// the working buffer that the scanners extend and cut back. What it makes belongs to
// the object.
fsic_status fill_dir(fs_ocl_dir_object *obj, fs_ocl_walk *w) noexcept {
  int fd;
  struct stat st;
  FSIC_TRY(_fs_ocl_open_object(w, O_RDONLY | O_DIRECTORY, S_IFDIR, &fd, &st));
  fd_owner dir(fd);

  const uint32_t flags = obj->head.flags;
  if (flags & EACH_FILE) {
    FSIC_TRY(_fs_ocl_create_dir_info(w, fd, obj->masks, flags, 1, &obj->info));
    if (flags & CONTROL_ATTRS) {
      obj->attrs = static_cast<fs_ocl_dir_attrs *>(malloc(sizeof(fs_ocl_dir_attrs)));
      if (!obj->attrs)
        return FSIC_ERR_NO_MEMORY;
      _fs_ocl_stat_to_dir_attrs(&st, obj->attrs);
    }
    return FSIC_OK;
  }
  obj->hash = static_cast<uint8_t *>(malloc(FS_OCL_HASH_SIZE));
  if (!obj->hash)
    return FSIC_ERR_NO_MEMORY;
  return _fs_ocl_create_dir_hash(w, fd, obj->masks, flags, obj->hash);
}

// Fills a started object through `fill` with a walk from `base` that measures as `m`
// says (null: as an add does), and links it.
template <typename Fill>
fsic_status finish_object(fs_ocl *ocl, object_owner obj, const char *base, const fs_ocl_measure *m,
                          Fill fill, fs_ocl_object **out) noexcept {
  fs_ocl_walk w;
  FSIC_TRY(_fs_ocl_walk_init(&w, base, obj->path));
  if (m) {
    w.unreadable = m->unreadable;
    w.progress = m->progress;
  }
  fsic_status status = fill(&w);
  _fs_ocl_walk_free(&w);
  if (status != FSIC_OK)
    return status;
  fs_ocl_object *added = obj.release();
  _fs_ocl_add_object(ocl, added);
  if (out)
    *out = added;
  return FSIC_OK;
}

} // namespace

extern "C" {

fsic_status fs_ocl_create(fs_ocl **out) noexcept {
  fs_ocl *ocl = static_cast<fs_ocl *>(ic_util_zalloc(sizeof(fs_ocl)));
  if (!ocl)
    return FSIC_ERR_NO_MEMORY;
  *out = ocl;
  return FSIC_OK;
}

void fs_ocl_destroy(fs_ocl *ocl) noexcept {
  if (!ocl)
    return;
  rb_node *node = rb_first(&ocl->root);
  while (node) {
    rb_node *next = rb_next(node);
    rb_erase(node, &ocl->root);
    _fs_ocl_destroy_object(object_of(node));
    node = next;
  }
  free(ocl);
}

void _fs_ocl_add_object(fs_ocl *ocl, fs_ocl_object *obj) noexcept {
  rb_node **link = &ocl->root.node;
  rb_node *parent = nullptr;
  while (*link) {
    parent = *link;
    fs_ocl_object *cur = object_of(parent);
    int cmp = strcmp(obj->path, cur->path);
    if (cmp < 0) {
      link = &parent->left;
    } else if (cmp > 0) {
      link = &parent->right;
    } else {
      // The newer object takes the older one's place; the count stays.
      rb_replace_node(parent, &obj->node, &ocl->root);
      _fs_ocl_destroy_object(cur);
      return;
    }
  }
  rb_link_node(&obj->node, parent, link);
  rb_insert_color(&obj->node, &ocl->root);
  ocl->count++;
}

fsic_status _fs_ocl_add_file_with(fs_ocl *ocl, const char *base, const char *path, uint32_t flags,
                                  const fs_ocl_measure *m, fs_ocl_object **out) noexcept {
  object_owner obj;
  FSIC_TRY(start_object(sizeof(fs_ocl_file_object), path, FS_OCL_FILE, flags, &obj));
  auto *file = reinterpret_cast<fs_ocl_file_object *>(obj.get());
  return finish_object(
      ocl, std::move(obj), base, m, [&](fs_ocl_walk *w) noexcept { return fill_file(file, w); },
      out);
}

fsic_status _fs_ocl_add_dir_with(fs_ocl *ocl, const char *base, const char *path,
                                 char *const *masks, uint32_t flags, const fs_ocl_measure *m,
                                 fs_ocl_object **out) noexcept {
  object_owner obj;
  FSIC_TRY(start_object(sizeof(fs_ocl_dir_object), path, FS_OCL_DIR, flags, &obj));
  auto *dir = reinterpret_cast<fs_ocl_dir_object *>(obj.get());
  if (masks && !(dir->masks = ic_str_zarray_copy(masks)))
    return FSIC_ERR_NO_MEMORY;
  return finish_object(
      ocl, std::move(obj), base, m, [&](fs_ocl_walk *w) noexcept { return fill_dir(dir, w); }, out);
}

fsic_status fs_ocl_add_file(fs_ocl *ocl, const char *base, const char *path, uint32_t flags,
                            fs_ocl_object **out) noexcept {
  return _fs_ocl_add_file_with(ocl, base, path, flags, nullptr, out);
}

fsic_status fs_ocl_add_dir(fs_ocl *ocl, const char *base, const char *path, char *const *masks,
                           uint32_t flags, fs_ocl_object **out) noexcept {
  return _fs_ocl_add_dir_with(ocl, base, path, masks, flags, nullptr, out);
}

fs_ocl_object *fs_ocl_find_object(fs_ocl *ocl, const char *path) noexcept {
  rb_node *node = ocl->root.node;
  while (node) {
    fs_ocl_object *obj = object_of(node);
    int cmp = strcmp(path, obj->path);
    if (cmp < 0)
      node = node->left;
    else if (cmp > 0)
      node = node->right;
    else
      return obj;
  }
  return nullptr;
}

fsic_status fs_ocl_remove_object(fs_ocl *ocl, const char *path) noexcept {
  fs_ocl_object *obj = fs_ocl_find_object(ocl, path);
  if (!obj)
    return FSIC_ERR_NOT_FOUND;
  ocl->count--;
  rb_erase(&obj->node, &ocl->root);
  _fs_ocl_destroy_object(obj);
  return FSIC_OK;
}

fs_ocl_object *fs_ocl_first_object(fs_ocl *ocl) noexcept {
  rb_node *node = rb_first(&ocl->root);
  return node ? object_of(node) : nullptr;
}

fs_ocl_object *fs_ocl_next_object(fs_ocl_object *obj) noexcept {
  rb_node *node = rb_next(&obj->node);
  return node ? object_of(node) : nullptr;
}

} // extern "C"
