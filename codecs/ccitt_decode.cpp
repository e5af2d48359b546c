/*
 * ccitt_decode.cpp - the CCITT Group 3 and Group 4 decoders and the
 * raw fax entry points IMG_decompress_fax, IMG_decompress_fax_mem and
 * IMG_decompress_fax_mem_size.
 *
 * One bit reader (least significant bit first; the row decoders hold the
 * next bits in a 64-bit register), one 13-bit code table per colour with a
 * small table of its short codes in front, one 8-bit mode table, and run
 * records as output: rows are never expanded to pixels here.  The usual
 * codes of text cost one look-up for two codes: a white and a black run of
 * a one-dimensional row from a 12-bit table; a string of V0 codes and the
 * mode behind it from a 10-bit table, the string's changes copied from the
 * reference row in blocks.
 *
 * Hardening (docs/DEVIATIONS.md, CCITT decoder): the bit reader knows how many
 * bytes of the buffer hold data and reads zero bits behind them (the 16 bytes
 * behind the data are cleared); once every data bit is consumed it reports
 * the end of the data, which ends the row in progress, satisfies an EOL
 * search and leaves the remaining rows white.  Every stored change lies in
 * 0 .. width and the list never decreases; zero-length runs cancel once a
 * row holds width changes, so no row outgrows its buffer.
 */
#include "codecs/ccitt_decode.h"

#include <string.h>

#include "core/bit_reversal.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "codecs/ccitt_codes.h"

/* ---- the code tables, built at compile time from the T.4 code lists ---- */

#define CODE_EOL 4095   /* value & 0xFFF of the EOL entry */
#define CODE_END 0x10000 /* internal: every data bit consumed */

namespace {

constexpr int kIndexBits = 13; /* the longest code, EOL's 12 bits, plus one */
constexpr int kIndexCount = 1 << kIndexBits;
constexpr int kShortBits = 9;  /* the usual codes of text are no longer */

/* A colour's 13-bit table: for every index whose low bits begin with a
 * code, the code's value in the low 12 bits (the run 0-2560, or CODE_EOL)
 * and its length less one in the high 4 bits, so that one look-up gives
 * both; 0 where no code begins (no code is one bit long, so a code's entry
 * is never 0). */
struct CodeTable {
    uint16_t entries[kIndexCount] = {};
    /* The entries of the codes of up to kShortBits bits by their first
     * kShortBits bits, 0 elsewhere: a small table the usual codes find in
     * the first level of the cache. */
    uint16_t shortEntries[1 << kShortBits] = {};
};

constexpr uint32_t CodeLength(const char *code)
{
    uint32_t n = 0;
    while (code[n])
        n++;
    return n;
}

/* Spreads one code over every 13-bit index whose low bits begin with it. */
constexpr void AddCode(CodeTable &table, const char *code, uint16_t value)
{
    uint32_t length = CodeLength(code), low = 0;
    for (uint32_t i = 0; i < length; i++)
        low |= (uint32_t)(code[i] - '0') << i;
    for (uint32_t high = 0; high < (1u << (kIndexBits - length)); high++)
        table.entries[low | high << length] = (uint16_t)(value | (length - 1) << 12);
}

constexpr CodeTable BuildCodeTable(const char *const *terminating, const char *const *makeUp)
{
    CodeTable table;
    for (int run = 0; run < 64; run++)
        AddCode(table, terminating[run], (uint16_t)run);
    for (int i = 0; i < 27; i++)
        AddCode(table, makeUp[i], (uint16_t)(64 * (i + 1)));
    for (int i = 0; i < 13; i++)
        AddCode(table, ccittExtendedMakeUp[i], (uint16_t)(1792 + 64 * i));
    AddCode(table, ccittEol, CODE_EOL);
    for (uint32_t i = 0; i < (1u << kShortBits); i++)
        if (table.entries[i] && (table.entries[i] >> 12) < kShortBits)
            table.shortEntries[i] = table.entries[i];
    return table;
}

constexpr CodeTable kWhite = BuildCodeTable(ccittWhiteTerminating, ccittWhiteMakeUp);
constexpr CodeTable kBlack = BuildCodeTable(ccittBlackTerminating, ccittBlackMakeUp);
/* EOL (eleven 0 bits, then a 1) decodes as EOL in both colours. */
static_assert(kWhite.entries[1u << 11] == (CODE_EOL | 11 << 12) &&
              kBlack.entries[1u << 11] == (CODE_EOL | 11 << 12));
static_assert(kWhite.entries[0xAC] == 7 << 12); /* white 0, 00110101: a code for run 0 */

/* A one-dimensional row alternates white and black runs, mostly short in
 * text.  One look-up at the next 12 bits gives a white run and the black
 * run behind it when both are terminating codes within those bits: the
 * white run in bits 0-5, the black in 6-11 and the two codes' length above;
 * 0 elsewhere. */
constexpr int kPairBits = 12;

struct PairTable {
    uint16_t entry[1 << kPairBits] = {};
};

constexpr PairTable BuildPairTable(const CodeTable &white, const CodeTable &black)
{
    PairTable table;
    for (uint32_t index = 0; index < (1u << kPairBits); index++) {
        uint32_t first = white.entries[index], whiteLength = (first >> 12) + 1;
        if (!first || (first & 0xFFF) >= 64 || whiteLength >= kPairBits)
            continue;
        uint32_t second = black.entries[index >> whiteLength];
        uint32_t length = whiteLength + (second >> 12) + 1;
        if (!second || (second & 0xFFF) >= 64 || length > kPairBits)
            continue;
        table.entry[index] = (uint16_t)((first & 63) | (second & 63) << 6 | length << 12);
    }
    return table;
}

constexpr PairTable kPairs = BuildPairTable(kWhite, kBlack);
/* white 2 (0111), black 3 (10): 01 then 1110 first bit lowest */
static_assert(kPairs.entry[0x1E] == (2 | 3 << 6 | 6 << 12));

/* The tables of white and black, by colour (0 white). */
constexpr const CodeTable *kColourTables[2] = {&kWhite, &kBlack};

} // namespace

namespace {

/* Two-dimensional modes by number: V0 0, VR1..VR3 1..3, VL1..VL3 -1..-3,
 * horizontal 4, pass 5. */
enum TwoDimensionalMode : int32_t {
    kVL3 = -3, kVL2 = -2, kVL1 = -1, kV0 = 0, kVR1 = 1, kVR2 = 2, kVR3 = 3, kHorizontal = 4, kPass = 5
};

/* Bits a two-dimensional mode costs, by mode number + 3. */
constexpr uint8_t kModeCost[9] = {7, 6, 3, 1, 3, 6, 7, 3, 4};

struct ModeTables {
    int32_t mode[256] = {};
    /* The mode and its cost in one byte: (mode + 3) | cost << 4. */
    uint8_t step[256] = {};
};

/* The mode of every 8-bit window, first bit in bit 0; 0000000x and
 * 0000001x (EOL, fill, extension) read as V0. */
constexpr ModeTables BuildModeTables()
{
    struct ModeCode {
        const char *code;
        int32_t mode;
    };
    constexpr ModeCode modes[] = {{"1", kV0},          {"011", kVR1},     {"010", kVL1},
                                  {"001", kHorizontal}, {"0001", kPass},   {"000011", kVR2},
                                  {"000010", kVL2},     {"0000011", kVR3}, {"0000010", kVL3}};
    ModeTables tables;
    for (int index = 0; index < 256; index++) {
        for (const ModeCode &m : modes) {
            uint32_t length = CodeLength(m.code);
            bool match = true;
            for (uint32_t i = 0; i < length && match; i++)
                match = ((index >> i) & 1) == m.code[i] - '0';
            if (match) {
                tables.mode[index] = m.mode;
                break;
            }
        }
        int32_t mode = tables.mode[index];
        tables.step[index] = (uint8_t)((mode + 3) | kModeCost[mode + 3] << 4);
    }
    return tables;
}

constexpr ModeTables kModes = BuildModeTables();
static_assert(kModes.mode[0x01] == kV0 && kModes.mode[0x04] == kHorizontal && kModes.mode[0x08] == kPass);

/* Text codes a row as short strings of V0 codes, each followed by another
 * mode.  One look-up at the next 10 bits gives both: the string's length
 * (its 1 bits) in the low 4 bits and the step of the code behind it above
 * them, whenever the 10 bits settle that code's step, whatever bits follow;
 * 0 where they do not (a longer string, or a long code behind it). */
constexpr int kEventBits = 10;

struct EventTable {
    uint16_t entry[1 << kEventBits] = {};
};

constexpr EventTable BuildEventTable(const ModeTables &modes)
{
    EventTable table;
    for (uint32_t index = 0; index < (1u << kEventBits); index++) {
        uint32_t ones = 0;
        while (ones < kEventBits && (index >> ones & 1))
            ones++;
        if (ones == kEventBits)
            continue;
        uint32_t known = kEventBits - ones, rest = index >> ones;
        uint8_t step = modes.step[rest & 0xFF];
        bool settled = true;
        for (uint32_t high = 1; known < 8 && high < (1u << (8 - known)) && settled; high++)
            settled = modes.step[(rest | high << known) & 0xFF] == step;
        if (settled)
            table.entry[index] = (uint16_t)(ones | step << 4);
    }
    return table;
}

constexpr EventTable kEvents = BuildEventTable(kModes);

/* Bits that start with a 0 always settle the code: so a window without an
 * entry starts with a V0 code, and taking the string moves on. */
constexpr bool EveryCodeSettled(const EventTable &table)
{
    for (uint32_t index = 0; index < (1u << kEventBits); index += 2)
        if (!table.entry[index])
            return false;
    return true;
}
static_assert(EveryCodeSettled(kEvents));
static_assert(kEvents.entry[0x3FF] == 0 && kEvents.entry[0x5] == (1 | kModes.step[0x2] << 4)); /* 1 010: V0, VL1 */

} // namespace

/* ---- the bit reader ---- */

#if defined(__GNUC__)
#define RARELY(condition) __builtin_expect(!!(condition), 0)
#define NOINLINE __attribute__((noinline))
#define ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define ALWAYS_INLINE inline
#define RARELY(condition) (condition)
#define NOINLINE
#endif

/* The window: coded data is read as a 32-bit little-endian window stepped
 * 16 bits at a time, a code taken at a bit offset of 0-15 in it.  The reader
 * keeps one bit offset from the buffer's start instead, and the row decoders
 * hold the bits from that offset on in a 64-bit register, topped up a few
 * whole bytes at a time: the same bits, one look-up per code.  The 16-bit
 * steps remain where they are observable: a refill keeps the tail from the
 * word that holds the next code, and the refill mark counts whole words
 * consumed. */
typedef struct BitReader {
    uint8_t *buffer;
    uint32_t bits;     /* bit offset of the next code from the buffer's start */
    uint32_t end;      /* bytes of data in the buffer */
    uint32_t endBits;  /* end * 8 */
    uint32_t fastBits; /* below it a 32-bit window at bits / 8 is all data */
    int handle;
    int reading;      /* refills from the byte source */
    int reverse;      /* fill order 1: bytes are bit-reversed as they come in */
    int sourceDone;   /* the byte source gave less than asked */
} BitReader;

/* Bit offsets are 32-bit: a non-reading buffer holds at most this much. */
#define MAX_CODED_BYTES 0x1FFFFF00u

/* Zero bytes kept behind the data: a top-up of the register at any bit
 * offset below the end reads only data and these. */
#define ZERO_TAIL 16

static BitReader reader;

/* The row decoders' copy of the reader's hot fields, held in registers:
 * `window` holds the `have` bits from the bit offset on (reader.bits), first
 * bit lowest, and 0 above them; `next` points at the byte behind them, so
 * that the offset is 8 * (next - data) - have. */
typedef struct Bits {
    const uint8_t *data;
    const uint8_t *next;
    const uint8_t *nearEnd; /* data + fast / 8: before it the offset is below fast */
    uint64_t window;
    uint32_t have; /* below 64 */
    uint32_t fast; /* reader.fastBits */
} Bits;

static void SetEnd(BitReader *r, uint32_t end)
{
    r->end = end;
    r->endBits = end * 8;
    r->fastBits = end >= 4 ? (end - 4) * 8 : 0;
    memset(r->buffer + end, 0, ZERO_TAIL); /* the window reads zero bits behind the data */
}

/* The unconsumed tail (from the 16-bit word of the next code) to the front,
 * the rest of the chunk from the source. */
static void Refill(BitReader *r)
{
    uint32_t pos = (r->bits >> 4) * 2;
    uint32_t tail = pos < r->end ? r->end - pos : 0;
    if (tail)
        memmove(r->buffer, r->buffer + pos, tail);
    r->bits -= pos * 8;
    uint32_t got = 0;
    if (!r->sourceDone && tail < CCITT_CHUNK) {
        int32_t n = ImgRead(r->handle, r->buffer + tail, CCITT_CHUNK - tail);
        got = n > 0 ? (uint32_t)n : 0;
        if (got > CCITT_CHUNK - tail)
            got = CCITT_CHUNK - tail; /* a caller read function claiming too much */
        if (got < CCITT_CHUNK - tail)
            r->sourceDone = 1;
        if (r->reverse)
            ReverseBitsOfBytes(r->buffer + tail, got);
    }
    SetEnd(r, tail + got);
}

/* The window at `at` reaches past the data: refills when the source has
 * more; returns the (possibly moved) bit offset. */
static NOINLINE uint32_t SlowBits(BitReader *r, uint32_t at)
{
    r->bits = at;
    if (r->reading && !r->sourceDone)
        Refill(r);
    return r->bits;
}

/* Eight bytes, the first lowest: one unaligned load. */
static inline uint64_t Load64(const uint8_t *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

/* The bit offset of the next code. */
static ALWAYS_INLINE uint32_t Offset(const Bits *b)
{
    return 8 * (uint32_t)(b->next - b->data) - b->have;
}

/* The window at the offset may reach past the data: the slow check due.
 * The pointer test first: the offset is below 8 * (next - data). */
static ALWAYS_INLINE int RunningLow(const Bits *b)
{
    return RARELY(b->next >= b->nearEnd) && Offset(b) >= b->fast;
}

/* Fills the register to 56-63 bits with the whole bytes that fit, without
 * a branch.  It reads at most 15 bytes beyond offset / 8; the offset never
 * passes the end of the data by more than a code and a byte alignment (a
 * code is read only below the end), so the reads stay in the zero tail. */
static ALWAYS_INLINE void TopUp(Bits *b)
{
    b->window |= Load64(b->next) << b->have;
    b->next += (63 - b->have) >> 3;
    b->have |= 56;
}

static ALWAYS_INLINE void Consume(Bits *b, uint32_t count)
{
    b->window >>= count;
    b->have -= count;
}

/* Loads the register afresh at bit offset `at`. */
static inline void Restart(Bits *b, uint32_t at)
{
    b->nearEnd = b->data + b->fast / 8;
    b->window = 0;
    b->have = 0;
    b->next = b->data + (at >> 3);
    TopUp(b);
    Consume(b, at & 7);
}

/* Near the end of the buffer: 0 once every data bit is consumed.  Out of
 * line on a copy of the bits, so that the row loops keep theirs in
 * registers. */
static NOINLINE int MoreBitsOf(BitReader *r, Bits *b)
{
    uint32_t at = SlowBits(r, Offset(b));
    b->fast = r->fastBits;
    Restart(b, at); /* the data may have moved */
    return at < r->endBits;
}

static ALWAYS_INLINE int MoreBits(BitReader *r, Bits *b)
{
    Bits copy = *b;
    int more = MoreBitsOf(r, &copy);
    *b = copy;
    return more;
}

static inline void BitsFrom(const BitReader *r, Bits *b)
{
    b->data = r->buffer;
    b->fast = r->fastBits;
    Restart(b, r->bits);
}

/* One code: the run length 0-2560, CODE_EOL, or CODE_END.  An index where
 * no code begins costs one bit. */
static ALWAYS_INLINE int ReadCode(BitReader *r, Bits *b, const CodeTable *table)
{
    for (;;) {
        if (RARELY(RunningLow(b)) && !MoreBits(r, b))
            return CODE_END;
        TopUp(b);
        uint32_t entry = table->shortEntries[b->window & ((1u << kShortBits) - 1)];
        if (RARELY(!entry))
            entry = table->entries[b->window & (kIndexCount - 1)];
        Consume(b, 1 + (entry >> 12));
        if (entry)
            return (int)(entry & 0xFFF);
    }
}

/* The 1 bits at the bottom of a window, at most `limit` (below 64). */
static inline uint32_t CountTrailingOnes(uint64_t window, uint32_t limit)
{
    window = ~window | (uint64_t)1 << limit;
#if defined(__GNUC__)
    return (uint32_t)__builtin_ctzll(window);
#else
    uint32_t count = 0;
    while (!(window >> count & 1))
        count++;
    return count;
#endif
}

/* One bit (the tag); 0 at the end of the data. */
static int ReadBit(BitReader *r)
{
    Bits b;
    BitsFrom(r, &b);
    int bit = 0;
    if (!RunningLow(&b) || MoreBits(r, &b)) {
        bit = (int)(b.window & 1);
        Consume(&b, 1);
    }
    r->bits = Offset(&b);
    return bit;
}

/* Mode 2: the next byte boundary. */
static void AlignToByte(BitReader *r)
{
    r->bits = (r->bits + 7) & ~7u;
}

/* Set-up at every call: offset 0, pointer at the front; in the reading modes
 * (and the non-reading modes with codedBytes 0, our choice) the first chunk
 * is read, otherwise codedBytes bytes are taken as they are. */
static void StartReader(uint8_t *buffer, const CcittParameters *p, int handle, int reading)
{
    BitReader *r = &reader;
    r->buffer = buffer;
    r->bits = 0;
    r->handle = handle;
    r->reverse = p->fillOrder != 2;
    r->reading = reading || p->codedBytes == 0;
    r->sourceDone = !r->reading;
    if (r->reading) {
        r->end = 0;
        Refill(r);
    } else {
        uint32_t bytes = p->codedBytes < MAX_CODED_BYTES ? p->codedBytes : MAX_CODED_BYTES;
        if (r->reverse)
            ReverseBitsOfBytes(buffer, bytes);
        SetEnd(r, bytes);
    }
}

/* After a row: the refill mark, in 16-bit words consumed. */
static void RefillAtMark(BitReader *r, uint32_t markWords)
{
    if (r->reading && r->bits / 16 >= markWords)
        Refill(r);
}

static uint32_t Mark1D(int32_t width)
{
    uint32_t rowBytes = ((uint32_t)width + 7) / 8;
    uint32_t m = 4 * ((rowBytes + 3) & ~3u);
    return m < CCITT_CHUNK / 2 ? CCITT_CHUNK / 2 - m : 0;
}

static uint32_t Mark2D(int32_t width)
{
    if (width >= 7500)
        return CCITT_CHUNK / 4;
    uint32_t m = 4 * (((uint32_t)width + 7) / 8);
    return m < CCITT_CHUNK / 2 ? CCITT_CHUNK / 2 - m : 0;
}

/* ---- row buffers and records ---- */

#define LIST_START 2 /* word 0: length (with the leading 0), word 1: length or the 0 */
#define GUARD_WORDS 4

static struct {
    uint16_t *rows[2];  /* each 5 * width + 400 bytes */
    int32_t width;      /* the width they were set up for */
    int reference;      /* which of rows[] holds the reference row */
    int referenceEnd;   /* the index past its record */
    int referenceCopyable; /* its first changes that strings of V0 codes may copy whole */
    int32_t rowsProduced;
} work;

static void FreeRows(void)
{
    ImgFree(work.rows[0]);
    ImgFree(work.rows[1]);
    work.rows[0] = work.rows[1] = NULL;
}

/* The row buffers, their first 200 words preset to width, width + 1, ...
 * and the rest 0 (the copies of strings of V0 codes read whole blocks). */
static int AllocateRows(int32_t width)
{
    FreeRows();
    size_t bytes = 5 * (size_t)width + 400;
    for (int i = 0; i < 2; i++) {
        work.rows[i] = static_cast<uint16_t *>(ImgAlloc(bytes));
        if (!work.rows[i]) {
            FreeRows();
            return IMG_ERR_MEMORY;
        }
        memset(work.rows[i], 0, bytes);
        for (int k = 0; k < 200; k++)
            work.rows[i][k] = (uint16_t)(width + k > 0xFFFF ? 0xFFFF : width + k);
    }
    work.width = width;
    work.reference = 0;
    work.referenceCopyable = 0;
    return 0;
}

/* Writes the terminators behind the changes list[LIST_START .. n) and the
 * guard words a reference walk may read; returns the index past the record. */
static int Terminate(uint16_t *list, int n, const uint16_t *terminators, int count, int32_t width)
{
    for (int i = 0; i < count; i++)
        list[n++] = terminators[i];
    for (int i = 0; i < GUARD_WORDS; i++)
        list[n + i] = (uint16_t)(width + 1);
    return n;
}

/* The record in `row` (changes from LIST_START, terminated up to `n`) to
 * the callback: the length word, +2 (one more terminator) when it equals the
 * packed row's byte count, or the 4-byte-aligned stride the row sink takes
 * for a packed row (docs/DEVIATIONS.md). */
static int EmitRecord(uint16_t *row, int n, int leadingZero, int32_t width, int32_t rowIndex,
                      ImgRowSink callback, void *context)
{
    uint16_t *record = row + 1;
    if (leadingZero) {
        record = row;
        row[1] = 0;
    }
    int bytes = (int)(row + n - record) * 2;
    /* A loop: one more terminator can turn the packed count into the stride
     * (width 77: 10 bytes, then 12). */
    while (bytes == (width + 7) / 8 || (uint64_t)bytes == DibStride((uint32_t)width, 1)) {
        row[n] = row[n - 1];
        n++;
        bytes += 2;
    }
    record[0] = (uint16_t)bytes;
    return callback((const uint8_t *)record, context, rowIndex, bytes);
}

/* Appends a change (clamped to at least the previous change and at most the
 * width); past `width` entries a change equal to the last cancels it, so a
 * list holds at most 2 * width + 1 changes.  The word before the first
 * change is 0, so that out[-1] is always the last change, or 0. */
typedef struct ChangeList {
    uint16_t *list; /* the row buffer, the changes from LIST_START on */
    uint16_t *out;  /* the next free word */
    int32_t width;
    int repeated;   /* a change was stored equal to the one before it */
} ChangeList;

/* The index past the last change. */
static inline int ListEnd(const ChangeList *c)
{
    return (int)(c->out - c->list);
}

static NOINLINE void PutChangeSlowOf(ChangeList *c, int32_t position)
{
    int32_t last = c->out[-1];
    if (position > c->width)
        position = c->width;
    if (position < last)
        position = last;
    int n = ListEnd(c);
    if (n >= LIST_START + c->width && position == last && n > LIST_START) {
        c->out--;
        return;
    }
    if (position == last && n > LIST_START)
        c->repeated = 1;
    *c->out++ = (uint16_t)position;
}

/* Out of line on a copy of the list, so that the row loops keep theirs in
 * registers. */
static ALWAYS_INLINE void PutChangeSlow(ChangeList *c, int32_t position)
{
    ChangeList copy = *c;
    PutChangeSlowOf(&copy, position);
    *c = copy;
}

static ALWAYS_INLINE void PutChange(ChangeList *c, int32_t position)
{
    /* The usual case: a change beyond the last one, inside the row (the
     * cancelling needs an equal change, which takes the slow way anyway). */
    int32_t last = c->out[-1];
    if (RARELY((uint32_t)(position - last - 1) >= (uint32_t)(c->width - last))) {
        PutChangeSlow(c, position);
        return;
    }
    *c->out++ = (uint16_t)position;
}

/* PutChange for a1 of the two-dimensional row, at or beyond a0 (below the
 * width), which is at or beyond the last change: the usual case, a1 beyond
 * a0 and inside the row, is told from a0 alone, which the row loop holds
 * in a register anyway. */
static ALWAYS_INLINE void PutChangeFrom(ChangeList *c, int32_t a0, int32_t a1)
{
    if (RARELY((uint32_t)(a1 - a0 - 1) >= (uint32_t)(c->width - a0))) {
        PutChangeSlow(c, a1);
        return;
    }
    *c->out++ = (uint16_t)a1;
}

static void StartList(ChangeList *c, uint16_t *list, int32_t width)
{
    c->list = list;
    c->out = list + LIST_START;
    c->out[-1] = 0;
    c->width = width;
    c->repeated = 0;
}

/* Cuts the list at its first change at or beyond the width. */
static void CutAtWidth(ChangeList *c)
{
    while (ListEnd(c) > LIST_START && c->out[-1] >= c->width)
        c->out--;
}

/* ---- the one-dimensional row ---- */

#define ROW_PAGE_END (-100) /* six EOLs */

#define RUN_STOP 1 /* the data ended */

/* One run of one colour (EOLs before it counted in mode 3 and 128): its end
 * goes into c.  0, RUN_STOP (after placing a run cut short) or ROW_PAGE_END. */
static inline int Decode1DRun(BitReader *r, Bits *b, ChangeList *c, const CodeTable *table,
                              int32_t *position, int countEols, int *eols)
{
    int32_t code;
    for (;;) {
        code = ReadCode(r, b, table);
        if (code == CODE_END)
            return RUN_STOP;
        if (code != CODE_EOL)
            break;
        if (countEols && ++*eols >= 6)
            return ROW_PAGE_END;
    }
    int32_t run = code;
    while (code >= 64) {
        code = ReadCode(r, b, table);
        if (code == CODE_END)
            break;
        run += code; /* an EOL here adds 4095 */
        if (run > 0x20000)
            run = 0x20000;
    }
    *position += run;
    PutChange(c, *position);
    *eols = 0;
    return code == CODE_END ? RUN_STOP : 0;
}

/* Decodes one Modified Huffman row into c: runs alternate white, black, ...
 * until the width is reached.  countEols: mode 3 or 128 (EOLs counted in
 * *eols); otherwise EOLs are ignored.  Returns 0, ROW_PAGE_END, or 1 when
 * the data ended before the row began. */
static ALWAYS_INLINE int Decode1DRowAt(BitReader *r, Bits *b, ChangeList *c, int countEols, int *eols)
{
    int32_t width = c->width, position = 0;
    if (RunningLow(b) && !MoreBits(r, b))
        return 1;
    int eolCount = *eols, status = 0; /* a local count stays in a register */
    while (position < width && !status) {
        if (b->next + 2 < b->nearEnd) {
            /* A short white run and a short black run in one look-up (the
             * fast check holds for both codes: the offset and 12 bits stay
             * below 8 * (next - data) + 12 < fast). */
            TopUp(b);
            uint32_t pair = kPairs.entry[b->window & ((1u << kPairBits) - 1)];
            if (pair && position + (int32_t)(pair & 63) < width) {
                position += pair & 63;
                PutChange(c, position);
                position += (pair >> 6) & 63;
                PutChange(c, position);
                eolCount = 0;
                Consume(b, pair >> 12);
                continue;
            }
        }
        status = Decode1DRun(r, b, c, &kWhite, &position, countEols, &eolCount);
        if (status == 0 && position < width)
            status = Decode1DRun(r, b, c, &kBlack, &position, countEols, &eolCount);
    }
    *eols = eolCount;
    return status == ROW_PAGE_END ? ROW_PAGE_END : 0;
}

/* The row decoders work on local copies of the reader's offset and of the
 * list (held in registers). */
static int Decode1DRow(BitReader *r, ChangeList *c, int countEols, int *eols)
{
    Bits b;
    BitsFrom(r, &b);
    ChangeList list = *c;
    int result = Decode1DRowAt(r, &b, &list, countEols, eols);
    r->bits = Offset(&b);
    *c = list;
    return result;
}

/* One white-table code read at the reader (the EOL after a mode-3 row). */
static int ReadEolCode(BitReader *r)
{
    Bits b;
    BitsFrom(r, &b);
    int code = ReadCode(r, &b, &kWhite);
    r->bits = Offset(&b);
    return code;
}

/* Looks for EOL: one code, then up to `further` more.  The end of the data
 * counts as found.  0 or -3. */
static int SeekEol(BitReader *r, int further)
{
    Bits b;
    BitsFrom(r, &b);
    int result = IMG_ERR_INVALID;
    for (int i = 0; i <= further && result < 0; i++) {
        int code = ReadCode(r, &b, &kWhite);
        if (code == CODE_EOL || code == CODE_END)
            result = 0;
    }
    r->bits = Offset(&b);
    return result;
}

static int EmitWhite(uint16_t *row, int leadingZero, int32_t width, int32_t rowIndex,
                     ImgRowSink callback, void *context)
{
    uint16_t terminators[3] = {(uint16_t)width, (uint16_t)width, (uint16_t)width};
    int n = Terminate(row, LIST_START, terminators, 3, width);
    return EmitRecord(row, n, leadingZero, width, rowIndex, callback, context);
}

static int CheckCall(const CcittParameters *p, int32_t rowCount, int32_t firstRow)
{
    if (!p || p->width >= 0xFFFF || rowCount < 0 || firstRow < 0)
        return IMG_ERR_INVALID; /* positions are 16-bit: width + 1 must fit */
    return 0;
}

/* Set-up on row 0 (or when the buffers are missing or of another width):
 * tables, row buffers.  0 or -1. */
static int SetUp(int32_t width, int32_t firstRow)
{
    if (firstRow == 0 || !work.rows[0] || work.width != width) {
        int result = AllocateRows(width);
        if (result < 0)
            return result;
        return 1; /* a fresh reference row is needed */
    }
    return 0;
}

/* Frees the buffers once the image's last row has been produced. */
static void FinishCall(const CcittParameters *p, int32_t endRow)
{
    if (endRow >= p->height)
        FreeRows();
}

int CcittDecode1D(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context)
{
    int result = CheckCall(parameters, rowCount, firstRow);
    if (result < 0)
        return result;
    const CcittParameters *p = parameters;
    int32_t width = p->width, mode = p->mode;
    result = SetUp(width, firstRow);
    if (result < 0)
        return result;
    work.referenceCopyable = 0; /* the rows below overwrite a row buffer */
    work.rowsProduced = firstRow;
    BitReader *r = &reader;
    StartReader(buffer, p, handle, mode != 128);
    int countEols = mode == 3 || mode == 128;
    int leadingZero = p->whiteIsZero == 0;
    uint16_t *row = work.rows[0];
    uint32_t mark = Mark1D(width);
    int eols = 0, last = 0, dataEnded = 0;
    for (int32_t i = 0; i < rowCount; i++) {
        int32_t rowIndex = firstRow + i;
        ChangeList c;
        StartList(&c, row, width);
        int status = dataEnded ? 1 : Decode1DRow(r, &c, countEols, &eols);
        if (status == ROW_PAGE_END) {
            /* The page has ended: the rest of the call is white. */
            for (; i < rowCount; i++) {
                last = EmitWhite(row, leadingZero, width, firstRow + i, rowCallback, context);
                if (last < 0)
                    break;
            }
            FreeRows();
            return last < 0 ? last : 0;
        }
        if (status == 1)
            dataEnded = 1;
        else
            work.rowsProduced = rowIndex + 1;
        CutAtWidth(&c);
        if (mode == 2)
            AlignToByte(r);
        if (countEols && !dataEnded) {
            eols++;
            int code = ReadEolCode(r);
            if (code != CODE_EOL && code != CODE_END && SeekEol(r, 2999) < 0) {
                FreeRows();
                return IMG_ERR_INVALID;
            }
        }
        uint16_t terminators[3] = {(uint16_t)width, (uint16_t)width, (uint16_t)width};
        int n = Terminate(row, ListEnd(&c), terminators, 3, width);
        last = EmitRecord(row, n, leadingZero, width, rowIndex, rowCallback, context);
        if (last < 0) {
            FreeRows();
            return last;
        }
        RefillAtMark(r, mark);
    }
    FinishCall(p, firstRow + rowCount);
    return last;
}

/* ---- the two-dimensional row (Group 4, and Group 3 with tag 0) ---- */

/* A reference row: its changes from `at` on (a list ending in entries
 * beyond the width, then guard words), and how many of the first ones a
 * string of V0 codes may copy whole: all of its changes (those lie below
 * the width) when they rise strictly, else none. */
typedef struct Reference {
    const uint16_t *at;
    int copyable;
} Reference;

/* A string of `count` (0-31) V0 codes (a1 = b1 each): the changes go into
 * c, a0 and b move on.  Returns the codes taken: fewer when the row ends. */
static ALWAYS_INLINE uint32_t TakeV0s(const uint16_t *ref, int copyable, int *b, int32_t *a0,
                                      ChangeList *c, uint32_t count)
{
    const uint16_t *from = ref + *b;
    /* `&` and `|`, not `&&` and `||`: one branch, nearly always taken. */
    if ((*b + (int)count <= copyable) & ((count == 0) | (from[0] > *a0))) {
        /* Rising changes below the width and beyond a0 (so beyond the last
         * change, which never passes a0): each would be stored as it is, so
         * they are copied in blocks of 16 (the row buffers hold the blocks'
         * overshoot). */
        uint16_t *to = c->out;
        memcpy(to, from, 32);
        if (RARELY(count > 16))
            memcpy(to + 16, from + 16, 32);
        int32_t lastTaken = from[(int)count - 1]; /* from[-1] lies in the buffer too */
        c->out += count;
        *b += (int)count;
        /* a0 = lastTaken unless count is 0, without a branch: count is 0
         * about as often as not. */
        int32_t keep = -(int32_t)(count == 0);
        *a0 = (lastTaken & ~keep) | (*a0 & keep);
        return count;
    }
    uint32_t used = 0;
    while (used < count && *a0 < c->width) {
        int32_t a1 = ref[(*b)++];
        if (a1 < *a0)
            a1 = *a0;
        PutChangeFrom(c, *a0, a1);
        *a0 = a1;
        used++;
    }
    return used;
}

/* A vertical mode (V0 read from the mode table, VR1..3, VL1..3): a1 is b1
 * moved by `mode`, and b walks on to the first change beyond a1 of the
 * colour opposite to a1's.  V0 steps one change on; VR1 at most one pair
 * further; VR2 and VR3 (a1 held at the width) and VL1..3 (one change back
 * first, unless b1 is the first change) walk on while the change lies at or
 * before a1.  Written without a branch on the mode: the modes mix
 * unpredictably in text. */
static ALWAYS_INLINE void Vertical(const uint16_t *ref, int *b, int32_t *a0, ChangeList *c, int mode)
{
    int32_t a1 = ref[*b] + mode;
    int32_t capped = a1 < c->width ? a1 : c->width;
    a1 = mode >= kVR2 ? capped : a1; /* the walk then stops at the width + 1 terminators */
    int next = *b + 1 - 2 * ((mode < 0) & (*b > 0));
    int skip = (mode != kV0) & (ref[next] <= a1);
    next += 2 * skip;
    int more = (mode != kV0) & (mode != kVR1);
    while ((ref[next] <= a1) & more)
        next += 2;
    *b = next;
    a1 = a1 < *a0 ? *a0 : a1;
    PutChangeFrom(c, *a0, a1);
    *a0 = a1;
}

/* The two runs of a horizontal mode, a0's colour first, each a terminating
 * code behind any make-up codes; their ends go into c.  0, or RUN_STOP when
 * the data ended. */
static ALWAYS_INLINE int Horizontal(BitReader *r, Bits *bits, int *b, const uint16_t *ref,
                                    int32_t *a0, ChangeList *c)
{
    /* a0's colour: every change adds or cancels one list entry, so white
     * has an even count (the list starts at LIST_START, even). */
    int white = !(ListEnd(c) & 1);
    const CodeTable *first = kColourTables[!white], *second = kColourTables[white];
    int32_t run1 = 0, run2 = 0, code;
    do {
        code = ReadCode(r, bits, first);
        run1 += code == CODE_END ? 0 : code;
    } while (code >= 64 && code != CODE_END && run1 < 0x20000);
    if (code != CODE_END) {
        do {
            code = ReadCode(r, bits, second);
            run2 += code == CODE_END ? 0 : code;
        } while (code >= 64 && code != CODE_END && run2 < 0x20000);
    }
    PutChange(c, *a0 + run1);
    PutChange(c, *a0 + run1 + run2);
    *a0 = *a0 + run1 + run2 < c->width ? *a0 + run1 + run2 : c->width;
    while (ref[*b] <= *a0)
        *b += 2;
    return code == CODE_END ? RUN_STOP : 0;
}

/* Decodes one Modified READ row against the reference row into c.  Returns
 * 0, or 1 when the data ended before the row began. */
static ALWAYS_INLINE int Decode2DRowAt(BitReader *r, Bits *bits, const Reference *reference, ChangeList *c)
{
    const uint16_t *ref = reference->at;
    const int copyable = reference->copyable;
    int32_t width = c->width, a0 = 0;
    int b = 0; /* index into ref of b1 */
    if (RunningLow(bits) && !MoreBits(r, bits))
        return 1;
    while (a0 < width) {
        if (RARELY(RunningLow(bits)) && !MoreBits(r, bits))
            return 0;
        TopUp(bits);
        uint32_t event = kEvents.entry[bits->window & ((1u << kEventBits) - 1)];
        if (RARELY(!event)) {
            /* A longer string of V0 codes, at most as many as a 32-bit
             * window at the code's byte holds. */
            uint32_t shift = Offset(bits) & 7, limit = shift ? 32 - shift : 31;
            uint32_t count = CountTrailingOnes(bits->window, limit);
            Consume(bits, TakeV0s(ref, copyable, &b, &a0, c, count));
            continue;
        }
        /* A string of V0 codes (one 1 bit each), then the code behind it. */
        uint32_t used = TakeV0s(ref, copyable, &b, &a0, c, event & 15);
        Consume(bits, used);
        if (RARELY(a0 >= width || (used && RunningLow(bits))))
            continue; /* the row ended, or the data runs low */
        uint32_t step = event >> 4;
        Consume(bits, step >> 4);
        int mode = (int)(step & 15) - 3;
        if (mode <= kVR3) {
            Vertical(ref, &b, &a0, c, mode);
        } else if (mode == kHorizontal) {
            if (Horizontal(r, bits, &b, ref, &a0, c) == RUN_STOP)
                return 0;
        } else { /* pass: a0 moves under b2, no change, the colour kept */
            b++;
            if (ref[b] > a0)
                a0 = ref[b];
            b++;
        }
    }
    return 0;
}

static int Decode2DRow(BitReader *r, const Reference *reference, ChangeList *c)
{
    Bits b;
    BitsFrom(r, &b);
    ChangeList list = *c;
    int result = Decode2DRowAt(r, &b, reference, &list);
    r->bits = Offset(&b);
    *c = list;
    return result;
}

/* The reference row as the next row's decode reads it. */
static Reference CurrentReference(void)
{
    Reference reference = {work.rows[work.reference] + LIST_START, work.referenceCopyable};
    return reference;
}

/* Sets the reference row of an image's first row: `count` terminators. */
static void WhiteReference(int32_t width, int count)
{
    uint16_t terminators[4] = {(uint16_t)width, (uint16_t)width, (uint16_t)width,
                               (uint16_t)(width + 1)};
    work.reference = 0;
    work.referenceEnd = Terminate(work.rows[0], LIST_START, terminators, count, width);
    work.referenceCopyable = 0;
}

/* The end of a row of the two-dimensional decoders: the list `c` decoded
 * with `status` (1: the data had ended), cut at the width and terminated
 * (width, width, width + 1, width + 1), becomes the reference row and goes
 * to the callback.  The callback's result; the buffers are freed on a
 * negative one. */
static int EmitReferenceRow(ChangeList *c, int status, int *dataEnded, int32_t rowIndex,
                            int leadingZero, ImgRowSink callback, void *context)
{
    int32_t width = c->width;
    uint16_t terminators[4] = {(uint16_t)width, (uint16_t)width, (uint16_t)(width + 1),
                               (uint16_t)(width + 1)};
    if (status == 1)
        *dataEnded = 1;
    else
        work.rowsProduced = rowIndex + 1;
    CutAtWidth(c);
    work.referenceCopyable = c->repeated ? 0 : ListEnd(c) - LIST_START;
    int n = Terminate(c->list, ListEnd(c), terminators, 4, width);
    work.reference = !work.reference;
    work.referenceEnd = n;
    int result = EmitRecord(c->list, n, leadingZero, width, rowIndex, callback, context);
    if (result < 0)
        FreeRows(); /* Group 3 too stops at once, as the other decoders do */
    return result;
}

/* ---- the two-dimensional Group 3 decoder ---- */

int CcittDecode2D(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context)
{
    int result = CheckCall(parameters, rowCount, firstRow);
    if (result < 0)
        return result;
    const CcittParameters *p = parameters;
    int32_t width = p->width;
    int tagged = p->mode == 45;
    result = SetUp(width, firstRow);
    if (result < 0)
        return result;
    if (result == 1)
        WhiteReference(width, 4); /* width three times, then width + 1 */
    work.rowsProduced = firstRow;
    BitReader *r = &reader;
    StartReader(buffer, p, handle, tagged);
    uint32_t mark = Mark2D(width);
    int last = 0, dataEnded = 0, eols = 0;
    for (int32_t i = 0; i < rowCount; i++) {
        int32_t rowIndex = firstRow + i;
        int oneD = 0;
        if (!dataEnded && (tagged || rowIndex < 2)) {
            if (SeekEol(r, 2000) < 0) {
                FreeRows();
                return IMG_ERR_INVALID;
            }
            int tag = ReadBit(r);
            oneD = tagged ? tag : rowIndex == 0;
        }
        uint16_t *row = work.rows[!work.reference];
        ChangeList c;
        StartList(&c, row, width);
        int status = 1;
        if (!dataEnded) {
            Reference reference = CurrentReference();
            status = oneD ? Decode1DRow(r, &c, 0, &eols) : Decode2DRow(r, &reference, &c);
        }
        last = EmitReferenceRow(&c, status, &dataEnded, rowIndex, 0, rowCallback, context);
        if (last < 0)
            return last;
        RefillAtMark(r, mark);
    }
    FinishCall(p, firstRow + rowCount);
    return last;
}

/* ---- the Group 4 decoder ---- */

int CcittDecodeG4(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context)
{
    int result = CheckCall(parameters, rowCount, firstRow);
    if (result < 0)
        return result;
    const CcittParameters *p = parameters;
    int32_t width = p->width;
    result = SetUp(width, firstRow);
    if (result < 0)
        return result;
    if (result == 1)
        WhiteReference(width, 3); /* width three times */
    work.rowsProduced = firstRow;
    BitReader *r = &reader;
    StartReader(buffer, p, handle, p->mode == 4);
    int leadingZero = p->whiteIsZero == 0;
    uint32_t mark = Mark2D(width);
    int last = 0, dataEnded = 0;
    int32_t i = 0;
    for (; i < rowCount && firstRow + i < p->height; i++) {
        int32_t rowIndex = firstRow + i;
        uint16_t *row = work.rows[!work.reference];
        ChangeList c;
        StartList(&c, row, width);
        Reference reference = CurrentReference();
        int status = dataEnded ? 1 : Decode2DRow(r, &reference, &c);
        last = EmitReferenceRow(&c, status, &dataEnded, rowIndex, leadingZero, rowCallback,
                                context);
        if (last < 0)
            return last;
        RefillAtMark(r, mark);
    }
    /* The image's rows ran out: the last record again for each row left. */
    for (; i < rowCount; i++) {
        last = EmitRecord(work.rows[work.reference], work.referenceEnd, leadingZero, width,
                          firstRow + i, rowCallback, context);
        if (last < 0) {
            FreeRows();
            return last;
        }
    }
    FinishCall(p, firstRow + rowCount);
    return last;
}

int32_t CcittRowsProduced(void)
{
    return work.rowsProduced;
}
