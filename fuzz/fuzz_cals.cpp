/*
 * fuzz_cals.cpp - libFuzzer target for the CALS raster reader.
 *
 * The memory image is set over a copy of the input (at exactly its size) and
 * CalsRead runs with sinks that accept everything, checking only what the
 * reader guarantees whatever the bytes (with our hardening,
 * docs/DEVIATIONS.md):
 *   - the header sink is called at most once, before any row, with a 1-bit
 *     header: width 1 .. 65534, height at least 1, biSizeImage =
 *     (width + 7) / 8 * height, equal resolutions, entry 0 black and
 *     entry 1 white;
 *   - every row index lies in 0 .. height - 1 and comes once, in order; every
 *     row is a run record (even, 4 bytes or more, within the decoder's
 *     5 * width + 400-byte row buffer: zero-length runs can make it longer
 *     than the records the decode pipeline stores, which its sink refuses)
 *     whose bytes are all read here, so ASan sees a record that reaches
 *     outside its buffer;
 *   - the result is 0 or negative, 0 only after the header sink and with
 *     every row delivered, and no tracked block is left behind.
 * The header sink refuses (-1, as the library's sink would for lack of
 * memory) pictures over 256 KiB, so that runs are not spent on huge
 * declared sizes.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/bytes.h"
#include "core/contracts.h"
#include "core/imgio.h"
#include "formats/cals.h"

typedef struct FuzzSinks {
    int headerCalls;
    int32_t width, height;
    int64_t rows;
    uint32_t checksum;
} FuzzSinks;

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_cals: %s\n", what);
    abort();
}

static int FuzzHeader(const uint8_t *h, void *context)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (++s->headerCalls != 1)
        Fail("header sink called twice");
    if (s->rows != 0)
        Fail("a row came before the header");
    s->width = (int32_t)GetLE32(h + 4);
    s->height = (int32_t)GetLE32(h + 8);
    if (GetLE32(h) != 40 || GetLE16(h + 12) != 1 || GetLE16(h + 14) != 1 || GetLE32(h + 16) != 0)
        Fail("not a plain 1-bit header");
    if (s->width < 1 || s->width > 65534 || s->height < 1)
        Fail("geometry outside the decoder's range reached the sink");
    uint64_t bytes = (uint64_t)(s->width + 7) / 8 * (uint64_t)s->height;
    if (GetLE32(h + 20) != bytes)
        Fail("biSizeImage is not (width + 7) / 8 * height");
    if (GetLE32(h + 24) != GetLE32(h + 28) || (int32_t)GetLE32(h + 24) < 0)
        Fail("resolutions differ or are negative");
    if (GetLE32(h + 40) != 0 || GetLE32(h + 44) != 0x00FFFFFF)
        Fail("palette is not black, white");
    for (int i = 0; i < IMG_HEADER_BLOCK_SIZE; i++)
        s->checksum += h[i];
    if (bytes > (256u << 10))
        return -1;
    return 1;
}

static int FuzzRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (s->headerCalls != 1)
        Fail("a row came before the header");
    if (rowIndex != s->rows)
        Fail("rows out of order");
    if ((rowBytes & 1) || rowBytes < 4 || rowBytes > 5 * s->width + 400)
        Fail("row is not a run record");
    s->rows++;
    for (int i = 0; i < rowBytes; i++)
        s->checksum += row[i];
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    uint8_t *image = static_cast<uint8_t *>(malloc(size));
    if (!image)
        return 0;
    memcpy(image, data, size);
    ImgSetMemorySourceSized(image, (uint32_t)size);

    FuzzSinks sinks;
    memset(&sinks, 0, sizeof sinks);
    int result = CalsRead(0, FuzzRow, &sinks, FuzzHeader, IMG_MEMORY_HANDLE);
    if (result > 0)
        Fail("positive result");
    if (result == 0 && (sinks.headerCalls != 1 || sinks.rows != sinks.height))
        Fail("success without the header or every row");
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    ImgFreeAllTracked();
    free(image);
    return 0;
}
