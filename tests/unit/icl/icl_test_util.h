// Shared helpers of the integrity control list tests: owning pointers, identifiers,
// entries made by hand, an encoder of list blobs of its own (built on the object list
// encoder) and a model of whole lists.
#ifndef FSIC_TESTS_UNIT_ICL_ICL_TEST_UTIL_H
#define FSIC_TESTS_UNIT_ICL_ICL_TEST_UTIL_H

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/buffer.h>
#include <fsic/icl.h>
#include <fsic/ocl.h>
#include <fsic/volume_id.h>

#include "fs/icl_internal.h"
#include "tests/unit/ocl/ocl_test_util.h"

namespace icltest {

using ocltest::Bytes;
using ocltest::Enc;
using ocltest::Obj;
using ocltest::OclPtr;

using ocltest::heap_in_use;

// ---------------------------------------------------------------- owning pointers

struct IclDeleter {
  void operator()(fs_icl *list) const { fs_icl_destroy(list); }
};
using IclPtr = std::unique_ptr<fs_icl, IclDeleter>;

struct IdDeleter {
  void operator()(fs_volume_id *id) const { fs_volume_id_destroy(id); }
};
using IdPtr = std::unique_ptr<fs_volume_id, IdDeleter>;

inline IclPtr new_icl() {
  fs_icl *list = nullptr;
  if (fs_icl_create(&list) != FSIC_OK)
    throw std::runtime_error("fs_icl_create failed");
  return IclPtr(list);
}

inline IdPtr partition_id(const std::string &serial, uint32_t number) {
  fs_volume_id *id = nullptr;
  if (fs_partition_id_create(serial.c_str(), number, &id) != FSIC_OK)
    throw std::runtime_error("fs_partition_id_create failed");
  return IdPtr(id);
}

inline IdPtr image_id(const std::string &name, uint32_t number) {
  fs_volume_id *id = nullptr;
  if (fs_image_partition_id_create(name.c_str(), number, &id) != FSIC_OK)
    throw std::runtime_error("fs_image_partition_id_create failed");
  return IdPtr(id);
}

inline IdPtr lvm_id(const std::string &group, const std::string &volume) {
  fs_volume_id *id = nullptr;
  if (fs_lvm_volume_id_create(group.c_str(), volume.c_str(), &id) != FSIC_OK)
    throw std::runtime_error("fs_lvm_volume_id_create failed");
  return IdPtr(id);
}

// Puts an entry at the front of the list that takes over the identifier and the object
// list (a new empty one when `ocl` is null).
inline fs_icl_volume *add_entry(fs_icl *list, IdPtr id, OclPtr ocl = OclPtr()) {
  fs_icl_volume *entry = nullptr;
  if (_fs_icl_create_volume(list, id.get(), ocl.get(), &entry) != FSIC_OK)
    throw std::runtime_error("_fs_icl_create_volume failed");
  id.release();
  ocl.release();
  return entry;
}

// The list's blob (throws when writing fails, which no test expects).
inline Bytes blob_of(const fs_icl *list) { return ocltest::blob_by(fs_icl_write_to_mem, list); }

// Reads a blob; `*out` is left as it was unless the read succeeds.
inline fsic_status read_icl(const Bytes &b, IclPtr *out) {
  return ocltest::read_by(fs_icl_read_from_mem, b, out);
}

inline std::vector<fs_icl_volume *> entries_of(fs_icl *list) {
  std::vector<fs_icl_volume *> r;
  for (fs_icl_volume *e = fs_icl_first_volume(list); e; e = fs_icl_next_volume(list, e))
    r.push_back(e);
  return r;
}

inline std::vector<std::string> paths_of(fs_icl_volume *entry) {
  std::vector<std::string> r;
  for (fs_ocl_object *o = fs_icl_volume_first_object(entry); o; o = fs_icl_volume_next_object(o))
    r.emplace_back(o->path);
  return r;
}

// ---------------------------------------------------------------- model of a list

// An identifier as the model sees it: kind 0 and 1 carry a number, kind 2 a second name.
struct Id {
  uint16_t kind = 0;
  std::string first;
  uint32_t number = 0;
  std::string second;

  IdPtr make() const {
    switch (kind) {
      case 0:
        return partition_id(first, number);
      case 1:
        return image_id(first, number);
      default:
        return lvm_id(first, second);
    }
  }
  std::string describe() const {
    return std::to_string(kind) + ":" + first + ":" + (kind == 2 ? second : std::to_string(number));
  }
};

inline void encode_id(Enc &e, const Id &id) {
  e.u16(id.kind).str(id.first);
  if (id.kind == 2)
    e.str(id.second);
  else
    e.u16(static_cast<uint16_t>(id.number));
}

// One entry: its identifier and its objects (any order; the encoder sorts them by path,
// as the object list's own writer does, and keeps the last of equal paths).
struct Entry {
  Id id;
  std::vector<Obj> objects;

  std::vector<Obj> sorted() const {
    std::map<std::string, Obj> by_path; // std::string orders bytes as unsigned, as strcmp
    for (const Obj &o : objects)
      by_path[o.path] = o;
    std::vector<Obj> r;
    for (auto &[path, o] : by_path)
      r.push_back(o);
    return r;
  }
};

// The object list's blob of the entry's objects.
inline Bytes ocl_blob(const Entry &entry) {
  Enc e;
  std::vector<Obj> objs = entry.sorted();
  e.u32(static_cast<uint32_t>(objs.size()));
  for (const Obj &o : objs)
    ocltest::encode_object(e, o);
  return e.b;
}

// The entry's objects as a library object list, read from their blob.
inline OclPtr ocl_of(const Entry &entry) {
  OclPtr ocl;
  if (ocltest::read_blob(ocl_blob(entry), &ocl) != FSIC_OK)
    throw std::runtime_error("fs_ocl_read_from_mem failed");
  return ocl;
}

inline void encode_entry(Enc &e, const Entry &entry) {
  encode_id(e, entry.id);
  e.raw(ocl_blob(entry));
}

// The blob of entries in the given order, with the count as given.
inline Bytes encode_list(const std::vector<Entry> &entries, uint16_t count) {
  Enc e;
  e.u16(count);
  for (const Entry &entry : entries)
    encode_entry(e, entry);
  return e.b;
}
inline Bytes encode_list(const std::vector<Entry> &entries) {
  return encode_list(entries, static_cast<uint16_t>(entries.size()));
}

inline std::vector<Entry> reversed(std::vector<Entry> entries) {
  std::reverse(entries.begin(), entries.end());
  return entries;
}

// The identifier's members against the model.
inline void expect_id(const fs_volume_id *id, const Id &m) {
  ASSERT_NE(id, nullptr);
  SCOPED_TRACE("identifier " + m.describe());
  ASSERT_EQ(fs_volume_id_type(id), m.kind);
  if (m.kind == 2) {
    auto *l = reinterpret_cast<const fs_lvm_volume_id *>(id);
    EXPECT_EQ(std::string(l->group_name), m.first);
    EXPECT_EQ(std::string(l->volume_name), m.second);
  } else {
    auto *p = reinterpret_cast<const fs_partition_id *>(id);
    EXPECT_EQ(std::string(p->disk_serial), m.first);
    EXPECT_EQ(p->number, m.number & 0xFFFFu);
  }
  IdPtr made = m.make();
  EXPECT_EQ(fs_volume_id_compare(id, made.get()), 0);
}

// The list's entries, in iteration order, against the model's entries in that order.
inline void expect_list(fs_icl *list, const std::vector<Entry> &model) {
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->count, model.size());
  std::vector<fs_icl_volume *> entries = entries_of(list);
  ASSERT_EQ(entries.size(), model.size());
  for (size_t i = 0; i < model.size(); i++) {
    SCOPED_TRACE("entry " + std::to_string(i));
    expect_id(entries[i]->id, model[i].id);
    std::vector<Obj> objs = model[i].sorted();
    ASSERT_EQ(entries[i]->ocl->count, objs.size());
    fs_ocl_object *o = fs_icl_volume_first_object(entries[i]);
    for (const Obj &m : objs) {
      ocltest::expect_object(o, m);
      if (!o)
        return;
      o = fs_icl_volume_next_object(o);
    }
    EXPECT_EQ(o, nullptr);
  }
}

// Random identifiers of all three kinds; strings of 0 to 20 bytes without NUL.
class Gen : public ocltest::Gen {
public:
  using ocltest::Gen::Gen;

  std::string text() {
    std::string s;
    uint32_t len = below(21);
    for (uint32_t i = 0; i < len; i++)
      s.push_back(static_cast<char>(1 + below(255)));
    return s;
  }
  Id id() {
    Id r;
    r.kind = static_cast<uint16_t>(below(3));
    r.first = text();
    if (r.kind == 2)
      r.second = text();
    else
      r.number = below(0x10000);
    return r;
  }
  Entry entry(uint32_t max_objects) {
    Entry e;
    e.id = id();
    uint32_t n = below(max_objects + 1);
    for (uint32_t i = 0; i < n; i++)
      e.objects.push_back(object(path()));
    return e;
  }
};

} // namespace icltest

#endif
