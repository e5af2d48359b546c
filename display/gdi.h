/*
 * gdi.h - the GDI calls the display makes, behind one interface: a real
 * device context on Windows (gdi_win32.cpp), the portable device context of
 * platform/surface.h on every platform.  The display opens the device
 * context a caller hands in once per call and speaks only to this.
 */
#ifndef TRNW_GDI_H
#define TRNW_GDI_H

#include <stddef.h>
#include <stdint.h>

#include <memory>

#include "core/dib.h"

/* GDI's numbers for what the display asks and uses. */
#define GDI_NUMCOLORS 24
#define GDI_RASTERCAPS 38
#define GDI_RC_STRETCHDIB 0x2000
#define GDI_SRCCOPY 0x00CC0020u
#define GDI_SRCAND 0x008800C6u
#define GDI_SRCPAINT 0x00EE0086u
#define GDI_SB_HORZ 0
#define GDI_SB_VERT 1

/* A rectangle in device units, right and bottom exclusive. */
typedef struct GdiRect {
    int64_t left, top, right, bottom;
} GdiRect;

/* A DIB for a transfer: header and colour table laid out as BITMAPINFO,
 * the rows elsewhere (`bits`). */
struct GdiDib {
    BITMAPINFOHEADER header;
    uint8_t colours[1024];
    const uint8_t *bits;
    /* Sets the header: `height` negative for rows top first; `entries`
     * colours (copied from `palette`, B, G, R, 0 each) below 16 bits. */
    void Describe(int32_t width, int32_t height, int bitCount, const uint8_t *palette,
                  uint32_t entries);
    size_t Stride() const;
};

class GdiDevice {
  public:
    virtual ~GdiDevice() = default;
    /* LPtoDP of one point. */
    virtual void LPtoDP(int64_t *x, int64_t *y) = 0;
    /* SaveDC: the saved state's number, 0 on failure; RestoreDC. */
    virtual int Save() = 0;
    virtual bool Restore(int saved) = 0;
    /* Mapping mode MM_TEXT, window and viewport origins 0, 0, extents 1, 1. */
    virtual void UseDeviceUnits() = 0;
    virtual int32_t DeviceCaps(int index) = 0;
    /* The visible part of the device, in the current units; false when
     * nothing is visible. */
    virtual bool ClipBox(GdiRect *box) = 0;
    /* Logical palettes, entries as B, G, R triples. */
    virtual void *CreatePalette(const uint8_t *bgr, int count) = 0;
    virtual void *SelectPalette(void *palette) = 0;
    virtual int RealizePalette() = 0;
    virtual bool DeleteObject(void *object) = 0;
    /* StretchDIBits with DIB_RGB_COLORS; false on failure. */
    virtual bool StretchDIBits(int32_t xDest, int32_t yDest, int32_t wDest, int32_t hDest,
                               int32_t xSrc, int32_t ySrc, int32_t wSrc, int32_t hSrc,
                               const GdiDib &dib, uint32_t rop) = 0;
    /* A premultiplied 32-bit DIB blended at 1:1 over the device at (x, y). */
    virtual bool AlphaBlend(int32_t x, int32_t y, const GdiDib &dib) = 0;
};

/* The device context behind `dc`: a portable one when `dc` names one, else
 * on Windows the real one; NULL when `dc` is neither. */
std::unique_ptr<GdiDevice> GdiOpen(void *dc);

/* The window side of the aspect display: SetScrollRange and SetScrollPos
 * with redraw, ValidateRect of the whole client area.  A null window is
 * left alone. */
void GdiSetScrollBar(void *window, int bar, int32_t max, int32_t pos);
void GdiValidateWindow(void *window);

#ifdef _WIN32
/* gdi_win32.cpp: the real device context, NULL when `dc` is none. */
std::unique_ptr<GdiDevice> GdiOpenNative(void *dc);
void GdiNativeScrollBar(void *window, int bar, int32_t max, int32_t pos);
void GdiNativeValidate(void *window);
#endif

#endif /* TRNW_GDI_H */
