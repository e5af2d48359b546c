// TIFF LZW (early change) and the PackBits row encoder: code strings built
// here bit by bit, exact encoder output worked out from the code widths, and
// round trips over inputs that cross every width switch and the table reset.
#include "support/support.h"

namespace {
// Codes packed most significant bit first.
struct Bits {
    std::vector<uint8_t> bytes;
    uint64_t n = 0;
    Bits &Put(uint32_t code, int width)
    {
        for (int i = width - 1; i >= 0; i--, n++) {
            if (n % 8 == 0) bytes.push_back(0);
            if (code >> i & 1) bytes.back() |= (uint8_t)(0x80 >> (n % 8));
        }
        return *this;
    }
};
uint32_t BitsAt(const std::vector<uint8_t> &b, uint64_t at, int width)
{
    uint32_t v = 0;
    for (int i = 0; i < width; i++, at++)
        v = v << 1 | (b[at / 8] >> (7 - at % 8) & 1);
    return v;
}
// The decoder's code width with `nextFree` the next free entry: one code
// early, 10 bits from entry 511 on, 11 from 1023, 12 from 2047.
int EarlyWidth(int nextFree) { return nextFree < 511 ? 9 : nextFree < 1023 ? 10 : nextFree < 2047 ? 11 : 12; }
// Clear, then `count` single-byte codes (each after the first makes an
// entry), then End; `late` switches widths one code late.
Bits Literals(int count, bool late = false)
{
    Bits w;
    w.Put(256, 9);
    int next = 258;
    for (int k = 1; k <= count; k++) {
        w.Put((uint8_t)(k * 7), late ? EarlyWidth(next - 1) : EarlyWidth(next));
        next += k >= 2;
    }
    return w.Put(257, late ? EarlyWidth(next - 1) : EarlyWidth(next));
}

struct Rows {
    std::vector<std::vector<uint8_t>> rows;
    std::vector<int> index;
    int failAt = -1;
    std::vector<uint8_t> All() const // every row, one after another
    {
        std::vector<uint8_t> a;
        for (auto &r : rows) a.insert(a.end(), r.begin(), r.end());
        return a;
    }
};
int Adapter(uint8_t *row, int rowIndex, int rowBytes, void *context)
{
    auto *c = static_cast<Rows *>(context);
    if ((int)c->rows.size() == c->failAt) return -5;
    c->rows.emplace_back(row, row + rowBytes);
    c->index.push_back(rowIndex);
    return 0;
}

class Lzw : public TrnwTest {
  protected:
    void SetUp() override { TrnwTest::SetUp(); ASSERT_EQ(LzwBeginImage(), 0); }
    void TearDown() override { LzwEndImage(); TrnwTest::TearDown(); }
    int Decode(std::vector<uint8_t> stream, int rowBytes, int rowCount, Rows &c, int outputSize = 0, int first = 0)
    {
        memory = stream;
        ImgSetMemorySourceSized(memory.data(), (uint32_t)memory.size());
        std::vector<uint8_t> coded(LZW_CODED_BUFFER_SIZE), out((size_t)(outputSize ? outputSize : 10 * rowBytes) + 64);
        return LzwDecodeStrip(IMG_MEMORY_HANDLE, coded.data(), first, rowBytes, out.data(),
                              outputSize ? outputSize : 10 * rowBytes, rowCount, Adapter, &c);
    }
    int Encode(const std::vector<uint8_t> &data, int rowBytes, std::vector<uint8_t> &stream)
    {
        struct Src { const std::vector<uint8_t> *d; int rb; } src{&data, rowBytes};
        auto rowSource = [](void *ctx, uint8_t *buf, int row, int n) {
            auto *s = static_cast<Src *>(ctx);
            std::memcpy(buf, s->d->data() + (size_t)row * s->rb, (size_t)n);
            return 0;
        };
        std::vector<uint8_t> header(40, 0);
        int rows = (int)(data.size() / rowBytes);
        PutLE32(&header[0], 40), PutLE32(&header[4], (uint32_t)rowBytes), PutLE32(&header[8], (uint32_t)rows);
        header[12] = 1, header[14] = 8;
        std::vector<uint8_t> sink(data.size() * 2 + 64);
        ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
        int r = LzwEncodeStrip(IMG_MEMORY_HANDLE, header.data(), rowSource, &src, 0, rows);
        stream.assign(sink.begin(), sink.begin() + ImgTell());
        return r;
    }
    std::vector<uint8_t> memory;
};

struct CodeCase { const char *name; std::vector<uint32_t> codes; /* 9 bits each */ int rowBytes, rowCount, result; std::string bytes; };
const CodeCase kCodeCases[] = {
    {"first code not Clear", {65, 257}, 1, 1, -3, ""},
    {"first code from the table", {258, 257}, 1, 1, -3, ""},
    {"KwKwK", {256, 65, 66, 258, 260, 257}, 7, 1, 1, "ABABABA"},
    {"KwKwK after the first code", {256, 65, 258, 259, 257}, 6, 1, 1, "AAAAAA"},
    {"Clear restarts the table", {256, 65, 66, 258, 256, 67, 258, 257}, 7, 1, 1, "ABABCCC"},
    {"code above the next free", {256, 65, 66, 260, 257}, 100, 1, -3, ""},
    {"complete strip ignores what follows", {256, 1, 2, 3, 4, 511, 511}, 2, 2, 1, "\1\2\3\4"},
    // The end before the last row: rows go out as the buffer stands, the
    // surplus "e" moved to its front.
    {"End before the rows are full", {256, 'a', 'b', 'c', 'd', 'e', 257}, 4, 3, 1, "abcdebcdebcd"},
    {"End right after Clear", {256, 257}, 2, 3, 1, std::string(6, '\0')},
};

TEST_F(Lzw, CodeStringsDecode)
{
    for (const CodeCase &t : kCodeCases) {
        SCOPED_TRACE(t.name);
        Bits w;
        for (uint32_t c : t.codes) w.Put(c, 9);
        Rows c;
        ASSERT_EQ(Decode(w.bytes, t.rowBytes, t.rowCount, c, 0, 10), t.result);
        if (t.result < 0) continue;
        EXPECT_EQ(c.rows.size(), (size_t)t.rowCount);
        EXPECT_EQ(c.index.front(), 10);
        std::vector<uint8_t> all = c.All();
        EXPECT_EQ(std::string(all.begin(), all.end()), t.bytes);
    }
}

TEST_F(Lzw, WidthsSwitchOneCodeEarly)
{
    // Code k >= 2 makes entry 256 + k; entry 510 is made by code 254, so code
    // 255 is the first of 10 bits, at bit 9 + 254 * 9 = 2295; code 767 at
    // 2295 + 512 * 10 = 7415 (11 bits); code 1791 at 7415 + 1024 * 11 = 18679.
    Bits w = Literals(2000);
    ASSERT_EQ(BitsAt(w.bytes, 2295, 10), (uint8_t)(255 * 7));
    ASSERT_EQ(BitsAt(w.bytes, 18679, 12), (uint8_t)(1791 * 7));
    std::vector<uint8_t> expected;
    for (int k = 1; k <= 2000; k++) expected.push_back((uint8_t)(k * 7));
    Rows c, late;
    ASSERT_EQ(Decode(w.bytes, 100, 20, c), 1);
    EXPECT_EQ(c.All(), expected);
    int r = Decode(Literals(2000, true).bytes, 100, 20, late);
    EXPECT_TRUE(r < 0 || late.All() != expected);
    // Without a Clear the 4406th code would need entry 4662, past the block.
    Rows full, over;
    EXPECT_EQ(Decode(Literals(4405).bytes, 1000, 100, full), 1);
    EXPECT_EQ(Decode(Literals(4406).bytes, 1000, 100, over), -3);
}

TEST_F(Lzw, DecoderFailures)
{
    Bits w = Literals(4);
    Rows a;
    a.failAt = 1;
    EXPECT_EQ(Decode(w.Put(0, 16).bytes, 2, 2, a), -5); // the adapter's result
    EXPECT_EQ(a.rows.size(), 1u);
    // A file that ends inside the strip.
    std::vector<uint8_t> cut = Bits().Put(256, 9).Put(1, 9).Put(2, 9).bytes;
    std::string path = TempPath("lzw_cut.bin");
    ASSERT_TRUE(WriteFile(path, cut));
    int handle = ImgOpen(path.c_str(), 0);
    ASSERT_GE(handle, 0);
    std::vector<uint8_t> coded(LZW_CODED_BUFFER_SIZE), out(1000);
    Rows b;
    EXPECT_EQ(LzwDecodeStrip(handle, coded.data(), 0, 100, out.data(), 400, 1, Adapter, &b), -12);
    ImgClose(handle);
    ImgDelete(path.c_str());
    LzwEndImage();
    Rows c;
    EXPECT_EQ(Decode(Literals(3).bytes, 3, 1, c), -1); // no entry block
    ASSERT_EQ(LzwBeginImage(), 0);
    // Strings of 1..44 zero bytes (990) into an output of one 3-byte row.
    Bits z;
    z.Put(256, 9).Put(0, 9);
    for (uint32_t code = 258; code <= 300; code++) z.Put(code, 9);
    Rows d;
    ASSERT_EQ(Decode(z.Put(257, 9).bytes, 3, 330, d, 3), 1);
    EXPECT_EQ(d.All(), std::vector<uint8_t>(990, 0));
}

TEST_F(Lzw, EncoderCodesAndWidths)
{
    // "AAAA": Clear, 'A' (258 = AA), 258 (259 = AAA), 'A', End: 45 bits.
    std::vector<uint8_t> s;
    ASSERT_EQ(Encode({65, 65, 65, 65}, 4, s), 0);
    EXPECT_EQ(s, Bits().Put(256, 9).Put(65, 9).Put(258, 9).Put(65, 9).Put(257, 9).bytes);
    // 254 distinct bytes: codes 1..253 make 258..510; the last code goes out
    // at 9 bits, then the width grows and End takes 10 bits, at bit 2295.
    std::vector<uint8_t> ramp(254);
    for (int i = 0; i < 254; i++) ramp[(size_t)i] = (uint8_t)i;
    ASSERT_EQ(Encode(ramp, 254, s), 0);
    EXPECT_EQ(BitsAt(s, 2295, 10), 257u);
    EXPECT_EQ(s.size(), (2295u + 10 + 7) / 8);
    // Noise makes one entry per code: code 3822 makes 4079, and Clear follows
    // at 12 bits at 9 + 254*9 + 512*10 + 1024*11 + 2032*12 = 43063.
    std::vector<uint8_t> noise(20000);
    uint32_t seed = 1;
    for (auto &b : noise) b = (uint8_t)((seed = seed * 1103515245u + 12345u) >> 16);
    ASSERT_EQ(Encode(noise, 1000, s), 0);
    EXPECT_EQ(BitsAt(s, 9, 9), noise[0]);
    EXPECT_NE(BitsAt(s, 43063 - 12, 12), 256u);
    EXPECT_EQ(BitsAt(s, 43063, 12), 256u);
    EXPECT_LT(BitsAt(s, 43075, 9), 256u);
}

TEST_F(Lzw, RoundTrips)
{
    uint32_t seed = 7;
    auto rnd = [&] { return (seed = seed * 1103515245u + 12345u) >> 16; };
    struct { const char *name; int rowBytes; std::vector<uint8_t> data; } cases[] = {
        {"one byte", 1, {9}}, {"long run", 500, std::vector<uint8_t>(5000, 0x42)},
        {"510 distinct pairs", 510, {}}, {"1023 bytes", 1023, {}}, {"noise past several Clears", 997, {}},
        {"short runs", 300, {}}, {"string at the buffer end", 4, {}},
    };
    for (int i = 0; i < 510; i++) cases[2].data.push_back((uint8_t)(i * 3 + i / 256));
    for (int i = 0; i < 1023 * 4; i++) cases[3].data.push_back((uint8_t)(i % 251));
    for (int i = 0; i < 997 * 40; i++) cases[4].data.push_back((uint8_t)rnd());
    while (cases[5].data.size() < 300 * 30) cases[5].data.insert(cases[5].data.end(), 1 + rnd() % 9, (uint8_t)(rnd() % 3));
    cases[5].data.resize(300 * 30);
    for (int i = 0; i < 4 * 2000; i++) cases[6].data.push_back((uint8_t)(i % 5 == 0));
    for (auto &t : cases) {
        SCOPED_TRACE(t.name);
        std::vector<uint8_t> s;
        ASSERT_EQ(Encode(t.data, t.rowBytes, s), 0);
        Rows c;
        ASSERT_EQ(Decode(s, t.rowBytes, (int)(t.data.size() / t.rowBytes), c), 1);
        EXPECT_EQ(c.All(), t.data);
    }
}

// ---- PackBits ----

std::vector<uint8_t> PackRow(const std::vector<uint8_t> &row, uint8_t slack0 = 0xA5, uint8_t slack1 = 0x5A)
{
    std::vector<uint8_t> buffer(row);
    buffer.push_back(slack0);
    buffer.push_back(slack1);
    std::vector<uint8_t> sink(row.size() * 4 + 16, 0);
    ImgSetMemorySourceSized(sink.data(), (uint32_t)sink.size());
    EXPECT_EQ(PackBitsEncodeRow(IMG_MEMORY_HANDLE, buffer.data(), (int32_t)row.size()), 0);
    return std::vector<uint8_t>(sink.begin(), sink.begin() + ImgTell());
}
// The TIFF 6.0 PackBits decoding (128 is a no-op); a header 128 fails.
std::vector<uint8_t> Unpack(const std::vector<uint8_t> &in)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i < in.size();) {
        int n = (int8_t)in[i++];
        EXPECT_NE(n, -128);
        if (n >= 0) out.insert(out.end(), in.begin() + (long)i, in.begin() + (long)i + n + 1), i += (size_t)n + 1;
        else out.insert(out.end(), (size_t)(1 - n), in[i++]);
    }
    return out;
}

class PackBits : public TrnwTest {};

TEST_F(PackBits, RowsEncodeToTheseBytes)
{
    std::vector<uint8_t> alternating;
    for (int i = 0; i < 300; i++) alternating.push_back(i % 2 ? 0x11 : 0x22);
    struct { const char *name; std::string row; std::vector<uint8_t> out; uint8_t slack = 0xA5; } cases[] = {
        // 127 + 127 + 46: headers 1 - 127 = 0x82 and 1 - 46 = 0xD3.
        {"300 equal bytes", std::string(300, '<'), {0x82, '<', 0x82, '<', 0xD3, '<'}},
        {"pair before a different byte", "AABC", {3, 'A', 'A', 'B', 'C'}},
        {"pair inside a literal", "XAAYZW", {0, 'X', 4, 'A', 'A', 'Y', 'Z', 'W'}},
        {"literal stops before a run", "ABCCCCD", {1, 'A', 'B', 0xFD, 'C', 0, 'D'}},
        {"no repeat from the last three", "ABCCC", {1, 'A', 'B', 0, 'C', 1, 'C', 'C'}},
        {"four equal", "CCCC", {0xFD, 'C'}},
        {"slack equal to the last byte", "AA", {0, 'A', 0, 'A'}, 'A'},
        {"slack different", "AA", {1, 'A', 'A'}, 'Q'},
    };
    for (auto &t : cases) {
        SCOPED_TRACE(t.name);
        EXPECT_EQ(PackRow(std::vector<uint8_t>(t.row.begin(), t.row.end()), t.slack, t.slack), t.out);
    }
    std::vector<uint8_t> lit = PackRow(alternating); // literals of 127, 127, 46
    ASSERT_EQ(lit.size(), 303u);
    EXPECT_EQ((std::vector<int>{lit[0], lit[128], lit[256]}), (std::vector<int>{126, 126, 45}));
    uint32_t seed = 12345;
    for (int trial = 0; trial < 200; trial++) {
        std::vector<uint8_t> row;
        size_t n = 1 + trial * 7 % 600;
        while (row.size() < n) {
            seed = seed * 1103515245u + 12345u;
            size_t run = (seed >> 16) % 6 == 0 ? (seed >> 8) % 300 : 1;
            row.insert(row.end(), std::min(run, n - row.size()), (uint8_t)((seed >> 20) % 4));
        }
        ASSERT_EQ(Unpack(PackRow(row)), row) << trial;
    }
}

} // namespace
