/*
 * test_lzw_interop.cpp - Part 2.5 against libtiff and Pillow.
 *
 * Decoding: pictures of 1, 4, 8 and 24 bits are written here as plain
 * single-strip TIFFs, compressed by libtiff (`tiffcp -c lzw`, several strips)
 * and by Pillow (`compression="tiff_lzw"`); every strip of those files is
 * decoded with LzwDecodeStrip (strip offsets parsed here) and the rows must
 * equal what libtiff itself decodes (`tiffcp -c none`).
 *
 * Encoding: our LzwEncodeStrip and PackBitsEncodeRow output, wrapped here in
 * a minimal single-strip TIFF (compression 5 or 32773), must be read by
 * libtiff (`tiffcp -c none`) and Pillow to the original pixels (24 bits: our
 * rows are B,G,R; the LZW encoder sends R,G,B).
 *
 * The tools are /usr/bin/tiffcp (libtiff-tools) and /usr/bin/python3 with
 * PIL; a test skips when its tool is absent, and always under Windows.
 */
#include "test_support.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <random>

#include "codecs/lzw.h"
#include "codecs/packbits.h"
#include "core/bytes.h"

namespace {

const char *const kTiffcp = "/usr/bin/tiffcp";
const char *const kPython = "/usr/bin/python3";

bool RunQuiet(const std::string &command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTiffcp()
{
#ifdef _WIN32
    return false;
#else
    static int have = -1;
    if (have < 0)
        have = std::system("test -x /usr/bin/tiffcp") == 0;
    return have == 1;
#endif
}

bool HavePillow()
{
#ifdef _WIN32
    return false;
#else
    static int have = -1;
    if (have < 0)
        have = RunQuiet(std::string(kPython) + " -c 'import PIL.Image'");
    return have == 1;
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

/* ---- a minimal TIFF writer and parser (test side) ---- */

struct Picture {
    int32_t width = 0, height = 0;
    int bits = 8; // 1, 4, 8 or 24 (3 x 8)
    int32_t RowBytes() const { return (bits * width + 7) / 8; }
    std::vector<uint8_t> pixels; // unpadded rows, top first (24 bits: R,G,B)
};

/* One little-endian TIFF with one strip holding `strip`. */
std::vector<uint8_t> MinimalTiff(const Picture &p, int compression, const std::vector<uint8_t> &strip)
{
    int spp = p.bits == 24 ? 3 : 1;
    int bps = p.bits == 24 ? 8 : p.bits;
    int photometric = p.bits == 24 ? 2 : 1;
    const int entries = 10;
    uint32_t ifd = 8, after = ifd + 2 + entries * 12 + 4;
    uint32_t bpsOffset = after, stripOffset = after + 8;
    std::vector<uint8_t> t(stripOffset, 0);
    t[0] = 'I';
    t[1] = 'I';
    PutLE16(&t[2], 42);
    PutLE32(&t[4], ifd);
    PutLE16(&t[ifd], entries);
    uint8_t *e = &t[ifd + 2];
    auto entry = [&](uint16_t tag, uint16_t type, uint32_t count, uint32_t value) {
        PutLE16(e, tag);
        PutLE16(e + 2, type);
        PutLE32(e + 4, count);
        if (type == 3 && count == 1)
            PutLE16(e + 8, (uint16_t)value);
        else
            PutLE32(e + 8, value);
        e += 12;
    };
    entry(256, 4, 1, (uint32_t)p.width);
    entry(257, 4, 1, (uint32_t)p.height);
    entry(258, 3, (uint32_t)spp, spp == 1 ? (uint32_t)bps : bpsOffset);
    entry(259, 3, 1, (uint32_t)compression);
    entry(262, 3, 1, (uint32_t)photometric);
    entry(273, 4, 1, stripOffset);
    entry(277, 3, 1, (uint32_t)spp);
    entry(278, 4, 1, (uint32_t)p.height);
    entry(279, 4, 1, (uint32_t)strip.size());
    entry(284, 3, 1, 1);
    PutLE32(e, 0);
    for (int i = 0; i < 3; i++)
        PutLE16(&t[bpsOffset + 2 * i], 8);
    t.insert(t.end(), strip.begin(), strip.end());
    return t;
}

struct ParsedTiff {
    bool ok = false;
    uint32_t width = 0, height = 0, compression = 1, rowsPerStrip = 0, spp = 1, bps = 1;
    std::vector<uint32_t> offsets, counts;
};

/* The first IFD's geometry and strips, either byte order. */
ParsedTiff ParseTiff(const std::vector<uint8_t> &f)
{
    ParsedTiff t;
    if (f.size() < 8)
        return t;
    bool be = f[0] == 'M';
    auto g16 = [&](size_t at) -> uint32_t { return at + 2 <= f.size() ? (be ? GetBE16(&f[at]) : GetLE16(&f[at])) : 0; };
    auto g32 = [&](size_t at) -> uint32_t { return at + 4 <= f.size() ? (be ? GetBE32(&f[at]) : GetLE32(&f[at])) : 0; };
    uint32_t ifd = g32(4);
    uint32_t n = g16(ifd);
    auto values = [&](size_t e) {
        uint32_t type = g16(e + 2), count = g32(e + 4);
        uint32_t size = type == 3 ? 2 : 4;
        size_t at = count * size <= 4 ? e + 8 : g32(e + 8);
        std::vector<uint32_t> v;
        for (uint32_t i = 0; i < count; i++)
            v.push_back(size == 2 ? g16(at + 2 * i) : g32(at + 4 * i));
        return v;
    };
    t.rowsPerStrip = 0xFFFFFFFFu;
    for (uint32_t i = 0; i < n; i++) {
        size_t e = ifd + 2 + 12 * i;
        std::vector<uint32_t> v = values(e);
        if (v.empty())
            continue;
        switch (g16(e)) {
        case 256: t.width = v[0]; break;
        case 257: t.height = v[0]; break;
        case 258: t.bps = v[0]; break;
        case 259: t.compression = v[0]; break;
        case 273: t.offsets = v; break;
        case 277: t.spp = v[0]; break;
        case 278: t.rowsPerStrip = v[0]; break;
        case 279: t.counts = v; break;
        }
    }
    t.ok = t.width && t.height && !t.offsets.empty() && t.offsets.size() == t.counts.size();
    return t;
}

/* The pixel bytes of an uncompressed TIFF (all strips joined). */
std::vector<uint8_t> PlainPixels(const std::vector<uint8_t> &f)
{
    ParsedTiff t = ParseTiff(f);
    std::vector<uint8_t> out;
    if (!t.ok || t.compression != 1)
        return out;
    for (size_t s = 0; s < t.offsets.size(); s++)
        out.insert(out.end(), f.begin() + t.offsets[s], f.begin() + t.offsets[s] + t.counts[s]);
    return out;
}

int Collect(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    auto *rows = static_cast<std::vector<std::vector<uint8_t>> *>(context);
    if (rowIndex < 0 || rowIndex >= (int)rows->size())
        return -3;
    (*rows)[(size_t)rowIndex].assign(row, row + rowBytes);
    return 0;
}

/* Every strip of an LZW TIFF decoded with LzwDecodeStrip. */
std::vector<uint8_t> OurLzwPixels(std::vector<uint8_t> f, int bits)
{
    ParsedTiff t = ParseTiff(f);
    if (!t.ok || t.compression != 5)
        return {};
    int32_t rowBytes = (int32_t)((t.bps * t.spp * t.width + 7) / 8);
    uint32_t rps = std::min(t.rowsPerStrip, t.height);
    std::vector<std::vector<uint8_t>> rows(t.height);
    std::vector<uint8_t> coded(LZW_CODED_BUFFER_SIZE);
    int32_t outputSize = (bits == 1 ? 10 : 4) * rowBytes;
    std::vector<uint8_t> output((size_t)outputSize);
    if (LzwBeginImage() != 0)
        return {};
    ImgSetMemorySourceSized(f.data(), (uint32_t)f.size());
    for (size_t s = 0; s < t.offsets.size(); s++) {
        uint32_t first = (uint32_t)s * rps;
        uint32_t count = std::min(rps, t.height - first);
        ImgSeek(IMG_MEMORY_HANDLE, (int32_t)t.offsets[s], 0);
        int r = LzwDecodeStrip(IMG_MEMORY_HANDLE, coded.data(), (int32_t)first, rowBytes,
                               output.data(), outputSize, (int32_t)count, Collect, &rows);
        EXPECT_EQ(r, 1) << "strip " << s;
    }
    LzwEndImage();
    std::vector<uint8_t> all;
    for (auto &r : rows)
        all.insert(all.end(), r.begin(), r.end());
    return all;
}

/* Smooth shapes with a little noise; 1 and 4 bits take the top bits. */
Picture MakePicture(int32_t width, int32_t height, int bits, uint32_t seed)
{
    Picture p;
    p.width = width;
    p.height = height;
    p.bits = bits;
    std::mt19937 rng(seed);
    int channels = bits == 24 ? 3 : 1;
    std::vector<uint8_t> samples;
    for (int32_t y = 0; y < height; y++)
        for (int32_t x = 0; x < width; x++)
            for (int c = 0; c < channels; c++) {
                double v = 128 + 80 * std::sin((x + 20 * c) / 29.0) * std::cos(y / 17.0) + 30 * std::sin((x - y) / 53.0);
                samples.push_back((uint8_t)std::clamp(v + (int)(rng() % 7) - 3, 0.0, 255.0));
            }
    int32_t rowBytes = p.RowBytes();
    p.pixels.assign((size_t)rowBytes * height, 0);
    for (int32_t y = 0; y < height; y++) {
        uint8_t *row = &p.pixels[(size_t)y * rowBytes];
        const uint8_t *s = &samples[(size_t)y * width * channels];
        if (bits >= 8)
            std::memcpy(row, s, (size_t)rowBytes);
        else
            for (int32_t x = 0; x < width; x++) {
                uint32_t v = s[x] >> (8 - bits);
                int shift = 8 - bits - (x * bits) % 8;
                row[x * bits / 8] |= (uint8_t)(v << shift);
            }
    }
    return p;
}

struct RowsOf {
    std::vector<uint8_t> rows; // the rows the encoder is to fetch
    int32_t rowBytes;
};

int FetchRow(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    auto *r = static_cast<RowsOf *>(context);
    if (rowBytes != r->rowBytes)
        return -3;
    std::memcpy(buffer, r->rows.data() + (size_t)rowIndex * rowBytes, (size_t)rowBytes);
    return 0;
}

std::vector<uint8_t> BgrFromRgb(const Picture &p)
{
    std::vector<uint8_t> v = p.pixels;
    for (size_t i = 0; i + 2 < v.size(); i += 3)
        std::swap(v[i], v[i + 2]);
    return v;
}

/* Pillow's decoding: raw bytes of the image in its own mode. */
std::vector<uint8_t> PillowBytes(const std::string &path)
{
    std::string raw = path + ".pil.raw";
    std::remove(raw.c_str());
    std::string script = "import sys; from PIL import Image; im = Image.open(sys.argv[1]); "
                         "open(sys.argv[2], 'wb').write(im.tobytes())";
    if (!RunQuiet(std::string(kPython) + " -c \"" + script + "\" '" + path + "' '" + raw + "'"))
        return {};
    return ReadFile(raw);
}

/* libtiff's decoding of any TIFF: tiffcp -c none, joined strips. */
std::vector<uint8_t> LibtiffPixels(const std::string &path)
{
    std::string plain = path + ".none.tif";
    std::remove(plain.c_str());
    if (!RunQuiet(std::string(kTiffcp) + " -c none '" + path + "' '" + plain + "'"))
        return {};
    return PlainPixels(ReadFile(plain));
}

class Part2_5_LzwInterop : public TrnwTest {};

} // namespace

TEST_F(Part2_5_LzwInterop, LibtiffStripsDecode)
{
    if (!HaveTiffcp())
        GTEST_SKIP() << "libtiff tools (/usr/bin/tiffcp) not installed";
    for (int bits : {1, 4, 8, 24}) {
        Picture p = MakePicture(bits == 1 ? 1001 : 317, 203, bits, (uint32_t)bits);
        std::string plain = TempPath("lzw_in_" + std::to_string(bits) + ".tif");
        std::string lzw = TempPath("lzw_lt_" + std::to_string(bits) + ".tif");
        WriteFile(plain, MinimalTiff(p, 1, p.pixels));
        // Several strips, the last one shorter (203 = 3 x 64 + 11).
        ASSERT_TRUE(RunQuiet(std::string(kTiffcp) + " -c lzw -r 64 '" + plain + "' '" + lzw + "'"));
        std::vector<uint8_t> file = ReadFile(lzw);
        ParsedTiff t = ParseTiff(file);
        ASSERT_EQ(t.compression, 5u);
        ASSERT_EQ(t.offsets.size(), 4u);
        std::vector<uint8_t> theirs = LibtiffPixels(lzw);
        ASSERT_EQ(theirs, p.pixels) << bits; // libtiff's round trip, as a check of this test
        EXPECT_EQ(OurLzwPixels(file, bits), theirs) << bits;
        std::remove(plain.c_str());
        std::remove(lzw.c_str());
    }
}

TEST_F(Part2_5_LzwInterop, LibtiffLargeStripDecodes)
{
    // One strip of 600 KB of photographic rows: many Clears inside a strip
    // and many chunk refills of the bit reader.
    if (!HaveTiffcp())
        GTEST_SKIP() << "libtiff tools (/usr/bin/tiffcp) not installed";
    Picture p = MakePicture(500, 400, 24, 77);
    std::string plain = TempPath("lzw_big_in.tif"), lzw = TempPath("lzw_big_lt.tif");
    WriteFile(plain, MinimalTiff(p, 1, p.pixels));
    ASSERT_TRUE(RunQuiet(std::string(kTiffcp) + " -c lzw -r 400 '" + plain + "' '" + lzw + "'"));
    std::vector<uint8_t> file = ReadFile(lzw);
    EXPECT_EQ(OurLzwPixels(file, 24), LibtiffPixels(lzw));
    EXPECT_EQ(OurLzwPixels(file, 24), p.pixels);
    std::remove(plain.c_str());
    std::remove(lzw.c_str());
}

TEST_F(Part2_5_LzwInterop, PillowStripsDecode)
{
    if (!HavePillow() || !HaveTiffcp())
        GTEST_SKIP() << "Pillow or libtiff tools not installed";
    for (int bits : {8, 24}) {
        Picture p = MakePicture(257, 190, bits, 5);
        std::string raw = TempPath("lzw_pil_" + std::to_string(bits) + ".raw");
        std::string out = TempPath("lzw_pil_" + std::to_string(bits) + ".tif");
        WriteFile(raw, p.pixels);
        std::string mode = bits == 24 ? "RGB" : "L";
        std::string script = "import sys; from PIL import Image; "
                             "Image.frombytes('" + mode + "', (257, 190), open(sys.argv[1], 'rb').read())"
                             ".save(sys.argv[2], compression='tiff_lzw')";
        ASSERT_TRUE(RunQuiet(std::string(kPython) + " -c \"" + script + "\" '" + raw + "' '" + out + "'"));
        std::vector<uint8_t> file = ReadFile(out);
        std::vector<uint8_t> theirs = LibtiffPixels(out);
        ASSERT_EQ(theirs, p.pixels);
        EXPECT_EQ(OurLzwPixels(file, bits), theirs) << bits;
        std::remove(raw.c_str());
        std::remove(out.c_str());
    }
}

TEST_F(Part2_5_LzwInterop, OurLzwReadByLibtiffAndPillow)
{
    if (!HaveTiffcp())
        GTEST_SKIP() << "libtiff tools (/usr/bin/tiffcp) not installed";
    for (int bits : {1, 4, 8, 24}) {
        for (int32_t width : {(int32_t)(bits == 1 ? 1728 : 333), (int32_t)900}) {
            Picture p = MakePicture(width, 150, bits, (uint32_t)(bits + width));
            RowsOf rows{bits == 24 ? BgrFromRgb(p) : p.pixels, p.RowBytes()};
            std::vector<uint8_t> sink(p.pixels.size() * 2 + 4096);
            ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
            std::vector<uint8_t> header(IMG_HEADER_BLOCK_SIZE, 0);
            PutLE32(&header[0], 40);
            PutLE32(&header[4], (uint32_t)width);
            PutLE32(&header[8], 150);
            PutLE16(&header[14], (uint16_t)bits);
            ASSERT_EQ(LzwEncodeStrip(IMG_MEMORY_HANDLE, header.data(), FetchRow, &rows, 0, 150), 0);
            std::vector<uint8_t> strip(sink.begin(), sink.begin() + ImgTell());
            std::string path = TempPath("lzw_ours_" + std::to_string(bits) + ".tif");
            WriteFile(path, MinimalTiff(p, 5, strip));
            EXPECT_EQ(LibtiffPixels(path), p.pixels) << bits << " " << width;
            if (HavePillow() && bits != 4) { // Pillow widens 4-bit grey
                EXPECT_EQ(PillowBytes(path), p.pixels) << bits << " " << width;
            }
            std::remove(path.c_str());
        }
    }
}

TEST_F(Part2_5_LzwInterop, OurPackBitsReadByLibtiffAndPillow)
{
    if (!HaveTiffcp())
        GTEST_SKIP() << "libtiff tools (/usr/bin/tiffcp) not installed";
    for (int bits : {1, 8, 24}) {
        Picture p = MakePicture(bits == 1 ? 1000 : 211, 120, bits, (uint32_t)bits * 3);
        // Some runs, so that repeat packets occur.
        for (size_t i = 0; i < p.pixels.size(); i += 97)
            std::fill(p.pixels.begin() + i, p.pixels.begin() + std::min(p.pixels.size(), i + 40), 0x33);
        int32_t rowBytes = p.RowBytes();
        std::vector<uint8_t> sink(p.pixels.size() * 4 + 4096);
        ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
        std::vector<uint8_t> row((size_t)rowBytes + 2);
        for (int32_t y = 0; y < p.height; y++) {
            std::memcpy(row.data(), &p.pixels[(size_t)y * rowBytes], (size_t)rowBytes);
            ASSERT_EQ(PackBitsEncodeRow(IMG_MEMORY_HANDLE, row.data(), rowBytes), 0);
        }
        std::vector<uint8_t> strip(sink.begin(), sink.begin() + ImgTell());
        EXPECT_LT(strip.size(), p.pixels.size());
        std::string path = TempPath("pb_ours_" + std::to_string(bits) + ".tif");
        WriteFile(path, MinimalTiff(p, 32773, strip));
        EXPECT_EQ(LibtiffPixels(path), p.pixels) << bits;
        if (HavePillow()) {
            EXPECT_EQ(PillowBytes(path), p.pixels) << bits;
        }
        std::remove(path.c_str());
    }
}
