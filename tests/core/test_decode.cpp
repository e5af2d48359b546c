/* The decode pipeline: its sinks driven by test readers (ImgDecodeWithReader)
 * that hand over headers and rows as a codec would, and real files through
 * IMG_decompress_bitmap. */
#include "support/support.h"

#include <functional>
#include <random>
#include <tuple>

namespace {

class DecodePipeline : public TrnwTest {
  protected:
    void TearDown() override
    {
        IMGLOW_set_decompsize(0, 0);
        IMGLOW_set_decomp_rect(0, 0, 0, 0);
        IMGLOW_set_decomp_reduction(0);
        IMG_set_statusbar(0, nullptr, 0);
        TrnwTest::TearDown();
    }
};

struct Script {
    std::vector<uint8_t> header; // 40 bytes + palette
    std::function<int(ImgRowSink, void *)> rows;
    int afterRows = 0; // the reader's result after the rows
    uint32_t start = 0;
};
Script script;

int ScriptReader(uint32_t start, ImgRowSink rowSink, void *context, ImgHeaderSink headerSink, int)
{
    script.start = start;
    int result = headerSink(script.header.data(), context);
    if (result < 0)
        return result;
    if (script.rows) {
        result = script.rows(rowSink, context);
        if (result < 0)
            return result;
    }
    return script.afterRows;
}

std::vector<uint8_t> Header(int32_t width, int32_t height, int bits, uint32_t clrUsed = 0)
{
    std::vector<uint8_t> block(40 + 1024, 0);
    BITMAPINFOHEADER h{};
    h.biSize = 40;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = (uint16_t)bits;
    h.biXPelsPerMeter = 300;
    h.biYPelsPerMeter = 300;
    h.biClrUsed = clrUsed;
    std::memcpy(block.data(), &h, 40);
    for (int i = 0; i < 256; i++) // a recognisable palette
        block[40 + 4 * i] = (uint8_t)i, block[41 + 4 * i] = (uint8_t)(255 - i), block[42 + 4 * i] = 7;
    if (bits == 1) {
        const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
        std::memcpy(block.data() + 40, bw, 8);
    }
    return block;
}

int32_t Decode() { return ImgDecodeWithReader(ScriptReader, 0, IMG_MEMORY_HANDLE); }

int32_t Stride(int32_t width, int bits) { return (int32_t)DibStride((uint32_t)width, bits); }

std::vector<uint8_t> Row(int32_t handle, int32_t row)
{
    const ImgDescriptor *d = ImgTableGet(handle);
    std::vector<uint8_t> buffer((size_t)d->stride);
    EXPECT_EQ(IMGLOW_get_raster(handle, buffer.data(), row, 0), 0);
    return buffer;
}

// Random packed rows, top first.
using Rows = std::vector<std::vector<uint8_t>>;
Rows Source(int32_t width, int32_t height, int bits)
{
    std::mt19937 random((unsigned)(width * 31 + bits));
    Rows rows((size_t)height, std::vector<uint8_t>((size_t)Stride(width, bits)));
    for (auto &row : rows)
        for (auto &b : row)
            b = (uint8_t)random();
    return rows;
}

// A 1-bit row as a run record in the one-dimensional decoder's form (changes,
// then the width three times; +2 when the length equals (width + 7) / 8).
std::vector<uint16_t> Record(const std::vector<uint8_t> &row, int32_t width)
{
    std::vector<uint16_t> record = {0};
    for (int32_t x = 0; x < width; x++)
        if (RowPixel(row.data(), x, 1) != (record.size() % 2 ? 1u : 0u))
            record.push_back((uint16_t)x);
    record.insert(record.end(), {(uint16_t)width, (uint16_t)width, (uint16_t)width});
    record[0] = (uint16_t)(record.size() * 2);
    if (record[0] == (width + 7) / 8)
        record[0] += 2;
    return record;
}

// Hands the rows over in order, packed or as run records.
std::function<int(ImgRowSink, void *)> Feed(const Rows &rows, int32_t width, bool asRecords = false)
{
    return [rows, width, asRecords](ImgRowSink sink, void *context) {
        for (int32_t y = 0; y < (int32_t)rows.size(); y++) {
            std::vector<uint16_t> record = asRecords ? Record(rows[(size_t)y], width) : std::vector<uint16_t>();
            int r = asRecords ? sink(reinterpret_cast<const uint8_t *>(record.data()), context, y, (int)record.size() * 2)
                              : sink(rows[(size_t)y].data(), context, y, (int)rows[(size_t)y].size());
            if (r < 0)
                return r;
        }
        return 0;
    };
}

// The image is w x h and its pixel (x, y) is the source's (x0 + x * stepX, y0 + y * stepY).
void ExpectRows(int32_t handle, const Rows &rows, int bits, int32_t w, int32_t h, int32_t x0 = 0, int32_t y0 = 0,
                int32_t stepX = 1, int32_t stepY = 1)
{
    ASSERT_EQ(ImgTableGet(handle)->width, w);
    ASSERT_EQ(ImgTableGet(handle)->height, h);
    for (int32_t y = 0; y < h; y++) {
        std::vector<uint8_t> row = Row(handle, y);
        for (int32_t x = 0; x < w; x++)
            ASSERT_EQ(RowPixel(row.data(), x, bits), RowPixel(rows[(size_t)(y0 + y * stepY)].data(), x0 + x * stepX, bits))
                << "pixel " << x << "," << y;
    }
}

int32_t statusCalls, statusTotal, statusValueSeen;
extern "C" int32_t IMGAPI Status(int32_t value, int32_t total)
{
    statusCalls++;
    statusValueSeen = value;
    statusTotal = total;
    return 0;
}

// A plain image takes the reader's geometry and palette, the default settings
// and its rows; the status callback is called once per row with the total row
// count, and not at all once switched off.
TEST_F(DecodePipeline, PlainImageTakesTheReadersGeometryAndPalette)
{
    statusCalls = 0;
    IMG_set_statusbar(77, Status, 1);
    Rows source = Source(10, 4, 8);
    script = {Header(10, 4, 8), Feed(source, 10)};
    int32_t h = Decode();
    ASSERT_GE(h, 0);
    EXPECT_EQ(std::make_tuple(statusCalls, statusTotal, statusValueSeen), std::make_tuple(4, 4, 77));
    const ImgDescriptor *d = ImgTableGet(h);
    using T = std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t>;
    EXPECT_EQ(T(d->stride, d->codedRows, d->lastReducedRow, d->cropWidth, d->cropHeight), T(12, 0, -1, 10, 4));
    EXPECT_EQ(std::make_tuple(d->gamma, d->rasterOp), std::make_tuple(150u, 0x00CC0020u));
    // total = stride * H rounded up to 4 + palette + 40 = 12 * 4 + 1024 + 40.
    EXPECT_EQ(d->dibSize, 48u + 1024u + 40u);
    EXPECT_EQ(0, std::memcmp(d->dib + 40, script.header.data() + 40, 1024));
    EXPECT_EQ(GetLE32(d->dib + 20), 48u);  // biSizeImage
    EXPECT_EQ(GetLE32(d->dib + 24), 300u); // dots per inch, as handed over
    ExpectRows(h, source, 8, 10, 4);
    IMG_set_statusbar(0, nullptr, 0); // off: the callback stays registered but is not called
    statusCalls = 0;
    ASSERT_GE(Decode(), 0);
    EXPECT_EQ(statusCalls, 0);
}

TEST_F(DecodePipeline, BilevelImageIsRunCoded)
{
    // 100 x 50: stride 16, total = 16 * 52 + 8 + 40 = 880, held as 880 / 8 = 110.
    script = {Header(100, 50, 1), nullptr};
    int32_t h = Decode();
    ASSERT_GE(h, 0);
    const ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(std::make_tuple(d->codedRows, d->rowIndex != nullptr, GetLE32(d->dib + 16)), std::make_tuple(1, true, 99u)); // biCompression 99
    EXPECT_GE(d->dibSize, 110u); // 110, or more after the white rows were stored
    EXPECT_EQ(Row(h, 49), std::vector<uint8_t>(16, 0xFF)); // rows never delivered are white
}

// Rows outside the image and run records of odd length are refused; a plain row of no bytes is padded.
TEST_F(DecodePipeline, HostileRowsAreRefused)
{
    for (auto [bits, index, length, expected] :
         {std::tuple<int, int, int, int>{8, 4, 12, IMG_ERR_INVALID}, {8, -1, 12, IMG_ERR_INVALID}, {1, 0, 7, IMG_ERR_INVALID}, {8, 0, 0, 0}}) {
        SCOPED_TRACE(index);
        script = {Header(bits == 1 ? 40 : 10, 4, bits), [index = index, length = length](ImgRowSink sink, void *c) {
                      uint8_t row[12] = {7, 0, 40, 0, 40, 0, 40};
                      return sink(row, c, index, length);
                  }};
        int32_t h = Decode();
        EXPECT_EQ(std::min(h, 0), expected);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(ImgTableCount(), 0);
}

// Rows land at their index in any order, in blocks that held other data:
// rows never stored and the end of a row stored short read as zero bytes,
// as if the block had been cleared first (a row stored again keeps the end
// of its first copy).  So do the rows of a new empty image.
TEST_F(DecodePipeline, RowsNeverStoredReadAsZeroBytes)
{
    struct Case {
        const char *name;
        std::vector<std::pair<int, int>> rows; // index, bytes handed over
    } cases[] = {{"top first, the last rows missing", {{0, 12}, {1, 12}, {2, 12}}},
                 {"bottom first, the first rows missing", {{5, 12}, {4, 12}, {3, 12}, {3, 3}}},
                 {"from both ends, then between", {{0, 12}, {5, 12}, {2, 12}, {3, 12}}},
                 {"short rows", {{0, 5}, {1, 12}, {1, 3}}}};
    Rows source = Source(10, 6, 8);
    ImgTestFillAllocations(0xA5);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Rows expected(6, std::vector<uint8_t>(12, 0));
        for (auto [y, n] : c.rows)
            std::copy_n(source[y].begin(), n, expected[y].begin());
        script = {Header(10, 6, 8), [&c, &source](ImgRowSink sink, void *context) {
                      for (auto [y, n] : c.rows)
                          sink(source[y].data(), context, y, n);
                      return 0;
                  }};
        int32_t h = Decode();
        ASSERT_GE(h, 0);
        for (int32_t y = 0; y < 6; y++)
            EXPECT_EQ(Row(h, y), expected[y]) << "row " << y;
        IMG_delete_bitmap(h);
    }
    int32_t shell = IMG_create_handle_shell(Header(10, 6, 8).data());
    ASSERT_GE(shell, 0);
    for (int32_t y = 0; y < 6; y++)
        EXPECT_EQ(Row(shell, y), std::vector<uint8_t>(12, 0)) << "row " << y;
}

// Packed rows and run records give the same picture, whole or cut to a
// sub-rectangle (records cut at any column keep their colours in step).
TEST_F(DecodePipeline, RowsWholeOrCutToASubRectangle)
{
    struct Case {
        int bits;
        bool records;
        int32_t w, h, rect[4]; // x, y, width, height; width 0: the whole image
    } cases[] = {{1, false, 203, 31, {0, 0, 0, 0}}, {1, true, 203, 31, {0, 0, 0, 0}}, {8, false, 20, 10, {5, 2, 8, 4}},
                 {1, true, 203, 31, {0, 3, 90, 20}}, {1, true, 203, 31, {7, 3, 90, 20}},
                 {1, true, 203, 31, {13, 3, 90, 20}}, {1, true, 203, 31, {64, 3, 90, 20}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + (c.records ? " records" : " rows") + " at " + std::to_string(c.rect[0]));
        IMGLOW_set_decomp_rect(c.rect[0], c.rect[1], c.rect[2], c.rect[3]);
        Rows source = Source(c.w, c.h, c.bits);
        script = {Header(c.w, c.h, c.bits), Feed(source, c.w, c.records)};
        int32_t h = Decode();
        ASSERT_GE(h, 0);
        ExpectRows(h, source, c.bits, c.rect[2] ? c.rect[2] : c.w, c.rect[2] ? c.rect[3] : c.h, c.rect[0], c.rect[1]);
        for (int32_t r = 0; c.records && c.rect[2] && r < c.rect[3]; r++) { // a cut record ends in its width, twice
            uint32_t bytes = 0;
            const uint16_t *record = RunStoreRow(ImgTableGet(h), r, &bytes);
            EXPECT_EQ(std::pair(record[bytes / 2 - 2], record[bytes / 2 - 1]), std::pair((uint16_t)c.rect[2], (uint16_t)c.rect[2]));
        }
        IMG_delete_bitmap(h);
    }
}

// A fixed size takes the first source row of each destination row and the columns by the
// step (width << 16) / new width: 9 -> 3 columns (step 3.0; 1 bit: 90 -> 10, past the first
// bytes), 6 -> 2 rows (0 and 3), 1000 x 800 -> 100 x 100 (rows 0, 8, 16, ..., columns 0, 10, ...).
TEST_F(DecodePipeline, FixedSizeTakesTheFirstSourcePixelOfEachDestinationPixel)
{
    struct Case {
        int bits;
        int32_t w, h, newW, newH;
    } cases[] = {{1, 90, 6, 10, 2}, {4, 9, 6, 3, 2}, {8, 9, 6, 3, 2}, {24, 9, 6, 3, 2}, {8, 1000, 800, 100, 100}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " bits, " + std::to_string(c.w) + " wide");
        IMGLOW_set_decompsize(c.newW, c.newH);
        Rows source = Source(c.w, c.h, c.bits);
        script = {Header(c.w, c.h, c.bits), Feed(source, c.w)};
        int32_t h = Decode();
        ASSERT_GE(h, 0);
        EXPECT_EQ(ImgTableGet(h)->lastReducedRow, c.newH - 1);
        ExpectRows(h, source, c.bits, c.newW, c.newH, 0, 0, c.w / c.newW, c.h / c.newH);
        IMG_delete_bitmap(h);
    }
}

TEST_F(DecodePipeline, CreateHandleShell)
{
    std::vector<uint8_t> info = Header(33, 7, 1);
    const uint8_t whiteBlack[8] = {255, 255, 255, 0, 0, 0, 0, 0};
    std::memcpy(info.data() + 40, whiteBlack, 8);
    BITMAPINFOHEADER h;
    std::memcpy(&h, info.data(), 40);
    h.biXPelsPerMeter = 11811; // 300 dpi: 11811 * 0.0254 = 299.9994, truncated 299
    h.biYPelsPerMeter = 3780;  // 96.012 -> 96
    std::memcpy(info.data(), &h, 40);
    int32_t handle = IMG_create_handle_shell(info.data());
    ASSERT_GE(handle, 0);
    const ImgDescriptor *d = ImgTableGet(handle);
    using T = std::tuple<int32_t, const uint32_t *, int32_t, int32_t>;
    EXPECT_EQ(T(d->codedRows, d->rowIndex, d->width, d->stride), T(0, nullptr, 33, 8)); // coding switched off
    BITMAPINFOHEADER out;
    std::memcpy(&out, d->dib, 40);
    using H = std::tuple<int32_t, int32_t, uint32_t, uint32_t>;
    EXPECT_EQ(H(out.biXPelsPerMeter, out.biYPelsPerMeter, out.biSizeImage, out.biCompression), H(299, 96, 56, 0));
    const uint8_t blackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    EXPECT_EQ(0, std::memcmp(d->dib + 40, blackWhite, 8));
    std::vector<uint8_t> row(8, 0xA5);
    EXPECT_EQ(IMGLOW_put_raster(handle, row.data(), 6, 0), 0); // a plain bitmap
    EXPECT_EQ(Row(handle, 6), row);
}

// The decode limit, judged before the block is allocated: a plain image by its block (40 + 1024 + 1 MiB
// at 1024 x 1024 x 8 bits), a run-coded page by its coded rows and index: random 2048 x 1024 1-bit rows
// (256 KiB packed) change colour every other pixel, 2 MiB coded; a white 20000 x 20000 page, 280 KB.
TEST_F(DecodePipeline, DecodeLimitCountsTheBlockOrTheCodedRows)
{
    EXPECT_EQ(IMGLOW_set_decode_limit(-1), IMG_ERR_TYPE);
    struct Case { int bits; int32_t w, h, limit, expected; bool rows; } cases[] = { // expected 0: decoded
        {8, 1024, 1024, 1, IMG_ERR_MEMORY, false}, {8, 1024, 1024, 2, 0, false}, {1, 2048, 1024, 1, IMG_ERR_MEMORY, true},
        {1, 2048, 1024, 3, 0, true}, {1, 20000, 20000, 1, 0, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + " x " + std::to_string(c.bits) + " bits, limit " + std::to_string(c.limit));
        IMGLOW_set_decode_limit(c.limit);
        script = {Header(c.w, c.h, c.bits), c.rows ? Feed(Source(c.w, c.h, c.bits), c.w) : nullptr};
        int32_t h = Decode();
        EXPECT_EQ(std::min(h, 0), c.expected);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMGLOW_set_decode_limit(1), 1);
    // Nothing is allocated: a failure armed before the header sink is still pending after it.
    ImgDecodeContext c{};
    c.handle = ImgTableAllocate();
    ImgTestFailAllocations(0);
    EXPECT_EQ(ImgLibraryHeaderSink(Header(1024, 1024, 8).data(), &c), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgAlloc(1), nullptr);
}

} // namespace
