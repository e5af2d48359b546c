/*
 * trnw - the command-line tool over libtrnw6w95.  It uses the public
 * interface only (core/imgapi.h).
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#else
#include <unistd.h>
#endif

#include "imgapi.h"

static const char usage[] =
    "usage: trnw COMMAND [ARGUMENTS]\n"
    "\n"
    "commands:\n"
    "  version              print the library version\n"
    "  info FILE...         type, pages, size, depth and resolution of each file\n"
    "                       (and of every further page of a multi-page file)\n"
    "  convert IN OUT [--type N] [--page N] [--crop X,Y,W,H] [--size WxH]\n"
    "          [--rect X,Y,W,H] [--rotate DEGREES] [--flip x|y] [--invert]\n"
    "          [--colors fixed|popularity|octree[:N[:4|8]]]\n"
    "                       decode IN (page N, counted from 0; a fixed smaller size or\n"
    "                       a sub-rectangle while decoding), crop, and save OUT as type\n"
    "                       N (by OUT's extension when no type is given); --rotate\n"
    "                       (90, 270, 12.5, ...), --flip and --invert are applied in\n"
    "                       the order given, as is --colors (a palette of 256: the\n"
    "                       fixed 3-3-2 one or the most popular colours; or an octree\n"
    "                       of N colours, 8 to 256, default 256, in 4 or 8 bits,\n"
    "                       default 8; 4 bits hold at most 16)\n"
    "          [--dither bayer|halftone|stucki|threshold[:T]] [--dither-color bayer|diffusion]\n"
    "          [--gray] [--promote 8|24] [--reduce-bits 8|4|1]\n"
    "                       dither to 1 bit (threshold T, default automatic) or to\n"
    "                       4-bit colour, convert to 8-bit grey, promote to 8 or 24\n"
    "                       bits (in the order given, with the transforms); reduce\n"
    "                       the depth while decoding with the ordered dithers\n"
    "  convert IN OUT --all-pages [--type N] [other convert options]\n"
    "                       every page of IN to the multi-page OUT (TIFF or DCX;\n"
    "                       OUT is replaced), each page transformed as above\n"
    "  split IN OUTPREFIX [--type N]\n"
    "                       one file per page of IN: OUTPREFIX001.tif, ... (type N,\n"
    "                       a TIFF save type; uncompressed by default)\n"
    "  merge OUT.tif IN... [--type N]\n"
    "                       every page of every IN (any readable format) appended in\n"
    "                       order to OUT.tif, which is replaced (type N as for split)\n"
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
        data = static_cast<uint8_t *>(malloc((size_t)*size));
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
    uint8_t *row = static_cast<uint8_t *>(malloc((size_t)stride));
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
            uint8_t *row = static_cast<uint8_t *>(malloc((size_t)stride));
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

/* The meaning of each error code of Part 1.1, in words. */
static const char *ErrorText(int32_t code)
{
    switch (code) {
    case IMG_ERR_MEMORY: return "out of memory";
    case IMG_ERR_OPEN: return "the file could not be opened";
    case IMG_ERR_INVALID: return "invalid image data, or a variant of the format that is not handled";
    case IMG_ERR_CREATE: return "the output file could not be created";
    case IMG_ERR_TYPE: return "unknown or unsupported file type, or a parameter out of range";
    case IMG_ERR_GDI: return "the GDI object is not usable";
    case IMG_ERR_WRITE: return "a write stored fewer bytes than asked (disk full?)";
    case IMG_ERR_DISPLAY_RECT: return "the display rectangle is empty";
    case IMG_ERR_PAGE: return "the requested page does not exist";
    case IMG_ERR_READ: return "the file is truncated or not of the expected format";
    case IMG_ERR_HANDLE: return "invalid image handle";
    case IMG_ERR_SCAN_SOURCE: return "the scanner source could not be opened";
    case IMG_ERR_SCAN_MANAGER: return "the scanner source manager was not found";
    case IMG_ERR_STOPPED: return "decoding stopped";
    case IMG_ERR_DEPTH: return "the image's bit depth is not supported by this output or operation";
    case IMG_ERR_INTERP_PALETTE: return "a colour-palette image cannot be resized with interpolation";
    case IMG_ERR_NO_TRANSPARENT: return "no transparent colour is set";
    case IMG_ERR_COMPRESSION: return "the file's compression scheme is not supported";
    case IMG_ERR_SCAN_CAPABILITY: return "a scanner capability could not be set";
    default: return "unknown error";
    }
}

static int Fail(const char *what, int32_t code)
{
    fprintf(stderr, "trnw: %s: %s (error %d)\n", what, ErrorText(code), code);
    return 1;
}

/* The name of each type number of Part 1.3. */
static const char *TypeName(int32_t type)
{
    switch (type) {
    case 0: return "TIFF, uncompressed";
    case 1: return "Windows bitmap";
    case 2: return "PCX";
    case 3: return "Targa";
    case 4: return "GIF";
    case 5: return "WordPerfect graphics";
    case 6: return "Windows metafile";
    case 7: return "TIFF, CCITT modified Huffman";
    case 8: return "TIFF, CCITT Group 3";
    case 9: return "TIFF, LZW";
    case 10: return "TIFF, CCITT Group 4";
    case 11: return "DCX";
    case 12: return "Windows bitmap, compressed";
    case 13: return "JPEG";
    case 14: return "Encapsulated PostScript";
    case 15: return "Macintosh PICT";
    case 16: return "TIFF, PackBits";
    case 17: return "TIFF, two-dimensional CCITT Group 3";
    case 18: return "CALS raster";
    case 19: return "LSD";
    case 20: return "X bitmap";
    case 21: return "MacPaint";
    case 22: return "GX2";
    case 23: return "KFX";
    case 24: return "IOCA";
    case 25: return "Windows icon";
    case 26: return "IFF";
    case 27: return "Windows clipboard";
    case 28: return "GEM image";
    case 29: return "BTR";
    case 30: return "MSP";
    case 31: return "CUT";
    case 35: return "X pixmap";
    case 36: return "X window dump";
    case 37: return "Sun raster";
    case 38: return "plain text";
    case 39: return "Photo CD";
    case 40: return "TIFF, JPEG";
    case 41: return "Photoshop";
    case 42: return "IMT";
    case 43: return "PNG";
    case 44: return "GIF, interlaced";
    case 46: return "TIFF, compression 32010";
    case 47: return "TIFF, compression 32008";
    default: return "unknown";
    }
}

/* Per-page information of a multi-page file: the header of page p (> 0)
 * taken by a header sink that stops the reader (-18), as IMGLOW_get_fileinfo
 * does for the first page. */
static int32_t IMGCDECL PageHeaderSink(const uint8_t *header, void *context)
{
    int32_t *info = static_cast<int32_t *>(context);
    memcpy(info, header, 40);
    return IMG_ERR_STOPPED;
}

static int32_t IMGCDECL PageRowSink(const uint8_t *row, void *context, int32_t rowIndex,
                                    int32_t rowBytes)
{
    (void)row, (void)context, (void)rowIndex, (void)rowBytes;
    return 0;
}

static void PrintPages(const char *path, int32_t pages)
{
    long bytes = 0;
    uint8_t *data = ReadWholeFile(path, &bytes);
    if (!data)
        return;
    for (int32_t p = 1; p < pages; p++) {
        int32_t info[10] = {};
        int32_t result = IMGLOW_decompress_bitmap_mem(data, p, PageRowSink, info, PageHeaderSink);
        printf("  page %d: ", p);
        if (result == IMG_ERR_STOPPED || result == 0)
            printf("%d x %d, %d bit%s, %d x %d dpi\n", info[1], info[2], info[3] >> 16,
                   (info[3] >> 16) == 1 ? "" : "s", info[6], info[7]);
        else
            printf("(%s)\n", ErrorText(result));
    }
    free(data);
}

static int CommandInfo(int argc, char **argv)
{
    if (argc < 1) {
        fputs(usage, stderr);
        return 2;
    }
    int status = 0;
    for (int i = 0; i < argc; i++) {
        int32_t type = IMGLOW_get_filetype(argv[i]);
        if (type < 0) {
            status |= Fail(argv[i], type);
            continue;
        }
        int32_t pages = IMGLOW_get_pages(argv[i]);
        int32_t info[10] = {};
        int32_t result = IMGLOW_get_fileinfo(argv[i], info);
        printf("%s: type %d (%s), %d page%s", argv[i], type, TypeName(type), pages,
               pages == 1 ? "" : "s");
        if (result == 0)
            printf(", %d x %d, %d bit%s, %d x %d dpi", info[1], info[2], info[3] >> 16,
                   (info[3] >> 16) == 1 ? "" : "s", info[6], info[7]);
        else
            printf(" (%s)", ErrorText(result));
        putchar('\n');
        if (pages > 1) /* page 0 is the line above; pages count from 0 */
            PrintPages(argv[i], pages);
    }
    return status;
}

/* The progress bar: the callback is told the total row count on every row. */
static int32_t progressRows;
static int32_t IMGAPI Progress(int32_t value, int32_t total)
{
    (void)value;
    progressRows++;
    if (total > 0 && (progressRows % 64 == 0 || progressRows >= total)) {
        int percent = progressRows >= total ? 100 : (int)((int64_t)progressRows * 100 / total);
        fprintf(stderr, "\r[%-40.*s] %3d%%", percent * 40 / 100,
                "########################################", percent);
        if (progressRows >= total) {
            fputc('\n', stderr);
            progressRows = 0;
        }
    }
    return 0;
}

static int ParseNumbers(const char *text, int32_t *values, int count, char separator)
{
    for (int i = 0; i < count; i++) {
        char *end;
        long v = strtol(text, &end, 10);
        if (end == text || (i < count - 1 ? *end != separator : *end != '\0'))
            return 0;
        values[i] = (int32_t)v;
        text = end + 1;
    }
    return 1;
}

/* --colors: 'f' fixed palette, 'p' popularity, 'o' octree of `count`
 * colours in `bits` bits (Part 4.1). */
typedef struct ColourOption {
    char kind;
    int32_t count, bits;
} ColourOption;

static int ParseColors(const char *text, ColourOption *option)
{
    option->count = 256;
    option->bits = 8;
    if (!strcmp(text, "fixed") || !strcmp(text, "popularity")) {
        option->kind = text[0];
        return 1;
    }
    if (strncmp(text, "octree", 6) != 0)
        return 0;
    option->kind = 'o';
    text += 6;
    if (*text == '\0')
        return 1;
    char *end;
    long count = strtol(text + 1, &end, 10);
    if (*text != ':' || end == text + 1 || count < 1 || count > 256)
        return 0;
    option->count = (int32_t)count;
    if (*end == ':') {
        option->bits = (int32_t)strtol(end + 1, &end, 10);
        if (option->bits != 4 && option->bits != 8)
            return 0;
    }
    /* 4-bit pixels hold indices 0..15: at most 16 colours (at least 8 are made) */
    return *end == '\0' && (option->bits == 8 || option->count <= 16);
}

static int32_t ApplyColors(int32_t handle, const ColourOption *option)
{
    int32_t result;
    if (option->kind == 'f')
        result = IMG_mediancut_color(handle);
    else if (option->kind == 'p')
        result = IMG_popularity_color(handle);
    else
        result = IMG_octree_color(handle, option->bits, NULL, option->count);
    return result < 0 ? result : 0; /* the octree returns its entry count */
}

/* Part 4.2's options: sets *op (and *arg) for an operation; returns 2 when
 * the option takes no value, 1 when it took `value`, 0 for a bad value and
 * -1 for an option that is not one of these.  --reduce-bits sets *reduce. */
static int ParseColourOption(const char *option, const char *value, char *op, int32_t *arg,
                             int32_t *reduce)
{
    *arg = 0;
    if (!strcmp(option, "--gray")) {
        *op = 'G';
        return 2;
    }
    if (strcmp(option, "--dither") && strcmp(option, "--dither-color") &&
        strcmp(option, "--promote") && strcmp(option, "--reduce-bits"))
        return -1;
    if (!value)
        return 0;
    *op = 0;
    if (!strcmp(option, "--dither")) {
        if (!strcmp(value, "bayer"))
            *op = 'B';
        else if (!strcmp(value, "halftone"))
            *op = 'H';
        else if (!strcmp(value, "stucki"))
            *op = 'S';
        else if (!strcmp(value, "threshold"))
            *op = 'T', *arg = -1;
        else if (!strncmp(value, "threshold:", 10) && ParseNumbers(value + 10, arg, 1, 0))
            *op = 'T';
    } else if (!strcmp(option, "--dither-color")) {
        *op = !strcmp(value, "bayer") ? 'C' : !strcmp(value, "diffusion") ? 'D' : 0;
    } else if (!strcmp(option, "--promote")) {
        *op = !strcmp(value, "8") ? '8' : !strcmp(value, "24") ? '2' : 0;
    } else if (!strcmp(value, "8") || !strcmp(value, "4") || !strcmp(value, "1")) {
        *reduce = atoi(value);
        *op = 'R'; /* a decode setting, not an operation */
    }
    return *op ? 1 : 0;
}

static int32_t ApplyColourOperation(int32_t handle, char op, int32_t arg)
{
    switch (op) {
    case 'B': return IMG_bayer_mono(handle);
    case 'H': return IMG_halftone_mono(handle);
    case 'S': return IMG_diffusion_mono(handle);
    case 'T': return IMG_thresh_mono(handle, arg);
    case 'C': return IMG_bayer_color(handle);
    case 'D': return IMG_diffusion_color(handle);
    case 'G': return IMG_color_gray(handle);
    case '8': return IMG_promote_8(handle);
    default: return IMG_promote_24(handle);
    }
}

/* The transforms of convert, in the order given, then the crop rectangle. */
typedef struct {
    const char *ops; /* 'r' rotate (hundredths), 'x'/'y' flip, 'c' colours, 'i' invert,
                        else a Part 4.2 operation (ApplyColourOperation) */
    const int32_t *angles;
    const ColourOption *colours;
    int count;
    const int32_t *crop; /* NULL: none */
} PageOps;

static const PageOps noPageOps = {NULL, NULL, NULL, 0, NULL};

static int32_t Transform(int32_t handle, const PageOps *p)
{
    int32_t result = 0;
    for (int k = 0; k < p->count && result >= 0; k++) {
        if (p->ops[k] == 'r')
            result = IMG_rotate_bitmap(handle, p->angles[k]);
        else if (p->ops[k] == 'x')
            result = IMG_flip_bitmapx(handle);
        else if (p->ops[k] == 'y')
            result = IMG_flip_bitmapy(handle);
        else if (p->ops[k] == 'c')
            result = ApplyColors(handle, &p->colours[k]);
        else if (p->ops[k] == 'i')
            result = IMG_invert_bitmap(handle);
        else
            result = ApplyColourOperation(handle, p->ops[k], p->angles[k]);
        progressRows = 0;
    }
    if (result >= 0 && p->crop)
        result = IMG_set_croprect(handle, p->crop[0], p->crop[1], p->crop[2], p->crop[3]);
    return result < 0 ? result : 0;
}

/* One page of `in` (by name for page 0 when `data` is NULL, else from the
 * whole file in `data`): decode, transform, save to `out` (which a
 * multi-page type appends to).  0, or 1 after reporting the failure. */
static int ConvertPage(const char *in, uint8_t *data, uint32_t bytes, int32_t page, const char *out,
                       int32_t type, const PageOps *p)
{
    int32_t handle = data ? IMG_decompress_bitmap_mem_size(data, bytes, page) : IMG_decompress_bitmap(in);
    progressRows = 0;
    if (handle < 0)
        return Fail(in, handle);
    int32_t result = Transform(handle, p);
    if (result == 0)
        result = IMG_save_bitmap(handle, out, type);
    IMG_delete_bitmap(handle);
    return result < 0 ? Fail(out, result) : 0;
}

/* The page count of a file; 1 when its format has no pages. */
static int32_t PageCount(const char *path)
{
    int32_t pages = IMGLOW_get_pages(path);
    return pages < 1 ? 1 : pages;
}

/* The save types that append pages to an existing file (Part 1.5). */
static int MultiPageType(int32_t type, const char *path)
{
    static const int32_t types[] = {0, 7, 8, 9, 10, 11, 16, 40, 46, 47, 49, 51};
    if (type == IMG_TYPE_BY_EXTENSION) {
        size_t n = strlen(path);
        const char *tail = n >= 3 ? path + n - 3 : "";
        static const char *const extensions[] = {"tif", "TIF", "dcx", "DCX", "mca", "MCA"};
        for (size_t i = 0; i < sizeof extensions / sizeof extensions[0]; i++)
            if (!strcmp(tail, extensions[i]))
                return 1;
        return 0;
    }
    for (size_t i = 0; i < sizeof types / sizeof types[0]; i++)
        if (types[i] == type)
            return 1;
    return 0;
}

/* Appends every page of `in` to `out` (already emptied by the caller). */
static int AppendAllPages(const char *in, const char *out, int32_t type, const PageOps *p)
{
    long bytes = 0;
    uint8_t *data = ReadWholeFile(in, &bytes);
    if (!data)
        return Fail(in, IMG_ERR_OPEN);
    int32_t pages = PageCount(in);
    int status = 0;
    for (int32_t page = 0; page < pages && status == 0; page++)
        status = ConvertPage(in, data, (uint32_t)bytes, page, out, type, p);
    free(data);
    return status;
}

static int ConvertAllPages(const char *in, const char *out, int32_t type, const PageOps *p)
{
    if (!MultiPageType(type, out)) {
        fprintf(stderr, "trnw: convert --all-pages: %s: the output type holds one page only\n", out);
        return 2;
    }
    remove(out); /* the saves append: start from an empty output */
    return AppendAllPages(in, out, type, p);
}

/* The value of a trailing "--type N" option, or -1 (by extension). */
static int TypeOption(int *argc, char **argv, int32_t *type)
{
    *type = IMG_TYPE_BY_EXTENSION;
    if (*argc >= 2 && !strcmp(argv[*argc - 2], "--type")) {
        if (!ParseNumbers(argv[*argc - 1], type, 1, 0))
            return 0;
        *argc -= 2;
    }
    return 1;
}

static int CommandSplit(int argc, char **argv)
{
    int32_t type;
    if (!TypeOption(&argc, argv, &type) || argc != 2) {
        fputs(usage, stderr);
        return 2;
    }
    const char *in = argv[0], *prefix = argv[1];
    long bytes = 0;
    uint8_t *data = ReadWholeFile(in, &bytes);
    if (!data)
        return Fail(in, IMG_ERR_OPEN);
    int32_t pages = PageCount(in);
    int status = 0;
    for (int32_t page = 0; page < pages && status == 0; page++) {
        char out[4096];
        if (snprintf(out, sizeof out, "%s%03d.tif", prefix, (int)page + 1) >= (int)sizeof out) {
            status = Fail(prefix, IMG_ERR_CREATE);
            break;
        }
        remove(out); /* a TIFF save would append to an old file */
        status = ConvertPage(in, data, (uint32_t)bytes, page, out, type, &noPageOps);
        if (status == 0)
            printf("%s\n", out);
    }
    free(data);
    return status;
}

static int CommandMerge(int argc, char **argv)
{
    int32_t type;
    if (!TypeOption(&argc, argv, &type) || argc < 2) {
        fputs(usage, stderr);
        return 2;
    }
    const char *out = argv[0];
    if (!MultiPageType(type, out)) {
        fprintf(stderr, "trnw: merge: %s: the output type holds one page only\n", out);
        return 2;
    }
    for (int i = 1; i < argc; i++)
        if (!strcmp(argv[i], out)) {
            fprintf(stderr, "trnw: merge: %s is both output and input\n", out);
            return 2;
        }
    remove(out);
    int status = 0;
    for (int i = 1; i < argc && status == 0; i++)
        status = AppendAllPages(argv[i], out, type, &noPageOps);
    return status;
}

static int CommandConvert(int argc, char **argv)
{
    if (argc < 2) {
        fputs(usage, stderr);
        return 2;
    }
    const char *in = argv[0], *out = argv[1];
    int32_t type = IMG_TYPE_BY_EXTENSION, page = 0, crop[4], size[2], rect[4];
    int hasCrop = 0, hasSize = 0, hasRect = 0, allPages = 0;
    /* Operations in the order given (PageOps). */
    char ops[64];
    int32_t angles[64];
    ColourOption colourOptions[64];
    int opCount = 0;
    int32_t reduceBits = 0;
    for (int i = 2; i < argc; i++) {
        const char *value = i + 1 < argc ? argv[i + 1] : NULL;
        int ok = value != NULL;
        int colour = opCount < 64 ? ParseColourOption(argv[i], value, &ops[opCount],
                                                      &angles[opCount], &reduceBits)
                                  : -1;
        if (colour >= 0) {
            ok = colour > 0;
            if (ok && ops[opCount] != 'R')
                opCount++;
            if (colour == 2)
                continue;
        } else if (opCount == 64) {
            ok = 0;
        } else if (!strcmp(argv[i], "--invert")) {
            ops[opCount++] = 'i';
            continue;
        } else if (!strcmp(argv[i], "--all-pages")) {
            allPages = 1;
            continue;
        } else if (!strcmp(argv[i], "--rotate")) {
            char *end = NULL;
            double degrees = ok ? strtod(value, &end) : 0;
            ok = ok && end != value && *end == '\0' && degrees > -2e7 && degrees < 2e7;
            angles[opCount] = (int32_t)(degrees * 100 + (degrees < 0 ? -0.5 : 0.5));
            ops[opCount++] = 'r';
        } else if (!strcmp(argv[i], "--colors")) {
            ok = ok && ParseColors(value, &colourOptions[opCount]);
            ops[opCount++] = 'c';
        } else if (!strcmp(argv[i], "--flip")) {
            ok = ok && (!strcmp(value, "x") || !strcmp(value, "y"));
            ops[opCount++] = ok ? value[0] : '?';
        } else if (!strcmp(argv[i], "--type"))
            ok = ok && ParseNumbers(value, &type, 1, 0);
        else if (!strcmp(argv[i], "--page"))
            ok = ok && ParseNumbers(value, &page, 1, 0);
        else if (!strcmp(argv[i], "--crop"))
            ok = ok && (hasCrop = ParseNumbers(value, crop, 4, ','));
        else if (!strcmp(argv[i], "--size"))
            ok = ok && (hasSize = ParseNumbers(value, size, 2, 'x'));
        else if (!strcmp(argv[i], "--rect"))
            ok = ok && (hasRect = ParseNumbers(value, rect, 4, ','));
        else
            ok = 0;
        if (!ok) {
            fprintf(stderr, "trnw: convert: bad option '%s'\n\n%s", argv[i], usage);
            return 2;
        }
        i++;
    }
    if (hasSize)
        IMGLOW_set_decompsize(size[0], size[1]);
    if (hasRect)
        IMGLOW_set_decomp_rect(rect[0], rect[1], rect[2], rect[3]);
    if (reduceBits)
        IMGLOW_set_decomp_reduction(reduceBits);
    if (isatty(2))
        IMG_set_statusbar(0, Progress, 1);

    PageOps pageOps = {ops, angles, colourOptions, opCount, hasCrop ? crop : NULL};
    if (allPages)
        return ConvertAllPages(in, out, type, &pageOps);
    long bytes = 0;
    uint8_t *data = NULL;
    if (page != 0 && !(data = ReadWholeFile(in, &bytes)))
        return Fail(in, IMG_ERR_OPEN);
    int status = ConvertPage(in, data, (uint32_t)bytes, page, out, type, &pageOps);
    free(data);
    return status;
}

int main(int argc, char **argv)
{
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") || !strcmp(argv[1], "help")) {
        fputs(usage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    if (!strcmp(argv[1], "version") || !strcmp(argv[1], "--version"))
        return CommandVersion();
    if (!strcmp(argv[1], "info"))
        return CommandInfo(argc - 2, argv + 2);
    if (!strcmp(argv[1], "convert"))
        return CommandConvert(argc - 2, argv + 2);
    if (!strcmp(argv[1], "split"))
        return CommandSplit(argc - 2, argv + 2);
    if (!strcmp(argv[1], "merge"))
        return CommandMerge(argc - 2, argv + 2);
    if (!strcmp(argv[1], "runs"))
        return CommandRuns(argc - 2, argv + 2);
    fprintf(stderr, "trnw: unknown command '%s'\n\n%s", argv[1], usage);
    return 2;
}
