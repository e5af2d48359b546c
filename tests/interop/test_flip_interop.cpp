/*
 * test_flip_interop.cpp - Part 5.1 against ImageMagick.
 *
 * A picture of each depth (1, 4, 8, 16, 24, 32 bits; 1 bit also as coded
 * rows) is saved with IMG_save_bitmap as a BMP (type 1), flopped or flipped
 * by /usr/bin/convert into another BMP, and that file decoded with
 * IMG_decompress_bitmap.  Our IMG_flip_bitmapx / IMG_flip_bitmapy of the
 * same picture must show the same colours at every pixel.  Colours, not
 * indices, are compared: ImageMagick may reorder a palette.  16-bit pixels
 * (5-5-5) are compared in their top five bits per channel, as ImageMagick
 * scales them and our reader widens them.
 *
 * /usr/bin/convert is used by its full path (a `convert` earlier on PATH may
 * be something else).  The tests skip when it is absent, and always in
 * Windows builds (run under wine).
 */
#include "test_support.h"

#include <random>

namespace {

const char *const kConvert = "/usr/bin/convert";

bool HaveImageMagick()
{
    static int have = -1;
    if (have < 0)
        have = std::system("/usr/bin/convert -version 2>/dev/null | grep -q ImageMagick") == 0;
    return have == 1;
}

bool RunQuiet(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// A picture of random pixels; below 16 bits with a palette of distinct
// colours (black and white at 1 bit).  Pad bytes of 32-bit pixels are 0.
int32_t RandomPicture(int32_t w, int32_t h, int bits, uint32_t seed)
{
    int32_t handle = NewImage(w, h, bits);
    EXPECT_GE(handle, 0);
    if (handle < 0)
        return handle;
    ImgDescriptor *d = ImgTableGet(handle);
    std::mt19937 random(seed);
    uint8_t *palette = d->dib + 40;
    if (bits <= 8 && bits > 1) {
        for (uint32_t i = 0; i < (1u << bits); i++) {
            uint32_t colour = (i * 2654435761u) ^ seed; // distinct in their low bytes
            palette[4 * i] = (uint8_t)i;
            palette[4 * i + 1] = (uint8_t)(colour >> 8);
            palette[4 * i + 2] = (uint8_t)(colour >> 16);
            palette[4 * i + 3] = 0;
        }
    }
    uint8_t *pixels = d->dib + ImgDescriptorBitsOffset(d);
    for (size_t i = 0; i < (size_t)d->stride * (size_t)h; i++)
        pixels[i] = (uint8_t)random();
    if (bits == 32)
        for (size_t i = 3; i < (size_t)d->stride * (size_t)h; i += 4)
            pixels[i] = 0;
    return handle;
}

// The colour of every pixel, top row first, as red, green, blue; 16-bit
// pixels and `fiveBits` pictures keep the top five bits per channel.
std::vector<std::array<uint8_t, 3>> Colours(int32_t handle, bool fiveBits)
{
    int32_t w, h, bits;
    EXPECT_GE(IMG_bitmap_info(handle, &w, &h, &bits), 0);
    std::vector<uint8_t> palette(1024);
    if (bits <= 8) {
        EXPECT_EQ(IMGLOW_get_palette(handle, palette.data()), 0);
    }
    std::vector<std::array<uint8_t, 3>> colours;
    std::vector<uint8_t> row((size_t)ImgTableGet(handle)->stride);
    for (int32_t y = 0; y < h; y++) {
        EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        for (int32_t x = 0; x < w; x++) {
            std::array<uint8_t, 3> rgb{};
            if (bits <= 8) {
                int perByte = 8 / bits;
                int shift = 8 - bits * (x % perByte + 1);
                int index = (row[(size_t)(x / perByte)] >> shift) & ((1 << bits) - 1);
                rgb = {palette[4 * index + 2], palette[4 * index + 1], palette[4 * index]};
            } else if (bits == 16) {
                uint32_t v = row[2 * (size_t)x] | (uint32_t)row[2 * (size_t)x + 1] << 8;
                rgb = {(uint8_t)((v >> 7) & 0xF8), (uint8_t)((v >> 2) & 0xF8), (uint8_t)((v << 3) & 0xF8)};
            } else {
                const uint8_t *p = &row[(size_t)x * (size_t)(bits / 8)];
                rgb = {p[2], p[1], p[0]};
            }
            if (fiveBits)
                for (auto &c : rgb)
                    c &= 0xF8;
            colours.push_back(rgb);
        }
    }
    return colours;
}

class Part5_1_FlipInterop : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools are Linux-only";
#endif
        if (!HaveImageMagick())
            GTEST_SKIP() << "ImageMagick (/usr/bin/convert) not installed";
    }

    // Saves the picture, lets ImageMagick apply `option`, and compares the
    // tool's result with our `flip` of the picture.
    void Compare(int32_t handle, int bits, const std::string &name, const char *option,
                 int32_t(IMGAPI *flip)(int32_t))
    {
        SCOPED_TRACE(name + " " + option);
        std::string source = TempPath("flip_" + name + ".bmp");
        std::string result = TempPath("flip_" + name + std::string(option + 1) + ".bmp");
        std::remove(result.c_str());
        ASSERT_GE(IMG_save_bitmap(handle, source.c_str(), IMG_TYPE_BMP), 0);
        std::string type = bits <= 8 ? " -type Palette" : " -type TrueColor";
        ASSERT_TRUE(RunQuiet(std::string(kConvert) + " '" + source + "' " + option + type + " 'bmp3:" + result + "'"))
            << "convert failed";
        int32_t tool = IMG_decompress_bitmap(result.c_str());
        ASSERT_GE(tool, 0) << "decoding ImageMagick's file";
        ASSERT_EQ(flip(handle), 0);
        int32_t w, h, b, tw, th, tb;
        IMG_bitmap_info(handle, &w, &h, &b);
        IMG_bitmap_info(tool, &tw, &th, &tb);
        ASSERT_EQ(tw, w);
        ASSERT_EQ(th, h);
        auto ours = Colours(handle, bits == 16);
        auto theirs = Colours(tool, bits == 16);
        ASSERT_EQ(ours.size(), theirs.size());
        for (size_t i = 0; i < ours.size(); i++)
            ASSERT_EQ(ours[i], theirs[i]) << "pixel (" << i % (size_t)w << ", " << i / (size_t)w << ")";
        IMG_delete_bitmap(tool);
        std::remove(source.c_str());
        std::remove(result.c_str());
    }
};

TEST_F(Part5_1_FlipInterop, FlipXEqualsImageMagickFlop)
{
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (int32_t w : {1, 13, 64, 77}) {
            int32_t h = RandomPicture(w, 9, bits, (uint32_t)(bits * 100 + w));
            Compare(h, bits, std::to_string(bits) + "_" + std::to_string(w), "-flop", IMG_flip_bitmapx);
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_FlipInterop, FlipYEqualsImageMagickFlip)
{
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (int32_t w : {1, 13, 64, 77}) {
            int32_t h = RandomPicture(w, 9, bits, (uint32_t)(bits * 100 + w + 7));
            Compare(h, bits, std::to_string(bits) + "_" + std::to_string(w), "-flip", IMG_flip_bitmapy);
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_FlipInterop, CodedFlipsEqualImageMagick)
{
    for (int32_t w : {1, 13, 64, 100, 333}) {
        for (int y = 0; y < 2; y++) {
            int32_t h = RandomPicture(w, 11, 1, (uint32_t)(w + y));
            ASSERT_EQ(IMG_dib_to_runs(h), 0);
            Compare(h, 1, "coded_" + std::to_string(w), y ? "-flip" : "-flop", y ? IMG_flip_bitmapy : IMG_flip_bitmapx);
            EXPECT_EQ(ImgTableGet(h)->codedRows, 1);
            IMG_delete_bitmap(h);
        }
    }
}

} // namespace
