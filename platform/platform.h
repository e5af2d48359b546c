/*
 * platform.h - the only place that knows the operating system
 * (the layering allows no other).  posix.cpp and win32.cpp implement it.
 */
#ifndef TRNW_PLATFORM_H
#define TRNW_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

/* Memory blocks: moveable global blocks locked for their life (Win32) or
 * malloc blocks that the layer remembers (POSIX), so that the size of a block can be found
 * from its pointer. */
void *PlatformAlloc(size_t size);
void *PlatformRealloc(void *pointer, size_t size);
/* Frees a block of this layer; a pointer that is not the start of a block is
 * left alone. */
void PlatformFree(void *pointer);
/* The size of the block that starts at pointer; 0 when the pointer is not the
 * start of a live block, the block is discarded, or its size is 0. */
size_t PlatformBlockSize(const void *pointer);

/* Files by integer handle.  Open modes: 0 read, 1 read/write, 2 create
 * (truncate), 3 test existence (0 when it exists).  -1 on failure. */
int PlatformOpen(const char *path, int mode);
/* Read and write return the byte count moved; 0 on an error. */
int32_t PlatformRead(int file, void *buffer, uint32_t count);
int32_t PlatformWrite(int file, const void *buffer, uint32_t count);
/* Returns the new position, or -1. */
int32_t PlatformSeek(int file, int32_t offset, int whence);
int PlatformClose(int file);
int PlatformDelete(const char *path);
/* Creates a file that did not exist, open for reading and writing, in the
 * folder of `target`, and writes its path into `path` (`size` bytes of room).
 * Where files have permission bits, it takes those of an existing target.
 * Returns its handle, or -1. */
int PlatformCreateBeside(const char *target, char *path, size_t size);
/* Writes what the system holds of the file through to the disk.  0 or -1. */
int PlatformFlush(int file);
/* Renames `from` to `to` in one step, replacing a file that has that name.
 * 0 or -1. */
int PlatformReplace(const char *from, const char *to);

/* Writes the temporary directory (at most 100 characters, with its trailing
 * separator) followed by the fixed scratch name for prefix "img" and unique
 * number 1 into buffer.  Returns 0, or -1 when the directory is too long. */
int PlatformTempName(char *buffer);

#endif /* TRNW_PLATFORM_H */
