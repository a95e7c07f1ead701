// Allocation failures in the integrity control list: the allocations made during one
// operation are failed one at a time (the first, then the second, ...). Each run must
// end in 3 with nothing left allocated and the list unchanged. The allocator is
// replaced for this program only (not built with the sanitizers, which bring their own).
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include <fsic/gost_r3411_94.h>
#include <fsic/icl.h>

#include "held_volume.h"
#include "icl_report.h"
#include "icl_test_util.h"
#include "tests/unit/driver/stdio_capture.h"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void __libc_free(void *ptr);
}

namespace {

long g_countdown = -1;         // allocations still let through; -1: injection off
bool g_fired = false;          // the armed failure happened
bool g_fired_in_libc = false;  // ... in an allocation that libc made for itself
size_t g_fired_size = 0;       // ... of this many bytes
long g_live = 0;               // blocks allocated and not yet freed

bool inject(void *caller, size_t size) {
  if (g_countdown < 0)
    return false;
  if (g_countdown-- > 0)
    return false;
  g_fired = true;
  g_fired_size = size;
  Dl_info info;
  g_fired_in_libc = dladdr(caller, &info) && info.dli_fname &&
                    strstr(info.dli_fname, "libc.so") != nullptr;
  return true;
}

void *counted(void *p) {
  if (p)
    g_live++;
  return p;
}

}  // namespace

extern "C" {
void *malloc(size_t size) noexcept {
  return inject(__builtin_return_address(0), size) ? nullptr : counted(__libc_malloc(size));
}
void *calloc(size_t n, size_t size) noexcept {
  return inject(__builtin_return_address(0), n * size) ? nullptr
                                                       : counted(__libc_calloc(n, size));
}
void *realloc(void *ptr, size_t size) noexcept {
  if (inject(__builtin_return_address(0), size))
    return nullptr;
  void *p = __libc_realloc(ptr, size);
  if (!ptr && p)
    g_live++;
  else if (ptr && !p && size == 0)
    g_live--;
  return p;
}
void free(void *ptr) noexcept {
  if (ptr)
    g_live--;
  __libc_free(ptr);
}
}

namespace {

using namespace icltest;

void arm(long n) {
  g_countdown = n;
  g_fired = false;
  g_fired_in_libc = false;
  g_fired_size = 0;
}
void disarm() { g_countdown = -1; }

// Runs `op` with the 0th, 1st, ... allocation failing until a run needs fewer
// allocations than that; `check(status, n)` judges each failed run. `op` arms and
// disarms itself (through `armed`) around the code under test. Returns the number of
// allocations of a full run.
template <typename Op, typename Check>
long each_failure(Op op, Check check) {
  for (long n = 0;; n++) {
    fsic_status s = op(n);
    if (!g_fired) {
      EXPECT_EQ(s, FSIC_OK);
      return n;
    }
    check(s, n);
    if (::testing::Test::HasFailure())
      return n;
  }
}

// Calls `f` with allocation `n` failing; the blocks it leaves allocated are counted
// into `*leaked`.
template <typename F>
auto armed(long n, long *leaked, F f) {
  const long before = g_live;
  arm(n);
  auto r = f();
  disarm();
  *leaked = g_live - before;
  return r;
}

std::vector<Entry> rich_model() {
  Gen g(4242);
  std::vector<Entry> model;
  for (uint16_t kind = 0; kind < 3; kind++) {
    Entry e;
    e.id = Id{kind, "name" + std::to_string(kind), kind + 1u, "volume"};
    for (const char *p : {"/a", "/b", "/c"})
      e.objects.push_back(g.object(p));
    Obj d = g.object("/d");  // surely a directory with masks and an info tree
    d.type = FS_OCL_DIR;
    d.flags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
    d.has_masks = true;
    d.masks = {"*.dll", "*.exe"};
    d.info = g.info(2);
    d.info.subs.push_back(ocltest::Sub{"s", g.info(1), {}});
    e.objects.push_back(d);
    model.push_back(e);
  }
  return model;
}

TEST(IclAllocFault, CreateFailsWith3) {
  fs_icl *list = reinterpret_cast<fs_icl *>(0x10);
  long leaked = 0;
  EXPECT_EQ(armed(0, &leaked, [&] { return fs_icl_create(&list); }), FSIC_ERR_NO_MEMORY);
  EXPECT_EQ(list, reinterpret_cast<fs_icl *>(0x10));
  EXPECT_EQ(leaked, 0);
}

TEST(IclAllocFault, AnEntryThatCannotBeMadeDoesNotConsumeItsIdentifier) {
  IclPtr list = new_icl();
  for (long n = 0; n < 2; n++) {  // the entry, then its new object list
    IdPtr id = partition_id("S", 1);
    fs_icl_volume *entry = reinterpret_cast<fs_icl_volume *>(0x30);
    long leaked = 0;
    EXPECT_EQ(armed(n, &leaked,
                    [&] { return _fs_icl_create_volume(list.get(), id.get(), nullptr, &entry); }),
              FSIC_ERR_NO_MEMORY);
    EXPECT_TRUE(g_fired);
    EXPECT_EQ(leaked, 0);
    EXPECT_EQ(entry, reinterpret_cast<fs_icl_volume *>(0x30));
    EXPECT_EQ(list->count, 0u);
    EXPECT_EQ(fs_icl_first_volume(list.get()), nullptr);
    // `id` is still the caller's and is destroyed here.
  }
  // With an object list given, only the entry is allocated; on failure the list, too,
  // stays the caller's.
  IdPtr id = partition_id("S", 1);
  OclPtr ocl = ocltest::new_list();
  long leaked = 0;
  EXPECT_EQ(armed(0, &leaked,
                  [&] { return _fs_icl_create_volume(list.get(), id.get(), ocl.get(), nullptr); }),
            FSIC_ERR_NO_MEMORY);
  EXPECT_EQ(leaked, 0);
  EXPECT_EQ(list->count, 0u);
}

TEST(IclAllocFault, ReadingFailsWith3AndLeavesNothing) {
  const Bytes b = encode_list(rich_model());
  const long total = each_failure(
      [&](long n) {
        fs_icl *out = reinterpret_cast<fs_icl *>(0x40);
        long leaked = 0;
        fsic_status s = armed(n, &leaked, [&] {
          return fs_icl_read_from_mem(b.data(), static_cast<uint32_t>(b.size()), &out);
        });
        if (s == FSIC_OK) {
          fs_icl_destroy(out);
        } else {
          EXPECT_EQ(out, reinterpret_cast<fs_icl *>(0x40)) << "allocation " << n;
          EXPECT_EQ(leaked, 0) << "allocation " << n;
        }
        return s;
      },
      [](fsic_status s, long n) { EXPECT_EQ(s, FSIC_ERR_NO_MEMORY) << "allocation " << n; });
  EXPECT_GT(total, 40);
}

TEST(IclAllocFault, WritingFailsWith3AndLeavesNothing) {
  const std::vector<Entry> model = rich_model();
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list(model), &list), FSIC_OK);
  const Bytes expected = encode_list(reversed(model));
  const long total = each_failure(
      [&](long n) {
        uint8_t *data = reinterpret_cast<uint8_t *>(0x20);
        uint32_t size = 77;
        long leaked = 0;
        fsic_status s =
            armed(n, &leaked, [&] { return fs_icl_write_to_mem(list.get(), &data, &size); });
        if (s == FSIC_OK) {
          EXPECT_EQ(Bytes(data, data + size), expected);
          free(data);
        } else {
          EXPECT_EQ(data, reinterpret_cast<uint8_t *>(0x20));
          EXPECT_EQ(size, 77u);
          EXPECT_EQ(leaked, 0) << "allocation " << n;
        }
        return s;
      },
      [](fsic_status s, long n) { EXPECT_EQ(s, FSIC_ERR_NO_MEMORY) << "allocation " << n; });
  EXPECT_GT(total, 3);  // the buffer grew several times
  EXPECT_EQ(blob_of(list.get()), expected);
}

// Adding through a volume held on a temporary directory: every failed run is 3 (or 1
// for libc's own allocations and the hash context, which the object list reports as
// failures of the file system or of hashing), leaves nothing allocated and the list as
// it was.
class IclAllocFaultAdd : public ::testing::Test {
 protected:
  void SetUp() override {
    ocltest::write_file(root / "f.bin", std::string(5000, 'f'));
    ocltest::write_file(root / "d/a.dll", "a");
    ocltest::write_file(root / "d/sub/b.dll", "b");
    ocltest::write_file(root / "d/sub/c.txt", "c");
    ASSERT_EQ(fs_icl_add_file(list.get(), other.volume(), "/f.bin", 12, nullptr), FSIC_OK);
  }

  template <typename Add>
  void run(Add add, long at_least) {
    const Bytes before = blob_of(list.get());
    const long total = each_failure(
        [&](long n) {
          fs_ocl_object *out = reinterpret_cast<fs_ocl_object *>(0x50);
          long leaked = 0;
          fsic_status s = armed(n, &leaked, [&] { return add(&out); });
          if (s != FSIC_OK) {
            EXPECT_EQ(leaked, 0) << "allocation " << n;
            EXPECT_EQ(out, reinterpret_cast<fs_ocl_object *>(0x50));
            EXPECT_EQ(blob_of(list.get()), before) << "allocation " << n;
            EXPECT_EQ(vol.volume()->mount_count, 1);
          } else {
            EXPECT_NE(out, reinterpret_cast<fs_ocl_object *>(0x50));
          }
          return s;
        },
        [](fsic_status s, long n) {
          if (s == FSIC_ERR_FAILED &&
              (g_fired_in_libc || g_fired_size == sizeof(gost_r3411_94_ctx)))
            return;
          EXPECT_EQ(s, FSIC_ERR_NO_MEMORY) << "allocation " << n << " of " << g_fired_size
                                           << " bytes, in libc: " << g_fired_in_libc;
        });
    EXPECT_GE(total, at_least);
  }

  ocltest::TempDir root;
  HeldVolume vol{"NEW", 1, root.str().c_str()};
  HeldVolume other{"OLD", 1, root.str().c_str()};
  IclPtr list = new_icl();
};

TEST_F(IclAllocFaultAdd, AFileOnANewVolume) {
  run([&](fs_ocl_object **out) {
        return fs_icl_add_file(list.get(), vol.volume(), "/f.bin", 12, out);
      },
      8);
  EXPECT_EQ(list->count, 2u);
}

TEST_F(IclAllocFaultAdd, AFileOnAListedVolume) {
  run([&](fs_ocl_object **out) {
        return fs_icl_add_file(list.get(), other.volume(), "/d/a.dll", 12, out);
      },
      5);
  EXPECT_EQ(list->count, 1u);
}

TEST_F(IclAllocFaultAdd, ADirectoryOnANewVolume) {
  char dll[] = "*.dll";
  char *masks[] = {dll, nullptr};
  run([&](fs_ocl_object **out) {
        return fs_icl_add_dir(list.get(), vol.volume(), "/d", masks, 15, out);
      },
      20);
  EXPECT_EQ(list->count, 2u);
}

// The driver's round trip: each failure is reported by its own message and returns
// the status; nothing stays allocated.
TEST(IclAllocFaultDriver, SaveAndRestoreReportsEachFailure) {
  IclPtr list;
  ASSERT_EQ(read_icl(encode_list(rich_model()), &list), FSIC_OK);
  std::set<std::string> seen;
  const long total = each_failure(
      [&](long n) {
        fs_icl *out = reinterpret_cast<fs_icl *>(0x60);
        fsic_status s = FSIC_OK;
        long leaked = 0;
        const auto c = drivertest::capture_stdio([&] {
          s = armed(n, &leaked, [&] { return save_and_restore_icl(list.get(), &out, 2); });
        });
        if (s == FSIC_OK) {
          fs_icl_destroy(out);
          EXPECT_EQ(c.err, "");
        } else {
          EXPECT_EQ(leaked, 0) << "allocation " << n;
          EXPECT_EQ(out, reinterpret_cast<fs_icl *>(0x60));
          EXPECT_TRUE(c.err == "error: can't write icl to memory\n" ||
                      c.err == "error: can't read icl from memory\n" ||
                      c.err == "error: can't write icl2 to memory\n" ||
                      c.err == "error: can't read icl2 from memory\n")
              << c.err;
          seen.insert(c.err);
        }
        EXPECT_EQ(c.out, "");
        return s;
      },
      [](fsic_status s, long n) { EXPECT_EQ(s, FSIC_ERR_NO_MEMORY) << "allocation " << n; });
  EXPECT_GT(total, 100);
  EXPECT_EQ(seen.size(), 4u) << "every message seen";
}

}  // namespace
