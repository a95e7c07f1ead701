// An independent reader of the three blob formats (volume-identifier record, object
// control list, integrity control list) for the fuzz targets. It does not build any
// library record: it walks the bytes, predicts the status that the library's reader
// must return, how many bytes it consumes, and the exact bytes that the library's
// writer must produce for what was read (the "normal form" of the input).
//
// Normal form, as the library's reader and writer define it:
//  - Strings are read as (u16 length, bytes) and kept as C strings, so a string with
//    a NUL byte is written back cut at its first NUL, with the length prefix adjusted.
//    No other byte of a string changes.
//  - Integers, flags (u16 in the blob, widened on reading, low 16 bits written back),
//    hashes and attribute records are written back exactly as read.
//  - Object control list: objects are written in ascending strcmp order of their (cut)
//    paths; of several objects with the same path only the last one read is kept, and
//    the count written is the number of distinct paths, not the count read. A mask count
//    of 0 gives no mask array (written as 0 again); any other count keeps its masks, so
//    a non-null empty mask array cannot come out of a blob. Info records keep every
//    subdirectory and file read, in blob order, even empty ones.
//  - Integrity control list: the entry count is written back as read (entries are never
//    merged, duplicates stay); the reader puts each entry at the front, so the writer
//    emits them in reverse order. write(read(b)) is the count followed by the normal
//    forms of the entries in reverse, and write(read(write(read(b)))) is the count
//    followed by them in blob order: the consumed prefix of b itself when no string
//    has a NUL and every embedded list is already in normal form.
//  - Identifier record: kind, cut string(s) and the u16 number, so read then write
//    gives exactly the consumed bytes when no string holds a NUL byte.
//
// Statuses: 1 when the blob ends inside a field, for an unknown identifier kind or
// object type; 3 for a count above INT32_MAX (it cannot be held) and for info records
// nested deeper than kMaxInfoDepth (the reader refuses them instead of running out of
// stack). Arrays are allocated at their full count before their entries are read, so
// a large count may also end in 3 when the allocation fails: `may_run_out` records
// that the reader asked for at least kLargeAllocation bytes at once, the only way the
// library can return 3 for an input that the model otherwise reads.
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

// A lower bound for a single allocation that may fail in a fuzzing or replay run (the
// sanitizer allocator returns null above 24 MiB there; nothing below 1 MiB ever fails).
constexpr uint64_t kLargeAllocation = 1u << 20;

constexpr uint32_t kOk = 0;
constexpr uint32_t kShort = 1; // also unknown kinds and types
constexpr uint32_t kNoMemory = 3;

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
  // A string field, cut at its first NUL as the library keeps it.
  bool str(std::string *s) {
    uint16_t len;
    const uint8_t *p;
    if (!u16(&len) || !take(len, &p))
      return false;
    s->assign(reinterpret_cast<const char *>(p), len);
    s->resize(strnlen(s->c_str(), s->size()));
    return true;
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
  bool may_run_out = false;
  size_t consumed = 0; // on success
  Bytes normal;        // on success: what the writer must produce
};

// The library's status against the model: 3 is also allowed after a large request.
inline bool status_matches(uint32_t got, const Expect &want) {
  if (got == kNoMemory && want.may_run_out)
    return true;
  return got == want.status;
}

// ---------------------------------------------------------------- identifier record

struct IdValue {
  uint16_t kind = 0;
  std::string first;   // serial, image name or group name
  uint16_t number = 0; // kinds 0 and 1
  std::string second;  // kind 2: volume name
};

// Reads one record: 0, or 1 when short or of unknown kind (then `r` stands after the
// kind). The normal form goes to `w`.
inline uint32_t model_id(Reader &r, Writer &w, IdValue *v) {
  if (!r.u16(&v->kind))
    return kShort;
  if (v->kind > 2)
    return kShort;
  if (!r.str(&v->first))
    return kShort;
  w.u16(v->kind);
  w.str(v->first);
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
    if (!r_.u32(&count))
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

  bool may_run_out() const { return may_run_out_; }

private:
  static constexpr uint32_t kEachFile = 1, kControlData = 4, kControlAttrs = 8;

  void note_array(uint32_t count, size_t elem) {
    if (static_cast<uint64_t>(count) * elem >= kLargeAllocation)
      may_run_out_ = true;
  }

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
    if (!r_.str(path) || !r_.u16(&flags))
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
    if (!r_.str(path) || !r_.u16(&mask_count))
      return kShort;
    w.u16(1);
    w.str(*path);
    w.u16(mask_count);
    for (uint16_t i = 0; i < mask_count; i++) {
      std::string mask;
      if (!r_.str(&mask))
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

  // One info record at nesting level `depth` (the root's is 1).
  uint32_t info(uint32_t flags, unsigned depth, Writer &w) {
    if (depth > kMaxInfoDepth)
      return kNoMemory;
    uint32_t subdirs;
    if (!r_.u32(&subdirs))
      return kShort;
    if (subdirs > INT32_MAX)
      return kNoMemory;
    if (subdirs) {
      note_array(subdirs, sizeof(char *));
      if (flags & kControlAttrs)
        note_array(subdirs, 8);
    }
    w.u32(subdirs);
    for (uint32_t i = 0; i < subdirs; i++) {
      std::string name;
      if (!r_.str(&name))
        return kShort;
      w.str(name);
      if (uint32_t st = info(flags, depth + 1, w))
        return st;
      if ((flags & kControlAttrs) && !copy(8, w))
        return kShort;
    }
    uint32_t files;
    if (!r_.u32(&files))
      return kShort;
    if (files > INT32_MAX)
      return kNoMemory;
    if (files) {
      note_array(files, sizeof(char *));
      if (flags & kControlData)
        note_array(files, 32);
      if (flags & kControlAttrs)
        note_array(files, 16);
    }
    w.u32(files);
    for (uint32_t i = 0; i < files; i++) {
      std::string name;
      if (!r_.str(&name))
        return kShort;
      w.str(name);
      if ((flags & kControlData) && !copy(32, w))
        return kShort;
      if ((flags & kControlAttrs) && !copy(16, w))
        return kShort;
    }
    return kOk;
  }

  Reader &r_;
  bool may_run_out_ = false;
};

inline Expect expect_ocl(const uint8_t *data, size_t size) {
  Expect e;
  Reader r(data, size);
  OclModel m(r);
  Writer w;
  e.status = m.list(w);
  e.may_run_out = m.may_run_out();
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
  if (!r.u16(&e.count)) {
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
    e.may_run_out = e.may_run_out || m.may_run_out();
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
