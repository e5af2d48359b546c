/*
 * bench_png - PNG decoding through our pipeline beside libpng called
 * directly, on the same file in the same run: a 2000 x 1500 photograph-like
 * picture (smooth shapes and a little noise, as bench_gif), 24-bit, written
 * as an RGB PNG at zlib level 6 by our writer.
 *
 *   ours:   IMG_decompress_bitmap_mem_size, the public decode: the image
 *           allocated, every row through the reader and the library's sink;
 *   libpng: png_read_image from memory into a block allocated for the
 *           picture, as blue, green, red (png_set_bgr), the order we hold.
 *
 * Each side frees its previous picture as it makes the next.  The sides
 * run in turn, first in new memory (malloc maps every large block afresh:
 * libpng's picture pays the first touch of 9 MB, which on some virtual
 * machines costs as much as the decoding, while the library serves its
 * blocks from the large blocks it keeps after a free), then in memory
 * reused from the runs before (the decoders' own work, and the figure of
 * the summary); see BenchSetMemory.
 * The ratios are libpng's median time over ours (1: the pipeline costs
 * nothing beside libpng's decoding).  The last decodings are compared row by
 * row.  No timing is asserted.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <png.h>

#include "bench_common.h"
#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int WIDTH = 2000, HEIGHT = 1500, RUNS = 11;
constexpr size_t ROW = (size_t)WIDTH * 3;
constexpr uint32_t FILE_ROOM = 16u << 20;

struct Memory {
    const uint8_t *data;
    size_t size, position;
};

static void MemoryRead(png_structp png, png_bytep out, size_t count)
{
    Memory *m = static_cast<Memory *>(png_get_io_ptr(png));
    if (count > m->size - m->position)
        png_error(png, "short");
    memcpy(out, m->data + m->position, count);
    m->position += count;
}

struct Decodes {
    uint8_t *file;
    uint32_t size;
    uint8_t *picture; /* libpng's last picture, top row first */
    int32_t handle;   /* our last image */
    bool failed;
};

/* libpng alone into a new block of the picture's rows. */
static void LibpngDecode(void *context)
{
    Decodes *d = static_cast<Decodes *>(context);
    static png_bytep rows[HEIGHT];
    Memory m = {d->file, d->size, 0};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    png_infop info = png ? png_create_info_struct(png) : NULL;
    uint8_t *block = static_cast<uint8_t *>(malloc(ROW * HEIGHT));
    if (!info || !block || setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, NULL);
        free(block);
        d->failed = true;
        return;
    }
    png_set_read_fn(png, &m, MemoryRead);
    png_read_info(png, info);
    png_set_bgr(png);
    png_read_update_info(png, info);
    for (int y = 0; y < HEIGHT; y++)
        rows[y] = block + (size_t)y * ROW;
    png_read_image(png, rows);
    png_destroy_read_struct(&png, &info, NULL);
    free(d->picture);
    d->picture = block;
}

/* The public decode into a new image. */
static void OursDecode(void *context)
{
    Decodes *d = static_cast<Decodes *>(context);
    int32_t handle = IMG_decompress_bitmap_mem_size(d->file, d->size, 0);
    if (d->handle >= 0)
        IMG_delete_bitmap(d->handle);
    d->handle = handle;
    d->failed |= handle < 0;
}

/* Whether our last image holds libpng's last picture. */
static bool Same(const Decodes &d)
{
    static uint8_t row[ROW];
    for (int y = 0; y < HEIGHT; y++)
        if (IMGLOW_get_raster(d.handle, row, y, (int32_t)ROW) < 0 || memcmp(row, d.picture + (size_t)y * ROW, ROW))
            return false;
    return true;
}

int main(void)
{
    uint8_t *photo = BenchPhotographDib(WIDTH, HEIGHT);
    int32_t handle = photo ? IMG_create_handle_keep(photo) : -1;
    uint8_t *file = static_cast<uint8_t *>(malloc(FILE_ROOM));
    int32_t size = handle >= 0 && file ? IMG_save_bitmap_mem_size(handle, file, FILE_ROOM, IMG_TYPE_PNG) : -1;
    if (size <= 0 || (uint32_t)size >= FILE_ROOM) {
        fprintf(stderr, "bench_png: cannot make the picture's PNG\n");
        return 1;
    }
    Decodes d = {file, (uint32_t)size, NULL, -1, false};
    double newOurs, newPeer, ours, peer;
    BenchSetMemory(BENCH_MEMORY_NEW);
    BenchInterleaved(OursDecode, LibpngDecode, &d, RUNS, &newOurs, &newPeer);
    BenchSetMemory(BENCH_MEMORY_REUSED);
    for (int round = 0; round < 2; round++) { /* the blocks the timed runs reuse */
        OursDecode(&d);
        LibpngDecode(&d);
    }
    BenchInterleaved(OursDecode, LibpngDecode, &d, RUNS, &ours, &peer);
    bool bad = d.failed || !Same(d);
    printf("bench_png: %d x %d photograph-like picture, RGB PNG of %d bytes (zlib level 6), median of %d runs\n",
           WIDTH, HEIGHT, size, RUNS);
    printf("  %-14s public API %8.2f ms  libpng alone %8.2f ms  libpng/trnw %.2f\n", "new memory:", newOurs * 1e3,
           newPeer * 1e3, newPeer / newOurs);
    printf("  %-14s public API %8.2f ms  libpng alone %8.2f ms  libpng/trnw %.2f\n", "reused memory:", ours * 1e3,
           peer * 1e3, peer / ours);
    printf("  decodings equal: %s\n", bad ? "NO" : "yes");
    if (d.handle >= 0)
        IMG_delete_bitmap(d.handle);
    IMG_delete_bitmap_keep(handle);
    ImgFree(photo);
    free(file);
    free(d.picture);
    BenchSummary("RATIO", "png_decode", peer / ours);
    return bad;
}
