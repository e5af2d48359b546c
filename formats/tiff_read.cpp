/*
 * tiff_read.cpp - the TIFF reader, with the PackBits decoding and the LZW
 * strip loop.
 *
 * The header and IFD parsing is shared by the reader (TiffRead), the page
 * counter (TiffCountPages), the subtype query of IMGLOW_get_filetype
 * (TiffSubtype) and the orientation query (TiffOrientation).  The
 * reader opens a page into the module-wide TIFF info record, builds the
 * bitmap header and palette, and hands the strips to one of the strip
 * decoders: uncompressed, PackBits, CCITT or LZW.  All
 * but CCITT hand their rows to the row adapter, which undoes the predictor,
 * converts samples to the header's depth, applies WhiteIsZero inversion and
 * turns R,G,B into our B,G,R before the row sink.
 *
 * Hostile offsets and counts (docs/DEVIATIONS.md, format detection and TIFF
 * reader): every read goes through TiffReadAt into a buffer of the caller's size, zeroed
 * first (the memory image claims success past its end without copying),
 * positions are computed without overflow, at most TIFF_MAX_ENTRIES entries
 * are held, strip indexes are checked against the offsets count, and the IFD
 * chain ends at a cycle.
 */
#include "formats/tiff_read.h"

#include <stddef.h>
#include <string.h>

#include "color/default_palette.h"
#include "formats/tiff_write.h"
#include "core/bit_reversal.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "codecs/ccitt_decode.h"
#include "codecs/jpeg.h"
#include "codecs/lzw.h"

uint16_t TiffGet16(const TiffFile *file, const uint8_t *p)
{
    return file->bigEndian ? GetBE16(p) : GetLE16(p);
}

uint32_t TiffGet32(const TiffFile *file, const uint8_t *p)
{
    return file->bigEndian ? GetBE32(p) : GetLE32(p);
}

int TiffReadAt(const TiffFile *file, uint32_t offset, uint8_t *buffer, uint32_t count)
{
    uint64_t position = (uint64_t)file->base + offset;
    if (position > INT32_MAX)
        return IMG_ERR_INVALID;
    memset(buffer, 0, count);
    ImgSeek(file->handle, (int32_t)position, 0);
    int32_t got = ImgRead(file->handle, buffer, count);
    if (got < 0)
        return got;
    return (uint32_t)got < count ? IMG_ERR_READ : 0;
}

int TiffReadHeader(int handle, uint32_t base, TiffFile *file)
{
    uint8_t header[8] = {0};
    ImgSeek(handle, (int32_t)base, 0);
    int32_t got = ImgRead(handle, header, sizeof header);
    if (got < 0)
        return got;
    if (got < (int32_t)sizeof header)
        return IMG_ERR_INVALID;
    if (!(header[0] == 'I' && header[1] == 'I') && !(header[0] == 'M' && header[1] == 'M'))
        return IMG_ERR_TYPE;
    file->handle = handle;
    file->base = base;
    file->bigEndian = header[0] == 'M';
    file->version = TiffGet16(file, header + 2);
    file->firstIfd = TiffGet32(file, header + 4);
    return 0;
}

int TiffReadEntryCount(const TiffFile *file, uint32_t offset, int *count)
{
    uint8_t bytes[2];
    int result = TiffReadAt(file, offset, bytes, sizeof bytes);
    if (result < 0)
        return result;
    *count = (int16_t)TiffGet16(file, bytes);
    return 0;
}

static void DecodeEntry(const TiffFile *file, const uint8_t *bytes, TiffEntry *entry)
{
    entry->tag = TiffGet16(file, bytes);
    entry->type = TiffGet16(file, bytes + 2);
    entry->count = TiffGet32(file, bytes + 4);
    memcpy(entry->value, bytes + 8, 4);
}

int TiffReadEntries(const TiffFile *file, uint32_t offset, int count, TiffIfd *ifd)
{
    uint8_t bytes[TIFF_MAX_ENTRIES * TIFF_ENTRY_SIZE];
    if (count < 0 || count > TIFF_MAX_ENTRY_COUNT)
        return IMG_ERR_INVALID;
    ifd->declaredCount = count;
    ifd->count = count < TIFF_MAX_ENTRIES ? count : TIFF_MAX_ENTRIES;
    ifd->nextOffset = 0;
    /* offset + 2 + 550 * 12 + 4 stays far below 2^32 only when offset does:
     * compute in 64 bits and let TiffReadAt refuse what does not fit. */
    uint64_t entriesAt = (uint64_t)offset + 2;
    uint64_t nextAt = entriesAt + (uint64_t)count * TIFF_ENTRY_SIZE;
    if (nextAt + 4 > UINT32_MAX)
        return IMG_ERR_INVALID;
    int result = TiffReadAt(file, (uint32_t)entriesAt, bytes, (uint32_t)ifd->count * TIFF_ENTRY_SIZE);
    if (result < 0)
        return result;
    for (int i = 0; i < ifd->count; i++)
        DecodeEntry(file, bytes + i * TIFF_ENTRY_SIZE, &ifd->entries[i]);
    uint8_t next[4];
    if (TiffReadAt(file, (uint32_t)nextAt, next, sizeof next) == 0)
        ifd->nextOffset = TiffGet32(file, next);
    return 0;
}

int TiffReadIfd(const TiffFile *file, uint32_t offset, TiffIfd *ifd)
{
    int count;
    int result = TiffReadEntryCount(file, offset, &count);
    if (result < 0)
        return result;
    return TiffReadEntries(file, offset, count, ifd);
}

uint32_t TiffValueField(const TiffFile *file, const TiffEntry *entry)
{
    return TiffGet32(file, entry->value);
}

/* Reads one number of `size` bytes at a value offset. */
static int ReadNumberAt(const TiffFile *file, uint32_t offset, int size, uint32_t *value)
{
    uint8_t bytes[4];
    int result = TiffReadAt(file, offset, bytes, (uint32_t)size);
    if (result < 0)
        return result;
    *value = size == 1 ? bytes[0] : size == 2 ? TiffGet16(file, bytes) : TiffGet32(file, bytes);
    return 0;
}

int TiffTagValue(const TiffFile *file, const TiffEntry *entry, uint32_t *value)
{
    uint32_t offset = TiffValueField(file, entry);
    *value = 0;
    switch (entry->type) {
    case TIFF_BYTE:
    case TIFF_ASCII: /* types 1-5 are read; ASCII, like BYTE, by the byte */
        if (entry->count > 4)
            return ReadNumberAt(file, offset, 1, value);
        *value = entry->value[0];
        return 0;
    case TIFF_SHORT:
        if (entry->count > 2)
            return ReadNumberAt(file, offset, 2, value);
        *value = TiffGet16(file, entry->value);
        return 0;
    case TIFF_LONG:
        if (entry->count != 1)
            return ReadNumberAt(file, offset, 4, value);
        *value = offset;
        return 0;
    case TIFF_RATIONAL:
        return ReadNumberAt(file, offset, 4, value);
    default:
        return 0;
    }
}

int TiffRationalDenominator(const TiffFile *file, const TiffEntry *entry, uint32_t *value)
{
    uint32_t offset = TiffValueField(file, entry);
    *value = 0;
    if (offset > UINT32_MAX - 4)
        return IMG_ERR_INVALID;
    return ReadNumberAt(file, offset + 4, 4, value);
}

int TiffCompressionType(uint32_t compression, uint32_t t4Options)
{
    switch (compression) {
    case 1:
        return IMG_TYPE_TIFF;
    case 2:
        return IMG_TYPE_TIFF_HUFFMAN;
    case 3:
        return (t4Options & 1) ? IMG_TYPE_TIFF_G3_2D : IMG_TYPE_TIFF_G3;
    case 4:
        return IMG_TYPE_TIFF_G4;
    case 5:
        return IMG_TYPE_TIFF_LZW;
    case 6:
    case 7: /* the JPEG that libtiff writes, read too */
        return IMG_TYPE_TIFF_JPEG;
    case 32773:
        return IMG_TYPE_TIFF_PACKBITS;
    case 32010:
        return IMG_TYPE_TIFF_32010;
    case 32008:
        return IMG_TYPE_TIFF_32008;
    default:
        return IMG_ERR_TYPE;
    }
}

int TiffSubtype(int handle, uint32_t base)
{
    TiffFile file;
    TiffIfd ifd;
    int result = TiffReadHeader(handle, base, &file);
    if (result < 0)
        return result;
    result = TiffReadIfd(&file, file.firstIfd, &ifd);
    if (result < 0)
        return result;
    uint32_t compression = 1, t4Options = 0;
    for (int i = 0; i < ifd.count && result == 0; i++) {
        const TiffEntry *entry = &ifd.entries[i];
        if (entry->tag == TIFF_TAG_COMPRESSION)
            result = TiffTagValue(&file, entry, &compression);
        else if (entry->tag == TIFF_TAG_T4_OPTIONS)
            result = TiffTagValue(&file, entry, &t4Options);
    }
    if (result < 0)
        return result;
    return TiffCompressionType(compression, t4Options);
}

/* ======================================================================
 * The page walk and the TIFF info record
 * ====================================================================== */

/* Tags of the info record and the other tags the reader looks at. */
enum {
    TAG_IMAGE_WIDTH = 256, TAG_IMAGE_LENGTH = 257, TAG_BITS_PER_SAMPLE = 258,
    TAG_PHOTOMETRIC = 262, TAG_FILL_ORDER = 266, TAG_STRIP_OFFSETS = 273,
    TAG_ORIENTATION = 274, TAG_SAMPLES_PER_PIXEL = 277, TAG_ROWS_PER_STRIP = 278,
    TAG_STRIP_BYTE_COUNTS = 279, TAG_X_RESOLUTION = 282, TAG_Y_RESOLUTION = 283,
    TAG_PLANAR_CONFIG = 284, TAG_GRAY_RESPONSE_UNIT = 290, TAG_GRAY_RESPONSE_CURVE = 291,
    TAG_RESOLUTION_UNIT = 296, TAG_DATE_TIME = 306, TAG_ARTIST = 315, TAG_PREDICTOR = 317,
    TAG_COLOR_MAP = 320, TAG_TILE_WIDTH = 322, TAG_TILE_LENGTH = 323, TAG_TILE_OFFSETS = 324,
    TAG_JPEG_INTERCHANGE = 513, TAG_JPEG_Q_TABLES = 519, TAG_JPEG_DC_TABLES = 520,
    TAG_JPEG_AC_TABLES = 521, TAG_YCBCR_SUBSAMPLING = 530, TAG_JPEG_TABLES = 347
};

#define COMPRESSION_G3_2D 45     /* the internal value of compression 3 with T4Options bit 0 */
#define CENTIMETRE_FACTOR 2.567  /* deliberately not 2.54 */
#define NEXT_COUNT_MIN 5         /* a next IFD with fewer entries ends the chain */
#define NEXT_COUNT_LIMIT 301     /* ... and so does one with this many or more */
#define STRIP_OFFSETS_SLACK 200
#define JPEG_TABLES_MAX 65536 /* hardening: tables beyond it are not read */

static TiffInfo tiffInfo;
static TiffFile tiffFile;
static TiffIfd tiffIfd;
static TiffEntry stripEntry;         /* the strip- (or tile-) offsets entry */
static uint8_t *stripOffsetsCopy;    /* loaded on first use, freed after each read */
static uint32_t stripOffsetsHeld;    /* entries in the copy */

const TiffInfo *TiffCurrentInfo(void)
{
    return &tiffInfo;
}

static void ResetInfo(void)
{
    memset(&tiffInfo, 0, sizeof tiffInfo);
    tiffInfo.rowsPerStrip = -2;
    tiffInfo.samplesPerPixel = 1;
    tiffInfo.bitsPerSample = 1;
    tiffInfo.compression = 1;
    tiffInfo.fillOrder = 1;
    tiffInfo.planarConfig = 1;
    tiffInfo.predictor = 1;
    memset(&stripEntry, 0, sizeof stripEntry);
}

static void FreeStripOffsets(void)
{
    ImgFreeTracked(stripOffsetsCopy);
    stripOffsetsCopy = NULL;
    stripOffsetsHeld = 0;
}

/* The source's current position: the base of a page asked for by number. */
/* Tags read into locals: they act once the whole IFD is parsed. */
typedef struct {
    uint32_t resolutionUnit;
    uint32_t t4Options;
} IfdLocals;

/* Copies an ASCII tag (DateTime, Artist) into a text of `size` bytes. */
static void CopyAsciiTag(const TiffEntry *entry, char *text, uint32_t size)
{
    uint32_t n = entry->count < size - 1 ? entry->count : size - 1;
    memset(text, 0, size);
    if (entry->count <= 4)
        memcpy(text, entry->value, n < 4 ? n : 4);
    else
        TiffReadAt(&tiffFile, TiffValueField(&tiffFile, entry), (uint8_t *)text, n);
    text[size - 1] = '\0';
}

/* Resolution: a RATIONAL is divided by its denominator (skipped when 0). */
static int32_t ReadResolution(const TiffEntry *entry, uint32_t numerator)
{
    uint32_t denominator = 0;
    if (entry->type == TIFF_RATIONAL && TiffRationalDenominator(&tiffFile, entry, &denominator) == 0 &&
        denominator != 0)
        numerator /= denominator;
    return (int32_t)numerator;
}

/* Parses one entry into the info record.  A value that cannot be read (an
 * offset past the end) reads as what came, zeros beyond the end. */
static void ParseEntry(const TiffEntry *entry, IfdLocals *locals)
{
    TiffEntry single = *entry;
    uint32_t value = 0;
    int32_t offset = (int32_t)TiffValueField(&tiffFile, entry);
    char text[IMG_NAME_TEXT_SIZE];
    switch (entry->tag) {
    case TAG_COLOR_MAP: tiffInfo.colorMapOffset = offset; return;
    case TAG_GRAY_RESPONSE_CURVE: tiffInfo.grayResponseCurve = offset; return;
    case TAG_JPEG_Q_TABLES: tiffInfo.jpegQTables = offset; return;
    case TAG_JPEG_DC_TABLES: tiffInfo.jpegDCTables = offset; return;
    case TAG_JPEG_AC_TABLES: tiffInfo.jpegACTables = offset; return;
    case TAG_JPEG_TABLES:
        tiffInfo.jpegTables = offset;
        tiffInfo.jpegTablesBytes = (int32_t)entry->count;
        return;
    case TAG_DATE_TIME:
        CopyAsciiTag(entry, text, IMG_NAME_DATE_SIZE);
        ImgStoreBitmapName(NULL, text);
        return;
    case TAG_ARTIST:
        CopyAsciiTag(entry, text, IMG_NAME_TEXT_SIZE);
        ImgStoreBitmapName(text, NULL);
        return;
    case TAG_IMAGE_WIDTH: case TAG_IMAGE_LENGTH: case TAG_TILE_WIDTH: case TAG_TILE_LENGTH:
        single.count = 1; /* only the first value is used */
        break;
    default:
        break;
    }
    TiffTagValue(&tiffFile, &single, &value);
    int32_t v = (int32_t)value;
    switch (entry->tag) {
    case TAG_IMAGE_WIDTH: case TAG_TILE_WIDTH: tiffInfo.width = v; break;
    case TAG_TILE_LENGTH: tiffInfo.tiled = 1; /* fall through */
    case TAG_IMAGE_LENGTH: tiffInfo.height = v; break;
    case TAG_ROWS_PER_STRIP: tiffInfo.rowsPerStrip = v; break;
    case TAG_TILE_OFFSETS: tiffInfo.tiled = 1; /* fall through */
    case TAG_STRIP_OFFSETS:
        tiffInfo.stripOffsets = v;
        stripEntry = *entry;
        break;
    case TAG_STRIP_BYTE_COUNTS: tiffInfo.stripByteCounts = v; break;
    case TAG_SAMPLES_PER_PIXEL: tiffInfo.samplesPerPixel = v; break;
    case TAG_BITS_PER_SAMPLE: tiffInfo.bitsPerSample = (int32_t)(value & 0xFFFF); break;
    case TIFF_TAG_COMPRESSION: tiffInfo.compression = v; break;
    case TAG_PHOTOMETRIC: tiffInfo.photometric = v; break;
    case TAG_X_RESOLUTION: tiffInfo.xResolution = ReadResolution(entry, value); break;
    case TAG_Y_RESOLUTION: tiffInfo.yResolution = ReadResolution(entry, value); break;
    case TAG_FILL_ORDER: tiffInfo.fillOrder = v; break;
    case TAG_PLANAR_CONFIG:
        if (tiffInfo.samplesPerPixel == 3 || tiffInfo.samplesPerPixel == 4)
            tiffInfo.planarConfig = v;
        break;
    case TAG_PREDICTOR: tiffInfo.predictor = v; break;
    case TAG_GRAY_RESPONSE_UNIT: tiffInfo.grayResponseUnit = v; break;
    case TAG_JPEG_INTERCHANGE: tiffInfo.jpegInterchangeFormat = v; break;
    case TAG_YCBCR_SUBSAMPLING: tiffInfo.ycbcrSubsampling = v; break;
    case TAG_ORIENTATION: tiffInfo.orientation = v; break;
    case TAG_RESOLUTION_UNIT: locals->resolutionUnit = value; break;
    case TIFF_TAG_T4_OPTIONS: locals->t4Options = value; break;
    default: break; /* every other tag is ignored */
    }
}

/* Reads the IFD at offset (count entries) and parses it from defaults. */
static int ParseIfd(uint32_t offset, int count, IfdLocals *locals)
{
    int result = TiffReadEntries(&tiffFile, offset, count, &tiffIfd);
    if (result < 0)
        return result;
    ResetInfo();
    memset(locals, 0, sizeof *locals);
    for (int i = 0; i < tiffIfd.count; i++)
        ParseEntry(&tiffIfd.entries[i], locals);
    return 0;
}

/* Cycle detection over the IFD chain (Brent): a hostile chain that loops
 * ends where it first comes back to a remembered offset. */
typedef struct {
    uint32_t mark;
    uint32_t steps, power;
} ChainGuard;

/* Follows the chain from the IFD just read: 1 with *offset and *count set to
 * the next IFD, or 0 when the chain ends there (no next offset, a next count
 * below 5 or of 301 or more, an unreadable count, or a cycle). */
static int NextIfd(ChainGuard *guard, uint32_t *offset, int *count)
{
    uint32_t next = tiffIfd.nextOffset;
    if (next == 0 || next == guard->mark || TiffReadEntryCount(&tiffFile, next, count) < 0)
        return 0;
    if (*count < NEXT_COUNT_MIN || *count >= NEXT_COUNT_LIMIT)
        return 0;
    if (++guard->steps == guard->power) {
        guard->mark = next;
        guard->power *= 2;
        guard->steps = 0;
    }
    *offset = next;
    return 1;
}

/* The header and the first IFD's entry count. */
static int OpenChain(int handle, uint32_t base, int *count)
{
    int result = TiffReadHeader(handle, base, &tiffFile);
    if (result < 0)
        return result;
    result = TiffReadEntryCount(&tiffFile, tiffFile.firstIfd, count);
    if (result < 0)
        return result;
    if (*count < 0 || *count > TIFF_MAX_ENTRY_COUNT)
        return IMG_ERR_INVALID;
    return 0;
}

int TiffOpenPage(int handle, uint32_t base, int page)
{
    int count;
    IfdLocals locals;
    FreeStripOffsets();
    int result = OpenChain(handle, base, &count);
    if (result < 0)
        return result;
    ChainGuard guard = {tiffFile.firstIfd, 0, 1};
    uint32_t offset = tiffFile.firstIfd;
    int index = 0, tiled = 0;
    for (;;) {
        result = ParseIfd(offset, count, &locals);
        if (result < 0)
            return result;
        if (tiffInfo.tiled) {
            tiled = 1;
            tiffInfo.tiled = page; /* the page number selects the tile */
            break;
        }
        if (index == page || !NextIfd(&guard, &offset, &count))
            break;
        index++;
    }
    if (!tiled && index < page)
        return IMG_ERR_PAGE;
    if (tiffInfo.compression == 3 && (locals.t4Options & 1))
        tiffInfo.compression = COMPRESSION_G3_2D;
    int c = tiffInfo.compression;
    if (c == 2 || c == 3 || c == 4 || c == COMPRESSION_G3_2D)
        tiffInfo.photometric ^= 1;
    if (locals.resolutionUnit == 3) {
        tiffInfo.xResolution = (int32_t)(tiffInfo.xResolution * CENTIMETRE_FACTOR);
        tiffInfo.yResolution = (int32_t)(tiffInfo.yResolution * CENTIMETRE_FACTOR);
    }
    return 0;
}

int TiffCountPages(int handle)
{
    int count;
    IfdLocals locals;
    if (OpenChain(handle, ImgPosition(handle), &count) < 0)
        return 1;
    ChainGuard guard = {tiffFile.firstIfd, 0, 1};
    uint32_t offset = tiffFile.firstIfd;
    int pages = 1;
    while (ParseIfd(offset, count, &locals) == 0 && NextIfd(&guard, &offset, &count))
        pages++;
    return pages;
}

int TiffOrientation(int handle, uint32_t base)
{
    int result = TiffOpenPage(handle, base, 0);
    if (result < 0)
        return result;
    switch (tiffInfo.orientation) {
    case 1: return 0;
    case 6: return 90;
    case 3: return 180;
    case 8: return 270;
    default: return tiffInfo.orientation;
    }
}

/* ======================================================================
 * The bitmap header and palette
 * ====================================================================== */

/* The header's bit count from the samples. */
static int HeaderBitCount(int32_t samples, int32_t bitsPerSample)
{
    int64_t bits = samples == 2 ? bitsPerSample : (int64_t)samples * bitsPerSample;
    if (bits == 32)
        bits = 24;
    if (samples == 3)
        bits = 24;
    if (bits == 2 || bits == 3)
        bits = 4;
    if (bits >= 9 && samples == 1)
        bits = 8;
    if ((samples == 4 && bitsPerSample == 4) || samples >= 5)
        bits = 24;
    return bits > 64 || bits < 0 ? 0 : (int)bits;
}

/* The ColorMap: three tables of 2^bits 16-bit values (red, green, blue). */
static int ReadColorMap(uint8_t *block, int bits)
{
    uint32_t entries = 1u << bits;
    uint8_t map[3 * 256 * 2];
    int result = TiffReadAt(&tiffFile, (uint32_t)tiffInfo.colorMapOffset, map, entries * 6);
    if (result < 0 && result != IMG_ERR_READ)
        return result; /* a short map keeps its zeros */
    uint8_t *palette = block + DIB_HEADER_SIZE;
    for (uint32_t i = 0; i < entries; i++) {
        palette[4 * i + 0] = (uint8_t)(TiffGet16(&tiffFile, map + 2 * (2 * entries + i)) >> 8);
        palette[4 * i + 1] = (uint8_t)(TiffGet16(&tiffFile, map + 2 * (entries + i)) >> 8);
        palette[4 * i + 2] = (uint8_t)(TiffGet16(&tiffFile, map + 2 * i) >> 8);
        palette[4 * i + 3] = 0;
    }
    return 0;
}

static int BuildHeader(uint8_t *block, int bits)
{
    uint64_t stride = DibStride((uint32_t)tiffInfo.width, bits);
    memset(block, 0, IMG_HEADER_BLOCK_SIZE);
    PutLE32(block + 0, DIB_HEADER_SIZE);
    PutLE32(block + 4, (uint32_t)tiffInfo.width);
    PutLE32(block + 8, (uint32_t)tiffInfo.height);
    PutLE16(block + 12, 1);
    PutLE16(block + 14, (uint16_t)bits);
    PutLE32(block + 16, tiffInfo.photometric == 5 ? 100 : 0);
    PutLE32(block + 20, (uint32_t)(stride * (uint32_t)tiffInfo.height));
    PutLE32(block + 24, (uint32_t)tiffInfo.xResolution);
    PutLE32(block + 28, (uint32_t)tiffInfo.yResolution);
    int fourOneBit = tiffInfo.samplesPerPixel == 4 && tiffInfo.bitsPerSample == 1;
    if (tiffInfo.photometric == 3 && tiffInfo.colorMapOffset != 0 && bits <= 8)
        return ReadColorMap(block, bits);
    if (fourOneBit)
        BuildDefaultPalette(block, "dither");
    else if (bits != 24)
        BuildDefaultPalette(block, "tiff");
    return 0;
}

/* ======================================================================
 * Strip addressing
 * ====================================================================== */

/* Loads the offsets array (count x 4 bytes into a block of
 * count x 4 + 200), holding at most `needed` entries (hardening: a hostile
 * count cannot make a huge block). */
static int LoadStripOffsets(uint32_t needed)
{
    uint32_t held = stripEntry.count < needed ? stripEntry.count : needed;
    uint32_t size = stripEntry.type == TIFF_SHORT ? 2 : 4;
    if (held > (UINT32_MAX - STRIP_OFFSETS_SLACK) / 4)
        return IMG_ERR_INVALID;
    stripOffsetsCopy = static_cast<uint8_t *>(ImgAllocTracked((size_t)held * 4 + STRIP_OFFSETS_SLACK));
    if (!stripOffsetsCopy)
        return IMG_ERR_MEMORY;
    int result = TiffReadAt(&tiffFile, TiffValueField(&tiffFile, &stripEntry), stripOffsetsCopy,
                            held * size);
    if (result < 0) {
        FreeStripOffsets();
        return result;
    }
    stripOffsetsHeld = held;
    return 0;
}

/* The offset of strip (or tile) `index`, of `needed` strips in all. */
static int StripOffset(uint32_t index, uint32_t needed, uint32_t *offset)
{
    const TiffEntry *e = &stripEntry;
    if ((e->type == TIFF_LONG && e->count == 1) || (e->type == TIFF_BYTE && e->count < 5)) {
        *offset = TiffValueField(&tiffFile, e);
        return 0;
    }
    if (e->type == TIFF_SHORT && (e->count == 1 || e->count == 2)) {
        *offset = TiffGet16(&tiffFile, e->value + (index == 1 && e->count == 2 ? 2 : 0));
        return 0;
    }
    if (!stripOffsetsCopy) {
        int result = LoadStripOffsets(needed);
        if (result < 0)
            return result;
    }
    if (index >= stripOffsetsHeld)
        return IMG_ERR_INVALID; /* hardening: no such strip */
    *offset = e->type == TIFF_SHORT ? TiffGet16(&tiffFile, stripOffsetsCopy + 2 * index)
                                    : TiffGet32(&tiffFile, stripOffsetsCopy + 4 * index);
    return 0;
}

/* ======================================================================
 * The read state and the row adapter
 * ====================================================================== */

typedef struct TiffReadState {
    int handle;
    ImgRowSink rowSink;
    void *sinkContext;
    int32_t width, height, rowsPerStrip;
    int samples, sampleBits, bits; /* file samples per pixel and bits; header bit count */
    uint32_t pixelRowBytes;        /* a row of interleaved pixels in the file */
    uint32_t planeRowBytes;        /* a row of one plane (planar configuration 2) */
    uint32_t codedRowBytes;        /* the row size the strip decoders produce */
    uint32_t stride;               /* the row size handed to the row sink */
    int planes;                    /* 1, or the samples for planar configuration 2 */
    int plane;                     /* the plane being decoded */
    uint32_t stripsPerPlane;
    int reverseBits;               /* FillOrder 2 for uncompressed and PackBits strips */
    int tempHandle;
    char tempPath[IMG_TEMP_PATH_SIZE];
    uint8_t *pixelRow;             /* interleaving and predictor work */
    uint8_t *outRow;               /* the row for the sink */
    int sinkFailure;               /* the first negative row-sink result */
} TiffReadState;

/* Predictor 2 (horizontal differencing) on an interleaved pixel row.  For 8,
 * 16 and 32 bits per sample each sample adds the same sample of the pixel to
 * its left (16 and 32 bits in the file's byte order, modulo 2^bits).  Other
 * depths are left as they are: TIFF 6.0 defines the predictor for 8 bits,
 * and libtiff refuses it below 8 (docs/DEVIATIONS.md). */
static void UndoPredictor(const TiffReadState *s, uint8_t *row)
{
    uint32_t n = (uint32_t)s->width * (uint32_t)s->samples;
    uint32_t step = (uint32_t)s->samples;
    if (s->sampleBits == 8) {
        for (uint32_t i = step; i < n; i++)
            row[i] = (uint8_t)(row[i] + row[i - step]);
    } else if (s->sampleBits == 16) {
        for (uint32_t i = step; i < n; i++) {
            uint16_t v = (uint16_t)(TiffGet16(&tiffFile, row + 2 * i) + TiffGet16(&tiffFile, row + 2 * (i - step)));
            if (tiffFile.bigEndian) PutBE16(row + 2 * i, v); else PutLE16(row + 2 * i, v);
        }
    } else if (s->sampleBits == 32) {
        for (uint32_t i = step; i < n; i++) {
            uint32_t v = TiffGet32(&tiffFile, row + 4 * i) + TiffGet32(&tiffFile, row + 4 * (i - step));
            if (tiffFile.bigEndian) PutBE32(row + 4 * i, v); else PutLE32(row + 4 * i, v);
        }
    }
}

/* Sample `index` of a row, bits most significant first; samples of 8 bits or
 * more read as their top 8 bits (the file's byte order); below 8 bits as is. */
static uint32_t GetSample(const uint8_t *row, uint32_t index, int bits)
{
    if (bits >= 8) {
        uint32_t bytes = (uint32_t)bits / 8;
        const uint8_t *p = row + (size_t)index * bytes;
        return tiffFile.bigEndian ? p[0] : p[bytes - 1];
    }
    /* bit by bit: samples of 3, 5, 6 or 7 bits may straddle two bytes */
    uint64_t bit = (uint64_t)index * (uint32_t)bits;
    uint32_t value = 0;
    for (int i = 0; i < bits; i++, bit++)
        value = (value << 1) | ((row[bit / 8] >> (7 - bit % 8)) & 1u);
    return value;
}

static void PutSample(uint8_t *row, uint32_t index, int bits, uint32_t value)
{
    /* bit by bit, as GetSample: a sample may straddle two bytes */
    uint64_t bit = (uint64_t)index * (uint32_t)bits;
    for (int i = bits - 1; i >= 0; i--, bit++) {
        uint8_t mask = (uint8_t)(0x80u >> (bit % 8));
        row[bit / 8] = (uint8_t)(((value >> i) & 1u) ? row[bit / 8] | mask : row[bit / 8] & ~mask);
    }
}

/* A sample scaled to `to` bits (palette indexes stay as they are). */
static uint32_t ScaleSample(uint32_t value, int from, int to)
{
    if (tiffInfo.photometric == 3 || from == to)
        return value;
    if (from < 1)
        return 0;
    uint32_t eight = from >= 8 ? value : value * 255u / ((1u << from) - 1);
    return to >= 8 ? eight : eight >> (8 - to);
}

/* Converts an interleaved pixel row to the header's depth where the two
 * differ (docs/DEVIATIONS.md): grey or palette
 * samples by their first sample, colour by the first three, each scaled to
 * the header's sample size. */
static void ConvertRow(const TiffReadState *s, const uint8_t *in, uint8_t *out)
{
    int from = s->sampleBits > 8 ? 8 : s->sampleBits;
    uint32_t spp = (uint32_t)s->samples;
    for (uint32_t x = 0; x < (uint32_t)s->width; x++) {
        if (s->bits == 24) {
            for (uint32_t c = 0; c < 3; c++) {
                uint32_t sample = spp >= 3 ? c : 0;
                out[3 * x + c] = (uint8_t)ScaleSample(GetSample(in, x * spp + sample, s->sampleBits), from, 8);
            }
        } else {
            int to = s->bits;
            PutSample(out, x, to, ScaleSample(GetSample(in, x * spp, s->sampleBits), from, to));
        }
    }
}

/* The usual rows in one pass from the decoded row to the sink's row (no
 * copy, the predictor's sums in registers): 8-bit samples, either R,G,B
 * (24 bits, turned into B,G,R) or one sample (8 bits), with or without
 * predictor 2, inverted for WhiteIsZero.  0 when the row is not one of
 * these; the general path below does the same steps one by one. */
static int FastPixelRow(const TiffReadState *s, const uint8_t *in, uint8_t *out)
{
    int rgb = s->samples == 3 && s->bits == 24, grey = s->samples == 1 && s->bits == 8;
    if (s->sampleBits != 8 || !(rgb || grey))
        return 0;
    uint8_t flip = tiffInfo.photometric == 0 ? 0xFF : 0; /* 255 - v */
    int predictor = tiffInfo.predictor == 2;
    uint32_t n = (uint32_t)s->width;
    if (grey) {
        uint8_t v = 0;
        for (uint32_t i = 0; i < n; i++) {
            v = (uint8_t)(predictor ? v + in[i] : in[i]);
            out[i] = v ^ flip;
        }
        return 1;
    }
    uint8_t red = 0, green = 0, blue = 0;
    for (uint32_t x = 0; x < n; x++, in += 3, out += 3) {
        red = (uint8_t)(predictor ? red + in[0] : in[0]);
        green = (uint8_t)(predictor ? green + in[1] : in[1]);
        blue = (uint8_t)(predictor ? blue + in[2] : in[2]);
        out[0] = blue ^ flip;
        out[1] = green ^ flip;
        out[2] = red ^ flip;
    }
    return 1;
}

/* The row adapter proper, on one interleaved pixel row: predictor, depth,
 * WhiteIsZero inversion, R,G,B to B,G,R, then the row sink.  `row` is left
 * as it is (the general path works on a copy in pixelRow).  The sink's
 * result; a negative one is also remembered in sinkFailure. */
static int DeliverPixelRow(TiffReadState *s, const uint8_t *row, int rowIndex)
{
    if (rowIndex < 0 || rowIndex >= s->height)
        return 0; /* hardening: rows outside the picture are dropped */
    uint32_t used = (uint32_t)((uint64_t)s->width * (uint32_t)s->bits + 7) / 8;
    uint8_t *out = s->outRow;
    memset(out + used, 0, s->stride - used);
    if (!FastPixelRow(s, row, out)) {
        uint8_t *work = s->pixelRow;
        if (row != work)
            memcpy(work, row, s->pixelRowBytes);
        if (tiffInfo.predictor == 2)
            UndoPredictor(s, work);
        if ((uint32_t)s->samples * (uint32_t)s->sampleBits == (uint32_t)s->bits && s->samples != 2)
            memcpy(out, work, used);
        else
            ConvertRow(s, work, out);
        if (tiffInfo.photometric == 0) {
            for (uint32_t i = 0; i < used; i++)
                out[i] = (uint8_t)(255 - out[i]); /* 1, 4 (both nibbles), 8 and 24 bits */
        }
        if (s->bits == 24) {
            for (uint32_t i = 0; i + 2 < used; i += 3) {
                uint8_t red = out[i];
                out[i] = out[i + 2];
                out[i + 2] = red;
            }
        }
    }
    int result = s->rowSink(out, s->sinkContext, rowIndex, (int)s->stride);
    if (result < 0 && s->sinkFailure == 0)
        s->sinkFailure = result;
    return result;
}

/* Where row `row` of plane `plane` lives in the temporary file. */
static int PlanePosition(const TiffReadState *s, int plane, int row, int32_t *position)
{
    uint64_t at = ((uint64_t)plane * (uint32_t)s->height + (uint32_t)row) * s->planeRowBytes;
    if (at > INT32_MAX)
        return IMG_ERR_INVALID;
    *position = (int32_t)at;
    return 0;
}

/* The row adapter as the strip decoders call it (LzwRowAdapter): a row of
 * one plane goes to the temporary file, a pixel row to DeliverPixelRow. */
static int AdaptRow(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    TiffReadState *s = static_cast<TiffReadState *>(context);
    (void)rowBytes;
    if (s->planes == 1) {
        int result = DeliverPixelRow(s, row, rowIndex);
        return result < 0 ? result : 0;
    }
    int32_t position;
    if (rowIndex < 0 || rowIndex >= s->height)
        return 0;
    int result = PlanePosition(s, s->plane, rowIndex, &position);
    if (result < 0)
        return result;
    ImgSeek(s->tempHandle, position, 0);
    if (ImgWrite(s->tempHandle, row, s->planeRowBytes) != (int32_t)s->planeRowBytes)
        return IMG_ERR_WRITE;
    return 0;
}

/* Planar configuration 2, second half: one row of each plane at a time,
 * interleaved into pixel rows. */
static int InterleavePlanes(TiffReadState *s)
{
    uint8_t *planeRows = static_cast<uint8_t *>(ImgAllocTracked((size_t)s->planeRowBytes * (size_t)s->planes + 16));
    if (!planeRows)
        return IMG_ERR_MEMORY;
    int result = 0;
    for (int row = 0; row < s->height && result >= 0; row++) {
        for (int p = 0; p < s->planes && result >= 0; p++) {
            int32_t position;
            uint8_t *dest = planeRows + (size_t)p * s->planeRowBytes;
            memset(dest, 0, s->planeRowBytes);
            result = PlanePosition(s, p, row, &position);
            if (result >= 0) {
                ImgSeek(s->tempHandle, position, 0);
                if (ImgRead(s->tempHandle, dest, s->planeRowBytes) < 0)
                    result = IMG_ERR_READ;
            }
        }
        if (result < 0)
            break;
        memset(s->pixelRow, 0, s->pixelRowBytes);
        uint32_t bytes = (uint32_t)s->sampleBits / 8;
        for (uint32_t x = 0; x < (uint32_t)s->width; x++) {
            for (int p = 0; p < s->planes; p++) {
                const uint8_t *src = planeRows + (size_t)p * s->planeRowBytes;
                uint32_t to = x * (uint32_t)s->planes + (uint32_t)p;
                if (s->sampleBits % 8 == 0)
                    memcpy(s->pixelRow + (size_t)to * bytes, src + (size_t)x * bytes, bytes);
                else
                    PutSample(s->pixelRow, to, s->sampleBits, GetSample(src, x, s->sampleBits));
            }
        }
        result = DeliverPixelRow(s, s->pixelRow, row);
    }
    ImgFreeTracked(planeRows);
    return result < 0 ? result : 0;
}

/* Positions the source at strip `strip` of the current plane. */
static int SeekStrip(TiffReadState *s, uint32_t strip)
{
    uint32_t needed = s->stripsPerPlane * (uint32_t)s->planes;
    uint32_t index = tiffInfo.tiled ? (uint32_t)tiffInfo.tiled
                                    : (uint32_t)s->plane * s->stripsPerPlane + strip;
    uint32_t offset;
    if (tiffInfo.tiled && needed <= index)
        needed = index + 1;
    int result = StripOffset(index, needed, &offset);
    if (result < 0)
        return result;
    uint64_t position = (uint64_t)tiffFile.base + offset;
    if (position > INT32_MAX)
        return IMG_ERR_INVALID;
    ImgSeek(s->handle, (int32_t)position, 0);
    return 0;
}

/* Rows of strip `strip`: min(rowsPerStrip, rows left). */
static int32_t StripRows(const TiffReadState *s, uint32_t strip)
{
    int64_t first = (int64_t)strip * s->rowsPerStrip;
    int64_t left = s->height - first;
    return (int32_t)(left < s->rowsPerStrip ? left : s->rowsPerStrip);
}

/* ======================================================================
 * The strip decoders
 * ====================================================================== */

/* Uncompressed strips: whole rows at a time, at most a strip and at most
 * what fits the buffer (the larger of a row and the chunk, plus 200). */
static int ReadUncompressed(TiffReadState *s)
{
    uint32_t rowBytes = s->codedRowBytes;
    uint32_t size = (rowBytes > IMG_CHUNK_SIZE ? rowBytes : IMG_CHUNK_SIZE) + 200;
    uint8_t *buffer = static_cast<uint8_t *>(ImgAllocTracked(size));
    if (!buffer)
        return IMG_ERR_MEMORY;
    uint32_t fit = size / rowBytes;
    int result = 0;
    for (s->plane = 0; s->plane < s->planes && result >= 0; s->plane++) {
        for (uint32_t strip = 0; strip < s->stripsPerPlane && result >= 0; strip++) {
            int32_t first = (int32_t)(strip * (uint32_t)s->rowsPerStrip);
            int32_t rows = StripRows(s, strip);
            result = SeekStrip(s, strip);
            while (result >= 0 && rows > 0) {
                uint32_t n = (uint32_t)rows < fit ? (uint32_t)rows : fit;
                memset(buffer, 0, (size_t)n * rowBytes);
                int32_t got = ImgRead(s->handle, buffer, n * rowBytes);
                if (got <= 0) {
                    result = got < 0 ? got : IMG_ERR_READ;
                    break;
                }
                if (s->reverseBits)
                    ReverseBitsOfBytes(buffer, n * rowBytes);
                uint32_t complete = ((uint32_t)got + rowBytes - 1) / rowBytes;
                if (complete > n)
                    complete = n;
                for (uint32_t i = 0; i < complete && result >= 0; i++)
                    result = AdaptRow(buffer + (size_t)i * rowBytes, first + (int32_t)i, (int)rowBytes, s);
                first += (int32_t)complete;
                rows -= (int32_t)complete;
            }
        }
    }
    ImgFreeTracked(buffer);
    return result;
}

/* The PackBits coded buffer: one chunk (wider for rows whose two coded rows
 * do not fit one, hardening), the valid bytes and the read position. */
typedef struct {
    uint8_t *data;
    uint32_t size, valid, position;
} PackBitsInput;

/* Makes at least `want` unread bytes available: the unread tail moves to
 * the front and the rest is read behind it.  When the source has no more,
 * the missing bytes read as zeros (the memory image's rule past its end);
 * a refill that returns nothing at all gives -12. */
static int PackBitsEnsure(TiffReadState *s, PackBitsInput *in, uint32_t want)
{
    if (in->valid - in->position >= want)
        return 0;
    uint32_t tail = in->valid - in->position;
    memmove(in->data, in->data + in->position, tail);
    in->position = 0;
    in->valid = tail;
    memset(in->data + tail, 0, in->size - tail);
    int32_t got = ImgRead(s->handle, in->data + tail, in->size - tail);
    if (got < 0)
        return got;
    if (got == 0)
        return IMG_ERR_READ;
    if (s->reverseBits)
        ReverseBitsOfBytes(in->data + tail, (uint32_t)got);
    in->valid = tail + (uint32_t)got;
    if (in->valid < want)
        in->valid = want; /* the zeros behind a short read */
    return 0;
}

/* One row: packets until the row's byte count is reached; a packet that runs
 * past the end writes into the slack behind the row, and is dropped. */
static int PackBitsRow(TiffReadState *s, PackBitsInput *in, uint8_t *row, uint32_t rowBytes)
{
    uint32_t out = 0;
    while (out < rowBytes) {
        int result = PackBitsEnsure(s, in, 2);
        if (result < 0)
            return result;
        uint32_t n = in->data[in->position++];
        if (n < 128) {
            result = PackBitsEnsure(s, in, n + 1);
            if (result < 0)
                return result;
            memcpy(row + out, in->data + in->position, n + 1);
            in->position += n + 1;
            out += n + 1;
        } else {
            /* 128 repeats 129 times. */
            memset(row + out, in->data[in->position++], 257 - n);
            out += 257 - n;
        }
    }
    return 0;
}

static int ReadPackBits(TiffReadState *s)
{
    uint32_t rowBytes = s->codedRowBytes;
    PackBitsInput in = {NULL, 0, 0, 0};
    in.size = (2 * rowBytes + 300 > IMG_CHUNK_SIZE ? 2 * rowBytes + 300 : IMG_CHUNK_SIZE) + 200;
    in.data = static_cast<uint8_t *>(ImgAllocTracked(in.size));
    uint8_t *row = static_cast<uint8_t *>(ImgAllocTracked((size_t)rowBytes + 260));
    int result = in.data && row ? 0 : IMG_ERR_MEMORY;
    for (s->plane = 0; s->plane < s->planes && result >= 0; s->plane++) {
        for (uint32_t strip = 0; strip < s->stripsPerPlane && result >= 0; strip++) {
            int32_t first = (int32_t)(strip * (uint32_t)s->rowsPerStrip);
            int32_t rows = StripRows(s, strip);
            result = SeekStrip(s, strip);
            in.valid = in.position = 0; /* a fresh chunk for every strip */
            if (result >= 0)
                result = PackBitsEnsure(s, &in, 1);
            for (int32_t i = 0; i < rows && result >= 0; i++) {
                result = PackBitsRow(s, &in, row, rowBytes);
                if (result >= 0)
                    result = AdaptRow(row, first + i, (int)rowBytes, s);
            }
        }
    }
    ImgFreeTracked(row);
    ImgFreeTracked(in.data);
    return result;
}

/* The row sink of one CCITT strip: its rows are numbered from the strip's
 * first row, and for two-dimensional Group 3 in the inverted sense (the
 * decoder gives its records a leading 0 only in 1-D and Group 4) the record
 * is inverted here (docs/DEVIATIONS.md). */
typedef struct {
    TiffReadState *state;
    int32_t firstRow;
    int invert;
    uint16_t *scratch; /* RunRecordMaxBytes(width) + 32 bytes */
} CcittStripSink;

/* Inverts a run record: a leading 0 position is dropped, else one is put in
 * front; one more terminator while the length equals a packed row's size. */
static int InvertRecord(const uint16_t *record, int bytes, int32_t width, uint16_t *out)
{
    int words = bytes / 2;
    int n = 1;
    if (words > 1 && record[1] == 0) {
        for (int i = 2; i < words; i++)
            out[n++] = record[i];
    } else {
        out[n++] = 0;
        for (int i = 1; i < words; i++)
            out[n++] = record[i];
    }
    while (n < 4 || n * 2 == (width + 7) / 8 || (uint64_t)n * 2 == DibStride((uint32_t)width, 1)) {
        out[n] = out[n - 1] < width ? (uint16_t)width : out[n - 1];
        n++;
    }
    out[0] = (uint16_t)(n * 2);
    return n * 2;
}

static int CcittStripRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    CcittStripSink *k = static_cast<CcittStripSink *>(context);
    TiffReadState *s = k->state;
    if (k->invert && rowBytes != (int)s->stride && rowBytes >= 2 &&
        (size_t)rowBytes <= RunRecordMaxBytes(s->width) + 16) {
        rowBytes = InvertRecord((const uint16_t *)row, rowBytes, s->width, k->scratch);
        row = (const uint8_t *)k->scratch;
    }
    return s->rowSink(row, s->sinkContext, k->firstRow + rowIndex, rowBytes);
}

/* CCITT strips: each strip decoded by the CCITT decoder as an image of
 * its own rows (a white reference row at every strip's start, as TIFF and
 * libtiff code them; docs/DEVIATIONS.md), the run records straight to the
 * row sink. */
static int ReadCcitt(TiffReadState *s)
{
    if (s->width >= 65535)
        return IMG_ERR_INVALID; /* the decoders' width field is 16 bits */
    uint8_t *buffer = static_cast<uint8_t *>(ImgAllocTracked(CCITT_CHUNK + 300));
    CcittStripSink sink = {s, 0, 0, static_cast<uint16_t *>(ImgAllocTracked(RunRecordMaxBytes(s->width) + 64))};
    int result = buffer && sink.scratch ? 0 : IMG_ERR_MEMORY;
    CcittParameters p;
    memset(&p, 0, sizeof p);
    p.width = (uint16_t)s->width;
    p.rowsPerStrip = s->rowsPerStrip;
    p.mode = tiffInfo.compression;
    p.whiteIsZero = tiffInfo.photometric;
    p.fillOrder = tiffInfo.fillOrder;
    sink.invert = p.mode == COMPRESSION_G3_2D && p.whiteIsZero == 0;
    for (uint32_t strip = 0; strip < s->stripsPerPlane && result >= 0; strip++) {
        sink.firstRow = (int32_t)(strip * (uint32_t)s->rowsPerStrip);
        int32_t rows = StripRows(s, strip);
        p.height = rows;
        result = SeekStrip(s, strip);
        if (result < 0)
            break;
        if (p.mode == 4)
            result = CcittDecodeG4(buffer, rows, 0, &p, s->handle, CcittStripRow, &sink);
        else if (p.mode == COMPRESSION_G3_2D)
            result = CcittDecode2D(buffer, rows, 0, &p, s->handle, CcittStripRow, &sink);
        else
            result = CcittDecode1D(buffer, rows, 0, &p, s->handle, CcittStripRow, &sink);
    }
    ImgFreeTracked(sink.scratch);
    ImgFreeTracked(buffer);
    return result;
}

/* The LZW strip loop: a failing strip of exactly rowsPerStrip
 * rows is skipped, a failing shorter (last) strip ends the read.  A row-sink
 * failure always ends it (docs/DEVIATIONS.md). */
static int ReadLzw(TiffReadState *s)
{
    uint32_t rowBytes = s->codedRowBytes;
    uint64_t outputSize = (uint64_t)rowBytes * (s->bits == 1 ? 10 : 4) + 8192;
    if (outputSize > INT32_MAX)
        return IMG_ERR_MEMORY;
    int result = LzwBeginImage();
    if (result < 0)
        return result;
    uint8_t *coded = static_cast<uint8_t *>(ImgAllocTracked(LZW_CODED_BUFFER_SIZE + 16));
    uint8_t *output = static_cast<uint8_t *>(ImgAllocTracked((size_t)outputSize));
    result = coded && output ? 0 : IMG_ERR_MEMORY;
    if (output)
        memset(output, 0, (size_t)outputSize); /* once: a strip that ends early
                                                 * delivers what the buffer holds */
    for (s->plane = 0; s->plane < s->planes && result >= 0; s->plane++) {
        for (uint32_t strip = 0; strip < s->stripsPerPlane && result >= 0; strip++) {
            int32_t first = (int32_t)(strip * (uint32_t)s->rowsPerStrip);
            int32_t rows = StripRows(s, strip);
            result = SeekStrip(s, strip);
            if (result < 0)
                break;
            result = LzwDecodeStrip(s->handle, coded, first, (int32_t)rowBytes, output,
                                    (int32_t)outputSize, rows, AdaptRow, s);
            if (s->sinkFailure < 0)
                result = s->sinkFailure;
            else if (result < 0 && rows == s->rowsPerStrip)
                result = 0; /* a full strip's failure is ignored */
        }
    }
    ImgFreeTracked(output);
    ImgFreeTracked(coded);
    LzwEndImage();
    return result;
}

/* JPEG strips (compression 7, and 6 without JPEGInterchangeFormat): each
 * strip or tile is a stream of its own, read after the tables-only stream
 * of JPEGTables when there is one, its rows through the row adapter. */
static int ReadJpeg(TiffReadState *s)
{
    if (s->sampleBits != 8)
        return IMG_ERR_COMPRESSION; /* libjpeg decodes 8-bit samples */
    JpegStrip strip = {NULL, 0, tiffInfo.photometric, (uint32_t)s->width,
                       s->planes > 1 ? 1 : s->samples, 0, 0, s->codedRowBytes};
    uint8_t *tables = NULL;
    uint32_t tablesBytes = (uint32_t)tiffInfo.jpegTablesBytes;
    if (tiffInfo.jpegTables != 0 && tablesBytes > 4 && tablesBytes <= JPEG_TABLES_MAX) {
        tables = static_cast<uint8_t *>(ImgAllocTracked(tablesBytes));
        if (!tables)
            return IMG_ERR_MEMORY;
        int result = TiffReadAt(&tiffFile, (uint32_t)tiffInfo.jpegTables, tables, tablesBytes);
        if (result < 0 && result != IMG_ERR_READ) {
            ImgFreeTracked(tables);
            return result;
        }
        strip.tables = tables;
        strip.tablesBytes = tablesBytes;
    }
    int result = 0;
    for (s->plane = 0; s->plane < s->planes && result >= 0; s->plane++) {
        for (uint32_t i = 0; i < s->stripsPerPlane && result >= 0; i++) {
            strip.firstRow = (int32_t)(i * (uint32_t)s->rowsPerStrip);
            strip.rows = StripRows(s, i);
            result = SeekStrip(s, i);
            if (result >= 0)
                result = JpegDecodeStrip(s->handle, strip, AdaptRow, s);
        }
    }
    ImgFreeTracked(tables);
    return result;
}

/* Compression 6 with JPEGInterchangeFormat: a whole stream, header and
 * all, read by the JPEG decoder from that offset, or from strip 0 when only
 * strip 0 starts with the start-of-image marker. */
static int ReadInterchangeJpeg(TiffReadState *s, ImgHeaderSink headerSink)
{
    uint8_t marker[2];
    uint32_t at = (uint32_t)tiffInfo.jpegInterchangeFormat, strip0;
    int result = TiffReadAt(&tiffFile, at, marker, 2);
    if ((result < 0 || marker[0] != 0xFF || marker[1] != 0xD8) && StripOffset(0, 1, &strip0) >= 0 &&
        TiffReadAt(&tiffFile, strip0, marker, 2) >= 0 && marker[0] == 0xFF && marker[1] == 0xD8)
        at = strip0;
    uint64_t position = (uint64_t)tiffFile.base + at;
    if (position > INT32_MAX)
        return IMG_ERR_INVALID;
    return JpegRead((uint32_t)position, s->rowSink, s->sinkContext, headerSink, s->handle);
}

/* ======================================================================
 * The reader
 * ====================================================================== */

static void FreeState(TiffReadState *s)
{
    ImgFreeTracked(s->pixelRow);
    ImgFreeTracked(s->outRow);
    if (s->tempHandle > 0) {
        ImgClose(s->tempHandle);
        ImgDelete(s->tempPath);
    }
}

/* The sizes of one read. */
static int SetUpState(TiffReadState *s, int bits)
{
    s->width = tiffInfo.width;
    s->height = tiffInfo.height;
    s->bits = bits;
    s->samples = tiffInfo.samplesPerPixel;
    s->sampleBits = tiffInfo.bitsPerSample;
    s->rowsPerStrip = tiffInfo.rowsPerStrip;
    /* At or above height (and the default -2): one strip.  Hardening: 0 and
     * other negative counts too. */
    if (s->rowsPerStrip >= s->height || s->rowsPerStrip <= 0)
        s->rowsPerStrip = s->height;
    s->stripsPerPlane = (uint32_t)((s->height + (int64_t)s->rowsPerStrip - 1) / s->rowsPerStrip);
    s->planes = tiffInfo.planarConfig == 2 ? s->samples : 1;
    uint64_t pixelRow = ((uint64_t)s->samples * (uint32_t)s->width * (uint32_t)s->sampleBits + 7) / 8;
    uint64_t planeRow = ((uint64_t)(uint32_t)s->width * (uint32_t)s->sampleBits + 7) / 8;
    uint64_t stride = DibStride((uint32_t)s->width, bits);
    if (pixelRow > 0x10000000 || stride > 0x10000000)
        return IMG_ERR_INVALID; /* hardening: rows of 256 MiB or more */
    s->pixelRowBytes = (uint32_t)pixelRow;
    s->planeRowBytes = (uint32_t)planeRow;
    s->codedRowBytes = s->planes > 1 ? s->planeRowBytes : s->pixelRowBytes;
    s->stride = (uint32_t)stride;
    s->reverseBits = tiffInfo.fillOrder == 2;
    return 0;
}

/* The row buffers and the temporary file of one read: only once the header
 * sink has taken the header, so that a sink refusing the picture (or the
 * decode limit) also spares rows of up to 256 MiB. */
static int AllocateRows(TiffReadState *s)
{
    /* Slack: conversions and the predictor read whole samples. */
    s->pixelRow = static_cast<uint8_t *>(ImgAllocTracked((size_t)s->pixelRowBytes + 16));
    s->outRow = static_cast<uint8_t *>(ImgAllocTracked((size_t)s->stride + 16));
    if (!s->pixelRow || !s->outRow)
        return IMG_ERR_MEMORY;
    memset(s->pixelRow, 0, (size_t)s->pixelRowBytes + 16);
    memset(s->outRow, 0, (size_t)s->stride + 16);
    if (s->planes > 1) {
        s->tempHandle = ImgOpenTemp(s->tempPath, 0);
        if (s->tempHandle < 0) {
            s->tempHandle = 0;
            return IMG_ERR_CREATE;
        }
    }
    return 0;
}

/* Checks what the row adapter needs (hardening, docs/DEVIATIONS.md). */
static int CheckGeometry(int bits)
{
    if (tiffInfo.width < 1 || tiffInfo.height < 1)
        return IMG_ERR_INVALID;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24)
        return IMG_ERR_INVALID;
    int32_t spp = tiffInfo.samplesPerPixel, bps = tiffInfo.bitsPerSample;
    if (spp < 1 || spp > 16 || bps < 1 || bps > 32)
        return IMG_ERR_INVALID;
    if (bps > 8 && bps % 8 != 0)
        return IMG_ERR_INVALID;
    if (tiffInfo.planarConfig == 2 && spp != 3 && spp != 4)
        tiffInfo.planarConfig = 1; /* SamplesPerPixel changed after the tag */
    return 0;
}

/* Decodes the opened page: dispatch, header, palette, strips. */
static int DecodePage(TiffReadState *s, ImgHeaderSink headerSink)
{
    int32_t compression = tiffInfo.compression;
    if (compression == 6 && tiffInfo.jpegInterchangeFormat != 0)
        return ReadInterchangeJpeg(s, headerSink);
    if (compression == 32010 || compression == 32008)
        return IMG_ERR_COMPRESSION;
    int bits = HeaderBitCount(tiffInfo.samplesPerPixel, tiffInfo.bitsPerSample);
    int result = CheckGeometry(bits);
    if (result < 0)
        return result;
    uint8_t *block = static_cast<uint8_t *>(ImgAllocTracked(IMG_HEADER_BLOCK_SIZE));
    if (!block)
        return IMG_ERR_MEMORY;
    result = BuildHeader(block, bits);
    if (result >= 0)
        result = SetUpState(s, bits);
    if (result >= 0)
        result = headerSink(block, s->sinkContext);
    if (result >= 0)
        result = AllocateRows(s);
    if (result >= 0) {
        switch (compression) {
        case 1: result = ReadUncompressed(s); break;
        case 32773: result = ReadPackBits(s); break;
        case 2: case 3: case 4: case COMPRESSION_G3_2D: result = ReadCcitt(s); break;
        case 5: result = ReadLzw(s); break;
        case 6: case 7: result = ReadJpeg(s); break;
        default: result = IMG_ERR_COMPRESSION; break;
        }
    }
    if (result >= 0 && s->planes > 1)
        result = InterleavePlanes(s);
    ImgFreeTracked(block);
    return result;
}

int TiffRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle)
{
    int page = 0;
    uint32_t base = start & 0x7FFFFFFFu;
    if (start & IMG_PAGE_FLAG) {
        page = (int)(start & 0xFFFF);
        base = ImgPosition(handle);
    }
    ImgReadAheadBegin(handle); /* the IFD walk and the strips: many small reads */
    int result = TiffOpenPage(handle, base, page);
    if (result >= 0) {
        TiffReadState s;
        memset(&s, 0, sizeof s);
        s.handle = handle;
        s.rowSink = rowSink;
        s.sinkContext = sinkContext;
        result = DecodePage(&s, headerSink);
        FreeState(&s);
    }
    FreeStripOffsets();
    ImgReadAheadEnd();
    return result < 0 ? result : 1;
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeTiff(ImgDetectBytes &s)
{
    return memcmp(s.b, "MM", 2) == 0 || memcmp(s.b, "II", 2) == 0;
}

constexpr ImgTypeEntry kTiffTypes[] = {
    {IMG_TYPE_TIFF, "TIFF, uncompressed", TiffWriteUncompressed},
    {IMG_TYPE_TIFF_HUFFMAN, "TIFF, CCITT modified Huffman", TiffWriteHuffman},
    {IMG_TYPE_TIFF_G3, "TIFF, CCITT Group 3", TiffWriteGroup3},
    {IMG_TYPE_TIFF_LZW, "TIFF, LZW", TiffWriteLzw},
    {IMG_TYPE_TIFF_G4, "TIFF, CCITT Group 4", TiffWriteGroup4},
    {IMG_TYPE_TIFF_PACKBITS, "TIFF, PackBits", TiffWritePackBits},
    {IMG_TYPE_TIFF_G3_2D, "TIFF, two-dimensional CCITT Group 3", nullptr},
    {IMG_TYPE_TIFF_JPEG, "TIFF, JPEG", TiffWriteJpeg},
    {IMG_TYPE_TIFF_32010, "TIFF, compression 32010", nullptr},
    {IMG_TYPE_TIFF_32008, "TIFF, compression 32008", nullptr},
    {IMG_TYPE_TIFF_51, "TIFF, CCITT Group 4, most significant bit first", TiffWriteGroup4Msb},
};

} // namespace

const ImgFormat kTiffFormat = {"tif",       "tif",          0,    ProbeTiff, TiffSubtype,
                               TiffRead,    TiffCountPages, true, kTiffTypes};
