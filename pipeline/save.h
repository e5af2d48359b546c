/*
 * save.h - the save pipeline (internal): the save context; the brightness,
 * contrast and gamma table it applies is color/lookup.h's.
 */
#ifndef TRNW_SAVE_H
#define TRNW_SAVE_H

#include <stdint.h>

/* Save context, handed to writers as the opaque source context: the writer-facing
 * fields first (the 16-bit ones limit a save to fewer than 32768
 * rows and a stride below 32768 bytes), then our scratch row. */
typedef struct ImgSaveContext {
    uint8_t *bits;
    int16_t handle;
    int16_t imageHeight;
    int16_t imageStride;
    int16_t cropOffsetBytes;
    int16_t cropTop;
    uint8_t *lookupTable;
    /* Internal scratch. */
    uint8_t table[256];
    uint8_t *scratch; /* expanded coded row, width * 4 + 4000 bytes */
} ImgSaveContext;

/* The library's row source. */
int ImgLibraryRowSource(void *sourceContext, uint8_t *buffer, int rowIndex, int rowBytes);

#endif /* TRNW_SAVE_H */
