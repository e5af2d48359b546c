/*
 * test_tiff_write_interop.cpp - Part 2.4 against libtiff, netpbm and
 * ImageMagick.
 *
 * Every save type we write (0, 7, 8, 9, 10, 16, 51), at the depths it takes,
 * is saved through IMG_save_bitmap from an image built here, then:
 * - `tiffinfo -D` reads it with no warning or error except the one the kept
 *   layout causes: "ASCII value for tag "DateTime"/"Artist" contains null
 *   byte in value" (Part 2.4 writes the 20-count DateTime and the 200-count
 *   Artist padded with zeros, which libtiff reports and truncates);
 * - `tiffcmp -t` finds no difference in the data (libtiff decodes our strip)
 *   and none in the tags present in both files but Compression and
 *   RowsPerStrip, against
 *   a source TIFF made from the same pixels by the tools: ImageMagick from a
 *   PPM/PGM/PBM written here (pnmtotiff for WhiteIsZero bilevel pages, which
 *   ImageMagick does not write), made single-strip and uncompressed by tiffcp,
 *   with our FillOrder (palette pages have no tiffcmp source: their index
 *   order is ImageMagick's choice, so they are compared by pixels only);
 * - ImageMagick (/usr/bin/convert) decodes it to the RGB pixels of the image.
 * Coloured 24-bit pictures prove the R,G,B order of the file.  A 20-page
 * Group 4 file built by appending pages is split by tiffsplit and every page
 * decoded by ImageMagick.  Skips when a tool is absent, and under Windows.
 */
#include "test_support.h"

#include <fstream>
#include <iterator>
#include <sstream>

namespace {

const char *const kConvert = "/usr/bin/convert";

bool RunQuiet(const std::string &command)
{
    return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str()) == 0;
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
}

struct Scratch : TrnwTest {
    using TrnwTest::TempPath;
};

// Runs a command, its output (both streams) into lines; false when it fails.
bool RunLines(const std::string &command, std::vector<std::string> &lines)
{
    static int serial;
    std::string name = Scratch::TempPath("tw_cmd_" + std::to_string(serial++) + ".txt");
    int status = std::system((command + " >'" + name + "' 2>&1").c_str());
    std::ifstream in(name);
    lines.clear();
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::remove(name.c_str());
    return status == 0;
}

bool Ignorable(const std::string &line)
{
    // The kept layout of Part 2.4: zero-padded DateTime and Artist.
    return line.find("contains null byte in value") != std::string::npos;
}

// ---- the pictures ----

enum Kind { BILEVEL, GREY4, COLOUR4, GREY8, COLOUR8, RGB24 };

struct Picture {
    Kind kind;
    int width, height, bits;
    std::vector<std::array<uint8_t, 3>> palette;  // R, G, B
    std::vector<std::vector<uint8_t>> pixels;     // top first: index, or R,G,B for 24 bits

    Picture(Kind k, int w, int h, uint32_t seed) : kind(k), width(w), height(h)
    {
        bits = k == BILEVEL ? 1 : k <= COLOUR4 ? 4 : k <= COLOUR8 ? 8 : 24;
        int n = bits < 24 ? 1 << bits : 0;
        for (int i = 0; i < n; i++) {
            uint8_t g = (uint8_t)(n == 2 ? i * 255 : i * 255 / (n - 1));
            if (k == COLOUR4 || k == COLOUR8)
                palette.push_back({(uint8_t)(i * 37 + 11), (uint8_t)(255 - i * 13), (uint8_t)(i * i)});
            else
                palette.push_back({g, g, g});
        }
        pixels.assign(h, std::vector<uint8_t>((size_t)w * (bits == 24 ? 3 : 1)));
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++) {
                seed = seed * 1103515245u + 12345u;
                uint32_t r = seed >> 16;
                if (bits == 1) // runs of both colours and some noise, for the CCITT coders
                    pixels[y][x] = ((x / 9 + y / 5) % 3 == 0) ^ (r % 17 == 0);
                else if (bits < 24)
                    pixels[y][x] = (uint8_t)((x + y * 3 + (r % 3)) % n);
                else
                    for (int c = 0; c < 3; c++)
                        pixels[y][3 * x + c] = (uint8_t)(c == 0 ? x * 255 / (w - 1) : c == 1 ? y * 255 / (h - 1) : r);
            }
    }

    std::vector<uint8_t> Rgb() const
    {
        std::vector<uint8_t> rgb;
        for (const auto &row : pixels)
            for (int x = 0; x < width; x++)
                for (int c = 0; c < 3; c++)
                    rgb.push_back(bits == 24 ? row[3 * x + c] : palette[row[x]][c]);
        return rgb;
    }

    // A library image holding the picture (B, G, R for 24 bits).
    int32_t Image() const
    {
        int32_t h = NewImage(width, height, bits);
        if (h < 0)
            return h;
        ImgDescriptor *d = ImgTableGet(h);
        for (size_t i = 0; i < palette.size(); i++) {
            d->dib[40 + 4 * i] = palette[i][2];
            d->dib[40 + 4 * i + 1] = palette[i][1];
            d->dib[40 + 4 * i + 2] = palette[i][0];
        }
        std::vector<uint8_t> row((size_t)d->stride, 0);
        for (int y = 0; y < height; y++) {
            std::fill(row.begin(), row.end(), 0);
            for (int x = 0; x < width; x++) {
                if (bits == 1)
                    row[x / 8] |= (uint8_t)(pixels[y][x] << (7 - x % 8));
                else if (bits == 4)
                    row[x / 2] |= (uint8_t)(pixels[y][x] << (x % 2 ? 0 : 4));
                else if (bits == 8)
                    row[x] = pixels[y][x];
                else
                    for (int c = 0; c < 3; c++)
                        row[3 * x + c] = pixels[y][3 * x + 2 - c];
            }
            IMGLOW_put_raster(h, row.data(), y, d->stride);
        }
        return h;
    }

    // The source as a PNM file: PBM (1 = black) for bilevel, PGM for grey, PPM else.
    void WritePnm(const std::string &path) const
    {
        const char *magic = bits == 1 ? "P4" : (kind == GREY4 || kind == GREY8) ? "P5" : "P6";
        std::string head = std::string(magic) + "\n" + std::to_string(width) + " " + std::to_string(height) +
                           (bits == 1 ? "\n" : "\n255\n");
        std::vector<uint8_t> bytes(head.begin(), head.end());
        for (const auto &row : pixels) {
            if (bits == 1) {
                std::vector<uint8_t> packed((size_t)(width + 7) / 8, 0);
                for (int x = 0; x < width; x++)
                    if (palette[row[x]][0] == 0)
                        packed[x / 8] |= (uint8_t)(0x80 >> (x % 8));
                bytes.insert(bytes.end(), packed.begin(), packed.end());
            } else {
                for (int x = 0; x < width; x++) {
                    if (magic[1] == '5')
                        bytes.push_back(palette[row[x]][0]);
                    else
                        for (int c = 0; c < 3; c++)
                            bytes.push_back(bits == 24 ? row[3 * x + c] : palette[row[x]][c]);
                }
            }
        }
        WriteFile(path, bytes);
    }
};

// ---- the tools' checks ----

// tiffinfo -D: no warning or error but the ignorable ones; at least one directory.
void ExpectTiffinfoClean(const std::string &path, int directories = 1)
{
    std::vector<std::string> lines;
    EXPECT_TRUE(RunLines("tiffinfo -D '" + path + "'", lines)) << path;
    int seen = 0;
    for (const auto &line : lines) {
        if (line.find("TIFF Directory at offset") != std::string::npos)
            seen++;
        bool bad = line.find("Warning") != std::string::npos || line.find("Error") != std::string::npos ||
                   line.find("rror") != std::string::npos;
        EXPECT_TRUE(!bad || Ignorable(line)) << path << ": " << line;
    }
    EXPECT_EQ(seen, directories) << path;
}

// The source TIFF: from the PNM by ImageMagick (or pnmtotiff for a WhiteIsZero
// bilevel page), then one uncompressed strip with the given FillOrder by tiffcp.
bool MakeSource(const Picture &p, const std::string &path, bool whiteIsZero, int fillOrder)
{
    std::string pnm = path + ".pnm", first = path + ".first.tif";
    p.WritePnm(pnm);
    std::string make = whiteIsZero ? "pnmtotiff -miniswhite '" + pnm + "' > '" + first + "'"
                                   : std::string(kConvert) + " '" + pnm + "' -compress none " +
                                         (p.kind == GREY4 ? "-depth 4 -type grayscale" :
                                          p.kind == GREY8 ? "-depth 8 -type grayscale" :
                                          p.bits == 24 ? "-depth 8 -type truecolor" : "") +
                                         " '" + first + "'";
    bool ok = RunQuiet(make) && RunQuiet("tiffcp -c none -r " + std::to_string(p.height) + " -f " +
                                         (fillOrder == 2 ? "lsb2msb" : "msb2lsb") + " '" + first + "' '" +
                                         path + "'");
    std::remove(pnm.c_str());
    std::remove(first.c_str());
    return ok;
}

// tiffcmp -t compares the data scanline by scanline after decompression and
// lists every tag difference.  Allowed: tags present in one file only, the
// Compression (the scheme is immaterial to tiffcmp) and RowsPerStrip (the
// source's strips are tiffcp's); any other tag difference or data difference
// fails.
void ExpectTiffcmpEqual(const std::string &ours, const std::string &source)
{
    std::vector<std::string> lines;
    EXPECT_TRUE(RunLines("tiffcmp -t '" + ours + "' '" + source + "'", lines)) << ours;
    for (const auto &line : lines) {
        bool allowed = line.find("appears only in") != std::string::npos || Ignorable(line) ||
                       line.rfind("Compression: ", 0) == 0 || line.rfind("RowsPerStrip: ", 0) == 0;
        EXPECT_TRUE(allowed) << ours << " vs " << source << ": " << line;
    }
}

std::vector<uint8_t> MagickRgb(const std::string &path)
{
    std::string raw = path + ".im.raw";
    std::remove(raw.c_str());
    if (!RunQuiet(std::string(kConvert) + " '" + path + "' -depth 8 'rgb:" + raw + "'"))
        return {};
    auto bytes = ReadFile(raw);
    std::remove(raw.c_str());
    return bytes;
}

// Palette pages: Part 2.4 writes each ColorMap value as palette byte x 256
// (kept), and 16-bit map values come back to 8 bits as v x 255 / 65535, so
// ImageMagick reads every non-zero component one lower (48 x 256 -> 47).
void ExpectNear(const std::vector<uint8_t> &got, const std::vector<uint8_t> &want)
{
    ASSERT_EQ(got.size(), want.size());
    int bad = 0;
    for (size_t i = 0; i < got.size(); i++)
        bad += got[i] != (want[i] ? want[i] - 1 : 0);
    EXPECT_EQ(bad, 0) << "components not equal to the palette's (x 256 / 257)";
}

class Part2_4_TiffWriteInterop : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools are Linux-only";
#else
        if (!RunQuiet("command -v tiffinfo && command -v tiffcmp && command -v tiffcp && command -v tiffsplit"))
            GTEST_SKIP() << "libtiff tools not installed";
        if (!RunQuiet(std::string(kConvert) + " -version | grep -q ImageMagick"))
            GTEST_SKIP() << "ImageMagick (/usr/bin/convert) not installed";
#endif
    }

    // Saves the picture as `type` and runs the three checks.
    void CheckSaveType(const Picture &p, int type, const std::string &name)
    {
        SCOPED_TRACE(name);
        std::string ours = TempPath(name + ".tif"), source = TempPath(name + ".src.tif");
        std::remove(ours.c_str());
        int32_t h = p.Image();
        ASSERT_GE(h, 0);
        ASSERT_EQ(IMG_save_bitmap(h, ours.c_str(), type), 0);
        IMG_delete_bitmap(h);
        ExpectTiffinfoClean(ours);
        bool palette = p.kind == COLOUR4 || p.kind == COLOUR8;
        if (!palette) {
            bool ccitt = type == 7 || type == 8 || type == 10 || type == 51;
            int fillOrder = type == 8 || type == 10 ? 2 : 1;
            if (ccitt && !RunQuiet("command -v pnmtotiff")) {
                ADD_FAILURE() << "pnmtotiff (netpbm) missing";
            } else {
                ASSERT_TRUE(MakeSource(p, source, ccitt, fillOrder));
                ExpectTiffcmpEqual(ours, source);
            }
        }
        if (palette)
            ExpectNear(MagickRgb(ours), p.Rgb());
        else
            EXPECT_EQ(MagickRgb(ours), p.Rgb());
        std::remove(ours.c_str());
        std::remove(source.c_str());
    }
};

TEST_F(Part2_4_TiffWriteInterop, UncompressedEveryDepth)
{
    CheckSaveType(Picture(BILEVEL, 77, 23, 1), IMG_TYPE_TIFF, "t0_1");
    CheckSaveType(Picture(GREY4, 31, 9, 2), IMG_TYPE_TIFF, "t0_4grey");
    CheckSaveType(Picture(COLOUR4, 31, 9, 3), IMG_TYPE_TIFF, "t0_4colour");
    CheckSaveType(Picture(GREY8, 30, 11, 4), IMG_TYPE_TIFF, "t0_8grey");
    CheckSaveType(Picture(COLOUR8, 30, 11, 5), IMG_TYPE_TIFF, "t0_8colour");
    CheckSaveType(Picture(RGB24, 33, 17, 6), IMG_TYPE_TIFF, "t0_24");
}

TEST_F(Part2_4_TiffWriteInterop, CcittSaveTypes)
{
    Picture page(BILEVEL, 1728 / 8 + 5, 40, 7);
    CheckSaveType(page, IMG_TYPE_TIFF_HUFFMAN, "t7");
    CheckSaveType(page, IMG_TYPE_TIFF_G3, "t8");
    CheckSaveType(page, IMG_TYPE_TIFF_G4, "t10");
    CheckSaveType(page, IMG_TYPE_TIFF_51, "t51");
}

TEST_F(Part2_4_TiffWriteInterop, LzwEveryDepth)
{
    CheckSaveType(Picture(BILEVEL, 77, 23, 8), IMG_TYPE_TIFF_LZW, "t9_1");
    CheckSaveType(Picture(COLOUR4, 31, 9, 9), IMG_TYPE_TIFF_LZW, "t9_4colour");
    CheckSaveType(Picture(GREY8, 300, 40, 10), IMG_TYPE_TIFF_LZW, "t9_8grey");
    CheckSaveType(Picture(COLOUR8, 30, 11, 11), IMG_TYPE_TIFF_LZW, "t9_8colour");
    CheckSaveType(Picture(RGB24, 200, 150, 12), IMG_TYPE_TIFF_LZW, "t9_24");
}

TEST_F(Part2_4_TiffWriteInterop, PackBits)
{
    CheckSaveType(Picture(BILEVEL, 77, 23, 13), IMG_TYPE_TIFF_PACKBITS, "t16");
}

// Pure red, green and blue columns read back as red, green and blue.
TEST_F(Part2_4_TiffWriteInterop, TwentyFourBitPagesHoldRedGreenBlue)
{
    Picture p(RGB24, 3, 2, 1);
    for (auto &row : p.pixels)
        row = {255, 0, 0, 0, 255, 0, 0, 0, 255};
    for (int type : {IMG_TYPE_TIFF, IMG_TYPE_TIFF_LZW}) {
        std::string ours = TempPath("rgb_order.tif");
        std::remove(ours.c_str());
        int32_t h = p.Image();
        ASSERT_GE(h, 0);
        ASSERT_EQ(IMG_save_bitmap(h, ours.c_str(), type), 0);
        IMG_delete_bitmap(h);
        std::vector<uint8_t> expected;
        for (int r = 0; r < 2; r++)
            expected.insert(expected.end(), {255, 0, 0, 0, 255, 0, 0, 0, 255});
        EXPECT_EQ(MagickRgb(ours), expected) << type;
        std::remove(ours.c_str());
    }
}

// Twenty Group 4 pages appended one by one; libtiff splits them and every
// page decodes to its own pixels.
TEST_F(Part2_4_TiffWriteInterop, TwentyPageGroup4FileBuiltByAppending)
{
    std::string path = TempPath("g4_20.tif"), prefix = TempPath("g4_20_page_");
    std::remove(path.c_str());
    std::vector<Picture> pages;
    for (int i = 0; i < 20; i++) {
        pages.emplace_back(BILEVEL, 300 + 8 * i, 120 + i, 100 + i);
        int32_t h = pages.back().Image();
        ASSERT_GE(h, 0);
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_TIFF_G4), 0) << i;
        IMG_delete_bitmap(h);
    }
    ExpectTiffinfoClean(path, 20);
    ASSERT_TRUE(RunQuiet("tiffsplit '" + path + "' '" + prefix + "'"));
    for (int i = 0; i < 20; i++) {
        // tiffsplit names the pages aaa, aab, ...
        std::string name = prefix + "aa" + (char)('a' + i % 26) + ".tif";
        if (i >= 26)
            name = prefix + "ab" + (char)('a' + i - 26) + ".tif";
        EXPECT_EQ(MagickRgb(name), pages[i].Rgb()) << "page " << i;
        std::remove(name.c_str());
    }
    std::remove(path.c_str());
}

} // namespace
