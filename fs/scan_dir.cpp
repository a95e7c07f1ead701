// The directory scanner of object control lists: the regular files of a directory that
// the masks admit and its subdirectories, each as a byte-sorted array of names, with
// symbolic links followed within the volume. Hashes and stored trees depend on this order
// and filter.
#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fs/ocl_internal.h"
#include "util/dir_iter.h"
#include "util/dirents.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

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

// 1 when some mask admits `name`. Flags 0: "*" and "?" also match a leading "." and
// "/", and matching is case-sensitive. An empty array admits nothing.
int match_fn(char *const *masks, const char *name) noexcept {
  for (; *masks; ++masks)
    if (fnmatch(*masks, name, 0) == 0)
      return 1;
  return 0;
}

// The type (DT_REG, DT_DIR or 0) of the entry `name` of `dir` after following links
// within the volume; 0 also for an entry on another mount, which is passed over.
fsic_status get_entry_type(fs_ocl_walk *w, int dir, const char *name, int *type) noexcept {
  struct stat st;
  fsic_status status = _fs_ocl_stat_entry(w, dir, name, &st);
  if (status == FSIC_ERR_UNAVAILABLE) {
    *type = 0;
    return FSIC_OK;
  }
  if (status != FSIC_OK)
    return status;
  *type = S_ISREG(st.st_mode) ? DT_REG : S_ISDIR(st.st_mode) ? DT_DIR : 0;
  return FSIC_OK;
}

// Files one entry into the two arrays (a nullptr array is not collected).
fsic_status collect_entry(fs_ocl_walk *w, int dir, const char *name, int type, char *const *masks,
                          str_array *files, str_array *subdirs) noexcept {
  if (is_dot_or_dotdot(name))
    return FSIC_OK;
  if (type == DT_UNKNOWN || type == DT_LNK)
    FSIC_TRY(get_entry_type(w, dir, name, &type));
  if (type == DT_REG) {
    if (!files || (masks && !match_fn(masks, name)))
      return FSIC_OK;
    return str_array_add(files, name);
  }
  if (type == DT_DIR && subdirs)
    return str_array_add(subdirs, name);
  // Anything else (devices, FIFOs, sockets, links to them) is passed over.
  return FSIC_OK;
}

// Entries are read in blocks of this size.
constexpr size_t entry_buffer_size = 32768;

// Reads the directory open on `dir` into the two arrays.
fsic_status collect(fs_ocl_walk *w, int dir, char *const *masks, str_array *files,
                    str_array *subdirs) noexcept {
  heap_ptr<char> buf(static_cast<char *>(malloc(entry_buffer_size)));
  if (!buf)
    return FSIC_ERR_NO_MEMORY;
  // From the start, however often the descriptor was read before.
  if (lseek(dir, 0, SEEK_SET) != 0)
    return FSIC_ERR_FAILED;
  fsic_status status = FSIC_OK;
  const int rc = for_each_dirent(
      dir, buf.get(), entry_buffer_size, [&](const char *name, unsigned char type) noexcept {
        status = collect_entry(w, dir, name, type, masks, files, subdirs);
        return status != FSIC_OK ? 1 : 0;
      });
  if (rc < 0)
    return errno == ENOMEM ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;
  return status;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_scan_dir(fs_ocl_walk *w, int dir, char *const *masks, char ***files,
                             int *file_count, char ***subdirs, int *subdir_count) noexcept {
  const bool want_files = files && file_count;
  const bool want_subdirs = subdirs && subdir_count;

  str_array file_array, subdir_array;
  FSIC_TRY(collect(w, dir, masks, want_files ? &file_array : nullptr,
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

} // extern "C"
