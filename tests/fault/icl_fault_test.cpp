// Allocation failures in volume identifiers and integrity control lists: the three
// constructors, copies, records written and read, the list's creation and blob both
// ways, and (as root, on an ext4 image attached to a loop device) mount points and the
// adds of files and directories, into a list without and with the volume's entry. A
// failure leaves the list byte for byte as it was, gives nothing out, leaves the volume
// unmounted and no directory behind, and leaves nothing allocated.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/icl.h>
#include <fsic/mount.h>
#include <fsic/volume_id.h>

#include "fault_gtest.h"
#include "fault_mounted.h"
#include "fault_tree.h"
#include "fs/icl_internal.h"
#include "icl_report.h"
#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/require_root.h"
#include "tests/support/volume_records.h"
#include "tests/unit/driver/stdio_capture.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;
using faulttest::Bytes;

using icltest::blob_of;

Bytes record_of(const fs_volume_id *id) {
  wb w;
  if (wb_init(&w, 0) != FSIC_OK || id->ops->write(id, &w) != FSIC_OK)
    throw std::runtime_error("the identifier could not be written");
  Bytes b(w.data, w.data + w.used);
  wb_finalize(&w, 1);
  return b;
}

// The identifiers of the tests, one of each kind, made by `make`.
struct id_case {
  const char *name;
  std::function<fsic_status(fs_volume_id **)> make;
};

const std::vector<id_case> &id_cases() {
  static const std::vector<id_case> cases = {
      {"partition",
       [](fs_volume_id **out) { return fs_partition_id_create("VIRTIO-SER-1", 5, out); }},
      {"image partition",
       [](fs_volume_id **out) { return fs_image_partition_id_create("esx console", 1, out); }},
      {"lvm volume",
       [](fs_volume_id **out) { return fs_lvm_volume_id_create("vg-data", "lv_home", out); }},
  };
  return cases;
}

fs_volume_id *make_id(const id_case &c) {
  fs_volume_id *id = nullptr;
  if (c.make(&id) != FSIC_OK)
    throw std::runtime_error("no identifier");
  return id;
}

// An identifier given out by a call: its record must equal `want` (an undisturbed
// one's); a failed call gives none.
struct id_out {
  fs_volume_id sentinel{};
  fs_volume_id *id = nullptr;
  void reset() { id = &sentinel; }
  void check_none(checks &c) const { c.that(id == &sentinel, "an identifier came out"); }
  void check_equal(checks &c, const fs_volume_id *want) const {
    c.that(fs_volume_id_compare(id, want) == 0, "the identifier differs");
    c.that(record_of(id) == record_of(want), "the identifier's record differs");
  }
  void release() {
    if (id != &sentinel && id)
      fs_volume_id_destroy(id);
    id = nullptr;
  }
};

TEST(FaultVolumeId, Constructors) {
  for (const id_case &ic : id_cases()) {
    fs_volume_id *want = make_id(ic);
    id_out out;
    operation op;
    op.name = std::string("fs_") +
              (ic.name == std::string("partition")    ? "partition"
               : ic.name == std::string("lvm volume") ? "lvm_volume"
                                                      : "image_partition") +
              "_id_create";
    op.setup = [&] { out.reset(); };
    op.call = [&] { return ic.make(&out.id); };
    op.after_failure = [&](checks &c, const attempt &) { out.check_none(c); };
    op.after_success = [&](checks &c, const attempt &) { out.check_equal(c, want); };
    op.teardown = [&] { out.release(); };
    fault::expect_exercised(fault::run(op), op);
    fs_volume_id_destroy(want);
  }
}

TEST(FaultVolumeId, Copy) {
  for (const id_case &ic : id_cases()) {
    fs_volume_id *source = make_id(ic);
    const Bytes before = record_of(source);
    id_out out;
    operation op;
    op.name = std::string("copy of the ") + ic.name + " identifier";
    op.setup = [&] { out.reset(); };
    op.call = [&] { return source->ops->copy(source, &out.id); };
    op.after_failure = [&](checks &c, const attempt &) {
      out.check_none(c);
      c.that(record_of(source) == before, "the source changed");
    };
    op.after_success = [&](checks &c, const attempt &) { out.check_equal(c, source); };
    op.teardown = [&] { out.release(); };
    fault::expect_exercised(fault::run(op), op);
    fs_volume_id_destroy(source);
  }
}

// A record appended to a buffer with bytes in it already, so that it grows: a failure
// keeps the bytes written before (the record may be partly written, as every writer of
// several fields leaves its blob, and the buffer stays valid).
TEST(FaultVolumeId, WriteARecord) {
  for (const id_case &ic : id_cases()) {
    fs_volume_id *id = make_id(ic);
    const Bytes record = record_of(id);
    const Bytes prefix = {'P', 'R', 'E', 'F', 'I', 'X'};
    wb w;
    operation op;
    op.name = std::string("write of the ") + ic.name + " identifier";
    op.setup = [&] {
      ASSERT_EQ(wb_init(&w, 7), FSIC_OK);
      ASSERT_EQ(wb_write(&w, prefix.data(), 6), FSIC_OK);
    };
    op.call = [&] { return fs_volume_id_write_to_wbuf(id, &w); };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(w.used >= 6 && Bytes(w.data, w.data + 6) == prefix, "the bytes before changed");
    };
    op.after_success = [&](checks &c, const attempt &) {
      Bytes want = prefix;
      want.insert(want.end(), record.begin(), record.end());
      c.that(Bytes(w.data, w.data + w.used) == want, "the record differs");
    };
    op.held = [&] { return fault::live_counts{1, fault::block_bytes(w.data)}; };
    op.teardown = [&] { wb_finalize(&w, 1); };
    fault::expect_exercised(fault::run(op), op);
    fs_volume_id_destroy(id);
  }
}

TEST(FaultVolumeId, ReadARecord) {
  for (const id_case &ic : id_cases()) {
    fs_volume_id *want = make_id(ic);
    const Bytes record = record_of(want);
    rb r;
    id_out out;
    operation op;
    op.name = std::string("read of the ") + ic.name + " identifier";
    op.setup = [&] {
      rb_init(&r, record.data(), static_cast<uint32_t>(record.size()));
      out.reset();
    };
    op.call = [&] { return fs_volume_id_read_from_rbuf(&r, &out.id); };
    op.after_failure = [&](checks &c, const attempt &) { out.check_none(c); };
    op.after_success = [&](checks &c, const attempt &) {
      out.check_equal(c, want);
      c.equal(r.pos, static_cast<uint32_t>(record.size()), "position");
    };
    op.teardown = [&] { out.release(); };
    fault::expect_exercised(fault::run(op), op);
    fs_volume_id_destroy(want);
  }
}

// ---- lists without mounts ---------------------------------------------------------------

class FaultIcl : public faulttest::tree_suite {
protected:
  // A list with an entry of each kind of identifier, each with objects of its own (made
  // from the test tree without a mount).
  static fs_icl *rich_list() {
    fs_icl *list = nullptr;
    EXPECT_EQ(fs_icl_create(&list), FSIC_OK);
    int i = 0;
    for (const id_case &ic : id_cases()) {
      fs_ocl *ocl = nullptr;
      EXPECT_EQ(fs_ocl_create(&ocl), FSIC_OK);
      EXPECT_EQ(fs_ocl_add_file(ocl, base(), "/tree/data.bin", 12, nullptr), FSIC_OK);
      if (i++ != 1) {
        EXPECT_EQ(fs_ocl_add_dir(ocl, base(), "/tree", faulttest::test_masks(), 15, nullptr),
                  FSIC_OK);
      }
      EXPECT_EQ(_fs_icl_create_volume(list, make_id(ic), ocl, nullptr), FSIC_OK);
    }
    return list;
  }
};

TEST_F(FaultIcl, CreateAndDestroy) {
  faulttest::exercise_create("fs_icl_create", fs_icl_create, fs_icl_destroy, "entries");
  fs_icl *list = nullptr;

  operation destroy;
  destroy.name = "fs_icl_destroy";
  destroy.setup = [&] { list = rich_list(); };
  destroy.call = [&] {
    fs_icl_destroy(list);
    return FSIC_OK;
  };
  EXPECT_EQ(fault::run(destroy).points, 0);
}

// Removing allocates nothing (the runs show that it frees what it removes), also when
// the entry goes with its last object.
TEST_F(FaultIcl, RemoveAllocatesNothing) {
  fs_icl *list = nullptr;
  for (bool last : {false, true}) {
    // The partition's entry has two objects, the image partition's one.
    fs_volume_id *id = make_id(id_cases()[last ? 1 : 0]);
    operation op;
    op.name = std::string("fs_icl_remove_object") + (last ? " of the last object" : "");
    op.setup = [&] { list = rich_list(); };
    op.call = [&] { return fs_icl_remove_object(list, id, "/tree/data.bin"); };
    op.after_success = [&](checks &c, const attempt &) {
      c.equal(list->count, last ? 2u : 3u, "entries");
    };
    op.teardown = [&] { fs_icl_destroy(list); };
    EXPECT_EQ(fault::run(op).points, 0);
    fs_volume_id_destroy(id);
  }
}

TEST_F(FaultIcl, WriteTheBlob) {
  fs_icl *list = rich_list();
  const Bytes reference = blob_of(list);
  faulttest::exercise_write_to_mem("fs_icl_write_to_mem", fs_icl_write_to_mem, list);

  // Into a buffer of the caller's: the bytes before stay (the list's blob may be partly
  // written: the buffer then holds a partial blob, as documented).
  wb w;
  const Bytes prefix = {'H', 'E', 'A', 'D'};
  operation into;
  into.name = "fs_icl_write_to_wbuf";
  into.setup = [&] {
    ASSERT_EQ(wb_init(&w, 8), FSIC_OK);
    ASSERT_EQ(wb_write(&w, prefix.data(), 4), FSIC_OK);
  };
  into.call = [&] { return fs_icl_write_to_wbuf(list, &w); };
  into.after_failure = [&](checks &c, const attempt &) {
    c.that(w.used >= 4 && Bytes(w.data, w.data + 4) == prefix, "the bytes before changed");
    c.that(blob_of(list) == reference, "the list changed");
  };
  into.after_success = [&](checks &c, const attempt &) {
    Bytes want = prefix;
    want.insert(want.end(), reference.begin(), reference.end());
    c.that(Bytes(w.data, w.data + w.used) == want, "the blob differs");
  };
  into.held = [&] { return fault::live_counts{1, fault::block_bytes(w.data)}; };
  into.teardown = [&] { wb_finalize(&w, 1); };
  fault::expect_exercised(fault::run(into), into);
  fs_icl_destroy(list);
}

TEST_F(FaultIcl, ReadTheBlob) {
  fs_icl *source = rich_list();
  const Bytes blob = blob_of(source);
  fs_icl_destroy(source);
  for (bool from_rbuf : {false, true}) {
    fs_icl sentinel{};
    fs_icl *list = nullptr;
    rb r;
    operation op;
    op.name = from_rbuf ? "fs_icl_read_from_rbuf" : "fs_icl_read_from_mem";
    op.setup = [&] {
      list = &sentinel;
      rb_init(&r, blob.data(), static_cast<uint32_t>(blob.size()));
    };
    op.call = [&] {
      return from_rbuf
                 ? fs_icl_read_from_rbuf(&r, &list)
                 : fs_icl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &list);
    };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(list == &sentinel, "a list came out");
    };
    op.after_success = [&](checks &c, const attempt &) {
      c.equal(list->count, 3u, "entries");
      // Read back, the entries come in the reverse order; a second round trip restores it.
      fs_icl *again = nullptr;
      const Bytes once = blob_of(list);
      c.that(fs_icl_read_from_mem(once.data(), static_cast<uint32_t>(once.size()), &again) ==
                 FSIC_OK,
             "the list read back cannot be read again");
      if (again) {
        c.that(blob_of(again) == blob, "the list read back differs");
        fs_icl_destroy(again);
      }
    };
    op.teardown = [&] {
      if (list != &sentinel)
        fs_icl_destroy(list);
    };
    fault::expect_exercised(fault::run(op), op);
  }
}

// An entry that cannot be made consumes neither its identifier nor the object list it
// was given: both stay the caller's (the teardown destroys them; a double free or a
// leak would show), and the list stays empty.
TEST_F(FaultIcl, AnEntryThatCannotBeMadeLeavesItsPartsToTheCaller) {
  for (bool with_ocl : {false, true}) {
    fs_icl *list = nullptr;
    fs_volume_id *id = nullptr;
    fs_ocl *ocl = nullptr;
    fs_icl_volume sentinel{};
    fs_icl_volume *entry = nullptr;
    operation op;
    op.name = std::string("_fs_icl_create_volume") + (with_ocl ? " with a list" : "");
    op.setup = [&] {
      ASSERT_EQ(fs_icl_create(&list), FSIC_OK);
      id = make_id(id_cases()[0]);
      ocl = nullptr;
      if (with_ocl) {
        ASSERT_EQ(fs_ocl_create(&ocl), FSIC_OK);
      }
      entry = &sentinel;
    };
    op.call = [&] { return _fs_icl_create_volume(list, id, ocl, &entry); };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(entry == &sentinel, "an entry came out");
      c.equal(list->count, 0u, "entries");
      c.that(fs_icl_first_volume(list) == nullptr, "an entry was linked");
    };
    op.after_success = [&](checks &c, const attempt &) {
      c.equal(list->count, 1u, "entries");
      c.that(entry == fs_icl_first_volume(list), "the new entry did not come out");
      c.that(entry != &sentinel && entry->id == id, "the identifier was not taken");
      c.that(entry != &sentinel && entry->ocl && (!with_ocl || entry->ocl == ocl),
             "the object list was not taken");
    };
    op.teardown = [&] {
      if (entry == &sentinel) {
        fs_volume_id_destroy(id);
        if (ocl)
          fs_ocl_destroy(ocl);
      }
      fs_icl_destroy(list);
    };
    fault::expect_exercised(fault::run(op), op);
  }
}

// The driver's round trip (write, read, then two more rounds on the copy): each
// failure is reported by its own message and ends in the library's status; no copy
// comes out and nothing stays allocated.
TEST_F(FaultIcl, TheDriversRoundTripReportsEachFailure) {
  fs_icl *list = rich_list();
  const Bytes reference = blob_of(list);
  fs_icl sentinel{};
  fs_icl *copy = nullptr;
  // Standard error goes to a file from setup to teardown, outside the armed call, so
  // that the capture's own allocations are not the operation's.
  std::optional<drivertest::stderr_capture> err;
  // (Flags, not a set of strings: the checks must leave no block behind.)
  static const char *const kMessages[] = {
      "error: can't write icl to memory\n", "error: can't read icl from memory\n",
      "error: can't write icl2 to memory\n", "error: can't read icl2 from memory\n"};
  bool seen[4] = {};
  operation op;
  op.name = "save_and_restore_icl cycles=2";
  op.setup = [&] {
    copy = &sentinel;
    err.emplace();
  };
  op.call = [&] { return save_and_restore_icl(list, &copy, 2); };
  op.after_failure = [&](checks &c, const attempt &) {
    const std::string text = err->text();
    const auto known = std::find(std::begin(kMessages), std::end(kMessages), text);
    c.that(known != std::end(kMessages), "unexpected message \"" + text + "\"");
    if (known != std::end(kMessages))
      seen[known - std::begin(kMessages)] = true;
    c.that(copy == &sentinel, "a copy came out");
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(err->text(), std::string(), "message");
    // Three round trips reverse the entries an odd number of times; one more read puts
    // them back in order.
    fs_icl *back = nullptr;
    const Bytes once = blob_of(copy);
    c.that(fs_icl_read_from_mem(once.data(), static_cast<uint32_t>(once.size()), &back) == FSIC_OK,
           "the copy cannot be read back");
    if (back) {
      c.that(blob_of(back) == reference, "the copy differs");
      fs_icl_destroy(back);
    }
  };
  op.teardown = [&] {
    err.reset();
    if (copy != &sentinel)
      fs_icl_destroy(copy);
  };
  fault::expect_exercised(fault::run(op), op);
  for (int i = 0; i < 4; i++)
    EXPECT_TRUE(seen[i]) << "never seen: " << kMessages[i];
  EXPECT_EQ(blob_of(list), reference);
  fs_icl_destroy(list);
}

// ---- adds on a mounted volume (root) ----------------------------------------------------

// The tree's image on a loop device (fault_mounted.h).
class FaultIclMounted : public faulttest::mounted_image_suite {
protected:
  // An add into a list that is empty or already has the volume's entry.
  void exercise_add(const std::string &name, bool entry_exists, const char *path,
                    std::function<fsic_status(fs_icl *, fs_ocl_object **)> add,
                    fault::scope sc = fault::scope::library,
                    std::vector<fault::mode> modes = {fault::mode::once, fault::mode::from}) {
    fs_icl *list = nullptr;
    fs_icl_volume *entry = nullptr;
    fs_ocl_object sentinel{};
    fs_ocl_object *out = nullptr;
    Bytes before, reference;
    operation op;
    op.name = name + (entry_exists ? " (entry exists)" : " (new entry)");
    op.sc = sc;
    op.modes = modes;
    op.setup = [&] {
      ASSERT_EQ(fs_icl_create(&list), FSIC_OK);
      if (entry_exists) {
        ASSERT_EQ(fs_icl_add_file(list, volume(), "/tree/readme.txt", 12, nullptr), FSIC_OK);
      }
      entry = fs_icl_first_volume(list);
      before = blob_of(list);
      out = &sentinel;
    };
    op.call = [&] { return add(list, &out); };
    op.after_failure = [&](checks &c, const attempt &) {
      c.that(blob_of(list) == before, "the list's blob changed");
      c.equal(list->count, entry_exists ? 1u : 0u, "entries");
      c.that(fs_icl_first_volume(list) == entry, "the entry changed");
      c.that(out == &sentinel, "an object came out");
      check_released(c);
    };
    op.after_success = [&](checks &c, const attempt &) {
      const Bytes now = blob_of(list);
      if (reference.empty())
        reference = now;
      c.that(now == reference, "the list differs from an undisturbed add's");
      c.equal(list->count, 1u, "entries");
      c.that(out != &sentinel && out == fs_icl_volume_find_object(fs_icl_first_volume(list), path),
             "the new object did not come out");
      check_released(c);
    };
    op.teardown = [&] {
      fs_icl_destroy(list);
      list = nullptr;
    };
    fault::expect_exercised(fault::run(op), op);
  }
};

TEST_F(FaultIclMounted, MountPoint) {
  const char *mount_point = nullptr;
  operation op;
  op.name = "fs_volume_get_mount_point";
  op.setup = [&] { mount_point = nullptr; };
  op.call = [&] { return fs_volume_get_mount_point(volume(), &mount_point); };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(mount_point == nullptr, "a mount point came out");
    check_released(c);
  };
  op.after_success = [&](checks &c, const attempt &) {
    c.equal(volume()->mount_count, 1, "holds");
    c.equal(support::count_mounts_of(dev_), 1, "mounts of the device");
    c.that(support::exists(std::string(mount_point) + "/tree/readme.txt"),
           "the volume is not there");
  };
  op.teardown = [&] {
    if (mount_point)
      fs_volume_release_mount_point(volume());
  };
  fault::expect_exercised(fault::run(op), op);

  // A second hold allocates nothing.
  operation second = op;
  second.name = "fs_volume_get_mount_point held";
  second.setup = [&] { ASSERT_EQ(fs_volume_get_mount_point(volume(), &mount_point), FSIC_OK); };
  second.after_success = [&](checks &c, const attempt &) {
    c.equal(volume()->mount_count, 2, "holds");
  };
  second.teardown = [&] {
    fs_volume_release_mount_point(volume());
    fs_volume_release_mount_point(volume());
  };
  EXPECT_EQ(fault::run(second).points, 0);
}

TEST_F(FaultIclMounted, AddFile) {
  for (bool exists : {false, true}) {
    for (uint32_t flags : {12u, 15u}) {
      exercise_add("fs_icl_add_file flags=" + std::to_string(flags), exists, "/tree/data.bin",
                   [&, flags](fs_icl *list, fs_ocl_object **out) {
                     return fs_icl_add_file(list, volume(), "/tree/data.bin", flags, out);
                   });
    }
  }
}

// Each run mounts and unmounts the image: the directories fail one allocation at a time
// only (the object lists' own tests fail every one from the n-th on as well).
TEST_F(FaultIclMounted, AddDir) {
  struct dir_case {
    uint32_t flags;
    bool masks;
  };
  for (bool exists : {false, true}) {
    for (dir_case d : {dir_case{15, true}, dir_case{4, false}}) {
      char *const *masks = d.masks ? faulttest::test_masks() : nullptr;
      exercise_add("fs_icl_add_dir flags=" + std::to_string(d.flags) +
                       " masks=" + std::to_string(d.masks ? 2 : 0),
                   exists, "/tree",
                   [&, d, masks](fs_icl *list, fs_ocl_object **out) {
                     return fs_icl_add_dir(list, volume(), "/tree", masks, d.flags, out);
                   },
                   fault::scope::library, {fault::mode::once});
    }
  }
}

// Every allocation of the process: also libc's (the directory streams, the time zone).
TEST_F(FaultIclMounted, AddsWithEveryAllocationOfTheProcess) {
  FAULT_REQUIRE_PROCESS_SCOPE();
  exercise_add(
      "fs_icl_add_file flags=12", false, "/tree/data.bin",
      [&](fs_icl *list, fs_ocl_object **out) {
        return fs_icl_add_file(list, volume(), "/tree/data.bin", 12, out);
      },
      fault::scope::process);
  exercise_add("fs_icl_add_dir flags=15 masks=2", true, "/tree",
               [&](fs_icl *list, fs_ocl_object **out) {
                 return fs_icl_add_dir(list, volume(), "/tree", faulttest::test_masks(), 15, out);
               },
               fault::scope::process, {fault::mode::once});
}

} // namespace
