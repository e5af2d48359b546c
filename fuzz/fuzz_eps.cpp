/*
 * fuzz_eps.cpp - libFuzzer target for the EPS reader: the input is a DOS EPS
 * file read from offset 0, its TIFF preview through the TIFF reader (rows as
 * that reader hands them over; fuzz/reader_sinks.h lists what is checked).
 * A picture the sinks accepted is decoded once more through the library
 * (detection and the decode pipeline), and its image deleted.
 */
#include "fuzz/reader_sinks.h"
#include "core/imgapi.h"
#include "formats/eps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    FuzzReaderSinks sinks{.target = "fuzz_eps", .tiffRows = true};
    sinks.Run(EpsRead, 0, data, size);
    if (sinks.headerCalls == 1 && !sinks.refused) {
        int32_t handle = IMG_decompress_bitmap_mem_size(sinks.image.data(), (uint32_t)size, 0);
        if (handle >= 0)
            IMG_delete_bitmap(handle);
        ImgFreeAllTracked();
    }
    return 0;
}
