/*
 * test_ccitt_decode_interop.cpp - Part 2.1 against libtiff and netpbm.
 *
 * Pages of dense pseudo-text (1728 x 2200 and 2550 x 3300, with words of
 * glyph-like strokes, rules, solid blocks and long runs of either colour)
 * are written here as PBM, turned into an uncompressed TIFF by ImageMagick
 * or netpbm, then coded at test time by libtiff's `tiffcp -c g3`,
 * `-c g3:2d` and `-c g4` with both fill orders, in one strip and in strips
 * of 64 rows.  The strips are taken out of the TIFF here (the TIFF reader is
 * not used) and decoded with our decoders in the modes the TIFF reader
 * would use (3, 45, 4; whiteIsZero from the photometric tag); the rows must
 * equal what `tifftopnm` decodes from the same file.  netpbm `pbmtog3`
 * output decoded by IMG_decompress_fax (type 3, height 0) equals the PBM.
 * Tests skip when a tool is absent, and under Windows.
 */
#include "test_support.h"

#include <cctype>
#include <fstream>
#include <iterator>

#include "codecs/ccitt_decode.h"

namespace {

bool RunQuiet(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTool(const char *path)
{
#ifdef _WIN32
    (void)path;
    return false;
#else
    return RunQuiet(std::string("test -x ") + path);
#endif
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
}

// A bilevel page: packed rows, 1 = black (PBM sense).
struct Page {
    int width = 0, height = 0, stride = 0;
    std::vector<uint8_t> bits;
    void Ink(int x0, int y0, int x1, int y1)
    {
        for (int y = std::max(y0, 0); y < std::min(y1, height); y++)
            for (int x = std::max(x0, 0); x < std::min(x1, width); x++)
                bits[(size_t)y * stride + x / 8] |= (uint8_t)(0x80 >> (x % 8));
    }
};

// Dense pseudo-text: lines of words made of glyph-like strokes, a few rules
// and solid blocks (long black runs of many lengths), margins of white.
Page MakePage(int width, int height, uint32_t seed)
{
    Page p;
    p.width = width;
    p.height = height;
    p.stride = (width + 7) / 8;
    p.bits.assign((size_t)p.stride * height, 0);
    auto random = [&seed]() {
        seed = seed * 1103515245u + 12345u;
        return (int)((seed >> 16) & 0x7FFF);
    };
    int margin = width / 20;
    for (int line = margin; line + 30 < height - margin; line += 34) {
        if (random() % 23 == 0)
            continue; // a blank line
        int x = margin + random() % 40;
        while (x < width - margin - 40) {
            int letters = 2 + random() % 9;
            for (int l = 0; l < letters && x < width - margin - 20; l++) {
                int shape = random() % 6, w = 10 + random() % 8;
                int top = line + (shape == 5 ? 0 : 8), bottom = line + 26 + (shape == 4 ? 6 : 0);
                p.Ink(x, top, x + 3, bottom);                    // stem
                if (shape & 1)
                    p.Ink(x, top, x + w, top + 3);               // top bar
                if (shape & 2)
                    p.Ink(x, bottom - 3, x + w, bottom);         // bottom bar
                if (shape >= 3)
                    p.Ink(x + w - 3, top + 4, x + w, bottom - 4); // right stem
                x += w + 4;
            }
            x += 14 + random() % 10;
        }
        if (random() % 17 == 0)
            p.Ink(margin, line + 31, width - margin, line + 33); // a rule
    }
    for (int b = 0; b < 8; b++) { // solid blocks of many widths
        int x0 = random() % (width / 2), w = 1 + random() % (width - x0);
        int y0 = random() % (height - 40);
        p.Ink(x0, y0, x0 + w, y0 + 5 + random() % 30);
    }
    p.Ink(0, height - 12, width, height - 4); // full-width black rows
    return p;
}

void WritePbm(const std::string &path, const Page &p)
{
    std::string header = "P4\n" + std::to_string(p.width) + " " + std::to_string(p.height) + "\n";
    std::vector<uint8_t> bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), p.bits.begin(), p.bits.end());
    WriteFile(path, bytes);
}

bool ReadPbm(const std::string &path, Page &p)
{
    std::vector<uint8_t> data = ReadFile(path);
    size_t pos = 0;
    auto token = [&]() {
        std::string t;
        while (pos < data.size()) {
            char ch = (char)data[pos];
            if (ch == '#') {
                while (pos < data.size() && data[pos] != '\n')
                    pos++;
            } else if (std::isspace((unsigned char)ch)) {
                if (!t.empty())
                    break;
                pos++;
            } else {
                t += ch;
                pos++;
            }
        }
        return t;
    };
    if (token() != "P4")
        return false;
    p.width = std::atoi(token().c_str());
    p.height = std::atoi(token().c_str());
    pos++; // the single white space before the raster
    p.stride = (p.width + 7) / 8;
    if (p.width < 1 || data.size() < pos + (size_t)p.stride * p.height)
        return false;
    p.bits.assign(data.begin() + (long)pos, data.begin() + (long)pos + (long)p.stride * p.height);
    return true;
}

// The tags of the first IFD a CCITT strip decode needs.
struct Tiff {
    int width = 0, height = 0, compression = 1, photometric = 0, fillOrder = 1, t4 = 0;
    int rowsPerStrip = 0;
    std::vector<uint32_t> offsets, counts;
};

bool ParseTiff(const std::vector<uint8_t> &d, Tiff &t)
{
    if (d.size() < 8)
        return false;
    bool big = d[0] == 'M';
    auto u16 = [&](size_t o) -> uint32_t {
        return big ? (uint32_t)(d[o] << 8 | d[o + 1]) : (uint32_t)(d[o] | d[o + 1] << 8);
    };
    auto u32 = [&](size_t o) -> uint32_t {
        return big ? (u16(o) << 16 | u16(o + 2)) : (u16(o) | u16(o + 2) << 16);
    };
    size_t ifd = u32(4);
    int n = (int)u16(ifd);
    t.rowsPerStrip = 0;
    for (int i = 0; i < n; i++) {
        size_t e = ifd + 2 + 12 * (size_t)i;
        uint32_t tag = u16(e), type = u16(e + 2), count = u32(e + 4);
        auto value = [&](uint32_t k) -> uint32_t {
            size_t size = type == 3 ? 2 : 4;
            size_t at = count * size <= 4 ? e + 8 + k * size : u32(e + 8) + k * size;
            return type == 3 ? u16(at) : u32(at);
        };
        switch (tag) {
        case 256: t.width = (int)value(0); break;
        case 257: t.height = (int)value(0); break;
        case 259: t.compression = (int)value(0); break;
        case 262: t.photometric = (int)value(0); break;
        case 266: t.fillOrder = (int)value(0); break;
        case 278: t.rowsPerStrip = (int)value(0); break;
        case 292: t.t4 = (int)value(0); break;
        case 273:
            for (uint32_t k = 0; k < count; k++)
                t.offsets.push_back(value(k));
            break;
        case 279:
            for (uint32_t k = 0; k < count; k++)
                t.counts.push_back(value(k));
            break;
        }
    }
    if (!t.rowsPerStrip)
        t.rowsPerStrip = t.height;
    return t.width > 0 && t.height > 0 && !t.offsets.empty() && t.offsets.size() == t.counts.size();
}

struct Sink {
    Page *page;
    bool invert; // records give 1-bits for white; PBM wants 1 for black
};

int PageSink(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    Sink *s = static_cast<Sink *>(context);
    Page &p = *s->page;
    if (rowIndex < 0 || rowIndex >= p.height)
        return IMG_ERR_INVALID;
    uint8_t *out = &p.bits[(size_t)rowIndex * p.stride];
    RunExpandRow(reinterpret_cast<const uint16_t *>(row), (uint32_t)rowBytes, p.width, out,
                 (uint32_t)p.stride);
    for (int i = 0; i < p.stride; i++)
        out[i] = (uint8_t)~out[i];
    if (p.width % 8)
        out[p.stride - 1] &= (uint8_t)(0xFF00 >> (p.width % 8));
    return 0;
}

// Decodes every strip of the TIFF with our decoders as the TIFF reader
// would call them; the page's rows (PBM sense).  Returns the last result.
int DecodeTiff(const std::vector<uint8_t> &file, const Tiff &t, Page &page)
{
    page.width = t.width;
    page.height = t.height;
    page.stride = (t.width + 7) / 8;
    page.bits.assign((size_t)page.stride * t.height, 0);
    Sink sink{&page, true};
    CcittParameters p{};
    p.width = (uint16_t)t.width;
    p.height = t.height;
    p.rowsPerStrip = t.rowsPerStrip;
    p.fillOrder = t.fillOrder;
    p.whiteIsZero = t.photometric == 0 ? 1 : 0;
    p.mode = t.compression == 4 ? 4 : t.compression == 3 && (t.t4 & 1) ? 45 : t.compression;
    std::vector<uint8_t> buffer(CCITT_CHUNK + 300);
    int result = 0;
    for (size_t s = 0; s < t.offsets.size() && result >= 0; s++) {
        int32_t first = (int32_t)s * t.rowsPerStrip;
        int32_t rows = std::min(t.rowsPerStrip, t.height - first);
        std::vector<uint8_t> strip(file.begin() + t.offsets[s],
                                   file.begin() + t.offsets[s] + t.counts[s]);
        strip.push_back(0);
        ImgSetMemorySourceSized(strip.data(), t.counts[s]);
        if (p.mode == 4)
            result = CcittDecodeG4(buffer.data(), rows, first, &p, IMG_MEMORY_HANDLE, PageSink, &sink);
        else if (p.mode == 45)
            result = CcittDecode2D(buffer.data(), rows, first, &p, IMG_MEMORY_HANDLE, PageSink, &sink);
        else
            result = CcittDecode1D(buffer.data(), rows, first, &p, IMG_MEMORY_HANDLE, PageSink, &sink);
    }
    return result;
}

// Counts differing rows; reports the first.
int CompareRows(const Page &a, const Page &b, const std::string &what)
{
    if (a.width != b.width || a.height != b.height) {
        ADD_FAILURE() << what << ": size " << a.width << "x" << a.height << " vs " << b.width
                      << "x" << b.height;
        return -1;
    }
    int bad = 0;
    for (int y = 0; y < a.height; y++)
        if (std::memcmp(&a.bits[(size_t)y * a.stride], &b.bits[(size_t)y * b.stride],
                        (size_t)a.stride) != 0 && bad++ == 0)
            ADD_FAILURE() << what << ": first differing row " << y;
    return bad;
}

class Part2_1_CcittDecoderInterop : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
        if (!HaveTool("/usr/bin/tiffcp") || !HaveTool("/usr/bin/tifftopnm") ||
            !HaveTool("/usr/bin/pnmtotiff"))
            GTEST_SKIP() << "libtiff tools or netpbm not installed";
    }

    // A page coded by libtiff with `options`, decoded by us and by tifftopnm.
    void CheckTiffcp(const Page &page, const std::string &name, const std::string &options,
                     const std::string &toTiff, int expectCompression, int expectMode)
    {
        std::string pbm = TempPath(name + ".pbm"), plain = TempPath(name + ".plain.tif"),
                    coded = TempPath(name + ".coded.tif"), back = TempPath(name + ".back.pbm");
        WritePbm(pbm, page);
        ASSERT_TRUE(RunQuiet("(" + toTiff + " '" + pbm + "' > '" + plain + "')")) << toTiff;
        ASSERT_TRUE(RunQuiet("/usr/bin/tiffcp " + options + " '" + plain + "' '" + coded + "'"))
            << options;
        ASSERT_TRUE(
            RunQuiet("(/usr/bin/tifftopnm -respectfillorder '" + coded + "' > '" + back + "')"));
        std::vector<uint8_t> file = ReadFile(coded);
        Tiff t;
        ASSERT_TRUE(ParseTiff(file, t));
        EXPECT_EQ(t.compression, expectCompression);
        Page expected, ours;
        ASSERT_TRUE(ReadPbm(back, expected));
        int mode = t.compression == 4 ? 4 : (t.t4 & 1) ? 45 : 3;
        EXPECT_EQ(mode, expectMode);
        ASSERT_EQ(DecodeTiff(file, t, ours), 0) << options;
        std::string what = name + " (" + options + ", " + toTiff + ")";
        EXPECT_EQ(CompareRows(ours, expected, what), 0);
        EXPECT_EQ(CompareRows(ours, page, what + " vs the page"), 0);
        for (const std::string &f : {pbm, plain, coded, back})
            std::remove(f.c_str());
    }
};

const char *const kMinIsWhite = "/usr/bin/pnmtotiff -miniswhite";
const char *const kMinIsBlack = "/usr/bin/pnmtotiff -minisblack";

} // namespace

TEST_F(Part2_1_CcittDecoderInterop, LibtiffGroup3OneDimensional)
{
    Page page = MakePage(1728, 2200, 1);
    for (const char *fill : {"lsb2msb", "msb2lsb"})
        CheckTiffcp(page, std::string("g3_") + fill, std::string("-c g3 -r 100000 -f ") + fill,
                    kMinIsWhite, 3, 3);
    CheckTiffcp(page, "g3_strips", "-c g3 -r 64", kMinIsWhite, 3, 3);
}

TEST_F(Part2_1_CcittDecoderInterop, LibtiffGroup3TwoDimensional)
{
    Page page = MakePage(1728, 2200, 2);
    for (const char *fill : {"lsb2msb", "msb2lsb"})
        CheckTiffcp(page, std::string("g32d_") + fill,
                    std::string("-c g3:2d -r 100000 -f ") + fill, kMinIsWhite, 3, 45);
    // Strips of 64 rows: each call continues the previous strip's reference.
    CheckTiffcp(page, "g32d_strips", "-c g3:2d -r 64", kMinIsWhite, 3, 45);
}

TEST_F(Part2_1_CcittDecoderInterop, LibtiffGroup4)
{
    Page page = MakePage(2550, 3300, 3);
    for (const char *fill : {"lsb2msb", "msb2lsb"})
        CheckTiffcp(page, std::string("g4_") + fill, std::string("-c g4 -r 100000 -f ") + fill,
                    kMinIsWhite, 4, 4);
    CheckTiffcp(page, "g4_strips", "-c g4 -r 64", kMinIsWhite, 4, 4);
}

TEST_F(Part2_1_CcittDecoderInterop, LibtiffMinIsBlackGivesTheLeadingZeroForm)
{
    // Photometric 1: whiteIsZero 0 in 1-D and Group 4 (a leading 0 in every
    // record); the rows still equal what tifftopnm decodes.
    Page page = MakePage(1728, 600, 4);
    CheckTiffcp(page, "g4_black", "-c g4 -r 100000", kMinIsBlack, 4, 4);
    CheckTiffcp(page, "g3_black", "-c g3 -r 100000", kMinIsBlack, 3, 3);
}

TEST_F(Part2_1_CcittDecoderInterop, PbmtoG3DecodedByDecompressFax)
{
    if (!HaveTool("/usr/bin/pbmtog3"))
        GTEST_SKIP() << "netpbm pbmtog3 not installed";
    Page page = MakePage(1728, 2200, 5);
    std::string pbm = TempPath("fax.pbm"), g3 = TempPath("fax.g3");
    WritePbm(pbm, page);
    ASSERT_TRUE(RunQuiet("(/usr/bin/pbmtog3 '" + pbm + "' > '" + g3 + "')"));
    std::vector<uint8_t> data = ReadFile(g3);
    ASSERT_GT(data.size(), 1000u);
    // The page's 2200 rows are more than height 0's 2048: the height is given.
    int32_t h = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 1728, 2200, 3, 1);
    ASSERT_GE(h, 0);
    ImgDescriptor *d = ImgTableGet(h);
    Page ours;
    ours.width = d->width;
    ours.height = d->height;
    ours.stride = (d->width + 7) / 8;
    ours.bits.assign((size_t)ours.stride * ours.height, 0);
    Sink sink{&ours, true};
    for (int y = 0; y < d->height; y++) {
        uint32_t bytes;
        const uint16_t *rec = RunStoreRow(d, y, &bytes);
        ASSERT_NE(rec, nullptr);
        PageSink(reinterpret_cast<const uint8_t *>(rec), &sink, y, (int)bytes);
    }
    EXPECT_EQ(CompareRows(ours, page, "pbmtog3 type 3"), 0);
    IMG_delete_bitmap(h);

    // A shorter page with height 0: the RTC ends it and its rows become the height.
    Page small = MakePage(1728, 700, 6);
    WritePbm(pbm, small);
    ASSERT_TRUE(RunQuiet("(/usr/bin/pbmtog3 '" + pbm + "' > '" + g3 + "')"));
    data = ReadFile(g3);
    h = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 1728, 0, 3, 1);
    ASSERT_GE(h, 0);
    EXPECT_EQ(ImgTableGet(h)->height, 700);
    IMG_delete_bitmap(h);
    std::remove(pbm.c_str());
    std::remove(g3.c_str());
}
