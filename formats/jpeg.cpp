/*
 * jpeg.cpp - JPEG files: the codec reads the stream from the file's start
 * and writes the image as a JFIF stream.
 */
#include "formats/jpeg.h"

#include "codecs/jpeg.h"
#include "core/bytes.h"
#include "core/codec_settings.h"
#include "core/dib.h"
#include "core/imgapi.h"

bool JpegPaletteIsGrey(const uint8_t *palette)
{
    for (int i = 0; i < 256; i++, palette += 4)
        if (palette[0] != palette[1] || palette[0] != palette[2])
            return false;
    return true;
}

int JpegWriteFile(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    int bits = GetLE16(header + 14);
    bool grey = bits == 8 && JpegPaletteIsGrey(header + DIB_HEADER_SIZE);
    return JpegEncode(handle, header, rowSource, sourceContext, ImgCompressionQuality(), grey);
}

namespace {

bool ProbeJpg(ImgDetectBytes &s) { return s.b[0] == 0xFF && s.b[1] == 0xD8; }

constexpr ImgTypeEntry kJpgTypes[] = {{IMG_TYPE_JPG, "JPEG", JpegWriteFile}};

} // namespace

const ImgFormat kJpgFormat = {"jpg", "jpg", 13, ProbeJpg, nullptr, JpegRead, nullptr, false, kJpgTypes};
