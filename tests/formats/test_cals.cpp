// The CALS reader over headers built here, and the writer's fixed header.
#include <map>
#include "support/support.h"

namespace {
using Records = std::map<int, std::string>;
const Records kSize = {{0, "srcdocid: NONE"}, {8, "rpelcnt: 000040,000010"}, {9, "rdensty: 0300"}};
Records With(Records r, int index, const std::string &text) { r[index] = text; return r; }

// The records padded with spaces, then `body` bytes of V0 codes (one bit per white row).
std::vector<uint8_t> Build(const Records &records, size_t body)
{
    std::vector<uint8_t> f(2048, ' ');
    for (const auto &[index, text] : records)
        std::copy(text.begin(), text.end(), f.begin() + index * 128);
    f.insert(f.end(), body, 0xFF);
    return f;
}
struct Seen { int32_t width = 0, height = 0, dpi = -1, rows = 0; };
int Read(std::vector<uint8_t> bytes, Seen *seen, uint32_t start = 0)
{
    ImgSetMemorySourceSized(bytes.data(), (uint32_t)bytes.size());
    auto header = [](const uint8_t *h, void *s) {
        *static_cast<Seen *>(s) = {(int32_t)GetLE32(h + 4), (int32_t)GetLE32(h + 8), (int32_t)GetLE32(h + 24), 0};
        return GetLE32(h + 24) == GetLE32(h + 28) ? 1 : -99;
    };
    int result = CalsRead(start, [](const uint8_t *, void *s, int, int) { static_cast<Seen *>(s)->rows++; return 0; },
                          seen, header, IMG_MEMORY_HANDLE);
    ImgSetMemorySource(nullptr);
    return result;
}

using CalsFormat = TrnwTest;
TEST_F(CalsFormat, ReaderHeaders)
{
    struct Case { const char *name; Records records; size_t body; int result, width = 0, height = 0, dpi = 0; uint32_t start = 0; };
    const Case cases[] = {
        {"record 8", With(kSize, 8, "rpelcnt: 002550,003300"), 413, 0, 2550, 3300, 300},
        {"record 7 when record 8 has no comma", {{7, "rpelcnt: 000040,000010"}, {8, "rpelcnt: none"}}, 2, 0, 40, 10, 0},
        {"three-digit density reads from its second digit", With(kSize, 9, "rdensty: 200"), 2, 0, 40, 10, 0},
        {"density field all digits", With(kSize, 9, "rdensty: " + std::string(31, '7')), 2, 0, 40, 10, 0},
        {"spaces skipped, other bytes add as digits; the height ends at one", With(kSize, 8, "rpelcnt:  1 : ,  5;"), 1, 0, 20, 5, 300},
        {"no comma in records 8 and 7", With(kSize, 8, "rpelcnt: 40 10"), 2, IMG_ERR_INVALID},
        {"height digits run to the end", With(kSize, 8, "rpelcnt: 40," + std::string(27, '1')), 2, IMG_ERR_INVALID},
        {"width 65535", With(kSize, 8, "rpelcnt: 65535,10 "), 2, IMG_ERR_INVALID},
        {"negative width", With(kSize, 8, "rpelcnt: -5,10 "), 2, IMG_ERR_INVALID}, // '-' adds -3: -25
        {"height of 20 digits", With(kSize, 8, "rpelcnt: 40,99999999999999999999 "), 2, IMG_ERR_INVALID},
        {"huge height over a short body", With(kSize, 8, "rpelcnt: 8,999999999 "), 2, IMG_ERR_READ},
        {"body ends before the last row", kSize, 1, IMG_ERR_READ},
        {"page request", kSize, 2, IMG_ERR_INVALID, 0, 0, 0, IMG_PAGE_FLAG | 1},
    };
    for (const Case &c : cases) {
        Seen seen;
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Read(Build(c.records, c.body), &seen, c.start), c.result);
        std::vector<int> expected = {c.width, c.height, c.dpi, c.height}, got = {seen.width, seen.height, seen.dpi, seen.rows};
        EXPECT_EQ(c.result < 0 ? expected : got, expected);
    }
}

// The writer's records byte for byte for a 1728 x 2200 page, read back to the
// same pixels at density 0.
TEST_F(CalsFormat, Writer)
{
    Picture page = MakePicture(1728, 2200, 1, 18);
    int32_t h = ImageOf(page);
    std::vector<uint8_t> file(8 << 20);
    file.resize((size_t)std::max(IMG_save_bitmap_mem_size(h, file.data(), (uint32_t)file.size(), IMG_TYPE_CALS), 0));
    std::string expected; // 16 records of 128 bytes, the file size checked with it
    for (std::string r : {"srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE", "srcgph: NONE",
                          "doccls: NONE", "rtype: 1", "rorient: 000,270", "rpelcnt: 001728,002200",
                          "rdensty: 200", "notes: NONE", "", "", "", "", ""})
        expected += r + std::string(128 - r.size(), ' ');
    ASSERT_EQ(std::string(file.begin(), file.begin() + std::min<size_t>(file.size(), 2048)), expected);
    Seen seen;
    EXPECT_EQ(Read(file, &seen) + seen.dpi, 0);
    EXPECT_EQ(RasterDiff(DecodeMemory(file), page.Rgb()), 0);
}
} // namespace
