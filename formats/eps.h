/*
 * eps.h - Encapsulated PostScript.  The writer makes a PostScript program
 * that draws the image 8 inches wide, its pixels as hexadecimal text; the
 * reader takes the DOS binary EPS form and reads its TIFF preview.
 */
#ifndef TRNW_EPS_H
#define TRNW_EPS_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* File type 14: the TIFF preview of the DOS EPS file at `start`, read by the
 * TIFF reader.  1 on success; -3 without the DOS EPS signature or a preview,
 * or for a preview section beyond 2^31 - 1; -12 for a header or section the
 * file ends in; -8 for a preview that is not a TIFF; or the TIFF reader's
 * code. */
int EpsRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle);

/* Save type 14: 1-, 4-, 8- and 24-bit images (-21 for other depths).  0, -1
 * without memory, -9 when the sink stores less than the rows, or the row
 * source's negative result. */
int EpsWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

extern const ImgFormat kEpsFormat;

#endif /* TRNW_EPS_H */
