/*
 * jpeg_info.cpp - a JPEG stream's process, components, colour space and
 * sampling from its markers.  The colour space follows the rules libjpeg
 * decodes by: one component is grey; three are YCbCr unless an Adobe
 * marker with transform 0 or the component names R, G, B say RGB; four
 * are CMYK, or YCCK with Adobe's transform 2.
 */
#include "jpeg_info.h"

#include <cstdio>
#include <cstring>

namespace {

struct Frame {
    const char *process = nullptr;
    std::vector<uint8_t> ids, sampling; /* per component: its name, h << 4 | v */
};

/* The process of a frame marker (0xC0 to 0xCF), or nullptr. */
const char *ProcessOf(uint8_t marker)
{
    switch (marker) {
    case 0xC0: return "baseline";
    case 0xC1: case 0xC9: return "extended";
    case 0xC2: case 0xCA: return "progressive";
    case 0xC3: case 0xCB: return "lossless";
    case 0xC5: case 0xC6: case 0xC7: case 0xCD: case 0xCE: case 0xCF: return "hierarchical";
    default: return nullptr;
    }
}

const char *ColourSpace(const Frame &frame, bool jfif, int adobeTransform)
{
    const std::vector<uint8_t> &id = frame.ids;
    switch (id.size()) {
    case 1: return "grey";
    case 3:
        if (jfif || adobeTransform == 1)
            return "YCbCr";
        if (adobeTransform == 0 || (id[0] == 'R' && id[1] == 'G' && id[2] == 'B'))
            return "RGB";
        return "YCbCr";
    case 4: return adobeTransform == 2 ? "YCCK" : "CMYK";
    default: return "unknown colour space";
    }
}

} // namespace

std::string JpegDetails(const std::vector<uint8_t> &data)
{
    Frame frame;
    bool jfif = false;
    int adobeTransform = -1;
    size_t at = 2, n = data.size();
    while (at + 4 <= n) {
        if (data[at] != 0xFF) {
            at++;
            continue;
        }
        uint8_t marker = data[at + 1];
        if (marker == 0xFF || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {
            at += marker == 0xFF ? 1 : 2; /* fill byte, or a marker without length */
            continue;
        }
        if (marker == 0xDA || marker == 0xD9)
            break; /* the first scan, or the end */
        size_t length = (size_t)data[at + 2] << 8 | data[at + 3];
        const uint8_t *body = data.data() + at + 4;
        size_t bodyBytes = length >= 2 && at + 2 + length <= n ? length - 2 : 0;
        if (marker == 0xE0 && bodyBytes >= 5 && memcmp(body, "JFIF", 5) == 0)
            jfif = true;
        if (marker == 0xEE && bodyBytes >= 12 && memcmp(body, "Adobe", 5) == 0)
            adobeTransform = body[11];
        if (ProcessOf(marker) && bodyBytes >= 6 && !frame.process) {
            frame.process = ProcessOf(marker);
            for (size_t c = 0; c < body[5] && 8 + 3 * c <= bodyBytes; c++) {
                frame.ids.push_back(body[6 + 3 * c]);
                frame.sampling.push_back(body[7 + 3 * c]);
            }
        }
        at += 2 + length;
    }
    if (!frame.process)
        return "";
    char part[64];
    snprintf(part, sizeof part, "%s, %d component%s, %s, sampling", frame.process, (int)frame.ids.size(),
             frame.ids.size() == 1 ? "" : "s", ColourSpace(frame, jfif, adobeTransform));
    std::string text = part;
    for (uint8_t hv : frame.sampling) {
        snprintf(part, sizeof part, " %dx%d", hv >> 4, hv & 15);
        text += part;
    }
    return text;
}
