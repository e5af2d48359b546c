/*
 * tiff_write.cpp - the TIFF writers.
 *
 * Every TIFF save type shares one writer: open the output (append behind an
 * "II" TIFF found at the sink, or write a new header), write one IFD with its
 * out-of-line values, the single strip through the save type's row encoder,
 * then patch StripByteCounts with the true count and link the page from the
 * previous last IFD.  Offsets are relative to the position where the output
 * began (the `base`), as the TIFF reader reads them.
 *
 * Hostile or degenerate input is handled as listed under "TIFF writer" in
 * docs/DEVIATIONS.md; each such place carries a "hardening" comment.
 */
#include "formats/tiff_write.h"

#include <string.h>

#include "core/bytes.h"
#include "core/codec_settings.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "codecs/ccitt_encode.h"
#include "codecs/jpeg.h"
#include "codecs/lzw.h"
#include "codecs/packbits.h"

/* Field types. */
#define TYPE_ASCII 2
#define TYPE_SHORT 3
#define TYPE_LONG 4
#define TYPE_RATIONAL 5

/* Row encoders. */
enum { ENCODE_PLAIN, ENCODE_CCITT_1D, ENCODE_CCITT_2D, ENCODE_LZW, ENCODE_PACKBITS, ENCODE_JPEG };

/* One row of the save-type table. */
typedef struct {
    int saveType;
    uint16_t compression;
    uint16_t fillOrder;
    int encoder;
    int lsbFirst;   /* CCITT: output bit-reversed (FillOrder 2) */
    int ccittMode;  /* CCITT: the encoder's mode */
    int oneBitOnly;
} TiffSaveType;

static const TiffSaveType saveTypes[] = {
    {IMG_TYPE_TIFF, 1, 1, ENCODE_PLAIN, 0, 0, 0},
    {IMG_TYPE_TIFF_HUFFMAN, 2, 1, ENCODE_CCITT_1D, 0, 2, 1},
    {IMG_TYPE_TIFF_G3, 3, 2, ENCODE_CCITT_1D, 1, 3, 1},
    {IMG_TYPE_TIFF_LZW, 5, 1, ENCODE_LZW, 0, 0, 0},
    {IMG_TYPE_TIFF_G4, 4, 2, ENCODE_CCITT_2D, 1, 4, 1},
    {IMG_TYPE_TIFF_PACKBITS, 32773, 1, ENCODE_PACKBITS, 0, 0, 1},
    {IMG_TYPE_TIFF_JPEG, 6, 1, ENCODE_JPEG, 0, 0, 0},
    {IMG_TYPE_TIFF_51, 4, 1, ENCODE_CCITT_2D, 0, 4, 1},
};

#define IFD_MAX_ENTRIES 20
#define ENTRY_SIZE 12
#define STRIP_BYTE_COUNTS_INDEX 11 /* the 12th entry of the list */
#define COLOR_MAP_MAX_BYTES (3 * 256 * 2)
/* Count, entries, next offset, resolutions, ColorMap, date, artist. */
#define IFD_BLOCK_MAX                                                                 \
    (2 + ENTRY_SIZE * IFD_MAX_ENTRIES + 4 + 16 + COLOR_MAP_MAX_BYTES + TIFF_WRITE_DATE_BYTES + \
     TIFF_WRITE_ARTIST_BYTES)
#define PLAIN_CHUNK 65536 /* bytes of uncompressed rows gathered per write */
#define OFFSET_LIMIT 0x7FFFFFFF /* hardening: the I/O layer's 32-bit positions */

/* What the IFD says about the page. */
typedef struct {
    const TiffSaveType *type;
    int bits;
    uint32_t width, height;
    uint32_t rowBytes;     /* unpadded: (bits x width + 7) / 8 */
    uint16_t photometric;
    int colorMap;          /* 1: a ColorMap is written */
    uint32_t valueBytes;   /* the ColorMap or BitsPerSample bytes */
    int entries;
} TiffLayout;

/* ---- small helpers ---- */

static const TiffSaveType *FindSaveType(int saveType)
{
    for (size_t i = 0; i < sizeof saveTypes / sizeof saveTypes[0]; i++)
        if (saveTypes[i].saveType == saveType)
            return &saveTypes[i];
    return NULL;
}

static int WriteAll(int handle, const void *bytes, uint32_t count)
{
    return ImgWrite(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

/* The sink's current position (the memory image's seek returns 0, not it). */
static int64_t SinkPosition(int handle)
{
    return handle == IMG_MEMORY_HANDLE ? (int64_t)ImgTell() : (int64_t)ImgSeek(handle, 0, 1);
}

static int SeekTo(int handle, int64_t position)
{
    if (position < 0 || position > OFFSET_LIMIT)
        return IMG_ERR_WRITE;
    int32_t result = ImgSeek(handle, (int32_t)position, 0);
    return result < 0 ? IMG_ERR_WRITE : 0;
}

/* A 4-, 8-bit palette of 2^bits B,G,R,0 entries that is a grey ramp: every
 * entry grey, entry i equal to i x 256 / n (the "tiff" default palette) or
 * i x 255 / (n - 1) (the full-range ramp). */
static int PaletteIsGreyRamp(const uint8_t *palette, int bits)
{
    uint32_t n = 1u << bits;
    int tiffRamp = 1, fullRamp = 1;
    for (uint32_t i = 0; i < n; i++) {
        const uint8_t *e = palette + 4 * i;
        if (e[0] != e[1] || e[0] != e[2])
            return 0;
        tiffRamp &= e[0] == i * 256 / n;
        fullRamp &= e[0] == i * 255 / (n - 1);
    }
    return tiffRamp || fullRamp;
}

/* ---- the layout: depth checks, photometric, entry count ---- */

static int DepthAccepted(const TiffSaveType *type, int bits)
{
    if (type->oneBitOnly)
        return bits == 1;
    if (!DibDepthSupported(bits))
        return 0; /* hardening: "any" depth is one the library stores */
    if (type->encoder == ENCODE_JPEG)
        return bits >= 5 && bits != 16;
    return 1;
}

static int PlanLayout(const TiffSaveType *type, const uint8_t *header, TiffLayout *layout)
{
    const BITMAPINFOHEADER *h = (const BITMAPINFOHEADER *)header;
    int bits = h->biBitCount;
    if (!DepthAccepted(type, bits))
        return IMG_ERR_DEPTH;
    /* Hardening: width and height are written as SHORTs. */
    if (h->biWidth < 1 || h->biWidth > 65535 || h->biHeight < 1 || h->biHeight > 65535)
        return IMG_ERR_TYPE;
    memset(layout, 0, sizeof *layout);
    layout->type = type;
    layout->bits = bits;
    layout->width = (uint32_t)h->biWidth;
    layout->height = (uint32_t)h->biHeight;
    /* JPEG codes grey or colour: 8-bit images with another palette than a
     * grey ramp, and 32-bit ones, go as 24-bit colour. */
    if (type->encoder == ENCODE_JPEG &&
        (bits == 32 || (bits == 8 && !PaletteIsGreyRamp(header + DIB_HEADER_SIZE, bits))))
        layout->bits = bits = 24;
    layout->rowBytes = (uint32_t)(((uint64_t)bits * layout->width + 7) / 8);
    if (type->encoder == ENCODE_CCITT_1D || type->encoder == ENCODE_CCITT_2D)
        layout->photometric = 0;
    else if (type->encoder == ENCODE_PACKBITS)
        layout->photometric = 1;
    else if (bits == 24)
        layout->photometric = 2;
    else if (bits == 32)
        layout->photometric = 5;
    else if ((bits == 4 || bits == 8) && !PaletteIsGreyRamp(header + DIB_HEADER_SIZE, bits))
        layout->photometric = 3, layout->colorMap = 1;
    else
        layout->photometric = 1;
    if (layout->colorMap)
        layout->valueBytes = 3u * (1u << bits) * 2u;
    else if (bits >= 24)
        layout->valueBytes = (uint32_t)(bits / 8) * 2u;
    layout->entries = 18 + layout->colorMap + (type->compression == 3 || type->compression == 6);
    return 0;
}

/* ---- the IFD ---- */

static uint8_t *PutEntry(uint8_t *p, uint16_t tag, uint16_t type, uint32_t count, uint32_t value)
{
    PutLE16(p, tag);
    PutLE16(p + 2, type);
    PutLE32(p + 4, count);
    if (type == TYPE_SHORT && count == 1) {
        PutLE16(p + 8, (uint16_t)value); /* left-justified in the value field */
        PutLE16(p + 10, 0);
    } else {
        PutLE32(p + 8, value);
    }
    return p + ENTRY_SIZE;
}

static void PutRational(uint8_t *p, uint32_t numerator, uint32_t denominator)
{
    PutLE32(p, numerator);
    PutLE32(p + 4, denominator);
}

/* The resolutions: the image's when it has both, else 200 x 200 for
 * compression 3 and 640/9 x 480/7 otherwise. */
static void PutResolutions(uint8_t *p, const TiffLayout *layout, const uint8_t *header)
{
    const BITMAPINFOHEADER *h = (const BITMAPINFOHEADER *)header;
    if (h->biXPelsPerMeter > 0 && h->biYPelsPerMeter > 0) {
        PutRational(p, (uint32_t)h->biXPelsPerMeter, 1);
        PutRational(p + 8, (uint32_t)h->biYPelsPerMeter, 1);
    } else if (layout->type->compression == 3) {
        PutRational(p, 200, 1);
        PutRational(p + 8, 200, 1);
    } else {
        PutRational(p, 640, 9);
        PutRational(p + 8, 480, 7);
    }
}

/* Three tables (red, green, blue) of 2^bits values, palette byte x 256. */
static void PutColorMap(uint8_t *p, const uint8_t *palette, int bits)
{
    uint32_t n = 1u << bits;
    static const int component[3] = {2, 1, 0}; /* R, G, B of a B,G,R,0 entry */
    for (int c = 0; c < 3; c++)
        for (uint32_t i = 0; i < n; i++, p += 2)
            PutLE16(p, (uint16_t)(palette[4 * i + component[c]] * 256));
}

static void PutText(uint8_t *p, const char *text, size_t size)
{
    size_t n = strlen(text);
    memset(p, 0, size);
    memcpy(p, text, n < size ? n : size - 1);
}

/* Builds the IFD of the page at `position` (relative to the base) with its
 * out-of-line values into `block`; returns the block's size. */
static uint32_t BuildIfd(const TiffLayout *layout, const uint8_t *header, uint32_t position,
                         uint8_t *block)
{
    const TiffSaveType *type = layout->type;
    uint32_t values = position + ENTRY_SIZE * (uint32_t)layout->entries + 6; /* XResolution */
    uint32_t extra = values + 16;                                         /* ColorMap / BitsPerSample */
    uint32_t date = extra + layout->valueBytes;
    uint32_t artist = date + TIFF_WRITE_DATE_BYTES;
    uint32_t data = artist + TIFF_WRITE_ARTIST_BYTES;
    uint16_t samples = layout->bits == 24 ? 3 : layout->bits == 32 ? 4 : 1;

    uint8_t *p = block;
    PutLE16(p, (uint16_t)layout->entries);
    p += 2;
    p = PutEntry(p, 254, TYPE_LONG, 1, 0);
    p = PutEntry(p, 256, TYPE_SHORT, 1, layout->width);
    p = PutEntry(p, 257, TYPE_SHORT, 1, layout->height);
    if (layout->bits < 24)
        p = PutEntry(p, 258, TYPE_SHORT, 1, (uint32_t)layout->bits);
    else
        p = PutEntry(p, 258, TYPE_SHORT, samples, extra);
    p = PutEntry(p, 259, TYPE_SHORT, 1, type->compression);
    p = PutEntry(p, 262, TYPE_SHORT, 1, layout->photometric);
    p = PutEntry(p, 266, TYPE_SHORT, 1, type->fillOrder);
    p = PutEntry(p, 273, TYPE_LONG, 1, data);
    p = PutEntry(p, 274, TYPE_SHORT, 1, 1);
    p = PutEntry(p, 277, TYPE_SHORT, 1, samples);
    p = PutEntry(p, 278, TYPE_LONG, 1, layout->height);
    p = PutEntry(p, 279, TYPE_LONG, 1, layout->height * layout->rowBytes);
    p = PutEntry(p, 282, TYPE_RATIONAL, 1, values);
    p = PutEntry(p, 283, TYPE_RATIONAL, 1, values + 8);
    p = PutEntry(p, 284, TYPE_SHORT, 1, 1);
    /* Written before 296 whatever its tag number.  JPEGInterchangeFormat
     * points at the stream's start-of-image marker, where old-style JPEG
     * readers (libtiff's) look for it. */
    if (type->compression == 3)
        p = PutEntry(p, 292, TYPE_LONG, 1, 4);
    else if (type->compression == 6)
        p = PutEntry(p, 513, TYPE_LONG, 1, data);
    p = PutEntry(p, 296, TYPE_SHORT, 1, 2);
    p = PutEntry(p, 306, TYPE_ASCII, 20, date);
    p = PutEntry(p, 315, TYPE_ASCII, TIFF_WRITE_ARTIST_BYTES, artist);
    if (layout->colorMap)
        p = PutEntry(p, 320, TYPE_SHORT, 3u << layout->bits, extra);
    PutLE32(p, 0); /* next IFD */
    p += 4;

    PutResolutions(p, layout, header);
    p += 16;
    if (layout->colorMap) {
        PutColorMap(p, header + DIB_HEADER_SIZE, layout->bits);
    } else {
        for (int s = 0; s < (int)layout->valueBytes / 2; s++)
            PutLE16(p + 2 * s, 8);
    }
    p += layout->valueBytes;
    PutText(p, ImgBitmapNameDate(), TIFF_WRITE_DATE_BYTES);
    p += TIFF_WRITE_DATE_BYTES;
    PutText(p, ImgBitmapNameText(), TIFF_WRITE_ARTIST_BYTES);
    p += TIFF_WRITE_ARTIST_BYTES;
    return (uint32_t)(p - block);
}

/* ---- opening the output ---- */

/* Reads count bytes at base + offset (zeroed first: the memory image claims
 * reads past its end without storing anything).  -3 when they do not come. */
static int ReadChainBytes(int handle, int64_t base, uint32_t offset, uint8_t *bytes, uint32_t count)
{
    memset(bytes, 0, count);
    if (SeekTo(handle, base + offset) < 0)
        return IMG_ERR_INVALID;
    return ImgRead(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_INVALID;
}

/* Follows the IFD chain from the first IFD to the last; *link receives the
 * absolute position of its next-IFD field.  -3 when the chain cannot be
 * followed (hardening: also a chain longer than TIFF_WRITE_MAX_CHAIN, which a
 * loop becomes, or an IFD offset below 8). */
static int FindLastIfd(int handle, int64_t base, uint32_t first, int64_t *link)
{
    uint32_t offset = first;
    for (int hop = 0; hop < TIFF_WRITE_MAX_CHAIN; hop++) {
        uint8_t bytes[4];
        if (offset < 8 || base + offset > OFFSET_LIMIT)
            return IMG_ERR_INVALID;
        int result = ReadChainBytes(handle, base, offset, bytes, 2);
        if (result < 0)
            return result;
        uint32_t field = offset + 2 + ENTRY_SIZE * (uint32_t)GetLE16(bytes);
        if ((result = ReadChainBytes(handle, base, field, bytes, 4)) < 0)
            return result;
        uint32_t next = GetLE32(bytes);
        if (next == 0) {
            *link = base + field;
            return 0;
        }
        offset = next;
    }
    return IMG_ERR_INVALID;
}

/* Opens the output: the base, the position P of the new IFD and, when the
 * page is appended, the position of the link field to patch (else -1). */
static int OpenOutput(int handle, int64_t *base, int64_t *ifdPosition, int64_t *link)
{
    uint8_t head[8] = {0};
    *link = -1;
    *base = SinkPosition(handle);
    if (*base < 0)
        return IMG_ERR_WRITE;
    int32_t got = ImgRead(handle, head, 8);
    if (got >= 2 && head[0] == 'I' && head[1] == 'I') {
        if (got < 8)
            return IMG_ERR_INVALID;
        int result = FindLastIfd(handle, *base, GetLE32(head + 4), link);
        if (result < 0)
            return result;
        if (ImgSeek(handle, 0, 2) < 0)
            return IMG_ERR_WRITE;
        *ifdPosition = SinkPosition(handle);
        return *ifdPosition < 0 ? IMG_ERR_WRITE : 0;
    }
    /* Not a little-endian TIFF: step back and write a new header. */
    if (SeekTo(handle, *base) < 0)
        return IMG_ERR_WRITE;
    static const uint8_t newHeader[8] = {'I', 'I', 42, 0, 8, 0, 0, 0};
    int result = WriteAll(handle, newHeader, 8);
    *ifdPosition = *base + 8;
    return result;
}

/* ---- the row encoders ---- */

/* Type 0: rows as they are, 24-bit pixels turned to R, G, B; rows gathered
 * into blocks of about PLAIN_CHUNK bytes per write. */
static int EncodePlain(int handle, const TiffLayout *layout, ImgRowSource rowSource, void *context)
{
    uint32_t rowBytes = layout->rowBytes;
    uint32_t rowsPerChunk = rowBytes >= PLAIN_CHUNK ? 1 : PLAIN_CHUNK / rowBytes;
    uint8_t *chunk = static_cast<uint8_t *>(ImgAlloc((size_t)rowsPerChunk * rowBytes));
    if (!chunk)
        return IMG_ERR_MEMORY;
    int result = 0;
    for (uint32_t row = 0; row < layout->height && result == 0;) {
        uint32_t n = layout->height - row < rowsPerChunk ? layout->height - row : rowsPerChunk;
        for (uint32_t k = 0; k < n && result == 0; k++) {
            uint8_t *p = chunk + (size_t)k * rowBytes;
            result = rowSource(context, p, (int)(row + k), (int)rowBytes);
            if (result == 0 && layout->bits == 24) {
                for (uint32_t i = 0; i + 2 < rowBytes; i += 3) {
                    uint8_t blue = p[i];
                    p[i] = p[i + 2];
                    p[i + 2] = blue;
                }
            }
        }
        if (result == 0)
            result = WriteAll(handle, chunk, n * rowBytes);
        row += n;
    }
    ImgFree(chunk);
    return result;
}

/* Type 16: each row fetched and written as PackBits (2 zero bytes of slack
 * behind the row for the encoder's comparisons). */
static int EncodePackBits(int handle, const TiffLayout *layout, ImgRowSource rowSource, void *context)
{
    uint8_t *row = static_cast<uint8_t *>(ImgAlloc((size_t)layout->rowBytes + 2));
    if (!row)
        return IMG_ERR_MEMORY;
    memset(row, 0, (size_t)layout->rowBytes + 2);
    int result = 0;
    for (uint32_t r = 0; r < layout->height && result == 0; r++) {
        result = rowSource(context, row, (int)r, (int)layout->rowBytes);
        if (result == 0)
            result = PackBitsEncodeRow(handle, row, (int32_t)layout->rowBytes);
    }
    ImgFree(row);
    return result;
}

static int EncodeStrip(int handle, const TiffLayout *layout, const uint8_t *header,
                       ImgRowSource rowSource, void *context)
{
    const TiffSaveType *type = layout->type;
    switch (type->encoder) {
    case ENCODE_PLAIN:
        return EncodePlain(handle, layout, rowSource, context);
    case ENCODE_CCITT_1D:
        return CcittEncode1D(handle, header, rowSource, context, type->lsbFirst, type->ccittMode);
    case ENCODE_CCITT_2D:
        return CcittEncode2D(handle, header, rowSource, context, type->lsbFirst, type->ccittMode);
    case ENCODE_LZW:
        return LzwEncodeStrip(handle, header, rowSource, context, 0, (int32_t)layout->height);
    case ENCODE_PACKBITS:
        return EncodePackBits(handle, layout, rowSource, context);
    case ENCODE_JPEG:
        return JpegEncode(handle, header, rowSource, context, ImgCompressionQuality(), layout->bits == 8);
    default:
        return IMG_ERR_TYPE;
    }
}

/* ---- the page ---- */

/* Patches the 32-bit value at `field` and returns to `end`. */
static int Patch(int handle, int64_t field, uint32_t value, int64_t end)
{
    uint8_t bytes[4];
    PutLE32(bytes, value);
    int result = SeekTo(handle, field);
    if (result == 0)
        result = WriteAll(handle, bytes, 4);
    if (result == 0)
        result = SeekTo(handle, end);
    return result;
}

/* Hardening: the page must fit the 32-bit offsets of the I/O layer; the
 * strip bound allows LZW its 12-bit codes per input byte at worst. */
static int PageFits(const TiffLayout *layout, int64_t dataStart)
{
    int64_t strip = (int64_t)layout->height * layout->rowBytes;
    if (layout->type->encoder != ENCODE_PLAIN)
        strip = strip * 2 + 65536;
    return dataStart + strip <= OFFSET_LIMIT;
}

int TiffWritePage(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext,
                  int saveType)
{
    const TiffSaveType *type = FindSaveType(saveType);
    if (!type || !header)
        return IMG_ERR_TYPE;
    TiffLayout layout;
    int result = PlanLayout(type, header, &layout);
    if (result < 0)
        return result;

    int64_t base, position, link;
    if ((result = OpenOutput(handle, &base, &position, &link)) < 0)
        return result;
    uint8_t block[IFD_BLOCK_MAX];
    uint32_t relative = (uint32_t)(position - base);
    uint32_t blockSize = BuildIfd(&layout, header, relative, block);
    int64_t dataStart = position + blockSize;
    if (!PageFits(&layout, dataStart))
        return IMG_ERR_TYPE;
    if ((result = WriteAll(handle, block, blockSize)) < 0)
        return result;
    if ((result = EncodeStrip(handle, &layout, header, rowSource, sourceContext)) < 0)
        return result;

    /* The memory image stops moving at its block's end: a page
     * cut there counts only what was stored. */
    int64_t end = SinkPosition(handle);
    uint32_t count = end > dataStart ? (uint32_t)(end - dataStart) : 0;
    int64_t countField = position + 2 + ENTRY_SIZE * STRIP_BYTE_COUNTS_INDEX + 8;
    if ((result = Patch(handle, countField, count, end)) < 0)
        return result;
    if (link >= 0)
        result = Patch(handle, link, relative, end);
    return result;
}

/* ---- the save types ---- */

int TiffWriteUncompressed(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF);
}

int TiffWriteCcitt1D(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext,
                     int compression)
{
    if (compression != 2 && compression != 3)
        return IMG_ERR_TYPE;
    int saveType = compression == 2 ? IMG_TYPE_TIFF_HUFFMAN : IMG_TYPE_TIFF_G3;
    return TiffWritePage(handle, header, rowSource, sourceContext, saveType);
}

int TiffWriteHuffman(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWriteCcitt1D(handle, header, rowSource, sourceContext, 2);
}

int TiffWriteGroup3(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWriteCcitt1D(handle, header, rowSource, sourceContext, 3);
}

int TiffWriteLzw(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF_LZW);
}

int TiffWriteGroup4(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF_G4);
}

int TiffWritePackBits(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF_PACKBITS);
}

int TiffWriteJpeg(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF_JPEG);
}

int TiffWriteGroup4Msb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return TiffWritePage(handle, header, rowSource, sourceContext, IMG_TYPE_TIFF_51);
}
