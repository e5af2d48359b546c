/*
 * fuzz_detect.c - libFuzzer target for format detection and the type query
 * (with the TIFF, BMP and GIF subtype queries).
 *
 * The input is copied into a buffer of exactly its size and made the memory
 * image with ImgSetMemorySourceSized, so ASan sees any read outside it.
 * Byte 0 of the input also switches a few auto-detect flags (text on, PICT
 * off, ...) so that every probe path is reached; the flags are reset after
 * each input.  Then: ImgDetect from position 0, ImgDetect from an offset
 * within the input, each subtype query from position 0 whatever the probes
 * said, and IMGLOW_get_filetype_mem_size.  Every result must be a type
 * number or an IMG_ERR_* code; the detected word must be empty or a
 * three-letter word the format list knows.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/imgapi.h"
#include "core/imgio.h"
#include "pipeline/detect.h"

static void Fail(const char *what, int value)
{
    fprintf(stderr, "fuzz_detect: %s (%d)\n", what, value);
    abort();
}

static void CheckResult(const char *what, int result)
{
    /* Type numbers 0..53; errors -1..-28. */
    if (result > 53 || result < -28)
        Fail(what, result);
}

/* The detection words of the format list. */
static const char words[] = "tif gif bmp eps dcx jpg wpg cal png kfx iff gx2 lsd pcx ico tga "
                            "wmf ica pcd clp img btr msp xbm xpm xwd ras cut txt psd imt pct mac ";

static void CheckWord(const char *extension)
{
    char word[5];
    if (extension[0] == '\0')
        return;
    if (strlen(extension) != 3)
        Fail("detection wrote a word that is not three letters", extension[0]);
    snprintf(word, sizeof word, "%s ", extension);
    if (!strstr(words, word))
        Fail("detection wrote an unknown word", extension[0]);
}

static void Detect(const uint8_t *image, uint32_t size, uint32_t from)
{
    char extension[4] = {'?', '?', '?', 0};
    ImgSetMemorySourceSized((void *)image, size);
    ImgSeek(IMG_MEMORY_HANDLE, (int32_t)from, 0);
    int result = ImgDetect(IMG_MEMORY_HANDLE, extension);
    if (result < 0 || result > 10)
        Fail("ImgDetect result", result);
    if (result == 0 && ImgTell() != 0)
        Fail("ImgDetect did not leave the source at 0", (int)ImgTell());
    if (result > 0 && extension[0])
        Fail("a short read left a word", result);
    CheckWord(extension);
    CheckResult("RegistryFileType after detection",
                RegistryFileType(IMG_MEMORY_HANDLE, extension, 0));
}

static void SwitchFlags(uint8_t bits)
{
    if (bits & 1)
        IMGLOW_set_auto_detect(38); /* plain text */
    if (bits & 2)
        IMGLOW_unset_auto_detect(15); /* PICT: MacPaint reads elsewhere */
    if (bits & 4)
        IMGLOW_unset_auto_detect(0); /* TIFF */
    if (bits & 8)
        IMGLOW_unset_auto_detect(3); /* Targa */
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0; /* size 0 would mean "unbounded" */
    uint8_t *image = static_cast<uint8_t *>(malloc(size));
    if (!image)
        return 0;
    memcpy(image, data, size);
    uint32_t n = (uint32_t)size;

    SwitchFlags(data[0] >> 4);
    Detect(image, n, 0);
    Detect(image, n, data[0] % n);

    static const char *const refined[] = {"tif", "bmp", "gif"};
    for (int i = 0; i < 3; i++) {
        ImgSetMemorySourceSized(image, n);
        CheckResult(refined[i], RegistryFileType(IMG_MEMORY_HANDLE, refined[i], 0));
    }
    CheckResult("IMGLOW_get_filetype_mem_size", IMGLOW_get_filetype_mem_size(image, n));

    RegistryResetAutoDetect();
    ImgFreeAllTracked();
    free(image);
    return 0;
}
