/*
 * jpeg.h - JPEG through libjpeg-turbo: a whole stream read as an image,
 * one stream of a TIFF strip or tile read into rows, and an image encoded
 * from a row source.  Every source and sink of the I/O layer serves: files,
 * the memory image and the caller's I/O functions.
 *
 * libjpeg reports through an error manager of our own: nothing is printed,
 * and a failure comes back as a negative code: -12 when the data ran out,
 * -1 when memory did, -3 for any other fault of the stream.
 */
#ifndef TRNW_JPEG_H
#define TRNW_JPEG_H

#include <stdint.h>

#include "core/contracts.h"

/* The reader of a whole stream at `start` (with IMG_PAGE_FLAG, page 1 or
 * later: -11).  Grey becomes 8-bit with a grey palette; YCbCr and RGB
 * become 24-bit, and so do CMYK and YCCK (Adobe's inverted values).  The
 * resolution comes from the JFIF density or else EXIF's.  When the decode
 * in progress aims at a smaller size (core/codec_settings.h), libjpeg
 * decodes at 1/2, 1/4 or 1/8 of the size: the largest reduction that keeps
 * both sides at or above the target.  1 on success.  A stream that ends
 * early hands over the rows decoded before its end, then gives -12;
 * damage libjpeg steps over (it would warn) decodes as it repairs it. */
int JpegRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle);

/* The rows of a strip: `row` holds the row's samples, `rowBytes` of them. */
typedef int (*JpegStripSink)(uint8_t *row, int rowIndex, int rowBytes, void *context);

/* One stream of a TIFF strip or tile, at the source's position. */
struct JpegStrip {
    const uint8_t *tables; /* a tables-only stream read first (JPEGTables), or nullptr */
    uint32_t tablesBytes;
    int photometric;       /* 2 (RGB) and 6 (YCbCr) say how 3 components are coded */
    uint32_t width;        /* the stream must be this wide... */
    int components;        /* ... and have this many components */
    int32_t firstRow;      /* the index of its first row */
    int32_t rows;          /* the rows delivered at most */
    uint32_t rowBytes;     /* the size of the row handed over, at least width * components */
};

/* Decodes the strip into rows of samples in the stream's order: grey, R G B
 * (from YCbCr too) or the four CMYK values as stored.  0, or a negative
 * code (the sink's, or -3 when the stream's geometry is not the strip's). */
int JpegDecodeStrip(int handle, const JpegStrip &strip, JpegStripSink sink, void *context);

/* Encodes the image of `header` (writer contract) at `quality` (clamped to
 * 1..100) with its resolution as JFIF density: with `grey`, an 8-bit image
 * as one component of its palette's grey levels; otherwise 8-bit images
 * through their palette, 24-bit and 32-bit (the fourth byte dropped) images
 * as YCbCr with 4:2:0 sampling.  0; -21 for other depths; -7 for a side
 * beyond JPEG's 65500; -9 on a short write; a row source's code. */
int JpegEncode(int handle, const uint8_t *header, ImgRowSource rowSource, void *sourceContext,
               int quality, bool grey);

#endif /* TRNW_JPEG_H */
