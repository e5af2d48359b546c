/*
 * gif.h - GIF: the reader of file type 4 (the first image of a file, or
 * with IMG_PAGE_FLAG any image of it), the writers of save types 4 and 44
 * (interlaced), the image count, and the subtype query of
 * IMGLOW_get_filetype.
 */
#ifndef TRNW_GIF_H
#define TRNW_GIF_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

#define GIF_SIGNATURE_SIZE 6    /* "GIF87a" / "GIF89a" */
#define GIF_SCREEN_SIZE 7       /* the logical screen descriptor */
#define GIF_DESCRIPTOR_SIZE 9   /* the image descriptor after its 0x2C */
#define GIF_EXTENSION 0x21
#define GIF_IMAGE 0x2C
#define GIF_TRAILER 0x3B
#define GIF_CONTROL_LABEL 0xF9  /* the graphic control extension */
#define GIF_INTERLACED 0x40     /* in the image descriptor's flags */
#define GIF_COLOR_TABLE 0x80    /* in the screen's and the image's flags */

/* Reads the image at `start` (page 0), or with IMG_PAGE_FLAG | n the n-th
 * image (0 first) of the GIF at the source's current position.  A two-colour
 * image comes as 8 bits (its two colours kept), 4 to 16 colours as 4 bits,
 * more as 8 bits; a transparent index sets biClrUsed to index | 0x1000.
 * Returns 0, -12 when the header or an image descriptor is cut short, -3
 * for invalid data (see docs/DEVIATIONS.md), -11 for a page beyond the last
 * image, -1 when memory runs out, or a sink's negative result. */
int GifRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);

/* The number of images of the GIF at the source's current position, or the
 * negative code reading the first one's descriptor gives. */
int GifCountImages(int handle);

/* Save types 4 and 44: 4- and 8-bit images (-21 for other depths, -7 for a
 * width or height outside 1 .. 65535).  Returns 0, -9 on a short write, -1
 * when memory runs out, or the row source's negative result. */
int GifWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
int GifWriteInterlaced(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* The source positioned at the GIF's first byte: skips the header and the
 * global colour table, walks extension blocks to the first image descriptor
 * and returns 44 when its interlace bit is set, else 4.  -12 when the header
 * (or the image descriptor) is cut short, -3 when the data ends, or a byte
 * other than an extension or an image descriptor comes, before an image
 * descriptor. */
int GifSubtype(int handle);

extern const ImgFormat kGifFormat; /* file types 4 and 44 */

#endif /* TRNW_GIF_H */
