/*
 * bit_reversal.h - each byte with its bit order reversed, computed at
 * compile time: fill order 2 (first pixel in the least significant bit),
 * mirrored 1-bit rows and bit-reversed fax output all use it.
 */
#ifndef TRNW_BIT_REVERSAL_H
#define TRNW_BIT_REVERSAL_H

#include <stdint.h>
#include <string.h>

#include <array>

inline constexpr std::array<uint8_t, 256> kBitReversal = [] {
    std::array<uint8_t, 256> table{};
    for (int i = 0; i < 256; i++)
        for (int b = 0; b < 8; b++)
            table[i] |= (uint8_t)(((i >> b) & 1) << (7 - b));
    return table;
}();
static_assert(kBitReversal[0x01] == 0x80 && kBitReversal[0xF0] == 0x0F && kBitReversal[0xA5] == 0xA5);

/* The bit order of each byte of v reversed: swapping neighbouring bits,
 * then pairs, then nibbles works within every byte at once. */
inline uint64_t ReverseBitsInBytes(uint64_t v)
{
    v = (v >> 1 & 0x5555555555555555u) | (v & 0x5555555555555555u) << 1;
    v = (v >> 2 & 0x3333333333333333u) | (v & 0x3333333333333333u) << 2;
    return (v >> 4 & 0x0F0F0F0F0F0F0F0Fu) | (v & 0x0F0F0F0F0F0F0F0Fu) << 4;
}

/* Reverses the bit order of each of `count` bytes in place: eight bytes at
 * a time, the rest by table. */
inline void ReverseBitsOfBytes(uint8_t *bytes, uint32_t count)
{
    uint32_t i = 0;
    for (; i + 8 <= count; i += 8) {
        uint64_t v;
        memcpy(&v, bytes + i, sizeof v);
        v = ReverseBitsInBytes(v);
        memcpy(bytes + i, &v, sizeof v);
    }
    for (; i < count; i++)
        bytes[i] = kBitReversal[bytes[i]];
}

#endif /* TRNW_BIT_REVERSAL_H */
