/*
 * fuzz_ccitt_encode.c - libFuzzer target for the CCITT encoders.
 *
 * The encoder reads no file, but it runs over any row bytes and widths; the
 * input gives the width (1..4096, from its first 12 bits), the variant
 * (bit 13: rows handed over as records, else bit 12: framed, else
 * lsbFirst), the height (1..64, bits 0-5 of the third byte), the coder (bits 6-7: mode 2, mode 3, T.6) and the row bytes
 * (the rest, repeated as needed).  The rows are cut to 32 pixels a byte of
 * row data (4096 at least, one row always), so that a run's work follows its
 * input: the coder's buffer flush (at 10000 bytes of code) comes within reach
 * of inputs of a few hundred bytes, its gathering of blocks (64 KiB of code,
 * 116000 pixels or more) of inputs of 3.6 KiB whose pixels alternate.  The
 * coder runs into the memory image plain and, up to 65536 pixels (the
 * variants' own paths need no more), as the variant, and checks:
 *   - the result is 0 and the output fits a bound of 8 bits a pixel plus the
 *     end codes (every row's codes are below that);
 *   - mode 3 starts with the EOL word 00 01 and ends with five EOL words and
 *     a zero word; T.6 output is never empty;
 *   - with lsbFirst 1 each byte of modes 3 and 4 is the bit reverse of the
 *     lsbFirst 0 output, and mode 2 is unchanged;
 *   - the framed variant, its frames removed, is the plain output;
 *   - rows handed over as records (hostile ones: positions out of order,
 *     empty runs, beyond the width, with or without an end) code as their
 *     expansions do.
 * ASan sees any read outside the row or write outside the buffers.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "codecs/ccitt_encode.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "fuzz/fuzz_support.h"

typedef struct {
    const uint8_t *data;
    size_t size;
} Rows;

FUZZ_NO_COVERAGE static int RowSource(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    const Rows *r = static_cast<const Rows *>(context);
    if (!r->size) {
        memset(buffer, 0xFF, (size_t)rowBytes);
        return 0;
    }
    size_t from = (size_t)rowIndex * (size_t)rowBytes % r->size;
    for (int i = 0; i < rowBytes; i++) {
        buffer[i] = r->data[from];
        from = from + 1 < r->size ? from + 1 : 0;
    }
    return 0;
}

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_ccitt_encode: %s\n", what);
    abort();
}

FUZZ_NO_COVERAGE static uint8_t Reverse(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; i++)
        if (b & (1 << i))
            r |= (uint8_t)(0x80 >> i);
    return r;
}

/* ---- rows as records ---- */

typedef struct {
    Rows rows;
    int32_t width;
    uint8_t *bytes;    /* the row bytes a record is made of */
    uint16_t *record;  /* 1 + rowBytes + 1 words */
} Records;

/* Row r's record, made of its row bytes: each byte a step from the last
 * position to the next (its low 5 bits, 0 making an empty run; a byte of
 * 0xF0 or more steps back instead), ended by the width when the first byte
 * is odd.  Its byte count; 0 when the first byte is 0xEE (no record). */
FUZZ_NO_COVERAGE static uint32_t MakeRecord(Records *c, int rowIndex)
{
    int rowBytes = (c->width + 7) / 8;
    RowSource(&c->rows, c->bytes, rowIndex, rowBytes);
    if (c->bytes[0] == 0xEE)
        return 0;
    uint32_t n = 1;
    int32_t position = 0;
    for (int i = 0; i < rowBytes; i++) {
        uint8_t b = c->bytes[i];
        position += b >= 0xF0 ? -(b & 15) : b & 31;
        position = position < 0 ? 0 : position > 65535 ? 65535 : position;
        c->record[n++] = (uint16_t)position;
    }
    if (c->bytes[0] & 1)
        c->record[n++] = (uint16_t)c->width;
    c->record[0] = (uint16_t)(2 * n);
    return 2 * n;
}

FUZZ_NO_COVERAGE static int ExpandedRows(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    Records *c = static_cast<Records *>(context);
    uint32_t bytes = MakeRecord(c, rowIndex);
    RunExpandRow(c->record, bytes, c->width, buffer, (uint32_t)rowBytes);
    return 0;
}

/* The same rows again, for the pair registered below (a different function). */
FUZZ_NO_COVERAGE static int RecordRows(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    return ExpandedRows(context, buffer, rowIndex, rowBytes);
}

FUZZ_NO_COVERAGE static int HandOverRecord(void *context, int rowIndex, const uint16_t **record,
                                           uint32_t *recordBytes)
{
    Records *c = static_cast<Records *>(context);
    *recordBytes = MakeRecord(c, rowIndex);
    *record = c->record;
    return *recordBytes ? 1 : 0;
}

/* One encode into `out`; the byte count. */
static size_t EncodeFrom(uint8_t *out, size_t capacity, const uint8_t *header, ImgRowSource source,
                         void *context, int mode, int lsbFirst, int framed)
{
    ImgSetMemorySourceSized(out, (uint32_t)capacity);
    int result = CcittEncodeFramed(IMG_MEMORY_HANDLE, header, source, context, lsbFirst, mode, framed);
    if (result != 0)
        Fail("encode failed");
    size_t n = ImgTell();
    if (n >= capacity)
        Fail("output beyond the bound");
    return n;
}

static size_t Encode(uint8_t *out, size_t capacity, const uint8_t *header, Rows *rows, int mode,
                     int lsbFirst, int framed)
{
    return EncodeFrom(out, capacity, header, RowSource, rows, mode, lsbFirst, framed);
}

FUZZ_NO_COVERAGE static size_t Unframe(uint8_t *bytes, size_t n)
{
    size_t in = 0, out = 0;
    while (in < n) {
        if (in + 4 > n || bytes[in] != 0xFE || bytes[in + 1] != 0x92)
            Fail("bad frame");
        size_t count = (size_t)bytes[in + 2] << 8 | bytes[in + 3];
        if (count > 10000 || in + 4 + count > n)
            Fail("bad frame count");
        memmove(bytes + out, bytes + in + 4, count);
        out += count;
        in += 4 + count;
    }
    return out;
}

/* The lsbFirst output against the plain one: each byte reversed (modes 3
 * and 4) or the same (mode 2). */
FUZZ_NO_COVERAGE static bool Reversed(const uint8_t *a, const uint8_t *b, size_t n, int mode)
{
    for (size_t i = 0; i < n; i++)
        if (b[i] != (mode == 2 ? a[i] : Reverse(a[i])))
            return false;
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    int32_t width = 1 + ((data[0] | data[1] << 8) & 4095), height = 1 + (data[2] & 63);
    size_t pixels = 32 * (size - 3) > 4096 ? 32 * (size - 3) : 4096;
    if ((size_t)height * (size_t)width > pixels)
        height = pixels / (size_t)width > 0 ? (int32_t)(pixels / (size_t)width) : 1;
    int mode = 2 + (data[2] >> 6) % 3;
    Rows rows = {data + 3, size - 3};
    uint8_t header[40] = {40};
    header[4] = (uint8_t)width, header[5] = (uint8_t)(width >> 8);
    header[8] = (uint8_t)height;
    header[12] = 1, header[14] = 1;
    size_t capacity = (size_t)width * (size_t)height + 64 * (size_t)height + 1024;
    uint8_t *a = static_cast<uint8_t *>(malloc(capacity)), *b = static_cast<uint8_t *>(malloc(capacity + 4 * (capacity / 9000 + 2 * (size_t)height + 2)));
    if (!a || !b)
        Fail("no memory");
    size_t n = Encode(a, capacity, header, &rows, mode, 0, 0);
    if (mode == 3) {
        static const uint8_t end[12] = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 0};
        if (n < 14 || a[0] != 0 || a[1] != 1 || memcmp(a + n - 12, end, 12) != 0)
            Fail("mode 3 framing");
    }
    if (mode == 4 && n == 0)
        Fail("empty T.6 output");
    if ((size_t)width * (size_t)height > 65536) {
        /* the plain coder only */
    } else if (data[1] & 0x20) {
        size_t rowBytes = (size_t)(width + 7) / 8;
        uint8_t *bytes = static_cast<uint8_t *>(malloc(rowBytes));
        uint16_t *record = static_cast<uint16_t *>(malloc((rowBytes + 2) * 2));
        if (!bytes || !record)
            Fail("no memory");
        Records records = {rows, width, bytes, record};
        RunSetRecordSource(RecordRows, HandOverRecord);
        size_t m = EncodeFrom(a, capacity, header, RecordRows, &records, mode, 0, 0);
        if (EncodeFrom(b, capacity, header, ExpandedRows, &records, mode, 0, 0) != m ||
            memcmp(a, b, m) != 0)
            Fail("records code otherwise than their expansions");
        RunSetRecordSource(NULL, NULL);
        free(bytes);
        free(record);
    } else if (data[1] & 0x10) {
        size_t m = Encode(b, capacity + 4 * (capacity / 9000 + 2 * (size_t)height + 2), header, &rows, mode, 0, 1);
        if (Unframe(b, m) != n || memcmp(a, b, n) != 0)
            Fail("framed output differs");
    } else {
        if (Encode(b, capacity, header, &rows, mode, 1, 0) != n)
            Fail("lsbFirst changed the length");
        if (!Reversed(a, b, n, mode))
            Fail("lsbFirst output is not the bit reverse");
    }
    free(a);
    free(b);
    return 0;
}
