/*
 * fuzz_pcx.cpp - libFuzzer target for the PCX reader: the input is a PCX
 * file read from offset 0 (fuzz/reader_sinks.h lists what is checked).
 */
#include "fuzz/reader_sinks.h"
#include "formats/pcx.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean an unbounded memory image */
    FuzzReaderSinks sinks{.target = "fuzz_pcx"};
    sinks.Run(PcxRead, 0, data, size);
    return 0;
}
