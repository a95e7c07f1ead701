#include "tests/support/files.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace support {

std::string read_text(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool write_text(const std::string &path, const std::string &text, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out)
      return false;
  }
  return chmod(path.c_str(), mode) == 0;
}

void write_file(const std::string &path, const std::string &content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out)
    throw std::runtime_error("cannot write " + path);
}

void make_dirs(const std::string &path) { std::filesystem::create_directories(path); }

bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

} // namespace support
