/*
 * detect.cpp - detection and the type queries: the probes of the format list
 * in order, the auto-detect flags that switch them, the subtype refinement,
 * and the look-ups of readers, page counters and writers that the decode and
 * save pipelines dispatch through.
 */
#include "pipeline/detect.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "formats/formats.h"
#include "formats/tiff_read.h"
#include "core/guard.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#define AUTO_DETECT_COUNT 56 /* indices 0 to 55 */

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

/* ---- detection ---- */

int ImgDetect(int handle, char *extension)
{
    ImgDetectBytes bytes = {handle, {0}};
    extension[0] = '\0';
    int32_t got = ImgRead(handle, bytes.b, kDetectBytes);
    if (got < kDetectBytes)
        return got;
    for (const ImgFormat *format : ImgFormats()) {
        if (!format->probe || !autoDetect[format->autoDetectIndex])
            continue;
        if (format->probe(bytes)) {
            memcpy(extension, format->extension, 4);
            break;
        }
    }
    ImgSeek(handle, 0, 0);
    return 0;
}

int RegistryFileType(int handle, const char *extension, uint32_t start)
{
    const ImgFormat *format = ImgFormatByExtension(extension);
    if (!format)
        return IMG_ERR_TYPE;
    if (!format->refine)
        return format->types[0].type;
    ImgSeek(handle, (int32_t)start, 0);
    return format->refine(handle, start);
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
    const ImgFormat *format = ImgFormatByExtension(extension);
    return format ? format->reader : NULL;
}

ImgPageCounter RegistryPageCounter(const char *extension)
{
    const ImgFormat *format = ImgFormatByExtension(extension);
    return format ? format->pageCounter : NULL;
}

ImgWriter RegistryWriter(int type)
{
    if (testWriter && type == testWriterType)
        return testWriter;
    const ImgTypeEntry *entry = ImgTypeEntryOf(type);
    return entry ? entry->writer : NULL;
}

static bool SameIgnoringCase(const char *a, const char *b)
{
    for (; *a && *b; a++, b++)
        if (tolower((unsigned char)*a) != tolower((unsigned char)*b))
            return false;
    return *a == *b;
}

int RegistryTypeForPath(const char *path)
{
    size_t length = path ? strlen(path) : 0;
    if (length < 3)
        return IMG_TYPE_BY_EXTENSION;
    const char *tail = path + length - 3;
    for (const ImgFormat *format : ImgFormats())
        if (format->saveExtension && SameIgnoringCase(tail, format->saveExtension))
            return format->types[0].type;
    return IMG_TYPE_BY_EXTENSION;
}

bool RegistryMultiPage(int32_t type)
{
    const ImgFormat *format = ImgFormatOfType(type);
    return format && format->multiPage;
}

/* ---- exported ---- */

int32_t IMGAPI IMGLOW_get_filetype(const char *path)
{
    return Guarded([&]() -> int32_t {
        ImgFile file(ImgOpen(path, 0));
        if (!file.ok())
            return IMG_ERR_OPEN;
        return QueryType(file.get(), 0);
    });
}

int32_t IMGAPI IMGLOW_get_filetype_fd(int32_t fileHandle)
{
    return Guarded([&]() -> int32_t {
        /* The memory image's seek returns 0, not the position. */
        int32_t start = fileHandle == IMG_MEMORY_HANDLE ? (int32_t)ImgTell() : ImgSeek(fileHandle, 0, 1);
        return QueryType(fileHandle, start < 0 ? 0 : (uint32_t)start);
    });
}

/* ---- the orientation query ---- */

/* Whether a name ends in ".tif" (any case). */
static int HasTifExtension(const char *path)
{
    size_t n = strlen(path);
    if (n < 4 || path[n - 4] != '.')
        return 0;
    return tolower((unsigned char)path[n - 3]) == 't' && tolower((unsigned char)path[n - 2]) == 'i' &&
           tolower((unsigned char)path[n - 1]) == 'f';
}

int32_t IMGAPI IMGLOW_get_image_orientation(const char *path)
{
    return Guarded([&]() -> int32_t {
        if (!path)
            return IMG_ERR_OPEN;
        ImgFile file(ImgOpen(path, 0));
        if (!file.ok())
            return IMG_ERR_OPEN;
        /* The Photo CD reader's query does not exist yet: other names give -7. */
        return HasTifExtension(path) ? TiffOrientation(file.get(), 0) : IMG_ERR_TYPE;
    });
}

int32_t IMGAPI IMGLOW_get_filetype_mem(void *memory)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySource(memory);
        return QueryType(IMG_MEMORY_HANDLE, 0);
    });
}

int32_t IMGAPI IMGLOW_get_filetype_mem_size(void *memory, uint32_t size)
{
    return Guarded([&]() -> int32_t {
        ImgSetMemorySourceSized(memory, size);
        return QueryType(IMG_MEMORY_HANDLE, 0);
    });
}

int32_t IMGAPI IMGLOW_set_auto_detect(int32_t type)
{
    return Guarded([&]() -> int32_t {
        return SetAutoDetect(type, 1);
    });
}

int32_t IMGAPI IMGLOW_unset_auto_detect(int32_t type)
{
    return Guarded([&]() -> int32_t {
        return SetAutoDetect(type, 0);
    });
}

int32_t IMGAPI IMGLOW_get_auto_detect(int32_t type)
{
    return Guarded([&]() -> int32_t {
        uint8_t *flag = AutoDetectFlag(type);
        return flag ? *flag : IMG_ERR_TYPE;
    });
}

const char *IMGAPI IMG_type_name(int32_t type)
{
    const ImgTypeEntry *entry = ImgTypeEntryOf(type);
    return entry ? entry->name : "unknown";
}

const char *IMGAPI IMG_type_extension(int32_t type)
{
    const ImgFormat *format = ImgFormatOfType(type);
    return format ? format->extension : "";
}

int32_t IMGAPI IMG_type_multipage(int32_t type)
{
    return Guarded([&]() -> int32_t {
        return RegistryMultiPage(type) ? 1 : 0;
    });
}
