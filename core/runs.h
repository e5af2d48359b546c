/*
 * runs.h - run records (Part 1.4's form) and the run-coded row store of
 * Part 1.1.  Every module that touches coded rows goes through these.
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

#include "image_table.h"

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

/* Expands a record of `recordBytes` bytes into `row` (`rowBytes` bytes):
 * fills it with 0xFF and clears every listed run of 0-bits.  Positions are
 * clipped to the width and to the row; any record, however malformed, only
 * touches `row`. */
void RunExpandRow(const uint16_t *record, uint32_t recordBytes, int32_t width, uint8_t *row,
                  uint32_t rowBytes);

/* ---- the row store of a codedRows image ---- */

/* Allocates the zeroed row index of (n + n/2) * 4 + 800 bytes, n the larger
 * of width and height.  NULL on failure. */
uint32_t *RunStoreAllocateIndex(int32_t width, int32_t height);
/* The record of row `row`, or NULL when the index does not describe one
 * inside the store.  *bytes receives its length (0 for a row never stored). */
const uint16_t *RunStoreRow(const ImgDescriptor *d, int32_t row, uint32_t *bytes);
/* Makes room for a store ending at byte `end` of the block (header and
 * palette included): when `end` passes dibSize, dibSize grows by the
 * extrapolation of Part 1.4 from `row` rows stored so far and the block is
 * reallocated to dibSize + 200 bytes.  0 or -1. */
int RunStoreReserve(ImgDescriptor *d, uint64_t end, int32_t row);
/* Stores `record` as row `row` in place of what the row held, moving the
 * rows behind it.  0 or -1. */
int RunStoreReplaceRow(ImgDescriptor *d, int32_t row, const uint16_t *record, uint32_t bytes);

#endif /* TRNW_RUNS_H */
