/*
 * fuzz_xbm.cpp - libFuzzer target for the XBM reader: the input is X bitmap
 * text read from offset 0.  Beyond the checks of fuzz/reader_sinks.h, the
 * reader guarantees (docs/DEVIATIONS.md, "XBM"):
 *   - a 1-bit header with black as entry 0 and white as entry 1;
 *   - rows top first, each once: 0 only with every row delivered.
 */
#include "fuzz/reader_sinks.h"
#include "formats/xbm.h"

static void CheckXbmHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    const uint8_t *palette = h + DIB_HEADER_SIZE;
    if (s.bits != 1 || GetLE32(palette) != 0 || GetLE32(palette + 4) != 0x00FFFFFFu)
        s.Fail("not a black-and-white 1-bit header");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    FuzzReaderSinks sinks{.target = "fuzz_xbm", .successCode = 0, .requireEveryRow = true,
                          .rowsInOrder = true, .checkHeader = CheckXbmHeader};
    sinks.Run(XbmRead, 0, data, size);
    return 0;
}
