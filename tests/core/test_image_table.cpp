/* The image table, the image descriptor and the raster accessors. */
#include "support/support.h"

#include <tuple>

namespace {

class ImageTable : public TrnwTest {};
class Descriptor : public TrnwTest {};
class Raster : public TrnwTest {};
class CodedStore : public TrnwTest {};

// The lowest free handle is used; a slot freed in the middle stays inside the
// count and its handle is refused until reused; deleting the highest handle
// shrinks the count past every trailing empty slot.
TEST_F(ImageTable, HandlesAreReusedAndTheCountShrinks)
{
    for (int32_t expected : {0, 1, 2})
        ASSERT_EQ(NewImage(4, 4, 8), expected);
    EXPECT_EQ(IMG_delete_bitmap(1), 0);
    EXPECT_EQ(ImgTableCount(), 3);
    int32_t w, h, b;
    for (int32_t bad : {-1, 1, 3})
        EXPECT_EQ(IMG_bitmap_info(bad, &w, &h, &b), IMG_ERR_HANDLE) << bad;
    EXPECT_EQ(IMG_delete_bitmap(1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_bitmap_info(0, &w, &h, &b), 0);
    EXPECT_EQ(NewImage(4, 4, 8), 1);
    EXPECT_EQ(ImgTableCount(), 3);
    EXPECT_EQ(IMG_delete_bitmap(1), 0);
    EXPECT_EQ(IMG_delete_bitmap(2), 0);
    EXPECT_EQ(ImgTableCount(), 1); // both trailing empty slots go
}

TEST_F(ImageTable, EveryHandleFunctionValidates)
{
    uint8_t buffer[2048];
    int32_t a, b, c, d;
    for (int32_t bad : {-1, 0, 5, INT32_MIN}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(IMG_delete_bitmap(bad), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_delete_bitmap_keep(bad), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_bitmap_info(bad, &a, &b, &c), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_get_bitmap_header(bad, buffer), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_get_palette(bad, buffer), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_put_palette(bad, buffer), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_get_raster(bad, buffer, 0, 0), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_put_raster(bad, buffer, 0, 0), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_get_croprect(bad, &a, &b, &c, &d), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_set_croprect(bad, 0, 0, 1, 1), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_set_rop(bad, 0), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_set_gamma(bad, 100), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_set_lut(bad, 0, 0), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_set_transp_color(bad, 1), IMG_ERR_HANDLE);
        EXPECT_EQ(IMGLOW_get_transp_color(bad), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_set_display_angle(bad, 90), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_dib_to_runs(bad), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_runs_to_dib(bad), IMG_ERR_HANDLE);
    }
}

TEST_F(ImageTable, FailedGrowthKeepsExistingImages)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    TestDib dib(4, 4, 8);
    ImgTestFailAllocations(0); // the table's reallocation fails
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgTableCount(), 1);
    int32_t w, h, b;
    EXPECT_EQ(IMG_bitmap_info(0, &w, &h, &b), 0); // the table survived (docs/DEVIATIONS.md)
    EXPECT_EQ(w, 4);
}

TEST_F(Descriptor, KeepSetsDefaults)
{
    TestDib dib(100, 50, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(h, 0);
    const ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->dib, dib.block); // adopted, not copied
    using T = std::tuple<int32_t, int32_t, int32_t, int32_t>;
    EXPECT_EQ(T(d->cropX, d->cropY, d->cropWidth, d->cropHeight), T(0, 0, 100, 50));
    EXPECT_EQ(T(d->width, d->height, d->stride, d->displayAngle), T(100, 50, 100, 0));
    EXPECT_EQ(T(d->brightness, d->contrast, d->codedRows, d->lastReducedRow), T(0, 0, 0, -1));
    EXPECT_EQ(d->rasterOp, 0x00CC0020u);
    EXPECT_EQ(d->gamma, 150u);
    EXPECT_EQ(d->dibSize, 1024u + 100u * 50u + 40u);
    EXPECT_EQ(d->hasTransparentColour, 0);
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0);
}

TEST_F(Descriptor, KeepRejectsBadGeometryAndKeepsSlot)
{
    for (auto geometry : {std::array<int32_t, 3>{0, 5, 8}, {5, 0, 8}, {5, 5, 0}, {5, 5, 2}, {-3, 5, 8}}) {
        TestDib dib(5, 5, 8);
        BITMAPINFOHEADER header;
        std::memcpy(&header, dib.block, 40);
        header.biWidth = geometry[0];
        header.biHeight = geometry[1];
        header.biBitCount = (uint16_t)geometry[2];
        std::memcpy(dib.block, &header, 40);
        int32_t before = ImgTableCount();
        EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_INVALID);
        // The slot was taken before the check and stays occupied (the check comes after the slot is taken).
        EXPECT_EQ(ImgTableCount(), before + 1);
        EXPECT_NE(ImgTableGet(before), nullptr);
    }
    EXPECT_EQ(NewImage(4, 4, 8), 5);
}

TEST_F(Descriptor, BilevelPaletteRuleRewritesLightEntryZero)
{
    TestDib dib(16, 2, 1);
    const uint8_t whiteBlack[8] = {255, 255, 255, 0, 0, 0, 0, 0};
    std::memcpy(dib.Palette(), whiteBlack, 8);
    dib.Row(0)[0] = 0x5A;
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_GE(h, 0);
    const uint8_t blackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    EXPECT_EQ(0, std::memcmp(dib.Palette(), blackWhite, 8));
    EXPECT_EQ(dib.Row(0)[0], 0x5A); // the bits are not touched
    IMG_delete_bitmap_keep(h);
}

// Row 0 is the top row, stored last; a length of 0 means one stride; rows
// and lengths outside the image are refused.
TEST_F(Raster, RowZeroIsTheTopRowStoredLast)
{
    int32_t h = NewImage(6, 3, 8);
    ImgDescriptor *d = ImgTableGet(h);
    uint8_t row[8] = {1, 2, 3, 4, 5, 6, 0, 0}, back[8] = {};
    EXPECT_EQ(IMGLOW_put_raster(h, row, 0, 0), 0);
    EXPECT_EQ(0, std::memcmp(d->dib + 1064 + 2 * 8, row, 8)); // (height - 0 - 1) * stride
    EXPECT_EQ(IMGLOW_get_raster(h, back, 0, 8), 0);
    EXPECT_EQ(0, std::memcmp(back, row, 8));
    EXPECT_EQ(IMGLOW_get_raster(h, back, 2, 0), 0);
    EXPECT_EQ(back[0], 0); // row 2 is the bottom row, still zero
    EXPECT_EQ(IMGLOW_get_raster(h, back, -1, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_get_raster(h, back, 3, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_put_raster(h, back, 3, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_put_raster(h, back, 0, -4), IMG_ERR_TYPE);
}

// A 1-bit picture with a known pattern: row r has 0-bits where (x * 7 + r * 3) % 11 < 4.
void FillPattern(TestDib &dib)
{
    for (int32_t r = 0; r < dib.height; r++) {
        uint8_t *row = dib.Row(r);
        std::memset(row, 0xFF, (size_t)dib.stride);
        for (int32_t x = 0; x < dib.width; x++)
            if ((x * 7 + r * 3) % 11 < 4)
                row[x >> 3] &= (uint8_t)~(0x80 >> (x & 7));
    }
}

// Rows read back from the run-coded store and from the plain block it turns
// back into are the rows it started from (padding bits stay 1).
TEST_F(CodedStore, DibToRunsAndBack)
{
    TestDib dib(203, 37, 1);
    FillPattern(dib);
    const size_t stride = (size_t)dib.stride;
    std::vector<uint8_t> original(dib.block, dib.block + 48 + stride * 37);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_GE(h, 0);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->codedRows, 1);
    ASSERT_NE(d->rowIndex, nullptr);
    EXPECT_EQ(d->rowIndex[0], 0u);
    EXPECT_EQ(GetLE32(d->dib + 16), 99u); // biCompression
    EXPECT_EQ(0, std::memcmp(d->dib + 40, original.data() + 40, 8)); // palette unchanged
    std::vector<uint8_t> row(stride);
    for (int32_t r = 0; r < 37; r++) {
        ASSERT_EQ(IMGLOW_get_raster(h, row.data(), r, 0), 0);
        ASSERT_EQ(0, std::memcmp(row.data(), &original[48 + (size_t)(36 - r) * stride], stride)) << "row " << r;
    }
    const uint64_t end = d->dibSize + 4096; // the store grows up to a ceiling, inclusive, and not past it
    EXPECT_EQ(RunStoreReserve(d, end, 37, end - 1), IMG_ERR_MEMORY);
    EXPECT_EQ(RunStoreReserve(d, end, 37, end), 0);
    EXPECT_EQ(d->dibSize, end);
    ASSERT_EQ(IMG_runs_to_dib(h), 0);
    d = ImgTableGet(h);
    EXPECT_EQ(d->codedRows, 0);
    EXPECT_EQ(d->rowIndex, nullptr);
    EXPECT_EQ(d->dibSize, 48u + (uint32_t)stride * 37u);
    EXPECT_EQ(GetLE32(d->dib + 16), 0u);
    EXPECT_EQ(0, std::memcmp(d->dib + 48, original.data() + 48, stride * 37));
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0); // the converted blocks are ours and are freed
}

// Failed allocations leave the image as it was: converting to runs (each of
// its blocks in turn), replacing a coded row (either scratch block) and
// converting back.
TEST_F(CodedStore, FailedAllocationsLeaveTheImageAsItWas)
{
    TestDib dib(64, 8, 1);
    FillPattern(dib);
    int32_t h = IMG_create_handle_keep(dib.block);
    for (int fail = 0; fail < 3; fail++) {
        ImgTestFailAllocations(fail);
        EXPECT_EQ(IMG_dib_to_runs(h), IMG_ERR_MEMORY);
        EXPECT_EQ(ImgTableGet(h)->codedRows, 0);
        EXPECT_EQ(ImgTableGet(h)->dib, dib.block);
    }
    ImgTestFailAllocations(-1);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    uint8_t row[8] = {0x0F, 0xF0};
    for (int fail = 0; fail < 2; fail++) {
        ImgTestFailAllocations(fail);
        EXPECT_EQ(IMGLOW_put_raster(h, row, 1, 8), IMG_ERR_MEMORY);
    }
    ImgTestFailAllocations(0);
    EXPECT_EQ(IMG_runs_to_dib(h), IMG_ERR_MEMORY);
    ImgTestFailAllocations(-1);
    EXPECT_EQ(ImgTableGet(h)->codedRows, 1);
    EXPECT_EQ(IMGLOW_put_raster(h, row, 1, 8), 0);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, PutRasterRecodesOneRow)
{
    TestDib dib(100, 5, 1);
    FillPattern(dib);
    std::vector<std::vector<uint8_t>> rows;
    for (int32_t r = 0; r < 5; r++)
        rows.emplace_back(dib.Row(r), dib.Row(r) + dib.stride);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);

    std::vector<uint8_t> white((size_t)dib.stride, 0xFF), dense((size_t)dib.stride, 0x55);
    ASSERT_EQ(IMGLOW_put_raster(h, white.data(), 2, 0), 0); // shorter record
    rows[2] = white;
    ASSERT_EQ(IMGLOW_put_raster(h, dense.data(), 0, 0), 0); // longer record
    rows[0] = dense;
    std::vector<uint8_t> back((size_t)dib.stride);
    for (int32_t r = 0; r < 5; r++) {
        ASSERT_EQ(IMGLOW_get_raster(h, back.data(), r, 0), 0);
        for (int32_t x = 0; x < 100; x++)
            ASSERT_EQ(RowPixel(back.data(), x, 1), RowPixel(rows[r].data(), x, 1)) << r << "," << x;
    }
    // The store stays contiguous: each row starts where the previous one ends.
    const ImgDescriptor *d = ImgTableGet(h);
    for (int32_t r = 0; r < 5; r++) {
        const uint16_t *record = reinterpret_cast<const uint16_t *>(d->dib + 48 + d->rowIndex[r]);
        EXPECT_EQ(d->rowIndex[r + 1] - d->rowIndex[r], record[0]);
    }
    IMG_delete_bitmap_keep(h);
}

} // namespace
