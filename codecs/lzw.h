/*
 * lzw.h - TIFF LZW (TIFF 6.0 scheme, early change).  The strip loop
 * over a TIFF's strips belongs to the TIFF reader, which calls
 * LzwDecodeStrip once per strip.
 */
#ifndef TRNW_LZW_H
#define TRNW_LZW_H

#include <stdint.h>

#include "core/contracts.h"

#define LZW_CODED_BUFFER_SIZE (10000 + 1000) /* the decoder's coded buffer */

/* The TIFF row adapter: receives each decoded row (rowBytes bytes, which it
 * may change in place) with its absolute row index; 0 or a negative code. */
typedef int (*LzwRowAdapter)(uint8_t *row, int rowIndex, int rowBytes, void *context);

/* Allocates the 41960-byte entry block when a LZW image starts (-1 when it
 * cannot), and frees it at the image's end (safe to call twice). */
int LzwBeginImage(void);
void LzwEndImage(void);

/* Decodes one strip read from `handle` (positioned at the strip) into rows of
 * rowBytes bytes, delivering rows firstRow .. firstRow + rowCount - 1 to the
 * adapter.  codedBuffer holds LZW_CODED_BUFFER_SIZE bytes; output at least
 * 4 x rowBytes (10 x rowBytes for 1-bit images) plus slack.
 * 1 when the strip is complete, -3 bad code, -12 failed read, or the
 * adapter's negative result. */
int LzwDecodeStrip(int handle, uint8_t *codedBuffer, int32_t firstRow, int32_t rowBytes,
                   uint8_t *output, int32_t outputSize, int32_t rowCount,
                   LzwRowAdapter adapter, void *context);

/* Encodes rows firstRow .. firstRow + rowCount - 1 of the image described by
 * `header` (rows fetched from rowSource with the unpadded row size
 * (biBitCount x biWidth + 7) / 8; 24-bit pixels swapped to R,G,B) as one LZW
 * stream written to `handle`.  0, -1 memory, -9 write failure, or the row
 * source's negative result. */
int LzwEncodeStrip(int handle, const uint8_t *header, ImgRowSource rowSource,
                   void *sourceContext, int32_t firstRow, int32_t rowCount);

#endif /* TRNW_LZW_H */
