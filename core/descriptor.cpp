/*
 * descriptor.cpp - setting and replacing the pixel block of an image
 * descriptor, and the facts read from its DIB header.
 */
#include "core/descriptor.h"

#include <string.h>

#include "core/dib.h"
#include "core/imgio.h"

void ImgDescriptorSetImage(ImgDescriptor *d, uint8_t *dib, int32_t width, int32_t height,
                           int32_t stride)
{
    d->dib = dib;
    d->width = width;
    d->height = height;
    d->stride = stride;
    d->cropX = 0;
    d->cropY = 0;
    d->cropWidth = width;
    d->cropHeight = height;
    d->rasterOp = DIB_SRCCOPY;
    d->gamma = 150;
    d->brightness = 0;
    d->contrast = 0;
    d->lastReducedRow = -1;
    d->displayAngle = 0;
}

void ImgDescriptorReplaceDib(ImgDescriptor *d, uint8_t *dib, uint32_t dibSize)
{
    if (!d->callerOwnsDib)
        ImgFree(d->dib);
    d->callerOwnsDib = 0;
    d->dib = dib;
    d->dibSize = dibSize;
}

int ImgDescriptorBits(const ImgDescriptor *d)
{
    BITMAPINFOHEADER header;
    memcpy(&header, d->dib, sizeof header);
    return header.biBitCount;
}

uint32_t ImgDescriptorBitsOffset(const ImgDescriptor *d)
{
    return DIB_HEADER_SIZE + DibPaletteSize(ImgDescriptorBits(d));
}
