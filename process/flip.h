/*
 * flip.h - flip left-right, flip top-bottom and invert (internal).
 * The exported entry points (IMG_flip_bitmapx, IMG_flip_bitmapy,
 * IMG_invert_bitmap) are declared in imgapi.h; the rotation calls those.
 */
#ifndef TRNW_FLIP_H
#define TRNW_FLIP_H

#include <stdint.h>

/* Mirrors one packed row of `width` pixels of `bits` (1, 4, 8, 16, 24, 32)
 * from `source` into `target` (distinct rows of the same stride): pixel x
 * takes pixel width - 1 - x.  For 4 bits with an odd width each output byte
 * is the high nibble of source byte k with the low nibble of byte k - 1, the
 * last one the high nibble of byte 0 (its low nibble 0).  Only the bytes
 * holding pixels are written; padding bits of a 1-bit row's last byte are
 * taken from `source`. */
void FlipMirrorRow(const uint8_t *source, uint8_t *target, int32_t width, int bits);

#endif /* TRNW_FLIP_H */
