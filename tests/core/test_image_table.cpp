/* Part 1.1: image table and image descriptor. */
#include "support/support.h"

namespace {

class ImageTable : public TrnwTest {};
class Descriptor : public TrnwTest {};
class Accessors : public TrnwTest {};
class Raster : public TrnwTest {};
class CodedStore : public TrnwTest {};

// ---- the table ----

TEST_F(ImageTable, LowestFreeHandleIsReused)
{
    EXPECT_EQ(NewImage(4, 4, 8), 0);
    EXPECT_EQ(NewImage(4, 4, 8), 1);
    EXPECT_EQ(NewImage(4, 4, 8), 2);
    EXPECT_EQ(IMG_delete_bitmap(1), 0);
    EXPECT_EQ(ImgTableCount(), 3); // a slot freed in the middle stays inside tableCount
    EXPECT_EQ(NewImage(4, 4, 8), 1);
    EXPECT_EQ(ImgTableCount(), 3);
}

TEST_F(ImageTable, DeletingHighestHandleShrinksPastEmptySlots)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    ASSERT_EQ(NewImage(4, 4, 8), 1);
    ASSERT_EQ(NewImage(4, 4, 8), 2);
    ASSERT_EQ(IMG_delete_bitmap(1), 0);
    ASSERT_EQ(ImgTableCount(), 3);
    EXPECT_EQ(IMG_delete_bitmap(2), 0);
    EXPECT_EQ(ImgTableCount(), 1); // both trailing empty slots go
}

TEST_F(ImageTable, DeletingLowHandleFirstKeepsCount)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    ASSERT_EQ(NewImage(4, 4, 8), 1);
    ASSERT_EQ(NewImage(4, 4, 8), 2);
    ASSERT_EQ(IMG_delete_bitmap(1), 0);
    EXPECT_EQ(IMG_delete_bitmap(0), 0);
    EXPECT_EQ(ImgTableCount(), 3); // handle 0 was not tableCount - 1
    EXPECT_EQ(IMG_delete_bitmap(2), 0);
    EXPECT_EQ(ImgTableCount(), 0);
}

TEST_F(ImageTable, DeletingLastImageFreesTable)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    ASSERT_EQ(NewImage(4, 4, 8), 1);
    ASSERT_EQ(IMG_delete_bitmap(0), 0);
    ASSERT_EQ(IMG_delete_bitmap(1), 0);
    EXPECT_EQ(ImgTableCount(), 0);
    EXPECT_EQ(NewImage(4, 4, 8), 0);
    EXPECT_EQ(ImgTableCount(), 1);
}

TEST_F(ImageTable, CountGrowsByExactlyOne)
{
    for (int32_t i = 0; i < 25; i++) {
        ASSERT_EQ(NewImage(2, 2, 8), i);
        EXPECT_EQ(ImgTableCount(), i + 1);
    }
}

TEST_F(ImageTable, InvalidHandlesGiveMinus13)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    ASSERT_EQ(NewImage(4, 4, 8), 1);
    ASSERT_EQ(NewImage(4, 4, 8), 2);
    ASSERT_EQ(IMG_delete_bitmap(1), 0);
    int32_t w, h, b;
    EXPECT_EQ(IMG_bitmap_info(-1, &w, &h, &b), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_bitmap_info(ImgTableCount(), &w, &h, &b), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_bitmap_info(1, &w, &h, &b), IMG_ERR_HANDLE); // deleted
    EXPECT_EQ(IMG_delete_bitmap(1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_bitmap_info(0, &w, &h, &b), 0);
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

TEST_F(ImageTable, FailedDescriptorLeavesSlotEmpty)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    TestDib dib(4, 4, 8);
    ImgTestFailAllocations(1); // table growth succeeds, the descriptor fails
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgTableGet(1), nullptr);
    EXPECT_EQ(NewImage(4, 4, 8), 1);
}

TEST_F(ImageTable, FirstAllocationFailureLeavesNoTable)
{
    TestDib dib(4, 4, 8);
    ImgTestFailAllocations(0); // the table itself
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgTableCount(), 0);
    ImgTestFailAllocations(1); // the descriptor
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgTableCount(), 0);
    EXPECT_EQ(NewImage(4, 4, 8), 0);
}

// ---- IMG_create_handle_keep and the descriptor ----

TEST_F(Descriptor, KeepSetsDefaults)
{
    TestDib dib(100, 50, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(h, 0);
    const ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->dib, dib.block); // adopted, not copied
    EXPECT_EQ(d->cropX, 0);
    EXPECT_EQ(d->cropY, 0);
    EXPECT_EQ(d->cropWidth, 100);
    EXPECT_EQ(d->cropHeight, 50);
    EXPECT_EQ(d->rasterOp, 0x00CC0020u);
    EXPECT_EQ(d->gamma, 150u);
    EXPECT_EQ(d->brightness, 0);
    EXPECT_EQ(d->contrast, 0);
    EXPECT_EQ(d->codedRows, 0);
    EXPECT_EQ(d->lastReducedRow, -1);
    EXPECT_EQ(d->displayAngle, 0);
    EXPECT_EQ(d->width, 100);
    EXPECT_EQ(d->height, 50);
    EXPECT_EQ(d->stride, 100);
    EXPECT_EQ(d->dibSize, 1024u + 100u * 50u + 40u);
    EXPECT_EQ(d->hasTransparentColour, 0);
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0);
}

TEST_F(Descriptor, StrideRulePerDepth)
{
    struct { int bits; int32_t width; int32_t stride; uint32_t palette; } cases[] = {
        {1, 33, 8, 8}, {4, 9, 8, 64}, {8, 5, 8, 1024}, {16, 3, 8, 1024}, {24, 5, 16, 0}, {32, 3, 12, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.bits);
        TestDib dib(c.width, 2, c.bits);
        int32_t h = IMG_create_handle_keep(dib.block);
        ASSERT_GE(h, 0);
        EXPECT_EQ(ImgTableGet(h)->stride, c.stride);
        EXPECT_EQ(ImgTableGet(h)->dibSize, c.palette + (uint32_t)c.stride * 2 + 40);
        IMG_delete_bitmap_keep(h);
    }
}

TEST_F(Descriptor, KeepRejectsBadGeometryAndKeepsSlot)
{
    for (auto geometry : {std::array<int32_t, 3>{0, 5, 8}, {5, 0, 8}, {5, 5, 0}, {-3, 5, 8}}) {
        TestDib dib(5, 5, 8);
        BITMAPINFOHEADER header;
        std::memcpy(&header, dib.block, 40);
        header.biWidth = geometry[0];
        header.biHeight = geometry[1];
        header.biBitCount = (uint16_t)geometry[2];
        std::memcpy(dib.block, &header, 40);
        int32_t before = ImgTableCount();
        EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_INVALID);
        // The slot was taken before the check and stays occupied (kept quirk).
        EXPECT_EQ(ImgTableCount(), before + 1);
        EXPECT_NE(ImgTableGet(before), nullptr);
    }
    EXPECT_EQ(NewImage(4, 4, 8), 4);
}

TEST_F(Descriptor, KeepRejectsDepthsAndSizesItCannotHold)
{
    TestDib dib(5, 5, 8);
    BITMAPINFOHEADER header;
    std::memcpy(&header, dib.block, 40);
    header.biBitCount = 2;
    std::memcpy(dib.block, &header, 40);
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_INVALID);
    header.biBitCount = 32;
    header.biWidth = 0x7FFFFFFF;
    header.biHeight = 0x7FFFFFFF;
    std::memcpy(dib.block, &header, 40);
    EXPECT_EQ(IMG_create_handle_keep(dib.block), IMG_ERR_INVALID);
    EXPECT_EQ(IMG_create_handle_keep(nullptr), IMG_ERR_INVALID);
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

TEST_F(Descriptor, BilevelPaletteRuleNeedsAllThreeComponents)
{
    TestDib dib(16, 2, 1);
    const uint8_t palette[8] = {0, 200, 200, 0, 10, 20, 30, 0};
    std::memcpy(dib.Palette(), palette, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_GE(h, 0);
    EXPECT_EQ(0, std::memcmp(dib.Palette(), palette, 8));
    IMG_delete_bitmap_keep(h);
}

TEST_F(Descriptor, DeleteKeepLeavesTheCallersBlock)
{
    TestDib dib(8, 8, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(h, 0);
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0);
    EXPECT_EQ(ImgTableCount(), 0);
    dib.Row(3)[2] = 77; // still the caller's, still usable
    EXPECT_EQ(PlatformBlockSize(dib.block), 40u + 1024u + 64u);
}

TEST_F(Descriptor, DeleteFreesTheBlock)
{
    TestDib dib(8, 8, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(h, 0);
    uint8_t *block = dib.Release();
    EXPECT_EQ(IMG_delete_bitmap(h), 0);
    EXPECT_EQ(PlatformBlockSize(block), 0u); // no longer a live block
}

// ---- accessors ----

TEST_F(Accessors, BitmapInfoReportsStoredHeader)
{
    int32_t h = NewImage(123, 45, 24);
    int32_t w = 0, ht = 0, b = 0;
    EXPECT_GE(IMG_bitmap_info(h, &w, &ht, &b), 0);
    EXPECT_EQ(w, 123);
    EXPECT_EQ(ht, 45);
    EXPECT_EQ(b, 24);
}

TEST_F(Accessors, HeaderCopyIsHeaderAndPalette)
{
    int32_t h = NewImage(10, 10, 4);
    uint8_t *palette = ImgTableGet(h)->dib + 40;
    for (int i = 0; i < 64; i++)
        palette[i] = (uint8_t)(i * 3);
    std::vector<uint8_t> buffer(40 + 64 + 16, 0xEE);
    EXPECT_EQ(IMGLOW_get_bitmap_header(h, buffer.data()), 0);
    EXPECT_EQ(0, std::memcmp(buffer.data(), ImgTableGet(h)->dib, 40 + 64));
    EXPECT_EQ(buffer[40 + 64], 0xEE); // nothing beyond header and palette
}

TEST_F(Accessors, PaletteRoundTrip)
{
    int32_t h = NewImage(10, 10, 8);
    std::vector<uint8_t> palette(1024), back(1024 + 4, 0xEE);
    for (int i = 0; i < 1024; i++)
        palette[i] = (uint8_t)(i * 7 + 1);
    EXPECT_EQ(IMGLOW_put_palette(h, palette.data()), 0);
    EXPECT_EQ(IMGLOW_get_palette(h, back.data()), 0);
    EXPECT_EQ(0, std::memcmp(palette.data(), back.data(), 1024));
    EXPECT_EQ(back[1024], 0xEE);
    EXPECT_EQ(0, std::memcmp(ImgTableGet(h)->dib + 40, palette.data(), 1024));
}

TEST_F(Accessors, TrueColourHasNoPalette)
{
    int32_t h = NewImage(10, 10, 24);
    uint8_t buffer[4] = {1, 2, 3, 4};
    EXPECT_EQ(IMGLOW_get_palette(h, buffer), 0);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(IMGLOW_put_palette(h, buffer), 0);
    EXPECT_EQ(ImgTableGet(h)->dib[40], 0); // the first pixel byte, untouched
}

TEST_F(Accessors, NoPixelBlockGivesMinus1)
{
    int32_t h = NewImage(10, 10, 8);
    uint8_t *dib = ImgTableGet(h)->dib;
    ImgTableGet(h)->dib = nullptr;
    uint8_t buffer[1100];
    int32_t w, ht, b;
    EXPECT_EQ(IMGLOW_get_palette(h, buffer), IMG_ERR_MEMORY);
    EXPECT_EQ(IMGLOW_put_palette(h, buffer), IMG_ERR_MEMORY);
    EXPECT_EQ(IMGLOW_get_raster(h, buffer, 0, 0), IMG_ERR_MEMORY);
    EXPECT_EQ(IMGLOW_put_raster(h, buffer, 0, 0), IMG_ERR_MEMORY);
    EXPECT_EQ(IMG_bitmap_info(h, &w, &ht, &b), IMG_ERR_MEMORY);
    ImgTableGet(h)->dib = dib;
}

TEST_F(Accessors, CropRectIsClippedToImage)
{
    int32_t h = NewImage(100, 50, 8);
    EXPECT_EQ(IMG_set_croprect(h, -5, -5, 10000, 10000), 0);
    int32_t x, y, w, ht;
    EXPECT_EQ(IMG_get_croprect(h, &x, &y, &w, &ht), 0);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(y, 0);
    EXPECT_EQ(w, 100);
    EXPECT_EQ(ht, 50);
}

TEST_F(Accessors, CropRectInsideIsKeptAndNothingElseChecked)
{
    int32_t h = NewImage(100, 50, 8);
    int32_t x, y, w, ht;
    EXPECT_EQ(IMG_set_croprect(h, 5, 5, 10, 10), 0);
    IMG_get_croprect(h, &x, &y, &w, &ht);
    EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({5, 5, 10, 10}));
    EXPECT_EQ(IMG_set_croprect(h, 90, 40, 20, 20), 0); // width 100 - 90, height 50 - 40
    IMG_get_croprect(h, &x, &y, &w, &ht);
    EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({90, 40, 10, 10}));
    EXPECT_EQ(IMG_set_croprect(h, 120, 0, 5, -3), 0); // nothing else is checked
    IMG_get_croprect(h, &x, &y, &w, &ht);
    EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({120, 0, -20, -3}));
}

TEST_F(Accessors, SettersStoreTheirValues)
{
    int32_t h = NewImage(10, 10, 8);
    EXPECT_EQ(IMGLOW_set_rop(h, 0x00EE0086u), 0);
    EXPECT_EQ(IMG_set_gamma(h, 220), 0);
    EXPECT_EQ(IMG_set_lut(h, 30, -12), 0); // contrast first
    const ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->rasterOp, 0x00EE0086u);
    EXPECT_EQ(d->gamma, 220u);
    EXPECT_EQ(d->contrast, 30);
    EXPECT_EQ(d->brightness, -12);
}

TEST_F(Accessors, TransparentColour)
{
    int32_t h = NewImage(10, 10, 8);
    EXPECT_EQ(IMGLOW_get_transp_color(h), IMG_ERR_NO_TRANSPARENT);
    EXPECT_EQ(IMGLOW_set_transp_color(h, 0x1FF), 0);
    EXPECT_EQ(IMGLOW_get_transp_color(h), 255);
    EXPECT_EQ(ImgTableGet(h)->transparentColour, 0x1FFu);
    EXPECT_EQ(ImgTableGet(h)->hasTransparentColour, 1);
    EXPECT_EQ(IMGLOW_set_transp_color(h, 0), 0);
    EXPECT_EQ(IMGLOW_get_transp_color(h), 0);
}

TEST_F(Accessors, DisplayAngle)
{
    int32_t h = NewImage(10, 10, 8);
    for (int32_t angle : {90, 180, 270, 0}) {
        EXPECT_EQ(IMG_set_display_angle(h, angle), 0);
        EXPECT_EQ(ImgTableGet(h)->displayAngle, angle);
    }
    EXPECT_EQ(IMG_set_display_angle(h, 90), 0);
    EXPECT_EQ(IMG_set_display_angle(h, 45), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_set_display_angle(h, -90), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_set_display_angle(h, 360), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTableGet(h)->displayAngle, 90); // unchanged
}

TEST_F(Accessors, Version)
{
    int32_t major = 0, minor = 0;
    EXPECT_EQ(IMG_ifl_version(&major, &minor), 0);
    EXPECT_EQ(major, 6);
    EXPECT_EQ(minor, 12);
    EXPECT_EQ(IMG_ifl_version(&major, &minor), 0);
    EXPECT_EQ(major, 6);
    EXPECT_EQ(minor, 12);
}

// ---- raster rows, plain ----

TEST_F(Raster, RowZeroIsTheTopRowStoredLast)
{
    int32_t h = NewImage(6, 3, 8);
    ImgDescriptor *d = ImgTableGet(h);
    uint8_t row[8] = {1, 2, 3, 4, 5, 6, 0, 0};
    EXPECT_EQ(IMGLOW_put_raster(h, row, 0, 0), 0); // 0 means one stride
    EXPECT_EQ(0, std::memcmp(d->dib + 1064 + 2 * 8, row, 8)); // (height - 0 - 1) * stride
    uint8_t back[8] = {};
    EXPECT_EQ(IMGLOW_get_raster(h, back, 0, 8), 0);
    EXPECT_EQ(0, std::memcmp(back, row, 8));
    EXPECT_EQ(IMGLOW_get_raster(h, back, 2, 0), 0);
    EXPECT_EQ(back[0], 0); // row 2 is the bottom row, still zero
}

TEST_F(Raster, ShortCountCopiesOnlyThatMany)
{
    int32_t h = NewImage(8, 2, 8);
    uint8_t row[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(IMGLOW_put_raster(h, row, 1, 3), 0);
    uint8_t back[8];
    std::memset(back, 0xEE, 8);
    EXPECT_EQ(IMGLOW_get_raster(h, back, 1, 0), 0);
    EXPECT_EQ(std::vector<uint8_t>(back, back + 8), std::vector<uint8_t>({9, 9, 9, 0, 0, 0, 0, 0}));
}

TEST_F(Raster, CountMayRunOnIntoTheRowsAbove)
{
    // Rows are bottom-up: the bytes after row r are rows r-1, r-2, ... up to the top.
    int32_t h = NewImage(4, 3, 8);
    ImgDescriptor *d = ImgTableGet(h);
    for (int i = 0; i < 12; i++)
        d->dib[1064 + i] = (uint8_t)i;
    std::vector<uint8_t> all(12);
    EXPECT_EQ(IMGLOW_get_raster(h, all.data(), 2, 12), 0);
    for (int i = 0; i < 12; i++)
        EXPECT_EQ(all[i], i);
    EXPECT_EQ(IMGLOW_get_raster(h, all.data(), 1, 12), IMG_ERR_TYPE); // beyond the pixels
}

TEST_F(Raster, RowsOutsideTheImageAreRefused)
{
    int32_t h = NewImage(4, 3, 8);
    uint8_t row[4] = {};
    EXPECT_EQ(IMGLOW_get_raster(h, row, -1, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_get_raster(h, row, 3, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_put_raster(h, row, 3, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_put_raster(h, row, 0, -4), IMG_ERR_TYPE);
}

// ---- run-coded images ----

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

bool PixelOf(const uint8_t *row, int32_t x) { return (row[x >> 3] >> (7 - (x & 7))) & 1; }

TEST_F(CodedStore, DibToRunsAndBack)
{
    TestDib dib(203, 37, 1);
    FillPattern(dib);
    std::vector<uint8_t> original(dib.block, dib.block + 48 + (size_t)dib.stride * 37);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_GE(h, 0);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->codedRows, 1);
    EXPECT_NE(d->rowIndex, nullptr);
    BITMAPINFOHEADER header;
    std::memcpy(&header, d->dib, 40);
    EXPECT_EQ(header.biCompression, 99u);
    EXPECT_EQ(0, std::memcmp(d->dib + 40, original.data() + 40, 8)); // palette kept
    EXPECT_EQ(d->rowIndex[0], 0u);
    std::vector<uint8_t> row((size_t)dib.stride);
    for (int32_t r = 0; r < 37; r++) {
        ASSERT_EQ(IMGLOW_get_raster(h, row.data(), r, 0), 0);
        for (int32_t x = 0; x < 203; x++)
            ASSERT_EQ(PixelOf(row.data(), x), PixelOf(&original[48 + (size_t)(36 - r) * dib.stride], x))
                << r << "," << x;
    }
    ASSERT_EQ(IMG_runs_to_dib(h), 0);
    d = ImgTableGet(h);
    EXPECT_EQ(d->codedRows, 0);
    EXPECT_EQ(d->rowIndex, nullptr);
    EXPECT_EQ(d->dibSize, 48u + (uint32_t)dib.stride * 37u);
    std::memcpy(&header, d->dib, 40);
    EXPECT_EQ(header.biCompression, 0u);
    for (int32_t r = 0; r < 37; r++)
        for (int32_t x = 0; x < 203; x++)
            ASSERT_EQ(PixelOf(d->dib + 48 + (size_t)(36 - r) * dib.stride, x),
                      PixelOf(&original[48 + (size_t)(36 - r) * dib.stride], x));
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0); // the converted blocks are ours and are freed
}

TEST_F(CodedStore, StoredRecordsEndWithWidthThreeTimes)
{
    TestDib dib(20, 2, 1);
    std::memset(dib.Row(0), 0xFF, 4);
    dib.Row(0)[0] = 0x0F; // pixels 0-3 black
    std::memset(dib.Row(1), 0xFF, 4);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    const ImgDescriptor *d = ImgTableGet(h);
    const uint16_t *row0 = reinterpret_cast<const uint16_t *>(d->dib + 48 + d->rowIndex[0]);
    EXPECT_EQ(std::vector<uint16_t>(row0, row0 + 6), std::vector<uint16_t>({12, 0, 4, 20, 20, 20}));
    EXPECT_EQ(d->rowIndex[1], 12u);
    const uint16_t *row1 = reinterpret_cast<const uint16_t *>(d->dib + 48 + d->rowIndex[1]);
    EXPECT_EQ(std::vector<uint16_t>(row1, row1 + 4), std::vector<uint16_t>({8, 20, 20, 20}));
    EXPECT_EQ(d->rowIndex[2], 20u);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, RecordOfStrideLengthGetsFourthWidth)
{
    // Width 64: stride 8; an all-white row is 2 + 3 * 2 = 8 bytes, the stride: a fourth width.
    TestDib dib(64, 1, 1);
    std::memset(dib.Row(0), 0xFF, 8);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    const ImgDescriptor *d = ImgTableGet(h);
    const uint16_t *row0 = reinterpret_cast<const uint16_t *>(d->dib + 48);
    EXPECT_EQ(std::vector<uint16_t>(row0, row0 + 5), std::vector<uint16_t>({10, 64, 64, 64, 64}));
    EXPECT_EQ(d->rowIndex[1], 10u);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, StoreStartsAtOneEighthAndGrowsByExtrapolation)
{
    // 100 x 50 white: plain size 40 + 8 + 16 * 50 = 848, store 848 / 8 = 106 bytes.
    // Each row is 8 bytes; row 7 would end at 48 + 64 = 112 > 106, so dibSize becomes
    // trunc(50 / (7 + 10) * 106) + 32768 = trunc(311.76) + 32768 = 33079.
    TestDib dib(100, 50, 1);
    std::memset(dib.block + 48, 0xFF, 16 * 50);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    EXPECT_EQ(ImgTableGet(h)->dibSize, 33079u);
    EXPECT_EQ(ImgTableGet(h)->rowIndex[50], 400u);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, WideImagesStartAtOneFiftieth)
{
    // Width 10000: stride 1252, plain 48 + 2 * 1252 = 2552, store 2552 / 50 = 51.
    // Row 0 ends at 48 + 8 = 56 > 51: trunc(2 / 10 * 51) + 32768 = 32778.
    TestDib wide(10000, 2, 1);
    std::memset(wide.block + 48, 0xFF, 2 * 1252);
    int32_t h = IMG_create_handle_keep(wide.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    EXPECT_EQ(ImgTableGet(h)->dibSize, 32778u);
    // Width 9999: the same plain size, one eighth: 319 bytes, enough for 48 + 16.
    TestDib narrow(9999, 2, 1);
    std::memset(narrow.block + 48, 0xFF, 2 * 1252);
    int32_t h2 = IMG_create_handle_keep(narrow.block);
    ASSERT_EQ(IMG_dib_to_runs(h2), 0);
    EXPECT_EQ(ImgTableGet(h2)->dibSize, 319u);
    IMG_delete_bitmap_keep(h);
    IMG_delete_bitmap_keep(h2);
}

TEST_F(CodedStore, DenseRowsNeedMoreThanTheGrowthFormula)
{
    // A checkerboard of single pixels: every pixel a change, far beyond what the
    // extrapolation gives near the last rows; the store still holds every row.
    TestDib dib(4000, 40, 1);
    for (int32_t r = 0; r < 40; r++)
        std::memset(dib.Row(r), (r & 1) ? 0x55 : 0xAA, (size_t)dib.stride);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    std::vector<uint8_t> row((size_t)dib.stride);
    for (int32_t r = 0; r < 40; r++) {
        ASSERT_EQ(IMGLOW_get_raster(h, row.data(), r, 0), 0);
        ASSERT_EQ(row[0], (r & 1) ? 0x55 : 0xAA);
        ASSERT_EQ(row[499], (r & 1) ? 0x55 : 0xAA);
    }
    EXPECT_GE(ImgTableGet(h)->dibSize, 48u + ImgTableGet(h)->rowIndex[40]);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, OnlyBilevelPlainImagesConvert)
{
    int32_t h8 = NewImage(10, 10, 8);
    EXPECT_EQ(IMG_dib_to_runs(h8), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_runs_to_dib(h8), 0); // already plain
    int32_t h1 = NewImage(10, 10, 1);
    EXPECT_EQ(IMG_dib_to_runs(h1), 0);
    uint8_t *store = ImgTableGet(h1)->dib;
    EXPECT_EQ(IMG_dib_to_runs(h1), 0); // already coded: nothing happens
    EXPECT_EQ(ImgTableGet(h1)->dib, store);
}

TEST_F(CodedStore, FailedConversionLeavesImageUnchanged)
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
    ImgTestFailAllocations(0);
    EXPECT_EQ(IMG_runs_to_dib(h), IMG_ERR_MEMORY);
    EXPECT_EQ(ImgTableGet(h)->codedRows, 1);
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, GetRasterFillsBeyondWidthWithOnes)
{
    TestDib dib(10, 1, 1);
    dib.Row(0)[0] = 0x00; // ten black pixels, padding bits clear in the source
    dib.Row(0)[1] = 0x00;
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    uint8_t row[4] = {};
    ASSERT_EQ(IMGLOW_get_raster(h, row, 0, 0), 0);
    EXPECT_EQ(row[0], 0x00);
    EXPECT_EQ(row[1], 0x3F); // pixels 8, 9 black; the rest of the scratch row is 0xFF
    EXPECT_EQ(row[2], 0xFF);
    EXPECT_EQ(row[3], 0xFF);
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
            ASSERT_EQ(PixelOf(back.data(), x), PixelOf(rows[r].data(), x)) << r << "," << x;
    }
    // The store stays contiguous: each row starts where the previous one ends.
    const ImgDescriptor *d = ImgTableGet(h);
    for (int32_t r = 0; r < 5; r++) {
        const uint16_t *record = reinterpret_cast<const uint16_t *>(d->dib + 48 + d->rowIndex[r]);
        EXPECT_EQ(d->rowIndex[r + 1] - d->rowIndex[r], record[0]);
    }
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, PutRasterShortCountKeepsRestOfRow)
{
    TestDib dib(32, 1, 1);
    std::memset(dib.Row(0), 0x00, 4); // all black
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    uint8_t first = 0xFF;
    ASSERT_EQ(IMGLOW_put_raster(h, &first, 0, 1), 0);
    uint8_t back[4];
    ASSERT_EQ(IMGLOW_get_raster(h, back, 0, 0), 0);
    EXPECT_EQ(std::vector<uint8_t>(back, back + 4), std::vector<uint8_t>({0xFF, 0, 0, 0}));
    IMG_delete_bitmap_keep(h);
}

TEST_F(CodedStore, CodedRowRequestsStayInsideOneRow)
{
    int32_t h = NewImage(40, 3, 1);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    std::vector<uint8_t> buffer(64);
    EXPECT_EQ(IMGLOW_get_raster(h, buffer.data(), 0, 9), IMG_ERR_TYPE); // stride is 8
    EXPECT_EQ(IMGLOW_put_raster(h, buffer.data(), 0, 9), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_get_raster(h, buffer.data(), 3, 0), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_get_raster(h, buffer.data(), 2, 8), 0);
}

TEST_F(CodedStore, RasterScratchFailureGivesMinus1)
{
    int32_t h = NewImage(40, 3, 1);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    uint8_t buffer[8];
    ImgTestFailAllocations(0);
    EXPECT_EQ(IMGLOW_get_raster(h, buffer, 0, 0), IMG_ERR_MEMORY);
    ImgTestFailAllocations(0);
    EXPECT_EQ(IMGLOW_put_raster(h, buffer, 0, 0), IMG_ERR_MEMORY);
}

} // namespace
