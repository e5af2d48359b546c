/*
 * contracts.h - the reader and writer contracts of the decode and save
 * pipelines.  Every internal routine returns 0 or a positive count on success
 * and a negative error code (IMG_ERR_*) on failure.
 */
#ifndef TRNW_CONTRACTS_H
#define TRNW_CONTRACTS_H

#include <stdint.h>

/* Called once by a reader, before any row, with a 40-byte BITMAPINFOHEADER
 * followed by its palette (resolution in dots per inch; bit 0x1000 of
 * biClrUsed flags a transparent index in its low byte).  Positive on success. */
typedef int (*ImgHeaderSink)(const uint8_t *headerAndPalette, void *sinkContext);

/* Called once per row, rowIndex 0 = top, in any order.  rowBytes is the
 * stride of the declared width and depth, or, for a 1-bit image, the byte
 * length of a run record (any other length).  0 on success. */
typedef int (*ImgRowSink)(const uint8_t *row, void *sinkContext, int rowIndex, int rowBytes);

/* Where a reader may build row rowIndex in place: the address at which the
 * row sink stores a row of rowBytes bytes as it is, or NULL when it stores
 * rows otherwise (the reader then builds the row in a buffer of its own).
 * Asking changes nothing.  A reader that builds a row there fills all
 * rowBytes bytes and hands that address to the row sink for the same row
 * before it hands over any other row.  Saves a copy of every row. */
uint8_t *ImgRowTarget(ImgRowSink rowSink, void *sinkContext, int rowIndex, int rowBytes);

/* The one row sink that offers targets, and how it finds them. */
typedef uint8_t *(*ImgRowTargetFinder)(void *sinkContext, int rowIndex, int rowBytes);
void ImgOfferRowTargets(ImgRowSink rowSink, ImgRowTargetFinder finder);

/* A reader: start is the byte offset of the image (the source positioned
 * there) or 0x80000000 | page. */
typedef int (*ImgReader)(uint32_t start, ImgRowSink rowSink, void *sinkContext,
                         ImgHeaderSink headerSink, int handle);

/* A multi-page reader's page counter over the source positioned at the image. */
typedef int (*ImgPageCounter)(int handle);

/* Fills buffer with rowBytes bytes of row rowIndex of the crop rectangle
 * (0 = its top row).  0 or a negative code the writer must return. */
typedef int (*ImgRowSource)(void *sourceContext, uint8_t *buffer, int rowIndex, int rowBytes);

/* A writer: handle is the byte sink, header a private 1064-byte copy of the
 * image's BITMAPINFOHEADER and palette (biWidth/biHeight = crop size). */
typedef int (*ImgWriter)(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

#define IMG_PAGE_FLAG 0x80000000u /* start = IMG_PAGE_FLAG | page */
#define IMG_HEADER_BLOCK_SIZE 1064 /* 40-byte header + 1024 palette bytes */

#endif /* TRNW_CONTRACTS_H */
