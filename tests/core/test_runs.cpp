/* Run records: coding packed rows and expanding records, checked against a
 * naive pixel-at-a-time model. */
#include "support/support.h"

#include <random>

namespace {

class RunRecords : public TrnwTest {};

bool Pixel(const std::vector<uint8_t> &row, int x) { return RowPixel(row.data(), x, 1); }

// The changes of a row of pixels: positions where a pixel differs from the one
// before, the row starting white (1) as if pixel -1 were white.
std::vector<uint16_t> NaiveChanges(const std::vector<uint8_t> &row, int width)
{
    std::vector<uint16_t> changes;
    bool previous = true;
    for (int x = 0; x < width; x++) {
        bool p = Pixel(row, x);
        if (p != previous)
            changes.push_back((uint16_t)x);
        previous = p;
    }
    return changes;
}

// Pixel x is 0 when an odd number of changes lie at or before it.
std::vector<bool> NaivePixels(const std::vector<uint16_t> &changes, int width)
{
    std::vector<bool> pixels((size_t)width, true);
    size_t k = 0;
    bool colour = true;
    for (int x = 0; x < width; x++) {
        while (k < changes.size() && changes[k] <= x) {
            colour = !colour;
            k++;
        }
        pixels[(size_t)x] = colour;
    }
    return pixels;
}

std::vector<uint8_t> RandomRow(std::mt19937 &random, int width, int meanRun)
{
    size_t bytes = ((size_t)width + 7) / 8;
    std::vector<uint8_t> row(bytes + 8);
    for (auto &b : row)
        b = (uint8_t)random(); // padding bits beyond the width are garbage on purpose
    bool colour = random() & 1;
    int x = 0;
    while (x < width) {
        int run = 1 + (int)(random() % (unsigned)(2 * meanRun));
        for (int i = 0; i < run && x < width; i++, x++) {
            if (colour)
                row[(size_t)x >> 3] |= (uint8_t)(0x80 >> (x & 7));
            else
                row[(size_t)x >> 3] &= (uint8_t)~(0x80 >> (x & 7));
        }
        colour = !colour;
    }
    return row;
}

std::vector<uint8_t> Expand(const std::vector<uint16_t> &record, int width, size_t rowBytes)
{
    std::vector<uint8_t> row(rowBytes + 16, 0xEE);
    RunExpandRow(record.data(), (uint32_t)(record.size() * 2), width, row.data(), (uint32_t)rowBytes);
    for (size_t i = rowBytes; i < row.size(); i++)
        EXPECT_EQ(row[i], 0xEE) << "expansion wrote beyond the row";
    row.resize(rowBytes);
    return row;
}

void ExpectPixels(const std::vector<uint8_t> &row, const std::vector<bool> &pixels)
{
    for (size_t x = 0; x < pixels.size(); x++)
        ASSERT_EQ(Pixel(row, (int)x), pixels[x]) << "pixel " << x;
}

// Every width 1..5000, runs of several mean lengths: the record is the length
// word, the changes, then the width three times (four when the length would
// equal the 1-bit stride); expanded, it gives the row back with 1-bit padding.
TEST_F(RunRecords, EncodeMatchesNaiveChangesAndRoundTrips)
{
    std::mt19937 random(1);
    for (int width = 1; width <= 5000; width++) {
        const int means[] = {1, 3, 40, 700, 1 + width % 9};
        std::vector<uint8_t> row = RandomRow(random, width, means[width % 5]);
        std::vector<uint16_t> record(RunRecordMaxBytes(width) / 2);
        int bytes = RunEncodeRow(row.data(), width, record.data());
        std::vector<uint16_t> changes = NaiveChanges(row, width);
        size_t stride = (size_t)((width + 31) / 32) * 4;
        size_t terminators = 2 + 2 * changes.size() + 6 == stride ? 4 : 3;
        ASSERT_EQ((size_t)bytes, 2 + 2 * changes.size() + 2 * terminators) << "width " << width;
        ASSERT_EQ(record[0], bytes);
        ASSERT_TRUE(std::equal(changes.begin(), changes.end(), record.begin() + 1)) << "width " << width;
        for (size_t t = 0; t < terminators; t++)
            ASSERT_EQ(record[1 + changes.size() + t], width);
        ASSERT_EQ(RunPlainChangeCount(record.data(), (uint32_t)bytes, width),
                  (int32_t)changes.size());
        record.resize((size_t)bytes / 2);
        std::vector<uint8_t> back = Expand(record, width, stride);
        for (int x = 0; x < (int)stride * 8; x++)
            ASSERT_EQ(Pixel(back, x), x < width ? Pixel(row, x) : true) << "width " << width << " pixel " << x;
    }
}

// The decoder forms: the length +2 when it equals (width + 7) / 8,
// a leading 0 position (an empty first run, swapping the colours), and the
// terminators width x3 (one-dimensional) or width, width, width+1, width+1
// (two-dimensional Group 3).
TEST_F(RunRecords, DecoderFormsExpandForWidths1To5000)
{
    std::mt19937 random(3);
    for (int width = 1; width <= 5000; width += (width < 100 ? 1 : 13)) {
        SCOPED_TRACE(width);
        std::vector<uint8_t> row = RandomRow(random, width, 1 + width % 7);
        std::vector<uint16_t> changes = NaiveChanges(row, width);
        size_t stride = (size_t)((width + 31) / 32) * 4;
        std::vector<bool> pixels = NaivePixels(changes, width);

        // One-dimensional form with the leading 0: the colours come out swapped.
        std::vector<uint16_t> leading = {0, 0};
        leading.insert(leading.end(), changes.begin(), changes.end());
        leading.insert(leading.end(), {(uint16_t)width, (uint16_t)width, (uint16_t)width});
        leading[0] = (uint16_t)(leading.size() * 2);
        if (leading[0] == (width + 7) / 8)
            leading[0] += 2;
        std::vector<uint16_t> withZero = {0};
        withZero.insert(withZero.end(), changes.begin(), changes.end());
        std::vector<bool> swapped = NaivePixels(withZero, width);
        ExpectPixels(Expand(leading, width, stride), swapped);

        // Two-dimensional Group 3 form.
        std::vector<uint16_t> twoD = {0};
        twoD.insert(twoD.end(), changes.begin(), changes.end());
        twoD.insert(twoD.end(), {(uint16_t)width, (uint16_t)width, (uint16_t)(width + 1),
                                 (uint16_t)(width + 1)});
        twoD[0] = (uint16_t)(twoD.size() * 2);
        ExpectPixels(Expand(twoD, width, stride), pixels);
        // Both forms are plain (a coder takes their changes as they are) but
        // for the leading 0 before a change at 0: an empty run.
        bool emptyRun = !changes.empty() && changes[0] == 0;
        EXPECT_EQ(RunPlainChangeCount(leading.data(), (uint32_t)leading.size() * 2, width),
                  emptyRun ? -1 : (int32_t)withZero.size());
        EXPECT_EQ(RunPlainChangeCount(twoD.data(), (uint32_t)twoD.size() * 2, width),
                  (int32_t)changes.size());
    }
}

TEST_F(RunRecords, HostileRecordsStayInsideTheRow)
{
    std::mt19937 random(4);
    for (int trial = 0; trial < 3000; trial++) {
        int width = 1 + (int)(random() % 300);
        size_t rowBytes = (size_t)((width + 31) / 32) * 4;
        std::vector<uint16_t> record(1 + random() % 40);
        for (auto &w : record)
            w = (uint16_t)(random() % 3 == 0 ? random() : random() % (unsigned)(width + 5));
        std::vector<uint8_t> row = Expand(record, width, rowBytes); // checks the guard bytes
        // A record taken as plain holds exactly the changes of its pixels.
        int32_t count = RunPlainChangeCount(record.data(), (uint32_t)record.size() * 2, width);
        if (count >= 0)
            ExpectPixels(row, NaivePixels({record.begin() + 1, record.begin() + 1 + count}, width));
    }
    // A row buffer smaller than the width claims: positions are clipped to the buffer.
    std::vector<uint16_t> record = {10, 0, 60000, 100, 100};
    std::vector<uint8_t> row = Expand(record, 100, 2);
    EXPECT_EQ(row, std::vector<uint8_t>({0, 0}));
}

} // namespace
