/*
 * palette.cpp - palette selection.
 *
 * IMG_mediancut_color: the fixed 3-3-2 palette with serpentine error
 * diffusion by shifts.  IMG_popularity_color: the 255 most frequent 12-bit
 * colours plus black, nearest colour without diffusion.  IMG_octree_color: an
 * adaptive octree palette of 8 to 256 colours with serpentine Floyd-Steinberg
 * diffusion, 4- or 8-bit output.
 *
 * The common frame: the working buffers are tracked allocations, the new
 * bitmap is built beside the old one and installed only when every row is
 * written; any failure or a negative progress result leaves the image as it
 * was.  Every operation ends with ImgFreeAllTracked.  Hostile or
 * degenerate input is handled as docs/DEVIATIONS.md lists under palette
 * selection; each
 * such place carries a "hardening" comment.
 */
#include "color/palette.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "core/guard.h"
#include "core/progress.h"
#include "core/dib.h"
#include "core/image_table.h"
#include "core/imgapi.h"
#include "core/imgio.h"

#define PALETTE_ENTRIES 256
#define OCTREE_POOL_NODES 800
#define OCTREE_SLACK 2000
#define OCTREE_SLOTS 3
#define NEAREST_START 65535u
#define NEAREST_CACHE_PIXELS 65536 /* pictures from this size on remember searches */
#define BLOCK_LIMIT 0x7FFFFFFFu /* the largest bitmap a descriptor records */

/* ---- the source image ---- */

typedef struct Source {
    ImgDescriptor *d;
    int bits;
    const uint8_t *palette; /* B, G, R, 0 entries of a 4- or 8-bit source */
    const uint8_t *pixels;  /* storage row 0 */
    uint8_t *scratch;       /* one source stride (tracked) */
} Source;

/* The image behind `handle` when its depth is one `accepts` allows (a bit
 * mask of depths 1..32).  Run-coded images are 1-bit, so every operation here
 * rejects them with -7.  hardening: a bad handle gives -13 and a descriptor
 * whose geometry does not fit its block -3 (docs/DEVIATIONS.md). */
static int OpenSource(int32_t handle, uint64_t accepts, Source *s)
{
    ImgDescriptor *d = ImgTableGet(handle);
    if (!d)
        return IMG_ERR_HANDLE;
    if (!d->dib)
        return IMG_ERR_MEMORY;
    int bits = ImgDescriptorBits(d);
    if (d->codedRows || bits < 1 || bits > 32 || !(accepts & ((uint64_t)1 << bits)))
        return IMG_ERR_TYPE;
    if (d->width < 1 || d->height < 1 || d->stride < 0)
        return IMG_ERR_INVALID;
    uint64_t rowBytes = ((uint64_t)d->width * (uint64_t)bits + 7) / 8;
    uint64_t end = ImgDescriptorBitsOffset(d) + (uint64_t)d->stride * (uint64_t)d->height;
    if ((uint64_t)d->stride < rowBytes || end > d->dibSize)
        return IMG_ERR_INVALID;
    s->d = d;
    s->bits = bits;
    s->palette = d->dib + DIB_HEADER_SIZE;
    s->pixels = d->dib + ImgDescriptorBitsOffset(d);
    s->scratch = static_cast<uint8_t *>(ImgAllocTracked((size_t)d->stride + 4));
    return s->scratch ? 0 : IMG_ERR_MEMORY;
}

#define DEPTH(b) ((uint64_t)1 << (b))

/* Source row y (storage order; a row past the last reads as the last): its
 * stride copied, a 32-bit row packed to 24-bit triples in place. */
static const uint8_t *FetchRow(const Source *s, int32_t y)
{
    if (y >= s->d->height)
        y = s->d->height - 1;
    uint8_t *row = s->scratch;
    memcpy(row, s->pixels + (size_t)y * (size_t)s->d->stride, (size_t)s->d->stride);
    if (s->bits == 32)
        for (int32_t x = 0; x < s->d->width; x++) {
            row[3 * x] = row[4 * x];
            row[3 * x + 1] = row[4 * x + 1];
            row[3 * x + 2] = row[4 * x + 2];
        }
    return row;
}

/* The B, G, R bytes of pixel x of a fetched row: 4- and 8-bit pixels through
 * the palette (the high nibble is the first of two), others as triples. */
static const uint8_t *PixelColour(const Source *s, const uint8_t *row, int32_t x)
{
    switch (s->bits) {
    case 4: return s->palette + 4 * ((x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4);
    case 8: return s->palette + 4 * row[x];
    default: return row + 3 * (size_t)x;
    }
}

/* Loads source row y into an accumulator row of `slots` int32 per pixel with
 * PALETTE_MARGIN pixels of margin at each end (cleared).  With four slots the
 * fourth is the luminance (75 G + 38 R + 14 B) >> 7, lowered by 40 and floored
 * at 0 except for 4-bit sources. */
static void LoadColourRow(const Source *s, int32_t y, int32_t *accumulator, int slots)
{
    const uint8_t *row = FetchRow(s, y);
    int32_t width = s->d->width;
    size_t margin = (size_t)PALETTE_MARGIN * (size_t)slots;
    memset(accumulator, 0, margin * sizeof *accumulator);
    memset(accumulator + margin + (size_t)width * (size_t)slots, 0, margin * sizeof *accumulator);
    int32_t *p = accumulator + margin;
    for (int32_t x = 0; x < width; x++, p += slots) {
        const uint8_t *c = PixelColour(s, row, x);
        p[0] = c[0];
        p[1] = c[1];
        p[2] = c[2];
        if (slots == PALETTE_FIXED_SLOTS) {
            int32_t luminance = (75 * c[1] + 38 * c[2] + 14 * c[0]) >> 7;
            if (s->bits != 4)
                luminance = luminance > 40 ? luminance - 40 : 0;
            p[3] = luminance;
        }
    }
}

/* Between rows of a diffusion: the next row becomes the current one.  The
 * rows are swapped rather than copied; the old current row is then loaded
 * whole (margins included), which gives the same contents. */
static void SwapRows(int32_t **current, int32_t **next)
{
    int32_t *t = *current;
    *current = *next;
    *next = t;
}

static size_t AccumulatorInts(int32_t width, int slots)
{
    return ((size_t)width + 2 * PALETTE_MARGIN) * (size_t)slots;
}

/* ---- the common frame ---- */

/* The new bitmap: the old 40-byte header, `paletteBytes` of palette room
 * (zeroed), height rows of `stride`, `slack` bytes (zeroed). */
static uint8_t *NewBitmap(const ImgDescriptor *d, uint32_t paletteBytes, uint32_t stride,
                          uint32_t slack, uint32_t *size)
{
    uint64_t total = DIB_HEADER_SIZE + (uint64_t)paletteBytes + (uint64_t)stride * (uint64_t)d->height + slack;
    if (total > BLOCK_LIMIT || total > SIZE_MAX) /* hardening: 32-bit sizes */
        return NULL;
    uint8_t *bitmap = static_cast<uint8_t *>(ImgAlloc((size_t)total));
    if (!bitmap)
        return NULL;
    memcpy(bitmap, d->dib, DIB_HEADER_SIZE);
    memset(bitmap + DIB_HEADER_SIZE, 0, paletteBytes);
    memset(bitmap + total - slack, 0, slack);
    *size = (uint32_t)total;
    return bitmap;
}

/* The progress report and storing of one output row; a negative progress
 * result is returned as it is. */
static int StoreRow(uint8_t *bitmap, uint32_t paletteBytes, uint32_t stride, int32_t y,
                    const uint8_t *row, int32_t total)
{
    int result = ImgReportProgress(total);
    if (result < 0)
        return result;
    memcpy(bitmap + DIB_HEADER_SIZE + paletteBytes + (size_t)y * stride, row, stride);
    return 0;
}

/* The end of an operation: the old bitmap freed, the new one installed with
 * its stride, bit count and image size. */
static void Install(ImgDescriptor *d, uint8_t *bitmap, uint32_t size, uint32_t stride, int bits)
{
    BITMAPINFOHEADER header;
    memcpy(&header, bitmap, sizeof header);
    header.biBitCount = (uint16_t)bits;
    header.biSizeImage = stride * (uint32_t)d->height;
    memcpy(bitmap, &header, sizeof header);
    ImgDescriptorReplaceDib(d, bitmap, size);
    d->stride = (int32_t)stride;
}

/* Ends an operation: the temporaries released, the result passed on. */
static int32_t Finish(int32_t result)
{
    ImgFreeAllTracked();
    return result;
}

static inline int32_t Clamp255(int32_t v)
{
    return v < 0 ? 0 : v > 255 ? 255 : v;
}

/* An arithmetic right shift (rounding toward minus infinity) that does not
 * depend on how the compiler shifts negative numbers. */
static inline int32_t FloorShift(int32_t v, int k)
{
    return v >= 0 ? v >> k : ~(~v >> k);
}

/* ---- IMG_mediancut_color: the fixed 3-3-2 palette ---- */

/* Component levels of the palette: k * 255 / 3 and k * 255 / 7. */
static const int32_t level3[4] = {0, 85, 170, 255};
static const int32_t level7[8] = {0, 36, 72, 109, 145, 182, 218, 255};

void PaletteFixedEntries(uint8_t *palette)
{
    for (int i = 0; i < PALETTE_ENTRIES; i++) {
        palette[4 * i] = (uint8_t)((i & 3) * 255 / 3);
        palette[4 * i + 1] = (uint8_t)(((i >> 2) & 7) * 255 / 7);
        palette[4 * i + 2] = (uint8_t)(((i >> 5) & 7) * 255 / 7);
        palette[4 * i + 3] = 0;
    }
}

/* Spreads one component's error: 1/4 and 1/8 ahead on the same row, 1/16,
 * 1/8, 1/4, 1/8, 1/16 on the next row at x-2..x+2. */
static inline void SpreadByShifts(int32_t *p, int32_t *q, ptrdiff_t ahead, int32_t error)
{
    const ptrdiff_t s = PALETTE_FIXED_SLOTS;
    int32_t quarter = FloorShift(error, 2), eighth = FloorShift(error, 3),
            sixteenth = FloorShift(error, 4);
    p[ahead] += quarter;
    p[2 * ahead] += eighth;
    q[-2 * s] += sixteenth;
    q[-s] += eighth;
    q[0] += quarter;
    q[s] += eighth;
    q[2 * s] += sixteenth;
}

void PaletteFixedDiffuseRow(int32_t *current, int32_t *next, int32_t width, int32_t row,
                            uint8_t *indices)
{
    const ptrdiff_t s = PALETTE_FIXED_SLOTS;
    int step = (row & 1) ? -1 : 1;
    int32_t x = step > 0 ? 0 : width - 1;
    for (int32_t n = 0; n < width; n++, x += step) {
        int32_t *p = current + ((ptrdiff_t)x + PALETTE_MARGIN) * s;
        int32_t *q = next + ((ptrdiff_t)x + PALETTE_MARGIN) * s;
        int32_t b = Clamp255(p[0]), g = Clamp255(p[1]), r = Clamp255(p[2]);
        indices[x] = (uint8_t)((r & 0xE0) | ((g & 0xE0) >> 3) | (b >> 6));
        int32_t errorB = p[0] - level3[b >> 6];
        int32_t errorG = p[1] - level7[g >> 5];
        int32_t errorR = p[2] - level7[r >> 5];
        SpreadByShifts(p, q, step * s, errorB);
        SpreadByShifts(p + 1, q + 1, step * s, errorG);
        SpreadByShifts(p + 2, q + 2, step * s, errorR);
    }
}

int32_t IMGAPI IMG_mediancut_color(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        Source s;
        int result = OpenSource(handle, DEPTH(4) | DEPTH(8) | DEPTH(24) | DEPTH(32), &s);
        if (result < 0)
            return Finish(result);
        ImgDescriptor *d = s.d;
        uint32_t stride = (uint32_t)DibStride((uint32_t)d->width, 8);
        size_t ints = AccumulatorInts(d->width, PALETTE_FIXED_SLOTS);
        int32_t *current = static_cast<int32_t *>(ImgAllocTracked(ints * sizeof(int32_t)));
        int32_t *next = static_cast<int32_t *>(ImgAllocTracked(ints * sizeof(int32_t)));
        uint8_t *row = static_cast<uint8_t *>(ImgAllocTracked(stride));
        uint32_t size = 0;
        uint8_t *bitmap = current && next && row ? NewBitmap(d, 1024, stride, 0, &size) : NULL;
        if (!bitmap)
            return Finish(IMG_ERR_MEMORY);
        PaletteFixedEntries(bitmap + DIB_HEADER_SIZE);
        memset(row, 0, stride);
        LoadColourRow(&s, 0, current, PALETTE_FIXED_SLOTS);
        LoadColourRow(&s, 1, next, PALETTE_FIXED_SLOTS);
        for (int32_t y = 0; y < d->height; y++) {
            PaletteFixedDiffuseRow(current, next, d->width, y, row);
            SwapRows(&current, &next); /* "copy next over current": the load rewrites all of next */
            LoadColourRow(&s, y + 2, next, PALETTE_FIXED_SLOTS);
            result = StoreRow(bitmap, 1024, stride, y, row, d->height);
            if (result < 0) {
                ImgFree(bitmap);
                return Finish(result);
            }
        }
        Install(d, bitmap, size, stride, 8);
        return Finish(0);
    });
}

/* ---- IMG_popularity_color ---- */

static unsigned Bin12(const uint8_t *bgr)
{
    return ((unsigned)(bgr[2] >> 4) << 8) | ((unsigned)(bgr[1] >> 4) << 4) | (unsigned)(bgr[0] >> 4);
}

/* The popularity palette: entry 0 is bin 0; then 255 times the bin of the
 * largest count, the highest-numbered bin winning among equals (bin 4095 when all are 0). */
static void ChoosePopular(uint16_t *histogram, uint16_t *list)
{
    list[0] = 0;
    for (int k = 1; k < PALETTE_ENTRIES; k++) {
        unsigned best = 0, bestCount = 0;
        for (unsigned b = 0; b < 4096; b++)
            if (histogram[b] >= bestCount) {
                bestCount = histogram[b];
                best = b;
            }
        list[k] = (uint16_t)best;
        histogram[best] = 0;
    }
}

/* The popularity mapping of one 12-bit colour: the nearest entry by doubled nibbles, the
 * lowest index winning ties, stopping at the first exact match. */
static uint8_t NearestPopular(unsigned bin, const uint16_t *list)
{
    int32_t r = (int32_t)(bin >> 8), g = (int32_t)((bin >> 4) & 15), b = (int32_t)(bin & 15);
    uint32_t best = NEAREST_START;
    int index = 0;
    for (int i = 0; i < PALETTE_ENTRIES; i++) {
        int32_t dr = 2 * (r - (list[i] >> 8)), dg = 2 * (g - ((list[i] >> 4) & 15)),
                db = 2 * (b - (list[i] & 15));
        uint32_t distance = (uint32_t)(dr * dr + dg * dg + db * db);
        if (distance < best) {
            best = distance;
            index = i;
            if (distance == 0)
                break;
        }
    }
    return (uint8_t)index;
}

int32_t IMGAPI IMG_popularity_color(int32_t handle)
{
    return Guarded([&]() -> int32_t {
        Source s;
        int result = OpenSource(handle, DEPTH(24) | DEPTH(32), &s);
        if (result < 0)
            return Finish(result);
        ImgDescriptor *d = s.d;
        uint32_t stride = (uint32_t)DibStride((uint32_t)d->width, 8);
        uint16_t *histogram = static_cast<uint16_t *>(ImgAllocTracked(4096 * sizeof(uint16_t)));
        uint16_t *list = static_cast<uint16_t *>(ImgAllocTracked(PALETTE_ENTRIES * sizeof(uint16_t)));
        uint8_t *nearest = static_cast<uint8_t *>(ImgAllocTracked(4096)); /* NearestPopular for every 12-bit colour */
        uint8_t *row = static_cast<uint8_t *>(ImgAllocTracked(stride));
        uint32_t size = 0;
        uint8_t *bitmap =
            histogram && list && nearest && row ? NewBitmap(d, 1024, stride, 0, &size) : NULL;
        if (!bitmap)
            return Finish(IMG_ERR_MEMORY);
        memset(histogram, 0, 4096 * sizeof(uint16_t));
        for (int32_t y = 0; y < d->height; y++) {
            const uint8_t *source = FetchRow(&s, y);
            for (int32_t x = 0; x < d->width; x++)
                histogram[Bin12(source + 3 * (size_t)x)]++; /* wraps at 65536 */
        }
        ChoosePopular(histogram, list);
        uint8_t *palette = bitmap + DIB_HEADER_SIZE;
        for (int i = 0; i < PALETTE_ENTRIES; i++) {
            palette[4 * i] = (uint8_t)((list[i] & 15) << 4);
            palette[4 * i + 1] = (uint8_t)(((list[i] >> 4) & 15) << 4);
            palette[4 * i + 2] = (uint8_t)((list[i] >> 8) << 4);
            palette[4 * i + 3] = 0;
        }
        for (unsigned bin = 0; bin < 4096; bin++)
            nearest[bin] = NearestPopular(bin, list);
        memset(row, 0, stride);
        for (int32_t y = 0; y < d->height; y++) {
            const uint8_t *source = FetchRow(&s, y);
            for (int32_t x = 0; x < d->width; x++)
                row[x] = nearest[Bin12(source + 3 * (size_t)x)];
            result = StoreRow(bitmap, 1024, stride, y, row, d->height);
            if (result < 0) {
                ImgFree(bitmap);
                return Finish(result);
            }
        }
        Install(d, bitmap, size, stride, 8);
        return Finish(0);
    });
}

/* ---- IMG_octree_color ---- */

typedef struct OctreeNode {
    uint32_t paletteIndex;
    uint32_t pixelCount; /* non-zero marks a leaf */
    uint32_t redSum, greenSum, blueSum;
    int32_t level; /* root -1, its children 0, down to 7 */
    uint32_t childCount;
    struct OctreeNode *children[8];
    struct OctreeNode *next, *previous; /* the level's reducible list */
    uint32_t inUse;
} OctreeNode;

typedef struct OctreeQuantizer {
    int32_t leafCount;
    int32_t maxColours;
    int32_t oddCursor, evenCursor;
    int32_t reductionLevel;
    OctreeNode *root, *oddPool, *evenPool;
    int32_t unusedA[256], unusedB[256]; /* zeroed; no step reads them */
    OctreeNode *reducible[8];
} OctreeQuantizer;

/* The mapping's state beside the tree: the palette made and the nearest
 * search's squares. */
typedef struct OctreeMap {
    uint8_t palette[PALETTE_ENTRIES][4]; /* B, G, R, 0 */
    int32_t entries;
    uint32_t squares[257]; /* slot d + 128 holds d * d */
    int16_t *nearest;      /* per halved colour: -1 not yet searched, else the entry */
} OctreeMap;

/* The path of a colour: bit 7 - L of c0, c1, c2 as the index at level L.
 * All eight indices are interleaved once into a 24-bit code (3 bits a
 * level, level 0 highest) by a table of spread bits. */
static uint32_t spreadBits[256];

static void BuildSpreadBits(void)
{
    for (unsigned v = 0; v < 256; v++) {
        uint32_t spread = 0;
        for (int bit = 0; bit < 8; bit++)
            spread |= ((v >> bit) & 1u) << (3 * bit);
        spreadBits[v] = spread;
    }
}

static inline uint32_t PathCode(const uint8_t *c)
{
    return spreadBits[c[0]] << 2 | spreadBits[c[1]] << 1 | spreadBits[c[2]];
}

static inline unsigned PathIndex(uint32_t code, int level)
{
    return (code >> (3 * (7 - level))) & 7u;
}

/* A free node for `level` from the pool of its parity (the root
 * passes its side).  hardening: a plain scan would never end when both
 * pools are full; after visiting every node it gives NULL (-1). */
static OctreeNode *OctreeTakeNode(OctreeQuantizer *q, int odd, int32_t level)
{
    OctreeNode *pool = odd ? q->oddPool : q->evenPool;
    int32_t i = odd ? q->oddCursor : q->evenCursor;
    int side = odd;
    for (int32_t steps = 0; pool[i].inUse; steps++) {
        if (steps >= 3 * OCTREE_POOL_NODES)
            return NULL;
        /* At a pool's end: index 0 of the pool `side` names, then `side`
         * flips, so the first wrap stays in the same pool. */
        if (++i == OCTREE_POOL_NODES) {
            i = 0;
            pool = side ? q->oddPool : q->evenPool;
            side = !side;
        }
    }
    if (side)
        q->oddCursor = i;
    else
        q->evenCursor = i;
    OctreeNode *node = &pool[i];
    memset(node, 0, sizeof *node);
    node->inUse = 1;
    node->level = level;
    return node;
}

static void OctreeFreeNode(OctreeNode *node)
{
    memset(node, 0, sizeof *node); /* clears the in-use flag too */
}

/* A new quantizer for up to `count` colours. */
static int OctreeCreate(OctreeQuantizer **out, int32_t count)
{
    OctreeQuantizer *q = static_cast<OctreeQuantizer *>(ImgAllocTracked(sizeof *q));
    OctreeNode *odd = static_cast<OctreeNode *>(ImgAllocTracked(OCTREE_POOL_NODES * sizeof(OctreeNode)));
    OctreeNode *even = static_cast<OctreeNode *>(ImgAllocTracked(OCTREE_POOL_NODES * sizeof(OctreeNode)));
    if (!q || !odd || !even)
        return IMG_ERR_MEMORY;
    memset(q, 0, sizeof *q);
    memset(odd, 0, OCTREE_POOL_NODES * sizeof(OctreeNode));
    memset(even, 0, OCTREE_POOL_NODES * sizeof(OctreeNode));
    if (!spreadBits[1])
        BuildSpreadBits();
    q->maxColours = count >= 256 ? 256 : count >= 8 ? count : 8;
    q->reductionLevel = 7;
    q->oddPool = odd;
    q->evenPool = even;
    q->root = OctreeTakeNode(q, 0, -1);
    *out = q;
    return 0;
}

/* Walks from the root along the colour's path; stops at a leaf or before a
 * missing child (*missing set). */
static OctreeNode *OctreeWalk(const OctreeQuantizer *q, uint32_t code, int *missing)
{
    OctreeNode *node = q->root;
    *missing = 0;
    for (int level = 0; level < 8 && !node->pixelCount; level++) {
        OctreeNode *child = node->children[PathIndex(code, level)];
        if (!child) {
            *missing = 1;
            break;
        }
        node = child;
    }
    return node;
}

static void OctreeUnlink(OctreeQuantizer *q, OctreeNode *node)
{
    if (node->previous)
        node->previous->next = node->next;
    else if (node->level >= 0 && node->level < 8 && q->reducible[node->level] == node)
        q->reducible[node->level] = node->next;
    else
        return; /* not listed */
    if (node->next)
        node->next->previous = node->previous;
    node->next = node->previous = NULL;
}

static uint32_t ChildCounts(const OctreeNode *node)
{
    uint32_t sum = 0;
    for (int i = 0; i < 8; i++)
        if (node->children[i])
            sum += node->children[i]->pixelCount;
    return sum;
}

/* Folds the least-count node of the deepest reducible list.  0 when
 * every list is empty. */
static int OctreeReduce(OctreeQuantizer *q)
{
    int level = 6;
    while (level >= 0 && !q->reducible[level])
        level--;
    if (level < 0)
        return 0;
    OctreeNode *best = q->reducible[level];
    uint32_t bestSum = ChildCounts(best);
    for (OctreeNode *n = best->next; n; n = n->next) {
        uint32_t sum = ChildCounts(n);
        if (sum < bestSum) {
            best = n;
            bestSum = sum;
        }
    }
    OctreeUnlink(q, best);
    q->reductionLevel = best->level;
    int wasLeaf = best->pixelCount != 0;
    for (int i = 0; i < 8; i++) {
        OctreeNode *child = best->children[i];
        if (!child)
            continue;
        best->pixelCount += child->pixelCount;
        best->redSum += child->redSum;
        best->greenSum += child->greenSum;
        best->blueSum += child->blueSum;
        OctreeUnlink(q, child);
        OctreeFreeNode(child);
        best->children[i] = NULL;
        q->leafCount--;
    }
    best->childCount = 0;
    if (!wasLeaf)
        q->leafCount++;
    return 1;
}

/* Inserts one colour (c[0] blue, c[1] green, c[2] red). */
static int OctreeInsert(OctreeQuantizer *q, const uint8_t *c)
{
    int missing;
    uint32_t code = PathCode(c);
    OctreeNode *node = OctreeWalk(q, code, &missing);
    while (missing && q->leafCount >= q->maxColours && OctreeReduce(q))
        node = OctreeWalk(q, code, &missing);
    if (missing) {
        node = q->root;
        for (int level = 0; level <= q->reductionLevel; level++) {
            unsigned index = PathIndex(code, level);
            OctreeNode *child = node->children[index];
            if (!child) {
                child = OctreeTakeNode(q, level & 1, level);
                if (!child)
                    return IMG_ERR_MEMORY;
                node->childCount++;
                node->children[index] = child;
                if (level < q->reductionLevel) {
                    child->next = q->reducible[level];
                    if (child->next)
                        child->next->previous = child;
                    q->reducible[level] = child;
                }
            }
            node = child;
        }
        q->leafCount++;
    }
    node->redSum += c[2];
    node->greenSum += c[1];
    node->blueSum += c[0];
    node->pixelCount++;
    return 0;
}

/* The palette from the leaves: depth first, a node before its children. */
static void OctreePaletteWalk(OctreeQuantizer *q, OctreeNode *node, OctreeMap *map)
{
    if (q->leafCount >= q->maxColours)
        return;
    if (node->pixelCount) {
        uint32_t count = node->pixelCount;
        uint32_t b = node->blueSum / count, g = node->greenSum / count, r = node->redSum / count;
        node->paletteIndex = (uint32_t)q->leafCount;
        uint8_t *entry = map->palette[q->leafCount];
        entry[0] = (uint8_t)(b > 255 ? 255 : b);
        entry[1] = (uint8_t)(g > 255 ? 255 : g);
        entry[2] = (uint8_t)(r > 255 ? 255 : r);
        entry[3] = 0;
        q->leafCount++;
    }
    for (int i = 0; i < 8; i++)
        if (node->children[i])
            OctreePaletteWalk(q, node->children[i], map);
}

/* Frees the tree: children before parents. */
static void OctreeRelease(OctreeNode *node)
{
    for (int i = 0; i < 8; i++)
        if (node->children[i])
            OctreeRelease(node->children[i]);
    OctreeFreeNode(node);
}

/* The nearest entry by halved components, lowest index winning ties.  The
 * answer depends only on the halved colour, so it is remembered per halved colour
 * (a table of 2^21 entries) once found. */
static unsigned OctreeNearest(OctreeMap *map, const uint8_t *c)
{
    uint32_t key = ((uint32_t)(c[2] >> 1) << 14) | ((uint32_t)(c[1] >> 1) << 7) | (uint32_t)(c[0] >> 1);
    if (map->nearest && map->nearest[key] >= 0)
        return (unsigned)map->nearest[key];
    uint32_t best = NEAREST_START;
    unsigned index = 0;
    for (int32_t i = 0; i < map->entries; i++) {
        const uint8_t *p = map->palette[i];
        uint32_t distance = map->squares[(c[0] >> 1) - (p[0] >> 1) + 128] +
                            map->squares[(c[1] >> 1) - (p[1] >> 1) + 128] +
                            map->squares[(c[2] >> 1) - (p[2] >> 1) + 128];
        if (distance < best) {
            best = distance;
            index = (unsigned)i;
        }
    }
    if (map->nearest)
        map->nearest[key] = (int16_t)index;
    return index;
}

/* The palette index of a clamped colour: the first leaf on its path, else the
 * nearest entry. */
static unsigned OctreeIndex(const OctreeQuantizer *q, OctreeMap *map, const uint8_t *c)
{
    const OctreeNode *node = q->root;
    uint32_t code = PathCode(c);
    for (int level = 0; level < 8; level++) {
        const OctreeNode *child = node->children[PathIndex(code, level)];
        if (!child)
            return OctreeNearest(map, c);
        node = child;
        if (node->pixelCount)
            break;
    }
    return node->paletteIndex;
}

/* Maps one row: serpentine Floyd-Steinberg, signed division by 16
 * truncating toward zero. */
static void OctreeDiffuseRow(const OctreeQuantizer *q, OctreeMap *map, int32_t *current,
                             int32_t *next, int32_t width, int32_t row, uint8_t *indices)
{
    const ptrdiff_t s = OCTREE_SLOTS;
    ptrdiff_t ahead = (row & 1) ? -s : s;
    int32_t x = ahead > 0 ? 0 : width - 1;
    for (int32_t n = 0; n < width; n++, x += ahead > 0 ? 1 : -1) {
        int32_t *p = current + ((ptrdiff_t)x + PALETTE_MARGIN) * s;
        int32_t *below = next + ((ptrdiff_t)x + PALETTE_MARGIN) * s;
        uint8_t c[3] = {(uint8_t)Clamp255(p[0]), (uint8_t)Clamp255(p[1]), (uint8_t)Clamp255(p[2])};
        unsigned index = OctreeIndex(q, map, c);
        indices[x] = (uint8_t)index;
        for (int k = 0; k < 3; k++) {
            int32_t error = (int32_t)c[k] - map->palette[index][k];
            p[ahead + k] += error * 7 / 16;
            below[-ahead + k] += error * 3 / 16;
            below[k] += error * 5 / 16;
            below[ahead + k] += error / 16;
        }
    }
}

/* Indices packed into an output row. */
static void PackIndices(const uint8_t *indices, int32_t width, int bits, uint8_t *row)
{
    if (bits != 4) {
        memcpy(row, indices, (size_t)width);
        return;
    }
    for (int32_t x = 0; x < width; x++) {
        if (x & 1)
            row[x >> 1] |= indices[x];
        else
            row[x >> 1] = (uint8_t)(indices[x] * 16);
    }
}

/* Builds the tree without a colour list: every pixel inserted, a progress report per
 * row (total 2 x height). */
static int OctreeBuildFromImage(OctreeQuantizer *q, const Source *s)
{
    for (int32_t y = 0; y < s->d->height; y++) {
        int result = ImgReportProgress(2 * s->d->height);
        if (result < 0)
            return result;
        const uint8_t *row = FetchRow(s, y);
        for (int32_t x = 0; x < s->d->width; x++) {
            result = OctreeInsert(q, PixelColour(s, row, x));
            if (result < 0)
                return result;
        }
    }
    return 0;
}

/* Builds the tree from a colour list: the entries copied into the palette room (at
 * most the room; hardening) and each inserted. */
static int OctreeBuildFromList(OctreeQuantizer *q, const uint8_t *colours, int32_t count,
                               uint8_t *paletteRoom, uint32_t roomEntries)
{
    uint32_t n = (uint32_t)count & 0x3FFFFFFFu;
    memcpy(paletteRoom, colours, 4 * (size_t)(n < roomEntries ? n : roomEntries));
    for (uint32_t i = 0; i < n; i++) {
        int result = OctreeInsert(q, colours + 4 * (size_t)i);
        if (result < 0)
            return result;
    }
    return 0;
}

/* Maps and packs every row into the new bitmap. */
static int OctreeMapRows(const OctreeQuantizer *q, OctreeMap *map, const Source *s, uint8_t *bitmap,
                         uint32_t paletteBytes, uint32_t stride, int bits)
{
    int32_t width = s->d->width, height = s->d->height;
    size_t ints = AccumulatorInts(width, OCTREE_SLOTS);
    int32_t *current = static_cast<int32_t *>(ImgAllocTracked(ints * sizeof(int32_t)));
    int32_t *next = static_cast<int32_t *>(ImgAllocTracked(ints * sizeof(int32_t)));
    uint8_t *indices = static_cast<uint8_t *>(ImgAllocTracked((size_t)width));
    uint8_t *row = static_cast<uint8_t *>(ImgAllocTracked(stride));
    if (!current || !next || !indices || !row)
        return IMG_ERR_MEMORY;
    memset(row, 0, stride);
    LoadColourRow(s, 0, current, OCTREE_SLOTS);
    LoadColourRow(s, 1, next, OCTREE_SLOTS);
    for (int32_t y = 0; y < height; y++) {
        OctreeDiffuseRow(q, map, current, next, width, y, indices);
        SwapRows(&current, &next);
        LoadColourRow(s, y + 2, next, OCTREE_SLOTS);
        PackIndices(indices, width, bits, row);
        int result = StoreRow(bitmap, paletteBytes, stride, y, row, 2 * height);
        if (result < 0)
            return result;
    }
    return 0;
}

static void OctreeMapInit(OctreeMap *map, const ImgDescriptor *d)
{
    memset(map->palette, 0, sizeof map->palette);
    map->entries = 0;
    map->squares[0] = 0;
    for (int i = 0; i < 256; i++)
        map->squares[i + 1] = (uint32_t)((i - 127) * (i - 127));
    /* The search cache is an optimisation only, worth its 4 MiB on larger
     * pictures; without it (or without memory) the search runs every time. */
    map->nearest = NULL;
    if ((int64_t)d->width * d->height >= NEAREST_CACHE_PIXELS)
        map->nearest = static_cast<int16_t *>(ImgAllocTracked(((size_t)1 << 21) * sizeof(int16_t)));
    if (map->nearest)
        memset(map->nearest, 0xFF, ((size_t)1 << 21) * sizeof(int16_t));
}

int32_t IMGAPI IMG_octree_color(int32_t handle, int32_t bits, const void *colours, int32_t count)
{
    return Guarded([&]() -> int32_t {
        if (!ImgTableGet(handle))
            return Finish(IMG_ERR_HANDLE);
        /* hardening: output depths other than 4 and 8 give -7 (docs/DEVIATIONS.md) */
        if (bits != 4 && bits != 8)
            return Finish(IMG_ERR_TYPE);
        Source s;
        int result = OpenSource(handle, DEPTH(8) | DEPTH(24) | DEPTH(32), &s);
        if (result < 0)
            return Finish(result);
        ImgDescriptor *d = s.d;
        uint32_t roomEntries = bits == 4 ? 16 : 256;
        uint32_t paletteBytes = 4 * roomEntries;
        uint32_t stride = (uint32_t)DibStride((uint32_t)d->width, bits);
        OctreeQuantizer *q = NULL;
        OctreeMap *map = static_cast<OctreeMap *>(ImgAllocTracked(sizeof *map));
        result = OctreeCreate(&q, count);
        if (result < 0 || !map)
            return Finish(IMG_ERR_MEMORY);
        uint32_t size = 0;
        uint8_t *bitmap = NewBitmap(d, paletteBytes, stride, OCTREE_SLACK, &size);
        if (!bitmap)
            return Finish(IMG_ERR_MEMORY);
        uint8_t *room = bitmap + DIB_HEADER_SIZE;
        if (colours)
            result = OctreeBuildFromList(q, static_cast<const uint8_t *>(colours), count, room, roomEntries);
        else
            result = OctreeBuildFromImage(q, &s);
        if (result >= 0) {
            OctreeMapInit(map, d);
            q->leafCount = 0;
            OctreePaletteWalk(q, q->root, map);
            map->entries = q->leafCount;
            uint32_t made = (uint32_t)map->entries < roomEntries ? (uint32_t)map->entries : roomEntries;
            memcpy(room, map->palette, 4 * (size_t)made);
            result = OctreeMapRows(q, map, &s, bitmap, paletteBytes, stride, bits);
        }
        OctreeRelease(q->root);
        if (result < 0) {
            ImgFree(bitmap);
            return Finish(result);
        }
        Install(d, bitmap, size, stride, bits);
        return Finish(map->entries);
    });
}
