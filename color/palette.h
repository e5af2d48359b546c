/*
 * palette.h - palette selection (internal).  The three exported
 * operations (IMG_mediancut_color, IMG_popularity_color, IMG_octree_color)
 * are declared in imgapi.h; this header gives the dithering code the fixed 3-3-2
 * palette and its serpentine diffusion row, which its display reduction
 * (mode 2) reuses exactly.
 */
#ifndef TRNW_PALETTE_H
#define TRNW_PALETTE_H

#include <stdint.h>

/* Slots per pixel of the fixed-palette accumulator (blue, green, red,
 * luminance) and pixel slots of margin at each end. */
#define PALETTE_FIXED_SLOTS 4
#define PALETTE_MARGIN 2

/* Writes the 256 entries of the fixed 3-3-2 palette (B, G, R, 0) to
 * `palette` (1024 bytes). */
void PaletteFixedEntries(uint8_t *palette);

/* Maps one accumulator row of the fixed palette: `current` and `next` hold
 * (width + 2 * PALETTE_MARGIN) * PALETTE_FIXED_SLOTS int32 each, pixel x at
 * slot (x + PALETTE_MARGIN) * PALETTE_FIXED_SLOTS.  Even storage rows run left
 * to right, odd rows right to left; the errors go into `current` (same row)
 * and `next` (the row after).  Writes one index per pixel to `indices`. */
void PaletteFixedDiffuseRow(int32_t *current, int32_t *next, int32_t width, int32_t row,
                            uint8_t *indices);

#endif /* TRNW_PALETTE_H */
