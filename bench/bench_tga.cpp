/*
 * bench_tga - Targa decoding beside ImageMagick on the same file in the same
 * run: a 2000 x 1500 24-bit run-length Targa (image type 10) of a
 * photograph-like picture, ImageMagick's plasma when /usr/bin/convert exists,
 * else a picture of gradients and grain made and run-length encoded here.
 *
 *   IMG_decompress_bitmap(file)  vs  convert file.tga ppm:/dev/null
 *
 * Ours is the public API on the file (the median of several runs).
 * ImageMagick is timed with the wall clock around the whole command, its
 * start-up estimated by the same command on a 1 x 1 Targa; the ratio is
 * printed against the whole command and the command less start-up.  A plain
 * memcpy of the decoded size is timed as the floor.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bench_common.h"
#include "core/bytes.h"
#include "core/imgapi.h"

constexpr int PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 7, MAGICK_RUNS = 3;


/* Run-length packets of one row of 3-byte pixels: runs of two or more equal
 * pixels, raw packets between them. */
static size_t EncodeRow(const uint8_t *px, int width, uint8_t *out)
{
    size_t n = 0;
    for (int x = 0; x < width;) {
        int run = 1;
        while (x + run < width && run < 128 && !memcmp(px + 3 * x, px + 3 * (x + run), 3))
            run++;
        if (run > 1) {
            out[n++] = (uint8_t)(0x80 | (run - 1));
            memcpy(out + n, px + 3 * x, 3), n += 3;
            x += run;
            continue;
        }
        int raw = 1;
        while (x + raw < width && raw < 128 &&
               (x + raw + 1 >= width || memcmp(px + 3 * (x + raw), px + 3 * (x + raw + 1), 3)))
            raw++;
        out[n++] = (uint8_t)(raw - 1);
        memcpy(out + n, px + 3 * x, (size_t)raw * 3), n += (size_t)raw * 3;
        x += raw;
    }
    return n;
}

/* Our own picture: soft gradients in flat bands of a few grey steps, with
 * grain on half the rows, written bottom row first. */
static int MakeOwn(const char *path, int width, int height)
{
    FILE *f = fopen(path, "wb");
    if (!f)
        return -1;
    uint8_t header[18] = {0};
    header[2] = 10;
    PutLE16(header + 12, (uint16_t)width);
    PutLE16(header + 14, (uint16_t)height);
    header[16] = 24;
    fwrite(header, 1, sizeof header, f);
    uint8_t *row = static_cast<uint8_t *>(malloc((size_t)width * 3));
    uint8_t *out = static_cast<uint8_t *>(malloc((size_t)width * 4 + 16));
    uint32_t seed = 7;
    for (int y = 0; y < height && row && out; y++) {
        for (int x = 0; x < width; x++) {
            int grain = y % 2 ? (int)(BenchRandom(&seed) % 9) - 4 : 0;
            row[3 * x] = (uint8_t)((x / 8 * 3 + grain) & 255);
            row[3 * x + 1] = (uint8_t)((y / 6 + grain) & 255);
            row[3 * x + 2] = (uint8_t)(((x + y) / 16 + grain) & 255);
        }
        fwrite(out, 1, EncodeRow(row, width, out), f);
    }
    int ok = row && out;
    free(row);
    free(out);
    return fclose(f) == 0 && ok ? 0 : -1;
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char in[512], tiny[512], command[2048];
    snprintf(in, sizeof in, "%s/bench_tga_photo.tga", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_tga_1x1.tga", tmp);

    snprintf(command, sizeof command, "%s -version >/dev/null 2>&1", BENCH_MAGICK);
    bool haveMagick = system(command) == 0;
    if (haveMagick) {
        snprintf(command, sizeof command,
                 "%s -size %dx%d -seed 5 plasma: -compress RLE 'tga:%s' >/dev/null 2>&1", BENCH_MAGICK,
                 PHOTO_W, PHOTO_H, in);
        haveMagick = system(command) == 0;
    }
    if (!haveMagick && MakeOwn(in, PHOTO_W, PHOTO_H) < 0) {
        fprintf(stderr, "bench_tga: cannot make the picture\n");
        return 1;
    }
    if (MakeOwn(tiny, 1, 1) < 0)
        return 1;
    printf("bench_tga: %d x %d 24-bit run-length Targa (%s); median of %d, ImageMagick median of "
           "%d (wall clock)\n",
           PHOTO_W, PHOTO_H, haveMagick ? "ImageMagick plasma" : "own picture", RUNS, MAGICK_RUNS);
    double ours = BenchTimeDecode(in, RUNS);
    double copy = BenchTimeMemcpy((size_t)PHOTO_W * PHOTO_H * 3, RUNS);
    if (ours < 0 || copy < 0)
        return 1;
    printf("  IMG_decompress_bitmap            %8.2f ms\n", ours * 1e3);
    printf("  memcpy of the decoded size       %8.2f ms  (ours / memcpy %.2f)\n", copy * 1e3, ours / copy);
    if (!haveMagick) {
        printf("  ImageMagick (%s): not installed, no comparison\n", BENCH_MAGICK);
        remove(in);
        remove(tiny);
        return 0;
    }
    int result = BenchPrintMagickRatio(in, tiny, ours, MAGICK_RUNS);
    remove(in);
    remove(tiny);
    return result < 0 ? 1 : 0;
}
