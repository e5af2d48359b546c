/*
 * bench_ccitt_decode - the CCITT decoders beside libtiff on the same data
 * in the same run: a dense 2550 x 3300 pseudo-text page (300 dpi letter,
 * bench_common.h) coded by libtiff's own encoder as one Group 4 strip, one
 * Group 3 one-dimensional strip and one Group 3 two-dimensional strip.
 *
 * Both sides turn the coded strip into the decoded page in memory the
 * caller holds, each in its library's own form.  Ours: CcittDecodeG4 /
 * CcittDecode1D (mode 3) / CcittDecode2D (mode 45) over the raw strip in the
 * memory image, every row's run record copied into a page store reused from
 * run to run (bench_record_page.h).  libtiff: TIFFReadEncodedStrip of the
 * same strip into a reused packed buffer, the file already open (the strip's
 * raw bytes come from the operating system's cache).  Ours and libtiff taken
 * in turn, the median of several runs of each; the ratio is libtiff's time /
 * ours.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tiffio.h>

#include "bench_common.h"
#include "bench_record_page.h"

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

/* The strip being decoded, the decoder for it, and both sides' output. */
typedef struct Case {
    const uint8_t *strip;
    uint32_t size;
    int decoder; /* 4, 3 or 45: the CCITT mode */
    uint8_t *buffer;
    BenchRecordPage page;
    TIFF *tif;
    uint8_t *out;
    tmsize_t outSize;
} Case;

/* One decode of the strip by ours into the page store. */
static void Ours(void *context)
{
    Case *c = static_cast<Case *>(context);
    CcittParameters p;
    memset(&p, 0, sizeof p);
    p.width = PAGE_W;
    p.height = PAGE_H;
    p.fillOrder = 1;
    p.whiteIsZero = 1;
    p.mode = c->decoder;
    ImgSetMemorySourceSized((void *)c->strip, c->size);
    int result = BenchRecordPageStart(&c->page, PAGE_H);
    ImgRowSink sink = BenchRecordPageRow;
    if (result >= 0)
        result = p.mode == 4    ? CcittDecodeG4(c->buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, sink, &c->page)
                 : p.mode == 45 ? CcittDecode2D(c->buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, sink, &c->page)
                                : CcittDecode1D(c->buffer, PAGE_H, 0, &p, IMG_MEMORY_HANDLE, sink, &c->page);
    if (result < 0) {
        fprintf(stderr, "bench_ccitt_decode: our decoder failed (%d)\n", result);
        exit(1);
    }
}

/* One TIFFReadEncodedStrip of the open file. */
static void Libtiff(void *context)
{
    const Case *c = static_cast<const Case *>(context);
    if (TIFFReadEncodedStrip(c->tif, 0, c->out, c->outSize) < 0) {
        fprintf(stderr, "bench_ccitt_decode: libtiff failed\n");
        exit(1);
    }
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
        const char *name, *summary;
        int compression;
        uint32_t t4;
        int decoder;
    } cases[] = {{"Group 4", "g4_decode", COMPRESSION_CCITTFAX4, 0, 4},
                 {"Group 3 1-D", "g3_1d_decode", COMPRESSION_CCITTFAX3, 0, 3},
                 {"Group 3 2-D", "g3_2d_decode", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING, 45}};
    const size_t count = sizeof cases / sizeof cases[0];
    double ratios[count], g4Ms = 0;
    char path[64];
    snprintf(path, sizeof path, "/tmp/bench_ccitt_%d.tif", (int)(BenchNow() * 1000) % 100000);
    printf("bench_ccitt_decode: %d x %d dense pseudo-text page into memory, median of %d "
           "interleaved runs\n",
           PAGE_W, PAGE_H, RUNS);
    for (size_t i = 0; i < count; i++) {
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
        Case c = {strip, size, cases[i].decoder, static_cast<uint8_t *>(malloc(CCITT_CHUNK + 500)),
                  {}, tif, out, (tmsize_t)stride * PAGE_H};
        double ours, theirs;
        BenchInterleaved(Ours, Libtiff, &c, RUNS, &ours, &theirs);
        TIFFClose(tif);
        free(c.buffer);
        BenchRecordPageFree(&c.page);
        printf("  %-12s %7u bytes: ours %7.1f pages/s (%.2f ms), libtiff %7.1f pages/s "
               "(%.2f ms), ratio %.2fx\n",
               cases[i].name, size, 1 / ours, ours * 1e3, 1 / theirs, theirs * 1e3,
               theirs / ours);
        ratios[i] = theirs / ours;
        if (cases[i].decoder == 4)
            g4Ms = ours * 1e3;
        free(strip);
    }
    remove(path);
    free(page);
    free(out);
    for (size_t i = 0; i < count; i++)
        BenchSummary("RATIO", cases[i].summary, ratios[i]);
    BenchSummary("MS", "g4_page_decode", g4Ms);
    return 0;
}
