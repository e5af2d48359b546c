/*
 * win32.cpp - platform layer over KERNEL32: moveable global memory blocks
 * locked for their whole life, and the 16-bit style file calls OpenFile,
 * _lread, _lwrite, _llseek and _lclose.
 */
#ifdef _WIN32

#include "platform/platform.h"

#include <stdio.h>
#include <string.h>
#include <windows.h>

void *PlatformAlloc(size_t size)
{
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, size ? size : 1);
    if (!block)
        return NULL;
    void *pointer = GlobalLock(block);
    if (!pointer)
        GlobalFree(block);
    return pointer;
}

void *PlatformRealloc(void *pointer, size_t size)
{
    if (!pointer)
        return PlatformAlloc(size);
    HGLOBAL block = GlobalHandle(pointer);
    if (!block)
        return NULL;
    GlobalUnlock(block);
    HGLOBAL moved = GlobalReAlloc(block, size ? size : 1, GMEM_MOVEABLE);
    if (!moved) {
        GlobalLock(block); /* the old block stays valid and locked */
        return NULL;
    }
    return GlobalLock(moved);
}

void PlatformFree(void *pointer)
{
    if (!pointer)
        return;
    HGLOBAL block = GlobalHandle(pointer);
    if (!block)
        return;
    GlobalUnlock(block);
    GlobalFree(block);
}

size_t PlatformBlockSize(const void *pointer)
{
    if (!pointer)
        return 0;
    HGLOBAL block = GlobalHandle(pointer);
    if (!block)
        return 0;
    /* GlobalHandle also answers for addresses inside a block; only the start
     * of a block is a block. */
    if (GlobalLock(block) != pointer) {
        GlobalUnlock(block);
        return 0;
    }
    GlobalUnlock(block);
    if (GlobalFlags(block) & GMEM_DISCARDED)
        return 0;
    return GlobalSize(block);
}

int PlatformOpen(const char *path, int mode)
{
    static const UINT styles[4] = {
        OF_READ | OF_SHARE_DENY_NONE,
        OF_READWRITE | OF_SHARE_DENY_NONE,
        OF_CREATE | OF_READWRITE | OF_SHARE_DENY_NONE,
        OF_EXIST,
    };
    OFSTRUCT info;
    if (!path || mode < 0 || mode > 3)
        return -1;
    if (strlen(path) >= OFS_MAXPATHNAME) {
        /* OpenFile is limited to 128 characters; longer paths go to CreateFileA. */
        static const DWORD access[4] = {GENERIC_READ, GENERIC_READ | GENERIC_WRITE,
                                        GENERIC_READ | GENERIC_WRITE, 0};
        static const DWORD disposition[4] = {OPEN_EXISTING, OPEN_EXISTING, CREATE_ALWAYS,
                                             OPEN_EXISTING};
        HANDLE file = CreateFileA(path, access[mode], FILE_SHARE_READ | FILE_SHARE_WRITE, NULL,
                                  disposition[mode], FILE_ATTRIBUTE_NORMAL, NULL);
        if (file == INVALID_HANDLE_VALUE)
            return -1;
        if (mode == 3) {
            CloseHandle(file);
            return 0;
        }
        return (int)(intptr_t)file;
    }
    HFILE file = OpenFile(path, &info, styles[mode]);
    if (file == HFILE_ERROR)
        return -1;
    return mode == 3 ? 0 : (int)file;
}

int32_t PlatformRead(int file, void *buffer, uint32_t count)
{
    UINT n = _lread((HFILE)file, buffer, count);
    return n == (UINT)HFILE_ERROR ? 0 : (int32_t)n;
}

int32_t PlatformWrite(int file, const void *buffer, uint32_t count)
{
    UINT n = _lwrite((HFILE)file, (LPCCH)buffer, count);
    return n == (UINT)HFILE_ERROR ? 0 : (int32_t)n;
}

int32_t PlatformSeek(int file, int32_t offset, int whence)
{
    int origin = whence == 0 ? FILE_BEGIN : whence == 1 ? FILE_CURRENT : FILE_END;
    LONG position = _llseek((HFILE)file, offset, origin);
    return position == HFILE_ERROR ? -1 : (int32_t)position;
}

int PlatformClose(int file)
{
    return _lclose((HFILE)file) == HFILE_ERROR ? -1 : 0;
}

int PlatformDelete(const char *path)
{
    return DeleteFileA(path) ? 0 : -1;
}

int PlatformCreateBeside(const char *target, char *path, size_t size)
{
    static unsigned serial;
    if (!target || !path)
        return -1;
    int folder = 0;
    for (int i = 0; target[i]; i++)
        if (target[i] == '\\' || target[i] == '/' || target[i] == ':')
            folder = i + 1;
    for (int attempt = 0; attempt < 100; attempt++) {
        int n = snprintf(path, size, "%.*strnw%lu-%u.tmp", folder, target,
                         (unsigned long)GetCurrentProcessId(), ++serial);
        if (n < 0 || (size_t)n >= size)
            return -1;
        /* A handle of CreateFileA serves the _l calls, as in PlatformOpen. */
        HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  NULL, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, NULL);
        if (file != INVALID_HANDLE_VALUE)
            return (int)(intptr_t)file;
        if (GetLastError() != ERROR_FILE_EXISTS)
            return -1;
    }
    return -1;
}

int PlatformFlush(int file)
{
    return FlushFileBuffers((HANDLE)(intptr_t)file) ? 0 : -1;
}

int PlatformReplace(const char *from, const char *to)
{
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ? 0 : -1;
}

int PlatformTempName(char *buffer)
{
    char dir[MAX_PATH];
    DWORD length = GetTempPathA(101, dir);
    if (length == 0 || length > 100)
        return -1;
    /* Unique number 1: the same name on every call; the service does not create it. */
    if (GetTempFileNameA(dir, "img", 1, buffer) == 0)
        return -1;
    return 0;
}

#endif /* _WIN32 */
