/*
 * fuzz_runs.c - libFuzzer target for the run records of core/runs.h.
 *
 * Input: 2 bytes little-endian width (mapped to 1..65534), then a hostile run
 * record.  The record is expanded into a row of exactly DibStride(width, 1)
 * bytes, which must never be written outside (ASan checks); the row is coded
 * again and the new record expanded: the two rows must agree in the first
 * `width` bits.  The row's changes as bits (stray bits set past the width)
 * must give RunEncodeChanges the same record as RunEncodeRow.  A third
 * expansion into a row shorter than the width must stay inside that row.  Every buffer is allocated at its exact size so
 * that ASan sees any access past it.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/dib.h"
#include "core/runs.h"

static void Fail(const char *what, int32_t width)
{
    fprintf(stderr, "fuzz_runs: %s (width %d)\n", what, (int)width);
    abort();
}

/* 1 when the first `bits` bits (most significant first) of a and b agree. */
static int SameBits(const uint8_t *a, const uint8_t *b, uint32_t bits)
{
    uint32_t whole = bits / 8, rest = bits % 8;
    if (memcmp(a, b, whole) != 0)
        return 0;
    if (rest) {
        uint8_t mask = (uint8_t)(0xFFu << (8 - rest));
        if ((a[whole] & mask) != (b[whole] & mask))
            return 0;
    }
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    int32_t width = (int32_t)(1 + ((uint32_t)data[0] | (uint32_t)data[1] << 8) % RUN_MAX_WIDTH);
    size_t recordBytes = size - 2;
    if (recordBytes > 0xFFFFFFFFu)
        return 0;

    /* The hostile record, 2-byte aligned, exactly its size (rounded up to a word). */
    uint16_t *record = static_cast<uint16_t *>(malloc(recordBytes ? (recordBytes + 1) / 2 * 2 : 2));
    if (!record)
        return 0;
    if (recordBytes)
        memcpy(record, data + 2, recordBytes);
    if (recordBytes & 1)
        ((uint8_t *)record)[recordBytes] = 0; /* never read: words = recordBytes / 2 */

    uint32_t stride = (uint32_t)DibStride((uint32_t)width, 1);
    size_t maxBytes = RunRecordMaxBytes(width);
    uint8_t *row = static_cast<uint8_t *>(malloc(stride));
    uint8_t *again = static_cast<uint8_t *>(malloc(stride));
    uint16_t *coded = static_cast<uint16_t *>(malloc(maxBytes));
    /* A row buffer shorter than the width: the expansion clips to the row.
     * (Its bits need not be a prefix of the full row: a record ends at the
     * first start at or past the limit, and a hostile one is not sorted.) */
    uint32_t shortBytes = recordBytes ? data[2] % stride : stride / 2;
    uint8_t *shortRow = static_cast<uint8_t *>(malloc(shortBytes ? shortBytes : 1));
    size_t changeWords = ((size_t)width + 63) / 64;
    uint64_t *changes = static_cast<uint64_t *>(malloc(changeWords * 8));
    uint16_t *fromChanges = static_cast<uint16_t *>(malloc(maxBytes));
    if (row && again && coded && shortRow && changes && fromChanges) {
        RunExpandRow(record, (uint32_t)recordBytes, width, row, stride);

        int length = RunEncodeRow(row, width, coded);
        if (length < 8 || (size_t)length > maxBytes || (length & 1))
            Fail("RunEncodeRow gave a length outside the record buffer", width);
        if (coded[0] != (uint16_t)length)
            Fail("word 0 of the coded record is not its length", width);
        if ((uint64_t)length == stride)
            Fail("a coded record has the length of a plain row", width);

        RunExpandRow(coded, (uint32_t)length, width, again, stride);
        if (!SameBits(row, again, (uint32_t)width))
            Fail("expand(encode(expand(record))) differs from expand(record)", width);

        memset(changes, 0, changeWords * 8);
        if (width % 64)
            changes[changeWords - 1] = ~(uint64_t)0 << (width % 64); /* past the width */
        unsigned before = 1;
        for (int32_t x = 0; x < width; x++) {
            unsigned pixel = (row[x / 8] >> (7 - x % 8)) & 1u;
            if (pixel != before)
                changes[x / 64] |= (uint64_t)1 << (x % 64);
            before = pixel;
        }
        int changed = RunEncodeChanges(changes, width, fromChanges);
        if (changed != length || memcmp(fromChanges, coded, (size_t)length) != 0)
            Fail("RunEncodeChanges differs from RunEncodeRow", width);

        RunExpandRow(record, (uint32_t)recordBytes, width, shortRow, shortBytes);
    }

    free(fromChanges);
    free(changes);
    free(shortRow);
    free(coded);
    free(again);
    free(row);
    free(record);
    return 0;
}
