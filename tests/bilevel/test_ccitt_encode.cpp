/*
 * test_ccitt_encode.cpp - Part 2.2, the CCITT encoder, and the raw fax save
 * types 33, 53, 34 and 52.
 *
 * Expected bits come from the ITU-T T.4 / T.6 code lists typed below from
 * the standards and from streams worked out by hand in the comments; the
 * independent decoders (fax2tiff, g3topbm) are in
 * tests/interop/test_ccitt_encode_interop.cpp.
 */
#include "test_support.h"

#include "codecs/ccitt_encode.h"

namespace {

/* ---- helpers ---- */

// The output of an encode, gathered through caller I/O (handle 1 is never
// opened: every byte goes through CaptureWrite).
std::vector<uint8_t> gCaptured;
int32_t gWriteLimit = -1; // bytes a write may store before it falls short

int32_t IMGCDECL CaptureWrite(int32_t, void *buffer, int32_t count)
{
    int32_t n = count;
    if (gWriteLimit >= 0 && (int32_t)gCaptured.size() + n > gWriteLimit)
        n = std::max<int32_t>(0, gWriteLimit - (int32_t)gCaptured.size());
    const uint8_t *b = static_cast<const uint8_t *>(buffer);
    gCaptured.insert(gCaptured.end(), b, b + n);
    return n;
}

// Rows top first, each (width + 7) / 8 bytes; bit 1 white, bit 0 black.
struct Rows {
    int32_t width = 0;
    std::vector<std::vector<uint8_t>> rows;
    int failAt = -1;       // the row source returns failCode for this row
    int failCode = -12;
};

int RowSource(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    Rows *r = static_cast<Rows *>(context);
    if (rowIndex == r->failAt)
        return r->failCode;
    std::memcpy(buffer, r->rows.at((size_t)rowIndex).data(), (size_t)rowBytes);
    return 0;
}

std::array<uint8_t, 40> HeaderFor(int32_t width, int32_t height, int bits = 1)
{
    std::array<uint8_t, 40> h{};
    auto put32 = [&](int at, uint32_t v) {
        for (int i = 0; i < 4; i++)
            h[(size_t)(at + i)] = (uint8_t)(v >> (8 * i));
    };
    put32(0, 40);
    put32(4, (uint32_t)width);
    put32(8, (uint32_t)height);
    h[12] = 1;
    h[14] = (uint8_t)bits;
    return h;
}

// A row of `width` pixels from a picture string: '#' black, anything else white.
std::vector<uint8_t> RowOf(const std::string &picture)
{
    std::vector<uint8_t> row((picture.size() + 7) / 8, 0xFF);
    for (size_t x = 0; x < picture.size(); x++)
        if (picture[x] == '#')
            row[x / 8] &= (uint8_t)~(0x80 >> (x % 8));
    return row;
}

Rows RowsOf(const std::vector<std::string> &pictures)
{
    Rows r;
    r.width = (int32_t)pictures.at(0).size();
    for (const auto &p : pictures)
        r.rows.push_back(RowOf(p));
    return r;
}

Rows UniformRows(int32_t width, int32_t height, uint8_t fill)
{
    Rows r;
    r.width = width;
    r.rows.assign((size_t)height, std::vector<uint8_t>((size_t)(width + 7) / 8, fill));
    return r;
}

// Pseudo-random text-like rows: short black runs in mostly white rows.
Rows RandomRows(int32_t width, int32_t height, unsigned seed)
{
    Rows r;
    r.width = width;
    uint32_t s = seed;
    for (int32_t y = 0; y < height; y++) {
        std::string line((size_t)width, '.');
        for (int32_t x = 0; x < width; x++) {
            s = s * 1103515245u + 12345u;
            if (((s >> 16) & 7) == 0)
                for (int32_t k = 0; k < (int32_t)((s >> 20) & 7) && x < width; k++)
                    line[(size_t)x++] = '#';
        }
        r.rows.push_back(RowOf(line));
    }
    return r;
}

enum Coder { k1D, k2D, kFramed };

struct Encoded {
    int result;
    std::vector<uint8_t> bytes;
};

Encoded Encode(Rows &rows, Coder coder, int lsbFirst, int mode)
{
    gCaptured.clear();
    IMGLOW_set_fileio(nullptr, CaptureWrite, nullptr);
    auto header = HeaderFor(rows.width, (int32_t)rows.rows.size());
    int result;
    if (coder == k1D)
        result = CcittEncode1D(1, header.data(), RowSource, &rows, lsbFirst, mode);
    else if (coder == k2D)
        result = CcittEncode2D(1, header.data(), RowSource, &rows, lsbFirst, mode);
    else
        result = CcittEncodeFramed(1, header.data(), RowSource, &rows, lsbFirst, mode, 1);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    return {result, gCaptured};
}

std::string BitsOf(const std::vector<uint8_t> &bytes)
{
    std::string s;
    for (uint8_t b : bytes)
        for (int i = 7; i >= 0; i--)
            s += (b >> i) & 1 ? '1' : '0';
    return s;
}

// A bit string padded with zeros to whole bytes, as bytes.
std::vector<uint8_t> BytesOf(std::string bits)
{
    while (bits.size() % 8)
        bits += '0';
    std::vector<uint8_t> out;
    for (size_t i = 0; i < bits.size(); i += 8)
        out.push_back((uint8_t)std::stoi(bits.substr(i, 8), nullptr, 2));
    return out;
}

uint8_t Reverse(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; i++)
        if (b & (1 << i))
            r |= (uint8_t)(0x80 >> i);
    return r;
}

std::string CodeBits(int colour, int run)
{
    uint16_t code = 0, length = 0;
    if (CcittEncodeCode(colour, run, &code, &length) < 0)
        return "none";
    std::string s;
    for (int i = length - 1; i >= 0; i--)
        s += (code >> i) & 1 ? '1' : '0';
    return s;
}

const std::string kEol = "000000000001"; // T.4 EOL

/* ---- the code lists of ITU-T T.4, typed from the standard ---- */

// Table 2/T.4, terminating codes, white run lengths 0..63.
const char *const kWhiteTerminating[64] = {
    /* 0 */ "00110101", /* 1 */ "000111", /* 2 */ "0111", /* 3 */ "1000",
    /* 4 */ "1011", /* 5 */ "1100", /* 6 */ "1110", /* 7 */ "1111",
    /* 8 */ "10011", /* 9 */ "10100", /* 10 */ "00111", /* 11 */ "01000",
    /* 12 */ "001000", /* 13 */ "000011", /* 14 */ "110100", /* 15 */ "110101",
    /* 16 */ "101010", /* 17 */ "101011", /* 18 */ "0100111", /* 19 */ "0001100",
    /* 20 */ "0001000", /* 21 */ "0010111", /* 22 */ "0000011", /* 23 */ "0000100",
    /* 24 */ "0101000", /* 25 */ "0101011", /* 26 */ "0010011", /* 27 */ "0100100",
    /* 28 */ "0011000", /* 29 */ "00000010", /* 30 */ "00000011", /* 31 */ "00011010",
    /* 32 */ "00011011", /* 33 */ "00010010", /* 34 */ "00010011", /* 35 */ "00010100",
    /* 36 */ "00010101", /* 37 */ "00010110", /* 38 */ "00010111", /* 39 */ "00101000",
    /* 40 */ "00101001", /* 41 */ "00101010", /* 42 */ "00101011", /* 43 */ "00101100",
    /* 44 */ "00101101", /* 45 */ "00000100", /* 46 */ "00000101", /* 47 */ "00001010",
    /* 48 */ "00001011", /* 49 */ "01010010", /* 50 */ "01010011", /* 51 */ "01010100",
    /* 52 */ "01010101", /* 53 */ "00100100", /* 54 */ "00100101", /* 55 */ "01011000",
    /* 56 */ "01011001", /* 57 */ "01011010", /* 58 */ "01011011", /* 59 */ "01001010",
    /* 60 */ "01001011", /* 61 */ "00110010", /* 62 */ "00110011", /* 63 */ "00110100",
};

// Table 2/T.4, terminating codes, black run lengths 0..63.
const char *const kBlackTerminating[64] = {
    /* 0 */ "0000110111", /* 1 */ "010", /* 2 */ "11", /* 3 */ "10",
    /* 4 */ "011", /* 5 */ "0011", /* 6 */ "0010", /* 7 */ "00011",
    /* 8 */ "000101", /* 9 */ "000100", /* 10 */ "0000100", /* 11 */ "0000101",
    /* 12 */ "0000111", /* 13 */ "00000100", /* 14 */ "00000111", /* 15 */ "000011000",
    /* 16 */ "0000010111", /* 17 */ "0000011000", /* 18 */ "0000001000", /* 19 */ "00001100111",
    /* 20 */ "00001101000", /* 21 */ "00001101100", /* 22 */ "00000110111", /* 23 */ "00000101000",
    /* 24 */ "00000010111", /* 25 */ "00000011000", /* 26 */ "000011001010", /* 27 */ "000011001011",
    /* 28 */ "000011001100", /* 29 */ "000011001101", /* 30 */ "000001101000", /* 31 */ "000001101001",
    /* 32 */ "000001101010", /* 33 */ "000001101011", /* 34 */ "000011010010", /* 35 */ "000011010011",
    /* 36 */ "000011010100", /* 37 */ "000011010101", /* 38 */ "000011010110", /* 39 */ "000011010111",
    /* 40 */ "000001101100", /* 41 */ "000001101101", /* 42 */ "000011011010", /* 43 */ "000011011011",
    /* 44 */ "000001010100", /* 45 */ "000001010101", /* 46 */ "000001010110", /* 47 */ "000001010111",
    /* 48 */ "000001100100", /* 49 */ "000001100101", /* 50 */ "000001010010", /* 51 */ "000001010011",
    /* 52 */ "000000100100", /* 53 */ "000000110111", /* 54 */ "000000111000", /* 55 */ "000000100111",
    /* 56 */ "000000101000", /* 57 */ "000001011000", /* 58 */ "000001011001", /* 59 */ "000000101011",
    /* 60 */ "000000101100", /* 61 */ "000001011010", /* 62 */ "000001100110", /* 63 */ "000001100111",
};

// Table 3/T.4, make-up codes 64..1728 (index i: run 64 * (i + 1)).
const char *const kWhiteMakeUp[27] = {
    /* 64 */ "11011", /* 128 */ "10010", /* 192 */ "010111", /* 256 */ "0110111",
    /* 320 */ "00110110", /* 384 */ "00110111", /* 448 */ "01100100", /* 512 */ "01100101",
    /* 576 */ "01101000", /* 640 */ "01100111", /* 704 */ "011001100", /* 768 */ "011001101",
    /* 832 */ "011010010", /* 896 */ "011010011", /* 960 */ "011010100", /* 1024 */ "011010101",
    /* 1088 */ "011010110", /* 1152 */ "011010111", /* 1216 */ "011011000", /* 1280 */ "011011001",
    /* 1344 */ "011011010", /* 1408 */ "011011011", /* 1472 */ "010011000", /* 1536 */ "010011001",
    /* 1600 */ "010011010", /* 1664 */ "011000", /* 1728 */ "010011011",
};
const char *const kBlackMakeUp[27] = {
    /* 64 */ "0000001111", /* 128 */ "000011001000", /* 192 */ "000011001001",
    /* 256 */ "000001011011", /* 320 */ "000000110011", /* 384 */ "000000110100",
    /* 448 */ "000000110101", /* 512 */ "0000001101100", /* 576 */ "0000001101101",
    /* 640 */ "0000001001010", /* 704 */ "0000001001011", /* 768 */ "0000001001100",
    /* 832 */ "0000001001101", /* 896 */ "0000001110010", /* 960 */ "0000001110011",
    /* 1024 */ "0000001110100", /* 1088 */ "0000001110101", /* 1152 */ "0000001110110",
    /* 1216 */ "0000001110111", /* 1280 */ "0000001010010", /* 1344 */ "0000001010011",
    /* 1408 */ "0000001010100", /* 1472 */ "0000001010101", /* 1536 */ "0000001011010",
    /* 1600 */ "0000001011011", /* 1664 */ "0000001100100", /* 1728 */ "0000001100101",
};
// Table 4/T.4, extended make-up codes 1792..2560, both colours.
const char *const kExtendedMakeUp[13] = {
    /* 1792 */ "00000001000", /* 1856 */ "00000001100", /* 1920 */ "00000001101",
    /* 1984 */ "000000010010", /* 2048 */ "000000010011", /* 2112 */ "000000010100",
    /* 2176 */ "000000010101", /* 2240 */ "000000010110", /* 2304 */ "000000010111",
    /* 2368 */ "000000011100", /* 2432 */ "000000011101", /* 2496 */ "000000011110",
    /* 2560 */ "000000011111",
};

} // namespace

/* ---- the code table ---- */

TEST(Part2_2_CcittEncoder, TerminatingCodesMatchT4EntryByEntry)
{
    for (int run = 0; run < 64; run++) {
        EXPECT_EQ(CodeBits(0, run), kWhiteTerminating[run]) << "white " << run;
        EXPECT_EQ(CodeBits(1, run), kBlackTerminating[run]) << "black " << run;
    }
}

TEST(Part2_2_CcittEncoder, MakeUpCodesMatchT4EntryByEntry)
{
    for (int i = 0; i < 27; i++) {
        EXPECT_EQ(CodeBits(0, 64 * (i + 1)), kWhiteMakeUp[i]) << "white " << 64 * (i + 1);
        EXPECT_EQ(CodeBits(1, 64 * (i + 1)), kBlackMakeUp[i]) << "black " << 64 * (i + 1);
    }
    for (int i = 0; i < 13; i++) {
        EXPECT_EQ(CodeBits(0, 1792 + 64 * i), kExtendedMakeUp[i]) << 1792 + 64 * i;
        EXPECT_EQ(CodeBits(1, 1792 + 64 * i), kExtendedMakeUp[i]) << 1792 + 64 * i;
    }
}

TEST(Part2_2_CcittEncoder, OnlyCodeIndicesHoldCodes)
{
    // Runs above 63 that are not multiples of 64 have no code, nor runs
    // outside 0..2560.
    int withCode = 0;
    for (int run = -1; run <= 2561; run++)
        for (int colour = 0; colour < 2; colour++)
            withCode += CodeBits(colour, run) != "none";
    EXPECT_EQ(withCode, 2 * (64 + 27 + 13));
    EXPECT_EQ(CodeBits(0, 65), "none");
    EXPECT_EQ(CodeBits(2, 0), "none");
}

/* ---- one-dimensional ---- */

TEST(Part2_2_CcittEncoder, AllWhite1728RowMode2IsMakeUp1728AndTerminating0)
{
    // White make-up 1728 = 010011011, white terminating 0 = 00110101: 17
    // bits, one whole word and one bit of the next; the partial word has 15
    // free bits, so one byte of it: 0x4D 0x9A 0x80.
    Rows rows = UniformRows(1728, 1, 0xFF);
    Encoded e = Encode(rows, k1D, 0, 2);
    ASSERT_EQ(e.result, 0);
    EXPECT_EQ(e.bytes, (std::vector<uint8_t>{0x4D, 0x9A, 0x80}));
    EXPECT_EQ(BitsOf(e.bytes), std::string("010011011") + "00110101" + "0000000");
}

TEST(Part2_2_CcittEncoder, Mode2RowsStartOnByteBoundaries)
{
    // Two 8-pixel white rows: white 8 = 10011 (5 bits, 11 free in the
    // partial word: one byte per row): 0x98 0x98.  A 10-pixel black row:
    // white 0 (00110101) + black 10 (0000100) = 15 bits, 1 free: two bytes.
    Rows white = UniformRows(8, 2, 0xFF);
    EXPECT_EQ(Encode(white, k1D, 0, 2).bytes, (std::vector<uint8_t>{0x98, 0x98}));
    Rows black = UniformRows(10, 1, 0x00);
    EXPECT_EQ(Encode(black, k1D, 0, 2).bytes, BytesOf("00110101" "0000100"));
}

TEST(Part2_2_CcittEncoder, Run2600IsMakeUp2560ThenTerminating40)
{
    // White: 000000011111 (make-up 2560) + 00101001 (white 40) = 20 bits,
    // 12 free in the second word: 0x01 0xF2 0x90.
    Rows white = UniformRows(2600, 1, 0xFF);
    Encoded e = Encode(white, k1D, 0, 2);
    ASSERT_EQ(e.result, 0);
    EXPECT_EQ(e.bytes, (std::vector<uint8_t>{0x01, 0xF2, 0x90}));
    // Black: white 0, then make-up 2560 and black 40 (000001101100).
    Rows black = UniformRows(2600, 1, 0x00);
    e = Encode(black, k1D, 0, 2);
    EXPECT_EQ(e.bytes, BytesOf("00110101" "000000011111" "000001101100"));
}

TEST(Part2_2_CcittEncoder, LongRunsRepeatMakeUp2560)
{
    // 5200 white: 5200 & ~63 = 5184 -> 2560; 2640 & ~63 = 2624 -> 2560;
    // 80 -> make-up 64 (11011) and terminating 16 (101010).
    Rows rows = UniformRows(5200, 1, 0xFF);
    EXPECT_EQ(Encode(rows, k1D, 0, 2).bytes,
              BytesOf("000000011111" "000000011111" "11011" "101010"));
}

TEST(Part2_2_CcittEncoder, RunsAreCutAtTheWidthWhateverThePaddingBits)
{
    // Width 3, the padding bits of the only byte black: ".##" gives white 1
    // (000111) and black 2 (11), never a run into the padding.
    Rows rows;
    rows.width = 3;
    rows.rows = {{0x80}}; // 1000 0000: pixel 0 white, 1-2 black, padding black
    EXPECT_EQ(Encode(rows, k1D, 0, 2).bytes, BytesOf("000111" "11"));
    rows.rows = {{0xFF}}; // all white, padding white too: white 3 = 1000
    EXPECT_EQ(Encode(rows, k1D, 0, 2).bytes, BytesOf("1000"));
}

TEST(Part2_2_CcittEncoder, ThreeRowMode3EndsWithFiveEolsAnd16ZeroBits)
{
    // Width 8, all white (10011 per row).  Stream in 16-bit words: EOL
    // 0x0001 before the first row; each row 0x9800 (its code, zero fill to
    // the word) then an EOL; after the last row five EOLs and a zero word.
    Rows rows = UniformRows(8, 3, 0xFF);
    Encoded e = Encode(rows, k1D, 0, 3);
    ASSERT_EQ(e.result, 0);
    std::vector<uint8_t> expected = {0x00, 0x01, 0x98, 0x00, 0x00, 0x01, 0x98, 0x00, 0x00, 0x01,
                                     0x98, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x01, 0x00, 0x01,
                                     0x00, 0x01, 0x00, 0x00};
    EXPECT_EQ(e.bytes, expected);
    ASSERT_GE(e.bytes.size(), 12u);
    std::vector<uint8_t> tail(e.bytes.end() - 12, e.bytes.end());
    EXPECT_EQ(BitsOf(tail), "0000000000000001" "0000000000000001" "0000000000000001"
                            "0000000000000001" "0000000000000001" "0000000000000000");
}

TEST(Part2_2_CcittEncoder, Mode3EolsEndOn16BitBoundaries)
{
    // "##" + 14 white: white 0 (00110101) + black 2 (11) + white 14
    // (110100) = 16 bits, a whole word: no fill word before the EOL.  Then
    // the 11 bits of "........########" (10011 + 000101) take 5 fill bits.
    Rows rows = RowsOf({"##..............", "........########"});
    Encoded e = Encode(rows, k1D, 0, 3);
    ASSERT_EQ(e.result, 0);
    const std::string eolWord = "0000000000000001";
    EXPECT_EQ(BitsOf(e.bytes), eolWord + "0011010111110100" + eolWord + "1001100010100000" +
                                   eolWord + eolWord + eolWord + eolWord + eolWord +
                                   std::string(16, '0'));
}

/* ---- two-dimensional ---- */

TEST(Part2_2_CcittEncoder, T6ImageEndsWithFourEols)
{
    // One white row of 8 against the white reference: a1 = b1 = 8: V0 (1).
    // Then four EOLs: 49 bits, the partial word's byte after three words.
    Rows rows = UniformRows(8, 1, 0xFF);
    Encoded e = Encode(rows, k2D, 0, 4);
    ASSERT_EQ(e.result, 0);
    EXPECT_EQ(e.bytes, BytesOf("1" + kEol + kEol + kEol + kEol));
    EXPECT_EQ(e.bytes.size(), 7u);
}

TEST(Part2_2_CcittEncoder, PassVerticalAndHorizontalOnCraftedRows)
{
    // Width 16; a0 starts before the row, white; change lists in brackets.
    Rows rows = RowsOf({
        "..##............", // A [2,4]  vs white: a1=2, b1=16: horizontal 001 + W2 0111 + B2 11; a0=4; a1=b1=16: V0 1
        "........##......", // B [8,10] vs A: b2=4 < a1=8: pass 0001, a0=4; a1=8, b1=16: 001 + W4 1011 + B2 11; a0=10; V0 1
        ".........##.....", // C [9,11] vs B: a1=9, b1=8: VR1 011; a1=11, b1=10: VR1 011; a1=b1=16: V0 1
        "......####......", // D [6,10] vs C: a1=6, b1=9: VL3 0000010; a1=10, b1=11: VL1 010; V0 1
        "......##........", // E [6,8]  vs D: a1=b1=6: V0 1; a1=8, b1=10: VL2 000010; V0 1
        "........#####...", // F [8,13] vs E: a1=8, b1=6: VR2 000011; a0=8 black, b1=16 (8 is not past a0): a1=13: VL3 0000010; V0 1
        "...........###..", // G [11,14] vs F: a1=11, b1=8: VR3 0000011; a1=14, b1=13: VR1 011; V0 1
    });
    std::string expected = "001" "0111" "11" "1"
                           "0001" "001" "1011" "11" "1"
                           "011" "011" "1"
                           "0000010" "010" "1"
                           "1" "000010" "1"
                           "000011" "0000010" "1"
                           "0000011" "011" "1" +
                           kEol + kEol + kEol + kEol;
    Encoded e = Encode(rows, k2D, 0, 4);
    ASSERT_EQ(e.result, 0);
    EXPECT_EQ(BitsOf(e.bytes), BitsOf(BytesOf(expected)));
}

TEST(Part2_2_CcittEncoder, HorizontalRunsBeyond2560UseMakeUpCodes)
{
    // Width 2700: pixels 0..2599 white, 2600..2699 black, against white:
    // a1 = 2600, b1 = 2700: horizontal 001, W2600 = 000000011111 00101001,
    // B100 = make-up 64 (0000001111) + black 36 (000011010100); then a0 =
    // 2700 = width: the row is done.  Four EOLs follow.
    std::string row(2600, '.');
    row += std::string(100, '#');
    Rows rows = RowsOf({row});
    Encoded e = Encode(rows, k2D, 0, 4);
    EXPECT_EQ(e.bytes, BytesOf("001" "000000011111" "00101001" "0000001111" "000011010100" +
                               kEol + kEol + kEol + kEol));
}

TEST(Part2_2_CcittEncoder, BlackFirstPixelsCodeFromPositionZero)
{
    // "#......." vs white: a0 = -1, a1 = 0, b1 = 8: horizontal 001 + W0
    // 00110101 + B1 010; a0 = 1; a1 = b1 = 8: V0.  Second row the same vs
    // [0,1]: a1 = 0 = b1: V0; a1 = 1 = b1: V0; V0.
    Rows rows = RowsOf({"#.......", "#......."});
    Encoded e = Encode(rows, k2D, 0, 4);
    EXPECT_EQ(e.bytes, BytesOf("001" "00110101" "010" "1" "1" "1" "1" + kEol + kEol + kEol + kEol));
    // The one-dimensional coder: white 0, black 1, white 7 (1111).
    Rows one = RowsOf({"#......."});
    EXPECT_EQ(Encode(one, k1D, 0, 2).bytes, BytesOf("00110101" "010" "1111"));
}

/* ---- bit order ---- */

TEST(Part2_2_CcittEncoder, LsbFirstOutputIsTheBitReverse)
{
    Rows rows = RandomRows(1728, 40, 7);
    for (int mode : {3, 4}) {
        Coder coder = mode == 3 ? k1D : k2D;
        Encoded msb = Encode(rows, coder, 0, mode);
        Encoded lsb = Encode(rows, coder, 1, mode);
        ASSERT_EQ(msb.result, 0);
        ASSERT_EQ(lsb.result, 0);
        ASSERT_EQ(msb.bytes.size(), lsb.bytes.size()) << mode;
        ASSERT_GT(msb.bytes.size(), 100u);
        for (size_t i = 0; i < msb.bytes.size(); i++)
            ASSERT_EQ(lsb.bytes[i], Reverse(msb.bytes[i])) << "mode " << mode << " byte " << i;
    }
}

TEST(Part2_2_CcittEncoder, Mode2IgnoresLsbFirst)
{
    // One-dimensional output is reversed only when mode is 3 and lsbFirst 1.
    Rows rows = RandomRows(300, 10, 3);
    EXPECT_EQ(Encode(rows, k1D, 1, 2).bytes, Encode(rows, k1D, 0, 2).bytes);
}

/* ---- the framed variant ---- */

TEST(Part2_2_CcittEncoder, FramedBlocksCarryFe92AndBigEndianCount)
{
    // Mode 2, one 1728 white row: the 3-byte block behind FE 92 00 03.
    Rows one = UniformRows(1728, 1, 0xFF);
    Encoded e = Encode(one, kFramed, 0, 2);
    ASSERT_EQ(e.result, 0);
    EXPECT_EQ(e.bytes, (std::vector<uint8_t>{0xFE, 0x92, 0x00, 0x03, 0x4D, 0x9A, 0x80}));

    // Mode 3, three 8-pixel white rows (see ThreeRowMode3...): one block per
    // row: EOL + row + EOL (6 bytes), row + EOL (4), row + 5 EOLs + zero (14).
    Rows three = UniformRows(8, 3, 0xFF);
    e = Encode(three, kFramed, 0, 3);
    std::vector<uint8_t> expected = {0xFE, 0x92, 0x00, 0x06, 0x00, 0x01, 0x98, 0x00, 0x00, 0x01,
                                     0xFE, 0x92, 0x00, 0x04, 0x98, 0x00, 0x00, 0x01,
                                     0xFE, 0x92, 0x00, 0x0E, 0x98, 0x00, 0x00, 0x01, 0x00, 0x01,
                                     0x00, 0x01, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00};
    EXPECT_EQ(e.bytes, expected);
}

TEST(Part2_2_CcittEncoder, FramedBlocksHoldTheUnframedStream)
{
    // Strip the frames of a long T.6 stream (several 10000-byte blocks): the
    // rest is the unframed stream; every count is at most 10000.
    Rows rows = RandomRows(2000, 400, 11);
    Encoded plain = Encode(rows, k2D, 1, 4);
    Encoded framed = Encode(rows, kFramed, 1, 4);
    ASSERT_EQ(framed.result, 0);
    std::vector<uint8_t> joined;
    size_t at = 0, blocks = 0;
    while (at < framed.bytes.size()) {
        ASSERT_LE(at + 4, framed.bytes.size());
        ASSERT_EQ(framed.bytes[at], 0xFE);
        ASSERT_EQ(framed.bytes[at + 1], 0x92);
        size_t count = (size_t)framed.bytes[at + 2] << 8 | framed.bytes[at + 3];
        ASSERT_LE(count, 10000u);
        ASSERT_LE(at + 4 + count, framed.bytes.size());
        joined.insert(joined.end(), framed.bytes.begin() + (long)at + 4,
                      framed.bytes.begin() + (long)(at + 4 + count));
        at += 4 + count;
        blocks++;
    }
    EXPECT_GT(blocks, 1u);
    EXPECT_EQ(joined, plain.bytes);
}

/* ---- failures ---- */

TEST(Part2_2_CcittEncoder, ShortWriteGivesMinus9)
{
    Rows rows = RandomRows(1728, 50, 5);
    for (int mode : {2, 3, 4}) {
        gWriteLimit = 10;
        Encoded e = Encode(rows, mode == 4 ? k2D : k1D, 0, mode);
        gWriteLimit = -1;
        EXPECT_EQ(e.result, IMG_ERR_WRITE) << mode;
    }
    gWriteLimit = 3; // the frame fits, its block does not
    Encoded e = Encode(rows, kFramed, 0, 2);
    gWriteLimit = -1;
    EXPECT_EQ(e.result, IMG_ERR_WRITE);
}

TEST(Part2_2_CcittEncoder, RowSourceFailureIsReturned)
{
    Rows rows = RandomRows(100, 10, 5);
    rows.failAt = 4;
    rows.failCode = -12;
    EXPECT_EQ(Encode(rows, k1D, 0, 3).result, -12);
    rows.failCode = -18;
    EXPECT_EQ(Encode(rows, k2D, 0, 4).result, -18);
}

TEST(Part2_2_CcittEncoder, OutOfMemoryGivesMinus1)
{
    Rows rows = RandomRows(100, 3, 5);
    for (int countdown = 0; countdown < 4; countdown++) {
        ImgTestFailAllocations(countdown);
        int result = Encode(rows, k2D, 0, 4).result;
        ImgTestFailAllocations(-1);
        EXPECT_EQ(result, IMG_ERR_MEMORY) << countdown;
    }
}

TEST(Part2_2_CcittEncoder, EmptyGeometryIsInvalid)
{
    // Hardening (docs/DEVIATIONS.md): no rows or no columns: -3.
    Rows rows;
    rows.width = 0;
    rows.rows.assign(1, {});
    EXPECT_EQ(Encode(rows, k1D, 0, 2).result, IMG_ERR_INVALID);
    Rows none = UniformRows(8, 0, 0xFF);
    EXPECT_EQ(Encode(none, k2D, 0, 4).result, IMG_ERR_INVALID);
    Rows ok = UniformRows(8, 1, 0xFF);
    EXPECT_EQ(Encode(ok, k1D, 0, 5).result, IMG_ERR_INVALID); // mode 2 or 3 only
}

TEST(Part2_2_CcittEncoder, VeryWideRowsFlushMidRow)
{
    // A 200000-pixel row of alternating pixels codes to about 100000 codes,
    // far beyond the 10000-byte buffer: it is flushed in blocks within the
    // row, and the bytes are those of the codes in order.
    Rows rows;
    rows.width = 200000;
    rows.rows.assign(1, std::vector<uint8_t>(25000, 0xAA)); // white, black, ...
    Encoded e = Encode(rows, k1D, 0, 2);
    ASSERT_EQ(e.result, 0);
    // W1 000111 then B1 010, 100000 times: 9 bits a pair, 900000 bits.
    ASSERT_EQ(e.bytes.size(), 900000u / 8);
    EXPECT_EQ(BitsOf(std::vector<uint8_t>(e.bytes.begin(), e.bytes.begin() + 9)),
              std::string("000111010") + "000111010" + "000111010" + "000111010" + "000111010" +
                  "000111010" + "000111010" + "000111010");
}

/* ---- the raw fax save types ---- */

namespace {

int32_t TextLikeImage(int32_t width, int32_t height)
{
    int32_t h = NewImage(width, height, 1);
    if (h < 0)
        return h;
    Rows rows = RandomRows(width, height, 21);
    ImgDescriptor *d = ImgTableGet(h);
    uint8_t *bits = d->dib + 40 + 8;
    uint32_t stride = DibStride((uint32_t)width, 1);
    for (int32_t y = 0; y < height; y++)
        std::memcpy(bits + (size_t)(height - 1 - y) * stride, rows.rows[(size_t)y].data(),
                    rows.rows[(size_t)y].size());
    return h;
}

std::vector<uint8_t> SaveRaw(int32_t handle, int32_t type, const std::string &path, int32_t *result)
{
    *result = IMG_save_bitmap(handle, path.c_str(), type);
    FILE *f = std::fopen(path.c_str(), "rb");
    std::vector<uint8_t> bytes;
    if (f) {
        int c;
        while ((c = std::fgetc(f)) != EOF)
            bytes.push_back((uint8_t)c);
        std::fclose(f);
    }
    std::remove(path.c_str());
    return bytes;
}

} // namespace

TEST_F(TrnwTest, Part2_2_CcittEncoder_RawTypesPairInBitOrder)
{
    int32_t h = TextLikeImage(1728, 60);
    ASSERT_GE(h, 0);
    int32_t r33, r53, r34, r52;
    std::string path = TempPath("raw.fax");
    auto g3 = SaveRaw(h, 33, path, &r33);
    auto g3lsb = SaveRaw(h, 53, path, &r53);
    auto g4 = SaveRaw(h, 34, path, &r34);
    auto g4lsb = SaveRaw(h, 52, path, &r52);
    ASSERT_EQ(r33, 0);
    ASSERT_EQ(r53, 0);
    ASSERT_EQ(r34, 0);
    ASSERT_EQ(r52, 0);
    // 33: most significant bit first, with EOLs: starts with the EOL word
    // 00 01, ends with five EOL words and a zero word.
    ASSERT_GT(g3.size(), 12u);
    EXPECT_EQ(g3[0], 0x00);
    EXPECT_EQ(g3[1], 0x01);
    EXPECT_EQ(BitsOf(std::vector<uint8_t>(g3.end() - 12, g3.end())),
              "0000000000000001" "0000000000000001" "0000000000000001"
              "0000000000000001" "0000000000000001" "0000000000000000");
    // 53 and 52: every byte the bit reverse of 33 and 34.
    ASSERT_EQ(g3lsb.size(), g3.size());
    ASSERT_EQ(g4lsb.size(), g4.size());
    for (size_t i = 0; i < g3.size(); i++)
        ASSERT_EQ(g3lsb[i], Reverse(g3[i])) << i;
    for (size_t i = 0; i < g4.size(); i++)
        ASSERT_EQ(g4lsb[i], Reverse(g4[i])) << i;
    EXPECT_EQ(g3lsb[1], 0x80);
    // 34 is T.6: the same bytes as the encoder gives for the page's rows.
    Rows rows = RandomRows(1728, 60, 21);
    EXPECT_EQ(g4, Encode(rows, k2D, 0, 4).bytes);
}

TEST_F(TrnwTest, Part2_2_CcittEncoder_RawTypesRefuseDeeperImagesWithMinus21)
{
    std::string path = TempPath("raw8.fax");
    for (int bits : {4, 8, 24}) {
        int32_t h = NewImage(16, 4, bits);
        ASSERT_GE(h, 0);
        for (int32_t type : {33, 53, 34, 52})
            EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), type), IMG_ERR_DEPTH)
                << bits << " bits, type " << type;
        IMG_delete_bitmap(h);
    }
    std::remove(path.c_str());
}

TEST_F(TrnwTest, Part2_2_CcittEncoder_RawTypesSaveTheCropRectangle)
{
    // A 1-bit 64 x 8 image, cropped to 8 x 2 at (8, 0) of an all-white
    // image with one black pixel at (8, 0): G4 codes the 8 x 2 rows.
    int32_t h = NewImage(64, 8, 1);
    ASSERT_GE(h, 0);
    ImgDescriptor *d = ImgTableGet(h);
    uint32_t stride = DibStride(64, 1);
    std::memset(d->dib + 48, 0xFF, stride * 8);
    d->dib[48 + 7 * stride + 1] = 0x7F; // top row, pixel 8 black
    ASSERT_EQ(IMG_set_croprect(h, 8, 0, 8, 2), 0);
    int32_t result;
    auto g4 = SaveRaw(h, 34, TempPath("crop.g4"), &result);
    ASSERT_EQ(result, 0);
    // Row 0 "#......." and row 1 "........": 001 00110101 010 1 (see
    // BlackFirstPixels...), then row 1 vs [0,1]: a1 = 8, b1 = 0 (not past
    // a0 = -1? it is: 0 > -1), b2 = 1 < 8: pass 0001, a0 = 1; b1 = b2 = 8:
    // V0 1.
    EXPECT_EQ(g4, BytesOf("001" "00110101" "010" "1" "0001" "1" + kEol + kEol + kEol + kEol));
}

/* ---- round trip through our decoder (Part 2.1) ---- */

#include "codecs/ccitt_decode.h"

namespace {

// Compares the padding-free pixels of two rows of `width` pixels.
bool SameRow(const uint8_t *a, const uint8_t *b, int32_t width)
{
    for (int32_t x = 0; x < width; x++)
        if (((a[x / 8] ^ b[x / 8]) >> (7 - x % 8)) & 1)
            return false;
    return true;
}

struct Collected {
    int32_t width = 0;
    std::vector<std::vector<uint8_t>> rows;
};

int CollectRecord(const uint8_t *record, void *context, int rowIndex, int recordBytes)
{
    Collected *c = static_cast<Collected *>(context);
    if (rowIndex < 0 || rowIndex >= (int)c->rows.size())
        return -3;
    std::vector<uint16_t> words((size_t)recordBytes / 2 + 1);
    std::memcpy(words.data(), record, (size_t)recordBytes);
    auto &row = c->rows[(size_t)rowIndex];
    RunExpandRow(words.data(), (uint32_t)recordBytes, c->width, row.data(), (uint32_t)row.size());
    return 0;
}

} // namespace

TEST_F(TrnwTest, Part2_2_CcittEncoder_RawTypesRoundTripThroughOurDecoder)
{
    // Types 33/53 decode as IMG_decompress_fax type 3 (one-dimensional with
    // EOLs) with fill order 1/2; 34/52 as type 4 (Group 4).  The height is
    // given: our five closing EOLs are one short of the decoder's six.
    const int32_t width = 1728, height = 300;
    Rows rows = RandomRows(width, height, 21); // TextLikeImage's rows
    int32_t h = TextLikeImage(width, height);
    ASSERT_GE(h, 0);
    uint32_t stride = DibStride((uint32_t)width, 1);
    struct { int32_t type, decodeType, fillOrder; } cases[] = {{33, 3, 1}, {53, 3, 2}, {34, 4, 1}, {52, 4, 2}};
    for (const auto &c : cases) {
        int32_t result;
        std::vector<uint8_t> stream = SaveRaw(h, c.type, TempPath("rt.fax"), &result);
        ASSERT_EQ(result, 0) << c.type;
        int32_t back = IMG_decompress_fax_mem_size(stream.data(), (uint32_t)stream.size(), width,
                                                   height, c.decodeType, c.fillOrder);
        ASSERT_GE(back, 0) << c.type;
        std::vector<uint8_t> row(stride);
        for (int32_t y = 0; y < height; y++) {
            ASSERT_GE(IMGLOW_get_raster(back, row.data(), y, (int32_t)stride), 0);
            ASSERT_TRUE(SameRow(row.data(), rows.rows[(size_t)y].data(), width))
                << "type " << c.type << " row " << y;
        }
        IMG_delete_bitmap(back);
    }
}

TEST(Part2_2_CcittEncoder, Mode2RoundTripsThroughOurOneDimensionalDecoder)
{
    // TIFF compression 2: the one-dimensional decoder in mode 2 (byte-aligned
    // rows, no EOLs), fed from the memory image.
    for (int32_t width : {1, 13, 1728, 2600}) {
        Rows rows = RandomRows(width, 40, (unsigned)width);
        rows.rows[3].assign(rows.rows[3].size(), 0x00); // an all-black row
        Encoded e = Encode(rows, k1D, 0, 2);
        ASSERT_EQ(e.result, 0);
        std::vector<uint8_t> stream = e.bytes;
        stream.resize(stream.size() + 400, 0);
        ImgSetMemorySourceSized(stream.data(), (uint32_t)e.bytes.size());
        CcittParameters p{};
        p.height = 40;
        p.width = (uint16_t)width;
        p.rowsPerStrip = 40;
        p.mode = 2;
        p.whiteIsZero = 1;
        p.fillOrder = 1;
        std::vector<uint8_t> buffer(CCITT_CHUNK + 500, 0);
        Collected got;
        got.width = width;
        got.rows.assign(40, std::vector<uint8_t>((size_t)(width + 7) / 8, 0));
        ASSERT_GE(CcittDecode1D(buffer.data(), 40, 0, &p, IMG_MEMORY_HANDLE, CollectRecord, &got), 0)
            << width;
        for (int32_t y = 0; y < 40; y++)
            ASSERT_TRUE(SameRow(got.rows[(size_t)y].data(), rows.rows[(size_t)y].data(), width))
                << "width " << width << " row " << y;
    }
}
