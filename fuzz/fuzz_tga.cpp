/*
 * fuzz_tga.cpp - libFuzzer target for the Targa reader.
 *
 * The memory image is set over a copy of the input (at exactly its size) and
 * TgaRead runs with sinks that accept everything, checking only what the
 * reader guarantees whatever the bytes (docs/DEVIATIONS.md, "Targa"):
 *   - the header sink is called at most once, before any row, with a
 *     40-byte header of one plane, no compression or colour counts, width
 *     and height of 1 to 65535, 8 or 24 bits, and biSizeImage = stride *
 *     height;
 *   - every row index lies in 0 .. height - 1, every size is the stride,
 *     every index comes once; every byte handed over is read here, so ASan
 *     sees a row that reaches outside its buffer;
 *   - the result is 1 or negative, 1 only after the header sink and all
 *     rows, and no tracked block is left behind.
 * The header sink refuses (-1, as the library's sink would for lack of
 * memory) pictures over 256 KiB, so that runs are not spent on huge
 * declared sizes.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgio.h"
#include "formats/tga.h"

namespace {

struct FuzzSinks {
    int headerCalls = 0;
    int32_t width = 0, height = 0;
    uint32_t stride = 0;
    int64_t deliveries = 0;
    std::vector<bool> seen;
    uint32_t checksum = 0;
};

void Fail(const char *what)
{
    fprintf(stderr, "fuzz_tga: %s\n", what);
    abort();
}

int FuzzHeader(const uint8_t *h, void *context)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (++s->headerCalls != 1)
        Fail("header sink called twice");
    s->width = (int32_t)GetLE32(h + 4);
    s->height = (int32_t)GetLE32(h + 8);
    int bits = GetLE16(h + 14);
    if (GetLE32(h) != 40 || GetLE16(h + 12) != 1 || GetLE32(h + 16) != 0 || GetLE32(h + 32) != 0 ||
        GetLE32(h + 36) != 0)
        Fail("header not normalised");
    if (s->width < 1 || s->height < 1 || s->width > 65535 || s->height > 65535)
        Fail("geometry outside 1 .. 65535 reached the sink");
    if (bits != 8 && bits != 24)
        Fail("bit count neither 8 nor 24");
    uint64_t stride = DibStride((uint32_t)s->width, bits);
    s->stride = (uint32_t)stride;
    if (stride * (uint64_t)s->height > 0x7FFFFFFFu || GetLE32(h + 20) != s->stride * (uint32_t)s->height)
        Fail("biSizeImage is not stride * height, or passes 2 GiB");
    for (int i = 0; i < IMG_HEADER_BLOCK_SIZE; i++)
        s->checksum += h[i]; /* the whole 1064-byte block is the reader's */
    if (stride * (uint64_t)s->height > (256u << 10))
        return -1;
    s->seen.assign((size_t)s->height, false);
    return 1;
}

int FuzzRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (s->headerCalls != 1)
        Fail("a row came before the header");
    if (rowIndex < 0 || rowIndex >= s->height)
        Fail("row index outside the picture");
    if ((uint32_t)rowBytes != s->stride)
        Fail("row size is not the stride");
    if (s->seen[(size_t)rowIndex])
        Fail("a row delivered twice");
    s->seen[(size_t)rowIndex] = true;
    s->deliveries++;
    for (int i = 0; i < rowBytes; i++)
        s->checksum += row[i];
    return 0;
}

} // namespace

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
    int result = TgaRead(0, FuzzRow, &sinks, FuzzHeader, IMG_MEMORY_HANDLE);
    if (result != 1 && result >= 0)
        Fail("result neither 1 nor negative");
    if (result == 1 && (sinks.headerCalls != 1 || sinks.deliveries != sinks.height))
        Fail("success without the header or every row");
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    ImgFreeAllTracked();
    free(image);
    return 0;
}
