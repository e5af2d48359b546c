/*
 * test_tiff_read.cpp - Part 2.3 (the TIFF reader) and the reader half of
 * Part 2.5 (PackBits decoding, the LZW strip loop), on TIFFs built byte by
 * byte here, whose expected decodes follow from the spec's words.
 */
#include "bilevel/tiff_capture.h"

#include <fstream>

#include "color/default_palette.h"
#include "pipeline/detect.h"

namespace {

class Part2_3_TiffReader : public TrnwTest {};
class Part2_5_PackBitsDecoding : public TrnwTest {};
class Part2_5_LzwStripLoop : public TrnwTest {};

std::vector<uint8_t> Ramp(size_t n, int step = 1)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; i++)
        v[i] = (uint8_t)(i * step + 3);
    return v;
}

// An 8-bit grey picture (BlackIsZero) of width x height with the given pixels.
TiffPage GreyPage(const TiffBuilder &b, uint32_t width, uint32_t height, const std::vector<uint8_t> &pixels)
{
    TiffPage page;
    page.entries = BasicEntries(b, width, height, 8, 1, 1);
    page.strips = {pixels};
    return page;
}

std::vector<uint8_t> GreyRow(const TiffCapture &c, int y)
{
    auto it = c.rows.find(y);
    if (it == c.rows.end())
        return {};
    return std::vector<uint8_t>(it->second.begin(), it->second.begin() + c.Width());
}

std::vector<uint8_t> Slice(const std::vector<uint8_t> &v, size_t from, size_t n)
{
    return std::vector<uint8_t>(v.begin() + (long)from, v.begin() + (long)(from + n));
}

TEST_F(Part2_3_TiffReader, Version43StillReads)
{
    for (bool be : {false, true}) {
        TiffBuilder b(be);
        b.version = 43; // read and swapped, never compared with 42
        auto pixels = Ramp(5 * 3);
        auto file = b.Build({GreyPage(b, 5, 3, pixels)});
        TiffCapture c;
        ASSERT_EQ(DecodeTiffMemory(file, c), 1) << (be ? "MM" : "II");
        ASSERT_EQ(c.headerCalls, 1);
        EXPECT_EQ(c.Width(), 5);
        EXPECT_EQ(c.Height(), 3);
        EXPECT_EQ(c.Bits(), 8);
        for (int y = 0; y < 3; y++)
            EXPECT_EQ(GreyRow(c, y), Slice(pixels, 5 * y, 5));
    }
}

TEST_F(Part2_3_TiffReader, NoRowsPerStripReadsAsOneStrip)
{
    TiffBuilder b;
    auto pixels = Ramp(7 * 40, 5);
    auto file = b.Build({GreyPage(b, 7, 40, pixels)}); // no tag 278
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(TiffCurrentInfo()->rowsPerStrip, -2) << "the default";
    ASSERT_EQ(c.rows.size(), 40u);
    for (int y = 0; y < 40; y++)
        EXPECT_EQ(GreyRow(c, y), Slice(pixels, 7 * y, 7));
}

TEST_F(Part2_3_TiffReader, CentimetreResolutionTimes2567Truncated)
{
    TiffBuilder b;
    TiffPage page = GreyPage(b, 2, 2, Ramp(4));
    page.entries.push_back(b.Rational(282, 300, 1));
    page.entries.push_back(b.Rational(283, 600, 2)); // 300 after the division
    page.entries.push_back(b.Short(296, {3}));
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    // 300 x 2.567 = 770.1, truncated: 770 (not 762 of 2.54).
    EXPECT_EQ(GetLE32(c.header.data() + 24), 770u);
    EXPECT_EQ(GetLE32(c.header.data() + 28), 770u);
}

TEST_F(Part2_3_TiffReader, InchResolutionAsRead)
{
    TiffBuilder b;
    TiffPage page = GreyPage(b, 2, 2, Ramp(4));
    page.entries.push_back(b.Rational(282, 400, 2));
    page.entries.push_back(b.Rational(283, 100, 0)); // denominator 0: division skipped
    page.entries.push_back(b.Short(296, {2}));
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GetLE32(c.header.data() + 24), 200u);
    EXPECT_EQ(GetLE32(c.header.data() + 28), 100u);
}

TEST_F(Part2_3_TiffReader, PageTwoOfTwoIsMinus11AndPageOneReadsSecondIfd)
{
    TiffBuilder b;
    auto first = Ramp(4 * 2, 1), second = Ramp(4 * 2, 9);
    auto file = b.Build({GreyPage(b, 4, 2, first), GreyPage(b, 4, 2, second)});
    TiffCapture c0, c1, c2;
    ASSERT_EQ(DecodeTiffMemory(file, c0), 1);
    EXPECT_EQ(GreyRow(c0, 1), Slice(first, 4, 4));
    ASSERT_EQ(DecodeTiffMemory(file, c1, IMG_PAGE_FLAG | 1), 1);
    EXPECT_EQ(GreyRow(c1, 0), Slice(second, 0, 4));
    EXPECT_EQ(GreyRow(c1, 1), Slice(second, 4, 4));
    EXPECT_EQ(DecodeTiffMemory(file, c2, IMG_PAGE_FLAG | 2), IMG_ERR_PAGE);
    EXPECT_EQ(c2.headerCalls, 0);

    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    EXPECT_EQ(TiffCountPages(IMG_MEMORY_HANDLE), 2);
    // Through the library: pages count from 0.
    int32_t image = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 2);
    EXPECT_EQ(image, IMG_ERR_PAGE);
}

TEST_F(Part2_3_TiffReader, NextIfdWithFourEntriesIsTheLastPage)
{
    TiffBuilder b;
    TiffPage second;
    second.entries = {b.Long(256, {4}), b.Long(257, {2}), b.Short(258, {8}), b.Short(262, {1})};
    second.strips = {}; // four entries: below 5
    auto file = b.Build({GreyPage(b, 4, 2, Ramp(8)), second});
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    EXPECT_EQ(TiffCountPages(IMG_MEMORY_HANDLE), 1);
    TiffCapture c;
    EXPECT_EQ(DecodeTiffMemory(file, c, IMG_PAGE_FLAG | 1), IMG_ERR_PAGE);
}

TEST_F(Part2_3_TiffReader, NextIfdOf301EntriesEndsTheChain)
{
    TiffBuilder b;
    TiffPage second = GreyPage(b, 4, 2, Ramp(8));
    while (second.entries.size() + 2 < 301)
        second.entries.push_back(b.Short(40000, {1})); // ignored private tags
    auto file = b.Build({GreyPage(b, 4, 2, Ramp(8)), second});
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    EXPECT_EQ(TiffCountPages(IMG_MEMORY_HANDLE), 1);
}

// The G3 2-D stream of an all-white row of width 8, twice: EOL, tag 1 (1-D)
// and white run 8 (10011); then EOL, tag 0 (2-D) and V0 (1); then RTC.
std::vector<uint8_t> WhiteG3TwoDimensional()
{
    std::string bits = "000000000001" "1" "10011" "000000000001" "0" "1";
    for (int i = 0; i < 6; i++)
        bits += "000000000001" "1";
    while (bits.size() % 8)
        bits += "0";
    std::vector<uint8_t> out;
    for (size_t i = 0; i < bits.size(); i += 8)
        out.push_back((uint8_t)std::stoi(bits.substr(i, 8), nullptr, 2));
    return out;
}

TEST_F(Part2_3_TiffReader, T4Options1IsSubtype17AndDecodesTwoDimensionally)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 8, 2, 1, 3, 0);
    page.entries.push_back(b.Long(292, {1}));
    page.strips = {WhiteG3TwoDimensional()};
    auto file = b.Build({page});
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    EXPECT_EQ(TiffSubtype(IMG_MEMORY_HANDLE, 0), IMG_TYPE_TIFF_G3_2D);
    EXPECT_EQ(IMGLOW_get_filetype_mem_size(file.data(), (uint32_t)file.size()), 17);
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(TiffCurrentInfo()->compression, 45) << "3 with T4Options bit 0 becomes 45";
    EXPECT_EQ(TiffCurrentInfo()->photometric, 1) << "WhiteIsZero XOR 1 for the CCITT decoders";
    ASSERT_EQ(c.rows.size(), 2u);
    // All white: the 1-bit palette is black, white, so every pixel is index 1.
    EXPECT_EQ(c.Rgb(), std::vector<uint8_t>(8 * 2 * 3, 255));
}

TEST_F(Part2_3_TiffReader, Orientation5IsReturnedAs5)
{
    const std::pair<uint32_t, int> cases[] = {{5, 5}, {1, 0}, {6, 90}, {3, 180}, {8, 270}, {2, 2}};
    for (auto [tag, expected] : cases) {
        TiffBuilder b;
        TiffPage page = GreyPage(b, 2, 2, Ramp(4));
        page.entries.push_back(b.Short(274, {tag}));
        auto file = b.Build({page});
        ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
        EXPECT_EQ(TiffOrientation(IMG_MEMORY_HANDLE, 0), expected) << tag;
    }
    TiffBuilder b;
    auto plain = b.Build({GreyPage(b, 2, 2, Ramp(4))});
    ImgSetMemorySourceSized(plain.data(), (uint32_t)plain.size());
    EXPECT_EQ(TiffOrientation(IMG_MEMORY_HANDLE, 0), 0) << "no tag";
}

TEST_F(Part2_3_TiffReader, OrientationQueryByFileName)
{
    TiffBuilder b;
    TiffPage page = GreyPage(b, 2, 2, Ramp(4));
    page.entries.push_back(b.Short(274, {5}));
    auto file = b.Build({page});
    std::string tif = TempPath("orientation.tif"), other = TempPath("orientation.bmp");
    for (const std::string &path : {tif, other}) {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(file.data()), (std::streamsize)file.size());
    }
    EXPECT_EQ(IMGLOW_get_image_orientation(tif.c_str()), 5);
    EXPECT_EQ(IMGLOW_get_image_orientation(other.c_str()), IMG_ERR_TYPE) << "not \".tif\"";
    EXPECT_EQ(IMGLOW_get_image_orientation(TempPath("missing.tif").c_str()), IMG_ERR_OPEN);
    std::remove(tif.c_str());
    std::remove(other.c_str());
}

TEST_F(Part2_3_TiffReader, TiffInsideALargerImageReadsFromBase)
{
    TiffBuilder b;
    auto first = Ramp(6, 2), second = Ramp(6, 11);
    auto file = b.Build({GreyPage(b, 3, 2, first), GreyPage(b, 3, 2, second)}, 100);
    TiffCapture c0, c1;
    ASSERT_EQ(DecodeTiffMemory(file, c0, 100), 1) << "start = the offset";
    EXPECT_EQ(GreyRow(c0, 1), Slice(first, 3, 3));
    ASSERT_EQ(DecodeTiffMemory(file, c1, IMG_PAGE_FLAG | 1, 100), 1) << "base = the position";
    EXPECT_EQ(GreyRow(c1, 1), Slice(second, 3, 3));
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    ImgSeek(IMG_MEMORY_HANDLE, 100, 0);
    EXPECT_EQ(TiffCountPages(IMG_MEMORY_HANDLE), 2);
}

TEST_F(Part2_3_TiffReader, DateTimeAndArtistGoToTheWritersStrings)
{
    TiffBuilder b;
    TiffPage page = GreyPage(b, 2, 2, Ramp(4));
    page.entries.push_back(b.Ascii(306, "2024:01:02 03:04:05"));
    page.entries.push_back(b.Ascii(315, "A. Artist"));
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_STREQ(ImgBitmapNameDate(), "2024:01:02 03:04:05");
    EXPECT_STREQ(ImgBitmapNameText(), "A. Artist");
}

TEST_F(Part2_3_TiffReader, InfoRecordDefaults)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = {b.Long(256, {3}), b.Long(257, {1})};
    page.strips = {{0xF0}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    const TiffInfo *info = TiffCurrentInfo();
    EXPECT_EQ(info->samplesPerPixel, 1);
    EXPECT_EQ(info->bitsPerSample, 1);
    EXPECT_EQ(info->compression, 1);
    EXPECT_EQ(info->photometric, 0);
    EXPECT_EQ(info->fillOrder, 1);
    EXPECT_EQ(info->planarConfig, 1);
    EXPECT_EQ(info->predictor, 1);
    EXPECT_EQ(info->orientation, 0);
    // 1 bit, photometric 0 (WhiteIsZero): 1111 0000 inverted is 0000 1111;
    // the "tiff" 1-bit palette is black, white: black, black, black.
    EXPECT_EQ(c.Bits(), 1);
    EXPECT_EQ(c.Rgb(), std::vector<uint8_t>(9, 0));
}

TEST_F(Part2_3_TiffReader, WhiteIsZeroInvertsByDepth)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 4, 1, 8, 1, 0);
    page.strips = {{0, 1, 200, 255}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 0), (std::vector<uint8_t>{255, 254, 55, 0}));

    TiffPage four;
    four.entries = BasicEntries(b, 4, 1, 4, 1, 0);
    four.strips = {{0x1E, 0x70}};
    auto file4 = b.Build({four});
    TiffCapture c4;
    ASSERT_EQ(DecodeTiffMemory(file4, c4), 1);
    EXPECT_EQ(c4.Bits(), 4);
    EXPECT_EQ(c4.rows[0][0], 0xE1) << "entry i of the table is 255 - i: both nibbles inverted";
    EXPECT_EQ(c4.rows[0][1], 0x8F);
}

TEST_F(Part2_3_TiffReader, RgbBecomesBgrAndPredictor2IsUndone)
{
    TiffBuilder b;
    // Two RGB pixels (10,20,30), (15,27,39) stored with horizontal differencing.
    TiffPage page;
    page.entries = BasicEntries(b, 2, 1, 8, 1, 2, 3);
    page.entries.push_back(b.Short(317, {2}));
    page.strips = {{10, 20, 30, 5, 7, 9}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(c.Bits(), 24);
    EXPECT_EQ(Slice(c.rows[0], 0, 6), (std::vector<uint8_t>{30, 20, 10, 39, 27, 15}));
}

TEST_F(Part2_3_TiffReader, PlanarConfiguration2ThroughTheTemporaryFile)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 2, 2, 8, 1, 2, 3);
    page.entries.push_back(b.Short(284, {2}));
    page.entries.push_back(b.Long(278, {1}));
    // Planes R, G, B, one strip per row each.
    page.strips = {{1, 2}, {3, 4}, {11, 12}, {13, 14}, {21, 22}, {23, 24}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(Slice(c.rows[0], 0, 6), (std::vector<uint8_t>{21, 11, 1, 22, 12, 2}));
    EXPECT_EQ(Slice(c.rows[1], 0, 6), (std::vector<uint8_t>{23, 13, 3, 24, 14, 4}));
}

TEST_F(Part2_3_TiffReader, ColorMapIsThePalette)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 2, 1, 4, 1, 3);
    std::vector<uint32_t> map(48, 0);
    map[1] = 0xFF00;      // red of entry 1
    map[16 + 2] = 0x8000; // green of entry 2
    map[32 + 2] = 0x1234; // blue of entry 2
    page.entries.push_back(b.Short(320, map));
    page.strips = {{0x12}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(c.Rgb(), (std::vector<uint8_t>{0xFF, 0, 0, 0, 0x80, 0x12}));
}

TEST_F(Part2_3_TiffReader, FourOneBitSamplesGetTheDitherPalette)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 2, 1, 1, 1, 5, 4);
    page.strips = {{0x5A}};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(c.Bits(), 4);
    EXPECT_EQ(GetLE32(c.header.data() + 16), 100u) << "photometric 5: compression field 100";
    std::vector<uint8_t> dither(IMG_HEADER_BLOCK_SIZE, 0);
    std::memcpy(dither.data(), c.header.data(), 40);
    BuildDefaultPalette(dither.data(), "dither");
    EXPECT_EQ(0, std::memcmp(dither.data() + 40, c.header.data() + 40, 64));
}

TEST_F(Part2_3_TiffReader, StripAddressingForms)
{
    TiffBuilder b;
    auto pixels = Ramp(3 * 4, 7);
    // SHORT offsets, count 2 (in the value field), and count 4 (an array).
    for (uint32_t rows : {2u, 1u}) {
        TiffPage page;
        page.entries = BasicEntries(b, 3, 4, 8, 1, 1);
        page.entries.push_back(b.Long(278, {rows}));
        for (uint32_t y = 0; y < 4; y += rows)
            page.strips.push_back(Slice(pixels, 3 * y, 3 * rows));
        page.offsetsType = 3;
        for (bool be : {false, true}) {
            TiffBuilder bb(be);
            TiffPage p2 = page;
            p2.entries = BasicEntries(bb, 3, 4, 8, 1, 1);
            p2.entries.push_back(bb.Long(278, {rows}));
            auto file = bb.Build({p2});
            TiffCapture c;
            ASSERT_EQ(DecodeTiffMemory(file, c), 1) << rows << be;
            for (int y = 0; y < 4; y++)
                EXPECT_EQ(GreyRow(c, y), Slice(pixels, 3 * y, 3)) << rows << be << y;
        }
    }
}

TEST_F(Part2_3_TiffReader, TilesReadOneTilePerPage)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = {b.Long(256, {4}), b.Long(257, {2}), b.Short(258, {8}), b.Short(262, {1}),
                    b.Long(322, {2}), b.Long(323, {2})};
    page.strips = {{1, 2, 3, 4}, {5, 6, 7, 8}};
    page.tiles = true;
    auto file = b.Build({page});
    TiffCapture c0, c1;
    ASSERT_EQ(DecodeTiffMemory(file, c0), 1);
    EXPECT_EQ(c0.Width(), 2) << "the tile's size";
    EXPECT_EQ(GreyRow(c0, 1), (std::vector<uint8_t>{3, 4}));
    ASSERT_EQ(DecodeTiffMemory(file, c1, IMG_PAGE_FLAG | 1), 1) << "page 1 is tile 1";
    EXPECT_EQ(GreyRow(c1, 0), (std::vector<uint8_t>{5, 6}));
}

TEST_F(Part2_3_TiffReader, JpegAndOtherCompressionsReturnMinus27)
{
    // Compression 6 needs the JPEG codec of a later issue: -27 until then.
    for (uint32_t compression : {6u, 32010u, 32008u, 7u, 2u + 32768u}) {
        TiffBuilder b;
        TiffPage page;
        page.entries = BasicEntries(b, 2, 2, 8, compression, 1);
        page.strips = {Ramp(4)};
        auto file = b.Build({page});
        TiffCapture c;
        EXPECT_EQ(DecodeTiffMemory(file, c), IMG_ERR_COMPRESSION) << compression;
        // 32010 and 32008 stop before the header sink; unknown ones after it.
        EXPECT_EQ(c.headerCalls, compression == 32010 || compression == 32008 ? 0 : 1) << compression;
    }
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 2, 2, 8, 6, 1);
    page.entries.push_back(b.Long(513, {8}));
    page.strips = {Ramp(4)};
    auto file = b.Build({page});
    TiffCapture c;
    EXPECT_EQ(DecodeTiffMemory(file, c), IMG_ERR_COMPRESSION);
}

TEST_F(Part2_3_TiffReader, HostileHeadersAndCounts)
{
    TiffCapture c;
    std::vector<uint8_t> shortHeader = {'I', 'I', 42, 0, 8, 0, 0};
    EXPECT_EQ(DecodeTiffMemory(shortHeader, c), IMG_ERR_INVALID) << "fewer than 8 bytes";
    std::vector<uint8_t> badOrder = {'I', 'M', 42, 0, 8, 0, 0, 0, 0, 0};
    EXPECT_EQ(DecodeTiffMemory(badOrder, c), IMG_ERR_TYPE);
    std::vector<uint8_t> tooMany = {'I', 'I', 42, 0, 8, 0, 0, 0, 0x27, 0x02}; // 551
    EXPECT_EQ(DecodeTiffMemory(tooMany, c), IMG_ERR_INVALID);
    std::vector<uint8_t> negative = {'I', 'I', 42, 0, 8, 0, 0, 0, 0xFF, 0xFF};
    EXPECT_EQ(DecodeTiffMemory(negative, c), IMG_ERR_INVALID);
    EXPECT_EQ(c.headerCalls, 0);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

TEST_F(Part2_3_TiffReader, HostileStripsNeverOverrun)
{
    TiffBuilder b;
    // Four strips needed, two offsets given: -3 at the third.
    TiffPage page;
    page.entries = BasicEntries(b, 3, 4, 8, 1, 1);
    page.entries.push_back(b.Long(278, {1}));
    page.strips = {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
    page.strips.pop_back();
    std::vector<uint8_t> file = b.Build({page});
    TiffCapture c;
    // Count 2 LONG offsets live in an array: strips 2 and 3 do not exist.
    EXPECT_EQ(DecodeTiffMemory(file, c), IMG_ERR_INVALID);
    EXPECT_EQ(ImgTrackedCount(), 0);

    // An offset distant past the end of a file: -12.
    TiffPage distant;
    distant.entries = BasicEntries(b, 3, 1, 8, 1, 1);
    distant.entries.push_back(b.Long(273, {0x7000000}));
    distant.entries.push_back(b.Long(279, {3}));
    auto distantFile = b.Build({distant});
    std::string path = TempPath("distant.tif");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(distantFile.data()), (std::streamsize)distantFile.size());
    }
    int handle = ImgOpen(path.c_str(), 0);
    ASSERT_GE(handle, 0);
    TiffCapture cf;
    EXPECT_EQ(TiffRead(0, TiffCaptureRow, &cf, TiffCaptureHeader, handle), IMG_ERR_READ);
    ImgClose(handle);
    std::remove(path.c_str());

    // A hostile offsets count: only the strips the picture needs are held.
    TiffPage huge;
    huge.entries = BasicEntries(b, 3, 1, 8, 1, 1);
    TiffTagEntry offsets = b.Long(273, {200, 0});
    offsets.count = 0x7FFFFFFF;
    huge.entries.push_back(offsets);
    auto hugeFile = b.Build({huge});
    hugeFile.resize(260, 9);
    TiffCapture ch;
    EXPECT_EQ(DecodeTiffMemory(hugeFile, ch), 1);
    EXPECT_EQ(GreyRow(ch, 0), (std::vector<uint8_t>{9, 9, 9}));
}

TEST_F(Part2_3_TiffReader, CyclicIfdChainEnds)
{
    TiffBuilder b;
    auto file = b.Build({GreyPage(b, 2, 2, Ramp(4)), GreyPage(b, 2, 2, Ramp(4))});
    // Point the second IFD's next offset back at the first IFD.
    uint32_t first = GetLE32(file.data() + 4);
    uint32_t second = GetLE32(file.data() + first + 2 + 12 * GetLE16(file.data() + first));
    size_t nextOfSecond = second + 2 + 12 * GetLE16(file.data() + second);
    PutLE32(file.data() + nextOfSecond, first);
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    int pages = TiffCountPages(IMG_MEMORY_HANDLE);
    EXPECT_GE(pages, 2);
    EXPECT_LE(pages, 8);
    TiffCapture c;
    EXPECT_EQ(DecodeTiffMemory(file, c, IMG_PAGE_FLAG | 0xFFFF), IMG_ERR_PAGE);
}

TEST_F(Part2_3_TiffReader, ThroughTheLibraryAndPageCount)
{
    TiffBuilder b(true);
    auto second = Ramp(4 * 3, 5);
    auto file = b.Build({GreyPage(b, 2, 2, Ramp(4)), GreyPage(b, 4, 3, second)});
    std::string path = TempPath("pages.tif");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(file.data()), (std::streamsize)file.size());
    }
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 2);
    int file1 = ImgOpen(path.c_str(), 0);
    ASSERT_GE(file1, 0);
    int32_t image = IMG_decompress_bitmap_fd(file1, 0, 1);
    ImgClose(file1);
    ASSERT_GE(image, 0);
    ImgDescriptor *d = ImgTableGet(image);
    ASSERT_NE(d, nullptr);
    const BITMAPINFOHEADER *h = reinterpret_cast<const BITMAPINFOHEADER *>(d->dib);
    EXPECT_EQ(h->biWidth, 4);
    EXPECT_EQ(h->biHeight, 3);
    std::remove(path.c_str());
}

/* ---- Part 2.5: PackBits decoding ---- */

TiffPage PackBitsPage(const TiffBuilder &b, uint32_t width, uint32_t height, std::vector<uint8_t> coded)
{
    TiffPage page;
    page.entries = BasicEntries(b, width, height, 8, 32773, 1);
    page.strips = {coded};
    return page;
}

TEST_F(Part2_5_PackBitsDecoding, Header128RepeatsTheNextByte129Times)
{
    TiffBuilder b;
    auto file = b.Build({PackBitsPage(b, 129, 1, {0x80, 0x55})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 0), std::vector<uint8_t>(129, 0x55));
}

TEST_F(Part2_5_PackBitsDecoding, LiteralAndRepeatPackets)
{
    TiffBuilder b;
    // Row 0: literal 3 (1,2,3) + repeat 3 of 9 (0xFE); row 1: repeat 6 of 4.
    auto file = b.Build({PackBitsPage(b, 6, 2, {0x02, 1, 2, 3, 0xFE, 9, 0xFB, 4})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 0), (std::vector<uint8_t>{1, 2, 3, 9, 9, 9}));
    EXPECT_EQ(GreyRow(c, 1), std::vector<uint8_t>(6, 4));
}

TEST_F(Part2_5_PackBitsDecoding, PacketPastTheRowEndIsDropped)
{
    TiffBuilder b;
    // Row 0 (4 bytes): repeat 6 of 0x11, two bytes too many; row 1 starts
    // with the next packet: literal 4.
    auto file = b.Build({PackBitsPage(b, 4, 2, {0xFB, 0x11, 0x03, 5, 6, 7, 8})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 0), std::vector<uint8_t>(4, 0x11));
    EXPECT_EQ(GreyRow(c, 1), (std::vector<uint8_t>{5, 6, 7, 8}));
}

TEST_F(Part2_5_PackBitsDecoding, ManyStripsAndRefills)
{
    TiffBuilder b;
    // 300 rows of 100 bytes as literal packets of 100 (header 99), 3 rows per
    // strip: the coded data (30300 bytes) crosses several chunks.
    const int width = 100, height = 300;
    TiffPage page;
    page.entries = BasicEntries(b, width, height, 8, 32773, 1);
    page.entries.push_back(b.Long(278, {3}));
    std::vector<uint8_t> pixels;
    for (int y = 0; y < height; y += 3) {
        std::vector<uint8_t> strip;
        for (int r = 0; r < 3; r++) {
            strip.push_back(99);
            for (int x = 0; x < width; x++) {
                uint8_t v = (uint8_t)(x * 3 + (y + r) * 7);
                strip.push_back(v);
                pixels.push_back(v);
            }
        }
        page.strips.push_back(strip);
    }
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    for (int y = 0; y < height; y++)
        ASSERT_EQ(GreyRow(c, y), Slice(pixels, (size_t)width * y, width)) << y;
}

TEST_F(Part2_5_PackBitsDecoding, TruncatedDataInAFileIsAShortRead)
{
    TiffBuilder b;
    // The strip is the file's last bytes: built once to learn where it goes.
    auto build = [&](uint32_t at) {
        TiffPage page;
        page.entries = BasicEntries(b, 8, 4, 8, 32773, 1);
        page.entries.push_back(b.Long(273, {at}));
        page.entries.push_back(b.Long(279, {9}));
        return b.Build({page});
    };
    auto file = build(build(0).size() ? (uint32_t)build(0).size() : 0);
    std::vector<uint8_t> strip = {0x07, 1, 2, 3, 4, 5, 6, 7, 8};
    file.insert(file.end(), strip.begin(), strip.end());
    std::string path = TempPath("packbits_short.tif");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(file.data()), (std::streamsize)file.size());
    }
    int handle = ImgOpen(path.c_str(), 0);
    ASSERT_GE(handle, 0);
    TiffCapture c;
    int result = TiffRead(0, TiffCaptureRow, &c, TiffCaptureHeader, handle);
    ImgClose(handle);
    std::remove(path.c_str());
    // Row 1 finds the file's end: a short read, never an overrun.
    EXPECT_EQ(result, IMG_ERR_READ);
    EXPECT_EQ(GreyRow(c, 0), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(ImgTrackedCount(), 0);
}

/* ---- Part 2.5: the LZW strip loop ---- */

// Codes of 9 bits (no width change in these short streams), MSB first.
std::vector<uint8_t> LzwCodes(const std::vector<int> &codes)
{
    std::vector<uint8_t> out;
    uint32_t accumulator = 0;
    int bits = 0;
    for (int code : codes) {
        accumulator = (accumulator << 9) | (uint32_t)code;
        bits += 9;
        while (bits >= 8) {
            out.push_back((uint8_t)(accumulator >> (bits - 8)));
            bits -= 8;
        }
    }
    if (bits)
        out.push_back((uint8_t)(accumulator << (8 - bits)));
    return out;
}

TiffPage LzwPage(const TiffBuilder &b, uint32_t width, uint32_t height, uint32_t rowsPerStrip,
                 std::vector<std::vector<uint8_t>> strips)
{
    TiffPage page;
    page.entries = BasicEntries(b, width, height, 8, 5, 1);
    page.entries.push_back(b.Long(278, {rowsPerStrip}));
    page.strips = strips;
    return page;
}

TEST_F(Part2_5_LzwStripLoop, StripsDecodeInTurn)
{
    TiffBuilder b;
    auto file = b.Build({LzwPage(b, 2, 3, 2, {LzwCodes({256, 10, 20, 30, 40, 257}), LzwCodes({256, 50, 60, 257})})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 0), (std::vector<uint8_t>{10, 20}));
    EXPECT_EQ(GreyRow(c, 1), (std::vector<uint8_t>{30, 40}));
    EXPECT_EQ(GreyRow(c, 2), (std::vector<uint8_t>{50, 60}));
}

TEST_F(Part2_5_LzwStripLoop, FailingFullStripIsIgnored)
{
    TiffBuilder b;
    // Strip 0 (two rows = rowsPerStrip) starts with 65, not Clear: -3, ignored.
    auto file = b.Build({LzwPage(b, 2, 3, 2, {LzwCodes({65, 66, 257}), LzwCodes({256, 50, 60, 257})})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(GreyRow(c, 2), (std::vector<uint8_t>{50, 60}));
}

TEST_F(Part2_5_LzwStripLoop, FailingShorterLastStripIsReturned)
{
    TiffBuilder b;
    auto file = b.Build({LzwPage(b, 2, 3, 2, {LzwCodes({256, 10, 20, 30, 40, 257}), LzwCodes({65, 257})})});
    TiffCapture c;
    EXPECT_EQ(DecodeTiffMemory(file, c), IMG_ERR_INVALID);
    EXPECT_EQ(GreyRow(c, 1), (std::vector<uint8_t>{30, 40}));
    EXPECT_EQ(ImgTrackedCount(), 0);
}

TEST_F(Part2_5_LzwStripLoop, EarlyEndStillDeliversEveryRowOfTheStrip)
{
    TiffBuilder b;
    // One full strip of 3 rows whose data ends (257) after one row.
    auto file = b.Build({LzwPage(b, 2, 3, 3, {LzwCodes({256, 7, 8, 257})})});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(c.rows.size(), 3u);
    EXPECT_EQ(GreyRow(c, 0), (std::vector<uint8_t>{7, 8}));
}

TEST_F(Part2_5_LzwStripLoop, PlanarStripsFollowOneAnother)
{
    TiffBuilder b;
    TiffPage page;
    page.entries = BasicEntries(b, 2, 1, 8, 5, 2, 3);
    page.entries.push_back(b.Short(284, {2}));
    page.strips = {LzwCodes({256, 1, 2, 257}), LzwCodes({256, 3, 4, 257}), LzwCodes({256, 5, 6, 257})};
    auto file = b.Build({page});
    TiffCapture c;
    ASSERT_EQ(DecodeTiffMemory(file, c), 1);
    EXPECT_EQ(Slice(c.rows[0], 0, 6), (std::vector<uint8_t>{5, 3, 1, 6, 4, 2}));
}

TEST_F(Part2_5_LzwStripLoop, RowSinkFailureEndsTheRead)
{
    TiffBuilder b;
    auto file = b.Build({LzwPage(b, 2, 2, 1, {LzwCodes({256, 1, 2, 257}), LzwCodes({256, 3, 4, 257})})});
    ImgSetMemorySourceSized(file.data(), (uint32_t)file.size());
    TiffCapture c;
    auto refuse = [](const uint8_t *, void *, int, int) { return -18; };
    EXPECT_EQ(TiffRead(0, refuse, &c, TiffCaptureHeader, IMG_MEMORY_HANDLE), -18);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

} // namespace
