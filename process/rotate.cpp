/*
 * rotate.cpp - IMG_rotate_bitmap.
 *
 * 0 does nothing; 18000 is a flip left-right and a flip top-bottom (the
 * second without progress); 9000 and 27000 are quarter turns, written in one
 * pass straight into the turned orientation; any other angle is a free
 * rotation by the inverse 16.16 nearest-neighbour mapping, on a canvas grown
 * by the folded angle.  A run-coded page turns a quarter from its change
 * positions, a chunk of columns at a time, and is re-coded row by row; for
 * a free rotation it is expanded into a plain buffer, turned and re-coded,
 * all through core/runs.cpp.
 *
 * Every new picture is built beside the old one and put in place only when
 * complete, so a failure (memory, a negative progress result, a failing
 * flip of a half turn) leaves the image as it was.  Empty or oversized canvases, reads in
 * the source block's slack and 32-bit products are handled as
 * docs/DEVIATIONS.md lists under rotate, flip and invert.
 */
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <bit>

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

/* Codes the packed 1-bit rows of `plain` into `store` as rows 0, 1, ... */
static int CodeRows(ImgDescriptor *store, const Raster *plain)
{
    uint16_t *record = static_cast<uint16_t *>(ImgAlloc(RunRecordMaxBytes(store->width)));
    if (!record)
        return IMG_ERR_MEMORY;
    int result = 0;
    for (int32_t t = 0; result == 0 && t < store->height; t++) {
        const uint8_t *row = plain->pixels + (size_t)t * (size_t)plain->stride;
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

/* Codes a whole plain buffer into a new store; on failure nothing is left allocated. */
static int CodeIntoStore(const ImgDescriptor *d, ImgDescriptor *store, const Raster *plain)
{
    int result = BeginCodedStore(d, store, plain->width, plain->height);
    if (result == 0) {
        result = CodeRows(store, plain);
        if (result < 0) {
            ImgFree(store->dib);
            ImgFree(store->rowIndex);
        }
    }
    return result;
}

/* Puts a finished coded store, its header already set, in the image's place. */
static void InstallCodedStore(ImgDescriptor *d, ImgDescriptor *store)
{
    ImgDescriptorReplaceDib(d, store->dib, store->dibSize);
    ImgFree(d->rowIndex);
    d->rowIndex = store->rowIndex;
}

/* ---- quarter turn ---- */

/* A byte-depth turn goes band by band of new rows and, in a band, tile by
 * tile of pixels: a tile's reads (one short piece of each of 256 old rows)
 * and writes stay in the first-level cache. */
#define TURN_BAND 8
#define TURN_TILE 256

/* Progress for `count` new rows. */
static int ReportRows(int32_t count, int32_t total)
{
    for (int32_t i = 0; i < count; i++) {
        int result = ImgReportProgress(total);
        if (result < 0)
            return result;
    }
    return 0;
}

/* One step of a 64 x 64 bit transposition (Hacker's Delight, transpose32
 * widened) on eight of its rows, x[0] .. x[7], rows D apart: in each pair
 * of J x J blocks off the diagonal (rows J apart, J / D apart in x; bits of
 * `mask` and the bits J places higher) the two blocks trade places.  The
 * steps J = 32, 16, 8 pair only rows 8 apart and J = 4, 2, 1 only rows of
 * one group of eight, so the transposition is done in two passes, three
 * steps on eight rows held in registers at a time. */
template <int J, int D>
static inline void TransposeStep(uint64_t x[8], uint64_t mask)
{
    for (int k = 0; k < 8; k += 2 * (J / D))
        for (int l = k; l < k + J / D; l++) {
            uint64_t t = (x[l] ^ (x[l + J / D] >> J)) & mask;
            x[l] ^= t;
            x[l + J / D] ^= t << J;
        }
}

/* Transposes a 64 x 64 bit matrix whose row k is in(k): bit 63 - i of
 * in(k) is element (k, i); out(i, word) receives the word whose bit 63 - k
 * is that element. */
template <class In, class Out>
static inline void Transpose64(In in, Out out)
{
    uint64_t between[64]; /* the matrix after the first pass */
    for (int l = 0; l < 8; l++) {
        uint64_t x[8];
        for (int k = 0; k < 8; k++)
            x[k] = in(l + 8 * k);
        TransposeStep<32, 8>(x, 0x00000000FFFFFFFFull);
        TransposeStep<16, 8>(x, 0x0000FFFF0000FFFFull);
        TransposeStep<8, 8>(x, 0x00FF00FF00FF00FFull);
        for (int k = 0; k < 8; k++)
            between[l + 8 * k] = x[k];
    }
    for (int g = 0; g < 64; g += 8) {
        uint64_t x[8];
        for (int k = 0; k < 8; k++)
            x[k] = between[g + k];
        TransposeStep<4, 1>(x, 0x0F0F0F0F0F0F0F0Full);
        TransposeStep<2, 1>(x, 0x3333333333333333ull);
        TransposeStep<1, 1>(x, 0x5555555555555555ull);
        for (int k = 0; k < 8; k++)
            out(g + k, x[k]);
    }
}

/* Up to 8 bytes as a word, the first byte most significant; missing bytes
 * read as 0. */
static uint64_t LoadBits(const uint8_t *p, size_t count)
{
    if (count >= 8)
        return (uint64_t)p[0] << 56 | (uint64_t)p[1] << 48 | (uint64_t)p[2] << 40 |
               (uint64_t)p[3] << 32 | (uint64_t)p[4] << 24 | (uint64_t)p[5] << 16 |
               (uint64_t)p[6] << 8 | (uint64_t)p[7];
    uint64_t word = 0;
    for (size_t i = 0; i < 8; i++)
        word = word << 8 | (i < count ? p[i] : 0u);
    return word;
}

/* The first `count` (at most 8) bytes of a word, most significant first. */
static void StoreBits(uint8_t *p, uint64_t word, size_t count)
{
    if (count >= 8) {
        for (int i = 0; i < 8; i++)
            p[i] = (uint8_t)(word >> (56 - 8 * i));
        return;
    }
    for (size_t i = 0; i < count; i++)
        p[i] = (uint8_t)(word >> (56 - 8 * i));
}

/* A plain quarter turn reads new storage row j, pixel r from old storage
 * row Row(r), pixel Column(j): clockwise (rows are stored bottom-up) row r,
 * pixel width - 1 - j; counter-clockwise row height - 1 - r, pixel j. */
struct PlainTurn {
    const uint8_t *pixels;
    int32_t width, height, stride;
    bool clockwise;

    int32_t Row(int32_t r) const { return clockwise ? r : height - 1 - r; }
    int32_t Column(int32_t j) const { return clockwise ? width - 1 - j : j; }
    const uint8_t *RowStart(int32_t r) const { return pixels + (size_t)Row(r) * (size_t)stride; }
    /* From the row of pixel r to the row of pixel r + 1. */
    ptrdiff_t RowStep() const { return clockwise ? stride : -(ptrdiff_t)stride; }
};

/* Clears the bytes of new rows j0 .. j1 - 1 behind their first `used`. */
static void ClearRowPadding(const Raster *target, int32_t j0, int32_t j1, size_t used)
{
    for (int32_t j = j0; j < j1; j++)
        memset(target->pixels + (size_t)j * (size_t)target->stride + used, 0,
               (size_t)target->stride - used);
}

/* Pixels of Size bytes stored at once: a word of them, or four 3-byte ones. */
template <size_t Size>
constexpr int Group = Size == 3 ? 4 : (int)(8 / Size);

/* Stores the pixels of Group<Size> old rows, from `at` on, rows `step`
 * apart, as one run of a new row: 8 / Size pixels in one word, four 3-byte
 * pixels in 12 bytes, each 3-byte pixel read as 4 (the caller knows the
 * byte behind it lies in the block).  Little-endian: the first pixel in the
 * low bytes. */
template <size_t Size>
static inline void StoreGroup(const uint8_t *first, ptrdiff_t at, ptrdiff_t step, uint8_t *out)
{
    if constexpr (Size == 3) {
        uint32_t p[4];
        for (int g = 0; g < 4; g++)
            memcpy(&p[g], first + at + g * step, 4);
        uint64_t low = (uint64_t)(p[0] & 0xFFFFFF) | (uint64_t)(p[1] & 0xFFFFFF) << 24 |
                       (uint64_t)p[2] << 48;
        uint32_t high = (p[2] >> 16 & 0xFF) | p[3] << 8;
        memcpy(out, &low, 8);
        memcpy(out + 8, &high, 4);
    } else {
        uint64_t word = 0;
        for (int g = 0; g < Group<Size>; g++) {
            uint64_t pixel = 0;
            memcpy(&pixel, first + at + g * step, Size);
            word |= pixel << (8 * Size * g);
        }
        memcpy(out, &word, 8);
    }
}

/* Whole pixels of Size bytes: new rows j0 .. j1 - 1, pixels r0 .. r1 - 1,
 * a group of old rows per store where the machine's byte order allows. */
template <size_t Size>
static void TurnPixelTile(const PlainTurn &turn, const Raster *target, int32_t j0, int32_t j1,
                          int32_t r0, int32_t r1)
{
    const uint8_t *first = turn.RowStart(r0);
    ptrdiff_t step = turn.RowStep();
    /* Only the last pixel of the last row can end the block. */
    bool roomBehind = (uint64_t)turn.stride > (uint64_t)turn.width * Size;
    constexpr int group = Group<Size>;
    for (int32_t j = j0; j < j1; j++) {
        int32_t column = turn.Column(j);
        ptrdiff_t at = (ptrdiff_t)column * (ptrdiff_t)Size;
        uint8_t *out = target->pixels + (size_t)j * (size_t)target->stride + (size_t)r0 * Size;
        int32_t r = r0;
        bool grouped = Size != 3 || roomBehind || column + 1 < turn.width;
        if (std::endian::native == std::endian::little && grouped)
            for (; r1 - r >= group; r += group, at += group * step, out += group * Size)
                StoreGroup<Size>(first, at, step, out);
        for (; r < r1; r++, at += step, out += Size)
            memcpy(out, first + at, Size);
    }
}

template <size_t Size>
static void TurnPixelBand(const PlainTurn &turn, const Raster *target, int32_t j0, int32_t j1)
{
    for (int32_t r0 = 0; r0 < turn.height; r0 += TURN_TILE) {
        int32_t r1 = turn.height - r0 < TURN_TILE ? turn.height : r0 + TURN_TILE;
        TurnPixelTile<Size>(turn, target, j0, j1, r0, r1);
    }
    ClearRowPadding(target, j0, j1, (size_t)turn.height * Size);
}

/* 4 bits: two pixels per byte, high nibble first; the padding nibble of an
 * odd height is 0.  Tiles start at even pixels, so no byte is split. */
static void TurnNibbleBand(const PlainTurn &turn, const Raster *target, int32_t j0, int32_t j1)
{
    ptrdiff_t step = turn.RowStep();
    for (int32_t r0 = 0; r0 < turn.height; r0 += TURN_TILE) {
        int32_t r1 = turn.height - r0 < TURN_TILE ? turn.height : r0 + TURN_TILE;
        const uint8_t *first = turn.RowStart(r0);
        for (int32_t j = j0; j < j1; j++) {
            int32_t column = turn.Column(j);
            int shift = (column & 1) ? 0 : 4;
            ptrdiff_t at = column >> 1;
            uint8_t *out = target->pixels + (size_t)j * (size_t)target->stride + (size_t)(r0 >> 1);
            for (int32_t r = r0; r < r1; r += 2, at += 2 * step) {
                unsigned high = (first[at] >> shift) & 0x0F;
                unsigned low = r + 1 < r1 ? (first[at + step] >> shift) & 0x0F : 0;
                *out++ = (uint8_t)(high << 4 | low);
            }
        }
    }
    ClearRowPadding(target, j0, j1, ((size_t)turn.height + 1) / 2);
}

/* 1 bit: the old columns x0 .. x0 + 63 (new rows j with Column(j) = x) in
 * 64 x 64 bit blocks; bits of pixels r >= height are 0. */
static void TurnBitBand(const PlainTurn &turn, const Raster *target, int32_t x0)
{
    size_t sourceBytes = ((size_t)turn.width + 7) / 8, targetBytes = ((size_t)turn.height + 7) / 8;
    size_t column = (size_t)x0 / 8;
    int32_t count = turn.width - x0 < 64 ? turn.width - x0 : 64;
    for (int32_t r0 = 0; r0 < turn.height; r0 += 64) {
        uint64_t block[64];
        for (int32_t k = 0; k < 64; k++)
            block[k] = r0 + k < turn.height
                           ? LoadBits(turn.RowStart(r0 + k) + column, sourceBytes - column)
                           : 0;
        Transpose64([&](int k) { return block[k]; }, [&](int i, uint64_t word) { block[i] = word; });
        size_t at = (size_t)r0 / 8;
        for (int32_t i = 0; i < count; i++) {
            int32_t j = turn.clockwise ? turn.width - 1 - (x0 + i) : x0 + i;
            StoreBits(target->pixels + (size_t)j * (size_t)target->stride + at, block[i],
                      targetBytes - at);
        }
    }
    for (int32_t i = 0; i < count; i++) {
        int32_t j = turn.clockwise ? turn.width - 1 - (x0 + i) : x0 + i;
        ClearRowPadding(target, j, j + 1, targetBytes);
    }
}

/* Fills every byte of the new rows (row padding 0), band by band, progress
 * once per new row. */
static int TurnPlain(const PlainTurn &turn, const Raster *target)
{
    int32_t band = target->bits == 1 ? 64 : TURN_BAND;
    for (int32_t first = 0; first < target->height; first += band) {
        int32_t last = target->height - first < band ? target->height : first + band;
        int result = ReportRows(last - first, target->height);
        if (result < 0)
            return result;
        switch (target->bits) {
        case 1: TurnBitBand(turn, target, first); break;
        case 4: TurnNibbleBand(turn, target, first, last); break;
        case 8: TurnPixelBand<1>(turn, target, first, last); break;
        case 16: TurnPixelBand<2>(turn, target, first, last); break;
        case 24: TurnPixelBand<3>(turn, target, first, last); break;
        default: TurnPixelBand<4>(turn, target, first, last); break;
        }
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

/* One pass into a new block.  Progress comes in two passes of the new
 * height, the second after the pixels are in place: a plain quarter turn
 * reports every new row twice (docs/DEVIATIONS.md). */
static int QuarterTurnPlain(ImgDescriptor *d, int32_t angle)
{
    int bits = ImgDescriptorBits(d);
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t stride = DibStride((uint32_t)d->height, bits);
    uint64_t area =
        DibStride((uint32_t)d->height + 1, bits) * ((uint64_t)d->width + QUARTER_EXTRA_ROWS);
    uint8_t *block = NewResultBlock(d, area, -1); /* every byte of the new rows is written */
    if (!block)
        return IMG_ERR_MEMORY;
    PlainTurn turn = {d->dib + offset, d->width, d->height, d->stride, angle == 9000};
    Raster target = {block + offset, d->height, d->width, (int32_t)stride, bits};
    int result = TurnPlain(turn, &target);
    if (result == 0)
        result = ReportRows(d->width, d->width);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    SetHeaderGeometry(block, d->height, d->width, stride * (uint64_t)d->width);
    ImgDescriptorReplaceDib(d, block, (uint32_t)(offset + stride * (uint64_t)d->width));
    TurnGeometry(d, (int32_t)stride);
    TurnCrop(d, angle == 9000, angle == 27000);
    return 0;
}

/* ---- quarter turn of coded rows ---- */

/* The pixels of a coded page are expanded a chunk of columns at a time, for
 * every row; a chunk's words stay within this budget (2 MiB, a fax page in
 * one chunk, so that each row's changes are read in one go), at most
 * CHUNK_WORDS words of 64 columns a row. */
#define CHUNK_BUDGET_WORDS 262144
#define CHUNK_WORDS 64

/* The colour changes of one coded row below the width, in increasing
 * order; the chunks are read in order from one side, `cursor` counting the
 * changes left of the chunk read next (from the left) or of the end of the
 * chunk read last (from the right). */
typedef struct RowChanges {
    const uint16_t *at;
    uint32_t count, cursor;
} RowChanges;

/* Whether toggling the colour at each position below the width gives what
 * RunExpandRow draws, and how many lie below the width (*count).  Usually
 * the words never fall from the first position to the last terminator
 * (a zero-length run toggles twice, which draws nothing, as it should);
 * any other record must be plain (RunPlainChangeCount). */
static bool ChangesInOrder(const uint16_t *record, uint32_t words, int32_t width, uint32_t *count)
{
    unsigned falls = 0;
    for (uint32_t k = 2; k < words; k++)
        falls |= record[k] < record[k - 1];
    if (!falls) {
        uint32_t end = words > 1 ? words : 1;
        while (end > 1 && (int32_t)record[end - 1] >= width)
            end--;
        *count = end - 1;
        return true;
    }
    int32_t plain = RunPlainChangeCount(record, words * 2, width);
    *count = plain > 0 ? (uint32_t)plain : 0;
    return plain >= 0;
}

/* The changes of a record out of order (overlapping or reversed runs, as a
 * damaged file can give): the row is expanded and its changes read off bit
 * by bit into `out`.  The runs' union has at most one change per position
 * of the record plus one, and every change is a position of the record, so
 * `out` needs the record's word count and each change fits 16 bits. */
static uint32_t ChangesOfExpandedRow(const uint16_t *record, uint32_t recordBytes, int32_t width,
                                     uint8_t *row, uint32_t rowBytes, uint16_t *out)
{
    RunExpandRow(record, recordBytes, width, row, rowBytes);
    uint32_t count = 0;
    unsigned colour = 1;
    for (int32_t x = 0; x < width; x++) {
        unsigned bit = (row[x >> 3] >> (7 - (x & 7))) & 1u;
        if (bit != colour)
            out[count++] = (uint16_t)x;
        colour = bit;
    }
    return count;
}

/* The changes of every coded row (top row first).  Rows in order are read
 * where they lie in the store; the others are rebuilt into *extra (NULL when
 * there are none), which the caller frees. */
static int CollectChanges(const ImgDescriptor *d, RowChanges *rows, uint16_t **extra)
{
    uint64_t extraWords = 0;
    for (int32_t r = 0; r < d->height; r++) {
        uint32_t bytes;
        const uint16_t *record = RunStoreRow(d, r, &bytes);
        rows[r] = RowChanges{NULL, 0, 0};
        if (!record) /* not described by the index: white */
            continue;
        if (ChangesInOrder(record, bytes / 2, d->width, &rows[r].count))
            rows[r].at = record + 1;
        else
            extraWords += bytes / 2;
    }
    *extra = NULL;
    if (extraWords == 0)
        return 0;
    uint16_t *changes = static_cast<uint16_t *>(ImgAlloc((size_t)extraWords * 2));
    uint8_t *row = static_cast<uint8_t *>(ImgAlloc((size_t)d->stride));
    if (!changes || !row) {
        ImgFree(changes);
        ImgFree(row);
        return IMG_ERR_MEMORY;
    }
    uint16_t *next = changes;
    for (int32_t r = 0; r < d->height; r++) {
        uint32_t bytes;
        const uint16_t *record = RunStoreRow(d, r, &bytes);
        if (!record || rows[r].at)
            continue;
        rows[r].at = next;
        rows[r].count =
            ChangesOfExpandedRow(record, bytes, d->width, row, (uint32_t)d->stride, next);
        next += bytes / 2;
    }
    ImgFree(row);
    *extra = changes;
    return 0;
}

/* The pixels a change at bit offset k of a word flips: k .. 63, the mask
 * ~0 >> k.  A word's pixels are the colour it starts with xor the masks of
 * its changes; as every mask has bit 0 set, bit 0 of a xor of masks tells
 * whether their count is odd. */
static inline uint64_t FlipsFrom(uint32_t offset)
{
    return ~0ull >> (offset % 64);
}

/* The flips of a row's changes in a chunk, word by word.  The changes come
 * in order, so a running xor of their masks is stored into the word of each
 * change (no word is read back, as a xor into it would), leaving in each
 * word the running xor up to its last change; `writtenBy` tells which words
 * the row at hand wrote (a serial number for each row of each chunk). */
typedef struct ChunkFlips {
    uint64_t sum[CHUNK_WORDS];
    uint32_t writtenBy[CHUNK_WORDS];
    uint32_t serial;
} ChunkFlips;

static inline void AddFlips(ChunkFlips *flips, uint64_t *sum, uint32_t offset)
{
    *sum ^= FlipsFrom(offset);
    flips->sum[offset / 64] = *sum;
    flips->writtenBy[offset / 64] = flips->serial;
}

/* The pixels x0 .. x0 + 64 * words - 1 of a row into out[0], out[stride],
 * ... (64 pixels a word, bit 63 first, 1 white), the chunks read from the
 * left (FromLeft) or from the right; `last` when no chunk follows, so that
 * every change not read yet lies in this one.  Word w starts with the
 * colour after the changes left of x0, flipped once for each change in the
 * chunk left of the word. */
template <bool FromLeft>
static void ExpandChunk(RowChanges *row, int32_t x0, int32_t words, bool last, ChunkFlips *flips,
                        uint64_t *out, size_t stride)
{
    const uint16_t *at = row->at;
    uint32_t serial = ++flips->serial;
    uint64_t sum = 0;
    uint32_t before; /* changes left of x0 */
    if (FromLeft) {
        int32_t x1 = x0 + 64 * words;
        uint32_t i = row->cursor;
        before = i;
        if (last)
            for (; i < row->count; i++)
                AddFlips(flips, &sum, (uint32_t)(at[i] - x0));
        else
            for (; i < row->count && at[i] < x1; i++)
                AddFlips(flips, &sum, (uint32_t)(at[i] - x0));
        row->cursor = i;
    } else {
        uint32_t i = row->cursor;
        if (last)
            for (; i > 0; i--)
                AddFlips(flips, &sum, (uint32_t)(at[i - 1] - x0));
        else
            for (; i > 0 && at[i - 1] >= x0; i--)
                AddFlips(flips, &sum, (uint32_t)(at[i - 1] - x0));
        row->cursor = before = i;
    }
    uint64_t black = (before & 1) ? ~0ull : 0; /* 1 bits where the colour is black */
    if (FromLeft) {
        uint64_t previous = 0; /* the running xor up to the word before w */
        for (int32_t w = 0; w < words; w++) {
            uint64_t upTo = flips->writtenBy[w] == serial ? flips->sum[w] : previous;
            uint64_t start = black ^ (0 - (previous & 1));
            out[(size_t)w * stride] = ~(start ^ previous ^ upTo);
            previous = upTo;
        }
    } else {
        /* From the right the running xor covers word w and the words right
         * of it; `sum` covers the whole chunk. */
        uint64_t following = 0; /* the running xor from the word after w */
        for (int32_t w = words - 1; w >= 0; w--) {
            uint64_t from = flips->writtenBy[w] == serial ? flips->sum[w] : following;
            uint64_t start = black ^ (0 - ((sum ^ from) & 1));
            out[(size_t)w * stride] = ~(start ^ from ^ following);
            following = from;
        }
    }
}

/* The changes of the 64 new rows of one word column of an expanded chunk
 * (`column`: that word of each old row in the order of the new pixels):
 * rows[i] of `rowWords` words is old column i of the word, bit c % 64 of
 * word c / 64 set where its pixel c differs from pixel c - 1 (pixel -1
 * white).  64 x 64 blocks are turned at a time, their rows taken from the
 * bottom so that pixel c lands in bit c % 64; the pixels of a block are
 * read straight from the column, with the one before it, except at the
 * column's ends, whose blocks are copied with white around them. */
static void TurnChunkWord(const uint64_t *column, int32_t height, uint64_t *rows, size_t rowWords)
{
    for (int32_t c0 = 0; c0 < height; c0 += 64) {
        uint64_t edge[65];
        const uint64_t *pixels = edge; /* pixels[k]: pixel c0 + k - 1 */
        if (c0 > 0 && height - c0 >= 64)
            pixels = column + c0 - 1;
        else
            for (int k = 0; k < 65; k++) {
                int32_t c = c0 + k - 1;
                edge[k] = c >= 0 && c < height ? column[c] : ~0ull;
            }
        size_t at = (size_t)c0 / 64;
        Transpose64([&](int j) { return pixels[64 - j] ^ pixels[63 - j]; },
                    [&](int i, uint64_t word) { rows[(size_t)i * rowWords + at] = word; });
    }
}

/* Codes new row t from its changes and appends it to the store.  While the
 * store has room for the longest record the row could have, the record is
 * coded in place, which is what RunStoreAppend would leave (it grows the
 * store only for a record that passes its end); otherwise it goes through
 * `record` and RunStoreAppend. */
static int AppendTurnedRow(ImgDescriptor *store, uint32_t offset, int32_t t,
                           const uint64_t *changes, uint16_t *record)
{
    uint32_t start = store->rowIndex[t];
    if ((uint64_t)offset + start + RunRecordMaxBytes(store->width) <= store->dibSize) {
        uint16_t *place = reinterpret_cast<uint16_t *>(store->dib + offset + start);
        store->rowIndex[t + 1] = start + (uint32_t)RunEncodeChanges(changes, store->width, place);
        return 0;
    }
    int bytes = RunEncodeChanges(changes, store->width, record);
    return RunStoreAppend(store, t, record, (uint32_t)bytes, t + 10.0);
}

/* Builds the turned rows from the change positions, a chunk of columns at a
 * time (never the whole page expanded), and codes them in order: clockwise,
 * new row t is old column t, pixel c the old row height - 1 - c;
 * counter-clockwise new row t is old column width - 1 - t, pixel c the old
 * row c.  Progress once per new row (total: the old width). */
template <bool Clockwise>
static int CodeTurnedRows(const ImgDescriptor *d, ImgDescriptor *store, RowChanges *changes)
{
    int32_t pageWords = (d->width + 63) / 64;
    int32_t chunkWords = CHUNK_BUDGET_WORDS / d->height;
    chunkWords = chunkWords < 1 ? 1 : chunkWords > CHUNK_WORDS ? CHUNK_WORDS : chunkWords;
    chunkWords = chunkWords > pageWords ? pageWords : chunkWords;
    size_t rowWords = ((size_t)d->height + 63) / 64;
    size_t chunkBytes = (size_t)d->height * (size_t)chunkWords * 8;
    uint64_t *chunk = static_cast<uint64_t *>(ImgAlloc(chunkBytes));
    uint64_t *rows = static_cast<uint64_t *>(ImgAlloc(rowWords * 64 * 8));
    uint16_t *record = static_cast<uint16_t *>(ImgAlloc(RunRecordMaxBytes(d->height)));
    ChunkFlips flips = {};
    uint32_t offset = ImgDescriptorBitsOffset(store);
    int result = chunk && rows && record ? 0 : IMG_ERR_MEMORY;
    for (int32_t r = 0; r < d->height; r++)
        changes[r].cursor = Clockwise ? 0 : changes[r].count;
    int32_t chunks = (pageWords + chunkWords - 1) / chunkWords;
    for (int32_t q = 0; result == 0 && q < chunks; q++) {
        int32_t w0 = chunkWords * (Clockwise ? q : chunks - 1 - q);
        int32_t words = pageWords - w0 < chunkWords ? pageWords - w0 : chunkWords;
        /* The chunk word by word: word w of every old row, in the order of
         * the new pixels (clockwise bottom row first). */
        for (int32_t r = 0; r < d->height; r++)
            ExpandChunk<Clockwise>(&changes[r], 64 * w0, words, q + 1 == chunks, &flips,
                                   chunk + (Clockwise ? d->height - 1 - r : r),
                                   (size_t)d->height);
        for (int32_t n = 0; result == 0 && n < words; n++) {
            int32_t w = Clockwise ? n : words - 1 - n;
            const uint64_t *column = chunk + (size_t)w * (size_t)d->height;
            TurnChunkWord(column, d->height, rows, rowWords);
            int32_t x0 = 64 * (w0 + w);
            int32_t count = d->width - x0 < 64 ? d->width - x0 : 64;
            for (int32_t m = 0; m < count; m++) {
                int32_t i = Clockwise ? m : count - 1 - m;
                int32_t t = Clockwise ? x0 + i : d->width - 1 - (x0 + i);
                if ((result = ImgReportProgress(d->width)) < 0)
                    break;
                result = AppendTurnedRow(store, offset, t, rows + (size_t)i * rowWords, record);
                if (result < 0)
                    break;
            }
        }
    }
    ImgFree(chunk);
    ImgFree(rows);
    ImgFree(record);
    return result;
}

static int QuarterTurnCoded(ImgDescriptor *d, int32_t angle)
{
    if (d->height > RUN_MAX_WIDTH)
        return IMG_ERR_TYPE; /* the turned rows could not be run-coded */
    uint32_t offset = ImgDescriptorBitsOffset(d);
    uint64_t stride = DibStride((uint32_t)d->height, 1);
    /* Refused like a plain turn when the turned page, held plain, would pass 2 GiB. */
    uint64_t plain =
        DibStride((uint32_t)d->height + 1, 1) * ((uint64_t)d->width + QUARTER_EXTRA_ROWS);
    if (offset + plain + RESULT_SLACK > BLOCK_LIMIT)
        return IMG_ERR_MEMORY;
    RowChanges *changes =
        static_cast<RowChanges *>(ImgAlloc((size_t)d->height * sizeof(RowChanges)));
    if (!changes)
        return IMG_ERR_MEMORY;
    uint16_t *extra;
    int result = CollectChanges(d, changes, &extra);
    ImgDescriptor store;
    if (result == 0)
        result = BeginCodedStore(d, &store, d->height, d->width);
    if (result == 0) {
        result = angle == 9000 ? CodeTurnedRows<true>(d, &store, changes)
                               : CodeTurnedRows<false>(d, &store, changes);
        if (result < 0) {
            ImgFree(store.dib);
            ImgFree(store.rowIndex);
        }
    }
    ImgFree(changes);
    ImgFree(extra);
    if (result < 0)
        return result;
    SetHeaderGeometry(store.dib, d->height, d->width, stride * (uint64_t)d->width);
    InstallCodedStore(d, &store);
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
        result = CodeIntoStore(d, &store, &target);
    if (result < 0) {
        ImgFree(block);
        return result;
    }
    FinishFree(d, block, 1, width, height, stride);
    memcpy(store.dib, block, ImgDescriptorBitsOffset(d));
    InstallCodedStore(d, &store);
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
            return d->codedRows ? QuarterTurnCoded(d, angle) : QuarterTurnPlain(d, angle);
        return d->codedRows ? FreeRotateCoded(d, angle) : FreeRotatePlain(d, angle);
    });
}
