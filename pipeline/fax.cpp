/*
 * fax.cpp - IMG_decompress_fax and its memory variants: a raw fax stream
 * decoded through the decode pipeline with the caller's geometry.
 */
#include "codecs/ccitt_decode.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "formats/fax.h"
#include "pipeline/decode.h"
#include "core/guard.h"

namespace {

constexpr int32_t kUnknownHeightRows = 2048; /* rows decoded when the caller gives height 0 */

/* Height 0: the rows actually produced become the image's height. */
void SetProducedHeight(int32_t image)
{
    ImgDescriptor *d = ImgTableGet(image);
    int32_t rows = CcittRowsProduced();
    if (!d || !d->dib || rows < 1 || rows >= d->height)
        return;
    BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)d->dib;
    d->height = rows;
    d->cropHeight = rows;
    h->biHeight = rows;
    h->biSizeImage = (uint32_t)((uint64_t)d->stride * (uint64_t)rows);
}

int32_t DecompressFax(int32_t handle, int32_t width, int32_t height, int32_t type,
                      int32_t fillOrder)
{
    if (width < 1 || width > RUN_MAX_WIDTH || height < 0)
        return IMG_ERR_INVALID;
    FaxSetStream(width, height ? height : kUnknownHeightRows, type, fillOrder);
    int32_t image = ImgDecodeWithReader(FaxRead, 0, handle);
    if (image >= 0 && height == 0)
        SetProducedHeight(image);
    return image;
}

} // namespace

int32_t IMGAPI IMG_decompress_fax(int32_t handle, int32_t width, int32_t height, int32_t type,
                                  int32_t fillOrder)
{
    return Guarded([&] { return DecompressFax(handle, width, height, type, fillOrder); });
}

int32_t IMGAPI IMG_decompress_fax_mem(void *memory, int32_t width, int32_t height, int32_t type,
                                      int32_t fillOrder)
{
    return Guarded([&] {
        ImgSetMemorySource(memory);
        return DecompressFax(IMG_MEMORY_HANDLE, width, height, type, fillOrder);
    });
}

int32_t IMGAPI IMG_decompress_fax_mem_size(void *memory, uint32_t size, int32_t width,
                                           int32_t height, int32_t type, int32_t fillOrder)
{
    return Guarded([&] {
        ImgSetMemorySourceSized(memory, size);
        return DecompressFax(IMG_MEMORY_HANDLE, width, height, type, fillOrder);
    });
}
