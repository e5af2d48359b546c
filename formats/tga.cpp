/*
 * tga.cpp - Targa.
 *
 * The reader takes the 18-byte header, the optional ID and colour map, then
 * the pixel rows: uncompressed rows many to a block read, run-length rows
 * decoded packet by packet from a block that is refilled as it drains.
 * 8-bit files give 8-bit images (colour map or grey ramp); 16-, 24- and
 * 32-bit files give 24-bit images (5-5-5 widened, alpha dropped).  The
 * writers store uncompressed rows bottom row first.
 *
 * Bad input is handled as listed under "Targa" in docs/DEVIATIONS.md; each
 * such place carries a "hardening" comment.
 */
#include "formats/tga.h"

#include <string.h>

#include "codecs/jpeg.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint32_t kHeaderBytes = 18;
constexpr uint32_t kBlock = IMG_CHUNK_SIZE;
constexpr uint8_t kTopFirst = 0x20;      /* descriptor bit: the first row is the top row */
constexpr uint8_t kTypeJpeg = 156;       /* a JPEG stream follows the header */
constexpr uint32_t kMaxPacketPixels = 128;
constexpr uint32_t kRowSlack = 1000;     /* run-length row buffer beyond the row */
/* Hardening: the largest pixel block a header may declare (stride * height). */
constexpr uint64_t kMaxPixelBytes = 0x7FFFFFFFull;
constexpr uint32_t kMaxField = 0xFFFF;   /* width and height are 16-bit fields */

/* Tracked blocks of one reader call, freed on every path. */
class TrackedBlocks {
  public:
    TrackedBlocks() = default;
    TrackedBlocks(const TrackedBlocks &) = delete;
    TrackedBlocks &operator=(const TrackedBlocks &) = delete;
    ~TrackedBlocks()
    {
        for (int i = count_ - 1; i >= 0; i--)
            ImgFreeTracked(blocks_[i]);
    }
    /* A zeroed block (no uninitialised byte ever reaches a sink), or nullptr. */
    uint8_t *Alloc(uint64_t size)
    {
        if (count_ == kSlots || size > 0xFFFFFFFFull)
            return nullptr;
        uint8_t *p = static_cast<uint8_t *>(ImgAllocTracked((size_t)size));
        if (p) {
            memset(p, 0, (size_t)size);
            blocks_[count_++] = p;
        }
        return p;
    }

  private:
    static constexpr int kSlots = 4;
    uint8_t *blocks_[kSlots] = {};
    int count_ = 0;
};

/* One read of `count` bytes: true when all of them came.  A read is never
 * repeated after a short one: past its end the memory image claims every
 * byte without copying any. */
bool ReadExact(int handle, uint8_t *buffer, uint32_t count)
{
    return count == 0 || ImgRead(handle, buffer, count) == (int32_t)count;
}

/* Skips `count` bytes by reading them through `scratch` (kBlock bytes).
 * False when the data ends first. */
bool Skip(int handle, uint8_t *scratch, uint32_t count)
{
    while (count > 0) {
        uint32_t n = count < kBlock ? count : kBlock;
        if (!ReadExact(handle, scratch, n))
            return false;
        count -= n;
    }
    return true;
}

/* 5-5-5 to blue, green, red; the low three bits of each stay 0. */
inline void Widen555(uint32_t v, uint8_t *dst)
{
    dst[0] = (uint8_t)(v * 8);
    dst[1] = (uint8_t)((v >> 2) & 0xF8);
    dst[2] = (uint8_t)((v >> 7) & 0xF8);
}

/* The colour map into the palette (4 bytes an entry, blue, green, red,
 * reserved).  `map` holds the first bytes of the map read from the file,
 * zero beyond them; at most 256 entries are kept. */
void FillPalette(uint8_t *palette, const uint8_t *map, uint32_t length, uint8_t entryBits)
{
    uint32_t kept = length < 256 ? length : 256;
    for (uint32_t i = 0; i < kept; i++) {
        uint8_t *p = palette + 4 * i;
        switch (entryBits) {
        case 24:
            memcpy(p, map + 3 * i, 3);
            break;
        case 32:
            memcpy(p, map + 4 * i, 4); /* the alpha goes into the reserved byte */
            break;
        case 15: /* two bytes an entry were read, taken as triples */
            memcpy(p, map + 3 * i, 3);
            break;
        default:
            Widen555(GetLE16(map + 2 * i), p);
            break;
        }
    }
}

/* One source row of `width` pixels of `bpp` bytes into an image row. */
void ConvertRow(const uint8_t *src, uint8_t *dst, uint32_t width, uint32_t bpp)
{
    switch (bpp) {
    case 1:
        memcpy(dst, src, width);
        break;
    case 2:
        for (uint32_t x = 0; x < width; x++, src += 2, dst += 3)
            Widen555((uint32_t)src[0] | (uint32_t)src[1] << 8, dst);
        break;
    case 3:
        memcpy(dst, src, (size_t)width * 3);
        break;
    default: /* 4: the alpha byte is dropped */
        for (uint32_t x = 0; x < width; x++, src += 4, dst += 3) {
            dst[0] = src[0];
            dst[1] = src[1];
            dst[2] = src[2];
        }
        break;
    }
}

/* Everything the row loops need. */
struct TgaReadState {
    int handle;
    ImgRowSink rowSink;
    void *sinkContext;
    uint32_t width, height, bpp, rowBytes, stride;
    bool topFirst;
    uint8_t *block;    /* blockSize bytes and more */
    uint32_t blockSize;
    uint8_t *out;      /* the image row: stride bytes, padding zero */
};

int Deliver(const TgaReadState &s, const uint8_t *src, uint32_t y)
{
    ConvertRow(src, s.out, s.width, s.bpp);
    int32_t index = (int32_t)(s.topFirst ? y : s.height - 1 - y);
    return s.rowSink(s.out, s.sinkContext, index, (int)s.stride);
}

/* Uncompressed rows, as many to a block read as the block holds (at least
 * one: hardening for rows longer than the block). */
int ReadPlainRows(const TgaReadState &s)
{
    uint32_t rowsPerBlock = s.blockSize / s.rowBytes;
    for (uint32_t y = 0; y < s.height;) {
        uint32_t rows = s.height - y < rowsPerBlock ? s.height - y : rowsPerBlock;
        uint32_t bytes = rows * s.rowBytes;
        /* hardening: a short read (data cut off) ends the decode, never
         * delivers stale rows */
        if (!ReadExact(s.handle, s.block, bytes))
            return IMG_ERR_READ;
        for (uint32_t k = 0; k < rows; k++, y++) {
            int result = Deliver(s, s.block + k * s.rowBytes, y);
            if (result < 0)
                return result;
        }
    }
    return 0;
}

/* The input of the run-length decoder: valid bytes [pos, end) of a block
 * of kBlock bytes; ended once a read came back short. */
struct RleInput {
    int handle;
    uint8_t *data;
    uint32_t pos, end;
    bool ended;
};

/* Makes `need` (at most kBlock) bytes available at pos: the unread tail
 * moves to the front and the rest of the block is refilled.  False when the
 * data ends first (hardening: the decoder then gives -12 rather than
 * decoding stale bytes). */
bool Refill(RleInput &in, uint32_t need)
{
    uint32_t tail = in.end - in.pos;
    memmove(in.data, in.data + in.pos, tail);
    in.pos = 0;
    in.end = tail;
    if (!in.ended) {
        int32_t got = ImgRead(in.handle, in.data + tail, kBlock - tail);
        if (got < (int32_t)(kBlock - tail))
            in.ended = true;
        if (got > 0)
            in.end += (uint32_t)got > kBlock - tail ? kBlock - tail : (uint32_t)got;
    }
    return in.end - in.pos >= need;
}

/* Run-length rows.  Packets may cross row ends: pixels decoded beyond the
 * row stay in the row buffer and start the next row. */
int ReadRleRows(const TgaReadState &s, uint8_t *row)
{
    const uint32_t b = s.bpp, rowBytes = s.rowBytes;
    RleInput in = {s.handle, s.block, 0, 0, false};
    uint32_t have = 0; /* bytes decoded into row */
    for (uint32_t y = 0; y < s.height; y++) {
        if (have > rowBytes) { /* the previous row's packet went on */
            memmove(row, row + rowBytes, have - rowBytes);
            have -= rowBytes;
        } else {
            have = 0;
        }
        /* Before each packet have < rowBytes; a packet adds at most
         * 128 * 4 bytes, inside the buffer's rowBytes + 1000. */
        while (have < rowBytes) {
            if (in.pos == in.end && !Refill(in, 1))
                return IMG_ERR_READ;
            uint32_t h = in.data[in.pos];
            uint32_t count = (h & 0x7F) + 1;
            uint8_t *d = row + have;
            if (h & 0x80) { /* run packet: one pixel, count times */
                if (in.end - in.pos < 1 + b && !Refill(in, 1 + b))
                    return IMG_ERR_READ;
                const uint8_t *px = in.data + in.pos + 1;
                switch (b) {
                case 1:
                    memset(d, px[0], count);
                    break;
                case 2:
                    for (uint32_t k = 0; k < count; k++, d += 2)
                        d[0] = px[0], d[1] = px[1];
                    break;
                case 3:
                    for (uint32_t k = 0; k < count; k++, d += 3)
                        d[0] = px[0], d[1] = px[1], d[2] = px[2];
                    break;
                default: {
                    uint32_t v;
                    memcpy(&v, px, 4);
                    for (uint32_t k = 0; k < count; k++, d += 4)
                        memcpy(d, &v, 4);
                    break;
                }
                }
                in.pos += 1 + b;
            } else { /* raw packet: count pixels */
                uint32_t n = count * b;
                if (in.end - in.pos < 1 + n && !Refill(in, 1 + n))
                    return IMG_ERR_READ;
                memcpy(d, in.data + in.pos + 1, n);
                in.pos += 1 + n;
            }
            have += count * b;
        }
        int result = Deliver(s, row, y);
        if (result < 0)
            return result;
    }
    return 0;
}

} // namespace

int TgaRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    /* The header. */
    uint8_t f[kHeaderBytes];
    ImgSeek(handle, (int32_t)start, 0);
    if (!ReadExact(handle, f, kHeaderBytes))
        return IMG_ERR_READ;
    uint32_t idLength = f[0], mapType = f[1], imageType = f[2];
    uint32_t mapLength = GetLE16(f + 5), entryBits = f[7];
    uint32_t width = GetLE16(f + 12), height = GetLE16(f + 14), depth = f[16];
    uint8_t descriptor = f[17];

    /* A JPEG stream right behind the header (ID and colour map not skipped). */
    if (imageType == kTypeJpeg) {
        if ((uint64_t)start + kHeaderBytes >= IMG_PAGE_FLAG)
            return IMG_ERR_INVALID; /* hardening: beyond the 31-bit offsets */
        return JpegRead(start + kHeaderBytes, rowSink, sinkContext, headerSink, handle);
    }

    uint32_t bpp = depth == 8 ? 1 : depth == 16 ? 2 : depth == 24 ? 3 : depth == 32 ? 4 : 0;
    if (bpp == 0)
        return IMG_ERR_INVALID; /* 15 included */
    int bits = depth == 8 ? 8 : 24;
    /* hardening: an empty picture, or one whose pixel block passes 2 GiB */
    uint64_t stride = DibStride(width, bits), pixelBytes;
    if (width == 0 || height == 0 || !CheckedBlockSize(stride, height, kMaxPixelBytes, &pixelBytes))
        return IMG_ERR_INVALID;
    uint32_t rowBytes = width * bpp; /* at most 65535 * 4 */

    TrackedBlocks blocks;
    uint8_t *h = blocks.Alloc(IMG_HEADER_BLOCK_SIZE);
    if (!h)
        return IMG_ERR_MEMORY;
    PutLE32(h + 0, DIB_HEADER_SIZE);
    PutLE32(h + 4, width);
    PutLE32(h + 8, height);
    PutLE16(h + 12, 1);
    PutLE16(h + 14, (uint16_t)bits);
    PutLE32(h + 20, (uint32_t)pixelBytes);

    /* The block: whole rows of uncompressed data (at least one row), or the
     * input of the run-length decoder. */
    bool rle = imageType == 9 || imageType == 10 || imageType == 11;
    uint32_t blockSize = rle || rowBytes <= kBlock ? kBlock : rowBytes;
    uint8_t *block = blocks.Alloc((uint64_t)blockSize + 10);
    if (!block)
        return IMG_ERR_MEMORY;

    uint8_t *palette = h + DIB_HEADER_SIZE;
    if (mapType != 0) {
        /* ID, then the map: 3 bytes an entry at 24 bits, 4 at 32, else 2.
         * Hardening: an ID or map that runs past the data gives -12. */
        uint32_t entryBytes = entryBits == 24 ? 3 : entryBits == 32 ? 4 : 2;
        uint32_t mapBytes = mapLength * entryBytes, kept = mapBytes < 1024 ? mapBytes : 1024;
        uint8_t map[1024] = {};
        if (!Skip(handle, block, idLength) || !ReadExact(handle, map, kept) ||
            !Skip(handle, block, mapBytes - kept))
            return IMG_ERR_READ;
        FillPalette(palette, map, mapLength, (uint8_t)entryBits);
        idLength = 0;
    } else if (bits == 8) {
        for (uint32_t i = 0; i < 256; i++)
            palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = (uint8_t)i;
    }

    int result = headerSink(h, sinkContext);
    if (result < 0)
        return result;
    if (!Skip(handle, block, idLength))
        return IMG_ERR_READ;

    TgaReadState s = {handle, rowSink, sinkContext, width, height, bpp, rowBytes,
                      (uint32_t)stride, (descriptor & kTopFirst) != 0, block, blockSize, nullptr};
    s.out = blocks.Alloc(stride + 150);
    if (!s.out)
        return IMG_ERR_MEMORY;
    if (rle) {
        uint8_t *row = blocks.Alloc((uint64_t)rowBytes + kRowSlack);
        if (!row)
            return IMG_ERR_MEMORY;
        static_assert(kMaxPacketPixels * 4 <= kRowSlack, "a packet fits the row slack");
        result = ReadRleRows(s, row);
    } else {
        result = ReadPlainRows(s);
    }
    return result < 0 ? result : 1;
}

/* ---- the writers ---- */

namespace {

/* The 18 header bytes; -9 when fewer are stored. */
int WriteHeader(int handle, uint8_t mapType, uint8_t imageType, uint16_t mapLength,
                uint8_t entryBits, uint32_t width, uint32_t height, uint8_t depth)
{
    uint8_t f[kHeaderBytes] = {};
    f[1] = mapType;
    f[2] = imageType;
    PutLE16(f + 5, mapLength);
    f[7] = entryBits;
    PutLE16(f + 12, (uint16_t)width);
    PutLE16(f + 14, (uint16_t)height);
    f[16] = depth;
    return ImgWrite(handle, f, kHeaderBytes) == (int32_t)kHeaderBytes ? 0 : IMG_ERR_WRITE;
}

int WriteBytes(int handle, const uint8_t *bytes, uint32_t count)
{
    return ImgWrite(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

/* Width and height from the header copy; hardening: both must fit the
 * 16-bit fields (-3). */
int WriteGeometry(const uint8_t *header, uint32_t *width, uint32_t *height)
{
    int32_t w = (int32_t)GetLE32(header + 4), h = (int32_t)GetLE32(header + 8);
    if (w < 1 || h < 1 || (uint32_t)w > kMaxField || (uint32_t)h > kMaxField)
        return IMG_ERR_INVALID;
    *width = (uint32_t)w;
    *height = (uint32_t)h;
    return 0;
}

bool GreyPalette(const uint8_t *palette)
{
    for (int i = 0; i < 256; i++, palette += 4)
        if (palette[0] != palette[1] || palette[1] != palette[2])
            return false;
    return true;
}

} // namespace

int TgaWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    int bits = GetLE16(header + 14);
    if (bits < 5)
        return IMG_ERR_DEPTH;
    /* hardening: only the depths an image can hold */
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        return IMG_ERR_DEPTH;
    uint32_t width, height;
    int result = WriteGeometry(header, &width, &height);
    if (result < 0)
        return result;
    const uint8_t *palette = header + DIB_HEADER_SIZE;
    bool grey = bits == 8 && GreyPalette(palette);
    bool mapped = bits == 8 && !grey;
    /* Grey images are written as their indices: the palette is not applied. */
    result = WriteHeader(handle, mapped ? 1 : 0, mapped ? 1 : grey ? 3 : 2, mapped ? 256 : 0,
                         mapped ? 24 : 0, width, height, bits == 8 ? 8 : 24);
    if (result < 0)
        return result;

    uint32_t stride = (uint32_t)DibStride(width, bits);
    uint32_t outBytes = bits == 8 ? width : 3 * width;
    ImgBuffer row(((size_t)stride > 4 * (size_t)width ? stride : 4 * (size_t)width) + 20);
    ImgBuffer out((size_t)3 * width + 768);
    if (!row || !out)
        return IMG_ERR_MEMORY;
    if (mapped) {
        uint8_t *map = out.get();
        for (int i = 0; i < 256; i++)
            memcpy(map + 3 * i, palette + 4 * i, 3);
        /* hardening: a short palette write is reported like a short row */
        if ((result = WriteBytes(handle, map, 768)) < 0)
            return result;
    }
    for (uint32_t i = 0; i < height; i++) {
        result = rowSource(sourceContext, row.get(), (int)(height - 1 - i), (int)stride);
        if (result < 0)
            return result;
        const uint8_t *bytes = row.get();
        if (bits == 16) {
            ConvertRow(row.get(), out.get(), width, 2);
            bytes = out.get();
        } else if (bits == 32) {
            ConvertRow(row.get(), out.get(), width, 4);
            bytes = out.get();
        }
        if ((result = WriteBytes(handle, bytes, outBytes)) < 0)
            return result;
    }
    return 0;
}

int TgaWrite16(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    if (GetLE16(header + 14) != 24)
        return IMG_ERR_TYPE;
    uint32_t width, height;
    int result = WriteGeometry(header, &width, &height);
    if (result < 0)
        return result;
    if ((result = WriteHeader(handle, 0, 2, 0, 0, width, height, 15)) < 0)
        return result;
    uint32_t stride = (uint32_t)DibStride(width, 24);
    ImgBuffer row((size_t)3 * width + 20);
    ImgBuffer out((size_t)3 * width + 768);
    if (!row || !out)
        return IMG_ERR_MEMORY;
    for (uint32_t i = 0; i < height; i++) {
        result = rowSource(sourceContext, row.get(), (int)(height - 1 - i), (int)stride);
        if (result < 0)
            return result;
        const uint8_t *px = row.get();
        uint8_t *o = out.get();
        for (uint32_t x = 0; x < width; x++, px += 3, o += 2)
            PutLE16(o, (uint16_t)((px[2] >> 3) << 10 | (px[1] >> 3) << 5 | px[0] >> 3));
        if ((result = WriteBytes(handle, out.get(), 2 * width)) < 0)
            return result;
    }
    return 0;
}

/* ---- the format descriptor ---- */

namespace {

/* b0 = ID length, b1 = colour-map type, b2 = image type (signed bytes). */
bool ProbeTga(ImgDetectBytes &s)
{
    int8_t idLength = (int8_t)s.b[0], mapType = (int8_t)s.b[1], imageType = (int8_t)s.b[2];
    if ((imageType == 1 || imageType == 9) && mapType == 1)
        return true;
    if ((imageType == 2 || imageType == 10 || imageType == 3 || imageType == 11) && mapType == 0)
        return true;
    return idLength >= 24 && idLength <= 69 && imageType == (int8_t)0x9C;
}

constexpr ImgTypeEntry kTga[] = {{IMG_TYPE_TGA, "Targa", TgaWrite},
                                 {IMG_TYPE_TGA2, "Targa, 16-bit", TgaWrite16}};

} // namespace

const ImgFormat kTgaFormat = {"tga", "tga", 3, ProbeTga, nullptr, TgaRead, nullptr, false, kTga};
