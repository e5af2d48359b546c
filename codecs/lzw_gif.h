/*
 * lzw_gif.h - GIF LZW: variable code width (minimum code size + 1 up to 12
 * bits), codes packed least significant bit first, clear and end codes, and
 * the data sub-blocks (a size byte, then that many bytes; size 0 ends the
 * chain) the codes travel in.  Nothing is shared with the TIFF LZW of
 * codecs/lzw: the bit order, the code width switch and the framing differ.
 */
#ifndef TRNW_LZW_GIF_H
#define TRNW_LZW_GIF_H

#include <stdint.h>

#define GIF_LZW_MAX_WIDTH 12 /* bits of the widest code */

/* Receives row `row` (stream order, 0 first) of `width` pixels, one byte
 * each: 0 to go on, a negative code to stop the decoder with it. */
typedef int (*GifLzwRowSink)(const uint8_t *pixels, uint32_t row, void *context);

/* Decodes the sub-block chain at the handle's position (codes of
 * codeSize + 1 bits upwards, codeSize 1 to 8) into `rowCount` rows of
 * `width` pixels.  Pixels beyond the last row are dropped.
 * Returns 0 when the end code, the end of the chain or of the data, a code
 * beyond the table, or the last row ends the decoding (rows the data did not
 * reach are not delivered); -3 when the first code is not the clear code; -1
 * when memory runs out; or the sink's negative result. */
int GifLzwDecode(int handle, int codeSize, uint32_t width, uint32_t rowCount, GifLzwRowSink sink,
                 void *context);

/* Fills `pixels` with row `row` of the output order (`width` pixels, one
 * byte each, every value below 2^codeSize): 0 or a negative code. */
typedef int (*GifLzwRowSource)(uint8_t *pixels, uint32_t row, void *context);

/* Encodes `rowCount` rows of `width` pixels (codeSize 2 to 8) and writes
 * them to the handle as sub-blocks of 253 or 254 bytes (the last one
 * shorter) and the 0 that ends the chain.  The table is cleared once code
 * 4080 has been assigned.  When the last pixel starts a new string, no code
 * is written for it: the stream ends one pixel short.
 * Returns 0, -1 when memory runs out, -9 on a short write, or the source's
 * negative result. */
int GifLzwEncode(int handle, int codeSize, uint32_t width, uint32_t rowCount, GifLzwRowSource source,
                 void *context);

#endif /* TRNW_LZW_GIF_H */
