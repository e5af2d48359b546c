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
 * Each side frees its previous picture as it makes the next.  The pairs
 * run in turn, first in new memory (malloc maps every large block afresh,
 * so that libjpeg's picture pays the first touch of 9 MB; the library
 * serves its blocks from the large blocks it keeps after a free), then in
 * memory reused from the runs before; see BenchSetMemory.  The ratios are
 * of median times, above 1 when the first named is the faster.  The
 * summary gives both ratios in reused memory, where both sides do only the
 * decoders' own work: the thumbnail's stays near libjpeg's own ratio of a
 * full to a 1/8 decode (about 2.7), as both decode every coefficient.  The
 * last full decodes are compared row by row.  No timing is asserted.
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

constexpr int WIDTH = 2000, HEIGHT = 1500, RUNS = 11;
constexpr uint32_t STRIDE = WIDTH * 3, FILE_ROOM = 16u << 20;

struct Decodes {
    uint8_t *file;
    uint32_t size;
    uint8_t *pixels;   /* libjpeg's last picture, top row first */
    int32_t full;      /* our last full image */
    int32_t thumbnail; /* our last thumbnail */
    bool failed;
};

/* libjpeg alone: the whole picture into a new buffer. */
static void LibjpegDecode(void *context)
{
    Decodes *d = static_cast<Decodes *>(context);
    uint8_t *pixels = static_cast<uint8_t *>(malloc((size_t)STRIDE * HEIGHT));
    if (!pixels) {
        d->failed = true;
        return;
    }
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr errors;
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, d->file, (unsigned long)d->size);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = JCS_EXT_BGR;
    jpeg_start_decompress(&cinfo);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW rows[16];
        for (int i = 0; i < 16; i++)
            rows[i] = pixels + (size_t)(cinfo.output_scanline + (JDIMENSION)i) * STRIDE;
        JDIMENSION left = cinfo.output_height - cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, rows, left < 16 ? left : 16);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    free(d->pixels);
    d->pixels = pixels;
}

/* Our public decode into a new image, replacing *image. */
static void Decode(Decodes *d, int32_t *image)
{
    int32_t handle = IMG_decompress_bitmap_mem_size(d->file, d->size, 0);
    if (*image >= 0)
        IMG_delete_bitmap(*image);
    *image = handle;
    d->failed |= handle < 0;
}

static void OursFull(void *context)
{
    Decodes *d = static_cast<Decodes *>(context);
    Decode(d, &d->full);
}

/* The decode at 250 x 188, which libjpeg serves at 1/8 of the size. */
static void OursThumbnail(void *context)
{
    Decodes *d = static_cast<Decodes *>(context);
    IMGLOW_set_decompsize(250, 188);
    Decode(d, &d->thumbnail);
    IMGLOW_set_decompsize(0, 0);
}

/* Median times in seconds: our full decode beside libjpeg's, our
 * thumbnail beside our full decode. */
struct Times {
    double ours, alone, thumbnail, full;
};

static Times TimePairs(Decodes &d, BenchMemory memory)
{
    Times t;
    BenchSetMemory(memory);
    for (int round = 0; memory == BENCH_MEMORY_REUSED && round < 2; round++) { /* the blocks the runs reuse */
        OursFull(&d);
        LibjpegDecode(&d);
    }
    BenchInterleaved(OursFull, LibjpegDecode, &d, RUNS, &t.ours, &t.alone);
    BenchInterleaved(OursThumbnail, OursFull, &d, RUNS, &t.thumbnail, &t.full);
    return t;
}

static void PrintTimes(const char *memory, const Times &t)
{
    printf("  %-13s decode  trnw %7.2f ms  libjpeg %7.2f ms  libjpeg/trnw   %.2f\n", memory, t.ours * 1e3,
           t.alone * 1e3, t.alone / t.ours);
    printf("  %-13s 1/8     trnw %7.2f ms  full    %7.2f ms  full/thumbnail %.2f\n", memory, t.thumbnail * 1e3,
           t.full * 1e3, t.full / t.thumbnail);
}

/* Whether our last full image holds libjpeg's last picture, and the
 * thumbnail has its size. */
static bool Same(const Decodes &d)
{
    static uint8_t row[STRIDE];
    for (int y = 0; y < HEIGHT; y++)
        if (IMGLOW_get_raster(d.full, row, y, STRIDE) < 0 || memcmp(row, d.pixels + (size_t)y * STRIDE, STRIDE))
            return false;
    int32_t width = 0, height = 0, bits = 0;
    return IMG_bitmap_info(d.thumbnail, &width, &height, &bits) >= 0 && width == 250 && height == 188;
}

int main(void)
{
    uint8_t *photo = BenchPhotographDib(WIDTH, HEIGHT);
    int32_t image = photo ? IMG_create_handle_keep(photo) : -1;
    uint8_t *file = static_cast<uint8_t *>(malloc(FILE_ROOM));
    IMGLOW_set_comp_quality(90);
    int32_t size = image >= 0 && file ? IMG_save_bitmap_mem_size(image, file, FILE_ROOM, IMG_TYPE_JPG) : -1;
    if (size < 0) {
        fprintf(stderr, "bench_jpeg: cannot make the picture\n");
        return 1;
    }
    Decodes d = {file, (uint32_t)size, nullptr, -1, -1, false};
    Times fresh = TimePairs(d, BENCH_MEMORY_NEW), reused = TimePairs(d, BENCH_MEMORY_REUSED);
    bool bad = d.failed || !Same(d);
    printf("bench_jpeg: %d x %d photograph-like picture, JPEG quality 90 (%d bytes), median of %d runs\n",
           WIDTH, HEIGHT, (int)size, RUNS);
    PrintTimes("new memory", fresh);
    PrintTimes("reused memory", reused);
    printf("  decodings equal libjpeg's: %s\n", bad ? "NO" : "yes");
    if (d.full >= 0)
        IMG_delete_bitmap(d.full);
    if (d.thumbnail >= 0)
        IMG_delete_bitmap(d.thumbnail);
    IMG_delete_bitmap_keep(image);
    ImgFree(photo);
    free(file);
    free(d.pixels);
    BenchSummary("RATIO", "jpeg_decode", reused.alone / reused.ours);
    BenchSummary("RATIO", "jpeg_thumbnail", reused.full / reused.thumbnail);
    return bad;
}
