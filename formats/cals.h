/*
 * cals.h - CALS raster (type 1): a 2048-byte text header of sixteen 128-byte
 * records, then a Group 4 (T.6) body, most significant bit first.
 */
#ifndef TRNW_CALS_H
#define TRNW_CALS_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

#define CALS_HEADER_SIZE 2048 /* the body starts here */
#define CALS_RECORD_SIZE 128

/* File type 18 ("cal"): the size from the rpelcnt record (record 8, else
 * record 7), the density from record 9, then the Group 4 body; the header
 * sink gets a 1-bit header with black as entry 0, the row sink each run
 * record as the decoder makes it.  0, or a negative code. */
int CalsRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle);

/* Save type 18: 1-bit images only (-21 otherwise); the fixed header with the
 * image's size in record 8, then the rows coded as Group 4. */
int CalsWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* The number parser of the header values: spaces are skipped, and every
 * other byte of text[0 .. count) adds (byte - '0') as the next decimal
 * digit, whether it is a digit or not; the value is held within
 * -2^31 + 1 .. 2^31 - 1 at every step. */
int32_t CalsNumber(const uint8_t *text, int count);

extern const ImgFormat kCalsFormat; /* file and save type 18 */

#endif /* TRNW_CALS_H */
