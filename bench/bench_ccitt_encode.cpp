/*
 * bench_ccitt_encode - the CCITT encoder beside libtiff's on the
 * same page in the same run: a dense 2550 x 3300 text-like 1-bit page coded
 *   as Group 4 (ours: CcittEncode2D, mode 4; libtiff: COMPRESSION_CCITTFAX4)
 *   as Group 3 one-dimensional with EOLs (ours: CcittEncode1D, mode 3;
 *   libtiff: COMPRESSION_CCITTFAX3, Group3Options 4 = fill bits before EOL).
 *
 * Both write to memory: ours to the memory image (handle 32767) from a row
 * source that copies the page's rows; libtiff through TIFFClientOpen on a
 * growing memory file, one strip of the whole page written with
 * TIFFWriteEncodedStrip (open, tags, strip, close all timed).  libtiff gets
 * the page with its bits inverted outside the timing (PhotometricInterpretation
 * MinIsWhite: 0 white), so both code the same pixels.  The median of several
 * runs is printed as pages per second, with the ratio.  As a check, the T.6
 * bits of both must agree up to the end-of-block codes (libtiff ends with
 * two EOLs, ours with four).  The work is the same on both sides: packed rows
 * in, the code of the whole page out to memory; libtiff's TIFF header and
 * directory add a few hundred bytes, and its Group 3 EOLs are padded to a
 * byte where ours are padded to 16 bits.  The last lines are the ratios as
 * `make bench` gathers them.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bench_common.h"
#include "codecs/ccitt_encode.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#ifdef TRNW_HAVE_LIBTIFF
#include <tiffio.h>
#endif

constexpr int PAGE_W = 2550, PAGE_H = 3300, RUNS = 21;
#define PAGE_STRIDE ((PAGE_W + 7) / 8)
#define OUT_CAPACITY (8u << 20)

/* ---- the page: rows top first, bit 1 white ---- */

static uint8_t pageBytes[PAGE_H * PAGE_STRIDE];
#define PAGE_ROW(y) (pageBytes + (size_t)(y) * PAGE_STRIDE)

/* bench_common.h's text page, inverted: here bit 1 is white. */
static void MakePage(void)
{
    BenchPage text = {pageBytes, PAGE_W, PAGE_H, PAGE_STRIDE};
    BenchTextPage(&text, 4242);
    for (size_t i = 0; i < sizeof pageBytes; i++)
        pageBytes[i] = (uint8_t)~pageBytes[i];
}

static int PageRows(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    (void)context;
    memcpy(buffer, PAGE_ROW(rowIndex), (size_t)rowBytes);
    return 0;
}

/* ---- ours ---- */

static uint8_t *ours;

/* One encode into the memory image; the byte count, or a negative code. */
static int64_t EncodeOurs(int g4)
{
    uint8_t header[40] = {40};
    header[4] = PAGE_W & 0xFF, header[5] = PAGE_W >> 8;
    header[8] = PAGE_H & 0xFF, header[9] = PAGE_H >> 8;
    header[12] = 1, header[14] = 1;
    ImgSetMemorySourceSized(ours, OUT_CAPACITY);
    int result = g4 ? CcittEncode2D(IMG_MEMORY_HANDLE, header, PageRows, NULL, 0, 4)
                    : CcittEncode1D(IMG_MEMORY_HANDLE, header, PageRows, NULL, 0, 3);
    return result < 0 ? result : (int64_t)ImgTell();
}

/* ---- libtiff ---- */

#ifdef TRNW_HAVE_LIBTIFF
static uint8_t inverted[PAGE_H][PAGE_STRIDE];

typedef struct {
    uint8_t *bytes;
    uint64_t size, capacity, position;
} MemoryFile;

static MemoryFile memoryFile;

static tmsize_t MemRead(thandle_t h, void *buffer, tmsize_t n)
{
    MemoryFile *m = (MemoryFile *)h;
    uint64_t left = m->position < m->size ? m->size - m->position : 0;
    if ((uint64_t)n > left)
        n = (tmsize_t)left;
    memcpy(buffer, m->bytes + m->position, (size_t)n);
    m->position += (uint64_t)n;
    return n;
}

static tmsize_t MemWrite(thandle_t h, void *buffer, tmsize_t n)
{
    MemoryFile *m = (MemoryFile *)h;
    if (m->position + (uint64_t)n > m->capacity)
        return 0;
    memcpy(m->bytes + m->position, buffer, (size_t)n);
    m->position += (uint64_t)n;
    if (m->position > m->size)
        m->size = m->position;
    return n;
}

static toff_t MemSeek(thandle_t h, toff_t offset, int whence)
{
    MemoryFile *m = (MemoryFile *)h;
    m->position = whence == SEEK_SET ? offset : whence == SEEK_CUR ? m->position + offset : m->size + offset;
    return m->position;
}

static int MemClose(thandle_t h) { (void)h; return 0; }
static toff_t MemSize(thandle_t h) { return ((MemoryFile *)h)->size; }

/* One TIFF of the page in memory; the strip's byte count, or -1. */
static int64_t EncodeLibtiff(int g4)
{
    memoryFile.size = memoryFile.position = 0;
    TIFF *t = TIFFClientOpen("bench", "w", (thandle_t)&memoryFile, MemRead, MemWrite, MemSeek,
                             MemClose, MemSize, NULL, NULL);
    if (!t)
        return -1;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, PAGE_W);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, PAGE_H);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, PAGE_H);
    TIFFSetField(t, TIFFTAG_COMPRESSION, g4 ? COMPRESSION_CCITTFAX4 : COMPRESSION_CCITTFAX3);
    if (!g4)
        TIFFSetField(t, TIFFTAG_GROUP3OPTIONS, GROUP3OPT_FILLBITS);
    tmsize_t written = TIFFWriteEncodedStrip(t, 0, inverted, (tmsize_t)sizeof inverted);
    TIFFClose(t);
    return written < 0 ? -1 : (int64_t)memoryFile.size;
}

/* The first strip's bytes of the memory TIFF (T.6 check). */
static int LibtiffStrip(const uint8_t **bytes, uint64_t *count)
{
    memoryFile.position = 0;
    TIFF *t = TIFFClientOpen("bench", "r", (thandle_t)&memoryFile, MemRead, MemWrite, MemSeek,
                             MemClose, MemSize, NULL, NULL);
    if (!t)
        return -1;
    uint64_t *offsets = NULL, *counts = NULL;
    int ok = TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &offsets) && TIFFGetField(t, TIFFTAG_STRIPBYTECOUNTS, &counts);
    if (ok) {
        *bytes = memoryFile.bytes + offsets[0];
        *count = counts[0];
    }
    TIFFClose(t);
    return ok ? 0 : -1;
}
#endif

/* ---- timing ---- */

/* Runs alternate between the two encoders, so that a change in the machine's
 * load during the run touches both medians alike. */
static void TimeBoth(int g4, double *ourTime, int64_t *ourBytes, double *tiffTime, int64_t *tiffBytes)
{
    double a[RUNS], b[RUNS];
    for (int i = 0; i < RUNS; i++) {
        double start = BenchNow();
        *ourBytes = EncodeOurs(g4);
        a[i] = BenchNow() - start;
#ifdef TRNW_HAVE_LIBTIFF
        start = BenchNow();
        *tiffBytes = EncodeLibtiff(g4);
        b[i] = BenchNow() - start;
#else
        *tiffBytes = -1;
        b[i] = 0;
#endif
    }
    *ourTime = BenchMedian(a, RUNS);
    *tiffTime = BenchMedian(b, RUNS);
}

#ifdef TRNW_HAVE_LIBTIFF
static void TiffQuiet(const char *module, const char *format, va_list ap)
{
    (void)module, (void)format, (void)ap;
}
#endif

int main(void)
{
    MakePage();
    ours = static_cast<uint8_t *>(malloc(OUT_CAPACITY));
    if (!ours)
        return 1;
    printf("bench_ccitt_encode: %d x %d text-like 1-bit page, median of %d runs, to memory\n",
           PAGE_W, PAGE_H, RUNS);
#ifdef TRNW_HAVE_LIBTIFF
    TIFFSetWarningHandler(TiffQuiet);
    for (int y = 0; y < PAGE_H; y++)
        for (int x = 0; x < PAGE_STRIDE; x++)
            inverted[y][x] = (uint8_t)~PAGE_ROW(y)[x];
    memoryFile.capacity = OUT_CAPACITY;
    memoryFile.bytes = static_cast<uint8_t *>(malloc(OUT_CAPACITY));
    if (!memoryFile.bytes)
        return 1;
#endif
#ifdef TRNW_HAVE_LIBTIFF
    double ratios[2] = {0, 0}; /* [g4] */
#endif
    for (int g4 = 1; g4 >= 0; g4--) {
        const char *what = g4 ? "Group 4 (T.6)" : "Group 3 1-D with EOLs";
        int64_t ourBytes = 0, tiffBytes = 0;
        double ourTime, tiffTime;
        TimeBoth(g4, &ourTime, &ourBytes, &tiffTime, &tiffBytes);
        if (ourBytes < 0) {
            fprintf(stderr, "bench_ccitt_encode: our encoder failed: %d\n", (int)ourBytes);
            return 1;
        }
        printf("%-24s ours    %7.2f ms  %8.1f pages/s  %7d bytes\n", what, ourTime * 1e3,
               1.0 / ourTime, (int)ourBytes);
#ifdef TRNW_HAVE_LIBTIFF
        if (tiffBytes < 0) {
            printf("%-24s libtiff failed\n", "");
            continue;
        }
        printf("%-24s libtiff %7.2f ms  %8.1f pages/s  %7d bytes (whole TIFF)\n", "",
               tiffTime * 1e3, 1.0 / tiffTime, (int)tiffBytes);
        printf("%-24s ratio libtiff time / ours: %.2f\n", "", tiffTime / ourTime);
        ratios[g4] = tiffTime / ourTime;
        if (g4) {
            const uint8_t *strip;
            uint64_t stripBytes;
            EncodeOurs(1);
            int same = LibtiffStrip(&strip, &stripBytes) == 0 && stripBytes >= 4 &&
                       (uint64_t)ourBytes >= stripBytes &&
                       memcmp(strip, ours, (size_t)stripBytes - 4) == 0;
            printf("%-24s check: T.6 bits equal to libtiff's before the end codes: %s\n", "",
                   same ? "yes" : "NO");
        }
#else
        printf("%-24s libtiff: not found at build time (pkg-config libtiff-4)\n", "");
#endif
    }
#ifdef TRNW_HAVE_LIBTIFF
    BenchSummary("RATIO", "g3_1d_encode", ratios[0]);
    BenchSummary("RATIO", "g4_encode", ratios[1]);
#endif
    return 0;
}
