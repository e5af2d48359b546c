/*
 * test_support.h - shared fixture for the GoogleTest suites.  The library's
 * state is process-wide; under wine every test runs in one process, so each
 * test starts from, and leaves behind, an empty image table and default I/O.
 */
#ifndef TRNW_TEST_SUPPORT_H
#define TRNW_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "core/runs.h"
#include "platform/platform.h"

#ifdef _WIN32
#include <process.h>
inline int TestProcessId() { return _getpid(); }
#else
#include <unistd.h>
inline int TestProcessId() { return (int)getpid(); }
#endif

class TrnwTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(ImgTableCount(), 0) << "a previous test left images behind"; }
    void TearDown() override
    {
        for (int32_t h = ImgTableCount() - 1; h >= 0; h--) {
            ImgDescriptor *d = ImgTableGet(h);
            if (d && d->callerOwnsDib)
                IMG_delete_bitmap_keep(h); // a test's own DIB is freed by its TestDib
            else if (d)
                IMG_delete_bitmap(h);
        }
        // Slots left occupied by IMG_create_handle_keep's -3 are empty descriptors.
        while (ImgTableCount() > 0)
            ImgTableDelete(ImgTableCount() - 1, 1);
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        ImgTestFailAllocations(-1);
        ImgFreeAllTracked();
        ImgStoreBitmapName("1996 TARNWHEEL, ALL RIGHTS RESERVED", "11-24-1992");
    }

    // A path for a scratch file of this test, in the system's temporary
    // directory; the process id keeps tests running in parallel apart.
    static std::string TempPath(const std::string &name)
    {
        std::string unique = std::to_string((long)TestProcessId()) + "_" + name;
        const char *dir = std::getenv("TRNW_TEST_TMP");
#ifdef _WIN32
        std::string base = dir ? dir : (std::getenv("TEMP") ? std::getenv("TEMP") : ".");
        return base + "\\trnw_" + unique;
#else
        std::string base = dir ? dir : (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
        std::string cmd = "mkdir -p '" + base + "'";
        (void)!std::system(cmd.c_str());
        return base + "/trnw_" + unique;
#endif
    }
};

/* A packed DIB built in a block of ours (ImgAlloc), as the library's own
 * images are: header, palette, bottom-up rows. */
struct TestDib {
    uint8_t *block = nullptr;
    int32_t width = 0, height = 0, bits = 0, stride = 0;
    uint32_t paletteBytes = 0;

    TestDib(int32_t w, int32_t h, int b) : width(w), height(h), bits(b)
    {
        stride = (int32_t)DibStride((uint32_t)w, b);
        paletteBytes = DibPaletteSize(b);
        size_t size = 40 + paletteBytes + (size_t)stride * (size_t)h;
        block = static_cast<uint8_t *>(ImgAlloc(size));
        std::fill(block, block + size, 0);
        BITMAPINFOHEADER header{};
        header.biSize = 40;
        header.biWidth = w;
        header.biHeight = h;
        header.biPlanes = 1;
        header.biBitCount = (uint16_t)b;
        header.biSizeImage = (uint32_t)(stride * h);
        std::memcpy(block, &header, sizeof header);
        if (b == 1) {
            static const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
            std::memcpy(block + 40, bw, 8);
        }
    }
    ~TestDib() { ImgFree(block); }
    TestDib(const TestDib &) = delete;
    TestDib &operator=(const TestDib &) = delete;
    // Hands the block to the library (IMG_delete_bitmap will free it).
    uint8_t *Release()
    {
        uint8_t *b = block;
        block = nullptr;
        return b;
    }
    // Row r counted from the top.
    uint8_t *Row(int32_t r) { return block + 40 + paletteBytes + (size_t)(height - 1 - r) * stride; }
    uint8_t *Palette() { return block + 40; }
};

/* A library-owned image of the given geometry, zero bits (IMG_delete_bitmap
 * frees its block). */
inline int32_t NewImage(int32_t w, int32_t h, int bits)
{
    TestDib dib(w, h, bits);
    int32_t handle = IMG_create_handle_keep(dib.block);
    if (handle >= 0) {
        dib.Release();
        ImgTableGet(handle)->callerOwnsDib = 0;
    }
    return handle;
}

#endif /* TRNW_TEST_SUPPORT_H */
