/*
 * fuzz_dither.c - libFuzzer target for the depth reduction during decode
 * and the dithering and colour operations on whatever picture results.
 *
 * Byte 0 picks the decode-time reduction (0, 8, 4, 1) and byte 1 the
 * operation (one of the nine, or the display-time 3-3-2 reduction in either
 * mode); the rest is decoded from the memory image (any detected format,
 * BMP in practice).  Checks: the decode gives a handle or a negative code;
 * the operation gives 0 or a negative code; a successful 1-bit dither leaves
 * coded rows of the image's height that expand; no tracked block is left
 * and the image table is empty at the end.  Pictures over 1 Mpixel are not
 * decoded (the header check below skips them), so runs stay quick.
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
    /* Skip pictures above 1 Mpixel (BMP header at 14: width, height). */
    if (size >= 26 && image[0] == 'B' && image[1] == 'M') {
        int64_t w = (int32_t)GetLE32(image + 18), h = (int32_t)GetLE32(image + 22);
        if (h < 0)
            h = -h;
        if (w * h > (1 << 20)) {
            free(image);
            return 0;
        }
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
