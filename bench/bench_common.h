/*
 * bench_common.h - what the benchmarks share: the clock, the median of a
 * set of runs, a seeded random generator, and the dense text page of the
 * fax benchmarks.
 *
 * The page is 300-dpi text as a scanner sees it: lines of words of glyphs
 * made of strokes of every direction (stems, bars, diagonals, rings), so
 * that a Group 4 coder meets the usual mix of vertical modes (V0 and the
 * slanted V+-1..3), horizontal and pass modes, not only straight edges.
 */
#ifndef TRNW_BENCH_COMMON_H
#define TRNW_BENCH_COMMON_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <stdio.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

static inline double BenchNow(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static inline int BenchCompareDoubles(const void *a, const void *b)
{
    double x = *(const double *)a, y = *(const double *)b;
    return x < y ? -1 : x > y;
}

/* Sorts `values` and returns the median. */
static inline double BenchMedian(double *values, int n)
{
    qsort(values, (size_t)n, sizeof values[0], BenchCompareDoubles);
    return values[n / 2];
}

/* Times `runs` (at most 64) rounds of `ours` and `peer` taken in turn, so
 * that a change in the machine's load touches both medians alike; stores
 * the two medians in seconds. */
static inline void BenchInterleaved(void (*ours)(void *), void (*peer)(void *), void *context, int runs,
                                    double *ourMedian, double *peerMedian)
{
    double a[64], b[64];
    runs = runs < 1 ? 1 : runs > 64 ? 64 : runs;
    for (int run = 0; run < runs; run++) {
        double t0 = BenchNow();
        ours(context);
        double t1 = BenchNow();
        peer(context);
        a[run] = t1 - t0;
        b[run] = BenchNow() - t1;
    }
    *ourMedian = BenchMedian(a, runs);
    *peerMedian = BenchMedian(b, runs);
}

/* One line of the summary that `make bench` gathers at its end:
 * "RATIO <name> <peer time / ours>" or "MS <name> <milliseconds>". */
static inline void BenchSummary(const char *kind, const char *name, double value)
{
    printf("%s %s %.2f\n", kind, name, value);
}

/* The median time of `runs` (at most 16) runs of a shell command, or -1
 * when it fails. */
static inline double BenchTimeCommand(const char *command, int runs)
{
    double times[16];
    runs = runs < 1 ? 1 : runs > 16 ? 16 : runs;
    for (int run = 0; run < runs; run++) {
        double t0 = BenchNow();
        if (system(command) != 0)
            return -1;
        times[run] = BenchNow() - t0;
    }
    return BenchMedian(times, runs);
}

/* Where the big blocks of a benchmark come from (glibc; elsewhere nothing
 * changes).  Reused: freed blocks of up to 32 MB stay in the heap and serve
 * the next ones, so that the runs work in memory touched before.  New: each
 * block of 1 MB or more is mapped when allocated and unmapped when freed,
 * so that its first touch costs a page fault per page, as a new picture's
 * does in a new process; set it before any such block is freed, since
 * blocks waiting in the heap are served first.  Left to itself, glibc hands
 * fresh pages to one side and reused ones to the other by the order and the
 * exact sizes of their blocks. */
enum BenchMemory { BENCH_MEMORY_REUSED, BENCH_MEMORY_NEW };

static inline void BenchSetMemory(enum BenchMemory memory)
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, memory == BENCH_MEMORY_REUSED ? 32 << 20 : 1 << 20);
    mallopt(M_TRIM_THRESHOLD, memory == BENCH_MEMORY_REUSED ? 256 << 20 : 1 << 20);
#else
    (void)memory;
#endif
}

/* A linear congruential generator: the same pictures in every run. */
static inline uint32_t BenchRandom(uint32_t *seed)
{
    *seed = *seed * 1103515245u + 12345u;
    return *seed >> 8;
}

/* ---- DIBs ---- */

/* A packed DIB of the library's, `w` x `h` at `bits`, rows zeroed, palette
 * black (entry 1 white at 1 bit), `pixelsPerMeter` both ways; *size (when
 * not NULL) receives the block's size.  NULL when there is no memory. */
static inline uint8_t *BenchNewDib(int32_t w, int32_t h, int bits, int32_t pixelsPerMeter, uint32_t *size)
{
    uint32_t stride = (uint32_t)DibStride((uint32_t)w, bits);
    uint32_t bytes = DIB_HEADER_SIZE + DibPaletteSize(bits) + stride * (uint32_t)h;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(bytes));
    if (!block)
        return NULL;
    memset(block, 0, bytes);
    BITMAPINFOHEADER header = {};
    header.biSize = 40;
    header.biWidth = w;
    header.biHeight = h;
    header.biPlanes = 1;
    header.biBitCount = (uint16_t)bits;
    header.biSizeImage = stride * (uint32_t)h;
    header.biXPelsPerMeter = header.biYPelsPerMeter = pixelsPerMeter;
    memcpy(block, &header, sizeof header);
    if (bits == 1)
        memset(block + DIB_HEADER_SIZE + 4, 0xFF, 3);
    if (size)
        *size = bytes;
    return block;
}

/* Row `r` (0 the top) of a bottom-up DIB made by BenchNewDib. */
static inline uint8_t *BenchDibRow(uint8_t *dib, int32_t w, int32_t h, int bits, int32_t r)
{
    return dib + DIB_HEADER_SIZE + DibPaletteSize(bits) + (size_t)(h - 1 - r) * DibStride((uint32_t)w, bits);
}

/* ---- the photograph-like picture ---- */

/* Sample c (0 red, 1 green, 2 blue) of pixel (x, y) of a smooth, slowly
 * varying picture with sensor noise on a quarter of the samples: LZW, GIF
 * and PNG gain about as little on it as on a typical photograph.  Called
 * for every sample in row, pixel, channel order from one seed. */
static inline uint8_t BenchPhotographSample(int x, int y, int c, uint32_t *seed)
{
    int cx = x - 700 - 200 * c, cy = y - 600;
    int v = 60 + (int)((uint32_t)(cx * cx + cy * cy) / 9000 % 150) + (x / 16 + y / 24) % 30;
    if (BenchRandom(seed) % 4 == 0)
        v += (int)(BenchRandom(seed) % 5) - 2;
    return (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v);
}

/* The picture as a bottom-up 24-bit DIB (B, G, R) in a block of the
 * library's, NULL when there is no memory. */
static inline uint8_t *BenchPhotographDib(int width, int height)
{
    size_t stride = ((size_t)width * 3 + 3) & ~(size_t)3;
    uint8_t *dib = static_cast<uint8_t *>(ImgAlloc(40 + stride * (size_t)height));
    if (!dib)
        return NULL;
    memset(dib, 0, 40 + stride * (size_t)height);
    PutLE32(dib, 40), PutLE32(dib + 4, (uint32_t)width), PutLE32(dib + 8, (uint32_t)height);
    PutLE16(dib + 12, 1), PutLE16(dib + 14, 24);
    uint32_t seed = 12345;
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            for (int c = 0; c < 3; c++)
                dib[40 + (size_t)(height - 1 - y) * stride + (size_t)x * 3 + (size_t)(2 - c)] =
                    BenchPhotographSample(x, y, c, &seed);
    return dib;
}

/* ---- the text page: packed rows top first, most significant bit first ---- */

typedef struct BenchPage {
    uint8_t *rows;
    int width, height, stride;
} BenchPage;

static inline void BenchInk(BenchPage *page, int x, int y)
{
    if (x >= 0 && x < page->width && y >= 0 && y < page->height)
        page->rows[(size_t)y * (size_t)page->stride + (size_t)(x >> 3)] |= (uint8_t)(0x80 >> (x & 7));
}

/* A pen 3 pixels wide from (x0, y0) to (x1, y1). */
static inline void BenchStroke(BenchPage *page, int x0, int y0, int x1, int y1)
{
    int steps = abs(x1 - x0) > abs(y1 - y0) ? abs(x1 - x0) : abs(y1 - y0);
    for (int s = 0; s <= steps; s++) {
        int x = x0 + (steps ? (x1 - x0) * s / steps : 0);
        int y = y0 + (steps ? (y1 - y0) * s / steps : 0);
        for (int d = 0; d < 9; d++)
            BenchInk(page, x + d % 3, y + d / 3);
    }
}

/* A ring (o, e, c) of width w and height h at (x, y). */
static inline void BenchRing(BenchPage *page, int x, int y, int w, int h)
{
    /* A polygon of 24 sides around the ellipse (integer arithmetic only). */
    static const int8_t cosine[25] = {100, 97, 87, 71, 50, 26, 0, -26, -50, -71, -87, -97, -100,
                                      -97, -87, -71, -50, -26, 0, 26, 50, 71, 87, 97, 100};
    for (int k = 0; k < 24; k++) {
        int s0 = cosine[(k + 18) % 24], s1 = cosine[(k + 19) % 24];
        BenchStroke(page, x + w / 2 + cosine[k] * (w / 2 - 2) / 100, y + h / 2 + s0 * (h / 2 - 2) / 100,
                    x + w / 2 + cosine[k + 1] * (w / 2 - 2) / 100, y + h / 2 + s1 * (h / 2 - 2) / 100);
    }
}

/* One glyph in a cell of w x 24 pixels whose x-height starts 8 rows down. */
static inline void BenchGlyph(BenchPage *page, int x, int top, int w, uint32_t shape)
{
    int xh = top + 8, base = top + 24;
    switch (shape % 9) {
    case 0: BenchStroke(page, x, top, x, base); break;                              /* l */
    case 1: BenchStroke(page, x, xh, x, base); BenchRing(page, x, xh, w, 16); break; /* b-ish */
    case 2: BenchRing(page, x, xh, w, 16); break;                                   /* o */
    case 3: BenchStroke(page, x, xh, x + w / 2, base); BenchStroke(page, x + w / 2, base, x + w, xh); break; /* v */
    case 4: BenchStroke(page, x, xh, x + w, base); BenchStroke(page, x + w, xh, x, base); break;             /* x */
    case 5: BenchStroke(page, x, xh, x, base); BenchStroke(page, x, xh + 2, x + w, xh); BenchStroke(page, x + w, xh, x + w, base); break; /* n */
    case 6: BenchStroke(page, x + w / 2, top, x + w / 2, base); BenchStroke(page, x, xh, x + w, xh); break; /* t */
    case 7: BenchStroke(page, x + w, top, x, base + 6); break;                      /* / */
    default: BenchStroke(page, x, xh, x + w, xh); BenchStroke(page, x, base - 2, x + w, base - 2);
             BenchStroke(page, x + w, xh, x, base - 2); break;                      /* z */
    }
}

/* Fills `page` (cleared first) with lines of text 34 rows apart (about
 * 10-point type at 300 dpi) inside 1/3-inch margins: 1 = black. */
static inline void BenchTextPage(BenchPage *page, uint32_t seed)
{
    memset(page->rows, 0, (size_t)page->stride * (size_t)page->height);
    int margin = 100;
    for (int top = margin; top + 34 < page->height - margin; top += 34) {
        int x = margin + (int)(BenchRandom(&seed) % 30);
        while (x < page->width - margin - 40) {
            int letters = 1 + (int)(BenchRandom(&seed) % 9);
            for (int l = 0; l < letters && x < page->width - margin - 20; l++) {
                int w = 9 + (int)(BenchRandom(&seed) % 6);
                BenchGlyph(page, x, top, w, BenchRandom(&seed));
                x += w + 5;
            }
            x += 12 + (int)(BenchRandom(&seed) % 8);
        }
    }
}


/* ---- decoders beside ImageMagick ---- */

/* The median time of `runs` (at most 16) decodes of a file through the
 * public API, or -1 when one fails. */
static inline double BenchTimeDecode(const char *path, int runs)
{
    double times[16];
    runs = runs < 1 ? 1 : runs > 16 ? 16 : runs;
    for (int run = 0; run < runs; run++) {
        double t0 = BenchNow();
        int32_t handle = IMG_decompress_bitmap(path);
        times[run] = BenchNow() - t0;
        if (handle < 0)
            return -1;
        IMG_delete_bitmap(handle);
    }
    return BenchMedian(times, runs);
}

/* The median time of `runs` (at most 16) copies of `size` bytes: the floor
 * of any decode that writes that much. */
static inline double BenchTimeMemcpy(size_t size, int runs)
{
    double times[16];
    runs = runs < 1 ? 1 : runs > 16 ? 16 : runs;
    uint8_t *a = (uint8_t *)malloc(size), *b = (uint8_t *)malloc(size);
    if (!a || !b) {
        free(a);
        free(b);
        return -1;
    }
    memset(a, 1, size);
    memset(b, 2, size);
    for (int run = 0; run < runs; run++) {
        double t0 = BenchNow();
        memcpy(b, a, size);
        times[run] = BenchNow() - t0;
        a[run] = b[size - 1 - (size_t)run]; /* keeps the copies */
    }
    free(a);
    free(b);
    return BenchMedian(times, runs);
}

#define BENCH_MAGICK "/usr/bin/convert"

/* ImageMagick decoding `path` to ppm:/dev/null, its start-up measured by the
 * same command on `tiny`; prints both and the ratios to `ours` (seconds).
 * 0, or -1 when a command fails. */
static inline int BenchPrintMagickRatio(const char *path, const char *tiny, double ours, int runs)
{
    char command[2048];
    snprintf(command, sizeof command, "%s '%s' ppm:/dev/null >/dev/null 2>&1", BENCH_MAGICK, tiny);
    double startUp = BenchTimeCommand(command, runs);
    snprintf(command, sizeof command, "%s '%s' ppm:/dev/null >/dev/null 2>&1", BENCH_MAGICK, path);
    double theirs = BenchTimeCommand(command, runs);
    if (startUp < 0 || theirs < 0) {
        printf("  ImageMagick: a command failed\n");
        return -1;
    }
    printf("  convert (start-up, a 1 x 1 file)  %8.2f ms\n", startUp * 1e3);
    printf("  convert file ppm:/dev/null        %8.2f ms\n", theirs * 1e3);
    printf("  ratio ImageMagick/ours: %.2f whole, %.2f less start-up\n", theirs / ours,
           (theirs - startUp) / ours);
    return 0;
}

#endif /* TRNW_BENCH_COMMON_H */
