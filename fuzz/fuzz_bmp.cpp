/*
 * fuzz_bmp.c - libFuzzer target for the BMP and DIB reader.
 *
 * The memory image is set over a copy of the input (at exactly its size) and
 * BmpRead runs with sinks that accept everything, checking only what the
 * reader guarantees whatever the bytes (with our hardening,
 * docs/DEVIATIONS.md):
 *   - the header sink is called at most once, before any row, with a
 *     normalised header (biSize 40, planes 1, compression 0, both colour
 *     counts 0), width and height of at least 1, a bit count of 1, 4, 8, 24
 *     or 32 and biSizeImage = stride * height;
 *   - every row index lies in 0 .. height - 1; every size is the stride, or
 *     a record of 2 .. 10000 bytes (compression 99); every buffer handed
 *     over is readable (fuzz/fuzz_support.h), so ASan sees a row that
 *     reaches outside its buffer;
 *   - there are at most height + 1 deliveries (only the end of bitmap adds
 *     one beyond the rows), so every loop over the data ends;
 *   - the result is 1 or negative, 1 only after the header sink, and no
 *     tracked block is left behind.
 * The header sink refuses (-1, as the library's sink would for lack of
 * memory) pictures over FuzzBlockLimit of the input or wider than 2^16
 * pixels, so that runs are not spent on huge declared sizes.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "formats/bmp.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"

typedef struct FuzzSinks {
    int headerCalls;
    int32_t width, height;
    int bits;
    uint32_t stride;
    int64_t deliveries;
    uint64_t blockLimit;
} FuzzSinks;

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_bmp: %s\n", what);
    abort();
}

static int FuzzHeader(const uint8_t *h, void *context)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (++s->headerCalls != 1)
        Fail("header sink called twice");
    if (s->deliveries != 0)
        Fail("a row came before the header");
    s->width = (int32_t)GetLE32(h + 4);
    s->height = (int32_t)GetLE32(h + 8);
    s->bits = GetLE16(h + 14);
    if (GetLE32(h) != 40 || GetLE16(h + 12) != 1 || GetLE32(h + 16) != 0 || GetLE32(h + 32) != 0 ||
        GetLE32(h + 36) != 0)
        Fail("header not normalised");
    if (s->width < 1 || s->height < 1)
        Fail("geometry below 1 reached the sink");
    if (s->bits != 1 && s->bits != 4 && s->bits != 8 && s->bits != 24 && s->bits != 32)
        Fail("unsupported bit count reached the sink");
    uint64_t stride = DibStride((uint32_t)s->width, s->bits);
    if (stride * (uint64_t)s->height > 0x7FFFFFFFu)
        Fail("pixel block of 2 GiB or more reached the sink");
    s->stride = (uint32_t)stride;
    if (GetLE32(h + 20) != s->stride * (uint32_t)s->height)
        Fail("biSizeImage is not stride * height");
    FuzzCheckReadable("fuzz_bmp", h, IMG_HEADER_BLOCK_SIZE); /* the whole block is the reader's */
    if (stride * (uint64_t)s->height > s->blockLimit || s->width > (1 << 16))
        return -1;
    return 1;
}

static int FuzzRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (s->headerCalls != 1)
        Fail("a row came before the header");
    if (rowIndex < 0 || rowIndex >= s->height)
        Fail("row index outside the picture");
    if ((uint32_t)rowBytes != s->stride && (rowBytes < 2 || rowBytes > IMG_CHUNK_SIZE))
        Fail("row size neither the stride nor a record");
    if (++s->deliveries > (int64_t)s->height + 1)
        Fail("more deliveries than rows + 1");
    FuzzCheckReadable("fuzz_bmp", row, (size_t)rowBytes);
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
    sinks.blockLimit = FuzzBlockLimit(size);
    int result = BmpRead(0, FuzzRow, &sinks, FuzzHeader, IMG_MEMORY_HANDLE);
    if (result != 1 && result >= 0)
        Fail("result neither 1 nor negative");
    if (result == 1 && sinks.headerCalls != 1)
        Fail("success without the header sink");
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    ImgFreeAllTracked();
    free(image);
    return 0;
}
