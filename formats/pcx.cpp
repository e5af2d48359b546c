/*
 * pcx.cpp - PCX and DCX.
 *
 * The PCX reader turns the planes of each run-length row into one row of a
 * 1-, 4-, 8- or 24-bit image; the writer splits rows into planes again.  A
 * DCX file is a table of page offsets behind a signature, then the pages as
 * PCX images: the DCX reader finds the page and reads it as PCX, the writer
 * writes the page as PCX to a scratch file and appends it.
 *
 * Hostile files are handled as listed under "PCX and DCX" in
 * docs/DEVIATIONS.md.
 */
#include "formats/pcx.h"

#include <string.h>

#include "color/default_palette.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint32_t kHeaderSize = 128;
constexpr uint32_t kHeaderPaletteOffset = 16; /* 16 entries of red, green, blue */
constexpr uint32_t kTailPaletteBytes = 768;   /* 256 entries at the end of the file */
constexpr uint8_t kTailPaletteMarker = 0x0C;
constexpr uint8_t kRunFlag = 0xC0; /* a byte with both top bits set is a count */
constexpr uint32_t kMaxRun = 63;
constexpr uint32_t kDcxSignature = 987654321u; /* 0x3ADE68B1 */
constexpr uint32_t kDcxTableEntries = 100;     /* the table a new DCX file reserves */
constexpr uint32_t kDcxTableBytes = 4 + 4 * kDcxTableEntries;
constexpr uint32_t kDcxLongestTable = 65536;   /* entries a page count reads at most */
constexpr uint32_t kCopyPiece = 4000;
constexpr uint64_t kMaxPixelBytes = 0x7FFFFFFFull; /* the largest pixel block accepted */

/* ---- reading PCX ---- */

/* How the planes of a coded row become one row of the image. */
enum class RowLayout {
    Mono,      /* 1 plane of 1 bit: the row as it is */
    BitPlanes, /* 2 to 4 planes of 1 bit merged into 4-bit pixels */
    Packed2,   /* 1 plane of 2-bit pixels widened to 4 bits */
    Packed,    /* 1 plane of 4- or 8-bit pixels: the row as it is */
    Rgb,       /* 3 planes of 8 bits: blue, green, red for each pixel */
};

struct PcxImage {
    int version, paletteInfo;
    int bitsPerPlane, planes; /* as the header gives them */
    int bits;                 /* of the image built: 1, 4, 8 or 24 */
    RowLayout layout;
    uint32_t width, height;
    uint32_t bytesPerLine;  /* of one plane */
    uint32_t codedRowBytes; /* of all planes */
    uint32_t stride;
    bool invert; /* 1-bit rows complemented */
};

/* The image the header describes, or -3 for layouts and sizes we do not
 * read. */
int ParseHeader(const uint8_t *h, PcxImage &img)
{
    img = {};
    img.version = h[1];
    img.bitsPerPlane = h[3];
    img.planes = h[65];
    int32_t width = (int32_t)GetLE16(h + 8) - GetLE16(h + 4) + 1;
    int32_t height = (int32_t)GetLE16(h + 10) - GetLE16(h + 6) + 1;
    if (width < 1 || height < 1)
        return IMG_ERR_INVALID;
    img.width = (uint32_t)width;
    img.height = (uint32_t)height;
    img.bytesPerLine = GetLE16(h + 66);
    img.paletteInfo = GetLE16(h + 68);

    uint32_t bitsInPlane = (uint32_t)img.bitsPerPlane; /* pixel bits a plane row holds */
    switch (img.bitsPerPlane << 8 | img.planes) {
    case 1 << 8 | 1: img.layout = RowLayout::Mono; img.bits = 1; break;
    case 1 << 8 | 2:
    case 1 << 8 | 3:
    case 1 << 8 | 4: img.layout = RowLayout::BitPlanes; img.bits = 4; break;
    case 4 << 8 | 4: /* four planes of 4 bits are read as four planes of 1 bit */
        img.layout = RowLayout::BitPlanes;
        img.bits = 4;
        bitsInPlane = 1;
        break;
    case 2 << 8 | 1: img.layout = RowLayout::Packed2; img.bits = 4; break;
    case 4 << 8 | 1: img.layout = RowLayout::Packed; img.bits = 4; break;
    case 8 << 8 | 1: img.layout = RowLayout::Packed; img.bits = 8; break;
    case 8 << 8 | 3: img.layout = RowLayout::Rgb; img.bits = 24; break;
    default: return IMG_ERR_INVALID;
    }
    /* A plane row must hold the pixels of the width. */
    if ((uint64_t)img.bytesPerLine * 8 < (uint64_t)img.width * bitsInPlane)
        return IMG_ERR_INVALID;
    img.codedRowBytes = img.bytesPerLine * (uint32_t)img.planes;
    uint64_t stride = DibStride(img.width, img.bits), bytes;
    if (!CheckedBlockSize(stride, img.height, kMaxPixelBytes, &bytes))
        return IMG_ERR_INVALID;
    img.stride = (uint32_t)stride;
    return 0;
}

/* The run-length rows, read from the source a chunk at a time. */
class CodedRows {
  public:
    /* The source is positioned at `start`, where the rows begin. */
    CodedRows(int handle, uint32_t start, uint8_t *buffer, uint32_t capacity)
        : handle_(handle), buffer_(buffer), capacity_(capacity), sourceEnd_(start)
    {
    }

    /* Decodes the next row of `bytes` bytes into row.  A run that reaches
     * past the row's end is cut there.  -3 when the row decodes to more than
     * twice its size, -12 when the data ends first. */
    int DecodeRow(uint8_t *row, uint32_t bytes)
    {
        uint8_t *out = row, *end = row + bytes;
        while (out < end) {
            if (end_ - position_ < 2) {
                Refill();
                if (end_ - position_ < 2) { /* the last byte of the source */
                    if (end_ == position_ || buffer_[position_] >= kRunFlag)
                        return IMG_ERR_READ;
                    *out++ = buffer_[position_++];
                    continue;
                }
            }
            /* Every byte but the last in the buffer has a successor, so the
             * loop checks only where the buffer ends. */
            const uint8_t *in = buffer_ + position_, *last = buffer_ + end_ - 1;
            while (out < end && in < last) {
                uint8_t b = *in++;
                if (b < kRunFlag) {
                    *out++ = b;
                    continue;
                }
                uint32_t count = b & kMaxRun;
                uint8_t value = *in++;
                if (count > (uint32_t)(end - out)) {
                    if ((uint64_t)(out - row) + count > 2ull * bytes)
                        return IMG_ERR_INVALID;
                    count = (uint32_t)(end - out); /* the rest of the run is dropped */
                }
                memset(out, value, count);
                out += count;
            }
            position_ = (uint32_t)(in - buffer_);
        }
        return 0;
    }

    /* The source offset of the first byte not decoded yet. */
    uint32_t Position() const { return sourceEnd_ - (end_ - position_); }

  private:
    /* Moves the unread bytes to the front and reads behind them. */
    void Refill()
    {
        uint32_t left = end_ - position_;
        memmove(buffer_, buffer_ + position_, left);
        position_ = 0;
        end_ = left;
        int32_t got = ImgReadSome(handle_, buffer_ + left, capacity_ - left);
        if (got > 0) {
            uint32_t n = (uint32_t)got < capacity_ - left ? (uint32_t)got : capacity_ - left;
            end_ += n;
            sourceEnd_ += n;
        }
    }

    int handle_;
    uint8_t *buffer_;
    uint32_t capacity_;
    uint32_t position_ = 0, end_ = 0;
    uint32_t sourceEnd_; /* the source offset behind the buffer's last byte */
};

/* Bits of one plane byte (8 pixels) spread to the low bit of each nibble of
 * four image bytes: pixel 2k to bit 4 and pixel 2k + 1 to bit 0 of byte k. */
struct NibbleSpread {
    uint32_t of[256];
    constexpr NibbleSpread() : of()
    {
        for (uint32_t b = 0; b < 256; b++) {
            uint32_t v = 0;
            for (int k = 0; k < 4; k++) {
                uint32_t pair = (b >> (6 - 2 * k)) & 3; /* pixels 2k, 2k + 1 */
                v |= (((pair >> 1) << 4) | (pair & 1)) << (8 * k);
            }
            of[b] = v;
        }
    }
};
constexpr NibbleSpread kNibbleSpread;

/* One byte of four 2-bit pixels widened to two bytes of 4-bit pixels. */
struct TwoBitWiden {
    uint16_t of[256];
    constexpr TwoBitWiden() : of()
    {
        for (uint32_t b = 0; b < 256; b++) {
            uint32_t p0 = b >> 6, p1 = (b >> 4) & 3, p2 = (b >> 2) & 3, p3 = b & 3;
            of[b] = (uint16_t)((p0 << 4 | p1) | (p2 << 4 | p3) << 8);
        }
    }
};
constexpr TwoBitWiden kTwoBitWiden;

/* One row of the image (stride bytes, zero beyond the pixels) from the
 * decoded planes. */
void BuildRow(const PcxImage &img, const uint8_t *planes, uint8_t *out)
{
    memset(out, 0, img.stride);
    const uint32_t n = img.bytesPerLine;
    switch (img.layout) {
    case RowLayout::Mono: {
        uint32_t bytes = (img.width + 7) / 8;
        memcpy(out, planes, bytes);
        if (img.invert)
            for (uint32_t i = 0; i < bytes; i++)
                out[i] = (uint8_t)~out[i];
        break;
    }
    case RowLayout::BitPlanes: {
        uint32_t groups = (img.width + 7) / 8; /* of 8 pixels: 4 image bytes each */
        int used = img.planes < 4 ? img.planes : 4;
        for (uint32_t g = 0; g < groups; g++) {
            uint32_t v = 0;
            for (int p = 0; p < used; p++)
                v |= kNibbleSpread.of[planes[(uint32_t)p * n + g]] << p;
            PutLE32(out + 4 * g, v);
        }
        break;
    }
    case RowLayout::Packed2:
        for (uint32_t i = 0; i < (img.width + 3) / 4; i++)
            PutLE16(out + 2 * i, kTwoBitWiden.of[planes[i]]);
        break;
    case RowLayout::Packed:
        memcpy(out, planes, img.bits == 8 ? img.width : (img.width + 1) / 2);
        break;
    case RowLayout::Rgb:
        for (uint32_t x = 0; x < img.width; x++) {
            out[3 * x] = planes[2 * n + x];
            out[3 * x + 1] = planes[n + x];
            out[3 * x + 2] = planes[x];
        }
        break;
    }
}

constexpr int64_t kPaletteAtEnd = -1; /* the last 768 bytes of the source */

/* For a memory image of unknown size: the position of the 768 palette bytes
 * behind the coded rows and their marker byte, found by decoding every row. */
int FindPaletteBehindRows(int handle, uint32_t rowsAt, const PcxImage &img, int64_t &paletteAt)
{
    ImgBuffer chunk(IMG_CHUNK_SIZE), row(img.codedRowBytes);
    if (!chunk || !row)
        return IMG_ERR_MEMORY;
    ImgSeek(handle, (int32_t)rowsAt, 0);
    CodedRows rows(handle, rowsAt, chunk.get(), IMG_CHUNK_SIZE);
    for (uint32_t y = 0; y < img.height; y++) {
        int result = rows.DecodeRow(row.get(), img.codedRowBytes);
        if (result < 0)
            return result;
    }
    uint8_t marker = 0;
    ImgSeek(handle, (int32_t)rows.Position(), 0);
    ImgRead(handle, &marker, 1);
    paletteAt = rows.Position() + (marker == kTailPaletteMarker ? 1 : 0);
    return 0;
}

/* Reads the colours of an image below 24 bits into the header block:
 * from the header's 16 entries below 5 bits a pixel, otherwise the 768
 * bytes at paletteAt.  Grey and palette-less files get a named palette;
 * two-colour palettes follow the black-and-white rule. */
void ReadPalette(int handle, const uint8_t *fileHeader, int64_t paletteAt, PcxImage &img,
                 uint8_t *block)
{
    uint8_t rgb[kTailPaletteBytes] = {};
    if (img.bitsPerPlane * img.planes < 5) {
        memcpy(rgb, fileHeader + kHeaderPaletteOffset, 48);
    } else {
        if (paletteAt == kPaletteAtEnd) /* the 0x0C marker before them is not looked for */
            ImgSeek(handle, -(int32_t)kTailPaletteBytes, 2);
        else
            ImgSeek(handle, (int32_t)paletteAt, 0);
        ImgRead(handle, rgb, kTailPaletteBytes);
    }
    if (img.paletteInfo == 2) {
        BuildDefaultPalette(block, "tiff");
        return;
    }
    if (img.version == 0 || img.version == 3) {
        BuildDefaultPalette(block, "pcx");
        return;
    }
    uint8_t *entry = block + DIB_HEADER_SIZE;
    for (uint32_t i = 0; i < (1u << img.bits); i++, entry += 4) {
        entry[0] = rgb[3 * i + 2];
        entry[1] = rgb[3 * i + 1];
        entry[2] = rgb[3 * i];
    }
    if (img.bits != 1)
        return;
    const uint8_t *first = rgb, *second = rgb + 3;
    bool secondBlack = !second[0] && !second[1] && !second[2];
    bool firstBlack = !first[0] && !first[1] && !first[2];
    bool firstAllSet = first[0] && first[1] && first[2];
    bool bothWhite = true;
    for (int i = 0; i < 6; i++)
        bothWhite = bothWhite && rgb[i] == 255;
    if (secondBlack && firstAllSet) {
        BuildDefaultPalette(block, "tiff");
        img.invert = true;
    } else if ((firstBlack && secondBlack) || bothWhite) {
        BuildDefaultPalette(block, "tiff");
    }
}

void BuildHeader(const uint8_t *fileHeader, const PcxImage &img, uint8_t *block)
{
    memset(block, 0, IMG_HEADER_BLOCK_SIZE);
    PutLE32(block, DIB_HEADER_SIZE);
    PutLE32(block + 4, img.width);
    PutLE32(block + 8, img.height);
    PutLE16(block + 12, 1);
    PutLE16(block + 14, (uint16_t)img.bits);
    PutLE32(block + 20, img.stride * img.height);
    PutLE32(block + 24, GetLE16(fileHeader + 12));
    PutLE32(block + 28, GetLE16(fileHeader + 14));
}

/* The PCX image at `start`; paletteAt is where its 768 palette bytes
 * start, kPaletteAtEnd for the last 768 bytes of the source. */
int ReadImage(uint32_t start, int64_t paletteAt, ImgRowSink rowSink, void *sinkContext,
              ImgHeaderSink headerSink, int handle)
{
    uint8_t fileHeader[kHeaderSize] = {};
    ImgSeek(handle, (int32_t)start, 0);
    if (ImgRead(handle, fileHeader, kHeaderSize) != (int32_t)kHeaderSize)
        return IMG_ERR_OPEN;
    PcxImage img;
    int result = ParseHeader(fileHeader, img);
    if (result < 0)
        return result;
    ImgBuffer block(IMG_HEADER_BLOCK_SIZE);
    if (!block)
        return IMG_ERR_MEMORY;
    BuildHeader(fileHeader, img, block.get());
    uint32_t rowsAt = start + kHeaderSize;
    if (img.bits != 24) {
        bool tail = img.bitsPerPlane * img.planes >= 5;
        if (tail && paletteAt == kPaletteAtEnd && !ImgSourceSizeKnown(handle)) {
            result = FindPaletteBehindRows(handle, rowsAt, img, paletteAt);
            if (result < 0)
                return result;
        }
        ReadPalette(handle, fileHeader, paletteAt, img, block.get());
    }
    result = headerSink(block.get(), sinkContext);
    if (result < 0)
        return result;

    ImgBuffer chunk(IMG_CHUNK_SIZE), planes(img.codedRowBytes), row(img.stride);
    if (!chunk || !planes || !row)
        return IMG_ERR_MEMORY;
    ImgSeek(handle, (int32_t)rowsAt, 0);
    CodedRows rows(handle, rowsAt, chunk.get(), IMG_CHUNK_SIZE);
    for (uint32_t y = 0; y < img.height; y++) {
        result = rows.DecodeRow(planes.get(), img.codedRowBytes);
        if (result < 0)
            return result;
        BuildRow(img, planes.get(), row.get());
        result = rowSink(row.get(), sinkContext, (int)y, (int)img.stride);
        if (result < 0)
            return result;
    }
    return 1;
}


/* ---- writing PCX ---- */

/* Codes one plane row: runs of equal bytes up to 63, never past the row's
 * end; a run longer than one, or a byte that would read as a count, as the
 * count and the byte.  Returns the coded length (at most 2 * n). */
uint32_t EncodePlane(const uint8_t *in, uint32_t n, uint8_t *out)
{
    uint8_t *o = out;
    for (uint32_t i = 0; i < n;) {
        uint8_t value = in[i];
        uint32_t run = 1;
        while (run < kMaxRun && i + run < n && in[i + run] == value)
            run++;
        if (run > 1 || value >= kRunFlag)
            *o++ = (uint8_t)(kRunFlag | run);
        *o++ = value;
        i += run;
    }
    return (uint32_t)(o - out);
}

/* Plane k of a 4-bit row: bit k of each pixel, eight pixels a byte. */
void SplitNibblePlanes(const uint8_t *row, uint32_t bytesPerLine, uint8_t *planes)
{
    for (uint32_t j = 0; j < bytesPerLine; j++) {
        uint32_t acc[4] = {0, 0, 0, 0};
        for (uint32_t i = 0; i < 4; i++) {
            uint8_t b = row[4 * j + i];
            for (int k = 0; k < 4; k++)
                acc[k] = acc[k] << 2 | ((b >> (4 + k)) & 1) << 1 | ((b >> k) & 1);
        }
        for (int k = 0; k < 4; k++)
            planes[(uint32_t)k * bytesPerLine + j] = (uint8_t)acc[k];
    }
}

/* The three planes of a 24-bit row: red, green, blue. */
void SplitRgbPlanes(const uint8_t *row, uint32_t width, uint8_t *planes)
{
    for (uint32_t x = 0; x < width; x++) {
        planes[x] = row[3 * x + 2];
        planes[width + x] = row[3 * x + 1];
        planes[2 * width + x] = row[3 * x];
    }
}

struct PcxOutput {
    int bits, planes;
    uint32_t width, height, bytesPerLine, stride;
};

void PutFileHeader(const uint8_t *image, const PcxOutput &o, uint8_t *h)
{
    memset(h, 0, kHeaderSize);
    h[0] = 10;
    h[1] = o.bits >= 8 ? 5 : 2;
    h[2] = 1;
    h[3] = o.bits <= 4 ? 1 : 8;
    PutLE16(h + 8, (uint16_t)(o.width - 1));
    PutLE16(h + 10, (uint16_t)(o.height - 1));
    PutLE16(h + 12, (uint16_t)GetLE32(image + 24));
    PutLE16(h + 14, (uint16_t)GetLE32(image + 28));
    if (o.bits <= 4)
        for (uint32_t i = 0; i < (1u << o.bits); i++) {
            const uint8_t *entry = image + DIB_HEADER_SIZE + 4 * i;
            h[kHeaderPaletteOffset + 3 * i] = entry[2];
            h[kHeaderPaletteOffset + 3 * i + 1] = entry[1];
            h[kHeaderPaletteOffset + 3 * i + 2] = entry[0];
        }
    h[65] = (uint8_t)o.planes;
    PutLE16(h + 66, (uint16_t)o.bytesPerLine);
    PutLE16(h + 68, o.bits == 24 ? 0 : 1);
}

int WriteAll(int handle, const void *bytes, uint32_t count)
{
    return ImgWrite(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

/* The 0x0C marker and the 256 colours of an 8-bit image, red, green, blue. */
int WriteTailPalette(int handle, const uint8_t *image)
{
    uint8_t tail[1 + kTailPaletteBytes];
    tail[0] = kTailPaletteMarker;
    for (uint32_t i = 0; i < 256; i++) {
        const uint8_t *entry = image + DIB_HEADER_SIZE + 4 * i;
        tail[1 + 3 * i] = entry[2];
        tail[2 + 3 * i] = entry[1];
        tail[3 + 3 * i] = entry[0];
    }
    return WriteAll(handle, tail, sizeof tail);
}

} // namespace

int PcxWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    PcxOutput o;
    o.bits = GetLE16(header + 14);
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (o.bits != 1 && o.bits != 4 && o.bits != 8 && o.bits != 24)
        return IMG_ERR_DEPTH;
    /* The header's 16-bit fields: xmax, ymax and the bytes of a plane row. */
    if (width < 1 || width > 65535 || height < 1 || height > 65535)
        return IMG_ERR_TYPE;
    o.width = (uint32_t)width;
    o.height = (uint32_t)height;
    o.planes = o.bits == 4 ? 4 : o.bits == 24 ? 3 : 1;
    o.bytesPerLine = o.bits == 8 || o.bits == 24 ? o.width : (o.width + 7) / 8;
    o.stride = (uint32_t)DibStride(o.width, o.bits);

    uint8_t fileHeader[kHeaderSize];
    PutFileHeader(header, o, fileHeader);
    int result = WriteAll(handle, fileHeader, kHeaderSize);
    if (result < 0)
        return result;
    uint32_t planeBytes = o.bytesPerLine * (uint32_t)o.planes;
    ImgBuffer row(o.stride), planes(planeBytes), coded(2 * o.bytesPerLine);
    if (!row || !planes || !coded)
        return IMG_ERR_MEMORY;
    for (uint32_t y = 0; y < o.height && result >= 0; y++) {
        result = rowSource(sourceContext, row.get(), (int)y, (int)o.stride);
        if (result < 0)
            break;
        const uint8_t *source = row.get();
        if (o.bits == 4)
            SplitNibblePlanes(row.get(), o.bytesPerLine, planes.get());
        else if (o.bits == 24)
            SplitRgbPlanes(row.get(), o.width, planes.get());
        if (o.planes > 1)
            source = planes.get();
        for (int p = 0; p < o.planes && result >= 0; p++) {
            uint32_t n = EncodePlane(source + (uint32_t)p * o.bytesPerLine, o.bytesPerLine, coded.get());
            result = WriteAll(handle, coded.get(), n);
        }
    }
    if (result >= 0 && o.bits == 8)
        result = WriteTailPalette(handle, header);
    return result < 0 ? result : 0;
}

/* ---- DCX ---- */

namespace {

/* Entry `index` of the page table at `base`: false after the source's end. */
bool ReadTableEntry(int handle, uint32_t base, uint32_t index, uint32_t &entry)
{
    uint8_t bytes[4] = {};
    ImgSeek(handle, (int32_t)(base + 4 + 4 * index), 0);
    if (ImgRead(handle, bytes, 4) != 4)
        return false;
    entry = GetLE32(bytes);
    return true;
}

bool HasSignature(int handle, uint32_t base)
{
    uint8_t bytes[4] = {};
    ImgSeek(handle, (int32_t)base, 0);
    return ImgRead(handle, bytes, 4) == 4 && GetLE32(bytes) == kDcxSignature;
}

/* Copies the scratch file behind the sink's position, kCopyPiece bytes at a time. */
int CopyFrom(int scratch, int handle)
{
    ImgBuffer piece(kCopyPiece);
    if (!piece)
        return IMG_ERR_MEMORY;
    ImgSeek(scratch, 0, 0);
    for (int32_t got; (got = ImgRead(scratch, piece.get(), kCopyPiece)) > 0;) {
        int result = WriteAll(handle, piece.get(), (uint32_t)got);
        if (result < 0)
            return result;
    }
    return 0;
}

/* Enters a page in the table of the DCX file at `base`, or starts a file
 * there: the position the page goes to, or a negative code. */
int64_t EnterPage(int handle, uint32_t base)
{
    uint8_t table[kDcxTableBytes] = {};
    /* A memory image has no end to append at: a save there starts a file. */
    int32_t got = handle == IMG_MEMORY_HANDLE ? 0 : ImgRead(handle, table, kDcxTableBytes);
    if (got < 4 || GetLE32(table) != kDcxSignature) {
        memset(table, 0, sizeof table);
        PutLE32(table, kDcxSignature);
        PutLE32(table + 4, base + kDcxTableBytes);
        ImgSeek(handle, (int32_t)base, 0);
        int result = WriteAll(handle, table, kDcxTableBytes);
        return result < 0 ? result : (int64_t)base + kDcxTableBytes;
    }
    /* The first 0 entry; the last of the table stays 0 and ends it when full. */
    uint32_t free = 0;
    while (free < kDcxTableEntries - 1 && GetLE32(table + 4 + 4 * free) != 0)
        free++;
    if (free == kDcxTableEntries - 1)
        return IMG_ERR_PAGE;
    if (ImgSeek(handle, 0, 2) < 0)
        return IMG_ERR_WRITE;
    uint32_t end = ImgPosition(handle);
    uint8_t entry[4];
    PutLE32(entry, end);
    ImgSeek(handle, (int32_t)(base + 4 + 4 * free), 0);
    int result = WriteAll(handle, entry, 4);
    return result < 0 ? result : (int64_t)end;
}

} // namespace

int DcxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    uint32_t page = 0, base = start;
    if (start & IMG_PAGE_FLAG) {
        page = start & 0xFFFF;
        base = ImgPosition(handle);
    }
    if (!HasSignature(handle, base))
        return IMG_ERR_INVALID;
    uint32_t offset = 0;
    for (uint32_t i = 0; i <= page; i++)
        if (!ReadTableEntry(handle, base, i, offset) || offset == 0)
            return IMG_ERR_PAGE;
    if (offset & IMG_PAGE_FLAG)
        return IMG_ERR_INVALID; /* beyond the sources we can seek in */
    /* A page's palette lies at its end: before the next page when that
     * follows it, else at the end of the file. */
    uint32_t next = 0;
    int64_t paletteAt = kPaletteAtEnd;
    if (ReadTableEntry(handle, base, page + 1, next) && next > offset &&
        next - offset >= kHeaderSize + kTailPaletteBytes && !(next & IMG_PAGE_FLAG))
        paletteAt = next - kTailPaletteBytes;
    return ReadImage(offset, paletteAt, rowSink, sinkContext, headerSink, handle);
}

int PcxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    if (start & IMG_PAGE_FLAG)
        return DcxRead(start, rowSink, sinkContext, headerSink, handle);
    return ReadImage(start, kPaletteAtEnd, rowSink, sinkContext, headerSink, handle);
}

int DcxCountPages(int handle)
{
    uint32_t base = ImgPosition(handle);
    if (!HasSignature(handle, base))
        return IMG_ERR_INVALID;
    uint32_t pages = 0, entry;
    while (pages < kDcxLongestTable && ReadTableEntry(handle, base, pages, entry) && entry != 0)
        pages++;
    return (int)pages;
}

int DcxWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    char path[IMG_TEMP_PATH_SIZE];
    int scratch = ImgOpenTemp(path, 0);
    if (scratch < 0)
        return IMG_ERR_CREATE;
    int64_t result;
    {
        ImgFile file(scratch);
        uint32_t base = ImgPosition(handle);
        result = PcxWrite(scratch, header, rowSource, sourceContext);
        if (result >= 0) {
            ImgSeek(handle, (int32_t)base, 0);
            result = EnterPage(handle, base);
        }
        if (result >= 0) {
            ImgSeek(handle, (int32_t)result, 0);
            result = CopyFrom(scratch, handle);
        }
    }
    ImgDelete(path);
    return result < 0 ? (int)result : 0;
}

/* ---- the format descriptors ---- */

namespace {

bool ProbePcx(ImgDetectBytes &s) { return s.b[0] == 0x0A && s.b[2] == 1; }
bool ProbeDcx(ImgDetectBytes &s) { return GetLE32(s.b) == kDcxSignature; }

constexpr ImgTypeEntry kPcxTypes[] = {{IMG_TYPE_PCX, "PCX", PcxWrite}};
constexpr ImgTypeEntry kDcxTypes[] = {{IMG_TYPE_DCX, "DCX", DcxWrite}};

} // namespace

const ImgFormat kPcxFormat = {"pcx", "pcx", 2, ProbePcx, nullptr, PcxRead, nullptr, false, kPcxTypes};
const ImgFormat kDcxFormat = {"dcx",   "dcx",         11,   ProbeDcx, nullptr,
                              DcxRead, DcxCountPages, true, kDcxTypes};
