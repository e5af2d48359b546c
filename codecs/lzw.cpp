/*
 * lzw.cpp - TIFF LZW decoding and encoding (TIFF 6.0 scheme: codes
 * most significant bit first, Clear 256, end of information 257, first free
 * code 258, widths 9 to 12 bits with the early-change width switch).
 *
 * The decoder keeps a 41960-byte entry block (4662 entries of
 * last byte, prefix code and string length, here 9 bytes each: 8 with the
 * byte before the last and the prefix's prefix, and the first byte).
 * Strings are written backwards straight into the output buffer, ending
 * where the stored length says, two bytes per step; no stack.  The per-code
 * loop (LzwDecodeCodes) runs on locals without calls and stops for the rare
 * steps: a row to deliver, a refill, Clear or end of information, a string
 * longer than the free room, a full entry block.
 *
 * Hardening (docs/DEVIATIONS.md, TIFF LZW): an entry beyond 4661 closes the
 * strip with -3, and a string longer than the free room of the output buffer
 * goes out through a scratch string in pieces, rows being delivered between
 * them, so that no stream can write past the output buffer.
 *
 * The encoder: a hash table of 32768 slots maps (string code, byte) to
 * codes; codes go through a 64-bit bit accumulator into the 2100-byte
 * output buffer, 2000 bytes at a time to the byte sink.
 */
#include "codecs/lzw.h"

#include <string.h>

#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#define LZW_CLEAR 256
#define LZW_END 257
#define LZW_FIRST_FREE 258
#define LZW_ENTRIES 4662      /* codes 0 .. 4661 */
#define LZW_BLOCK_SIZE 41960  /* the entry block */
#define LZW_MAX_WIDTH 12
#define LZW_ENCODE_LIMIT_12 4080 /* clear once code 4079 is assigned */

/* ---- the decoding table (module-wide, one LZW image at a time) ---- */

/* One entry: 8 bytes, so that the 4662 entries (37296 bytes) fit the
 * 41960-byte block and one step along a prefix chain touches one entry.
 * Each entry also holds the byte before its last one and the prefix
 * of its prefix, so that the backward walk moves two links and writes two
 * bytes per step (half the chain of dependent loads). */
typedef struct LzwEntry {
    uint16_t prefix;     /* prefix code (a single byte's entry: itself) */
    uint16_t prefix2;    /* the prefix's prefix (strings of 3 bytes or more) */
    uint16_t length;     /* string length (at most 4662 - 257) */
    uint8_t secondLast;  /* the byte before the last (strings of 2 bytes or more) */
    uint8_t last;        /* last byte of the string */
} LzwEntry;

static uint8_t *entryBlock; /* LZW_BLOCK_SIZE bytes, or NULL */
static LzwEntry *entries;   /* the block as LZW_ENTRIES entries ... */
/* ... then each entry's first byte (9 bytes an entry), found from the
 * table's own address so that the hot loop needs no pointer of its own */
#define LZW_FIRST_BYTES(table) ((uint8_t *)((table) + LZW_ENTRIES))
/* A string that does not fit the output's free room is built here first;
 * no string is longer than the number of entries. */
static uint8_t longString[LZW_ENTRIES];

int LzwBeginImage(void)
{
    if (entryBlock)
        return 0;
    entryBlock = static_cast<uint8_t *>(ImgAlloc(LZW_BLOCK_SIZE));
    if (!entryBlock)
        return IMG_ERR_MEMORY;
    entries = (LzwEntry *)(void *)entryBlock;
    uint8_t *firstBytes = LZW_FIRST_BYTES(entries);
    for (int i = 0; i < 256; i++) {
        entries[i].prefix = entries[i].prefix2 = (uint16_t)i;
        entries[i].length = 1;
        entries[i].last = (uint8_t)i;
        entries[i].secondLast = 0;
        firstBytes[i] = (uint8_t)i;
    }
    return 0;
}

void LzwEndImage(void)
{
    ImgFree(entryBlock);
    entryBlock = NULL;
    entries = NULL;
}

/* ---- the bit reader ---- */

/* The byte position and bit offset are held as one bit position
 * (byte = bit position / 8, offset = bit position % 8), and the unread bits
 * as the end of the data in bits. */
typedef struct LzwBits {
    int handle;
    uint8_t *buffer;      /* LZW_CODED_BUFFER_SIZE bytes */
    uint32_t bitPosition; /* next unread bit */
    uint32_t endBits;     /* bits of data in the buffer */
    uint32_t width;       /* 9 .. 12 */
    uint32_t mask;        /* (1 << width) - 1 */
} LzwBits;

/* Refills the buffer until it holds at least `width` unread bits: the last
 * one or two bytes still holding unread bits move to the front and the rest
 * of the chunk is read behind them.  -12 when a read returns nothing. */
static int LzwRefill(LzwBits *b)
{
    while (b->endBits - b->bitPosition < b->width) {
        uint32_t keep = (b->endBits + 7) / 8 - b->bitPosition / 8; /* 0, 1 or 2 bytes */
        if (keep)
            memmove(b->buffer, b->buffer + b->bitPosition / 8, keep);
        b->bitPosition = keep ? b->bitPosition % 8 : 0;
        int32_t got = ImgRead(b->handle, b->buffer + keep, IMG_CHUNK_SIZE - keep);
        if (got <= 0)
            return IMG_ERR_READ;
        if ((uint32_t)got > IMG_CHUNK_SIZE - keep)
            got = (int32_t)(IMG_CHUNK_SIZE - keep); /* hardening: a read claiming more */
        b->endBits = (keep + (uint32_t)got) * 8;
        /* The four-byte peek may look past the data: keep those bytes defined. */
        memset(b->buffer + keep + got, 0, 4);
    }
    return 0;
}

/* Four bytes at the bit position's byte, big-endian, shifted and masked. */
static inline uint32_t LzwPeek(const uint8_t *buffer, uint32_t bitPosition, uint32_t width,
                               uint32_t mask)
{
    uint32_t word = GetBE32(buffer + bitPosition / 8);
    return (word >> (32 - width - bitPosition % 8)) & mask;
}

/* The next code, or a negative code of the refill. */
static int32_t LzwReadCode(LzwBits *b)
{
    if (b->endBits - b->bitPosition < b->width) {
        int r = LzwRefill(b);
        if (r < 0)
            return r;
    }
    uint32_t code = LzwPeek(b->buffer, b->bitPosition, b->width, b->mask);
    b->bitPosition += b->width;
    return (int32_t)code;
}

static void LzwSetWidth(LzwBits *b, uint32_t width)
{
    b->width = width;
    b->mask = (1u << width) - 1;
}

/* ---- row delivery ---- */

typedef struct LzwOutput {
    uint8_t *buffer;
    uint32_t size;     /* outputSize */
    uint32_t fill;     /* bytes held */
    int32_t rowBytes;
    int32_t firstRow;
    int32_t rowCount;
    int32_t delivered; /* rows handed to the adapter */
    LzwRowAdapter adapter;
    void *context;
} LzwOutput;

/* Hands every whole row the output holds to the adapter, moving the surplus
 * to the front after each.  1 when the strip's rows are all out, 0 when more
 * are wanted, or the adapter's negative result. */
static int LzwDeliverRows(LzwOutput *o)
{
    while (o->fill >= (uint32_t)o->rowBytes) {
        int r = o->adapter(o->buffer, o->firstRow + o->delivered, o->rowBytes, o->context);
        if (r < 0)
            return r;
        o->fill -= (uint32_t)o->rowBytes;
        if (o->fill)
            memmove(o->buffer, o->buffer + o->rowBytes, o->fill);
        if (++o->delivered >= o->rowCount)
            return 1;
    }
    return 0;
}

/* End of information: every row not yet delivered gets the output buffer's
 * current contents. */
static int LzwDeliverRest(LzwOutput *o)
{
    while (o->delivered < o->rowCount) {
        int r = o->adapter(o->buffer, o->firstRow + o->delivered, o->rowBytes, o->context);
        if (r < 0)
            return r;
        o->delivered++;
    }
    return 1;
}

/* Writes the n-byte string of `code` at out: backwards along the prefix
 * chain from where the stored length puts its end, two links and two bytes
 * per step, then the stored first byte (the byte no pair covers when n is
 * odd).  No branch for strings of 1 to 3 bytes: the last pair always goes
 * out (a single byte's pair lands on the string and the byte behind it),
 * and the byte behind the string gets back its value; out[n] must exist. */
static inline void LzwWriteStringAt(const LzwEntry *table, uint8_t *out, uint32_t n,
                                    int32_t code, uint8_t first)
{
    uint8_t behind = out[n];
    uint32_t offset = n + (n == 1) - 2; /* where the last pair goes: max(n, 2) - 2 */
    uint8_t *p = out + offset;
    const LzwEntry *e = &table[code];
    memcpy(p, &e->secondLast, 2); /* secondLast, last: the string's order */
    code = e->prefix2;
    for (uint32_t pairs = offset / 2; pairs; pairs--) {
        e = &table[code];
        p -= 2;
        memcpy(p, &e->secondLast, 2);
        code = e->prefix2;
    }
    out[0] = first;
    out[n] = behind;
}

/* Appends the string of `code` (plus, for KwKwK, its own first byte again)
 * when it does not fit the free room: built in longString, then copied in
 * pieces with rows delivered between them.  *first receives the string's
 * first byte.  1 when the strip completed on the way, 0, or the adapter's
 * negative result. */
static int LzwAppendLong(LzwOutput *o, int32_t code, int kwkwk, uint8_t *first)
{
    uint32_t n = entries[code].length, length = n + (uint32_t)kwkwk;
    *first = LZW_FIRST_BYTES(entries)[code];
    LzwWriteStringAt(entries, longString, n, code, *first);
    if (kwkwk)
        longString[length - 1] = *first;
    uint32_t done = 0;
    while (done < length) {
        uint32_t room = o->size - o->fill;
        uint32_t n = length - done < room ? length - done : room;
        memcpy(o->buffer + o->fill, longString + done, n);
        o->fill += n;
        done += n;
        int r = LzwDeliverRows(o);
        if (r != 0)
            return r;
    }
    return 0;
}

/* Hardening: the most Clear codes in a row (a whole chunk of 9-bit codes). */
#define LZW_MAX_CLEARS (IMG_CHUNK_SIZE * 8 / 9)

/* After Clear (or at the strip's start): the code that follows, which must
 * be a single byte.  A further Clear is read past; end of information is
 * passed back as LZW_END.  Hardening: any other code of 258 or more has no
 * entry to refer to, and more Clears in a row than a chunk holds mean a
 * source that repeats itself (the memory image past its end): -3. */
static int32_t LzwCodeAfterClear(LzwBits *b)
{
    for (int clears = 0; clears < LZW_MAX_CLEARS; clears++) {
        LzwSetWidth(b, 9);
        int32_t code = LzwReadCode(b);
        if (code < 0 || code == LZW_END || code < 256)
            return code;
        if (code != LZW_CLEAR)
            return IMG_ERR_INVALID;
    }
    return IMG_ERR_INVALID;
}

/* The rare steps of decoding: Clear (and the code after it) or end of
 * information.  *code is the code read; on return 0 it holds the
 * single-byte code that now starts the table, which has been appended.
 * 1 / negative: the strip's result. */
static int LzwRestart(LzwBits *b, LzwOutput *o, int32_t *code)
{
    if (*code == LZW_CLEAR)
        *code = LzwCodeAfterClear(b);
    if (*code < 0)
        return *code;
    if (*code == LZW_END)
        return LzwDeliverRest(o);
    /* Rows leave the buffer below rowBytes <= size, so a byte always fits. */
    o->buffer[o->fill++] = (uint8_t)*code;
    return 0;
}

/* The table state between codes. */
typedef struct LzwTableState {
    int32_t previous; /* the previous code */
    int32_t nextFree; /* the next free code */
    int32_t limit;    /* the width limit */
    int32_t code;     /* the code that stopped LzwDecodeCodes */
} LzwTableState;

/* Why LzwDecodeCodes stopped. */
enum { LZW_STOP_ROWS, LZW_STOP_BITS, LZW_STOP_SPECIAL, LZW_STOP_LONG, LZW_STOP_BAD, LZW_STOP_FULL };

/* Makes entry nextFree = (previous string, first) and grows the width
 * one code early (early change); shared by both paths. */
#define LZW_ADD_ENTRY(table, first, previous, nextFree, limit, width, mask)  \
    do {                                                                     \
        LzwEntry *e_ = &(table)[nextFree];                                   \
        e_->last = (first);                                                  \
        e_->secondLast = (table)[previous].last;                             \
        e_->prefix = (uint16_t)(previous);                                   \
        e_->prefix2 = (table)[previous].prefix;                              \
        LZW_FIRST_BYTES(table)[nextFree] = LZW_FIRST_BYTES(table)[previous]; \
        e_->length = (uint16_t)((table)[previous].length + 1);               \
        (nextFree)++;                                                        \
        if ((limit) - (nextFree) == 1) {                                     \
            if ((width) < LZW_MAX_WIDTH) {                                   \
                (width)++;                                                   \
                (mask) = (1u << (width)) - 1;                                \
            }                                                                \
            (limit) *= 2;                                                    \
        }                                                                    \
    } while (0)

/* The hot loop: decodes codes while the output holds less than a row, the
 * buffer holds a whole code and the code is an ordinary one whose string
 * fits; everything on locals and no calls, so that it stays in registers
 * (the limit is held as the code at which the width grows next:
 * limit - 1 while the width is below 12; at 12 bits the doubling limit
 * changes nothing).  Returns why it stopped; the code read is in t->code
 * for SPECIAL, LONG and BAD. */
static int LzwDecodeCodes(LzwBits *b, LzwOutput *o, LzwTableState *t)
{
    const uint8_t *const coded = b->buffer;
    uint32_t bitPosition = b->bitPosition;
    const uint32_t endBits = b->endBits;
    uint32_t width = b->width;
    if (t->nextFree >= LZW_ENTRIES)
        return LZW_STOP_FULL;
    /* The next free code at which the width grows, or at 12 bits the end
     * of the entry block. */
    int32_t growAt = width < LZW_MAX_WIDTH ? t->limit - 1 : LZW_ENTRIES;
    uint8_t *out = o->buffer + o->fill;
    uint8_t *const rowEnd = o->buffer + o->rowBytes;
    uint8_t *const outEnd = o->buffer + o->size;
    LzwEntry *const table = entries;
    int32_t previous = t->previous, nextFree = t->nextFree, code = 0;
    /* What the next entry takes from the previous code's entry, in registers */
    uint32_t previousLength = table[previous].length;
    uint16_t previousPrefix = table[previous].prefix;
    uint8_t previousLast = table[previous].last, previousFirst = LZW_FIRST_BYTES(table)[previous];
    int stop;
    for (;;) {
        if (out >= rowEnd) {
            stop = LZW_STOP_ROWS;
            break;
        }
        if (endBits - bitPosition < width) {
            stop = LZW_STOP_BITS;
            break;
        }
        code = (int32_t)((GetBE32(coded + bitPosition / 8) << (bitPosition % 8)) >> (32 - width));
        bitPosition += width;
        if ((uint32_t)(code - LZW_CLEAR) <= 1 || code > nextFree) {
            /* Clear, end of information, or above the next free code */
            stop = code > LZW_END ? LZW_STOP_BAD : LZW_STOP_SPECIAL;
            break;
        }
        /* KwKwK (the next free code): the previous string and its own first
         * byte.  Otherwise the code's string (a single byte included). */
        int kwkwk = code == nextFree;
        uint32_t n = kwkwk ? previousLength + 1 : table[code].length;
        if ((size_t)(outEnd - out) <= n) {
            stop = LZW_STOP_LONG; /* it would fit exactly, or not at all */
            break;
        }
        uint8_t first = kwkwk ? previousFirst : LZW_FIRST_BYTES(table)[code];
        LzwEntry made = {(uint16_t)previous, previousPrefix, (uint16_t)(previousLength + 1),
                         previousLast, first};
        table[nextFree] = made; /* for KwKwK this is the code's own entry */
        LZW_FIRST_BYTES(table)[nextFree] = previousFirst;
        LzwWriteStringAt(table, out, n, code, first);
        out += n;
        previousPrefix = table[code].prefix;
        previousLast = table[code].last;
        previousFirst = first;
        previous = code;
        previousLength = n;
        if (++nextFree == growAt) { /* limit - next free code = 1, or the block full */
            if (width == LZW_MAX_WIDTH) {
                stop = LZW_STOP_FULL;
                break;
            }
            width++;
            growAt = width < LZW_MAX_WIDTH ? (1 << width) - 1 : LZW_ENTRIES;
        }
    }
    b->bitPosition = bitPosition;
    b->width = width;
    b->mask = (1u << width) - 1;
    o->fill = (uint32_t)(out - o->buffer);
    t->previous = previous;
    t->nextFree = nextFree;
    t->limit = 1 << width;
    if (width == LZW_MAX_WIDTH)
        t->limit = nextFree < 4095 ? 4096 : 8192; /* as the doubling left it */
    t->code = code;
    return stop;
}

/* A code whose string does not fit the free room: LzwAppendLong, then the
 * new entry.  1 / 0 / negative as LzwAppendLong. */
static int LzwLongString(LzwBits *b, LzwOutput *o, LzwTableState *t)
{
    int kwkwk = t->code == t->nextFree;
    uint8_t first;
    int r = LzwAppendLong(o, kwkwk ? t->previous : t->code, kwkwk, &first);
    LZW_ADD_ENTRY(entries, first, t->previous, t->nextFree, t->limit, b->width, b->mask);
    t->previous = t->code;
    return r;
}

/* Every entry is taken: the rows the output holds go out, then only Clear
 * or end of information may follow.  Hardening: any other code would make
 * an entry beyond 4661: -3. */
static int LzwBlockFull(LzwBits *b, LzwOutput *o, LzwTableState *t)
{
    int r = LzwDeliverRows(o);
    if (r != 0)
        return r;
    t->code = LzwReadCode(b);
    if (t->code < 0)
        return t->code;
    if (t->code != LZW_CLEAR && t->code != LZW_END)
        return IMG_ERR_INVALID;
    r = LzwRestart(b, o, &t->code);
    t->previous = t->code;
    t->nextFree = LZW_FIRST_FREE;
    t->limit = 512;
    return r;
}

int LzwDecodeStrip(int handle, uint8_t *codedBuffer, int32_t firstRow, int32_t rowBytes,
                   uint8_t *output, int32_t outputSize, int32_t rowCount,
                   LzwRowAdapter adapter, void *context)
{
    if (!entryBlock)
        return IMG_ERR_MEMORY; /* LzwBeginImage was not called or failed */
    if (rowBytes < 1 || outputSize < rowBytes || !codedBuffer || !output || !adapter)
        return IMG_ERR_INVALID;
    if (rowCount < 1)
        return 1;

    LzwBits bits = {handle, codedBuffer, 0, 0, 9, 511};
    LzwOutput out = {output, (uint32_t)outputSize, 0, rowBytes, firstRow, rowCount, 0,
                     adapter, context};
    LzwTableState table = {0, LZW_FIRST_FREE, 512, 0};
    table.code = LzwReadCode(&bits);
    if (table.code < 0)
        return table.code;
    if (table.code != LZW_CLEAR)
        return IMG_ERR_INVALID;
    int r = LZW_STOP_SPECIAL;
    for (;;) {
        switch (r) {
        case LZW_STOP_ROWS:
            r = LzwDeliverRows(&out);
            break;
        case LZW_STOP_BITS:
            r = LzwRefill(&bits);
            break;
        case LZW_STOP_SPECIAL:
            r = LzwRestart(&bits, &out, &table.code);
            table.previous = table.code;
            table.nextFree = LZW_FIRST_FREE;
            table.limit = 512;
            break;
        case LZW_STOP_LONG:
            r = LzwLongString(&bits, &out, &table);
            break;
        case LZW_STOP_FULL:
            r = LzwBlockFull(&bits, &out, &table);
            break;
        default:
            return IMG_ERR_INVALID;
        }
        if (r != 0)
            return r; /* 1: the strip is complete; or an error */
        r = LzwDecodeCodes(&bits, &out, &table);
    }
}

/* ---- encoding ---- */

/* The string table: (prefix code, byte) -> code by open addressing over
 * 32768 four-byte slots, probed one slot on.  At most 3822 strings exist
 * between two Clears, so the table stays under an eighth full and nearly
 * every lookup ends at its first slot.  A slot holds
 * (prefix << 20 | byte << 12 | code); all ones is empty (code 4095 is never
 * assigned). */
#define LZW_HASH_BITS 15
#define LZW_HASH_SLOTS (1u << LZW_HASH_BITS)
#define LZW_HASH_MASK (LZW_HASH_SLOTS - 1)
#define LZW_HASH_BLOCK (LZW_HASH_SLOTS * 4)
#define LZW_SLOT_EMPTY 0xFFFFFFFFu
#define LZW_OUT_SIZE 2100
#define LZW_OUT_FLUSH 2000

/* The home slot of a (prefix << 8 | byte) key: the top bits of its product
 * with an odd constant near 2^32 / golden ratio, which scatters the keys of
 * neighbouring codes over the whole table. */
static inline uint32_t LzwHome(uint32_t key)
{
    return (key * 0x9E3779B1u) >> (32 - LZW_HASH_BITS);
}

typedef struct LzwEncoder {
    int handle;
    uint32_t *slots;       /* LZW_HASH_SLOTS, all ones when empty */
    uint8_t *out;          /* LZW_OUT_SIZE bytes */
    uint32_t outBytes;     /* whole bytes in out */
    uint64_t pending;      /* the bits after them, in the low pendingBits bits */
    uint32_t pendingBits;  /* 0 .. 7 between codes */
    uint32_t width;
    uint32_t nextFree;
    uint32_t limit;
} LzwEncoder;

static void LzwHashClear(LzwEncoder *e)
{
    memset(e->slots, 0xFF, LZW_HASH_BLOCK);
}

/* The first 2000 bytes go to the sink; the partly filled byte behind
 * them moves to the front. */
static int LzwFlush(LzwEncoder *e)
{
    if (ImgWrite(e->handle, e->out, LZW_OUT_FLUSH) != LZW_OUT_FLUSH)
        return IMG_ERR_WRITE;
    e->outBytes -= LZW_OUT_FLUSH;
    memcpy(e->out, e->out + LZW_OUT_FLUSH, 4);
    return 0;
}

/* Appends one code of `width` bits to the pending bits and writes them,
 * most significant first, as one big-endian word at the first unfinished
 * byte of out (the bits not yet written read as zeros); the whole bytes are
 * counted. */
static inline void LzwPackCode(uint8_t *out, uint32_t *outBytes, uint64_t *pending,
                               uint32_t *pendingBits, uint32_t code, uint32_t width)
{
    *pending = *pending << width | code;
    *pendingBits += width;
    PutBE32(out + *outBytes, (uint32_t)((*pending << 32) >> *pendingBits));
    *outBytes += *pendingBits >> 3;
    *pendingBits &= 7;
}

/* Writes one code of the current width, flushing 2000 bytes when full. */
static int LzwPutCode(LzwEncoder *e, uint32_t code)
{
    LzwPackCode(e->out, &e->outBytes, &e->pending, &e->pendingBits, code, e->width);
    return e->outBytes >= LZW_OUT_FLUSH ? LzwFlush(e) : 0;
}

static void LzwEncoderReset(LzwEncoder *e)
{
    LzwHashClear(e);
    e->width = 9;
    e->nextFree = LZW_FIRST_FREE;
    e->limit = 512;
}

/* The rare step after a code went out and its string was entered: a full
 * output buffer goes to the sink, and when the next free code reaches the
 * limit the width grows or, at 12 bits, Clear goes out and the table
 * empties (early change). */
static int LzwAfterCode(LzwEncoder *e)
{
    if (e->outBytes >= LZW_OUT_FLUSH) {
        int r = LzwFlush(e);
        if (r < 0)
            return r;
    }
    if (e->nextFree < e->limit)
        return 0;
    if (e->width < LZW_MAX_WIDTH) {
        e->width++;
        e->limit = e->width == LZW_MAX_WIDTH ? LZW_ENCODE_LIMIT_12 : 1u << e->width;
        return 0;
    }
    int r = LzwPutCode(e, LZW_CLEAR);
    LzwEncoderReset(e);
    return r;
}

/* Past a first slot that holds another string: the slot of `key`, or the
 * empty slot where it would go (*s receives the slot's contents). */
static uint32_t LzwProbe(const uint32_t *slots, uint32_t slot, uint32_t key, uint32_t *s)
{
    do {
        slot = (slot + 1) & LZW_HASH_MASK;
        *s = slots[slot];
    } while (*s >> 12 != key && *s != LZW_SLOT_EMPTY);
    return slot;
}

/* Encodes `count` bytes continuing the string *string.  The loop runs on
 * locals and leaves them only for LzwAfterCode.  Whether a byte extends
 * the string or starts a new one is as likely as not on photographs, so
 * both outcomes are computed without a branch: the code goes out with
 * zero bits when the string goes on, and the slot gets back its own
 * contents. */
static int LzwEncodeBytes(LzwEncoder *e, const uint8_t *bytes, int32_t count, uint32_t *string)
{
    uint32_t current = *string;
    uint32_t *const slots = e->slots;
    uint8_t *const out = e->out;
    uint64_t pending = e->pending;
    uint32_t pendingBits = e->pendingBits, outBytes = e->outBytes;
    uint32_t width = e->width, nextFree = e->nextFree, limit = e->limit;
    for (int32_t i = 0; i < count; i++) {
        uint32_t byte = bytes[i], key = current << 8 | byte;
        uint32_t slot = LzwHome(key);
        uint32_t s = slots[slot];
        if (s >> 12 != key && s != LZW_SLOT_EMPTY)
            slot = LzwProbe(slots, slot, key, &s);
        uint32_t isNew = s == LZW_SLOT_EMPTY, newMask = 0u - isNew;
        LzwPackCode(out, &outBytes, &pending, &pendingBits, current & newMask, width & newMask);
        slots[slot] = isNew ? key << 12 | nextFree : s;
        current = isNew ? byte : s & 0xFFF;
        nextFree += isNew;
        if (nextFree == limit || outBytes >= LZW_OUT_FLUSH) {
            e->pending = pending;
            e->pendingBits = pendingBits;
            e->outBytes = outBytes;
            e->nextFree = nextFree;
            int r = LzwAfterCode(e);
            if (r < 0)
                return r;
            pending = e->pending;
            pendingBits = e->pendingBits;
            outBytes = e->outBytes;
            width = e->width;
            nextFree = e->nextFree;
            limit = e->limit;
        }
    }
    e->pending = pending;
    e->pendingBits = pendingBits;
    e->outBytes = outBytes;
    e->nextFree = nextFree;
    *string = current;
    return 0;
}

/* The end sequence: last string, width check, 257, remaining bytes. */
static int LzwFinish(LzwEncoder *e, uint32_t string, int haveString)
{
    int r = 0;
    if (haveString) {
        r = LzwPutCode(e, string);
        if (r < 0)
            return r;
        if (e->nextFree + 1 == e->limit && e->width < LZW_MAX_WIDTH)
            e->width++;
    }
    r = LzwPutCode(e, LZW_END);
    if (r < 0)
        return r;
    uint32_t bytes = e->outBytes + (e->pendingBits != 0);
    if (bytes && ImgWrite(e->handle, e->out, bytes) != (int32_t)bytes)
        return IMG_ERR_WRITE;
    return 0;
}

/* Swaps the first and third byte of every 3-byte pixel (B,G,R -> R,G,B). */
static void LzwSwapRgb(uint8_t *row, int32_t rowBytes)
{
    for (int32_t i = 0; i + 2 < rowBytes; i += 3) {
        uint8_t t = row[i];
        row[i] = row[i + 2];
        row[i + 2] = t;
    }
}

static int LzwEncodeRows(LzwEncoder *e, uint8_t *row, int32_t rowBytes, int bitCount,
                         ImgRowSource rowSource, void *sourceContext, int32_t firstRow,
                         int32_t rowCount)
{
    int r = LzwPutCode(e, LZW_CLEAR);
    if (r < 0)
        return r;
    uint32_t string = 0;
    int haveString = 0;
    for (int32_t y = 0; y < rowCount; y++) {
        r = rowSource(sourceContext, row, firstRow + y, rowBytes);
        if (r < 0)
            return r;
        if (bitCount == 24)
            LzwSwapRgb(row, rowBytes);
        const uint8_t *bytes = row;
        int32_t count = rowBytes;
        if (!haveString && count > 0) {
            string = bytes[0];
            haveString = 1;
            bytes++;
            count--;
        }
        r = LzwEncodeBytes(e, bytes, count, &string);
        if (r < 0)
            return r;
    }
    return LzwFinish(e, string, haveString);
}

int LzwEncodeStrip(int handle, const uint8_t *header, ImgRowSource rowSource,
                   void *sourceContext, int32_t firstRow, int32_t rowCount)
{
    int32_t width = (int32_t)GetLE32(header + 4);
    int bitCount = GetLE16(header + 14);
    int64_t rowBytes64 = ((int64_t)bitCount * width + 7) / 8;
    if (width < 0 || rowBytes64 > INT32_MAX - 16)
        return IMG_ERR_INVALID;
    int32_t rowBytes = (int32_t)rowBytes64;

    LzwEncoder e;
    memset(&e, 0, sizeof e);
    e.handle = handle;
    e.slots = static_cast<uint32_t *>(ImgAlloc(LZW_HASH_BLOCK));
    e.out = static_cast<uint8_t *>(ImgAlloc(LZW_OUT_SIZE));
    uint8_t *row = static_cast<uint8_t *>(ImgAlloc((size_t)rowBytes + 16));
    int r = IMG_ERR_MEMORY;
    if (e.slots && e.out && row) {
        memset(e.out, 0, LZW_OUT_SIZE);
        LzwEncoderReset(&e);
        r = LzwEncodeRows(&e, row, rowBytes, bitCount, rowSource, sourceContext, firstRow,
                          rowCount);
    }
    ImgFree(row);
    ImgFree(e.out);
    ImgFree(e.slots);
    return r;
}
