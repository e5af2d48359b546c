/*
 * fuzz_ccitt.c - libFuzzer target for the CCITT decoders.
 *
 * The first 8 bytes choose the decoder (1-D, 2-D Group 3, Group 4, or
 * IMG_decompress_fax_mem_size), the mode (reading or the non-reading modes
 * over the data in the buffer), the width (1 .. 4096), the height and row
 * count, the fill order and whiteIsZero; the rest is the coded data.  The
 * decoders run with a callback that checks, whatever the bytes (with our
 * hardening, docs/DEVIATIONS.md):
 *   - every record's length word equals the size handed over, is even and
 *     at most 2 + 2 * (2 * width + 12) bytes;
 *   - every change lies in 0 .. width + 1 (terminators may be width + 1),
 *     and the changes never decrease; positions below the width come first;
 *   - row indices run firstRow, firstRow + 1, ... once each;
 *   - the result is 0, a negative callback result, -3 or -1.
 * The raw fax entry point must return a handle or a negative code and leave
 * no image or tracked block behind once the image is deleted.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "codecs/ccitt_decode.h"
#include "core/imgapi.h"
#include "core/imgio.h"

typedef struct Check {
    int32_t width, nextRow;
    int stopAt, rows;
} Check;

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_ccitt: %s\n", what);
    abort();
}

static int CheckRecord(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    Check *c = static_cast<Check *>(context);
    if (rowIndex != c->nextRow++)
        Fail("row index out of order");
    if (rowBytes < 4 || (rowBytes & 1) || rowBytes > 2 + 2 * (2 * c->width + 12))
        Fail("record size out of range");
    uint16_t words[2 * 4096 + 16];
    memcpy(words, row, (size_t)rowBytes);
    if (words[0] != rowBytes)
        Fail("length word differs from the size");
    int n = rowBytes / 2;
    for (int i = 1; i < n; i++) {
        if (words[i] > c->width + 1)
            Fail("change beyond the width");
        if (i > 1 && words[i] < words[i - 1])
            Fail("changes decrease");
    }
    if (words[n - 1] < c->width)
        Fail("record does not end at the width");
    if (++c->rows == c->stopAt)
        return -55;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 8 || size > (1u << 20))
        return 0;
    int which = data[0] & 3, nonReading = (data[0] >> 2) & 1;
    int32_t width = 1 + ((data[1] | data[2] << 8) & 4095);
    int32_t height = 1 + data[3] % 200;
    int32_t firstRow = (data[4] & 1) ? data[4] % 8 : 0;
    int fillOrder = (data[5] & 1) ? 2 : 1;
    int whiteIsZero = (data[5] >> 1) & 1;
    int stopAt = data[6] & 0x80 ? 1 + data[6] % 8 : -1;
    int32_t rowCount = 1 + data[7] % 220;
    const uint8_t *coded = data + 8;
    size_t codedSize = size - 8;

    if (which == 3) {
        uint8_t *copy = static_cast<uint8_t *>(malloc(codedSize + 1));
        if (!copy)
            return 0;
        memcpy(copy, coded, codedSize);
        static const int32_t types[4] = {2, 3, 4, 128};
        int32_t h = IMG_decompress_fax_mem_size(copy, (uint32_t)(codedSize ? codedSize : 1), width,
                                                (data[6] & 1) ? 0 : height, types[data[7] & 3],
                                                fillOrder);
        if (h >= 0)
            IMG_delete_bitmap(h);
        else if (h != IMG_ERR_INVALID && h != IMG_ERR_MEMORY)
            Fail("unexpected result from IMG_decompress_fax_mem_size");
        if (ImgTrackedCount() != 0)
            Fail("tracked blocks left behind");
        free(copy);
        return 0;
    }

    CcittParameters p;
    memset(&p, 0, sizeof p);
    p.width = (uint16_t)width;
    p.height = height;
    p.fillOrder = fillOrder;
    p.whiteIsZero = whiteIsZero;
    static const int32_t modes1D[2][2] = {{2, 3}, {128, 128}};
    p.mode = which == 0 ? modes1D[nonReading][data[4] >> 7]
           : which == 1 ? (nonReading ? 7 : 45)
                        : (nonReading ? 0 : 4);
    /* The buffer: the chunk plus the 300 bytes of slack the contract asks;
     * in the non-reading modes the data (at most a chunk) is in it. */
    uint8_t *buffer = static_cast<uint8_t *>(malloc(CCITT_CHUNK + 300));
    uint8_t *source = static_cast<uint8_t *>(malloc(codedSize + 1));
    if (!buffer || !source) {
        free(buffer);
        free(source);
        return 0;
    }
    memcpy(source, coded, codedSize);
    if (nonReading) {
        size_t n = codedSize < CCITT_CHUNK ? codedSize : CCITT_CHUNK;
        memcpy(buffer, coded, n);
        p.codedBytes = (uint32_t)n;
    }
    ImgSetMemorySourceSized(source, (uint32_t)(codedSize ? codedSize : 1));
    Check c = {width, 0, stopAt, 0};
    int result = 0;
    /* A strip from row 0 first when the call starts later, as a TIFF does. */
    if (firstRow > 0) {
        result = which == 0 ? CcittDecode1D(buffer, firstRow, 0, &p, IMG_MEMORY_HANDLE, CheckRecord, &c)
               : which == 1 ? CcittDecode2D(buffer, firstRow, 0, &p, IMG_MEMORY_HANDLE, CheckRecord, &c)
                            : CcittDecodeG4(buffer, firstRow, 0, &p, IMG_MEMORY_HANDLE, CheckRecord, &c);
        c.nextRow = firstRow;
        ImgSetMemorySourceSized(source, (uint32_t)(codedSize ? codedSize : 1));
        if (nonReading) {
            size_t n = codedSize < CCITT_CHUNK ? codedSize : CCITT_CHUNK;
            memcpy(buffer, coded, n);
        }
    }
    if (result >= 0)
        result = which == 0 ? CcittDecode1D(buffer, rowCount, firstRow, &p, IMG_MEMORY_HANDLE, CheckRecord, &c)
               : which == 1 ? CcittDecode2D(buffer, rowCount, firstRow, &p, IMG_MEMORY_HANDLE, CheckRecord, &c)
                            : CcittDecodeG4(buffer, rowCount, firstRow, &p, IMG_MEMORY_HANDLE, CheckRecord, &c);
    if (result > 0 || (result < 0 && result != -55 && result != IMG_ERR_INVALID &&
                       result != IMG_ERR_MEMORY))
        Fail("unexpected result");
    /* Leave the module's row buffers freed (an image of height 1, one row). */
    p.height = 1;
    ImgSetMemorySourceSized(source, 1);
    Check last = {width, 0, -1, 0};
    CcittDecodeG4(buffer, 1, 0, &p, IMG_MEMORY_HANDLE, CheckRecord, &last);
    free(buffer);
    free(source);
    return 0;
}
