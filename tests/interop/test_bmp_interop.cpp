/*
 * test_bmp_interop.cpp - Part 3.1 against independent tools.
 *
 * Reading: BMP files written at test time by ImageMagick (bmp3: with 1, 4, 8
 * bits, RLE8, 16-bit 5-6-5 bit fields, 24 and 32 bits; bmp2: OS/2 core
 * headers) and by Pillow (1, 8, 24, 32 bits), plus files built here that the
 * tools cannot write (16-bit 5-5-5, top-down, RLE4), are decoded by BmpRead
 * and mapped through the delivered palette to RGB, and must equal the RGB
 * pixels the tools themselves decode (ImageMagick `rgb:`, Pillow
 * `Image.tobytes()`).  16-bit pixels are compared in their top bits only:
 * our widening leaves the low bits 0 (Part 3.1), the tools scale.
 *
 * Writing: every BMP (types 1 and 12) and DIB (type 48) we write is decoded
 * by Pillow and ImageMagick to exactly the pixels we wrote.
 *
 * The tools are /usr/bin/convert (ImageMagick; a `convert` earlier on PATH
 * may be something else) and /usr/bin/python3 with PIL, both installed by
 * scripts/deps.sh.  A test skips only when its tool is absent, and always
 * in Windows builds (run under wine), where the fixture skips every test.
 */
#include "test_support.h"

#include <fstream>
#include <iterator>
#include <random>

#include "formats/bmp.h"
#include "core/bytes.h"

namespace {

const char *const kConvert = "/usr/bin/convert";
const char *const kPython = "/usr/bin/python3";

bool RunQuiet(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveImageMagick()
{
    static int have = -1;
    if (have < 0)
        have = std::system("/usr/bin/convert -version 2>/dev/null | grep -q ImageMagick") == 0;
    return have == 1;
}

bool HavePillow()
{
    static int have = -1;
    if (have < 0)
        have = RunQuiet(std::string(kPython) + " -c 'import PIL.Image'");
    return have == 1;
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

// The tools' own decodings, as RGB bytes top row first (empty on failure).
std::vector<uint8_t> MagickRgb(const std::string &path, const std::string &prefix = "")
{
    std::string raw = path + ".im.raw";
    std::remove(raw.c_str());
    if (!RunQuiet(std::string(kConvert) + " '" + prefix + path + "' -depth 8 'rgb:" + raw + "'"))
        return {};
    return ReadFile(raw);
}

std::vector<uint8_t> PillowRgb(const std::string &path)
{
    std::string raw = path + ".pil.raw";
    std::remove(raw.c_str());
    std::string script = "import sys; from PIL import Image; im = Image.open(sys.argv[1]); "
                         "open(sys.argv[2], 'wb').write(im.convert('RGB').tobytes())";
    if (!RunQuiet(std::string(kPython) + " -c \"" + script + "\" '" + path + "' '" + raw + "'"))
        return {};
    return ReadFile(raw);
}

// A test picture of many colours as a binary PPM, the source of the tools' files.
void WritePpm(const std::string &path, int width, int height)
{
    std::string head = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    std::vector<uint8_t> bytes(head.begin(), head.end());
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            bytes.push_back((uint8_t)(x * 255 / (width - 1)));
            bytes.push_back((uint8_t)(y * 255 / (height - 1)));
            bytes.push_back((uint8_t)((x * 7 + y * 13) % 256));
        }
    }
    WriteFile(path, bytes);
}

// What BmpRead hands over.
struct Decoded {
    int headerCalls = 0;
    std::vector<uint8_t> header;
    std::vector<std::vector<uint8_t>> rows; // by row index
    std::vector<int> seen;

    int32_t Width() const { return (int32_t)GetLE32(header.data() + 4); }
    int32_t Height() const { return (int32_t)GetLE32(header.data() + 8); }
    int Bits() const { return GetLE16(header.data() + 14); }
};

int DecodedHeader(const uint8_t *header, void *context)
{
    auto *d = static_cast<Decoded *>(context);
    d->headerCalls++;
    d->header.assign(header, header + IMG_HEADER_BLOCK_SIZE);
    int32_t h = (int32_t)GetLE32(header + 8);
    d->rows.assign((size_t)h, {});
    d->seen.assign((size_t)h, 0);
    return 1;
}

int DecodedRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    auto *d = static_cast<Decoded *>(context);
    if (rowIndex < 0 || rowIndex >= (int)d->rows.size())
        return -3;
    d->rows[(size_t)rowIndex].assign(row, row + rowBytes);
    d->seen[(size_t)rowIndex]++;
    return 0;
}

// Our decoding of a file as RGB, top row first, through the delivered
// palette (up to 8 bits) or blue, green, red bytes (24 and 32 bits).
std::vector<uint8_t> OurRgb(std::vector<uint8_t> file, Decoded &d)
{
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    int result = BmpRead(0, DecodedRow, &d, DecodedHeader, IMG_MEMORY_HANDLE);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ImgTrackedCount(), 0);
    if (result != 1 || d.headerCalls != 1)
        return {};
    int32_t w = d.Width(), h = d.Height();
    int bits = d.Bits();
    std::vector<uint8_t> rgb((size_t)w * (size_t)h * 3, 0);
    for (int32_t y = 0; y < h; y++) {
        const std::vector<uint8_t> &row = d.rows[(size_t)y];
        EXPECT_EQ(d.seen[(size_t)y], 1) << "row " << y;
        for (int32_t x = 0; x < w && !row.empty(); x++) {
            uint8_t *out = &rgb[((size_t)y * (size_t)w + (size_t)x) * 3];
            if (bits <= 8) {
                int perByte = 8 / bits;
                int shift = 8 - bits * (x % perByte + 1);
                int index = (row[(size_t)(x / perByte)] >> shift) & ((1 << bits) - 1);
                const uint8_t *q = d.header.data() + 40 + 4 * index;
                out[0] = q[2];
                out[1] = q[1];
                out[2] = q[0];
            } else {
                size_t at = (size_t)x * (size_t)(bits / 8);
                out[0] = row[at + 2];
                out[1] = row[at + 1];
                out[2] = row[at];
            }
        }
    }
    return rgb;
}

// Equal RGB pictures; with masks, the tool's channels are compared in their
// top bits only (red, green, blue masks).
::testing::AssertionResult SameRgb(const std::vector<uint8_t> &ours, const std::vector<uint8_t> &tool, int width,
                                   std::array<uint8_t, 3> mask = {0xFF, 0xFF, 0xFF})
{
    if (ours.size() != tool.size())
        return ::testing::AssertionFailure() << "sizes " << ours.size() << " and " << tool.size();
    for (size_t i = 0; i < ours.size(); i++) {
        if (ours[i] != (tool[i] & mask[i % 3])) {
            size_t pixel = i / 3;
            return ::testing::AssertionFailure()
                   << "pixel (" << pixel % (size_t)width << ", " << pixel / (size_t)width << ") channel " << i % 3
                   << ": ours " << (int)ours[i] << ", tool " << (int)tool[i];
        }
    }
    return ::testing::AssertionSuccess();
}

// The bit count and compression a file declares (40-byte or core header).
std::pair<int, uint32_t> Declared(const std::vector<uint8_t> &file)
{
    if (file.size() < 30)
        return {0, 0};
    if (GetLE32(&file[14]) == 12)
        return {GetLE16(&file[24]), 0};
    return {GetLE16(&file[28]), file.size() >= 34 ? GetLE32(&file[30]) : 0};
}

// Little-endian builder for the files the tools cannot write.
struct Bytes {
    std::vector<uint8_t> v;
    Bytes &U16(uint32_t x)
    {
        v.push_back((uint8_t)x);
        v.push_back((uint8_t)(x >> 8));
        return *this;
    }
    Bytes &U32(uint32_t x) { return U16(x).U16(x >> 16); }
    Bytes &Add(const std::vector<uint8_t> &b)
    {
        v.insert(v.end(), b.begin(), b.end());
        return *this;
    }
};

std::vector<uint8_t> BuildFile(int32_t width, int32_t height, int bits, uint32_t compression,
                               const std::vector<uint8_t> &palette, const std::vector<uint8_t> &pixels)
{
    uint32_t offBits = 54 + (uint32_t)palette.size();
    Bytes b;
    b.U16(0x4D42).U32(offBits + (uint32_t)pixels.size()).U16(0).U16(0).U32(offBits);
    b.U32(40).U32((uint32_t)width).U32((uint32_t)height).U16(1).U16((uint32_t)bits).U32(compression);
    b.U32((uint32_t)pixels.size()).U32(2835).U32(2835).U32(0).U32(0);
    return b.Add(palette).Add(pixels).v;
}

std::vector<uint8_t> ColourQuads(int n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> p;
    for (int i = 0; i < n; i++)
        p.insert(p.end(), {(uint8_t)rng(), (uint8_t)rng(), (uint8_t)rng(), 0});
    return p;
}

class Part3_1_BmpInterop : public TrnwTest {
  protected:
    static std::string Scratch(const std::string &name) { return TempPath("bmpio_" + name); }
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools are Linux-only";
#endif
    }
};

struct ToolVariant {
    const char *name;
    const char *arguments; // ImageMagick options before the output
    const char *format;    // bmp3: or bmp2:
    int width;
    int bits;
    uint32_t compression;
    std::array<uint8_t, 3> mask;
};

// Files ImageMagick writes, decoded to the pixels ImageMagick decodes.
TEST_F(Part3_1_BmpInterop, ImageMagickFilesDecodeAsImageMagickDecodesThem)
{
    if (!HaveImageMagick())
        GTEST_SKIP() << "ImageMagick (/usr/bin/convert) not installed";
    const std::array<uint8_t, 3> all = {0xFF, 0xFF, 0xFF};
    const ToolVariant variants[] = {
        {"1bit", "-type Bilevel -compress None", "bmp3:", 37, 1, 0, all},
        {"4bit", "-colors 16 -type Palette -compress None", "bmp3:", 37, 4, 0, all},
        {"8bit", "-colors 200 -type Palette -compress None", "bmp3:", 37, 8, 0, all},
        {"rle8", "-colors 200 -type Palette -compress RLE", "bmp3:", 37, 8, 1, all},
        {"24bit", "-type TrueColor -compress None", "bmp3:", 37, 24, 0, all},
        {"32bit", "-alpha set -define bmp3:alpha=true -compress None", "bmp3:", 37, 32, 0, all},
        // 16-bit rows are read unpadded (Part 3.1): an even width keeps them so.
        // (bmp: with its 124-byte header: ImageMagick's bmp3: 5-6-5 files carry
        // no masks and neither tool reads them back; the reader uses the first
        // 40 bytes of any header size.)
        {"16bit565", "-define bmp:subtype=RGB565", "bmp:", 38, 16, 3, {0xF8, 0xFC, 0xF8}},
        {"os2_1bit", "-type Bilevel", "bmp2:", 37, 1, 0, all},
        {"os2_4bit", "-colors 16 -type Palette", "bmp2:", 37, 4, 0, all},
        {"os2_8bit", "-colors 200 -type Palette", "bmp2:", 37, 8, 0, all},
        {"os2_24bit", "-type TrueColor", "bmp2:", 37, 24, 0, all},
    };
    for (const ToolVariant &v : variants) {
        SCOPED_TRACE(v.name);
        std::string ppm = Scratch(std::string(v.name) + ".ppm"), bmp = Scratch(std::string(v.name) + ".bmp");
        WritePpm(ppm, v.width, 11);
        std::string command = std::string(kConvert) + " '" + ppm + "' " + v.arguments;
        ASSERT_TRUE(RunQuiet(command + " '" + v.format + bmp + "'"));
        std::vector<uint8_t> file = ReadFile(bmp);
        ASSERT_EQ(Declared(file), std::make_pair(v.bits, v.compression)) << "the tool did not write the variant";
        Decoded d;
        std::vector<uint8_t> ours = OurRgb(file, d);
        std::vector<uint8_t> tool = MagickRgb(bmp);
        ASSERT_FALSE(tool.empty());
        EXPECT_TRUE(SameRgb(ours, tool, v.width, v.mask));
    }
}

// Files Pillow writes, decoded to the pixels Pillow decodes.
TEST_F(Part3_1_BmpInterop, PillowFilesDecodeAsPillowDecodesThem)
{
    if (!HavePillow())
        GTEST_SKIP() << "Pillow (/usr/bin/python3 with PIL) not installed";
    struct Case {
        const char *mode;
        int bits;
    };
    for (Case k : {Case{"1", 1}, Case{"L", 8}, Case{"P", 8}, Case{"RGB", 24}, Case{"RGBA", 32}}) {
        SCOPED_TRACE(k.mode);
        std::string ppm = Scratch(std::string("pil_") + k.mode + ".ppm");
        std::string bmp = Scratch(std::string("pil_") + k.mode + ".bmp");
        WritePpm(ppm, 37, 11);
        std::string script = "import sys; from PIL import Image; "
                             "Image.open(sys.argv[1]).convert(sys.argv[3]).save(sys.argv[2], 'BMP')";
        std::string command = std::string(kPython) + " -c \"" + script + "\" '" + ppm + "' '" + bmp + "' ";
        ASSERT_TRUE(RunQuiet(command + k.mode));
        std::vector<uint8_t> file = ReadFile(bmp);
        ASSERT_EQ(Declared(file).first, k.bits);
        Decoded d;
        std::vector<uint8_t> ours = OurRgb(file, d);
        std::vector<uint8_t> tool = PillowRgb(bmp);
        ASSERT_FALSE(tool.empty());
        EXPECT_TRUE(SameRgb(ours, tool, 37));
    }
}

// Files neither tool writes, built here: 16-bit 5-5-5 (no bit fields),
// top-down 8 and 24 bits, RLE4 and RLE8 with runs and absolute runs; both
// tools decode them as we do.
TEST_F(Part3_1_BmpInterop, HandBuiltFilesDecodeAsTheToolsDecodeThem)
{
    bool magick = HaveImageMagick(), pillow = HavePillow();
    if (!magick && !pillow)
        GTEST_SKIP() << "neither ImageMagick nor Pillow installed";
    std::mt19937 rng(5);
    struct Case {
        std::string name;
        std::vector<uint8_t> file;
        int width;
        std::array<uint8_t, 3> mask;
    };
    std::vector<Case> cases;

    std::vector<uint8_t> px16; // 6 x 4, rows of 12 bytes (a multiple of 4)
    for (int i = 0; i < 24; i++) {
        uint16_t v = (uint16_t)(rng() & 0x7FFF);
        px16.push_back((uint8_t)v);
        px16.push_back((uint8_t)(v >> 8));
    }
    cases.push_back({"rgb555", BuildFile(6, 4, 16, 0, {}, px16), 6, {0xF8, 0xF8, 0xF8}});

    std::vector<uint8_t> px8;
    for (int i = 0; i < 5 * 8; i++)
        px8.push_back((uint8_t)rng());
    cases.push_back({"topdown8", BuildFile(5, -5, 8, 0, ColourQuads(256, 3), px8), 5, {0xFF, 0xFF, 0xFF}});

    std::vector<uint8_t> px24;
    for (int i = 0; i < 3 * 12; i++)
        px24.push_back((uint8_t)rng());
    cases.push_back({"topdown24", BuildFile(3, -3, 24, 0, {}, px24), 3, {0xFF, 0xFF, 0xFF}});

    // RLE4, width 7, 3 rows: runs of alternating nibbles, absolute runs, end of bitmap.
    std::vector<uint8_t> rle4 = {7, 0x3C, 0, 0,                          //
                                 0, 4, 0x12, 0x34, 3, 0x5E, 0, 0,        //
                                 3, 0x77, 0, 4, 0x9A, 0xBC, 0, 1};
    cases.push_back({"rle4", BuildFile(7, 3, 4, 2, ColourQuads(16, 4), rle4), 7, {0xFF, 0xFF, 0xFF}});
    // RLE4 with odd absolute runs (5 nibbles in 3 bytes + pad, 3 in 2):
    // ImageMagick only, as Pillow 9 takes n / 2 bytes for an odd run of n.
    std::vector<uint8_t> rle4odd = {0, 5, 0x12, 0x34, 0x50, 0, 2, 0xEE, 0, 0, //
                                    0, 3, 0x9A, 0xB0, 4, 0x21, 0, 1};
    cases.push_back({"rle4odd", BuildFile(7, 2, 4, 2, ColourQuads(16, 6), rle4odd), 7, {0xFF, 0xFF, 0xFF}});

    // RLE8, width 9, 2 rows.
    std::vector<uint8_t> rle8 = {4, 200, 0, 3, 1, 2, 3, 0, 2, 9, 0, 0, //
                                 0, 9, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 1};
    cases.push_back({"rle8", BuildFile(9, 2, 8, 1, ColourQuads(256, 5), rle8), 9, {0xFF, 0xFF, 0xFF}});

    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        std::string path = Scratch("hand_" + k.name + ".bmp");
        WriteFile(path, k.file);
        Decoded d;
        std::vector<uint8_t> ours = OurRgb(k.file, d);
        if (magick) {
            std::vector<uint8_t> tool = MagickRgb(path);
            ASSERT_FALSE(tool.empty());
            EXPECT_TRUE(SameRgb(ours, tool, k.width, k.mask)) << "ImageMagick";
        }
        if (pillow && k.name != "rle4odd") {
            std::vector<uint8_t> tool = PillowRgb(path);
            ASSERT_FALSE(tool.empty());
            EXPECT_TRUE(SameRgb(ours, tool, k.width, k.mask)) << "Pillow";
        }
    }
}

// A row source over rows given top first.
struct Feed {
    std::vector<std::vector<uint8_t>> rows;
};

int FeedRow(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    const std::vector<uint8_t> &row = static_cast<Feed *>(context)->rows.at((size_t)rowIndex);
    for (int i = 0; i < rowBytes; i++)
        buffer[i] = i < (int)row.size() ? row[(size_t)i] : 0;
    return 0;
}

// The picture we hand a writer, as RGB top row first.
std::vector<uint8_t> FeedRgb(const Feed &feed, int width, int bits, const std::vector<uint8_t> &palette)
{
    std::vector<uint8_t> rgb;
    for (const auto &row : feed.rows) {
        for (int x = 0; x < width; x++) {
            if (bits <= 8) {
                int perByte = 8 / bits, shift = 8 - bits * (x % perByte + 1);
                int index = (row[(size_t)(x / perByte)] >> shift) & ((1 << bits) - 1);
                rgb.insert(rgb.end(), {palette[(size_t)index * 4 + 2], palette[(size_t)index * 4 + 1],
                                       palette[(size_t)index * 4]});
            } else {
                size_t at = (size_t)x * (size_t)(bits / 8);
                rgb.insert(rgb.end(), {row[at + 2], row[at + 1], row[at]});
            }
        }
    }
    return rgb;
}

// Every BMP (types 1 and 12) and DIB (type 48) we write decodes in Pillow and
// ImageMagick to the pixels we wrote.
TEST_F(Part3_1_BmpInterop, OurFilesDecodeInPillowAndImageMagick)
{
    bool magick = HaveImageMagick(), pillow = HavePillow();
    if (!magick || !pillow)
        GTEST_SKIP() << "needs both ImageMagick and Pillow";
    struct Case {
        const char *name;
        ImgWriter writer;
        int bits;
        const char *extension;
    };
    const Case cases[] = {
        {"type1_1bit", BmpWriteFile, 1, ".bmp"},    {"type1_4bit", BmpWriteFile, 4, ".bmp"},
        {"type1_8bit", BmpWriteFile, 8, ".bmp"},    {"type1_24bit", BmpWriteFile, 24, ".bmp"},
        {"type1_32bit", BmpWriteFile, 32, ".bmp"},  {"type48_8bit", BmpWritePacked, 8, ".dib"},
        {"type48_24bit", BmpWritePacked, 24, ".dib"}, {"type12_rle8", BmpWriteCompressed, 8, ".bmp"},
        {"type12_rle4", BmpWriteCompressed, 4, ".bmp"},
    };
    const int width = 301, height = 13; // runs and literals longer than 255 for type 12
    std::mt19937 rng(11);
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        std::vector<uint8_t> palette =
            k.bits == 1 ? std::vector<uint8_t>{0, 0, 0, 0, 255, 255, 255, 0}
                        : k.bits <= 8 ? ColourQuads(1 << k.bits, (uint32_t)k.bits) : std::vector<uint8_t>{};
        uint32_t stride = (uint32_t)DibStride(width, k.bits);
        Feed feed;
        for (int y = 0; y < height; y++) {
            std::vector<uint8_t> row(stride, 0);
            size_t used = ((size_t)width * (size_t)k.bits + 7) / 8;
            for (size_t i = 0; i < used;) {
                size_t n = 1 + rng() % (y % 3 == 0 ? 400 : 6);
                uint8_t v = (uint8_t)rng();
                bool noise = rng() % 2;
                for (size_t j = 0; j < n && i < used; j++, i++)
                    row[i] = noise ? (uint8_t)rng() : v;
            }
            if (k.bits == 4 && width % 2)
                row[(size_t)width / 2] &= 0xF0; // the unused nibble of the last byte
            if (k.bits == 1)
                row[(size_t)width / 8] &= (uint8_t)(0xFF << (8 - width % 8));
            feed.rows.push_back(row);
        }
        std::vector<uint8_t> header(IMG_HEADER_BLOCK_SIZE, 0);
        PutLE32(&header[0], 40);
        PutLE32(&header[4], width);
        PutLE32(&header[8], height);
        PutLE16(&header[12], 1);
        PutLE16(&header[14], (uint16_t)k.bits);
        PutLE32(&header[24], 200);
        PutLE32(&header[28], 200);
        std::copy(palette.begin(), palette.end(), header.begin() + 40);

        std::vector<uint8_t> out(1u << 22);
        ImgSetMemorySourceSized(out.data(), (uint32_t)out.size());
        ASSERT_EQ(k.writer(IMG_MEMORY_HANDLE, header.data(), FeedRow, &feed), 0);
        out.resize(ImgTell());
        std::string path = Scratch(std::string(k.name) + k.extension);
        WriteFile(path, out);

        std::vector<uint8_t> want = FeedRgb(feed, width, k.bits, palette);
        std::vector<uint8_t> fromPillow = PillowRgb(path);
        ASSERT_FALSE(fromPillow.empty());
        EXPECT_TRUE(SameRgb(want, fromPillow, width)) << "Pillow";
        std::vector<uint8_t> fromMagick = MagickRgb(path, k.writer == BmpWritePacked ? "dib:" : "");
        ASSERT_FALSE(fromMagick.empty());
        EXPECT_TRUE(SameRgb(want, fromMagick, width)) << "ImageMagick";
        Decoded d;
        EXPECT_TRUE(SameRgb(OurRgb(out, d), want, width)) << "BmpRead";
    }
}

} // namespace
