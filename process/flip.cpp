/*
 * flip.cpp - flip left-right (IMG_flip_bitmapx), flip top-bottom
 * (IMG_flip_bitmapy) and invert (IMG_invert_bitmap), on plain bitmaps of 1,
 * 4, 8, 16, 24 and 32 bits and on coded rows.
 *
 * Plain flips left-right and inverts work in place, row by row; a negative
 * progress result undoes the rows already done, so the image is as it was.
 * Everything else builds a new block and puts it in place only on success.
 * Coded rows are never expanded: each record is mirrored, complemented or
 * copied as a list of positions (core/runs.cpp).
 */
#include "process/flip.h"

#include <stddef.h>
#include <string.h>

#include "core/bit_reversal.h"
#include "core/guard.h"
#include "core/progress.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"

/* The largest block a coded store may take (what RunStoreReserve allows). */
#define CODED_BLOCK_LIMIT (0x7FFFFFFFu - 200u)

/* ---- mirroring one plain row ---- */

/* 1 bit: the bytes reversed and bit-reversed, then shifted left by the
 * padding bits of the last byte, which are taken from the source. */
static void Mirror1(const uint8_t *source, uint8_t *target, int32_t width)
{
    size_t n = ((size_t)width + 7) / 8;
    unsigned pad = (unsigned)(n * 8 - (size_t)width);
    unsigned current = kBitReversal[source[n - 1]];
    for (size_t j = 0; j < n; j++) {
        unsigned next = j + 1 < n ? kBitReversal[source[n - 2 - j]] : 0;
        target[j] = (uint8_t)(pad ? (current << pad) | (next >> (8 - pad)) : current);
        current = next;
    }
    uint8_t padding = (uint8_t)((1u << pad) - 1);
    target[n - 1] = (uint8_t)((target[n - 1] & ~padding) | (source[n - 1] & padding));
}

/* 4 bits: even widths reverse the bytes and swap their nibbles; odd widths
 * take the high nibble of byte k and the low nibble of byte k - 1. */
static void Mirror4(const uint8_t *source, uint8_t *target, int32_t width)
{
    size_t n = ((size_t)width + 1) / 2;
    if ((width & 1) == 0) {
        for (size_t j = 0; j < n; j++) {
            uint8_t b = source[n - 1 - j];
            target[j] = (uint8_t)((b << 4) | (b >> 4));
        }
        return;
    }
    for (size_t j = 0; j + 1 < n; j++) {
        size_t k = n - 1 - j;
        target[j] = (uint8_t)((source[k] & 0xF0) | (source[k - 1] & 0x0F));
    }
    target[n - 1] = (uint8_t)(source[0] & 0xF0);
}

/* 8, 16, 24, 32 bits: whole pixels of Size bytes reversed; one loop for
 * every byte depth, each copy of a size the compiler knows. */
template <size_t Size>
static void MirrorPixels(const uint8_t *source, uint8_t *target, int32_t width)
{
    const uint8_t *from = source + (size_t)(width - 1) * Size;
    for (int32_t x = 0; x < width; x++, target += Size, from -= Size)
        memcpy(target, from, Size);
}

void FlipMirrorRow(const uint8_t *source, uint8_t *target, int32_t width, int bits)
{
    if (width < 1)
        return;
    switch (bits) {
    case 1: Mirror1(source, target, width); break;
    case 4: Mirror4(source, target, width); break;
    case 8: MirrorPixels<1>(source, target, width); break;
    case 16: MirrorPixels<2>(source, target, width); break;
    case 24: MirrorPixels<3>(source, target, width); break;
    case 32: MirrorPixels<4>(source, target, width); break;
    default: break;
    }
}

/* ---- the image an operation works on ---- */

/* -13 for a bad handle, -1 without a pixel block, -21 for a depth the
 * library does not hold, -3 when the descriptor's geometry does not fit its
 * block (docs/DEVIATIONS.md). */
static int Target(int32_t handle, ImgDescriptor **out)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    if (!d->dib)
        return IMG_ERR_MEMORY;
    if (d->width < 1 || d->height < 1)
        return IMG_ERR_INVALID;
    if (d->codedRows) {
        if (!d->rowIndex)
            return IMG_ERR_INVALID;
    } else {
        int bits = ImgDescriptorBits(d);
        if (!DibDepthSupported(bits))
            return IMG_ERR_DEPTH;
        uint64_t rowBytes = ((uint64_t)d->width * (uint64_t)bits + 7) / 8;
        uint64_t end = ImgDescriptorBitsOffset(d) + (uint64_t)d->stride * (uint64_t)d->height;
        if (d->stride < 0 || (uint64_t)d->stride < rowBytes || end > d->dibSize)
            return IMG_ERR_INVALID;
    }
    *out = d;
    return 0;
}

static uint8_t *StorageRow(const ImgDescriptor *d, int32_t m)
{
    return d->dib + ImgDescriptorBitsOffset(d) + (size_t)m * (size_t)d->stride;
}

/* The crop fix-ups: origin = extent - size - origin, in 64 bits (the crop
 * rectangle is stored unchecked). */
static int32_t MirrorOrigin(int32_t extent, int32_t size, int32_t origin)
{
    return (int32_t)((int64_t)extent - size - origin);
}

/* ---- plain rows ---- */

/* Mirrors storage row m in place through the second row buffer. */
static void MirrorStorageRow(ImgDescriptor *d, int32_t m, int bits, uint8_t *mirror)
{
    uint8_t *row = StorageRow(d, m);
    size_t rowBytes = ((size_t)d->width * (size_t)bits + 7) / 8;
    FlipMirrorRow(row, mirror, d->width, bits);
    memcpy(row, mirror, rowBytes);
}

static int FlipPlainX(ImgDescriptor *d)
{
    int bits = ImgDescriptorBits(d);
    uint8_t *mirror = static_cast<uint8_t *>(ImgAlloc((size_t)d->stride));
    if (!mirror)
        return IMG_ERR_MEMORY;
    int result = 0;
    int32_t m;
    for (m = 0; m < d->height; m++) {
        result = ImgReportProgress(d->height);
        if (result < 0)
            break;
        MirrorStorageRow(d, m, bits, mirror);
    }
    if (result < 0) /* aborted: mirror the rows done back */
        while (m-- > 0)
            MirrorStorageRow(d, m, bits, mirror);
    ImgFree(mirror);
    return result;
}

/* A new block of the same size; storage row m becomes row height - 1 - m. */
static int FlipPlainY(ImgDescriptor *d)
{
    uint32_t offset = ImgDescriptorBitsOffset(d);
    size_t stride = (size_t)d->stride;
    size_t rows = stride * (size_t)d->height;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(d->dibSize));
    if (!block)
        return IMG_ERR_MEMORY;
    memcpy(block, d->dib, offset);
    for (int32_t m = 0; m < d->height; m++) {
        int result = ImgReportProgress(d->height);
        if (result < 0) {
            ImgFree(block);
            return result;
        }
        memcpy(block + offset + (size_t)(d->height - 1 - m) * stride, StorageRow(d, m), stride);
    }
    /* The rest of the block (rows of padding) as it was. */
    memcpy(block + offset + rows, d->dib + offset + rows, d->dibSize - offset - rows);
    ImgDescriptorReplaceDib(d, block, d->dibSize);
    return 0;
}

static void ComplementStorageRow(ImgDescriptor *d, int32_t m)
{
    uint8_t *row = StorageRow(d, m);
    for (int32_t i = 0; i < d->stride; i++)
        row[i] = (uint8_t)~row[i];
}

static int InvertPlain(ImgDescriptor *d)
{
    int result = 0;
    int32_t m;
    for (m = 0; m < d->height; m++) {
        result = ImgReportProgress(d->height);
        if (result < 0)
            break;
        ComplementStorageRow(d, m);
    }
    if (result < 0) /* aborted: complement the rows done back */
        while (m-- > 0)
            ComplementStorageRow(d, m);
    return result;
}

/* ---- coded rows ---- */

/* One record in, one record out; `out` NULL only measures. */
typedef int (*RecordTransform)(const uint16_t *record, uint32_t bytes, int32_t width,
                               uint16_t *out);

static int CopyRecord(const uint16_t *record, uint32_t bytes, int32_t width, uint16_t *out)
{
    (void)width;
    if (out)
        memcpy(out, record, bytes);
    return (int)bytes;
}

static int MirrorRecord(const uint16_t *record, uint32_t bytes, int32_t width, uint16_t *out)
{
    return RunMirrorRecord(record, bytes, width, out);
}

static int InvertRecord(const uint16_t *record, uint32_t bytes, int32_t width, uint16_t *out)
{
    (void)width;
    return RunInvertRecord(record, bytes, out);
}

/* Coded row `row`; a row the index does not describe inside the store, or
 * one shorter than its length field, is read as an all-white row
 * (docs/DEVIATIONS.md).  The length is taken from the index, even. */
static const uint16_t *SourceRecord(const ImgDescriptor *d, int32_t row, uint32_t *bytes,
                                    uint16_t white[5])
{
    const uint16_t *record = RunStoreRow(d, row, bytes);
    *bytes &= ~1u;
    if (record && *bytes >= 2)
        return record;
    *bytes = (uint32_t)RunWhiteRecord(d->width, white);
    return white;
}

/* Grows the new block when a row would pass its end (only a store whose
 * rows overlap can need it; docs/DEVIATIONS.md). */
static int GrowBlock(uint8_t **block, uint64_t *size, uint64_t needed, int32_t rowsLeft)
{
    uint64_t grown = needed + (uint64_t)rowsLeft * 8 + 32768;
    if (grown > CODED_BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    uint8_t *larger = static_cast<uint8_t *>(ImgRealloc(*block, (size_t)grown));
    if (!larger)
        return IMG_ERR_MEMORY;
    *block = larger;
    *size = grown;
    return 0;
}

/* Builds the coded rows anew in a block of header-and-palette + dibSize +
 * `extra` bytes: new row r is `transform` of old row r (of row height - 1 - r
 * when `reversed`), written one behind the other, and the row index is
 * rebuilt from their lengths.  The image changes only on success. */
static int RebuildCodedRows(ImgDescriptor *d, uint64_t extra, int reversed,
                            RecordTransform transform)
{
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t size = (uint64_t)offset + d->dibSize + extra;
    if (size > CODED_BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc((size_t)size));
    uint32_t *index = RunStoreAllocateIndex(d->width, d->height);
    if (!block || !index) {
        ImgFree(block);
        ImgFree(index);
        return IMG_ERR_MEMORY;
    }
    memcpy(block, d->dib, offset);
    uint64_t end = offset;
    int result = 0;
    for (int32_t r = 0; r < d->height; r++) {
        result = ImgReportProgress(d->height);
        if (result < 0)
            break;
        uint16_t white[5];
        uint32_t bytes;
        const uint16_t *record = SourceRecord(d, reversed ? d->height - 1 - r : r, &bytes, white);
        uint32_t length = (uint32_t)transform(record, bytes, d->width, NULL);
        if (end + length > size)
            result = GrowBlock(&block, &size, end + length, d->height - r);
        if (result < 0)
            break;
        transform(record, bytes, d->width, (uint16_t *)(block + end));
        index[r] = (uint32_t)(end - offset);
        end += length;
        index[r + 1] = (uint32_t)(end - offset);
    }
    if (result < 0) {
        ImgFree(block);
        ImgFree(index);
        return result;
    }
    ImgDescriptorReplaceDib(d, block, (uint32_t)size);
    ImgFree(d->rowIndex);
    d->rowIndex = index;
    return 0;
}

/* ---- the exported operations ---- */

int32_t IMGAPI IMG_flip_bitmapx(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        ImgDescriptor *d;
        int result = Target(handle, &d);
        if (result < 0)
            return result;
        if (d->codedRows)
            result = RebuildCodedRows(d, (uint64_t)d->height * 8, 0, MirrorRecord);
        else
            result = FlipPlainX(d);
        if (result < 0)
            return result;
        d->cropX = MirrorOrigin(d->width, d->cropWidth, d->cropX);
        return 0;
    });
}

int32_t IMGAPI IMG_flip_bitmapy(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        ImgDescriptor *d;
        int result = Target(handle, &d);
        if (result < 0)
            return result;
        if (d->codedRows)
            result = RebuildCodedRows(d, 1000, 1, CopyRecord);
        else
            result = FlipPlainY(d);
        if (result < 0)
            return result;
        d->cropY = MirrorOrigin(d->height, d->cropHeight, d->cropY);
        return 0;
    });
}

int32_t IMGAPI IMG_invert_bitmap(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        ImgDescriptor *d;
        int result = Target(handle, &d);
        if (result < 0)
            return result;
        if (d->codedRows)
            return RebuildCodedRows(d, (uint64_t)d->height * 8, 0, InvertRecord);
        return InvertPlain(d);
    });
}
