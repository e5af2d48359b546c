/*
 * test_tiff_write.cpp - Part 2.4, the TIFF writers.
 *
 * Pictures are built here (header, palette, rows) and saved through the
 * dispatcher IMGLOW_save_bitmap with a row source over the test's rows, or
 * through IMG_save_bitmap for the update-open of Part 1.5.  The written bytes
 * are parsed here and every IFD entry is compared with Part 2.4's list; the
 * expected offsets are the Part's arithmetic, shown in comments.
 */
#include "test_support.h"

#include <fstream>
#include <iterator>
#include <map>

#include "formats/tiff_write.h"
#include "core/bytes.h"
#include "pipeline/detect.h"

namespace {

class Part2_4_TiffWriter : public TrnwTest {};

// ---- pictures and their row source ----

struct Picture {
    int width, height, bits;
    std::vector<uint8_t> header = std::vector<uint8_t>(IMG_HEADER_BLOCK_SIZE, 0);
    std::vector<std::vector<uint8_t>> rows; // top first, unpadded
    int failAtRow = -1;                      // the row source fails there with -18

    Picture(int w, int h, int b) : width(w), height(h), bits(b)
    {
        BITMAPINFOHEADER hd{};
        hd.biSize = 40;
        hd.biWidth = w;
        hd.biHeight = h;
        hd.biPlanes = 1;
        hd.biBitCount = (uint16_t)b;
        std::memcpy(header.data(), &hd, sizeof hd);
        rows.assign(h, std::vector<uint8_t>(RowBytes(), 0));
        if (b == 1) // black, white
            SetPalette({{0, 0, 0}, {255, 255, 255}});
    }
    size_t RowBytes() const { return ((size_t)bits * width + 7) / 8; }
    BITMAPINFOHEADER *Header() { return reinterpret_cast<BITMAPINFOHEADER *>(header.data()); }
    // Entries given as R, G, B; stored B, G, R, 0.
    void SetPalette(const std::vector<std::array<int, 3>> &rgb)
    {
        for (size_t i = 0; i < rgb.size(); i++) {
            header[40 + 4 * i] = (uint8_t)rgb[i][2];
            header[40 + 4 * i + 1] = (uint8_t)rgb[i][1];
            header[40 + 4 * i + 2] = (uint8_t)rgb[i][0];
        }
    }
    void GreyRamp(int step)
    {
        std::vector<std::array<int, 3>> p;
        for (int i = 0; i < (1 << bits); i++)
            p.push_back({i * step, i * step, i * step});
        SetPalette(p);
    }
    void Fill(uint32_t seed)
    {
        for (auto &r : rows)
            for (auto &b : r)
                b = (uint8_t)((seed = seed * 1103515245u + 12345u) >> 16);
    }
};

int32_t IMGCDECL PictureRows(void *context, uint8_t *buffer, int32_t rowIndex, int32_t rowBytes)
{
    auto *p = static_cast<Picture *>(context);
    if (rowIndex == p->failAtRow)
        return IMG_ERR_STOPPED;
    if (rowIndex < 0 || rowIndex >= p->height || (size_t)rowBytes > p->RowBytes())
        return IMG_ERR_TYPE;
    std::memcpy(buffer, p->rows[rowIndex].data(), (size_t)rowBytes);
    return 0;
}

// Saves into a zeroed memory block; the block is cut to the bytes written.
int SaveToMemory(Picture &p, int type, std::vector<uint8_t> &out, size_t room = 1 << 20)
{
    out.assign(room, 0);
    ImgSetMemorySourceSized(out.data(), (uint32_t)out.size());
    int result = IMGLOW_save_bitmap(IMG_MEMORY_HANDLE, p.header.data(), type, PictureRows, &p);
    out.resize(ImgTell());
    return result;
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
}

// Saves through a file handle opened for update (mode 1) or created (2).
int SaveToFile(Picture &p, int type, const std::string &path, int32_t seekTo = 0)
{
    int fd = ImgOpen(path.c_str(), ImgOpen(path.c_str(), 3) >= 0 ? 1 : 2);
    if (fd < 0)
        return IMG_ERR_CREATE;
    ImgSeek(fd, seekTo, 0);
    int result = IMGLOW_save_bitmap(fd, p.header.data(), type, PictureRows, &p);
    ImgClose(fd);
    return result;
}

// ---- parsing what was written ----

struct Entry {
    uint16_t tag, type;
    uint32_t count, value; // value: SHORT count 1 its first SHORT, else the LONG field
};

struct Ifd {
    uint32_t offset;
    std::vector<Entry> entries;
    uint32_t next;
    const Entry *Find(uint16_t tag) const
    {
        for (const auto &e : entries)
            if (e.tag == tag)
                return &e;
        return nullptr;
    }
    uint32_t Value(uint16_t tag) const
    {
        const Entry *e = Find(tag);
        return e ? e->value : 0xDEADBEEF;
    }
};

// The IFD chain of a little-endian TIFF whose header is at base (offsets
// relative to it); at most 100 IFDs.
std::vector<Ifd> ParseTiff(const std::vector<uint8_t> &f, size_t base = 0)
{
    std::vector<Ifd> ifds;
    if (f.size() < base + 8 || f[base] != 'I' || f[base + 1] != 'I' || GetLE16(&f[base + 2]) != 42)
        return ifds;
    uint32_t offset = GetLE32(&f[base + 4]);
    while (offset && ifds.size() < 100 && base + offset + 2 <= f.size()) {
        Ifd ifd{offset, {}, 0};
        const uint8_t *p = &f[base + offset];
        int n = GetLE16(p);
        if (base + offset + 2 + 12 * (size_t)n + 4 > f.size())
            break;
        for (int i = 0; i < n; i++) {
            const uint8_t *e = p + 2 + 12 * i;
            Entry entry{GetLE16(e), GetLE16(e + 2), GetLE32(e + 4), GetLE32(e + 8)};
            if (entry.type == 3 && entry.count == 1)
                entry.value = GetLE16(e + 8);
            ifd.entries.push_back(entry);
        }
        ifd.next = GetLE32(p + 2 + 12 * n);
        ifds.push_back(ifd);
        offset = ifd.next;
    }
    return ifds;
}

std::vector<uint16_t> Tags(const Ifd &ifd)
{
    std::vector<uint16_t> tags;
    for (const auto &e : ifd.entries)
        tags.push_back(e.tag);
    return tags;
}

const std::vector<uint16_t> kBaseTags = {254, 256, 257, 258, 259, 262, 266, 273, 274,
                                         277, 278, 279, 282, 283, 284, 296, 306, 315};

std::vector<uint16_t> TagsWith(std::initializer_list<uint16_t> more)
{
    std::vector<uint16_t> tags = kBaseTags;
    for (uint16_t t : more) {
        auto at = t == 292 ? std::find(tags.begin(), tags.end(), 296) : tags.end();
        tags.insert(at, t);
    }
    return tags;
}

std::pair<uint32_t, uint32_t> Rational(const std::vector<uint8_t> &f, uint32_t offset, size_t base = 0)
{
    return {GetLE32(&f[base + offset]), GetLE32(&f[base + offset + 4])};
}

std::string Text(const std::vector<uint8_t> &f, uint32_t offset, size_t bytes)
{
    return std::string(reinterpret_cast<const char *>(&f[offset]), bytes);
}

// The strip as written (single strip).
std::vector<uint8_t> Strip(const std::vector<uint8_t> &f, const Ifd &ifd, size_t base = 0)
{
    uint32_t offset = ifd.Value(273), count = ifd.Value(279);
    if (base + offset + count > f.size())
        return {};
    return std::vector<uint8_t>(f.begin() + base + offset, f.begin() + base + offset + count);
}

std::vector<uint8_t> Joined(const Picture &p)
{
    std::vector<uint8_t> all;
    for (const auto &r : p.rows)
        all.insert(all.end(), r.begin(), r.end());
    return all;
}

// ---- the IFD of every kind of page ----

TEST_F(Part2_4_TiffWriter, EntryListOfAnEightBitGreyPage)
{
    Picture p(5, 3, 8);
    p.GreyRamp(1);
    p.Fill(7);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto ifds = ParseTiff(f);
    ASSERT_EQ(ifds.size(), 1u);
    const Ifd &d = ifds[0];
    EXPECT_EQ(d.offset, 8u) << "the new header's first IFD offset";
    EXPECT_EQ(Tags(d), kBaseTags) << "18 entries in the Part's order";
    EXPECT_EQ(d.next, 0u);
    // Types and counts of every entry.
    std::map<uint16_t, std::pair<uint16_t, uint32_t>> kinds = {
        {254, {4, 1}}, {256, {3, 1}}, {257, {3, 1}}, {258, {3, 1}}, {259, {3, 1}},  {262, {3, 1}},
        {266, {3, 1}}, {273, {4, 1}}, {274, {3, 1}}, {277, {3, 1}}, {278, {4, 1}},  {279, {4, 1}},
        {282, {5, 1}}, {283, {5, 1}}, {284, {3, 1}}, {296, {3, 1}}, {306, {2, 20}}, {315, {2, 200}}};
    for (const auto &e : d.entries) {
        EXPECT_EQ(e.type, kinds[e.tag].first) << e.tag;
        EXPECT_EQ(e.count, kinds[e.tag].second) << e.tag;
    }
    EXPECT_EQ(d.Value(254), 0u);
    EXPECT_EQ(d.Value(256), 5u);
    EXPECT_EQ(d.Value(257), 3u);
    EXPECT_EQ(d.Value(258), 8u);
    EXPECT_EQ(d.Value(259), 1u);
    EXPECT_EQ(d.Value(262), 1u) << "a grey ramp: BlackIsZero";
    EXPECT_EQ(d.Value(266), 1u);
    // P = 8: StripOffsets = 8 + 12 * 18 + 262 = 486; XResolution 8 + 216 + 6 = 230,
    // YResolution 238, date 246 (behind the 16 resolution bytes), artist 286.
    EXPECT_EQ(d.Value(273), 486u);
    EXPECT_EQ(d.Value(274), 1u);
    EXPECT_EQ(d.Value(277), 1u);
    EXPECT_EQ(d.Value(278), 3u);
    EXPECT_EQ(d.Value(279), 15u) << "3 rows x 5 bytes";
    EXPECT_EQ(d.Value(282), 230u);
    EXPECT_EQ(d.Value(283), 238u);
    EXPECT_EQ(d.Value(284), 1u);
    EXPECT_EQ(d.Value(296), 2u);
    EXPECT_EQ(d.Value(306), 246u);
    EXPECT_EQ(d.Value(315), 286u);
    EXPECT_EQ(f.size(), 486u + 15u);
    EXPECT_EQ(Strip(f, d), Joined(p)) << "rows top first, as they are";
}

TEST_F(Part2_4_TiffWriter, DateAndArtistTextsAreWrittenWhole)
{
    Picture p(8, 2, 1);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    // The date: 40 bytes though its entry says 20.
    std::string date = Text(f, d.Value(306), 40);
    EXPECT_EQ(date, std::string("11-24-1992") + std::string(30, '\0'));
    std::string artist = Text(f, d.Value(315), 200);
    std::string expected = "1996 TARNWHEEL, ALL RIGHTS RESERVED";
    EXPECT_EQ(artist, expected + std::string(200 - expected.size(), '\0'));
    EXPECT_EQ(d.Value(315), d.Value(306) + 40);
    EXPECT_EQ(d.Value(273), d.Value(315) + 200) << "the image data starts right after";

    // The module-wide texts are what is written (a reader overwrites them).
    ASSERT_EQ(IMGLOW_set_bitmap_name("Scanned by the test", "2026:11:22 06:30:00"), 0);
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    d = ParseTiff(f).at(0);
    EXPECT_EQ(Text(f, d.Value(306), 20), std::string("2026:11:22 06:30:00") + '\0');
    EXPECT_EQ(Text(f, d.Value(315), 20), std::string("Scanned by the test") + '\0');
}

TEST_F(Part2_4_TiffWriter, TwentyFourBitPagesAreRgbWithThreeBitsPerSampleValues)
{
    Picture p(4, 2, 24);
    p.Fill(3);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    EXPECT_EQ(Tags(d), kBaseTags);
    const Entry *bps = d.Find(258);
    ASSERT_NE(bps, nullptr);
    EXPECT_EQ(bps->count, 3u);
    // Values behind the resolutions: 8 + 216 + 6 + 16 = 246.
    EXPECT_EQ(bps->value, 246u);
    for (int s = 0; s < 3; s++)
        EXPECT_EQ(GetLE16(&f[246 + 2 * s]), 8);
    EXPECT_EQ(d.Value(262), 2u);
    EXPECT_EQ(d.Value(277), 3u);
    EXPECT_EQ(d.Value(306), 252u) << "after the 6 BitsPerSample bytes";
    EXPECT_EQ(d.Value(273), 8u + 12 * 18 + 262 + 6);
    EXPECT_EQ(d.Value(279), 2u * 12);
    // Our rows are B,G,R; the file holds R,G,B (docs/DEVIATIONS.md, Part 2.4).
    auto strip = Strip(f, d);
    ASSERT_EQ(strip.size(), 24u);
    for (int r = 0; r < 2; r++)
        for (int x = 0; x < 4; x++)
            for (int c = 0; c < 3; c++)
                EXPECT_EQ(strip[r * 12 + 3 * x + c], p.rows[r][3 * x + 2 - c]) << r << "," << x << "," << c;
}

TEST_F(Part2_4_TiffWriter, ThirtyTwoBitPagesAreSeparatedWithFourSamples)
{
    Picture p(3, 2, 32);
    p.Fill(5);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    const Entry *bps = d.Find(258);
    ASSERT_NE(bps, nullptr);
    EXPECT_EQ(bps->count, 4u);
    for (int s = 0; s < 4; s++)
        EXPECT_EQ(GetLE16(&f[bps->value + 2 * s]), 8);
    EXPECT_EQ(d.Value(262), 5u);
    EXPECT_EQ(d.Value(277), 4u);
    EXPECT_EQ(d.Value(273), 8u + 12 * 18 + 262 + 8);
    EXPECT_EQ(Strip(f, d), Joined(p)) << "32-bit rows are written as they are";
}

TEST_F(Part2_4_TiffWriter, OneAndSixteenBitPagesAreBlackIsZero)
{
    for (int bits : {1, 16}) {
        Picture p(13, 3, bits);
        p.Fill(11);
        std::vector<uint8_t> f;
        ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0) << bits;
        auto d = ParseTiff(f).at(0);
        EXPECT_EQ(d.Value(258), (uint32_t)bits);
        EXPECT_EQ(d.Value(262), 1u);
        EXPECT_EQ(d.Find(320), nullptr);
        EXPECT_EQ(Strip(f, d), Joined(p)) << bits << ": unpadded rows";
    }
}

TEST_F(Part2_4_TiffWriter, FourBitGreyHasNoColorMapAndColouredHasFortyEight)
{
    // Grey: the "tiff" ramp (i x 16) and the full ramp (i x 17) both count.
    for (int step : {16, 17}) {
        Picture grey(6, 2, 4);
        grey.GreyRamp(step);
        std::vector<uint8_t> f;
        ASSERT_EQ(SaveToMemory(grey, IMG_TYPE_TIFF, f), 0);
        auto d = ParseTiff(f).at(0);
        EXPECT_EQ(Tags(d), kBaseTags) << step;
        EXPECT_EQ(d.Value(262), 1u);
        EXPECT_EQ(d.Value(258), 4u);
    }
    Picture colour(6, 2, 4);
    std::vector<std::array<int, 3>> palette;
    for (int i = 0; i < 16; i++)
        palette.push_back({i * 16, 255 - i * 8, i * 3 + 1});
    colour.SetPalette(palette);
    colour.Fill(9);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(colour, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    std::vector<uint16_t> tags = kBaseTags;
    tags.push_back(320);
    EXPECT_EQ(Tags(d), tags) << "19 entries, the ColorMap last";
    EXPECT_EQ(d.Value(262), 3u);
    const Entry *map = d.Find(320);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->type, 3);
    EXPECT_EQ(map->count, 48u) << "3 x 2^4";
    // P = 8, 19 entries: values at 8 + 228 + 6 = 242, the ColorMap at 258.
    EXPECT_EQ(d.Value(282), 242u);
    EXPECT_EQ(map->value, 258u);
    for (int c = 0; c < 3; c++)
        for (int i = 0; i < 16; i++)
            EXPECT_EQ(GetLE16(&f[258 + 2 * (16 * c + i)]), palette[i][c] * 256) << c << "," << i;
    EXPECT_EQ(d.Value(306), 258u + 96) << "the date behind the 96 ColorMap bytes";
    EXPECT_EQ(d.Value(273), 8u + 12 * 19 + 262 + 96);
    EXPECT_EQ(Strip(f, d), Joined(colour));
}

TEST_F(Part2_4_TiffWriter, EightBitColourAndNonRampGreyGetAColorMap)
{
    Picture p(3, 1, 8);
    p.GreyRamp(1);
    p.header[40 + 4 * 7] = 200; // one entry not grey
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    EXPECT_EQ(d.Value(262), 3u);
    ASSERT_NE(d.Find(320), nullptr);
    EXPECT_EQ(d.Find(320)->count, 768u);
    // Grey entries out of ramp order (an inverted ramp) are a palette too:
    // read as BlackIsZero they would come out inverted.
    Picture q(3, 1, 8);
    std::vector<std::array<int, 3>> inverted;
    for (int i = 0; i < 256; i++)
        inverted.push_back({255 - i, 255 - i, 255 - i});
    q.SetPalette(inverted);
    ASSERT_EQ(SaveToMemory(q, IMG_TYPE_TIFF, f), 0);
    EXPECT_EQ(ParseTiff(f).at(0).Value(262), 3u);
}

TEST_F(Part2_4_TiffWriter, OneBitWithoutResolutionType0Carries640Over9And480Over7)
{
    Picture p(16, 2, 1);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    auto d = ParseTiff(f).at(0);
    EXPECT_EQ(Rational(f, d.Value(282)), std::make_pair(640u, 9u));
    EXPECT_EQ(Rational(f, d.Value(283)), std::make_pair(480u, 7u));
    // Only one of the two resolutions is missing: the defaults too.
    p.Header()->biXPelsPerMeter = 300;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    d = ParseTiff(f).at(0);
    EXPECT_EQ(Rational(f, d.Value(282)), std::make_pair(640u, 9u));
    // Both: x/1 and y/1.
    p.Header()->biYPelsPerMeter = 150;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), 0);
    d = ParseTiff(f).at(0);
    EXPECT_EQ(Rational(f, d.Value(282)), std::make_pair(300u, 1u));
    EXPECT_EQ(Rational(f, d.Value(283)), std::make_pair(150u, 1u));
}

TEST_F(Part2_4_TiffWriter, OneBitWithoutResolutionType8Carries200Over1)
{
    Picture p(16, 2, 1);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_G3, f), 0);
    auto d = ParseTiff(f).at(0);
    EXPECT_EQ(Tags(d), TagsWith({292})) << "T4Options before ResolutionUnit";
    EXPECT_EQ(d.Value(292), 4u);
    EXPECT_EQ(d.Value(259), 3u);
    EXPECT_EQ(d.Value(266), 2u);
    EXPECT_EQ(d.Value(262), 0u);
    EXPECT_EQ(Rational(f, d.Value(282)), std::make_pair(200u, 1u));
    EXPECT_EQ(Rational(f, d.Value(283)), std::make_pair(200u, 1u));
    EXPECT_EQ(d.Value(273), 8u + 12 * 19 + 262);
    // Type 7 (compression 2) takes the other defaults.
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_HUFFMAN, f), 0);
    d = ParseTiff(f).at(0);
    EXPECT_EQ(Tags(d), kBaseTags);
    EXPECT_EQ(Rational(f, d.Value(282)), std::make_pair(640u, 9u));
    EXPECT_EQ(Rational(f, d.Value(283)), std::make_pair(480u, 7u));
}

TEST_F(Part2_4_TiffWriter, CompressionFillOrderAndPhotometricOfEachSaveType)
{
    struct Row {
        int type, bits;
        uint32_t compression, fillOrder, photometric;
    } rows[] = {{IMG_TYPE_TIFF, 1, 1, 1, 1},         {IMG_TYPE_TIFF_HUFFMAN, 1, 2, 1, 0},
                {IMG_TYPE_TIFF_G3, 1, 3, 2, 0},      {IMG_TYPE_TIFF_LZW, 24, 5, 1, 2},
                {IMG_TYPE_TIFF_LZW, 1, 5, 1, 1},     {IMG_TYPE_TIFF_G4, 1, 4, 2, 0},
                {IMG_TYPE_TIFF_PACKBITS, 1, 32773, 1, 1}, {IMG_TYPE_TIFF_51, 1, 4, 1, 0}};
    for (const auto &r : rows) {
        Picture p(40, 7, r.bits);
        p.Fill(1 + r.type);
        std::vector<uint8_t> f;
        ASSERT_EQ(SaveToMemory(p, r.type, f), 0) << r.type;
        auto ifds = ParseTiff(f);
        ASSERT_EQ(ifds.size(), 1u) << r.type;
        const Ifd &d = ifds[0];
        EXPECT_EQ(d.Value(259), r.compression) << r.type;
        EXPECT_EQ(d.Value(266), r.fillOrder) << r.type;
        EXPECT_EQ(d.Value(262), r.photometric) << r.type;
        EXPECT_EQ(d.Value(278), 7u) << "single strip: RowsPerStrip is the height";
        // The true count: the strip runs to the end of the output.
        EXPECT_EQ(d.Value(273) + d.Value(279), f.size()) << r.type;
    }
}

TEST_F(Part2_4_TiffWriter, StripByteCountsIsPatchedWithTheTrueCount)
{
    // 64 white rows of 1728 pixels: height x row size would be 64 x 216 = 13824;
    // PackBits codes each 216-byte row as two repeat packets (127 + 89: 4 bytes).
    Picture p(1728, 64, 1);
    for (auto &r : p.rows)
        std::fill(r.begin(), r.end(), 0xFF);
    std::vector<uint8_t> f;
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_PACKBITS, f), 0);
    auto d = ParseTiff(f).at(0);
    EXPECT_EQ(d.Value(279), 64u * 4);
    EXPECT_EQ(f.size(), d.Value(273) + 64u * 4);
    // Group 4 of the same page is far smaller than 13824 too.
    ASSERT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_G4, f), 0);
    d = ParseTiff(f).at(0);
    EXPECT_LT(d.Value(279), 13824u);
    EXPECT_EQ(d.Value(273) + d.Value(279), f.size());
}

// ---- depth checks ----

TEST_F(Part2_4_TiffWriter, OneBitOnlyTypesRefuseOtherDepthsWithMinus21)
{
    for (int type : {IMG_TYPE_TIFF_HUFFMAN, IMG_TYPE_TIFF_G3, IMG_TYPE_TIFF_G4,
                     IMG_TYPE_TIFF_PACKBITS, IMG_TYPE_TIFF_51})
        for (int bits : {4, 8, 16, 24, 32}) {
            Picture p(8, 2, bits);
            std::vector<uint8_t> f;
            EXPECT_EQ(SaveToMemory(p, type, f), IMG_ERR_DEPTH) << type << " " << bits;
            EXPECT_TRUE(f.empty()) << "nothing written";
        }
}

TEST_F(Part2_4_TiffWriter, JpegTypeRefusesSmallAnd16BitDepthsAndIsNotAvailableYet)
{
    for (int bits : {1, 4, 16}) {
        Picture p(8, 2, bits);
        std::vector<uint8_t> f;
        EXPECT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_JPEG, f), IMG_ERR_DEPTH) << bits;
    }
    // The JPEG codec (subsystem 3) does not exist yet: type 40 gives -7 for
    // the depths it accepts, and writes nothing.
    for (int bits : {8, 24, 32}) {
        Picture p(8, 2, bits);
        std::vector<uint8_t> f;
        EXPECT_EQ(SaveToMemory(p, IMG_TYPE_TIFF_JPEG, f), IMG_ERR_TYPE) << bits;
        EXPECT_TRUE(f.empty());
    }
}

TEST_F(Part2_4_TiffWriter, AnyDepthTypesRefuseDepthsTheLibraryDoesNotStore)
{
    for (int type : {IMG_TYPE_TIFF, IMG_TYPE_TIFF_LZW})
        for (int bits : {0, 2, 7, 12}) {
            Picture p(8, 2, 8);
            p.Header()->biBitCount = (uint16_t)bits;
            std::vector<uint8_t> f;
            EXPECT_EQ(SaveToMemory(p, type, f), IMG_ERR_DEPTH) << type << " " << bits;
        }
}

TEST_F(Part2_4_TiffWriter, SizesBeyondAShortAreRefused)
{
    Picture p(8, 2, 1);
    p.Header()->biWidth = 65536;
    std::vector<uint8_t> f;
    EXPECT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), IMG_ERR_TYPE);
    p.Header()->biWidth = 0;
    EXPECT_EQ(SaveToMemory(p, IMG_TYPE_TIFF, f), IMG_ERR_TYPE);
}

// ---- appending and new headers ----

TEST_F(Part2_4_TiffWriter, SavingIntoAOnePageTiffYieldsTwoPagesLinkedFromTheFirst)
{
    std::string path = TempPath("tw_append.tif");
    std::remove(path.c_str());
    Picture first(9, 4, 8), second(5, 3, 24);
    first.GreyRamp(1);
    first.Fill(1);
    second.Fill(2);
    ASSERT_EQ(SaveToFile(first, IMG_TYPE_TIFF, path), 0);
    size_t firstSize = ReadFile(path).size();
    ASSERT_EQ(SaveToFile(second, IMG_TYPE_TIFF, path), 0);
    auto f = ReadFile(path);
    auto ifds = ParseTiff(f);
    ASSERT_EQ(ifds.size(), 2u);
    EXPECT_EQ(ifds[0].next, firstSize) << "the new IFD stands behind the existing data";
    EXPECT_EQ(ifds[1].offset, firstSize);
    EXPECT_EQ(ifds[1].next, 0u);
    EXPECT_EQ(Strip(f, ifds[0]), Joined(first)) << "the first page is untouched";
    EXPECT_EQ(ifds[1].Value(256), 5u);
    EXPECT_EQ(ifds[1].Value(273), firstSize + 12 * 18 + 262 + 6);
    EXPECT_EQ(Strip(f, ifds[1]).size(), 45u);
    // A third page follows the chain to the second IFD.
    ASSERT_EQ(SaveToFile(first, IMG_TYPE_TIFF, path), 0);
    auto g = ReadFile(path);
    ifds = ParseTiff(g);
    ASSERT_EQ(ifds.size(), 3u);
    EXPECT_EQ(ifds[1].next, f.size());
    EXPECT_EQ(Strip(g, ifds[2]), Joined(first));
    std::remove(path.c_str());
}

TEST_F(Part2_4_TiffWriter, AnMmOutputGetsANewIiHeaderWhereTheOutputBegan)
{
    std::string path = TempPath("tw_mm.tif");
    // A big-endian TIFF header and junk; the save starts at 0.
    std::vector<uint8_t> mm = {'M', 'M', 0, 42, 0, 0, 0, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    WriteFile(path, mm);
    Picture p(8, 2, 8);
    p.GreyRamp(1);
    p.Fill(4);
    ASSERT_EQ(SaveToFile(p, IMG_TYPE_TIFF, path), 0);
    auto f = ReadFile(path);
    ASSERT_GE(f.size(), 8u);
    EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.begin() + 8),
              (std::vector<uint8_t>{'I', 'I', 42, 0, 8, 0, 0, 0}));
    auto ifds = ParseTiff(f);
    ASSERT_EQ(ifds.size(), 1u);
    EXPECT_EQ(Strip(f, ifds[0]), Joined(p));

    // At 100 bytes into a file: the header goes there and every offset is
    // counted from it (the reader's `base`, Part 2.3).
    std::vector<uint8_t> lead(100 + mm.size(), 0x55);
    std::copy(mm.begin(), mm.end(), lead.begin() + 100);
    WriteFile(path, lead);
    ASSERT_EQ(SaveToFile(p, IMG_TYPE_TIFF, path, 100), 0);
    f = ReadFile(path);
    EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.begin() + 100), std::vector<uint8_t>(100, 0x55));
    ifds = ParseTiff(f, 100);
    ASSERT_EQ(ifds.size(), 1u);
    EXPECT_EQ(ifds[0].offset, 8u);
    EXPECT_EQ(ifds[0].Value(273), 8u + 12 * 18 + 262);
    EXPECT_EQ(Strip(f, ifds[0], 100), Joined(p));
    std::remove(path.c_str());
}

TEST_F(Part2_4_TiffWriter, AnIiOutputWhoseChainCannotBeFollowedGivesMinus3)
{
    std::string path = TempPath("tw_badchain.tif");
    Picture p(8, 2, 1);
    std::vector<std::vector<uint8_t>> hostile = {
        // The first IFD points at itself (a loop).
        {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 8, 0, 0, 0},
        // Two IFDs pointing at each other.
        {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 14, 0, 0, 0, 0, 0, 8, 0, 0, 0},
        // The first IFD beyond the end.
        {'I', 'I', 42, 0, 0, 1, 0, 0},
        // An entry count whose next-IFD field lies beyond the end.
        {'I', 'I', 42, 0, 8, 0, 0, 0, 50, 0},
        // A first IFD offset of 0 and one inside the header.
        {'I', 'I', 42, 0, 0, 0, 0, 0},
        {'I', 'I', 42, 0, 2, 0, 0, 0},
        // Fewer than 8 bytes.
        {'I', 'I', 42},
    };
    for (size_t i = 0; i < hostile.size(); i++) {
        WriteFile(path, hostile[i]);
        EXPECT_EQ(SaveToFile(p, IMG_TYPE_TIFF, path), IMG_ERR_INVALID) << i;
    }
    std::remove(path.c_str());
}

TEST_F(Part2_4_TiffWriter, AShortWriteGivesMinus9)
{
    // A caller's write function that stores one byte less than asked once
    // the header is out.
    static int writes;
    writes = 0;
    struct Io {
        static int32_t IMGCDECL Read(int32_t, void *, int32_t) { return 0; }
        static int32_t IMGCDECL Write(int32_t, void *, int32_t count) { return ++writes > 1 ? count - 1 : count; }
        static int32_t IMGCDECL Seek(int32_t, int32_t offset, int32_t) { return offset; }
    };
    ASSERT_EQ(IMGLOW_set_fileio(Io::Read, Io::Write, Io::Seek), 0);
    Picture p(8, 2, 8);
    EXPECT_EQ(IMGLOW_save_bitmap(5, p.header.data(), IMG_TYPE_TIFF, PictureRows, &p), IMG_ERR_WRITE);
    writes = 0;
    EXPECT_EQ(IMGLOW_save_bitmap(5, p.header.data(), IMG_TYPE_TIFF_LZW, PictureRows, &p), IMG_ERR_WRITE);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
}

TEST_F(Part2_4_TiffWriter, RowSourceFailurePassesThrough)
{
    for (int type : {IMG_TYPE_TIFF, IMG_TYPE_TIFF_HUFFMAN, IMG_TYPE_TIFF_G3, IMG_TYPE_TIFF_LZW,
                     IMG_TYPE_TIFF_G4, IMG_TYPE_TIFF_PACKBITS, IMG_TYPE_TIFF_51}) {
        Picture p(8, 5, 1);
        p.failAtRow = 3;
        std::vector<uint8_t> f;
        EXPECT_EQ(SaveToMemory(p, type, f), IMG_ERR_STOPPED) << type;
    }
}

TEST_F(Part2_4_TiffWriter, FiveArgumentCcittWriterTakesCompression2Or3Only)
{
    Picture p(8, 2, 1);
    std::vector<uint8_t> f(4096, 0);
    ImgSetMemorySourceSized(f.data(), (uint32_t)f.size());
    EXPECT_EQ(TiffWriteCcitt1D(IMG_MEMORY_HANDLE, p.header.data(), PictureRows, &p, 4), IMG_ERR_TYPE);
    ImgSetMemorySourceSized(f.data(), (uint32_t)f.size());
    ASSERT_EQ(TiffWriteCcitt1D(IMG_MEMORY_HANDLE, p.header.data(), PictureRows, &p, 2), 0);
    EXPECT_EQ(ParseTiff(f).at(0).Value(259), 2u);
    std::fill(f.begin(), f.end(), 0);
    ImgSetMemorySourceSized(f.data(), (uint32_t)f.size());
    ASSERT_EQ(TiffWriteCcitt1D(IMG_MEMORY_HANDLE, p.header.data(), PictureRows, &p, 3), 0);
    EXPECT_EQ(ParseTiff(f).at(0).Value(259), 3u);
    EXPECT_EQ(TiffWritePage(IMG_MEMORY_HANDLE, p.header.data(), PictureRows, &p, IMG_TYPE_BMP), IMG_ERR_TYPE);
}

// ---- through the save pipeline (Part 1.5's update-open) ----

class Part1_5_SaveTiff : public TrnwTest {};

TEST_F(Part1_5_SaveTiff, SavingType0ToAnExistingTiffAppendsAPage)
{
    std::string path = TempPath("tw_pipeline.TIF");
    std::remove(path.c_str());
    int32_t h = NewImage(10, 6, 24);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> row(30);
    for (int r = 0; r < 6; r++) {
        for (int i = 0; i < 30; i++)
            row[i] = (uint8_t)(r * 40 + i);
        ASSERT_EQ(IMGLOW_put_raster(h, row.data(), r, 30), 0);
    }
    // Type -1 with an upper-case TIF: save type 0; the second save appends.
    ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_BY_EXTENSION), 0);
    ASSERT_EQ(IMG_set_croprect(h, 2, 1, 5, 3), 0);
    ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_TIFF), 0);
    auto f = ReadFile(path);
    auto ifds = ParseTiff(f);
    ASSERT_EQ(ifds.size(), 2u);
    EXPECT_EQ(ifds[0].Value(256), 10u);
    EXPECT_EQ(ifds[1].Value(256), 5u);
    EXPECT_EQ(ifds[1].Value(257), 3u);
    auto strip = Strip(f, ifds[1]);
    ASSERT_EQ(strip.size(), 45u);
    // Crop row 0 is image row 1, columns 2..6, written R,G,B.
    for (int x = 0; x < 5; x++)
        for (int c = 0; c < 3; c++)
            EXPECT_EQ(strip[3 * x + c], (uint8_t)(1 * 40 + 3 * (x + 2) + 2 - c));
    // A failed append removes the whole file (Part 1.5).
    WriteFile(path, {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 8, 0, 0, 0});
    EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_TIFF), IMG_ERR_INVALID);
    EXPECT_TRUE(ReadFile(path).empty());
    EXPECT_NE(ImgOpen(path.c_str(), 3), 0) << "deleted";
    IMG_delete_bitmap(h);
}

TEST_F(Part1_5_SaveTiff, SavingToMemoryReturnsTheByteCount)
{
    int32_t h = NewImage(16, 4, 1);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> block(4096, 0);
    ImgSetMemorySourceSized(block.data(), (uint32_t)block.size());
    int32_t n = IMG_save_bitmap_mem_size(h, block.data(), (uint32_t)block.size(), IMG_TYPE_TIFF);
    // 8 + 12 x 18 + 262 + 4 rows x 2 bytes.
    EXPECT_EQ(n, 8 + 12 * 18 + 262 + 8);
    IMG_delete_bitmap(h);
}

} // namespace
