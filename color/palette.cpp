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
#define OCTREE_SLACK 2000
#define OCTREE_SLOTS 3
#define NEAREST_START 65535u
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

/* Source row y (storage order; a row past the last reads as the last): the
 * row itself, or for a 32-bit source its pixels packed to 24-bit triples
 * in the scratch row. */
static const uint8_t *FetchRow(const Source *s, int32_t y)
{
    if (y >= s->d->height)
        y = s->d->height - 1;
    const uint8_t *row = s->pixels + (size_t)y * (size_t)s->d->stride;
    if (s->bits != 32)
        return row;
    for (int32_t x = 0; x < s->d->width; x++) {
        s->scratch[3 * x] = row[4 * x];
        s->scratch[3 * x + 1] = row[4 * x + 1];
        s->scratch[3 * x + 2] = row[4 * x + 2];
    }
    return s->scratch;
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

/* The tree lives in one pool of 1600 nodes addressed by 16-bit indices.
 * Node 0 is the root; as it is nobody's child, 0 also stands for "none" in
 * child and list links.  Nodes folded away by a reduction go back on a free
 * list.  hardening: 256 leaves can need 1609 nodes (docs/DEVIATIONS.md);
 * when all 1600 are in use, taking one fails and the call returns -1. */
#define OCTREE_NODES 1600
#define OCTREE_NONE 0

typedef struct OctreeNode {
    uint16_t children[8];    /* OCTREE_NONE when absent */
    uint32_t pixelCount;     /* non-zero marks a leaf */
    uint32_t redSum, greenSum, blueSum;
    uint16_t next, previous; /* the level's reducible list */
    uint16_t paletteIndex;   /* set by the palette walk */
    int16_t level;           /* root -1, its children 0, down to 7 */
} OctreeNode;

/* The walk over levels 0 .. 3 follows the top four bits of each
 * component: its outcome depends on the colour's cell, one of 4096. */
#define OCTREE_TOP_LEVELS 4
#define OCTREE_CELLS 4096
/* The insertion's cell entries: the tree's generation above a leaf flag
 * and the node (12 bits).  The generation counts changes of the tree and
 * starts again at 1, all entries cleared, before it outgrows its 19 bits. */
#define OCTREE_CELL_LEAF 0x1000u
#define OCTREE_GENERATION_SHIFT 13
#define OCTREE_GENERATION_LIMIT (1u << 19)

typedef struct OctreeQuantizer {
    int32_t leafCount;
    int32_t maxColours;
    int32_t reductionLevel;
    int32_t freeCount;                /* entries of freeNodes */
    uint16_t reducible[8];            /* list heads, level 0 .. 7 */
    uint16_t freeNodes[OCTREE_NODES];
    OctreeNode nodes[OCTREE_NODES];
    /* Where the walk over levels 0 .. 3 ends for each cell (a leaf or the
     * internal node at level 3), valid while its generation is the tree's. */
    uint32_t generation;
    uint32_t cells[OCTREE_CELLS];
} OctreeQuantizer;

/* The path of a colour: bit 7 - L of c0, c1, c2 as the index at level L.
 * All eight indices are interleaved once into a 24-bit code (3 bits a
 * level, level 0 highest) by a table of spread bits. */
struct SpreadBits {
    uint32_t of[256];
    constexpr SpreadBits() : of()
    {
        for (unsigned v = 0; v < 256; v++)
            for (int bit = 0; bit < 8; bit++)
                of[v] |= ((v >> bit) & 1u) << (3 * bit);
    }
};
static constexpr SpreadBits spreadBits;

static inline uint32_t PathCode(const uint8_t *c)
{
    return spreadBits.of[c[0]] << 2 | spreadBits.of[c[1]] << 1 | spreadBits.of[c[2]];
}

static inline unsigned PathIndex(uint32_t code, int level)
{
    return (code >> (3 * (7 - level))) & 7u;
}

/* The cell of a colour: the top four bits of c0, c1, c2. */
static inline uint32_t Cell(const uint8_t *c)
{
    return (uint32_t)(c[0] >> 4) << 8 | (uint32_t)(c[1] >> 4) << 4 | (uint32_t)(c[2] >> 4);
}

/* The walk over levels 0 .. 3: the leaf it meets, the internal node it
 * reaches at level 3, or OCTREE_NONE at a missing child. */
static uint16_t OctreeTopNode(const OctreeQuantizer *q, uint32_t code)
{
    uint16_t node = 0;
    for (int level = 0; level < OCTREE_TOP_LEVELS; level++) {
        node = q->nodes[node].children[PathIndex(code, level)];
        if (node == OCTREE_NONE || q->nodes[node].pixelCount)
            break;
    }
    return node;
}

/* The walk on from the internal node `node` at level 3: the leaf it meets
 * (or the node at level 7), or OCTREE_NONE at a missing child. */
static uint16_t OctreeWalkOn(const OctreeQuantizer *q, uint16_t node, uint32_t code)
{
    for (int level = OCTREE_TOP_LEVELS; level < 8; level++) {
        node = q->nodes[node].children[PathIndex(code, level)];
        if (node == OCTREE_NONE || q->nodes[node].pixelCount)
            break;
    }
    return node;
}

/* After any change of the tree: every cell entry is out of date. */
static void OctreeChanged(OctreeQuantizer *q)
{
    if (++q->generation == OCTREE_GENERATION_LIMIT) {
        memset(q->cells, 0, sizeof q->cells);
        q->generation = 1;
    }
}

/* A cleared node for `level` from the free list; OCTREE_NONE when every
 * node is in use. */
static uint16_t OctreeTakeNode(OctreeQuantizer *q, int32_t level)
{
    if (q->freeCount == 0)
        return OCTREE_NONE;
    uint16_t n = q->freeNodes[--q->freeCount];
    memset(&q->nodes[n], 0, sizeof q->nodes[n]);
    q->nodes[n].level = (int16_t)level;
    return n;
}

static void OctreeFreeNode(OctreeQuantizer *q, uint16_t n)
{
    q->freeNodes[q->freeCount++] = n;
}

/* A new quantizer for up to `count` colours: the root and 1599 free nodes. */
static OctreeQuantizer *OctreeCreate(int32_t count)
{
    OctreeQuantizer *q = static_cast<OctreeQuantizer *>(ImgAllocTracked(sizeof *q));
    if (!q)
        return NULL;
    memset(q, 0, sizeof *q);
    q->maxColours = count >= 256 ? 256 : count >= 8 ? count : 8;
    q->reductionLevel = 7;
    q->generation = 1;
    for (int n = OCTREE_NODES - 1; n > 0; n--)
        q->freeNodes[q->freeCount++] = (uint16_t)n;
    q->nodes[0].level = -1;
    return q;
}

/* Walks from the root along the colour's path; stops at a leaf or before a
 * missing child (*missing set). */
static uint16_t OctreeWalk(const OctreeQuantizer *q, uint32_t code, int *missing)
{
    uint16_t node = 0;
    *missing = 0;
    for (int level = 0; level < 8 && !q->nodes[node].pixelCount; level++) {
        uint16_t child = q->nodes[node].children[PathIndex(code, level)];
        if (child == OCTREE_NONE) {
            *missing = 1;
            break;
        }
        node = child;
    }
    return node;
}

static void OctreeUnlink(OctreeQuantizer *q, uint16_t n)
{
    OctreeNode *node = &q->nodes[n];
    if (node->previous != OCTREE_NONE)
        q->nodes[node->previous].next = node->next;
    else if (node->level >= 0 && node->level < 8 && q->reducible[node->level] == n)
        q->reducible[node->level] = node->next;
    else
        return; /* not listed */
    if (node->next != OCTREE_NONE)
        q->nodes[node->next].previous = node->previous;
    node->next = node->previous = OCTREE_NONE;
}

static uint32_t ChildCounts(const OctreeQuantizer *q, uint16_t n)
{
    uint32_t sum = 0;
    for (int i = 0; i < 8; i++)
        if (q->nodes[n].children[i] != OCTREE_NONE)
            sum += q->nodes[q->nodes[n].children[i]].pixelCount;
    return sum;
}

/* Folds the least-count node of the deepest reducible list.  0 when
 * every list is empty. */
static int OctreeReduce(OctreeQuantizer *q)
{
    int level = 6;
    while (level >= 0 && q->reducible[level] == OCTREE_NONE)
        level--;
    if (level < 0)
        return 0;
    uint16_t best = q->reducible[level];
    uint32_t bestSum = ChildCounts(q, best);
    for (uint16_t n = q->nodes[best].next; n != OCTREE_NONE; n = q->nodes[n].next) {
        uint32_t sum = ChildCounts(q, n);
        if (sum < bestSum) {
            best = n;
            bestSum = sum;
        }
    }
    OctreeUnlink(q, best);
    OctreeChanged(q);
    OctreeNode *node = &q->nodes[best];
    q->reductionLevel = node->level;
    int wasLeaf = node->pixelCount != 0;
    for (int i = 0; i < 8; i++) {
        uint16_t c = node->children[i];
        if (c == OCTREE_NONE)
            continue;
        const OctreeNode *child = &q->nodes[c];
        node->pixelCount += child->pixelCount;
        node->redSum += child->redSum;
        node->greenSum += child->greenSum;
        node->blueSum += child->blueSum;
        OctreeUnlink(q, c);
        OctreeFreeNode(q, c);
        node->children[i] = OCTREE_NONE;
        q->leafCount--;
    }
    if (!wasLeaf)
        q->leafCount++;
    return 1;
}

/* The node a colour is added to when the cells do not give it: walk, fold
 * while a leaf is missing and the tree is full, then make the missing path
 * down to the reduction level (the last node made or met counts as a new
 * leaf).  OCTREE_NONE when no node is free. */
static uint16_t OctreeFindNode(OctreeQuantizer *q, const uint8_t *c)
{
    int missing;
    uint32_t code = PathCode(c);
    uint16_t node = OctreeWalk(q, code, &missing);
    while (missing && q->leafCount >= q->maxColours && OctreeReduce(q))
        node = OctreeWalk(q, code, &missing);
    if (!missing)
        return node;
    OctreeChanged(q);
    node = 0;
    for (int level = 0; level <= q->reductionLevel; level++) {
        unsigned index = PathIndex(code, level);
        uint16_t child = q->nodes[node].children[index];
        if (child == OCTREE_NONE) {
            child = OctreeTakeNode(q, level);
            if (child == OCTREE_NONE)
                return OCTREE_NONE;
            q->nodes[node].children[index] = child;
            if (level < q->reductionLevel) {
                uint16_t head = q->reducible[level];
                q->nodes[child].next = head;
                if (head != OCTREE_NONE)
                    q->nodes[head].previous = child;
                q->reducible[level] = child;
            }
        }
        node = child;
    }
    q->leafCount++;
    return node;
}

/* The node of a colour whose cell entry is out of date or names no leaf:
 * the walk over the top levels (recorded in the cell), on from there, or
 * at a missing child the full way (OctreeFindNode), which may change the
 * tree.  OCTREE_NONE when no node is free. */
static uint16_t OctreeNodeBelow(OctreeQuantizer *q, const uint8_t *c, uint32_t cell)
{
    uint32_t code = PathCode(c), entry = q->cells[cell];
    uint16_t n;
    if (entry >> OCTREE_GENERATION_SHIFT == q->generation) {
        n = (uint16_t)(entry & 0xFFF);
    } else {
        n = OctreeTopNode(q, code);
        if (n != OCTREE_NONE)
            q->cells[cell] = q->generation << OCTREE_GENERATION_SHIFT |
                             (q->nodes[n].pixelCount ? OCTREE_CELL_LEAF : 0) | n;
    }
    if (n != OCTREE_NONE && !q->nodes[n].pixelCount)
        n = OctreeWalkOn(q, n, code);
    return n != OCTREE_NONE ? n : OctreeFindNode(q, c);
}

/* Inserts one colour (c[0] blue, c[1] green, c[2] red).  Most colours find
 * their leaf from their cell, recorded while the tree has not changed. */
static inline int OctreeInsert(OctreeQuantizer *q, const uint8_t *c)
{
    uint32_t cell = Cell(c), entry = q->cells[cell];
    uint16_t n = (uint16_t)(entry & 0xFFF);
    if (entry >> OCTREE_GENERATION_SHIFT != q->generation || !(entry & OCTREE_CELL_LEAF)) {
        n = OctreeNodeBelow(q, c, cell);
        if (n == OCTREE_NONE)
            return IMG_ERR_MEMORY;
    }
    OctreeNode *node = &q->nodes[n];
    node->redSum += c[2];
    node->greenSum += c[1];
    node->blueSum += c[0];
    node->pixelCount++;
    return 0;
}

/* ---- the mapping ---- */

/* The walk over levels 0 .. 3 is done once for each cell, when a colour
 * of the cell first needs it: a palette index, a missing branch (the
 * nearest search decides), or the internal node at level 3 where the walk
 * goes on. */
#define OCTREE_TOP_UNMADE 0        /* node 0 is the root, never at level 3 */
#define OCTREE_TOP_FOUND 0x8000u   /* | the palette index */
#define OCTREE_TOP_MISSING 0x4000u /* otherwise: the node */

/* The nearest search of a colour looks only at its cell's candidates: the
 * entries that can be nearest somewhere in the cell, a cube of 8 halved
 * units a side.  An entry is left out when even its least distance to the
 * cube exceeds the greatest distance of some other entry, which is then
 * strictly nearer everywhere in the cube; so the answer, ties included,
 * is that of the search over all entries.  A cell's list is made when it
 * is first needed, in index order, into a pool with room for every entry in
 * as many cells as there are cells or pixels, whichever is fewer.  Entries
 * are listed as their halved components and index in one word,
 * B | G << 8 | R << 16 | index << 24. */
#define OCTREE_LIST_UNMADE 0xFFFFFFFFu /* else start << 9 | count */

/* The mapping's state beside the tree: the palette made, its halved
 * components for the nearest search, the table of the top levels and the
 * cells' candidate lists. */
typedef struct OctreeMap {
    uint8_t palette[PALETTE_ENTRIES][4]; /* B, G, R, 0 */
    int32_t entries;
    uint32_t halved[PALETTE_ENTRIES];    /* every entry, listed as candidates are */
    uint32_t colour[PALETTE_ENTRIES];    /* B | G << 8 | R << 16 */
    uint16_t top[OCTREE_CELLS];
    uint32_t topColour[OCTREE_CELLS];    /* the colour of a found index */
    uint32_t lists[OCTREE_CELLS];
    uint32_t candidatesUsed;
    uint32_t *candidates;                /* the pool (tracked) */
} OctreeMap;

/* The palette from the leaves: depth first, a node before its children. */
static void OctreePaletteWalk(OctreeQuantizer *q, uint16_t n, OctreeMap *map)
{
    if (q->leafCount >= q->maxColours)
        return;
    OctreeNode *node = &q->nodes[n];
    if (node->pixelCount) {
        uint32_t count = node->pixelCount;
        uint32_t b = node->blueSum / count, g = node->greenSum / count, r = node->redSum / count;
        node->paletteIndex = (uint16_t)q->leafCount;
        uint8_t *entry = map->palette[q->leafCount];
        entry[0] = (uint8_t)(b > 255 ? 255 : b);
        entry[1] = (uint8_t)(g > 255 ? 255 : g);
        entry[2] = (uint8_t)(r > 255 ? 255 : r);
        entry[3] = 0;
        q->leafCount++;
    }
    for (int i = 0; i < 8; i++)
        if (node->children[i] != OCTREE_NONE)
            OctreePaletteWalk(q, node->children[i], map);
}

/* The mapping's tables, once the palette is made, for `pixels` pixels:
 * 0, or -1 when the candidate pool cannot be had. */
static int OctreeMapInit(OctreeMap *map, int64_t pixels)
{
    for (int i = 0; i < PALETTE_ENTRIES; i++) {
        const uint8_t *p = map->palette[i];
        map->colour[i] = (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16;
        map->halved[i] = (map->colour[i] >> 1 & 0x7F7F7Fu) | (uint32_t)i << 24;
    }
    memset(map->top, 0, sizeof map->top); /* OCTREE_TOP_UNMADE */
    memset(map->topColour, 0, sizeof map->topColour);
    memset(map->lists, 0xFF, sizeof map->lists);
    map->candidatesUsed = 0;
    size_t cells = pixels < OCTREE_CELLS ? (size_t)pixels : OCTREE_CELLS;
    map->candidates = static_cast<uint32_t *>(ImgAllocTracked(cells * (size_t)map->entries * sizeof(uint32_t)));
    return map->candidates ? 0 : IMG_ERR_MEMORY;
}

/* The outcome of the walk over levels 0 .. 3 for `cell` (its colour in
 * topColour when it is an index). */
static uint16_t OctreeTopEntry(const OctreeQuantizer *q, OctreeMap *map, uint32_t cell)
{
    const uint8_t corner[3] = {(uint8_t)(cell >> 8 << 4), (uint8_t)((cell >> 4 & 15) << 4),
                               (uint8_t)((cell & 15) << 4)};
    uint16_t node = OctreeTopNode(q, PathCode(corner));
    if (node == OCTREE_NONE)
        return OCTREE_TOP_MISSING;
    if (!q->nodes[node].pixelCount)
        return node;
    map->topColour[cell] = map->colour[q->nodes[node].paletteIndex];
    return (uint16_t)(OCTREE_TOP_FOUND | q->nodes[node].paletteIndex);
}

/* The squared distance of halved component `p` to the nearest and to the
 * farthest point of lo .. lo + 7. */
static inline uint32_t NearSquare(int32_t p, int32_t lo)
{
    int32_t d = p < lo ? lo - p : p > lo + 7 ? p - lo - 7 : 0;
    return (uint32_t)(d * d);
}

static inline uint32_t FarSquare(int32_t p, int32_t lo)
{
    int32_t d = p - lo > lo + 7 - p ? p - lo : lo + 7 - p;
    return (uint32_t)(d * d);
}

/* Makes the candidate list of `cell` (see OCTREE_CANDIDATE_POOL). */
static uint32_t OctreeMakeList(OctreeMap *map, uint32_t cell)
{
    int32_t blue = (int32_t)(cell >> 8) * 8, green = (int32_t)(cell >> 4 & 15) * 8,
            red = (int32_t)(cell & 15) * 8;
    uint32_t nearest[PALETTE_ENTRIES], bound = UINT32_MAX;
    for (int32_t i = 0; i < map->entries; i++) {
        int32_t b = (int32_t)(map->halved[i] & 0x7F), g = (int32_t)(map->halved[i] >> 8 & 0x7F),
                r = (int32_t)(map->halved[i] >> 16 & 0x7F);
        nearest[i] = NearSquare(b, blue) + NearSquare(g, green) + NearSquare(r, red);
        uint32_t farthest = FarSquare(b, blue) + FarSquare(g, green) + FarSquare(r, red);
        bound = farthest < bound ? farthest : bound;
    }
    uint32_t start = map->candidatesUsed, count = 0;
    for (int32_t i = 0; i < map->entries; i++)
        if (nearest[i] <= bound)
            map->candidates[start + count++] = map->halved[i];
    map->candidatesUsed += count;
    return start << 9 | count;
}

/* The nearest entry by halved components, lowest index winning ties.  Each
 * candidate's distance (below 3 x 127^2) goes above its index into one key,
 * so that the least key is the answer; with no entry the start value gives
 * index 0. */
static unsigned OctreeNearest(OctreeMap *map, const uint8_t *c, uint32_t cell)
{
    if (map->lists[cell] == OCTREE_LIST_UNMADE)
        map->lists[cell] = OctreeMakeList(map, cell);
    uint32_t list = map->lists[cell], count = list & 511;
    const uint32_t *candidates = map->candidates + (list >> 9);
    int32_t b = c[0] >> 1, g = c[1] >> 1, r = c[2] >> 1;
    uint32_t best = NEAREST_START << 8;
    for (uint32_t n = 0; n < count; n++) {
        uint32_t e = candidates[n];
        int32_t db = b - (int32_t)(e & 0x7F), dg = g - (int32_t)(e >> 8 & 0x7F),
                dr = r - (int32_t)(e >> 16 & 0x7F);
        uint32_t key = (uint32_t)(db * db + dg * dg + dr * dr) << 8 | e >> 24;
        best = key < best ? key : best;
    }
    return best & 0xFF;
}

/* The palette index of a clamped colour whose cell's entry is not an index
 * (or not made yet): the walk on from the cell's node at level 3, else the
 * nearest entry. */
static unsigned OctreeIndexBelow(const OctreeQuantizer *q, OctreeMap *map, const uint8_t *c,
                                 uint32_t cell, uint32_t top)
{
    if (top == OCTREE_TOP_UNMADE)
        top = map->top[cell] = OctreeTopEntry(q, map, cell);
    if (top & OCTREE_TOP_FOUND)
        return top & 0xFF;
    if (top & OCTREE_TOP_MISSING)
        return OctreeNearest(map, c, cell);
    uint16_t node = OctreeWalkOn(q, (uint16_t)top, PathCode(c));
    return node == OCTREE_NONE ? OctreeNearest(map, c, cell) : q->nodes[node].paletteIndex;
}

/* The palette index of a clamped colour (the first leaf on its path, else
 * the nearest entry) and in *colour the entry's colour.  The cell settles
 * most colours; its colour is loaded beside its index, so that the error
 * does not wait for a second load.  The components come as values, kept
 * in registers: only the rare way below makes them bytes in memory. */
static inline unsigned OctreeIndex(const OctreeQuantizer *q, OctreeMap *map, uint32_t blue,
                                   uint32_t green, uint32_t red, uint32_t *colour)
{
    uint32_t cell = (blue >> 4) << 8 | (green >> 4) << 4 | red >> 4, top = map->top[cell];
    *colour = map->topColour[cell];
    if (top & OCTREE_TOP_FOUND)
        return top & 0xFF;
    const uint8_t c[3] = {(uint8_t)blue, (uint8_t)green, (uint8_t)red};
    unsigned index = OctreeIndexBelow(q, map, c, cell, top);
    *colour = map->colour[index];
    return index;
}

/* Floyd-Steinberg shares of an error, each truncated toward zero. */
static inline int32_t Sixteenths(int32_t error, int32_t n)
{
    return error * n / 16;
}

/* Maps one row: serpentine Floyd-Steinberg, signed division by 16
 * truncating toward zero.  Each pixel's 7/16 share goes straight into the
 * next one, and the three shares below it are summed in registers, so
 * that each pixel of the next row is written once, when complete (its
 * last share, 3/16, comes from the pixel ahead). */
static void OctreeDiffuseRow(const OctreeQuantizer *q, OctreeMap *map, int32_t *current,
                             int32_t *next, int32_t width, int32_t row, uint8_t *indices)
{
    const ptrdiff_t step = (row & 1) ? -1 : 1, move = step * OCTREE_SLOTS;
    int32_t x = step > 0 ? 0 : width - 1;
    const int32_t *p = current + ((ptrdiff_t)x + PALETTE_MARGIN) * OCTREE_SLOTS;
    int32_t *below = next + ((ptrdiff_t)x + PALETTE_MARGIN) * OCTREE_SLOTS;
    int32_t ahead[3] = {0, 0, 0};  /* the 7/16 shares for this pixel */
    int32_t behind[3] = {0, 0, 0}; /* shares for the pixel below and behind */
    int32_t under[3] = {0, 0, 0};  /* shares for the pixel below */
    for (int32_t n = 0; n < width; n++, x += (int32_t)step, p += move, below += move) {
        int32_t c[3] = {Clamp255(p[0] + ahead[0]), Clamp255(p[1] + ahead[1]), Clamp255(p[2] + ahead[2])};
        uint32_t colour;
        unsigned index = OctreeIndex(q, map, (uint32_t)c[0], (uint32_t)c[1], (uint32_t)c[2], &colour);
        indices[x] = (uint8_t)index;
        for (int k = 0; k < 3; k++) {
            int32_t error = c[k] - (int32_t)(colour >> (8 * k) & 0xFF);
            below[-move + k] += behind[k] + Sixteenths(error, 3);
            behind[k] = under[k] + Sixteenths(error, 5);
            under[k] = Sixteenths(error, 1);
            ahead[k] = Sixteenths(error, 7);
        }
    }
    for (int k = 0; k < 3; k++) {
        below[-move + k] += behind[k];
        below[k] += under[k];
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
        OctreeQuantizer *q = OctreeCreate(count);
        OctreeMap *map = static_cast<OctreeMap *>(ImgAllocTracked(sizeof *map));
        if (!q || !map)
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
            memset(map->palette, 0, sizeof map->palette);
            q->leafCount = 0;
            OctreePaletteWalk(q, 0, map);
            map->entries = q->leafCount;
            result = OctreeMapInit(map, (int64_t)d->width * d->height);
        }
        if (result >= 0) {
            uint32_t made = (uint32_t)map->entries < roomEntries ? (uint32_t)map->entries : roomEntries;
            memcpy(room, map->palette, 4 * (size_t)made);
            result = OctreeMapRows(q, map, &s, bitmap, paletteBytes, stride, bits);
        }
        if (result < 0) {
            ImgFree(bitmap);
            return Finish(result);
        }
        Install(d, bitmap, size, stride, bits);
        return Finish(map->entries);
    });
}
