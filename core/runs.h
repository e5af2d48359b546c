/*
 * runs.h - run records (the form the decoders emit) and the run-coded row
 * store of the image table.  Every module that touches coded rows goes through these.
 *
 * A run record is an array of 16-bit words: word 0 the byte length of the
 * record, then the positions at which the colour changes, in pairs that
 * bound the runs of 0-bits (the row starts with 1-bits), then terminators at
 * or beyond the width.  Records are 2-byte aligned in memory.
 */
#ifndef TRNW_RUNS_H
#define TRNW_RUNS_H

#include <stddef.h>
#include <stdint.h>

#include "core/contracts.h"
#include "core/descriptor.h"

/* Positions are 16-bit: widths up to this can be run-coded. */
#define RUN_MAX_WIDTH 65534

/* Bytes a record of a row of `width` pixels can need (every pixel a change,
 * plus the length word and four terminators). */
static inline size_t RunRecordMaxBytes(int32_t width)
{
    return 2u + 2u * (size_t)width + 8u;
}

/* Codes the packed 1-bit row (most significant bit first) of `width`
 * pixels into `record`: the changes, then `width` three times, four times
 * when the length would otherwise equal the row's 1-bit stride.  Returns the
 * record's byte length. */
int RunEncodeRow(const uint8_t *row, int32_t width, uint16_t *record);

/* The same for a row given by its changes: bit x % 64 of word x / 64 is set
 * where pixel x differs from pixel x - 1 (pixel -1 white); bits at and
 * beyond the width are not read as changes. */
int RunEncodeChanges(const uint64_t *changes, int32_t width, uint16_t *record);

/* The record of an all-white row (what RunEncodeRow gives for one); room
 * for 5 words.  Returns its byte length. */
int RunWhiteRecord(int32_t width, uint16_t *record);

/* Expands a record of `recordBytes` bytes into `row` (`rowBytes` bytes):
 * fills it with 0xFF and clears every listed run of 0-bits.  Positions are
 * clipped to the width and to the row; any record, however malformed, only
 * touches `row`. */
void RunExpandRow(const uint16_t *record, uint32_t recordBytes, int32_t width, uint8_t *row,
                  uint32_t rowBytes);

/* The same for the columns left .. left + width - 1 of the record's row,
 * shifted to start at 0 (crop extraction: the scaler at 1.0). */
void RunExpandRowAt(const uint16_t *record, uint32_t recordBytes, int32_t left, int32_t width,
                    uint8_t *row, uint32_t rowBytes);

/* The number of changes of a record that is plain: positions strictly
 * increasing below the width, then the row's end (a position at or beyond
 * the width, or the end of the record) where the expansion stops.  Then the
 * changes are record[1 .. count] and the row's pixels are exactly the runs
 * they bound.  -1 for any other record (zero-length or overlapping runs,
 * positions out of order): RunExpandRow gives its pixels. */
int32_t RunPlainChangeCount(const uint16_t *record, uint32_t recordBytes, int32_t width);

/* Clips a record to the columns left .. left + width - 1 for the decode
 * pipeline's sub-rectangle: positions before left are skipped (an odd count starts
 * the output with a 0 position), the positions inside are shifted by left, copying
 * stops at left + width, and width is appended twice.  `out` needs
 * recordBytes + 6 bytes.  Returns the new length in bytes. */
int RunClipRecord(const uint16_t *record, uint32_t recordBytes, int32_t left, int32_t width,
                  uint16_t *out);

/* ---- the row store of a codedRows image ---- */

/* The row index's size: (n + n/2) * 4 + 800 bytes, n the larger of width
 * and height. */
size_t RunStoreIndexBytes(int32_t width, int32_t height);
/* Allocates the zeroed row index.  NULL on failure. */
uint32_t *RunStoreAllocateIndex(int32_t width, int32_t height);
/* The record of row `row`, or NULL when the index does not describe one
 * inside the store.  *bytes receives its length (0 for a row never stored). */
const uint16_t *RunStoreRow(const ImgDescriptor *d, int32_t row, uint32_t *bytes);
/* Makes room for a store ending at byte `end` of the block (header and
 * palette included): when `end` passes dibSize, dibSize becomes
 * trunc(height / rowsStored * dibSize) + 32768 (an extrapolation from the rows so far;
 * rowsStored is row + 10, or the row index in the sub-rectangle path), never
 * less than `end` needs, and the block is reallocated to dibSize + 200 bytes.
 * A non-zero `ceiling` caps dibSize: -1 when `end` passes it.  0 or -1. */
int RunStoreReserve(ImgDescriptor *d, uint64_t end, double rowsStored, uint64_t ceiling = 0);
/* Appends `record` as row `row` at rowIndex[row] and sets rowIndex[row + 1]. */
int RunStoreAppend(ImgDescriptor *d, int32_t row, const uint16_t *record, uint32_t bytes,
                   double rowsStored, uint64_t ceiling = 0);
/* Reverses the order of the rows of a complete store (top becomes bottom). */
int RunStoreReverseRows(ImgDescriptor *d);
/* Stores `record` as row `row` in place of what the row held, moving the
 * rows behind it.  0 or -1. */
int RunStoreReplaceRow(ImgDescriptor *d, int32_t row, const uint16_t *record, uint32_t bytes,
                       uint64_t ceiling = 0);

/* ---- rows handed over as records ----
 * A writer pulls packed rows from its row source.  The save pipeline's own
 * row source can also hand over the record a run-coded image stores for a
 * row, which spares a CCITT coder expanding the row only to find its
 * changes again.  The coders sit below the pipeline, so the pipeline
 * registers the pair here and a coder asks for the record source that goes
 * with the row source it was given.
 * A record source returns 1 with the row's record (its progress reported
 * and its index checked as the row source does), 0 when that row is to come
 * from the row source instead (nothing done yet), or a negative code. */
typedef int (*RunRecordSource)(void *sourceContext, int rowIndex, const uint16_t **record,
                               uint32_t *recordBytes);
void RunSetRecordSource(ImgRowSource rowSource, RunRecordSource recordSource);
/* The record source registered with `rowSource`, or NULL. */
RunRecordSource RunRecordSourceOf(ImgRowSource rowSource);

/* ---- record transforms (flip left-right, invert) ----
 * Both read at most recordBytes bytes of `record`, write only the length
 * they return, and with `out` NULL only measure.  `out` must not overlap
 * `record`. */

/* The mirror of a record over `width`: its positions t below the width,
 * each toggling a parity, turned into width - t when t is not 0, written in
 * reverse order behind a leading 0 when the parity is odd; then width three
 * times, four times when the length would equal the 1-bit stride.  Returns
 * the length: 2 * k + 8 with k the nonzero positions below the width (+2
 * with the leading 0, +2 with the fourth width). */
int RunMirrorRecord(const uint16_t *record, uint32_t recordBytes, int32_t width, uint16_t *out);

/* The complement of a record: a first position of 0 is removed (length - 2),
 * any other record gets a 0 in front (length + 2).  Returns the length. */
int RunInvertRecord(const uint16_t *record, uint32_t recordBytes, uint16_t *out);

#endif /* TRNW_RUNS_H */
