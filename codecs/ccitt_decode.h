/*
 * ccitt_decode.h - the CCITT Group 3 and Group 4 decoders.
 * Used by the TIFF reader, the CALS reader and the raw
 * fax entry points IMG_decompress_fax and IMG_decompress_fax_mem.
 */
#ifndef TRNW_CCITT_DECODE_H
#define TRNW_CCITT_DECODE_H

#include <stdint.h>

#include "core/contracts.h"

#define CCITT_CHUNK 10000 /* bytes of the byte source read per refill */

/* The decoder parameter record, filled by the caller. */
typedef struct CcittParameters {
    int32_t height;       /* rows of the whole image (not of the strip) */
    uint16_t width;       /* pixels per row, below 65535 */
    int32_t rowsPerStrip; /* for the TIFF strip loop; not read by the decoders */
    uint32_t codedBytes;  /* bytes already in the buffer (non-reading modes) */
    int32_t mode;         /* 2, 3, 128: one-dimensional; 45 or other: 2-D Group 3; 4 or other: Group 4 */
    int32_t whiteIsZero;  /* 1 normal sense; 0 inverted (a leading 0 in 1-D and Group 4 records) */
    int32_t fillOrder;    /* 2: first bit in the least significant bit; else most significant */
} CcittParameters;

/* The three decoders share one signature.
 * buffer: the coded-data buffer of at least CCITT_CHUNK + 300 bytes (the
 * non-reading modes: codedBytes of data and at least 300 bytes of slack);
 * rowCount rows from absolute row firstRow (firstRow 0 sets up, later calls
 * continue the reference row); handle: the byte source read with ImgRead;
 * each run record goes to rowCallback(record, context, rowIndex, recordBytes).
 * Result: the last callback result (0 or positive), -1 memory, -3 missing
 * EOL, or a negative callback result. */
int CcittDecode1D(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context);
int CcittDecode2D(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context);
int CcittDecodeG4(uint8_t *buffer, int32_t rowCount, int32_t firstRow,
                  const CcittParameters *parameters, int handle, ImgRowSink rowCallback,
                  void *context);

/* The absolute index after the last row of the last call that still
 * held coded data (the rows behind a page end or the end of the data are
 * emitted white and not counted); IMG_decompress_fax with height 0 takes it
 * as the image's height. */
int32_t CcittRowsProduced(void);

#endif /* TRNW_CCITT_DECODE_H */
