/*
 * fuzz_lzw.c - libFuzzer target for the TIFF LZW strip decoder.
 *
 * Input: two bytes of row size (1 .. 2048), one byte of row count
 * (1 .. 64), one byte of options (bit 0: the 1-bit output buffer of
 * 10 x row bytes instead of 4 x; bits 1-7: the first row index), then the
 * coded strip, set as the memory image at exactly its size.  LzwDecodeStrip
 * runs with an adapter that reads every byte it is handed and checks what
 * the decoder guarantees whatever the bytes:
 *   - rows come in order, firstRow, firstRow + 1, ..., each of row size
 *     bytes inside the output buffer, at most row count of them;
 *   - the result is 1 (then every row was delivered) or -3 / -12;
 *   - nothing is written outside the output buffer (ASan: it is allocated
 *     at exactly its size).
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "codecs/lzw.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"

typedef struct FuzzRows {
    const uint8_t *output;
    int32_t outputSize;
    int32_t firstRow, rowCount, delivered;
} FuzzRows;

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_lzw: %s\n", what);
    abort();
}

static int FuzzAdapter(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    FuzzRows *f = static_cast<FuzzRows *>(context);
    if (rowIndex != f->firstRow + f->delivered)
        Fail("row out of order");
    if (++f->delivered > f->rowCount)
        Fail("more rows than the strip holds");
    if (row < f->output || row + rowBytes > f->output + f->outputSize)
        Fail("row outside the output buffer");
    FuzzCheckReadable("fuzz_lzw", row, (size_t)rowBytes);
    row[0] ^= 0x5A; /* the adapter may change the row in place */
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 5 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    int32_t rowBytes = 1 + ((data[0] << 8 | data[1]) & 2047);
    int32_t rowCount = 1 + (data[2] & 63);
    int32_t outputSize = rowBytes * ((data[3] & 1) ? 10 : 4);
    int32_t firstRow = data[3] >> 1;
    size_t streamSize = size - 4;
    /* The coded buffer is the decoder's working space, reused from input to
     * input (cleared, so that no input sees another's bytes); the stream and
     * the output are exactly their size for ASan. */
    static uint8_t *coded = static_cast<uint8_t *>(malloc(LZW_CODED_BUFFER_SIZE));
    uint8_t *stream = static_cast<uint8_t *>(malloc(streamSize));
    uint8_t *output = static_cast<uint8_t *>(calloc(1, (size_t)outputSize));
    if (!stream || !coded || !output)
        abort();
    memcpy(stream, data + 4, streamSize);
    memset(coded, 0, LZW_CODED_BUFFER_SIZE);
    ImgSetMemorySourceSized(stream, (uint32_t)streamSize);

    if (LzwBeginImage() != 0)
        abort();
    FuzzRows rows = {output, outputSize, firstRow, rowCount, 0};
    int result = LzwDecodeStrip(IMG_MEMORY_HANDLE, coded, firstRow, rowBytes, output, outputSize,
                                rowCount, FuzzAdapter, &rows);
    if (result != 1 && result != -3 && result != -12)
        Fail("result neither 1, -3 nor -12");
    if (result == 1 && rows.delivered != rowCount)
        Fail("success without every row");
    LzwEndImage();
    free(output);
    free(stream);
    return 0;
}
