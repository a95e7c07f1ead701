// fsic init and check against Debian's aide --init and --check on the same trees, side
// by side in one run (root). Each tree is put into an ext4 image on a loop device:
//   large: 64 files of 4 MiB in one directory;
//   small: 20,000 files of 1 to 8 KiB in 200 directories;
//   usr:   a copy of this machine's /usr (one round; --no-usr leaves it out).
// Both keep the same attributes of every file: type and permissions, owner, group, size,
// modification time and the GOST R 34.11-94 hash (aide: p+u+g+s+m+gost; fsic: "dir
// PATH each-file recursive data attrs"), and both write a database on this machine's
// disk, fsic's keyed (HMAC), aide's uncompressed.
//
// fsic runs the command's own init and check in this process, on a disk list whose one
// partition is the loop device (the command's inventory would only see this machine's
// disks), and mounts the image itself, read-only, as it would a disk's partition. aide
// reads the same device mounted read-only by the benchmark. aide runs with as many
// workers as there are cores, fsic on one thread. Per tree: the median of 3 rounds after
// one that warms the caches (the usr tree: one round after the warm-up), wall and CPU
// time, files/s and MB/s, aide's time over fsic's, and the sizes of the two databases.
//
//   fsic-bench-aide [--quick] [--no-usr]   (--quick: tiny trees, one round, no usr: only
//                                           that both run and agree that nothing changed)
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/image_volume.h"
#include "bench/ocl/bench_support.h"
#include "cli/commands.h"
#include "tests/support/process.h"

namespace {

using bench::Sample;

constexpr int kExitSkip = 77;
constexpr const char *kSerial = "BENCH-AIDE-1";

struct Options {
  bool quick = false;
  bool usr = true;
  int rounds = 3;
};

struct TreeSize {
  uint64_t files = 0, bytes = 0;
};

// The regular files below `root` and their bytes, as the tools will find them (links
// are not followed).
TreeSize count_tree(const std::string &root) {
  namespace fs = std::filesystem;
  TreeSize t;
  std::error_code walk;
  for (fs::recursive_directory_iterator
           it(root, fs::directory_options::skip_permission_denied, walk),
       end;
       !walk && it != end; it.increment(walk)) {
    std::error_code ec;
    if (it->symlink_status(ec).type() == fs::file_type::regular) {
      const uintmax_t size = it->file_size(ec);
      t.files++;
      t.bytes += ec ? 0 : size;
    }
  }
  return t;
}

// A read-only mount of the benchmark's own, undone by the destructor.
class ro_mount {
public:
  ro_mount(const std::string &dev, std::string dir) : dir_(std::move(dir)) {
    mkdir(dir_.c_str(), 0755);
    mounted_ = mount(dev.c_str(), dir_.c_str(), "ext4", MS_RDONLY, nullptr) == 0;
    if (!mounted_)
      fprintf(stderr, "fsic-bench-aide: mount %s: %s\n", dev.c_str(), strerror(errno));
  }
  ~ro_mount() {
    if (mounted_ && umount(dir_.c_str()) != 0)
      umount2(dir_.c_str(), MNT_DETACH);
  }
  ro_mount(const ro_mount &) = delete;
  ro_mount &operator=(const ro_mount &) = delete;
  bool ok() const { return mounted_; }

private:
  std::string dir_;
  bool mounted_ = false;
};

bool write_file(const std::string &path, const std::string &text, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0)
    return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok;
}

// 32 random bytes, readable by root only, as fsic keygen makes them.
bool write_key(const std::string &path) {
  std::string key(32, '\0');
  std::ifstream random("/dev/urandom", std::ios::binary);
  return random.read(key.data(), static_cast<std::streamsize>(key.size())) &&
         write_file(path, key, 0600);
}

// A path as an aide selection line has it: a regular expression.
std::string aide_regex(const std::string &path) {
  std::string out;
  for (char c : path) {
    if (strchr(".^$*+?()[]{}|\\", c))
      out += '\\';
    out += c;
  }
  return out;
}

off_t file_size(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// The entries of an uncompressed aide database: every line but its "@@" and "#" lines.
uint64_t aide_entries(const std::string &db) {
  std::ifstream in(db);
  std::string line;
  uint64_t n = 0;
  while (std::getline(in, line))
    n += !line.empty() && line.rfind("@@", 0) != 0 && line[0] != '#';
  return n;
}

struct Figures {
  Sample init, check;
};

void print_line(const char *tool, const char *step, const Sample &s, const TreeSize &size) {
  printf("  %-5s %-6s %9.3f s wall %9.3f s cpu %11.0f files/s %8.1f MB/s\n", tool, step, s.wall,
         s.cpu, static_cast<double>(size.files) / s.wall,
         static_cast<double>(size.bytes) / 1e6 / s.wall);
}

// A copy of this machine's /usr as a small root file system under `root`: usr/ and etc/
// (the target of many of /usr's links, through /etc/alternatives), and the links bin,
// lib, sbin, ... of a merged /usr. fsic follows links inside a volume, and a directory
// that holds a link leading nowhere there, or back to a directory above it (as
// /usr/bin/X11 -> . does), cannot be added as one tree: such links are taken out of the
// copy, so that both tools measure the same tree. The number of links taken out, or -1.
long copy_usr(const std::string &root) {
  namespace fs = std::filesystem;
  mkdir(root.c_str(), 0755);
  for (const char *dir : {"/usr", "/etc"}) {
    support::proc_result cp = support::run({"cp", "-a", dir, root + dir}, {}, true, 3600);
    if (cp.status != 0) {
      fprintf(stderr, "fsic-bench-aide: cp -a %s: %s\n", dir, cp.describe().c_str());
      return -1;
    }
  }
  for (const char *name : {"bin", "lib", "lib32", "lib64", "libx32", "sbin"}) {
    std::error_code ec;
    const fs::path link = fs::path("/") / name;
    if (fs::is_symlink(link, ec))
      fs::create_symlink(fs::read_symlink(link, ec), root + "/" + name, ec);
  }
  // Links are judged from inside the copy, where an absolute target means the copy's.
  int out[2];
  if (pipe(out) != 0)
    return -1;
  pid_t pid = fork();
  if (pid == 0) {
    long removed = -1;
    if (chroot(root.c_str()) == 0 && chdir("/") == 0) {
      std::vector<fs::path> links;
      std::error_code ec;
      for (fs::recursive_directory_iterator it("/usr", ec), end; !ec && it != end; it.increment(ec))
        if (it->is_symlink(ec))
          links.push_back(it->path());
      removed = 0;
      for (const fs::path &link : links) {
        std::error_code bad;
        const fs::path target = fs::canonical(link, bad);
        const std::string parent = link.parent_path().string() + "/";
        const std::string above = target == "/" ? "/" : target.string() + "/";
        if (bad || (fs::is_directory(target, bad) && parent.compare(0, above.size(), above) == 0))
          removed += fs::remove(link, bad) ? 1 : 0;
      }
    }
    ssize_t n = write(out[1], &removed, sizeof removed);
    _exit(n == sizeof removed ? 0 : 1);
  }
  close(out[1]);
  long removed = -1;
  if (pid < 0 || read(out[0], &removed, sizeof removed) != sizeof removed)
    removed = -1;
  close(out[0]);
  if (pid > 0)
    waitpid(pid, nullptr, 0);
  return removed;
}

// One tree, made by the benchmark after `shape` or, with `usr_copy`, a copy of this
// machine's /usr (at /usr in the image): false when a tool failed or a check found a
// change.
bool bench_tree(const std::string &scratch, const bench::TreeShape &shape, bool usr_copy,
                int rounds, unsigned workers) {
  const std::string dir = scratch + "/" + shape.name;
  mkdir(dir.c_str(), 0700);
  const std::string src = dir + "/src";
  // The tree's path in the image.
  const std::string inside = usr_copy ? "/usr" : "/tree";
  if (usr_copy) {
    const long removed = copy_usr(src);
    if (removed < 0)
      return false;
    printf("%s tree: a copy of /usr; %ld links that lead nowhere in it, or above themselves, "
           "taken out\n",
           shape.name, removed);
  } else {
    bench::make_tree(src + "/tree", shape.dirs, shape.files, shape.min_size, shape.max_size, 7);
  }
  const TreeSize size = count_tree(src + inside);
  const std::string image = dir + "/tree.img";
  // Room for the data with its blocks rounded up, and the metadata.
  const off_t image_size =
      static_cast<off_t>(size.bytes + size.bytes / 4 + size.files * 8192ull + (256ull << 20));
  // A copy of /usr takes minutes.
  if (auto made = support::make_ext4_image(image, image_size, src, {}, 3600); !made) {
    fprintf(stderr, "fsic-bench-aide: the %s tree's image: %s\n", shape.name, made.message());
    return false;
  }
  std::filesystem::remove_all(src);
  bench::image_volume v(kSerial);
  if (!v.attach(image)) {
    fprintf(stderr, "fsic-bench-aide: no loop device for the %s tree\n", shape.name);
    return false;
  }
  ro_mount aide_view(v.loop.node(), dir + "/mnt");
  if (!aide_view.ok())
    return false;
  printf("%s tree: %llu files, %.1f MB, in an ext4 image on %s\n", shape.name,
         static_cast<unsigned long long>(size.files), static_cast<double>(size.bytes) / 1e6,
         v.loop.node().c_str());

  // fsic: a policy naming the tree on the loop device's partition, a key, a database.
  const std::string policy = dir + "/fsic.policy", key = dir + "/fsic.key", db = dir + "/fsic.db";
  bool ok = write_file(policy, std::string("[part:") + kSerial + ":1]\ndir " + inside +
                                   " each-file recursive data attrs\n") &&
            write_key(key);
  fsic::cli::options init_o;
  init_o.command = "init";
  init_o.policy = policy;
  init_o.db = db;
  init_o.key = key;
  init_o.force = true;
  init_o.quiet = true;
  init_o.progress = 0;
  fsic::cli::options check_o = init_o;
  check_o.command = "check";
  check_o.policy.clear();
  check_o.force = false;

  // aide: the same attributes of the same tree, through the benchmark's mount.
  const std::string conf = dir + "/aide.conf", aide_in = dir + "/aide.db",
                    aide_out = dir + "/aide.db.new", aide_report = dir + "/aide.out";
  const std::string watched = dir + "/mnt" + inside;
  ok = ok && write_file(conf, "database_in=file:" + aide_in + "\ndatabase_out=file:" + aide_out +
                                  "\ngzip_dbout=no\nreport_url=stdout\n"
                                  "Fsic = p+u+g+s+m+gost\n" +
                                  aide_regex(watched) + " Fsic\n");
  const std::string aide = bench::find_program("aide");
  const std::vector<std::string> aide_args = {aide, "--config=" + conf,
                                              "--workers=" + std::to_string(workers)};
  auto with = [&](std::vector<std::string> args, const char *step) {
    args.push_back(step);
    return args;
  };

  std::vector<Sample> fsic_init, fsic_check, aide_init, aide_check;
  auto fsic_round = [&](bool keep) {
    bench::Stopwatch sw;
    int status = fsic::cli::init_on(init_o, v.list());
    Sample s = sw.stop();
    if (status != 0) {
      fprintf(stderr, "fsic-bench-aide: fsic init of the %s tree: status %d\n", shape.name, status);
      return false;
    }
    if (keep)
      fsic_init.push_back(s);
    bench::Stopwatch sw2;
    status = fsic::cli::check_on(check_o, v.list());
    s = sw2.stop();
    if (status != 0) {
      fprintf(stderr, "fsic-bench-aide: fsic check of the unchanged %s tree: status %d\n",
              shape.name, status);
      return false;
    }
    if (keep)
      fsic_check.push_back(s);
    return true;
  };
  auto aide_round = [&](bool keep) {
    Sample s = bench::run_timed(with(aide_args, "--init"), aide_report);
    if (s.wall < 0 || rename(aide_out.c_str(), aide_in.c_str()) != 0) {
      fprintf(stderr, "fsic-bench-aide: aide --init of the %s tree failed (%s)\n", shape.name,
              aide_report.c_str());
      return false;
    }
    if (keep)
      aide_init.push_back(s);
    s = bench::run_timed(with(aide_args, "--check"), aide_report);
    if (s.wall < 0) {
      fprintf(stderr,
              "fsic-bench-aide: aide --check of the unchanged %s tree failed or found "
              "changes (%s)\n",
              shape.name, aide_report.c_str());
      return false;
    }
    if (keep)
      aide_check.push_back(s);
    return true;
  };

  ok = ok && fsic_round(false) && aide_round(false);
  // aide finds what its selection line matches: nothing at all would be a fast no-op.
  if (ok) {
    const uint64_t entries = aide_entries(aide_in);
    if (entries < size.files) {
      fprintf(stderr,
              "fsic-bench-aide: aide's database of the %s tree has %llu entries for %llu files\n",
              shape.name, static_cast<unsigned long long>(entries),
              static_cast<unsigned long long>(size.files));
      ok = false;
    }
  }
  for (int r = 0; ok && r < rounds; r++)
    ok = fsic_round(true) && aide_round(true);
  if (!ok)
    return false;

  const Figures f{bench::medians(fsic_init), bench::medians(fsic_check)};
  const Figures a{bench::medians(aide_init), bench::medians(aide_check)};
  print_line("fsic", "init", f.init, size);
  print_line("aide", "init", a.init, size);
  print_line("fsic", "check", f.check, size);
  print_line("aide", "check", a.check, size);
  printf("  aide's time over fsic's: init %.2fx, check %.2fx (goal: at least 2.5x)\n",
         a.init.wall / f.init.wall, a.check.wall / f.check.wall);
  const off_t fsic_db = file_size(db), aide_db = file_size(aide_in);
  printf("  databases: fsic %lld bytes, aide %lld bytes: %.2f of aide's (goal: at most 0.5)\n",
         static_cast<long long>(fsic_db), static_cast<long long>(aide_db),
         static_cast<double>(fsic_db) / static_cast<double>(aide_db));
  return true;
}

} // namespace

int main(int argc, char **argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--quick") == 0) {
      o.quick = true;
      o.usr = false;
      o.rounds = 1;
    } else if (strcmp(argv[i], "--no-usr") == 0) {
      o.usr = false;
    } else {
      fprintf(stderr, "usage: fsic-bench-aide [--quick] [--no-usr]\n");
      return 2;
    }
  }
  if (geteuid() != 0) {
    printf("fsic-bench-aide: skipped: needs root (loop devices, mounts)\n");
    return kExitSkip;
  }
  if (bench::find_program("aide").empty()) {
    printf("fsic-bench-aide: skipped: aide is not in PATH\n");
    return kExitSkip;
  }
  const unsigned workers = std::max(1u, std::thread::hardware_concurrency());
  printf("aide with %u workers, fsic on one thread\n", workers);
  bench::ScratchDir scratch;
  bool ok = bench_tree(scratch.path(), bench::large_tree(o.quick), false, o.rounds, workers);
  ok = bench_tree(scratch.path(), bench::small_tree(o.quick), false, o.rounds, workers) && ok;
  if (o.usr)
    ok = bench_tree(scratch.path(), bench::TreeShape{"usr", 0, 0, 0, 0}, true, 1, workers) && ok;
  return ok ? 0 : 1;
}
