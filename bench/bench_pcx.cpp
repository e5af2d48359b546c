/*
 * bench_pcx - PCX decoding beside ImageMagick on the same file in the same
 * run: a 2000 x 1500 photograph-like picture as an 8-bit PCX (ImageMagick's
 * plasma reduced to 256 colours when /usr/bin/convert exists, else a picture
 * of gradients and grain written by our PCX writer).
 *
 *   IMG_decompress_bitmap(file)  vs  convert file.pcx ppm:/dev/null
 *
 * Ours is the public API on the file (the median of several runs).
 * ImageMagick is timed with the wall clock around the whole command, its
 * start-up estimated by the same command on a 1 x 1 PCX.  A plain memcpy of
 * the decoded size is the floor.  No timing is asserted.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bench_common.h"
#include "core/bytes.h"
#include "core/imgapi.h"

constexpr int PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 7, MAGICK_RUNS = 3;

/* An 8-bit picture of soft bands with grain on half the rows and a grey
 * palette, saved as PCX through the library. */
static int MakeOwn(const char *path, int width, int height)
{
    uint32_t stride = (uint32_t)(width + 3) & ~3u;
    uint8_t *dib = static_cast<uint8_t *>(calloc(1, 40 + 1024 + (size_t)stride * height));
    if (!dib)
        return -1;
    PutLE32(dib, 40), PutLE32(dib + 4, (uint32_t)width), PutLE32(dib + 8, (uint32_t)height);
    PutLE16(dib + 12, 1), PutLE16(dib + 14, 8);
    for (int i = 0; i < 256; i++)
        dib[40 + 4 * i] = dib[41 + 4 * i] = dib[42 + 4 * i] = (uint8_t)i;
    uint32_t seed = 7;
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            int grain = y % 2 ? (int)(BenchRandom(&seed) % 9) - 4 : 0;
            dib[1064 + (size_t)y * stride + x] = (uint8_t)(((x + y) / 16 + grain) & 255);
        }
    int32_t handle = IMG_create_handle_keep(dib);
    int result = handle < 0 ? -1 : IMG_save_bitmap(handle, path, IMG_TYPE_PCX);
    if (handle >= 0)
        IMG_delete_bitmap_keep(handle);
    free(dib);
    return result < 0 ? -1 : 0;
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char in[512], tiny[512], command[2048];
    snprintf(in, sizeof in, "%s/bench_pcx_photo.pcx", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_pcx_1x1.pcx", tmp);

    snprintf(command, sizeof command, "%s -version >/dev/null 2>&1", BENCH_MAGICK);
    bool haveMagick = system(command) == 0;
    if (haveMagick) {
        snprintf(command, sizeof command,
                 "%s -size %dx%d -seed 5 plasma: -colors 256 -type Palette 'pcx:%s' >/dev/null 2>&1",
                 BENCH_MAGICK, PHOTO_W, PHOTO_H, in);
        haveMagick = system(command) == 0;
    }
    if ((!haveMagick && MakeOwn(in, PHOTO_W, PHOTO_H) < 0) || MakeOwn(tiny, 1, 1) < 0) {
        fprintf(stderr, "bench_pcx: cannot make the pictures\n");
        return 1;
    }
    printf("bench_pcx: %d x %d 8-bit PCX (%s); median of %d, ImageMagick median of %d (wall clock)\n",
           PHOTO_W, PHOTO_H, haveMagick ? "ImageMagick plasma" : "own picture", RUNS, MAGICK_RUNS);
    double ours = BenchTimeDecode(in, RUNS);
    double copy = BenchTimeMemcpy((size_t)PHOTO_W * PHOTO_H, RUNS);
    if (ours < 0 || copy < 0) {
        fprintf(stderr, "bench_pcx: the decode failed\n");
        return 1;
    }
    printf("  IMG_decompress_bitmap             %8.2f ms\n", ours * 1e3);
    printf("  memcpy of the decoded size        %8.2f ms  (ours / memcpy %.2f)\n", copy * 1e3, ours / copy);
    int result = haveMagick ? BenchPrintMagickRatio(in, tiny, ours, MAGICK_RUNS) : 0;
    if (!haveMagick)
        printf("  ImageMagick (%s): not installed, no comparison\n", BENCH_MAGICK);
    remove(in);
    remove(tiny);
    return result < 0 ? 1 : 0;
}
