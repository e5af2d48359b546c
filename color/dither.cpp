/*
 * dither.cpp - dithering and colour conversion.
 *
 * Four dithers to 1 bit (ordered with the Bayer or the halftone table,
 * Stucki diffusion, threshold), two to 4-bit colour (ordered, threshold
 * diffusion), the conversion to 8-bit grey and the promotions to 8 and 24
 * bits.  Each builds a new bitmap from the current one a row at a time
 * (rows in storage order, m = 0 the bottom row) and installs it only when
 * every row is done.  Also the row routines of the decode pipeline's depth reduction
 * and the display-time reduction to the 3-3-2 palette.
 */
#include "color/dither.h"

#include <string.h>

#include "core/guard.h"
#include "core/contracts.h"
#include "core/progress.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "color/default_palette.h"
#include "color/palette.h"

/* The Bayer table; its first entry is 4, not 0 (4 occurs twice). */
static const uint8_t bayerTable[64] = {
    4,   128, 32,  160, 8,   136, 40,  168, /* */
    192, 64,  224, 96,  200, 72,  232, 104, /* */
    48,  176, 16,  144, 56,  184, 24,  152, /* */
    240, 112, 208, 80,  248, 120, 216, 88,  /* */
    12,  140, 44,  172, 4,   132, 36,  164, /* */
    204, 76,  236, 108, 196, 68,  228, 100, /* */
    60,  188, 28,  156, 52,  180, 20,  148, /* */
    252, 124, 220, 92,  244, 116, 212, 84,
};

/* The clustered-dot table. */
static const uint8_t halftoneTable[64] = {
    136, 192, 160, 128, 116, 60,  92,  124, /* */
    168, 232, 224, 212, 84,  20,  28,  40,  /* */
    200, 248, 244, 180, 52,  4,   8,   72,  /* */
    152, 184, 216, 148, 100, 68,  36,  104, /* */
    112, 56,  88,  120, 140, 196, 164, 132, /* */
    80,  16,  24,  44,  172, 236, 228, 208, /* */
    48,  0,   12,  76,  204, 252, 240, 176, /* */
    96,  64,  32,  108, 156, 188, 220, 144,
};

/* The display-time reduction mode: 2 diffusion, any other ordered. */
static int32_t ditherMode = 1;

/* The largest new bitmap an operation makes. */
#define BLOCK_LIMIT 0x7FFFFFFFu

/* The finished 1-bit image: dibSize, and the block holding header, palette
 * and the first coded rows. */
#define CODED_DIB_SIZE 32768u
#define CODED_BLOCK_BYTES 36864u

const uint8_t *DitherBayerTable(void)
{
    return bayerTable;
}

const uint8_t *DitherHalftoneTable(void)
{
    return halftoneTable;
}

int32_t DitherMode(void)
{
    return ditherMode;
}

int32_t IMGAPI IMGLOW_set_dithermode(int32_t mode)
{
    return Guarded([&]() -> int32_t {
        ditherMode = mode;
        return 0;
    });
}

/* Arithmetic right shift (rounding toward minus infinity) without relying
 * on the implementation-defined shift of negative values. */
static inline int32_t Asr(int32_t v, int s)
{
    return v >= 0 ? v >> s : ~(~v >> s);
}

/* ---- row converters ---- */

/* Expands a packed row to blue, green, red triples: 1, 4 and 8 bits through
 * the palette, 16 bits through the entry of its high byte, 24 bits as they
 * are, 32 bits packed to 24 (the fourth byte dropped). */
static void ExpandBgr(const uint8_t *row, int bits, const uint8_t *palette, int32_t width,
                      uint8_t *bgr)
{
    int32_t x;
    switch (bits) {
    case 1:
        for (x = 0; x < width; x++)
            memcpy(bgr + 3 * x, palette + 4 * ((row[x >> 3] >> (7 - (x & 7))) & 1), 3);
        break;
    case 4:
        for (x = 0; x < width; x++) {
            unsigned i = (x & 1) ? row[x >> 1] & 0x0F : row[x >> 1] >> 4;
            memcpy(bgr + 3 * x, palette + 4 * i, 3);
        }
        break;
    case 8:
        for (x = 0; x < width; x++)
            memcpy(bgr + 3 * x, palette + 4 * row[x], 3);
        break;
    case 16:
        for (x = 0; x < width; x++)
            memcpy(bgr + 3 * x, palette + 4 * row[2 * x + 1], 3);
        break;
    case 24:
        memcpy(bgr, row, 3 * (size_t)width);
        break;
    default:
        for (x = 0; x < width; x++)
            memcpy(bgr + 3 * x, row + 4 * x, 3);
        break;
    }
}

/* Grey row of the 1-bit dithers: g = (30 R + 59 G + 11 B) / 100. */
static void GreyFromBgr(const uint8_t *bgr, int32_t width, int32_t *grey)
{
    for (int32_t x = 0; x < width; x++, bgr += 3)
        grey[x] = (30 * bgr[2] + 59 * bgr[1] + 11 * bgr[0]) / 100;
}

/* Colour row: B, G, R, L = (75 G + 38 R + 14 B) >> 7, L lowered by 40 with
 * a floor at 0 except for 4-bit sources. */
static void ColourFromBgr(const uint8_t *bgr, int bits, int32_t width, int32_t *colour)
{
    for (int32_t x = 0; x < width; x++, bgr += 3, colour += 4) {
        int32_t l = (75 * bgr[1] + 38 * bgr[2] + 14 * bgr[0]) >> 7;
        if (bits != 4)
            l = l > 40 ? l - 40 : 0;
        colour[0] = bgr[0];
        colour[1] = bgr[1];
        colour[2] = bgr[2];
        colour[3] = l;
    }
}

/* ---- the ordered routines (also used by the decode pipeline) ---- */

static void OrderedMonoRow(const int32_t *grey, int32_t width, const uint8_t *table, uint32_t m,
                           uint8_t *out)
{
    const uint8_t *column = table + (m & 7);
    memset(out, 0, ((size_t)width + 7) / 8);
    for (int32_t x = 0; x < width; x++)
        if (column[(x & 7) * 8] < grey[x])
            out[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
}

static unsigned OrderedColourNibble(const int32_t *c, int32_t t)
{
    return (c[0] > t ? 4u : 0u) | (c[1] > t ? 2u : 0u) | (c[2] > t ? 1u : 0u) |
           (c[3] > t + 40 ? 8u : 0u);
}

/* The ordered colour dither; an odd width leaves the last low nibble 0. */
static void OrderedColourRow(const int32_t *colour, int32_t width, uint32_t m, uint8_t *out)
{
    const uint8_t *column = bayerTable + (m & 7);
    for (int32_t x = 0; x < width; x += 2) {
        unsigned byte = OrderedColourNibble(colour + 4 * x, column[(x & 7) * 8]) << 4;
        if (x + 1 < width)
            byte |= OrderedColourNibble(colour + 4 * (x + 1), column[((x + 1) & 7) * 8]);
        out[x >> 1] = (uint8_t)byte;
    }
}

void DitherRow332Ordered(const uint8_t *bgr, int32_t n, int32_t matrixRow, uint8_t *out)
{
    const uint8_t *row = bayerTable + 8 * ((uint32_t)matrixRow & 7);
    for (int32_t x = 0; x < n; x++, bgr += 3) {
        int d = row[(uint32_t)(n - x) & 7] >> 3;
        int b = bgr[0] > d ? bgr[0] - d : 0;
        int g = bgr[1] > d ? bgr[1] - d : 0;
        int r = bgr[2] > d ? bgr[2] - d : 0;
        out[x] = (uint8_t)((r & 0xE0) | ((g >> 3) & 0x1C) | (b >> 6));
    }
}

size_t DitherRowScratchBytes(int32_t width)
{
    /* Triples, then four integers a pixel. */
    return 3 * (size_t)width + 8 + 16 * (size_t)width;
}

int DitherReductionApplies(int bits, int toBits)
{
    switch (toBits) {
    case 8: return bits == 24;
    case 4: return bits == 8 || bits == 24 || bits == 32;
    case 1: return bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
    default: return 0;
    }
}

int DitherReduceRow(const uint8_t *row, int bits, const uint8_t *palette, int32_t width,
                    int32_t matrixRow, int toBits, uint8_t *out, void *scratch)
{
    if (!DitherReductionApplies(bits, toBits))
        return IMG_ERR_TYPE;
    uint8_t *bgr = static_cast<uint8_t *>(scratch);
    int32_t *values = (int32_t *)(void *)(bgr + ((3 * (size_t)width + 7) & ~(size_t)7));
    memset(out, 0, (size_t)DibStride((uint32_t)width, toBits));
    ExpandBgr(row, bits, palette, width, bgr);
    if (toBits == 8) {
        DitherRow332Ordered(bgr, width, matrixRow, out);
    } else if (toBits == 4) {
        ColourFromBgr(bgr, bits, width, values);
        OrderedColourRow(values, width, (uint32_t)matrixRow, out);
    } else {
        GreyFromBgr(bgr, width, values);
        OrderedMonoRow(values, width, bayerTable, (uint32_t)matrixRow, out);
    }
    return 0;
}

/* ---- the source ---- */

typedef struct Source {
    ImgDescriptor *d;
    int bits;
    const uint8_t *palette;
    int32_t width, height;
    uint8_t *bgr;      /* one row of triples (tracked) */
    uint8_t *fetched;  /* one plain row for the promotions (tracked) */
} Source;

/* The descriptor of a handle with a pixel block; -13 / -1 otherwise (a bad
 * handle is refused, never used). */
static int OpenSource(int32_t handle, Source *s)
{
    memset(s, 0, sizeof *s);
    s->d = ImgTableGet(handle);
    if (!s->d)
        return IMG_ERR_HANDLE;
    if (!s->d->dib)
        return IMG_ERR_MEMORY;
    s->bits = ImgDescriptorBits(s->d);
    s->palette = s->d->dib + DIB_HEADER_SIZE;
    s->width = s->d->width;
    s->height = s->d->height;
    if (!DibDepthSupported(s->bits) || s->width < 1 || s->height < 1)
        return IMG_ERR_TYPE;
    if ((uint64_t)s->d->stride < DibStride((uint32_t)s->width, s->bits))
        return IMG_ERR_INVALID;
    return 0;
}

static const uint8_t *PlainStorageRow(const ImgDescriptor *d, int32_t m)
{
    return d->dib + ImgDescriptorBitsOffset(d) + (size_t)m * (size_t)d->stride;
}

/* Storage row m as blue, green, red triples (plain images). */
static const uint8_t *BgrRow(Source *s, int32_t m)
{
    const uint8_t *row = PlainStorageRow(s->d, m);
    if (s->bits == 24)
        return row;
    ExpandBgr(row, s->bits, s->palette, s->width, s->bgr);
    return s->bgr;
}

/* Grey row m; a row at or past the height leaves the buffer unchanged. */
static void ReadGreyRow(Source *s, int32_t m, int32_t *grey)
{
    if (m < s->height)
        GreyFromBgr(BgrRow(s, m), s->width, grey);
}

/* Colour row m into pixel slots from `colour`; past the end the last row. */
static void ReadColourRow(Source *s, int32_t m, int32_t *colour)
{
    if (m >= s->height)
        m = s->height - 1;
    ColourFromBgr(BgrRow(s, m), s->bits, s->width, colour);
}

/* Storage row m through the core's row access: a coded row (picture row
 * height - 1 - m) is expanded. */
static int FetchStorageRow(Source *s, int32_t m)
{
    const ImgDescriptor *d = s->d;
    if (!d->codedRows)
        return (memcpy(s->fetched, PlainStorageRow(d, m), (size_t)d->stride), 0);
    uint32_t bytes;
    const uint16_t *record = RunStoreRow(d, d->height - 1 - m, &bytes);
    if (!record)
        return IMG_ERR_INVALID;
    RunExpandRow(record, bytes, d->width, s->fetched, (uint32_t)d->stride);
    return 0;
}

static void *Tracked(size_t bytes, int *failed)
{
    void *p = ImgAllocTracked(bytes ? bytes : 1);
    if (!p)
        *failed = 1;
    else
        memset(p, 0, bytes ? bytes : 1);
    return p;
}

/* ---- the 1-bit dithers ---- */

typedef struct MonoJob MonoJob;
typedef void (*MonoRowMaker)(MonoJob *job, int32_t m, uint8_t *out);

struct MonoJob {
    Source s;
    int32_t *grey;          /* one grey row */
    const uint8_t *table;   /* ordered: the matrix */
    uint8_t white[256];     /* threshold: grey level -> white */
    int32_t *rows[3];       /* Stucki: rows m, m+1, m+2, two slots of margin */
};

static void OrderedMaker(MonoJob *job, int32_t m, uint8_t *out)
{
    ReadGreyRow(&job->s, m, job->grey);
    OrderedMonoRow(job->grey, job->s.width, job->table, (uint32_t)m, out);
}

static void ThresholdMaker(MonoJob *job, int32_t m, uint8_t *out)
{
    ReadGreyRow(&job->s, m, job->grey);
    memset(out, 0, ((size_t)job->s.width + 7) / 8);
    for (int32_t x = 0; x < job->s.width; x++)
        if (job->white[job->grey[x]])
            out[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
}

/* Stucki: one row, then rows m+1 and m+2 move up and row m+3 is read. */
static void StuckiMaker(MonoJob *job, int32_t m, uint8_t *out)
{
    int32_t width = job->s.width;
    int32_t *cur = job->rows[0] + 2, *next = job->rows[1] + 2, *after = job->rows[2] + 2;
    memset(out, 0, ((size_t)width + 7) / 8);
    int leftToRight = (m & 1) == 0;
    int step = leftToRight ? 1 : -1;
    int32_t x = leftToRight ? 0 : width - 1;
    unsigned mask = leftToRight ? 0x80u : ((width & 7) ? 256u >> (width & 7) : 1u);
    size_t byte = leftToRight ? 0 : ((size_t)width - 1) >> 3;
    for (int32_t k = 0; k < width; k++, x += step) {
        int32_t v = cur[x], e = v;
        if (v > 127) {
            out[byte] |= (uint8_t)mask;
            e = v - 255;
        }
        int32_t a = 8 * e / 42, b = 4 * e / 42, c = e / 21, d = e / 42;
        cur[x + step] += a;
        cur[x + 2 * step] += b;
        next[x - 2] += c, next[x - 1] += b, next[x] += a, next[x + 1] += b, next[x + 2] += c;
        after[x - 2] += d, after[x - 1] += c, after[x] += b, after[x + 1] += c, after[x + 2] += d;
        if (leftToRight) {
            if ((mask >>= 1) == 0)
                mask = 0x80, byte++;
        } else {
            if ((mask <<= 1) == 0x100)
                mask = 1, byte--;
        }
    }
    int32_t *done = job->rows[0];
    job->rows[0] = job->rows[1];
    job->rows[1] = job->rows[2];
    job->rows[2] = done;
    ReadGreyRow(&job->s, m + 3, job->rows[2] + 2);
}

/* "Finishing a 1-bit result": the descriptor switched to coded rows, a
 * 36864-byte block with header and black/white palette, and every row of
 * the temporary bitmap, top first, handed to the row coder. */
static int FinishMono(Source *s, const uint8_t *temp, int32_t stride1)
{
    ImgDescriptor *d = s->d;
    int failed = 0;
    uint16_t *record = static_cast<uint16_t *>(Tracked(RunRecordMaxBytes(s->width), &failed));
    uint32_t *index = RunStoreAllocateIndex(s->width, s->height);
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(CODED_BLOCK_BYTES));
    if (failed || !index || !block) {
        ImgFree(index);
        ImgFree(block);
        return IMG_ERR_MEMORY;
    }
    memset(block, 0, CODED_BLOCK_BYTES);
    memcpy(block, d->dib, DIB_HEADER_SIZE);
    BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)block;
    h->biBitCount = 1;
    h->biCompression = DIB_RUN_CODED;
    h->biSizeImage = (uint32_t)stride1 * (uint32_t)s->height;
    BuildDefaultPalette(block, "tiff"); /* 1 bit: black, white */
    d->stride = stride1;
    d->codedRows = 1;
    ImgFree(d->rowIndex);
    d->rowIndex = index;
    index[0] = 0;
    ImgDescriptorReplaceDib(d, block, CODED_DIB_SIZE);
    for (int32_t r = 0; r < s->height; r++) {
        const uint8_t *row = temp + (size_t)(s->height - 1 - r) * (size_t)stride1;
        int bytes = RunEncodeRow(row, s->width, record);
        int result = RunStoreAppend(d, r, record, (uint32_t)bytes, r + 10);
        if (result < 0)
            return result;
    }
    return 0;
}

/* The frame of the four mono operations. */
static int RunMono(MonoJob *job, MonoRowMaker maker)
{
    Source *s = &job->s;
    int32_t stride1 = (int32_t)DibStride((uint32_t)s->width, 1);
    if ((uint64_t)stride1 * (uint64_t)s->height > BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    if (s->width > RUN_MAX_WIDTH)
        return IMG_ERR_INVALID; /* coded positions are 16-bit: docs/DEVIATIONS.md */
    int failed = 0;
    uint8_t *temp = static_cast<uint8_t *>(Tracked((size_t)stride1 * (size_t)s->height, &failed));
    s->bgr = static_cast<uint8_t *>(Tracked(3 * (size_t)s->width, &failed));
    job->grey = static_cast<int32_t *>(Tracked(4 * (size_t)s->width, &failed));
    if (failed)
        return IMG_ERR_MEMORY;
    for (int32_t m = 0; m < s->height; m++) {
        uint8_t *out = temp + (size_t)m * (size_t)stride1;
        maker(job, m, out);
        int result = ImgReportProgress(s->height);
        if (result < 0)
            return result;
    }
    return FinishMono(s, temp, stride1);
}

static int MonoOperation(int32_t handle, MonoJob *job, MonoRowMaker maker)
{
    int result = OpenSource(handle, &job->s);
    if (result == 0 && job->s.bits == 1)
        result = IMG_ERR_TYPE;
    if (result == 0)
        result = RunMono(job, maker);
    ImgFreeAllTracked();
    return result;
}

int32_t IMGAPI IMG_bayer_mono(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        MonoJob job;
        memset(&job, 0, sizeof job);
        job.table = bayerTable;
        return MonoOperation(handle, &job, OrderedMaker);
    });
}

int32_t IMGAPI IMG_halftone_mono(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        MonoJob job;
        memset(&job, 0, sizeof job);
        job.table = halftoneTable;
        return MonoOperation(handle, &job, OrderedMaker);
    });
}

/* Stucki: the three rows are read before the frame runs. */
static void StuckiStart(MonoJob *job, int32_t m, uint8_t *out)
{
    if (m == 0) {
        for (int k = 0; k < 3; k++)
            ReadGreyRow(&job->s, k, job->rows[k] + 2);
    }
    StuckiMaker(job, m, out);
}

int32_t IMGAPI IMG_diffusion_mono(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        MonoJob job;
        memset(&job, 0, sizeof job);
        int result = OpenSource(handle, &job.s);
        if (result == 0 && job.s.bits == 1)
            result = IMG_ERR_TYPE;
        int failed = 0;
        for (int k = 0; result == 0 && k < 3; k++)
            job.rows[k] = static_cast<int32_t *>(Tracked(4 * ((size_t)job.s.width + 4), &failed));
        if (result == 0 && failed)
            result = IMG_ERR_MEMORY;
        if (result == 0)
            result = RunMono(&job, StuckiStart);
        ImgFreeAllTracked();
        return result;
    });
}

/* Automatic threshold: map[i] = 255 x the cumulative share of bins 0..i,
 * truncated; white when 40 < map[g]. */
static void AutomaticThreshold(MonoJob *job)
{
    Source *s = &job->s;
    uint32_t histogram[256] = {0};
    for (int32_t m = 0; m < s->height; m++) {
        ReadGreyRow(s, m, job->grey);
        for (int32_t x = 0; x < s->width; x++)
            histogram[job->grey[x]]++;
    }
    double total = (double)s->width * (double)s->height, running = 0;
    for (int i = 0; i < 256; i++) {
        running += histogram[i] / total;
        int map = (int)(running * 255.0);
        job->white[i] = 40 < map;
    }
}

static void ThresholdStart(MonoJob *job, int32_t m, uint8_t *out)
{
    if (m == 0 && job->table)
        AutomaticThreshold(job);
    ThresholdMaker(job, m, out);
}

int32_t IMGAPI IMG_thresh_mono(int32_t handle, int32_t threshold)
{
    return Guarded([&]() -> int32_t {
        MonoJob job;
        memset(&job, 0, sizeof job);
        if (threshold == -1)
            job.table = bayerTable; /* marks the automatic mode */
        else
            for (int i = 0; i < 256; i++)
                job.white[i] = threshold < i;
        return MonoOperation(handle, &job, ThresholdStart);
    });
}

/* ---- the operations that build a new plain bitmap ---- */

typedef struct PlainJob PlainJob;
typedef int (*PlainRowMaker)(PlainJob *job, int32_t m, uint8_t *out);

struct PlainJob {
    Source s;
    int32_t *rows[3]; /* colour rows, four integers a pixel, two slots of margin */
    uint8_t *block;   /* the new bitmap */
    int32_t stride;   /* its stride */
    uint32_t offset;  /* its first pixel byte */
};

/* Allocates the new bitmap: header, `paletteRoom`, rows, `slack`; copies the
 * old header and sets bit count and biSizeImage. */
static int NewBitmap(PlainJob *job, int bits, uint32_t paletteRoom, uint32_t slack)
{
    Source *s = &job->s;
    uint64_t stride = DibStride((uint32_t)s->width, bits);
    uint64_t size = DIB_HEADER_SIZE + paletteRoom + stride * (uint64_t)s->height;
    if (size + slack > BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    job->block = static_cast<uint8_t *>(ImgAlloc((size_t)(size + slack)));
    if (!job->block)
        return IMG_ERR_MEMORY;
    memset(job->block, 0, (size_t)(size + slack));
    memcpy(job->block, s->d->dib, DIB_HEADER_SIZE);
    BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)job->block;
    h->biBitCount = (uint16_t)bits;
    h->biSizeImage = (uint32_t)(stride * (uint64_t)s->height);
    job->stride = (int32_t)stride;
    job->offset = DIB_HEADER_SIZE + paletteRoom;
    return 0;
}

/* Writes the palette of `kind` for the new bitmap's bit count. */
static void NewPalette(PlainJob *job, const char *kind)
{
    uint8_t header[IMG_HEADER_BLOCK_SIZE];
    memcpy(header, job->block, DIB_HEADER_SIZE);
    int entries = BuildDefaultPalette(header, kind);
    memcpy(job->block + DIB_HEADER_SIZE, header + DIB_HEADER_SIZE, 4 * (size_t)entries);
}

/* Installs the new bitmap; a coded source loses its coded-row state. */
static void Install(PlainJob *job)
{
    ImgDescriptor *d = job->s.d;
    if (d->codedRows) {
        ImgFree(d->rowIndex);
        d->rowIndex = NULL;
        d->codedRows = 0;
    }
    uint32_t size = job->offset + (uint32_t)job->stride * (uint32_t)job->s.height;
    ImgDescriptorReplaceDib(d, job->block, size);
    d->stride = job->stride;
    job->block = NULL;
}

/* Rows 0..height-1 made into the new bitmap, with or without progress. */
static int MakeRows(PlainJob *job, PlainRowMaker maker, int progress)
{
    for (int32_t m = 0; m < job->s.height; m++) {
        uint8_t *out = job->block + job->offset + (size_t)m * (size_t)job->stride;
        int result = maker(job, m, out);
        if (result == 0 && progress)
            result = ImgReportProgress(job->s.height);
        if (result < 0)
            return result;
    }
    return 0;
}

/* The frame of the colour dithers and the grey conversion: 4 or 8 bits,
 * the palette of `kind`, progress per row. */
static int ColourOperation(PlainJob *job, int32_t handle, int bits, const char *kind,
                           int rejectSixteen, PlainRowMaker maker)
{
    Source *s = &job->s;
    int result = OpenSource(handle, s);
    if (result == 0 && (s->bits == 1 || (rejectSixteen && s->bits == 16)))
        result = IMG_ERR_TYPE;
    int failed = 0;
    if (result == 0) {
        s->bgr = static_cast<uint8_t *>(Tracked(3 * (size_t)s->width, &failed));
        for (int k = 0; k < 3; k++)
            job->rows[k] = static_cast<int32_t *>(Tracked(16 * ((size_t)s->width + 4), &failed));
        result = failed ? IMG_ERR_MEMORY : NewBitmap(job, bits, 4u << bits, 0);
    }
    if (result == 0) {
        NewPalette(job, kind);
        result = MakeRows(job, maker, 1);
    }
    if (result == 0)
        Install(job);
    ImgFree(job->block);
    ImgFreeAllTracked();
    return result;
}

static int BayerColourMaker(PlainJob *job, int32_t m, uint8_t *out)
{
    int32_t *colour = job->rows[0] + 8;
    ReadColourRow(&job->s, m, colour);
    OrderedColourRow(colour, job->s.width, (uint32_t)m, out);
    return 0;
}

int32_t IMGAPI IMG_bayer_color(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        PlainJob job;
        memset(&job, 0, sizeof job);
        return ColourOperation(&job, handle, 4, "pcx", 1, BayerColourMaker);
    });
}

/* Threshold colour diffusion: the index from the unclamped components. */
static unsigned DiffusionIndex(int32_t b, int32_t g, int32_t r)
{
    unsigned index = 0;
    if (b > 180)
        index = 4;
    if (g > 180)
        index = b > 180 ? 6 : 2;
    if (r > 180)
        index |= 1;
    if (b > 220 || g > 220 || r >= 221)
        index |= 8;
    return index;
}

/* One row left to right; the errors against the "pcx" palette (h = 128)
 * spread by shifts into this row and the next. */
static int DiffusionColourMaker(PlainJob *job, int32_t m, uint8_t *out)
{
    int32_t width = job->s.width;
    int32_t *cur = job->rows[0] + 8, *next = job->rows[1] + 8;
    if (m == 0)
        for (int k = 0; k < 3; k++)
            ReadColourRow(&job->s, k, job->rows[k] + 8);
    for (int32_t x = 0; x < width; x++) {
        int32_t *p = cur + 4 * x;
        unsigned index = DiffusionIndex(p[0], p[1], p[2]);
        int32_t level = index < 8 ? 128 : 255;
        int32_t palette[3] = {(index & 4) ? level : 0, (index & 2) ? level : 0,
                              (index & 1) ? level : 0};
        for (int k = 0; k < 3; k++) {
            int32_t e = p[k] - palette[k];
            p[4 + k] += Asr(e, 2);
            p[8 + k] += Asr(e, 3);
            int32_t *q = next + 4 * x + k;
            q[-8] += Asr(e, 4), q[-4] += Asr(e, 3), q[0] += Asr(e, 2);
            q[4] += Asr(e, 3), q[8] += Asr(e, 4);
        }
        if (x & 1)
            out[x >> 1] |= (uint8_t)index;
        else
            out[x >> 1] = (uint8_t)(index << 4);
    }
    /* The second and third rows move up; row m + 3 goes into the second
     * slot (source row 2 is never used).  What the third slot holds
     * is overwritten before any output row reads it. */
    int32_t *done = job->rows[0];
    job->rows[0] = job->rows[1];
    job->rows[1] = job->rows[2];
    job->rows[2] = done;
    ReadColourRow(&job->s, m + 3, job->rows[1] + 8);
    return 0;
}

int32_t IMGAPI IMG_diffusion_color(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        PlainJob job;
        memset(&job, 0, sizeof job);
        return ColourOperation(&job, handle, 4, "pcx", 1, DiffusionColourMaker);
    });
}

/* Grey conversion: (75 G + 38 R + 14 B) >> 7 (white becomes 253). */
static int GreyMaker(PlainJob *job, int32_t m, uint8_t *out)
{
    const uint8_t *bgr = BgrRow(&job->s, m);
    for (int32_t x = 0; x < job->s.width; x++, bgr += 3)
        out[x] = (uint8_t)((75 * bgr[1] + 38 * bgr[2] + 14 * bgr[0]) >> 7);
    return 0;
}

int32_t IMGAPI IMG_color_gray(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        PlainJob job;
        memset(&job, 0, sizeof job);
        return ColourOperation(&job, handle, 8, "tiff", 0, GreyMaker);
    });
}

/* ---- promotions ---- */

static int Promote8Maker(PlainJob *job, int32_t m, uint8_t *out)
{
    Source *s = &job->s;
    int result = FetchStorageRow(s, m);
    if (result < 0)
        return result;
    const uint8_t *row = s->fetched;
    for (int32_t x = 0; x < s->width; x++) {
        switch (s->bits) {
        case 1: out[x] = (row[x >> 3] >> (7 - (x & 7))) & 1 ? 255 : 0; break;
        case 4: out[x] = (uint8_t)((x & 1) ? row[x >> 1] & 0x0F : row[x >> 1] >> 4); break;
        case 8: out[x] = row[x]; break;
        default: out[x] = (uint8_t)(row[2 * x] + 1); break; /* shifted by 1 */
        }
    }
    return 0;
}

static int Promote24Maker(PlainJob *job, int32_t m, uint8_t *out)
{
    Source *s = &job->s;
    int result = FetchStorageRow(s, m);
    if (result == 0)
        ExpandBgr(s->fetched, s->bits, s->palette, s->width, out);
    return result;
}

static int Promote(int32_t handle, int bits)
{
    PlainJob job;
    memset(&job, 0, sizeof job);
    Source *s = &job.s;
    int result = OpenSource(handle, s);
    int accepted = bits == 8 ? (s->bits <= 16) : (s->bits <= 8);
    if (result == 0 && !accepted)
        result = IMG_ERR_TYPE; /* 24 bits (and 16 / 32, which have no conversion here) */
    int failed = 0;
    if (result == 0) {
        s->fetched = static_cast<uint8_t *>(Tracked((size_t)s->d->stride + 8, &failed));
        result = failed ? IMG_ERR_MEMORY
                        : bits == 8 ? NewBitmap(&job, 8, 1024, 0) : NewBitmap(&job, 24, 0, 1000);
    }
    if (result == 0) {
        BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)job.block;
        if (bits == 8) {
            /* The old palette, and biCompression 99 (24 bits writes 0). */
            memcpy(job.block + DIB_HEADER_SIZE, s->palette, DibPaletteSize(s->bits));
            h->biCompression = DIB_RUN_CODED;
            if (s->d->codedRows)
                NewPalette(&job, "tiff");
        } else {
            h->biCompression = 0;
        }
        result = MakeRows(&job, bits == 8 ? Promote8Maker : Promote24Maker, 0);
    }
    if (result == 0)
        Install(&job);
    ImgFree(job.block);
    ImgFreeAllTracked();
    return result;
}

int32_t IMGAPI IMG_promote_8(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        return Promote(handle, 8);
    });
}

int32_t IMGAPI IMG_promote_24(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        return Promote(handle, 24);
    });
}

/* ---- display-time reduction to 3-3-2 ---- */

static int Reduce332Rows(PlainJob *job, int32_t y0)
{
    Source *s = &job->s;
    int32_t width = s->width;
    int32_t *cur = job->rows[0] + 8, *next = job->rows[1] + 8;
    if (ditherMode == 2) {
        ReadColourRow(s, 0, cur);
        ReadColourRow(s, 1, next);
    }
    for (int32_t m = 0; m < s->height; m++) {
        uint8_t *out = job->block + job->offset + (size_t)m * (size_t)job->stride;
        if (ditherMode != 2) {
            DitherRow332Ordered(BgrRow(s, m), width, y0 + m, out);
            continue;
        }
        /* The 3-3-2 palette's diffusion; its accumulator rows start 2 pixels of 4 slots early */
        PaletteFixedDiffuseRow(job->rows[0], job->rows[1], width, m, out);
        memcpy(job->rows[0], job->rows[1], 16 * ((size_t)width + 4));
        ReadColourRow(s, m + 2, next);
    }
    return 0;
}

int DitherReduceTo332(const ImgDescriptor *d, int32_t y0, uint8_t **bitmap)
{
    PlainJob job;
    memset(&job, 0, sizeof job);
    Source *s = &job.s;
    *bitmap = NULL;
    if (!d || !d->dib)
        return IMG_ERR_MEMORY;
    s->d = (ImgDescriptor *)d;
    s->bits = ImgDescriptorBits(d);
    s->palette = d->dib + DIB_HEADER_SIZE;
    s->width = d->width;
    s->height = d->height;
    if ((s->bits != 4 && s->bits != 8 && s->bits != 24 && s->bits != 32) || d->codedRows ||
        s->width < 1 || s->height < 1 ||
        (uint64_t)d->stride < DibStride((uint32_t)s->width, s->bits))
        return IMG_ERR_TYPE;
    int failed = 0;
    s->bgr = static_cast<uint8_t *>(Tracked(3 * (size_t)s->width, &failed));
    for (int k = 0; k < 2; k++)
        job.rows[k] = static_cast<int32_t *>(Tracked(16 * ((size_t)s->width + 4), &failed));
    int result = failed ? IMG_ERR_MEMORY : NewBitmap(&job, 8, 1024, 0);
    if (result == 0) {
        NewPalette(&job, "332");
        result = Reduce332Rows(&job, y0);
    }
    if (result == 0) {
        *bitmap = job.block;
        job.block = NULL;
    }
    ImgFree(job.block);
    ImgFreeAllTracked();
    return result;
}
