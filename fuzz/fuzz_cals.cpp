/*
 * fuzz_cals.cpp - libFuzzer target for the CALS raster reader: the input is
 * a CALS file read from offset 0.  Beyond the checks of fuzz/reader_sinks.h,
 * the reader guarantees (with our hardening, docs/DEVIATIONS.md):
 *   - a plain 1-bit header of width 1 .. 65534, equal non-negative
 *     resolutions, entry 0 black and entry 1 white;
 *   - rows in order, each a run record within the decoder's 5 * width + 400
 *     byte row buffer (zero-length runs can make it longer than the records
 *     the decode pipeline stores, which its sink refuses), and biSizeImage =
 *     (width + 7) / 8 * height;
 *   - 0 on success, and only with every row delivered.
 */
#include "fuzz/reader_sinks.h"
#include "formats/cals.h"

static void CheckCalsHeader(const uint8_t *h, const FuzzReaderSinks &s)
{
    if (s.bits != 1 || GetLE32(h + 16) != 0 || s.width > 65534)
        s.Fail("not a plain 1-bit header of width 1 .. 65534");
    if (GetLE32(h + 24) != GetLE32(h + 28) || (int32_t)GetLE32(h + 24) < 0)
        s.Fail("resolutions differ or are negative");
    if (GetLE32(h + 40) != 0 || GetLE32(h + 44) != 0x00FFFFFF)
        s.Fail("palette is not black, white");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    FuzzReaderSinks sinks{.target = "fuzz_cals", .successCode = 0, .requireEveryRow = true,
                          .rowsInOrder = true, .runRecords = true, .checkHeader = CheckCalsHeader};
    sinks.Run(CalsRead, 0, data, size);
    return 0;
}
