/*
 * bench_record_page.h - a decoded bilevel page as a caller keeps it: the run
 * record of every row copied behind the previous one, with where each row
 * starts.  The store is reused from page to page, as a caller of libtiff
 * reuses its output buffer, so that both sides of a comparison write the
 * decoded page into memory they already hold.
 */
#ifndef TRNW_BENCH_RECORD_PAGE_H
#define TRNW_BENCH_RECORD_PAGE_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "core/imgapi.h"

typedef struct BenchRecordPage {
    uint8_t *bytes;
    size_t used, capacity;
    uint32_t *rowStart; /* a row's offset in bytes */
    int32_t rows;       /* rows rowStart has room for */
} BenchRecordPage;

/* Starts a page of `height` rows.  0, or -1 when memory runs out. */
static inline int BenchRecordPageStart(BenchRecordPage *page, int32_t height)
{
    page->used = 0;
    if (height > page->rows) {
        uint32_t *rows = (uint32_t *)realloc(page->rowStart, (size_t)height * sizeof *rows);
        if (!rows)
            return -1;
        page->rowStart = rows;
        page->rows = height;
    }
    memset(page->rowStart, 0, (size_t)page->rows * sizeof *page->rowStart);
    return 0;
}

/* The row sink: keeps a copy of the record. */
static inline int32_t IMGCDECL BenchRecordPageRow(const uint8_t *row, void *context, int32_t rowIndex,
                                                  int32_t rowBytes)
{
    BenchRecordPage *page = (BenchRecordPage *)context;
    if (rowIndex < 0 || rowIndex >= page->rows || rowBytes < 0)
        return IMG_ERR_INVALID;
    if (page->used + (size_t)rowBytes > page->capacity) {
        size_t capacity = page->capacity ? page->capacity * 2 : 1 << 20;
        while (capacity < page->used + (size_t)rowBytes)
            capacity *= 2;
        uint8_t *bytes = (uint8_t *)realloc(page->bytes, capacity);
        if (!bytes)
            return IMG_ERR_MEMORY;
        page->bytes = bytes;
        page->capacity = capacity;
    }
    memcpy(page->bytes + page->used, row, (size_t)rowBytes);
    page->rowStart[rowIndex] = (uint32_t)page->used;
    page->used += (size_t)rowBytes;
    return 0;
}

/* The header sink: a page of the header's height (BITMAPINFOHEADER biHeight). */
static inline int32_t IMGCDECL BenchRecordPageHeader(const uint8_t *header, void *context)
{
    int32_t height;
    memcpy(&height, header + 8, sizeof height);
    return BenchRecordPageStart((BenchRecordPage *)context, height) < 0 ? IMG_ERR_MEMORY : 1;
}

static inline void BenchRecordPageFree(BenchRecordPage *page)
{
    free(page->bytes);
    free(page->rowStart);
    memset(page, 0, sizeof *page);
}

#endif /* TRNW_BENCH_RECORD_PAGE_H */
