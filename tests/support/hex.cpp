#include "tests/support/hex.h"

namespace support {

std::string hex(const void *data, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  const auto *p = static_cast<const unsigned char *>(data);
  std::string s;
  for (std::size_t i = 0; i < size; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

} // namespace support
