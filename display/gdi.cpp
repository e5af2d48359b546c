/*
 * gdi.cpp - the GDI facade over the portable device context, the choice
 * between it and real GDI, and the portable context's exported calls
 * (IMGLOW_create_dc, IMGLOW_read_dc, IMGLOW_delete_dc).
 */
#include "display/gdi.h"

#include <string.h>

#include "core/guard.h"
#include "core/imgapi.h"
#include "platform/surface.h"

void GdiDib::Describe(int32_t width, int32_t height, int bitCount, const uint8_t *palette,
                      uint32_t entries)
{
    memset(&header, 0, sizeof header);
    header.biSize = DIB_HEADER_SIZE;
    header.biWidth = width;
    header.biHeight = height;
    header.biPlanes = 1;
    header.biBitCount = (uint16_t)bitCount;
    header.biClrUsed = bitCount <= 8 ? entries : 0;
    uint64_t rows = height < 0 ? -(int64_t)height : height;
    header.biSizeImage = (uint32_t)(DibStride((uint32_t)width, bitCount) * rows);
    memset(colours, 0, sizeof colours);
    if (bitCount <= 8 && palette)
        memcpy(colours, palette, 4 * (size_t)(entries < 256 ? entries : 256));
}

size_t GdiDib::Stride() const
{
    return (size_t)DibStride((uint32_t)header.biWidth, header.biBitCount);
}

namespace {

SurfaceBitmap BitmapOf(const GdiDib &dib)
{
    SurfaceBitmap b;
    b.bits = dib.bits;
    b.colours = dib.colours;
    b.colourCount = dib.header.biClrUsed ? dib.header.biClrUsed
                    : dib.header.biBitCount <= 8 ? 1u << dib.header.biBitCount
                                                  : 0;
    if (b.colourCount > 256)
        b.colourCount = 256;
    b.width = dib.header.biWidth;
    b.height = dib.header.biHeight;
    b.bitCount = dib.header.biBitCount;
    b.stride = dib.Stride();
    return b;
}

class PortableDevice final : public GdiDevice {
  public:
    explicit PortableDevice(Surface *s) : s_(s) {}
    void LPtoDP(int64_t *x, int64_t *y) override { SurfaceLPtoDP(s_, x, y); }
    int Save() override { return SurfaceSave(s_); }
    bool Restore(int saved) override { return SurfaceRestore(s_, saved) != 0; }
    void UseDeviceUnits() override
    {
        SurfaceSetMapMode(s_, SURFACE_MM_TEXT);
        SurfaceSetViewportOrg(s_, 0, 0);
        SurfaceSetWindowOrg(s_, 0, 0);
        SurfaceSetViewportExt(s_, 1, 1);
        SurfaceSetWindowExt(s_, 1, 1);
    }
    int32_t DeviceCaps(int index) override { return SurfaceDeviceCaps(s_, index); }
    bool ClipBox(GdiRect *box) override
    {
        /* The surface's bounds, in the units of the current mapping. */
        *box = {0, 0, s_->width, s_->height};
        return s_->width > 0 && s_->height > 0;
    }
    void *CreatePalette(const uint8_t *bgr, int count) override
    {
        return SurfacePaletteCreate(bgr, count);
    }
    void *SelectPalette(void *palette) override { return SurfaceSelectPalette(s_, palette); }
    int RealizePalette() override { return SurfaceRealizePalette(s_); }
    bool DeleteObject(void *object) override { return SurfacePaletteDelete(object) != 0; }
    bool StretchDIBits(int32_t xDest, int32_t yDest, int32_t wDest, int32_t hDest, int32_t xSrc,
                       int32_t ySrc, int32_t wSrc, int32_t hSrc, const GdiDib &dib,
                       uint32_t rop) override
    {
        SurfaceBitmap b = BitmapOf(dib);
        return SurfaceStretchDIBits(s_, xDest, yDest, wDest, hDest, xSrc, ySrc, wSrc, hSrc, &b,
                                    rop) != 0;
    }
    bool AlphaBlend(int32_t x, int32_t y, const GdiDib &dib) override
    {
        SurfaceBitmap b = BitmapOf(dib);
        return SurfaceAlphaBlend(s_, x, y, &b) != 0;
    }

  private:
    Surface *s_;
};

} // namespace

std::unique_ptr<GdiDevice> GdiOpen(void *dc)
{
    if (Surface *s = SurfaceFind(dc))
        return std::make_unique<PortableDevice>(s);
#ifdef _WIN32
    if (dc)
        return GdiOpenNative(dc);
#endif
    return nullptr;
}

void GdiSetScrollBar(void *window, int bar, int32_t max, int32_t pos)
{
    if (Surface *s = SurfaceFind(window)) {
        SurfaceSetScrollRange(s, bar, 0, max);
        SurfaceSetScrollPos(s, bar, pos);
        return;
    }
#ifdef _WIN32
    if (window)
        GdiNativeScrollBar(window, bar, max, pos);
#endif
}

void GdiValidateWindow(void *window)
{
    if (Surface *s = SurfaceFind(window)) {
        SurfaceValidate(s);
        return;
    }
#ifdef _WIN32
    if (window)
        GdiNativeValidate(window);
#endif
}

/* ---- the portable context's exports ---- */

int32_t IMGAPI IMGLOW_create_dc(int32_t width, int32_t height, int32_t colours, void **dc)
{
    return Guarded([&]() -> int32_t {
        if (!dc)
            return IMG_ERR_TYPE;
        *dc = nullptr;
        if (width < 1 || height < 1 || width > SURFACE_MAX_SIDE || height > SURFACE_MAX_SIDE ||
            (uint64_t)width * (uint64_t)height * 3 > SURFACE_MAX_BYTES)
            return IMG_ERR_TYPE;
        if (colours != 0 && colours != 2 && colours != 16 && colours != 256)
            return IMG_ERR_TYPE;
        Surface *s = SurfaceCreate(width, height, colours ? colours : -1);
        if (!s)
            return IMG_ERR_MEMORY;
        *dc = s;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_read_dc(void *dc, void *buffer, uint32_t size)
{
    return Guarded([&]() -> int32_t {
        Surface *s = SurfaceFind(dc);
        if (!s)
            return IMG_ERR_GDI;
        uint64_t bytes = (uint64_t)s->width * (uint64_t)s->height * 3;
        if (!buffer)
            return (int32_t)bytes;
        if (size < bytes)
            return IMG_ERR_TYPE;
        SurfaceRead(s, static_cast<uint8_t *>(buffer));
        return (int32_t)bytes;
    });
}

int32_t IMGAPI IMGLOW_delete_dc(void *dc)
{
    return Guarded([&]() -> int32_t {
        Surface *s = SurfaceFind(dc);
        if (!s)
            return IMG_ERR_GDI;
        SurfaceDelete(s);
        return 0;
    });
}
