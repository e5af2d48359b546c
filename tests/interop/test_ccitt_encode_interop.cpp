/*
 * test_ccitt_encode_interop.cpp - Part 2.2 against independent decoders.
 *
 * Pages are saved with IMG_save_bitmap as the raw fax types 33 and 53
 * (Group 3 with EOLs, most / least significant bit first) and 34 and 52
 * (Group 4, same pair) and decoded by:
 *   - libtiff's fax2tiff (-3 or -4, -M or -L for the fill order, -X the
 *     width), then tifftopnm to a PBM;
 *   - netpbm's g3topbm (Group 3 only; -reversebits for least significant bit
 *     first).
 * The decoded pixels must equal the page's pixels.  Pages: pseudo-text pages
 * of 1728 x 2200 and 2550 x 3300 drawn here, a page of every run length
 * 0..2600 of both colours (all T.4 codes), and a text page drawn by
 * ImageMagick (/usr/bin/convert) and read through our BMP reader, compared
 * with ImageMagick's own PBM of it.  A test skips when its tool is absent,
 * and always in Windows builds.
 */
#include "test_support.h"

#include <fstream>
#include <iterator>

namespace {

bool RunQuiet(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// Runs a command whose standard output the command line itself redirects.
bool RunToFile(const std::string &command)
{
    return std::system((command + " 2>/dev/null").c_str()) == 0;
}

bool Have(const char *tool)
{
    return RunQuiet(std::string("command -v ") + tool);
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A 1-bit picture, top row first, one byte per pixel: 1 black, 0 white.
struct Picture {
    int32_t width = 0, height = 0;
    std::vector<uint8_t> px;
    uint8_t &At(int32_t x, int32_t y) { return px[(size_t)y * (size_t)width + (size_t)x]; }
};

// A binary PBM (P4; 1 = black) as a picture; empty on any format problem.
Picture ReadPbm(const std::string &path)
{
    std::vector<uint8_t> b = ReadFile(path);
    Picture p;
    size_t at = 0;
    auto token = [&]() {
        std::string t;
        while (at < b.size()) {
            if (b[at] == '#')
                while (at < b.size() && b[at] != '\n')
                    at++;
            else if (std::isspace(b[at]))
                at++;
            else
                break;
        }
        while (at < b.size() && !std::isspace(b[at]))
            t += (char)b[at++];
        return t;
    };
    if (token() != "P4")
        return {};
    p.width = std::atoi(token().c_str());
    p.height = std::atoi(token().c_str());
    at++; // the single white space before the bits
    size_t stride = (size_t)(p.width + 7) / 8;
    if (p.width < 1 || p.height < 1 || b.size() < at + stride * (size_t)p.height)
        return {};
    p.px.resize((size_t)p.width * (size_t)p.height);
    for (int32_t y = 0; y < p.height; y++)
        for (int32_t x = 0; x < p.width; x++)
            p.At(x, y) = (b[at + (size_t)y * stride + (size_t)x / 8] >> (7 - x % 8)) & 1;
    return p;
}

// Pseudo-text: lines of words made of glyphs (random strokes in a cell),
// margins, and a few rules, as on a dense typed page.
Picture TextPage(int32_t width, int32_t height, int cell, uint32_t seed)
{
    Picture p;
    p.width = width;
    p.height = height;
    p.px.assign((size_t)width * (size_t)height, 0);
    uint32_t s = seed;
    auto rnd = [&](uint32_t n) {
        s = s * 1103515245u + 12345u;
        return ((s >> 16) & 0x7FFF) % n;
    };
    int32_t margin = width / 12, lineHeight = cell * 2;
    for (int32_t top = margin; top + cell < height - margin; top += lineHeight) {
        if (rnd(20) == 0) { // a rule across the page
            for (int32_t x = margin; x < width - margin; x++)
                for (int32_t t = 0; t < cell / 6 + 1; t++)
                    p.At(x, top + t) = 1;
            continue;
        }
        int32_t x = margin + (int32_t)rnd((uint32_t)cell * 2);
        while (x + cell < width - margin) {
            int letters = 1 + (int)rnd(9);
            for (int l = 0; l < letters && x + cell < width - margin; l++, x += cell * 3 / 4) {
                int strokes = 2 + (int)rnd(3);
                for (int k = 0; k < strokes; k++) {
                    int32_t x0 = x + (int32_t)rnd((uint32_t)cell / 2), y0 = top + (int32_t)rnd((uint32_t)cell / 2);
                    bool vertical = rnd(2) == 0;
                    int32_t len = cell / 3 + (int32_t)rnd((uint32_t)cell / 2), thick = 1 + cell / 10;
                    for (int32_t a = 0; a < len; a++)
                        for (int32_t t = 0; t < thick; t++) {
                            int32_t px = vertical ? x0 + t : x0 + a, py = vertical ? y0 + a : y0 + t;
                            if (px < width && py < height)
                                p.At(px, py) = 1;
                        }
                }
            }
            x += cell / 2 + (int32_t)rnd((uint32_t)cell / 2);
        }
    }
    return p;
}

// Every run length 0..2600 of both colours: row r holds white r, black r,
// white r, ... across a width of 2700 (row 0: all white after a white run
// of 0 would be empty, so row 0 is black r then white; see the loop).
Picture AllRunsPage()
{
    Picture p;
    p.width = 2700;
    p.height = 2601 / 7 + 40;
    p.px.assign((size_t)p.width * (size_t)p.height, 0);
    // Row y: runs y*7 .. y*7+6 alternating white/black from the left, then
    // the rest of the row in the colour that follows; lengths cover 1..2600.
    for (int32_t y = 0; y < p.height; y++) {
        int32_t x = 0;
        uint8_t colour = (uint8_t)(y & 1);
        for (int k = 0; k < 7 && x < p.width; k++) {
            int32_t run = (y * 7 + k) % 2601;
            for (int32_t i = 0; i < run && x < p.width; i++)
                p.At(x++, y) = colour;
            colour ^= 1;
        }
        while (x < p.width)
            p.At(x++, y) = colour;
    }
    // Runs near 2600 of both colours: whole rows of one colour but a few
    // pixels.
    for (int32_t i = 0; i < 20; i++) {
        int32_t y = p.height - 20 + i;
        int32_t run = 2560 + i * 2;
        for (int32_t x = 0; x < p.width; x++)
            p.At(x, y) = (uint8_t)((x < run) == (i & 1));
    }
    return p;
}

void WritePbm(const std::string &path, const Picture &p)
{
    std::string head = "P4\n" + std::to_string(p.width) + " " + std::to_string(p.height) + "\n";
    std::vector<uint8_t> bytes(head.begin(), head.end());
    size_t stride = (size_t)(p.width + 7) / 8, at = bytes.size();
    bytes.resize(at + stride * (size_t)p.height, 0);
    for (int32_t y = 0; y < p.height; y++)
        for (int32_t x = 0; x < p.width; x++)
            if (p.px[(size_t)y * (size_t)p.width + (size_t)x])
                bytes[at + (size_t)y * stride + (size_t)x / 8] |= (uint8_t)(0x80 >> (x % 8));
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
}

// The number in "<...>" on the line of tiffdump's output naming `tag`.
long TiffdumpValue(const std::string &dump, const std::string &tag)
{
    size_t at = dump.find(tag);
    if (at == std::string::npos || (at = dump.find('<', at)) == std::string::npos)
        return -1;
    return std::atol(dump.c_str() + at + 1);
}

// The picture as a library image (bit 1 white in the stored rows).
int32_t ImageOf(const Picture &p)
{
    int32_t h = NewImage(p.width, p.height, 1);
    if (h < 0)
        return h;
    ImgDescriptor *d = ImgTableGet(h);
    uint32_t stride = DibStride((uint32_t)p.width, 1);
    uint8_t *bits = d->dib + 40 + 8;
    for (int32_t y = 0; y < p.height; y++) {
        uint8_t *row = bits + (size_t)(p.height - 1 - y) * stride;
        std::memset(row, 0xFF, stride);
        for (int32_t x = 0; x < p.width; x++)
            if (p.px[(size_t)y * (size_t)p.width + (size_t)x])
                row[x / 8] &= (uint8_t)~(0x80 >> (x % 8));
    }
    return h;
}

// The decoded picture must hold the expected rows; rows beyond them must be
// white: the decoders read the empty lines between our trailing EOLs (five
// in Group 3, four in Group 4: the Part's kept end-of-page counts) as blank
// rows (fax2tiff: up to 5 more rows for Group 3, 2 for Group 4).
::testing::AssertionResult SamePixels(const Picture &expected, const Picture &got)
{
    if (got.px.empty())
        return ::testing::AssertionFailure() << "the tool produced no picture";
    if (got.width == expected.width && got.height > expected.height &&
        got.height <= expected.height + 5) {
        for (size_t i = expected.px.size(); i < got.px.size(); i++)
            if (got.px[i])
                return ::testing::AssertionFailure() << "black pixels in the rows after the page";
        Picture cut = got;
        cut.height = expected.height;
        cut.px.resize(expected.px.size());
        return SamePixels(expected, cut);
    }
    if (got.width != expected.width || got.height != expected.height)
        return ::testing::AssertionFailure() << "size " << got.width << " x " << got.height
                                             << ", expected " << expected.width << " x "
                                             << expected.height;
    for (int32_t y = 0; y < got.height; y++)
        for (int32_t x = 0; x < got.width; x++)
            if (got.px[(size_t)y * (size_t)got.width + (size_t)x] !=
                expected.px[(size_t)y * (size_t)expected.width + (size_t)x])
                return ::testing::AssertionFailure() << "first difference at " << x << ", " << y;
    return ::testing::AssertionSuccess();
}

class Part2_2_CcittEncoderInterop : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools are Linux-only";
#endif
    }

    // Saves the image as `type` and decodes the file with fax2tiff and
    // tifftopnm.
    Picture ViaFax2tiff(int32_t handle, int32_t type, int32_t width)
    {
        std::string raw = TempPath("enc_" + std::to_string(type) + ".fax");
        std::string tif = raw + ".tif", pbm = raw + ".pbm";
        EXPECT_EQ(IMG_save_bitmap(handle, raw.c_str(), type), 0) << type;
        bool g4 = type == 34 || type == 52, lsb = type == 53 || type == 52;
        std::string options = std::string(g4 ? " -4" : " -3 -1") + (lsb ? " -L" : " -M") +
                              " -X " + std::to_string(width);
        Picture p;
        if (RunQuiet("fax2tiff" + options + " -o '" + tif + "' '" + raw + "'") &&
            RunToFile("tifftopnm '" + tif + "' > '" + pbm + "'"))
            p = ReadPbm(pbm);
        if (!std::getenv("TRNW_KEEP"))
        for (const std::string &f : {raw, tif, pbm})
            std::remove(f.c_str());
        return p;
    }

    // Saves the image as Group 3 type 33 or 53 and decodes it with g3topbm.
    Picture ViaG3topbm(int32_t handle, int32_t type)
    {
        std::string raw = TempPath("enc_" + std::to_string(type) + ".g3");
        std::string pbm = raw + ".pbm";
        EXPECT_EQ(IMG_save_bitmap(handle, raw.c_str(), type), 0) << type;
        std::string options = type == 53 ? " -reversebits" : "";
        Picture p;
        if (RunToFile("g3topbm -stop_error" + options + " '" + raw + "' > '" + pbm + "'"))
            p = ReadPbm(pbm);
        std::remove(raw.c_str());
        std::remove(pbm.c_str());
        return p;
    }

    void CheckAllTypes(const Picture &page)
    {
        int32_t h = ImageOf(page);
        ASSERT_GE(h, 0);
        if (Have("fax2tiff") && Have("tifftopnm")) {
            for (int32_t type : {33, 53, 34, 52})
                EXPECT_TRUE(SamePixels(page, ViaFax2tiff(h, type, page.width)))
                    << "fax2tiff, type " << type;
        }
        if (Have("g3topbm")) {
            for (int32_t type : {33, 53})
                EXPECT_TRUE(SamePixels(page, ViaG3topbm(h, type))) << "g3topbm, type " << type;
        }
        IMG_delete_bitmap(h);
        if (!Have("fax2tiff") && !Have("g3topbm"))
            GTEST_SKIP() << "neither libtiff-tools nor netpbm installed";
    }
};

} // namespace

TEST_F(Part2_2_CcittEncoderInterop, FaxPage1728x2200DecodesToTheSamePixels)
{
    CheckAllTypes(TextPage(1728, 2200, 24, 1));
}

TEST_F(Part2_2_CcittEncoderInterop, DenseLetterPage2550x3300DecodesToTheSamePixels)
{
    CheckAllTypes(TextPage(2550, 3300, 30, 2));
}

TEST_F(Part2_2_CcittEncoderInterop, EveryRunLengthOfBothColoursDecodes)
{
    CheckAllTypes(AllRunsPage());
}

TEST_F(Part2_2_CcittEncoderInterop, OddWidthsAndTinyImagesDecode)
{
    // Widths that end inside a byte, rows starting black, one-row images.
    for (int32_t width : {1, 7, 9, 1001}) {
        Picture p = TextPage(width, 37, 6, (uint32_t)width);
        for (int32_t y = 0; y < p.height; y += 3)
            p.At(0, y) = 1;
        CheckAllTypes(p);
    }
}

TEST_F(Part2_2_CcittEncoderInterop, ImageMagickTextPageThroughOurBmpReader)
{
    const char *convert = "/usr/bin/convert";
    if (!RunQuiet(std::string(convert) + " -version") || !Have("fax2tiff") || !Have("tifftopnm"))
        GTEST_SKIP() << "needs ImageMagick and libtiff-tools";
    std::string bmp = TempPath("text_page.bmp"), pbm = bmp + ".pbm";
    // One annotation of 60 lines ("\n" is ImageMagick's line break); one
    // render written twice: the BMP we read and the PBM we compare with.
    std::string text;
    for (int line = 0; line < 60; line++)
        text += (line ? "\\n" : "") + std::string("Line ") + std::to_string(line) +
                ": The quick brown fox jumps over the lazy dog 0123456789 ABCDEFGHIJKLMNOP";
    ASSERT_TRUE(RunQuiet(std::string(convert) + " -size 2550x3300 xc:white -fill black -pointsize 36" +
                         " -annotate +120+120 '" + text + "' -monochrome -type bilevel +write 'bmp3:" +
                         bmp + "' '" + pbm + "'"));
    Picture expected = ReadPbm(pbm);
    ASSERT_EQ(expected.width, 2550);
    ASSERT_GT(std::count(expected.px.begin(), expected.px.end(), 1), 100000) << "no text drawn";
    int32_t h = IMG_decompress_bitmap(bmp.c_str());
    ASSERT_GE(h, 0);
    for (int32_t type : {33, 53, 34, 52})
        EXPECT_TRUE(SamePixels(expected, ViaFax2tiff(h, type, 2550))) << "type " << type;
    if (Have("g3topbm")) {
        EXPECT_TRUE(SamePixels(expected, ViaG3topbm(h, 33)));
    }
    IMG_delete_bitmap(h);
    std::remove(bmp.c_str());
    std::remove(pbm.c_str());
}

TEST_F(Part2_2_CcittEncoderInterop, Type34EqualsLibtiffsT6BitsUpToTheEndCodes)
{
    // T.6 coding is deterministic: libtiff's encoder (pnmtotiff -g4, one
    // strip, FillOrder 1) must give the same bits as type 34 up to the end:
    // libtiff ends with EOFB (two EOLs), ours with four EOLs.  The last four
    // bytes of libtiff's strip hold its EOFB and padding and are left out.
    if (!Have("pnmtotiff") || !Have("tiffdump"))
        GTEST_SKIP() << "needs netpbm's pnmtotiff and libtiff's tiffdump";
    for (const Picture &page : {TextPage(2550, 3300, 30, 9), AllRunsPage()}) {
        std::string pbm = TempPath("t6.pbm"), tif = pbm + ".tif", dump = pbm + ".txt",
                    raw = pbm + ".g4";
        WritePbm(pbm, page);
        ASSERT_TRUE(RunToFile("pnmtotiff -g4 -msb2lsb -rowsperstrip=" + std::to_string(page.height) +
                              " '" + pbm + "' > '" + tif + "'"));
        ASSERT_TRUE(RunToFile("tiffdump '" + tif + "' > '" + dump + "'"));
        std::vector<uint8_t> dumpBytes = ReadFile(dump), tiff = ReadFile(tif);
        std::string text(dumpBytes.begin(), dumpBytes.end());
        long offset = TiffdumpValue(text, "StripOffsets (273)"),
             count = TiffdumpValue(text, "StripByteCounts (279)");
        ASSERT_GT(count, 4);
        ASSERT_LE((size_t)(offset + count), tiff.size());
        int32_t h = ImageOf(page);
        ASSERT_GE(h, 0);
        ASSERT_EQ(IMG_save_bitmap(h, raw.c_str(), 34), 0);
        IMG_delete_bitmap(h);
        std::vector<uint8_t> ours = ReadFile(raw);
        ASSERT_GE(ours.size(), (size_t)count - 4);
        ASSERT_LE(ours.size(), (size_t)count + 4);
        EXPECT_TRUE(std::equal(ours.begin(), ours.begin() + (count - 4), tiff.begin() + offset))
            << page.width << " x " << page.height;
        for (const std::string &f : {pbm, tif, dump, raw})
            std::remove(f.c_str());
    }
}
