/*
 * reader_sinks.h - the sinks a reader's fuzz target hands it, checking what
 * every reader guarantees whatever the bytes:
 *   - the header sink is called at most once, before any row, with a
 *     40-byte header of width and height of at least 1, one plane, a bit
 *     count of 1, 4, 8 or 24 and biSizeImage = stride * height;
 *   - every row index lies in 0 .. height - 1 and every row is one stride
 *     long (or, when runsAllowed, a run record of 2 .. 10000 bytes); every
 *     byte handed over is read, so ASan sees a row reaching outside its buffer;
 *   - there are at most height deliveries;
 *   - the result is 1 (or 0 when zeroIsSuccess) or negative, success only
 *     after the header sink, and no tracked block is left behind.
 * The header sink refuses (-1, as the library's sink would for lack of
 * memory) pictures over 256 KiB or wider than 2^16 pixels, so that runs are
 * not spent on huge declared sizes.
 */
#ifndef TRNW_FUZZ_READER_SINKS_H
#define TRNW_FUZZ_READER_SINKS_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "core/bytes.h"
#include "core/contracts.h"
#include "core/dib.h"
#include "core/imgio.h"

struct FuzzReaderSinks {
    const char *target;
    bool runsAllowed = false;
    int headerCalls = 0;
    int32_t width = 0, height = 0;
    uint32_t stride = 0;
    int64_t deliveries = 0;
    uint32_t checksum = 0;
    std::vector<uint8_t> image; /* the memory image, kept for calls after Run */

    [[noreturn]] void Fail(const char *what) const
    {
        fprintf(stderr, "%s: %s\n", target, what);
        abort();
    }

    static int Header(const uint8_t *h, void *context)
    {
        FuzzReaderSinks *s = static_cast<FuzzReaderSinks *>(context);
        if (++s->headerCalls != 1 || s->deliveries != 0)
            s->Fail("header sink called twice or after a row");
        s->width = (int32_t)GetLE32(h + 4);
        s->height = (int32_t)GetLE32(h + 8);
        int bits = GetLE16(h + 14);
        if (GetLE32(h) != 40 || GetLE16(h + 12) != 1 || s->width < 1 || s->height < 1)
            s->Fail("header not normalised");
        if (bits != 1 && bits != 4 && bits != 8 && bits != 24)
            s->Fail("unsupported bit count reached the sink");
        uint64_t stride = DibStride((uint32_t)s->width, bits);
        if (stride * (uint64_t)s->height > 0x7FFFFFFFu)
            s->Fail("pixel block of 2 GiB or more reached the sink");
        s->stride = (uint32_t)stride;
        if (GetLE32(h + 20) != s->stride * (uint32_t)s->height)
            s->Fail("biSizeImage is not stride * height");
        for (int i = 0; i < IMG_HEADER_BLOCK_SIZE; i++)
            s->checksum += h[i];
        if (stride * (uint64_t)s->height > (256u << 10) || s->width > (1 << 16))
            return -1;
        return 1;
    }

    static int Row(const uint8_t *row, void *context, int rowIndex, int rowBytes)
    {
        FuzzReaderSinks *s = static_cast<FuzzReaderSinks *>(context);
        if (s->headerCalls != 1)
            s->Fail("a row came before the header");
        if (rowIndex < 0 || rowIndex >= s->height)
            s->Fail("row index outside the picture");
        bool record = s->runsAllowed && rowBytes >= 2 && rowBytes <= IMG_CHUNK_SIZE;
        if ((uint32_t)rowBytes != s->stride && !record)
            s->Fail("row size neither the stride nor a record");
        if (++s->deliveries > (int64_t)s->height)
            s->Fail("more deliveries than rows");
        for (int i = 0; i < rowBytes; i++)
            s->checksum += row[i];
        return 0;
    }

    /* Runs `reader` at `start` over a sized memory image of the input. */
    void Run(ImgReader reader, uint32_t start, const uint8_t *data, size_t size,
             bool zeroIsSuccess = false)
    {
        image.assign(data, data + size);
        ImgSetMemorySourceSized(image.data(), (uint32_t)size);
        int result = reader(start, Row, this, Header, IMG_MEMORY_HANDLE);
        bool success = result == 1 || (zeroIsSuccess && result == 0);
        if (!success && result >= 0)
            Fail("result neither success nor negative");
        if (success && headerCalls != 1)
            Fail("success without the header sink");
        if (ImgTrackedCount() != 0)
            Fail("tracked blocks left behind");
        ImgFreeAllTracked();
    }
};

#endif /* TRNW_FUZZ_READER_SINKS_H */
