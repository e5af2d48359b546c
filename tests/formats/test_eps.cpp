// Encapsulated PostScript: the lines the writer makes for each depth and its
// failures (Ghostscript checks the pixels, tests/interop), and the reader's
// DOS EPS header around a TIFF preview.
#include "support/support.h"

#include <functional>

namespace {

int32_t IMGCDECL ServeRows(void *failingRow, uint8_t *buffer, int32_t row, int32_t bytes)
{
    std::fill(buffer, buffer + bytes, (uint8_t)row);
    return row == *static_cast<int *>(failingRow) ? IMG_ERR_STOPPED : 0;
}
int32_t IMGCDECL ShortLastLine(int32_t, void *text, int32_t count)
{
    return count >= 8 && std::memcmp(text, "showpage", 8) == 0 ? 0 : count;
}

} // namespace

using EpsWriter = TrnwTest;

// Every line ends in CR LF 0 0, the last too. The scaled height is 2400 /
// width * height in floating point, truncated: 7 x 21 gives 7199, not 7200,
// so the box is 99 high, not 100.
TEST_F(EpsWriter, LinesOfEachDepth)
{
    const std::string end("\r\n\0\0", 4), raw = " {currentfile picstr readhexstring pop} ";
    struct Case {
        int bits, width, height;
        std::string box, scaled, rowBytes, drawing;
        long paletteLines; // -1: none
    } cases[] = {
        {1, 600, 300, "0 0 33 16", "1200", "75", "600 300 1 [600 0 0 -300 0 300]" + raw + "image", -1},
        {4, 5, 2, "0 0 33 13", "960", "5", "5 2 8 [5 0 0 -2 0 2] {read8_24} false 3 colorimage", 1},
        {8, 7, 21, "0 0 33 99", "7199", "7", "7 21 8 [7 0 0 -21 0 21] {read8_24} false 3 colorimage", 16},
        {24, 1, 3, "0 0 33 100", "7200", "3", "1 3 8 [1 0 0 -3 0 3]" + raw + "false 3 colorimage", -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        std::vector<uint8_t> file = Saved(MakePicture(c.width, c.height, c.bits, 9), IMG_TYPE_EPS);
        std::string text(file.begin(), file.end());
        std::vector<std::string> lines;
        for (size_t at = 0, next; at < text.size(); at = next + end.size()) {
            ASSERT_NE(next = text.find(end, at), std::string::npos) << "unterminated: " << text.substr(at);
            lines.push_back(text.substr(at, next - at));
            ASSERT_EQ(lines.back().find_first_of(std::string("\r\n\0", 3)), std::string::npos) << lines.back();
        }
        auto index = [&](const std::string &line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
        ASSERT_GT(lines.size(), 11u);
        EXPECT_EQ(lines[0], "%!PS-Adobe-2.0 EPSF-2.0");
        EXPECT_EQ(lines[1], "%%BoundingBox: " + c.box);
        EXPECT_EQ(lines[8], "/picstr " + c.rowBytes + " string def");
        EXPECT_EQ(lines[10], "2400 pixel " + c.scaled + " pixel scale");
        EXPECT_EQ(index("> def") - index("/pal <") - 1, c.paletteLines);
        long drawing = index(c.drawing);
        ASSERT_EQ(drawing + 1 + c.height + 2, (long)lines.size()); // the rows, grestore, showpage
        EXPECT_EQ(lines.back(), "showpage");
    }
}

// A failing row source, a sink that fails the last line, a failed allocation
// and an unsupported depth each end the save with their code.
TEST_F(EpsWriter, Failures)
{
    TestDib dib(6, 3, 8);
    std::vector<uint8_t> header(dib.block, dib.block + IMG_HEADER_BLOCK_SIZE), out(16384);
    struct Case {
        int failingRow, failingAllocation, bits;
        IMG_WRITE_FUNC write;
        int32_t status;
    } cases[] = {{1, -1, 8, nullptr, IMG_ERR_STOPPED}, {-1, -1, 8, ShortLastLine, IMG_ERR_WRITE},
                 {-1, 1, 8, nullptr, IMG_ERR_MEMORY},       {-1, -1, 16, nullptr, IMG_ERR_DEPTH},
                 {-1, -1, 8, nullptr, 0}};
    for (Case c : cases) {
        SCOPED_TRACE(testing::Message() << c.status << " " << c.bits);
        PutLE16(&header[14], (uint16_t)c.bits);
        IMGLOW_set_fileio(nullptr, c.write, nullptr);
        ImgTestFailAllocations(c.failingAllocation);
        int32_t status = c.write ? IMGLOW_save_bitmap(5, header.data(), IMG_TYPE_EPS, ServeRows, &c.failingRow)
                                 : IMGLOW_save_bitmap_mem(out.data(), header.data(), IMG_TYPE_EPS, ServeRows, &c.failingRow);
        ImgTestFailAllocations(-1);
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        EXPECT_EQ(std::min(status, 0), c.status);
    }
}

// The TIFF preview is read at its offset; a header that points outside the
// file, or at no TIFF, is refused.
TEST_F(TrnwTest, EpsReaderFollowsTheDosHeaderToTheTiffPreview)
{
    Picture p = MakePicture(23, 9, 8, 5);
    const std::vector<uint8_t> eps = DosEps(Saved(p, IMG_TYPE_TIFF_LZW));
    const uint32_t tiffAt = GetLE32(&eps[20]), tiffLength = GetLE32(&eps[24]);
    auto fields = [](uint32_t offset, uint32_t length) {
        return [=](std::vector<uint8_t> &f) { PutLE32(&f[20], offset), PutLE32(&f[24], length); };
    };
    struct Case {
        const char *name;
        std::function<void(std::vector<uint8_t> &)> change;
        int32_t status; // 0: the picture
        uint32_t start = 0;
    } cases[] = {
        {"as built", [](std::vector<uint8_t> &) {}, 0},
        {"behind other data", [](std::vector<uint8_t> &f) { f.insert(f.begin(), 100, 0xAA); }, 0, 100},
        {"page request", [](std::vector<uint8_t> &) {}, IMG_ERR_INVALID, IMG_PAGE_FLAG | 1},
        {"plain PostScript", [](std::vector<uint8_t> &f) { f.erase(f.begin(), f.begin() + 30); }, IMG_ERR_INVALID},
        {"no preview", fields(0, tiffLength), IMG_ERR_INVALID},
        {"preview shorter than a TIFF header", fields(tiffAt, 7), IMG_ERR_INVALID},
        {"preview past the end", fields(tiffAt, tiffLength + 1), IMG_ERR_READ},
        {"offset and length overflow", fields(0xFFFFFFF0u, 0x20), IMG_ERR_INVALID},
        {"preview not a TIFF", [=](std::vector<uint8_t> &f) { f[tiffAt] = 'P'; }, IMG_ERR_GDI},
        {"header cut short", [](std::vector<uint8_t> &f) { f.resize(24); }, IMG_ERR_READ},
        {"header of the fields alone", [](std::vector<uint8_t> &f) { f.resize(28), PutLE32(&f[24], 7); }, IMG_ERR_INVALID},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> f = eps;
        c.change(f);
        ImgSetMemorySourceSized(f.data(), (uint32_t)f.size());
        int32_t h = ImgDecodeWithReader(EpsRead, c.start, IMG_MEMORY_HANDLE);
        if (c.status < 0) {
            EXPECT_EQ(h, c.status);
            continue;
        }
        ASSERT_GE(h, 0);
        EXPECT_EQ(RasterDiff(ImageRgb(h), p.Rgb()), 0);
        IMG_delete_bitmap(h);
    }
}
