// Allocation failures at every allocation of the scanner, the attribute arrays, the
// hashes and the directory info. The executable is linked with --wrap for malloc,
// calloc, realloc, strdup and free, so the library's calls come through the wrappers
// below: they fail the n-th allocation of a run (or every one from the n-th on) and
// track the blocks made during the run. Every failure must give 3 (1 when the failed
// allocation was the hash context, which the hash reports as a general failure) and
// leave no block behind; the run that meets no failure must give the normal result.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <unordered_set>

#include <fsic/gost_r3411_94.h>

#include "fs/ocl_internal.h"
#include "ocl_test_support.h"
#include "tree_model.h"

using namespace ocltest;

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
char *__real_strdup(const char *s);
void __real_free(void *p);
gost_r3411_94_ctx *__real_gost_r3411_94_create_context(void) noexcept;
}

namespace {

struct Injector {
  bool armed = false;      // counting and failing allocations
  long countdown = -1;     // allocations to let through before failing; -1: never fail
  bool persistent = false; // keep failing once the first failure happened
  bool failing = false;
  bool failed = false;           // some allocation was failed in this run
  bool first_in_context = false; // the first failed one made a hash context
  bool in_context = false;
  std::unordered_set<void *> *live = nullptr; // blocks made while armed, not yet freed

  bool fail_now() {
    if (!armed)
      return false;
    if (failing && persistent)
      return true;
    if (countdown < 0)
      return false;
    if (countdown-- == 0) {
      if (!failed)
        first_in_context = in_context;
      failed = failing = true;
      return true;
    }
    return false;
  }
  void made(void *p) {
    if (p && armed && live)
      live->insert(p);
  }
  void gone(void *p) {
    if (p && live)
      live->erase(p);
  }
};

Injector inj;

} // namespace

extern "C" {

void *__wrap_malloc(size_t size) {
  if (inj.fail_now())
    return nullptr;
  void *p = __real_malloc(size);
  inj.made(p);
  return p;
}

void *__wrap_calloc(size_t n, size_t size) {
  if (inj.fail_now())
    return nullptr;
  void *p = __real_calloc(n, size);
  inj.made(p);
  return p;
}

void *__wrap_realloc(void *old, size_t size) {
  if (inj.fail_now())
    return nullptr;
  bool tracked = old && inj.live && inj.live->count(old);
  void *p = __real_realloc(old, size);
  if (p) {
    inj.gone(old);
    if (tracked)
      inj.live->insert(p);
    else
      inj.made(p);
  }
  return p;
}

char *__wrap_strdup(const char *s) {
  if (inj.fail_now())
    return nullptr;
  char *p = __real_strdup(s);
  inj.made(p);
  return p;
}

void __wrap_free(void *p) {
  inj.gone(p);
  __real_free(p);
}

gost_r3411_94_ctx *__wrap_gost_r3411_94_create_context(void) noexcept {
  inj.in_context = true;
  gost_r3411_94_ctx *ctx = __real_gost_r3411_94_create_context();
  inj.in_context = false;
  return ctx;
}

} // extern "C"

namespace {

// One operation under test: runs it (armed), then releases what it produced (disarmed).
struct Operation {
  std::string name;
  // Runs with the injector armed; returns the status and a printable result.
  std::function<fsic_status(std::string *result)> run;
};

class OclAllocFault : public ::testing::Test {
protected:
  void SetUp() override {
    // Ten files (more than the first array capacity), a link to a file and one to a
    // directory, kept and pruned subdirectories.
    for (int i = 0; i < 10; ++i)
      t_.file(numbered("f", i) + (i % 2 ? ".dll" : ".txt"), std::string(i * 1000, 'x'));
    t_.link("link.dll", "f1.dll");
    t_.dir("sub");
    t_.file("sub/inner.dll", "inner");
    t_.link("to_sub", "sub");
    t_.dir("empty");
    t_.dir("empty/deeper");
    t_.dir("txt_only");
    t_.file("txt_only/a.txt", "a");
    t_.dir("zz");
    t_.file("zz/last", "last");
  }

  // Runs `op` failing allocation n (and, when persistent, all after it) for n = 0, 1, ...
  // until a run meets no failure; that run's result must equal the undisturbed one.
  void exercise(const Operation &op) {
    SCOPED_TRACE(op.name);
    std::string reference;
    ASSERT_EQ(run_once(op, -1, false, &reference), 0u);
    for (bool persistent : {false, true}) {
      for (long n = 0;; ++n) {
        SCOPED_TRACE(numbered("allocation ", n) + (persistent ? " on" : ""));
        std::string result;
        fsic_status status = run_once(op, n, persistent, &result);
        if (!inj.failed) {
          EXPECT_EQ(status, 0u);
          EXPECT_EQ(result, reference);
          EXPECT_GT(n, 0) << "no allocation was met";
          break;
        }
        EXPECT_EQ(status, inj.first_in_context ? 1u : 3u);
        ASSERT_LT(n, 100000) << "no end to the allocations";
      }
    }
  }

  fsic_status run_once(const Operation &op, long n, bool persistent, std::string *result) {
    std::unordered_set<void *> live;
    inj = Injector();
    inj.countdown = n;
    inj.persistent = persistent;
    inj.live = &live;
    fsic_status status = op.run(result); // arms and disarms itself
    EXPECT_TRUE(live.empty()) << live.size() << " blocks left behind";
    inj.live = nullptr;
    return status;
  }

  TempTree t_;
};

void arm() { inj.armed = true; }
void disarm() { inj.armed = false; }

TEST_F(OclAllocFault, ScanDir) {
  for (const Masks &masks : {Masks(), Masks{"*.dll"}}) {
    exercise({"scan", [&](std::string *result) {
                char **files = nullptr, **subdirs = nullptr;
                int nf = 0, ns = 0;
                Walk w(t_.root());
                arm();
                fsic_status s =
                    _fs_ocl_scan_dir(w.get(), w.fd(), masks.get(), &files, &nf, &subdirs, &ns);
                disarm();
                if (s == 0) {
                  for (int i = 0; i < nf; ++i)
                    *result += std::string(files[i]) + ",";
                  for (int i = 0; i < ns; ++i)
                    *result += std::string(subdirs[i]) + "/";
                  _fs_ocl_free_str_array(files, nf);
                  _fs_ocl_free_str_array(subdirs, ns);
                }
                return s;
              }});
  }
}

TEST_F(OclAllocFault, AttributesAndFileHash) {
  char *names[] = {const_cast<char *>("f1.dll"), const_cast<char *>("f2.txt")};
  exercise({"file attrs", [&](std::string *result) {
              Walk buf(t_.root());
              fs_ocl_file_attrs *a = nullptr;
              arm();
              fsic_status s =
                  _fs_ocl_create_file_attrs_array(buf.get(), buf.fd(), names, 2, nullptr, &a);
              disarm();
              EXPECT_EQ(buf.text(), t_.root());
              if (s == 0)
                *result = std::to_string(a[0].size) + " " + std::to_string(a[1].size);
              free(a);
              return s;
            }});
  exercise({"file hash", [&](std::string *result) {
              Walk w(t_.path("f9.dll"), nullptr, O_RDONLY);
              uint8_t h[32];
              struct stat st;
              if (fstat(w.fd(), &st) != 0)
                return 100u;
              arm();
              fsic_status s = _fs_ocl_fd_hash(w.fd(), h, &st);
              disarm();
              if (s == 0)
                *result = hex(bytes(h));
              return s;
            }});
}

TEST_F(OclAllocFault, DirHashAndDirInfoForEveryFlag) {
  for (const Masks &masks : {Masks(), Masks{"*.dll"}}) {
    for (uint32_t flags = 0; flags < 16; ++flags) {
      SCOPED_TRACE(flags);
      exercise({"dir hash", [&](std::string *result) {
                  Walk buf(t_.root());
                  uint8_t h[32];
                  arm();
                  fsic_status s =
                      _fs_ocl_create_dir_hash(buf.get(), buf.fd(), masks.get(), flags, h);
                  disarm();
                  EXPECT_EQ(buf.text(), t_.root());
                  if (s == 0)
                    *result = hex(bytes(h));
                  return s;
                }});
      exercise({"dir info", [&](std::string *result) {
                  Walk buf(t_.root());
                  fs_ocl_dir_info *info = nullptr;
                  arm();
                  fsic_status s =
                      _fs_ocl_create_dir_info(buf.get(), buf.fd(), masks.get(), flags, 1, &info);
                  disarm();
                  EXPECT_EQ(buf.text(), t_.root());
                  if (s == 0) {
                    *result =
                        std::to_string(info->file_count) + "/" + std::to_string(info->subdir_count);
                    expect_info_matches(info, *model_dir_info(t_.root(), masks, flags, true), flags,
                                        ".");
                    _fs_ocl_destroy_dir_info(info);
                  }
                  return s;
                }});
    }
  }
}

} // namespace
