/*
 * png.cpp - PNG through libpng.
 *
 * libpng reads and writes through the I/O layer (callbacks over ImgReadSome
 * and ImgWrite) and allocates through ImgAlloc.  Its errors come to our
 * error callback, which jumps back (setjmp/longjmp, never outside this file)
 * into the function that runs libpng; that function returns the code the
 * failure set (-12 for a short read, -9 for a short write, -1 for memory),
 * or -3 for libpng's own complaints.  Warnings are dropped: nothing is
 * printed.  The functions between setjmp and the jump hold nothing with a
 * destructor: their buffers live in the state structs, freed by the caller
 * once libpng is done.
 *
 * The reader turns every colour type and depth into an image of 1, 4, 8 or
 * 24 bits; the writer writes 1-, 4- and 8-bit images as palette or grey
 * PNGs and 24-bit images as RGB.  Hostile files are handled as listed under
 * "PNG" in docs/DEVIATIONS.md.
 */
#include "formats/png.h"

#include <setjmp.h>
#include <string.h>

#include <png.h>

#include "core/bytes.h"
#include "core/codec_settings.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint64_t kMaxPixelBytes = 0x7FFFFFFFull; /* the largest pixel block accepted */
constexpr uint32_t kWhite = 0xFFFFFF;

uint32_t alphaBackground = kWhite; /* 0x00RRGGBB */

/* ---- libpng's callbacks ---- */

/* What libpng hands back to every callback: the source or sink, and the
 * code of the failure it stops on (0: one of libpng's own, -3). */
struct PngIo {
    int handle;
    int error;
};

PngIo *IoOf(png_structp png)
{
    return static_cast<PngIo *>(png_get_error_ptr(png));
}

void Fail(png_structp png, int error)
{
    IoOf(png)->error = error;
    png_error(png, "");
}

void OnError(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

png_voidp Allocate(png_structp png, png_alloc_size_t size)
{
    void *block = ImgAlloc(size);
    if (!block) /* libpng raises the error */
        static_cast<PngIo *>(png_get_mem_ptr(png))->error = IMG_ERR_MEMORY;
    return block;
}

void Release(png_structp, png_voidp block)
{
    ImgFree(block);
}

/* Reads all `length` bytes, however the source hands them over. */
void ReadBytes(png_structp png, png_bytep data, size_t length)
{
    int handle = IoOf(png)->handle;
    size_t got = 0;
    while (got < length) {
        uint32_t want = length - got < (1u << 30) ? (uint32_t)(length - got) : 1u << 30;
        int32_t n = ImgReadSome(handle, data + got, want);
        if (n <= 0 || (uint32_t)n > want)
            Fail(png, IMG_ERR_READ);
        got += (uint32_t)n;
    }
}

void WriteBytes(png_structp png, png_bytep data, size_t length)
{
    if (length > 0x7FFFFFFF || ImgWrite(IoOf(png)->handle, data, (uint32_t)length) != (int32_t)length)
        Fail(png, IMG_ERR_WRITE);
}

void FlushNothing(png_structp) {}

/* ---- reading ---- */

/* How a row libpng hands out becomes a row of the image. */
enum class RowLayout {
    Copy,      /* as it is: 1, 4 and 8 bits, grey or indices; 24 bits blue, green, red */
    Nibbles,   /* a byte a pixel (1- or 2-bit indices, unpacked) packed two a byte */
    GreyAlpha, /* grey and alpha composited over a grey background */
    Rgba,      /* blue, green, red, alpha composited over the background */
};

struct PngReader {
    PngIo io;
    png_structp png;
    png_infop info;
    RowLayout layout;
    uint32_t width, height;
    int bits;      /* of the image built */
    bool invert;   /* a 1-bit palette of white, then black */
    uint32_t stride;
    size_t pngRowBytes;
    uint8_t background[3]; /* blue, green, red */
    uint8_t *block;        /* the header and palette */
    uint8_t *pngRows;      /* one row, or every row of an interlaced image */
    png_bytep *rowPointers;
    uint8_t *row;          /* one row of the image */
};

/* round((colour * alpha + background * (255 - alpha)) / 255), without a
 * division: (t + (t >> 8)) >> 8 of t = x + 128 is round(x / 255) for every
 * x up to 255 * 255. */
inline uint8_t Over(uint32_t colour, uint32_t alpha, uint32_t background)
{
    uint32_t t = colour * alpha + background * (255 - alpha) + 128;
    return (uint8_t)((t + (t >> 8)) >> 8);
}

void SetEntry(uint8_t *block, uint32_t index, uint8_t red, uint8_t green, uint8_t blue)
{
    uint8_t *entry = block + DIB_HEADER_SIZE + 4 * index;
    entry[0] = blue;
    entry[1] = green;
    entry[2] = red;
}

void GreyPalette(uint8_t *block, int depth)
{
    uint32_t levels = 1u << depth;
    for (uint32_t i = 0; i < levels; i++) {
        uint8_t v = (uint8_t)(i * 255 / (levels - 1));
        SetEntry(block, i, v, v, v);
    }
}

bool IsBlackThenWhite(const uint8_t *block, bool swapped)
{
    const uint8_t *black = block + DIB_HEADER_SIZE + (swapped ? 4 : 0);
    const uint8_t *white = block + DIB_HEADER_SIZE + (swapped ? 0 : 4);
    return !black[0] && !black[1] && !black[2] && white[0] == 255 && white[1] == 255 && white[2] == 255;
}

/* The palette of a palette image into the block, entries with alpha below
 * 255 composited over the background, except the first fully transparent
 * one, which keeps its colour and becomes the transparent colour (-1: none). */
int ReadPalette(PngReader &r)
{
    png_colorp colours = nullptr;
    int count = 0;
    png_get_PLTE(r.png, r.info, &colours, &count);
    png_bytep alpha = nullptr;
    int alphas = 0;
    png_get_tRNS(r.png, r.info, &alpha, &alphas, nullptr);
    int transparent = -1;
    for (int i = 0; i < count; i++) {
        png_color c = colours[i];
        int a = i < alphas ? alpha[i] : 255;
        if (a == 0 && transparent < 0)
            transparent = i;
        else if (a < 255)
            c = {Over(c.red, (uint32_t)a, r.background[2]), Over(c.green, (uint32_t)a, r.background[1]),
                 Over(c.blue, (uint32_t)a, r.background[0])};
        SetEntry(r.block, (uint32_t)i, c.red, c.green, c.blue);
    }
    return transparent;
}

/* The transparent grey level of a grey image (-1: none), at 8 bits for a
 * 16-bit image. */
int GreyTransparent(PngReader &r, int depth)
{
    png_color_16p colour = nullptr;
    if (!png_get_tRNS(r.png, r.info, nullptr, nullptr, &colour) || !colour)
        return -1;
    uint32_t grey = colour->gray;
    if (depth == 16)
        grey = (grey * 255 + 32767) / 65535;
    return grey < (1u << (depth < 8 ? depth : 8)) ? (int)grey : -1;
}

/* Chooses the image built from the PNG's colour type and depth: the
 * transforms libpng applies, the row layout, the palette, and the
 * transparent colour (-1: none). */
int ChooseLayout(PngReader &r, int colourType, int depth)
{
    r.layout = RowLayout::Copy;
    if (depth == 16)
        png_set_scale_16(r.png);
    int transparent = -1;
    switch (colourType) {
    case PNG_COLOR_TYPE_PALETTE:
        transparent = ReadPalette(r);
        r.bits = depth == 8 ? 8 : 4;
        if (depth == 1 && (IsBlackThenWhite(r.block, false) || IsBlackThenWhite(r.block, true))) {
            r.bits = 1;
            r.invert = !IsBlackThenWhite(r.block, false);
            if (r.invert) {
                GreyPalette(r.block, 1);
                transparent = transparent < 0 ? -1 : transparent ^ 1;
            }
        }
        break;
    case PNG_COLOR_TYPE_GRAY:
        transparent = GreyTransparent(r, depth);
        r.bits = depth == 1 ? 1 : depth <= 4 ? 4 : 8;
        GreyPalette(r.block, depth < 8 ? depth : 8);
        break;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
        if (r.background[0] == r.background[1] && r.background[1] == r.background[2]) {
            r.bits = 8;
            r.layout = RowLayout::GreyAlpha;
            GreyPalette(r.block, 8);
        } else {
            png_set_gray_to_rgb(r.png);
            png_set_bgr(r.png);
            r.bits = 24;
            r.layout = RowLayout::Rgba;
        }
        break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
        r.layout = RowLayout::Rgba;
        [[fallthrough]];
    default: /* RGB; its tRNS colour is not kept */
        png_set_bgr(r.png);
        r.bits = 24;
        break;
    }
    if (depth < 8 && r.bits == 4 && depth != 4) { /* 1- and 2-bit indices into 4 bits */
        png_set_packing(r.png);
        r.layout = RowLayout::Nibbles;
    }
    return transparent;
}

/* Dots per inch from a pHYs chunk in pixels per metre; 0 without one. */
uint32_t DotsPerInch(png_uint_32 perMetre)
{
    return (uint32_t)(((uint64_t)perMetre * 254 + 5000) / 10000);
}

/* Reads the PNG's header and builds ours: -3 for a picture of 2 GiB or more. */
int ReadHeader(PngReader &r)
{
    png_read_info(r.png, r.info);
    png_uint_32 width, height;
    int depth, colourType, interlace;
    png_get_IHDR(r.png, r.info, &width, &height, &depth, &colourType, &interlace, nullptr, nullptr);
    r.width = width;
    r.height = height;
    int transparent = ChooseLayout(r, colourType, depth);
    if (interlace != PNG_INTERLACE_NONE)
        png_set_interlace_handling(r.png);
    png_read_update_info(r.png, r.info);
    r.pngRowBytes = png_get_rowbytes(r.png, r.info);

    uint64_t stride = DibStride(width, r.bits), bytes;
    if (!CheckedBlockSize(stride, height, kMaxPixelBytes, &bytes))
        return IMG_ERR_INVALID;
    r.stride = (uint32_t)stride;
    uint8_t *h = r.block;
    PutLE32(h, DIB_HEADER_SIZE);
    PutLE32(h + 4, width);
    PutLE32(h + 8, height);
    PutLE16(h + 12, 1);
    PutLE16(h + 14, (uint16_t)r.bits);
    PutLE32(h + 20, (uint32_t)bytes);
    png_uint_32 x, y;
    int unit;
    if (png_get_pHYs(r.png, r.info, &x, &y, &unit) && unit == PNG_RESOLUTION_METER) {
        PutLE32(h + 24, DotsPerInch(x));
        PutLE32(h + 28, DotsPerInch(y));
    }
    if (transparent >= 0)
        PutLE32(h + 32, (uint32_t)transparent | DIB_TRANSPARENT_FLAG);
    return 0;
}

/* One row of the image (its padding left as it is) from a row libpng gave. */
void BuildRow(const PngReader &r, const uint8_t *in, uint8_t *out)
{
    uint32_t w = r.width;
    switch (r.layout) {
    case RowLayout::Copy:
        if (in != out)
            memcpy(out, in, r.pngRowBytes);
        if (r.invert)
            for (uint32_t i = 0; i < (w + 7) / 8; i++)
                out[i] = (uint8_t)~out[i];
        break;
    case RowLayout::Nibbles:
        for (uint32_t x = 0; x + 1 < w; x += 2)
            out[x / 2] = (uint8_t)(in[x] << 4 | in[x + 1]);
        if (w & 1)
            out[w / 2] = (uint8_t)(in[w - 1] << 4);
        break;
    case RowLayout::GreyAlpha:
        for (uint32_t x = 0; x < w; x++)
            out[x] = Over(in[2 * x], in[2 * x + 1], r.background[0]);
        break;
    case RowLayout::Rgba:
        for (uint32_t x = 0; x < w; x++, in += 4, out += 3) {
            out[0] = Over(in[0], in[3], r.background[0]);
            out[1] = Over(in[1], in[3], r.background[1]);
            out[2] = Over(in[2], in[3], r.background[2]);
        }
        break;
    }
}

/* The bytes of a row BuildRow writes; the rest of the stride is padding. */
size_t BuiltBytes(const PngReader &r)
{
    switch (r.layout) {
    case RowLayout::Copy:
        return r.pngRowBytes;
    case RowLayout::Nibbles:
        return ((size_t)r.width + 1) / 2;
    case RowLayout::GreyAlpha:
        return r.width;
    default:
        return (size_t)r.width * 3;
    }
}

/* Where row y is built: in the image itself when the row sink offers its
 * place, else in r.row.  In place, the row's last built byte and its
 * padding are cleared first: libpng keeps the bits past a row's last pixel
 * as it finds them, and BuildRow leaves the padding alone. */
uint8_t *RowBuffer(const PngReader &r, ImgRowSink rowSink, void *sinkContext, uint32_t y)
{
    uint8_t *target = ImgRowTarget(rowSink, sinkContext, (int)y, (int)r.stride);
    if (!target)
        return r.row;
    size_t built = BuiltBytes(r);
    memset(target + built - 1, 0, r.stride - built + 1);
    return target;
}

/* The rows, top first: read one at a time, or, interlaced, all at once and
 * then handed over.  Copied rows go straight into the row they are built
 * in. */
int ReadRows(PngReader &r, ImgRowSink rowSink, void *sinkContext)
{
    bool interlaced = png_get_interlace_type(r.png, r.info) != PNG_INTERLACE_NONE;
    uint64_t bufferBytes = r.pngRowBytes;
    if (interlaced && !CheckedBlockSize(r.pngRowBytes, r.height, kMaxPixelBytes, &bufferBytes))
        return IMG_ERR_MEMORY;
    bool direct = !interlaced && r.layout == RowLayout::Copy;
    r.row = static_cast<uint8_t *>(ImgAlloc(r.stride));
    r.pngRows = direct ? nullptr : static_cast<uint8_t *>(ImgAlloc(bufferBytes));
    if (!r.row || (!direct && !r.pngRows))
        return IMG_ERR_MEMORY;
    memset(r.row, 0, r.stride);
    if (interlaced) {
        r.rowPointers = static_cast<png_bytep *>(ImgAlloc(r.height * sizeof(png_bytep)));
        if (!r.rowPointers)
            return IMG_ERR_MEMORY;
        for (uint32_t y = 0; y < r.height; y++)
            r.rowPointers[y] = r.pngRows + (size_t)y * r.pngRowBytes;
        png_read_image(r.png, r.rowPointers);
    }
    for (uint32_t y = 0; y < r.height; y++) {
        uint8_t *out = RowBuffer(r, rowSink, sinkContext, y);
        uint8_t *in = direct ? out : interlaced ? r.rowPointers[y] : r.pngRows;
        if (!interlaced)
            png_read_row(r.png, in, nullptr);
        BuildRow(r, in, out);
        int result = rowSink(out, sinkContext, (int)y, (int)r.stride);
        if (result < 0)
            return result;
    }
    return 0;
}

/* Runs libpng over the image: every jump back from its errors lands here. */
int Decode(PngReader &r, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink)
{
    if (setjmp(png_jmpbuf(r.png)))
        return r.io.error ? r.io.error : IMG_ERR_INVALID;
    png_set_read_fn(r.png, nullptr, ReadBytes);
    /* libpng keeps IHDR, PLTE, tRNS, IDAT and IEND, and pHYs by this list;
     * every other chunk (text, ICC profiles, gamma) is skipped undecoded. */
    static const png_byte kPhys[] = "pHYs";
    png_set_keep_unknown_chunks(r.png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
    png_set_keep_unknown_chunks(r.png, PNG_HANDLE_CHUNK_AS_DEFAULT, kPhys, 1);
    int result = ReadHeader(r);
    if (result < 0)
        return result;
    result = headerSink(r.block, sinkContext);
    if (result < 0)
        return result;
    return ReadRows(r, rowSink, sinkContext);
}

/* ---- writing ---- */

struct PngWriter {
    PngIo io;
    png_structp png;
    png_infop info;
    uint8_t *row;
};

/* Whether the image's palette is the grey ramp of its depth (black, white
 * at 1 bit; 17 apart at 4; each level at 8). */
bool IsGreyRamp(const uint8_t *header, int bits)
{
    uint32_t levels = 1u << bits;
    for (uint32_t i = 0; i < levels; i++) {
        const uint8_t *entry = header + DIB_HEADER_SIZE + 4 * i;
        uint32_t v = i * 255 / (levels - 1);
        if (entry[0] != v || entry[1] != v || entry[2] != v)
            return false;
    }
    return true;
}

/* The chunks before the rows: IHDR, PLTE, tRNS of the transparent colour,
 * pHYs of the resolution. */
void WriteInfo(PngWriter &w, const uint8_t *header, uint32_t width, uint32_t height, int bits)
{
    bool grey = bits < 24 && IsGreyRamp(header, bits);
    int colourType = bits == 24 ? PNG_COLOR_TYPE_RGB : grey ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_PALETTE;
    png_set_IHDR(w.png, w.info, width, height, bits == 24 ? 8 : bits, colourType, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    int entries = bits < 24 ? 1 << bits : 0;
    if (colourType == PNG_COLOR_TYPE_PALETTE) {
        png_color colours[256];
        for (int i = 0; i < entries; i++) {
            const uint8_t *entry = header + DIB_HEADER_SIZE + 4 * i;
            colours[i] = {entry[2], entry[1], entry[0]};
        }
        png_set_PLTE(w.png, w.info, colours, entries);
    }
    uint32_t clrUsed = GetLE32(header + 32);
    int transparent = (int)(clrUsed & 0xFF);
    if ((clrUsed & DIB_TRANSPARENT_FLAG) && bits < 24 && transparent < entries) {
        png_byte alpha[256];
        memset(alpha, 255, sizeof alpha);
        alpha[transparent] = 0;
        png_color_16 level = {};
        level.gray = (png_uint_16)transparent; /* a grey image's index is its level */
        if (grey)
            png_set_tRNS(w.png, w.info, nullptr, 0, &level);
        else
            png_set_tRNS(w.png, w.info, alpha, transparent + 1, nullptr);
    }
    int32_t dpiX = (int32_t)GetLE32(header + 24), dpiY = (int32_t)GetLE32(header + 28);
    if (dpiX > 0 && dpiY > 0) /* dots per inch to pixels per metre, rounded */
        png_set_pHYs(w.png, w.info, (png_uint_32)(((uint64_t)dpiX * 10000 + 127) / 254),
                     (png_uint_32)(((uint64_t)dpiY * 10000 + 127) / 254), PNG_RESOLUTION_METER);
    png_set_compression_level(w.png, PngLevelOfQuality(ImgCompressionQuality()));
    png_write_info(w.png, w.info);
}

/* Runs libpng over the rows: every jump back from its errors lands here. */
int Encode(PngWriter &w, const uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    if (setjmp(png_jmpbuf(w.png)))
        return w.io.error ? w.io.error : IMG_ERR_INVALID;
    uint32_t width = GetLE32(header + 4), height = GetLE32(header + 8);
    int bits = GetLE16(header + 14);
    uint32_t stride = (uint32_t)DibStride(width, bits);
    png_set_write_fn(w.png, nullptr, WriteBytes, FlushNothing);
    png_set_user_limits(w.png, 0x7FFFFFFF, 0x7FFFFFFF);
    WriteInfo(w, header, width, height, bits);
    if (bits == 24)
        png_set_bgr(w.png);
    for (uint32_t y = 0; y < height; y++) {
        int result = rowSource(sourceContext, w.row, (int)y, (int)stride);
        if (result < 0)
            return result;
        png_write_row(w.png, w.row);
    }
    png_write_end(w.png, nullptr);
    return 0;
}

} // namespace

int PngRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    if (start & IMG_PAGE_FLAG)
        return IMG_ERR_PAGE; /* a PNG holds one image */
    PngReader r = {};
    r.io.handle = handle;
    r.background[0] = (uint8_t)alphaBackground;
    r.background[1] = (uint8_t)(alphaBackground >> 8);
    r.background[2] = (uint8_t)(alphaBackground >> 16);
    r.block = static_cast<uint8_t *>(ImgAlloc(IMG_HEADER_BLOCK_SIZE));
    r.png = png_create_read_struct_2(PNG_LIBPNG_VER_STRING, &r.io, OnError, OnWarning, &r.io, Allocate,
                                     Release);
    r.info = r.png ? png_create_info_struct(r.png) : nullptr;
    int result = IMG_ERR_MEMORY;
    if (r.block && r.info) {
        memset(r.block, 0, IMG_HEADER_BLOCK_SIZE);
        ImgSeek(handle, (int32_t)start, 0);
        ImgReadAheadBegin(handle); /* libpng reads a few bytes at a time */
        result = Decode(r, rowSink, sinkContext, headerSink);
        ImgReadAheadEnd();
    }
    png_destroy_read_struct(&r.png, &r.info, nullptr);
    ImgFree(r.rowPointers);
    ImgFree(r.pngRows);
    ImgFree(r.row);
    ImgFree(r.block);
    return result;
}

int PngWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    int bits = GetLE16(header + 14);
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24)
        return IMG_ERR_DEPTH;
    if (width < 1 || height < 1)
        return IMG_ERR_TYPE;
    PngWriter w = {};
    w.io.handle = handle;
    w.row = static_cast<uint8_t *>(ImgAlloc(DibStride((uint32_t)width, bits)));
    w.png = png_create_write_struct_2(PNG_LIBPNG_VER_STRING, &w.io, OnError, OnWarning, &w.io, Allocate,
                                      Release);
    w.info = w.png ? png_create_info_struct(w.png) : nullptr;
    int result = w.row && w.info ? Encode(w, header, rowSource, sourceContext) : IMG_ERR_MEMORY;
    png_destroy_write_struct(&w.png, &w.info);
    ImgFree(w.row);
    return result;
}

int PngLevelOfQuality(int32_t quality)
{
    quality = quality < 1 ? 1 : quality > 100 ? 100 : quality;
    return (quality - 1) / 11;
}

uint32_t PngSetAlphaBackground(uint32_t colour)
{
    uint32_t previous = alphaBackground;
    alphaBackground = colour & kWhite;
    return previous;
}

/* ---- the format descriptor ---- */

namespace {

bool ProbePng(ImgDetectBytes &s)
{
    return memcmp(s.b + 1, "PNG", 3) == 0;
}

constexpr ImgTypeEntry kPngTypes[] = {{IMG_TYPE_PNG, "PNG", PngWrite}};

} // namespace

const ImgFormat kPngFormat = {"png", "png", 43, ProbePng, nullptr, PngRead, nullptr, false, kPngTypes};
