/*
 * test_dither_interop.cpp - Part 4.2 results against ImageMagick.
 *
 * Each operation's result (1-bit run-coded, 4-bit colour, 8-bit grey,
 * promoted) is saved as BMP (IMG_save_bitmap type 1) and read back by
 * ImageMagick's /usr/bin/convert as raw RGB: it must give exactly the
 * colours our image holds, pixel by pixel through our palette.  And
 * IMG_color_gray on a picture made by ImageMagick must give (75 G + 38 R +
 * 14 B) >> 7 of the colours ImageMagick reports for that picture.
 *
 * Skips when /usr/bin/convert is absent and always in Windows builds.
 */
#include "test_support.h"

#include <functional>
#include <random>

namespace {

class Part4_2_DitherInterop : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
#ifdef _WIN32
        GTEST_SKIP() << "interop tools are Linux-only";
#else
        if (std::system("/usr/bin/convert -version 2>/dev/null | grep -q ImageMagick") != 0)
            GTEST_SKIP() << "ImageMagick (/usr/bin/convert) not installed";
#endif
    }
    void TearDown() override
    {
        IMG_set_statusbar(0, nullptr, 0);
        TrnwTest::TearDown();
    }
};

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::vector<uint8_t> bytes;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return bytes;
    int c;
    while ((c = std::fgetc(f)) != EOF)
        bytes.push_back((uint8_t)c);
    std::fclose(f);
    return bytes;
}

// ImageMagick's reading of a file as R, G, B bytes, top row first.
std::vector<uint8_t> ToolRgb(const std::string &path, const std::string &scratch)
{
    std::string cmd = "/usr/bin/convert '" + path + "' -depth 8 'rgb:" + scratch + "'";
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::vector<uint8_t> rgb = ReadFile(scratch);
    std::remove(scratch.c_str());
    return rgb;
}

// Our image's colours as R, G, B bytes, top row first.
std::vector<uint8_t> OurRgb(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    int bits = ImgDescriptorBits(d);
    std::vector<uint8_t> rgb, row((size_t)d->stride);
    for (int y = 0; y < d->height; y++) {
        EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        for (int x = 0; x < d->width; x++) {
            const uint8_t *c;
            switch (bits) {
            case 1: c = d->dib + 40 + 4 * ((row[x / 8] >> (7 - x % 8)) & 1); break;
            case 4: c = d->dib + 40 + 4 * (x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4); break;
            case 8: c = d->dib + 40 + 4 * row[x]; break;
            default: c = row.data() + 3 * x; break;
            }
            rgb.push_back(c[2]), rgb.push_back(c[1]), rgb.push_back(c[0]);
        }
    }
    return rgb;
}

int32_t RandomImage(int32_t w, int32_t h, int bits, uint32_t seed)
{
    std::mt19937 rng(seed);
    int32_t handle = NewImage(w, h, bits);
    ImgDescriptor *d = ImgTableGet(handle);
    uint32_t off = ImgDescriptorBitsOffset(d);
    for (uint32_t i = 40; i < off + (uint32_t)d->stride * (uint32_t)h; i++)
        d->dib[i] = (uint8_t)rng();
    for (uint32_t i = 43; i < off; i += 4)
        d->dib[i] = 0;
    return handle;
}

} // namespace

TEST_F(Part4_2_DitherInterop, SavedResultsReadByImageMagickAsWeHoldThem)
{
    struct Case {
        const char *name;
        int bits;
        std::function<int32_t(int32_t)> op;
        int outBits;
    };
    const Case cases[] = {
        {"bayer_mono", 24, [](int32_t h) { return IMG_bayer_mono(h); }, 1},
        {"halftone_mono", 8, [](int32_t h) { return IMG_halftone_mono(h); }, 1},
        {"diffusion_mono", 24, [](int32_t h) { return IMG_diffusion_mono(h); }, 1},
        {"thresh_auto", 32, [](int32_t h) { return IMG_thresh_mono(h, -1); }, 1},
        {"thresh_100", 4, [](int32_t h) { return IMG_thresh_mono(h, 100); }, 1},
        {"bayer_color", 24, [](int32_t h) { return IMG_bayer_color(h); }, 4},
        {"diffusion_color", 8, [](int32_t h) { return IMG_diffusion_color(h); }, 4},
        {"color_gray", 24, [](int32_t h) { return IMG_color_gray(h); }, 8},
        {"promote_8", 4, [](int32_t h) { return IMG_promote_8(h); }, 8},
        {"promote_24", 8, [](int32_t h) { return IMG_promote_24(h); }, 24},
    };
    uint32_t seed = 1;
    for (const Case &c : cases)
        for (int32_t w : {1, 37, 64}) {
            int32_t h = w == 1 ? 1 : 23;
            int32_t handle = RandomImage(w, h, c.bits, seed++);
            ASSERT_EQ(c.op(handle), 0) << c.name;
            ASSERT_EQ(ImgDescriptorBits(ImgTableGet(handle)), c.outBits) << c.name;
            if (c.outBits == 1) {
                EXPECT_EQ(ImgTableGet(handle)->codedRows, 1);
            }
            std::string path = Part4_2_DitherInterop::TempPath(std::string("dither_") + c.name + ".bmp");
            ASSERT_EQ(IMG_save_bitmap(handle, path.c_str(), IMG_TYPE_BMP), 0) << c.name;
            std::vector<uint8_t> tool = ToolRgb(path, path + ".rgb");
            EXPECT_EQ(tool.size(), (size_t)w * h * 3) << c.name;
            EXPECT_TRUE(tool == OurRgb(handle)) << c.name << " width " << w;
            std::remove(path.c_str());
            IMG_delete_bitmap(handle);
        }
}

TEST_F(Part4_2_DitherInterop, ColorGrayOfAnImageMagickPicture)
{
    std::string path = TempPath("dither_im_picture.bmp");
    std::string cmd = "/usr/bin/convert -size 61x47 gradient:red-yellow \\( -size 61x47 "
                      "gradient:blue-white -rotate 90 \\) -compose multiply -composite -swirl 120 "
                      "-type TrueColor BMP3:'" + path + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::vector<uint8_t> rgb = ToolRgb(path, path + ".rgb");
    ASSERT_EQ(rgb.size(), 61u * 47u * 3u);
    int32_t handle = IMG_decompress_bitmap(path.c_str());
    ASSERT_GE(handle, 0);
    ASSERT_EQ(IMG_color_gray(handle), 0);
    ImgDescriptor *d = ImgTableGet(handle);
    std::vector<uint8_t> row((size_t)d->stride);
    int distinct = 0, previous = -1;
    for (int y = 0; y < 47; y++) {
        ASSERT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        for (int x = 0; x < 61; x++) {
            const uint8_t *c = rgb.data() + 3 * (y * 61 + x);
            int expected = (75 * c[1] + 38 * c[0] + 14 * c[2]) >> 7;
            EXPECT_EQ(row[x], expected) << y << "," << x;
            distinct += expected != previous;
            previous = expected;
        }
    }
    EXPECT_GT(distinct, 100); // a picture, not a flat field
    std::remove(path.c_str());
}
