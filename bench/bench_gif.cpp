/*
 * bench_gif - GIF decoding and encoding beside giflib on the same picture in
 * the same run: a 2000 x 1500 photograph-like picture (smooth shapes and a
 * little noise, as bench_lzw), reduced to 256 colours by median cut.
 *
 *   decode: IMG_decompress_bitmap_mem_size (the public API, the picture
 *           allocated as an image) and GifRead into a buffer, against
 *           DGifOpen + DGifSlurp from memory, all on the file giflib wrote
 *           (and ours on our own file);
 *   encode: IMG_save_bitmap_mem_size of the image against EGifOpen,
 *           EGifPutScreenDesc, EGifPutImageDesc and one EGifPutLine per row
 *           into memory.
 *
 * The median of several runs; the ratio is giflib's time over ours (above
 * 1: we are faster).  Every decoding is checked against the picture.  No
 * timing is asserted.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <gif_lib.h>

#include "bench_common.h"
#include "core/bytes.h"
#include "core/imgapi.h"
#include "core/imgio.h"
#include "formats/gif.h"

constexpr int WIDTH = 2000, HEIGHT = 1500, RUNS = 9;
constexpr size_t PIXELS = (size_t)WIDTH * HEIGHT;
constexpr uint32_t FILE_ROOM = 8u << 20;

/* ---- the 256-colour picture, top row first ---- */

struct Picture {
    uint8_t rgb[768];
    uint8_t *index; /* PIXELS bytes */
};

static int PictureHeader(const uint8_t *h, void *context)
{
    Picture *p = static_cast<Picture *>(context);
    if (GetLE32(h + 4) != WIDTH || GetLE32(h + 8) != HEIGHT || GetLE16(h + 14) != 8)
        return -1;
    for (int i = 0; i < 256; i++) {
        p->rgb[3 * i] = h[42 + 4 * i];
        p->rgb[3 * i + 1] = h[41 + 4 * i];
        p->rgb[3 * i + 2] = h[40 + 4 * i];
    }
    return 1;
}

static int PictureRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    (void)rowBytes;
    memcpy(static_cast<Picture *>(context)->index + (size_t)rowIndex * WIDTH, row, WIDTH);
    return 0;
}

/* GifRead over a memory image into the picture: seconds, or -1. */
static double OursRead(uint8_t *file, uint32_t size, Picture *p)
{
    double t0 = BenchNow();
    ImgSetMemorySourceSized(file, size);
    int result = GifRead(0, PictureRow, p, PictureHeader, IMG_MEMORY_HANDLE);
    double t = BenchNow() - t0;
    return result < 0 ? -1 : t;
}

/* The public decode: seconds, or -1 when it fails or differs from `expected`. */
static double OursDecode(uint8_t *file, uint32_t size, const Picture *expected)
{
    double t0 = BenchNow();
    int32_t handle = IMG_decompress_bitmap_mem_size(file, size, 0);
    double t = BenchNow() - t0;
    if (handle < 0)
        return -1;
    static uint8_t row[WIDTH];
    bool same = true;
    for (int y = 0; y < HEIGHT && same; y += 97) {
        same = IMGLOW_get_raster(handle, row, y, WIDTH) >= 0 &&
               memcmp(row, expected->index + (size_t)y * WIDTH, WIDTH) == 0;
    }
    IMG_delete_bitmap(handle);
    return same ? t : -1;
}

/* ---- giflib over memory ---- */

struct Memory {
    uint8_t *data;
    size_t size, position;
};

static int MemoryRead(GifFileType *gif, GifByteType *buffer, int count)
{
    Memory *m = static_cast<Memory *>(gif->UserData);
    size_t n = m->size - m->position < (size_t)count ? m->size - m->position : (size_t)count;
    memcpy(buffer, m->data + m->position, n);
    m->position += n;
    return (int)n;
}

static int MemoryWrite(GifFileType *gif, const GifByteType *buffer, int count)
{
    Memory *m = static_cast<Memory *>(gif->UserData);
    if (m->position + (size_t)count > m->size)
        return 0;
    memcpy(m->data + m->position, buffer, (size_t)count);
    m->position += (size_t)count;
    return count;
}

/* DGifSlurp of the file: seconds, or -1 when it fails or differs. */
static double GiflibDecode(uint8_t *file, size_t size, const Picture *expected)
{
    Memory m = {file, size, 0};
    int error = 0;
    double t0 = BenchNow();
    GifFileType *gif = DGifOpen(&m, MemoryRead, &error);
    if (!gif)
        return -1;
    int result = DGifSlurp(gif);
    double t = BenchNow() - t0;
    bool same = result == GIF_OK && gif->ImageCount >= 1 &&
                memcmp(gif->SavedImages[0].RasterBits, expected->index, PIXELS) == 0;
    DGifCloseFile(gif, &error);
    return same ? t : -1;
}

/* giflib writing the picture: seconds, or -1; the file's size in *size. */
static double GiflibEncode(const Picture *p, uint8_t *file, size_t *size)
{
    Memory m = {file, FILE_ROOM, 0};
    int error = 0;
    double t0 = BenchNow();
    GifFileType *gif = EGifOpen(&m, MemoryWrite, &error);
    if (!gif)
        return -1;
    ColorMapObject *map = GifMakeMapObject(256, (const GifColorType *)p->rgb);
    bool ok = map && EGifPutScreenDesc(gif, WIDTH, HEIGHT, 8, 0, map) == GIF_OK &&
              EGifPutImageDesc(gif, 0, 0, WIDTH, HEIGHT, false, NULL) == GIF_OK;
    for (int y = 0; y < HEIGHT && ok; y++)
        ok = EGifPutLine(gif, p->index + (size_t)y * WIDTH, WIDTH) == GIF_OK;
    ok = EGifCloseFile(gif, &error) == GIF_OK && ok;
    double t = BenchNow() - t0;
    GifFreeMapObject(map);
    *size = m.position;
    return ok ? t : -1;
}

static void Report(const char *what, double ours, double theirs)
{
    printf("  %-34s trnw %7.2f ms  giflib %7.2f ms  giflib/trnw %.2f\n", what, ours * 1e3,
           theirs * 1e3, theirs / ours);
}

int main(void)
{
    uint8_t *photo = BenchPhotographDib(WIDTH, HEIGHT);
    int32_t handle = photo ? IMG_create_handle_keep(photo) : -1;
    if (handle < 0 || IMG_mediancut_color(handle) < 0) {
        fprintf(stderr, "bench_gif: cannot make the picture\n");
        return 1;
    }
    uint8_t *ours = static_cast<uint8_t *>(malloc(FILE_ROOM)), *theirs = static_cast<uint8_t *>(malloc(FILE_ROOM));
    Picture picture, check;
    picture.index = static_cast<uint8_t *>(malloc(PIXELS));
    check.index = static_cast<uint8_t *>(malloc(PIXELS));
    int32_t ourSize = ours ? IMG_save_bitmap_mem_size(handle, ours, FILE_ROOM, IMG_TYPE_GIF) : -1;
    if (!theirs || !picture.index || !check.index || ourSize < 0 ||
        OursRead(ours, (uint32_t)ourSize, &picture) < 0) {
        fprintf(stderr, "bench_gif: cannot write or read our GIF\n");
        return 1;
    }
    size_t theirSize = 0;
    double oursRead[RUNS], oursDecode[RUNS], oursOwn[RUNS], giflibDecode[RUNS];
    double oursEncode[RUNS], giflibEncode[RUNS];
    bool bad = false;
    for (int run = 0; run < RUNS; run++) {
        giflibEncode[run] = GiflibEncode(&picture, theirs, &theirSize);
        double t0 = BenchNow();
        bad |= IMG_save_bitmap_mem_size(handle, ours, FILE_ROOM, IMG_TYPE_GIF) != ourSize;
        oursEncode[run] = BenchNow() - t0;
        memset(check.index, 0, PIXELS);
        oursRead[run] = OursRead(theirs, (uint32_t)theirSize, &check);
        bad |= memcmp(check.index, picture.index, PIXELS) != 0;
        oursDecode[run] = OursDecode(theirs, (uint32_t)theirSize, &picture);
        oursOwn[run] = OursDecode(ours, (uint32_t)ourSize, &picture);
        giflibDecode[run] = GiflibDecode(theirs, theirSize, &picture);
        for (double t : {giflibEncode[run], oursRead[run], oursDecode[run], oursOwn[run], giflibDecode[run]})
            bad |= t < 0;
    }
    printf("bench_gif: %d x %d photograph-like picture, 256 colours (median cut), median of %d runs\n",
           WIDTH, HEIGHT, RUNS);
    printf("  file sizes: trnw %d bytes, giflib %zu bytes\n", ourSize, theirSize);
    double gd = BenchMedian(giflibDecode, RUNS);
    Report("decode, GifRead into a buffer", BenchMedian(oursRead, RUNS), gd);
    Report("decode, public API", BenchMedian(oursDecode, RUNS), gd);
    Report("decode, public API, our file", BenchMedian(oursOwn, RUNS), gd);
    Report("encode, public API", BenchMedian(oursEncode, RUNS), BenchMedian(giflibEncode, RUNS));
    printf("  decodings equal the picture: %s\n", bad ? "NO" : "yes");
    IMG_delete_bitmap_keep(handle); /* median cut made the block it holds; the photograph is ours */
    ImgFree(photo);
    free(ours);
    free(theirs);
    free(picture.index);
    free(check.index);
    return bad;
}
