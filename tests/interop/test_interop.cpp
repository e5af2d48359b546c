/*
 * test_interop.cpp - the library against independent imaging tools:
 * libtiff's tools (tiffcp, tiffinfo, tiff2pdf, fax2tiff, tiff2rgba),
 * ImageMagick's convert, netpbm, vips, Pillow, Ghostscript, epstool,
 * giflib's tools (gifbuild, gif2rgb), libjpeg-turbo's (cjpeg, djpeg) and
 * pngcheck.
 *
 * Writing: a picture built through the public API is saved in each format and
 * depth we write, and a tool decodes the file to the picture's pixels (or,
 * for the validators, accepts it without complaint).
 * Reading: a tool writes a file from a PNM of the picture, and our decode of
 * that file gives the pixels the picture holds.
 * Processing: our rotate, flip, dither and palette results, saved as BMP,
 * equal what ImageMagick makes of the same picture or reads from our file.
 *
 * Every row skips when one of its tools is absent, and under Windows.
 */
#include "support/support.h"

#include <map>
#include <set>
#include <sstream>

namespace {

// Replaces {in}, {out}, {w}, {h} and {convert} in a command.
std::string Fill(std::string command, const std::map<std::string, std::string> &values)
{
    for (const auto &v : values)
        for (size_t at; (at = command.find("{" + v.first + "}")) != std::string::npos;)
            command.replace(at, v.first.size() + 2, v.second);
    return command;
}

// The tools a row needs ("convert tiffcp"), or the first one missing.
std::string MissingTool(const std::string &needs)
{
    std::istringstream in(needs);
    for (std::string tool; in >> tool;)
        if (FindTool(tool).empty())
            return tool;
    return "";
}

#define SKIP_WITHOUT(needs)                                                      \
    if (std::string missing = MissingTool(needs); !missing.empty()) {            \
        GTEST_SKIP() << missing << " is not installed";                          \
    }                                                                            \
    do {} while (0)

std::string Convert() { return FindTool("convert"); } // ImageMagick by full path

/* ---- files we write, decoded by the tools ---- */

struct WriteCase {
    const char *name;
    int type, bits, width, height;
    bool grey;
    const char *needs;
    const char *command; // decodes {in} to the PNM {out}, or only validates {in}
};

const char *const kTiffToPnm = "tifftopnm '{in}' > '{out}'";
const char *const kMagick = "{convert} '{in}' -depth 8 'ppm:{out}'";
const char *const kVips = "vips copy '{in}' '{out}.ppm' && mv '{out}.ppm' '{out}'";
const char *const kTiffinfo = "tiffinfo -D '{in}' > '{out}.txt' 2>&1 && "
                              "! grep -v 'contains null byte' '{out}.txt' | grep -qiE 'error|warn'";
const char *const kTiff2pdf = "tiff2pdf -o '{out}.pdf' '{in}'";
// This ImageMagick (6.9.11) reads a bottom-first Targa in file order and
// marks it BottomLeft: -auto-orient turns it right way up.
const char *const kMagickTga = "{convert} 'tga:{in}' -auto-orient -depth 8 'ppm:{out}'";
const char *const kTgaToPpm = "tgatoppm '{in}' > '{out}'";
const char *const kPcxToPpm = "pcxtoppm '{in}' > '{out}'";
const char *const kPillow = "/usr/bin/python3 -c \"from PIL import Image; "
                            "Image.open('{in}').convert('RGB').save('{out}', 'PPM')\"";
const char *const kMagickXpm = "{convert} 'xpm:{in}' -depth 8 'ppm:{out}'";
const char *const kXpmToPpm = "xpmtoppm '{in}' > '{out}'";
const char *const kGif2rgb = "gif2rgb -1 -o '{out}.rgb' '{in}' && { printf 'P6 {w} {h} 255\\n'; cat '{out}.rgb'; } > '{out}'";
const char *const kFax2tiff = "fax2tiff {opts} -X {w} -o '{out}.tif' '{in}' && tifftopnm '{out}.tif' > '{out}'";

// Our EPS on a letter page at 24 dpi: a 48 x 20 image, 8 inches wide, covers
// 192 x 80 device pixels starting 6 from the left and top edges (a quarter
// inch), each pixel a 4 x 4 block with its edges on whole device pixels.
// ImageMagick keeps each block's centre pixel, 2 device pixels from the
// block's edges, so an edge Ghostscript rounds a pixel either way cannot
// change it, and the colours compare exactly.
const char *const kGhostscript48x20 =
    "gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=ppmraw -sPAPERSIZE=letter -dFIXEDMEDIA -r24 -sOutputFile='{out}.page' "
    "'{in}' && {convert} 'ppm:{out}.page' -crop 192x80+6+6 +repage -define sample:offset=50 -sample 48x20 -depth 8 'ppm:{out}'";

const WriteCase kWrites[] = {
    // TIFF, each compression we write, each depth it takes
    {"TiffNone1", IMG_TYPE_TIFF, 1, 77, 23, false, "tifftopnm", kTiffToPnm},
    {"TiffNone4Grey", IMG_TYPE_TIFF, 4, 31, 9, true, "tifftopnm", kTiffToPnm},
    {"TiffNone4", IMG_TYPE_TIFF, 4, 31, 9, false, "convert", kMagick},
    {"TiffNone8Grey", IMG_TYPE_TIFF, 8, 30, 11, true, "vips", kVips},
    {"TiffNone24", IMG_TYPE_TIFF, 24, 33, 17, false, "convert", kMagick},
    {"TiffLzw1", IMG_TYPE_TIFF_LZW, 1, 77, 23, false, "tifftopnm", kTiffToPnm},
    {"TiffLzw4", IMG_TYPE_TIFF_LZW, 4, 31, 9, false, "convert", kMagick},
    {"TiffLzw8Grey", IMG_TYPE_TIFF_LZW, 8, 300, 40, true, "tifftopnm", kTiffToPnm},
    {"TiffLzw8", IMG_TYPE_TIFF_LZW, 8, 30, 11, false, "vips", kVips},
    {"TiffLzw24", IMG_TYPE_TIFF_LZW, 24, 200, 150, false, "tifftopnm", kTiffToPnm},
    {"TiffLzw8Info", IMG_TYPE_TIFF_LZW, 8, 300, 40, false, "tiffinfo", kTiffinfo},
    {"TiffLzw24Pdf", IMG_TYPE_TIFF_LZW, 24, 64, 40, false, "tiff2pdf", kTiff2pdf},
    {"TiffPackBits1", IMG_TYPE_TIFF_PACKBITS, 1, 221, 40, false, "tifftopnm", kTiffToPnm},
    {"TiffHuffman", IMG_TYPE_TIFF_HUFFMAN, 1, 221, 40, false, "tifftopnm", kTiffToPnm},
    {"TiffG3", IMG_TYPE_TIFF_G3, 1, 221, 40, false, "tifftopnm", kTiffToPnm},
    {"TiffG3Widest", IMG_TYPE_TIFF_G3, 1, 65535, 3, false, "tifftopnm", kTiffToPnm},
    {"TiffG4", IMG_TYPE_TIFF_G4, 1, 1728, 120, false, "tifftopnm", kTiffToPnm},
    {"TiffG4Widest", IMG_TYPE_TIFF_G4, 1, 65535, 3, false, "tifftopnm", kTiffToPnm},
    {"TiffG4Magick", IMG_TYPE_TIFF_G4, 1, 221, 40, false, "convert", kMagick},
    {"Tiff51", IMG_TYPE_TIFF_51, 1, 221, 40, false, "tifftopnm", kTiffToPnm},
    // raw CCITT streams, both bit orders
    {"FaxG3", IMG_TYPE_FAX_G3, 1, 1728, 200, false, "fax2tiff tifftopnm", kFax2tiff},
    {"FaxG4", IMG_TYPE_FAX_G4, 1, 2550, 200, false, "fax2tiff tifftopnm", kFax2tiff},
    {"FaxG4Reversed", IMG_TYPE_FAX_G4_B, 1, 1731, 64, false, "fax2tiff tifftopnm", kFax2tiff},
    {"FaxG3Netpbm", IMG_TYPE_FAX_G3, 1, 1728, 100, false, "g3topbm", "g3topbm -stop_error '{in}' > '{out}'"},
    {"FaxG3NetpbmReversed", IMG_TYPE_FAX_G3_B, 1, 1728, 100, false, "g3topbm",
     "g3topbm -stop_error -reversebits '{in}' > '{out}'"},
    // CALS raster, and its Group 4 body alone (after the 2048-byte header) through libtiff
    {"Cals", IMG_TYPE_CALS, 1, 221, 40, false, "convert", kMagick},
    {"CalsBodyFax2tiff", IMG_TYPE_CALS, 1, 1728, 120, false, "fax2tiff tifftopnm",
     "tail -c +2049 '{in}' > '{out}.g4' && fax2tiff -4 -M -X {w} -o '{out}.tif' '{out}.g4' && tifftopnm '{out}.tif' > '{out}'"},
    // BMP and bare DIB
    {"Bmp1", IMG_TYPE_BMP, 1, 77, 23, false, "convert", kMagick},
    {"Bmp4", IMG_TYPE_BMP, 4, 31, 9, false, "bmptopnm", "bmptopnm '{in}' > '{out}'"},
    {"Bmp8", IMG_TYPE_BMP, 8, 30, 11, false, "convert", kMagick},
    {"Bmp24", IMG_TYPE_BMP, 24, 33, 17, false, "bmptopnm", "bmptopnm '{in}' > '{out}'"},
    {"BmpRle8", IMG_TYPE_BMP_COMPRESSED, 8, 61, 19, false, "convert", kMagick},
    {"BmpRle4", IMG_TYPE_BMP_COMPRESSED, 4, 61, 19, false, "convert", kMagick},
    {"Dib8", IMG_TYPE_DIB, 8, 30, 11, false, "convert", "{convert} 'dib:{in}' -depth 8 'ppm:{out}'"},
    // Targa: colour-mapped, grey and true colour; type 32 compared at 5 bits a channel
    {"Tga8Netpbm", IMG_TYPE_TGA, 8, 30, 11, false, "tgatoppm", kTgaToPpm},
    {"Tga8Grey", IMG_TYPE_TGA, 8, 30, 11, true, "convert", kMagickTga},
    {"Tga24Netpbm", IMG_TYPE_TGA, 24, 33, 17, false, "tgatoppm", kTgaToPpm},
    {"Tga15Netpbm", IMG_TYPE_TGA2, 24, 33, 17, false, "tgatoppm", kTgaToPpm},
    // PCX and DCX (ImageMagick reads every 1-bit PCX with bit 0 white, whatever its palette)
    {"Pcx1", IMG_TYPE_PCX, 1, 77, 23, false, "pcxtoppm", kPcxToPpm},
    {"Pcx1Pillow", IMG_TYPE_PCX, 1, 77, 23, false, "python3", kPillow},
    {"Pcx4", IMG_TYPE_PCX, 4, 31, 9, false, "convert", kMagick},
    {"Pcx4Netpbm", IMG_TYPE_PCX, 4, 31, 9, false, "pcxtoppm", kPcxToPpm},
    {"Pcx8", IMG_TYPE_PCX, 8, 30, 11, false, "convert", kMagick},
    {"Pcx24", IMG_TYPE_PCX, 24, 33, 17, false, "pcxtoppm", kPcxToPpm},
    {"Dcx8", IMG_TYPE_DCX, 8, 30, 11, false, "convert", kMagick},
    {"Dcx24Pillow", IMG_TYPE_DCX, 24, 33, 17, false, "python3", kPillow},
    {"Eps1", IMG_TYPE_EPS, 1, 48, 20, false, "gs convert", kGhostscript48x20},
    {"Eps4", IMG_TYPE_EPS, 4, 48, 20, false, "gs convert", kGhostscript48x20},
    {"Eps8", IMG_TYPE_EPS, 8, 48, 20, false, "gs convert", kGhostscript48x20},
    {"Eps24", IMG_TYPE_EPS, 24, 48, 20, false, "gs convert", kGhostscript48x20},
    // X bitmap and X pixmap
    {"Xbm", IMG_TYPE_XBM, 1, 77, 23, false, "convert", "{convert} 'xbm:{in}' -depth 8 'ppm:{out}'"},
    {"XbmNetpbm", IMG_TYPE_XBM, 1, 77, 23, false, "xbmtopbm", "xbmtopbm '{in}' > '{out}'"},
    {"Xpm1", IMG_TYPE_XPM, 1, 77, 23, false, "convert", kMagickXpm},
    {"Xpm4Netpbm", IMG_TYPE_XPM, 4, 31, 9, false, "xpmtoppm", kXpmToPpm},
    {"Xpm8", IMG_TYPE_XPM, 8, 30, 11, false, "convert", kMagickXpm},
    {"Xpm8Netpbm", IMG_TYPE_XPM, 8, 30, 11, false, "xpmtoppm", kXpmToPpm},
    // GIF, the table cleared on the way in the 300 x 200 images
    {"GifMagick8", IMG_TYPE_GIF, 8, 300, 200, false, "convert", kMagick},
    {"GifGiflibInterlaced4", IMG_TYPE_GIF_INTERLACED, 4, 31, 17, false, "gif2rgb", kGif2rgb},
    {"GifGiflibInterlaced8", IMG_TYPE_GIF_INTERLACED, 8, 300, 200, false, "gif2rgb", kGif2rgb},
    // PNG: grey and palette at each depth we write, RGB
    {"Png1Pillow", IMG_TYPE_PNG, 1, 77, 23, false, "python3", kPillow},
    {"Png4GreyMagick", IMG_TYPE_PNG, 4, 31, 9, true, "convert", kMagick},
    {"Png4Pillow", IMG_TYPE_PNG, 4, 31, 9, false, "python3", kPillow},
    {"Png8GreyPillow", IMG_TYPE_PNG, 8, 30, 11, true, "python3", kPillow},
    {"Png8Magick", IMG_TYPE_PNG, 8, 30, 11, false, "convert", kMagick},
    {"Png24Pillow", IMG_TYPE_PNG, 24, 33, 17, false, "python3", kPillow},
    {"Png4Check", IMG_TYPE_PNG, 4, 31, 9, false, "pngcheck", "pngcheck -q '{in}'"},
    {"Png8GreyCheck", IMG_TYPE_PNG, 8, 30, 11, true, "pngcheck", "pngcheck -q '{in}'"},
    {"GifPillowInterlaced4", IMG_TYPE_GIF_INTERLACED, 4, 31, 9, false, "python3", kPillow},
    {"GifNetpbm8", IMG_TYPE_GIF, 8, 33, 17, false, "giftopnm", "giftopnm '{in}' > '{out}'"},
};

// The picture a row saves.  For GIF it is the first, by seed, that our own
// decoder gets back whole: the writer leaves out an image's last pixel when
// it starts a new string, and every tool refuses a stream one pixel short.
Picture SavePicture(const WriteCase &c, const std::string &path)
{
    bool gif = c.type == IMG_TYPE_GIF || c.type == IMG_TYPE_GIF_INTERLACED;
    for (uint32_t seed = 1; seed < (gif ? 40 : 2); seed++) {
        Picture p = MakePicture(c.width, c.height, c.bits, gif ? seed : (uint32_t)c.type * 31 + c.bits, c.grey);
        int32_t h = ImageOf(p), result = IMG_save_bitmap(h, path.c_str(), c.type);
        IMG_delete_bitmap(h);
        if (result == 0 && (!gif || RasterDiff(DecodeFile(path), p.Rgb()) == 0))
            return p;
    }
    return Picture();
}

class WrittenFile : public TrnwTest, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(WrittenFile, ToolDecodesThePixelsWeWrote)
{
    const WriteCase &c = GetParam();
    SKIP_WITHOUT(c.needs);
    std::string in = TempPath(std::string("w_") + c.name), out = in + ".pnm";
    Picture p = SavePicture(c, in);
    ASSERT_GT(p.width, 0);
    bool g4 = c.type == IMG_TYPE_FAX_G4 || c.type == IMG_TYPE_FAX_G4_B;
    bool lsb = c.type == IMG_TYPE_FAX_G3_B || c.type == IMG_TYPE_FAX_G4_B;
    std::string opts = std::string(g4 ? "-4" : "-3 -1") + (lsb ? " -L" : " -M");
    std::string command = Fill(c.command, {{"in", in}, {"out", out}, {"w", std::to_string(c.width)},
                                           {"h", std::to_string(c.height)}, {"opts", opts}, {"convert", Convert()}});
    if (std::string(c.command).find("{out}'") == std::string::npos) { // a validator
        EXPECT_TRUE(RunQuiet(command)) << command;
    } else {
        Raster theirs = ToolRaster(command, out);
        if ((c.type >= IMG_TYPE_FAX_G3 || c.type == IMG_TYPE_CALS) && theirs.height > c.height && theirs.height <= c.height + 5) {
            theirs.height = c.height; // the fax tools may add the blank rows of the page end
            theirs.rgb.resize((size_t)3 * c.width * c.height);
        }
        // A TIFF ColorMap holds 16-bit colours; the tools may scale them back down by 257.
        int tolerance = c.bits < 24 && c.bits > 1 && !c.grey && c.type != IMG_TYPE_BMP && c.type != IMG_TYPE_EPS ? 1 : 0;
        Raster ours = p.Rgb();
        if (c.type == IMG_TYPE_TGA2) // 5 bits a channel, however a tool widens them again
            for (Raster *r : {&ours, &theirs})
                for (uint8_t &v : r->rgb) v >>= 3;
        EXPECT_EQ(RasterDiff(ours, theirs, tolerance), 0) << command;
    }
    RunQuiet("rm -f '" + in + "' '" + out + "'*");
}

INSTANTIATE_TEST_SUITE_P(Formats, WrittenFile, ::testing::ValuesIn(kWrites),
                         [](const auto &info) { return std::string(info.param.name); });

/* ---- files the tools write, decoded by us ---- */

struct ReadCase {
    const char *name;
    int bits; // of the picture the tool is given
    bool grey;
    const char *needs;
    const char *command; // writes {out} from the PNM {in}
    const char *ext;
};

// Pillow saves {in} as {out}, the format by the extension, `options` added to save().
#define PILLOW_SAVE(options) "/usr/bin/python3 -c \"from PIL import Image; Image.open('{in}').save('{out}'" options ")\""
#define PLAIN "pnmtotiff '{in}' > '{out}.plain.tif' && "
const ReadCase kReads[] = {
    {"TiffcpLzw24", 24, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c lzw -r 7 '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpLzwPredictor24", 24, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c lzw:2 '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpLzwPredictorGrey8", 8, true, "pnmtotiff tiffcp", PLAIN "tiffcp -c lzw:2 '{out}.plain.tif' '{out}'", "tif"},
    {"MagickTiffLzwPredictorGrey16", 8, true, "convert", "{convert} '{in}' -depth 16 -define tiff:predictor=2 -compress LZW '{out}'", "tif"},
    {"MagickTiffLzwPredictorGrey32", 8, true, "convert", "{convert} '{in}' -depth 32 -define tiff:predictor=2 -compress LZW '{out}'", "tif"},
    {"TiffcpPackBits1", 1, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c packbits '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpSeparatePlanes24", 24, false, "pnmtotiff tiffcp", PLAIN "tiffcp -p separate '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpG3", 1, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c g3 '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpG3TwoDimensional", 1, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c g3:2d -r 16 '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpG4", 1, false, "pnmtotiff tiffcp", PLAIN "tiffcp -c g4 '{out}.plain.tif' '{out}'", "tif"},
    {"TiffcpG4BigEndianLsbFirst", 1, false, "pnmtotiff tiffcp", PLAIN "tiffcp -B -c g4 -f lsb2msb -r 9 '{out}.plain.tif' '{out}'", "tif"},
    {"MagickTiffNone24", 24, false, "convert", "{convert} '{in}' -compress None '{out}'", "tif"},
    {"MagickTiffLzwPalette8", 8, false, "convert", "{convert} '{in}' -type Palette -compress LZW '{out}'", "tif"},
    {"MagickTiffPalette4", 4, false, "convert", "{convert} '{in}' -type Palette -compress None '{out}'", "tif"},
    {"MagickTiffGroup4", 1, false, "convert", "{convert} '{in}' -compress Group4 '{out}'", "tif"},
    {"VipsTiffLzw24", 24, false, "vips", "vips copy '{in}' '{out}[compression=lzw]'", "tif"},
    {"VipsTiffPackBits8", 8, true, "vips", "vips copy '{in}' '{out}[compression=packbits]'", "tif"},
    {"MagickBmp1", 1, false, "convert", "{convert} '{in}' -type Bilevel 'bmp3:{out}'", "bmp"},
    {"MagickBmpRle8", 8, false, "convert", "{convert} '{in}' -type Palette -compress RLE 'bmp3:{out}'", "bmp"},
    {"MagickBmp24", 24, false, "convert", "{convert} '{in}' -type TrueColor 'bmp3:{out}'", "bmp"},
    {"MagickBmpOs2", 8, false, "convert", "{convert} '{in}' -type Palette 'bmp2:{out}'", "bmp"},
    {"NetpbmBmp24", 24, false, "ppmtobmp", "ppmtobmp '{in}' > '{out}'", "bmp"},
    // Targa.  This ImageMagick stores a picture it has not been told the
    // orientation of top row first but marks it bottom row first: TopLeft.
#define MAGICK_TGA "{convert} '{in}' -orient TopLeft "
    {"MagickTga24", 24, false, "convert", MAGICK_TGA "'{out}'", "tga"},
    {"MagickTgaPalette8", 8, false, "convert", MAGICK_TGA "-type Palette '{out}'", "tga"},
    {"MagickTgaGrey8", 8, true, "convert", MAGICK_TGA "-type Grayscale '{out}'", "tga"},
    {"MagickTga32Alpha", 24, false, "convert", MAGICK_TGA "-alpha on '{out}'", "tga"},
    {"NetpbmTgaCmap", 8, false, "pamtotga", "pamtotga -cmap '{in}' > '{out}'", "tga"},
    {"NetpbmTgaRgb", 24, false, "pamtotga", "pamtotga -rgb '{in}' > '{out}'", "tga"},
    {"PillowTgaRle24", 24, false, "python3", PILLOW_SAVE(", compression='tga_rle'"), "tga"},
    {"MagickCals", 1, false, "convert", "{convert} '{in}' 'cals:{out}'", "cal"},
    {"NetpbmPcx1", 1, false, "ppmtopcx", "ppmtopcx '{in}' > '{out}'", "pcx"},
    {"NetpbmPcx4Planes", 4, false, "ppmtopcx", "ppmtopcx '{in}' > '{out}'", "pcx"},
    {"NetpbmPcx8", 8, false, "ppmtopcx", "ppmtopcx -8bit '{in}' > '{out}'", "pcx"},
    {"MagickPcx24", 24, false, "convert", "{convert} '{in}' -type TrueColor '{out}'", "pcx"},
    {"MagickDcx24", 24, false, "convert", "{convert} '{in}' '{in}' 'dcx:{out}'", "dcx"},
    {"PillowPcxGrey8", 8, true, "python3", PILLOW_SAVE(""), "pcx"},
    {"PillowPcx24", 24, false, "python3", PILLOW_SAVE(""), "pcx"},
    // DOS EPS files whose TIFF preview epstool converts from the PNM (PackBits)
    // or takes as it is from ImageMagick, behind the PostScript or before it.
#define EPSTOOL(options, preview)                                                                  \
    "printf '%%!PS-Adobe-3.0 EPSF-3.0\\n%%%%BoundingBox: 0 0 77 45\\nshowpage\\n' > '{out}.ps' && " \
    "epstool " options " --add-user-preview " preview " '{out}.ps' '{out}'"
    {"EpstoolPreview1", 1, false, "epstool", EPSTOOL("", "'{in}'"), "eps"},
    {"EpstoolPreview24", 24, false, "epstool", EPSTOOL("--doseps-reverse", "'{in}'"), "eps"},
    {"EpstoolMagickTiffPalette4", 4, false, "convert epstool",
     "{convert} '{in}' -type Palette -compress None '{out}.tif' && " EPSTOOL("", "'{out}.tif'"), "eps"},
    {"EpstoolMagickTiffLzwPalette8", 8, false, "convert epstool",
     "{convert} '{in}' -type Palette -compress LZW '{out}.tif' && " EPSTOOL("--doseps-reverse", "'{out}.tif'"), "eps"},
    {"MagickXbm", 1, false, "convert", "{convert} '{in}' '{out}'", "xbm"},
    {"NetpbmXbm", 1, false, "pbmtoxbm", "pbmtoxbm '{in}' > '{out}'", "xbm"},
    {"NetpbmXbmX10", 1, false, "pbmtoxbm", "pbmtoxbm -x10 '{in}' > '{out}'", "xbm"}, // 16-bit items
    // GIF: two colours come as an 8-bit image; of several images the first is read
    {"MagickGif1", 1, false, "convert", "{convert} '{in}' '{out}'", "gif"},
    {"MagickGif8", 8, false, "convert", "{convert} '{in}' '{out}'", "gif"},
    {"MagickGifInterlaced8", 8, false, "convert", "{convert} '{in}' -interlace GIF '{out}'", "gif"},
    {"MagickGifGrey4", 4, true, "convert", "{convert} '{in}' '{out}'", "gif"},
    {"MagickGifTwoImages8", 8, false, "convert", "{convert} '{in}' \\( '{in}' -negate \\) '{out}'", "gif"},
    {"PillowGif8", 8, false, "python3", PILLOW_SAVE(""), "gif"}, // interlaced
    {"PillowGifPlain4", 4, false, "python3", PILLOW_SAVE(", interlace=False"), "gif"},
    {"PillowGifTransparent1", 1, false, "python3", PILLOW_SAVE(", transparency=1"), "gif"},
    {"PillowGifTwoImages8", 8, false, "python3",
     PILLOW_SAVE(", save_all=True, append_images=[Image.open('{in}').rotate(180)]"), "gif"},
    {"NetpbmGif8", 8, false, "pamtogif", "pamtogif '{in}' > '{out}'", "gif"},
    {"NetpbmGifInterlaced4", 4, false, "pamtogif", "pamtogif -interlace '{in}' > '{out}'", "gif"},
    // PNG of every colour type and depth: 2 bits from the bilevel picture, 16
    // bits from 8 (v * 257), alpha opaque.
#define MAGICK_PNG(type, depth, more) "{convert} '{in}' -define png:color-type=" #type " -define png:bit-depth=" #depth more " '{out}'"
#define PILLOW_PNG(how, options) "/usr/bin/python3 -c \"from PIL import Image; Image.open('{in}')" how ".save('{out}'" options ")\""
    {"MagickPngGrey1", 1, false, "convert", MAGICK_PNG(0, 1, ""), "png"},
    {"MagickPngGrey2", 1, false, "convert", MAGICK_PNG(0, 2, ""), "png"},
    {"MagickPngGrey4", 4, true, "convert", MAGICK_PNG(0, 4, ""), "png"},
    {"MagickPngGrey16", 8, true, "convert", MAGICK_PNG(0, 16, ""), "png"},
    {"MagickPngPalette1", 1, false, "convert", MAGICK_PNG(3, 1, ""), "png"},
    {"MagickPngPalette2", 1, false, "convert", MAGICK_PNG(3, 2, ""), "png"},
    {"MagickPngPalette4", 4, false, "convert", "{convert} '{in}' -define png:bit-depth=4 'png8:{out}'", "png"},
    {"MagickPngPalette8Interlaced", 8, false, "convert", MAGICK_PNG(3, 8, " -interlace PNG"), "png"},
    {"MagickPngRgb48", 24, false, "convert", MAGICK_PNG(2, 16, ""), "png"},
    {"MagickPngGreyAlpha16", 8, true, "convert", MAGICK_PNG(4, 16, ""), "png"},
    {"MagickPngRgba32Interlaced", 24, false, "convert", MAGICK_PNG(6, 8, " -interlace PNG"), "png"},
    {"MagickPngRgba64", 24, false, "convert", MAGICK_PNG(6, 16, ""), "png"},
    {"PillowPngGrey8", 8, true, "python3", PILLOW_PNG("", ""), "png"},
    {"PillowPngPalette4", 4, false, "python3", PILLOW_PNG(".convert('P', palette=Image.ADAPTIVE, colors=16)", ", bits=4"), "png"},
    {"PillowPngPalette8", 8, false, "python3", PILLOW_PNG(".quantize(256)", ""), "png"},
    {"PillowPngRgb24", 24, false, "python3", PILLOW_PNG("", ""), "png"},
    {"PillowPngGreyAlpha", 8, true, "python3", PILLOW_PNG(".convert('LA')", ""), "png"},
};

class ToolFile : public TrnwTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(ToolFile, DecodesToThePixelsTheToolWasGiven)
{
    const ReadCase &c = GetParam();
    SKIP_WITHOUT(c.needs);
    int width = c.bits == 1 ? 221 : 77, height = c.bits == 1 ? 60 : 45;
    Raster expected = MakePicture(width, height, c.bits, 11u * c.bits + 5, c.grey).Rgb();
    std::string in = TempPath(std::string("r_") + c.name + (c.bits == 1 ? ".pbm" : c.grey ? ".pgm" : ".ppm"));
    std::string out = TempPath(std::string("r_") + c.name + "." + c.ext);
    ASSERT_TRUE(WritePnm(in, expected, c.bits == 1 ? '4' : c.grey ? '5' : '6'));
    std::string command = Fill(c.command, {{"in", in}, {"out", out}, {"convert", Convert()}});
    ASSERT_TRUE(RunQuiet(command)) << command;
    int32_t status = 0;
    EXPECT_EQ(RasterDiff(DecodeFile(out, &status), expected), 0) << command << " (decode " << status << ")";
    RunQuiet("rm -f '" + in + "' '" + out + "'*");
}

INSTANTIATE_TEST_SUITE_P(Formats, ToolFile, ::testing::ValuesIn(kReads),
                         [](const auto &info) { return std::string(info.param.name); });

// netpbm's raw Group 3 stream through the headerless fax entry, with the page
// height given and left for the decoder to find.
TEST_F(TrnwTest, NetpbmGroup3StreamDecodesThroughTheFaxEntry)
{
    SKIP_WITHOUT("pbmtog3");
    Raster page = MakePicture(1728, 150, 1, 99).Rgb();
    std::string pbm = TempPath("g3.pbm"), g3 = TempPath("g3.g3");
    ASSERT_TRUE(WritePnm(pbm, page, '4'));
    ASSERT_TRUE(RunQuiet("pbmtog3 '" + pbm + "' > '" + g3 + "'"));
    std::vector<uint8_t> data = ReadFile(g3);
    for (int32_t height : {150, 0}) {
        SCOPED_TRACE(height);
        int32_t h = IMG_decompress_fax_mem_size(data.data(), (uint32_t)data.size(), 1728, height, 3, 1);
        ASSERT_GE(h, 0);
        Raster ours = ImageRgb(h);
        IMG_delete_bitmap(h);
        ours.height = std::min(ours.height, page.height); // pbmtog3 closes with blank rows
        ours.rgb.resize(page.rgb.size());
        EXPECT_EQ(RasterDiff(ours, page), 0);
    }
    std::remove(pbm.c_str());
    std::remove(g3.c_str());
}

// ppmtopcx codes four colours as two planes of one bit, or packed as two
// bits a pixel.
TEST_F(TrnwTest, NetpbmFourColourPcxDecodes)
{
    SKIP_WITHOUT("ppmtopcx");
    Picture p = MakePicture(45, 13, 4, 21);
    for (auto &row : p.rows)
        for (uint8_t &b : row)
            b &= 0x33; // indices 0 to 3
    Raster expected = p.Rgb();
    std::string ppm = TempPath("four.ppm"), pcx = TempPath("four.pcx");
    ASSERT_TRUE(WritePnm(ppm, expected));
    for (const char *options : {"", "-packed"}) {
        SCOPED_TRACE(options);
        ASSERT_TRUE(RunQuiet(std::string("ppmtopcx ") + options + " '" + ppm + "' > '" + pcx + "'"));
        EXPECT_EQ(RasterDiff(DecodeFile(pcx), expected), 0);
    }
    std::remove(ppm.c_str());
    std::remove(pcx.c_str());
}

// A DCX built page by page reads back in ImageMagick page by page, each
// 256-colour page with its own palette.
TEST_F(TrnwTest, DcxWeBuildReadsBackPageByPageInImageMagick)
{
    SKIP_WITHOUT("convert");
    std::vector<Picture> pages = {MakePicture(40, 9, 8, 5), MakePicture(40, 9, 8, 6, true),
                                  MakePicture(23, 5, 1, 7), MakePicture(17, 8, 24, 8)};
    std::string dcx = TempPath("pages.dcx"), ppm = dcx + ".ppm";
    std::remove(dcx.c_str());
    for (const Picture &p : pages) {
        int32_t h = ImageOf(p);
        ASSERT_EQ(IMG_save_bitmap(h, dcx.c_str(), IMG_TYPE_DCX), 0);
        IMG_delete_bitmap(h);
    }
    for (size_t i = 0; i < pages.size(); i++) {
        SCOPED_TRACE(i);
        Raster theirs = ToolRaster(Convert() + " '" + dcx + "[" + std::to_string(i) + "]' -depth 8 'ppm:" + ppm + "'", ppm);
        if (pages[i].bits == 1) // ImageMagick's bit 0 is white
            for (uint8_t &v : theirs.rgb)
                v = (uint8_t)(255 - v);
        EXPECT_EQ(RasterDiff(theirs, pages[i].Rgb()), 0);
    }
    std::remove(dcx.c_str());
    std::remove(ppm.c_str());
}

/* ---- GIF ---- */

// giflib's gifbuild writes every table size from a text description, with
// a global or a local table, interlaced or not, a transparent index and a
// second image; we read the first image as described: 2 colours and more
// than 16 as an 8-bit image, 4 to 16 as a 4-bit one.
TEST_F(TrnwTest, GifbuildFilesOfEveryTableSize)
{
    SKIP_WITHOUT("gifbuild");
    struct {
        int entries;
        bool local, interlaced, transparent, second;
    } cases[] = {{2, 0, 0, 0, 0},  {4, 1, 0, 0, 1},   {8, 0, 1, 0, 0},   {16, 0, 0, 1, 0},
                 {32, 0, 0, 0, 1}, {64, 1, 1, 0, 0}, {128, 1, 0, 1, 0}, {256, 0, 1, 1, 1}};
    std::string text = TempPath("build.txt"), gif = TempPath("build.gif");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.entries);
        Picture p = MakePicture(23, 13, 8, (uint32_t)c.entries);
        std::ostringstream map, t;
        for (int i = 0; i < c.entries; i++)
            map << "\trgb " << +p.palette[4 * i + 2] << ' ' << +p.palette[4 * i + 1] << ' ' << +p.palette[4 * i] << " is " << i << '\n';
        t << "screen width 23\nscreen height 13\nscreen colors " << c.entries << '\n';
        t << (c.local ? "" : "screen map\n" + map.str() + "end\n");
        t << (c.transparent ? "graphics control\n\ttransparent index 1\nend\n" : "") << "image # 1\n";
        t << (c.interlaced ? "image interlaced\n" : "") << (c.local ? "image map\n" + map.str() + "end\n" : "");
        t << "image bits 23 by 13 hex\n" << std::hex;
        for (auto &row : p.rows) {
            for (int x = 0; x < 23; x++)
                t << ((row[(size_t)x] &= (uint8_t)(c.entries - 1)) >> 4) << (row[(size_t)x] & 15);
            t << '\n';
        }
        t << (c.second ? "image # 2\nimage bits 2 by 2 hex\n0001\n0100\n" : "");
        std::string s = t.str();
        ASSERT_TRUE(WriteFile(text, std::vector<uint8_t>(s.begin(), s.end())));
        ASSERT_TRUE(RunQuiet("gifbuild '" + text + "' > '" + gif + "'"));
        int32_t h = IMG_decompress_bitmap(gif.c_str());
        ASSERT_GE(h, 0);
        EXPECT_EQ(RasterDiff(ImageRgb(h), p.Rgb()), 0);
        EXPECT_EQ(PictureOf(h).bits, c.entries == 2 || c.entries > 16 ? 8 : 4);
        EXPECT_EQ(ImgTableGet(h)->transparentColour, c.transparent ? 1u | DIB_TRANSPARENT_FLAG : 0u);
        EXPECT_EQ(IMGLOW_get_pages(gif.c_str()), c.second ? 2 : 1);
        IMG_delete_bitmap(h);
    }
    RunQuiet("rm -f '" + text + "' '" + gif + "'");
}

/* ---- JPEG ---- */

// JPEG files the tools make of the picture decode within 2 per channel of
// the reference decoder's decode: djpeg for .jpg files (it turns CMYK into
// RGB as we do), libtiff for JPEG TIFFs (tiffcp's compression 7).
struct ToolJpegCase {
    const char *name;
    bool grey;
    const char *needs, *make, *reference; // {in} to {out}; {out} to the PNM {ref}
};

const char *const kDjpeg = "djpeg -pnm '{out}' > '{ref}'";
const char *const kLibtiff = "tiff2rgba -n '{out}' '{ref}.tif' && tifftopnm '{ref}.tif' > '{ref}'";
#define PILLOW_JPEG(mode, options) \
    "/usr/bin/python3 -c \"from PIL import Image; Image.open('{in}')" mode ".save('{out}', 'JPEG'" options ")\""
#define TIFFCP_JPEG "{convert} '{in}' '{out}.tif' && tiffcp -c jpeg -r 16 '{out}.tif' '{out}'"

const ToolJpegCase kJpegReads[] = {
    {"CjpegGrey", true, "cjpeg djpeg", "cjpeg -grayscale '{in}' > '{out}'", kDjpeg},
    {"CjpegColour", false, "cjpeg djpeg", "cjpeg -quality 90 '{in}' > '{out}'", kDjpeg},
    {"CjpegProgressive", false, "cjpeg djpeg", "cjpeg -progressive '{in}' > '{out}'", kDjpeg},
    {"CjpegRestartsRgb", false, "cjpeg djpeg", "cjpeg -restart 1 -rgb '{in}' > '{out}'", kDjpeg},
    {"MagickColour", false, "convert djpeg", "{convert} '{in}' -quality 80 'jpg:{out}'", kDjpeg},
    {"MagickCmyk", false, "convert djpeg", "{convert} '{in}' -colorspace CMYK 'jpg:{out}'", kDjpeg},
    {"PillowColour", false, "python3 djpeg", PILLOW_JPEG("", ", quality=85"), kDjpeg},
    {"PillowProgressive", false, "python3 djpeg", PILLOW_JPEG("", ", progressive=True"), kDjpeg},
    {"PillowCmyk", false, "python3 djpeg", PILLOW_JPEG(".convert('CMYK')", ""), kDjpeg},
    {"TiffcpJpeg", false, "convert tiffcp tiff2rgba tifftopnm", TIFFCP_JPEG, kLibtiff},
    {"TiffcpJpegGrey", true, "convert tiffcp tiff2rgba tifftopnm", TIFFCP_JPEG, kLibtiff},
};

class JpegFile : public TrnwTest, public ::testing::WithParamInterface<ToolJpegCase> {};

TEST_P(JpegFile, DecodesWithinTwoOfTheReferenceDecoder)
{
    const ToolJpegCase &c = GetParam();
    SKIP_WITHOUT(c.needs);
    Raster picture = MakePicture(77, 45, c.grey ? 8 : 24, 13, c.grey).Rgb();
    std::string in = TempPath(std::string("j_") + c.name + (c.grey ? ".pgm" : ".ppm"));
    std::string out = TempPath(std::string("j_") + c.name + ".jpg"), ref = out + ".pnm";
    ASSERT_TRUE(WritePnm(in, picture, c.grey ? '5' : '6'));
    std::string make = Fill(c.make, {{"in", in}, {"out", out}, {"convert", Convert()}});
    ASSERT_TRUE(RunQuiet(make)) << make;
    int32_t status = 0;
    Raster ours = DecodeFile(out, &status);
    EXPECT_EQ(RasterDiff(ours, ToolRaster(Fill(c.reference, {{"out", out}, {"ref", ref}}), ref), 2), 0)
        << make << " (decode " << status << ")";
    RunQuiet("rm -f '" + in + "' '" + out + "'*");
}

INSTANTIATE_TEST_SUITE_P(Tools, JpegFile, ::testing::ValuesIn(kJpegReads),
                         [](const auto &info) { return std::string(info.param.name); });

// Our JPEG files and type-40 TIFFs decode in the tools within 2 of our own
// decode, which stays close to the picture.  libtiff decodes old-style JPEG
// with an upsampling and colour conversion of its own: within 10 in colour.
// This ImageMagick marks such a TIFF YCbCr after libtiff has turned it into
// RGB: -set colorspace sRGB takes the mark off.
struct OurJpegCase {
    const char *name;
    int32_t type;
    bool grey;
    const char *needs, *decode; // {out} to the PNM {ref}
    int tolerance = 2;
};

const OurJpegCase kJpegWrites[] = {
    {"Djpeg", IMG_TYPE_JPG, false, "djpeg", kDjpeg},
    {"DjpegGrey", IMG_TYPE_JPG, true, "djpeg", kDjpeg},
    {"Magick", IMG_TYPE_JPG, false, "convert", "{convert} '{out}' 'ppm:{ref}'"},
    {"Pillow", IMG_TYPE_JPG, false, "python3",
     "/usr/bin/python3 -c \"from PIL import Image; Image.open('{out}').convert('RGB').save('{ref}', 'PPM')\""},
    {"LibtiffType40", IMG_TYPE_TIFF_JPEG, false, "tiff2rgba tifftopnm", kLibtiff, 10},
    {"LibtiffType40Grey", IMG_TYPE_TIFF_JPEG, true, "tiff2rgba tifftopnm", kLibtiff},
    {"MagickType40", IMG_TYPE_TIFF_JPEG, false, "convert", "{convert} '{out}' -set colorspace sRGB 'ppm:{ref}'", 10},
    {"MagickType40Grey", IMG_TYPE_TIFF_JPEG, true, "convert", "{convert} '{out}' 'ppm:{ref}'"},
};

class OurJpeg : public TrnwTest, public ::testing::WithParamInterface<OurJpegCase> {};

TEST_P(OurJpeg, DecodesInTheToolAsInOurs)
{
    const OurJpegCase &c = GetParam();
    SKIP_WITHOUT(c.needs);
    Picture p = MakePicture(77, 45, c.grey ? 8 : 24, 17, c.grey);
    for (auto &row : p.rows) // blue follows red and green, for a picture JPEG codes closely
        for (size_t x = 0; !c.grey && x < 77; x++)
            row[3 * x] = (uint8_t)(row[3 * x + 1] / 2 + row[3 * x + 2] / 2);
    std::string out = TempPath(std::string("w_") + c.name + (c.type == IMG_TYPE_JPG ? ".jpg" : ".tif"));
    std::remove(out.c_str());
    int32_t h = ImageOf(p);
    ASSERT_EQ(IMG_save_bitmap(h, out.c_str(), c.type), 0);
    IMG_delete_bitmap(h);
    Raster ours = DecodeFile(out);
    std::string ref = out + ".pnm";
    EXPECT_EQ(RasterDiff(ToolRaster(Fill(c.decode, {{"out", out}, {"ref", ref}, {"convert", Convert()}}), ref), ours, c.tolerance), 0);
    EXPECT_EQ(RasterDiff(ours, p.Rgb(), 24), 0);
    RunQuiet("rm -f '" + out + "'*");
}

INSTANTIATE_TEST_SUITE_P(Tools, OurJpeg, ::testing::ValuesIn(kJpegWrites),
                         [](const auto &info) { return std::string(info.param.name); });

/* ---- processing against ImageMagick ---- */

struct ProcessCase {
    const char *name;
    int bits;
    bool runCoded;
    int32_t (*ours)(int32_t handle);
    const char *magick; // the same operation by ImageMagick, "" when our result is only read back
};

const ProcessCase kProcesses[] = {
    {"Rotate90_1", 1, false, [](int32_t h) { return IMG_rotate_bitmap(h, 9000); }, "-rotate 90"},
    {"Rotate90_1RunCoded", 1, true, [](int32_t h) { return IMG_rotate_bitmap(h, 9000); }, "-rotate 90"},
    {"Rotate270_4", 4, false, [](int32_t h) { return IMG_rotate_bitmap(h, 27000); }, "-rotate 270"},
    {"Rotate90_8", 8, false, [](int32_t h) { return IMG_rotate_bitmap(h, 9000); }, "-rotate 90"},
    {"Rotate180_24", 24, false, [](int32_t h) { return IMG_rotate_bitmap(h, 18000); }, "-rotate 180"},
    {"Rotate270_24", 24, false, [](int32_t h) { return IMG_rotate_bitmap(h, 27000); }, "-rotate 270"},
    {"FlipX1RunCoded", 1, true, [](int32_t h) { return IMG_flip_bitmapx(h); }, "-flop"},
    {"FlipX4", 4, false, [](int32_t h) { return IMG_flip_bitmapx(h); }, "-flop"},
    {"FlipX24", 24, false, [](int32_t h) { return IMG_flip_bitmapx(h); }, "-flop"},
    {"FlipY1", 1, false, [](int32_t h) { return IMG_flip_bitmapy(h); }, "-flip"},
    {"FlipY8", 8, false, [](int32_t h) { return IMG_flip_bitmapy(h); }, "-flip"},
    {"Invert24", 24, false, [](int32_t h) { return IMG_invert_bitmap(h); }, "-negate"},
    {"BayerMono", 24, false, [](int32_t h) { return IMG_bayer_mono(h); }, ""},
    {"DiffusionMono", 8, false, [](int32_t h) { return IMG_diffusion_mono(h); }, ""},
    {"HalftoneMono", 24, false, [](int32_t h) { return IMG_halftone_mono(h); }, ""},
    {"BayerColor", 24, false, [](int32_t h) { return IMG_bayer_color(h); }, ""},
    {"DiffusionColor", 24, false, [](int32_t h) { return IMG_diffusion_color(h); }, ""},
    {"ColorGray", 24, false, [](int32_t h) { return IMG_color_gray(h); }, ""},
    {"Promote8", 4, false, [](int32_t h) { return IMG_promote_8(h); }, ""},
    {"Promote24", 8, false, [](int32_t h) { return IMG_promote_24(h); }, ""},
    {"MedianCut", 24, false, [](int32_t h) { return IMG_mediancut_color(h); }, ""},
    {"Popularity", 24, false, [](int32_t h) { return IMG_popularity_color(h); }, ""},
    {"Octree4", 24, false, [](int32_t h) { return IMG_octree_color(h, 4, nullptr, 16); }, ""},
    {"Octree8", 24, false, [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 64); }, ""},
};

class Processed : public TrnwTest, public ::testing::WithParamInterface<ProcessCase> {};

TEST_P(Processed, ResultAgreesWithImageMagick)
{
    const ProcessCase &c = GetParam();
    SKIP_WITHOUT("convert");
    Picture p = MakePicture(c.bits == 1 ? 53 : 37, 29, c.bits, 7u * c.bits + 1);
    int32_t h = ImageOf(p);
    ASSERT_GE(h, 0);
    std::string source = TempPath(std::string("p_") + c.name + ".bmp"), result = source + ".ppm";
    ASSERT_EQ(IMG_save_bitmap(h, source.c_str(), IMG_TYPE_BMP), 0);
    if (c.runCoded) {
        ASSERT_EQ(IMG_dib_to_runs(h), 0);
    }
    ASSERT_GE(c.ours(h), 0); // octree answers with its colour count
    Raster ours = ImageRgb(h);
    if (*c.magick) { // ImageMagick does the same to our source file
        std::string command = Convert() + " '" + source + "' " + c.magick + " -depth 8 'ppm:" + result + "'";
        EXPECT_EQ(RasterDiff(ours, ToolRaster(command, result)), 0) << command;
    } else { // ImageMagick reads our result as we hold it
        ASSERT_EQ(IMG_save_bitmap(h, source.c_str(), IMG_TYPE_BMP), 0);
        std::string command = Convert() + " '" + source + "' -depth 8 'ppm:" + result + "'";
        Raster theirs = ToolRaster(command, result);
        EXPECT_EQ(RasterDiff(ours, theirs), 0) << command;
        std::set<uint32_t> colours;
        for (size_t i = 0; i + 2 < theirs.rgb.size(); i += 3)
            colours.insert((uint32_t)theirs.rgb[i] << 16 | theirs.rgb[i + 1] << 8 | theirs.rgb[i + 2]);
        int bits = PictureOf(h).bits;
        EXPECT_LE(colours.size(), bits < 24 ? (size_t)1 << bits : ours.rgb.size() / 3);
    }
    std::remove(source.c_str());
}

INSTANTIATE_TEST_SUITE_P(Operations, Processed, ::testing::ValuesIn(kProcesses),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace

/* The resolution tags libtiff reads from our TIFFs: the image's own when it
 * has both, else 200 x 200 for Group 3 and 640/9 x 480/7 for the others. */
using TiffWriter = TrnwTest;

TEST_F(TiffWriter, ResolutionAsLibtiffReadsIt)
{
    SKIP_WITHOUT("tiffinfo");
    struct Case {
        int32_t type, x, y;
        const char *expected;
    } cases[] = {{IMG_TYPE_TIFF, 0, 0, "Resolution: 71.1111, 68.5714"},
                 {IMG_TYPE_TIFF_G3, 0, 0, "Resolution: 200, 200"},
                 {IMG_TYPE_TIFF_G4, 150, 0, "Resolution: 71.1111, 68.5714"},
                 {IMG_TYPE_TIFF, 150, 75, "Resolution: 150, 75"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.expected);
        TestDib dib(16, 4, 1);
        PutLE32(dib.block + 24, (uint32_t)c.x);
        PutLE32(dib.block + 28, (uint32_t)c.y);
        int32_t h = IMG_create_handle_keep(dib.Release());
        ASSERT_GE(h, 0);
        std::string file = TempPath("resolution.tif"), text = file + ".txt";
        RunQuiet("rm -f '" + file + "'");
        ASSERT_EQ(IMG_save_bitmap(h, file.c_str(), c.type), 0);
        IMG_delete_bitmap(h);
        ASSERT_TRUE(RunQuiet("tiffinfo '" + file + "' > '" + text + "' 2>/dev/null"));
        std::vector<uint8_t> info = ReadFile(text);
        EXPECT_NE(std::string(info.begin(), info.end()).find(c.expected), std::string::npos);
        RunQuiet("rm -f '" + file + "' '" + text + "'");
    }
}
