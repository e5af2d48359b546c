/*
 * packbits.cpp - PackBits row encoding for the TIFF writer.
 *
 * Repeat packets only from three equal bytes and only below n - 3, literal
 * packets that stop where two equal bytes begin, at most 127 bytes either
 * kind (header 1 - count for a repeat, count - 1 for a literal), one write
 * per row.  The comparisons may read up to two bytes past the row's end
 * (the caller's slack); a repeat run is counted only within the row.
 */
#include "codecs/packbits.h"

#include <string.h>

#include "core/imgapi.h"
#include "core/imgio.h"

#define PACKBITS_MAX_PACKET 127

/* A repeat packet at row[i]: header 1 - count and the byte.  Returns the
 * number of row bytes it covers. */
static int32_t PackBitsRepeat(const uint8_t *row, int32_t i, int32_t n, uint8_t **out)
{
    int32_t count = 1;
    while (count < PACKBITS_MAX_PACKET && i + count < n && row[i + count] == row[i])
        count++;
    uint8_t *o = *out;
    o[0] = (uint8_t)(1 - count);
    o[1] = row[i];
    *out = o + 2;
    return count;
}

/* A literal packet from row[i]: bytes are taken while fewer than 127 are
 * taken and the row lasts, stopping when the byte at the new position equals
 * the one after it.  Returns the number of row bytes it covers. */
static int32_t PackBitsLiteral(const uint8_t *row, int32_t i, int32_t n, uint8_t **out)
{
    int32_t j = i;
    do
        j++;
    while (j - i < PACKBITS_MAX_PACKET && j < n && row[j] != row[j + 1]);
    int32_t count = j - i;
    uint8_t *o = *out;
    o[0] = (uint8_t)(count - 1);
    memcpy(o + 1, row + i, (size_t)count);
    *out = o + 1 + count;
    return count;
}

int PackBitsEncodeRow(int handle, const uint8_t *row, int32_t rowBytes)
{
    if (rowBytes <= 0)
        return 0;
    if (rowBytes > INT32_MAX / 4)
        return IMG_ERR_MEMORY; /* the 4 x n buffer cannot be sized */
    /* Worst case: one header per 127 literal bytes, far below 4 x n. */
    uint8_t *encoded = static_cast<uint8_t *>(ImgAlloc((size_t)rowBytes * 4));
    if (!encoded)
        return IMG_ERR_MEMORY;
    uint8_t *out = encoded;
    int32_t n = rowBytes;
    for (int32_t i = 0; i < n;) {
        if (row[i] == row[i + 1] && row[i + 1] == row[i + 2] && i < n - 3)
            i += PackBitsRepeat(row, i, n, &out);
        else
            i += PackBitsLiteral(row, i, n, &out);
    }
    int32_t size = (int32_t)(out - encoded);
    int32_t written = ImgWrite(handle, encoded, (uint32_t)size);
    ImgFree(encoded);
    return written == size ? 0 : IMG_ERR_WRITE;
}
