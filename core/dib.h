/*
 * dib.h - the packed DIB: the 40-byte BITMAPINFOHEADER, the
 * palette size rule and the stride rule.
 */
#ifndef TRNW_DIB_H
#define TRNW_DIB_H

#include <stdint.h>
#include <string.h>

#ifdef _WIN32
#include <windows.h>
#else
/* Our own packed 40-byte header, with the Windows field names. */
#pragma pack(push, 1)
typedef struct tagBITMAPINFOHEADER {
    uint32_t biSize;
    int32_t biWidth;
    int32_t biHeight;
    uint16_t biPlanes;
    uint16_t biBitCount;
    uint32_t biCompression;
    uint32_t biSizeImage;
    int32_t biXPelsPerMeter; /* dots per inch inside the library */
    int32_t biYPelsPerMeter;
    uint32_t biClrUsed;
    uint32_t biClrImportant;
} BITMAPINFOHEADER;
#pragma pack(pop)
#endif

#ifdef __cplusplus
static_assert(sizeof(BITMAPINFOHEADER) == 40, "BITMAPINFOHEADER must be 40 bytes");
#else
_Static_assert(sizeof(BITMAPINFOHEADER) == 40, "BITMAPINFOHEADER must be 40 bytes");
#endif

#define DIB_HEADER_SIZE 40
#define DIB_RUN_CODED 99u         /* biCompression of an image held as run records */
#define DIB_TRANSPARENT_FLAG 0x1000u /* biClrUsed: low byte is the transparent index */
#define DIB_SRCCOPY 0x00CC0020u

/* Palette size rule: 0 bytes at 24 and 32 bits, 1024 at 16, else 4 << bits. */
static inline uint32_t DibPaletteSize(int bits)
{
    if (bits >= 24)
        return 0;
    if (bits == 16)
        return 1024;
    if (bits < 1 || bits > 8)
        return 0;
    return 4u << bits;
}

/* Stride rule: bytes per row rounded up to a multiple of 4.  Unsigned 64-bit
 * so that hostile widths cannot overflow before the caller checks. */
static inline uint64_t DibStride(uint32_t width, int bits)
{
    uint64_t w = width, bytes;
    switch (bits) {
    case 1: bytes = (w + 7) / 8; break;
    case 4: bytes = (w + 1) / 2; break;
    case 8: bytes = w; break;
    case 16: bytes = 2 * w; break;
    case 24: bytes = 3 * w; break;
    case 32: bytes = 4 * w; break;
    default: bytes = (w * (uint64_t)(bits > 0 ? bits : 0) + 7) / 8; break;
    }
    return (bytes + 3) & ~(uint64_t)3;
}

/* The depths the library stores as plain bitmaps. */
static inline int DibDepthSupported(int bits)
{
    return bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
}

/* Fills a header block (the header and 256 palette entries) for a 1-bit
 * image: entry 0 black, entry 1 white, resolution 0, the rest 0. */
static inline void DibBilevelHeader(uint8_t *block, int32_t width, int32_t height, uint32_t imageSize)
{
    BITMAPINFOHEADER h;
    memset(&h, 0, sizeof h);
    h.biSize = DIB_HEADER_SIZE;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = 1;
    h.biSizeImage = imageSize;
    memset(block, 0, DIB_HEADER_SIZE + 1024);
    memcpy(block, &h, sizeof h);
    memset(block + DIB_HEADER_SIZE + 4, 255, 3);
}

#endif /* TRNW_DIB_H */
