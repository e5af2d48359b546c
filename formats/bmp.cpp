/*
 * bmp.cpp - BMP and DIB.
 *
 * One reader (BmpRead) for file types 1 ("bmp") and 48 ("dib"), normalising
 * every header form into the 40-byte header of the header sink, then one of
 * five decoders: plain rows, bit fields, RLE8, RLE4 and length-prefixed
 * records.  Two writers (types 1 and 48) and the compressed bitmap writer
 * of save type 12 (RLE8 / RLE4).
 *
 * Valid files read with the established behaviour, quirks included.  Hostile
 * files are handled as listed under "BMP and DIB" in docs/DEVIATIONS.md;
 * each such place carries a "hardening" comment.
 */
#include "formats/bmp.h"

#include <stddef.h>
#include <string.h>

#include "codecs/jpeg.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#define BMP_FILE_TYPE 0x4D42u         /* "BM" */
#define BMP_FILE_HEADER_SIZE 14
#define BMP_INFO_SIZE 40
#define BMP_CORE_SIZE 12
#define BMP_COMPRESSION_JPEG 0x4745504Au /* the bytes "JPEG" */
#define BMP_RLE8 1u
#define BMP_RLE4 2u
#define BMP_BITFIELDS 3u
#define BMP_RECORDS 99u

/* Row conversion modes (numbered as the reader's state uses them). */
#define MODE_PLAIN 0
#define MODE_INVERT 1
#define MODE_WIDEN16 16
#define MODE_TOP_DOWN 99

#define BLOCK IMG_CHUNK_SIZE

/* Hardening: the largest pixel block a header may declare (stride * height). */
#define BMP_MAX_PIXEL_BYTES 0x7FFFFFFFull
/* Hardening: RLE steps allowed between two row deliveries beyond the pixels
 * of a stride. */
#define BMP_RLE_STEP_SLACK 64u

/* Everything a decoder needs about the image being read. */
typedef struct BmpReadState {
    int handle;
    ImgRowSink rowSink;
    void *sinkContext;
    int32_t width, height;
    int bits;       /* after 16 became 24 */
    int mode;       /* MODE_* */
    uint32_t stride; /* of the header's width and bit count */
} BmpReadState;

/* ---- small helpers ---- */

/* The reader's stride rule: any bit count not listed
 * (8 included) takes one byte per pixel. */
static uint64_t BmpStride(uint32_t width, int bits)
{
    uint64_t w = width, bytes;
    switch (bits) {
    case 1: bytes = (w + 7) / 8; break;
    case 4: bytes = (w + 1) / 2; break;
    case 16: bytes = 2 * w; break;
    case 24: bytes = 3 * w; break;
    case 32: bytes = 4 * w; break;
    default: bytes = w; break;
    }
    return (bytes + 3) & ~(uint64_t)3;
}

/* A tracked block of `size` bytes whose bytes from `zeroFrom` on are zeroed
 * (hardening: no uninitialised heap byte ever reaches a sink), or NULL. */
static uint8_t *BmpAllocFrom(uint64_t size, uint64_t zeroFrom)
{
    if (size > (uint64_t)(size_t)-1 || size > 0xFFFFFFFFull)
        return NULL;
    uint8_t *p = static_cast<uint8_t *>(ImgAllocTracked((size_t)size));
    if (p && zeroFrom < size)
        memset(p + zeroFrom, 0, (size_t)(size - zeroFrom));
    return p;
}

static uint8_t *BmpAlloc(uint64_t size)
{
    return BmpAllocFrom(size, 0);
}

/* One file-header field read on its own, unchecked (a short read leaves 0). */
static uint32_t BmpReadField(int handle, uint32_t size)
{
    uint8_t b[4] = {0, 0, 0, 0};
    ImgRead(handle, b, size);
    return size == 2 ? GetLE16(b) : GetLE32(b);
}

static void BmpSeek(int handle, uint32_t offset)
{
    ImgSeek(handle, (int32_t)offset, 0); /* offsets wrap as 32-bit values */
}

/* ---- reading the header ---- */

/* The OS/2 12-byte core header, converted in place into the 40-byte form. */
static void ConvertCoreHeader(uint8_t *h)
{
    int32_t width = (int16_t)GetLE16(h + 4);
    int32_t height = (int16_t)GetLE16(h + 6);
    uint16_t bits = GetLE16(h + 10);
    memset(h, 0, BMP_INFO_SIZE);
    PutLE32(h + 0, BMP_INFO_SIZE);
    PutLE32(h + 4, (uint32_t)width);
    PutLE32(h + 8, (uint32_t)height);
    PutLE16(h + 12, 1);
    PutLE16(h + 14, bits);
    PutLE32(h + 20, (uint32_t)(BmpStride((uint32_t)width, bits) * (uint32_t)height));
}

/* Pixels per metre to dots per inch (item 9 of BmpRead). */
static void ConvertResolution(uint8_t *h, int fileHeader)
{
    int32_t x = (int32_t)GetLE32(h + 24), y = (int32_t)GetLE32(h + 28);
    if (x == 0 || y == 0 || !(fileHeader || x > 2000))
        return; /* a bare DIB at 2000 or less already carries dots per inch */
    PutLE32(h + 24, (uint32_t)(int32_t)(x * 0.0254 + 0.5));
    PutLE32(h + 28, (uint32_t)(int32_t)(y * 0.0254 + 0.5));
}

/* The palette (item 11 of BmpRead): 2^bitcount entries for bit counts up to
 * 8, triples for a core header (into 4-byte slots), quads otherwise. */
static void ReadPalette(int handle, uint8_t *h, int bits, int core)
{
    if (bits > 8)
        return;
    uint32_t entries = 1u << bits;
    if (!core) {
        ImgRead(handle, h + BMP_INFO_SIZE, 4 * entries);
        return;
    }
    for (uint32_t i = 0; i < entries; i++)
        ImgRead(handle, h + BMP_INFO_SIZE + 4 * i, 3);
}

/* The black-and-white rule (item 12 of BmpRead): mode 1 for (white, black);
 * the palette becomes (black, white). */
static int ApplyBlackWhiteRule(uint8_t *h, int mode)
{
    uint8_t *p = h + BMP_INFO_SIZE;
    if (p[0] == 255 && p[1] == 255 && p[2] == 255 && p[4] == 0 && p[5] == 0 && p[6] == 0)
        mode = MODE_INVERT;
    p[0] = p[1] = p[2] = 0;
    p[4] = p[5] = p[6] = 255; /* reserved bytes 3 and 7 untouched */
    return mode;
}

/* The geometry the decoders size their buffers from: a header sink that
 * accepts anything must not lead to a division by zero or a wrapped size. */
static int CheckGeometry(const BmpReadState *s, uint64_t stride)
{
    if (s->width < 1 || s->height < 1)
        return IMG_ERR_INVALID;
    if (s->bits != 1 && s->bits != 4 && s->bits != 8 && s->bits != 24 && s->bits != 32)
        return IMG_ERR_INVALID;
    uint64_t bytes;
    if (!CheckedBlockSize(stride, (uint64_t)s->height, BMP_MAX_PIXEL_BYTES, &bytes))
        return IMG_ERR_INVALID;
    return 0;
}

/* ---- the plain row reader and the bit-field reader ---- */

/* 16-bit 5-5-5 to blue, green, red; low bits left 0. */
static void Widen555(const uint8_t *src, uint8_t *dst, int32_t width)
{
    for (int32_t i = 0; i < width; i++, src += 2, dst += 3) {
        uint32_t v = GetLE16(src);
        dst[0] = (uint8_t)(v * 8);
        dst[1] = (uint8_t)((v >> 2) & 0xF8);
        dst[2] = (uint8_t)((v >> 7) & 0xF8);
    }
}

/* Bit fields: always 5-6-5, whatever masks the file stores. */
static void Widen565(const uint8_t *src, uint8_t *dst, int32_t width)
{
    for (int32_t i = 0; i < width; i++, src += 2, dst += 3) {
        uint32_t v = GetLE16(src);
        dst[0] = (uint8_t)(v * 8);
        dst[1] = (uint8_t)((v >> 3) & 0xFC);
        dst[2] = (uint8_t)((v >> 8) & 0xF8);
    }
}

static void InvertBytes(uint8_t *row, uint32_t n)
{
    for (uint32_t i = 0; i < n; i++)
        row[i] = (uint8_t)~row[i];
}

/* Rows from the last stored index (height - 1) down to 0, many per ImgRead.
 * bitFields selects the bit-field reader: every row widened as 5-6-5 and
 * delivered with its stored index. */
static int ReadRowBlocks(const BmpReadState *s, int bitFields)
{
    uint64_t w = (uint64_t)s->width;
    uint64_t sourceRow = s->mode == MODE_WIDEN16 ? 2 * w : s->stride; /* 16-bit rows unpadded */
    uint32_t delivered = s->stride; /* the 24-bit stride in mode 16 and for bit fields */
    uint64_t conversionSize = 3 * w + 150;
    if (conversionSize < delivered)
        conversionSize = delivered; /* hardening: 32-bit bit fields deliver 4w-stride rows */
    uint64_t rowsPerBlock = sourceRow <= BLOCK ? BLOCK / sourceRow : 1;
    uint64_t blockBytes = rowsPerBlock * sourceRow;
    /* hardening: bit fields read 2 bytes a pixel even from narrower rows */
    uint64_t overrun = bitFields && 2 * w > sourceRow ? 2 * w - sourceRow : 0;

    /* the widening writes the first 3 * width bytes of every row itself */
    uint8_t *conversion = BmpAllocFrom(conversionSize, 3 * w);
    if (!conversion)
        return IMG_ERR_MEMORY;
    uint8_t *block = BmpAlloc(blockBytes + 2000 + overrun);
    if (!block) {
        ImgFreeTracked(conversion);
        return IMG_ERR_MEMORY;
    }

    int result = 0;
    int32_t stored = s->height - 1;
    while (stored >= 0 && result >= 0) {
        uint32_t rows = (uint64_t)stored + 1 < rowsPerBlock ? (uint32_t)stored + 1 : (uint32_t)rowsPerBlock;
        ImgRead(s->handle, block, (uint32_t)(rows * sourceRow)); /* unchecked: rows past a short file's end keep what the block held */
        for (uint32_t k = 0; k < rows && result >= 0; k++, stored--) {
            uint8_t *row = block + k * sourceRow;
            const uint8_t *out = row;
            int index = stored;
            uint32_t size = (uint32_t)sourceRow;
            if (bitFields) {
                Widen565(row, conversion, s->width);
                out = conversion;
                size = delivered;
            } else if (s->mode == MODE_INVERT) {
                InvertBytes(row, size);
            } else if (s->mode == MODE_WIDEN16) {
                Widen555(row, conversion, s->width);
                out = conversion;
                size = delivered;
            } else if (s->mode == MODE_TOP_DOWN) {
                index = s->height - 1 - stored;
            }
            result = s->rowSink(out, s->sinkContext, index, (int)size);
        }
    }
    ImgFreeTracked(block);
    ImgFreeTracked(conversion);
    return result < 0 ? result : 0;
}

/* ---- RLE8 and RLE4 ---- */

/* The input block of the two RLE decoders. */
typedef struct RleInput {
    int handle;
    uint8_t *data;   /* BLOCK bytes */
    uint32_t pos;    /* read position, at most BLOCK */
    int checkEmpty;  /* RLE8: a refill that reads 0 bytes ends the decode */
} RleInput;

/* Moves the unread tail to the front and refills behind it with one read.
 * Returns 0 when the refill read 0 bytes and checkEmpty is set, else 1. */
static int RleRefill(RleInput *in)
{
    uint32_t tail = BLOCK - in->pos;
    memmove(in->data, in->data + in->pos, tail);
    int32_t got = ImgRead(in->handle, in->data + tail, in->pos);
    in->pos = 0;
    return !(in->checkEmpty && got == 0);
}

/* The refill rule: whenever the read position reaches block size -
 * stride or more.  Then (hardening) a refill whenever the `need` bytes of the
 * step about to be taken do not all lie inside the block. */
static int RleEnsure(RleInput *in, uint32_t stride, uint32_t need)
{
    if ((int64_t)in->pos >= (int64_t)BLOCK - (int64_t)stride && !RleRefill(in))
        return 0;
    if (in->pos + need > BLOCK && !RleRefill(in))
        return 0;
    return 1;
}

/* An absolute run or a delta may not fit behind the two bytes already looked
 * at: refill from those two bytes on (hardening, see RleEnsure). */
static int RleEnsureMore(RleInput *in, uint32_t need)
{
    return in->pos + need <= BLOCK || RleRefill(in);
}

/* The output row of an RLE decoder. */
typedef struct RleRow {
    uint8_t *data;
    uint32_t column;  /* saturates at limit: columns beyond it are never stored */
    uint32_t limit;
    int32_t index;    /* current row, from height - 1 down */
    uint32_t steps;   /* steps since the last delivery (hardening) */
} RleRow;

static void RleAdvance(RleRow *row, uint32_t n)
{
    row->column = n >= row->limit - row->column ? row->limit : row->column + n;
}

static void Rle8Store(RleRow *row, uint8_t value)
{
    if (row->column < row->limit)
        row->data[row->column] = value;
    RleAdvance(row, 1);
}

/* Even column: the whole byte, low nibble cleared; odd: OR into the low half. */
static void Rle4Store(RleRow *row, uint8_t nibble)
{
    if (row->column < row->limit) {
        uint8_t *byte = row->data + row->column / 2;
        if (row->column % 2 == 0)
            *byte = (uint8_t)(nibble << 4);
        else
            *byte |= nibble;
    }
    RleAdvance(row, 1);
}

static int RleDeliver(const BmpReadState *s, RleRow *row)
{
    row->steps = 0;
    return s->rowSink(row->data, s->sinkContext, row->index, (int)s->stride);
}

/* RLE8 (rle4 == 0) or RLE4 (rle4 != 0).  The decoders differ in their pixel
 * store, their row buffer, the empty-refill rule and the delta. */
static int DecodeRle(const BmpReadState *s, int rle4)
{
    uint64_t rowSize = rle4 ? 4 * (uint64_t)s->stride : (uint64_t)s->stride + 3000;
    RleInput in = {s->handle, BmpAlloc(BLOCK), BLOCK, !rle4};
    RleRow row = {BmpAlloc(rowSize), 0, 0, s->height - 1, 0};
    if (!in.data || !row.data) {
        ImgFreeTracked(in.data);
        ImgFreeTracked(row.data);
        return IMG_ERR_MEMORY;
    }
    /* RLE8 stores below stride + 1000, the slack of its row buffer; RLE4 only
     * inside its buffer of 4 * stride bytes. */
    row.limit = rle4 ? (rowSize * 2 > 0xFFFFFFFFull ? 0xFFFFFFFFu : (uint32_t)(rowSize * 2))
                     : s->stride + 1000;
    /* Hardening: every run or absolute run covers at least one pixel, so a
     * row that takes more steps than its stride has pixels (plus some
     * slack) without a delivery can only come from a hostile or stale block;
     * it could loop for ever. */
    uint64_t stepLimit = (rle4 ? 2 * (uint64_t)s->stride : s->stride) + BMP_RLE_STEP_SLACK;

    int result = 0;
    while (row.index >= 0 && result >= 0) {
        if (!RleEnsure(&in, s->stride, 2))
            break; /* RLE8's empty refill: result 0 */
        if (++row.steps > stepLimit) {
            result = IMG_ERR_INVALID;
            break;
        }
        uint8_t count = in.data[in.pos], value = in.data[in.pos + 1];
        if (count > 0) { /* encoded run */
            for (uint32_t k = 0; k < count; k++) {
                if (rle4)
                    Rle4Store(&row, (uint8_t)(k % 2 ? value & 15 : value >> 4));
                else
                    Rle8Store(&row, value);
            }
            in.pos += 2;
        } else if (value == 0) { /* end of line */
            result = RleDeliver(s, &row);
            row.column = 0;
            row.index--;
            in.pos += 2;
        } else if (value == 1) { /* end of bitmap */
            RleDeliver(s, &row); /* the end of the bitmap: the sink's answer no longer matters */
            break;
        } else if (value == 2) { /* delta */
            if (!RleEnsureMore(&in, 4))
                break;
            uint8_t dx = in.data[in.pos + 2], dy = in.data[in.pos + 3];
            in.pos += 4;
            RleAdvance(&row, dx);
            if (rle4) {
                /* delivered once; the skipped rows are never delivered */
                if (dy != 0) {
                    result = RleDeliver(s, &row);
                    row.index -= dy;
                }
            } else {
                /* the same buffer dy times; hardening: never below row 0 */
                for (uint32_t k = 0; k < dy && row.index >= 0 && result >= 0; k++) {
                    result = RleDeliver(s, &row);
                    row.index--;
                }
            }
        } else { /* absolute run of `value` pixels */
            uint32_t bytes = rle4 ? (value + 1u) / 2 : value;
            if (!RleEnsureMore(&in, 2 + bytes))
                break;
            const uint8_t *literal = in.data + in.pos + 2;
            for (uint32_t k = 0; k < value; k++) {
                if (rle4)
                    Rle4Store(&row, (uint8_t)(k % 2 ? literal[k / 2] & 15 : literal[k / 2] >> 4));
                else
                    Rle8Store(&row, literal[k]);
            }
            in.pos = (in.pos + 2 + bytes + 1) & ~1u; /* rounded up to even */
        }
    }
    ImgFreeTracked(row.data);
    ImgFreeTracked(in.data);
    return result;
}

/* ---- the record reader (compression 99) ---- */

static int ReadRecords(const BmpReadState *s)
{
    uint8_t *block = BmpAlloc(BLOCK + 100);
    if (!block)
        return IMG_ERR_MEMORY;
    ImgRead(s->handle, block, BLOCK);
    uint32_t pos = 0;
    int result = 0;
    for (int32_t index = 0; index < s->height && result >= 0; index++) {
        if (pos >= BLOCK) {
            ImgRead(s->handle, block, BLOCK);
            pos = 0;
        }
        int32_t length = (int16_t)GetLE16(block + pos);
        /* Hardening: a record holds at least its own length field, and at
         * most one block; anything else would loop in place or read outside. */
        if (length < 2 || length > BLOCK) {
            result = IMG_ERR_INVALID;
            break;
        }
        if (pos + (uint32_t)length >= BLOCK) {
            uint32_t tail = BLOCK - pos;
            memmove(block, block + pos, tail);
            ImgRead(s->handle, block + tail, BLOCK - tail);
            pos = 0;
        }
        result = s->rowSink(block + pos, s->sinkContext, index, length);
        pos += (uint32_t)length;
    }
    ImgFreeTracked(block);
    return result < 0 ? result : 0;
}

/* ---- the reader ---- */

static int Decode(const BmpReadState *s, uint32_t compression)
{
    if (compression == BMP_RLE8 && s->bits == 8)
        return DecodeRle(s, 0);
    if (compression == BMP_RLE4 && s->bits == 4)
        return DecodeRle(s, 1);
    if (compression == BMP_BITFIELDS)
        return ReadRowBlocks(s, 1);
    if (compression == BMP_RECORDS)
        return ReadRecords(s);
    return ReadRowBlocks(s, 0);
}

int BmpRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    /* 1. The file header, field by field, unchecked. */
    BmpSeek(handle, start);
    uint32_t fileType = BmpReadField(handle, 2);
    BmpReadField(handle, 4); /* bfSize, ignored */
    BmpReadField(handle, 2);
    BmpReadField(handle, 2);
    uint32_t offBits = BmpReadField(handle, 4);

    /* 2. The header block. */
    uint8_t *h = BmpAlloc(IMG_HEADER_BLOCK_SIZE);
    if (!h)
        return IMG_ERR_MEMORY;

    /* 3-5. A bare DIB starts at start; the palette position. */
    int fileHeader = fileType == BMP_FILE_TYPE;
    if (!fileHeader)
        BmpSeek(handle, start);
    ImgRead(handle, h, BMP_INFO_SIZE);
    int core = GetLE32(h) == BMP_CORE_SIZE;
    /* 26 for a core header even when bare (such files only read right behind
     * 14 bytes of file header) */
    uint32_t palettePosition = core ? 26 : fileHeader ? 54 : 40;
    if (core)
        ConvertCoreHeader(h);

    BmpReadState s = {handle, rowSink, sinkContext, 0, 0, 0, MODE_PLAIN, 0};
    /* 6. 16 bits are widened to 24. */
    s.bits = GetLE16(h + 14);
    if (s.bits == 16) {
        s.mode = MODE_WIDEN16;
        s.bits = 24;
        PutLE16(h + 14, 24);
    }
    /* 7. Top-down. */
    s.width = (int32_t)GetLE32(h + 4);
    s.height = (int32_t)GetLE32(h + 8);
    if (s.height < 0) {
        s.mode = MODE_TOP_DOWN;
        s.height = (int32_t)(0u - (uint32_t)s.height); /* INT32_MIN stays negative: refused below */
        PutLE32(h + 8, (uint32_t)s.height);
    }
    /* 8. Normalise. */
    PutLE32(h + 0, BMP_INFO_SIZE);
    PutLE16(h + 12, 1);
    uint32_t colorsUsed = GetLE32(h + 32);
    PutLE32(h + 32, 0);
    PutLE32(h + 36, 0);
    uint64_t stride = BmpStride((uint32_t)s.width, s.bits);
    s.stride = (uint32_t)stride;
    PutLE32(h + 20, (uint32_t)(stride * (uint32_t)s.height));
    /* 9. Resolution. */
    ConvertResolution(h, fileHeader);
    /* 10. Compression remembered and cleared. */
    uint32_t compression = GetLE32(h + 16);
    PutLE32(h + 16, 0);
    PutLE32(h + 32, 0);
    /* 11-12. Palette and the black/white rule. */
    BmpSeek(handle, start + palettePosition);
    ReadPalette(handle, h, s.bits, core);
    if (s.bits == 1)
        s.mode = ApplyBlackWhiteRule(h, s.mode);

    int result = 0;
    /* 13. The header sink (not for "JPEG"). */
    if (compression != BMP_COMPRESSION_JPEG) {
        result = CheckGeometry(&s, stride); /* hardening */
        if (result >= 0)
            result = headerSink(h, sinkContext);
        if (result < 0) {
            ImgFreeTracked(h);
            return result;
        }
    }
    /* 14. The pixel data. */
    if (fileHeader)
        BmpSeek(handle, start + offBits);
    else if (colorsUsed != 0)
        BmpSeek(handle, start + 4 * colorsUsed + BMP_INFO_SIZE);
    /* 15. A JPEG stream at bfOffBits: the JPEG decoder reads it, header
     * included, and its result is returned. */
    if (compression == BMP_COMPRESSION_JPEG) {
        ImgFreeTracked(h);
        if ((uint64_t)start + offBits >= IMG_PAGE_FLAG)
            return IMG_ERR_INVALID; /* hardening: beyond the 31-bit offsets */
        return JpegRead(start + offBits, rowSink, sinkContext, headerSink, handle);
    }
    result = Decode(&s, compression);
    ImgFreeTracked(h);
    return result < 0 ? result : 1;
}

/* ---- the writers ---- */

/* What the writers take from the header copy they are handed. */
typedef struct BmpWriteInfo {
    int32_t width, height;
    int bits;
    uint32_t headerSize;    /* the image header's biSize */
    uint32_t paletteBytes;
    uint32_t stride;
    const uint8_t *palette; /* just behind the image's header */
} BmpWriteInfo;

/* Reads and (hardening) checks the header copy: depths the format carries
 * (-21), a positive geometry whose sizes fit the 32-bit fields, and a biSize
 * that keeps header and palette inside the 1064-byte copy (-3). */
static int BmpWriteSetup(const uint8_t *header, BmpWriteInfo *info)
{
    info->width = (int32_t)GetLE32(header + 4);
    info->height = (int32_t)GetLE32(header + 8);
    info->bits = GetLE16(header + 14);
    info->headerSize = GetLE32(header);
    if (!DibDepthSupported(info->bits))
        return IMG_ERR_DEPTH;
    info->paletteBytes = DibPaletteSize(info->bits); /* 4 * 2^bits; 1024 at 16; none at 24, 32 */
    if (info->width < 1 || info->height < 1)
        return IMG_ERR_INVALID;
    if (info->headerSize < BMP_INFO_SIZE ||
        info->headerSize > IMG_HEADER_BLOCK_SIZE - info->paletteBytes)
        return IMG_ERR_INVALID;
    uint64_t stride = DibStride((uint32_t)info->width, info->bits);
    uint64_t bytes;
    if (!CheckedBlockSize(stride, (uint64_t)info->height, BMP_MAX_PIXEL_BYTES - 4096, &bytes))
        return IMG_ERR_INVALID;
    info->stride = (uint32_t)stride;
    info->palette = header + info->headerSize;
    return 0;
}

static int BmpWriteBytes(int handle, const void *bytes, uint32_t count)
{
    return ImgWrite(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

/* Dots per inch to pixels per metre; hardening: clamped to 32 bits (the
 * conversion of a larger double to an integer is undefined). */
static uint32_t PelsPerMetre(int32_t dpi)
{
    double v = dpi * 39.37007874015748 + 0.5;
    if (v >= 2147483647.0)
        return 0x7FFFFFFFu;
    if (v <= -2147483648.0)
        return 0x80000000u;
    return (uint32_t)(int32_t)v;
}

/* The resolution pair of the copy, 0 unless both are set. */
static void PutResolution(uint8_t *copy, const uint8_t *header)
{
    int32_t x = (int32_t)GetLE32(header + 24), y = (int32_t)GetLE32(header + 28);
    PutLE32(copy + 24, x && y ? PelsPerMetre(x) : 0);
    PutLE32(copy + 28, x && y ? PelsPerMetre(y) : 0);
}

/* The file header: five writes whose counts must add up to 14. */
static int WriteFileHeader(int handle, uint32_t fileSize, uint32_t offBits)
{
    uint8_t b[4];
    int32_t total = 0;
    PutLE16(b, BMP_FILE_TYPE);
    total += ImgWrite(handle, b, 2);
    PutLE32(b, fileSize);
    total += ImgWrite(handle, b, 4);
    PutLE16(b, 0);
    total += ImgWrite(handle, b, 2);
    total += ImgWrite(handle, b, 2);
    PutLE32(b, offBits);
    total += ImgWrite(handle, b, 4);
    return total == BMP_FILE_HEADER_SIZE ? 0 : IMG_ERR_WRITE;
}

/* The rest of the file: info header, palette, rows bottom row first. */
static int WriteInfoAndRows(int handle, const uint8_t *header, const BmpWriteInfo *info,
                            ImgRowSource rowSource, void *sourceContext)
{
    uint8_t copy[IMG_HEADER_BLOCK_SIZE];
    memcpy(copy, header, info->headerSize);
    PutLE32(copy + 0, BMP_INFO_SIZE);
    PutLE32(copy + 4, (uint32_t)info->width);
    PutLE32(copy + 8, (uint32_t)info->height);
    PutLE16(copy + 12, 1);
    PutLE32(copy + 16, 0);
    PutLE32(copy + 20, info->stride * (uint32_t)info->height);
    PutResolution(copy, header);
    PutLE32(copy + 32, 0);
    PutLE32(copy + 36, 0);
    int result = BmpWriteBytes(handle, copy, info->headerSize);
    if (result < 0)
        return result;
    if (info->paletteBytes && (result = BmpWriteBytes(handle, info->palette, info->paletteBytes)) < 0)
        return result;

    uint8_t *row = BmpAlloc((uint64_t)info->stride + 10);
    if (!row)
        return IMG_ERR_MEMORY;
    for (int32_t i = 0; i < info->height && result >= 0; i++) {
        result = rowSource(sourceContext, row, info->height - 1 - i, (int)info->stride);
        if (result >= 0)
            result = BmpWriteBytes(handle, row, info->stride);
    }
    ImgFreeTracked(row); /* freed on the short write too */
    return result < 0 ? result : 0;
}

int BmpWritePacked(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    BmpWriteInfo info;
    int result = BmpWriteSetup(header, &info);
    if (result < 0)
        return result;
    return WriteInfoAndRows(handle, header, &info, rowSource, sourceContext);
}

int BmpWriteFile(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    BmpWriteInfo info;
    int result = BmpWriteSetup(header, &info);
    if (result < 0)
        return result;
    uint32_t offBits = BMP_FILE_HEADER_SIZE + BMP_INFO_SIZE + info.paletteBytes;
    result = WriteFileHeader(handle, (uint32_t)info.height * info.stride + offBits, offBits);
    if (result < 0)
        return result;
    return WriteInfoAndRows(handle, header, &info, rowSource, sourceContext);
}

/* ---- the compressed bitmap writer (save type 12) ---- */

/* 1 when three equal pixels start at i. */
static int RunOfThree(const uint8_t *px, uint32_t i, uint32_t n)
{
    return i + 2 < n && px[i] == px[i + 1] && px[i] == px[i + 2];
}

static uint32_t RunLength(const uint8_t *px, uint32_t i, uint32_t n)
{
    uint32_t r = 1;
    while (i + r < n && r < 255 && px[i + r] == px[i])
        r++;
    return r;
}

/* An encoded run: count, then the value byte (for RLE4 the nibble twice). */
static uint32_t PutRun(uint8_t *out, uint32_t count, uint8_t pixel, int rle4)
{
    out[0] = (uint8_t)count;
    out[1] = rle4 ? (uint8_t)(pixel << 4 | pixel) : pixel;
    return 2;
}

/* An absolute run of n >= 3 pixels, its data padded to an even byte count. */
static uint32_t PutAbsolute(uint8_t *out, const uint8_t *px, uint32_t n, int rle4)
{
    uint32_t bytes = rle4 ? (n + 1) / 2 : n, padded = bytes + (bytes & 1);
    out[0] = 0;
    out[1] = (uint8_t)n;
    memset(out + 2, 0, padded);
    for (uint32_t k = 0; k < n; k++) {
        if (rle4)
            out[2 + k / 2] |= (uint8_t)(k % 2 ? px[k] : px[k] << 4);
        else
            out[2 + k] = px[k];
    }
    return 2 + padded;
}

/* One row of n pixels (one value per byte) as RLE8 or RLE4 with its end of
 * line: runs of three or more are encoded, everything between them goes in
 * absolute runs (encoded runs when shorter than three).  RLE4 absolute runs
 * hold an even number of pixels (an odd last pixel becomes an encoded
 * run): some readers (Pillow) take n / 2 bytes for an odd run of n.  At most
 * 2 bytes per pixel plus 2. */
static uint32_t EncodeRleRow(const uint8_t *px, uint32_t n, uint8_t *out, int rle4)
{
    uint32_t size = 0, i = 0;
    while (i < n) {
        if (RunOfThree(px, i, n)) {
            uint32_t r = RunLength(px, i, n);
            size += PutRun(out + size, r, px[i], rle4);
            i += r;
            continue;
        }
        uint32_t j = i;
        while (j < n && j - i < 255 && !RunOfThree(px, j, n))
            j++;
        uint32_t literal = rle4 ? (j - i) & ~1u : j - i;
        if (literal >= 3) {
            size += PutAbsolute(out + size, px + i, literal, rle4);
            i += literal;
        }
        while (i < j) { /* one or two pixels */
            uint32_t r = i + 1 < j && px[i + 1] == px[i] ? 2 : 1;
            size += PutRun(out + size, r, px[i], rle4);
            i += r;
        }
    }
    out[size++] = 0; /* end of line */
    out[size++] = 0;
    return size;
}

/* Patches bfSize and biSizeImage by seeking back over the `written` bytes
 * since the start of the file, then returns to the end. */
static int PatchSizes(int handle, uint32_t written, uint32_t imageSize)
{
    uint8_t b[4];
    ImgSeek(handle, -(int32_t)written + 2, 1);
    PutLE32(b, written);
    int result = BmpWriteBytes(handle, b, 4);
    ImgSeek(handle, 20 + BMP_FILE_HEADER_SIZE - 6, 1); /* from bfSize's end to biSizeImage */
    PutLE32(b, imageSize);
    if (result >= 0)
        result = BmpWriteBytes(handle, b, 4);
    ImgSeek(handle, (int32_t)written - (BMP_FILE_HEADER_SIZE + 24), 1);
    return result;
}

int BmpWriteCompressed(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    BmpWriteInfo info;
    int result = BmpWriteSetup(header, &info);
    if (result < 0)
        return result;
    if (info.bits != 8 && info.bits != 4)
        return IMG_ERR_DEPTH;
    int rle4 = info.bits == 4;
    uint64_t worstRow = 2 * (uint64_t)info.width + 2;
    /* every size must fit the 32-bit fields and the relative seek back */
    if (worstRow * (uint64_t)info.height + 2 + 54 + info.paletteBytes > 0x7FFFFFFFull)
        return IMG_ERR_INVALID;

    uint32_t offBits = BMP_FILE_HEADER_SIZE + BMP_INFO_SIZE + info.paletteBytes;
    if ((result = WriteFileHeader(handle, offBits, offBits)) < 0)
        return result;
    uint8_t info40[BMP_INFO_SIZE];
    memset(info40, 0, sizeof info40);
    PutLE32(info40 + 0, BMP_INFO_SIZE);
    PutLE32(info40 + 4, (uint32_t)info.width);
    PutLE32(info40 + 8, (uint32_t)info.height);
    PutLE16(info40 + 12, 1);
    PutLE16(info40 + 14, (uint16_t)info.bits);
    PutLE32(info40 + 16, rle4 ? BMP_RLE4 : BMP_RLE8);
    PutResolution(info40, header);
    if ((result = BmpWriteBytes(handle, info40, BMP_INFO_SIZE)) < 0)
        return result;
    if ((result = BmpWriteBytes(handle, info.palette, info.paletteBytes)) < 0)
        return result;

    uint8_t *row = BmpAlloc((uint64_t)info.stride + 10);
    uint8_t *pixels = rle4 ? BmpAlloc((uint64_t)info.width + 1) : NULL;
    uint8_t *encoded = BmpAlloc(worstRow + 16);
    if (!row || (rle4 && !pixels) || !encoded) {
        ImgFreeTracked(row);
        ImgFreeTracked(pixels);
        ImgFreeTracked(encoded);
        return IMG_ERR_MEMORY;
    }
    uint32_t imageSize = 0;
    for (int32_t i = 0; i < info.height && result >= 0; i++) {
        result = rowSource(sourceContext, row, info.height - 1 - i, (int)info.stride);
        if (result < 0)
            break;
        const uint8_t *px = row;
        if (rle4) { /* one nibble per byte */
            for (int32_t x = 0; x < info.width; x++)
                pixels[x] = (uint8_t)(x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4);
            px = pixels;
        }
        uint32_t size = EncodeRleRow(px, (uint32_t)info.width, encoded, rle4);
        result = BmpWriteBytes(handle, encoded, size);
        imageSize += size;
    }
    if (result >= 0) {
        static const uint8_t endOfBitmap[2] = {0, 1};
        result = BmpWriteBytes(handle, endOfBitmap, 2);
        imageSize += 2;
    }
    if (result >= 0)
        result = PatchSizes(handle, offBits + imageSize, imageSize);
    ImgFreeTracked(row);
    ImgFreeTracked(pixels);
    ImgFreeTracked(encoded);
    return result < 0 ? result : 0;
}

/* ---- the format descriptors ---- */

namespace {

bool ProbeBmp(ImgDetectBytes &s)
{
    return memcmp(s.b, "BM", 2) == 0 || GetLE32(s.b) == DIB_HEADER_SIZE;
}

/* The 14-byte file header, then the 40-byte information header: type 12
 * when biCompression is non-zero, else 1. */
int RefineBmp(int handle, uint32_t start)
{
    uint8_t head[54] = {0};
    (void)start;
    int32_t got = ImgRead(handle, head, 14);
    if (got < 0)
        return got;
    if (got < 14)
        return IMG_ERR_READ;
    /* A bare header (no "BM") is detected as a bitmap too: its own
     * biCompression is at offset 16 of the 40 bytes read from the start. */
    bool bare = !(head[0] == 'B' && head[1] == 'M');
    uint32_t more = bare ? 26 : 40;
    got = ImgRead(handle, head + 14, more);
    if (got < 0)
        return got;
    if ((uint32_t)got < more)
        return IMG_ERR_READ;
    return GetLE32(head + (bare ? 16 : 30)) ? IMG_TYPE_BMP_COMPRESSED : IMG_TYPE_BMP;
}

constexpr ImgTypeEntry kBmpTypes[] = {
    {IMG_TYPE_BMP, "Windows bitmap", BmpWriteFile},
    {IMG_TYPE_BMP_COMPRESSED, "Windows bitmap, compressed", BmpWriteCompressed},
};
constexpr ImgTypeEntry kDibTypes[] = {{IMG_TYPE_DIB, "bitmap without file header", BmpWritePacked}};

} // namespace

const ImgFormat kBmpFormat = {"bmp", "bmp", 1, ProbeBmp, RefineBmp, BmpRead, nullptr, false, kBmpTypes};
/* A bitmap without file header: read by name only, never probed. */
const ImgFormat kDibFormat = {"dib",   nullptr, kNeverDetected, nullptr, nullptr,
                              BmpRead, nullptr, false,          kDibTypes};
