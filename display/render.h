/*
 * render.h - the band renderers: an image's crop rectangle drawn into a
 * rectangle of a device, a band of device rows at a time.
 *
 * Modes: 0 plain (nearest neighbour), 1 dithered for a device of fewer than
 * four colours, 2 grey from the coverage of 1-bit pixels, 3 bilevel from
 * that coverage, held so that thin strokes survive.  The display angle
 * (clockwise) maps device axes to image axes; nothing of the image is
 * turned.
 */
#ifndef TRNW_RENDER_H
#define TRNW_RENDER_H

#include <stdint.h>

#include "core/descriptor.h"
#include "display/gdi.h"

/* The most bytes of a band: a band image (header, colour table and rows)
 * stays below this, except a 1-bit band drawn on a display in modes 0, 1
 * and 3, which covers the whole visible rectangle at once. */
#define RENDER_BAND_BYTES 65280

typedef struct RenderRequest {
    const ImgDescriptor *d;
    GdiDevice *device;
    int mode;     /* 0 .. 3 */
    int print;    /* a print: bands of every kind are held to the band size */
    int ditherMode; /* mode 1: 2 error diffusion, any other ordered */
    /* The display rectangle in device units. */
    int64_t x, y, width, height;
    /* When rowsEnd > rowsBegin, only the device pixels that show image rows
     * rowsBegin .. rowsEnd - 1 are drawn (rows drawn as a decode stores them). */
    int32_t rowsBegin, rowsEnd;
} RenderRequest;

/* Draws the crop rectangle.  0, or -1 memory, -3 a descriptor whose rows do
 * not fit its block, -7 a depth the display does not draw, -8 a transfer the
 * device refused.  An empty crop rectangle or nothing visible draws nothing. */
int RenderCrop(const RenderRequest &request);

/* The fast print path: the crop rectangle as one StretchDIBits, the device
 * scaling it.  1 when drawn, 0 when the device takes no stretched DIBs or
 * the display angle is not 0 (the caller prints in bands), else an error as
 * above. */
int RenderCropAtOnce(const RenderRequest &request);

#endif /* TRNW_RENDER_H */
