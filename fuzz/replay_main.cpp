// Replays inputs through a fuzz target without libFuzzer: every regular file named on
// the command line, or found (recursively, in name order) under a directory named
// there, is passed to LLVMFuzzerTestOneInput once. A property that fails stops the
// process (the test fails); so does finding no input at all, or a path that is
// missing, so that a misplaced corpus cannot pass unnoticed.
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

namespace fs = std::filesystem;

bool collect(const fs::path &path, std::vector<fs::path> *files) {
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) {
    files->push_back(path);
    return true;
  }
  if (!fs::is_directory(path, ec)) {
    fprintf(stderr, "replay: %s: no such file or directory\n", path.c_str());
    return false;
  }
  std::vector<fs::path> found;
  for (auto it = fs::recursive_directory_iterator(path, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    if (it->is_regular_file())
      found.push_back(it->path());
  if (ec) {
    fprintf(stderr, "replay: %s: %s\n", path.c_str(), ec.message().c_str());
    return false;
  }
  std::sort(found.begin(), found.end());
  files->insert(files->end(), found.begin(), found.end());
  return true;
}

} // namespace

int main(int argc, char **argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; i++)
    if (!collect(argv[i], &files))
      return 2;
  if (files.empty()) {
    fprintf(stderr, "replay: no inputs\n");
    return 2;
  }
  for (const fs::path &file : files) {
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    if (!in.eof() && in.fail()) {
      fprintf(stderr, "replay: cannot read %s\n", file.c_str());
      return 2;
    }
    // A block of exactly the input's size (never null, as with libFuzzer), so that
    // AddressSanitizer sees any read past its end.
    std::unique_ptr<uint8_t[]> input(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), input.get());
    LLVMFuzzerTestOneInput(input.get(), bytes.size());
  }
  printf("replay: %zu inputs passed\n", files.size());
  return 0;
}
