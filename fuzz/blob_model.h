// An independent reader of the three blob formats (volume-identifier record, object
// control list, integrity control list) for the fuzz targets. It does not build any
// library record: it walks the bytes, predicts the status that the library's reader
// must return, how many bytes it consumes, and the exact bytes that the library's
// writer must produce for what was read (the "normal form" of the input).
//
// What an object control list may hold (anything else is status 1):
//  - object paths that begin with "/" and have no "." or ".." component and no NUL;
//  - file and subdirectory names that are not empty, not "." or "..", and hold neither
//    "/" nor NUL; within one level the file names strictly ascend in strcmp (unsigned
//    byte) order, and so do the subdirectory names, each array on its own;
//  - masks without NUL (empty ones included);
//  - counts whose entries, each at its smallest by the flags, fit in the bytes that
//    remain after the count: an object 7 bytes (type, path "/", a file body's flags),
//    a mask 2, a file 3 (+32 with CONTROL_DATA, +16 with CONTROL_ATTRS), a subdirectory
//    11 (name and empty info record, +8 with CONTROL_ATTRS); an integrity-list entry
//    10 (the shortest identifier record and an empty object list).
// A list read on its own (fs_ocl_read_from_mem, fs_icl_read_from_mem) must also be the
// whole blob: bytes after it are refused with 1 (`whole_status`). A list read from a
// buffer (_fs_ocl_read_from_rbuf, fs_icl_read_from_rbuf) stops after its last byte.
//
// Normal form, as the library's reader and writer define it:
//  - Identifier strings are read as (u16 length, bytes) and kept as C strings, so one
//    with a NUL byte is written back cut at its first NUL, with the length prefix
//    adjusted. Paths, names and masks hold no NUL (or the blob is refused): they are
//    written back byte for byte.
//  - Integers, flags (u16 in the blob, widened on reading, low 16 bits written back),
//    hashes and attribute records are written back exactly as read.
//  - Object control list: objects are written in ascending strcmp order of their paths;
//    of several objects with the same path only the last one read is kept, and the
//    count written is the number of distinct paths, not the count read. A mask count
//    of 0 gives no mask array (written as 0 again); any other count keeps its masks, so
//    a non-null empty mask array cannot come out of a blob. Info records keep every
//    subdirectory and file read, in blob order (which is ascending), even empty ones.
//  - Integrity control list: the entry count is written back as read (entries are never
//    merged, duplicates stay); the reader puts each entry at the front, so the writer
//    emits them in reverse order. write(read(b)) is the count followed by the normal
//    forms of the entries in reverse, and write(read(write(read(b)))) is the count
//    followed by them in blob order: the consumed prefix of b itself when no
//    identifier string has a NUL and every embedded list is already in normal form.
//  - Identifier record: kind, cut string(s) and the u16 number, so read then write
//    gives exactly the consumed bytes when no string holds a NUL byte.
//
// Statuses: 1 when the blob ends inside a field, for an unknown identifier kind or
// object type, and for every refusal above; 3 for info records nested deeper than
// kMaxInfoDepth (the reader refuses them instead of running out of stack). As every
// count is checked against the blob first, no input makes the readers ask for more
// than a small multiple of its own size, so 3 for exhausted memory is never expected.
#ifndef FSIC_FUZZ_BLOB_MODEL_H
#define FSIC_FUZZ_BLOB_MODEL_H

#include <stdint.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "fuzz_check.h"

namespace fuzz {

// Deepest nesting of directory info records (the root's record is level 1) that the
// object-list reader accepts.
constexpr unsigned kMaxInfoDepth = 4096;

constexpr uint32_t kOk = 0;
constexpr uint32_t kShort = 1; // also unknown kinds and types, and every refusal
constexpr uint32_t kNoMemory = 3;

// The smallest encodings of the entries that counts count.
constexpr size_t kMinObject = 7;
constexpr size_t kMinMask = 2;
constexpr size_t kMinIclEntry = 10;
inline size_t min_file_entry(uint32_t flags) {
  return 3 + ((flags & 4) ? 32 : 0) + ((flags & 8) ? 16 : 0);
}
inline size_t min_subdir_entry(uint32_t flags) { return 3 + 8 + ((flags & 8) ? 8 : 0); }

// Bounds-checked little-endian reader over the input.
class Reader {
public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  bool take(size_t n, const uint8_t **out) {
    if (size_ - pos_ < n)
      return false;
    *out = data_ + pos_;
    pos_ += n;
    return true;
  }
  bool u16(uint16_t *v) {
    const uint8_t *p;
    if (!take(2, &p))
      return false;
    *v = static_cast<uint16_t>(p[0] | (p[1] << 8));
    return true;
  }
  bool u32(uint32_t *v) {
    const uint8_t *p;
    if (!take(4, &p))
      return false;
    *v = static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
    return true;
  }
  // A string field with all of its bytes.
  bool raw_str(std::string *s) {
    uint16_t len;
    const uint8_t *p;
    if (!u16(&len) || !take(len, &p))
      return false;
    s->assign(reinterpret_cast<const char *>(p), len);
    return true;
  }
  // A string field, cut at its first NUL as the library keeps it.
  bool str(std::string *s) {
    if (!raw_str(s))
      return false;
    s->resize(strnlen(s->c_str(), s->size()));
    return true;
  }
  // Whether `count` entries of `size` bytes each fit in what is left.
  bool fits(uint64_t count, size_t size) const {
    return count * size <= static_cast<uint64_t>(size_ - pos_);
  }
  size_t pos() const { return pos_; }

private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

// Little-endian writer of the normal form.
struct Writer {
  Bytes b;
  void u16(uint16_t v) {
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
  }
  void u32(uint32_t v) {
    for (int i = 0; i < 4; i++)
      b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void raw(const uint8_t *p, size_t n) { b.insert(b.end(), p, p + n); }
  void raw(const Bytes &x) { b.insert(b.end(), x.begin(), x.end()); }
  void str(const std::string &s) {
    u16(static_cast<uint16_t>(s.size()));
    b.insert(b.end(), s.begin(), s.end());
  }
};

// What the library must do with one input.
struct Expect {
  uint32_t status = kOk;
  size_t consumed = 0; // on success
  Bytes normal;        // on success: what the writer must produce
};

// The status of reading the input of `size` bytes as a list on its own: bytes left
// over after the list are refused.
inline uint32_t whole_status(const Expect &e, size_t size) {
  if (e.status == kOk && e.consumed != size)
    return kShort;
  return e.status;
}

// ---------------------------------------------------------------- paths and names

// "/" first, no NUL, and no component (the text between two "/", or after the last)
// that is "." or "..".
inline bool valid_path(const std::string &path) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos)
    return false;
  size_t start = 1;
  for (;;) {
    const size_t slash = path.find('/', start);
    const std::string part =
        path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (part == "." || part == "..")
      return false;
    if (slash == std::string::npos)
      return true;
    start = slash + 1;
  }
}

inline bool valid_name(const std::string &name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// ---------------------------------------------------------------- identifier record

struct IdValue {
  uint16_t kind = 0;
  std::string first;   // serial, image name, group name or file-system UUID
  uint16_t number = 0; // kinds 0 and 1
  std::string second;  // kind 2: volume name
};

// Reads one record: 0, or 1 when short or of unknown kind (then `r` stands after the
// kind). The normal form goes to `w`.
inline uint32_t model_id(Reader &r, Writer &w, IdValue *v) {
  if (!r.u16(&v->kind))
    return kShort;
  if (v->kind > 3)
    return kShort;
  if (!r.str(&v->first))
    return kShort;
  w.u16(v->kind);
  w.str(v->first);
  if (v->kind == 3)
    return kOk; // the UUID is all
  if (v->kind == 2) {
    if (!r.str(&v->second))
      return kShort;
    w.str(v->second);
  } else {
    if (!r.u16(&v->number))
      return kShort;
    w.u16(v->number);
  }
  return kOk;
}

inline int sign(long v) { return (v > 0) - (v < 0); }

// The sign of the library's comparison of two identifiers.
inline int model_compare(const IdValue &a, const IdValue &b) {
  if (a.kind != b.kind)
    return sign(static_cast<long>(a.kind) - b.kind);
  if (int r = sign(strcmp(a.first.c_str(), b.first.c_str())))
    return r;
  if (a.kind == 3)
    return 0;
  if (a.kind == 2)
    return sign(strcmp(a.second.c_str(), b.second.c_str()));
  return sign(static_cast<long>(a.number) - b.number);
}

// ---------------------------------------------------------------- object control list

class OclModel {
public:
  explicit OclModel(Reader &r) : r_(r) {}

  // Reads one list; on success `w` receives its normal form.
  uint32_t list(Writer &w) {
    uint32_t count;
    if (!r_.u32(&count) || !r_.fits(count, kMinObject))
      return kShort;
    std::map<std::string, Bytes> objects; // by path: the later object wins
    for (uint32_t i = 0; i < count; i++) {
      std::string path;
      Writer body;
      if (uint32_t st = object(&path, body))
        return st;
      objects[path] = std::move(body.b);
    }
    // std::string orders as unsigned bytes, as strcmp does (the paths hold no NUL).
    w.u32(static_cast<uint32_t>(objects.size()));
    for (const auto &entry : objects)
      w.raw(entry.second);
    return kOk;
  }

private:
  static constexpr uint32_t kEachFile = 1, kControlData = 4, kControlAttrs = 8;

  bool copy(size_t n, Writer &w) {
    const uint8_t *p;
    if (!r_.take(n, &p))
      return false;
    w.raw(p, n);
    return true;
  }

  uint32_t object(std::string *path, Writer &w) {
    uint16_t type;
    if (!r_.u16(&type))
      return kShort;
    if (type == 0)
      return file_object(path, w);
    if (type == 1)
      return dir_object(path, w);
    return kShort;
  }

  uint32_t file_object(std::string *path, Writer &w) {
    uint16_t flags;
    if (!r_.raw_str(path) || !valid_path(*path) || !r_.u16(&flags))
      return kShort;
    w.u16(0);
    w.str(*path);
    w.u16(flags);
    if ((flags & kControlData) && !copy(32, w))
      return kShort;
    if ((flags & kControlAttrs) && !copy(16, w))
      return kShort;
    return kOk;
  }

  uint32_t dir_object(std::string *path, Writer &w) {
    uint16_t mask_count, flags;
    if (!r_.raw_str(path) || !valid_path(*path) || !r_.u16(&mask_count))
      return kShort;
    if (mask_count && !r_.fits(mask_count, kMinMask))
      return kShort;
    w.u16(1);
    w.str(*path);
    w.u16(mask_count);
    for (uint16_t i = 0; i < mask_count; i++) {
      std::string mask;
      if (!r_.raw_str(&mask) || mask.find('\0') != std::string::npos)
        return kShort;
      w.str(mask);
    }
    if (!r_.u16(&flags))
      return kShort;
    w.u16(flags);
    if (flags & kEachFile) {
      if (uint32_t st = info(flags, 1, w))
        return st;
      if ((flags & kControlAttrs) && !copy(8, w))
        return kShort;
      return kOk;
    }
    return copy(32, w) ? kOk : kShort;
  }

  // The next name of an array: valid, and after `prev` (the name before it, if any).
  bool name(const std::string *prev, std::string *out) {
    return r_.raw_str(out) && valid_name(*out) && (!prev || *prev < *out);
  }

  // One info record at nesting level `depth` (the root's is 1).
  uint32_t info(uint32_t flags, unsigned depth, Writer &w) {
    if (depth > kMaxInfoDepth)
      return kNoMemory;
    uint32_t subdirs;
    if (!r_.u32(&subdirs) || !r_.fits(subdirs, min_subdir_entry(flags)))
      return kShort;
    w.u32(subdirs);
    std::string prev;
    for (uint32_t i = 0; i < subdirs; i++) {
      std::string sub;
      if (!name(i ? &prev : nullptr, &sub))
        return kShort;
      w.str(sub);
      if (uint32_t st = info(flags, depth + 1, w))
        return st;
      if ((flags & kControlAttrs) && !copy(8, w))
        return kShort;
      prev = std::move(sub);
    }
    uint32_t files;
    if (!r_.u32(&files) || !r_.fits(files, min_file_entry(flags)))
      return kShort;
    w.u32(files);
    for (uint32_t i = 0; i < files; i++) {
      std::string file;
      if (!name(i ? &prev : nullptr, &file))
        return kShort;
      w.str(file);
      if ((flags & kControlData) && !copy(32, w))
        return kShort;
      if ((flags & kControlAttrs) && !copy(16, w))
        return kShort;
      prev = std::move(file);
    }
    return kOk;
  }

  Reader &r_;
};

inline Expect expect_ocl(const uint8_t *data, size_t size) {
  Expect e;
  Reader r(data, size);
  OclModel m(r);
  Writer w;
  e.status = m.list(w);
  if (e.status == kOk) {
    e.consumed = r.pos();
    e.normal = std::move(w.b);
  }
  return e;
}

// ---------------------------------------------------------------- integrity control list

struct IclExpect : Expect {
  uint16_t count = 0;
  Bytes forward; // the count and the entries' normal forms in blob order
  // `normal` (inherited) holds the count and the entries in reverse order.
};

inline IclExpect expect_icl(const uint8_t *data, size_t size) {
  IclExpect e;
  Reader r(data, size);
  if (!r.u16(&e.count) || !r.fits(e.count, kMinIclEntry)) {
    e.status = kShort;
    return e;
  }
  std::vector<Bytes> entries;
  for (uint32_t i = 0; i < e.count; i++) {
    Writer w;
    IdValue id;
    e.status = model_id(r, w, &id);
    if (e.status != kOk)
      return e;
    OclModel m(r);
    e.status = m.list(w);
    if (e.status != kOk)
      return e;
    entries.push_back(std::move(w.b));
  }
  e.consumed = r.pos();
  Writer fwd, rev;
  fwd.u16(e.count);
  rev.u16(e.count);
  for (const Bytes &b : entries)
    fwd.raw(b);
  for (auto it = entries.rbegin(); it != entries.rend(); ++it)
    rev.raw(*it);
  e.forward = std::move(fwd.b);
  e.normal = std::move(rev.b);
  return e;
}

} // namespace fuzz

#endif // FSIC_FUZZ_BLOB_MODEL_H
