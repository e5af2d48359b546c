/*
 * image_table.cpp - the image table, the image descriptor and the
 * raw accessors of the exported interface.
 */
#include "core/guard.h"
#include "core/image_table.h"

#include <string.h>

#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"

/* The table: tableCount slots in use, each a descriptor or NULL. */
static ImgDescriptor **imageTable;
static int32_t tableCount;

int32_t ImgTableCount(void)
{
    return tableCount;
}

int ImgTableAllocate(void)
{
    int32_t slot;
    if (!imageTable) {
        imageTable = static_cast<ImgDescriptor * *>(ImgAlloc(10 * sizeof *imageTable)); /* room for 10 */
        if (!imageTable)
            return -1;
        slot = 0;
        tableCount = 1;
    } else {
        for (slot = 0; slot < tableCount && imageTable[slot]; slot++)
            ;
        if (slot == tableCount) {
            /* tableCount * 4 + 8 bytes in the 32-bit original: room for
             * tableCount + 2 pointers.  A failed growth keeps the old table
             * (docs/DEVIATIONS.md). */
            ImgDescriptor **grown =
                static_cast<ImgDescriptor * *>(ImgRealloc(imageTable, ((size_t)tableCount + 2) * sizeof *imageTable));
            if (!grown)
                return -1;
            imageTable = grown;
            tableCount++;
        }
    }
    imageTable[slot] = NULL;
    ImgDescriptor *d = static_cast<ImgDescriptor *>(ImgAlloc(sizeof *d));
    if (!d) {
        if (slot == tableCount - 1)
            ImgTableDelete(slot, 1); /* shrink past the empty slot again */
        return -1;
    }
    memset(d, 0, sizeof *d);
    imageTable[slot] = d;
    return slot;
}

ImgDescriptor *ImgTableGet(int32_t handle)
{
    if (handle < 0 || handle >= tableCount || !imageTable)
        return NULL;
    return imageTable[handle];
}

void ImgTableDelete(int32_t handle, int keepDib)
{
    if (handle < 0 || handle >= tableCount)
        return;
    ImgDescriptor *d = imageTable[handle];
    if (d) {
        if (!keepDib)
            ImgFree(d->dib);
        if (d->codedRows)
            ImgFree(d->rowIndex);
        ImgFree(d);
        imageTable[handle] = NULL;
    }
    if (handle == tableCount - 1) {
        while (tableCount > 0 && !imageTable[tableCount - 1])
            tableCount--;
        if (tableCount == 0) {
            ImgFree(imageTable);
            imageTable = NULL;
        }
    }
}

/* The 1-bit palette rule: when entry 0 has all three components non-zero,
 * entries 0 and 1 become black and white; the bits are not touched. */
static void FixBilevelPalette(uint8_t *palette)
{
    if (palette[0] && palette[1] && palette[2]) {
        static const uint8_t blackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
        memcpy(palette, blackWhite, sizeof blackWhite);
    }
}

#define GET_DESCRIPTOR(d, handle)                                                                  \
    ImgDescriptor *d = ImgTableGet(handle);                                                        \
    if (!d)                                                                                        \
    return IMG_ERR_HANDLE

/* ---- handle lifetime ---- */

int32_t IMGAPI IMG_create_handle_keep(void *dib)
{
    return Guarded([&]() -> int32_t {
        int handle = ImgTableAllocate();
        if (handle < 0)
            return IMG_ERR_MEMORY;
        /* The slot is taken before the header is checked: on -3 it stays
         * occupied by an empty descriptor. */
        if (!dib)
            return IMG_ERR_INVALID;
        BITMAPINFOHEADER header;
        memcpy(&header, dib, sizeof header);
        int bits = header.biBitCount;
        if (header.biWidth < 1 || header.biHeight < 1 || bits < 1)
            return IMG_ERR_INVALID;
        uint64_t stride = DibStride((uint32_t)header.biWidth, bits);
        uint64_t size = DIB_HEADER_SIZE + DibPaletteSize(bits) + stride * (uint64_t)header.biHeight;
        if (!DibDepthSupported(bits) || size > 0x7FFFFFFFu)
            return IMG_ERR_INVALID; /* a depth or size the library cannot hold */
        if (bits == 1)
            FixBilevelPalette((uint8_t *)dib + DIB_HEADER_SIZE);
        ImgDescriptor *d = ImgTableGet(handle);
        ImgDescriptorSetImage(d, static_cast<uint8_t *>(dib), header.biWidth, header.biHeight, (int32_t)stride);
        d->dibSize = (uint32_t)size;
        d->codedRows = 0;
        d->callerOwnsDib = 1;
        return handle;
    });
}

int32_t IMGAPI IMG_delete_bitmap(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        (void)d;
        ImgTableDelete(handle, 0);
        return 0;
    });
}

int32_t IMGAPI IMG_delete_bitmap_keep(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        /* The caller's block stays with the caller; a block that an operation
         * put in its place belongs to the library and is freed. */
        ImgTableDelete(handle, d->callerOwnsDib);
        return 0;
    });
}

/* ---- accessors ---- */

int32_t IMGAPI IMG_bitmap_info(int32_t handle, int32_t *width, int32_t *height,
                               int32_t *bitsPerPixel)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        BITMAPINFOHEADER header;
        memcpy(&header, d->dib, sizeof header);
        if (width)
            *width = header.biWidth;
        if (height)
            *height = header.biHeight;
        if (bitsPerPixel)
            *bitsPerPixel = header.biBitCount;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_get_bitmap_header(int32_t handle, void *buffer)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        memcpy(buffer, d->dib, ImgDescriptorBitsOffset(d));
        return 0;
    });
}

int32_t IMGAPI IMGLOW_get_palette(int32_t handle, void *buffer)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        memcpy(buffer, d->dib + DIB_HEADER_SIZE, DibPaletteSize(ImgDescriptorBits(d)));
        return 0;
    });
}

int32_t IMGAPI IMGLOW_put_palette(int32_t handle, const void *buffer)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        memcpy(d->dib + DIB_HEADER_SIZE, buffer, DibPaletteSize(ImgDescriptorBits(d)));
        return 0;
    });
}

/* Checks a raster request and turns byteCount 0 into one stride.  The row
 * and the count must stay inside the image (docs/DEVIATIONS.md): a plain
 * image allows a count that runs on into the rows stored after this one (the
 * rows above it), a coded image one row. */
static int CheckRasterRequest(const ImgDescriptor *d, int32_t row, int32_t *byteCount)
{
    if (!d->dib)
        return IMG_ERR_MEMORY;
    if (row < 0 || row >= d->height || *byteCount < 0)
        return IMG_ERR_TYPE;
    if (*byteCount == 0)
        *byteCount = d->stride;
    uint64_t limit = d->codedRows ? (uint64_t)d->stride
                                  : (uint64_t)(row + 1) * (uint64_t)d->stride;
    return (uint64_t)*byteCount > limit ? IMG_ERR_TYPE : 0;
}

static uint8_t *PlainRow(const ImgDescriptor *d, int32_t row)
{
    return d->dib + ImgDescriptorBitsOffset(d) + (size_t)(d->height - row - 1) * (size_t)d->stride;
}

/* Expands coded row `row` into `scratch` (stride + 500 bytes, 0xFF-filled). */
static int ExpandCodedRow(const ImgDescriptor *d, int32_t row, uint8_t *scratch)
{
    uint32_t bytes;
    const uint16_t *record = RunStoreRow(d, row, &bytes);
    if (!record)
        return IMG_ERR_INVALID;
    RunExpandRow(record, bytes, d->width, scratch, (uint32_t)d->stride + 500);
    return 0;
}

int32_t IMGAPI IMGLOW_get_raster(int32_t handle, void *buffer, int32_t row, int32_t byteCount)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        int result = CheckRasterRequest(d, row, &byteCount);
        if (result < 0)
            return result;
        if (!d->codedRows) {
            memcpy(buffer, PlainRow(d, row), (size_t)byteCount);
            return 0;
        }
        uint8_t *scratch = static_cast<uint8_t *>(ImgAlloc((size_t)d->stride + 500));
        if (!scratch)
            return IMG_ERR_MEMORY;
        result = ExpandCodedRow(d, row, scratch);
        if (result == 0)
            memcpy(buffer, scratch, (size_t)byteCount);
        ImgFree(scratch);
        return result;
    });
}

int32_t IMGAPI IMGLOW_put_raster(int32_t handle, const void *buffer, int32_t row, int32_t byteCount)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        int result = CheckRasterRequest(d, row, &byteCount);
        if (result < 0)
            return result;
        if (!d->codedRows) {
            memcpy(PlainRow(d, row), buffer, (size_t)byteCount);
            return 0;
        }
        /* The row as it stands, overlaid with the caller's bytes (a short count
         * keeps the rest of the row, as for a plain image), then re-coded. */
        uint8_t *scratch = static_cast<uint8_t *>(ImgAlloc((size_t)d->stride + 500));
        uint16_t *work = static_cast<uint16_t *>(ImgAlloc((size_t)d->width * 4 + 200));
        if (!scratch || !work) {
            ImgFree(scratch);
            ImgFree(work);
            return IMG_ERR_MEMORY;
        }
        result = ExpandCodedRow(d, row, scratch);
        if (result == 0) {
            memcpy(scratch, buffer, (size_t)byteCount);
            int bytes = RunEncodeRow(scratch, d->width, work);
            result = RunStoreReplaceRow(d, row, work, (uint32_t)bytes);
        }
        ImgFree(scratch);
        ImgFree(work);
        return result;
    });
}

int32_t IMGAPI IMG_get_croprect(int32_t handle, int32_t *x, int32_t *y, int32_t *width,
                                int32_t *height)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (x)
            *x = d->cropX;
        if (y)
            *y = d->cropY;
        if (width)
            *width = d->cropWidth;
        if (height)
            *height = d->cropHeight;
        return 0;
    });
}

int32_t IMGAPI IMG_set_croprect(int32_t handle, int32_t x, int32_t y, int32_t width,
                                int32_t height)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (x < 0)
            x = 0;
        if (y < 0)
            y = 0;
        if ((int64_t)x + width > d->width)
            width = d->width - x;
        if ((int64_t)y + height > d->height)
            height = d->height - y;
        d->cropX = x;
        d->cropY = y;
        d->cropWidth = width;
        d->cropHeight = height;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_rop(int32_t handle, uint32_t rop)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        d->rasterOp = rop;
        return 0;
    });
}

int32_t IMGAPI IMG_set_gamma(int32_t handle, uint32_t gamma)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        d->gamma = gamma;
        return 0;
    });
}

int32_t IMGAPI IMG_set_lut(int32_t handle, int32_t contrast, int32_t brightness)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        d->contrast = contrast;
        d->brightness = brightness;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_transp_color(int32_t handle, uint32_t colour)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        d->transparentColour = colour;
        d->hasTransparentColour = 1;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_get_transp_color(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->hasTransparentColour)
            return IMG_ERR_NO_TRANSPARENT;
        return (int32_t)(d->transparentColour & 0xFF);
    });
}

int32_t IMGAPI IMG_set_display_angle(int32_t handle, int32_t angle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (angle != 0 && angle != 90 && angle != 180 && angle != 270)
            return IMG_ERR_TYPE;
        d->displayAngle = angle;
        return 0;
    });
}

int32_t IMGAPI IMG_ifl_version(int32_t *major, int32_t *minor)
{
    return Guarded([&]() -> int32_t {
        if (major)
            *major = 6;
        if (minor)
            *minor = 12;
        return 0;
    });
}

/* ---- run-coded storage ---- */

int32_t IMGAPI IMG_dib_to_runs(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        if (d->codedRows)
            return 0;
        if (ImgDescriptorBits(d) != 1)
            return IMG_ERR_DEPTH;
        if (d->width > RUN_MAX_WIDTH)
            return IMG_ERR_INVALID; /* positions are 16-bit */
        uint32_t offset = ImgDescriptorBitsOffset(d);
        uint64_t plain = offset + (uint64_t)d->stride * (uint64_t)d->height;
        uint32_t store = (uint32_t)(d->width >= 10000 ? plain / 50 : plain / 8);
        ImgDescriptor coded = *d; /* the new storage is built beside the old */
        coded.dib = static_cast<uint8_t *>(ImgAlloc((size_t)store + 8192));
        coded.rowIndex = RunStoreAllocateIndex(d->width, d->height);
        uint16_t *work = static_cast<uint16_t *>(ImgAlloc(RunRecordMaxBytes(d->width)));
        int result = coded.dib && coded.rowIndex && work ? 0 : IMG_ERR_MEMORY;
        if (result == 0) {
            coded.dibSize = store;
            memcpy(coded.dib, d->dib, offset);
            ((BITMAPINFOHEADER *)coded.dib)->biCompression = DIB_RUN_CODED;
        }
        for (int32_t row = 0; result == 0 && row < d->height; row++) {
            uint32_t bytes = (uint32_t)RunEncodeRow(PlainRow(d, row), d->width, work);
            result = RunStoreAppend(&coded, row, work, bytes, row + 10);
        }
        ImgFree(work);
        if (result < 0) {
            ImgFree(coded.dib);
            ImgFree(coded.rowIndex);
            return result;
        }
        ImgDescriptorReplaceDib(d, coded.dib, coded.dibSize);
        d->rowIndex = coded.rowIndex;
        d->codedRows = 1;
        return 0;
    });
}

int32_t IMGAPI IMG_runs_to_dib(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        GET_DESCRIPTOR(d, handle);
        if (!d->dib)
            return IMG_ERR_MEMORY;
        if (!d->codedRows)
            return 0;
        uint32_t offset = ImgDescriptorBitsOffset(d);
        size_t plain = offset + (size_t)d->stride * (size_t)d->height;
        uint8_t *block = static_cast<uint8_t *>(ImgAlloc(plain + 2000)); /* palette + stride * height + 2040 */
        if (!block)
            return IMG_ERR_MEMORY;
        memcpy(block, d->dib, offset);
        ((BITMAPINFOHEADER *)block)->biCompression = 0;
        for (int32_t row = 0; row < d->height; row++) {
            uint32_t bytes;
            const uint16_t *record = RunStoreRow(d, row, &bytes);
            uint8_t *target = block + offset + (size_t)(d->height - row - 1) * (size_t)d->stride;
            if (record)
                RunExpandRow(record, bytes, d->width, target, (uint32_t)d->stride);
            else
                memset(target, 0xFF, (size_t)d->stride);
        }
        ImgFree(d->rowIndex);
        d->rowIndex = NULL;
        d->codedRows = 0;
        ImgDescriptorReplaceDib(d, block, (uint32_t)plain);
        return 0;
    });
}
