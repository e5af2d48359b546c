// GIF: the reader over files built here (row order, two tables, code streams
// written bit by bit, pages, transparency, bad files) and the writer's
// header, codes, sub-blocks and table clearing, worked out from the GIF rules.
#include "support/support.h"

#include <optional>

namespace {

using Bytes = std::vector<uint8_t>;

// Codes packed least significant bit first, as GIF packs them.
struct Codes {
    Bytes bytes;
    uint64_t n = 0;
    Codes &Put(uint32_t code, int width)
    {
        for (int i = 0; i < width; i++, n++) {
            if (n % 8 == 0)
                bytes.push_back(0);
            bytes.back() |= (uint8_t)((code >> i & 1) << (n % 8));
        }
        return *this;
    }
};

// A colour of table `salt` (0 global, 1 local): distinct for every index.
std::array<uint8_t, 3> Colour(int i, int salt) { return {(uint8_t)(i * 37 + salt), (uint8_t)(255 - i), (uint8_t)(i * 11 + 3 * salt)}; }

Bytes Shown(const Bytes &pixels, int salt)
{
    Bytes rgb;
    for (uint8_t p : pixels)
        for (uint8_t v : Colour(p, salt))
            rgb.push_back(v);
    return rgb;
}

// The rows of an interlaced image in file order.
std::vector<int> InterlacedOrder(int height)
{
    std::vector<int> order;
    for (auto [start, step] : {std::pair{0, 8}, {4, 8}, {2, 4}, {1, 2}})
        for (int y = start; y < height; y += step)
            order.push_back(y);
    return order;
}

struct Image {
    int width, height;
    Bytes pixels; // top row first, as shown
    bool interlaced = false;
    int localEntries = 0;         // 0: no local table
    int transparent = -1;         // a graphic control extension's index
    uint8_t controlFlags = 1;     // its flags: bit 0 makes the index transparent
    std::optional<Bytes> data{};  // LZW data, else single-pixel codes of the pixels
    int codeSize = 0;             // 0: enough for the tables
};

int SizeBits(int entries) { return entries <= 2 ? 0 : 1 + SizeBits(entries / 2); }

Image Pattern(int width, int height, int entries, bool interlaced = false)
{
    Image im{width, height, Bytes((size_t)width * height), interlaced};
    for (size_t i = 0; i < im.pixels.size(); i++)
        im.pixels[i] = (uint8_t)((i % width * 7 + i / width * 3) % entries);
    return im;
}

// Single-pixel codes only, with a clear code before the decoder's table
// would reach the next width: every code has codeSize + 1 bits.
Bytes RootCodes(const Image &im, int codeSize)
{
    const uint32_t clear = 1u << codeSize;
    Codes c;
    c.Put(clear, codeSize + 1);
    uint32_t run = 0;
    std::vector<int> rows = InterlacedOrder(im.height);
    for (int k = 0; k < im.height; k++)
        for (int x = 0; x < im.width; x++, run++) {
            if (run == clear - 2) // the next code would make entry 2^(codeSize + 1) - 1
                c.Put(clear, codeSize + 1), run = 0;
            c.Put(im.pixels[(size_t)((im.interlaced ? rows[(size_t)k] : k) * im.width + x)], codeSize + 1);
        }
    return c.Put(clear + 1, codeSize + 1).bytes;
}

Bytes Build(int globalEntries, const std::vector<Image> &images, const char *signature = "GIF89a")
{
    Bytes f(signature, signature + 6);
    auto table = [&](int entries, int salt) {
        for (int i = 0; i < entries; i++)
            for (uint8_t v : Colour(i, salt))
                f.push_back(v);
    };
    f.insert(f.end(), {4, 0, 4, 0, (uint8_t)(globalEntries ? 0x80 | SizeBits(globalEntries) : 0), 0, 0});
    table(globalEntries, 0);
    for (const Image &im : images) {
        if (im.transparent >= 0)
            f.insert(f.end(), {0x21, 0xF9, 4, im.controlFlags, 0, 0, (uint8_t)im.transparent, 0});
        uint8_t flags = (uint8_t)((im.localEntries ? 0x80 | SizeBits(im.localEntries) : 0) | (im.interlaced ? 0x40 : 0));
        f.insert(f.end(), {0x2C, 0, 0, 0, 0, (uint8_t)im.width, (uint8_t)(im.width >> 8), (uint8_t)im.height,
                           (uint8_t)(im.height >> 8), flags});
        table(im.localEntries, 1);
        int codeSize = im.codeSize ? im.codeSize : std::max(2, SizeBits(std::max(im.localEntries, globalEntries)) + 1);
        Bytes data = im.data ? *im.data : RootCodes(im, codeSize);
        f.push_back((uint8_t)codeSize);
        for (size_t at = 0; at < data.size(); at += 255) {
            f.push_back((uint8_t)std::min<size_t>(255, data.size() - at));
            f.insert(f.end(), data.begin() + (long)at, data.begin() + (long)std::min(data.size(), at + 255));
        }
        f.push_back(0);
    }
    f.push_back(0x3B);
    return f;
}

} // namespace

using GifReader = TrnwTest;

// An interlaced image of fewer than 8 rows comes in file order; with a
// global table a local one is skipped and its size bits ORed in.  (Every
// table size, interlaced or not, is read from gifbuild's files in
// tests/interop.)
TEST_F(GifReader, ShortInterlacedImageAndTwoTables)
{
    Image im = Pattern(5, 7, 4, true);
    Bytes fileOrder;
    for (int y : InterlacedOrder(7))
        fileOrder.insert(fileOrder.end(), im.pixels.begin() + y * 5, im.pixels.begin() + (y + 1) * 5);
    EXPECT_EQ(DecodeMemory(Build(4, {im})).rgb, Shown(fileOrder, 0));

    im = Pattern(5, 3, 4);
    im.localEntries = 16, im.codeSize = 4; // 4 | 16 entries: 16 colours, the global 4 and black
    int bits = 0;
    EXPECT_EQ(DecodeMemory(Build(4, {im}), nullptr, &bits).rgb, Shown(im.pixels, 0));
    EXPECT_EQ(bits, 4);
}

// Code streams written bit by bit (code size 2: clear 4, end 5, first
// entry 6, 3 bits a code until entry 7 is made): strings, the string of the
// code being made, the width growing and starting again at a clear code,
// and the ways a stream ends early (X: a row never delivered, index 0).  A
// code size byte of 0 or above 8 gives way to the table's (2 here).
TEST_F(GifReader, CodeStreamsDecodeByTheGifRules)
{
    const int X = 0;
    struct {
        const char *name;
        int width, height;
        Codes codes;
        int32_t status;
        Bytes pixels;
        int codeSize = 2;
    } cases[] = {
        // 1; 6 is "1 1", being made; 2 makes 7 = "1 1 2" and widens to 4 bits;
        // 7 makes 8 = "2 1"; end.  The seventh pixel lies beyond the rows.
        {"strings", 3, 2, Codes().Put(4, 3).Put(1, 3).Put(6, 3).Put(2, 3).Put(7, 4).Put(5, 4), 0, {1, 1, 1, 2, 1, 1}},
        {"clear code", 3, 3, Codes().Put(4, 3).Put(1, 3).Put(6, 3).Put(2, 3).Put(7, 4).Put(4, 4).Put(3, 3).Put(3, 3).Put(5, 3),
         0, {1, 1, 1, 2, 1, 1, 2, 3, 3}},
        {"code beyond the table", 3, 2, Codes().Put(4, 3).Put(1, 3).Put(2, 3).Put(0, 3).Put(10, 4), 0, {1, 2, 0, X, X, X}},
        {"no end code", 3, 2, Codes().Put(4, 3).Put(1, 3).Put(2, 3).Put(0, 3).Put(1, 4), 0, {1, 2, 0, X, X, X}},
        {"table code after a clear code", 2, 2, Codes().Put(4, 3).Put(1, 3).Put(2, 3).Put(4, 3).Put(6, 3), 0, {1, 2, X, X}},
        {"code size 0", 2, 1, Codes().Put(4, 3).Put(1, 3).Put(3, 3).Put(5, 3), 0, {1, 3}, 0},
        {"code size 9", 2, 1, Codes().Put(4, 3).Put(1, 3).Put(3, 3).Put(5, 3), 0, {1, 3}, 9},
        {"no clear code first", 2, 1, Codes().Put(1, 3).Put(5, 3), IMG_ERR_INVALID, {}},
        {"no code at all", 2, 1, Codes(), IMG_ERR_INVALID, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Image im{c.width, c.height, {}};
        im.data = c.codes.bytes;
        Bytes file = Build(4, {im});
        file[13 + 12 + 10] = (uint8_t)c.codeSize; // Build takes 0 for "from the tables"
        int32_t status = 0;
        Raster r = DecodeMemory(file, &status);
        EXPECT_EQ(std::min(status, 0), c.status);
        EXPECT_EQ(r.rgb, Shown(c.pixels, 0)); // empty when the decode failed
    }
}

// A table that fills up (4096 entries) without a clear code stops growing;
// the codes stay 12 bits wide, and its last entry, 4095 (made by the 4091st
// code: pixels 4089 and 4090), is there.
TEST_F(GifReader, FullTableKeepsTwelveBitCodes)
{
    Codes c;
    c.Put(4, 3);
    Image im{4202, 1, {}};
    int width = 3;
    for (uint32_t k = 0, next = 6; k < 4200; k++) {
        im.pixels.push_back((uint8_t)(k * 5 % 4));
        c.Put(im.pixels.back(), width);
        if (k > 0 && next < 4096 && ++next == (1u << width) && width < 12)
            width++;
    }
    ASSERT_EQ(width, 12);
    im.pixels.insert(im.pixels.end(), {im.pixels[4089], im.pixels[4090]});
    im.data = c.Put(4095, 12).Put(5, 12).bytes, im.codeSize = 2;
    EXPECT_EQ(DecodeMemory(Build(4, {im})).rgb, Shown(im.pixels, 0));
}

// The images of a file are its pages, each with its own graphic control
// extension; one with its flag set makes its index transparent.
TEST_F(GifReader, PagesAndTransparency)
{
    Image first = Pattern(6, 4, 16), second = Pattern(9, 10, 16, true), third = Pattern(3, 2, 4);
    first.transparent = 7;
    third.localEntries = 4;                           // skipped: the global table is used
    third.transparent = 2, third.controlFlags = 0x0C; // an index, not transparent
    Bytes file = Build(16, {first, second, third});
    const Image *images[] = {&first, &second, &third};
    for (int32_t page = 0; page < 3; page++) {
        SCOPED_TRACE(page);
        int32_t h = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), page);
        ASSERT_GE(h, 0);
        EXPECT_EQ(ImageRgb(h).rgb, Shown(images[page]->pixels, 0));
        EXPECT_EQ(ImgTableGet(h)->transparentColour, page == 0 ? 7u | DIB_TRANSPARENT_FLAG : 0u);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 3), IMG_ERR_PAGE);
}

TEST_F(GifReader, BadFilesGiveErrorCodes)
{
    const Bytes good = Build(4, {Pattern(3, 2, 4)});
    const size_t at = 13 + 12; // the image separator, behind the header and the global table
    auto cut = [&](size_t n) { return Bytes(good.begin(), good.begin() + (long)n); };
    auto with = [&](Bytes b, size_t i, uint8_t value) { b[i] = value; return b; };
    Bytes noExtensionEnd = cut(at);
    noExtensionEnd.insert(noExtensionEnd.end(), {0x21, 0xFE, 3, 'a', 'b'});
    Image local = Pattern(3, 2, 4);
    local.localEntries = 4;
    Bytes localCut = Build(0, {local});
    localCut.resize(13 + 10 + 6);
    struct {
        const char *name;
        Bytes file;
        int32_t status;
    } cases[] = {
        {"header cut", cut(12), IMG_ERR_READ},
        {"global table cut", cut(20), IMG_ERR_READ},
        {"descriptor cut", cut(at + 6), IMG_ERR_READ},
        {"code size missing", cut(at + 10), IMG_ERR_READ},
        {"local table cut", localCut, IMG_ERR_READ},
        {"no image separator", with(Build(4, {Pattern(3, 2, 4)}, "GIF87a"), at, 0x21), IMG_ERR_INVALID},
        {"extension running into the end", noExtensionEnd, IMG_ERR_INVALID},
        {"width 0", with(good, at + 5, 0), IMG_ERR_INVALID},
        {"height beyond 32767", with(good, at + 8, 0x80), IMG_ERR_INVALID},
    };
    for (const auto &c : cases) {
        int32_t status = 0;
        DecodeMemory(c.file, &status);
        EXPECT_EQ(status, c.status) << c.name;
    }
}

namespace {

// The sizes of the data sub-blocks at `at` and their bytes joined.
std::pair<std::vector<int>, Bytes> SubBlocks(const Bytes &f, size_t at)
{
    std::vector<int> sizes;
    Bytes data;
    for (; at < f.size() && f[at] != 0; at += 1 + f[at]) {
        sizes.push_back(f[at]);
        data.insert(data.end(), f.begin() + (long)at + 1, f.begin() + (long)at + 1 + f[at]);
    }
    return {sizes, data};
}

} // namespace

using GifWriter = TrnwTest;

// The header, global table, graphic control extension and image
// descriptor: GIF87a without a transparent index, GIF89a with one.  1- and
// 24-bit images are refused.
TEST_F(GifWriter, HeaderFields)
{
    for (int bits : {4, 8}) {
        bool transparent = bits == 8; // and interlaced
        Picture p = MakePicture(300, 2, bits, 5);
        int32_t h = ImageOf(p);
        ImgTableGet(h)->hasTransparentColour = transparent;
        ImgTableGet(h)->transparentColour = 3;
        Bytes f = SavedImage(h, transparent ? IMG_TYPE_GIF_INTERLACED : IMG_TYPE_GIF);
        IMG_delete_bitmap(h);
        Bytes expected = {'G', 'I', 'F', '8', (uint8_t)(transparent ? '9' : '7'), 'a', 44, 1, 2, 0,
                          (uint8_t)(0x80 | (bits - 1)), 0, 0};
        for (int i = 0; i < (1 << bits); i++)
            expected.insert(expected.end(), {p.palette[4 * i + 2], p.palette[4 * i + 1], p.palette[4 * i]});
        if (transparent)
            expected.insert(expected.end(), {0x21, 0xF9, 4, 1, 0, 0, 3, 0});
        expected.insert(expected.end(), {0x2C, 0, 0, 0, 0, 44, 1, 2, 0, (uint8_t)((bits - 1) | (transparent ? 0x40 : 0)),
                                         (uint8_t)bits});
        ASSERT_GT(f.size(), expected.size() + 2);
        EXPECT_EQ(Bytes(f.begin(), f.begin() + (long)expected.size()), expected);
        EXPECT_EQ(Bytes(f.end() - 2, f.end()), Bytes({0, 0x3B}));
    }
    for (int bits : {1, 24}) {
        int32_t status = 0;
        EXPECT_TRUE(Saved(MakePicture(3, 2, bits, 1), IMG_TYPE_GIF, &status).empty());
        EXPECT_EQ(status, IMG_ERR_DEPTH);
    }
}

// Four equal 4-bit pixels: clear (16), 0, then "0 0" as entry 18, end (17),
// 5 bits each.  The last pixel started a new string and no code carries it.
// A noisy image: sub-blocks of 253 or 254 bytes (the last one shorter), and
// between clear codes exactly the codes that assign entries 258 to 4080,
// read with the GIF width rule.
TEST_F(GifWriter, CodesSubBlocksAndTableClears)
{
    TestDib dib(4, 1, 4);
    int32_t h = IMG_create_handle_keep(dib.Release());
    Bytes f = SavedImage(h, IMG_TYPE_GIF);
    IMG_delete_bitmap(h);
    EXPECT_EQ(SubBlocks(f, 13 + 48 + 10 + 1).second, Codes().Put(16, 5).Put(0, 5).Put(18, 5).Put(17, 5).bytes);

    Picture p = MakePicture(250, 160, 8, 9);
    uint32_t seed = 1;
    for (auto &row : p.rows)
        for (uint8_t &b : row)
            b = (uint8_t)((seed = seed * 1103515245u + 12345u) >> 16);
    auto [sizes, data] = SubBlocks(Saved(p, IMG_TYPE_GIF), 13 + 768 + 10 + 1);
    ASSERT_GT(sizes.size(), 2u);
    for (size_t i = 0; i + 1 < sizes.size(); i++)
        ASSERT_TRUE(sizes[i] == 253 || sizes[i] == 254) << i << ": " << sizes[i];
    EXPECT_LE(sizes.back(), 255);
    std::vector<int> between; // codes between successive clear codes
    int width = 9, count = -1;
    for (uint64_t bit = 0, next = 258;;) {
        ASSERT_LE(bit + width, data.size() * 8);
        uint64_t code = 0;
        for (int i = 0; i < width; i++, bit++)
            code |= (uint64_t)(data[bit / 8] >> (bit % 8) & 1) << i;
        if (code == 256 || code == 257) {
            if (count >= 0)
                between.push_back(count);
            if (code == 257)
                break;
            width = 9, next = 258, count = 0;
        } else if (count++ > 0 && next < 4096 && ++next == (1u << width) && width < 12) {
            width++;
        }
    }
    ASSERT_GE(between.size(), 3u);
    EXPECT_EQ(std::vector<int>(between.begin(), between.end() - 1), std::vector<int>(between.size() - 1, 3823));
    EXPECT_LT(between.back(), 3823);
}
