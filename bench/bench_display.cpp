/*
 * bench_display - a repaint through IMG_display_bitmap into a portable
 * device context, beside ImageMagick scaling the same pictures:
 *   the dense 2550 x 3300 text page held run-coded, into 638 x 825, in
 *   mode 0 (nearest neighbour; `convert -sample`) and in mode 2 (grey from
 *   coverage, IMGLOW_set_alias(2); `convert -scale`, box averaging);
 *   a 2000 x 1500 24-bit picture into 1000 x 750 in mode 0 (`convert
 *   -sample`, and `-resize` for the filter a viewer would use).
 *
 * Ours is the median of several repaints of the same context, in memory.
 * ImageMagick is the whole command on the picture written as PBM / PPM,
 * less its start-up and file I/O measured by the same command on a 1 x 1
 * file; its output goes to /dev/null.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bench_common.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int PAGE_W = 2550, PAGE_H = 3300, PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 15, MAGICK_RUNS = 5;

/* bench_common.h's text page, 1 = white as the library holds pages, and
 * the same page as PBM (1 = black). */
static uint8_t *TextPage(const char *pbm)
{
    uint8_t *dib = BenchNewDib(PAGE_W, PAGE_H, 1, 0, NULL);
    int stride = (PAGE_W + 7) / 8;
    uint8_t *rows = static_cast<uint8_t *>(malloc((size_t)stride * PAGE_H));
    FILE *f = fopen(pbm, "wb");
    if (!dib || !rows || !f) {
        free(rows);
        if (f)
            fclose(f);
        return NULL;
    }
    BenchPage text = {rows, PAGE_W, PAGE_H, stride};
    BenchTextPage(&text, 12345);
    fprintf(f, "P4\n%d %d\n", PAGE_W, PAGE_H);
    fwrite(rows, 1, (size_t)stride * PAGE_H, f);
    fclose(f);
    for (int32_t r = 0; r < PAGE_H; r++) {
        uint8_t *row = BenchDibRow(dib, PAGE_W, PAGE_H, 1, r);
        for (int i = 0; i < stride; i++)
            row[i] = (uint8_t)~rows[(size_t)r * stride + i];
    }
    free(rows);
    return dib;
}

/* A smooth picture with some noise, and the same as PPM. */
static uint8_t *Photo(const char *ppm)
{
    uint8_t *dib = BenchNewDib(PHOTO_W, PHOTO_H, 24, 0, NULL);
    FILE *f = fopen(ppm, "wb");
    uint8_t *line = static_cast<uint8_t *>(malloc((size_t)PHOTO_W * 3));
    if (!dib || !f || !line) {
        free(line);
        if (f)
            fclose(f);
        return NULL;
    }
    uint32_t seed = 99;
    fprintf(f, "P6\n%d %d\n255\n", PHOTO_W, PHOTO_H);
    for (int32_t y = 0; y < PHOTO_H; y++) {
        uint8_t *row = BenchDibRow(dib, PHOTO_W, PHOTO_H, 24, y);
        for (int32_t x = 0; x < PHOTO_W; x++) {
            row[3 * x] = (uint8_t)(x * 255 / PHOTO_W);
            row[3 * x + 1] = (uint8_t)(y * 255 / PHOTO_H);
            row[3 * x + 2] = (uint8_t)((x ^ y) + (BenchRandom(&seed) & 15));
            for (int k = 0; k < 3; k++)
                line[3 * x + k] = row[3 * x + 2 - k];
        }
        fwrite(line, 1, (size_t)PHOTO_W * 3, f);
    }
    free(line);
    fclose(f);
    return dib;
}

/* The median time of a repaint of `handle` into a w x h portable context. */
static double TimeRepaint(int32_t handle, int32_t w, int32_t h, int32_t alias)
{
    void *dc = NULL;
    if (IMGLOW_create_dc(w, h, 0, &dc) != 0 || IMGLOW_set_alias(alias) != 0)
        return -1;
    double times[RUNS];
    for (int run = 0; run < RUNS; run++) {
        double t0 = BenchNow();
        int result = IMG_display_bitmap(handle, dc, 0, 0, w, h);
        times[run] = BenchNow() - t0;
        if (result != 0) {
            fprintf(stderr, "bench_display: IMG_display_bitmap: %d\n", result);
            return -1;
        }
    }
    IMGLOW_delete_dc(dc);
    IMGLOW_set_alias(0);
    return BenchMedian(times, RUNS);
}

static void Report(const char *what, double ours, const char *file, const char *operation, const char *tiny)
{
    char command[1024], startUp[1024];
    snprintf(command, sizeof command, BENCH_MAGICK " '%s' %s ppm:/dev/null >/dev/null 2>&1", file, operation);
    snprintf(startUp, sizeof startUp, BENCH_MAGICK " '%s' ppm:/dev/null >/dev/null 2>&1", tiny);
    printf("%-28s ours %7.2f ms", what, ours * 1e3);
    double theirs = BenchTimeCommand(command, MAGICK_RUNS), base = BenchTimeCommand(startUp, MAGICK_RUNS);
    if (theirs < 0 || base < 0) {
        printf("   ImageMagick: command failed or not installed\n");
        return;
    }
    printf("   convert %s %7.2f ms whole, %7.2f ms less start-up: ratio %.1f\n", operation, theirs * 1e3,
           (theirs - base) * 1e3, (theirs - base) / ours);
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char pbm[512], ppm[512], tiny[512];
    snprintf(pbm, sizeof pbm, "%s/bench_display_page.pbm", tmp);
    snprintf(ppm, sizeof ppm, "%s/bench_display_photo.ppm", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_display_tiny.pbm", tmp);
    FILE *f = fopen(tiny, "wb");
    if (f) {
        fputs("P1\n1 1\n0\n", f);
        fclose(f);
    }
    uint8_t *page = TextPage(pbm), *photo = Photo(ppm);
    int32_t pageHandle = page ? IMG_create_handle_keep(page) : -1;
    int32_t photoHandle = photo ? IMG_create_handle_keep(photo) : -1;
    if (pageHandle < 0 || photoHandle < 0 || IMG_dib_to_runs(pageHandle) != 0) {
        fprintf(stderr, "bench_display: cannot make the pictures\n");
        return 1;
    }
    printf("bench_display: %d x %d page held run-coded into 638 x 825, %d x %d 24-bit picture "
           "into 1000 x 750; ours median of %d repaints, ImageMagick median of %d\n",
           PAGE_W, PAGE_H, PHOTO_W, PHOTO_H, RUNS, MAGICK_RUNS);
    double t = TimeRepaint(pageHandle, 638, 825, 0);
    if (t > 0)
        Report("page, mode 0", t, pbm, "-sample 638x825!", tiny);
    t = TimeRepaint(pageHandle, 638, 825, 2);
    if (t > 0)
        Report("page, mode 2 (grey)", t, pbm, "-scale 638x825!", tiny);
    t = TimeRepaint(photoHandle, 1000, 750, 0);
    if (t > 0) {
        Report("picture, mode 0", t, ppm, "-sample 1000x750!", tiny);
        Report("", t, ppm, "-resize 1000x750!", tiny);
    }
    IMG_delete_bitmap(pageHandle); /* frees the coded store; the page's block stays ours */
    IMG_delete_bitmap_keep(photoHandle);
    ImgFree(page);
    ImgFree(photo);
    remove(pbm);
    remove(ppm);
    remove(tiny);
    return 0;
}
