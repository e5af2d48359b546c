// The CCITT coders: rows through the encoder and back through the decoder,
// hand-built code strings (T.4 / T.6 codes typed from the standard), and the
// damaged streams the decoders must survive.  Our encoder against libtiff's
// decoder is in tests/interop.
#include "support/support.h"

#include <map>

namespace {
// The T.4 codes the streams below use, first transmitted bit first; long
// runs as make-up (64 k, or extended from 1792) plus terminating code.
const std::map<int, std::string> kWhite = {
    {0, "00110101"}, {2, "0111"}, {3, "1000"}, {4, "1011"}, {5, "1100"}, {10, "00111"}, {15, "110101"},
    {20, "0001000"}, {30, "00000011"}, {60, "01001011"}, {70, "11011" "1110"}, {98, "11011" "00010011"},
    {100, "11011" "00010101"}, {439, "00110111" "01011000"}, {1728, "010011011" "00110101"},
    {2000, "000000010010" "101010"}};
const std::map<int, std::string> kBlack = {
    {0, "0000110111"}, {2, "11"}, {20, "00001101000"}, {40, "000001101100"}, {2561, "000000011111" "010"}};
std::string W(int run) { return kWhite.at(run); }
std::string B(int run) { return kBlack.at(run); }
const std::string kEol = "000000000001", kV0 = "1", kVR1 = "011", kVR3 = "0000011", kVL1 = "010",
                  kVL2 = "000010", kH = "001", kPass = "0001";

std::vector<uint8_t> Pack(const std::string &bits, int fillOrder = 1)
{
    std::vector<uint8_t> out((bits.size() + 7) / 8, 0);
    for (size_t i = 0; i < bits.size(); i++)
        if (bits[i] == '1')
            out[i / 8] |= (uint8_t)(fillOrder == 2 ? 1 << (i % 8) : 0x80 >> (i % 8));
    return out;
}

struct Capture { std::vector<std::vector<uint16_t>> records; std::vector<int> rows; int failAt = -1; };
int CaptureSink(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    auto *c = static_cast<Capture *>(context);
    std::vector<uint16_t> w((size_t)rowBytes / 2);
    std::memcpy(w.data(), row, w.size() * 2);
    c->records.push_back(w);
    c->rows.push_back(rowIndex);
    return (int)c->records.size() - 1 == c->failAt ? -77 : 0;
}

enum Decoder { k1D, k2D, kG4 };
CcittParameters Params(int width, int height, int mode, int fillOrder = 1, int whiteIsZero = 1)
{
    return CcittParameters{height, (uint16_t)width, 0, 0, mode, whiteIsZero, fillOrder};
}
int Decode(Decoder which, std::vector<uint8_t> data, const CcittParameters &p, int rows, int first,
           Capture &c)
{
    uint32_t size = (uint32_t)data.size();
    data.push_back(0);
    ImgSetMemorySourceSized(data.data(), size ? size : 1);
    std::vector<uint8_t> buffer(CCITT_CHUNK + 500, 0xEE);
    auto f = which == k1D ? CcittDecode1D : which == k2D ? CcittDecode2D : CcittDecodeG4;
    return f(buffer.data(), rows, first, &p, IMG_MEMORY_HANDLE, CaptureSink, &c);
}

// A row's record: length word, colour changes, terminators (w three times
// after 1-D rows; w, w, w+1, w+1 after 2-D rows), one more terminator when
// its byte count equals the packed row or stride (not to pass for a row).
std::vector<uint16_t> Rec(std::vector<uint16_t> changes, int w, bool twoD)
{
    for (int t : twoD ? std::vector<int>{w, w, w + 1, w + 1} : std::vector<int>{w, w, w})
        changes.push_back((uint16_t)t);
    int bytes = (int)(changes.size() + 1) * 2;
    if (bytes == (w + 7) / 8 || bytes == (int)DibStride((uint32_t)w, 1)) {
        changes.push_back(changes.back());
        bytes += 2;
    }
    changes.insert(changes.begin(), (uint16_t)bytes);
    return changes;
}

std::vector<uint8_t> gOut;
int32_t IMGCDECL Collect(int32_t, void *b, int32_t n) { gOut.insert(gOut.end(), (uint8_t *)b, (uint8_t *)b + n); return n; }
using Rows = std::vector<std::vector<uint8_t>>; // unpadded, bit set = white
int RowSource(void *context, uint8_t *buffer, int rowIndex, int rowBytes)
{
    std::memcpy(buffer, (*static_cast<Rows *>(context))[(size_t)rowIndex].data(), (size_t)rowBytes);
    return 0;
}
std::vector<uint8_t> Header(int w, int h)
{
    std::vector<uint8_t> hd(40, 0);
    PutLE32(&hd[0], 40), PutLE32(&hd[4], (uint32_t)w), PutLE32(&hd[8], (uint32_t)h);
    hd[12] = hd[14] = 1; // one plane, one bit
    return hd;
}
// A row of `w` pixels, white but for the black spans [from, to).
std::vector<uint8_t> Row(int w, std::vector<std::pair<int, int>> black)
{
    std::vector<uint8_t> r((size_t)(w + 7) / 8, 0xFF);
    for (auto &s : black)
        for (int x = s.first; x < s.second && x < w; x++)
            r[(size_t)x / 8] &= (uint8_t)~(0x80 >> (x % 8));
    return r;
}

struct RoundTrip { const char *name; int width; std::vector<std::vector<std::pair<int, int>>> rows; };
// 300 rows of 1000 pixels in runs of 1 to 4: every coder's output spans
// several refills of the decoders' 10000-byte chunk.
RoundTrip Dense()
{
    RoundTrip t{"dense rows past the chunk refills", 1000, {}};
    uint32_t seed = 5;
    for (int y = 0; y < 300; y++) {
        t.rows.emplace_back();
        for (int x = 0; x < 1000;) {
            int run = 1 + (int)((seed = seed * 1103515245u + 12345u) >> 16) % 4;
            t.rows.back().push_back({x, x + run});
            x += run + 1 + (int)(seed >> 20) % 4;
        }
    }
    return t;
}
// Single pixels alternating across the widest run-coded row, starting
// either colour, then the first row again: every 64-pixel word holds 64
// changes, a row's code passes the 10000-byte buffer (flushed mid-row), and
// the last row is one long string of V0 codes.
RoundTrip Alternating()
{
    RoundTrip t{"alternating pixels across the widest row", RUN_MAX_WIDTH, {{}, {}, {}}};
    for (int x = 0; x < t.width; x += 2) {
        t.rows[0].push_back({x, x + 1});
        t.rows[1].push_back({x + 1, x + 2});
    }
    t.rows[2] = t.rows[0];
    return t;
}
const RoundTrip kRoundTrips[] = {
    Dense(),
    Alternating(),
    {"one run a row, width 131", 131, {{}, {{0, 131}}, {}}},
    {"one white pixel", 1, {{}}},
    {"one black pixel", 1, {{{0, 1}}}},
    {"all white 1728", 1728, {{}, {}}},
    {"all black 1728", 1728, {{{0, 1728}}, {{0, 1728}}}},
    {"pixels at both ends", 100, {{{0, 1}, {99, 100}}, {{0, 1}}, {{99, 100}}}},
    {"runs about 63/64", 300, {{{63, 127}, {191, 256}}, {{64, 128}, {192, 255}}, {{62, 126}}}},
    {"runs past 1728 and 2560", 5200, {{{1727, 4288}}, {{1792, 4353}, {4354, 4355}}, {{2560, 5200}}}},
    {"odd width, alternating", 37, {{{1, 2}, {3, 4}, {5, 6}, {35, 36}}, {{0, 37}}, {}, {{2, 3}, {4, 36}}}},
    // VL3 ends a run before the reference's next black run starts: b1 steps back to it.
    {"left step back before a short run", 30, {{{10, 12}}, {{8, 9}, {10, 12}}}},
    {"pass and vertical steps", 40, {{{10, 20}}, {{5, 8}, {30, 33}}, {{9, 21}}, {{11, 19}}, {{0, 3}}}},
};

class CcittRoundTrip : public TrnwTest, public ::testing::WithParamInterface<RoundTrip> {};

TEST_P(CcittRoundTrip, RowsComeBackFromEveryCoderAndFillOrder)
{
    const RoundTrip &t = GetParam();
    Rows rows;
    for (auto &spans : t.rows)
        rows.push_back(Row(t.width, spans));
    int h = (int)rows.size();
    auto header = Header(t.width, h);
    struct Variant { int encMode, lsb; Decoder dec; int decMode, fill; } variants[] = {
        {2, 0, k1D, 2, 1}, {3, 0, k1D, 3, 1}, {3, 1, k1D, 3, 2}, {4, 0, kG4, 4, 1}, {4, 1, kG4, 4, 2}};
    for (const Variant &v : variants) {
        SCOPED_TRACE("mode " + std::to_string(v.encMode) + " lsb " + std::to_string(v.lsb));
        gOut.clear();
        IMGLOW_set_fileio(nullptr, Collect, nullptr);
        auto enc = v.encMode == 4 ? CcittEncode2D : CcittEncode1D;
        ASSERT_EQ(enc(7, header.data(), RowSource, &rows, v.lsb, v.encMode), 0);
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        Capture c;
        ASSERT_EQ(Decode(v.dec, gOut, Params(t.width, h, v.decMode, v.fill), h, 0, c), 0);
        ASSERT_EQ((int)c.records.size(), h);
        for (int y = 0; y < h; y++) {
            std::vector<uint8_t> packed(DibStride((uint32_t)t.width, 1) + 8, 0);
            RunExpandRow(c.records[(size_t)y].data(), c.records[(size_t)y].size() * 2, t.width,
                         packed.data(), (uint32_t)packed.size());
            // Compare the pixels only: the padding bits of the last byte are free.
            for (int x = 0; x < t.width; x++)
                ASSERT_EQ(packed[(size_t)x / 8] >> (7 - x % 8) & 1, rows[(size_t)y][(size_t)x / 8] >> (7 - x % 8) & 1)
                    << "row " << y << " pixel " << x;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Patterns, CcittRoundTrip, ::testing::ValuesIn(kRoundTrips));

class Ccitt : public TrnwTest {};

TEST_F(Ccitt, EncoderCodesAreTheT4Codes)
{
    // Two rows of 8 in mode 2 (byte-aligned rows): white 3, black 2, white 3
    // = 1000 11 1000 -> 10001110 00...; an all-black row = white 0 then
    // black 8 (000101) -> 00110101 000101.
    Rows rows = {Row(8, {{3, 5}}), Row(8, {{0, 8}})};
    auto header = Header(8, 2);
    gOut.clear();
    IMGLOW_set_fileio(nullptr, Collect, nullptr);
    ASSERT_EQ(CcittEncode1D(7, header.data(), RowSource, &rows, 0, 2), 0);
    EXPECT_EQ(gOut, Pack(std::string("1000111000000000") + "00110101000101"));
    gOut.clear();
    ASSERT_EQ(CcittEncode1D(7, header.data(), RowSource, &rows, 0, 3), 0);
    // Mode 3 works in 16-bit words: each row starts a fresh word holding
    // fill zeros and the EOL (0001), then the row's codes, zero-padded; five
    // more EOL words and a zero word end the page.
    EXPECT_EQ(gOut, (std::vector<uint8_t>{0, 1, 0x8E, 0, 0, 1, 0x35, 0x14, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 0}));
    uint16_t code = 0, length = 0;
    ASSERT_EQ(CcittEncodeCode(1, 2560, &code, &length), 0);
    EXPECT_EQ(length, 12);
    EXPECT_EQ(code, 0x1F); // 000000011111
    EXPECT_EQ(CcittEncodeCode(0, 2561, &code, &length), IMG_ERR_INVALID);
    EXPECT_EQ(CcittEncodeCode(0, 65, &code, &length), IMG_ERR_INVALID);
}

// A stream, the decoder and parameters, and the result and records expected.
struct DecodeCase { const char *name; Decoder decoder; int mode, width, rows, whiteIsZero; std::string bits; int result;
                    std::vector<std::vector<uint16_t>> records; };

// Group 4 rows on width 20 against an all-white first reference:
//  H(white 3, black 2) V0 -> 3, 5;  V0 VR1 V0 -> 3, 6;  VL1 VL2 V0 -> 2, 4;
//  P (a0 = b2 = 4) V0 -> white;  VR3 (23, cut at 20) -> white.
const std::string kG4Rows = kH + W(3) + B(2) + kV0 + kV0 + kVR1 + kV0 + kVL1 + kVL2 + kV0 + kPass + kV0 + kVR3;

std::vector<DecodeCase> DecodeCases()
{
    std::string rowThenRtc = kEol + W(10) + B(20) + W(70);
    for (int i = 0; i < 6; i++) rowThenRtc += kEol;
    std::string fiveEols = kEol + W(60) + B(40);
    for (int i = 0; i < 5; i++) fiveEols += kEol;
    fiveEols += W(60) + B(40);
    std::string codes3001, codes2001;
    for (int i = 0; i < 3001; i++) codes3001 += W(2);
    codes2001 = codes3001.substr(0, 2001 * 4);
    std::string tagged = kEol + "1" + W(3) + B(2) + W(15) + kEol + "0" + kV0 + kVR1 + kV0 + kEol + "1" + W(20);
    auto r1 = [](std::vector<uint16_t> c, int w) { return Rec(c, w, false); };
    auto r2 = [](std::vector<uint16_t> c, int w) { return Rec(c, w, true); };
    return {
        {"all white", k1D, 2, 1728, 1, 1, W(1728), 0, {{8, 1728, 1728, 1728}}},
        {"white is zero leads with 0", k1D, 2, 1728, 1, 0, W(1728), 0, {{10, 0, 1728, 1728, 1728}}},
        {"white 0 first", k1D, 2, 100, 1, 1, W(0) + B(2) + W(98), 0, {r1({0, 2}, 100)}},
        {"run past the row is cut", k1D, 2, 50, 1, 1, W(30) + B(40), 0, {{10, 30, 50, 50, 50}}},
        {"record as long as the row", k1D, 2, 60, 1, 1, W(60), 0, {{10, 60, 60, 60, 60}}},
        {"record as long as the stride", k1D, 2, 40, 1, 1, "00101001" /*white 40*/, 0, {{10, 40, 40, 40, 40}}},
        {"make-up and extended codes", k1D, 2, 5000, 1, 1, W(2000) + B(2561) + W(439), 0,
         {r1({2000, 4561}, 5000)}},
        {"mode 2 rows byte-aligned", k1D, 2, 10, 2, 1, W(3) + B(2) + W(5) + "111111" + W(10), 0,
         {r1({3, 5}, 10), r1({}, 10)}},
        {"zero bits skipped one by one", k1D, 2, 100, 1, 1, "0000" + kEol + W(100), 0, {r1({}, 100)}},
        {"six EOLs end the page", k1D, 3, 100, 5, 1, rowThenRtc, 0,
         {r1({10, 30}, 100), r1({}, 100), r1({}, 100), r1({}, 100), r1({}, 100)}},
        {"five EOLs do not", k1D, 3, 100, 2, 1, fiveEols, 0, {r1({60}, 100), r1({60}, 100)}},
        {"3001 codes without EOL", k1D, 3, 100, 2, 1, kEol + W(100) + codes3001 + kEol + W(100), IMG_ERR_INVALID, {}},
        {"3000 codes then EOL", k1D, 3, 100, 2, 1, kEol + W(100) + codes3001.substr(4) + kEol + W(100), 0,
         {r1({}, 100), r1({}, 100)}},
        {"group 4 modes", kG4, 4, 20, 5, 1, kG4Rows, 0,
         {r2({3, 5}, 20), r2({3, 6}, 20), r2({2, 4}, 20), r2({}, 20), r2({}, 20)}},
        {"group 4 white is zero", kG4, 4, 20, 2, 0, kG4Rows, 0, {r2({0, 3, 5}, 20), r2({0, 3, 6}, 20)}},
        {"group 4 width 65535", kG4, 4, 65535, 1, 1, "11111111", IMG_ERR_INVALID, {}},
        {"2-D group 3 tag bits", k2D, 45, 20, 3, 1, tagged, 0, {r2({3, 5}, 20), r2({3, 6}, 20), r2({}, 20)}},
        {"2-D group 3 ignores white is zero", k2D, 45, 20, 1, 0, tagged, 0, {r2({3, 5}, 20)}},
        {"2-D group 3 tags only on two rows", k2D, 2, 20, 3, 1,
         kEol + "1" + W(3) + B(2) + W(15) + kEol + "0" + kV0 + kVR1 + kV0 + kVL1 + kVL2 + kV0, 0,
         {r2({3, 5}, 20), r2({3, 6}, 20), r2({2, 4}, 20)}},
        {"2-D group 3 EOL missing", k2D, 45, 20, 1, 1, codes2001 + kEol + "1" + W(20), IMG_ERR_INVALID, {}},
    };
}

TEST_F(Ccitt, HandBuiltStreamsDecodeToTheirRecords)
{
    for (const DecodeCase &t : DecodeCases()) {
        for (int fill : {1, 2}) {
            SCOPED_TRACE(std::string(t.name) + (fill == 2 ? ", lsb first" : ""));
            Capture c;
            EXPECT_EQ(Decode(t.decoder, Pack(t.bits, fill), Params(t.width, t.rows, t.mode, fill, t.whiteIsZero),
                             t.rows, 0, c),
                      t.result);
            if (t.result < 0) {
                EXPECT_TRUE(c.records.empty());
                continue;
            }
            // The white rows behind a page end are not counted as produced.
            EXPECT_TRUE(std::string(t.name) != "six EOLs end the page" || CcittRowsProduced() == 1);
            ASSERT_EQ(c.records.size(), t.records.size());
            for (size_t i = 0; i < t.records.size(); i++) {
                EXPECT_EQ(c.records[i], t.records[i]) << "record " << i;
                EXPECT_EQ(c.rows[i], (int)i);
            }
        }
    }
}

TEST_F(Ccitt, Group4StripsContinueTheReferenceRow)
{
    Capture c;
    ASSERT_EQ(Decode(kG4, Pack(kH + W(3) + B(2) + kV0 + kV0 + kVR1 + kV0), Params(20, 4, 4), 2, 0, c), 0);
    ASSERT_EQ(Decode(kG4, Pack(kVL1 + kVL2 + kV0 + kPass + kV0), Params(20, 4, 4), 2, 2, c), 0);
    ASSERT_EQ(c.records.size(), 4u);
    EXPECT_EQ(c.records[2], Rec({2, 4}, 20, true));
    EXPECT_EQ(c.rows, (std::vector<int>{0, 1, 2, 3}));
    // Rows asked past the image's height repeat the last coded row.
    Capture past;
    ASSERT_EQ(Decode(kG4, Pack(kG4Rows), Params(20, 2, 4), 4, 0, past), 0);
    ASSERT_EQ(past.records.size(), 4u);
    EXPECT_EQ(past.records[3], Rec({3, 6}, 20, true));
}

TEST_F(Ccitt, NonReadingModesTakeTheBuffer)
{
    // Group 4 (mode 0) and 1-D (mode 128, lsb first) from bytes already in
    // the buffer, with no byte source (-1).
    struct { Decoder d; int mode, fill, width; std::string bits; std::vector<uint16_t> first, second; } cases[] = {
        {kG4, 0, 1, 20, kG4Rows, Rec({3, 5}, 20, true), Rec({3, 6}, 20, true)},
        {k1D, 128, 2, 100, kEol + W(10) + B(20) + W(70) + kEol + W(100), Rec({10, 30}, 100, false), Rec({}, 100, false)},
    };
    for (auto &t : cases) {
        auto data = Pack(t.bits, t.fill);
        std::vector<uint8_t> buffer(CCITT_CHUNK + 300, 0);
        std::copy(data.begin(), data.end(), buffer.begin());
        CcittParameters p = Params(t.width, 2, t.mode, t.fill);
        p.codedBytes = (uint32_t)data.size();
        Capture c;
        auto f = t.d == k1D ? CcittDecode1D : CcittDecodeG4;
        ASSERT_EQ(f(buffer.data(), 2, 0, &p, -1, CaptureSink, &c), 0);
        ASSERT_EQ(c.records.size(), 2u);
        EXPECT_EQ(c.records[0], t.first);
        EXPECT_EQ(c.records[1], t.second);
    }
}

// A run-coded page saves to the bytes of its packed twin through every
// CCITT save type, whole and cropped: its rows' records are coded as they
// are, or, where the decoder left a zero-length run (row 0: white 3, black 0,
// white 5, ...), from their pixels.
TEST_F(Ccitt, RunCodedPagesSaveAsTheirPackedTwins)
{
    auto data = Pack(kEol + W(3) + B(0) + W(5) + B(2) + W(10) + kEol + W(0) + B(20) + kEol + W(20));
    int32_t h = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 20, 3, 3, 1);
    ASSERT_GE(h, 0);
    const int32_t types[] = {IMG_TYPE_TIFF_HUFFMAN, IMG_TYPE_TIFF_G3, IMG_TYPE_TIFF_G4,
                             IMG_TYPE_TIFF_51, IMG_TYPE_CALS, IMG_TYPE_FAX_G3, IMG_TYPE_FAX_G4_B};
    const int32_t crops[][4] = {{0, 0, 20, 3}, {0, 1, 13, 2}, {8, 0, 12, 3}};
    std::vector<std::vector<uint8_t>> coded;
    for (int form = 0; form < 2; form++) {
        if (form == 1) {
            ASSERT_EQ(IMG_runs_to_dib(h), 0);
        }
        size_t k = 0;
        for (auto &c : crops)
            for (int32_t type : types) {
                SCOPED_TRACE("type " + std::to_string(type) + " crop x " + std::to_string(c[0]));
                ASSERT_EQ(IMG_set_croprect(h, c[0], c[1], c[2], c[3]), 0);
                std::vector<uint8_t> file = SavedImage(h, type);
                ASSERT_FALSE(file.empty());
                if (form == 0)
                    coded.push_back(file);
                else
                    EXPECT_EQ(file, coded[k++]);
            }
    }
    IMG_delete_bitmap(h);
}

// A raw fax of type 2: EOLs and tag bits on the first two rows only.
TEST_F(Ccitt, RawFaxTypeTwoThroughThePublicCall)
{
    auto data = Pack(kEol + "1" + W(3) + B(2) + W(15) + kEol + "0" + kV0 + kVR1 + kV0 + kVL1 + kVL2 + kV0);
    int32_t h = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 20, 3, 2, 1);
    ASSERT_GE(h, 0);
    Raster r = ImageRgb(h);
    IMG_delete_bitmap(h);
    std::string black;
    for (size_t i = 0; i < r.rgb.size(); i += 3)
        black += r.rgb[i] ? "" : std::to_string(i / 3 / 20) + ":" + std::to_string(i / 3 % 20) + " ";
    EXPECT_EQ(black, "0:3 0:4 1:3 1:4 1:5 2:2 2:3 ");
}

TEST_F(Ccitt, NegativeSinkResultStopsEveryDecoder)
{
    std::string g3 = kEol + "1" + W(20) + kEol + "1" + W(20);
    const std::pair<Decoder, std::string> cases[] = {{k1D, W(20) + W(20) + W(20)}, {k2D, g3}, {kG4, kG4Rows}};
    for (auto &cs : cases) {
        Capture c;
        c.failAt = 0;
        EXPECT_EQ(Decode(cs.first, Pack(cs.second), Params(20, 3, cs.first == k1D ? 2 : cs.first == k2D ? 45 : 4), 3, 0, c), -77);
        EXPECT_EQ(c.records.size(), 1u);
    }
}

// Every record a decoder gives for damaged data stays inside the row.
int CheckingSink(const uint8_t *row, void *context, int, int rowBytes)
{
    int width = *static_cast<int *>(context);
    std::vector<uint16_t> w((size_t)rowBytes / 2);
    std::memcpy(w.data(), row, w.size() * 2);
    EXPECT_EQ(w[0], rowBytes);
    for (size_t i = 2; i < w.size(); i++)
        EXPECT_LE(w[i - 1], w[i]) << "changes decrease";
    for (size_t i = 1; i < w.size(); i++)
        EXPECT_LE(w[i], width + 1);
    return 0;
}

TEST_F(Ccitt, DamagedStreamsKeepChangesInsideTheRow)
{
    uint32_t seed = 12345;
    std::string zeroRuns;
    for (int i = 0; i < 5000; i++) zeroRuns += W(0) + B(0);
    for (int trial = 0; trial < 40; trial++) {
        std::vector<uint8_t> data(1 + trial * 97);
        for (auto &b : data) {
            seed = seed * 1103515245u + 12345u;
            b = (uint8_t)(seed >> 16) & (trial % 3 ? 0xFF : 0x11);
        }
        if (trial == 0) data = Pack(zeroRuns + W(4));
        int width = trial ? 1 + (trial * 37) % 300 : 4;
        for (Decoder d : {k1D, k2D, kG4}) {
            int mode = d == k1D ? (trial % 2 ? 3 : 2) : d == k2D ? (trial % 2 ? 45 : 7) : 4;
            ImgSetMemorySourceSized(data.data(), (uint32_t)data.size());
            std::vector<uint8_t> buffer(CCITT_CHUNK + 300);
            CcittParameters p = Params(width, 50, mode, 1 + trial % 2, trial % 4 != 0);
            auto f = d == k1D ? CcittDecode1D : d == k2D ? CcittDecode2D : CcittDecodeG4;
            int result = f(buffer.data(), 50, 0, &p, IMG_MEMORY_HANDLE, CheckingSink, &width);
            EXPECT_TRUE(result == 0 || result == IMG_ERR_INVALID) << result;
        }
    }
}
} // namespace
