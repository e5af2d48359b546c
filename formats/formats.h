/*
 * formats.h - the one list of file formats, in probe order, and the look-ups
 * that detection, decoding, saving, page counting and the type names read.
 */
#ifndef TRNW_FORMATS_H
#define TRNW_FORMATS_H

#include <span>

#include "formats/format.h"

/* Every format, in the order detection probes them. */
std::span<const ImgFormat *const> ImgFormats();

/* The format with this detection word, or nullptr. */
const ImgFormat *ImgFormatByExtension(const char *extension);

/* The format and entry of a type number, or nullptr. */
const ImgFormat *ImgFormatOfType(int32_t type);
const ImgTypeEntry *ImgTypeEntryOf(int32_t type);

#endif /* TRNW_FORMATS_H */
