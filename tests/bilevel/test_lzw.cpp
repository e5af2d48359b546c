/*
 * test_lzw.cpp - Part 2.5: TIFF LZW decoding and encoding.
 *
 * Streams are built here bit by bit (codes most significant bit first, the
 * widths worked out in the comments from the Part's early-change rule), so
 * the decoder is checked against hand-computed bit positions and not against
 * our own encoder.  The encoder is checked by the positions of its Clear
 * codes, by round trips through the decoder, and (tests/interop) by libtiff.
 */
#include "test_support.h"

#include <cmath>
#include <random>

#include "codecs/lzw.h"
#include "core/bytes.h"

namespace {

/* Codes packed most significant bit first, each with its own width. */
struct BitWriter {
    std::vector<uint8_t> bytes;
    uint64_t bits = 0;
    void Put(uint32_t code, int width)
    {
        for (int i = width - 1; i >= 0; i--) {
            if (bits % 8 == 0)
                bytes.push_back(0);
            if ((code >> i) & 1)
                bytes.back() |= (uint8_t)(0x80 >> (bits % 8));
            bits++;
        }
    }
};

/* Reads `width` bits at bit position `at` of a byte string. */
uint32_t BitsAt(const std::vector<uint8_t> &bytes, uint64_t at, int width)
{
    uint32_t v = 0;
    for (int i = 0; i < width; i++, at++)
        v = v << 1 | ((bytes[at / 8] >> (7 - at % 8)) & 1);
    return v;
}

struct Collected {
    std::vector<std::vector<uint8_t>> rows;
    std::vector<int> indices;
    int failAt = -1; // row count at which the adapter returns -5
};

int Collect(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    auto *c = static_cast<Collected *>(context);
    if ((int)c->rows.size() == c->failAt)
        return -5;
    c->rows.emplace_back(row, row + rowBytes);
    c->indices.push_back(rowIndex);
    return 0;
}

class Part2_5_Lzw : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
        ASSERT_EQ(LzwBeginImage(), 0);
        coded.assign(LZW_CODED_BUFFER_SIZE, 0xCC);
    }
    void TearDown() override
    {
        LzwEndImage();
        TrnwTest::TearDown();
    }

    /* Decodes `stream` from the memory image into rows of rowBytes. */
    int Decode(std::vector<uint8_t> stream, int32_t rowBytes, int32_t rowCount, Collected &c,
               int32_t outputSize = 0, int32_t firstRow = 0)
    {
        memory = stream;
        ImgSetMemorySourceSized(memory.data(), (uint32_t)memory.size());
        if (outputSize == 0)
            outputSize = 4 * rowBytes;
        output.assign((size_t)outputSize, 0xEE);
        return LzwDecodeStrip(IMG_MEMORY_HANDLE, coded.data(), firstRow, rowBytes, output.data(),
                              outputSize, rowCount, Collect, &c);
    }

    std::vector<uint8_t> coded, memory, output;
};

/* The width of the decoder for the code read when `nextFree` is the next
 * free code, by the Part: 10 bits after entry 510, 11 after 1022, 12 after
 * 2046 (early change). */
int EarlyWidth(int nextFree)
{
    return nextFree < 511 ? 9 : nextFree < 1023 ? 10 : nextFree < 2047 ? 11 : 12;
}

/* Clear followed by `count` single-byte codes (every code after the first
 * makes an entry) and, when `end`, 257. */
BitWriter LiteralStream(int count, bool end, uint8_t seed = 0)
{
    BitWriter w;
    w.Put(256, 9);
    int nextFree = 258;
    for (int k = 1; k <= count; k++) {
        w.Put((uint8_t)(k * 7 + seed), EarlyWidth(nextFree));
        if (k >= 2)
            nextFree++;
    }
    if (end)
        w.Put(257, EarlyWidth(nextFree));
    return w;
}

std::vector<uint8_t> Flatten(const Collected &c)
{
    std::vector<uint8_t> all;
    for (auto &r : c.rows)
        all.insert(all.end(), r.begin(), r.end());
    return all;
}

} // namespace

TEST_F(Part2_5_Lzw, FirstCodeNotClearIsInvalid)
{
    BitWriter w;
    w.Put(65, 9);
    w.Put(257, 9);
    Collected c;
    EXPECT_EQ(Decode(w.bytes, 1, 1, c), -3);
    EXPECT_TRUE(c.rows.empty());
    BitWriter v; // a code of the table's range (258) first
    v.Put(258, 9);
    v.Put(257, 9);
    EXPECT_EQ(Decode(v.bytes, 1, 1, c), -3);
}

TEST_F(Part2_5_Lzw, KwKwKDecodes)
{
    // Clear, 'A', 'B', 258, 260, 257.  258 = "AB" is made on 'B'; on 258,
    // 259 = "BA"; 260 is the next free code (KwKwK): "AB" + 'A'.
    // Output: A B AB ABA = "ABABABA".
    BitWriter w;
    for (uint32_t code : {256u, 65u, 66u, 258u, 260u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 7, 1, c), 1);
    ASSERT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "ABABABA");
}

TEST_F(Part2_5_Lzw, KwKwKRightAfterFirstCode)
{
    // Clear, 'A', 258 (= "A" + 'A'), 259 (= "AA" + 'A'), 257: "A" "AA" "AAA".
    BitWriter w;
    for (uint32_t code : {256u, 65u, 258u, 259u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 6, 1, c), 1);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "AAAAAA");
}

TEST_F(Part2_5_Lzw, EndBeforeAllRowsDeliversEveryRow)
{
    // Rows of 4 bytes, 3 rows; the strip holds "abcde" and then 257.
    // Row 0 = "abcd"; the surplus "e" moves to the front (buffer "ebcde");
    // rows 1 and 2 are delivered with the buffer as it is: "ebcd".
    BitWriter w;
    for (uint32_t code : {256u, 97u, 98u, 99u, 100u, 101u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 4, 3, c, 0, 10), 1);
    ASSERT_EQ(c.rows.size(), 3u);
    EXPECT_EQ(c.indices, (std::vector<int>{10, 11, 12}));
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "abcd");
    EXPECT_EQ(std::string(c.rows[1].begin(), c.rows[1].end()), "ebcd");
    EXPECT_EQ(std::string(c.rows[2].begin(), c.rows[2].end()), "ebcd");
}

TEST_F(Part2_5_Lzw, EndRightAfterClearDeliversEveryRow)
{
    BitWriter w;
    w.Put(256, 9);
    w.Put(257, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 2, 5, c), 1);
    EXPECT_EQ(c.rows.size(), 5u);
}

TEST_F(Part2_5_Lzw, CodeAboveNextFreeIsInvalid)
{
    // After Clear and 'A' the next free code is 258: 259 is beyond it.
    BitWriter w;
    for (uint32_t code : {256u, 65u, 66u, 260u, 257u})
        w.Put(code, 9);
    Collected c;
    EXPECT_EQ(Decode(w.bytes, 100, 1, c), -3);
}

TEST_F(Part2_5_Lzw, StripCompleteEndsDecoding)
{
    // Two rows of 2 bytes: decoding stops with 1 once both are out, without
    // reading the garbage that follows (a code far above the next free one).
    BitWriter w;
    for (uint32_t code : {256u, 1u, 2u, 3u, 4u, 511u, 511u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 2, 2, c), 1);
    ASSERT_EQ(c.rows.size(), 2u);
    EXPECT_EQ(c.rows[0], (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(c.rows[1], (std::vector<uint8_t>{3, 4}));
}

TEST_F(Part2_5_Lzw, AdapterResultIsReturned)
{
    BitWriter w;
    for (uint32_t code : {256u, 1u, 2u, 3u, 4u, 257u})
        w.Put(code, 9);
    Collected c;
    c.failAt = 1;
    EXPECT_EQ(Decode(w.bytes, 2, 2, c), -5);
    EXPECT_EQ(c.rows.size(), 1u);
}

TEST_F(Part2_5_Lzw, FailedReadIsMinus12)
{
    // A file that ends inside the strip: the read returns nothing.
    BitWriter w;
    for (uint32_t code : {256u, 1u, 2u})
        w.Put(code, 9);
    std::string path = TempPath("lzw_short.bin");
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(w.bytes.data(), 1, w.bytes.size(), f);
    std::fclose(f);
    int handle = ImgOpen(path.c_str(), 0);
    ASSERT_GE(handle, 0);
    std::vector<uint8_t> out(400);
    Collected c;
    EXPECT_EQ(LzwDecodeStrip(handle, coded.data(), 0, 100, out.data(), 400, 1, Collect, &c), -12);
    ImgClose(handle);
    ImgDelete(path.c_str());
}

TEST_F(Part2_5_Lzw, ClearInsideStripRestartsTable)
{
    // Clear 'A' 'B' 258 Clear 'C' 258 257: after the second Clear, 258 is
    // "C" + 'C' (KwKwK) again, not "AB".  Output "ABAB" + "C" + "CC".
    BitWriter w;
    for (uint32_t code : {256u, 65u, 66u, 258u, 256u, 67u, 258u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 7, 1, c), 1);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "ABABCCC");
}

TEST_F(Part2_5_Lzw, WidthSwitchesEarly)
{
    // Clear + 2000 single-byte codes.  Every code after the first makes an
    // entry; code k (k >= 2) makes entry 256 + k.  Width by the Part: 9 bits
    // up to code 254 (entry 510 is made by code 254), 10 bits for codes
    // 255..766 (entry 1022 by code 766), 11 bits for 767..1790 (entry 2046
    // by 1790), 12 bits after.  Bit positions: code 255 starts at
    // 9 + 254 * 9 = 2295, code 767 at 2295 + 512 * 10 = 7415, code 1791 at
    // 7415 + 1024 * 11 = 18679.
    BitWriter w = LiteralStream(2000, true);
    std::vector<uint8_t> expected;
    for (int k = 1; k <= 2000; k++)
        expected.push_back((uint8_t)(k * 7));
    EXPECT_EQ(BitsAt(w.bytes, 2295, 10), (uint32_t)(uint8_t)(255 * 7));
    EXPECT_EQ(BitsAt(w.bytes, 7415, 11), (uint32_t)(uint8_t)(767 * 7));
    EXPECT_EQ(BitsAt(w.bytes, 18679, 12), (uint32_t)(uint8_t)(1791 * 7));
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 100, 20, c), 1);
    EXPECT_EQ(Flatten(c), expected);

    // The same codes with the width switched one code late (at 512, 1024 and
    // 2048) do not decode to the same bytes.
    BitWriter late;
    late.Put(256, 9);
    int nextFree = 258;
    for (int k = 1; k <= 2000; k++) {
        late.Put((uint8_t)(k * 7), nextFree < 512 ? 9 : nextFree < 1024 ? 10 : nextFree < 2048 ? 11 : 12);
        if (k >= 2)
            nextFree++;
    }
    late.Put(257, 12);
    Collected d;
    int r = Decode(late.bytes, 100, 20, d);
    EXPECT_TRUE(r < 0 || Flatten(d) != expected);
}

TEST_F(Part2_5_Lzw, EntryBlockFullIsInvalid)
{
    // Without Clear, code k makes entry 256 + k: 4405 codes fill entries up
    // to 4661; the 4406th would make entry 4662, beyond the block: -3.
    Collected c;
    EXPECT_EQ(Decode(LiteralStream(4405, true).bytes, 1000, 100, c), 1);
    Collected d;
    EXPECT_EQ(Decode(LiteralStream(4406, true).bytes, 1000, 100, d), -3);
}

TEST_F(Part2_5_Lzw, LongStringIntoSmallOutputIsBounded)
{
    // Clear 0 258 259 ... 300: strings of 1, 2, 3, ... 44 zero bytes (KwKwK
    // each time), 990 bytes in all, into rows of 3 bytes with an output buffer
    // of exactly one row: every string is longer than the free room.
    BitWriter w;
    w.Put(256, 9);
    w.Put(0, 9);
    for (uint32_t code = 258; code <= 300; code++)
        w.Put(code, 9);
    w.Put(257, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 3, 330, c, 3), 1);
    ASSERT_EQ(c.rows.size(), 330u);
    for (auto &r : c.rows)
        EXPECT_EQ(r, (std::vector<uint8_t>{0, 0, 0}));
}

TEST_F(Part2_5_Lzw, NotBegunIsMemoryError)
{
    LzwEndImage();
    BitWriter w = LiteralStream(3, true);
    Collected c;
    EXPECT_EQ(Decode(w.bytes, 3, 1, c), -1);
    ASSERT_EQ(LzwBeginImage(), 0);
}

/* ---- the encoder ---- */

namespace {

struct RowImage {
    int32_t rowBytes;
    std::vector<uint8_t> bytes; // rows top first, unpadded
    int failRow = -1;
};

int ImageRows(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    auto *img = static_cast<RowImage *>(context);
    if (rowIndex == img->failRow)
        return -4;
    if (rowBytes != img->rowBytes)
        return -99;
    std::memcpy(buffer, img->bytes.data() + (size_t)rowIndex * rowBytes, (size_t)rowBytes);
    return 0;
}

std::vector<uint8_t> Header(int32_t width, int bits)
{
    std::vector<uint8_t> h(IMG_HEADER_BLOCK_SIZE, 0);
    PutLE32(h.data(), 40);
    PutLE32(h.data() + 4, (uint32_t)width);
    PutLE16(h.data() + 12, 1);
    PutLE16(h.data() + 14, (uint16_t)bits);
    return h;
}

/* Encodes rows [firstRow, firstRow + rowCount) into a memory image. */
int Encode(const RowImage &img, int32_t width, int bits, int32_t firstRow, int32_t rowCount,
           std::vector<uint8_t> &stream)
{
    std::vector<uint8_t> sink(img.bytes.size() * 2 + 4096, 0);
    ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
    std::vector<uint8_t> h = Header(width, bits);
    int r = LzwEncodeStrip(IMG_MEMORY_HANDLE, h.data(), ImageRows, (void *)&img, firstRow,
                           rowCount);
    stream.assign(sink.begin(), sink.begin() + ImgTell());
    return r;
}

/* Smooth gradients with a little noise, as a photograph's rows are. */
std::vector<uint8_t> Photographic(int32_t rowBytes, int32_t rows, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> v((size_t)rowBytes * rows);
    for (int32_t y = 0; y < rows; y++)
        for (int32_t x = 0; x < rowBytes; x++) {
            double s = 128 + 70 * std::sin(x / 37.0) * std::cos(y / 23.0) + 40 * std::sin((x + y) / 91.0);
            v[(size_t)y * rowBytes + x] = (uint8_t)std::lround(std::clamp(s + (int)(rng() % 5) - 2, 0.0, 255.0));
        }
    return v;
}

std::vector<uint8_t> Random(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto &b : v)
        b = (uint8_t)rng();
    return v;
}

std::vector<uint8_t> SwapRgb(std::vector<uint8_t> v, int32_t rowBytes)
{
    for (size_t y = 0; y < v.size() / rowBytes; y++)
        for (int32_t x = 0; x + 2 < rowBytes; x += 3)
            std::swap(v[y * rowBytes + x], v[y * rowBytes + x + 2]);
    return v;
}

} // namespace

TEST_F(Part2_5_Lzw, EncodeClearAt4080)
{
    // Random bytes: every code the encoder writes assigns one entry.  Code j
    // (j = 1, 2, ...) after the first Clear assigns 257 + j.  Widths: 9 bits
    // for codes 1..254 (code 254 assigns 511 and the next free code reaches
    // the limit 512), 10 bits for 255..766, 11 bits for 767..1790, 12 bits
    // for 1791..3822; code 3822 assigns 4079, the limit 4080 is reached and
    // Clear follows at 12 bits.  Its position: 9 + 254 * 9 + 512 * 10 +
    // 1024 * 11 + 2032 * 12 = 43063.  After it, 9-bit codes again; the next
    // Clear comes another 3822 codes later, at 43063 + 12 + 43063 - 9.
    RowImage img{1000, Random(20000, 1)};
    std::vector<uint8_t> stream;
    ASSERT_EQ(Encode(img, 1000, 8, 0, 20, stream), 0);
    EXPECT_EQ(BitsAt(stream, 0, 9), 256u);
    EXPECT_NE(BitsAt(stream, 43063 - 12, 12), 256u);
    EXPECT_EQ(BitsAt(stream, 43063, 12), 256u);
    EXPECT_LT(BitsAt(stream, 43075, 9), 256u);
    EXPECT_EQ(BitsAt(stream, 43063 + 12 + 43054, 12), 256u);
    // The first codes are the bytes themselves (random pairs do not repeat yet).
    EXPECT_EQ(BitsAt(stream, 9, 9), img.bytes[0]);
    EXPECT_EQ(BitsAt(stream, 18, 9), img.bytes[1]);
}

TEST_F(Part2_5_Lzw, EncodeEndSequence)
{
    // "AAAA" (one row of 4 bytes): Clear, 'A' (assigns 258 = "AA"), 258
    // (assigns 259 = "AAA"), then the end: the last string 'A', 257; all at
    // 9 bits: 5 codes = 45 bits = 6 bytes (the last one partial).
    RowImage img{4, {65, 65, 65, 65}};
    std::vector<uint8_t> stream;
    ASSERT_EQ(Encode(img, 4, 8, 0, 1, stream), 0);
    ASSERT_EQ(stream.size(), 6u);
    EXPECT_EQ(BitsAt(stream, 0, 9), 256u);
    EXPECT_EQ(BitsAt(stream, 9, 9), 65u);
    EXPECT_EQ(BitsAt(stream, 18, 9), 258u);
    EXPECT_EQ(BitsAt(stream, 27, 9), 65u);
    EXPECT_EQ(BitsAt(stream, 36, 9), 257u);
    EXPECT_EQ(BitsAt(stream, 45, 3), 0u);
}

TEST_F(Part2_5_Lzw, EncodeEndWidthGrowth)
{
    // 254 distinct-pair bytes: codes 1..253 assign 258..510, the next free
    // code is 511 and 511 + 1 = 512 is the limit: the last string's code is
    // written at 9 bits, then the width grows and 257 goes out at 10 bits.
    // Bits: 9 (Clear) + 253 * 9 + 9 (last) = 2295; 257 at 2295.
    std::vector<uint8_t> data(254);
    for (int i = 0; i < 254; i++)
        data[i] = (uint8_t)i;
    RowImage img{254, data};
    std::vector<uint8_t> stream;
    ASSERT_EQ(Encode(img, 254, 8, 0, 1, stream), 0);
    EXPECT_EQ(BitsAt(stream, 2295 - 9, 9), 253u);
    EXPECT_EQ(BitsAt(stream, 2295, 10), 257u);
    EXPECT_EQ(stream.size(), (2295u + 10 + 7) / 8);
    Collected c;
    ASSERT_EQ(Decode(stream, 254, 1, c), 1);
    EXPECT_EQ(c.rows[0], data);
}

TEST_F(Part2_5_Lzw, EncodeRowRangeAndSwap)
{
    // 24 bits, width 2: rows of 6 bytes B,G,R,B,G,R; rows 1..2 of 4 are
    // encoded and come out as R,G,B.
    RowImage img{6, {}};
    for (int i = 0; i < 24; i++)
        img.bytes.push_back((uint8_t)(i * 11));
    std::vector<uint8_t> stream;
    ASSERT_EQ(Encode(img, 2, 24, 1, 2, stream), 0);
    Collected c;
    ASSERT_EQ(Decode(stream, 6, 2, c), 1);
    std::vector<uint8_t> expected = SwapRgb(std::vector<uint8_t>(img.bytes.begin() + 6, img.bytes.begin() + 18), 6);
    EXPECT_EQ(Flatten(c), expected);
}

TEST_F(Part2_5_Lzw, EncodeRowSourceErrorIsReturned)
{
    RowImage img{10, Random(100, 3)};
    img.failRow = 4;
    std::vector<uint8_t> stream;
    EXPECT_EQ(Encode(img, 10, 8, 0, 10, stream), -4);
}

namespace {
int32_t ShortWrite(int32_t, void *, int32_t count) { return count > 1 ? count - 1 : 0; }
int32_t NoSeek(int32_t, int32_t, int32_t) { return 0; }
int32_t NoRead(int32_t, void *, int32_t) { return 0; }
} // namespace

TEST_F(Part2_5_Lzw, EncodeShortWriteIsMinus9)
{
    RowImage img{100, Random(10000, 4)}; // more than one 2000-byte flush
    IMGLOW_set_fileio(NoRead, ShortWrite, NoSeek);
    std::vector<uint8_t> h = Header(100, 8);
    EXPECT_EQ(LzwEncodeStrip(5, h.data(), ImageRows, &img, 0, 100), -9);
    RowImage tiny{2, {1, 2}};
    EXPECT_EQ(LzwEncodeStrip(5, h.data(), ImageRows, &tiny, 0, 1), -99); // row size 100 != 2
    std::vector<uint8_t> h2 = Header(2, 8);
    EXPECT_EQ(LzwEncodeStrip(5, h2.data(), ImageRows, &tiny, 0, 1), -9);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
}

TEST_F(Part2_5_Lzw, EncodeOutOfMemoryIsMinus1)
{
    RowImage img{10, Random(100, 5)};
    std::vector<uint8_t> stream;
    for (int countdown = 0; countdown < 3; countdown++) {
        ImgTestFailAllocations(countdown);
        EXPECT_EQ(Encode(img, 10, 8, 0, 10, stream), -1) << countdown;
    }
    ImgTestFailAllocations(-1);
}

TEST_F(Part2_5_Lzw, RoundTripAllDepths)
{
    // Our encoder's output decoded by our decoder gives the rows back, for
    // random and photographic rows of 1, 4, 8 and 24 bits, with the Part's
    // output buffer (10 x row bytes at 1 bit, else 4 x) and with rows taken
    // from the middle of the image.
    const int depths[] = {1, 4, 8, 24};
    for (int bits : depths) {
        for (int kind = 0; kind < 2; kind++) {
            int32_t width = 333, rows = 120;
            int32_t rowBytes = (bits * width + 7) / 8;
            RowImage img{rowBytes, kind ? Photographic(rowBytes, rows, 9) : Random((size_t)rowBytes * rows, 7)};
            if (bits == 1 && kind) { // a 1-bit "photograph": thresholded
                for (auto &b : img.bytes)
                    b = b > 128 ? 0xFF : b < 60 ? 0x00 : b;
            }
            std::vector<uint8_t> stream;
            ASSERT_EQ(Encode(img, width, bits, 10, 100, stream), 0);
            std::vector<uint8_t> expected(img.bytes.begin() + 10 * rowBytes, img.bytes.begin() + 110 * rowBytes);
            if (bits == 24)
                expected = SwapRgb(expected, rowBytes);
            Collected c;
            ASSERT_EQ(Decode(stream, rowBytes, 100, c, (bits == 1 ? 10 : 4) * rowBytes, 10), 1)
                << bits << " " << kind;
            EXPECT_EQ(Flatten(c), expected) << bits << " " << kind;
            EXPECT_EQ(c.indices.front(), 10);
            EXPECT_EQ(c.indices.back(), 109);
            if (kind) {
                EXPECT_LT(stream.size(), expected.size()) << "photographic rows compress";
            }
        }
    }
}

TEST_F(Part2_5_Lzw, RoundTripLongRuns)
{
    // Long runs make strings of hundreds of bytes, decoded into rows of 7
    // bytes with the smallest output buffer (one row).
    RowImage img{7, std::vector<uint8_t>(7 * 20000, 0x55)};
    for (size_t i = 50000; i < 50100; i++)
        img.bytes[i] = (uint8_t)i;
    std::vector<uint8_t> stream;
    ASSERT_EQ(Encode(img, 7, 8, 0, 20000, stream), 0);
    Collected c;
    ASSERT_EQ(Decode(stream, 7, 20000, c, 7), 1);
    EXPECT_EQ(Flatten(c), img.bytes);
}

TEST_F(Part2_5_Lzw, ClearsInARow)
{
    // Clears in a row are read past (as libtiff does); end of information
    // right after a Clear ends the strip.  Hardening: more Clears in a row
    // than one chunk holds as 9-bit codes (10000 * 8 / 9 = 8888) is -3, so
    // a source that repeats itself cannot keep the decoder busy forever.
    BitWriter w;
    for (int i = 0; i < 10; i++)
        w.Put(256, 9);
    for (uint32_t code : {65u, 256u, 256u, 66u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 2, 1, c), 1);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "AB");

    BitWriter many;
    for (int i = 0; i < 8890; i++)
        many.Put(256, 9);
    many.Put(65, 9);
    many.Put(257, 9);
    Collected d;
    EXPECT_EQ(Decode(many.bytes, 1, 1, d), -3);
}

TEST_F(Part2_5_Lzw, ClearWhenEntryBlockIsFull)
{
    // 4405 single-byte codes fill the entries up to 4661 (all at 12 bits from
    // code 1791 on); a Clear (12 bits) then restarts the table: 'Z' and 257
    // follow at 9 bits.
    BitWriter w = LiteralStream(4405, false);
    w.Put(256, 12);
    w.Put('Z', 9);
    w.Put(257, 9);
    std::vector<uint8_t> expected;
    for (int k = 1; k <= 4405; k++)
        expected.push_back((uint8_t)(k * 7));
    expected.push_back('Z');
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 4406, 1, c), 1);
    EXPECT_EQ(Flatten(c), expected);
}

// A single byte after a full row, then end of information: the next rows
// get the buffer as it is, "x" then what the delivered row left behind
// ("bcdef"); writing the byte must not disturb the byte behind it.
TEST_F(Part2_5_Lzw, SingleByteAtEndLeavesTheBytesBehind)
{
    BitWriter w;
    for (uint32_t code : {256u, 97u, 98u, 99u, 100u, 101u, 102u, 120u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 6, 2, c), 1);
    ASSERT_EQ(c.rows.size(), 2u);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "abcdef");
    EXPECT_EQ(std::string(c.rows[1].begin(), c.rows[1].end()), "xbcdef");
}

// Strings of 2 and 3 bytes (codes 258 "ab" and 261 "abc") after a full row,
// then end of information: the row gets "ab", "abc" and the byte behind
// them as the first row left it ("f").
TEST_F(Part2_5_Lzw, StringsAtEndLeaveTheBytesBehind)
{
    // abcdef: entries 258 ab, 259 bc, 260 cd, 261 de, 262 ef; then 258 "ab"
    // makes 263 "fa", 258 again makes 264 "aba"... the table is not needed
    // past 258: the second row is "ab" "ab" and the stale "ef".
    BitWriter w;
    for (uint32_t code : {256u, 97u, 98u, 99u, 100u, 101u, 102u, 258u, 258u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 6, 2, c), 1);
    ASSERT_EQ(c.rows.size(), 2u);
    EXPECT_EQ(std::string(c.rows[1].begin(), c.rows[1].end()), "ababef");
}

// An output buffer of exactly one row: strings of 1 to 3 bytes that end
// exactly at the buffer's end decode as with a larger buffer.
TEST_F(Part2_5_Lzw, StringsEndingAtTheBufferEnd)
{
    // "abc" 258(ab) 99(c) 259(bc) 97(a) 261(ca)... written as codes:
    // 97 98 99 -> "abc"; 258 "ab" + 99 "c" -> "abc"; 259 "bc" + 97 "a"
    // -> "bca"; 260 "ca" + 98 "b" -> "cab".
    BitWriter w;
    for (uint32_t code : {256u, 97u, 98u, 99u, 258u, 99u, 259u, 97u, 260u, 98u, 257u})
        w.Put(code, 9);
    Collected c;
    ASSERT_EQ(Decode(w.bytes, 3, 4, c, 3), 1);
    ASSERT_EQ(c.rows.size(), 4u);
    EXPECT_EQ(std::string(c.rows[0].begin(), c.rows[0].end()), "abc");
    EXPECT_EQ(std::string(c.rows[1].begin(), c.rows[1].end()), "abc");
    EXPECT_EQ(std::string(c.rows[2].begin(), c.rows[2].end()), "bca");
    EXPECT_EQ(std::string(c.rows[3].begin(), c.rows[3].end()), "cab");
}
