// PCX and DCX: the reader over files built here (plane layouts, run-length
// edges, palettes and the black-and-white rule, bad headers), the writer's
// run-length coding and header fields, and the DCX page table.
#include "support/support.h"

namespace {

struct Pcx {
    int bitsPerPlane, planes, width, height, bytesPerLine;
    std::vector<uint8_t> body;
    std::vector<uint8_t> headerPalette = {}; // red, green, blue triples
    int version = 5, paletteInfo = 1;
    bool greyTail = false; // 768 bytes of grey ramp after a byte that is not the 0x0C marker
    int ymin = 0;
};

std::vector<uint8_t> Build(const Pcx &p)
{
    std::vector<uint8_t> f(128 + p.body.size() + (p.greyTail ? 769 : 0), 0);
    f[0] = 10, f[1] = (uint8_t)p.version, f[2] = 1, f[3] = (uint8_t)p.bitsPerPlane;
    PutLE16(&f[8], (uint16_t)(p.width - 1)), PutLE16(&f[10], (uint16_t)(p.height - 1)), PutLE16(&f[6], (uint16_t)p.ymin);
    std::copy(p.headerPalette.begin(), p.headerPalette.end(), f.begin() + 16);
    f[65] = (uint8_t)p.planes;
    PutLE16(&f[66], (uint16_t)p.bytesPerLine), PutLE16(&f[68], (uint16_t)p.paletteInfo);
    std::copy(p.body.begin(), p.body.end(), f.begin() + 128);
    if (p.greyTail)
        for (size_t i = 0; i < 768; i++)
            f[f.size() - 768 + i] = (uint8_t)(i / 3);
    return f;
}

struct ReadCase {
    const char *name;
    Pcx pcx;
    int32_t status; // the decode's result when negative
    std::vector<std::vector<int>> rgb = {}; // R, G, B per pixel, top row first
};

std::vector<int> Greys(std::vector<int> levels)
{
    std::vector<int> rgb;
    for (int g : levels)
        rgb.insert(rgb.end(), {g, g, g});
    return rgb;
}

std::vector<ReadCase> ReadCases()
{
    const std::vector<uint8_t> ramp16 = [] {
        std::vector<uint8_t> p;
        for (int i = 0; i < 16; i++)
            p.insert(p.end(), {(uint8_t)(i * 17), (uint8_t)(i * 17), (uint8_t)(i * 17)});
        return p;
    }();
    auto g17 = [](std::vector<int> v) { for (int &x : v) x *= 17; return Greys(v); };
    return {
        // A count of 0 consumes its value byte and yields nothing.
        {"zero count", {8, 1, 2, 1, 2, {0xC0, 0x55, 3, 4}, {}, 5, 1, true}, 0, {Greys({3, 4})}},
        // A run past the row's end is cut there, not carried into the next row.
        {"run cut at row end", {8, 1, 2, 2, 2, {0xC3, 7, 5, 6}, {}, 5, 1, true}, 0, {Greys({7, 7}), Greys({5, 6})}},
        {"run beyond twice the row", {8, 1, 1, 1, 1, {0xC3, 7}, {}, 5, 1, true}, IMG_ERR_INVALID},
        {"data ends inside a row", {8, 1, 4, 2, 4, {1, 2, 0xC4}, {}, 5, 1, false}, IMG_ERR_READ},
        // The last 768 bytes are the palette though the marker byte is missing.
        {"tail palette without marker", {8, 1, 3, 1, 3, {9, 0xC2, 200}, {}, 5, 1, true}, 0, {Greys({9, 200, 200})}},
        {"grey palette info", {8, 1, 2, 1, 2, {10, 0xC1, 250}, {}, 5, 2, false}, 0, {Greys({10, 250})}},
        // Four planes of one bit: plane k gives bit k of each pixel.
        {"4 bit planes", {1, 4, 8, 1, 1, {0xC1, 0xF0, 0xC1, 0xCC, 0xAA, 0x01}, ramp16}, 0, {g17({7, 3, 5, 1, 6, 2, 4, 8})}},
        {"3 bit planes", {1, 3, 8, 1, 1, {0xC1, 0xF0, 0xC1, 0xCC, 0xAA}, ramp16}, 0, {g17({7, 3, 5, 1, 6, 2, 4, 0})}},
        {"4 planes of 4 bits read as bits", {4, 4, 8, 1, 1, {0xC1, 0xF0, 0xC1, 0xCC, 0xAA, 0x01}, {}, 5, 2}, 0, {Greys({112, 48, 80, 16, 96, 32, 64, 128})}},
        {"24-bit planes", {8, 3, 2, 1, 2, {10, 20, 30, 40, 50, 60}}, 0, {{10, 30, 50, 20, 40, 60}}},
        // Two colours: white then black is inverted to black then white...
        {"1-bit white, black", {1, 1, 8, 1, 1, {0xC1, 0xF0}, {255, 255, 255, 0, 0, 0}}, 0, {Greys({0, 0, 0, 0, 255, 255, 255, 255})}},
        // ...all black and all white mean black then white...
        {"1-bit black, black", {1, 1, 8, 1, 1, {0xC1, 0xF0}, {0, 0, 0, 0, 0, 0}}, 0, {Greys({255, 255, 255, 255, 0, 0, 0, 0})}},
        {"1-bit white, white", {1, 1, 8, 1, 1, {0xC1, 0xF0}, {255, 255, 255, 255, 255, 255}}, 0, {Greys({255, 255, 255, 255, 0, 0, 0, 0})}},
        // ...and any other pair is kept.
        {"1-bit red, blue", {1, 1, 4, 1, 1, {0xC1, 0xC0}, {255, 0, 0, 0, 0, 255}}, 0, {{0, 0, 255, 0, 0, 255, 255, 0, 0, 255, 0, 0}}},
        {"plane row shorter than the width", {8, 1, 4, 1, 3, {1, 2, 3}}, IMG_ERR_INVALID},
        {"ymax before ymin", {8, 1, 1, 1, 1, {1}, {}, 5, 1, false, 1}, IMG_ERR_INVALID},
        {"two planes of 8 bits", {8, 2, 1, 1, 1, {1, 2}}, IMG_ERR_INVALID},
    };
}

} // namespace

using PcxRead = TrnwTest;

TEST_F(PcxRead, BuiltFilesDecodeAsTheirBytesSay)
{
    for (const ReadCase &c : ReadCases()) {
        SCOPED_TRACE(c.name);
        int32_t status = 0;
        Raster r = DecodeMemory(Build(c.pcx), &status);
        if (c.status < 0) {
            EXPECT_EQ(status, c.status);
            continue;
        }
        ASSERT_GE(status, 0);
        std::vector<uint8_t> expected;
        for (const auto &row : c.rgb)
            expected.insert(expected.end(), row.begin(), row.end());
        EXPECT_EQ(r.rgb, expected);
    }
    int32_t status = 0;
    std::vector<uint8_t> cut = Build({8, 1, 1, 1, 1, {}});
    cut.resize(127);
    DecodeMemory(cut, &status);
    EXPECT_EQ(status, IMG_ERR_OPEN); // a header shorter than 128 bytes
}

// A memory image of unknown size has no end to seek from: the 256-colour
// palette is found behind the coded rows.
TEST_F(PcxRead, UnsizedMemoryImageFindsThePaletteBehindTheRows)
{
    std::vector<uint8_t> file = Build({8, 1, 3, 2, 3, {1, 2, 3, 0xC3, 4}, {}, 5, 1, true});
    file[file.size() - 769] = 0x0C;
    file.resize(file.size() + 12000, 0xEE); // not part of the image; covers a whole read chunk
    int32_t h = IMG_decompress_bitmap_mem(file.data(), 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(ImageRgb(h).rgb, std::vector<uint8_t>({1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4}));
}

using PcxWrite = TrnwTest;

// Runs of up to 63, a lone byte that would read as a count, and the header
// fields of each depth.
TEST_F(PcxWrite, CodesRunsAndFillsTheHeader)
{
    struct {
        std::vector<uint8_t> row, coded;
    } runs[] = {{{0xC5}, {0xC1, 0xC5}},
                {std::vector<uint8_t>(100, 7), {0xFF, 7, 0xE5, 7}},
                {{1, 2, 2, 0xBF}, {1, 0xC2, 2, 0xBF}}};
    for (const auto &c : runs) {
        Picture p = MakePicture((int)c.row.size(), 1, 8, 1);
        std::copy(c.row.begin(), c.row.end(), p.rows[0].begin());
        std::vector<uint8_t> f = Saved(p, IMG_TYPE_PCX);
        ASSERT_EQ(f.size(), 128 + c.coded.size() + 769);
        EXPECT_TRUE(std::equal(c.coded.begin(), c.coded.end(), f.begin() + 128));
        EXPECT_EQ(f[128 + c.coded.size()], 0x0C);
    }
    struct {
        int bits, version, bitsPerPlane, planes, bytesPerLine, paletteInfo;
    } headers[] = {{1, 2, 1, 1, 2, 1}, {4, 2, 1, 4, 2, 1}, {8, 5, 8, 1, 13, 1}, {24, 5, 8, 3, 13, 0}};
    for (const auto &c : headers) {
        SCOPED_TRACE(c.bits);
        TestDib dib(13, 2, c.bits);
        PutLE32(dib.block + 24, 300), PutLE32(dib.block + 28, 150);
        int32_t h = IMG_create_handle_keep(dib.block);
        std::vector<uint8_t> f = SavedImage(h, IMG_TYPE_PCX);
        ASSERT_GT(f.size(), 128u);
        EXPECT_EQ(std::vector<int>({f[0], f[1], f[2], f[3], f[65], GetLE16(&f[66]), GetLE16(&f[68])}),
                  std::vector<int>({10, c.version, 1, c.bitsPerPlane, c.planes, c.bytesPerLine, c.paletteInfo}));
        EXPECT_EQ(std::vector<int>({GetLE16(&f[8]), GetLE16(&f[10]), GetLE16(&f[12]), GetLE16(&f[14])}),
                  std::vector<int>({12, 1, 300, 150}));
        IMG_delete_bitmap_keep(h);
    }
    int32_t wide = 0, wider = 0; // xmax and a plane row's bytes are 16-bit fields
    Saved(MakePicture(65535, 1, 1, 1), IMG_TYPE_PCX, &wide), Saved(MakePicture(65536, 1, 1, 1), IMG_TYPE_PCX, &wider);
    EXPECT_EQ(std::make_pair(wide > 0, wider), std::make_pair(true, IMG_ERR_TYPE));
}

using Dcx = TrnwTest;

// Pages appended one by one: the table's first free entry takes each, every
// page reads back with its own palette, and the table holds 99 pages.
TEST_F(Dcx, PagesAppendToTheTableAndReadBack)
{
    std::string path = TempPath("pages.dcx");
    std::remove(path.c_str());
    std::vector<Picture> pages = {MakePicture(30, 7, 8, 1, true), MakePicture(30, 7, 8, 2),
                                  MakePicture(9, 3, 24, 3)};
    std::vector<uint32_t> ends;
    for (const Picture &p : pages) {
        int32_t h = ImageOf(p);
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_DCX), 0);
        IMG_delete_bitmap(h);
        ends.push_back((uint32_t)ReadFile(path).size());
    }
    std::vector<uint8_t> f = ReadFile(path);
    EXPECT_EQ(GetLE32(&f[0]), 987654321u);
    EXPECT_EQ(std::vector<uint32_t>({GetLE32(&f[4]), GetLE32(&f[8]), GetLE32(&f[12]), GetLE32(&f[16])}),
              std::vector<uint32_t>({404, ends[0], ends[1], 0}));
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 3);
    for (int32_t page = 0; page < 4; page++) {
        SCOPED_TRACE(page);
        int32_t h = IMG_decompress_bitmap_mem_size(f.data(), (uint32_t)f.size(), page);
        if (page == 3) {
            EXPECT_EQ(h, IMG_ERR_PAGE);
            continue;
        }
        ASSERT_GE(h, 0);
        EXPECT_EQ(RasterDiff(ImageRgb(h), pages[(size_t)page].Rgb()), 0);
        IMG_delete_bitmap(h);
    }
    // A page request on a file without the DCX signature.
    std::vector<uint8_t> pcx = Build({8, 1, 1, 1, 1, {1}, {}, 5, 1, true});
    EXPECT_EQ(IMG_decompress_bitmap_mem_size(pcx.data(), (uint32_t)pcx.size(), 1), IMG_ERR_INVALID);

    int32_t tiny = ImageOf(MakePicture(1, 1, 1, 4));
    for (int page = 3; page < 99; page++)
        ASSERT_EQ(IMG_save_bitmap(tiny, path.c_str(), IMG_TYPE_DCX), 0) << page;
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 99);
    EXPECT_EQ(IMG_save_bitmap(tiny, path.c_str(), IMG_TYPE_DCX), IMG_ERR_PAGE);
    IMG_delete_bitmap(tiny);
    std::remove(path.c_str());
}
