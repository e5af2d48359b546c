/*
 * default_palette.cpp - the default palettes: BuildDefaultPalette.
 */
#include "color/default_palette.h"

#include <string.h>

#include "core/dib.h"

static void SetEntry(uint8_t *palette, int i, int red, int green, int blue)
{
    palette[4 * i] = (uint8_t)blue;
    palette[4 * i + 1] = (uint8_t)green;
    palette[4 * i + 2] = (uint8_t)red;
    palette[4 * i + 3] = 0;
}

/* Grey ramp: n = 256 for 16 bits, else 2^bits entries, spaced 256 / n apart.  Depths
 * without a palette (24 and 32 bits) get none. */
static int GreyRamp(uint8_t *palette, int bits)
{
    if (DibPaletteSize(bits) == 0)
        return 0;
    int n = bits == 16 ? 256 : 1 << bits;
    int step = 256 / n;
    for (int i = 0; i < n; i++)
        SetEntry(palette, i, i * step, i * step, i * step);
    return n;
}

/* 3-3-2: red in bits 7-5, green in bits 4-2, blue in bits 1-0. */
static int Cube332(uint8_t *palette)
{
    for (int i = 0; i < 256; i++)
        SetEntry(palette, i, ((i >> 5) & 7) * 255 / 7, ((i >> 2) & 7) * 255 / 7,
                 (i & 3) * 255 / 3);
    return 256;
}

/* 16 colours: bit 3 intensity (h, then 255), bit 2 blue, bit 1 green, bit 0 red. */
static int Sixteen(uint8_t *palette, int h)
{
    for (int i = 0; i < 16; i++) {
        int level = i < 8 ? h : 255;
        SetEntry(palette, i, (i & 1) ? level : 0, (i & 2) ? level : 0, (i & 4) ? level : 0);
    }
    return 16;
}

int BuildDefaultPalette(uint8_t *header, const char *kind)
{
    const BITMAPINFOHEADER *h = (const BITMAPINFOHEADER *)header;
    uint8_t *palette = header + DIB_HEADER_SIZE;
    if (h->biBitCount == 1) {
        SetEntry(palette, 0, 0, 0, 0);
        SetEntry(palette, 1, 255, 255, 255);
        return 2;
    }
    if (!kind)
        kind = "";
    if (strcmp(kind, "tiff") == 0)
        return GreyRamp(palette, h->biBitCount);
    if (strcmp(kind, "332") == 0 || strcmp(kind, "targa") == 0)
        return Cube332(palette);
    return Sixteen(palette, strcmp(kind, "dither") == 0 ? 200 : 128);
}
