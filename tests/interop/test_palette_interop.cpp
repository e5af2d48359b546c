/*
 * test_palette_interop.cpp - Part 4.1 against ImageMagick.
 *
 * Each image reduced by IMG_mediancut_color, IMG_popularity_color or
 * IMG_octree_color (4 and 8 bits, from the image or from a colour list) is
 * saved as a BMP (type 1) and decoded by ImageMagick (/usr/bin/convert, to
 * `rgb:`); every pixel must be the palette entry its index names in our
 * bitmap, which proves the header, palette and packing of the result.  The
 * number of distinct colours ImageMagick counts (`%k`) must be within the
 * requested count.  Skips when ImageMagick is absent and in Windows builds.
 */
#include "test_support.h"

#include <fstream>
#include <iterator>
#include <random>

namespace {

const char *const kConvert = "/usr/bin/convert";

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

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ImageMagick's count of distinct colours, or -1.
int MagickColourCount(const std::string &path)
{
    std::string text = path + ".k.txt";
    std::remove(text.c_str());
    std::string command = std::string(kConvert) + " '" + path + "' -format %k info: > '" + text + "' 2>/dev/null";
    if (std::system(command.c_str()) != 0)
        return -1;
    std::vector<uint8_t> bytes = ReadFile(text);
    std::remove(text.c_str());
    return bytes.empty() ? -1 : std::atoi(std::string(bytes.begin(), bytes.end()).c_str());
}

class Part4_1_PaletteInterop : public TrnwTest {
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
};

// A picture with gradients, a disc and noise, 24 or 32 bits (or 8 bits with a
// random palette).
int32_t Picture(std::mt19937 &rng, int32_t w, int32_t h, int bits)
{
    int32_t handle = NewImage(w, h, bits);
    ImgDescriptor *d = ImgTableGet(handle);
    uint8_t *pixels = d->dib + ImgDescriptorBitsOffset(d);
    for (uint32_t i = 0; i < DibPaletteSize(bits); i++)
        d->dib[40 + i] = (uint8_t)rng();
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++) {
            uint8_t *p = pixels + (size_t)y * d->stride + (size_t)x * (bits / 8);
            if (bits == 8) {
                p[0] = (uint8_t)rng();
                continue;
            }
            int dx = x - w / 2, dy = y - h / 3;
            bool disc = dx * dx + dy * dy < w * h / 8;
            p[0] = (uint8_t)(disc ? 200 : x * 255 / w);
            p[1] = (uint8_t)(y * 255 / h + (int)(rng() % 7));
            p[2] = (uint8_t)(disc ? 40 : (x + y) * 2 + (int)(rng() % 9));
        }
    return handle;
}

// The RGB of each pixel as our palette and indices say, top row first.
std::vector<uint8_t> ExpectedRgb(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    int bits = ImgDescriptorBits(d);
    const uint8_t *palette = d->dib + 40;
    const uint8_t *pixels = d->dib + ImgDescriptorBitsOffset(d);
    std::vector<uint8_t> rgb;
    for (int32_t r = 0; r < d->height; r++) {
        const uint8_t *row = pixels + (size_t)(d->height - 1 - r) * d->stride;
        for (int32_t x = 0; x < d->width; x++) {
            int index = bits == 8 ? row[x] : (x % 2 == 0 ? row[x / 2] >> 4 : row[x / 2] & 15);
            rgb.push_back(palette[4 * index + 2]);
            rgb.push_back(palette[4 * index + 1]);
            rgb.push_back(palette[4 * index]);
        }
    }
    return rgb;
}

struct Reduction {
    const char *name;
    int sourceBits;
    int outBits;
    int32_t requested; // the most colours the result may hold
    int32_t (*run)(int32_t handle);
};

const uint8_t kList[6 * 4] = {0, 0, 0, 0, 255, 255, 255, 0, 0, 0, 255, 0,
                              0, 255, 0, 0, 255, 0, 0, 0, 90, 160, 30, 0};

const Reduction kReductions[] = {
    {"fixed 24", 24, 8, 256, [](int32_t h) { return IMG_mediancut_color(h); }},
    {"fixed 8", 8, 8, 256, [](int32_t h) { return IMG_mediancut_color(h); }},
    {"popularity 24", 24, 8, 256, [](int32_t h) { return IMG_popularity_color(h); }},
    {"popularity 32", 32, 8, 256, [](int32_t h) { return IMG_popularity_color(h); }},
    {"octree 16 in 4 bits", 24, 4, 16, [](int32_t h) { return IMG_octree_color(h, 4, nullptr, 16); }},
    {"octree 8 in 4 bits", 32, 4, 8, [](int32_t h) { return IMG_octree_color(h, 4, nullptr, 3); }},
    {"octree 64", 24, 8, 64, [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 64); }},
    {"octree 256 from 8 bits", 8, 8, 256, [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 256); }},
    {"octree from a list", 24, 8, 6, [](int32_t h) { return IMG_octree_color(h, 8, kList, 6); }},
    {"octree from a list, 4 bits", 24, 4, 6, [](int32_t h) { return IMG_octree_color(h, 4, kList, 6); }},
};

TEST_F(Part4_1_PaletteInterop, SavedBmpDecodesToOurPaletteAndIndices)
{
    std::mt19937 rng(451);
    const std::pair<int32_t, int32_t> sizes[] = {{1, 1}, {37, 23}, {160, 90}};
    for (const Reduction &r : kReductions)
        for (auto [w, h] : sizes) {
            std::string what = std::string(r.name) + " " + std::to_string(w) + "x" + std::to_string(h);
            int32_t handle = Picture(rng, w, h, r.sourceBits);
            int32_t result = r.run(handle);
            ASSERT_GE(result, 0) << what;
            ASSERT_EQ(ImgDescriptorBits(ImgTableGet(handle)), r.outBits) << what;
            std::string path = TempPath("palette_" + std::to_string(&r - kReductions) + "_" +
                                        std::to_string(w) + ".bmp");
            ASSERT_EQ(IMG_save_bitmap(handle, path.c_str(), IMG_TYPE_BMP), 0) << what;
            std::string raw = path + ".rgb";
            std::remove(raw.c_str());
            ASSERT_TRUE(RunQuiet(std::string(kConvert) + " '" + path + "' -depth 8 'rgb:" + raw + "'"))
                << what;
            EXPECT_EQ(ReadFile(raw), ExpectedRgb(handle)) << what;
            int counted = MagickColourCount(path);
            EXPECT_GE(counted, 1) << what;
            EXPECT_LE(counted, r.requested) << what;
            if (std::string(r.name).rfind("octree", 0) == 0) {
                EXPECT_LE(counted, result) << what; // no more colours than entries made
            }
            std::remove(raw.c_str());
            std::remove(path.c_str());
            IMG_delete_bitmap(handle);
        }
}

} // namespace
