/*
 * fuzz_dcx.cpp - libFuzzer target for the DCX reader and page counter: the
 * first byte picks the page (0 to 3), the rest is the DCX file
 * (fuzz/reader_sinks.h lists what is checked).
 */
#include "fuzz/reader_sinks.h"
#include "formats/pcx.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    uint32_t page = data[0] & 3;
    FuzzReaderSinks sinks{.target = "fuzz_dcx"};
    sinks.Run(DcxRead, page ? IMG_PAGE_FLAG | page : 0, data + 1, size - 1);
    ImgSeek(IMG_MEMORY_HANDLE, 0, 0);
    if (DcxCountPages(IMG_MEMORY_HANDLE) > 65536)
        sinks.Fail("more pages than the longest table");
    return 0;
}
