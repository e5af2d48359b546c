/*
 * ccitt_encode.h - the CCITT encoders.  Used by the TIFF writers
 * (save types 7, 8, 10, 51), the CALS writer and the raw
 * fax save types 33, 53, 34 and 52.
 */
#ifndef TRNW_CCITT_ENCODE_H
#define TRNW_CCITT_ENCODE_H

#include <stdint.h>

#include "core/contracts.h"

/* Both encoders code the rows of `header` (a 1-bit BITMAPINFOHEADER: biWidth
 * pixels, biHeight rows), fetched top row first from rowSource with the
 * unpadded row size (biWidth + 7) / 8, and write the code to the byte sink
 * `handle` with ImgWrite.
 * One-dimensional: mode 2 (byte-aligned rows, no EOL) or 3 (EOLs); the output
 * is bit-reversed only when mode is 3 and lsbFirst is 1.
 * Two-dimensional (T.6): mode 4; the output is bit-reversed when lsbFirst is 1.
 * Result: 0, -1 memory, -9 short write, or the row source's negative result. */
int CcittEncode1D(int handle, const uint8_t *header, ImgRowSource rowSource,
                  void *sourceContext, int lsbFirst, int mode);
int CcittEncode2D(int handle, const uint8_t *header, ImgRowSource rowSource,
                  void *sourceContext, int lsbFirst, int mode);

/* Either coder by mode (2 or 3: one-dimensional; any other: T.6), with the
 * framed block variant when `framed` is non-zero: each flushed block goes out
 * behind the bytes 0xFE, 0x92 and its byte count, big-endian 16-bit. */
int CcittEncodeFramed(int handle, const uint8_t *header, ImgRowSource rowSource,
                      void *sourceContext, int lsbFirst, int mode, int framed);

/* The code table entry for a run of `colour` (0 white, 1 black): the code
 * word right-aligned and its length in bits.  Runs 0..63, 64..2560 in steps
 * of 64; -3 for any other run (tests read the table through this). */
int CcittEncodeCode(int colour, int run, uint16_t *code, uint16_t *length);

#endif /* TRNW_CCITT_ENCODE_H */
