/*
 * dither.h - dithering (internal): the dither tables, the row routines the
 * decode pipeline's row sink uses for depth reduction, and
 * the display-time reduction to the 3-3-2 palette.  The exported operations
 * (IMG_bayer_mono ... IMG_promote_24, IMGLOW_set_dithermode) are declared in
 * core/imgapi.h.
 */
#ifndef TRNW_DITHER_H
#define TRNW_DITHER_H

#include <stddef.h>
#include <stdint.h>

#include "core/image_table.h"

/* The two 8 x 8 tables as stored, row by row (the threshold of
 * pixel x in row m is entry (x & 7) * 8 + (m & 7)). */
const uint8_t *DitherBayerTable(void);
const uint8_t *DitherHalftoneTable(void);

/* ---- depth reduction during decode (in the row sink) ---- */

/* Bytes of scratch DitherReduceRow needs for rows of `width` pixels. */
size_t DitherRowScratchBytes(int32_t width);

/* Whether a row of `bits` can be reduced to `toBits` here: 8 from 24, 4 from
 * 8, 24 and 32 (the colour row does not convert 16 bits), 1 from 4 or more. */
int DitherReductionApplies(int bits, int toBits);

/* Reduces one packed row of `bits` (palette: the reader's, B, G, R, 0
 * entries) to `toBits` with the ordered dithers: 8 bits by the 3-3-2
 * ordered routine with the Bayer table's listed row `matrixRow` & 7, 4 bits
 * by the ordered colour dither and 1 bit by the Bayer mono dither, both with
 * m = `matrixRow`.  `out` receives the packed reduced row (its stride is
 * cleared first).  0, or -7 when the reduction does not apply. */
int DitherReduceRow(const uint8_t *row, int bits, const uint8_t *palette, int32_t width,
                    int32_t matrixRow, int toBits, uint8_t *out, void *scratch);

/* ---- display-time reduction to 3-3-2 ---- */

/* The setting of IMGLOW_set_dithermode (starts at 1, ordered). */
int32_t DitherMode(void);

/* The ordered 3-3-2 routine on a row of n blue, green, red triples: pixel x
 * uses entry (n - x) & 7 of the Bayer table's listed row matrixRow & 7,
 * d = entry >> 3 is taken off each component (floor 0), and the index is
 * (R & 0xE0) | ((G >> 3) & 0x1C) | (B >> 6). */
void DitherRow332Ordered(const uint8_t *bgr, int32_t n, int32_t matrixRow, uint8_t *out);

/* Builds the display's reduced copy of a 4-, 8-, 24- or 32-bit image: a new
 * 8-bit bitmap (ImgAlloc; header copied, bit count 8, biSizeImage = 8-bit
 * stride x height, the "332" palette) in *bitmap, rows by the setting of
 * DitherMode(): 2 the fixed-palette serpentine diffusion of
 * IMG_mediancut_color, any other the ordered routine with the row offset y0.
 * The image is not changed; the caller frees the copy with ImgFree.
 * 0, -7 for other depths (and coded rows), -1. */
int DitherReduceTo332(const ImgDescriptor *d, int32_t y0, uint8_t **bitmap);

#endif /* TRNW_DITHER_H */
