/*
 * tga.h - Targa: the reader (file type 3) and the writers of save types 3
 * and 32.
 */
#ifndef TRNW_TGA_H
#define TRNW_TGA_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* File type 3 ("tga"): 8, 16, 24 and 32 bits a pixel, uncompressed or
 * run-length encoded (image types 9, 10, 11), into 8-bit (depth 8) or
 * 24-bit images.  Returns 1 on success, -12 for a short header or pixel
 * data, -3 for an unsupported depth or geometry, -1 for memory, or a
 * negative sink result.  Image type 156 is a JPEG stream right behind the
 * 18-byte header: the JPEG decoder's result. */
int TgaRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);
/* Save type 3: 8-bit colour-mapped (type 1), 8-bit grey (type 3) when every
 * palette entry is grey, else 24-bit true colour (type 2); uncompressed,
 * bottom row first.  -21 below 5 bits. */
int TgaWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 32: 15-bit true colour (5-5-5) from a 24-bit image; -7 for any
 * other depth. */
int TgaWrite16(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kTgaFormat; /* file type 3, save types 3 and 32 */

#endif /* TRNW_TGA_H */
