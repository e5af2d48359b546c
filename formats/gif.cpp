/*
 * gif.cpp - GIF.  So far the subtype query of IMGLOW_get_filetype.
 *
 * Every walk over the data ends (docs/DEVIATIONS.md, format detection): each step
 * reads at least one byte into a zeroed buffer, so at the end of a file the
 * read comes back short, and past the end of the memory image (which claims
 * success without copying) the byte reads as 0, which ends a sub-block chain
 * and is no block introducer.
 */
#include "formats/gif.h"

#include <string.h>

#include "core/imgapi.h"
#include "core/imgio.h"

/* Reads count bytes into a zeroed buffer: the read's result. */
static int32_t ReadZeroed(int handle, uint8_t *buffer, uint32_t count)
{
    memset(buffer, 0, count);
    return ImgRead(handle, buffer, count);
}

/* Skips a chain of data sub-blocks up to and including its 0 terminator.
 * 0, or -3 when the data ends first. */
static int SkipSubBlocks(int handle)
{
    for (;;) {
        uint8_t size;
        int32_t got = ReadZeroed(handle, &size, 1);
        if (got < 0)
            return got;
        if (got < 1)
            return IMG_ERR_INVALID;
        if (size == 0)
            return 0;
        ImgSeek(handle, size, 1);
    }
}

int GifSubtype(int handle)
{
    uint8_t header[GIF_SIGNATURE_SIZE + GIF_SCREEN_SIZE];
    int32_t got = ReadZeroed(handle, header, sizeof header);
    if (got < 0)
        return got;
    if (got < (int32_t)sizeof header)
        return IMG_ERR_READ;
    uint8_t screenFlags = header[GIF_SIGNATURE_SIZE + 4];
    if (screenFlags & GIF_COLOR_TABLE)
        ImgSeek(handle, 3 << ((screenFlags & 7) + 1), 1);
    for (;;) {
        uint8_t introducer;
        got = ReadZeroed(handle, &introducer, 1);
        if (got < 0)
            return got;
        if (got < 1)
            return IMG_ERR_INVALID;
        if (introducer == GIF_IMAGE) {
            uint8_t descriptor[GIF_DESCRIPTOR_SIZE];
            got = ReadZeroed(handle, descriptor, sizeof descriptor);
            if (got < 0)
                return got;
            if (got < (int32_t)sizeof descriptor)
                return IMG_ERR_READ;
            return (descriptor[8] & GIF_INTERLACED) ? IMG_TYPE_GIF_INTERLACED : IMG_TYPE_GIF;
        }
        if (introducer != GIF_EXTENSION)
            return IMG_ERR_INVALID; /* the trailer 0x3B, or anything else */
        uint8_t label;
        got = ReadZeroed(handle, &label, 1);
        if (got < 0)
            return got;
        int result = got < 1 ? IMG_ERR_INVALID : SkipSubBlocks(handle);
        if (result < 0)
            return result;
    }
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeGif(ImgDetectBytes &s)
{
    return memcmp(s.b, "GIF", 3) == 0;
}

int RefineGif(int handle, uint32_t start)
{
    (void)start;
    return GifSubtype(handle);
}

constexpr ImgTypeEntry kGifTypes[] = {
    {IMG_TYPE_GIF, "GIF", nullptr},
    {IMG_TYPE_GIF_INTERLACED, "GIF, interlaced", nullptr},
};

} // namespace

const ImgFormat kGifFormat = {"gif", "gif", 4, ProbeGif, RefineGif, nullptr, nullptr, false, kGifTypes};
