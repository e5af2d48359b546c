/* Part 5.1 rotation (IMG_rotate_bitmap): the edge cases of the Part, free
 * rotation checked pixel by pixel against a deliberately naive model of the
 * Part's formulas written here (one pixel at a time, doubles where the Part
 * says doubles), quarter turns against a naive transpose-and-flip model,
 * run-coded pages against the same pages held plain, progress, aborts and
 * allocation failures. */
#include "test_support.h"

#include <cmath>
#include <random>

namespace {

class Part5_1_Rotate : public TrnwTest {};

const double kPi = 3.14159265358979323846;

// ---- pictures as pixel values, top row first ----

uint32_t GetPixel(const uint8_t *row, int64_t x, int bits)
{
    switch (bits) {
    case 1: return (row[x >> 3] >> (7 - (x & 7))) & 1u;
    case 4: return (x & 1) ? row[x >> 1] & 0x0Fu : (uint32_t)(row[x >> 1] >> 4);
    case 8: return row[x];
    case 16: return row[2 * x] | (uint32_t)row[2 * x + 1] << 8;
    case 24: return row[3 * x] | (uint32_t)row[3 * x + 1] << 8 | (uint32_t)row[3 * x + 2] << 16;
    default:
        return row[4 * x] | (uint32_t)row[4 * x + 1] << 8 | (uint32_t)row[4 * x + 2] << 16 |
               (uint32_t)row[4 * x + 3] << 24;
    }
}

void SetPixel(uint8_t *row, int64_t x, int bits, uint32_t v)
{
    switch (bits) {
    case 1:
        if (v)
            row[x >> 3] |= (uint8_t)(0x80 >> (x & 7));
        else
            row[x >> 3] &= (uint8_t) ~(0x80 >> (x & 7));
        break;
    case 4:
        row[x >> 1] = (x & 1) ? (uint8_t)((row[x >> 1] & 0xF0) | (v & 0x0F))
                              : (uint8_t)((row[x >> 1] & 0x0F) | (v << 4));
        break;
    default:
        for (int i = 0; i < bits / 8; i++)
            row[(size_t)x * (size_t)(bits / 8) + (size_t)i] = (uint8_t)(v >> (8 * i));
        break;
    }
}

struct Picture {
    int32_t width = 0, height = 0, bits = 0;
    std::vector<uint32_t> pixels; // top row first
    std::vector<uint8_t> palette;
    uint32_t At(int32_t x, int32_t y) const { return pixels[(size_t)y * (size_t)width + (size_t)x]; }
    uint32_t &At(int32_t x, int32_t y) { return pixels[(size_t)y * (size_t)width + (size_t)x]; }
    bool operator==(const Picture &o) const
    {
        return width == o.width && height == o.height && bits == o.bits && pixels == o.pixels;
    }
};

uint32_t MaxValue(int bits) { return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1; }

Picture RandomPicture(int32_t w, int32_t h, int bits, uint32_t seed)
{
    std::mt19937 random(seed);
    Picture p;
    p.width = w;
    p.height = h;
    p.bits = bits;
    p.pixels.resize((size_t)w * (size_t)h);
    for (auto &v : p.pixels)
        v = (uint32_t)random() & MaxValue(bits);
    p.palette.resize(DibPaletteSize(bits));
    for (auto &b : p.palette)
        b = (uint8_t)random();
    if (bits == 1) {
        static const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
        std::copy(bw, bw + 8, p.palette.begin());
    }
    return p;
}

// A library-owned plain image of the picture.
int32_t MakeImage(const Picture &p)
{
    TestDib dib(p.width, p.height, p.bits);
    std::copy(p.palette.begin(), p.palette.end(), dib.Palette());
    for (int32_t y = 0; y < p.height; y++)
        for (int32_t x = 0; x < p.width; x++)
            SetPixel(dib.Row(y), x, p.bits, p.At(x, y));
    int32_t handle = IMG_create_handle_keep(dib.block);
    if (handle >= 0) {
        dib.Release();
        ImgTableGet(handle)->callerOwnsDib = 0;
    }
    return handle;
}

Picture ReadImage(int32_t handle)
{
    Picture p;
    int32_t w = 0, h = 0, bits = 0;
    if (IMG_bitmap_info(handle, &w, &h, &bits) < 0)
        return p;
    p.width = w;
    p.height = h;
    p.bits = bits;
    p.pixels.resize((size_t)w * (size_t)h);
    std::vector<uint8_t> row((size_t)DibStride((uint32_t)w, bits));
    for (int32_t y = 0; y < h; y++) {
        EXPECT_EQ(IMGLOW_get_raster(handle, row.data(), y, 0), 0);
        for (int32_t x = 0; x < w; x++)
            p.At(x, y) = GetPixel(row.data(), x, bits);
    }
    p.palette.resize(DibPaletteSize(bits));
    if (!p.palette.empty())
        IMGLOW_get_palette(handle, p.palette.data());
    return p;
}

BITMAPINFOHEADER Header(int32_t handle)
{
    BITMAPINFOHEADER h{};
    std::memcpy(&h, ImgTableGet(handle)->dib, sizeof h);
    return h;
}

std::array<int32_t, 4> Crop(int32_t handle)
{
    std::array<int32_t, 4> c{};
    IMG_get_croprect(handle, &c[0], &c[1], &c[2], &c[3]);
    return c;
}

// ---- the naive model of the free rotation ----

// Rows as stored: row 0 first, `stride` bytes each, slack behind.
struct Rows {
    int32_t width = 0, height = 0, bits = 0, stride = 0;
    std::vector<uint8_t> bytes;
    uint8_t *Row(int64_t r) { return bytes.data() + r * stride; }
    const uint8_t *Row(int64_t r) const { return bytes.data() + r * stride; }
};

// Storage rows of a picture: bottom-up as in a DIB, or top-down (a coded
// page's buffer).
Rows ToRows(const Picture &p, bool topDown)
{
    Rows r;
    r.width = p.width;
    r.height = p.height;
    r.bits = p.bits;
    r.stride = (int32_t)DibStride((uint32_t)p.width, p.bits);
    r.bytes.assign((size_t)r.stride * (size_t)p.height, 0);
    for (int32_t y = 0; y < p.height; y++)
        for (int32_t x = 0; x < p.width; x++)
            SetPixel(r.Row(topDown ? y : p.height - 1 - y), x, p.bits, p.At(x, y));
    return r;
}

Picture FromRows(const Rows &r, bool topDown)
{
    Picture p;
    p.width = r.width;
    p.height = r.height;
    p.bits = r.bits;
    p.pixels.resize((size_t)r.width * (size_t)r.height);
    for (int32_t y = 0; y < r.height; y++)
        for (int32_t x = 0; x < r.width; x++)
            p.At(x, y) = GetPixel(r.Row(topDown ? y : r.height - 1 - y), x, r.bits);
    return p;
}

long long R(double v) { return v >= 0 ? (long long)std::trunc(v + 0.5) : (long long)std::trunc(v - 0.5); }

// Step 1, as written.
void NaiveCanvas(int angle, int width, int height, long long &dw, long long &dh)
{
    double a = angle * 0.01;
    if (a < 270) {
        if (a >= 180)
            a = a - 180;
        else if (a < 90)
            a = a;
        else
            a = 180 - a;
    } else {
        a = 360 - a;
    }
    while (a > 90)
        a = a - 90;
    double theta = a * kPi * (1.0 / 180);
    int hw = width / 2, hh = height / 2;
    dw = 2 * (R((std::cos(theta) + 1) * hw + std::sin(theta) * hh) - width);
    dh = 2 * (R((std::cos(theta) + 1) * hh + std::sin(theta) * hw) - height);
}

long long FloorShift16(long long v) { return (long long)std::floor((double)v / 65536.0); }

// Steps 1 to 4: the canvas from `canvasAngle`, the mapping from `mapAngle`.
Rows NaiveFreeRotate(const Rows &src, int canvasAngle, long long mapAngle)
{
    long long dw, dh;
    NaiveCanvas(canvasAngle, src.width, src.height, dw, dh);
    Rows out;
    out.width = (int32_t)(src.width + dw);
    out.height = (int32_t)(src.height + dh);
    out.bits = src.bits;
    out.stride = (int32_t)DibStride((uint32_t)out.width, src.bits);
    out.bytes.assign((size_t)out.stride * (size_t)out.height + 8192, src.bits == 1 ? 0xFF : 0x00);

    double theta = mapAngle * 0.01 * kPi / 180;
    long long wNew = out.width;
    long long stepX = (long long)std::trunc(wNew * std::cos(theta)) * 65536 / wNew;
    long long stepY = (long long)std::trunc(wNew * std::sin(theta)) * 65536 / wNew;
    long long cx = src.width / 2, cy = src.height / 2, hx = dw / 2, hy = dh / 2;
    double A = cx - (hx + cx) * std::cos(theta);
    double B = cy - (hx + cx) * std::sin(theta);
    for (long long y = -hy; y < src.height + hy; y++) {
        size_t p = (size_t)(y + hy) * (size_t)out.stride; // the running byte
        uint8_t mask = 0x80;
        long long sx = (long long)std::trunc((cy - y) * std::sin(theta) + A) * 65536;
        long long sy = (long long)std::trunc((y - cy) * std::cos(theta) + B) * 65536;
        for (long long x = -hx; x < src.width + hx; x++) {
            long long c = FloorShift16(sx), s = FloorShift16(sy);
            sx += stepX;
            sy += stepY;
            bool inside = s >= 0 && s < src.height && c >= 0 && c < src.width;
            uint32_t v = inside ? GetPixel(src.Row(s), c, src.bits) : 0;
            if (src.bits == 1) {
                if (inside && v == 0)
                    out.bytes[p] &= (uint8_t)~mask;
                mask = (uint8_t)(mask >> 1);
                if (mask == 0) {
                    mask = 0x80;
                    p++;
                }
            } else if (src.bits == 4) {
                bool odd = (x % 2) != 0;
                if (!odd) {
                    if (inside)
                        out.bytes[p] = (uint8_t)((out.bytes[p] & 0x0F) | (v << 4));
                } else {
                    if (inside)
                        out.bytes[p] = (uint8_t)((out.bytes[p] & 0xF0) | v);
                    p++;
                }
            } else if (inside) {
                SetPixel(out.Row(y + hy), x + hx, src.bits, v);
            }
        }
    }
    return out;
}

// ---- the naive model of the quarter turns ----

Picture NaiveTurn(const Picture &p, int angle)
{
    Picture q;
    q.width = p.height;
    q.height = p.width;
    q.bits = p.bits;
    q.palette = p.palette;
    q.pixels.resize(p.pixels.size());
    for (int32_t i = 0; i < q.height; i++)
        for (int32_t j = 0; j < q.width; j++)
            q.At(j, i) = angle == 9000 ? p.At(i, p.height - 1 - j)   // clockwise
                                       : p.At(p.width - 1 - i, j);   // counter-clockwise
    return q;
}

// The Part's own recipe, step by step on storage rows: new storage row k,
// pixel r = old storage row r, pixel k; then flip top-bottom (9000: storage
// row m becomes row height - 1 - m) or left-right (27000: pixel x becomes
// pixel width - 1 - x).
Picture NaiveTransposeAndFlip(const Picture &p, int angle)
{
    Rows old = ToRows(p, false);
    Rows t;
    t.width = p.height;
    t.height = p.width;
    t.bits = p.bits;
    t.stride = (int32_t)DibStride((uint32_t)t.width, t.bits);
    t.bytes.assign((size_t)t.stride * (size_t)t.height, 0);
    for (int32_t k = 0; k < t.height; k++)
        for (int32_t r = 0; r < t.width; r++)
            SetPixel(t.Row(k), r, t.bits, GetPixel(old.Row(r), k, old.bits));
    Rows f = t;
    for (int32_t m = 0; m < t.height; m++)
        for (int32_t x = 0; x < t.width; x++)
            SetPixel(f.Row(angle == 9000 ? t.height - 1 - m : m), angle == 9000 ? x : t.width - 1 - x,
                     t.bits, GetPixel(t.Row(m), x, t.bits));
    Picture q = FromRows(f, false);
    q.palette = p.palette;
    return q;
}

Picture NaiveCrop(const Picture &p, std::array<int32_t, 4> c)
{
    Picture q;
    q.width = c[2];
    q.height = c[3];
    q.bits = p.bits;
    for (int32_t y = 0; y < c[3]; y++)
        for (int32_t x = 0; x < c[2]; x++)
            q.pixels.push_back(p.At(c[0] + x, c[1] + y));
    return q;
}

// ---- bilevel pages ----

// A fax-like page: lines of text (glyph strokes 1 to 6 pixels, gaps 1 to
// 12), rules and a black box; black is 0.
Picture FaxPage(int32_t w, int32_t h, uint32_t seed)
{
    std::mt19937 random(seed);
    Picture p;
    p.width = w;
    p.height = h;
    p.bits = 1;
    p.pixels.assign((size_t)w * (size_t)h, 1);
    static const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
    p.palette.assign(bw, bw + 8);
    int32_t margin = w / 12;
    for (int32_t top = h / 10; top + 14 < h - h / 12; top += 22) {
        int32_t x = margin;
        while (x < w - margin) {
            int ink = 1 + (int)(random() % 6), gap = 1 + (int)(random() % 12);
            int32_t y0 = top + (int32_t)(random() % 4), y1 = top + 10 + (int32_t)(random() % 4);
            for (int32_t y = y0; y < y1; y++)
                for (int32_t i = 0; i < ink && x + i < w - margin; i++)
                    p.At(x + i, y) = 0;
            x += ink + gap + (random() % 9 == 0 ? 18 : 0);
        }
    }
    for (int32_t x = margin; x < w - margin; x++)
        for (int32_t y = h / 20; y < h / 20 + 2 && y < h; y++)
            p.At(x, y) = 0;
    for (int32_t y = h - h / 14; y < h - h / 20; y++)
        for (int32_t x = w / 2; x < w / 2 + w / 8; x++)
            p.At(x, y) = 0;
    if (w * h < 64) // too small for text: a random pattern
        for (auto &v : p.pixels)
            v = random() & 1;
    return p;
}

int32_t MakeCodedImage(const Picture &p)
{
    int32_t handle = MakeImage(p);
    if (handle >= 0) {
        EXPECT_EQ(IMG_dib_to_runs(handle), 0);
    }
    return handle;
}

// The coded rows as the store holds them (records), top row first.
std::vector<std::vector<uint16_t>> Records(int32_t handle)
{
    const ImgDescriptor *d = ImgTableGet(handle);
    std::vector<std::vector<uint16_t>> rows;
    for (int32_t r = 0; r < d->height; r++) {
        uint32_t bytes = 0;
        const uint16_t *record = RunStoreRow(d, r, &bytes);
        std::vector<uint16_t> words;
        if (record) {
            words.resize(bytes / 2);
            std::copy(record, record + bytes / 2, words.begin());
        }
        rows.push_back(words);
    }
    return rows;
}

// ---- progress ----

struct Progress {
    int calls = 0, abortAt = -1;
    std::vector<int32_t> totals;
};
Progress *progress = nullptr;

int32_t IMGAPI CountProgress(int32_t value, int32_t total)
{
    (void)value;
    progress->calls++;
    progress->totals.push_back(total);
    return progress->calls == progress->abortAt ? -5 : 0;
}

struct ProgressScope {
    Progress state;
    explicit ProgressScope(int abortAt = -1)
    {
        state.abortAt = abortAt;
        progress = &state;
        IMG_set_statusbar(7, CountProgress, 1);
    }
    ~ProgressScope()
    {
        IMG_set_statusbar(0, nullptr, 0);
        progress = nullptr;
    }
};

// Everything a failed call must leave as it was.
struct Snapshot {
    Picture picture;
    std::array<int32_t, 4> crop{};
    int32_t width = 0, height = 0, stride = 0, coded = 0;
    explicit Snapshot(int32_t handle)
        : picture(ReadImage(handle)), crop(Crop(handle)), width(ImgTableGet(handle)->width),
          height(ImgTableGet(handle)->height), stride(ImgTableGet(handle)->stride),
          coded(ImgTableGet(handle)->codedRows)
    {
    }
    void ExpectSame(int32_t handle) const
    {
        const ImgDescriptor *d = ImgTableGet(handle);
        EXPECT_EQ(d->width, width);
        EXPECT_EQ(d->height, height);
        EXPECT_EQ(d->stride, stride);
        EXPECT_EQ(d->codedRows, coded);
        EXPECT_EQ(Crop(handle), crop);
        EXPECT_TRUE(ReadImage(handle) == picture);
    }
};

const int kFreeAngles[] = {1250, 3000, 4500, 13500, 20000, 31000, -3000, 40000};

// ---- the edge cases of the Part ----

TEST_F(Part5_1_Rotate, AngleZeroReturnsZeroBeforeTheHandleCheck)
{
    EXPECT_EQ(IMG_rotate_bitmap(-1, 0), 0);
    EXPECT_EQ(IMG_rotate_bitmap(12345, 0), 0);
    EXPECT_EQ(IMG_rotate_bitmap(-1, 9000), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_rotate_bitmap(0, 18000), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_rotate_bitmap(0, 4500), IMG_ERR_HANDLE);
    int32_t h = NewImage(10, 10, 8);
    EXPECT_EQ(IMG_rotate_bitmap(h + 1, 27000), IMG_ERR_HANDLE);
    Snapshot before(h);
    EXPECT_EQ(IMG_rotate_bitmap(h, 0), 0);
    before.ExpectSame(h);
}

TEST_F(Part5_1_Rotate, Canvas100By100At4500Is142)
{
    // dw = 2 * (R(1.7071 * 50 + 0.7071 * 50) - 100) = 2 * (R(120.71) - 100) = 42.
    int32_t h = NewImage(100, 100, 8);
    ASSERT_EQ(IMG_rotate_bitmap(h, 4500), 0);
    int32_t w = 0, hh = 0, bits = 0;
    IMG_bitmap_info(h, &w, &hh, &bits);
    EXPECT_EQ(w, 142);
    EXPECT_EQ(hh, 142);
    EXPECT_EQ(bits, 8);
}

TEST_F(Part5_1_Rotate, Canvas142By142At4500Is200)
{
    // hw = hh = 71; cos 45 = sin 45 = 0.70710678:
    // 1.70710678 * 71 + 0.70710678 * 71 = 121.2046 + 50.2046 = 171.409; R = 171;
    // dw = dh = 2 * (171 - 142) = 58, so the canvas is 200 x 200.
    long long dw, dh;
    NaiveCanvas(4500, 142, 142, dw, dh);
    EXPECT_EQ(dw, 58);
    EXPECT_EQ(dh, 58);
    int32_t h = NewImage(142, 142, 1);
    ASSERT_EQ(IMG_rotate_bitmap(h, 4500), 0);
    EXPECT_EQ(ImgTableGet(h)->width, 200);
    EXPECT_EQ(ImgTableGet(h)->height, 200);
    EXPECT_EQ(ImgTableGet(h)->stride, 28);
    // Two turns of 4500 from 100 x 100: 142, then 200.
    int32_t g = NewImage(100, 100, 4);
    ASSERT_EQ(IMG_rotate_bitmap(g, 4500), 0);
    ASSERT_EQ(IMG_rotate_bitmap(g, 4500), 0);
    EXPECT_EQ(ImgTableGet(g)->width, 200);
}

TEST_F(Part5_1_Rotate, NegativeAngleIsNotFoldedAndShrinksTheCanvas)
{
    // a = -30: 1.8660 * 50 - 0.5 * 50 = 68.30, R = 68, dw = 2 * (68 - 100) = -64.
    int32_t h = NewImage(100, 100, 8);
    ASSERT_EQ(IMG_rotate_bitmap(h, -3000), 0);
    EXPECT_EQ(ImgTableGet(h)->width, 36);
    EXPECT_EQ(ImgTableGet(h)->height, 36);
    // 100 x 60: dw = 2 * (R(1.8660 * 50 - 0.5 * 30) - 100) = 2 * (78 - 100) = -44 -> 56;
    //           dh = 2 * (R(1.8660 * 30 - 0.5 * 50) - 60) = 2 * (31 - 60) = -58 -> 2.
    int32_t g = NewImage(100, 60, 24);
    ASSERT_EQ(IMG_rotate_bitmap(g, -3000), 0);
    EXPECT_EQ(ImgTableGet(g)->width, 56);
    EXPECT_EQ(ImgTableGet(g)->height, 2);
}

TEST_F(Part5_1_Rotate, AngleAbove36000FoldsToMinusItsExcess)
{
    // a = 400 becomes 360 - 400 = -40: the canvas of -4000.  100 x 100:
    // 1.7660 * 50 - 0.6428 * 50 = 56.16, R = 56, dw = 2 * (56 - 100) = -88: 12 x 12.
    int32_t a = NewImage(100, 100, 8), b = NewImage(100, 100, 8);
    ASSERT_EQ(IMG_rotate_bitmap(a, 40000), 0);
    ASSERT_EQ(IMG_rotate_bitmap(b, -4000), 0);
    EXPECT_EQ(ImgTableGet(a)->width, 12);
    EXPECT_EQ(ImgTableGet(a)->height, 12);
    EXPECT_EQ(ImgTableGet(b)->width, 12);
    EXPECT_EQ(ImgTableGet(b)->height, 12);
}

TEST_F(Part5_1_Rotate, FullTurnIsAFreeRotationOnAnUnchangedOrSmallerCanvas)
{
    for (auto size : {std::pair<int, int>{40, 30}, {41, 31}}) {
        Picture p = RandomPicture(size.first, size.second, 8, 5);
        int32_t h = MakeImage(p);
        ASSERT_EQ(IMG_rotate_bitmap(h, 36000), 0);
        int32_t odd = size.first & 1;
        EXPECT_EQ(ImgTableGet(h)->width, size.first - 2 * odd); // dw 0 even, -2 odd
        EXPECT_EQ(ImgTableGet(h)->height, size.second - 2 * odd);
        Rows expected = NaiveFreeRotate(ToRows(p, false), 36000, 36000);
        EXPECT_TRUE(ReadImage(h) == FromRows(expected, false)) << size.first;
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part5_1_Rotate, UncoveredCornersAreSetAt1BitAndIndex0At8Bits)
{
    Picture black = RandomPicture(60, 40, 1, 1);
    std::fill(black.pixels.begin(), black.pixels.end(), 0u);
    Picture grey = RandomPicture(60, 40, 8, 1);
    std::fill(grey.pixels.begin(), grey.pixels.end(), 7u);
    for (int angle : {1250, 3000, 13500, 31000}) {
        int32_t a = MakeImage(black), b = MakeImage(grey), c = MakeCodedImage(black);
        ASSERT_EQ(IMG_rotate_bitmap(a, angle), 0);
        ASSERT_EQ(IMG_rotate_bitmap(b, angle), 0);
        ASSERT_EQ(IMG_rotate_bitmap(c, angle), 0);
        Picture pa = ReadImage(a), pb = ReadImage(b), pc = ReadImage(c);
        for (auto corner : {std::pair<int, int>{0, 0}, {pa.width - 1, 0}, {0, pa.height - 1},
                            {pa.width - 1, pa.height - 1}}) {
            EXPECT_EQ(pa.At(corner.first, corner.second), 1u) << angle;
            EXPECT_EQ(pb.At(corner.first, corner.second), 0u) << angle;
            EXPECT_EQ(pc.At(corner.first, corner.second), 1u) << angle;
        }
        // The middle is the picture's.
        EXPECT_EQ(pa.At(pa.width / 2, pa.height / 2), 0u);
        EXPECT_EQ(pb.At(pb.width / 2, pb.height / 2), 7u);
        EXPECT_EQ(pc.At(pc.width / 2, pc.height / 2), 0u);
        IMG_delete_bitmap(c);
        IMG_delete_bitmap(b);
        IMG_delete_bitmap(a);
    }
}

// ---- free rotation against the naive model ----

TEST_F(Part5_1_Rotate, FreeRotationEqualsTheNaiveModel)
{
    int cases = 0, oddHx4 = 0;
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (auto size : {std::pair<int, int>{37, 23}, {40, 30}, {16, 9}, {1, 1}, {2, 7}}) {
            for (int angle : kFreeAngles) {
                if ((bits == 16 || bits == 32) && angle != 3000 && angle != 31000)
                    continue;
                Picture p = RandomPicture(size.first, size.second, bits, (uint32_t)(angle + bits));
                long long dw, dh;
                NaiveCanvas(angle, p.width, p.height, dw, dh);
                int32_t h = MakeImage(p);
                int result = IMG_rotate_bitmap(h, angle);
                if (p.width + dw < 1 || p.height + dh < 1) {
                    EXPECT_EQ(result, IMG_ERR_TYPE); // an empty canvas (docs/DEVIATIONS.md)
                    IMG_delete_bitmap(h);
                    continue;
                }
                ASSERT_EQ(result, 0) << bits << " " << angle;
                Rows expected = NaiveFreeRotate(ToRows(p, false), angle, angle);
                Picture got = ReadImage(h);
                EXPECT_TRUE(got == FromRows(expected, false))
                    << bits << " bits " << p.width << "x" << p.height << " at " << angle;
                EXPECT_EQ(got.palette, p.palette);
                // Step 5: header, biSizeImage with width and height exchanged, crop, display.
                BITMAPINFOHEADER hd = Header(h);
                EXPECT_EQ(hd.biWidth, expected.width);
                EXPECT_EQ(hd.biHeight, expected.height);
                EXPECT_EQ(hd.biSizeImage,
                          (uint32_t)(DibStride((uint32_t)expected.height, bits) * (uint32_t)expected.width));
                const ImgDescriptor *d = ImgTableGet(h);
                EXPECT_EQ(d->stride, expected.stride);
                EXPECT_EQ(Crop(h), (std::array<int32_t, 4>{0, 0, expected.width, expected.height}));
                EXPECT_EQ(d->displayWidth, expected.width);
                EXPECT_EQ(d->displayHeight, expected.height);
                if (bits == 4 && ((dw / 2) & 1))
                    oddHx4++;
                cases++;
                IMG_delete_bitmap(h);
            }
        }
    }
    EXPECT_GT(cases, 100);
    EXPECT_GT(oddHx4, 0) << "no 4-bit case with an odd hx (the one-pixel shift)";
}

TEST_F(Part5_1_Rotate, FourBitOddHxShiftsByOnePixelAndCarriesIntoTheNextRow)
{
    // 30 x 30 at -1000: dw = -6, hx = -3 (odd), new width 24 (12 bytes, no
    // padding).  x runs from 3 to 26: the first pixel goes to the low nibble
    // of byte 0, and the last (x = 26, even) to the high nibble of byte 12,
    // which is byte 0 of the next storage row (the row above).
    long long dw, dh;
    NaiveCanvas(-1000, 30, 30, dw, dh);
    ASSERT_EQ(dw, -6);
    Picture p = RandomPicture(30, 30, 4, 99);
    for (auto &v : p.pixels)
        v |= 1; // no pixel is 0, so the pre-fill shows
    int32_t h = MakeImage(p);
    ASSERT_EQ(IMG_rotate_bitmap(h, -1000), 0);
    ASSERT_EQ(ImgTableGet(h)->width, 24);
    Rows expected = NaiveFreeRotate(ToRows(p, false), -1000, -1000);
    Picture got = ReadImage(h);
    EXPECT_TRUE(got == FromRows(expected, false));
    // The bottom row's pixel 0 keeps the pre-fill 0; in the rows above it
    // pixel 0 is the last column mapped for the row below (where that lies
    // inside the picture, not 0).
    EXPECT_EQ(got.At(0, got.height - 1), 0u);
    int carried = 0;
    for (int32_t t = 0; t + 1 < got.height; t++)
        carried += got.At(0, t) != 0;
    EXPECT_GT(carried, got.height / 2);
}

TEST_F(Part5_1_Rotate, LargerPicturesEqualTheNaiveModel)
{
    for (int bits : {1, 4, 8, 24}) {
        for (int angle : {1250, 4500, 20000, -3000}) {
            Picture p = RandomPicture(203, 151, bits, (uint32_t)angle * 3u + (uint32_t)bits);
            int32_t h = MakeImage(p);
            ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
            EXPECT_TRUE(ReadImage(h) == FromRows(NaiveFreeRotate(ToRows(p, false), angle, angle), false))
                << bits << " at " << angle;
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_Rotate, EveryAngleWritesOnlyInsideTheNewBlock)
{
    // Angles over five turns both ways, unfolded negative ones and those above
    // 36000 included: the canvas may be smaller than the picture, or empty
    // (-7); whatever it is, the mapping equals the model and (under ASan)
    // writes only inside the block.
    int turned = 0;
    for (int bits : {1, 4, 8, 24}) {
        Picture p = RandomPicture(13, 9, bits, (uint32_t)bits);
        for (int angle = -180000; angle <= 180000; angle += 1237) {
            if (angle == 0 || angle == 9000 || angle == 18000 || angle == 27000)
                continue;
            int32_t h = MakeImage(p);
            int result = IMG_rotate_bitmap(h, angle);
            long long dw, dh;
            NaiveCanvas(angle, p.width, p.height, dw, dh);
            if (p.width + dw < 1 || p.height + dh < 1) {
                EXPECT_EQ(result, IMG_ERR_TYPE) << angle;
            } else {
                ASSERT_EQ(result, 0) << angle;
                EXPECT_TRUE(ReadImage(h) == FromRows(NaiveFreeRotate(ToRows(p, false), angle, angle), false))
                    << bits << " at " << angle;
                turned++;
            }
            IMG_delete_bitmap(h);
        }
    }
    EXPECT_GT(turned, 400);
}

TEST_F(Part5_1_Rotate, EmptyCanvasGivesMinus7AndLeavesTheImage)
{
    // -9000 is a free rotation: a = -90, (0 + 1) * 50 - 1 * 50 = 0, dw = -200.
    int32_t h = MakeImage(RandomPicture(100, 100, 8, 3));
    Snapshot before(h);
    EXPECT_EQ(IMG_rotate_bitmap(h, -9000), IMG_ERR_TYPE);
    before.ExpectSame(h);
    int32_t c = MakeCodedImage(FaxPage(100, 100, 3));
    Snapshot coded(c);
    EXPECT_EQ(IMG_rotate_bitmap(c, -9000), IMG_ERR_TYPE);
    coded.ExpectSame(c);
}

TEST_F(Part5_1_Rotate, CodedRowsTooWideToCodeGiveMinus7)
{
    // 2 x 70000 at 9001: a = 89.99, dw = 2 * (R(1.00017 * 1 + 1.0 * 35000) - 2) = 69998.
    Picture tall = RandomPicture(2, 70000, 1, 4);
    int32_t h = MakeCodedImage(tall);
    Snapshot before(h);
    EXPECT_EQ(IMG_rotate_bitmap(h, 9001), IMG_ERR_TYPE); // new width 70000
    before.ExpectSame(h);
    int32_t t = MakeCodedImage(tall);
    EXPECT_EQ(IMG_rotate_bitmap(t, 9000), IMG_ERR_TYPE); // new width 70000
    // Held plain, the same turn is fine.
    int32_t plain = MakeImage(tall);
    EXPECT_EQ(IMG_rotate_bitmap(plain, 9000), 0);
    EXPECT_EQ(ImgTableGet(plain)->width, 70000);
}

// ---- quarter turns ----

TEST_F(Part5_1_Rotate, QuarterTurnsOfEveryDepthEqualTheNaiveModel)
{
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (auto size : {std::pair<int, int>{37, 23}, {40, 16}, {1, 1}, {9, 1}, {1, 9}, {33, 70}}) {
            for (int angle : {9000, 27000}) {
                Picture p = RandomPicture(size.first, size.second, bits, (uint32_t)(bits * 7 + angle));
                int32_t h = MakeImage(p);
                ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
                Picture got = ReadImage(h);
                EXPECT_TRUE(got == NaiveTransposeAndFlip(p, angle))
                    << bits << " bits " << p.width << "x" << p.height << " at " << angle;
                // ... which is the clockwise (9000) or counter-clockwise turn.
                EXPECT_TRUE(got == NaiveTurn(p, angle));
                EXPECT_EQ(got.palette, p.palette);
                BITMAPINFOHEADER hd = Header(h);
                uint32_t stride = (uint32_t)DibStride((uint32_t)p.height, bits);
                EXPECT_EQ(hd.biWidth, p.height);
                EXPECT_EQ(hd.biHeight, p.width);
                EXPECT_EQ(hd.biSizeImage, stride * (uint32_t)p.width);
                EXPECT_EQ(ImgTableGet(h)->stride, (int32_t)stride);
                EXPECT_EQ(ImgTableGet(h)->displayWidth, p.height);
                EXPECT_EQ(ImgTableGet(h)->displayHeight, p.width);
                // Back again.
                ASSERT_EQ(IMG_rotate_bitmap(h, angle == 9000 ? 27000 : 9000), 0);
                EXPECT_TRUE(ReadImage(h) == p) << bits << " bits back from " << angle;
                EXPECT_EQ(Crop(h), (std::array<int32_t, 4>{0, 0, p.width, p.height}));
                IMG_delete_bitmap(h);
            }
        }
    }
}

TEST_F(Part5_1_Rotate, QuarterTurnCropRectangles)
{
    // 37 x 23, crop (3, 5, 10, 7).  Clockwise: (H - y - h, x, h, w) = (11, 3, 7, 10);
    // counter-clockwise: (y, W - x - w, h, w) = (5, 24, 7, 10).
    for (bool coded : {false, true}) {
        Picture p = coded ? FaxPage(37, 23, 8) : RandomPicture(37, 23, 8, 8);
        for (int angle : {9000, 27000}) {
            int32_t h = coded ? MakeCodedImage(p) : MakeImage(p);
            IMG_set_croprect(h, 3, 5, 10, 7);
            ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
            auto crop = Crop(h);
            EXPECT_EQ(crop, angle == 9000 ? (std::array<int32_t, 4>{11, 3, 7, 10})
                                          : (std::array<int32_t, 4>{5, 24, 7, 10}))
                << coded;
            // The crop rectangle holds the same content, turned.
            EXPECT_TRUE(NaiveCrop(ReadImage(h), crop) ==
                        NaiveTurn(NaiveCrop(p, {3, 5, 10, 7}), angle));
            // And the other way back restores it.
            ASSERT_EQ(IMG_rotate_bitmap(h, angle == 9000 ? 27000 : 9000), 0);
            EXPECT_EQ(Crop(h), (std::array<int32_t, 4>{3, 5, 10, 7}));
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part5_1_Rotate, CodedFaxPageTurnedBy9000Then27000IsBackToItsExactRuns)
{
    Picture page = FaxPage(864, 1100, 11);
    int32_t h = MakeCodedImage(page);
    auto records = Records(h);
    Picture before = ReadImage(h);
    ASSERT_EQ(IMG_rotate_bitmap(h, 9000), 0);
    EXPECT_EQ(ImgTableGet(h)->codedRows, 1);
    EXPECT_EQ(Header(h).biCompression, DIB_RUN_CODED);
    EXPECT_TRUE(ReadImage(h) == NaiveTurn(page, 9000));
    ASSERT_EQ(IMG_rotate_bitmap(h, 27000), 0);
    EXPECT_TRUE(ReadImage(h) == before);
    EXPECT_EQ(Records(h), records);
    // And the other way round.
    ASSERT_EQ(IMG_rotate_bitmap(h, 27000), 0);
    EXPECT_TRUE(ReadImage(h) == NaiveTurn(page, 27000));
    ASSERT_EQ(IMG_rotate_bitmap(h, 9000), 0);
    EXPECT_EQ(Records(h), records);
}

TEST_F(Part5_1_Rotate, CodedQuarterTurnsEqualThePlainOnes)
{
    for (auto size : {std::pair<int, int>{300, 211}, {64, 64}, {1, 17}, {17, 1}, {129, 8}}) {
        Picture page = FaxPage(size.first, size.second, 12);
        for (int angle : {9000, 27000}) {
            int32_t coded = MakeCodedImage(page), plain = MakeImage(page);
            ASSERT_EQ(IMG_rotate_bitmap(coded, angle), 0);
            ASSERT_EQ(IMG_rotate_bitmap(plain, angle), 0);
            EXPECT_TRUE(ReadImage(coded) == ReadImage(plain)) << size.first << " at " << angle;
            EXPECT_EQ(Crop(coded), Crop(plain));
            BITMAPINFOHEADER a = Header(coded), b = Header(plain);
            EXPECT_EQ(a.biWidth, b.biWidth);
            EXPECT_EQ(a.biHeight, b.biHeight);
            EXPECT_EQ(a.biSizeImage, b.biSizeImage);
            EXPECT_EQ(ImgTableGet(coded)->stride, ImgTableGet(plain)->stride);
            IMG_delete_bitmap(plain);
            IMG_delete_bitmap(coded);
        }
    }
}

// ---- coded free rotation ----

TEST_F(Part5_1_Rotate, CodedFreeRotationIsTheTopDownBufferTurnedByTheNegatedAngle)
{
    Picture page = FaxPage(301, 257, 13);
    for (int angle : kFreeAngles) {
        int32_t coded = MakeCodedImage(page), plain = MakeImage(page);
        ASSERT_EQ(IMG_rotate_bitmap(coded, angle), 0);
        ASSERT_EQ(IMG_rotate_bitmap(plain, angle), 0);
        Rows expected = NaiveFreeRotate(ToRows(page, true), angle, -(long long)angle);
        Picture got = ReadImage(coded), other = ReadImage(plain);
        EXPECT_TRUE(got == FromRows(expected, true)) << angle;
        EXPECT_EQ(ImgTableGet(coded)->codedRows, 1);
        // The same canvas, header and crop as the plain rotation, and the same
        // picture turned the same way, but for the rounding of the mirrored
        // mapping: trunc and the arithmetic shift round towards opposite
        // sides, so a source row may lie up to two rows away.
        BITMAPINFOHEADER a = Header(coded), b = Header(plain);
        EXPECT_EQ(a.biSizeImage, b.biSizeImage);
        EXPECT_EQ(a.biCompression, DIB_RUN_CODED);
        EXPECT_EQ(Crop(coded), Crop(plain));
        IMG_delete_bitmap(plain);
        IMG_delete_bitmap(coded);
        ASSERT_EQ(got.width, other.width);
        ASSERT_EQ(got.height, other.height);
        // Black pixels: about as many, and their centre within two pixels.
        double n[2] = {0, 0}, sx[2] = {0, 0}, sy[2] = {0, 0};
        const Picture *pictures[2] = {&got, &other};
        for (int k = 0; k < 2; k++)
            for (int32_t y = 0; y < got.height; y++)
                for (int32_t x = 0; x < got.width; x++)
                    if (pictures[k]->At(x, y) == 0) {
                        n[k]++;
                        sx[k] += x;
                        sy[k] += y;
                    }
        if (n[1] < 200) // 40000: a canvas of a few pixels
            continue;
        EXPECT_NEAR(n[0] / n[1], 1.0, 0.1) << angle;
        EXPECT_NEAR(sx[0] / n[0], sx[1] / n[1], 2.0) << angle;
        EXPECT_NEAR(sy[0] / n[0], sy[1] / n[1], 2.0) << angle;
    }
}

// ---- half turn ----

TEST_F(Part5_1_Rotate, HalfTurnEqualsFlipXThenFlipYWithOnePassOfProgress)
{
    for (bool coded : {false, true}) {
        for (int bits : {1, 4, 8, 24}) {
            if (coded && bits != 1)
                continue;
            Picture p = coded ? FaxPage(130, 90, 3) : RandomPicture(37, 23, bits, 3);
            int32_t a = coded ? MakeCodedImage(p) : MakeImage(p);
            int32_t b = coded ? MakeCodedImage(p) : MakeImage(p);
            IMG_set_croprect(a, 2, 3, 10, 7);
            IMG_set_croprect(b, 2, 3, 10, 7);
            {
                ProgressScope scope;
                ASSERT_EQ(IMG_rotate_bitmap(a, 18000), 0);
                EXPECT_EQ(scope.state.calls, p.height);
            }
            ASSERT_EQ(IMG_flip_bitmapx(b), 0);
            ASSERT_EQ(IMG_flip_bitmapy(b), 0);
            Picture got = ReadImage(a);
            EXPECT_TRUE(got == ReadImage(b));
            for (int32_t y = 0; y < p.height; y++)
                for (int32_t x = 0; x < p.width; x++)
                    ASSERT_EQ(got.At(x, y), p.At(p.width - 1 - x, p.height - 1 - y));
            EXPECT_EQ(Crop(a), Crop(b));
            EXPECT_EQ(Crop(a), (std::array<int32_t, 4>{p.width - 12, p.height - 10, 10, 7}));
            IMG_delete_bitmap(b);
            IMG_delete_bitmap(a);
        }
    }
}

// ---- progress, aborts, allocation failures ----

TEST_F(Part5_1_Rotate, ProgressOncePerProducedRow)
{
    Picture p = RandomPicture(37, 23, 8, 21);
    Picture page = FaxPage(120, 90, 21);
    struct Case {
        bool coded;
        int angle;
        int calls;
        int total;
    };
    long long dw, dh;
    NaiveCanvas(3000, 37, 23, dw, dh);
    long long cdw, cdh;
    NaiveCanvas(3000, 120, 90, cdw, cdh);
    const Case cases[] = {
        {false, 3000, (int)(23 + dh), (int)(23 + dh)}, // one call per destination row
        {false, 9000, 2 * 37, 37},   // the transposition's rows, then the flip's
        {false, 27000, 2 * 37, 37},
        {true, 9000, 120, 120},      // re-coding: total = old width; no flip
        {true, 27000, 120, 120},
        {true, 3000, (int)(90 + cdh), (int)(90 + cdh)},
    };
    for (const Case &c : cases) {
        int32_t h = c.coded ? MakeCodedImage(page) : MakeImage(p);
        ProgressScope scope;
        ASSERT_EQ(IMG_rotate_bitmap(h, c.angle), 0);
        EXPECT_EQ(scope.state.calls, c.calls) << c.coded << " " << c.angle;
        for (int32_t t : scope.state.totals)
            ASSERT_EQ(t, c.total) << c.coded << " " << c.angle;
        IMG_delete_bitmap(h);
    }
    // Switched off: no calls, and 18000 restores the flag it cleared.
    int32_t h = MakeImage(p);
    {
        ProgressScope scope;
        IMG_set_statusbar(7, CountProgress, 0);
        ASSERT_EQ(IMG_rotate_bitmap(h, 3000), 0);
        EXPECT_EQ(scope.state.calls, 0);
        IMG_set_statusbar(7, CountProgress, 1);
        ASSERT_EQ(IMG_rotate_bitmap(h, 18000), 0);
        int before = scope.state.calls;
        ASSERT_EQ(IMG_rotate_bitmap(h, 1250), 0);
        EXPECT_GT(scope.state.calls, before) << "progress left switched off after 18000";
    }
}

TEST_F(Part5_1_Rotate, AbortLeavesTheImageUnchanged)
{
    Picture p = RandomPicture(37, 23, 4, 31);
    Picture page = FaxPage(120, 90, 31);
    for (bool coded : {false, true}) {
        for (int angle : {3000, 9000, 27000, 18000, -3000}) {
            // Abort at the first call, in the middle, and (quarter turns of
            // plain images) during the flip that follows the transposition.
            for (int at : {1, 10, 45, 70}) {
                int32_t h = coded ? MakeCodedImage(page) : MakeImage(p);
                IMG_set_croprect(h, 1, 2, 20, 9);
                Snapshot before(h);
                uint8_t *dib = ImgTableGet(h)->dib;
                int result;
                {
                    ProgressScope scope(at);
                    result = IMG_rotate_bitmap(h, angle);
                    if (scope.state.calls < at) {
                        EXPECT_EQ(result, 0); // finished before the abort
                        IMG_delete_bitmap(h);
                        continue;
                    }
                }
                EXPECT_EQ(result, -5) << coded << " " << angle << " " << at;
                before.ExpectSame(h);
                if (angle != 18000) {
                    EXPECT_EQ(ImgTableGet(h)->dib, dib) << "the old bitmap is still in place";
                }
                IMG_delete_bitmap(h);
            }
        }
    }
}

TEST_F(Part5_1_Rotate, AllocationFailureGivesMinus1AndLeavesTheImageUnchanged)
{
    Picture p = RandomPicture(37, 23, 8, 41);
    Picture page = FaxPage(150, 90, 41);
    for (bool coded : {false, true}) {
        for (int angle : {3000, 9000, 27000, 18000}) {
            int32_t h = coded ? MakeCodedImage(page) : MakeImage(p);
            IMG_set_croprect(h, 1, 2, 20, 9);
            Snapshot before(h);
            int failures = 0;
            for (int countdown = 0; countdown < 64; countdown++) {
                ImgTestFailAllocations(countdown);
                int result = IMG_rotate_bitmap(h, angle);
                ImgTestFailAllocations(-1);
                if (result == 0)
                    break;
                EXPECT_EQ(result, IMG_ERR_MEMORY) << coded << " " << angle << " " << countdown;
                before.ExpectSame(h);
                failures++;
            }
            EXPECT_GT(failures, 0);
            IMG_delete_bitmap(h);
        }
    }
}

// ---- a caller's block ----

TEST_F(Part5_1_Rotate, CallersBlockIsNeverFreed)
{
    for (int angle : {9000, 27000, 3000, 18000}) {
        TestDib dib(21, 13, 8);
        for (int32_t y = 0; y < 13; y++)
            for (int32_t x = 0; x < 21; x++)
                dib.Row(y)[x] = (uint8_t)(x * 13 + y);
        std::vector<uint8_t> copy(dib.block, dib.block + 40 + 1024 + dib.stride * 13);
        int32_t h = IMG_create_handle_keep(dib.block);
        ASSERT_GE(h, 0);
        ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
        if (angle != 18000) {
            EXPECT_NE(ImgTableGet(h)->dib, dib.block);
            EXPECT_EQ(ImgTableGet(h)->callerOwnsDib, 0);
            // The caller's pixels are untouched.
            EXPECT_TRUE(std::equal(copy.begin(), copy.end(), dib.block));
        }
        // The block in place is the library's after a turn: delete_keep frees
        // that one and leaves the caller's (ASan checks both ways).
        EXPECT_EQ(IMG_delete_bitmap_keep(h), 0);
    }
}

} // namespace
