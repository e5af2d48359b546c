/*
 * bench_palette - palette selection (color/palette) beside
 * ImageMagick on the same picture in the same run: a 2000 x 1500 24-bit
 * photographic-like picture (smooth gradients, soft discs and bars, grain),
 * made here and written as a BMP for ImageMagick.
 *
 *   IMG_octree_color(256, 8 bits)  vs  convert in.bmp -dither FloydSteinberg -colors 256 out.bmp
 *   IMG_mediancut_color            vs  convert in.bmp -colors 256 out.bmp
 *
 * Ours is timed in memory around the call, each run on a fresh copy made
 * outside the timing.  ImageMagick is /usr/bin/convert (Debian's), timed
 * with the wall clock around the whole command; its start-up, BMP reading
 * and writing are estimated by a trivial convert of a 1 x 1 BMP and of the
 * picture itself without quantisation, and the ratio is printed against the
 * whole command and against the command less that plain convert of the same
 * picture.  The octree and its three ImageMagick commands are timed in turn,
 * 9 runs each, and their medians compared; the median cut against 3 runs of
 * ImageMagick.  The summary line is the octree's ratio less start-up and
 * I/O.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bench_common.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 9, MAGICK_COLORS_RUNS = 3;

static const char magick[] = "/usr/bin/convert";

static uint32_t seed = 2024;
static uint8_t Byte(double v)
{
    return (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v + 0.5);
}

/* A sky-to-ground gradient, a few soft coloured discs and bars, and grain. */
static uint8_t *Photo(uint32_t *size)
{
    uint8_t *dib = BenchNewDib(PHOTO_W, PHOTO_H, 24, 96, size);
    if (!dib)
        return NULL;
    struct { double x, y, r, cr, cg, cb; } discs[12];
    for (int i = 0; i < 12; i++) {
        discs[i].x = BenchRandom(&seed) % PHOTO_W;
        discs[i].y = BenchRandom(&seed) % PHOTO_H;
        discs[i].r = 80 + BenchRandom(&seed) % 300;
        discs[i].cr = BenchRandom(&seed) % 256, discs[i].cg = BenchRandom(&seed) % 256, discs[i].cb = BenchRandom(&seed) % 256;
    }
    uint32_t stride = (uint32_t)DibStride(PHOTO_W, 24);
    for (int32_t y = 0; y < PHOTO_H; y++) {
        uint8_t *row = dib + DIB_HEADER_SIZE + (size_t)(PHOTO_H - 1 - y) * stride;
        double t = (double)y / PHOTO_H;
        for (int32_t x = 0; x < PHOTO_W; x++) {
            double s = (double)x / PHOTO_W;
            double r = 60 + 150 * t + 30 * sin(6.0 * s);
            double g = 110 + 90 * (1 - t) * s + 40 * cos(4.0 * t + 3.0 * s);
            double b = 230 - 170 * t + 20 * sin(9.0 * s * t);
            for (int i = 0; i < 12; i++) {
                double dx = x - discs[i].x, dy = y - discs[i].y;
                double d2 = (dx * dx + dy * dy) / (discs[i].r * discs[i].r);
                if (d2 < 1) {
                    double a = 1 - d2 * d2;
                    r += a * (discs[i].cr - r), g += a * (discs[i].cg - g), b += a * (discs[i].cb - b);
                }
            }
            if (((x / 160) + (y / 220)) % 7 == 0) /* bars with hard edges */
                r = 0.5 * r + 100, g *= 0.6;
            double grain = (double)(BenchRandom(&seed) % 17) - 8;
            row[3 * x] = Byte(b + grain);
            row[3 * x + 1] = Byte(g + grain);
            row[3 * x + 2] = Byte(r + grain);
        }
    }
    return dib;
}

/* Ours: the time of `op` on a fresh copy of `dib`, or -1. */
static double TimeOnce(const uint8_t *dib, uint32_t size, int octree, int32_t *made)
{
    uint8_t *copy = static_cast<uint8_t *>(ImgAlloc(size));
    if (!copy)
        return -1;
    memcpy(copy, dib, size);
    int32_t handle = IMG_create_handle_keep(copy);
    if (handle < 0)
        return -1;
    double t0 = BenchNow();
    int32_t result = octree ? IMG_octree_color(handle, 8, NULL, 256) : IMG_mediancut_color(handle);
    double time = BenchNow() - t0;
    IMG_delete_bitmap_keep(handle); /* frees the new block, leaves the copy */
    ImgFree(copy);
    if (result < 0) {
        fprintf(stderr, "bench_palette: operation failed: %d\n", (int)result);
        return -1;
    }
    *made = result;
    return time;
}

/* The time of one run of a shell command, or -1 when it fails. */
static double TimeCommand(const char *command)
{
    double t0 = BenchNow();
    return system(command) == 0 ? BenchNow() - t0 : -1;
}

static int SaveBmp(const uint8_t *dib, uint32_t size, const char *path)
{
    uint8_t *copy = static_cast<uint8_t *>(ImgAlloc(size));
    if (!copy)
        return -1;
    memcpy(copy, dib, size);
    int32_t handle = IMG_create_handle_keep(copy);
    int result = handle < 0 ? handle : IMG_save_bitmap(handle, path, IMG_TYPE_BMP);
    if (handle >= 0)
        IMG_delete_bitmap_keep(handle);
    ImgFree(copy);
    return result;
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char in[512], tiny[512], out[600], command[2048];
    snprintf(in, sizeof in, "%s/bench_palette_photo.bmp", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_palette_1x1.bmp", tmp);
    snprintf(out, sizeof out, "%s/bench_palette_out.bmp", tmp);

    uint32_t photoSize, tinySize;
    uint8_t *photo = Photo(&photoSize), *one = BenchNewDib(1, 1, 24, 96, &tinySize);
    if (!photo || !one || SaveBmp(photo, photoSize, in) < 0 || SaveBmp(one, tinySize, tiny) < 0) {
        fprintf(stderr, "bench_palette: cannot make the pictures\n");
        return 1;
    }
    printf("bench_palette: %d x %d 24-bit picture; medians of %d runs in turn (wall clock)\n", PHOTO_W,
           PHOTO_H, RUNS);
    snprintf(command, sizeof command, "%s -version >/dev/null 2>&1", magick);
    int haveMagick = system(command) == 0;
    char startUpCommand[2048], plainCommand[2048], fsCommand[2048];
    snprintf(startUpCommand, sizeof startUpCommand, "%s '%s' '%s' >/dev/null 2>&1", magick, tiny, out);
    snprintf(plainCommand, sizeof plainCommand, "%s '%s' '%s' >/dev/null 2>&1", magick, in, out);
    snprintf(fsCommand, sizeof fsCommand, "%s '%s' -dither FloydSteinberg -colors 256 '%s' >/dev/null 2>&1",
             magick, in, out);
    double octree[RUNS], fixed[RUNS], startUp[RUNS], plain[RUNS], magickFs[RUNS];
    int32_t madeOctree = 0, madeFixed = 0;
    for (int run = 0; run < RUNS; run++) {
        octree[run] = TimeOnce(photo, photoSize, 1, &madeOctree);
        fixed[run] = TimeOnce(photo, photoSize, 0, &madeFixed);
        if (octree[run] < 0 || fixed[run] < 0)
            return 1;
        if (!haveMagick)
            continue;
        startUp[run] = TimeCommand(startUpCommand);
        plain[run] = TimeCommand(plainCommand);
        magickFs[run] = TimeCommand(fsCommand);
        if (startUp[run] < 0 || plain[run] < 0 || magickFs[run] < 0) {
            printf("  ImageMagick: a command failed\n");
            return 1;
        }
    }
    double o = BenchMedian(octree, RUNS), f = BenchMedian(fixed, RUNS);
    printf("  IMG_octree_color (256, 8 bits)  %8.2f ms  (%d entries)\n", o * 1e3, (int)madeOctree);
    printf("  IMG_mediancut_color             %8.2f ms\n", f * 1e3);
    if (!haveMagick) {
        printf("  ImageMagick (%s): not installed\n", magick);
        return 0;
    }
    double su = BenchMedian(startUp, RUNS), pl = BenchMedian(plain, RUNS), fs = BenchMedian(magickFs, RUNS);
    snprintf(command, sizeof command, "%s '%s' -colors 256 '%s' >/dev/null 2>&1", magick, in, out);
    double magickColors = BenchTimeCommand(command, MAGICK_COLORS_RUNS);
    if (magickColors < 0) {
        printf("  ImageMagick: a command failed\n");
        return 1;
    }
    printf("  convert 1x1.bmp out.bmp (start-up)          %8.2f ms\n", su * 1e3);
    printf("  convert in.bmp out.bmp (start-up and I/O)   %8.2f ms\n", pl * 1e3);
    printf("  convert -dither FloydSteinberg -colors 256  %8.2f ms\n", fs * 1e3);
    printf("  convert -colors 256 (median of %d)           %8.2f ms\n", MAGICK_COLORS_RUNS, magickColors * 1e3);
    printf("  ratio ImageMagick/ours, octree vs -dither FloydSteinberg -colors 256:"
           " %.2f whole, %.2f less start-up, %.2f less start-up and I/O\n",
           fs / o, (fs - su) / o, (fs - pl) / o);
    printf("  ratio ImageMagick/ours, mediancut vs -colors 256:"
           " %.2f whole, %.2f less start-up, %.2f less start-up and I/O\n",
           magickColors / f, (magickColors - su) / f, (magickColors - pl) / f);
    remove(out);
    ImgFree(photo);
    ImgFree(one);
    BenchSummary("RATIO", "octree", (fs - pl) / o);
    return 0;
}
