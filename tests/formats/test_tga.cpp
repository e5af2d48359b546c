// The Targa reader over files built here (depths, colour maps, row order,
// run packets across rows, damaged headers and data) and the writers of save
// types 3 and 32 read back through our reader.
#include "support/support.h"

namespace {
struct Tga {
    int type, depth, width, height, descriptor = 0;
    std::vector<uint8_t> pixels;
    int mapLength = 0, entryBits = 0;
    std::vector<uint8_t> map = {}; // the colour map's bytes as stored
    int idLength = 0;
};
std::vector<uint8_t> Build(const Tga &t)
{
    std::vector<uint8_t> f(18 + (size_t)t.idLength + t.map.size() + t.pixels.size(), 0);
    f[0] = (uint8_t)t.idLength, f[1] = t.mapLength ? 1 : 0, f[2] = (uint8_t)t.type;
    PutLE16(&f[5], (uint16_t)t.mapLength), f[7] = (uint8_t)t.entryBits;
    PutLE16(&f[12], (uint16_t)t.width), PutLE16(&f[14], (uint16_t)t.height);
    f[16] = (uint8_t)t.depth, f[17] = (uint8_t)t.descriptor;
    auto at = std::fill_n(f.begin() + 18, t.idLength, 'x');
    at = std::copy(t.map.begin(), t.map.end(), at);
    std::copy(t.pixels.begin(), t.pixels.end(), at);
    return f;
}
std::vector<uint8_t> Map32(int n) // entry i: blue i mod 256, alpha 0x80
{
    std::vector<uint8_t> m;
    for (int i = 0; i < n; i++) m.insert(m.end(), {(uint8_t)i, 0, 0, 0x80});
    return m;
}

struct ReadCase {
    const char *name;
    Tga tga;
    std::vector<int> rgb; // R, G, B of every pixel, top row first
};
const ReadCase kReads[] = {
    {"8-bit grey, bottom row first", {3, 8, 3, 2, 0, {1, 2, 3, 4, 5, 6}}, {4, 4, 4, 5, 5, 5, 6, 6, 6, 1, 1, 1, 2, 2, 2, 3, 3, 3}},
    {"24-bit map, top row first, ID skipped", {1, 8, 2, 1, 0x20, {1, 0}, 2, 24, {10, 20, 30, 1, 2, 3}, 5}, {3, 2, 1, 30, 20, 10}},
    // 5-5-5 entries: 0x7FFF is F8 F8 F8, 0x7C00 pure red.
    {"16-bit map widened", {1, 8, 2, 1, 0, {1, 0}, 2, 16, {0xFF, 0x7F, 0x00, 0x7C}}, {0xF8, 0, 0, 0xF8, 0xF8, 0xF8}},
    {"300-entry map keeps 256", {1, 8, 2, 1, 0, {255, 7}, 300, 32, Map32(300)}, {0, 0, 255, 0, 0, 7}},
    // 0x1234 holds 4, 17, 20: F8-masked 20 88 A0.
    {"16-bit pixels", {2, 16, 2, 1, 0, {0xFF, 0x7F, 0x34, 0x12}}, {0xF8, 0xF8, 0xF8, 0x20, 0x88, 0xA0}},
    {"16-bit run packet", {10, 16, 2, 1, 0, {0x81, 0x34, 0x12}}, {0x20, 0x88, 0xA0, 0x20, 0x88, 0xA0}},
    {"32-bit run packet", {10, 32, 3, 1, 0, {0x82, 1, 2, 3, 0x40}}, {3, 2, 1, 3, 2, 1, 3, 2, 1}},
    {"32-bit top-left, alpha dropped", {2, 32, 1, 2, 0x28, {1, 2, 3, 0x40, 4, 5, 6, 0x80}}, {3, 2, 1, 6, 5, 4}},
    // A run of 3 fills row 0 and starts row 1; a raw pixel ends it.
    {"run packet across the row end", {10, 24, 2, 2, 0x20, {0x82, 1, 2, 3, 0x00, 4, 5, 6}}, {3, 2, 1, 3, 2, 1, 3, 2, 1, 6, 5, 4}},
    {"grey raw and run packets", {11, 8, 4, 1, 0, {0x01, 9, 8, 0x81, 7}}, {9, 9, 9, 8, 8, 8, 7, 7, 7, 7, 7, 7}},
};

class TgaFormat : public TrnwTest {};

TEST_F(TgaFormat, ReaderLayouts)
{
    for (const ReadCase &c : kReads) {
        SCOPED_TRACE(c.name);
        int32_t status = 0;
        Raster r = DecodeMemory(Build(c.tga), &status);
        ASSERT_GE(status, 0);
        EXPECT_EQ(std::vector<int>(r.rgb.begin(), r.rgb.end()), c.rgb);
    }
}

TEST_F(TgaFormat, DamagedFilesGiveErrorCodes)
{
    std::vector<uint8_t> raw(30001, 0); // one-pixel raw packets, past a block refill, cut short
    struct {
        Tga tga;
        int32_t expected;
        size_t cut = 0;
    } cases[] = {
        {{2, 24, 0, 2, 0, {1, 2, 3}}, IMG_ERR_INVALID},
        {{2, 24, 2, 0, 0, {1, 2, 3}}, IMG_ERR_INVALID},
        {{2, 15, 1, 1, 0, {1, 2}}, IMG_ERR_INVALID},
        {{2, 24, 65535, 65535, 0, {1, 2, 3}}, IMG_ERR_INVALID}, // 12 GiB of pixels
        {{2, 24, 4, 4, 0, std::vector<uint8_t>(40, 9)}, IMG_ERR_READ},
        {{10, 24, 300, 300, 0, raw}, IMG_ERR_READ},
        {{10, 24, 3, 3, 0, {0x85, 1, 2}}, IMG_ERR_READ},
        {{1, 8, 4, 4, 0, std::vector<uint8_t>(16, 1), 60000, 24, {1, 2, 3}}, IMG_ERR_READ}, // map past the end
        {{156, 8, 4, 4, 0, std::vector<uint8_t>(46, 1), 0, 0, {}, 30}, IMG_ERR_INVALID}, // no JPEG stream behind
        {{2, 24, 4, 4, 0, {}}, IMG_ERR_READ, 10}, // header cut short
    };
    for (auto &c : cases) {
        std::vector<uint8_t> file = Build(c.tga);
        if (c.cut)
            file.resize(c.cut);
        int32_t status = 0;
        DecodeMemory(file, &status);
        EXPECT_EQ(status, c.expected) << "type " << c.tga.type << ", " << c.tga.width << " x " << c.tga.height;
    }
}

TEST_F(TgaFormat, WritersReadBack)
{
    // A grey palette is written as the indices themselves, whatever the
    // order of its greys: a reversed ramp reads back inverted.
    struct {
        int type, bits;
        bool grey;
        int32_t result, imageType, depth;
        bool reversed = false;
    } cases[] = {
        {IMG_TYPE_TGA, 8, false, 0, 1, 8}, {IMG_TYPE_TGA, 8, true, 0, 3, 8}, {IMG_TYPE_TGA, 24, false, 0, 2, 24},
        {IMG_TYPE_TGA, 8, true, 0, 3, 8, true},
        {IMG_TYPE_TGA, 4, false, IMG_ERR_DEPTH, 0, 0}, {IMG_TYPE_TGA2, 8, false, IMG_ERR_TYPE, 0, 0},
        {IMG_TYPE_TGA2, 24, false, 0, 2, 15},
    };
    for (auto &c : cases) {
        SCOPED_TRACE("type " + std::to_string(c.type) + ", " + std::to_string(c.bits) + " bits");
        Picture p = MakePicture(29, 9, c.bits, (uint32_t)(c.type + c.bits), c.grey);
        for (int i = 0; c.reversed && i < 256; i++)
            std::fill_n(p.palette.begin() + 4 * i, 3, (uint8_t)(255 - i));
        int32_t n = 0;
        std::vector<uint8_t> file = Saved(p, c.type, &n);
        if (c.result < 0) {
            EXPECT_EQ(n, c.result);
            continue;
        }
        uint32_t map = c.imageType == 1 ? 768 : 0, bpp = c.depth == 8 ? 1 : c.depth == 15 ? 2 : 3;
        ASSERT_EQ(n, (int32_t)(18 + map + 29 * 9 * bpp));
        EXPECT_EQ(file[2], c.imageType);
        EXPECT_EQ(file[16], c.depth);
        EXPECT_EQ(GetLE16(&file[5]), map / 3);
        if (c.depth == 15) { // our reader refuses depth 15; the bottom row's first pixel by hand
            const uint8_t *px = p.rows[8].data();
            EXPECT_EQ(GetLE16(&file[18]), (px[2] >> 3) << 10 | (px[1] >> 3) << 5 | px[0] >> 3);
            continue;
        }
        int32_t status = 0;
        Raster expected = p.Rgb();
        for (uint8_t &v : expected.rgb) v = c.reversed ? (uint8_t)(255 - v) : v;
        EXPECT_EQ(RasterDiff(DecodeMemory(file, &status), expected), 0) << status;
    }
}

} // namespace
