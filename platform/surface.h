/*
 * surface.h - the portable device context: an in-memory surface of 24-bit
 * colour that keeps the state of a GDI device context (mapping, saved
 * states, the selected palette) and stands for a window's scroll bars too.
 * The display's GDI facade draws on it wherever there is no real GDI, and
 * on Windows too when a caller hands one in.  It knows the calls the display
 * makes, with GDI's numbers and meanings; nothing here knows the library's
 * images.
 */
#ifndef TRNW_SURFACE_H
#define TRNW_SURFACE_H

#include <stddef.h>
#include <stdint.h>

/* Mapping modes the surface knows (GDI's numbers); others are refused. */
#define SURFACE_MM_TEXT 1
#define SURFACE_MM_ANISOTROPIC 8

/* GetDeviceCaps indices it answers (GDI's numbers). */
#define SURFACE_TECHNOLOGY 2
#define SURFACE_HORZRES 8
#define SURFACE_VERTRES 10
#define SURFACE_BITSPIXEL 12
#define SURFACE_PLANES 14
#define SURFACE_NUMCOLORS 24
#define SURFACE_RASTERCAPS 38
#define SURFACE_LOGPIXELSX 88
#define SURFACE_LOGPIXELSY 90
#define SURFACE_SIZEPALETTE 104
/* RASTERCAPS bits: BitBlt, DIBs, StretchBlt, StretchDIBits; RC_PALETTE. */
#define SURFACE_RC_BITBLT 0x0001
#define SURFACE_RC_DI_BITMAP 0x0080
#define SURFACE_RC_PALETTE 0x0100
#define SURFACE_RC_STRETCHBLT 0x0800
#define SURFACE_RC_STRETCHDIB 0x2000

/* The largest surface: sides up to 32767, at most 1 GiB of pixels. */
#define SURFACE_MAX_SIDE 32767
#define SURFACE_MAX_BYTES (1u << 30)

typedef struct SurfaceState {
    int32_t mapMode;
    int32_t windowOrgX, windowOrgY, windowExtX, windowExtY;
    int32_t viewportOrgX, viewportOrgY, viewportExtX, viewportExtY;
    void *palette; /* the selected palette */
} SurfaceState;

typedef struct SurfaceScrollBar {
    int32_t min, max, pos;
} SurfaceScrollBar;

typedef struct Surface {
    int32_t width, height;
    int32_t colours;  /* what NUMCOLORS reports: -1 true colour, 2, 16, 256 */
    uint8_t *pixels;  /* B, G, R; rows top first, width * 3 bytes each */
    SurfaceState state;
    SurfaceState saved[32]; /* SaveDC's stack */
    int32_t savedCount;
    int32_t realizedEntries; /* entries of the palette last realised */
    /* As a window: its two scroll bars (0 horizontal, 1 vertical) and how
     * often its client area was validated. */
    SurfaceScrollBar scroll[2];
    int32_t validations;
} Surface;

/* A DIB handed to the stretch transfer: `height` negative for rows top
 * first; `colours` the RGBQUAD colour table (B, G, R, 0) of 1-, 4- and 8-bit
 * bitmaps; 24 bits are B, G, R and 32 bits B, G, R, X.  Rows are `stride`
 * bytes apart. */
typedef struct SurfaceBitmap {
    const uint8_t *bits;
    const uint8_t *colours;
    uint32_t colourCount;
    int32_t width, height;
    int bitCount;
    size_t stride;
} SurfaceBitmap;

/* A surface filled white, registered; NULL when memory fails.  The caller
 * checks the sides against the limits above. */
Surface *SurfaceCreate(int32_t width, int32_t height, int32_t colours);
void SurfaceDelete(Surface *surface);
/* The surface behind a handle, or NULL when the handle names none. */
Surface *SurfaceFind(const void *handle);

/* Device context state. */
int32_t SurfaceSave(Surface *s);              /* the saved state's number, 0 when full */
int SurfaceRestore(Surface *s, int32_t saved); /* GDI's numbering, -1 the last; 1 or 0 */
int SurfaceSetMapMode(Surface *s, int32_t mode);
void SurfaceSetWindowOrg(Surface *s, int32_t x, int32_t y);
void SurfaceSetViewportOrg(Surface *s, int32_t x, int32_t y);
int SurfaceSetWindowExt(Surface *s, int32_t x, int32_t y);   /* 0 for a zero extent */
int SurfaceSetViewportExt(Surface *s, int32_t x, int32_t y);
/* Logical to device units, rounded to the nearest and held to 32 bits. */
void SurfaceLPtoDP(const Surface *s, int64_t *x, int64_t *y);
int32_t SurfaceDeviceCaps(const Surface *s, int index);

/* Logical palettes: entries as B, G, R triples; handles live until deleted.
 * The stock default palette is selected at first and never deleted. */
void *SurfacePaletteCreate(const uint8_t *bgr, int count);
int SurfacePaletteDelete(void *palette);           /* 1, or 0 for no palette */
void *SurfaceSelectPalette(Surface *s, void *palette); /* the previous one, NULL on failure */
int SurfaceRealizePalette(Surface *s);              /* the entries realised */

/* StretchDIBits: the source rectangle (x, y from the first row in memory
 * order as GDI counts it: from the bottom for bottom-up bitmaps) scaled by
 * nearest neighbour (each device pixel takes the source pixel under its
 * centre) onto the destination rectangle in logical units, mirrored where the
 * mapping reverses an axis, combined with the surface by the ternary raster
 * operation `rop` (the brush white).  Returns the source rows, or 0 on failure. */
int32_t SurfaceStretchDIBits(Surface *s, int32_t xDest, int32_t yDest, int32_t wDest, int32_t hDest,
                             int32_t xSrc, int32_t ySrc, int32_t wSrc, int32_t hSrc,
                             const SurfaceBitmap *bitmap, uint32_t rop);
/* AlphaBlend of a premultiplied B, G, R, A bitmap at 1:1 with its top-left
 * corner at (x, y) logical: each component becomes
 * src + dst * (255 - alpha) / 255.  1, or 0 on failure. */
int SurfaceAlphaBlend(Surface *s, int32_t x, int32_t y, const SurfaceBitmap *bitmap);

/* The window side. */
void SurfaceSetScrollRange(Surface *s, int bar, int32_t min, int32_t max);
int32_t SurfaceSetScrollPos(Surface *s, int bar, int32_t pos); /* the previous position */
void SurfaceValidate(Surface *s);

/* The pixels as R, G, B, rows top first, into `out` (width * height * 3). */
void SurfaceRead(const Surface *s, uint8_t *out);

#endif /* TRNW_SURFACE_H */
