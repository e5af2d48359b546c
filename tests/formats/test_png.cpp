// PNG: the reader over files built here (colour types and depths, tRNS,
// pHYs, alpha over the background, broken files) and the writer's colour
// types, chunks and zlib level, read back by our reader.
#include "support/support.h"

#include <zlib.h>

namespace {

using Bytes = std::vector<uint8_t>;

void Chunk(Bytes &f, const char *type, const Bytes &data)
{
    size_t at = f.size();
    f.resize(at + 12 + data.size());
    PutBE32(&f[at], (uint32_t)data.size());
    std::memcpy(&f[at + 4], type, 4);
    std::copy(data.begin(), data.end(), f.begin() + (ptrdiff_t)at + 8);
    PutBE32(&f[at + 8 + data.size()], (uint32_t)crc32(0, &f[at + 4], (uInt)data.size() + 4));
}

struct Png {
    int width, colourType, depth;
    std::vector<Bytes> rows; // unfiltered
    std::vector<std::pair<const char *, Bytes>> chunks = {}; // between IHDR and IDAT
};

Bytes Build(const Png &p)
{
    Bytes f = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, ihdr(13, 0);
    PutBE32(&ihdr[0], (uint32_t)p.width), PutBE32(&ihdr[4], (uint32_t)p.rows.size());
    ihdr[8] = (uint8_t)p.depth, ihdr[9] = (uint8_t)p.colourType;
    Chunk(f, "IHDR", ihdr);
    for (const auto &[type, data] : p.chunks)
        Chunk(f, type, data);
    Bytes raw(p.rows.size() * (p.rows[0].size() + 1), 0); // filter type 0 before each row
    for (size_t y = 0; y < p.rows.size(); y++)
        std::copy(p.rows[y].begin(), p.rows[y].end(), raw.begin() + (ptrdiff_t)(y * (p.rows[0].size() + 1) + 1));
    uLongf n = compressBound((uLong)raw.size());
    Bytes z(n);
    compress(z.data(), &n, raw.data(), (uLong)raw.size());
    z.resize(n);
    Chunk(f, "IDAT", z);
    Chunk(f, "IEND", {});
    return f;
}

// c over the background b at alpha a, rounded: the compositing rule.
uint8_t Over(int c, int a, int b) { return (uint8_t)((c * a + b * (255 - a) + 127) / 255); }

Bytes Greys(std::vector<int> levels)
{
    Bytes rgb;
    for (int g : levels)
        rgb.insert(rgb.end(), {(uint8_t)g, (uint8_t)g, (uint8_t)g});
    return rgb;
}

struct ReadCase {
    const char *name;
    Png png;
    int bits;
    Bytes rgb; // top row first
    int transparent = -1;
    uint32_t dpi = 0; // x << 16 | y
};

const Bytes kWhiteBlack = {255, 255, 255, 0, 0, 0}, kFourColours = {255, 0, 0, 0, 0, 255, 9, 8, 7, 40, 50, 60};

std::vector<ReadCase> ReadCases()
{
    return {
        {"grey 2-bit widened to 4", {4, 0, 2, {{0x1B}}}, 4, Greys({0, 85, 170, 255})},
        {"grey 4-bit", {3, 0, 4, {{0x0F, 0x80}}}, 4, Greys({0, 255, 136})},
        // 16 bits round to 8: 0x1234 is 18.13, 0xFF7F 254.5; the tRNS level rounds the same way.
        {"grey 16-bit with tRNS", {2, 0, 16, {{0x12, 0x34, 0xFF, 0x7F}}, {{"tRNS", {0xFF, 0x7F}}}}, 8, Greys({18, 255}), 255},
        // White, then black: a 1-bit image, bits and the transparent index turned over.
        {"palette white, black", {3, 3, 1, {{0x40}}, {{"PLTE", kWhiteBlack}, {"tRNS", {0}}}}, 1, Greys({255, 0, 255}), 1},
        {"palette of two colours", {2, 3, 1, {{0x80}}, {{"PLTE", {255, 0, 0, 0, 0, 255}}}}, 4, {0, 0, 255, 255, 0, 0}},
        {"palette 2-bit", {4, 3, 2, {{0x1B}}, {{"PLTE", kFourColours}}}, 4, kFourColours},
        // The first entry of alpha 0 is the transparent one and keeps its colour;
        // other entries below 255 go over white.
        {"palette 8-bit with tRNS", {4, 3, 8, {{0, 1, 2, 3}}, {{"PLTE", kFourColours}, {"tRNS", {255, 0, 128, 0}}}}, 8,
         {255, 0, 0, 0, 0, 255, Over(9, 128, 255), Over(8, 128, 255), Over(7, 128, 255), 255, 255, 255}, 1},
        // pHYs: 11811 and 5906 pixels a metre are 300.0 and 150.0 dots per inch.
        {"RGB 16-bit, pHYs", {1, 2, 16, {{0x01, 0x01, 0x80, 0x00, 0xFE, 0xFE}}, {{"pHYs", {0, 0, 0x2E, 0x23, 0, 0, 0x17, 0x12, 1}}}},
         24, {1, 128, 254}, -1, 300u << 16 | 150},
        {"RGBA over white", {2, 6, 8, {{200, 100, 50, 128, 9, 8, 7, 0}}}, 24,
         {Over(200, 128, 255), Over(100, 128, 255), Over(50, 128, 255), 255, 255, 255}},
        {"grey and alpha 16-bit", {1, 4, 16, {{0x80, 0x00, 0x80, 0x00}}}, 8, Greys({Over(128, 128, 255)})},
    };
}

} // namespace

using PngRead = TrnwTest;

TEST_F(PngRead, EveryColourTypeAsItsBytesSay)
{
    for (const ReadCase &c : ReadCases()) {
        SCOPED_TRACE(c.name);
        Bytes file = Build(c.png);
        int32_t h = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 0);
        ASSERT_GE(h, 0);
        EXPECT_EQ(PictureOf(h).bits, c.bits);
        EXPECT_EQ(ImageRgb(h).rgb, c.rgb);
        EXPECT_EQ(IMGLOW_get_transp_color(h), c.transparent < 0 ? IMG_ERR_NO_TRANSPARENT : c.transparent);
        const uint8_t *dib = ImgTableGet(h)->dib;
        EXPECT_EQ(GetLE32(dib + 24) << 16 | GetLE32(dib + 28), c.dpi);
        IMG_delete_bitmap(h);
    }
}

// Grey and alpha over a colour: the image becomes 24-bit.
TEST_F(PngRead, AlphaOverTheBackgroundAskedFor)
{
    EXPECT_EQ(IMGLOW_set_alpha_background(0x1000000), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_alpha_background(0x0080FF), 0xFFFFFF);
    int bits = 0;
    Raster r = DecodeMemory(Build({1, 4, 8, {{200, 64}}}), nullptr, &bits);
    EXPECT_EQ(IMGLOW_set_alpha_background(0xFFFFFF), 0x0080FF);
    EXPECT_EQ(bits, 24);
    EXPECT_EQ(r.rgb, Bytes({Over(200, 64, 0), Over(200, 64, 0x80), Over(200, 64, 0xFF)}));
}

TEST_F(PngRead, BrokenFilesGiveCodes)
{
    Bytes good = Build({4, 2, 8, {Bytes(12, 7), Bytes(12, 9)}});
    Bytes cut(good.begin(), good.end() - 20), badCrc = good, badDepth = Build({4, 2, 3, {Bytes(2, 7)}});
    badCrc[29] ^= 1; // the IHDR's CRC
    for (auto [file, code] : {std::pair{cut, IMG_ERR_READ}, {badCrc, IMG_ERR_INVALID}, {badDepth, IMG_ERR_INVALID}}) {
        int32_t status = 0;
        DecodeMemory(file, &status);
        EXPECT_EQ(status, code);
    }
    EXPECT_EQ(IMG_decompress_bitmap_mem_size(good.data(), (uint32_t)good.size(), 1), IMG_ERR_PAGE);
}

using PngWrite = TrnwTest;

// Each depth reads back as it was, in the colour type its palette calls for
// (IHDR bytes 24 and 25: depth, colour type), with its transparent colour
// (tRNS) and resolution (pHYs).
TEST_F(PngWrite, EachDepthReadsBackInItsColourType)
{
    struct {
        int bits;
        bool grey;
        int depth, colourType;
    } cases[] = {{1, false, 1, 0}, {4, true, 4, 0}, {4, false, 4, 3}, {8, true, 8, 0}, {8, false, 8, 3}, {24, false, 8, 2}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bits * 10 + c.grey);
        Picture p = MakePicture(21, 5, c.bits, 9, c.grey);
        int32_t h = ImageOf(p);
        IMGLOW_set_transp_color(h, 1);
        ImgTableGet(h)->dib[24] = 200, ImgTableGet(h)->dib[28] = 100;
        Bytes f = SavedImage(h, IMG_TYPE_PNG);
        IMG_delete_bitmap(h);
        ASSERT_GT(f.size(), 33u);
        EXPECT_EQ(f[24], c.depth);
        EXPECT_EQ(f[25], c.colourType);
        h = IMG_decompress_bitmap_mem_size(f.data(), (uint32_t)f.size(), 0);
        ASSERT_GE(h, 0);
        EXPECT_EQ(RasterDiff(ImageRgb(h), p.Rgb()), 0);
        EXPECT_EQ(PictureOf(h).bits, c.bits);
        EXPECT_EQ(IMGLOW_get_transp_color(h), c.bits < 24 ? 1 : IMG_ERR_NO_TRANSPARENT);
        EXPECT_EQ(GetLE32(ImgTableGet(h)->dib + 24) << 16 | GetLE32(ImgTableGet(h)->dib + 28), 200u << 16 | 100u);
        IMG_delete_bitmap(h);
    }
    int32_t status = 0;
    Saved(RandomPicture(4, 4, 16, 1), IMG_TYPE_PNG, &status);
    EXPECT_EQ(status, IMG_ERR_DEPTH);
}

// The quality sets the zlib level: its zlib header's FLEVEL (bits 6-7 of the
// second byte) is 0 for level 0, 2 for 6, 3 for 7 to 9.
TEST_F(PngWrite, QualityChoosesTheZlibLevel)
{
    int32_t h = ImageOf(MakePicture(40, 20, 24, 4));
    for (auto [quality, level] : {std::pair{1, 0}, {75, 2}, {100, 3}}) {
        IMGLOW_set_comp_quality(quality);
        Bytes f = SavedImage(h, IMG_TYPE_PNG);
        auto idat = std::search(f.begin(), f.end(), std::begin("IDAT"), std::end("IDAT") - 1);
        ASSERT_LT(idat + 6, f.end());
        EXPECT_EQ(idat[5] >> 6, level) << quality;
    }
    IMGLOW_set_comp_quality(75);
    IMG_delete_bitmap(h);
}
