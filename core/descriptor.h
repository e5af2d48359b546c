/*
 * descriptor.h - the image descriptor: the packed DIB of an image (or its
 * run-coded rows) and the display, crop and colour settings that travel with
 * it.
 */
#ifndef TRNW_DESCRIPTOR_H
#define TRNW_DESCRIPTOR_H

#include <stdint.h>

/* The image descriptor: the public fields in order, then one internal field. */
typedef struct ImgDescriptor {
    int32_t displayX, displayY, displayWidth, displayHeight;
    int32_t cropX, cropY, cropWidth, cropHeight;
    uint32_t rasterOp;
    void *displayPalette;
    uint8_t *dib;
    int32_t width, height, stride;
    int32_t lastReducedRow;
    uint32_t gamma;
    int32_t brightness, contrast;
    uint32_t dibSize;
    int32_t codedRows;
    uint32_t *rowIndex;
    void *previousPalette;
    int32_t displayAngle;
    int32_t transparentActive;
    int32_t hasTransparentColour;
    uint32_t transparentColour;
    int32_t zoomPercent;
    int32_t pmaDisplay;
    /* 1 while `dib` is the block a caller handed to
     * IMG_create_handle_keep; cleared when an operation replaces the block. */
    int32_t callerOwnsDib;
} ImgDescriptor;

/* Defaults shared by IMG_create_handle_keep and the header sink: rasterOp
 * SRCCOPY, gamma 150, lastReducedRow -1, geometry and the whole image as crop
 * rectangle. */
void ImgDescriptorSetImage(ImgDescriptor *d, uint8_t *dib, int32_t width, int32_t height,
                           int32_t stride);
/* Puts a new pixel block in place of the old one, freeing the old one unless
 * it belongs to a caller. */
void ImgDescriptorReplaceDib(ImgDescriptor *d, uint8_t *dib, uint32_t dibSize);

/* Stored header fields and the offset of the first pixel byte. */
int ImgDescriptorBits(const ImgDescriptor *d);
uint32_t ImgDescriptorBitsOffset(const ImgDescriptor *d);

#endif /* TRNW_DESCRIPTOR_H */
