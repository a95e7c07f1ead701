// Bytes as lower-case hexadecimal text, as the tests compare digests.
#ifndef FSIC_TESTS_SUPPORT_HEX_H
#define FSIC_TESTS_SUPPORT_HEX_H

#include <cstddef>
#include <string>

namespace support {

std::string hex(const void *data, std::size_t size);
inline std::string hex(const std::string &bytes) { return hex(bytes.data(), bytes.size()); }

} // namespace support

#endif // FSIC_TESTS_SUPPORT_HEX_H
