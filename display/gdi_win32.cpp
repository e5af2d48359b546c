/*
 * gdi_win32.cpp - the GDI facade over a real device context (Windows only:
 * gdi32 and user32, system DLLs).  Elsewhere this file is empty.
 */
#ifdef _WIN32
#include "display/gdi.h"

#include <stddef.h>
#include <string.h>
#include <windows.h>

#include <vector>

namespace {

LONG Clamp32(int64_t v)
{
    return v > 2147483647 ? 2147483647 : v < -2147483647 - 1 ? -2147483647 - 1 : (LONG)v;
}

class NativeDevice final : public GdiDevice {
  public:
    explicit NativeDevice(HDC dc) : dc_(dc) {}
    void LPtoDP(int64_t *x, int64_t *y) override
    {
        POINT p = {Clamp32(*x), Clamp32(*y)};
        ::LPtoDP(dc_, &p, 1);
        *x = p.x;
        *y = p.y;
    }
    int Save() override { return ::SaveDC(dc_); }
    bool Restore(int saved) override { return ::RestoreDC(dc_, saved) != 0; }
    void UseDeviceUnits() override
    {
        ::SetMapMode(dc_, MM_TEXT);
        ::SetViewportOrgEx(dc_, 0, 0, NULL);
        ::SetWindowOrgEx(dc_, 0, 0, NULL);
        ::SetViewportExtEx(dc_, 1, 1, NULL);
        ::SetWindowExtEx(dc_, 1, 1, NULL);
    }
    int32_t DeviceCaps(int index) override { return ::GetDeviceCaps(dc_, index); }
    bool ClipBox(GdiRect *box) override
    {
        RECT r;
        int kind = ::GetClipBox(dc_, &r);
        if (kind == ERROR || kind == NULLREGION)
            return false;
        *box = {r.left, r.top, r.right, r.bottom};
        return true;
    }
    void *CreatePalette(const uint8_t *bgr, int count) override
    {
        /* LOGPALETTE declares one entry; the others follow it in the block. */
        std::vector<uint8_t> block(sizeof(LOGPALETTE) + 256 * sizeof(PALETTEENTRY));
        LOGPALETTE *palette = reinterpret_cast<LOGPALETTE *>(block.data());
        palette->palVersion = 0x300;
        palette->palNumEntries = (WORD)count;
        PALETTEENTRY *entries = reinterpret_cast<PALETTEENTRY *>(block.data() + offsetof(LOGPALETTE, palPalEntry));
        for (int i = 0; i < count; i++)
            entries[i] = {bgr[3 * i + 2], bgr[3 * i + 1], bgr[3 * i], 0};
        return ::CreatePalette(palette);
    }
    void *SelectPalette(void *palette) override
    {
        return ::SelectPalette(dc_, static_cast<HPALETTE>(palette), FALSE);
    }
    int RealizePalette() override
    {
        UINT n = ::RealizePalette(dc_);
        return n == GDI_ERROR ? -1 : (int)n;
    }
    bool DeleteObject(void *object) override { return ::DeleteObject(static_cast<HGDIOBJ>(object)) != 0; }
    bool StretchDIBits(int32_t xDest, int32_t yDest, int32_t wDest, int32_t hDest, int32_t xSrc,
                       int32_t ySrc, int32_t wSrc, int32_t hSrc, const GdiDib &dib,
                       uint32_t rop) override
    {
        int lines = ::StretchDIBits(dc_, xDest, yDest, wDest, hDest, xSrc, ySrc, wSrc, hSrc, dib.bits,
                                    reinterpret_cast<const BITMAPINFO *>(&dib.header), DIB_RGB_COLORS,
                                    rop);
        return lines != 0 && lines != (int)GDI_ERROR;
    }
    /* The band goes into a DIB section of a memory context, blended from there. */
    bool AlphaBlend(int32_t x, int32_t y, const GdiDib &dib) override
    {
        LONG width = dib.header.biWidth, height = dib.header.biHeight;
        LONG rows = height < 0 ? -height : height;
        HDC memory = ::CreateCompatibleDC(dc_);
        if (!memory)
            return false;
        BITMAPINFO info = {};
        info.bmiHeader = dib.header;
        info.bmiHeader.biHeight = -rows;
        void *bits = NULL;
        HBITMAP section = ::CreateDIBSection(memory, &info, DIB_RGB_COLORS, &bits, NULL, 0);
        bool done = false;
        if (section && bits) {
            size_t stride = dib.Stride();
            for (LONG r = 0; r < rows; r++)
                memcpy(static_cast<uint8_t *>(bits) + (size_t)r * stride,
                       dib.bits + (size_t)(height < 0 ? r : rows - 1 - r) * stride, stride);
            HGDIOBJ old = ::SelectObject(memory, section);
            BLENDFUNCTION blend = {AC_SRC_OVER, 0, 255, AC_SRC_ALPHA};
            done = ::GdiAlphaBlend(dc_, x, y, width, rows, memory, 0, 0, width, rows, blend) != 0;
            ::SelectObject(memory, old);
        }
        if (section)
            ::DeleteObject(section);
        ::DeleteDC(memory);
        return done;
    }

  private:
    HDC dc_;
};

} // namespace

std::unique_ptr<GdiDevice> GdiOpenNative(void *dc)
{
    switch (::GetObjectType(static_cast<HGDIOBJ>(dc))) {
    case OBJ_DC:
    case OBJ_MEMDC:
    case OBJ_METADC:
    case OBJ_ENHMETADC:
        return std::make_unique<NativeDevice>(static_cast<HDC>(dc));
    default:
        return nullptr;
    }
}

void GdiNativeScrollBar(void *window, int bar, int32_t max, int32_t pos)
{
    HWND hwnd = static_cast<HWND>(window);
    int which = bar == GDI_SB_HORZ ? SB_HORZ : SB_VERT;
    ::SetScrollRange(hwnd, which, 0, max, TRUE);
    ::SetScrollPos(hwnd, which, pos, TRUE);
}

void GdiNativeValidate(void *window)
{
    ::ValidateRect(static_cast<HWND>(window), NULL);
}
#endif
