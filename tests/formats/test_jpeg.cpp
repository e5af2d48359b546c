// JPEG: the writer's way for each depth, its quality and density; where the
// reader finds the resolution; the reduced decode towards a fixed size; cut
// and broken streams; the JPEG streams inside TIFF, BMP and Targa files.
#include "support/support.h"

#include <numeric>

namespace {

// A smooth picture, which JPEG codes closely: gradients at 24 and 32 bits;
// at 8 bits indices rising along the rows, over a grey ramp or colours.
Picture Smooth(int w, int h, int bits, bool grey = false)
{
    Picture p;
    p.width = w, p.height = h, p.bits = bits;
    for (int i = 0; bits == 8 && i < 256; i++)
        p.palette.insert(p.palette.end(), {(uint8_t)i, (uint8_t)(grey ? i : 255 - i), (uint8_t)(grey ? i : i / 2 + 64), 0});
    p.rows.assign(h, std::vector<uint8_t>(DibStride((uint32_t)w, bits), 0));
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            uint8_t *px = p.rows[y].data() + x * (bits / 8);
            px[0] = (uint8_t)(x * 255 / (w - 1));
            if (bits >= 24)
                px[1] = (uint8_t)(y * 255 / (h - 1)), px[2] = (uint8_t)((x + y) * 255 / (w + h - 2));
        }
    return p;
}

// What the reader hands over for a stream in a sized memory image: its
// result, the header's height and resolution, the row indices in order.
struct Delivery {
    int32_t result = 0, height = 0, x = 0, y = 0;
    std::vector<int> rows;
};

Delivery ReadStream(const std::vector<uint8_t> &jpeg)
{
    Delivery d;
    auto header = [](const uint8_t *h, void *c) {
        Delivery *d = static_cast<Delivery *>(c);
        d->height = (int32_t)GetLE32(h + 8), d->x = (int32_t)GetLE32(h + 24), d->y = (int32_t)GetLE32(h + 28);
        return 1;
    };
    auto row = [](const uint8_t *, void *c, int index, int) {
        static_cast<Delivery *>(c)->rows.push_back(index);
        return 0;
    };
    ImgSetMemorySourceSized(const_cast<uint8_t *>(jpeg.data()), (uint32_t)jpeg.size());
    d.result = JpegRead(0, row, &d, header, IMG_MEMORY_HANDLE);
    return d;
}

int32_t progressTotal;
int32_t IMGAPI RecordTotal(int32_t, int32_t total)
{
    progressTotal = total;
    return 0;
}

} // namespace

using JpegWriter = TrnwTest;

// 24- and 32-bit images as colour, 8-bit ones as grey when their palette is
// grey, else through it as colour; 1, 4 and 16 bits refused.  Read back
// into blocks that held other data, the rows are padded with zeros.
TEST_F(JpegWriter, EachDepthTakesItsWay)
{
    struct Case { int bits; bool grey; int32_t status; int readBits; } cases[] = {
        {24, false, 0, 24}, {32, false, 0, 24}, {8, true, 0, 8}, {8, false, 0, 24},
        {1, false, IMG_ERR_DEPTH, 0}, {4, false, IMG_ERR_DEPTH, 0}, {16, false, IMG_ERR_DEPTH, 0}};
    int32_t status = 0;
    Saved(RandomPicture(8, 8, 4, 1), IMG_TYPE_TIFF_JPEG, &status); // type 40 as well
    EXPECT_EQ(status, IMG_ERR_DEPTH);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        Picture p = c.bits == 8 || c.bits >= 24 ? Smooth(63, 48, c.bits, c.grey) : RandomPicture(63, 48, c.bits, 1);
        std::vector<uint8_t> file = Saved(p, IMG_TYPE_JPG, &status);
        if (c.status < 0) {
            EXPECT_EQ(status, c.status);
            continue;
        }
        ASSERT_GT(status, 0);
        ImgTestFillAllocations(0xA5);
        int32_t h = IMG_decompress_bitmap_mem_size(file.data(), (uint32_t)file.size(), 0);
        ImgTestFillAllocations(-1);
        Picture read = PictureOf(h);
        EXPECT_EQ(read.bits, c.readBits);
        EXPECT_TRUE(read.PaddedWith(0));
        Raster expected = c.bits == 32 ? Smooth(63, 48, 24).Rgb() : p.Rgb();
        EXPECT_EQ(RasterDiff(read.Rgb(), expected, 12), 0);
        IMG_delete_bitmap(h);
    }
}

// Quality 75 until set; a lower quality makes a smaller file; the
// resolution goes into the JFIF density.
TEST_F(JpegWriter, QualityAndDensity)
{
    Picture p = Smooth(96, 64, 24);
    std::vector<uint8_t> standard = Saved(p, IMG_TYPE_JPG);
    IMGLOW_set_comp_quality(75);
    EXPECT_EQ(Saved(p, IMG_TYPE_JPG), standard);
    IMGLOW_set_comp_quality(20);
    EXPECT_LT(Saved(p, IMG_TYPE_JPG).size(), standard.size());

    TestDib dib(16, 8, 24);
    PutLE32(dib.block + 24, 300), PutLE32(dib.block + 28, 150);
    Delivery d = ReadStream(SavedImage(IMG_create_handle_keep(dib.block), IMG_TYPE_JPG));
    EXPECT_EQ(std::make_pair(d.x, d.y), std::make_pair(300, 150));
}

using JpegReader = TrnwTest;

// The JFIF density in dots per inch or per centimetre; without units, the
// EXIF resolution (inches or centimetres); without either, none.
TEST_F(JpegReader, ResolutionFromJfifOrExif)
{
    std::vector<uint8_t> plain = Saved(Smooth(16, 8, 24), IMG_TYPE_JPG);
    ASSERT_EQ(std::string(plain.begin() + 6, plain.begin() + 10), "JFIF");
    // EXIF: a little-endian TIFF with XResolution, YResolution, ResolutionUnit.
    auto exif = [](uint32_t x, uint32_t y, uint16_t unit) {
        std::vector<uint8_t> a(2 + 2 + 6 + 8 + 2 + 3 * 12 + 4 + 16, 0);
        a[0] = 0xFF, a[1] = 0xE1, PutBE16(&a[2], (uint16_t)(a.size() - 2));
        std::memcpy(&a[4], "Exif\0\0II*\0\x08\0\0\0", 14);
        uint8_t *ifd = &a[18];
        PutLE16(ifd, 3);
        uint16_t tags[3][2] = {{282, 5}, {283, 5}, {296, 3}};
        for (int i = 0; i < 3; i++) {
            uint8_t *e = ifd + 2 + 12 * i;
            PutLE16(e, tags[i][0]), PutLE16(e + 2, tags[i][1]), PutLE32(e + 4, 1);
            PutLE32(e + 8, i == 2 ? unit : 8 + 2 + 36 + 4 + 8 * i);
        }
        PutLE32(ifd + 42, x), PutLE32(ifd + 46, 1), PutLE32(ifd + 50, 2 * y), PutLE32(ifd + 54, 2);
        return a;
    };
    struct Case {
        int unit, x, y;
        std::vector<uint8_t> app1;
        int32_t dpiX, dpiY;
    } cases[] = {{1, 300, 150, {}, 300, 150},       {2, 100, 40, {}, 254, 102},
                 {0, 1, 1, exif(200, 100, 2), 200, 100}, {0, 1, 1, exif(100, 40, 3), 254, 102},
                 {1, 72, 72, exif(200, 100, 2), 72, 72}, {0, 1, 1, {}, 0, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.dpiX);
        std::vector<uint8_t> f = plain;
        f[13] = (uint8_t)c.unit;
        PutBE16(&f[14], (uint16_t)c.x), PutBE16(&f[16], (uint16_t)c.y);
        f.insert(f.begin() + 20, c.app1.begin(), c.app1.end());
        Delivery d = ReadStream(f);
        EXPECT_EQ(d.result, 1);
        EXPECT_EQ(std::make_pair(d.x, d.y), std::make_pair(c.dpiX, c.dpiY));
    }
}

// With a fixed size set, libjpeg decodes at the smallest of 1/8, 1/4, 1/2
// that keeps both sides at or above it (the progress total shows the
// reader's height), and the pipeline scales the rest of the way.
TEST_F(JpegReader, FixedSizeDecodesReducedFirst)
{
    std::vector<uint8_t> file = Saved(Smooth(800, 600, 24), IMG_TYPE_JPG);
    struct Case { int32_t width, height, readerHeight, outWidth, outHeight; } cases[] = {{100, 75, 75, 100, 75},   {101, 75, 150, 101, 75}, {400, 300, 300, 400, 300},
                 {401, 300, 600, 401, 300}, {900, 300, 600, 800, 600}};
    IMG_set_statusbar(0, RecordTotal, 1);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.width);
        IMGLOW_set_decompsize(c.width, c.height);
        Raster r = DecodeMemory(file);
        EXPECT_EQ(progressTotal, c.readerHeight);
        EXPECT_EQ(std::make_pair(r.width, r.height), std::make_pair(c.outWidth, c.outHeight));
    }
    // A decode into the caller's sinks sees the whole picture.
    EXPECT_EQ(ReadStream(file).height, 600);
    IMG_set_statusbar(0, nullptr, 0);
    IMGLOW_set_decompsize(0, 0);
}

// A stream cut short hands over the rows before the cut, then -12; a
// stream that lacks only its end marker is whole; damage libjpeg cannot
// step over is -3; a stream holds no page 1.
TEST_F(JpegReader, CutAndBrokenStreams)
{
    Picture p = Smooth(64, 256, 24);
    std::vector<uint8_t> sequential = Saved(p, IMG_TYPE_JPG);
    Delivery whole = ReadStream(sequential);
    std::vector<int> inOrder(256);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    ASSERT_EQ(whole.result, 1);
    ASSERT_EQ(whole.rows, inOrder);

    size_t scan = 2;
    while (GetBE16(&sequential[scan]) != 0xFFDA)
        scan += 2 + GetBE16(&sequential[scan + 2]);
    std::vector<uint8_t> cut(sequential.begin(), sequential.begin() + (long)(scan + sequential.size()) / 2);
    Delivery half = ReadStream(cut);
    EXPECT_EQ(half.result, IMG_ERR_READ);
    EXPECT_GT(half.rows.size(), 64u);
    EXPECT_LT(half.rows.size(), 256u);

    std::vector<uint8_t> noEnd(sequential.begin(), sequential.end() - 2);
    EXPECT_EQ(ReadStream(noEnd).result, 1);
    EXPECT_EQ(ReadStream(std::vector<uint8_t>(sequential.begin(), sequential.begin() + 100)).result, IMG_ERR_READ);
    std::vector<uint8_t> garbled = sequential;
    ASSERT_EQ(GetBE16(&garbled[20]), 0xFFDB);
    garbled[24] = 5; // a quantisation table numbered 5
    EXPECT_EQ(ReadStream(garbled).result, IMG_ERR_INVALID);
    std::vector<uint8_t> padded = sequential;
    padded.resize(padded.size() + 65536);
    EXPECT_EQ(IMG_decompress_bitmap_mem(padded.data(), 1), IMG_ERR_PAGE);
}

// The stream alone, behind a BMP header with compression "JPEG", behind a
// Targa header of type 156 (detected with an ID of 24 to 69 bytes, which
// the stream does not skip), in our type-40 TIFF, and in a TIFF whose
// JPEGInterchangeFormat points 6 bytes into strip 0: the same picture.
TEST_F(JpegReader, StreamsInsideOtherFiles)
{
    Picture p = Smooth(40, 24, 24);
    std::vector<uint8_t> jpeg = Saved(p, IMG_TYPE_JPG);
    Raster alone = DecodeMemory(jpeg);
    ASSERT_EQ(alone.width, 40);

    std::vector<uint8_t> bmp(54, 0);
    bmp[0] = 'B', bmp[1] = 'M', PutLE32(&bmp[10], 54), PutLE32(&bmp[14], 40);
    PutLE32(&bmp[18], 40), PutLE32(&bmp[22], 24), PutLE16(&bmp[26], 1), PutLE16(&bmp[28], 24);
    std::memcpy(&bmp[30], "JPEG", 4);
    bmp.insert(bmp.end(), jpeg.begin(), jpeg.end());

    std::vector<uint8_t> tga(18, 0);
    tga[0] = 24, tga[2] = 156, PutLE16(&tga[12], 40), PutLE16(&tga[14], 24), tga[16] = 24;
    tga.insert(tga.end(), jpeg.begin(), jpeg.end());

    std::vector<uint8_t> ours = Saved(p, IMG_TYPE_TIFF_JPEG);
    std::vector<uint8_t> shifted = ours; // JPEGInterchangeFormat 6 bytes past StripOffsets
    uint32_t entries = GetLE16(&shifted[8]), strip = 0;
    for (uint32_t i = 0; i < entries; i++) {
        uint8_t *e = &shifted[10 + 12 * i];
        strip = GetLE16(e) == 273 ? GetLE32(e + 8) : strip;
        if (GetLE16(e) == 513) {
            EXPECT_EQ(GetLE32(e + 8), strip);
            PutLE32(e + 8, strip + 6);
        }
    }
    for (const auto &file : {bmp, tga, ours, shifted}) {
        int32_t status = 0;
        EXPECT_EQ(RasterDiff(DecodeMemory(file, &status), alone), 0) << status;
    }
}
