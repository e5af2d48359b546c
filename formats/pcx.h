/*
 * pcx.h - PCX and DCX.  A PCX file holds one image behind a 128-byte
 * header: run-length rows and, for 256 colours, a palette at the end of the
 * file.  A DCX file holds PCX pages behind a table of their offsets.
 */
#ifndef TRNW_PCX_H
#define TRNW_PCX_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* File type 2, or with IMG_PAGE_FLAG a page of the DCX file at the current
 * position.  Returns 1 on success or a negative code. */
int PcxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);
/* File type 11: page 0 of the DCX file at `start`, or with IMG_PAGE_FLAG
 * the page it names. */
int DcxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);
/* The entries of the DCX page table at the current position before its
 * first 0 entry; -3 without the DCX signature. */
int DcxCountPages(int handle);

/* Save type 2: 1-, 4-, 8- and 24-bit images (-21 for other depths). */
int PcxWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);
/* Save type 11: the page is appended to the DCX file at the sink's
 * position, or starts one there. */
int DcxWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kPcxFormat, kDcxFormat;

#endif /* TRNW_PCX_H */
