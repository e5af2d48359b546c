/*
 * bench_cals - the CALS reader on a dense fax page beside ImageMagick, our
 * own Group 4 TIFF read of the same page and a plain memcpy of the page.
 *
 * The page is the 2550 x 3300 text page of bench_common.h (300 dpi), saved
 * here through our writers as CALS (save type 18) and as a Group 4 TIFF
 * (save type 10).  Ours: IMG_decompress_bitmap of each file (the rows stay
 * run records), the median of several runs, the image deleted outside the
 * timing.  memcpy: the packed page (stride x height bytes), the median of
 * many copies.  ImageMagick: /usr/bin/convert file.cal pbm:/dev/null with the
 * wall clock, less the same command on a 8 x 1 CALS file (its start-up).
 * No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bench_common.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int PAGE_W = 2550, PAGE_H = 3300, RUNS = 9, MAGICK_RUNS = 5;


/* A 1-bit DIB (entry 0 black, entry 1 white) of the text page, or of a
 * white w x h page when `text` is 0; saved as `type` at `path`. */
static int SavePage(int w, int h, int text, const char *path, int32_t type)
{
    uint32_t stride = (uint32_t)DibStride((uint32_t)w, 1), packed = ((uint32_t)w + 7) / 8;
    uint32_t size = DIB_HEADER_SIZE + 8 + stride * (uint32_t)h;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(size));
    uint8_t *page = static_cast<uint8_t *>(malloc((size_t)packed * (size_t)h));
    if (!block || !page)
        return -1;
    memset(block, 0, size);
    BenchPage p = {page, w, h, (int)packed};
    if (text)
        BenchTextPage(&p, 4242);
    else
        memset(page, 0, (size_t)packed * (size_t)h);
    BITMAPINFOHEADER header = {};
    header.biSize = 40;
    header.biWidth = w;
    header.biHeight = h;
    header.biPlanes = 1;
    header.biBitCount = 1;
    header.biSizeImage = stride * (uint32_t)h;
    header.biXPelsPerMeter = header.biYPelsPerMeter = 300;
    memcpy(block, &header, sizeof header);
    memset(block + DIB_HEADER_SIZE + 4, 255, 3);
    for (int y = 0; y < h; y++) { /* the page's 1 is black: bit 0 here */
        uint8_t *row = block + DIB_HEADER_SIZE + 8 + (size_t)(h - 1 - y) * stride;
        for (uint32_t i = 0; i < packed; i++)
            row[i] = (uint8_t)~page[(size_t)y * packed + i];
    }
    free(page);
    int32_t handle = IMG_create_handle_keep(block);
    int result = handle < 0 ? handle : IMG_save_bitmap(handle, path, type);
    if (handle >= 0)
        IMG_delete_bitmap_keep(handle);
    ImgFree(block);
    return result;
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char cal[512], tif[512], tiny[512], command[2048];
    snprintf(cal, sizeof cal, "%s/bench_cals_page.cal", tmp);
    snprintf(tif, sizeof tif, "%s/bench_cals_page.tif", tmp);
    snprintf(tiny, sizeof tiny, "%s/bench_cals_tiny.cal", tmp);
    if (SavePage(PAGE_W, PAGE_H, 1, cal, IMG_TYPE_CALS) < 0 ||
        SavePage(PAGE_W, PAGE_H, 1, tif, IMG_TYPE_TIFF_G4) < 0 ||
        SavePage(8, 1, 0, tiny, IMG_TYPE_CALS) < 0) {
        fprintf(stderr, "bench_cals: cannot write the test files in %s\n", tmp);
        return 1;
    }
    printf("bench_cals: %d x %d dense text page; ours median of %d, ImageMagick median of %d "
           "(wall clock)\n", PAGE_W, PAGE_H, RUNS, MAGICK_RUNS);
    double ours = BenchTimeDecode(cal, RUNS), tiff = BenchTimeDecode(tif, RUNS);
    double copy = BenchTimeMemcpy((size_t)(PAGE_W + 7) / 8 * PAGE_H, 16);
    if (ours < 0 || tiff < 0 || copy < 0) {
        fprintf(stderr, "bench_cals: a decode failed\n");
        return 1;
    }
    printf("  IMG_decompress_bitmap, CALS               %8.2f ms\n", ours * 1e3);
    printf("  IMG_decompress_bitmap, Group 4 TIFF       %8.2f ms\n", tiff * 1e3);
    printf("  memcpy of the packed page (%d bytes) %8.3f ms\n", (PAGE_W + 7) / 8 * PAGE_H,
           copy * 1e3);
    printf("  ratio Group 4 TIFF / CALS: %.2f;  CALS / memcpy: %.1f\n", tiff / ours, ours / copy);

    snprintf(command, sizeof command, "%s -version >/dev/null 2>&1", BENCH_MAGICK);
    if (system(command) != 0)
        printf("  ImageMagick (%s): not installed\n", BENCH_MAGICK);
    else
        BenchPrintMagickRatio(cal, tiny, ours, MAGICK_RUNS);
    printf("(targets: ImageMagick less start-up >= 5x ours; CALS at the speed of the Group 4 TIFF "
           "read)\n");
    remove(cal);
    remove(tif);
    remove(tiny);
    return 0;
}
