/*
 * bench_jpeg - JPEG decoding through our pipeline beside libjpeg-turbo
 * called directly, in the same run, on the same file: a 2000 x 1500
 * photograph-like picture (smooth shapes and a little noise, as bench_gif)
 * saved as JPEG at quality 90.
 *
 *   full:      IMG_decompress_bitmap_mem_size (the public API: the image
 *              allocated and filled through the decode pipeline) against
 *              jpeg_read_scanlines of the whole picture into a buffer
 *              allocated for it, B, G, R as the image holds it;
 *   thumbnail: the same decode with IMGLOW_set_decompsize(250, 188), which
 *              libjpeg serves at 1/8 of the size, against the full decode.
 *
 * The median of several runs; ratios above 1 mean we are faster.  Both
 * decodes are compared with each other.  No timing is asserted.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <jpeglib.h>

#include "bench_common.h"
#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int WIDTH = 2000, HEIGHT = 1500, RUNS = 9;
constexpr uint32_t STRIDE = WIDTH * 3, FILE_ROOM = 16u << 20;

/* The photograph as a bottom-up 24-bit DIB in a block of the library's. */
static uint8_t *MakePhotograph(void)
{
    uint8_t *dib = static_cast<uint8_t *>(ImgAlloc(40 + (size_t)STRIDE * HEIGHT));
    if (!dib)
        return NULL;
    memset(dib, 0, 40);
    PutLE32(dib, 40), PutLE32(dib + 4, WIDTH), PutLE32(dib + 8, HEIGHT);
    PutLE16(dib + 12, 1), PutLE16(dib + 14, 24);
    uint32_t seed = 12345;
    for (int y = 0; y < HEIGHT; y++)
        for (int x = 0; x < WIDTH; x++)
            for (int c = 0; c < 3; c++) {
                int cx = x - 700 - 200 * c, cy = y - 600;
                int v = 60 + (int)((uint32_t)(cx * cx + cy * cy) / 9000 % 150) + (x / 16 + y / 24) % 30;
                if (BenchRandom(&seed) % 4 == 0)
                    v += (int)(BenchRandom(&seed) % 5) - 2;
                dib[40 + (size_t)(HEIGHT - 1 - y) * STRIDE + (size_t)x * 3 + (2 - c)] =
                    (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v);
            }
    return dib;
}

/* libjpeg alone: the whole picture into a new buffer (top row first), kept
 * in *pixels: seconds. */
static double LibjpegDecode(uint8_t *file, size_t size, uint8_t **pixels)
{
    free(*pixels);
    double t0 = BenchNow();
    *pixels = static_cast<uint8_t *>(malloc((size_t)STRIDE * HEIGHT));
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr errors;
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, file, (unsigned long)size);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = JCS_EXT_BGR;
    jpeg_start_decompress(&cinfo);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW rows[16];
        for (int i = 0; i < 16; i++)
            rows[i] = *pixels + (size_t)(cinfo.output_scanline + (JDIMENSION)i) * STRIDE;
        JDIMENSION left = cinfo.output_height - cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, rows, left < 16 ? left : 16);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return BenchNow() - t0;
}

/* Our public decode, at the fixed size set: seconds, or -1; the handle
 * stays in *handle for the caller to compare and delete. */
static double OursDecode(uint8_t *file, uint32_t size, int32_t *handle)
{
    double t0 = BenchNow();
    *handle = IMG_decompress_bitmap_mem_size(file, size, 0);
    double t = BenchNow() - t0;
    return *handle < 0 ? -1 : t;
}

/* Whether our image holds libjpeg's rows (every 97th compared). */
static bool Same(int32_t handle, const uint8_t *pixels)
{
    static uint8_t row[STRIDE];
    for (int y = 0; y < HEIGHT; y += 97)
        if (IMGLOW_get_raster(handle, row, y, STRIDE) < 0 || memcmp(row, pixels + (size_t)y * STRIDE, STRIDE))
            return false;
    return true;
}

int main(void)
{
    uint8_t *photo = MakePhotograph();
    int32_t image = photo ? IMG_create_handle_keep(photo) : -1;
    uint8_t *file = static_cast<uint8_t *>(malloc(FILE_ROOM));
    uint8_t *pixels = nullptr;
    IMGLOW_set_comp_quality(90);
    int32_t size = image >= 0 && file ? IMG_save_bitmap_mem_size(image, file, FILE_ROOM, IMG_TYPE_JPG) : -1;
    if (size < 0) {
        fprintf(stderr, "bench_jpeg: cannot make the picture\n");
        return 1;
    }
    double library[RUNS], full[RUNS], thumbnail[RUNS];
    bool bad = false;
    for (int run = 0; run < RUNS; run++) {
        int32_t handle;
        library[run] = LibjpegDecode(file, (size_t)size, &pixels);
        full[run] = OursDecode(file, (uint32_t)size, &handle);
        bad |= full[run] < 0 || !Same(handle, pixels);
        IMG_delete_bitmap(handle);
        IMGLOW_set_decompsize(250, 188);
        thumbnail[run] = OursDecode(file, (uint32_t)size, &handle);
        int32_t width = 0, height = 0, bits = 0;
        bad |= thumbnail[run] < 0 || IMG_bitmap_info(handle, &width, &height, &bits) < 0 || width != 250 ||
               height != 188;
        IMG_delete_bitmap(handle);
        IMGLOW_set_decompsize(0, 0);
    }
    double alone = BenchMedian(library, RUNS), ours = BenchMedian(full, RUNS);
    double thumb = BenchMedian(thumbnail, RUNS);
    printf("bench_jpeg: %d x %d photograph-like picture, JPEG quality 90 (%d bytes), median of %d runs\n",
           WIDTH, HEIGHT, (int)size, RUNS);
    printf("  %-34s trnw %7.2f ms  libjpeg %7.2f ms  libjpeg/trnw %.2f\n", "decode, public API", ours * 1e3,
           alone * 1e3, alone / ours);
    printf("  %-34s trnw %7.2f ms  full %7.2f ms     full/thumbnail %.2f\n", "thumbnail 250 x 188 (1/8)",
           thumb * 1e3, ours * 1e3, ours / thumb);
    printf("  decodings equal libjpeg's: %s\n", bad ? "NO" : "yes");
    printf("RATIO jpeg_decode_libjpeg_over_trnw %.2f\n", alone / ours);
    printf("RATIO jpeg_thumbnail_speedup %.2f\n", ours / thumb);
    IMG_delete_bitmap_keep(image);
    ImgFree(photo);
    free(file);
    free(pixels);
    return bad;
}
