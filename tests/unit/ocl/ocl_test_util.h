// Shared helpers of the object control list tests: a model of list objects with its
// own blob encoder, and checks of library objects against the model. Temporary trees
// come from the tests' support code.
#ifndef FSIC_TESTS_UNIT_OCL_OCL_TEST_UTIL_H
#define FSIC_TESTS_UNIT_OCL_OCL_TEST_UTIL_H

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/gost_r3411_94.h>
#include <fsic/ocl.h>

#include "tests/support/files.h"
#include "tests/support/temp_dir.h"

namespace ocltest {

using Bytes = std::vector<uint8_t>;
using Hash = std::array<uint8_t, 32>;

// A temporary directory, removed with its contents (unreadable leftovers included) when
// the test ends, also when it fails.
using TempDir = support::temp_dir;
using support::make_dirs;
using support::write_file;

inline Hash gost(const std::string &data) {
  Hash h{};
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  if (!ctx)
    throw std::runtime_error("no hash context");
  gost_r3411_94_init(ctx, 1);
  gost_r3411_94_update(ctx, data.data(), static_cast<unsigned>(data.size()));
  gost_r3411_94_final(ctx, h.data());
  gost_r3411_94_free_context(ctx);
  return h;
}

// ---------------------------------------------------------------- the heap

// Defined in heap_count.cpp, which only the tests that use them link.
//
// The heap in use by the program right now (blocks, or bytes under the sanitizers).
// Comparing two readings around a call shows whether the call left anything allocated:
// the test programs are single-threaded, so nothing else allocates in between.
long heap_in_use();
// The largest single block asked for since the last reset (under the sanitizers: the
// largest one handed out).
size_t largest_block_since_reset();
void reset_largest_block();

// ---------------------------------------------------------------- the list itself

struct OclDeleter {
  void operator()(fs_ocl *ocl) const { fs_ocl_destroy(ocl); }
};
using OclPtr = std::unique_ptr<fs_ocl, OclDeleter>;

inline OclPtr new_list() {
  fs_ocl *ocl = nullptr;
  if (fs_ocl_create(&ocl) != FSIC_OK)
    throw std::runtime_error("fs_ocl_create failed");
  return OclPtr(ocl);
}

// A list's blob by the list's writer (fs_ocl_write_to_mem, fs_icl_write_to_mem); throws
// when writing fails, which no test expects.
template <class Write, class List>
Bytes blob_by(Write write, const List *list) {
  uint8_t *data = nullptr;
  uint32_t size = 0;
  if (write(list, &data, &size) != FSIC_OK)
    throw std::runtime_error("the list's blob could not be written");
  Bytes out(data, data + size);
  free(data);
  return out;
}

// Reads a blob with the list's reader (fs_ocl_read_from_mem, fs_icl_read_from_mem) into
// an owning pointer; `*out` is left as it was unless the read succeeds.
template <class Read, class Ptr>
fsic_status read_by(Read read, const Bytes &b, Ptr *out) {
  typename Ptr::pointer list = nullptr;
  const fsic_status status = read(b.data(), static_cast<uint32_t>(b.size()), &list);
  if (status == FSIC_OK)
    out->reset(list);
  return status;
}

inline Bytes blob_of(const fs_ocl *ocl) { return blob_by(fs_ocl_write_to_mem, ocl); }
inline fsic_status read_blob(const Bytes &b, OclPtr *out) {
  return read_by(fs_ocl_read_from_mem, b, out);
}

inline std::vector<std::string> paths_of(fs_ocl *ocl) {
  std::vector<std::string> paths;
  for (fs_ocl_object *o = fs_ocl_first_object(ocl); o; o = fs_ocl_next_object(o))
    paths.emplace_back(o->path);
  return paths;
}

// ---------------------------------------------------------------- blob encoder

struct Enc {
  Bytes b;
  Enc &u16(uint16_t v) {
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
    return *this;
  }
  Enc &u32(uint32_t v) {
    for (int i = 0; i < 4; i++)
      b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  Enc &str(const std::string &s) {
    u16(static_cast<uint16_t>(s.size()));
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Enc &raw(const uint8_t *p, size_t n) {
    b.insert(b.end(), p, p + n);
    return *this;
  }
  Enc &raw(const Bytes &x) { return raw(x.data(), x.size()); }
};

// ---------------------------------------------------------------- model objects

struct FileAttrs {
  uint32_t mode = 0;
  uint16_t uid = 0, gid = 0;
  uint32_t size = 0, mtime = 0;
};
struct DirAttrs {
  uint32_t mode = 0;
  uint16_t uid = 0, gid = 0;
};
struct FileEnt {
  std::string name;
  Hash hash{};
  FileAttrs attrs;
};
struct Sub;
struct Info {
  std::vector<Sub> subs;
  std::vector<FileEnt> files;
};
struct Sub {
  std::string name;
  Info info;
  DirAttrs attrs;
};

struct Obj {
  uint16_t type = 0; // FS_OCL_FILE / FS_OCL_DIR
  std::string path;
  uint32_t flags = 0; // as the list holds them
  Hash hash{};        // file hash, or directory hash without EACH_FILE
  FileAttrs fattrs;   // file
  bool has_masks = false;
  std::vector<std::string> masks; // directory
  Info info;                      // directory with EACH_FILE
  DirAttrs dattrs;                // directory with EACH_FILE and CONTROL_ATTRS
};

inline FileAttrs file_attrs_of(const struct stat &st) {
  return FileAttrs{static_cast<uint32_t>(st.st_mode), static_cast<uint16_t>(st.st_uid),
                   static_cast<uint16_t>(st.st_gid), static_cast<uint32_t>(st.st_size),
                   static_cast<uint32_t>(st.st_mtime)};
}
inline DirAttrs dir_attrs_of(const struct stat &st) {
  return DirAttrs{static_cast<uint32_t>(st.st_mode), static_cast<uint16_t>(st.st_uid),
                  static_cast<uint16_t>(st.st_gid)};
}

inline void encode_fattrs(Enc &e, const FileAttrs &a) {
  e.u32(a.mode).u16(a.uid).u16(a.gid).u32(a.size).u32(a.mtime);
}
inline void encode_dattrs(Enc &e, const DirAttrs &a) { e.u32(a.mode).u16(a.uid).u16(a.gid); }

inline void encode_info(Enc &e, const Info &info, uint32_t flags) {
  e.u32(static_cast<uint32_t>(info.subs.size()));
  for (const Sub &s : info.subs) {
    e.str(s.name);
    encode_info(e, s.info, flags);
    if (flags & CONTROL_ATTRS)
      encode_dattrs(e, s.attrs);
  }
  e.u32(static_cast<uint32_t>(info.files.size()));
  for (const FileEnt &f : info.files) {
    e.str(f.name);
    if (flags & CONTROL_DATA)
      e.raw(f.hash.data(), f.hash.size());
    if (flags & CONTROL_ATTRS)
      encode_fattrs(e, f.attrs);
  }
}

// The object as the blob holds it (type, path, body).
inline void encode_object(Enc &e, const Obj &o) {
  e.u16(o.type).str(o.path);
  if (o.type == FS_OCL_FILE) {
    e.u16(static_cast<uint16_t>(o.flags));
    if (o.flags & CONTROL_DATA)
      e.raw(o.hash.data(), o.hash.size());
    if (o.flags & CONTROL_ATTRS)
      encode_fattrs(e, o.fattrs);
    return;
  }
  e.u16(static_cast<uint16_t>(o.has_masks ? o.masks.size() : 0));
  if (o.has_masks)
    for (const std::string &m : o.masks)
      e.str(m);
  e.u16(static_cast<uint16_t>(o.flags));
  if (o.flags & EACH_FILE) {
    encode_info(e, o.info, o.flags);
    if (o.flags & CONTROL_ATTRS)
      encode_dattrs(e, o.dattrs);
  } else {
    e.raw(o.hash.data(), o.hash.size());
  }
}

inline Bytes encode_object(const Obj &o) {
  Enc e;
  encode_object(e, o);
  return e.b;
}

// A directory object /d (EACH_FILE | RECURSIVE) whose info records nest `levels` deep:
// each holds one subdirectory "a" but the deepest, which is empty. The reader refuses
// more than 4096 levels with 3, before it reads anything after them.
inline Bytes deep_dir_object(unsigned levels) {
  Enc e;
  e.u16(FS_OCL_DIR).str("/d").u16(0).u16(EACH_FILE | RECURSIVE);
  for (unsigned i = 1; i < levels; i++)
    e.u32(1).str("a");
  e.u32(0).u32(0);
  for (unsigned i = 1; i < levels; i++)
    e.u32(0);
  return e.b;
}

// ---------------------------------------------------------------- checks against the model

inline void expect_fattrs(const fs_ocl_file_attrs &a, const FileAttrs &m) {
  EXPECT_EQ(a.mode, m.mode);
  EXPECT_EQ(a.uid, m.uid);
  EXPECT_EQ(a.gid, m.gid);
  EXPECT_EQ(a.size, m.size);
  EXPECT_EQ(a.mtime, m.mtime);
}
inline void expect_dattrs(const fs_ocl_dir_attrs &a, const DirAttrs &m) {
  EXPECT_EQ(a.mode, m.mode);
  EXPECT_EQ(a.uid, m.uid);
  EXPECT_EQ(a.gid, m.gid);
}
inline Hash hash_at(const uint8_t *p) {
  Hash h{};
  std::copy(p, p + h.size(), h.begin());
  return h;
}

// Every field and every array's presence, by the flags.
inline void expect_info(const fs_ocl_dir_info *info, const Info &m, uint32_t flags) {
  ASSERT_NE(info, nullptr);
  ASSERT_EQ(info->subdir_count, static_cast<int32_t>(m.subs.size()));
  ASSERT_EQ(info->file_count, static_cast<int32_t>(m.files.size()));
  if (m.subs.empty()) {
    EXPECT_EQ(info->subdir_names, nullptr);
    EXPECT_EQ(info->subdir_infos, nullptr);
    EXPECT_EQ(info->subdir_attrs, nullptr);
  } else {
    ASSERT_NE(info->subdir_names, nullptr);
    ASSERT_NE(info->subdir_infos, nullptr);
    ASSERT_EQ(info->subdir_attrs != nullptr, (flags & CONTROL_ATTRS) != 0);
  }
  for (size_t i = 0; i < m.subs.size(); i++) {
    SCOPED_TRACE("subdir " + m.subs[i].name);
    EXPECT_EQ(std::string(info->subdir_names[i]), m.subs[i].name);
    expect_info(info->subdir_infos[i], m.subs[i].info, flags);
    if (flags & CONTROL_ATTRS)
      expect_dattrs(info->subdir_attrs[i], m.subs[i].attrs);
  }
  if (m.files.empty()) {
    EXPECT_EQ(info->file_names, nullptr);
    EXPECT_EQ(info->file_hashes, nullptr);
    EXPECT_EQ(info->file_attrs, nullptr);
  } else {
    ASSERT_NE(info->file_names, nullptr);
    ASSERT_EQ(info->file_hashes != nullptr, (flags & CONTROL_DATA) != 0);
    ASSERT_EQ(info->file_attrs != nullptr, (flags & CONTROL_ATTRS) != 0);
  }
  for (size_t i = 0; i < m.files.size(); i++) {
    SCOPED_TRACE("file " + m.files[i].name);
    EXPECT_EQ(std::string(info->file_names[i]), m.files[i].name);
    if (flags & CONTROL_DATA) {
      EXPECT_EQ(hash_at(info->file_hashes[i]), m.files[i].hash);
    }
    if (flags & CONTROL_ATTRS)
      expect_fattrs(info->file_attrs[i], m.files[i].attrs);
  }
}

inline void expect_object(const fs_ocl_object *o, const Obj &m) {
  ASSERT_NE(o, nullptr);
  SCOPED_TRACE("object " + m.path);
  EXPECT_EQ(std::string(o->path), m.path);
  ASSERT_EQ(o->type, m.type);
  EXPECT_EQ(o->flags, m.flags);
  if (o->type == FS_OCL_FILE) {
    auto *f = reinterpret_cast<const fs_ocl_file_object *>(o);
    ASSERT_EQ(f->hash != nullptr, (m.flags & CONTROL_DATA) != 0);
    ASSERT_EQ(f->attrs != nullptr, (m.flags & CONTROL_ATTRS) != 0);
    if (f->hash) {
      EXPECT_EQ(hash_at(f->hash), m.hash);
    }
    if (f->attrs)
      expect_fattrs(*f->attrs, m.fattrs);
    return;
  }
  auto *d = reinterpret_cast<const fs_ocl_dir_object *>(o);
  if (!m.has_masks) {
    EXPECT_EQ(d->masks, nullptr);
  } else {
    ASSERT_NE(d->masks, nullptr);
    size_t n = 0;
    while (d->masks[n])
      n++;
    ASSERT_EQ(n, m.masks.size());
    for (size_t i = 0; i < n; i++)
      EXPECT_EQ(std::string(d->masks[i]), m.masks[i]);
  }
  if (m.flags & EACH_FILE) {
    expect_info(d->info, m.info, m.flags);
    ASSERT_EQ(d->attrs != nullptr, (m.flags & CONTROL_ATTRS) != 0);
    if (d->attrs)
      expect_dattrs(*d->attrs, m.dattrs);
  } else {
    ASSERT_NE(d->hash, nullptr);
    EXPECT_EQ(hash_at(d->hash), m.hash);
    EXPECT_EQ(d->attrs, nullptr);
  }
}

// ---------------------------------------------------------------- random models

class Gen {
public:
  explicit Gen(uint32_t seed) : rng_(seed) {}

  uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }
  bool chance(uint32_t percent) { return below(100) < percent; }

  // 1 to 12 bytes, mostly printable, sometimes bytes above 0x7f (unsigned order); never
  // "." or "..", which no list may hold.
  std::string name() {
    static const char alpha[] = "abcAZ09._-~ x";
    std::string s;
    uint32_t len = 1 + below(12);
    for (uint32_t i = 0; i < len; i++)
      s.push_back(chance(10) ? static_cast<char>(0x80 + below(0x80))
                             : alpha[below(sizeof(alpha) - 1)]);
    if (s == "." || s == "..")
      s += "x";
    return s;
  }
  std::string path() {
    std::string p = std::string("/") + name();
    if (chance(30))
      p += std::string("/") + name();
    return p;
  }

  // The four defined bits, sometimes with others of the low 16.
  uint32_t flags() {
    uint32_t f = below(16);
    if (chance(20))
      f |= (below(0x1000) << 4);
    return f;
  }
  Hash hash() {
    Hash h{};
    for (auto &b : h)
      b = static_cast<uint8_t>(below(256));
    return h;
  }
  FileAttrs fattrs() {
    return FileAttrs{static_cast<uint32_t>(rng_()), static_cast<uint16_t>(rng_()),
                     static_cast<uint16_t>(rng_()), static_cast<uint32_t>(rng_()),
                     static_cast<uint32_t>(rng_())};
  }
  DirAttrs dattrs() {
    return DirAttrs{static_cast<uint32_t>(rng_()), static_cast<uint16_t>(rng_()),
                    static_cast<uint16_t>(rng_())};
  }

  // Any shape the blob can hold, empty subdirectories included; the names of each array
  // strictly ascending, as the blob must have them.
  Info info(int depth) {
    Info in;
    uint32_t nsub = depth > 0 ? below(4) : 0;
    for (uint32_t i = 0; i < nsub; i++)
      in.subs.push_back(Sub{name(), info(depth - 1), dattrs()});
    uint32_t nfile = below(5);
    for (uint32_t i = 0; i < nfile; i++)
      in.files.push_back(FileEnt{name(), hash(), fattrs()});
    sort_unique(&in.subs);
    sort_unique(&in.files);
    return in;
  }

  Obj object(const std::string &p) {
    Obj o;
    o.path = p;
    o.type = chance(50) ? FS_OCL_FILE : FS_OCL_DIR;
    o.flags = flags();
    if (o.type == FS_OCL_FILE) {
      o.hash = hash();
      o.fattrs = fattrs();
      return o;
    }
    o.has_masks = chance(50);
    if (o.has_masks) {
      uint32_t n = 1 + below(3);
      for (uint32_t i = 0; i < n; i++)
        o.masks.push_back(std::string("*") + name());
    }
    if (o.flags & EACH_FILE) {
      o.info = info(static_cast<int>(below(4)));
      o.dattrs = dattrs();
    } else {
      o.hash = hash();
    }
    return o;
  }

private:
  // Sorted by name (std::string orders bytes as unsigned, as strcmp does), the first of
  // equal names kept.
  template <class T>
  static void sort_unique(std::vector<T> *entries) {
    auto by_name = [](const T &a, const T &b) { return a.name < b.name; };
    std::stable_sort(entries->begin(), entries->end(), by_name);
    auto same = [](const T &a, const T &b) { return a.name == b.name; };
    entries->erase(std::unique(entries->begin(), entries->end(), same), entries->end());
  }

  std::mt19937 rng_;
};

} // namespace ocltest

#endif
