// Shared helpers of the object-control-list engine tests: a temporary directory tree
// with builders of its entries (it removes itself, also after a failed assertion, and
// below PATH_MAX or not), a path buffer owner, GOST R 34.11-94 from libgcrypt as the
// reference (or, in builds without libgcrypt, from the slow reference of
// tests/unit/hash), little-endian encoders, random bytes, and (from the tests' support
// code) hexadecimal text and running a piece of code in a child process without root's
// privileges.
#ifndef FSIC_TESTS_UNIT_OCL_SCAN_OCL_TEST_SUPPORT_H
#define FSIC_TESTS_UNIT_OCL_SCAN_OCL_TEST_SUPPORT_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "fs/ocl_internal.h"
#include "tests/support/hex.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "util/str_buf.h"

#ifdef FSIC_TEST_ORACLE_REFERENCE
#include "tests/unit/hash/gost_reference.h"
#else
#include <gcrypt.h>
#endif

namespace ocltest {

using support::hex;
using support::run_unprivileged;

using Digest = std::array<uint8_t, 32>;

#ifdef FSIC_TEST_ORACLE_REFERENCE
// The CryptoPro parameter set of GOST R 34.11-94, computed by the slow reference.
inline Digest gost(const void *data, size_t size) {
  const gost_ref::block b = gost_ref::digest(1, static_cast<const uint8_t *>(data), size);
  if (b.size() != 32)
    throw std::runtime_error("the reference digest is not 32 bytes long");
  Digest d{};
  std::copy(b.begin(), b.end(), d.begin());
  return d;
}
#else
// The CryptoPro parameter set of GOST R 34.11-94, computed by libgcrypt.
inline Digest gost(const void *data, size_t size) {
  static const bool ready = [] {
    if (!gcry_check_version(GCRYPT_VERSION))
      throw std::runtime_error("libgcrypt version mismatch");
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  (void)ready;
  Digest d{};
  gcry_md_hash_buffer(GCRY_MD_GOSTR3411_CP, d.data(), data, size);
  return d;
}
#endif
inline Digest gost(const std::string &s) { return gost(s.data(), s.size()); }

inline std::string bytes(const Digest &d) { return std::string(d.begin(), d.end()); }
inline std::string bytes(const uint8_t *p) { return std::string(p, p + 32); }

inline std::string le16(uint32_t v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)};
}
inline std::string le32(uint32_t v) { return le16(v & 0xFFFF) + le16(v >> 16); }

// prefix followed by the decimal number (appended: g++ 12 warns falsely on some
// concatenations with a temporary string).
inline std::string numbered(const std::string &prefix, long n) {
  std::string s = prefix;
  s += std::to_string(n);
  return s;
}

// Random bytes of a seed's own.
inline std::string random_bytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char &c : s)
    c = static_cast<char>(rng() & 0xFF);
  return s;
}

// A temporary directory, removed with its contents when the object goes. Paths given
// to the helpers are relative to it.
class TempTree {
public:
  TempTree() : dir_("fsic-ocl") {}

  const std::string &root() const { return dir_.path(); }
  std::string path(const std::string &rel) const { return rel.empty() ? root() : dir_ / rel; }

  void dir(const std::string &rel, mode_t mode = 0755) const {
    check(mkdir(path(rel).c_str(), mode), "mkdir", rel);
    check(chmod(path(rel).c_str(), mode), "chmod", rel);
  }
  void file(const std::string &rel, const std::string &content = "", mode_t mode = 0644) const {
    int fd = open(path(rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    check(fd < 0 ? -1 : 0, "open", rel);
    size_t done = 0;
    while (done < content.size()) {
      ssize_t n = write(fd, content.data() + done, content.size() - done);
      if (n <= 0) {
        close(fd);
        check(-1, "write", rel);
      }
      done += static_cast<size_t>(n);
    }
    close(fd);
    check(chmod(path(rel).c_str(), mode), "chmod", rel);
  }
  void link(const std::string &rel, const std::string &target) const {
    check(symlink(target.c_str(), path(rel).c_str()), "symlink", rel);
  }
  void fifo(const std::string &rel) const { check(mkfifo(path(rel).c_str(), 0644), "mkfifo", rel); }
  void mtime(const std::string &rel, time_t seconds) const {
    struct timespec ts[2] = {{seconds, 0}, {seconds, 0}};
    check(utimensat(AT_FDCWD, path(rel).c_str(), ts, 0), "utimensat", rel);
  }
  void remove(const std::string &rel) const { check(::remove(path(rel).c_str()), "remove", rel); }
  void rename(const std::string &from, const std::string &to) const {
    check(::rename(path(from).c_str(), path(to).c_str()), "rename", from);
  }
  struct stat stat_of(const std::string &rel) const {
    struct stat st;
    check(::stat(path(rel).c_str(), &st), "stat", rel);
    return st;
  }

private:
  static void check(int rc, const char *what, const std::string &rel) {
    if (rc != 0)
      throw std::runtime_error(std::string(what) + " " + rel + ": " + strerror(errno));
  }
  support::temp_dir dir_;
};

// A walk of the library positioned on `path` (under `base`, or on the running system
// without one), with that path opened as the library opens a directory (or with
// `flags`); fd() is -1 when it cannot be opened.
class Walk {
public:
  explicit Walk(const std::string &path, const char *base = nullptr,
                int flags = O_RDONLY | O_DIRECTORY) {
    if (_fs_ocl_walk_init(&w_, base, path.c_str()) != 0)
      throw std::runtime_error("_fs_ocl_walk_init failed");
    const std::string full = base ? std::string(base) + path : path;
    fd_ = open(full.c_str(), flags | O_CLOEXEC);
  }
  ~Walk() {
    if (fd_ >= 0)
      close(fd_);
    _fs_ocl_walk_free(&w_);
  }
  Walk(const Walk &) = delete;
  Walk &operator=(const Walk &) = delete;
  fs_ocl_walk *get() { return &w_; }
  int fd() const { return fd_; }
  std::string text() const { return std::string(w_.name.data, w_.name.len); }

private:
  fs_ocl_walk w_;
  int fd_ = -1;
};

inline std::string dir_part(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}
inline std::string name_part(const std::string &path) { return path.substr(path.rfind('/') + 1); }

// The stat of the file or directory `path` as the scanners take it: the entry of its
// directory, links followed.
inline fsic_status stat_entry(const std::string &path, struct stat *st) {
  Walk w(dir_part(path));
  return _fs_ocl_stat_entry(w.get(), w.fd(), name_part(path).c_str(), st);
}

// The content hash of the file `path` as the scanners take it: opened as an entry of
// its directory without blocking, refused unless regular, hashed from the descriptor.
inline fsic_status file_hash_of(const std::string &path, uint8_t hash[32],
                                struct stat *st = nullptr) {
  Walk w(dir_part(path));
  int fd;
  struct stat s;
  fsic_status status = _fs_ocl_open_entry(w.get(), w.fd(), name_part(path).c_str(),
                                          O_RDONLY | O_NONBLOCK | O_NOCTTY, &fd, &s);
  if (status != 0)
    return status == 7 ? 1 : status;
  status = S_ISREG(s.st_mode) ? _fs_ocl_fd_hash(fd, hash, &s) : 1;
  close(fd);
  if (status == 0 && st)
    *st = s;
  return status;
}

// A NULL-terminated mask array for the library, or NULL when `present` is false.
class Masks {
public:
  Masks() : present_(false) {}
  Masks(std::initializer_list<std::string> masks) : present_(true), strings_(masks) { build(); }
  explicit Masks(const std::vector<std::string> &masks) : present_(true), strings_(masks) {
    build();
  }
  Masks(const Masks &o) : present_(o.present_), strings_(o.strings_) { build(); }
  Masks &operator=(const Masks &) = delete;

  bool present() const { return present_; }
  const std::vector<std::string> &strings() const { return strings_; }
  char *const *get() const { return present_ ? ptrs_.data() : nullptr; }

private:
  void build() {
    ptrs_.clear();
    for (std::string &s : strings_)
      ptrs_.push_back(s.data());
    ptrs_.push_back(nullptr);
  }
  bool present_;
  std::vector<std::string> strings_;
  std::vector<char *> ptrs_;
};

} // namespace ocltest

#endif
