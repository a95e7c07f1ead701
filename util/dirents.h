// Directory entries straight from the kernel (getdents64), without the allocation that
// opendir() makes.
#ifndef FSIC_UTIL_DIRENTS_H
#define FSIC_UTIL_DIRENTS_H

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace fsic::detail {

// One record of getdents64.
struct dirent64_record {
  uint64_t ino;
  int64_t off;
  unsigned short reclen;
  unsigned char type;
  char name[];
};

// Calls `f(name, type)` for every entry of the directory open at `dir`, from its
// current position, reading blocks of `cap` bytes into `buf`; a non-zero result of `f`
// ends the walk and is returned. 0 at the end, -1 with errno after a failed read.
template <typename F>
int for_each_dirent(int dir, char *buf, size_t cap, F &&f) {
  for (;;) {
    const ssize_t n = getdents64(dir, buf, cap);
    if (n <= 0)
      return n == 0 ? 0 : -1;
    for (ssize_t pos = 0; pos < n;) {
      const auto *entry = reinterpret_cast<const dirent64_record *>(buf + pos);
      if (const int rc = f(entry->name, entry->type))
        return rc;
      pos += entry->reclen;
    }
  }
}

} // namespace fsic::detail

#endif // FSIC_UTIL_DIRENTS_H
