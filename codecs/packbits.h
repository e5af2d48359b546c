/*
 * packbits.h - PackBits row encoding for the TIFF writer.  (PackBits
 * decoding lives in the TIFF reader's PackBits strip path.)
 */
#ifndef TRNW_PACKBITS_H
#define TRNW_PACKBITS_H

#include <stdint.h>

/* Encodes one row of rowBytes bytes (the buffer has at least 2 bytes of slack
 * behind the row, which the comparisons may read) and writes it to `handle`
 * with one write.  0, -1 memory, -9 short write. */
int PackBitsEncodeRow(int handle, const uint8_t *row, int32_t rowBytes);

#endif /* TRNW_PACKBITS_H */
