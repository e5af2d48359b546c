/*
 * fuzz_gif.cpp - libFuzzer target for the GIF reader and image count: the
 * first byte picks the image (0 to 3), the rest is the GIF file.  Beyond
 * the checks of fuzz/reader_sinks.h, the reader guarantees
 * (docs/DEVIATIONS.md, "GIF"):
 *   - a header of 4 or 8 bits, width and height of 1 to 32767, no
 *     compression, and biClrUsed 0 or a transparent index | 0x1000;
 *   - success is 0; the image count is negative or between 1 and the
 *     number of image separators the input can hold.
 */
#include "fuzz/reader_sinks.h"
#include "formats/gif.h"

static void CheckGifHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    if (s.bits != 4 && s.bits != 8)
        s.Fail("bit count neither 4 nor 8");
    if (s.width > 32767 || s.height > 32767)
        s.Fail("geometry outside 1 .. 32767 reached the sink");
    uint32_t used = GetLE32(h + 32);
    if (GetLE32(h + 16) != 0 || (used != 0 && (used & ~0xFFu) != DIB_TRANSPARENT_FLAG))
        s.Fail("compression or a colour count in the header");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    uint32_t page = data[0] & 3;
    FuzzReaderSinks sinks{.target = "fuzz_gif", .successCode = 0, .checkHeader = CheckGifHeader};
    sinks.Run(GifRead, page ? IMG_PAGE_FLAG | page : 0, data + 1, size - 1);
    ImgSeek(IMG_MEMORY_HANDLE, 0, 0);
    int images = GifCountImages(IMG_MEMORY_HANDLE);
    if (images == 0 || images > (int)(size / 10) + 1)
        sinks.Fail("an image count the input cannot hold");
    return 0;
}
