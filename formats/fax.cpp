/*
 * fax.cpp - raw CCITT fax streams, read with the caller's geometry and
 * written without a file header.
 */
#include "formats/fax.h"

#include <string.h>

#include "codecs/ccitt_decode.h"
#include "codecs/ccitt_encode.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

/* The stream FaxRead decodes next: the reader signature carries no
 * parameters, so IMG_decompress_fax sets them here just before the decode. */
struct FaxStream {
    int32_t width, height, type, fillOrder;
} stream;

/* The raw types carry 1-bit images only (-21 otherwise). */
int WriteRaw(int handle, const uint8_t *header, ImgRowSource rowSource, void *sourceContext,
             int lsbFirst, int mode)
{
    if (GetLE16(header + 14) != 1)
        return IMG_ERR_DEPTH;
    return CcittEncodeFramed(handle, header, rowSource, sourceContext, lsbFirst, mode, 0);
}

} // namespace

void FaxSetStream(int32_t width, int32_t height, int32_t type, int32_t fillOrder)
{
    stream = {width, height, type, fillOrder};
}

int FaxRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
            int handle)
{
    (void)start;
    uint8_t block[IMG_HEADER_BLOCK_SIZE];
    DibBilevelHeader(block, stream.width, stream.height,
                     (uint32_t)(DibStride((uint32_t)stream.width, 1) * (uint64_t)stream.height));
    int result = headerSink(block, sinkContext);
    if (result < 0)
        return result;

    ImgBuffer buffer(CCITT_CHUNK + 500);
    if (!buffer)
        return IMG_ERR_MEMORY;
    CcittParameters p;
    memset(&p, 0, sizeof p);
    p.width = (uint16_t)stream.width;
    p.height = stream.height;
    p.fillOrder = stream.fillOrder;
    p.mode = stream.type;
    p.whiteIsZero = 1;
    /* codedBytes 0: the non-reading modes (type 2, 128) fill the buffer from
     * the source as the reading modes do (docs/DEVIATIONS.md). */
    if (stream.type == 4)
        result = CcittDecodeG4(buffer.get(), stream.height, 0, &p, handle, rowSink, sinkContext);
    else if (stream.type == 2)
        result = CcittDecode2D(buffer.get(), stream.height, 0, &p, handle, rowSink, sinkContext);
    else
        result = CcittDecode1D(buffer.get(), stream.height, 0, &p, handle, rowSink, sinkContext);
    return result < 0 ? result : 1;
}

int FaxWriteG3(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteRaw(handle, header, rowSource, sourceContext, 0, 3);
}

int FaxWriteG3Lsb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteRaw(handle, header, rowSource, sourceContext, 1, 3);
}

int FaxWriteG4(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteRaw(handle, header, rowSource, sourceContext, 0, 4);
}

int FaxWriteG4Lsb(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    return WriteRaw(handle, header, rowSource, sourceContext, 1, 4);
}

namespace {

constexpr ImgTypeEntry kFaxTypes[] = {
    {IMG_TYPE_FAX_G3, "raw CCITT Group 3", FaxWriteG3},
    {IMG_TYPE_FAX_G3_B, "raw CCITT Group 3, least significant bit first", FaxWriteG3Lsb},
    {IMG_TYPE_FAX_G4, "raw CCITT Group 4", FaxWriteG4},
    {IMG_TYPE_FAX_G4_B, "raw CCITT Group 4, least significant bit first", FaxWriteG4Lsb},
};

} // namespace

/* Raw streams carry no signature: they are read through IMG_decompress_fax. */
const ImgFormat kFaxFormat = {"fax",   nullptr, kNeverDetected, nullptr, nullptr,
                              nullptr, nullptr, false,          kFaxTypes};
