/* Part 5.1: flip left-right, flip top-bottom and invert, on plain bitmaps of
 * every depth and on coded rows, checked against a naive pixel-at-a-time
 * model written here from the spec's words. */
#include "test_support.h"

#include <random>

#include "pipeline/decode.h"
#include "process/flip.h"

namespace {

class Part5_1_Flip : public TrnwTest {};

const int kDepths[] = {1, 4, 8, 16, 24, 32};

// ---- the naive model ----

uint32_t GetPixel(const std::vector<uint8_t> &row, int32_t x, int bits)
{
    switch (bits) {
    case 1: return (row[(size_t)x >> 3] >> (7 - (x & 7))) & 1;
    case 4: return (x & 1) ? row[(size_t)x >> 1] & 0x0F : row[(size_t)x >> 1] >> 4;
    default: {
        uint32_t value = 0;
        size_t size = (size_t)bits / 8;
        for (size_t k = 0; k < size; k++)
            value |= (uint32_t)row[(size_t)x * size + k] << (8 * k);
        return value;
    }
    }
}

// Pixel values, top row first.
using Picture = std::vector<std::vector<uint32_t>>;

std::vector<uint8_t> Raster(int32_t handle, int32_t row)
{
    ImgDescriptor *d = ImgTableGet(handle);
    std::vector<uint8_t> bytes((size_t)d->stride);
    EXPECT_EQ(IMGLOW_get_raster(handle, bytes.data(), row, 0), 0);
    return bytes;
}

Picture Pixels(int32_t handle)
{
    int32_t w, h, bits;
    EXPECT_GE(IMG_bitmap_info(handle, &w, &h, &bits), 0);
    Picture picture((size_t)h);
    for (int32_t y = 0; y < h; y++) {
        std::vector<uint8_t> row = Raster(handle, y);
        for (int32_t x = 0; x < w; x++)
            picture[(size_t)y].push_back(GetPixel(row, x, bits));
    }
    return picture;
}

Picture ModelFlipX(Picture p)
{
    for (auto &row : p)
        std::reverse(row.begin(), row.end());
    return p;
}

Picture ModelFlipY(Picture p)
{
    std::reverse(p.begin(), p.end());
    return p;
}

// Every stored byte of the image, header and palette first, rows bottom-up.
std::vector<uint8_t> StoredBytes(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    size_t size = ImgDescriptorBitsOffset(d) + (size_t)d->stride * (size_t)d->height;
    return std::vector<uint8_t>(d->dib, d->dib + size);
}

// A plain image of random bytes (padding included) and a random palette.
int32_t RandomImage(int32_t w, int32_t h, int bits, uint32_t seed)
{
    int32_t handle = NewImage(w, h, bits);
    EXPECT_GE(handle, 0);
    ImgDescriptor *d = ImgTableGet(handle);
    std::mt19937 random(seed);
    uint32_t offset = ImgDescriptorBitsOffset(d);
    for (uint32_t i = 40; i < offset + (uint32_t)(d->stride * h); i++)
        d->dib[i] = (uint8_t)random();
    return handle;
}

// A 1-bit picture of random runs, as plain rows.
int32_t RandomBilevel(int32_t w, int32_t h, uint32_t seed, int meanRun = 6)
{
    int32_t handle = NewImage(w, h, 1);
    EXPECT_GE(handle, 0);
    std::mt19937 random(seed);
    ImgDescriptor *d = ImgTableGet(handle);
    for (int32_t y = 0; y < h; y++) {
        std::vector<uint8_t> row((size_t)d->stride, 0);
        bool colour = random() & 1;
        for (int32_t x = 0; x < w;) {
            int run = 1 + (int)(random() % (unsigned)(2 * meanRun));
            for (int i = 0; i < run && x < w; i++, x++)
                if (colour)
                    row[(size_t)x >> 3] |= (uint8_t)(0x80 >> (x & 7));
            colour = !colour;
        }
        EXPECT_EQ(IMGLOW_put_raster(handle, row.data(), y, 0), 0);
    }
    return handle;
}

// A copy of an image (plain), through its bytes.
int32_t CopyImage(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    int32_t copy = NewImage(d->width, d->height, ImgDescriptorBits(d));
    EXPECT_GE(copy, 0);
    std::vector<uint8_t> bytes = StoredBytes(handle);
    std::memcpy(ImgTableGet(copy)->dib, bytes.data(), bytes.size());
    return copy;
}

// The words of coded row r.
std::vector<uint16_t> Record(int32_t handle, int32_t r)
{
    uint32_t bytes;
    const uint16_t *record = RunStoreRow(ImgTableGet(handle), r, &bytes);
    EXPECT_NE(record, nullptr) << "row " << r;
    if (!record)
        return {};
    return std::vector<uint16_t>(record, record + bytes / 2);
}

std::vector<std::vector<uint16_t>> Records(int32_t handle)
{
    std::vector<std::vector<uint16_t>> all;
    for (int32_t r = 0; r < ImgTableGet(handle)->height; r++)
        all.push_back(Record(handle, r));
    return all;
}

// A row of `width` 1-bit pixels, black (0) inside the given runs [start, end).
std::vector<uint8_t> BilevelRow(int32_t width, std::vector<std::pair<int, int>> blackRuns)
{
    std::vector<uint8_t> row(DibStride((uint32_t)width, 1), 0xFF);
    for (auto run : blackRuns)
        for (int x = run.first; x < run.second; x++)
            row[(size_t)x >> 3] &= (uint8_t)~(0x80 >> (x & 7));
    return row;
}

// ---- progress ----

int32_t progressCalls, progressTotal, progressAbortAt, progressAnswer;

} // namespace

extern "C" int32_t IMGAPI Part5_1_FlipProgress(int32_t, int32_t total)
{
    progressCalls++;
    progressTotal = total;
    return progressCalls == progressAbortAt ? progressAnswer : 0;
}

namespace {

// Reporting on for one scope; off again (and counters reset) at its end.
struct ProgressOn {
    explicit ProgressOn(int32_t abortAt = 0, int32_t answer = 0)
    {
        progressCalls = progressTotal = 0;
        progressAbortAt = abortAt;
        progressAnswer = answer;
        IMG_set_statusbar(5, Part5_1_FlipProgress, 1);
    }
    ~ProgressOn() { IMG_set_statusbar(0, nullptr, 0); }
};

using Operation = int32_t(IMGAPI *)(int32_t);
struct NamedOperation {
    const char *name;
    Operation call;
};
const NamedOperation kOperations[] = {
    {"flip x", IMG_flip_bitmapx}, {"flip y", IMG_flip_bitmapy}, {"invert", IMG_invert_bitmap}};

// ---- plain rows against the model ----

const int32_t kWidths[] = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63};

TEST_F(Part5_1_Flip, FlipXMatchesModelForEveryDepthAndWidth)
{
    for (int bits : kDepths) {
        for (int32_t w : kWidths) {
            SCOPED_TRACE(testing::Message() << bits << " bits, width " << w);
            int32_t h = RandomImage(w, 3, bits, (uint32_t)(bits * 1000 + w));
            Picture before = Pixels(h);
            std::vector<uint8_t> palette(StoredBytes(h));
            palette.resize(ImgDescriptorBitsOffset(ImgTableGet(h)));
            ASSERT_EQ(IMG_flip_bitmapx(h), 0);
            EXPECT_EQ(Pixels(h), ModelFlipX(before));
            std::vector<uint8_t> after = StoredBytes(h);
            EXPECT_TRUE(std::equal(palette.begin(), palette.end(), after.begin()));
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_Flip, FlipXKeepsStridePaddingAndOddWidth4BitRule)
{
    // 1 bit: the padding bits of the last byte and the padding bytes stay.
    int32_t h = NewImage(13, 1, 1);
    std::vector<uint8_t> row = {0xC0, 0x1F, 0xAB, 0xCD}; // pixels 0,1 and 11,12 set; padding 111 in byte 1
    ASSERT_EQ(IMGLOW_put_raster(h, row.data(), 0, 0), 0);
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    EXPECT_EQ(Raster(h, 0), (std::vector<uint8_t>{0xC0, 0x1F, 0xAB, 0xCD}));
    row = {0x80, 0x07, 0x00, 0x00}; // pixel 0 set only, padding 111
    ASSERT_EQ(IMGLOW_put_raster(h, row.data(), 0, 0), 0);
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    EXPECT_EQ(Raster(h, 0), (std::vector<uint8_t>{0x00, 0x0F, 0x00, 0x00})); // pixel 12
    // 4 bits, width 5: output byte j = high nibble of byte k with the low
    // nibble of byte k - 1 (k = 2 - j), the last one the high nibble of byte 0.
    int32_t g = NewImage(5, 1, 4);
    row = {0x12, 0x34, 0x5F, 0x99};
    ASSERT_EQ(IMGLOW_put_raster(g, row.data(), 0, 0), 0);
    ASSERT_EQ(IMG_flip_bitmapx(g), 0);
    EXPECT_EQ(Raster(g, 0), (std::vector<uint8_t>{0x54, 0x32, 0x10, 0x99}));
    // Even width: bytes reversed, nibbles swapped.
    int32_t e = NewImage(4, 1, 4);
    row = {0x12, 0x34, 0x77, 0x77};
    ASSERT_EQ(IMGLOW_put_raster(e, row.data(), 0, 0), 0);
    ASSERT_EQ(IMG_flip_bitmapx(e), 0);
    EXPECT_EQ(Raster(e, 0), (std::vector<uint8_t>{0x43, 0x21, 0x77, 0x77}));
}

TEST_F(Part5_1_Flip, FlipYMatchesModelForEveryDepthAndWidth)
{
    for (int bits : kDepths) {
        for (int32_t w : {1, 3, 8, 17}) {
            for (int32_t rows : {1, 2, 5}) {
                SCOPED_TRACE(testing::Message() << bits << " bits, " << w << " x " << rows);
                int32_t h = RandomImage(w, rows, bits, (uint32_t)(bits * 100 + w * 10 + rows));
                std::vector<uint8_t> before = StoredBytes(h);
                uint32_t dibSize = ImgTableGet(h)->dibSize;
                ASSERT_EQ(IMG_flip_bitmapy(h), 0);
                // Whole stored rows (padding included) change places.
                ImgDescriptor *d = ImgTableGet(h);
                EXPECT_EQ(d->dibSize, dibSize); // a new block of the same size
                std::vector<uint8_t> after = StoredBytes(h);
                size_t offset = ImgDescriptorBitsOffset(d), stride = (size_t)d->stride;
                EXPECT_TRUE(std::equal(before.begin(), before.begin() + (ptrdiff_t)offset, after.begin()));
                for (int32_t m = 0; m < rows; m++)
                    EXPECT_TRUE(std::equal(before.begin() + (ptrdiff_t)(offset + m * stride),
                                           before.begin() + (ptrdiff_t)(offset + (m + 1) * stride),
                                           after.begin() + (ptrdiff_t)(offset + (rows - 1 - m) * stride)))
                        << "storage row " << m;
                IMG_delete_bitmap(h);
            }
        }
    }
}

TEST_F(Part5_1_Flip, FlipYMatchesPixelModel)
{
    for (int bits : kDepths) {
        int32_t h = RandomImage(11, 7, bits, (uint32_t)bits);
        Picture before = Pixels(h);
        ASSERT_EQ(IMG_flip_bitmapy(h), 0);
        EXPECT_EQ(Pixels(h), ModelFlipY(before)) << bits << " bits";
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part5_1_Flip, InvertComplementsEveryStoredByteOfEveryDepth)
{
    for (int bits : kDepths) {
        for (int32_t w : {1, 5, 8, 13}) {
            int32_t h = RandomImage(w, 4, bits, (uint32_t)(bits + w));
            std::vector<uint8_t> before = StoredBytes(h);
            ASSERT_EQ(IMG_invert_bitmap(h), 0);
            std::vector<uint8_t> after = StoredBytes(h);
            size_t offset = ImgDescriptorBitsOffset(ImgTableGet(h));
            for (size_t i = 0; i < before.size(); i++)
                ASSERT_EQ(after[i], i < offset ? before[i] : (uint8_t)~before[i])
                    << bits << " bits, width " << w << ", byte " << i; // over the whole stride
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_Flip, InvertingA1BitImageTwiceRestoresItExactly)
{
    int32_t plain = RandomBilevel(37, 9, 1);
    int32_t coded = CopyImage(plain);
    ASSERT_EQ(IMG_dib_to_runs(coded), 0);
    std::vector<uint8_t> before = StoredBytes(plain);
    auto records = Records(coded);
    Picture picture = Pixels(coded);
    ASSERT_EQ(IMG_invert_bitmap(plain), 0);
    ASSERT_EQ(IMG_invert_bitmap(coded), 0);
    EXPECT_NE(StoredBytes(plain), before);
    EXPECT_NE(Pixels(coded), picture);
    ASSERT_EQ(IMG_invert_bitmap(plain), 0);
    ASSERT_EQ(IMG_invert_bitmap(coded), 0);
    EXPECT_EQ(StoredBytes(plain), before);
    EXPECT_EQ(Records(coded), records); // the very records
    EXPECT_EQ(Pixels(coded), picture);
}

TEST_F(Part5_1_Flip, InvertingAn8BitImageChangesIndicesNotPalette)
{
    int32_t h = RandomImage(6, 2, 8, 8);
    std::vector<uint8_t> palette(1024), after(1024);
    ASSERT_EQ(IMGLOW_get_palette(h, palette.data()), 0);
    Picture before = Pixels(h);
    ASSERT_EQ(IMG_invert_bitmap(h), 0);
    ASSERT_EQ(IMGLOW_get_palette(h, after.data()), 0);
    EXPECT_EQ(after, palette);
    Picture inverted = Pixels(h);
    for (size_t y = 0; y < before.size(); y++)
        for (size_t x = 0; x < before[y].size(); x++)
            EXPECT_EQ(inverted[y][x], 255 - before[y][x]);
}

TEST_F(Part5_1_Flip, FlippingTwiceRestoresEveryDepth)
{
    for (int bits : kDepths) {
        for (int32_t w : {1, 6, 7, 19}) {
            for (Operation flip : {IMG_flip_bitmapx, IMG_flip_bitmapy}) {
                int32_t h = RandomImage(w, 5, bits, (uint32_t)(w * bits));
                Picture before = Pixels(h);
                std::vector<uint8_t> bytes = StoredBytes(h);
                ASSERT_EQ(flip(h), 0);
                ASSERT_EQ(flip(h), 0);
                EXPECT_EQ(Pixels(h), before) << bits << " bits, width " << w;
                if (!(bits == 4 && (w & 1))) { // there the padding nibble becomes 0
                    EXPECT_EQ(StoredBytes(h), bytes) << bits << " bits, width " << w;
                }
                IMG_delete_bitmap(h);
            }
        }
    }
}

// ---- coded rows ----

TEST_F(Part5_1_Flip, CodedFlipsEqualPlainFlipsOfTheSamePicture)
{
    std::vector<int32_t> widths;
    for (int32_t w = 1; w <= 80; w++)
        widths.push_back(w);
    for (int32_t w : {100, 127, 128, 129, 1000, 1728})
        widths.push_back(w);
    for (const NamedOperation &op : kOperations) {
        for (int32_t w : widths) {
            for (int meanRun : {1, 5, 40}) {
                SCOPED_TRACE(testing::Message() << op.name << ", width " << w << ", mean run " << meanRun);
                int32_t plain = RandomBilevel(w, 6, (uint32_t)(w * 7 + meanRun), meanRun);
                int32_t coded = CopyImage(plain);
                ASSERT_EQ(IMG_dib_to_runs(coded), 0);
                ASSERT_EQ(op.call(plain), 0);
                ASSERT_EQ(op.call(coded), 0);
                ASSERT_EQ(ImgTableGet(coded)->codedRows, 1);
                ASSERT_EQ(Pixels(coded), Pixels(plain));
                // The rebuilt store holds exactly what the coder makes of the rows,
                // except that invert does not add a fourth width.
                if (op.call != IMG_invert_bitmap) {
                    std::vector<uint16_t> work(RunRecordMaxBytes(w) / 2 + 4);
                    for (int32_t r = 0; r < 6; r++) {
                        std::vector<uint8_t> row = Raster(plain, r);
                        int bytes = RunEncodeRow(row.data(), w, work.data());
                        ASSERT_EQ(Record(coded, r), std::vector<uint16_t>(work.begin(), work.begin() + bytes / 2))
                            << "row " << r;
                    }
                }
                IMG_delete_bitmap(plain);
                IMG_delete_bitmap(coded);
            }
        }
    }
}

TEST_F(Part5_1_Flip, CodedFlipsTwiceRestoreTheRecords)
{
    for (Operation flip : {IMG_flip_bitmapx, IMG_flip_bitmapy}) {
        int32_t h = RandomBilevel(333, 20, 3);
        ASSERT_EQ(IMG_dib_to_runs(h), 0);
        auto records = Records(h);
        ASSERT_EQ(flip(h), 0);
        EXPECT_NE(Records(h), records);
        ASSERT_EQ(flip(h), 0);
        EXPECT_EQ(Records(h), records);
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part5_1_Flip, CodedFlipXWritesLeadingZeroAndFourthWidth)
{
    // Width 100: the 1-bit stride is 16, so a record of 16 bytes gets a fourth width.
    int32_t h = NewImage(100, 5, 1);
    std::vector<std::vector<uint8_t>> rows = {
        BilevelRow(100, {{10, 20}, {30, 40}}), // 4 kept, even: 16 bytes, a fourth width
        BilevelRow(100, {{10, 20}, {30, 100}}), // 3 kept, odd: a leading 0, 16 bytes, a fourth width
        BilevelRow(100, {{0, 5}}),              // transition 0 dropped, even
        BilevelRow(100, {}),                    // white
        BilevelRow(100, {{0, 100}}),            // black: only transition 0, odd
    };
    for (int32_t r = 0; r < 5; r++)
        ASSERT_EQ(IMGLOW_put_raster(h, rows[(size_t)r].data(), r, 0), 0);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    ASSERT_EQ(Record(h, 2), (std::vector<uint16_t>{12, 0, 5, 100, 100, 100}));
    ImgDescriptor *d = ImgTableGet(h);
    uint32_t dibSize = d->dibSize;
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    d = ImgTableGet(h);
    EXPECT_EQ(Record(h, 0), (std::vector<uint16_t>{18, 60, 70, 80, 90, 100, 100, 100, 100}));
    EXPECT_EQ(Record(h, 1), (std::vector<uint16_t>{18, 0, 70, 80, 90, 100, 100, 100, 100}));
    EXPECT_EQ(Record(h, 2), (std::vector<uint16_t>{10, 95, 100, 100, 100}));
    EXPECT_EQ(Record(h, 3), (std::vector<uint16_t>{8, 100, 100, 100}));
    EXPECT_EQ(Record(h, 4), (std::vector<uint16_t>{10, 0, 100, 100, 100}));
    // The row index: one record behind the other from offset 0.
    std::vector<uint32_t> index(d->rowIndex, d->rowIndex + 6);
    EXPECT_EQ(index, (std::vector<uint32_t>{0, 18, 36, 46, 54, 64}));
    // The new block: header and palette + dibSize + height * 8.
    EXPECT_EQ(d->dibSize, 48 + dibSize + 5 * 8);
    EXPECT_EQ(((BITMAPINFOHEADER *)d->dib)->biCompression, DIB_RUN_CODED);
}

TEST_F(Part5_1_Flip, CodedFlipYReversesRecordsInABlockOf1000More)
{
    int32_t h = RandomBilevel(50, 7, 9);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    auto records = Records(h);
    uint32_t dibSize = ImgTableGet(h)->dibSize;
    ASSERT_EQ(IMG_flip_bitmapy(h), 0);
    std::reverse(records.begin(), records.end());
    EXPECT_EQ(Records(h), records);
    ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(d->dibSize, 48 + dibSize + 1000);
    uint32_t offset = 0;
    for (int32_t r = 0; r < 7; r++) {
        EXPECT_EQ(d->rowIndex[r], offset);
        offset += (uint32_t)records[(size_t)r].size() * 2;
    }
    EXPECT_EQ(d->rowIndex[7], offset);
}

TEST_F(Part5_1_Flip, CodedInvertRemovesOrAddsLeadingZero)
{
    int32_t h = NewImage(100, 3, 1);
    std::vector<std::vector<uint8_t>> rows = {BilevelRow(100, {{0, 5}}), BilevelRow(100, {{10, 20}, {30, 40}}),
                                              BilevelRow(100, {})};
    for (int32_t r = 0; r < 3; r++)
        ASSERT_EQ(IMGLOW_put_raster(h, rows[(size_t)r].data(), r, 0), 0);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    ASSERT_EQ(Record(h, 1), (std::vector<uint16_t>{18, 10, 20, 30, 40, 100, 100, 100, 100}));
    uint32_t dibSize = ImgTableGet(h)->dibSize;
    ASSERT_EQ(IMG_invert_bitmap(h), 0);
    EXPECT_EQ(Record(h, 0), (std::vector<uint16_t>{10, 5, 100, 100, 100}));                    // length - 2
    EXPECT_EQ(Record(h, 1), (std::vector<uint16_t>{20, 0, 10, 20, 30, 40, 100, 100, 100, 100})); // length + 2
    EXPECT_EQ(Record(h, 2), (std::vector<uint16_t>{10, 0, 100, 100, 100}));
    ImgDescriptor *d = ImgTableGet(h);
    EXPECT_EQ(std::vector<uint32_t>(d->rowIndex, d->rowIndex + 4), (std::vector<uint32_t>{0, 10, 30, 40}));
    EXPECT_EQ(d->dibSize, 48 + dibSize + 3 * 8);
    std::vector<uint8_t> black(16, 0xFF);
    std::fill(black.begin(), black.begin() + 12, 0);
    black[12] = 0x0F; // pixels 96..99 black; the padding bits read as 1
    EXPECT_EQ(Raster(h, 2), black);
}

// ---- record helpers (core/runs.c) ----

TEST_F(Part5_1_Flip, MirrorAndInvertRecordHelpers)
{
    uint16_t out[32];
    // Mirror of {3} over 10: odd, a leading 0; stride 4 is never 2 * kept + 8.
    const uint16_t a[] = {10, 3, 10, 10, 10};
    EXPECT_EQ(RunMirrorRecord(a, sizeof a, 10, nullptr), 12);
    EXPECT_EQ(RunMirrorRecord(a, sizeof a, 10, out), 12);
    EXPECT_EQ(std::vector<uint16_t>(out, out + 6), (std::vector<uint16_t>{12, 0, 7, 10, 10, 10}));
    // Decoder form (width twice) and positions past the width end the list.
    const uint16_t b[] = {10, 2, 6, 40, 40};
    EXPECT_EQ(RunMirrorRecord(b, sizeof b, 40, out), 12); // 2 kept, even: 12, not the stride 8
    EXPECT_EQ(std::vector<uint16_t>(out, out + 6), (std::vector<uint16_t>{12, 34, 38, 40, 40, 40}));
    // Width 40, stride 8: the mirrored white row gets a fourth width.
    const uint16_t white[] = {8, 40, 40, 40};
    EXPECT_EQ(RunMirrorRecord(white, sizeof white, 40, out), 10);
    EXPECT_EQ(std::vector<uint16_t>(out, out + 5), (std::vector<uint16_t>{10, 40, 40, 40, 40}));
    // Invert: a first 0 goes, anything else gets one.
    const uint16_t c[] = {10, 0, 7, 10, 10};
    EXPECT_EQ(RunInvertRecord(c, sizeof c, nullptr), 8);
    EXPECT_EQ(RunInvertRecord(c, sizeof c, out), 8);
    EXPECT_EQ(std::vector<uint16_t>(out, out + 4), (std::vector<uint16_t>{8, 7, 10, 10}));
    EXPECT_EQ(RunInvertRecord(a, sizeof a, out), 12);
    EXPECT_EQ(std::vector<uint16_t>(out, out + 6), (std::vector<uint16_t>{12, 0, 3, 10, 10, 10}));
    // A bare length field becomes a black row; nothing past the given length is read.
    EXPECT_EQ(RunInvertRecord(a, 2, out), 4);
    EXPECT_EQ(std::vector<uint16_t>(out, out + 2), (std::vector<uint16_t>{4, 0}));
    EXPECT_EQ(RunInvertRecord(a, 0, out), 4);
    EXPECT_EQ(RunMirrorRecord(a, 0, 10, out), 8);
    EXPECT_EQ(RunMirrorRecord(a, 3, 10, out), 8); // an odd length is cut to whole words
}

TEST_F(Part5_1_Flip, HostileRecordsStayBounded)
{
    // Exactly sized heap copies, so that a read past the end trips ASan.
    std::mt19937 random(17);
    for (int trial = 0; trial < 2000; trial++) {
        size_t words = 1 + random() % 40;
        std::vector<uint16_t> record(words);
        for (auto &w : record)
            w = (uint16_t)(random() % 3 ? random() % 64 : random());
        int32_t width = (int32_t)(1 + random() % 80);
        uint32_t bytes = (uint32_t)(words * 2 - (random() % 2)); // odd lengths too
        int mirror = RunMirrorRecord(record.data(), bytes, width, nullptr);
        std::vector<uint16_t> out((size_t)mirror / 2);
        ASSERT_EQ(RunMirrorRecord(record.data(), bytes, width, out.data()), mirror);
        int invert = RunInvertRecord(record.data(), bytes, nullptr);
        out.assign((size_t)invert / 2, 0);
        ASSERT_EQ(RunInvertRecord(record.data(), bytes, out.data()), invert);
    }
}

TEST_F(Part5_1_Flip, GarbageRowIndexNeverLeavesTheStore)
{
    for (const NamedOperation &op : kOperations) {
        SCOPED_TRACE(op.name);
        int32_t h = RandomBilevel(64, 200, 5, 2);
        ASSERT_EQ(IMG_dib_to_runs(h), 0);
        ImgDescriptor *d = ImgTableGet(h);
        uint32_t end = d->rowIndex[200];
        // Even rows span the whole store (overlapping), odd rows run backwards;
        // the last entry points far past the block.
        for (int32_t r = 0; r <= 200; r++)
            d->rowIndex[r] = (r & 1) ? end : 0;
        d->rowIndex[199] = 0xFFFFFFF0u;
        uint32_t dibSize = d->dibSize;
        ASSERT_EQ(op.call(h), 0);
        d = ImgTableGet(h);
        if (op.call != IMG_flip_bitmapx) { // 99 copies of the whole store: the block grew
            EXPECT_GT(d->dibSize, 48 + dibSize + 200 * 8);
        }
        // The result is a proper store again: every row inside it.
        for (int32_t r = 0; r < 200; r++) {
            uint32_t bytes;
            ASSERT_NE(RunStoreRow(d, r, &bytes), nullptr) << "row " << r;
        }
        // Rows the index did not describe came out white (or black inverted).
        std::vector<uint8_t> row = Raster(h, op.call == IMG_flip_bitmapy ? 200 - 1 - 1 : 1);
        EXPECT_EQ(row, std::vector<uint8_t>(8, op.call == IMG_invert_bitmap ? 0x00 : 0xFF));
        IMG_delete_bitmap(h);
    }
}

// ---- crop rectangle ----

TEST_F(Part5_1_Flip, CropRectangleFollowsTheFlips)
{
    for (int coded = 0; coded < 2; coded++) {
        int32_t h = coded ? RandomBilevel(100, 50, 1) : NewImage(100, 50, 8);
        if (coded) {
            ASSERT_EQ(IMG_dib_to_runs(h), 0);
        }
        ASSERT_EQ(IMG_set_croprect(h, 10, 5, 30, 20), 0);
        int32_t x, y, w, ht;
        ASSERT_EQ(IMG_flip_bitmapx(h), 0);
        IMG_get_croprect(h, &x, &y, &w, &ht);
        EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({60, 5, 30, 20})); // 100 - 30 - 10
        ASSERT_EQ(IMG_flip_bitmapy(h), 0);
        IMG_get_croprect(h, &x, &y, &w, &ht);
        EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({60, 25, 30, 20})); // 50 - 20 - 5
        ASSERT_EQ(IMG_invert_bitmap(h), 0);
        IMG_get_croprect(h, &x, &y, &w, &ht);
        EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({60, 25, 30, 20}));
        ASSERT_EQ(IMG_flip_bitmapx(h), 0);
        ASSERT_EQ(IMG_flip_bitmapy(h), 0);
        IMG_get_croprect(h, &x, &y, &w, &ht);
        EXPECT_EQ(std::vector<int32_t>({x, y, w, ht}), std::vector<int32_t>({10, 5, 30, 20}));
        IMG_delete_bitmap(h);
    }
}

// ---- progress ----

TEST_F(Part5_1_Flip, ProgressOncePerRowWithHeightAsTotal)
{
    for (const NamedOperation &op : kOperations) {
        for (int coded = 0; coded < 2; coded++) {
            int32_t h = coded ? RandomBilevel(30, 13, 2) : RandomImage(30, 13, 24, 2);
            if (coded) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            ProgressOn progress;
            ASSERT_EQ(op.call(h), 0);
            EXPECT_EQ(progressCalls, 13) << op.name << (coded ? ", coded" : "");
            EXPECT_EQ(progressTotal, 13);
            IMG_delete_bitmap(h);
        }
    }
    // Reporting off: not called.
    int32_t h = NewImage(4, 4, 8);
    {
        ProgressOn progress;
        IMG_set_statusbar(0, nullptr, 0);
        ASSERT_EQ(IMG_flip_bitmapx(h), 0);
        EXPECT_EQ(progressCalls, 0);
    }
}

TEST_F(Part5_1_Flip, NegativeProgressAbortsAndLeavesImageUnchanged)
{
    for (const NamedOperation &op : kOperations) {
        for (int bits : {1, 4, 8, 24, 0}) { // 0: coded rows
            for (int32_t abortAt : {1, 4, 9}) {
                SCOPED_TRACE(testing::Message() << op.name << ", " << bits << " bits, abort at " << abortAt);
                int32_t h = bits ? RandomImage(7, 9, bits, 4) : RandomBilevel(7, 9, 4);
                if (!bits) {
                    ASSERT_EQ(IMG_dib_to_runs(h), 0);
                }
                ASSERT_EQ(IMG_set_croprect(h, 1, 2, 3, 4), 0);
                ImgDescriptor *d = ImgTableGet(h);
                ImgDescriptor saved = *d;
                std::vector<uint8_t> bytes = bits ? StoredBytes(h) : std::vector<uint8_t>();
                auto records = bits ? std::vector<std::vector<uint16_t>>() : Records(h);
                Picture picture = Pixels(h);
                {
                    ProgressOn progress(abortAt, -42);
                    EXPECT_EQ(op.call(h), -42);
                    EXPECT_EQ(progressCalls, abortAt);
                }
                d = ImgTableGet(h);
                EXPECT_EQ(d->dib, saved.dib);
                EXPECT_EQ(d->dibSize, saved.dibSize);
                EXPECT_EQ(d->rowIndex, saved.rowIndex);
                EXPECT_EQ(d->cropX, 1);
                EXPECT_EQ(d->cropY, 2);
                EXPECT_EQ(Pixels(h), picture);
                if (bits && !(bits == 4 && op.call == IMG_flip_bitmapx)) { // odd width: padding nibble
                    EXPECT_EQ(StoredBytes(h), bytes);
                }
                if (!bits) {
                    EXPECT_EQ(Records(h), records);
                }
                IMG_delete_bitmap(h);
            }
        }
    }
}

// ---- errors ----

TEST_F(Part5_1_Flip, BadHandlesGiveMinus13)
{
    ASSERT_EQ(NewImage(4, 4, 8), 0);
    ASSERT_EQ(NewImage(4, 4, 8), 1);
    ASSERT_EQ(NewImage(4, 4, 8), 2);
    ASSERT_EQ(IMG_delete_bitmap(1), 0);
    for (const NamedOperation &op : kOperations) {
        EXPECT_EQ(op.call(-1), IMG_ERR_HANDLE) << op.name;
        EXPECT_EQ(op.call(ImgTableCount()), IMG_ERR_HANDLE) << op.name;
        EXPECT_EQ(op.call(1), IMG_ERR_HANDLE) << op.name; // deleted
        EXPECT_EQ(op.call(0), 0) << op.name;
    }
}

TEST_F(Part5_1_Flip, AllocationFailureLeavesImageUnchanged)
{
    for (const NamedOperation &op : kOperations) {
        for (int coded = 0; coded < 2; coded++) {
            SCOPED_TRACE(testing::Message() << op.name << (coded ? ", coded" : ", plain"));
            int32_t h = coded ? RandomBilevel(45, 6, 8) : RandomImage(45, 6, 8, 8);
            if (coded) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            ASSERT_EQ(IMG_set_croprect(h, 1, 2, 3, 4), 0);
            Picture picture = Pixels(h);
            int failures = 0;
            for (int countdown = 0;; countdown++) {
                ASSERT_LT(countdown, 10);
                ImgDescriptor saved = *ImgTableGet(h);
                ImgTestFailAllocations(countdown);
                int32_t result = op.call(h);
                ImgTestFailAllocations(-1);
                if (result == 0)
                    break;
                failures++;
                ASSERT_EQ(result, IMG_ERR_MEMORY);
                ImgDescriptor *d = ImgTableGet(h);
                EXPECT_EQ(d->dib, saved.dib);
                EXPECT_EQ(d->rowIndex, saved.rowIndex);
                EXPECT_EQ(d->cropX, 1);
                EXPECT_EQ(d->cropY, 2);
                EXPECT_EQ(Pixels(h), picture);
            }
            // Every operation but the plain invert needs memory.
            EXPECT_EQ(failures > 0, coded || op.call != IMG_invert_bitmap);
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_Flip, CallersBlockIsNeverFreed)
{
    // IMG_create_handle_keep: flip x and invert work in the caller's block;
    // flip y puts a block of ours in its place and leaves the caller's alone.
    TestDib dib(9, 3, 8);
    for (int32_t r = 0; r < 3; r++)
        for (int32_t x = 0; x < 9; x++)
            dib.Row(r)[x] = (uint8_t)(r * 10 + x);
    int32_t h = IMG_create_handle_keep(dib.block);
    ASSERT_GE(h, 0);
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    EXPECT_EQ(ImgTableGet(h)->dib, dib.block);
    EXPECT_EQ(dib.Row(1)[0], 18);
    ASSERT_EQ(IMG_flip_bitmapy(h), 0);
    ImgDescriptor *d = ImgTableGet(h);
    EXPECT_NE(d->dib, dib.block);
    EXPECT_EQ(d->callerOwnsDib, 0);
    EXPECT_EQ(dib.Row(0)[0], 8); // the caller's block as it was after flip x
    std::vector<uint8_t> top = Raster(h, 0);
    EXPECT_EQ(top[0], 28);
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0); // frees our block only (ASan would see a leak or double free)
}

TEST_F(Part5_1_Flip, MirrorRowHelperForRotation)
{
    const uint8_t source[4] = {0x12, 0x34, 0x56, 0x78};
    uint8_t target[4] = {0, 0, 0, 0xEE};
    FlipMirrorRow(source, target, 3, 8);
    EXPECT_EQ(std::vector<uint8_t>(target, target + 4), (std::vector<uint8_t>{0x56, 0x34, 0x12, 0xEE}));
    FlipMirrorRow(source, target, 2, 16);
    EXPECT_EQ(std::vector<uint8_t>(target, target + 4), (std::vector<uint8_t>{0x56, 0x78, 0x12, 0x34}));
}

} // namespace
