/*
 * bench_tiff_read - the TIFF reader beside libtiff on the same
 * files in the same run:
 *   a 20-page dense Group 4 TIFF (2550 x 3300 text pages at 300 dpi from
 *   bench_common.h, one strip each), read page by page, and
 *   a 2000 x 1500 24-bit LZW TIFF with predictor 2 (libtiff's default strips).
 * Both files are written here with libtiff's own encoders.
 *
 * Ours: TiffRead of every page through a file handle, with sinks that only
 * add up what they are given (Group 4 rows stay run records; LZW rows go
 * through the row adapter: predictor, R,G,B to B,G,R).  libtiff: TIFFOpen,
 * then per page TIFFSetDirectory and TIFFReadEncodedStrip of every strip
 * into a packed buffer.  The median of several runs; the ratio (libtiff's
 * time / ours) is printed.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tiffio.h>

#include "bench_common.h"

#include "formats/tiff_read.h"
#include "core/imgio.h"

constexpr int PAGE_W = 2550, PAGE_H = 3300, PAGES = 20, PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 9;

static uint32_t seed = 12345;

static int WriteG4File(const char *path)
{
    TIFF *t = TIFFOpen(path, "w");
    if (!t)
        return -1;
    int stride = (PAGE_W + 7) / 8;
    uint8_t *page = static_cast<uint8_t *>(malloc((size_t)stride * PAGE_H));
    for (int p = 0; p < PAGES; p++) {
        BenchPage text = {page, PAGE_W, PAGE_H, stride};
        BenchTextPage(&text, 1000u + (uint32_t)p);
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, PAGE_W);
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, PAGE_H);
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, PAGE_H);
        TIFFSetField(t, TIFFTAG_XRESOLUTION, 300.0);
        TIFFSetField(t, TIFFTAG_YRESOLUTION, 300.0);
        TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
        TIFFWriteEncodedStrip(t, 0, page, (tmsize_t)stride * PAGE_H);
        TIFFWriteDirectory(t);
    }
    free(page);
    TIFFClose(t);
    return 0;
}

static int WriteLzwFile(const char *path)
{
    TIFF *t = TIFFOpen(path, "w");
    if (!t)
        return -1;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, PHOTO_W);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, PHOTO_H);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    TIFFSetField(t, TIFFTAG_PREDICTOR, 2);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    uint8_t *row = static_cast<uint8_t *>(malloc((size_t)PHOTO_W * 3));
    for (int y = 0; y < PHOTO_H; y++) {
        for (int x = 0; x < PHOTO_W; x++) {
            /* smooth gradients with a little noise, like a photograph */
            row[3 * x] = (uint8_t)((x * 255) / PHOTO_W + (BenchRandom(&seed) & 3));
            row[3 * x + 1] = (uint8_t)((y * 255) / PHOTO_H + (BenchRandom(&seed) & 3));
            row[3 * x + 2] = (uint8_t)(((x + y) * 128) / (PHOTO_W + PHOTO_H) + ((x / 50 + y / 50) & 1) * 60);
        }
        TIFFWriteScanline(t, row, (uint32_t)y, 0);
    }
    free(row);
    TIFFClose(t);
    return 0;
}

static uint64_t checksum;

static int CountHeader(const uint8_t *header, void *context)
{
    (void)context;
    checksum += header[4];
    return 1;
}

static int CountRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    (void)context;
    checksum += (uint64_t)rowBytes + row[0] + (uint64_t)rowIndex;
    return 0;
}

static double OursOnce(const char *path, int pages)
{
    double start = BenchNow();
    int handle = ImgOpen(path, 0);
    for (int p = 0; p < pages; p++) {
        ImgSeek(handle, 0, 0);
        uint32_t startArgument = p ? (0x80000000u | (uint32_t)p) : 0;
        if (TiffRead(startArgument, CountRow, NULL, CountHeader, handle) != 1) {
            fprintf(stderr, "bench_tiff_read: our read of %s page %d failed\n", path, p);
            exit(1);
        }
    }
    ImgClose(handle);
    return BenchNow() - start;
}

static double LibtiffOnce(const char *path, int pages)
{
    double start = BenchNow();
    TIFF *t = TIFFOpen(path, "r");
    tmsize_t size = TIFFStripSize(t) * 2;
    uint8_t *buffer = static_cast<uint8_t *>(malloc((size_t)size));
    for (int p = 0; p < pages; p++) {
        TIFFSetDirectory(t, (uint16_t)p);
        tmsize_t stripSize = TIFFStripSize(t);
        if (stripSize > size) {
            size = stripSize;
            buffer = static_cast<uint8_t *>(realloc(buffer, (size_t)size));
        }
        for (uint32_t s = 0; s < TIFFNumberOfStrips(t); s++) {
            if (TIFFReadEncodedStrip(t, s, buffer, stripSize) < 0) {
                fprintf(stderr, "bench_tiff_read: libtiff's read of %s failed\n", path);
                exit(1);
            }
            checksum += buffer[0];
        }
    }
    free(buffer);
    TIFFClose(t);
    return BenchNow() - start;
}

static void Compare(const char *what, const char *path, int pages)
{
    double ours[RUNS], theirs[RUNS];
    for (int r = 0; r < RUNS; r++) {
        ours[r] = OursOnce(path, pages);
        theirs[r] = LibtiffOnce(path, pages);
    }
    double o = BenchMedian(ours, RUNS), t = BenchMedian(theirs, RUNS);
    printf("%-44s ours %8.1f ms   libtiff %8.1f ms   ratio %.2fx\n", what, o * 1e3, t * 1e3, t / o);
}

int main(void)
{
    const char *dir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char g4[512], lzw[512];
    snprintf(g4, sizeof g4, "%s/bench_tiff_read_g4.tif", dir);
    snprintf(lzw, sizeof lzw, "%s/bench_tiff_read_lzw.tif", dir);
    TIFFSetWarningHandler(NULL);
    if (WriteG4File(g4) < 0 || WriteLzwFile(lzw) < 0) {
        fprintf(stderr, "bench_tiff_read: cannot write the test files in %s\n", dir);
        return 1;
    }
    printf("bench_tiff_read: TIFF reader beside libtiff\n");
    Compare("20-page Group 4 TIFF, 2550 x 3300, by page", g4, PAGES);
    Compare("2000 x 1500 24-bit LZW TIFF, predictor 2", lzw, 1);
    printf("(ratio = libtiff's time / ours; targets: >= 2 on Group 4, >= 1 on LZW)  [%llu]\n",
           (unsigned long long)(checksum & 0xFF));
    remove(g4);
    remove(lzw);
    return 0;
}
