/*
 * fuzz_tga.cpp - libFuzzer target for the Targa reader: the input is a Targa
 * file read from offset 0.  Beyond the checks of fuzz/reader_sinks.h, the
 * reader guarantees (docs/DEVIATIONS.md, "Targa"):
 *   - a header of 8 or 24 bits, width and height of 1 to 65535, and no
 *     compression or colour counts;
 *   - every row index exactly once: 1 only with every row delivered.
 */
#include "fuzz/reader_sinks.h"
#include "formats/tga.h"

static void CheckTgaHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    if (GetLE32(h + 16) != 0 || GetLE32(h + 32) != 0 || GetLE32(h + 36) != 0)
        s.Fail("compression or colour counts in the header");
    if (s.width > 65535 || s.height > 65535)
        s.Fail("geometry outside 1 .. 65535 reached the sink");
    if (s.bits != 8 && s.bits != 24)
        s.Fail("bit count neither 8 nor 24");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    FuzzReaderSinks sinks{.target = "fuzz_tga", .requireEveryRow = true,
                          .checkHeader = CheckTgaHeader};
    sinks.Run(TgaRead, 0, data, size);
    return 0;
}
