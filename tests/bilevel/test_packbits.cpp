/*
 * test_packbits.cpp - Part 2.5: PackBits row encoding.  Expected packets are
 * worked out from the Part's rules in the comments (header 1 - count for a
 * repeat, i.e. 257 - count as a byte; count - 1 for a literal).
 */
#include "test_support.h"

#include "codecs/packbits.h"

namespace {

class Part2_5_PackBits : public TrnwTest {
  protected:
    /* Encodes `row` (plus the two slack bytes given) into the memory image. */
    std::vector<uint8_t> Encode(const std::vector<uint8_t> &row, uint8_t slack0 = 0xA5,
                                uint8_t slack1 = 0x5A, int *result = nullptr)
    {
        std::vector<uint8_t> buffer(row);
        buffer.push_back(slack0);
        buffer.push_back(slack1);
        std::vector<uint8_t> sink(row.size() * 4 + 16, 0);
        ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
        int r = PackBitsEncodeRow(IMG_MEMORY_HANDLE, buffer.data(), (int32_t)row.size());
        if (result)
            *result = r;
        else
            EXPECT_EQ(r, 0);
        return std::vector<uint8_t>(sink.begin(), sink.begin() + ImgTell());
    }
};

/* An independent PackBits decoder (the TIFF 6.0 rules, 128 a no-op). */
std::vector<uint8_t> Unpack(const std::vector<uint8_t> &in)
{
    std::vector<uint8_t> out;
    size_t i = 0;
    while (i < in.size()) {
        int n = (int8_t)in[i++];
        if (n >= 0) {
            out.insert(out.end(), in.begin() + i, in.begin() + i + n + 1);
            i += n + 1;
        } else if (n != -128) {
            out.insert(out.end(), (size_t)(1 - n), in[i++]);
        }
    }
    return out;
}

int32_t ShortWrite(int32_t, void *, int32_t count) { return count - 1; }
int32_t NoRead(int32_t, void *, int32_t) { return 0; }
int32_t NoSeek(int32_t, int32_t, int32_t) { return 0; }

} // namespace

TEST_F(Part2_5_PackBits, ThreeHundredEqualBytesMakeThreeRepeats)
{
    // 127, 127 and 46 bytes: headers 1 - 127 = -126 = 0x82, and 1 - 46 =
    // -45 = 0xD3.
    std::vector<uint8_t> row(300, 0x3C);
    EXPECT_EQ(Encode(row), (std::vector<uint8_t>{0x82, 0x3C, 0x82, 0x3C, 0xD3, 0x3C}));
}

TEST_F(Part2_5_PackBits, PairBeforeDifferentByteStaysLiteral)
{
    // "AABC": bytes 0 and 1 are equal but byte 2 differs: one literal packet
    // of all four bytes (header 3).
    EXPECT_EQ(Encode({'A', 'A', 'B', 'C'}), (std::vector<uint8_t>{3, 'A', 'A', 'B', 'C'}));
    // "XAAYZW": the literal from X stops at position 1 (A equals the byte
    // after it); the pair then starts a literal of its own that carries on
    // through Y, Z, W: 0 X, 4 A A Y Z W.
    EXPECT_EQ(Encode({'X', 'A', 'A', 'Y', 'Z', 'W'}),
              (std::vector<uint8_t>{0, 'X', 4, 'A', 'A', 'Y', 'Z', 'W'}));
}

TEST_F(Part2_5_PackBits, LiteralStopsBeforeARun)
{
    // "ABCCCCD": the literal stops at position 2 (C equals the byte after
    // it): literal "AB" (header 1), repeat of four C (1 - 4 = -3 = 0xFD),
    // then "D" as a literal (header 0).
    EXPECT_EQ(Encode({'A', 'B', 'C', 'C', 'C', 'C', 'D'}),
              (std::vector<uint8_t>{1, 'A', 'B', 0xFD, 'C', 0, 'D'}));
}

TEST_F(Part2_5_PackBits, NoRepeatFromTheLastThreeBytes)
{
    // n = 5, "ABCCC": the run starts at i = 2, which is not below n - 3 = 2.
    // Literal "AB" stops at position 2 (C == C); at i = 2 a literal starts;
    // position 3: C == C, so it holds one byte; at i = 3 a literal starts;
    // position 4: C differs from the slack byte 0xA5, so it goes on; position
    // 5 is the row's end.  So: 1 A B, 0 C, 1 C C.
    EXPECT_EQ(Encode({'A', 'B', 'C', 'C', 'C'}),
              (std::vector<uint8_t>{1, 'A', 'B', 0, 'C', 1, 'C', 'C'}));
    // n = 4, "CCCC": i = 0 is below n - 3 = 1: one repeat of 4.
    EXPECT_EQ(Encode({'C', 'C', 'C', 'C'}), (std::vector<uint8_t>{0xFD, 'C'}));
}

TEST_F(Part2_5_PackBits, ComparisonsReadTheSlack)
{
    // "AA" (n = 2): no repeat (i = 0 is not below n - 3).  The literal's
    // stop rule at position 1 compares byte 1 with byte 2, the first slack
    // byte.  Slack "AA": the literal ends after one byte, and the second A
    // is a literal of its own.  Slack "QR": one literal "AA".
    EXPECT_EQ(Encode({'A', 'A'}, 'A', 'A'), (std::vector<uint8_t>{0, 'A', 0, 'A'}));
    EXPECT_EQ(Encode({'A', 'A'}, 'Q', 'R'), (std::vector<uint8_t>{1, 'A', 'A'}));
}

TEST_F(Part2_5_PackBits, LiteralsAtMost127)
{
    // 300 bytes with no two neighbours equal: literals of 127, 127, 46
    // (headers 126, 126, 45), 303 bytes in all.
    std::vector<uint8_t> row(300);
    for (int i = 0; i < 300; i++)
        row[i] = (uint8_t)(i % 2 ? 0x11 : 0x22);
    std::vector<uint8_t> out = Encode(row);
    ASSERT_EQ(out.size(), 303u);
    EXPECT_EQ(out[0], 126);
    EXPECT_EQ(out[128], 126);
    EXPECT_EQ(out[256], 45);
    EXPECT_EQ(Unpack(out), row);
}

TEST_F(Part2_5_PackBits, RandomRowsDecodeBack)
{
    // Rows of short runs and noise decode (TIFF 6.0 rules) to themselves,
    // and 128 never appears as a header.
    uint32_t seed = 12345;
    for (int trial = 0; trial < 200; trial++) {
        std::vector<uint8_t> row;
        size_t n = 1 + trial * 7 % 600;
        while (row.size() < n) {
            seed = seed * 1103515245u + 12345u;
            size_t run = (seed >> 16) % 6 == 0 ? (seed >> 8) % 300 : 1;
            uint8_t v = (uint8_t)(seed >> 20) % 4;
            for (size_t k = 0; k < run && row.size() < n; k++)
                row.push_back(v);
        }
        std::vector<uint8_t> out = Encode(row);
        EXPECT_EQ(Unpack(out), row) << trial;
        for (size_t i = 0; i < out.size();) {
            int h = (int8_t)out[i];
            ASSERT_NE(h, -128);
            i += h >= 0 ? (size_t)h + 2 : 2;
        }
    }
}

TEST_F(Part2_5_PackBits, ShortWriteIsMinus9)
{
    IMGLOW_set_fileio(NoRead, ShortWrite, NoSeek);
    std::vector<uint8_t> row(50, 7);
    row.resize(52);
    EXPECT_EQ(PackBitsEncodeRow(3, row.data(), 50), -9);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
}

TEST_F(Part2_5_PackBits, OutOfMemoryIsMinus1)
{
    std::vector<uint8_t> row(52, 7);
    ImgTestFailAllocations(0);
    EXPECT_EQ(PackBitsEncodeRow(IMG_MEMORY_HANDLE, row.data(), 50), -1);
    ImgTestFailAllocations(-1);
}
