/*
 * test_tiff_read_interop.cpp - the TIFF reader (Part 2.3, with the LZW and
 * PackBits decoding of Part 2.5) against libtiff.
 *
 * Source pictures are made at test time with ImageMagick (/usr/bin/convert:
 * 24-bit RGB, 8- and 4-bit grey, 8- and 4-bit palette, 1-bit) and rewritten
 * with tiffcp in every compression (none, packbits, lzw, lzw with predictor
 * 2, g3, g3:2d, g4), byte order (-B, -L), strip layout (-r), planar
 * configuration (-p separate) and fill order (-f lsb2msb).  Each file is
 * decoded by TiffRead and by libtiff's tifftopnm; the two must agree pixel
 * for pixel: 1-bit pages as black and white, grey pages by palette index
 * (the sample value), colour pages as RGB (palette colours: ours are the
 * ColorMap's top bytes, tifftopnm's scaled from 16 bits: within 1).
 * Multi-page files made with tiffcp a b c read page by page.
 * Skips when a tool is absent, and always in Windows builds.
 */
#include "bilevel/tiff_capture.h"

#include <fstream>
#include <iterator>
#include <sstream>

namespace {

class Part2_3_TiffInterop : public TrnwTest {
  public:
    static std::string Temp(const std::string &name) { return TempPath(name); }

  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools run on Linux only";
#else
        if (std::system("/usr/bin/convert -version 2>/dev/null | grep -q ImageMagick") != 0 ||
            std::system("tiffcp 2>&1 | grep -qi usage") != 0 ||
            std::system("command -v tifftopnm >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "ImageMagick, tiffcp or tifftopnm missing";
#endif
    }
};

bool RunTool(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A PNM as tifftopnm writes it: kind 4, 5 or 6, the samples one per value.
struct Pnm {
    int kind = 0, width = 0, height = 0, maxval = 1;
    std::vector<int> samples;
};

Pnm ReadPnm(const std::string &path)
{
    Pnm p;
    std::vector<uint8_t> bytes = ReadFile(path);
    size_t at = 0;
    auto token = [&]() {
        while (at < bytes.size() && (isspace(bytes[at]) || bytes[at] == '#')) {
            if (bytes[at] == '#')
                while (at < bytes.size() && bytes[at] != '\n') at++;
            else
                at++;
        }
        std::string t;
        while (at < bytes.size() && !isspace(bytes[at])) t += (char)bytes[at++];
        return t;
    };
    std::string magic = token();
    if (magic.size() != 2 || magic[0] != 'P')
        return p;
    p.kind = magic[1] - '0';
    p.width = std::stoi(token());
    p.height = std::stoi(token());
    if (p.kind != 4)
        p.maxval = std::stoi(token());
    at++; // one white-space byte
    if (p.kind == 4) {
        size_t rowBytes = (size_t)(p.width + 7) / 8;
        for (int y = 0; y < p.height; y++)
            for (int x = 0; x < p.width; x++)
                p.samples.push_back((bytes[at + y * rowBytes + x / 8] >> (7 - x % 8)) & 1);
    } else {
        size_t n = (size_t)p.width * p.height * (p.kind == 6 ? 3 : 1);
        int wide = p.maxval > 255 ? 2 : 1;
        for (size_t i = 0; i < n && at + wide * i < bytes.size(); i++)
            p.samples.push_back(wide == 2 ? (bytes[at + 2 * i] << 8) | bytes[at + 2 * i + 1] : bytes[at + i]);
    }
    return p;
}

// The palette index of every pixel of our decode (depths 1, 4, 8).
std::vector<int> Indexes(const TiffCapture &c)
{
    std::vector<int> out;
    for (int y = 0; y < c.Height(); y++) {
        auto it = c.rows.find(y);
        std::vector<uint8_t> row = it == c.rows.end() ? std::vector<uint8_t>(c.Stride(), 0) : it->second;
        for (int x = 0; x < c.Width(); x++) {
            if (c.Bits() == 1) out.push_back((row[x / 8] >> (7 - x % 8)) & 1);
            else if (c.Bits() == 4) out.push_back((row[x / 2] >> (x % 2 ? 0 : 4)) & 15);
            else out.push_back(row[x]);
        }
    }
    return out;
}

// Decodes page `page` of a file with TiffRead through a file handle.
int DecodeFile(const std::string &path, TiffCapture &c, int page = 0)
{
    int handle = ImgOpen(path.c_str(), 0);
    if (handle < 0)
        return handle;
    ImgSeek(handle, 0, 0);
    uint32_t start = page ? (IMG_PAGE_FLAG | (uint32_t)page) : 0;
    int result = TiffRead(start, TiffCaptureRow, &c, TiffCaptureHeader, handle);
    ImgClose(handle);
    return result;
}

// Our decode of `path` (page `page`) against libtiff's of `reference`.
void ExpectSameAsLibtiff(const std::string &path, const std::string &reference, int page = 0)
{
    SCOPED_TRACE(path);
    std::string pnm = path + ".pnm";
    std::remove(pnm.c_str());
    ASSERT_EQ(std::system(("tifftopnm '" + reference + "' 2>/dev/null > '" + pnm + "'").c_str()), 0);
    Pnm ref = ReadPnm(pnm);
    std::remove(pnm.c_str());
    ASSERT_NE(ref.kind, 0);
    TiffCapture c;
    ASSERT_EQ(DecodeFile(path, c, page), 1);
    ASSERT_EQ(c.headerCalls, 1);
    ASSERT_EQ(c.Width(), ref.width);
    ASSERT_EQ(c.Height(), ref.height);
    ASSERT_EQ((int)c.rows.size(), ref.height) << "every row delivered";
    if (ref.kind == 4) {
        std::vector<uint8_t> rgb = c.Rgb();
        size_t bad = 0;
        for (size_t i = 0; i < ref.samples.size(); i++)
            bad += rgb[3 * i] != (ref.samples[i] ? 0 : 255);
        EXPECT_EQ(bad, 0u) << "pixels differing from libtiff";
    } else if (ref.kind == 5) {
        EXPECT_EQ((1 << c.Bits()) - 1, ref.maxval);
        EXPECT_EQ(Indexes(c), ref.samples);
    } else {
        std::vector<uint8_t> rgb = c.Rgb();
        ASSERT_EQ(rgb.size(), ref.samples.size());
        size_t bad = 0;
        for (size_t i = 0; i < rgb.size(); i++) {
            int expected = ref.maxval == 255 ? ref.samples[i] : ref.samples[i] * 255 / ref.maxval;
            int tolerance = c.Bits() == 24 ? 0 : 1;
            bad += std::abs(rgb[i] - expected) > tolerance;
        }
        EXPECT_EQ(bad, 0u) << "samples differing from libtiff";
    }
}

struct Source {
    const char *name;
    const char *convertOptions;
    bool bilevel, colour;
};

const Source kSources[] = {
    {"rgb24", "-type TrueColor -depth 8", false, true},
    {"grey8", "-colorspace Gray -type Grayscale -depth 8", false, false},
    {"grey4", "-colorspace Gray -type Grayscale -depth 4", false, false},
    {"pal8", "-colors 200 -type Palette -depth 8", false, false},
    {"pal4", "-colors 12 -type Palette -depth 4", false, false},
    {"bw1", "-monochrome -depth 1", true, false},
};

// A 77 x 45 picture of many colours (odd width: rows end inside a byte).
std::string MakeSource(const Source &s)
{
    std::string ppm = Part2_3_TiffInterop::Temp("tiffsrc.ppm");
    {
        std::ofstream out(ppm, std::ios::binary);
        out << "P6\n77 45\n255\n";
        for (int y = 0; y < 45; y++)
            for (int x = 0; x < 77; x++) {
                out.put((char)(x * 255 / 76));
                out.put((char)(y * 255 / 44));
                out.put((char)((x * 7 + y * 13) % 256));
            }
    }
    std::string tif = Part2_3_TiffInterop::Temp(std::string("src_") + s.name + ".tif");
    bool ok = RunTool(std::string("/usr/bin/convert '") + ppm + "' " + s.convertOptions + " -compress None '" + tif + "'");
    std::remove(ppm.c_str());
    return ok ? tif : "";
}

// Rewrites every source with tiffcp `options` (both byte orders, default
// strips and 7 rows per strip) and compares each with libtiff.
void CheckAll(const std::string &options, bool bilevelOnly, bool eightBitsOrMore = false,
              bool colourOnly = false)
{
    for (const Source &s : kSources) {
        if ((bilevelOnly && !s.bilevel) || (colourOnly && !s.colour))
            continue;
        if (eightBitsOrMore && (s.bilevel || std::string(s.name).find('4') != std::string::npos))
            continue;
        std::string src = MakeSource(s);
        ASSERT_FALSE(src.empty()) << s.name;
        for (const char *order : {"-B", "-L"}) {
            for (const char *strips : {"", "-r 7"}) {
                std::string out = Part2_3_TiffInterop::Temp(std::string("tiffcp_") + s.name + ".tif");
                std::remove(out.c_str());
                ASSERT_TRUE(RunTool("tiffcp " + options + " " + order + " " + strips + " '" + src + "' '" + out + "'"))
                    << s.name << " " << options;
                SCOPED_TRACE(std::string(s.name) + " tiffcp " + options + " " + order + " " + strips);
                ExpectSameAsLibtiff(out, out);
                std::remove(out.c_str());
            }
        }
        std::remove(src.c_str());
    }
}

TEST_F(Part2_3_TiffInterop, Uncompressed) { CheckAll("-c none", false); }
TEST_F(Part2_3_TiffInterop, PackBits) { CheckAll("-c packbits", false); }
TEST_F(Part2_3_TiffInterop, Lzw) { CheckAll("-c lzw", false); }
TEST_F(Part2_3_TiffInterop, LzwWithPredictor2) { CheckAll("-c lzw:2", false, true); }
TEST_F(Part2_3_TiffInterop, PlanarSeparate)
{
    CheckAll("-c none -p separate", false, false, true);
    CheckAll("-c lzw -p separate", false, false, true);
    CheckAll("-c lzw:2 -p separate", false, false, true);
    CheckAll("-c packbits -p separate", false, false, true);
}
TEST_F(Part2_3_TiffInterop, Group3OneDimensional) { CheckAll("-c g3:1d", true); }
TEST_F(Part2_3_TiffInterop, Group3TwoDimensional) { CheckAll("-c g3:2d", true); }
TEST_F(Part2_3_TiffInterop, Group4) { CheckAll("-c g4", true); }
TEST_F(Part2_3_TiffInterop, FillOrderLsbToMsb)
{
    CheckAll("-c g4 -f lsb2msb", true);
    CheckAll("-c g3:2d -f lsb2msb", true);
    CheckAll("-c none -f lsb2msb", true);
}

TEST_F(Part2_3_TiffInterop, MultiPageReadsPageByPage)
{
    std::vector<std::string> pages;
    for (const Source &s : kSources)
        pages.push_back(MakeSource(s));
    std::string out = TempPath("multipage.tif");
    std::remove(out.c_str());
    std::string command = "tiffcp -c lzw";
    for (auto &p : pages)
        command += " '" + p + "'";
    ASSERT_TRUE(RunTool(command + " '" + out + "'"));
    EXPECT_EQ(IMGLOW_get_pages(out.c_str()), (int)pages.size());
    for (size_t i = 0; i < pages.size(); i++)
        ExpectSameAsLibtiff(out, pages[i], (int)i);
    TiffCapture beyond;
    EXPECT_EQ(DecodeFile(out, beyond, (int)pages.size()), IMG_ERR_PAGE);
    // Through the library as well: page numbers count from 0.
    int32_t image = IMG_decompress_bitmap(out.c_str());
    EXPECT_GE(image, 0);
    for (auto &p : pages)
        std::remove(p.c_str());
    std::remove(out.c_str());
}

} // namespace
