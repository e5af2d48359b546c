/*
 * test_registry.cpp - Part 1.3: the format registry and detection.
 *
 * Every probe of the format table over its bytes, the order that resolves
 * overlaps, the Targa and CUT boundaries, the PICT and MacPaint probes that
 * read the file themselves, the auto-detect flags and their type-to-index
 * mapping, the type query (IMGLOW_get_filetype and its _fd and _mem forms)
 * with the TIFF, BMP and GIF subtype queries, the memory image's claim of
 * success past its end as detection sees it, the extension list of Part 1.5
 * and the reader and writer rows.  Expected values come from the words of
 * spec Parts 1.3, 1.4, 1.5 and 2.3, and, where marked, from our documented
 * hardening in docs/DEVIATIONS.md.
 */
#include "support/support.h"

#include <cctype>


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
        for (const std::string &path : created_)
            ImgDelete(path.c_str());
        TrnwTest::TearDown();
    }

    // Writes bytes to a scratch file through the library's file functions.
    std::string WriteFile(const std::string &name, const Bytes &bytes)
    {
        std::string path = TempPath(name);
        int h = ImgOpen(path.c_str(), 2);
        EXPECT_GE(h, 0) << path;
        if (h >= 0) {
            if (!bytes.empty()) {
                EXPECT_EQ(ImgWrite(h, bytes.data(), (uint32_t)bytes.size()), (int32_t)bytes.size());
            }
            ImgClose(h);
        }
        created_.push_back(path);
        return path;
    }

    // IMGLOW_get_filetype over the bytes written to a file of that name.
    int32_t FileType(const Bytes &bytes, const std::string &name = "registry.bin")
    {
        return IMGLOW_get_filetype(WriteFile(name, bytes).c_str());
    }

    std::vector<std::string> created_;
};

// `head`, then kFill up to `total` bytes.
Bytes Padded(const Bytes &head, size_t total = kLong)
{
    Bytes b(head);
    if (b.size() < total)
        b.resize(total, kFill);
    return b;
}

// ImgDetect over the bytes as a sized memory image; checks the source is left at 0.
std::string Detect(const Bytes &bytes)
{
    Bytes copy(bytes);
    ImgSetMemorySourceSized(copy.data(), (uint32_t)copy.size());
    char extension[4] = {'x', 'x', 'x', 0};
    int result = ImgDetect(kMem, extension);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ImgTell(), 0u) << "detection leaves the source at absolute 0";
    return extension;
}

// ImgDetect over `head` padded with kFill to kLong bytes.
std::string DetectHead(const Bytes &head) { return Detect(Padded(head)); }

int32_t MemType(Bytes bytes) { return IMGLOW_get_filetype_mem_size(bytes.data(), (uint32_t)bytes.size()); }

Bytes Text(const char *s) { return Bytes(s, s + std::strlen(s)); }

// Appends more to bytes (resize and copy: GCC 12's -Warray-bounds misfires on
// vector::insert at -O2).
void Append(Bytes &bytes, const Bytes &more)
{
    size_t at = bytes.size();
    bytes.resize(at + more.size());
    std::copy(more.begin(), more.end(), bytes.begin() + (std::ptrdiff_t)at);
}

// ---- TIFF building ----

struct Entry {
    uint16_t tag, type;
    uint32_t count, value; // value: in the field (BYTE, SHORT, LONG) or an offset
};

void Put16(Bytes &b, size_t at, uint16_t v, bool be)
{
    if (be)
        PutBE16(&b[at], v);
    else
        PutLE16(&b[at], v);
}

void Put32(Bytes &b, size_t at, uint32_t v, bool be)
{
    if (be)
        PutBE32(&b[at], v);
    else
        PutLE32(&b[at], v);
}

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

// ---- BMP and GIF building ----

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

// ======================================================================
// Edge cases worth testing (Part 1.3)
// ======================================================================

// Edge 1: a file that begins "II" is TIFF even when it is named .bmp.
TEST_F(Registry, IIFileNamedBmpIsTiff)
{
    EXPECT_EQ(FileType(TiffWithCompression(false, 1), "looks_like.bmp"), IMG_TYPE_TIFF);
    EXPECT_EQ(FileType(TiffWithCompression(false, 4), "looks_like.BMP"), IMG_TYPE_TIFF_G4);
}

// Edge 2: plain text is unknown until IMGLOW_set_auto_detect(38); then it is
// text; a text beginning "GIF" is still a GIF (an earlier probe).
TEST_F(Registry, TextNeedsSetAutoDetect38)
{
    Bytes text = Text("Hello, world.\r\nThis is a text file.\r\n");
    EXPECT_EQ(FileType(text), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_auto_detect(38), 0) << "previous value: off at start";
    EXPECT_EQ(FileType(text), IMG_TYPE_TXT);
    EXPECT_EQ(Detect(text), "txt");
}

TEST_F(Registry, TextBeginningGifIsGif)
{
    Bytes text = Text("GIF is a text file, not a picture.\n");
    IMGLOW_set_auto_detect(38);
    EXPECT_EQ(Detect(text), "gif");
    // The type query then runs the GIF subtype query over text: the byte after
    // the 13-byte header (' ') is neither an extension nor an image: -3.
    EXPECT_EQ(FileType(text), IMG_ERR_INVALID);
}

// Edge 3: IMGLOW_unset_auto_detect(7) switches off TIFF altogether (index 0)
// and returns 1 the first time, 0 the second.
TEST_F(Registry, UnsetSevenSwitchesOffAllTiff)
{
    Bytes tiff = TiffWithCompression(true, 4);
    ASSERT_EQ(FileType(tiff), IMG_TYPE_TIFF_G4);
    EXPECT_EQ(IMGLOW_unset_auto_detect(7), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(7), 0);
    for (int type : {0, 7, 8, 9, 10, 16, 17, 40})
        EXPECT_EQ(IMGLOW_get_auto_detect(type), 0) << "type " << type;
    EXPECT_EQ(FileType(tiff), IMG_ERR_TYPE);
    EXPECT_EQ(FileType(TiffWithCompression(false, 1)), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_auto_detect(40), 0);
    EXPECT_EQ(FileType(tiff), IMG_TYPE_TIFF_G4);
}

// Edge 4: IMGLOW_set_auto_detect(56) gives -7.
TEST_F(Registry, SetAutoDetect56IsRefused)
{
    EXPECT_EQ(IMGLOW_set_auto_detect(56), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_unset_auto_detect(56), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_get_auto_detect(56), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_auto_detect(55), 0) << "55 is the last index";
}

// Edge 5: a file of fewer than ten bytes is unknown; ImgDetect returns what
// the read returned, with an empty extension.
TEST_F(Registry, FewerThanTenBytesIsUnknown)
{
    Bytes nine = {'I', 'I', 42, 0, 8, 0, 0, 0, 0};
    EXPECT_EQ(FileType(nine), IMG_ERR_TYPE);
    EXPECT_EQ(FileType(Bytes{}), IMG_ERR_TYPE);

    int h = ImgOpen(WriteFile("nine.bin", nine).c_str(), 0);
    ASSERT_GE(h, 0);
    char extension[4] = {'x', 'x', 'x', 0};
    EXPECT_EQ(ImgDetect(h, extension), 9);
    EXPECT_STREQ(extension, "");
    ImgClose(h);

    EXPECT_EQ(MemType(nine), IMG_ERR_TYPE) << "a sized memory image of 9 bytes reads short";
}

// Edge 6: disabling PICT (index 15) makes the MacPaint probe read from the
// wrong place; a MacPaint file that reaches it is then not MacPaint.
TEST_F(Registry, PictOffMakesMacPaintReadWrongPlace)
{
    Bytes mac = Padded({});
    mac[65] = 'P', mac[66] = 'N', mac[67] = 'T', mac[68] = 'G';
    EXPECT_EQ(FileType(mac), IMG_TYPE_MAC);
    EXPECT_EQ(IMGLOW_unset_auto_detect(15), 1);
    EXPECT_EQ(FileType(mac), IMG_ERR_TYPE);

    Bytes zeros = Padded({});
    std::fill(zeros.begin() + 65, zeros.begin() + 69, 0);
    EXPECT_EQ(FileType(zeros), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_auto_detect(15), 0);
    EXPECT_EQ(FileType(zeros), IMG_TYPE_MAC);
}

// Edge 7: bytes 65 to 68 zero, no earlier probe: MacPaint.
TEST_F(Registry, ZeroBytesAt65AreMacPaint)
{
    Bytes b = Padded({});
    std::fill(b.begin() + 65, b.begin() + 69, 0);
    EXPECT_EQ(FileType(b), IMG_TYPE_MAC);
    EXPECT_EQ(Detect(b), "mac");
    b[68] = 1;
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE) << "three zero bytes are not enough";
}

// ======================================================================
// Every probe of the table accepts its bytes
// ======================================================================

TEST_F(Registry, FillerMatchesNoProbe)
{
    IMGLOW_set_auto_detect(38);
    IMGLOW_set_auto_detect(55);
    EXPECT_EQ(DetectHead({}), "");
    EXPECT_EQ(FileType(Padded({})), IMG_ERR_TYPE);
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
        {{0xC5, 0xD0, 0xD3, 0xC6}, "eps", IMG_TYPE_EPS},
        {{0xB1, 0x68, 0xDE, 0x3A}, "dcx", IMG_TYPE_DCX},
        {{0xFF, 0xD8, 0xFF, 0xE0}, "jpg", IMG_TYPE_JPG},
        {{0xFF, 'W', 'P', 'C'}, "wpg", IMG_TYPE_WPG},
        {Text("srcdocid:"), "cal", IMG_TYPE_CALS},
        {{0x89, 'P', 'N', 'G', 0x0D, 0x0A}, "png", IMG_TYPE_PNG},
        {Text(".KF"), "kfx", IMG_TYPE_KFX},
        {Text("FORM"), "iff", IMG_TYPE_IFF},
        {Text("GX2"), "gx2", IMG_TYPE_GX2},
        {{0xDC, 0xDC}, "lsd", IMG_TYPE_LSD},
        {{0x0A, 0x05, 0x01, 0x08}, "pcx", IMG_TYPE_PCX},
        {{0, 0, 1, 0, 1, 0, 16}, "ico", IMG_TYPE_ICO},
        {{0, 0, 1, 0, 1, 0, 32}, "ico", IMG_TYPE_ICO},
        {{0, 0, 1, 0, 1, 0, 64}, "ico", IMG_TYPE_ICO},
        {{0, 0, 2}, "tga", IMG_TYPE_TGA},
        {{0xD7, 0xCD, 0xC6, 0x9A}, "wmf", IMG_TYPE_WMF},
        {{1}, "wmf", IMG_TYPE_WMF},
        {{kFill, 2}, "wmf", IMG_TYPE_WMF},
        {{kFill, kFill, 0xD3, 0xA6, 0xFB}, "ica", IMG_TYPE_ICA},
        {{kFill, kFill, 0xD3, 0xA8, 0xA8}, "ica", IMG_TYPE_ICA},
        {{'p'}, "ica", IMG_TYPE_ICA},
        {{0xFF, 0xFF, 0xFF, 0xFF}, "pcd", IMG_TYPE_PCD},
        {{0x50, 0xC3}, "clp", IMG_TYPE_CLP},
        {{0, 1, 0, 8}, "img", IMG_TYPE_IMG},
        {{0, 1, 0, 9}, "img", IMG_TYPE_IMG},
        {{0xBB, kFill, kFill, 1}, "btr", IMG_TYPE_BTR},
        {Text("LinS"), "msp", IMG_TYPE_MSP},
        {Text("#define w 8"), "xbm", IMG_TYPE_XBM},
        {Text("/* XPM */"), "xpm", IMG_TYPE_XPM},
        {{kFill, kFill, kFill, kFill, 0, 0, 0, 7}, "xwd", IMG_TYPE_XWD},
        {{0x59, 0xA6, 0x6A, 0x95}, "ras", IMG_TYPE_RAS},
        {{0x10, 0, 0x20, 0, 0, 0}, "cut", IMG_TYPE_CUT},
        {Text("Some text."), "txt", IMG_TYPE_TXT},
        {Text("8BPS"), "psd", IMG_TYPE_PSD},
        {{'\'', 'C', '1', 0}, "imt", IMG_TYPE_IMT},
    };
    for (const ProbeCase &c : cases) {
        SCOPED_TRACE(c.extension);
        EXPECT_EQ(DetectHead(c.head), c.extension);
        EXPECT_EQ(FileType(Padded(c.head)), c.type);
        EXPECT_EQ(MemType(Padded(c.head)), c.type);
    }
}

TEST_F(Registry, TiffProbeAcceptsMMAndII)
{
    EXPECT_EQ(DetectHead(Text("MM")), "tif");
    EXPECT_EQ(DetectHead(Text("II")), "tif");
    EXPECT_EQ(DetectHead(Text("MI")), "");
    EXPECT_EQ(DetectHead(Text("IM")), "");
}

TEST_F(Registry, BmpProbeAcceptsBMOrHeaderSize40)
{
    EXPECT_EQ(DetectHead(Text("BM")), "bmp");
    EXPECT_EQ(DetectHead({40, 0, 0, 0}), "bmp");
    EXPECT_EQ(DetectHead({40, 0, 0, 1}), "") << "the whole 32-bit word is 40";
    EXPECT_EQ(DetectHead({41, 0, 0, 0}), "");
}

// The PICT probe: the first or the second of the bytes at 522 is 0x11.
TEST_F(Registry, PictProbeReadsOffset522)
{
    Bytes b = Padded({});
    b[522] = 0x11;
    EXPECT_EQ(Detect(b), "pct");
    EXPECT_EQ(FileType(b), IMG_TYPE_PCT);
    b[522] = kFill;
    b[523] = 0x11;
    EXPECT_EQ(FileType(b), IMG_TYPE_PCT);
    b[523] = kFill;
    b[524] = 0x11;
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE) << "only the first two bytes count";
}

TEST_F(Registry, MacPaintProbeAcceptsPNTAt65)
{
    Bytes b = Padded({});
    b[65] = 'P', b[66] = 'N', b[67] = 'T';
    EXPECT_EQ(Detect(b), "mac");
    EXPECT_EQ(FileType(b), IMG_TYPE_MAC);
    b[66] = 'n';
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE);
}

// The MacPaint probe moves 467 back from where the PICT probe left off: a
// file too short for the PICT read (which returns nothing and leaves the
// position at 522) has its MacPaint bytes read at 522 - 467 = 55.
TEST_F(Registry, MacPaintInShortFileReadsAt55)
{
    Bytes b = Padded({}, 200);
    std::fill(b.begin() + 55, b.begin() + 59, 0);
    EXPECT_EQ(FileType(b), IMG_TYPE_MAC);
    Bytes c = Padded({}, 200);
    std::fill(c.begin() + 65, c.begin() + 69, 0);
    EXPECT_EQ(FileType(c), IMG_ERR_TYPE);
}

// Index 55 is off at start and no probe uses it; switching it on changes nothing.
TEST_F(Registry, Index55IsOffAndUnused)
{
    EXPECT_EQ(IMGLOW_get_auto_detect(55), 0);
    EXPECT_EQ(IMGLOW_set_auto_detect(55), 0);
    EXPECT_EQ(DetectHead({}), "");
}

// ======================================================================
// Probe order resolves overlaps
// ======================================================================

TEST_F(Registry, OrderTargaBeforeWmf)
{
    // b0 = 1 is a metafile, but image type 1 with colour map 1 is Targa first.
    EXPECT_EQ(DetectHead({1, 1, 1}), "tga");
    EXPECT_EQ(DetectHead({1, 0, 0}), "wmf") << "image type 0: the Targa test fails";
    IMGLOW_unset_auto_detect(3);
    EXPECT_EQ(DetectHead({1, 1, 1}), "wmf");
}

TEST_F(Registry, OrderPcxBeforeWmf)
{
    EXPECT_EQ(DetectHead({0x0A, 2, 1}), "pcx");
    IMGLOW_unset_auto_detect(2);
    EXPECT_EQ(DetectHead({0x0A, 2, 1}), "wmf") << "b1 = 2";
}

TEST_F(Registry, OrderIcaBeforeText)
{
    IMGLOW_set_auto_detect(38);
    EXPECT_EQ(DetectHead(Text("plain text")), "ica") << "b0 = 'p'";
    IMGLOW_unset_auto_detect(24);
    EXPECT_EQ(DetectHead(Text("plain text")), "txt");
}

TEST_F(Registry, OrderXwdBeforeCut)
{
    Bytes both = {0x10, 0, 0x20, 0, 0, 0, 0, 7};
    EXPECT_EQ(DetectHead(both), "xwd");
    IMGLOW_unset_auto_detect(36);
    EXPECT_EQ(DetectHead(both), "cut");
}

TEST_F(Registry, OrderGifBeforeText)
{
    IMGLOW_set_auto_detect(38);
    EXPECT_EQ(DetectHead(Text("GIF text..")), "gif");
    IMGLOW_unset_auto_detect(4);
    EXPECT_EQ(DetectHead(Text("GIF text..")), "txt");
}

TEST_F(Registry, OrderTiffBeforeText)
{
    IMGLOW_set_auto_detect(38);
    EXPECT_EQ(DetectHead(Text("II is text")), "tif");
}

TEST_F(Registry, OrderMacPaintAfterPict)
{
    Bytes b = Padded({});
    b[522] = 0x11;
    b[65] = 'P', b[66] = 'N', b[67] = 'T';
    EXPECT_EQ(Detect(b), "pct");
}

// Failure handling: a DIB-headed file reads as bitmap only while index 1 is
// enabled (IMGLOW_unset_auto_detect(12) reaches index 1).
TEST_F(Registry, DibHeadedFileNeedsIndex1)
{
    Bytes dib = Padded({40, 0, 0, 0, 16, 0, 0, 0, 16, 0});
    EXPECT_EQ(Detect(dib), "bmp");
    EXPECT_EQ(IMGLOW_unset_auto_detect(12), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(1), 0);
    EXPECT_EQ(Detect(dib), "");
    EXPECT_EQ(FileType(dib), IMG_ERR_TYPE);
}

// ======================================================================
// The Targa and CUT tests
// ======================================================================

TEST_F(Registry, TargaColourMappedTypes)
{
    EXPECT_EQ(DetectHead({0, 1, 1}), "tga");
    EXPECT_EQ(DetectHead({0, 1, 9}), "tga");
    EXPECT_EQ(DetectHead({0, 0, 1}), "") << "type 1 needs colour-map type 1";
    EXPECT_EQ(DetectHead({0, 3, 9}), "");
}

TEST_F(Registry, TargaTrueColourAndGreyTypes)
{
    for (uint8_t type : {2, 10, 3, 11}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(DetectHead({0, 0, type}), "tga");
        EXPECT_EQ(DetectHead({0, 1, type}), "") << "colour-map type must be 0";
    }
    EXPECT_EQ(DetectHead({0, 0, 4}), "") << "type 4 is none of them";
}

TEST_F(Registry, TargaIdLengthAndType9CBoundaries)
{
    EXPECT_EQ(DetectHead({23, 5, 0x9C}), "");
    EXPECT_EQ(DetectHead({24, 5, 0x9C}), "tga");
    EXPECT_EQ(DetectHead({69, 5, 0x9C}), "tga");
    EXPECT_EQ(DetectHead({70, 5, 0x9C}), "");
    EXPECT_EQ(DetectHead({0xE0, 5, 0x9C}), "") << "signed: -32";
    EXPECT_EQ(DetectHead({30, 5, 0x9D}), "");
}

TEST_F(Registry, CutWidthAndHeightBoundaries)
{
    auto cut = [](uint16_t w, uint16_t h) {
        return Bytes{(uint8_t)w, (uint8_t)(w >> 8), (uint8_t)h, (uint8_t)(h >> 8), 0, 0};
    };
    EXPECT_EQ(DetectHead(cut(16, 32)), "cut");
    EXPECT_EQ(DetectHead(cut(4999, 32)), "cut");
    EXPECT_EQ(DetectHead(cut(5000, 32)), "");
    EXPECT_EQ(DetectHead(cut(16, 4999)), "cut");
    EXPECT_EQ(DetectHead(cut(16, 5000)), "");
    EXPECT_EQ(DetectHead(cut(5, 0)), "cut") << "height 0 is within 0 to 4999";
    EXPECT_EQ(DetectHead(cut(256, 32)), "cut") << "b0 0 but b1 not";
    EXPECT_EQ(DetectHead(cut(0xFFFF, 32)), "") << "signed width -1";
    EXPECT_EQ(DetectHead(cut(16, 0x8000)), "") << "signed height -32768";
    EXPECT_EQ(DetectHead(cut(0, 32)), "") << "b0 and b1 both 0";
    Bytes b = cut(16, 32);
    b[4] = 1;
    EXPECT_EQ(DetectHead(b), "");
    b[4] = 0;
    b[5] = 1;
    EXPECT_EQ(DetectHead(b), "");
}

TEST_F(Registry, IcoWidthMustBe16Or32Or64)
{
    EXPECT_EQ(DetectHead({0, 0, 1, 0, 1, 0, 48}), "");
    EXPECT_EQ(DetectHead({0, 0, 1, 0, 1, 0, 0}), "");
}

TEST_F(Registry, OtherProbeNearMisses)
{
    EXPECT_EQ(DetectHead({0, 1, 0, 7}), "") << "GEM image b3 is 8 or 9";
    EXPECT_EQ(DetectHead({0xBB, kFill, kFill, 2}), "") << "BTR b3 = 1";
    EXPECT_EQ(DetectHead({kFill, kFill, 0xD3, 0xA6, 0xFA}), "") << "IOCA A6 FB";
    EXPECT_EQ(DetectHead({'\'', 'C', '1', '0'}), "") << "IMT needs the 00";
    EXPECT_EQ(DetectHead({kFill, kFill, kFill, kFill, 0, 0, 0, 6}), "") << "XWD b7 = 7";
    EXPECT_EQ(DetectHead(Text("#defin")), "");
    EXPECT_EQ(DetectHead(Text("/* XPM *")), "");
}

TEST_F(Registry, TextProbeCharacterClasses)
{
    IMGLOW_set_auto_detect(38);
    EXPECT_EQ(DetectHead({'a', 9, 10, 11, 12, 13, 26, ' ', '~', 'z'}), "txt");
    EXPECT_EQ(DetectHead({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 8}), "") << "8";
    EXPECT_EQ(DetectHead({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 127}), "") << "127";
    EXPECT_EQ(DetectHead({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 14}), "") << "14";
    EXPECT_EQ(DetectHead({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 25}), "") << "25";
}

// ======================================================================
// Auto-detect flags
// ======================================================================

TEST_F(Registry, TypeToIndexMapping)
{
    for (int type = -3; type <= 60; type++) {
        int expected;
        if (type < 7 || type > 40)
            expected = type;
        else if (type == 7 || type == 8 || type == 9 || type == 10 || type == 16 || type == 17 ||
                 type == 40)
            expected = 0;
        else if (type == 12)
            expected = 1;
        else
            expected = type;
        EXPECT_EQ(RegistryAutoDetectIndex(type), expected) << "type " << type;
    }
}

TEST_F(Registry, FlagsAtStart)
{
    for (int type = 0; type <= 55; type++) {
        int index = RegistryAutoDetectIndex(type);
        int expected = index == 38 || index == 55 ? 0 : 1;
        EXPECT_EQ(IMGLOW_get_auto_detect(type), expected) << "type " << type;
    }
}

TEST_F(Registry, SetAndUnsetReturnThePreviousValue)
{
    EXPECT_EQ(IMGLOW_set_auto_detect(38), 0);
    EXPECT_EQ(IMGLOW_set_auto_detect(38), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(38), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(38), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(38), 0);
    EXPECT_EQ(IMGLOW_get_auto_detect(38), 0);
    EXPECT_EQ(IMGLOW_unset_auto_detect(13), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(13), 0);
    EXPECT_EQ(IMGLOW_set_auto_detect(13), 0);
}

TEST_F(Registry, TypesSharingAnIndexShareTheFlag)
{
    EXPECT_EQ(IMGLOW_unset_auto_detect(17), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(0), 0);
    EXPECT_EQ(IMGLOW_set_auto_detect(0), 0);
    EXPECT_EQ(IMGLOW_get_auto_detect(17), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(12), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(1), 0);
    // 44 (interlaced GIF) is above 40: its own index, not GIF's 4.
    EXPECT_EQ(IMGLOW_unset_auto_detect(44), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(4), 1);
    EXPECT_EQ(DetectHead(Text("GIF89a")), "gif");
}

TEST_F(Registry, OutsideZeroTo55GivesMinus7)
{
    for (int type : {-1, -7, 56, 57, 100, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(IMGLOW_set_auto_detect(type), IMG_ERR_TYPE) << type;
        EXPECT_EQ(IMGLOW_unset_auto_detect(type), IMG_ERR_TYPE) << type;
        EXPECT_EQ(IMGLOW_get_auto_detect(type), IMG_ERR_TYPE) << type;
    }
}

TEST_F(Registry, DisabledProbeIsSkipped)
{
    Bytes jpg = Padded({0xFF, 0xD8, 0xFF, 0xE0});
    EXPECT_EQ(IMGLOW_unset_auto_detect(13), 1);
    EXPECT_EQ(Detect(jpg), "");
    EXPECT_EQ(FileType(jpg), IMG_ERR_TYPE);
}

TEST_F(Registry, ResetRestoresTheStartValues)
{
    IMGLOW_set_auto_detect(38);
    IMGLOW_unset_auto_detect(0);
    IMGLOW_set_auto_detect(55);
    RegistryResetAutoDetect();
    EXPECT_EQ(IMGLOW_get_auto_detect(38), 0);
    EXPECT_EQ(IMGLOW_get_auto_detect(0), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(55), 0);
}

// ======================================================================
// ImgDetect
// ======================================================================

// Detection reads from the current position and leaves the source at 0.
TEST_F(Registry, DetectFromCurrentPositionSeeksToZero)
{
    Bytes b = Padded({});
    b[100] = 0xDC, b[101] = 0xDC;
    ImgSetMemorySourceSized(b.data(), (uint32_t)b.size());
    ImgSeek(kMem, 100, 0);
    char extension[4];
    EXPECT_EQ(ImgDetect(kMem, extension), 0);
    EXPECT_STREQ(extension, "lsd");
    EXPECT_EQ(ImgTell(), 0u);

    ImgSeek(kMem, 300, 0);
    EXPECT_EQ(ImgDetect(kMem, extension), 0);
    EXPECT_STREQ(extension, "") << "nothing matched";
    EXPECT_EQ(ImgTell(), 0u);
}

TEST_F(Registry, DetectOnFileLeavesPositionZero)
{
    int h = ImgOpen(WriteFile("pcx.bin", Padded({0x0A, 5, 1})).c_str(), 0);
    ASSERT_GE(h, 0);
    char extension[4];
    EXPECT_EQ(ImgDetect(h, extension), 0);
    EXPECT_STREQ(extension, "pcx");
    EXPECT_EQ(ImgSeek(h, 0, 1), 0);
    ImgClose(h);
}

// A negative read result comes back as it is (caller I/O).
extern "C" int32_t IMGCDECL FailingRead(int32_t, void *, int32_t) { return -5; }
extern "C" int32_t IMGCDECL NoSeek(int32_t, int32_t, int32_t) { return 0; }

TEST_F(Registry, NegativeReadIsReturned)
{
    IMGLOW_set_fileio(FailingRead, nullptr, NoSeek);
    char extension[4] = {'x', 0, 0, 0};
    EXPECT_EQ(ImgDetect(kMem, extension), -5);
    EXPECT_STREQ(extension, "");
    EXPECT_EQ(IMGLOW_get_filetype_fd(kMem), -5);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
}

// ======================================================================
// The memory image claims success past its end (Part 1.2)
// ======================================================================

// A block of ten bytes: the PICT and MacPaint reads lie past its end, claim
// success and copy nothing, so both probes see the ten bytes at the start
// again.  The same bytes in a file are unknown (the reads return nothing).
TEST_F(Registry, TinyMemoryBlockPictSeesTheFirstBytes)
{
    Bytes b(10, 0x11);
    EXPECT_EQ(MemType(b), IMG_TYPE_PCT);
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE);
}

TEST_F(Registry, TinyMemoryBlockOfZerosIsMacPaint)
{
    Bytes b(10, 0);
    EXPECT_EQ(MemType(b), IMG_TYPE_MAC);
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE);
    Bytes pnt = {'P', 'N', 'T', 'G', 0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
    EXPECT_EQ(MemType(pnt), IMG_TYPE_MAC) << "bytes 0-2 seen where 65-67 were meant";
}

// A large enough block shows its real bytes at 522 and 65.
TEST_F(Registry, LargeMemoryBlockSeesItsRealBytes)
{
    Bytes b = Padded(Bytes(10, 0x11));
    b[4] = kFill; // not CUT
    EXPECT_EQ(MemType(b), IMG_ERR_TYPE);
    b[522] = 0x11;
    EXPECT_EQ(MemType(b), IMG_TYPE_PCT);
}

// IMGLOW_get_filetype_mem over a block of ours (its size is known).
TEST_F(Registry, GetFiletypeMemOverOurBlock)
{
    Bytes gif = MakeGif(0, ImageDescriptor(0x40));
    uint8_t *block = static_cast<uint8_t *>(ImgAlloc(gif.size()));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, gif.data(), gif.size());
    EXPECT_EQ(IMGLOW_get_filetype_mem(block), IMG_TYPE_GIF_INTERLACED);
    Bytes tiff = TiffWithCompression(true, 32773);
    uint8_t *block2 = static_cast<uint8_t *>(ImgAlloc(tiff.size()));
    ASSERT_NE(block2, nullptr);
    std::memcpy(block2, tiff.data(), tiff.size());
    EXPECT_EQ(IMGLOW_get_filetype_mem(block2), IMG_TYPE_TIFF_PACKBITS);
    ImgFree(block);
    ImgFree(block2);
}

// ======================================================================
// IMGLOW_get_filetype: open failure, closing, _fd
// ======================================================================

TEST_F(Registry, MissingFileGivesMinus2)
{
    EXPECT_EQ(IMGLOW_get_filetype(TempPath("no_such_file.tif").c_str()), IMG_ERR_OPEN);
    EXPECT_EQ(IMGLOW_get_filetype(nullptr), IMG_ERR_OPEN);
}

TEST_F(Registry, FileIsClosedAfterTheQuery)
{
    std::string path = WriteFile("closed.tif", TiffWithCompression(false, 5));
    for (int i = 0; i < 1100; i++) // more than a process may keep open (1024)
        ASSERT_EQ(IMGLOW_get_filetype(path.c_str()), IMG_TYPE_TIFF_LZW) << i;
}

// _fd detects from the handle's current position, seeks back there for the
// subtype query, and does not close the handle.
TEST_F(Registry, FdDetectsFromCurrentPositionAndRefinesThere)
{
    Bytes junk = Padded({0x0A, 5, 1}, 100); // a PCX at 0
    Bytes tiff = TiffWithCompression(true, 3, 1);
    Bytes file(junk);
    Append(file, tiff); // offsets relative to 100
    int h = ImgOpen(WriteFile("fd.bin", file).c_str(), 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(IMGLOW_get_filetype_fd(h), IMG_TYPE_PCX);
    EXPECT_EQ(ImgSeek(h, 100, 0), 100);
    EXPECT_EQ(IMGLOW_get_filetype_fd(h), IMG_TYPE_TIFF_G3_2D);
    // Still open: it reads.
    uint8_t two[2];
    EXPECT_EQ(ImgSeek(h, 100, 0), 100);
    EXPECT_EQ(ImgRead(h, two, 2), 2);
    EXPECT_EQ(two[0], 'M');
    ImgClose(h);
}

TEST_F(Registry, FdRefinesBmpAndGifAtTheirStart)
{
    Bytes file = Padded({}, 37);
    Bytes bmp = MakeBmp(1);
    Bytes gif = MakeGif(0, ImageDescriptor(0x40));
    Append(file, bmp);
    size_t gifAt = file.size();
    Append(file, gif);
    int h = ImgOpen(WriteFile("fd2.bin", file).c_str(), 0);
    ASSERT_GE(h, 0);
    ImgSeek(h, 37, 0);
    EXPECT_EQ(IMGLOW_get_filetype_fd(h), IMG_TYPE_BMP_COMPRESSED);
    ImgSeek(h, (int32_t)gifAt, 0);
    EXPECT_EQ(IMGLOW_get_filetype_fd(h), IMG_TYPE_GIF_INTERLACED);
    ImgClose(h);
}

// A format without a subtype query is left where detection left it: at 0.
TEST_F(Registry, FdWithoutSubtypeLeavesPositionZero)
{
    Bytes file = Padded({}, 50);
    Bytes pcx = Padded({0x0A, 5, 1}, 100);
    Append(file, pcx);
    int h = ImgOpen(WriteFile("fd3.bin", file).c_str(), 0);
    ASSERT_GE(h, 0);
    ImgSeek(h, 50, 0);
    EXPECT_EQ(IMGLOW_get_filetype_fd(h), IMG_TYPE_PCX);
    EXPECT_EQ(ImgSeek(h, 0, 1), 0);
    ImgClose(h);
}

TEST_F(Registry, FdOverTheMemoryImage)
{
    Bytes mem = Padded({}, 20);
    Bytes tiff = TiffWithCompression(false, 2);
    Append(mem, tiff);
    ImgSetMemorySourceSized(mem.data(), (uint32_t)mem.size());
    ImgSeek(kMem, 20, 0);
    EXPECT_EQ(IMGLOW_get_filetype_fd(kMem), IMG_TYPE_TIFF_HUFFMAN);
}

// ======================================================================
// TIFF subtype query (Part 2.3)
// ======================================================================

TEST_F(Registry, TiffEveryCompressionBothByteOrders)
{
    const std::vector<std::pair<uint32_t, int32_t>> table = {
        {1, 0}, {2, 7}, {3, 8}, {5, 9}, {4, 10}, {32773, 16}, {6, 40}, {32010, 46}, {32008, 47},
    };
    for (bool be : {false, true}) {
        for (const auto &row : table) {
            SCOPED_TRACE(std::to_string(row.first) + (be ? " MM" : " II"));
            EXPECT_EQ(FileType(TiffWithCompression(be, row.first)), row.second);
            EXPECT_EQ(MemType(TiffWithCompression(be, row.first)), row.second);
        }
    }
}

TEST_F(Registry, TiffUnknownCompressionGivesMinus7)
{
    for (bool be : {false, true}) {
        for (uint32_t c : {0u, 7u, 8u, 45u, 99u, 32771u, 34712u}) {
            EXPECT_EQ(FileType(TiffWithCompression(be, c)), IMG_ERR_TYPE) << c << (be ? " MM" : " II");
        }
    }
}

TEST_F(Registry, TiffT4OptionsBit0MakesType17)
{
    for (bool be : {false, true}) {
        EXPECT_EQ(FileType(TiffWithCompression(be, 3, 1)), IMG_TYPE_TIFF_G3_2D);
        EXPECT_EQ(FileType(TiffWithCompression(be, 3, 5)), IMG_TYPE_TIFF_G3_2D);
        EXPECT_EQ(FileType(TiffWithCompression(be, 3, 4)), IMG_TYPE_TIFF_G3) << "bit 0 clear";
        EXPECT_EQ(FileType(TiffWithCompression(be, 3, 0)), IMG_TYPE_TIFF_G3);
        EXPECT_EQ(FileType(TiffWithCompression(be, 4, 1)), IMG_TYPE_TIFF_G4) << "only compression 3";
        EXPECT_EQ(FileType(TiffWithCompression(be, 2, 1)), IMG_TYPE_TIFF_HUFFMAN);
    }
}

TEST_F(Registry, TiffT4OptionsBeforeCompressionTag)
{
    Bytes b = MakeTiff(false, {{292, TIFF_LONG, 1, 1}, {259, TIFF_SHORT, 1, 3}}, 8, kLong);
    EXPECT_EQ(FileType(b), IMG_TYPE_TIFF_G3_2D);
}

TEST_F(Registry, TiffWithoutCompressionTagIsUncompressed)
{
    EXPECT_EQ(FileType(MakeTiff(true, {{256, TIFF_SHORT, 1, 8}}, 8, kLong)), IMG_TYPE_TIFF);
    EXPECT_EQ(FileType(MakeTiff(false, {}, 8, kLong)), IMG_TYPE_TIFF) << "no entries";
}

TEST_F(Registry, TiffVersionIsNotCompared)
{
    Bytes b = TiffWithCompression(false, 4);
    b[2] = 43;
    EXPECT_EQ(FileType(b), IMG_TYPE_TIFF_G4);
}

TEST_F(Registry, TiffIfdAtAnyOffsetAndLastCompressionTagWins)
{
    Bytes b = MakeTiff(true, {{259, TIFF_SHORT, 1, 4}, {259, TIFF_SHORT, 1, 5}}, 200, kLong);
    EXPECT_EQ(FileType(b), IMG_TYPE_TIFF_LZW);
}

// Tag values by type (Part 2.3, "Reading a tag value").
TEST_F(Registry, TiffCompressionReadByType)
{
    for (bool be : {false, true}) {
        SCOPED_TRACE(be ? "MM" : "II");
        EXPECT_EQ(FileType(MakeTiff(be, {{259, TIFF_LONG, 1, 4}}, 8, kLong)), IMG_TYPE_TIFF_G4);
        EXPECT_EQ(FileType(MakeTiff(be, {{259, TIFF_BYTE, 1, 5}}, 8, kLong)), IMG_TYPE_TIFF_LZW);
        EXPECT_EQ(FileType(MakeTiff(be, {{259, TIFF_SHORT, 2, 2}}, 8, kLong)), IMG_TYPE_TIFF_HUFFMAN)
            << "two SHORTs still fit in the field";

        // Values at an offset: SHORT count 3, LONG count 2, BYTE count 5, RATIONAL.
        Bytes s = MakeTiff(be, {{259, TIFF_SHORT, 3, 300}}, 8, kLong);
        Put16(s, 300, 6, be);
        EXPECT_EQ(FileType(s), IMG_TYPE_TIFF_JPEG);
        Bytes l = MakeTiff(be, {{259, TIFF_LONG, 2, 300}}, 8, kLong);
        Put32(l, 300, 32773, be);
        EXPECT_EQ(FileType(l), IMG_TYPE_TIFF_PACKBITS);
        Bytes l0 = MakeTiff(be, {{259, TIFF_LONG, 0, 300}}, 8, kLong);
        Put32(l0, 300, 2, be);
        EXPECT_EQ(FileType(l0), IMG_TYPE_TIFF_HUFFMAN) << "LONG count not 1: at the offset";
        Bytes by = MakeTiff(be, {{259, TIFF_BYTE, 5, 300}}, 8, kLong);
        by[300] = 4;
        EXPECT_EQ(FileType(by), IMG_TYPE_TIFF_G4);
        Bytes r = MakeTiff(be, {{259, TIFF_RATIONAL, 1, 300}}, 8, kLong);
        Put32(r, 300, 5, be);
        Put32(r, 304, 7, be);
        EXPECT_EQ(FileType(r), IMG_TYPE_TIFF_LZW) << "the numerator";

        // Other types read as 0: compression 0 is not in the table.
        EXPECT_EQ(FileType(MakeTiff(be, {{259, 7, 1, 1}}, 8, kLong)), IMG_ERR_TYPE);
        EXPECT_EQ(FileType(MakeTiff(be, {{259, 9, 1, 1}}, 8, kLong)), IMG_ERR_TYPE);
    }
}

// In an "MM" file a SHORT in the field is its first two bytes, in file order.
TEST_F(Registry, TiffMMShortIsLeftJustified)
{
    Bytes b = MakeTiff(true, {{259, TIFF_SHORT, 1, 0}}, 8, kLong);
    // Field bytes 00 04 00 00: the first SHORT is 4.
    b[8 + 2 + 8] = 0, b[8 + 2 + 9] = 4, b[8 + 2 + 10] = 0, b[8 + 2 + 11] = 0;
    EXPECT_EQ(FileType(b), IMG_TYPE_TIFF_G4);
    // Field bytes 00 00 00 04 (right-justified, as a LONG would be): 0, unknown.
    b[8 + 2 + 9] = 0, b[8 + 2 + 11] = 4;
    EXPECT_EQ(FileType(b), IMG_ERR_TYPE);
}

TEST_F(Registry, TiffTagValueDirect)
{
    Bytes b = MakeTiff(false, {}, 8, 64);
    PutLE32(&b[40], 300);
    PutLE32(&b[44], 3);
    ImgSetMemorySourceSized(b.data(), (uint32_t)b.size());
    TiffFile file;
    ASSERT_EQ(TiffReadHeader(kMem, 0, &file), 0);
    EXPECT_EQ(file.bigEndian, 0);
    EXPECT_EQ(file.version, 42);
    EXPECT_EQ(file.firstIfd, 8u);
    TiffEntry e = {282, TIFF_RATIONAL, 1, {40, 0, 0, 0}};
    uint32_t v = 0;
    EXPECT_EQ(TiffTagValue(&file, &e, &v), 0);
    EXPECT_EQ(v, 300u);
    EXPECT_EQ(TiffRationalDenominator(&file, &e, &v), 0);
    EXPECT_EQ(v, 3u);
    TiffEntry sh = {256, TIFF_SHORT, 2, {0x34, 0x12, 0x78, 0x56}};
    EXPECT_EQ(TiffTagValue(&file, &sh, &v), 0);
    EXPECT_EQ(v, 0x1234u) << "the first SHORT";
    TiffEntry by = {256, TIFF_BYTE, 4, {0x9A, 0x12, 0x78, 0x56}};
    EXPECT_EQ(TiffTagValue(&file, &by, &v), 0);
    EXPECT_EQ(v, 0x9Au);
    TiffEntry lo = {256, TIFF_LONG, 1, {1, 2, 3, 4}};
    EXPECT_EQ(TiffTagValue(&file, &lo, &v), 0);
    EXPECT_EQ(v, 0x04030201u);
    TiffEntry other = {256, 11, 1, {1, 2, 3, 4}};
    EXPECT_EQ(TiffTagValue(&file, &other, &v), 0);
    EXPECT_EQ(v, 0u) << "types other than 1-5 read as 0";
}

TEST_F(Registry, TiffHeaderErrors)
{
    Bytes shortHeader = {'I', 'I', 42, 0, 8};
    ImgSetMemorySourceSized(shortHeader.data(), (uint32_t)shortHeader.size());
    EXPECT_EQ(TiffSubtype(kMem, 0), IMG_ERR_INVALID) << "header shorter than 8 bytes";
    Bytes order = {'I', 'M', 42, 0, 8, 0, 0, 0, 0, 0};
    ImgSetMemorySourceSized(order.data(), (uint32_t)order.size());
    EXPECT_EQ(TiffSubtype(kMem, 0), IMG_ERR_TYPE) << "byte order neither II nor MM";
}

TEST_F(Registry, TiffEntryCountOutOfRange)
{
    for (bool be : {false, true}) {
        Bytes b = MakeTiff(be, {}, 8, 8000);
        Put16(b, 8, 551, be);
        EXPECT_EQ(FileType(b), IMG_ERR_INVALID) << "above 550";
        Put16(b, 8, 0xFFFF, be);
        EXPECT_EQ(FileType(b), IMG_ERR_INVALID) << "negative";
        Put16(b, 8, 0x8000, be);
        EXPECT_EQ(FileType(b), IMG_ERR_INVALID) << "negative";
    }
}

// 550 entries are accepted; only the first 300 are held (docs/DEVIATIONS.md).
TEST_F(Registry, TiffOnlyFirst300EntriesAreRead)
{
    std::vector<Entry> entries(550, Entry{305, TIFF_SHORT, 1, 0});
    entries[299] = {259, TIFF_SHORT, 1, 4};
    EXPECT_EQ(FileType(MakeTiff(false, entries)), IMG_TYPE_TIFF_G4);
    entries[299] = {305, TIFF_SHORT, 1, 0};
    entries[300] = {259, TIFF_SHORT, 1, 4};
    EXPECT_EQ(FileType(MakeTiff(false, entries)), IMG_TYPE_TIFF) << "entry 301 is not read";
}

TEST_F(Registry, TiffHostileOffsets)
{
    for (bool be : {false, true}) {
        SCOPED_TRACE(be ? "MM" : "II");
        // First IFD beyond the end of the file: the count read comes back short.
        Bytes distant = TiffWithCompression(be, 4);
        Put32(distant, 4, 100000, be);
        EXPECT_EQ(FileType(distant), IMG_ERR_READ);
        // The memory image claims success past its end: a count of 0, no
        // entries, compression 1.
        EXPECT_EQ(MemType(distant), IMG_TYPE_TIFF);
        // An offset that cannot be a 32-bit file position.
        Put32(distant, 4, 0xFFFFFFF0u, be);
        EXPECT_EQ(FileType(distant), IMG_ERR_INVALID);
        EXPECT_EQ(MemType(distant), IMG_ERR_INVALID);
        // Entries cut short by the end of the file.
        Bytes cut = MakeTiff(be, {{256, TIFF_SHORT, 1, 8}, {259, TIFF_SHORT, 1, 4}});
        cut.resize(8 + 2 + 12 + 6);
        EXPECT_EQ(FileType(cut), IMG_ERR_READ);
        // A value offset beyond the end.
        Bytes value = MakeTiff(be, {{259, TIFF_SHORT, 3, 90000}}, 8, kLong);
        EXPECT_EQ(FileType(value), IMG_ERR_READ);
        Put32(value, 8 + 2 + 8, 0xFFFFFFFEu, be);
        EXPECT_EQ(FileType(value), IMG_ERR_INVALID);
    }
}

// The next-IFD offset may be missing at the end of the file: the first IFD
// still answers.
TEST_F(Registry, TiffWithoutNextOffsetStillAnswers)
{
    Bytes b = MakeTiff(false, {{256, TIFF_SHORT, 1, 8}, {259, TIFF_SHORT, 1, 4}});
    b.resize(b.size() - 4);
    b.resize(std::max<size_t>(b.size(), 10));
    EXPECT_EQ(FileType(b), IMG_TYPE_TIFF_G4);
}

TEST_F(Registry, TiffReadIfdReportsNextOffsetAndCounts)
{
    std::vector<Entry> entries(320, Entry{305, TIFF_SHORT, 1, 0});
    Bytes b = MakeTiff(true, entries);
    PutBE32(&b[8 + 2 + 320 * 12], 0x1234);
    ImgSetMemorySourceSized(b.data(), (uint32_t)b.size());
    TiffFile file;
    ASSERT_EQ(TiffReadHeader(kMem, 0, &file), 0);
    static TiffIfd ifd; // 3.6 kB
    ASSERT_EQ(TiffReadIfd(&file, file.firstIfd, &ifd), 0);
    EXPECT_EQ(ifd.declaredCount, 320);
    EXPECT_EQ(ifd.count, TIFF_MAX_ENTRIES);
    EXPECT_EQ(ifd.nextOffset, 0x1234u) << "read after all 320 entries";
    EXPECT_EQ(ifd.entries[0].tag, 305);
    EXPECT_EQ(ifd.entries[0].type, TIFF_SHORT);
    EXPECT_EQ(ifd.entries[0].count, 1u);
    int count = 0;
    EXPECT_EQ(TiffReadEntryCount(&file, 8, &count), 0);
    EXPECT_EQ(count, 320);
}

// ======================================================================
// BMP subtype query
// ======================================================================

TEST_F(Registry, BmpCompressionZeroIsType1)
{
    EXPECT_EQ(FileType(MakeBmp(0)), IMG_TYPE_BMP);
    EXPECT_EQ(MemType(MakeBmp(0)), IMG_TYPE_BMP);
}

TEST_F(Registry, BmpNonZeroCompressionIsType12)
{
    for (uint32_t c : {1u, 2u, 3u, 0x80000000u})
        EXPECT_EQ(FileType(MakeBmp(c)), IMG_TYPE_BMP_COMPRESSED) << c;
}

// A bare-header file (type table: "a bare-header file is detected as type
// 1") is refined by its own biCompression, at offset 16; a small bare DIB
// (52 bytes) is not short.
TEST_F(Registry, BmpBareHeaderUsesItsOwnCompression)
{
    Bytes dib(52, 0);
    PutLE32(&dib[0], 40);
    PutLE32(&dib[4], 1);
    PutLE32(&dib[8], 1);
    PutLE16(&dib[12], 1);
    PutLE16(&dib[14], 1);
    EXPECT_EQ(FileType(dib), IMG_TYPE_BMP);
    PutLE32(&dib[16], 1);
    EXPECT_EQ(FileType(dib), IMG_TYPE_BMP_COMPRESSED);
}

TEST_F(Registry, BmpShortHeadersGiveMinus12)
{
    Bytes b = MakeBmp(0);
    b.resize(20);
    EXPECT_EQ(FileType(b), IMG_ERR_READ);
    b.resize(12);
    EXPECT_EQ(FileType(b), IMG_ERR_READ) << "the 14-byte file header";
    b = MakeBmp(1);
    b.resize(53);
    EXPECT_EQ(FileType(b), IMG_ERR_READ);
    b = MakeBmp(1);
    b.resize(54);
    EXPECT_EQ(FileType(b), IMG_TYPE_BMP_COMPRESSED);
}

// A memory image of exactly 14 bytes: the info header read lies at its end,
// claims success and copies nothing, so biCompression reads as 0.
TEST_F(Registry, BmpFourteenByteMemoryImage)
{
    Bytes b = MakeBmp(1);
    b.resize(14);
    EXPECT_EQ(MemType(b), IMG_TYPE_BMP);
    b.resize(20);
    EXPECT_EQ(MemType(b), IMG_ERR_READ) << "a read inside the block stops at its end";
}

// ======================================================================
// GIF subtype query
// ======================================================================

TEST_F(Registry, GifPlainAndInterlaced)
{
    EXPECT_EQ(FileType(MakeGif(0, ImageDescriptor(0))), IMG_TYPE_GIF);
    EXPECT_EQ(FileType(MakeGif(0, ImageDescriptor(0x40))), IMG_TYPE_GIF_INTERLACED);
    EXPECT_EQ(FileType(MakeGif(0, ImageDescriptor(0xBF))), IMG_TYPE_GIF) << "other bits";
    EXPECT_EQ(MemType(MakeGif(0, ImageDescriptor(0x40))), IMG_TYPE_GIF_INTERLACED);
}

TEST_F(Registry, GifGlobalColourTableIsSkipped)
{
    for (int size = 0; size < 8; size++) {
        Bytes table(3u << (size + 1), 0x2C); // bytes that would look like a descriptor
        Append(table, {0x2C, 0, 0, 0, 0, 4, 0, 4, 0, 0x40, 2, 1, 0, 0, 0x3B});
        EXPECT_EQ(FileType(MakeGif((uint8_t)(0x80 | size), table)), IMG_TYPE_GIF_INTERLACED) << size;
    }
    // Without the table flag the same bytes start at once.
    Bytes six(6, 0x2C);
    Append(six, Bytes(10, 0));
    EXPECT_EQ(FileType(MakeGif(0x00, six)), IMG_TYPE_GIF);
}

TEST_F(Registry, GifExtensionBlocksAreWalked)
{
    Bytes body = {0x21, 0xF9, 4, 1, 0, 0, 0x2C, 0}; // graphic control, ends in 0x2C data
    Append(body, {0x21, 0xFE, 3, 'a', 'b', 'c', 2, 'd', 'e', 0}); // comment, 2 sub-blocks
    Append(body, {0x21, 0xFF, 0});                               // empty
    Bytes image = ImageDescriptor(0x40);
    Append(body, image);
    EXPECT_EQ(FileType(MakeGif(0x81, Bytes(12, 0x21))), IMG_ERR_INVALID)
        << "a table of 0x21 and then nothing";
    Bytes withTable(12, 0x21);
    Append(withTable, body);
    EXPECT_EQ(FileType(MakeGif(0x81, withTable)), IMG_TYPE_GIF_INTERLACED);
    EXPECT_EQ(MemType(MakeGif(0x81, withTable)), IMG_TYPE_GIF_INTERLACED);
}

TEST_F(Registry, GifWithoutImageDescriptorGivesMinus3)
{
    EXPECT_EQ(FileType(MakeGif(0, {0x3B})), IMG_ERR_INVALID) << "the trailer";
    EXPECT_EQ(FileType(MakeGif(0, {0x21, 0xFE, 1, 'x', 0, 0x3B})), IMG_ERR_INVALID);
    EXPECT_EQ(FileType(MakeGif(0, {0x21, 0xFE, 200, 'x'})), IMG_ERR_INVALID) << "ends in a sub-block";
    EXPECT_EQ(FileType(MakeGif(0, {0x21})), IMG_ERR_INVALID) << "ends after the introducer";
    EXPECT_EQ(FileType(MakeGif(0, {0x00, 0x2C})), IMG_ERR_INVALID) << "an unknown byte";
    EXPECT_EQ(FileType(MakeGif(0, {})), IMG_ERR_INVALID) << "nothing after the header";
    EXPECT_EQ(MemType(MakeGif(0, {0x21, 0xFE, 1, 'x'})), IMG_ERR_INVALID)
        << "memory: the 0 past the end ends the chain and is no introducer";
}

TEST_F(Registry, GifShortHeaderGivesMinus12)
{
    Bytes b = MakeGif(0, {});
    b.resize(12);
    EXPECT_EQ(FileType(b), IMG_ERR_READ);
    b.resize(10);
    EXPECT_EQ(FileType(b), IMG_ERR_READ);
    EXPECT_EQ(MemType(b), IMG_ERR_READ);
}

TEST_F(Registry, GifCutImageDescriptorGivesMinus12)
{
    Bytes b = MakeGif(0, {0x2C, 0, 0, 0, 0, 4});
    EXPECT_EQ(FileType(b), IMG_ERR_READ);
}

// Endless extension blocks end at the end of the data, file or memory.
TEST_F(Registry, GifEndlessExtensionsEndAtTheEnd)
{
    Bytes body = {0x21, 0xFE};
    while (body.size() < 1000000) {
        body.push_back(255);
        Append(body, Bytes(255, 0x21));
    }
    Bytes gif = MakeGif(0, body);
    EXPECT_EQ(MemType(gif), IMG_ERR_INVALID);
    EXPECT_EQ(FileType(gif), IMG_ERR_INVALID);
    Bytes many; // many small extensions
    while (many.size() < 300000)
        Append(many, {0x21, 0x01, 1, 0x21, 0});
    EXPECT_EQ(MemType(MakeGif(0, many)), IMG_ERR_INVALID);
    Append(many, {0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0x40});
    EXPECT_EQ(MemType(MakeGif(0, many)), IMG_TYPE_GIF_INTERLACED);
}

// ======================================================================
// RegistryFileType
// ======================================================================

TEST_F(Registry, FileTypeOfUnknownOrEmptyWordIsMinus7)
{
    EXPECT_EQ(RegistryFileType(kMem, "", 0), IMG_ERR_TYPE);
    EXPECT_EQ(RegistryFileType(kMem, nullptr, 0), IMG_ERR_TYPE);
    EXPECT_EQ(RegistryFileType(kMem, "xyz", 0), IMG_ERR_TYPE);
    EXPECT_EQ(RegistryFileType(kMem, "dib", 0), IMG_TYPE_DIB) << "never detected, but a row";
    EXPECT_EQ(RegistryFileType(kMem, "pcx", 0), IMG_TYPE_PCX);
}

// ======================================================================
// Part 1.5's extension list
// ======================================================================

TEST_F(Registry, TypeForPathEveryEntry)
{
    const std::vector<std::pair<const char *, int>> list = {
        {"tif", 0},  {"bmp", 1},  {"pcx", 2},  {"tga", 3},  {"gif", 4},  {"wpg", 5},  {"wmf", 6},
        {"dcx", 11}, {"jpg", 13}, {"pct", 15}, {"eps", 14}, {"cal", 18}, {"ico", 25}, {"clp", 27},
        {"xbm", 20}, {"xpm", 35}, {"xwd", 36}, {"ras", 37}, {"psd", 41}, {"iff", 26}, {"png", 43},
        {"ica", 24}, {"mca", 49},
    };
    for (const auto &e : list) {
        std::string lower = std::string("dir/picture.") + e.first;
        std::string upper = lower;
        for (char &c : upper)
            c = (char)std::toupper((unsigned char)c);
        std::string mixed = lower;
        mixed[mixed.size() - 2] = (char)std::toupper((unsigned char)mixed[mixed.size() - 2]);
        EXPECT_EQ(RegistryTypeForPath(lower.c_str()), e.second) << lower;
        EXPECT_EQ(RegistryTypeForPath(upper.c_str()), e.second) << upper;
        EXPECT_EQ(RegistryTypeForPath(mixed.c_str()), e.second) << mixed;
        EXPECT_EQ(RegistryTypeForPath(e.first), e.second) << "three characters alone";
    }
}

TEST_F(Registry, TypeForPathImtAndBtrNeverMatch)
{
    EXPECT_EQ(RegistryTypeForPath("x.btr"), -1);
    EXPECT_EQ(RegistryTypeForPath("x.BTR"), -1);
    EXPECT_EQ(RegistryTypeForPath("x.imt"), -1);
    EXPECT_EQ(RegistryTypeForPath(".imt"), -1);
    EXPECT_EQ(RegistryTypeForPath("a.btr"), -1);
}

TEST_F(Registry, TypeForPathOthers)
{
    EXPECT_EQ(RegistryTypeForPath("x.dib"), -1);
    EXPECT_EQ(RegistryTypeForPath("x.jpeg"), -1) << "last three characters: peg";
    EXPECT_EQ(RegistryTypeForPath("x.tiff"), IMG_TYPE_IFF) << "last three characters: iff";
    EXPECT_EQ(RegistryTypeForPath("picturetif"), 0) << "no point needed";
    EXPECT_EQ(RegistryTypeForPath("x.txt"), -1);
    EXPECT_EQ(RegistryTypeForPath("if"), -1);
    EXPECT_EQ(RegistryTypeForPath(""), -1);
    EXPECT_EQ(RegistryTypeForPath(nullptr), -1);
}

// ======================================================================
// Reader, page-counter and writer rows
// ======================================================================

TEST_F(Registry, ReaderRows)
{
    EXPECT_EQ(RegistryReader("bmp"), (ImgReader)BmpRead);
    EXPECT_EQ(RegistryReader("dib"), (ImgReader)BmpRead) << "type 48 reads with the BMP reader";
    EXPECT_EQ(RegistryReader("tif"), (ImgReader)TiffRead) << "Part 2.3";
    for (const char *e : {"gif", "eps", "dcx", "jpg", "wpg", "cal", "png", "kfx", "iff",
                          "gx2", "lsd", "pcx", "ico", "tga", "wmf", "ica", "pcd", "clp", "img",
                          "btr", "msp", "xbm", "xpm", "xwd", "ras", "cut", "txt", "psd", "imt",
                          "pct", "mac"})
        EXPECT_EQ(RegistryReader(e), nullptr) << e << ": no reader yet";
    EXPECT_EQ(RegistryReader(""), nullptr);
    EXPECT_EQ(RegistryReader("xyz"), nullptr);
    EXPECT_EQ(RegistryReader("BMP"), nullptr) << "extension words are lower case";
    EXPECT_EQ(RegistryReader(nullptr), nullptr);
}

TEST_F(Registry, PageCounterRows)
{
    EXPECT_EQ(RegistryPageCounter("tif"), (ImgPageCounter)TiffCountPages) << "Part 2.3";
    for (const char *e : {"dcx", "ica", "txt", "pcd", "bmp", "gif", "dib", "", "xyz"})
        EXPECT_EQ(RegistryPageCounter(e), nullptr) << e << ": none yet (1 page)";
}

TEST_F(Registry, WriterRows)
{
    EXPECT_EQ(RegistryWriter(1), (ImgWriter)BmpWriteFile);
    EXPECT_EQ(RegistryWriter(48), (ImgWriter)BmpWritePacked);
    EXPECT_EQ(RegistryWriter(12), (ImgWriter)BmpWriteCompressed);
    // The raw fax types (Part 2.2).
    EXPECT_EQ(RegistryWriter(33), (ImgWriter)CcittWriteFaxG3);
    EXPECT_EQ(RegistryWriter(53), (ImgWriter)CcittWriteFaxG3Lsb);
    EXPECT_EQ(RegistryWriter(34), (ImgWriter)CcittWriteFaxG4);
    EXPECT_EQ(RegistryWriter(52), (ImgWriter)CcittWriteFaxG4Lsb);
    // The TIFF writers of Part 2.4.
    const std::vector<int> tiffTypes = {0, 7, 8, 9, 10, 16, 40, 51};
    for (int type : tiffTypes)
        EXPECT_NE(RegistryWriter(type), nullptr) << type;
    std::vector<int> registered = {1, 48, 12, 33, 53, 34, 52};
    registered.insert(registered.end(), tiffTypes.begin(), tiffTypes.end());
    for (int type = -2; type <= 60; type++)
        if (std::find(registered.begin(), registered.end(), type) == registered.end()) {
            EXPECT_EQ(RegistryWriter(type), nullptr) << type;
        }
}

} // namespace
