// Part 4.2: dithering and colour conversion.  The tables are typed in from
// the Part; every operation is checked against a deliberately naive model
// of the Part's words (one pixel at a time, plain 2-D arrays) on random
// images of every accepted depth, odd widths and 1-pixel images included.
#include "test_support.h"

#include <random>

#include "color/dither.h"
#include "core/contracts.h"

namespace {

// The Bayer table of Part 4.2 as listed (first entry 4: kept).
const int kBayer[64] = {
    4,   128, 32,  160, 8,   136, 40,  168, 192, 64,  224, 96,  200, 72,  232, 104,
    48,  176, 16,  144, 56,  184, 24,  152, 240, 112, 208, 80,  248, 120, 216, 88,
    12,  140, 44,  172, 4,   132, 36,  164, 204, 76,  236, 108, 196, 68,  228, 100,
    60,  188, 28,  156, 52,  180, 20,  148, 252, 124, 220, 92,  244, 116, 212, 84,
};
// The halftone table of Part 4.2 as listed.
const int kHalftone[64] = {
    136, 192, 160, 128, 116, 60,  92,  124, 168, 232, 224, 212, 84,  20,  28,  40,
    200, 248, 244, 180, 52,  4,   8,   72,  152, 184, 216, 148, 100, 68,  36,  104,
    112, 56,  88,  120, 140, 196, 164, 132, 80,  16,  24,  44,  172, 236, 228, 208,
    48,  0,   12,  76,  204, 252, 240, 176, 96,  64,  32,  108, 156, 188, 220, 144,
};

int Threshold(const int *table, int x, int m) { return table[(x & 7) * 8 + (m & 7)]; }

// A copy of an image as it was: header, palette, storage rows.
struct Snapshot {
    int32_t width, height, bits, stride;
    std::vector<uint8_t> palette, rows;
    explicit Snapshot(int32_t handle)
    {
        ImgDescriptor *d = ImgTableGet(handle);
        width = d->width, height = d->height, stride = d->stride;
        bits = ImgDescriptorBits(d);
        palette.assign(d->dib + 40, d->dib + 40 + DibPaletteSize(bits));
        uint32_t off = ImgDescriptorBitsOffset(d);
        rows.assign(d->dib + off, d->dib + off + (size_t)stride * height);
    }
    const uint8_t *Row(int m) const { return rows.data() + (size_t)m * stride; }
    // B, G, R of pixel x of storage row m, as the grey rows read it.
    std::array<int, 3> Bgr(int m, int x) const
    {
        const uint8_t *r = Row(m);
        int index = -1;
        switch (bits) {
        case 1: index = (r[x / 8] >> (7 - x % 8)) & 1; break;
        case 4: index = x % 2 ? r[x / 2] & 15 : r[x / 2] >> 4; break;
        case 8: index = r[x]; break;
        case 16: index = r[2 * x + 1]; break; // the high byte of the value
        case 24: return {r[3 * x], r[3 * x + 1], r[3 * x + 2]};
        default: return {r[4 * x], r[4 * x + 1], r[4 * x + 2]};
        }
        return {palette[4 * index], palette[4 * index + 1], palette[4 * index + 2]};
    }
    int Grey(int m, int x) const
    {
        auto c = Bgr(m, x);
        return (30 * c[2] + 59 * c[1] + 11 * c[0]) / 100;
    }
};

// A random image: random bytes in the rows and the palette.
int32_t RandomImage(std::mt19937 &rng, int32_t w, int32_t h, int bits)
{
    int32_t handle = NewImage(w, h, bits);
    ImgDescriptor *d = ImgTableGet(handle);
    uint32_t off = ImgDescriptorBitsOffset(d);
    for (uint32_t i = 40; i < off + (uint32_t)d->stride * (uint32_t)h; i++)
        d->dib[i] = (uint8_t)rng();
    return handle;
}

// Pixel x of storage row m of the image as it now is (coded rows through
// IMGLOW_get_raster, picture row height - 1 - m).
int PixelOf(int32_t handle, int m, int x)
{
    ImgDescriptor *d = ImgTableGet(handle);
    int bits = ImgDescriptorBits(d);
    std::vector<uint8_t> row((size_t)d->stride);
    EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), d->height - 1 - m, 0), 0);
    switch (bits) {
    case 1: return (row[x / 8] >> (7 - x % 8)) & 1;
    case 4: return x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4;
    case 8: return row[x];
    default: return row[3 * x] | row[3 * x + 1] << 8 | row[3 * x + 2] << 16;
    }
}

std::vector<int> PixelsOf(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    std::vector<int> all;
    for (int m = 0; m < d->height; m++)
        for (int x = 0; x < d->width; x++)
            all.push_back(PixelOf(handle, m, x));
    return all;
}

// The finished 1-bit result as "Finishing a 1-bit result" says.
void ExpectCodedBilevel(int32_t handle, int32_t w, int32_t h)
{
    ImgDescriptor *d = ImgTableGet(handle);
    const BITMAPINFOHEADER *hd = reinterpret_cast<const BITMAPINFOHEADER *>(d->dib);
    EXPECT_EQ(d->codedRows, 1);
    EXPECT_NE(d->rowIndex, nullptr);
    EXPECT_EQ(hd->biBitCount, 1);
    EXPECT_EQ(hd->biCompression, 99u);
    EXPECT_EQ(d->stride, (w + 31) / 32 * 4);
    EXPECT_EQ(hd->biSizeImage, (uint32_t)(d->stride * h));
    EXPECT_GE(d->dibSize, 32768u);
    const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    EXPECT_EQ(std::memcmp(d->dib + 40, bw, 8), 0);
}

struct Shape {
    int32_t w, h;
};
const Shape kShapes[] = {{1, 1}, {1, 7}, {9, 1}, {13, 11}, {17, 6}, {40, 9}};

// Runs `op` and `model` (which gives the expected pixel of storage row m,
// column x from the snapshot) on random images of each depth.
template <typename Op, typename Model>
void AgreeOnRandomImages(std::initializer_list<int> depths, Op op, Model model, int outBits)
{
    std::mt19937 rng(4242);
    for (int bits : depths)
        for (const Shape &s : kShapes) {
            int32_t handle = RandomImage(rng, s.w, s.h, bits);
            Snapshot before(handle);
            std::vector<int> expected = model(before);
            ASSERT_EQ(op(handle), 0) << bits << " bits " << s.w << "x" << s.h;
            EXPECT_EQ(ImgDescriptorBits(ImgTableGet(handle)), outBits);
            if (outBits == 1)
                ExpectCodedBilevel(handle, s.w, s.h);
            EXPECT_EQ(PixelsOf(handle), expected) << bits << " bits " << s.w << "x" << s.h;
            IMG_delete_bitmap(handle);
        }
}

// ---- naive models ----

std::vector<int> OrderedModel(const Snapshot &s, const int *table)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++)
            out.push_back(Threshold(table, x, m) < s.Grey(m, x) ? 1 : 0);
    return out;
}

std::vector<int> StuckiModel(const Snapshot &s)
{
    std::vector<std::vector<int>> v(s.height, std::vector<int>(s.width));
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++)
            v[m][x] = s.Grey(m, x);
    auto add = [&](int m, int x, int e) {
        if (m < s.height && x >= 0 && x < s.width)
            v[m][x] += e;
    };
    std::vector<int> bits((size_t)s.width * s.height);
    for (int m = 0; m < s.height; m++) {
        bool forward = m % 2 == 0;
        for (int k = 0; k < s.width; k++) {
            int x = forward ? k : s.width - 1 - k;
            int e = v[m][x];
            if (v[m][x] > 127) {
                bits[(size_t)m * s.width + x] = 1;
                e = v[m][x] - 255;
            }
            int a = 8 * e / 42, b = 4 * e / 42, c = e / 21, d = e / 42;
            int dir = forward ? 1 : -1;
            add(m, x + dir, a), add(m, x + 2 * dir, b);
            add(m + 1, x - 1, b), add(m + 1, x, a), add(m + 1, x + 1, b);
            add(m + 1, x - 2, c), add(m + 1, x + 2, c);
            add(m + 2, x - 1, c), add(m + 2, x + 1, c), add(m + 2, x, b);
            add(m + 2, x - 2, d), add(m + 2, x + 2, d);
        }
    }
    return bits;
}

std::vector<int> ThresholdModel(const Snapshot &s, int t)
{
    std::vector<int> map(256);
    for (int i = 0; i < 256; i++)
        map[i] = i;
    if (t == -1) {
        std::vector<int> count(256);
        for (int m = 0; m < s.height; m++)
            for (int x = 0; x < s.width; x++)
                count[s.Grey(m, x)]++;
        double total = (double)s.width * s.height, sum = 0;
        for (int i = 0; i < 256; i++) {
            sum += count[i] / total;
            map[i] = (int)(sum * 255.0);
        }
        t = 40;
    }
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++)
            out.push_back(t < map[s.Grey(m, x)] ? 1 : 0);
    return out;
}

// B, G, R, L of the colour row.
std::array<int, 4> Colour(const Snapshot &s, int m, int x)
{
    auto c = s.Bgr(m, x);
    int l = (75 * c[1] + 38 * c[2] + 14 * c[0]) >> 7;
    if (s.bits != 4)
        l = std::max(l - 40, 0);
    return {c[0], c[1], c[2], l};
}

std::vector<int> BayerColourModel(const Snapshot &s)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            auto c = Colour(s, m, x);
            int t = Threshold(kBayer, x, m);
            out.push_back((c[0] > t ? 4 : 0) | (c[1] > t ? 2 : 0) | (c[2] > t ? 1 : 0) |
                          (c[3] > t + 40 ? 8 : 0));
        }
    return out;
}

int FloorShift(int v, int s) { return (int)std::floor(v / (double)(1 << s)); }

std::vector<int> DiffusionColourModel(const Snapshot &s)
{
    // Output row m reads source row m for m < 2, else m + 1 (the last row
    // again past the end).
    std::vector<std::vector<std::array<int, 3>>> v(s.height, std::vector<std::array<int, 3>>(s.width));
    for (int m = 0; m < s.height; m++) {
        int src = m < 2 ? m : std::min(m + 1, s.height - 1);
        for (int x = 0; x < s.width; x++) {
            auto c = s.Bgr(src, x);
            v[m][x] = {c[0], c[1], c[2]};
        }
    }
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            int b = v[m][x][0], g = v[m][x][1], r = v[m][x][2];
            int index = 0;
            if (b > 180)
                index = 4;
            if (g > 180)
                index = b > 180 ? 6 : 2;
            if (r > 180)
                index |= 1;
            if (b > 220 || g > 220 || r >= 221)
                index |= 8;
            int h = index < 8 ? 128 : 255;
            int pal[3] = {index & 4 ? h : 0, index & 2 ? h : 0, index & 1 ? h : 0};
            for (int k = 0; k < 3; k++) {
                int e = v[m][x][k] - pal[k];
                auto add = [&](int mm, int xx, int amount) {
                    if (mm < s.height && xx >= 0 && xx < s.width)
                        v[mm][xx][k] += amount;
                };
                add(m, x + 1, FloorShift(e, 2)), add(m, x + 2, FloorShift(e, 3));
                add(m + 1, x - 2, FloorShift(e, 4)), add(m + 1, x - 1, FloorShift(e, 3));
                add(m + 1, x, FloorShift(e, 2)), add(m + 1, x + 1, FloorShift(e, 3));
                add(m + 1, x + 2, FloorShift(e, 4));
            }
            out.push_back(index);
        }
    return out;
}

std::vector<int> GreyModel(const Snapshot &s)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            auto c = s.Bgr(m, x);
            out.push_back((75 * c[1] + 38 * c[2] + 14 * c[0]) >> 7);
        }
    return out;
}

std::vector<int> Promote8Model(const Snapshot &s)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            const uint8_t *r = s.Row(m);
            switch (s.bits) {
            case 1: out.push_back((r[x / 8] >> (7 - x % 8)) & 1 ? 255 : 0); break;
            case 4: out.push_back(x % 2 ? r[x / 2] & 15 : r[x / 2] >> 4); break;
            case 8: out.push_back(r[x]); break;
            default: out.push_back((r[2 * x] + 1) % 256); break;
            }
        }
    return out;
}

std::vector<int> Promote24Model(const Snapshot &s)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            auto c = s.Bgr(m, x);
            out.push_back(c[0] | c[1] << 8 | c[2] << 16);
        }
    return out;
}

int32_t IMGAPI FailingProgress(int32_t, int32_t) { return -1; }
int progressCalls;
int32_t IMGAPI CountingProgress(int32_t value, int32_t total)
{
    EXPECT_EQ(value, 77);
    EXPECT_GT(total, 0);
    progressCalls++;
    return 0;
}

class Part4_2_Dither : public TrnwTest {
  protected:
    void TearDown() override
    {
        IMG_set_statusbar(0, nullptr, 0);
        IMGLOW_set_dithermode(1);
        TrnwTest::TearDown();
    }
};

} // namespace

// ---- the tables, entry by entry ----

TEST(Part4_2_Tables, BayerTableAsListed)
{
    const uint8_t *t = DitherBayerTable();
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(t[i], kBayer[i]) << "entry " << i;
    EXPECT_EQ(t[0], 4); // the first entry is 4, not 0
    EXPECT_EQ(std::count(t, t + 64, 4), 2);
}

TEST(Part4_2_Tables, HalftoneTableAsListed)
{
    const uint8_t *t = DitherHalftoneTable();
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(t[i], kHalftone[i]) << "entry " << i;
}

// ---- the Part's edge cases ----

TEST_F(Part4_2_Dither, UniformGrey128BayerSetsThresholdsBelow128)
{
    int32_t handle = NewImage(19, 17, 24);
    ImgDescriptor *d = ImgTableGet(handle);
    std::memset(d->dib + 40, 128, (size_t)d->stride * 17);
    ASSERT_EQ(IMG_bayer_mono(handle), 0);
    ExpectCodedBilevel(handle, 19, 17);
    int tileSet = 0;
    for (int m = 0; m < 17; m++)
        for (int x = 0; x < 19; x++) {
            EXPECT_EQ(PixelOf(handle, m, x), Threshold(kBayer, x, m) < 128 ? 1 : 0);
            if (m < 8 && x < 8)
                tileSet += PixelOf(handle, m, x);
        }
    EXPECT_EQ(tileSet, 32); // 32 of each 64-cell tile
}

TEST_F(Part4_2_Dither, AutomaticThresholdUniformImageIsAllWhite)
{
    for (int level : {0, 1, 40, 128, 255}) {
        int32_t handle = NewImage(11, 5, 24);
        ImgDescriptor *d = ImgTableGet(handle);
        std::memset(d->dib + 40, level, (size_t)d->stride * 5);
        ASSERT_EQ(IMG_thresh_mono(handle, -1), 0);
        for (int v : PixelsOf(handle))
            EXPECT_EQ(v, 1) << "level " << level;
        IMG_delete_bitmap(handle);
    }
}

TEST_F(Part4_2_Dither, ColorGrayWhiteIs253)
{
    int32_t handle = NewImage(3, 2, 24);
    ImgDescriptor *d = ImgTableGet(handle);
    std::memset(d->dib + 40, 255, (size_t)d->stride * 2);
    ASSERT_EQ(IMG_color_gray(handle), 0);
    d = ImgTableGet(handle);
    EXPECT_EQ(ImgDescriptorBits(d), 8);
    for (int v : PixelsOf(handle))
        EXPECT_EQ(v, 253); // (75 + 38 + 14) * 255 >> 7 = 32385 >> 7 = 253
    // The "tiff" grey ramp: entry i = (i, i, i).
    for (int i = 0; i < 256; i++)
        for (int k = 0; k < 3; k++)
            EXPECT_EQ(d->dib[40 + 4 * i + k], i);
}

TEST_F(Part4_2_Dither, Promote8SixteenBit00FFIsIndex0)
{
    int32_t handle = NewImage(2, 1, 16);
    ImgDescriptor *d = ImgTableGet(handle);
    uint8_t *row = d->dib + ImgDescriptorBitsOffset(d);
    row[0] = 0xFF, row[1] = 0x00; // pixel value 0x00FF (little-endian)
    row[2] = 0x10, row[3] = 0x00; // 0x0010 -> 0x11
    ASSERT_EQ(IMG_promote_8(handle), 0);
    EXPECT_EQ(PixelOf(handle, 0, 0), 0);
    EXPECT_EQ(PixelOf(handle, 0, 1), 0x11);
    // biCompression 99 in the promoted header: kept.
    EXPECT_EQ(reinterpret_cast<BITMAPINFOHEADER *>(ImgTableGet(handle)->dib)->biCompression, 99u);
}

// ---- every operation against its naive model ----

TEST_F(Part4_2_Dither, BayerMonoAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 16, 24, 32}, IMG_bayer_mono,
                        [](const Snapshot &s) { return OrderedModel(s, kBayer); }, 1);
}

TEST_F(Part4_2_Dither, HalftoneMonoAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 16, 24, 32}, IMG_halftone_mono,
                        [](const Snapshot &s) { return OrderedModel(s, kHalftone); }, 1);
}

TEST_F(Part4_2_Dither, StuckiDiffusionAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 16, 24, 32}, IMG_diffusion_mono, StuckiModel, 1);
}

TEST_F(Part4_2_Dither, FixedThresholdAgreesWithModel)
{
    for (int t : {0, 100, 127, 254, -5, 300})
        AgreeOnRandomImages({4, 8, 16, 24, 32}, [t](int32_t h) { return IMG_thresh_mono(h, t); },
                            [t](const Snapshot &s) { return ThresholdModel(s, t); }, 1);
}

TEST_F(Part4_2_Dither, AutomaticThresholdAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 16, 24, 32}, [](int32_t h) { return IMG_thresh_mono(h, -1); },
                        [](const Snapshot &s) { return ThresholdModel(s, -1); }, 1);
}

TEST_F(Part4_2_Dither, BayerColourAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 24, 32}, IMG_bayer_color, BayerColourModel, 4);
}

TEST_F(Part4_2_Dither, DiffusionColourAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 24, 32}, IMG_diffusion_color, DiffusionColourModel, 4);
}

TEST_F(Part4_2_Dither, ColourDithersGetThePcxPalette)
{
    for (auto op : {IMG_bayer_color, IMG_diffusion_color}) {
        int32_t handle = NewImage(5, 3, 24);
        ASSERT_EQ(op(handle), 0);
        const uint8_t *p = ImgTableGet(handle)->dib + 40;
        for (int i = 0; i < 16; i++) {
            int h = i < 8 ? 128 : 255;
            EXPECT_EQ(p[4 * i], i & 4 ? h : 0);     // blue
            EXPECT_EQ(p[4 * i + 1], i & 2 ? h : 0); // green
            EXPECT_EQ(p[4 * i + 2], i & 1 ? h : 0); // red
        }
        IMG_delete_bitmap(handle);
    }
}

TEST_F(Part4_2_Dither, DiffusionColourNeverUsesSourceRow2)
{
    // Rows 0..3 (storage order) white, black, red, blue: output row 2 comes
    // from source row 3 and row 3 from the last row again, so red appears
    // nowhere.  No component leaves an error (255 - 255, 0 - 0).
    int32_t handle = NewImage(4, 4, 24);
    ImgDescriptor *d = ImgTableGet(handle);
    const uint8_t colours[4][3] = {{255, 255, 255}, {0, 0, 0}, {0, 0, 255}, {255, 0, 0}};
    for (int m = 0; m < 4; m++)
        for (int x = 0; x < 4; x++)
            std::memcpy(d->dib + 40 + m * d->stride + 3 * x, colours[m], 3);
    ASSERT_EQ(IMG_diffusion_color(handle), 0);
    const int expected[4] = {15, 0, 12, 12};
    for (int m = 0; m < 4; m++)
        for (int x = 0; x < 4; x++)
            EXPECT_EQ(PixelOf(handle, m, x), expected[m]) << m << "," << x;
}

TEST_F(Part4_2_Dither, ColorGrayAgreesWithModel)
{
    AgreeOnRandomImages({4, 8, 16, 24, 32}, IMG_color_gray, GreyModel, 8);
}

TEST_F(Part4_2_Dither, Promote8AgreesWithModel)
{
    AgreeOnRandomImages({1, 4, 8, 16}, IMG_promote_8, Promote8Model, 8);
}

TEST_F(Part4_2_Dither, Promote24AgreesWithModel)
{
    AgreeOnRandomImages({1, 4, 8}, IMG_promote_24, Promote24Model, 24);
}

TEST_F(Part4_2_Dither, PromotionsOfCodedRowsDropTheCodedState)
{
    for (int bits : {8, 24}) {
        std::mt19937 rng(7);
        int32_t handle = RandomImage(rng, 21, 9, 1);
        Snapshot before(handle);
        ASSERT_EQ(IMG_dib_to_runs(handle), 0);
        ASSERT_EQ(bits == 8 ? IMG_promote_8(handle) : IMG_promote_24(handle), 0);
        ImgDescriptor *d = ImgTableGet(handle);
        EXPECT_EQ(d->codedRows, 0);
        EXPECT_EQ(d->rowIndex, nullptr);
        const BITMAPINFOHEADER *h = reinterpret_cast<const BITMAPINFOHEADER *>(d->dib);
        EXPECT_EQ(h->biCompression, bits == 8 ? 99u : 0u);
        EXPECT_EQ(PixelsOf(handle), bits == 8 ? Promote8Model(before) : Promote24Model(before));
        if (bits == 8) { // the "tiff" grey ramp: black 0, white 255
            for (int i = 0; i < 256; i++)
                EXPECT_EQ(d->dib[40 + 4 * i], i);
        }
        IMG_delete_bitmap(handle);
    }
}

// ---- failure handling ----

TEST_F(Part4_2_Dither, OneBitSourcesAreRefused)
{
    int32_t handle = NewImage(8, 8, 1);
    uint8_t *dib = ImgTableGet(handle)->dib;
    for (auto op : {IMG_bayer_mono, IMG_halftone_mono, IMG_diffusion_mono, IMG_bayer_color,
                    IMG_diffusion_color, IMG_color_gray})
        EXPECT_EQ(op(handle), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_thresh_mono(handle, 10), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTableGet(handle)->dib, dib);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

TEST_F(Part4_2_Dither, TwentyFourBitPromotionsAreRefused)
{
    int32_t handle = NewImage(8, 8, 24);
    uint8_t *dib = ImgTableGet(handle)->dib;
    EXPECT_EQ(IMG_promote_8(handle), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_promote_24(handle), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTableGet(handle)->dib, dib);
}

TEST_F(Part4_2_Dither, SixteenBitColourDithersAreRefused)
{
    int32_t handle = NewImage(8, 8, 16);
    EXPECT_EQ(IMG_bayer_color(handle), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_diffusion_color(handle), IMG_ERR_TYPE);
}

TEST_F(Part4_2_Dither, ProgressOncePerRowAndANegativeValueKeepsTheOldBitmap)
{
    std::mt19937 rng(3);
    int32_t handle = RandomImage(rng, 10, 6, 24);
    IMG_set_statusbar(77, CountingProgress, 1);
    progressCalls = 0;
    ASSERT_EQ(IMG_diffusion_mono(handle), 0);
    EXPECT_EQ(progressCalls, 6);
    IMG_delete_bitmap(handle);

    for (auto op : {IMG_bayer_mono, IMG_halftone_mono, IMG_diffusion_mono, IMG_bayer_color,
                    IMG_diffusion_color, IMG_color_gray}) {
        handle = RandomImage(rng, 10, 6, 24);
        Snapshot before(handle);
        uint8_t *dib = ImgTableGet(handle)->dib;
        IMG_set_statusbar(0, FailingProgress, 1);
        EXPECT_EQ(op(handle), -1);
        IMG_set_statusbar(0, nullptr, 0);
        EXPECT_EQ(ImgTableGet(handle)->dib, dib);
        EXPECT_EQ(Snapshot(handle).rows, before.rows);
        EXPECT_EQ(ImgTrackedCount(), 0);
        IMG_delete_bitmap(handle);
    }
    // The promotions do not report progress.
    handle = RandomImage(rng, 10, 6, 8);
    IMG_set_statusbar(0, FailingProgress, 1);
    EXPECT_EQ(IMG_promote_24(handle), 0);
}

TEST_F(Part4_2_Dither, AllocationFailureKeepsTheImage)
{
    std::mt19937 rng(5);
    for (int countdown = 0; countdown < 4; countdown++) {
        int32_t handle = RandomImage(rng, 10, 6, 24);
        Snapshot before(handle);
        ImgTestFailAllocations(countdown);
        int result = IMG_bayer_color(handle);
        ImgTestFailAllocations(-1);
        if (result == 0) {
            IMG_delete_bitmap(handle);
            break;
        }
        EXPECT_EQ(result, IMG_ERR_MEMORY);
        EXPECT_EQ(Snapshot(handle).rows, before.rows);
        EXPECT_EQ(ImgTrackedCount(), 0);
        IMG_delete_bitmap(handle);
    }
}

// ---- display-time reduction to 3-3-2 ----

TEST_F(Part4_2_Dither, SetDithermodeStoresAndReturns0)
{
    EXPECT_EQ(DitherMode(), 1); // starts ordered
    EXPECT_EQ(IMGLOW_set_dithermode(2), 0);
    EXPECT_EQ(DitherMode(), 2);
    EXPECT_EQ(IMGLOW_set_dithermode(7), 0);
    EXPECT_EQ(DitherMode(), 7);
}

namespace {

std::vector<int> Ordered332Model(const Snapshot &s, int y0)
{
    std::vector<int> out;
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            auto c = s.Bgr(m, x);
            int d = kBayer[((y0 + m) & 7) * 8 + ((s.width - x) & 7)] >> 3;
            int b = std::max(c[0] - d, 0), g = std::max(c[1] - d, 0), r = std::max(c[2] - d, 0);
            out.push_back((r & 0xE0) | ((g >> 3) & 0x1C) | (b >> 6));
        }
    return out;
}

// Part 4.1's fixed-palette serpentine diffusion, one pixel at a time.
std::vector<int> Diffusion332Model(const Snapshot &s)
{
    std::vector<std::vector<std::array<int, 3>>> v(s.height, std::vector<std::array<int, 3>>(s.width));
    for (int m = 0; m < s.height; m++)
        for (int x = 0; x < s.width; x++) {
            auto c = s.Bgr(m, x);
            v[m][x] = {c[0], c[1], c[2]};
        }
    std::vector<int> out((size_t)s.width * s.height);
    for (int m = 0; m < s.height; m++) {
        int dir = m % 2 ? -1 : 1;
        for (int k = 0; k < s.width; k++) {
            int x = dir > 0 ? k : s.width - 1 - k;
            int c[3];
            for (int j = 0; j < 3; j++)
                c[j] = std::min(std::max(v[m][x][j], 0), 255);
            int index = (c[2] & 0xE0) | ((c[1] & 0xE0) >> 3) | (c[0] >> 6);
            int pal[3] = {(index & 3) * 255 / 3, ((index >> 2) & 7) * 255 / 7, ((index >> 5) & 7) * 255 / 7};
            for (int j = 0; j < 3; j++) {
                int e = v[m][x][j] - pal[j];
                auto add = [&](int mm, int xx, int amount) {
                    if (mm < s.height && xx >= 0 && xx < s.width)
                        v[mm][xx][j] += amount;
                };
                add(m, x + dir, FloorShift(e, 2)), add(m, x + 2 * dir, FloorShift(e, 3));
                add(m + 1, x - 2, FloorShift(e, 4)), add(m + 1, x - 1, FloorShift(e, 3));
                add(m + 1, x, FloorShift(e, 2)), add(m + 1, x + 1, FloorShift(e, 3));
                add(m + 1, x + 2, FloorShift(e, 4));
            }
            out[(size_t)m * s.width + x] = index;
        }
    }
    return out;
}

std::vector<int> CopyPixels(const uint8_t *bitmap, int32_t w, int32_t h)
{
    std::vector<int> out;
    int32_t stride = (w + 3) & ~3;
    for (int m = 0; m < h; m++)
        for (int x = 0; x < w; x++)
            out.push_back(bitmap[40 + 1024 + m * stride + x]);
    return out;
}

} // namespace

TEST_F(Part4_2_Dither, Reduce332AgreesWithModelInBothModes)
{
    std::mt19937 rng(11);
    for (int mode : {1, 2})
        for (int bits : {4, 8, 24, 32})
            for (const Shape &s : kShapes) {
                IMGLOW_set_dithermode(mode);
                int32_t handle = RandomImage(rng, s.w, s.h, bits);
                Snapshot before(handle);
                uint8_t *dib = ImgTableGet(handle)->dib;
                uint8_t *copy = nullptr;
                ASSERT_EQ(DitherReduceTo332(ImgTableGet(handle), 5, &copy), 0);
                EXPECT_EQ(ImgTableGet(handle)->dib, dib); // never replaces the image's bitmap
                const BITMAPINFOHEADER *h = reinterpret_cast<const BITMAPINFOHEADER *>(copy);
                EXPECT_EQ(h->biBitCount, 8);
                EXPECT_EQ(h->biSizeImage, (uint32_t)(((s.w + 3) & ~3) * s.h));
                EXPECT_EQ(copy[40 + 4 * 255], 255); // "332": entry 255 white
                auto expected = mode == 2 ? Diffusion332Model(before) : Ordered332Model(before, 5);
                EXPECT_EQ(CopyPixels(copy, s.w, s.h), expected) << mode << " " << bits << " bits";
                ImgFree(copy);
                IMG_delete_bitmap(handle);
            }
}

TEST_F(Part4_2_Dither, Reduce332OrderedNeverRoundsUp)
{
    // White less the largest d (252 >> 3 = 31) is 224: still index 0xFF? 224
    // keeps red 0xE0, green 224 >> 3 & 0x1C = 0x1C, blue 224 >> 6 = 3.
    uint8_t bgr[3] = {255, 255, 255}, out = 0;
    DitherRow332Ordered(bgr, 1, 7, &out); // row 7, entry (1 - 0) & 7 = 1: 124 >> 3 = 15
    EXPECT_EQ(out, 0xFF);
    uint8_t dark[3] = {10, 10, 10};
    DitherRow332Ordered(dark, 1, 0, &out); // d = 128 >> 3 = 16: all components floor at 0
    EXPECT_EQ(out, 0);
}
