/* The I/O layer: the memory image, caller I/O, files by name, the scratch
 * file, the allocators and the bitmap name texts.  The memory image's size is
 * observed through a seek from its end and ImgTell(). */
#include "support/support.h"

#include <cctype>

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

bool WriteFileBytes(const std::string &path, const std::vector<uint8_t> &bytes)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    size_t n = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
    return std::fclose(f) == 0 && n == bytes.size();
}

std::vector<uint8_t> ReadFileBytes(const std::string &path)
{
    std::vector<uint8_t> bytes;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return bytes;
    uint8_t chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
    return bytes;
}

bool FileExists(const std::string &path)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    std::fclose(f);
    return true;
}

// The part of a path up to and including its last separator.
size_t DirectoryLength(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    const char *back = std::strrchr(path, '\\');
    const char *last = slash > back ? slash : back;
    return last ? (size_t)(last - path) + 1 : 0;
}

} // namespace

/* ---- caller I/O: recording functions of the C convention ---- */

static int g_readCalls, g_writeCalls, g_seekCalls;
static int32_t g_readHandle, g_readCount, g_writeHandle, g_writeCount;
static int32_t g_seekHandle, g_seekOffset, g_seekWhence;
static void *g_readBuffer, *g_writeBuffer;
static int32_t g_readResult, g_writeResult, g_seekResult;

extern "C" int32_t IMGCDECL RecordRead(int32_t handle, void *buffer, int32_t count)
{
    g_readCalls++;
    g_readHandle = handle;
    g_readBuffer = buffer;
    g_readCount = count;
    return g_readResult;
}

extern "C" int32_t IMGCDECL RecordWrite(int32_t handle, void *buffer, int32_t count)
{
    g_writeCalls++;
    g_writeHandle = handle;
    g_writeBuffer = buffer;
    g_writeCount = count;
    return g_writeResult;
}

extern "C" int32_t IMGCDECL RecordSeek(int32_t handle, int32_t offset, int32_t whence)
{
    g_seekCalls++;
    g_seekHandle = handle;
    g_seekOffset = offset;
    g_seekWhence = whence;
    return g_seekResult;
}

class MemoryImage : public TrnwTest {};
class CallerIo : public TrnwTest {
  protected:
    void SetUp() override
    {
        TrnwTest::SetUp();
        g_readCalls = g_writeCalls = g_seekCalls = 0;
        g_readHandle = g_readCount = g_writeHandle = g_writeCount = -1;
        g_seekHandle = g_seekOffset = g_seekWhence = -1;
        g_readBuffer = g_writeBuffer = nullptr;
        g_readResult = g_writeResult = g_seekResult = 0;
    }
};
class Io : public TrnwTest {};
class TempFile : public TrnwTest {};
class Alloc : public TrnwTest {};
class Tracked : public TrnwTest {};
class BitmapName : public TrnwTest {};

/* ==== the memory image ==== */

// Edge case: 10 bytes at 95 of a 100-byte block give 5 and leave the position
// at 100; a further read of 10 returns 10 and copies nothing.
TEST_F(MemoryImage, ReadAtPosition95Of100ReturnsFiveThenClaimsTen)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> pattern = Pattern(100);
    std::memcpy(block, pattern.data(), 100);
    ImgSetMemorySource(block);

    EXPECT_EQ(ImgSeek(kMem, 95, 0), 0);
    uint8_t out[10];
    std::memset(out, 0xAA, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 10), 5);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(out[i], (uint8_t)(95 + i)) << "byte " << i;
    for (int i = 5; i < 10; i++)
        EXPECT_EQ(out[i], 0xAA) << "byte " << i << " was written past the block";
    EXPECT_EQ(ImgTell(), 100u);

    std::memset(out, 0x55, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 10), 10);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(out[i], 0x55) << "byte " << i << " was copied at the end";
    EXPECT_EQ(ImgTell(), 100u) << "nothing moves at or past the end";
    ImgFree(block);
}

// Edge case: whence 2, offset -4 on a 100-byte block sets the position to 96.
TEST_F(MemoryImage, SeekFromEndMinusFourIsPosition96)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> pattern = Pattern(100);
    std::memcpy(block, pattern.data(), 100);
    ImgSetMemorySource(block);
    EXPECT_EQ(ImgSeek(kMem, -4, 2), 0) << "a memory seek returns 0";
    EXPECT_EQ(ImgTell(), 96u);
    uint8_t out[10] = {};
    EXPECT_EQ(ImgRead(kMem, out, 10), 4);
    EXPECT_EQ(out[0], 96);
    EXPECT_EQ(out[3], 99);
    ImgFree(block);
}

// A read stops at memorySize even where the memory behind it is readable.
TEST_F(MemoryImage, SizedImageStopsAtItsSize)
{
    std::vector<uint8_t> data = Pattern(200);
    ImgSetMemorySourceSized(data.data(), 50);
    EXPECT_EQ(MemoryImageSize(), 50u);
    EXPECT_EQ(ImgSeek(kMem, 45, 0), 0);
    uint8_t out[10];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 10), 5);
    EXPECT_EQ(out[0], 45);
    EXPECT_EQ(out[4], 49);
    EXPECT_EQ(out[5], 0xEE);
    EXPECT_EQ(ImgTell(), 50u);
}

// Writes mirror reads: n = min(count, size - position) copied into the block.
TEST_F(MemoryImage, WriteMirrorsRead)
{
    std::vector<uint8_t> backing(200, 0xEE); // bytes 100..199 lie outside the image
    ImgSetMemorySourceSized(backing.data(), 100);
    std::vector<uint8_t> src = Pattern(10, 1);
    EXPECT_EQ(ImgWrite(kMem, src.data(), 10), 10);
    EXPECT_EQ(ImgTell(), 10u);
    EXPECT_EQ(std::memcmp(backing.data(), src.data(), 10), 0);
    EXPECT_EQ(backing[10], 0xEE);

    EXPECT_EQ(ImgSeek(kMem, 95, 0), 0);
    EXPECT_EQ(ImgWrite(kMem, src.data(), 10), 5);
    EXPECT_EQ(std::memcmp(backing.data() + 95, src.data(), 5), 0);
    EXPECT_EQ(ImgTell(), 100u);
    for (size_t i = 100; i < 200; i++)
        ASSERT_EQ(backing[i], 0xEE) << "byte " << i << " lies past the image";

    EXPECT_EQ(ImgWrite(kMem, src.data(), 10), 10) << "success is claimed at the end";
    EXPECT_EQ(ImgTell(), 100u);
    EXPECT_EQ(ImgSeek(kMem, 50, 1), 0);
    EXPECT_EQ(ImgWrite(kMem, src.data(), 10), 10) << "and past it";
    for (size_t i = 100; i < 200; i++)
        ASSERT_EQ(backing[i], 0xEE) << "byte " << i << " lies past the image";
}

/* ==== caller I/O ==== */

// The caller's read gets the same three arguments for every handle, and its
// result comes back unchanged.
TEST_F(CallerIo, ReadGoesToCallerWithSameArgumentsForEveryHandle)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);
    uint8_t buf[32];
    std::memset(buf, 0x77, sizeof buf);

    g_readResult = 4242;
    EXPECT_EQ(ImgRead(kMem, buf, 10), 4242);
    EXPECT_EQ(g_readCalls, 1);
    EXPECT_EQ(g_readHandle, 32767);
    EXPECT_EQ(g_readBuffer, (void *)buf);
    EXPECT_EQ(g_readCount, 10);
    EXPECT_EQ(ImgTell(), 0u) << "the memory image was not read";
    EXPECT_EQ(buf[0], 0x77);

    g_readResult = -3;
    EXPECT_EQ(ImgRead(7, buf + 4, 3), -3);
    EXPECT_EQ(g_readCalls, 2);
    EXPECT_EQ(g_readHandle, 7);
    EXPECT_EQ(g_readBuffer, (void *)(buf + 4));
    EXPECT_EQ(g_readCount, 3);
    EXPECT_EQ(g_writeCalls, 0);
    EXPECT_EQ(g_seekCalls, 0);
}

// A real file handle is served by the caller's functions too: the file stays untouched.
TEST_F(CallerIo, FileHandleGoesToCallerInsteadOfTheFile)
{
    std::string path = TempPath("part1_2_callerio_file.bin");
    ASSERT_TRUE(WriteFileBytes(path, Pattern(50)));
    int h = ImgOpen(path.c_str(), 1);
    ASSERT_NE(h, -1);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);
    uint8_t buf[5] = {0xF0, 0xF0, 0xF0, 0xF0, 0xF0};
    g_readResult = 5;
    g_writeResult = 5;
    g_seekResult = 77;
    EXPECT_EQ(ImgRead(h, buf, 5), 5);
    EXPECT_EQ(g_readHandle, (int32_t)h);
    EXPECT_EQ(buf[0], 0xF0) << "the file was not read";
    EXPECT_EQ(ImgWrite(h, buf, 5), 5);
    EXPECT_EQ(g_writeHandle, (int32_t)h);
    EXPECT_EQ(ImgSeek(h, 20, 0), 77);
    EXPECT_EQ(g_seekHandle, (int32_t)h);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(ImgSeek(h, 0, 1), 0) << "the file's position did not move";
    ImgClose(h);
    EXPECT_EQ(ReadFileBytes(path), Pattern(50)) << "the file was not written";
    ImgDelete(path.c_str());
}

/* ==== files by name ==== */

// Mode 2 creates; the primitives write, seek (returning the new position) and read.
TEST_F(Io, CreateWriteSeekReadFile)
{
    std::string path = TempPath("part1_2_create.bin");
    std::remove(path.c_str());
    std::vector<uint8_t> bytes = Pattern(1234, 3);
    int h = ImgOpen(path.c_str(), 2);
    ASSERT_NE(h, -1);
    EXPECT_EQ(ImgWrite(h, bytes.data(), 1234), 1234);
    EXPECT_EQ(ImgSeek(h, 0, 1), 1234);
    EXPECT_EQ(ImgSeek(h, 100, 0), 100);
    EXPECT_EQ(ImgSeek(h, 50, 1), 150);
    EXPECT_EQ(ImgSeek(h, -34, 2), 1200);
    uint8_t out[40];
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(ImgRead(h, out, 40), 34) << "only 34 bytes are left in the file";
    EXPECT_EQ(std::memcmp(out, bytes.data() + 1200, 34), 0);
    EXPECT_EQ(ImgRead(h, out, 10), 0) << "nothing is left";
    EXPECT_EQ(ImgClose(h), 0);
    EXPECT_EQ(ReadFileBytes(path), bytes);
    EXPECT_EQ(ImgDelete(path.c_str()), 0);
    EXPECT_FALSE(FileExists(path));
}

/* ==== the scratch file ==== */

// Mode 0 writes the directory (at most 100 characters) and the "img" name,
// and creates the file, which ImgWrite can fill.
TEST_F(TempFile, ModeZeroWritesPathAndCreatesFile)
{
    char path[IMG_TEMP_PATH_SIZE];
    std::memset(path, 0, sizeof path);
    int h = ImgOpenTemp(path, 0);
    ASSERT_NE(h, -1);
    size_t length = std::strlen(path);
    ASSERT_GT(length, 0u);
    ASSERT_LT(length, sizeof path);
    size_t dir = DirectoryLength(path);
    EXPECT_GT(dir, 0u) << path;
    EXPECT_LE(dir, 100u) << path;
    std::string name = path + dir;
    ASSERT_GE(name.size(), 3u) << path;
    for (char &c : name)
        c = (char)std::tolower((unsigned char)c);
    EXPECT_EQ(name.substr(0, 3), "img") << path;
    EXPECT_EQ(ImgWrite(h, "scratch data", 12), 12);
    EXPECT_EQ(ImgClose(h), 0);
    EXPECT_NE(ImgOpen(path, 3), -1) << "the file exists";
    EXPECT_EQ(ReadFileBytes(path).size(), 12u);
    EXPECT_EQ(ImgDelete(path), 0);
}

/* ==== memory helpers ==== */

// ImgTestFailAllocations(n): the allocation after n more successful ones fails.
TEST_F(Alloc, TestHookFailsTheNextAllocation)
{
    ImgTestFailAllocations(0);
    EXPECT_EQ(ImgAlloc(16), nullptr);
    void *p = ImgAlloc(16);
    EXPECT_NE(p, nullptr) << "only one allocation fails";
    ImgFree(p);

    ImgTestFailAllocations(2);
    void *a = ImgAlloc(8);
    void *b = ImgAlloc(8);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(ImgAlloc(8), nullptr);
    ImgFree(a);
    ImgFree(b);

    ImgTestFailAllocations(0);
    ImgTestFailAllocations(-1); // switched off again
    p = ImgAlloc(16);
    EXPECT_NE(p, nullptr);
    ImgFree(p);
}

/* ==== the tracked table ==== */

TEST_F(Tracked, AllocTrackedRecordsAndFreeTrackedClears)
{
    EXPECT_EQ(ImgTrackedCount(), 0);
    uint8_t *a = static_cast<uint8_t *>(ImgAllocTracked(10));
    uint8_t *b = static_cast<uint8_t *>(ImgAllocTracked(20));
    uint8_t *c = static_cast<uint8_t *>(ImgAllocTracked(30));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    std::memset(a, 1, 10);
    std::memset(b, 2, 20);
    std::memset(c, 3, 30);
    EXPECT_EQ(ImgTrackedCount(), 3);
    ImgSetMemorySource(b);
    EXPECT_EQ(MemoryImageSize(), 20u) << "a tracked block is an ordinary block";

    ImgFreeTracked(b);
    EXPECT_EQ(ImgTrackedCount(), 2);
    ImgFreeTracked(b); // no longer in the table: nothing happens (no double free)
    EXPECT_EQ(ImgTrackedCount(), 2);
    EXPECT_EQ(a[9], 1);
    EXPECT_EQ(c[29], 3);
    ImgFreeTracked(a);
    ImgFreeTracked(c);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

// 30 slots; a 31st ImgAllocTracked gives NULL instead of overrunning the
// table, and frees nothing (our hardening, docs/DEVIATIONS.md).
TEST_F(Tracked, ThirtySlotsAndThe31stReturnsNull)
{
    std::vector<uint8_t *> blocks;
    for (int i = 0; i < IMG_TRACKED_SLOTS; i++) {
        uint8_t *p = static_cast<uint8_t *>(ImgAllocTracked(32));
        ASSERT_NE(p, nullptr) << "slot " << i;
        std::memset(p, i, 32);
        blocks.push_back(p);
    }
    EXPECT_EQ(IMG_TRACKED_SLOTS, 30);
    EXPECT_EQ(ImgTrackedCount(), 30);
    EXPECT_EQ(ImgAllocTracked(32), nullptr);
    EXPECT_EQ(ImgTrackedCount(), 30);
    for (int i = 0; i < 30; i++) {
        EXPECT_EQ(blocks[(size_t)i][0], (uint8_t)i) << "block " << i;
        EXPECT_EQ(blocks[(size_t)i][31], (uint8_t)i) << "block " << i;
        ImgSetMemorySource(blocks[(size_t)i]);
        EXPECT_EQ(MemoryImageSize(), 32u) << "block " << i << " is still live";
    }
    // A freed slot is the first free one and is used again.
    ImgFreeTracked(blocks[10]);
    EXPECT_EQ(ImgTrackedCount(), 29);
    void *p = ImgAllocTracked(32);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(ImgTrackedCount(), 30);
    EXPECT_EQ(ImgAllocTracked(32), nullptr);
    ImgFreeAllTracked();
    EXPECT_EQ(ImgTrackedCount(), 0);
}

/* ==== the bitmap name ==== */

// Our hardening: an over-long text keeps 199 characters plus the terminator,
// an over-long date 39 (copied with a length check).
TEST_F(BitmapName, OverLongTextsAreTruncated)
{
    std::string longText(300, 'x'), longDate(100, 'y');
    EXPECT_EQ(IMGLOW_set_bitmap_name(longText.c_str(), longDate.c_str()), 0);
    char text[400], date[400];
    std::memset(text, 0x7F, sizeof text);
    std::memset(date, 0x7F, sizeof date);
    EXPECT_EQ(IMGLOW_get_bitmap_name(text, date), 0);
    EXPECT_EQ(std::strlen(text), 199u);
    EXPECT_EQ(std::string(text), std::string(199, 'x'));
    EXPECT_EQ(text[200], 0x7F) << "nothing is copied past the 200-byte buffer's terminator";
    EXPECT_EQ(std::strlen(date), 39u);
    EXPECT_EQ(std::string(date), std::string(39, 'y'));
    EXPECT_EQ(date[40], 0x7F);

    // Exactly at the limits: 199 and 39 characters fit whole.
    std::string fitText(199, 't'), fitDate(39, 'd');
    IMGLOW_set_bitmap_name(fitText.c_str(), fitDate.c_str());
    EXPECT_EQ(std::string(ImgBitmapNameText()), fitText);
    EXPECT_EQ(std::string(ImgBitmapNameDate()), fitDate);
}

// ---- read-ahead (ours): the TIFF reader's block of a file's reads ----

class ReadAhead : public TrnwTest {};

// A random walk of seeks and reads gives, through the read-ahead block, the
// same results and bytes as the same calls on a second, plain handle; the
// expected bytes are the file's own.
TEST_F(ReadAhead, ReadsAndSeeksMatchPlainHandle)
{
    std::string path = TempPath("part1_2_readahead.bin");
    std::vector<uint8_t> bytes = Pattern(300000, 7); // several 64 KB blocks
    ASSERT_TRUE(WriteFileBytes(path, bytes));
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
