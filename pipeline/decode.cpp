/*
 * decode.cpp - the decode pipeline.  Detects the type, hands the byte
 * source to the registered reader, and builds the image from the reader's
 * header and rows through the library's header sink and row sink, applying
 * the process-wide decode settings (fixed size, sub-rectangle, run-coding of
 * bilevel rows, progress).  Also IMG_create_handle, IMG_create_handle_shell
 * and IMGLOW_get_fileinfo, which ride on the same sinks.
 */
#include "pipeline/decode.h"

#include <string.h>

#include "core/guard.h"
#include "core/codec_settings.h"
#include "core/bytes.h"
#include "core/dib.h"
#include "core/progress.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "pipeline/detect.h"
#include "core/runs.h"
#include "color/default_palette.h"
#include "color/dither.h"
#include "formats/png.h"

/* Decode-time settings: process-wide, persistent, all 0 at start. */
static int32_t reductionBits;
static int32_t fixedWidth, fixedHeight;
static int32_t rectLeft, rectTop, rectWidth, rectHeight;
static void *displayCallback;
static int32_t displayValue;
static int32_t decodeLimit; /* MiB, 0 = none */

/* ---- the decode limit ---- */

static bool OverDecodeLimit(uint64_t bytes)
{
    return decodeLimit && bytes > ((uint64_t)decodeLimit << 20);
}

/* Holds a decode to the limit before its block is allocated.  A plain image
 * counts its whole block.  A coded image counts its row index and its store,
 * whose first block is cut to what the index leaves of the limit and which
 * may grow up to that ceiling as rows arrive, so that a page is judged by
 * what its coded rows really occupy. */
static int ApplyDecodeLimit(ImgDecodeContext *c, int coded, int32_t width, int32_t height,
                            uint64_t *total)
{
    c->storeCeiling = 0;
    if (!decodeLimit)
        return 0;
    if (!coded)
        return OverDecodeLimit(*total) ? IMG_ERR_MEMORY : 0;
    uint64_t limit = (uint64_t)decodeLimit << 20;
    uint64_t index = RunStoreIndexBytes(width, height);
    if (index >= limit)
        return IMG_ERR_MEMORY;
    c->storeCeiling = limit - index;
    if (*total > c->storeCeiling)
        *total = c->storeCeiling;
    return 0;
}

/* ---- the header sink ---- */

/* The output size, in the order of precedence; records which path applies. */
static void ChooseOutputSize(ImgDecodeContext *c, int32_t *width, int32_t *height)
{
    *width = c->sourceWidth;
    *height = c->sourceHeight;
    if (fixedWidth && fixedHeight) {
        if (fixedWidth < c->sourceWidth && fixedHeight < c->sourceHeight) {
            *width = fixedWidth;
            *height = fixedHeight;
            c->fixedSize = 1;
        }
    } else if (rectLeft || rectTop || rectWidth || rectHeight) {
        c->subRectangle = 1;
        /* The extent minus the origin is compared, deliberately. */
        if ((int64_t)rectWidth - rectLeft < c->sourceWidth)
            *width = rectWidth;
        if ((int64_t)rectHeight - rectTop < c->sourceHeight)
            *height = rectHeight;
    }
}

int ImgLibraryHeaderSink(const uint8_t *block, void *sinkContext)
{
    ImgDecodeContext *c = static_cast<ImgDecodeContext *>(sinkContext);
    ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d)
        return IMG_ERR_HANDLE;
    if (d->dib)
        return IMG_ERR_INVALID; /* a second header */
    c->header = block;
    c->rowOrder = RowOrder::Unknown;
    BITMAPINFOHEADER h;
    memcpy(&h, block, sizeof h);
    int bits = h.biBitCount;
    if (h.biWidth < 1 || h.biHeight < 1 || bits < 1)
        return IMG_ERR_INVALID;
    if (!DibDepthSupported(bits) || DibStride((uint32_t)h.biWidth, bits) > 0x7FFFFFFF)
        return IMG_ERR_INVALID;
    d->rasterOp = DIB_SRCCOPY;
    d->gamma = 150;
    d->lastReducedRow = -1;
    if (h.biClrUsed & DIB_TRANSPARENT_FLAG) {
        d->transparentColour = h.biClrUsed;
        d->hasTransparentColour = 1;
    }
    /* The depth reduction applies only as 8 from 24 bits, 4 from 8 bits
     * or more, 1 from 4 bits or more (16-bit rows have no colour row, so
     * they keep their depth for 4: docs/DEVIATIONS.md). */
    if (!DitherReductionApplies(bits, c->requestedBits))
        c->requestedBits = 0;
    int outBits = c->requestedBits ? c->requestedBits : bits;
    c->sourceWidth = h.biWidth;
    c->sourceHeight = h.biHeight;
    c->sourceBits = bits;
    c->sourceStride = (int32_t)DibStride((uint32_t)h.biWidth, bits);
    c->rowBits = outBits;
    c->rowStride = (int32_t)DibStride((uint32_t)h.biWidth, outBits);

    int32_t width, height;
    ChooseOutputSize(c, &width, &height);
    int coded = outBits == 1;
    if (width < 1 || height < 1 || (coded && width > RUN_MAX_WIDTH))
        return IMG_ERR_INVALID; /* docs/DEVIATIONS.md */
    uint64_t stride = DibStride((uint32_t)width, outBits);
    uint32_t palette = DibPaletteSize(bits);
    uint32_t outPalette = DibPaletteSize(outBits);
    /* The palette of the file's depth, or of the reduced depth where that
     * is larger (24 to 8 bits), so that dibSize covers the bitmap. */
    uint64_t pixels, total;
    if (!CheckedMul(stride, ((uint64_t)height + 3) & ~(uint64_t)3, &pixels) ||
        !CheckedAdd(pixels, (outPalette > palette ? outPalette : palette) + DIB_HEADER_SIZE, &total) ||
        total > 0x7FFFFFFFu - 8192)
        return IMG_ERR_MEMORY;
    if (coded)
        total = width >= 10000 ? total / 50 : total / 8;
    int limited = ApplyDecodeLimit(c, coded, width, height, &total);
    if (limited < 0)
        return limited;

    /* Scratch: a packed source row, an output row, a run record, the
     * reduced row and the dither routines' scratch. */
    uint64_t widest = (uint64_t)(width > h.biWidth ? width : h.biWidth);
    size_t recordAt = ((size_t)c->sourceStride + (size_t)stride + 1) & ~(size_t)1;
    size_t reducedAt = (recordAt + RunRecordMaxBytes((int32_t)widest) + 7) & ~(size_t)7;
    size_t ditherAt = (reducedAt + (size_t)c->rowStride + 7) & ~(size_t)7;
    size_t paletteAt = ditherAt + (c->requestedBits ? DitherRowScratchBytes(h.biWidth) : 0);
    size_t work = paletteAt + (c->requestedBits ? 1024 : 0) + 64;
    c->work = static_cast<uint8_t *>(ImgAlloc(work));
    uint32_t *index = coded ? RunStoreAllocateIndex(width, height) : NULL;
    uint8_t *dib = static_cast<uint8_t *>(ImgAlloc((size_t)total + 8192));
    if (!c->work || (coded && !index) || !dib) {
        ImgFree(index);
        ImgFree(dib);
        return IMG_ERR_MEMORY;
    }
    c->reduced = c->work + reducedAt;
    c->ditherScratch = c->work + ditherAt;
    c->palette = c->work + paletteAt; /* the reader may free its block before the rows */
    if (c->requestedBits)
        memcpy(c->palette, block + DIB_HEADER_SIZE, palette);
    memcpy(dib, block, DIB_HEADER_SIZE + (outBits == bits ? palette : 0));
    /* Rows a reader never delivers read as zero bytes, not as stale memory.
     * The rows of a plain image are cleared only where no row is stored
     * (ClearUnsetRows), unless a row watcher may draw them meanwhile. */
    uint32_t offset = DIB_HEADER_SIZE + outPalette;
    bool clearLater = !coded && !ImgRowWatched();
    size_t clearFrom = offset + (clearLater ? (size_t)stride * (size_t)height : 0);
    memset(dib + clearFrom, 0, (size_t)total + 8192 - clearFrom);
    c->unsetTop = 0;
    c->unsetEnd = clearLater ? height : 0;
    BITMAPINFOHEADER *out = (BITMAPINFOHEADER *)dib;
    out->biBitCount = (uint16_t)outBits;
    out->biWidth = width;
    out->biHeight = height;
    out->biSizeImage = (uint32_t)(stride * (uint64_t)height);
    if (coded)
        out->biCompression = DIB_RUN_CODED;
    /* The fixed palette of the reduced depth: 3-3-2; the 16 colours
     * with 200 (kind "dither"); black and white. */
    if (c->requestedBits)
        BuildDefaultPalette(dib, outBits == 8 ? "332" : "dither");
    ImgDescriptorSetImage(d, dib, width, height, (int32_t)stride);
    d->dibSize = (uint32_t)total;
    d->codedRows = coded;
    d->rowIndex = index;
    return 1;
}

/* ---- the rows of a plain image ----
 * A decode usually stores every row, so the pixel rows are not cleared when
 * the block is allocated: each byte is written once.  The rows stored form
 * a run from the top and a run from the bottom (readers deliver rows top
 * first or bottom first); the rows between are cleared when a row lands
 * among them, and at the end of the decode. */

static uint8_t *PlainRow(const ImgDescriptor *d, int32_t row)
{
    return d->dib + ImgDescriptorBitsOffset(d) + (size_t)(d->height - row - 1) * (size_t)d->stride;
}

/* Clears rows from .. to - 1 (top 0). */
static void ClearRows(const ImgDescriptor *d, int32_t from, int32_t to)
{
    if (from < to)
        memset(PlainRow(d, to - 1), 0, (size_t)(to - from) * (size_t)d->stride);
}

static void ClearUnsetRows(ImgDecodeContext *c, const ImgDescriptor *d)
{
    ClearRows(d, c->unsetTop, c->unsetEnd);
    c->unsetTop = c->unsetEnd = 0;
}

/* Notes that row `row` is being stored, after clearing every other unset
 * row when it does not extend one of the runs: true when the row was unset. */
static bool NoteRowStored(ImgDecodeContext *c, const ImgDescriptor *d, int32_t row)
{
    if (row < c->unsetTop || row >= c->unsetEnd)
        return false;
    if (row == c->unsetTop) {
        c->unsetTop++;
    } else if (row == c->unsetEnd - 1) {
        c->unsetEnd--;
    } else {
        ClearRows(d, c->unsetTop, row);
        ClearRows(d, row + 1, c->unsetEnd);
        c->unsetTop = c->unsetEnd = 0;
    }
    return true;
}

/* Where the library's sink stores a row as it comes: in a plain image kept
 * at the file's size and depth, a row of the image's stride. */
static uint8_t *LibraryRowTarget(void *sinkContext, int rowIndex, int rowBytes)
{
    ImgDecodeContext *c = static_cast<ImgDecodeContext *>(sinkContext);
    ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d || !d->dib || d->codedRows || c->requestedBits || c->subRectangle || c->fixedSize ||
        rowIndex < 0 || rowIndex >= d->height || rowBytes != d->stride)
        return NULL;
    return PlainRow(d, rowIndex);
}

/* ---- the row sink ---- */

static uint8_t *PackedScratch(ImgDecodeContext *c)
{
    return c->work;
}

static uint8_t *OutputScratch(ImgDecodeContext *c)
{
    return c->work + c->sourceStride;
}

static uint16_t *RecordScratch(ImgDecodeContext *c, const ImgDescriptor *d)
{
    size_t offset = (size_t)c->sourceStride + (size_t)d->stride;
    return (uint16_t *)(c->work + ((offset + 1) & ~(size_t)1));
}

/* Gives every coded row not stored yet a white record, so that rows can
 * then be replaced in any order. */
static int CompleteStore(ImgDecodeContext *c, ImgDescriptor *d)
{
    uint16_t white[5];
    int bytes = RunWhiteRecord(d->width, white);
    for (; c->rowsStored < d->height; c->rowsStored++) {
        int result = RunStoreAppend(d, c->rowsStored, white, (uint32_t)bytes, c->rowsStored + 10,
                                    c->storeCeiling);
        if (result < 0)
            return result;
    }
    c->storeComplete = 1;
    return 0;
}

/* A record into the row store.  Rows arriving in order are
 * appended; any other order completes the store and replaces the row. */
static int StoreRecord(ImgDecodeContext *c, ImgDescriptor *d, int32_t dest, const uint16_t *record,
                       uint32_t bytes, double rowsStored)
{
    if (!c->storeComplete && dest == c->rowsStored) {
        int result = RunStoreAppend(d, dest, record, bytes, rowsStored, c->storeCeiling);
        if (result == 0)
            c->rowsStored++;
        return result;
    }
    if (!c->storeComplete) {
        int result = CompleteStore(c, d);
        if (result < 0)
            return result;
    }
    return RunStoreReplaceRow(d, dest, record, bytes, c->storeCeiling);
}

/* Stores a packed row of the output width, or a run record, and tells the
 * row watcher of a row stored where it stays (coded rows that come bottom
 * first are reversed at the end: they are not told). */
static int StoreRow(ImgDecodeContext *c, ImgDescriptor *d, int32_t dest, const uint8_t *data,
                    int32_t bytes, int runForm, double rowsStored)
{
    if (!d->codedRows) {
        uint8_t *target = PlainRow(d, dest);
        size_t n = (size_t)(bytes < d->stride ? bytes : d->stride);
        bool unset = NoteRowStored(c, d, dest);
        if (data != target) /* not built in place */
            memcpy(target, data, n);
        if (unset)
            memset(target + n, 0, (size_t)d->stride - n);
        return ImgRowStored(c->handle, dest);
    }
    int bottomFirst = c->rowOrder == RowOrder::BottomFirstCoded;
    int32_t at = bottomFirst ? d->height - dest - 1 : dest;
    int result;
    if (runForm) {
        result = StoreRecord(c, d, at, (const uint16_t *)data, (uint32_t)bytes, rowsStored);
    } else {
        uint16_t *record = RecordScratch(c, d);
        int length = RunEncodeRow(data, d->width, record);
        result = StoreRecord(c, d, at, record, (uint32_t)length, rowsStored);
    }
    return result < 0 || bottomFirst ? result : ImgRowStored(c->handle, dest);
}

/* The horizontal size reduction by nearest neighbour, in 16.16 steps. */
static void ReduceRow(const uint8_t *source, int bits, int32_t sourceWidth, uint8_t *target,
                      int32_t width, int32_t targetStride, int32_t sourceStride)
{
    uint64_t step = ((uint64_t)sourceWidth << 16) / (uint64_t)width;
    memset(target, 0, (size_t)targetStride);
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) {
        /* Other depths are not reduced horizontally. */
        memcpy(target, source, (size_t)(sourceStride < targetStride ? sourceStride : targetStride));
        return;
    }
    for (int32_t x = 0; x < width; x++) {
        uint32_t sx = (uint32_t)(((uint64_t)x * step) >> 16);
        switch (bits) {
        case 1:
            if (source[sx >> 3] & (0x80 >> (sx & 7)))
                target[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
            break;
        case 4: {
            unsigned nibble = (sx & 1) ? source[sx >> 1] & 0x0F : source[sx >> 1] >> 4;
            target[x >> 1] |= (uint8_t)((x & 1) ? nibble : nibble << 4);
            break;
        }
        case 8:
            target[x] = source[sx];
            break;
        default:
            memcpy(target + 3 * (size_t)x, source + 3 * (size_t)sx, 3);
            break;
        }
    }
}

static int FixedSizeRow(ImgDecodeContext *c, ImgDescriptor *d, const uint8_t *row, int rowIndex,
                        int rowBytes, int runForm)
{
    int32_t dest = (int32_t)((int64_t)rowIndex * d->height / c->sourceHeight);
    if (dest == d->lastReducedRow)
        return 0;
    d->lastReducedRow = dest;
    const uint8_t *packed = row;
    if (runForm) {
        RunExpandRow((const uint16_t *)row, (uint32_t)rowBytes, c->sourceWidth, PackedScratch(c),
                     (uint32_t)c->rowStride);
        packed = PackedScratch(c);
    } else if (rowBytes < c->rowStride) {
        memset(PackedScratch(c), 0, (size_t)c->rowStride);
        memcpy(PackedScratch(c), row, (size_t)rowBytes);
        packed = PackedScratch(c);
    }
    uint8_t *reduced = OutputScratch(c);
    ReduceRow(packed, c->rowBits, c->sourceWidth, reduced, d->width, d->stride, c->rowStride);
    return StoreRow(c, d, dest, reduced, d->stride, 0, rowIndex + 10);
}

static int SubRectangleRow(ImgDecodeContext *c, ImgDescriptor *d, const uint8_t *row, int rowIndex,
                           int rowBytes, int runForm)
{
    if (rowIndex < rectTop || (int64_t)rowIndex >= (int64_t)rectTop + rectHeight)
        return 0;
    int32_t dest = rowIndex - rectTop;
    if (dest >= d->height)
        return 0;
    double rowsStored = rowIndex > 0 ? rowIndex : 1; /* trunc(height / rowIndex * dibSize) */
    if (runForm) {
        uint16_t *record = RecordScratch(c, d);
        int length = RunClipRecord((const uint16_t *)row, (uint32_t)rowBytes, rectLeft, rectWidth,
                                   record);
        return StoreRow(c, d, dest, (const uint8_t *)record, length, 1, rowsStored);
    }
    int bits = c->rowBits;
    /* The first byte: rectLeft / (8 / bits) below 24 bits (16 bits, where
     * that divides by zero, takes two bytes a pixel), rectLeft * 3 at 24 and 32. */
    int64_t first = bits == 16 ? (int64_t)rectLeft * 2
                  : bits < 24  ? rectLeft / (8 / bits)
                               : (int64_t)rectLeft * 3;
    uint8_t *clipped = OutputScratch(c);
    memset(clipped, 0, (size_t)d->stride);
    if (first < rowBytes) {
        int64_t n = rowBytes - first < d->stride ? rowBytes - first : d->stride;
        memcpy(clipped, row + first, (size_t)n);
    }
    return StoreRow(c, d, dest, clipped, d->stride, 0, rowsStored);
}

/* The row dithered to the requested depth with the ordered dither
 * routines (matrix row rowIndex & 7); the reduced stride
 * becomes rowBytes.  A short row is padded with zeros first. */
static int ReduceDepth(ImgDecodeContext *c, const uint8_t **row, int rowIndex, int *rowBytes)
{
    const uint8_t *source = *row;
    if (*rowBytes < c->sourceStride) {
        memset(PackedScratch(c), 0, (size_t)c->sourceStride);
        memcpy(PackedScratch(c), source, (size_t)*rowBytes);
        source = PackedScratch(c);
    }
    int result = DitherReduceRow(source, c->sourceBits, c->palette, c->sourceWidth,
                                 rowIndex, c->requestedBits, c->reduced, c->ditherScratch);
    if (result < 0)
        return result;
    *row = c->reduced;
    *rowBytes = c->rowStride;
    return 0;
}

int ImgLibraryRowSink(const uint8_t *row, void *sinkContext, int rowIndex, int rowBytes)
{
    ImgDecodeContext *c = static_cast<ImgDecodeContext *>(sinkContext);
    ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d || !d->dib)
        return IMG_ERR_INVALID; /* a row before the header */
    int result = ImgReportProgress(c->sourceHeight);
    if (result < 0)
        return result;
    if (rowIndex < 0 || rowIndex >= c->sourceHeight || rowBytes < 0)
        return IMG_ERR_INVALID; /* docs/DEVIATIONS.md */
    if (c->requestedBits) {
        result = ReduceDepth(c, &row, rowIndex, &rowBytes);
        if (result < 0)
            return result;
    }
    if (c->rowOrder == RowOrder::Unknown)
        c->rowOrder = d->codedRows && c->sourceHeight - rowIndex == 1 ? RowOrder::BottomFirstCoded
                                                                       : RowOrder::AsDelivered;
    int runForm = d->codedRows && rowBytes != c->rowStride;
    if (runForm && ((rowBytes & 1) || rowBytes < 4 ||
                    (size_t)rowBytes > RunRecordMaxBytes(c->sourceWidth) + 16))
        return IMG_ERR_INVALID; /* not a run record */
    if (c->subRectangle)
        return SubRectangleRow(c, d, row, rowIndex, rowBytes, runForm);
    if (c->fixedSize)
        return FixedSizeRow(c, d, row, rowIndex, rowBytes, runForm);
    return StoreRow(c, d, rowIndex, row, rowBytes, runForm, rowIndex + 10);
}

/* ---- decoding into a new image ---- */

/* After a successful reader: the coded store completed, and the picture
 * turned right way up when its bottom row came first. */
static int FinishDecode(ImgDecodeContext *c)
{
    ImgDescriptor *d = ImgTableGet(c->handle);
    if (!d->dib)
        return IMG_ERR_INVALID; /* the reader never called the header sink */
    if (!d->codedRows) {
        ClearUnsetRows(c, d);
        return 0;
    }
    if (!c->storeComplete) {
        int result = CompleteStore(c, d);
        if (result < 0)
            return result;
    }
    return c->rowOrder == RowOrder::BottomFirstCoded ? RunStoreReverseRows(d) : 0;
}

/* The body of the IMG_decompress_bitmap family: a new handle, the decode
 * through the library's sinks (with `reader`, or by detection when NULL),
 * and the handle deleted again on failure. */
static int DecodeToNewImage(int fileHandle, uint32_t offset, int32_t page, ImgReader reader)
{
    int handle = ImgTableAllocate();
    if (handle < 0)
        return IMG_ERR_MEMORY;
    ImgDecodeContext c;
    memset(&c, 0, sizeof c);
    c.handle = handle;
    c.requestedBits = reductionBits;
    ImgOfferRowTargets(ImgLibraryRowSink, LibraryRowTarget);
    /* A reader may deliver the image already reduced towards the fixed size. */
    if (fixedWidth > 0 && fixedHeight > 0)
        ImgSetDecodeTarget(fixedWidth, fixedHeight);
    int result = reader ? reader(offset, ImgLibraryRowSink, &c, ImgLibraryHeaderSink, fileHandle)
                        : IMGLOW_decompress_bitmap(fileHandle, offset, page,
                                                   (IMG_ROW_SINK)ImgLibraryRowSink, &c,
                                                   (IMG_HEADER_SINK)ImgLibraryHeaderSink);
    ImgSetDecodeTarget(0, 0);
    ImgFreeAllTracked(); /* whatever a failed reader left behind */
    if (result >= 0)
        result = FinishDecode(&c);
    ImgFree(c.work);
    if (result < 0) {
        ImgTableDelete(handle, 0);
        return result;
    }
    return handle;
}

int ImgDecodeWithReader(ImgReader reader, uint32_t start, int fileHandle)
{
    return DecodeToNewImage(fileHandle, start, 0, reader);
}

int32_t IMGAPI IMGLOW_decompress_bitmap(int32_t fileHandle, uint32_t offset, int32_t page,
                                        IMG_ROW_SINK rowSink, void *sinkContext,
                                        IMG_HEADER_SINK headerSink)
{
    return Guarded([&]() -> int32_t {
        char extension[4];
        ImgSeek(fileHandle, (int32_t)offset, 0);
        int result = ImgDetect(fileHandle, extension);
        if (result < 0)
            return result;
        uint32_t start = offset;
        if (page != 0) {
            start = IMG_PAGE_FLAG | (uint32_t)page;
            ImgSeek(fileHandle, (int32_t)offset, 0);
        }
        ImgReader reader = extension[0] ? RegistryReader(extension) : NULL;
        if (!reader) {
            ImgFreeAllTracked();
            return IMG_ERR_TYPE;
        }
        result = reader(start, (ImgRowSink)rowSink, sinkContext, (ImgHeaderSink)headerSink, fileHandle);
        return result < 0 ? result : 0;
    });
}

int32_t IMGAPI IMGLOW_decompress_bitmap_mem(void *memory, int32_t page, IMG_ROW_SINK rowSink,
                                            void *sinkContext, IMG_HEADER_SINK headerSink)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySource(memory);
        return IMGLOW_decompress_bitmap(IMG_MEMORY_HANDLE, 0, page, rowSink, sinkContext, headerSink);
    });
}

int32_t IMGAPI IMG_decompress_bitmap_fd(int32_t fileHandle, uint32_t offset, int32_t page)
{
    return Guarded([&]() -> int32_t {
        return DecodeToNewImage(fileHandle, offset, page, NULL);
    });
}

int32_t IMGAPI IMG_decompress_bitmap(const char *path)
{
    return Guarded([&]() -> int32_t {
        ImgFile file(ImgOpen(path, 0));
        if (!file.ok())
            return IMG_ERR_OPEN;
        return IMG_decompress_bitmap_fd(file.get(), 0, 0);
    });
}

int32_t IMGAPI IMG_decompress_bitmap_mem(void *memory, int32_t page)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySource(memory);
        return DecodeToNewImage(IMG_MEMORY_HANDLE, 0, page, NULL);
    });
}

int32_t IMGAPI IMG_decompress_bitmap_mem_size(void *memory, uint32_t size, int32_t page)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySourceSized(memory, size);
        return DecodeToNewImage(IMG_MEMORY_HANDLE, 0, page, NULL);
    });
}

int32_t IMGAPI IMG_create_handle(void *memory)
{
    return Guarded([&]() -> int32_t {
        return IMG_decompress_bitmap_mem(memory, 0);
    });
}

/* ---- pages ---- */

int32_t IMGAPI IMGLOW_get_pages_fd(int32_t fileHandle)
{
    return Guarded([&]() -> int32_t {
        char extension[4];
        int result = ImgDetect(fileHandle, extension);
        if (result < 0)
            return result;
        if (!extension[0])
            return IMG_ERR_TYPE; /* not an image we know */
        ImgPageCounter counter = RegistryPageCounter(extension);
        return counter ? counter(fileHandle) : 1;
    });
}

int32_t IMGAPI IMGLOW_get_pages(const char *path)
{
    return Guarded([&]() -> int32_t {
        ImgFile file(ImgOpen(path, 0));
        if (!file.ok())
            return IMG_ERR_OPEN;
        return IMGLOW_get_pages_fd(file.get());
    });
}

/* ---- IMGLOW_get_fileinfo ---- */

typedef struct {
    void *info;
    int filled;
} FileInfoContext;

static int FileInfoHeaderSink(const uint8_t *header, void *sinkContext)
{
    FileInfoContext *c = static_cast<FileInfoContext *>(sinkContext);
    memcpy(c->info, header, DIB_HEADER_SIZE);
    c->filled = 1;
    return IMG_ERR_STOPPED; /* stop the reader after the header */
}

static int FileInfoRowSink(const uint8_t *row, void *sinkContext, int rowIndex, int rowBytes)
{
    (void)row, (void)sinkContext, (void)rowIndex, (void)rowBytes;
    return IMG_ERR_STOPPED;
}

int32_t IMGAPI IMGLOW_get_fileinfo(const char *path, void *info)
{
    return Guarded([&]() -> int32_t {
        int result;
        FileInfoContext c = {info, 0};
        {
            ImgFile file(ImgOpen(path, 0));
            if (!file.ok())
                return IMG_ERR_OPEN;
            result = IMGLOW_decompress_bitmap(file.get(), 0, 0, (IMG_ROW_SINK)FileInfoRowSink, &c,
                                              (IMG_HEADER_SINK)FileInfoHeaderSink);
        }
        ImgFreeAllTracked();
        if (result == IMG_ERR_STOPPED)
            return 0;
        if (result < 0)
            return result;
        return c.filled ? 0 : IMG_ERR_INVALID;
    });
}

/* ---- IMG_create_handle_shell ---- */

int32_t IMGAPI IMG_create_handle_shell(const void *bitmapinfo)
{
    return Guarded([&]() -> int32_t {
        if (!bitmapinfo)
            return IMG_ERR_INVALID;
        uint8_t *block = static_cast<uint8_t *>(ImgAlloc(IMG_HEADER_BLOCK_SIZE));
        if (!block)
            return IMG_ERR_MEMORY;
        memset(block, 0, IMG_HEADER_BLOCK_SIZE);
        BITMAPINFOHEADER h;
        memcpy(&h, bitmapinfo, sizeof h);
        /* Below 24 bits the palette follows; 16 bits takes the 1024 bytes of
         * the palette size rule (4 << 16 would not fit the block). */
        uint32_t palette = h.biBitCount < 24 ? DibPaletteSize(h.biBitCount) : 0;
        memcpy(block + DIB_HEADER_SIZE, (const uint8_t *)bitmapinfo + DIB_HEADER_SIZE, palette);
        if (h.biBitCount == 1) {
            uint8_t *entries = block + DIB_HEADER_SIZE;
            if (entries[0] && entries[1] && entries[2]) {
                static const uint8_t blackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
                memcpy(entries, blackWhite, sizeof blackWhite);
            }
        }
        if (h.biXPelsPerMeter && h.biYPelsPerMeter) {
            h.biXPelsPerMeter = (int32_t)(h.biXPelsPerMeter * 0.0254);
            h.biYPelsPerMeter = (int32_t)(h.biYPelsPerMeter * 0.0254);
        }
        if (h.biWidth > 0 && h.biHeight > 0)
            h.biSizeImage = (uint32_t)(DibStride((uint32_t)h.biWidth, h.biBitCount) * (uint64_t)h.biHeight);
        memcpy(block, &h, sizeof h);

        int handle = ImgTableAllocate();
        if (handle < 0) {
            ImgFree(block);
            return IMG_ERR_MEMORY;
        }
        ImgDecodeContext c;
        memset(&c, 0, sizeof c);
        c.handle = handle;
        c.requestedBits = reductionBits;
        int result = ImgLibraryHeaderSink(block, &c);
        ImgFree(block);
        ImgFree(c.work);
        ImgDescriptor *d = ImgTableGet(handle);
        if (result >= 0 && d->codedRows) {
            /* Coding is switched off: a plain block of height * stride + 2000 bytes. */
            uint32_t offset = ImgDescriptorBitsOffset(d);
            size_t size = (size_t)d->height * (size_t)d->stride + 2000;
            uint8_t *plain = OverDecodeLimit(offset + (uint64_t)d->height * (uint64_t)d->stride)
                                 ? NULL
                                 : static_cast<uint8_t *>(ImgRealloc(d->dib, size));
            if (!plain) {
                result = IMG_ERR_MEMORY;
            } else {
                ImgFree(d->rowIndex);
                d->rowIndex = NULL;
                d->codedRows = 0;
                d->dib = plain;
                d->dibSize = offset + (uint32_t)d->height * (uint32_t)d->stride;
                ((BITMAPINFOHEADER *)plain)->biCompression = 0;
                memset(plain + offset, 0, size - offset);
            }
        } else if (result >= 0) {
            ClearUnsetRows(&c, d);
        }
        if (result < 0) {
            ImgTableDelete(handle, 0);
            return result;
        }
        return handle;
    });
}

/* ---- settings ---- */

int32_t IMGAPI IMGLOW_set_decomp_reduction(int32_t bits)
{
    return Guarded([&]() -> int32_t {
        if (bits != 0 && bits != 1 && bits != 4 && bits != 8)
            return IMG_ERR_TYPE;
        reductionBits = bits;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_decompsize(int32_t width, int32_t height)
{
    return Guarded([&]() -> int32_t {
        fixedWidth = width;
        fixedHeight = height;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_decomp_rect(int32_t left, int32_t top, int32_t width, int32_t height)
{
    return Guarded([&]() -> int32_t {
        rectLeft = left < 0 ? 0 : left;
        rectTop = top < 0 ? 0 : top;
        rectWidth = width;
        rectHeight = height;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_decode_limit(int32_t megabytes)
{
    return Guarded([&]() -> int32_t {
        if (megabytes < 0)
            return IMG_ERR_TYPE;
        int32_t previous = decodeLimit;
        decodeLimit = megabytes;
        return previous;
    });
}

int32_t IMGAPI IMGLOW_set_alpha_background(uint32_t colour)
{
    return Guarded([&]() -> int32_t {
        if (colour > 0xFFFFFF)
            return IMG_ERR_TYPE;
        return (int32_t)PngSetAlphaBackground(colour);
    });
}

int32_t IMGAPI IMGLOW_set_dispfunc(void *callback, int32_t value)
{
    return Guarded([&]() -> int32_t {
        displayCallback = callback;
        displayValue = value;
        return 0;
    });
}
