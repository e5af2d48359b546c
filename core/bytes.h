/*
 * bytes.h - explicit little- and big-endian access to file and header bytes
 * (file bytes are never cast to structs), and the checked size arithmetic
 * for every size computed from file data.
 */
#ifndef TRNW_BYTES_H
#define TRNW_BYTES_H

#include <stdint.h>

static inline uint16_t GetLE16(const uint8_t *p) { return (uint16_t)(p[0] | (p[1] << 8)); }
static inline uint32_t GetLE32(const uint8_t *p)
{
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}
static inline uint16_t GetBE16(const uint8_t *p) { return (uint16_t)((p[0] << 8) | p[1]); }
static inline uint32_t GetBE32(const uint8_t *p)
{
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}
static inline void PutLE16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}
static inline void PutLE32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}
static inline void PutBE16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}
static inline void PutBE32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

/* Size arithmetic on values read from files: false when the exact result
 * does not fit, so that no size wraps before it is compared with a limit. */
static inline bool CheckedMul(uint64_t a, uint64_t b, uint64_t *result)
{
    return !__builtin_mul_overflow(a, b, result);
}
static inline bool CheckedAdd(uint64_t a, uint64_t b, uint64_t *result)
{
    return !__builtin_add_overflow(a, b, result);
}
/* The bytes of `rows` rows of `rowBytes` each, when they stay within limit. */
static inline bool CheckedBlockSize(uint64_t rowBytes, uint64_t rows, uint64_t limit, uint64_t *bytes)
{
    return CheckedMul(rowBytes, rows, bytes) && *bytes <= limit;
}

#endif /* TRNW_BYTES_H */
