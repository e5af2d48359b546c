/*
 * lzw_gif.cpp - GIF LZW decoding and encoding.
 *
 * Decoder: the sub-blocks are read a chunk at a time and their payloads
 * joined into one code buffer; codes come out of a 64-bit bit buffer filled
 * eight bytes at a time.  Each table entry holds its prefix code, its length
 * and its first and last bytes, so a string is written backwards straight
 * into the pixel buffer, ending where its length says, and a new entry needs
 * no walk.  Rows go to the sink as soon as a row's pixels have come.
 *
 * Encoder: the dictionary is an open-addressing hash of (prefix code, byte)
 * to code; codes are packed least significant bit first into a sub-block
 * buffer, and whole sub-blocks are gathered into a larger block before they
 * are written.
 *
 * Hostile streams (docs/DEVIATIONS.md, GIF): every code is checked against
 * the table before it is used, the table stops growing at 4096 entries, and
 * the pixel buffer holds a row plus the longest string, so no stream can
 * write outside it.
 */
#include "codecs/lzw_gif.h"

#include <string.h>

#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint32_t kTableSize = 1u << GIF_LZW_MAX_WIDTH; /* codes 0 .. 4095 */
constexpr uint32_t kRawChunk = 8192;   /* bytes read from the source at once */
constexpr uint32_t kCodeBuffer = 8192; /* joined sub-block payloads */
constexpr uint32_t kSlack = 8;         /* behind the buffers: eight-byte loads and stores */
constexpr uint32_t kLongestString = kTableSize + 1;

/* ---- reading the sub-blocks ---- */

/* The payload bytes of a sub-block chain, read from the handle in chunks. */
class SubBlocks {
  public:
    SubBlocks(int handle, uint8_t *raw) : handle_(handle), raw_(raw) {}

    /* Appends up to `room` payload bytes to out: the count, 0 once the chain
     * (its 0 size byte) or the data has ended. */
    uint32_t Take(uint8_t *out, uint32_t room)
    {
        uint32_t taken = 0;
        while (taken < room && !ended_) {
            if (position_ == end_ && !ReadChunk())
                break;
            if (blockLeft_ == 0) {
                blockLeft_ = raw_[position_++];
                ended_ = blockLeft_ == 0;
                continue;
            }
            uint32_t n = end_ - position_;
            n = n < blockLeft_ ? n : blockLeft_;
            n = n < room - taken ? n : room - taken;
            memcpy(out + taken, raw_ + position_, n);
            position_ += n;
            blockLeft_ -= n;
            taken += n;
        }
        return taken;
    }

  private:
    bool ReadChunk()
    {
        int32_t got = ImgReadSome(handle_, raw_, kRawChunk);
        if (got <= 0) {
            ended_ = true; /* the data ends inside the chain */
            return false;
        }
        position_ = 0;
        end_ = (uint32_t)got < kRawChunk ? (uint32_t)got : kRawChunk;
        return true;
    }

    int handle_;
    uint8_t *raw_;
    uint32_t position_ = 0, end_ = 0;
    uint32_t blockLeft_ = 0;
    bool ended_ = false;
};

static inline uint64_t Load64LE(const uint8_t *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

/* The bit buffer: `count` valid bits, least significant first; bits above
 * them, when set, are those of the bytes at `in`, which the next refill ORs
 * in again unchanged.  Eight bytes are loaded at once while `end` is eight
 * or more bytes away. */
struct BitState {
    uint64_t bits;
    unsigned count;
    const uint8_t *in, *end;

    inline void Refill8()
    {
        bits |= Load64LE(in) << count;
        in += (63 - count) >> 3;
        count |= 56;
    }
};

/* The codes of the sub-block payloads, joined in a buffer. */
class CodeReader {
  public:
    CodeReader(SubBlocks &blocks, uint8_t *buffer) : blocks_(blocks), buffer_(buffer)
    {
        state = {0, 0, buffer, buffer};
    }

    /* At least `width` bits in the state, reading byte by byte near the
     * buffer's end and joining more sub-blocks behind the unread bytes when
     * it runs dry: false when the data ends first. */
    bool Refill(unsigned width)
    {
        BitState &s = state;
        while (s.count < width) {
            if (s.in == s.end && !Fill())
                return false;
            if (s.end - s.in >= 8) {
                s.Refill8();
                return true;
            }
            s.bits |= (uint64_t)*s.in++ << s.count;
            s.count += 8;
        }
        return true;
    }

    BitState state;

  private:
    bool Fill()
    {
        size_t left = (size_t)(state.end - state.in);
        memmove(buffer_, state.in, left);
        uint32_t added = blocks_.Take(buffer_ + left, kCodeBuffer - (uint32_t)left);
        state.in = buffer_;
        state.end = buffer_ + left + added;
        memset(buffer_ + left + added, 0, kSlack);
        return added > 0;
    }

    SubBlocks &blocks_;
    uint8_t *buffer_;
};

/* ---- decoding ---- */

/* The strings, each as its tail of 1 to 8 bytes (`tail`, first byte
 * lowest) behind the string of `prefix`, whose length is a multiple of 8:
 * a string is written from its end backwards, eight bytes a store, and a
 * string of up to 8 bytes (most of them) takes one store. */
struct Table {
    uint64_t tail[kTableSize];
    uint16_t prefix[kTableSize];
    uint16_t length[kTableSize];
    uint8_t first[kTableSize];
};

/* The pixels decoded but not yet delivered, and the rows they make. */
struct Rows {
    uint8_t *pixels;
    uint32_t fill;
    uint32_t width, rowCount, delivered;
    GifLzwRowSink sink;
    void *context;

    /* Hands every whole row to the sink and moves the rest to the front.
     * 1 when the last row has gone, 0 to go on, or the sink's result. */
    int Deliver()
    {
        uint32_t at = 0;
        while (fill - at >= width) {
            int result = sink(pixels + at, delivered, context);
            if (result < 0)
                return result;
            at += width;
            if (++delivered == rowCount)
                return 1;
        }
        memmove(pixels, pixels + at, fill - at);
        fill -= at;
        return 0;
    }
};

static inline void Store64LE(uint8_t *p, uint64_t v)
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    memcpy(p, &v, sizeof v);
}

/* Writes the string of `code` at out, from its end backwards; the first
 * store may write up to 7 bytes of junk behind the string's end. */
static inline void PutString(const Table &t, uint32_t code, uint8_t *out)
{
    uint32_t length = t.length[code];
    uint8_t *p = out + length - (((length - 1) & 7) + 1);
    Store64LE(p, t.tail[code]);
    while (p > out) {
        code = t.prefix[code];
        p -= 8;
        Store64LE(p, t.tail[code]);
    }
}

/* The code loop, on locals (pixel stores may alias anything reached through
 * a pointer); the reader and the rows see them again only for a refill near
 * the buffer's end or a row to deliver.  0 at the end of the data, 1 after
 * the last row, or a negative code. */
int DecodeCodes(CodeReader &reader, Table &t, int codeSize, Rows &rows)
{
    uint8_t *const pixels = rows.pixels;
    const uint32_t rowWidth = rows.width;
    const uint32_t clear = 1u << codeSize, end = clear + 1;
    unsigned width = (unsigned)codeSize + 1;
    uint32_t next = clear + 2, threshold = 1u << width;
    uint32_t fill = rows.fill, previous = 0;
    bool none = true; /* no previous code since the clear code */
    bool started = false;
    BitState b = reader.state;
    for (;;) {
        if (b.count < width) {
            if (b.end - b.in >= 8) {
                b.Refill8();
            } else {
                reader.state = b;
                bool more = reader.Refill(width);
                b = reader.state;
                if (!more)
                    return started ? 0 : IMG_ERR_INVALID;
            }
        }
        uint32_t code = (uint32_t)b.bits & ((1u << width) - 1);
        b.bits >>= width;
        b.count -= width;
        if (!started) { /* the stream starts with a clear code */
            if (code != clear)
                return IMG_ERR_INVALID;
            started = true;
            continue;
        }
        uint8_t *out = pixels + fill;
        uint8_t first; /* of this code's string */
        if (code < clear) {
            *out = first = (uint8_t)code;
            fill++;
        } else if (code == clear) {
            width = (unsigned)codeSize + 1;
            next = clear + 2;
            threshold = 1u << width;
            none = true;
            continue;
        } else if (code == end || none || code > next) {
            return 0; /* the end code, or a code the table does not hold */
        } else if (code < next) {
            PutString(t, code, out);
            fill += t.length[code];
            first = t.first[code];
        } else { /* the string of the previous code and its own first byte */
            PutString(t, previous, out);
            uint32_t length = t.length[previous];
            out[length] = first = t.first[previous];
            fill += length + 1;
        }
        if (!none && next < kTableSize) {
            /* The previous string and `first`: into its tail while that
             * holds fewer than 8 bytes, else as a new tail of one byte. */
            uint32_t length = t.length[previous], inTail = ((length - 1) & 7) + 1;
            if (inTail < 8) {
                t.tail[next] = t.tail[previous] | (uint64_t)first << (8 * inTail);
                t.prefix[next] = t.prefix[previous];
            } else {
                t.tail[next] = first;
                t.prefix[next] = (uint16_t)previous;
            }
            t.length[next] = (uint16_t)(length + 1);
            t.first[next] = t.first[previous];
            if (++next == threshold && width < GIF_LZW_MAX_WIDTH) {
                width++;
                threshold <<= 1;
            }
        }
        previous = code;
        none = false;
        if (fill >= rowWidth) {
            rows.fill = fill;
            int result = rows.Deliver();
            fill = rows.fill;
            if (result != 0)
                return result;
        }
    }
}

} // namespace

int GifLzwDecode(int handle, int codeSize, uint32_t width, uint32_t rowCount, GifLzwRowSink sink,
                 void *context)
{
    if (codeSize < 1 || codeSize > 8 || width == 0 || rowCount == 0)
        return IMG_ERR_INVALID;
    ImgBlock<Table> table(1);
    ImgBuffer raw(kRawChunk), codes(kCodeBuffer + kSlack);
    ImgBuffer pixels((size_t)width + kLongestString + kSlack);
    if (!table || !raw || !codes || !pixels)
        return IMG_ERR_MEMORY;
    Table &t = *table;
    for (uint32_t i = 0; i < 256; i++) {
        t.tail[i] = i;
        t.prefix[i] = 0;
        t.length[i] = 1;
        t.first[i] = (uint8_t)i;
    }
    SubBlocks blocks(handle, raw.get());
    CodeReader reader(blocks, codes.get());
    Rows rows = {pixels.get(), 0, width, rowCount, 0, sink, context};
    int result = DecodeCodes(reader, t, codeSize, rows);
    return result > 0 ? 0 : result;
}

/* ---- encoding ---- */

namespace {

constexpr uint32_t kClearAt = 4080;   /* the table is cleared once this code is assigned */
constexpr uint32_t kHashBits = 14;    /* 16384 slots for at most 4080 entries */
constexpr uint32_t kHashSize = 1u << kHashBits;
constexpr uint32_t kSubBlockFull = 253; /* bytes that close a sub-block before the next code */
constexpr uint32_t kOutBlock = 16384;  /* sub-blocks gathered before a write */

/* (prefix code, byte) to code.  A slot holds key << 12 | code, key being
 * prefix << 8 | byte; assigned codes are never 0, so 0 marks a free slot. */
class Dictionary {
  public:
    explicit Dictionary(uint32_t *slots) : slots_(slots) { Clear(); }
    void Clear() { memset(slots_, 0, kHashSize * sizeof *slots_); }

    /* The code of the string, or -1 with `slot` the free slot it would take. */
    inline int32_t Find(uint32_t key, uint32_t &slot) const
    {
        uint32_t h = (key * 0x9E3779B1u) >> (32 - kHashBits);
        for (;;) {
            uint32_t s = slots_[h];
            if (s == 0) {
                slot = h;
                return -1;
            }
            if (s >> GIF_LZW_MAX_WIDTH == key)
                return (int32_t)(s & (kTableSize - 1));
            h = (h + 1) & (kHashSize - 1);
        }
    }
    inline void Add(uint32_t slot, uint32_t key, uint32_t code) { slots_[slot] = key << GIF_LZW_MAX_WIDTH | code; }

  private:
    uint32_t *slots_;
};

/* Codes packed least significant bit first into sub-blocks: once 253 whole
 * bytes are held, the next code first closes the sub-block (so sub-blocks
 * hold 253 or 254 bytes, the last one up to 255). */
class CodeWriter {
  public:
    CodeWriter(int handle, uint8_t *out) : handle_(handle), out_(out) {}

    inline int Put(uint32_t code, unsigned width)
    {
        if (bytes_ >= kSubBlockFull) {
            int result = CloseSubBlock();
            if (result < 0)
                return result;
        }
        bits_ |= (uint64_t)code << count_;
        count_ += width;
        while (count_ >= 8) {
            block_[bytes_++] = (uint8_t)bits_;
            bits_ >>= 8;
            count_ -= 8;
        }
        return 0;
    }

    /* The last sub-block with the partial byte, the 0 that ends the chain,
     * and everything gathered to the handle. */
    int Finish()
    {
        if (count_ > 0)
            block_[bytes_++] = (uint8_t)bits_;
        int result = bytes_ > 0 ? CloseSubBlock() : 0;
        if (result < 0)
            return result;
        out_[held_++] = 0;
        return Write();
    }

  private:
    int CloseSubBlock()
    {
        if (held_ + 1 + bytes_ > kOutBlock) {
            int result = Write();
            if (result < 0)
                return result;
        }
        out_[held_++] = (uint8_t)bytes_;
        memcpy(out_ + held_, block_, bytes_);
        held_ += bytes_;
        bytes_ = 0;
        return 0;
    }

    int Write()
    {
        int32_t wrote = ImgWrite(handle_, out_, held_);
        bool whole = wrote == (int32_t)held_;
        held_ = 0;
        return whole ? 0 : IMG_ERR_WRITE;
    }

    int handle_;
    uint8_t *out_; /* kOutBlock bytes */
    uint32_t held_ = 0;
    uint8_t block_[256];
    uint32_t bytes_ = 0;
    uint64_t bits_ = 0;
    unsigned count_ = 0;
};

struct EncodeState {
    int codeSize;
    uint32_t clear;
    unsigned width;
    uint32_t next, threshold;

    void Reset()
    {
        width = (unsigned)codeSize + 1;
        next = clear + 2;
        threshold = 1u << width;
    }
};

} // namespace

int GifLzwEncode(int handle, int codeSize, uint32_t width, uint32_t rowCount, GifLzwRowSource source,
                 void *context)
{
    if (codeSize < 2 || codeSize > 8 || width == 0 || rowCount == 0)
        return IMG_ERR_INVALID;
    ImgBlock<uint32_t> slots(kHashSize);
    ImgBuffer row(width), out(kOutBlock);
    if (!slots || !row || !out)
        return IMG_ERR_MEMORY;
    Dictionary dictionary(slots.get());
    CodeWriter writer(handle, out.get());
    EncodeState s{codeSize, 1u << codeSize, 0, 0, 0};
    s.Reset();
    int result = writer.Put(s.clear, s.width);
    if (result < 0)
        return result;
    result = source(row.get(), 0, context);
    if (result < 0)
        return result;
    const uint8_t *pixels = row.get();
    uint32_t prefix = pixels[0];
    bool found = true; /* whether the last lookup found its string */
    for (uint32_t y = 0, x = 1;; x = 0) {
        for (; x < width; x++) {
            uint32_t key = prefix << 8 | pixels[x], slot;
            int32_t code = dictionary.Find(key, slot);
            if (code >= 0) {
                prefix = (uint32_t)code;
                found = true;
                continue;
            }
            result = writer.Put(prefix, s.width);
            if (result < 0)
                return result;
            dictionary.Add(slot, key, s.next++);
            if (s.next - 1 == s.threshold) {
                if (s.width == GIF_LZW_MAX_WIDTH) {
                    result = writer.Put(s.clear, s.width);
                    if (result < 0)
                        return result;
                    s.Reset();
                    dictionary.Clear();
                } else {
                    s.width++;
                    s.threshold = s.width == GIF_LZW_MAX_WIDTH ? kClearAt : 1u << s.width;
                }
            }
            prefix = pixels[x];
            found = false;
        }
        if (++y == rowCount)
            break;
        result = source(row.get(), y, context);
        if (result < 0)
            return result;
    }
    if (found) {
        result = writer.Put(prefix, s.width);
        if (result < 0)
            return result;
    }
    result = writer.Put(s.clear + 1, s.width);
    return result < 0 ? result : writer.Finish();
}
