// Every reader, fed a file our writer of that format makes (for EPS, a TIFF
// we write as the preview of a DOS EPS file), fails cleanly at each of its
// allocations in turn: -1, no image and no tracked block left
// behind, and once every allocation succeeds the picture itself.
#include "support/support.h"

namespace {

struct ReaderCase {
    const char *name;
    int32_t type;
    int bits;
    bool dosEps = false; // the file wrapped as the TIFF preview of a DOS EPS file
};

const ReaderCase kReaders[] = {
    {"TiffNone4", IMG_TYPE_TIFF, 4},          {"TiffPackBits1", IMG_TYPE_TIFF_PACKBITS, 1},
    {"TiffLzw24", IMG_TYPE_TIFF_LZW, 24},      {"TiffG4", IMG_TYPE_TIFF_G4, 1},
    {"BmpRle8", IMG_TYPE_BMP_COMPRESSED, 8},   {"Pcx4", IMG_TYPE_PCX, 4},
    {"Dcx24", IMG_TYPE_DCX, 24},               {"Cals", IMG_TYPE_CALS, 1},
    {"Tga8", IMG_TYPE_TGA, 8},                 {"EpsTiffPreview8", IMG_TYPE_TIFF_LZW, 8, true},
    {"Xbm", IMG_TYPE_XBM, 1},                  {"Gif4", IMG_TYPE_GIF, 4},
    {"Gif4Interlaced", IMG_TYPE_GIF_INTERLACED, 4},
    {"Png4", IMG_TYPE_PNG, 4},                 {"Png24", IMG_TYPE_PNG, 24},
};

class EveryReader : public TrnwTest, public ::testing::WithParamInterface<ReaderCase> {};

TEST_P(EveryReader, FailsCleanlyAtEachAllocation)
{
    const ReaderCase &c = GetParam();
    Picture p = MakePicture(37, 11, c.bits, 3);
    std::vector<uint8_t> file = Saved(p, c.type);
    ASSERT_FALSE(file.empty());
    if (c.dosEps)
        file = DosEps(file);
    for (int fail = 0; fail < 100; fail++) {
        SCOPED_TRACE(fail);
        ImgTestFailAllocations(fail);
        int32_t h = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 0);
        ImgTestFailAllocations(-1);
        EXPECT_EQ(ImgTrackedCount(), 0);
        if (h >= 0) {
            EXPECT_EQ(RasterDiff(ImageRgb(h), p.Rgb()), 0);
            return;
        }
        ASSERT_EQ(h, IMG_ERR_MEMORY);
        ASSERT_EQ(ImgTableCount(), 0);
    }
    FAIL() << "no decode succeeded";
}

// The header a reader hands on: 40 bytes, the size, one plane, the depth, the padded rows'
// size (CALS counts its rows unpadded).
TEST_P(EveryReader, HandsOnAPlainHeader)
{
    const ReaderCase &c = GetParam();
    std::vector<uint8_t> file = Saved(MakePicture(37, 11, c.bits, 3), c.type);
    if (c.dosEps)
        file = DosEps(file);
    std::array<uint8_t, 40> header = ReaderHeader(file);
    const uint8_t *h = header.data();
    EXPECT_EQ(std::vector<uint32_t>({GetLE32(h), GetLE32(h + 4), GetLE32(h + 8), GetLE16(h + 12), GetLE16(h + 14), GetLE32(h + 20)}),
              std::vector<uint32_t>({40, 37, 11, 1, (uint32_t)c.bits, (uint32_t)(c.type == IMG_TYPE_CALS ? 5 : DibStride(37, c.bits)) * 11}));
}

// Rows come out padded with zeros even in blocks that held other data
// (1-bit rows are run-coded, and expand padded with ones).
TEST_P(EveryReader, PadsRows)
{
    const ReaderCase &c = GetParam();
    std::vector<uint8_t> file = Saved(MakePicture(37, 11, c.bits, 3), c.type);
    if (c.dosEps)
        file = DosEps(file);
    ImgTestFillAllocations(0xA5);
    int32_t h = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 0);
    ImgTestFillAllocations(-1);
    ASSERT_GE(h, 0);
    EXPECT_TRUE(PictureOf(h).PaddedWith(c.bits == 1));
}

INSTANTIATE_TEST_SUITE_P(Formats, EveryReader, ::testing::ValuesIn(kReaders),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
