/*
 * bench_ccitt_decode - the CCITT decoders beside libtiff on the same data
 * in the same run: a dense 2550 x 3300 pseudo-text page (300 dpi letter),
 * (bench_common.h) coded by libtiff's own encoder as one Group 4 strip, one Group 3
 * one-dimensional strip and one Group 3 two-dimensional strip.
 *
 * Ours: CcittDecodeG4 / CcittDecode1D (mode 3) / CcittDecode2D (mode 45)
 * over the raw strip in the memory image, each row handed over as a run
 * record to a callback that only adds up the record lengths (our rows stay
 * run records).  libtiff: TIFFReadEncodedStrip of the same strip into a
 * packed buffer, the file already open (the strip's raw bytes come from
 * the operating system's cache).  The median of several runs of each; pages
 * per second and the ratio are printed.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tiffio.h>

#include "bench_common.h"

#include "codecs/ccitt_decode.h"
#include "core/imgio.h"

constexpr int PAGE_W = 2550, PAGE_H = 3300, RUNS = 21;

/* Writes the page with libtiff (compression, T4Options) as one strip. */
static int WriteTiff(const char *path, const uint8_t *page, int stride, int compression,
                     uint32_t t4)
{
    TIFF *tif = TIFFOpen(path, "w");
    if (!tif)
        return -1;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, (uint32_t)PAGE_W);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
    if (compression == COMPRESSION_CCITTFAX3)
        TIFFSetField(tif, TIFFTAG_GROUP3OPTIONS, t4);
    for (int y = 0; y < PAGE_H; y++)
        if (TIFFWriteScanline(tif, (void *)(page + (size_t)y * stride), (uint32_t)y, 0) < 0) {
            TIFFClose(tif);
            return -1;
        }
    TIFFClose(tif);
    return 0;
}

static int64_t recordBytes;
static int CountRecord(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    (void)row, (void)context, (void)rowIndex;
    recordBytes += rowBytes;
    return 0;
}

/* One decode of the strip by ours: seconds. */
static double TimeOurs(const uint8_t *strip, uint32_t size, int decoder, uint8_t *buffer)
{
    {
        CcittParameters p;
        memset(&p, 0, sizeof p);
        p.width = PAGE_W;
        p.height = PAGE_H;
        p.fillOrder = 1;
        p.whiteIsZero = 1;
        p.mode = decoder == 4 ? 4 : decoder == 45 ? 45 : 3;
        ImgSetMemorySourceSized((void *)strip, size);
        double t0 = BenchNow();
        int result = decoder == 4    ? CcittDecodeG4(buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, CountRecord, NULL)
                     : decoder == 45 ? CcittDecode2D(buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, CountRecord, NULL)
                                     : CcittDecode1D(buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, CountRecord, NULL);
        double t = BenchNow() - t0;
        if (result < 0) {
            fprintf(stderr, "bench_ccitt_decode: our decoder failed (%d)\n", result);
            exit(1);
        }
        return t;
    }
}

/* One TIFFReadEncodedStrip of the open file: seconds. */
static double TimeLibtiff(TIFF *tif, uint8_t *out, tmsize_t outSize)
{
    double t0 = BenchNow();
    tmsize_t n = TIFFReadEncodedStrip(tif, 0, out, outSize);
    double t = BenchNow() - t0;
    if (n < 0) {
        fprintf(stderr, "bench_ccitt_decode: libtiff failed\n");
        exit(1);
    }
    return t;
}

int main(void)
{
    int stride = (PAGE_W + 7) / 8;
    uint8_t *page = static_cast<uint8_t *>(calloc((size_t)stride, PAGE_H));
    uint8_t *out = static_cast<uint8_t *>(malloc((size_t)stride * PAGE_H));
    BenchPage text = {page, PAGE_W, PAGE_H, stride};
    BenchTextPage(&text, 4242);
    TIFFSetWarningHandler(NULL);
    static const struct {
        const char *name;
        int compression;
        uint32_t t4;
        int decoder;
    } cases[] = {{"Group 4", COMPRESSION_CCITTFAX4, 0, 4},
                 {"Group 3 1-D", COMPRESSION_CCITTFAX3, 0, 3},
                 {"Group 3 2-D", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING, 45}};
    char path[64];
    snprintf(path, sizeof path, "/tmp/bench_ccitt_%d.tif", (int)(BenchNow() * 1000) % 100000);
    printf("bench_ccitt_decode: %d x %d dense pseudo-text page, median of %d runs\n", PAGE_W,
           PAGE_H, RUNS);
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i++) {
        if (WriteTiff(path, page, stride, cases[i].compression, cases[i].t4) < 0) {
            fprintf(stderr, "bench_ccitt_decode: libtiff could not write %s\n", path);
            return 1;
        }
        TIFF *tif = TIFFOpen(path, "r");
        uint64_t *counts = NULL;
        TIFFGetField(tif, TIFFTAG_STRIPBYTECOUNTS, &counts);
        uint32_t size = (uint32_t)counts[0];
        uint8_t *strip = static_cast<uint8_t *>(malloc(size + 4));
        TIFFReadRawStrip(tif, 0, strip, size);
        TIFFClose(tif);
        /* Interleaved runs, so that a busy machine slows both alike. */
        uint8_t *buffer = static_cast<uint8_t *>(malloc(CCITT_CHUNK + 500));
        tif = TIFFOpen(path, "r");
        double oursRuns[RUNS], theirRuns[RUNS];
        for (int r = 0; r < RUNS; r++) {
            oursRuns[r] = TimeOurs(strip, size, cases[i].decoder, buffer);
            theirRuns[r] = TimeLibtiff(tif, out, (tmsize_t)stride * PAGE_H);
        }
        TIFFClose(tif);
        free(buffer);
        double ours = BenchMedian(oursRuns, RUNS), theirs = BenchMedian(theirRuns, RUNS);
        printf("  %-12s %7u bytes: ours %7.1f pages/s (%.2f ms), libtiff %7.1f pages/s "
               "(%.2f ms), ratio %.2fx\n",
               cases[i].name, size, 1 / ours, ours * 1e3, 1 / theirs, theirs * 1e3,
               theirs / ours);
        free(strip);
    }
    remove(path);
    free(page);
    free(out);
    return recordBytes > 0 ? 0 : 1;
}
