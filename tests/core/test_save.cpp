/* The save pipeline: the header copy handed to a writer, the brightness and
 * contrast table, the row source (plain and run-coded images, any order, the
 * crop rectangle, progress), the dispatch of IMG_save_bitmap and its
 * siblings, safe saves.  Saved BMPs are read back through their file header. */
#include "support/support.h"

#include <cmath>
#include <filesystem>
#include <functional>
#include <tuple>

namespace {

class Save : public TrnwTest {
  protected:
    void TearDown() override
    {
        IMG_set_statusbar(0, nullptr, 0);
        TrnwTest::TearDown();
    }
};

// A library image of a random picture (kept in *picture) at 300 x 200 dots
// per inch.
int32_t NewPicture(int32_t w, int32_t h, int bits, Picture *picture = nullptr)
{
    Picture p = RandomPicture(w, h, bits, (uint32_t)(w * 31 + bits));
    int32_t handle = ImageOf(p);
    auto *header = reinterpret_cast<BITMAPINFOHEADER *>(ImgTableGet(handle)->dib);
    header->biXPelsPerMeter = 300; // dots per inch inside the library
    header->biYPelsPerMeter = 200;
    if (picture)
        *picture = p;
    return handle;
}

// A saved BMP file read through its headers; rows bottom first in the bytes.
struct Bmp {
    std::vector<uint8_t> b;
    int32_t width = 0, height = 0, bits = 0, xRes = 0, yRes = 0;
    size_t pixels = 0, stride = 0;
    explicit Bmp(std::vector<uint8_t> bytes) : b(std::move(bytes))
    {
        if (b.size() < 54 || b[0] != 'B' || b[1] != 'M')
            return;
        width = (int32_t)GetLE32(&b[18]), height = (int32_t)GetLE32(&b[22]), bits = GetLE16(&b[28]);
        xRes = (int32_t)GetLE32(&b[38]), yRes = (int32_t)GetLE32(&b[42]);
        pixels = GetLE32(&b[10]), stride = DibStride((uint32_t)width, bits);
        if (b.size() < pixels + stride * (size_t)height)
            width = height = 0;
    }
    const uint8_t *Row(int32_t y) const { return &b[pixels + (size_t)(height - 1 - y) * stride]; }
    std::vector<uint8_t> Palette() const { return std::vector<uint8_t>(&b[54], &b[pixels]); }
};

// A block of the library's allocator, so that IMG_save_bitmap_mem knows its size.
struct Block {
    uint8_t *p;
    explicit Block(size_t n) : p(static_cast<uint8_t *>(ImgAlloc(n))) { std::memset(p, 0xEE, n); }
    ~Block() { ImgFree(p); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
};

Bmp SaveToMemory(int32_t handle, int32_t *result)
{
    Block block(1 << 20);
    *result = IMG_save_bitmap_mem(handle, block.p, IMG_TYPE_BMP);
    return Bmp(*result > 0 ? std::vector<uint8_t>(block.p, block.p + *result) : std::vector<uint8_t>());
}

Bmp SaveToFile(int32_t handle, int32_t *result)
{
    std::string path = TempPath("save_out.bmp");
    *result = IMG_save_bitmap(handle, path.c_str(), IMG_TYPE_BMP);
    Bmp bmp(*result < 0 ? std::vector<uint8_t>() : ReadFile(path));
    std::remove(path.c_str());
    return bmp;
}

// Every pixel of a saved crop against the picture from column x0, row y0.
void ExpectPixels(const Bmp &bmp, const Picture &p, int32_t x0, int32_t y0, int32_t w, int32_t h)
{
    const int bits = p.bits;
    ASSERT_EQ(bmp.width, w);
    ASSERT_EQ(bmp.height, h);
    ASSERT_EQ(bmp.bits, bits);
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++)
            ASSERT_EQ(RowPixel(bmp.Row(y), x, bits), RowPixel(p.rows[(size_t)(y0 + y)].data(), x0 + x, bits)) << x << "," << y;
}

// The brightness and contrast table worked out naively in double precision:
// v = (i / 255)^(100 / gamma) * 255 + brightness, scaled by 2 * (contrast +
// 128) / 255, truncated toward zero, less the contrast, clamped to 0..255.
std::array<uint8_t, 256> NaiveTable(int32_t brightness, int32_t contrast, double gamma = 100)
{
    std::array<uint8_t, 256> table{};
    for (int i = 0; i < 256; i++) {
        double v = (std::pow(i / 255.0, 100.0 / gamma) * 255.0 + brightness) * (2.0 * (contrast + 128)) / 255.0;
        table[(size_t)i] = (uint8_t)std::clamp((long long)v - contrast, 0LL, 255LL);
    }
    return table;
}

// A writer registered in place of a type's writer that records the header copy.
int probeCalls;
std::vector<uint8_t> probeHeader;
int ProbeWriter(int, uint8_t *header, ImgRowSource, void *)
{
    probeCalls++;
    probeHeader.assign(header, header + IMG_HEADER_BLOCK_SIZE);
    return 0;
}

int32_t progressCalls;
std::vector<std::pair<int32_t, int32_t>> progressSeen;

} // namespace

extern "C" int32_t IMGAPI Progress(int32_t value, int32_t total)
{
    progressCalls++;
    progressSeen.emplace_back(value, total);
    return 0;
}

namespace {

TEST_F(Save, HeaderCopyCarriesCropSizeDepthPaletteResolution)
{
    Picture p;
    int32_t h = NewPicture(30, 20, 8, &p);
    ASSERT_EQ(IMG_set_croprect(h, 3, 4, 10, 7), 0);
    ImgWriter previous = RegistrySetWriterForTest(IMG_TYPE_WPG, ProbeWriter);
    std::string path = TempPath("headercopy.wpg");
    std::vector<uint8_t> block(4096);
    for (int file = 0; file < 2; file++) {
        SCOPED_TRACE(file ? "file" : "memory");
        probeCalls = 0;
        EXPECT_EQ(file ? IMG_save_bitmap(h, path.c_str(), IMG_TYPE_WPG)
                       : IMG_save_bitmap_mem_size(h, block.data(), 4096, IMG_TYPE_WPG), 0);
        ASSERT_EQ(probeCalls, 1);
        BITMAPINFOHEADER hd;
        std::memcpy(&hd, probeHeader.data(), 40);
        // The crop's size, the image's depth, dots per inch, no transparent colour.
        using H = std::tuple<uint32_t, int32_t, int32_t, uint16_t, int32_t, int32_t, uint32_t>;
        EXPECT_EQ(H(hd.biSize, hd.biWidth, hd.biHeight, hd.biBitCount, hd.biXPelsPerMeter, hd.biYPelsPerMeter, hd.biClrUsed),
                  H(40, 10, 7, 8, 300, 200, 0));
        EXPECT_EQ(std::vector<uint8_t>(probeHeader.begin() + 40, probeHeader.begin() + 40 + 1024), p.palette);
    }
    RegistrySetWriterForTest(IMG_TYPE_WPG, previous);
    std::remove(path.c_str());
}

// Below 24 bits the adjustment goes to the saved palette and the indices stay;
// at 24 and 32 bits every byte of the row goes through the table.  The image
// itself, its palette and its settings are left as they were.
TEST_F(Save, BrightnessContrastAdjustPaletteOrRowBytes)
{
    struct Case {
        int bits;
        int32_t contrast, brightness, gamma;
    } cases[] = {{8, 0, 20, 0}, {24, 30, -10, 0}, {32, 30, -10, 0}, {8, 15, 25, 170}};
    for (const Case &c : cases) {
        for (int file = 0; file < 2; file++) {
            SCOPED_TRACE(std::to_string(c.bits) + " bits, gamma " + std::to_string(c.gamma) + (file ? " file" : " memory"));
            Picture p;
            int32_t h = NewPicture(21, 9, c.bits, &p);
            ASSERT_EQ(IMG_set_lut(h, c.contrast, c.brightness), 0);
            if (c.gamma) {
                ASSERT_EQ(IMG_set_gamma(h, (uint32_t)c.gamma), 0);
            }
            ASSERT_EQ(IMG_set_croprect(h, 2, 1, 15, 6), 0);
            ImgDescriptor *d = ImgTableGet(h);
            uint8_t *const block = d->dib;
            const std::vector<uint8_t> dib(d->dib, d->dib + d->dibSize), palette = p.palette;
            int32_t result = -99;
            Bmp bmp = file ? SaveToFile(h, &result) : SaveToMemory(h, &result);
            ASSERT_EQ(result, file ? 0 : (int32_t)bmp.b.size());
            ASSERT_EQ(bmp.width, 15);
            ASSERT_EQ(bmp.height, 6);
            auto table = NaiveTable(c.brightness, c.contrast); // a save works at gamma 100
            if (c.bits == 8) {
                std::vector<uint8_t> saved = bmp.Palette();
                ASSERT_EQ(saved.size(), 1024u);
                for (size_t i = 0; i < 1024; i++)
                    ASSERT_EQ(saved[i], i % 4 == 3 ? palette[i] : table[palette[i]]) << "palette byte " << i;
                ExpectPixels(bmp, p, 2, 1, 15, 6);
            } else {
                for (int32_t y = 0; y < 6; y++)
                    for (int32_t x = 0; x < 15 * c.bits / 8; x++)
                        ASSERT_EQ(bmp.Row(y)[x], table[p.rows[(size_t)(1 + y)][(size_t)(2 * c.bits / 8 + x)]])
                            << "byte " << x << " of row " << y;
            }
            d = ImgTableGet(h);
            EXPECT_EQ(std::vector<uint8_t>(d->dib, d->dib + d->dibSize), dib);
            EXPECT_EQ(d->dib, block);
            EXPECT_EQ(d->gamma, c.gamma ? (uint32_t)c.gamma : 150u);
            using S = std::tuple<int32_t, int32_t, int32_t, int32_t>;
            EXPECT_EQ(S(d->contrast, d->brightness, d->codedRows, d->cropWidth), S(c.contrast, c.brightness, 0, 15));
            IMG_delete_bitmap(h);
        }
    }
}

// A 10 x 10 crop at x, 5 saves exactly those pixels where the offset is
// exact and from a run-coded 1-bit image (-1 below: its rows come through
// run extraction at any column); plain 1- and 4-bit rows start at the offset
// rounded up to a whole byte.  The resolution becomes
// pixels per metre (300 dpi * 39.37 + 0.5 = 11811).
TEST_F(Save, CropSavesExactlyItsPixels)
{
    for (int depth : {8, 16, 24, 32, -1, 1, 4})
        for (int32_t cropX : {0, 2, 3, 5, 7, 8, 11, 14}) {
            SCOPED_TRACE(std::to_string(depth) + " bits, crop x " + std::to_string(cropX));
            const int bits = depth < 0 ? 1 : depth;
            Picture p;
            int32_t h = NewPicture(32, 20, bits, &p);
            if (depth < 0) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            ASSERT_EQ(IMG_set_croprect(h, cropX, 5, 10, 10), 0);
            int32_t result = -99;
            Bmp bmp = SaveToFile(h, &result);
            ASSERT_EQ(result, 0);
            int32_t first = depth == 1 ? (cropX + 7) / 8 * 8 : depth == 4 ? (cropX + 1) / 2 * 2 : cropX;
            ExpectPixels(bmp, p, first, 5, 10, 10);
            EXPECT_EQ(bmp.xRes, 11811);
            EXPECT_EQ(bmp.yRes, 7874);
            IMG_delete_bitmap(h);
        }
}

// One progress call per row of the crop rectangle, each with the value and
// the stored image height; switched off, none.
TEST_F(Save, ProgressOncePerRowWithImageHeight)
{
    Picture p;
    int32_t h = NewPicture(10, 12, 8, &p);
    ASSERT_EQ(IMG_set_croprect(h, 1, 3, 6, 5), 0);
    progressCalls = 0;
    progressSeen.clear();
    IMG_set_statusbar(77, Progress, 1);
    int32_t result = -99;
    ExpectPixels(SaveToMemory(h, &result), p, 1, 3, 6, 5);
    const std::vector<std::pair<int32_t, int32_t>> expected(5, {77, 12});
    EXPECT_EQ(progressSeen, expected);
    IMG_set_statusbar(0, nullptr, 0);
    progressCalls = 0;
    SaveToMemory(h, &result);
    EXPECT_GT(result, 0);
    EXPECT_EQ(progressCalls, 0);
}

int rowsAsked;
int32_t IMGCDECL CountingSource(void *, uint8_t *, int32_t, int32_t)
{
    rowsAsked++;
    return 0;
}

// Refused saves through every entry point: a bad handle (-13) is found before
// a file is made; an unknown type or a crop outside the image gives -7, and an
// unknown type frees the tracked allocations.  Nothing is written anywhere.
TEST_F(Save, RefusedSavesWriteNothing)
{
    ASSERT_EQ(NewPicture(20, 20, 8), 0);
    ASSERT_EQ(NewPicture(20, 20, 8), 1);
    ASSERT_EQ(IMG_delete_bitmap(0), 0); // slot 0 empty inside the table
    const std::string path = TempPath("refused.bmp"), fdPath = TempPath("refused_fd.bmp");
    std::remove(path.c_str());
    int fd = ImgOpen(fdPath.c_str(), 2);
    ASSERT_GE(fd, 0);
    Block block(4096);
    const std::vector<std::pair<const char *, std::function<int32_t(int32_t, int32_t)>>> entries = {
        {"file", [&](int32_t h, int32_t t) { return IMG_save_bitmap(h, path.c_str(), t); }},
        {"fd", [&](int32_t h, int32_t t) { return IMG_save_bitmap_fd(h, fd, t); }},
        {"mem", [&](int32_t h, int32_t t) { return IMG_save_bitmap_mem(h, block.p, t); }},
        {"mem_size", [&](int32_t h, int32_t t) { return IMG_save_bitmap_mem_size(h, block.p, 4096, t); }},
    };
    struct Case {
        int32_t handle, type, crop[4], expected;
    } cases[] = {
        {-1, 1, {0, 0, 20, 20}, IMG_ERR_HANDLE}, {2, 1, {0, 0, 20, 20}, IMG_ERR_HANDLE},
        {0, 1, {0, 0, 20, 20}, IMG_ERR_HANDLE},  {1, 999, {0, 0, 20, 20}, IMG_ERR_TYPE},
        {1, 1, {20, 0, 5, 5}, IMG_ERR_TYPE},     {1, 1, {0, 20, 5, 5}, IMG_ERR_TYPE},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(IMG_set_croprect(1, c.crop[0], c.crop[1], c.crop[2], c.crop[3]), 0);
        for (const auto &entry : entries) {
            SCOPED_TRACE(std::string(entry.first) + " handle " + std::to_string(c.handle) + " type " +
                         std::to_string(c.type) + " crop x " + std::to_string(c.crop[0]));
            ASSERT_NE(ImgAllocTracked(64), nullptr);
            EXPECT_EQ(entry.second(c.handle, c.type), c.expected);
            if (c.type == 999) {
                EXPECT_EQ(ImgTrackedCount(), 0);
            }
            ImgFreeAllTracked();
            EXPECT_TRUE(ReadFile(path).empty()) << "no file is made";
            std::remove(path.c_str());
        }
    }
    ASSERT_EQ(IMG_set_croprect(1, 1, 0, 19, 20), 0);
    ImgTableGet(1)->cropWidth = 20; // past the right edge, which IMG_set_croprect never stores
    EXPECT_EQ(IMG_save_bitmap_mem_size(1, block.p, 4096, IMG_TYPE_BMP), IMG_ERR_TYPE);
    EXPECT_EQ(ImgFileSize(fd), 0);
    EXPECT_EQ(std::vector<uint8_t>(block.p, block.p + 4096), std::vector<uint8_t>(4096, 0xEE));
    ImgClose(fd);
    std::remove(fdPath.c_str());

    // The low-level dispatchers: no row is asked for an unknown type.
    std::vector<uint8_t> header(IMG_HEADER_BLOCK_SIZE, 0);
    rowsAsked = 0;
    ASSERT_NE(ImgAllocTracked(100), nullptr);
    EXPECT_EQ(IMGLOW_save_bitmap(IMG_MEMORY_HANDLE, header.data(), 999, CountingSource, nullptr), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_save_bitmap_mem(block.p, header.data(), 999, CountingSource, nullptr), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
    EXPECT_EQ(rowsAsked, 0);
}

// A file held here behind the caller's I/O functions; write number `failing`
// stores one byte less than asked.
struct FakeFile { std::vector<uint8_t> bytes; size_t at = 0; int writes = 0, failing = -1; } fake;
int32_t IMGCDECL FakeRead(int32_t, void *buffer, int32_t count)
{
    size_t n = std::min((size_t)count, fake.bytes.size() - std::min(fake.at, fake.bytes.size()));
    if (n)
        std::memcpy(buffer, fake.bytes.data() + fake.at, n);
    return fake.at += n, (int32_t)n;
}
int32_t IMGCDECL FakeWrite(int32_t, void *buffer, int32_t count)
{
    size_t n = (size_t)count - (++fake.writes == fake.failing);
    fake.bytes.resize(std::max(fake.bytes.size(), fake.at + n));
    if (n)
        std::memcpy(fake.bytes.data() + fake.at, buffer, n);
    return fake.at += n, (int32_t)n;
}
int32_t IMGCDECL FakeSeek(int32_t, int32_t offset, int32_t whence)
{
    fake.at = (size_t)((whence == 0 ? 0 : whence == 1 ? (int64_t)fake.at : (int64_t)fake.bytes.size()) + offset);
    return (int32_t)fake.at;
}

// Every writer ends its save with a negative code when any one of its writes
// stores less than asked (EPS writes the lines before its rows unchecked:
// tests/formats/test_eps.cpp), and with -1, nothing tracked left behind,
// when any one of its allocations fails.
TEST_F(Save, EveryWriterReportsAFailedWriteOrAllocation)
{
    const std::pair<int32_t, int> types[] = {
        {IMG_TYPE_BMP, 8},          {IMG_TYPE_BMP_COMPRESSED, 8}, {IMG_TYPE_BMP_COMPRESSED, 4}, {IMG_TYPE_DIB, 24},
        {IMG_TYPE_TIFF, 24},        {IMG_TYPE_TIFF_LZW, 8},       {IMG_TYPE_TIFF_G4, 1},        {IMG_TYPE_TIFF_G3, 1},
        {IMG_TYPE_TIFF_PACKBITS, 1}, {IMG_TYPE_TIFF_HUFFMAN, 1},  {IMG_TYPE_PCX, 4},            {IMG_TYPE_DCX, 8},
        {IMG_TYPE_TGA, 8},          {IMG_TYPE_TGA2, 24},          {IMG_TYPE_GIF, 8},            {IMG_TYPE_GIF_INTERLACED, 4},
        {IMG_TYPE_XBM, 1},          {IMG_TYPE_XPM, 8},            {IMG_TYPE_CALS, 1},           {IMG_TYPE_FAX_G3, 1},
        {IMG_TYPE_FAX_G4_B, 1},     {IMG_TYPE_PNG, 8},            {IMG_TYPE_PNG, 24}};
    IMGLOW_set_fileio(FakeRead, FakeWrite, FakeSeek);
    for (auto [type, bits] : types) {
        SCOPED_TRACE(type);
        int32_t h = ImageOf(MakePicture(40, 12, bits, 3));
        fake = FakeFile();
        ASSERT_EQ(IMG_save_bitmap_fd(h, 7, type), 0);
        for (int n = 1, writes = fake.writes; n <= writes; n++) {
            fake = FakeFile();
            fake.failing = n;
            EXPECT_LT(IMG_save_bitmap_fd(h, 7, type), 0) << "write " << n << " of " << writes;
        }
        for (int n = 0, result = -1; result < 0; n++) {
            fake = FakeFile();
            ImgTestFailAllocations(n);
            result = IMG_save_bitmap_fd(h, 7, type);
            ImgTestFailAllocations(-1);
            ASSERT_TRUE(result == 0 || result == IMG_ERR_MEMORY) << "allocation " << n << ": " << result;
            EXPECT_EQ(ImgTrackedCount(), 0);
        }
        IMG_delete_bitmap(h);
    }
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
}

// A save to memory cannot grow the caller's block: writes starting at its end
// "succeed" storing nothing, so the result is the block size, below the real
// output; a write ending past it stores what fits and the BMP writer gives -9.
TEST_F(Save, SaveMemSizeTooSmallReturnsLessThanOutput)
{
    int32_t h = NewPicture(6, 5, 8);
    const int32_t full = 14 + 40 + 1024 + 8 * 5;
    std::vector<uint8_t> reference(4096);
    ASSERT_EQ(IMG_save_bitmap_mem_size(h, reference.data(), 4096, IMG_TYPE_BMP), full);
    const uint32_t twoRows = 14 + 40 + 1024 + 8 * 2;
    for (uint32_t size : {twoRows, twoRows + 3}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> caller(twoRows + 64, 0xEE);
        EXPECT_EQ(IMG_save_bitmap_mem_size(h, caller.data(), size, IMG_TYPE_BMP),
                  size == twoRows ? (int32_t)twoRows : IMG_ERR_WRITE);
        EXPECT_TRUE(std::equal(caller.begin(), caller.begin() + size, reference.begin()));
        for (size_t i = size; i < caller.size(); i++)
            ASSERT_EQ(caller[i], 0xEE) << "byte " << i << " beyond the block changed";
    }
}

int32_t writeBudget; // the bytes the caller's write function still passes on
int32_t IMGCDECL WriteWithinBudget(int32_t file, void *buffer, int32_t count)
{
    int32_t n = std::clamp(writeBudget, 0, count);
    writeBudget -= n;
    return PlatformWrite(file, buffer, (uint32_t)n);
}

// A page appended to a two-page TIFF and DCX.  A failed save (the writer
// refusing the depth, or the caller's write function failing after 64 bytes)
// leaves the file as it was with safe save on and deletes it with safe save
// off; a successful one writes the same bytes either way.  No other file stays.
TEST_F(Save, SafeSaveReplacesTheFileOnlyOnceTheSaveSucceeded)
{
    namespace fs = std::filesystem;
    const fs::path folder = TempPath("safe_save");
    fs::remove_all(folder);
    ASSERT_TRUE(fs::create_directory(folder));
    auto filesInFolder = [&] { return std::distance(fs::directory_iterator(folder), fs::directory_iterator()); };
    for (auto [name, type, bits, refusedBits] : {std::tuple{"pages.tif", IMG_TYPE_TIFF_G4, 1, 24}, {"pages.dcx", IMG_TYPE_DCX, 8, 16}}) {
        const std::string path = (folder / name).string();
        const int32_t good = NewPicture(40, 30, bits), refused = NewPicture(40, 30, refusedBits);
        ASSERT_EQ(IMG_save_bitmap(good, path.c_str(), type), 0);
        ASSERT_EQ(IMG_save_bitmap(good, path.c_str(), type), 0);
        const std::vector<uint8_t> twoPages = ReadFile(path);
        std::vector<uint8_t> threePages[2];
        for (int32_t safe : {1, 0}) {
            EXPECT_EQ(IMGLOW_set_safe_save(safe), 1 - safe);
            for (auto [image, budget, expected] : {std::tuple{refused, INT32_MAX, IMG_ERR_DEPTH}, {good, 64, IMG_ERR_WRITE}, {good, INT32_MAX, 0}}) {
                SCOPED_TRACE(std::string(name) + (safe ? " safe, " : " in place, ") + std::to_string(budget));
                ASSERT_TRUE(WriteFile(path, twoPages));
                writeBudget = budget;
                IMGLOW_set_fileio(nullptr, WriteWithinBudget, nullptr);
                EXPECT_EQ(IMG_save_bitmap(image, path.c_str(), type), expected);
                IMGLOW_set_fileio(nullptr, nullptr, nullptr);
                EXPECT_EQ(filesInFolder(), safe || expected == 0);
                if (expected < 0) {
                    EXPECT_EQ(ReadFile(path), safe ? twoPages : std::vector<uint8_t>());
                }
            }
            threePages[safe] = ReadFile(path);
        }
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 3);
        EXPECT_EQ(threePages[1], threePages[0]);
        fs::remove(path);
    }
    fs::remove(folder);
}

} // namespace
