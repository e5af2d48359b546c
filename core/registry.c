/*
 * registry.c - Part 1.3: the format registry and detection.
 *
 * One table of formats, in probe order, gives each format its auto-detect
 * index, extension word, detected type number, probe, subtype query, reader
 * and page counter; one table of save types gives each its extension (for
 * IMG_save_bitmap's type -1, in Part 1.5's order) and writer.  Detection,
 * the type query, decode dispatch, page counting, save dispatch and
 * extension-to-type mapping all read these two tables.
 */
#include "registry.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "../codecs/bilevel/ccitt_encode.h"
#include "../codecs/bilevel/tiff_read.h"
#include "../codecs/tone/bmp.h"
#include "../codecs/tone/gif.h"
#include "bytes.h"
#include "imgapi.h"
#include "imgio.h"

#define DETECT_BYTES 10
#define AUTO_DETECT_COUNT 56 /* indices 0 to 55 */
#define PICT_SKIP 512        /* from after the ten bytes to offset 522 */
#define MACPAINT_BACK 467    /* from after the PICT bytes (532) to offset 65 */

/* ---- the auto-detect flags ---- */

/* All on except 38 (plain text) and 55. */
#define DEFAULT_AUTO_DETECT                                                  \
    {                                                                        \
        1, 1, 1, 1, 1, 1, 1, 1, /* 0-7 */                                    \
        1, 1, 1, 1, 1, 1, 1, 1, /* 8-15 */                                   \
        1, 1, 1, 1, 1, 1, 1, 1, /* 16-23 */                                  \
        1, 1, 1, 1, 1, 1, 1, 1, /* 24-31 */                                  \
        1, 1, 1, 1, 1, 1, 0, 1, /* 32-39 */                                  \
        1, 1, 1, 1, 1, 1, 1, 1, /* 40-47 */                                  \
        1, 1, 1, 1, 1, 1, 1, 0, /* 48-55 */                                  \
    }

static uint8_t autoDetect[AUTO_DETECT_COUNT] = DEFAULT_AUTO_DETECT;

void RegistryResetAutoDetect(void)
{
    static const uint8_t defaults[AUTO_DETECT_COUNT] = DEFAULT_AUTO_DETECT;
    memcpy(autoDetect, defaults, sizeof autoDetect);
}

int RegistryAutoDetectIndex(int type)
{
    if (type < 7 || type > 40)
        return type;
    switch (type) {
    case 7: case 8: case 9: case 10: case 16: case 17: case 40:
        return 0; /* the TIFF variants */
    case 12:
        return 1; /* the compressed bitmap */
    default:
        return type;
    }
}

/* The flag of a type, or NULL when its index is outside 0..55. */
static uint8_t *AutoDetectFlag(int type)
{
    int index = RegistryAutoDetectIndex(type);
    return index < 0 || index >= AUTO_DETECT_COUNT ? NULL : &autoDetect[index];
}

static int32_t SetAutoDetect(int type, uint8_t value)
{
    uint8_t *flag = AutoDetectFlag(type);
    if (!flag)
        return IMG_ERR_TYPE;
    int32_t previous = *flag;
    *flag = value;
    return previous;
}

/* ---- the probes ---- */

/* The detection buffer: the ten bytes at the start, later overwritten by the
 * PICT and MacPaint probes' own reads (one buffer, as in the original: a read
 * of the memory image past its end claims success and leaves it as it was). */
typedef struct {
    int handle;
    uint8_t b[DETECT_BYTES];
} DetectState;

typedef int (*Probe)(DetectState *s);

static int Starts(const uint8_t *b, const char *bytes, size_t n)
{
    return memcmp(b, bytes, n) == 0;
}

static int ProbeTif(DetectState *s) { return Starts(s->b, "MM", 2) || Starts(s->b, "II", 2); }
static int ProbeGif(DetectState *s) { return Starts(s->b, "GIF", 3); }
static int ProbeBmp(DetectState *s) { return Starts(s->b, "BM", 2) || GetLE32(s->b) == 40; }
static int ProbeEps(DetectState *s) { return Starts(s->b, "\xC5\xD0\xD3\xC6", 4); }
static int ProbeDcx(DetectState *s) { return Starts(s->b, "\xB1\x68\xDE\x3A", 4); }
static int ProbeJpg(DetectState *s) { return Starts(s->b, "\xFF\xD8", 2); }
static int ProbeWpg(DetectState *s) { return Starts(s->b + 1, "WPC", 3); }
static int ProbeCal(DetectState *s) { return Starts(s->b, "src", 3); }
static int ProbePng(DetectState *s) { return Starts(s->b + 1, "PNG", 3); }
static int ProbeKfx(DetectState *s) { return Starts(s->b, ".KF", 3); }
static int ProbeIff(DetectState *s) { return Starts(s->b, "FORM", 4); }
static int ProbeGx2(DetectState *s) { return Starts(s->b, "GX2", 3); }
static int ProbeLsd(DetectState *s) { return Starts(s->b, "\xDC\xDC", 2); }
static int ProbePcx(DetectState *s) { return s->b[0] == 0x0A && s->b[2] == 1; }

static int ProbeIco(DetectState *s)
{
    uint8_t width = s->b[6];
    return Starts(s->b, "\x00\x00\x01\x00", 4) && (width == 16 || width == 32 || width == 64);
}

/* b0 = ID length, b1 = colour-map type, b2 = image type (signed bytes). */
static int ProbeTga(DetectState *s)
{
    int8_t idLength = (int8_t)s->b[0], mapType = (int8_t)s->b[1], imageType = (int8_t)s->b[2];
    if ((imageType == 1 || imageType == 9) && mapType == 1)
        return 1;
    if ((imageType == 2 || imageType == 10 || imageType == 3 || imageType == 11) && mapType == 0)
        return 1;
    return idLength >= 24 && idLength <= 69 && imageType == (int8_t)0x9C;
}

static int ProbeWmf(DetectState *s)
{
    return Starts(s->b, "\xD7\xCD\xC6\x9A", 4) || s->b[0] == 1 || s->b[1] == 2;
}

static int ProbeIca(DetectState *s)
{
    const uint8_t *b = s->b;
    int field = b[2] == 0xD3 && ((b[3] == 0xA6 && b[4] == 0xFB) || (b[3] == 0xA8 && b[4] == 0xA8));
    return field || b[0] == 'p';
}

static int ProbePcd(DetectState *s) { return Starts(s->b, "\xFF\xFF\xFF\xFF", 4); }
static int ProbeClp(DetectState *s) { return Starts(s->b, "\x50\xC3", 2); }

static int ProbeImg(DetectState *s)
{
    return Starts(s->b, "\x00\x01\x00", 3) && (s->b[3] == 8 || s->b[3] == 9);
}

static int ProbeBtr(DetectState *s) { return s->b[0] == 0xBB && s->b[3] == 1; }
static int ProbeMsp(DetectState *s) { return Starts(s->b, "Lin", 3); }
static int ProbeXbm(DetectState *s) { return Starts(s->b, "#define", 7); }
static int ProbeXpm(DetectState *s) { return Starts(s->b, "/* XPM */", 9); }
static int ProbeXwd(DetectState *s) { return Starts(s->b + 4, "\x00\x00\x00\x07", 4); }
static int ProbeRas(DetectState *s) { return Starts(s->b, "\x59\xA6\x6A\x95", 4); }

/* Width (bytes 0-1) and height (2-3), little-endian and signed, 0 to 4999. */
static int ProbeCut(DetectState *s)
{
    const uint8_t *b = s->b;
    int16_t width = (int16_t)GetLE16(b), height = (int16_t)GetLE16(b + 2);
    if (b[4] != 0 || b[5] != 0 || (b[0] == 0 && b[1] == 0))
        return 0;
    return width >= 0 && width <= 4999 && height >= 0 && height <= 4999;
}

static int ProbeTxt(DetectState *s)
{
    for (int i = 0; i < DETECT_BYTES; i++) {
        uint8_t c = s->b[i];
        if (!((c >= 32 && c <= 126) || (c >= 9 && c <= 13) || c == 26))
            return 0;
    }
    return 1;
}

static int ProbePsd(DetectState *s) { return Starts(s->b, "8BPS", 4); }
static int ProbeImt(DetectState *s) { return Starts(s->b, "'C1\x00", 4); }

/* Reads ten more bytes into the detection buffer after a relative seek;
 * a read returning nothing means "no". */
static int ReadAfterSeek(DetectState *s, int32_t step)
{
    ImgSeek(s->handle, step, 1);
    return ImgRead(s->handle, s->b, DETECT_BYTES) > 0;
}

static int ProbePct(DetectState *s)
{
    return ReadAfterSeek(s, PICT_SKIP) && (s->b[0] == 0x11 || s->b[1] == 0x11);
}

/* Moves relative to where the PICT probe left off (kept: with PICT disabled
 * it reads from the wrong place). */
static int ProbeMac(DetectState *s)
{
    return ReadAfterSeek(s, -MACPAINT_BACK) &&
           (Starts(s->b, "PNT", 3) || Starts(s->b, "\x00\x00\x00\x00", 4));
}

/* ---- the format table ---- */

/* A subtype query over the source positioned at the image's start. */
typedef int (*Refine)(int handle, uint32_t start);

static int RefineTif(int handle, uint32_t start) { return TiffSubtype(handle, start); }

static int RefineGif(int handle, uint32_t start)
{
    (void)start;
    return GifSubtype(handle);
}

/* The 14-byte file header, then the 40-byte information header: 12 when
 * biCompression is non-zero, else 1. */
static int RefineBmp(int handle, uint32_t start)
{
    uint8_t head[54] = {0};
    (void)start;
    int32_t got = ImgRead(handle, head, 14);
    if (got < 0)
        return got;
    if (got < 14)
        return IMG_ERR_READ;
    /* A bare header (no "BM") is detected as a bitmap too: its own
     * biCompression is at offset 16 of the 40 bytes read from the start. */
    int bare = !(head[0] == 'B' && head[1] == 'M');
    uint32_t more = bare ? 26 : 40;
    got = ImgRead(handle, head + 14, more);
    if (got < 0)
        return got;
    if ((uint32_t)got < more)
        return IMG_ERR_READ;
    return GetLE32(head + (bare ? 16 : 30)) ? IMG_TYPE_BMP_COMPRESSED : IMG_TYPE_BMP;
}

typedef struct {
    int index;             /* auto-detect flag; -1: never detected */
    const char *extension; /* the extension word */
    int type;              /* the type reported when there is no subtype query */
    Probe probe;
    Refine refine;
    ImgReader reader;
    ImgPageCounter pageCounter;
} FormatRow;

/* Probe order of Part 1.3; readers and page counters as the codecs arrive. */
static const FormatRow formats[] = {
    {0, "tif", IMG_TYPE_TIFF, ProbeTif, RefineTif, NULL, NULL},
    {4, "gif", IMG_TYPE_GIF, ProbeGif, RefineGif, NULL, NULL},
    {1, "bmp", IMG_TYPE_BMP, ProbeBmp, RefineBmp, BmpRead, NULL},
    {14, "eps", IMG_TYPE_EPS, ProbeEps, NULL, NULL, NULL},
    {11, "dcx", IMG_TYPE_DCX, ProbeDcx, NULL, NULL, NULL},
    {13, "jpg", IMG_TYPE_JPG, ProbeJpg, NULL, NULL, NULL},
    {5, "wpg", IMG_TYPE_WPG, ProbeWpg, NULL, NULL, NULL},
    {18, "cal", IMG_TYPE_CALS, ProbeCal, NULL, NULL, NULL},
    {43, "png", IMG_TYPE_PNG, ProbePng, NULL, NULL, NULL},
    {23, "kfx", IMG_TYPE_KFX, ProbeKfx, NULL, NULL, NULL},
    {26, "iff", IMG_TYPE_IFF, ProbeIff, NULL, NULL, NULL},
    {22, "gx2", IMG_TYPE_GX2, ProbeGx2, NULL, NULL, NULL},
    {19, "lsd", IMG_TYPE_LSD, ProbeLsd, NULL, NULL, NULL},
    {2, "pcx", IMG_TYPE_PCX, ProbePcx, NULL, NULL, NULL},
    {25, "ico", IMG_TYPE_ICO, ProbeIco, NULL, NULL, NULL},
    {3, "tga", IMG_TYPE_TGA, ProbeTga, NULL, NULL, NULL},
    {6, "wmf", IMG_TYPE_WMF, ProbeWmf, NULL, NULL, NULL},
    {24, "ica", IMG_TYPE_ICA, ProbeIca, NULL, NULL, NULL},
    {39, "pcd", IMG_TYPE_PCD, ProbePcd, NULL, NULL, NULL},
    {27, "clp", IMG_TYPE_CLP, ProbeClp, NULL, NULL, NULL},
    {28, "img", IMG_TYPE_IMG, ProbeImg, NULL, NULL, NULL},
    {29, "btr", IMG_TYPE_BTR, ProbeBtr, NULL, NULL, NULL},
    {30, "msp", IMG_TYPE_MSP, ProbeMsp, NULL, NULL, NULL},
    {20, "xbm", IMG_TYPE_XBM, ProbeXbm, NULL, NULL, NULL},
    {35, "xpm", IMG_TYPE_XPM, ProbeXpm, NULL, NULL, NULL},
    {36, "xwd", IMG_TYPE_XWD, ProbeXwd, NULL, NULL, NULL},
    {37, "ras", IMG_TYPE_RAS, ProbeRas, NULL, NULL, NULL},
    {31, "cut", IMG_TYPE_CUT, ProbeCut, NULL, NULL, NULL},
    {38, "txt", IMG_TYPE_TXT, ProbeTxt, NULL, NULL, NULL},
    {41, "psd", IMG_TYPE_PSD, ProbePsd, NULL, NULL, NULL},
    {42, "imt", IMG_TYPE_IMT, ProbeImt, NULL, NULL, NULL},
    {15, "pct", IMG_TYPE_PCT, ProbePct, NULL, NULL, NULL},
    {21, "mac", IMG_TYPE_MAC, ProbeMac, NULL, NULL, NULL},
    /* Read only by name: a bitmap without file header (type 48). */
    {-1, "dib", IMG_TYPE_DIB, NULL, NULL, BmpRead, NULL},
};

#define FORMAT_COUNT (sizeof formats / sizeof formats[0])

static const FormatRow *FindFormat(const char *extension)
{
    if (!extension || !extension[0])
        return NULL;
    for (size_t i = 0; i < FORMAT_COUNT; i++)
        if (strcmp(formats[i].extension, extension) == 0)
            return &formats[i];
    return NULL;
}

/* ---- the save table ---- */

typedef struct {
    int type;
    const char *extension; /* Part 1.5's list, in its order; NULL: by number only */
    ImgWriter writer;      /* NULL: no writer yet (the dispatcher gives -7) */
} SaveRow;

static const SaveRow saveTypes[] = {
    /* IMG_save_bitmap's extension list, in its order.  ".imt" and ".btr"
     * carry a leading point and so never equal three characters (kept). */
    {IMG_TYPE_TIFF, "tif", NULL},
    {IMG_TYPE_BMP, "bmp", BmpWriteFile},
    {IMG_TYPE_PCX, "pcx", NULL},
    {IMG_TYPE_TGA, "tga", NULL},
    {IMG_TYPE_GIF, "gif", NULL},
    {IMG_TYPE_WPG, "wpg", NULL},
    {IMG_TYPE_WMF, "wmf", NULL},
    {IMG_TYPE_DCX, "dcx", NULL},
    {IMG_TYPE_JPG, "jpg", NULL},
    {IMG_TYPE_PCT, "pct", NULL},
    {IMG_TYPE_EPS, "eps", NULL},
    {IMG_TYPE_CALS, "cal", NULL},
    {IMG_TYPE_ICO, "ico", NULL},
    {IMG_TYPE_CLP, "clp", NULL},
    {IMG_TYPE_XBM, "xbm", NULL},
    {IMG_TYPE_XPM, "xpm", NULL},
    {IMG_TYPE_XWD, "xwd", NULL},
    {IMG_TYPE_RAS, "ras", NULL},
    {IMG_TYPE_PSD, "psd", NULL},
    {IMG_TYPE_IMT, ".imt", NULL},
    {IMG_TYPE_BTR, ".btr", NULL},
    {IMG_TYPE_IFF, "iff", NULL},
    {IMG_TYPE_PNG, "png", NULL},
    {IMG_TYPE_ICA, "ica", NULL},
    {IMG_TYPE_MCA, "mca", NULL},
    /* The other types of Part 1.5's writer dispatch. */
    {IMG_TYPE_TIFF_HUFFMAN, NULL, NULL},
    {IMG_TYPE_TIFF_G3, NULL, NULL},
    {IMG_TYPE_TIFF_LZW, NULL, NULL},
    {IMG_TYPE_TIFF_G4, NULL, NULL},
    {IMG_TYPE_TIFF_PACKBITS, NULL, NULL},
    {IMG_TYPE_TIFF_JPEG, NULL, NULL},
    {IMG_TYPE_TIFF_51, NULL, NULL},
    {IMG_TYPE_DIB, NULL, BmpWritePacked},
    {IMG_TYPE_BMP_COMPRESSED, NULL, BmpWriteCompressed},
    {IMG_TYPE_TGA2, NULL, NULL},
    {IMG_TYPE_GIF_INTERLACED, NULL, NULL},
    {IMG_TYPE_FAX_G3, NULL, CcittWriteFaxG3},
    {IMG_TYPE_FAX_G3_B, NULL, CcittWriteFaxG3Lsb},
    {IMG_TYPE_FAX_G4, NULL, CcittWriteFaxG4},
    {IMG_TYPE_FAX_G4_B, NULL, CcittWriteFaxG4Lsb},
};

#define SAVE_COUNT (sizeof saveTypes / sizeof saveTypes[0])

/* ---- detection ---- */

int ImgDetect(int handle, char *extension)
{
    DetectState s = {handle, {0}};
    extension[0] = '\0';
    int32_t got = ImgRead(handle, s.b, DETECT_BYTES);
    if (got < DETECT_BYTES)
        return got;
    for (size_t i = 0; i < FORMAT_COUNT; i++) {
        const FormatRow *row = &formats[i];
        if (!row->probe || !autoDetect[row->index])
            continue;
        if (row->probe(&s)) {
            memcpy(extension, row->extension, 4);
            break;
        }
    }
    ImgSeek(handle, 0, 0);
    return 0;
}

int RegistryFileType(int handle, const char *extension, uint32_t start)
{
    const FormatRow *row = FindFormat(extension);
    if (!row)
        return IMG_ERR_TYPE;
    if (!row->refine)
        return row->type;
    ImgSeek(handle, (int32_t)start, 0);
    return row->refine(handle, start);
}

/* Detects from the current position (start) and reports the type. */
static int32_t QueryType(int handle, uint32_t start)
{
    char extension[4];
    int result = ImgDetect(handle, extension);
    if (result < 0)
        return result;
    return RegistryFileType(handle, extension, start);
}

/* ---- look-ups ---- */

/* Test hooks: one reader (by extension) and one writer (by type) can be
 * put in place of the table's for a test. */
static char testReaderExtension[4];
static ImgReader testReader;
static int32_t testWriterType = -1000;
static ImgWriter testWriter;

ImgReader RegistrySetReaderForTest(const char *extension, ImgReader reader)
{
    ImgReader previous = RegistryReader(extension);
    testReader = reader;
    snprintf(testReaderExtension, sizeof testReaderExtension, "%s", reader ? extension : "");
    return previous;
}

ImgWriter RegistrySetWriterForTest(int32_t type, ImgWriter writer)
{
    ImgWriter previous = RegistryWriter(type);
    testWriter = writer;
    testWriterType = writer ? type : -1000;
    return previous;
}

ImgReader RegistryReader(const char *extension)
{
    if (testReader && extension && !strcmp(extension, testReaderExtension))
        return testReader;
    const FormatRow *row = FindFormat(extension);
    return row ? row->reader : NULL;
}

ImgPageCounter RegistryPageCounter(const char *extension)
{
    const FormatRow *row = FindFormat(extension);
    return row ? row->pageCounter : NULL;
}

ImgWriter RegistryWriter(int type)
{
    if (testWriter && type == testWriterType)
        return testWriter;
    for (size_t i = 0; i < SAVE_COUNT; i++)
        if (saveTypes[i].type == type)
            return saveTypes[i].writer;
    return NULL;
}

static int SameIgnoringCase(const char *a, const char *b)
{
    for (; *a && *b; a++, b++)
        if (tolower((unsigned char)*a) != tolower((unsigned char)*b))
            return 0;
    return *a == *b;
}

int RegistryTypeForPath(const char *path)
{
    size_t length = path ? strlen(path) : 0;
    if (length < 3)
        return IMG_TYPE_BY_EXTENSION;
    const char *tail = path + length - 3;
    for (size_t i = 0; i < SAVE_COUNT; i++)
        if (saveTypes[i].extension && SameIgnoringCase(tail, saveTypes[i].extension))
            return saveTypes[i].type;
    return IMG_TYPE_BY_EXTENSION;
}

/* ---- exported ---- */

int32_t IMGAPI IMGLOW_get_filetype(const char *path)
{
    int handle = ImgOpen(path, 0);
    if (handle < 0)
        return IMG_ERR_OPEN;
    int32_t result = QueryType(handle, 0);
    ImgClose(handle);
    return result;
}

int32_t IMGAPI IMGLOW_get_filetype_fd(int32_t fileHandle)
{
    /* The memory image's seek returns 0, not the position. */
    int32_t start = fileHandle == IMG_MEMORY_HANDLE ? (int32_t)ImgTell() : ImgSeek(fileHandle, 0, 1);
    return QueryType(fileHandle, start < 0 ? 0 : (uint32_t)start);
}

int32_t IMGAPI IMGLOW_get_filetype_mem(void *memory)
{
    ImgSetMemorySource(memory);
    return QueryType(IMG_MEMORY_HANDLE, 0);
}

int32_t IMGAPI IMGLOW_get_filetype_mem_size(void *memory, uint32_t size)
{
    ImgSetMemorySourceSized(memory, size);
    return QueryType(IMG_MEMORY_HANDLE, 0);
}

int32_t IMGAPI IMGLOW_set_auto_detect(int32_t type)
{
    return SetAutoDetect(type, 1);
}

int32_t IMGAPI IMGLOW_unset_auto_detect(int32_t type)
{
    return SetAutoDetect(type, 0);
}

int32_t IMGAPI IMGLOW_get_auto_detect(int32_t type)
{
    uint8_t *flag = AutoDetectFlag(type);
    return flag ? *flag : IMG_ERR_TYPE;
}
