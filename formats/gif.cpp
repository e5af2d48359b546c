/*
 * gif.cpp - GIF: the reader (file type 4), the writers (save types 4 and 44)
 * and the image count, over the LZW codec of codecs/lzw_gif; and the
 * subtype query of detection.
 *
 * Reading: the header and the blocks are walked through a small read
 * buffer (the search for the image separator may look at every byte); the
 * image data is then decoded from the handle by the codec, each row packed
 * to the image's depth and handed on, an interlaced row to its place.
 * FindFirstImage says how the first image of a file is found; further
 * images (pages) follow block by block.
 *
 * Hostile files are handled as listed under "GIF" in docs/DEVIATIONS.md.
 */
#include "formats/gif.h"

#include <string.h>

#include "codecs/lzw_gif.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint32_t kHeaderBytes = GIF_SIGNATURE_SIZE + GIF_SCREEN_SIZE; /* 13 */
constexpr uint32_t kTableBytes = 768;   /* 256 colours of red, green, blue */
constexpr uint32_t kControlBytes = 5;   /* block size, flags, delay (2), transparent index */
constexpr uint32_t kReadBuffer = 4096;
constexpr int32_t kLargestSize = 65535; /* the writer's 16-bit fields */

/* Bytes of the colour table that the size bits of a flags byte give. */
constexpr uint32_t TableBytes(uint32_t flags) { return 3u << ((flags & 7) + 1); }

/* Row `k` of the interlaced order of `height` rows: every 8th row from 0,
 * every 8th from 4, every 4th from 2, every 2nd from 1. */
uint32_t InterlacedRow(uint32_t k, uint32_t height)
{
    uint32_t pass = (height + 7) / 8; /* rows 0, 8, 16, ... */
    if (k < pass)
        return k * 8;
    k -= pass;
    pass = (height + 3) / 8; /* rows 4, 12, ... */
    if (k < pass)
        return 4 + k * 8;
    k -= pass;
    pass = (height + 1) / 4; /* rows 2, 6, ... */
    if (k < pass)
        return 2 + k * 4;
    return 1 + (k - pass) * 2;
}

/* ---- walking the blocks ---- */

/* Reads from the handle through a buffer, keeping the source offset of the
 * next byte; reads stop where the data ends. */
class GifBytes {
  public:
    GifBytes(int handle, uint64_t start) : handle_(handle), start_(start) {}

    /* The next byte, or -1 at the end of the data. */
    int Byte()
    {
        if (position_ == length_ && !Fill())
            return -1;
        return buffer_[position_++];
    }

    /* False when the data ends before `count` bytes. */
    bool Read(uint8_t *out, uint32_t count)
    {
        while (count > 0) {
            if (position_ == length_ && !Fill())
                return false;
            uint32_t n = length_ - position_ < count ? length_ - position_ : count;
            memcpy(out, buffer_ + position_, n);
            position_ += n;
            out += n;
            count -= n;
        }
        return true;
    }

    void Skip(uint32_t count)
    {
        if (count <= length_ - position_) {
            position_ += count;
            return;
        }
        start_ += position_ + count;
        position_ = length_ = 0;
    }

    /* Skips a chain of data sub-blocks up to its 0 size byte: false when the
     * data ends first. */
    bool SkipSubBlocks()
    {
        for (;;) {
            int size = Byte();
            if (size <= 0)
                return size == 0;
            Skip((uint32_t)size);
        }
    }

    uint64_t Position() const { return start_ + position_; }

  private:
    bool Fill()
    {
        start_ += length_;
        position_ = length_ = 0;
        if (start_ > INT32_MAX)
            return false; /* beyond what a seek reaches */
        ImgSeek(handle_, (int32_t)start_, 0);
        int32_t got = ImgReadSome(handle_, buffer_, kReadBuffer);
        if (got <= 0)
            return false;
        length_ = (uint32_t)got < kReadBuffer ? (uint32_t)got : kReadBuffer;
        return true;
    }

    int handle_;
    uint64_t start_; /* the source offset of buffer_[0] */
    uint32_t position_ = 0, length_ = 0;
    uint8_t buffer_[kReadBuffer];
};

struct GifScreen {
    bool version89; /* "89" at bytes 3 and 4: graphic control extensions are read */
    uint8_t flags;
    uint8_t colours[kTableBytes]; /* the global table, else the image's own */
};

struct GifImage {
    uint8_t descriptor[GIF_DESCRIPTOR_SIZE]; /* left, top, width, height, flags */
    bool transparent;
    uint8_t transparentIndex;
};

/* The header and the global colour table: -12 when either is cut short. */
int ReadScreen(GifBytes &in, GifScreen &screen)
{
    uint8_t header[kHeaderBytes];
    if (!in.Read(header, kHeaderBytes))
        return IMG_ERR_READ;
    screen.version89 = header[3] == '8' && header[4] == '9';
    screen.flags = header[GIF_SIGNATURE_SIZE + 4];
    memset(screen.colours, 0, sizeof screen.colours);
    if ((screen.flags & GIF_COLOR_TABLE) && !in.Read(screen.colours, TableBytes(screen.flags)))
        return IMG_ERR_READ;
    return 0;
}

/* An extension after its 0x21: a graphic control extension (when `control`
 * is set) gives the image's transparency; the sub-blocks are skipped.  -3
 * when the data ends first. */
int ReadExtension(GifBytes &in, bool control, GifImage &image)
{
    int label = in.Byte();
    if (label < 0)
        return IMG_ERR_INVALID;
    if (control && label == GIF_CONTROL_LABEL) {
        uint8_t fields[kControlBytes];
        if (!in.Read(fields, kControlBytes))
            return IMG_ERR_INVALID;
        image.transparent = fields[1] & 1;
        image.transparentIndex = fields[4];
    }
    return in.SkipSubBlocks() ? 0 : IMG_ERR_INVALID;
}

int ReadDescriptor(GifBytes &in, GifImage &image)
{
    return in.Read(image.descriptor, GIF_DESCRIPTOR_SIZE) ? 0 : IMG_ERR_READ;
}

/* The first image.  In a GIF89a whose first block is an extension,
 * extensions are read while 0x21 starts the next block, and the byte after
 * them is taken as the image separator, whatever it is.  Otherwise the
 * bytes are searched for the first 0x2C.  -3 when the data ends first, -12
 * when the descriptor is cut short. */
int FindFirstImage(GifBytes &in, const GifScreen &screen, GifImage &image)
{
    image.transparent = false;
    image.transparentIndex = 0;
    int b = in.Byte();
    if (screen.version89 && b == GIF_EXTENSION) {
        do {
            int result = ReadExtension(in, true, image);
            if (result < 0)
                return result;
            b = in.Byte();
        } while (b == GIF_EXTENSION);
    } else {
        while (b >= 0 && b != GIF_IMAGE)
            b = in.Byte();
    }
    if (b < 0)
        return IMG_ERR_INVALID;
    return ReadDescriptor(in, image);
}

/* Skips the image whose descriptor was just read: its local colour table,
 * code size byte and data. */
void SkipImage(GifBytes &in, const GifImage &image)
{
    uint8_t flags = image.descriptor[8];
    if (flags & GIF_COLOR_TABLE)
        in.Skip(TableBytes(flags));
    in.Skip(1);
    in.SkipSubBlocks();
}

/* The image after the one skipped.  Extensions are skipped (a graphic
 * control extension read in a GIF89a); the trailer or the end of the data
 * give -11, any other block -3. */
int FindNextImage(GifBytes &in, const GifScreen &screen, GifImage &image)
{
    image.transparent = false;
    image.transparentIndex = 0;
    for (;;) {
        int b = in.Byte();
        if (b == GIF_IMAGE)
            return ReadDescriptor(in, image);
        if (b < 0 || b == GIF_TRAILER)
            return IMG_ERR_PAGE;
        if (b != GIF_EXTENSION)
            return IMG_ERR_INVALID;
        int result = ReadExtension(in, screen.version89, image);
        if (result < 0)
            return result;
    }
}

/* ---- reading the image ---- */

/* Where decoded rows go: packed to the image's depth, to their row. */
struct RowTarget {
    ImgRowSink sink;
    void *context;
    uint32_t width, height, stride;
    int bits;
    bool interlaced;
    uint8_t *row; /* stride bytes, zero beyond the pixels */
};

int DeliverRow(const uint8_t *pixels, uint32_t k, void *context)
{
    const RowTarget &t = *static_cast<const RowTarget *>(context);
    uint32_t y = t.interlaced ? InterlacedRow(k, t.height) : k;
    const uint8_t *row = pixels;
    if (t.bits == 4) {
        uint32_t x = 0;
        for (; x + 1 < t.width; x += 2)
            t.row[x / 2] = (uint8_t)((pixels[x] & 15) << 4 | (pixels[x + 1] & 15));
        if (x < t.width)
            t.row[x / 2] = (uint8_t)((pixels[x] & 15) << 4);
        row = t.row;
    } else if (t.stride != t.width) {
        memcpy(t.row, pixels, t.width);
        row = t.row;
    }
    int result = t.sink(row, t.context, (int)y, (int)t.stride);
    return result < 0 ? result : 0;
}

/* The 40-byte header and the palette of 2^bits entries from the table. */
void BuildHeader(uint8_t *block, int32_t width, int32_t height, int bits, uint32_t stride,
                 const GifImage &image, const uint8_t *colours)
{
    memset(block, 0, IMG_HEADER_BLOCK_SIZE);
    PutLE32(block, DIB_HEADER_SIZE);
    PutLE32(block + 4, (uint32_t)width);
    PutLE32(block + 8, (uint32_t)height);
    PutLE16(block + 12, 1);
    PutLE16(block + 14, (uint16_t)bits);
    PutLE32(block + 20, stride * (uint32_t)height);
    if (image.transparent)
        PutLE32(block + 32, image.transparentIndex | DIB_TRANSPARENT_FLAG);
    uint8_t *entry = block + DIB_HEADER_SIZE;
    for (uint32_t i = 0; i < (1u << bits); i++, entry += 4) {
        entry[0] = colours[3 * i + 2];
        entry[1] = colours[3 * i + 1];
        entry[2] = colours[3 * i];
    }
}

/* The image whose descriptor was just read: its colour table, header and
 * rows. */
int ReadImage(GifBytes &in, GifScreen &screen, const GifImage &image, ImgRowSink rowSink,
              void *sinkContext, ImgHeaderSink headerSink, int handle)
{
    const uint8_t *d = image.descriptor;
    int32_t width = (int16_t)GetLE16(d + 4), height = (int16_t)GetLE16(d + 6);
    if (width < 1 || height < 1)
        return IMG_ERR_INVALID;
    uint8_t flags = d[8];
    /* With a global table, its size bits are ORed into the image's and it
     * is the one used: a local table is skipped. */
    bool global = screen.flags & GIF_COLOR_TABLE;
    uint32_t sizeBits = (flags | (global ? screen.flags : 0)) & 7;
    if (flags & GIF_COLOR_TABLE) {
        if (global)
            in.Skip(TableBytes(flags));
        else if (!in.Read(screen.colours, TableBytes(flags)))
            return IMG_ERR_READ;
    }
    int codeSize = in.Byte();
    if (codeSize < 0)
        return IMG_ERR_READ;
    if (codeSize == 0 || codeSize > 8)
        codeSize = (int)sizeBits + 1;
    /* Two colours stay colours in an 8-bit image: 1-bit images are black
     * and white. */
    uint32_t colours = 2u << sizeBits;
    int bits = colours == 2 || colours > 16 ? 8 : 4;
    uint32_t stride = (uint32_t)DibStride((uint32_t)width, bits);

    ImgBuffer block(IMG_HEADER_BLOCK_SIZE);
    if (!block)
        return IMG_ERR_MEMORY;
    BuildHeader(block.get(), width, height, bits, stride, image, screen.colours);
    int result = headerSink(block.get(), sinkContext);
    if (result < 0)
        return result;
    block.reset();
    ImgBuffer row(stride);
    if (!row)
        return IMG_ERR_MEMORY;
    memset(row.get(), 0, stride);
    uint64_t dataAt = in.Position();
    if (dataAt > INT32_MAX)
        return IMG_ERR_INVALID;
    ImgSeek(handle, (int32_t)dataAt, 0);
    /* An interlaced image of fewer than 8 rows comes in file order. */
    RowTarget target = {rowSink, sinkContext, (uint32_t)width, (uint32_t)height, stride, bits,
                        (flags & GIF_INTERLACED) && height >= 8, row.get()};
    return GifLzwDecode(handle, codeSize, (uint32_t)width, (uint32_t)height, DeliverRow, &target);
}

/* ---- writing ---- */

/* Where the encoder's rows come from: the row source's packed rows, in
 * interlaced order when asked, one byte a pixel. */
struct RowFetch {
    ImgRowSource source;
    void *context;
    uint32_t width, height, stride;
    int bits;
    bool interlaced;
    uint8_t *packed; /* stride bytes */
};

int FetchRow(uint8_t *pixels, uint32_t i, void *context)
{
    const RowFetch &f = *static_cast<const RowFetch *>(context);
    uint32_t y = f.interlaced ? InterlacedRow(i, f.height) : i;
    int result = f.source(f.context, f.packed, (int)y, (int)f.stride);
    if (result < 0)
        return result;
    if (f.bits == 8) {
        memcpy(pixels, f.packed, f.width);
        return 0;
    }
    for (uint32_t x = 0; x < f.width; x++)
        pixels[x] = (uint8_t)(x & 1 ? f.packed[x / 2] & 15 : f.packed[x / 2] >> 4);
    return 0;
}

/* Signature, screen, global table, the graphic control extension of a
 * transparent colour, and the image descriptor with the code size: their
 * length. */
uint32_t PutFileHead(const uint8_t *header, uint32_t width, uint32_t height, int bits,
                     bool interlaced, uint8_t *out)
{
    uint32_t clrUsed = GetLE32(header + 32);
    bool transparent = clrUsed & DIB_TRANSPARENT_FLAG;
    uint8_t *p = out;
    memcpy(p, transparent ? "GIF89a" : "GIF87a", GIF_SIGNATURE_SIZE);
    p += GIF_SIGNATURE_SIZE;
    PutLE16(p, (uint16_t)width), PutLE16(p + 2, (uint16_t)height);
    p[4] = (uint8_t)(GIF_COLOR_TABLE | (bits - 1));
    p[5] = p[6] = 0; /* background, aspect */
    p += GIF_SCREEN_SIZE;
    for (uint32_t i = 0; i < (1u << bits); i++, p += 3) {
        const uint8_t *entry = header + DIB_HEADER_SIZE + 4 * i;
        p[0] = entry[2], p[1] = entry[1], p[2] = entry[0];
    }
    if (transparent) {
        const uint8_t control[] = {GIF_EXTENSION, GIF_CONTROL_LABEL, 4, 1, 0, 0, (uint8_t)clrUsed, 0};
        memcpy(p, control, sizeof control);
        p += sizeof control;
    }
    *p++ = GIF_IMAGE;
    memset(p, 0, 4); /* left, top */
    PutLE16(p + 4, (uint16_t)width), PutLE16(p + 6, (uint16_t)height);
    p[8] = (uint8_t)((bits - 1) | (interlaced ? GIF_INTERLACED : 0));
    p[9] = (uint8_t)bits; /* the minimum code size */
    return (uint32_t)(p + 10 - out);
}

int WriteGif(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext, bool interlaced)
{
    int bits = GetLE16(header + 14);
    if (bits != 4 && bits != 8)
        return IMG_ERR_DEPTH;
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (width < 1 || width > kLargestSize || height < 1 || height > kLargestSize)
        return IMG_ERR_TYPE;
    uint8_t head[kHeaderBytes + kTableBytes + 8 + 1 + GIF_DESCRIPTOR_SIZE + 1];
    uint32_t headBytes = PutFileHead(header, (uint32_t)width, (uint32_t)height, bits, interlaced, head);
    if (ImgWrite(handle, head, headBytes) != (int32_t)headBytes)
        return IMG_ERR_WRITE;
    uint32_t stride = (uint32_t)DibStride((uint32_t)width, bits);
    ImgBuffer packed(stride);
    if (!packed)
        return IMG_ERR_MEMORY;
    RowFetch fetch = {rowSource, sourceContext, (uint32_t)width, (uint32_t)height, stride, bits,
                      interlaced, packed.get()};
    int result = GifLzwEncode(handle, bits, (uint32_t)width, (uint32_t)height, FetchRow, &fetch);
    if (result < 0)
        return result;
    const uint8_t trailer = GIF_TRAILER;
    return ImgWrite(handle, &trailer, 1) == 1 ? 0 : IMG_ERR_WRITE;
}

} // namespace

int GifRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    uint32_t page = 0;
    uint64_t base = start;
    if (start & IMG_PAGE_FLAG) {
        page = start & 0xFFFF;
        base = ImgPosition(handle);
    }
    GifBytes in(handle, base);
    GifScreen screen;
    GifImage image;
    int result = ReadScreen(in, screen);
    if (result >= 0)
        result = FindFirstImage(in, screen, image);
    for (uint32_t k = 0; k < page && result >= 0; k++) {
        SkipImage(in, image);
        result = FindNextImage(in, screen, image);
    }
    if (result < 0)
        return result;
    return ReadImage(in, screen, image, rowSink, sinkContext, headerSink, handle);
}

int GifCountImages(int handle)
{
    GifBytes in(handle, ImgPosition(handle));
    GifScreen screen;
    GifImage image;
    int result = ReadScreen(in, screen);
    if (result >= 0)
        result = FindFirstImage(in, screen, image);
    if (result < 0)
        return result;
    int count = 1;
    for (;;) {
        SkipImage(in, image);
        if (FindNextImage(in, screen, image) < 0)
            return count;
        count++;
    }
}

int GifWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteGif(handle, header, rowSource, sourceContext, false);
}

int GifWriteInterlaced(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteGif(handle, header, rowSource, sourceContext, true);
}

/* ---- the subtype query ----
 * Every walk over the data ends (docs/DEVIATIONS.md, format detection):
 * each step reads at least one byte into a zeroed buffer, so at the end of a
 * file the read comes back short, and past the end of the memory image
 * (which claims success without copying) the byte reads as 0, which ends a
 * sub-block chain and is no block introducer. */

/* Reads count bytes into a zeroed buffer: the read's result. */
static int32_t ReadZeroed(int handle, uint8_t *buffer, uint32_t count)
{
    memset(buffer, 0, count);
    return ImgRead(handle, buffer, count);
}

/* Skips a chain of data sub-blocks up to and including its 0 terminator.
 * 0, or -3 when the data ends first. */
static int SkipSubBlocks(int handle)
{
    for (;;) {
        uint8_t size;
        int32_t got = ReadZeroed(handle, &size, 1);
        if (got < 0)
            return got;
        if (got < 1)
            return IMG_ERR_INVALID;
        if (size == 0)
            return 0;
        ImgSeek(handle, size, 1);
    }
}

int GifSubtype(int handle)
{
    uint8_t header[GIF_SIGNATURE_SIZE + GIF_SCREEN_SIZE];
    int32_t got = ReadZeroed(handle, header, sizeof header);
    if (got < 0)
        return got;
    if (got < (int32_t)sizeof header)
        return IMG_ERR_READ;
    uint8_t screenFlags = header[GIF_SIGNATURE_SIZE + 4];
    if (screenFlags & GIF_COLOR_TABLE)
        ImgSeek(handle, 3 << ((screenFlags & 7) + 1), 1);
    for (;;) {
        uint8_t introducer;
        got = ReadZeroed(handle, &introducer, 1);
        if (got < 0)
            return got;
        if (got < 1)
            return IMG_ERR_INVALID;
        if (introducer == GIF_IMAGE) {
            uint8_t descriptor[GIF_DESCRIPTOR_SIZE];
            got = ReadZeroed(handle, descriptor, sizeof descriptor);
            if (got < 0)
                return got;
            if (got < (int32_t)sizeof descriptor)
                return IMG_ERR_READ;
            return (descriptor[8] & GIF_INTERLACED) ? IMG_TYPE_GIF_INTERLACED : IMG_TYPE_GIF;
        }
        if (introducer != GIF_EXTENSION)
            return IMG_ERR_INVALID; /* the trailer 0x3B, or anything else */
        uint8_t label;
        got = ReadZeroed(handle, &label, 1);
        if (got < 0)
            return got;
        int result = got < 1 ? IMG_ERR_INVALID : SkipSubBlocks(handle);
        if (result < 0)
            return result;
    }
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeGif(ImgDetectBytes &s)
{
    return memcmp(s.b, "GIF", 3) == 0;
}

int RefineGif(int handle, uint32_t start)
{
    (void)start;
    return GifSubtype(handle);
}

constexpr ImgTypeEntry kGifTypes[] = {
    {IMG_TYPE_GIF, "GIF", GifWrite},
    {IMG_TYPE_GIF_INTERLACED, "GIF, interlaced", GifWriteInterlaced},
};

} // namespace

const ImgFormat kGifFormat = {"gif",   "gif",          4,     ProbeGif, RefineGif,
                              GifRead, GifCountImages, false, kGifTypes};
