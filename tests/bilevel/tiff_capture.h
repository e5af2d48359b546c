/*
 * tiff_capture.h - test helpers for the TIFF reader (Part 2.3): sinks that
 * keep what TiffRead hands over, the picture as RGB through the delivered
 * palette (run records of 1-bit images expanded with the run coder), and a
 * byte-by-byte TIFF builder for files whose expected decode the spec's words
 * define.
 */
#ifndef TRNW_TIFF_CAPTURE_H
#define TRNW_TIFF_CAPTURE_H

#include "test_support.h"

#include <map>

#include "formats/tiff_read.h"
#include "core/bytes.h"

struct TiffCapture {
    int headerCalls = 0;
    std::vector<uint8_t> header;
    std::map<int, std::vector<uint8_t>> rows; // by row index, as stride bytes
    int deliveries = 0;

    int32_t Width() const { return (int32_t)GetLE32(header.data() + 4); }
    int32_t Height() const { return (int32_t)GetLE32(header.data() + 8); }
    int Bits() const { return GetLE16(header.data() + 14); }
    uint32_t Stride() const { return (uint32_t)DibStride((uint32_t)Width(), Bits()); }

    // The picture as R,G,B bytes, top row first (missing rows read as zero bytes).
    std::vector<uint8_t> Rgb() const
    {
        std::vector<uint8_t> rgb;
        int32_t w = Width(), h = Height();
        int bits = Bits();
        for (int y = 0; y < h; y++) {
            auto it = rows.find(y);
            std::vector<uint8_t> row = it == rows.end() ? std::vector<uint8_t>(Stride(), 0) : it->second;
            for (int x = 0; x < w; x++) {
                if (bits == 24) {
                    rgb.push_back(row[3 * x + 2]);
                    rgb.push_back(row[3 * x + 1]);
                    rgb.push_back(row[3 * x]);
                    continue;
                }
                int index = 0;
                if (bits == 1)
                    index = (row[x / 8] >> (7 - x % 8)) & 1;
                else if (bits == 4)
                    index = (row[x / 2] >> (x % 2 ? 0 : 4)) & 15;
                else
                    index = row[x];
                const uint8_t *p = header.data() + 40 + 4 * index;
                rgb.push_back(p[2]);
                rgb.push_back(p[1]);
                rgb.push_back(p[0]);
            }
        }
        return rgb;
    }
};

inline int TiffCaptureHeader(const uint8_t *header, void *context)
{
    auto *c = static_cast<TiffCapture *>(context);
    c->headerCalls++;
    c->header.assign(header, header + IMG_HEADER_BLOCK_SIZE);
    return 1;
}

inline int TiffCaptureRow(const uint8_t *row, void *context, int rowIndex, int rowBytes)
{
    auto *c = static_cast<TiffCapture *>(context);
    c->deliveries++;
    uint32_t stride = c->Stride();
    std::vector<uint8_t> packed(stride, 0);
    if ((uint32_t)rowBytes == stride)
        std::memcpy(packed.data(), row, stride);
    else // a run record (1-bit images)
        RunExpandRow(reinterpret_cast<const uint16_t *>(row), (uint32_t)rowBytes, c->Width(),
                     packed.data(), stride);
    c->rows[rowIndex] = packed;
    return 0;
}

// Runs TiffRead over bytes as the memory image, positioned at `position`.
inline int DecodeTiffMemory(std::vector<uint8_t> &bytes, TiffCapture &capture, uint32_t start = 0,
                            uint32_t position = 0)
{
    ImgSetMemorySourceSized(bytes.data(), (uint32_t)bytes.size());
    ImgSeek(IMG_MEMORY_HANDLE, (int32_t)position, 0);
    return TiffRead(start, TiffCaptureRow, &capture, TiffCaptureHeader, IMG_MEMORY_HANDLE);
}

/* ---- a TIFF built byte by byte ---- */

struct TiffTagEntry {
    uint16_t tag, type;
    uint32_t count;
    std::vector<uint8_t> data; // in the file's byte order
};

struct TiffPage {
    std::vector<TiffTagEntry> entries;
    std::vector<std::vector<uint8_t>> strips; // StripOffsets/StripByteCounts added when not empty
    uint16_t offsetsType = 4;                 // TIFF_LONG or TIFF_SHORT
    bool tiles = false;                       // TileOffsets (324) instead of StripOffsets
};

class TiffBuilder {
  public:
    bool bigEndian = false;
    uint16_t version = 42;

    explicit TiffBuilder(bool be = false) : bigEndian(be) {}

    void Put16(std::vector<uint8_t> &v, uint32_t x) const
    {
        uint8_t b[2];
        if (bigEndian) PutBE16(b, (uint16_t)x); else PutLE16(b, (uint16_t)x);
        v.insert(v.end(), b, b + 2);
    }
    void Put32(std::vector<uint8_t> &v, uint32_t x) const
    {
        uint8_t b[4];
        if (bigEndian) PutBE32(b, x); else PutLE32(b, x);
        v.insert(v.end(), b, b + 4);
    }
    TiffTagEntry Short(uint16_t tag, std::vector<uint32_t> values) const
    {
        TiffTagEntry e{tag, 3, (uint32_t)values.size(), {}};
        for (uint32_t v : values) Put16(e.data, v);
        return e;
    }
    TiffTagEntry Long(uint16_t tag, std::vector<uint32_t> values) const
    {
        TiffTagEntry e{tag, 4, (uint32_t)values.size(), {}};
        for (uint32_t v : values) Put32(e.data, v);
        return e;
    }
    TiffTagEntry Rational(uint16_t tag, uint32_t n, uint32_t d) const
    {
        TiffTagEntry e{tag, 5, 1, {}};
        Put32(e.data, n);
        Put32(e.data, d);
        return e;
    }
    TiffTagEntry Ascii(uint16_t tag, const std::string &text) const
    {
        TiffTagEntry e{tag, 2, (uint32_t)text.size() + 1, {}};
        e.data.assign(text.begin(), text.end());
        e.data.push_back(0);
        return e;
    }

    // The file: `prefix` junk bytes, the header, then per page its strips,
    // its out-of-line values and its IFD; `nextCounts` can override the entry
    // count written for the IFD of page i (to test the chain rules).
    std::vector<uint8_t> Build(std::vector<TiffPage> pages, size_t prefix = 0) const
    {
        std::vector<uint8_t> f(prefix, 0xA5);
        f.push_back(bigEndian ? 'M' : 'I');
        f.push_back(bigEndian ? 'M' : 'I');
        Put16(f, version);
        size_t nextPointer = f.size();
        Put32(f, 0);
        for (auto &page : pages) {
            std::vector<uint32_t> offsets, counts;
            for (auto &strip : page.strips) {
                offsets.push_back((uint32_t)(f.size() - prefix));
                counts.push_back((uint32_t)strip.size());
                f.insert(f.end(), strip.begin(), strip.end());
            }
            std::vector<TiffTagEntry> entries = page.entries;
            if (!page.strips.empty()) {
                uint16_t offsetsTag = page.tiles ? 324 : 273;
                entries.push_back(page.offsetsType == 3 ? Short(offsetsTag, offsets) : Long(offsetsTag, offsets));
                entries.push_back(Long(page.tiles ? 325 : 279, counts));
            }
            std::stable_sort(entries.begin(), entries.end(),
                             [](const TiffTagEntry &a, const TiffTagEntry &b) { return a.tag < b.tag; });
            std::vector<uint32_t> where(entries.size(), 0);
            for (size_t i = 0; i < entries.size(); i++) {
                if (entries[i].data.size() > 4) {
                    if (f.size() % 2) f.push_back(0);
                    where[i] = (uint32_t)(f.size() - prefix);
                    f.insert(f.end(), entries[i].data.begin(), entries[i].data.end());
                }
            }
            if (f.size() % 2) f.push_back(0);
            uint32_t ifd = (uint32_t)(f.size() - prefix);
            PatchNext(f, nextPointer, ifd);
            Put16(f, (uint32_t)entries.size());
            for (size_t i = 0; i < entries.size(); i++) {
                const TiffTagEntry &e = entries[i];
                Put16(f, e.tag);
                Put16(f, e.type);
                Put32(f, e.count);
                if (e.data.size() > 4) {
                    Put32(f, where[i]);
                } else {
                    std::vector<uint8_t> v = e.data;
                    v.resize(4, 0);
                    f.insert(f.end(), v.begin(), v.end());
                }
            }
            nextPointer = f.size();
            Put32(f, 0);
        }
        return f;
    }

  private:
    void PatchNext(std::vector<uint8_t> &f, size_t at, uint32_t value) const
    {
        if (bigEndian) PutBE32(&f[at], value); else PutLE32(&f[at], value);
    }
};

// The basic entries of a one-strip-per-page picture.
inline std::vector<TiffTagEntry> BasicEntries(const TiffBuilder &b, uint32_t width, uint32_t height,
                                              uint32_t bits, uint32_t compression, uint32_t photometric,
                                              uint32_t samples = 1)
{
    std::vector<uint32_t> bps(samples, bits);
    return {b.Long(256, {width}), b.Long(257, {height}), b.Short(258, bps), b.Short(259, {compression}),
            b.Short(262, {photometric}), b.Short(277, {samples})};
}

#endif /* TRNW_TIFF_CAPTURE_H */
