/*
 * trnw - the command-line tool over libtrnw6w95.  It uses the public
 * interface only (core/imgapi.h).
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "imgapi.h"

static const char usage[] =
    "usage: trnw COMMAND [ARGUMENTS]\n"
    "\n"
    "commands:\n"
    "  version              print the library version\n"
    "  runs IN.dib [OUT.dib]\n"
    "                       load a bare DIB (40-byte header, palette, rows), hold a\n"
    "                       1-bit picture run-coded, expand it again row by row and\n"
    "                       report sizes and times; OUT.dib receives the rows read\n"
    "                       back through the run store\n"
    "  --help               this text\n";

static double Seconds(void)
{
    return (double)clock() / CLOCKS_PER_SEC; /* processor time: steady on a busy machine */
}

static uint8_t *ReadWholeFile(const char *path, long *size)
{
    FILE *f = fopen(path, "rb");
    if (!f)
        return NULL;
    uint8_t *data = NULL;
    if (fseek(f, 0, SEEK_END) == 0 && (*size = ftell(f)) > 0 && fseek(f, 0, SEEK_SET) == 0) {
        data = malloc((size_t)*size);
        if (data && fread(data, 1, (size_t)*size, f) != (size_t)*size) {
            free(data);
            data = NULL;
        }
    }
    fclose(f);
    return data;
}

static uint32_t Le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

static int CommandVersion(void)
{
    int32_t major, minor;
    IMG_ifl_version(&major, &minor);
    printf("trnw %d.%d (libtrnw6w95)\n", major, minor);
    return 0;
}

/* Writes the image behind `handle` as a bare DIB, reading each row through
 * IMGLOW_get_raster (bottom row first, as the file stores them). */
static int WriteDib(int32_t handle, const char *path, const uint8_t *header, size_t headerBytes,
                    int32_t height, int32_t stride)
{
    FILE *f = fopen(path, "wb");
    uint8_t *row = malloc((size_t)stride);
    int ok = f && row && fwrite(header, 1, headerBytes, f) == headerBytes;
    for (int32_t r = height - 1; ok && r >= 0; r--)
        ok = IMGLOW_get_raster(handle, row, r, stride) == 0 && fwrite(row, 1, (size_t)stride, f) == (size_t)stride;
    free(row);
    if (f && fclose(f) != 0)
        ok = 0;
    return ok ? 0 : -1;
}

static int CommandRuns(int argc, char **argv)
{
    if (argc < 1 || argc > 2) {
        fputs(usage, stderr);
        return 2;
    }
    long size = 0;
    uint8_t *dib = ReadWholeFile(argv[0], &size);
    if (!dib || size < 40 || Le32(dib) != 40) {
        fprintf(stderr, "trnw: %s: not a bare DIB file\n", argv[0]);
        free(dib);
        return 1;
    }
    int32_t handle = IMG_create_handle_keep(dib);
    if (handle < 0) {
        fprintf(stderr, "trnw: %s: error %d\n", argv[0], handle);
        free(dib);
        return 1;
    }
    int32_t width, height, bits;
    IMG_bitmap_info(handle, &width, &height, &bits);
    int32_t stride = (int32_t)((((int64_t)width * bits + 31) / 32) * 4);
    size_t paletteBytes = bits >= 24 ? 0 : bits == 16 ? 1024 : (size_t)4 << bits;
    uint8_t header[40 + 1024];
    IMGLOW_get_bitmap_header(handle, header);
    printf("%s: %d x %d, %d bit%s, %lld bytes of rows\n", argv[0], width, height, bits,
           bits == 1 ? "" : "s", (long long)stride * height);

    int result = 0;
    if (bits == 1) {
        double t0 = Seconds();
        result = IMG_dib_to_runs(handle);
        double t1 = Seconds();
        if (result == 0) {
            uint8_t *row = malloc((size_t)stride);
            for (int32_t r = 0; row && r < height && result == 0; r++)
                result = IMGLOW_get_raster(handle, row, r, stride);
            free(row);
        }
        double t2 = Seconds();
        printf("run-coded in %.1f ms, every row expanded again in %.1f ms\n", (t1 - t0) * 1e3,
               (t2 - t1) * 1e3);
    }
    if (result == 0 && argc == 2)
        result = WriteDib(handle, argv[1], header, 40 + paletteBytes, height, stride);
    if (result == 0 && argc == 2)
        printf("wrote %s\n", argv[1]);
    IMG_delete_bitmap_keep(handle);
    free(dib);
    if (result < 0)
        fprintf(stderr, "trnw: error %d\n", result);
    return result < 0;
}

int main(int argc, char **argv)
{
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") || !strcmp(argv[1], "help")) {
        fputs(usage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    if (!strcmp(argv[1], "version") || !strcmp(argv[1], "--version"))
        return CommandVersion();
    if (!strcmp(argv[1], "runs"))
        return CommandRuns(argc - 2, argv + 2);
    fprintf(stderr, "trnw: unknown command '%s'\n\n%s", argv[1], usage);
    return 2;
}
