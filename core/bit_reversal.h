/*
 * bit_reversal.h - each byte with its bit order reversed, computed at
 * compile time: fill order 2 (first pixel in the least significant bit),
 * mirrored 1-bit rows and bit-reversed fax output all use it.
 */
#ifndef TRNW_BIT_REVERSAL_H
#define TRNW_BIT_REVERSAL_H

#include <stdint.h>

#include <array>

inline constexpr std::array<uint8_t, 256> kBitReversal = [] {
    std::array<uint8_t, 256> table{};
    for (int i = 0; i < 256; i++)
        for (int b = 0; b < 8; b++)
            table[i] |= (uint8_t)(((i >> b) & 1) << (7 - b));
    return table;
}();
static_assert(kBitReversal[0x01] == 0x80 && kBitReversal[0xF0] == 0x0F && kBitReversal[0xA5] == 0xA5);

#endif /* TRNW_BIT_REVERSAL_H */
