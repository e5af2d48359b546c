/* Part 4.1 palette selection (IMG_mediancut_color, IMG_popularity_color,
 * IMG_octree_color): the edge cases of the Part with values worked out from
 * its words, and each operation against a deliberately naive model of the
 * Part written here (whole-image arrays, one pixel at a time, plain loops)
 * on random images of every accepted depth and several sizes. */
#include "test_support.h"

#include <random>

namespace {

class Part4_1_Palette : public TrnwTest {};

using Colour = std::array<int32_t, 3>;                  // B, G, R
using Colours = std::vector<std::vector<Colour>>;       // [storage row][x]
using Indices = std::vector<std::vector<int>>;          // [storage row][x]

// ---- images ----

uint8_t *Pixels(ImgDescriptor *d)
{
    return d->dib + ImgDescriptorBitsOffset(d);
}

// A library image of random pixels (and a random palette at 4 and 8 bits).
int32_t RandomImage(std::mt19937 &rng, int32_t w, int32_t h, int bits)
{
    int32_t handle = NewImage(w, h, bits);
    ImgDescriptor *d = ImgTableGet(handle);
    uint32_t paletteBytes = DibPaletteSize(bits);
    for (uint32_t i = 0; i < paletteBytes; i++)
        d->dib[40 + i] = (uint8_t)rng();
    for (size_t i = 0; i < (size_t)d->stride * (size_t)h; i++)
        Pixels(d)[i] = (uint8_t)rng();
    return handle;
}

// A smooth picture with a little noise: the kind of image that builds deep trees.
int32_t SmoothImage(std::mt19937 &rng, int32_t w, int32_t h, int bits)
{
    int32_t handle = NewImage(w, h, bits);
    ImgDescriptor *d = ImgTableGet(handle);
    int bytes = bits / 8;
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++) {
            uint8_t *p = Pixels(d) + (size_t)y * d->stride + (size_t)x * bytes;
            p[0] = (uint8_t)(x * 255 / std::max(1, w - 1) + (int)(rng() % 9) - 4);
            p[1] = (uint8_t)(y * 255 / std::max(1, h - 1));
            p[2] = (uint8_t)((x + y) * 3 + (int)(rng() % 5));
        }
    return handle;
}

// The source colours as the Part reads them: 4- and 8-bit through the palette
// (high nibble first), 24-bit triples, 32-bit the first three of four bytes.
Colours SourceColours(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    int bits = ImgDescriptorBits(d);
    const uint8_t *palette = d->dib + 40;
    Colours out(d->height, std::vector<Colour>(d->width));
    for (int32_t y = 0; y < d->height; y++) {
        const uint8_t *row = Pixels(d) + (size_t)y * d->stride;
        for (int32_t x = 0; x < d->width; x++) {
            const uint8_t *c;
            if (bits == 4)
                c = palette + 4 * (x % 2 == 0 ? row[x / 2] / 16 : row[x / 2] % 16);
            else if (bits == 8)
                c = palette + 4 * row[x];
            else
                c = row + x * (bits / 8);
            out[y][x] = {c[0], c[1], c[2]};
        }
    }
    return out;
}

// The result's indices (8 or 4 bits, high nibble first) and header checks.
Indices ResultIndices(int32_t handle, int bits)
{
    ImgDescriptor *d = ImgTableGet(handle);
    BITMAPINFOHEADER header;
    std::memcpy(&header, d->dib, 40);
    EXPECT_EQ(header.biBitCount, bits);
    EXPECT_EQ(d->stride, (int32_t)DibStride((uint32_t)d->width, bits));
    EXPECT_EQ(header.biSizeImage, (uint32_t)(d->stride * d->height));
    Indices out(d->height, std::vector<int>(d->width));
    for (int32_t y = 0; y < d->height; y++) {
        const uint8_t *row = Pixels(d) + (size_t)y * d->stride;
        for (int32_t x = 0; x < d->width; x++)
            out[y][x] = bits == 8 ? row[x] : (x % 2 == 0 ? row[x / 2] >> 4 : row[x / 2] & 15);
    }
    return out;
}

Colour PaletteEntry(int32_t handle, int i)
{
    const uint8_t *p = ImgTableGet(handle)->dib + 40 + 4 * i;
    return {p[0], p[1], p[2]};
}

int32_t Clamp(int32_t v)
{
    return v < 0 ? 0 : v > 255 ? 255 : v;
}

// floor(e / n) for n > 0, spelled out.
int32_t FloorDiv(int32_t e, int32_t n)
{
    int32_t q = e / n;
    if (e % n != 0 && e < 0)
        q -= 1;
    return q;
}

// (e * k) / 16 truncated toward zero, spelled out by sign.
int32_t TruncSixteenths(int32_t e, int32_t k)
{
    int32_t v = e * k;
    return v >= 0 ? v / 16 : -((-v) / 16);
}

// ---- naive model: the fixed palette with diffusion ----

Colour FixedEntry(int i)
{
    return {(i & 3) * 255 / 3, ((i >> 2) & 7) * 255 / 7, ((i >> 5) & 7) * 255 / 7};
}

Indices NaiveFixed(const Colours &src)
{
    int h = (int)src.size(), w = (int)src[0].size();
    // Every row with its accumulated errors; row h is the copy of the last
    // row the last row diffuses into (discarded).
    std::vector<std::vector<Colour>> acc(h + 1);
    for (int y = 0; y <= h; y++)
        acc[y] = src[std::min(y, h - 1)];
    Indices out(h, std::vector<int>(w));
    for (int y = 0; y < h; y++) {
        bool leftToRight = y % 2 == 0;
        int ahead = leftToRight ? 1 : -1;
        for (int n = 0; n < w; n++) {
            int x = leftToRight ? n : w - 1 - n;
            int b = Clamp(acc[y][x][0]), g = Clamp(acc[y][x][1]), r = Clamp(acc[y][x][2]);
            int index = (r & 0xE0) | ((g & 0xE0) >> 3) | (b >> 6);
            out[y][x] = index;
            Colour entry = FixedEntry(index);
            for (int c = 0; c < 3; c++) {
                int32_t e = acc[y][x][c] - entry[c];
                auto add = [&](int yy, int xx, int32_t v) {
                    if (xx >= 0 && xx < w)
                        acc[yy][xx][c] += v;
                };
                add(y, x + ahead, FloorDiv(e, 4));
                add(y, x + 2 * ahead, FloorDiv(e, 8));
                add(y + 1, x - 2, FloorDiv(e, 16));
                add(y + 1, x - 1, FloorDiv(e, 8));
                add(y + 1, x, FloorDiv(e, 4));
                add(y + 1, x + 1, FloorDiv(e, 8));
                add(y + 1, x + 2, FloorDiv(e, 16));
            }
        }
    }
    return out;
}

// ---- naive model: popularity ----

struct NaivePopularResult {
    std::vector<int> bins; // 256 bin numbers
    Indices indices;
};

NaivePopularResult NaivePopularity(const Colours &src)
{
    std::vector<uint16_t> counts(4096, 0);
    auto binOf = [](const Colour &c) { return (c[2] / 16) * 256 + (c[1] / 16) * 16 + c[0] / 16; };
    for (auto &row : src)
        for (auto &c : row)
            counts[binOf(c)] = (uint16_t)(counts[binOf(c)] + 1);
    NaivePopularResult result;
    result.bins.push_back(0);
    while (result.bins.size() < 256) {
        int best = 0;
        for (int b = 0; b < 4096; b++)
            if (counts[b] >= counts[best])
                best = b;
        result.bins.push_back(best);
        counts[best] = 0;
    }
    for (auto &row : src) {
        std::vector<int> line;
        for (auto &c : row) {
            int r = c[2] / 16, g = c[1] / 16, b = c[0] / 16;
            int best = 65535, index = 0;
            for (int i = 0; i < 256; i++) {
                int bin = result.bins[i];
                int dr = 2 * (r - bin / 256), dg = 2 * (g - (bin / 16) % 16), db = 2 * (b - bin % 16);
                int d = dr * dr + dg * dg + db * db;
                if (d < best) {
                    best = d;
                    index = i;
                }
                if (d == 0)
                    break;
            }
            line.push_back(index);
        }
        result.indices.push_back(line);
    }
    return result;
}

// ---- naive model: the octree ----

struct NaiveOctree {
    struct Node {
        uint32_t count = 0, red = 0, green = 0, blue = 0;
        int level = 0;
        int children[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
        int paletteIndex = 0;
    };
    std::vector<Node> nodes;
    std::vector<int> lists[8]; // front = head = most recently listed
    int leaves = 0, maxColours = 8, reductionLevel = 7;
    std::vector<Colour> palette;

    explicit NaiveOctree(int count)
    {
        maxColours = count >= 256 ? 256 : count >= 8 ? count : 8;
        nodes.push_back(Node{});
        nodes[0].level = -1;
    }
    static int Path(const Colour &c, int level)
    {
        int bit = 7 - level;
        return ((c[0] >> bit) & 1) * 4 + ((c[1] >> bit) & 1) * 2 + ((c[2] >> bit) & 1);
    }
    // The node the walk stops at, and whether it stopped at a missing child.
    int Walk(const Colour &c, bool &missing)
    {
        int node = 0;
        missing = false;
        for (int level = 0; level <= 7; level++) {
            if (nodes[node].count != 0)
                return node;
            int child = nodes[node].children[Path(c, level)];
            if (child < 0) {
                missing = true;
                return node;
            }
            node = child;
        }
        return node;
    }
    bool Reduce()
    {
        int level = 6;
        while (level >= 0 && lists[level].empty())
            level--;
        if (level < 0)
            return false;
        size_t chosen = 0;
        uint32_t least = 0;
        for (size_t k = 0; k < lists[level].size(); k++) {
            uint32_t sum = 0;
            for (int ch : nodes[lists[level][k]].children)
                if (ch >= 0)
                    sum += nodes[ch].count;
            if (k == 0 || sum < least) {
                least = sum;
                chosen = k;
            }
        }
        int n = lists[level][chosen];
        lists[level].erase(lists[level].begin() + (long)chosen);
        reductionLevel = level;
        bool wasLeaf = nodes[n].count != 0;
        for (int &ch : nodes[n].children)
            if (ch >= 0) {
                nodes[n].count += nodes[ch].count;
                nodes[n].red += nodes[ch].red;
                nodes[n].green += nodes[ch].green;
                nodes[n].blue += nodes[ch].blue;
                ch = -1;
                leaves--;
            }
        if (!wasLeaf)
            leaves++;
        return true;
    }
    void Insert(const Colour &c)
    {
        bool missing;
        int node = Walk(c, missing);
        while (missing && leaves >= maxColours) {
            if (!Reduce())
                break;
            node = Walk(c, missing);
        }
        if (missing) {
            node = 0;
            for (int level = 0; level <= reductionLevel; level++) {
                int p = Path(c, level);
                if (nodes[node].children[p] < 0) {
                    Node fresh;
                    fresh.level = level;
                    nodes.push_back(fresh);
                    int id = (int)nodes.size() - 1;
                    nodes[node].children[p] = id;
                    if (level < reductionLevel)
                        lists[level].insert(lists[level].begin(), id);
                }
                node = nodes[node].children[p];
            }
            leaves++;
        }
        nodes[node].red += (uint32_t)c[2];
        nodes[node].green += (uint32_t)c[1];
        nodes[node].blue += (uint32_t)c[0];
        nodes[node].count++;
    }
    void PaletteWalk(int node)
    {
        if ((int)palette.size() >= maxColours)
            return;
        Node &n = nodes[node];
        if (n.count) {
            n.paletteIndex = (int)palette.size();
            palette.push_back({(int)std::min(255u, n.blue / n.count), (int)std::min(255u, n.green / n.count),
                               (int)std::min(255u, n.red / n.count)});
        }
        for (int k = 0; k < 8; k++)
            if (nodes[node].children[k] >= 0)
                PaletteWalk(nodes[node].children[k]);
    }
    int Index(const Colour &c)
    {
        int node = 0;
        for (int level = 0; level <= 7; level++) {
            int child = nodes[node].children[Path(c, level)];
            if (child < 0) {
                int best = 65535, index = 0;
                for (int i = 0; i < (int)palette.size(); i++) {
                    int d = 0;
                    for (int k = 0; k < 3; k++) {
                        int diff = c[k] / 2 - palette[i][k] / 2;
                        d += diff * diff;
                    }
                    if (d < best) {
                        best = d;
                        index = i;
                    }
                }
                return index;
            }
            node = child;
            if (nodes[node].count)
                return nodes[node].paletteIndex;
        }
        return nodes[node].paletteIndex;
    }
    Indices Map(const Colours &src)
    {
        int h = (int)src.size(), w = (int)src[0].size();
        std::vector<std::vector<Colour>> acc(h + 1);
        for (int y = 0; y <= h; y++)
            acc[y] = src[std::min(y, h - 1)];
        Indices out(h, std::vector<int>(w));
        for (int y = 0; y < h; y++) {
            int ahead = y % 2 == 0 ? 1 : -1;
            for (int n = 0; n < w; n++) {
                int x = ahead > 0 ? n : w - 1 - n;
                Colour c = {Clamp(acc[y][x][0]), Clamp(acc[y][x][1]), Clamp(acc[y][x][2])};
                int index = Index(c);
                out[y][x] = index;
                for (int k = 0; k < 3; k++) {
                    int32_t e = c[k] - palette[index][k];
                    auto add = [&](int yy, int xx, int32_t v) {
                        if (xx >= 0 && xx < w)
                            acc[yy][xx][k] += v;
                    };
                    add(y, x + ahead, TruncSixteenths(e, 7));
                    add(y + 1, x - ahead, TruncSixteenths(e, 3));
                    add(y + 1, x, TruncSixteenths(e, 5));
                    add(y + 1, x + ahead, TruncSixteenths(e, 1));
                }
            }
        }
        return out;
    }
};

// ---- progress ----

int32_t progressCalls, progressTotal, progressAbortAt;
int32_t IMGAPI CountProgress(int32_t value, int32_t total)
{
    EXPECT_EQ(value, 41);
    progressTotal = total;
    return ++progressCalls == progressAbortAt ? -77 : 0;
}
struct ProgressOn {
    explicit ProgressOn(int32_t abortAt)
    {
        progressCalls = 0;
        progressTotal = 0;
        progressAbortAt = abortAt;
        IMG_set_statusbar(41, CountProgress, 1);
    }
    ~ProgressOn() { IMG_set_statusbar(0, nullptr, 0); }
};

// A copy of the image's block, to show it unchanged.
std::vector<uint8_t> Snapshot(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    return std::vector<uint8_t>(d->dib, d->dib + d->dibSize);
}

const std::vector<std::pair<int32_t, int32_t>> kSizes = {{1, 1}, {1, 5}, {7, 1}, {7, 5}, {33, 17}, {64, 3}};

// ======================= edge cases of the Part =======================

TEST_F(Part4_1_Palette, OneBitImageToMediancutReturnsMinus7Unchanged)
{
    int32_t h = NewImage(9, 4, 1);
    ImgTableGet(h)->dib[40 + 8 + 2] = 0x5A;
    uint8_t *before = ImgTableGet(h)->dib;
    auto bytes = Snapshot(h);
    EXPECT_EQ(IMG_mediancut_color(h), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTableGet(h)->dib, before);
    EXPECT_EQ(Snapshot(h), bytes);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

TEST_F(Part4_1_Palette, RunCodedOneBitImageIsRejectedToo)
{
    int32_t h = NewImage(20, 3, 1);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    EXPECT_EQ(IMG_mediancut_color(h), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_popularity_color(h), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_octree_color(h, 8, nullptr, 256), IMG_ERR_TYPE);
    EXPECT_NE(ImgTableGet(h)->codedRows, 0);
}

TEST_F(Part4_1_Palette, EightBitImageRequantizedThroughItsOwnPalette)
{
    // Palette entries that are exact 3-3-2 colours: no error, so each pixel
    // maps to the 3-3-2 index of its palette colour, not of its own index.
    int32_t h = NewImage(4, 2, 8);
    uint8_t *palette = ImgTableGet(h)->dib + 40;
    const uint8_t entries[4][3] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {170, 36, 218}}; // B, G, R
    for (int i = 0; i < 4; i++)
        std::memcpy(palette + 4 * i, entries[i], 3);
    for (int y = 0; y < 2; y++)
        for (int x = 0; x < 4; x++)
            Pixels(ImgTableGet(h))[y * 4 + x] = (uint8_t)((x + y) % 4);
    ASSERT_EQ(IMG_mediancut_color(h), 0);
    // red 255 -> 0xE0; green 255 -> 7 << 2 = 0x1C; blue 255 -> 3;
    // (B 170, G 36, R 218) -> (218 & 0xE0) | (36 & 0xE0) >> 3 | 170 >> 6 = 0xC0 | 0x04 | 2 = 0xC6.
    const int expected[4] = {0xE0, 0x1C, 0x03, 0xC6};
    Indices got = ResultIndices(h, 8);
    for (int y = 0; y < 2; y++)
        for (int x = 0; x < 4; x++)
            EXPECT_EQ(got[y][x], expected[(x + y) % 4]) << x << "," << y;
}

TEST_F(Part4_1_Palette, FixedPaletteEntriesAsTheFormula)
{
    int32_t h = NewImage(3, 3, 24);
    ASSERT_EQ(IMG_mediancut_color(h), 0);
    // entry 0x6D = 0b011_011_01: red 3 * 255 / 7 = 109, green 109, blue 85.
    EXPECT_EQ(PaletteEntry(h, 0x6D), (Colour{85, 109, 109}));
    EXPECT_EQ(PaletteEntry(h, 0), (Colour{0, 0, 0}));
    EXPECT_EQ(PaletteEntry(h, 255), (Colour{255, 255, 255}));
    EXPECT_EQ(ImgTableGet(h)->dib[40 + 4 * 0x6D + 3], 0);
}

TEST_F(Part4_1_Palette, SingleColourPopularityBlackThenItsBinThenWhite)
{
    int32_t h = NewImage(5, 3, 24);
    ImgDescriptor *d = ImgTableGet(h);
    for (int y = 0; y < 3; y++)
        for (int x = 0; x < 5; x++) {
            uint8_t *p = Pixels(d) + y * d->stride + 3 * x;
            p[0] = 0xC7, p[1] = 0x9A, p[2] = 0x35; // B, G, R
        }
    ASSERT_EQ(IMG_popularity_color(h), 0);
    // bin = (0x35 >> 4) << 8 | (0x9A >> 4) << 4 | 0xC7 >> 4 = 0x39C: entry R 0x30, G 0x90, B 0xC0.
    EXPECT_EQ(PaletteEntry(h, 0), (Colour{0, 0, 0}));
    EXPECT_EQ(PaletteEntry(h, 1), (Colour{0xC0, 0x90, 0x30}));
    for (int i = 2; i < 256; i++)
        EXPECT_EQ(PaletteEntry(h, i), (Colour{0xF0, 0xF0, 0xF0})) << i;
    for (auto &row : ResultIndices(h, 8))
        for (int v : row)
            EXPECT_EQ(v, 1);
}

TEST_F(Part4_1_Palette, SingleColourInBinZeroMapsToEntryZero)
{
    int32_t h = NewImage(3, 2, 32);
    ImgDescriptor *d = ImgTableGet(h);
    for (int i = 0; i < 6; i++)
        std::memset(Pixels(d) + 4 * i, 0x0E, 4); // bin 0
    ASSERT_EQ(IMG_popularity_color(h), 0);
    // Bin 0 keeps its count, so it is also entry 1; the search stops at entry 0.
    EXPECT_EQ(PaletteEntry(h, 1), (Colour{0, 0, 0}));
    EXPECT_EQ(PaletteEntry(h, 2), (Colour{0xF0, 0xF0, 0xF0}));
    for (auto &row : ResultIndices(h, 8))
        for (int v : row)
            EXPECT_EQ(v, 0);
}

TEST_F(Part4_1_Palette, PopularityCountersWrapAt65536)
{
    // 256 x 257 pixels: 65536 of colour A (its counter wraps to 0) and 256 of B.
    int32_t h = NewImage(256, 257, 24);
    ImgDescriptor *d = ImgTableGet(h);
    for (int y = 0; y < 257; y++)
        for (int x = 0; x < 256; x++) {
            uint8_t *p = Pixels(d) + (size_t)y * d->stride + 3 * x;
            bool isB = y == 256;
            p[0] = isB ? 0x10 : 0x80, p[1] = isB ? 0x20 : 0x80, p[2] = isB ? 0x30 : 0x80;
        }
    ASSERT_EQ(IMG_popularity_color(h), 0);
    EXPECT_EQ(PaletteEntry(h, 1), (Colour{0x10, 0x20, 0x30})); // B first: A counts 0
    EXPECT_EQ(PaletteEntry(h, 2), (Colour{0xF0, 0xF0, 0xF0}));
    // A (nibbles 8, 8, 8) is nearest to white (15,15,15)? distance 3 * (2 * 7)^2 = 588;
    // to black 3 * 16^2 = 768; to B (3, 2, 1 for R, G, B): 4 * (25 + 36 + 49) = 440: B wins.
    EXPECT_EQ(ResultIndices(h, 8)[0][0], 1);
}

TEST_F(Part4_1_Palette, PopularityHighestBinWinsTies)
{
    int32_t h = NewImage(2, 1, 24);
    uint8_t *p = Pixels(ImgTableGet(h));
    const uint8_t px[6] = {0x00, 0x00, 0x50, 0x00, 0x00, 0xA0}; // R 0x50 and R 0xA0, once each
    std::memcpy(p, px, 6);
    ASSERT_EQ(IMG_popularity_color(h), 0);
    EXPECT_EQ(PaletteEntry(h, 1), (Colour{0, 0, 0xA0})); // bin 0xA00 before 0x500
    EXPECT_EQ(PaletteEntry(h, 2), (Colour{0, 0, 0x50}));
    Indices got = ResultIndices(h, 8);
    EXPECT_EQ(got[0][0], 2);
    EXPECT_EQ(got[0][1], 1);
}

TEST_F(Part4_1_Palette, PopularityRejectsDepthsBelow24)
{
    for (int bits : {4, 8, 16}) {
        int32_t h = NewImage(3, 3, bits);
        auto bytes = Snapshot(h);
        EXPECT_EQ(IMG_popularity_color(h), IMG_ERR_TYPE) << bits;
        EXPECT_EQ(Snapshot(h), bytes);
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part4_1_Palette, OctreeCountThreeMakesAtMostEight)
{
    std::mt19937 rng(3);
    int32_t h = RandomImage(rng, 40, 30, 24);
    int32_t made = IMG_octree_color(h, 8, nullptr, 3);
    EXPECT_GE(made, 1);
    EXPECT_LE(made, 8);
    for (auto &row : ResultIndices(h, 8))
        for (int v : row)
            EXPECT_LT(v, made);
}

TEST_F(Part4_1_Palette, OctreeCount300MakesAtMost256)
{
    std::mt19937 rng(300);
    int32_t h = RandomImage(rng, 120, 90, 24);
    int32_t made = IMG_octree_color(h, 8, nullptr, 300);
    EXPECT_GT(made, 8);
    EXPECT_LE(made, 256);
}

TEST_F(Part4_1_Palette, OctreeFewerDistinctPathsMakeFewerEntries)
{
    // Three distinct colours (three distinct 8-level paths) and maximum 8 or 256:
    // three entries, each exactly its colour, every pixel on its own leaf.
    for (int32_t count : {3, 256}) {
        int32_t h = NewImage(6, 2, 24);
        ImgDescriptor *d = ImgTableGet(h);
        const uint8_t colours[3][3] = {{10, 200, 30}, {250, 0, 128}, {10, 200, 31}};
        for (int y = 0; y < 2; y++)
            for (int x = 0; x < 6; x++)
                std::memcpy(Pixels(d) + y * d->stride + 3 * x, colours[(x + y) % 3], 3);
        ASSERT_EQ(IMG_octree_color(h, 8, nullptr, count), 3);
        // Palette walk order: path index of level 0 = bit 7 of B, G, R:
        // (10,200,30) -> 0*4+1*2+0 = 2, (10,200,31) -> 2, (250,0,128) -> 4+0+1 = 5;
        // the first two part at level 7 by bit 0 of R: 30 -> child 0, 31 -> child 1.
        EXPECT_EQ(PaletteEntry(h, 0), (Colour{10, 200, 30}));
        EXPECT_EQ(PaletteEntry(h, 1), (Colour{10, 200, 31}));
        EXPECT_EQ(PaletteEntry(h, 2), (Colour{250, 0, 128}));
        Indices got = ResultIndices(h, 8);
        const int expected[3] = {0, 2, 1};
        for (int y = 0; y < 2; y++)
            for (int x = 0; x < 6; x++)
                EXPECT_EQ(got[y][x], expected[(x + y) % 3]);
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part4_1_Palette, WhiteMapsTo255AndBlackTo0)
{
    for (int bits : {24, 32}) {
        int32_t h = NewImage(5, 4, bits);
        ImgDescriptor *d = ImgTableGet(h);
        for (int y = 0; y < 4; y++)
            std::memset(Pixels(d) + y * d->stride, y < 2 ? 255 : 0, (size_t)d->stride);
        ASSERT_EQ(IMG_mediancut_color(h), 0);
        Indices got = ResultIndices(h, 8);
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 5; x++)
                EXPECT_EQ(got[y][x], y < 2 ? 255 : 0);
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part4_1_Palette, RowZeroRunsLeftToRightAndTheLastRowDiffusesIntoADiscardedCopy)
{
    // One row of two pixels, blue 127 (green, red 0).  Left to right: x = 0
    // takes 127 >> 6 = 1 (blue 85), error 42, 42 >> 2 = 10 to x = 1:
    // 137 >> 6 = 2.  Right to left would give 2 at x = 1 first.
    int32_t h = NewImage(2, 1, 24);
    uint8_t *p = Pixels(ImgTableGet(h));
    p[0] = 127, p[3] = 127;
    ASSERT_EQ(IMG_mediancut_color(h), 0);
    Indices got = ResultIndices(h, 8);
    EXPECT_EQ(got[0][0], 1);
    EXPECT_EQ(got[0][1], 2);
    IMG_delete_bitmap(h);

    // Two such rows: row 1 gets x = 0's 1/4 (10) at x = 0 and 1/8 (5) at x = 1;
    // x = 1 (137 -> 2, blue 170, error -33) gives -33 >> 3 = -5 at x = 0 and
    // -33 >> 2 = -9 at x = 1: row 1 holds 132 and 123.  Right to left: x = 1
    // is 123 -> 1 (error 38, 38 >> 2 = 9 to x = 0), x = 0 is 141 -> 2.
    // Row 1's errors go into a copy of row 1, which is discarded.
    h = NewImage(2, 2, 24);
    ImgDescriptor *d = ImgTableGet(h);
    Pixels(d)[0] = Pixels(d)[3] = 127;
    Pixels(d)[d->stride] = Pixels(d)[d->stride + 3] = 127;
    ASSERT_EQ(IMG_mediancut_color(h), 0);
    got = ResultIndices(h, 8);
    EXPECT_EQ(got[0][0], 1);
    EXPECT_EQ(got[0][1], 2);
    EXPECT_EQ(got[1][0], 2);
    EXPECT_EQ(got[1][1], 1);
}

TEST_F(Part4_1_Palette, OctreeRowZeroRunsLeftToRight)
{
    // A colour list of black and blue 200 (B only), a row of blue 100, 100.
    // Both leaves are at level 7 (two colours); 100 = 0b01100100 misses the
    // tree at level 0 (bit 7 is 0, black's child, then bit 6 = 1: missing),
    // so the nearest search: halved 50 vs 0 -> 2500, vs 100 -> 2500: tie,
    // entry 0 (black, first in walk order) wins.  Error 100, 100 * 7 / 16 = 43
    // to x = 1: 143 = 0b10001111 follows blue's path at level 0 then misses:
    // halved 71: 71^2 = 5041 vs 29^2 = 841: entry 1.
    int32_t h = NewImage(2, 1, 24);
    uint8_t *p = Pixels(ImgTableGet(h));
    p[0] = 100, p[3] = 100;
    const uint8_t list[8] = {0, 0, 0, 0, 200, 0, 0, 0};
    ASSERT_EQ(IMG_octree_color(h, 8, list, 2), 2);
    Indices got = ResultIndices(h, 8);
    EXPECT_EQ(got[0][0], 0);
    EXPECT_EQ(got[0][1], 1);
}

// ======================= refusals, failures, progress =======================

TEST_F(Part4_1_Palette, SixteenBitSourcesRejectedWithMinus7)
{
    int32_t h = NewImage(4, 4, 16);
    auto bytes = Snapshot(h);
    EXPECT_EQ(IMG_mediancut_color(h), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_octree_color(h, 8, nullptr, 256), IMG_ERR_TYPE);
    EXPECT_EQ(Snapshot(h), bytes);
}

TEST_F(Part4_1_Palette, OctreeRejectsDepthsBelow5AndBadHandles)
{
    for (int bits : {1, 4}) {
        int32_t h = NewImage(4, 4, bits);
        EXPECT_EQ(IMG_octree_color(h, 8, nullptr, 256), IMG_ERR_TYPE);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_octree_color(7, 8, nullptr, 256), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_octree_color(-1, 8, nullptr, 256), IMG_ERR_HANDLE);
    // Not validated by the Part (it indexes the table); here -13 (DEVIATIONS.md).
    EXPECT_EQ(IMG_mediancut_color(7), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_popularity_color(7), IMG_ERR_HANDLE);
}

TEST_F(Part4_1_Palette, OctreeOutputDepthOtherThan4Or8IsRefused)
{
    int32_t h = NewImage(4, 4, 24);
    auto bytes = Snapshot(h);
    for (int bits : {0, 1, 5, 16, 24})
        EXPECT_EQ(IMG_octree_color(h, bits, nullptr, 256), IMG_ERR_TYPE) << bits;
    EXPECT_EQ(Snapshot(h), bytes);
}

TEST_F(Part4_1_Palette, OctreePoolsExhaustedGiveMinus1InsteadOfHanging)
{
    // 256 colours with distinct top 3 bits per component in pairs, covering all
    // 64 level-1 nodes: 1 + 8 + 64 + 6 * 256 = 1609 nodes, more than the two
    // pools' 1600.  The Part's scan would never end (DEVIATIONS.md).
    std::vector<uint8_t> list(4 * 256, 0);
    for (int k = 0; k < 256; k++) {
        int prefix = k & 63, extension = k >> 6; // 6 bits of levels 0-1, 2 of level 2's 3
        int b = ((prefix >> 5) & 1) << 7 | ((prefix >> 2) & 1) << 6 | ((extension >> 1) & 1) << 5;
        int g = ((prefix >> 4) & 1) << 7 | ((prefix >> 1) & 1) << 6 | (extension & 1) << 5;
        int r = ((prefix >> 3) & 1) << 7 | (prefix & 1) << 6;
        list[4 * k] = (uint8_t)b, list[4 * k + 1] = (uint8_t)g, list[4 * k + 2] = (uint8_t)r;
    }
    int32_t h = NewImage(4, 4, 24);
    auto bytes = Snapshot(h);
    EXPECT_EQ(IMG_octree_color(h, 8, list.data(), 256), IMG_ERR_MEMORY);
    EXPECT_EQ(Snapshot(h), bytes);
    EXPECT_EQ(ImgTrackedCount(), 0);
    // 250 of them make 1 + 8 + 64 + 6 * 250 = 1573 nodes and succeed, the
    // odd levels' 64 + 3 * 250 = 814 nodes spilling into the even pool.
    EXPECT_EQ(IMG_octree_color(h, 8, list.data(), 250), 250);
}

TEST_F(Part4_1_Palette, ProgressPerRowAndNegativeAborts)
{
    std::mt19937 rng(9);
    struct Case {
        const char *name;
        int32_t (*run)(int32_t);
        int32_t totalFactor;
    };
    const Case cases[] = {
        {"fixed", [](int32_t h) { return IMG_mediancut_color(h); }, 1},
        {"popularity", [](int32_t h) { return IMG_popularity_color(h); }, 1},
        {"octree", [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 64); }, 2},
        {"octree list", [](int32_t h) {
             static const uint8_t list[8] = {1, 2, 3, 0, 200, 100, 50, 0};
             return IMG_octree_color(h, 4, list, 2);
         }, 2},
    };
    for (const Case &c : cases) {
        int32_t h = RandomImage(rng, 9, 6, 24);
        {
            ProgressOn on(0);
            int32_t result = c.run(h);
            EXPECT_GE(result, 0) << c.name;
            // The octree reports each row of the build and of the mapping,
            // except that a colour list has no build rows.
            int32_t expectedCalls = std::string(c.name) == "octree" ? 12 : 6;
            EXPECT_EQ(progressCalls, expectedCalls) << c.name;
            EXPECT_EQ(progressTotal, 6 * c.totalFactor) << c.name;
        }
        IMG_delete_bitmap(h);
        for (int32_t abortAt : {1, 4, 6}) {
            h = RandomImage(rng, 9, 6, 24);
            auto bytes = Snapshot(h);
            uint8_t *block = ImgTableGet(h)->dib;
            ProgressOn on(abortAt);
            EXPECT_EQ(c.run(h), -77) << c.name << " " << abortAt;
            EXPECT_EQ(ImgTableGet(h)->dib, block);
            EXPECT_EQ(Snapshot(h), bytes);
            EXPECT_EQ(ImgTrackedCount(), 0);
            IMG_delete_bitmap(h);
        }
    }
}

TEST_F(Part4_1_Palette, AllocationFailuresKeepTheOldBitmap)
{
    std::mt19937 rng(10);
    for (int op = 0; op < 3; op++)
        for (int countdown = 0; countdown < 16; countdown++) {
            int32_t h = RandomImage(rng, 11, 5, op == 2 ? 8 : 24);
            auto bytes = Snapshot(h);
            ImgTestFailAllocations(countdown);
            int32_t result = op == 0   ? IMG_mediancut_color(h)
                             : op == 1 ? IMG_popularity_color(h)
                                       : IMG_octree_color(h, 8, nullptr, 256);
            ImgTestFailAllocations(-1);
            EXPECT_EQ(ImgTrackedCount(), 0);
            if (result == IMG_ERR_MEMORY)
                EXPECT_EQ(Snapshot(h), bytes) << op << " " << countdown;
            else
                EXPECT_GE(result, 0) << op << " " << countdown;
            IMG_delete_bitmap(h);
        }
}

TEST_F(Part4_1_Palette, OctreeColourListFillsThePaletteRoom)
{
    // Ten list colours with distinct level-0 paths of at most eight: the
    // maximum is 8, so the tree reduces; the palette room keeps the caller's
    // entries past those the walk made.
    std::vector<uint8_t> list(4 * 10);
    for (int i = 0; i < 10; i++) {
        list[4 * i] = (uint8_t)(i * 25), list[4 * i + 1] = (uint8_t)(255 - i * 20);
        list[4 * i + 2] = (uint8_t)(i * 7), list[4 * i + 3] = (uint8_t)(0xA0 + i);
    }
    std::mt19937 rng(11);
    int32_t h = RandomImage(rng, 5, 5, 24);
    Colours src = SourceColours(h);
    int32_t made = IMG_octree_color(h, 8, list.data(), 10);
    NaiveOctree model(10);
    for (int i = 0; i < 10; i++)
        model.Insert({list[4 * i], list[4 * i + 1], list[4 * i + 2]});
    model.PaletteWalk(0);
    ASSERT_EQ(made, (int32_t)model.palette.size());
    const uint8_t *room = ImgTableGet(h)->dib + 40;
    for (int i = 0; i < made; i++)
        EXPECT_EQ(PaletteEntry(h, i), model.palette[i]);
    for (int i = made; i < 10; i++)
        EXPECT_EQ(0, std::memcmp(room + 4 * i, &list[4 * i], 4)) << i;
    for (int i = 10; i < 256; i++)
        EXPECT_EQ(room[4 * i] | room[4 * i + 1] | room[4 * i + 2] | room[4 * i + 3], 0) << i;
    EXPECT_EQ(ResultIndices(h, 8), model.Map(src));
}

// ======================= against the naive models =======================

TEST_F(Part4_1_Palette, FixedPaletteAgreesWithNaiveModel)
{
    std::mt19937 rng(41);
    for (int bits : {4, 8, 24, 32})
        for (auto [w, hgt] : kSizes)
            for (int smooth = 0; smooth < 2; smooth++) {
                if (smooth && bits < 24)
                    continue;
                int32_t h = smooth ? SmoothImage(rng, w, hgt, bits) : RandomImage(rng, w, hgt, bits);
                Colours src = SourceColours(h);
                ASSERT_EQ(IMG_mediancut_color(h), 0);
                EXPECT_EQ(ResultIndices(h, 8), NaiveFixed(src)) << bits << " " << w << "x" << hgt;
                for (int i = 0; i < 256; i++)
                    EXPECT_EQ(PaletteEntry(h, i), FixedEntry(i));
                IMG_delete_bitmap(h);
            }
}

TEST_F(Part4_1_Palette, PopularityAgreesWithNaiveModel)
{
    std::mt19937 rng(42);
    for (int bits : {24, 32})
        for (auto [w, hgt] : kSizes)
            for (int smooth = 0; smooth < 2; smooth++) {
                int32_t h = smooth ? SmoothImage(rng, w, hgt, bits) : RandomImage(rng, w, hgt, bits);
                Colours src = SourceColours(h);
                ASSERT_EQ(IMG_popularity_color(h), 0);
                NaivePopularResult model = NaivePopularity(src);
                for (int i = 0; i < 256; i++) {
                    int b = model.bins[i];
                    EXPECT_EQ(PaletteEntry(h, i), (Colour{(b % 16) * 16, (b / 16 % 16) * 16, (b / 256) * 16}));
                }
                EXPECT_EQ(ResultIndices(h, 8), model.indices) << bits << " " << w << "x" << hgt;
                IMG_delete_bitmap(h);
            }
}

TEST_F(Part4_1_Palette, OctreeAgreesWithNaiveModel)
{
    std::mt19937 rng(43);
    std::vector<std::pair<int32_t, int32_t>> sizes = kSizes;
    sizes.push_back({97, 41});
    for (int bits : {8, 24, 32})
        for (int outBits : {4, 8})
            for (int32_t count : {3, 16, 100, 256})
                for (auto [w, hgt] : sizes)
                    for (int smooth = 0; smooth < 2; smooth++) {
                        if (smooth && bits == 8)
                            continue;
                        int32_t h = smooth ? SmoothImage(rng, w, hgt, bits) : RandomImage(rng, w, hgt, bits);
                        Colours src = SourceColours(h);
                        int32_t made = IMG_octree_color(h, outBits, nullptr, count);
                        NaiveOctree model(count);
                        for (auto &row : src)
                            for (auto &c : row)
                                model.Insert(c);
                        model.PaletteWalk(0);
                        std::string what = std::to_string(bits) + "->" + std::to_string(outBits) + " n" +
                                           std::to_string(count) + " " + std::to_string(w) + "x" +
                                           std::to_string(hgt);
                        ASSERT_EQ(made, (int32_t)model.palette.size()) << what;
                        int room = outBits == 4 ? 16 : 256;
                        for (int i = 0; i < std::min(made, room); i++)
                            EXPECT_EQ(PaletteEntry(h, i), model.palette[i]) << what << " entry " << i;
                        Indices expected = model.Map(src);
                        if (outBits == 4) // step 8: the even pixel as index x 16, the odd one ORed in
                            for (auto &row : expected) {
                                std::vector<uint8_t> packed((row.size() + 1) / 2, 0);
                                for (size_t x = 0; x < row.size(); x++)
                                    packed[x / 2] = x % 2 ? (uint8_t)(packed[x / 2] | row[x])
                                                          : (uint8_t)(row[x] * 16);
                                for (size_t x = 0; x < row.size(); x++)
                                    row[x] = x % 2 ? packed[x / 2] & 15 : packed[x / 2] >> 4;
                            }
                        EXPECT_EQ(ResultIndices(h, outBits), expected) << what;
                        IMG_delete_bitmap(h);
                    }
}

TEST_F(Part4_1_Palette, OctreeLargePicturesAgreeWithNaiveModel)
{
    // From 65536 pixels on the library remembers its nearest-colour searches.
    std::mt19937 rng(45);
    for (int smooth = 0; smooth < 2; smooth++) {
        int32_t h = smooth ? SmoothImage(rng, 301, 219, 24) : RandomImage(rng, 257, 256, 32);
        Colours src = SourceColours(h);
        int32_t count = smooth ? 256 : 40;
        int32_t made = IMG_octree_color(h, 8, nullptr, count);
        NaiveOctree model(count);
        for (auto &row : src)
            for (auto &c : row)
                model.Insert(c);
        model.PaletteWalk(0);
        ASSERT_EQ(made, (int32_t)model.palette.size());
        for (int i = 0; i < made; i++)
            EXPECT_EQ(PaletteEntry(h, i), model.palette[i]);
        EXPECT_EQ(ResultIndices(h, 8), model.Map(src)) << smooth;
        IMG_delete_bitmap(h);
    }
}

TEST_F(Part4_1_Palette, OctreeEmptyColourListMakesNoEntries)
{
    // A colour list of count 0: nothing is inserted, the walk makes no entry,
    // every pixel's search over no entries keeps index 0 (a choice: DEVIATIONS.md).
    int32_t h = NewImage(3, 2, 24);
    const uint8_t list[4] = {9, 9, 9, 0};
    EXPECT_EQ(IMG_octree_color(h, 8, list, 0), 0);
    for (auto &row : ResultIndices(h, 8))
        for (int v : row)
            EXPECT_EQ(v, 0);
    EXPECT_EQ(PaletteEntry(h, 0), (Colour{0, 0, 0}));
}

TEST_F(Part4_1_Palette, OctreeWithColourListAgreesWithNaiveModel)
{
    std::mt19937 rng(44);
    for (int bits : {8, 24, 32})
        for (int32_t count : {1, 5, 40, 300})
            for (auto [w, hgt] : kSizes) {
                int32_t h = RandomImage(rng, w, hgt, bits);
                Colours src = SourceColours(h);
                std::vector<uint8_t> list(4 * (size_t)count);
                for (auto &v : list)
                    v = (uint8_t)rng();
                int32_t made = IMG_octree_color(h, 8, list.data(), count);
                NaiveOctree model(count);
                for (int32_t i = 0; i < count; i++)
                    model.Insert({list[4 * i], list[4 * i + 1], list[4 * i + 2]});
                model.PaletteWalk(0);
                ASSERT_EQ(made, (int32_t)model.palette.size());
                for (int i = 0; i < made; i++)
                    EXPECT_EQ(PaletteEntry(h, i), model.palette[i]);
                EXPECT_EQ(ResultIndices(h, 8), model.Map(src)) << bits << " " << count;
                IMG_delete_bitmap(h);
            }
}

} // namespace
