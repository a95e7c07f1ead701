/* Object control list: a red-black tree of file and directory objects ordered by
 * path (strcmp), with the reference data computed when an object is added. */
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fsic/ocl.h>
#include <fsic/util.h>

#include "fs/ocl_internal.h"
#include "util/str_buf.h"

static fs_ocl_object *object_of(rb_node *node) noexcept {
  return rb_entry(node, fs_ocl_object, node);
}

/* Frees a linked (complete) object. The flags say which members exist, so the
 * members of an object must always agree with its flags. */
static void destroy_object(fs_ocl_object *obj) noexcept {
  if (obj->type == FS_OCL_FILE) {
    fs_ocl_file_object *file = reinterpret_cast<fs_ocl_file_object *>(obj);
    if (obj->flags & CONTROL_DATA)
      free(file->hash);
    if (obj->flags & CONTROL_ATTRS)
      free(file->attrs);
  } else {
    fs_ocl_dir_object *dir = reinterpret_cast<fs_ocl_dir_object *>(obj);
    if (obj->flags & EACH_FILE) {
      _fs_ocl_destroy_dir_info(dir->info);
      if (obj->flags & CONTROL_ATTRS)
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

/* Starts an object of the given size: zero-filled, with its own copy of the path. */
static fsic_status start_object(size_t size, const char *path, uint32_t type,
                                uint32_t flags, fs_ocl_object **out) noexcept {
  fs_ocl_object *obj = static_cast<fs_ocl_object *>(ic_util_zalloc(size));
  if (!obj)
    return FSIC_ERR_NO_MEMORY;
  obj->path = strdup(path);
  if (!obj->path) {
    free(obj);
    return FSIC_ERR_NO_MEMORY;
  }
  obj->type = type;
  obj->flags = flags;
  *out = obj;
  return FSIC_OK;
}

/* The name the object has on the running system: `base` followed directly by `path`
 * (which brings its own "/"), or `path` alone. */
static fsic_status full_name(fs_str_buf *buf, const char *base, const char *path) noexcept {
  if (base)
    return _fs_str_buf_init(buf, base, path, (const char *)NULL);
  return _fs_str_buf_init(buf, path, (const char *)NULL);
}

/* Builds the reference data of a file object whose full name is in `name`. */
static fsic_status fill_file(fs_ocl_file_object *obj, const char *name) noexcept {
  struct stat st;
  if (stat(name, &st) != 0 || !S_ISREG(st.st_mode))
    return FSIC_ERR_UNAVAILABLE;

  uint32_t flags = obj->head.flags;
  if (flags & CONTROL_DATA) {
    fsic_status status = _fs_ocl_create_file_hash(name, &obj->hash);
    if (status != FSIC_OK)
      return status;
  }
  if (flags & CONTROL_ATTRS) {
    /* Taken from the stat above that established the file is regular. */
    obj->attrs = static_cast<fs_ocl_file_attrs *>(malloc(sizeof(fs_ocl_file_attrs)));
    if (!obj->attrs) {
      free(obj->hash);
      obj->hash = NULL;
      return FSIC_ERR_NO_MEMORY;
    }
    _fs_ocl_stat_to_file_attrs(&st, obj->attrs);
  }
  return FSIC_OK;
}

/* Builds the reference data of a directory object; `name` holds its full name and is
 * the working buffer that the scanners extend and cut back. */
static fsic_status fill_dir(fs_ocl_dir_object *obj, fs_str_buf *name) noexcept {
  struct stat st;
  if (stat(name->data, &st) != 0 || !S_ISDIR(st.st_mode))
    return FSIC_ERR_UNAVAILABLE;

  uint32_t flags = obj->head.flags;
  fsic_status status;
  if (flags & EACH_FILE) {
    status = _fs_ocl_create_dir_info(name, obj->masks, flags, 1, &obj->info);
    if (status != FSIC_OK)
      return status;
    if (flags & CONTROL_ATTRS) {
      status = _fs_ocl_create_dir_attrs(name->data, &obj->attrs);
      if (status != FSIC_OK) {
        _fs_ocl_destroy_dir_info(obj->info);
        obj->info = NULL;
        return status;
      }
    }
    return FSIC_OK;
  }

  uint8_t *hash = static_cast<uint8_t *>(malloc(FS_OCL_HASH_SIZE));
  if (!hash)
    return FSIC_ERR_NO_MEMORY;
  status = _fs_ocl_create_dir_hash(name, obj->masks, flags, hash);
  if (status != FSIC_OK) {
    free(hash);
    return status;
  }
  obj->hash = hash;
  return FSIC_OK;
}

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
    destroy_object(object_of(node));
    node = next;
  }
  free(ocl);
}

void _fs_ocl_add_object(fs_ocl *ocl, fs_ocl_object *obj) noexcept {
  rb_node **link = &ocl->root.node;
  rb_node *parent = NULL;
  while (*link) {
    parent = *link;
    fs_ocl_object *cur = object_of(parent);
    int cmp = strcmp(obj->path, cur->path);
    if (cmp < 0) {
      link = &parent->left;
    } else if (cmp > 0) {
      link = &parent->right;
    } else {
      /* The newer object takes the older one's place; the count stays. */
      rb_replace_node(parent, &obj->node, &ocl->root);
      destroy_object(cur);
      return;
    }
  }
  rb_link_node(&obj->node, parent, link);
  rb_insert_color(&obj->node, &ocl->root);
  ocl->count++;
}

fsic_status fs_ocl_add_file(fs_ocl *ocl, const char *base, const char *path,
                            uint32_t flags, fs_ocl_object **out) noexcept {
  if (!path || path[0] != '/')
    return FSIC_ERR_RELATIVE_PATH;

  fs_ocl_object *head;
  fsic_status status = start_object(sizeof(fs_ocl_file_object), path, FS_OCL_FILE, flags, &head);
  if (status != FSIC_OK)
    return status;
  fs_ocl_file_object *obj = reinterpret_cast<fs_ocl_file_object *>(head);

  fs_str_buf name;
  status = full_name(&name, base, path);
  if (status == FSIC_OK) {
    status = fill_file(obj, name.data);
    _fs_str_buf_free(&name);
  }
  if (status != FSIC_OK) {
    /* fill_file leaves nothing allocated behind when it fails. */
    free(head->path);
    free(head);
    return status;
  }

  _fs_ocl_add_object(ocl, head);
  if (out)
    *out = head;
  return FSIC_OK;
}

fsic_status fs_ocl_add_dir(fs_ocl *ocl, const char *base, const char *path,
                           char *const *masks, uint32_t flags, fs_ocl_object **out) noexcept {
  if (!path || path[0] != '/')
    return FSIC_ERR_RELATIVE_PATH;

  fs_ocl_object *head;
  fsic_status status = start_object(sizeof(fs_ocl_dir_object), path, FS_OCL_DIR, flags, &head);
  if (status != FSIC_OK)
    return status;
  fs_ocl_dir_object *obj = reinterpret_cast<fs_ocl_dir_object *>(head);

  if (masks) {
    obj->masks = ic_str_zarray_copy(masks);
    if (!obj->masks)
      status = FSIC_ERR_NO_MEMORY;
  }
  if (status == FSIC_OK) {
    fs_str_buf name;
    status = full_name(&name, base, path);
    if (status == FSIC_OK) {
      status = fill_dir(obj, &name);
      _fs_str_buf_free(&name);
    }
  }
  if (status != FSIC_OK) {
    /* fill_dir leaves nothing allocated behind when it fails. */
    if (obj->masks)
      ic_str_zarray_destroy(obj->masks);
    free(head->path);
    free(head);
    return status;
  }

  _fs_ocl_add_object(ocl, head);
  if (out)
    *out = head;
  return FSIC_OK;
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
  return NULL;
}

fsic_status fs_ocl_remove_object(fs_ocl *ocl, const char *path) noexcept {
  fs_ocl_object *obj = fs_ocl_find_object(ocl, path);
  if (!obj)
    return FSIC_ERR_NOT_FOUND;
  ocl->count--;
  rb_erase(&obj->node, &ocl->root);
  destroy_object(obj);
  return FSIC_OK;
}

fs_ocl_object *fs_ocl_first_object(fs_ocl *ocl) noexcept {
  rb_node *node = rb_first(&ocl->root);
  return node ? object_of(node) : NULL;
}

fs_ocl_object *fs_ocl_next_object(fs_ocl_object *obj) noexcept {
  rb_node *node = rb_next(&obj->node);
  return node ? object_of(node) : NULL;
}

} /* extern "C" */
