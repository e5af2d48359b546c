// Part 4.2, "Default palettes": BuildDefaultPalette, entry by entry against
// the Part's table.
#include "test_support.h"

#include "color/default_palette.h"
#include "core/contracts.h"

namespace {

struct Block {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(IMG_HEADER_BLOCK_SIZE, 0xEE);
    explicit Block(int bits) { reinterpret_cast<BITMAPINFOHEADER *>(bytes.data())->biBitCount = (uint16_t)bits; }
    // Entry i as (red, green, blue); the block holds B, G, R, 0.
    std::array<int, 3> Rgb(int i) const
    {
        const uint8_t *p = bytes.data() + 40 + 4 * i;
        EXPECT_EQ(p[3], 0) << "entry " << i;
        return {p[2], p[1], p[0]};
    }
    bool Untouched(int i) const { return bytes[40 + 4 * i] == 0xEE; }
};

} // namespace

TEST(Part4_2_DefaultPalette, OneBitIsBlackAndWhiteWhateverTheKind)
{
    for (const char *kind : {"tiff", "332", "dither", "pcx", "other"}) {
        Block b(1);
        EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), kind), 2) << kind;
        EXPECT_EQ(b.Rgb(0), (std::array<int, 3>{0, 0, 0}));
        EXPECT_EQ(b.Rgb(1), (std::array<int, 3>{255, 255, 255}));
        EXPECT_TRUE(b.Untouched(2));
    }
}

TEST(Part4_2_DefaultPalette, TiffIsAGreyRampOfTwoToTheBits)
{
    for (int bits : {4, 8}) {
        Block b(bits);
        int n = 1 << bits, step = 256 / n;
        EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), "tiff"), n);
        for (int i = 0; i < n; i++)
            EXPECT_EQ(b.Rgb(i), (std::array<int, 3>{i * step, i * step, i * step})) << bits << " " << i;
    }
    Block four(4);
    BuildDefaultPalette(four.bytes.data(), "tiff");
    EXPECT_EQ(four.Rgb(15), (std::array<int, 3>{240, 240, 240})); // 15 x 16
    EXPECT_TRUE(four.Untouched(16));
}

TEST(Part4_2_DefaultPalette, TiffAtSixteenBitsHas256Entries)
{
    Block b(16);
    EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), "tiff"), 256);
    EXPECT_EQ(b.Rgb(255), (std::array<int, 3>{255, 255, 255}));
    EXPECT_EQ(b.Rgb(100), (std::array<int, 3>{100, 100, 100}));
}

TEST(Part4_2_DefaultPalette, TiffAtTwentyFourBitsWritesNothing)
{
    Block b(24);
    EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), "tiff"), 0);
    EXPECT_TRUE(b.Untouched(0));
}

TEST(Part4_2_DefaultPalette, Cube332AndTarga)
{
    for (const char *kind : {"332", "targa"}) {
        Block b(8);
        EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), kind), 256);
        EXPECT_EQ(b.Rgb(0), (std::array<int, 3>{0, 0, 0}));
        EXPECT_EQ(b.Rgb(255), (std::array<int, 3>{255, 255, 255}));
        // 0xE0: red 7 -> 255; 0x1C: green 7; 0x03: blue 3.
        EXPECT_EQ(b.Rgb(0xE0), (std::array<int, 3>{255, 0, 0}));
        EXPECT_EQ(b.Rgb(0x1C), (std::array<int, 3>{0, 255, 0}));
        EXPECT_EQ(b.Rgb(0x03), (std::array<int, 3>{0, 0, 255}));
        // 0x49 = 010 010 01: red 2*255/7 = 72, green 72, blue 255/3 = 85.
        EXPECT_EQ(b.Rgb(0x49), (std::array<int, 3>{72, 72, 85}));
    }
}

TEST(Part4_2_DefaultPalette, SixteenColoursForPcxAndAnyOtherText)
{
    for (const char *kind : {"pcx", "", "TIFF", "anything"}) {
        Block b(4);
        EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), kind), 16) << kind;
        EXPECT_EQ(b.Rgb(0), (std::array<int, 3>{0, 0, 0}));
        EXPECT_EQ(b.Rgb(1), (std::array<int, 3>{128, 0, 0}));   // bit 0 red
        EXPECT_EQ(b.Rgb(2), (std::array<int, 3>{0, 128, 0}));   // bit 1 green
        EXPECT_EQ(b.Rgb(4), (std::array<int, 3>{0, 0, 128}));   // bit 2 blue
        EXPECT_EQ(b.Rgb(7), (std::array<int, 3>{128, 128, 128})); // mid grey
        EXPECT_EQ(b.Rgb(8), (std::array<int, 3>{0, 0, 0}));     // black again
        EXPECT_EQ(b.Rgb(9), (std::array<int, 3>{255, 0, 0}));
        EXPECT_EQ(b.Rgb(14), (std::array<int, 3>{0, 255, 255}));
        EXPECT_EQ(b.Rgb(15), (std::array<int, 3>{255, 255, 255}));
        EXPECT_TRUE(b.Untouched(16));
    }
}

TEST(Part4_2_DefaultPalette, DitherUsesTwoHundredForTheLowEight)
{
    Block b(8);
    EXPECT_EQ(BuildDefaultPalette(b.bytes.data(), "dither"), 16);
    EXPECT_EQ(b.Rgb(7), (std::array<int, 3>{200, 200, 200}));
    EXPECT_EQ(b.Rgb(5), (std::array<int, 3>{200, 0, 200}));
    EXPECT_EQ(b.Rgb(13), (std::array<int, 3>{255, 0, 255}));
}
