#include "tree_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace ocltest {

namespace {

bool byte_less(const std::string &a, const std::string &b) {
  size_t n = std::min(a.size(), b.size());
  int c = memcmp(a.data(), b.data(), n);
  return c != 0 ? c < 0 : a.size() < b.size();
}

bool admitted(const Masks &masks, const std::string &name) {
  if (!masks.present())
    return true;
  for (const std::string &m : masks.strings())
    if (glob_match(m.c_str(), name.c_str()))
      return true;
  return false;
}

struct stat must_stat(const std::string &path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0)
    throw std::runtime_error("model: cannot stat " + path);
  return st;
}

} // namespace

bool glob_match(const char *pattern, const char *name) {
  if (*pattern == '\0')
    return *name == '\0';
  if (*pattern == '*') {
    for (const char *p = name;; ++p) {
      if (glob_match(pattern + 1, p))
        return true;
      if (*p == '\0')
        return false;
    }
  }
  if (*name == '\0')
    return false;
  if (*pattern == '?' || *pattern == *name)
    return glob_match(pattern + 1, name + 1);
  return false;
}

ModelScan model_scan(const std::string &dir, const Masks &masks, bool want_subdirs) {
  ModelScan scan;
  for (const auto &entry : std::filesystem::directory_iterator(dir)) {
    std::string name = entry.path().filename().string();
    struct stat st = must_stat(dir + "/" + name);
    if (S_ISREG(st.st_mode) && admitted(masks, name))
      scan.files.push_back(name);
    else if (S_ISDIR(st.st_mode) && want_subdirs)
      scan.subdirs.push_back(name);
  }
  std::sort(scan.files.begin(), scan.files.end(), byte_less);
  std::sort(scan.subdirs.begin(), scan.subdirs.end(), byte_less);
  return scan;
}

std::string model_file_attrs(const struct stat &st) {
  return le32(static_cast<uint32_t>(st.st_mode)) + le16(st.st_uid & 0xFFFF) +
         le16(st.st_gid & 0xFFFF) + le32(static_cast<uint64_t>(st.st_size) & 0xFFFFFFFFu) +
         le32(static_cast<uint64_t>(st.st_mtime) & 0xFFFFFFFFu);
}

std::string model_dir_attrs(const struct stat &st) {
  return le32(static_cast<uint32_t>(st.st_mode)) + le16(st.st_uid & 0xFFFF) +
         le16(st.st_gid & 0xFFFF);
}

Digest model_file_hash(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw std::runtime_error("model: cannot read " + path);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return gost(content);
}

Digest model_inner_hash(const std::string &dir, const Masks &masks, uint32_t flags, bool *empty) {
  ModelScan scan = model_scan(dir, masks, flags & RECURSIVE);
  std::string message;
  size_t kept = 0;
  for (const std::string &name : scan.subdirs) {
    bool sub_empty = false;
    Digest inner = model_inner_hash(dir + "/" + name, masks, flags, &sub_empty);
    if (sub_empty)
      continue;
    ++kept;
    message += name + bytes(inner);
    if (flags & CONTROL_ATTRS)
      message += model_dir_attrs(must_stat(dir + "/" + name));
  }
  for (const std::string &name : scan.files) {
    message += name;
    if (flags & CONTROL_DATA)
      message += bytes(model_file_hash(dir + "/" + name));
    if (flags & CONTROL_ATTRS)
      message += model_file_attrs(must_stat(dir + "/" + name));
  }
  *empty = scan.files.empty() && kept == 0;
  return gost(message);
}

Digest model_dir_hash(const std::string &dir, const Masks &masks, uint32_t flags) {
  bool empty = false;
  std::string message = bytes(model_inner_hash(dir, masks, flags, &empty));
  if (flags & CONTROL_ATTRS)
    message += model_dir_attrs(must_stat(dir));
  return gost(message);
}

std::unique_ptr<ModelInfo> model_dir_info(const std::string &dir, const Masks &masks,
                                          uint32_t flags, bool root) {
  ModelScan scan = model_scan(dir, masks, flags & RECURSIVE);
  auto info = std::make_unique<ModelInfo>();
  for (const std::string &name : scan.subdirs) {
    auto sub = model_dir_info(dir + "/" + name, masks, flags, false);
    if (!sub)
      continue;
    info->subdir_names.push_back(name);
    info->subdirs.push_back(std::move(sub));
    info->subdir_stats.push_back(must_stat(dir + "/" + name));
  }
  for (const std::string &name : scan.files) {
    info->file_names.push_back(name);
    info->file_hashes.push_back(model_file_hash(dir + "/" + name));
    info->file_stats.push_back(must_stat(dir + "/" + name));
  }
  if (!root && info->file_names.empty() && info->subdir_names.empty())
    return nullptr;
  return info;
}

void expect_info_matches(const fs_ocl_dir_info *info, const ModelInfo &model, uint32_t flags,
                         const std::string &where) {
  SCOPED_TRACE("level " + where);
  ASSERT_NE(info, nullptr);

  const size_t nsub = model.subdir_names.size();
  ASSERT_EQ(info->subdir_count, static_cast<int32_t>(nsub));
  if (nsub == 0) {
    EXPECT_EQ(info->subdir_names, nullptr);
    EXPECT_EQ(info->subdir_infos, nullptr);
    EXPECT_EQ(info->subdir_attrs, nullptr);
  } else {
    ASSERT_NE(info->subdir_names, nullptr);
    ASSERT_NE(info->subdir_infos, nullptr);
    EXPECT_EQ(info->subdir_attrs != nullptr, (flags & CONTROL_ATTRS) != 0);
  }
  for (size_t i = 0; i < nsub; ++i) {
    EXPECT_EQ(std::string(info->subdir_names[i]), model.subdir_names[i]);
    if (info->subdir_attrs) {
      const struct stat &st = model.subdir_stats[i];
      EXPECT_EQ(info->subdir_attrs[i].mode, static_cast<uint32_t>(st.st_mode));
      EXPECT_EQ(info->subdir_attrs[i].uid, st.st_uid & 0xFFFF);
      EXPECT_EQ(info->subdir_attrs[i].gid, st.st_gid & 0xFFFF);
    }
    expect_info_matches(info->subdir_infos[i], *model.subdirs[i], flags,
                        where + "/" + model.subdir_names[i]);
  }

  const size_t nfiles = model.file_names.size();
  ASSERT_EQ(info->file_count, static_cast<int32_t>(nfiles));
  if (nfiles == 0) {
    EXPECT_EQ(info->file_names, nullptr);
    EXPECT_EQ(info->file_hashes, nullptr);
    EXPECT_EQ(info->file_attrs, nullptr);
  } else {
    ASSERT_NE(info->file_names, nullptr);
    EXPECT_EQ(info->file_hashes != nullptr, (flags & CONTROL_DATA) != 0);
    EXPECT_EQ(info->file_attrs != nullptr, (flags & CONTROL_ATTRS) != 0);
  }
  for (size_t i = 0; i < nfiles; ++i) {
    EXPECT_EQ(std::string(info->file_names[i]), model.file_names[i]);
    if (info->file_hashes) {
      EXPECT_EQ(hex(bytes(info->file_hashes[i])), hex(bytes(model.file_hashes[i])))
          << model.file_names[i];
    }
    if (info->file_attrs) {
      const struct stat &st = model.file_stats[i];
      const fs_ocl_file_attrs &a = info->file_attrs[i];
      EXPECT_EQ(a.mode, static_cast<uint32_t>(st.st_mode));
      EXPECT_EQ(a.uid, st.st_uid & 0xFFFF);
      EXPECT_EQ(a.gid, st.st_gid & 0xFFFF);
      EXPECT_EQ(a.size, static_cast<uint64_t>(st.st_size) & 0xFFFFFFFFu);
      EXPECT_EQ(a.mtime, static_cast<uint64_t>(st.st_mtime) & 0xFFFFFFFFu);
    }
  }
}

} // namespace ocltest
