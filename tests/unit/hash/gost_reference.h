// A slow GOST R 34.11-94 written directly from the definitions (byte arrays, loops
// over rounds, psi applied one step at a time, the S-boxes nibble by nibble), as a
// second opinion on the library's fast code.
#ifndef FSIC_TESTS_UNIT_HASH_GOST_REFERENCE_H
#define FSIC_TESTS_UNIT_HASH_GOST_REFERENCE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gost_ref {

// 256-bit values as 32 bytes, byte 0 the least significant.
using block = std::vector<uint8_t>;

// The S-boxes K1..K8 of parameter set `index` (0: test set, 1: CryptoPro set), as
// published; K1 acts on the lowest nibble.
const uint8_t (&sboxes(unsigned index))[8][16];

// The step function: returns f(h, m).
block step(unsigned index, const block &h, const block &m);

// The whole hash of a message.
block digest(unsigned index, const uint8_t *data, size_t size);

} // namespace gost_ref

#endif // FSIC_TESTS_UNIT_HASH_GOST_REFERENCE_H
