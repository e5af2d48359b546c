// The BMP reader over files built here (depths, row order, 16-bit and
// bit-field pixels, RLE8 and RLE4 escapes, the OS/2 core header) and the
// three BMP writers read back through our reader.
#include "support/support.h"

namespace {
struct Bmp {
    int width, height, bits, compression = 0;
    std::vector<uint8_t> pixels;
    int headerSize = 40;
    std::vector<uint32_t> masks = {};
};
// File header, info (or 12-byte core) header, a grey palette (entry i =
// i * 255 / (colours - 1)), then the pixel bytes as given.
std::vector<uint8_t> Build(const Bmp &b)
{
    int colours = b.bits <= 8 ? 1 << b.bits : 0, entry = b.headerSize == 12 ? 3 : 4;
    uint32_t offBits = 14 + (uint32_t)b.headerSize + (uint32_t)(colours * entry + b.masks.size() * 4);
    std::vector<uint8_t> f(offBits, 0);
    f[0] = 'B', f[1] = 'M';
    PutLE32(&f[2], offBits + (uint32_t)b.pixels.size());
    PutLE32(&f[10], offBits);
    PutLE32(&f[14], (uint32_t)b.headerSize);
    if (b.headerSize == 12) {
        PutLE16(&f[18], (uint16_t)b.width), PutLE16(&f[20], (uint16_t)b.height), PutLE16(&f[22], 1), PutLE16(&f[24], (uint16_t)b.bits);
    } else {
        PutLE32(&f[18], (uint32_t)b.width), PutLE32(&f[22], (uint32_t)b.height), PutLE16(&f[26], 1);
        PutLE16(&f[28], (uint16_t)b.bits), PutLE32(&f[30], (uint32_t)b.compression);
    }
    size_t at = 14 + (size_t)b.headerSize;
    for (uint32_t m : b.masks) PutLE32(&f[at], m), at += 4;
    for (int i = 0; i < colours; i++, at += (size_t)entry)
        f[at] = f[at + 1] = f[at + 2] = (uint8_t)(i * 255 / (colours - 1));
    f.insert(f.end(), b.pixels.begin(), b.pixels.end());
    return f;
}

struct ReadCase {
    const char *name;
    Bmp bmp;
    std::vector<std::vector<int>> grey; // expected grey levels (R = G = B), top row first
    std::vector<std::vector<int>> rgb = {}; // or R, G, B triples per row
};

std::vector<ReadCase> Cases()
{
    auto g4 = [](std::vector<int> v) { for (int &x : v) x *= 17; return v; };
    return {
        {"8-bit bottom-up", {3, 2, 8, 0, {1, 2, 3, 0, 4, 5, 6, 0}}, {{4, 5, 6}, {1, 2, 3}}},
        {"8-bit top-down", {3, -2, 8, 0, {1, 2, 3, 0, 4, 5, 6, 0}}, {{1, 2, 3}, {4, 5, 6}}},
        {"4-bit odd width", {3, 1, 4, 0, {0x1F, 0x70, 0, 0}}, {g4({1, 15, 7})}},
        {"1-bit", {10, 1, 1, 0, {0xA5, 0x40, 0, 0}}, {{255, 0, 255, 0, 0, 255, 0, 255, 0, 255}}},
        {"24-bit B, G, R", {2, 1, 24, 0, {1, 2, 3, 4, 5, 6, 0, 0}}, {}, {{3, 2, 1, 6, 5, 4}}},
        // 5-5-5 widened by a shift: 0x7FFF is F8 F8 F8; 0x1234 is 4, 17, 20 shifted left by 3.
        {"16-bit 555", {2, 1, 16, 0, {0xFF, 0x7F, 0x34, 0x12}}, {}, {{0xF8, 0xF8, 0xF8, 0x20, 0x88, 0xA0}}},
        // Bit fields are read as 5-6-5 whatever the masks say: 0xF800 red, 0x07E0 green.
        {"bit fields 565", {2, 1, 16, 3, {0x00, 0xF8, 0xE0, 0x07}, 40, {0x7C00, 0x03E0, 0x1F}}, {}, {{0xF8, 0, 0, 0, 0xFC, 0}}},
        // RLE8: run 2 of 5; absolute 1 2 3 (padded); run 1 of 9; end of line;
        // absolute 10..13; run 2 of 14; end of bitmap.
        {"RLE8 runs and absolute runs", {6, 2, 8, 1, {2, 5, 0, 3, 1, 2, 3, 0, 1, 9, 0, 0, 0, 4, 10, 11, 12, 13, 2, 14, 0, 1}},
         {{10, 11, 12, 13, 14, 14}, {5, 5, 1, 2, 3, 9}}},
        // RLE8 delta (0, 2) delivers the row twice; the row buffer persists
        // between rows, so later rows start from the earlier bytes.
        {"RLE8 delta", {4, 5, 8, 1, {3, 7, 0, 2, 0, 2, 1, 5, 0, 0, 1, 1, 0, 1}},
         {{0, 0, 0, 0}, {1, 7, 7, 5}, {7, 7, 7, 5}, {7, 7, 7, 0}, {7, 7, 7, 0}}},
        // RLE4: run 5 of A,B; end of line; absolute 1 2 3 over the previous row
        // (an even column sets the whole byte); absolute 1..5; end of bitmap.
        {"RLE4 runs and absolute runs", {6, 3, 4, 2, {5, 0xAB, 0, 0, 0, 3, 0x12, 0x30, 0, 0, 0, 5, 0x12, 0x34, 0x50, 0, 0, 1}},
         {g4({1, 2, 3, 4, 5, 0}), g4({1, 2, 3, 0, 10, 0}), g4({10, 11, 10, 11, 10, 0})}},
        // RLE4 delta (0, 2) delivers the row once and skips a row: the end of
        // bitmap then delivers the persisting buffer two rows up.
        {"RLE4 delta", {2, 4, 4, 2, {2, 0x11, 0, 2, 0, 2, 0, 1}}, {g4({0, 0}), g4({1, 1}), g4({0, 0}), g4({1, 1})}},
        {"core header", {3, 1, 8, 0, {7, 8, 9, 0}, 12}, {{7, 8, 9}}},
    };
}

class BmpFormat : public TrnwTest {};

TEST_F(BmpFormat, ReaderLayouts)
{
    for (const ReadCase &c : Cases()) {
        SCOPED_TRACE(c.name);
        int32_t status = 0;
        Raster r = DecodeMemory(Build(c.bmp), &status);
        ASSERT_GE(status, 0);
        size_t rows = c.rgb.empty() ? c.grey.size() : c.rgb.size();
        ASSERT_EQ(r.height, (int)rows);
        for (size_t y = 0; y < rows; y++) {
            std::vector<int> got(r.rgb.begin() + (long)(y * r.width * 3), r.rgb.begin() + (long)((y + 1) * r.width * 3)), want;
            if (c.rgb.empty())
                for (int g : c.grey[y]) want.insert(want.end(), {g, g, g});
            else
                want = c.rgb[y];
            EXPECT_EQ(got, want) << "row " << y;
        }
    }
}

TEST_F(BmpFormat, DamagedFilesAreRefusedOrBounded)
{
    // A zero width, and RLE streams that never end, must not hang or overrun.
    std::vector<uint8_t> endless;
    for (int i = 0; i < 5000; i++) endless.insert(endless.end(), {0, 2, 0, 0}); // delta (0, 0) forever
    Bmp cases[] = {{0, 2, 8, 0, {1, 2, 3, 4}}, {4, 3, 8, 1, endless}, {4, 3, 4, 2, endless},
                   {4, 3, 8, 1, {0, 2, 0, 9, 0, 1}} /* delta below row 0 */, {4, 2, 8, 1, {0, 200, 1, 2}} /* cut short */};
    for (auto &b : cases) {
        int32_t status = 0;
        Raster r = DecodeMemory(Build(b), &status);
        EXPECT_TRUE(status < 0 || (r.width == b.width && r.height == std::abs(b.height))) << status;
    }
}

// An RLE8 file cut short ends the decode where its data ends: the rows above
// stay index 0 (black).  Read from a file, where a read past the end is empty.
TEST_F(BmpFormat, CutRle8FileEndsWhereItsDataEnds)
{
    std::vector<uint8_t> rle;
    for (int y = 0; y < 300; y++) {
        rle.insert(rle.end(), {0, 100});
        for (int x = 0; x < 100; x++)
            rle.push_back((uint8_t)(1 + (x * 7 + y) % 250));
        rle.insert(rle.end(), {0, 0});
    }
    std::vector<uint8_t> file = Build({100, 300, 8, 1, rle});
    file.resize(15000);
    std::string path = TempPath("cut_rle8.bmp");
    WriteFile(path, file);
    int32_t status = 0;
    Raster r = DecodeFile(path, &status);
    std::remove(path.c_str());
    ASSERT_GE(status, 0);
    EXPECT_EQ(r.rgb[0], 0);                         // the top row: never delivered
    EXPECT_EQ(r.rgb[r.rgb.size() - 300], 1); // the bottom row (coded first): its first pixel
}

TEST_F(BmpFormat, WritersReadBack)
{
    for (int type : {IMG_TYPE_BMP, IMG_TYPE_DIB, IMG_TYPE_BMP_COMPRESSED})
        for (int bits : {1, 4, 8, 24}) {
            SCOPED_TRACE("type " + std::to_string(type) + ", " + std::to_string(bits) + " bits");
            Picture p = MakePicture(300, 9, bits, (uint32_t)(type + bits)); // literals of more than 255
            if (bits == 8) // long runs for RLE8 as well as mixed pixels
                for (int x = 0; x < 20; x++) p.rows[3][(size_t)x] = 7;
            int32_t n = 0;
            std::vector<uint8_t> file = Saved(p, type, &n);
            if (type == IMG_TYPE_BMP_COMPRESSED && (bits == 1 || bits == 24)) {
                EXPECT_EQ(n, IMG_ERR_DEPTH);
                continue;
            }
            ASSERT_GT(n, 0);
            uint32_t palette = bits < 24 ? 4u << bits : 0;
            if (type != IMG_TYPE_DIB) {
                EXPECT_EQ(std::string(file.begin(), file.begin() + 2), "BM");
                EXPECT_EQ(GetLE32(&file[2]), (uint32_t)n);
                EXPECT_EQ(GetLE32(&file[10]), 54 + palette);
                EXPECT_EQ(GetLE32(&file[30]), type == IMG_TYPE_BMP ? 0u : bits == 8 ? 1u : 2u);
            } else {
                EXPECT_EQ((uint32_t)n, 40 + palette + DibStride(300, bits) * 9);
                PutLE32(&file[32], palette / 4); // read back bare, counting its colours
            }
            int32_t status = 0;
            EXPECT_EQ(RasterDiff(DecodeMemory(file, &status), p.Rgb()), 0) << status;
        }
    // RLE8 codes 5 5 7 7 7 1 as runs of two, three and one, then the ends of line and bitmap.
    Picture p = MakePicture(6, 1, 8, 1);
    p.rows[0] = {5, 5, 7, 7, 7, 1, 0, 0};
    std::vector<uint8_t> f = Saved(p, IMG_TYPE_BMP_COMPRESSED);
    EXPECT_EQ(std::vector<uint8_t>(f.end() - 10, f.end()), std::vector<uint8_t>({2, 5, 3, 7, 1, 1, 0, 0, 0, 1}));
}
// The header the reader hands on is normalised: a 40-byte header, one plane,
// the image size of the padded rows, dots per inch, no colour counts.
TEST_F(BmpFormat, ReaderHandsOnANormalisedHeader)
{
    std::vector<uint8_t> file = Build({3, 2, 8, 0, {1, 2, 3, 0, 4, 5, 6, 0}});
    PutLE16(&file[26], 7);  // planes
    PutLE32(&file[34], 0);  // image size
    PutLE32(&file[46], 5);  // colours used
    PutLE32(&file[50], 3);  // colours important
    PutLE32(&file[38], 11811), PutLE32(&file[42], 3780); // pixels per metre: 300 and 96 dpi
    std::array<uint8_t, 40> header = ReaderHeader(file);
    // Size, planes, image size (two rows of 4 bytes), dots per inch, colours used and important.
    EXPECT_EQ(std::vector<uint32_t>({GetLE32(&header[0]), GetLE16(&header[12]), GetLE32(&header[20]), GetLE32(&header[24]),
                                     GetLE32(&header[28]), GetLE32(&header[32]), GetLE32(&header[36])}),
              std::vector<uint32_t>({40, 1, 8, 300, 96, 0, 0}));
}

} // namespace
