/*
 * xbm.h - X bitmap: C source text with two #define lines for the size and
 * an array of 8- or 16-bit items holding the pixels, first pixel in the
 * least significant bit and 1 for black.  The reader (file type 20) and the
 * writer (save type 20).
 */
#ifndef TRNW_XBM_H
#define TRNW_XBM_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* File type 20 ("xbm"): the first #define gives the width and the second
 * the height, whatever their names; further #define lines are skipped; the
 * declaration ("static [unsigned] char" or "short") chooses the item size.
 * Items are hexadecimal (0x) or decimal.  The header sink gets a 1-bit
 * header with black as entry 0.  0, -3 for text it cannot read, -1 for
 * memory, or a negative sink result. */
int XbmRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);

/* Save type 20: 1-bit images only (-21 otherwise), as an "untitled" char
 * array of 12 items a line.  The palette is not looked at: bit 1 is
 * written as white. */
int XbmWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kXbmFormat;

#endif /* TRNW_XBM_H */
