/*
 * cals.cpp - CALS raster: the reader (file type 18) and the writer (save
 * type 18).
 *
 * The header is sixteen 128-byte records of text padded with spaces; the
 * reader looks at three places only: the value of "rpelcnt: " in record 8
 * (or, when it holds no comma, at the same place in record 7) for the width
 * and height, and record 9 one character after the value of "rdensty: "
 * begins for the density.  That position suits a four-digit density
 * ("0300"); a three-digit one ("200", as the writer puts it) reads as its
 * last two digits.  The body from byte 2048 on is Group 4 with no strips,
 * decoded and encoded by codecs/ccitt_*.
 *
 * Hostile headers and bodies are handled as listed under "CALS raster" in
 * docs/DEVIATIONS.md; each such place carries a "hardening" comment.
 */
#include "formats/cals.h"

#include <stdio.h>
#include <string.h>

#include "codecs/ccitt_decode.h"
#include "codecs/ccitt_encode.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr int kFieldBytes = 30;                            /* bytes read per header value */
constexpr uint32_t kSizeAt = 8 * CALS_RECORD_SIZE + 9;     /* record 8 after "rpelcnt: " */
constexpr uint32_t kSizeFallbackAt = 7 * CALS_RECORD_SIZE + 9; /* record 7, same place */
constexpr uint32_t kDensityAt = 9 * CALS_RECORD_SIZE + 10; /* record 9, "rdensty: " + 1 */
constexpr int64_t kNumberLimit = 0x7FFFFFFF;
constexpr int32_t kMaxWidth = 65534; /* the decoder's positions are 16-bit, width + 1 included */

/* The records the writer fills, in order; record 8 gets its value behind. */
constexpr const char *kRecords[] = {
    "srcdocid: NONE        ", "dstdocid: NONE        ", "txtfilid: NONE        ",
    "figid: NONE           ", "srcgph: NONE          ", "doccls: NONE          ",
    "rtype: 1              ", "rorient: 000,270      ", "rpelcnt: ",
    "rdensty: 200          ", "notes: NONE           ",
};
constexpr int kSizeRecord = 8;

/* Up to kFieldBytes bytes at start + offset into a zeroed field: the count
 * read (0 when the read fails). */
int ReadField(int handle, uint32_t start, uint32_t offset, uint8_t *field)
{
    memset(field, 0, kFieldBytes);
    ImgSeek(handle, (int32_t)(start + offset), 0);
    int32_t n = ImgRead(handle, field, kFieldBytes);
    return n < 0 ? 0 : n > kFieldBytes ? kFieldBytes : n;
}

int FindComma(const uint8_t *field, int count)
{
    for (int i = 0; i < count; i++)
        if (field[i] == ',')
            return i;
    return -1;
}

bool IsDigit(uint8_t c)
{
    return c >= '0' && c <= '9';
}

/* The reader's sink between the decoder and the caller's: a row the data
 * ended before is not handed on (hardening: a truncated body gives -12, and
 * a huge declared height over a short body ends at once). */
struct CalsRows {
    ImgRowSink sink;
    void *context;
};

int CalsRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    const CalsRows *k = static_cast<const CalsRows *>(context);
    if (CcittRowsProduced() <= rowIndex)
        return IMG_ERR_READ;
    return k->sink(row, k->context, rowIndex, rowBytes);
}

bool ProbeCal(ImgDetectBytes &s)
{
    return memcmp(s.b, "src", 3) == 0;
}

} // namespace

int32_t CalsNumber(const uint8_t *text, int count)
{
    int64_t value = 0;
    for (int i = 0; i < count; i++) {
        if (text[i] == ' ')
            continue;
        value = value * 10 + ((int64_t)text[i] - '0');
        /* hardening: held within 32 bits, so no text can overflow it */
        if (value > kNumberLimit)
            value = kNumberLimit;
        else if (value < -kNumberLimit)
            value = -kNumberLimit;
    }
    return (int32_t)value;
}

int CalsRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle)
{
    /* hardening: every position must be a 32-bit file offset (a page
     * request's flag makes `start` too large as well) */
    if ((uint64_t)start + CALS_HEADER_SIZE > (uint64_t)kNumberLimit)
        return IMG_ERR_INVALID;

    /* 1-2. Width before the comma; height: spaces, then digits that must
     * end before the field does. */
    uint8_t field[kFieldBytes];
    int count = ReadField(handle, start, kSizeAt, field);
    int comma = FindComma(field, count);
    if (comma < 0) {
        count = ReadField(handle, start, kSizeFallbackAt, field);
        comma = FindComma(field, count);
        if (comma < 0)
            return IMG_ERR_INVALID;
    }
    int32_t width = CalsNumber(field, comma);
    int at = comma + 1;
    while (at < count && field[at] == ' ')
        at++;
    int digits = at;
    while (at < count && IsDigit(field[at]))
        at++;
    if (at >= count)
        return IMG_ERR_INVALID;
    int32_t height = CalsNumber(field + digits, at - digits);
    /* hardening: the decoder takes widths 1 .. 65534; the image size must
     * fit its 32-bit header field */
    uint64_t imageSize;
    if (width < 1 || width > kMaxWidth || height < 1 ||
        !CheckedBlockSize(((uint64_t)width + 7) / 8, (uint64_t)height, 0xFFFFFFFFu, &imageSize))
        return IMG_ERR_INVALID;

    /* 3. The density: the leading digits, 0 when the field is all digits. */
    count = ReadField(handle, start, kDensityAt, field);
    at = 0;
    while (at < count && IsDigit(field[at]))
        at++;
    int32_t density = at < count ? CalsNumber(field, at) : 0;

    /* 5. A 1-bit header, entry 0 black, entry 1 white. */
    ImgSeek(handle, (int32_t)(start + CALS_HEADER_SIZE), 0);
    uint8_t block[IMG_HEADER_BLOCK_SIZE];
    DibBilevelHeader(block, (int32_t)width, (int32_t)height, (uint32_t)imageSize);
    PutLE32(block + 24, (uint32_t)density);
    PutLE32(block + 28, (uint32_t)density);
    int result = headerSink(block, sinkContext);
    if (result < 0)
        return result;

    /* 6. The body: Group 4 read from the source, first bit in the most
     * significant bit, run records handed on as they come.  The buffer is
     * the decoder's chunk and slack whatever `start` is (hardening). */
    ImgBuffer buffer(CCITT_CHUNK + 300);
    if (!buffer)
        return IMG_ERR_MEMORY;
    /* hardening: a read past the end of the memory image claims bytes it
     * does not copy; they read as 0, never as uninitialised memory */
    memset(buffer.get(), 0, CCITT_CHUNK + 300);
    CcittParameters p;
    memset(&p, 0, sizeof p);
    p.width = (uint16_t)width;
    p.height = height;
    p.fillOrder = 1;
    p.mode = 4;
    p.whiteIsZero = 1;
    CalsRows rows = {rowSink, sinkContext};
    result = CcittDecodeG4(buffer.get(), height, 0, &p, handle, CalsRow, &rows);
    return result < 0 ? result : 0;
}

int CalsWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    if (GetLE16(header + 14) != 1)
        return IMG_ERR_DEPTH;
    /* Eleven records of text, five of spaces; record 8 holds the size as
     * "%06d,%06d" from byte 9, followed by a space. */
    uint8_t text[CALS_HEADER_SIZE];
    memset(text, ' ', sizeof text);
    for (size_t i = 0; i < sizeof kRecords / sizeof kRecords[0]; i++)
        memcpy(text + i * CALS_RECORD_SIZE, kRecords[i], strlen(kRecords[i]));
    char size[40];
    int n = snprintf(size, sizeof size, "%06d,%06d", (int)(int32_t)GetLE32(header + 4),
                     (int)(int32_t)GetLE32(header + 8));
    size_t at = kSizeRecord * CALS_RECORD_SIZE + strlen(kRecords[kSizeRecord]);
    memcpy(text + at, size, n > 0 && n < CALS_RECORD_SIZE - 10 ? (size_t)n : 0);
    if (ImgWrite(handle, text, sizeof text) != (int32_t)sizeof text)
        return IMG_ERR_WRITE;
    return CcittEncode2D(handle, header, rowSource, sourceContext, 0, 4);
}

namespace {

constexpr ImgTypeEntry kCalsTypes[] = {{IMG_TYPE_CALS, "CALS raster", CalsWrite}};

} // namespace

const ImgFormat kCalsFormat = {"cal", "cal", 18, ProbeCal, nullptr, CalsRead, nullptr, false,
                               kCalsTypes};
