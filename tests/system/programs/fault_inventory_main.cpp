// Allocation failures in the block-device inventory, on the machine of the fault-inventory
// scenario (one disk: an ext4 partition 1, partition 2 the physical volume of vg-fault
// with the active volume lv_one, an ext4 partition 3 storing /images/small.img):
//
//   fsic-fault-inventory create | lvm | image
//       fs_disk_list_create, fs_disk_list_add_lvm_groups or fs_disk_list_add_image_disk
//       with its first, second, ... own allocation failing (tests/fault/fault_driver.h);
//   fsic-fault-inventory create-all | image-all [STRIDE]
//       the same with every allocation of the process failing in turn (libudev's and
//       libc's too; with STRIDE only every STRIDE-th), GLib's excepted;
//   fsic-fault-inventory glib
//       fails one allocation inside GLib while the LVM groups are listed, in a child
//       process, and says how that process ended;
//   fsic-fault-inventory wrong-type
//       the storing partition with a wrong file-system type: adding the image and taking
//       a mount point fail and leave nothing behind;
//   fsic-fault-inventory image-once | lvm-once
//       one undisturbed add, its status and what is left (for the script's cases of a
//       udev that does not settle and of a PATH without lvm).
//
// Each operation prints its number of injection points and its problems; the exit status
// is 1 when there was any. A failed run must end in its documented status, leave the
// disk list as it was (described as text), give nothing out, and leave no block of the
// process allocated, no loop device attached, nothing mounted and nothing in /tmp. A run
// whose failure was absorbed inside libudev or libc must give the normal list, except
// that a partition's uuid or file-system type may be missing: libudev drops a value it
// cannot store while it reads its database, and reports it absent without an error.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <fsic/disk_list.h>
#include <fsic/mount.h>

#include "alloc_fault.h"
#include "fault_driver.h"

// The library's operator new(std::nothrow) (the LVM adapter's handle and group) comes
// through here (the program is linked with --wrap for it).
#if __SIZEOF_SIZE_T__ == 8
#define FAULT_NOTHROW_NEW _ZnwmRKSt9nothrow_t
#else
#define FAULT_NOTHROW_NEW _ZnwjRKSt9nothrow_t
#endif
#define FAULT_PASTE2(a, b) a##b
#define FAULT_PASTE(a, b) FAULT_PASTE2(a, b)

extern "C" void *FAULT_PASTE(__real_, FAULT_NOTHROW_NEW)(std::size_t size, const std::nothrow_t &);
extern "C" void *FAULT_PASTE(__wrap_, FAULT_NOTHROW_NEW)(std::size_t size,
                                                         const std::nothrow_t &nt) {
  if (fault::library_call_fails("new", size))
    return nullptr;
  fault::library_call c;
  return FAULT_PASTE(__real_, FAULT_NOTHROW_NEW)(size, nt);
}

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;

const char *const kImagePath = "/images/small.img";
const char *const kImageName = "small";

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// ---- what the machine has left ----------------------------------------------------

// The build tree may be under /tmp on the host: the guest mounts it there.
bool is_build_tree(const std::string &path) {
  const char *build = std::getenv("BUILD_DIR");
  if (!build || !*build)
    return false;
  const std::string b = build;
  return b == path || b.rfind(path + "/", 0) == 0;
}

// Loop devices bound to a file, mounts under /tmp, entries of /tmp: "" when none.
std::string leftovers() {
  std::string r;
  if (DIR *d = opendir("/sys/block")) {
    while (const dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.rfind("loop", 0) == 0 &&
          access(("/sys/block/" + name + "/loop/backing_file").c_str(), F_OK) == 0)
        r += " " + name + " attached;";
    }
    closedir(d);
  }
  std::istringstream mounts(read_file("/proc/self/mounts"));
  std::string line;
  while (std::getline(mounts, line)) {
    std::istringstream f(line);
    std::string source, target;
    f >> source >> target;
    if (target.rfind("/tmp/", 0) == 0 && !is_build_tree(target))
      r += " mounted: " + line + ";";
  }
  if (DIR *d = opendir("/tmp")) {
    while (const dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != ".." && !is_build_tree("/tmp/" + name))
        r += " /tmp/" + name + " left;";
    }
    closedir(d);
  }
  return r;
}

// ---- the disk list as text ------------------------------------------------------------

std::string text(const char *s) { return s ? s : "(null)"; }

void describe_volume(std::ostringstream &s, const fs_volume *v) {
  s << " " << text(v->devnode) << " " << text(v->syspath) << " " << text(v->fs_type) << " holds "
    << v->mount_count << (v->mount_point ? " mounted" : "");
}

std::string describe(fs_disk_list *list) {
  std::ostringstream s;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    s << "disk " << text(d->serial) << " " << text(d->devnode) << " " << text(d->syspath) << "\n";
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p)) {
      s << "  " << p->number << " uuid " << text(p->uuid);
      describe_volume(s, &p->volume);
      s << "\n";
    }
  }
  for (fs_image_disk *i = fs_disk_list_first_image_disk(list); i;
       i = fs_disk_list_next_image_disk(list, i)) {
    s << "image " << text(i->name) << " " << text(i->devnode) << " " << text(i->syspath) << " "
      << text(i->path) << "\n";
    for (fs_partition *p = fs_image_disk_first_partition(i); p;
         p = fs_image_disk_next_partition(i, p)) {
      s << "  " << p->number << " uuid " << text(p->uuid);
      describe_volume(s, &p->volume);
      s << "\n";
    }
  }
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g)) {
    s << "group " << text(g->name) << "\n";
    for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v)) {
      s << "  " << text(v->name);
      describe_volume(s, &v->volume);
      s << "\n";
    }
  }
  s << "base dir holds " << list->base_dir_count << (list->base_dir ? " named" : "") << "\n";
  return s.str();
}

fs_disk_list *new_list() {
  fs_disk_list *list = nullptr;
  if (fs_disk_list_create(&list) != FSIC_OK) {
    std::printf("the disk list cannot be made\n");
    std::exit(1);
  }
  return list;
}

// Partition 3 of the first disk: it stores the image.
fs_volume *storing_volume(fs_disk_list *list) {
  fs_disk *disk = fs_disk_list_first_disk(list);
  fs_partition *part = disk ? fs_disk_partition_by_number(disk, 3) : nullptr;
  if (!part) {
    std::printf("no partition 3 on the first disk\n");
    std::exit(1);
  }
  return &part->volume;
}

// The lines of `got` and `want` that the other lacks.
std::string difference(const std::string &got, const std::string &want) {
  auto lines = [](const std::string &t) {
    std::vector<std::string> v;
    std::istringstream in(t);
    std::string l;
    while (std::getline(in, l))
      v.push_back(l);
    return v;
  };
  const std::vector<std::string> g = lines(got), w = lines(want);
  std::string d;
  for (const auto &l : g)
    if (std::find(w.begin(), w.end(), l) == w.end())
      d += "\n    + " + l;
  for (const auto &l : w)
    if (std::find(g.begin(), g.end(), l) == g.end())
      d += "\n    - " + l;
  return d;
}

std::vector<std::string> split(const std::string &t, char sep) {
  std::vector<std::string> v;
  std::istringstream in(t);
  std::string l;
  while (std::getline(in, l, sep))
    v.push_back(l);
  return v;
}

// True when `got` is `want` with some partitions' uuid or file-system type missing
// ("(null)"), and nothing else changed. libudev drops a property that it cannot store
// while it reads its database and then reports it as absent, without an error: the
// library cannot tell that from a partition without a file system.
bool only_values_lost(const std::string &got, const std::string &want) {
  const std::vector<std::string> g = split(got, '\n'), w = split(want, '\n');
  if (g.size() != w.size())
    return false;
  for (std::size_t i = 0; i < g.size(); i++) {
    if (g[i] == w[i])
      continue;
    // "  <number> uuid <uuid> <devnode> <syspath> <type> holds <n>"
    const std::vector<std::string> a = split(g[i], ' '), b = split(w[i], ' ');
    if (a.size() != b.size() || a.size() < 9 || a[3] != "uuid")
      return false;
    for (std::size_t k = 0; k < a.size(); k++)
      if (a[k] != b[k] && !((k == 4 || k == 7) && a[k] == "(null)"))
        return false;
  }
  return true;
}

void same_list(checks &c, const std::string &got, const std::string &want) {
  c.that(got == want, "the list differs:" + difference(got, want));
}

void no_leftovers(checks &c) {
  const std::string left = leftovers();
  c.that(left.empty(), "left behind:" + left);
}

// GLib ends the process when its allocator fails: never counted (see "glib").
void exempt_glib() {
  for (const char *name :
       {"libglib-2.0", "libgobject-2.0", "libgio-2.0", "libgmodule-2.0", "libblockdev", "libbd_"})
    fault::exempt_objects_named(name);
}

int report(const operation &op, const fault::outcome &o) {
  std::printf("%s\n", fault::summary(op.name, op, o).c_str());
  for (const auto &p : o.problems)
    std::printf("  problem: %s\n", p.c_str());
  std::fflush(stdout);
  return o.problems.empty() ? 0 : 1;
}

// ---- the operations ---------------------------------------------------------------

int create(fault::scope sc, long stride) {
  fs_disk_list sentinel{};
  fs_disk_list *list = nullptr;
  std::string reference;
  operation op;
  op.name = "fs_disk_list_create";
  op.sc = sc;
  op.stride = stride;
  if (sc == fault::scope::process)
    op.modes = {fault::mode::once};
  op.keep_going = std::getenv("FAULT_KEEP_GOING") != nullptr;
  op.setup = [&] { list = &sentinel; };
  op.call = [&] { return fs_disk_list_create(&list); };
  op.after_failure = [&](checks &c, const attempt &) {
    c.that(list == &sentinel, "a list came out");
    no_leftovers(c);
  };
  int lost = 0;
  op.after_success = [&](checks &c, const attempt &a) {
    const std::string now = describe(list);
    if (reference.empty())
      reference = now;
    if (a.r.fired() && !a.r.from_library && now != reference && only_values_lost(now, reference)) {
      lost++;
      return;
    }
    same_list(c, now, reference);
  };
  op.teardown = [&] {
    if (list != &sentinel)
      fs_disk_list_destroy(list);
    list = nullptr;
  };
  const fault::outcome o = fault::exercise(op);
  if (sc == fault::scope::library)
    std::printf("%s", reference.c_str());
  else
    std::printf("runs with a value lost inside libudev: %d\n", lost);
  return report(op, o);
}

// A failure while a volume is made is not reported: the volume is left out (status 0).
// The adapter's own records (operator new) that cannot be made count as an LVM that
// cannot be used or read (1). Anything else ends in 3 with no group left.
int lvm() {
  fs_disk_list *list = nullptr;
  std::string before, reference;
  int left_out = 0;
  operation op;
  op.name = "fs_disk_list_add_lvm_groups";
  op.modes = {fault::mode::once};
  op.setup = [&] {
    list = new_list();
    before = describe(list);
  };
  op.call = [&] { return fs_disk_list_add_lvm_groups(list); };
  op.allowed = [](const fault::report &r) -> std::vector<fsic_status> {
    if (std::strcmp(r.function, "new") == 0)
      return {FSIC_ERR_FAILED};
    return {FSIC_OK, FSIC_ERR_NO_MEMORY};
  };
  op.after_failure = [&](checks &c, const attempt &) {
    same_list(c, describe(list), before);
    no_leftovers(c);
  };
  op.after_success = [&](checks &c, const attempt &a) {
    const std::string now = describe(list);
    if (reference.empty())
      reference = now;
    if (a.r.fired() && now != reference) {
      // Only a volume may be missing: the groups are all there.
      left_out++;
      c.that(now.find("group vg-fault\n") != std::string::npos, "the group is missing");
      c.that(now.find(" lv_one ") == std::string::npos, "a different list:\n" + now);
      return;
    }
    same_list(c, now, reference);
  };
  op.teardown = [&] { fs_disk_list_destroy(list); };
  const fault::outcome o = fault::exercise(op);
  std::printf("%s", reference.substr(reference.find("group")).c_str());
  std::printf("runs that left the volume out: %d\n", left_out);
  return report(op, o);
}

int image(fault::scope sc, long stride) {
  fs_disk_list *list = nullptr;
  fs_image_disk sentinel{};
  fs_image_disk *out = nullptr;
  std::string before, reference;
  operation op;
  op.name = "fs_disk_list_add_image_disk";
  op.sc = sc;
  op.stride = stride;
  op.modes = {fault::mode::once};
  op.keep_going = std::getenv("FAULT_KEEP_GOING") != nullptr;
  op.setup = [&] {
    list = new_list();
    before = describe(list);
    out = &sentinel;
  };
  op.call = [&] {
    return fs_disk_list_add_image_disk(list, storing_volume(list), kImagePath, kImageName, &out);
  };
  op.after_failure = [&](checks &c, const attempt &) {
    same_list(c, describe(list), before);
    c.that(out == &sentinel, "an image disk came out");
    no_leftovers(c);
  };
  int lost = 0;
  op.after_success = [&](checks &c, const attempt &a) {
    const std::string now = describe(list);
    if (reference.empty())
      reference = now;
    c.that(out == fs_disk_list_first_image_disk(list), "the image disk did not come out");
    if (a.r.fired() && !a.r.from_library && now != reference && only_values_lost(now, reference)) {
      lost++;
      return;
    }
    same_list(c, now, reference);
  };
  // Destroying the list detaches the image and gives back the storing volume's hold.
  op.teardown = [&] { fs_disk_list_destroy(list); };
  const fault::outcome o = fault::exercise(op);
  if (sc == fault::scope::library)
    std::printf("%s", reference.substr(reference.find("image")).c_str());
  else
    std::printf("runs with a value lost inside libudev: %d\n", lost);
  const std::string left = leftovers();
  if (!left.empty())
    std::printf("left behind at the end:%s\n", left.c_str());
  return report(op, o) | (left.empty() ? 0 : 1);
}

// One allocation inside GLib fails while the groups are listed: GLib's allocator ends
// the process (by design it never returns null), so it is tried in a child.
void glib_child(fs_disk_list *list) {
  // GLib's last words carry the time: not for the scenario's expected output.
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, 2);
  fault::count_only_objects_named("libglib-2.0");
  fault::arm(fault::scope::process, 1);
  const fsic_status s = fs_disk_list_add_lvm_groups(list);
  const fault::report r = fault::disarm();
  std::printf("the child went on: status %u, failed %ld\n", s, r.failed);
  std::fflush(stdout);
  _exit(0);
}

int glib() {
  fs_disk_list *list = new_list();
  std::fflush(stdout);
  if (!fault::process_scope_available()) {
    std::printf("an allocation inside GLib can only be failed without AddressSanitizer "
                "(it owns the allocator)\n");
  } else {
    const pid_t pid = fork();
    if (pid == 0)
      glib_child(list);
    int wstatus = 0;
    if (pid < 0 || waitpid(pid, &wstatus, 0) != pid)
      std::printf("the child could not be run\n");
    else if (WIFSIGNALED(wstatus))
      std::printf("an allocation failed inside GLib: the process was ended by a signal (%s)\n",
                  WTERMSIG(wstatus) == SIGABRT   ? "SIGABRT"
                  : WTERMSIG(wstatus) == SIGTRAP ? "SIGTRAP"
                                                 : "other");
    else
      std::printf("an allocation failed inside GLib: the process exited with %d\n",
                  WEXITSTATUS(wstatus));
  }
  fs_disk_list_destroy(list);
  const std::string left = leftovers();
  std::printf("left behind:%s\n", left.empty() ? " nothing" : left.c_str());
  return left.empty() ? 0 : 1;
}

// The storing partition with a file-system type that does not mount it.
int wrong_type() {
  fs_disk_list *list = new_list();
  fs_volume *volume = storing_volume(list);
  char *own = volume->fs_type;
  static char xfs[] = "xfs";
  volume->fs_type = xfs;
  const std::string before = describe(list);
  fs_image_disk *out = nullptr;
  const fsic_status s = fs_disk_list_add_image_disk(list, volume, kImagePath, kImageName, &out);
  std::printf("add the image: status %u, list unchanged: %s, image out: %s\n", s,
              describe(list) == before ? "yes" : "no", out ? "yes" : "no");
  const char *mount_point = nullptr;
  const fsic_status m = fs_volume_get_mount_point(volume, &mount_point);
  std::printf("take a mount point: status %u, list unchanged: %s, mount point out: %s\n", m,
              describe(list) == before ? "yes" : "no", mount_point ? "yes" : "no");
  volume->fs_type = own;
  fs_disk_list_destroy(list);
  const std::string left = leftovers();
  std::printf("left behind:%s\n", left.empty() ? " nothing" : left.c_str());
  return s == FSIC_ERR_FAILED && m == FSIC_ERR_FAILED && left.empty() && !out ? 0 : 1;
}

int image_once() {
  fs_disk_list *list = new_list();
  const std::string before = describe(list);
  fs_image_disk *out = nullptr;
  const fsic_status s =
      fs_disk_list_add_image_disk(list, storing_volume(list), kImagePath, kImageName, &out);
  std::printf("add the image: status %u", s);
  if (s != FSIC_OK)
    std::printf(", list unchanged: %s, image out: %s", describe(list) == before ? "yes" : "no",
                out ? "yes" : "no");
  std::printf("\n");
  const std::string left = leftovers();
  std::printf("left behind before the list is destroyed:%s\n",
              left.empty() ? " nothing" : left.c_str());
  fs_disk_list_destroy(list);
  return 0;
}

int lvm_once() {
  fs_disk_list *list = new_list();
  const std::string before = describe(list);
  const fsic_status s = fs_disk_list_add_lvm_groups(list);
  std::printf("add the LVM groups: status %u, list unchanged: %s\n", s,
              describe(list) == before ? "yes" : "no");
  fs_disk_list_destroy(list);
  const std::string left = leftovers();
  std::printf("left behind:%s\n", left.empty() ? " nothing" : left.c_str());
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string mode = argc > 1 ? argv[1] : "";
  const long stride = argc > 2 ? std::atol(argv[2]) : 1;
  exempt_glib();
  if (mode == "create")
    return create(fault::scope::library, 1);
  if ((mode == "create-all" || mode == "image-all") && !fault::process_scope_available()) {
    std::printf("every allocation of the process can only be failed without "
                "AddressSanitizer (it owns the allocator)\n");
    return 2;
  }
  if (mode == "create-all")
    return create(fault::scope::process, stride);
  if (mode == "lvm")
    return lvm();
  if (mode == "image")
    return image(fault::scope::library, 1);
  if (mode == "image-all")
    return image(fault::scope::process, stride);
  if (mode == "glib") {
    fault::clear_exempt_objects();
    return glib();
  }
  if (mode == "wrong-type")
    return wrong_type();
  if (mode == "image-once")
    return image_once();
  if (mode == "lvm-once")
    return lvm_once();
  std::fprintf(stderr,
               "usage: %s create|create-all|lvm|image|image-all|glib|wrong-type|"
               "image-once|lvm-once [stride]\n",
               argv[0]);
  return 2;
}
