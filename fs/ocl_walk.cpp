// Resolution of an object control list's paths: the object itself and the entries of
// the directories below it, each opened relative to its directory's descriptor and,
// for a link, resolved again from the base with the base as the root. What a volume
// holds thus never leads out of it, and nothing is looked up twice by name.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <fsic/log.h>

#include "fs/ocl_internal.h"
#include "util/log_internal.h"
#include "util/owner.h"
#include "util/resolve.h"

namespace {

using namespace fsic::detail;

// The link-loop record keeps the scanner's name, function and line.
constexpr const char *loop_log_source = "scan_dir";
constexpr const char *loop_log_function = "_fs_ocl_stat";
constexpr int loop_log_line = 197;

resolve_root root_of(const fs_ocl_walk *w) noexcept { return {w->root_fd, w->confined != 0}; }

// The path of w's full name under the base: after the base, or all of it without one.
const char *path_in_root(const fs_ocl_walk *w) noexcept { return w->name.data + w->base_len; }

// Logs the link loop met at the full name in `w`, with its control characters escaped.
void log_loop(const fs_ocl_walk *w) noexcept {
  if (!IC_LOG_ENABLED(&__ic_log_fs_ocl, IC_LOG_ERROR))
    return;
  char path[LOG_RECORD_SIZE];
  escape_controls(w->name.data, path, sizeof path);
  ic_log(&__ic_log_fs_ocl, IC_LOG_ERROR, loop_log_source, loop_log_function, loop_log_line,
         "loop path: '%s'\n", path);
}

// The status of an entry that could not be resolved (rc is -errno).
fsic_status entry_status(const fs_ocl_walk *w, int rc) noexcept {
  switch (-rc) {
    case ELOOP:
      log_loop(w);
      return FSIC_ERR_LINK_LOOP;
    case ENAMETOOLONG:
      return FSIC_ERR_NAME_TOO_LONG;
    case EXDEV:
      return FSIC_ERR_UNAVAILABLE;
    case ENOMEM:
      return FSIC_ERR_NO_MEMORY;
    default:
      return FSIC_ERR_FAILED;
  }
}

// Opens (or, with fd nullptr, stats) the full name in `w` from the base, following links
// within it.
int open_from_root(const fs_ocl_walk *w, int flags, int *fd, struct stat *st) noexcept {
  int opened = open_in_root(root_of(w), path_in_root(w), fd ? flags : O_PATH);
  if (opened < 0)
    return opened;
  int rc = stat_fd(opened, st, nullptr);
  if (rc == 0 && fd)
    *fd = opened;
  else
    close(opened);
  return rc;
}

// Appends "/" and `name` to the full name; 12 when it reaches PATH_MAX.
fsic_status enter_name(fs_ocl_walk *w, const char *name) noexcept {
  FSIC_TRY(_fs_str_buf_append(&w->name, "/", name, nullptr));
  return _fs_str_buf_len(&w->name) >= PATH_MAX ? FSIC_ERR_NAME_TOO_LONG : FSIC_OK;
}

// Opens or stats one entry: first by its name in `dir` alone, which is all that is
// needed unless the entry is a link, and then, for a link, from the base.
fsic_status resolve_entry(fs_ocl_walk *w, int dir, const char *name, int flags, int *fd,
                          struct stat *st) noexcept {
  const uint32_t len = _fs_str_buf_len(&w->name);
  fsic_status status = enter_name(w, name);
  if (status == FSIC_OK) {
    const resolve_root root = root_of(w);
    int rc = fd ? open_child(root, dir, name, flags, st) : stat_child(root, dir, name, st);
    if (rc >= 0 && fd)
      *fd = rc;
    if (rc == -ELOOP)
      rc = open_from_root(w, flags, fd, st);
    if (rc < 0)
      status = entry_status(w, rc);
  }
  _fs_str_buf_setlen(&w->name, len);
  return status;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_walk_init(fs_ocl_walk *w, const char *base, const char *path) noexcept {
  resolve_root root;
  if (open_root(base, &root) != 0)
    return FSIC_ERR_UNAVAILABLE;
  fsic_status status = base ? _fs_str_buf_init(&w->name, base, path, nullptr)
                            : _fs_str_buf_init(&w->name, path, nullptr);
  if (status != FSIC_OK) {
    close_root(&root);
    return status;
  }
  w->base_len = base ? (uint32_t)strlen(base) : 0;
  w->root_fd = root.fd;
  w->confined = root.confined;
  w->unreadable = nullptr;
  w->progress = nullptr;
  w->hashing = nullptr;
  return FSIC_OK;
}

void _fs_ocl_walk_free(fs_ocl_walk *w) noexcept {
  resolve_root root = root_of(w);
  close_root(&root);
  _fs_str_buf_free(&w->name);
  _fs_ocl_hash_arena_free(w->hashing);
  w->hashing = nullptr;
}

fsic_status _fs_ocl_open_object(fs_ocl_walk *w, int flags, mode_t type, int *fd,
                                struct stat *st) noexcept {
  int rc = open_from_root(w, flags, fd, st);
  if (rc == 0 && (st->st_mode & S_IFMT) != type) {
    close(*fd);
    return FSIC_ERR_UNAVAILABLE;
  }
  if (rc == 0)
    return FSIC_OK;
  if (rc == -ENOMEM)
    return FSIC_ERR_NO_MEMORY;
  // An object that is there, of its kind, but cannot be opened (no permission to read
  // it) is a failure to read, not a missing object.
  if (flags != O_PATH) {
    rc = open_from_root(w, O_PATH, nullptr, st);
    if (rc == -ENOMEM)
      return FSIC_ERR_NO_MEMORY;
    if (rc == 0 && (st->st_mode & S_IFMT) == type)
      return FSIC_ERR_FAILED;
  }
  return FSIC_ERR_UNAVAILABLE;
}

int _fs_ocl_probe_object(const char *base, const char *path, mode_t *type) noexcept {
  fs_ocl_walk w;
  if (_fs_ocl_walk_init(&w, base, path) != FSIC_OK)
    return ENOMEM;
  struct stat st;
  const int rc = open_from_root(&w, O_PATH, nullptr, &st);
  _fs_ocl_walk_free(&w);
  if (rc == 0)
    *type = st.st_mode & S_IFMT;
  return -rc;
}

fsic_status _fs_ocl_open_entry(fs_ocl_walk *w, int dir, const char *name, int flags, int *fd,
                               struct stat *st) noexcept {
  return resolve_entry(w, dir, name, flags, fd, st);
}

fsic_status _fs_ocl_stat_entry(fs_ocl_walk *w, int dir, const char *name,
                               struct stat *st) noexcept {
  return resolve_entry(w, dir, name, 0, nullptr, st);
}

} // extern "C"
