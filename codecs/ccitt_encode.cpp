/*
 * ccitt_encode.cpp - the CCITT encoders, and the raw fax save types
 * 33, 53 (Group 3) and 34, 52 (Group 4).
 *
 * One code table (per colour, indexed by run length 0..2560), one bit packer
 * over a 10000-byte buffer of 16-bit words (most significant bit first, codes
 * split across words), one output byte table (identity or bit reversal).
 * The one-dimensional coder (Modified Huffman, modes 2 and 3) scans runs
 * straight off the row bytes; the two-dimensional coder (T.6, mode 4) turns
 * each row into its list of changing elements and codes it against the
 * previous row's list.  In a row, bit 1 is white and bit 0 is black (the
 * library's 1-bit palette); every row starts white.
 */
#include "codecs/ccitt_encode.h"

#include <string.h>

#include <bit>

#include "core/bit_reversal.h"
#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "codecs/ccitt_codes.h"

#define CCITT_MAX_RUN 2560
#define CCITT_BUFFER_BYTES 10000
#define CCITT_BUFFER_WORDS (CCITT_BUFFER_BYTES / 2)
/* A block is flushed when fewer than this many words are left, mid-row if
 * need be (hardening: a row of a very wide image does not fit the buffer). */
#define CCITT_HIGH_WATER (CCITT_BUFFER_WORDS - 32)
#define CCITT_MAX_WIDTH (1 << 24)
#define CCITT_SENTINEL 0xAA
#define CCITT_SENTINEL_BYTES 8
#define CCITT_STAGE_BYTES 65536 /* flushed blocks gathered before ImgWrite */

enum { WHITE = 0, BLACK = 1 };

/* ---- the code tables, built at compile time from the T.4 code lists ---- */

typedef struct {
    uint16_t code;   /* right-aligned */
    uint16_t length; /* bits; 0 where the run length has no code of its own */
} CcittCode;

constexpr CcittCode ParseCode(const char *bits)
{
    CcittCode c = {0, 0};
    for (; *bits; bits++, c.length++)
        c.code = (uint16_t)((c.code << 1) | (*bits == '1'));
    return c;
}

/* The code of every run length that has one, per colour: computed at
 * compile time from the T.4 code lists. */
struct EncoderTables {
    CcittCode code[2][CCITT_MAX_RUN + 1] = {};
};

constexpr EncoderTables BuildTables()
{
    EncoderTables t;
    for (int run = 0; run < 64; run++) {
        t.code[WHITE][run] = ParseCode(ccittWhiteTerminating[run]);
        t.code[BLACK][run] = ParseCode(ccittBlackTerminating[run]);
    }
    for (int i = 0; i < 27; i++) {
        t.code[WHITE][64 * (i + 1)] = ParseCode(ccittWhiteMakeUp[i]);
        t.code[BLACK][64 * (i + 1)] = ParseCode(ccittBlackMakeUp[i]);
    }
    for (int i = 0; i < 13; i++) {
        int run = 1792 + i * 64;
        t.code[WHITE][run] = t.code[BLACK][run] = ParseCode(ccittExtendedMakeUp[i]);
    }
    return t;
}

constexpr EncoderTables kTables = BuildTables();
/* White run 0 is 00110101; every make-up length up to 2560 has a code. */
static_assert(kTables.code[WHITE][0].code == 0x35 && kTables.code[WHITE][0].length == 8);
static_assert(kTables.code[BLACK][CCITT_MAX_RUN].length == 12);

constexpr const CcittCode (&codeTable)[2][CCITT_MAX_RUN + 1] = kTables.code;

int CcittEncodeCode(int colour, int run, uint16_t *code, uint16_t *length)
{
    if ((colour != WHITE && colour != BLACK) || run < 0 || run > CCITT_MAX_RUN)
        return IMG_ERR_INVALID;
    const CcittCode *c = &codeTable[colour][run];
    if (!c->length)
        return IMG_ERR_INVALID;
    *code = c->code;
    *length = c->length;
    return 0;
}

/* ---- the bit packer and the flushes ---- */

/* The stream is the codes' bits most significant first, stored as 16-bit
 * words high byte first; the flushes and EOLs below work in those words.
 * Codes collect in a 64-bit accumulator that goes to the buffer 32 bits at a
 * time. */
typedef struct {
    uint8_t *out;         /* the 10000-byte buffer (and slack) */
    uint32_t bytes;       /* bytes stored in it: always even */
    uint64_t bits;        /* codes not stored yet, the latest in the low bits */
    int pending;          /* how many: fewer than 32 between calls */
    int handle;
    int reverse;          /* output byte table: bit reversal (else identity) */
    int framed;           /* 0xFE 0x92 and a big-endian count before each block */
    uint8_t *stage;       /* unframed blocks gathered for fewer ImgWrite calls */
    uint32_t staged;
} CcittPacker;

/* Puts the code's bits (length 1 to 16) behind the stream. */
static inline void PutBits(CcittPacker *p, uint32_t code, int length)
{
    p->bits = p->bits << length | code;
    p->pending += length;
    if (p->pending >= 32) {
        p->pending -= 32;
        PutBE32(p->out + p->bytes, (uint32_t)(p->bits >> p->pending));
        p->bytes += 4;
    }
}

static inline void PutCode(CcittPacker *p, const CcittCode *c)
{
    PutBits(p, c->code, c->length);
}

/* Whole 16-bit words of the stream in the buffer: a partial word stays. */
static inline uint32_t StoredWords(const CcittPacker *p)
{
    return (p->bytes * 8 + (uint32_t)p->pending) / 16;
}

/* Stores the pending bits that make whole words. */
static void StoreWholeWords(CcittPacker *p)
{
    while (p->pending >= 16) {
        p->pending -= 16;
        PutBE16(p->out + p->bytes, (uint16_t)(p->bits >> p->pending));
        p->bytes += 2;
    }
}

static int WriteAll(int handle, const uint8_t *bytes, uint32_t count)
{
    return ImgWrite(handle, bytes, count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

static int DrainStage(CcittPacker *p)
{
    uint32_t n = p->staged;
    p->staged = 0;
    return n ? WriteAll(p->handle, p->stage, n) : 0;
}

/* Reverses the bit order of every byte, eight bytes at a time: swapping
 * neighbouring bits, then pairs, then nibbles works within each byte
 * whatever the byte order of the load. */
static void ReverseBitsOfBytes(uint8_t *bytes, uint32_t count)
{
    uint32_t i = 0;
    for (; i + 8 <= count; i += 8) {
        uint64_t v;
        memcpy(&v, bytes + i, 8);
        v = (v >> 1 & 0x5555555555555555u) | (v & 0x5555555555555555u) << 1;
        v = (v >> 2 & 0x3333333333333333u) | (v & 0x3333333333333333u) << 2;
        v = (v >> 4 & 0x0F0F0F0F0F0F0F0Fu) | (v & 0x0F0F0F0F0F0F0F0Fu) << 4;
        memcpy(bytes + i, &v, 8);
    }
    for (; i < count; i++)
        bytes[i] = kBitReversal[bytes[i]];
}

/* Sends the first `count` bytes of the buffer through the output byte table
 * to the sink: framed, each block at once; otherwise gathered in the stage
 * (the bytes are the same, only fewer ImgWrite calls carry them). */
static int SendBlock(CcittPacker *p, uint32_t count)
{
    if (p->reverse)
        ReverseBitsOfBytes(p->out, count);
    if (p->framed) {
        uint8_t frame[4] = {0xFE, 0x92, (uint8_t)(count >> 8), (uint8_t)count};
        int result = WriteAll(p->handle, frame, 4);
        return result < 0 ? result : WriteAll(p->handle, p->out, count);
    }
    if (p->staged + count > CCITT_STAGE_BYTES) {
        int result = DrainStage(p);
        if (result < 0)
            return result;
    }
    memcpy(p->stage + p->staged, p->out, count);
    p->staged += count;
    return 0;
}

/* Whole words out; the partial word stays (mode 4, mode 3 and the
 * mid-row flush): the stream continues without fill. */
static int FlushWords(CcittPacker *p)
{
    StoreWholeWords(p);
    uint32_t count = p->bytes;
    p->bytes = 0;
    return count ? SendBlock(p, count) : 0;
}

/* All words and the partial word's bytes: 2 when more than 8 of its bits
 * are used, 1 when 1 to 8, none when it is empty (mode 2 rows, the end of
 * a mode 4 stream); the next code starts on a fresh word. */
static int FlushWithPartial(CcittPacker *p)
{
    StoreWholeWords(p);
    uint32_t count = p->bytes;
    if (p->pending) {
        PutBE16(p->out + count, (uint16_t)(p->bits << (16 - p->pending)));
        count += p->pending > 8 ? 2 : 1;
    }
    p->bytes = 0;
    p->pending = 0;
    return count ? SendBlock(p, count) : 0;
}

static inline int FlushIfFull(CcittPacker *p)
{
    return StoredWords(p) >= CCITT_HIGH_WATER ? FlushWords(p) : 0;
}

/* A run: make-up codes for (run AND NOT 63), at most 2560 each, then the
 * terminating code for the rest. */
static int PutLongRun(CcittPacker *p, const CcittCode *table, int32_t run)
{
    while (run >= 64) {
        int32_t makeUp = run & ~63;
        if (makeUp > CCITT_MAX_RUN)
            makeUp = CCITT_MAX_RUN;
        PutCode(p, &table[makeUp]);
        run -= makeUp;
        int result = FlushIfFull(p);
        if (result < 0)
            return result;
    }
    PutCode(p, &table[run]);
    return 0;
}

static inline int PutRun(CcittPacker *p, const CcittCode *table, int32_t run)
{
    if (run < 64) {
        PutCode(p, &table[run]);
        return 0;
    }
    return PutLongRun(p, table, run);
}

/* The one-dimensional EOL: a fresh word (the partial word keeps its zero
 * fill bits), then the word 0x0001. */
static void PutWordEol(CcittPacker *p)
{
    if (p->pending % 16)
        PutBits(p, 0, 16 - p->pending % 16);
    PutBits(p, 0x0001, 16);
}

/* ---- the run scanner ---- */

/* The row's eight bytes at `bytes` as one word, the first pixel in the most
 * significant bit. */
static inline uint64_t LoadPixels(const uint8_t *bytes)
{
    uint64_t v;
    memcpy(&v, bytes, 8);
    return std::endian::native == std::endian::little ? __builtin_bswap64(v) : v;
}

/* The first pixel at or after pos whose colour is not the one `flip`
 * names (all ones for white: white pixels are 1-bits; 0 for black).  The row
 * has the sentinel 0xAA behind its last byte, which holds both colours, so
 * the scan stops without a bound check; the caller cuts the result at the
 * width.  Each step tests 64 pixels: bits that differ from the colour become
 * 1-bits, and the leading zero count finds the first of them. */
static inline int32_t NextChange(const uint8_t *row, int32_t pos, uint64_t flip)
{
    const uint8_t *b = row + (pos >> 3);
    uint64_t differ = (LoadPixels(b) ^ flip) << (pos & 7); /* pixels before pos shift out */
    if (differ)
        return pos + std::countl_zero(differ);
    for (;;) {
        b += 8; /* never past the sentinel: the word that holds it stops the scan */
        differ = LoadPixels(b) ^ flip;
        if (differ)
            return (int32_t)((b - row) * 8) + std::countl_zero(differ);
    }
}

static constexpr uint64_t WHITE_FLIP = ~(uint64_t)0, BLACK_FLIP = 0;

/* ---- set-up ---- */

typedef struct {
    int32_t width, height, rowBytes;
    uint8_t *row;          /* rowBytes + the sentinel bytes */
    int32_t *lists[2];     /* the 2-D coder's change lists */
    ImgRowSource rowSource;
    RunRecordSource recordSource; /* the rows as records, when the row source has them */
    void *sourceContext;
    CcittPacker packer;
} CcittEncoder;

static void Release(CcittEncoder *e)
{
    ImgFree(e->row);
    ImgFree(e->lists[0]);
    ImgFree(e->lists[1]);
    ImgFree(e->packer.out);
    ImgFree(e->packer.stage);
}

/* Reads the geometry (hardening: width 1..2^24 and height at least 1, else
 * -3) and allocates the buffers (-1). */
static int Setup(CcittEncoder *e, int handle, const uint8_t *header, ImgRowSource rowSource,
                 void *sourceContext, int reverse, int framed, int twoDimensional)
{
    memset(e, 0, sizeof *e);
    e->rowSource = rowSource;
    e->recordSource = RunRecordSourceOf(rowSource);
    e->sourceContext = sourceContext;
    e->width = (int32_t)GetLE32(header + 4);
    e->height = (int32_t)GetLE32(header + 8);
    if (e->width < 1 || e->width > CCITT_MAX_WIDTH || e->height < 1)
        return IMG_ERR_INVALID;
    e->rowBytes = (e->width + 7) / 8;
    CcittPacker *p = &e->packer;
    p->handle = handle;
    p->reverse = reverse;
    p->framed = framed;
    e->row = static_cast<uint8_t *>(ImgAlloc((size_t)e->rowBytes + CCITT_SENTINEL_BYTES));
    p->out = static_cast<uint8_t *>(ImgAlloc(CCITT_BUFFER_BYTES));
    p->stage = framed ? NULL : static_cast<uint8_t *>(ImgAlloc(CCITT_STAGE_BYTES));
    int ok = e->row && p->out && (framed || p->stage);
    if (ok && twoDimensional) {
        size_t listBytes = ((size_t)e->width + 8) * sizeof(int32_t);
        e->lists[0] = static_cast<int32_t *>(ImgAlloc(listBytes));
        e->lists[1] = static_cast<int32_t *>(ImgAlloc(listBytes));
        ok = e->lists[0] && e->lists[1];
    }
    if (!ok) {
        Release(e);
        return IMG_ERR_MEMORY;
    }
    return 0;
}

/* A row's changes as a record hands them over: record[1 .. count]. */
typedef struct {
    const uint16_t *at;
    int32_t count;
} RowChanges;

/* Row r: 1 with its changes when the row source hands over a plain record,
 * 0 with the packed row (and the sentinel) in e->row, or a negative code. */
static int FetchRow(CcittEncoder *e, int32_t r, RowChanges *changes)
{
    int result = 0;
    if (e->recordSource) {
        const uint16_t *record;
        uint32_t bytes;
        result = e->recordSource(e->sourceContext, (int)r, &record, &bytes);
        if (result < 0)
            return result;
        if (result > 0) {
            changes->at = record + 1;
            changes->count = RunPlainChangeCount(record, bytes, e->width);
            if (changes->count >= 0)
                return 1;
            /* Any other record: its pixels, as the row source would give them. */
            RunExpandRow(record, bytes, e->width, e->row, (uint32_t)e->rowBytes);
        }
    }
    if (result == 0)
        result = e->rowSource(e->sourceContext, e->row, (int)r, (int)e->rowBytes);
    memset(e->row + e->rowBytes, CCITT_SENTINEL, CCITT_SENTINEL_BYTES);
    return result < 0 ? result : 0;
}

/* ---- the one-dimensional coder ---- */

/* One run of `colour` from pos to the next change (cut at the width); its
 * end. */
static inline int32_t PutScannedRun(CcittEncoder *e, int32_t pos, int colour, int *result)
{
    int32_t end = NextChange(e->row, pos, colour == WHITE ? WHITE_FLIP : BLACK_FLIP);
    if (end > e->width)
        end = e->width;
    *result = PutRun(&e->packer, codeTable[colour], end - pos);
    if (*result == 0)
        *result = FlushIfFull(&e->packer);
    return end;
}

/* The runs of the packed row, white first, until the width. */
static int Encode1DRow(CcittEncoder *e)
{
    int result;
    int32_t pos = 0;
    for (;;) {
        pos = PutScannedRun(e, pos, WHITE, &result);
        if (result < 0 || pos >= e->width)
            return result;
        pos = PutScannedRun(e, pos, BLACK, &result);
        if (result < 0 || pos >= e->width)
            return result;
    }
}

/* The runs between the changes, white first, the last to the width: the
 * runs the scan of the packed row would find. */
static int Encode1DChanges(CcittEncoder *e, const RowChanges *changes)
{
    CcittPacker *p = &e->packer;
    int32_t pos = 0;
    for (int32_t i = 0; i <= changes->count; i++) {
        int32_t end = i < changes->count ? changes->at[i] : e->width;
        int result = PutRun(p, codeTable[i & 1], end - pos);
        if (result < 0 || (result = FlushIfFull(p)) < 0)
            return result;
        pos = end;
    }
    return 0;
}

static int Encode1D(CcittEncoder *e, int mode)
{
    CcittPacker *p = &e->packer;
    if (mode == 3)
        PutWordEol(p);
    for (int32_t r = 0; r < e->height; r++) {
        RowChanges changes;
        int result = FetchRow(e, r, &changes);
        if (result >= 0)
            result = result ? Encode1DChanges(e, &changes) : Encode1DRow(e);
        if (result < 0)
            return result;
        if (mode == 3) {
            int eols = r == e->height - 1 ? 5 : 1;
            for (int i = 0; i < eols; i++)
                PutWordEol(p);
            if (r == e->height - 1)
                PutBits(p, 0, 16); /* a zero word ends the page */
            result = FlushWords(p);
        } else {
            result = FlushWithPartial(p);
        }
        if (result < 0)
            return result;
    }
    return DrainStage(p);
}

/* ---- the two-dimensional coder ---- */

/* The changing elements of the packed row in `e->row`: the positions where
 * the colour changes (the first to black), then the width four times. */
static void ChangeList(const CcittEncoder *e, int32_t *list)
{
    int32_t n = 0, pos = 0;
    int colour = WHITE;
    for (;;) {
        pos = NextChange(e->row, pos, colour == WHITE ? WHITE_FLIP : BLACK_FLIP);
        if (pos >= e->width)
            break;
        list[n++] = pos;
        colour ^= 1;
    }
    for (int i = 0; i < 4; i++)
        list[n + i] = e->width;
}

/* The same list from a plain record's changes. */
static void ChangeListOf(const CcittEncoder *e, const RowChanges *changes, int32_t *list)
{
    for (int32_t i = 0; i < changes->count; i++)
        list[i] = changes->at[i];
    for (int i = 0; i < 4; i++)
        list[changes->count + i] = e->width;
}

/* Pass 0001, horizontal 001, then V0 1 and VR1..3 011, 000011, 0000011 and
 * VL1..3 010, 000010, 0000010, indexed by a1 - b1 + 3. */
static const CcittCode passCode = {1, 4}, horizontalCode = {1, 3};
static const CcittCode verticalCodes[7] = {{2, 7}, {2, 6}, {2, 3}, {1, 1},
                                           {3, 3}, {3, 6}, {3, 7}};

/* Codes the row's change list `cur` against the reference list `ref`.  a0
 * starts before the row (-1, white); b1 is held at an index whose parity is
 * a0's colour (even entries change to black, odd ones to white). */
static int Encode2DRow(CcittPacker *p, const int32_t *ref, const int32_t *cur, int32_t width)
{
    int32_t a0 = -1, ai = 0, bi = 0;
    int colour = WHITE;
    while (a0 < width) {
        while (cur[ai] <= a0)
            ai++;
        while (ref[bi] <= a0)
            bi += 2;
        int32_t a1 = cur[ai], b1 = ref[bi], b2 = ref[bi + 1];
        if (b2 < a1) {
            PutCode(p, &passCode);
            a0 = b2;
            bi += 2;
        } else if (a1 - b1 >= -3 && a1 - b1 <= 3) {
            PutCode(p, &verticalCodes[a1 - b1 + 3]);
            a0 = a1;
            colour ^= 1;
            bi = bi > 0 ? bi - 1 : 1; /* the other parity; nothing earlier lies past a0 */
        } else {
            int32_t a2 = cur[ai + 1];
            PutCode(p, &horizontalCode);
            int result = PutRun(p, codeTable[colour], a1 - (a0 < 0 ? 0 : a0));
            if (result < 0 || (result = PutRun(p, codeTable[colour ^ 1], a2 - a1)) < 0)
                return result;
            a0 = a2;
        }
        int result = FlushIfFull(p);
        if (result < 0)
            return result;
    }
    return 0;
}

static int Encode2D(CcittEncoder *e)
{
    CcittPacker *p = &e->packer;
    int32_t *ref = e->lists[0], *cur = e->lists[1];
    for (int i = 0; i < 4; i++)
        ref[i] = e->width; /* the all-white row before the first */
    for (int32_t r = 0; r < e->height; r++) {
        RowChanges changes;
        int result = FetchRow(e, r, &changes);
        if (result < 0)
            return result;
        if (result)
            ChangeListOf(e, &changes, cur);
        else
            ChangeList(e, cur);
        if ((result = Encode2DRow(p, ref, cur, e->width)) < 0)
            return result;
        int32_t *t = ref;
        ref = cur;
        cur = t;
    }
    static const CcittCode eol = {1, 12};
    for (int i = 0; i < 4; i++)
        PutCode(p, &eol);
    int result = FlushWithPartial(p);
    return result < 0 ? result : DrainStage(p);
}

/* ---- entry points ---- */

int CcittEncodeFramed(int handle, const uint8_t *header, ImgRowSource rowSource,
                      void *sourceContext, int lsbFirst, int mode, int framed)
{
    CcittEncoder e;
    int twoDimensional = mode != 2 && mode != 3;
    int reverse = twoDimensional ? lsbFirst == 1 : (mode == 3 && lsbFirst == 1);
    int result = Setup(&e, handle, header, rowSource, sourceContext, reverse, framed != 0,
                       twoDimensional);
    if (result < 0)
        return result;
    result = twoDimensional ? Encode2D(&e) : Encode1D(&e, mode);
    Release(&e);
    return result < 0 ? result : 0;
}

int CcittEncode1D(int handle, const uint8_t *header, ImgRowSource rowSource,
                  void *sourceContext, int lsbFirst, int mode)
{
    if (mode != 2 && mode != 3)
        return IMG_ERR_INVALID;
    return CcittEncodeFramed(handle, header, rowSource, sourceContext, lsbFirst, mode, 0);
}

int CcittEncode2D(int handle, const uint8_t *header, ImgRowSource rowSource,
                  void *sourceContext, int lsbFirst, int mode)
{
    (void)mode; /* 4: T.6; the coder has no other variant */
    return CcittEncodeFramed(handle, header, rowSource, sourceContext, lsbFirst, 4, 0);
}
