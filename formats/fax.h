/*
 * fax.h - raw CCITT fax streams: headerless Group 3 and Group 4 codes whose
 * geometry the caller gives (IMG_decompress_fax) or that a save produces
 * (save types 33, 53, 34, 52).
 */
#ifndef TRNW_FORMATS_FAX_H
#define TRNW_FORMATS_FAX_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* The geometry and coding of the next raw stream that FaxRead decodes:
 * type 4 Group 4, 2 two-dimensional Group 3, else one-dimensional; fill
 * order 2 for least significant bit first. */
void FaxSetStream(int32_t width, int32_t height, int32_t type, int32_t fillOrder);

/* Reads the raw stream set by FaxSetStream: the header of a 1-bit image with
 * a black-then-white palette, then every row through the chosen decoder. */
int FaxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);

/* The raw fax save types: 1-bit images only (-21 otherwise), no framing. */
int FaxWriteG3(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
int FaxWriteG3Lsb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
int FaxWriteG4(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
int FaxWriteG4Lsb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kFaxFormat; /* save types 33, 53, 34, 52 */

#endif /* TRNW_FORMATS_FAX_H */
