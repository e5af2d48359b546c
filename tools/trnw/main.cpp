/*
 * trnw - the command-line tool over libtrnw6w95.  It uses the public
 * interface only (core/imgapi.h); `version` also names the libpng, zlib and
 * libjpeg the build links.
 *
 * Each command is a row of kCommands (names, usage text, handler, how many
 * positional arguments it takes, which options it reads); the usage text is
 * built from those rows.  Every command reads its arguments through one
 * parser over kOptionDefinitions.  `batch` runs convert's work for many
 * files on worker processes (workers.cpp).
 */
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>
#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <jpeglib.h>
#include <png.h>
#include <zlib.h>

#include "imgapi.h"
#include "jpeg_info.h"
#include "workers.h"

namespace {

/* ---- Options ---- */

/* --colors: the fixed 3-3-2 palette, the most popular colours, or an octree
 * palette of `count` colours in `bits` bits. */
struct PaletteChoice {
    enum Kind { Fixed, Popularity, Octree } kind = Fixed;
    int32_t count = 256;
    int32_t bits = 8;
};

enum class OperationKind {
    Rotate,         /* value: hundredths of a degree */
    FlipX,
    FlipY,
    Invert,
    Palette,        /* palette: the --colors choice */
    DitherBayer,
    DitherHalftone,
    DitherStucki,
    DitherThreshold, /* value: the threshold, -1 automatic */
    DitherColourBayer,
    DitherColourDiffusion,
    Gray,
    Promote8,
    Promote24,
};

/* One transform of a page; convert applies them in the order given. */
struct PageOperation {
    OperationKind kind;
    int32_t value = 0;
    PaletteChoice palette = {};
};

struct Options {
    int32_t type = IMG_TYPE_BY_EXTENSION;
    int32_t page = 0;
    bool allPages = false;
    std::optional<std::array<int32_t, 4>> crop, decodeRect;
    std::optional<std::array<int32_t, 2>> decodeSize;
    int32_t reduceBits = 0; /* 0: no reduction while decoding */
    int32_t decodeLimit = 0; /* MiB an image may take; 0: no limit */
    int32_t quality = 0; /* JPEG quality, 1 to 100; 0: the library's */
    const char *outputName = nullptr; /* the output named in messages, when saves go beside it */
    int32_t jobs = 0; /* batch: worker processes; 0: one per processor */
    std::vector<PageOperation> operations;
    /* view: the rendering's size or zoom, the display angle, the
     * anti-aliasing mode and a device of two colours */
    std::optional<std::array<int32_t, 2>> viewSize;
    int32_t zoom = 0;
    int32_t angle = 0;
    int32_t alias = 0;
    bool ditherDevice = false;
};

/* Whole-string integers separated by `separator` (strtol's syntax each). */
bool ParseNumbers(const char *text, std::span<int32_t> values, char separator)
{
    for (size_t i = 0; i < values.size(); i++) {
        char *end;
        long v = strtol(text, &end, 10);
        bool last = i + 1 == values.size();
        if (end == text || *end != (last ? '\0' : separator))
            return false;
        values[i] = (int32_t)v;
        text = end + 1;
    }
    return true;
}

template <size_t N>
bool ParseNumberList(const char *text, std::optional<std::array<int32_t, N>> &into, char separator)
{
    std::array<int32_t, N> values;
    if (!ParseNumbers(text, values, separator))
        return false;
    into = values;
    return true;
}

/* Degrees (12.5, -90) as the rounded hundredths the rotation takes. */
bool ParseDegrees(const char *text, int32_t &hundredths)
{
    char *end = nullptr;
    double degrees = strtod(text, &end);
    if (end == text || *end != '\0' || !(degrees > -2e7 && degrees < 2e7))
        return false;
    hundredths = (int32_t)(degrees * 100 + (degrees < 0 ? -0.5 : 0.5));
    return true;
}

/* fixed | popularity | octree[:N[:4|8]] */
bool ParsePalette(const char *text, PaletteChoice &choice)
{
    if (!strcmp(text, "fixed") || !strcmp(text, "popularity")) {
        choice.kind = text[0] == 'f' ? PaletteChoice::Fixed : PaletteChoice::Popularity;
        return true;
    }
    if (strncmp(text, "octree", 6) != 0)
        return false;
    choice.kind = PaletteChoice::Octree;
    text += 6;
    if (*text == '\0')
        return true;
    char *end;
    long count = strtol(text + 1, &end, 10);
    if (*text != ':' || end == text + 1 || count < 1 || count > 256)
        return false;
    choice.count = (int32_t)count;
    if (*end == ':') {
        choice.bits = (int32_t)strtol(end + 1, &end, 10);
        if (choice.bits != 4 && choice.bits != 8)
            return false;
    }
    /* 4-bit pixels hold indices 0..15: at most 16 colours (at least 8 are made) */
    return *end == '\0' && (choice.bits == 8 || choice.count <= 16);
}

/* A value word naming one operation (--flip x, --dither bayer, ...). */
struct OperationWord {
    std::string_view word;
    OperationKind kind;
};

constexpr OperationWord kFlipWords[] = {{"x", OperationKind::FlipX}, {"y", OperationKind::FlipY}};
constexpr OperationWord kDitherWords[] = {{"bayer", OperationKind::DitherBayer},
                                          {"halftone", OperationKind::DitherHalftone},
                                          {"stucki", OperationKind::DitherStucki}};
constexpr OperationWord kDitherColourWords[] = {{"bayer", OperationKind::DitherColourBayer},
                                                {"diffusion", OperationKind::DitherColourDiffusion}};
constexpr OperationWord kPromoteWords[] = {{"8", OperationKind::Promote8},
                                           {"24", OperationKind::Promote24}};

bool AddOperation(Options &options, PageOperation operation)
{
    options.operations.push_back(operation);
    return true;
}

bool AddNamedOperation(std::span<const OperationWord> words, const char *value, Options &options)
{
    for (const OperationWord &entry : words)
        if (entry.word == value)
            return AddOperation(options, {entry.kind});
    return false;
}

/* threshold (automatic) or threshold:T */
bool AddThreshold(const char *value, Options &options)
{
    int32_t threshold = -1;
    if (strcmp(value, "threshold") != 0 &&
        (strncmp(value, "threshold:", 10) != 0 || !ParseNumbers(value + 10, {&threshold, 1}, 0)))
        return false;
    return AddOperation(options, {OperationKind::DitherThreshold, threshold});
}

struct OptionDefinition {
    std::string_view name;
    bool takesValue;
    /* Records the option in `options` (an ordered operation or a setting);
     * `value` is null for an option without one.  false: a bad value. */
    bool (*apply)(const char *value, Options &options);
};

/* --type comes first: split and merge read it alone. */
constexpr OptionDefinition kOptionDefinitions[] = {
    {"--type", true, [](const char *v, Options &o) { return ParseNumbers(v, {&o.type, 1}, 0); }},
    {"--page", true, [](const char *v, Options &o) { return ParseNumbers(v, {&o.page, 1}, 0); }},
    {"--all-pages", false,
     [](const char *, Options &o) {
         o.allPages = true;
         return true;
     }},
    {"--crop", true, [](const char *v, Options &o) { return ParseNumberList(v, o.crop, ','); }},
    {"--size", true, [](const char *v, Options &o) { return ParseNumberList(v, o.decodeSize, 'x'); }},
    {"--rect", true, [](const char *v, Options &o) { return ParseNumberList(v, o.decodeRect, ','); }},
    {"--reduce-bits", true,
     [](const char *v, Options &o) {
         bool known = !strcmp(v, "8") || !strcmp(v, "4") || !strcmp(v, "1");
         if (known)
             o.reduceBits = atoi(v);
         return known;
     }},
    {"--rotate", true,
     [](const char *v, Options &o) {
         int32_t hundredths;
         return ParseDegrees(v, hundredths) && AddOperation(o, {OperationKind::Rotate, hundredths});
     }},
    {"--flip", true, [](const char *v, Options &o) { return AddNamedOperation(kFlipWords, v, o); }},
    {"--invert", false, [](const char *, Options &o) { return AddOperation(o, {OperationKind::Invert}); }},
    {"--colors", true,
     [](const char *v, Options &o) {
         PageOperation operation{OperationKind::Palette};
         return ParsePalette(v, operation.palette) && AddOperation(o, operation);
     }},
    {"--dither", true,
     [](const char *v, Options &o) { return AddNamedOperation(kDitherWords, v, o) || AddThreshold(v, o); }},
    {"--dither-color", true,
     [](const char *v, Options &o) { return AddNamedOperation(kDitherColourWords, v, o); }},
    {"--gray", false, [](const char *, Options &o) { return AddOperation(o, {OperationKind::Gray}); }},
    {"--promote", true, [](const char *v, Options &o) { return AddNamedOperation(kPromoteWords, v, o); }},
    {"--decode-limit", true,
     [](const char *v, Options &o) { return ParseNumbers(v, {&o.decodeLimit, 1}, 0) && o.decodeLimit >= 0; }},
    {"--quality", true,
     [](const char *v, Options &o) { return ParseNumbers(v, {&o.quality, 1}, 0) && o.quality >= 1 && o.quality <= 100; }},
    /* batch alone reads the last one */
    {"-j", true, [](const char *v, Options &o) { return ParseNumbers(v, {&o.jobs, 1}, 0) && o.jobs >= 1; }},
};

bool ParseChoice(const char *text, std::initializer_list<int32_t> allowed, int32_t &into)
{
    int32_t value;
    if (!ParseNumbers(text, {&value, 1}, 0) || std::find(allowed.begin(), allowed.end(), value) == allowed.end())
        return false;
    into = value;
    return true;
}

constexpr OptionDefinition kViewOptions[] = {
    {"--page", true, [](const char *v, Options &o) { return ParseNumbers(v, {&o.page, 1}, 0); }},
    {"--size", true,
     [](const char *v, Options &o) {
         return ParseNumberList(v, o.viewSize, 'x') && (*o.viewSize)[0] >= 1 && (*o.viewSize)[1] >= 1;
     }},
    {"--zoom", true, [](const char *v, Options &o) { return ParseNumbers(v, {&o.zoom, 1}, 0) && o.zoom >= 1; }},
    {"--angle", true, [](const char *v, Options &o) { return ParseChoice(v, {0, 90, 180, 270}, o.angle); }},
    {"--alias", true, [](const char *v, Options &o) { return ParseChoice(v, {0, 1, 2}, o.alias); }},
    {"--dither-device", false,
     [](const char *, Options &o) {
         o.ditherDevice = true;
         return true;
     }},
};

constexpr std::span<const OptionDefinition> kBatchOptions{kOptionDefinitions};
constexpr std::span<const OptionDefinition> kConvertOptions = kBatchOptions.first(kBatchOptions.size() - 1);
constexpr std::span<const OptionDefinition> kTypeOptionOnly = kConvertOptions.first(1);

/* ---- The command table ---- */

struct Arguments {
    std::vector<const char *> positional;
    Options options;
};

constexpr size_t kAnyCount = SIZE_MAX;

struct Command {
    std::array<std::string_view, 3> names; /* the name, then aliases ("" for none) */
    const char *usage;                     /* its lines of the usage text */
    int (*run)(const Arguments &arguments);
    size_t minArguments, maxArguments; /* positional arguments */
    std::span<const OptionDefinition> options;
};

std::string UsageText();

/* ---- Shared helpers ---- */

double Seconds()
{
    return (double)clock() / CLOCKS_PER_SEC; /* processor time: steady on a busy machine */
}

/* The file's bytes; empty when it cannot be read or is empty. */
std::vector<uint8_t> ReadWholeFile(const char *path)
{
    std::vector<uint8_t> data;
    FILE *f = fopen(path, "rb");
    if (!f)
        return data;
    long size = 0;
    if (fseek(f, 0, SEEK_END) == 0 && (size = ftell(f)) > 0 && fseek(f, 0, SEEK_SET) == 0) {
        data.resize((size_t)size);
        if (fread(data.data(), 1, data.size(), f) != data.size())
            data.clear();
    }
    fclose(f);
    return data;
}

uint32_t Le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

/* Where the messages of a conversion go: standard error, or the text a
 * batch worker sends back with its result. */
std::string *errorCapture = nullptr;

#ifdef __GNUC__
__attribute__((format(printf, 1, 2)))
#endif
void ReportError(const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (errorCapture)
        *errorCapture += text;
    else
        fputs(text, stderr);
}

int Fail(const char *what, int32_t code)
{
    ReportError("trnw: %s: %s (error %d)\n", what, IMG_error_text(code), code);
    return 1;
}

const char *Plural(int32_t count)
{
    return count == 1 ? "" : "s";
}

/* ---- version, --help ---- */

int RunVersion(const Arguments &)
{
    int32_t major, minor;
    IMG_ifl_version(&major, &minor);
    printf("trnw %d.%d (libtrnw6w95)\n", major, minor);
    const int jpeg = LIBJPEG_TURBO_VERSION_NUMBER;
    printf("with libpng %s, zlib %s, libjpeg-turbo %d.%d.%d (libjpeg %d.%d)\n", png_get_libpng_ver(nullptr),
           zlibVersion(), jpeg / 1000000, jpeg / 1000 % 1000, jpeg % 1000, JPEG_LIB_VERSION / 10,
           JPEG_LIB_VERSION % 10);
    return 0;
}

int RunHelp(const Arguments &)
{
    fputs(UsageText().c_str(), stdout);
    return 0;
}

/* ---- runs ---- */

bool RenameOver(const char *from, const char *to);

/* Writes the image behind `handle` as a bare DIB, reading each row through
 * IMGLOW_get_raster (bottom row first, as the file stores them), beside
 * `path` first and then over it. */
int WriteDib(int32_t handle, const char *path, std::span<const uint8_t> header, int32_t height,
             int32_t stride)
{
    std::string partial = std::string(path) + ".trnw-partial";
    FILE *f = fopen(partial.c_str(), "wb");
    std::vector<uint8_t> row((size_t)stride);
    bool ok = f && fwrite(header.data(), 1, header.size(), f) == header.size();
    for (int32_t r = height - 1; ok && r >= 0; r--)
        ok = IMGLOW_get_raster(handle, row.data(), r, stride) == 0 &&
             fwrite(row.data(), 1, row.size(), f) == row.size();
    if (f && fclose(f) != 0)
        ok = false;
    ok = ok && RenameOver(partial.c_str(), path);
    if (!ok)
        remove(partial.c_str());
    return ok ? 0 : -1;
}

/* Run-codes the 1-bit picture, expands every row again and reports both times. */
int32_t TimeRunStore(int32_t handle, int32_t height, int32_t stride)
{
    double t0 = Seconds();
    int32_t result = IMG_dib_to_runs(handle);
    double t1 = Seconds();
    std::vector<uint8_t> row((size_t)stride);
    for (int32_t r = 0; result == 0 && r < height; r++)
        result = IMGLOW_get_raster(handle, row.data(), r, stride);
    double t2 = Seconds();
    printf("run-coded in %.1f ms, every row expanded again in %.1f ms\n", (t1 - t0) * 1e3,
           (t2 - t1) * 1e3);
    return result;
}

int RunRuns(const Arguments &arguments)
{
    const char *in = arguments.positional[0];
    const char *out = arguments.positional.size() > 1 ? arguments.positional[1] : nullptr;
    std::vector<uint8_t> dib = ReadWholeFile(in);
    if (dib.size() < 40 || Le32(dib.data()) != 40) {
        fprintf(stderr, "trnw: %s: not a bare DIB file\n", in);
        return 1;
    }
    int32_t handle = IMG_create_handle_keep(dib.data());
    if (handle < 0) {
        fprintf(stderr, "trnw: %s: error %d\n", in, handle);
        return 1;
    }
    int32_t width, height, bits;
    IMG_bitmap_info(handle, &width, &height, &bits);
    int32_t stride = (int32_t)((((int64_t)width * bits + 31) / 32) * 4);
    size_t paletteBytes = bits >= 24 ? 0 : bits == 16 ? 1024 : (size_t)4 << bits;
    uint8_t header[40 + 1024];
    IMGLOW_get_bitmap_header(handle, header);
    printf("%s: %d x %d, %d bit%s, %lld bytes of rows\n", in, width, height, bits, Plural(bits),
           (long long)stride * height);

    int32_t result = bits == 1 ? TimeRunStore(handle, height, stride) : 0;
    if (result == 0 && out) {
        result = WriteDib(handle, out, {header, 40 + paletteBytes}, height, stride);
        if (result == 0)
            printf("wrote %s\n", out);
    }
    IMG_delete_bitmap_keep(handle);
    if (result < 0)
        fprintf(stderr, "trnw: error %d\n", result);
    return result < 0;
}

/* ---- info ---- */

/* The header of page p (> 0) of a multi-page file, taken by a header sink
 * that stops the reader (-18), as IMGLOW_get_fileinfo does for the first page. */
int32_t IMGCDECL PageHeaderSink(const uint8_t *header, void *context)
{
    memcpy(context, header, 40);
    return IMG_ERR_STOPPED;
}

int32_t IMGCDECL IgnoreRows(const uint8_t *, void *, int32_t, int32_t)
{
    return 0;
}

/* ", W x H, B bits, X x Y dpi" from a 40-byte header read as ten words. */
void PrintPageHeader(const int32_t *info)
{
    int32_t bits = info[3] >> 16;
    printf("%d x %d, %d bit%s, %d x %d dpi", info[1], info[2], bits, Plural(bits), info[6], info[7]);
}

/* The lines of pages 1 .. pages-1 (page 0 is the file's own line). */
void PrintFurtherPages(const char *path, int32_t pages)
{
    std::vector<uint8_t> data = ReadWholeFile(path);
    if (data.empty())
        return;
    for (int32_t p = 1; p < pages; p++) {
        int32_t info[10] = {};
        int32_t result = IMGLOW_decompress_bitmap_mem(data.data(), p, IgnoreRows, info, PageHeaderSink);
        printf("  page %d: ", p);
        if (result == IMG_ERR_STOPPED || result == 0)
            PrintPageHeader(info);
        else
            printf("(%s)", IMG_error_text(result));
        putchar('\n');
    }
}

/* "colour type 6 (RGB with alpha), 16 bits a sample, interlaced" from the
 * IHDR chunk a PNG file starts with; "" when it has none. */
std::string PngDetails(const std::vector<uint8_t> &data)
{
    static const char *const kColourTypes[] = {"grey", "", "RGB", "palette", "grey with alpha", "",
                                               "RGB with alpha"};
    if (data.size() < 29 || memcmp(data.data() + 12, "IHDR", 4) != 0 || data[25] > 6 || !*kColourTypes[data[25]])
        return "";
    return "colour type " + std::to_string(data[25]) + " (" + kColourTypes[data[25]] + "), " +
           std::to_string(data[24]) + " bit" + Plural(data[24]) + " a sample, " +
           (data[28] ? "interlaced" : "not interlaced");
}

int PrintFileInfo(const char *path)
{
    int32_t type = IMGLOW_get_filetype(path);
    if (type < 0)
        return Fail(path, type);
    int32_t pages = IMGLOW_get_pages(path);
    int32_t info[10] = {};
    int32_t result = IMGLOW_get_fileinfo(path, info);
    printf("%s: type %d (%s), %d page%s", path, type, IMG_type_name(type), pages, Plural(pages));
    if (result == 0) {
        printf(", ");
        PrintPageHeader(info);
    } else {
        printf(" (%s)", IMG_error_text(result));
    }
    putchar('\n');
    if (pages > 1)
        PrintFurtherPages(path, pages);
    if (type == IMG_TYPE_PNG || type == IMG_TYPE_JPG) {
        bool png = type == IMG_TYPE_PNG;
        std::vector<uint8_t> data = ReadWholeFile(path);
        std::string details = png ? PngDetails(data) : JpegDetails(data);
        if (!details.empty())
            printf("  %s: %s\n", png ? "PNG" : "JPEG", details.c_str());
    }
    return 0;
}

int RunInfo(const Arguments &arguments)
{
    int status = 0;
    for (const char *path : arguments.positional)
        status |= PrintFileInfo(path);
    return status;
}

/* ---- convert, split, merge ---- */

/* The progress bar: the callback is told the total row count on every row. */
int32_t progressRows;

int32_t IMGAPI Progress(int32_t, int32_t total)
{
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

int32_t ApplyPalette(int32_t handle, const PaletteChoice &choice)
{
    int32_t result;
    switch (choice.kind) {
    case PaletteChoice::Fixed: result = IMG_mediancut_color(handle); break;
    case PaletteChoice::Popularity: result = IMG_popularity_color(handle); break;
    default: result = IMG_octree_color(handle, choice.bits, nullptr, choice.count); break;
    }
    return result < 0 ? result : 0; /* the octree returns its entry count */
}

int32_t ApplyOperation(int32_t handle, const PageOperation &operation)
{
    switch (operation.kind) {
    case OperationKind::Rotate: return IMG_rotate_bitmap(handle, operation.value);
    case OperationKind::FlipX: return IMG_flip_bitmapx(handle);
    case OperationKind::FlipY: return IMG_flip_bitmapy(handle);
    case OperationKind::Invert: return IMG_invert_bitmap(handle);
    case OperationKind::Palette: return ApplyPalette(handle, operation.palette);
    case OperationKind::DitherBayer: return IMG_bayer_mono(handle);
    case OperationKind::DitherHalftone: return IMG_halftone_mono(handle);
    case OperationKind::DitherStucki: return IMG_diffusion_mono(handle);
    case OperationKind::DitherThreshold: return IMG_thresh_mono(handle, operation.value);
    case OperationKind::DitherColourBayer: return IMG_bayer_color(handle);
    case OperationKind::DitherColourDiffusion: return IMG_diffusion_color(handle);
    case OperationKind::Gray: return IMG_color_gray(handle);
    case OperationKind::Promote8: return IMG_promote_8(handle);
    case OperationKind::Promote24: return IMG_promote_24(handle);
    }
    return IMG_ERR_TYPE;
}

/* The operations in the order given, then the crop rectangle. */
int32_t Transform(int32_t handle, const Options &options)
{
    int32_t result = 0;
    for (size_t k = 0; k < options.operations.size() && result >= 0; k++) {
        result = ApplyOperation(handle, options.operations[k]);
        progressRows = 0;
    }
    if (result >= 0 && options.crop) {
        const auto &[x, y, width, height] = *options.crop;
        result = IMG_set_croprect(handle, x, y, width, height);
    }
    return result < 0 ? result : 0;
}

bool EndsWithIgnoringCase(std::string_view text, std::string_view tail);

/* The save type of `out`: `type`, or for a ".jpeg" name JPEG (the library
 * chooses by the last three characters of the name, "jpg" among them). */
int32_t SaveType(int32_t type, const char *out)
{
    return type == IMG_TYPE_BY_EXTENSION && EndsWithIgnoringCase(out, ".jpeg") ? IMG_TYPE_JPG : type;
}

/* One page of `in` (by name for page 0 when `data` is empty, else from the
 * whole file in `data`): decode, transform, save to `out` (which a
 * multi-page type appends to).  0, or 1 after reporting the failure. */
int ConvertPage(const char *in, std::span<uint8_t> data, int32_t page, const char *out,
                const Options &options)
{
    int32_t handle = data.empty() ? IMG_decompress_bitmap(in)
                                  : IMG_decompress_bitmap_mem_size(data.data(), (uint32_t)data.size(), page);
    progressRows = 0;
    if (handle < 0)
        return Fail(in, handle);
    int32_t result = Transform(handle, options);
    if (result == 0)
        result = IMG_save_bitmap(handle, out, SaveType(options.type, out));
    IMG_delete_bitmap(handle);
    return result < 0 ? Fail(options.outputName ? options.outputName : out, result) : 0;
}

/* The page count of a file; 1 when its format has no pages. */
int32_t PageCount(const char *path)
{
    int32_t pages = IMGLOW_get_pages(path);
    return pages < 1 ? 1 : pages;
}

bool EndsWithIgnoringCase(std::string_view text, std::string_view tail)
{
    if (text.size() < tail.size())
        return false;
    text.remove_prefix(text.size() - tail.size());
    for (size_t i = 0; i < tail.size(); i++)
        if (tolower((unsigned char)text[i]) != tolower((unsigned char)tail[i]))
            return false;
    return true;
}

/* The type a save by extension chooses for `path` (the library matches the
 * last three characters, ignoring case), as far as the types whose saves can
 * append pages go; -1 for every other path. */
int32_t AppendingTypeForPath(const char *path)
{
    struct Extension {
        std::string_view tail;
        int32_t type;
    };
    static constexpr Extension kExtensions[] = {
        {"tif", IMG_TYPE_TIFF}, {"dcx", IMG_TYPE_DCX}, {"mca", IMG_TYPE_MCA}};
    for (const Extension &extension : kExtensions)
        if (EndsWithIgnoringCase(path, extension.tail))
            return extension.type;
    return IMG_TYPE_BY_EXTENSION;
}

/* Whether saving to `path` as `type` appends pages to an existing file. */
bool SavesAppendPages(int32_t type, const char *path)
{
    if (type == IMG_TYPE_BY_EXTENSION)
        type = AppendingTypeForPath(path);
    return IMG_type_multipage(type) == 1;
}

bool RenameOver(const char *from, const char *to)
{
#ifdef _WIN32
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0;
#else
    return rename(from, to) == 0;
#endif
}

/* The commands that replace OUT (split, merge, convert --all-pages) append
 * its pages to a fresh file beside it, `write(partial, options)`, with the
 * type OUT's name chooses; once every page is in, that file is renamed over
 * OUT.  A failure removes only the fresh file: OUT stays as it was. */
template <class Write>
int ReplaceWith(const char *out, Options options, Write write)
{
    if (options.type == IMG_TYPE_BY_EXTENSION)
        options.type = AppendingTypeForPath(out);
    options.outputName = out;
    std::string partial = std::string(out) + ".trnw-partial";
    remove(partial.c_str()); /* left by an interrupted run: the saves would append to it */
    int status = write(partial.c_str(), options);
    if (status == 0 && !RenameOver(partial.c_str(), out))
        status = Fail(out, IMG_ERR_CREATE);
    if (status != 0)
        remove(partial.c_str());
    return status;
}

/* Appends every page of `in` to `out`. */
int AppendAllPages(const char *in, const char *out, const Options &options)
{
    std::vector<uint8_t> data = ReadWholeFile(in);
    if (data.empty())
        return Fail(in, IMG_ERR_OPEN);
    int32_t pages = PageCount(in);
    int status = 0;
    for (int32_t page = 0; page < pages && status == 0; page++)
        status = ConvertPage(in, data, page, out, options);
    return status;
}

int ConvertAllPages(const char *in, const char *out, const Options &options)
{
    if (!SavesAppendPages(options.type, out)) {
        ReportError("trnw: convert --all-pages: %s: the output type holds one page only\n", out);
        return 2;
    }
    return ReplaceWith(out, options, [in](const char *partial, const Options &resolved) {
        return AppendAllPages(in, partial, resolved);
    });
}

/* The decoder's settings for the next decode: size, rectangle, depth;
 * and the JPEG quality of the saves. */
void SetDecodeOptions(const Options &options)
{
    if (options.quality)
        IMGLOW_set_comp_quality(options.quality);
    if (options.decodeSize)
        IMGLOW_set_decompsize((*options.decodeSize)[0], (*options.decodeSize)[1]);
    if (options.decodeRect) {
        const auto &[x, y, width, height] = *options.decodeRect;
        IMGLOW_set_decomp_rect(x, y, width, height);
    }
    if (options.reduceBits)
        IMGLOW_set_decomp_reduction(options.reduceBits);
    if (options.decodeLimit)
        IMGLOW_set_decode_limit(options.decodeLimit);
}

/* convert's work: the decode settings, then the page or every page of `in`
 * into `out`.  With `replace`, a multi-page `out` is replaced rather than
 * appended to. */
int ConvertFile(const char *in, const char *out, const Options &options, bool replace)
{
    SetDecodeOptions(options);
    if (options.allPages)
        return ConvertAllPages(in, out, options);
    std::vector<uint8_t> data;
    if (options.page != 0 && (data = ReadWholeFile(in)).empty())
        return Fail(in, IMG_ERR_OPEN);
    if (!replace || !SavesAppendPages(options.type, out))
        return ConvertPage(in, data, options.page, out, options);
    return ReplaceWith(out, options, [&](const char *partial, const Options &resolved) {
        return ConvertPage(in, data, options.page, partial, resolved);
    });
}

int RunConvert(const Arguments &arguments)
{
    if (isatty(2))
        IMG_set_statusbar(0, Progress, 1);
    return ConvertFile(arguments.positional[0], arguments.positional[1], arguments.options, false);
}

/* PREFIX001.tif for page 0, and so on. */
std::string PageFileName(const char *prefix, int32_t page)
{
    char number[16];
    snprintf(number, sizeof number, "%03d", (int)page + 1);
    return std::string(prefix) + number + ".tif";
}

int RunSplit(const Arguments &arguments)
{
    const char *in = arguments.positional[0], *prefix = arguments.positional[1];
    std::vector<uint8_t> data = ReadWholeFile(in);
    if (data.empty())
        return Fail(in, IMG_ERR_OPEN);
    int32_t pages = PageCount(in);
    int status = 0;
    for (int32_t page = 0; page < pages && status == 0; page++) {
        std::string out = PageFileName(prefix, page);
        status = ReplaceWith(out.c_str(), arguments.options, [&](const char *partial, const Options &resolved) {
            return ConvertPage(in, data, page, partial, resolved);
        });
        if (status == 0)
            printf("%s\n", out.c_str());
    }
    return status;
}

int RunMerge(const Arguments &arguments)
{
    const char *out = arguments.positional[0];
    std::span<const char *const> inputs = std::span(arguments.positional).subspan(1);
    if (!SavesAppendPages(arguments.options.type, out)) {
        fprintf(stderr, "trnw: merge: %s: the output type holds one page only\n", out);
        return 2;
    }
    for (const char *in : inputs)
        if (!strcmp(in, out)) {
            fprintf(stderr, "trnw: merge: %s is both output and input\n", out);
            return 2;
        }
    return ReplaceWith(out, arguments.options, [&](const char *partial, const Options &resolved) {
        int status = 0;
        for (size_t i = 0; i < inputs.size() && status == 0; i++)
            status = AppendAllPages(inputs[i], partial, resolved);
        return status;
    });
}

/* ---- view ---- */

/* The rendering's size: --size, the image's size (sides exchanged at 90 and
 * 270 degrees) scaled by --zoom, or the image's own size. */
std::array<int32_t, 2> ViewSize(int32_t handle, const Options &options)
{
    if (options.viewSize)
        return *options.viewSize;
    int32_t width = 0, height = 0;
    IMG_bitmap_info(handle, &width, &height, nullptr);
    if (options.angle == 90 || options.angle == 270)
        std::swap(width, height);
    int64_t zoom = options.zoom ? options.zoom : 100;
    return {(int32_t)std::clamp<int64_t>(width * zoom / 100, 1, 32767),
            (int32_t)std::clamp<int64_t>(height * zoom / 100, 1, 32767)};
}

/* The portable context's pixels (R, G, B, top first) saved to `out` as a
 * 24-bit image, the type by the extension. */
int32_t SaveSurface(void *dc, int32_t width, int32_t height, const char *out)
{
    std::vector<uint8_t> rgb((size_t)width * (size_t)height * 3);
    int32_t result = IMGLOW_read_dc(dc, rgb.data(), (uint32_t)rgb.size());
    if (result < 0)
        return result;
    size_t stride = ((size_t)width * 3 + 3) & ~(size_t)3;
    std::vector<uint8_t> dib(40 + stride * (size_t)height, 0);
    int32_t header[10] = {40, width, height, 1 | 24 << 16, 0, (int32_t)(stride * (size_t)height), 0, 0, 0, 0};
    memcpy(dib.data(), header, sizeof header);
    for (int32_t y = 0; y < height; y++) {
        uint8_t *row = &dib[40 + stride * (size_t)(height - 1 - y)];
        const uint8_t *from = &rgb[(size_t)y * (size_t)width * 3];
        for (int32_t x = 0; x < width; x++) {
            row[3 * x] = from[3 * x + 2];
            row[3 * x + 1] = from[3 * x + 1];
            row[3 * x + 2] = from[3 * x];
        }
    }
    int32_t image = IMG_create_handle_keep(dib.data());
    if (image < 0)
        return image;
    result = IMG_save_bitmap(image, out, IMG_TYPE_BY_EXTENSION);
    IMG_delete_bitmap_keep(image);
    return result;
}

/* Draws the page through the display calls into a portable device context
 * and saves what it shows. */
int RunView(const Arguments &arguments)
{
    const char *in = arguments.positional[0], *out = arguments.positional[1];
    const Options &options = arguments.options;
    std::vector<uint8_t> data;
    if (options.page != 0 && (data = ReadWholeFile(in)).empty())
        return Fail(in, IMG_ERR_OPEN);
    int32_t handle = data.empty() ? IMG_decompress_bitmap(in)
                                  : IMG_decompress_bitmap_mem_size(data.data(), (uint32_t)data.size(), options.page);
    if (handle < 0)
        return Fail(in, handle);
    auto [width, height] = ViewSize(handle, options);
    void *dc = nullptr;
    int32_t result = IMGLOW_create_dc(width, height, options.ditherDevice ? 2 : 0, &dc);
    if (result == 0)
        result = IMGLOW_set_alias(options.alias);
    if (result == 0)
        result = IMG_set_display_angle(handle, options.angle);
    if (result == 0)
        result = options.viewSize ? IMG_display_bitmap_aspect(handle, dc, nullptr, 0, 0, width, height, 0)
                                  : IMG_display_bitmap(handle, dc, 0, 0, width, height);
    if (result == 0)
        result = SaveSurface(dc, width, height, out);
    if (dc)
        IMGLOW_delete_dc(dc);
    IMG_delete_bitmap(handle);
    return result < 0 ? Fail(out, result) : 0;
}

/* ---- batch ---- */

/* The files an IN of batch stands for, appended to `inputs`: a folder's
 * files in name order, the names on standard input (one a line) for "-",
 * else the name itself.  false when a folder cannot be listed. */
bool AddBatchInputs(const char *argument, std::vector<std::string> &inputs)
{
    namespace fs = std::filesystem;
    if (!strcmp(argument, "-")) {
        for (std::string line; std::getline(std::cin, line);) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!line.empty())
                inputs.push_back(line);
        }
        return true;
    }
    std::error_code error;
    if (!fs::is_directory(argument, error)) {
        inputs.emplace_back(argument);
        return true;
    }
    std::vector<std::string> files;
    for (fs::directory_iterator entry(argument, error), end; !error && entry != end; entry.increment(error))
        if (entry->is_regular_file(error))
            files.push_back(entry->path().string());
    if (error) {
        fprintf(stderr, "trnw: batch: %s: the folder cannot be listed\n", argument);
        return false;
    }
    std::sort(files.begin(), files.end());
    inputs.insert(inputs.end(), files.begin(), files.end());
    return true;
}

/* OUTDIR/the input's name, its extension that of `type` when one is given. */
std::string BatchOutputName(const std::string &in, const char *outDir, int32_t type)
{
    std::filesystem::path name = std::filesystem::path(in).filename();
    if (type != IMG_TYPE_BY_EXTENSION)
        name.replace_extension(IMG_type_extension(type));
    return (std::filesystem::path(outDir) / name).string();
}

/* The whole batch's progress bar, on a terminal: files done of all. */
void DrawBatchProgress(size_t done, size_t total)
{
    int percent = total ? (int)(done * 100 / total) : 100;
    fprintf(stderr, "\r[%-40.*s] %3d%% %lu/%lu", percent * 40 / 100,
            "########################################", percent, (unsigned long)done,
            (unsigned long)total);
}

int RunBatch(const Arguments &arguments)
{
    const Options &options = arguments.options;
    const char *outDir = arguments.positional.back();
    if (options.type != IMG_TYPE_BY_EXTENSION && !*IMG_type_extension(options.type)) {
        fprintf(stderr, "trnw: batch: --type %d names no type\n", options.type);
        return 2;
    }
    bool listed = true;
    std::vector<std::string> inputs, outputs;
    for (size_t i = 0; i + 1 < arguments.positional.size(); i++)
        listed &= AddBatchInputs(arguments.positional[i], inputs);
    std::map<std::string, const std::string *> sources; /* output -> its input */
    for (const std::string &in : inputs) {
        outputs.push_back(BatchOutputName(in, outDir, options.type));
        auto [entry, added] = sources.emplace(outputs.back(), &in);
        if (!added) {
            fprintf(stderr, "trnw: batch: %s and %s would both be written to %s\n",
                    entry->second->c_str(), in.c_str(), outputs.back().c_str());
            return 2;
        }
    }
    if (options.allPages && !outputs.empty() && !SavesAppendPages(options.type, outputs[0].c_str())) {
        fprintf(stderr, "trnw: batch --all-pages: %s: the output type holds one page only\n",
                outputs[0].c_str());
        return 2;
    }
    std::error_code error;
    std::filesystem::create_directories(outDir, error);
    if (error)
        return Fail(outDir, IMG_ERR_CREATE);

    bool bar = isatty(2) && !inputs.empty();
    size_t done = 0, failed = 0;
    auto convert = [&](size_t i) {
        TaskResult result;
        errorCapture = &result.messages;
        result.status = ConvertFile(inputs[i].c_str(), outputs[i].c_str(), options, true);
        errorCapture = nullptr;
        return result;
    };
    auto report = [&](size_t i, const TaskResult &result) {
        done++;
        if (result.status != 0) {
            failed++;
            if (bar) /* the message takes the bar's line; the bar follows it */
                fprintf(stderr, "\r%64s\r", "");
            if (result.messages.empty())
                fprintf(stderr, "trnw: %s: not converted: its worker process ended\n", inputs[i].c_str());
            fputs(result.messages.c_str(), stderr);
        }
        if (bar)
            DrawBatchProgress(done, inputs.size());
    };
    int workers = options.jobs ? options.jobs : (int)std::max(1u, std::thread::hardware_concurrency());
    RunTasks(inputs.size(), workers, convert, report);
    if (bar)
        fputc('\n', stderr);
    if (failed)
        fprintf(stderr, "trnw: batch: %lu of %lu files failed\n", (unsigned long)failed,
                (unsigned long)inputs.size());
    return failed || !listed ? 1 : 0;
}

/* ---- The table, the usage text and the parser ---- */

const Command kCommands[] = {
    {{"version", "--version"},
     "  version, --version   print the library version\n",
     RunVersion, 0, kAnyCount, {}},
    {{"info"},
     "  info FILE...         type, pages, size, depth and resolution of each file\n"
     "                       (and of every further page of a multi-page file; of a\n"
     "                       PNG file its colour type, depth and interlacing, of a\n"
     "                       JPEG file its process, components, colour space and\n"
     "                       sampling)\n",
     RunInfo, 1, kAnyCount, {}},
    {{"convert"},
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
     "          [--decode-limit MB]\n"
     "                       refuse (out of memory) an image that would take more\n"
     "                       than MB MiB decoded; a 1-bit page counts its coded size\n"
     "          [--quality N]\n"
     "                       the quality of JPEG outputs (.jpg, .jpeg, TIFF type 40),\n"
     "                       1 to 100, default 75\n"
     "  convert IN OUT --all-pages [--type N] [other convert options]\n"
     "                       every page of IN to the multi-page OUT (TIFF or DCX;\n"
     "                       OUT is replaced), each page transformed as above\n",
     RunConvert, 2, 2, kConvertOptions},
    {{"split"},
     "  split IN OUTPREFIX [--type N]\n"
     "                       one file per page of IN: OUTPREFIX001.tif, ... (type N,\n"
     "                       a TIFF save type; uncompressed by default)\n",
     RunSplit, 2, 2, kTypeOptionOnly},
    {{"merge"},
     "  merge OUT IN... [--type N]\n"
     "                       every page of every IN (any readable format) appended in\n"
     "                       order to the multi-page OUT (TIFF or DCX), which is\n"
     "                       replaced (type N as for split)\n",
     RunMerge, 2, kAnyCount, kTypeOptionOnly},
    {{"batch"},
     "  batch [-j N] IN... OUTDIR [convert options]\n"
     "                       convert every IN (a folder: its files; -: the names read\n"
     "                       from standard input, one a line) to OUTDIR/its name, with\n"
     "                       the extension of --type N when given (else the name's own\n"
     "                       extension chooses the type); each output is replaced;\n"
     "                       N worker processes (default: one per processor); a failed\n"
     "                       file is reported and the others go on; exit status 1 when\n"
     "                       any file failed\n",
     RunBatch, 2, kAnyCount, kBatchOptions},
    {{"view"},
     "  view IN OUT [--page N] [--size WxH | --zoom PERCENT] [--angle 0|90|180|270]\n"
     "          [--alias 0|1|2] [--dither-device]\n"
     "                       draw page N of IN through the display calls into a\n"
     "                       device context in memory and save what it shows as OUT\n"
     "                       (24-bit, the type by OUT's extension): at the image's own\n"
     "                       size, scaled by PERCENT, or fitted into WxH with its\n"
     "                       proportions kept (white margins); turned clockwise by\n"
     "                       --angle; 1-bit pages reduced with anti-aliasing (1: thin\n"
     "                       strokes kept, 2: shades of grey); --dither-device draws\n"
     "                       for a device of two colours\n",
     RunView, 2, 2, kViewOptions},
    {{"runs"},
     "  runs IN.dib [OUT.dib]\n"
     "                       load a bare DIB (40-byte header, palette, rows), hold a\n"
     "                       1-bit picture run-coded, expand it again row by row and\n"
     "                       report sizes and times; OUT.dib receives the rows read\n"
     "                       back through the run store\n",
     RunRuns, 1, 2, {}},
    {{"--help", "-h", "help"},
     "  --help, -h, help     this text\n",
     RunHelp, 0, kAnyCount, {}},
};

std::string UsageText()
{
    std::string text = "usage: trnw COMMAND [ARGUMENTS]\n\ncommands:\n";
    for (const Command &command : kCommands)
        text += command.usage;
    return text + "\nEvery output is written beside its file and replaces it only once complete:\n"
                  "a failed command leaves an existing output as it was.\n";
}

int ReportUsageError()
{
    fputs(UsageText().c_str(), stderr);
    return 2;
}

const Command *FindCommand(std::string_view name)
{
    for (const Command &command : kCommands)
        for (std::string_view known : command.names)
            if (!known.empty() && known == name)
                return &command;
    return nullptr;
}

const OptionDefinition *FindOption(std::span<const OptionDefinition> options, std::string_view name)
{
    for (const OptionDefinition &option : options)
        if (option.name == name)
            return &option;
    return nullptr;
}

bool ReportBadOption(const Command &command, const char *argument)
{
    fprintf(stderr, "trnw: %.*s: bad option '%s'\n\n%s", (int)command.names[0].size(),
            command.names[0].data(), argument, UsageText().c_str());
    return false;
}

/* The command's options wherever they stand (an option's value is the next
 * argument, whatever it looks like), the other arguments as positional ones.
 * An option with a missing or bad value, or an argument beyond the last
 * positional one the command takes, is reported as a bad option: false. */
bool ParseArguments(const Command &command, std::span<char *const> args, Arguments &parsed)
{
    for (size_t i = 0; i < args.size(); i++) {
        const char *argument = args[i];
        const OptionDefinition *option = FindOption(command.options, argument);
        if (!option) {
            if (parsed.positional.size() == command.maxArguments)
                return ReportBadOption(command, argument);
            parsed.positional.push_back(argument);
            continue;
        }
        const char *value = nullptr;
        if (option->takesValue) {
            if (i + 1 == args.size())
                return ReportBadOption(command, argument);
            value = args[++i];
        }
        if (!option->apply(value, parsed.options))
            return ReportBadOption(command, argument);
    }
    return true;
}

int Run(std::span<char *const> args)
{
    if (args.empty())
        return ReportUsageError();
    const Command *command = FindCommand(args[0]);
    if (!command) {
        fprintf(stderr, "trnw: unknown command '%s'\n\n%s", args[0], UsageText().c_str());
        return 2;
    }
    Arguments arguments;
    if (!ParseArguments(*command, args.subspan(1), arguments))
        return 2;
    if (arguments.positional.size() < command->minArguments)
        return ReportUsageError();
    return command->run(arguments);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        IMGLOW_set_safe_save(1); /* a failed save never costs an existing file */
        return Run(std::span<char *const>(argv + 1, argc > 0 ? (size_t)argc - 1 : 0));
    } catch (...) { /* the containers' allocations are all that can throw */
        fprintf(stderr, "trnw: %s\n", IMG_error_text(IMG_ERR_MEMORY));
        return 1;
    }
}
