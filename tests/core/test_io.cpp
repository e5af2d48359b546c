/* The I/O layer: the memory image, caller I/O, files by name, the scratch
 * file, the allocators and the bitmap name texts.  The memory image's size is
 * observed through a seek from its end and ImgTell(). */
#include "support/support.h"

#include <algorithm>
#include <cctype>
#include <tuple>

namespace {

const int kMem = IMG_MEMORY_HANDLE; // 32767

// A buffer of `n` bytes holding 0, 1, 2, ... (mod 256).
std::vector<uint8_t> Pattern(size_t n, uint8_t start = 0)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; i++)
        v[i] = (uint8_t)(start + i);
    return v;
}

// The memory image's size, found by a whence-2 seek (the position is restored).
uint32_t MemoryImageSize()
{
    uint32_t saved = ImgTell();
    EXPECT_EQ(ImgSeek(kMem, 0, 2), 0);
    uint32_t size = ImgTell();
    ImgSeek(kMem, (int32_t)saved, 0);
    return size;
}

} // namespace

/* ---- caller I/O: recording functions of the C convention ---- */

// The last call of each kind: handle, buffer (or offset) and count (or whence).
struct Call {
    int calls = 0;
    int32_t handle = -1, count = -1, result = 0;
    const void *buffer = nullptr;
    int32_t Record(int32_t h, const void *b, int32_t c)
    {
        calls++, handle = h, buffer = b, count = c;
        return result;
    }
};
static Call g_read, g_write, g_seek;

extern "C" int32_t IMGCDECL RecordRead(int32_t h, void *b, int32_t n) { return g_read.Record(h, b, n); }
extern "C" int32_t IMGCDECL RecordWrite(int32_t h, void *b, int32_t n) { return g_write.Record(h, b, n); }
extern "C" int32_t IMGCDECL RecordSeek(int32_t h, int32_t offset, int32_t whence)
{
    return g_seek.Record(h, reinterpret_cast<const void *>((intptr_t)offset), whence);
}

class CallerIo : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
        g_read = g_write = g_seek = Call();
    }
};
class Io : public TrnwTest {};

// Reads copy min(count, size - position) bytes and move the position; at or
// past the end a read claims the whole count and copies nothing.  The size is
// the allocator's block size, or the size given, even where more memory is
// readable behind it; a whence-2 seek counts from that end.
TEST_F(Io, MemoryImageReadsStopAtTheImageSize)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> pattern = Pattern(200);
    std::memcpy(block, pattern.data(), 100);
    const struct {
        bool sized;
        int32_t offset, whence, count, expected, first;
        uint32_t end;
    } cases[] = {
        {false, 95, 0, 10, 5, 95, 100}, {false, 100, 0, 10, 10, -1, 100}, {false, -4, 2, 10, 4, 96, 100},
        {true, 45, 0, 10, 5, 45, 50},   {true, 50, 0, 3, 3, -1, 50},      {true, -10, 2, 4, 4, 40, 44},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + " whence " + std::to_string(c.whence) + (c.sized ? " sized" : ""));
        if (c.sized)
            ImgSetMemorySourceSized(pattern.data(), 50);
        else
            ImgSetMemorySource(block);
        EXPECT_EQ(MemoryImageSize(), c.sized ? 50u : 100u);
        EXPECT_EQ(ImgSeek(kMem, c.offset, c.whence), 0) << "a memory seek returns 0";
        uint8_t out[12];
        std::memset(out, 0xAA, sizeof out);
        EXPECT_EQ(ImgRead(kMem, out, c.count), c.expected);
        int copied = c.first < 0 ? 0 : c.expected;
        for (int i = 0; i < 12; i++)
            EXPECT_EQ(out[i], i < copied ? (uint8_t)(c.first + i) : 0xAA) << "byte " << i;
        EXPECT_EQ(ImgTell(), c.end);
    }
    ImgFree(block);
}

// The caller's functions get the same arguments for every handle, the memory
// image and real files alike, and their results come back unchanged; the
// memory image and the file are left alone.
// Freed large blocks are handed out again.  Whatever memory a block gets, the
// memory image sees the size asked for, and a resize keeps the contents up to
// the smaller size: in place, into a kept block, or through realloc.
TEST_F(Io, ReusedBlocksKeepTheAskedSizeAndTheContents)
{
    std::vector<uint8_t> pattern = Pattern(6u << 20);
    ImgFree(ImgAlloc(4u << 20));
    size_t filled = 300u << 10;
    uint8_t *p = static_cast<uint8_t *>(ImgAlloc(filled));
    ASSERT_NE(p, nullptr);
    std::memcpy(p, pattern.data(), filled);
    const struct {
        size_t size;
        bool freeLargeFirst;
    } steps[] = {{2u << 20, false}, {6u << 20, true}, {100, false}, {5u << 20, false}};
    for (const auto &step : steps) {
        SCOPED_TRACE(step.size);
        if (step.freeLargeFirst)
            ImgFree(ImgAlloc(8u << 20));
        p = static_cast<uint8_t *>(ImgRealloc(p, step.size));
        ASSERT_NE(p, nullptr);
        ImgSetMemorySource(p);
        EXPECT_EQ(MemoryImageSize(), step.size);
        size_t kept = std::min(filled, step.size);
        EXPECT_EQ(std::memcmp(p, pattern.data(), kept), 0);
        std::memcpy(p, pattern.data(), step.size);
        filled = step.size;
    }
    ImgFree(p);
}

TEST_F(CallerIo, CallsGoToTheCallerWithTheirArgumentsForEveryHandle)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    std::string path = TempPath("callerio_file.bin");
    ASSERT_TRUE(WriteFile(path, Pattern(50)));
    int file = ImgOpen(path.c_str(), 1);
    ASSERT_NE(file, -1);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);
    uint8_t buf[32];
    std::memset(buf, 0x77, sizeof buf);
    int calls = 0;
    for (int32_t handle : {kMem, 7, (int32_t)file}) {
        SCOPED_TRACE(handle);
        calls++;
        g_read.result = handle == kMem ? 4242 : -3;
        g_write.result = 5 + handle;
        g_seek.result = 77 + handle;
        using Seen = std::tuple<int, int32_t, const void *, int32_t>; // calls, handle, buffer, count
        EXPECT_EQ(ImgRead(handle, buf + calls, 10 + calls), g_read.result);
        EXPECT_EQ(Seen(g_read.calls, g_read.handle, g_read.buffer, g_read.count), Seen(calls, handle, buf + calls, 10 + calls));
        EXPECT_EQ(ImgWrite(handle, buf, 5), 5 + handle);
        EXPECT_EQ(Seen(g_write.calls, g_write.handle, g_write.buffer, g_write.count), Seen(calls, handle, buf, 5));
        EXPECT_EQ(ImgSeek(handle, 20, 1), 77 + handle);
        EXPECT_EQ(Seen(g_seek.calls, g_seek.handle, g_seek.buffer, g_seek.count),
                  Seen(calls, handle, reinterpret_cast<const void *>((intptr_t)20), 1));
    }
    EXPECT_EQ(buf[0], 0x77) << "nothing was read into the buffer";
    EXPECT_EQ(ImgTell(), 0u) << "the memory image was not read";
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(ImgSeek(file, 0, 1), 0) << "the file's position did not move";
    ImgClose(file);
    EXPECT_EQ(ReadFile(path), Pattern(50)) << "the file was not written";
    ImgDelete(path.c_str());
}

// Mode 2 creates; the primitives write, seek (returning the new position) and read.
TEST_F(Io, CreateWriteSeekReadFile)
{
    std::string path = TempPath("create.bin");
    std::vector<uint8_t> bytes = Pattern(1234, 3);
    int h = ImgOpen(path.c_str(), 2);
    ASSERT_NE(h, -1);
    EXPECT_EQ(ImgWrite(h, bytes.data(), 1234), 1234);
    for (auto [offset, whence, position] : {std::array<int32_t, 3>{0, 1, 1234}, {100, 0, 100}, {50, 1, 150}, {-34, 2, 1200}})
        EXPECT_EQ(ImgSeek(h, offset, whence), position) << offset << " whence " << whence;
    uint8_t out[40] = {};
    EXPECT_EQ(ImgRead(h, out, 40), 34) << "only 34 bytes are left in the file";
    EXPECT_EQ(std::memcmp(out, bytes.data() + 1200, 34), 0);
    EXPECT_EQ(ImgRead(h, out, 10), 0) << "nothing is left";
    EXPECT_EQ(ImgClose(h), 0);
    EXPECT_EQ(ReadFile(path), bytes);
    EXPECT_EQ(ImgDelete(path.c_str()), 0);
    EXPECT_EQ(std::fopen(path.c_str(), "rb"), nullptr);
}

// Mode 0 writes the directory (at most 100 characters) and the "img" name,
// and creates the file, which ImgWrite can fill.
TEST_F(Io, TempFileModeZeroWritesPathAndCreatesFile)
{
    char path[IMG_TEMP_PATH_SIZE] = {};
    int h = ImgOpenTemp(path, 0);
    ASSERT_NE(h, -1);
    size_t dir = std::string(path).find_last_of("/\\") + 1; // the directory with its separator
    EXPECT_TRUE(dir > 0 && dir <= 100) << path;
    EXPECT_TRUE(std::tolower(path[dir]) == 'i' && std::tolower(path[dir + 1]) == 'm' && std::tolower(path[dir + 2]) == 'g') << path;
    EXPECT_EQ(ImgWrite(h, "scratch data", 12), 12);
    EXPECT_EQ(ImgClose(h), 0);
    EXPECT_EQ(ReadFile(path).size(), 12u);
    EXPECT_EQ(ImgDelete(path), 0);
}

// 30 slots of ordinary blocks; a 31st ImgAllocTracked gives NULL instead of
// overrunning the table and frees nothing (docs/DEVIATIONS.md).  Freeing a
// block no longer in the table does nothing; a freed slot is used again.
TEST_F(Io, TrackedThirtySlotsFreedOneByOneOrAll)
{
    std::vector<uint8_t *> blocks;
    for (int i = 0; i < IMG_TRACKED_SLOTS; i++) {
        uint8_t *p = static_cast<uint8_t *>(ImgAllocTracked(32 + (size_t)i));
        ASSERT_NE(p, nullptr) << "slot " << i;
        std::memset(p, i, 32 + (size_t)i);
        blocks.push_back(p);
    }
    EXPECT_EQ(ImgTrackedCount(), 30);
    EXPECT_EQ(ImgAllocTracked(32), nullptr);
    EXPECT_EQ(ImgTrackedCount(), 30);
    ImgFreeTracked(blocks[10]);
    EXPECT_EQ(ImgTrackedCount(), 29);
    ImgFreeTracked(blocks[10]); // no double free
    EXPECT_EQ(ImgTrackedCount(), 29);
    for (int i = 0; i < 30; i++) {
        if (i == 10)
            continue;
        EXPECT_EQ(blocks[(size_t)i][31 + i], (uint8_t)i) << "block " << i;
        ImgSetMemorySource(blocks[(size_t)i]);
        EXPECT_EQ(MemoryImageSize(), 32u + (uint32_t)i) << "block " << i << " is still live";
    }
    EXPECT_NE(ImgAllocTracked(32), nullptr);
    EXPECT_EQ(ImgTrackedCount(), 30);
    EXPECT_EQ(ImgAllocTracked(32), nullptr);
    ImgFreeAllTracked();
    EXPECT_EQ(ImgTrackedCount(), 0);
}

// Our hardening: an over-long text keeps 199 characters plus the terminator,
// an over-long date 39 (copied with a length check); those lengths fit whole.
TEST_F(Io, BitmapNameOverLongTextsAreTruncated)
{
    for (auto [textLength, dateLength] : {std::pair<size_t, size_t>{300, 100}, {199, 39}}) {
        SCOPED_TRACE(textLength);
        std::string longText(textLength, 'x'), longDate(dateLength, 'y');
        EXPECT_EQ(IMGLOW_set_bitmap_name(longText.c_str(), longDate.c_str()), 0);
        char text[400], date[400];
        std::memset(text, 0x7F, sizeof text);
        std::memset(date, 0x7F, sizeof date);
        EXPECT_EQ(IMGLOW_get_bitmap_name(text, date), 0);
        EXPECT_EQ(std::string(text), std::string(199, 'x'));
        EXPECT_EQ(std::string(date), std::string(39, 'y'));
        EXPECT_EQ(text[200], 0x7F) << "nothing is copied past the 200-byte buffer's terminator";
        EXPECT_EQ(date[40], 0x7F);
    }
}

// A random walk of seeks and reads gives, through the read-ahead block, the
// same results and bytes as the same calls on a second, plain handle; the
// expected bytes are the file's own.
TEST_F(Io, ReadAheadReadsAndSeeksMatchPlainHandle)
{
    std::string path = TempPath("readahead.bin");
    std::vector<uint8_t> bytes = Pattern(300000, 7); // several 64 KB blocks
    ASSERT_TRUE(WriteFile(path, bytes));
    int buffered = ImgOpen(path.c_str(), 0), plain = ImgOpen(path.c_str(), 0);
    ASSERT_GT(buffered, 0);
    ASSERT_GT(plain, 0);
    ImgReadAheadBegin(buffered);
    uint32_t seed = 99;
    std::vector<uint8_t> a(70000), b(70000);
    for (int step = 0; step < 2000; step++) {
        seed = seed * 1103515245u + 12345u;
        uint32_t r = seed >> 8;
        if (r % 3 == 0) {
            int32_t offset = (int32_t)(r % 310000);
            int whence = (int)(r >> 20) % 3;
            if (whence == 1)
                offset = (int32_t)(r % 20000) - 10000;
            if (whence == 2)
                offset = -(int32_t)(r % 1000);
            int32_t got = ImgSeek(buffered, offset, whence), want = ImgSeek(plain, offset, whence);
            ASSERT_EQ(got, want) << "step " << step;
            if (want < 0) { // a refused seek: both handles back to a known place
                ASSERT_EQ(ImgSeek(buffered, 0, 0), ImgSeek(plain, 0, 0));
            }
        } else {
            uint32_t count = r % 7 == 0 ? 66000 + r % 4000 : r % 12000;
            int32_t got = ImgRead(buffered, a.data(), count), want = ImgRead(plain, b.data(), count);
            ASSERT_EQ(got, want) << "step " << step;
            if (want > 0) {
                ASSERT_EQ(std::memcmp(a.data(), b.data(), (size_t)want), 0) << "step " << step;
            }
        }
    }
    // After the end the system's position is where the plain reads left it.
    int32_t position = ImgSeek(plain, 0, 1);
    ImgReadAheadEnd();
    EXPECT_EQ(ImgSeek(buffered, 0, 1), position);
    ImgClose(buffered);
    ImgClose(plain);
    ImgDelete(path.c_str());
}
