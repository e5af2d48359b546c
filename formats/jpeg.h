/*
 * jpeg.h - JPEG files (file and save type 13, ".jpg"): the stream read and
 * written by the JPEG codec (codecs/jpeg.h).
 */
#ifndef TRNW_FORMATS_JPEG_H
#define TRNW_FORMATS_JPEG_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* Save type 13 at the quality of IMGLOW_set_comp_quality: an 8-bit image
 * whose palette is all grey as a grey JPEG, other 8-bit images through their
 * palette, 24- and 32-bit images as YCbCr 4:2:0; -21 for 1, 4 and 16 bits. */
int JpegWriteFile(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* Whether all 256 entries of an 8-bit palette are grey. */
bool JpegPaletteIsGrey(const uint8_t *palette);

extern const ImgFormat kJpgFormat;

#endif /* TRNW_FORMATS_JPEG_H */
