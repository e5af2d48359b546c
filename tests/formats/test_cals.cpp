// The CALS reader over headers built here (where it finds the size and the
// density, how it reads numbers, which headers and bodies it refuses) and
// the CALS writer's header, depth check and short write.
#include "support/support.h"

#include <map>

namespace {

using Records = std::map<int, std::string>;

// Sixteen 128-byte records of spaces with the given texts at their starts,
// then `body` bytes of 0xFF: Group 4 V0 codes, one bit per all-white row.
std::vector<uint8_t> Build(const Records &records, size_t body)
{
    std::vector<uint8_t> f(2048, ' ');
    for (const auto &[index, text] : records)
        std::copy(text.begin(), text.end(), f.begin() + index * 128);
    f.insert(f.end(), body, 0xFF);
    return f;
}

struct Seen {
    int32_t width = -1, height = -1, xDpi = -1, yDpi = -1, rows = 0;
};

int Header(const uint8_t *h, void *context)
{
    Seen *s = static_cast<Seen *>(context);
    s->width = (int32_t)GetLE32(h + 4), s->height = (int32_t)GetLE32(h + 8);
    s->xDpi = (int32_t)GetLE32(h + 24), s->yDpi = (int32_t)GetLE32(h + 28);
    return 1;
}

int Row(const uint8_t *, void *context, int, int)
{
    static_cast<Seen *>(context)->rows++;
    return 0;
}

// CalsRead over the bytes from `start`, as a memory image.
int Read(std::vector<uint8_t> bytes, Seen *seen, uint32_t start = 0)
{
    ImgSetMemorySourceSized(bytes.data(), (uint32_t)bytes.size());
    ImgSeek(IMG_MEMORY_HANDLE, (int32_t)start, 0);
    int result = CalsRead(start, Row, seen, Header, IMG_MEMORY_HANDLE);
    ImgSetMemorySource(nullptr);
    return result;
}

struct ReadCase {
    const char *name;
    Records records;
    size_t body;
    int result, width = 0, height = 0, dpi = 0;
    uint32_t start = 0;
};

const Records kSize = {{0, "srcdocid: NONE"}, {8, "rpelcnt: 000040,000010"}, {9, "rdensty: 0300"}};

Records With(Records r, int index, const std::string &text)
{
    r[index] = text;
    return r;
}

std::vector<ReadCase> ReadCases()
{
    const std::string allDigits(31, '7'); // bytes 9 .. 39 of record 9
    return {
        {"record 8", With(kSize, 8, "rpelcnt: 002550,003300"), 413, 0, 2550, 3300, 300},
        {"record 7 when record 8 has no comma", {{7, "rpelcnt: 000040,000010"}, {8, "rpelcnt: none"}}, 2, 0, 40, 10, 0},
        {"record 8 before record 7", With(kSize, 7, "rorient: 000,270"), 2, 0, 40, 10, 300},
        {"three-digit density reads from its second digit", With(kSize, 9, "rdensty: 200"), 2, 0, 40, 10, 0},
        {"four-digit density", With(kSize, 9, "rdensty: 1200"), 2, 0, 40, 10, 200},
        {"density field all digits", With(kSize, 9, "rdensty: " + allDigits), 2, 0, 40, 10, 0},
        {"spaces skipped in both numbers", With(kSize, 8, "rpelcnt:  4 0 ,   10 "), 2, 0, 40, 10, 300},
        {"any character adds as a digit", With(kSize, 8, "rpelcnt: 1:,5 "), 1, 0, 20, 5, 300}, // ':' is 10
        {"widest the decoder takes", With(kSize, 8, "rpelcnt: 65534,2 "), 1, 0, 65534, 2, 300},
        {"at a start offset", kSize, 2, 0, 40, 10, 300, 100},
        {"no comma in records 8 and 7", With(With(kSize, 7, "rorient: 000 270"), 8, "rpelcnt: 40 10"), 2, IMG_ERR_INVALID},
        {"height digits run to the end", With(kSize, 8, "rpelcnt: 40," + std::string(27, '1')), 2, IMG_ERR_INVALID},
        {"no height digits", With(kSize, 8, "rpelcnt: 40,x"), 2, IMG_ERR_INVALID},
        {"width 0", With(kSize, 8, "rpelcnt: 0,10 "), 2, IMG_ERR_INVALID},
        {"width 65535", With(kSize, 8, "rpelcnt: 65535,10 "), 2, IMG_ERR_INVALID},
        {"negative width", With(kSize, 8, "rpelcnt: -5,10 "), 2, IMG_ERR_INVALID}, // '-' is -3: -25
        {"width of 20 digits", With(kSize, 8, "rpelcnt: 99999999999999999999,10 "), 2, IMG_ERR_INVALID},
        {"height of 20 digits", With(kSize, 8, "rpelcnt: 40,99999999999999999999 "), 2, IMG_ERR_INVALID},
        {"huge height over a short body", With(kSize, 8, "rpelcnt: 8,999999999 "), 2, IMG_ERR_READ},
        {"body ends before the last row", kSize, 1, IMG_ERR_READ},
        {"page request", kSize, 2, IMG_ERR_INVALID, 0, 0, 0, IMG_PAGE_FLAG | 1},
    };
}

using CalsFormat = TrnwTest;

TEST_F(CalsFormat, ReaderHeaders)
{
    for (const ReadCase &c : ReadCases()) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> file = Build(c.records, c.body);
        if (c.start && c.start < 1000)
            file.insert(file.begin(), c.start, 'x');
        Seen seen;
        EXPECT_EQ(Read(file, &seen, c.start), c.result);
        if (c.result == 0) {
            EXPECT_EQ(seen.width, c.width);
            EXPECT_EQ(seen.height, c.height);
            EXPECT_EQ(seen.xDpi, c.dpi);
            EXPECT_EQ(seen.yDpi, c.dpi);
            EXPECT_EQ(seen.rows, c.height);
        }
    }
}

// Files cut short: inside record 8's value (the height digits reach the
// end) and right after the header (no body; in a memory image the bytes past
// its end read as 0, a white page).
TEST_F(CalsFormat, CutFiles)
{
    std::vector<uint8_t> file = Build(kSize, 0);
    std::string path = TempPath("cut.cal");
    for (size_t size : {size_t(2048), size_t(1024 + 9 + 10)}) {
        SCOPED_TRACE(size);
        file.resize(size);
        ASSERT_TRUE(WriteFile(path, file));
        int32_t status = 0;
        DecodeFile(path, &status);
        EXPECT_EQ(status, size == 2048 ? IMG_ERR_READ : IMG_ERR_INVALID);
    }
    std::remove(path.c_str());
}

// The writer's eleven records and five blank ones, byte for byte, for a
// 1728 x 2200 page; the file reads back to the same pixels, density 0.
TEST_F(CalsFormat, WriterHeaderReadsBack)
{
    Picture page = MakePicture(1728, 2200, 1, 18);
    int32_t h = ImageOf(page);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> file(8 << 20);
    int32_t size = IMG_save_bitmap_mem_size(h, file.data(), (uint32_t)file.size(), IMG_TYPE_CALS);
    ASSERT_GT(size, 2048);
    file.resize((size_t)size);
    const char *texts[] = {"srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE",
                           "srcgph: NONE",   "doccls: NONE",   "rtype: 1",       "rorient: 000,270",
                           "rpelcnt: 001728,002200", "rdensty: 200", "notes: NONE"};
    std::string expected;
    for (int r = 0; r < 16; r++) {
        std::string record = r < 11 ? texts[r] : "";
        expected += record + std::string(128 - record.size(), ' ');
    }
    EXPECT_EQ(std::string(file.begin(), file.begin() + 2048), expected);
    Seen seen;
    EXPECT_EQ(Read(file, &seen), 0);
    EXPECT_EQ(seen.xDpi, 0);
    EXPECT_EQ(seen.rows, 2200);
    int32_t status = 0;
    EXPECT_EQ(RasterDiff(DecodeMemory(file, &status), page.Rgb()), 0) << status;
}

TEST_F(CalsFormat, WriterRefusals)
{
    struct Case {
        int bits;
        uint32_t room;
        int32_t result;
    } cases[] = {{4, 1 << 16, IMG_ERR_DEPTH}, {8, 1 << 16, IMG_ERR_DEPTH}, {1, 2000, IMG_ERR_WRITE}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        int32_t h = ImageOf(MakePicture(20, 5, c.bits, 3));
        ASSERT_GE(h, 0);
        std::vector<uint8_t> memory(c.room);
        EXPECT_EQ(IMG_save_bitmap_mem_size(h, memory.data(), c.room, IMG_TYPE_CALS), c.result);
        IMG_delete_bitmap(h);
    }
}

} // namespace
