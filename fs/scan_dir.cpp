// The directory scanner of object control lists: the regular files of a directory that
// the masks admit and its subdirectories, each as a byte-sorted array of names, with
// symbolic links followed. Hashes and stored trees depend on this order and filter.
#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include <fsic/log.h>

#include "fs/ocl_internal.h"
#include "util/dir_iter.h"
#include "util/owner.h"

namespace {

// A growable array of owned names, freed with them unless handed out.
struct str_array {
  char **items = nullptr;
  uint32_t capacity = 0;
  uint32_t count = 0;

  str_array() noexcept = default;
  str_array(const str_array &) = delete;
  str_array &operator=(const str_array &) = delete;
  ~str_array() { _fs_ocl_free_str_array(items, static_cast<int>(count)); }
};

// Where the log records of this file say they come from.
constexpr const char *log_source = "scan_dir";
constexpr int stat_log_line = 197;

fsic_status str_array_expand(str_array *a) noexcept {
  uint32_t capacity = a->capacity ? a->capacity * 2 : 8;
  if (capacity < a->capacity || (size_t)capacity > SIZE_MAX / sizeof(char *))
    return FSIC_ERR_NO_MEMORY;
  char **items = static_cast<char **>(realloc(a->items, capacity * sizeof(char *)));
  if (!items)
    return FSIC_ERR_NO_MEMORY;
  a->items = items;
  a->capacity = capacity;
  return FSIC_OK;
}

fsic_status str_array_add(str_array *a, const char *name) noexcept {
  char *copy = strdup(name);
  if (!copy)
    return FSIC_ERR_NO_MEMORY;
  if (a->count == a->capacity) {
    fsic_status status = str_array_expand(a);
    if (status != FSIC_OK) {
      free(copy);
      return status;
    }
  }
  a->items[a->count++] = copy;
  return FSIC_OK;
}

int cmp_proc(const void *a, const void *b) noexcept {
  return strcmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b));
}

void str_array_sort(str_array *a) noexcept {
  if (a->count > 1)
    qsort(a->items, a->count, sizeof(char *), cmp_proc);
}

fsic_status str_array_shrink(str_array *a) noexcept {
  if (a->count == a->capacity)
    return FSIC_OK;
  // count is never 0 here: the array only grows when a name is added.
  char **items = static_cast<char **>(realloc(a->items, a->count * sizeof(char *)));
  if (!items)
    return FSIC_ERR_NO_MEMORY;
  a->items = items;
  a->capacity = a->count;
  return FSIC_OK;
}

// Sorts the names and cuts the array to their count, ready to be handed out.
fsic_status str_array_finish(str_array *a) noexcept {
  str_array_sort(a);
  return str_array_shrink(a);
}

// Hands the names out; the array becomes the caller's.
void str_array_hand_out(str_array *a, char ***names, int *count) noexcept {
  *names = a->items;
  *count = static_cast<int>(a->count);
  a->items = nullptr;
  a->capacity = a->count = 0;
}

struct closedir_deleter {
  void operator()(DIR *d) const noexcept { closedir(d); }
};

// 1 when some mask admits `name`. Flags 0: "*" and "?" also match a leading "." and
// "/", and matching is case-sensitive. An empty array admits nothing.
int match_fn(char *const *masks, const char *name) noexcept {
  for (; *masks; ++masks)
    if (fnmatch(*masks, name, 0) == 0)
      return 1;
  return 0;
}

// The type (DT_REG, DT_DIR, DT_LNK or 0) of the path in `path` after following links.
// `path` holds the scanned directory; the name is appended and cut back.
fsic_status get_entry_type(fs_str_buf *path, const char *name, int *type) noexcept {
  uint32_t len = _fs_str_buf_len(path);
  fsic_status status = _fs_str_buf_append(path, "/", name, (char *)nullptr);
  if (status != FSIC_OK)
    return status;

  struct stat st;
  status = _fs_ocl_stat(path->data, &st);
  _fs_str_buf_setlen(path, len);
  if (status != FSIC_OK)
    return status;

  if (S_ISREG(st.st_mode))
    *type = DT_REG;
  else if (S_ISDIR(st.st_mode))
    *type = DT_DIR;
  else if (S_ISLNK(st.st_mode))
    *type = DT_LNK;
  else
    *type = 0;
  return FSIC_OK;
}

// Reads the open stream into the two arrays (a nullptr array is not collected).
fsic_status collect(DIR *stream, const char *dir, char *const *masks, str_array *files,
                    str_array *subdirs) noexcept {
  // The buffer for resolving links is made on the first entry that needs it.
  fs_str_buf path = {nullptr, 0, 0};
  fsic_status status = FSIC_OK;

  for (;;) {
    // readdir64_r is deprecated in glibc; readdir is safe here since the stream belongs
    // to this call alone. nullptr is the end unless errno was set, hence the reset.
    errno = 0;
    struct dirent *entry = readdir(stream);
    if (!entry) {
      if (errno != 0)
        status = FSIC_ERR_FAILED;
      break;
    }
    const char *name = entry->d_name;
    if (fsic::detail::is_dot_or_dotdot(name))
      continue;

    int type = entry->d_type;
    if (type == DT_UNKNOWN || type == DT_LNK) {
      if (!path.data && (status = _fs_str_buf_init(&path, dir, (char *)nullptr)) != FSIC_OK) {
        path.data = nullptr;
        break;
      }
      if ((status = get_entry_type(&path, name, &type)) != FSIC_OK)
        break;
    }

    if (type == DT_REG) {
      if (!files || (masks && !match_fn(masks, name)))
        continue;
      if ((status = str_array_add(files, name)) != FSIC_OK)
        break;
    } else if (type == DT_DIR) {
      if (!subdirs)
        continue;
      if ((status = str_array_add(subdirs, name)) != FSIC_OK)
        break;
    }
    // Anything else (devices, FIFOs, sockets, links to them) is skipped.
  }

  if (path.data)
    _fs_str_buf_free(&path);
  return status;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_scan_dir(const char *dir, char *const *masks, char ***files, int *file_count,
                             char ***subdirs, int *subdir_count) noexcept {
  const bool want_files = files && file_count;
  const bool want_subdirs = subdirs && subdir_count;

  // The stream's own buffer is allocated here: running out of memory is reported as
  // such, any other failure to open as a general one.
  std::unique_ptr<DIR, closedir_deleter> stream(opendir(dir));
  if (!stream)
    return errno == ENOMEM ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;

  str_array file_array, subdir_array;
  FSIC_TRY(collect(stream.get(), dir, masks, want_files ? &file_array : nullptr,
                   want_subdirs ? &subdir_array : nullptr));
  // Both are made ready before either is handed out: a failure hands out nothing.
  if (want_files)
    FSIC_TRY(str_array_finish(&file_array));
  if (want_subdirs)
    FSIC_TRY(str_array_finish(&subdir_array));
  if (want_files)
    str_array_hand_out(&file_array, files, file_count);
  if (want_subdirs)
    str_array_hand_out(&subdir_array, subdirs, subdir_count);
  return FSIC_OK;
}

void _fs_ocl_free_str_array(char **names, int count) noexcept {
  for (int i = 0; i < count; ++i)
    free(names[i]);
  free(names);
}

fsic_status _fs_ocl_stat(const char *path, struct stat *st) noexcept {
  if (stat(path, st) == 0)
    return FSIC_OK;
  switch (errno) {
    case ELOOP:
      if (IC_LOG_ENABLED(&__ic_log_fs_ocl, IC_LOG_ERROR))
        ic_log(&__ic_log_fs_ocl, IC_LOG_ERROR, log_source, "_fs_ocl_stat", stat_log_line,
               "loop path: '%s'\n", path);
      return FSIC_ERR_LINK_LOOP;
    case ENAMETOOLONG:
      return FSIC_ERR_NAME_TOO_LONG;
    default:
      return FSIC_ERR_FAILED;
  }
}

} // extern "C"
