// Depth reduction during decode: files written by the BMP writer and decoded
// with IMGLOW_set_decomp_reduction, against a pixel-at-a-time model.
#include "support/support.h"

#include <functional>
#include <random>

namespace {

const int kBayer[64] = {
    4,   128, 32,  160, 8,   136, 40,  168, 192, 64,  224, 96,  200, 72,  232, 104,
    48,  176, 16,  144, 56,  184, 24,  152, 240, 112, 208, 80,  248, 120, 216, 88,
    12,  140, 44,  172, 4,   132, 36,  164, 204, 76,  236, 108, 196, 68,  228, 100,
    60,  188, 28,  156, 52,  180, 20,  148, 252, 124, 220, 92,  244, 116, 212, 84,
};

class DecodeReduction : public TrnwTest {
  protected:
    void TearDown() override
    {
        IMGLOW_set_decomp_reduction(0);
        TrnwTest::TearDown();
    }

    // A random image of `bits` saved as BMP; its top-down B, G, R pixels.
    std::string WriteRandom(int32_t w, int32_t h, int bits,
                            std::vector<std::array<int, 3>> &pixels)
    {
        std::mt19937 rng(99 + bits);
        int32_t handle = NewImage(w, h, bits);
        ImgDescriptor *d = ImgTableGet(handle);
        uint32_t off = ImgDescriptorBitsOffset(d);
        for (uint32_t i = 40; i < off + (uint32_t)d->stride * (uint32_t)h; i++)
            d->dib[i] = (uint8_t)rng();
        for (uint32_t i = 43; i < off; i += 4)
            d->dib[i] = 0;
        pixels.clear();
        for (int y = 0; y < h; y++) {
            const uint8_t *row = d->dib + off + (size_t)(h - 1 - y) * d->stride;
            for (int x = 0; x < w; x++) {
                int index = bits == 4 ? (x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4) : row[x];
                const uint8_t *c = bits == 24 ? row + 3 * x : d->dib + 40 + 4 * index;
                pixels.push_back({c[0], c[1], c[2]});
            }
        }
        std::string path = TempPath("reduce_" + std::to_string(bits) + ".bmp");
        EXPECT_EQ(IMG_save_bitmap(handle, path.c_str(), IMG_TYPE_BMP), 0);
        IMG_delete_bitmap(handle);
        return path;
    }

    static int Pixel(int32_t handle, int y, int x, int bits)
    {
        std::vector<uint8_t> row((size_t)ImgTableGet(handle)->stride);
        EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        return (int)RowPixel(row.data(), x, bits);
    }
};

} // namespace

using Bgr = std::array<int, 3>;

// Each reduction against its model: 8 from 24 bits with the 3-3-2 palette
// (ordered dither, matrix row y & 7, entry (width - x) & 7, entry >> 3 taken
// off each component); 4 from 8 bits with the dither palette (200 for
// entries 0-7, 255 for 8-15; a component above the threshold sets its bit,
// the luminance less 40 above threshold + 40 sets bit 3); 1 from 24 bits,
// run-coded, Bayer on the grey.
TEST_F(DecodeReduction, EachDepthAgainstItsModel)
{
    struct Case {
        int from, to, w, h;
        std::function<Bgr(int)> entry;
        std::function<int(Bgr, int, int, int)> pixel;
    } cases[] = {
        {24, 8, 13, 11, [](int i) { return Bgr{(i & 3) * 255 / 3, ((i >> 2) & 7) * 255 / 7, ((i >> 5) & 7) * 255 / 7}; },
         [](Bgr c, int x, int y, int w) {
             int d = kBayer[(y & 7) * 8 + ((w - x) & 7)] >> 3;
             int b = std::max(c[0] - d, 0), g = std::max(c[1] - d, 0), r = std::max(c[2] - d, 0);
             return (r & 0xE0) | ((g >> 3) & 0x1C) | (b >> 6);
         }},
        {8, 4, 11, 9, [](int i) { int v = i < 8 ? 200 : 255; return Bgr{i & 4 ? v : 0, i & 2 ? v : 0, i & 1 ? v : 0}; },
         [](Bgr c, int x, int y, int) {
             int l = std::max(((75 * c[1] + 38 * c[2] + 14 * c[0]) >> 7) - 40, 0);
             int t = kBayer[(x & 7) * 8 + (y & 7)];
             return (c[0] > t ? 4 : 0) | (c[1] > t ? 2 : 0) | (c[2] > t ? 1 : 0) | (l > t + 40 ? 8 : 0);
         }},
        {24, 1, 21, 10, [](int i) { return Bgr{255 * i, 255 * i, 255 * i}; },
         [](Bgr c, int x, int y, int) { return kBayer[(x & 7) * 8 + (y & 7)] < (30 * c[2] + 59 * c[1] + 11 * c[0]) / 100 ? 1 : 0; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.to) + " from " + std::to_string(c.from));
        std::vector<Bgr> pixels;
        std::string path = WriteRandom(c.w, c.h, c.from, pixels);
        ASSERT_EQ(IMGLOW_set_decomp_reduction(c.to), 0);
        int32_t handle = IMG_decompress_bitmap(path.c_str());
        std::remove(path.c_str());
        ASSERT_GE(handle, 0);
        ImgDescriptor *d = ImgTableGet(handle);
        ASSERT_EQ(ImgDescriptorBits(d), c.to);
        EXPECT_EQ(d->codedRows, c.to == 1 ? 1 : 0);
        for (int i = 0; i < 1 << c.to; i++)
            for (int k = 0; k < 3; k++)
                EXPECT_EQ(d->dib[40 + 4 * i + k], c.entry(i)[(size_t)k]) << "entry " << i;
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++)
                EXPECT_EQ(Pixel(handle, y, x, c.to), c.pixel(pixels[(size_t)(y * c.w + x)], x, y, c.w)) << x << "," << y;
        IMG_delete_bitmap(handle);
    }
    for (int bits : {2, 24})
        EXPECT_EQ(IMGLOW_set_decomp_reduction(bits), IMG_ERR_TYPE) << bits;
    EXPECT_EQ(IMGLOW_set_decomp_reduction(0), 0);
}
