/*
 * detect.h - detection over the format list (one table, formats/formats.cpp).
 * Detection, decode dispatch, page counting, save dispatch and
 * extension-to-type mapping all read that table.
 */
#ifndef TRNW_DETECT_H
#define TRNW_DETECT_H

#include "core/contracts.h"

/* Reads ten bytes at the current position, runs the enabled probes in the
 * order of the format table and writes the three-letter extension word of
 * the first that accepts into extension (4 bytes: three letters and a zero;
 * empty when nothing matched).  The source is left at absolute position 0.
 * Returns 0, or the read's result when fewer than ten bytes came (with an
 * empty extension). */
int ImgDetect(int handle, char *extension);

/* The reader and page counter registered for an extension word; NULL when
 * the format has none (yet). */
ImgReader RegistryReader(const char *extension);
ImgPageCounter RegistryPageCounter(const char *extension);

/* The writer registered for a save type; NULL when unknown. */
ImgWriter RegistryWriter(int type);

/* The save type chosen by a path's extension for IMG_save_bitmap type -1
 * (the save types' extension list, in order); -1 when none matches. */
int RegistryTypeForPath(const char *path);

/* Whether saves of a type append pages to an existing file. */
bool RegistryMultiPage(int32_t type);

/* For the type query, tests and fuzzing. */

/* The type number for a detected extension word over the source whose image
 * starts at start: for "tif", "bmp" and "gif" the source is sought to start
 * and the subtype query decides; other formats give their type; an empty or
 * unknown word gives -7. */
int RegistryFileType(int handle, const char *extension, uint32_t start);

/* The auto-detect index of a type number (below 7 or above 40 itself; the
 * TIFF variants 0; 12 -> 1; other numbers itself); not range-checked. */
int RegistryAutoDetectIndex(int type);

/* Puts every auto-detect flag back to its value at start (all on except
 * 38 and 55). */
void RegistryResetAutoDetect(void);

/* Test hooks: put a reader (for an extension word) or a writer (for a save
 * type) in place of the table's; NULL restores the table.  Each returns the
 * one in force before. */
ImgReader RegistrySetReaderForTest(const char *extension, ImgReader reader);
ImgWriter RegistrySetWriterForTest(int32_t type, ImgWriter writer);

#endif /* TRNW_DETECT_H */
