// The TIFF reader over files built here field by field (layouts, depths,
// photometrics, PackBits, predictor, tiles), and the TIFF and raw fax writers
// (every compression and fill order) read back through our reader and
// through the tags they write.
#include "support/support.h"

#include <functional>
#include <map>

namespace {
using Rgb = std::array<int, 3>;

// ---- a TIFF built in memory ----
struct Tag { uint16_t tag, type; std::vector<uint32_t> values; };
struct TiffFileBuilder {
    bool be = false;
    size_t gap = 0; // junk bytes before each strip, outside its count
    std::vector<uint8_t> f;
    void Put(uint32_t v, int n) { for (int i = 0; i < n; i++) f.push_back((uint8_t)(v >> (8 * (be ? n - 1 - i : i)))); }
    void PutAt(size_t at, uint32_t v) { for (int i = 0; i < 4; i++) f[at + (size_t)i] = (uint8_t)(v >> (8 * (be ? 3 - i : i))); }
    // One page: the strips (or tiles) then the IFD; offsets and counts added.
    std::vector<uint8_t> Build(std::vector<Tag> tags, const std::vector<std::vector<uint8_t>> &strips, bool tiles = false,
                               uint16_t offsetType = 4)
    {
        f = {(uint8_t)(be ? 'M' : 'I'), (uint8_t)(be ? 'M' : 'I')};
        Put(42, 2), Put(0, 4);
        Tag offsets{(uint16_t)(tiles ? 324 : 273), offsetType, {}}, counts{(uint16_t)(tiles ? 325 : 279), 4, {}};
        for (auto &s : strips) {
            f.insert(f.end(), gap, 0x81);
            offsets.values.push_back((uint32_t)f.size());
            counts.values.push_back((uint32_t)s.size());
            f.insert(f.end(), s.begin(), s.end());
        }
        tags.insert(tags.end(), {offsets, counts});
        std::sort(tags.begin(), tags.end(), [](const Tag &a, const Tag &b) { return a.tag < b.tag; });
        std::vector<uint32_t> where;
        for (auto &t : tags) { // out-of-line values
            int size = t.type == 3 ? 2 : 4;
            where.push_back((uint32_t)f.size());
            if (t.values.size() * (size_t)size > 4)
                for (uint32_t v : t.values) Put(v, size);
        }
        if (f.size() % 2) f.push_back(0);
        PutAt(4, (uint32_t)f.size());
        Put((uint32_t)tags.size(), 2);
        for (size_t i = 0; i < tags.size(); i++) {
            const Tag &t = tags[i];
            int size = t.type == 3 ? 2 : 4;
            Put(t.tag, 2), Put(t.type, 2), Put((uint32_t)t.values.size(), 4);
            if (t.values.size() * (size_t)size > 4) { Put(where[i], 4); continue; }
            for (uint32_t v : t.values) Put(v, size);
            for (size_t k = t.values.size() * (size_t)size; k < 4; k++) f.push_back(0);
        }
        Put(0, 4);
        return f;
    }
};

// The sample s of pixel (x, y) of the test pictures, within `bits`; the
// last three pixels of a row are alike.
uint32_t Sample(int x, int y, int s, int bits)
{
    x = std::min(x, 10);
    return (uint32_t)(x * 37 + y * 11 + s * 80 + (x * y) % 7) & ((1u << bits) - 1);
}
// Rows of samples packed as TIFF stores them (first pixel in the high bits).
std::vector<uint8_t> PackRows(int w, int y0, int y1, int bits, int samples, int plane = -1)
{
    std::vector<uint8_t> out;
    for (int y = y0; y < y1; y++) {
        std::vector<uint8_t> row((size_t)(w * bits * (plane < 0 ? samples : 1) + 7) / 8, 0);
        int i = 0;
        for (int x = 0; x < w; x++)
            for (int s = 0; s < samples; s++) {
                if (plane >= 0 && s != plane) continue;
                uint32_t v = Sample(x, y, s, bits);
                if (bits == 8) row[(size_t)i] = (uint8_t)v;
                else row[(size_t)(i * bits / 8)] |= (uint8_t)(v << (8 - bits - i * bits % 8));
                i++;
            }
        out.insert(out.end(), row.begin(), row.end());
    }
    return out;
}

struct ReadCase {
    const char *name;
    int bits, samples, photometric, compression;
    std::function<void(std::vector<Tag> &, std::vector<std::vector<uint8_t>> &)> layout;
    bool bigEndian = false, tiles = false;
    uint16_t offsetType = 4;
    size_t gap = 0;
};
const int W = 13, H = 6;

class TiffRead : public TrnwTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(TiffRead, PixelsAreTheStoredSamples)
{
    const ReadCase &c = GetParam();
    std::vector<Tag> tags = {{256, 4, {(uint32_t)W}}, {257, 4, {(uint32_t)H}}, {258, 3, std::vector<uint32_t>((size_t)c.samples, (uint32_t)c.bits)},
                             {259, 3, {(uint32_t)c.compression}}, {262, 3, {(uint32_t)c.photometric}}, {277, 3, {(uint32_t)c.samples}}};
    std::vector<std::vector<uint8_t>> strips;
    if (c.photometric == 3) { // ColorMap: red 250 i, green 60000 - 200 i, blue 257 i
        Tag map{320, 3, {}};
        for (int k = 0; k < 3; k++)
            for (int i = 0; i < (1 << c.bits); i++) map.values.push_back(k == 0 ? 250u * i : k == 1 ? 60000u - 200u * i : 257u * i);
        tags.push_back(map);
    }
    c.layout(tags, strips);
    TiffFileBuilder b;
    b.be = c.bigEndian;
    b.gap = c.gap;
    int32_t status = 0;
    int bits = 0;
    int w = c.tiles ? 8 : W, h = c.tiles ? 4 : H; // a tiled page reads as its first tile
    Raster r = DecodeMemory(b.Build(tags, strips, c.tiles, c.offsetType), &status, &bits);
    ASSERT_GE(status, 0);
    ASSERT_EQ(r.width, w);
    ASSERT_EQ(r.height, h);
    int levels = (1 << c.bits) - 1, step = 256 >> c.bits;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            uint32_t v = Sample(x, y, 0, c.bits);
            Rgb want;
            if (c.samples >= 3) want = {(int)v, (int)Sample(x, y, 1, 8), (int)Sample(x, y, 2, 8)};
            else if (c.photometric == 3) want = {(int)(250 * v) >> 8, (int)(60000 - 200 * v) >> 8, (int)(257 * v) >> 8};
            else if (c.bits == 1) want = v == (uint32_t)c.photometric ? Rgb{255, 255, 255} : Rgb{0, 0, 0};
            else {
                int g = (c.photometric == 0 ? levels - (int)v : (int)v) * (c.bits == 8 ? 1 : step);
                want = {g, g, g};
            }
            const uint8_t *p = &r.rgb[(size_t)(y * w + x) * 3];
            ASSERT_EQ((Rgb{p[0], p[1], p[2]}), want) << "pixel " << x << "," << y;
        }
}

using Strips = std::vector<std::vector<uint8_t>>;
auto OneStrip(int bits, int samples) { return [=](std::vector<Tag> &, Strips &s) { s = {PackRows(W, 0, H, bits, samples)}; }; }
// Per row: a literal of W - 3 samples, then the last sample repeated 3 times;
// rowsPerStrip rows to a strip.
auto PackBitsStrips(int rowsPerStrip)
{
    return [=](std::vector<Tag> &t, Strips &s) {
        t.push_back({278, 4, {(uint32_t)rowsPerStrip}});
        for (int y = 0; y < H; y++) {
            if (y % rowsPerStrip == 0)
                s.emplace_back();
            std::vector<uint8_t> &out = s.back();
            out.push_back((uint8_t)(W - 4));
            for (int x = 0; x < W - 3; x++) out.push_back((uint8_t)Sample(x, y, 0, 8));
            out.push_back((uint8_t)-2);
            out.push_back((uint8_t)Sample(W - 3, y, 0, 8));
        }
    };
}
// One strip of 8-bit samples coded with the horizontal predictor.
auto Predicted(int samples)
{
    return [=](std::vector<Tag> &t, Strips &s) {
        t.push_back({317, 3, {2}});
        std::vector<uint8_t> rows = PackRows(W, 0, H, 8, samples);
        for (int y = 0; y < H; y++)
            for (int i = W * samples - 1; i >= samples; i--)
                rows[(size_t)(y * W * samples + i)] -= rows[(size_t)(y * W * samples + i - samples)];
        s = {rows};
    };
}
const ReadCase kReadCases[] = {
    {"bilevel black is zero", 1, 1, 1, 1, OneStrip(1, 1)},
    {"bilevel white is zero", 1, 1, 0, 1, OneStrip(1, 1)},
    {"bilevel big-endian", 1, 1, 0, 1, OneStrip(1, 1), true},
    {"grey 4", 4, 1, 1, 1, OneStrip(4, 1)},
    {"grey 4 white is zero", 4, 1, 0, 1, OneStrip(4, 1)},
    {"grey 8 white is zero", 8, 1, 0, 1, OneStrip(8, 1)},
    {"palette 4", 4, 1, 3, 1, OneStrip(4, 1)},
    {"palette 8 big-endian", 8, 1, 3, 1, OneStrip(8, 1), true},
    {"rgb chunky", 8, 3, 2, 1, OneStrip(8, 3)},
    {"three strips with short offsets", 8, 1, 1, 1,
     [](std::vector<Tag> &t, Strips &s) {
         t.push_back({278, 4, {2}});
         s = {PackRows(W, 0, 2, 8, 1), PackRows(W, 2, 4, 8, 1), PackRows(W, 4, 6, 8, 1)};
     }, false, false, 3},
    {"rgb planar, a strip per plane", 8, 3, 2, 1,
     [](std::vector<Tag> &t, Strips &s) {
         t.push_back({284, 3, {2}});
         for (int p = 0; p < 3; p++) s.push_back(PackRows(W, 0, H, 8, 3, p));
     }},
    {"rgb horizontal predictor", 8, 3, 2, 1, Predicted(3)},
    {"grey horizontal predictor", 8, 1, 1, 1, Predicted(1)},
    {"rgba chunky", 8, 4, 2, 1, OneStrip(8, 4)},
    {"packbits", 8, 1, 1, 32773, PackBitsStrips(H)},
    // Strips apart in the file: each is read from its own offset, nothing carried over.
    {"packbits strips apart", 8, 1, 1, 32773, PackBitsStrips(2), false, false, 4, 300},
    {"tiles", 8, 1, 1, 1,
     [](std::vector<Tag> &t, Strips &s) {
         t.push_back({322, 4, {8}}), t.push_back({323, 4, {4}});
         for (int k = 0; k < 4; k++) s.push_back(k ? std::vector<uint8_t>(32, 0) : PackRows(8, 0, 4, 8, 1));
     }, false, true},
};
std::string CaseName(const ::testing::TestParamInfo<ReadCase> &i)
{
    std::string n;
    for (const char *p = i.param.name; *p; p++) n += std::isalnum((unsigned char)*p) ? *p : '_';
    return n;
}
INSTANTIATE_TEST_SUITE_P(Layouts, TiffRead, ::testing::ValuesIn(kReadCases), CaseName);

// The orientation query reads tag 274 of files named ".tif" in any case: 1, 6, 3 and 8 in degrees.
using TiffOrientation = TrnwTest;
TEST_F(TiffOrientation, InDegrees)
{
    const std::string path = TempPath("turned.TIF"), other = TempPath("turned.tiff");
    for (auto [tag, degrees] : {std::pair{1, 0}, {6, 90}, {3, 180}, {8, 270}, {5, 5}}) {
        ASSERT_TRUE(WriteFile(path, TiffFileBuilder().Build({{256, 3, {8}}, {257, 3, {1}}, {274, 3, {(uint32_t)tag}}}, {{0}})));
        EXPECT_EQ(IMGLOW_get_image_orientation(path.c_str()), degrees);
    }
    ASSERT_TRUE(WriteFile(other, ReadFile(path)));
    EXPECT_EQ(IMGLOW_get_image_orientation(other.c_str()), IMG_ERR_TYPE);
}

// ---- the writers: the first IFD's entries: tag -> first value (inline ones), and their counts.
std::map<int, uint32_t> FirstIfd(const std::vector<uint8_t> &f, std::map<int, uint32_t> &counts)
{
    std::map<int, uint32_t> tags;
    uint32_t ifd = GetLE32(&f[4]);
    for (int i = 0, n = GetLE16(&f[ifd]); i < n; i++) {
        const uint8_t *e = &f[ifd + 2 + 12 * (size_t)i];
        tags[GetLE16(e)] = GetLE16(e + 2) == 3 ? GetLE16(e + 8) : GetLE32(e + 8);
        counts[GetLE16(e)] = GetLE32(e + 4);
    }
    return tags;
}

class TiffWrite : public TrnwTest {};

TEST_F(TiffWrite, EverySaveTypeReadsBack)
{
    struct { int type, compression, fillOrder; std::vector<int> depths; } types[] = {
        {IMG_TYPE_TIFF, 1, 1, {1, 4, 8, 24}}, {IMG_TYPE_TIFF_LZW, 5, 1, {1, 4, 8, 24}},
        {IMG_TYPE_TIFF_HUFFMAN, 2, 1, {1}},  {IMG_TYPE_TIFF_G3, 3, 2, {1}},
        {IMG_TYPE_TIFF_G4, 4, 2, {1}},       {IMG_TYPE_TIFF_51, 4, 1, {1}},
        {IMG_TYPE_TIFF_PACKBITS, 32773, 1, {1}}};
    for (auto &t : types)
        for (int bits : {1, 4, 8, 24}) {
            SCOPED_TRACE("type " + std::to_string(t.type) + ", " + std::to_string(bits) + " bits");
            Picture p = MakePicture(37, 11, bits, (uint32_t)(t.type * 31 + bits));
            int32_t n = 0;
            std::vector<uint8_t> file = Saved(p, t.type, &n);
            if (std::find(t.depths.begin(), t.depths.end(), bits) == t.depths.end()) {
                EXPECT_EQ(n, IMG_ERR_DEPTH);
                continue;
            }
            ASSERT_GT(n, 8);
            std::map<int, uint32_t> counts, tags = FirstIfd(file, counts);
            EXPECT_EQ((std::vector<uint32_t>{tags[256], tags[257], counts[258]}), (std::vector<uint32_t>{37, 11, bits == 24 ? 3u : 1u}));
            EXPECT_EQ(tags[259], (uint32_t)t.compression);
            EXPECT_EQ(tags[279] + tags[273] <= (uint32_t)n, true);
            EXPECT_EQ(tags[266], (uint32_t)t.fillOrder);
            for (uint32_t i = 0; counts[320] && i < (1u << bits); i++) // the ColorMap: red first, bytes times 256
                EXPECT_EQ(GetLE16(&file[tags[320] + 2 * i]), p.palette[4 * i + 2] * 256) << i;
            int32_t status = 0;
            EXPECT_EQ(IMGLOW_get_filetype_mem_size(file.data(), (uint32_t)n),
                      t.type == IMG_TYPE_TIFF_51 ? IMG_TYPE_TIFF_G4 : t.type) << "subtype";
            EXPECT_EQ(RasterDiff(DecodeMemory(file, &status), p.Rgb()), 0);
        }
}

TEST_F(TiffWrite, RawFaxTypesReadBack)
{
    struct { int type, decodeType, fillOrder; } types[] = {
        {IMG_TYPE_FAX_G3, 3, 1}, {IMG_TYPE_FAX_G3_B, 3, 2}, {IMG_TYPE_FAX_G4, 4, 1}, {IMG_TYPE_FAX_G4_B, 4, 2}};
    Picture p = MakePicture(203, 17, 1, 5);
    for (auto &t : types) {
        SCOPED_TRACE(t.type);
        std::vector<uint8_t> data = Saved(p, t.type);
        ASSERT_FALSE(data.empty());
        int32_t back = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 203, 17, t.decodeType, t.fillOrder);
        ASSERT_GE(back, 0);
        EXPECT_EQ(RasterDiff(ImageRgb(back), p.Rgb()), 0);
        IMG_delete_bitmap(back);
    }
    int32_t status = 0;
    Saved(MakePicture(8, 8, 8, 1), IMG_TYPE_FAX_G4, &status);
    EXPECT_EQ(status, IMG_ERR_DEPTH);
}

TEST_F(TiffWrite, SavingIntoATiffAppendsAPage)
{
    std::string path = TempPath("append.tif");
    std::remove(path.c_str());
    Picture a = MakePicture(20, 9, 8, 1, true), b = MakePicture(31, 5, 1, 2);
    for (const Picture *p : {&a, &b}) {
        int32_t h = ImageOf(*p);
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), p->bits == 1 ? IMG_TYPE_TIFF_G4 : IMG_TYPE_TIFF), 0);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 2);
    EXPECT_EQ(RasterDiff(DecodeFile(path), a.Rgb()), 0);
    std::remove(path.c_str());
}
// The bitmap name travels as Artist (199 characters at most) and DateTime.
TEST_F(TiffWrite, BitmapNameTravelsAsArtistAndDate)
{
    std::string artist(199, 'a');
    artist.back() = 'z';
    const char *date = "2026:11:24 12:34:56";
    ASSERT_EQ(IMGLOW_set_bitmap_name(artist.c_str(), date), 0);
    std::vector<uint8_t> file = Saved(MakePicture(8, 2, 1, 1), IMG_TYPE_TIFF_G4);
    ASSERT_FALSE(file.empty());
    IMGLOW_set_bitmap_name("", "");
    DecodeMemory(file);
    char text[200], stamp[40];
    EXPECT_EQ(IMGLOW_get_bitmap_name(text, stamp), 0);
    EXPECT_EQ(std::string(text), artist);
    EXPECT_EQ(std::string(stamp), date);
    IMGLOW_set_bitmap_name("", "");
}

// Width and height are written as SHORTs: 65535 is the largest page.
// IMG_save_bitmap refuses images of more than 32767 rows, so tall pages come
// through the low-level writer.
TEST_F(TiffWrite, SizesUpToAShortAreWritten)
{
    std::string path = TempPath("short_sizes.tif");
    for (auto [width, result] : {std::pair{65535, 0}, std::pair{65536, IMG_ERR_TYPE}}) {
        SCOPED_TRACE("width " + std::to_string(width));
        int32_t h = NewImage(width, 1, 1);
        ASSERT_GE(h, 0);
        std::remove(path.c_str());
        EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_TIFF_G4), result);
        IMG_delete_bitmap(h);
    }
    std::remove(path.c_str());
    auto whiteRows = [](void *, uint8_t *row, int32_t, int32_t bytes) -> int32_t {
        std::memset(row, 0xFF, (size_t)bytes);
        return 0;
    };
    uint8_t *memory = static_cast<uint8_t *>(ImgAlloc(1 << 16));
    for (auto [height, ok] : {std::pair{65535, true}, std::pair{65536, false}}) {
        SCOPED_TRACE("height " + std::to_string(height));
        TestDib dib(8, height, 1);
        int32_t size = IMGLOW_save_bitmap_mem(memory, dib.block, IMG_TYPE_TIFF_G4, whiteRows, nullptr);
        if (!ok) {
            EXPECT_EQ(size, IMG_ERR_TYPE);
            continue;
        }
        ASSERT_GT(size, 0);
        int32_t status = 0;
        Raster back = DecodeMemory(std::vector<uint8_t>(memory, memory + size), &status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(back.height, 65535);
    }
    ImgFree(memory);
}
} // namespace
