/*
 * bench_dither - IMG_diffusion_mono (Stucki, serpentine, finished
 * as run-coded rows) beside ImageMagick on the same 2000 x 1500 24-bit
 * photographic-like picture in the same run.
 *
 * The picture comes from a generator here (smooth gradients, soft blobs and
 * a little noise) and is written as a 24-bit BMP through the library.  Ours
 * is timed in memory around IMG_diffusion_mono (median of several runs,
 * each on a fresh copy made outside the timing).  ImageMagick is
 * /usr/bin/convert (Debian's, scripts/deps.sh), timed with the wall clock
 * around `convert in.bmp -monochrome out.bmp` and `convert in.bmp -dither
 * FloydSteinberg -monochrome out.bmp`; its start-up, measured as a trivial
 * convert of a 1 x 1 image, is subtracted.  No timing is asserted.
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bench_common.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"

constexpr int PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 5, TOOL_RUNS = 3;

static uint32_t seed = 4242;
static uint8_t Clamp(double v)
{
    return (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v);
}

/* A smooth, varied picture: sky-like gradient, soft blobs, waves, noise. */
static uint8_t *MakePhoto(void)
{
    int32_t stride = (int32_t)DibStride(PHOTO_W, 24);
    size_t size = 40 + (size_t)stride * PHOTO_H;
    uint8_t *dib = static_cast<uint8_t *>(ImgAlloc(size));
    if (!dib)
        return NULL;
    memset(dib, 0, size);
    BITMAPINFOHEADER h = {40, PHOTO_W, PHOTO_H, 1, 24, 0, (uint32_t)(stride * PHOTO_H), 0, 0, 0, 0};
    memcpy(dib, &h, sizeof h);
    double cx[6], cy[6], rad[6], col[6][3];
    for (int k = 0; k < 6; k++) {
        cx[k] = BenchRandom(&seed) % PHOTO_W, cy[k] = BenchRandom(&seed) % PHOTO_H, rad[k] = 150 + BenchRandom(&seed) % 400;
        for (int c = 0; c < 3; c++)
            col[k][c] = (double)(BenchRandom(&seed) % 256) - 128;
    }
    for (int y = 0; y < PHOTO_H; y++) {
        uint8_t *row = dib + 40 + (size_t)y * stride;
        for (int x = 0; x < PHOTO_W; x++) {
            double base[3] = {60 + 150.0 * y / PHOTO_H, 90 + 80.0 * x / PHOTO_W, 120 + 40 * sin(x / 97.0) * cos(y / 73.0)};
            for (int k = 0; k < 6; k++) {
                double dx = x - cx[k], dy = y - cy[k];
                double w = exp(-(dx * dx + dy * dy) / (2 * rad[k] * rad[k]));
                for (int c = 0; c < 3; c++)
                    base[c] += w * col[k][c];
            }
            for (int c = 0; c < 3; c++)
                row[3 * x + c] = Clamp(base[c] + (double)(BenchRandom(&seed) % 9) - 4);
        }
    }
    return dib;
}

int main(void)
{
    uint8_t *photo = MakePhoto();
    if (!photo)
        return 1;
    size_t size = 40 + (size_t)DibStride(PHOTO_W, 24) * PHOTO_H;
    const char *dir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char in[512], out[512], tiny[512], command[2048];
    snprintf(in, sizeof in, "%s/bench_dither_in.bmp", dir);
    snprintf(out, sizeof out, "%s/bench_dither_out.bmp", dir);
    snprintf(tiny, sizeof tiny, "%s/bench_dither_1x1.bmp", dir);

    double times[RUNS];
    for (int run = 0; run < RUNS; run++) {
        uint8_t *copy = static_cast<uint8_t *>(ImgAlloc(size));
        memcpy(copy, photo, size);
        int32_t handle = IMG_create_handle_keep(copy);
        ImgTableGet(handle)->callerOwnsDib = 0;
        if (run == 0 && IMG_save_bitmap(handle, in, IMG_TYPE_BMP) != 0) {
            fprintf(stderr, "bench_dither: cannot write %s\n", in);
            return 1;
        }
        double t0 = BenchNow();
        int32_t result = IMG_diffusion_mono(handle);
        times[run] = BenchNow() - t0;
        if (result != 0) {
            fprintf(stderr, "bench_dither: IMG_diffusion_mono gave %d\n", result);
            return 1;
        }
        IMG_delete_bitmap(handle);
    }
    double ours = BenchMedian(times, RUNS);
    printf("IMG_diffusion_mono (Stucki, run-coded result), %d x %d 24-bit: %.1f ms\n", PHOTO_W,
           PHOTO_H, ours * 1e3);

    if (system("/usr/bin/convert -version 2>/dev/null | grep -q ImageMagick") != 0) {
        printf("ImageMagick (/usr/bin/convert) not installed: no comparison\n");
        remove(in);
        ImgFree(photo);
        return 0;
    }
    snprintf(command, sizeof command, "/usr/bin/convert -size 1x1 xc:gray BMP3:%s", tiny);
    double startup = BenchTimeCommand(command, TOOL_RUNS);
    snprintf(command, sizeof command, "/usr/bin/convert %s -monochrome BMP3:%s", in, out);
    double mono = BenchTimeCommand(command, TOOL_RUNS);
    snprintf(command, sizeof command,
             "/usr/bin/convert %s -dither FloydSteinberg -monochrome BMP3:%s", in, out);
    double floyd = BenchTimeCommand(command, TOOL_RUNS);
    printf("ImageMagick start-up (1x1 convert): %.1f ms\n", startup * 1e3);
    const char *names[2] = {"-monochrome", "-dither FloydSteinberg -monochrome"};
    double tool[2] = {mono, floyd};
    for (int k = 0; k < 2; k++) {
        double net = tool[k] - startup;
        printf("ImageMagick %s: %.1f ms whole, %.1f ms less start-up; ratio %.2fx "
               "(%.2fx against the whole command)\n",
               names[k], tool[k] * 1e3, net * 1e3, net / ours, tool[k] / ours);
    }
    remove(in);
    remove(out);
    remove(tiny);
    ImgFree(photo);
    return 0;
}
