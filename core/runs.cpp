/*
 * runs.cpp - run records: coding packed 1-bit rows, expanding records, and the
 * run-coded row store.  On the hot path of every bilevel operation: rows are
 * coded a byte at a time through a change table and skipped eight bytes at a
 * time over solid runs; records are expanded a run at a time with masks and
 * memset, never a bit at a time.
 */
#include "core/runs.h"

#include <string.h>

#include <bit>

#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

/* changeCount[t] and changeAt[t][]: the bit positions (0 = most significant)
 * set in t; t marks the pixels of a byte whose colour differs from the pixel
 * before. */
static uint8_t changeCount[256];
static uint8_t changeAt[256][8];
static int changeTableReady;

static void BuildChangeTable(void)
{
    for (int t = 0; t < 256; t++) {
        int n = 0;
        for (int k = 0; k < 8; k++)
            if (t & (0x80 >> k))
                changeAt[t][n++] = (uint8_t)k;
        changeCount[t] = (uint8_t)n;
    }
    changeTableReady = 1;
}

/* Index of the first byte at or after i that is not `solid`, eight at a time. */
static size_t SkipSolid(const uint8_t *row, size_t i, size_t end, uint8_t solid)
{
    uint64_t pattern = solid ? ~(uint64_t)0 : 0;
    while (i + 8 <= end) {
        uint64_t word;
        memcpy(&word, row + i, 8);
        if (word != pattern)
            break;
        i += 8;
    }
    while (i < end && row[i] == solid)
        i++;
    return i;
}

/* Ends a record whose changes run up to `out`: `width` three times, four
 * times when the length would otherwise equal the row's 1-bit stride.
 * Returns the length. */
static int FinishRecord(uint16_t *record, uint16_t *out, int32_t width)
{
    out[0] = out[1] = out[2] = (uint16_t)width;
    out += 3;
    int length = (int)((out - record) * 2);
    if ((uint64_t)length == DibStride((uint32_t)width, 1)) {
        *out++ = (uint16_t)width; /* a record never has the length of a plain row */
        length += 2;
    }
    /* Word 0 wraps for records over 65535 bytes (very wide, very dense rows);
     * the store and the sinks use the returned length, never word 0. */
    record[0] = (uint16_t)length;
    return length;
}

int RunEncodeRow(const uint8_t *row, int32_t width, uint16_t *record)
{
    if (!changeTableReady)
        BuildChangeTable();
    uint16_t *out = record + 1;
    size_t bytes = ((size_t)width + 7) / 8;
    unsigned colour = 1; /* colour of the pixel before the current byte; rows start white */
    size_t i = 0;
    for (;;) {
        i = SkipSolid(row, i, bytes, colour ? 0xFF : 0x00);
        if (i >= bytes)
            break;
        unsigned b = row[i];
        unsigned changes = (b ^ ((b >> 1) | (colour << 7))) & 0xFF;
        uint32_t base = (uint32_t)i * 8;
        const uint8_t *at = changeAt[changes];
        int n = changeCount[changes];
        for (int k = 0; k < n; k++) {
            uint32_t position = base + at[k];
            if (position >= (uint32_t)width)
                goto done; /* padding bits of the last byte */
            *out++ = (uint16_t)position;
        }
        colour = b & 1;
        i++;
    }
done:
    return FinishRecord(record, out, width);
}

/* Writes base + k for each bit k set in `bits`, lowest first, at out[n],
 * out[n + 1], ... and returns the new count n.  Rows of a turned page have
 * a few changes in most words, so the first six steps take no branch: each
 * writes a position and counts it only if a bit was there (a step past the
 * last bit writes where the next position or terminator will go).  Bit 63
 * is or-ed into the search so that it never meets an empty word (a word
 * whose lowest bit is 63 gives 63 either way). */
static size_t WriteChangeBits(uint16_t *out, size_t n, uint64_t bits, uint32_t base)
{
    for (int step = 0; step < 6; step++) {
        out[n] = (uint16_t)(base + (uint32_t)std::countr_zero(bits | (uint64_t)1 << 63));
        n += bits != 0;
        bits &= bits - 1;
    }
    for (; bits; bits &= bits - 1)
        out[n++] = (uint16_t)(base + (uint32_t)std::countr_zero(bits));
    return n;
}

int RunEncodeChanges(const uint64_t *changes, int32_t width, uint16_t *record)
{
    size_t count = ((size_t)width + 63) / 64, n = 0;
    for (size_t i = 0; i < count; i++) {
        uint64_t word = changes[i];
        if (i + 1 == count && width % 64 != 0)
            word &= ((uint64_t)1 << (width % 64)) - 1; /* bits beyond the width */
        n = WriteChangeBits(record + 1, n, word, (uint32_t)i * 64);
    }
    return FinishRecord(record, record + 1 + n, width);
}

int RunWhiteRecord(int32_t width, uint16_t *record)
{
    int words = DibStride((uint32_t)width, 1) == 8 ? 5 : 4;
    record[0] = (uint16_t)(words * 2);
    for (int i = 1; i < words; i++)
        record[i] = (uint16_t)width;
    return words * 2;
}

/* Clears the bits start .. end-1 (end > start) of a packed row. */
static void ClearBits(uint8_t *row, uint32_t start, uint32_t end)
{
    uint32_t first = start >> 3, last = (end - 1) >> 3;
    uint8_t lead = (uint8_t)(0xFFu >> (start & 7));
    uint8_t trail = (uint8_t)(0xFFu << (7 - ((end - 1) & 7)));
    if (first == last) {
        row[first] &= (uint8_t)~(lead & trail);
        return;
    }
    row[first] &= (uint8_t)~lead;
    if (last - first > 16)
        memset(row + first + 1, 0, last - first - 1);
    else
        for (uint32_t i = first + 1; i < last; i++) /* short spans: no call */
            row[i] = 0;
    row[last] &= (uint8_t)~trail;
}

void RunExpandRowAt(const uint16_t *record, uint32_t recordBytes, int32_t left, int32_t width,
                    uint8_t *row, uint32_t rowBytes)
{
    memset(row, 0xFF, rowBytes);
    int64_t limit = width > 0 ? width : 0;
    if ((int64_t)rowBytes * 8 < limit)
        limit = (int64_t)rowBytes * 8;
    uint32_t words = recordBytes / 2;
    for (uint32_t i = 1; i < words;) {
        int64_t start = (int64_t)record[i++] - left;
        if (start >= limit)
            break;
        int64_t end = i < words ? (int64_t)record[i++] - left : limit;
        if (start < 0)
            start = 0; /* a run that began left of the origin */
        if (end > limit)
            end = limit;
        if (end > start)
            ClearBits(row, (uint32_t)start, (uint32_t)end);
    }
}

void RunExpandRow(const uint16_t *record, uint32_t recordBytes, int32_t width, uint8_t *row,
                  uint32_t rowBytes)
{
    RunExpandRowAt(record, recordBytes, 0, width, row, rowBytes);
}

int32_t RunPlainChangeCount(const uint16_t *record, uint32_t recordBytes, int32_t width)
{
    uint32_t words = recordBytes / 2, i = 1;
    int32_t previous = -1;
    for (; i < words && record[i] < width; i++) {
        if (record[i] <= previous)
            return -1;
        previous = record[i];
    }
    int32_t count = (int32_t)i - 1;
    /* A row ending inside a run of 0-bits: the expansion reads the position
     * at or beyond the width as that run's end and the word after it as the
     * start of another run, which must not lie inside the row. */
    if ((count & 1) && i + 1 < words && record[i + 1] < width)
        return -1;
    return count;
}

int RunClipRecord(const uint16_t *record, uint32_t recordBytes, int32_t left, int32_t width,
                  uint16_t *out)
{
    uint32_t words = recordBytes / 2, i = 1, skipped = 0;
    uint16_t *o = out + 1;
    while (i < words && record[i] < left) { /* positions before the rectangle */
        skipped++;
        i++;
    }
    if (skipped & 1)
        *o++ = 0; /* inside a run of 0-bits: keep the colours in step */
    for (; i < words && record[i] < (uint32_t)left + (uint32_t)width; i++)
        *o++ = (uint16_t)(record[i] - left);
    o[0] = o[1] = (uint16_t)width;
    o += 2;
    int length = (int)((o - out) * 2);
    out[0] = (uint16_t)length;
    return length;
}

/* ---- rows handed over as records ---- */

static struct {
    ImgRowSource rowSource;
    RunRecordSource recordSource;
} recordSourcePair;

void RunSetRecordSource(ImgRowSource rowSource, RunRecordSource recordSource)
{
    recordSourcePair = {rowSource, recordSource};
}

RunRecordSource RunRecordSourceOf(ImgRowSource rowSource)
{
    if (!rowSource || rowSource != recordSourcePair.rowSource)
        return NULL;
    return recordSourcePair.recordSource;
}

/* ---- the row store ---- */

size_t RunStoreIndexBytes(int32_t width, int32_t height)
{
    size_t n = (size_t)(width > height ? width : height);
    return (n + n / 2) * 4 + 800;
}

uint32_t *RunStoreAllocateIndex(int32_t width, int32_t height)
{
    size_t size = RunStoreIndexBytes(width, height);
    uint32_t *index = static_cast<uint32_t *>(ImgAlloc(size));
    if (index)
        memset(index, 0, size);
    return index;
}

const uint16_t *RunStoreRow(const ImgDescriptor *d, int32_t row, uint32_t *bytes)
{
    *bytes = 0;
    if (!d->dib || !d->rowIndex || row < 0 || row >= d->height)
        return NULL;
    uint32_t start = d->rowIndex[row], end = d->rowIndex[row + 1];
    uint64_t base = ImgDescriptorBitsOffset(d);
    if (end < start || base + end > d->dibSize || (start & 1))
        return NULL;
    *bytes = end - start;
    return (const uint16_t *)(d->dib + base + start);
}

int RunStoreReserve(ImgDescriptor *d, uint64_t end, double rowsStored, uint64_t ceiling)
{
    if (end <= d->dibSize)
        return 0;
    if (ceiling && end > ceiling)
        return IMG_ERR_MEMORY;
    /* Extrapolate from the rows stored so far; never less than what is needed. */
    double grown = (double)d->height / (rowsStored >= 1 ? rowsStored : 1) * (double)d->dibSize;
    uint64_t size = grown < 4e9 ? (uint64_t)grown + 32768 : 0;
    if (size < end)
        size = end + 32768;
    if (ceiling && size > ceiling)
        size = ceiling;
    if (size > 0x7FFFFFFFu - 200)
        return IMG_ERR_MEMORY;
    uint8_t *block = static_cast<uint8_t *>(ImgRealloc(d->dib, (size_t)size + 200));
    if (!block)
        return IMG_ERR_MEMORY;
    d->dib = block;
    d->dibSize = (uint32_t)size;
    return 0;
}

int RunStoreAppend(ImgDescriptor *d, int32_t row, const uint16_t *record, uint32_t bytes,
                   double rowsStored, uint64_t ceiling)
{
    uint32_t base = ImgDescriptorBitsOffset(d);
    uint32_t start = d->rowIndex[row];
    int result = RunStoreReserve(d, (uint64_t)base + start + bytes, rowsStored, ceiling);
    if (result < 0)
        return result;
    memcpy(d->dib + base + start, record, bytes);
    d->rowIndex[row + 1] = start + bytes;
    return 0;
}

int RunStoreReverseRows(ImgDescriptor *d)
{
    uint32_t base = ImgDescriptorBitsOffset(d);
    uint32_t end = d->rowIndex[d->height];
    uint8_t *copy = static_cast<uint8_t *>(ImgAlloc((size_t)end + 1));
    uint32_t *index = RunStoreAllocateIndex(d->width, d->height);
    if (!copy || !index) {
        ImgFree(copy);
        ImgFree(index);
        return IMG_ERR_MEMORY;
    }
    memcpy(copy, d->dib + base, end);
    uint32_t offset = 0;
    for (int32_t r = 0; r < d->height; r++) {
        int32_t from = d->height - 1 - r;
        uint32_t bytes = d->rowIndex[from + 1] - d->rowIndex[from];
        memcpy(d->dib + base + offset, copy + d->rowIndex[from], bytes);
        index[r] = offset;
        offset += bytes;
    }
    index[d->height] = offset;
    ImgFree(copy);
    ImgFree(d->rowIndex);
    d->rowIndex = index;
    return 0;
}

int RunStoreReplaceRow(ImgDescriptor *d, int32_t row, const uint16_t *record, uint32_t bytes,
                       uint64_t ceiling)
{
    uint32_t oldBytes;
    if (!RunStoreRow(d, row, &oldBytes))
        return IMG_ERR_INVALID;
    uint64_t base = ImgDescriptorBitsOffset(d);
    uint32_t start = d->rowIndex[row];
    uint32_t tailStart = d->rowIndex[row + 1];
    uint32_t storeEnd = d->rowIndex[d->height];
    if (storeEnd < tailStart || base + storeEnd > d->dibSize)
        return IMG_ERR_INVALID; /* the store is not complete */
    int64_t delta = (int64_t)bytes - (int64_t)oldBytes;
    /* Extrapolating from all rows grows by one step of 32768 bytes. */
    int result = RunStoreReserve(d, (uint64_t)((int64_t)(base + storeEnd) + delta), d->height, ceiling);
    if (result < 0)
        return result;
    uint8_t *store = d->dib + base;
    if (delta != 0) {
        memmove(store + start + bytes, store + tailStart, storeEnd - tailStart);
        for (int32_t r = row + 1; r <= d->height; r++)
            d->rowIndex[r] = (uint32_t)((int64_t)d->rowIndex[r] + delta);
    }
    memcpy(store + start, record, bytes);
    return 0;
}

/* ---- record transforms for flipping and inverting ---- */

int RunMirrorRecord(const uint16_t *record, uint32_t recordBytes, int32_t width, uint16_t *out)
{
    uint32_t words = recordBytes / 2, end = 1, retained = 0;
    while (end < words && (int32_t)record[end] < width) {
        if (record[end] != 0)
            retained++; /* width - 0 is not below the width */
        end++;
    }
    int odd = (end - 1) & 1; /* the mirrored row starts with the other colour */
    uint32_t length = 2 * retained + 8 + (odd ? 2u : 0u);
    int fourth = (uint64_t)length == DibStride((uint32_t)(width > 0 ? width : 0), 1);
    if (fourth)
        length += 2;
    if (!out)
        return (int)length;
    uint16_t *o = out + 1;
    if (odd)
        *o++ = 0;
    for (uint32_t i = end; i-- > 1;)
        if (record[i] != 0)
            *o++ = (uint16_t)(width - record[i]);
    for (int k = 0; k < 3 + fourth; k++)
        *o++ = (uint16_t)width;
    out[0] = (uint16_t)length;
    return (int)length;
}

int RunInvertRecord(const uint16_t *record, uint32_t recordBytes, uint16_t *out)
{
    uint32_t words = recordBytes / 2;
    if (words >= 2 && record[1] == 0) {
        uint32_t length = (words - 1) * 2;
        if (out) {
            out[0] = (uint16_t)length;
            if (words > 2)
                memcpy(out + 1, record + 2, (size_t)(words - 2) * 2);
        }
        return (int)length;
    }
    uint32_t body = words > 1 ? words - 1 : 0; /* the words behind the length */
    uint32_t length = (body + 2) * 2;
    if (out) {
        out[0] = (uint16_t)length;
        out[1] = 0;
        if (body)
            memcpy(out + 2, record + 1, (size_t)body * 2);
    }
    return (int)length;
}
