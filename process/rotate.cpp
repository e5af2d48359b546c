/*
 * rotate.cpp - IMG_rotate_bitmap.
 *
 * 0 does nothing; 18000 is a flip left-right and a flip top-bottom (the
 * second without progress); 9000 and 27000 are quarter turns by
 * transposition; any other angle is a free rotation by the inverse 16.16
 * nearest-neighbour mapping, on a canvas grown by the folded
 * angle.  Run-coded images are expanded into a plain buffer, turned, and
 * re-coded row by row through core/runs.cpp.
 *
 * Every new picture is built beside the old one and put in place only when
 * complete, so a failure (memory, a negative progress result, a failing
 * flip) leaves the image as it was.  Empty or oversized canvases, reads in
 * the source block's slack and 32-bit products are handled as
 * docs/DEVIATIONS.md lists under rotate, flip and invert.
 */
#include <math.h>
#include <stdint.h>
#include <string.h>

#include "core/guard.h"
#include "core/progress.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"

#define ROTATE_PI 3.14159265358979323846
#define RESULT_SLACK 8192u       /* slack behind every result block */
#define BLOCK_LIMIT 0x7FFFFFFFu  /* the largest block a 32-bit size describes */
#define QUARTER_EXTRA_ROWS 33    /* rows of a quarter turn's block: width + 33 */

/* ---- shared pieces ---- */

/* A plain picture as rows of bytes: storage row 0 first. */
typedef struct Raster {
    uint8_t *pixels;
    int32_t width, height, stride, bits;
} Raster;

/* Header and palette of the image plus `pixelBytes` + slack, the pixel area
 * pre-filled with `fill` (no pre-fill when fill is negative).  NULL when the
 * block would pass 2 GiB or cannot be had. */
static uint8_t *NewResultBlock(const ImgDescriptor *d, uint64_t pixelBytes, int fill)
{
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t size = offset + pixelBytes + RESULT_SLACK;
    if (size > BLOCK_LIMIT)
        return NULL;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc((size_t)size));
    if (!block)
        return NULL;
    memcpy(block, d->dib, offset);
    if (fill >= 0)
        memset(block + offset, fill, (size_t)(pixelBytes + RESULT_SLACK));
    return block;
}

static void SetHeaderGeometry(uint8_t *block, int32_t width, int32_t height, uint64_t sizeImage)
{
    BITMAPINFOHEADER header;
    memcpy(&header, block, sizeof header);
    header.biWidth = width;
    header.biHeight = height;
    header.biSizeImage = (uint32_t)sizeImage;
    memcpy(block, &header, sizeof header);
}

/* A coded store built beside the image: a block holding the image's header
 * and palette, and a fresh row index, for `width` x `height` rows. */
static int BeginCodedStore(const ImgDescriptor *d, ImgDescriptor *store, int32_t width,
                           int32_t height)
{
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t plain = offset + DibStride((uint32_t)width, 1) * (uint64_t)height;
    uint32_t initial = (uint32_t)(width >= 10000 ? plain / 50 : plain / 8) + offset;
    *store = *d;
    store->width = width;
    store->height = height;
    store->dib = static_cast<uint8_t *>(ImgAlloc((size_t)initial + RESULT_SLACK));
    store->rowIndex = RunStoreAllocateIndex(width, height);
    if (!store->dib || !store->rowIndex) {
        ImgFree(store->dib);
        ImgFree(store->rowIndex);
        return IMG_ERR_MEMORY;
    }
    memcpy(store->dib, d->dib, offset);
    store->dibSize = initial;
    return 0;
}

/* Codes the packed 1-bit rows of `plain` into `store` as rows 0, 1, ...,
 * taking them from the first or, with fromLast, from the last; progress once
 * per row when progressTotal is positive. */
static int CodeRows(ImgDescriptor *store, const Raster *plain, int fromLast, int32_t progressTotal)
{
    uint16_t *record = static_cast<uint16_t *>(ImgAlloc(RunRecordMaxBytes(store->width)));
    if (!record)
        return IMG_ERR_MEMORY;
    int result = 0;
    for (int32_t t = 0; result == 0 && t < store->height; t++) {
        if (progressTotal > 0 && (result = ImgReportProgress(progressTotal)) < 0)
            break;
        int32_t source = fromLast ? store->height - 1 - t : t;
        const uint8_t *row = plain->pixels + (size_t)source * (size_t)plain->stride;
        int bytes = RunEncodeRow(row, store->width, record);
        result = RunStoreAppend(store, t, record, (uint32_t)bytes, t + 10.0);
    }
    ImgFree(record);
    return result;
}

/* Expands coded row `row` into `target` (`bytes` bytes); a row the index
 * does not describe reads as white. */
static void ExpandCodedRow(const ImgDescriptor *d, int32_t row, uint8_t *target, uint32_t bytes)
{
    uint32_t recordBytes;
    const uint16_t *record = RunStoreRow(d, row, &recordBytes);
    if (record)
        RunExpandRow(record, recordBytes, d->width, target, bytes);
    else
        memset(target, 0xFF, bytes);
}

/* Puts a finished coded store in the image's place: the header part of
 * `header` (the result block) becomes the store's header. */
/* Code a whole plain buffer into a new store; on failure nothing is left allocated. */
static int CodeIntoStore(const ImgDescriptor *d, ImgDescriptor *store, const Raster *plain,
                         int fromLast, int32_t progressTotal)
{
    int result = BeginCodedStore(d, store, plain->width, plain->height);
    if (result == 0) {
        result = CodeRows(store, plain, fromLast, progressTotal);
        if (result < 0) {
            ImgFree(store->dib);
            ImgFree(store->rowIndex);
        }
    }
    return result;
}

static void InstallCodedStore(ImgDescriptor *d, ImgDescriptor *store, const uint8_t *header)
{
    memcpy(store->dib, header, ImgDescriptorBitsOffset(d));
    ImgDescriptorReplaceDib(d, store->dib, store->dibSize);
    ImgFree(d->rowIndex);
    d->rowIndex = store->rowIndex;
}

/* ---- quarter turn: transposition ---- */

/* Hacker's Delight transpose8: byte b of the result holds, most significant
 * bit first, bit b (most significant first) of the eight input bytes. */
static uint64_t Transpose8(uint64_t x)
{
    uint64_t t;
    t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x = x ^ t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x = x ^ t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x = x ^ t ^ (t << 28);
    return x;
}

/* Writes byte column `m` of the transposed rows from eight source rows
 * (rows[b] is the row whose pixels become bit b of that byte): target row k
 * takes bit k of each.  Rows all `skip` are not written (the target is
 * pre-filled with it); skip < 0 writes everything. */
static void TransposeByteColumn(const uint8_t *const rows[8], int32_t sourceBytes, uint8_t *target,
                                int32_t targetStride, int32_t targetRows, int32_t m, int skip)
{
    uint64_t solid = skip >= 0 ? 0x0101010101010101ull * (uint8_t)skip : 0;
    for (int32_t n = 0; n < sourceBytes; n++) {
        uint64_t x = 0;
        for (int b = 0; b < 8; b++)
            x = (x << 8) | rows[b][n];
        if (skip >= 0 && x == solid)
            continue;
        x = Transpose8(x);
        int32_t first = n * 8;
        int32_t count = targetRows - first < 8 ? targetRows - first : 8;
        uint8_t *out = target + (size_t)first * (size_t)targetStride + (size_t)m;
        for (int i = 0; i < count; i++, out += targetStride)
            out[0] = (uint8_t)(x >> (56 - 8 * i));
    }
}

/* Progress for `count` target rows. */
static int ReportRows(int32_t count, int32_t total)
{
    for (int32_t i = 0; i < count; i++) {
        int result = ImgReportProgress(total);
        if (result < 0)
            return result;
    }
    return 0;
}

/* 1 bit: target storage row k, byte m takes bit k of source storage rows
 * 8m .. 8m + 7 (a target byte column at a time, so every target row is
 * reported first).  Source rows beyond the height read as 0 bits. */
static int Transpose1(const Raster *source, Raster *target, const uint8_t *zeroRow)
{
    int result = ReportRows(target->height, target->height);
    if (result < 0)
        return result;
    int32_t sourceBytes = (source->width + 7) / 8;
    for (int32_t m = 0; m < target->stride; m++) {
        const uint8_t *rows[8];
        for (int b = 0; b < 8; b++) {
            int64_t r = (int64_t)m * 8 + b;
            rows[b] = r < source->height ? source->pixels + (size_t)r * (size_t)source->stride
                                         : zeroRow;
        }
        TransposeByteColumn(rows, sourceBytes, target->pixels, target->stride, target->height, m,
                            -1);
    }
    return 0;
}

/* 4 bits: target storage row k, nibble r takes nibble k of source storage
 * row r; the padding nibble and bytes are 0. */
static void Transpose4Band(const Raster *source, Raster *target, int32_t first, int32_t count)
{
    for (int32_t r = 0; r < source->height; r++) {
        const uint8_t *in = source->pixels + (size_t)r * (size_t)source->stride;
        int shift = (r & 1) ? 0 : 4;
        for (int32_t k = first; k < first + count; k++) {
            unsigned nibble = (k & 1) ? in[k >> 1] & 0x0F : in[k >> 1] >> 4;
            uint8_t *out = target->pixels + (size_t)k * (size_t)target->stride + (size_t)(r >> 1);
            *out = (uint8_t)((shift ? 0 : *out & 0xF0) | (nibble << shift));
        }
    }
    int32_t used = (source->height + 1) / 2;
    for (int32_t k = first; k < first + count; k++)
        memset(target->pixels + (size_t)k * (size_t)target->stride + used, 0,
               (size_t)(target->stride - used));
}

/* 8/16/24/32 bits: whole pixels of `size` bytes, target storage row k,
 * pixel r from source storage row r, pixel k; in tiles of 32 x 32. */
static inline void TransposePixelTile(const Raster *source, Raster *target, int32_t k0, int32_t k1,
                                      int32_t r0, int32_t r1, const int size)
{
    for (int32_t k = k0; k < k1; k++) {
        uint8_t *out = target->pixels + (size_t)k * (size_t)target->stride + (size_t)r0 * size;
        const uint8_t *in = source->pixels + (size_t)r0 * (size_t)source->stride + (size_t)k * size;
        for (int32_t r = r0; r < r1; r++, out += size, in += source->stride)
            memcpy(out, in, (size_t)size);
    }
}

static void TransposePixelsBand(const Raster *source, Raster *target, int32_t first, int32_t count,
                                int size)
{
    for (int32_t r0 = 0; r0 < source->height; r0 += 32) {
        int32_t r1 = source->height - r0 < 32 ? source->height : r0 + 32;
        switch (size) {
        case 1: TransposePixelTile(source, target, first, first + count, r0, r1, 1); break;
        case 2: TransposePixelTile(source, target, first, first + count, r0, r1, 2); break;
        case 3: TransposePixelTile(source, target, first, first + count, r0, r1, 3); break;
        default: TransposePixelTile(source, target, first, first + count, r0, r1, 4); break;
        }
    }
    size_t used = (size_t)source->height * (size_t)size;
    for (int32_t k = first; k < first + count; k++)
        memset(target->pixels + (size_t)k * (size_t)target->stride + used, 0,
               (size_t)target->stride - used);
}

/* The transposition of a plain picture, progress once per target row. */
static int TransposePlain(const Raster *source, Raster *target)
{
    if (source->bits == 1) {
        uint8_t *zeroRow = static_cast<uint8_t *>(ImgAlloc((size_t)source->stride));
        if (!zeroRow)
            return IMG_ERR_MEMORY;
        memset(zeroRow, 0, (size_t)source->stride);
        int result = Transpose1(source, target, zeroRow);
        ImgFree(zeroRow);
        return result;
    }
    for (int32_t first = 0; first < target->height; first += 32) {
        int32_t count = target->height - first < 32 ? target->height - first : 32;
        int result = ReportRows(count, target->height);
        if (result < 0)
            return result;
        if (source->bits == 4)
            Transpose4Band(source, target, first, count);
        else
            TransposePixelsBand(source, target, first, count, source->bits / 8);
    }
    return 0;
}

/* Crop rectangle and display size after a quarter turn:
 * swapped, then the fix-ups that `fixX` / `fixY` ask for. */
static void TurnCrop(ImgDescriptor *d, int fixX, int fixY)
{
    int32_t x = d->cropX, width = d->cropWidth;
    d->cropX = d->cropY;
    d->cropY = x;
    d->cropWidth = d->cropHeight;
    d->cropHeight = width;
    d->displayWidth = d->width;
    d->displayHeight = d->height;
    /* In 64 bits: the crop rectangle is stored unchecked. */
    if (fixX)
        d->cropX = (int32_t)((int64_t)d->width - d->cropWidth - d->cropX);
    if (fixY)
        d->cropY = (int32_t)((int64_t)d->height - d->cropHeight - d->cropY);
}

/* The new geometry of a quarter turn in the descriptor. */
static void TurnGeometry(ImgDescriptor *d, int32_t stride)
{
    int32_t width = d->width;
    d->width = d->height;
    d->height = width;
    d->stride = stride;
}

static int QuarterTurnPlain(ImgDescriptor *d, int32_t handle, int32_t angle)
{
    int bits = ImgDescriptorBits(d);
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t stride = DibStride((uint32_t)d->height, bits);
    uint64_t area = DibStride((uint32_t)d->height + 1, bits) * ((uint64_t)d->width + QUARTER_EXTRA_ROWS);
    uint8_t *block = NewResultBlock(d, area, bits == 1 ? 0x00 : -1);
    if (!block)
        return IMG_ERR_MEMORY;
    Raster source = {d->dib + offset, d->width, d->height, d->stride, bits};
    Raster target = {block + offset, d->height, d->width, (int32_t)stride, bits};
    int result = TransposePlain(&source, &target);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    SetHeaderGeometry(block, d->height, d->width, stride * (uint64_t)d->width);

    /* In place with the old block set aside until the flip has succeeded. */
    ImgDescriptor saved = *d;
    d->dib = block;
    d->callerOwnsDib = 0;
    d->dibSize = (uint32_t)(offset + stride * (uint64_t)d->width);
    TurnGeometry(d, (int32_t)stride);
    TurnCrop(d, 1, 1);
    result = angle == 9000 ? IMG_flip_bitmapy(handle) : IMG_flip_bitmapx(handle);
    if (result < 0) {
        ImgFree(d->dib); /* the new block, or the flip's replacement of it */
        *d = saved;
        return result;
    }
    uint8_t *turned = d->dib;
    uint32_t turnedSize = d->dibSize;
    d->dib = saved.dib;
    d->callerOwnsDib = saved.callerOwnsDib;
    ImgDescriptorReplaceDib(d, turned, turnedSize);
    return 0;
}

/* Expands coded rows into the columns of `target` (pre-filled 0xFF):
 * column c holds the old row H - 1 - c for 9000 and row c for 27000, so that
 * taking target rows from the first (9000) or the last (27000) turns the
 * picture clockwise or counter-clockwise. */
static int ExpandIntoColumns(const ImgDescriptor *d, Raster *target, int clockwise)
{
    size_t rowBytes = (size_t)d->stride;
    uint8_t *scratch = static_cast<uint8_t *>(ImgAlloc(rowBytes * 9));
    if (!scratch)
        return IMG_ERR_MEMORY;
    uint8_t *white = scratch + rowBytes * 8;
    memset(white, 0xFF, rowBytes);
    int32_t sourceBytes = (d->width + 7) / 8;
    for (int32_t m = 0; m < target->stride; m++) {
        const uint8_t *rows[8];
        for (int b = 0; b < 8; b++) {
            int64_t column = (int64_t)m * 8 + b;
            int64_t row = clockwise ? d->height - 1 - column : column;
            if (row < 0 || row >= d->height) {
                rows[b] = white;
                continue;
            }
            ExpandCodedRow(d, (int32_t)row, scratch + rowBytes * (size_t)b, (uint32_t)rowBytes);
            rows[b] = scratch + rowBytes * (size_t)b;
        }
        TransposeByteColumn(rows, sourceBytes, target->pixels, target->stride, target->height, m,
                            0xFF);
    }
    ImgFree(scratch);
    return 0;
}

static int QuarterTurnCoded(ImgDescriptor *d, int32_t angle)
{
    if (d->height > RUN_MAX_WIDTH)
        return IMG_ERR_TYPE; /* the turned rows could not be run-coded */
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t stride = DibStride((uint32_t)d->height, 1);
    uint64_t area = DibStride((uint32_t)d->height + 1, 1) * ((uint64_t)d->width + QUARTER_EXTRA_ROWS);
    uint8_t *block = NewResultBlock(d, area, 0xFF);
    if (!block)
        return IMG_ERR_MEMORY;
    Raster buffer = {block + offset, d->height, d->width, (int32_t)stride, 1};
    ImgDescriptor store;
    int result = ExpandIntoColumns(d, &buffer, angle == 9000);
    if (result == 0)
        result = CodeIntoStore(d, &store, &buffer, angle == 27000, d->width);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    SetHeaderGeometry(block, d->height, d->width, stride * (uint64_t)d->width);
    InstallCodedStore(d, &store, block);
    ImgFree(block);
    TurnGeometry(d, (int32_t)stride);
    TurnCrop(d, angle == 9000, angle == 27000);
    return 0;
}

/* ---- free rotation ---- */

/* R: half away from zero. */
static int64_t RoundHalfAway(double value)
{
    return value >= 0 ? (int64_t)(value + 0.5) : (int64_t)(value - 0.5);
}

/* The canvas growth dw and dh from the folded angle (negative angles and
 * angles of 360 degrees and more are not folded into 0..90). */
static void CanvasGrowth(int32_t angle, int32_t width, int32_t height, int64_t *dw, int64_t *dh)
{
    double a = angle * 0.01;
    if (a < 270)
        a = a >= 180 ? a - 180 : a < 90 ? a : 180 - a;
    else
        a = 360 - a;
    while (a > 90)
        a -= 90;
    double theta = a * ROTATE_PI * (1.0 / 180);
    double c = cos(theta), s = sin(theta);
    int32_t hw = width / 2, hh = height / 2;
    *dw = 2 * (RoundHalfAway((c + 1) * hw + s * hh) - width);
    *dh = 2 * (RoundHalfAway((c + 1) * hh + s * hw) - height);
}

/* The inverse mapping's walk along one destination row. */
typedef struct RowWalk {
    int64_t sx, sy, stepX, stepY;
    int32_t hx, columns; /* x runs from -hx, `columns` times */
} RowWalk;

static int64_t FloorDiv(int64_t a, int64_t b)
{
    int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

/* The columns i (0 <= i < n) at which (start + i * step) >> 16 lies in
 * 0 .. limit - 1, as [*lo, *hi). */
static void InsideColumns(int64_t start, int64_t step, int32_t limit, int32_t n, int64_t *lo,
                          int64_t *hi)
{
    int64_t top = (int64_t)limit * 65536 - 1; /* v >> 16 < limit  <=>  v <= top */
    if (step == 0) {
        *lo = 0;
        *hi = start >= 0 && start <= top ? n : 0;
    } else if (step > 0) {
        *lo = -FloorDiv(start, step);        /* ceil(-start / step) */
        *hi = FloorDiv(top - start, step) + 1;
    } else {
        *lo = -FloorDiv(start - top, step);  /* ceil((top - start) / step) */
        *hi = FloorDiv(-start, step) + 1;
    }
    if (*lo < 0)
        *lo = 0;
    if (*hi > n)
        *hi = n;
}

/* The columns of a row whose source pixel lies inside the picture: the
 * mapping is linear in the column, so they are one span, found up front;
 * outside it the pre-fill stays. */
static void InsideSpan(const Raster *source, const RowWalk *w, int64_t *lo, int64_t *hi)
{
    int64_t lc, hc, ls, hs;
    InsideColumns(w->sx, w->stepX, source->width, w->columns, &lc, &hc);
    InsideColumns(w->sy, w->stepY, source->height, w->columns, &ls, &hs);
    *lo = lc > ls ? lc : ls;
    *hi = hc < hs ? hc : hs;
}

/* 1 bit: the destination bit (mask from 0x80 each row) is cleared where the
 * source bit is 0. */
static void MapRow1(const Raster *source, uint8_t *out, RowWalk w)
{
    int64_t lo, hi;
    InsideSpan(source, &w, &lo, &hi);
    int64_t sx = w.sx + lo * w.stepX, sy = w.sy + lo * w.stepY;
    for (int64_t i = lo; i < hi; i++, sx += w.stepX, sy += w.stepY) {
        int64_t c = sx >> 16, s = sy >> 16;
        uint8_t in = source->pixels[(size_t)s * (size_t)source->stride + (size_t)(c >> 3)];
        if (!(in & (0x80 >> (c & 7))))
            out[i >> 3] &= (uint8_t)~(0x80 >> (i & 7));
    }
}

/* 4 bits: the nibble by the parity of the running column x (from -hx); an
 * odd x writes the low nibble and advances, so an odd hx shifts the picture
 * by one pixel and may touch one byte behind the row (the next row's first
 * byte, or the block's slack). */
static void MapRow4(const Raster *source, uint8_t *out, RowWalk w)
{
    for (int32_t i = 0; i < w.columns; i++) {
        int64_t x = (int64_t)i - w.hx;
        int64_t c = w.sx >> 16, s = w.sy >> 16;
        w.sx += w.stepX;
        w.sy += w.stepY;
        int inside = (uint64_t)s < (uint64_t)source->height && (uint64_t)c < (uint64_t)source->width;
        unsigned nibble = 0;
        if (inside) {
            uint8_t in = source->pixels[(size_t)s * (size_t)source->stride + (size_t)(c >> 1)];
            nibble = (c & 1) ? in & 0x0F : in >> 4;
        }
        if (x % 2 == 0) {
            if (inside)
                *out = (uint8_t)((*out & 0x0F) | (nibble << 4));
        } else {
            if (inside)
                *out = (uint8_t)((*out & 0xF0) | nibble);
            out++;
        }
    }
}

static inline void MapRowBytes(const Raster *source, uint8_t *out, RowWalk w, const int size)
{
    int64_t lo, hi;
    InsideSpan(source, &w, &lo, &hi);
    int64_t sx = w.sx + lo * w.stepX, sy = w.sy + lo * w.stepY;
    out += lo * size;
    for (int64_t i = lo; i < hi; i++, sx += w.stepX, sy += w.stepY, out += size) {
        int64_t c = sx >> 16, s = sy >> 16;
        memcpy(out, source->pixels + (size_t)s * (size_t)source->stride + (size_t)c * size,
               (size_t)size);
    }
}

static void MapRow(const Raster *source, uint8_t *out, RowWalk w)
{
    switch (source->bits) {
    case 1: MapRow1(source, out, w); break;
    case 4: MapRow4(source, out, w); break;
    case 8: MapRowBytes(source, out, w, 1); break;
    case 16: MapRowBytes(source, out, w, 2); break;
    case 24: MapRowBytes(source, out, w, 3); break;
    default: MapRowBytes(source, out, w, 4); break;
    }
}

/* Fills `target` (new width and height, pre-filled) from
 * `source` by the inverse mapping of `angle` (hundredths of a degree, not
 * folded) with the canvas growth dw, dh; progress once per target row. */
static int MapRotation(const Raster *source, Raster *target, int64_t angle, int32_t dw, int32_t dh)
{
    double theta = (double)angle * 0.01 * ROTATE_PI / 180;
    double c = cos(theta), s = sin(theta);
    int32_t newWidth = target->width;
    RowWalk walk;
    walk.stepX = (int64_t)(newWidth * c) * 65536 / newWidth;
    walk.stepY = (int64_t)(newWidth * s) * 65536 / newWidth;
    int32_t cx = source->width / 2, cy = source->height / 2;
    int32_t hx = dw / 2, hy = dh / 2; /* dw and dh are even: the arithmetic shift */
    double A = cx - ((double)hx + cx) * c, B = cy - ((double)hx + cx) * s;
    walk.hx = hx;
    walk.columns = newWidth;
    for (int32_t row = 0; row < target->height; row++) {
        int result = ImgReportProgress(target->height); /* height + 2 * hy */
        if (result < 0)
            return result;
        int64_t y = (int64_t)row - hy;
        walk.sx = (int64_t)((double)(cy - y) * s + A) * 65536;
        walk.sy = (int64_t)((double)(y - cy) * c + B) * 65536;
        MapRow(source, target->pixels + (size_t)row * (size_t)target->stride, walk);
    }
    return 0;
}

/* The canvas growth and the checks: the new size, or -7 for a canvas that would be
 * empty (or, for coded rows, too wide to code) and -1 for one too large. */
static int FreeCanvas(const ImgDescriptor *d, int32_t angle, int bits, int64_t *dw, int64_t *dh,
                      uint64_t *stride)
{
    CanvasGrowth(angle, d->width, d->height, dw, dh);
    int64_t width = d->width + *dw, height = d->height + *dh;
    if (width < 1 || height < 1)
        return IMG_ERR_TYPE;
    if (width > INT32_MAX || height > INT32_MAX)
        return IMG_ERR_MEMORY;
    if (d->codedRows && width > RUN_MAX_WIDTH)
        return IMG_ERR_TYPE;
    *stride = DibStride((uint32_t)width, bits);
    if (*stride * (uint64_t)height > BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    return 0;
}

/* The new geometry in the header of the result block and in the descriptor
 * (crop and display become the whole image). */
static void FinishFree(ImgDescriptor *d, uint8_t *block, int bits, int32_t width, int32_t height,
                       uint64_t stride)
{
    /* biSizeImage: the stride of new-height pixels times the new width. */
    SetHeaderGeometry(block, width, height,
                      DibStride((uint32_t)height, bits) * (uint64_t)width);
    d->cropX = d->cropY = 0;
    d->cropWidth = d->displayWidth = d->width = width;
    d->cropHeight = d->displayHeight = d->height = height;
    d->stride = (int32_t)stride;
}

static int FreeRotatePlain(ImgDescriptor *d, int32_t angle)
{
    int bits = ImgDescriptorBits(d);
    int64_t dw, dh;
    uint64_t stride;
    int result = FreeCanvas(d, angle, bits, &dw, &dh, &stride);
    if (result < 0)
        return result;
    int32_t width = (int32_t)(d->width + dw), height = (int32_t)(d->height + dh);
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t area = stride * (uint64_t)height;
    uint8_t *block = NewResultBlock(d, area, bits == 1 ? 0xFF : 0x00);
    if (!block)
        return IMG_ERR_MEMORY;
    Raster source = {d->dib + offset, d->width, d->height, d->stride, bits};
    Raster target = {block + offset, width, height, (int32_t)stride, bits};
    result = MapRotation(&source, &target, angle, (int32_t)dw, (int32_t)dh);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    FinishFree(d, block, bits, width, height, stride);
    ImgDescriptorReplaceDib(d, block, (uint32_t)(offset + area));
    return 0;
}

/* Coded rows: expanded top-down into a plain buffer, turned by the negated
 * angle (the buffer's rows run the other way) on the canvas of the angle,
 * re-coded with the first buffer row as row 0. */
static int FreeRotateCoded(ImgDescriptor *d, int32_t angle)
{
    int64_t dw, dh;
    uint64_t stride;
    int result = FreeCanvas(d, angle, 1, &dw, &dh, &stride);
    if (result < 0)
        return result;
    int32_t width = (int32_t)(d->width + dw), height = (int32_t)(d->height + dh);
    uint64_t plainBytes = (uint64_t)d->stride * (uint64_t)d->height;
    if (plainBytes > BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint8_t *block = NewResultBlock(d, stride * (uint64_t)height, 0xFF);
    uint8_t *plain = static_cast<uint8_t *>(ImgAlloc((size_t)plainBytes));
    if (!block || !plain) {
        ImgFree(block);
        ImgFree(plain);
        return IMG_ERR_MEMORY;
    }
    for (int32_t row = 0; row < d->height; row++)
        ExpandCodedRow(d, row, plain + (size_t)row * (size_t)d->stride, (uint32_t)d->stride);
    Raster source = {plain, d->width, d->height, d->stride, 1};
    Raster target = {block + offset, width, height, (int32_t)stride, 1};
    result = MapRotation(&source, &target, -(int64_t)angle, (int32_t)dw, (int32_t)dh);
    ImgFree(plain);
    ImgDescriptor store;
    if (result == 0)
        result = CodeIntoStore(d, &store, &target, 0, 0);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    FinishFree(d, block, 1, width, height, stride);
    InstallCodedStore(d, &store, block);
    ImgFree(block);
    return 0;
}

/* ---- dispatch ---- */

/* 18000: flip left-right, then top-bottom with progress switched off, so
 * the caller sees one pass.  When the second flip fails the first is undone
 * (also without progress), leaving the image as it was. */
static int HalfTurn(int32_t handle)
{
    int result = IMG_flip_bitmapx(handle);
    if (result < 0)
        return result;
    int enabled = ImgStatusEnabled();
    ImgSetStatusEnabled(0);
    result = IMG_flip_bitmapy(handle);
    if (result < 0)
        (void)IMG_flip_bitmapx(handle);
    ImgSetStatusEnabled(enabled);
    return result;
}

/* The descriptor's geometry describes its block (what every mapping and
 * transposition relies on before it reads a row). */
static int GeometryFits(const ImgDescriptor *d, int bits)
{
    if (d->width < 1 || d->height < 1 || d->stride < 1)
        return 0;
    if (d->codedRows)
        return d->rowIndex != NULL && (uint64_t)d->stride >= DibStride((uint32_t)d->width, 1);
    uint64_t end = ImgDescriptorBitsOffset(d) + (uint64_t)d->stride * (uint64_t)d->height;
    return (uint64_t)d->stride >= DibStride((uint32_t)d->width, bits) && end <= d->dibSize;
}

int32_t IMGAPI IMG_rotate_bitmap(int32_t handle, int32_t angle)
{
    return Guarded([&]() -> int32_t {
        if (angle == 0)
            return 0;
        ImgDescriptor *d = ImgTableGet(handle);
        if (!d)
            return IMG_ERR_HANDLE;
        if (!d->dib)
            return IMG_ERR_MEMORY;
        int bits = ImgDescriptorBits(d);
        if (!DibDepthSupported(bits) || (d->codedRows && bits != 1))
            return IMG_ERR_DEPTH;
        if (!GeometryFits(d, bits))
            return IMG_ERR_INVALID;
        if (angle == 18000)
            return HalfTurn(handle);
        if (angle == 9000 || angle == 27000)
            return d->codedRows ? QuarterTurnCoded(d, angle) : QuarterTurnPlain(d, handle, angle);
        return d->codedRows ? FreeRotateCoded(d, angle) : FreeRotatePlain(d, angle);
    });
}
