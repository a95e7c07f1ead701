// The tree that the driver's integrity-list scenario expects on its volume, and the
// listing the scenario must print for it, worked out here from the files themselves
// (hashes by the slow reference implementation of the hash, attributes by stat).
#ifndef FSIC_TESTS_UNIT_DRIVER_ICL_SCENARIO_TREE_H
#define FSIC_TESTS_UNIT_DRIVER_ICL_SCENARIO_TREE_H

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/hash/gost_reference.h"

namespace drivertest {

// The files of the scenario, relative to the volume's root, with their contents.
struct TreeFile {
  std::string path;
  std::string content;
};

inline std::string pattern(size_t n, unsigned seed) {
  std::string s;
  for (size_t i = 0; i < n; i++)
    s.push_back(static_cast<char>((i * 131 + seed * 17 + (i >> 7)) & 0xFF));
  return s;
}

inline std::vector<TreeFile> scenario_files() {
  return {
      {"ntldr", pattern(33000, 1)}, // more than two reads of the hash
      {"NTDETECT.COM", pattern(47564, 2)},
      {"AUTOEXEC.BAT", ""},
      {"boot.ini", "[boot loader]\r\ntimeout=30\r\n"},
      {"WINDOWS/explorer.exe", pattern(16384, 3)},
      // The directory: masks *.dll *.DLL *.exe *.EXE, every level.
      {"WINDOWS/Installer/a.dll", "a"},
      {"WINDOWS/Installer/B.DLL", pattern(100, 4)},
      {"WINDOWS/Installer/c.exe", pattern(20000, 5)},
      {"WINDOWS/Installer/D.EXE", "dd"},
      {"WINDOWS/Installer/readme.txt", "not listed"},
      {"WINDOWS/Installer/x.Dll", "not listed: masks are case-sensitive"},
      {"WINDOWS/Installer/sub1/x.dll", "x"},
      {"WINDOWS/Installer/sub1/notes.txt", "not listed"},
      {"WINDOWS/Installer/sub1/deeper/y.EXE", "yyy"},
      {"WINDOWS/Installer/onlytxt/z.txt", "a subdirectory with nothing listed is left out"},
  };
}

// Writes the tree under `root` (an empty directory is added too, which the listing
// leaves out). `skip` names files to leave out.
inline void make_scenario_tree(const std::string &root, const std::vector<std::string> &skip = {}) {
  for (const TreeFile &f : scenario_files()) {
    bool skipped = false;
    for (const std::string &s : skip)
      skipped = skipped || s == f.path;
    if (skipped)
      continue;
    const std::filesystem::path p = std::filesystem::path(root) / f.path;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(f.content.data(), static_cast<std::streamsize>(f.content.size()));
    if (!out)
      throw std::runtime_error("cannot write " + p.string());
  }
  std::filesystem::create_directories(std::filesystem::path(root) / "WINDOWS/Installer/empty");
}

inline std::string content_of(const std::string &path) {
  for (const TreeFile &f : scenario_files())
    if (f.path == path)
      return f.content;
  throw std::runtime_error("no such file in the tree: " + path);
}

inline std::string hash_text(const std::string &content) {
  const gost_ref::block d =
      gost_ref::digest(1, reinterpret_cast<const uint8_t *>(content.data()), content.size());
  std::string s = "[";
  char buf[3];
  for (uint8_t b : d) {
    snprintf(buf, sizeof buf, "%02x", b);
    s += buf;
  }
  return s + "]";
}

inline struct stat stat_of(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    throw std::runtime_error("cannot stat " + path);
  return st;
}

inline std::string file_attrs_text(const std::string &path) {
  const struct stat st = stat_of(path);
  char buf[160];
  snprintf(buf, sizeof buf, "[mode: %04o, uid: %u, git: %u, size: %d, mtime: %d]",
           static_cast<unsigned>(st.st_mode), static_cast<unsigned>(st.st_uid & 0xFFFF),
           static_cast<unsigned>(st.st_gid & 0xFFFF), static_cast<int>(st.st_size),
           static_cast<int>(st.st_mtime));
  return buf;
}

inline std::string dir_attrs_text(const std::string &path) {
  const struct stat st = stat_of(path);
  char buf[100];
  snprintf(buf, sizeof buf, "[mode: %04o, uid: %u, git: %u]", static_cast<unsigned>(st.st_mode),
           static_cast<unsigned>(st.st_uid & 0xFFFF), static_cast<unsigned>(st.st_gid & 0xFFFF));
  return buf;
}

// The listing of the scenario's list: the identifier line, then the objects in path
// order. `root` is where the volume's files can be stat'ed.
inline std::string scenario_listing(const std::string &root, const std::string &id_line) {
  auto file = [&](const std::string &rel) {
    return "  F /" + rel + " [ CONTROL_DATA CONTROL_ATTRS ]\n    " + hash_text(content_of(rel)) +
           " " + file_attrs_text(root + "/" + rel) + " \n";
  };
  const std::string inst = "WINDOWS/Installer";
  auto entry = [&](int level, const std::string &rel) {
    const std::string name = rel.substr(rel.rfind('/') + 1);
    return std::string(2 * level, ' ') + " " + name + " " +
           hash_text(content_of(inst + "/" + rel)) + " " +
           file_attrs_text(root + "/" + inst + "/" + rel) + "\n";
  };
  auto subdir = [&](int level, const std::string &rel) {
    const std::string name = rel.substr(rel.rfind('/') + 1);
    return std::string(2 * level, ' ') + "+" + name + " " +
           dir_attrs_text(root + "/" + inst + "/" + rel) + "\n";
  };
  std::string s = id_line;
  s += file("AUTOEXEC.BAT");
  s += file("NTDETECT.COM");
  s += "  D /WINDOWS/Installer [ EACH_FILE RECURSIVE CONTROL_DATA CONTROL_ATTRS ]"
       " [ '*.dll' '*.DLL' '*.exe' '*.EXE' ]\n";
  s += "    <root> " + dir_attrs_text(root + "/" + inst) + "\n";
  s += subdir(3, "sub1");
  s += subdir(4, "sub1/deeper");
  s += entry(5, "sub1/deeper/y.EXE");
  s += entry(4, "sub1/x.dll");
  s += entry(3, "B.DLL");
  s += entry(3, "D.EXE");
  s += entry(3, "a.dll");
  s += entry(3, "c.exe");
  s += file("WINDOWS/explorer.exe");
  s += file("boot.ini");
  s += file("ntldr");
  return s;
}

// The whole output of a successful run: the list, then its copy after the save and
// restore cycles (one volume, so the same listing).
inline std::string scenario_output(const std::string &root, const std::string &id_line) {
  const std::string listing = scenario_listing(root, id_line);
  return "======= icl =======\n" + listing + "======= icl2 =======\n" + listing;
}

} // namespace drivertest

#endif
