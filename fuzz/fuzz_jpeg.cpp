/*
 * fuzz_jpeg.cpp - libFuzzer target for the JPEG reader: byte 0 picks the
 * size the decode aims at (0: none; n: n x n, so that libjpeg decodes
 * reduced), the rest is the stream, read from offset 1.  Beyond the checks
 * of fuzz/reader_sinks.h, the reader guarantees (docs/DEVIATIONS.md,
 * "JPEG"):
 *   - a header of 8 bits with a grey palette or of 24 bits, no compression,
 *     no colour counts;
 *   - rows in order from the top; 1 only with every row delivered.
 * A picture the checking sinks accepted is then decoded once more through
 * the library's sinks (which scale it to the size byte 0 gives, or let the
 * reader build rows in place).
 */
#include "fuzz/reader_sinks.h"
#include "codecs/jpeg.h"
#include "core/codec_settings.h"
#include "core/imgapi.h"
#include "pipeline/decode.h"

static void CheckJpegHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    if (GetLE32(h + 16) != 0 || GetLE32(h + 32) != 0 || GetLE32(h + 36) != 0)
        s.Fail("compression or colour counts in the header");
    if (s.bits != 8 && s.bits != 24)
        s.Fail("bit count neither 8 nor 24");
    for (int i = 0; s.bits == 8 && i < 256; i++)
        if (h[40 + 4 * i] != i || h[41 + 4 * i] != i || h[42 + 4 * i] != i)
            s.Fail("an 8-bit header without its grey palette");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 20))
        return 0;
    FuzzReaderSinks sinks{.target = "fuzz_jpeg", .requireEveryRow = true, .rowsInOrder = true,
                          .checkHeader = CheckJpegHeader};
    ImgSetDecodeTarget(data[0], data[0]);
    sinks.Run(JpegRead, 1, data, size);
    ImgSetDecodeTarget(0, 0);
    if (sinks.headerCalls == 1 && !sinks.refused) {
        ImgSetMemorySourceSized(sinks.image.data(), (uint32_t)size);
        IMGLOW_set_decompsize(data[0], data[0]);
        int32_t handle = ImgDecodeWithReader(JpegRead, 1, IMG_MEMORY_HANDLE);
        IMGLOW_set_decompsize(0, 0);
        if (handle >= 0)
            IMG_delete_bitmap(handle);
    }
    return 0;
}
