/*
 * fuzz_memory_io.c - libFuzzer target for the memory image of the I/O layer.
 *
 * The memory image is set over a copy of the input, allocated at exactly the
 * input's size (bit 0 of byte 0 chooses a block of ours with
 * ImgSetMemorySource, else a plain buffer with ImgSetMemorySourceSized).
 * The rest of the input is a program of ImgRead / ImgWrite / ImgSeek /
 * ImgFileSize calls on handle 32767.  Every transfer goes to or from a buffer
 * of exactly the count asked for, so ASan sees any access outside either the
 * image or the caller's buffer; a small model of the memory image's rules (read and
 * write copy min(count, size - position), claim the whole count at or past
 * the end, seeks unclamped) checks every result and aborts on a mismatch.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/imgio.h"

#define MEM IMG_MEMORY_HANDLE

static void Fail(const char *what, unsigned op)
{
    fprintf(stderr, "fuzz_memory_io: %s (operation %u)\n", what, op);
    abort();
}

/* Takes up to n bytes little-endian from the program; missing bytes are 0. */
static uint32_t Take(const uint8_t *data, size_t size, size_t *at, int n)
{
    uint32_t v = 0;
    for (int k = 0; k < n; k++) {
        uint32_t b = *at < size ? data[(*at)++] : 0;
        v |= b << (8 * k);
    }
    return v;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean "unbounded" */
    int ours = data[0] & 1;
    uint8_t *image = static_cast<uint8_t *>(ours ? ImgAlloc(size) : malloc(size));
    if (!image)
        return 0;
    memcpy(image, data, size);
    if (ours)
        ImgSetMemorySource(image);
    else
        ImgSetMemorySourceSized(image, (uint32_t)size);

    const uint32_t imageSize = (uint32_t)size;
    if (ImgTell() != 0)
        Fail("set-up does not start at position 0", 0);
    if (ImgSeek(MEM, 0, 2) != 0 || ImgTell() != imageSize)
        Fail("the memory image does not have the input's size", 0);
    ImgSeek(MEM, 0, 0);

    size_t at = 1;
    for (unsigned op = 1; at < size && op <= 512; op++) {
        uint8_t code = data[at++];
        uint32_t before = ImgTell();
        switch (code % 6) {
        case 0:   /* read */
        case 1: { /* write */
            uint32_t count = Take(data, size, &at, 2);
            if (code & 0x80)
                count %= imageSize + 1; /* a count of the image's own scale */
            uint8_t *buffer = static_cast<uint8_t *>(malloc(count ? count : 1));
            if (!buffer)
                break;
            memset(buffer, code, count);
            uint32_t n = before >= imageSize ? 0
                         : count < imageSize - before ? count
                                                      : imageSize - before;
            int32_t expected = before >= imageSize ? (int32_t)count : (int32_t)n;
            if (code % 6 == 0) {
                if (ImgRead(MEM, buffer, count) != expected)
                    Fail("read count", op);
                if (n && memcmp(buffer, image + before, n) != 0)
                    Fail("read copied the wrong bytes", op);
                for (uint32_t i = n; i < count; i++)
                    if (buffer[i] != code)
                        Fail("read wrote past the bytes it copied", op);
            } else {
                if (ImgWrite(MEM, buffer, count) != expected)
                    Fail("write count", op);
                for (uint32_t i = 0; i < n; i++)
                    if (image[before + i] != code)
                        Fail("write copied the wrong bytes", op);
            }
            if (ImgTell() != before + n)
                Fail("the position did not advance by the bytes moved", op);
            free(buffer);
            break;
        }
        case 2: { /* seek, any whence */
            int32_t offset = (int32_t)Take(data, size, &at, 4);
            int whence = (int)(Take(data, size, &at, 1) % 4);
            uint32_t target = whence == 0   ? (uint32_t)offset
                              : whence == 1 ? before + (uint32_t)offset
                                            : imageSize + (uint32_t)offset;
            if (ImgSeek(MEM, offset, whence) != 0)
                Fail("a memory seek does not return 0", op);
            if (ImgTell() != target)
                Fail("seek position", op);
            break;
        }
        case 3: { /* seek into (or just past) the image */
            uint32_t target = Take(data, size, &at, 2) % (imageSize + 8);
            ImgSeek(MEM, (int32_t)target, 0);
            if (ImgTell() != target)
                Fail("seek position", op);
            break;
        }
        case 4: /* ImgFileSize of the memory image is its position */
            if (ImgFileSize(MEM) != (int32_t)before || ImgTell() != before)
                Fail("ImgFileSize(32767) is not the position", op);
            break;
        default: { /* small relative step, forwards or back */
            int32_t step = (int8_t)Take(data, size, &at, 1);
            ImgSeek(MEM, step, 1);
            if (ImgTell() != before + (uint32_t)step)
                Fail("relative seek position", op);
            break;
        }
        }
    }

    if (ours)
        ImgFree(image);
    else
        free(image);
    return 0;
}
