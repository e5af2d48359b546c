/*
 * fuzz_tiff.c - libFuzzer target for the TIFF reader (with its PackBits and
 * LZW strips and the CCITT decoders).
 *
 * The first two bytes choose the page (0 .. 3); the rest is the file, read
 * through the memory image at exactly its size, once with TiffRead and sinks
 * that check what the reader guarantees whatever the bytes:
 *   - the header sink is called at most once, before any row, with width and
 *     height of at least 1 and a bit count of 1, 4, 8 or 24;
 *   - every row index lies in 0 .. height - 1; every row is the stride, or
 *     (1 bit) a run record of 4 .. CcittRecordMaxBytes(width) bytes whose
 *     length word is its length; every buffer handed over is readable
 *     (fuzz/fuzz_support.h);
 *   - the result is 1 or negative, and no tracked block is left behind;
 * and once through the library (IMG_decompress_bitmap_mem_size), whose image
 * is deleted again.  The header sink refuses (-1) pictures over
 * FuzzBlockLimit of the input, so that runs are not spent on huge declared
 * sizes, and only pictures it accepted are decoded through the library.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "formats/tiff_read.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"

typedef struct {
    int headerCalls;
    int32_t width, height;
    uint32_t stride;
    uint64_t blockLimit;
    bool accepted;
} FuzzSinks;

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_tiff: %s\n", what);
    abort();
}

static int FuzzHeader(const uint8_t *h, void *context)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (++s->headerCalls != 1)
        Fail("header sink called twice");
    s->width = (int32_t)GetLE32(h + 4);
    s->height = (int32_t)GetLE32(h + 8);
    int bits = GetLE16(h + 14);
    if (s->width < 1 || s->height < 1)
        Fail("geometry below 1 reached the sink");
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24)
        Fail("unsupported bit count reached the sink");
    uint64_t stride = DibStride((uint32_t)s->width, bits);
    s->stride = (uint32_t)stride;
    FuzzCheckReadable("fuzz_tiff", h, IMG_HEADER_BLOCK_SIZE);
    if (stride * (uint64_t)s->height > s->blockLimit || s->width > 65534)
        return -1;
    s->accepted = true;
    return 1;
}

/* The longest record the CCITT decoders emit: a length word, a leading
 * zero, up to 2 * width + 1 changes (zero-length runs included: only past
 * `width` changes does an equal one cancel), four terminators and two more
 * that keep the length off the packed row's size and stride.  The decode
 * pipeline takes records up to RunRecordMaxBytes(width) + 16 bytes and
 * refuses longer ones with -3. */
static size_t CcittRecordMaxBytes(int32_t width)
{
    return 2 * (1 + 1 + (2 * (size_t)width + 1) + 4 + 2);
}

static int FuzzRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    FuzzSinks *s = static_cast<FuzzSinks *>(context);
    if (s->headerCalls != 1)
        Fail("a row came before the header");
    if (rowIndex < 0 || rowIndex >= s->height)
        Fail("row index outside the picture");
    if ((uint32_t)rowBytes != s->stride) {
        if (rowBytes < 4 || (size_t)rowBytes > CcittRecordMaxBytes(s->width) || (rowBytes & 1))
            Fail("row size neither the stride nor a record");
        uint16_t length;
        memcpy(&length, row, 2);
        if (length != rowBytes)
            Fail("record length word differs from its size");
    }
    FuzzCheckReadable("fuzz_tiff", row, (size_t)rowBytes);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3 || size > (1u << 20))
        return 0;
    int page = (data[0] | (data[1] << 8)) & 3;
    size -= 2;
    uint8_t *image = static_cast<uint8_t *>(malloc(size));
    if (!image)
        return 0;
    memcpy(image, data + 2, size);

    ImgSetMemorySourceSized(image, (uint32_t)size);
    FuzzSinks sinks;
    memset(&sinks, 0, sizeof sinks);
    sinks.blockLimit = FuzzBlockLimit(size);
    uint32_t start = page ? (IMG_PAGE_FLAG | (uint32_t)page) : 0;
    int result = TiffRead(start, FuzzRow, &sinks, FuzzHeader, IMG_MEMORY_HANDLE);
    if (result != 1 && result >= 0)
        Fail("result neither 1 nor negative");
    if (result == 1 && sinks.headerCalls != 1)
        Fail("success without the header sink");
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    ImgSetMemorySourceSized(image, (uint32_t)size);
    TiffCountPages(IMG_MEMORY_HANDLE);

    /* Through the library, only for pictures the sinks accepted. */
    if (sinks.accepted) {
        int32_t handle = IMG_decompress_bitmap_mem_size(image, (uint32_t)size, page);
        if (handle >= 0)
            IMG_delete_bitmap(handle);
    }
    ImgFreeAllTracked();
    free(image);
    return 0;
}
