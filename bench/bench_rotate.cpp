/*
 * bench_rotate - rotation (process/rotate) beside libvips on the
 * same pictures in the same run:
 *   a dense 2550 x 3300 fax-like 1-bit page held run-coded, and
 *   a 2000 x 1500 24-bit picture,
 * each turned by a quarter (9000 / `vips rot d90`) and by 30 degrees (3000 /
 * `vips rotate 30 --interpolate nearest`, nearest neighbour like ours).
 *
 * Ours is timed in memory around IMG_rotate_bitmap (the median of nine
 * runs, each on a fresh copy made outside the timing).
 * vips is the `vips` command (Debian libvips-tools, scripts/deps.sh) on the
 * picture written as PBM / PPM, timed with the wall clock around the whole
 * command: process start, loading, the operation, saving.  To show how much
 * of that is file I/O and start-up, `vips copy` of the same file is timed
 * too, and the ratio is printed both against vips' whole time and against
 * vips' time less that copy (medians of nine).  vips runs with its default
 * thread pool.  No timing is asserted.  The last lines sum up the quarter
 * turns: the coded page's time in ms, and the coded page's and the
 * picture's ratio against vips without start-up and I/O.
 */
#define _POSIX_C_SOURCE 200809L
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

constexpr int PAGE_W = 2550, PAGE_H = 3300, PHOTO_W = 2000, PHOTO_H = 1500, RUNS = 9, VIPS_RUNS = 9;

static uint32_t seed = 12345;

/* ---- the pictures, as packed DIBs in blocks of ours ---- */

/* bench_common.h's text page as a 1-bit DIB (bit 1 white). */
static uint8_t *FaxPage(uint32_t *size)
{
    uint8_t *dib = BenchNewDib(PAGE_W, PAGE_H, 1, 0, size);
    int stride = (PAGE_W + 7) / 8;
    uint8_t *rows = static_cast<uint8_t *>(malloc((size_t)stride * PAGE_H));
    if (!dib || !rows) {
        free(rows);
        return dib;
    }
    BenchPage text = {rows, PAGE_W, PAGE_H, stride};
    BenchTextPage(&text, 12345);
    for (int32_t r = 0; r < PAGE_H; r++) {
        uint8_t *row = BenchDibRow(dib, PAGE_W, PAGE_H, 1, r);
        memset(row, 0xFF, (size_t)DibStride(PAGE_W, 1));
        for (int i = 0; i < stride; i++)
            row[i] = (uint8_t)~rows[(size_t)r * stride + i];
    }
    free(rows);
    return dib;
}

static uint8_t *Photo(uint32_t *size)
{
    uint8_t *dib = BenchNewDib(PHOTO_W, PHOTO_H, 24, 0, size);
    if (!dib)
        return NULL;
    for (int32_t y = 0; y < PHOTO_H; y++) {
        uint8_t *row = BenchDibRow(dib, PHOTO_W, PHOTO_H, 24, y);
        for (int32_t x = 0; x < PHOTO_W; x++) {
            row[3 * x] = (uint8_t)(x * 255 / PHOTO_W);
            row[3 * x + 1] = (uint8_t)(y * 255 / PHOTO_H);
            row[3 * x + 2] = (uint8_t)((x ^ y) + (BenchRandom(&seed) & 15));
        }
    }
    return dib;
}

/* The picture as PBM (P4: 1 is black) or PPM (P6) for vips. */
static int WriteNetpbm(const char *path, uint8_t *dib, int32_t w, int32_t h, int bits)
{
    FILE *f = fopen(path, "wb");
    if (!f)
        return -1;
    fprintf(f, "%s\n%d %d\n%s", bits == 1 ? "P4" : "P6", (int)w, (int)h, bits == 1 ? "" : "255\n");
    size_t rowBytes = bits == 1 ? ((size_t)w + 7) / 8 : (size_t)w * 3;
    uint8_t *out = static_cast<uint8_t *>(malloc(rowBytes));
    for (int32_t y = 0; out && y < h; y++) {
        const uint8_t *row = BenchDibRow(dib, w, h, bits, y);
        for (size_t i = 0; i < rowBytes; i++)
            out[i] = bits == 1 ? (uint8_t)~row[i] : row[i - i % 3 + 2 - i % 3]; /* BGR to RGB */
        fwrite(out, 1, rowBytes, f);
    }
    free(out);
    return fclose(f) == 0 && out ? 0 : -1;
}

/* ---- timing ---- */

/* Ours: the median time of IMG_rotate_bitmap(angle) on a fresh image from
 * `dib` (made run-coded when `coded`), set up outside the timing. */
static double TimeOurs(const uint8_t *dib, uint32_t size, int coded, int32_t angle, int32_t *outW,
                       int32_t *outH)
{
    double times[RUNS];
    for (int run = 0; run < RUNS; run++) {
        uint8_t *copy = static_cast<uint8_t *>(ImgAlloc(size));
        if (!copy)
            return -1;
        memcpy(copy, dib, size);
        int32_t handle = IMG_create_handle_keep(copy);
        if (handle < 0 || (coded && IMG_dib_to_runs(handle) < 0))
            return -1;
        double t0 = BenchNow();
        int result = IMG_rotate_bitmap(handle, angle);
        times[run] = BenchNow() - t0;
        if (result < 0) {
            fprintf(stderr, "IMG_rotate_bitmap: %d\n", result);
            return -1;
        }
        IMG_bitmap_info(handle, outW, outH, NULL);
        IMG_delete_bitmap_keep(handle); /* frees the turned block, leaves the copy */
        ImgFree(copy);
    }
    return BenchMedian(times, RUNS);
}

/* vips: the median wall-clock time of the command, beside `copy`, the
 * median time of `vips copy` of the same file.  Returns vips' time less the
 * copy's over ours, or -1 when vips is missing or that difference is lost
 * in the noise. */
static double Report(const char *what, double ours, int32_t w, int32_t h, const char *vipsCommand,
                     double copy, int haveVips)
{
    printf("%-34s ours %8.2f ms (result %d x %d)", what, ours * 1e3, (int)w, (int)h);
    if (!haveVips) {
        printf("   vips: not installed\n");
        return -1;
    }
    double vips = BenchTimeCommand(vipsCommand, VIPS_RUNS);
    if (vips < 0 || copy < 0) {
        printf("   vips: command failed\n");
        return -1;
    }
    double net = vips - copy;
    printf("\n%-34s vips %8.2f ms whole command, of which %.2f ms is start-up and file I/O"
           " (vips copy)\n",
           "", vips * 1e3, copy * 1e3);
    printf("%-34s ratio vips/ours: %.2f whole command, %s%.2f%s without start-up and I/O\n", "",
           vips / ours, net > 0 ? "" : "(", net > 0 ? net / ours : 0.0,
           net > 0 ? "" : ": lost in the noise)");
    return net > 0 ? net / ours : -1;
}

int main(void)
{
    const char *tmp = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    char pbm[512], ppm[512], out[600], vipsRot[2048];
    snprintf(pbm, sizeof pbm, "%s/bench_rotate_page.pbm", tmp);
    snprintf(ppm, sizeof ppm, "%s/bench_rotate_photo.ppm", tmp);
    int haveVips = system("vips --version >/dev/null 2>&1") == 0;

    uint32_t pageSize, photoSize;
    uint8_t *page = FaxPage(&pageSize), *photo = Photo(&photoSize);
    if (!page || !photo || WriteNetpbm(pbm, page, PAGE_W, PAGE_H, 1) < 0 ||
        WriteNetpbm(ppm, photo, PHOTO_W, PHOTO_H, 24) < 0) {
        fprintf(stderr, "bench_rotate: cannot make the pictures\n");
        return 1;
    }
    printf("bench_rotate: %d x %d 1-bit page held run-coded; %d x %d 24-bit picture; "
           "ours median of %d, vips median of %d (wall clock)\n",
           PAGE_W, PAGE_H, PHOTO_W, PHOTO_H, RUNS, VIPS_RUNS);

    /* Start-up and file I/O of vips, per file: `vips copy`. */
    char copyPbm[1400], copyPpm[1400];
    snprintf(copyPbm, sizeof copyPbm, "vips copy '%s' '%s/bench_rotate_copy.pgm' >/dev/null 2>&1", pbm, tmp);
    snprintf(copyPpm, sizeof copyPpm, "vips copy '%s' '%s/bench_rotate_copy.ppm' >/dev/null 2>&1", ppm, tmp);
    double copyPage = haveVips ? BenchTimeCommand(copyPbm, VIPS_RUNS) : -1;
    double copyPhoto = haveVips ? BenchTimeCommand(copyPpm, VIPS_RUNS) : -1;

    struct {
        const char *what, *file;
        uint8_t *dib;
        uint32_t size;
        int coded;
        int32_t angle;
        const char *vipsOp;
    } cases[] = {
        {"page, quarter turn (9000)", pbm, page, pageSize, 1, 9000, "rot '%s' '%s' d90"},
        {"page, 30 degrees (3000)", pbm, page, pageSize, 1, 3000,
         "rotate '%s' '%s' 30 --interpolate nearest --background 255"},
        {"photo, quarter turn (9000)", ppm, photo, photoSize, 0, 9000, "rot '%s' '%s' d90"},
        {"photo, 30 degrees (3000)", ppm, photo, photoSize, 0, 3000,
         "rotate '%s' '%s' 30 --interpolate nearest"},
    };
    double oursMs[4], vipsRatio[4];
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i++) {
        int32_t w = 0, h = 0;
        double ours = TimeOurs(cases[i].dib, cases[i].size, cases[i].coded, cases[i].angle, &w, &h);
        if (ours < 0) {
            fprintf(stderr, "bench_rotate: %s failed\n", cases[i].what);
            return 1;
        }
        /* vips writes the same kind of file it read (PBM output of a
         * bilevel page is written as 8-bit PGM by vips' saver). */
        snprintf(out, sizeof out, "%s/bench_rotate_out%s", tmp, cases[i].coded ? ".pgm" : ".ppm");
        char op[1400];
        snprintf(op, sizeof op, cases[i].vipsOp, cases[i].file, out);
        snprintf(vipsRot, sizeof vipsRot, "vips %s >/dev/null 2>&1", op);
        oursMs[i] = ours * 1e3;
        vipsRatio[i] = Report(cases[i].what, ours, w, h, vipsRot, cases[i].coded ? copyPage : copyPhoto,
                              haveVips);
        remove(out);
    }
    snprintf(out, sizeof out, "%s/bench_rotate_copy.pgm", tmp);
    remove(out);
    snprintf(out, sizeof out, "%s/bench_rotate_copy.ppm", tmp);
    remove(out);
    remove(pbm);
    remove(ppm);
    ImgFree(page);
    ImgFree(photo);

    /* The quarter turns: the coded page's time, and both pictures against
     * vips without its start-up and I/O. */
    BenchSummary("MS", "coded_quarter_turn", oursMs[0]);
    if (vipsRatio[0] > 0)
        BenchSummary("RATIO", "coded_quarter_turn_vips", vipsRatio[0]);
    if (vipsRatio[2] > 0)
        BenchSummary("RATIO", "photo_quarter_turn", vipsRatio[2]);
    return 0;
}
