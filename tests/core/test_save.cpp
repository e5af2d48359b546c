/* The save pipeline: the brightness/contrast table, the header copy, the
 * row source (plain and run-coded images, any order, the crop rectangle,
 * progress) and the dispatch of IMG_save_bitmap and its siblings.  The BMP
 * bytes written are parsed by a small reader below; expected pixels come
 * from the picture the test built (Pattern()). */
#include "support/support.h"

#include <cmath>
#include <map>
#include <random>


namespace {

class Save : public TrnwTest {
  public:
    static std::string Path(const std::string &name) { return TempPath(name); }

  protected:
    void TearDown() override
    {
        IMG_set_statusbar(0, nullptr, 0);
        TrnwTest::TearDown();
    }
};

// ---------------------------------------------------------------------------
// Pictures

// The pixel value at (x, y) of every test picture: a hash, so that 1-bit rows
// have many runs and neighbouring bytes differ.
uint32_t Pattern(int32_t x, int32_t y, int bits)
{
    uint32_t v = (uint32_t)x * 2654435761u ^ (uint32_t)y * 40503u ^ (uint32_t)(x * y) * 13u;
    v ^= v >> 13;
    v *= 0x5bd1e995u;
    v ^= v >> 15;
    return bits >= 32 ? v : v & ((1u << bits) - 1u);
}

uint32_t GetPixel(const uint8_t *row, int32_t x, int bits)
{
    switch (bits) {
    case 1: return (uint32_t)(row[x >> 3] >> (7 - (x & 7))) & 1u;
    case 4: return (x & 1) ? row[x >> 1] & 0x0Fu : (uint32_t)row[x >> 1] >> 4;
    case 8: return row[x];
    case 16: return (uint32_t)row[2 * x] | (uint32_t)row[2 * x + 1] << 8;
    case 24: return (uint32_t)row[3 * x] | (uint32_t)row[3 * x + 1] << 8 | (uint32_t)row[3 * x + 2] << 16;
    case 32:
        return (uint32_t)row[4 * x] | (uint32_t)row[4 * x + 1] << 8 | (uint32_t)row[4 * x + 2] << 16 |
               (uint32_t)row[4 * x + 3] << 24;
    }
    return 0xDEADBEEFu;
}

void PutPixel(uint8_t *row, int32_t x, int bits, uint32_t v)
{
    switch (bits) {
    case 1:
        if (v & 1)
            row[x >> 3] = (uint8_t)(row[x >> 3] | (0x80 >> (x & 7)));
        else
            row[x >> 3] = (uint8_t)(row[x >> 3] & ~(0x80 >> (x & 7)));
        break;
    case 4:
        if (x & 1)
            row[x >> 1] = (uint8_t)((row[x >> 1] & 0xF0) | (v & 0x0F));
        else
            row[x >> 1] = (uint8_t)((row[x >> 1] & 0x0F) | (v & 0x0F) << 4);
        break;
    case 8: row[x] = (uint8_t)v; break;
    case 16:
        row[2 * x] = (uint8_t)v;
        row[2 * x + 1] = (uint8_t)(v >> 8);
        break;
    case 24:
        for (int k = 0; k < 3; k++)
            row[3 * x + k] = (uint8_t)(v >> (8 * k));
        break;
    case 32:
        for (int k = 0; k < 4; k++)
            row[4 * x + k] = (uint8_t)(v >> (8 * k));
        break;
    }
}

enum class Pal { Colour, Grey, Default };

// A library-owned image (IMG_delete_bitmap frees its block) holding
// Pattern(), with a colour or grey palette below 16 bits (Default keeps
// TestDib's: black/white at 1 bit, zeros otherwise) and 300 x 200 dots per
// inch.
int32_t NewPicture(int32_t w, int32_t h, int bits, Pal pal = Pal::Colour)
{
    TestDib dib(w, h, bits);
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++)
            PutPixel(dib.Row(y), x, bits, Pattern(x, y, bits));
    if (bits <= 8 && pal != Pal::Default) {
        int n = 1 << bits;
        for (int i = 0; i < n; i++) {
            uint8_t *e = dib.Palette() + 4 * i;
            if (pal == Pal::Grey) {
                uint8_t g = (uint8_t)(i * 255 / (n - 1));
                e[0] = e[1] = e[2] = g;
            } else {
                e[0] = (uint8_t)(i * 37 + 11);
                e[1] = (uint8_t)(i * 91 + 5);
                e[2] = (uint8_t)(i * 13 + 200);
            }
            e[3] = 0;
        }
        if (bits == 1 && pal == Pal::Colour) { // entry 0 must keep a zero component
            dib.Palette()[0] = 0;
        }
    }
    BITMAPINFOHEADER *hd = reinterpret_cast<BITMAPINFOHEADER *>(dib.block);
    hd->biXPelsPerMeter = 300; // dots per inch inside the library
    hd->biYPelsPerMeter = 200;
    int32_t handle = IMG_create_handle_keep(dib.block);
    if (handle >= 0) {
        dib.Release();
        ImgTableGet(handle)->callerOwnsDib = 0;
    }
    return handle;
}

std::vector<uint8_t> ImagePalette(int32_t handle)
{
    ImgDescriptor *d = ImgTableGet(handle);
    uint32_t bytes = DibPaletteSize(ImgDescriptorBits(d));
    return std::vector<uint8_t>(d->dib + 40, d->dib + 40 + bytes);
}

// ---------------------------------------------------------------------------
// Files and memory blocks

std::vector<uint8_t> ReadWholeFile(const std::string &path)
{
    std::vector<uint8_t> bytes;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return bytes;
    uint8_t chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
    return bytes;
}

bool FileExists(const std::string &path)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f)
        std::fclose(f);
    return f != nullptr;
}

// A block of ours (ImgAlloc), so that the memory image knows its size.
struct Block {
    uint8_t *p;
    size_t size;
    explicit Block(size_t n) : p(static_cast<uint8_t *>(ImgAlloc(n))), size(n)
    {
        if (p)
            std::memset(p, 0xCD, n);
    }
    ~Block() { ImgFree(p); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    std::vector<uint8_t> Prefix(int32_t n) const
    {
        return n > 0 ? std::vector<uint8_t>(p, p + n) : std::vector<uint8_t>();
    }
};

// ---------------------------------------------------------------------------
// A BMP parser of our own: file header, 40-byte header,
// palette, rows bottom row first.

uint32_t Le32(const std::vector<uint8_t> &b, size_t o)
{
    return (uint32_t)b[o] | (uint32_t)b[o + 1] << 8 | (uint32_t)b[o + 2] << 16 | (uint32_t)b[o + 3] << 24;
}
uint16_t Le16(const std::vector<uint8_t> &b, size_t o)
{
    return (uint16_t)(b[o] | b[o + 1] << 8);
}

struct Bmp {
    bool ok = false;
    std::string error;
    bool fileHeader = false;
    uint16_t bfType = 0, bfReserved1 = 0, bfReserved2 = 0;
    uint32_t bfSize = 0, bfOffBits = 0;
    uint32_t biSize = 0, biCompression = 0, biSizeImage = 0, biClrUsed = 0, biClrImportant = 0;
    int32_t width = 0, height = 0, xPelsPerMeter = 0, yPelsPerMeter = 0;
    uint16_t planes = 0, bits = 0;
    std::vector<uint8_t> palette;
    uint32_t stride = 0;
    std::vector<uint8_t> data; // the whole file
    size_t pixels = 0;         // offset of the bottom row

    // Row r counted from the top.
    const uint8_t *Row(int32_t r) const { return data.data() + pixels + (size_t)(height - 1 - r) * stride; }
    uint32_t Pixel(int32_t x, int32_t y) const { return GetPixel(Row(y), x, bits); }
};

Bmp ParseBmp(const std::vector<uint8_t> &data, bool withFileHeader = true)
{
    Bmp bmp;
    bmp.data = data;
    size_t o = 0;
    if (withFileHeader) {
        if (data.size() < 14) {
            bmp.error = "shorter than a file header";
            return bmp;
        }
        bmp.fileHeader = true;
        bmp.bfType = Le16(data, 0);
        bmp.bfSize = Le32(data, 2);
        bmp.bfReserved1 = Le16(data, 6);
        bmp.bfReserved2 = Le16(data, 8);
        bmp.bfOffBits = Le32(data, 10);
        if (bmp.bfType != 0x4D42) {
            bmp.error = "no BM";
            return bmp;
        }
        o = 14;
    }
    if (data.size() < o + 40) {
        bmp.error = "shorter than the info header";
        return bmp;
    }
    bmp.biSize = Le32(data, o);
    bmp.width = (int32_t)Le32(data, o + 4);
    bmp.height = (int32_t)Le32(data, o + 8);
    bmp.planes = Le16(data, o + 12);
    bmp.bits = Le16(data, o + 14);
    bmp.biCompression = Le32(data, o + 16);
    bmp.biSizeImage = Le32(data, o + 20);
    bmp.xPelsPerMeter = (int32_t)Le32(data, o + 24);
    bmp.yPelsPerMeter = (int32_t)Le32(data, o + 28);
    bmp.biClrUsed = Le32(data, o + 32);
    bmp.biClrImportant = Le32(data, o + 36);
    if (bmp.biSize != 40 || bmp.width < 1 || bmp.height < 1 ||
        !(bmp.bits == 1 || bmp.bits == 4 || bmp.bits == 8 || bmp.bits == 16 || bmp.bits == 24 ||
          bmp.bits == 32)) {
        bmp.error = "unexpected info header";
        return bmp;
    }
    size_t paletteBytes = bmp.bits <= 8 ? 4u << bmp.bits : bmp.bits == 16 ? 1024u : 0u;
    size_t rowBits = (size_t)bmp.width * bmp.bits;
    bmp.stride = (uint32_t)(((rowBits + 7) / 8 + 3) & ~(size_t)3);
    size_t paletteAt = o + 40;
    bmp.pixels = withFileHeader ? bmp.bfOffBits : paletteAt + paletteBytes;
    if (data.size() < paletteAt + paletteBytes ||
        data.size() < bmp.pixels + (size_t)bmp.stride * (size_t)bmp.height) {
        bmp.error = "shorter than palette and rows";
        return bmp;
    }
    bmp.palette.assign(data.begin() + (long)paletteAt, data.begin() + (long)(paletteAt + paletteBytes));
    bmp.ok = true;
    return bmp;
}

// ---------------------------------------------------------------------------
// The brightness, contrast and gamma table computed naively,
// word by word, in double precision.

std::array<uint8_t, 256> NaiveTable(uint32_t gamma, int32_t brightness, int32_t contrast)
{
    std::array<uint8_t, 256> table{};
    // 1. g = gamma, or 100 when it is 0; exponent e = 1 / (g * 0.01).
    double g = gamma == 0 ? 100.0 : (double)gamma;
    double e = 1.0 / (g * 0.01);
    // 2. f = 2 * (contrast + 128), computed as ((contrast + 128) & 0x7FFFFF) * 2,
    //    and 0 when (contrast + 128) & 0x7FFFFFFF is 0.
    int32_t sum = contrast + 128;
    double f;
    if ((sum & 0x7FFFFFFF) == 0)
        f = 0.0;
    else
        f = (double)((sum & 0x7FFFFF) * 2);
    for (int i = 0; i < 256; i++) {
        // 3. v = ((i / 255) raised to e) * 255 + brightness; v = v * f / 255;
        //    truncate toward zero; subtract contrast.
        double v = std::pow((double)i / 255.0, e) * 255.0 + (double)brightness;
        v = v * f / 255.0;
        long long truncated = (long long)v; // a conversion truncates toward zero
        long long w = truncated - contrast;
        // 4. Clamp v to 0..255.
        if (w < 0)
            w = 0;
        if (w > 255)
            w = 255;
        table[i] = (uint8_t)w;
    }
    return table;
}

// ---------------------------------------------------------------------------
// The save context, filled as the save preparation fills it.

int32_t CropOffsetBytes(int32_t cropX, int bits)
{
    switch (bits) {
    case 1: return (cropX + 7) / 8;
    case 4: return (cropX + 1) / 2;
    case 8: return cropX;
    case 16: return 2 * cropX;
    case 24: return 3 * cropX;
    case 32: return 4 * cropX;
    }
    return -1;
}

// The first column the plain row source serves for a crop at cropX: the
// byte offset above, in pixels (rounded up at 1 and 4 bits).
int32_t ServedColumn(int32_t cropX, int bits)
{
    if (bits == 1)
        return 8 * CropOffsetBytes(cropX, 1);
    if (bits == 4)
        return 2 * CropOffsetBytes(cropX, 4);
    return cropX;
}

ImgSaveContext ContextFor(int32_t handle)
{
    ImgSaveContext c;
    std::memset(&c, 0, sizeof c);
    ImgDescriptor *d = ImgTableGet(handle);
    int bits = ImgDescriptorBits(d);
    c.bits = d->dib + 40 + DibPaletteSize(bits);
    c.handle = (int16_t)handle;
    c.imageHeight = (int16_t)d->height;
    c.imageStride = (int16_t)d->stride;
    c.cropOffsetBytes = (int16_t)CropOffsetBytes(d->cropX, bits);
    c.cropTop = (int16_t)d->cropY;
    c.lookupTable = nullptr;
    return c;
}

// ---------------------------------------------------------------------------
// A test writer, registered in place of a save type's writer.

struct Probe {
    int calls = 0;
    std::vector<uint8_t> header;          // the header copy the writer received
    int32_t fileSizeSeen = -2;            // ImgFileSize of the sink when called
    std::vector<int> order;               // rows to ask, in this order
    int rowBytes = 0;                     // the size asked per row
    std::map<int, std::vector<uint8_t>> rows;
    std::vector<uint8_t> append;          // bytes written at the end of the sink
    int result = 0;                       // the writer's result
};
Probe probe;

int ProbeWriter(int handle, uint8_t *header, ImgRowSource rowSource, void *sourceContext)
{
    probe.calls++;
    probe.header.assign(header, header + IMG_HEADER_BLOCK_SIZE);
    probe.fileSizeSeen = handle == IMG_MEMORY_HANDLE ? -1 : ImgFileSize(handle);
    std::vector<uint8_t> buffer((size_t)probe.rowBytes + 16);
    for (int r : probe.order) {
        int result = rowSource(sourceContext, buffer.data(), r, probe.rowBytes);
        if (result < 0)
            return result;
        probe.rows[r].assign(buffer.begin(), buffer.begin() + probe.rowBytes);
    }
    if (!probe.append.empty()) {
        ImgSeek(handle, 0, 2);
        if (ImgWrite(handle, probe.append.data(), (uint32_t)probe.append.size()) !=
            (int32_t)probe.append.size())
            return IMG_ERR_WRITE;
    }
    return probe.result;
}

// Registers the probe for a type and puts the previous writer back.
struct WriterOverride {
    int32_t type;
    ImgWriter previous;
    WriterOverride(int32_t t, ImgWriter writer) : type(t), previous(RegistrySetWriterForTest(t, writer))
    {
        probe = Probe();
    }
    ~WriterOverride() { RegistrySetWriterForTest(type, previous); }
};

const BITMAPINFOHEADER &HeaderOf(const std::vector<uint8_t> &block)
{
    return *reinterpret_cast<const BITMAPINFOHEADER *>(block.data());
}

// ---------------------------------------------------------------------------
// Progress

int32_t progressCalls, progressAbortAt, progressAnswer;
std::vector<std::pair<int32_t, int32_t>> progressSeen;

} // namespace

extern "C" int32_t IMGAPI Progress(int32_t value, int32_t total)
{
    progressCalls++;
    progressSeen.emplace_back(value, total);
    return progressCalls == progressAbortAt ? progressAnswer : 0;
}

namespace {

void StartProgress(int32_t value, int32_t abortAt = 0, int32_t answer = 0)
{
    progressCalls = 0;
    progressAbortAt = abortAt;
    progressAnswer = answer;
    progressSeen.clear();
    IMG_set_statusbar(value, Progress, 1);
}

// Saves the image as a BMP (type 1) to memory and parses it.
Bmp SaveToMemory(int32_t handle, int32_t *result = nullptr, int32_t type = IMG_TYPE_BMP)
{
    Block block(1 << 20);
    int32_t r = IMG_save_bitmap_mem(handle, block.p, type);
    if (result)
        *result = r;
    if (r < 0)
        return Bmp();
    return ParseBmp(block.Prefix(r), type != IMG_TYPE_DIB);
}

// Saves the image as a BMP file and parses it; the file is removed.
Bmp SaveToFile(int32_t handle, const std::string &name, int32_t *result = nullptr)
{
    std::string path = Save::Path(name);
    int32_t r = IMG_save_bitmap(handle, path.c_str(), IMG_TYPE_BMP);
    if (result)
        *result = r;
    Bmp bmp = r < 0 ? Bmp() : ParseBmp(ReadWholeFile(path));
    std::remove(path.c_str());
    return bmp;
}

// Checks every pixel of a parsed crop against Pattern(), the crop's columns
// starting at image column x0.
void ExpectPixels(const Bmp &bmp, int bits, int32_t x0, int32_t y0, int32_t w, int32_t h,
                  const std::string &what)
{
    ASSERT_TRUE(bmp.ok) << what << ": " << bmp.error;
    ASSERT_EQ(bmp.width, w) << what;
    ASSERT_EQ(bmp.height, h) << what;
    ASSERT_EQ(bmp.bits, bits) << what;
    int wrong = 0;
    for (int32_t y = 0; y < h; y++)
        for (int32_t x = 0; x < w; x++)
            if (bmp.Pixel(x, y) != Pattern(x0 + x, y0 + y, bits) && ++wrong <= 5)
                ADD_FAILURE() << what << ": pixel " << x << "," << y << " is " << bmp.Pixel(x, y)
                              << ", picture has " << Pattern(x0 + x, y0 + y, bits) << " at "
                              << x0 + x << "," << y0 + y;
    EXPECT_EQ(wrong, 0) << what;
}

// ===========================================================================
// Preparation

TEST_F(Save, HeaderCopyCarriesCropSizeDepthPaletteResolution)
{
    int32_t h = NewPicture(30, 20, 8);
    ASSERT_EQ(h, 0);
    ASSERT_EQ(IMG_set_croprect(h, 3, 4, 10, 7), 0);
    std::vector<uint8_t> palette = ImagePalette(h);
    WriterOverride hook(IMG_TYPE_WPG, ProbeWriter);
    Block block(4096);
    EXPECT_EQ(IMG_save_bitmap_mem(h, block.p, IMG_TYPE_WPG), 0); // the probe writes nothing
    ASSERT_EQ(probe.calls, 1);
    const BITMAPINFOHEADER &hd = HeaderOf(probe.header);
    EXPECT_EQ(hd.biSize, 40u);
    EXPECT_EQ(hd.biWidth, 10);  // the crop width
    EXPECT_EQ(hd.biHeight, 7);  // the crop height
    EXPECT_EQ(hd.biBitCount, 8); // the image's depth
    EXPECT_EQ(hd.biXPelsPerMeter, 300); // dots per inch
    EXPECT_EQ(hd.biYPelsPerMeter, 200);
    EXPECT_EQ(hd.biClrUsed, 0u); // no transparent colour
    EXPECT_TRUE(std::equal(palette.begin(), palette.end(), probe.header.begin() + 40));

    // The file variant prepares the same copy.
    std::string path = TempPath("p15_headercopy.wpg");
    probe = Probe();
    EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_WPG), 0);
    ASSERT_EQ(probe.calls, 1);
    EXPECT_EQ(HeaderOf(probe.header).biWidth, 10);
    EXPECT_EQ(HeaderOf(probe.header).biHeight, 7);
    std::remove(path.c_str());
}

TEST_F(Save, Brightness20OnColourPaletteAdjustsPaletteKeepsIndices)
{
    // Edge case: with brightness 20 on an 8-bit colour-palette image, the saved
    // file has an adjusted palette and unchanged indices.
    int32_t h = NewPicture(16, 8, 8, Pal::Colour);
    ASSERT_EQ(h, 0);
    ASSERT_EQ(IMG_set_lut(h, 0, 20), 0); // contrast 0, brightness 20
    std::vector<uint8_t> palette = ImagePalette(h);
    auto table = NaiveTable(0, 20, 0); // the gamma is set to 0 for the save
    for (int variant = 0; variant < 2; variant++) {
        int32_t result = 0;
        Bmp bmp = variant == 0 ? SaveToFile(h, "p15_bright_colour.bmp", &result) : SaveToMemory(h, &result);
        SCOPED_TRACE(variant == 0 ? "IMG_save_bitmap" : "IMG_save_bitmap_mem");
        ASSERT_EQ(result, variant == 0 ? 0 : (int32_t)(14 + 40 + 1024 + 16 * 8));
        ASSERT_TRUE(bmp.ok) << bmp.error;
        ASSERT_EQ(bmp.palette.size(), 1024u);
        for (int i = 0; i < 256; i++)
            for (int k = 0; k < 3; k++)
                ASSERT_EQ(bmp.palette[4 * i + k], table[palette[4 * i + k]])
                    << "entry " << i << " byte " << k;
        ExpectPixels(bmp, 8, 0, 0, 16, 8, "indices");
    }
    // The image's own palette is untouched.
    EXPECT_EQ(ImagePalette(h), palette);
}

TEST_F(Save, BrightnessContrastOn24And32BitRowBytes)
{
    const int32_t brightness = -10, contrast = 30;
    auto table = NaiveTable(0, brightness, contrast);
    for (int bits : {24, 32}) {
        SCOPED_TRACE(bits);
        int32_t h = NewPicture(13, 7, bits);
        ASSERT_EQ(h, 0);
        ASSERT_EQ(IMG_set_lut(h, contrast, brightness), 0);
        ASSERT_EQ(IMG_set_croprect(h, 2, 1, 9, 5), 0);
        for (int variant = 0; variant < 2; variant++) {
            // The memory variant differs only below 24 bits.
            int32_t result = -99;
            Bmp bmp = variant == 0 ? SaveToFile(h, "p15_bright_rgb.bmp", &result) : SaveToMemory(h, &result);
            ASSERT_GE(result, 0);
            ASSERT_TRUE(bmp.ok) << bmp.error;
            ASSERT_EQ(bmp.width, 9);
            ASSERT_EQ(bmp.height, 5);
            int bytesPerPixel = bits / 8;
            for (int32_t y = 0; y < 5; y++)
                for (int32_t x = 0; x < 9; x++) {
                    uint32_t original = Pattern(2 + x, 1 + y, bits);
                    for (int k = 0; k < bytesPerPixel; k++)
                        ASSERT_EQ(bmp.Row(y)[bytesPerPixel * x + k], table[(original >> (8 * k)) & 0xFF])
                            << "variant " << variant << " pixel " << x << "," << y << " byte " << k;
                }
        }
        IMG_delete_bitmap(h);
    }
}

TEST_F(Save, SaveLeavesImageAndSettingsUnchanged)
{
    int32_t h = NewPicture(21, 9, 8, Pal::Colour);
    ASSERT_EQ(h, 0);
    ASSERT_EQ(IMG_set_gamma(h, 170), 0);
    ASSERT_EQ(IMG_set_lut(h, 15, 25), 0);
    ASSERT_EQ(IMGLOW_set_transp_color(h, 3), 0);
    ASSERT_EQ(IMG_set_croprect(h, 1, 2, 15, 4), 0);
    ImgDescriptor *d = ImgTableGet(h);
    ImgDescriptor before = *d;
    std::vector<uint8_t> dib(d->dib, d->dib + d->dibSize);

    int32_t result = -99;
    Bmp file = SaveToFile(h, "p15_unchanged.bmp", &result);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(file.ok);
    Bmp mem = SaveToMemory(h, &result);
    EXPECT_GT(result, 0);
    std::string path = TempPath("p15_unchanged_fd.bmp");
    int fd = ImgOpen(path.c_str(), 2);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(IMG_save_bitmap_fd(h, fd, IMG_TYPE_BMP), 0);
    ImgClose(fd);
    std::remove(path.c_str());

    d = ImgTableGet(h);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(d->dib, d->dib + d->dibSize), dib);
    EXPECT_EQ(d->dib, before.dib);
    EXPECT_EQ(d->dibSize, before.dibSize);
    EXPECT_EQ(d->width, before.width);
    EXPECT_EQ(d->height, before.height);
    EXPECT_EQ(d->stride, before.stride);
    EXPECT_EQ(d->codedRows, before.codedRows);
    EXPECT_EQ(d->rasterOp, before.rasterOp);
    EXPECT_EQ(d->displayAngle, before.displayAngle);
    EXPECT_EQ(d->gamma, 170u);
    EXPECT_EQ(d->contrast, 15);
    EXPECT_EQ(d->brightness, 25);
    EXPECT_EQ(d->hasTransparentColour, 1);
    EXPECT_EQ(d->transparentColour, 3u);
    int32_t x, y, w, hh;
    IMG_get_croprect(h, &x, &y, &w, &hh);
    EXPECT_EQ(x, 1);
    EXPECT_EQ(y, 2);
    EXPECT_EQ(w, 15);
    EXPECT_EQ(hh, 4);
}

// ===========================================================================
// The row source and the crop rectangle

TEST_F(Save, Crop10x10At5_5SavesExactlyThosePixels)
{
    // Edge case: a crop rectangle of 10 x 10 at 5, 5 produces a 10 x 10 file
    // holding exactly those pixels.  At 8, 16, 24 and 32 bits the crop offset
    // is exact; a run-coded 1-bit image is extracted column by column.  (Plain
    // 1- and 4-bit images round the offset up to a whole byte: see
    // PlainCropOffsetRoundsUpAtOneAndFourBits.)
    for (int bits : {8, 16, 24, 32}) {
        SCOPED_TRACE(bits);
        int32_t h = NewPicture(24, 20, bits);
        ASSERT_EQ(h, 0);
        ASSERT_EQ(IMG_set_croprect(h, 5, 5, 10, 10), 0);
        int32_t result = -99;
        Bmp bmp = SaveToFile(h, "p15_crop10.bmp", &result);
        ASSERT_EQ(result, 0);
        ExpectPixels(bmp, bits, 5, 5, 10, 10, "crop 10x10 at 5,5");
        EXPECT_EQ(bmp.xPelsPerMeter, 11811); // 300 dpi * 39.37007874015748 + 0.5
        EXPECT_EQ(bmp.yPelsPerMeter, 7874);  // 200 dpi
        IMG_delete_bitmap(h);
    }
    int32_t h = NewPicture(24, 20, 1, Pal::Default);
    ASSERT_EQ(h, 0);
    ASSERT_EQ(IMG_dib_to_runs(h), 0);
    ASSERT_EQ(ImgTableGet(h)->codedRows, 1);
    ASSERT_EQ(IMG_set_croprect(h, 5, 5, 10, 10), 0);
    int32_t result = -99;
    Bmp bmp = SaveToFile(h, "p15_crop10_runs.bmp", &result);
    ASSERT_EQ(result, 0);
    ExpectPixels(bmp, 1, 5, 5, 10, 10, "run-coded crop 10x10 at 5,5");
}

TEST_F(Save, RowSourceServesAnyOrderEveryDepth)
{
    // ImgLibraryRowSource called directly with a context filled as the
    // preparation fills it, rows asked in a shuffled order, backwards and twice.
    std::mt19937 random(15);
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (int32_t cropX : {0, 3, 5, 8, 11}) {
            SCOPED_TRACE(std::to_string(bits) + " bits, crop x " + std::to_string(cropX));
            int32_t h = NewPicture(45, 11, bits);
            ASSERT_EQ(h, 0);
            const int32_t cropY = 3, cropW = 21, cropH = 6;
            ASSERT_EQ(IMG_set_croprect(h, cropX, cropY, cropW, cropH), 0);
            ImgSaveContext c = ContextFor(h);
            int rowBytes = (int)DibStride((uint32_t)cropW, bits);
            std::vector<int> order;
            for (int r = 0; r < cropH; r++)
                order.push_back(r);
            std::shuffle(order.begin(), order.end(), random);
            for (int r = cropH - 1; r >= 0; r--)
                order.push_back(r);
            order.push_back(2);
            int32_t first = ServedColumn(cropX, bits);
            for (int r : order) {
                std::vector<uint8_t> buffer((size_t)rowBytes, 0xEE);
                ASSERT_EQ(ImgLibraryRowSource(&c, buffer.data(), r, rowBytes), 0) << "row " << r;
                for (int32_t x = 0; x < cropW; x++)
                    ASSERT_EQ(GetPixel(buffer.data(), x, bits), Pattern(first + x, cropY + r, bits))
                        << "row " << r << " column " << x;
            }
            ImgFree(c.scratch);
            IMG_delete_bitmap(h);
        }
    }
}

std::vector<int> recordedRows;
int32_t IMGCDECL RecordingSource(void *, uint8_t *buffer, int32_t rowIndex, int32_t rowBytes)
{
    recordedRows.push_back(rowIndex);
    for (int32_t j = 0; j < rowBytes; j++)
        buffer[j] = (uint8_t)(rowIndex * 16 + j);
    return 0;
}

TEST_F(Save, RunCodedCropAtAnyColumn)
{
    // A run-coded image serves its rows through run extraction: a crop at any
    // x (not byte aligned) holds exactly the plain image's pixels there.
    for (int32_t cropX = 0; cropX < 19; cropX++) {
        SCOPED_TRACE(cropX);
        int32_t plain = NewPicture(50, 9, 1, Pal::Default);
        int32_t coded = NewPicture(50, 9, 1, Pal::Default);
        ASSERT_EQ(plain, 0);
        ASSERT_EQ(coded, 1);
        ASSERT_EQ(IMG_dib_to_runs(coded), 0);
        ASSERT_EQ(ImgTableGet(coded)->codedRows, 1);
        int32_t cropY = cropX % 3, cropW = 13 + cropX % 7 * 3, cropH = 9 - cropY - cropX % 2;
        ASSERT_EQ(IMG_set_croprect(coded, cropX, cropY, cropW, cropH), 0);
        int32_t result = -99;
        Bmp bmp = SaveToMemory(coded, &result);
        ASSERT_GT(result, 0);
        ASSERT_TRUE(bmp.ok) << bmp.error;
        ASSERT_EQ(bmp.width, cropW);
        ASSERT_EQ(bmp.height, cropH);
        // Compared with the plain image's pixels (and with the picture).
        ImgDescriptor *p = ImgTableGet(plain);
        for (int32_t y = 0; y < cropH; y++) {
            const uint8_t *plainRow = p->dib + 40 + 8 + (size_t)(9 - 1 - (cropY + y)) * p->stride;
            for (int32_t x = 0; x < cropW; x++) {
                ASSERT_EQ(bmp.Pixel(x, y), GetPixel(plainRow, cropX + x, 1)) << x << "," << y;
                ASSERT_EQ(bmp.Pixel(x, y), Pattern(cropX + x, cropY + y, 1)) << x << "," << y;
            }
        }
        IMG_delete_bitmap(coded);
        IMG_delete_bitmap(plain);
    }
}

TEST_F(Save, ProgressOncePerRowWithImageHeight)
{
    int32_t h = NewPicture(10, 12, 8);
    ASSERT_EQ(h, 0);
    ASSERT_EQ(IMG_set_croprect(h, 1, 3, 6, 5), 0);
    StartProgress(77);
    int32_t result = -99;
    Bmp bmp = SaveToMemory(h, &result);
    ASSERT_GT(result, 0);
    ExpectPixels(bmp, 8, 1, 3, 6, 5, "with progress");
    // One call per row of the crop rectangle, each with the value and the
    // stored image height (not the crop height, not the row number).
    ASSERT_EQ(progressCalls, 5);
    for (auto &call : progressSeen) {
        EXPECT_EQ(call.first, 77);
        EXPECT_EQ(call.second, 12);
    }
    // Switched off: no more calls.
    IMG_set_statusbar(0, nullptr, 0);
    progressCalls = 0;
    SaveToMemory(h, &result);
    EXPECT_GT(result, 0);
    EXPECT_EQ(progressCalls, 0);
}

// ===========================================================================
// Dispatch

TEST_F(Save, TypeMinus1ChoosesBmpByExtensionIgnoringCase)
{
    int32_t h = NewPicture(7, 5, 8);
    ASSERT_EQ(h, 0);
    for (const char *name : {"p15_ext_lower.bmp", "P15_EXT_UPPER.BMP", "p15_ext_mixed.bMp"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(RegistryTypeForPath(name), IMG_TYPE_BMP);
        std::string path = TempPath(name);
        EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_BY_EXTENSION), 0);
        Bmp bmp = ParseBmp(ReadWholeFile(path));
        ExpectPixels(bmp, 8, 0, 0, 7, 5, name);
        std::remove(path.c_str());
    }
}

TEST_F(Save, UnknownTypeFreesTrackedAndGivesMinus7)
{
    int32_t h = NewPicture(4, 3, 8);
    ASSERT_EQ(h, 0);
    // The dispatcher directly.
    ASSERT_NE(ImgAllocTracked(100), nullptr);
    ASSERT_NE(ImgAllocTracked(200), nullptr);
    ASSERT_EQ(ImgTrackedCount(), 2);
    std::vector<uint8_t> header(IMG_HEADER_BLOCK_SIZE, 0);
    recordedRows.clear();
    EXPECT_EQ(IMGLOW_save_bitmap(IMG_MEMORY_HANDLE, header.data(), 999, RecordingSource, nullptr),
              IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
    EXPECT_TRUE(recordedRows.empty());

    // Through every save entry point.
    ASSERT_NE(ImgAllocTracked(64), nullptr);
    std::string path = TempPath("p15_type999.bin");
    EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), 999), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
    EXPECT_FALSE(FileExists(path));
    std::remove(path.c_str());

    ASSERT_NE(ImgAllocTracked(64), nullptr);
    Block block(4096);
    EXPECT_EQ(IMG_save_bitmap_mem(h, block.p, 999), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
    ASSERT_NE(ImgAllocTracked(64), nullptr);
    EXPECT_EQ(IMG_save_bitmap_mem_size(h, block.p, 4096, 999), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
    ASSERT_NE(ImgAllocTracked(64), nullptr);
    EXPECT_EQ(IMGLOW_save_bitmap_mem(block.p, header.data(), 999, RecordingSource, nullptr), IMG_ERR_TYPE);
    EXPECT_EQ(ImgTrackedCount(), 0);
}

TEST_F(Save, InvalidHandleGivesMinus13ForEverySaveFunction)
{
    ASSERT_EQ(NewPicture(4, 3, 8), 0);
    ASSERT_EQ(NewPicture(4, 3, 8), 1);
    ASSERT_EQ(IMG_delete_bitmap(0), 0); // slot 0 empty, tableCount 2
    ASSERT_EQ(ImgTableCount(), 2);
    std::string path = TempPath("p15_badhandle.bmp");
    std::remove(path.c_str());
    Block block(4096);
    std::string fdPath = TempPath("p15_badhandle_fd.bmp");
    int fd = ImgOpen(fdPath.c_str(), 2);
    ASSERT_GE(fd, 0);
    for (int32_t bad : {-1, 2, 0, 1000}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(IMG_save_bitmap(bad, path.c_str(), IMG_TYPE_BMP), IMG_ERR_HANDLE);
        EXPECT_FALSE(FileExists(path)) << "the handle is checked before the file is made";
        EXPECT_EQ(IMG_save_bitmap_fd(bad, fd, IMG_TYPE_BMP), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_save_bitmap_mem(bad, block.p, IMG_TYPE_BMP), IMG_ERR_HANDLE);
        EXPECT_EQ(IMG_save_bitmap_mem_size(bad, block.p, 4096, IMG_TYPE_BMP), IMG_ERR_HANDLE);
    }
    EXPECT_EQ(ImgFileSize(fd), 0); // nothing was written
    ImgClose(fd);
    std::remove(fdPath.c_str());
    std::remove(path.c_str());
}

TEST_F(Save, SaveMemSizeTooSmallReturnsLessThanOutput)
{
    // A save to memory cannot grow the caller's block: output beyond its end is
    // dropped while the writer believes it was written, so the result is
    // smaller than the real output.
    int32_t h = NewPicture(6, 5, 8);
    ASSERT_EQ(h, 0);
    const int32_t full = 14 + 40 + 1024 + 8 * 5;
    Block reference(4096);
    ASSERT_EQ(IMG_save_bitmap_mem(h, reference.p, IMG_TYPE_BMP), full);

    // The block ends after two rows: the last three row writes start at the
    // end and "succeed" without storing anything.
    const uint32_t blockSize = 14 + 40 + 1024 + 8 * 2;
    std::vector<uint8_t> caller(blockSize + 64, 0xEE);
    int32_t result = IMG_save_bitmap_mem_size(h, caller.data(), blockSize, IMG_TYPE_BMP);
    EXPECT_EQ(result, (int32_t)blockSize);
    EXPECT_LT(result, full);
    EXPECT_EQ(std::vector<uint8_t>(caller.begin(), caller.begin() + blockSize),
              reference.Prefix((int32_t)blockSize));
    for (size_t i = blockSize; i < caller.size(); i++)
        ASSERT_EQ(caller[i], 0xEE) << "byte " << i << " beyond the block was written";

    // A block ending inside a write: that write stores what fits and reports
    // the shorter count (the memory write), which the BMP writer turns
    // into -9 (a short write returns -9).
    std::fill(caller.begin(), caller.end(), 0xEE);
    EXPECT_EQ(IMG_save_bitmap_mem_size(h, caller.data(), blockSize + 3, IMG_TYPE_BMP), IMG_ERR_WRITE);
    for (size_t i = blockSize + 3; i < caller.size(); i++)
        ASSERT_EQ(caller[i], 0xEE) << "byte " << i << " beyond the block was written";
}

// ===========================================================================
// Hardening (docs/DEVIATIONS.md)

TEST_F(Save, CropOutsideImageGivesMinus7)
{
    // IMG_set_croprect does not check; the save does.
    int32_t h = NewPicture(20, 20, 8);
    ASSERT_EQ(h, 0);
    struct Case {
        int32_t x, y, w, h;
    } cases[] = {{25, 2, 5, 5}, {2, 30, 5, 5}, {20, 0, 5, 5}, {0, 20, 5, 5}};
    for (const Case &tc : cases) {
        SCOPED_TRACE(std::to_string(tc.x) + "," + std::to_string(tc.y));
        ASSERT_EQ(IMG_set_croprect(h, tc.x, tc.y, tc.w, tc.h), 0);
        int32_t x, y, w, hh;
        IMG_get_croprect(h, &x, &y, &w, &hh);
        EXPECT_EQ(x, tc.x); // stored as given (the width or height clipped to
        EXPECT_EQ(y, tc.y); // image size - x, which is 0 or below)
        Block block(8192);
        EXPECT_EQ(IMG_save_bitmap_mem(h, block.p, IMG_TYPE_BMP), IMG_ERR_TYPE);
        std::string path = TempPath("p15_crop_outside.bmp");
        EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_TYPE_BMP), IMG_ERR_TYPE);
        EXPECT_FALSE(FileExists(path));
        std::remove(path.c_str());
    }
}

} // namespace
