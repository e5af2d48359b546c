/*
 * fuzz_display.cpp - libFuzzer target for the display and print entry
 * points on the portable device context.
 *
 * The first bytes choose a small image (depth 1, 4, 8, 16, 24 or 32, up to
 * 48 x 48, 1-bit pages plain or run-coded), its crop rectangle, display
 * angle, raster operation and transparent colour, a portable context of up
 * to 64 x 64 (its colour count and mapping: origins and extents of either
 * sign), the alias, auto-colour and dither settings, the call (display, its
 * premultiplied, transparent and aspect variants, print, fast print, the
 * palette alone) and its rectangle, small or extreme; the rest of the input
 * fills the palette and pixels.  Checks: every call gives 0 or a negative
 * code, the context is back in its state, no image or tracked block is left.
 * The context's size bounds the work, whatever rectangle is asked for.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"
#include "platform/surface.h"

static void Fail(const char *what)
{
    fprintf(stderr, "fuzz_display: %s\n", what);
    abort();
}

/* The input read a byte at a time; zeros once it runs out. */
struct Bytes {
    const uint8_t *data;
    size_t size, at;
    uint8_t Next() { return at < size ? data[at++] : 0; }
    int32_t Small(int32_t lo, int32_t span) { return lo + Next() % span; }
    /* A coordinate: mostly near the picture, sometimes far outside. */
    int32_t Coordinate()
    {
        uint8_t kind = Next();
        if (kind < 200)
            return (int32_t)Next() % 80 - 8;
        static const int32_t far[] = {-2147483647 - 1, 2147483647, -70000, 70000, 65536, -1, 1 << 30};
        return far[kind % 7];
    }
};

static const uint32_t kRops[] = {0x00CC0020, 0x00330008, 0x008800C6, 0x00EE0086, 0x00660046,
                                 0x00440328, 0x00BB0226, 0x00000042, 0x00FF0062, 0x00550009};

/* A packed DIB in a block of ours: header, palette and rows from the input. */
static uint8_t *MakeDib(Bytes &in, int32_t width, int32_t height, int bits)
{
    uint32_t stride = (uint32_t)DibStride((uint32_t)width, bits), palette = DibPaletteSize(bits);
    size_t size = DIB_HEADER_SIZE + palette + (size_t)stride * (size_t)height;
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(size));
    if (!block)
        return NULL;
    BITMAPINFOHEADER h;
    memset(&h, 0, sizeof h);
    h.biSize = DIB_HEADER_SIZE;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = (uint16_t)bits;
    h.biSizeImage = stride * (uint32_t)height;
    memcpy(block, &h, sizeof h);
    const uint8_t *rest = in.data + in.at;
    size_t left = in.size - in.at;
    for (size_t i = DIB_HEADER_SIZE; i < size; i++)
        block[i] = left ? rest[(i - DIB_HEADER_SIZE) % left] : (uint8_t)i;
    return block;
}

static void SetMapping(Bytes &in, void *dc)
{
    Surface *s = SurfaceFind(dc);
    if (!(in.Next() & 1))
        return;
    SurfaceSetMapMode(s, SURFACE_MM_ANISOTROPIC);
    SurfaceSetWindowOrg(s, in.Coordinate(), in.Coordinate());
    SurfaceSetViewportOrg(s, in.Coordinate(), in.Coordinate());
    SurfaceSetWindowExt(s, (int8_t)in.Next(), (int8_t)in.Next());
    SurfaceSetViewportExt(s, (int8_t)in.Next(), (int8_t)in.Next());
}

static int32_t Call(Bytes &in, int32_t handle, void *dc)
{
    int32_t x = in.Coordinate(), y = in.Coordinate(), w = in.Coordinate(), h = in.Coordinate();
    switch (in.Next() % 8) {
    case 0: return IMG_display_bitmap(handle, dc, x, y, w, h);
    case 1: return IMG_display_bitmap_pma(handle, dc, x, y, w, h);
    case 2: return IMG_display_bitmap_transp(handle, dc, x, y, w, h, (uint32_t)in.Next() * 0x010101u);
    case 3: return IMG_display_bitmap_aspect(handle, dc, dc, x, y, w, h, (int32_t)(int8_t)in.Next() * 7);
    case 4: return IMG_print_bitmap(handle, dc, x, y, w, h);
    case 5: return IMG_print_bitmap_fast(handle, dc, x, y, w, h);
    case 6: return IMG_bitmap_palette(handle, dc);
    default: return IMG_display_bitmap_iac(handle, dc, NULL, x, y, w, h, 0);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 24 || size > 4096)
        return 0;
    Bytes in = {data, size, 0};
    static const int depths[] = {1, 1, 4, 8, 16, 24, 32};
    int bits = depths[in.Next() % 7];
    int coded = bits == 1 && (in.Next() & 1);
    int32_t width = in.Small(1, 48), height = in.Small(1, 48);
    int32_t crop[4] = {in.Small(-4, 60), in.Small(-4, 60), in.Small(-4, 60), in.Small(-4, 60)};
    int32_t angle = in.Small(0, 4) * 90, alias = in.Small(0, 3);
    uint32_t rop = kRops[in.Next() % 10];
    int32_t surfaceW = in.Small(1, 64), surfaceH = in.Small(1, 64);
    static const int32_t colours[] = {0, 2, 16, 256};
    int32_t deviceColours = colours[in.Next() % 4];
    int autoColour = in.Next() & 1, ditherMode = in.Next() & 1 ? 2 : 1;
    uint8_t calls = (uint8_t)(1 + in.Next() % 3);

    uint8_t *block = MakeDib(in, width, height, bits);
    int32_t handle = block ? IMG_create_handle_keep(block) : -1;
    void *dc = NULL;
    if (handle >= 0 && IMGLOW_create_dc(surfaceW, surfaceH, deviceColours, &dc) == 0) {
        if (coded && IMG_dib_to_runs(handle) != 0)
            Fail("a 1-bit image was not run-coded");
        IMG_set_croprect(handle, crop[0], crop[1], crop[2], crop[3]);
        IMG_set_display_angle(handle, angle);
        IMGLOW_set_rop(handle, rop);
        IMGLOW_set_alias(alias);
        IMGLOW_autocolor(autoColour);
        IMGLOW_set_dithermode(ditherMode);
        SetMapping(in, dc);
        Surface *s = SurfaceFind(dc);
        SurfaceState before = s->state;
        for (uint8_t k = 0; k < calls; k++) {
            int32_t result = Call(in, handle, dc);
            if (result > 0)
                Fail("positive result");
            /* The palette alone may change: IMG_bitmap_palette leaves its own selected. */
            if (s->savedCount != 0 || s->state.mapMode != before.mapMode ||
                s->state.windowOrgX != before.windowOrgX || s->state.windowExtY != before.windowExtY ||
                s->state.viewportOrgY != before.viewportOrgY || s->state.viewportExtX != before.viewportExtX)
                Fail("the device context's state was not restored");
            if (ImgTableGet(handle)->transparentActive || ImgTableGet(handle)->pmaDisplay)
                Fail("a drawing variant left its flag set");
        }
        /* A palette realised by IMG_bitmap_palette alone stays with the
         * image until a display releases it. */
        IMG_display_bitmap(handle, dc, 0, 0, 1, 1);
        if (ImgTableGet(handle)->displayPalette)
            Fail("a display kept its palette");
        IMGLOW_delete_dc(dc);
    }
    if (handle >= 0) {
        if (ImgTableGet(handle)->callerOwnsDib)
            IMG_delete_bitmap_keep(handle);
        else
            IMG_delete_bitmap(handle);
    }
    ImgFree(block);
    IMGLOW_set_alias(0);
    IMGLOW_autocolor(0);
    IMGLOW_set_dithermode(1);
    if (ImgTrackedCount() != 0)
        Fail("tracked blocks left behind");
    if (ImgTableCount() != 0)
        Fail("an image left in the table");
    return 0;
}
