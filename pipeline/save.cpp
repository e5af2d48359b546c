/*
 * save.cpp - the save pipeline.  Prepares a private copy of the
 * image's header and palette, applies brightness and contrast, chooses the
 * writer by type and serves it the crop rectangle's rows.
 */
#include "pipeline/save.h"

#include <string.h>

#include "core/guard.h"
#include "color/lookup.h"
#include "core/codec_settings.h"
#include "core/contracts.h"
#include "pipeline/decode.h"
#include "core/dib.h"
#include "core/progress.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "pipeline/detect.h"
#include "core/runs.h"

static int32_t safeSave; /* IMGLOW_set_safe_save: off at start */

/* ---- the row source ---- */

int ImgLibraryRowSource(void *sourceContext, uint8_t *buffer, int rowIndex, int rowBytes)
{
    ImgSaveContext *c = static_cast<ImgSaveContext *>(sourceContext);
    int result = ImgReportProgress(c->imageHeight);
    if (result < 0)
        return result;
    const ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d || rowBytes < 0 || rowIndex < 0 || rowIndex >= d->cropHeight)
        return IMG_ERR_TYPE; /* a request outside the crop rectangle */
    if (!d->codedRows) {
        int64_t storedRow = (int64_t)c->imageHeight - c->cropTop - rowIndex - 1;
        int64_t offset = storedRow * c->imageStride + c->cropOffsetBytes;
        int64_t inside = (int64_t)c->imageStride * c->imageHeight - offset;
        if (inside < 0)
            return IMG_ERR_TYPE;
        /* The top row's padded crop row can reach past the block: copy what
         * lies inside and zero the rest (only row padding lies there). */
        int64_t n = rowBytes < inside ? rowBytes : inside;
        memcpy(buffer, c->bits + offset, (size_t)n);
        memset(buffer + n, 0, (size_t)(rowBytes - n));
    } else {
        if (!c->scratch) {
            c->scratch = static_cast<uint8_t *>(ImgAlloc((size_t)d->width * 4 + 4000));
            if (!c->scratch)
                return IMG_ERR_MEMORY;
        }
        uint32_t bytes;
        const uint16_t *record = RunStoreRow(d, c->cropTop + rowIndex, &bytes);
        if (!record)
            return IMG_ERR_INVALID;
        /* The crop columns extracted from the runs (the scaler at 1.0). */
        uint32_t room = (uint32_t)d->width * 4 + 4000;
        if ((uint32_t)rowBytes > room)
            return IMG_ERR_TYPE;
        RunExpandRowAt(record, bytes, d->cropX, d->cropWidth, c->scratch, room);
        memcpy(buffer, c->scratch, (size_t)rowBytes);
    }
    if (c->lookupTable)
        for (int i = 0; i < rowBytes; i++)
            buffer[i] = c->lookupTable[buffer[i]];
    return 0;
}

/* The record of row `rowIndex` of the crop rectangle, for a run-coded image
 * whose crop starts at the left edge and that no lookup table changes: the
 * row source would serve its expansion (RunRecordSource in core/runs.h). */
static int ImgLibraryRecordSource(void *sourceContext, int rowIndex, const uint16_t **record,
                                  uint32_t *recordBytes)
{
    ImgSaveContext *c = static_cast<ImgSaveContext *>(sourceContext);
    const ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d || !d->codedRows || d->cropX != 0 || c->lookupTable)
        return 0;
    int result = ImgReportProgress(c->imageHeight);
    if (result < 0)
        return result;
    if (rowIndex < 0 || rowIndex >= d->cropHeight)
        return IMG_ERR_TYPE;
    *record = RunStoreRow(d, c->cropTop + rowIndex, recordBytes);
    return *record ? 1 : IMG_ERR_INVALID;
}

/* ---- preparation ---- */

static int PaletteIsGrey(const uint8_t *palette, uint32_t bytes)
{
    for (uint32_t i = 0; i < bytes; i += 4)
        if (palette[i] != palette[i + 1] || palette[i] != palette[i + 2])
            return 0;
    return 1;
}

static void ApplyToPalette(uint8_t *palette, uint32_t bytes, const uint8_t *table)
{
    for (uint32_t i = 0; i < bytes; i += 4)
        for (int k = 0; k < 3; k++)
            palette[i + k] = table[palette[i + k]];
}

/* Prepares the context and the header copy.  memoryVariant applies the
 * table to the palette copy for every depth below 24 bits. */
static int PrepareSave(const ImgDescriptor *d, int32_t handle, ImgSaveContext *c, uint8_t **copy,
                       int memoryVariant)
{
    if (!d->dib)
        return IMG_ERR_MEMORY;
    /* The save context's 16-bit fields, and a crop rectangle inside the image. */
    if (d->height > 32767 || d->stride > 32767)
        return IMG_ERR_TYPE;
    if (d->cropX < 0 || d->cropY < 0 || d->cropWidth < 1 || d->cropHeight < 1 ||
        (int64_t)d->cropX + d->cropWidth > d->width || (int64_t)d->cropY + d->cropHeight > d->height)
        return IMG_ERR_TYPE;
    int bits = ImgDescriptorBits(d);
    uint32_t palette = DibPaletteSize(bits);
    memset(c, 0, sizeof *c);
    c->bits = d->dib + DIB_HEADER_SIZE + palette;
    c->handle = (int16_t)handle;
    c->imageHeight = (int16_t)d->height;
    c->imageStride = (int16_t)d->stride;
    int64_t x = d->cropX;
    int64_t offset = bits == 1 ? (x + 7) / 8 : bits == 4 ? (x + 1) / 2 : x * (bits / 8);
    c->cropOffsetBytes = (int16_t)offset;
    c->cropTop = (int16_t)d->cropY;

    uint8_t *header = static_cast<uint8_t *>(ImgAlloc(IMG_HEADER_BLOCK_SIZE));
    if (!header)
        return IMG_ERR_MEMORY;
    memset(header, 0, IMG_HEADER_BLOCK_SIZE);
    memcpy(header, d->dib, DIB_HEADER_SIZE + palette);
    BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)header;
    h->biWidth = d->cropWidth;
    h->biHeight = d->cropHeight;
    if (d->codedRows)
        h->biCompression = 0; /* the writer is served plain rows */
    if (d->brightness || d->contrast) {
        ImgBuildLookupTable(0, d->brightness, d->contrast, c->table);
        uint8_t *entries = header + DIB_HEADER_SIZE;
        if (bits >= 24)
            c->lookupTable = c->table;
        else if (memoryVariant || !PaletteIsGrey(entries, palette))
            ApplyToPalette(entries, palette, c->table);
        else
            c->lookupTable = c->table;
    }
    if (d->hasTransparentColour)
        h->biClrUsed = d->transparentColour | DIB_TRANSPARENT_FLAG;
    *copy = header;
    return 0;
}

/* Prepares, dispatches through `save` and frees the copy. */
static int SaveImage(int32_t handle, int fileHandle, int32_t type, int memoryVariant)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    ImgSaveContext c;
    uint8_t *header;
    int result = PrepareSave(d, handle, &c, &header, memoryVariant);
    if (result < 0)
        return result;
    RunSetRecordSource(ImgLibraryRowSource, ImgLibraryRecordSource);
    result = IMGLOW_save_bitmap(fileHandle, header, type, (IMG_ROW_SOURCE)ImgLibraryRowSource, &c);
    ((BITMAPINFOHEADER *)header)->biClrUsed = 0;
    ImgFree(header);
    ImgFree(c.scratch);
    return result;
}

/* ---- exported ---- */

int32_t IMGAPI IMGLOW_save_bitmap(int32_t fileHandle, uint8_t *header, int32_t type,
                                  IMG_ROW_SOURCE rowSource, void *sourceContext)
{
    return Guarded([&]() -> int32_t {
        ImgWriter writer = RegistryWriter(type);
        if (!writer) {
            ImgFreeAllTracked();
            return IMG_ERR_TYPE;
        }
        return writer(fileHandle, header, (ImgRowSource)rowSource, sourceContext);
    });
}

int32_t IMGAPI IMGLOW_save_bitmap_mem(void *memory, uint8_t *header, int32_t type,
                                      IMG_ROW_SOURCE rowSource, void *sourceContext)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySource(memory);
        int32_t result = IMGLOW_save_bitmap(IMG_MEMORY_HANDLE, header, type, rowSource, sourceContext);
        return result < 0 ? result : (int32_t)ImgTell();
    });
}

int32_t IMGAPI IMG_save_bitmap_fd(int32_t handle, int32_t fileHandle, int32_t type)
{
    return Guarded([&]() -> int32_t {
        return SaveImage(handle, fileHandle, type, 0);
    });
}

int32_t IMGAPI IMG_save_bitmap_mem(int32_t handle, void *memory, int32_t type)
{
    return Guarded([&]() -> int32_t {
        if (!ImgTableGet(handle))
            return IMG_ERR_HANDLE;
        ImgSetMemorySource(memory);
        int32_t result = SaveImage(handle, IMG_MEMORY_HANDLE, type, 1);
        return result < 0 ? result : (int32_t)ImgTell();
    });
}

int32_t IMGAPI IMG_save_bitmap_mem_size(int32_t handle, void *memory, uint32_t size, int32_t type)
{
    return Guarded([&]() -> int32_t {
        if (!ImgTableGet(handle))
            return IMG_ERR_HANDLE;
        ImgSetMemorySourceSized(memory, size);
        int32_t result = SaveImage(handle, IMG_MEMORY_HANDLE, type, 1);
        return result < 0 ? result : (int32_t)ImgTell();
    });
}

/* ---- saves to a path ---- */

/* Writes into the file itself: a multi-page type appends to an existing
 * file, opened for update; on failure the file is deleted, an update-opened
 * one too. */
static int SaveInPlace(int32_t handle, const char *path, int32_t type)
{
    int result;
    {
        bool append = RegistryMultiPage(type) && ImgOpen(path, 3) >= 0;
        ImgFile file(ImgOpen(path, append ? 1 : 2));
        if (!file.ok())
            return IMG_ERR_CREATE;
        result = IMG_save_bitmap_fd(handle, file.get(), type);
    }
    if (result < 0)
        ImgDelete(path);
    return result;
}

/* Copies the existing file at `path` into the open file `to`. */
static int CopyExisting(const char *path, int to)
{
    ImgFile from(ImgOpen(path, 0));
    return from.ok() ? ImgCopyFile(from.get(), to) : IMG_ERR_CREATE;
}

/* Writes into a new file beside the target (starting as a copy of the
 * target when the type appends pages), which replaces the target once the
 * save has succeeded; a failed save deletes only the new file, so the
 * target stays byte for byte as it was. */
static int SaveBeside(int32_t handle, const char *path, int32_t type)
{
    size_t room = strlen(path) + 64;
    ImgBlock<char> temp(room);
    if (!temp)
        return IMG_ERR_MEMORY;
    int result;
    {
        ImgFile file(ImgCreateBeside(path, temp.get(), room));
        if (!file.ok())
            return IMG_ERR_CREATE;
        bool replacing = ImgOpen(path, 3) >= 0;
        result = replacing && RegistryMultiPage(type) ? CopyExisting(path, file.get()) : 0;
        if (result >= 0)
            result = IMG_save_bitmap_fd(handle, file.get(), type);
        /* Only a file that replaces another must reach the disk first: a
         * new name has nothing older that a power cut could cost. */
        if (result >= 0 && replacing && ImgFlush(file.get()) < 0)
            result = IMG_ERR_WRITE;
    }
    if (result >= 0 && ImgReplace(temp.get(), path) < 0)
        result = IMG_ERR_CREATE;
    if (result < 0)
        ImgDelete(temp.get());
    return result;
}

int32_t IMGAPI IMG_save_bitmap(int32_t handle, const char *path, int32_t type)
{
    return Guarded([&]() -> int32_t {
        if (!ImgTableGet(handle))
            return IMG_ERR_HANDLE;
        if (!path)
            return IMG_ERR_CREATE;
        if (type == IMG_TYPE_BY_EXTENSION)
            type = RegistryTypeForPath(path); /* no match leaves -1: the dispatcher gives -7 */
        return safeSave ? SaveBeside(handle, path, type) : SaveInPlace(handle, path, type);
    });
}

int32_t IMGAPI IMGLOW_set_safe_save(int32_t on)
{
    return Guarded([&]() -> int32_t {
        int32_t previous = safeSave;
        safeSave = on != 0;
        return previous;
    });
}

int32_t IMGAPI IMGLOW_set_comp_quality(int32_t quality)
{
    return Guarded([&]() -> int32_t {
        ImgSetCompressionQuality(quality);
        return 0;
    });
}
