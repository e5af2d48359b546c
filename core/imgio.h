/*
 * imgio.h - the I/O layer (internal): byte source and sink over one
 * integer handle, the memory image, files by name, the scratch file, memory
 * helpers, tracked allocations and the bitmap name texts.
 */
#ifndef TRNW_IMGIO_H
#define TRNW_IMGIO_H

#include <stddef.h>
#include <stdint.h>

#include <memory>

#define IMG_MEMORY_HANDLE 32767          /* names the memory image */
#define IMG_MEMORY_UNBOUNDED 0x70000000u /* size of a memory image of unknown size */
#define IMG_CHUNK_SIZE 10000             /* the I/O block of readers and decoders */
#define IMG_TRACKED_SLOTS 30
#define IMG_NAME_TEXT_SIZE 200
#define IMG_NAME_DATE_SIZE 40
#define IMG_TEMP_PATH_SIZE 260           /* room a caller gives ImgOpenTemp */

/* Byte-level primitives. */
int32_t ImgRead(int handle, void *buffer, uint32_t count);
int32_t ImgWrite(int handle, const void *buffer, uint32_t count);
/* ImgRead that tells where the data ends: for the memory image the bytes it
 * copies (0 at or past its end) rather than the whole count. */
int32_t ImgReadSome(int handle, void *buffer, uint32_t count);
int32_t ImgSeek(int handle, int32_t offset, int whence);
/* Read-ahead: reads of `handle` served from a 64 KB block until ImgReadAheadEnd
 * (or a write or close of the handle); nothing for the memory image or when
 * caller I/O functions are set.  One handle at a time. */
void ImgReadAheadBegin(int handle);
void ImgReadAheadEnd(void);
int32_t ImgFileSize(int handle);
/* False for a memory image set up without its size (unbounded): there the
 * end of the data cannot be found by seeking from the end. */
bool ImgSourceSizeKnown(int handle);
uint32_t ImgTell(void);
/* The position of `handle`: the memory image's own, or the file's (0 when
 * it cannot be told). */
uint32_t ImgPosition(int handle);
void ImgSetMemorySource(void *pointer);
/* Sized set-up for platforms where a block's size cannot be found from its
 * pointer; size 0 means unknown (unbounded). */
void ImgSetMemorySourceSized(void *pointer, uint32_t size);

/* Files by name. */
int ImgOpen(const char *path, int mode);
int ImgClose(int handle);
int ImgDelete(const char *path);
int ImgOpenTemp(char *pathBuffer, int mode);
/* Replacing a file only once its successor is complete: a new file in the
 * folder of `target` (its path into `path`, `size` bytes of room; -1 on
 * failure), the whole of an open file copied into it, its data written
 * through to the disk, and the rename over the target.  These use the
 * system's file calls, never the caller I/O functions. */
int ImgCreateBeside(const char *target, char *path, size_t size);
/* Copies `from` from its start to `to` and leaves `to` at its start:
 * 0, IMG_ERR_READ, IMG_ERR_WRITE or IMG_ERR_MEMORY. */
int ImgCopyFile(int from, int to);
int ImgFlush(int handle);
int ImgReplace(const char *from, const char *to);

/* Memory helpers. */
void *ImgAlloc(size_t size);
void *ImgRealloc(void *pointer, size_t size);
void ImgFree(void *pointer);
void *ImgAllocTracked(size_t size);
void ImgFreeTracked(void *pointer);
void ImgFreeAllTracked(void);
int ImgTrackedCount(void);

/* The bitmap name texts that writers stamp into files. */
const char *ImgBitmapNameText(void);
const char *ImgBitmapNameDate(void);
void ImgStoreBitmapName(const char *text, const char *date);

/* Test hook: the allocation after `countdown` more successful ones fails;
 * a negative value switches the failure off. */
void ImgTestFailAllocations(int countdown);
/* Test hook: blocks allocated from now on come filled with `byte`, as a
 * block that held other data might; a negative value switches it off. */
void ImgTestFillAllocations(int byte);

/* Owners that release on every path: a block from ImgAlloc, freed with
 * ImgFree, and a handle from ImgOpen or ImgOpenTemp, closed with ImgClose. */
struct ImgFreeDeleter {
    void operator()(void *pointer) const noexcept { ImgFree(pointer); }
};

template <class T = uint8_t>
class ImgBlock : public std::unique_ptr<T, ImgFreeDeleter> {
  public:
    explicit ImgBlock(size_t count)
        : std::unique_ptr<T, ImgFreeDeleter>(static_cast<T *>(ImgAlloc(count * sizeof(T))))
    {
    }
};
using ImgBuffer = ImgBlock<uint8_t>;

class ImgFile {
  public:
    explicit ImgFile(int handle) : handle_(handle) {}
    ImgFile(const ImgFile &) = delete;
    ImgFile &operator=(const ImgFile &) = delete;
    ~ImgFile()
    {
        if (handle_ >= 0)
            ImgClose(handle_);
    }
    int get() const { return handle_; }
    bool ok() const { return handle_ >= 0; }

  private:
    int handle_;
};

#endif /* TRNW_IMGIO_H */
