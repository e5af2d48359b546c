/*
 * fuzz_support.h - what every fuzz target shares to keep a run's work in
 * proportion to its input:
 *   - FuzzBlockLimit: the largest pixel block (bytes) a target decodes from
 *     an input of a given size.  Run-length, LZW and CCITT coding make large
 *     pictures of a few bytes; a picture over the limit is refused at its
 *     header (as the library's sink refuses one it has no memory for), so
 *     no run spends its time on a declared size instead of on the bytes;
 *   - FuzzCheckReadable: checks that a buffer handed over by the library
 *     lies in memory it may be read from, in one AddressSanitizer query
 *     instead of a read of every byte (a read per byte in the target would
 *     cost more than the decoding it checks); without AddressSanitizer (the
 *     coverage build) every byte is read;
 *   - FUZZ_NO_COVERAGE marks a target's own loops over every byte or pixel
 *     (copies, comparisons): their comparisons would each call the
 *     coverage hooks and tell the fuzzer nothing about the library.
 */
#ifndef TRNW_FUZZ_SUPPORT_H
#define TRNW_FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define TRNW_FUZZ_ASAN 1
#endif
#endif

#define FUZZ_NO_COVERAGE __attribute__((no_sanitize("coverage")))

/* 4 KiB and 16 bytes a byte of input, at most 256 KiB. */
static inline uint64_t FuzzBlockLimit(size_t inputSize)
{
    uint64_t limit = 4096 + 16 * (uint64_t)inputSize;
    return limit < (256u << 10) ? limit : (256u << 10);
}

/* Aborts, naming the target, when any of the n bytes at p may not be read. */
FUZZ_NO_COVERAGE static inline void FuzzCheckReadable(const char *target, const void *p, size_t n)
{
    if (n == 0)
        return;
#ifdef TRNW_FUZZ_ASAN
    const void *bad = __asan_region_is_poisoned(const_cast<void *>(p), n);
    if (bad) {
        fprintf(stderr, "%s: a buffer handed over reaches unreadable memory at byte %zu of %zu\n", target,
                (size_t)((const uint8_t *)bad - (const uint8_t *)p), n);
        __asan_describe_address(const_cast<void *>(bad));
        abort();
    }
#else
    (void)target;
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < n; i++)
        sum = (uint8_t)(sum + ((const uint8_t *)p)[i]);
    (void)sum;
#endif
}

#endif /* TRNW_FUZZ_SUPPORT_H */
