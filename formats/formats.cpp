/*
 * formats.cpp - the one list of file formats.  Its order is the probe order
 * of detection: the first format whose probe accepts the first bytes wins.
 */
#include "formats/formats.h"

#include <string.h>

#include "formats/bmp.h"
#include "formats/cals.h"
#include "formats/eps.h"
#include "formats/fax.h"
#include "formats/gif.h"
#include "formats/jpeg.h"
#include "formats/pcx.h"
#include "formats/png.h"
#include "formats/signatures.h"
#include "formats/tga.h"
#include "formats/tiff_read.h"
#include "formats/xbm.h"
#include "formats/xpm.h"

namespace {

const ImgFormat *const kFormats[] = {
    &kTiffFormat, &kGifFormat, &kBmpFormat, &kEpsFormat, &kDcxFormat, &kJpgFormat, &kWpgFormat,
    &kCalsFormat, &kPngFormat, &kKfxFormat, &kIffFormat, &kGx2Format, &kLsdFormat, &kPcxFormat,
    &kIcoFormat, &kTgaFormat, &kWmfFormat, &kIcaFormat, &kPcdFormat, &kClpFormat, &kImgFormat,
    &kBtrFormat, &kMspFormat, &kXbmFormat, &kXpmFormat, &kXwdFormat, &kRasFormat, &kCutFormat,
    &kTxtFormat, &kPsdFormat, &kImtFormat, &kPctFormat, &kMacFormat,
    /* Never probed: read by name or written only. */
    &kDibFormat, &kMcaFormat, &kFaxFormat,
};

} // namespace

std::span<const ImgFormat *const> ImgFormats()
{
    return kFormats;
}

const ImgFormat *ImgFormatByExtension(const char *extension)
{
    if (!extension || !extension[0])
        return nullptr;
    for (const ImgFormat *format : kFormats)
        if (strcmp(format->extension, extension) == 0)
            return format;
    return nullptr;
}

const ImgTypeEntry *ImgTypeEntryOf(int32_t type)
{
    for (const ImgFormat *format : kFormats)
        for (const ImgTypeEntry &entry : format->types)
            if (entry.type == type)
                return &entry;
    return nullptr;
}

const ImgFormat *ImgFormatOfType(int32_t type)
{
    for (const ImgFormat *format : kFormats)
        for (const ImgTypeEntry &entry : format->types)
            if (entry.type == type)
                return format;
    return nullptr;
}
