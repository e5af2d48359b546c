/*
 * eps.cpp - Encapsulated PostScript.
 *
 * The writer makes a small PostScript program: a fixed prologue places the
 * image at the top left of a letter page, 8 inches (2400 units of 1/300
 * inch) wide, and the pixels follow as hexadecimal text, one image row a
 * line.  Every line ends in CR, LF and two zero bytes (PostScript reads the
 * zero bytes as white space).  Bilevel rows go to `image` as they are;
 * other images go to `colorimage` as 8-bit RGB: a procedure looks each index
 * up in the palette written into the file, and 24-bit rows are written as
 * red, green, blue.
 *
 * The reader takes the DOS binary EPS form: a 30-byte header giving the
 * offsets and lengths of the PostScript, a Windows metafile and a TIFF
 * preview.  The preview is read by the TIFF reader at its offset in the
 * file; the PostScript and the metafile are not read.
 *
 * Hostile files are handled as listed under "Encapsulated PostScript" in
 * docs/DEVIATIONS.md.
 */
#include "formats/eps.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "formats/tiff_read.h"

namespace {

/* ---- writing ---- */

constexpr uint8_t kLineEnd[] = {0x0D, 0x0A, 0x00, 0x00};
constexpr uint32_t kLineEndBytes = sizeof kLineEnd;
constexpr int kScaledWidth = 2400;   /* the image's width in units of 1/300 inch */
constexpr int kUnitsPerInch = 300;
constexpr int kPointsPerInch = 72;
constexpr uint32_t kPaletteLineEntries = 16;
constexpr uint64_t kLargestBuffer = 0x7FFFFFFFull; /* a row's text, and a row, in bytes */
constexpr char kHexDigits[] = "0123456789ABCDEF";

/* What the text of an image is made of. */
struct EpsLayout {
    uint32_t width, height;
    int bits;
    uint32_t stride;      /* of the rows the row source serves */
    uint32_t rowBytes;    /* of the PostScript string one row is read into */
    int32_t scaledHeight; /* in units of 1/300 inch */
};

/* The layout of the image the header describes: -21 for depths other than
 * 1, 4, 8 and 24, -3 for sizes the text cannot hold. */
int PlanLayout(const uint8_t *header, EpsLayout &o)
{
    o.bits = GetLE16(header + 14);
    if (o.bits != 1 && o.bits != 4 && o.bits != 8 && o.bits != 24)
        return IMG_ERR_DEPTH;
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (width < 1 || height < 1)
        return IMG_ERR_INVALID;
    o.width = (uint32_t)width;
    o.height = (uint32_t)height;
    uint64_t stride = DibStride(o.width, o.bits);
    /* 4-bit pixels are widened to a byte each: the look-up takes whole bytes. */
    uint64_t rowBytes = o.bits == 1 ? (o.width + 7ull) / 8 : o.bits == 24 ? 3ull * o.width : o.width;
    if (2 * rowBytes + 100 > kLargestBuffer || stride + 100 > kLargestBuffer)
        return IMG_ERR_INVALID;
    double scaled = (double)kScaledWidth / o.width * o.height;
    if (scaled >= 2147483648.0)
        return IMG_ERR_INVALID;
    o.stride = (uint32_t)stride;
    o.rowBytes = (uint32_t)rowBytes;
    o.scaledHeight = (int32_t)scaled; /* truncated */
    return 0;
}

/* Writes one line and its terminator.  The count is not checked: a sink
 * that fails here fails the hex rows that follow. */
[[gnu::format(printf, 2, 3)]] void PutLine(int handle, const char *format, ...)
{
    char line[200];
    va_list arguments;
    va_start(arguments, format);
    int n = vsnprintf(line, sizeof line - kLineEndBytes, format, arguments);
    va_end(arguments);
    if (n < 0)
        return;
    uint32_t length = (uint32_t)n < sizeof line - kLineEndBytes ? (uint32_t)n : sizeof line - kLineEndBytes - 1;
    memcpy(line + length, kLineEnd, kLineEndBytes);
    ImgWrite(handle, line, length + kLineEndBytes);
}

/* The lines that place and scale the image, and the row string. */
void PutPrologue(int handle, const EpsLayout &o)
{
    PutLine(handle, "%%!PS-Adobe-2.0 EPSF-2.0");
    /* In points, each divided down: the box is 33 points wide whatever the image. */
    PutLine(handle, "%%%%BoundingBox: %d %d %d %d", 0, 0, kScaledWidth / kPointsPerInch,
            o.scaledHeight / kPointsPerInch);
    PutLine(handle, "gsave");
    PutLine(handle, "/inch { 72 mul } def");
    PutLine(handle, "/pixel { 72 mul %d div } def", kUnitsPerInch);
    PutLine(handle, "/imagetop { 10.75 inch %d pixel sub } def", 0);
    PutLine(handle, "/imagebottom { imagetop %d pixel sub } def", o.scaledHeight);
    PutLine(handle, "/imageleft { 0.25 inch %d pixel add } def", 0);
    PutLine(handle, "/picstr %u string def", o.rowBytes);
    PutLine(handle, "imageleft imagebottom translate");
    PutLine(handle, "%d pixel %d pixel scale", kScaledWidth, o.scaledHeight);
}

/* The palette as a hex string, sixteen entries a line, each red, green,
 * blue. */
void PutPalette(int handle, const uint8_t *header, int bits)
{
    PutLine(handle, "/pal <");
    const uint8_t *entries = header + DIB_HEADER_SIZE; /* blue, green, red, 0 */
    uint32_t count = 1u << bits;
    char line[kPaletteLineEntries * 7 + kLineEndBytes];
    uint32_t length = 0;
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *e = entries + 4 * i;
        snprintf(line + length, 8, "%02X%02X%02X", e[2], e[1], e[0]);
        length += 6;
        if (i % kPaletteLineEntries == kPaletteLineEntries - 1 || i == count - 1) {
            memcpy(line + length, kLineEnd, kLineEndBytes);
            ImgWrite(handle, line, length + kLineEndBytes);
            length = 0;
        } else {
            line[length++] = ' ';
        }
    }
    PutLine(handle, "> def");
}

/* The drawing operator and, for palette images, the procedure that turns
 * each row of indices into a row of RGB. */
void PutOperator(int handle, const uint8_t *header, const EpsLayout &o)
{
    int w = (int)o.width, h = (int)o.height;
    if (o.bits == 1) {
        PutLine(handle, "%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} image", w, h,
                1, w, -h, h);
        return;
    }
    if (o.bits == 24) {
        PutLine(handle,
                "%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} false 3 colorimage",
                w, h, 8, w, -h, h);
        return;
    }
    PutPalette(handle, header, o.bits);
    PutLine(handle, "/rgbstr %u string def", 3 * o.rowBytes);
    static const char *const kProcedure[] = {
        "/read_raw {currentfile picstr readhexstring pop} def",
        "/read8_24 {",
        "  read_raw",
        "  /rgb_ndx 0 def",
        "  {",
        "     3 mul pal exch 3 getinterval rgbstr exch rgb_ndx exch putinterval",
        "     /rgb_ndx rgb_ndx 3 add def",
        "  } forall rgbstr",
        "} def",
    };
    for (const char *line : kProcedure)
        PutLine(handle, "%s", line);
    PutLine(handle, "%d %d %d [%d 0 0 %d 0 %d] {read8_24} false 3 colorimage", w, h, 8, w, -h, h);
}

/* One row as hex text, two upper-case digits a byte, high nibble first,
 * then the terminator; returns the text's length. */
uint32_t HexRow(const uint8_t *row, const EpsLayout &o, char *text)
{
    char *out = text;
    auto put = [&out](uint8_t b) {
        *out++ = kHexDigits[b >> 4];
        *out++ = kHexDigits[b & 15];
    };
    if (o.bits == 4) {
        for (uint32_t x = 0; x < o.width; x++)
            put((uint8_t)(x & 1 ? row[x / 2] & 15 : row[x / 2] >> 4));
    } else if (o.bits == 24) {
        for (uint32_t x = 0; x < o.width; x++, row += 3) /* blue, green, red in the row */
            put(row[2]), put(row[1]), put(row[0]);
    } else {
        for (uint32_t i = 0; i < o.rowBytes; i++)
            put(row[i]);
    }
    memcpy(out, kLineEnd, kLineEndBytes);
    return (uint32_t)(out - text) + kLineEndBytes;
}

bool PutText(int handle, const char *text)
{
    char line[40];
    uint32_t n = (uint32_t)strlen(text);
    memcpy(line, text, n);
    memcpy(line + n, kLineEnd, kLineEndBytes);
    return ImgWrite(handle, line, n + kLineEndBytes) == (int32_t)(n + kLineEndBytes);
}

/* ---- reading ---- */

constexpr uint32_t kDosMagic = 0xC6D3D0C5u; /* bytes C5 D0 D3 C6 */
constexpr uint32_t kDosHeaderRead = 32;     /* the 30-byte header and two bytes beyond */
constexpr uint32_t kDosFieldsEnd = 28;      /* up to the TIFF section's length */
constexpr uint32_t kTiffOffsetAt = 20, kTiffLengthAt = 24;
constexpr uint32_t kTiffHeaderBytes = 8;
constexpr uint64_t kLastPosition = 0x7FFFFFFFull; /* beyond it a start reads as a page request */

/* The end of the source, or -1 when it has none (a memory image of
 * unknown size). */
int64_t SourceEnd(int handle)
{
    if (!ImgSourceSizeKnown(handle))
        return -1;
    if (ImgSeek(handle, 0, 2) < 0)
        return -1;
    return ImgPosition(handle);
}

} // namespace

int EpsWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    EpsLayout o;
    int result = PlanLayout(header, o);
    if (result < 0)
        return result;
    PutPrologue(handle, o);
    ImgBuffer text((size_t)2 * o.rowBytes + 100);
    if (!text)
        return IMG_ERR_MEMORY;
    PutOperator(handle, header, o);
    ImgBuffer row((size_t)o.stride + 100);
    if (!row)
        return IMG_ERR_MEMORY;
    char *hex = reinterpret_cast<char *>(text.get());
    for (uint32_t y = 0; y < o.height; y++) {
        result = rowSource(sourceContext, row.get(), (int)y, (int)o.stride);
        if (result < 0)
            return result;
        uint32_t n = HexRow(row.get(), o, hex);
        if (ImgWrite(handle, hex, n) != (int32_t)n) {
            ImgFreeAllTracked(); /* as a failed decode does */
            return IMG_ERR_WRITE;
        }
    }
    if (!PutText(handle, "grestore") || !PutText(handle, "showpage"))
        return IMG_ERR_WRITE;
    return 0;
}

int EpsRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    if (start & IMG_PAGE_FLAG)
        return IMG_ERR_INVALID; /* one image: there are no further pages */
    uint8_t header[kDosHeaderRead] = {};
    ImgSeek(handle, (int32_t)start, 0);
    int32_t got = ImgRead(handle, header, kDosHeaderRead);
    if (got < 0)
        return got;
    uint32_t tiffOffset = GetLE32(header + kTiffOffsetAt), tiffLength = GetLE32(header + kTiffLengthAt);
    if (GetLE32(header) != kDosMagic || tiffOffset == 0)
        return IMG_ERR_INVALID;
    if ((uint32_t)got < kDosFieldsEnd)
        return IMG_ERR_READ;
    uint64_t tiffStart = (uint64_t)start + tiffOffset, tiffEnd = tiffStart + tiffLength;
    if (tiffLength < kTiffHeaderBytes || tiffEnd > kLastPosition)
        return IMG_ERR_INVALID;
    int64_t end = SourceEnd(handle);
    if (end >= 0 && tiffEnd > (uint64_t)end)
        return IMG_ERR_READ; /* the preview lies beyond the end of the file */
    int result = TiffRead((uint32_t)tiffStart, rowSink, sinkContext, headerSink, handle);
    return result == IMG_ERR_TYPE ? IMG_ERR_GDI : result;
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeEps(ImgDetectBytes &s) { return GetLE32(s.b) == kDosMagic; }

constexpr ImgTypeEntry kEpsTypes[] = {{IMG_TYPE_EPS, "Encapsulated PostScript", EpsWrite}};

} // namespace

/* Detection word, save extension, auto-detect flag, probe, subtype query,
 * reader, page counter, multi-page, types. */
const ImgFormat kEpsFormat = {"eps", "eps", 14, ProbeEps, nullptr, EpsRead, nullptr, false, kEpsTypes};
