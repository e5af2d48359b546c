/*
 * default_palette.h - the default palettes that decoders and the
 * display build by name ("tiff", "332", "targa", "pcx", "dither", any other).
 */
#ifndef TRNW_DEFAULT_PALETTE_H
#define TRNW_DEFAULT_PALETTE_H

#include <stdint.h>

/* Writes the palette of `kind` behind the 40-byte header at `header`, chosen
 * by the header's bit count first (1 bit: black, white) and then by kind.
 * Entries are B, G, R, 0.  The block must hold IMG_HEADER_BLOCK_SIZE (1064)
 * bytes.  Returns the number of entries written. */
int BuildDefaultPalette(uint8_t *header, const char *kind);

#endif /* TRNW_DEFAULT_PALETTE_H */
