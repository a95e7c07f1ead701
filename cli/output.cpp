// Terminal-safe names, the end of the output, and memory exhaustion.
#include "cli/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/exit_status.h"

namespace fsic::cli {

std::string text_escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out += ch;
    }
  }
  return out;
}

int finish_output(int status) {
  bool failed = fflush(stdout) != 0 || ferror(stdout);
  int error = errno;
  if (failed) {
    fprintf(stderr, "fsic: cannot write to standard output: %s\n", strerror(error));
    status = EXIT_WRITE;
  }
  fflush(stderr);
  return status;
}

int out_of_memory() {
  fputs("fsic: out of memory\n", stderr);
  return EXIT_NO_MEMORY;
}

} // namespace fsic::cli
