/*
 * bench_tiff_read - the TIFF reader beside libtiff on the same
 * files in the same run:
 *   a 20-page dense Group 4 TIFF (2550 x 3300 text pages at 300 dpi from
 *   bench_common.h, one strip each), read page by page, and
 *   a 2000 x 1500 24-bit LZW TIFF with predictor 2 (libtiff's default strips).
 * Both files are written here with libtiff's own encoders.
 *
 * Group 4, ours: the public API, IMGLOW_decompress_bitmap of every page of
 * the open file with the caller's sinks, which copy each row's run record
 * into a page store reused from page to page (bench_record_page.h), as
 * libtiff's side reuses its buffer; for information also
 * IMG_decompress_bitmap_fd of every page into a new image, deleted again
 * (each page then also allocates and first touches its row store).
 * LZW, ours: TiffRead of the page through a file handle with sinks that only
 * add up what they are given (rows go through the row adapter: predictor,
 * R,G,B to B,G,R).  libtiff: TIFFOpen, then per page TIFFSetDirectory and
 * TIFFReadEncodedStrip of every strip into a packed buffer.  Ours and
 * libtiff taken in turn, the median of several runs; the ratio (libtiff's
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
#include "bench_record_page.h"

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

static BenchRecordPage keptPage;

/* Page p of the open file through the public API into the page store. */
static int ReadIntoPageStore(int handle, int p)
{
    return IMGLOW_decompress_bitmap(handle, 0, p, BenchRecordPageRow, &keptPage, BenchRecordPageHeader);
}

/* Page p through the public API into a new image, deleted again. */
static int ReadIntoNewImage(int handle, int p)
{
    int image = IMG_decompress_bitmap_fd(handle, 0, p);
    if (image >= 0)
        IMG_delete_bitmap(image);
    return image;
}

/* Page p through the TIFF reader itself, its rows only counted. */
static int ReadThroughTiffReader(int handle, int p)
{
    ImgSeek(handle, 0, 0);
    uint32_t startArgument = p ? (0x80000000u | (uint32_t)p) : 0;
    return TiffRead(startArgument, CountRow, NULL, CountHeader, handle) == 1 ? 0 : -1;
}

/* The time of reading every page of the file with `readPage`. */
template <int (*readPage)(int handle, int p)>
static double OursOnce(const char *path, int pages)
{
    double start = BenchNow();
    int handle = ImgOpen(path, 0);
    for (int p = 0; p < pages; p++) {
        int result = readPage(handle, p);
        if (result < 0) {
            fprintf(stderr, "bench_tiff_read: our read of %s page %d failed (%d)\n", path, p, result);
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

/* Ours and libtiff in turn; prints the medians and returns the ratio. */
static double Compare(const char *what, double (*ours)(const char *, int), const char *path, int pages)
{
    double oursRuns[RUNS], theirRuns[RUNS];
    for (int r = 0; r < RUNS; r++) {
        oursRuns[r] = ours(path, pages);
        theirRuns[r] = LibtiffOnce(path, pages);
    }
    double o = BenchMedian(oursRuns, RUNS), t = BenchMedian(theirRuns, RUNS);
    printf("%-44s ours %8.1f ms   libtiff %8.1f ms   ratio %.2fx\n", what, o * 1e3, t * 1e3, t / o);
    return t / o;
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
    double g4Ratio = Compare("20-page Group 4 TIFF, 2550 x 3300, by page", OursOnce<ReadIntoPageStore>, g4, PAGES);
    Compare("  the same into new images", OursOnce<ReadIntoNewImage>, g4, PAGES);
    Compare("2000 x 1500 24-bit LZW TIFF, predictor 2", OursOnce<ReadThroughTiffReader>, lzw, 1);
    printf("(ratio = libtiff's time / ours)  [%llu]\n", (unsigned long long)(checksum & 0xFF));
    remove(g4);
    remove(lzw);
    BenchRecordPageFree(&keptPage);
    BenchSummary("RATIO", "tiff_g4_pages", g4Ratio);
    return 0;
}
