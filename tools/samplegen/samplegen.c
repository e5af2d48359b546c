/*
 * samplegen - writes the bundled sample pictures (our own, deterministic):
 *   page.dib   a 2550 x 3300 1-bit fax page of pseudo-text at 300 dpi
 *   photo.dib  a 640 x 480 24-bit colour picture with gradients and shapes
 * Files are bare DIBs: a 40-byte BITMAPINFOHEADER, the palette, bottom-up rows.
 * Usage: trnw_samplegen OUTPUT_DIRECTORY
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static uint32_t seed = 12345;
static uint32_t Random(void)
{
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) & 0x7FFF;
}

static void Put16(uint8_t *p, unsigned v) { p[0] = (uint8_t)v; p[1] = (uint8_t)(v >> 8); }
static void Put32(uint8_t *p, uint32_t v) { Put16(p, v & 0xFFFF); Put16(p + 2, v >> 16); }

static int WriteDib(const char *dir, const char *name, int width, int height, int bits,
                    const uint8_t *palette, int paletteBytes, const uint8_t *bits_, int stride)
{
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", dir, name);
    FILE *f = fopen(path, "wb");
    if (!f)
        return perror(path), 1;
    uint8_t h[40] = {0};
    Put32(h, 40);
    Put32(h + 4, (uint32_t)width);
    Put32(h + 8, (uint32_t)height);
    Put16(h + 12, 1);
    Put16(h + 14, (unsigned)bits);
    Put32(h + 20, (uint32_t)(stride * height));
    Put32(h + 24, 300);
    Put32(h + 28, 300);
    fwrite(h, 1, 40, f);
    fwrite(palette, 1, (size_t)paletteBytes, f);
    fwrite(bits_, 1, (size_t)stride * (size_t)height, f);
    return fclose(f) != 0;
}

/* Clears pixels x0..x1-1 of rows y0..y1-1 (0 = top) of a 1-bit page: black ink. */
static void Ink(uint8_t *page, int stride, int height, int x0, int y0, int x1, int y1)
{
    for (int y = y0; y < y1; y++) {
        uint8_t *row = page + (size_t)(height - 1 - y) * stride;
        for (int x = x0; x < x1; x++)
            row[x >> 3] &= (uint8_t)~(0x80 >> (x & 7));
    }
}

static int MakePage(const char *dir)
{
    const int width = 2550, height = 3300, stride = ((width + 7) / 8 + 3) & ~3;
    uint8_t *page = malloc((size_t)stride * height);
    if (!page)
        return 1;
    memset(page, 0xFF, (size_t)stride * height);
    for (int line = 200; line + 40 < height - 200; line += 52) {
        int x = 150 + (int)(Random() % 60);
        while (x < width - 200) {
            int letters = 2 + (int)(Random() % 9);
            for (int c = 0; c < letters && x < width - 180; c++) {
                /* A glyph: a few strokes inside a 22 x 32 cell. */
                int strokes = 2 + (int)(Random() % 3);
                for (int s = 0; s < strokes; s++) {
                    int vertical = Random() & 1;
                    int ox = (int)(Random() % 18), oy = (int)(Random() % 28);
                    if (vertical)
                        Ink(page, stride, height, x + ox, line + 2, x + ox + 3, line + 32);
                    else
                        Ink(page, stride, height, x + 1, line + oy, x + 20, line + oy + 3);
                }
                x += 25;
            }
            x += 25; /* word space */
        }
    }
    static const uint8_t palette[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    int result = WriteDib(dir, "page.dib", width, height, 1, palette, 8, page, stride);
    free(page);
    return result;
}

static int MakePhoto(const char *dir)
{
    const int width = 640, height = 480, stride = (width * 3 + 3) & ~3;
    uint8_t *bits = malloc((size_t)stride * height);
    if (!bits)
        return 1;
    for (int y = 0; y < height; y++) {
        uint8_t *row = bits + (size_t)(height - 1 - y) * stride; /* bottom-up */
        for (int x = 0; x < width; x++) {
            int dx = x - 320, dy = y - 240;
            int inDisc = dx * dx + dy * dy < 150 * 150;
            row[3 * x + 0] = (uint8_t)(inDisc ? 40 : (x * 255) / width);          /* blue */
            row[3 * x + 1] = (uint8_t)(inDisc ? 200 : (y * 255) / height);        /* green */
            row[3 * x + 2] = (uint8_t)(inDisc ? 230 : ((x + y) * 255) / (width + height)); /* red */
        }
    }
    int result = WriteDib(dir, "photo.dib", width, height, 24, NULL, 0, bits, stride);
    free(bits);
    return result;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: trnw_samplegen OUTPUT_DIRECTORY\n");
        return 2;
    }
    return MakePage(argv[1]) | MakePhoto(argv[1]);
}
