/*
 * display.cpp - the display and print entry points: the drawing step (the
 * display rectangle in device units, the device context's state saved and
 * restored around the drawing), the choice of mode, the palette realised for
 * the image, the aspect display with its scroll bars, the fast print path,
 * and the decode that draws its rows as they arrive.  The renderers are in
 * render.cpp, the device contexts behind gdi.h.
 */
#include <string.h>

#include <algorithm>

#include "color/dither.h"
#include "color/lookup.h"
#include "core/dib.h"
#include "core/guard.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/progress.h"
#include "display/gdi.h"
#include "display/render.h"

namespace {

/* Process-wide display settings, 0 at start. */
int32_t aliasMode;  /* IMGLOW_set_alias: 0 off, 1 anti-aliased bilevel (mode 3), 2 grey (mode 2) */
int32_t autoColour; /* IMGLOW_autocolor */

int32_t Clamp32(int64_t v)
{
    return (int32_t)std::clamp<int64_t>(v, -2147483647 - 1, 2147483647);
}

void StoreRectangle(ImgDescriptor *d, int32_t x, int32_t y, int32_t width, int32_t height)
{
    d->displayX = x;
    d->displayY = y;
    d->displayWidth = width;
    d->displayHeight = height;
}

/* Selects the palette that was there before the display palette back into
 * the device context and deletes the display palette. */
void ReleasePalette(ImgDescriptor *d, GdiDevice &device)
{
    if (!d->previousPalette || !d->displayPalette)
        return;
    device.SelectPalette(d->previousPalette);
    device.DeleteObject(d->displayPalette);
    d->previousPalette = nullptr;
    d->displayPalette = nullptr;
}

/* The entries of the display palette as B, G, R triples; their count. */
int PaletteEntries(const ImgDescriptor *d, int bits, uint8_t *bgr)
{
    int count = bits == 1 ? (aliasMode == 2 ? 256 : 2) : bits == 4 ? 16 : 256;
    if (aliasMode == 2 && bits == 1) {
        for (int i = 0; i < count; i++)
            memset(bgr + 3 * i, i, 3);
    } else if ((bits >= 24 || autoColour) && bits != 4) {
        for (int i = 0; i < count; i++) { /* 3-3-2: blue in bits 1-0 */
            bgr[3 * i] = (uint8_t)((i & 3) * 255 / 3);
            bgr[3 * i + 1] = (uint8_t)(((i >> 2) & 7) * 255 / 7);
            bgr[3 * i + 2] = (uint8_t)(((i >> 5) & 7) * 255 / 7);
        }
    } else {
        uint8_t table[256];
        ImgBuildLookupTable(d->gamma, d->brightness, d->contrast, table);
        const uint8_t *palette = d->dib + DIB_HEADER_SIZE;
        for (int i = 0; i < count; i++)
            for (int k = 0; k < 3; k++)
                bgr[3 * i + k] = table[palette[4 * i + k]];
    }
    return count;
}

/* Builds, selects and realises the image's logical palette.  A display
 * palette still held from an earlier call is released first. */
int BitmapPalette(ImgDescriptor *d, GdiDevice &device)
{
    if (!d->dib)
        return IMG_ERR_MEMORY;
    int bits = ImgDescriptorBits(d);
    if (bits < 5 && autoColour)
        return 0;
    if (!DibDepthSupported(bits))
        return IMG_ERR_TYPE;
    uint8_t bgr[3 * 256];
    int count = PaletteEntries(d, bits, bgr);
    ReleasePalette(d, device);
    void *palette = device.CreatePalette(bgr, count);
    if (!palette)
        return IMG_ERR_MEMORY;
    void *previous = device.SelectPalette(palette);
    if (!previous) {
        device.DeleteObject(palette);
        return IMG_ERR_GDI;
    }
    device.RealizePalette();
    d->previousPalette = previous;
    d->displayPalette = palette;
    return 0;
}

/* Mode 1 for a device of fewer than four colours (NUMCOLORS unsigned: the
 * -1 of a true-colour device is never few) and an image of 4 bits or more;
 * a bilevel image with anti-aliasing on: 2 (grey) or 3. */
int ChooseMode(const ImgDescriptor *d, GdiDevice &device)
{
    int bits = ImgDescriptorBits(d);
    uint32_t colours = (uint32_t)device.DeviceCaps(GDI_NUMCOLORS);
    int mode = colours < 4 && bits >= 4 ? 1 : 0;
    if (aliasMode && bits == 1)
        mode = aliasMode == 2 ? 2 : 3;
    return mode;
}

enum class Path { Bands, Print, PrintAtOnce };

/* The drawing step.  `rowsEnd` > `rowsBegin` limits the drawing to the
 * device pixels of those image rows. */
int Draw(ImgDescriptor *d, GdiDevice &device, Path path, int32_t rowsBegin = 0, int32_t rowsEnd = 0)
{
    if (d->displayWidth < 1 || d->displayHeight < 1)
        return IMG_ERR_DISPLAY_RECT;
    if (!d->dib)
        return IMG_ERR_MEMORY;
    const int32_t logical[4] = {d->displayX, d->displayY, d->displayWidth, d->displayHeight};
    int64_t x0 = logical[0], y0 = logical[1];
    int64_t x1 = x0 + logical[2], y1 = y0 + logical[3];
    device.LPtoDP(&x0, &y0);
    device.LPtoDP(&x1, &y1);
    RenderRequest request = {d, &device, 0, path != Path::Bands, DitherMode(), x0, y0,
                             x1 > x0 ? x1 - x0 : x0 - x1, y1 > y0 ? y1 - y0 : y0 - y1,
                             rowsBegin, rowsEnd};
    StoreRectangle(d, Clamp32(x0), Clamp32(y0), Clamp32(request.width), Clamp32(request.height));
    int result = IMG_ERR_GDI;
    int saved = device.Save();
    if (saved) {
        device.UseDeviceUnits();
        request.mode = ChooseMode(d, device);
        result = path == Path::PrintAtOnce ? RenderCropAtOnce(request) : 0;
        if (result == 0) { /* not printed at once: in bands */
            if (request.mode == 0 && !d->codedRows)
                result = BitmapPalette(d, device);
            if (result >= 0)
                result = RenderCrop(request);
        }
        device.Restore(saved);
    }
    StoreRectangle(d, logical[0], logical[1], logical[2], logical[3]);
    return result < 0 ? result : 0;
}

enum class Variant { Plain, Premultiplied, Transparent };

int Display(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width, int32_t height,
            Variant variant, uint32_t colour)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    StoreRectangle(d, x, y, width, height);
    if (variant != Variant::Transparent && (width < 1 || height < 1))
        return IMG_ERR_DISPLAY_RECT;
    if (variant == Variant::Transparent)
        d->transparentColour = colour;
    std::unique_ptr<GdiDevice> device = GdiOpen(hdc);
    if (!device)
        return IMG_ERR_GDI;
    d->pmaDisplay = variant == Variant::Premultiplied;
    d->transparentActive = variant == Variant::Transparent;
    int result = Draw(d, *device, Path::Bands);
    d->pmaDisplay = 0;
    d->transparentActive = 0;
    ReleasePalette(d, *device);
    return result;
}

int Print(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width, int32_t height, Path path)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    StoreRectangle(d, x, y, width, height);
    std::unique_ptr<GdiDevice> device = GdiOpen(hdc);
    if (!device)
        return width < 1 || height < 1 ? IMG_ERR_DISPLAY_RECT : IMG_ERR_GDI;
    return Draw(d, *device, path);
}

/* ---- the aspect display ---- */

/* The crop size for a zoom in percent: the display's sides (exchanged at 90
 * and 270 degrees) * 100 / zoom, brought inside the image with the
 * display's proportion. */
void ZoomedCrop(const ImgDescriptor *d, bool turned, int64_t width, int64_t height, int32_t zoom,
                int64_t *cw, int64_t *ch)
{
    int64_t sideW = turned ? height : width, sideH = turned ? width : height;
    *cw = sideW * 100 / zoom;
    *ch = sideH * 100 / zoom;
    if (*cw > d->width || *ch > d->height) {
        *cw = d->width;
        *ch = *cw * sideH / sideW;
        if (*ch > d->height) {
            *ch = d->height;
            *cw = *ch * sideW / sideH;
        }
    }
    *cw = std::max<int64_t>(*cw, 1); /* a crop side is at least a pixel */
    *ch = std::max<int64_t>(*ch, 1);
}

/* Fit: the largest rectangle of the image's proportion (sides exchanged at
 * 90 and 270) inside width x height, centred; its origin is the margins
 * alone. */
void FittedRectangle(const ImgDescriptor *d, bool turned, int64_t width, int64_t height, int64_t *rect)
{
    int64_t iw = turned ? d->height : d->width, ih = turned ? d->width : d->height;
    int64_t needed = width * ih / iw;
    if (needed > height) {
        int64_t w = height * iw / ih;
        rect[0] = (width - w) / 2, rect[1] = 0, rect[2] = w, rect[3] = height;
    } else {
        rect[0] = 0, rect[1] = (height - needed) / 2, rect[2] = width, rect[3] = needed;
    }
}

/* The scroll bars of `window` at the crop position; a bar's position runs
 * against the crop where the angle turns its axis. */
void SetScrollBars(const ImgDescriptor *d, void *window)
{
    int32_t rw = d->width - d->cropWidth, rh = d->height - d->cropHeight;
    int angle = d->displayAngle;
    if (angle == 90 || angle == 270) {
        GdiSetScrollBar(window, GDI_SB_HORZ, rh, angle == 90 ? rh - d->cropY - 1 : d->cropY);
        GdiSetScrollBar(window, GDI_SB_VERT, rw, angle == 270 ? rw - d->cropX - 1 : d->cropX);
    } else {
        GdiSetScrollBar(window, GDI_SB_HORZ, rw, angle == 180 ? rw - d->cropX - 1 : d->cropX);
        GdiSetScrollBar(window, GDI_SB_VERT, rh, angle == 180 ? rh - d->cropY - 1 : d->cropY);
    }
    if ((rw == 0) != (rh == 0))
        GdiValidateWindow(window);
}

int DisplayAspect(int32_t handle, void *hdc, void *window, int32_t x, int32_t y, int32_t width,
                  int32_t height, int32_t zoom)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    if (width < 1 || height < 1) { /* the proportions below divide by them */
        StoreRectangle(d, x, y, width, height);
        return IMG_ERR_DISPLAY_RECT;
    }
    if (zoom < 0)
        return IMG_ERR_TYPE;
    if (d->width < 1 || d->height < 1)
        return IMG_ERR_INVALID;
    std::unique_ptr<GdiDevice> device = GdiOpen(hdc);
    if (!device)
        return IMG_ERR_GDI;
    int angle = d->displayAngle;
    bool turned = angle == 90 || angle == 270;
    int64_t oldW = d->cropWidth, oldH = d->cropHeight, cw = d->width, ch = d->height;
    int64_t cropX = d->cropX, cropY = d->cropY;
    if (zoom) {
        ZoomedCrop(d, turned, width, height, zoom, &cw, &ch);
        StoreRectangle(d, x, y, width, height);
        if (zoom != d->zoomPercent) { /* the centre stays put */
            cropX += (oldW - cw) / 2;
            cropY += (oldH - ch) / 2;
        }
        if (angle == 90 || angle == 180)
            cropY += oldH - ch;
        if (angle == 270 || angle == 180)
            cropX += oldW - cw;
    } else {
        int64_t rect[4];
        FittedRectangle(d, turned, width, height, rect);
        StoreRectangle(d, Clamp32(rect[0]), Clamp32(rect[1]), Clamp32(rect[2]), Clamp32(rect[3]));
    }
    d->zoomPercent = zoom;
    d->cropWidth = (int32_t)cw;
    d->cropHeight = (int32_t)ch;
    d->cropX = (int32_t)std::clamp<int64_t>(cropX, 0, d->width - cw);
    d->cropY = (int32_t)std::clamp<int64_t>(cropY, 0, d->height - ch);
    SetScrollBars(d, window);
    int result = Draw(d, *device, Path::Bands);
    ReleasePalette(d, *device);
    return result;
}

/* ---- drawing rows as a decode stores them ---- */

struct Progressive {
    GdiDevice *device;
    int32_t x, y, width, height;
    int32_t every;             /* rows between draws; 0: a sixteenth of the height, at least 32 */
    int32_t pending = 0, first = 0, end = 0; /* rows stored since the last draw */
    int32_t told = 0;          /* rows stored in all */
    int32_t handle = -1;
};

int DrawPending(Progressive &p, int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    StoreRectangle(d, p.x, p.y, p.width, p.height);
    int result = Draw(d, *p.device, Path::Bands, p.first, p.end);
    p.pending = 0;
    return result;
}

int RowStored(void *context, int32_t handle, int32_t row)
{
    return Guarded([&]() -> int32_t {
        Progressive &p = *static_cast<Progressive *>(context);
        const ImgDescriptor *d = ImgTableGet(handle);
        if (!d)
            return 0;
        p.handle = handle;
        p.told++;
        p.first = p.pending ? std::min(p.first, row) : row;
        p.end = p.pending ? std::max(p.end, row + 1) : row + 1;
        p.pending++;
        int64_t every = p.every > 0 ? p.every : std::max<int64_t>(32, ((int64_t)d->height + 15) / 16);
        return p.pending >= every ? DrawPending(p, handle) : 0;
    });
}

int DecompressDisplay(const char *path, void *hdc, int32_t x, int32_t y, int32_t width, int32_t height,
                      int32_t every)
{
    std::unique_ptr<GdiDevice> device = GdiOpen(hdc);
    if (!device)
        return IMG_ERR_GDI;
    Progressive progressive{device.get(), x, y, width, height, every};
    ImgSetRowWatcher(RowStored, &progressive);
    int32_t handle = IMG_decompress_bitmap(path);
    ImgSetRowWatcher(nullptr, nullptr);
    if (handle < 0)
        return handle;
    ImgDescriptor *d = ImgTableGet(handle);
    int result = 0;
    if (progressive.told < d->height) { /* rows that were never told: the whole picture */
        StoreRectangle(d, x, y, width, height);
        result = Draw(d, *device, Path::Bands);
    } else if (progressive.pending) {
        result = DrawPending(progressive, handle);
    }
    StoreRectangle(d, x, y, width, height);
    ReleasePalette(d, *device);
    if (result < 0) {
        IMG_delete_bitmap(handle);
        return result;
    }
    return handle;
}

} // namespace

/* ---- the exported calls ---- */

int32_t IMGAPI IMG_display_bitmap(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width,
                                  int32_t height)
{
    return Guarded([&]() -> int32_t { return Display(handle, hdc, x, y, width, height, Variant::Plain, 0); });
}

int32_t IMGAPI IMG_display_bitmap_pma(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width,
                                      int32_t height)
{
    return Guarded([&]() -> int32_t {
        return Display(handle, hdc, x, y, width, height, Variant::Premultiplied, 0);
    });
}

int32_t IMGAPI IMG_display_bitmap_transp(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width,
                                         int32_t height, uint32_t colour)
{
    return Guarded([&]() -> int32_t {
        return Display(handle, hdc, x, y, width, height, Variant::Transparent, colour);
    });
}

int32_t IMGAPI IMG_display_bitmap_aspect(int32_t handle, void *hdc, void *hwnd, int32_t x, int32_t y,
                                         int32_t width, int32_t height, int32_t zoom)
{
    return Guarded([&]() -> int32_t { return DisplayAspect(handle, hdc, hwnd, x, y, width, height, zoom); });
}

int32_t IMGAPI IMG_display_bitmap_iac(int32_t handle, void *, void *, int32_t x, int32_t y,
                                      int32_t width, int32_t height, int32_t)
{
    return Guarded([&]() -> int32_t {
        ImgDescriptor *d = ImgTableGet(handle);
        if (!d)
            return IMG_ERR_HANDLE;
        StoreRectangle(d, x, y, width, height);
        return 0;
    });
}

int32_t IMGAPI IMG_print_bitmap(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width,
                                int32_t height)
{
    return Guarded([&]() -> int32_t { return Print(handle, hdc, x, y, width, height, Path::Print); });
}

int32_t IMGAPI IMG_print_bitmap_fast(int32_t handle, void *hdc, int32_t x, int32_t y, int32_t width,
                                     int32_t height)
{
    return Guarded([&]() -> int32_t { return Print(handle, hdc, x, y, width, height, Path::PrintAtOnce); });
}

int32_t IMGAPI IMG_bitmap_palette(int32_t handle, void *hdc)
{
    return Guarded([&]() -> int32_t {
        ImgDescriptor *d = ImgTableGet(handle);
        if (!d)
            return IMG_ERR_HANDLE;
        std::unique_ptr<GdiDevice> device = GdiOpen(hdc);
        if (!device)
            return IMG_ERR_GDI;
        return BitmapPalette(d, *device);
    });
}

int32_t IMGAPI IMGLOW_set_alias(int32_t mode)
{
    return Guarded([&]() -> int32_t {
        if (mode < 0 || mode > 2)
            return IMG_ERR_TYPE;
        aliasMode = mode;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_autocolor(int32_t on)
{
    return Guarded([&]() -> int32_t {
        autoColour = on != 0;
        return 0;
    });
}

int32_t IMGAPI IMG_decompress_bitmap_display(const char *path, void *hdc, int32_t x, int32_t y,
                                             int32_t width, int32_t height, int32_t rowsBetweenDraws)
{
    return Guarded([&]() -> int32_t {
        return DecompressDisplay(path, hdc, x, y, width, height, rowsBetweenDraws);
    });
}
