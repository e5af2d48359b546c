/*
 * xpm.cpp - X pixmap output (save type 35).
 *
 * Colours are always written with the key c and six hex digits; the
 * characters of a pixel come from its colour index by arithmetic, starting
 * at '^' (0x5E): one a pixel up to 32 colours, two at 256, so that no pixel
 * character is a quote or a backslash.
 */
#include "formats/xpm.h"

#include <stdio.h>
#include <string.h>

#include "core/bytes.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr char kFirstChar = '^';
constexpr uint32_t kOneCharColours = 32; /* colours one character a pixel can name */

int WriteAll(int handle, const void *bytes, size_t count)
{
    return ImgWrite(handle, bytes, (uint32_t)count) == (int32_t)count ? 0 : IMG_ERR_WRITE;
}

int WriteText(int handle, const char *text)
{
    return WriteAll(handle, text, strlen(text));
}

/* The characters of colour index `index`, `perPixel` (1 or 2) of them. */
char *PutPixelChars(char *out, uint32_t index, int perPixel)
{
    if (perPixel == 2)
        *out++ = (char)(kFirstChar + (index >> 5));
    *out++ = (char)(kFirstChar + (index & 31));
    return out;
}

/* Pixel x of a row of 1, 4 or 8 bits, most significant bits first. */
uint32_t PixelIndex(const uint8_t *row, uint32_t x, int bits)
{
    if (bits == 1)
        return (row[x >> 3] >> (7 - (x & 7))) & 1;
    if (bits == 4)
        return (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
    return row[x];
}

/* The header strings and one colour string a palette entry. */
int WriteHead(int handle, const uint8_t *header, uint32_t width, uint32_t height, int bits,
              int perPixel)
{
    uint32_t colours = 1u << bits;
    int result = WriteText(handle, "/* XPM */\n");
    if (result >= 0)
        result = WriteText(handle, "static char *untitled[] = {\n");
    if (result >= 0)
        result = WriteText(handle, "/* width height ncolors cpp [x_hot] [y_hot] */\n");
    char line[64];
    if (result >= 0) {
        snprintf(line, sizeof line, "\"%u %u %u %d -1 -1\",\n", width, height, colours, perPixel);
        result = WriteText(handle, line);
    }
    if (result >= 0)
        result = WriteText(handle, "/* colors */\n");
    for (uint32_t i = 0; i < colours && result >= 0; i++) {
        const uint8_t *entry = header + DIB_HEADER_SIZE + 4 * i; /* blue, green, red */
        char chars[3] = {};
        PutPixelChars(chars, i, perPixel);
        snprintf(line, sizeof line, "\"%s\tc #%02X%02X%02X\",\n", chars, entry[2], entry[1], entry[0]);
        result = WriteText(handle, line);
    }
    if (result >= 0)
        result = WriteText(handle, "/* pixels */\n");
    return result;
}

} // namespace

int XpmWrite(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    int bits = GetLE16(header + 14);
    if (bits != 1 && bits != 4 && bits != 8)
        return IMG_ERR_DEPTH;
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (width < 1 || height < 1)
        return IMG_ERR_TYPE;
    int perPixel = (1u << bits) <= kOneCharColours ? 1 : 2;
    int result = WriteHead(handle, header, (uint32_t)width, (uint32_t)height, bits, perPixel);
    if (result < 0)
        return result;

    uint32_t stride = (uint32_t)DibStride((uint32_t)width, bits);
    ImgBuffer row(stride), text((size_t)width * (size_t)perPixel + 8);
    if (!row || !text)
        return IMG_ERR_MEMORY;
    for (int32_t y = 0; y < height; y++) {
        result = rowSource(sourceContext, row.get(), y, (int)stride);
        if (result < 0)
            return result;
        char *out = reinterpret_cast<char *>(text.get()), *start = out;
        *out++ = '"';
        for (uint32_t x = 0; x < (uint32_t)width; x++)
            out = PutPixelChars(out, PixelIndex(row.get(), x, bits), perPixel);
        *out++ = '"';
        const char *close = y + 1 < height ? ",\n" : "};\n";
        size_t n = strlen(close);
        memcpy(out, close, n);
        if ((result = WriteAll(handle, start, (size_t)(out - start) + n)) < 0)
            return result;
    }
    return 0;
}

/* ---- the format descriptor ---- */

namespace {

bool ProbeXpm(ImgDetectBytes &s) { return memcmp(s.b, "/* XPM */", 9) == 0; }

constexpr ImgTypeEntry kXpm[] = {{IMG_TYPE_XPM, "X pixmap", XpmWrite}};

} // namespace

const ImgFormat kXpmFormat = {"xpm", "xpm", 35, ProbeXpm, nullptr, nullptr, nullptr, false, kXpm};
