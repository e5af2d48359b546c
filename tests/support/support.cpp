/*
 * support.cpp - the shared test helpers declared in support.h.
 */
#include "support/support.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#ifdef _WIN32
#include <process.h>
static int ProcessId() { return _getpid(); }
#else
#include <unistd.h>
static int ProcessId() { return (int)getpid(); }
#endif

std::string TempPath(const std::string &name)
{
    std::string unique = std::to_string((long)ProcessId()) + "_" + name;
    const char *dir = std::getenv("TRNW_TEST_TMP");
#ifdef _WIN32
    std::string base = dir ? dir : (std::getenv("TEMP") ? std::getenv("TEMP") : ".");
    return base + "\\trnw_" + unique;
#else
    std::string base = dir ? dir : (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
    static bool made = [&] {
        std::error_code error; /* a folder that cannot be made shows in the test using it */
        std::filesystem::create_directories(base, error);
        return true;
    }();
    (void)made;
    return base + "/trnw_" + unique;
#endif
}

std::vector<uint8_t> ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
    return (bool)out;
}

bool RunQuiet(const std::string &command)
{
#ifdef _WIN32
    (void)command;
    return false;
#else
    return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str()) == 0;
#endif
}

std::string FindTool(const std::string &name)
{
#ifdef _WIN32
    (void)name;
    return "";
#else
    for (const char *dir : {"/usr/bin/", "/usr/local/bin/", "/bin/"}) {
        std::string path = dir + name;
        if (access(path.c_str(), X_OK) == 0)
            return path;
    }
    return "";
#endif
}

long RasterDiff(const Raster &a, const Raster &b, int tolerance)
{
    if (a.width != b.width || a.height != b.height || a.rgb.size() != b.rgb.size())
        return -1;
    long n = 0;
    for (size_t i = 0; i + 2 < a.rgb.size(); i += 3)
        n += std::abs(a.rgb[i] - b.rgb[i]) > tolerance || std::abs(a.rgb[i + 1] - b.rgb[i + 1]) > tolerance ||
             std::abs(a.rgb[i + 2] - b.rgb[i + 2]) > tolerance;
    return n;
}

Raster ReadPnm(const std::string &path)
{
    Raster r;
    std::vector<uint8_t> f = ReadFile(path);
    size_t at = 2;
    auto number = [&]() {
        while (at < f.size() && (std::isspace(f[at]) || f[at] == '#'))
            if (f[at] == '#') { while (at < f.size() && f[at] != '\n') at++; } else at++;
        long v = 0;
        while (at < f.size() && std::isdigit(f[at]))
            v = v * 10 + (f[at++] - '0');
        return v;
    };
    if (f.size() < 3 || f[0] != 'P' || f[1] < '4' || f[1] > '6') // the binary forms the tools write
        return r;
    char kind = (char)f[1];
    int w = (int)number(), h = (int)number();
    long maxval = kind == '4' ? 1 : number();
    at++; // the single whitespace before the data
    int channels = kind == '6' ? 3 : 1;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            uint8_t c[3];
            for (int k = 0; k < channels; k++) {
                size_t i = kind == '4' ? at + (size_t)y * ((w + 7) / 8) + x / 8 : at++;
                long v = i >= f.size() ? 0 : kind == '4' ? ((f[i] >> (7 - x % 8)) & 1 ? 0 : 255) : f[i] * 255 / maxval;
                c[k] = (uint8_t)v;
            }
            for (int k = 0; k < 3; k++)
                r.rgb.push_back(c[channels == 3 ? k : 0]);
        }
    r.width = w, r.height = h;
    return r;
}

bool WritePnm(const std::string &path, const Raster &r, char format)
{
    std::string head = std::string("P") + format + "\n" + std::to_string(r.width) + " " +
                       std::to_string(r.height) + (format == '4' ? "\n" : "\n255\n");
    std::vector<uint8_t> f(head.begin(), head.end());
    for (int y = 0; y < r.height; y++) {
        std::vector<uint8_t> packed((r.width + 7) / 8, 0);
        for (int x = 0; x < r.width; x++) {
            const uint8_t *p = &r.rgb[3 * ((size_t)y * r.width + x)];
            if (format == '4')
                packed[x / 8] |= (uint8_t)((p[0] + p[1] + p[2] != 765) << (7 - x % 8));
            else
                f.insert(f.end(), p, p + (format == '5' ? 1 : 3));
        }
        if (format == '4')
            f.insert(f.end(), packed.begin(), packed.end());
    }
    return WriteFile(path, f);
}

Raster ToolRaster(const std::string &command, const std::string &pnmPath)
{
    std::remove(pnmPath.c_str());
    EXPECT_TRUE(RunQuiet(command)) << command;
    Raster r = ReadPnm(pnmPath);
    std::remove(pnmPath.c_str());
    return r;
}

uint32_t RowPixel(const uint8_t *row, int32_t x, int bits)
{
    if (bits < 8)
        return (uint32_t)(row[x * bits / 8] >> (8 - bits - x * bits % 8)) & ((1u << bits) - 1u);
    uint32_t v = 0;
    for (int k = 0; k < bits / 8; k++)
        v |= (uint32_t)row[x * bits / 8 + k] << (8 * k);
    return v;
}

void SetRowPixel(uint8_t *row, int32_t x, int bits, uint32_t value)
{
    if (bits < 8) {
        int shift = 8 - bits - x * bits % 8;
        uint8_t mask = (uint8_t)(((1u << bits) - 1u) << shift);
        row[x * bits / 8] = (uint8_t)((row[x * bits / 8] & ~mask) | ((value << shift) & mask));
        return;
    }
    for (int k = 0; k < bits / 8; k++)
        row[x * bits / 8 + k] = (uint8_t)(value >> (8 * k));
}

Raster Picture::Rgb() const
{
    Raster r;
    r.width = width, r.height = height;
    for (const auto &row : rows)
        for (int x = 0; x < width; x++) {
            int index = bits == 1 ? (row[x / 8] >> (7 - x % 8)) & 1
                        : bits == 4 ? (x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4)
                        : bits == 8 ? row[x] : -1;
            const uint8_t *c = index >= 0 ? &palette[4 * index] : &row[(bits / 8) * x];
            r.rgb.insert(r.rgb.end(), {c[2], c[1], c[0]});
        }
    return r;
}

Picture MakePicture(int w, int h, int bits, uint32_t seed, bool grey)
{
    Picture p;
    p.width = w, p.height = h, p.bits = bits;
    int n = bits < 24 ? 1 << bits : 0;
    for (int i = 0; i < n; i++) {
        uint8_t g = (uint8_t)(i * 255 / (n - 1));
        if (grey || n == 2)
            p.palette.insert(p.palette.end(), {g, g, g, 0});
        else
            p.palette.insert(p.palette.end(), {(uint8_t)(i * i), (uint8_t)(255 - i * 13), (uint8_t)(i * 37 + 11), 0});
    }
    uint32_t stride = DibStride((uint32_t)w, bits);
    p.rows.assign(h, std::vector<uint8_t>(stride, 0));
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            seed = seed * 1103515245u + 12345u;
            uint32_t r = seed >> 16;
            uint8_t *row = p.rows[y].data();
            if (bits == 1)
                row[x / 8] |= (uint8_t)((((x / 9 + y / 5) % 3 == 0) ^ (r % 17 == 0)) << (7 - x % 8));
            else if (bits == 4)
                row[x / 2] |= (uint8_t)(((x + y * 3 + r % 3) % 16) << (x % 2 ? 0 : 4));
            else if (bits == 8)
                row[x] = (uint8_t)((x + y * 3 + r % 3) % 256);
            else
                for (int c = 0; c < 3; c++)
                    row[3 * x + c] = (uint8_t)(c == 2 ? x * 255 / std::max(w - 1, 1) : c == 1 ? y * 255 / std::max(h - 1, 1) : r);
        }
    return p;
}

Picture RandomPicture(int w, int h, int bits, uint32_t seed)
{
    Picture p = MakePicture(w, h, bits == 16 || bits == 32 ? 24 : bits, seed);
    p.bits = bits;
    if (bits == 16)
        p.palette.assign(1024, 0); // none; ImageOf passes one below 24 bits
    for (auto &row : p.rows) {
        row.assign(DibStride((uint32_t)w, bits), 0);
        for (int x = 0; x < w * bits / 8 + (bits < 8 && w * bits % 8 ? 1 : 0); x++)
            row[(size_t)x] = (uint8_t)((seed = seed * 1103515245u + 12345u) >> 16);
        if (bits < 8 && w * bits % 8)
            row[(size_t)(w * bits / 8)] &= (uint8_t)(0xFF00 >> (w * bits % 8));
    }
    return p;
}

int32_t ImageOf(const Picture &p)
{
    int32_t handle = NewImage(p.width, p.height, p.bits);
    if (handle < 0)
        return handle;
    if (p.bits < 24)
        IMGLOW_put_palette(handle, p.palette.data());
    for (int y = 0; y < p.height; y++)
        IMGLOW_put_raster(handle, p.rows[y].data(), y, 0);
    return handle;
}

bool Picture::PaddedWith(int bit) const
{
    for (const std::vector<uint8_t> &row : rows)
        for (size_t at = (size_t)width * (size_t)bits; at < 8 * row.size(); at++)
            if ((row[at / 8] >> (7 - at % 8) & 1) != bit)
                return false;
    return true;
}

Picture PictureOf(int32_t handle)
{
    Picture p;
    int32_t w = 0, h = 0, bits = 0;
    if (IMG_bitmap_info(handle, &w, &h, &bits) != 0)
        return p;
    p.width = w, p.height = h, p.bits = bits;
    p.palette.assign(bits < 24 ? 4u << bits : 0, 0);
    if (bits < 24)
        IMGLOW_get_palette(handle, p.palette.data());
    p.rows.assign(h, std::vector<uint8_t>(DibStride((uint32_t)w, bits), 0));
    for (int y = 0; y < h; y++)
        EXPECT_EQ(IMGLOW_get_raster(handle, p.rows[y].data(), y, 0), 0) << "row " << y;
    return p;
}

static Raster Finish(int32_t handle, int32_t *status, int *bits)
{
    if (status)
        *status = handle;
    if (handle < 0)
        return Raster();
    Picture p = PictureOf(handle);
    if (bits)
        *bits = p.bits;
    IMG_delete_bitmap(handle);
    return p.Rgb();
}

Raster DecodeFile(const std::string &path, int32_t *status, int *bits)
{
    return Finish(IMG_decompress_bitmap(path.c_str()), status, bits);
}

Raster DecodeMemory(std::vector<uint8_t> bytes, int32_t *status, int *bits)
{
    return Finish(IMG_decompress_bitmap_mem_size(bytes.data(), (uint32_t)bytes.size(), 0), status, bits);
}

static int32_t IMGCDECL KeepHeader(const uint8_t *header, void *context)
{
    std::memcpy(context, header, 40);
    return IMG_ERR_STOPPED;
}
static int32_t IMGCDECL NoRows(const uint8_t *, void *, int32_t, int32_t) { return IMG_ERR_STOPPED; }

std::array<uint8_t, 40> ReaderHeader(std::vector<uint8_t> file)
{
    std::array<uint8_t, 40> header{};
    file.resize(file.size() + 65536); // an unsized memory image: its readers may read a chunk ahead
    IMGLOW_decompress_bitmap_mem(file.data(), 0, NoRows, header.data(), KeepHeader);
    return header;
}

std::vector<uint8_t> SavedImage(int32_t handle, int32_t type, int32_t *status)
{
    std::vector<uint8_t> file(1 << 22);
    int32_t n = IMG_save_bitmap_mem_size(handle, file.data(), (uint32_t)file.size(), type);
    if (status)
        *status = n;
    file.resize((size_t)std::max(n, 0));
    return file;
}

std::vector<uint8_t> Saved(const Picture &p, int32_t type, int32_t *status)
{
    int32_t h = ImageOf(p);
    std::vector<uint8_t> file = SavedImage(h, type, status);
    IMG_delete_bitmap(h);
    return file;
}

std::vector<uint8_t> DosEps(const std::vector<uint8_t> &preview)
{
    const std::string ps = "%!PS-Adobe-3.0 EPSF-3.0\n";
    std::vector<uint8_t> f(30 + ps.size() + preview.size(), 0);
    const uint32_t fields[] = {0xC6D3D0C5u, 30, (uint32_t)ps.size(), 0, 0,
                               (uint32_t)(30 + ps.size()), (uint32_t)preview.size()};
    for (size_t i = 0; i < 7; i++)
        PutLE32(&f[4 * i], fields[i]);
    PutLE16(&f[28], 0xFFFF); // no checksum
    std::copy(ps.begin(), ps.end(), f.begin() + 30);
    std::copy(preview.begin(), preview.end(), f.begin() + 30 + (long)ps.size());
    return f;
}

void TrnwTest::TearDown()
{
    for (int32_t h = ImgTableCount() - 1; h >= 0; h--) {
        ImgDescriptor *d = ImgTableGet(h);
        if (d && d->callerOwnsDib)
            IMG_delete_bitmap_keep(h); // a test's own DIB is freed by its TestDib
        else if (d)
            IMG_delete_bitmap(h);
    }
    // Slots left occupied by IMG_create_handle_keep's -3 are empty descriptors.
    while (ImgTableCount() > 0)
        ImgTableDelete(ImgTableCount() - 1, 1);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    IMGLOW_set_safe_save(0);
    IMGLOW_set_decode_limit(0);
    IMGLOW_set_decompsize(0, 0);
    IMGLOW_set_comp_quality(75);
    IMGLOW_set_alias(0);
    IMGLOW_autocolor(0);
    IMGLOW_set_dithermode(1);
    ImgTestFailAllocations(-1);
    ImgTestFillAllocations(-1);
    ImgFreeAllTracked();
    ImgStoreBitmapName("1996 TARNWHEEL, ALL RIGHTS RESERVED", "11-24-1992");
}

TestDib::TestDib(int32_t w, int32_t h, int b) : width(w), height(h), bits(b)
{
    stride = (int32_t)DibStride((uint32_t)w, b);
    paletteBytes = DibPaletteSize(b);
    size_t size = 40 + paletteBytes + (size_t)stride * (size_t)h;
    block = static_cast<uint8_t *>(ImgAlloc(size));
    std::fill(block, block + size, 0);
    BITMAPINFOHEADER header{};
    header.biSize = 40, header.biWidth = w, header.biHeight = h, header.biPlanes = 1;
    header.biBitCount = (uint16_t)b, header.biSizeImage = (uint32_t)(stride * h);
    std::memcpy(block, &header, sizeof header);
    if (b == 1) {
        static const uint8_t bw[8] = {0, 0, 0, 0, 255, 255, 255, 0};
        std::memcpy(block + 40, bw, 8);
    }
}

int32_t NewImage(int32_t w, int32_t h, int bits)
{
    TestDib dib(w, h, bits);
    int32_t handle = IMG_create_handle_keep(dib.block);
    if (handle >= 0) {
        dib.Release();
        ImgTableGet(handle)->callerOwnsDib = 0;
    }
    return handle;
}
