/*
 * png.h - PNG through libpng: the reader of file type 43 and the writer of
 * save type 43.
 */
#ifndef TRNW_PNG_H
#define TRNW_PNG_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* Reads the PNG at `start`.  Every colour type and depth: 1-bit grey (and
 * a black-and-white palette) as a 1-bit image, 2- and 4-bit grey or palette
 * as 4 bits, 8- and 16-bit grey as 8 bits with a grey palette, 8-bit
 * palette as 8 bits, RGB as 24 bits (16-bit samples rounded to 8); alpha is
 * composited over the alpha background (PngSetAlphaBackground).  A palette
 * or grey tRNS sets the transparent colour, pHYs in metres the resolution.
 * Returns 0, -3 for data libpng refuses, -12 when the data ends early, -1
 * when memory runs out, or a sink's negative result. */
int PngRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);

/* Save type 43: 1-, 4- and 8-bit images as palette PNGs, or as grey ones
 * when the palette is the grey ramp of the depth; 24-bit images as RGB (-21
 * for other depths).  The zlib level follows IMGLOW_set_comp_quality
 * (PngLevelOfQuality).  Returns 0, -9 on a short write, -1 when memory runs
 * out, or the row source's negative result. */
int PngWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* The zlib level of a quality: (quality - 1) / 11 for 1 .. 100 (75, the
 * default, gives 6); below 1 counts as 1, above 100 as 100. */
int PngLevelOfQuality(int32_t quality);

/* The colour (0x00RRGGBB) the reader composites alpha over; white at start.
 * Returns the previous one. */
uint32_t PngSetAlphaBackground(uint32_t colour);

extern const ImgFormat kPngFormat;

#endif /* TRNW_PNG_H */
