/*
 * jpeg.cpp - JPEG through libjpeg-turbo's jpeg_* interface.
 *
 * libjpeg reads through a source manager over the I/O layer's reads and
 * writes through a destination manager over its writes.  Its fatal errors
 * come to an error manager that jumps back (setjmp/longjmp, all inside this
 * file) to the call that began the work, which destroys the libjpeg object
 * and returns a code; its messages are never printed.  Every buffer of a
 * decode or encode comes from libjpeg's own pools, so that destroying the
 * object frees them on every path, a jump included.
 *
 * Hostile streams are handled as listed under "JPEG" in docs/DEVIATIONS.md.
 */
#include "codecs/jpeg.h"

#include <setjmp.h>
#include <stdio.h> /* jpeglib.h needs FILE */
#include <string.h>

#include <initializer_list>

#include <jerror.h>
#include <jpeglib.h>

#include "core/bytes.h"
#include "core/codec_settings.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/imgio.h"

namespace {

constexpr uint32_t kChunk = 65536;           /* bytes read or written at a time */
constexpr int kMaxScans = 1000;              /* progressive streams with more are refused */
constexpr uint64_t kMaxPixelBytes = 0x7FFFFFFFull; /* the largest pixel block decoded */
constexpr int kRowsPerRead = 16;             /* rows asked of libjpeg per call */
constexpr uint32_t kMaxSide = JPEG_MAX_DIMENSION;

/* ---- errors ---- */

struct ErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
    int code;     /* the result of the failure, once known */
    bool ranDry;  /* the source had no more data: a failure is a short read */
    long warningsAtEnd; /* libjpeg's warnings when it did */
};

[[noreturn]] void Fail(j_common_ptr cinfo, int code)
{
    ErrorManager *e = reinterpret_cast<ErrorManager *>(cinfo->err);
    if (e->code == 0)
        e->code = code;
    longjmp(e->jump, 1);
}

[[noreturn]] void ErrorExit(j_common_ptr cinfo)
{
    ErrorManager *e = reinterpret_cast<ErrorManager *>(cinfo->err);
    int code = e->pub.msg_code;
    if (code == JERR_OUT_OF_MEMORY || code == JERR_NO_BACKING_STORE)
        Fail(cinfo, IMG_ERR_MEMORY);
    Fail(cinfo, e->ranDry ? IMG_ERR_READ : IMG_ERR_INVALID);
}

void Silent(j_common_ptr) {}

/* Sets up the error manager; the caller then sets the jump point. */
jpeg_error_mgr *InitErrors(ErrorManager &e)
{
    jpeg_std_error(&e.pub);
    e.pub.error_exit = ErrorExit;
    e.pub.output_message = Silent;
    return &e.pub;
}

/* A progressive stream of thousands of tiny scans costs time out of all
 * proportion to its bytes: more than kMaxScans is refused. */
void LimitScans(j_common_ptr cinfo)
{
    if (cinfo->is_decompressor &&
        reinterpret_cast<j_decompress_ptr>(cinfo)->input_scan_number > kMaxScans)
        Fail(cinfo, IMG_ERR_INVALID);
}

/* ---- the source: the I/O layer's reads ---- */

struct Source {
    jpeg_source_mgr pub;
    int handle;     /* -1: no more data beyond what the buffer holds */
    uint32_t chunk;
    JOCTET *buffer;
    ErrorManager *errors;
};

void InitSource(j_decompress_ptr) {}
void TermSource(j_decompress_ptr) {}

/* The next bytes; at the end of the data an end-of-image marker, so that
 * libjpeg ends the stream (and the source counts as run dry). */
boolean FillInput(j_decompress_ptr cinfo)
{
    Source *s = reinterpret_cast<Source *>(cinfo->src);
    int32_t got = s->handle >= 0 ? ImgReadSome(s->handle, s->buffer, s->chunk) : 0;
    if (got <= 0) {
        if (!s->errors->ranDry)
            s->errors->warningsAtEnd = s->errors->pub.num_warnings;
        s->errors->ranDry = true;
        s->buffer[0] = 0xFF;
        s->buffer[1] = JPEG_EOI;
        got = 2;
    }
    s->pub.next_input_byte = s->buffer;
    s->pub.bytes_in_buffer = (uint32_t)got < s->chunk ? (size_t)got : s->chunk;
    return TRUE;
}

void SkipInput(j_decompress_ptr cinfo, long count)
{
    Source *s = reinterpret_cast<Source *>(cinfo->src);
    while (count > 0 && (size_t)count > s->pub.bytes_in_buffer) {
        count -= (long)s->pub.bytes_in_buffer;
        FillInput(cinfo);
        if (s->errors->ranDry)
            return; /* leaves the end marker to be read */
    }
    if (count > 0) {
        s->pub.next_input_byte += count;
        s->pub.bytes_in_buffer -= (size_t)count;
    }
}

/* ---- the decoder ---- */

struct Decoder {
    jpeg_decompress_struct cinfo;
    ErrorManager errors;
    Source source;
    jpeg_progress_mgr progress;
};

/* Creates the libjpeg object reading from `handle`; a failure jumps. */
void CreateDecoder(Decoder &d, int handle)
{
    jpeg_create_decompress(&d.cinfo);
    d.source.handle = handle;
    /* A memory image of unknown size is read no further ahead than the
     * other readers read it. */
    d.source.chunk = ImgSourceSizeKnown(handle) ? kChunk : IMG_CHUNK_SIZE;
    d.source.buffer = static_cast<JOCTET *>(
        (*d.cinfo.mem->alloc_large)((j_common_ptr)&d.cinfo, JPOOL_PERMANENT, d.source.chunk));
    d.source.errors = &d.errors;
    d.source.pub.init_source = InitSource;
    d.source.pub.fill_input_buffer = FillInput;
    d.source.pub.skip_input_data = SkipInput;
    d.source.pub.resync_to_restart = jpeg_resync_to_restart;
    d.source.pub.term_source = TermSource;
    d.cinfo.src = &d.source.pub;
    d.progress.progress_monitor = LimitScans;
    d.cinfo.progress = &d.progress;
}

/* A decoder in a block of our own: the jump target's frame keeps only its
 * pointer, which never changes after setjmp. */
Decoder *NewDecoder()
{
    Decoder *d = static_cast<Decoder *>(ImgAlloc(sizeof(Decoder)));
    if (d) {
        memset(d, 0, sizeof *d);
        d->cinfo.err = InitErrors(d->errors);
    }
    return d;
}

void DeleteDecoder(Decoder *d)
{
    jpeg_destroy_decompress(&d->cinfo);
    ImgFree(d);
}

/* Rows for libjpeg's output, `bytes` each, zeroed (the DIB padding). */
JSAMPARRAY RowBuffers(Decoder &d, uint32_t bytes, int count)
{
    JSAMPARRAY rows = (*d.cinfo.mem->alloc_sarray)((j_common_ptr)&d.cinfo, JPOOL_IMAGE, bytes,
                                                   (JDIMENSION)count);
    for (int i = 0; i < count; i++)
        memset(rows[i], 0, bytes);
    return rows;
}

/* Whether the rows just read were made up in part: the data ran out and
 * libjpeg then lacked data it needed (it warns when it fills in).  A stream
 * that lacks no more than its end marker is whole. */
bool RanShort(const Decoder &d)
{
    return d.errors.ranDry && d.errors.pub.num_warnings > d.errors.warningsAtEnd;
}

/* ---- reading a whole stream ---- */

/* Dots per inch of a JFIF density; 0 without units. */
uint32_t JfifDpi(const jpeg_decompress_struct &c, uint16_t density)
{
    if (!c.saw_JFIF_marker)
        return 0;
    if (c.density_unit == 1)
        return density;
    if (c.density_unit == 2)
        return ((uint32_t)density * 254 + 50) / 100;
    return 0;
}

/* The resolution of IFD0 of an EXIF block (a TIFF structure of n bytes):
 * XResolution, YResolution and ResolutionUnit.  False when absent. */
bool ExifDpi(const uint8_t *t, uint32_t n, uint32_t &x, uint32_t &y)
{
    if (n < 8 || t[0] != t[1] || (t[0] != 'I' && t[0] != 'M'))
        return false;
    bool big = t[0] == 'M';
    auto u16 = [&](uint32_t at) { return big ? GetBE16(t + at) : GetLE16(t + at); };
    auto u32 = [&](uint32_t at) { return big ? GetBE32(t + at) : GetLE32(t + at); };
    uint32_t ifd = u32(4);
    if (ifd > n - 2)
        return false;
    uint32_t entries = u16(ifd), unit = 2, value[2] = {0, 0};
    for (uint32_t i = 0; i < entries && (uint64_t)ifd + 2 + 12 * (i + 1) <= n; i++) {
        uint32_t e = ifd + 2 + 12 * i, tag = u16(e), type = u16(e + 2);
        if (tag == 296 && type == 3)
            unit = u16(e + 8);
        if ((tag == 282 || tag == 283) && type == 5) {
            uint32_t at = u32(e + 8);
            if (at > n - 8 || n < 8)
                continue;
            uint32_t numerator = u32(at), denominator = u32(at + 4);
            value[tag - 282] = denominator ? (uint32_t)(((uint64_t)numerator + denominator / 2) / denominator) : 0;
        }
    }
    if (!value[0] || !value[1] || (unit != 2 && unit != 3))
        return false;
    x = unit == 3 ? (uint32_t)(((uint64_t)value[0] * 254 + 50) / 100) : value[0];
    y = unit == 3 ? (uint32_t)(((uint64_t)value[1] * 254 + 50) / 100) : value[1];
    return true;
}

void ReadResolution(const jpeg_decompress_struct &c, uint32_t &x, uint32_t &y)
{
    x = JfifDpi(c, c.X_density);
    y = JfifDpi(c, c.Y_density);
    if (x && y)
        return;
    x = y = 0;
    static const uint8_t kExif[6] = {'E', 'x', 'i', 'f', 0, 0};
    for (jpeg_saved_marker_ptr m = c.marker_list; m; m = m->next)
        if (m->marker == JPEG_APP0 + 1 && m->data_length > 6 && memcmp(m->data, kExif, 6) == 0 &&
            ExifDpi(m->data + 6, m->data_length - 6, x, y))
            return;
}

/* The largest of libjpeg's reductions (1/2, 1/4, 1/8) that keeps both
 * sides at or above the decode target; 1 when there is none. */
unsigned ReductionFor(uint32_t width, uint32_t height)
{
    int32_t targetWidth, targetHeight;
    ImgDecodeTarget(&targetWidth, &targetHeight);
    if (targetWidth <= 0 || targetHeight <= 0 || (uint32_t)targetWidth >= width ||
        (uint32_t)targetHeight >= height)
        return 1;
    for (unsigned denominator : {8u, 4u, 2u})
        if ((width + denominator - 1) / denominator >= (uint32_t)targetWidth &&
            (height + denominator - 1) / denominator >= (uint32_t)targetHeight)
            return denominator;
    return 1;
}

/* How the stream's colours become the image's. */
enum class Colour { Grey, Bgr, Cmyk, CmykInverted };

Colour ChooseOutput(jpeg_decompress_struct &c)
{
    switch (c.jpeg_color_space) {
    case JCS_GRAYSCALE:
        c.out_color_space = JCS_GRAYSCALE;
        return Colour::Grey;
    case JCS_YCbCr:
    case JCS_RGB:
        c.out_color_space = JCS_EXT_BGR;
        return Colour::Bgr;
    case JCS_CMYK:
    case JCS_YCCK:
        c.out_color_space = JCS_CMYK;
        /* Adobe's files store the values inverted (255: no ink). */
        return c.saw_Adobe_marker ? Colour::CmykInverted : Colour::Cmyk;
    default:
        Fail((j_common_ptr)&c, IMG_ERR_INVALID); /* 2 components, or more than 4 */
    }
}

/* CMYK to B, G, R: a channel is its ink's complement times black's. */
void CmykToBgr(const uint8_t *cmyk, uint32_t width, bool inverted, uint8_t *bgr)
{
    uint8_t flip = inverted ? 0 : 0xFF;
    for (uint32_t x = 0; x < width; x++, cmyk += 4, bgr += 3) {
        uint32_t k = cmyk[3] ^ flip;
        bgr[0] = (uint8_t)(((cmyk[2] ^ flip) * k + 127) / 255);
        bgr[1] = (uint8_t)(((cmyk[1] ^ flip) * k + 127) / 255);
        bgr[2] = (uint8_t)(((cmyk[0] ^ flip) * k + 127) / 255);
    }
}

/* The 40-byte header and, at 8 bits, a grey palette (entry i = i). */
void BuildHeader(const jpeg_decompress_struct &c, int bits, uint32_t stride, uint8_t *block)
{
    memset(block, 0, IMG_HEADER_BLOCK_SIZE);
    uint32_t x, y;
    ReadResolution(c, x, y);
    PutLE32(block, DIB_HEADER_SIZE);
    PutLE32(block + 4, c.output_width);
    PutLE32(block + 8, c.output_height);
    PutLE16(block + 12, 1);
    PutLE16(block + 14, (uint16_t)bits);
    PutLE32(block + 20, stride * c.output_height);
    PutLE32(block + 24, x);
    PutLE32(block + 28, y);
    if (bits == 8)
        for (uint32_t i = 0; i < 256; i++)
            memset(block + DIB_HEADER_SIZE + 4 * i, (int)i, 3);
}

struct ImageSinks {
    ImgRowSink rowSink;
    void *sinkContext;
    ImgHeaderSink headerSink;
};

/* The header (to the header sink), then every row (to the row sink).
 * Failures from libjpeg jump; the sinks' results are returned. */
int DecodeImage(Decoder &d, const ImageSinks &sinks)
{
    jpeg_decompress_struct &c = d.cinfo;
    jpeg_save_markers(&c, JPEG_APP0 + 1, 0xFFFF); /* EXIF */
    jpeg_read_header(&c, TRUE);
    Colour colour = ChooseOutput(c);
    c.scale_num = 1;
    c.scale_denom = ReductionFor(c.image_width, c.image_height);
    /* A reduced picture is scaled further by the pipeline: plain chroma
     * upsampling serves it as well and takes a third off the decode. */
    c.do_fancy_upsampling = c.scale_denom == 1;
    jpeg_calc_output_dimensions(&c);
    int bits = colour == Colour::Grey ? 8 : 24;
    uint64_t stride = DibStride(c.output_width, bits), pixelBytes;
    if (!CheckedBlockSize(stride, c.output_height, kMaxPixelBytes, &pixelBytes))
        return IMG_ERR_INVALID;
    uint8_t block[IMG_HEADER_BLOCK_SIZE];
    BuildHeader(c, bits, (uint32_t)stride, block);
    int result = sinks.headerSink(block, sinks.sinkContext);
    if (result < 0)
        return result;

    jpeg_start_decompress(&c);
    if (RanShort(d))
        return IMG_ERR_READ; /* a progressive stream reads all its scans here */
    bool cmyk = colour == Colour::Cmyk || colour == Colour::CmykInverted;
    uint32_t sampleBytes = cmyk ? 4 * c.output_width : (uint32_t)stride;
    uint32_t filledBytes = c.output_width * (uint32_t)(bits / 8); /* of a row libjpeg writes */
    JSAMPARRAY rows = RowBuffers(d, sampleBytes, kRowsPerRead);
    JSAMPARRAY converted = cmyk ? RowBuffers(d, (uint32_t)stride, 1) : nullptr;
    while (c.output_scanline < c.output_height) {
        JDIMENSION first = c.output_scanline;
        /* A row the sink takes as it is goes straight to its place, padding cleared. */
        JSAMPROW target = cmyk ? nullptr : ImgRowTarget(sinks.rowSink, sinks.sinkContext, (int)first, (int)stride);
        if (target)
            memset(target + filledBytes, 0, (size_t)stride - filledBytes);
        JDIMENSION got = target ? jpeg_read_scanlines(&c, &target, 1) : jpeg_read_scanlines(&c, rows, kRowsPerRead);
        if (got == 0)
            return IMG_ERR_INVALID;
        for (JDIMENSION i = 0; i < got; i++) {
            const uint8_t *row = target ? target : rows[i];
            if (cmyk) {
                CmykToBgr(rows[i], c.output_width, colour == Colour::CmykInverted, converted[0]);
                row = converted[0];
            }
            result = sinks.rowSink(row, sinks.sinkContext, (int)(first + i), (int)stride);
            if (result < 0)
                return result;
        }
        if (RanShort(d))
            return IMG_ERR_READ;
    }
    return 1;
}

/* ---- reading a strip ---- */

/* Reads the tables-only stream that libtiff keeps in JPEGTables: its
 * tables stay with the object for the strip's stream. */
void ReadTables(Decoder &d, const JpegStrip &strip)
{
    int handle = d.source.handle;
    d.source.handle = -1;
    d.source.pub.next_input_byte = strip.tables;
    d.source.pub.bytes_in_buffer = strip.tablesBytes;
    jpeg_read_header(&d.cinfo, FALSE);
    d.source.handle = handle;
    d.source.pub.bytes_in_buffer = 0; /* the strip's bytes come next */
    d.errors.ranDry = false;
}

int DecodeStripRows(Decoder &d, const JpegStrip &strip, JpegStripSink sink, void *context)
{
    jpeg_decompress_struct &c = d.cinfo;
    if (strip.tables && strip.tablesBytes)
        ReadTables(d, strip);
    jpeg_read_header(&c, TRUE);
    if (c.num_components == 3)
        c.jpeg_color_space = strip.photometric == 2 ? JCS_RGB : strip.photometric == 6 ? JCS_YCbCr : c.jpeg_color_space;
    switch (c.jpeg_color_space) {
    case JCS_GRAYSCALE: c.out_color_space = JCS_GRAYSCALE; break;
    case JCS_YCbCr: case JCS_RGB: c.out_color_space = JCS_RGB; break;
    case JCS_CMYK: case JCS_YCCK: c.out_color_space = JCS_CMYK; break;
    default: return IMG_ERR_INVALID;
    }
    jpeg_calc_output_dimensions(&c);
    if (c.output_width != strip.width || c.out_color_components != strip.components)
        return IMG_ERR_INVALID;
    jpeg_start_decompress(&c);
    if (RanShort(d))
        return IMG_ERR_READ;
    uint32_t samples = strip.width * (uint32_t)strip.components;
    JSAMPARRAY rows = RowBuffers(d, samples > strip.rowBytes ? samples : strip.rowBytes, kRowsPerRead);
    int32_t delivered = 0;
    while (c.output_scanline < c.output_height && delivered < strip.rows) {
        JDIMENSION got = jpeg_read_scanlines(&c, rows, kRowsPerRead);
        if (got == 0)
            return IMG_ERR_INVALID;
        for (JDIMENSION i = 0; i < got && delivered < strip.rows; i++, delivered++) {
            int result = sink(rows[i], strip.firstRow + delivered, (int)strip.rowBytes, context);
            if (result < 0)
                return result;
        }
        if (RanShort(d))
            return IMG_ERR_READ;
    }
    return 0;
}

/* ---- the destination: the I/O layer's writes ---- */

struct Destination {
    jpeg_destination_mgr pub;
    int handle;
    JOCTET *buffer;
};

void InitDestination(j_compress_ptr cinfo)
{
    Destination *d = reinterpret_cast<Destination *>(cinfo->dest);
    d->pub.next_output_byte = d->buffer;
    d->pub.free_in_buffer = kChunk;
}

void WriteOut(j_compress_ptr cinfo, uint32_t count)
{
    Destination *d = reinterpret_cast<Destination *>(cinfo->dest);
    if (count && ImgWrite(d->handle, d->buffer, count) != (int32_t)count)
        Fail((j_common_ptr)cinfo, IMG_ERR_WRITE);
    d->pub.next_output_byte = d->buffer;
    d->pub.free_in_buffer = kChunk;
}

boolean EmptyOutput(j_compress_ptr cinfo)
{
    WriteOut(cinfo, kChunk);
    return TRUE;
}

void TermDestination(j_compress_ptr cinfo)
{
    WriteOut(cinfo, kChunk - (uint32_t)cinfo->dest->free_in_buffer);
}

/* ---- encoding ---- */

struct Encoder {
    jpeg_compress_struct cinfo;
    ErrorManager errors;
    Destination destination;
};

struct EncodeJob {
    const uint8_t *header;
    int bits;
    bool grey;
    uint32_t width, height, stride;
    ImgRowSource rowSource;
    void *sourceContext;
};

void SetUpEncoder(Encoder &e, int handle, const EncodeJob &job, int quality)
{
    jpeg_compress_struct &c = e.cinfo;
    jpeg_create_compress(&c);
    e.destination.handle = handle;
    e.destination.buffer = static_cast<JOCTET *>(
        (*c.mem->alloc_large)((j_common_ptr)&c, JPOOL_PERMANENT, kChunk));
    e.destination.pub.init_destination = InitDestination;
    e.destination.pub.empty_output_buffer = EmptyOutput;
    e.destination.pub.term_destination = TermDestination;
    c.dest = &e.destination.pub;
    c.image_width = job.width;
    c.image_height = job.height;
    c.input_components = job.grey ? 1 : job.bits == 32 ? 4 : 3;
    c.in_color_space = job.grey ? JCS_GRAYSCALE : job.bits == 32 ? JCS_EXT_BGRX : JCS_EXT_BGR;
    jpeg_set_defaults(&c);
    if (!job.grey) { /* YCbCr, chroma halved both ways (4:2:0) */
        c.comp_info[0].h_samp_factor = c.comp_info[0].v_samp_factor = 2;
        c.comp_info[1].h_samp_factor = c.comp_info[1].v_samp_factor = 1;
        c.comp_info[2].h_samp_factor = c.comp_info[2].v_samp_factor = 1;
    }
    jpeg_set_quality(&c, quality < 1 ? 1 : quality > 100 ? 100 : quality, TRUE);
    int32_t x = (int32_t)GetLE32(job.header + 24), y = (int32_t)GetLE32(job.header + 28);
    if (x > 0 && y > 0 && x <= 65535 && y <= 65535) {
        c.density_unit = 1;
        c.X_density = (UINT16)x;
        c.Y_density = (UINT16)y;
    }
}

/* An 8-bit row through the palette: grey levels, or B, G, R. */
void MapThroughPalette(const uint8_t *palette, const uint8_t *row, uint32_t width, bool grey,
                       uint8_t *out)
{
    for (uint32_t x = 0; x < width; x++) {
        const uint8_t *entry = palette + 4 * row[x];
        if (grey) {
            out[x] = entry[0];
        } else {
            memcpy(out + 3 * x, entry, 3);
        }
    }
}

/* The rows, fetched, mapped where needed and compressed.  Failures from
 * libjpeg jump; a row source's failure is returned. */
int EncodeRows(Encoder &e, const EncodeJob &job)
{
    jpeg_compress_struct &c = e.cinfo;
    jpeg_start_compress(&c, TRUE);
    JSAMPARRAY rows = (*c.mem->alloc_sarray)((j_common_ptr)&c, JPOOL_IMAGE, job.stride + 4, 1);
    JSAMPARRAY mapped = (*c.mem->alloc_sarray)((j_common_ptr)&c, JPOOL_IMAGE, 3 * job.width + 4, 1);
    const uint8_t *palette = job.header + DIB_HEADER_SIZE;
    for (uint32_t y = 0; y < job.height; y++) {
        int result = job.rowSource(job.sourceContext, rows[0], (int)y, (int)job.stride);
        if (result < 0)
            return result;
        JSAMPROW row = rows[0];
        if (job.bits == 8) {
            MapThroughPalette(palette, rows[0], job.width, job.grey, mapped[0]);
            row = mapped[0];
        }
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    return 0;
}

/* Runs `work` on a decoder over `handle`; a libjpeg error jumps back here
 * (this frame stays live while `work` runs), and the decoder is freed on
 * every path. */
template <typename Work> int WithDecoder(int handle, Work work)
{
    Decoder *d = NewDecoder();
    if (!d)
        return IMG_ERR_MEMORY;
    if (setjmp(d->errors.jump)) {
        int code = d->errors.code;
        DeleteDecoder(d);
        return code;
    }
    CreateDecoder(*d, handle);
    int result = work(*d);
    DeleteDecoder(d);
    return result;
}

} // namespace

int JpegRead(uint32_t start, ImgRowSink rowSink, void *sinkContext, ImgHeaderSink headerSink,
             int handle)
{
    if (start & IMG_PAGE_FLAG)
        return IMG_ERR_PAGE; /* a stream holds one image */
    ImgSeek(handle, (int32_t)start, 0);
    return WithDecoder(handle, [&](Decoder &d) { return DecodeImage(d, {rowSink, sinkContext, headerSink}); });
}

int JpegDecodeStrip(int handle, const JpegStrip &strip, JpegStripSink sink, void *context)
{
    return WithDecoder(handle, [&](Decoder &d) { return DecodeStripRows(d, strip, sink, context); });
}

int JpegEncode(int handle, const uint8_t *header, ImgRowSource rowSource, void *sourceContext,
               int quality, bool grey)
{
    EncodeJob job = {header, GetLE16(header + 14), false, 0, 0, 0, rowSource, sourceContext};
    int32_t width = (int32_t)GetLE32(header + 4), height = (int32_t)GetLE32(header + 8);
    if (job.bits != 8 && job.bits != 24 && job.bits != 32)
        return IMG_ERR_DEPTH;
    if (width < 1 || height < 1 || (uint32_t)width > kMaxSide || (uint32_t)height > kMaxSide)
        return IMG_ERR_TYPE;
    job.grey = grey && job.bits == 8;
    job.width = (uint32_t)width;
    job.height = (uint32_t)height;
    job.stride = (uint32_t)DibStride(job.width, job.bits);
    Encoder *e = static_cast<Encoder *>(ImgAlloc(sizeof(Encoder)));
    if (!e)
        return IMG_ERR_MEMORY;
    memset(e, 0, sizeof *e);
    e->cinfo.err = InitErrors(e->errors);
    if (setjmp(e->errors.jump)) {
        int code = e->errors.code;
        jpeg_destroy_compress(&e->cinfo);
        ImgFree(e);
        return code;
    }
    SetUpEncoder(*e, handle, job, quality);
    int result = EncodeRows(*e, job);
    jpeg_destroy_compress(&e->cinfo);
    ImgFree(e);
    return result;
}
