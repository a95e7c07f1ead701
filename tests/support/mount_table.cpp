#include "tests/support/mount_table.h"

#include <sys/mount.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/support/files.h"

namespace support {

std::string mountinfo_unescape(const std::string &s) {
  std::string r;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      const std::string oct = s.substr(i + 1, 3);
      if (oct.size() == 3 &&
          std::all_of(oct.begin(), oct.end(), [](char c) { return c >= '0' && c <= '7'; })) {
        r.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    r.push_back(s[i]);
  }
  return r;
}

std::vector<mount_line> read_mountinfo() {
  std::vector<mount_line> lines;
  std::istringstream in(read_text("/proc/self/mountinfo"));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    std::vector<std::string> fields;
    std::string w;
    while (f >> w)
      fields.push_back(w);
    // id parent major:minor root mount-point options [optional...] - type source super
    const auto dash = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() < 6 || dash == fields.end() || fields.end() - dash < 4)
      continue;
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

std::optional<mount_line> find_mount(const std::string &dir) {
  std::optional<mount_line> found;
  for (const auto &m : read_mountinfo())
    if (m.mount_point == dir)
      found = m;
  return found;
}

int count_mounts_at(const std::string &dir) {
  const auto lines = read_mountinfo();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                        [&](const mount_line &m) { return m.mount_point == dir; }));
}

std::string device_under(const std::string &source) {
  if (source.rfind("/dev/loop", 0) != 0)
    return source;
  std::ifstream in("/sys/block/" + source.substr(5) + "/loop/backing_file");
  std::string file;
  if (!std::getline(in, file))
    return source;
  return file;
}

bool is_read_only_loop(const std::string &source) {
  if (source.rfind("/dev/loop", 0) != 0)
    return false;
  std::ifstream in("/sys/block/" + source.substr(5) + "/ro");
  std::string ro;
  return std::getline(in, ro) && ro == "1";
}

int count_mounts_of(const std::string &source) {
  const auto lines = read_mountinfo();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const mount_line &m) {
    return m.source == source || device_under(m.source) == source;
  }));
}

std::set<std::string> split_options(const std::string &options) {
  std::set<std::string> r;
  std::istringstream in(options);
  std::string o;
  while (std::getline(in, o, ','))
    r.insert(o);
  return r;
}

void detach_mounts_below(const std::string &dir) {
  if (dir.empty())
    return;
  for (int round = 0; round < 8; ++round) {
    std::vector<std::string> below;
    for (const auto &m : read_mountinfo())
      if (m.mount_point == dir || m.mount_point.rfind(dir + "/", 0) == 0)
        below.push_back(m.mount_point);
    if (below.empty())
      return;
    std::sort(below.begin(), below.end(),
              [](const std::string &a, const std::string &b) { return a.size() > b.size(); });
    for (const auto &p : below)
      umount2(p.c_str(), MNT_DETACH);
  }
}

} // namespace support
