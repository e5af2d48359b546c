/*
 * posix.cpp - platform layer over malloc and POSIX file descriptors.
 *
 * Global memory blocks do not exist here.  To give ImgSetMemorySource the
 * block size it asks for, every block this layer hands out is recorded in a
 * small open-addressing table (pointer -> size).  A pointer that is not in
 * the table (a caller's own memory, or the middle of one of our blocks) has
 * no known size, exactly as a non-global pointer on Windows.
 */
#ifndef _WIN32

#define _POSIX_C_SOURCE 200809L
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef O_NOFOLLOW
#define O_NOFOLLOW 0
#endif

typedef struct {
    void *pointer;   /* NULL: empty slot */
    size_t size;     /* the size asked for: what PlatformBlockSize reports */
    size_t capacity; /* the bytes malloc gave (more when reused from the cache) */
} BlockEntry;

static BlockEntry *blockTable;
static size_t blockCapacity; /* power of two */
static size_t blockCount;

static size_t BlockSlot(const void *pointer)
{
    uintptr_t v = (uintptr_t)pointer;
    v ^= v >> 17;
    v *= (uintptr_t)0x9E3779B97F4A7C15ull;
    v ^= v >> 29;
    return (size_t)v & (blockCapacity - 1);
}

static BlockEntry *BlockFind(const void *pointer)
{
    if (!blockTable || !pointer)
        return NULL;
    for (size_t i = BlockSlot(pointer);; i = (i + 1) & (blockCapacity - 1)) {
        if (blockTable[i].pointer == pointer)
            return &blockTable[i];
        if (!blockTable[i].pointer)
            return NULL;
    }
}

static void BlockInsertRaw(void *pointer, size_t size, size_t capacity)
{
    size_t i = BlockSlot(pointer);
    while (blockTable[i].pointer)
        i = (i + 1) & (blockCapacity - 1);
    blockTable[i].pointer = pointer;
    blockTable[i].size = size;
    blockTable[i].capacity = capacity;
}

static int BlockGrow(void)
{
    size_t oldCapacity = blockCapacity;
    BlockEntry *old = blockTable;
    size_t capacity = oldCapacity ? oldCapacity * 2 : 256;
    BlockEntry *table = static_cast<BlockEntry *>(calloc(capacity, sizeof *table));
    if (!table)
        return -1;
    blockTable = table;
    blockCapacity = capacity;
    for (size_t i = 0; i < oldCapacity; i++)
        if (old[i].pointer)
            BlockInsertRaw(old[i].pointer, old[i].size, old[i].capacity);
    free(old);
    return 0;
}

static int BlockInsert(void *pointer, size_t size, size_t capacity)
{
    if ((blockCount + 1) * 2 > blockCapacity && BlockGrow() < 0)
        return -1;
    BlockInsertRaw(pointer, size, capacity);
    blockCount++;
    return 0;
}

/* Removal with backward shifting, so that probe chains stay unbroken. */
static void BlockRemove(BlockEntry *entry)
{
    size_t hole = (size_t)(entry - blockTable);
    size_t mask = blockCapacity - 1;
    blockTable[hole].pointer = NULL;
    for (size_t i = (hole + 1) & mask; blockTable[i].pointer; i = (i + 1) & mask) {
        size_t home = BlockSlot(blockTable[i].pointer);
        /* Move the entry into the hole when its home is not between hole and i. */
        if (((i - home) & mask) >= ((i - hole) & mask)) {
            blockTable[hole] = blockTable[i];
            blockTable[i].pointer = NULL;
            hole = i;
        }
    }
    blockCount--;
}

/* ---- freed large blocks kept for reuse ----
 * A batch allocates and frees the same large blocks page after page: run
 * stores, pixel blocks, working rows.  malloc gives memory of that size back
 * to the system on free, and every 4 KB page of it then costs a fault when
 * the next block touches it again (several microseconds each in a virtual
 * machine: more than decoding a fax page's codes).  So the last few large
 * blocks freed are kept and handed out again for a request they fit.  Under
 * AddressSanitizer nothing is kept, so that a use after free is still seen. */
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TRNW_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(TRNW_ADDRESS_SANITIZER)
#define CACHE_SLOTS 0
#else
#define CACHE_SLOTS 8
#endif
#define CACHE_MIN_BYTES ((size_t)128 << 10)
#define CACHE_MAX_BYTES ((size_t)32 << 20) /* all cached blocks together */
#define CACHE_MAX_SLACK 16                 /* a block serves requests down to 1/16 of it */

typedef struct {
    void *pointer;
    size_t capacity;
} CachedBlock;

static CachedBlock cache[CACHE_SLOTS + 1]; /* oldest first */
static int cacheCount;
static size_t cacheBytes;

static bool Fits(size_t capacity, size_t size)
{
    return size <= capacity && capacity / CACHE_MAX_SLACK <= size;
}

/* Takes the smallest cached block that fits `size`; NULL when none does. */
static void *CacheTake(size_t size, size_t *capacity)
{
    int best = -1;
    if (size < CACHE_MIN_BYTES)
        return NULL;
    for (int i = 0; i < cacheCount; i++)
        if (Fits(cache[i].capacity, size) && (best < 0 || cache[i].capacity < cache[best].capacity))
            best = i;
    if (best < 0)
        return NULL;
    void *pointer = cache[best].pointer;
    *capacity = cache[best].capacity;
    cacheBytes -= *capacity;
    cacheCount--;
    memmove(&cache[best], &cache[best + 1], (size_t)(cacheCount - best) * sizeof cache[0]);
    return pointer;
}

/* Keeps a freed block, giving back the oldest ones beyond the budget. */
static void CacheKeep(void *pointer, size_t capacity)
{
    if (CACHE_SLOTS == 0 || capacity < CACHE_MIN_BYTES || capacity > CACHE_MAX_BYTES) {
        free(pointer);
        return;
    }
    cache[cacheCount++] = CachedBlock{pointer, capacity};
    cacheBytes += capacity;
    while (cacheCount > CACHE_SLOTS || cacheBytes > CACHE_MAX_BYTES) {
        free(cache[0].pointer);
        cacheBytes -= cache[0].capacity;
        cacheCount--;
        memmove(&cache[0], &cache[1], (size_t)cacheCount * sizeof cache[0]);
    }
}

void *PlatformAlloc(size_t size)
{
    size_t capacity = size ? size : 1;
    void *pointer = CacheTake(size, &capacity);
    if (!pointer && !(pointer = malloc(capacity)))
        return NULL;
    if (BlockInsert(pointer, size, capacity) < 0) {
        CacheKeep(pointer, capacity);
        return NULL;
    }
    return pointer;
}

void *PlatformRealloc(void *pointer, size_t size)
{
    if (!pointer)
        return PlatformAlloc(size);
    BlockEntry *entry = BlockFind(pointer);
    if (!entry)
        return NULL; /* not a block of this layer: it cannot be resized */
    if (Fits(entry->capacity, size)) {
        entry->size = size;
        return pointer;
    }
    size_t capacity = size ? size : 1;
    void *moved = CacheTake(size, &capacity);
    if (moved) {
        memcpy(moved, pointer, entry->size < size ? entry->size : size);
        CacheKeep(pointer, entry->capacity);
    } else if (!(moved = realloc(pointer, capacity))) {
        return NULL;
    }
    BlockRemove(entry);
    BlockInsertRaw(moved, size, capacity); /* the slot just freed guarantees room */
    blockCount++;
    return moved;
}

void PlatformFree(void *pointer)
{
    BlockEntry *entry = BlockFind(pointer);
    if (!entry)
        return;
    size_t capacity = entry->capacity;
    BlockRemove(entry);
    CacheKeep(pointer, capacity);
}

size_t PlatformBlockSize(const void *pointer)
{
    BlockEntry *entry = BlockFind(pointer);
    return entry ? entry->size : 0;
}

int PlatformOpen(const char *path, int mode)
{
    int fd;
    if (!path)
        return -1;
    switch (mode) {
    case 0:
        fd = open(path, O_RDONLY);
        break;
    case 1:
        fd = open(path, O_RDWR);
        break;
    case 2:
        fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
        break;
    case 3:
        return access(path, F_OK) == 0 ? 0 : -1;
    default:
        return -1;
    }
    return fd < 0 ? -1 : fd;
}

int32_t PlatformRead(int file, void *buffer, uint32_t count)
{
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = read(file, (char *)buffer + done, count - done);
        if (n <= 0)
            break;
        done += (uint32_t)n;
    }
    return (int32_t)done;
}

int32_t PlatformWrite(int file, const void *buffer, uint32_t count)
{
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = write(file, (const char *)buffer + done, count - done);
        if (n <= 0)
            break;
        done += (uint32_t)n;
    }
    return (int32_t)done;
}

int32_t PlatformSeek(int file, int32_t offset, int whence)
{
    int how = whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : SEEK_END;
    off_t position = lseek(file, (off_t)offset, how);
    return position < 0 || position > INT32_MAX ? -1 : (int32_t)position;
}

int PlatformClose(int file)
{
    return close(file);
}

int PlatformDelete(const char *path)
{
    return unlink(path);
}

int PlatformCreateBeside(const char *target, char *path, size_t size)
{
    static unsigned serial;
    if (!target || !path)
        return -1;
    const char *slash = strrchr(target, '/');
    int folder = slash ? (int)(slash - target) + 1 : 0;
    for (int attempt = 0; attempt < 100; attempt++) {
        int n = snprintf(path, size, "%.*s.trnw-%ld-%u.tmp", folder, target, (long)getpid(), ++serial);
        if (n < 0 || (size_t)n >= size)
            return -1;
        int fd = open(path, O_RDWR | O_CREAT | O_EXCL, 0644);
        if (fd < 0 && errno == EEXIST)
            continue; /* a name left by another process: the next one */
        if (fd < 0)
            return -1;
        struct stat existing;
        if (stat(target, &existing) == 0)
            fchmod(fd, existing.st_mode & 07777);
        return fd;
    }
    return -1;
}

int PlatformFlush(int file)
{
    return fsync(file) == 0 ? 0 : -1;
}

int PlatformReplace(const char *from, const char *to)
{
    return rename(from, to) == 0 ? 0 : -1;
}

int PlatformTempName(char *buffer)
{
    const char *dir = getenv("TMPDIR");
    if (!dir || !*dir)
        dir = "/tmp";
    size_t length = strlen(dir);
    int slash = dir[length - 1] != '/';
    if (length + (size_t)slash > 100)
        return -1;
    /* The process id keeps two processes from sharing the scratch file;
     * the name is still the same on every call within one process. */
    snprintf(buffer, 160, "%s%simg1-%ld.tmp", dir, slash ? "/" : "", (long)getpid());
    return 0;
}

#endif /* !_WIN32 */
