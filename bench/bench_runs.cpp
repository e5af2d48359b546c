/*
 * bench_runs - run coding and expansion of a dense 2550-pixel text row
 * (core/runs), beside memcpy of the same row in the same run.
 * Prints rows per second and bytes per second, and the ratio to memcpy.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "core/runs.h"

constexpr int WIDTH = 2550, STRIDE = ((WIDTH + 7) / 8 + 3) & ~3;

static double Seconds(void)
{
    return (double)clock() / CLOCKS_PER_SEC; /* processor time: steady on a busy machine */
}

/* A row through a line of text: glyph strokes of 1 to 6 pixels with gaps of
 * 1 to 12, words separated by wider spaces. */
static void MakeTextRow(uint8_t *row)
{
    uint32_t seed = 7;
    memset(row, 0xFF, STRIDE);
    int x = 100;
    while (x < WIDTH - 100) {
        for (int stroke = 0; stroke < 12 && x < WIDTH - 100; stroke++) {
            seed = seed * 1103515245u + 12345u;
            int ink = 1 + (int)((seed >> 16) % 6), gap = 1 + (int)((seed >> 8) % 12);
            for (int i = 0; i < ink; i++, x++)
                row[x >> 3] &= (uint8_t)~(0x80 >> (x & 7));
            x += gap;
        }
        x += 20;
    }
}

static volatile uint32_t sink;

int main(void)
{
    static uint8_t row[STRIDE], out[STRIDE + 8];
    static uint16_t record[RUN_MAX_WIDTH + 8];
    MakeTextRow(row);
    int bytes = RunEncodeRow(row, WIDTH, record);
    printf("row: %d pixels, %d bytes packed, %d changes, record %d bytes\n", WIDTH, STRIDE,
           bytes / 2 - 4, bytes);

    const int reps = 400000;
    double t0 = Seconds();
    for (int i = 0; i < reps; i++) {
        row[0] ^= (uint8_t)(i & 1); /* keep the compiler from hoisting the work */
        sink = sink + (uint32_t)RunEncodeRow(row, WIDTH, record);
    }
    double t1 = Seconds();
    for (int i = 0; i < reps; i++) {
        RunExpandRow(record, (uint32_t)bytes, WIDTH, out, STRIDE);
        sink = sink + out[i % STRIDE];
    }
    double t2 = Seconds();
    for (int i = 0; i < reps; i++) {
        row[0] ^= (uint8_t)(i & 1);
        memcpy(out, row, STRIDE);
        sink = sink + out[i % STRIDE];
    }
    double t3 = Seconds();

    double encode = t1 - t0, expand = t2 - t1, copy = t3 - t2;
    printf("%-10s %12.0f rows/s %10.1f MB/s  %6.1f x memcpy time\n", "encode", reps / encode,
           reps * (double)STRIDE / encode / 1e6, encode / copy);
    printf("%-10s %12.0f rows/s %10.1f MB/s  %6.1f x memcpy time\n", "expand", reps / expand,
           reps * (double)STRIDE / expand / 1e6, expand / copy);
    printf("%-10s %12.0f rows/s %10.1f MB/s\n", "memcpy", reps / copy,
           reps * (double)STRIDE / copy / 1e6);
    return 0;
}
