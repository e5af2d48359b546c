/*
 * tiff_write.h - the TIFF writers.  One IFD writer shared by every TIFF
 * save type (0, 7, 8, 9, 10, 16, 40, 51); each writes a
 * little-endian single-strip page, as a new file or appended to an "II" TIFF
 * already at the sink.
 */
#ifndef TRNW_TIFF_WRITE_H
#define TRNW_TIFF_WRITE_H

#include <stdint.h>

#include "core/contracts.h"

/* Bytes of an IFD's out-of-line block before the ColorMap or BitsPerSample
 * values: next-IFD offset (4) and the two resolutions (16); and the fixed
 * texts behind them. */
#define TIFF_WRITE_DATE_BYTES 40    /* written whole though its entry says 20 */
#define TIFF_WRITE_ARTIST_BYTES 200
#define TIFF_WRITE_MAX_CHAIN 65536  /* hardening: IFDs followed when appending */

/* Save type 0: uncompressed, any depth; 24-bit rows written R, G, B. */
int TiffWriteUncompressed(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save types 7 and 8 with their TIFF compression number, 2 or 3 (the fifth
 * argument of the writer contract); 1 bit only.  Any other number gives -7. */
int TiffWriteCcitt1D(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext,
                     int compression);
/* The registry's four-argument forms of types 7 and 8. */
int TiffWriteHuffman(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
int TiffWriteGroup3(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 9: LZW, any depth. */
int TiffWriteLzw(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 10: Group 4, FillOrder 2 (least significant bit first); 1 bit. */
int TiffWriteGroup4(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 16: PackBits, one row at a time; 1 bit. */
int TiffWritePackBits(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 40: compression 6, one JPEG stream (JFIF) as the strip, and
 * JPEGInterchangeFormat pointing at its start.  -21 below 5 bits or at
 * 16 bits; an 8-bit image whose palette is not a grey ramp, and a 32-bit
 * one, are written as 24-bit. */
int TiffWriteJpeg(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 51: Group 4, FillOrder 1 (most significant bit first); 1 bit. */
int TiffWriteGroup4Msb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* Any of the above by save type; -7 for a type that is not a TIFF save type. */
int TiffWritePage(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext,
                  int saveType);

#endif /* TRNW_TIFF_WRITE_H */
