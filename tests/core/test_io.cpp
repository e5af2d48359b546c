/*
 * test_io.cpp - Part 1.2: the I/O layer.
 *
 * The memory image, the three primitives over every kind of handle, caller
 * I/O, files by name, the scratch file, the memory helpers, the tracked table
 * and the bitmap name texts.  Every expected value comes from the words or the
 * arithmetic of spec Part 1.2 (and, where marked, from our documented
 * hardening in docs/DEVIATIONS.md).
 *
 * The memory image's size is observed without touching memory outside a
 * block: a seek with whence 2 sets the position to memorySize + offset, and
 * ImgTell() reports the position.
 */
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

// ImgSetMemorySource on the start of a block of ours takes the block's size.
TEST_F(MemoryImage, BlockFromImgAllocHasItsSize)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    ImgSetMemorySource(block);
    EXPECT_EQ(ImgTell(), 0u);
    EXPECT_EQ(MemoryImageSize(), 100u);
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

// Whence 0 sets, 1 adds, any other whence sets to memorySize + offset; all return 0.
TEST_F(MemoryImage, SeekWhenceRules)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    EXPECT_EQ(ImgSeek(kMem, 30, 0), 0);
    EXPECT_EQ(ImgTell(), 30u);
    EXPECT_EQ(ImgSeek(kMem, 12, 1), 0);
    EXPECT_EQ(ImgTell(), 42u);
    EXPECT_EQ(ImgSeek(kMem, -40, 1), 0);
    EXPECT_EQ(ImgTell(), 2u);
    EXPECT_EQ(ImgSeek(kMem, -10, 2), 0);
    EXPECT_EQ(ImgTell(), 90u);
    EXPECT_EQ(ImgSeek(kMem, -10, 7), 0) << "any other whence counts from the end";
    EXPECT_EQ(ImgTell(), 90u);
    EXPECT_EQ(ImgSeek(kMem, 5, 3), 0);
    EXPECT_EQ(ImgTell(), 105u) << "nothing is clamped";
}

// Nothing is clamped: far past the end a read claims success and copies
// nothing; a seek back brings the image into use again.
TEST_F(MemoryImage, SeekFarPastEndIsUnclampedAndSeekBackWorks)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    EXPECT_EQ(ImgSeek(kMem, 1000000, 0), 0);
    EXPECT_EQ(ImgTell(), 1000000u);
    uint8_t out[16];
    std::memset(out, 0xC3, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 16), 16);
    for (uint8_t b : out)
        EXPECT_EQ(b, 0xC3);
    EXPECT_EQ(ImgTell(), 1000000u);

    EXPECT_EQ(ImgSeek(kMem, -999990, 1), 0);
    EXPECT_EQ(ImgTell(), 10u);
    EXPECT_EQ(ImgRead(kMem, out, 4), 4);
    EXPECT_EQ(out[0], 10);
    EXPECT_EQ(out[3], 13);
    EXPECT_EQ(ImgTell(), 14u);

    EXPECT_EQ(ImgSeek(kMem, 1000, 2), 0);
    EXPECT_EQ(ImgTell(), 1100u);
    EXPECT_EQ(ImgSeek(kMem, 20, 0), 0);
    EXPECT_EQ(ImgRead(kMem, out, 1), 1);
    EXPECT_EQ(out[0], 20);
}

// The position is unsigned and unclamped: a negative whence-0 offset lands
// far past the end, where reads claim success and copy nothing.
TEST_F(MemoryImage, NegativeSeekFromStartLandsPastTheEnd)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    EXPECT_EQ(ImgSeek(kMem, -1, 0), 0);
    EXPECT_EQ(ImgTell(), 0xFFFFFFFFu);
    uint8_t out[8];
    std::memset(out, 0x11, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 8), 8);
    for (uint8_t b : out)
        EXPECT_EQ(b, 0x11);
    EXPECT_EQ(ImgWrite(kMem, out, 8), 8);
    EXPECT_EQ(data, Pattern(100)) << "a write past the end copies nothing";
}

// Reading from inside: n = min(count, size - position), the position advances by n.
TEST_F(MemoryImage, ReadsAdvanceThePosition)
{
    std::vector<uint8_t> data = Pattern(100, 7);
    ImgSetMemorySourceSized(data.data(), 100);
    uint8_t out[40];
    EXPECT_EQ(ImgRead(kMem, out, 40), 40);
    EXPECT_EQ(std::memcmp(out, data.data(), 40), 0);
    EXPECT_EQ(ImgTell(), 40u);
    EXPECT_EQ(ImgRead(kMem, out, 40), 40);
    EXPECT_EQ(std::memcmp(out, data.data() + 40, 40), 0);
    EXPECT_EQ(ImgRead(kMem, out, 40), 20) << "only 20 bytes are left";
    EXPECT_EQ(std::memcmp(out, data.data() + 80, 20), 0);
    EXPECT_EQ(ImgTell(), 100u);
    EXPECT_EQ(ImgRead(kMem, out, 0), 0);
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

// Size 0 means unknown: the image is unbounded (0x70000000).
TEST_F(MemoryImage, SizedWithZeroIsUnbounded)
{
    std::vector<uint8_t> data = Pattern(64);
    ImgSetMemorySourceSized(data.data(), 0);
    EXPECT_EQ(MemoryImageSize(), 0x70000000u);
    uint8_t out[64];
    EXPECT_EQ(ImgRead(kMem, out, 64), 64);
    EXPECT_EQ(std::memcmp(out, data.data(), 64), 0);
}

// Edge case: a pointer that is not the start of a global block makes the
// image unbounded; reads never report a short count.  ImgAlloc(100) + 10 is
// inside a block of ours: reads are kept inside the real block (10 bytes at
// relative position 80 end at byte 100 of the block).
TEST_F(MemoryImage, PointerInsideABlockIsUnbounded)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> pattern = Pattern(100);
    std::memcpy(block, pattern.data(), 100);
    ImgSetMemorySource(block + 10);
    EXPECT_EQ(MemoryImageSize(), 0x70000000u);

    uint8_t out[90];
    EXPECT_EQ(ImgRead(kMem, out, 90), 90) << "the whole count, not a short one";
    EXPECT_EQ(std::memcmp(out, block + 10, 90), 0);
    EXPECT_EQ(ImgSeek(kMem, 80, 0), 0);
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(ImgRead(kMem, out, 10), 10);
    EXPECT_EQ(out[0], 90);
    EXPECT_EQ(out[9], 99);
    EXPECT_EQ(ImgTell(), 90u);
    ImgFree(block);
}

// A caller's memory that is no block at all (here the stack) is unbounded too.
TEST_F(MemoryImage, CallerMemoryThatIsNoBlockIsUnbounded)
{
    uint8_t local[64];
    for (int i = 0; i < 64; i++)
        local[i] = (uint8_t)(200 - i);
    ImgSetMemorySource(local);
    EXPECT_EQ(MemoryImageSize(), 0x70000000u);
    uint8_t out[64];
    EXPECT_EQ(ImgRead(kMem, out, 64), 64);
    EXPECT_EQ(std::memcmp(out, local, 64), 0);
}

// Set-up starts at position 0, also when an earlier image was half read.
TEST_F(MemoryImage, SetUpResetsThePosition)
{
    std::vector<uint8_t> a = Pattern(100), b = Pattern(100, 50);
    ImgSetMemorySourceSized(a.data(), 100);
    uint8_t out[12];
    EXPECT_EQ(ImgRead(kMem, out, 12), 12);
    EXPECT_EQ(ImgTell(), 12u);
    ImgSetMemorySourceSized(b.data(), 100);
    EXPECT_EQ(ImgTell(), 0u);
    EXPECT_EQ(ImgRead(kMem, out, 1), 1);
    EXPECT_EQ(out[0], 50);
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(30));
    ASSERT_NE(block, nullptr);
    ImgSetMemorySource(block);
    EXPECT_EQ(ImgTell(), 0u);
    ImgFree(block);
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

// The block never grows: a write past the end leaves a block of ours at its size.
TEST_F(MemoryImage, WriteNeverGrowsTheBlock)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0, 100);
    ImgSetMemorySource(block);
    std::vector<uint8_t> src(300, 0x5A);
    EXPECT_EQ(ImgWrite(kMem, src.data(), 300), 100);
    EXPECT_EQ(ImgWrite(kMem, src.data(), 300), 300);
    EXPECT_EQ(ImgTell(), 100u);
    EXPECT_EQ(block[0], 0x5A);
    EXPECT_EQ(block[99], 0x5A);
    ImgSetMemorySource(block);
    EXPECT_EQ(MemoryImageSize(), 100u);
    ImgFree(block);
}

// Reading and writing share one position.
TEST_F(MemoryImage, ReadAndWriteShareThePosition)
{
    std::vector<uint8_t> data = Pattern(20);
    ImgSetMemorySourceSized(data.data(), 20);
    const uint8_t abc[3] = {0xA1, 0xB2, 0xC3};
    EXPECT_EQ(ImgWrite(kMem, abc, 3), 3);
    uint8_t out[3];
    EXPECT_EQ(ImgRead(kMem, out, 3), 3);
    EXPECT_EQ(out[0], 3);
    EXPECT_EQ(out[2], 5);
    EXPECT_EQ(ImgWrite(kMem, abc, 3), 3);
    EXPECT_EQ(ImgTell(), 9u);
    EXPECT_EQ(data[6], 0xA1);
    EXPECT_EQ(data[8], 0xC3);
    EXPECT_EQ(data[0], 0xA1);
}

// ImgTell reports the memory image's position after reads, writes and seeks.
TEST_F(MemoryImage, TellReportsThePosition)
{
    std::vector<uint8_t> data(64, 0);
    ImgSetMemorySourceSized(data.data(), 64);
    EXPECT_EQ(ImgTell(), 0u);
    uint8_t buf[7] = {1, 2, 3, 4, 5, 6, 7};
    ImgWrite(kMem, buf, 7);
    EXPECT_EQ(ImgTell(), 7u);
    ImgRead(kMem, buf, 5);
    EXPECT_EQ(ImgTell(), 12u);
    ImgSeek(kMem, 33, 0);
    EXPECT_EQ(ImgTell(), 33u);
}

// Edge case: ImgFileSize(32767) after reading 12 bytes returns 12 (the
// position, not the block size); it does not move the position.
TEST_F(MemoryImage, FileSizeOfMemoryImageIsThePosition)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0x42, 100);
    ImgSetMemorySource(block);
    EXPECT_EQ(ImgFileSize(kMem), 0);
    uint8_t out[12];
    EXPECT_EQ(ImgRead(kMem, out, 12), 12);
    EXPECT_EQ(ImgFileSize(kMem), 12);
    EXPECT_EQ(ImgTell(), 12u);
    ImgSeek(kMem, 40, 0);
    EXPECT_EQ(ImgFileSize(kMem), 40);
    ImgFree(block);
}

/* ==== caller I/O ==== */

TEST_F(CallerIo, SetFileioReturnsZero)
{
    EXPECT_EQ(IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek), 0);
    EXPECT_EQ(IMGLOW_set_fileio(nullptr, nullptr, nullptr), 0);
}

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

TEST_F(CallerIo, WriteGoesToCallerWithSameArgumentsForEveryHandle)
{
    std::vector<uint8_t> data(100, 0);
    ImgSetMemorySourceSized(data.data(), 100);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);
    const uint8_t src[9] = {9, 8, 7, 6, 5, 4, 3, 2, 1};

    g_writeResult = 3;
    EXPECT_EQ(ImgWrite(kMem, src, 9), 3) << "the caller's count comes back unchanged";
    EXPECT_EQ(g_writeCalls, 1);
    EXPECT_EQ(g_writeHandle, 32767);
    EXPECT_EQ(g_writeBuffer, (const void *)src);
    EXPECT_EQ(g_writeCount, 9);
    EXPECT_EQ(data, std::vector<uint8_t>(100, 0)) << "the memory image was not written";
    EXPECT_EQ(ImgTell(), 0u);

    g_writeResult = 123456;
    EXPECT_EQ(ImgWrite(12, src + 1, 2), 123456);
    EXPECT_EQ(g_writeCalls, 2);
    EXPECT_EQ(g_writeHandle, 12);
    EXPECT_EQ(g_writeBuffer, (const void *)(src + 1));
    EXPECT_EQ(g_writeCount, 2);
    EXPECT_EQ(g_readCalls, 0);
    EXPECT_EQ(g_seekCalls, 0);
}

TEST_F(CallerIo, SeekGoesToCallerWithSameArgumentsForEveryHandle)
{
    std::vector<uint8_t> data(100, 0);
    ImgSetMemorySourceSized(data.data(), 100);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);

    g_seekResult = 555;
    EXPECT_EQ(ImgSeek(kMem, -4, 2), 555) << "not the memory image's 0";
    EXPECT_EQ(g_seekCalls, 1);
    EXPECT_EQ(g_seekHandle, 32767);
    EXPECT_EQ(g_seekOffset, -4);
    EXPECT_EQ(g_seekWhence, 2);
    EXPECT_EQ(ImgTell(), 0u) << "the memory image did not move";

    g_seekResult = -1;
    EXPECT_EQ(ImgSeek(3, 1000, 1), -1);
    EXPECT_EQ(g_seekCalls, 2);
    EXPECT_EQ(g_seekHandle, 3);
    EXPECT_EQ(g_seekOffset, 1000);
    EXPECT_EQ(g_seekWhence, 1);
}

// Edge case: after IMGLOW_set_fileio(r, w, s), work on the memory image (as a
// decode from memory does: set the image, seek, read) goes through r and s
// with handle 32767.  (No decoder exists yet; this is the primitive level.)
TEST_F(CallerIo, MemoryImageStillGoesThroughCallerReadAndSeek)
{
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0x33, 100);
    IMGLOW_set_fileio(RecordRead, RecordWrite, RecordSeek);
    ImgSetMemorySource(block);
    g_readResult = 2;
    uint8_t header[2] = {0, 0};
    EXPECT_EQ(ImgSeek(IMG_MEMORY_HANDLE, 0, 0), 0);
    EXPECT_EQ(ImgRead(IMG_MEMORY_HANDLE, header, 2), 2);
    EXPECT_EQ(ImgSeek(IMG_MEMORY_HANDLE, 8, 1), 0);
    EXPECT_EQ(g_seekCalls, 2);
    EXPECT_EQ(g_readCalls, 1);
    EXPECT_EQ(g_seekHandle, 32767);
    EXPECT_EQ(g_readHandle, 32767);
    EXPECT_EQ(header[0], 0) << "the block was not read";
    EXPECT_EQ(ImgTell(), 0u);
    ImgFree(block);
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

// A null pointer restores the built-in behaviour of that one primitive only.
TEST_F(CallerIo, NullRestoresOnlyThatPrimitive)
{
    std::vector<uint8_t> data = Pattern(100);
    ImgSetMemorySourceSized(data.data(), 100);
    const uint8_t src[4] = {0xD0, 0xD1, 0xD2, 0xD3};

    // Write built in, read and seek the caller's.
    IMGLOW_set_fileio(RecordRead, nullptr, RecordSeek);
    g_readResult = 99;
    EXPECT_EQ(ImgWrite(kMem, src, 4), 4);
    EXPECT_EQ(g_writeCalls, 0);
    EXPECT_EQ(data[0], 0xD0);
    EXPECT_EQ(data[3], 0xD3);
    EXPECT_EQ(ImgTell(), 4u);
    uint8_t out[4];
    EXPECT_EQ(ImgRead(kMem, out, 4), 99);
    EXPECT_EQ(g_readCalls, 1);
    EXPECT_EQ(ImgSeek(kMem, 0, 0), 0);
    EXPECT_EQ(g_seekCalls, 1);
    EXPECT_EQ(ImgTell(), 4u);

    // Read and seek built in, write the caller's.
    IMGLOW_set_fileio(nullptr, RecordWrite, nullptr);
    g_writeResult = 1;
    EXPECT_EQ(ImgSeek(kMem, 10, 0), 0);
    EXPECT_EQ(g_seekCalls, 1);
    EXPECT_EQ(ImgTell(), 10u);
    EXPECT_EQ(ImgRead(kMem, out, 4), 4);
    EXPECT_EQ(g_readCalls, 1);
    EXPECT_EQ(out[0], 10);
    EXPECT_EQ(ImgWrite(kMem, src, 4), 1);
    EXPECT_EQ(g_writeCalls, 1);
    EXPECT_EQ(data[14], 14) << "the memory image was not written";

    // All three restored.
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(ImgWrite(kMem, src, 4), 4);
    EXPECT_EQ(data[14], 0xD0);
    EXPECT_EQ(g_writeCalls, 1);
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

// Mode 0 opens an existing file for reading.
TEST_F(Io, OpenForReading)
{
    std::string path = TempPath("part1_2_read.bin");
    std::vector<uint8_t> bytes = Pattern(300, 9);
    ASSERT_TRUE(WriteFileBytes(path, bytes));
    int h = ImgOpen(path.c_str(), 0);
    ASSERT_NE(h, -1);
    std::vector<uint8_t> out(300);
    EXPECT_EQ(ImgRead(h, out.data(), 300), 300);
    EXPECT_EQ(out, bytes);
    ImgClose(h);
    ImgDelete(path.c_str());
}

// Mode 0 on a missing file fails with -1.
TEST_F(Io, OpenMissingFileForReadingFails)
{
    std::string path = TempPath("part1_2_missing.bin");
    std::remove(path.c_str());
    EXPECT_EQ(ImgOpen(path.c_str(), 0), -1);
    EXPECT_FALSE(FileExists(path)) << "mode 0 does not create";
}

// Mode 1 opens for reading and writing without truncating.
TEST_F(Io, OpenForReadingAndWriting)
{
    std::string path = TempPath("part1_2_readwrite.bin");
    std::vector<uint8_t> bytes = Pattern(100);
    ASSERT_TRUE(WriteFileBytes(path, bytes));
    int h = ImgOpen(path.c_str(), 1);
    ASSERT_NE(h, -1);
    uint8_t out[10];
    EXPECT_EQ(ImgRead(h, out, 10), 10);
    EXPECT_EQ(out[9], 9);
    EXPECT_EQ(ImgSeek(h, 0, 0), 0);
    const uint8_t src[4] = {0xFA, 0xFB, 0xFC, 0xFD};
    EXPECT_EQ(ImgWrite(h, src, 4), 4);
    EXPECT_EQ(ImgFileSize(h), 100);
    ImgClose(h);
    std::vector<uint8_t> expected = bytes;
    std::memcpy(expected.data(), src, 4);
    EXPECT_EQ(ReadFileBytes(path), expected);
    ImgDelete(path.c_str());
}

// Mode 2 truncates an existing file.
TEST_F(Io, CreateTruncatesExistingFile)
{
    std::string path = TempPath("part1_2_truncate.bin");
    ASSERT_TRUE(WriteFileBytes(path, Pattern(500)));
    int h = ImgOpen(path.c_str(), 2);
    ASSERT_NE(h, -1);
    EXPECT_EQ(ImgFileSize(h), 0);
    const uint8_t src[3] = {1, 2, 3};
    EXPECT_EQ(ImgWrite(h, src, 3), 3);
    ImgClose(h);
    EXPECT_EQ(ReadFileBytes(path), std::vector<uint8_t>({1, 2, 3}));
    ImgDelete(path.c_str());
}

// Mode 3 only tests existence: -1 when missing, something else when present.
TEST_F(Io, ExistenceTest)
{
    std::string path = TempPath("part1_2_exists.bin");
    std::remove(path.c_str());
    EXPECT_EQ(ImgOpen(path.c_str(), 3), -1);
    EXPECT_FALSE(FileExists(path)) << "mode 3 does not create";
    ASSERT_TRUE(WriteFileBytes(path, Pattern(5)));
    EXPECT_NE(ImgOpen(path.c_str(), 3), -1);
    EXPECT_EQ(ReadFileBytes(path), Pattern(5)) << "mode 3 does not truncate";
    ImgDelete(path.c_str());
}

// ImgFileSize of a file is its length, and the position is restored.
TEST_F(Io, FileSizeOfFileIsItsLengthAndKeepsThePosition)
{
    std::string path = TempPath("part1_2_filesize.bin");
    std::vector<uint8_t> bytes = Pattern(1234);
    ASSERT_TRUE(WriteFileBytes(path, bytes));
    int h = ImgOpen(path.c_str(), 0);
    ASSERT_NE(h, -1);
    EXPECT_EQ(ImgSeek(h, 100, 0), 100);
    EXPECT_EQ(ImgFileSize(h), 1234);
    EXPECT_EQ(ImgSeek(h, 0, 1), 100) << "the position is restored";
    uint8_t b = 0;
    EXPECT_EQ(ImgRead(h, &b, 1), 1);
    EXPECT_EQ(b, 100);
    ImgClose(h);
    ImgDelete(path.c_str());
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

// Unique number 1: the same name on every call within the process.
TEST_F(TempFile, SameNameOnEveryCall)
{
    char first[IMG_TEMP_PATH_SIZE], second[IMG_TEMP_PATH_SIZE];
    std::memset(first, 0, sizeof first);
    std::memset(second, 0x7F, sizeof second);
    int h = ImgOpenTemp(first, 0);
    ASSERT_NE(h, -1);
    ImgClose(h);
    h = ImgOpenTemp(second, 0);
    ASSERT_NE(h, -1);
    ImgClose(h);
    EXPECT_STREQ(first, second);
    ImgDelete(first);
}

// Mode 1 reopens the file named in the buffer for reading.
TEST_F(TempFile, ModeOneReopensForReading)
{
    char path[IMG_TEMP_PATH_SIZE];
    std::memset(path, 0, sizeof path);
    int h = ImgOpenTemp(path, 0);
    ASSERT_NE(h, -1);
    std::vector<uint8_t> bytes = Pattern(777, 40);
    EXPECT_EQ(ImgWrite(h, bytes.data(), 777), 777);
    ImgClose(h);
    h = ImgOpenTemp(path, 1);
    ASSERT_NE(h, -1);
    std::vector<uint8_t> out(800, 0);
    EXPECT_EQ(ImgRead(h, out.data(), 800), 777);
    out.resize(777);
    EXPECT_EQ(out, bytes);
    ImgClose(h);
    ImgDelete(path);
}

// Mode 1 opens whatever file the buffer names.
TEST_F(TempFile, ModeOneOpensTheNamedFile)
{
    std::string named = TempPath("part1_2_tempmode1.bin");
    ASSERT_TRUE(WriteFileBytes(named, Pattern(16, 100)));
    char path[IMG_TEMP_PATH_SIZE];
    std::memset(path, 0, sizeof path);
    ASSERT_LT(named.size(), sizeof path);
    std::memcpy(path, named.c_str(), named.size() + 1);
    int h = ImgOpenTemp(path, 1);
    ASSERT_NE(h, -1);
    uint8_t out[16];
    EXPECT_EQ(ImgRead(h, out, 16), 16);
    EXPECT_EQ(out[0], 100);
    EXPECT_EQ(out[15], 115);
    ImgClose(h);
    std::remove(path);
    EXPECT_EQ(ImgOpenTemp(path, 1), -1) << "a missing file cannot be reopened";
}

// Any other mode gives -1 and creates nothing.
TEST_F(TempFile, OtherModesFail)
{
    std::string named = TempPath("part1_2_tempbadmode.bin");
    std::remove(named.c_str());
    char path[IMG_TEMP_PATH_SIZE];
    for (int mode : {2, 3, -1, 7, 32767}) {
        std::memset(path, 0, sizeof path);
        std::memcpy(path, named.c_str(), named.size() + 1);
        EXPECT_EQ(ImgOpenTemp(path, mode), -1) << "mode " << mode;
        EXPECT_FALSE(FileExists(named)) << "mode " << mode;
    }
}

/* ==== memory helpers ==== */

TEST_F(Alloc, AllocReallocKeepContentsAndFree)
{
    uint8_t *p = static_cast<uint8_t *>(ImgAlloc(100));
    ASSERT_NE(p, nullptr);
    std::vector<uint8_t> pattern = Pattern(100, 17);
    std::memcpy(p, pattern.data(), 100);

    uint8_t *q = static_cast<uint8_t *>(ImgRealloc(p, 10000));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(std::memcmp(q, pattern.data(), 100), 0) << "growing keeps the contents";
    std::memset(q + 100, 0x3C, 9900); // the whole new size is usable
    ImgSetMemorySource(q);
    EXPECT_EQ(MemoryImageSize(), 10000u) << "the block has its new size";

    uint8_t *r = static_cast<uint8_t *>(ImgRealloc(q, 50));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::memcmp(r, pattern.data(), 50), 0) << "shrinking keeps the contents";
    ImgSetMemorySource(r);
    EXPECT_EQ(MemoryImageSize(), 50u);
    ImgFree(r);
}

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

// A pointer not in the table (or null) is left alone.
TEST_F(Tracked, FreeTrackedOfUnknownPointerDoesNothing)
{
    void *tracked = ImgAllocTracked(8);
    ASSERT_NE(tracked, nullptr);
    uint8_t *untracked = static_cast<uint8_t *>(ImgAlloc(64));
    ASSERT_NE(untracked, nullptr);
    std::memset(untracked, 0x6B, 64);
    ImgFreeTracked(untracked);
    ImgFreeTracked(nullptr);
    EXPECT_EQ(ImgTrackedCount(), 1);
    EXPECT_EQ(untracked[63], 0x6B);
    ImgSetMemorySource(untracked);
    EXPECT_EQ(MemoryImageSize(), 64u) << "the untracked block is still a live block";
    ImgFree(untracked);
    ImgFreeTracked(tracked);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

// ImgFreeAllTracked frees every block (the order, last slot first, is not
// observable from outside) and clears the slots for reuse.
TEST_F(Tracked, FreeAllTrackedFreesEverything)
{
    for (int i = 0; i < 5; i++) {
        uint8_t *p = static_cast<uint8_t *>(ImgAllocTracked((size_t)(16 + i)));
        ASSERT_NE(p, nullptr);
        std::memset(p, i, (size_t)(16 + i));
    }
    EXPECT_EQ(ImgTrackedCount(), 5);
    ImgFreeAllTracked();
    EXPECT_EQ(ImgTrackedCount(), 0);
    ImgFreeAllTracked(); // an empty table: nothing to do
    EXPECT_EQ(ImgTrackedCount(), 0);
    void *again = ImgAllocTracked(4);
    EXPECT_NE(again, nullptr);
    EXPECT_EQ(ImgTrackedCount(), 1);
    ImgFreeAllTracked();
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

// A failed allocation leaves its slot free.
TEST_F(Tracked, FailedTrackedAllocationTakesNoSlot)
{
    ImgTestFailAllocations(0);
    EXPECT_EQ(ImgAllocTracked(10), nullptr);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

/* ==== the bitmap name ==== */

TEST_F(BitmapName, DefaultTexts)
{
    char text[IMG_NAME_TEXT_SIZE], date[IMG_NAME_DATE_SIZE];
    std::memset(text, 0x7F, sizeof text);
    std::memset(date, 0x7F, sizeof date);
    EXPECT_EQ(IMGLOW_get_bitmap_name(text, date), 0);
    EXPECT_STREQ(text, "1996 TARNWHEEL, ALL RIGHTS RESERVED");
    EXPECT_STREQ(date, "11-24-1992");
    EXPECT_STREQ(ImgBitmapNameText(), "1996 TARNWHEEL, ALL RIGHTS RESERVED");
    EXPECT_STREQ(ImgBitmapNameDate(), "11-24-1992");
}

// Edge case: set ("A", "B") then get yields "A" and "B".
TEST_F(BitmapName, SetGetRoundTrip)
{
    EXPECT_EQ(IMGLOW_set_bitmap_name("A", "B"), 0);
    char text[IMG_NAME_TEXT_SIZE], date[IMG_NAME_DATE_SIZE];
    std::memset(text, 0x7F, sizeof text);
    std::memset(date, 0x7F, sizeof date);
    EXPECT_EQ(IMGLOW_get_bitmap_name(text, date), 0);
    EXPECT_STREQ(text, "A");
    EXPECT_STREQ(date, "B");
    EXPECT_STREQ(ImgBitmapNameText(), "A");
    EXPECT_STREQ(ImgBitmapNameDate(), "B");
}

// Get copies up to and including the terminating zero, nothing beyond.
TEST_F(BitmapName, GetCopiesThroughTheTerminatorOnly)
{
    IMGLOW_set_bitmap_name("Scan 7", "01-02-2003");
    char text[IMG_NAME_TEXT_SIZE], date[IMG_NAME_DATE_SIZE];
    std::memset(text, 0x7F, sizeof text);
    std::memset(date, 0x7F, sizeof date);
    IMGLOW_get_bitmap_name(text, date);
    EXPECT_STREQ(text, "Scan 7");
    EXPECT_EQ(text[7], 0x7F);
    EXPECT_EQ(text[IMG_NAME_TEXT_SIZE - 1], 0x7F);
    EXPECT_STREQ(date, "01-02-2003");
    EXPECT_EQ(date[11], 0x7F);
}

// Set copies the terminator: a shorter text replaces a longer one entirely.
TEST_F(BitmapName, ShorterTextReplacesLongerOne)
{
    IMGLOW_set_bitmap_name("A MUCH LONGER DESCRIPTION", "12-31-1999");
    IMGLOW_set_bitmap_name("short", "1");
    char text[IMG_NAME_TEXT_SIZE], date[IMG_NAME_DATE_SIZE];
    IMGLOW_get_bitmap_name(text, date);
    EXPECT_STREQ(text, "short");
    EXPECT_STREQ(date, "1");
}

// Our hardening: an over-long text keeps 199 characters plus the terminator,
// an over-long date 39 (the original copied without a length check).
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

// ImgStoreBitmapName, the internal setter the TIFF reader uses, fills the same buffers.
TEST_F(BitmapName, StoreBitmapNameFillsTheSameBuffers)
{
    ImgStoreBitmapName("from a file", "07-04-1995");
    char text[IMG_NAME_TEXT_SIZE], date[IMG_NAME_DATE_SIZE];
    IMGLOW_get_bitmap_name(text, date);
    EXPECT_STREQ(text, "from a file");
    EXPECT_STREQ(date, "07-04-1995");
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

// A write to the handle ends the read-ahead first: the bytes land at the
// position the reads reached, and a later read sees them.
TEST_F(ReadAhead, WriteEndsReadAhead)
{
    std::string path = TempPath("part1_2_readahead_write.bin");
    std::vector<uint8_t> bytes = Pattern(1000, 3);
    ASSERT_TRUE(WriteFileBytes(path, bytes));
    int h = ImgOpen(path.c_str(), 1); // read and write
    ASSERT_GT(h, 0);
    ImgReadAheadBegin(h);
    uint8_t out[100];
    ASSERT_EQ(ImgRead(h, out, 100), 100);
    const uint8_t patch[4] = {1, 2, 3, 4};
    ASSERT_EQ(ImgWrite(h, patch, 4), 4);
    EXPECT_EQ(ImgSeek(h, 0, 1), 104);
    ASSERT_EQ(ImgSeek(h, 100, 0), 100);
    ASSERT_EQ(ImgRead(h, out, 4), 4);
    EXPECT_EQ(std::memcmp(out, patch, 4), 0);
    ImgReadAheadEnd();
    ImgClose(h);
    std::vector<uint8_t> expected = bytes;
    std::memcpy(expected.data() + 100, patch, 4);
    EXPECT_EQ(ReadFileBytes(path), expected);
    ImgDelete(path.c_str());
}

// The memory image and caller I/O functions are never buffered.
TEST_F(ReadAhead, MemoryImageIsNotBuffered)
{
    std::vector<uint8_t> bytes = Pattern(100, 5);
    ImgSetMemorySourceSized(bytes.data(), 100);
    ImgReadAheadBegin(IMG_MEMORY_HANDLE);
    uint8_t out[10];
    ASSERT_EQ(ImgRead(IMG_MEMORY_HANDLE, out, 10), 10);
    bytes[10] = 0xEE; // a change to the image is seen at once
    ASSERT_EQ(ImgRead(IMG_MEMORY_HANDLE, out, 1), 1);
    EXPECT_EQ(out[0], 0xEE);
    ImgReadAheadEnd();
}
