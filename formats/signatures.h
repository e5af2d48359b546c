/*
 * signatures.h - the formats that are detected by their signature but not
 * read or written yet.  Each moves to a file of its own when it gets a
 * reader.
 */
#ifndef TRNW_SIGNATURES_H
#define TRNW_SIGNATURES_H

#include "formats/format.h"

extern const ImgFormat kJpgFormat, kWpgFormat, kPngFormat, kKfxFormat, kIffFormat,
    kGx2Format, kLsdFormat, kIcoFormat, kWmfFormat,
    kIcaFormat, kPcdFormat, kClpFormat, kImgFormat, kBtrFormat, kMspFormat,
    kXwdFormat, kRasFormat, kCutFormat, kTxtFormat, kPsdFormat, kImtFormat, kPctFormat, kMacFormat,
    kMcaFormat;

#endif /* TRNW_SIGNATURES_H */
