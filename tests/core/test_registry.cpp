/* The format registry and detection: every probe over its bytes, the order
 * that resolves overlaps, the auto-detect flags, the type queries with the
 * TIFF, BMP and GIF subtype queries, and the save extension list. */
#include "support/support.h"

#include <cctype>
#include <tuple>

namespace {

const int kMem = IMG_MEMORY_HANDLE;
const uint8_t kFill = 0xAA; // matches no probe anywhere (checked below)
const size_t kLong = 600;   // long enough for the PICT (522) and MacPaint (65) bytes

using Bytes = std::vector<uint8_t>;

class Registry : public TrnwTest {
  protected:
    void TearDown() override
    {
        RegistryResetAutoDetect(); // the flags are process-wide
        std::remove(TempPath("registry.bin").c_str());
        TrnwTest::TearDown();
    }

    static std::string Scratch(const Bytes &bytes)
    {
        std::string path = TempPath("registry.bin");
        EXPECT_TRUE(::WriteFile(path, bytes));
        return path;
    }

    // IMGLOW_get_filetype over the bytes written to a scratch file.
    static int32_t FileType(const Bytes &bytes) { return IMGLOW_get_filetype(Scratch(bytes).c_str()); }
};

// `head`, then kFill up to `total` bytes.
Bytes Padded(const Bytes &head, size_t total = kLong)
{
    Bytes b(head);
    if (b.size() < total)
        b.resize(total, kFill);
    return b;
}

// ImgDetect over `head` padded to kLong bytes as a sized memory image; checks
// the source is left at 0.
std::string DetectHead(const Bytes &head)
{
    Bytes copy = Padded(head);
    ImgSetMemorySourceSized(copy.data(), (uint32_t)copy.size());
    char extension[4] = {'x', 'x', 'x', 0};
    int result = ImgDetect(kMem, extension);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ImgTell(), 0u) << "detection leaves the source at absolute 0";
    return extension;
}

int32_t MemType(Bytes bytes) { return IMGLOW_get_filetype_mem_size(bytes.data(), (uint32_t)bytes.size()); }

Bytes Text(const char *s) { return Bytes(s, s + std::strlen(s)); }

// `bytes` at offset `at` behind kFill.
Bytes At(size_t at, const Bytes &bytes)
{
    Bytes b(at, kFill);
    b.insert(b.end(), bytes.begin(), bytes.end());
    return b;
}

// Appends more to bytes (resize and copy: GCC 12's -Warray-bounds misfires on
// vector::insert at -O2).
void Append(Bytes &bytes, const Bytes &more)
{
    size_t at = bytes.size();
    bytes.resize(at + more.size());
    std::copy(more.begin(), more.end(), bytes.begin() + (std::ptrdiff_t)at);
}

struct Entry {
    uint16_t tag, type;
    uint32_t count, value; // value: in the field (BYTE, SHORT, LONG) or an offset
};

void Put16(Bytes &b, size_t at, uint16_t v, bool be) { be ? PutBE16(&b[at], v) : PutLE16(&b[at], v); }
void Put32(Bytes &b, size_t at, uint32_t v, bool be) { be ? PutBE32(&b[at], v) : PutLE32(&b[at], v); }

// A TIFF header ("MM" or "II", version 42) with its first IFD at `ifdAt`
// holding `entries`; the file is at least `size` bytes (kFill after the IFD).
// A value that fits in the field is stored left-justified in file order.
Bytes MakeTiff(bool be, const std::vector<Entry> &entries, uint32_t ifdAt = 8, size_t size = 0)
{
    size_t end = ifdAt + 2 + 12 * entries.size() + 4;
    Bytes b(std::max(end, size), kFill);
    b[0] = b[1] = be ? 'M' : 'I';
    Put16(b, 2, 42, be);
    Put32(b, 4, ifdAt, be);
    Put16(b, ifdAt, (uint16_t)entries.size(), be);
    for (size_t i = 0; i < entries.size(); i++) {
        size_t at = ifdAt + 2 + 12 * i;
        const Entry &e = entries[i];
        Put16(b, at, e.tag, be);
        Put16(b, at + 2, e.type, be);
        Put32(b, at + 4, e.count, be);
        Put32(b, at + 8, 0, be);
        bool inField = (e.type == TIFF_BYTE && e.count <= 4) || (e.type == TIFF_SHORT && e.count <= 2);
        if (e.type == TIFF_BYTE && inField)
            b[at + 8] = (uint8_t)e.value;
        else if (e.type == TIFF_SHORT && inField)
            Put16(b, at + 8, (uint16_t)e.value, be);
        else
            Put32(b, at + 8, e.value, be);
    }
    Put32(b, end - 4, 0, be); // no next IFD
    return b;
}

Bytes TiffWithCompression(bool be, uint32_t compression, int t4 = -1)
{
    std::vector<Entry> entries = {{256, TIFF_SHORT, 1, 8}, {257, TIFF_SHORT, 1, 8},
                                  {259, TIFF_SHORT, 1, compression}};
    if (t4 >= 0)
        entries.push_back({292, TIFF_LONG, 1, (uint32_t)t4});
    return MakeTiff(be, entries, 8, kLong);
}

Bytes MakeBmp(uint32_t compression)
{
    Bytes b(kLong, 0);
    b[0] = 'B';
    b[1] = 'M';
    PutLE32(&b[2], (uint32_t)b.size());
    PutLE32(&b[10], 54);
    PutLE32(&b[14], 40);
    PutLE32(&b[18], 4);  // width
    PutLE32(&b[22], 4);  // height
    PutLE16(&b[26], 1);  // planes
    PutLE16(&b[28], 8);  // bits
    PutLE32(&b[30], compression);
    return b;
}

// "GIF89a", a 4 x 4 screen with the given flags, then `body`.
Bytes MakeGif(uint8_t screenFlags, const Bytes &body)
{
    static const uint8_t header[13] = {'G', 'I', 'F', '8', '9', 'a', 4, 0, 4, 0, 0, 0, 0};
    Bytes b(sizeof header + body.size());
    std::copy(header, header + sizeof header, b.begin());
    b[10] = screenFlags;
    std::copy(body.begin(), body.end(), b.begin() + sizeof header);
    return b;
}

Bytes ImageDescriptor(uint8_t flags)
{
    return {0x2C, 0, 0, 0, 0, 4, 0, 4, 0, flags, 2, 1, 0, 0, 0x3B};
}

// The TIFF types share one flag (index 0), 12 shares index 1; set and unset
// return the previous value; a TIFF is not detected while its flag is off.
TEST_F(Registry, AutoDetectFlags)
{
    for (int type = 0; type < 57; type++) // on by default but for plain text and 55; 56 is no type
        EXPECT_EQ(IMGLOW_get_auto_detect(type), type == 56 ? IMG_ERR_TYPE : type != 38 && type != 55) << type;
    Bytes tiff = TiffWithCompression(true, 4);
    ASSERT_EQ(FileType(tiff), IMG_TYPE_TIFF_G4);
    EXPECT_EQ(IMGLOW_unset_auto_detect(7), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(7), 0);
    for (int type : {0, 7, 8, 9, 10, 16, 17, 40})
        EXPECT_EQ(IMGLOW_get_auto_detect(type), 0) << "type " << type;
    EXPECT_EQ(IMGLOW_get_auto_detect(11), 1);
    EXPECT_EQ(FileType(tiff), IMG_ERR_TYPE);
    EXPECT_EQ(FileType(TiffWithCompression(false, 1)), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_auto_detect(40), 0);
    EXPECT_EQ(FileType(tiff), IMG_TYPE_TIFF_G4);

    EXPECT_EQ(IMGLOW_unset_auto_detect(12), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(1), 0);
}

struct ProbeCase {
    Bytes head;
    const char *extension;
    int32_t type; // what IMGLOW_get_filetype reports for head padded to kLong
};

TEST_F(Registry, EveryProbeAcceptsItsBytes)
{
    IMGLOW_set_auto_detect(38);
    const std::vector<ProbeCase> cases = {
        {{'G', 'I', 'F', '8', '7', 'a'}, "gif", IMG_ERR_INVALID}, // filler is no GIF block
        {{0xC5, 0xD0, 0xD3, 0xC6}, "eps", IMG_TYPE_EPS}, {{0xB1, 0x68, 0xDE, 0x3A}, "dcx", IMG_TYPE_DCX},
        {{0xFF, 0xD8, 0xFF, 0xE0}, "jpg", IMG_TYPE_JPG}, {{0xFF, 'W', 'P', 'C'}, "wpg", IMG_TYPE_WPG},
        {Text("srcdocid:"), "cal", IMG_TYPE_CALS}, {{0x89, 'P', 'N', 'G', 0x0D, 0x0A}, "png", IMG_TYPE_PNG},
        {Text(".KF"), "kfx", IMG_TYPE_KFX}, {Text("FORM"), "iff", IMG_TYPE_IFF},
        {Text("GX2"), "gx2", IMG_TYPE_GX2}, {{0xDC, 0xDC}, "lsd", IMG_TYPE_LSD},
        {{0x0A, 0x05, 0x01, 0x08}, "pcx", IMG_TYPE_PCX}, {{0, 0, 1, 0, 1, 0, 16}, "ico", IMG_TYPE_ICO},
        {{0, 0, 1, 0, 1, 0, 32}, "ico", IMG_TYPE_ICO}, {{0, 0, 1, 0, 1, 0, 64}, "ico", IMG_TYPE_ICO},
        {{0, 0, 2}, "tga", IMG_TYPE_TGA}, {{0, 1, 1}, "tga", IMG_TYPE_TGA}, {{0, 1, 9}, "tga", IMG_TYPE_TGA},
        {{30, 0, 0x9C}, "tga", IMG_TYPE_TGA}, {{0xD7, 0xCD, 0xC6, 0x9A}, "wmf", IMG_TYPE_WMF},
        {{1}, "wmf", IMG_TYPE_WMF}, {{kFill, 2}, "wmf", IMG_TYPE_WMF},
        {{kFill, kFill, 0xD3, 0xA6, 0xFB}, "ica", IMG_TYPE_ICA},
        {{kFill, kFill, 0xD3, 0xA8, 0xA8}, "ica", IMG_TYPE_ICA}, {{'p'}, "ica", IMG_TYPE_ICA},
        {{0xFF, 0xFF, 0xFF, 0xFF}, "pcd", IMG_TYPE_PCD}, {{0x50, 0xC3}, "clp", IMG_TYPE_CLP},
        {{0, 1, 0, 8}, "img", IMG_TYPE_IMG}, {{0, 1, 0, 9}, "img", IMG_TYPE_IMG},
        {{0xBB, kFill, kFill, 1}, "btr", IMG_TYPE_BTR}, {Text("LinS"), "msp", IMG_TYPE_MSP},
        {Text("#define w 8"), "xbm", IMG_TYPE_XBM}, {Text("/* XPM */"), "xpm", IMG_TYPE_XPM},
        {{kFill, kFill, kFill, kFill, 0, 0, 0, 7}, "xwd", IMG_TYPE_XWD},
        {{0x59, 0xA6, 0x6A, 0x95}, "ras", IMG_TYPE_RAS}, {{0x10, 0, 0x20, 0, 0, 0}, "cut", IMG_TYPE_CUT},
        {{0x87, 0x13, 0, 0, 0, 0}, "cut", IMG_TYPE_CUT}, // 4999 wide, 0 high
        {Text("Some text."), "txt", IMG_TYPE_TXT}, {Text("8BPS"), "psd", IMG_TYPE_PSD},
        {{'\'', 'C', '1', 0}, "imt", IMG_TYPE_IMT}, {At(522, {0x11}), "pct", IMG_TYPE_PCT},
        {At(65, Text("PNTG")), "mac", IMG_TYPE_MAC},
    };
    for (const ProbeCase &c : cases) {
        SCOPED_TRACE(c.extension);
        EXPECT_EQ(DetectHead(c.head), c.extension);
        EXPECT_EQ(FileType(Padded(c.head)), c.type);
        EXPECT_EQ(MemType(Padded(c.head)), c.type);
        if (c.type > 0) { // with its flag off, no longer found as that type
            IMGLOW_unset_auto_detect(c.type);
            EXPECT_NE(FileType(Padded(c.head)), c.type);
            IMGLOW_set_auto_detect(c.type);
        }
    }
}

// _fd detects from the handle's current position, seeks back there for the
// subtype query (TIFF offsets, the BMP and GIF headers count from there) and
// leaves the handle open.
TEST_F(Registry, FdDetectsFromCurrentPositionAndRefinesThere)
{
    Bytes file = Padded({0x0A, 5, 1}, 100); // a PCX at 0
    Append(file, TiffWithCompression(true, 3, 1));
    size_t bmpAt = file.size();
    Append(file, MakeBmp(1));
    size_t gifAt = file.size();
    Append(file, MakeGif(0, ImageDescriptor(0x40)));
    int h = ImgOpen(Scratch(file).c_str(), 0);
    ASSERT_GE(h, 0);
    const std::pair<size_t, int32_t> rows[] = {
        {0, IMG_TYPE_PCX}, {100, IMG_TYPE_TIFF_G3_2D}, {bmpAt, IMG_TYPE_BMP_COMPRESSED}, {gifAt, IMG_TYPE_GIF_INTERLACED}};
    for (const auto &row : rows) {
        EXPECT_EQ(ImgSeek(h, (int32_t)row.first, 0), (int32_t)row.first);
        EXPECT_EQ(IMGLOW_get_filetype_fd(h), row.second) << "at " << row.first;
    }
    uint8_t two[2];
    EXPECT_EQ(ImgSeek(h, 100, 0), 100);
    EXPECT_EQ(ImgRead(h, two, 2), 2) << "still open";
    EXPECT_EQ(two[0], 'M');
    ImgClose(h);
}

// Compression (and T4Options bit 0 for compression 3) picks the TIFF type in
// either byte order; a compression not in the table gives -7.
TEST_F(Registry, TiffTypeByCompression)
{
    const struct {
        uint32_t compression;
        int t4;
        int32_t type;
    } table[] = {
        {1, -1, 0}, {2, -1, 7}, {3, -1, 8}, {5, -1, 9}, {4, -1, 10}, {32773, -1, 16}, {6, -1, 40},
        {32010, -1, 46}, {32008, -1, 47}, {3, 1, 17}, {3, 5, 17}, {3, 4, 8}, {3, 0, 8}, {4, 1, 10},
        {2, 1, 7}, {0, -1, IMG_ERR_TYPE}, {7, -1, 40}, {8, -1, IMG_ERR_TYPE},
        {45, -1, IMG_ERR_TYPE}, {99, -1, IMG_ERR_TYPE}, {32771, -1, IMG_ERR_TYPE}, {34712, -1, IMG_ERR_TYPE},
    };
    for (bool be : {false, true}) {
        for (const auto &row : table) {
            SCOPED_TRACE(std::to_string(row.compression) + " t4 " + std::to_string(row.t4) + (be ? " MM" : " II"));
            EXPECT_EQ(FileType(TiffWithCompression(be, row.compression, row.t4)), row.type);
            EXPECT_EQ(MemType(TiffWithCompression(be, row.compression, row.t4)), row.type);
        }
    }
}

TEST_F(Registry, TiffHeaderErrors)
{
    // A header shorter than 8 bytes; a byte order neither II nor MM.
    for (std::pair<Bytes, int> c : {std::pair<Bytes, int>{{'I', 'I', 42, 0, 8}, IMG_ERR_INVALID},
                                     {{'I', 'M', 42, 0, 8, 0, 0, 0}, IMG_ERR_TYPE}}) {
        ImgSetMemorySourceSized(c.first.data(), (uint32_t)c.first.size());
        EXPECT_EQ(TiffSubtype(kMem, 0), c.second) << c.first.size();
    }
}

// A BMP shorter than its two headers (14 + 40 bytes) gives -12.
TEST_F(Registry, BmpShortHeadersGiveMinus12)
{
    for (auto [compression, size, expected] : {std::tuple<uint32_t, size_t, int32_t>{0, 20, IMG_ERR_READ},
                                                {0, 12, IMG_ERR_READ}, {1, 53, IMG_ERR_READ},
                                                {1, 54, IMG_TYPE_BMP_COMPRESSED}}) {
        Bytes b = MakeBmp(compression);
        b.resize(size);
        EXPECT_EQ(FileType(b), expected) << size;
    }
}

// The GIF subtype comes from the first image descriptor's interlace flag,
// after the global colour table (of any size) and the extension blocks.
TEST_F(Registry, GifTableAndExtensionsAreSkipped)
{
    for (int size = 0; size < 8; size++) {
        Bytes table(3u << (size + 1), 0x2C); // bytes that would look like a descriptor
        Append(table, ImageDescriptor(0x40));
        EXPECT_EQ(FileType(MakeGif((uint8_t)(0x80 | size), table)), IMG_TYPE_GIF_INTERLACED) << size;
    }
    Bytes six(6, 0x2C); // without the table flag the same bytes start at once
    Append(six, Bytes(10, 0));
    EXPECT_EQ(FileType(MakeGif(0x00, six)), IMG_TYPE_GIF);

    Bytes body(12, 0x21); // a two-entry table
    EXPECT_EQ(FileType(MakeGif(0x81, body)), IMG_ERR_INVALID) << "a table of 0x21 and then nothing";
    Append(body, {0x21, 0xF9, 4, 1, 0, 0, 0x2C, 0});               // graphic control, ends in 0x2C data
    Append(body, {0x21, 0xFE, 3, 'a', 'b', 'c', 2, 'd', 'e', 0}); // comment, 2 sub-blocks
    Append(body, {0x21, 0xFF, 0});                               // empty
    Append(body, ImageDescriptor(0x40));
    EXPECT_EQ(FileType(MakeGif(0x81, body)), IMG_TYPE_GIF_INTERLACED);
    EXPECT_EQ(MemType(MakeGif(0x81, body)), IMG_TYPE_GIF_INTERLACED);
}

TEST_F(Registry, TypeForPathAndExtensionOfType)
{
    const std::vector<std::pair<const char *, int>> list = {
        {"tif", 0},  {"bmp", 1},  {"pcx", 2},  {"tga", 3},  {"gif", 4},  {"wpg", 5},  {"wmf", 6},
        {"dcx", 11}, {"jpg", 13}, {"pct", 15}, {"eps", 14}, {"cal", 18}, {"ico", 25}, {"clp", 27},
        {"xbm", 20}, {"xpm", 35}, {"xwd", 36}, {"ras", 37}, {"psd", 41}, {"iff", 26}, {"png", 43},
        {"ica", 24}, {"mca", 49},
    };
    for (const auto &e : list) {
        std::string lower = std::string("dir/picture.") + e.first, upper = lower, mixed = lower;
        for (char &c : upper) c = (char)std::toupper((unsigned char)c);
        mixed[mixed.size() - 2] = upper[upper.size() - 2];
        for (const std::string &path : {lower, upper, mixed, std::string(e.first)})
            EXPECT_EQ(RegistryTypeForPath(path.c_str()), e.second) << path;
        EXPECT_STREQ(IMG_type_extension(e.second), e.first); // and back
    }
    // Every type of a format shares its extension; formats without a save
    // extension give their detection word.
    for (auto [type, extension] : {std::pair{10, "tif"}, {44, "gif"}, {48, "dib"}, {33, "fax"}, {45, ""}})
        EXPECT_STREQ(IMG_type_extension(type), extension) << type;
}

} // namespace
