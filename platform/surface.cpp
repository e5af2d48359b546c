/*
 * surface.cpp - the portable device context (surface.h).  Surfaces and
 * palettes are registered here, so that a handle from a caller is looked up,
 * never trusted; a palette deleted while a surface still names it reads as
 * the stock palette.
 */
#include "platform/surface.h"

#include <stdlib.h>
#include <string.h>

#include <map>
#include <set>
#include <vector>

namespace {

struct Palette {
    std::vector<uint8_t> bgr;
};

std::set<Surface *> surfaces;
std::map<uintptr_t, Palette> palettes;
/* Palette handles are numbers, not addresses: a deleted one is never reused. */
uintptr_t nextPalette = 0x5A0010;
const uintptr_t kStockPalette = 0x5A0000;

const SurfaceState kDefaultState = {SURFACE_MM_TEXT, 0, 0, 1, 1, 0, 0, 1, 1,
                                    reinterpret_cast<void *>(kStockPalette)};

int64_t Clamp32(long double v)
{
    if (v > 2147483647.0L)
        return 2147483647;
    if (v < -2147483648.0L)
        return -2147483647 - 1;
    return (int64_t)v;
}

/* (value - windowOrigin) * viewportExtent / windowExtent + viewportOrigin,
 * rounded to the nearest as GDI rounds. */
int64_t MapAxis(int64_t value, int32_t windowOrigin, int32_t windowExtent, int32_t viewportOrigin,
                int32_t viewportExtent, int32_t mapMode)
{
    long double v = (long double)(value - windowOrigin);
    if (mapMode == SURFACE_MM_ANISOTROPIC)
        v = v * viewportExtent / windowExtent;
    v += viewportOrigin;
    v = v < 0 ? -(long double)(int64_t)(-v + 0.5L) : (long double)(int64_t)(v + 0.5L);
    return Clamp32(v);
}

/* Ternary raster operation with the brush white: bit P*4 + S*2 + D of the
 * operation's index gives the result for each pixel bit. */
struct RasterOp {
    uint8_t index;
    bool Copies() const { return index == 0xCC; }
    uint8_t Apply(uint8_t s, uint8_t d) const
    {
        uint8_t out = 0;
        if (index & 0x10) out |= (uint8_t)(~s & ~d);
        if (index & 0x20) out |= (uint8_t)(~s & d);
        if (index & 0x40) out |= (uint8_t)(s & ~d);
        if (index & 0x80) out |= (uint8_t)(s & d);
        return out;
    }
};

bool BitmapUsable(const SurfaceBitmap *b)
{
    if (!b || !b->bits || b->width < 1 || b->height == 0 || b->height == INT32_MIN)
        return false;
    int bits = b->bitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && bits != 32)
        return false;
    if (bits <= 8 && (!b->colours || b->colourCount < 1))
        return false;
    return b->stride >= ((size_t)b->width * (size_t)bits + 7) / 8;
}

/* B, G, R of pixel x of a row; colour indices past the table read as black. */
void PixelBgr(const SurfaceBitmap *b, const uint8_t *row, int64_t x, uint8_t *out)
{
    unsigned index;
    switch (b->bitCount) {
    case 1: index = (row[x >> 3] >> (7 - (x & 7))) & 1; break;
    case 4: index = (x & 1) ? row[x >> 1] & 0x0F : row[x >> 1] >> 4; break;
    case 8: index = row[x]; break;
    case 24: memcpy(out, row + 3 * x, 3); return;
    default: memcpy(out, row + 4 * x, 3); return;
    }
    if (index < b->colourCount)
        memcpy(out, b->colours + 4 * index, 3);
    else
        memset(out, 0, 3);
}

/* The row's pixels at `columns` as B, G, R triples. */
void DecodeRow(const SurfaceBitmap *b, const uint8_t *row, const std::vector<int64_t> &columns,
               uint8_t *out)
{
    if (b->bitCount == 8) { /* the bands of the display: no call a pixel */
        for (size_t c = 0; c < columns.size(); c++) {
            unsigned index = row[columns[c]];
            if (index < b->colourCount)
                memcpy(out + 3 * c, b->colours + 4 * index, 3);
            else
                memset(out + 3 * c, 0, 3);
        }
        return;
    }
    if (b->bitCount == 1) {
        for (size_t c = 0; c < columns.size(); c++) {
            unsigned index = (row[columns[c] >> 3] >> (7 - (columns[c] & 7))) & 1;
            if (index < b->colourCount)
                memcpy(out + 3 * c, b->colours + 4 * index, 3);
            else
                memset(out + 3 * c, 0, 3);
        }
        return;
    }
    if (b->bitCount == 24) {
        for (size_t c = 0; c < columns.size(); c++)
            memcpy(out + 3 * c, row + 3 * columns[c], 3);
        return;
    }
    for (size_t c = 0; c < columns.size(); c++)
        PixelBgr(b, row, columns[c], out + 3 * c);
}

void Combine(uint8_t *dest, const uint8_t *source, size_t bytes, RasterOp op)
{
    if (op.Copies()) {
        memcpy(dest, source, bytes);
        return;
    }
    for (size_t i = 0; i < bytes; i++)
        dest[i] = op.Apply(source[i], dest[i]);
}

/* A mapped destination: its left or top edge, its extent and whether the
 * mapping reversed it. */
struct Span {
    int64_t start, length;
    bool mirrored;
};

Span MapSpan(int64_t a, int64_t b)
{
    return b >= a ? Span{a, b - a, false} : Span{b, a - b, true};
}

/* Source index (0 .. count-1 from the span's start) under the centre of
 * device pixel i of a span of `length`. */
int64_t CentreSample(int64_t i, const Span &span, int64_t count)
{
    if (span.mirrored)
        i = span.length - 1 - i;
    return (int64_t)(((2 * (uint64_t)i + 1) * (uint64_t)count) / (2 * (uint64_t)span.length));
}

} // namespace

Surface *SurfaceCreate(int32_t width, int32_t height, int32_t colours)
{
    Surface *s = static_cast<Surface *>(calloc(1, sizeof(Surface)));
    if (!s)
        return NULL;
    size_t bytes = (size_t)width * (size_t)height * 3;
    s->pixels = static_cast<uint8_t *>(malloc(bytes ? bytes : 1));
    if (!s->pixels) {
        free(s);
        return NULL;
    }
    memset(s->pixels, 0xFF, bytes);
    s->width = width;
    s->height = height;
    s->colours = colours;
    s->state = kDefaultState;
    surfaces.insert(s);
    return s;
}

void SurfaceDelete(Surface *s)
{
    if (!surfaces.erase(s))
        return;
    free(s->pixels);
    free(s);
}

Surface *SurfaceFind(const void *handle)
{
    auto it = surfaces.find(static_cast<Surface *>(const_cast<void *>(handle)));
    return it == surfaces.end() ? NULL : *it;
}

/* ---- state ---- */

int32_t SurfaceSave(Surface *s)
{
    if (s->savedCount == (int32_t)(sizeof s->saved / sizeof s->saved[0]))
        return 0;
    s->saved[s->savedCount++] = s->state;
    return s->savedCount;
}

int SurfaceRestore(Surface *s, int32_t saved)
{
    int32_t target = saved < 0 ? s->savedCount + saved + 1 : saved;
    if (target < 1 || target > s->savedCount)
        return 0;
    s->state = s->saved[target - 1];
    s->savedCount = target - 1;
    return 1;
}

int SurfaceSetMapMode(Surface *s, int32_t mode)
{
    if (mode != SURFACE_MM_TEXT && mode != SURFACE_MM_ANISOTROPIC)
        return 0;
    int previous = s->state.mapMode;
    s->state.mapMode = mode;
    return previous;
}

void SurfaceSetWindowOrg(Surface *s, int32_t x, int32_t y)
{
    s->state.windowOrgX = x;
    s->state.windowOrgY = y;
}

void SurfaceSetViewportOrg(Surface *s, int32_t x, int32_t y)
{
    s->state.viewportOrgX = x;
    s->state.viewportOrgY = y;
}

/* Extents count only in MM_ANISOTROPIC, as in GDI; a zero one is refused. */
int SurfaceSetWindowExt(Surface *s, int32_t x, int32_t y)
{
    if (x == 0 || y == 0)
        return 0;
    s->state.windowExtX = x;
    s->state.windowExtY = y;
    return 1;
}

int SurfaceSetViewportExt(Surface *s, int32_t x, int32_t y)
{
    if (x == 0 || y == 0)
        return 0;
    s->state.viewportExtX = x;
    s->state.viewportExtY = y;
    return 1;
}

void SurfaceLPtoDP(const Surface *s, int64_t *x, int64_t *y)
{
    const SurfaceState &t = s->state;
    *x = MapAxis(*x, t.windowOrgX, t.windowExtX, t.viewportOrgX, t.viewportExtX, t.mapMode);
    *y = MapAxis(*y, t.windowOrgY, t.windowExtY, t.viewportOrgY, t.viewportExtY, t.mapMode);
}

int32_t SurfaceDeviceCaps(const Surface *s, int index)
{
    switch (index) {
    case SURFACE_TECHNOLOGY: return 1; /* a raster display */
    case SURFACE_HORZRES: return s->width;
    case SURFACE_VERTRES: return s->height;
    case SURFACE_BITSPIXEL: return s->colours == 2 ? 1 : s->colours == 16 ? 4 : s->colours == 256 ? 8 : 24;
    case SURFACE_PLANES: return 1;
    case SURFACE_NUMCOLORS: return s->colours;
    case SURFACE_RASTERCAPS:
        return SURFACE_RC_BITBLT | SURFACE_RC_DI_BITMAP | SURFACE_RC_STRETCHBLT | SURFACE_RC_STRETCHDIB |
               (s->colours == 256 ? SURFACE_RC_PALETTE : 0);
    case SURFACE_LOGPIXELSX:
    case SURFACE_LOGPIXELSY: return 96;
    case SURFACE_SIZEPALETTE: return s->colours == 256 ? 256 : 0;
    default: return 0;
    }
}

/* ---- palettes ---- */

void *SurfacePaletteCreate(const uint8_t *bgr, int count)
{
    if (count < 1 || count > 256)
        return NULL;
    uintptr_t id = nextPalette;
    nextPalette += 0x10;
    palettes[id].bgr.assign(bgr, bgr + 3 * (size_t)count);
    return reinterpret_cast<void *>(id);
}

int SurfacePaletteDelete(void *palette)
{
    uintptr_t id = reinterpret_cast<uintptr_t>(palette);
    if (id == kStockPalette)
        return 1; /* stock objects are never deleted */
    return palettes.erase(id) ? 1 : 0;
}

void *SurfaceSelectPalette(Surface *s, void *palette)
{
    uintptr_t id = reinterpret_cast<uintptr_t>(palette);
    if (id != kStockPalette && !palettes.count(id))
        return NULL;
    void *previous = s->state.palette;
    s->state.palette = palette;
    return previous;
}

int SurfaceRealizePalette(Surface *s)
{
    auto it = palettes.find(reinterpret_cast<uintptr_t>(s->state.palette));
    s->realizedEntries = it == palettes.end() ? 20 : (int32_t)(it->second.bgr.size() / 3);
    return s->realizedEntries;
}

/* ---- transfers ---- */

int32_t SurfaceStretchDIBits(Surface *s, int32_t xDest, int32_t yDest, int32_t wDest, int32_t hDest,
                             int32_t xSrc, int32_t ySrc, int32_t wSrc, int32_t hSrc,
                             const SurfaceBitmap *b, uint32_t rop)
{
    if (!BitmapUsable(b) || wSrc < 1 || hSrc < 1 || xSrc < 0 || ySrc < 0)
        return 0;
    int64_t rows = b->height < 0 ? -(int64_t)b->height : b->height;
    if ((int64_t)xSrc + wSrc > b->width || (int64_t)ySrc + hSrc > rows)
        return 0;
    int64_t x0 = xDest, y0 = yDest, x1 = (int64_t)xDest + wDest, y1 = (int64_t)yDest + hDest;
    SurfaceLPtoDP(s, &x0, &y0);
    SurfaceLPtoDP(s, &x1, &y1);
    Span across = MapSpan(x0, x1), down = MapSpan(y0, y1);
    int64_t left = across.start > 0 ? across.start : 0;
    int64_t right = across.start + across.length < s->width ? across.start + across.length : s->width;
    int64_t top = down.start > 0 ? down.start : 0;
    int64_t bottom = down.start + down.length < s->height ? down.start + down.length : s->height;
    if (left >= right || top >= bottom)
        return hSrc; /* nothing of it is on the surface */
    std::vector<int64_t> columns((size_t)(right - left));
    for (int64_t x = left; x < right; x++)
        columns[(size_t)(x - left)] = xSrc + CentreSample(x - across.start, across, wSrc);
    std::vector<uint8_t> decoded(columns.size() * 3);
    RasterOp op{(uint8_t)(rop >> 16)};
    int64_t lastRow = -1;
    for (int64_t y = top; y < bottom; y++) {
        int64_t r = CentreSample(y - down.start, down, hSrc);
        int64_t memoryRow = b->height < 0 ? ySrc + r : (int64_t)ySrc + hSrc - 1 - r;
        if (memoryRow != lastRow) /* rows repeated by enlargement are decoded once */
            DecodeRow(b, b->bits + (size_t)memoryRow * b->stride, columns, decoded.data());
        lastRow = memoryRow;
        Combine(s->pixels + ((size_t)y * (size_t)s->width + (size_t)left) * 3, decoded.data(),
                decoded.size(), op);
    }
    return hSrc;
}

int SurfaceAlphaBlend(Surface *s, int32_t x, int32_t y, const SurfaceBitmap *b)
{
    if (!BitmapUsable(b) || b->bitCount != 32)
        return 0;
    int64_t dx = x, dy = y;
    SurfaceLPtoDP(s, &dx, &dy);
    int64_t rows = b->height < 0 ? -(int64_t)b->height : b->height;
    for (int64_t r = 0; r < rows; r++) {
        int64_t ty = dy + r;
        if (ty < 0 || ty >= s->height)
            continue;
        const uint8_t *row = b->bits + (size_t)(b->height < 0 ? r : rows - 1 - r) * b->stride;
        for (int64_t c = 0; c < b->width; c++) {
            int64_t tx = dx + c;
            if (tx < 0 || tx >= s->width)
                continue;
            const uint8_t *p = row + 4 * c;
            uint8_t *q = s->pixels + ((size_t)ty * (size_t)s->width + (size_t)tx) * 3;
            for (int k = 0; k < 3; k++) {
                int v = p[k] + (q[k] * (255 - p[3]) + 127) / 255;
                q[k] = (uint8_t)(v > 255 ? 255 : v);
            }
        }
    }
    return 1;
}

/* ---- the window side ---- */

void SurfaceSetScrollRange(Surface *s, int bar, int32_t min, int32_t max)
{
    if (bar != 0 && bar != 1)
        return;
    s->scroll[bar].min = min;
    s->scroll[bar].max = max;
}

int32_t SurfaceSetScrollPos(Surface *s, int bar, int32_t pos)
{
    if (bar != 0 && bar != 1)
        return 0;
    int32_t previous = s->scroll[bar].pos;
    s->scroll[bar].pos = pos;
    return previous;
}

void SurfaceValidate(Surface *s)
{
    s->validations++;
}

void SurfaceRead(const Surface *s, uint8_t *out)
{
    size_t pixels = (size_t)s->width * (size_t)s->height;
    for (size_t i = 0; i < pixels; i++) {
        out[3 * i] = s->pixels[3 * i + 2];
        out[3 * i + 1] = s->pixels[3 * i + 1];
        out[3 * i + 2] = s->pixels[3 * i];
    }
}
