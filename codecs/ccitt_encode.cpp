/*
 * ccitt_encode.cpp - the CCITT encoders, and the raw fax save types
 * 33, 53 (Group 3) and 34, 52 (Group 4).
 *
 * One code table (per colour, indexed by run length 0..2560), one bit packer
 * over a 10000-byte buffer of 16-bit words (most significant bit first, codes
 * split across words), one output byte table (identity or bit reversal).
 * A row's changes (the pixels whose colour differs from the one before) are
 * found 64 pixels at a time in the packed row, or taken from the run record
 * a run-coded image stores.  The one-dimensional coder (Modified Huffman,
 * modes 2 and 3) codes the runs between them; the two-dimensional coder
 * (T.6, mode 4) codes each row's list of changes against the previous
 * row's.  In a row, bit 1 is white and bit 0 is black (the library's 1-bit
 * palette); every row starts white.
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
#define CCITT_ROW_SLACK 8 /* the change finder reads up to 7 bytes past the row */
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
 * The bits of the byte being filled wait at the top of a 64-bit
 * accumulator: each code goes in below them, the accumulator is stored (8
 * bytes, whatever their number, so that no branch depends on it) and the
 * bytes it completed are dropped.  The row loops keep this state in a local
 * copy and put it back before a flush: a store of code bytes could
 * otherwise alias the fields and send them through memory at every code. */
typedef struct {
    uint8_t *out;         /* the 10000-byte buffer (and slack) */
    uint32_t bytes;       /* whole bytes stored in it */
    uint64_t bits;        /* the bits after them, from bit 63 down; 0 below */
    int pending;          /* how many: fewer than 16 */
} CcittBits;

typedef struct {
    CcittBits bits;
    int handle;
    int reverse;          /* output byte table: bit reversal (else identity) */
    int framed;           /* 0xFE 0x92 and a big-endian count before each block */
    uint8_t *stage;       /* unframed blocks gathered for fewer ImgWrite calls */
    uint32_t staged;
} CcittPacker;

static inline void StoreBits(CcittBits &b)
{
    uint64_t v = b.bits;
    if constexpr (std::endian::native == std::endian::little)
        v = __builtin_bswap64(v);
    memcpy(b.out + b.bytes, &v, 8);
}

/* Puts the code's bits (length 1 to 16) behind the stream. */
static inline void PutBits(CcittBits &b, uint32_t code, int length)
{
    b.bits |= (uint64_t)code << (64 - length - b.pending);
    b.pending += length;
    StoreBits(b);
    int whole = b.pending >> 3;
    b.bytes += (uint32_t)whole;
    b.bits <<= 8 * whole;
    b.pending &= 7;
}

static inline void PutCode(CcittBits &b, const CcittCode &c)
{
    PutBits(b, c.code, c.length);
}

/* Whole 16-bit words of the stream in the buffer: a partial word stays. */
static inline uint32_t StoredWords(const CcittBits &b)
{
    return (b.bytes * 8 + (uint32_t)b.pending) / 16;
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

/* Sends the first `count` bytes of the buffer through the output byte table
 * to the sink: framed, each block at once; otherwise gathered in the stage
 * (the bytes are the same, only fewer ImgWrite calls carry them). */
static int SendBlock(CcittPacker *p, uint32_t count)
{
    uint8_t *out = p->bits.out;
    if (p->reverse)
        ReverseBitsOfBytes(out, count);
    if (p->framed) {
        uint8_t frame[4] = {0xFE, 0x92, (uint8_t)(count >> 8), (uint8_t)count};
        int result = WriteAll(p->handle, frame, 4);
        return result < 0 ? result : WriteAll(p->handle, out, count);
    }
    if (p->staged + count > CCITT_STAGE_BYTES) {
        int result = DrainStage(p);
        if (result < 0)
            return result;
    }
    memcpy(p->stage + p->staged, out, count);
    p->staged += count;
    return 0;
}

/* Whole words out; the partial word stays (mode 4, mode 3 and the
 * mid-row flush): the stream continues without fill. */
static int FlushWords(CcittPacker *p)
{
    CcittBits &b = p->bits;
    uint32_t count = StoredWords(b) * 2;
    if (b.bytes > count) { /* the partial word's first byte goes back to the bits */
        b.bits = (uint64_t)b.out[count] << 56 | b.bits >> 8;
        b.pending += 8;
    }
    b.bytes = 0;
    return count ? SendBlock(p, count) : 0;
}

/* All words and the partial word's bytes: 2 when more than 8 of its bits
 * are used, 1 when 1 to 8, none when it is empty (mode 2 rows, the end of
 * a mode 4 stream); the next code starts on a fresh word. */
static int FlushWithPartial(CcittPacker *p)
{
    CcittBits &b = p->bits;
    StoreBits(b);
    uint32_t count = b.bytes + (b.pending + 7) / 8;
    b.bytes = 0;
    b.bits = 0;
    b.pending = 0;
    return count ? SendBlock(p, count) : 0;
}

/* Flushes whole words once the buffer reaches its high water; `b` is the
 * caller's copy of the state. */
static inline int FlushIfFull(CcittPacker *p, CcittBits &b)
{
    if (StoredWords(b) < CCITT_HIGH_WATER)
        return 0;
    p->bits = b;
    int result = FlushWords(p);
    b = p->bits;
    return result;
}

/* A run: make-up codes for (run AND NOT 63), at most 2560 each, then the
 * terminating code for the rest; the high water is checked after each
 * make-up code. */
static inline int PutRun(CcittPacker *p, CcittBits &b, const CcittCode *table, int32_t run)
{
    while (run >= 64) {
        int32_t makeUp = run & ~63;
        if (makeUp > CCITT_MAX_RUN)
            makeUp = CCITT_MAX_RUN;
        PutCode(b, table[makeUp]);
        run -= makeUp;
        int result = FlushIfFull(p, b);
        if (result < 0)
            return result;
    }
    PutCode(b, table[run]);
    return 0;
}

/* The one-dimensional EOL: a fresh word (the partial word keeps its zero
 * fill bits), then the word 0x0001. */
static void PutWordEol(CcittBits &b)
{
    int used = (int)((b.bytes * 8 + (uint32_t)b.pending) % 16);
    if (used)
        PutBits(b, 0, 16 - used);
    PutBits(b, 0x0001, 16);
}

/* ---- the changes of a packed row ---- */

/* The row's 64 pixels from `bytes` on, the first in bit 0. */
static inline uint64_t LoadPixels(const uint8_t *bytes)
{
    uint64_t v;
    memcpy(&v, bytes, 8);
    if constexpr (std::endian::native == std::endian::big)
        v = __builtin_bswap64(v);
    return ReverseBitsInBytes(v); /* each byte's first pixel is its bit 7 */
}

/* Calls visit(position) for each pixel of the packed row whose colour
 * differs from the pixel before (the row starts white), in order; stops at
 * the first negative result and returns it, else 0.  64 pixels at a time:
 * a pixel word XOR itself moved up one pixel marks the changes, which are
 * taken lowest first. */
template <typename Visit>
static inline int ForEachChange(const uint8_t *row, int32_t width, Visit visit)
{
    uint64_t before = 1; /* the white pixel before the row */
    for (int32_t base = 0; base < width; base += 64) {
        uint64_t pixels = LoadPixels(row + base / 8);
        uint64_t changes = pixels ^ (pixels << 1 | before);
        before = pixels >> 63;
        for (; changes; changes &= changes - 1) {
            int32_t position = base + std::countr_zero(changes);
            if (position >= width)
                return 0; /* the padding bits of the last byte, and the slack */
            int result = visit(position);
            if (result < 0)
                return result;
        }
    }
    return 0;
}

/* ---- set-up ---- */

typedef struct {
    int32_t width, height, rowBytes;
    uint8_t *row;          /* rowBytes + the slack */
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
    ImgFree(e->packer.bits.out);
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
    e->row = static_cast<uint8_t *>(ImgAlloc((size_t)e->rowBytes + CCITT_ROW_SLACK));
    p->bits.out = static_cast<uint8_t *>(ImgAlloc(CCITT_BUFFER_BYTES + 8)); /* 8: StoreBits */
    p->stage = framed ? NULL : static_cast<uint8_t *>(ImgAlloc(CCITT_STAGE_BYTES));
    int ok = e->row && p->bits.out && (framed || p->stage);
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
    memset(e->row + e->rowBytes, 0, CCITT_ROW_SLACK);
    return 0;
}

/* A row's changes as a record hands them over: record[1 .. count]. */
typedef struct {
    const uint16_t *at;
    int32_t count;
} RowChanges;

/* Row r: 1 with its changes when the row source hands over a plain record,
 * 0 with the packed row in e->row, or a negative code. */
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
            return 0;
        }
    }
    result = e->rowSource(e->sourceContext, e->row, (int)r, (int)e->rowBytes);
    return result < 0 ? result : 0;
}

/* ---- the one-dimensional coder ---- */

/* The runs between a row's changes, white first: each change ends a run and
 * starts one of the other colour, and the last run ends at the width. */
typedef struct {
    CcittPacker *packer;
    CcittBits bits;       /* the packer's state, held here for the row */
    int32_t last;         /* where the current run started */
    const CcittCode *table, *other; /* the codes of its colour and of the other */
} RunCoder;

static inline int CodeRunTo(RunCoder &c, int32_t end)
{
    int result = PutRun(c.packer, c.bits, c.table, end - c.last);
    if (result == 0)
        result = FlushIfFull(c.packer, c.bits);
    c.last = end;
    const CcittCode *t = c.table;
    c.table = c.other;
    c.other = t;
    return result;
}

static int Encode1DRow(CcittEncoder *e, int fromRecord, const RowChanges *changes)
{
    RunCoder c = {&e->packer, e->packer.bits, 0, codeTable[WHITE], codeTable[BLACK]};
    int result = 0;
    if (fromRecord) {
        for (int32_t i = 0; i < changes->count && result == 0; i++)
            result = CodeRunTo(c, changes->at[i]);
    } else {
        result = ForEachChange(e->row, e->width,
                               [&c](int32_t position) { return CodeRunTo(c, position); });
    }
    if (result == 0)
        result = CodeRunTo(c, e->width);
    e->packer.bits = c.bits;
    return result;
}

static int Encode1D(CcittEncoder *e, int mode)
{
    CcittPacker *p = &e->packer;
    if (mode == 3)
        PutWordEol(p->bits);
    for (int32_t r = 0; r < e->height; r++) {
        RowChanges changes;
        int result = FetchRow(e, r, &changes);
        if (result >= 0)
            result = Encode1DRow(e, result, &changes);
        if (result < 0)
            return result;
        if (mode == 3) {
            int eols = r == e->height - 1 ? 5 : 1;
            for (int i = 0; i < eols; i++)
                PutWordEol(p->bits);
            if (r == e->height - 1)
                PutBits(p->bits, 0, 16); /* a zero word ends the page */
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

/* The changing elements of the row: the positions where the colour changes
 * (the first to black), from the record or the packed row, then the width
 * four times. */
static void ChangeList(const CcittEncoder *e, int fromRecord, const RowChanges *changes,
                       int32_t *list)
{
    int32_t n = 0;
    if (fromRecord) {
        for (; n < changes->count; n++)
            list[n] = changes->at[n];
    } else {
        ForEachChange(e->row, e->width, [list, &n](int32_t position) {
            list[n++] = position;
            return 0;
        });
    }
    for (int i = 0; i < 4; i++)
        list[n + i] = e->width;
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
    CcittBits b = p->bits;
    int32_t a0 = -1, ai = 0, bi = 0;
    int colour = WHITE, result = 0;
    while (a0 < width && result == 0) {
        while (cur[ai] <= a0)
            ai++;
        while (ref[bi] <= a0)
            bi += 2;
        int32_t a1 = cur[ai], b1 = ref[bi], b2 = ref[bi + 1];
        if (b2 < a1) {
            PutCode(b, passCode);
            a0 = b2;
            bi += 2;
        } else if (a1 - b1 >= -3 && a1 - b1 <= 3) {
            PutCode(b, verticalCodes[a1 - b1 + 3]);
            a0 = a1;
            colour ^= 1;
            bi = bi > 0 ? bi - 1 : 1; /* the other parity; nothing earlier lies past a0 */
        } else {
            int32_t a2 = cur[ai + 1];
            PutCode(b, horizontalCode);
            result = PutRun(p, b, codeTable[colour], a1 - (a0 < 0 ? 0 : a0));
            if (result == 0)
                result = PutRun(p, b, codeTable[colour ^ 1], a2 - a1);
            a0 = a2;
        }
        if (result == 0)
            result = FlushIfFull(p, b);
    }
    p->bits = b;
    return result;
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
        ChangeList(e, result, &changes, cur);
        if ((result = Encode2DRow(p, ref, cur, e->width)) < 0)
            return result;
        int32_t *t = ref;
        ref = cur;
        cur = t;
    }
    static const CcittCode eol = {1, 12};
    for (int i = 0; i < 4; i++)
        PutCode(p->bits, eol);
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
