// Host helpers of the mount and command-runner integration tests (root): running
// programs, temporary directories, the mount table, the base mount directories of this
// process under /tmp, and hand-made volume records of a private disk list.
#ifndef FSIC_TESTS_INTEGRATION_HOST_HELPERS_H
#define FSIC_TESTS_INTEGRATION_HOST_HELPERS_H

#include <fsic/disk_list.h>
#include <fsic/list.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace host {

namespace stdfs = std::filesystem;

// ---- processes ----------------------------------------------------------------------

struct proc_result {
  int status = -1;  // exit code, or 128 + signal; -1 when the program could not be run
  bool timed_out = false;
  std::string out;
  std::string err;
  std::string describe() const {
    std::ostringstream s;
    s << "status " << status << (timed_out ? " (timed out)" : "") << "\nstdout:\n"
      << out << "stderr:\n"
      << err;
    return s.str();
  }
};

// Environment changes of a child: a value sets the variable, nullopt removes it.
using env_list = std::vector<std::pair<std::string, std::optional<std::string>>>;

// Runs argv (searched on PATH, or under /usr/sbin:/usr/bin:/sbin:/bin when `system_path`
// is set, so that stand-ins put on PATH by a test are never picked up) with stdin from
// /dev/null, stdout and stderr captured and a time limit.
inline proc_result run(const std::vector<std::string> &argv, const env_list &env = {},
                       bool system_path = true, int timeout_seconds = 60) {
  proc_result r;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return r;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return r;
  }
  std::vector<char *> args;
  for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    syscall(SYS_close_range, 3u, ~0u, 0u);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (system_path) setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    for (const auto &[name, value] : env) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(out[0]);
    close(err[0]);
    return r;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string *sinks[2] = {&r.out, &r.err};
  int open_fds = 2;
  while (open_fds > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      r.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    const int n_ready = poll(fds, 2, static_cast<int>(left));
    if (n_ready < 0 && errno == EINTR) continue;
    if (n_ready < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  for (auto &f : fds)
    if (f.fd >= 0) close(f.fd);
  int wstatus = 0;
  pid_t waited;
  do
    waited = waitpid(pid, &wstatus, 0);
  while (waited == -1 && errno == EINTR);
  if (waited == pid) {
    if (WIFEXITED(wstatus))
      r.status = WEXITSTATUS(wstatus);
    else if (WIFSIGNALED(wstatus))
      r.status = 128 + WTERMSIG(wstatus);
  }
  return r;
}

// ---- files --------------------------------------------------------------------------

inline std::string read_text(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline bool write_text(const std::string &path, const std::string &text, mode_t mode = 0644) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) return false;
  }
  return chmod(path.c_str(), mode) == 0;
}

inline bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// A private directory under /tmp, removed with everything in it (mounts below it are
// detached first, so that nothing on a mounted file system is ever removed).
class temp_dir {
public:
  explicit temp_dir(const char *prefix = "fsic-host") {
    std::string templ = std::string("/tmp/") + prefix + ".XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) path_ = buf.data();
  }
  temp_dir(const temp_dir &) = delete;
  temp_dir &operator=(const temp_dir &) = delete;
  ~temp_dir();
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  bool ok() const { return !path_.empty(); }

private:
  std::string path_;
};

// ---- mount table --------------------------------------------------------------------

struct mount_line {
  std::string mount_point;
  std::string options;        // per-mount options (field 6)
  std::string fs_type;
  std::string source;
  std::string super_options;  // per-superblock options
};

// Undoes the octal escapes of /proc/self/mountinfo (\040 for a blank).
inline std::string mountinfo_unescape(const std::string &s) {
  std::string r;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      const std::string oct = s.substr(i + 1, 3);
      if (oct.size() == 3 && std::all_of(oct.begin(), oct.end(),
                                         [](char c) { return c >= '0' && c <= '7'; })) {
        r.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    r.push_back(s[i]);
  }
  return r;
}

inline std::vector<mount_line> read_mountinfo() {
  std::vector<mount_line> lines;
  std::istringstream in(read_text("/proc/self/mountinfo"));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    std::vector<std::string> fields;
    std::string w;
    while (f >> w) fields.push_back(w);
    // id parent major:minor root mount-point options [optional...] - type source super
    const auto dash = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() < 6 || dash == fields.end() || fields.end() - dash < 4) continue;
    mount_line m;
    m.mount_point = mountinfo_unescape(fields[4]);
    m.options = fields[5];
    m.fs_type = dash[1];
    m.source = mountinfo_unescape(dash[2]);
    m.super_options = dash[3];
    lines.push_back(m);
  }
  return lines;
}

// The last (topmost) mount on exactly that directory.
inline std::optional<mount_line> find_mount(const std::string &dir) {
  std::optional<mount_line> found;
  for (const auto &m : read_mountinfo())
    if (m.mount_point == dir) found = m;
  return found;
}

inline std::set<std::string> split_options(const std::string &options) {
  std::set<std::string> r;
  std::istringstream in(options);
  std::string o;
  while (std::getline(in, o, ',')) r.insert(o);
  return r;
}

// Lazily detaches every mount at or below `dir`, deepest first.
inline void detach_mounts_below(const std::string &dir) {
  if (dir.empty()) return;
  for (int round = 0; round < 8; ++round) {
    std::vector<std::string> below;
    for (const auto &m : read_mountinfo())
      if (m.mount_point == dir || m.mount_point.rfind(dir + "/", 0) == 0)
        below.push_back(m.mount_point);
    if (below.empty()) return;
    std::sort(below.begin(), below.end(),
              [](const std::string &a, const std::string &b) { return a.size() > b.size(); });
    for (const auto &p : below) umount2(p.c_str(), MNT_DETACH);
  }
}

inline temp_dir::~temp_dir() {
  if (path_.empty()) return;
  detach_mounts_below(path_);
  std::error_code ec;
  stdfs::remove_all(path_, ec);
}

// ---- base mount directories of this process -----------------------------------------

// The entries "/tmp/fs.*.<pid of this process>".
inline std::set<std::string> own_base_dirs() {
  std::set<std::string> r;
  const std::string suffix = "." + std::to_string(getpid());
  if (DIR *d = opendir("/tmp")) {
    while (const dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.rfind("fs.", 0) == 0 && name.size() > suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        r.insert("/tmp/" + name);
    }
    closedir(d);
  }
  return r;
}

// Remembers the base directories of this process that exist when it is made, and on
// destruction detaches the mounts in and removes every one made since (only empty
// directories are removed: rmdir, never a recursive delete).
class base_dir_guard {
public:
  base_dir_guard() : before_(own_base_dirs()) {}
  base_dir_guard(const base_dir_guard &) = delete;
  base_dir_guard &operator=(const base_dir_guard &) = delete;
  ~base_dir_guard() { clean(); }

  std::set<std::string> made_since() const {
    std::set<std::string> r;
    for (const auto &d : own_base_dirs())
      if (!before_.count(d)) r.insert(d);
    return r;
  }

  void clean() const {
    for (const auto &d : made_since()) {
      detach_mounts_below(d);
      if (DIR *dir = opendir(d.c_str())) {
        std::vector<std::string> children;
        while (const dirent *e = readdir(dir)) {
          const std::string name = e->d_name;
          if (name != "." && name != "..") children.push_back(d + "/" + name);
        }
        closedir(dir);
        for (const auto &c : children) rmdir(c.c_str());
      }
      rmdir(d.c_str());
    }
  }

private:
  std::set<std::string> before_;
};

// ---- hand-made volume records -------------------------------------------------------

// A disk list of its own (empty record lists) with one disk whose partitions are made
// by hand; the volumes reach the list through the disk, as real partitions do.
struct test_disk_list {
  fs_disk_list list{};
  fs_disk disk{};

  test_disk_list() {
    INIT_LIST_HEAD(&list.disks);
    INIT_LIST_HEAD(&list.image_disks);
    INIT_LIST_HEAD(&list.lvm_groups);
    INIT_LIST_HEAD(&disk.link);
    INIT_LIST_HEAD(&disk.partitions);
    disk.disk_list = &list;
  }
  test_disk_list(const test_disk_list &) = delete;
  test_disk_list &operator=(const test_disk_list &) = delete;
};

inline fs_disk_list *test_get_disk_list(fs_volume *volume) {
  // The volume head is the first member of the partition record.
  auto *part = reinterpret_cast<fs_partition *>(volume);
  return static_cast<fs_disk *>(part->disk)->disk_list;
}

inline fsic_status test_create_id(fs_volume *, fs_volume_id **) { return FSIC_ERR_FAILED; }

inline const fs_volume_ops test_volume_ops = {FS_VOLUME_PARTITION, test_create_id,
                                              test_get_disk_list};

// A partition record of a test disk list. The texts are the record's own (mutable)
// buffers; a null fs_type gives a volume without a file-system type.
struct test_volume {
  fs_partition part{};
  std::string devnode, syspath;
  std::optional<std::string> fs_type;

  test_volume(test_disk_list &owner, std::string devnode_, std::optional<std::string> type,
              std::string syspath_)
      : devnode(std::move(devnode_)), syspath(std::move(syspath_)), fs_type(std::move(type)) {
    part.volume.ops = &test_volume_ops;
    part.volume.devnode = devnode.data();
    part.volume.fs_type = fs_type ? fs_type->data() : nullptr;
    part.volume.syspath = syspath.data();
    INIT_LIST_HEAD(&part.link);
    part.disk = &owner.disk;
    part.number = 1;
  }
  test_volume(const test_volume &) = delete;
  test_volume &operator=(const test_volume &) = delete;

  fs_volume *volume() { return &part.volume; }
};

}  // namespace host

#endif  // FSIC_TESTS_INTEGRATION_HOST_HELPERS_H
