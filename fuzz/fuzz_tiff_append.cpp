/*
 * fuzz_tiff_append.c - libFuzzer target for the part of the TIFF writer
 * that reads hostile bytes: appending a page to an output that
 * already holds data follows that data's IFD chain.
 *
 * The input is the existing output: it is copied into a block with 4 KiB of
 * room behind it, the memory image is set over the block at exactly that
 * size, and a small 1-bit page is saved as type 0 and as type 10 (Group 4)
 * into it.  Checks, whatever the bytes:
 *   - the result is 0, -3 (a chain that cannot be followed: loops, offsets
 *     out of range, cut-short IFDs) or nothing else;
 *   - an input not starting with "II" gets a new header at the start: the
 *     block then begins "II", 42, 8 and the result is 0;
 *   - no tracked block is left behind (and ASan sees every stray access).
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/contracts.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#define ROOM 4096
#define PAGE_W 20
#define PAGE_H 6

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_tiff_append: %s\n", what);
    abort();
}

static int32_t Rows(void *context, uint8_t *buffer, int32_t rowIndex, int32_t rowBytes)
{
    (void)context;
    for (int32_t i = 0; i < rowBytes; i++)
        buffer[i] = (uint8_t)(0x5A ^ (rowIndex * 31 + i));
    return 0;
}

static void SaveInto(const uint8_t *data, size_t size, int32_t type)
{
    uint8_t *block = static_cast<uint8_t *>(malloc(size + ROOM));
    if (!block)
        return;
    memcpy(block, data, size);
    memset(block + size, 0, ROOM);
    uint8_t header[IMG_HEADER_BLOCK_SIZE] = {};
    BITMAPINFOHEADER h = {};
    h.biSize = 40;
    h.biWidth = PAGE_W;
    h.biHeight = PAGE_H;
    h.biPlanes = 1;
    h.biBitCount = 1;
    memcpy(header, &h, sizeof h);
    memset(header + 44, 255, 3);
    ImgSetMemorySourceSized(block, (uint32_t)(size + ROOM));
    int32_t result = IMGLOW_save_bitmap(IMG_MEMORY_HANDLE, header, type, Rows, NULL);
    if (result != 0 && result != IMG_ERR_INVALID)
        Fail("result other than 0 or -3");
    int appended = size >= 2 && data[0] == 'I' && data[1] == 'I';
    if (!appended && (result != 0 || memcmp(block, "II\x2A\0\x08\0\0\0", 8) != 0))
        Fail("no new header on a non-II output");
    if (ImgTrackedCount() != 0)
        Fail("tracked block left behind");
    free(block);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    SaveInto(data, size, IMG_TYPE_TIFF);
    SaveInto(data, size, IMG_TYPE_TIFF_G4);
    return 0;
}
