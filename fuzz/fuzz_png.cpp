/*
 * fuzz_png.cpp - libFuzzer target for the PNG reader: bit 0 of the first
 * byte picks the alpha background (white, or a colour, which turns grey
 * with alpha into 24 bits), the rest is the PNG file.  Before the run each
 * chunk's CRC is set right, so that mutations reach the chunks' handling
 * and the rows instead of stopping at libpng's CRC check.  Beyond the
 * checks of fuzz/reader_sinks.h, the reader guarantees:
 *   - no compression in the header, and biClrUsed 0 or a transparent
 *     index | 0x1000 of a picture below 24 bits;
 *   - success is 0, with every row delivered top row first.
 * A picture the checking sinks accepted is then decoded once more through
 * the library's sinks, into which the reader builds rows in place.
 */
#include <zlib.h>

#include "fuzz/reader_sinks.h"
#include "formats/png.h"
#include "core/imgapi.h"
#include "pipeline/decode.h"

static void CheckPngHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    uint32_t used = GetLE32(h + 32);
    if (GetLE32(h + 16) != 0 || (used != 0 && ((used & ~0xFFu) != DIB_TRANSPARENT_FLAG || s.bits == 24)))
        s.Fail("compression or a colour count in the header");
}

/* Sets the CRC of every whole chunk behind the 8-byte signature. */
FUZZ_NO_COVERAGE static void SetCrcs(std::vector<uint8_t> &file)
{
    for (size_t at = 8; at + 12 <= file.size();) {
        uint64_t length = GetBE32(&file[at]);
        if (length > file.size() - at - 12)
            break;
        uLong crc = crc32(0, &file[at + 4], (uInt)length + 4);
        PutBE32(&file[at + 8 + length], (uint32_t)crc);
        at += 12 + length;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    std::vector<uint8_t> file(data + 1, data + size);
    SetCrcs(file);
    PngSetAlphaBackground(data[0] & 1 ? 0x3080C0 : 0xFFFFFF);
    FuzzReaderSinks sinks{.target = "fuzz_png", .successCode = 0, .requireEveryRow = true, .rowsInOrder = true,
                          .checkHeader = CheckPngHeader};
    sinks.Run(PngRead, 0, file.data(), file.size());
    if (sinks.headerCalls == 1 && !sinks.refused) {
        ImgSetMemorySourceSized(sinks.image.data(), (uint32_t)sinks.image.size());
        int32_t handle = ImgDecodeWithReader(PngRead, 0, IMG_MEMORY_HANDLE);
        if (handle >= 0)
            IMG_delete_bitmap(handle);
    }
    return 0;
}
