// X bitmap: the reader over texts written here (sizes by order, item sizes
// and notations, bad text) and the writer's exact text.
#include "support/support.h"

namespace {

std::vector<uint8_t> Bytes(const std::string &text) { return {text.begin(), text.end()}; }

// The item for a row byte: its bits reversed and complemented.
uint8_t Item(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; i++)
        r = (uint8_t)(r | ((b >> i) & 1) << (7 - i));
    return (uint8_t)~r;
}

// Pixels of a decoded raster as rows of '#' (black) and '.' (white).
std::string Pixels(const Raster &r)
{
    std::string s;
    for (size_t i = 0; i < r.rgb.size(); i += 3)
        s += std::string(r.rgb[i] ? "." : "#") + ((i / 3 + 1) % (size_t)r.width ? "" : "/");
    return s;
}

const std::string kHead = "#define a_width 3\n#define a_height 2\n";

using XbmRead = TrnwTest;

TEST_F(XbmRead, TextsDecodeAsTheirItemsSay)
{
    struct Case {
        const char *name;
        std::string text;
        int32_t status; // of the decode when negative
        std::string pixels = "";
    };
    const Case cases[] = {
        {"first pixel in the low bit, 1 black", kHead + "static char a_bits[] = {\n  0x05, 0x02};\n", 0, "#.#/.#./"},
        // The first #define is the width whatever its name.
        {"sizes by order", "#define b_height 1\n#define b_width 2\nstatic char b[] = {\n0x01,\n0x02};\n", 0, "#/./"},
        {"hot spot, unsigned, CRLF", kHead + "#define a_x_hot 1\r\n#define a_y_hot 1\r\nstatic unsigned char a[] = {\r\n0x01,\r\n0X04\r\n};\r\n", 0, "#../..#/"},
        {"items on the declaration line, decimal, one hex digit", kHead + "static char a[] = { 5, 0x2 };", 0, "#.#/.#./"},
        {"brace on its own line", kHead + "static char a[] =\n{\n0x05 0x02\n}", 0, "#.#/.#./"},
        // 16-bit items give their low byte first: pixels 0 and 15.
        {"short items", "#define w 16\n#define h 1\nstatic short a[] = {\n  0x8001 };\n", 0, "#..............#/"},
        {"unsigned short, odd byte count", "#define w 17\n#define h 1\nstatic unsigned short a[] = {0x0101, 1};\n", 0, "#.......#.......#/"},
        {"array short of the image", kHead + "static char a[] = {\n  0x05 };\n", IMG_ERR_INVALID},
        {"text ends in the array", kHead + "static char a[] = {\n  0x05,", IMG_ERR_INVALID},
        {"zero byte ends the text", kHead + "static char a[] = {\n  0x05," + std::string(1, '\0') + " 0x02 };\n", IMG_ERR_INVALID},
        {"width overflows", "#define w 2147483648\n#define h 1\nstatic char a[] = {0};\n", IMG_ERR_INVALID},
        {"width 0", "#define w 0\n#define h 1\nstatic char a[] = {0};\n", IMG_ERR_INVALID},
        {"pixel block of 2 GiB", "#define w 2147483647\n#define h 9\nstatic char a[] = {0};\n", IMG_ERR_INVALID},
        {"name ends at column 79", "#define " + std::string(71, 'n') + " 3\n#define h 1\nstatic char a[] = {7};\n", 0, "###/"},
        {"name past column 80", "#define " + std::string(72, 'n') + " 3\n#define h 1\nstatic char a[] = {0};\n", IMG_ERR_INVALID},
        {"int items", kHead + "static int a[] = {0x05, 0x02};\n", IMG_ERR_INVALID},
        {"char item above 255", kHead + "static char a[] = {0x105, 0x02};\n", IMG_ERR_INVALID},
        {"short item above 65535", "#define w 1\n#define h 1\nstatic short a[] = {65536};\n", IMG_ERR_INVALID},
        {"not a number", kHead + "static char a[] = {0x0g, 0x02};\n", IMG_ERR_INVALID},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        int32_t status = 0;
        Raster r = DecodeMemory(Bytes(c.text), &status);
        if (c.status < 0) {
            EXPECT_EQ(status, c.status);
            continue;
        }
        ASSERT_GE(status, 0);
        EXPECT_EQ(Pixels(r), c.pixels);
    }
}

// A long text read from a file, a block at a time: a single line of items
// far longer than a block.
TEST_F(XbmRead, OneLineLongerThanABlock)
{
    Picture p = MakePicture(800, 50, 1, 3);
    std::string text = "#define w 800\n#define h 50\nstatic char a[] = {";
    for (const auto &row : p.rows)
        for (int i = 0; i < 100; i++)
            text += std::to_string(Item(row[(size_t)i])) + ",";
    std::string path = TempPath("long.xbm");
    ASSERT_TRUE(WriteFile(path, Bytes(text + "}")));
    EXPECT_EQ(RasterDiff(DecodeFile(path), p.Rgb()), 0);
    std::remove(path.c_str());
}

std::string SavedText(const Picture &p, int32_t type, int32_t *status)
{
    std::vector<uint8_t> bytes = Saved(p, type, status);
    return {bytes.begin(), bytes.end()};
}

using XbmWrite = TrnwTest;

// Items as ~reverse(byte), twelve a line, the last closing the array.  (Our
// XBM and XPM files of every depth are read back by ImageMagick and netpbm
// in tests/interop.)
TEST_F(XbmWrite, ItemsTwelveALineAndTheClosingBrace)
{
    Picture white = MakePicture(1, 1, 1, 1);
    white.rows[0][0] = 0x80; // bit 1: white
    int32_t status = 0;
    EXPECT_EQ(SavedText(white, IMG_TYPE_XBM, &status),
              "#define untitled_width 1\n#define untitled_height 1\nstatic char untitled_bits[] = {\n    0xfe};\n");

    Picture tall = MakePicture(8, 97, 1, 2); // 97 items: 8 full lines and 1
    for (int y = 0; y < 97; y++)
        tall.rows[(size_t)y][0] = (uint8_t)y;
    std::string text = SavedText(tall, IMG_TYPE_XBM, &status), expected;
    for (int i = 0; i < 97; i++) {
        char item[8];
        std::snprintf(item, sizeof item, "0x%02x", Item((uint8_t)i));
        expected += std::string(i % 12 ? "" : "    ") + item + (i == 96 ? "};\n" : i % 12 == 11 ? ",\n" : ", ");
    }
    EXPECT_EQ(text.substr(text.find("{\n") + 2), expected);
    for (auto [type, bits] : {std::pair{IMG_TYPE_XBM, 4}, {IMG_TYPE_XPM, 24}}) {
        EXPECT_EQ(SavedText(MakePicture(2, 2, bits, 1), type, &status), "");
        EXPECT_EQ(status, IMG_ERR_DEPTH);
    }
}

} // namespace
