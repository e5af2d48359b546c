/*
 * decode.h - the decode pipeline's context (internal), its sinks,
 * and the progress reporting that other operations share.
 */
#ifndef TRNW_DECODE_H
#define TRNW_DECODE_H

#include <stdint.h>

#include "core/contracts.h"

/* The order in which a reader delivers rows, learnt from its first row:
 * a coded image whose first row is the bottom one is stored as it comes and
 * its records reversed at the end. */
enum class RowOrder : int32_t {
    BottomFirstCoded = 0, /* run records appended bottom row first */
    Unknown = 1,          /* after the header sink, before the first row */
    AsDelivered = 2,      /* rows stored at their own index */
};

/* Decode context, handed to readers as the opaque sink context. */
typedef struct ImgDecodeContext {
    const uint8_t *header; /* the reader's header block of this decode */
    int32_t handle;        /* the image being filled */
    RowOrder rowOrder;
    int32_t requestedBits; /* depth to reduce to, 0 = keep */
    /* The source geometry, and how the output was chosen. */
    int32_t sourceWidth, sourceHeight, sourceBits, sourceStride;
    int32_t fixedSize;     /* the requested fixed size applies */
    int32_t subRectangle;  /* the sub-rectangle applies */
    int32_t rowsStored;    /* coded rows appended in order so far */
    int32_t storeComplete; /* every coded row has a record (rows then replace in place) */
    int32_t rowBits, rowStride; /* rows after the depth reduction (the output depth) */
    uint8_t *work;         /* row and record scratch */
    uint8_t *reduced;      /* depth reduction: the reduced row (inside work) */
    uint8_t *ditherScratch; /* depth reduction: the dither routines' scratch (inside work) */
    uint8_t *palette;      /* depth reduction: the file's palette (inside work) */
    uint64_t storeCeiling; /* the decode limit: the most a coded store may grow to, 0 = none */
    /* Rows of a plain image not written yet, neither stored nor cleared:
     * unsetTop .. unsetEnd - 1 (top 0); empty when the block was cleared. */
    int32_t unsetTop, unsetEnd;
} ImgDecodeContext;

/* The library's sinks. */
int ImgLibraryHeaderSink(const uint8_t *headerAndPalette, void *sinkContext);
int ImgLibraryRowSink(const uint8_t *row, void *sinkContext, int rowIndex, int rowBytes);

/* Decodes with a given reader into a new image: the body of
 * IMG_decompress_bitmap_fd once the reader is known.  Returns the handle or a
 * negative code (the image deleted). */
int ImgDecodeWithReader(ImgReader reader, uint32_t start, int fileHandle);

#endif /* TRNW_DECODE_H */
