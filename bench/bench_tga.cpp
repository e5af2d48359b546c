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

static const char magick[] = "/usr/bin/convert";

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

static double TimeOurs(const char *path)
{
    double times[RUNS];
    for (int run = 0; run < RUNS; run++) {
        double t0 = BenchNow();
        int32_t handle = IMG_decompress_bitmap(path);
        times[run] = BenchNow() - t0;
        if (handle < 0) {
            fprintf(stderr, "bench_tga: decode failed: %d\n", (int)handle);
            return -1;
        }
        IMG_delete_bitmap(handle);
    }
    return BenchMedian(times, RUNS);
}

static double TimeMemcpy(size_t size)
{
    uint8_t *a = static_cast<uint8_t *>(malloc(size)), *b = static_cast<uint8_t *>(malloc(size));
    if (!a || !b)
        return -1;
    memset(a, 1, size);
    memset(b, 2, size);
    double times[RUNS];
    for (int run = 0; run < RUNS; run++) {
        double t0 = BenchNow();
        memcpy(b, a, size);
        times[run] = BenchNow() - t0;
        a[run] = b[size - 1 - (size_t)run]; /* keeps the copies */
    }
    free(a);
    free(b);
    return BenchMedian(times, RUNS);
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char in[512], tiny[512], command[2048];
    snprintf(in, sizeof in, "%s/bench_tga_photo.tga", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_tga_1x1.tga", tmp);

    snprintf(command, sizeof command, "%s -version >/dev/null 2>&1", magick);
    bool haveMagick = system(command) == 0;
    if (haveMagick) {
        snprintf(command, sizeof command,
                 "%s -size %dx%d -seed 5 plasma: -compress RLE 'tga:%s' >/dev/null 2>&1", magick,
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
    double ours = TimeOurs(in);
    double copy = TimeMemcpy((size_t)PHOTO_W * PHOTO_H * 3);
    if (ours < 0 || copy < 0)
        return 1;
    printf("  IMG_decompress_bitmap            %8.2f ms\n", ours * 1e3);
    printf("  memcpy of the decoded size       %8.2f ms  (ours / memcpy %.2f)\n", copy * 1e3, ours / copy);
    if (!haveMagick) {
        printf("  ImageMagick (%s): not installed, no comparison\n", magick);
        remove(in);
        remove(tiny);
        return 0;
    }
    snprintf(command, sizeof command, "%s 'tga:%s' ppm:/dev/null >/dev/null 2>&1", magick, tiny);
    double startUp = BenchTimeCommand(command, MAGICK_RUNS);
    snprintf(command, sizeof command, "%s 'tga:%s' ppm:/dev/null >/dev/null 2>&1", magick, in);
    double theirs = BenchTimeCommand(command, MAGICK_RUNS);
    if (startUp < 0 || theirs < 0) {
        printf("  ImageMagick: a command failed\n");
        return 1;
    }
    printf("  convert 1x1.tga ppm:/dev/null (start-up)  %8.2f ms\n", startUp * 1e3);
    printf("  convert file.tga ppm:/dev/null            %8.2f ms\n", theirs * 1e3);
    printf("  ratio ImageMagick/ours: %.2f whole, %.2f less start-up\n", theirs / ours,
           (theirs - startUp) / ours);
    remove(in);
    remove(tiny);
    return 0;
}
