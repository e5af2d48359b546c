/*
 * io.cpp - the I/O layer.
 */
#include "core/guard.h"
#include "core/imgio.h"

#include <string.h>

#include "platform/platform.h"
#include "core/imgapi.h"

/* The memory image. */
static uint8_t *memoryBase;
static uint32_t memorySize;
static uint32_t memoryPosition;

/* Caller I/O; each null until set. */
static IMG_READ_FUNC userRead;
static IMG_WRITE_FUNC userWrite;
static IMG_SEEK_FUNC userSeek;

static void *trackedTable[IMG_TRACKED_SLOTS];

static char bitmapNameText[IMG_NAME_TEXT_SIZE] = "1996 TARNWHEEL, ALL RIGHTS RESERVED";
static char bitmapNameDate[IMG_NAME_DATE_SIZE] = "11-24-1992";

static int failCountdown = -1;
static int fillByte = -1;

/* ---- the memory image ---- */

void ImgSetMemorySourceSized(void *pointer, uint32_t size)
{
    memoryBase = static_cast<uint8_t *>(pointer);
    memoryPosition = 0;
    memorySize = size ? size : IMG_MEMORY_UNBOUNDED;
}

void ImgSetMemorySource(void *pointer)
{
    size_t size = PlatformBlockSize(pointer);
    /* No block, a discarded block or size 0: in effect unbounded. */
    ImgSetMemorySourceSized(pointer, size > IMG_MEMORY_UNBOUNDED ? IMG_MEMORY_UNBOUNDED
                                                                 : (uint32_t)size);
}

/* Read and write share one rule: at or past the end nothing moves and the
 * whole count is claimed; otherwise the transfer stops at the end. */
static int32_t MemoryTransfer(void *buffer, uint32_t count, int writing)
{
    if (!memoryBase)
        return 0;
    if (memoryPosition >= memorySize)
        return (int32_t)count;
    uint32_t left = memorySize - memoryPosition;
    uint32_t n = count < left ? count : left;
    if (writing)
        memcpy(memoryBase + memoryPosition, buffer, n);
    else
        memcpy(buffer, memoryBase + memoryPosition, n);
    memoryPosition += n;
    return (int32_t)n;
}

static int32_t MemorySeek(int32_t offset, int whence)
{
    /* Nothing is clamped: the read and write rules cope with any position. */
    if (whence == 0)
        memoryPosition = (uint32_t)offset;
    else if (whence == 1)
        memoryPosition += (uint32_t)offset;
    else
        memoryPosition = memorySize + (uint32_t)offset;
    return 0;
}

/* ---- read-ahead ----
 * While a reader walks one file's strips (ImgReadAheadBegin .. End), small
 * reads of that handle are served from a block read at once, and seeks
 * inside the file only move the position: a TIFF of one-row strips costs a
 * few reads instead of a seek and a read per strip.  The data and results
 * are those of the unbuffered calls; writing or closing the handle ends the
 * read-ahead, and so does End, which leaves the system's file position
 * where the unbuffered reads would have left it. */
#define READ_AHEAD_BYTES 65536

static struct {
    int active;
    int handle;
    uint32_t start;  /* file offset of block[0] */
    uint32_t length; /* bytes held */
    int32_t position; /* the position the caller sees */
    uint8_t block[READ_AHEAD_BYTES];
} ahead;

void ImgReadAheadBegin(int handle)
{
    ImgReadAheadEnd();
    if (userRead || userSeek || handle == IMG_MEMORY_HANDLE || handle <= 0)
        return;
    int32_t position = PlatformSeek(handle, 0, 1);
    if (position < 0)
        return;
    ahead.active = 1;
    ahead.handle = handle;
    ahead.position = position;
    ahead.length = 0;
}

void ImgReadAheadEnd(void)
{
    if (!ahead.active)
        return;
    PlatformSeek(ahead.handle, ahead.position, 0);
    ahead.active = 0;
}

/* Copies what the block holds at the position; refills it when the position
 * is outside.  The bytes copied, 0 at the end of the file, or a negative
 * result of the system read. */
static int32_t ReadAheadPart(uint8_t *buffer, uint32_t count)
{
    uint32_t position = (uint32_t)ahead.position;
    if (position < ahead.start || position >= ahead.start + ahead.length) {
        ahead.length = 0;
        if (PlatformSeek(ahead.handle, ahead.position, 0) < 0)
            return -1;
        int32_t got = PlatformRead(ahead.handle, ahead.block, READ_AHEAD_BYTES);
        if (got <= 0)
            return got;
        ahead.start = position;
        ahead.length = (uint32_t)got > READ_AHEAD_BYTES ? READ_AHEAD_BYTES : (uint32_t)got;
    }
    uint32_t held = ahead.start + ahead.length - position;
    uint32_t n = count < held ? count : held;
    memcpy(buffer, ahead.block + (position - ahead.start), n);
    ahead.position += (int32_t)n;
    return (int32_t)n;
}

static int32_t ReadAhead(void *buffer, uint32_t count)
{
    if (count >= READ_AHEAD_BYTES || (uint64_t)ahead.position + count > INT32_MAX) {
        /* a large read goes straight to the file */
        if (PlatformSeek(ahead.handle, ahead.position, 0) < 0)
            return -1;
        int32_t got = PlatformRead(ahead.handle, buffer, count);
        if (got > 0)
            ahead.position += got;
        return got;
    }
    uint32_t done = 0;
    while (done < count) {
        int32_t n = ReadAheadPart((uint8_t *)buffer + done, count - done);
        if (n <= 0)
            return done ? (int32_t)done : n;
        done += (uint32_t)n;
    }
    return (int32_t)done;
}

static int32_t SeekAhead(int32_t offset, int whence)
{
    int64_t target = whence == 0 ? offset : whence == 1 ? (int64_t)ahead.position + offset : -1;
    if (target < 0 || target > INT32_MAX) {
        /* the end of the file, or a position the system judges */
        int32_t result = PlatformSeek(ahead.handle, whence == 1 ? ahead.position : 0, 0);
        result = result < 0 ? result : PlatformSeek(ahead.handle, offset, whence);
        if (result >= 0)
            ahead.position = result;
        return result;
    }
    ahead.position = (int32_t)target;
    return ahead.position;
}

/* ---- the primitives ---- */

int32_t ImgRead(int handle, void *buffer, uint32_t count)
{
    if (userRead)
        return userRead(handle, buffer, (int32_t)count);
    if (handle == IMG_MEMORY_HANDLE)
        return MemoryTransfer(buffer, count, 0);
    if (ahead.active && handle == ahead.handle)
        return ReadAhead(buffer, count);
    return PlatformRead(handle, buffer, count);
}

int32_t ImgReadSome(int handle, void *buffer, uint32_t count)
{
    if (handle == IMG_MEMORY_HANDLE && !userRead && memoryPosition >= memorySize)
        return 0;
    return ImgRead(handle, buffer, count);
}

int32_t ImgWrite(int handle, const void *buffer, uint32_t count)
{
    if (userWrite)
        return userWrite(handle, (void *)buffer, (int32_t)count);
    if (handle == IMG_MEMORY_HANDLE)
        return MemoryTransfer((void *)buffer, count, 1);
    if (ahead.active && handle == ahead.handle)
        ImgReadAheadEnd();
    return PlatformWrite(handle, buffer, count);
}

int32_t ImgSeek(int handle, int32_t offset, int whence)
{
    if (userSeek)
        return userSeek(handle, offset, whence);
    if (handle == IMG_MEMORY_HANDLE)
        return MemorySeek(offset, whence);
    if (ahead.active && handle == ahead.handle)
        return SeekAhead(offset, whence);
    return PlatformSeek(handle, offset, whence);
}

int32_t ImgFileSize(int handle)
{
    if (handle == IMG_MEMORY_HANDLE && !userSeek)
        return (int32_t)memoryPosition; /* the position, not the block size */
    int32_t position = ImgSeek(handle, 0, 1);
    int32_t end = ImgSeek(handle, 0, 2);
    ImgSeek(handle, position, 0);
    return end;
}

bool ImgSourceSizeKnown(int handle)
{
    return handle != IMG_MEMORY_HANDLE || userSeek || memorySize != IMG_MEMORY_UNBOUNDED;
}

uint32_t ImgTell(void)
{
    return memoryPosition;
}

uint32_t ImgPosition(int handle)
{
    if (handle == IMG_MEMORY_HANDLE)
        return memoryPosition;
    int32_t position = ImgSeek(handle, 0, 1);
    return position < 0 ? 0 : (uint32_t)position;
}

/* ---- files by name ---- */

int ImgOpen(const char *path, int mode)
{
    return PlatformOpen(path, mode);
}

int ImgClose(int handle)
{
    if (ahead.active && handle == ahead.handle)
        ahead.active = 0;
    return PlatformClose(handle);
}

int ImgDelete(const char *path)
{
    return PlatformDelete(path);
}

int ImgCreateBeside(const char *target, char *path, size_t size)
{
    return PlatformCreateBeside(target, path, size);
}

int ImgCopyFile(int from, int to)
{
    ImgBuffer buffer(IMG_CHUNK_SIZE);
    if (!buffer)
        return IMG_ERR_MEMORY;
    /* A read error looks like the end of the file: the length tells them apart. */
    int32_t length = PlatformSeek(from, 0, 2);
    if (length < 0 || PlatformSeek(from, 0, 0) < 0)
        return IMG_ERR_READ;
    int64_t copied = 0;
    int32_t got;
    while ((got = PlatformRead(from, buffer.get(), IMG_CHUNK_SIZE)) > 0) {
        if (PlatformWrite(to, buffer.get(), (uint32_t)got) != got)
            return IMG_ERR_WRITE;
        copied += got;
    }
    if (copied != length)
        return IMG_ERR_READ;
    return PlatformSeek(to, 0, 0) < 0 ? IMG_ERR_WRITE : 0;
}

int ImgFlush(int handle)
{
    return PlatformFlush(handle);
}

int ImgReplace(const char *from, const char *to)
{
    return PlatformReplace(from, to);
}

int ImgOpenTemp(char *pathBuffer, int mode)
{
    if (!pathBuffer)
        return -1;
    if (mode == 0)
        return PlatformTempName(pathBuffer) < 0 ? -1 : PlatformOpen(pathBuffer, 2);
    if (mode == 1)
        return PlatformOpen(pathBuffer, 0);
    return -1;
}

/* ---- memory helpers ---- */

static int AllocationFails(void)
{
    if (failCountdown < 0)
        return 0;
    if (failCountdown == 0) {
        failCountdown = -1;
        return 1;
    }
    failCountdown--;
    return 0;
}

void ImgTestFailAllocations(int countdown)
{
    failCountdown = countdown;
}

void ImgTestFillAllocations(int byte)
{
    fillByte = byte;
}

void *ImgAlloc(size_t size)
{
    void *block = AllocationFails() ? NULL : PlatformAlloc(size);
    if (block && fillByte >= 0)
        memset(block, fillByte, size);
    return block;
}

void *ImgRealloc(void *pointer, size_t size)
{
    return AllocationFails() ? NULL : PlatformRealloc(pointer, size);
}

void ImgFree(void *pointer)
{
    PlatformFree(pointer);
}

void *ImgAllocTracked(size_t size)
{
    int slot = 0;
    while (slot < IMG_TRACKED_SLOTS && trackedTable[slot])
        slot++;
    if (slot == IMG_TRACKED_SLOTS)
        return NULL; /* a full table must not be overrun (docs/DEVIATIONS.md) */
    void *pointer = ImgAlloc(size);
    trackedTable[slot] = pointer;
    return pointer;
}

void ImgFreeTracked(void *pointer)
{
    if (!pointer)
        return;
    for (int slot = 0; slot < IMG_TRACKED_SLOTS; slot++) {
        if (trackedTable[slot] == pointer) {
            ImgFree(pointer);
            trackedTable[slot] = NULL;
            return;
        }
    }
}

void ImgFreeAllTracked(void)
{
    for (int slot = IMG_TRACKED_SLOTS - 1; slot >= 0; slot--) {
        if (trackedTable[slot]) {
            ImgFree(trackedTable[slot]);
            trackedTable[slot] = NULL;
        }
    }
}

int ImgTrackedCount(void)
{
    int count = 0;
    for (int slot = 0; slot < IMG_TRACKED_SLOTS; slot++)
        count += trackedTable[slot] != NULL;
    return count;
}

/* ---- the bitmap name texts ---- */

static void CopyBounded(char *target, size_t size, const char *source)
{
    size_t n = strlen(source);
    if (n >= size)
        n = size - 1; /* bounded to the target's size */
    memcpy(target, source, n);
    target[n] = '\0';
}

const char *ImgBitmapNameText(void)
{
    return bitmapNameText;
}

const char *ImgBitmapNameDate(void)
{
    return bitmapNameDate;
}

void ImgStoreBitmapName(const char *text, const char *date)
{
    if (text)
        CopyBounded(bitmapNameText, sizeof bitmapNameText, text);
    if (date)
        CopyBounded(bitmapNameDate, sizeof bitmapNameDate, date);
}

/* ---- exported ---- */

int32_t IMGAPI IMGLOW_set_fileio(IMG_READ_FUNC read, IMG_WRITE_FUNC write, IMG_SEEK_FUNC seek)
{
    return Guarded([&]() -> int32_t {
        userRead = read;
        userWrite = write;
        userSeek = seek;
        return 0;
    });
}

int32_t IMGAPI IMGLOW_get_bitmap_name(char *text, char *date)
{
    return Guarded([&]() -> int32_t {
        if (text)
            memcpy(text, bitmapNameText, strlen(bitmapNameText) + 1);
        if (date)
            memcpy(date, bitmapNameDate, strlen(bitmapNameDate) + 1);
        return 0;
    });
}

int32_t IMGAPI IMGLOW_set_bitmap_name(const char *text, const char *date)
{
    return Guarded([&]() -> int32_t {
        ImgStoreBitmapName(text, date);
        return 0;
    });
}
