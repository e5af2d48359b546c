/*
 * bmp.h - BMP and DIB reader and writers.
 */
#ifndef TRNW_BMP_H
#define TRNW_BMP_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* File types 1 ("bmp") and 48 ("dib").  Returns 1 on success. */
int BmpRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);
/* Save type 1: file header, info header, palette, rows bottom-up. */
int BmpWriteFile(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 48: the same without the file header. */
int BmpWritePacked(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 12, "compressed bitmap": RLE8 for 8-bit and RLE4 for 4-bit
 * images with a file header; any other depth gives -21. */
int BmpWriteCompressed(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kBmpFormat; /* file types 1 and 12 */
extern const ImgFormat kDibFormat; /* type 48 */

#endif /* TRNW_BMP_H */
