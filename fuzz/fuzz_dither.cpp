/*
 * fuzz_dither.c - libFuzzer target for the depth reduction during decode
 * and the dithering and colour operations on whatever picture results.
 *
 * Byte 0 picks the decode-time reduction (0, 8, 4, 1) and byte 1 the
 * operation (one of the nine, or the display-time 3-3-2 reduction in either
 * mode); the rest is decoded from the memory image (any detected format:
 * the seeds hold BMP, GIF, TIFF, PCX, Targa and XBM files).  Checks: the decode gives a handle or a negative code;
 * the operation gives 0 or a negative code; a successful 1-bit dither leaves
 * coded rows of the image's height that expand; no tracked block is left
 * and the image table is empty at the end.  Pictures of more pixels than
 * FuzzBlockLimit of the input are not decoded: the format's reader is run
 * first with a header sink that notes the size and stops it, so that every
 * format is judged by its header and runs stay in proportion to the input.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "color/dither.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"
#include "pipeline/detect.h"

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_dither: %s\n", what);
    abort();
}

static int Operate(int32_t handle, unsigned choice)
{
    switch (choice % 11) {
    case 0: return IMG_bayer_mono(handle);
    case 1: return IMG_halftone_mono(handle);
    case 2: return IMG_diffusion_mono(handle);
    case 3: return IMG_thresh_mono(handle, choice & 0x80 ? -1 : (int32_t)(choice & 0x7F) * 2);
    case 4: return IMG_bayer_color(handle);
    case 5: return IMG_diffusion_color(handle);
    case 6: return IMG_color_gray(handle);
    case 7: return IMG_promote_8(handle);
    case 8: return IMG_promote_24(handle);
    default: {
        uint8_t *copy = NULL;
        IMGLOW_set_dithermode(choice % 11 == 9 ? 2 : 1);
        int result = DitherReduceTo332(ImgTableGet(handle), (int32_t)choice, &copy);
        ImgFree(copy);
        return result;
    }
    }
}

/* The header sink of the first look: notes the pixel count, then stops the
 * reader (the library's sink would answer so for lack of memory). */
static int NotePixels(const uint8_t *h, void *context)
{
    int64_t width = (int32_t)GetLE32(h + 4), height = (int32_t)GetLE32(h + 8);
    *static_cast<int64_t *>(context) = width > 0 && height > 0 ? width * height : 0;
    return -1;
}

static int NoRows(const uint8_t *, void *, int, int)
{
    return -1;
}

/* The pixels of the picture the decode would make: its reader's header,
 * or 0 when no reader takes the bytes that far. */
static int64_t DeclaredPixels(uint8_t *image, uint32_t size)
{
    char extension[4] = {0};
    ImgSetMemorySourceSized(image, size);
    if (ImgDetect(IMG_MEMORY_HANDLE, extension) != 0)
        return 0;
    ImgReader reader = RegistryReader(extension);
    int64_t pixels = 0;
    if (reader)
        reader(0, NoRows, &pixels, NotePixels, IMG_MEMORY_HANDLE);
    ImgFreeAllTracked();
    return pixels;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3 || size > (1u << 20))
        return 0;
    static const int32_t reductions[4] = {0, 8, 4, 1};
    IMGLOW_set_decomp_reduction(reductions[data[0] & 3]);
    unsigned choice = data[1];
    size -= 2;
    uint8_t *image = static_cast<uint8_t *>(malloc(size));
    if (!image)
        return 0;
    memcpy(image, data + 2, size);
    if ((uint64_t)DeclaredPixels(image, (uint32_t)size) > FuzzBlockLimit(size)) {
        free(image);
        return 0;
    }
    int32_t handle = IMG_decompress_bitmap_mem_size(image, (uint32_t)size, 0);
    if (handle >= 0) {
        int result = Operate(handle, choice);
        if (result > 0)
            Fail("positive result");
        ImgDescriptor *d = ImgTableGet(handle);
        if (result == 0 && choice % 11 <= 3) {
            if (!d->codedRows || ImgDescriptorBits(d) != 1)
                Fail("a 1-bit dither left no coded rows");
            uint8_t *row = static_cast<uint8_t *>(malloc((size_t)d->stride));
            for (int32_t y = 0; row && y < d->height; y++)
                if (IMGLOW_get_raster(handle, row, y, 0) != 0)
                    Fail("a coded row does not expand");
            free(row);
        }
        IMG_delete_bitmap(handle);
    }
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    if (ImgTableCount() != 0)
        Fail("an image left in the table");
    IMGLOW_set_dithermode(1);
    free(image);
    return 0;
}
