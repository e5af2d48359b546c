/*
 * gif.h - GIF.  For now the subtype query of IMGLOW_get_filetype.
 */
#ifndef TRNW_GIF_H
#define TRNW_GIF_H

#include <stdint.h>

#include "formats/format.h"

#define GIF_SIGNATURE_SIZE 6    /* "GIF87a" / "GIF89a" */
#define GIF_SCREEN_SIZE 7       /* the logical screen descriptor */
#define GIF_DESCRIPTOR_SIZE 9   /* the image descriptor after its 0x2C */
#define GIF_EXTENSION 0x21
#define GIF_IMAGE 0x2C
#define GIF_INTERLACED 0x40     /* in the image descriptor's flags */
#define GIF_COLOR_TABLE 0x80    /* in the screen's and the image's flags */

/* The source positioned at the GIF's first byte: skips the header and the
 * global colour table, walks extension blocks to the first image descriptor
 * and returns 44 when its interlace bit is set, else 4.  -12 when the header
 * (or the image descriptor) is cut short, -3 when the data ends, or a byte
 * other than an extension or an image descriptor comes, before an image
 * descriptor. */
int GifSubtype(int handle);

extern const ImgFormat kGifFormat; /* file types 4 and 44 */

#endif /* TRNW_GIF_H */
