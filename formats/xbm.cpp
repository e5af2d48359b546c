/*
 * xbm.cpp - X bitmap: the reader (file type 20) and the writer (save type 20).
 *
 * An item's bits run the other way round from a 1-bit row's and mean the
 * opposite (first pixel in the least significant bit, 1 for black), so each
 * byte is bit-reversed and complemented on the way in and on the way out.
 *
 * The reader walks the text once, a block at a time, looking at every byte
 * once: no line is read twice, however long.  Hostile text is handled as
 * listed under "XBM" in docs/DEVIATIONS.md.
 */
#include "formats/xbm.h"

#include <stdio.h>
#include <string.h>

#include "core/bit_reversal.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr int kEnd = -1;         /* Text::Peek at the end of the text */
constexpr int kNameColumns = 80; /* "#define", blanks and the name end within these */
constexpr int64_t kMaxSize = 0x7FFFFFFF;
constexpr uint64_t kMaxPixelBytes = 0x7FFFFFFFull;
constexpr int kItemsPerLine = 12;
constexpr char kHexDigits[] = "0123456789abcdef";

/* The byte of an image row for an item byte, and the other way round. */
uint8_t Flip(uint32_t b)
{
    return (uint8_t)~kBitReversal[b & 0xFF];
}

bool IsBlank(int c) { return c == ' ' || c == '\t'; }

/* What separates items: commas and white space. */
bool IsSeparator(int c) { return c == ',' || c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

/* The value of digit c in base 10 or 16, or -1. */
int DigitValue(int c, uint32_t base)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (base == 16 && c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (base == 16 && c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/* ---- reading ---- */

/* The text of the source, read a block at a time.  A zero byte ends the
 * text as the end of the data does: text holds none, and a memory image of
 * unknown size is read no further than its first. */
class Text {
  public:
    Text(int handle, uint8_t *buffer, uint32_t capacity)
        : handle_(handle), buffer_(buffer), capacity_(capacity)
    {
    }

    /* The next character, not consumed; kEnd at the end of the text. */
    int Peek() { return position_ < end_ || Refill() ? buffer_[position_] : kEnd; }
    /* Consumes the character Peek returned. */
    void Skip() { position_++; }

    /* Consumes the characters of `word` as long as they match: true when
     * all of them did. */
    bool Take(const char *word)
    {
        for (; *word; word++, Skip())
            if (Peek() != (uint8_t)*word)
                return false;
        return true;
    }

    void SkipBlanks()
    {
        while (IsBlank(Peek()))
            Skip();
    }

    /* Consumes everything up to and including the next `c`: false when the
     * text ends first. */
    bool SkipPast(uint8_t c)
    {
        while (position_ < end_ || Refill()) {
            const void *found = memchr(buffer_ + position_, c, end_ - position_);
            if (found) {
                position_ = (uint32_t)(static_cast<const uint8_t *>(found) - buffer_) + 1;
                return true;
            }
            position_ = end_;
        }
        return false;
    }

  private:
    bool Refill()
    {
        if (ended_)
            return false;
        int32_t got = ImgReadSome(handle_, buffer_, capacity_);
        position_ = end_ = 0;
        if (got <= 0) {
            ended_ = true;
            return false;
        }
        end_ = (uint32_t)got < capacity_ ? (uint32_t)got : capacity_;
        if (const void *zero = memchr(buffer_, 0, end_)) {
            end_ = (uint32_t)(static_cast<const uint8_t *>(zero) - buffer_);
            ended_ = true;
        }
        return end_ > 0;
    }

    int handle_;
    uint8_t *buffer_;
    uint32_t capacity_;
    uint32_t position_ = 0, end_ = 0;
    bool ended_ = false;
};

/* A size line: "#define", blanks, a name that a blank ends within the first
 * 80 characters of the line, blanks, then decimal digits.  The value (1 to
 * 2^31 - 1) or -3; the rest of the line is skipped. */
int64_t ReadDefine(Text &text)
{
    if (!text.Take("#define"))
        return IMG_ERR_INVALID;
    int column = 7;
    for (; IsBlank(text.Peek()) && column < kNameColumns; column++)
        text.Skip();
    for (int c; column < kNameColumns && (c = text.Peek()) != kEnd && c != '\n' && !IsBlank(c); column++)
        text.Skip();
    if (column >= kNameColumns || !IsBlank(text.Peek()))
        return IMG_ERR_INVALID;
    text.SkipBlanks();
    int64_t value = 0;
    for (int digit; (digit = DigitValue(text.Peek(), 10)) >= 0; text.Skip()) {
        value = value * 10 + digit;
        if (value > kMaxSize) /* hardening: no number overflows */
            return IMG_ERR_INVALID;
    }
    if (value < 1)
        return IMG_ERR_INVALID;
    text.SkipPast('\n');
    return value;
}

/* Further #define lines (hot spot) are skipped; then "static", an optional
 * "unsigned", and "char" or "short", blanks between.  The bytes of an item
 * (1 or 2), or -3. */
int ReadDeclaration(Text &text)
{
    while (text.Peek() == '#') {
        if (!text.Take("#define"))
            return IMG_ERR_INVALID;
        text.SkipPast('\n');
    }
    if (!text.Take("static"))
        return IMG_ERR_INVALID;
    text.SkipBlanks();
    if (text.Peek() == 'u') {
        if (!text.Take("unsigned"))
            return IMG_ERR_INVALID;
        text.SkipBlanks();
    }
    if (text.Peek() == 's')
        return text.Take("short") ? 2 : IMG_ERR_INVALID;
    if (text.Peek() == 'c')
        return text.Take("char") ? 1 : IMG_ERR_INVALID;
    return IMG_ERR_INVALID;
}

/* The next item: a hexadecimal (0x, 0X) or decimal number up to `limit`,
 * ended by a separator, a closing brace or the end of the text.  -3 for
 * anything else, and at a closing brace or the end of the text: the array
 * holds fewer items than the image needs. */
int64_t NextItem(Text &text, uint32_t limit)
{
    int c;
    while (IsSeparator(c = text.Peek()))
        text.Skip();
    if (c == kEnd || c == '}')
        return IMG_ERR_INVALID;
    uint32_t value = 0, base = 10;
    int digits = 0;
    if (c == '0') {
        text.Skip();
        c = text.Peek();
        if (c == 'x' || c == 'X') {
            base = 16;
            text.Skip();
        } else {
            digits = 1;
        }
    }
    for (int digit; (digit = DigitValue(text.Peek(), base)) >= 0; text.Skip(), digits++) {
        value = value * base + (uint32_t)digit;
        if (value > limit)
            return IMG_ERR_INVALID;
    }
    c = text.Peek();
    if (digits == 0 || !(IsSeparator(c) || c == '}' || c == kEnd))
        return IMG_ERR_INVALID;
    return value;
}

/* One row from the items: each char item gives one byte, each short item
 * two, its low byte first.  The bytes behind them up to the stride are 0. */
int ReadRow(Text &text, int itemBytes, uint32_t rowBytes, uint8_t *row, uint32_t stride)
{
    memset(row, 0, stride);
    if (itemBytes == 1) {
        for (uint32_t i = 0; i < rowBytes; i++) {
            int64_t item = NextItem(text, 0xFF);
            if (item < 0)
                return (int)item;
            row[i] = Flip((uint32_t)item);
        }
        return 0;
    }
    for (uint32_t i = 0; i < rowBytes; i += 2) { /* the last may fill the first padding byte */
        int64_t item = NextItem(text, 0xFFFF);
        if (item < 0)
            return (int)item;
        row[i] = Flip((uint32_t)item);
        row[i + 1] = Flip((uint32_t)item >> 8);
    }
    return 0;
}

} // namespace

int XbmRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    if (start & IMG_PAGE_FLAG) /* hardening: a file holds one image */
        return IMG_ERR_INVALID;
    ImgBuffer chunk(IMG_CHUNK_SIZE);
    if (!chunk)
        return IMG_ERR_MEMORY;
    ImgSeek(handle, (int32_t)start, 0);
    Text text(handle, chunk.get(), IMG_CHUNK_SIZE);
    int64_t width = ReadDefine(text);
    if (width < 0)
        return (int)width;
    int64_t height = ReadDefine(text);
    if (height < 0)
        return (int)height;
    int itemBytes = ReadDeclaration(text);
    if (itemBytes < 0)
        return itemBytes;
    if (!text.SkipPast('{')) /* hardening: the array must open */
        return IMG_ERR_INVALID;
    uint64_t stride = DibStride((uint32_t)width, 1), bytes;
    if (!CheckedBlockSize(stride, (uint64_t)height, kMaxPixelBytes, &bytes))
        return IMG_ERR_INVALID;

    uint8_t block[IMG_HEADER_BLOCK_SIZE];
    DibBilevelHeader(block, (int32_t)width, (int32_t)height, (uint32_t)(stride * height));
    int result = headerSink(block, sinkContext);
    if (result < 0)
        return result;
    ImgBuffer row(stride);
    if (!row)
        return IMG_ERR_MEMORY;
    uint32_t rowBytes = ((uint32_t)width + 7) / 8;
    for (int32_t y = 0; y < (int32_t)height; y++) {
        result = ReadRow(text, itemBytes, rowBytes, row.get(), (uint32_t)stride);
        if (result < 0)
            return result;
        result = rowSink(row.get(), sinkContext, y, (int)stride);
        if (result < 0)
            return result;
    }
    return 0;
}

/* ---- writing ---- */

namespace {

int WriteAll(int handle, const void *bytes, size_t count)
{
    return ImgWrite(handle, bytes, (uint32_t)count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

/* The item lines, gathered into blocks of whole lines before they are
 * written. */
class ItemLines {
  public:
    ItemLines(int handle, uint64_t items) : handle_(handle), items_(items) {}

    /* Appends the item for one byte of a row; writes the block when it
     * cannot take another line. */
    int Put(uint8_t b)
    {
        uint8_t item = Flip(b);
        if (onLine_ == 0)
            Append("    ", 4);
        char digits[4] = {'0', 'x', kHexDigits[item >> 4], kHexDigits[item & 15]};
        Append(digits, 4);
        bool last = ++written_ == items_;
        if (++onLine_ < kItemsPerLine) {
            if (!last)
                Append(", ", 2);
        } else {
            Append(last ? "};\n" : ",\n", last ? 3 : 2);
            onLine_ = 0;
        }
        return used_ > sizeof text_ - kLongestLine ? Flush() : 0;
    }

    /* Closes a last line that is not full and writes what is left. */
    int Finish()
    {
        if (onLine_ > 0)
            Append("};\n", 3);
        return Flush();
    }

  private:
    static constexpr size_t kLongestLine = 4 + kItemsPerLine * 6 + 3;

    void Append(const char *bytes, size_t n)
    {
        memcpy(text_ + used_, bytes, n);
        used_ += n;
    }

    int Flush()
    {
        if (used_ == 0)
            return 0;
        int result = WriteAll(handle_, text_, used_);
        used_ = 0;
        return result;
    }

    int handle_;
    uint64_t items_, written_ = 0;
    int onLine_ = 0;
    char text_[4096];
    size_t used_ = 0;
};

} // namespace

int XbmWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    if (GetLE16(header + 14) != 1)
        return IMG_ERR_DEPTH;
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (width < 1 || height < 1)
        return IMG_ERR_TYPE;
    char line[64];
    int n = snprintf(line, sizeof line, "#define untitled_width %d\n", (int)width);
    int result = WriteAll(handle, line, (size_t)n);
    n = snprintf(line, sizeof line, "#define untitled_height %d\n", (int)height);
    if (result >= 0)
        result = WriteAll(handle, line, (size_t)n);
    static const char kDeclaration[] = "static char untitled_bits[] = {\n";
    if (result >= 0)
        result = WriteAll(handle, kDeclaration, sizeof kDeclaration - 1);
    if (result < 0)
        return result;

    uint32_t stride = (uint32_t)DibStride((uint32_t)width, 1), rowBytes = ((uint32_t)width + 7) / 8;
    ImgBuffer row(stride);
    if (!row)
        return IMG_ERR_MEMORY;
    ItemLines lines(handle, (uint64_t)rowBytes * (uint32_t)height);
    for (int32_t y = 0; y < height; y++) {
        result = rowSource(sourceContext, row.get(), y, (int)stride);
        if (result < 0)
            return result;
        for (uint32_t i = 0; i < rowBytes; i++)
            if ((result = lines.Put(row.get()[i])) < 0)
                return result;
    }
    return lines.Finish();
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeXbm(ImgDetectBytes &s) { return memcmp(s.b, "#define", 7) == 0; }

constexpr ImgTypeEntry kXbm[] = {{IMG_TYPE_XBM, "X bitmap", XbmWrite}};

} // namespace

const ImgFormat kXbmFormat = {"xbm", "xbm", 20, ProbeXbm, nullptr, XbmRead, nullptr, false, kXbm};
