/*
 * test_rotate_interop.cpp - Part 5.1 quarter turns against ImageMagick.
 *
 * A picture of 1, 4, 8 or 24 bits is saved as BMP (IMG_save_bitmap type 1),
 * turned by ImageMagick's `-rotate 90` / `-rotate 270` (clockwise, as 9000
 * and 27000 are clockwise and counter-clockwise) into a BMP3 file, which we
 * decode (IMG_decompress_bitmap).  Our own turn of the same image must give
 * the same colours pixel by pixel, compared through the palettes (the tool
 * may write another depth or palette order).  The 1-bit picture is also
 * turned held run-coded.
 *
 * The tool is /usr/bin/convert (a `convert` earlier on PATH may be a
 * stand-in), installed by scripts/deps.sh.  The tests skip when it is absent
 * and always in Windows builds.
 */
#include "test_support.h"

#include <random>

namespace {

class Part5_1_RotateInterop : public TrnwTest {
  public:
    static std::string Scratch(const std::string &name) { return TempPath("rotate_" + name); }

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
};

uint32_t GetPixel(const uint8_t *row, int32_t x, int bits)
{
    switch (bits) {
    case 1: return (row[x >> 3] >> (7 - (x & 7))) & 1u;
    case 4: return (x & 1) ? row[x >> 1] & 0x0Fu : (uint32_t)(row[x >> 1] >> 4);
    case 8: return row[x];
    case 24: return row[3 * x] | (uint32_t)row[3 * x + 1] << 8 | (uint32_t)row[3 * x + 2] << 16;
    case 32: return row[4 * x] | (uint32_t)row[4 * x + 1] << 8 | (uint32_t)row[4 * x + 2] << 16;
    default: return row[2 * x] | (uint32_t)row[2 * x + 1] << 8;
    }
}

// The image's colours as 0xRRGGBB, top row first.
struct Colours {
    int32_t width = 0, height = 0;
    std::vector<uint32_t> rgb;
};

Colours ReadColours(int32_t handle)
{
    Colours c;
    int32_t bits = 0;
    if (IMG_bitmap_info(handle, &c.width, &c.height, &bits) < 0)
        return c;
    std::vector<uint8_t> palette(DibPaletteSize(bits));
    if (!palette.empty())
        IMGLOW_get_palette(handle, palette.data());
    std::vector<uint8_t> row((size_t)DibStride((uint32_t)c.width, bits));
    for (int32_t y = 0; y < c.height; y++) {
        EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        for (int32_t x = 0; x < c.width; x++) {
            uint32_t v = GetPixel(row.data(), x, bits);
            if (bits <= 8) {
                const uint8_t *e = palette.data() + 4 * v;
                v = e[0] | (uint32_t)e[1] << 8 | (uint32_t)e[2] << 16; // blue, green, red
            }
            c.rgb.push_back(v);
        }
    }
    return c;
}

// A picture of `bits` with a palette of distinct colours and pixels that
// vary in both directions (so that a mirror or a wrong turn shows).
int32_t MakePicture(int32_t w, int32_t h, int bits, uint32_t seed)
{
    std::mt19937 random(seed);
    TestDib dib(w, h, bits);
    uint32_t entries = DibPaletteSize(bits) / 4;
    for (uint32_t i = 0; i < entries; i++) {
        uint8_t *e = dib.Palette() + 4 * i;
        e[0] = (uint8_t)(i * 37 + 11);
        e[1] = (uint8_t)(i * 91 + 5);
        e[2] = (uint8_t)(255 - i * 13);
        e[3] = 0;
    }
    if (bits == 1) {
        static const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
        std::memcpy(dib.Palette(), bw, 8);
    }
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++) {
            uint8_t *row = dib.Row(y);
            uint32_t v = (uint32_t)random();
            switch (bits) {
            case 1:
                if ((x * 3 + y * y + (v & 3)) % 5 < 2)
                    row[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
                break;
            case 4: row[x >> 1] |= (uint8_t)((v & 15) << ((x & 1) ? 0 : 4)); break;
            case 8: row[x] = (uint8_t)v; break;
            default:
                row[3 * x] = (uint8_t)(x * 5);
                row[3 * x + 1] = (uint8_t)(y * 7);
                row[3 * x + 2] = (uint8_t)v;
                break;
            }
        }
    int32_t handle = IMG_create_handle_keep(dib.block);
    if (handle >= 0) {
        dib.Release();
        ImgTableGet(handle)->callerOwnsDib = 0;
    }
    return handle;
}

// ImageMagick's turn of the image, decoded by us; empty on failure.
Colours MagickTurn(int32_t handle, int degrees, const std::string &name)
{
    std::string in = Part5_1_RotateInterop::Scratch(name + ".bmp");
    std::string out = Part5_1_RotateInterop::Scratch(name + "_im.bmp");
    std::remove(in.c_str());
    std::remove(out.c_str());
    Colours c;
    EXPECT_EQ(IMG_save_bitmap(handle, in.c_str(), 1), 0);
    std::string command = "/usr/bin/convert '" + in + "' -rotate " + std::to_string(degrees) +
                          " 'bmp3:" + out + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        ADD_FAILURE() << "convert failed: " << command;
        return c;
    }
    int32_t turned = IMG_decompress_bitmap(out.c_str());
    EXPECT_GE(turned, 0) << out;
    if (turned >= 0) {
        c = ReadColours(turned);
        IMG_delete_bitmap(turned);
    }
    std::remove(in.c_str());
    std::remove(out.c_str());
    return c;
}

TEST_F(Part5_1_RotateInterop, QuarterTurnsEqualImageMagicksRotate)
{
    for (int bits : {1, 4, 8, 24}) {
        for (auto size : {std::pair<int, int>{37, 23}, {64, 40}}) {
            for (int angle : {9000, 27000}) {
                for (bool coded : {false, true}) {
                    if (coded && bits != 1)
                        continue;
                    std::string name = std::to_string(bits) + "_" + std::to_string(size.first) + "_" +
                                       std::to_string(angle) + (coded ? "_coded" : "");
                    SCOPED_TRACE(name);
                    int32_t h = MakePicture(size.first, size.second, bits, (uint32_t)(bits + angle));
                    ASSERT_GE(h, 0);
                    if (coded) {
                        ASSERT_EQ(IMG_dib_to_runs(h), 0);
                    }
                    Colours tool = MagickTurn(h, angle / 100, name);
                    ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
                    Colours ours = ReadColours(h);
                    ASSERT_EQ(tool.width, size.second);
                    ASSERT_EQ(tool.height, size.first);
                    ASSERT_EQ(ours.width, tool.width);
                    ASSERT_EQ(ours.height, tool.height);
                    EXPECT_TRUE(ours.rgb == tool.rgb);
                    IMG_delete_bitmap(h);
                }
            }
        }
    }
}

} // namespace
