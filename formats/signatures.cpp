/*
 * signatures.cpp - the probes and type names of the formats that are
 * detected but not read or written yet.
 */
#include "formats/signatures.h"

#include <string.h>

#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr int32_t kPictSkip = 512;     /* from after the ten bytes to offset 522 */
constexpr int32_t kMacPaintBack = 467; /* from after the PICT bytes (532) to offset 65 */

bool Starts(const uint8_t *b, const char *bytes, size_t n)
{
    return memcmp(b, bytes, n) == 0;
}

bool ProbeWpg(ImgDetectBytes &s) { return Starts(s.b + 1, "WPC", 3); }
bool ProbeKfx(ImgDetectBytes &s) { return Starts(s.b, ".KF", 3); }
bool ProbeIff(ImgDetectBytes &s) { return Starts(s.b, "FORM", 4); }
bool ProbeGx2(ImgDetectBytes &s) { return Starts(s.b, "GX2", 3); }
bool ProbeLsd(ImgDetectBytes &s) { return Starts(s.b, "\xDC\xDC", 2); }

bool ProbeIco(ImgDetectBytes &s)
{
    uint8_t width = s.b[6];
    return Starts(s.b, "\x00\x00\x01\x00", 4) && (width == 16 || width == 32 || width == 64);
}

bool ProbeWmf(ImgDetectBytes &s)
{
    return Starts(s.b, "\xD7\xCD\xC6\x9A", 4) || s.b[0] == 1 || s.b[1] == 2;
}

bool ProbeIca(ImgDetectBytes &s)
{
    const uint8_t *b = s.b;
    bool field = b[2] == 0xD3 && ((b[3] == 0xA6 && b[4] == 0xFB) || (b[3] == 0xA8 && b[4] == 0xA8));
    return field || b[0] == 'p';
}

bool ProbePcd(ImgDetectBytes &s) { return Starts(s.b, "\xFF\xFF\xFF\xFF", 4); }
bool ProbeClp(ImgDetectBytes &s) { return Starts(s.b, "\x50\xC3", 2); }

bool ProbeImg(ImgDetectBytes &s)
{
    return Starts(s.b, "\x00\x01\x00", 3) && (s.b[3] == 8 || s.b[3] == 9);
}

bool ProbeBtr(ImgDetectBytes &s) { return s.b[0] == 0xBB && s.b[3] == 1; }
bool ProbeMsp(ImgDetectBytes &s) { return Starts(s.b, "Lin", 3); }
bool ProbeXwd(ImgDetectBytes &s) { return Starts(s.b + 4, "\x00\x00\x00\x07", 4); }
bool ProbeRas(ImgDetectBytes &s) { return Starts(s.b, "\x59\xA6\x6A\x95", 4); }

/* Width (bytes 0-1) and height (2-3), little-endian and signed, 0 to 4999. */
bool ProbeCut(ImgDetectBytes &s)
{
    const uint8_t *b = s.b;
    int16_t width = (int16_t)GetLE16(b), height = (int16_t)GetLE16(b + 2);
    if (b[4] != 0 || b[5] != 0 || (b[0] == 0 && b[1] == 0))
        return false;
    return width >= 0 && width <= 4999 && height >= 0 && height <= 4999;
}

/* Printable characters, tabs, line ends and the DOS end-of-file mark. */
bool ProbeTxt(ImgDetectBytes &s)
{
    for (uint8_t c : s.b)
        if (!((c >= 32 && c <= 126) || (c >= 9 && c <= 13) || c == 26))
            return false;
    return true;
}

bool ProbePsd(ImgDetectBytes &s) { return Starts(s.b, "8BPS", 4); }
bool ProbeImt(ImgDetectBytes &s) { return Starts(s.b, "'C1\x00", 4); }

/* Reads ten more bytes into the detection buffer after a relative seek; a
 * read returning nothing means "no". */
bool ReadAfterSeek(ImgDetectBytes &s, int32_t step)
{
    ImgSeek(s.handle, step, 1);
    return ImgRead(s.handle, s.b, kDetectBytes) > 0;
}

bool ProbePct(ImgDetectBytes &s)
{
    return ReadAfterSeek(s, kPictSkip) && (s.b[0] == 0x11 || s.b[1] == 0x11);
}

/* Moves relative to where the PICT probe left off: with PICT detection
 * switched off it reads from another place. */
bool ProbeMac(ImgDetectBytes &s)
{
    return ReadAfterSeek(s, -kMacPaintBack) &&
           (Starts(s.b, "PNT", 3) || Starts(s.b, "\x00\x00\x00\x00", 4));
}

constexpr ImgTypeEntry kWpg[] = {{IMG_TYPE_WPG, "WordPerfect graphics", nullptr}};
constexpr ImgTypeEntry kKfx[] = {{IMG_TYPE_KFX, "KFX", nullptr}};
constexpr ImgTypeEntry kIff[] = {{IMG_TYPE_IFF, "IFF", nullptr}};
constexpr ImgTypeEntry kGx2[] = {{IMG_TYPE_GX2, "GX2", nullptr}};
constexpr ImgTypeEntry kLsd[] = {{IMG_TYPE_LSD, "LSD", nullptr}};
constexpr ImgTypeEntry kIco[] = {{IMG_TYPE_ICO, "Windows icon", nullptr}};
constexpr ImgTypeEntry kWmf[] = {{IMG_TYPE_WMF, "Windows metafile", nullptr}};
constexpr ImgTypeEntry kIca[] = {{IMG_TYPE_ICA, "IOCA", nullptr}};
constexpr ImgTypeEntry kPcd[] = {{IMG_TYPE_PCD, "Photo CD", nullptr}};
constexpr ImgTypeEntry kClp[] = {{IMG_TYPE_CLP, "Windows clipboard", nullptr}};
constexpr ImgTypeEntry kImg[] = {{IMG_TYPE_IMG, "GEM image", nullptr}};
constexpr ImgTypeEntry kBtr[] = {{IMG_TYPE_BTR, "BTR", nullptr}};
constexpr ImgTypeEntry kMsp[] = {{IMG_TYPE_MSP, "MSP", nullptr}};
constexpr ImgTypeEntry kXwd[] = {{IMG_TYPE_XWD, "X window dump", nullptr}};
constexpr ImgTypeEntry kRas[] = {{IMG_TYPE_RAS, "Sun raster", nullptr}};
constexpr ImgTypeEntry kCut[] = {{IMG_TYPE_CUT, "CUT", nullptr}};
constexpr ImgTypeEntry kTxt[] = {{IMG_TYPE_TXT, "plain text", nullptr}};
constexpr ImgTypeEntry kPsd[] = {{IMG_TYPE_PSD, "Photoshop", nullptr}};
constexpr ImgTypeEntry kImt[] = {{IMG_TYPE_IMT, "IMT", nullptr}};
constexpr ImgTypeEntry kPct[] = {{IMG_TYPE_PCT, "Macintosh PICT", nullptr}};
constexpr ImgTypeEntry kMac[] = {{IMG_TYPE_MAC, "MacPaint", nullptr}};
constexpr ImgTypeEntry kMca[] = {{IMG_TYPE_MCA, "MCA", nullptr}};

} // namespace

/* Detection word, save extension, auto-detect flag, probe, subtype query,
 * reader, page counter, multi-page, types.  ".imt" and ".btr" carry a
 * leading point, so a path's last three characters never select them. */
const ImgFormat kWpgFormat = {"wpg", "wpg", 5, ProbeWpg, nullptr, nullptr, nullptr, false, kWpg};
const ImgFormat kKfxFormat = {"kfx", nullptr, 23, ProbeKfx, nullptr, nullptr, nullptr, false, kKfx};
const ImgFormat kIffFormat = {"iff", "iff", 26, ProbeIff, nullptr, nullptr, nullptr, false, kIff};
const ImgFormat kGx2Format = {"gx2", nullptr, 22, ProbeGx2, nullptr, nullptr, nullptr, false, kGx2};
const ImgFormat kLsdFormat = {"lsd", nullptr, 19, ProbeLsd, nullptr, nullptr, nullptr, false, kLsd};
const ImgFormat kIcoFormat = {"ico", "ico", 25, ProbeIco, nullptr, nullptr, nullptr, false, kIco};
const ImgFormat kWmfFormat = {"wmf", "wmf", 6, ProbeWmf, nullptr, nullptr, nullptr, false, kWmf};
const ImgFormat kIcaFormat = {"ica", "ica", 24, ProbeIca, nullptr, nullptr, nullptr, false, kIca};
const ImgFormat kPcdFormat = {"pcd", nullptr, 39, ProbePcd, nullptr, nullptr, nullptr, false, kPcd};
const ImgFormat kClpFormat = {"clp", "clp", 27, ProbeClp, nullptr, nullptr, nullptr, false, kClp};
const ImgFormat kImgFormat = {"img", nullptr, 28, ProbeImg, nullptr, nullptr, nullptr, false, kImg};
const ImgFormat kBtrFormat = {"btr", ".btr", 29, ProbeBtr, nullptr, nullptr, nullptr, false, kBtr};
const ImgFormat kMspFormat = {"msp", nullptr, 30, ProbeMsp, nullptr, nullptr, nullptr, false, kMsp};
const ImgFormat kXwdFormat = {"xwd", "xwd", 36, ProbeXwd, nullptr, nullptr, nullptr, false, kXwd};
const ImgFormat kRasFormat = {"ras", "ras", 37, ProbeRas, nullptr, nullptr, nullptr, false, kRas};
const ImgFormat kCutFormat = {"cut", nullptr, 31, ProbeCut, nullptr, nullptr, nullptr, false, kCut};
const ImgFormat kTxtFormat = {"txt", nullptr, 38, ProbeTxt, nullptr, nullptr, nullptr, false, kTxt};
const ImgFormat kPsdFormat = {"psd", "psd", 41, ProbePsd, nullptr, nullptr, nullptr, false, kPsd};
const ImgFormat kImtFormat = {"imt", ".imt", 42, ProbeImt, nullptr, nullptr, nullptr, false, kImt};
const ImgFormat kPctFormat = {"pct", "pct", 15, ProbePct, nullptr, nullptr, nullptr, false, kPct};
const ImgFormat kMacFormat = {"mac", nullptr, 21, ProbeMac, nullptr, nullptr, nullptr, false, kMac};
/* Written (one day) but never detected. */
const ImgFormat kMcaFormat = {"mca", "mca", kNeverDetected, nullptr, nullptr, nullptr, nullptr, true,
                              kMca};
