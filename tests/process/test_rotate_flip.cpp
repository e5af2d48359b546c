// Flips, invert and rotation of every depth, plain and run-coded, against a
// per-pixel reference computed here.  Free rotation is the inverse 16.16
// nearest-neighbour mapping on a canvas grown by the folded angle.
#include "support/support.h"

#include <cmath>
#include <functional>

namespace {
// out(x, y) = in(map(x, y)); `outside` for pixels the mapping leaves
// uncovered (map gives 0), not compared where map gives 2.
using Map = std::function<int(int x, int y, int &sx, int &sy)>;
void ExpectPixels(int32_t handle, const Picture &in, int w, int h, const Map &map, uint32_t outside)
{
    Picture out = PictureOf(handle);
    ASSERT_EQ(out.width, w);
    ASSERT_EQ(out.height, h);
    long bad = 0;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            int sx, sy, m = map(x, y, sx, sy);
            if (m == 2) continue;
            uint32_t want = m ? RowPixel(in.rows[(size_t)sy].data(), sx, in.bits) : outside;
            if (RowPixel(out.rows[(size_t)y].data(), x, in.bits) != want && bad++ < 3)
                ADD_FAILURE() << "pixel " << x << "," << y;
        }
    EXPECT_EQ(bad, 0);
}

long long Round(double v) { return v >= 0 ? (long long)std::trunc(v + 0.5) : (long long)std::trunc(v - 0.5); }

// The canvas growth: the angle in degrees folded into 0..90 (negative
// angles are not folded), dw = 2 (round((cos + 1) w/2 + sin h/2) - w).
void Canvas(int angle, int w, int h, long long &dw, long long &dh)
{
    double a = angle * 0.01;
    a = a >= 270 ? 360 - a : a >= 180 ? a - 180 : a >= 90 ? 180 - a : a;
    while (a > 90) a -= 90;
    double t = a * M_PI / 180;
    dw = 2 * (Round((std::cos(t) + 1) * (w / 2) + std::sin(t) * (h / 2)) - w);
    dh = 2 * (Round((std::cos(t) + 1) * (h / 2) + std::sin(t) * (w / 2)) - h);
}

// angle -1: flips and invert; damaged: coded rows with runs out of order;
// sparse: mostly white, as a fax page
struct Turn { int bits, width, height, angle; bool coded, damaged = false, sparse = false; };
std::string Name(const ::testing::TestParamInfo<Turn> &i)
{
    const Turn &t = i.param;
    return std::to_string(t.bits) + "bit_" + std::to_string(t.width) + "x" + std::to_string(t.height) + "_" +
           (t.angle < 0 ? "minus" : "") + std::to_string(std::abs(t.angle)) + (t.coded ? "_coded" : "") +
           (t.damaged ? "_damaged" : "") + (t.sparse ? "_sparse" : "");
}

// A pixel black with odds 1 in 64: five more random bytes or-ed into each
// whole byte of a 1-bit picture (1 is white).
void Whiten(Picture &p, uint32_t seed)
{
    for (auto &row : p.rows)
        for (int x = 0; x < p.width / 8; x++)
            for (int k = 0; k < 5; k++)
                row[(size_t)x] |= (uint8_t)((seed = seed * 1103515245u + 12345u) >> 16);
}

// Records as a damaged file leaves them: a run ending before it starts
// (first two changes swapped), runs overlapping (the third change moved
// back over the first), a run to the width followed by one further left.
// The image then shows what RunExpandRow draws of them, which a turn keeps.
void DamageRecords(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    for (int32_t r = 0; r < d->height; r++) {
        uint32_t bytes;
        uint16_t *record = const_cast<uint16_t *>(RunStoreRow(d, r, &bytes));
        if (!record || bytes < 12 || record[4] >= d->width) continue;
        if (r % 3 == 0) std::swap(record[1], record[2]);
        else if (r % 5 == 1) record[3] = (uint16_t)(record[1] / 2);
        else if (r % 7 == 2) record[2] = (uint16_t)d->width, record[3] = (uint16_t)(record[1] / 2);
    }
}
class Rotate : public TrnwTest, public ::testing::WithParamInterface<Turn> {
  protected:
    void TearDown() override
    {
        IMG_set_statusbar(0, nullptr, 0);
        TrnwTest::TearDown();
    }
};

int32_t progressReports;
extern "C" int32_t IMGAPI CountProgress(int32_t, int32_t)
{
    progressReports++;
    return 0;
}

TEST_P(Rotate, PixelsFollowTheReferenceMapping)
{
    const Turn t = GetParam();
    Picture p = RandomPicture(t.width, t.height, t.bits, (uint32_t)(t.angle * 7 + t.bits + t.width));
    if (t.sparse)
        Whiten(p, (uint32_t)t.height);
    int32_t h = ImageOf(p);
    ASSERT_GE(h, 0);
    ASSERT_EQ(t.coded ? IMG_dib_to_runs(h) : 0, 0);
    if (t.damaged) {
        DamageRecords(h);
        p = PictureOf(h);
    }
    const int W = t.width, H = t.height;
    uint32_t white = t.bits == 1 ? 1 : 0;
    switch (t.angle) {
    case -1: // flip left-right, then top-bottom, then invert
        ASSERT_EQ(IMG_flip_bitmapx(h), 0);
        ExpectPixels(h, p, W, H, [&](int x, int y, int &sx, int &sy) { sx = W - 1 - x, sy = y; return 1; }, 0);
        ASSERT_EQ(IMG_flip_bitmapy(h), 0);
        ExpectPixels(h, p, W, H, [&](int x, int y, int &sx, int &sy) { sx = W - 1 - x, sy = H - 1 - y; return 1; }, 0);
        ASSERT_EQ(IMG_invert_bitmap(h), 0);
        {
            Picture q = PictureOf(h);
            for (int y = 0; y < H; y++)
                for (int x = 0; x < W; x++)
                    ASSERT_EQ(RowPixel(q.rows[(size_t)y].data(), x, t.bits) ^ RowPixel(p.rows[(size_t)(H - 1 - y)].data(), W - 1 - x, t.bits),
                              t.bits == 32 ? 0xFFFFFFFFu : (1u << t.bits) - 1) << x << "," << y;
        }
        return;
    case 0:
        ASSERT_EQ(IMG_rotate_bitmap(h, 0), 0);
        return ExpectPixels(h, p, W, H, [](int x, int y, int &sx, int &sy) { sx = x, sy = y; return 1; }, 0);
    case 9000: // clockwise: the new row y is the old column y, read upwards
        progressReports = 0;
        IMG_set_statusbar(1, CountProgress, 1);
        ASSERT_EQ(IMG_rotate_bitmap(h, 9000), 0);
        // Every row of the turned image is reported once per pass: a coded page
        // turns in one pass, a plain image is transposed and then mirrored.
        EXPECT_EQ(progressReports, t.coded ? W : 2 * W);
        if (!t.coded) { // the display size follows a plain image's turn
            EXPECT_EQ(std::pair(ImgTableGet(h)->displayWidth, ImgTableGet(h)->displayHeight), std::pair(H, W));
        }
        return ExpectPixels(h, p, H, W, [&](int x, int y, int &sx, int &sy) { sx = y, sy = H - 1 - x; return 1; }, 0);
    case 18000:
        ASSERT_EQ(IMG_rotate_bitmap(h, 18000), 0);
        return ExpectPixels(h, p, W, H, [&](int x, int y, int &sx, int &sy) { sx = W - 1 - x, sy = H - 1 - y; return 1; }, 0);
    case 27000:
        ASSERT_EQ(IMG_rotate_bitmap(h, 27000), 0);
        return ExpectPixels(h, p, H, W, [&](int x, int y, int &sx, int &sy) { sx = W - 1 - y, sy = x; return 1; }, 0);
    }
    // Free rotation, in storage rows (bottom-up, but top-down for a coded
    // page's buffer): for canvas row y (from -hy)
    // the source runs from (trunc((cy - y) sin + A), trunc((y - cy) cos + B))
    // in 16.16 steps of trunc(W' cos) / W', trunc(W' sin) / W'.
    long long dw, dh;
    Canvas(t.angle, W, H, dw, dh);
    const int W2 = (int)(W + dw), H2 = (int)(H + dh), hx = (int)(dw / 2), hy = (int)(dh / 2);
    // A coded page's buffer is top-down, so it is mapped by the negated angle.
    double th = (t.coded ? -t.angle : t.angle) * 0.01 * M_PI / 180;
    long long stepX = (long long)std::trunc(W2 * std::cos(th)) * 65536 / W2;
    long long stepY = (long long)std::trunc(W2 * std::sin(th)) * 65536 / W2;
    double cx = W / 2, cy = H / 2, A = cx - (hx + cx) * std::cos(th), B = cy - (hx + cx) * std::sin(th);
    ASSERT_EQ(IMG_rotate_bitmap(h, t.angle), 0);
    // At 4 bits the nibbles are placed by the parity of x - hx: an odd hx
    // moves every pixel one place right (the last one into the next row).
    const int shift = t.bits == 4 ? hx & 1 : 0;
    ExpectPixels(h, p, W2, H2, [&](int x, int y, int &sx, int &sy) {
        if ((x -= shift) < 0) return 2;
        long long ys = (t.coded ? y : H2 - 1 - y) - hy; // storage row (a coded page's is top-down)
        long long fx = (long long)std::trunc((cy - ys) * std::sin(th) + A) * 65536 + stepX * x;
        long long fy = (long long)std::trunc((ys - cy) * std::cos(th) + B) * 65536 + stepY * x;
        long long c = (long long)std::floor(fx / 65536.0), s = (long long)std::floor(fy / 65536.0);
        if (s < 0 || s >= H || c < 0 || c >= W) return 0;
        sx = (int)c, sy = t.coded ? (int)s : H - 1 - (int)s;
        return 1;
    }, white);
}

std::vector<Turn> Turns()
{
    std::vector<Turn> v;
    for (int bits : {1, 4, 8, 16, 24, 32})
        for (int angle : {-1, 0, 9000, 18000, 27000, 3000, 31000})
            for (auto size : {std::pair<int, int>{13, 7}, {40, 33}})
                v.push_back({bits, size.first, size.second, angle, false});
    for (int angle : {1250, 4500, 20000, -3000, 36000})
        for (int bits : {1, 8, 24}) v.push_back({bits, 41, 30, angle, false});
    for (int angle : {-1, 9000, 18000, 27000, 4500, 31000}) v.push_back({1, 77, 21, angle, true});
    // Quarter turns across the edges of their blocks: 64 x 64 bits, tiles of
    // 8 x 256 pixels (4 x 257 at 24 bits: the last pixel of a row ends the
    // block), and for coded pages the chunks of columns expanded at a time
    // (4161 x 65: 64 words of 64 columns, then 2), also sparse (words
    // without changes, rows of few changes a word).
    for (int angle : {9000, 27000}) {
        for (int bits : {1, 4, 8, 16, 24, 32})
            for (auto size : {std::pair<int, int>{1, 1}, {1, 9}, {9, 1}, {4, 257}, {65, 63}, {130, 66}})
                v.push_back({bits, size.first, size.second, angle, false});
        for (auto size : {std::pair<int, int>{1, 1}, {1, 130}, {130, 1}, {63, 65}, {4161, 65}})
            v.push_back({1, size.first, size.second, angle, true});
        for (auto size : {std::pair<int, int>{77, 21}, {4161, 65}}) v.push_back({1, size.first, size.second, angle, true, true});
        v.push_back({1, 4161, 65, angle, true, false, true});
    }
    return v;
}
INSTANTIATE_TEST_SUITE_P(Pictures, Rotate, ::testing::ValuesIn(Turns()), Name);

class RotateCanvas : public TrnwTest {};

TEST_F(RotateCanvas, SizesFromTheFoldedAngle)
{
    // 100 x 100 at 45: 2 (round(1.7071 * 50 + 0.7071 * 50) - 100) = 42.
    // -30 is not folded: 2 (round(1.8660 * 50 - 0.5 * 50) - 100) = -64.
    // 400 folds to 360 - 400 = -40: 2 (round(1.7660 * 50 - 0.6428 * 50) - 100) = -88.
    struct { int w, h, angle, w2, h2; } cases[] = {
        {100, 100, 4500, 142, 142}, {142, 142, 4500, 200, 200}, {100, 100, -3000, 36, 36},
        {100, 60, -3000, 56, 2},    {100, 100, 40000, 12, 12},  {41, 31, 36000, 39, 29}};
    for (auto &c : cases) {
        int32_t h = NewImage(c.w, c.h, 8), w = 0, hh = 0, bits = 0;
        ASSERT_EQ(IMG_rotate_bitmap(h, c.angle), 0);
        IMG_bitmap_info(h, &w, &hh, &bits);
        EXPECT_EQ(w, c.w2) << c.angle;
        EXPECT_EQ(hh, c.h2) << c.angle;
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_rotate_bitmap(-1, 0), 0); // nothing to do: no handle check
    EXPECT_EQ(IMG_rotate_bitmap(-1, 9000), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_rotate_bitmap(0, 4500), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_flip_bitmapx(5), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_flip_bitmapy(-1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_invert_bitmap(-1), IMG_ERR_HANDLE);
}

} // namespace
