/*
 * bench_tiff_write - saving a dense 2550 x 3300 fax page as a Group 3 and as
 * a Group 4 TIFF with our writer beside libtiff, on the same page in the
 * same run.
 *
 * The page is bench_common.h's 300-dpi text page.  Ours: the page as the
 * library holds a fax page, decoded from a Group 4 TIFF (its rows are run
 * records), saved with IMG_save_bitmap to a file in the temporary directory:
 * save type 8 (compression 3, EOLs on 16-bit boundaries, T4Options 4,
 * FillOrder 2) and type 51 (compression 4, FillOrder 1); one strip, the
 * resolution 300 dpi.  libtiff: TIFFOpen, the same compression, T4Options
 * (GROUP3OPT_FILLBITS), FillOrder, one strip and resolution,
 * PHOTOMETRIC_MINISWHITE, one TIFFWriteEncodedStrip of the packed page
 * (prepared outside the timing), TIFFClose.  Each side deletes its file
 * first (a TIFF save appends to an existing TIFF; TIFFOpen would truncate
 * it).  Runs alternate between the two (BenchInterleaved); the medians are
 * printed with the ratio libtiff time / ours (above 1: we are faster).  As
 * a side figure, the same saves through IMGLOW_save_bitmap with rows served
 * from the packed page, interleaved with libtiff in the same way.  As a
 * check, libtiff reads both of our files back to the page.  The last lines
 * are the ratios as `make bench` gathers them.  No timing is asserted.
 * Built with libtiff when CMake finds it through pkg-config; otherwise only
 * our times are printed.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bench_common.h"
#include "core/contracts.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#ifdef TRNW_HAVE_LIBTIFF
#include <tiffio.h>
#endif

constexpr int PAGE_W = 2550, PAGE_H = 3300, ROW_BYTES = (PAGE_W + 7) / 8, RUNS = 15;

struct Bench {
    uint8_t *page;       /* packed rows, top first, 1 = black (libtiff's MinIsWhite) */
    uint8_t *white1;     /* the same, 1 = white (the library's 1-bit palette) */
    int32_t handle;      /* the page decoded from a Group 4 TIFF: run records */
    int32_t type;        /* 8 or 51 */
    char ours[1024], theirs[1024];
};

static int32_t PackedRows(void *context, uint8_t *buffer, int32_t rowIndex, int32_t rowBytes)
{
    const Bench *b = static_cast<const Bench *>(context);
    memcpy(buffer, b->white1 + (size_t)rowIndex * ROW_BYTES, (size_t)rowBytes);
    return 0;
}

/* A 1-bit DIB of the page (entry 0 black, entry 1 white), bottom row first. */
static int32_t PackedHandle(const Bench *b)
{
    uint8_t *block = BenchNewDib(PAGE_W, PAGE_H, 1, 300, NULL);
    if (!block)
        return -1;
    for (int y = 0; y < PAGE_H; y++)
        memcpy(BenchDibRow(block, PAGE_W, PAGE_H, 1, y), b->white1 + (size_t)y * ROW_BYTES, ROW_BYTES);
    return IMG_create_handle_keep(block);
}

/* The page as a fax page is held: saved as a Group 4 TIFF and decoded. */
static int32_t DecodedHandle(const Bench *b)
{
    int32_t packed = PackedHandle(b);
    if (packed < 0)
        return -1;
    int result = IMG_save_bitmap(packed, b->ours, IMG_TYPE_TIFF_G4);
    IMG_delete_bitmap(packed);
    int32_t handle = result < 0 ? -1 : IMG_decompress_bitmap(b->ours);
    remove(b->ours);
    return handle;
}

static void SaveOurs(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    remove(b->ours);
    if (IMG_save_bitmap(b->handle, b->ours, b->type) < 0) {
        fprintf(stderr, "bench_tiff_write: our save of type %d failed\n", (int)b->type);
        exit(1);
    }
}

static void SaveOursPackedRows(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    uint8_t header[IMG_HEADER_BLOCK_SIZE] = {};
    BITMAPINFOHEADER h = {};
    h.biSize = 40;
    h.biWidth = PAGE_W;
    h.biHeight = PAGE_H;
    h.biPlanes = 1;
    h.biBitCount = 1;
    h.biXPelsPerMeter = h.biYPelsPerMeter = 300;
    memcpy(header, &h, sizeof h);
    memset(header + 44, 255, 3); /* entry 1 white */
    remove(b->ours);
    int file = ImgOpen(b->ours, 2);
    int32_t result =
        file < 0 ? IMG_ERR_CREATE : IMGLOW_save_bitmap(file, header, b->type, PackedRows, b);
    if (file >= 0)
        ImgClose(file);
    if (result < 0) {
        fprintf(stderr, "bench_tiff_write: our save of type %d from packed rows failed\n",
                (int)b->type);
        exit(1);
    }
}

#ifdef TRNW_HAVE_LIBTIFF
static void SaveLibtiff(void *context)
{
    Bench *b = static_cast<Bench *>(context);
    int g3 = b->type == IMG_TYPE_TIFF_G3;
    remove(b->theirs);
    TIFF *tif = TIFFOpen(b->theirs, "w");
    if (!tif) {
        fprintf(stderr, "bench_tiff_write: libtiff cannot open %s\n", b->theirs);
        exit(1);
    }
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, (uint32_t)PAGE_W);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, g3 ? COMPRESSION_CCITTFAX3 : COMPRESSION_CCITTFAX4);
    if (g3)
        TIFFSetField(tif, TIFFTAG_GROUP3OPTIONS, GROUP3OPT_FILLBITS);
    TIFFSetField(tif, TIFFTAG_FILLORDER, g3 ? FILLORDER_LSB2MSB : FILLORDER_MSB2LSB);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, (uint32_t)PAGE_H);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    tmsize_t n = TIFFWriteEncodedStrip(tif, 0, b->page, (tmsize_t)ROW_BYTES * PAGE_H);
    TIFFClose(tif);
    if (n < 0) {
        fprintf(stderr, "bench_tiff_write: libtiff failed\n");
        exit(1);
    }
}

/* libtiff reads the file at `path` back to the page. */
static bool LibtiffReadsThePage(const Bench *b, const char *path)
{
    TIFF *tif = TIFFOpen(path, "r");
    if (!tif)
        return false;
    uint8_t *strip = static_cast<uint8_t *>(malloc((size_t)ROW_BYTES * PAGE_H));
    bool same = strip && TIFFReadEncodedStrip(tif, 0, strip, (tmsize_t)ROW_BYTES * PAGE_H) ==
                             (tmsize_t)ROW_BYTES * PAGE_H;
    /* The pixels only: libtiff's decoder leaves the padding bits as they come. */
    const uint8_t lastByte = (uint8_t)(0xFF00 >> (PAGE_W - 8 * (ROW_BYTES - 1)));
    for (size_t i = 0; same && i < (size_t)ROW_BYTES * PAGE_H; i++) {
        uint8_t mask = i % ROW_BYTES == ROW_BYTES - 1 ? lastByte : 0xFF;
        same = ((strip[i] ^ b->page[i]) & mask) == 0;
    }
    free(strip);
    TIFFClose(tif);
    return same;
}
#endif

static long FileSize(const char *path)
{
    FILE *f = fopen(path, "rb");
    if (!f)
        return -1;
    fseek(f, 0, SEEK_END);
    long size = ftell(f);
    fclose(f);
    return size;
}

#ifndef TRNW_HAVE_LIBTIFF
static void NoPeer(void *context) { (void)context; }
#endif

int main(void)
{
    static Bench b;
    b.page = static_cast<uint8_t *>(malloc((size_t)ROW_BYTES * PAGE_H));
    b.white1 = static_cast<uint8_t *>(malloc((size_t)ROW_BYTES * PAGE_H));
    if (!b.page || !b.white1)
        return 1;
    BenchPage text = {b.page, PAGE_W, PAGE_H, ROW_BYTES};
    BenchTextPage(&text, 4242);
    /* The library's rows: 1 = white (the padding bits stay white). */
    for (size_t i = 0; i < (size_t)ROW_BYTES * PAGE_H; i++)
        b.white1[i] = (uint8_t)~b.page[i];
#ifdef TRNW_HAVE_LIBTIFF
    TIFFSetWarningHandler(NULL); /* our DateTime and Artist fields hold 40 and 200 bytes */
#endif
    const char *dir = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    snprintf(b.ours, sizeof b.ours, "%s/bench_tiff_write_ours.tif", dir);
    snprintf(b.theirs, sizeof b.theirs, "%s/bench_tiff_write_libtiff.tif", dir);
    b.handle = DecodedHandle(&b);
    if (b.handle < 0) {
        fprintf(stderr, "bench_tiff_write: cannot make the decoded page in %s\n", dir);
        return 1;
    }
    printf("bench_tiff_write: %d x %d dense text page to a file in %s, median of %d interleaved "
           "runs\n", PAGE_W, PAGE_H, dir, RUNS);

    struct Case { int32_t type; const char *what, *summary; } cases[] = {
        {IMG_TYPE_TIFF_G3, "Group 3 TIFF (type 8)", "g3_tiff_save"},
        {IMG_TYPE_TIFF_51, "Group 4 TIFF (type 51)", "g4_tiff_save"},
    };
#ifdef TRNW_HAVE_LIBTIFF
    double ratios[2] = {0, 0};
#endif
    for (int k = 0; k < 2; k++) {
        b.type = cases[k].type;
#ifdef TRNW_HAVE_LIBTIFF
        void (*peer)(void *) = SaveLibtiff;
#else
        void (*peer)(void *) = NoPeer;
#endif
        double ours, theirs, packed, theirs2;
        BenchInterleaved(SaveOurs, peer, &b, RUNS, &ours, &theirs);
        long ourSize = FileSize(b.ours);
        BenchInterleaved(SaveOursPackedRows, peer, &b, RUNS, &packed, &theirs2);
        printf("%s\n", cases[k].what);
        printf("  ours, IMG_save_bitmap of the decoded page:    %8.2f ms, %ld bytes\n", ours * 1e3,
               ourSize);
        printf("  ours, IMGLOW_save_bitmap from packed rows:    %8.2f ms\n", packed * 1e3);
#ifdef TRNW_HAVE_LIBTIFF
        printf("  libtiff:                                      %8.2f ms, %ld bytes\n", theirs * 1e3,
               FileSize(b.theirs));
        printf("  ratio libtiff / ours: %.2f (decoded page), %.2f (packed rows)\n", theirs / ours,
               theirs2 / packed);
        SaveOurs(&b);
        printf("  check: libtiff reads our file back to the page: %s\n",
               LibtiffReadsThePage(&b, b.ours) ? "yes" : "NO");
        ratios[k] = theirs / ours;
#else
        (void)theirs, (void)theirs2;
        printf("  libtiff not found at build time: no comparison\n");
#endif
    }
    remove(b.ours);
    remove(b.theirs);
    IMG_delete_bitmap(b.handle);
    free(b.page);
    free(b.white1);
#ifdef TRNW_HAVE_LIBTIFF
    for (int k = 0; k < 2; k++)
        BenchSummary("RATIO", cases[k].summary, ratios[k]);
#endif
    return 0;
}
