// Palette selection, dithers, promotions and the default palettes, checked
// against properties shown here: exact pixels of tiny pictures from the
// documented arithmetic, colour counts, and colours that must survive.
#include "support/support.h"

#include <functional>
#include <set>

namespace {
using Rgb = std::array<int, 3>;

// A 24-bit (or 32-bit) image whose pixel (x, y) (top row 0) is f(x, y).
int32_t Image24(int w, int h, const std::function<Rgb(int, int)> &f, int bits = 24)
{
    Picture p;
    p.width = w, p.height = h, p.bits = bits;
    p.rows.assign(h, std::vector<uint8_t>(DibStride((uint32_t)w, bits), 0));
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            Rgb c = f(x, y);
            for (int k = 0; k < 3; k++) p.rows[(size_t)y][(size_t)(bits / 8 * x + k)] = (uint8_t)c[(size_t)(2 - k)];
        }
    return ImageOf(p);
}
Rgb At(const Raster &r, int x, int y)
{
    const uint8_t *p = &r.rgb[(size_t)(y * r.width + x) * 3];
    return {p[0], p[1], p[2]};
}
std::set<Rgb> Colours(const Raster &r)
{
    std::set<Rgb> s;
    for (size_t i = 0; i < r.rgb.size(); i += 3) s.insert({r.rgb[i], r.rgb[i + 1], r.rgb[i + 2]});
    return s;
}
int Bits(int32_t h) { return PictureOf(h).bits; }

class Colour : public TrnwTest {};

TEST_F(Colour, MonoDithersOfUniformGreys)
{
    // Grey g = (30 R + 59 G + 11 B) / 100; a pixel is white when the
    // threshold is below g: black everywhere at 0, white everywhere at 255.
    // The 8 x 8 Bayer matrix spreads 64 thresholds 4 apart from 0, so a
    // uniform 128 whitens exactly 32 of each 64 pixels.
    struct { const char *name; std::function<int32_t(int32_t)> op; int whiteAt128; } ops[] = {
        {"bayer", IMG_bayer_mono, 32 * 4}, {"halftone", IMG_halftone_mono, -1},
        {"diffusion", IMG_diffusion_mono, -1}, {"threshold 127", [](int32_t h) { return IMG_thresh_mono(h, 127); }, 256},
        {"threshold 128", [](int32_t h) { return IMG_thresh_mono(h, 128); }, 0}};
    for (auto &op : ops)
        for (int g : {0, 128, 255}) {
            SCOPED_TRACE(std::string(op.name) + " grey " + std::to_string(g));
            int32_t h = Image24(16, 16, [&](int, int) { return Rgb{g, g, g}; });
            ASSERT_EQ(op.op(h), 0);
            EXPECT_EQ(std::pair(Bits(h), ImgTableGet(h)->codedRows), std::pair(1, 1)); // a run-coded page
            Raster r = ImageRgb(h);
            int white = 0;
            for (size_t i = 0; i < r.rgb.size(); i += 3) white += r.rgb[i] == 255;
            int expected = g == 0 ? 0 : g == 255 ? 256 : op.whiteAt128;
            if (expected >= 0)
                EXPECT_EQ(white, expected);
            else
                EXPECT_NEAR(white, 128, 24);
            IMG_delete_bitmap(h);
        }
    // The automatic threshold of a uniform picture: every bin's cumulative
    // share reaches 255 at its own level, so all is white.
    int32_t h = Image24(8, 8, [](int, int) { return Rgb{90, 90, 90}; });
    ASSERT_EQ(IMG_thresh_mono(h, -1), 0);
    EXPECT_EQ(Colours(ImageRgb(h)), (std::set<Rgb>{{255, 255, 255}}));
}

TEST_F(Colour, ThresholdUsesTheWeightedGrey)
{
    // (30*200 + 59*100 + 11*0) / 100 = 119: white above threshold 118, black at 119.
    for (int t : {118, 119}) {
        int32_t h = Image24(3, 1, [](int x, int) { return x == 1 ? Rgb{200, 100, 0} : Rgb{0, 0, 0}; });
        ASSERT_EQ(IMG_thresh_mono(h, t), 0);
        EXPECT_EQ(At(ImageRgb(h), 1, 0), (t == 118 ? Rgb{255, 255, 255} : Rgb{0, 0, 0}));
        IMG_delete_bitmap(h);
    }
}

TEST_F(Colour, SixteenBitPixelsDitherThroughTheirHighByte)
{
    // A 16-bit pixel is looked up in the palette by its high byte.
    Picture p;
    p.width = 4, p.height = 1, p.bits = 16;
    for (int i = 0; i < 256; i++) p.palette.insert(p.palette.end(), {(uint8_t)i, (uint8_t)i, (uint8_t)i, 0});
    p.rows = {{0xFF, 0x00, 0x00, 0xFF, 0x00, 0x80, 0x00, 0x7F}};
    int32_t h = ImageOf(p);
    ASSERT_EQ(IMG_thresh_mono(h, 127), 0);
    Raster r = ImageRgb(h);
    EXPECT_EQ((std::vector<int>{r.rgb[0], r.rgb[3], r.rgb[6], r.rgb[9]}), (std::vector<int>{0, 255, 255, 0}));
}

TEST_F(Colour, GreyConversionWeights)
{
    // (75 G + 38 R + 14 B) >> 7: white gives 127 * 255 >> 7 = 253; pure red
    // 38 * 255 >> 7 = 75; green 149; blue 27.
    int32_t h = Image24(4, 1, [](int x, int) {
        return std::vector<Rgb>{{255, 255, 255}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}}[(size_t)x];
    });
    ASSERT_EQ(IMG_color_gray(h), 0);
    ASSERT_EQ(Bits(h), 8);
    Raster r = ImageRgb(h);
    int expected[4] = {253, 75, 149, 27};
    for (int x = 0; x < 4; x++) EXPECT_EQ(At(r, x, 0), (Rgb{expected[x], expected[x], expected[x]})) << x;
}

TEST_F(Colour, PromotionsKeepEveryColour)
{
    for (int bits : {1, 4, 8})
        for (int to : {8, 24}) {
            if (bits == 1 && to == 8) continue; // 1-bit rows become indices 0 and 255
            SCOPED_TRACE(std::to_string(bits) + " to " + std::to_string(to));
            int32_t h = ImageOf(MakePicture(19, 7, bits, 3));
            Raster before = ImageRgb(h);
            ASSERT_EQ(to == 8 ? IMG_promote_8(h) : IMG_promote_24(h), 0);
            EXPECT_EQ(Bits(h), to);
            EXPECT_EQ(RasterDiff(ImageRgb(h), before), 0);
            IMG_delete_bitmap(h);
        }
    int32_t h24 = ImageOf(MakePicture(4, 4, 24, 1)), h1 = ImageOf(MakePicture(9, 4, 1, 1));
    EXPECT_EQ(IMG_promote_24(h24), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_promote_8(h24), IMG_ERR_TYPE);
    for (auto op : {IMG_bayer_mono, IMG_diffusion_mono, IMG_bayer_color, IMG_mediancut_color, IMG_popularity_color})
        EXPECT_LT(op(h1), 0);
    EXPECT_EQ(IMG_promote_8(h1), 0);
    Raster r = ImageRgb(h1);
    for (size_t i = 0; i < r.rgb.size(); i++) ASSERT_TRUE(r.rgb[i] == 0 || r.rgb[i] == 255);
    EXPECT_EQ(IMG_popularity_color(h1), IMG_ERR_TYPE);
}

TEST_F(Colour, ColourDithersOnTheSixteenColourPalette)
{
    // Pure black, white and the full primaries are colours of the palette
    // (intensity 255 for the bright half): the diffusion keeps them, the
    // ordered dither keeps black.
    std::vector<Rgb> pure = {{0, 0, 0}, {255, 255, 255}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}};
    for (auto op : {IMG_bayer_color, IMG_diffusion_color}) {
        int32_t h = Image24(6, 4, [&](int x, int) { return pure[(size_t)x]; });
        ASSERT_EQ(op(h), 0);
        ASSERT_EQ(Bits(h), 4);
        Picture p = PictureOf(h);
        for (int i = 0; i < 16; i++) { // bit 0 red, 1 green, 2 blue, 3 intensity (128 below)
            int level = i < 8 ? 128 : 255;
            EXPECT_EQ(p.palette[(size_t)(4 * i + 2)], (i & 1) ? level : 0) << i;
            EXPECT_EQ(p.palette[(size_t)(4 * i)], (i & 4) ? level : 0) << i;
        }
        Raster r = ImageRgb(h);
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 6; x++) {
                if (x >= 1 && op == IMG_bayer_color) continue; // the ordered dither mixes bright colours
                EXPECT_EQ(At(r, x, y), pure[(size_t)x]) << x << "," << y;
            }
        IMG_delete_bitmap(h);
    }
}

TEST_F(Colour, ColourDiffusionSpreadsTheErrorRightward)
{
    // Grey 150 against the levels 0 and 128: the bottom row, dithered first,
    // takes no error from another row, so each pixel gets 1/4 of the error of
    // its left neighbour and 1/8 of the one before: 150, 187, 182, 170, 198, 188, 173, 200 give
    // black, grey, grey, black, grey, grey, black, grey.
    int32_t h = Image24(8, 3, [](int, int) { return Rgb{150, 150, 150}; });
    ASSERT_EQ(IMG_diffusion_color(h), 0);
    Raster r = ImageRgb(h);
    const int grey[8] = {0, 128, 128, 0, 128, 128, 0, 128};
    for (int x = 0; x < 8; x++)
        EXPECT_EQ(At(r, x, 2), (Rgb{grey[x], grey[x], grey[x]})) << x;
    IMG_delete_bitmap(h);
}

TEST_F(Colour, MedianCutMapsToTheFixedCube)
{
    // The fixed palette is the 3-3-2 cube: entry i = (R 7-5, G 4-2, B 1-0)
    // scaled to 255.  Black and white are entries 0 and 255; a uniform cube
    // colour maps to itself with no error to diffuse.
    int32_t h = Image24(8, 3, [](int x, int y) {
        return y == 0 ? Rgb{0, 0, 0} : y == 1 ? Rgb{255, 255, 255} : Rgb{x < 4 ? 255 : 0, 0, x < 4 ? 0 : 255};
    });
    ASSERT_EQ(IMG_mediancut_color(h), 0);
    Picture p = PictureOf(h);
    ASSERT_EQ(p.bits, 8);
    for (int i = 0; i < 256; i += 37)
        EXPECT_EQ((Rgb{p.palette[(size_t)(4 * i + 2)], p.palette[(size_t)(4 * i + 1)], p.palette[(size_t)(4 * i)]}),
                  (Rgb{(i >> 5) * 255 / 7, ((i >> 2) & 7) * 255 / 7, (i & 3) * 255 / 3}));
    EXPECT_EQ(p.rows[0][3], 0);
    EXPECT_EQ(p.rows[1][3], 255);
    EXPECT_EQ(p.rows[2][1], 0xE0);
    EXPECT_EQ(p.rows[2][6], 0x03);
}

TEST_F(Colour, PopularityAndOctreeKeepFewColours)
{
    // Six colours (none of them white or black): octree at 8 bits and at
    // 4 bits keeps every one exactly; popularity keeps them within its bins.
    std::vector<Rgb> six = {{200, 30, 30}, {30, 200, 30}, {30, 30, 200}, {120, 120, 40}, {40, 120, 120}, {90, 60, 150}};
    auto make = [&](int bits = 24) {
        return Image24(12, 9, [&](int x, int y) { return six[(size_t)((x / 2 + y) % 6)]; }, bits);
    };
    Raster want = ImageRgb(make());
    for (int from : {24, 32})
        for (int bits : {8, 4}) {
            int32_t h = make(from);
            ASSERT_EQ(IMG_octree_color(h, bits, nullptr, 0), 6); // one entry per colour
            EXPECT_EQ(Bits(h), bits);
            EXPECT_EQ(RasterDiff(ImageRgb(h), want), 0) << from << " to " << bits;
        }
    int32_t p = make();
    ASSERT_EQ(IMG_popularity_color(p), 0);
    Raster r = ImageRgb(p);
    EXPECT_EQ(Colours(r).size(), 6u);
    for (size_t i = 0; i < r.rgb.size(); i++) EXPECT_NEAR(r.rgb[i], want.rgb[i], 32) << i;
    // 255 bins twice each fill the palette; a pixel of bin (8,8,8), in nibbles, seen once
    // takes the nearest with equal channel weights: (8,8,10), 2 away, not (9,10,8), sqrt 5.
    std::vector<Rgb> listed = {{128, 128, 160}, {144, 160, 128}};
    for (int bin = 1; listed.size() < 255; bin++) listed.push_back({0, (bin >> 4) * 16, (bin & 15) * 16});
    int32_t rare = Image24(511, 1, [&](int x, int) { return x == 510 ? Rgb{136, 136, 136} : listed[(size_t)x / 2]; });
    ASSERT_EQ(IMG_popularity_color(rare), 0);
    EXPECT_EQ(At(ImageRgb(rare), 510, 0), (Rgb{128, 128, 160}));
    // Octree with three colours asked makes at most eight entries; bad depths are refused.
    int32_t q = Image24(32, 32, [](int x, int y) { return Rgb{x * 8, y * 8, (x ^ y) * 8}; });
    int32_t made = IMG_octree_color(q, 8, nullptr, 3);
    EXPECT_GE(made, 1);
    EXPECT_LE(made, 8);
    EXPECT_LE(Colours(ImageRgb(q)).size(), (size_t)made);
    // A colour halfway between two listed entries maps to the first of them.
    int32_t mid = Image24(1, 1, [](int, int) { return Rgb{100, 0, 0}; });
    const uint8_t two[8] = {0, 0, 0, 0, 0, 0, 200, 0};
    EXPECT_EQ(IMG_octree_color(mid, 8, two, 2), 2);
    EXPECT_EQ(At(ImageRgb(mid), 0, 0), (Rgb{0, 0, 0}));
    int32_t r8 = make();
    EXPECT_LT(IMG_octree_color(r8, 6, nullptr, 0), 0);
    EXPECT_EQ(IMG_octree_color(-1, 8, nullptr, 0), IMG_ERR_HANDLE);
    // 256 colours of distinct top three bits covering all 64 two-bit prefixes
    // need 1 + 8 + 64 + 6 x 256 = 1609 nodes, past the 1600 of the pool: -1,
    // and the image stays as it was.
    int32_t wide = Image24(256, 1, [](int x, int) { return Rgb{(x & 3) << 6 | 9, (x >> 2 & 7) << 5 | 17, x >> 5 << 5 | x * 7 % 32}; });
    Raster before = ImageRgb(wide);
    EXPECT_EQ(IMG_octree_color(wide, 8, nullptr, 256), IMG_ERR_MEMORY);
    EXPECT_EQ(RasterDiff(ImageRgb(wide), before), 0);
}

// Mapping onto a given palette diffuses each error Floyd-Steinberg fashion,
// serpentine, every share truncated toward zero, in storage order (bottom
// row first, left to right, the next row above it right to left): a grey
// ramp onto black and white against that arithmetic done here.
TEST_F(Colour, OctreeMappingDiffusesTheErrorSerpentine)
{
    const int W = 9, H = 4;
    auto grey = [](int x, int y) { return 20 + 25 * x + 9 * y; };
    std::vector<std::vector<int>> v(H + 1, std::vector<int>(W + 2, 0)); // storage rows; a margin column each side
    std::vector<std::vector<int>> expected(H, std::vector<int>(W));
    for (int s = 0; s < H; s++)
        for (int x = 0; x < W; x++)
            v[(size_t)s][(size_t)x + 1] = grey(x, H - 1 - s);
    for (int s = 0; s < H; s++) {
        int step = s % 2 ? -1 : 1;
        for (int n = 0; n < W; n++) {
            int x = step > 0 ? n : W - 1 - n, i = x + 1;
            int c = std::clamp(v[(size_t)s][(size_t)i], 0, 255), error = c - (c >= 128 ? 255 : 0);
            expected[(size_t)(H - 1 - s)][(size_t)x] = c >= 128 ? 255 : 0;
            v[(size_t)s][(size_t)(i + step)] += error * 7 / 16;
            v[(size_t)s + 1][(size_t)(i - step)] += error * 3 / 16;
            v[(size_t)s + 1][(size_t)i] += error * 5 / 16;
            v[(size_t)s + 1][(size_t)(i + step)] += error / 16;
        }
    }
    int32_t h = Image24(W, H, [&](int x, int y) { return Rgb{grey(x, y), grey(x, y), grey(x, y)}; });
    const uint8_t blackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    ASSERT_EQ(IMG_octree_color(h, 8, blackWhite, 2), 2);
    Raster r = ImageRgb(h);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++)
            EXPECT_EQ(At(r, x, y)[0], expected[(size_t)y][(size_t)x]) << x << "," << y;
}

// Pinned output of the octree for this input: a photograph-like picture
// (gradients, a soft disc, grain) whose tree is reduced at several levels
// and whose diffused colours meet missing branches.  The checksums (FNV-1a
// of the palette room and the rows) were taken from the octree before its
// node pool, insertion and mapping were reworked for speed; they pin the
// palette and every pixel, not the arithmetic.
TEST_F(Colour, OctreeOutputOfAPhotographStaysPinned)
{
    auto photo = [](int x, int y) {
        uint32_t h = ((uint32_t)x * 73856093u ^ (uint32_t)y * 19349663u) * 2654435761u;
        int grain = (int)(h >> 20) % 17 - 8, dx = x - 70, dy = y - 45;
        int r = 60 + y + x * x / 200, g = 110 + x * (120 - y) / 100, b = 230 - 2 * y + x / 9 % 7 * 5;
        if (dx * dx + dy * dy < 900) {
            int a = 900 - dx * dx - dy * dy;
            r += a * (240 - r) / 900, g += a * (40 - g) / 900, b += a * (90 - b) / 900;
        }
        return Rgb{std::clamp(r + grain, 0, 255), std::clamp(g + grain, 0, 255), std::clamp(b + grain, 0, 255)};
    };
    struct { int from, bits, count, made; uint64_t checksum; } cases[] = {
        {24, 8, 256, 254, 7715705455224595575u}, {32, 4, 16, 12, 3680804442490876215u},
        {24, 8, 37, 33, 15559734394683504661u}};
    for (auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.bits) + ", " + std::to_string(c.count));
        int32_t h = Image24(160, 120, photo, c.from);
        EXPECT_EQ(IMG_octree_color(h, c.bits, nullptr, c.count), c.made);
        const ImgDescriptor *d = ImgTableGet(h);
        uint64_t sum = 14695981039346656037u;
        for (size_t i = DIB_HEADER_SIZE; i < ImgDescriptorBitsOffset(d) + (size_t)d->stride * (size_t)d->height; i++)
            sum = (sum ^ d->dib[i]) * 1099511628211u;
        EXPECT_EQ(sum, c.checksum);
    }
}

TEST_F(Colour, DefaultPalettes)
{
    // By bit count first, then kind: B, G, R, 0 entries.
    struct { int bits; const char *kind; int count, entry; Rgb colour; } cases[] = {
        {1, "332", 2, 1, {255, 255, 255}}, {4, "tiff", 16, 15, {240, 240, 240}},
        {8, "tiff", 256, 200, {200, 200, 200}}, {16, "tiff", 256, 255, {255, 255, 255}},
        {24, "tiff", 0, 0, {0, 0, 0}}, {8, "332", 256, 0xE3, {255, 0, 255}},
        {8, "targa", 256, 0x49, {72, 72, 85}}, {4, "pcx", 16, 1, {128, 0, 0}},
        {4, "pcx", 16, 14, {0, 255, 255}}, {8, "dither", 16, 6, {0, 200, 200}}, {4, "", 16, 4, {0, 0, 128}}};
    for (auto &c : cases) {
        std::vector<uint8_t> block(IMG_HEADER_BLOCK_SIZE, 0);
        PutLE32(&block[0], 40);
        block[14] = (uint8_t)c.bits;
        EXPECT_EQ(BuildDefaultPalette(block.data(), c.kind), c.count) << c.kind << c.bits;
        const uint8_t *e = &block[40 + 4 * (size_t)c.entry];
        EXPECT_EQ((Rgb{e[2], e[1], e[0]}), c.colour) << c.kind << c.bits;
    }
}
} // namespace
