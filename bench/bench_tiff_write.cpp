/*
 * bench_tiff_write - the TIFF writer: writing a dense 2550 x 3300 fax page as a
 * Group 4 TIFF with our writer beside libtiff, on the same page in the same
 * run.
 *
 * The page is text-like: lines of small glyph blocks with ragged edges, so
 * that nearly every row changes colour many times (a dense page).  Ours:
 * IMGLOW_save_bitmap of save type 51 (Group 4, most significant bit first,
 * like libtiff's default FillOrder) and type 10 (least significant bit first)
 * into a file, rows served from a packed buffer.  libtiff: TIFFOpen,
 * COMPRESSION_CCITTFAX4, PHOTOMETRIC_MINISWHITE, one strip written with
 * TIFFWriteEncodedStrip from the same page (inverted beforehand, outside the
 * timing: libtiff's 0 is white, ours 1).  Both write to a file in the
 * temporary directory; the median of several runs is printed with the ratio
 * libtiff time / our time (above 1: we are faster).  No timing is asserted.
 * Built with libtiff when CMake finds it through pkg-config; otherwise only
 * our time is printed.
 */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bench_common.h"
#include "core/contracts.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#ifdef TRNW_HAVE_LIBTIFF
#include <tiffio.h>
#endif

constexpr int PAGE_W = 2550, PAGE_H = 3300, ROW_BYTES = (PAGE_W + 7) / 8, RUNS = 7;

/* bench_common.h's text page, 1 = white, top row first. */
static uint8_t *MakePage(void)
{
    uint8_t *page = static_cast<uint8_t *>(malloc((size_t)ROW_BYTES * PAGE_H));
    if (!page)
        return NULL;
    BenchPage text = {page, PAGE_W, PAGE_H, ROW_BYTES};
    BenchTextPage(&text, 4242);
    for (size_t i = 0; i < (size_t)ROW_BYTES * PAGE_H; i++)
        page[i] = (uint8_t)~page[i];
    return page;
}

static const uint8_t *pageRows;

static int32_t PageRows(void *context, uint8_t *buffer, int32_t rowIndex, int32_t rowBytes)
{
    (void)context;
    memcpy(buffer, pageRows + (size_t)rowIndex * ROW_BYTES, (size_t)rowBytes);
    return 0;
}

/* Ours: one save of `type` into a fresh file; its size, or a negative code. */
static int64_t SaveOurs(const char *path, int32_t type)
{
    uint8_t header[IMG_HEADER_BLOCK_SIZE] = {};
    BITMAPINFOHEADER h = {};
    h.biSize = 40;
    h.biWidth = PAGE_W;
    h.biHeight = PAGE_H;
    h.biPlanes = 1;
    h.biBitCount = 1;
    h.biXPelsPerMeter = h.biYPelsPerMeter = 300;
    memcpy(header, &h, sizeof h);
    memset(header + 44, 255, 3); /* entry 1 white */
    int file = ImgOpen(path, 2);
    if (file < 0)
        return IMG_ERR_CREATE;
    int32_t result = IMGLOW_save_bitmap(file, header, type, PageRows, NULL);
    int64_t size = ImgFileSize(file);
    ImgClose(file);
    return result < 0 ? result : size;
}

static double TimeOurs(const char *path, int32_t type, int64_t *size)
{
    double times[RUNS];
    for (int r = 0; r < RUNS; r++) {
        double t0 = BenchNow();
        *size = SaveOurs(path, type);
        times[r] = BenchNow() - t0;
        if (*size < 0)
            return -1;
    }
    return BenchMedian(times, RUNS);
}

#ifdef TRNW_HAVE_LIBTIFF
static int64_t SaveLibtiff(const char *path, const uint8_t *inverted)
{
    TIFF *tif = TIFFOpen(path, "w");
    if (!tif)
        return -1;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, (uint32_t)PAGE_W);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    tmsize_t n = TIFFWriteEncodedStrip(tif, 0, (void *)inverted, (tmsize_t)ROW_BYTES * PAGE_H);
    TIFFClose(tif);
    if (n < 0)
        return -1;
    FILE *f = fopen(path, "rb");
    if (!f)
        return -1;
    fseek(f, 0, SEEK_END);
    int64_t size = ftell(f);
    fclose(f);
    return size;
}

static double TimeLibtiff(const char *path, const uint8_t *inverted, int64_t *size)
{
    double times[RUNS];
    for (int r = 0; r < RUNS; r++) {
        double t0 = BenchNow();
        *size = SaveLibtiff(path, inverted);
        times[r] = BenchNow() - t0;
        if (*size < 0)
            return -1;
    }
    return BenchMedian(times, RUNS);
}
#endif

int main(void)
{
    uint8_t *page = MakePage();
    if (!page)
        return 1;
    pageRows = page;
    const char *dir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char ours[1024], theirs[1024];
    snprintf(ours, sizeof ours, "%s/bench_tiff_write_ours.tif", dir);
    snprintf(theirs, sizeof theirs, "%s/bench_tiff_write_libtiff.tif", dir);

    int64_t size51, size10;
    double t51 = TimeOurs(ours, IMG_TYPE_TIFF_51, &size51);
    double t10 = TimeOurs(ours, IMG_TYPE_TIFF_G4, &size10);
    if (t51 < 0 || t10 < 0) {
        fprintf(stderr, "bench_tiff_write: our save failed\n");
        return 1;
    }
    printf("Group 4 TIFF, dense %d x %d page (median of %d)\n", PAGE_W, PAGE_H, RUNS);
    printf("  trnw type 51 (msb first): %8.2f ms, %" PRId64 " bytes\n", t51 * 1e3, size51);
    printf("  trnw type 10 (lsb first): %8.2f ms, %" PRId64 " bytes\n", t10 * 1e3, size10);
#ifdef TRNW_HAVE_LIBTIFF
    uint8_t *inverted = static_cast<uint8_t *>(malloc((size_t)ROW_BYTES * PAGE_H));
    if (!inverted)
        return 1;
    for (size_t i = 0; i < (size_t)ROW_BYTES * PAGE_H; i++)
        inverted[i] = (uint8_t)~page[i];
    TIFFSetWarningHandler(NULL);
    int64_t sizeLib;
    double tl = TimeLibtiff(theirs, inverted, &sizeLib);
    free(inverted);
    if (tl < 0) {
        fprintf(stderr, "bench_tiff_write: libtiff failed\n");
        return 1;
    }
    printf("  libtiff (CCITTFAX4):      %8.2f ms, %" PRId64 " bytes\n", tl * 1e3, sizeLib);
    printf("  ratio libtiff / trnw: %.2f (type 51), %.2f (type 10)\n", tl / t51, tl / t10);
    remove(theirs);
#else
    printf("  libtiff not found at build time: no comparison\n");
#endif
    remove(ours);
    free(page);
    return 0;
}
