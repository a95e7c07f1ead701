// The LVM adapter against real volume groups on loop devices (root).
//
// Every test works in a sandbox: sparse image files on loop devices and an
// LVM_SYSTEM_DIR of its own whose device filter accepts only those loop devices, so
// neither the test nor the adapter sees (or changes the LVM view of) any other device.
// The sandbox removes its groups, physical volumes, loop devices and files when it goes
// out of scope, also after a failed assertion. Volumes are created inactive: this also
// works on hosts without device-mapper in the kernel.
#include "fs/lvm_internal.h"
#include "tests/support/loop_image.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/driver/stdio_capture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifndef FSIC_LVM_PROBE
#error "FSIC_LVM_PROBE must name the lvm_probe program"
#endif

namespace {

namespace fs = std::filesystem;
namespace lvm = fsic::detail::lvm;

// ---- processes ----------------------------------------------------------------------

using support::env_list;
using support::proc_result;
using support::scoped_env;
using support::thread_count;

// Runs argv, searched on PATH as this process has it (tests change PATH through env).
proc_result run(const std::vector<std::string> &argv, const env_list &env = {},
                int timeout_seconds = 120) {
  return support::run(argv, env, /*system_path=*/false, timeout_seconds);
}

std::vector<std::string> words(const std::string &text) {
  std::istringstream in(text);
  std::vector<std::string> w;
  for (std::string s; in >> s;)
    w.push_back(s);
  return w;
}

using drivertest::stderr_capture;

// ---- sandbox ------------------------------------------------------------------------

std::string filter_list(const std::vector<std::string> &devices) {
  std::string f = "[";
  for (const auto &d : devices)
    f += "\"a|^" + d + "$|\",";
  return f + "\"r|.*|\"]";
}

// LVM --config text that limits one command to the given devices.
std::string only_devices(const std::vector<std::string> &devices) {
  const std::string f = filter_list(devices);
  return "devices { filter=" + f + " global_filter=" + f + " }";
}

class lvm_sandbox {
public:
  lvm_sandbox() {
    if (!tmp_.ok())
      return;
    dir_ = tmp_.path();
    prefix_ = "fsic-t-" + std::to_string(getpid()) + "-";
    fs::create_directory(dir_ / "lock");
    write_config(accept_own_loops);
    env_.emplace("LVM_SYSTEM_DIR", dir_.string());
  }

  // The directory goes last, with the images in it (tmp_ is destroyed after the body).
  ~lvm_sandbox() {
    hidden_.clear();
    if (!dir_.empty())
      write_config(accept_own_loops);
    for (const auto &[name, devices] : groups_) {
      const auto r = lvm({"vgremove", "-f", "-y", "--config", only_devices(devices), name});
      if (r.status != 0)
        ADD_FAILURE() << "cleanup: vgremove " << name << ": " << r.describe();
    }
    for (auto &dev : loops_) {
      lvm({"pvremove", "-ff", "-y", dev.node()}); // fails harmlessly where there is no PV
      const auto r = dev.detach();
      if (!r)
        ADD_FAILURE() << "cleanup: " << r.message();
    }
    env_.reset();
  }

  lvm_sandbox(const lvm_sandbox &) = delete;
  lvm_sandbox &operator=(const lvm_sandbox &) = delete;

  bool ready() const { return !dir_.empty(); }
  const fs::path &dir() const { return dir_; }
  std::string name(const std::string &suffix) const { return prefix_ + suffix; }

  // A new sparse image on a loop device; the sandbox's LVM configuration accepts it.
  std::string add_loop(off_t megabytes = 32) {
    const std::string image = (dir_ / ("disk" + std::to_string(loops_.size()) + ".img")).string();
    support::loop_device dev;
    const auto made = support::make_sparse_file(image, megabytes << 20);
    const auto attached = made ? dev.attach(image) : made;
    if (!attached) {
      ADD_FAILURE() << "losetup: " << attached.message();
      return {};
    }
    loops_.push_back(std::move(dev));
    write_config(accept_own_loops);
    return loops_.back().node();
  }

  enum config_kind { accept_own_loops, accept_nothing };

  // From now on LVM (test commands and adapter alike) no longer sees this device.
  void hide(const std::string &device) {
    hidden_.push_back(device);
    write_config(accept_own_loops);
  }

  // The sandbox's lvm.conf: only this sandbox's loop devices (or none), no hints, no
  // devices file, no udev, no metadata backups, lock files inside the sandbox.
  void write_config(config_kind kind) {
    std::vector<std::string> visible;
    if (kind == accept_own_loops)
      for (const auto &d : loops_)
        if (std::find(hidden_.begin(), hidden_.end(), d.node()) == hidden_.end())
          visible.push_back(d.node());
    const std::string filter = filter_list(visible);
    std::ofstream f(dir_ / "lvm.conf", std::ios::trunc);
    f << "devices {\n"
      << "  filter = " << filter << "\n"
      << "  global_filter = " << filter << "\n"
      << "  use_devicesfile = 0\n"
      << "  obtain_device_list_from_udev = 0\n"
      << "  hints = \"none\"\n"
      << "}\n"
      << "global {\n"
      << "  locking_dir = \"" << (dir_ / "lock").string() << "\"\n"
      << "}\n"
      << "activation {\n"
      << "  udev_sync = 0\n"
      << "  udev_rules = 0\n"
      << "  monitoring = 0\n"
      << "}\n"
      << "backup {\n"
      << "  backup = 0\n"
      << "  archive = 0\n"
      << "}\n";
  }

  // Runs an lvm command in the sandbox (the environment already points LVM here).
  proc_result lvm(std::vector<std::string> args) const {
    args.insert(args.begin(), "lvm");
    return run(args, {{"LVM_SUPPRESS_FD_WARNINGS", "1"}});
  }

  // A group on the given devices, remembered for cleanup. With only_these set the
  // command sees no other device (used to create two groups of the same name).
  ::testing::AssertionResult make_group(const std::string &name,
                                        const std::vector<std::string> &devices,
                                        bool only_these = false) {
    for (const auto &d : devices) {
      const auto r = lvm({"pvcreate", "-y", d});
      if (r.status != 0)
        return ::testing::AssertionFailure() << "pvcreate " << r.describe();
    }
    std::vector<std::string> args = {"vgcreate"};
    if (only_these) {
      args.push_back("--config");
      args.push_back(only_devices(devices));
    }
    args.push_back(name);
    args.insert(args.end(), devices.begin(), devices.end());
    const auto r = lvm(args);
    if (r.status != 0)
      return ::testing::AssertionFailure() << "vgcreate " << r.describe();
    groups_.emplace_back(name, devices);
    return ::testing::AssertionSuccess();
  }

  // An inactive, unzeroed volume. Activation is switched off for the command because
  // the host may have no device-mapper at all; the volume would not be activated anyway.
  ::testing::AssertionResult make_volume(const std::string &group, const std::string &name) {
    const auto r = lvm({"lvcreate", "--config", "global/activation=0", "-an", "-Zn", "-L", "4m",
                        "-n", name, group});
    if (r.status != 0)
      return ::testing::AssertionFailure() << "lvcreate " << r.describe();
    return ::testing::AssertionSuccess();
  }

  ::testing::AssertionResult remove_group(const std::string &name) {
    const auto it = std::find_if(groups_.begin(), groups_.end(),
                                 [&](const auto &g) { return g.first == name; });
    if (it == groups_.end())
      return ::testing::AssertionFailure() << "unknown group " << name;
    const auto r = lvm({"vgremove", "-f", "-y", "--config", only_devices(it->second), name});
    if (r.status != 0)
      return ::testing::AssertionFailure() << "vgremove " << r.describe();
    groups_.erase(it);
    return ::testing::AssertionSuccess();
  }

  // LVM's own answers, for comparison with the adapter's.
  std::vector<std::string> lvm_group_names() const {
    return words(lvm({"vgs", "--noheadings", "-o", "vg_name"}).out);
  }
  std::vector<std::string> lvm_volume_names(const std::string &group) const {
    return words(lvm({"lvs", "--noheadings", "-o", "lv_name", group}).out);
  }

private:
  support::temp_dir tmp_{"fsic-lvm", std::nothrow};
  fs::path dir_;
  std::string prefix_;
  std::vector<support::loop_device> loops_;
  std::vector<std::string> hidden_;
  std::vector<std::pair<std::string, std::vector<std::string>>> groups_;
  std::optional<scoped_env> env_;
};

// Root, and loop devices to put the groups on.
#define REQUIRE_ROOT()                               \
  do {                                               \
    FSIC_REQUIRE_ROOT("LVM groups on loop devices"); \
    if (access("/dev/loop-control", F_OK) != 0)      \
      GTEST_SKIP() << "needs loop devices";          \
  } while (0)

// What the adapter reports, gathered with the inventory's call sequence.
struct listing {
  bool init_ok = false;
  int scan_status = 1;
  bool names_ok = false;
  std::vector<std::string> groups;                         // in the adapter's order
  std::map<std::string, std::vector<std::string>> volumes; // per group, adapter's order
  std::vector<std::string> unopenable;
};

listing list_everything() {
  listing l;
  lvm::handle_ptr h(lvm::init());
  l.init_ok = h != nullptr;
  if (!h)
    return l;
  l.scan_status = lvm::scan(h.get());
  const lvm::name_list names = lvm::list_vg_names(h.get());
  l.names_ok = static_cast<bool>(names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string vg = names[i];
    l.groups.push_back(vg);
    lvm::group_ptr g(lvm::vg_open(h.get(), vg.c_str()));
    if (!g) {
      l.unopenable.push_back(vg);
      continue;
    }
    auto &vols = l.volumes[vg];
    const lvm::lv_list lvs = lvm::vg_list_lvs(g.get());
    for (std::size_t j = 0; j < lvs.size(); ++j)
      vols.push_back(lvm::lv_get_name(lvs[j]));
  }
  return l;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// ---- tests --------------------------------------------------------------------------

TEST(LvmBackend, ListsGroupsAndTheirVolumesExactly) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("a"), b = sb.name("b"), c = sb.name("c");
  const std::string da = sb.add_loop(), db = sb.add_loop(), dc = sb.add_loop();
  ASSERT_FALSE(da.empty() || db.empty() || dc.empty());
  ASSERT_TRUE(sb.make_group(a, {da}));
  ASSERT_TRUE(sb.make_group(b, {db}));
  ASSERT_TRUE(sb.make_group(c, {dc})); // stays empty
  // "data" exists in both groups: the per-group listing must keep both.
  for (const char *lv : {"data", "x-y-z", "with--double"})
    ASSERT_TRUE(sb.make_volume(a, lv));
  for (const char *lv : {"data", "b-vol"})
    ASSERT_TRUE(sb.make_volume(b, lv));

  stderr_capture cap;
  const listing l = list_everything();
  const std::string err = cap.text();

  ASSERT_TRUE(l.init_ok);
  EXPECT_EQ(l.scan_status, 0);
  ASSERT_TRUE(l.names_ok);
  EXPECT_EQ(l.groups, sb.lvm_group_names()); // LVM's order
  EXPECT_EQ(sorted(l.groups), (std::vector<std::string>{a, b, c}));
  EXPECT_TRUE(l.unopenable.empty());
  ASSERT_EQ(l.volumes.size(), 3u);
  EXPECT_EQ(sorted(l.volumes.at(a)), (std::vector<std::string>{"data", "with--double", "x-y-z"}));
  EXPECT_EQ(sorted(l.volumes.at(b)), (std::vector<std::string>{"b-vol", "data"}));
  EXPECT_TRUE(l.volumes.at(c).empty());
  EXPECT_EQ(l.volumes.at(a), sb.lvm_volume_names(a));
  EXPECT_EQ(l.volumes.at(b), sb.lvm_volume_names(b));
  EXPECT_EQ(err, "");
}

TEST(LvmBackend, NoGroupsGivesAnEmptyListNotAFailure) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  ASSERT_FALSE(sb.add_loop().empty()); // a blank device: nothing for LVM on it
  lvm::handle_ptr h(lvm::init());
  ASSERT_TRUE(h);
  EXPECT_EQ(lvm::scan(h.get()), 0);
  const lvm::name_list names = lvm::list_vg_names(h.get());
  ASSERT_TRUE(names);
  EXPECT_EQ(names.size(), 0u);
}

TEST(LvmBackend, EmptyGroupHasANullVolumeList) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string d = sb.add_loop();
  ASSERT_FALSE(d.empty());
  ASSERT_TRUE(sb.make_group(sb.name("empty"), {d}));
  lvm::handle_ptr h(lvm::init());
  ASSERT_TRUE(h);
  lvm::group_ptr g(lvm::vg_open(h.get(), sb.name("empty").c_str()));
  ASSERT_TRUE(g);
  const lvm::lv_list lvs = lvm::vg_list_lvs(g.get());
  EXPECT_FALSE(lvs);
  EXPECT_EQ(lvs.size(), 0u);
}

TEST(LvmBackend, GroupRemovedAfterListingCannotBeOpened) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("gone"), b = sb.name("kept");
  const std::string da = sb.add_loop(), db = sb.add_loop();
  ASSERT_FALSE(da.empty() || db.empty());
  ASSERT_TRUE(sb.make_group(a, {da}));
  ASSERT_TRUE(sb.make_group(b, {db}));
  ASSERT_TRUE(sb.make_volume(b, "v"));

  lvm::handle_ptr h(lvm::init());
  ASSERT_TRUE(h);
  ASSERT_EQ(lvm::scan(h.get()), 0);
  const lvm::name_list names = lvm::list_vg_names(h.get());
  ASSERT_TRUE(names);
  ASSERT_EQ(names.size(), 2u);
  EXPECT_STREQ(names[0], a.c_str());
  EXPECT_STREQ(names[1], b.c_str());

  ASSERT_TRUE(sb.remove_group(a)); // vanishes between listing and opening
  stderr_capture cap;
  lvm::group_ptr gone(lvm::vg_open(h.get(), names[0]));
  lvm::group_ptr kept(lvm::vg_open(h.get(), names[1]));
  const std::string err = cap.text();
  EXPECT_FALSE(gone);
  ASSERT_TRUE(kept);
  const lvm::lv_list lvs = lvm::vg_list_lvs(kept.get());
  ASSERT_EQ(lvs.size(), 1u);
  EXPECT_STREQ(lvm::lv_get_name(lvs[0]), "v");
  EXPECT_EQ(err, "");
}

TEST(LvmBackend, GroupWithAmbiguousNameIsListedButCannotBeOpened) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string dup = sb.name("dup"), ok = sb.name("ok");
  const std::string d1 = sb.add_loop(), d2 = sb.add_loop(), d3 = sb.add_loop();
  ASSERT_FALSE(d1.empty() || d2.empty() || d3.empty());
  // Two groups of one name: each created while LVM sees only its own device.
  ASSERT_TRUE(sb.make_group(dup, {d1}, true));
  ASSERT_TRUE(sb.make_group(dup, {d2}, true));
  ASSERT_TRUE(sb.make_group(ok, {d3}));

  lvm::handle_ptr h(lvm::init());
  ASSERT_TRUE(h);
  const lvm::name_list names = lvm::list_vg_names(h.get());
  ASSERT_TRUE(names);
  std::vector<std::string> listed;
  for (std::size_t i = 0; i < names.size(); ++i)
    listed.push_back(names[i]);
  EXPECT_EQ(sorted(listed), (std::vector<std::string>{dup, dup, ok}));
  EXPECT_FALSE(lvm::group_ptr(lvm::vg_open(h.get(), dup.c_str())));
  EXPECT_TRUE(lvm::group_ptr(lvm::vg_open(h.get(), ok.c_str())));
}

// LVM reads a group whose physical volume is missing (it reports it partial), so such a
// group opens and its volumes are listed; the missing device is not a reason to fail.
TEST(LvmBackend, GroupWithMissingPhysicalVolumeStillOpens) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("partial");
  const std::string d1 = sb.add_loop(), d2 = sb.add_loop();
  ASSERT_FALSE(d1.empty() || d2.empty());
  ASSERT_TRUE(sb.make_group(a, {d1, d2}));
  ASSERT_TRUE(sb.make_volume(a, "v"));
  sb.hide(d2);
  const auto attr = words(sb.lvm({"vgs", "--noheadings", "-o", "vg_attr", a}).out);
  ASSERT_EQ(attr.size(), 1u);
  ASSERT_EQ(attr[0].size(), 6u);
  ASSERT_EQ(attr[0][3], 'p') << "LVM does not see the group as partial";

  stderr_capture cap;
  const listing l = list_everything();
  EXPECT_EQ(cap.text(), "");
  ASSERT_TRUE(l.names_ok);
  EXPECT_EQ(l.groups, (std::vector<std::string>{a}));
  EXPECT_TRUE(l.unopenable.empty());
  ASSERT_EQ(l.volumes.count(a), 1u);
  EXPECT_EQ(l.volumes.at(a), (std::vector<std::string>{"v"}));
}

TEST(LvmBackend, HonoursLvmSystemDirFromTheEnvironment) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("seen");
  const std::string d = sb.add_loop();
  ASSERT_FALSE(d.empty());
  ASSERT_TRUE(sb.make_group(a, {d}));
  ASSERT_TRUE(sb.make_volume(a, "v"));

  listing seen = list_everything();
  ASSERT_TRUE(seen.names_ok);
  EXPECT_EQ(seen.groups, (std::vector<std::string>{a}));

  // Another configuration directory whose filter rejects every device.
  lvm_sandbox blind;
  ASSERT_TRUE(blind.ready());
  blind.write_config(lvm_sandbox::accept_nothing);
  listing hidden = list_everything();
  ASSERT_TRUE(hidden.init_ok);
  ASSERT_TRUE(hidden.names_ok);
  EXPECT_TRUE(hidden.groups.empty());
}

TEST(LvmBackend, RepeatedInitAndQuitGiveTheSameAnswer) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("r");
  const std::string d = sb.add_loop();
  ASSERT_FALSE(d.empty());
  ASSERT_TRUE(sb.make_group(a, {d}));
  ASSERT_TRUE(sb.make_volume(a, "one"));
  ASSERT_TRUE(sb.make_volume(a, "two"));
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    const listing l = list_everything();
    ASSERT_TRUE(l.init_ok);
    EXPECT_EQ(l.scan_status, 0);
    EXPECT_EQ(l.groups, (std::vector<std::string>{a}));
    ASSERT_EQ(l.volumes.count(a), 1u);
    EXPECT_EQ(sorted(l.volumes.at(a)), (std::vector<std::string>{"one", "two"}));
  }
  // Two sessions at once are independent.
  lvm::handle_ptr h1(lvm::init()), h2(lvm::init());
  ASSERT_TRUE(h1);
  ASSERT_TRUE(h2);
  h1.reset();
  EXPECT_EQ(lvm::list_vg_names(h2.get()).size(), 1u);
}

TEST(LvmBackend, StartsNoThreads) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("t");
  const std::string d = sb.add_loop();
  ASSERT_FALSE(d.empty());
  ASSERT_TRUE(sb.make_group(a, {d}));
  ASSERT_TRUE(sb.make_volume(a, "v"));

  const int baseline = thread_count();
  ASSERT_GT(baseline, 0);
  for (int round = 0; round < 2; ++round) {
    lvm::handle *h = lvm::init();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(thread_count(), baseline) << "after init";
    EXPECT_EQ(lvm::scan(h), 0);
    EXPECT_EQ(thread_count(), baseline) << "after scan";
    {
      lvm::name_list names = lvm::list_vg_names(h);
      EXPECT_EQ(thread_count(), baseline) << "after list";
      ASSERT_EQ(names.size(), 1u);
      lvm::group *g = lvm::vg_open(h, names[0]);
      ASSERT_NE(g, nullptr);
      EXPECT_EQ(thread_count(), baseline) << "after open";
      {
        lvm::lv_list lvs = lvm::vg_list_lvs(g);
        EXPECT_EQ(lvs.size(), 1u);
        EXPECT_EQ(thread_count(), baseline) << "after lvs";
      }
      lvm::vg_close(g);
      EXPECT_EQ(thread_count(), baseline) << "after close";
      EXPECT_EQ(lvm::vg_open(h, "fsic-no-such-group"), nullptr);
      EXPECT_EQ(thread_count(), baseline) << "after failed open";
    }
    lvm::quit(h);
    EXPECT_EQ(thread_count(), baseline) << "after quit";
  }
}

// In a fresh process: the adapter and libblockdev write nothing to standard error, the
// `lvm` children's diagnostics included (on this host every `lvm` run complains about
// device-mapper; opening a missing group makes `lvm` report it), and no thread appears.
TEST(LvmBackend, FreshProcessWritesNothingToStandardErrorAndStartsNoThreads) {
  REQUIRE_ROOT();
  lvm_sandbox sb;
  ASSERT_TRUE(sb.ready());
  const std::string a = sb.name("p"), b = sb.name("q-r");
  const std::string da = sb.add_loop(), db = sb.add_loop();
  ASSERT_FALSE(da.empty() || db.empty());
  ASSERT_TRUE(sb.make_group(a, {da}));
  ASSERT_TRUE(sb.make_group(b, {db}));
  ASSERT_TRUE(sb.make_volume(a, "same"));
  ASSERT_TRUE(sb.make_volume(b, "same"));

  const auto r = run({FSIC_LVM_PROBE, "walk", sb.name("missing")});
  ASSERT_EQ(r.status, 0) << r.describe();
  EXPECT_EQ(r.err, "") << r.describe();
  EXPECT_NE(r.out.find("vg " + a + "\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("lv " + a + " same\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("lv " + b + " same\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("threads-changed no\n"), std::string::npos) << r.out;
}

// An empty directory to use as PATH: no `lvm` there.
struct empty_dir : support::temp_dir {
  empty_dir() : temp_dir("fsic-nolvm", std::nothrow) {}
};

TEST(LvmBackend, InitFailsQuietlyWithoutLvmOnPath) {
  empty_dir empty;
  ASSERT_FALSE(empty.path().empty());
  const auto start = std::chrono::steady_clock::now();
  const auto r = run({FSIC_LVM_PROBE, "init"}, {{"PATH", empty.path()}}, 60);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(r.timed_out);
  EXPECT_LT(took, std::chrono::seconds(20));
  EXPECT_EQ(r.status, 3) << r.describe();
  EXPECT_EQ(r.out, "init=null\n") << r.describe();
  EXPECT_EQ(r.err, "") << r.describe();
}

TEST(LvmBackend, InitFailsWithoutLvmEvenUnderFatalWarnings) {
  empty_dir empty;
  ASSERT_FALSE(empty.path().empty());
  const auto r = run({FSIC_LVM_PROBE, "init"},
                     {{"PATH", empty.path()}, {"G_DEBUG", "fatal-warnings,fatal-criticals"}}, 60);
  EXPECT_EQ(r.status, 3) << r.describe();
  EXPECT_EQ(r.out, "init=null\n") << r.describe();
  EXPECT_EQ(r.err, "") << r.describe();
}

// libblockdev warns through GLib when its LVM plugin cannot be loaded. Those warnings must
// not reach the host program's own handlers, and the handlers must work as before after.
TEST(LvmBackend, HostGlibHandlersAreLeftInPlace) {
  empty_dir empty;
  ASSERT_FALSE(empty.path().empty());
  const auto r = run({FSIC_LVM_PROBE, "host-log"}, {{"PATH", empty.path()}}, 60);
  EXPECT_EQ(r.status, 3) << r.describe();
  EXPECT_EQ(r.err, "") << r.describe();
  EXPECT_NE(r.out.find("during: domain=0 default=0\n"), std::string::npos) << r.describe();
  EXPECT_NE(r.out.find("host-domain: host warning after\n"), std::string::npos) << r.describe();
  EXPECT_NE(r.out.find("host-default: host glib warning after\n"), std::string::npos)
      << r.describe();
  EXPECT_NE(r.out.find("after: domain=1 default=1\n"), std::string::npos) << r.describe();
}

TEST(LvmBackend, InitNoticesWhenLvmDisappears) {
  REQUIRE_ROOT();
  empty_dir empty;
  ASSERT_FALSE(empty.path().empty());
  lvm::handle_ptr first(lvm::init());
  ASSERT_TRUE(first); // the plugin is loaded now
  stderr_capture cap;
  {
    scoped_env path("PATH", empty.path());
    EXPECT_EQ(lvm::handle_ptr(lvm::init()), nullptr);
    // A session opened before keeps working only as far as `lvm` can be run.
    EXPECT_FALSE(lvm::list_vg_names(first.get()));
    EXPECT_EQ(lvm::scan(first.get()), -1);
  }
  EXPECT_EQ(cap.text(), "");
  EXPECT_TRUE(lvm::handle_ptr(lvm::init()));
}

} // namespace
