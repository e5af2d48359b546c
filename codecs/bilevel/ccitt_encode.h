/*
 * ccitt_encode.h - Part 2.2: the CCITT encoders.  Used by the TIFF writers
 * (save types 7, 8, 10, 51; Part 2.4), the CALS writer (Part 2.7) and the raw
 * fax save types 33, 53, 34 and 52.
 */
#ifndef TRNW_CCITT_ENCODE_H
#define TRNW_CCITT_ENCODE_H

#include <stdint.h>

#include "../../core/contracts.h"

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

#endif /* TRNW_CCITT_ENCODE_H */
