/*
 * bench_lzw - the TIFF LZW codec (codecs/lzw) beside libtiff on the same
 * picture in the same run: a 2000 x 1500 24-bit photographic-like picture
 * (smooth shapes plus a little noise) as one strip of 1500 rows.
 *
 *   decode: LzwDecodeStrip over the memory image, each row copied by the
 *           adapter into the picture, against TIFFReadEncodedStrip (libtiff
 *           reading from memory through TIFFClientOpen) - both on the strip
 *           libtiff wrote, and ours also on the strip we wrote;
 *   encode: LzwEncodeStrip from the row source into the memory image
 *           against TIFFWriteEncodedStrip into a memory TIFF;
 *   file:   the picture as `tiffcp -c lzw` writes it (libtiff's default
 *           strips, no predictor), made here with libtiff and read through
 *           IMG_decompress_bitmap against libtiff reading every strip
 *           (TIFFOpen, TIFFReadEncodedStrip) into one picture buffer.
 *
 * MB/s are of the 9 000 000 picture bytes; ours and libtiff are timed in
 * turn, the median of 9 runs each.  The ratio is ours over libtiff's speed
 * (above 1: we are faster).  Every decoding is checked against the picture.
 * No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tiffio.h>

#include "bench_common.h"
#include "codecs/lzw.h"
#include "core/bytes.h"
#include "core/contracts.h"
#include "core/image_table.h"
#include "core/imgio.h"

constexpr int WIDTH = 2000, HEIGHT = 1500, ROW_BYTES = WIDTH * 3, RUNS = 9;
#define PICTURE_BYTES ((size_t)ROW_BYTES * HEIGHT)

/* The photograph-like picture, R, G, B, top row first. */
static void MakePicture(uint8_t *rgb)
{
    uint32_t seed = 12345;
    for (int y = 0; y < HEIGHT; y++)
        for (int x = 0; x < WIDTH; x++)
            for (int c = 0; c < 3; c++)
                rgb[(size_t)y * ROW_BYTES + (size_t)x * 3 + c] = BenchPhotographSample(x, y, c, &seed);
}

/* ---- libtiff over memory ---- */

typedef struct MemTiff {
    uint8_t *data;
    size_t size, capacity, position;
} MemTiff;

static tsize_t MemRead(thandle_t h, tdata_t buf, tsize_t n)
{
    MemTiff *m = (MemTiff *)h;
    size_t left = m->position < m->size ? m->size - m->position : 0;
    size_t k = (size_t)n < left ? (size_t)n : left;
    memcpy(buf, m->data + m->position, k);
    m->position += k;
    return (tsize_t)k;
}

static tsize_t MemWrite(thandle_t h, tdata_t buf, tsize_t n)
{
    MemTiff *m = (MemTiff *)h;
    size_t end = m->position + (size_t)n;
    if (end > m->capacity) {
        size_t c = m->capacity ? m->capacity : 65536;
        while (c < end)
            c *= 2;
        uint8_t *d = static_cast<uint8_t *>(realloc(m->data, c));
        if (!d)
            return 0;
        m->data = d;
        m->capacity = c;
    }
    memcpy(m->data + m->position, buf, (size_t)n);
    m->position = end;
    if (end > m->size)
        m->size = end;
    return n;
}

static toff_t MemSeek(thandle_t h, toff_t off, int whence)
{
    MemTiff *m = (MemTiff *)h;
    if (whence == SEEK_SET)
        m->position = (size_t)off;
    else if (whence == SEEK_CUR)
        m->position += (size_t)off;
    else
        m->position = m->size + (size_t)off;
    return (toff_t)m->position;
}

static int MemClose(thandle_t h) { (void)h; return 0; }
static toff_t MemSize(thandle_t h) { return (toff_t)((MemTiff *)h)->size; }
static int MemMap(thandle_t h, tdata_t *base, toff_t *size) { (void)h; (void)base; (void)size; return 0; }
static void MemUnmap(thandle_t h, tdata_t base, toff_t size) { (void)h; (void)base; (void)size; }

static TIFF *MemOpen(MemTiff *m, const char *mode)
{
    m->position = 0;
    return TIFFClientOpen("memory", mode, (thandle_t)m, MemRead, MemWrite, MemSeek, MemClose,
                          MemSize, MemMap, MemUnmap);
}

/* The fields of the picture as an RGB LZW TIFF, strips aside. */
static void SetRgbLzwFields(TIFF *t)
{
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, WIDTH);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, HEIGHT);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
}

/* libtiff writes the picture as one LZW strip; the time of the strip write. */
static double LibtiffEncode(const uint8_t *rgb, MemTiff *m)
{
    m->size = 0;
    TIFF *t = MemOpen(m, "w");
    if (!t)
        return -1;
    SetRgbLzwFields(t);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, HEIGHT);
    double t0 = BenchNow();
    tsize_t r = TIFFWriteEncodedStrip(t, 0, (void *)rgb, (tsize_t)PICTURE_BYTES);
    double t1 = BenchNow();
    TIFFClose(t);
    return r < 0 ? -1 : t1 - t0;
}

/* libtiff decodes the strip; the time of the strip read. */
static double LibtiffDecode(MemTiff *m, uint8_t *out)
{
    TIFF *t = MemOpen(m, "r");
    if (!t)
        return -1;
    double t0 = BenchNow();
    tsize_t r = TIFFReadEncodedStrip(t, 0, out, (tsize_t)PICTURE_BYTES);
    double t1 = BenchNow();
    TIFFClose(t);
    return r != (tsize_t)PICTURE_BYTES ? -1 : t1 - t0;
}

/* The strip's bytes inside a memory TIFF. */
static int StripOf(TIFF *t, uint64_t *offset, uint64_t *count)
{
    uint64_t *offsets = NULL, *counts = NULL;
    if (!TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &offsets) || !TIFFGetField(t, TIFFTAG_STRIPBYTECOUNTS, &counts))
        return -1;
    *offset = offsets[0];
    *count = counts[0];
    return 0;
}

/* ---- ours ---- */

typedef struct Rows {
    const uint8_t *bgr; /* the row source's rows (our DIB order B,G,R) */
    uint8_t *out;       /* decoded rows land here */
} Rows;

static int SourceRow(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    Rows *r = static_cast<Rows *>(context);
    memcpy(buffer, r->bgr + (size_t)rowIndex * ROW_BYTES, (size_t)rowBytes);
    return 0;
}

static int SinkRow(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    Rows *r = static_cast<Rows *>(context);
    memcpy(r->out + (size_t)rowIndex * ROW_BYTES, row, (size_t)rowBytes);
    return 0;
}

static double OursEncode(Rows *rows, uint8_t *sink, size_t sinkSize, uint32_t *produced)
{
    uint8_t header[IMG_HEADER_BLOCK_SIZE] = {};
    PutLE32(header, 40);
    PutLE32(header + 4, WIDTH);
    PutLE32(header + 8, HEIGHT);
    PutLE16(header + 14, 24);
    ImgSetMemorySourceSized(sink, (uint32_t)sinkSize);
    double t0 = BenchNow();
    int r = LzwEncodeStrip(IMG_MEMORY_HANDLE, header, SourceRow, rows, 0, HEIGHT);
    double t1 = BenchNow();
    *produced = ImgTell();
    return r != 0 ? -1 : t1 - t0;
}

static double OursDecode(uint8_t *strip, uint32_t size, Rows *rows)
{
    static uint8_t coded[LZW_CODED_BUFFER_SIZE];
    static uint8_t output[4 * ROW_BYTES];
    ImgSetMemorySourceSized(strip, size);
    double t0 = BenchNow();
    int r = LzwDecodeStrip(IMG_MEMORY_HANDLE, coded, 0, ROW_BYTES, output, sizeof output, HEIGHT,
                           SinkRow, rows);
    double t1 = BenchNow();
    return r != 1 ? -1 : t1 - t0;
}

/* ---- the file as tiffcp writes it ---- */

/* tiffcp -c lzw of a picture without its own strip layout: libtiff's
 * default RowsPerStrip (strips of about 8 KB before coding), no predictor.
 * The number of strips, or -1. */
static int WriteTiffcpLikeFile(const char *path, const uint8_t *rgb)
{
    TIFF *t = TIFFOpen(path, "w");
    if (!t)
        return -1;
    SetRgbLzwFields(t);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    int bad = 0;
    for (int y = 0; y < HEIGHT && !bad; y++)
        bad = TIFFWriteScanline(t, (void *)(rgb + (size_t)y * ROW_BYTES), (uint32_t)y, 0) < 0;
    int strips = (int)TIFFNumberOfStrips(t);
    TIFFClose(t);
    return bad ? -1 : strips;
}

/* ---- the timed rounds ---- */

typedef struct Bench {
    Rows rows;
    const uint8_t *rgb, *bgr;
    MemTiff m;                /* libtiff's memory TIFF */
    uint8_t *ourStrip;        /* our encoding */
    uint32_t ourSize;
    uint8_t *libtiffStrip;    /* libtiff's strip inside m */
    uint32_t libtiffSize;
    const char *path;         /* the tiffcp-like file */
    uint8_t *decoded;         /* libtiff's decoding of the file */
    int bad;                  /* a decoding differs from the picture */
} Bench;

static void Fail(const char *what)
{
    fprintf(stderr, "bench_lzw: %s\n", what);
    exit(1);
}

static void OursEncodeRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    if (OursEncode(&b->rows, b->ourStrip, PICTURE_BYTES * 2, &b->ourSize) < 0)
        Fail("our encoding failed");
}

static void LibtiffEncodeRound(void *context)
{
    if (LibtiffEncode(static_cast<Bench *>(context)->rgb, &static_cast<Bench *>(context)->m) < 0)
        Fail("libtiff's encoding failed");
}

static void OursDecodeRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    if (OursDecode(b->libtiffStrip, b->libtiffSize, &b->rows) < 0)
        Fail("our decoding failed");
}

static void OursOwnDecodeRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    if (OursDecode(b->ourStrip, b->ourSize, &b->rows) < 0)
        Fail("our decoding of our strip failed");
}

static void LibtiffDecodeRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    if (LibtiffDecode(&b->m, b->decoded) < 0)
        Fail("libtiff's decoding failed");
}

/* The whole public read: the file decoded into a new bitmap, which is
 * compared with the picture once, outside the timing. */
static int32_t lastHandle = -1;
static void OursFileRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    if (lastHandle >= 0)
        IMG_delete_bitmap(lastHandle);
    lastHandle = IMG_decompress_bitmap(b->path);
    if (lastHandle < 0)
        Fail("IMG_decompress_bitmap failed");
}

/* libtiff's fastest plain read of the file: every strip into its place in
 * one picture buffer. */
static void LibtiffFileRound(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    TIFF *t = TIFFOpen(b->path, "r");
    if (!t)
        Fail("libtiff cannot open the file");
    uint8_t *picture = static_cast<uint8_t *>(malloc(PICTURE_BYTES));
    tmsize_t stripSize = TIFFStripSize(t), at = 0;
    for (uint32_t s = 0; picture && s < TIFFNumberOfStrips(t); s++) {
        tmsize_t got = TIFFReadEncodedStrip(t, s, picture + at, stripSize);
        if (got < 0)
            Fail("libtiff's read of the file failed");
        at += got;
    }
    TIFFClose(t);
    if (!picture || at != (tmsize_t)PICTURE_BYTES)
        Fail("libtiff's read of the file is short");
    memcpy(b->decoded, picture, PICTURE_BYTES);
    free(picture);
}

/* Our bitmap (bottom-up B,G,R rows of the 4-byte stride) against the picture. */
static int SameAsPicture(int32_t handle, const uint8_t *rgb)
{
    const ImgDescriptor *d = ImgTableGet(handle);
    if (!d || !d->dib || d->width != WIDTH || d->height != HEIGHT)
        return 0;
    size_t stride = (size_t)d->stride;
    const uint8_t *bits = d->dib + ImgDescriptorBitsOffset(d);
    for (int y = 0; y < HEIGHT; y++) {
        const uint8_t *row = bits + (size_t)(HEIGHT - 1 - y) * stride, *want = rgb + (size_t)y * ROW_BYTES;
        for (int i = 0; i < ROW_BYTES; i += 3)
            if (row[i] != want[i + 2] || row[i + 1] != want[i + 1] || row[i + 2] != want[i])
                return 0;
    }
    return 1;
}

static void Report(const char *what, double ours, double theirs)
{
    double mb = (double)PICTURE_BYTES / 1e6;
    printf("  %-34s trnw %7.1f MB/s   libtiff %7.1f MB/s   ratio %.2f\n", what, mb / ours, mb / theirs,
           theirs / ours);
}

int main(void)
{
    uint8_t *rgb = static_cast<uint8_t *>(malloc(PICTURE_BYTES)), *bgr = static_cast<uint8_t *>(malloc(PICTURE_BYTES));
    uint8_t *decoded = static_cast<uint8_t *>(malloc(PICTURE_BYTES)), *ourStrip = static_cast<uint8_t *>(malloc(PICTURE_BYTES * 2));
    if (!rgb || !bgr || !decoded || !ourStrip || LzwBeginImage() != 0)
        Fail("out of memory");
    MakePicture(rgb);
    for (size_t i = 0; i < PICTURE_BYTES; i += 3) {
        bgr[i] = rgb[i + 2];
        bgr[i + 1] = rgb[i + 1];
        bgr[i + 2] = rgb[i];
    }
    TIFFSetWarningHandler(NULL);
    const char *dir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char path[512];
    snprintf(path, sizeof path, "%s/bench_lzw_tiffcp.tif", dir);
    int strips = WriteTiffcpLikeFile(path, rgb);
    if (strips < 0)
        Fail("cannot write the tiffcp-like file");

    Bench b = {};
    b.rows = {bgr, decoded};
    b.rgb = rgb;
    b.bgr = bgr;
    b.ourStrip = ourStrip;
    b.path = path;
    b.decoded = decoded;
    double oe, te, od, ood, td, tdFromOwn, of, tf;
    BenchInterleaved(OursEncodeRound, LibtiffEncodeRound, &b, RUNS, &oe, &te);

    TIFF *t = MemOpen(&b.m, "r");
    uint64_t offset = 0, count = 0;
    if (!t || StripOf(t, &offset, &count) != 0)
        Fail("libtiff's strip not found");
    TIFFClose(t);
    b.libtiffStrip = b.m.data + offset;
    b.libtiffSize = (uint32_t)count;

    memset(decoded, 0, PICTURE_BYTES);
    BenchInterleaved(OursDecodeRound, LibtiffDecodeRound, &b, RUNS, &od, &td);
    b.bad |= memcmp(decoded, rgb, PICTURE_BYTES) != 0; /* libtiff's decoding of its strip */
    OursDecodeRound(&b);
    b.bad |= memcmp(decoded, rgb, PICTURE_BYTES) != 0;
    BenchInterleaved(OursOwnDecodeRound, LibtiffDecodeRound, &b, RUNS, &ood, &tdFromOwn);
    OursOwnDecodeRound(&b);
    b.bad |= memcmp(decoded, rgb, PICTURE_BYTES) != 0;

    memset(decoded, 0, PICTURE_BYTES);
    BenchInterleaved(OursFileRound, LibtiffFileRound, &b, RUNS, &of, &tf);
    b.bad |= memcmp(decoded, rgb, PICTURE_BYTES) != 0 || !SameAsPicture(lastHandle, rgb);
    IMG_delete_bitmap(lastHandle);

    printf("bench_lzw: %d x %d 24-bit photographic-like picture, median of %d runs in turn\n", WIDTH,
           HEIGHT, RUNS);
    printf("  strip sizes: trnw %u bytes, libtiff %llu bytes (picture %zu)\n", b.ourSize,
           (unsigned long long)count, PICTURE_BYTES);
    Report("decode (libtiff's strip)", od, td);
    Report("decode (our strip vs libtiff's)", ood, tdFromOwn);
    Report("encode (one strip)", oe, te);
    printf("  file as tiffcp -c lzw writes it: %d strips of %d rows, read whole\n", strips,
           (HEIGHT + strips - 1) / strips);
    Report("IMG_decompress_bitmap vs libtiff", of, tf);
    printf("  decodings equal the picture: %s\n", b.bad ? "NO" : "yes");
    LzwEndImage();
    remove(path);
    free(b.m.data);
    free(rgb);
    free(bgr);
    free(decoded);
    free(ourStrip);
    BenchSummary("RATIO", "lzw_encode", te / oe);
    BenchSummary("RATIO", "tiff_lzw_read", tf / of);
    return b.bad;
}
