// Captures what a call writes to the standard output and the standard error (the
// descriptors themselves, so that printf, putchar, puts and fputs are all seen), or
// what is written to the standard error while a capture object lives.
#ifndef FSIC_TESTS_UNIT_DRIVER_STDIO_CAPTURE_H
#define FSIC_TESTS_UNIT_DRIVER_STDIO_CAPTURE_H

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace drivertest {

struct Captured {
  std::string out;
  std::string err;
};

inline std::string read_all(FILE *f) {
  std::string s;
  rewind(f);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0)
    s.append(buf, n);
  return s;
}

// Runs `f` with descriptors 1 and 2 sent to temporary files, then puts them back. `f`
// must not report test failures itself (they would be captured too).
template <typename F>
Captured capture_stdio(F &&f) {
  fflush(stdout);
  fflush(stderr);
  FILE *out = tmpfile();
  FILE *err = tmpfile();
  const int saved_out = dup(1);
  const int saved_err = dup(2);
  if (!out || !err || saved_out < 0 || saved_err < 0)
    throw std::runtime_error("cannot set up the capture");
  dup2(fileno(out), 1);
  dup2(fileno(err), 2);
  f();
  fflush(stdout);
  fflush(stderr);
  dup2(saved_out, 1);
  dup2(saved_err, 2);
  close(saved_out);
  close(saved_err);
  Captured c{read_all(out), read_all(err)};
  fclose(out);
  fclose(err);
  return c;
}

// Sends descriptor 2 to a temporary file from construction until the first text(),
// which puts it back and returns what was written; later calls return the same.
class stderr_capture {
public:
  stderr_capture() {
    std::fflush(stderr);
    saved_ = dup(2);
    file_ = std::tmpfile();
    if (saved_ >= 0 && file_ != nullptr)
      dup2(fileno(file_), 2);
  }
  ~stderr_capture() { text(); }
  bool ok() const { return saved_ >= 0 && file_ != nullptr; }
  std::string text() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      dup2(saved_, 2);
      close(saved_);
      saved_ = -1;
    }
    if (file_ != nullptr) {
      text_ = read_all(file_);
      std::fclose(file_);
      file_ = nullptr;
    }
    return text_;
  }

private:
  int saved_ = -1;
  std::FILE *file_ = nullptr;
  std::string text_;
};

} // namespace drivertest

#endif
