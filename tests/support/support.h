/*
 * support.h - what the test suites share: the fixture that keeps the
 * process-wide library state clean between tests, scratch files, external
 * tools used as independent oracles, pictures built through the public API
 * and rasters to compare.
 */
#ifndef TRNW_TEST_SUPPORT_SUPPORT_H
#define TRNW_TEST_SUPPORT_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/internal.h"

/* ---- files and tools ---- */

// A scratch path unique to this process, in TRNW_TEST_TMP, TMPDIR or TEMP.
std::string TempPath(const std::string &name);
std::vector<uint8_t> ReadFile(const std::string &path);
bool WriteFile(const std::string &path, const std::vector<uint8_t> &bytes);
// Runs a shell command with its output discarded; true when it exits 0.
// Always false under Windows, where the oracle tools are not run.
bool RunQuiet(const std::string &command);
// The full path of an installed tool, or "" (always "" under Windows).
std::string FindTool(const std::string &name);

/* ---- rasters ---- */

// Pixels as R,G,B bytes, top row first.
struct Raster {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
};
// The number of pixels that differ (by more than `tolerance` in a channel); -1 when the geometries differ.
long RasterDiff(const Raster &a, const Raster &b, int tolerance = 0);
// A binary PNM file (P4-P6) as a raster; width 0 when unreadable.
Raster ReadPnm(const std::string &path);
// Writes P4 (bilevel: black where the pixel is not white), P5 (the red
// channel) or P6, per `format`.
bool WritePnm(const std::string &path, const Raster &r, char format = '6');
// Runs `command` (which writes a PNM at `pnmPath`) and reads the result.
Raster ToolRaster(const std::string &command, const std::string &pnmPath);

/* ---- pictures: an image's palette and packed rows ---- */

// Pixel x of a packed DIB row: most significant bits first below 8 bits per
// pixel, little-endian bytes from 8 bits up.
uint32_t RowPixel(const uint8_t *row, int32_t x, int bits);
void SetRowPixel(uint8_t *row, int32_t x, int bits, uint32_t value);

struct Picture {
    int width = 0, height = 0, bits = 0;
    std::vector<uint8_t> palette;           // RGBQUADs (B,G,R,0), 2^bits of them below 24 bits
    std::vector<std::vector<uint8_t>> rows; // top first, DIB stride bytes (B,G,R at 24 bits)
    Raster Rgb() const;
    bool PaddedWith(int bit) const; // every row's bits past its last pixel, up to the stride
};
// A picture with a pattern: bilevel runs of both colours with some noise,
// colour (or grey ramp) palettes with varied indices, 24-bit gradients.
Picture MakePicture(int width, int height, int bits, uint32_t seed, bool grey = false);
// Random pixels of any depth (1, 4, 8, 16, 24 or 32 bits; padding zero),
// with MakePicture's palette below 16 bits.  Rgb() serves 1 to 24 bits.
Picture RandomPicture(int width, int height, int bits, uint32_t seed);
// A new library image holding the picture (public API only); -1 on failure.
int32_t ImageOf(const Picture &p);
// An image's contents through the public API.
Picture PictureOf(int32_t handle);
inline Raster ImageRgb(int32_t handle) { return PictureOf(handle).Rgb(); }
// Decodes a file (or memory image) through the public API into a raster;
// `status` gets the handle or error code.
Raster DecodeFile(const std::string &path, int32_t *status = nullptr, int *bits = nullptr);
Raster DecodeMemory(std::vector<uint8_t> bytes, int32_t *status = nullptr, int *bits = nullptr);
// The 40-byte header the reader of a file in memory hands on (zeros when none).
std::array<uint8_t, 40> ReaderHeader(std::vector<uint8_t> file);
// A save to memory: the file's bytes, or none with the error in `status`.
std::vector<uint8_t> SavedImage(int32_t handle, int32_t type, int32_t *status = nullptr);
std::vector<uint8_t> Saved(const Picture &p, int32_t type, int32_t *status = nullptr);
// A DOS EPS file: the 30-byte binary header, one line of PostScript, then
// `preview` (a TIFF), the header's offsets and lengths pointing at both.
std::vector<uint8_t> DosEps(const std::vector<uint8_t> &preview);

/* ---- the fixture ---- */

// The library's state is process-wide; under wine every test runs in one
// process, so each test starts from, and leaves behind, an empty image table,
// default I/O, no injected allocation failure and the default name texts.
class TrnwTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(ImgTableCount(), 0) << "a previous test left images behind"; }
    void TearDown() override;
    static std::string TempPath(const std::string &name) { return ::TempPath(name); }
};

/* A packed DIB in a block of the library's allocator, as its own images are:
 * header, palette (black and white at 1 bit), bottom-up rows. */
struct TestDib {
    uint8_t *block = nullptr;
    int32_t width = 0, height = 0, bits = 0, stride = 0;
    uint32_t paletteBytes = 0;
    TestDib(int32_t w, int32_t h, int b);
    ~TestDib() { ImgFree(block); }
    TestDib(const TestDib &) = delete;
    TestDib &operator=(const TestDib &) = delete;
    uint8_t *Release() { uint8_t *b = block; block = nullptr; return b; } // IMG_delete_bitmap frees it
    uint8_t *Row(int32_t r) { return block + 40 + paletteBytes + (size_t)(height - 1 - r) * stride; }
    uint8_t *Palette() { return block + 40; }
};

// A library-owned image of the given geometry with zero bits.
int32_t NewImage(int32_t w, int32_t h, int bits);

#endif /* TRNW_TEST_SUPPORT_SUPPORT_H */
