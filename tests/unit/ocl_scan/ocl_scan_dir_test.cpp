// The directory scanner: filtering, byte order, link following, skipped types, failures
// and the scanner's stat with its statuses and log record.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fs/ocl_internal.h"
#include "log_capture.h"
#include "ocl_test_support.h"

using namespace ocltest;

namespace {

struct Listing {
  fsic_status status = 0;
  std::vector<std::string> files;
  std::vector<std::string> subdirs;
  bool files_null = false; // the array handed out was NULL
  bool subdirs_null = false;
};

// Scans `dir`; `want_files` / `want_subdirs` select the outputs passed.
Listing scan(const std::string &dir, const Masks &masks = Masks(), bool want_files = true,
             bool want_subdirs = true) {
  char **files = reinterpret_cast<char **>(uintptr_t{8});
  char **subdirs = reinterpret_cast<char **>(uintptr_t{8});
  int nfiles = -7, nsubdirs = -7;
  Listing l;
  Walk w(dir);
  l.status = _fs_ocl_scan_dir(w.get(), w.fd(), masks.get(), want_files ? &files : nullptr,
                              want_files ? &nfiles : nullptr, want_subdirs ? &subdirs : nullptr,
                              want_subdirs ? &nsubdirs : nullptr);
  if (l.status != 0) {
    // Nothing is handed out on failure.
    EXPECT_EQ(files, reinterpret_cast<char **>(uintptr_t{8}));
    EXPECT_EQ(subdirs, reinterpret_cast<char **>(uintptr_t{8}));
    EXPECT_EQ(nfiles, -7);
    EXPECT_EQ(nsubdirs, -7);
    return l;
  }
  if (want_files) {
    l.files_null = files == nullptr;
    EXPECT_EQ(l.files_null, nfiles == 0);
    for (int i = 0; i < nfiles; ++i)
      l.files.push_back(files[i]);
    _fs_ocl_free_str_array(files, nfiles);
  }
  if (want_subdirs) {
    l.subdirs_null = subdirs == nullptr;
    EXPECT_EQ(l.subdirs_null, nsubdirs == 0);
    for (int i = 0; i < nsubdirs; ++i)
      l.subdirs.push_back(subdirs[i]);
    _fs_ocl_free_str_array(subdirs, nsubdirs);
  }
  return l;
}

using Names = std::vector<std::string>;

TEST(OclScanDir, NamesAreByteSorted) {
  TempTree t;
  for (const char *n : {"b", "a", "Z", "\xc3\xa9", "a b", "aa", "_", "\x7f", "\xff"})
    t.file(n);
  for (const char *n : {"sb", "S", "s\x80", "sA"})
    t.dir(n);
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.files, (Names{"Z", "_", "a", "a b", "aa", "b", "\x7f", "\xc3\xa9", "\xff"}));
  EXPECT_EQ(l.subdirs, (Names{"S", "sA", "sb", "s\x80"}));
}

TEST(OclScanDir, ManyNamesGrowTheArraysAndComeBackSorted) {
  TempTree t;
  Names expected_files, expected_dirs;
  for (int i = 999; i >= 0; --i) {
    std::string n = numbered("f", i * 7919 % 1000);
    t.file(n);
    expected_files.push_back(n);
  }
  for (int i = 0; i < 17; ++i) {
    std::string n = numbered("d", i);
    t.dir(n);
    expected_dirs.push_back(n);
  }
  std::sort(expected_files.begin(), expected_files.end());
  std::sort(expected_dirs.begin(), expected_dirs.end());
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.files, expected_files);
  EXPECT_EQ(l.subdirs, expected_dirs);
}

TEST(OclScanDir, LinksAreFollowed) {
  TempTree t;
  t.file("file");
  t.dir("dir");
  t.link("link_to_file", "file");
  t.link("link_to_dir", "dir");
  t.link("link_to_link", "link_to_dir");
  t.link("absolute_link", t.path("file"));
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.files, (Names{"absolute_link", "file", "link_to_file"}));
  EXPECT_EQ(l.subdirs, (Names{"dir", "link_to_dir", "link_to_link"}));
}

TEST(OclScanDir, ALinkToAnAncestorIsListedAsASubdirectory) {
  TempTree t;
  t.dir("d");
  t.link("d/up", "..");
  Listing l = scan(t.path("d"));
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.subdirs, (Names{"up"}));
}

TEST(OclScanDir, ADanglingLinkFailsWithOne) {
  TempTree t;
  t.file("a");
  t.link("dangling", "nowhere");
  EXPECT_EQ(scan(t.root()).status, 1u);
  // The link is resolved before anything is known about it, whatever is collected.
  EXPECT_EQ(scan(t.root(), Masks(), true, false).status, 1u);
  EXPECT_EQ(scan(t.root(), Masks(), false, true).status, 1u);
  EXPECT_EQ(scan(t.root(), Masks{"*.none"}).status, 1u);
}

TEST(OclScanDir, FifosSocketsAndDevicesAreSkipped) {
  TempTree t;
  t.file("regular");
  t.fifo("fifo");
  t.link("link_to_fifo", "fifo");
  t.link("link_to_null", "/dev/null");
  bool have_device = mknod(t.path("chardev").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string sock_path = t.path("socket");
  ASSERT_LT(sock_path.size(), sizeof addr.sun_path);
  memcpy(addr.sun_path, sock_path.c_str(), sock_path.size() + 1);
  int bound = bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  close(sock);
  ASSERT_EQ(bound, 0);
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.files, (Names{"regular"}));
  EXPECT_TRUE(l.subdirs.empty());
  if (!have_device)
    GTEST_SKIP() << "mknod is not permitted here; FIFOs and device links were checked";
}

TEST(OclScanDir, HiddenNamesAreListed) {
  TempTree t;
  t.file(".hidden");
  t.file("..dots");
  t.dir(".hidden_dir");
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_EQ(l.files, (Names{"..dots", ".hidden"}));
  EXPECT_EQ(l.subdirs, (Names{".hidden_dir"}));
}

TEST(OclScanDir, MasksAreCaseSensitiveShellPatterns) {
  TempTree t;
  for (const char *n : {"x.DLL", "y.dll", "z.Dll", ".h.dll", "a.exe", "dll"})
    t.file(n);
  t.dir("sub.txt");
  EXPECT_EQ(scan(t.root(), Masks{"*.dll"}).files, (Names{".h.dll", "y.dll"}));
  EXPECT_EQ(scan(t.root(), Masks{"*.DLL"}).files, (Names{"x.DLL"}));
  EXPECT_EQ(scan(t.root(), Masks{"*.dll", "*.DLL"}).files, (Names{".h.dll", "x.DLL", "y.dll"}));
  EXPECT_EQ(scan(t.root(), Masks{"?.???"}).files, (Names{"a.exe", "x.DLL", "y.dll", "z.Dll"}));
  EXPECT_EQ(scan(t.root(), Masks{"*"}).files.size(), 6u); // "*" matches a leading dot
  EXPECT_EQ(scan(t.root(), Masks{"[xz].*"}).files, (Names{"x.DLL", "z.Dll"}));
  // Masks never apply to subdirectories.
  EXPECT_EQ(scan(t.root(), Masks{"*.dll"}).subdirs, (Names{"sub.txt"}));
}

TEST(OclScanDir, AnEmptyMaskArrayAdmitsNoFileWhileNullMasksAdmitAll) {
  TempTree t;
  t.file("a");
  t.file("b.dll");
  t.dir("s");
  Listing none = scan(t.root(), Masks(std::vector<std::string>{}));
  ASSERT_EQ(none.status, 0u);
  EXPECT_TRUE(none.files.empty());
  EXPECT_TRUE(none.files_null);
  EXPECT_EQ(none.subdirs, (Names{"s"}));
  EXPECT_EQ(scan(t.root()).files, (Names{"a", "b.dll"}));
}

TEST(OclScanDir, AnEmptyDirectoryGivesTwoNullArrays) {
  TempTree t;
  Listing l = scan(t.root());
  ASSERT_EQ(l.status, 0u);
  EXPECT_TRUE(l.files_null);
  EXPECT_TRUE(l.subdirs_null);
  EXPECT_TRUE(l.files.empty());
  EXPECT_TRUE(l.subdirs.empty());
}

TEST(OclScanDir, OnlyTheAskedListsAreCollected) {
  TempTree t;
  t.file("f");
  t.dir("d");
  Listing files_only = scan(t.root(), Masks(), true, false);
  ASSERT_EQ(files_only.status, 0u);
  EXPECT_EQ(files_only.files, (Names{"f"}));
  Listing dirs_only = scan(t.root(), Masks(), false, true);
  ASSERT_EQ(dirs_only.status, 0u);
  EXPECT_EQ(dirs_only.subdirs, (Names{"d"}));
  EXPECT_EQ(scan(t.root(), Masks(), false, false).status, 0u);
}

// The scanner reads an open directory; one that could not be opened (no descriptor), or a
// file's descriptor, fails with 1.
TEST(OclScanDir, ADirectoryThatCannotBeOpenedFailsWithOne) {
  TempTree t;
  t.file("plain");
  EXPECT_EQ(scan(t.path("missing")).status, 1u);
  EXPECT_EQ(scan(t.path("plain")).status, 1u);
  Walk file(t.path("plain"), nullptr, O_RDONLY);
  ASSERT_GE(file.fd(), 0);
  char **files = nullptr;
  int n = 0;
  EXPECT_EQ(_fs_ocl_scan_dir(file.get(), file.fd(), nullptr, &files, &n, nullptr, nullptr), 1u);
}

// The same directory descriptor scanned twice gives the same names.
TEST(OclScanDir, ADescriptorIsScannedFromItsStart) {
  TempTree t;
  t.file("a");
  t.dir("b");
  Walk w(t.root());
  for (int round = 0; round < 2; ++round) {
    char **files = nullptr, **subdirs = nullptr;
    int nf = 0, ns = 0;
    ASSERT_EQ(_fs_ocl_scan_dir(w.get(), w.fd(), nullptr, &files, &nf, &subdirs, &ns), 0u);
    EXPECT_EQ(nf, 1);
    EXPECT_EQ(ns, 1);
    _fs_ocl_free_str_array(files, nf);
    _fs_ocl_free_str_array(subdirs, ns);
  }
}

TEST(OclScanDir, ALoopInsideTheScannedDirectoryFailsWithEleven) {
  reset_logging();
  TempTree t;
  t.link("self", "self");
  Listing l;
  std::string err = capture_stderr([&] { l = scan(t.root()); });
  EXPECT_EQ(l.status, 11u);
  EXPECT_NE(err.find(loop_record(t.path("self"))), std::string::npos) << err;
}

// The entry stat of the scanners (links followed) and its statuses.
TEST(OclScanDir, StatStatuses) {
  reset_logging();
  TempTree t;
  t.file("f", "abc");
  t.link("loop_a", "loop_b");
  t.link("loop_b", "loop_a");
  struct stat st {};
  EXPECT_EQ(stat_entry(t.path("f"), &st), 0u);
  EXPECT_EQ(st.st_size, 3);
  EXPECT_EQ(stat_entry(t.path("missing"), &st), 1u);

  std::string err = capture_stderr([&] { EXPECT_EQ(stat_entry(t.path("loop_a"), &st), 11u); });
  EXPECT_NE(err.find(loop_record(t.path("loop_a"))), std::string::npos) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);

  std::string too_long = t.path(std::string(300, 'n'));
  err = capture_stderr([&] { EXPECT_EQ(stat_entry(too_long, &st), 12u); });
  EXPECT_EQ(err, "");
  // A full name of PATH_MAX bytes or more is too long, whatever the entry.
  std::string deep = t.root();
  while (deep.size() < 4096 - 200)
    deep += "/" + std::string(150, 'd');
  Walk w(deep);
  std::string name(4096 - deep.size(), 'n');
  err = capture_stderr(
      [&] { EXPECT_EQ(_fs_ocl_stat_entry(w.get(), w.fd(), name.c_str(), &st), 12u); });
  EXPECT_EQ(err, "");
}

// A name with control characters in the loop record is written with them escaped: the
// record stays one line and cannot pass for a record of its own.
TEST(OclScanDir, TheLoopRecordEscapesControlCharacters) {
  reset_logging();
  TempTree t;
  const std::string name = "a\n2026-01-01 [fs_ocl] ERROR: forged\tb\\c";
  t.link(name, name);
  Listing l;
  std::string err = capture_stderr([&] { l = scan(t.root()); });
  EXPECT_EQ(l.status, 11u);
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  EXPECT_NE(
      err.find(loop_record(t.root() + "/a\\x0a2026-01-01 [fs_ocl] ERROR: forged\\x09b\\x5cc")),
      std::string::npos)
      << err;
}

TEST(OclScanDir, TheLoopRecordFollowsTheChannelsLevel) {
  reset_logging("FATAL");
  TempTree t;
  t.link("self", "self");
  struct stat st {};
  std::string err = capture_stderr([&] { EXPECT_EQ(stat_entry(t.path("self"), &st), 11u); });
  EXPECT_EQ(err, "");
  reset_logging();
}

} // namespace
