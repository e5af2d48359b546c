/*
 * render.cpp - the band renderers (render.h).
 *
 * Geometry.  Each device axis shows one image axis of the crop rectangle:
 * device x the columns (rows at 90 and 270 degrees), device y the rows
 * (columns at 90 and 270), reversed where the clockwise angle runs against
 * the image.  Along an axis of `length` device pixels showing `extent`
 * image pixels, device pixel k shows, in modes 0 and 1, the image pixel under
 * its centre, (2k + 1) * extent / (2 * length) counted along the axis, and
 * in modes 2 and 3 covers the image pixels from k * extent / length up to
 * (k + 1) * extent / length (all integer divisions).
 *
 * Bands.  Only the visible part of the display rectangle (inside the
 * device's clip box) is drawn, in bands of device rows: a band image is
 * filled and handed to the device in one transfer.  A band is filled in
 * chunks of rows, so that the working buffers stay small whatever the band.
 * Run-coded rows are read one row at a time, never expanded as a page.
 */
#include "display/render.h"

#include <string.h>

#include <algorithm>
#include <vector>

#include "color/dither.h"
#include "core/dib.h"
#include "core/imgapi.h"
#include "core/runs.h"

namespace {

/* Working buffers of a chunk stay near this size. */
constexpr size_t kChunkBytes = 1u << 18;

/* ---- the image ---- */

struct Source {
    const ImgDescriptor *d = nullptr;
    int bits = 0;
    const uint8_t *palette = nullptr; /* B, G, R, 0 entries */
    uint32_t entries = 0;
    const uint8_t *rows = nullptr;    /* plain images: the first stored row */
    int pixelBytes = 1;               /* unpacked pixels: 1 index, 3 B G R, 4 B G R A */
};

int OpenSource(const ImgDescriptor *d, Source *s)
{
    if (!d->dib)
        return IMG_ERR_MEMORY;
    s->d = d;
    s->bits = ImgDescriptorBits(d);
    if (!DibDepthSupported(s->bits))
        return IMG_ERR_TYPE;
    if (d->width < 1 || d->height < 1)
        return IMG_ERR_INVALID;
    uint64_t offset = ImgDescriptorBitsOffset(d);
    s->palette = d->dib + DIB_HEADER_SIZE;
    s->entries = s->bits <= 8 ? 1u << s->bits : s->bits == 16 ? 256 : 0;
    if (d->codedRows) {
        if (s->bits != 1 || !d->rowIndex || d->width > RUN_MAX_WIDTH || offset > d->dibSize)
            return IMG_ERR_INVALID;
    } else {
        if ((uint64_t)d->stride < DibStride((uint32_t)d->width, s->bits) ||
            offset + (uint64_t)d->stride * (uint64_t)d->height > d->dibSize)
            return IMG_ERR_INVALID;
        s->rows = d->dib + offset;
    }
    return 0;
}

const uint8_t *PlainRow(const Source &s, int64_t row)
{
    return s.rows + (size_t)(s.d->height - 1 - row) * (size_t)s.d->stride;
}

/* Calls f(a, b) for each run of 0-bits (entry 0) of a 1-bit image row that
 * meets the columns [left, right), clipped to them.  A coded row that the
 * store cannot give (not stored yet) has none: it reads as entry 1. */
template <class F>
void ForEachZeroRun(const Source &s, int64_t row, int64_t left, int64_t right, F f)
{
    if (s.d->codedRows) {
        uint32_t bytes;
        const uint16_t *record = RunStoreRow(s.d, (int32_t)row, &bytes);
        uint32_t words = record ? bytes / 2 : 0;
        for (uint32_t i = 1; i < words;) {
            int64_t a = record[i++];
            if (a >= right || a >= s.d->width)
                break;
            int64_t b = i < words ? record[i++] : s.d->width;
            a = std::max(a, left);
            b = std::min(b, right);
            if (b > a)
                f(a, b);
        }
        return;
    }
    const uint8_t *p = PlainRow(s, row);
    auto bit = [p](int64_t x) { return (p[x >> 3] >> (7 - (x & 7))) & 1; };
    int64_t x = left;
    while (x < right) {
        while (x < right && bit(x)) /* ones, a byte at a time where aligned */
            x += (x & 7) == 0 && x + 8 <= right && p[x >> 3] == 0xFF ? 8 : 1;
        int64_t a = x;
        while (x < right && !bit(x))
            x += (x & 7) == 0 && x + 8 <= right && p[x >> 3] == 0x00 ? 8 : 1;
        if (x > a)
            f(a, x);
    }
}

/* Columns left .. left + count - 1 of an image row as unpacked pixels:
 * indices below 16 bits, B G R (B G R A with `pixelBytes` 4) above.  Points
 * into the image where its rows are already so, else fills `scratch`. */
const uint8_t *FetchSpan(const Source &s, int64_t row, int64_t left, int64_t count, uint8_t *scratch)
{
    if (s.d->codedRows) {
        memset(scratch, 1, (size_t)count);
        ForEachZeroRun(s, row, left, left + count,
                       [&](int64_t a, int64_t b) { memset(scratch + (a - left), 0, (size_t)(b - a)); });
        return scratch;
    }
    const uint8_t *p = PlainRow(s, row);
    switch (s.bits) {
    case 1:
        for (int64_t i = 0; i < count; i++)
            scratch[i] = (p[(left + i) >> 3] >> (7 - ((left + i) & 7))) & 1;
        return scratch;
    case 4:
        for (int64_t i = 0; i < count; i++) {
            int64_t x = left + i;
            scratch[i] = (x & 1) ? p[x >> 1] & 0x0F : p[x >> 1] >> 4;
        }
        return scratch;
    case 8: return p + left;
    case 16: /* the entry of each pixel's high byte */
        for (int64_t i = 0; i < count; i++)
            memcpy(scratch + 3 * i, s.palette + 4 * p[2 * (left + i) + 1], 3);
        return scratch;
    case 24: return p + 3 * left;
    default:
        if (s.pixelBytes == 4)
            return p + 4 * left;
        for (int64_t i = 0; i < count; i++)
            memcpy(scratch + 3 * i, p + 4 * (left + i), 3);
        return scratch;
    }
}

/* ---- geometry ---- */

struct Axis {
    int64_t start = 0, length = 1; /* device pixels */
    int64_t origin = 0, extent = 1; /* the crop along the image axis shown */
    bool reversed = false;

    /* The image coordinate under the centre of device pixel v. */
    int64_t Sample(int64_t v) const
    {
        uint64_t k = (uint64_t)(v - start);
        int64_t o = (int64_t)(((2 * k + 1) * (uint64_t)extent) / (2 * (uint64_t)length));
        return origin + (reversed ? extent - 1 - o : o);
    }
    /* Where device index k's share of the crop starts, counted in device order. */
    int64_t Bound(int64_t k) const { return (int64_t)((uint64_t)k * (uint64_t)extent / (uint64_t)length); }
    /* Image coordinates [a, b) as positions in device order, and back
     * (the same mapping both ways). */
    void Orient(int64_t a, int64_t b, int64_t *oa, int64_t *ob) const
    {
        if (reversed) {
            *oa = origin + extent - b;
            *ob = origin + extent - a;
        } else {
            *oa = a - origin;
            *ob = b - origin;
        }
    }
    void Unorient(int64_t oa, int64_t ob, int64_t *a, int64_t *b) const
    {
        if (reversed) {
            *a = origin + extent - ob;
            *b = origin + extent - oa;
        } else {
            *a = oa + origin;
            *b = ob + origin;
        }
    }
};

/* Coverage along an axis for the visible device pixels lo .. hi - 1: where
 * each one's share starts (`bound`, one more than pixels) and which pixel
 * each position of the shares belongs to (`pixel`). */
struct AxisTable {
    int64_t lo = 0, oLo = 0, oHi = 0;
    std::vector<int64_t> bound;
    std::vector<int32_t> pixel;

    void Build(const Axis &axis, int64_t from, int64_t to)
    {
        lo = from;
        size_t n = (size_t)(to - from);
        bound.resize(n + 2); /* one beyond, read by Spread's second pixel */
        for (size_t i = 0; i <= n + 1; i++)
            bound[i] = axis.Bound(from - axis.start + (int64_t)i);
        oLo = bound[0];
        oHi = bound[n];
        pixel.resize((size_t)(oHi - oLo));
        for (size_t i = 0; i < n; i++)
            std::fill(pixel.begin() + (bound[i] - oLo), pixel.begin() + (bound[i + 1] - oLo), (int32_t)i);
    }
    /* Adds the image run [a, b) to the counts of the pixels it covers:
     * acc[(i - first) * step] for pixel i of this table. */
    void Spread(const Axis &axis, int64_t a, int64_t b, uint32_t *acc, size_t step, int64_t first) const
    {
        int64_t oa, ob;
        axis.Orient(a, b, &oa, &ob);
        oa = std::max(oa, oLo);
        ob = std::min(ob, oHi);
        if (ob <= oa)
            return;
        /* The first pixel gets the run up to its end, every further one its
         * whole share, and the last gives back what lies past the run's end
         * (unsigned counts: the sums come out right whatever their order).
         * The second pixel is added to without a branch (0 when the run ends
         * in the first): `acc` has a pixel's room to spare beyond the last. */
        int64_t ia = pixel[(size_t)(oa - oLo)], ib = pixel[(size_t)(ob - 1 - oLo)];
        uint32_t *at = acc + (size_t)(ia - first) * step;
        at[0] += (uint32_t)(bound[(size_t)ia + 1] - oa);
        at[step] += (uint32_t)(bound[(size_t)ia + 2] - bound[(size_t)ia + 1]) & (ib > ia ? ~0u : 0u);
        for (int64_t i = ia + 2; i <= ib; i++)
            acc[(size_t)(i - first) * step] += (uint32_t)(bound[(size_t)i + 1] - bound[(size_t)i]);
        acc[(size_t)(ib - first) * step] -= (uint32_t)(bound[(size_t)ib + 1] - ob);
    }
    int64_t Share(int64_t i) const { return bound[(size_t)i + 1] - bound[(size_t)i]; }
};

struct Geometry {
    Axis across, down; /* device x, device y */
    bool turned = false; /* 90 and 270: device x shows image rows */
    GdiRect visible = {0, 0, 0, 0};
};

/* The device range lo .. hi - 1 of `axis` reduced to the pixels that show
 * or cover image coordinates [first, end); false when none do. */
bool LimitToImageRange(const Axis &axis, int64_t first, int64_t end, int64_t *lo, int64_t *hi)
{
    int64_t oa, ob;
    axis.Orient(std::max(first, axis.origin), std::min(end, axis.origin + axis.extent), &oa, &ob);
    int64_t newLo = -1, newHi = -1;
    for (int64_t v = *lo; v < *hi; v++) {
        int64_t k = v - axis.start;
        int64_t sample = (int64_t)(((2 * (uint64_t)k + 1) * (uint64_t)axis.extent) / (2 * (uint64_t)axis.length));
        bool shows = sample >= oa && sample < ob;
        bool covers = axis.Bound(k) < ob && axis.Bound(k + 1) > oa;
        if (shows || covers) {
            if (newLo < 0)
                newLo = v;
            newHi = v + 1;
        }
    }
    *lo = newLo;
    *hi = newHi;
    return newLo >= 0;
}

/* 0 with the geometry set; 1 when nothing is to be drawn. */
int SetGeometry(const RenderRequest &r, GdiDevice &device, Geometry *g)
{
    const ImgDescriptor *d = r.d;
    int64_t cx0 = std::max<int64_t>(d->cropX, 0), cy0 = std::max<int64_t>(d->cropY, 0);
    int64_t cx1 = std::min<int64_t>((int64_t)d->cropX + d->cropWidth, d->width);
    int64_t cy1 = std::min<int64_t>((int64_t)d->cropY + d->cropHeight, d->height);
    if (cx1 <= cx0 || cy1 <= cy0 || r.width < 1 || r.height < 1)
        return 1;
    int angle = d->displayAngle;
    g->turned = angle == 90 || angle == 270;
    g->across = {r.x, r.width, g->turned ? cy0 : cx0, g->turned ? cy1 - cy0 : cx1 - cx0,
                 angle == 180 || angle == 90};
    g->down = {r.y, r.height, g->turned ? cx0 : cy0, g->turned ? cx1 - cx0 : cy1 - cy0,
               angle == 180 || angle == 270};
    GdiRect clip;
    if (!device.ClipBox(&clip))
        return 1;
    g->visible = {std::max(r.x, clip.left), std::max(r.y, clip.top),
                  std::min(r.x + r.width, clip.right), std::min(r.y + r.height, clip.bottom)};
    GdiRect &v = g->visible;
    if (v.left >= v.right || v.top >= v.bottom)
        return 1;
    if (r.rowsEnd > r.rowsBegin) {
        bool any = g->turned ? LimitToImageRange(g->across, r.rowsBegin, r.rowsEnd, &v.left, &v.right)
                             : LimitToImageRange(g->down, r.rowsBegin, r.rowsEnd, &v.top, &v.bottom);
        if (!any)
            return 1;
    }
    return 0;
}

/* ---- small conversions ---- */

int Grey(const uint8_t *bgr)
{
    return (30 * bgr[2] + 59 * bgr[1] + 11 * bgr[0]) / 100;
}

void SetBit(uint8_t *row, int64_t x, bool on)
{
    if (on)
        row[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
}

template <int PB>
void Gather(uint8_t *out, const uint8_t *span, const int64_t *columns, int64_t lo, int64_t count)
{
    for (int64_t i = 0; i < count; i++)
        memcpy(out + PB * i, span + PB * (columns[i] - lo), PB);
}

/* The grey level of `ones` 1-bits in `area`: 255 * ones / area, rounded. */
uint8_t Level(uint64_t ones, uint64_t area)
{
    return (uint8_t)(area < (1u << 22) ? (uint32_t)(510 * ones + area) / (uint32_t)(2 * area)
                                       : (510 * ones + area) / (2 * area));
}

/* ---- the renderer ---- */

enum class Fill {
    Direct,    /* unpacked pixels are the band's own (8, 24 or 32 bits) */
    Pack,      /* 1-bit indices packed */
    Keyed,     /* 24 bits and a mask: the transparent colour leaves the device */
    Dither,    /* grey, dithered to black and white */
    GreyLevel, /* modes 2: coverage as a level of the ramp */
    Threshold, /* mode 3: coverage held so that thin strokes survive */
};

class Renderer {
  public:
    Renderer(const RenderRequest &r, const Source &s, const Geometry &g)
        : r_(r), s_(s), g_(g), width_(g.visible.right - g.visible.left)
    {
    }
    int Run();

  private:
    void ChooseBand();
    void SampleRows(int64_t y0, int64_t y1, uint8_t *out, size_t stride);
    void CoverRows(int64_t y0, int64_t y1, uint32_t *zeros);
    void FillRows(int64_t y0, int64_t y1, uint8_t *band, uint8_t *mask);
    void ConvertRow(int64_t y, const uint8_t *pixels, uint8_t *band, uint8_t *mask);
    void CoverageRow(int64_t y, const uint32_t *zeros, uint8_t *band);
    bool Transfer(int64_t y0, int64_t rows);

    const RenderRequest &r_;
    Source s_;
    const Geometry &g_;
    int64_t width_;
    int mode_ = 0;
    Fill fill_ = Fill::Direct;
    int bandBits_ = 24;
    uint8_t bandPalette_[1024] = {};
    uint32_t bandEntries_ = 0;
    size_t bandStride_ = 0, maskStride_ = 0;
    int64_t bandRows_ = 1, chunkRows_ = 1;
    std::vector<uint8_t> band_, mask_, pixels_, span_;
    std::vector<int64_t> columns_, rows_; /* the image coordinate each visible column / row shows */
    std::vector<uint32_t> zeros_;
    AxisTable acrossTable_, downTable_;
    /* Mode 2: the level of each count of 1-bits for the (at most four)
     * areas a device pixel covers, those of sides q or q + 1 with q the
     * smaller share of each axis; empty where an area is too large. */
    int64_t shareAcross_ = 0, shareDown_ = 0;
    std::vector<uint8_t> levels_[4];
    std::vector<int32_t> error_, nextError_; /* diffusion, carried from row to row */
    bool inkIsZero_ = true;
};

/* Band format, palette and size, by mode and image. */
void Renderer::ChooseBand()
{
    const ImgDescriptor *d = r_.d;
    mode_ = r_.mode;
    if ((mode_ == 2 || mode_ == 3) &&
        !(g_.across.extent > g_.across.length && g_.down.length < g_.down.extent))
        mode_ = 0; /* anti-aliasing only where both axes are reduced */
    if ((mode_ == 2 || mode_ == 3) && s_.bits != 1)
        mode_ = 0;
    if (mode_ == 1 && s_.bits < 4)
        mode_ = 0;
    s_.pixelBytes = s_.bits <= 8 ? 1 : s_.bits == 32 && d->pmaDisplay && mode_ == 0 ? 4 : 3;
    bandEntries_ = 0;
    if (mode_ == 1) {
        fill_ = Fill::Dither, bandBits_ = 1, bandEntries_ = 2;
        memset(bandPalette_ + 4, 255, 3);
    } else if (mode_ == 2) {
        fill_ = Fill::GreyLevel, bandBits_ = 8, bandEntries_ = 256;
        for (int v = 0; v < 256; v++) /* from entry 0's colour to entry 1's */
            for (int k = 0; k < 3; k++)
                bandPalette_[4 * v + k] = (uint8_t)((s_.palette[k] * (255 - v) + s_.palette[4 + k] * v + 127) / 255);
    } else if (mode_ == 3) {
        fill_ = Fill::Threshold, bandBits_ = 1, bandEntries_ = 2;
        memcpy(bandPalette_, s_.palette, 8);
        inkIsZero_ = Grey(s_.palette) <= Grey(s_.palette + 4);
    } else if (d->transparentActive) {
        fill_ = Fill::Keyed, bandBits_ = 24;
    } else if (s_.pixelBytes == 4) {
        fill_ = Fill::Direct, bandBits_ = 32;
    } else if (s_.bits == 1) {
        fill_ = Fill::Pack, bandBits_ = 1, bandEntries_ = 2;
        memcpy(bandPalette_, s_.palette, 8);
    } else if (s_.bits <= 8) {
        fill_ = Fill::Direct, bandBits_ = 8, bandEntries_ = s_.entries;
        memcpy(bandPalette_, s_.palette, 4 * (size_t)s_.entries);
    } else {
        fill_ = Fill::Direct, bandBits_ = 24;
    }
    int64_t visibleRows = g_.visible.bottom - g_.visible.top;
    bandStride_ = (size_t)DibStride((uint32_t)width_, bandBits_);
    maskStride_ = (size_t)DibStride((uint32_t)width_, 1);
    if (bandBits_ == 1 && mode_ != 2 && !r_.print)
        bandRows_ = visibleRows; /* a bilevel band on a display: all at once */
    else
        bandRows_ = std::clamp<int64_t>(
            (int64_t)((RENDER_BAND_BYTES - DIB_HEADER_SIZE - 4 * bandEntries_) / bandStride_), 1, visibleRows);
    size_t perRow = (size_t)width_ * 4;
    chunkRows_ = std::clamp<int64_t>((int64_t)(kChunkBytes / perRow), 1, bandRows_);
}

/* Device rows y0 .. y1 - 1 as unpacked image pixels, rows `stride` apart. */
void Renderer::SampleRows(int64_t y0, int64_t y1, uint8_t *out, size_t stride)
{
    const int pb = s_.pixelBytes;
    const int64_t top = g_.visible.top;
    if (!g_.turned) {
        int64_t lo = std::min(columns_.front(), columns_.back());
        int64_t count = std::max(columns_.front(), columns_.back()) + 1 - lo;
        int64_t last = -1;
        const uint8_t *span = nullptr;
        for (int64_t y = y0; y < y1; y++) {
            int64_t row = rows_[(size_t)(y - top)];
            if (row != last) /* rows repeated by enlargement are read once */
                span = FetchSpan(s_, row, lo, count, span_.data());
            last = row;
            uint8_t *o = out + (size_t)(y - y0) * stride;
            if (pb == 1)
                Gather<1>(o, span, columns_.data(), lo, width_);
            else if (pb == 3)
                Gather<3>(o, span, columns_.data(), lo, width_);
            else
                Gather<4>(o, span, columns_.data(), lo, width_);
        }
        return;
    }
    /* Turned: each device column shows one image row, read once a chunk. */
    int64_t first = rows_[(size_t)(y0 - top)], end = rows_[(size_t)(y1 - 1 - top)];
    int64_t lo = std::min(first, end), count = std::max(first, end) + 1 - lo;
    int64_t last = -1;
    const uint8_t *span = nullptr;
    for (int64_t i = 0; i < width_; i++) {
        int64_t row = columns_[(size_t)i];
        if (row != last)
            span = FetchSpan(s_, row, lo, count, span_.data());
        last = row;
        for (int64_t y = y0; y < y1; y++)
            memcpy(out + (size_t)(y - y0) * stride + (size_t)(pb * i),
                   span + pb * (rows_[(size_t)(y - top)] - lo), (size_t)pb);
    }
}

/* The 0-bits each device pixel of rows y0 .. y1 - 1 covers, from the image
 * rows' runs. */
void Renderer::CoverRows(int64_t y0, int64_t y1, uint32_t *zeros)
{
    const int64_t top = g_.visible.top;
    std::fill(zeros, zeros + (size_t)((y1 - y0) * width_), 0u);
    int64_t oa = downTable_.bound[(size_t)(y0 - top)], ob = downTable_.bound[(size_t)(y1 - top)];
    if (!g_.turned) {
        int64_t left, right, row0, row1;
        g_.across.Unorient(acrossTable_.oLo, acrossTable_.oHi, &left, &right);
        g_.down.Unorient(oa, ob, &row0, &row1);
        for (int64_t row = row0; row < row1; row++) {
            int64_t o, unused;
            g_.down.Orient(row, row + 1, &o, &unused);
            int64_t j = downTable_.pixel[(size_t)(o - downTable_.oLo)] - (y0 - top);
            uint32_t *acc = zeros + (size_t)(j * width_);
            ForEachZeroRun(s_, row, left, right,
                           [&](int64_t a, int64_t b) { acrossTable_.Spread(g_.across, a, b, acc, 1, 0); });
        }
        return;
    }
    int64_t left, right, row0, row1;
    g_.down.Unorient(oa, ob, &left, &right);
    g_.across.Unorient(acrossTable_.oLo, acrossTable_.oHi, &row0, &row1);
    for (int64_t row = row0; row < row1; row++) {
        int64_t o, unused;
        g_.across.Orient(row, row + 1, &o, &unused);
        uint32_t *acc = zeros + acrossTable_.pixel[(size_t)(o - acrossTable_.oLo)];
        ForEachZeroRun(s_, row, left, right, [&](int64_t a, int64_t b) {
            downTable_.Spread(g_.down, a, b, acc, (size_t)width_, y0 - top);
        });
    }
}

/* One device row of unpacked pixels into the band (and mask). */
void Renderer::ConvertRow(int64_t y, const uint8_t *pixels, uint8_t *band, uint8_t *mask)
{
    const int pb = s_.pixelBytes;
    switch (fill_) {
    case Fill::Pack:
        memset(band, 0, bandStride_);
        for (int64_t i = 0; i < width_; i++)
            SetBit(band, i, pixels[i] & 1);
        break;
    case Fill::Keyed: {
        uint32_t key = r_.d->transparentColour;
        uint8_t keyBgr[3] = {(uint8_t)(key >> 16), (uint8_t)(key >> 8), (uint8_t)key}; /* a COLORREF */
        memset(mask, 0, maskStride_);
        for (int64_t i = 0; i < width_; i++) {
            const uint8_t *p = pixels + pb * i;
            const uint8_t *bgr = pb == 1 ? s_.palette + 4 * p[0] : p;
            bool clear = pb == 1 ? p[0] == (key & 0xFF) : memcmp(bgr, keyBgr, 3) == 0;
            SetBit(mask, i, clear); /* white in the mask keeps the device */
            if (clear)
                memset(band + 3 * i, 0, 3);
            else
                memcpy(band + 3 * i, bgr, 3);
        }
        break;
    }
    case Fill::Dither: {
        memset(band, 0, bandStride_);
        const uint8_t *bayer = DitherBayerTable();
        int64_t x0 = g_.visible.left;
        for (int64_t i = 0; i < width_; i++) {
            const uint8_t *p = pixels + pb * i;
            int grey = Grey(pb == 1 ? s_.palette + 4 * p[0] : p);
            bool white;
            if (r_.ditherMode == 2) { /* Floyd and Steinberg, the error carried down */
                int32_t value = grey + error_[(size_t)i + 1];
                white = value >= 128;
                int32_t e = value - (white ? 255 : 0);
                error_[(size_t)i + 2] += e * 7 / 16;
                nextError_[(size_t)i] += e * 3 / 16;
                nextError_[(size_t)i + 1] += e * 5 / 16;
                nextError_[(size_t)i + 2] += e / 16;
            } else {
                white = bayer[((x0 + i) & 7) * 8 + (y & 7)] < grey;
            }
            SetBit(band, i, white);
        }
        if (r_.ditherMode == 2) {
            error_.swap(nextError_);
            std::fill(nextError_.begin(), nextError_.end(), 0);
        }
        break;
    }
    default: break;
    }
}

/* One device row of coverage counts into the band. */
void Renderer::CoverageRow(int64_t y, const uint32_t *zeros, uint8_t *band)
{
    int64_t shareDown = downTable_.Share(y - g_.visible.top);
    if (fill_ == Fill::Threshold)
        memset(band, 0, bandStride_);
    for (int64_t i = 0; i < width_; i++) {
        uint64_t area = (uint64_t)acrossTable_.Share(i) * (uint64_t)shareDown;
        uint64_t zero = std::min<uint64_t>(zeros[i], area);
        if (fill_ == Fill::GreyLevel) {
            uint64_t ones = area - zero;
            const std::vector<uint8_t> &levels =
                levels_[2 * (acrossTable_.Share(i) - shareAcross_) + (shareDown - shareDown_)];
            band[i] = levels.empty() ? Level(ones, area) : levels[ones];
        } else {
            uint64_t ink = inkIsZero_ ? zero : area - zero;
            bool inked = ink * 16 > area; /* more than a sixteenth of the area */
            SetBit(band, i, inked != inkIsZero_);
        }
    }
}

void Renderer::FillRows(int64_t y0, int64_t y1, uint8_t *band, uint8_t *mask)
{
    if (fill_ == Fill::GreyLevel || fill_ == Fill::Threshold) {
        CoverRows(y0, y1, zeros_.data());
        for (int64_t y = y0; y < y1; y++)
            CoverageRow(y, zeros_.data() + (size_t)((y - y0) * width_), band + (size_t)(y - y0) * bandStride_);
        return;
    }
    if (fill_ == Fill::Direct) {
        SampleRows(y0, y1, band, bandStride_);
        return;
    }
    size_t stride = (size_t)width_ * (size_t)s_.pixelBytes;
    SampleRows(y0, y1, pixels_.data(), stride);
    for (int64_t y = y0; y < y1; y++)
        ConvertRow(y, pixels_.data() + (size_t)(y - y0) * stride, band + (size_t)(y - y0) * bandStride_,
                   mask ? mask + (size_t)(y - y0) * maskStride_ : nullptr);
}

bool Renderer::Transfer(int64_t y0, int64_t rows)
{
    GdiDevice &device = *r_.device;
    int32_t x = (int32_t)g_.visible.left, y = (int32_t)y0, w = (int32_t)width_, h = (int32_t)rows;
    GdiDib dib;
    dib.Describe(w, -h, bandBits_, bandPalette_, bandEntries_);
    dib.bits = band_.data();
    if (bandBits_ == 32)
        return device.AlphaBlend(x, y, dib);
    if (fill_ != Fill::Keyed)
        return device.StretchDIBits(x, y, w, h, 0, 0, w, h, dib, r_.d->rasterOp);
    /* The mask clears the opaque pixels, the picture (black where
     * transparent) is then added into them. */
    static const uint8_t kBlackWhite[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    GdiDib mask;
    mask.Describe(w, -h, 1, kBlackWhite, 2);
    mask.bits = mask_.data();
    return device.StretchDIBits(x, y, w, h, 0, 0, w, h, mask, GDI_SRCAND) &&
           device.StretchDIBits(x, y, w, h, 0, 0, w, h, dib, GDI_SRCPAINT);
}

int Renderer::Run()
{
    ChooseBand();
    const GdiRect &v = g_.visible;
    int64_t visibleRows = v.bottom - v.top;
    bool coverage = fill_ == Fill::GreyLevel || fill_ == Fill::Threshold;
    if (coverage) {
        acrossTable_.Build(g_.across, v.left, v.right);
        downTable_.Build(g_.down, v.top, v.bottom);
        zeros_.resize((size_t)((chunkRows_ + 1) * width_ + 1)); /* room for Spread */
        shareAcross_ = g_.across.extent / g_.across.length; /* every share is q or q + 1 */
        shareDown_ = g_.down.extent / g_.down.length;
        for (int k = 0; k < 4 && fill_ == Fill::GreyLevel; k++) {
            uint64_t area = (uint64_t)(shareAcross_ + k / 2) * (uint64_t)(shareDown_ + k % 2);
            if (area > 4096)
                continue;
            levels_[k].resize(area + 1);
            for (uint64_t ones = 0; ones <= area; ones++)
                levels_[k][ones] = Level(ones, area);
        }
    } else {
        columns_.resize((size_t)width_);
        rows_.resize((size_t)visibleRows);
        for (int64_t i = 0; i < width_; i++)
            columns_[(size_t)i] = g_.across.Sample(v.left + i);
        for (int64_t j = 0; j < visibleRows; j++)
            rows_[(size_t)j] = g_.down.Sample(v.top + j);
        int64_t spanPixels = g_.turned ? g_.down.extent : g_.across.extent;
        span_.resize((size_t)spanPixels * 4);
        if (fill_ != Fill::Direct)
            pixels_.resize((size_t)(chunkRows_ * width_ * s_.pixelBytes));
        if (fill_ == Fill::Dither && r_.ditherMode == 2) {
            error_.assign((size_t)width_ + 4, 0);
            nextError_.assign((size_t)width_ + 4, 0);
        }
    }
    band_.resize((size_t)bandRows_ * bandStride_);
    if (fill_ == Fill::Keyed)
        mask_.resize((size_t)bandRows_ * maskStride_);
    for (int64_t y0 = v.top; y0 < v.bottom; y0 += bandRows_) {
        int64_t rows = std::min(bandRows_, v.bottom - y0);
        for (int64_t c = 0; c < rows; c += chunkRows_) {
            int64_t n = std::min(chunkRows_, rows - c);
            FillRows(y0 + c, y0 + c + n, band_.data() + (size_t)c * bandStride_,
                     mask_.empty() ? nullptr : mask_.data() + (size_t)c * maskStride_);
        }
        if (!Transfer(y0, rows))
            return IMG_ERR_GDI;
    }
    return 0;
}

} // namespace

int RenderCrop(const RenderRequest &request)
{
    Source source;
    int result = OpenSource(request.d, &source);
    if (result < 0)
        return result;
    Geometry geometry;
    if (SetGeometry(request, *request.device, &geometry) != 0)
        return 0;
    Renderer renderer(request, source, geometry);
    return renderer.Run();
}

int RenderCropAtOnce(const RenderRequest &request)
{
    const ImgDescriptor *d = request.d;
    GdiDevice &device = *request.device;
    if (d->displayAngle != 0 && d->displayAngle != 360)
        return 0;
    if (!(device.DeviceCaps(GDI_RASTERCAPS) & GDI_RC_STRETCHDIB) || request.width > INT32_MAX ||
        request.height > INT32_MAX)
        return 0; /* StretchDIBits takes 32-bit sides */
    Source s;
    int result = OpenSource(d, &s);
    if (result < 0)
        return result;
    int64_t cx0 = std::max<int64_t>(d->cropX, 0), cy0 = std::max<int64_t>(d->cropY, 0);
    int64_t cx1 = std::min<int64_t>((int64_t)d->cropX + d->cropWidth, d->width);
    int64_t cy1 = std::min<int64_t>((int64_t)d->cropY + d->cropHeight, d->height);
    if (cx1 <= cx0 || cy1 <= cy0 || request.width < 1 || request.height < 1)
        return 1;
    int32_t cw = (int32_t)(cx1 - cx0), ch = (int32_t)(cy1 - cy0);
    GdiDib dib;
    std::vector<uint8_t> copy;
    int32_t srcX = 0;
    if (d->codedRows) { /* the crop's rows expanded, top first */
        size_t stride = (size_t)DibStride((uint32_t)cw, 1);
        copy.resize(stride * (size_t)ch);
        for (int32_t r = 0; r < ch; r++) {
            uint32_t bytes;
            const uint16_t *record = RunStoreRow(d, (int32_t)cy0 + r, &bytes);
            if (record)
                RunExpandRowAt(record, bytes, (int32_t)cx0, cw, &copy[stride * (size_t)r], (uint32_t)stride);
            else
                memset(&copy[stride * (size_t)r], 0xFF, stride);
        }
        dib.Describe(cw, -ch, 1, s.palette, 2);
        dib.bits = copy.data();
    } else if (s.bits == 16 || (uint64_t)d->stride != DibStride((uint32_t)d->width, s.bits)) {
        /* Pixels GDI reads otherwise: the crop as 24 bits, top first. */
        size_t stride = (size_t)DibStride((uint32_t)cw, 24);
        copy.resize(stride * (size_t)ch);
        std::vector<uint8_t> scratch((size_t)cw * 4);
        s.pixelBytes = 3;
        for (int32_t r = 0; r < ch; r++) {
            const uint8_t *p = FetchSpan(s, cy0 + r, cx0, cw, scratch.data());
            uint8_t *out = &copy[stride * (size_t)r];
            for (int32_t i = 0; i < cw; i++)
                memcpy(out + 3 * i, s.bits <= 8 ? s.palette + 4 * p[i] : p + 3 * i, 3);
        }
        dib.Describe(cw, -ch, 24, nullptr, 0);
        dib.bits = copy.data();
    } else { /* the image's own rows: the crop's rows, bottom first as stored */
        dib.Describe(d->width, ch, s.bits, s.palette, s.entries);
        dib.bits = PlainRow(s, cy1 - 1);
        srcX = (int32_t)cx0;
    }
    bool done = device.StretchDIBits((int32_t)request.x, (int32_t)request.y, (int32_t)request.width,
                                     (int32_t)request.height, srcX, 0, cw, ch, dib, d->rasterOp);
    return done ? 1 : IMG_ERR_GDI;
}
