/*
 * xpm.h - X pixmap output: the image as a C array of strings, a header
 * string, one string a palette entry and one string a row.
 */
#ifndef TRNW_XPM_H
#define TRNW_XPM_H

#include <stdint.h>

#include "core/contracts.h"
#include "formats/format.h"

/* Save type 35: 1-, 4- and 8-bit images (-21 above 8 bits), every palette
 * entry as a colour of key c, "#RRGGBB".  Index i is written as the
 * character '^' + i below 32 colours, as '^' + i / 32 and '^' + i % 32 at
 * 256 colours. */
int XpmWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext);

/* Detected by its comment line, not read. */
extern const ImgFormat kXpmFormat;

#endif /* TRNW_XPM_H */
