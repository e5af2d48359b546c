/*
 * fuzz_palette.c - libFuzzer target for palette selection.
 *
 * Palette selection reads no files, but its octree is driven entirely by the colours
 * it is given: the input chooses the operation (bits 0-3 of byte 0: the
 * octree, with its options, on eleven values in sixteen, the median cut on
 * four and popularity, whose fixed work over its 4096 bins takes longest, on
 * one),
 * the source depth (4, 8, 16, 24, 32 and one the library does not hold), a
 * size up to 48 x 48 and 1024 pixels (fewer rows when wider), the octree's
 * output bits and count, and whether a colour list (taken from the input)
 * is used; the rest of the bytes fill the palette and pixels, repeated, at
 * most 768 of them (256 colours of 24 bits).  So a run stays short: the
 * octree's work grows with the square of the distinct colours, its mapping
 * with pixels times entries.  The target checks what holds whatever the
 * colours:
 *   - the result is 0 (fixed, popularity), or for the octree the number of
 *     entries made, 0 .. the maximum colours (or a negative code);
 *   - on success the header's bit count and size and the descriptor's
 *     stride are those of the output depth, and every 8-bit index of an
 *     octree result names an entry made;
 *   - on failure the image is unchanged; no tracked block is left behind.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_palette: %s\n", what);
    abort();
}

static const int depths[8] = {4, 8, 16, 24, 32, 24, 32, 2};
/* 0 median cut, 1 popularity, 2 octree */
static const int operations[16] = {0, 0, 0, 0, 1, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2};

/* The palette and pixels: the rest of the input, repeated. */
FUZZ_NO_COVERAGE static void Fill(uint8_t *to, size_t n, const uint8_t *rest, size_t restSize)
{
    for (size_t i = 0; i < n; i++)
        to[i] = restSize ? rest[i % restSize] : (uint8_t)(i + DIB_HEADER_SIZE);
}

/* Whether every 8-bit index of the image is below `entries`. */
FUZZ_NO_COVERAGE static bool IndicesBelow(const ImgDescriptor *d, int32_t entries)
{
    const uint8_t *pixels = d->dib + ImgDescriptorBitsOffset(d);
    for (int32_t y = 0; y < d->height; y++)
        for (int32_t x = 0; x < d->width; x++)
            if (pixels[(size_t)y * d->stride + x] >= entries)
                return false;
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 8)
        return 0;
    int op = operations[data[0] & 15];
    int bits = depths[data[1] & 7];
    int32_t width = 1 + data[2] % 48, height = 1 + data[3] % 48;
    if (width * height > 1024)
        height = 1024 / width;
    int outBits = (data[4] & 7) == 7 ? data[4] >> 3 : (data[4] & 1) ? 4 : 8;
    int32_t count = (int32_t)(int8_t)data[5] * 3;
    int useList = data[6] & 1;
    const uint8_t *rest = data + 8;
    size_t restSize = size - 8;

    uint32_t stride = (uint32_t)DibStride((uint32_t)width, bits == 2 ? 8 : bits);
    uint32_t paletteBytes = DibPaletteSize(bits == 2 ? 8 : bits);
    uint32_t blockSize = DIB_HEADER_SIZE + paletteBytes + stride * (uint32_t)height;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(blockSize));
    if (!block)
        return 0;
    Fill(block + DIB_HEADER_SIZE, blockSize - DIB_HEADER_SIZE, rest, restSize < 768 ? restSize : 768);
    BITMAPINFOHEADER header = {};
    header.biSize = 40;
    header.biWidth = width;
    header.biHeight = height;
    header.biPlanes = 1;
    header.biBitCount = (uint16_t)(bits == 2 ? 8 : bits);
    header.biSizeImage = stride * (uint32_t)height;
    memcpy(block, &header, sizeof header);
    int32_t handle = IMG_create_handle_keep(block);
    if (handle < 0) {
        while (ImgTableCount() > 0)
            ImgTableDelete(ImgTableCount() - 1, 1);
        ImgFree(block);
        return 0;
    }
    if (bits == 2) { /* a depth the library does not hold, set behind its back */
        header.biBitCount = 2;
        memcpy(block, &header, sizeof header);
    }
    ImgDescriptor *d = ImgTableGet(handle);
    d->callerOwnsDib = 0; /* the library frees it */
    uint8_t *before = static_cast<uint8_t *>(malloc(blockSize));
    if (!before)
        Fail("no memory");
    memcpy(before, block, blockSize);

    int32_t listCount = useList ? (int32_t)(restSize / 4 < 300 ? restSize / 4 : 300) : 0;
    if (useList && count >= 0)
        listCount = count < listCount ? count : listCount;
    int32_t result;
    if (op == 0)
        result = IMG_mediancut_color(handle);
    else if (op == 1)
        result = IMG_popularity_color(handle);
    else
        result = IMG_octree_color(handle, outBits, useList ? rest : NULL, useList ? listCount : count);

    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    if (result < 0) {
        if (d->dib != block || memcmp(block, before, blockSize) != 0)
            Fail("failure changed the image");
    } else {
        int expectBits = op == 2 ? outBits : 8;
        int32_t maxColours = count >= 256 ? 256 : count >= 8 ? count : 8;
        if (useList)
            maxColours = listCount >= 256 ? 256 : listCount >= 8 ? listCount : 8;
        if (op < 2 && result != 0)
            Fail("fixed or popularity result not 0");
        if (op == 2 && result > maxColours)
            Fail("more entries than the maximum");
        if (ImgDescriptorBits(d) != expectBits ||
            d->stride != (int32_t)DibStride((uint32_t)width, expectBits))
            Fail("header or stride not of the output depth");
        memcpy(&header, d->dib, sizeof header);
        if (header.biSizeImage != (uint32_t)d->stride * (uint32_t)height)
            Fail("biSizeImage");
        if (op == 2 && expectBits == 8 && result > 0 && !IndicesBelow(d, result))
            Fail("index past the entries made");
    }
    free(before);
    IMG_delete_bitmap(handle);
    return 0;
}
