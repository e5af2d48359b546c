/*
 * reader_sinks.h - the sinks a reader's fuzz target hands it, checking what
 * every reader guarantees whatever the bytes:
 *   - the header sink is called at most once, before any row, with a
 *     40-byte header of width and height of at least 1, one plane, a bit
 *     count of 1, 4, 8 or 24 and biSizeImage = stride * height, under 2 GiB;
 *   - every row index lies in 0 .. height - 1 and comes at most once, no row
 *     follows a refused header, and every row is one stride long; every
 *     buffer handed over is readable (fuzz/fuzz_support.h), so ASan sees a
 *     row reaching outside its buffer;
 *   - the result is the success code or negative, success only after the
 *     header sink accepted the header, and no tracked block is left behind.
 * A target tightens these for its format with the options at the top of the
 * struct.  The header sink refuses (-1, as the library's sink would for lack
 * of memory) a biSizeImage over FuzzBlockLimit of the input or a width over
 * 2^16 pixels, so that runs are not spent on huge declared sizes.
 */
#ifndef TRNW_FUZZ_READER_SINKS_H
#define TRNW_FUZZ_READER_SINKS_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

#include "core/bytes.h"
#include "core/contracts.h"
#include "core/dib.h"
#include "core/imgio.h"
#include "fuzz/fuzz_support.h"

struct FuzzReaderSinks {
    const char *target;
    int successCode = 1;          /* the reader's result on success */
    bool requireEveryRow = false; /* success only with every row delivered */
    bool rowsInOrder = false;     /* row i is the i-th delivery */
    /* Rows are run records as the Group 4 decoder makes them (even, 4 ..
     * 5 * width + 400 bytes), never strides; biSizeImage then counts rows of
     * (width * bits + 7) / 8 bytes and may reach 4 GiB. */
    bool runRecords = false;
    /* Rows as the TIFF reader hands them over: a stride or, from CCITT
     * strips, a run record as the decoder makes them (even, 4 .. 5 * width
     * + 400 bytes), whatever bit count the header gives (the decode
     * pipeline's sink takes such a row as pixel bytes up to the stride); the
     * reader does not bound the pixel block, so
     * biSizeImage is stride * height kept to 32 bits, and pictures of 2 GiB
     * or more are refused like the other large ones. */
    bool tiffRows = false;
    /* The format's own header checks, run after the shared ones; each
     * failure calls Fail. */
    void (*checkHeader)(const uint8_t *h, const FuzzReaderSinks &s) = nullptr;

    /* What the sinks have seen. */
    int headerCalls = 0;
    bool refused = false;
    int32_t width = 0, height = 0;
    int bits = 0;
    uint32_t stride = 0;
    int64_t deliveries = 0;
    std::vector<bool> seen{}; /* the row indices delivered so far */
    uint64_t blockLimit = 0;  /* FuzzBlockLimit of the input */
    std::vector<uint8_t> image{}; /* the memory image, kept for calls after Run */

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
        s->bits = GetLE16(h + 14);
        if (GetLE32(h) != 40 || GetLE16(h + 12) != 1 || s->width < 1 || s->height < 1)
            s->Fail("header not normalised");
        if (s->bits != 1 && s->bits != 4 && s->bits != 8 && s->bits != 24)
            s->Fail("unsupported bit count reached the sink");
        uint64_t stride = DibStride((uint32_t)s->width, s->bits);
        uint64_t rowBytes = s->runRecords ? ((uint64_t)s->width * s->bits + 7) / 8 : stride;
        uint64_t block = rowBytes * (uint64_t)s->height;
        if (!s->runRecords && !s->tiffRows && block > 0x7FFFFFFFu)
            s->Fail("pixel block of 2 GiB or more reached the sink");
        s->stride = (uint32_t)stride;
        if (GetLE32(h + 20) != (s->tiffRows ? (uint32_t)block : block))
            s->Fail(s->runRecords ? "biSizeImage is not (width * bits + 7) / 8 * height"
                                  : "biSizeImage is not stride * height");
        if (s->checkHeader)
            s->checkHeader(h, *s);
        FuzzCheckReadable(s->target, h, IMG_HEADER_BLOCK_SIZE);
        s->refused = block > s->blockLimit || s->width > (1 << 16);
        if (s->refused)
            return -1;
        s->seen.assign((size_t)s->height, false);
        return 1;
    }

    static int Row(const uint8_t *row, void *context, int rowIndex, int rowBytes)
    {
        FuzzReaderSinks *s = static_cast<FuzzReaderSinks *>(context);
        if (s->headerCalls != 1 || s->refused)
            s->Fail("a row came before the header or after its refusal");
        if (rowIndex < 0 || rowIndex >= s->height)
            s->Fail("row index outside the picture");
        if (s->seen[(size_t)rowIndex] || (s->rowsInOrder && rowIndex != s->deliveries))
            s->Fail("a row delivered twice or out of order");
        s->seen[(size_t)rowIndex] = true;
        s->deliveries++;
        bool record = !(rowBytes & 1) && rowBytes >= 4 && rowBytes <= 5 * s->width + 400;
        if (s->runRecords) {
            if (!record)
                s->Fail("row is not a run record");
        } else if ((uint32_t)rowBytes != s->stride && !(s->tiffRows && record)) {
            s->Fail("row size is not the stride");
        }
        FuzzCheckReadable(s->target, row, (size_t)rowBytes);
        return 0;
    }

    /* Runs `reader` at `start` over a sized memory image of the input. */
    void Run(ImgReader reader, uint32_t start, const uint8_t *data, size_t size)
    {
        image.assign(data, data + size);
        blockLimit = FuzzBlockLimit(size);
        ImgSetMemorySourceSized(image.data(), (uint32_t)size);
        int result = reader(start, Row, this, Header, IMG_MEMORY_HANDLE);
        if (result != successCode && result >= 0)
            Fail("result neither success nor negative");
        if (result == successCode &&
            (headerCalls != 1 || refused || (requireEveryRow && deliveries != height)))
            Fail("success without an accepted header or every row");
        if (ImgTrackedCount() != 0)
            Fail("tracked blocks left behind");
        ImgFreeAllTracked();
    }
};

#endif /* TRNW_FUZZ_READER_SINKS_H */
